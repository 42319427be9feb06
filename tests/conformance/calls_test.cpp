// Calls on datagram sockets that other tests do not make, and what they do with odd arguments.
#include "conformance.h"

class calls : public tipc
{
  protected:
    // "r" has name 1. "s" is connected to it.
    void SetUp() override
    {
        tipc::SetUp();
        on(1).open_receiver("r", name(1));
        on(1).open_sender("s");
        EXPECT_EQ(on(1).ask("connect s " + name(1)), "0");
    }
    void send(long num)
    {
        EXPECT_EQ(on(1).ask("send s none " + std::to_string(num) + " 10"), "10");
    }
    void expect_next(long num)
    {
        EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), num);
    }
    void expect_none()
    {
        EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
    }
};

TEST_F(calls, the_pieces_of_a_vector_are_one_message)
{
    EXPECT_EQ(on(1).ask("writev s 5 1000 7"), "1000");
    EXPECT_EQ(on(1).ask("readv r 1 99 500 4000"), "1000 num=5 data=intact");
    EXPECT_EQ(on(1).ask("writev s 6 10 1"), "10");
    EXPECT_EQ(on(1).ask("readv r 3 3"), "6 num=6 data=intact");
    expect_none();
    on(1).ok("nonblock r 1");
    EXPECT_EQ(on(1).ask("readv r 10"), "EAGAIN");
    EXPECT_EQ(on(1).ask("writev r 6 10 2"), "EDESTADDRREQ");
}

TEST_F(calls, without_bytes)
{
    EXPECT_EQ(on(1).ask("zero r read"), "0") << "nothing is there, and nothing waits";
    send(5);
    EXPECT_EQ(on(1).ask("zero r read"), "0");
    EXPECT_EQ(on(1).ask("zero r readv"), "0");
    EXPECT_EQ(on(1).ask("zero r recv"), "EINVAL");
    expect_next(5);
    EXPECT_EQ(on(1).ask("zero s writev"), "0");
    EXPECT_EQ(on(1).ask("poll r all"), "out") << "no piece, no message";
    EXPECT_EQ(on(1).ask("zero s write"), "0");
    EXPECT_EQ(on(1).ask("poll r in wait=10000"), "in") << "an empty message";
    expect_none();
}

TEST_F(calls, many_messages_in_one_call)
{
    EXPECT_EQ(on(1).ask("sendmmsg s " + name(1) + " 20 4"), "4 len=10 len=11 len=12 len=13");
    answer got = on(1).get("recvmmsg r 6");
    EXPECT_EQ(got.head, "4");
    EXPECT_EQ(got.of["len"], "10,11,12,13");
    EXPECT_EQ(got.of["num"], "20,21,22,23");
    EXPECT_EQ(got.of["data"], "intact,intact,intact,intact");
    std::string id = on(1).ask("name s");
    EXPECT_EQ(got.of["from"], id + "," + id + "," + id + "," + id);
    EXPECT_EQ(got.of["fromlen"], "16,16,16,16");
    EXPECT_EQ(on(1).ask("recvmmsg r 6"), "EAGAIN");
}

TEST_F(calls, the_first_of_many_that_fails_ends_the_call)
{
    EXPECT_EQ(on(1).ask("sendmmsg s " + name(1) + " 20 4 bad=2 " + name(99)), "2 len=10 len=11");
    EXPECT_EQ(on(1).get("recvmmsg r 6").of["num"], "20,21");
    EXPECT_EQ(on(1).ask("sendmmsg s " + name(1) + " 20 4 bad=0 " + name(99)), "EHOSTUNREACH");
    expect_none();
}

TEST_F(calls, a_bad_pointer_to_send)
{
    for (const char *call : {"data", "sendto", "sendmsg"})
        EXPECT_EQ(on(1).ask(std::string("fault s ") + call + " " + name(1)), "EFAULT") << call;
    expect_none();
}

TEST_F(calls, a_bad_pointer_for_the_data_leaves_the_message)
{
    send(5);
    EXPECT_EQ(on(1).ask("fault r recv none"), "EFAULT");
    EXPECT_EQ(on(1).ask("fault r recvmsg none"), "EFAULT");
    expect_next(5);
    expect_none();
}

TEST_F(calls, memory_that_is_not_to_change_stays_as_it_was)
{
    EXPECT_EQ(on(1).ask("fresh r recv"), "EAGAIN changed=0");
    send(5);
    EXPECT_EQ(on(1).get("fresh r recvfrom").of["fromlen"], "16");
    send(5);
    EXPECT_EQ(on(1).get("fresh r recvfrom").of["changed"], "0");
    EXPECT_EQ(on(1).ask("fresh r nodeid"), "0 changed=0");
    expect_none();
}

