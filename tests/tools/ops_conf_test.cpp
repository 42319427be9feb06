// The tools read the configuration file as the library does, and say of each line what is wrong with it.
#include <random>

#include "lib_test.h"
#include "ops_conf.h"
#include "zeb_cfg.h"

using testing::ElementsAre;
using testing::IsEmpty;

class ops_conf_file : public lib_test
{
  protected:
    // "LINE severity what", without the notes of missing sections.
    static std::vector<std::string> wrong(const std::string &text)
    {
        static const char *const severities[] = {"note", "warning", "error"};
        std::vector<std::string> lines;
        for (const ops_finding_t &finding : ops_conf_check(text)) {
            EXPECT_FALSE(finding.should.empty()) << finding.what;
            if (finding.line != 0)
                lines.push_back(std::to_string(finding.line) + " " + severities[finding.severity] + " " + finding.what);
        }
        return lines;
    }

    static std::vector<std::string> wrong_app(const std::string &line)
    {
        return wrong("[APP_INFO_TBL]\n" + line + "\n");
    }

    static std::vector<std::string> wrong_group(const std::string &line)
    {
        return wrong("[APP_MCAST_TBL]\n" + line + "\n");
    }

    static std::vector<std::string> wrong_key(const std::string &line)
    {
        return wrong("[MISC_CONF]\n" + line + "\n");
    }

    // What the library and the tools find in a text must be the same.
    void expect_parity(const std::string &text)
    {
        write_conf(text.c_str());
        ops_conf_t conf = ops_conf_parse(text);
        for (uint32_t app : {0U, 5U, 10U, 100U, 101U, 20000U, 4294967295U}) {
            zeb_app_cfg_t cfg;
            bool found = zeb_get_app_cfg(app, &cfg) == 0;
            ASSERT_EQ(found, conf.apps.count(app) == 1) << app << " in:\n" << text;
            if (found) {
                EXPECT_EQ(cfg.name, conf.apps[app].name) << text;
                EXPECT_EQ(cfg.priority, conf.apps[app].priority) << text;
            }
        }
        for (const char *key : {"zeb_dbg_cfg", "zeb_log_cfg", "zeb_log_size", "zeb_blocked_resume_enabled"}) {
            char value[ZEB_CFG_VALUE_LEN];
            bool found = zeb_get_misc_cfg(key, value, sizeof(value)) == 0;
            ASSERT_EQ(found, conf.keys.count(key) == 1) << key << " in:\n" << text;
            if (found) {
                EXPECT_EQ(conf.keys[key], value) << text;
            }
        }
    }
};

TEST_F(ops_conf_file, is_read_as_the_library_reads_it)
{
    std::string name(40, 'n');
    expect_parity("");
    expect_parity("[APP_INFO_TBL]\n100 , routed , 3 , team-a , routing daemon\n100,second,1,x\n");
    expect_parity("100,before,1,x\n [APP_INFO_TBL] \n#100,no,1,x\n\n100 , a b  ,-1, x\n[OTHER]\n101,no,1,x\n");
    expect_parity("[APP_INFO_TBL]\n[APP_INFO_TBL]\n100,no,1,x\n");
    expect_parity("[APP_INFO_TBL]\n0x64,no,1,x\n100," + name + ",1,x\n101,no,1\n10,x,1,y");
    expect_parity("[APP_INFO_TBL]\n#" + std::string(126, 'c') + "100,rest of a comment,1,x\n");
    expect_parity("[APP_INFO_TBL]\n#" + std::string(126, 'c') + "[MISC_CONF]\nzeb_dbg_cfg=3\n");
    expect_parity("[MISC_CONF]\nzeb_dbg_cfgX=3\nzeb_dbg_cfg=4\nzeb_log_cfg\nzeb_log_cfg =  5\nzeb_log_size=\n"
                  "zeb_blocked_resume_enabled=              true\n");
    expect_parity("[MISC_CONF]\n[APP_INFO_TBL]\n100,a,1,x\n[MISC_CONF]\nzeb_dbg_cfg=1\n");
    expect_parity("[APP_INFO_TBL]\r\n100 , dos , 1 , x\r\n[MISC_CONF]\r\nzeb_dbg_cfg=1\r\n");
}

TEST_F(ops_conf_file, is_read_as_the_library_reads_it_whatever_is_in_it)
{
    const std::vector<std::string> words = {"[APP_INFO_TBL]",
                                            "[MISC_CONF]",
                                            "[APP_MCAST_TBL]",
                                            "[",
                                            "]",
                                            "#",
                                            "\n",
                                            "\n",
                                            "\n",
                                            " ",
                                            "\t",
                                            "\r",
                                            ",",
                                            " , ",
                                            "100",
                                            "101",
                                            "5",
                                            "010",
                                            "0x5",
                                            "-1",
                                            "=",
                                            "zeb_dbg_cfg",
                                            "zeb_log_cfg",
                                            "zeb_log_size",
                                            "true",
                                            "zeb_blocked_resume_enabled",
                                            "routed",
                                            "100,routed,1,team\n",
                                            "zeb_log_cfg=3\n",
                                            std::string(130, 'x'),
                                            std::string(31, 'y'),
                                            std::string(126, ' ')};
    std::mt19937 random(1);
    for (int round = 0; round < 2000; round++) {
        std::string text;
        for (size_t i = random() % 40; i > 0; i--)
            text += words[random() % words.size()];
        expect_parity(text);
        (void)ops_conf_check(text);
        ASSERT_FALSE(HasFatalFailure());
    }
}

