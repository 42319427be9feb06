// SOCK_DGRAM, and datagram sockets that are connected.
#include "conformance.h"

class datagram_kinds : public tipc, public testing::WithParamInterface<const char *>
{
  protected:
    std::string kind() const
    {
        return GetParam();
    }
    // "r" on node 1 has name 1, "q" there name 2. "c" on the node may send.
    void prepare(int node)
    {
        for (const char *socket : {"r", "q"}) {
            (void)on(1).ask(std::string("close ") + socket);
            on(1).ok(std::string("open ") + socket + " " + kind());
        }
        (void)on(node).ask("close c");
        on(1).ok("bind r " + name(1) + " 2");
        on(1).ok("bind q " + name(2) + " 2");
        on(node).ok(await(2));
        on(node).ok("open c " + kind());
    }
    void expect_arrives(const std::string &socket, long num)
    {
        answer got = on(1).get("recv " + socket + " wait=10000");
        EXPECT_EQ(got.num("num"), num) << socket << ": " << got.text;
        EXPECT_EQ(on(1).ask("recv " + socket), "EAGAIN");
    }
};
INSTANTIATE_TEST_SUITE_P(types, datagram_kinds, testing::Values("rdm", "dgram"));

TEST_P(datagram_kinds, a_fresh_socket)
{
    on(1).ok("open c " + kind());
    EXPECT_EQ(on(1).ask("poll c all"), "out");
    EXPECT_EQ(on(1).ask("send c none 1 10"), "EDESTADDRREQ");
    EXPECT_EQ(on(1).ask("recv c"), "EAGAIN");
    EXPECT_EQ(on(1).ask("peer c"), "ENOTCONN");
}

TEST_P(datagram_kinds, connect_sets_where_a_message_goes)
{
    for (int node : {1, 2}) {
        prepare(node);
        EXPECT_EQ(on(node).ask("connect c " + name(1)), "0");
        EXPECT_EQ(on(node).ask("poll c all"), "out");
        EXPECT_EQ(on(node).ask("peer c"), "ENOTCONN") << "it is no connection";
        EXPECT_EQ(on(node).ask("send c none 4 10"), "10");
        answer got = on(1).get("recv r wait=10000");
        EXPECT_EQ(got.num("num"), 4);
        EXPECT_EQ(got.of["dest"], type() + ":1:1");
        EXPECT_EQ(got.of["from"], on(node).ask("name c"));

        EXPECT_EQ(on(node).ask("send c " + name(2) + " 5 10"), "10") << "an address goes before it";
        expect_arrives("q", 5);
        EXPECT_EQ(on(node).ask("send c none 6 10"), "10") << "and changes nothing";
        expect_arrives("r", 6);
        EXPECT_EQ(on(node).ask("connect c " + name(2)), "0");
        EXPECT_EQ(on(node).ask("send c none 7 10"), "10");
        expect_arrives("q", 7);
        EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
    }
}

TEST_P(datagram_kinds, connect_to_no_family_undoes_it)
{
    prepare(1);
    EXPECT_EQ(on(1).ask("connect c " + name(1)), "0");
    EXPECT_EQ(on(1).ask("connect c raw:0:0:0:0:0 len=2"), "EINVAL") << "a whole address is wanted";
    EXPECT_EQ(on(1).ask("send c none 4 10"), "10");
    expect_arrives("r", 4);
    EXPECT_EQ(on(1).ask("connect c raw:0:0:0:0:0"), "0");
    EXPECT_EQ(on(1).ask("send c none 5 10"), "EDESTADDRREQ");
}

TEST_P(datagram_kinds, a_refused_connect_changes_nothing)
{
    prepare(1);
    EXPECT_EQ(on(1).ask("connect c " + name(1)), "0");
    EXPECT_EQ(on(1).ask("connect c " + name(2) + " len=8"), "EINVAL");
    EXPECT_EQ(on(1).ask("connect c " + name(2) + " len=15"), "EINVAL");
    EXPECT_EQ(on(1).ask("connect c none"), "EINVAL");
    EXPECT_EQ(on(1).ask("connect c raw:2:2:" + type() + ":2"), "EINVAL");
    EXPECT_EQ(on(1).ask("connect c raw:30:9:" + type() + ":2"), "EINVAL");
    EXPECT_EQ(on(1).ask("send c none 5 10"), "10");
    expect_arrives("r", 5);
}

TEST_P(datagram_kinds, nobody_need_be_there_to_connect)
{
    on(1).ok("open c " + kind());
    EXPECT_EQ(on(1).ask("connect c " + name(7)), "0");
    EXPECT_EQ(on(1).ask("send c none 1 10"), "EHOSTUNREACH");
    on(1).open_receiver("r", name(7));
    EXPECT_EQ(on(1).ask("send c none 2 10"), "10");
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 2);
}

TEST_P(datagram_kinds, connected_to_an_address)
{
    prepare(2);
    EXPECT_EQ(on(2).ask("connect c " + on(1).ask("name r")), "0");
    EXPECT_EQ(on(2).ask("send c none 2 10"), "10");
    answer got = on(1).get("recv r wait=10000");
    EXPECT_EQ(got.num("num"), 2);
    EXPECT_FALSE(got.has("dest"));
}

TEST_P(datagram_kinds, connected_to_a_range_every_message_is_a_multicast)
{
    prepare(2);
    EXPECT_EQ(on(2).ask("connect c " + range(1, 2)), "0");
    EXPECT_EQ(on(2).ask("send c none 2 10"), "10");
    expect_arrives("r", 2);
    expect_arrives("q", 2);
}

