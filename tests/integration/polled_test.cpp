// An application whose callbacks run in a loop of its own, on real TIPC: the example that users copy.
#include "cluster.h"

using cluster::process;

class polled : public testing::Test
{
  protected:
    void SetUp() override
    {
        cluster::reset();
    }
};

TEST_F(polled, a_server_of_one_thread_echoes_answers_and_sees_its_peers)
{
    process server(1, "../../examples/epoll_server");
    process client(2, "zeb_agent");
    ASSERT_EQ(client.ask("register 200 thread 1"), "0");
    ASSERT_EQ(client.ask("comm 200 100"), "0");
    ASSERT_EQ(client.ask("run"), "0");
    client.wait("join 200 100/1");
    server.wait("[server] 200/2 joined");
    EXPECT_EQ(client.ask("send 200 100 all 64 1000 0"), "0");
    for (int i = 0; i < 1000; i++)
        client.wait("msg 200 100/1 len 64 ver 1 intact");
    EXPECT_EQ(client.ask("rpc 200 100 all 10 1 8"), "0 1:0 | 0 1:0 | 0 1:0 | 0 1:0 | 0 1:0 | 0 1:0 | 0 1:0 | 0 1:0");
    EXPECT_EQ(client.ask("counts"), "200 100/1 1000 bad 0");
    EXPECT_EQ(client.ask("stop"), "0");
    server.wait("[server] 200/2 quit");
}
