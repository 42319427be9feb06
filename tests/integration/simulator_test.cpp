// Faults that only the simulator can inject: a stopped broker, dropped topology connections, sends that fail, are short
// or are returned, slow links, stalled nodes.
#include "cluster.h"

using cluster::process;

class simulator : public testing::Test
{
  protected:
    void SetUp() override
    {
        cluster::reset();
    }

    static void order(const std::string &words)
    {
        std::string command = std::string(getenv("LAB")) + " " + words;
        ASSERT_EQ(system(command.c_str()), 0) << command;
    }

    static void start(process &agent, const std::string &app, const std::string &peer)
    {
        ASSERT_EQ(agent.ask("register " + app + " thread 1"), "0");
        ASSERT_EQ(agent.ask("comm " + app + " " + peer), "0");
        ASSERT_EQ(agent.ask("run"), "0");
    }
};

TEST_F(simulator, messages_go_on_without_a_broker_and_joins_with_the_next_one)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    start(one, "600", "601");
    start(two, "601", "600");
    one.wait("join 600 601/2");
    two.wait("join 601 600/1");
    order("broker-stop");
    EXPECT_EQ(one.ask("send 600 601 all 100 10 0"), "0");
    for (int i = 0; i < 10; i++)
        two.wait("msg 601 600/1 len 100 ver 1 intact");
    EXPECT_EQ(one.ask("rpc 600 601 all 10 1"), "0 2:0");
    order("broker-start");
    process three(3, "zeb_agent");
    start(three, "601", "600");
    one.wait("join 600 601/3");
    EXPECT_EQ(one.ask("rpc 600 601 3 10 1"), "0 3:0");
}

TEST_F(simulator, a_dropped_topology_connection_is_opened_again_and_the_pair_joins_anew)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    start(one, "610", "611");
    start(two, "611", "610");
    one.wait("join 610 611/2");
    two.wait("join 611 610/1");
    order("drop-topology 1");
    one.wait("quit 610 611/2"); // the new connection reports the peer, which is then synchronised with again
    two.wait("quit 611 610/1"); // its own connection stayed: the peer asks it to begin anew
    one.wait("join 610 611/2");
    two.wait("join 611 610/1");
    EXPECT_EQ(one.ask("send 610 611 all 10 1 0"), "0");
    two.wait("msg 611 610/1 len 10");
}

TEST_F(simulator, a_cut_that_is_healed_before_the_link_is_lost_loses_and_reorders_nothing)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    start(one, "615", "616");
    start(two, "616", "615");
    one.wait("join 615 616/2");
    two.wait("join 616 615/1");
    order("cut 1 2");
    for (int len = 21; len <= 25; len++)
        EXPECT_EQ(one.ask("send 615 616 all " + std::to_string(len) + " 1 0"), "0");
    order("heal 1 2");
    EXPECT_EQ(one.ask("send 615 616 all 26 1 0"), "0");
    for (int len = 21; len <= 26; len++)
        two.wait("msg 616 615/1 len " + std::to_string(len));
    EXPECT_FALSE(one.saw("quit 615") || two.saw("quit 616"));
}

TEST_F(simulator, a_send_that_fails_or_is_short_is_an_error_of_that_call_alone)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    start(one, "620", "621");
    start(two, "621", "620");
    one.wait("join 620 621/2");
    two.wait("join 621 620/1");
    order("fail --node 1 --sends 1 --errno EPIPE");
    EXPECT_NE(one.ask("send 620 621 all 10 1 0"), "0");
    order("fail --node 1 --sends 1 --short 5");
    EXPECT_NE(one.ask("send 620 621 all 11 1 0"), "0");
    EXPECT_EQ(one.ask("send 620 621 all 12 1 0"), "0");
    two.wait("msg 621 620/1 len 12");
    EXPECT_FALSE(two.saw("len 10") || two.saw("len 11"));
}

TEST_F(simulator, a_message_that_comes_back_shows_in_the_return_count)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    start(one, "630", "631");
    start(two, "631", "630");
    one.wait("join 630 631/2");
    two.wait("join 631 630/1");
    order("fail --node 1 --sends 3 --return 4");
    EXPECT_EQ(one.ask("send 630 631 all 10 3 0"), "0");
    std::string line;
    for (int tries = 0; tries < 100 && line.find("return 3") == std::string::npos; tries++) {
        ASSERT_EQ(one.ask("fc 630"), "0");
        line = one.wait("text     Receive from application 631/2:");
    }
    EXPECT_THAT(line, testing::HasSubstr("return 3"));
    EXPECT_FALSE(two.saw("len 10"));
}

