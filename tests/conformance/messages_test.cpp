// What recvmsg gives of a message besides its data.
#include "conformance.h"

class recvmsg_of : public tipc
{
  protected:
    void SetUp() override
    {
        tipc::SetUp();
        on(1).open_receiver("r", name(1));
        on(1).open_sender("s");
    }
    void send(const std::string &to, int num, int len)
    {
        std::string size = std::to_string(len);
        ASSERT_EQ(on(1).ask("send s " + to + " " + std::to_string(num) + " " + size), size);
    }
    std::string id_of(const std::string &socket)
    {
        return on(1).ask("name " + socket);
    }
};

TEST_F(recvmsg_of, a_message_sent_by_name_carries_the_name)
{
    send(name(1), 1, 10);
    answer got = on(1).get("recv r wait=10000");
    EXPECT_EQ(got.of["dest"], type() + ":1:1");
    EXPECT_FALSE(got.has("err")) << got.text;
    EXPECT_FALSE(got.has("ret")) << got.text;
    EXPECT_FALSE(got.has("flag")) << got.text;
}

TEST_F(recvmsg_of, a_message_sent_to_a_range_binding_carries_the_name_it_was_sent_to)
{
    on(1).ok("bind r " + range(10, 20) + " 2");
    send(name(13), 1, 10);
    EXPECT_EQ(on(1).get("recv r wait=10000").of["dest"], type() + ":13:13");
}

TEST_F(recvmsg_of, a_message_sent_to_a_socket_address_carries_no_name)
{
    send(id_of("r"), 1, 10);
    answer got = on(1).get("recv r wait=10000");
    EXPECT_EQ(got.head, "10");
    EXPECT_FALSE(got.has("dest")) << got.text;
    EXPECT_EQ(got.of["from"], id_of("s"));
}

TEST_F(recvmsg_of, what_does_not_fit_the_buffer_is_lost)
{
    send(name(1), 1, 30);
    send(name(1), 2, 30);
    answer got = on(1).get("recv r wait=10000 buf=10");
    EXPECT_EQ(got.head, "10");
    EXPECT_EQ(got.of["data"], "intact") << "the first of it";
    EXPECT_EQ(got.of["flag"], "trunc");
    got = on(1).get("recv r wait=10000");
    EXPECT_EQ(got.num("num"), 2) << "not the rest of the first";
    EXPECT_FALSE(got.has("flag"));
}

TEST_F(recvmsg_of, a_buffer_that_just_fits_loses_nothing)
{
    send(name(1), 1, 30);
    answer got = on(1).get("recv r wait=10000 buf=30");
    EXPECT_EQ(got.head, "30");
    EXPECT_FALSE(got.has("flag"));
}

TEST_F(recvmsg_of, a_control_buffer_too_small_loses_the_name_and_says_so)
{
    send(name(1), 1, 30);
    answer got = on(1).get("recv r wait=10000 ctl=10");
    EXPECT_EQ(got.head, "30");
    EXPECT_EQ(got.of["flag"], "ctrunc");
    EXPECT_FALSE(got.has("dest"));
}

TEST_F(recvmsg_of, without_a_control_buffer_nothing_is_said)
{
    send(name(1), 1, 30);
    answer got = on(1).get("recv r wait=10000 ctl=0");
    EXPECT_EQ(got.head, "30");
    EXPECT_FALSE(got.has("flag")) << got.text;
    EXPECT_FALSE(got.has("dest"));
}

TEST_F(recvmsg_of, recv_alone_gives_the_data)
{
    send(name(1), 8, 30);
    answer got = on(1).get("recv r wait=10000 plain");
    EXPECT_EQ(got.head, "30");
    EXPECT_EQ(got.num("num"), 8);
}

TEST_F(recvmsg_of, a_peek_leaves_the_message)
{
    send(name(1), 5, 30);
    answer peeked = on(1).get("recv r wait=10000 peek");
    EXPECT_EQ(peeked.head, "30");
    EXPECT_EQ(peeked.of["dest"], type() + ":1:1");
    EXPECT_EQ(on(1).get("recv r peek buf=4").head, "4") << "for as often as wanted";
    answer got = on(1).get("recv r");
    EXPECT_EQ(got.text, peeked.text);
    EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
}

TEST_F(recvmsg_of, an_empty_queue_gives_eagain)
{
    EXPECT_EQ(on(1).ask("recv r"), "EAGAIN");
    EXPECT_EQ(on(1).ask("recv r plain"), "EAGAIN");
    EXPECT_EQ(on(1).ask("recv r peek"), "EAGAIN");
}

TEST_F(recvmsg_of, a_buffer_of_no_length_is_refused)
{
    send(name(1), 5, 30);
    EXPECT_EQ(on(1).ask("poll r in wait=10000"), "in");
    EXPECT_EQ(on(1).ask("recv r buf=0"), "EINVAL");
    EXPECT_EQ(on(1).get("recv r").num("num"), 5) << "the message stays";
}
