// What the topology service says of nodes and links, in either byte order, and how else it is asked.
#include "conformance.h"

static const char NODE_STATE[] = "0";
static const char LINK_STATE[] = "2";

class topology_nodes : public tipc
{
  protected:
    void SetUp() override
    {
        tipc::SetUp();
        for (int n : {1, 2, 3}) {
            on(n).ok("open x rdm");
            std::string id = on(n).ask("name x");
            node_[n] = id.substr(id.rfind(':') + 1);
        }
        on(1).open_watch("t");
    }
    void TearDown() override
    {
        if (cut_)
            heal_between(1, 2);
        tipc::TearDown();
    }
    std::string all_of(const std::string &type, const std::string &filter)
    {
        return "subscribe t " + type + " 0 0xffffffff 0xffffffff " + filter + " watch";
    }
    // No event waits on the connection: that of a subscription which times out at once is the next.
    void expect_quiet(const std::string &socket = "t")
    {
        EXPECT_EQ(on(1).ask("subscribe " + socket + " " + type() + " 99999 99999 1 2 fence"), "28");
        EXPECT_EQ(on(1).get("event " + socket + " wait=10000").of["handle"], "fence");
    }
    // The next event is of that node.
    void expect_event(const std::string &kind, int of, const std::string &port)
    {
        answer got = on(1).get("event t wait=20000");
        EXPECT_EQ(got.head, kind) << got.text;
        EXPECT_EQ(got.of["found"], node_[of] + ":" + node_[of]) << got.text;
        EXPECT_EQ(got.of["port"], port) << got.text;
    }
    std::map<int, std::string> node_;
    bool cut_ = false;
};

TEST_F(topology_nodes, every_node_has_a_name_of_type_0)
{
    for (const char *filter : {PORTS, SERVICE}) {
        on(1).ok("close t");
        on(1).open_watch("t");
        EXPECT_EQ(on(1).ask(all_of(NODE_STATE, filter)), "28");
        std::set<std::string> seen, expected;
        for (int n : {1, 2, 3}) {
            answer got = on(1).get("event t wait=10000");
            EXPECT_EQ(got.head, "published");
            seen.insert(got.of["found"] + " " + got.of["port"]);
            expected.insert(node_[n] + ":" + node_[n] + " id:0:" + node_[n]);
        }
        EXPECT_EQ(seen, expected) << "the own one as well";
        expect_quiet();
    }
}

TEST_F(topology_nodes, every_link_has_a_name_of_type_2)
{
    EXPECT_EQ(on(1).ask(all_of(LINK_STATE, PORTS)), "28");
    std::set<std::string> seen, expected;
    for (int n : {2, 3}) {
        answer got = on(1).get("event t wait=10000");
        EXPECT_EQ(got.head, "published");
        seen.insert(got.of["found"]);
        expected.insert(node_[n] + ":" + node_[n]);
        std::string port = got.of["port"];
        EXPECT_EQ(port.substr(port.rfind(':') + 1), node_[1]) << "of this node's end; the first number is the bearer";
    }
    EXPECT_EQ(seen, expected);
    expect_quiet();
}

TEST_F(topology_nodes, a_cut_is_told_for_the_node_and_for_the_link)
{
    on(1).open_watch("u");
    EXPECT_EQ(on(1).ask("subscribe u 2 " + node_[2] + " " + node_[2] + " 0xffffffff 1 link"), "28");
    EXPECT_EQ(on(1).ask("subscribe t 0 " + node_[2] + " " + node_[2] + " 0xffffffff 2 node"), "28");
    expect_event("published", 2, "id:0:" + node_[2]);
    answer link = on(1).get("event u wait=10000");
    EXPECT_EQ(link.head, "published");
    cut_ = true;
    cut_between(1, 2);
    expect_event("withdrawn", 2, "id:0:" + node_[2]);
    answer gone = on(1).get("event u wait=20000");
    EXPECT_EQ(gone.head, "withdrawn");
    EXPECT_EQ(gone.of["found"], link.of["found"]);
    EXPECT_EQ(gone.of["port"], link.of["port"]);
    heal_between(1, 2);
    cut_ = false;
    expect_event("published", 2, "id:0:" + node_[2]);
    EXPECT_EQ(on(1).get("event u wait=20000").head, "published");
    expect_quiet();
    expect_quiet("u");
}

TEST_F(topology_nodes, the_service_has_a_name_itself)
{
    EXPECT_EQ(on(1).ask(all_of("1", PORTS)), "28");
    answer got = on(1).get("event t wait=10000");
    EXPECT_EQ(got.head, "published");
    EXPECT_EQ(got.of["found"], "1:1");
    EXPECT_EQ(got.of["port"].substr(got.of["port"].rfind(':') + 1), node_[1]);
    expect_quiet();
}

TEST_F(topology_nodes, other_bits_of_the_filter)
{
    on(1).open_receiver("r", name(5));
    EXPECT_EQ(on(1).ask(subscribe(5, 5, "0", "nothing")), "28");
    expect_quiet();
    for (const char *filter : {"10", "17"}) { // 8 and 16 mean nothing
        EXPECT_EQ(on(1).ask(subscribe(5, 5, filter)), "28");
        answer got = on(1).get("event t wait=10000");
        EXPECT_EQ(got.head, "published");
        EXPECT_EQ(got.of["filter"], filter) << "as it was asked";
    }
}

