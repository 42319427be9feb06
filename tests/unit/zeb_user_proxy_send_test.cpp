// zeb_send and zeb_sendto.
#include "by_number.h"
#include "handshake_core.h"
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_user_proxy.h"

#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <thread>
#include <unistd.h>

class zeb_user_proxy_send : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        ASSERT_EQ(zeb_comm_with(APP, 201), 0);
    }

    ~zeb_user_proxy_send() override
    {
        free(msg_);
    }

    // Destinations of what was sent since the last look, as "app/node".
    static lines_t destinations()
    {
        lines_t out;
        for (const fake_tipc::sent_t &sent : fake_tipc::take_sent()) {
            wire::header_t header = wire::header_of(sent.bytes);
            EXPECT_EQ(sent.dst.addr.name.name.instance, header.dst_app << 16 | header.dst_node);
            out.push_back(std::to_string(header.dst_app) + "/" + std::to_string(header.dst_node));
        }
        return out;
    }

    static std::string fc_text()
    {
        return listing(zeb_cli_print_fc_stat);
    }

    // This node's own instance of APP comes online.
    void self_online()
    {
        peer_online(NODE, true, APP, APP);
        (void)take_seen();
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 3, 0);
};

TEST_F(zeb_user_proxy_send, bad_senders_and_messages_are_refused)
{
    for (uint32_t app : {0u, 8192u, 12288u, 20480u})
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_send(app, PEER, msg_, 0), -EINVAL); }),
                  lines_t({"3 ZEB src app ID " + std::to_string(app) + " invalid."}));
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_sendto(APP, 1, PEER, nullptr, 0), -EINVAL); }),
              lines_t({"3 ZEB app 100 send msg NULL."}));
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 0,")) << "not counted";
}

TEST_F(zeb_user_proxy_send, bad_destinations_are_refused_and_counted)
{
    for (uint32_t app : {8192u, 12287u, 20480u, 0xFFFFFFFFu})
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_send(APP, app, msg_, 0), -EINVAL); }),
                  lines_t({"3 ZEB app 100 to dst app ID " + std::to_string((int)app) + " invalid."}));
    for (uint32_t node : {65536u, 0x7FFFFu, 0x90000u, 0xFFFFFFFDu})
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_sendto(APP, node, PEER, msg_, 0), -EINVAL); }),
                  lines_t({"3 ZEB app 100 to dst node ID " + std::to_string((int)node) + " invalid."}));
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 8,"));
}

TEST_F(zeb_user_proxy_send, a_spoilt_header_length_is_refused_and_nothing_is_sent)
{
    peer_online();
    (void)fake_tipc::take_sent();
    for (uint32_t len : {0u, 35u, 61477u, 0x24000000u}) {
        msg_->hdr.len = len;
        lines_t line({"3 ZEB app 100 msg len " + std::to_string(len) + " invalid, not 36 to 61476."});
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -EINVAL); }), line);
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, 0), -EINVAL); }), line);
        EXPECT_EQ(msg_->hdr.len, len) << "the message stays as it is";
    }
    EXPECT_TRUE(destinations().empty());
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 0,")) << "not counted";
}

TEST_F(zeb_user_proxy_send, the_shortest_and_the_longest_message_are_sent)
{
    peer_online();
    (void)fake_tipc::take_sent();
    for (int size : {0, ZEB_MSG_MAX_DATA}) {
        zeb_msg_t *msg = zeb_msg_alloc(size, 1, 0);
        EXPECT_EQ(zeb_send(APP, PEER, msg, 0), 0);
        free(msg);
    }
    EXPECT_EQ(destinations(), lines_t({"200/9", "200/9"}));
}

TEST_F(zeb_user_proxy_send, without_a_server_the_result_is_enoent)
{
    EXPECT_EQ(logged(V, [&] { EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT); })[1],
              "0 ZEB app 100 to 200 has no server.");
    EXPECT_THAT(logged(V, [&] { EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT); }),
                testing::Contains("0 ZEB app 100 send 200(0xc8) has no server."));
    EXPECT_TRUE(destinations().empty());
}

