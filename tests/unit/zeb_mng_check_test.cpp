// The check of the invariants finds what is broken, and nothing in a process that is well.
#ifdef ZEB_INVARIANTS
#include "by_number.h"
#include "handshake_core.h"
#include "lib_test.h"
#include "platform/list_algo.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_slot.h"
#include "zeb_mng_check.h"
#include "zeb_rpc.h"

class zeb_mng_check : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        peer_online();
    }

    // What is found broken while `word` holds `value`.
    template <typename T>
    static std::string broken_with(T *word, T value)
    {
        T before = *word;
        *word = value;
        std::string text = broken();
        *word = before;
        EXPECT_EQ(broken(), "");
        return text;
    }

    static std::string broken()
    {
        char text[2048];
        int num = zeb_check_invariants(text, sizeof(text));
        EXPECT_EQ(num, std::count(text, text + strlen(text), '\n'));
        return text;
    }
};

TEST_F(zeb_mng_check, a_process_that_is_well_has_nothing_broken)
{
    EXPECT_EQ(broken(), "");
}

TEST_F(zeb_mng_check, an_online_instance_that_is_not_known_or_has_not_acknowledged_is_found)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_ol_app_t *ol = __zeb_get_ol_app(PEER);
    uint32_t none = 0;
    EXPECT_EQ(broken_with(&ol->inst_bmp.blocks, none), "200/9 is online and not known\n");
    EXPECT_EQ(broken_with(&ol->inst_ack_bmp.blocks, none), "200/9 is online and has not acknowledged\n");
    EXPECT_THAT(broken_with(&ol->srv_bmp.used[0], (uint64_t)33), testing::HasSubstr("srv_bmp of 200: word 5 counts"));
    EXPECT_THAT(broken_with(&ol->srv_bmp.blocks, 3u), testing::HasSubstr("srv_bmp of 200: block 1 counts"));
}

TEST_F(zeb_mng_check, a_torn_list_is_found)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    struct list_head *first = g_zeb_handshake.inst_id.list.next;
    EXPECT_EQ(broken_with(&first->prev, first), "list inst_id_list of 0 is torn\n");
}

TEST_F(zeb_mng_check, an_index_that_disagrees_with_its_list_is_found)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_EQ(broken_with(&g_zeb_handshake.inst_sync.index.num, 1), "inst_sync_list of 0 has 0 records and counts 1\n");
    EXPECT_EQ(broken_with(&g_zeb_handshake.inst_retry.index.num, 1),
              "sync_inst_retry_list of 0 has 0 records and counts 1\n");
    EXPECT_EQ(broken_with(&g_zeb_handshake.inst_id.index.num, 0), "inst_id_list of 0 has 1 records and counts 0\n");
    zeb_mc_t *mc = &zeb_get_app_info(APP)->mc;
    EXPECT_EQ(broken_with(&mc->app_mc_list.index.num, 1), "app_mc_list of 100 has 0 records and counts 1\n");
    EXPECT_EQ(broken_with(&mc->node_mc_list.index.num, 1), "node_mc_list of 100 has 0 records and counts 1\n");
}

TEST_F(zeb_mng_check, totals_that_disagree_with_their_records_are_found)
{
    zeb_fc_t *fc = zeb_get_app_fc(APP);
    uint32_t one = 1;
    EXPECT_EQ(broken_with(&fc->total_send, one), "100: sent 1 in total, 0 by peer\n");
    EXPECT_EQ(broken_with(&fc->unack_drift, one), "100: unacknowledged 0 in total with a drift of 1, 0 by peer\n");
    EXPECT_EQ(broken_with(&fc->total_recv, one), "100: received 1 in total, 0 by peer\n");
    zeb_mng_stat_t *stat = zeb_get_app_mng(APP)->mng_stat;
    EXPECT_THAT(broken_with(&stat->total_recv, 99u), testing::HasSubstr("99 synchronisations received in total"));
}

TEST_F(zeb_mng_check, the_drift_of_a_join_is_the_exact_one)
{
    zeb_fc_update_sent_ok(APP, {PEER, 8});
    zeb_fc_update_sent_ok(APP, {PEER, 8});
    zeb_fc_update_sent_ack(APP, {PEER, 8}, 1);
    zeb_fc_adjust_statistics(APP, {PEER, 8});
    EXPECT_EQ(zeb_get_app_fc(APP)->total_send_unack, -1) << "two were sent and one of them acknowledged";
    EXPECT_EQ(broken(), "");
}

TEST_F(zeb_mng_check, a_group_count_that_disagrees_with_its_list_is_found)
{
    EXPECT_EQ(broken_with(&zeb_get_app_info(APP)->mc.app_mc_num, 1), "100: counts 1 application groups\n");
}

TEST_F(zeb_mng_check, a_call_whose_replies_disagree_with_its_entries_or_whose_caller_is_gone_is_found)
{
    zeb_reply_msg_t reply;
    memset(&reply, 0, sizeof(reply));
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, 5, &reply, 1), 0);
    ASSERT_EQ(zeb_rpc_set_wait(APP, 5, {PEER, PEER_NODE}), 0);
    zeb_rpc_wait_t *wait = zeb_get_rpc_wait(APP, 5);
    EXPECT_EQ(broken_with(&wait->wait_inst[0], 0u), "100: a call with 1 entries completed and 0 replies\n");
    EXPECT_EQ(broken_with(&wait->caller, 0x3FFFFFFF), "100: the caller of call 5 is gone\n");
    zeb_rpc_del_wait(APP, 5);
}

TEST_F(zeb_mng_check, a_report_that_does_not_fit_is_cut)
{
    zeb_fc_t *fc = zeb_get_app_fc(APP);
    fc->total_send = 1;
    char text[8];
    EXPECT_EQ(zeb_check_invariants(text, sizeof(text)), 1);
    EXPECT_STREQ(text, "100: se");
    fc->total_send = 0;
}
#endif
