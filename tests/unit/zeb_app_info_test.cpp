// Application records, proxy threads and dispatch.
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "by_number.h"
#include "lib_test.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_slot.h"

class zeb_app_info : public lib_test
{
  protected:
    // A queued message as the receive thread leaves it.
    static zeb_msg_t *new_msg(uint32_t ver, uint8_t flag = 0, uint32_t src_app = PEER, uint32_t src_node = PEER_NODE)
    {
        zeb_msg_t *msg = zeb_msg_alloc(4, ver, 0);
        zeb_encode_msg_hdr(msg, flag, src_app, src_node, APP, NODE, 33, 0);
        return msg;
    }
};

TEST_F(zeb_app_info, a_message_goes_to_the_dispatcher_of_its_version)
{
    start_app(APP, {2, 5});
    EXPECT_EQ(logged(V, [&] { zeb_dispatch_app_msg(zeb_get_app_info(APP), new_msg(5, ZEB_MSG_FLAG_REQUEST)); })[0],
              "0 ZEB dispatch app 100 msg from 200/9, ver 5, data len 4, msg flags: REQUEST.");
    EXPECT_EQ(take_seen().headers.size(), 1u);
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

static int s_first;
static void *first_fun(zeb_msg_t *msg)
{
    s_first++;
    free(msg);
    return nullptr;
}

TEST_F(zeb_app_info, of_two_dispatchers_for_one_version_the_first_is_used)
{
    const zeb_msg_dispatcher_t twice[] = {{4, first_fun}, {4, see_msg}, {0, nullptr}};
    ASSERT_EQ(zeb_register_without_thread(APP, "x", twice, nullptr), 0);
    zeb_dispatch_app_msg(zeb_get_app_info(APP), new_msg(4));
    EXPECT_EQ(s_first, 1);
}

TEST_F(zeb_app_info, a_one_way_message_without_dispatcher_is_dropped_in_silence)
{
    start_app(APP, {1});
    lines_t lines = logged(15, [&] { zeb_dispatch_app_msg(zeb_get_app_info(APP), new_msg(9)); });
    EXPECT_EQ(lines.back(), "0 ZEB app 100 ver 9 dispatcher not exist.");
    EXPECT_TRUE(take_seen().headers.empty());
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_app_info, a_request_without_dispatcher_is_answered_with_the_version_range)
{
    start_app(APP, {3, 2, 8});
    lines_t lines = logged(V, [&] { zeb_dispatch_app_msg(zeb_get_app_info(APP), new_msg(9, ZEB_MSG_FLAG_REQUEST)); });
    EXPECT_THAT(lines, testing::IsSupersetOf({"0 ZEB app 100 version range [2, 8].",
                                              "0 ZEB app 100 reply to 200/9 seq 33 app ver range [2, 8]."}));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    wire::header_t header = wire::header_of(sent[0].bytes);
    EXPECT_EQ(header.flag, wire::REQUEST | wire::ACK);
    EXPECT_EQ(header.stat, 3u);
    EXPECT_EQ(header.seq, 33u);
    EXPECT_EQ(header.src_app, APP);
    EXPECT_EQ(header.src_node, NODE);
    EXPECT_EQ(header.dst_app, PEER);
    EXPECT_EQ(header.dst_node, PEER_NODE);
    uint32_t range[2];
    wire::bytes_t body = wire::body_of(sent[0].bytes);
    ASSERT_EQ(body.size(), sizeof(range));
    memcpy(range, body.data(), sizeof(range));
    EXPECT_EQ(range[0], 2u) << "in this host's byte order";
    EXPECT_EQ(range[1], 8u);
}

TEST_F(zeb_app_info, a_version_mismatch_that_is_answered_says_nothing)
{
    start_app();
    peer_online();
    wire::header_t request = from_peer(wire::REQUEST);
    request.app_ver = 9;
    EXPECT_EQ(logged(W | E, [&] { receive(wire::message(request, {})); }), lines_t({}));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).stat, (uint32_t)ZEB_APP_MISMATCH);
}

TEST_F(zeb_app_info, a_mismatch_answer_that_cannot_be_sent_is_logged)
{
    start_app(APP, {2});
    fault::fail_next("sendto", EHOSTUNREACH);
    lines_t lines = logged(E, [&] { zeb_dispatch_app_msg(zeb_get_app_info(APP), new_msg(9, ZEB_MSG_FLAG_REQUEST)); });
    EXPECT_EQ(lines.back(), "3 ZEB app 100 reply app mismatch [2, 2] to 200/9 failed: Operation not permitted.");
}

TEST_F(zeb_app_info, a_reply_without_dispatcher_is_never_answered)
{
    start_app(APP, {1});
    zeb_dispatch_app_msg(zeb_get_app_info(APP), new_msg(9, ZEB_MSG_FLAG_REQUEST | ZEB_MSG_FLAG_ACK));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_app_info, a_message_without_dispatcher_counts_as_processed)
{
    start_app(APP, {1});
    zeb_dispatch_app_msg(zeb_get_app_info(APP), new_msg(9));
    EXPECT_THAT(listing(zeb_cli_print_fc_stat), testing::HasSubstr("  total receive 1, unack 1, exception 0\n"));
}