TEST_F(zeb_user_proxy_send, a_message_goes_to_every_server_in_ascending_order)
{
    for (uint32_t node : {500u, 3u, 65535u, 64u})
        peer_online(node);
    peer_online(77, false); // a client
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), 0);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 4u);
    wire::header_t header = wire::header_of(sent[0].bytes);
    EXPECT_EQ(header.flag, 0);
    EXPECT_EQ(header.seq, 0u);
    EXPECT_EQ(header.stat, 0u);
    EXPECT_EQ(header.app_ver, 3u);
    EXPECT_EQ(header.src_app, APP);
    EXPECT_EQ(header.src_node, NODE);
    lines_t nodes;
    for (const fake_tipc::sent_t &one : sent)
        nodes.push_back(std::to_string(wire::header_of(one.bytes).dst_node));
    EXPECT_EQ(nodes, lines_t({"3", "64", "500", "65535"}));
    EXPECT_THAT(fc_text(), testing::HasSubstr("total send 4, unack 4,"));
}

TEST_F(zeb_user_proxy_send, destination_0_is_the_sender_itself)
{
    self_online();
    peer_online(3, true, APP);
    EXPECT_EQ(zeb_send(APP, 0, msg_, 0), 0);
    EXPECT_EQ(destinations(), lines_t({"100/3", "100/7"}));
    EXPECT_EQ(zeb_send(APP, 0, msg_, ZEB_SEND_EXCLUDE_SELF), 0);
    EXPECT_EQ(destinations(), lines_t({"100/3"}));
    EXPECT_EQ(zeb_sendto(APP, ZEB_NODE_LOCAL, APP, msg_, 0), 0);
    EXPECT_EQ(destinations(), lines_t({"100/7"}));
}

TEST_F(zeb_user_proxy_send, excluding_oneself_when_alone_is_enoent)
{
    self_online();
    EXPECT_EQ(zeb_send(APP, APP, msg_, ZEB_SEND_EXCLUDE_SELF), -ENOENT);
    EXPECT_EQ(zeb_sendto(APP, NODE, APP, msg_, ZEB_SEND_EXCLUDE_SELF), -ENOENT);
    EXPECT_TRUE(destinations().empty());
}

TEST_F(zeb_user_proxy_send, one_node_is_sent_to_alone)
{
    peer_online(3);
    peer_online(4);
    EXPECT_EQ(zeb_sendto(APP, 4, PEER, msg_, 0), 0);
    EXPECT_EQ(destinations(), lines_t({"200/4"}));
    lines_t lines = logged(V, [&] { EXPECT_EQ(zeb_sendto(APP, 5, PEER, msg_, 0), -ENOENT); });
    EXPECT_THAT(lines, testing::Not(testing::Contains("0 ZEB app 100 to 200 has no server.")));
    EXPECT_EQ(lines[1], "0 ZEB app 100 sendto 200/5(0xc8/0x5) has no server.");
    EXPECT_EQ(zeb_sendto(APP, ZEB_NODE_ALL, PEER, msg_, 0), 0);
    EXPECT_EQ(destinations(), lines_t({"200/3", "200/4"}));
}

TEST_F(zeb_user_proxy_send, all_nodes_is_zeb_send_and_logs_its_line_too)
{
    peer_online(3);
    lines_t lines = logged(V, [&] { EXPECT_EQ(zeb_sendto(APP, ZEB_NODE_ALL, PEER, msg_, 0), 0); });
    EXPECT_THAT(lines[0], testing::StartsWith("0 ZEB user app 100 sendto 200/-1(0xc8/0xffffffff), msg "));
    EXPECT_THAT(lines[1], testing::StartsWith("0 ZEB user app 100 send 200(0xc8), msg "));
}