TEST_F(calls, a_bad_pointer_for_the_address_loses_the_message)
{
    for (const char *call : {"recvfrom", "recvfrom_len"}) {
        send(5);
        EXPECT_EQ(on(1).ask(std::string("fault r ") + call + " none"), "EFAULT") << call;
        expect_none();
    }
}

TEST_F(calls, the_length_of_the_address_sent_to)
{
    on(1).open_sender("u");
    EXPECT_EQ(on(1).ask("send u " + name(1) + " 5 10 len=17"), "10");
    EXPECT_EQ(on(1).ask("send u " + name(1) + " 6 10 len=128"), "10");
    EXPECT_EQ(on(1).ask("send u " + name(1) + " 7 10 len=129"), "EINVAL");
    EXPECT_EQ(on(1).ask("send u " + name(1) + " 8 10 len=0"), "EINVAL") << "an address of no length is not none";
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 8 10 len=0"), "EINVAL");
    EXPECT_EQ(on(1).ask("send s none 9 10 len=16"), "10") << "a length without an address is";
    for (long num : {5, 6, 9})
        expect_next(num);
    expect_none();
}

TEST_F(calls, addresses_of_no_socket)
{
    std::string id = on(1).ask("name r");
    std::string node = id.substr(id.rfind(':'));
    EXPECT_EQ(on(1).ask("send s id:1:4660 5 10"), "EHOSTUNREACH") << "no such node";
    EXPECT_EQ(on(1).ask("send s " + id.substr(0, id.rfind(':')) + ":0 6 10"), "10") << "node 0 is the own one";
    expect_next(6);
    EXPECT_EQ(on(1).ask("send s id:1" + node + " 7 10"), "10") << "no such socket";
    answer got = on(1).get("recv s wait=10000");
    EXPECT_EQ(got.of["err"], "2");
    EXPECT_EQ(got.num("retnum"), 7);
    EXPECT_EQ(got.of["from"], "id:1" + node);
    EXPECT_EQ(on(1).ask("send s name:5:1 8 10"), "EHOSTUNREACH") << "a reserved type";
    EXPECT_EQ(on(1).ask("send s raw:30:0:" + type() + ":1 8 10"), "EINVAL");
    EXPECT_EQ(on(1).ask("send s raw:30:4:" + type() + ":1 8 10"), "EINVAL");
    EXPECT_EQ(on(1).ask("send s raw:0:2:" + type() + ":1 8 10"), "EINVAL");
}

TEST_F(calls, success_leaves_errno_alone)
{
    EXPECT_EQ(on(1).ask("errno r " + name(1)), "0");
}

TEST_F(calls, a_signal_ends_a_wait_unless_it_is_to_restart)
{
    EXPECT_EQ(on(1).get("interrupted r recv plain none none").head, "EINTR");
    EXPECT_EQ(on(1).ask("interrupted r recv restart s " + name(1)), "4 signals=many");
    EXPECT_EQ(on(1).ask("timeout r receive 5000"), "5000 16");
    EXPECT_EQ(on(1).get("interrupted r recv restart none none").head, "EINTR") << "with a time-out it never restarts";
}

TEST_F(calls, a_time_out_for_reading)
{
    EXPECT_EQ(on(1).ask("timeout r receive 40"), "40 16");
    EXPECT_EQ(on(1).ask("recv r block"), "EAGAIN");
    send(5);
    EXPECT_EQ(on(1).get("recv r block").num("num"), 5);
}

TEST_F(calls, edge_triggered_epoll_tells_of_every_message)
{
    on(1).ok("epoll r et");
    EXPECT_EQ(on(1).ask("events wait=10000"), "out") << "at first what there is";
    EXPECT_EQ(on(1).ask("events"), "none");
    send(5);
    EXPECT_EQ(on(1).ask("events wait=10000"), "in out");
    EXPECT_EQ(on(1).ask("events"), "none");
    send(6);
    EXPECT_EQ(on(1).ask("events wait=10000"), "in out") << "though the first is unread";
    expect_next(5);
    EXPECT_EQ(on(1).ask("events"), "none") << "reading is no event";
    expect_next(6);
    EXPECT_EQ(on(1).ask("events"), "none");
    EXPECT_EQ(on(1).ask("zero s write"), "0");
    EXPECT_EQ(on(1).ask("events wait=10000"), "in out") << "an empty one too";
}

