// The message of header/zeb/zeb_msg.h: the buffer, the wire header and its conversions, the ranges of ids.
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

#include "wire.h"

TEST(zeb_msg, allocating_61440_bytes_gives_len_61476)
{
    zeb_msg_t *msg = zeb_msg_alloc((int)wire::BODY_MAX, 3, 0);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->hdr.len, wire::MESSAGE_MAX);
    EXPECT_EQ(msg->hdr.zeb_ver, 2);
    EXPECT_EQ(msg->hdr.app_ver, 3u);
    for (int i = 0; i < (int)wire::BODY_MAX; i++)
        ASSERT_EQ(msg->data[i], 0);
    free(msg);
}

TEST(zeb_msg, allocating_61441_or_minus_1_gives_nothing)
{
    EXPECT_EQ(zeb_msg_alloc((int)wire::BODY_MAX + 1, 1, 0), nullptr);
    EXPECT_EQ(zeb_msg_alloc(-1, 1, 0), nullptr);
}

TEST(zeb_msg, an_empty_payload_gives_a_bare_header)
{
    zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0x55);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->hdr.len, wire::HEADER_LEN);
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
    EXPECT_EQ(wire::hex(wire::bytes_t(bytes, bytes + wire::HEADER_LEN + 8)), "02000609"
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
    EXPECT_EQ(msg->hdr.len, wire::HEADER_LEN + 8);
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
    EXPECT_EQ(msg->hdr.len, wire::HEADER_LEN + 4);
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