TEST_F(zeb_user_proxy_send, a_group_reaches_its_members_and_skips_an_absent_one)
{
    int group = zeb_create_app_mcast(APP);
    EXPECT_EQ(zeb_send(APP, (uint32_t)group, msg_, 0), -ENOENT) << "empty";
    for (uint32_t app : {201u, PEER, 300u})
        ASSERT_EQ(zeb_add_app_mcast(APP, (uint32_t)group, app), 0);
    EXPECT_EQ(zeb_send(APP, (uint32_t)group, msg_, 0), -ENOENT);
    peer_online(3);
    peer_online(4, true, 201);
    EXPECT_THAT(logged(V, [&] { EXPECT_EQ(zeb_send(APP, (uint32_t)group, msg_, 0), 0); }),
                testing::Contains("0 ZEB app 100 to 300 has no server."));
    EXPECT_EQ(destinations(), lines_t({"201/4", "200/3"})) << "in the order of the places";
    EXPECT_EQ(zeb_sendto(APP, 4, (uint32_t)group, msg_, 0), 0);
    EXPECT_EQ(destinations(), lines_t({"201/4"}));
}

TEST_F(zeb_user_proxy_send, a_node_group_is_sent_to_in_list_order)
{
    for (uint32_t node : {3u, 4u, 5u})
        peer_online(node);
    uint32_t group = (uint32_t)zeb_create_node_mcast(APP);
    for (uint32_t node : {5u, 3u, 9u})
        ASSERT_EQ(zeb_add_node_mcast(APP, group, node), 0);
    EXPECT_EQ(zeb_sendto(APP, group, PEER, msg_, 0), 0);
    EXPECT_EQ(destinations(), lines_t({"200/5", "200/3"}));
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_sendto(APP, 0x8FFFF, PEER, msg_, 0), -ENOENT); }),
              lines_t({"3 ZEB app 100 does not create node-private-mcast 589823."}));
}

static void fill_window(uint32_t app, uint32_t node)
{
    for (int i = 0; i < 1025; i++)
        zeb_fc_update_sent_ok(APP, {app, node});
}

TEST_F(zeb_user_proxy_send, one_refused_member_sends_to_none)
{
    peer_online(3);
    peer_online(4, true, 201);
    uint32_t group = (uint32_t)zeb_create_app_mcast(APP);
    ASSERT_EQ(zeb_add_app_mcast(APP, group, PEER), 0);
    ASSERT_EQ(zeb_add_app_mcast(APP, group, 201), 0);
    fill_window(201, 4);
    EXPECT_EQ(logged(W, [&] { EXPECT_EQ(zeb_send(APP, group, msg_, ZEB_SEND_NOWAIT), -EAGAIN); }),
              lines_t({"2 ZEB app 100 to 201 check msg flow ctrl failed: Resource temporarily unavailable."}));
    EXPECT_TRUE(destinations().empty());
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 1,"));
}

TEST_F(zeb_user_proxy_send, one_failed_write_does_not_stop_the_others)
{
    for (uint32_t node : {3u, 4u, 5u})
        peer_online(node);
    fault::fail_next("sendto", EHOSTUNREACH, 1, 1);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -1);
    EXPECT_EQ(destinations(), lines_t({"200/3", "200/5"}));
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/4: send 0, unack 0, reject 1,"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/5: send 1, unack 1, reject 0,"));
}

TEST_F(zeb_user_proxy_send, the_message_stays_the_callers_in_host_order)
{
    peer_online(3);
    memcpy(msg_->data, "abcd", 4);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), 0);
    EXPECT_EQ(msg_->hdr.len, wire::HEADER_LEN + 4);
    EXPECT_EQ(msg_->hdr.dst_node, 3u) << "its last destination";
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), 0);
    EXPECT_EQ(wire::body_of(fake_tipc::take_sent().at(1).bytes), wire::bytes_t({'a', 'b', 'c', 'd'}));
}

TEST_F(zeb_user_proxy_send, a_group_with_the_sender_in_it_can_leave_its_own_instance_out)
{
    self_online();
    peer_online(3);
    peer_online(4, true, APP);
    uint32_t group = (uint32_t)zeb_create_app_mcast(APP);
    ASSERT_EQ(zeb_add_app_mcast(APP, group, APP), 0);
    ASSERT_EQ(zeb_add_app_mcast(APP, group, PEER), 0);
    EXPECT_EQ(zeb_send(APP, group, msg_, ZEB_SEND_EXCLUDE_SELF), 0);
    EXPECT_EQ(destinations(), lines_t({"100/4", "200/3"}));
    EXPECT_EQ(zeb_send(APP, PEER, msg_, ZEB_SEND_EXCLUDE_SELF), 0) << "other applications are whole";
    EXPECT_EQ(destinations(), lines_t({"200/3"}));
}