TEST_F(topology_nodes, a_request_in_network_byte_order_is_answered_in_it)
{
    EXPECT_EQ(on(1).ask(subscribe(1, 9, SERVICE) + " net"), "28");
    on(1).open_receiver("r", name(5));
    std::string id = on(1).ask("name r");
    for (const char *kind : {"published", "withdrawn"}) {
        answer got = on(1).get("event t wait=10000 net");
        EXPECT_EQ(got.head, kind);
        EXPECT_EQ(got.of["found"], "5:5");
        EXPECT_EQ(got.of["port"], id);
        EXPECT_EQ(got.of["asked"], type() + ":1:9");
        EXPECT_EQ(got.of["timeout"], "4294967295");
        EXPECT_EQ(got.of["filter"], SERVICE);
        EXPECT_EQ(got.of["handle"], "watch");
        if (got.head == "published")
            on(1).ok("close r");
    }
}

TEST_F(topology_nodes, both_byte_orders_on_one_connection)
{
    EXPECT_EQ(on(1).ask(subscribe(5, 5, SERVICE, "big") + " net"), "28");
    EXPECT_EQ(on(1).ask(subscribe(6, 6, SERVICE, "own")), "28");
    on(1).open_receiver("r", name(5));
    EXPECT_EQ(on(1).get("event t wait=10000 net").of["handle"], "big");
    on(1).ok("bind r " + name(6) + " 2");
    answer got = on(1).get("event t wait=10000");
    EXPECT_EQ(got.head, "published");
    EXPECT_EQ(got.of["handle"], "own");
    EXPECT_EQ(on(1).ask(subscribe(5, 5, CANCEL_SERVICE, "big") + " net"), "28");
    expect_quiet();
    on(1).ok("close r");
    EXPECT_EQ(on(1).get("event t wait=10000").of["handle"], "own") << "the other was cancelled";
    expect_quiet();
}

TEST_F(topology_nodes, a_time_out_in_network_byte_order)
{
    EXPECT_EQ(on(1).ask("subscribe t " + type() + " 3 8 20 2 short net"), "28");
    answer got = on(1).get("event t wait=10000 net");
    EXPECT_EQ(got.head, "timeout");
    EXPECT_EQ(got.of["asked"], type() + ":3:8");
    EXPECT_EQ(got.of["timeout"], "20");
    EXPECT_EQ(got.of["handle"], "short");
}

TEST_F(topology_nodes, the_ports_filter_tells_ranges_whole)
{
    EXPECT_EQ(on(1).ask(subscribe(10, 20, PORTS)), "28");
    expect_quiet();
    on(1).open_receiver("r", range(5, 12));
    on(1).ok("bind r " + range(18, 30) + " 2");
    on(1).ok("bind r " + range(0, 99) + " 2");
    on(1).ok("bind r " + range(30, 40) + " 2");
    std::string id = on(1).ask("name r");
    for (const char *found : {"5:12", "18:30", "0:99"}) {
        answer got = on(1).get("event t wait=10000");
        EXPECT_EQ(got.head, "published");
        EXPECT_EQ(got.of["found"], found);
        EXPECT_EQ(got.of["port"], id);
    }
    expect_quiet();
    on(1).ok("close r");
    std::set<std::string> gone;
    for (int i = 0; i < 3; i++) {
        answer got = on(1).get("event t wait=10000");
        EXPECT_EQ(got.head, "withdrawn");
        gone.insert(got.of["found"]);
    }
    EXPECT_EQ(gone, (std::set<std::string>{"5:12", "18:30", "0:99"}));
    expect_quiet();
}

TEST_F(topology_nodes, a_stream_socket_may_ask)
{
    on(1).ok("open u stream");
    on(1).ok("connect u name:1:1");
    EXPECT_EQ(on(1).get("peer u").of["len"], "16");
    on(1).open_receiver("r", name(5));
    EXPECT_EQ(on(1).ask("subscribe u " + type() + " 5 5 0xffffffff 2 handle"), "28");
    EXPECT_EQ(on(1).get("event u wait=10000").head, "published");
}

TEST_F(topology_nodes, without_waiting_the_connection_is_in_progress_first)
{
    for (const char *kind : {"stream", "seqpacket"}) {
        on(1).ok(std::string("open u ") + kind);
        on(1).ok("nonblock u 1");
        EXPECT_EQ(on(1).ask("connect u name:1:1"), "EINPROGRESS");
        EXPECT_EQ(on(1).ask("poll u out wait=10000"), "out");
        EXPECT_EQ(on(1).ask("connect u name:1:1"), "EISCONN");
        on(1).ok("close u");
    }
}

TEST_F(topology_nodes, the_first_request_may_connect)
{
    on(1).open_receiver("r", name(5));
    on(1).ok("open u seqpacket");
    EXPECT_EQ(on(1).ask("subscribe u " + type() + " 5 5 0xffffffff 2 first to=name:1:1"), "28");
    EXPECT_EQ(on(1).get("event u wait=10000").of["handle"], "first");
    EXPECT_EQ(on(1).ask("subscribe u " + type() + " 5 5 0xffffffff 1 second"), "28");
    EXPECT_EQ(on(1).get("event u wait=10000").of["handle"], "second");
}

TEST_F(topology_nodes, the_service_of_another_node_may_be_asked)
{
    on(2).open_receiver("r", name(5), "3");
    on(1).ok("open u seqpacket");
    on(1).ok("connect u name:1:1:" + node_[2]);
    EXPECT_EQ(on(1).ask("subscribe u " + type() + " 5 5 0xffffffff 2 there"), "28");
    answer got = on(1).get("event u wait=10000");
    EXPECT_EQ(got.head, "published") << "a name that node 2 alone knows";
    EXPECT_EQ(got.of["port"], on(2).ask("name r"));
}
