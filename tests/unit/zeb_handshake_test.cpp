// The handshake: what each message does in each state, and what is sent again.
#include "sync_test.h"

#include "zeb_mng_msg.h"
#include "zeb_slot.h"

class zeb_handshake : public sync_test
{
};

TEST_F(zeb_handshake, a_published_peer_is_synchronised_with_by_every_subscriber)
{
    start_app(101, {});
    lines_t lines = logged(V | I, [&] { peer_published(); });
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).src_app, APP);
    EXPECT_EQ(wire::header_of(sent[1].bytes).src_app, 101u);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::SERVER), 1u) << "a server";
    EXPECT_EQ(sync_word(sent[1].bytes, wire::SERVER), 0u) << "no server";
    std::string seq = std::to_string((int)sync_word(sent[0].bytes, wire::SEQ));
    EXPECT_THAT(lines, testing::IsSupersetOf({"0 ZEB app 100 sync inst to 200/9, seq " + seq + ".",
                                              "1 ZEB ADD INST app 100 sync inst to 200/9, seq " + seq + "."}));
}

TEST_F(zeb_handshake, subscribers_are_synchronised_even_when_one_cannot_send)
{
    start_app(101);
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_THAT(logged(E, [&] { peer_published(); }),
                testing::Contains("3 ZEB send app 100 server notification to 200/9 failed."));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).src_app, 101u);
}

TEST_F(zeb_handshake, a_synchronisation_that_cannot_be_sent_is_forgotten)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    lines_t lines = logged(W | E, [&] { peer_published(); });
    EXPECT_THAT(lines,
                testing::Contains(testing::MatchesRegex("2 ZEB app 100 sync inst to 200/9, seq -?[0-9]+. SEND FAIL")));
    EXPECT_THAT(lines, testing::Contains("3 ZEB send app 100 server notification to 200/9 failed."));
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, joining_an_unknown_application_or_an_online_instance_sends_nothing)
{
    EXPECT_EQ(logged(I, [] { zeb_app_inst_join(300, 1, 0); }), lines_t({"1 ZEB app 300/1 ol is NULL."}));
    peer_online();
    EXPECT_EQ(logged(W, [] { zeb_app_inst_join(PEER, PEER_NODE, 0); }),
              lines_t({"2 ZEB app 200/9 had already online."}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_handshake, two_instances_that_publish_at_once_complete_only_with_the_right_pseq)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    EXPECT_EQ(sent_pseq(), 0) << "the peer's identity is not confirmed yet";
    peer_acks(my_seq, 0);
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE)) << "recorded, but never completes";
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    peer_syncs(); // sent again by its retry
    EXPECT_EQ(sent_pseq(), my_seq) << "now it is";
    lines_t lines = logged(V, [&] { peer_acks(my_seq, PEER_SEQ + 1); });
    EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 recv from 200/9 ack pseq 5001 invalid, need seq 5000."));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    lines = logged(V | I, [&] { peer_acks(my_seq, PEER_SEQ); });
    EXPECT_THAT(lines, testing::IsSupersetOf(
                           {"1 ZEB DEL INST app 100 sync inst to 200/9, seq " + std::to_string((int)my_seq) + ".",
                            std::string("1 ZEB clear inst retry from 100 to 200/9.")}));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, a_wrong_pseq_changes_neither_identity_nor_server_bit)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    peer_acks(my_seq, PEER_SEQ + 7, other_process(PEER_PID + 1));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_EQ(__zeb_get_inst_id(APP, PEER, PEER_NODE)->sync_ack_id, 0u);
    EXPECT_FALSE(zeb_app_set_test(&__zeb_get_ol_app(PEER)->srv_bmp, PEER_NODE));
}

TEST_F(zeb_handshake, an_acknowledgement_of_nothing_pending_is_only_logged)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    lines_t lines = logged(V, [&] { peer_acks(my_seq + 1, PEER_SEQ); });
    EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 del inst sync to 200/9 failed. ack seq " +
                                         std::to_string((int)(my_seq + 1)) + " pseq 5000 "));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, an_old_peer_completes_with_the_old_acknowledgement)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs(PEER_SEQ, older_peer());
    EXPECT_TRUE(take_timers().empty()) << "no retries for an old peer";
    EXPECT_EQ(logged(W, [&] { peer_acks(my_seq + 1, 0, older_peer()); }),
              lines_t({"2 ZEB app 100 del inst sync to 200/9 seq " + std::to_string((int)(my_seq + 1)) + " failed."}));
    // It carries the new form too, which counts only from a new peer.
    wire::header_t old = from_peer(wire::SYNC);
    old.ver = 1;
    receive(wire::message(old, wire::sync_seq_ack(my_seq, PEER_PID, 1, PEER_SEQ)));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    peer_acks(my_seq, 0, older_peer());
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, a_new_peer_completes_with_the_new_acknowledgement_alone)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    receive(wire::message(from_peer(wire::SYNC), wire::sync_ack(my_seq, PEER_PID, 1)));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    peer_acks(my_seq, PEER_SEQ);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, a_repeated_synchronisation_with_the_instance_bit_set_changes_nothing)
{
    peer_online();
    peer_syncs();
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u) << "one acknowledgement, no synchronisation";
}

