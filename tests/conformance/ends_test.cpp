// How connections end, and what each side is told.
#include "connections.h"

class ends : public connections
{
  protected:
    void SetUp() override
    {
        connections::SetUp();
        cut_ = false;
    }
    void TearDown() override
    {
        if (cut_)
            heal_between(1, 2);
        connections::TearDown();
    }
    bool cut_ = false;
};
INSTANTIATE_TEST_SUITE_P(types, ends, testing::Values("stream", "seqpacket"));

TEST_P(ends, the_peer_closes_and_what_it_sent_is_read_first)
{
    for (int node : {1, 2}) {
        join(node);
        std::string id = on(1).ask("name a");
        EXPECT_EQ(on(1).ask("send a none 5 40"), "40");
        EXPECT_EQ(on(node).ask("poll c in wait=10000"), "in");
        on(1).ok("close a");
        EXPECT_EQ(on(node).ask("poll c hup wait=10000"), "hup");
        EXPECT_EQ(on(node).ask("poll c all"), "in hup rdnorm");
        EXPECT_EQ(on(node).ask("opt c socket " + std::string(SO_ERROR_NUMBER)), "0 4");
        EXPECT_EQ(on(node).get("recv c").num("num"), 5);
        EXPECT_EQ(on(node).ask("poll c all"), "in hup rdnorm") << "still";
        expect_end(node, "c", NO_PORT, id);
        on(node).ok("shutdown c 2");
        expect_dead(node, "c");
    }
}

TEST_P(ends, the_client_closes)
{
    for (int node : {1, 2}) {
        join(node);
        std::string id = on(node).ask("name c");
        on(node).ok("close c");
        expect_end(1, "a", NO_PORT, id);
    }
}

TEST_P(ends, the_end_read_without_a_control_buffer_is_an_error)
{
    for (int node : {1, 2}) {
        join(node);
        std::string id = on(1).ask("name a");
        on(1).ok("close a");
        EXPECT_EQ(on(node).ask("poll c hup wait=10000"), "hup");
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(on(node).ask("recv c plain"), "ECONNRESET") << "as often as it is read so";
        EXPECT_EQ(on(node).ask("recv c plain block"), "ECONNRESET");
        expect_end(node, "c", NO_PORT, id); // a read with a control buffer takes it
        join(node);
        on(1).ok("shutdown a 2");
        EXPECT_EQ(on(node).ask("poll c hup wait=10000"), "hup");
        EXPECT_EQ(on(node).get("recv c plain").head, "0") << "the peer has said so";
        expect_dead(node, "c");
    }
}

TEST_P(ends, a_waiting_read_ends)
{
    join(2);
    on(2).tell("recv c block plain");
    on(1).ok("close a");
    EXPECT_NE(on(2).wait("done recv ").find("ECONNRESET"), std::string::npos);
    EXPECT_EQ(on(2).get("recv c").head, "0");
    EXPECT_EQ(on(2).get("interrupted c recv plain none none").head, "EINTR")
        << "when it is taken, a read waits for ever";
}

TEST_P(ends, a_send_fails_before_the_end_is_read)
{
    for (int node : {1, 2}) {
        join(node);
        std::string id = on(1).ask("name a");
        on(1).ok("close a");
        EXPECT_EQ(on(node).ask("poll c hup wait=10000"), "hup");
        EXPECT_EQ(on(node).ask("send c none 1 10"), "EPIPE");
        EXPECT_EQ(on(node).ask("send c none 1 0"), "EPIPE");
        expect_end(node, "c", NO_PORT, id);
    }
}

TEST_P(ends, there_is_no_sigpipe)
{
    join(1);
    on(1).ok("close a");
    EXPECT_EQ(on(1).ask("poll c hup wait=10000"), "hup");
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(on(1).ask("pipesend c send"), "EPIPE quiet");
        EXPECT_EQ(on(1).ask("pipesend c write"), "EPIPE quiet");
        EXPECT_EQ(on(1).get("recv c").head, i == 0 ? "0" : "EAGAIN");
    }
}