TEST_F(simulator, a_slow_link_keeps_the_order)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    start(one, "640", "641");
    start(two, "641", "640");
    one.wait("join 640 641/2");
    two.wait("join 641 640/1");
    ASSERT_EQ(two.ask("quiet"), "0");
    order("delay 1 2 50");
    EXPECT_EQ(one.ask("send 640 641 all 64 200 0 0"), "0");
    order("delay 1 2 0");
    EXPECT_EQ(one.ask("send 640 641 all 64 200 0 200"), "0");
    EXPECT_EQ(one.ask("rpc 640 641 all 20 1"), "0 2:0") << "behind them all";
    EXPECT_EQ(two.ask("counts"), "641 640/1 401 bad 1") << "only the call breaks the numbers";
}

TEST_F(simulator, a_stalled_node_answers_when_it_goes_on)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    start(one, "650", "651");
    start(two, "651", "650");
    one.wait("join 650 651/2");
    two.wait("join 651 650/1");
    order("stall 2");
    EXPECT_EQ(one.ask("rpc 650 651 all 1 1"), "0 2:5");
    order("resume 2");
    EXPECT_EQ(one.ask("rpc 650 651 all 10 1"), "0 2:0");
}

TEST_F(simulator, a_process_stopped_while_it_receives_holds_nobody_up)
{
    process flooding(1, "zeb_agent");
    process receiver(2, "zeb_agent");
    process other(3, "zeb_agent");
    start(receiver, "661", "660");
    start(flooding, "660", "661");
    start(other, "660", "661");
    flooding.wait("join 660 661/2");
    other.wait("join 660 661/2");
    receiver.wait("join 661 660/1");
    ASSERT_EQ(receiver.ask("quiet"), "0");
    flooding.tell("flood 660 661 1 100000");
    for (int i = 0; i < 100; i++) {
        receiver.stop();
        EXPECT_EQ(other.ask("send 660 661 all 64 1 0"), "0");
        receiver.resume();
        EXPECT_EQ(receiver.ask("quiet"), "0") << "and receives meanwhile";
    }
    EXPECT_EQ(flooding.wait("done flood", 120).substr(0, 20), "done flood 0 failed,");
}

TEST_F(simulator, two_processes_that_share_an_application_of_a_node_are_an_error_of_both)
{
    process one(1, "zeb_agent");
    start(one, "680", "681");
    one.wait("join 680 680/1");
    process two(1, "zeb_agent");
    start(two, "680", "681");
    two.wait("3: ZEB app 680/1 is published by another socket, ");
    one.wait("3: ZEB app 680/1 is that of process ");
}

TEST_F(simulator, two_nodes_that_share_a_node_id_are_an_error_of_the_second)
{
    process one(1, "zeb_agent");
    start(one, "682", "683");
    one.wait("join 682 682/1");
    EXPECT_FALSE(one.saw("is published by another socket"));
    process two(2, "zeb_agent", 1);
    start(two, "682", "683");
    two.wait("3: ZEB app 682/1 is published by another socket, ");
}

TEST_F(simulator, a_pair_that_one_side_alone_has_named_is_told_where_it_waits)
{
    cluster::write_file(1, "/etc/zeb.conf", "[MISC_CONF]\nzeb_dbg_cfg=0xC\n");
    cluster::write_file(2, "/etc/zeb.conf", "[MISC_CONF]\nzeb_dbg_cfg=0xC\n");
    process one(1, "zeb_agent");
    start(one, "684", "685");
    process two(2, "zeb_agent");
    start(two, "685", "686");
    one.wait("2: ZEB app 684 waits for 685/2, which has not named it: name it with zeb_comm_with there.");
    EXPECT_FALSE(two.saw("name it with zeb_comm_with"));
    ASSERT_EQ(two.ask("comm 685 684"), "0"); // too late: the next connection brings it
    order("drop-topology 2");
    one.wait("join 684 685/2");
    two.wait("join 685 684/1");
}
