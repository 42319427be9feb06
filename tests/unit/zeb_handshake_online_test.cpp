// Node sets, topology events, join and quit.
#include "handshake_core.h"
#include "lib_test.h"
#include "zeb_slot.h"

class zeb_mng_online : public lib_test
{
};

static std::vector<uint32_t> nodes_of(const zeb_app_set_t *set)
{
    std::vector<uint32_t> nodes;
    zeb_app_set_each(set, [&](uint32_t node) { nodes.push_back(node); });
    return nodes;
}

static std::vector<uint32_t> servers_of(uint32_t app)
{
    static zeb_app_set_t set;
    memset(&set, 0xEE, sizeof(set)); // what the caller's stack holds must not matter
    zeb_get_app_server(app, &set);
    EXPECT_EQ(zeb_has_app_server(&set), !nodes_of(&set).empty());
    return nodes_of(&set);
}

typedef std::vector<uint32_t> nodes_t;

TEST_F(zeb_mng_online, a_set_holds_nodes_0_to_65535)
{
    static zeb_app_set_t set;
    for (uint32_t node : {65535u, 0u, 63u, 64u, 4096u})
        EXPECT_TRUE(zeb_app_set_add(&set, node));
    EXPECT_FALSE(zeb_app_set_add(&set, 65536));
    EXPECT_FALSE(zeb_app_set_test(&set, 65536));
    EXPECT_FALSE(zeb_app_set_test(&set, 0xFFFFFFFF));
    EXPECT_EQ(nodes_of(&set), nodes_t({0, 63, 64, 4096, 65535}));
    EXPECT_EQ(set.bmp[0], 1ull | 1ull << 63);
    EXPECT_EQ(set.bmp[1023], 1ull << 63);
    zeb_app_set_del(&set, 64);
    zeb_app_set_del(&set, 64);
    zeb_app_set_del(&set, 65536);
    EXPECT_EQ(nodes_of(&set), nodes_t({0, 63, 4096, 65535}));
    EXPECT_TRUE(zeb_has_app_server(&set));
}

TEST_F(zeb_mng_online, a_partner_is_added_once)
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

TEST_F(zeb_mng_online, an_unregistered_application_adds_nothing)
{
    start_app();
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_add_comm_app(999, 300), -ENOENT); }),
              lines_t({"3 ZEB app 999 does not registered."}));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_EQ(__zeb_get_ol_app(300), nullptr);
}

TEST_F(zeb_mng_online, removing_the_last_subscriber_cancels_and_frees)
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
    uint32_t words[7];
    memcpy(words, cancels[0].data(), sizeof(words));
    EXPECT_THAT(words, testing::ElementsAre(0x8ffu, 100u << 16, 100u << 16 | 0xFFFF, 0u, 6u, 0u, 0u));
}

TEST_F(zeb_mng_online, a_record_without_subscribers_goes_with_the_next_removal)
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

TEST_F(zeb_mng_online, every_application_is_subscribed_to_in_order)
{
    start_app();
    (void)fake_tipc::take_subscriptions();
    EXPECT_EQ(logged(I, [] { zeb_subscr_tipc_events(); }),
              lines_t({"1 ZEB subscribe TIPC instance [0x640000, 0x64ffff] event.",
                       "1 ZEB subscribe TIPC instance [0xc80000, 0xc8ffff] event."}));
    auto subscriptions = fake_tipc::take_subscriptions();
    ASSERT_EQ(subscriptions.size(), 2u);
    uint32_t words[7];
    memcpy(words, subscriptions[1].data(), sizeof(words));
    EXPECT_THAT(words, testing::ElementsAre(0x8ffu, 200u << 16, 200u << 16 | 0xFFFF, 0xFFFFFFFFu, 2u, 0u, 0u));
}

TEST_F(zeb_mng_online, a_subscription_is_repeated_on_passing_errors_and_fails_on_others)
{
    start_app();
    fault::reset();
    fault::fail_next("send", EINTR, 50);
    fault::fail_next("send", ENOMEM, 50);
    fault::fail_next("send", ENOBUFS, 50);
    EXPECT_EQ(zeb_subscr_app_events(1, 2, 3), 0);
    EXPECT_EQ(fault::count("send"), 151);
    fault::fail_next("send", EPIPE, 2);
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_subscr_app_events(1, 2, 3), -1); }),
              lines_t({"3 ZEB send subscription msg failed: Broken pipe.", ","}));
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_unsubscr_app_events(1, 2), -1); }),
              lines_t({"3 ZEB send canceling subscription msg failed: Broken pipe.", ","}));
}

