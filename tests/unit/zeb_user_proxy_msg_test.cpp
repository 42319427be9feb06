// The functions on messages, for those who cannot include the inline ones.
#include <thread>

#include "lib_test.h"

#include "zeb_slot.h"

#include <zeb/zeb_ext.h>

class zeb_user_proxy_msg : public lib_test
{
};

TEST_F(zeb_user_proxy_msg, a_message_gives_its_payload_and_its_size)
{
    zeb_msg_t *msg = zeb_msg_alloc(61440, 1, 0);
    EXPECT_EQ(zeb_msg_data(msg), msg->data);
    EXPECT_EQ(zeb_msg_size(msg), 61440u);
    msg->hdr.len = wire::HEADER_LEN;
    EXPECT_EQ(zeb_msg_size(msg), 0u);
    msg->hdr.len = wire::HEADER_LEN - 1;
    EXPECT_EQ(zeb_msg_size(msg), 0u) << "not four thousand millions";
    zeb_msg_free(msg);
}

TEST_F(zeb_user_proxy_msg, null_is_no_message_and_no_buffer)
{
    EXPECT_EQ(zeb_msg_data(nullptr), nullptr);
    EXPECT_EQ(zeb_msg_size(nullptr), 0u);
    zeb_msg_free(nullptr);
    zeb_reply_free(nullptr);
}

TEST_F(zeb_user_proxy_msg, a_buffer_is_emptied_and_what_was_taken_out_stays)
{
    zeb_reply_msg_t reply = {};
    for (int i = 0; i < 3; i++)
        reply.msg[reply.num++] = zeb_msg_alloc(i, 1, 0);
    zeb_msg_t *kept = reply.msg[1];
    reply.msg[1] = nullptr;
    zeb_reply_free(&reply);
    EXPECT_EQ(reply.num, 0);
    for (const zeb_msg_t *msg : reply.msg)
        EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(zeb_msg_size(kept), 1u);
    zeb_msg_free(kept);
    zeb_reply_free(&reply); // an empty one stays so
    EXPECT_EQ(reply.num, 0);
}

TEST_F(zeb_user_proxy_msg, each_status_has_its_text_and_other_numbers_an_empty_one)
{
    EXPECT_STREQ(zeb_reply_status_text(ZEB_SUCCESS), "RPC success");
    EXPECT_STREQ(zeb_reply_status_text(ZEB_TIMEOUT), "RPC timeout");
    EXPECT_STREQ(zeb_reply_status_text(ZEB_REPLY_STAT_NUM), "");
    EXPECT_STREQ(zeb_reply_status_text(-1), "");
}

TEST_F(zeb_user_proxy_msg, messages_need_no_lock)
{
    start_app();
    zeb_scoped_lock lock(&g_lib_mutex);
    std::thread other([] {
        zeb_reply_msg_t reply = {};
        reply.msg[reply.num++] = zeb_msg_alloc(1, 1, 0);
        EXPECT_EQ(zeb_msg_size(reply.msg[0]), 1u);
        zeb_reply_free(&reply);
    });
    other.join();
}
