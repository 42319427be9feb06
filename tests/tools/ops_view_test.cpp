// The view, on a node of the simulator: what plain sockets publish and withdraw while it is open.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <platform/tipc_name.h>

#include "ops_client.h"
#include "ops_view.h"

constexpr int64_t LONG = 30000; // ms, for what comes at once

class ops_view : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(ops_view_open(&view_), 0);
    }

    void TearDown() override
    {
        ops_view_close(&view_);
    }

    static int publish(uint32_t lower, uint32_t upper)
    {
        int sd = socket(AF_TIPC, SOCK_RDM, 0);
        struct sockaddr_tipc addr = tipc_name(OPS_NAME_TYPE, lower, TIPC_CLUSTER_SCOPE);
        addr.addrtype = TIPC_ADDR_NAMESEQ;
        addr.addr.nameseq = {OPS_NAME_TYPE, lower, upper};
        EXPECT_EQ(bind(sd, (struct sockaddr *)&addr, sizeof(addr)), 0);
        return sd;
    }

    static int publish(ops_inst_t inst)
    {
        return publish(ops_name_of(inst), ops_name_of(inst));
    }

    // The next change, and of whom.
    std::string change()
    {
        ops_change_t change = OPS_NO_CHANGE;
        ops_inst_t inst = {};
        for (int64_t deadline = ops_now() + LONG; ops_now() < deadline;) {
            struct pollfd entry = {view_.sd, POLLIN, 0};
            (void)poll(&entry, 1, 100);
            if (ops_view_read(&view_, &change, &inst) == 0 && change != OPS_NO_CHANGE)
                return (change == OPS_JOINED ? "joined " : "quit ") + std::to_string(inst.app) + "@" +
                       std::to_string(inst.node);
        }
        return "nothing";
    }

    ops_view_t view_ = {};
};

TEST_F(ops_view, what_is_there_is_in_the_view_when_it_is_in_step)
{
    EXPECT_EQ(ops_view_sync(&view_, ops_now() + LONG), 0);
    EXPECT_TRUE(view_.insts.empty());
    int sd = publish({100, 65535});
    ops_view_t other = {};
    ASSERT_EQ(ops_view_open(&other), 0);
    EXPECT_EQ(ops_view_sync(&other, ops_now() + LONG), 0);
    EXPECT_EQ(ops_view_sockets(&other, {100, 65535}), 1U);
    EXPECT_EQ(other.insts.size(), 1U);
    ops_view_close(&other);
    (void)close(sd);
}

TEST_F(ops_view, joins_and_quits_come_as_they_happen)
{
    int sd = publish({100, 3});
    EXPECT_EQ(change(), "joined 100@3");
    (void)close(sd);
    EXPECT_EQ(change(), "quit 100@3");
    EXPECT_TRUE(view_.insts.empty());
}

TEST_F(ops_view, an_instance_of_two_sockets_quits_with_the_second)
{
    int first = publish({100, 3});
    int second = publish({100, 3});
    EXPECT_EQ(change(), "joined 100@3");
    (void)close(first);
    int other = publish({101, 3});
    EXPECT_EQ(change(), "joined 101@3") << "and no quit before it";
    EXPECT_EQ(ops_view_sockets(&view_, {100, 3}), 1U);
    (void)close(second);
    EXPECT_EQ(change(), "quit 100@3");
    (void)close(other);
}

TEST_F(ops_view, names_that_are_no_instances_are_counted_and_left_out)
{
    int range = publish(100U << 16 | 4, UINT32_MAX);
    int group = publish(12288U << 16, 12288U << 16);
    int inst = publish({100, 3});
    EXPECT_EQ(change(), "joined 100@3");
    EXPECT_EQ(view_.odd, 2U);
    EXPECT_EQ(view_.insts.size(), 1U);
    for (int sd : {range, group, inst})
        (void)close(sd);
}

TEST_F(ops_view, a_second_client_of_a_node_is_refused_and_the_first_keeps_the_name)
{
    ops_client_t first = {};
    ops_client_t second = {};
    ASSERT_EQ(ops_client_open(&first, &view_, 1, ops_now() + LONG), 0);
    EXPECT_EQ(ops_client_open(&second, &view_, 1, ops_now() + LONG), -EADDRINUSE);
    EXPECT_EQ(ops_client_open(&second, &view_, 2, ops_now() + LONG), 0) << "of another node";
    ops_client_close(&second);
    ops_view_t late = {-1, {}, 0, 0, 0, 0}; // has not seen the first: two that start at the same moment
    ASSERT_EQ(ops_view_open(&late), 0);
    EXPECT_EQ(ops_client_open(&second, &late, 1, ops_now() + LONG), -EADDRINUSE);
    EXPECT_EQ(ops_view_sync(&view_, ops_now() + LONG), 0);
    EXPECT_EQ(ops_view_sockets(&view_, {ZEBD_APP_ID, 1}), 1U);
    ops_view_close(&late);
    ops_client_close(&first);
}
