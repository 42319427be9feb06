// Messages that are returned to their sender.
#include "conformance.h"

static const char NO_PORT[] = "2";

class returns : public tipc
{
  protected:
    void send(int node, const std::string &to, unsigned num, unsigned len)
    {
        std::string size = std::to_string(len);
        ASSERT_EQ(on(node).ask("send s " + to + " " + std::to_string(num) + " " + size), size);
    }
    // The node's sender reads next that message `num` of `len` bytes was returned: the socket is gone.
    void expect_back(int node, unsigned num, unsigned len, const std::string &from)
    {
        answer got = on(node).get("recv s wait=10000");
        unsigned kept = len < 1024 ? len : 1024;
        EXPECT_EQ(got.head, "0") << "a read of no bytes";
        EXPECT_EQ(got.of["err"], NO_PORT) << got.text;
        EXPECT_EQ(got.num("errlen"), kept) << got.text;
        EXPECT_EQ(got.num("ret"), kept) << got.text;
        EXPECT_EQ(got.num("retnum"), num) << got.text;
        EXPECT_EQ(got.of["retdata"], "intact");
        EXPECT_EQ(got.of["from"], from) << "the socket it had been sent to";
    }
};

TEST_F(returns, a_receiver_that_closes_gives_back_what_it_has_not_read)
{
    on(1).open_receiver("r", name(1));
    std::string receiver = on(1).ask("name r");
    on(2).ok(await(1));
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        for (unsigned num : {1U, 2U, 3U})
            send(node, name(1), num, 10 * num);
    }
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 1) << "read, and so not returned";
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN") << "nothing comes back while it is open";
    // The last message from each node has arrived.
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 2);
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 3);
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 1);
    on(1).ok("close r");
    for (unsigned num : {2U, 3U})
        expect_back(2, num, 10 * num, receiver);
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN") << "all of this one's were read";
    EXPECT_EQ(on(2).ask("recv s"), "EAGAIN");
}

TEST_F(returns, it_carries_the_name_it_was_sent_to)
{
    on(1).open_receiver("r", range(1, 9));
    on(1).open_sender("s");
    send(1, name(4), 1, 10);
    send(1, on(1).ask("name r"), 2, 10);
    on(1).ok("close r");
    EXPECT_EQ(on(1).get("recv s wait=10000").of["dest"], type() + ":4:4");
    answer by_id = on(1).get("recv s wait=10000");
    EXPECT_EQ(by_id.num("retnum"), 2);
    EXPECT_FALSE(by_id.has("dest")) << "sent to a socket's address";
}

TEST_F(returns, a_killed_receiver_gives_back_what_it_has_not_read)
{
    probe victim(3);
    victim.open_receiver("r", name(1));
    std::string receiver = victim.ask("name r");
    on(1).ok(await(1));
    on(1).open_sender("s");
    send(1, name(1), 1, 10);
    send(1, name(1), 2, 2000);
    EXPECT_EQ(victim.ask("poll r in wait=10000"), "in");
    victim.kill();
    expect_back(1, 1, 10, receiver);
    expect_back(1, 2, 2000, receiver);
}

TEST_F(returns, at_most_1024_bytes_of_a_message_come_back)
{
    on(1).open_receiver("r", name(1));
    std::string receiver = on(1).ask("name r");
    on(2).ok(await(1));
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        for (unsigned len : {1023U, 1024U, 1025U, 66000U})
            send(node, name(1), len, len);
    }
    for (int i = 0; i < 4; i++) // the first four are node 1's
        EXPECT_NE(on(1).get("recv r wait=10000").head, "nothing");
    EXPECT_EQ(on(1).ask("poll r in wait=10000"), "in");
    on(1).ok("close r");
    for (unsigned len : {1023U, 1024U, 1025U, 66000U})
        expect_back(2, len, len, receiver);
}

TEST_F(returns, a_closed_socket_gives_back_what_is_sent_to_its_address)
{
    on(1).ok("open r rdm");
    std::string receiver = on(1).ask("name r");
    on(1).ok("close r");
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        send(node, receiver, 9, 20);
        expect_back(node, 9, 20, receiver);
    }
}

TEST_F(returns, nothing_comes_back_to_a_socket_that_has_not_asked_for_it)
{
    on(1).open_receiver("r", name(1));
    on(1).ok("open s rdm"); // TIPC_DEST_DROPPABLE is on at first
    send(1, name(1), 1, 10);
    on(1).ok(std::string("opt s tipc ") + DEST_DROPPABLE + " 0");
    send(1, name(1), 2, 10);
    on(1).ok(std::string("opt s tipc ") + DEST_DROPPABLE + " 1");
    send(1, name(1), 3, 10);
    std::string receiver = on(1).ask("name r");
    on(1).ok("close r");
    expect_back(1, 2, 10, receiver);
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
}

TEST_F(returns, an_empty_message_comes_back_without_data)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    send(1, name(1), 0, 0);
    on(1).ok("close r");
    answer got = on(1).get("recv s wait=10000");
    EXPECT_EQ(got.head, "0");
    EXPECT_EQ(got.of["err"], NO_PORT);
    EXPECT_EQ(got.num("errlen"), 0);
    EXPECT_FALSE(got.has("ret"));
}

TEST_F(returns, it_wakes_poll)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    send(1, name(1), 1, 10);
    EXPECT_EQ(on(1).ask("poll s in"), "none");
    on(1).ok("close r");
    EXPECT_EQ(on(1).ask("poll s in wait=10000"), "in");
}

TEST_F(returns, without_a_control_buffer_it_is_an_empty_read)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    for (unsigned num : {1U, 2U, 3U})
        send(1, name(1), num, 10);
    on(1).ok("close r");
    EXPECT_EQ(on(1).get("recv s wait=10000 plain").head, "0");
    answer got = on(1).get("recv s wait=10000 ctl=0");
    EXPECT_EQ(got.head, "0");
    EXPECT_FALSE(got.has("err"));
    EXPECT_EQ(on(1).get("recv s wait=10000").num("retnum"), 3) << "each read takes one";
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
}

TEST_F(returns, a_control_buffer_that_holds_the_error_alone_loses_the_data)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    send(1, name(1), 1, 500);
    on(1).ok("close r");
    answer got = on(1).get("recv s wait=10000 ctl=24");
    EXPECT_EQ(got.head, "0");
    EXPECT_EQ(got.of["flag"], "ctrunc");
    EXPECT_EQ(got.of["err"], NO_PORT);
    EXPECT_EQ(got.num("errlen"), 500);
    EXPECT_FALSE(got.has("ret"));
    EXPECT_FALSE(got.has("dest"));
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
}

TEST_F(returns, a_sender_that_has_gone_gets_nothing_back)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    send(1, name(1), 1, 10);
    on(1).ok("close s");
    on(1).ok("close r");
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
}

TEST_F(returns, a_returned_message_stands_in_line_with_others)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    std::string sender = on(1).ask("name s");
    send(1, name(1), 1, 10);
    send(1, sender, 50, 10);
    EXPECT_EQ(on(1).ask("poll s in wait=10000"), "in");
    on(1).ok("close r");
    send(1, sender, 51, 10);
    EXPECT_EQ(on(1).get("recv s wait=10000").num("num"), 50);
    EXPECT_EQ(on(1).get("recv s wait=10000").num("retnum"), 1);
    EXPECT_EQ(on(1).get("recv s wait=10000").num("num"), 51);
}