TEST_P(ends, the_first_unread_message_comes_back_and_no_other)
{
    for (int node : {1, 2}) {
        join(node);
        std::string id = on(1).ask("name a");
        // Larger than what the kernel joins to one message of a stream.
        for (const char *num : {"1", "2", "3"})
            EXPECT_EQ(on(node).ask(std::string("send c none ") + num + " 20000"), "20000");
        EXPECT_EQ(on(1).ask("poll a in wait=10000"), "in");
        on(1).ok("close a");
        EXPECT_EQ(on(node).ask("poll c hup wait=10000"), "hup");
        answer got = on(node).get("recv c");
        EXPECT_EQ(got.head, "0");
        EXPECT_EQ(got.of["err"], NO_PORT);
        EXPECT_EQ(got.num("errlen"), 1024) << got.text;
        EXPECT_EQ(got.num("ret"), 1024) << "as much as of a datagram";
        EXPECT_EQ(got.num("retnum"), 1);
        EXPECT_EQ(got.of["retdata"], "intact");
        EXPECT_EQ(got.of["from"], id);
        EXPECT_TRUE(got.has("dest")) << got.text;
        expect_dead(node, "c");
    }
}

TEST_P(ends, a_message_read_in_part_does_not_come_back)
{
    join(2);
    std::string id = on(1).ask("name a");
    EXPECT_EQ(on(2).ask("send c none 1 3000"), "3000");
    EXPECT_EQ(on(1).get("recv a wait=10000 buf=100").head, "100");
    EXPECT_EQ(on(1).ask("send a none 5 8"), "8");
    EXPECT_EQ(on(2).ask("poll c in wait=10000"), "in");
    on(1).ok("close a");
    EXPECT_EQ(on(2).ask("poll c hup wait=10000"), "hup");
    EXPECT_EQ(on(2).get("recv c").num("num"), 5);
    expect_end(2, "c", NO_PORT, id);
}

TEST_P(ends, shutdown_works_both_ways_only)
{
    for (int node : {1, 2}) {
        join(node);
        std::string id = on(node).ask("name c");
        for (const char *how : {"0", "1", "7"})
            EXPECT_EQ(on(node).ask(std::string("shutdown c ") + how), "EINVAL") << how;
        EXPECT_EQ(on(node).ask("send c none 5 30"), "30");
        on(node).ok("shutdown c 2");
        expect_dead(node, "c");
        on(node).ok("shutdown c 2");
        EXPECT_EQ(on(1).get("recv a wait=10000").num("num"), 5);
        expect_end(1, "a", CONN_SHUTDOWN, id);
    }
}

TEST_P(ends, shutdown_gives_unread_data_back)
{
    join(2);
    EXPECT_EQ(on(1).ask("send a none 5 30"), "30");
    EXPECT_EQ(on(2).ask("poll c in wait=10000"), "in");
    on(2).ok("shutdown c 2");
    EXPECT_EQ(on(2).ask("recv c"), "EAGAIN") << "it is gone here";
    EXPECT_EQ(on(1).ask("poll a hup wait=10000"), "hup");
    answer got = on(1).get("recv a");
    EXPECT_EQ(got.head, "0");
    EXPECT_EQ(got.of["err"], CONN_SHUTDOWN);
    EXPECT_EQ(got.num("retnum"), 5);
    EXPECT_EQ(got.num("ret"), 30);
    expect_dead(1, "a");
}

TEST_P(ends, a_listener_that_is_shut_down_says_that_it_is_no_connection)
{
    listen_for(1);
    EXPECT_EQ(on(1).ask("shutdown l 2"), "ENOTCONN");
    EXPECT_EQ(on(1).ask("poll l all"), "in rdhup hup rdnorm");
    on(1).ok("nonblock l 1");
    EXPECT_EQ(on(1).ask("accept l a"), "EAGAIN");
}

