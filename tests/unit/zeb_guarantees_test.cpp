// Promises and limits of docs/guarantees.md that concern several areas and have no test in one of them.
#include <algorithm>
#include <atomic>
#include <sched.h>
#include <thread>

#include "by_number.h"
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_handshake_shell.h"
#include "zeb_slot.h"

constexpr uint32_t THREADED = 300; // an application with a proxy thread
constexpr uint32_t SECOND = 101;   // another local application that talks to PEER

class zeb_guarantees : public lib_test
{
  protected:
    ~zeb_guarantees() override
    {
        free(msg_);
    }

    static std::string fc_text()
    {
        zeb_buf_printf_reset();
        zeb_cli_print_fc_stat(APP);
        return buffer_text();
    }

    static void fill_window()
    {
        for (int i = 0; i <= ZEB_FC_SEND_WINDOW; i++)
            zeb_fc_update_sent_ok(APP, {PEER, PEER_NODE});
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 1, 0);
};

// What the callbacks of an application saw, a letter each: J, Q, M.
static std::string s_story;
static std::atomic<bool> s_told;

static void *tell_msg(zeb_msg_t *msg)
{
    s_story += 'M';
    free(msg);
    return nullptr;
}

static void *tell_event(zeb_event_t event)
{
    s_story += event.type == ZEB_APP_JOIN ? 'J' : 'Q';
    return nullptr;
}

// The last item of the story: whatever was queued before it has been dispatched.
static void *tell_end(zeb_msg_t *msg)
{
    s_told = true;
    free(msg);
    return nullptr;
}

TEST_F(zeb_guarantees, nothing_of_an_instance_is_dispatched_after_its_quit_until_it_joins_again)
{
    const zeb_msg_dispatcher_t table[] = {{1, tell_msg}, {2, tell_end}, {0, nullptr}};
    ASSERT_EQ(zeb_register(THREADED, "story", table, tell_event), 0);
    ASSERT_EQ(zeb_comm_with(THREADED, PEER), 0);
    const wire::bytes_t message = wire::message(from_peer(0, PEER_NODE, PEER, THREADED), {1});
    peer_online(PEER_NODE, true, PEER, THREADED);
    receive(message, THREADED);
    peer_withdrawn();           // what is queued is dropped
    receive(message, THREADED); // and what was on its way
    peer_online(PEER_NODE, true, PEER, THREADED);
    receive(message, THREADED);
    wire::header_t end = from_peer(0, 5, 1, THREADED);
    end.app_ver = 2;
    receive(wire::message(end, {}), THREADED);
    zeb_run();
    while (!s_told)
        (void)sched_yield();
    EXPECT_EQ(s_story, "JQJM");
}

// A dispatcher that is at work until it is let go.
static std::atomic<bool> s_at_work;
static std::atomic<bool> s_let_go;
static std::atomic<bool> s_overlap;

static void *work(zeb_msg_t *msg)
{
    s_at_work = true;
    while (!s_let_go)
        (void)sched_yield();
    s_at_work = false;
    free(msg);
    return nullptr;
}

static void *event_meanwhile(zeb_event_t)
{
    s_overlap = s_at_work.load();
    s_told = true;
    return nullptr;
}

TEST_F(zeb_guarantees, callbacks_of_an_application_wait_for_each_other)
{
    const zeb_msg_dispatcher_t table[] = {{1, work}, {0, nullptr}};
    ASSERT_EQ(zeb_register(THREADED, "busy", table, event_meanwhile), 0);
    receive(wire::message(from_peer(0, 5, 1, THREADED), {1}), THREADED);
    zeb_run();
    while (!s_at_work)
        (void)sched_yield();
    ASSERT_EQ(zeb_enqueue_event_msg(THREADED, zeb_new_event_msg(THREADED, ZEB_APP_JOIN, {PEER, PEER_NODE})), 0);
    s_let_go = true;
    while (!s_told)
        (void)sched_yield();
    EXPECT_FALSE(s_overlap);
}

TEST_F(zeb_guarantees, a_call_passes_a_full_window_whatever_its_flags_and_counts_in_it)
{
    start_app();
    peer_online();
    fill_window();
    (void)fake_tipc::take_sent();
    ASSERT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, ZEB_SEND_NOWAIT), -EAGAIN);
    zeb_reply_msg_t reply = {};
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, ZEB_SEND_NOWAIT, 1, &reply), 0);
    zeb_reply_msg_free(&reply);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].flags, MSG_NOSIGNAL) << "it waits while TIPC is congested";
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/9: send 1026, unack 1026,"));
}

TEST_F(zeb_guarantees, a_message_that_comes_back_stays_in_the_window)
{
    start_app();
    peer_online();
    fill_window();
    wire::header_t header;
    header.src_app = APP;
    header.src_node = NODE;
    header.dst_app = PEER;
    header.dst_node = PEER_NODE;
    const uint32_t info[2] = {4, 36};
    fake_tipc::item_t item;
    item.anc.push_back({TIPC_ERRINFO, wire::bytes_t((const uint8_t *)info, (const uint8_t *)(info + 2))});
    item.anc.push_back({TIPC_RETDATA, wire::message(header, {})});
    receive_item(item);
    EXPECT_THAT(fc_text(),
                testing::HasSubstr("Receive from application 200/9: receive 0, unack 0, drop 0, return 1\n"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/9: send 1025, unack 1025,"));
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, ZEB_SEND_NOWAIT), -EAGAIN);
    peer_withdrawn();
    peer_online();
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, ZEB_SEND_NOWAIT), 0) << "until the peer has quit";
}