TEST_F(ops_conf_file, the_example_of_the_documentation_is_right)
{
    EXPECT_THAT(ops_conf_check("[APP_INFO_TBL]\n# id , name , priority , developer , comment\n"
                               "100 , routed , 3 , team-a , routing daemon\n[APP_MCAST_TBL]\n"
                               "3001 , l2group , 100 101 0x66 , layer-2 listeners\n[MISC_CONF]\nzeb_dbg_cfg=0x8\n"
                               "zeb_log_cfg=0xc\nzeb_log_size=100000\nzeb_blocked_resume_enabled=true\n"),
                IsEmpty());
}

TEST_F(ops_conf_file, a_section_that_is_missing_unknown_or_there_twice_is_said)
{
    std::vector<ops_finding_t> findings = ops_conf_check("");
    ASSERT_EQ(findings.size(), 3U);
    EXPECT_EQ(findings[2].line, 0U);
    EXPECT_THAT(findings[2].what, testing::HasSubstr("[MISC_CONF]"));
    EXPECT_THAT(wrong("[Misc_Conf]\nzeb_dbg_cfg=1\n"),
                ElementsAre("1 error the library does not know the section '[Misc_Conf]' and skips it"));
    EXPECT_THAT(wrong("[MISC_CONF] # masks\nzeb_dbg_cfg=1\n"), testing::SizeIs(1));
    EXPECT_THAT(wrong("[MISC_CONF]\n[MISC_CONF]\nnonsense\n"),
                ElementsAre("2 error the library reads the section of line 1 alone, and skips this one"));
    EXPECT_THAT(wrong("zeb_dbg_cfg=1\n\n[MISC_CONF]\n"),
                ElementsAre("1 error stands before the first section and is not read"));
    EXPECT_THAT(wrong("\xEF\xBB\xBF[MISC_CONF]\n"),
                testing::Contains("1 error begins with a byte order mark, which hides what follows"));
}

TEST_F(ops_conf_file, a_line_above_127_characters_is_several)
{
    std::string fits = "zeb_log_cfg=1 " + std::string(112, 'x'); // 127 with its end
    EXPECT_THAT(wrong_key(fits), testing::Not(testing::Contains(testing::HasSubstr("127"))));
    EXPECT_THAT(wrong_key(fits + "x"), testing::Contains(testing::HasSubstr("2 warning has more than 127 characters")));
    EXPECT_THAT(wrong_key("#" + std::string(126, 'c') + "zeb_log_cfg=1"),
                ElementsAre("2 warning has more than 127 characters: the library reads what follows as a line of its "
                            "own",
                            "2 error the rest of a long comment is no comment: the library reads 'zeb_log_cfg=1'"));
    EXPECT_THAT(wrong_key(std::string("zeb_log_cfg=1\0zeb", 17)),
                ElementsAre("2 error has a NUL byte, and what follows it is not read"));
}

TEST_F(ops_conf_file, each_field_of_an_application_is_looked_at)
{
    EXPECT_THAT(wrong_app("100,routed,3,team"), IsEmpty());
    EXPECT_THAT(wrong_app("0x64,routed,3,team"),
                ElementsAre("2 error the id is not decimal: the library reads no item"));
    EXPECT_THAT(wrong_app("routed"),
                ElementsAre("2 error the line does not begin with an id: the library reads no item"));
    EXPECT_THAT(wrong_app("100 routed"), ElementsAre("2 error no name after the id: the library reads no item"));
    EXPECT_THAT(wrong_app("100,routed,high,team"),
                ElementsAre("2 error no priority, a number, after the name: the library reads no item"));
    EXPECT_THAT(wrong_app("100,routed,3"),
                ElementsAre("2 error no developer after the priority: the library reads no item"));
    EXPECT_THAT(wrong_app("9000,routed,3,team"), ElementsAre("2 error no application can have the id 9000"));
    EXPECT_THAT(wrong_app("-1,routed,3,team"), ElementsAre("2 error no application can have the id -1"));
    EXPECT_THAT(wrong_app("100,routed,4,team"),
                ElementsAre("2 error TIPC has no priority 4: the application cannot be registered"));
    EXPECT_THAT(wrong_app("100,a,0,team\n100,b,1,team"),
                ElementsAre("3 error never used: application 100 stands in line 2 already"));
    EXPECT_THAT(wrong_app("100,a,0,team\n101,a,0,team"),
                ElementsAre("3 note the application of line 2 has the name 'a' too"));
    EXPECT_THAT(wrong_app("100," + std::string(31, 'n') + ",0,team"), IsEmpty());
    EXPECT_THAT(wrong_app("100," + std::string(32, 'n') + ",0,team"),
                ElementsAre("2 warning the name has 32 characters and is cut to '" + std::string(31, 'n') + "'"));
    EXPECT_THAT(wrong_app("100,a,0," + std::string(32, 'd') + "," + std::string(32, 'c')), testing::SizeIs(2));
    EXPECT_THAT(wrong_app(""), ElementsAre("2 note a blank line: each look-up that passes it logs a WARN line"));
}

