// Connecting: to whom, how long it takes, and what the two sockets say meanwhile.
#include "connections.h"

class connects : public connections
{
};
INSTANTIATE_TEST_SUITE_P(types, connects, testing::Values("stream", "seqpacket"));

TEST_P(connects, a_fresh_socket_has_no_peer)
{
    on(1).ok("open c " + kind());
    EXPECT_EQ(on(1).ask("poll c all"), "out");
    EXPECT_EQ(on(1).ask("send c none 1 10"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("send c none 1 0"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("recv c"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("recv c block"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("peer c"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("accept c a"), "EINVAL");
    EXPECT_EQ(on(1).ask("shutdown c 2"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("poll c all"), "in out rdhup hup rdnorm") << "shutdown leaves its mark all the same";
}

TEST_P(connects, to_a_name_that_nobody_bound_fails_and_may_be_tried_again)
{
    for (int node : {1, 2}) {
        close_all(node);
        probe client(node);
        client.ok("open c " + kind());
        EXPECT_EQ(client.ask("connect c " + name(999)), "EHOSTUNREACH");
        EXPECT_EQ(client.ask("poll c all"), "out");
        EXPECT_EQ(client.ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "0 4");
        EXPECT_EQ(client.ask("send c none 1 10"), "ENOTCONN");
        listen_for(node);
        client.tell("connect c " + listener());
        EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
        EXPECT_NE(client.wait("done connect ").find("connect 0"), std::string::npos);
    }
}

TEST_P(connects, a_blocking_call_returns_when_the_other_accepts)
{
    listen_for(2);
    on(2).ok("open c " + kind());
    std::string id = on(2).ask("name c");
    on(2).tell("connect c " + listener());
    answer got = on(1).get("accept l a wait=10000");
    EXPECT_EQ(got.head, "0");
    EXPECT_EQ(got.of["from"], id);
    EXPECT_EQ(got.of["fromlen"], "16");
    EXPECT_EQ(got.of["nonblock"], "0");
    EXPECT_EQ(got.of["cloexec"], "0");
    EXPECT_NE(on(2).wait("done connect ").find("connect 0"), std::string::npos);
}

TEST_P(connects, what_a_socket_says_while_it_waits_to_be_accepted)
{
    for (int node : {1, 2}) {
        close_all(node);
        listen_for(node);
        EXPECT_EQ(on(1).ask("poll l all"), "none") << "a listener is never writable";
        begin(node);
        EXPECT_EQ(on(1).ask("poll l all"), "in rdnorm");
        EXPECT_EQ(on(node).ask("poll c all"), "none");
        EXPECT_EQ(on(node).ask("connect c " + listener()), "EALREADY");
        EXPECT_EQ(on(node).ask("connect c " + name(999)), "EALREADY") << "to another as well";
        EXPECT_EQ(on(node).ask("send c none 1 10"), "ENOTCONN");
        EXPECT_EQ(on(node).ask("recv c"), "EAGAIN");
        EXPECT_EQ(on(node).ask("peer c"), "ENOTCONN");
        EXPECT_EQ(on(node).ask("listen c 1"), "EINVAL");
        EXPECT_EQ(on(node).ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "0 4");

        EXPECT_EQ(on(1).get("accept l a").head, "0");
        EXPECT_EQ(on(node).ask("poll c out wait=10000"), "out");
        EXPECT_EQ(on(node).ask("poll c all"), "out");
        EXPECT_EQ(on(1).ask("poll a all"), "out");
        EXPECT_EQ(on(1).ask("poll l all"), "none");
        EXPECT_EQ(on(node).ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "0 4");
        EXPECT_EQ(on(node).ask("connect c " + listener()), "EISCONN");
        EXPECT_EQ(on(node).ask("send c none 7 10"), "10");
        EXPECT_EQ(on(1).get("recv a wait=10000").num("num"), 7);
    }
}

TEST_P(connects, to_a_socket_that_does_not_listen_is_refused)
{
    on(1).ok("open s " + kind());
    on(1).ok("bind s " + name(500) + " 2");
    std::string id = on(1).ask("name s");
    on(2).ok(await(500));
    for (int node : {1, 2}) {
        for (const std::string &to : {name(500), id}) {
            on(node).ok("open c " + kind());
            EXPECT_EQ(on(node).ask("connect c " + to), "ECONNREFUSED") << to;
            expect_end(node, "c", NO_PORT, id);
            on(node).ok("close c");
        }
    }
    on(1).ok("close s");
    on(1).ok("open c " + kind());
    EXPECT_EQ(on(1).ask("connect c " + id), "ECONNREFUSED") << "nobody has this address any more";
}

TEST_P(connects, a_refusal_is_told_by_so_error_once)
{
    on(1).ok("open s " + kind());
    on(1).ok("bind s " + name(500) + " 2");
    std::string id = on(1).ask("name s");
    on(2).ok(await(500));
    for (int node : {1, 2}) {
        on(node).ok("open c " + kind());
        on(node).ok("nonblock c 1");
        EXPECT_EQ(on(node).ask("connect c " + name(500)), "EINPROGRESS");
        EXPECT_EQ(on(node).ask("poll c hup wait=10000"), "hup");
        EXPECT_EQ(on(node).ask("poll c all"), "in hup rdnorm");
        EXPECT_EQ(on(node).ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "111 4") << "ECONNREFUSED";
        EXPECT_EQ(on(node).ask("connect c " + name(500)), "EINVAL");
        expect_end(node, "c", NO_PORT, id);
        on(node).ok("close c");
    }
}

TEST_P(connects, nobody_accepts_in_time)
{
    for (int node : {1, 2}) {
        close_all(node);
        listen_for(node);
        on(node).ok("open c " + kind());
        EXPECT_EQ(on(node).ask("opt c tipc " + std::string(CONN_TIMEOUT)), "8000 4") << "milliseconds";
        on(node).ok("opt c tipc " + std::string(CONN_TIMEOUT) + " 30");
        EXPECT_EQ(on(node).ask("connect c " + listener()), "ETIMEDOUT");
        EXPECT_EQ(on(node).ask("poll c all"), "none");
        EXPECT_EQ(on(node).ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "0 4");
        on(node).ok("nonblock c 1");
        EXPECT_EQ(on(node).ask("connect c " + listener()), "EALREADY") << "it is connecting still";
        EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
        EXPECT_EQ(on(node).ask("poll c out wait=10000"), "out");
        EXPECT_EQ(on(node).ask("connect c " + listener()), "EISCONN");
    }
}

TEST_P(connects, with_no_time_to_wait_it_is_in_progress)
{
    listen_for(1);
    on(1).ok("open c " + kind());
    on(1).ok("opt c tipc " + std::string(CONN_TIMEOUT) + " 0");
    EXPECT_EQ(on(1).ask("connect c " + listener()), "EINPROGRESS");
}

TEST_P(connects, a_signal_ends_the_wait)
{
    listen_for(1);
    on(1).ok("open c " + kind());
    EXPECT_EQ(on(1).get("interrupted c connect plain none " + listener()).head, "EINTR");
    on(1).ok("nonblock c 1");
    EXPECT_EQ(on(1).ask("connect c " + listener()), "EALREADY");
}

TEST_P(connects, to_a_datagram_socket_is_never_answered)
{
    on(1).open_receiver("r", name(700));
    on(1).ok("open c " + kind());
    on(1).ok("opt c tipc " + std::string(CONN_TIMEOUT) + " 30");
    EXPECT_EQ(on(1).ask("connect c " + name(700)), "ETIMEDOUT");
    EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
}

TEST_P(connects, the_number_given_to_listen_is_no_limit)
{
    for (const char *backlog : {"0", "1", "-1"}) {
        close_all(1);
        on(1).ok("open l " + kind());
        on(1).ok(std::string("listen l ") + backlog);
        std::string id = on(1).ask("name l"); // no name is needed
        for (int i = 0; i < 8; i++) {
            std::string socket = "c" + std::to_string(i);
            on(2).ok("open " + socket + " " + kind());
            on(2).ok("nonblock " + socket + " 1");
            EXPECT_EQ(on(2).ask("connect " + socket + " " + id), "EINPROGRESS");
        }
        for (int i = 0; i < 8; i++) {
            EXPECT_EQ(on(1).get("accept l a wait=10000").of["from"], on(2).ask("name c" + std::to_string(i)));
            EXPECT_EQ(on(2).ask("poll c" + std::to_string(i) + " out wait=10000"), "out");
            on(1).ok("close a");
            on(2).ok("close c" + std::to_string(i));
        }
    }
}

TEST_P(connects, accept_says_whether_somebody_waits)
{
    listen_for(1);
    on(1).ok("nonblock l 1");
    EXPECT_EQ(on(1).ask("accept l a"), "EAGAIN");
    on(1).ok("nonblock l 0");
    EXPECT_EQ(on(1).get("interrupted l accept plain none none").head, "EINTR");
    EXPECT_EQ(on(1).ask("timeout l receive 40"), "40 16");
    EXPECT_EQ(on(1).ask("accept l a"), "EAGAIN");
    begin(1);
    answer got = on(1).get("accept l a nonblock cloexec");
    EXPECT_EQ(got.of["nonblock"], "1");
    EXPECT_EQ(got.of["cloexec"], "1");
}

TEST_P(connects, a_client_that_has_gone_is_accepted_and_ends)
{
    for (int node : {1, 2}) {
        close_all(node);
        listen_for(node);
        begin(node);
        std::string id = on(node).ask("name c");
        on(node).ok("close c");
        EXPECT_EQ(on(1).ask("poll l in wait=10000"), "in");
        EXPECT_EQ(on(1).get("accept l a").head, "0");
        expect_end(1, "a", NO_PORT, id);
    }
}

TEST_P(connects, a_listener_that_closes_refuses_who_waits)
{
    for (int node : {1, 2}) {
        close_all(node);
        listen_for(node);
        begin(node);
        std::string id = on(1).ask("name l");
        on(1).ok("close l");
        EXPECT_EQ(on(node).ask("poll c hup wait=10000"), "hup");
        EXPECT_EQ(on(node).ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "111 4");
        EXPECT_EQ(on(node).ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "0 4");
        expect_end(node, "c", NO_PORT, id);
    }
}

TEST_P(connects, refuses_what_is_not_an_address)
{
    listen_for(1);
    on(1).ok("open c " + kind());
    for (const char *len : {"8", "15", "17", "32"})
        EXPECT_EQ(on(1).ask("connect c " + listener() + " len=" + len), "EINVAL") << len;
    EXPECT_EQ(on(1).ask("connect c none"), "EINVAL");
    EXPECT_EQ(on(1).ask("connect c raw:2:2:" + type() + ":1"), "EINVAL") << "another family";
    EXPECT_EQ(on(1).ask("connect c raw:0:2:" + type() + ":1"), "EINVAL") << "no family";
    EXPECT_EQ(on(1).ask("connect c raw:30:9:" + type() + ":1"), "EINVAL") << "no such type of address";
    EXPECT_EQ(on(1).ask("connect c " + range(1, 5)), "EINVAL");
    EXPECT_EQ(on(1).ask("fault c connect none"), "EFAULT");
    EXPECT_EQ(on(1).ask("poll c all"), "out");
}

TEST_P(connects, a_socket_with_a_name_cannot)
{
    listen_for(1);
    on(1).ok("open c " + kind());
    on(1).ok("bind c " + name(600) + " 2");
    EXPECT_EQ(on(1).ask("connect c " + listener()), "EOPNOTSUPP");
    EXPECT_EQ(on(1).ask("send c " + listener() + " 1 10"), "EOPNOTSUPP");
    EXPECT_EQ(on(1).ask("connect l " + listener()), "EINVAL") << "nor can a listener";
    EXPECT_EQ(on(1).ask("send l " + listener() + " 1 10"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("send l none 1 10"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("recv l"), "EAGAIN");
    EXPECT_EQ(on(1).ask("peer l"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("listen l 1"), "EINVAL") << "twice";
}

TEST_P(connects, a_listener_may_have_several_names)
{
    listen_for(1);
    on(1).ok("bind l " + name(800) + " 2");
    on(1).ok("open c " + kind());
    on(1).ok("nonblock c 1");
    EXPECT_EQ(on(1).ask("connect c " + name(800)), "EINPROGRESS");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    EXPECT_EQ(on(1).ask("send c none 3 10"), "10");
    EXPECT_EQ(on(1).get("recv a wait=10000").of["dest"], type() + ":800:800");
    on(1).ok("bind l none 2");
    on(1).ok("open d " + kind());
    EXPECT_EQ(on(1).ask("connect d " + name(800)), "EHOSTUNREACH");
}

class stream_or_seqpacket : public tipc
{
};

TEST_F(stream_or_seqpacket, the_two_kinds_connect_to_each_other_and_each_reads_in_its_own_way)
{
    on(1).ok("open l seqpacket");
    on(1).ok("listen l 1");
    on(1).ok("open c stream");
    on(1).ok("nonblock c 1");
    EXPECT_EQ(on(1).ask("connect c " + on(1).ask("name l")), "EINPROGRESS");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    for (const char *from : {"c", "a"}) {
        for (const char *at : {"0", "5"})
            EXPECT_EQ(on(1).ask(std::string("write ") + from + " " + at + " 5"), "5");
    }
    EXPECT_EQ(on(1).ask("read a 0 100 wait=10000"), "5 data=intact");
    EXPECT_EQ(on(1).ask("read a 5 100 wait=10000"), "5 data=intact");
    EXPECT_EQ(on(1).ask("readall c 0 10"), "10 data=intact");
}

TEST_F(stream_or_seqpacket, a_datagram_to_a_connection_comes_back)
{
    on(1).open_sender("s");
    for (const char *kind : {"stream", "seqpacket"}) {
        on(1).ok(std::string("open l ") + kind);
        on(1).ok("bind l " + name(1) + " 2");
        std::string id = on(1).ask("name l");
        for (const std::string &to : {name(1), id}) {
            EXPECT_EQ(on(1).ask("send s " + to + " 5 10"), "10");
            answer got = on(1).get("recv s wait=10000");
            EXPECT_EQ(got.of["err"], NO_PORT) << got.text;
            EXPECT_EQ(got.num("retnum"), 5);
            EXPECT_EQ(on(1).ask("poll l all"), "out");
        }
        on(1).ok("listen l 1");
        EXPECT_EQ(on(1).ask("send s " + name(1) + " 6 10"), "10");
        EXPECT_EQ(on(1).get("recv s wait=10000").num("retnum"), 6);
        EXPECT_EQ(on(1).ask("poll l all"), "none");
        on(1).ok("close l");
    }
}

TEST_F(stream_or_seqpacket, datagram_sockets_neither_listen_nor_shut_down)
{
    for (const char *kind : {"rdm", "dgram"}) {
        on(1).ok(std::string("open s ") + kind);
        EXPECT_EQ(on(1).ask("listen s 1"), "EOPNOTSUPP");
        EXPECT_EQ(on(1).ask("accept s a"), "EOPNOTSUPP");
        EXPECT_EQ(on(1).ask("shutdown s 2"), "ENOTCONN");
        on(1).ok("close s");
    }
}
