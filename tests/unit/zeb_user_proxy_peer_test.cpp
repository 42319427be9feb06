// How far a peer is and since when, who is online, and waiting for it.
#include <atomic>
#include <thread>

#include "internals.h"
#include "lib_test.h"

#include "zeb_flow_ctrl.h"
#include "zeb_handshake_shell.h"

#include <zeb/zeb_ext.h>

class zeb_user_proxy_peer : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        fault::hold_clock(1000);
    }

    void TearDown() override
    {
        fault::hold_clock(-1);
        lib_test::TearDown();
    }

    // "phase server since" of a peer.
    static std::string state(uint32_t node = PEER_NODE, uint32_t peer = PEER, uint32_t app = APP)
    {
        zeb_peer_state_t state;
        int ret = zeb_peer_state(app, peer, node, &state);
        if (ret != 0)
            return std::to_string(ret);
        static const char *const phases[] = {"unknown", "handshaking", "online", "blocked"};
        return std::string(phases[state.phase]) + " " + std::to_string(state.server) + " " +
               std::to_string(state.since);
    }
};

TEST_F(zeb_user_proxy_peer, a_peer_is_unknown_then_handshaking_then_online_and_unknown_again)
{
    EXPECT_EQ(state(), "unknown 0 0");
    fault::hold_clock(2000);
    peer_published();
    EXPECT_EQ(state(), "handshaking 0 2000");
    fault::hold_clock(3000);
    peer_syncs();
    EXPECT_EQ(state(), "handshaking 0 2000") << "a step further, but not there yet";
    fault::hold_clock(4000);
    peer_online();
    EXPECT_EQ(state(), "online 1 4000");
    fault::hold_clock(5000);
    receive(wire::message(from_peer(), {1}));
    EXPECT_EQ(state(), "online 1 4000");
    peer_withdrawn();
    EXPECT_EQ(state(), "unknown 0 5000");
}

TEST_F(zeb_user_proxy_peer, a_client_is_online_and_no_server)
{
    peer_online(PEER_NODE, false);
    EXPECT_EQ(state(), "online 0 1000");
    EXPECT_EQ(zeb_online_nodes(APP, PEER, nullptr, 0), 0);
}

TEST_F(zeb_user_proxy_peer, a_client_that_comes_online_by_its_traffic_has_the_time_of_that)
{
    peer_published();
    peer_syncs(PEER_SEQ, {PEER_NODE, PEER, APP, 2, PEER_PID, false});
    fault::hold_clock(9000);
    receive(wire::message(from_peer(), {1}));
    EXPECT_EQ(state(), "online 0 9000");
}

TEST_F(zeb_user_proxy_peer, a_peer_past_its_window_is_blocked_from_then_until_it_acknowledges)
{
    peer_online();
    zeb_msg_t *msg = zeb_msg_alloc(1, 1, 0);
    for (int i = 0; i < ZEB_FC_SEND_WINDOW; i++)
        ASSERT_EQ(zeb_send(APP, PEER, msg, ZEB_SEND_NOWAIT), 0);
    EXPECT_EQ(state(), "online 1 1000");
    fault::hold_clock(7000);
    ASSERT_EQ(zeb_send(APP, PEER, msg, ZEB_SEND_NOWAIT), 0);
    fault::hold_clock(8000);
    EXPECT_EQ(zeb_send(APP, PEER, msg, ZEB_SEND_NOWAIT), -EAGAIN);
    EXPECT_EQ(state(), "blocked 1 7000");
    zeb_fc_update_sent_ack(APP, {PEER, PEER_NODE}, 1);
    EXPECT_EQ(state(), "online 1 1000");
    free(msg);
}

TEST_F(zeb_user_proxy_peer, all_applications_of_the_process_see_the_same)
{
    ASSERT_EQ(add_app(APP + 1), 0);
    peer_online();
    EXPECT_EQ(state(PEER_NODE, PEER, APP + 1), "online 1 1000");
    EXPECT_EQ(state(PEER_NODE, PEER + 1), "unknown 0 0") << "nobody has named it";
}

TEST_F(zeb_user_proxy_peer, traffic_leaves_no_record)
{
    peer_online();
    zeb_peer_state_t state;
    for (uint32_t node = 0; node < 100; node++) // of instances that nobody knows
        receive(wire::message(from_peer(0, node, 1), {1}));
    EXPECT_EQ(zeb_peer_state(APP, 1, 50, &state), 0);
    EXPECT_EQ(state.since, 0u);
}

TEST_F(zeb_user_proxy_peer, this_node_is_meant_by_its_name)
{
    peer_online(NODE, true, APP, APP);
    EXPECT_EQ(state(ZEB_NODE_LOCAL, APP), "online 1 1000");
    EXPECT_EQ(zeb_wait_online(APP, APP, ZEB_NODE_LOCAL, 1, 1), 0);
}

