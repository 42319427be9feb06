// Requests to the topology service.
#include "conformance.h"

class requests : public tipc
{
  protected:
    void SetUp() override
    {
        tipc::SetUp();
        on(1).open_watch("t");
    }
    void request(const std::string &rest, const std::string &result = "28")
    {
        EXPECT_EQ(on(1).ask("subscribe t " + type() + " " + rest), result);
    }
    void expect_event(const std::string &kind, const std::string &handle)
    {
        answer got = on(1).get("event t wait=10000");
        EXPECT_EQ(got.head, kind) << got.text;
        EXPECT_EQ(got.of["handle"], handle) << got.text;
    }
    // The service has handled all requests so far, and no event is left.
    void expect_quiet()
    {
        request("99999 99999 1 2 fence");
        expect_event("timeout", "fence");
    }
    void expect_closed()
    {
        EXPECT_EQ(on(1).ask("event t wait=10000"), "0");
        EXPECT_EQ(on(1).ask("event t"), "EAGAIN");
        request("1 1 0xffffffff 2 late", "EPIPE");
    }
};

TEST_F(requests, a_read_without_an_event_gives_eagain)
{
    EXPECT_EQ(on(1).ask("event t"), "EAGAIN");
    request("1 1 0xffffffff 2 watch");
    EXPECT_EQ(on(1).ask("event t"), "EAGAIN");
}

TEST_F(requests, a_socket_must_be_connected_first)
{
    on(1).ok("open t seqpacket");
    EXPECT_EQ(on(1).ask("event t"), "ENOTCONN");
    request("1 1 0xffffffff 2 watch", "ENOTCONN");
}

TEST_F(requests, nobody_else_offers_the_service)
{
    on(1).ok("open u seqpacket");
    EXPECT_EQ(on(1).ask("connect u " + name(1)), "EHOSTUNREACH");
}

TEST_F(requests, a_time_out_ends_the_subscription_with_an_event)
{
    request("3 8 20 2 short");
    answer got = on(1).get("event t wait=10000");
    EXPECT_EQ(got.head, "timeout");
    EXPECT_EQ(got.of["found"], "3:8");
    EXPECT_EQ(got.of["port"], "id:0:0");
    EXPECT_EQ(got.of["timeout"], "20");
    EXPECT_EQ(got.of["handle"], "short");
    on(1).open_receiver("r", name(5));
    expect_quiet();
}

TEST_F(requests, one_for_ever_outlives_one_with_a_time_out)
{
    request("5 5 0xffffffff 2 forever"); // TIPC_WAIT_FOREVER
    request("5 5 50 2 short");
    expect_event("timeout", "short");
    on(1).open_receiver("r", name(5));
    expect_event("published", "forever");
    expect_quiet();
}

TEST_F(requests, what_exists_is_told_before_the_time_out)
{
    on(1).open_receiver("r", name(5));
    request("5 5 1 2 short");
    expect_event("published", "short");
    expect_event("timeout", "short");
}

TEST_F(requests, a_connection_carries_many_subscriptions)
{
    for (int i = 0; i < 100; i++) {
        std::string instance = std::to_string(i);
        request(instance + " " + instance + " 0xffffffff 2 h" + instance);
    }
    expect_quiet();
    on(1).ok("open r rdm");
    for (unsigned i : {99U, 0U, 50U})
        on(1).ok("bind r " + name(i) + " 2");
    for (const char *handle : {"h99", "h0", "h50"})
        expect_event("published", handle);
    expect_quiet();
}

TEST_F(requests, a_name_in_several_subscriptions_is_told_for_each)
{
    request("1 9 0xffffffff 2 wide");
    request("5 5 0xffffffff 2 narrow");
    request("5 5 0xffffffff 1 ports");
    request("6 9 0xffffffff 2 other");
    on(1).open_receiver("r", name(5));
    std::multiset<std::string> seen;
    for (int i = 0; i < 3; i++)
        seen.insert(on(1).get("event t wait=10000").of["handle"]);
    EXPECT_EQ(seen, (std::multiset<std::string>{"narrow", "ports", "wide"}));
    expect_quiet();
}

