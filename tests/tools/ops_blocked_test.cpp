// Who waits for whom, from synthetic statistics.
#include <gtest/gtest.h>

#include "ops_blocked.h"

constexpr int32_t FULL = OPS_WINDOW + 1;
constexpr int64_t BEFORE = 10000; // ms of the two looks
constexpr int64_t AFTER = 11000;

class ops_blocked_test : public testing::Test
{
  protected:
    // An instance with these messages in its queue, and this number of received ones.
    static void put(ops_looks_t *looks, ops_inst_t inst, uint32_t queue, uint32_t recv)
    {
        ops_look_t *look = &looks->insts[ops_name_of(inst)];
        look->known = true;
        look->stat.parts = OPS_STAT_WHOLE;
        look->stat.queue = queue;
        look->stat.recv = recv;
    }

    // The same at both looks: what it has queued stands.
    void stands(ops_inst_t inst)
    {
        put(&before_, inst, 2000, 77);
        put(&after_, inst, 2000, 77);
    }

    void sends(ops_inst_t from, ops_inst_t to, int32_t unack)
    {
        if (after_.insts.count(ops_name_of(from)) == 0)
            stands(from);
        before_.insts[ops_name_of(from)].stat.sends.push_back({to, 5000, unack, 0, 0});
        after_.insts[ops_name_of(from)].stat.sends.push_back({to, 5000, unack, 0, 0});
    }

    ops_blocked_t look()
    {
        return ops_blocked(before_, after_, since_);
    }

    static std::string names(const std::vector<ops_inst_t> &insts)
    {
        std::string text;
        for (ops_inst_t inst : insts)
            text += (text.empty() ? "" : " ") + std::to_string(inst.app) + "@" + std::to_string(inst.node);
        return text;
    }

    ops_looks_t before_ = {BEFORE, {}};
    ops_looks_t after_ = {AFTER, {}};
    ops_blocked_since_t since_;
};

TEST_F(ops_blocked_test, a_window_is_full_above_1024)
{
    sends({100, 1}, {200, 2}, 1024);
    stands({200, 2});
    EXPECT_TRUE(look().edges.empty());
    sends({100, 1}, {200, 3}, 1025);
    stands({200, 3});
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.edges.size(), 1U);
    EXPECT_EQ(blocked.edges[0].receiver.node, 3U);
    EXPECT_EQ(blocked.edges[0].unack, 1025);
    EXPECT_TRUE(blocked.cycles.empty());
    EXPECT_TRUE(blocked.unsure.empty());
}

TEST_F(ops_blocked_test, two_that_wait_for_each_other_are_a_cycle_and_have_no_root)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({200, 2}, {100, 1}, FULL);
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.cycles.size(), 1U);
    EXPECT_EQ(names(blocked.cycles[0].insts), "100@1 200@2");
    EXPECT_EQ(blocked.cycles[0].tied, 2U);
    EXPECT_TRUE(ops_cycle_stands(blocked, blocked.cycles[0]));
    EXPECT_TRUE(blocked.roots.empty());
}

TEST_F(ops_blocked_test, a_cycle_of_three_is_named_in_the_order_of_waiting)
{
    sends({100, 1}, {300, 3}, FULL);
    sends({300, 3}, {200, 2}, FULL);
    sends({200, 2}, {100, 1}, FULL);
    sends({400, 4}, {200, 2}, FULL); // waits for the cycle
    sends({500, 5}, {400, 4}, FULL);
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.cycles.size(), 1U);
    EXPECT_EQ(names(blocked.cycles[0].insts), "100@1 300@3 200@2");
    EXPECT_EQ(names(blocked.cycles[0].waiting), "400@4 500@5");
    EXPECT_TRUE(blocked.roots.empty());
}

TEST_F(ops_blocked_test, a_cycle_one_of_which_takes_messages_does_not_stand)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({200, 2}, {100, 1}, FULL);
    after_.insts[ops_name_of({200, 2})].stat.recv++;
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.cycles.size(), 1U);
    EXPECT_FALSE(ops_cycle_stands(blocked, blocked.cycles[0]));
}

