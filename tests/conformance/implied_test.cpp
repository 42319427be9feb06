// A first message that connects: sendto with an address on a fresh socket.
#include "connections.h"

class implied_connects : public connections
{
  protected:
    // Sends `size` bytes from a fresh "c" to the listener, with number 7.
    void send_first(int node, const std::string &to, const std::string &size)
    {
        on(node).ok("open c " + kind());
        EXPECT_EQ(on(node).ask("send c " + to + " 7 " + size + " dontwait"), size);
    }
};
INSTANTIATE_TEST_SUITE_P(types, implied_connects, testing::Values("stream", "seqpacket"));

TEST_P(implied_connects, the_data_comes_first)
{
    for (int node : {1, 2}) {
        close_all(node);
        listen_for(node);
        send_first(node, listener(), "100");
        std::string id = on(node).ask("name c");
        EXPECT_EQ(on(node).ask("poll c all"), "none") << "connecting";
        EXPECT_EQ(on(node).ask("peer c"), "ENOTCONN");
        EXPECT_EQ(on(node).ask("send c none 8 10 dontwait"), "ENOTCONN");
        EXPECT_EQ(on(node).ask("send c " + listener() + " 8 10 dontwait"), "ENOTCONN");
        on(node).ok("nonblock c 1");
        EXPECT_EQ(on(node).ask("connect c " + listener()), "EALREADY");

        EXPECT_EQ(on(1).get("accept l a wait=10000").of["from"], id);
        EXPECT_EQ(on(1).ask("poll a all"), "in out rdnorm") << "there is data already";
        answer got = on(1).get("recv a");
        EXPECT_EQ(got.head, "100");
        EXPECT_EQ(got.num("num"), 7);
        EXPECT_EQ(got.of["data"], "intact");
        EXPECT_EQ(got.of["from"], id);
        EXPECT_TRUE(got.has("dest")) << got.text;
        EXPECT_EQ(on(1).ask("recv a"), "EAGAIN");

        EXPECT_EQ(on(node).ask("poll c out wait=10000"), "out") << "accept answers, without data";
        EXPECT_EQ(on(node).ask("send c none 8 10"), "10");
        EXPECT_EQ(on(1).get("recv a wait=10000").num("num"), 8);
        EXPECT_EQ(on(1).ask("send a none 9 10"), "10");
        EXPECT_EQ(on(node).get("recv c wait=10000").num("num"), 9);
    }
}

TEST_P(implied_connects, the_first_message_counts_for_the_window)
{
    for (int node : {1, 2}) {
        close_all(node);
        listen_for(node);
        send_first(node, listener(), "100");
        EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
        EXPECT_EQ(on(1).ask("recv a").substr(0, 3), "100");
        EXPECT_EQ(on(node).ask("poll c out wait=10000"), "out");
        for (int number = 10; number < 110; number++) { // acknowledged more than once
            ASSERT_EQ(on(node).ask("send c none " + std::to_string(number) + " 10 dontwait"), "10") << number;
            ASSERT_EQ(on(1).get("recv a wait=10000").num("num"), number);
        }
    }
}

TEST_P(implied_connects, a_blocking_send_waits_until_the_other_accepts_or_refuses)
{
    for (int node : {1, 2}) {
        close_all(node);
        listen_for(node);
        probe sender(node);
        sender.ok("open c " + kind());
        sender.tell("send c " + listener() + " 7 100");
        EXPECT_EQ(on(1).ask("poll l in wait=10000"), "in");
        EXPECT_FALSE(sender.saw("done send "));
        EXPECT_EQ(on(1).get("accept l a").head, "0");
        EXPECT_NE(sender.wait("done send ").find("send 100"), std::string::npos);
        EXPECT_EQ(sender.ask("poll c all"), "out");
        EXPECT_EQ(on(1).get("recv a").num("num"), 7);

        sender.ok("open d " + kind());
        sender.tell("send d " + listener() + " 8 100");
        EXPECT_EQ(on(1).ask("poll l in wait=10000"), "in");
        on(1).ok("close l");
        EXPECT_NE(sender.wait("done send ").find("send 100"), std::string::npos) << "a success all the same";
        EXPECT_EQ(sender.ask("opt d socket " + std::string(SO_ERROR_NUMBER)), "0 4");
        EXPECT_EQ(sender.get("recv d").num("retnum"), 8);
    }
}

TEST_P(implied_connects, a_signal_or_a_time_out_ends_the_wait_without_a_word)
{
    listen_for(1);
    on(1).ok("open c " + kind());
    EXPECT_EQ(on(1).ask("timeout c send 40"), "40 16");
    EXPECT_EQ(on(1).ask("send c " + listener() + " 7 100"), "100");
    EXPECT_EQ(on(1).ask("poll c all"), "none") << "connecting";
    EXPECT_EQ(on(1).get("accept l a").head, "0");
    EXPECT_EQ(on(1).ask("poll c out wait=10000"), "out");
}