TEST_F(zeb_user_proxy_peer, the_nodes_of_servers_are_stored_in_ascending_order_as_far_as_there_is_room)
{
    for (uint32_t node : {9u, 300u, 4u})
        peer_online(node);
    uint32_t nodes[4] = {1, 1, 1, 1};
    EXPECT_EQ(zeb_online_nodes(APP, PEER, nodes, 2), 3);
    EXPECT_THAT(nodes, testing::ElementsAre(4, 9, 1, 1));
    EXPECT_EQ(zeb_online_nodes(APP, PEER, nodes, 4), 3);
    EXPECT_THAT(nodes, testing::ElementsAre(4, 9, 300, 1));
    EXPECT_EQ(zeb_online_nodes(APP, PEER, nullptr, 0), 3);
}

TEST_F(zeb_user_proxy_peer, bad_arguments_are_refused)
{
    zeb_peer_state_t state;
    memset(&state, 0xEE, sizeof(state));
    EXPECT_EQ(zeb_peer_state(APP, PEER, 65536, &state), -EINVAL);
    EXPECT_EQ(state.phase + state.server + state.since, 0u) << "cleared";
    uint32_t node = 0;
    EXPECT_EQ(zeb_peer_state(APP, PEER, 1, nullptr), -EINVAL);
    EXPECT_EQ(zeb_peer_state(APP, PEER, ZEB_NODE_ALL, &state), -EINVAL);
    EXPECT_EQ(zeb_peer_state(APP, 8192, 1, &state), -EINVAL);
    EXPECT_EQ(zeb_peer_state(0, PEER, 1, &state), -EINVAL);
    EXPECT_EQ(zeb_peer_state(999, PEER, 1, &state), -ENOENT);
    EXPECT_EQ(zeb_online_nodes(APP, PEER, nullptr, 1), -EINVAL);
    EXPECT_EQ(zeb_online_nodes(APP, PEER, &node, -1), -EINVAL);
    EXPECT_EQ(zeb_online_nodes(999, PEER, &node, 1), -ENOENT);
    EXPECT_EQ(zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 0, 1), -EINVAL);
    EXPECT_EQ(zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 65537, 1), -EINVAL);
    EXPECT_EQ(zeb_wait_online(APP, PEER, 3, 2, 1), -EINVAL);
    EXPECT_EQ(zeb_wait_online(APP, PEER, 65536, 1, 1), -EINVAL);
    EXPECT_EQ(zeb_wait_online(APP, 0, 3, 1, 1), -EINVAL);
    EXPECT_EQ(zeb_wait_online(999, PEER, 3, 1, 1), -ENOENT);
}

class zeb_user_proxy_peer_wait : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    static void wait_for_waiters(int num)
    {
        wait_until([=] { return fault::waits(internals::running_cond()) >= num; });
    }
};

TEST_F(zeb_user_proxy_peer_wait, who_waits_goes_on_with_the_last_server_and_not_before)
{
    int before = fault::waits(internals::running_cond());
    std::atomic<int> result{1};
    std::thread waiting([&] { result = zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 2, 0); });
    wait_for_waiters(before + 1);
    int broadcasts = fault::broadcasts(internals::running_cond());
    peer_online(3);
    EXPECT_EQ(fault::broadcasts(internals::running_cond()), broadcasts + 1);
    peer_online(4, false); // a client does not count
    EXPECT_EQ(fault::broadcasts(internals::running_cond()), broadcasts + 1) << "nor does it wake anybody";
    EXPECT_EQ(result, 1);
    peer_online(5);
    waiting.join();
    EXPECT_EQ(result, 0);
}

TEST_F(zeb_user_proxy_peer_wait, a_server_of_a_node_is_waited_for_by_itself)
{
    int before = fault::waits(internals::running_cond());
    std::thread waiting([&] { EXPECT_EQ(zeb_wait_online(APP, PEER, 5, 1, 0), 0); });
    wait_for_waiters(before + 1);
    peer_online(3);
    EXPECT_EQ(zeb_wait_online(APP, PEER, 3, 1, 0), 0) << "there already";
    peer_online(5);
    waiting.join();
}

TEST_F(zeb_user_proxy_peer_wait, a_wait_ends_with_its_time)
{
    EXPECT_EQ(zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 1, 1), -ETIMEDOUT);
    peer_online(3);
    EXPECT_EQ(zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 2, 1), -ETIMEDOUT);
    peer_withdrawn(3);
    EXPECT_EQ(zeb_wait_online(APP, PEER, 3, 1, 1), -ETIMEDOUT) << "it has gone";
}

static std::atomic<int> s_in_callback{1};

static void *wait_in_callback(zeb_msg_t *msg)
{
    s_in_callback = zeb_wait_online(APP, PEER, PEER_NODE, 1, 1000);
    free(msg);
    return nullptr;
}

TEST_F(zeb_user_proxy_peer_wait, a_callback_on_the_receive_thread_is_refused)
{
    const zeb_msg_dispatcher_t table[] = {{1, wait_in_callback}, {0, nullptr}};
    ASSERT_EQ(zeb_register_without_thread(APP + 1, "inline", table, nullptr), 0);
    fake_tipc::queue_data(sd(APP + 1), wire::message(from_peer(0, 5, 1, APP + 1), {1}));
    zeb_run();
    wait_until([] { return s_in_callback != 1; });
    EXPECT_EQ(s_in_callback, -EDEADLK);
}
