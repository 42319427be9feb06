// The instance handshake: what each message does in each state, retry, resume.
#include "sync_test.h"
#include "zeb_slot.h"
#include "zeb_mng_msg.h"

using wire::operator+;

class zeb_mng_sync : public sync_test
{
};

TEST_F(zeb_mng_sync, a_published_peer_is_synchronised_with_by_every_subscriber)
{
    start_app(101, {});
    lines_t lines = logged(V | I, [&] { peer_published(); });
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).src_app, APP);
    EXPECT_EQ(wire::header_of(sent[1].bytes).src_app, 101u);
    EXPECT_EQ(sync_word(sent[0].bytes, 2), 1u) << "a server";
    EXPECT_EQ(sync_word(sent[1].bytes, 2), 0u) << "no server";
    std::string seq = std::to_string((int)sync_word(sent[0].bytes, 0));
    EXPECT_THAT(lines, testing::IsSupersetOf({"0 ZEB app 100 sync inst to 200/9, seq " + seq + ".",
                                              "1 ZEB ADD INST app 100 sync inst to 200/9, seq " + seq + "."}));
}

TEST_F(zeb_mng_sync, a_synchronisation_that_cannot_be_sent_is_forgotten)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    lines_t lines = logged(W | E, [&] { peer_published(); });
    EXPECT_THAT(lines,
                testing::Contains(testing::MatchesRegex("2 ZEB app 100 sync inst to 200/9, seq -?[0-9]+. SEND FAIL")));
    EXPECT_THAT(lines, testing::Contains("3 ZEB send app 100 server notification to 200/9 failed."));
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, joining_an_unknown_application_or_an_online_instance_sends_nothing)
{
    EXPECT_EQ(logged(I, [] { zeb_app_inst_join(300, 1, 0); }), lines_t({"1 ZEB app 300/1 ol is NULL."}));
    peer_online();
    EXPECT_EQ(logged(W, [] { zeb_app_inst_join(PEER, PEER_NODE, 0); }),
              lines_t({"2 ZEB app 200/9 had already online."}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_mng_sync, two_instances_that_publish_at_once_complete_only_with_the_right_pseq)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    peer_syncs();
    EXPECT_EQ(sent_pseq(), 0) << "the peer's identity is not confirmed yet";
    ack(my_seq, 0);
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE)) << "recorded, but never completes";
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    peer_syncs(); // sent again by its retry
    EXPECT_EQ(sent_pseq(), my_seq) << "now it is";
    lines_t lines = logged(V, [&] { ack(my_seq, PEER_SEQ + 1); });
    EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 recv from 200/9 ack pseq 5001 invalid, need seq 5000."));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    lines = logged(V | I, [&] { ack(my_seq, PEER_SEQ); });
    EXPECT_THAT(lines, testing::IsSupersetOf(
                           {"1 ZEB DEL INST app 100 sync inst to 200/9, seq " + std::to_string((int)my_seq) + ".",
                            std::string("1 ZEB clear inst retry from 100 to 200/9.")}));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, a_wrong_pseq_changes_neither_identity_nor_server_bit)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    peer_syncs();
    ack(my_seq, PEER_SEQ + 7, PEER_PID + 1);
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_EQ(__zeb_get_inst_id(APP, PEER, PEER_NODE)->sync_ack_id, 0u);
    EXPECT_FALSE(zeb_app_set_test(&__zeb_get_ol_app(PEER)->srv_bmp, PEER_NODE));
}

