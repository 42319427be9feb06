// The index beside a list.
#include <vector>

#include <gtest/gtest.h>

#include "platform/list_index.h"

namespace
{

struct record_t {
    list_index_link_t index_link;
    int value;
};

TEST(list_index, finds_what_was_added_and_nothing_else)
{
    static list_index_t index;
    std::vector<record_t> records(5000);
    for (size_t i = 0; i < records.size(); i++)
        list_index_add(&index, &records[i], list_index_key((uint32_t)i, 7));
    EXPECT_EQ(index.num, 5000);
    for (size_t i = 0; i < records.size(); i++)
        EXPECT_EQ(list_index_find<record_t>(&index, list_index_key((uint32_t)i, 7)), &records[i]);
    EXPECT_EQ(list_index_find<record_t>(&index, list_index_key(5, 8)), nullptr);
    EXPECT_EQ(list_index_find<record_t>(&index, list_index_key(5000, 7)), nullptr);
}

TEST(list_index, of_one_key_the_first_is_found_and_then_the_next)
{
    static list_index_t index;
    record_t first = {};
    record_t second = {};
    list_index_add(&index, &first, 9);
    list_index_add(&index, &second, 9);
    EXPECT_EQ(list_index_find<record_t>(&index, 9), &first);
    list_index_del(&index, &first);
    EXPECT_EQ(list_index_find<record_t>(&index, 9), &second);
    list_index_del(&index, &second);
    EXPECT_EQ(list_index_find<record_t>(&index, 9), nullptr);
    EXPECT_EQ(index.num, 0);
}

TEST(list_index, of_one_key_the_first_that_matches_is_found)
{
    static list_index_t index;
    record_t records[] = {{{}, 1}, {{}, 2}, {{}, 2}, {{}, 3}};
    for (record_t &record : records)
        list_index_add(&index, &record, 9);
    auto is = [](int value) { return [value](const record_t *record) { return record->value == value; }; };
    EXPECT_EQ(list_index_find_if<record_t>(&index, 9, is(2)), &records[1]);
    EXPECT_EQ(list_index_find_if<record_t>(&index, 9, is(3)), &records[3]);
    EXPECT_EQ(list_index_find_if<record_t>(&index, 9, is(4)), nullptr);
    EXPECT_EQ(list_index_find_if<record_t>(&index, 8, is(2)), nullptr);
}

TEST(list_index, taking_out_what_is_not_in_changes_nothing)
{
    static list_index_t index;
    record_t in = {};
    record_t out = {};
    out.index_link.key = 9;
    list_index_add(&index, &in, 9);
    list_index_del(&index, &out);
    EXPECT_EQ(index.num, 1);
    EXPECT_EQ(list_index_find<record_t>(&index, 9), &in);
}

TEST(list_index, neighbouring_keys_spread_over_the_chains)
{
    std::vector<int> chains(LIST_INDEX_CHAIN_NUM);
    for (uint32_t node = 0; node < 4 * LIST_INDEX_CHAIN_NUM; node++)
        chains[list_index_chain(list_index_key(200, node))]++;
    for (int length : chains)
        EXPECT_LE(length, 12);
}

} // namespace
