// Every option, on every type of socket.
#include "conformance.h"

class socket_options : public tipc, public testing::WithParamInterface<const char *>
{
  protected:
    void SetUp() override
    {
        tipc::SetUp();
        on(1).ok("open s " + kind());
    }
    std::string kind() const
    {
        return GetParam();
    }
    bool is_datagram() const
    {
        return kind() == "rdm" || kind() == "dgram";
    }
    std::string get(const std::string &option, const std::string &rest = "")
    {
        return on(1).ask("opt s tipc " + option + rest);
    }
    std::string set(const std::string &option, const std::string &value)
    {
        return on(1).ask("opt s tipc " + option + " " + value);
    }
};
INSTANTIATE_TEST_SUITE_P(types, socket_options, testing::Values("rdm", "dgram", "stream", "seqpacket"));

static const char TIMEOUT[] = "130";
static const char NODE_DEPTH[] = "131";
static const char SOCK_DEPTH[] = "132";
static const char BROADCAST[] = "133";
static const char REPLICAST[] = "134";
static const char GROUP_JOIN[] = "135";
static const char GROUP_LEAVE[] = "136";
static const char SOCK_USED[] = "137";
static const char NODELAY[] = "138";
static const char FAULT[] = "EFAULT";

TEST_P(socket_options, first_values)
{
    EXPECT_EQ(get(IMPORTANCE), "0 4");
    EXPECT_EQ(get(SRC_DROPPABLE), kind() == "dgram" ? "1 4" : "0 4");
    EXPECT_EQ(get(DEST_DROPPABLE), is_datagram() ? "1 4" : "0 4");
    EXPECT_EQ(get(TIMEOUT), "8000 4");
    for (const char *option : {NODE_DEPTH, SOCK_DEPTH, SOCK_USED, GROUP_JOIN})
        EXPECT_EQ(get(option), "0 4") << option;
    for (const char *option : {BROADCAST, REPLICAST, GROUP_LEAVE, NODELAY, "126", "139"})
        EXPECT_EQ(get(option), "EINVAL") << option;
}

TEST_P(socket_options, the_length_of_a_value)
{
    for (const char *option : {IMPORTANCE, SRC_DROPPABLE, DEST_DROPPABLE, TIMEOUT, SOCK_DEPTH}) {
        EXPECT_EQ(get(option, " len=3"), "EINVAL") << option;
        EXPECT_EQ(get(option, " len=0"), "EINVAL") << option;
        EXPECT_EQ(get(option, " len=16"), get(option)) << option;
    }
    for (const char *option : {IMPORTANCE, DEST_DROPPABLE, TIMEOUT, NODELAY}) {
        EXPECT_EQ(set(option, "1 len=3"), "EINVAL") << option;
        EXPECT_EQ(set(option, "null len=0"), "EINVAL") << option;
        EXPECT_EQ(set(option, "1 len=16"), "0") << option;
    }
    EXPECT_EQ(get(IMPORTANCE), "1 4");
    EXPECT_EQ(get(TIMEOUT), "1 4");
}

TEST_P(socket_options, pointers_to_nowhere)
{
    EXPECT_EQ(on(1).ask("fault s setopt none"), FAULT);
    EXPECT_EQ(on(1).ask("fault s getopt_len none"), FAULT);
    EXPECT_EQ(on(1).ask("fault s getopt none"), FAULT);
}

TEST_P(socket_options, importance)
{
    for (const char *value : {"3", "0", "1"}) {
        EXPECT_EQ(set(IMPORTANCE, value), "0");
        EXPECT_EQ(get(IMPORTANCE), std::string(value) + " 4");
    }
    for (const char *value : {"4", "7", "256"})
        EXPECT_EQ(set(IMPORTANCE, value), "EINVAL");
    EXPECT_EQ(get(IMPORTANCE), "1 4");
}

TEST_P(socket_options, droppable)
{
    for (const char *option : {SRC_DROPPABLE, DEST_DROPPABLE}) {
        bool settable = option != SRC_DROPPABLE || kind() != "stream";
        for (const char *value : {"0", "1", "0", "7"}) {
            EXPECT_EQ(set(option, value), settable ? "0" : "ENOPROTOOPT");
            EXPECT_EQ(get(option), settable && *value != '0' ? "1 4" : "0 4");
        }
    }
}

TEST_P(socket_options, the_time_out_of_connect_has_16_bits)
{
    EXPECT_EQ(set(TIMEOUT, "7"), "0");
    EXPECT_EQ(get(TIMEOUT), "7 4");
    EXPECT_EQ(set(TIMEOUT, "0"), "0");
    EXPECT_EQ(get(TIMEOUT), "0 4");
    EXPECT_EQ(set(TIMEOUT, "-1"), "0");
    EXPECT_EQ(get(TIMEOUT), "65535 4");
}