TEST_F(zeb_mng_online, setters_without_a_record_or_a_node_are_refused)
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

TEST_F(zeb_mng_online, a_range_beyond_what_was_subscribed_to_is_not_walked)
{
    struct tipc_event event = fake_tipc::range_event(TIPC_PUBLISHED, 0, 0xFFFFFFFF);
    event.s.seq.type = 2303;
    event.s.seq.lower = PEER << 16 | 8;
    event.s.seq.upper = PEER << 16 | 10;
    lines_t lines = logged(W, [&] { zeb_process_tipc_subscr_event(event); });
    EXPECT_EQ(lines, lines_t({"2 ZEB perceived app 200/8 join.", "2 ZEB perceived app 200/9 join.",
                              "2 ZEB perceived app 200/10 join."}));
    event.event = TIPC_WITHDRAWN;
    EXPECT_EQ(logged(W, [&] { zeb_process_tipc_subscr_event(event); }).size(), 3u);
}

TEST_F(zeb_mng_online, a_published_range_is_handled_instance_by_instance)
{
    start_app();
    (void)fake_tipc::take_sent();
    lines_t lines = logged(V | W, [] {
        zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_PUBLISHED, PEER << 16 | 3, PEER << 16 | 5));
    });
    EXPECT_EQ(lines[0], "0 ZEB perceived app [0xc80003, 0xc80005] join.");
    lines_t perceived;
    for (const std::string &line : lines) {
        if (line[0] == '2')
            perceived.push_back(line);
    }
    EXPECT_EQ(perceived, lines_t({"2 ZEB perceived app 200/3 join.", "2 ZEB perceived app 200/4 join.",
                                  "2 ZEB perceived app 200/5 join."}));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 3u);
    for (uint32_t i = 0; i < 3; i++)
        EXPECT_EQ(wire::header_of(sent[i].bytes).dst_node, 3 + i);
}

TEST_F(zeb_mng_online, a_range_up_to_the_highest_number_ends)
{
    start_app();
    zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_WITHDRAWN, 0xFFFFFFFE, 0xFFFFFFFF));
    zeb_process_tipc_subscr_event(fake_tipc::range_event(99, 0, 0xFFFFFFFF));
}

TEST_F(zeb_mng_online, the_handshake_brings_a_server_online_and_tells_the_application)
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

TEST_F(zeb_mng_online, a_client_is_online_without_event_and_never_a_server)
{
    start_app();
    peer_online(PEER_NODE, false);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
    EXPECT_TRUE(take_seen().events.empty());
    peer_withdrawn();
    EXPECT_TRUE(take_seen().events.empty());
}

TEST_F(zeb_mng_online, an_acknowledged_server_that_is_not_online_is_no_server)
{
    start_app();
    peer_published();
    zeb_set_app_inst_ack(PEER, PEER_NODE);
    zeb_set_app_server(PEER, PEER_NODE);
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
    EXPECT_EQ(servers_of(300), nodes_t({}));
}

TEST_F(zeb_mng_online, a_withdrawal_quits_with_an_event)
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

TEST_F(zeb_mng_online, the_quit_callback_runs_without_our_lock)
{
    static bool s_free;
    const zeb_msg_dispatcher_t none[] = {{1, see_msg}, {0, nullptr}};
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
    ASSERT_EQ(zeb_register_without_thread(APP, "x", none, callback), 0);
    ASSERT_EQ(zeb_comm_with(APP, PEER), 0);
    peer_online();
    s_free = false;
    peer_withdrawn();
    EXPECT_TRUE(s_free);
}

