// Events of the topology service.
#include "conformance.h"

class topology : public tipc
{
  protected:
    void watch(int node, unsigned lower, unsigned upper, const std::string &filter, const std::string &handle = "watch")
    {
        ASSERT_EQ(on(node).ask(subscribe(lower, upper, filter, handle)), "28");
    }
    // Subscribes to names that do not exist yet. Returns when the service has the request.
    void watch_for(int node, unsigned lower, unsigned upper, const std::string &filter)
    {
        watch(node, lower, upper, filter);
        expect_quiet(node);
    }
    void expect_event(int node, const std::string &kind, const std::string &found, const std::string &handle = "watch")
    {
        answer got = on(node).get("event t wait=10000");
        EXPECT_EQ(got.head, kind) << got.text;
        EXPECT_EQ(got.of["found"], found) << got.text;
        EXPECT_EQ(got.of["handle"], handle) << got.text;
    }
    // No event waits on the connection: that of a subscription which times out at once is the next.
    void expect_quiet(int node)
    {
        EXPECT_EQ(on(node).ask("subscribe t " + type() + " 99999 99999 1 2 fence"), "28");
        expect_event(node, "timeout", "99999:99999", "fence");
    }
};

TEST_F(topology, a_name_that_exists_already_is_told_at_once)
{
    on(1).open_receiver("r", name(5));
    on(2).ok(await(5));
    for (int node : {1, 2}) {
        on(node).open_watch("t");
        watch(node, 5, 5, SERVICE);
        expect_event(node, "published", "5:5");
        expect_quiet(node);
    }
}

TEST_F(topology, a_new_name_is_told_on_every_node)
{
    for (int node : {1, 2, 3}) {
        on(node).open_watch("t");
        watch_for(node, 1, 9, SERVICE);
    }
    on(1).open_receiver("r", name(5));
    for (int node : {1, 2, 3})
        expect_event(node, "published", "5:5");
}

TEST_F(topology, an_event_holds_the_socket_and_the_request)
{
    on(2).open_watch("t");
    EXPECT_EQ(on(2).ask("subscribe t " + type() + " 3 8 100000000 2 handle7"), "28");
    on(1).open_receiver("r", name(5));
    answer got = on(2).get("event t wait=10000"); // the probe takes events of 48 bytes only
    EXPECT_EQ(got.head, "published");
    EXPECT_EQ(got.of["found"], "5:5");
    EXPECT_EQ(got.of["port"], on(1).ask("name r"));
    EXPECT_EQ(got.of["asked"], type() + ":3:8");
    EXPECT_EQ(got.of["timeout"], "100000000");
    EXPECT_EQ(got.of["filter"], SERVICE);
    EXPECT_EQ(got.of["handle"], "handle7");
    // A receiver sees the same address as the sender's.
    on(2).open_receiver("r", name(6));
    on(1).ok(await(6));
    EXPECT_EQ(on(1).ask("send r " + name(6) + " 1 10"), "10");
    EXPECT_EQ(on(2).get("recv r wait=10000").of["from"], got.of["port"]);
}

TEST_F(topology, a_name_is_withdrawn_when_its_socket_closes)
{
    for (int node : {1, 2}) {
        on(node).open_watch("t");
        watch_for(node, 5, 5, SERVICE);
    }
    on(1).open_receiver("r", name(5));
    std::string id = on(1).ask("name r");
    for (int node : {1, 2})
        expect_event(node, "published", "5:5");
    on(1).ok("close r");
    for (int node : {1, 2}) {
        answer got = on(node).get("event t wait=10000");
        EXPECT_EQ(got.head, "withdrawn");
        EXPECT_EQ(got.of["found"], "5:5");
        EXPECT_EQ(got.of["port"], id);
    }
}

TEST_F(topology, a_name_is_withdrawn_when_its_process_is_killed)
{
    for (int node : {1, 2}) {
        on(node).open_watch("t");
        watch_for(node, 5, 5, SERVICE);
    }
    probe victim(1);
    victim.open_receiver("r", name(5));
    for (int node : {1, 2})
        expect_event(node, "published", "5:5");
    victim.kill();
    for (int node : {1, 2})
        expect_event(node, "withdrawn", "5:5");
}

TEST_F(topology, events_come_in_the_order_of_what_happened)
{
    for (int node : {1, 2}) {
        on(node).open_watch("t");
        watch_for(node, 5, 5, SERVICE);
    }
    for (int round = 0; round < 5; round++) {
        on(1).open_receiver("r", name(5));
        on(1).ok("bind r " + name(5) + " -2");
        on(1).ok("bind r " + name(5) + " 2");
        on(1).ok("close r");
    }
    for (int node : {1, 2}) {
        for (int round = 0; round < 10; round++) {
            expect_event(node, "published", "5:5");
            expect_event(node, "withdrawn", "5:5");
        }
    }
}