TEST_P(ends, a_killed_process_ends_its_connections_as_close_does)
{
    listen_for(2);
    probe victim(2);
    victim.ok("open c " + kind());
    victim.ok("nonblock c 1");
    std::string id = victim.ask("name c");
    EXPECT_EQ(victim.ask("connect c " + listener()), "EINPROGRESS");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    EXPECT_EQ(victim.ask("poll c out wait=10000"), "out");
    EXPECT_EQ(victim.ask("send c none 5 30"), "30");
    EXPECT_EQ(on(1).ask("poll a in wait=10000"), "in");
    victim.kill();
    EXPECT_EQ(on(1).ask("poll a hup wait=10000"), "hup");
    EXPECT_EQ(on(1).get("recv a").num("num"), 5);
    expect_end(1, "a", NO_PORT, id);
}

TEST_P(ends, a_killed_process_gives_back_what_it_has_not_read)
{
    listen_for(2);
    probe victim(2);
    victim.ok("open c " + kind());
    victim.ok("nonblock c 1");
    EXPECT_EQ(victim.ask("connect c " + listener()), "EINPROGRESS");
    EXPECT_EQ(on(1).get("accept l a wait=10000").head, "0");
    EXPECT_EQ(on(1).ask("send a none 6 30"), "30");
    EXPECT_EQ(victim.ask("poll c in wait=10000"), "in");
    victim.kill();
    EXPECT_EQ(on(1).ask("poll a hup wait=10000"), "hup");
    answer got = on(1).get("recv a");
    EXPECT_EQ(got.of["err"], NO_PORT);
    EXPECT_EQ(got.num("retnum"), 6);
    expect_dead(1, "a");
}

TEST_P(ends, a_copy_keeps_the_connection)
{
    join(2);
    std::string id = on(2).ask("name c");
    on(2).ok("dup c d");
    on(2).ok("close c");
    EXPECT_EQ(on(1).ask("poll a all"), "out");
    EXPECT_EQ(on(2).ask("send d none 5 30"), "30");
    EXPECT_EQ(on(1).get("recv a wait=10000").num("num"), 5);
    on(2).ok("close d");
    expect_end(1, "a", NO_PORT, id);
}

TEST_P(ends, a_link_that_is_cut_ends_both_sides)
{
    join(2);
    std::string accepted = on(1).ask("name a");
    std::string client = on(2).ask("name c");
    std::string id = on(1).ask("name l");
    EXPECT_EQ(on(1).ask("send a none 5 30"), "30");
    EXPECT_EQ(on(2).ask("send c none 6 30"), "30");
    EXPECT_EQ(on(1).ask("poll a in wait=10000"), "in");
    EXPECT_EQ(on(2).ask("poll c in wait=10000"), "in");
    cut_ = true;
    cut_between(1, 2);
    EXPECT_EQ(on(1).ask("poll a hup wait=20000"), "hup");
    EXPECT_EQ(on(2).ask("poll c hup wait=20000"), "hup");
    EXPECT_EQ(on(1).ask("poll a all"), "in hup rdnorm");
    EXPECT_EQ(on(1).get("recv a").num("num"), 6) << "what has arrived is read";
    EXPECT_EQ(on(2).get("recv c").num("num"), 5);
    expect_end(1, "a", NO_NODE, client);
    EXPECT_EQ(on(2).ask("recv c plain"), "ECONNRESET");
    on(2).ok("open d " + kind());
    EXPECT_EQ(on(2).ask("connect d " + id), "EHOSTUNREACH");

    heal_between(1, 2);
    cut_ = false;
    expect_dead(1, "a");
    join(2);
    EXPECT_EQ(on(2).ask("send c none 7 30"), "30");
    EXPECT_EQ(on(1).get("recv a wait=10000").num("num"), 7);
}