TEST_F(zeb_user_proxy_send, another_application_keeps_its_instance_on_this_node)
{
    peer_online(NODE);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, ZEB_SEND_EXCLUDE_SELF), 0);
    EXPECT_EQ(destinations(), lines_t({"200/7"}));
}

TEST_F(zeb_user_proxy_send, a_node_that_is_listed_twice_is_sent_to_twice)
{
    zeb_dst_t dst;
    memset(&dst, 0xFF, sizeof(dst)); // no place is taken
    dst.all_nodes = false;
    dst.node_num = ZEB_NODE_MC_MBR_NUM;
    const uint32_t places[] = {9, 3, 9, 65536, 5};
    memcpy(dst.nodes.mbr, places, sizeof(places));
    static zeb_app_set_t servers;
    for (uint32_t node : {3u, 9u, 40u})
        EXPECT_TRUE(zeb_app_set_add(&servers, node));
    std::vector<uint32_t> nodes;
    zeb_each_instance(&dst, &servers, [&](uint32_t node) { nodes.push_back(node); });
    EXPECT_EQ(nodes, std::vector<uint32_t>({9, 3, 9}));
}

TEST_F(zeb_user_proxy_send, sending_drops_a_returned_acknowledgement_towards_the_instance)
{
    peer_online(3);
    peer_online(4);
    for (uint32_t node : {3u, 4u}) {
        zeb_msg_sync_inst_t body = {1, 1, 1, 0, 600};
        zeb_msg_t *ack = zeb_new_sync_inst_ack_msg(APP, {PEER, node}, &body);
        zeb_process_return_sync(ack);
        free(ack);
    }
    EXPECT_EQ(zeb_sendto(APP, 3, PEER, msg_, 0), 0);
    zeb_scoped_lock lock(&g_lib_mutex);
    ASSERT_FALSE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
    struct list_head *left = g_zeb_handshake.sync_inst_ack_list.next;
    EXPECT_EQ(list_record<zeb_returned_ack_t>(left)->dst.node, 4u);
    EXPECT_EQ(left->next, &g_zeb_handshake.sync_inst_ack_list);
}

TEST_F(zeb_user_proxy_send, every_failed_write_is_counted_for_its_instance)
{
    for (uint32_t node : {3u, 4u})
        peer_online(node);
    fault::fail_next("sendto", EHOSTUNREACH, 2);
    EXPECT_EQ(zeb_sendto(APP, ZEB_NODE_ALL, PEER, msg_, 0), -1);
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/3: send 0, unack 0, reject 1,"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/4: send 0, unack 0, reject 1,"));
}

TEST_F(zeb_user_proxy_send, a_full_socket_is_a_failed_write)
{
    peer_online(3);
    fault::reset();
    fault::fail_next("sendto", EAGAIN);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, ZEB_SEND_NOWAIT), -1);
    EXPECT_EQ(fault::count("sendto"), 1);
}

TEST_F(zeb_user_proxy_send, a_refused_sendto_is_counted_for_the_node_it_named)
{
    EXPECT_EQ(zeb_sendto(APP, 3, PEER, msg_, 0), -ENOENT);
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/3: send 0, unack 0, reject 1,"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 0,"));
}

// Standard output into a file, to be looked at while another thread prints.
class printed_t
{
  public:
    explicit printed_t(const std::string &path) : path_(path)
    {
        (void)fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_APPEND, 0600);
        (void)dup2(fd, STDOUT_FILENO);
        (void)close(fd);
    }
    ~printed_t()
    {
        (void)fflush(stdout);
        (void)dup2(saved_, STDOUT_FILENO);
        (void)close(saved_);
    }
    printed_t(const printed_t &) = delete;
    printed_t &operator=(const printed_t &) = delete;

    std::string text() const
    {
        (void)fflush(stdout);
        std::ifstream in(path_);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

  private:
    std::string path_;
    int saved_ = -1;
};

