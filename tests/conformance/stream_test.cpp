// What a connection of SOCK_STREAM carries: bytes, whose messages have no bounds.
#include "connections.h"

class stream : public connections
{
};
INSTANTIATE_TEST_SUITE_P(types, stream, testing::Values("stream"));

TEST_P(stream, a_read_takes_as_much_as_it_asks_for)
{
    for (int node : {1, 2}) {
        join(node);
        EXPECT_EQ(on(node).ask("write c 0 10"), "10");
        EXPECT_EQ(on(1).ask("read a 0 4 peek wait=10000"), "4 data=intact");
        EXPECT_EQ(on(1).ask("read a 0 4"), "4 data=intact") << "no word of what is left";
        EXPECT_EQ(on(1).ask("read a 4 4 trunc"), "4 data=intact");
        EXPECT_EQ(on(1).ask("read a 8 100 eor"), "2 data=intact");
        EXPECT_EQ(on(1).ask("read a 10 100"), "EAGAIN");
    }
}

TEST_P(stream, a_read_joins_what_was_written_apart)
{
    join(1);
    EXPECT_EQ(on(1).ask("write c 0 10"), "10");
    EXPECT_EQ(on(1).ask("write c 10 20"), "20");
    EXPECT_EQ(on(1).ask("readall a 0 25 piece=25"), "25 data=intact");
    EXPECT_EQ(on(1).ask("readall a 25 5"), "5 data=intact");
}

TEST_P(stream, both_ways_at_once)
{
    join(2);
    EXPECT_EQ(on(2).ask("write c 0 3000"), "3000");
    EXPECT_EQ(on(1).ask("write a 500 3000"), "3000");
    EXPECT_EQ(on(1).ask("readall a 0 3000"), "3000 data=intact");
    EXPECT_EQ(on(2).ask("readall c 500 3000"), "3000 data=intact");
}

TEST_P(stream, waitall_waits_for_all)
{
    join(2);
    EXPECT_EQ(on(2).ask("write c 0 4"), "4");
    EXPECT_EQ(on(1).ask("poll a in wait=10000"), "in");
    on(1).tell("read a 0 10 waitall");
    EXPECT_EQ(on(2).ask("write c 4 3"), "3");
    EXPECT_EQ(on(2).ask("write c 7 5"), "5");
    EXPECT_NE(on(1).wait("done read ").find("read 10 data=intact"), std::string::npos);
    EXPECT_EQ(on(1).ask("read a 10 10"), "2 data=intact");
}

TEST_P(stream, a_megabyte_written_at_once)
{
    join(2);
    on(2).tell("write c 0 1048576");
    EXPECT_EQ(on(1).ask("readall a 0 1048576 piece=50000"), "1048576 data=intact");
    EXPECT_NE(on(2).wait("done write ").find("write 1048576"), std::string::npos);
    EXPECT_EQ(on(1).ask("read a 0 10"), "EAGAIN");
}

TEST_P(stream, more_than_66000_bytes_are_written_and_read_at_once)
{
    join(1);
    EXPECT_EQ(on(1).ask("write c 0 66001"), "66001");
    EXPECT_EQ(on(1).ask("readall a 0 66001 piece=66001"), "66001 data=intact");
}

TEST_P(stream, an_empty_write_wakes_the_reader_and_gives_nothing)
{
    join(2);
    EXPECT_EQ(on(2).ask("write c 0 0"), "0");
    EXPECT_EQ(on(1).ask("poll a in wait=10000"), "in");
    EXPECT_EQ(on(1).ask("read a 0 10"), "EAGAIN");
    EXPECT_EQ(on(1).ask("poll a all"), "out") << "the read took it";
}

TEST_P(stream, a_read_of_no_bytes_is_refused)
{
    join(1);
    EXPECT_EQ(on(1).ask("read a 0 0"), "EINVAL");
    EXPECT_EQ(on(1).ask("write c 0 5"), "5");
    EXPECT_EQ(on(1).ask("poll a all wait=10000"), "in out rdnorm");
    EXPECT_EQ(on(1).ask("read a 0 0"), "EINVAL");
    EXPECT_EQ(on(1).ask("read a 0 10 oob"), "5 data=intact") << "there is no other kind of data";
}