TEST_F(ops_conf_file, each_member_of_a_group_is_looked_at)
{
    EXPECT_THAT(wrong_group("0x3001,l2,100 0x66"), IsEmpty());
    EXPECT_THAT(wrong_group("group,l2,100"),
                ElementsAre("2 error the line does not begin with a hexadecimal id: the library reads no item"));
    EXPECT_THAT(wrong_group("3001,l2"), ElementsAre("2 error no members after the name: the library reads no item"));
    EXPECT_THAT(wrong_group("3001,l2,none"), ElementsAre("2 error the group has no members"));
    EXPECT_THAT(wrong_group("3001,l2,010"), ElementsAre("2 warning 010 is octal: the member is 8"));
    EXPECT_THAT(wrong_group("3001,l2,-5"), ElementsAre("2 warning the sign of -5 is not seen: the member is 5"));
    EXPECT_THAT(wrong_group("3001,l2,9000"), ElementsAre("2 error no application can have the id 9000 of a member"));
    EXPECT_THAT(wrong_group("3001,l2,1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16"), IsEmpty());
    EXPECT_THAT(wrong_group("3001,l2,1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17"),
                ElementsAre("2 error the group has 17 members, and the library takes the first 16"));
    EXPECT_THAT(wrong_group("3001,a,1\n0x3001,b,2"),
                ElementsAre("3 error never used: the group stands in line 2 already"));
}

TEST_F(ops_conf_file, each_key_and_its_value_are_looked_at)
{
    EXPECT_THAT(wrong_key("zeb_log_cfg = 0xc\nzeb_log_size=1000\n\nzeb_blocked_resume_enabled= true"), IsEmpty());
    EXPECT_THAT(wrong_key("zeb_logs=1"), ElementsAre("2 warning the library does not know the key 'zeb_logs'"));
    EXPECT_THAT(wrong_key("zeb_log_cfg"), ElementsAre("2 error no = after the key: the library skips the line"));
    EXPECT_THAT(wrong_key("zeb_log_cfg_old=1"),
                ElementsAre("2 error counts as the key zeb_log_cfg, because 'zeb_log_cfg_old' begins with it"));
    EXPECT_THAT(wrong_key("zeb_log_cfg=1\nzeb_log_cfg_old=2"),
                ElementsAre("3 error never used: line 2 answers the key zeb_log_cfg already"));
    EXPECT_THAT(wrong_key("zeb_log_cfg=all"), ElementsAre("2 error 'all' is no number and counts as 0"));
    EXPECT_THAT(wrong_key("zeb_log_cfg="), ElementsAre("2 error '' is no number and counts as 0"));
    EXPECT_THAT(wrong_key("zeb_log_cfg=0x10"),
                ElementsAre("2 warning zeb_log_cfg takes the lowest four bits alone: 0"));
    EXPECT_THAT(wrong_key("zeb_dbg_cfg=3 # all"),
                ElementsAre("2 warning what follows the number 3 is not seen: ' # all'"));
    EXPECT_THAT(wrong_key("zeb_log_size=-1"),
                ElementsAre("2 error the size is negative: the log file never starts over"));
    EXPECT_THAT(wrong_key("zeb_log_size=" + std::string(15, '0') + "1"),
                ElementsAre("2 warning the value is cut to 15 characters: '000000000000000'"));
    EXPECT_THAT(wrong_key("zeb_blocked_resume_enabled=True"), ElementsAre("2 error 'True' counts as false"));
}

TEST_F(ops_conf_file, names_are_known_and_change_with_the_file)
{
    write_conf("[APP_INFO_TBL]\n100,routed,3,team\n101,portd,0,team\n102,routed,0,team\n");
    EXPECT_EQ(ops_conf_name(100), "routed");
    EXPECT_EQ(ops_conf_name(103), "");
    EXPECT_THAT(ops_conf_apps("routed"), ElementsAre(100, 102));
    EXPECT_THAT(ops_conf_apps("nobody"), IsEmpty());
    write_conf("[APP_INFO_TBL]\n100,router,3,team\n");
    wait_until([] { return ops_conf_name(100) == "router"; });
    EXPECT_EQ(ops_conf_name(101), "");
}

TEST_F(ops_conf_file, without_a_file_nothing_has_a_name)
{
    EXPECT_FALSE(ops_conf()->found);
    EXPECT_EQ(ops_conf_name(100), "");
}
