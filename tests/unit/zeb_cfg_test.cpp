// The configuration file and the node id.
#include "lib_test.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"

class zeb_cfg : public lib_test
{
};

TEST_F(zeb_cfg, without_a_file_everything_has_its_default)
{
    EXPECT_EQ(logged(15, [] { EXPECT_EQ(zeb_get_app_priority(100), 0); }),
              lines_t({"3 ZEB open config file /etc/zeb.conf failed: No such file or directory.",
                       "0 ZEB get app 100 config priority 0."}));
    EXPECT_EQ(zeb_get_dbg_cfg(), 0u);
    EXPECT_EQ(zeb_get_log_cfg(), 0u);
    EXPECT_EQ(zeb_get_log_size(), 0u);
    EXPECT_FALSE(zeb_cfg_get_blocked_resume_enabled());
    EXPECT_EQ(zeb_cfg_init(), 0);
    EXPECT_EQ(g_zeb_dbg_level, 0u);
    EXPECT_EQ(g_zeb_log_level, 0u);
    start_app();
}

// Leaves digits on the stack, where the next call has its variables.
static void __attribute__((noinline)) leave_digits()
{
    volatile char digits[16384];
    for (size_t i = 0; i < sizeof(digits); i++)
        digits[i] = i % 16 == 15 ? '\0' : '7';
}

TEST_F(zeb_cfg, without_a_value_a_number_is_0_whatever_was_on_the_stack)
{
    for (const char *text : {"[APP_INFO_TBL]\n", "[MISC_CONF]\nother=1\n", "[MISC_CONF]\nzeb_log_size\n", ""}) {
        write_conf(text);
        for (auto lookup : {zeb_get_dbg_cfg, zeb_get_log_cfg, zeb_get_log_size}) {
            leave_digits();
            EXPECT_EQ(lookup(), 0u) << text;
        }
    }
}

TEST_F(zeb_cfg, without_the_section_the_masks_are_0_whatever_was_on_the_stack)
{
    write_conf("[APP_INFO_TBL]\n");
    leave_digits();
    EXPECT_EQ(zeb_cfg_init(), 0);
    EXPECT_EQ(g_zeb_dbg_level, 0u);
    EXPECT_EQ(g_zeb_log_level, 0u);
    EXPECT_EQ(logged(W, [] { (void)zeb_get_dbg_cfg(); }),
              lines_t({"2 ZEB can't locate section [MISC_CONF].", "2 ZEB get config 'zeb_dbg_cfg' failed."}));
}

TEST_F(zeb_cfg, an_application_is_found_and_trimmed)
{
    write_conf("# comment\n  [APP_INFO_TBL]  \n# 100 , no , 1 , no\n"
               "100 ,  routed  , 3 , team-a  ,  routing daemon  \n");
    zeb_app_cfg_t cfg;
    EXPECT_EQ(logged(V, [&] { EXPECT_EQ(zeb_get_app_cfg(100, &cfg), 0); }),
              lines_t({"0 ZEB get app config OK: id [100] name [routed] priority [3] developer [team-a] comment "
                       "[routing daemon]."}));
    EXPECT_EQ(cfg.priority, 3);
    EXPECT_STREQ(cfg.name, "routed");
    EXPECT_EQ(zeb_get_app_priority(100), 3);
}

TEST_F(zeb_cfg, the_comment_may_be_missing_and_texts_are_cut_at_31)
{
    write_conf("[APP_INFO_TBL]\n5 , 1234567890123456789012345678901234 , 2 , dev\n");
    zeb_app_cfg_t cfg;
    ASSERT_EQ(zeb_get_app_cfg(5, &cfg), 0);
    EXPECT_STREQ(cfg.name, "1234567890123456789012345678901");
    EXPECT_STREQ(cfg.developer, "dev");
    EXPECT_STREQ(cfg.comment, "");
}

TEST_F(zeb_cfg, of_two_lines_for_one_application_the_first_wins)
{
    write_conf("[APP_INFO_TBL]\n100 , a , 1 , x\n100 , b , 2 , x\n");
    EXPECT_EQ(zeb_get_app_priority(100), 1);
}

