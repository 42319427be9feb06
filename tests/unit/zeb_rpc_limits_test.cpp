// Calls as large as a reply buffer, and what an answer that succeeds says.
#include <set>
#include <thread>

#include "internals.h"
#include "lib_test.h"

#include <zeb/zeb_diag.h>

class zeb_rpc_limits : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    ~zeb_rpc_limits() override
    {
        free(msg_);
        for (zeb_msg_t *msg : reply_.msg)
            free(msg);
    }

    void answer(uint32_t node, uint32_t seq)
    {
        wire::header_t header = from_peer(wire::REQUEST | wire::ACK, node);
        header.seq = seq;
        receive(wire::message(header, {(uint8_t)node}));
    }

    // Waits until `num` requests were written; returns their sequence number.
    static uint32_t wait_requests(size_t num)
    {
        size_t seen = 0;
        uint32_t seq = 0;
        while (seen < num) {
            for (const fake_tipc::sent_t &sent : fake_tipc::take_sent()) {
                seq = wire::header_of(sent.bytes).seq;
                seen++;
            }
            (void)sched_yield();
        }
        return seq;
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 3, 0);
    zeb_reply_msg_t reply_ = {};
};

TEST_F(zeb_rpc_limits, a_call_to_64_instances_gathers_64_answers_and_refuses_a_65th)
{
    static_assert(ZEB_RPC_REPLY_NUM == 64, "as many as there are");
    for (uint32_t node = 1; node <= 64; node++)
        peer_online(node);
    struct {
        zeb_reply_msg_t reply;
        uint8_t behind[64];
    } place;
    memset(&place, 0xEE, sizeof(place));
    int result = 1;
    std::thread caller([&] { result = zeb_rpc(APP, PEER, msg_, 0, 0, &place.reply); });
    uint32_t seq = wait_requests(64);
    while (fault::waits(internals::answer_cond(APP)) == 0)
        (void)sched_yield();
    peer_online(65); // too late to be asked
    for (uint32_t node = 1; node <= 63; node++)
        answer(node, seq);
    EXPECT_EQ(logged(E, [&] { answer(63, seq); }).size(), 1u) << "a second answer of one instance";
    EXPECT_EQ(logged(E, [&] { answer(65, seq); }).size(), 1u) << "an instance that was not asked";
    answer(64, seq);
    answer(65, seq); // the call may have ended or not
    caller.join();
    answer(65, seq);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(place.reply.num, 64);
    std::set<uint32_t> nodes;
    for (zeb_msg_t *msg : place.reply.msg) {
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->hdr.rpc_stat, ZEB_SUCCESS);
        EXPECT_EQ(msg->data[0], msg->hdr.src_node);
        nodes.insert(msg->hdr.src_node);
        free(msg);
    }
    EXPECT_EQ(nodes.size(), 64u);
    EXPECT_EQ(*nodes.rbegin(), 64u);
    EXPECT_THAT(place.behind, testing::Each(0xEE));
}

TEST_F(zeb_rpc_limits, a_call_to_65_instances_is_refused_and_sends_nothing)
{
    for (uint32_t node = 1; node <= 65; node++)
        peer_online(node);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOBUFS);
        EXPECT_EQ(reply_.num, 0);
        EXPECT_TRUE(fake_tipc::take_sent().empty());
    }
}

TEST_F(zeb_rpc_limits, an_answer_that_is_sent_says_nothing)
{
    peer_online();
    zeb_msg_t *request = zeb_msg_alloc(4, 1, 0);
    zeb_encode_msg_hdr(request, ZEB_MSG_FLAG_REQUEST, PEER, PEER_NODE, APP, NODE, 77, 0);
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), 0); }), lines_t({}));
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpc_reply(request, nullptr, 0), 0); }), lines_t({}));
    EXPECT_EQ(fake_tipc::take_sent().size(), 2u);
    zeb_buf_printf_reset();
    zeb_cli_print_fc_stat(APP);
    EXPECT_THAT(buffer_text(), testing::HasSubstr("RPC reply exception 0\n"));
    EXPECT_THAT(buffer_text(), testing::HasSubstr("RPC reply reject 0\n"));
    free(request);
}

TEST_F(zeb_rpc_limits, a_version_mismatch_that_is_answered_says_nothing)
{
    peer_online();
    wire::header_t request = from_peer(wire::REQUEST);
    request.app_ver = 9;
    EXPECT_EQ(logged(W | E, [&] { receive(wire::message(request, {})); }), lines_t({}));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).stat, (uint32_t)ZEB_APP_MISMATCH);
}