// How much goes to a reader that does not read. The window begins with 128 blocks of 1,024 bytes; an acknowledgement,
// which small messages ask for at once, makes it 512. A message has 24 bytes more than its data, and at least one
// block.
TEST_P(stream, a_reader_that_does_not_read_stops_the_writer)
{
    const std::map<std::string, std::string> sent = {{"1", "513"},    {"64", "513"},  {"999", "513"},
                                                     {"1000", "257"}, {"60000", "3"}, {"66000", "2"}};
    for (int node : {1, 2}) {
        for (const auto &one : sent) {
            join(node);
            EXPECT_EQ(on(node).ask("send c none 0 " + one.first + " count=5000 dontwait"), one.second + " EAGAIN");
            EXPECT_EQ(on(node).ask("poll c all"), "none");
        }
    }
}

TEST_P(stream, a_write_too_large_for_the_window_is_done_in_part)
{
    join(2);
    EXPECT_EQ(on(2).ask("write c 0 1048576 dontwait"), "132000") << "two messages of the largest size";
    EXPECT_EQ(on(2).ask("write c 132000 1048576 dontwait"), "EAGAIN");
    EXPECT_EQ(on(2).ask("poll c all"), "none");
    EXPECT_EQ(on(1).ask("readall a 0 132000 piece=132000"), "132000 data=intact");
    EXPECT_EQ(on(2).ask("poll c out wait=10000"), "out");
    EXPECT_EQ(on(2).ask("write c 132000 1048576 dontwait"), "462000") << "the window has grown";
    EXPECT_EQ(on(1).ask("readall a 132000 462000"), "462000 data=intact");
}

TEST_P(stream, the_writer_goes_on_when_a_quarter_of_the_window_is_read)
{
    join(1);
    EXPECT_EQ(on(1).ask("send c none 0 64 count=5000 dontwait"), "513 EAGAIN");
    for (int i = 0; i < 127; i++)
        EXPECT_EQ(on(1).get("recv a buf=64").head, "64");
    EXPECT_EQ(on(1).ask("poll c all"), "none");
    EXPECT_EQ(on(1).get("recv a buf=64").head, "64");
    EXPECT_EQ(on(1).ask("poll c out wait=10000"), "out");
    EXPECT_EQ(on(1).ask("send c none 0 64 count=5000 dontwait"), "128 EAGAIN");
}

TEST_P(stream, without_delay_it_asks_for_no_early_acknowledgement)
{
    join(2);
    on(2).ok("opt c tipc 138 1"); // TIPC_NODELAY
    EXPECT_EQ(on(2).ask("send c none 0 64 count=5000 dontwait"), "129 EAGAIN");
}

TEST_P(stream, importance_does_not_change_the_window)
{
    join(2);
    on(2).ok(std::string("opt c tipc ") + IMPORTANCE + " 3");
    EXPECT_EQ(on(2).ask("send c none 0 64 count=5000 dontwait"), "513 EAGAIN");
}

TEST_P(stream, a_blocked_write_that_a_signal_ends_says_how_much_has_gone)
{
    join(2);
    EXPECT_EQ(on(2).get("interrupted c send plain none none").head, "66000");
    EXPECT_EQ(on(2).get("interrupted c send plain none none").head, "66000");
    EXPECT_EQ(on(2).get("interrupted c send plain none none").head, "EINTR") << "nothing has";
    EXPECT_EQ(on(2).ask("timeout c send 40"), "40 16");
    EXPECT_EQ(on(2).ask("write c 0 1000"), "EAGAIN");
}

TEST_P(stream, a_blocked_write_goes_on_when_the_reader_reads)
{
    join(2);
    EXPECT_EQ(on(2).ask("write c 0 132000 dontwait"), "132000");
    on(2).tell("write c 132000 66000");
    EXPECT_EQ(on(1).ask("readall a 0 198000"), "198000 data=intact");
    EXPECT_NE(on(2).wait("done write ").find("write 66000"), std::string::npos);
}

TEST_P(stream, a_blocked_write_ends_when_the_reader_closes)
{
    join(2);
    EXPECT_EQ(on(2).ask("write c 0 132000 dontwait"), "132000");
    on(2).tell("write c 132000 66000");
    on(1).ok("close a");
    EXPECT_NE(on(2).wait("done write ").find("EPIPE"), std::string::npos);
    answer got = on(2).get("recv c");
    EXPECT_EQ(got.of["err"], NO_PORT);
    EXPECT_EQ(got.num("ret"), 1024);
}
