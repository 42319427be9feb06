// One-way messages, groups and flow control on real TIPC.
#include "cluster.h"

#include <memory>

using cluster::process;

class traffic : public testing::Test
{
  protected:
    void SetUp() override
    {
        cluster::reset();
    }
};

static void start(process &agent, const std::string &app, const std::string &peer,
                  const std::string &thread = " thread")
{
    ASSERT_EQ(agent.ask("register " + app + thread + " 1"), "0");
    ASSERT_EQ(agent.ask("comm " + app + " " + peer), "0");
    ASSERT_EQ(agent.ask("run"), "0");
}

TEST_F(traffic, to_all_to_one_to_this_and_excluding_oneself)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    process three(3, "zeb_agent");
    process *all[] = {&one, &two, &three};
    for (process *agent : all)
        start(*agent, "210", "210");
    for (process *agent : all) {
        for (int node = 1; node <= 3; node++)
            agent->wait("join 210 210/" + std::to_string(node));
    }
    EXPECT_EQ(one.ask("send 210 210 all 16 1 4"), "0");
    two.wait("msg 210 210/1 len 16");
    three.wait("msg 210 210/1 len 16");
    EXPECT_EQ(one.ask("send 210 210 3 17 1 0"), "0");
    three.wait("msg 210 210/1 len 17");
    EXPECT_EQ(one.ask("send 210 210 local 18 1 0"), "0");
    one.wait("msg 210 210/1 len 18");
    EXPECT_FALSE(one.saw("len 16") || one.saw("len 17") || two.saw("len 17"));
    EXPECT_EQ(one.ask("send 210 210 9 4 1 0"), "-2");
}

TEST_F(traffic, the_largest_payload_arrives_intact_and_a_larger_one_cannot_be_made)
{
    process sender(1, "zeb_agent");
    process receiver(2, "zeb_agent");
    start(sender, "220", "221");
    start(receiver, "221", "220");
    sender.wait("join 220 221/2");
    EXPECT_EQ(sender.ask("send 220 221 all 61440 3 0"), "0");
    for (int i = 0; i < 3; i++)
        receiver.wait("msg 221 220/1 len 61440 ver 1 intact");
    EXPECT_EQ(sender.ask("send 220 221 all 61441 1 0"), "-1000");
    EXPECT_EQ(sender.ask("send 220 221 all 0 1 0"), "0");
    receiver.wait("msg 221 220/1 len 0");
}

TEST_F(traffic, an_application_without_thread_serves_too)
{
    process sender(1, "zeb_agent");
    process receiver(2, "zeb_agent");
    start(sender, "230", "231", " nothread");
    start(receiver, "231", "230", " nothread");
    sender.wait("join 230 231/2");
    receiver.wait("join 231 230/1");
    EXPECT_EQ(sender.ask("send 230 231 all 100 5 0"), "0");
    for (int i = 0; i < 5; i++)
        receiver.wait("msg 231 230/1 len 100 ver 1 intact");
    EXPECT_EQ(sender.ask("rpc 230 231 all 5 1"), "0 2:0");
}

TEST_F(traffic, a_thousand_messages_keep_their_order)
{
    process sender(1, "zeb_agent");
    process receiver(2, "zeb_agent");
    start(sender, "240", "241");
    start(receiver, "241", "240");
    sender.wait("join 240 241/2");
    ASSERT_EQ(receiver.ask("quiet"), "0");
    EXPECT_EQ(sender.ask("send 240 241 all 64 3000 0"), "0");
    EXPECT_EQ(sender.ask("rpc 240 241 all 20 1"), "0 2:0") << "behind them all";
    EXPECT_EQ(receiver.ask("counts"), "241 240/1 3001 bad 1") << "only the call breaks the numbers";
}

TEST_F(traffic, four_senders_and_one_slow_receiver_lose_nothing)
{
    process receiver(3, "zeb_agent");
    ASSERT_EQ(receiver.ask("register 250 thread 1"), "0");
    for (int app = 251; app <= 254; app++)
        ASSERT_EQ(receiver.ask("comm 250 " + std::to_string(app)), "0");
    ASSERT_EQ(receiver.ask("quiet"), "0");
    ASSERT_EQ(receiver.ask("run"), "0");
    std::vector<std::unique_ptr<process>> senders;
    for (int i = 0; i < 4; i++) {
        senders.push_back(std::make_unique<process>(1 + i % 2, "zeb_agent"));
        start(*senders.back(), std::to_string(251 + i), "250");
    }
    for (int i = 0; i < 4; i++)
        senders[(size_t)i]->wait("join " + std::to_string(251 + i) + " 250/3");
    ASSERT_EQ(receiver.ask("slow 20"), "0");
    constexpr int num = 5000;
    for (int i = 0; i < 4; i++)
        senders[(size_t)i]->tell("send " + std::to_string(251 + i) + " 250 all 64 " + std::to_string(num) + " 0");
    for (auto &sender : senders)
        EXPECT_EQ(sender->wait("done send", 300), "done send 0");
    int returned = 0;
    for (int i = 0; i < 4; i++) {
        std::string app = std::to_string(251 + i);
        EXPECT_EQ(senders[(size_t)i]->ask("rpc " + app + " 250 all 120 1", 200), "0 3:0");
        (void)senders[(size_t)i]->ask("fc " + app);
        std::string line = senders[(size_t)i]->wait("text     Receive from application 250/3:");
        returned += atoi(line.c_str() + line.rfind(' '));
    }
    std::string counts = receiver.ask("counts");
    int received = 0;
    for (int i = 0; i < 4; i++) {
        std::string head = "250 " + std::to_string(251 + i) + "/" + std::to_string(1 + i % 2) + " ";
        size_t at = counts.find(head);
        ASSERT_NE(at, std::string::npos) << counts;
        received += atoi(counts.c_str() + at + head.size()) - 1; // the call
    }
    EXPECT_EQ(received + returned, 4 * num) << counts << " returned " << returned;
}

TEST_F(traffic, blocked_senders_wake_when_their_receiver_is_killed)
{
    process receiver(2, "zeb_agent");
    start(receiver, "260", "261");
    process sender(1, "zeb_agent");
    start(sender, "261", "260");
    sender.wait("join 261 260/2");
    receiver.wait("join 260 261/1");
    receiver.stop();
    EXPECT_EQ(sender.ask("send 261 260 all 64 1025 0"), "0");
    EXPECT_EQ(sender.ask("send 261 260 all 64 1 1"), "-11") << "without waiting";
    sender.tell("send 261 260 all 64 1 0");
    receiver.kill();
    sender.wait("quit 261 260/2");
    EXPECT_NE(sender.wait("done send", 30), "done send 0");
}
