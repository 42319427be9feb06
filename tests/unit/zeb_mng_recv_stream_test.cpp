// When the receive thread of lib/zeb_mng_recv.cpp wakes a proxy thread: once for what came together, and before it does
// anything else.
#include "lib_test.h"
#include "zeb_app_info.h"
#include "zeb_slot.h"

#include <atomic>

constexpr uint32_t STREAM = 300; // an application with a proxy thread
constexpr uint32_t INLINE = 301; // one without

static int signals()
{
    return fault::signals(&zeb_get_app_info(STREAM)->msg_cond.impl);
}

class zeb_mng_recv_stream : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        ASSERT_EQ(zeb_register(STREAM, "stream", ONE_DISPATCHER, see_event), 0);
        ASSERT_EQ(zeb_comm_with(STREAM, PEER), 0);
    }

    static wire::bytes_t message(uint8_t flag = 0, uint32_t app = STREAM, size_t len = 1)
    {
        return wire::message(from_peer(flag, PEER_NODE, PEER, app), wire::bytes_t(len, 'x'));
    }

    void arrive(const wire::bytes_t &datagram, int times = 1)
    {
        for (int i = 0; i < times; i++)
            fake_tipc::queue_data(sd(STREAM), datagram);
    }

    // Runs the library until `num` messages were delivered; their lengths in order.
    static std::vector<uint32_t> delivered(size_t num)
    {
        zeb_run();
        std::vector<uint32_t> lengths;
        wait_until([&] {
            for (const zeb_msg_hdr_t &header : take_seen().headers)
                lengths.push_back(header.len);
            return lengths.size() >= num;
        });
        return lengths;
    }
};

TEST_F(zeb_mng_recv_stream, messages_that_came_together_wake_the_thread_once)
{
    peer_online(PEER_NODE, true, PEER, STREAM);
    int before = signals();
    std::vector<uint32_t> sent;
    for (uint32_t len = 1; len <= 20; len++) {
        arrive(message(0, STREAM, len));
        sent.push_back(wire::HEADER_LEN + len);
    }
    EXPECT_EQ(delivered(20), sent);
    EXPECT_EQ(signals() - before, 1);
}

TEST_F(zeb_mng_recv_stream, a_long_stream_wakes_the_thread_every_64_messages)
{
    peer_online(PEER_NODE, true, PEER, STREAM);
    int before = signals();
    arrive(message(), 130);
    EXPECT_EQ(delivered(130).size(), 130u);
    EXPECT_EQ(signals() - before, 3);
}

TEST_F(zeb_mng_recv_stream, a_request_wakes_the_thread_at_once)
{
    peer_online(PEER_NODE, true, PEER, STREAM);
    int before = signals();
    arrive(message(), 2);
    arrive(message(wire::REQUEST));
    arrive(message(), 2);
    EXPECT_EQ(delivered(5).size(), 5u);
    EXPECT_EQ(signals() - before, 3) << "what came before it, itself, what came after it";
}

TEST_F(zeb_mng_recv_stream, a_large_message_wakes_the_thread_at_once)
{
    peer_online(PEER_NODE, true, PEER, STREAM);
    int before = signals();
    arrive(message(0, STREAM, 4096 - wire::HEADER_LEN));
    arrive(message(0, STREAM, 4097 - wire::HEADER_LEN), 2);
    EXPECT_EQ(delivered(3), std::vector<uint32_t>({4096, 4097, 4097}));
    EXPECT_EQ(signals() - before, 3);
}

static std::atomic<int> s_signals_before_inline;
static void *see_inline(zeb_msg_t *msg)
{
    s_signals_before_inline = signals();
    return see_msg(msg);
}

TEST_F(zeb_mng_recv_stream, the_thread_is_woken_before_another_application_runs_on_the_receive_thread)
{
    const zeb_msg_dispatcher_t table[] = {{1, see_inline}, {0, nullptr}};
    ASSERT_EQ(zeb_register_without_thread(INLINE, "inline", table, nullptr), 0);
    ASSERT_EQ(zeb_comm_with(INLINE, PEER), 0);
    peer_online(PEER_NODE, true, PEER, STREAM);
    int before = signals();
    arrive(message());
    fake_tipc::queue_data(sd(INLINE), message(0, INLINE));
    EXPECT_EQ(delivered(2).size(), 2u);
    EXPECT_EQ(s_signals_before_inline - before, 1);
}

