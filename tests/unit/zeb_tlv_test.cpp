// The TLV elements of header/zeb/zeb_tlv.h.
#include <gtest/gtest.h>

#include <zeb/zeb_tlv.h>

#include "wire.h"

TEST(zeb_tlv, setting_5_bytes_returns_12_and_writes_length_9)
{
    alignas(4) uint8_t item[12];
    memset(item, 0xEE, sizeof(item));
    EXPECT_EQ(TLV_SET(item, 0x0102, "abcde", 5), 12u);
    EXPECT_EQ(wire::hex(wire::bytes_t(item, item + 12)), "00090102"
                                                         "6162636465"
                                                         "eeeeee");
    EXPECT_EQ(TLV_DATA_TYPE(item), 0x0102);
    EXPECT_EQ(TLV_DATA_LENGTH(item), 5);
}

TEST(zeb_tlv, setting_nothing_writes_the_header_alone)
{
    alignas(4) uint8_t item[8] = {};
    EXPECT_EQ(TLV_SET(item, 6, "x", 0), 4u);
    EXPECT_EQ(wire::hex(wire::bytes_t(item, item + 8)), "0004000600000000");
    EXPECT_EQ(TLV_SET(item, 7, nullptr, 4), 8u);
    EXPECT_EQ(wire::hex(wire::bytes_t(item, item + 8)), "0008000700000000");
}

TEST(zeb_tlv, an_item_is_refused_when_misaligned_short_of_space_or_too_long)
{
    alignas(4) uint8_t item[16] = {};
    (void)TLV_SET(item, 1, "abcd", 4);
    EXPECT_TRUE(TLV_OK(item, 8));
    EXPECT_FALSE(TLV_OK(item, 3));
    EXPECT_FALSE(TLV_OK(item, 7));
    (void)memmove(item + 2, item, 8);
    EXPECT_FALSE(TLV_OK(item + 2, 8));
    item[0] = 0;
    item[1] = 2;
    EXPECT_TRUE(TLV_OK(item, 8)) << "a length below 4 is left to the reader";
}
