// Joining, quitting and coming back, on real TIPC.
#include "cluster.h"

using cluster::process;

class join_quit : public testing::Test
{
  protected:
    void SetUp() override
    {
        cluster::reset();
    }
    void TearDown() override
    {
        cluster::reset();
    }
};

// Registers `app` with one dispatcher (or none), as partner of `peer`, and runs.
static void start(process &agent, const std::string &app, const std::string &peer, const std::string &versions = " 1",
                  const std::string &thread = " thread")
{
    ASSERT_EQ(agent.ask("register " + app + thread + versions), "0");
    if (peer != app) {
        ASSERT_EQ(agent.ask("comm " + app + " " + peer), "0");
    }
    ASSERT_EQ(agent.ask("run"), "0");
}

TEST_F(join_quit, both_sides_see_each_other_whoever_starts_first)
{
    for (bool server_first : {true, false}) {
        process first(1, "zeb_agent");
        process second(2, "zeb_agent");
        std::string a = server_first ? "100" : "101";
        std::string b = server_first ? "200" : "201";
        start(server_first ? first : second, a, b);
        (server_first ? first : second).wait("join " + a + " " + a + "/"); // it is bound
        start(server_first ? second : first, b, a);
        (server_first ? first : second).wait("join " + a + " " + b + "/");
        (server_first ? second : first).wait("join " + b + " " + a + "/");
    }
}

TEST_F(join_quit, three_nodes_at_once)
{
    process one(1, "zeb_agent");
    process two(2, "zeb_agent");
    process three(3, "zeb_agent");
    process *all[] = {&one, &two, &three};
    for (process *agent : all)
        start(*agent, "110", "110");
    for (process *agent : all) {
        for (int node = 1; node <= 3; node++)
            agent->wait("join 110 110/" + std::to_string(node));
    }
    EXPECT_EQ(one.ask("send 110 110 all 4 1 0"), "0");
    for (process *agent : all)
        agent->wait("msg 110 110/1 len 4 ver 1 intact");
}

TEST_F(join_quit, own_instance_comes_online_by_itself)
{
    process alone(2, "zeb_agent");
    start(alone, "115", "115");
    alone.wait("join 115 115/2");
    EXPECT_EQ(alone.ask("send 115 115 all 4 1 4"), "-2") << "alone and excluded";
    EXPECT_EQ(alone.ask("send 115 0 local 4 1 0"), "0");
    alone.wait("msg 115 115/2 len 4");
}

TEST_F(join_quit, a_killed_process_quits_and_joins_again)
{
    process client(1, "zeb_agent");
    start(client, "120", "121");
    for (int round = 0; round < 2; round++) {
        process server(2, "zeb_agent");
        start(server, "121", "120");
        client.wait("join 120 121/2");
        server.wait("join 121 120/1");
        server.kill();
        client.wait("quit 120 121/2");
    }
}

TEST_F(join_quit, a_killed_process_quits_though_children_that_it_forked_live_on)
{
    process client(1, "zeb_agent");
    start(client, "122", "123");
    process server(2, "zeb_agent");
    start(server, "123", "122");
    client.wait("join 122 123/2");
    ASSERT_EQ(server.ask("fork"), "0");
    EXPECT_EQ(client.ask("send 122 123 all 4 1 0"), "0") << "the child takes nothing from its parent";
    server.wait("msg 123 122/1 len 4");
    server.kill();
    client.wait("quit 122 123/2");
    process next(2, "zeb_agent");
    start(next, "123", "122");
    client.wait("join 122 123/2");
}

TEST_F(join_quit, a_cut_link_quits_both_sides_and_a_healed_one_joins_them_again)
{
    process client(1, "zeb_agent");
    process server(2, "zeb_agent");
    start(client, "130", "131");
    start(server, "131", "130");
    client.wait("join 130 131/2");
    server.wait("join 131 130/1");
    cluster::cut(2);
    client.wait("quit 130 131/2");
    server.wait("quit 131 130/1");
    EXPECT_EQ(client.ask("send 130 131 all 4 1 0"), "-2");
    cluster::heal(2);
    client.wait("join 130 131/2", 120);
    server.wait("join 131 130/1", 120);
    EXPECT_EQ(client.ask("send 130 131 all 4 1 0"), "0");
    server.wait("msg 131 130/1 len 4");
}

TEST_F(join_quit, a_dead_node_quits_and_joins_again_when_it_is_back)
{
    process client(1, "zeb_agent");
    start(client, "140", "141");
    {
        process server(3, "zeb_agent");
        start(server, "141", "140");
        client.wait("join 140 141/3");
        cluster::node_down(3);
        client.wait("quit 140 141/3");
    }
    cluster::node_up(3);
    process server(3, "zeb_agent");
    start(server, "141", "140");
    client.wait("join 140 141/3");
}

TEST_F(join_quit, a_client_is_never_counted_as_a_server)
{
    process client(1, "zeb_agent");
    process server(2, "zeb_agent");
    start(client, "150", "151", "");
    start(server, "151", "150");
    client.wait("join 150 151/2");
    EXPECT_EQ(client.ask("send 150 151 all 8 1 0"), "0");
    server.wait("msg 151 150/1 len 8 ver 1 intact");
    EXPECT_EQ(server.ask("send 151 150 all 4 1 0"), "-2");
    EXPECT_FALSE(server.saw("join 151 150/"));
}