TEST_F(zeb_mng_sync, an_acknowledgement_of_nothing_pending_is_only_logged)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    peer_syncs();
    lines_t lines = logged(V, [&] { ack(my_seq + 1, PEER_SEQ); });
    EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 del inst sync to 200/9 failed. ack seq " +
                                         std::to_string((int)(my_seq + 1)) + " pseq 5000 "));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, an_old_peer_completes_with_the_old_acknowledgement)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    wire::header_t old = from_peer(wire::SYNC);
    old.ver = 1;
    receive(wire::message(old, wire::sync_inst(PEER_SEQ, PEER_PID, 1, 0)));
    EXPECT_TRUE(take_timers().empty()) << "no retries for an old peer";
    EXPECT_EQ(logged(W, [&] { receive(wire::message(old, wire::sync_ack(my_seq + 1, PEER_PID, 1))); }),
              lines_t({"2 ZEB app 100 del inst sync to 200/9 seq " + std::to_string((int)(my_seq + 1)) + " failed."}));
    // It carries the new form too, which counts only from a new peer.
    receive(wire::message(old, wire::sync_seq_ack(my_seq, PEER_PID, 1, PEER_SEQ)));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    receive(wire::message(old, wire::sync_ack(my_seq, PEER_PID, 1)));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, a_new_peer_completes_with_the_new_acknowledgement_alone)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    peer_syncs();
    receive(wire::message(from_peer(wire::SYNC), wire::sync_ack(my_seq, PEER_PID, 1)));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    ack(my_seq, PEER_SEQ);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, an_unexpected_element_warns_and_the_walk_goes_on)
{
    EXPECT_EQ(logged(W,
                     [&] {
                         receive(wire::message(from_peer(wire::SYNC),
                                               wire::tlv(6, {}) + wire::sync_inst(PEER_SEQ, PEER_PID, 1, 0)));
                     }),
              lines_t({"2 ZEB app 100 recv unexpected data type 6 from 200/9."}));
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, a_repeated_synchronisation_with_the_instance_bit_set_changes_nothing)
{
    peer_online();
    peer_syncs();
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u) << "one acknowledgement, no synchronisation";
}

TEST_F(zeb_mng_sync, a_synchronisation_with_the_same_sequence_after_a_quit_is_a_quit_request)
{
    peer_published();
    peer_syncs();
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    (void)fake_tipc::take_sent();
    EXPECT_THAT(logged(V, [&] { peer_syncs(); }),
                testing::Contains("0 ZEB app 100 quit comm to 200/9 by request.recv_seq:5000, seq:5000"));
    EXPECT_EQ(sent_seq(), 0u) << "no synchronisation of ours";
}

TEST_F(zeb_mng_sync, a_new_sequence_without_instance_bit_restarts_the_pair)
{
    peer_published();
    peer_syncs();
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    (void)fake_tipc::take_sent();
    EXPECT_THAT(logged(V, [&] { peer_syncs(PEER_SEQ + 1); }),
                testing::Contains("0 ZEB app 100 resume comm to 200/9 by request. recv_seq:5000, seq:5001"));
    EXPECT_NE(sent_seq(), 0u);
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, a_resume_mark_restarts_even_an_online_pair)
{
    peer_online();
    (void)take_seen();
    receive(wire::message(from_peer(wire::SYNC), wire::sync_inst(PEER_SEQ + 1, PEER_PID, 1, 1)));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(take_seen().events.size(), 1u) << "a quit event";
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, a_restarted_peer_is_held_back_until_its_identities_agree)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    peer_syncs();
    ack(my_seq, 0, PEER_PID - 1); // identity of the process before
    ack(my_seq, PEER_SEQ, PEER_PID);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE)) << "the last acknowledgement agrees";
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    (void)fake_tipc::take_sent();
    zeb_app_inst_join(PEER, PEER_NODE, 0);
    my_seq = sent_seq();
    peer_syncs(PEER_SEQ);
    lines_t lines = logged(W, [&] { ack(my_seq, PEER_SEQ, PEER_PID + 5); });
    EXPECT_EQ(lines, lines_t({"2 ZEB app 100 to 200/9 instance id not equal."}));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    receive(wire::message(from_peer(wire::SYNC), wire::sync_inst(PEER_SEQ, PEER_PID + 5, 1, 0)));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, ordinary_traffic_is_taken_as_the_acknowledgement)
{
    peer_published();
    peer_syncs();
    lines_t lines = logged(I, [&] { zeb_notify_app_join(APP, {PEER, PEER_NODE}); });
    EXPECT_THAT(lines, testing::Contains(testing::StartsWith("1 ZEB DEL INST app 100 sync inst to 200/9, seq ")));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
}

