// Copies of a socket's descriptor, pairs, and what comes by fork, exec and Unix sockets.
#include "conformance.h"

class descriptors : public tipc
{
  protected:
    void SetUp() override
    {
        tipc::SetUp();
        on(1).open_receiver("r", name(1));
        on(1).open_sender("s");
    }
    void send(long num)
    {
        EXPECT_EQ(on(1).ask("send s " + name(1) + " " + std::to_string(num) + " 10"), "10");
    }
};

TEST_F(descriptors, copies_are_one_socket)
{
    std::string id = on(1).ask("name r");
    on(1).ok("dup r d");
    on(1).ok("dup r f fcntl");
    EXPECT_EQ(on(1).ask("name d"), id);
    EXPECT_EQ(on(1).ask("name f"), id);
    for (const char *socket : {"f", "r", "d"}) {
        send(5);
        EXPECT_EQ(on(1).ask(std::string("poll ") + socket + " in wait=10000"), "in");
        EXPECT_EQ(on(1).get(std::string("recv ") + socket).num("num"), 5);
        EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
    }
    on(1).ok("bind d " + name(2) + " 2");
    on(1).ok("close r");
    on(1).ok("close d");
    send(6);
    EXPECT_EQ(on(1).get("recv f wait=10000").num("num"), 6);
    on(1).ok("close f");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 7 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("send s " + name(2) + " 7 10"), "EHOSTUNREACH");
}

TEST_F(descriptors, flags_belong_to_all_copies)
{
    EXPECT_EQ(on(1).ask("flags r"), "rdwr");
    on(1).ok("dup r d");
    on(1).ok("nonblock d 1");
    EXPECT_EQ(on(1).ask("flags r"), "rdwr nonblock");
    EXPECT_EQ(on(1).ask("recv r block"), "EAGAIN");
}

TEST_F(descriptors, a_child_has_the_socket_however_it_comes_by_it)
{
    for (const char *how : {"fork", "exec", "rights"}) {
        send(5);
        EXPECT_EQ(on(1).ask(std::string("child r ") + how), "10 num=5 data=intact") << how;
        EXPECT_EQ(on(1).ask("recv r"), "EAGAIN") << "the child took it";
        send(6);
        EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 6) << "its end took nothing else";
    }
}

TEST_F(descriptors, a_socket_on_its_way_to_another_process_lives)
{
    std::string id = on(1).ask("name r");
    on(1).ok("launch r");
    send(5);
    send(6);
    on(1).ok("land t");
    EXPECT_EQ(on(1).ask("name t"), id);
    EXPECT_EQ(on(1).get("recv t wait=10000").num("num"), 5);
    on(1).ok("close t");
    EXPECT_EQ(on(1).get("recv s wait=10000").num("retnum"), 6);
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 7 10"), "EHOSTUNREACH");
}

TEST_F(descriptors, however_it_is_closed_the_socket_ends_and_its_number_is_free)
{
    for (const char *how : {"range", "dup2", "stream"}) {
        on(1).open_receiver("x", name(5));
        EXPECT_EQ(on(1).ask(std::string("release x ") + how), "10") << "the other file is read";
        EXPECT_EQ(on(1).ask("send s " + name(5) + " 5 10"), "EHOSTUNREACH") << how;
    }
}

TEST_F(descriptors, a_pair_of_connections)
{
    for (const char *kind : {"stream", "seqpacket"}) {
        EXPECT_EQ(on(1).ask(std::string("pair p q ") + kind + " protocol=1"), "EPROTONOSUPPORT");
        on(1).ok(std::string("pair p q ") + kind);
        EXPECT_EQ(on(1).ask("poll p all"), "out");
        EXPECT_EQ(on(1).ask("poll q all"), "out");
        EXPECT_EQ(on(1).ask("peer p"), on(1).ask("name q") + " len=16");
        EXPECT_EQ(on(1).ask("peer q"), on(1).ask("name p") + " len=16");
        EXPECT_EQ(on(1).ask("send p none 5 10"), "10");
        EXPECT_EQ(on(1).ask("send q none 6 10"), "10");
        answer got = on(1).get("recv q wait=10000");
        EXPECT_EQ(got.num("num"), 5);
        EXPECT_EQ(got.of["from"], on(1).ask("name p"));
        EXPECT_FALSE(got.has("dest")) << "no name was connected to";
        EXPECT_EQ(on(1).get("recv p wait=10000").num("num"), 6);
        on(1).ok("close q");
        EXPECT_EQ(on(1).ask("poll p hup wait=10000"), "hup");
        EXPECT_EQ(on(1).get("recv p").of["err"], "2");
        EXPECT_EQ(on(1).ask("send p none 5 10"), "EPIPE");
        on(1).ok("close p");
    }
}

TEST_F(descriptors, a_pair_of_datagram_sockets_is_connected_both_ways)
{
    for (const char *kind : {"rdm", "dgram"}) {
        EXPECT_EQ(on(1).ask(std::string("pair p q ") + kind + " protocol=1"), "EPROTONOSUPPORT");
        on(1).ok(std::string("pair p q ") + kind);
        EXPECT_EQ(on(1).ask("poll p all"), "out");
        EXPECT_EQ(on(1).ask("send p none 5 10"), "10");
        EXPECT_EQ(on(1).ask("send q none 6 10"), "10");
        EXPECT_EQ(on(1).get("recv q wait=10000").num("num"), 5);
        EXPECT_EQ(on(1).get("recv p wait=10000").num("num"), 6);
        EXPECT_EQ(on(1).ask("send p " + name(1) + " 7 10"), "10");
        EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 7);
        on(1).ok("close q");
        EXPECT_EQ(on(1).ask("poll p all"), "out");
        EXPECT_EQ(on(1).ask("send p none 5 10"), "10") << "nobody gets it";
        EXPECT_EQ(on(1).ask("recv p"), "EAGAIN");
        on(1).ok("close p");
    }
}
