// Events of the topology connection: published and withdrawn ranges, timers, and the monitor.
#include "handshake_core.h"
#include "lib_test.h"
#include "node_sets.h"

#include "zeb_dbg.h"
#include "zeb_slot.h"

class zeb_mng_topology : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        (void)fake_tipc::take_sent();
        (void)fake_tipc::take_subscriptions();
    }
};

TEST_F(zeb_mng_topology, a_published_range_is_handled_instance_by_instance)
{
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

TEST_F(zeb_mng_topology, each_instance_of_a_published_range_is_quit_before_its_join)
{
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

TEST_F(zeb_mng_topology, a_withdrawn_range_is_quit_ascending)
{
    for (uint32_t node : {5u, 3u, 4u})
        peer_online(node);
    (void)take_seen();
    zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_WITHDRAWN, PEER << 16 | 3, PEER << 16 | 5));
    std::vector<uint32_t> nodes;
    for (const zeb_event_t &event : take_seen().events)
        nodes.push_back(event.event.app.node);
    EXPECT_EQ(nodes, nodes_t({3, 4, 5}));
}

TEST_F(zeb_mng_topology, a_range_up_to_the_highest_number_ends)
{
    zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_WITHDRAWN, 0xFFFFFFFE, 0xFFFFFFFF));
    zeb_process_tipc_subscr_event(fake_tipc::range_event(99, 0, 0xFFFFFFFF));
}

TEST_F(zeb_mng_topology, a_range_beyond_what_was_subscribed_to_is_not_walked)
{
    struct tipc_event event = fake_tipc::range_event(TIPC_PUBLISHED, 0, 0xFFFFFFFF);
    event.s.seq.type = wire::NAME_TYPE;
    event.s.seq.lower = PEER << 16 | 8;
    event.s.seq.upper = PEER << 16 | 10;
    lines_t lines = logged(W, [&] { zeb_process_tipc_subscr_event(event); });
    EXPECT_EQ(lines, lines_t({"2 ZEB perceived app 200/8 join.", "2 ZEB perceived app 200/9 join.",
                              "2 ZEB perceived app 200/10 join."}));
    event.event = TIPC_WITHDRAWN;
    EXPECT_EQ(logged(W, [&] { zeb_process_tipc_subscr_event(event); }).size(), 3u);
}

TEST_F(zeb_mng_topology, events_of_applications_that_nobody_talks_to_do_nothing)
{
    EXPECT_EQ(
        logged(I | W | E,
               [&] {
                   peer_published(9, 300);
                   peer_withdrawn(9, 300);
               }),
        lines_t({"2 ZEB perceived app 300/9 join.", "1 ZEB app 300/9 ol is NULL.", "2 ZEB perceived app 300/9 quit."}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_mng_topology, an_unknown_timer_is_ignored)
{
    EXPECT_EQ(logged(15,
                     [] {
                         zeb_process_tipc_timer_event({4, 9});
                     }),
              lines_t({"0 ZEB perceived timer event of type 4 seq 9."}));
}

TEST_F(zeb_mng_topology, the_monitor_follows_1800_3600_7200_14400_seconds)
{
    uint32_t seq = 1;
    for (uint32_t seconds : {3600u, 7200u, 14400u}) {
        timer_expires(wire::MONITOR_TIMER, seq);
        started_t timer = take_timers().at(0);
        EXPECT_EQ(timer.ms, seconds * 1000);
        EXPECT_EQ(timer.type, wire::MONITOR_TIMER);
        EXPECT_EQ(timer.seq, seq * 2);
        seq = timer.seq;
    }
}

TEST_F(zeb_mng_topology, a_monitor_sequence_of_0_counts_as_1)
{
    zeb_process_monitor_timer_event(0);
    EXPECT_EQ(take_timers().at(0).seq, 2u);
    zeb_process_monitor_timer_event(0x80000000);
    EXPECT_EQ(take_timers().at(0).seq, 0u) << "it wraps";
}

TEST_F(zeb_mng_topology, the_monitor_prints_the_time_and_dumps_the_first_application)
{
    lines_t lines = logged(V, [] { zeb_process_monitor_timer_event(1); });
    EXPECT_THAT(lines[0], testing::StartsWith("0 ZEB monitor timer: "));
    std::string text = buffer_text();
    size_t at = 0;
    for (const char *part : {"Application 100/7 process's ZEB library information:\n",
                             "\n\nApplication 100/7 [test] information:\n", "\n\nApplication 100 overall statistics:\n",
                             "\n\nApplication 100 mng msg statistics:\n", "\n\nApplication 100 RPC waits:\n"}) {
        size_t found = text.find(part, at);
        EXPECT_NE(found, std::string::npos) << part << text;
        at = found;
    }
}

TEST_F(zeb_mng_topology, a_monitor_that_cannot_be_started_again_ends)
{
    fault::fail_next("send", EPIPE);
    EXPECT_THAT(logged(E, [] { zeb_process_monitor_timer_event(1); }),
                testing::Contains("3 ZEB send timer subscription msg failed: Broken pipe."));
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}