// A sender that passes the pre-check and waits for credit finds its only server gone when it goes on.
class zeb_user_proxy_send_gone : public zeb_user_proxy_send
{
  protected:
    std::string send_while_it_goes(const std::function<int()> &call)
    {
        peer_online(3);
        fill_window(PEER, 3);
        printed_t printed(dir() + "/out");
        zeb_store_relaxed(&g_zeb_dbg_level, V);
        int ret = 0;
        std::thread sender([&] { ret = call(); });
        wait_until([&] {
            return printed.text().find("ZEB app 100 to 200 wait for flow ctrl condition.") != std::string::npos;
        });
        peer_withdrawn(3);
        sender.join();
        zeb_store_relaxed(&g_zeb_dbg_level, 0u);
        EXPECT_EQ(ret, -ENOENT);
        EXPECT_TRUE(destinations().empty());
        return printed.text();
    }
};

TEST_F(zeb_user_proxy_send_gone, zeb_send_says_so)
{
    std::string text = send_while_it_goes([&] { return zeb_send(APP, PEER, msg_, 0); });
    EXPECT_THAT(text, testing::HasSubstr("0: ZEB app 100 send 200(0xc8) has no server while sending.\n"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 1,"));
}

TEST_F(zeb_user_proxy_send_gone, zeb_sendto_says_so)
{
    std::string text = send_while_it_goes([&] { return zeb_sendto(APP, 3, PEER, msg_, 0); });
    EXPECT_THAT(text, testing::HasSubstr("0: ZEB app 100 sendto 200/3(0xc8/0x3) has no server while sending.\n"));
}

// Before anything is registered.
class zeb_user_proxy_unregistered : public lib_test
{
  protected:
    zeb_msg_t *msg_ = zeb_msg_alloc(4, 3, 0);
    ~zeb_user_proxy_unregistered() override
    {
        free(msg_);
    }
};

TEST_F(zeb_user_proxy_unregistered, sending_finds_no_server)
{
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT);
    EXPECT_EQ(zeb_sendto(APP, 3, PEER, msg_, 0), -ENOENT);
}

TEST_F(zeb_user_proxy_unregistered, a_server_that_is_online_is_not_said_to_be_missing)
{
    start_app(APP + 1);
    peer_online(PEER_NODE, true, PEER, APP + 1);
    const lines_t lines = {"3 ZEB app 100 get flow control failed.",
                           "2 ZEB app 100 to 200 check msg flow ctrl failed: No such file or directory.",
                           "3 ZEB app 100 get flow control failed."};
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT); }), lines);
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, 0), -ENOENT); }), lines);
    lines_t all = logged(V, [&] {
        (void)zeb_send(APP, PEER, msg_, 0);
        (void)zeb_sendto(APP, PEER_NODE, PEER, msg_, 0);
    });
    EXPECT_THAT(all, testing::Each(testing::Not(testing::HasSubstr("has no server"))));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_user_proxy_unregistered, this_node_is_no_destination_while_it_is_not_known)
{
    no_node();
    EXPECT_THAT(logged(E, [&] { EXPECT_EQ(zeb_sendto(APP, ZEB_NODE_LOCAL, PEER, msg_, 0), -EINVAL); }),
                testing::Contains("3 ZEB app 100 to dst node ID -1 invalid."));
}

TEST_F(zeb_user_proxy_unregistered, the_senders_own_application_is_skipped_while_this_node_is_not_known)
{
    no_node();
    lines_t lines = logged(V, [&] { EXPECT_EQ(zeb_send(APP, APP, msg_, ZEB_SEND_EXCLUDE_SELF), -ENOENT); });
    EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 send 100(0x64) has no server."));
    EXPECT_THAT(lines, testing::Not(testing::Contains("0 ZEB app 100 to 100 has no server.")));
}
