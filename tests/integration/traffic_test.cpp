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

constexpr int SENDER_NUM = 4;

struct load_t {
    int received;
    int returned;
    int bad;  // out of order, twice or damaged
    int peak; // the highest unacknowledged count of a pair
};

// The load of four senders on two nodes to one receiver on the third, which is slower than they are. The receiver is
// application `base`, the senders are the four after it.
class load
{
  public:
    explicit load(int base);
    load_t run(int num); // of messages for each sender

  private:
    std::string app_of(int sender) const
    {
        return std::to_string(base_ + 1 + sender);
    }
    void flood(int num);
    void count_messages();

    int base_;
    std::string target_;
    process receiver_;
    std::vector<std::unique_ptr<process>> senders_;
    load_t load_ = {};
};

load::load(int base) : base_(base), target_(std::to_string(base)), receiver_(3, "zeb_agent")
{
    EXPECT_EQ(receiver_.ask("register " + target_ + " thread 1"), "0");
    for (int i = 0; i < SENDER_NUM; i++)
        EXPECT_EQ(receiver_.ask("comm " + target_ + " " + app_of(i)), "0");
    EXPECT_EQ(receiver_.ask("quiet"), "0");
    EXPECT_EQ(receiver_.ask("run"), "0");
    for (int i = 0; i < SENDER_NUM; i++) {
        senders_.push_back(std::make_unique<process>(1 + i % 2, "zeb_agent"));
        start(*senders_.back(), app_of(i), target_);
    }
    for (int i = 0; i < SENDER_NUM; i++) {
        senders_[(size_t)i]->wait("join " + app_of(i) + " " + target_ + "/3");
        receiver_.wait("join " + target_ + " " + app_of(i) + "/");
    }
}

void load::flood(int num)
{
    for (int i = 0; i < SENDER_NUM; i++)
        senders_[(size_t)i]->tell("flood " + app_of(i) + " " + target_ + " 1 " + std::to_string(num));
    for (auto &sender : senders_) {
        std::string result = sender->wait("done flood", 600);
        EXPECT_EQ(result.substr(0, result.find(',')), "done flood 0 failed");
        load_.peak = std::max(load_.peak, atoi(result.c_str() + result.rfind(' ')));
    }
}

// Asks the receiver what it received, and each sender what was returned to it.
void load::count_messages()
{
    load_ = {0, 0, 0, load_.peak};
    std::string counts = receiver_.ask("counts");
    for (int i = 0; i < SENDER_NUM; i++) {
        (void)senders_[(size_t)i]->ask("fc " + app_of(i));
        std::string line = senders_[(size_t)i]->wait("text     Receive from application " + target_ + "/3:");
        load_.returned += atoi(line.c_str() + line.rfind(' '));
        std::string head = target_ + " " + app_of(i) + "/" + std::to_string(1 + i % 2) + " ";
        size_t at = counts.find(head);
        if (at == std::string::npos)
            continue;
        load_.received += atoi(counts.c_str() + at + head.size());
        load_.bad += atoi(counts.c_str() + counts.find(" bad ", at) + 5);
    }
}

// Counts until every message is received or returned, at most so many times.
load_t load::run(int num)
{
    flood(num);
    for (int tries = 0; tries < 300 && load_.received + load_.returned < SENDER_NUM * num; tries++)
        count_messages();
    return load_;
}

TEST_F(traffic, with_the_default_queue_every_message_arrives_or_is_counted_as_returned)
{
    // No more than the window: a returned message is never acknowledged, so more of them would block their sender for
    // ever.
    load_t seen = load(250).run(1000);
    EXPECT_EQ(seen.received + seen.returned, 4 * 1000) << seen.received << " + " << seen.returned;
}

// Runs where the receive queue has the size that operations.md advises.
class sized_traffic : public traffic
{
};

TEST_F(sized_traffic, a_hundred_thousand_messages_of_each_of_four_senders_arrive_once_and_in_order)
{
    load_t seen = load(270).run(100000);
    EXPECT_EQ(seen.received, 4 * 100000);
    EXPECT_EQ(seen.returned, 0);
    EXPECT_EQ(seen.bad, 0);
    EXPECT_GT(seen.peak, 0);
    EXPECT_LE(seen.peak, 1024 + 1) << "the window and the one message that each thread may send past it";
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