TEST_F(topology, the_service_filter_tells_of_the_first_and_the_last_socket_only)
{
    for (int node : {1, 2}) {
        on(node).open_watch("t");
        watch_for(node, 1, 9, SERVICE);
    }
    on(1).open_receiver("first", name(5));
    on(1).open_receiver("second", name(5));
    on(1).ok("close first");
    on(1).open_receiver("other", name(6)); // its event comes after all earlier ones
    on(1).ok("close second");
    for (int node : {1, 2}) {
        expect_event(node, "published", "5:5");
        expect_event(node, "published", "6:6");
        expect_event(node, "withdrawn", "5:5");
        expect_quiet(node);
    }
}

TEST_F(topology, the_service_filter_looks_at_all_nodes_together)
{
    on(3).open_watch("t");
    watch_for(3, 1, 9, SERVICE);
    on(1).open_receiver("r", name(5));
    expect_event(3, "published", "5:5");
    on(2).open_receiver("r", name(5));
    on(2).ok("bind r " + name(6) + " 2");
    expect_event(3, "published", "6:6");
    on(1).ok("bind r " + name(7) + " 2");
    on(1).ok("bind r " + name(5) + " -2");
    on(1).ok("bind r " + name(8) + " 2");
    expect_event(3, "published", "7:7");
    expect_event(3, "published", "8:8");
    on(2).ok("bind r " + name(5) + " -2");
    expect_event(3, "withdrawn", "5:5");
}

TEST_F(topology, the_ports_filter_tells_of_each_socket)
{
    for (int node : {1, 2}) {
        on(node).open_watch("t");
        watch_for(node, 1, 9, PORTS);
    }
    on(1).open_receiver("first", name(5));
    on(1).open_receiver("second", name(5));
    std::string first = on(1).ask("name first");
    std::string second = on(1).ask("name second");
    on(1).ok("close first");
    on(1).ok("close second");
    for (int node : {1, 2}) {
        EXPECT_EQ(on(node).get("event t wait=10000").of["port"], first);
        EXPECT_EQ(on(node).get("event t wait=10000").of["port"], second);
        answer got = on(node).get("event t wait=10000");
        EXPECT_EQ(got.head, "withdrawn");
        EXPECT_EQ(got.of["port"], first);
        got = on(node).get("event t wait=10000");
        EXPECT_EQ(got.head, "withdrawn");
        EXPECT_EQ(got.of["port"], second);
        expect_quiet(node);
    }
}

TEST_F(topology, sockets_that_exist_already_are_told_one_by_one_to_the_ports_filter)
{
    on(1).open_receiver("first", name(5));
    on(1).open_receiver("second", name(5));
    on(1).open_watch("t");
    watch(1, 5, 5, PORTS);
    std::set<std::string> seen;
    for (int i = 0; i < 2; i++) {
        answer got = on(1).get("event t wait=10000");
        EXPECT_EQ(got.head, "published");
        seen.insert(got.of["port"]);
    }
    EXPECT_EQ(seen, (std::set<std::string>{on(1).ask("name first"), on(1).ask("name second")}));
    expect_quiet(1);
}

TEST_F(topology, each_name_in_the_asked_range_has_its_own_event)
{
    on(1).open_watch("t");
    watch_for(1, 10, 20, SERVICE);
    on(1).open_receiver("r", name(9));
    for (unsigned instance : {10U, 15U, 20U, 21U})
        on(1).ok("bind r " + name(instance) + " 2");
    for (const char *found : {"10:10", "15:15", "20:20"})
        expect_event(1, "published", found);
    expect_quiet(1);
}

TEST_F(topology, ranges_that_overlap_in_part_are_told_whole)
{
    for (int node : {1, 2}) {
        on(node).open_watch("t");
        watch_for(node, 10, 20, SERVICE);
    }
    on(1).open_receiver("r", range(1, 9));
    on(1).ok("bind r " + range(30, 40) + " 2");
    on(1).ok("bind r " + range(15, 30) + " 2");
    on(1).ok("close r");
    for (int node : {1, 2}) {
        expect_event(node, "published", "15:30");
        expect_event(node, "withdrawn", "15:30");
        expect_quiet(node);
    }
}

TEST_F(topology, node_scope_names_are_told_on_their_own_node_only)
{
    for (int node : {1, 2}) {
        on(node).open_watch("t");
        watch_for(node, 1, 9, SERVICE);
    }
    on(1).open_receiver("r", name(5), "3");
    on(1).ok("bind r " + name(6) + " 2");
    expect_event(1, "published", "5:5");
    expect_event(1, "published", "6:6");
    expect_event(2, "published", "6:6");
    on(1).ok("close r");
    expect_event(2, "withdrawn", "6:6");
    expect_quiet(2);
}

TEST_F(topology, other_types_are_not_told)
{
    on(1).open_watch("t");
    watch_for(1, 0, 0xffffffff, PORTS);
    on(1).open_receiver("r", "name:19999:5");
    expect_quiet(1);
}

TEST_F(topology, a_subscriber_that_goes_does_not_disturb_others)
{
    probe other(1);
    on(1).open_watch("t");
    other.open_watch("t");
    watch_for(1, 5, 5, SERVICE);
    EXPECT_EQ(other.ask(subscribe(5, 5, SERVICE)), "28");
    other.kill();
    on(1).open_receiver("r", name(5));
    expect_event(1, "published", "5:5");
}
