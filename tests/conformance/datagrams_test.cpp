// Sending datagrams, and what arrives.
#include "conformance.h"

class datagrams : public tipc
{
};

TEST_F(datagrams, a_send_to_a_name_that_nobody_bound_fails)
{
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10 dontwait"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN") << "nothing is returned for it";
}

TEST_F(datagrams, a_message_has_at_most_66000_bytes)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        EXPECT_EQ(on(node).ask("send s " + name(1) + " 1 66001"), "EMSGSIZE");
        EXPECT_EQ(on(node).ask("send s " + name(1) + " 2 66000"), "66000");
        answer got = on(1).get("recv r wait=10000");
        EXPECT_EQ(got.head, "66000");
        EXPECT_EQ(got.of["data"], "intact");
        EXPECT_EQ(got.num("num"), 2);
    }
}

TEST_F(datagrams, send_refuses_what_is_not_an_address)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s none 1 10"), "EDESTADDRREQ") << "no destination";
    EXPECT_EQ(on(1).ask("send s raw:2:2:" + type() + ":1 1 10"), "EINVAL") << "another family";
    EXPECT_EQ(on(1).ask("send s raw:30:9:" + type() + ":1 1 10"), "EINVAL") << "no such type of address";
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10 len=15"), "EINVAL") << "a short address";
    EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
}

TEST_F(datagrams, data_of_every_size_arrives_intact)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        for (unsigned size : {1U, 3U, 4U, 100U, 1400U, 1500U, 1501U, 16384U, 65536U, 66000U}) {
            std::string text = std::to_string(size);
            EXPECT_EQ(on(node).ask("send s " + name(1) + " 77 " + text), text);
            answer got = on(1).get("recv r wait=10000");
            EXPECT_EQ(got.head, text);
            EXPECT_EQ(got.of["data"], "intact") << size;
        }
    }
}

TEST_F(datagrams, the_pieces_of_a_sendmsg_are_one_message)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 3 5001 msg"), "5001");
    answer got = on(1).get("recv r wait=10000");
    EXPECT_EQ(got.head, "5001");
    EXPECT_EQ(got.of["data"], "intact");
}

TEST_F(datagrams, messages_of_one_sender_arrive_in_order)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        EXPECT_EQ(on(node).ask("send s " + name(1) + " 100 200 count=600"), "600 200");
        answer got = on(1).get("drain r until=600");
        EXPECT_EQ(got.head, "600");
        EXPECT_EQ(got.num("first"), 100);
        EXPECT_EQ(got.num("bad"), 0) << got.text;
    }
}

TEST_F(datagrams, an_empty_one_wakes_poll_and_is_never_read)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        EXPECT_EQ(on(node).ask("send s " + name(1) + " 0 0"), "0");
        EXPECT_EQ(on(1).ask("poll r in wait=10000"), "in");
        EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
        EXPECT_EQ(on(1).ask("poll r in"), "none") << "the read took it";
    }
}

TEST_F(datagrams, a_read_skips_an_empty_one)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 0 0"), "0");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 7 20"), "20");
    answer got = on(1).get("recv r wait=10000 block");
    EXPECT_EQ(got.head, "20");
    EXPECT_EQ(got.num("num"), 7);
    EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
}

TEST_F(datagrams, the_senders_address_is_that_of_its_socket)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    std::string seen[2];
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        on(node).open_sender("other");
        std::string own = on(node).ask("name s");
        for (const char *socket : {"s", "s", "other"})
            EXPECT_EQ(on(node).ask(std::string("send ") + socket + " " + name(1) + " 1 10"), "10");
        answer first = on(1).get("recv r wait=10000");
        EXPECT_EQ(first.of["from"], own);
        EXPECT_EQ(first.of["fromlen"], "16");
        EXPECT_EQ(on(1).get("recv r wait=10000").of["from"], own) << "the same for each of its messages";
        answer third = on(1).get("recv r wait=10000");
        EXPECT_NE(third.of["from"], own) << "another socket has another";
        EXPECT_EQ(third.of["from"], on(node).ask("name other"));
        seen[node - 1] = own.substr(own.rfind(':'));
        EXPECT_EQ(third.of["from"].substr(third.of["from"].rfind(':')), seen[node - 1]) << "on the same node";
    }
    EXPECT_NE(seen[0], seen[1]) << "nodes have addresses of their own";
}

TEST_F(datagrams, binding_does_not_change_a_sockets_address)
{
    on(1).ok("open r rdm");
    std::string before = on(1).ask("name r");
    on(1).ok("bind r " + name(1) + " 2");
    EXPECT_EQ(on(1).ask("name r"), before);
}

TEST_F(datagrams, an_answer_goes_to_the_senders_address)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        EXPECT_EQ(on(node).ask("send s " + name(1) + " 1 10"), "10");
        std::string from = on(1).get("recv r wait=10000").of["from"];
        EXPECT_EQ(on(1).ask("send r " + from + " 9 3000"), "3000");
        answer got = on(node).get("recv s wait=10000");
        EXPECT_EQ(got.head, "3000");
        EXPECT_EQ(got.num("num"), 9);
        EXPECT_EQ(got.of["from"], on(1).ask("name r"));
    }
}

TEST_F(datagrams, a_socket_may_send_to_its_own_name)
{
    on(1).open_receiver("r", name(1));
    EXPECT_EQ(on(1).ask("send r " + name(1) + " 4 10"), "10");
    answer got = on(1).get("recv r wait=10000");
    EXPECT_EQ(got.num("num"), 4);
    EXPECT_EQ(got.of["from"], on(1).ask("name r"));
}

TEST_F(datagrams, a_full_receiver_blocks_no_sender)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    for (const char *how : {"", " dontwait"}) {
        on(2).ok("open s rdm");
        EXPECT_EQ(on(2).ask("send s " + name(1) + " 0 66000 count=200" + how), "200 66000") << how;
        on(2).ok("close s");
    }
}

TEST_F(datagrams, a_blocking_read_waits_for_a_message)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    on(2).open_sender("s");
    on(1).tell("recv r block");
    EXPECT_EQ(on(2).ask("send s " + name(1) + " 6 10"), "10");
    EXPECT_NE(on(1).wait("done recv ").find("10 num=6"), std::string::npos);
}
