// Messages to a range of names: each socket that has bound any name of the range gets one.
#include "conformance.h"

class multicast : public tipc
{
  protected:
    // Node 1: "a" has name 1, "b" has 2 and 3, "w" has 3 to 9. Node 2: "r" has 2 and 50. Node 3: "r" has 5, for its own
    // node alone, and 51.
    void SetUp() override
    {
        tipc::SetUp();
        on(1).open_receiver("a", name(1));
        on(1).open_receiver("b", name(2));
        on(1).ok("bind b " + name(3) + " 2");
        on(1).open_receiver("w", range(3, 9));
        on(2).open_receiver("r", name(2));
        on(2).ok("bind r " + name(50) + " 2");
        on(3).open_receiver("r", name(5), "3");
        on(3).ok("bind r " + name(51) + " 2");
        for (int node : {1, 2, 3}) {
            on(node).ok(await(9)); // bound after the others of its node
            on(node).ok(await(50));
            on(node).ok(await(51));
            on(node).open_sender("s");
        }
    }
    // After a multicast with number `num`: exactly these sockets have it, once. They are "a", "b", "w", "2" and "3".
    void expect_at(const std::set<std::string> &them, long num)
    {
        for (const char *one : {"a", "b", "w", "2", "3"}) {
            std::string socket = one;
            int node = isdigit(socket[0]) ? socket[0] - '0' : 1;
            socket = node == 1 ? socket : "r";
            // A message from each node, which is sent later and arrives later, shows that none is on its way.
            for (int from : {1, 2, 3})
                EXPECT_EQ(on(from).ask("send s " + on(node).ask("name " + socket) + " 9000 10"), "10");
            long count = 0;
            for (int fences = 0; fences < 3;) {
                answer got = on(node).get("recv " + socket + " wait=10000");
                ASSERT_NE(got.head, "nothing");
                fences += got.num("num") == 9000;
                count += got.num("num") == num;
            }
            EXPECT_EQ(count, them.count(one)) << one;
        }
    }
    void send(int node, unsigned lower, unsigned upper, long num, const std::string &socket = "s")
    {
        EXPECT_EQ(on(node).ask("send " + socket + " " + range(lower, upper) + " " + std::to_string(num) + " 10"), "10");
    }
};

TEST_F(multicast, reaches_each_socket_of_the_range_once_on_every_node)
{
    for (int node : {1, 2, 3}) {
        send(node, 0, 100, node);
        expect_at({"a", "b", "w", "2", "3"}, node);
    }
}

TEST_F(multicast, reaches_no_socket_beside_the_range)
{
    send(1, 1, 1, 11);
    expect_at({"a"}, 11);
    send(1, 2, 3, 12);
    expect_at({"b", "w", "2"}, 12);
    send(1, 8, 60, 13);
    expect_at({"w", "2", "3"}, 13);
    send(2, 9, 9, 14);
    expect_at({"w"}, 14);
}

TEST_F(multicast, a_name_for_one_node_is_no_reason_to_send_to_that_node)
{
    send(1, 5, 5, 21);
    expect_at({"w"}, 21);
    send(3, 5, 5, 22);
    expect_at({"w", "3"}, 22);
}

TEST_F(multicast, the_scope_of_the_address_is_not_looked_at)
{
    for (const char *scope : {"1", "2", "3"}) {
        long num = 40 + *scope;
        EXPECT_EQ(on(1).ask("send s " + range(0, 100) + " " + std::to_string(num) + " 10 scope=" + scope), "10");
        expect_at({"a", "b", "w", "2", "3"}, num);
    }
}

TEST_F(multicast, the_sender_gets_its_own)
{
    send(1, 1, 2, 31, "a");
    expect_at({"a", "b", "2"}, 31);
}

