// What the doctor finds in the files of a node, and the room that it says senders need.
#include "lib_test.h"
#include "ops_doctor.h"

class ops_doctor_texts : public lib_test
{
  protected:
    static std::string node_id(const std::string &text)
    {
        ops_diagnoses_t list;
        ops_doctor_node_id_text(&list, text);
        return list.size() == 1 ? std::string(ops_verdict_word(list[0].verdict)) + ": " + list[0].what : "not one";
    }
};

TEST_F(ops_doctor_texts, a_node_id_is_read_as_the_library_reads_it)
{
    EXPECT_EQ(node_id("3\n"), "good: 3");
    EXPECT_EQ(node_id("  65535"), "good: 65535");
    EXPECT_EQ(node_id("65536"), "wrong: 65536 is none: 0 to 65535");
    EXPECT_EQ(node_id("-1"), "wrong: -1 is none: 0 to 65535");
    EXPECT_EQ(node_id(""), "wrong: there is no number in /tmp/addr/.zeb_node_addr");
    EXPECT_EQ(node_id("node 3"), "wrong: there is no number in /tmp/addr/.zeb_node_addr");
    EXPECT_EQ(node_id("0x10"), "doubtful: 0, and what follows in /tmp/addr/.zeb_node_addr is not read");
}

TEST_F(ops_doctor_texts, each_finding_in_the_configuration_has_its_line_and_what_to_write)
{
    ops_diagnoses_t list;
    ops_doctor_conf_text(&list, "[APP_INFO_TBL]\n100,a,4,b\n[APP_MCAST_TBL]\n[MISC_CONF]\nzeb_log_cfg=0x10\n");
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].verdict, OPS_WRONG);
    EXPECT_EQ(list[0].what, "line 2: TIPC has no priority 4: the application cannot be registered");
    EXPECT_EQ(list[0].type, "in /etc/zeb.conf: a priority of 0 to 3");
    EXPECT_EQ(list[1].verdict, OPS_DOUBTFUL);
    list.clear();
    ops_doctor_conf_text(&list, "[APP_INFO_TBL]\n[APP_MCAST_TBL]\n[MISC_CONF]\n");
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].verdict, OPS_GOOD);
}

TEST_F(ops_doctor_texts, the_room_of_a_receiver_is_that_of_docs_operations)
{
    EXPECT_EQ(ops_doctor_rmem_needed({}), 0U);
    EXPECT_EQ(ops_doctor_rmem_needed({0, 0, 0, 0}), 4U * 1100 * 960); // the example there
    EXPECT_EQ(ops_doctor_rmem_needed({3}), 1100U * 960 / 8);
    EXPECT_EQ(ops_doctor_rmem_needed({0, 9, -1}), 2U * 1100 * 960 + 1100U * 960 / 8);
}