TEST_F(zeb_mng_sync, a_server_that_comes_online_by_its_traffic_is_a_server_with_a_join_event)
{
    peer_published();
    peer_syncs();
    receive(wire::message(from_peer(), {1}));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_JOIN);
    ASSERT_EQ(seen.headers.size(), 1u);
    zeb_msg_t *msg = zeb_msg_alloc(1, 1, 0);
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg, 0), 0) << "it can be written to";
    free(msg);
}

TEST_F(zeb_mng_sync, a_client_that_comes_online_by_its_traffic_is_none)
{
    peer_published();
    receive(wire::message(from_peer(wire::SYNC), wire::sync_inst(PEER_SEQ, PEER_PID, 0, 0)));
    receive(wire::message(from_peer(), {1}));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_TRUE(take_seen().events.empty());
}

// Retry.

TEST_F(zeb_mng_sync, pending_synchronisations_are_sent_again_every_2_s_until_acknowledged)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    lines_t lines = logged(I, [&] { peer_syncs(); });
    EXPECT_THAT(lines, testing::Contains("1 ZEB retry sync inst to 200/9."));
    auto timers = take_timers();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].type, 3u);
    EXPECT_EQ(timers[0].seq, 0u);
    EXPECT_EQ(timers[0].ms, 2000u);
    (void)fake_tipc::take_sent();
    for (int i = 0; i < 5; i++) {
        lines = logged(V, [] { zeb_process_tipc_subscr_event(fake_tipc::timer_event(3, 0)); });
        EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 sync inst to 200/9, seq " + std::to_string((int)my_seq) +
                                             " SUCC."));
        EXPECT_EQ(sent_seq(), my_seq) << "the same synchronisation";
        EXPECT_EQ(take_timers().size(), 1u);
    }
    ack(my_seq, PEER_SEQ);
    (void)fake_tipc::take_sent();
    zeb_process_tipc_subscr_event(fake_tipc::timer_event(3, 0));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_TRUE(take_timers().empty()) << "and not after";
}

TEST_F(zeb_mng_sync, a_retry_that_fails_is_logged_and_tried_on)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    peer_syncs();
    (void)fake_tipc::take_sent();
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_THAT(logged(W, [] { zeb_process_inst_retry_timer_event(0); }),
                testing::Contains("2 ZEB app 100 sync inst to 200/9, seq " + std::to_string((int)my_seq) + " FAIL."));
    zeb_process_inst_retry_timer_event(0);
    EXPECT_EQ(sent_seq(), my_seq);
}

TEST_F(zeb_mng_sync, without_a_pending_synchronisation_there_is_nothing_to_retry)
{
    EXPECT_THAT(logged(V, [] { zeb_start_retry_inst_timer(2, APP, PEER, PEER_NODE); }),
                testing::Contains("0 no instance msg need retry."));
    EXPECT_EQ(take_timers().size(), 1u) << "the timer has started all the same";
    zeb_start_retry_inst_timer(2, APP, PEER, PEER_NODE);
    EXPECT_TRUE(take_timers().empty()) << "one at a time";
}

TEST_F(zeb_mng_sync, a_retry_timer_that_fails_to_start_stays_marked_as_open)
{
    fault::fail_next("send", EPIPE);
    peer_published();
    peer_syncs();
    EXPECT_TRUE(g_zeb_handshake.timer_inst_retry_open);
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    peer_published();
    peer_syncs(PEER_SEQ + 1);
    for (const started_t &timer : take_timers())
        EXPECT_NE(timer.type, 3u);
}

// Resume.