TEST_P(datagram_kinds, a_connected_socket_receives_from_all_and_may_have_names)
{
    prepare(1);
    EXPECT_EQ(on(1).ask("connect c " + name(1)), "0");
    EXPECT_EQ(on(1).ask("send q " + on(1).ask("name c") + " 5 10"), "10");
    EXPECT_EQ(on(1).get("recv c wait=10000").num("num"), 5);
    on(1).ok("bind c " + name(3) + " 2");
    EXPECT_EQ(on(1).ask("send q " + name(3) + " 6 10"), "10");
    EXPECT_EQ(on(1).get("recv c wait=10000").num("num"), 6);
}

TEST_P(datagram_kinds, a_connected_socket_gets_returned_messages)
{
    prepare(1);
    on(1).ok(std::string("opt c tipc ") + DEST_DROPPABLE + " 0");
    EXPECT_EQ(on(1).ask("connect c " + name(1)), "0");
    EXPECT_EQ(on(1).ask("send c none 5 10"), "10");
    on(1).ok("close r");
    answer got = on(1).get("recv c wait=10000");
    EXPECT_EQ(got.of["err"], "2");
    EXPECT_EQ(got.num("retnum"), 5);
    EXPECT_EQ(got.of["dest"], type() + ":1:1");
    EXPECT_EQ(on(1).ask("send c none 6 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("poll c all"), "out");
}

TEST_P(datagram_kinds, a_domain_chooses_the_node)
{
    prepare(2);
    on(2).ok("open mine " + kind());
    on(2).ok("bind mine " + name(1) + " 2");
    std::string own = on(2).ask("name mine");
    std::string other = on(1).ask("name r");
    own = own.substr(own.rfind(':'));
    other = other.substr(other.rfind(':'));
    EXPECT_EQ(on(2).ask("send c " + name(1) + own + " 0 10 count=10"), "10 10");
    EXPECT_EQ(on(2).get("drain mine until=10").head, "10");
    EXPECT_EQ(on(2).ask("send c " + name(1) + other + " 0 10 count=10"), "10 10");
    EXPECT_EQ(on(1).get("drain r until=10").head, "10");
    EXPECT_EQ(on(2).ask("recv mine"), "EAGAIN");
    EXPECT_EQ(on(2).ask("send c " + name(2) + own + " 1 10"), "EHOSTUNREACH") << "it is bound on node 1 alone";
    EXPECT_EQ(on(2).ask("send c " + name(2) + ":4660 1 10"), "EHOSTUNREACH") << "no such node";
    // Whether another node has the name is found out there.
    on(2).ok("bind mine " + name(3) + " 2");
    on(2).ok(std::string("opt c tipc ") + DEST_DROPPABLE + " 0");
    EXPECT_EQ(on(2).ask("send c " + name(3) + other + " 8 10"), "10");
    answer got = on(2).get("recv c wait=10000");
    EXPECT_EQ(got.of["err"], "1") << "no name";
    EXPECT_EQ(got.num("retnum"), 8);
    EXPECT_EQ(got.of["from"], "id:0" + other);
}

TEST_P(datagram_kinds, a_shared_name_goes_round_its_sockets)
{
    prepare(1);
    on(1).ok("bind q " + name(1) + " 2");
    on(2).ok("open far " + kind());
    on(2).ok("bind far " + name(1) + " 2");
    on(2).ok("bind far " + name(4) + " 2");
    on(1).ok(await(4));
    EXPECT_EQ(on(1).ask("send c " + name(1) + " 0 10 count=30"), "30 10");
    EXPECT_EQ(on(1).get("drain r until=10").head, "10");
    EXPECT_EQ(on(1).get("drain q until=10").head, "10");
    EXPECT_EQ(on(2).get("drain far until=10").head, "10") << "the own node has no preference";
}

TEST_P(datagram_kinds, one_kind_receives_from_the_other)
{
    on(1).open_receiver("r", name(1));
    on(1).ok("open d dgram");
    on(1).ok("bind d " + name(2) + " 2");
    on(1).ok("open c " + kind());
    for (const char *socket : {"r", "d"}) {
        EXPECT_EQ(on(1).ask("send c " + name(socket[0] == 'r' ? 1 : 2) + " 5 10"), "10");
        EXPECT_EQ(on(1).get(std::string("recv ") + socket + " wait=10000").num("num"), 5);
    }
}

class dgram : public tipc
{
};

TEST_F(dgram, first_values_of_its_options)
{
    on(1).ok("open s dgram");
    EXPECT_EQ(on(1).ask(std::string("opt s tipc ") + IMPORTANCE), "0 4");
    EXPECT_EQ(on(1).ask(std::string("opt s tipc ") + SRC_DROPPABLE), "1 4");
    EXPECT_EQ(on(1).ask(std::string("opt s tipc ") + DEST_DROPPABLE), "1 4");
    EXPECT_EQ(on(1).ask("opt s socket 3"), "2 4") << "SO_TYPE is SOCK_DGRAM";
}

TEST_F(dgram, what_is_not_droppable_at_its_destination_comes_back)
{
    on(1).open_receiver("r", name(1));
    on(1).ok("open s dgram");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 4 10"), "10");
    on(1).ok(std::string("opt s tipc ") + DEST_DROPPABLE + " 0");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 5 10"), "10");
    on(1).ok("close r");
    EXPECT_EQ(on(1).get("recv s wait=10000").num("retnum"), 5);
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
}