TEST_F(zeb_app_info, an_application_without_dispatchers_is_no_server)
{
    start_app(APP, {});
    EXPECT_FALSE(zeb_is_app_server(APP));
    lines_t lines = logged(V, [] {
        zeb_mismatch_info_t range = zeb_get_app_ver_range(zeb_get_app_info(APP));
        EXPECT_EQ(range.low, 0xFFFFFFFFu);
        EXPECT_EQ(range.high, 0u);
    });
    EXPECT_EQ(lines, lines_t({"0 ZEB app 100 version range [-1, 0]."}));
}

TEST_F(zeb_app_info, a_long_name_is_stored_as_its_first_31_characters)
{
    ASSERT_EQ(zeb_register_without_thread(APP, "0123456789012345678901234567890123456789", NO_DISPATCHER, nullptr), 0);
    EXPECT_STREQ(zeb_get_app_info(APP)->name, "0123456789012345678901234567890");
}

TEST_F(zeb_app_info, an_event_without_callback_or_record_is_not_taken)
{
    ASSERT_EQ(zeb_register_without_thread(APP, "x", NO_DISPATCHER, nullptr), 0);
    zeb_msg_t *event = zeb_new_event_msg(APP, ZEB_APP_JOIN, {2, 1});
    EXPECT_EQ(zeb_enqueue_event_msg(APP, event), -1);
    EXPECT_EQ(zeb_enqueue_event_msg(999, event), -1);
    free(event);
}

TEST_F(zeb_app_info, an_event_is_delivered_with_its_log_line)
{
    start_app();
    EXPECT_EQ(logged(I,
                     [] {
                         EXPECT_EQ(zeb_enqueue_event_msg(APP, zeb_new_event_msg(APP, ZEB_APP_QUIT, {400, 3})), 0);
                     }),
              lines_t({"1 ZEB app 100 dispatch app 400/3 event: application quit."}));
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].my_app, APP);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_QUIT);
    EXPECT_EQ(seen.events[0].event.app.node, 3u);
    EXPECT_EQ(seen.events[0].event.app.app, 400u);
}

// What the proxy thread delivers, in order.
static std::mutex s_mutex;
static std::condition_variable s_changed;
static std::vector<uint32_t> s_order;

static void *order_msg(zeb_msg_t *msg)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    s_order.push_back(msg->hdr.seq);
    s_changed.notify_all();
    free(msg);
    return nullptr;
}

static void *order_event(zeb_event_t event)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    s_order.push_back(1000 + event.event.app.node);
    s_changed.notify_all();
    return nullptr;
}

TEST_F(zeb_app_info, the_proxy_thread_delivers_items_in_queue_order_once_the_library_runs)
{
    const zeb_msg_dispatcher_t table[] = {{1, order_msg}, {0, nullptr}};
    ASSERT_EQ(zeb_register(APP, "x", table, order_event), 0);
    zeb_app_info_t *info = zeb_get_app_info(APP);
    for (uint32_t i = 0; i < 100; i++) {
        zeb_msg_t *msg = new_msg(1);
        msg->hdr.seq = i;
        zeb_enqueue_msg_dist(msg, info);
        if (i == 50) {
            EXPECT_EQ(zeb_enqueue_event_msg(APP, zeb_new_event_msg(APP, ZEB_APP_JOIN, {5, 5})), 0);
        }
    }
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        EXPECT_TRUE(s_order.empty()) << "nothing is delivered before zeb_run";
    }
    zeb_run();
    std::unique_lock<std::mutex> lock(s_mutex);
    s_changed.wait(lock, [] { return s_order.size() == 101; });
    std::vector<uint32_t> expected;
    for (uint32_t i = 0; i < 100; i++) {
        expected.push_back(i);
        if (i == 50)
            expected.push_back(1005);
    }
    EXPECT_EQ(s_order, expected);
}

TEST_F(zeb_app_info, a_quit_drops_exactly_the_items_of_the_peer)
{
    const zeb_msg_dispatcher_t table[] = {{1, order_msg}, {0, nullptr}};
    ASSERT_EQ(zeb_register(APP, "x", table, order_event), 0);
    zeb_app_info_t *info = zeb_get_app_info(APP);
    zeb_enqueue_msg_dist(new_msg(1, 0, PEER, PEER_NODE), info);
    zeb_enqueue_msg_dist(new_msg(1, 0, PEER, PEER_NODE + 1), info);
    zeb_enqueue_msg_dist(new_msg(1, 0, PEER + 1, PEER_NODE), info);
    zeb_enqueue_msg_dist(new_msg(1, 0, PEER, PEER_NODE), info);
    EXPECT_EQ(zeb_unprocess_app_msg_num(APP, {PEER, PEER_NODE}), 2);
    EXPECT_EQ(zeb_unprocess_app_msg_num(999, {PEER, PEER_NODE}), 0);
    lines_t lines = logged(V | I, [] { zeb_discard_app_msg(APP, {PEER, PEER_NODE}); });
    EXPECT_EQ(lines[0], "1 ZEB app 100 discard 200/9 msg.");
    EXPECT_EQ(lines[1], "0 ZEB app 100 update recv drop num 2 from 200/9.");
    EXPECT_EQ(zeb_unprocess_app_msg_num(APP, {PEER, PEER_NODE}), 0);
    EXPECT_EQ(zeb_unprocess_app_msg_num(APP, {PEER, PEER_NODE + 1}), 1);
    EXPECT_EQ(zeb_unprocess_app_msg_num(APP, {PEER + 1, PEER_NODE}), 1);
    EXPECT_EQ(logged(15,
                     [] {
                         zeb_discard_app_msg(999, {PEER, PEER_NODE});
                     }),
              lines_t({"1 ZEB app 999 discard 200/9 msg."}));
}