TEST_F(zeb_mng_online, with_two_subscribers_the_first_to_complete_joins_and_the_first_in_the_list_quits)
{
    start_app(APP);
    start_app(101);
    peer_published();
    std::map<uint32_t, uint32_t> seqs;
    for (const fake_tipc::sent_t &sent : fake_tipc::take_sent())
        seqs[wire::header_of(sent.bytes).src_app] = sync_word(sent.bytes, 0);
    for (uint32_t app : {101u, APP}) { // 101 completes first
        peer_syncs(PEER_SEQ, PEER_NODE, PEER, app);
        receive(wire::message(from_peer(wire::SYNC, PEER_NODE, PEER, app),
                              wire::sync_seq_ack(seqs[app], PEER_PID, 1, PEER_SEQ)),
                app);
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

TEST_F(zeb_mng_online, a_withdrawn_instance_that_never_completed_gives_no_event_but_is_settled)
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

TEST_F(zeb_mng_online, a_try_quit_keeps_pending_synchronisations_and_ends_only_what_is_online)
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

TEST_F(zeb_mng_online, identities_that_differ_hold_the_instance_back)
{
    start_app();
    peer_published();
    uint32_t my_seq = sync_word(fake_tipc::take_sent().at(0).bytes, 0);
    peer_syncs();
    EXPECT_EQ(
        logged(W,
               [&] {
                   receive(wire::message(from_peer(wire::SYNC), wire::sync_seq_ack(my_seq, PEER_PID + 1, 1, PEER_SEQ)));
               }),
        lines_t({"2 ZEB app 100 to 200/9 instance id not equal."}));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_FALSE(zeb_app_instance(PEER, PEER_NODE)) << "the instance bit waits for the next synchronisation";
}

TEST_F(zeb_mng_online, own_instance_comes_online_by_itself)
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

// The lines among `lines` that begin with one of `starts`, in order.
static lines_t pick(const lines_t &lines, const lines_t &starts)
{
    lines_t picked;
    for (const std::string &line : lines) {
        for (const std::string &start : starts) {
            if (line.rfind(start, 0) == 0)
                picked.push_back(start);
        }
    }
    return picked;
}

TEST_F(zeb_mng_online, each_instance_of_a_published_range_is_quit_before_its_join)
{
    start_app();
    peer_online(3);
    peer_online(4);
    (void)take_seen();
    lines_t lines = logged(I, [] {
        zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_PUBLISHED, PEER << 16 | 3, PEER << 16 | 4));
    });
    const lines_t steps = {"1 ZEB notify app 100 of 200/3 quit.", "1 ZEB ADD INST app 100 sync inst to 200/3, seq ",
                           "1 ZEB notify app 100 of 200/4 quit.", "1 ZEB ADD INST app 100 sync inst to 200/4, seq "};
    EXPECT_EQ(pick(lines, steps), steps);
    EXPECT_EQ(take_seen().events.size(), 2u);
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
}

TEST_F(zeb_mng_online, a_withdrawn_range_is_quit_ascending)
{
    start_app();
    for (uint32_t node : {5u, 3u, 4u})
        peer_online(node);
    (void)take_seen();
    zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_WITHDRAWN, PEER << 16 | 3, PEER << 16 | 5));
    std::vector<uint32_t> nodes;
    for (const zeb_event_t &event : take_seen().events)
        nodes.push_back(event.event.app.node);
    EXPECT_EQ(nodes, nodes_t({3, 4, 5}));
}

TEST_F(zeb_mng_online, only_the_first_subscriber_has_its_calls_ended_when_an_unfinished_server_goes)
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

TEST_F(zeb_mng_online, events_of_applications_that_nobody_talks_to_do_nothing)
{
    start_app();
    EXPECT_EQ(
        logged(I | W | E,
               [&] {
                   peer_published(9, 300);
                   peer_withdrawn(9, 300);
               }),
        lines_t({"2 ZEB perceived app 300/9 join.", "1 ZEB app 300/9 ol is NULL.", "2 ZEB perceived app 300/9 quit."}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_mng_online, a_subscription_that_fails_does_not_keep_the_next_from_being_sent)
{
    start_app();
    (void)fake_tipc::take_subscriptions();
    fault::fail_next("send", EPIPE);
    EXPECT_EQ(logged(E, [] { zeb_subscr_tipc_events(); }),
              lines_t({"3 ZEB send subscription msg failed: Broken pipe.", ","}));
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 1u);
}

TEST_F(zeb_mng_online, a_short_subscription_is_a_failure_or_sent_again_by_its_error_value)
{
    start_app();
    fault::fail_next("send", fault::SHORT);
    errno = EIO;
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_subscr_app_events(1, 2, 3), -1); }),
              lines_t({"3 ZEB send subscription msg failed: Input/output error.", ","}));
}

TEST_F(zeb_mng_online, an_application_without_event_callback_sees_no_events_and_loses_nothing)
{
    const zeb_msg_dispatcher_t table[] = {{1, see_msg}, {0, nullptr}};
    ASSERT_EQ(zeb_register_without_thread(APP, "quiet", table, nullptr), 0);
    ASSERT_EQ(zeb_comm_with(APP, PEER), 0);
    peer_online();
    EXPECT_EQ(servers_of(PEER), nodes_t({PEER_NODE}));
    peer_withdrawn();
    EXPECT_EQ(servers_of(PEER), nodes_t({}));
    EXPECT_TRUE(take_seen().events.empty());
}

TEST_F(zeb_mng_online, nodes_0_and_65535_come_and_go_like_any_other)
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
