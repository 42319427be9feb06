// Calls on real TIPC.
#include <algorithm>
#include <memory>
#include <sstream>

#include "cluster.h"

using cluster::process;

class rpc : public testing::Test
{
  protected:
    void SetUp() override
    {
        cluster::reset();
    }
};

static void start(process &agent, const std::string &app, const std::string &peer, const std::string &versions = " 1",
                  const std::string &thread = " thread")
{
    ASSERT_EQ(agent.ask("register " + app + thread + versions), "0");
    if (peer != app) {
        ASSERT_EQ(agent.ask("comm " + app + " " + peer), "0");
    }
    ASSERT_EQ(agent.ask("run"), "0");
}

// The outcomes of a call, sorted by node.
static std::string sorted(const std::string &result)
{
    std::istringstream in(result);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    if (words.empty())
        return result;
    std::sort(words.begin() + 1, words.end());
    std::string out;
    for (const std::string &word : words)
        out += (out.empty() ? "" : " ") + word;
    return out;
}

TEST_F(rpc, gathers_from_three_nodes_and_meets_silence_errors_and_quits)
{
    process client(1, "zeb_agent");
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    process three(3, "zeb_agent");
    start(client, "310", "311");
    process *servers[] = {&one, &two, &three};
    for (process *server : servers)
        start(*server, "311", "310");
    for (int node = 1; node <= 3; node++)
        client.wait("join 310 311/" + std::to_string(node));
    EXPECT_EQ(sorted(client.ask("rpc 310 311 all 10 1")), "0 1:0 2:0 3:0");
    EXPECT_EQ(client.ask("rpc 310 311 2 10 1"), "0 2:0");

    ASSERT_EQ(two.ask("answer silent"), "0");
    EXPECT_EQ(sorted(client.ask("rpc 310 311 all 2 1")), "0 1:0 2:5 3:0");
    ASSERT_EQ(two.ask("answer null"), "0");
    EXPECT_EQ(sorted(client.ask("rpc 310 311 all 10 1")), "0 1:0 2:4 3:0");
    ASSERT_EQ(two.ask("answer twice"), "0");
    EXPECT_EQ(sorted(client.ask("rpc 310 311 all 10 1")), "0 1:0 2:0 3:0");
    EXPECT_EQ(sorted(client.ask("rpc 310 311 all 10 1")), "0 1:0 2:0 3:0") << "the second answer is gone";

    ASSERT_EQ(three.ask("answer keep"), "0");
    EXPECT_EQ(sorted(client.ask("rpc 310 311 all 1 1")), "0 1:0 2:0 3:5");
    ASSERT_EQ(three.ask("late"), "0");
    ASSERT_EQ(three.ask("answer silent"), "0");
    while (three.saw("msg 311"))
        three.wait("msg 311");
    client.tell("rpc 310 311 all 0 1"); // without limit
    three.wait("msg 311 310/1 len 4 ver 1");
    three.kill();
    EXPECT_EQ(sorted(client.wait("done rpc").substr(9)), "0 1:0 2:0 3:4");
}

TEST_F(rpc, a_version_without_dispatcher_is_answered_with_the_range)
{
    process client(1, "zeb_agent");
    process server(2, "zeb_agent");
    start(client, "320", "321");
    start(server, "321", "320", " 2 7 4");
    client.wait("join 320 321/2");
    EXPECT_EQ(client.ask("rpc 320 321 all 10 1"), "0 2:3[2-7]");
    EXPECT_EQ(client.ask("rpc 320 321 all 10 4"), "0 2:0");
}

TEST_F(rpc, eight_threads_call_at_once)
{
    process client(1, "zeb_agent");
    process server(2, "zeb_agent");
    start(client, "330", "331");
    start(server, "331", "330");
    client.wait("join 330 331/2");
    EXPECT_EQ(client.ask("rpc 330 331 all 20 1 8"), "0 2:0 | 0 2:0 | 0 2:0 | 0 2:0 | 0 2:0 | 0 2:0 | 0 2:0 | 0 2:0");
}

TEST_F(rpc, a_dispatcher_may_call_itself)
{
    process client(1, "zeb_agent");
    process middle(2, "zeb_agent");
    process last(3, "zeb_agent");
    ASSERT_EQ(middle.ask("register 341 thread 1"), "0");
    ASSERT_EQ(middle.ask("comm 341 340"), "0");
    ASSERT_EQ(middle.ask("comm 341 342"), "0");
    ASSERT_EQ(middle.ask("run"), "0");
    start(last, "342", "341");
    start(client, "340", "341");
    middle.wait("join 341 342/3");
    client.wait("join 340 341/2");
    ASSERT_EQ(middle.ask("answer call 342"), "0");
    EXPECT_EQ(client.ask("rpc 340 341 all 20 1"), "0 2:0");
    middle.wait("inner 0 1");
}

