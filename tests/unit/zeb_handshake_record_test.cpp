// The handshake's lists: pairs, pending synchronisations, retries, resumes and returned acknowledgements.
#include "sync_test.h"

#include "zeb_slot.h"

class zeb_handshake_record : public sync_test
{
};

TEST_F(zeb_handshake_record, a_pair_record_gives_0_until_it_exists)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_EQ(zeb_get_inst_recv_seq(&g_zeb_handshake, APP, {PEER, 1}), 0u);
    EXPECT_EQ(zeb_get_pseq_for_inst_ack(&g_zeb_handshake, APP, {PEER, 1}), 0u);
    zeb_inst_id_t *id = zeb_get_or_add_inst_id(&g_zeb_handshake, APP, {PEER, 1});
    id->send_seq = 44;
    id->recv_seq = 45;
    EXPECT_EQ(zeb_get_inst_recv_seq(&g_zeb_handshake, APP, {PEER, 1}), 45u);
    EXPECT_EQ(zeb_get_pseq_for_inst_ack(&g_zeb_handshake, APP, {PEER, 1}), 44u) << "both identities are 0, hence equal";
}

TEST_F(zeb_handshake_record, a_quit_forgets_only_the_first_pair_record_and_retry_of_the_instance)
{
    start_app(101);
    pair_of(APP, PEER, 1)->sync_id = 5;
    pair_of(101, PEER, 1)->sync_id = 5;
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_clear_inst_id(&g_zeb_handshake, {PEER, 1});
    EXPECT_EQ(__zeb_get_inst_id(APP, PEER, 1), nullptr);
    EXPECT_NE(__zeb_get_inst_id(101, PEER, 1), nullptr);
}

TEST_F(zeb_handshake_record, a_quit_forgets_only_the_first_retry_of_the_instance)
{
    start_app(101);
    peer_published();
    uint32_t my_seq = take_sync_seq(101);
    peer_syncs();
    peer_syncs(PEER_SEQ, PEER_NODE, PEER, 101);
    // 101 completes by the older form, which leaves its retry.
    peer_t old = older_peer();
    old.my_app = 101;
    peer_acks(my_seq, 0, old);
    ASSERT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(retries(), lines_t({"100->200/9", "101->200/9"}));
    peer_withdrawn();
    EXPECT_EQ(retries(), lines_t({"101->200/9"}));
}

TEST_F(zeb_handshake_record, pending_synchronisations_are_found_by_all_their_marks)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    EXPECT_EQ(zeb_del_inst_sync_msg(APP + 1, PEER, PEER_NODE, my_seq), -ENOENT);
    EXPECT_EQ(zeb_del_inst_sync_msg(APP, PEER + 1, PEER_NODE, my_seq), -ENOENT);
    EXPECT_EQ(zeb_del_inst_sync_msg(APP, PEER, PEER_NODE + 1, my_seq), -ENOENT);
    EXPECT_EQ(zeb_del_inst_sync_msg(APP, PEER, PEER_NODE, my_seq + 1), -ENOENT);
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE + 1));
    EXPECT_EQ(zeb_del_inst_sync_msg(APP, PEER, PEER_NODE, my_seq), 0);
}

TEST_F(zeb_handshake_record, a_resume_is_taken_by_its_sequence_and_else_is_all_zero)
{
    zeb_try_resume_comm(PEER, 1);
    zeb_try_resume_comm(PEER, 2);
    uint32_t seq = take_timers().at(1).seq;
    zeb_resume_comm_t none = zeb_del_resume_comm(seq + 1);
    EXPECT_EQ(none.seq + none.dst.app + none.dst.node, 0u);
    zeb_resume_comm_t taken = zeb_del_resume_comm(seq);
    EXPECT_EQ(taken.seq, seq);
    EXPECT_EQ(taken.src_app, 0u) << "never filled";
    EXPECT_EQ(taken.dst.app, PEER);
    EXPECT_EQ(taken.dst.node, 2u);
    EXPECT_EQ(zeb_del_resume_comm(seq).seq, 0u);
}

TEST_F(zeb_handshake_record, a_peer_that_repeats_its_synchronisation_makes_no_more_than_16_resumes)
{
    for (int i = 0; i < 15; i++)
        peer_syncs(PEER_SEQ + (uint32_t)i);
    EXPECT_EQ(list_length(&g_zeb_handshake.resume_comm_list), 15);
    peer_syncs();
    EXPECT_THAT(logged(W, [&] { peer_syncs(); }), testing::Contains("2 ZEB resume comm to 200/9 is pending already."));
    EXPECT_EQ(list_length(&g_zeb_handshake.resume_comm_list), 16);
    peer_syncs(PEER_SEQ, PEER_NODE + 1);
    EXPECT_EQ(list_length(&g_zeb_handshake.resume_comm_list), 17) << "another peer is not held back";
}

TEST_F(zeb_handshake_record, pairs_resumes_and_returned_acknowledgements_have_a_limit)
{
    std::vector<zeb_resume_comm_t> resumes(ZEB_RESUME_NUM_MAX);
    peer_online();
    int pair_num = g_zeb_handshake.inst_id.index.num;
    g_zeb_handshake.inst_id.index.num = ZEB_PAIR_NUM_MAX;
    EXPECT_EQ(logged(E, [&] { peer_syncs(1, PEER_NODE + 1); }), lines_t({"3 ZEB app 100 has no room for 200/10."}));
    EXPECT_FALSE(zeb_app_instance(PEER, PEER_NODE + 1));
    EXPECT_TRUE(logged(E, [&] { peer_syncs(PEER_SEQ); }).empty()) << "who is known is served on";
    g_zeb_handshake.inst_id.index.num = pair_num;

    for (zeb_resume_comm_t &resume : resumes)
        list_add_tail(&resume.list, &g_zeb_handshake.resume_comm_list);
    EXPECT_THAT(logged(W, [&] { peer_syncs(1, PEER_NODE + 2); }),
                testing::Contains("2 ZEB resume comm to 200/11 is pending already."));
    for (zeb_resume_comm_t &resume : resumes)
        list_del(&resume.list);

    int ack_num = g_zeb_handshake.sync_inst_ack_num.load();
    g_zeb_handshake.sync_inst_ack_num = ZEB_ACK_RESEND_NUM_MAX;
    zeb_msg_sync_inst_t body = {1, 1, 1, 0, 600};
    zeb_msg_t *returned = zeb_new_sync_inst_ack_msg(APP, {PEER, 3}, &body);
    EXPECT_EQ(logged(E, [&] { zeb_process_return_sync(returned); }),
              lines_t({"3 ZEB drop sync inst ack to 200/3, too many come back."}));
    free(returned);
    g_zeb_handshake.sync_inst_ack_num = ack_num;
}