TEST_P(implied_connects, an_empty_message_connects_and_is_not_read)
{
    listen_for(2);
    send_first(2, listener(), "0");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    EXPECT_EQ(on(1).ask("poll a all"), "out");
    EXPECT_EQ(on(1).ask("recv a"), "EAGAIN");
    EXPECT_EQ(on(2).ask("poll c out wait=10000"), "out");
}

TEST_P(implied_connects, by_the_listeners_address_no_name_is_told)
{
    listen_for(1);
    send_first(1, on(1).ask("name l"), "10");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    answer got = on(1).get("recv a");
    EXPECT_EQ(got.num("num"), 7);
    EXPECT_FALSE(got.has("dest")) << got.text;
}

TEST_P(implied_connects, the_largest_first_message_has_66000_bytes)
{
    listen_for(2);
    on(2).ok("open d " + kind());
    EXPECT_EQ(on(2).ask("send d " + listener() + " 1 66001"), "EMSGSIZE");
    EXPECT_EQ(on(2).ask("poll d all"), "out") << "as fresh as before";
    send_first(2, listener(), "66000");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    answer got = on(1).get("recv a wait=10000");
    EXPECT_EQ(got.head, "66000");
    EXPECT_EQ(got.of["data"], "intact");
}

TEST_P(implied_connects, to_nobody_fails_and_may_be_tried_again)
{
    listen_for(1);
    on(1).ok("open c " + kind());
    EXPECT_EQ(on(1).ask("send c " + name(999) + " 1 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("poll c all"), "out");
    EXPECT_EQ(on(1).ask("send c " + listener() + " 2 10 dontwait"), "10");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    EXPECT_EQ(on(1).get("recv a").num("num"), 2);
}

TEST_P(implied_connects, one_that_does_not_listen_returns_the_data)
{
    on(1).ok("open s " + kind());
    on(1).ok("bind s " + name(500) + " 2");
    std::string id = on(1).ask("name s");
    on(2).ok(await(500));
    for (int node : {1, 2}) {
        send_first(node, name(500), "20");
        EXPECT_EQ(on(node).ask("poll c hup wait=10000"), "hup");
        EXPECT_EQ(on(node).ask("poll c all"), "in hup rdnorm");
        EXPECT_EQ(on(node).ask("recv c"), "ECONNREFUSED") << "once";
        answer got = on(node).get("recv c");
        EXPECT_EQ(got.head, "0");
        EXPECT_EQ(got.of["err"], NO_PORT);
        EXPECT_EQ(got.num("ret"), 20);
        EXPECT_EQ(got.num("retnum"), 7);
        EXPECT_EQ(got.of["dest"], type() + ":500:500");
        EXPECT_EQ(got.of["from"], id);
        EXPECT_EQ(on(node).ask("recv c"), "EAGAIN");
        EXPECT_EQ(on(node).ask("send c none 1 10"), "EPIPE");
        on(node).ok("close c");
    }
}

TEST_P(implied_connects, a_listener_that_closes_returns_the_data)
{
    listen_for(2);
    send_first(2, listener(), "20");
    EXPECT_EQ(on(1).ask("poll l in wait=10000"), "in");
    on(1).ok("close l");
    EXPECT_EQ(on(2).ask("poll c hup wait=10000"), "hup");
    EXPECT_EQ(on(2).ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "111 4") << "ECONNREFUSED";
    answer got = on(2).get("recv c");
    EXPECT_EQ(got.of["err"], NO_PORT);
    EXPECT_EQ(got.num("retnum"), 7);
    EXPECT_EQ(on(2).ask("recv c"), "EAGAIN");
}

TEST_P(implied_connects, a_datagram_socket_takes_the_data_and_does_not_answer)
{
    on(1).open_receiver("r", name(600));
    send_first(1, name(600), "20");
    answer got = on(1).get("recv r wait=10000");
    EXPECT_EQ(got.head, "20");
    EXPECT_EQ(got.num("num"), 7);
    EXPECT_EQ(got.of["from"], on(1).ask("name c"));
    EXPECT_EQ(got.of["dest"], type() + ":600:600");
    EXPECT_EQ(on(1).ask("poll c all"), "none");
    EXPECT_EQ(on(1).ask("peer c"), "ENOTCONN");
}

TEST_P(implied_connects, a_range_is_a_multicast_and_connects_nobody)
{
    on(1).open_receiver("r", name(600));
    on(1).ok("open c " + kind());
    EXPECT_EQ(on(1).ask("send c " + range(700, 800) + " 3 20"), "EHOSTUNREACH");
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(on(1).ask("send c " + range(600, 700) + " 3 20"), "20");
        EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 3);
        EXPECT_EQ(on(1).ask("poll c all"), "out");
    }
}