TEST_F(zeb_cfg, a_section_ends_at_the_next_bracket)
{
    write_conf("[APP_INFO_TBL]\n100 , a , 1 , x\n[OTHER]\n200 , b , 2 , x\n");
    EXPECT_EQ(zeb_get_app_priority(200), 0);
    write_conf("[OTHER]\n100 , a , 1 , x\n");
    EXPECT_EQ(logged(W | E, [] { (void)zeb_get_app_priority(100); }),
              lines_t({"2 ZEB can't locate section [APP_INFO_TBL]."}));
}

TEST_F(zeb_cfg, an_entry_is_said_to_be_missing_where_its_table_was_read_alone)
{
    const char no_file[] = "3 ZEB open config file /etc/zeb.conf failed: No such file or directory.";
    uint32_t members[16] = {42};
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_get_app_mc_members(0x3001, members), 0); }), lines_t({no_file}));
    write_conf("[APP_INFO_TBL]\n100 , a , 1 , x\n");
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_get_app_mc_members(0x3001, members), 0); }),
              lines_t({"2 ZEB can't locate section [APP_MCAST_TBL]."}));
    EXPECT_EQ(logged(W | E, [] { EXPECT_EQ(zeb_get_app_priority(101), 0); }),
              lines_t({"3 ZEB get app 101 config failed."}));
    EXPECT_EQ(members[0], 42u);
}

TEST_F(zeb_cfg, a_blank_line_in_the_table_warns_once_and_is_ignored)
{
    write_conf("[APP_INFO_TBL]\n \n100 , a , 1 , x\n");
    EXPECT_EQ(logged(W | E, [] { EXPECT_EQ(zeb_get_app_priority(100), 1); }),
              lines_t({"2 ZEB get invalid config item:  ", "."}));
}

TEST_F(zeb_cfg, a_line_with_too_few_fields_is_reported_with_its_line_end)
{
    write_conf("[APP_INFO_TBL]\nnonsense\n100 , a\n100 , a , 1 , x\n");
    EXPECT_EQ(logged(W | E, [] { EXPECT_EQ(zeb_get_app_priority(100), 1); }),
              lines_t({"2 ZEB get invalid config item: nonsense", ".", "2 ZEB get invalid config item: 100 , a", "."}));
}

TEST_F(zeb_cfg, a_line_of_more_than_127_characters_is_several_lines)
{
    std::string line = "100 , " + std::string(121, 'n') + "200 , b , 7 , x\n"; // 127 characters, then the rest
    write_conf("[APP_INFO_TBL]\n" + line);
    EXPECT_EQ(zeb_get_app_priority(200), 7);
}

TEST_F(zeb_cfg, a_multicast_entry_keeps_16_of_its_members)
{
    write_conf("[APP_MCAST_TBL]\n3001 , grp , 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 , many\n");
    uint32_t members[16];
    EXPECT_EQ(zeb_get_app_mc_members(0x3001, members), 16);
    EXPECT_EQ(members[0], 1u);
    EXPECT_EQ(members[15], 16u);
    EXPECT_EQ(
        logged(V, [&] { (void)zeb_get_app_mc_members(0x3001, members); }),
        lines_t({"0 ZEB get app multi-cast config OK: id [0x00003001] name [grp] members [1 2 3 4 5 6 7 8 9 10 11 "
                 "12 13 14 15 16] comment [many]."}));
}

TEST_F(zeb_cfg, members_are_read_with_automatic_base_and_without_signs)
{
    write_conf("[APP_MCAST_TBL]\n3002 , grp , 0x1f 010 09 -5 0xg7\n");
    zeb_app_mc_cfg_t cfg;
    ASSERT_EQ(zeb_get_app_mc_cfg(0x3002, &cfg), 0);
    ASSERT_EQ(cfg.mbr_num, 7);
    const uint32_t expected[] = {31, 8, 0, 9, 5, 0, 7};
    for (int i = 0; i < 7; i++)
        EXPECT_EQ(cfg.member[i], expected[i]) << i;
}

