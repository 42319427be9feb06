// The message buffer, the wire header and its conversions, the ranges of ids, and the TLV elements.
#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>
#include <arpa/inet.h>

#include <platform/list_head.h>

// Every allocation of this file goes through a malloc that can be made to fail, and every pause is counted.
static int s_failing_mallocs;
static std::vector<unsigned> s_pauses;

static void *test_malloc(size_t size)
{
    if (s_failing_mallocs > 0) {
        s_failing_mallocs--;
        return nullptr;
    }
    return malloc(size);
}

extern "C" int test_usleep(unsigned int usec);

int test_usleep(unsigned int usec)
{
    s_pauses.push_back(usec);
    return 0;
}

#define malloc test_malloc
#define usleep test_usleep
#include <zeb/zeb_msg.h>
#undef malloc
#undef usleep
#include <zeb/zeb_tlv.h>

#include "wire.h"
#include "zeb_wire.h"

TEST(zeb_msg, allocating_61440_bytes_gives_len_61476)
{
    zeb_msg_t *msg = zeb_msg_alloc(61440, 3, 0);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->hdr.len, 61476u);
    EXPECT_EQ(msg->hdr.zeb_ver, 2);
    EXPECT_EQ(msg->hdr.app_ver, 3u);
    for (int i = 0; i < 61440; i++)
        ASSERT_EQ(msg->data[i], 0);
    free(msg);
}

TEST(zeb_msg, allocating_61441_or_minus_1_gives_nothing)
{
    EXPECT_EQ(zeb_msg_alloc(61441, 1, 0), nullptr);
    EXPECT_EQ(zeb_msg_alloc(-1, 1, 0), nullptr);
}

TEST(zeb_msg, an_empty_payload_gives_a_bare_header)
{
    zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0x55);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->hdr.len, 36u);
    EXPECT_EQ(msg->hdr.flag, 0);
    free(msg);
}

TEST(zeb_msg, allocation_waits_10_microseconds_at_a_time_for_memory)
{
    s_failing_mallocs = 3;
    s_pauses.clear();
    void *block = zeb_malloc(16);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(s_pauses, std::vector<unsigned>({10, 10, 10}));
    free(block);
}

static zeb_msg_t *filled_msg(int32_t stat)
{
    zeb_msg_t *msg = zeb_msg_alloc(8, 0x01020304, 0);
    zeb_encode_msg_hdr(msg, 0x06, 0x11223344, 0x0A0B0C0D, 0x55667788, 0x00010002, 0xDEADBEEF, stat);
    for (uint8_t i = 0; i < 8; i++)
        msg->data[i] = i;
    return msg;
}

TEST(zeb_msg, the_header_is_36_bytes_in_network_order)
{
    zeb_msg_t *msg = filled_msg(4);
    msg->hdr.qos = 9;
    zeb_convert_to_network(msg);
    const uint8_t *bytes = (const uint8_t *)&msg->hdr;
    EXPECT_EQ(wire::hex(wire::bytes_t(bytes, bytes + 44)), "02000609"
                                                           "0000002c"
                                                           "0a0b0c0d"
                                                           "00010002"
                                                           "11223344"
                                                           "55667788"
                                                           "01020304"
                                                           "deadbeef"
                                                           "00000004"
                                                           "0001020304050607");
    zeb_convert_to_host(msg);
    EXPECT_EQ(msg->hdr.len, 44u);
    EXPECT_EQ(msg->hdr.src_app, 0x11223344u);
    EXPECT_EQ(msg->hdr.rpc_stat, 4);
    free(msg);
}

TEST(zeb_msg, a_mismatch_body_is_swapped_by_both_conversions)
{
    zeb_msg_t *msg = filled_msg(ZEB_MISMATCH);
    zeb_convert_to_network(msg);
    EXPECT_EQ(msg->data[0], 3);
    EXPECT_EQ(msg->data[7], 4);
    zeb_convert_to_host(msg);
    EXPECT_EQ(msg->data[0], 0);
    EXPECT_EQ(msg->data[7], 7);
    free(msg);
}

TEST(zeb_msg, an_application_mismatch_body_is_left_alone)
{
    zeb_msg_t *msg = filled_msg(ZEB_APP_MISMATCH);
    zeb_convert_to_network(msg);
    EXPECT_EQ(msg->data[0], 0);
    zeb_convert_to_host(msg);
    EXPECT_EQ(msg->data[0], 0);
    free(msg);
}

TEST(zeb_msg, a_mismatch_reply_without_a_body_is_converted_without_reading_past_it)
{
    zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0);
    msg->hdr.rpc_stat = ZEB_MISMATCH;
    zeb_convert_to_network(msg);
    zeb_convert_to_host(msg);
    EXPECT_EQ(msg->hdr.rpc_stat, ZEB_MISMATCH);
    free(msg);
}

TEST(zeb_msg, encoding_a_header_keeps_version_length_and_application_version)
{
    zeb_msg_t *msg = zeb_msg_alloc(4, 7, 0);
    msg->hdr.qos = 3;
    zeb_encode_msg_hdr(msg, 1, 2, 3, 4, 5, 6, 7);
    EXPECT_EQ(msg->hdr.zeb_ver, 2);
    EXPECT_EQ(msg->hdr.rsvd, 0);
    EXPECT_EQ(msg->hdr.qos, 3);
    EXPECT_EQ(msg->hdr.len, 40u);
    EXPECT_EQ(msg->hdr.app_ver, 7u);
    EXPECT_EQ(msg->hdr.flag, 1);
    EXPECT_EQ(msg->hdr.src_app, 2u);
    EXPECT_EQ(msg->hdr.src_node, 3u);
    EXPECT_EQ(msg->hdr.dst_app, 4u);
    EXPECT_EQ(msg->hdr.dst_node, 5u);
    EXPECT_EQ(msg->hdr.seq, 6u);
    EXPECT_EQ(msg->hdr.rpc_stat, 7);
    free(msg);
}

TEST(zeb_msg, application_ids_are_1_to_8191_and_16384_to_20479)
{
    for (uint32_t app : {1u, 8191u, 16384u, 20479u})
        EXPECT_TRUE(zeb_valid_app_id(app)) << app;
    for (uint32_t app : {0u, 8192u, 12288u, 16383u, 20480u, 0xFFFFFFFFu})
        EXPECT_FALSE(zeb_valid_app_id(app)) << app;
    EXPECT_TRUE(zeb_valid_app_mc_id(12288) && zeb_valid_app_mc_id(16383));
    EXPECT_FALSE(zeb_valid_app_mc_id(12287) || zeb_valid_app_mc_id(16384));
    EXPECT_TRUE(zeb_valid_node_id(0) && zeb_valid_node_id(65535));
    EXPECT_FALSE(zeb_valid_node_id(65536));
    EXPECT_TRUE(zeb_valid_node_mc_id(0x80000) && zeb_valid_node_mc_id(0x8FFFF));
    EXPECT_FALSE(zeb_valid_node_mc_id(0x7FFFF) || zeb_valid_node_mc_id(0x90000));
}

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
