// Rates from two statistics.
#include <gtest/gtest.h>

#include "ops_rates.h"

TEST(ops_rates, a_rate_is_messages_in_a_second)
{
    EXPECT_DOUBLE_EQ(ops_rate(100, 350, 500), 500);
    EXPECT_DOUBLE_EQ(ops_rate(100, 100, 500), 0);
}

TEST(ops_rates, a_counter_that_passes_its_end_goes_on)
{
    EXPECT_DOUBLE_EQ(ops_rate(UINT32_MAX - 9, 90, 1000), 100);
}

TEST(ops_rates, of_a_counter_that_began_again_no_rate_is_known)
{
    EXPECT_DOUBLE_EQ(ops_rate(5000, 10, 1000), OPS_NO_RATE);
    EXPECT_DOUBLE_EQ(ops_rate(3000000000U, 10, 1000), OPS_NO_RATE);
}

TEST(ops_rates, without_a_time_between_no_rate_is_known)
{
    EXPECT_DOUBLE_EQ(ops_rate(1, 2, 0), OPS_NO_RATE);
    ops_stat_t stat = {};
    stat.parts = OPS_STAT_FLOW;
    EXPECT_EQ(ops_rates(stat, stat, 0).span, 0);
    EXPECT_DOUBLE_EQ(ops_rates(stat, stat, 0).send, OPS_NO_RATE);
}

TEST(ops_rates, totals_pairs_and_the_growth_of_the_queue)
{
    ops_stat_t before = {};
    ops_stat_t after = {};
    before.parts = after.parts = OPS_STAT_FLOW;
    before.send = 10;
    after.send = 30;
    before.recv = 5;
    after.recv = 5;
    before.queue = 40;
    after.queue = 15;
    before.sends = {{{100, 1}, 7, 0, 0, 0}, {{100, 2}, 9, 0, 0, 0}};
    after.sends = {{{100, 2}, 19, 0, 0, 0}, {{100, 3}, 1, 0, 0, 0}};
    before.recvs = {{{200, 4}, 2, 0, 0, 0}};
    after.recvs = {{{200, 4}, 4, 0, 0, 0}};
    ops_rates_t rates = ops_rates(before, after, 2000);
    EXPECT_DOUBLE_EQ(rates.send, 10);
    EXPECT_DOUBLE_EQ(rates.recv, 0);
    EXPECT_EQ(rates.queue, -25);
    ASSERT_EQ(rates.sends.size(), 1U) << "of a peer that one look alone has nothing is known";
    EXPECT_DOUBLE_EQ(rates.sends[ops_name_of({100, 2})], 5);
    EXPECT_DOUBLE_EQ(rates.recvs[ops_name_of({200, 4})], 1);
}

TEST(ops_rates, statistics_without_counters_have_none)
{
    ops_stat_t whole = {};
    ops_stat_t half = {};
    whole.parts = OPS_STAT_WHOLE;
    half.parts = OPS_STAT_APP;
    EXPECT_EQ(ops_rates(half, whole, 1000).span, 0);
    EXPECT_EQ(ops_rates(whole, half, 1000).span, 0);
}