TEST_F(zeb_guarantees, a_quit_ends_the_calls_of_the_first_subscriber_alone)
{
    start_app();
    start_app(SECOND);
    peer_online();
    zeb_reply_msg_t replies[2] = {};
    const uint32_t callers[] = {APP, SECOND};
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(zeb_rpc_prepare_wait(callers[i], 55, &replies[i], 1), 0);
        ASSERT_EQ(zeb_rpc_set_wait(callers[i], 55, {PEER, PEER_NODE}), 0);
    }
    peer_withdrawn();
    EXPECT_EQ(replies[0].num, 1);
    EXPECT_EQ(replies[1].num, 0) << "it has its time-out";
    EXPECT_EQ(zeb_rpc_wait_reply(SECOND, 55), 0);
    ASSERT_EQ(replies[1].num, 1);
    EXPECT_EQ(replies[1].msg[0]->hdr.rpc_stat, ZEB_TIMEOUT);
    zeb_rpc_del_wait(APP, 55);
    for (zeb_reply_msg_t &reply : replies)
        zeb_reply_msg_free(&reply);
}

TEST_F(zeb_guarantees, a_group_that_changes_during_a_send_is_seen_by_the_next)
{
    start_app();
    for (uint32_t node : {3u, 4u, 5u})
        peer_online(node);
    uint32_t group = (uint32_t)zeb_create_node_mcast(APP);
    ASSERT_EQ(zeb_add_node_mcast(APP, group, 3), 0);
    ASSERT_EQ(zeb_add_node_mcast(APP, group, 4), 0);
    (void)fake_tipc::take_sent();
    fault::run_next("sendto", [&] {
        zeb_del_node_mcast(APP, group, 4);
        EXPECT_EQ(zeb_add_node_mcast(APP, group, 5), 0);
    });
    std::vector<uint32_t> nodes;
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(zeb_sendto(APP, group, PEER, msg_, 0), 0);
    for (const fake_tipc::sent_t &sent : fake_tipc::take_sent())
        nodes.push_back(wire::header_of(sent.bytes).dst_node);
    EXPECT_EQ(nodes, std::vector<uint32_t>({3, 4, 3, 5}));
}

TEST_F(zeb_guarantees, a_peer_named_after_the_start_is_subscribed_to_with_the_next_connection)
{
    start_app();
    zeb_subscr_tipc_events();
    (void)fake_tipc::take_subscriptions();
    ASSERT_EQ(zeb_comm_with(APP, 400), 0);
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
    zeb_subscr_tipc_events(); // of a new topology connection
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 3u) << "itself, PEER and the new one";
}

TEST_F(zeb_guarantees, a_peer_named_after_the_start_is_a_warning)
{
    start_app();
    EXPECT_EQ(logged(W | E, [] { EXPECT_EQ(zeb_comm_with(APP, 399), 0); }), lines_t());
    zeb_subscr_tipc_events();
    EXPECT_EQ(
        logged(W | E, [] { EXPECT_EQ(zeb_comm_with(APP, 400), 0); }),
        lines_t({"2 ZEB app 100 named 400 after the start: not subscribed to until the topology connection is next "
                 "opened."}));
    EXPECT_EQ(logged(W | E,
                     [] {
                         EXPECT_EQ(zeb_comm_with(APP, 400), 0);
                         EXPECT_EQ(zeb_comm_with(APP, PEER), 0);
                     }),
              lines_t())
        << "those that are named already are no news";
}

TEST_F(zeb_guarantees, a_peer_named_between_the_start_and_the_subscription_is_subscribed_to)
{
    start_app();
    // The receive thread pauses before it subscribes: with the library's lock held it goes no further.
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_run();
    EXPECT_EQ(logged(W | E, [] { EXPECT_EQ(zeb_comm_with(APP, 400), 0); }), lines_t()) << "no warning: it is in time";
    (void)fake_tipc::take_subscriptions();
    lock.unlock();
    size_t subscribed = 0;
    wait_until([&] {
        for (const auto &bytes : fake_tipc::take_subscriptions())
            subscribed += subscription_words(bytes)[1] == 400u << 16 ? 1 : 0;
        return subscribed != 0;
    });
    EXPECT_EQ(subscribed, 1u);
}

TEST_F(zeb_guarantees, after_a_stop_a_peer_may_be_named_again_before_the_next_start)
{
    start_app();
    zeb_subscr_tipc_events();
    EXPECT_EQ(zeb_stop(), 0);
    EXPECT_EQ(logged(W, [this] { start_app(); }), lines_t());
}

TEST_F(zeb_guarantees, a_header_in_the_other_byte_order_is_discarded)
{
    start_app();
    peer_online();
    (void)take_seen();
    for (uint8_t flag : {(uint8_t)0, wire::SYNC, wire::REQUEST, wire::MNG}) {
        wire::bytes_t message = wire::message(from_peer(flag), {1, 2, 3, 4});
        for (auto word = message.begin() + 4; word != message.begin() + ZEB_MSG_HDR_LEN; word += 4)
            std::reverse(word, word + 4);
        EXPECT_THAT(logged(E, [&] { receive(message); }),
                    testing::Contains("3 ZEB app 100 recv msg len 40, expectedly 671088640."));
    }
    EXPECT_TRUE(take_seen().headers.empty());
}