TEST_F(ops_blocked_test, an_instance_that_waits_for_itself_is_a_cycle_of_one)
{
    sends({100, 1}, {100, 1}, FULL);
    sends({200, 2}, {100, 1}, FULL);
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.cycles.size(), 1U);
    EXPECT_EQ(names(blocked.cycles[0].insts), "100@1");
    EXPECT_EQ(blocked.cycles[0].tied, 1U);
    EXPECT_EQ(names(blocked.cycles[0].waiting), "200@2");
    EXPECT_TRUE(blocked.roots.empty());
}

TEST_F(ops_blocked_test, two_cycles_that_share_an_instance_are_one_knot)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({200, 2}, {100, 1}, FULL);
    sends({200, 2}, {300, 3}, FULL);
    sends({300, 3}, {200, 2}, FULL);
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.cycles.size(), 1U);
    EXPECT_EQ(names(blocked.cycles[0].insts), "100@1 200@2");
    EXPECT_EQ(blocked.cycles[0].tied, 3U);
    EXPECT_TRUE(blocked.cycles[0].waiting.empty());
}

TEST_F(ops_blocked_test, two_cycles_that_share_none_are_two)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({200, 2}, {100, 1}, FULL);
    sends({300, 3}, {400, 4}, FULL);
    sends({400, 4}, {300, 3}, FULL);
    EXPECT_EQ(look().cycles.size(), 2U);
}

TEST_F(ops_blocked_test, a_chain_names_its_root_and_who_waits_farthest)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({200, 2}, {300, 3}, FULL);
    stands({300, 3});
    ops_blocked_t blocked = look();
    EXPECT_TRUE(blocked.cycles.empty());
    ASSERT_EQ(blocked.roots.size(), 1U);
    EXPECT_EQ(names({blocked.roots[0].inst}), "300@3");
    EXPECT_EQ(names(blocked.roots[0].chain), "100@1 200@2 300@3");
    EXPECT_EQ(names(blocked.roots[0].waiting), "200@2 100@1");
    const ops_receiver_t &root = blocked.receivers[ops_name_of({300, 3})];
    EXPECT_EQ(root.there, OPS_THERE);
    EXPECT_EQ(root.moves, OPS_STANDS);
    EXPECT_EQ(root.unread, 2000U);
}

TEST_F(ops_blocked_test, a_chain_that_leaves_a_cycle_names_the_cycle_and_the_root)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({200, 2}, {100, 1}, FULL);
    sends({200, 2}, {300, 3}, FULL);
    stands({300, 3});
    ops_blocked_t blocked = look();
    EXPECT_EQ(blocked.cycles.size(), 1U);
    ASSERT_EQ(blocked.roots.size(), 1U);
    EXPECT_EQ(names(blocked.roots[0].waiting), "200@2 100@1");
}

TEST_F(ops_blocked_test, many_senders_to_one_receiver_have_one_root_and_the_largest_comes_first)
{
    sends({90, 1}, {95, 9}, FULL);
    stands({95, 9});
    for (uint32_t node = 1; node <= 5; node++)
        sends({100, node}, {200, 7}, FULL);
    stands({200, 7});
    ops_blocked_t blocked = look();
    EXPECT_EQ(blocked.edges.size(), 6U);
    ASSERT_EQ(blocked.roots.size(), 2U);
    EXPECT_EQ(names({blocked.roots[0].inst}), "200@7");
    EXPECT_EQ(blocked.roots[0].waiting.size(), 5U);
    EXPECT_EQ(blocked.roots[0].chain.size(), 2U);
}

TEST_F(ops_blocked_test, one_that_waits_for_two_receivers_has_two_roots)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({100, 1}, {200, 3}, FULL);
    stands({200, 2});
    stands({200, 3});
    EXPECT_EQ(look().roots.size(), 2U);
}

TEST_F(ops_blocked_test, a_receiver_moves_when_it_receives_or_its_queue_shrinks_or_is_empty)
{
    ops_stat_t then = {};
    ops_stat_t now = {};
    then.queue = now.queue = 500;
    then.recv = now.recv = 40;
    EXPECT_EQ(ops_moves(then, now), OPS_STANDS);
    now.queue = 600;
    EXPECT_EQ(ops_moves(then, now), OPS_STANDS) << "more has come, nothing was taken";
    now.queue = 499;
    EXPECT_EQ(ops_moves(then, now), OPS_MOVES);
    now.queue = 600;
    now.recv = 41;
    EXPECT_EQ(ops_moves(then, now), OPS_MOVES);
    then.recv = UINT32_MAX;
    now.recv = 3;
    EXPECT_EQ(ops_moves(then, now), OPS_MOVES) << "the counter began again at 0";
    then = now = {};
    EXPECT_EQ(ops_moves(then, now), OPS_MOVES) << "nothing waits";
}