TEST_F(requests, requests_sent_before_any_event_is_read_are_all_answered_in_turn)
{
    on(1).open_receiver("r", range(1, 9));
    for (const char *handle : {"a", "b", "c", "d"})
        request(std::string("2 2 0xffffffff 2 ") + handle);
    for (const char *handle : {"a", "b", "c", "d"})
        expect_event("published", handle);
}

TEST_F(requests, of_two_requests_in_one_message_the_second_is_lost)
{
    on(1).open_receiver("r", name(5));
    request("5 5 0xffffffff 2 twice bytes=56", "56");
    expect_event("published", "twice");
    expect_quiet();
}

TEST_F(requests, an_empty_message_is_ignored)
{
    EXPECT_EQ(on(1).ask("send t none 0 0"), "0");
    request("5 5 0xffffffff 2 watch");
    on(1).open_receiver("r", name(5));
    expect_event("published", "watch");
}

TEST_F(requests, a_cancelled_subscription_has_no_more_events)
{
    request("5 5 0xffffffff 2 first");
    request("6 6 0xffffffff 2 second");
    request(std::string("5 5 0xffffffff ") + CANCEL_SERVICE + " first");
    expect_quiet();
    on(1).open_receiver("r", name(5));
    on(1).ok("bind r " + name(6) + " 2");
    expect_event("published", "second");
    request(std::string("6 6 0xffffffff ") + CANCEL_SERVICE + " second");
    expect_quiet();
    on(1).ok("close r");
    expect_quiet();
}

TEST_F(requests, a_cancelled_subscription_can_be_asked_for_again)
{
    on(1).open_receiver("r", name(5));
    for (int i = 0; i < 3; i++) {
        request("5 5 0xffffffff 2 again");
        expect_event("published", "again");
        request(std::string("5 5 0xffffffff ") + CANCEL_SERVICE + " again");
    }
    expect_quiet();
}

TEST_F(requests, a_cancel_must_equal_the_request)
{
    request("5 5 0xffffffff 2 watch");
    request("5 5 0xffffffff 6 other");
    request("5 5 1000 6 watch");
    request("5 5 0xffffffff 5 watch");
    request("5 5 0xffffffff 4 watch");
    request("5 6 0xffffffff 6 watch");
    expect_quiet();
    on(1).open_receiver("r", name(5));
    expect_event("published", "watch");
    expect_quiet();
}

TEST_F(requests, a_short_request_closes_the_connection)
{
    on(1).open_receiver("r", name(5));
    request("5 5 0xffffffff 2 good");
    // Before the next request: the kernel sends an event later, and not at all once the connection closes.
    expect_event("published", "good");
    request("5 5 0xffffffff 2 short bytes=27", "27");
    expect_closed();
}

TEST_F(requests, a_lower_bound_above_the_upper_closes_the_connection)
{
    on(1).open_receiver("r", name(5));
    request("5 5 0xffffffff 2 good");
    expect_event("published", "good"); // see above
    request("9 5 0xffffffff 2 bad");
    expect_closed();
}

TEST_F(requests, both_filters_at_once_close_the_connection)
{
    request("5 5 0xffffffff 3 bad");
    expect_closed();
}

TEST_F(requests, one_connection_closed_leaves_the_others)
{
    on(1).ok("open u seqpacket");
    on(1).ok("connect u name:1:1");
    EXPECT_EQ(on(1).ask("subscribe u " + type() + " 9 5 0xffffffff 2 bad"), "28");
    EXPECT_EQ(on(1).ask("event u wait=10000"), "0");
    request("5 5 0xffffffff 2 good");
    on(1).open_receiver("r", name(5));
    expect_event("published", "good");
}

TEST_F(requests, an_event_read_with_a_small_buffer_is_cut)
{
    on(1).open_receiver("r", name(5));
    on(1).ok("bind r " + name(6) + " 2");
    request("5 5 0xffffffff 2 first");
    request("6 6 0xffffffff 2 second");
    answer got = on(1).get("recv t wait=10000 buf=20");
    EXPECT_EQ(got.head, "20");
    EXPECT_EQ(got.of["flag"], "trunc");
    expect_event("published", "second");
}