TEST_F(zeb_mng_sync, a_peer_that_synchronised_but_never_came_online_is_resumed_after_60_s)
{
    lines_t lines = logged(I, [&] { peer_syncs(); });
    EXPECT_THAT(lines, testing::Contains("1 ZEB try resume comm to 200/9."));
    started_t resume = {};
    for (const started_t &timer : take_timers()) {
        if (timer.type == 0)
            resume = timer;
    }
    EXPECT_EQ(resume.ms, 60000u);
    (void)fake_tipc::take_sent();
    EXPECT_THAT(logged(E, [&] { zeb_process_tipc_subscr_event(fake_tipc::timer_event(0, resume.seq)); }),
                testing::Contains("3 ZEB resume communication to 200/9."));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, 3), 1u) << "the resume mark";
    zeb_process_tipc_subscr_event(fake_tipc::timer_event(0, resume.seq));
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "once";
}

TEST_F(zeb_mng_sync, any_join_or_quit_drops_a_pending_resume)
{
    const std::function<void()> drops[] = {
        [] { zeb_app_inst_join(PEER, PEER_NODE, 0); },
        [] { zeb_app_inst_quit(PEER, PEER_NODE); },
        [] { zeb_app_inst_force_quit(PEER, PEER_NODE); },
        [] { zeb_app_inst_try_quit(PEER, PEER_NODE); },
    };
    for (const auto &drop : drops) {
        zeb_app_inst_force_quit(PEER, PEER_NODE);
        (void)take_timers();
        zeb_try_resume_comm(PEER, PEER_NODE);
        auto timers = take_timers();
        ASSERT_EQ(timers.size(), 1u);
        EXPECT_THAT(logged(V, drop), testing::Contains("0 ZEB clear resume comm to 200/9."));
        (void)fake_tipc::take_sent();
        EXPECT_EQ(logged(E, [&] { zeb_process_resume_timer_event(timers[0].seq); }), lines_t({}));
        EXPECT_TRUE(fake_tipc::take_sent().empty());
    }
}

TEST_F(zeb_mng_sync, no_resume_while_ours_is_pending_or_the_pair_is_online_or_the_timer_fails)
{
    peer_published();
    (void)take_timers();
    zeb_try_resume_comm(PEER, PEER_NODE);
    EXPECT_TRUE(take_timers().empty());
    peer_online();
    (void)take_timers();
    zeb_try_resume_comm(PEER, PEER_NODE);
    EXPECT_TRUE(take_timers().empty());
    fault::fail_next("send", EPIPE);
    zeb_try_resume_comm(PEER, PEER_NODE + 1);
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.resume_comm_list));
}

TEST_F(zeb_mng_sync, a_peer_that_repeats_its_synchronisation_makes_no_more_than_16_resumes)
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

TEST_F(zeb_mng_sync, pairs_resumes_and_returned_acknowledgements_have_a_limit)
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

TEST_F(zeb_mng_sync, a_pair_record_gives_0_until_it_exists)
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

TEST_F(zeb_mng_sync, a_quit_forgets_only_the_first_pair_record_and_retry_of_the_instance)
{
    start_app(101);
    pair_of(APP, PEER, 1)->sync_id = 5;
    pair_of(101, PEER, 1)->sync_id = 5;
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_clear_inst_id(&g_zeb_handshake, {PEER, 1});
    EXPECT_EQ(__zeb_get_inst_id(APP, PEER, 1), nullptr);
    EXPECT_NE(__zeb_get_inst_id(101, PEER, 1), nullptr);
}

TEST_F(zeb_mng_sync, a_quit_forgets_only_the_first_retry_of_the_instance)
{
    start_app(101);
    peer_published();
    uint32_t my_seq = 0;
    for (const fake_tipc::sent_t &sent : fake_tipc::take_sent())
        my_seq = wire::header_of(sent.bytes).src_app == 101 ? sync_word(sent.bytes, 0) : my_seq;
    peer_syncs();
    peer_syncs(PEER_SEQ, PEER_NODE, PEER, 101);
    // 101 completes by the older form, which leaves its retry.
    wire::header_t old = from_peer(wire::SYNC, PEER_NODE, PEER, 101);
    old.ver = 1;
    receive(wire::message(old, wire::sync_ack(my_seq, PEER_PID, 1)), 101);
    ASSERT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(retries(), lines_t({"100->200/9", "101->200/9"}));
    peer_withdrawn();
    EXPECT_EQ(retries(), lines_t({"101->200/9"}));
}

