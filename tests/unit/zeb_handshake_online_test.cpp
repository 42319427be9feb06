// Which instances are online: partners, join, and the three kinds of quit.
#include "handshake_core.h"
#include "lib_test.h"
#include "node_sets.h"

#include "zeb_slot.h"

class zeb_handshake_online : public lib_test
{
};

TEST_F(zeb_handshake_online, a_partner_is_added_once)
{
    start_app();
    EXPECT_EQ(logged(I, [] { EXPECT_EQ(zeb_add_comm_app(APP, PEER), 0); }),
              lines_t({"1 ZEB app 100 add comm with 200.", "1 ZEB app 100 add comm with 200 OK."}));
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_ol_app_t *ol = __zeb_get_ol_app(PEER);
    ASSERT_NE(ol, nullptr);
    EXPECT_EQ(ol->subscr_app_list.next->next, &ol->subscr_app_list);
    EXPECT_NE(__zeb_get_subscr_app(APP, PEER), nullptr);
    EXPECT_NE(__zeb_get_subscr_app(APP, APP), nullptr) << "an application talks to itself";
    EXPECT_EQ(__zeb_get_subscr_app(APP, 300), nullptr);
    EXPECT_EQ(__zeb_get_subscr_app(300, PEER), nullptr);
}

TEST_F(zeb_handshake_online, removing_the_last_subscriber_cancels_and_frees)
{
    start_app();
    start_app(101);
    (void)fake_tipc::take_subscriptions();
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        lines_t lines = logged(I, []() ZEB_NO_THREAD_SAFETY_ANALYSIS { zeb_del_comm_app(APP); });
        EXPECT_EQ(lines, lines_t({"1 ZEB cancel TIPC subscription instance [0x640000, 0x64ffff] event."}));
        EXPECT_EQ(__zeb_get_ol_app(APP), nullptr);
        EXPECT_NE(__zeb_get_ol_app(PEER), nullptr) << "101 still talks to it";
        zeb_del_comm_app(101);
        EXPECT_EQ(__zeb_get_ol_app(PEER), nullptr);
    }
    auto cancels = fake_tipc::take_subscriptions();
    ASSERT_EQ(cancels.size(), 3u);
    EXPECT_THAT(subscription_words(cancels[0]),
                testing::ElementsAre(wire::NAME_TYPE, 100u << 16, 100u << 16 | 0xFFFF, 0u, 6u, 0u, 0u));
}

TEST_F(zeb_handshake_online, a_record_without_subscribers_goes_with_the_next_removal)
{
    start_app();
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_ol_app_t *ol = __zeb_get_ol_app(PEER);
    zeb_subscr_app_t *subscr = __zeb_get_subscr_app(APP, PEER);
    list_del(&subscr->list);
    free(subscr);
    ASSERT_TRUE(list_empty(&ol->subscr_app_list));
    zeb_del_comm_app(12345);
    EXPECT_EQ(__zeb_get_ol_app(PEER), nullptr);
    EXPECT_NE(__zeb_get_ol_app(APP), nullptr);
}

TEST_F(zeb_handshake_online, setters_without_a_record_or_a_node_are_refused)
{
    start_app();
    EXPECT_EQ(logged(E,
                     [] {
                         zeb_set_app_server(300, 1);
                         zeb_set_app_inst(300, 1);
                         zeb_set_app_inst_ack(300, 1);
                         zeb_set_app_server(PEER, 65536);
                         zeb_set_app_inst(PEER, 65536);
                         zeb_set_app_inst_ack(PEER, 65536);
                     }),
              lines_t({"3 ZEB get app 300 online status for server setting failed.",
                       "3 ZEB get app 300 online status for inst setting failed.",
                       "3 ZEB get app 300 online status for inst ack setting failed.",
                       "3 ZEB get app 200 online status for server setting failed.",
                       "3 ZEB get app 200 online status for inst setting failed.",
                       "3 ZEB get app 200 online status for inst ack setting failed."}));
    EXPECT_EQ(logged(E, [] { zeb_try_notify_app_join(APP, 300, 1); }),
              lines_t({"3 ZEB get app 300 online status failed."}));
    EXPECT_FALSE(zeb_app_online(300, 1) || zeb_app_instance(300, 1));
}