TEST_F(zeb_handshake, a_synchronisation_with_the_same_sequence_after_a_quit_is_a_quit_request)
{
    peer_published();
    peer_syncs();
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    (void)fake_tipc::take_sent();
    EXPECT_THAT(logged(V, [&] { peer_syncs(); }),
                testing::Contains("0 ZEB app 100 quit comm to 200/9 by request.recv_seq:5000, seq:5000"));
    EXPECT_EQ(take_sync_seq(), 0u) << "no synchronisation of ours";
}

TEST_F(zeb_handshake, a_new_sequence_without_instance_bit_restarts_the_pair)
{
    peer_published();
    peer_syncs();
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    (void)fake_tipc::take_sent();
    EXPECT_THAT(logged(V, [&] { peer_syncs(PEER_SEQ + 1); }),
                testing::Contains("0 ZEB app 100 resume comm to 200/9 by request. recv_seq:5000, seq:5001"));
    EXPECT_NE(take_sync_seq(), 0u);
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, a_resume_mark_restarts_even_an_online_pair)
{
    peer_online();
    (void)take_seen();
    peer_syncs(PEER_SEQ + 1, peer_t(), 1);
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(take_seen().events.size(), 1u) << "a quit event";
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, a_restarted_peer_is_held_back_until_its_identities_agree)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    peer_acks(my_seq, 0, other_process(PEER_PID - 1)); // identity of the process before
    peer_acks(my_seq, PEER_SEQ);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE)) << "the last acknowledgement agrees";
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    (void)fake_tipc::take_sent();
    zeb_app_inst_join(PEER, PEER_NODE, 0);
    my_seq = take_sync_seq();
    peer_syncs(PEER_SEQ);
    lines_t lines = logged(W, [&] { peer_acks(my_seq, PEER_SEQ, other_process(PEER_PID + 5)); });
    EXPECT_EQ(lines, lines_t({"2 ZEB app 100 to 200/9 instance id not equal."}));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    peer_syncs(PEER_SEQ, other_process(PEER_PID + 5));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, ordinary_traffic_is_taken_as_the_acknowledgement)
{
    peer_published();
    peer_syncs();
    lines_t lines = logged(I, [&] { zeb_notify_app_join(APP, {PEER, PEER_NODE}); });
    EXPECT_THAT(lines, testing::Contains(testing::StartsWith("1 ZEB DEL INST app 100 sync inst to 200/9, seq ")));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
}

TEST_F(zeb_handshake, a_server_that_comes_online_by_its_traffic_is_a_server_with_a_join_event)
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

TEST_F(zeb_handshake, a_client_that_comes_online_by_its_traffic_is_none)
{
    peer_t client;
    client.server = false;
    peer_published();
    peer_syncs(PEER_SEQ, client);
    receive(wire::message(from_peer(), {1}));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_TRUE(take_seen().events.empty());
}

TEST_F(zeb_handshake, the_lines_of_a_handshake_are_these)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    lines_t lines = logged(V, [&] { peer_syncs(); });
    EXPECT_THAT(lines,
                testing::IsSupersetOf({"0 ZEB app 100 recv sync msg from 200/9, data len 20, type sync instance.",
                                       "0 ZEB app 100 recv sync inst from 200/9 resume:0, seq:5000",
                                       "0 ZEB app 100 quit comm to 200/9 by request.recv_seq:0, seq:5000",
                                       "0 ZEB app 100 sync inst ack_anc to 200/9, seq 5000, pseq 0. ret:0."}));
    lines = logged(V, [&] { peer_acks(my_seq, PEER_SEQ); });
    const lines_t expected = {"0 ZEB app 100 recv sync msg from 200/9, data len 20, type sync instance ack.",
                              "0 ZEB app 100 recv sync msg from 200/9, data len 24, type sync instance seq ack.",
                              "0 ZEB app 100 recv from 200/9 ack pseq 5000 seq " + std::to_string(my_seq) +
                                  ", recv_seq 5000, is_server 1."};
    EXPECT_THAT(lines, testing::IsSupersetOf(expected));
}