TEST_F(zeb_mng_sync, every_pending_synchronisation_is_sent_again_not_only_those_to_be_retried)
{
    peer_published();
    peer_published(PEER_NODE + 1);
    peer_syncs(); // only this one is to be retried
    EXPECT_EQ(retries(), lines_t({"100->200/9"}));
    (void)fake_tipc::take_sent();
    zeb_process_inst_retry_timer_event(0);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).dst_node, PEER_NODE);
    EXPECT_EQ(wire::header_of(sent[1].bytes).dst_node, PEER_NODE + 1);
}

TEST_F(zeb_mng_sync, the_lines_of_a_handshake_are_these)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    lines_t lines = logged(V, [&] { peer_syncs(); });
    EXPECT_THAT(lines,
                testing::IsSupersetOf({"0 ZEB app 100 recv sync msg from 200/9, data len 20, type sync instance.",
                                       "0 ZEB app 100 recv sync inst from 200/9 resume:0, seq:5000",
                                       "0 ZEB app 100 quit comm to 200/9 by request.recv_seq:0, seq:5000",
                                       "0 ZEB app 100 sync inst ack_anc to 200/9, seq 5000, pseq 0. ret:0."}));
    lines = logged(V, [&] { ack(my_seq, PEER_SEQ); });
    const lines_t expected = {"0 ZEB app 100 recv sync msg from 200/9, data len 20, type sync instance ack.",
                              "0 ZEB app 100 recv sync msg from 200/9, data len 24, type sync instance seq ack.",
                              "0 ZEB app 100 recv from 200/9 ack pseq 5000 seq " + std::to_string(my_seq) +
                                  ", recv_seq 5000, is_server 1."};
    EXPECT_THAT(lines, testing::IsSupersetOf(expected));
}

TEST_F(zeb_mng_sync, an_acknowledgement_that_cannot_be_sent_is_only_counted)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_THAT(logged(V, [&] { peer_syncs(); }),
                testing::Contains("0 ZEB app 100 sync inst ack_anc to 200/9, seq 5000, pseq 0. ret:-1."));
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
    EXPECT_TRUE(list_empty(&g_zeb_handshake.inst_sync.list));
}

TEST_F(zeb_mng_sync, the_older_acknowledgement_can_be_sent_alone)
{
    EXPECT_THAT(logged(V,
                       [] {
                           EXPECT_EQ(zeb_sync_app_inst_ack(APP, {PEER, PEER_NODE}, 77, true), 0);
                       }),
                testing::Contains("0 ZEB app 100 sync inst ack to 200/9, seq 77."));
    EXPECT_EQ(fake_tipc::take_sent().at(0).bytes.size(), 60u);
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_EQ(zeb_sync_app_inst_ack(APP, {PEER, PEER_NODE}, 77, true), -1);
}

TEST_F(zeb_mng_sync, pending_synchronisations_are_found_by_all_their_marks)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    EXPECT_EQ(zeb_del_inst_sync_msg(APP + 1, PEER, PEER_NODE, my_seq), -ENOENT);
    EXPECT_EQ(zeb_del_inst_sync_msg(APP, PEER + 1, PEER_NODE, my_seq), -ENOENT);
    EXPECT_EQ(zeb_del_inst_sync_msg(APP, PEER, PEER_NODE + 1, my_seq), -ENOENT);
    EXPECT_EQ(zeb_del_inst_sync_msg(APP, PEER, PEER_NODE, my_seq + 1), -ENOENT);
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE + 1));
    EXPECT_EQ(zeb_del_inst_sync_msg(APP, PEER, PEER_NODE, my_seq), 0);
}

TEST_F(zeb_mng_sync, a_resume_is_taken_by_its_sequence_and_else_is_all_zero)
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

TEST_F(zeb_mng_sync, subscribers_are_synchronised_even_when_one_cannot_send)
{
    start_app(101);
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_THAT(logged(E, [&] { peer_published(); }),
                testing::Contains("3 ZEB send app 100 server notification to 200/9 failed."));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).src_app, 101u);
}