TEST_F(zeb_cfg, an_absent_multicast_entry_warns_and_leaves_the_members)
{
    write_conf("[APP_MCAST_TBL]\n3001 , grp , 1\n");
    uint32_t members[16] = {42};
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_get_app_mc_members(0x3003, members), 0); }),
              lines_t({"2 ZEB get app multi-cast 0x00003003 config failed."}));
    EXPECT_EQ(members[0], 42u);
}

TEST_F(zeb_cfg, the_masks_come_from_the_file_masked_with_15)
{
    write_conf("[MISC_CONF]\nzeb_dbg_cfg=0x18\nzeb_log_cfg=0x10\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(zeb_cfg_init(), 0);
    (void)testing::internal::GetCapturedStdout();
    EXPECT_EQ(g_zeb_dbg_level, 8u);
    EXPECT_EQ(g_zeb_log_level, 0u);
    g_zeb_dbg_level = 0;
}

TEST_F(zeb_cfg, a_key_matches_by_prefix)
{
    write_conf("[MISC_CONF]\nzeb_dbg_cfgX=3\n");
    EXPECT_EQ(zeb_get_dbg_cfg(), 3u);
}

TEST_F(zeb_cfg, the_first_matching_line_with_an_equals_sign_wins)
{
    write_conf("[MISC_CONF]\nzeb_dbg_cfg\n#zeb_dbg_cfg=9\n\nzeb_dbg_cfg= 5 \nzeb_dbg_cfg=6\n");
    char value[16];
    EXPECT_EQ(
        logged(V, [&] { EXPECT_EQ(zeb_get_misc_cfg("zeb_dbg_cfg", value, sizeof(value)), 0); }),
        lines_t({"0 ZEB get invalid config item: zeb_dbg_cfg", ".", "0 ZEB get config 'zeb_dbg_cfg' value [ 5]."}));
    EXPECT_EQ(zeb_get_dbg_cfg(), 5u);
}

TEST_F(zeb_cfg, a_value_is_cut_at_15_characters_and_an_absent_key_warns)
{
    write_conf("[MISC_CONF]\nzeb_log_size=12345678901234567890\n");
    char value[16];
    ASSERT_EQ(zeb_get_misc_cfg("zeb_log_size", value, sizeof(value)), 0);
    EXPECT_STREQ(value, "123456789012345");
    EXPECT_EQ(logged(W, [&] { EXPECT_EQ(zeb_get_misc_cfg("other", value, sizeof(value)), -1); }),
              lines_t({"2 ZEB get config 'other' failed."}));
}

TEST_F(zeb_cfg, the_log_size_is_reported_only_when_it_is_not_empty)
{
    write_conf("[MISC_CONF]\nzeb_log_size=0x100\n");
    EXPECT_EQ(logged(I, [] { EXPECT_EQ(zeb_get_log_size(), 256u); }), lines_t({"1 ZEB get log size 0x100."}));
    write_conf("[MISC_CONF]\nzeb_log_size=\n");
    EXPECT_EQ(logged(I, [] { EXPECT_EQ(zeb_get_log_size(), 0u); }), lines_t({}));
}

TEST_F(zeb_cfg, blocked_resume_is_on_only_for_true)
{
    write_conf("[MISC_CONF]\nzeb_blocked_resume_enabled= true \n");
    EXPECT_EQ(logged(V, [] { EXPECT_TRUE(zeb_cfg_get_blocked_resume_enabled()); }).back(),
              "0 ZEB get blocked resume enabled: true.");
    write_conf("[MISC_CONF]\nzeb_blocked_resume_enabled=True\n");
    EXPECT_EQ(logged(V, [] { EXPECT_FALSE(zeb_cfg_get_blocked_resume_enabled()); }).back(),
              "0 ZEB get blocked resume enabled: false.");
}

TEST_F(zeb_cfg, a_missing_node_file_is_asked_again_until_it_is_there)
{
    no_node();
    EXPECT_EQ(
        logged(W | E, [] { EXPECT_EQ(zeb_get_my_node_id(), -1); }),
        lines_t({"2 ZEB open node address config file /tmp/addr/.zeb_node_addr failed: No such file or directory."}));
    EXPECT_EQ(zeb_cfg_init(), -1);
    write_node("12");
    EXPECT_EQ(logged(V, [] { EXPECT_EQ(zeb_get_my_node_id(), 12); }), lines_t({"0 ZEB get self node config ID 12."}));
    EXPECT_EQ(zeb_cfg_init(), 0);
    write_node("13");
    EXPECT_EQ(zeb_get_my_node_id(), 12) << "a valid id is kept";
}

TEST_F(zeb_cfg, a_node_id_out_of_range_is_not_kept)
{
    for (const char *bad : {"65536", "-1", "99999999"}) {
        write_node(bad);
        EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_get_my_node_id(), -1); }),
                  lines_t({std::string("3 ZEB get node address ") + bad + " invalid."}));
    }
    write_node("nonsense");
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_get_my_node_id(), -1); }),
              lines_t({"3 ZEB get node address config failed."}));
    write_node("65535");
    EXPECT_EQ(zeb_get_my_node_id(), 65535);
}