TEST_F(zeb_handshake_online, the_handshake_brings_a_server_online_and_tells_the_application)
{
    start_app();
    lines_t lines = logged(I, [&] { peer_online(); });
    EXPECT_THAT(lines, testing::Contains("1 ZEB set app 200/9 online."));
    EXPECT_EQ(servers_of(PEER), nodes_t({PEER_NODE}));
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_JOIN);
    EXPECT_EQ(seen.events[0].my_app, APP);
    EXPECT_EQ(seen.events[0].event.app.app, PEER);
    EXPECT_EQ(seen.events[0].event.app.node, PEER_NODE);
}

TEST_F(zeb_handshake_online, a_client_is_online_without_event_and_never_a_server)
{
    start_app();
    peer_online(PEER_NODE, false);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
    EXPECT_TRUE(take_seen().events.empty());
    peer_withdrawn();
    EXPECT_TRUE(take_seen().events.empty());
}

TEST_F(zeb_handshake_online, an_acknowledged_server_that_is_not_online_is_no_server)
{
    start_app();
    peer_published();
    zeb_set_app_inst_ack(PEER, PEER_NODE);
    zeb_set_app_server(PEER, PEER_NODE);
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
    EXPECT_EQ(servers_of(300), nodes_t({}));
}

TEST_F(zeb_handshake_online, identities_that_differ_hold_the_instance_back)
{
    start_app();
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    EXPECT_EQ(logged(W, [&] { peer_acks(my_seq, PEER_SEQ, other_process(PEER_PID + 1)); }),
              lines_t({"2 ZEB app 100 to 200/9 instance id not equal."}));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_FALSE(zeb_app_instance(PEER, PEER_NODE)) << "the instance bit waits for the next synchronisation";
}

TEST_F(zeb_handshake_online, own_instance_comes_online_by_itself)
{
    start_app();
    (void)fake_tipc::take_sent();
    peer_published(NODE, APP);
    // What goes to our own name comes back to our own socket.
    for (int round = 0; round < 6; round++) {
        for (const fake_tipc::sent_t &sent : fake_tipc::take_sent())
            receive(sent.bytes);
        if (round == 3)
            zeb_process_inst_retry_timer_event(0);
    }
    EXPECT_TRUE(zeb_app_online(APP, NODE));
    EXPECT_EQ(servers_of(APP), nodes_t({NODE}));
    EXPECT_EQ(take_seen().events.size(), 1u);
}

TEST_F(zeb_handshake_online, with_two_subscribers_the_first_to_complete_joins_and_the_first_in_the_list_quits)
{
    start_app(APP);
    start_app(101);
    peer_published();
    std::map<uint32_t, uint32_t> seqs;
    for (const fake_tipc::sent_t &sent : fake_tipc::take_sent())
        seqs[wire::header_of(sent.bytes).src_app] = sync_word(sent.bytes, wire::SEQ);
    for (uint32_t app : {101u, APP}) { // 101 completes first
        peer_t peer;
        peer.my_app = app;
        peer_syncs(PEER_SEQ, peer);
        peer_acks(seqs[app], PEER_SEQ, peer);
    }
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].my_app, 101u);
    peer_withdrawn();
    seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].my_app, APP);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_QUIT);
}

TEST_F(zeb_handshake_online, nodes_0_and_65535_come_and_go_like_any_other)
{
    start_app();
    for (uint32_t node : {0u, 65535u})
        peer_online(node);
    EXPECT_EQ(servers_of(PEER), nodes_t({0, 65535}));
    peer_withdrawn(0);
    EXPECT_EQ(servers_of(PEER), nodes_t({65535}));
    peer_withdrawn(65535);
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
}

// Quit.

TEST_F(zeb_handshake_online, a_withdrawal_quits_with_an_event)
{
    start_app();
    peer_online();
    (void)take_seen();
    lines_t lines = logged(I, [&] { peer_withdrawn(); });
    EXPECT_EQ(lines, lines_t({"1 ZEB clear app 200/9 online.", "1 ZEB reset unack stat between app 100 and 200/9.",
                              "1 ZEB clean mng msg stat between app 100 and 200/9.", "1 ZEB app 100 discard 200/9 msg.",
                              "1 ZEB notify app 100 of 200/9 quit.",
                              "1 ZEB app 100 dispatch app 200/9 event: application quit."}));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE) || zeb_app_instance(PEER, PEER_NODE));
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_QUIT);
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
}

