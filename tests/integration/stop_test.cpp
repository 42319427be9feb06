// Ending the library in a process that goes on, on real TIPC.
#include "cluster.h"

using cluster::process;

class stop : public testing::Test
{
  protected:
    void SetUp() override
    {
        cluster::reset();
    }
};

// Registers `app` with one dispatcher, as partner of `peer`, and runs.
static void start(process &agent, const std::string &app, const std::string &peer)
{
    ASSERT_EQ(agent.ask("register " + app + " thread 1"), "0");
    ASSERT_EQ(agent.ask("comm " + app + " " + peer), "0");
    ASSERT_EQ(agent.ask("run"), "0");
}

TEST_F(stop, peers_see_the_quit_and_a_second_start_joins_again)
{
    process stays(1, "zeb_agent");
    process stops(2, "zeb_agent");
    start(stays, "700", "701");
    for (int round = 0; round < 3; round++) {
        start(stops, "701", "700");
        stays.wait("join 700 701/2");
        stops.wait("join 701 700/1");
        EXPECT_EQ(stays.ask("send 700 701 all 4 1 0"), "0");
        stops.wait("msg 701 700/1 len 4 ver 1 intact");
        EXPECT_EQ(stops.ask("send 701 700 all 8 1 0"), "0");
        stays.wait("msg 700 701/2 len 8 ver 1 intact");
        EXPECT_EQ(stays.ask("rpc 700 701 all 10 1"), "0 2:0");
        EXPECT_EQ(stops.ask("stop"), "0");
        stays.wait("quit 700 701/2");
        EXPECT_EQ(stays.ask("send 700 701 all 4 1 0"), "-2");
        EXPECT_EQ(stops.ask("send 701 700 all 4 1 0"), "-2");
    }
}

TEST_F(stop, is_at_once_before_the_names_are_bound_and_in_the_poll)
{
    process agent(1, "zeb_agent");
    for (int round = 0; round < 20; round++) { // each would take a second or two if nothing woke the receive thread
        start(agent, "705", "706");
        EXPECT_EQ(agent.ask("stop"), "0");
    }
    start(agent, "705", "705");
    agent.wait("join 705 705/1");
    EXPECT_EQ(agent.ask("stop"), "0");
    EXPECT_EQ(agent.ask("stop"), "0");
}

TEST_F(stop, a_blocked_sender_and_a_waiting_caller_are_released)
{
    process receiver(2, "zeb_agent");
    process sender(1, "zeb_agent");
    start(receiver, "710", "711");
    start(sender, "711", "710");
    sender.wait("join 711 710/2");
    receiver.wait("join 710 711/1");
    receiver.stop();
    EXPECT_EQ(sender.ask("send 711 710 all 64 1025 0"), "0");
    sender.tell("behind rpc 711 710 all 3600 1");
    sender.tell("behind send 711 710 all 64 1 0");
    while (sender.ask("unack 711") != "1026") // the request is out; neither has a result
        continue;
    EXPECT_FALSE(sender.saw("done behind"));
    EXPECT_EQ(sender.ask("stop"), "0");
    sender.wait("done behind rpc -108");
    sender.wait("done behind send -108");
    receiver.resume();
    receiver.wait("quit 710 711/1");
}