TEST_F(calls, level_triggered_and_oneshot_epoll)
{
    on(1).ok("epoll r in");
    EXPECT_EQ(on(1).ask("events"), "none");
    send(5);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(on(1).ask("events wait=10000"), "in");
    expect_next(5);
    EXPECT_EQ(on(1).ask("events"), "none");
    on(1).ok("epoll r in oneshot");
    send(6);
    EXPECT_EQ(on(1).ask("events wait=10000"), "in");
    EXPECT_EQ(on(1).ask("events"), "none");
}

TEST_F(calls, epoll_on_connections)
{
    for (const char *kind : {"stream", "seqpacket"}) {
        on(1).ok(std::string("open l ") + kind);
        on(1).ok("listen l 5");
        on(1).ok("epoll l et");
        EXPECT_EQ(on(1).ask("events"), "none");
        std::string id = on(1).ask("name l");
        for (const char *socket : {"c", "d"}) {
            on(1).ok(std::string("open ") + socket + " " + kind);
            on(1).ok(std::string("nonblock ") + socket + " 1");
            EXPECT_EQ(on(1).ask(std::string("connect ") + socket + " " + id), "EINPROGRESS");
            EXPECT_EQ(on(1).ask("events wait=10000"), "in") << "though one waits already";
        }
        EXPECT_EQ(on(1).get("accept l a").head, "0");
        on(1).ok("epoll a et");
        EXPECT_EQ(on(1).ask("events wait=10000"), "out");
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(on(1).ask("send c none 1 10"), "10");
            EXPECT_EQ(on(1).ask("events wait=10000"), "in out");
        }
        on(1).ok("close c");
        EXPECT_EQ(on(1).ask("events wait=10000"), "in hup");
        EXPECT_EQ(on(1).ask("events"), "none");
        for (const char *socket : {"l", "a", "d"})
            on(1).ok(std::string("close ") + socket);
    }
}

TEST_F(calls, epoll_tells_a_blocked_sender_that_it_may_go_on)
{
    on(1).ok("open l seqpacket");
    on(1).ok("listen l 5");
    on(1).ok("open c seqpacket");
    on(1).ok("nonblock c 1");
    EXPECT_EQ(on(1).ask("connect c " + on(1).ask("name l")), "EINPROGRESS");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    EXPECT_EQ(on(1).ask("send c none 0 64 count=5000 dontwait"), "129 EAGAIN");
    on(1).ok("epoll c et");
    EXPECT_EQ(on(1).ask("events"), "none");
    EXPECT_EQ(on(1).get("drain a until=129").head, "129");
    EXPECT_EQ(on(1).ask("events wait=10000"), "out");
}

TEST_F(calls, ioctl_tells_nodes_and_links)
{
    const std::string siocgetlinkname = "35296", fionread = "21531", siocoutq = "21521", tcgets = "21505";
    std::string node[4];
    for (int n : {1, 2, 3}) {
        on(n).ok("open x rdm");
        std::string id = on(n).ask("name x");
        node[n] = id.substr(id.rfind(':') + 1);
    }
    std::set<std::string> ids;
    for (int n : {1, 2, 3}) {
        answer got = on(1).get("nodeid r " + node[n]);
        EXPECT_EQ(got.head, "0");
        EXPECT_FALSE(got.of["id"].empty());
        ids.insert(got.of["id"]);
        EXPECT_EQ(on(2).get("nodeid x " + node[n]).of["id"], got.of["id"]) << "the same on every node";
    }
    EXPECT_EQ(ids.size(), 3U);
    EXPECT_EQ(on(1).ask("nodeid r 0"), "EADDRNOTAVAIL");
    EXPECT_EQ(on(1).ask("nodeid r 12345"), "EADDRNOTAVAIL");
    EXPECT_EQ(on(1).ask("fault r nodeid none"), "EFAULT");

    int links = 0;
    for (const char *bearer : {"0", "1", "2"})
        links += on(1).get("linkname r " + node[2] + " " + bearer).head == "0";
    EXPECT_EQ(links, 1) << "one bearer leads there";
    EXPECT_EQ(on(1).ask("linkname r " + node[1] + " 0"), "EADDRNOTAVAIL") << "the own node";
    EXPECT_EQ(on(1).ask("linkname r 12345 0"), "EADDRNOTAVAIL");
    EXPECT_EQ(on(1).ask("linkname r " + node[2] + " 99"), "EADDRNOTAVAIL");
    EXPECT_EQ(on(1).ask("fault r linkname none"), "EFAULT");
    send(1);
    for (const std::string &request : {fionread, siocoutq, tcgets, std::string("4660")})
        EXPECT_EQ(on(1).ask("ioctl r " + request), "ENOTTY") << request;
}