TEST_F(ops_blocked_test, it_is_blocked_for_the_time_between_the_looks_at_least)
{
    sends({100, 1}, {200, 2}, FULL);
    stands({200, 2});
    EXPECT_EQ(look().edges[0].blocked_for, AFTER - BEFORE);
    before_.insts[ops_name_of({100, 1})].stat.sends[0].unack = 3;
    EXPECT_EQ(look().edges[0].blocked_for, 0) << "it began after the first look";
    since_[{ops_name_of({100, 1}), ops_name_of({200, 2})}] = AFTER - 60000;
    EXPECT_EQ(look().edges[0].blocked_for, 60000) << "as somebody has seen who looks all the time";
    before_.insts.clear();
    EXPECT_EQ(look().edges[0].blocked_for, 60000);
}

TEST_F(ops_blocked_test, a_receiver_that_is_gone_is_a_root)
{
    sends({100, 1}, {200, 2}, FULL);
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.roots.size(), 1U);
    EXPECT_EQ(blocked.receivers[ops_name_of({200, 2})].there, OPS_NOT_THERE);
    EXPECT_EQ(blocked.receivers[ops_name_of({200, 2})].moves, OPS_MOVES_UNKNOWN);
    EXPECT_TRUE(blocked.unsure.empty());
}

TEST_F(ops_blocked_test, a_receiver_that_does_not_answer_is_a_root_and_whom_it_waits_for_is_not_known)
{
    sends({100, 1}, {200, 2}, FULL);
    after_.insts[ops_name_of({200, 2})].known = false;
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.roots.size(), 1U);
    EXPECT_EQ(blocked.receivers[ops_name_of({200, 2})].there, OPS_SAYS_NOTHING);
    EXPECT_EQ(names(blocked.unsure), "200@2");
}

TEST_F(ops_blocked_test, of_a_cut_text_the_pairs_that_it_has_count_and_the_instance_is_unsure)
{
    sends({100, 1}, {200, 2}, FULL);
    stands({200, 2});
    after_.insts[ops_name_of({100, 1})].stat.cut = true;
    ops_blocked_t blocked = look();
    EXPECT_EQ(blocked.edges.size(), 1U);
    EXPECT_EQ(names(blocked.unsure), "100@1");
}

TEST_F(ops_blocked_test, a_receiver_that_is_named_twice_is_one_edge)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({100, 1}, {200, 2}, FULL + 5);
    stands({200, 2});
    ASSERT_EQ(look().edges.size(), 1U);
}

TEST_F(ops_blocked_test, a_long_chain_needs_no_stack)
{
    constexpr uint32_t LONG = 50000;
    for (uint32_t node = 0; node < LONG; node++)
        sends({100, node}, {100, node + 1}, FULL);
    stands({100, LONG});
    ops_blocked_t blocked = look();
    ASSERT_EQ(blocked.roots.size(), 1U);
    EXPECT_EQ(blocked.roots[0].chain.size(), LONG + 1);
    sends({100, LONG}, {100, 0}, FULL);
    blocked = look();
    ASSERT_EQ(blocked.cycles.size(), 1U);
    EXPECT_EQ(blocked.cycles[0].tied, LONG + 1);
}

TEST_F(ops_blocked_test, the_graph_has_each_pair_and_marks_a_cycle)
{
    sends({100, 1}, {200, 2}, FULL);
    sends({200, 2}, {100, 1}, FULL);
    sends({300, 3}, {100, 1}, 4000);
    std::string dot = ops_blocked_dot(look());
    EXPECT_EQ(dot.find("digraph blocked {\n"), 0U);
    EXPECT_NE(dot.find("\"300@3\" -> \"100@1\" [label=\"4000\"];"), std::string::npos);
    EXPECT_NE(dot.find("\"200@2\" [tooltip=\"stands\", xlabel=\"2000 unread, stands\", color=red];"),
              std::string::npos);
}
