// One-way messages, groups and flow control on real TIPC.
#include "cluster.h"

#include <algorithm>
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

// Four senders on two nodes send `num` messages each to one receiver that is slower than they are. Returns how many
// arrived and how many came back, after each sender's call that travels behind its messages.
struct load_t {
    int received;
    int returned;
    int bad;  // out of order, twice or damaged
    int peak; // the highest unacknowledged count of a pair
};

static void run_load(const std::string &base, int num, load_t *load)
{
    int first = atoi(base.c_str());
    std::string target = std::to_string(first);
    process receiver(3, "zeb_agent");
    ASSERT_EQ(receiver.ask("register " + target + " thread 1"), "0");
    for (int i = 1; i <= 4; i++)
        ASSERT_EQ(receiver.ask("comm " + target + " " + std::to_string(first + i)), "0");
    ASSERT_EQ(receiver.ask("quiet"), "0");
    ASSERT_EQ(receiver.ask("run"), "0");
    std::vector<std::unique_ptr<process>> senders;
    for (int i = 0; i < 4; i++) {
        senders.push_back(std::make_unique<process>(1 + i % 2, "zeb_agent"));
        start(*senders.back(), std::to_string(first + 1 + i), target);
    }
    for (int i = 0; i < 4; i++) {
        std::string app = std::to_string(first + 1 + i);
        senders[(size_t)i]->wait("join " + app + " " + target + "/3");
        receiver.wait("join " + target + " " + app + "/");
    }
    for (int i = 0; i < 4; i++)
        senders[(size_t)i]->tell("flood " + std::to_string(first + 1 + i) + " " + target + " 1 " + std::to_string(num));
    for (auto &sender : senders) {
        std::string result = sender->wait("done flood", 600);
        EXPECT_EQ(result.substr(0, result.find(',')), "done flood 0 failed");
        load->peak = std::max(load->peak, atoi(result.c_str() + result.rfind(' ')));
    }
    for (int tries = 0; tries < 300 && load->received + load->returned < 4 * num; tries++) {
        *load = {0, 0, 0, load->peak};
        std::string counts = receiver.ask("counts");
        for (int i = 0; i < 4; i++) {
            std::string app = std::to_string(first + 1 + i);
            (void)senders[(size_t)i]->ask("fc " + app);
            std::string line = senders[(size_t)i]->wait("text     Receive from application " + target + "/3:");
            load->returned += atoi(line.c_str() + line.rfind(' '));
            std::string head = target + " " + app + "/" + std::to_string(1 + i % 2) + " ";
            size_t at = counts.find(head);
            if (at == std::string::npos)
                continue;
            load->received += atoi(counts.c_str() + at + head.size());
            load->bad += atoi(counts.c_str() + counts.find(" bad ", at) + 5);
        }
    }
}

TEST_F(traffic, with_the_default_queue_every_message_arrives_or_is_counted_as_returned)
{
    // Within the window: what was returned is never acknowledged, and more of it would block its sender for good.
    load_t load = {};
    run_load("250", 1000, &load);
    EXPECT_EQ(load.received + load.returned, 4 * 1000) << load.received << " + " << load.returned;
}

// Runs where the receive queue is sized as operations.md advises.
class sized_traffic : public traffic
{
};

TEST_F(sized_traffic, a_hundred_thousand_messages_of_each_of_four_senders_arrive_once_and_in_order)
{
    load_t load = {};
    run_load("270", 100000, &load);
    EXPECT_EQ(load.received, 4 * 100000);
    EXPECT_EQ(load.returned, 0);
    EXPECT_EQ(load.bad, 0);
    EXPECT_GT(load.peak, 0);
    EXPECT_LE(load.peak, 1024 + 1) << "the window and the one message that each thread may send past it";
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
    sender.tell("flood 261 260 8 1");
    receiver.kill();
    sender.wait("quit 261 260/2");
    EXPECT_EQ(sender.wait("done flood", 30).substr(0, 20), "done flood 8 failed,") << "all of them wake";
}

TEST_F(traffic, eight_threads_pass_the_window_by_one_message_each_at_most)
{
    process receiver(2, "zeb_agent");
    start(receiver, "265", "266");
    process sender(1, "zeb_agent");
    start(sender, "266", "265");
    sender.wait("join 266 265/2");
    receiver.wait("join 265 266/1");
    ASSERT_EQ(receiver.ask("quiet"), "0");
    receiver.stop();
    sender.tell("flood 266 265 8 1000");
    int waiting = 0;
    for (int tries = 0; tries < 1000 && waiting <= 1024; tries++)
        waiting = atoi(sender.ask("unack 266").c_str());
    EXPECT_GT(waiting, 1024);
    EXPECT_LE(waiting, 1024 + 8);
    receiver.resume();
    std::string result = sender.wait("done flood", 120);
    EXPECT_EQ(result.substr(0, 20), "done flood 0 failed,");
    EXPECT_LE(atoi(result.c_str() + result.rfind(' ')), 1024 + 8);
}