TEST_P(socket_options, what_only_tells_is_not_set)
{
    for (const char *option : {NODE_DEPTH, SOCK_DEPTH, SOCK_USED, "126", "139"})
        EXPECT_EQ(set(option, "1"), "EINVAL") << option;
}

TEST_P(socket_options, no_delay_is_taken_and_not_told)
{
    for (const char *value : {"1", "0", "7"})
        EXPECT_EQ(set(NODELAY, value), "0");
    EXPECT_EQ(get(NODELAY), "EINVAL");
}

TEST_P(socket_options, the_ways_of_multicast_have_no_value)
{
    for (const char *option : {BROADCAST, REPLICAST}) {
        EXPECT_EQ(set(option, "null len=0"), "0");
        EXPECT_EQ(set(option, "1"), "EINVAL");
    }
}

TEST_P(socket_options, other_levels)
{
    const std::string tcp = "6";
    EXPECT_EQ(on(1).ask("opt s 0 127 1"), "ENOPROTOOPT");
    EXPECT_EQ(on(1).ask("opt s 0 127"), "ENOPROTOOPT");
    EXPECT_EQ(on(1).ask("opt s " + tcp + " 1 1"), kind() == "stream" ? "0" : "ENOPROTOOPT");
}

TEST_P(socket_options, the_buffers)
{
    const std::string so_sndbuf = "7", so_rcvbuf = "8";
    EXPECT_EQ(on(1).ask("opt s socket " + so_rcvbuf), "2097152 4");
    EXPECT_GT(on(1).get("opt s socket " + so_sndbuf).head, "100000");
    for (const std::string &option : {so_sndbuf, so_rcvbuf}) {
        on(1).ok("opt s socket " + option + " 100000");
        EXPECT_EQ(on(1).ask("opt s socket " + option), "200000 4") << "twice what was asked for";
    }
    on(1).ok("opt s socket " + so_rcvbuf + " 1");
    EXPECT_EQ(on(1).ask("opt s socket " + so_rcvbuf), "2304 4") << "the least";
    on(1).ok("opt s socket " + so_sndbuf + " 1");
    EXPECT_EQ(on(1).ask("opt s socket " + so_sndbuf), "4608 4");
    on(1).ok("opt s socket " + so_rcvbuf + " 100000000");
    EXPECT_LT(on(1).get("opt s socket " + so_rcvbuf).num("none"), 100000000) << "there is a most";
}

TEST_P(socket_options, what_the_socket_layer_tells)
{
    const std::map<std::string, std::string> types = {
        {"stream", "1 4"}, {"dgram", "2 4"}, {"rdm", "4 4"}, {"seqpacket", "5 4"}};
    const std::string so_type = "3", so_error = "4", so_acceptconn = "30", so_protocol = "38", so_domain = "39";
    EXPECT_EQ(on(1).ask("opt s socket " + so_type), types.at(kind()));
    EXPECT_EQ(on(1).ask("opt s socket " + so_error), "0 4");
    EXPECT_EQ(on(1).ask("opt s socket " + so_acceptconn), "0 4");
    EXPECT_EQ(on(1).ask("opt s socket " + so_protocol), "0 4");
    EXPECT_EQ(on(1).ask("opt s socket " + so_domain), "30 4") << "AF_TIPC";
}

class queue_depth : public tipc
{
};

TEST_F(queue_depth, counts_messages_and_bytes)
{
    auto depth = [&](const char *option) { return on(1).get(std::string("opt r tipc ") + option).head; };
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    for (const char *size : {"1", "2", "0"})
        EXPECT_EQ(on(1).ask("send s " + name(1) + " 5 " + size), size);
    EXPECT_EQ(depth(SOCK_DEPTH), "3") << "an empty one counts";
    long small = strtol(depth(SOCK_USED).c_str(), nullptr, 10);
    EXPECT_GT(small, 3 * 500) << "a buffer's true size";
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 5 66000"), "66000");
    EXPECT_EQ(depth(SOCK_DEPTH), "4");
    EXPECT_GT(strtol(depth(SOCK_USED).c_str(), nullptr, 10), small + 66000);
    EXPECT_EQ(depth(NODE_DEPTH), "0");
    for (int i = 0; i < 2; i++)
        EXPECT_NE(on(1).get("recv r").head, "EAGAIN");
    EXPECT_EQ(depth(SOCK_DEPTH), "2");
    EXPECT_EQ(on(1).get("recv r").head, "66000") << "the empty one is skipped";
    EXPECT_EQ(depth(SOCK_DEPTH), "0");
    EXPECT_EQ(depth(SOCK_USED), "0");
}