TEST_F(multicast, to_nobody_fails)
{
    EXPECT_EQ(on(1).ask("send s " + range(10, 20) + " 1 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("send s " + range(10, 20) + " 1 0"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("send s range:19999:0:100 1 10"), "EHOSTUNREACH") << "another type";
    EXPECT_EQ(on(1).ask("send s " + range(9, 5) + " 1 10"), "EINVAL") << "lower above upper";
}

TEST_F(multicast, the_message_says_to_which_range_it_was_sent)
{
    std::string sender = on(1).ask("name s");
    send(1, 1, 2, 41);
    answer got = on(1).get("recv a wait=10000");
    EXPECT_EQ(got.of["dest"], type() + ":1:2");
    EXPECT_EQ(got.of["from"], sender);
    got = on(2).get("recv r wait=10000");
    EXPECT_EQ(got.of["dest"], type() + ":1:2");
    EXPECT_EQ(got.of["from"], sender);
}

TEST_F(multicast, the_largest_message_has_66000_bytes)
{
    EXPECT_EQ(on(1).ask("send s " + range(0, 100) + " 1 66001"), "EMSGSIZE");
    EXPECT_EQ(on(1).ask("send s " + range(0, 100) + " 2 66000"), "66000");
    for (int node : {1, 2, 3}) {
        answer got = on(node).get(std::string("recv ") + (node == 1 ? "a" : "r") + " wait=10000");
        EXPECT_EQ(got.head, "66000");
        EXPECT_EQ(got.num("num"), 2);
        EXPECT_EQ(got.of["data"], "intact");
    }
}

TEST_F(multicast, an_empty_message_wakes_and_gives_nothing)
{
    EXPECT_EQ(on(1).ask("send s " + range(0, 100) + " 0 0"), "0");
    EXPECT_EQ(on(1).ask("poll a in wait=10000"), "in");
    EXPECT_EQ(on(2).ask("poll r in wait=10000"), "in");
    EXPECT_EQ(on(1).ask("recv a"), "EAGAIN");
    EXPECT_EQ(on(2).ask("recv r"), "EAGAIN");
}

TEST_F(multicast, messages_arrive_in_order)
{
    EXPECT_EQ(on(1).ask("send s " + range(1, 2) + " 100 200 count=300"), "300 200");
    for (int node : {1, 2}) {
        answer got = on(node).get(std::string("drain ") + (node == 1 ? "a" : "r") + " until=300");
        EXPECT_EQ(got.head, "300");
        EXPECT_EQ(got.num("first"), 100);
        EXPECT_EQ(got.num("bad"), 0);
    }
}

TEST_F(multicast, what_a_socket_of_the_own_node_has_not_read_comes_back)
{
    send(1, 1, 2, 51);
    std::string id = on(1).ask("name a");
    EXPECT_EQ(on(2).ask("poll r in wait=10000"), "in");
    on(1).ok("close a");
    answer got = on(1).get("recv s wait=10000");
    EXPECT_EQ(got.head, "0");
    EXPECT_EQ(got.of["err"], "2");
    EXPECT_EQ(got.num("retnum"), 51);
    EXPECT_EQ(got.of["dest"], type() + ":1:2");
    EXPECT_EQ(got.of["from"], id);
    on(1).ok("close b");
    EXPECT_EQ(on(1).get("recv s wait=10000").num("retnum"), 51) << "for each socket";
}

TEST_F(multicast, a_full_socket_of_the_own_node_gives_it_back)
{
    EXPECT_EQ(on(1).ask("send s " + range(1, 1) + " 0 66000 count=40"), "40 66000");
    answer got = on(1).get("drain a");
    long kept = strtol(got.head.c_str(), nullptr, 10);
    EXPECT_GT(kept, 5);
    EXPECT_LT(kept, 40);
    EXPECT_EQ(got.num("first"), 0);
    got = on(1).get("drain s until=" + std::to_string(40 - kept));
    EXPECT_EQ(got.head, "0");
    EXPECT_EQ(got.num("back"), 40 - kept);
    EXPECT_EQ(got.of["err"], "4") << "overload";
    on(1).ok(std::string("opt s tipc ") + IMPORTANCE + " 3");
    EXPECT_EQ(on(1).ask("send s " + range(1, 1) + " 0 66000 count=40"), "40 66000");
    EXPECT_EQ(on(1).get("drain a until=40").head, "40") << "important ones find room";
}

TEST_F(multicast, connections_do_not_take_part)
{
    on(1).ok("open l seqpacket");
    on(1).ok("bind l " + name(70) + " 2");
    on(1).ok("listen l 1");
    send(1, 70, 70, 61);
    EXPECT_EQ(on(1).get("recv s wait=10000").num("retnum"), 61);
    EXPECT_EQ(on(1).ask("poll l all"), "none");
}

TEST_F(multicast, both_ways_to_send_it_reach_the_same)
{
    const std::string broadcast = "133", replicast = "134";
    long num = 70;
    for (const std::string &option : {broadcast, replicast}) {
        EXPECT_EQ(on(1).ask("opt s tipc " + option + " null len=0"), "0");
        send(1, 0, 100, ++num);
        expect_at({"a", "b", "w", "2", "3"}, num);
    }
}
