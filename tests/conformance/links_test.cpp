// Links that are cut and nodes that fail.
#include "conformance.h"

class links : public tipc
{
  protected:
    // Node n binds instance n and watches all three. Every node has seen all three when this returns.
    void SetUp() override
    {
        tipc::SetUp();
        for (int node = 1; node <= 3; node++) {
            on(node).open_receiver("r", name((unsigned)node));
            id_[node] = on(node).ask("name r");
        }
        for (int node = 1; node <= 3; node++) {
            on(node).open_sender("s");
            on(node).open_watch("t");
            EXPECT_EQ(on(node).ask(subscribe(1, 3, SERVICE)), "28");
            for (int i = 0; i < 3; i++)
                EXPECT_EQ(on(node).get("event t wait=10000").head, "published");
        }
    }
    void TearDown() override
    {
        if (cut_between_)
            heal_between(1, 2);
        tipc::TearDown();
    }
    // The node's next events are those of these nodes' names, in any order.
    void expect_events(int node, const std::string &kind, const std::set<int> &of)
    {
        std::set<std::string> ports;
        std::set<std::string> expected;
        for (int other : of) {
            answer got = on(node).get("event t wait=20000");
            EXPECT_EQ(got.head, kind) << got.text;
            ports.insert(got.of["port"]);
            expected.insert(id_[other]);
        }
        EXPECT_EQ(ports, expected);
    }
    void expect_reaches(int from, int to)
    {
        EXPECT_EQ(on(from).ask("send s " + name((unsigned)to) + " 7 10"), "10") << from << " to " << to;
        answer got = on(to).get("recv r wait=10000");
        EXPECT_EQ(got.head, "10");
        EXPECT_EQ(got.of["from"], on(from).ask("name s"));
    }
    void expect_unreachable(int from, int to)
    {
        EXPECT_EQ(on(from).ask("send s " + name((unsigned)to) + " 7 10"), "EHOSTUNREACH") << from << " to " << to;
        EXPECT_EQ(on(from).ask("send s " + id_[to] + " 7 10"), "EHOSTUNREACH")
            << from << " to " << to << ", by address";
    }
    // No event waits at the node's watch: that of a subscription which times out at once is the next.
    void expect_no_event(int node)
    {
        EXPECT_EQ(on(node).ask("subscribe t " + type() + " 99999 99999 1 2 fence"), "28");
        EXPECT_EQ(on(node).get("event t wait=10000").of["handle"], "fence");
    }
    std::map<int, std::string> id_;
    bool cut_between_ = false;
};

TEST_F(links, a_node_cut_off_is_withdrawn_and_comes_back_when_healed)
{
    cluster::cut(1);
    expect_events(1, "withdrawn", {2, 3});
    expect_events(2, "withdrawn", {1});
    expect_events(3, "withdrawn", {1});
    for (int other : {2, 3}) {
        expect_unreachable(1, other);
        expect_unreachable(other, 1);
    }
    expect_reaches(1, 1);
    expect_reaches(2, 3);
    expect_reaches(3, 2);
    expect_no_event(2);

    cluster::heal(1);
    expect_events(1, "published", {2, 3});
    expect_events(2, "published", {1});
    expect_events(3, "published", {1});
    for (int other : {2, 3}) {
        expect_reaches(1, other);
        expect_reaches(other, 1);
    }
    for (int node : {1, 2, 3}) {
        EXPECT_EQ(on(node).ask("name r"), id_[node]) << "the sockets are the same as before";
        EXPECT_EQ(on(node).ask("recv r"), "EAGAIN") << "nothing of the time between arrives late";
    }
}

TEST_F(links, a_link_cut_between_two_nodes_leaves_the_third_alone)
{
    cut_between_ = true;
    cut_between(1, 2);
    expect_events(1, "withdrawn", {2});
    expect_events(2, "withdrawn", {1});
    expect_unreachable(1, 2);
    expect_unreachable(2, 1);
    for (int node : {1, 2}) {
        expect_reaches(node, 3);
        expect_reaches(3, node);
    }
    expect_no_event(3);

    heal_between(1, 2);
    cut_between_ = false;
    expect_events(1, "published", {2});
    expect_events(2, "published", {1});
    expect_reaches(1, 2);
    expect_reaches(2, 1);
    expect_no_event(3);
}

TEST_F(links, what_was_bound_and_closed_while_cut_is_known_after_healing)
{
    cluster::cut(1);
    expect_events(2, "withdrawn", {1});
    on(1).ok("close r");
    on(1).open_receiver("late", name(4));
    cluster::heal(1);
    for (int node : {2, 3}) {
        on(node).ok(await(4));
        EXPECT_EQ(on(node).ask("send s " + name(4) + " 9 10"), "10");
        EXPECT_EQ(on(1).get("recv late wait=10000").num("num"), 9);
        EXPECT_EQ(on(node).ask("send s " + name(1) + " 9 10"), "EHOSTUNREACH");
    }
}

TEST_F(links, a_name_of_two_nodes_stays_when_one_is_cut_off)
{
    on(1).open_receiver("both", name(9));
    on(2).ok(await(9));
    on(3).open_receiver("both", name(9));
    on(2).ok("bind r " + name(10) + " 2");
    on(3).ok("bind r " + name(11) + " 2");
    on(2).ok(await(11)); // it was bound after node 3's other name, so that one is known too
    cluster::cut(1);
    expect_events(2, "withdrawn", {1});
    on(2).ok(await(9));
    EXPECT_EQ(on(2).ask("send s " + name(9) + " 0 10 count=20"), "20 10");
    EXPECT_EQ(on(3).get("drain both until=20").head, "20") << "all of them at the one that is left";
}

TEST_F(links, messages_that_a_node_cut_off_holds_unread_stay_there)
{
    EXPECT_EQ(on(2).ask("send s " + name(1) + " 5 10"), "10");
    EXPECT_EQ(on(1).ask("poll r in wait=10000"), "in");
    cluster::cut(1);
    expect_events(2, "withdrawn", {1});
    EXPECT_EQ(on(2).ask("recv s"), "EAGAIN") << "it is not returned";
    EXPECT_EQ(on(1).get("recv r").num("num"), 5);
}

TEST_F(links, a_node_that_fails_takes_all_its_names_along)
{
    on(2).ok("bind r " + name(20) + " 2");
    on(1).ok(await(20));
    on(3).ok(await(20));
    EXPECT_EQ(on(1).ask("send s " + name(2) + " 5 10"), "10");
    cluster::node_down(2);
    drop(2);
    for (int node : {1, 3}) {
        expect_events(node, "withdrawn", {2});
        on(node).ok(await(20, "gone"));
        expect_unreachable(node, 2);
        EXPECT_EQ(on(node).ask("recv s"), "EAGAIN") << "what it held is not returned";
    }
    expect_reaches(1, 3);
    expect_reaches(3, 1);

    cluster::node_up(2);
    EXPECT_EQ(on(1).ask("send s " + name(2) + " 5 10"), "EHOSTUNREACH") << "it begins with nothing";
    on(2).open_receiver("r", name(2));
    on(2).open_sender("s");
    id_[2] = on(2).ask("name r");
    for (int node : {1, 3}) {
        expect_events(node, "published", {2});
        expect_reaches(node, 2);
        on(2).ok(await((unsigned)node));
        expect_reaches(2, node);
    }
}