TEST_F(rpc, sixty_four_instances_are_gathered_and_with_a_sixty_fifth_the_call_is_refused)
{
    process client(1, "zeb_agent");
    ASSERT_EQ(client.ask("register 350 thread 1"), "0");
    ASSERT_EQ(client.ask("comm 350 351"), "0");
    ASSERT_EQ(client.ask("run"), "0");
    std::vector<std::unique_ptr<process>> servers;
    auto serve = [&servers](int board) {
        servers.push_back(std::make_unique<process>(1 + board % 3, "zeb_agent", board));
        for (const char *command : {"register 351 thread 1", "comm 351 350", "run"})
            servers.back()->tell(command);
    };
    std::string outcomes = "0";
    for (int board = 101; board <= 164; board++) {
        serve(board);
        outcomes += " " + std::to_string(board) + ":0";
    }
    for (int board = 101; board <= 164; board++)
        client.wait("join 350 351/" + std::to_string(board), 120);
    EXPECT_EQ(sorted(client.ask("rpc 350 351 all 30 1")), outcomes);
    serve(165);
    client.wait("join 350 351/165");
    EXPECT_EQ(client.ask("rpc 350 351 all 30 1"), "-105");
    EXPECT_EQ(client.ask("rpc 350 351 165 30 1"), "0 165:0") << "it is served alone";
}

TEST_F(rpc, without_a_blocked_thread_the_outcomes_are_the_same)
{
    process client(1, "zeb_agent");
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    process three(3, "zeb_agent");
    start(client, "360", "361");
    start(one, "361", "360");
    start(two, "361", "360");
    start(three, "361", "360", " 1", " inline");
    EXPECT_EQ(client.ask("online 360 361 all 3 60000"), "0 1:2 2:2 3:2");
    auto outcomes = [&](const std::string &tag) {
        return sorted(client.wait("outcomes " + tag).substr(std::string("outcomes ").size()));
    };
    ASSERT_EQ(client.ask("async a 360 361 all 10000 1"), "0");
    EXPECT_EQ(outcomes("a"), "a 1:0 2:0 3:0");
    ASSERT_EQ(client.ask("async b 360 361 2 10000 4"), "0");
    EXPECT_EQ(outcomes("b"), "b 2:3[1-1]");
    ASSERT_EQ(two.ask("answer silent"), "0");
    ASSERT_EQ(three.ask("answer null"), "0");
    ASSERT_EQ(client.ask("async c 360 361 all 300 1"), "0");
    EXPECT_EQ(outcomes("c"), "c 1:0 2:5 3:4");
    ASSERT_EQ(three.ask("answer silent"), "0");
    ASSERT_EQ(client.ask("async long 360 361 3 0 1"), "0");
    ASSERT_EQ(client.ask("async short 360 361 2 200 1"), "0");
    EXPECT_EQ(outcomes("short"), "short 2:5") << "begun later, its limit is earlier";
    three.kill();
    EXPECT_EQ(outcomes("long"), "long 3:4");
    EXPECT_EQ(client.ask("async none 360 361 3 200 1"), "-2");
    EXPECT_EQ(client.ask("online 360 361 3 1 1").substr(0, 4), "-110");
}

TEST_F(rpc, an_application_without_a_thread_gets_the_outcomes_on_the_receive_thread)
{
    process client(1, "zeb_agent");
    process server(2, "zeb_agent");
    start(client, "370", "371", " 1", " inline");
    start(server, "371", "370");
    client.wait("join 370 371/2");
    ASSERT_EQ(client.ask("async a 370 371 all 10000 1"), "0");
    EXPECT_EQ(client.wait("outcomes a"), "outcomes a 2:0");
    ASSERT_EQ(server.ask("answer silent"), "0");
    ASSERT_EQ(client.ask("async b 370 371 all 100 1"), "0");
    EXPECT_EQ(client.wait("outcomes b"), "outcomes b 2:5");
    ASSERT_EQ(client.ask("async c 370 371 all 0 1"), "0");
    server.kill();
    EXPECT_EQ(client.wait("outcomes c"), "outcomes c 2:4");
}

TEST_F(rpc, a_thousand_calls_are_in_flight_at_once)
{
    process client(1, "zeb_agent");
    process server(2, "zeb_agent");
    start(client, "380", "381");
    start(server, "381", "380");
    client.wait("join 380 381/2");
    ASSERT_EQ(server.ask("quiet 1"), "0");
    EXPECT_EQ(client.ask("storm 380 381 1000"), "1000");
}