// Retry.

TEST_F(zeb_handshake, pending_synchronisations_are_sent_again_every_2_s_until_acknowledged)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    lines_t lines = logged(I, [&] { peer_syncs(); });
    EXPECT_THAT(lines, testing::Contains("1 ZEB retry sync inst to 200/9."));
    auto timers = take_timers();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].type, wire::RETRY_TIMER);
    EXPECT_EQ(timers[0].seq, 0u);
    EXPECT_EQ(timers[0].ms, 2000u);
    (void)fake_tipc::take_sent();
    for (int i = 0; i < 5; i++) {
        lines = logged(V, [] { timer_expires(wire::RETRY_TIMER, 0); });
        EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 sync inst to 200/9, seq " + std::to_string((int)my_seq) +
                                             " SUCC."));
        EXPECT_EQ(take_sync_seq(), my_seq) << "the same synchronisation";
        EXPECT_EQ(take_timers().size(), 1u);
    }
    peer_acks(my_seq, PEER_SEQ);
    (void)fake_tipc::take_sent();
    timer_expires(wire::RETRY_TIMER, 0);
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_TRUE(take_timers().empty()) << "and not after";
}

TEST_F(zeb_handshake, every_pending_synchronisation_is_sent_again_not_only_those_to_be_retried)
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

TEST_F(zeb_handshake, a_retry_that_fails_is_logged_and_tried_on)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    (void)fake_tipc::take_sent();
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_THAT(logged(W, [] { zeb_process_inst_retry_timer_event(0); }),
                testing::Contains("2 ZEB app 100 sync inst to 200/9, seq " + std::to_string((int)my_seq) + " FAIL."));
    zeb_process_inst_retry_timer_event(0);
    EXPECT_EQ(take_sync_seq(), my_seq);
}

TEST_F(zeb_handshake, without_a_pending_synchronisation_there_is_nothing_to_retry)
{
    EXPECT_THAT(logged(V, [] { zeb_start_retry_inst_timer(2, APP, PEER, PEER_NODE); }),
                testing::Contains("0 no instance msg need retry."));
    EXPECT_EQ(take_timers().size(), 1u) << "the timer has started all the same";
    zeb_start_retry_inst_timer(2, APP, PEER, PEER_NODE);
    EXPECT_TRUE(take_timers().empty()) << "one at a time";
}

TEST_F(zeb_handshake, a_retry_timer_that_fails_to_start_stays_marked_as_open)
{
    fault::fail_next("send", EPIPE);
    peer_published();
    peer_syncs();
    EXPECT_TRUE(g_zeb_handshake.timer_inst_retry_open);
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    peer_published();
    peer_syncs(PEER_SEQ + 1);
    EXPECT_TRUE(take_timers(wire::RETRY_TIMER).empty());
}

TEST_F(zeb_handshake, starting_a_retry_timer_while_one_is_pending_sends_nothing)
{
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0);
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0);
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 1u);
}

TEST_F(zeb_handshake, a_retry_timer_whose_start_failed_is_not_started_again_on_the_same_connection)
{
    fault::fail_next("send", EPIPE);
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), -1);
    EXPECT_TRUE(g_zeb_handshake.timer_inst_retry_open);
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0) << "taken for pending";
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}

// Whether a retry timer can be started on the connection that follows.
static void expect_start_on_a_new_connection()
{
    zeb_topology_reopened();
    (void)fake_tipc::take_subscriptions();
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0);
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 1u);
}

TEST_F(zeb_handshake, a_retry_timer_whose_start_failed_is_started_on_a_new_connection)
{
    fault::fail_next("send", EPIPE);
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), -1);
    expect_start_on_a_new_connection();
}

TEST_F(zeb_handshake, a_retry_timer_lost_with_its_connection_can_be_started_again)
{
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0);
    expect_start_on_a_new_connection();
}

TEST_F(zeb_handshake, a_retry_timer_that_found_no_connection_can_be_started_on_the_next_one)
{
    int sd = g_zeb_mng.subscr_sd;
    g_zeb_mng.subscr_sd = -1;
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), -1);
    g_zeb_mng.subscr_sd = sd;
    expect_start_on_a_new_connection();
}

TEST_F(zeb_handshake, timers_of_the_other_types_are_started_side_by_side)
{
    for (uint32_t seq : {1u, 2u}) {
        EXPECT_EQ(zeb_subscr_timer_event(60, {ZEB_TIMER_TYPE_RESUME, seq}), 0);
        EXPECT_EQ(zeb_subscr_timer_event(1, {ZEB_TIMER_TYPE_INST, seq}), 0);
    }
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 4u);
}