// The configuration is loaded with ZEB_DEBUG as it is given; what standard error says.
static std::string load_with(const char *words)
{
    if (words != nullptr)
        EXPECT_EQ(setenv("ZEB_DEBUG", words, 1), 0);
    else
        EXPECT_EQ(unsetenv("ZEB_DEBUG"), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(zeb_cfg_init(), 0);
    EXPECT_EQ(zeb_cfg_init(), 0) << "the words are read once";
    (void)fflush(stdout);
    (void)testing::internal::GetCapturedStdout();
    return testing::internal::GetCapturedStderr();
}

TEST_F(zeb_cfg, the_environment_sets_the_first_debug_mask_and_not_the_log_mask)
{
    write_conf("[MISC_CONF]\nzeb_dbg_cfg=1\n");
    EXPECT_EQ(load_with("error,warn"), "");
    EXPECT_EQ(g_zeb_dbg_level, W | E);
    EXPECT_EQ(g_zeb_log_level, 0u);
    g_zeb_dbg_level = 0;
}

TEST_F(zeb_cfg, the_environment_knows_all_levels)
{
    EXPECT_EQ(load_with("verbose, info,,error,"), "");
    EXPECT_EQ(g_zeb_dbg_level, V | I | E);
    g_zeb_dbg_level = 0;
}

TEST_F(zeb_cfg, none_in_the_environment_prints_nothing)
{
    write_conf("[MISC_CONF]\nzeb_dbg_cfg=15\n");
    EXPECT_EQ(load_with("none"), "");
    EXPECT_EQ(g_zeb_dbg_level, 0u);
}

TEST_F(zeb_cfg, an_unknown_word_in_the_environment_is_named_once)
{
    EXPECT_EQ(load_with("eror,warn"),
              "zeb: ZEB_DEBUG does not know \"eror\": write error, warn, info, verbose or none, "
              "with commas between\n");
    EXPECT_EQ(g_zeb_dbg_level, W);
    g_zeb_dbg_level = 0;
}

TEST_F(zeb_cfg, an_environment_without_a_level_leaves_the_mask_to_the_file)
{
    write_conf("[MISC_CONF]\nzeb_dbg_cfg=8\n");
    EXPECT_THAT(load_with("1"), testing::HasSubstr("\"1\""));
    EXPECT_EQ(g_zeb_dbg_level, E);
    g_zeb_dbg_level = 0;
}

TEST_F(zeb_cfg, without_the_variable_the_mask_is_that_of_the_file)
{
    write_conf("[MISC_CONF]\nzeb_dbg_cfg=12\n");
    EXPECT_EQ(load_with(nullptr), "");
    EXPECT_EQ(g_zeb_dbg_level, W | E);
    g_zeb_dbg_level = 0;
}