TEST_F(zeb_handshake_online, the_quit_callback_runs_without_our_lock)
{
    static bool s_free;
    auto callback = [](zeb_event_t) -> void * {
        pthread_t tid;
        // Another thread gets the lock while the callback runs.
        (void)pthread_create(
            &tid, nullptr,
            [](void *) -> void * {
                // The library's own thread may hold it for a moment.
                struct timespec deadline;
                (void)clock_gettime(CLOCK_REALTIME, &deadline);
                deadline.tv_sec += 5;
                s_free = pthread_mutex_timedlock(&g_lib_mutex.impl, &deadline) == 0;
                if (s_free)
                    (void)pthread_mutex_unlock(&g_lib_mutex.impl);
                return nullptr;
            },
            nullptr);
        (void)pthread_join(tid, nullptr);
        return nullptr;
    };
    ASSERT_EQ(zeb_register_without_thread(APP, "x", ONE_DISPATCHER, callback), 0);
    ASSERT_EQ(zeb_comm_with(APP, PEER), 0);
    peer_online();
    s_free = false;
    peer_withdrawn();
    EXPECT_TRUE(s_free);
}

TEST_F(zeb_handshake_online, a_withdrawn_instance_that_never_completed_gives_no_event_but_ends_its_calls)
{
    start_app();
    peer_published();
    zeb_set_app_server(PEER, PEER_NODE);
    zeb_set_app_inst(PEER, PEER_NODE);
    zeb_set_app_inst_ack(PEER, PEER_NODE);
    lines_t lines = logged(V | I, [&] { peer_withdrawn(); });
    EXPECT_THAT(lines, testing::IsSupersetOf({"1 ZEB reset unack stat between app 100 and 200/9.",
                                              "0 ZEB try to terminate app 100 RPC to 200/9."}));
    EXPECT_TRUE(take_seen().events.empty());
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE)) << "a plain quit keeps the instance bit";
    zeb_app_inst_force_quit(PEER, PEER_NODE);
    EXPECT_FALSE(zeb_app_instance(PEER, PEER_NODE));
    EXPECT_THAT(logged(V, [&] { peer_withdrawn(); }), testing::Not(testing::Contains(testing::HasSubstr("terminate"))))
        << "the server bit is gone";
}

TEST_F(zeb_handshake_online, only_the_first_subscriber_has_its_calls_ended_when_an_unfinished_server_goes)
{
    start_app(APP);
    start_app(101);
    zeb_set_app_server(PEER, PEER_NODE);
    lines_t lines = logged(V | I, [&] { peer_withdrawn(); });
    EXPECT_EQ(
        pick(lines,
             {"1 ZEB reset unack stat between app 100 and 200/9.", "1 ZEB reset unack stat between app 101 and 200/9.",
              "0 ZEB try to terminate app 100 RPC to 200/9.", "0 ZEB try to terminate app 101 RPC to 200/9."}),
        lines_t({"1 ZEB reset unack stat between app 100 and 200/9.", "0 ZEB try to terminate app 100 RPC to 200/9.",
                 "1 ZEB reset unack stat between app 101 and 200/9."}));
}

TEST_F(zeb_handshake_online, a_try_quit_keeps_pending_synchronisations_and_ends_only_what_is_online)
{
    start_app();
    peer_published();
    zeb_app_inst_try_quit(PEER, PEER_NODE);
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    peer_online();
    (void)take_seen();
    zeb_app_inst_try_quit(PEER, PEER_NODE);
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(take_seen().events.size(), 1u);
}

TEST_F(zeb_handshake_online, an_application_without_event_callback_sees_no_events_and_loses_nothing)
{
    ASSERT_EQ(zeb_register_without_thread(APP, "quiet", ONE_DISPATCHER, nullptr), 0);
    ASSERT_EQ(zeb_comm_with(APP, PEER), 0);
    peer_online();
    EXPECT_EQ(servers_of(PEER), nodes_t({PEER_NODE}));
    peer_withdrawn();
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
    EXPECT_TRUE(take_seen().events.empty());
}