static std::atomic<int> s_signals_before_event;
static void *see_quit(zeb_event_t event)
{
    if (event.type == ZEB_APP_QUIT)
        s_signals_before_event = signals();
    return nullptr;
}

TEST_F(zeb_mng_recv_stream, the_thread_is_woken_before_a_topology_event_is_handled)
{
    ASSERT_EQ(zeb_register_without_thread(INLINE, "inline", NO_DISPATCHER, see_quit), 0);
    ASSERT_EQ(zeb_comm_with(INLINE, PEER + 1), 0);
    peer_online(PEER_NODE, true, PEER, STREAM);
    peer_online(PEER_NODE, true, PEER + 1, INLINE);
    int before = signals();
    arrive(message());
    fault::run_next("poll", [] {}); // this one finds the message, the next one the withdrawal too
    fault::run_next("poll", [] {
        constexpr uint32_t gone = (PEER + 1) << 16 | PEER_NODE;
        fake_tipc::queue_event(fake_tipc::range_event(TIPC_WITHDRAWN, gone, gone));
    });
    zeb_run();
    wait_until([&] { return s_signals_before_event != 0; });
    EXPECT_EQ(s_signals_before_event - before, 1);
}

TEST_F(zeb_mng_recv_stream, the_thread_is_woken_when_the_next_poll_fails)
{
    peer_online(PEER_NODE, true, PEER, STREAM);
    fault::fail_next("poll", EINTR, 1, 1); // the second: the first finds the message
    int before = signals();
    arrive(message());
    (void)logged(W, [] { EXPECT_EQ(delivered(1).size(), 1u); });
    EXPECT_EQ(signals() - before, 1);
}

// What another application's socket gives in the same pass of the loop, and the receive thread queues nothing of.
struct other_t {
    const char *what;
    fake_tipc::item_t (*item)();
};

static void PrintTo(const other_t &other, std::ostream *out)
{
    *out << other.what;
}

static fake_tipc::item_t damaged()
{
    return {wire::bytes_t(3, 'x'), {}};
}

static fake_tipc::item_t from_nobody()
{
    return {wire::message(from_peer(0, PEER_NODE + 1, PEER, STREAM + 2), {1}), {}};
}

static fake_tipc::item_t come_back()
{
    return returned_item(wire::message(to_peer(0, PEER_NODE, PEER, STREAM + 2), {1}));
}

class zeb_mng_recv_stream_turn : public zeb_mng_recv_stream, public testing::WithParamInterface<other_t>
{
};

TEST_P(zeb_mng_recv_stream_turn, ends_with_the_thread_woken)
{
    ASSERT_EQ(zeb_register(STREAM + 2, "other", ONE_DISPATCHER, nullptr), 0);
    ASSERT_EQ(zeb_comm_with(STREAM + 2, PEER), 0);
    peer_online(PEER_NODE, true, PEER, STREAM);
    int before = signals();
    arrive(message());
    fake_tipc::queue_item(sd(STREAM + 2), GetParam().item());
    std::atomic<int> at_next_poll{-1};
    fault::run_next("poll", [] {}); // this one finds both
    fault::run_next("poll", [&] { at_next_poll = signals(); });
    EXPECT_EQ(delivered(1).size(), 1u);
    wait_until([&] { return at_next_poll != -1; });
    EXPECT_EQ(at_next_poll - before, 1);
}

INSTANTIATE_TEST_SUITE_P(of, zeb_mng_recv_stream_turn,
                         testing::Values(other_t{"a_damaged_datagram", damaged},
                                         other_t{"an_unknown_sender", from_nobody},
                                         other_t{"a_returned_message", come_back}),
                         [](const testing::TestParamInfo<other_t> &other) { return other.param.what; });