TEST_F(join_quit, of_two_local_subscribers_one_sees_the_join_and_the_first_the_quit)
{
    process local(1, "zeb_agent");
    ASSERT_EQ(local.ask("register 160 thread 1"), "0");
    ASSERT_EQ(local.ask("register 161 thread 1"), "0");
    ASSERT_EQ(local.ask("comm 160 162"), "0");
    ASSERT_EQ(local.ask("comm 161 162"), "0");
    ASSERT_EQ(local.ask("run"), "0");
    process remote(2, "zeb_agent");
    ASSERT_EQ(remote.ask("register 162 thread 1"), "0");
    ASSERT_EQ(remote.ask("comm 162 160"), "0");
    ASSERT_EQ(remote.ask("comm 162 161"), "0");
    ASSERT_EQ(remote.ask("run"), "0");
    local.wait(" 162/2");
    remote.wait("join 162 160/1");
    remote.wait("join 162 161/1");
    // Both may send, although only one was notified.
    EXPECT_EQ(local.ask("send 160 162 all 4 1 0"), "0");
    EXPECT_EQ(local.ask("send 161 162 all 4 1 0"), "0");
    remote.wait("msg 162 160/1");
    remote.wait("msg 162 161/1");
    EXPECT_FALSE(local.saw(" 162/2")) << "one join in all";
    remote.kill();
    local.wait("quit 160 162/2");
    EXPECT_FALSE(local.saw("quit 161 162/2"));
}

TEST_F(join_quit, subscribers_that_ask_for_it_each_see_the_join_and_the_quit_and_their_calls_end)
{
    process local(1, "zeb_agent");
    ASSERT_EQ(local.ask("register 163 thread 1"), "0");
    ASSERT_EQ(local.ask("register 164 every 1"), "0");
    ASSERT_EQ(local.ask("register 165 every 1"), "0");
    for (const char *app : {"163", "164", "165"})
        ASSERT_EQ(local.ask(std::string("comm ") + app + " 166"), "0");
    ASSERT_EQ(local.ask("run"), "0");
    for (int round = 0; round < 2; round++) {
        process remote(2, "zeb_agent");
        ASSERT_EQ(remote.ask("register 166 thread 1"), "0");
        for (const char *app : {"163", "164", "165"})
            ASSERT_EQ(remote.ask(std::string("comm 166 ") + app), "0");
        ASSERT_EQ(remote.ask("answer silent"), "0");
        ASSERT_EQ(remote.ask("run"), "0");
        for (const char *app : {"163", "164", "165"})
            remote.wait(std::string("join 166 ") + app + "/1");
        local.wait("join 164 166/2");
        local.wait("join 165 166/2");
        for (const char *app : {"164", "165"}) {
            local.tell(std::string("behind rpc ") + app + " 166 all 3600 1");
            remote.wait(std::string("msg 166 ") + app + "/1");
        }
        remote.kill();
        local.wait("quit 164 166/2");
        local.wait("quit 165 166/2");
        for (int call = 0; call < 2; call++)
            local.wait("done behind rpc 0 2:4"); // ZEB_SYSTEM_ERR
        for (const char *app : {"164 166/2", "165 166/2"}) {
            EXPECT_FALSE(local.saw(std::string("join ") + app)) << "once";
            EXPECT_FALSE(local.saw(std::string("quit ") + app)) << "once";
        }
    }
}

TEST_F(join_quit, a_missing_node_file_fails_the_registration_until_it_is_there)
{
    cluster::remove_file(1, "/tmp/addr/.zeb_node_addr");
    process agent(1, "zeb_agent");
    EXPECT_EQ(agent.ask("register 170 thread 1"), "-1");
    cluster::write_file(1, "/tmp/addr/.zeb_node_addr", "65536\n");
    EXPECT_EQ(agent.ask("register 170 thread 1"), "-1");
    agent.wait("3: ZEB get node address 65536 invalid.");
    cluster::write_file(1, "/tmp/addr/.zeb_node_addr", "garbage\n");
    EXPECT_EQ(agent.ask("register 170 thread 1"), "-1");
    agent.wait("3: ZEB get node address config failed.");
    cluster::write_file(1, "/tmp/addr/.zeb_node_addr", "1\n");
    EXPECT_EQ(agent.ask("register 170 thread 1"), "0");
}

TEST_F(join_quit, a_broken_configuration_file_is_reported_and_survived)
{
    cluster::write_file(1, "/etc/zeb.conf", "[MISC_CONF]\nzeb_dbg_cfg=0xc\n[APP_INFO_TBL]\n100\n \n[[[\n%s%n%d\n");
    process agent(1, "zeb_agent");
    start(agent, "175", "175");
    agent.wait("2: ZEB get invalid config item: 100");
    agent.wait("3: ZEB get app 175 config failed.");
    agent.wait("join 175 175/1");
}

TEST_F(join_quit, registering_too_late_or_twice_is_refused)
{
    process agent(1, "zeb_agent");
    ASSERT_EQ(agent.ask("register 180 thread 1"), "0");
    EXPECT_EQ(agent.ask("register 180 thread 1"), "-17");
    ASSERT_EQ(agent.ask("run"), "0");
    EXPECT_EQ(agent.ask("register 181 thread 1"), "-1");
    agent.wait("3: ZEB had already running, and app 181 can not be registered.");
}
