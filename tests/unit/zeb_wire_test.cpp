// The walk over the elements of a body.
#include <cstdlib>
#include <gtest/gtest.h>

#include "wire.h"
#include "zeb_wire.h"

// Walks a body with the library's cursor; returns the types seen, and -1 at the end when the rest was refused.
static std::vector<int> walk(const wire::bytes_t &body)
{
    std::vector<int> types;
    uint32_t space = (uint32_t)body.size();
    void *copy = aligned_alloc(4, (body.size() + 3) / 4 * 4 + 4);
    if (!body.empty())
        memcpy(copy, body.data(), body.size());
    struct tlv_list_desc cursor;
    TLV_LIST_INIT(&cursor, copy, space);
    zeb_tlv_item_t item;
    zeb_tlv_step_t step;
    while ((step = zeb_tlv_next(&cursor, &item)) == ZEB_TLV_ITEM)
        types.push_back(item.type);
    if (step == ZEB_TLV_INVALID)
        types.push_back(-1);
    free(copy);
    return types;
}

using wire::operator+;
typedef std::vector<int> types_t;

TEST(zeb_wire, a_list_of_elements_is_walked_to_its_end)
{
    EXPECT_EQ(walk({}), types_t({}));
    EXPECT_EQ(walk(wire::tlv(5, {1, 2, 3}) + wire::tlv(6, {})), types_t({5, 6}));
}

TEST(zeb_wire, an_element_shorter_than_its_header_ends_the_walk)
{
    for (int len : {0, 1, 2, 3})
        EXPECT_EQ(walk(wire::tlv(5, {1, 2, 3, 4}) + wire::tlv(6, {9, 9, 9, 9}, len)), types_t({5, -1})) << len;
}

TEST(zeb_wire, an_element_longer_than_the_body_ends_the_walk)
{
    EXPECT_EQ(walk(wire::tlv(6, {9, 9, 9, 9}, 12)), types_t({-1}));
    EXPECT_EQ(walk({0, 4}), types_t({-1}));
}

TEST(zeb_wire, a_last_element_without_its_padding_ends_the_list)
{
    EXPECT_EQ(walk({0, 5, 0, 3, 0xAA}), types_t({3}));
}

TEST(zeb_wire, an_element_whose_step_would_be_0_ends_the_walk)
{
    for (int len : {65533, 65534, 65535}) {
        wire::bytes_t body = wire::tlv(1, {}, len);
        body.resize(65535);
        EXPECT_EQ(walk(body), types_t({-1})) << len;
    }
}
