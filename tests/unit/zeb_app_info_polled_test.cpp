// Applications whose callbacks run in a thread of the program, when their descriptor is readable.
#include <atomic>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <thread>
#include <unistd.h>

#include <zeb/zeb_ext.h>

#include "by_number.h"
#include "lib_test.h"
#include "zeb_gate.h"

static std::atomic<int> s_messages;
static std::atomic<int> s_events;
static std::atomic<int> s_done; // functions of calls
static std::atomic<int> s_told;
static std::atomic<bool> s_hold;
static std::atomic<int> s_nested;
static std::atomic<int> s_stopped;
static pthread_t s_thread; // that of the last callback

static void on_message(void *, zeb_msg_t *msg)
{
    free(msg);
    s_thread = pthread_self();
    s_nested = zeb_dispatch(APP, 1);
    s_messages++;
    wait_until([] { return !s_hold; });
}

static void on_event(void *, const zeb_event_t *)
{
    s_stopped = zeb_stop();
    s_events++;
}

static const zeb_app_dispatcher_t TABLE[] = {{1, on_message, nullptr}, {0, nullptr, nullptr}};

class zeb_app_info_polled : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        zeb_app_options_t options = {};
        options.size = sizeof(options);
        options.app = APP;
        options.mode = ZEB_APP_POLLED;
        options.name = "polled";
        options.dispatchers = TABLE;
        options.event = on_event;
        options_ = options;
    }

    void TearDown() override
    {
        EXPECT_EQ(zeb_stop(), 0); // closes the descriptor
        lib_test::TearDown();
    }

    void start()
    {
        ASSERT_EQ(zeb_register_app(&options_), 0);
        ASSERT_EQ(zeb_comm_with(APP, PEER), 0);
    }

    void messages(int num)
    {
        for (int i = 0; i < num; i++)
            receive(wire::message(from_peer(0, 5, 1), {1})); // of a sender that needs no handshake
    }

    static bool readable()
    {
        struct pollfd ready = {zeb_app_fd(APP), POLLIN, 0};
        return poll(&ready, 1, 0) == 1 && ready.revents == POLLIN;
    }

    zeb_app_options_t options_;
};

TEST_F(zeb_app_info_polled, the_descriptor_is_readable_exactly_while_something_is_queued)
{
    start();
    EXPECT_FALSE(readable());
    EXPECT_EQ(zeb_dispatch(APP, 1), 0);
    messages(3);
    EXPECT_TRUE(readable());
    EXPECT_TRUE(readable()) << "looking changes nothing";
    EXPECT_EQ(zeb_dispatch(APP, 2), 2);
    EXPECT_EQ(s_messages, 2);
    EXPECT_TRUE(readable()) << "one is left";
    EXPECT_EQ(zeb_dispatch(APP, INT_MAX), 1);
    EXPECT_FALSE(readable());
    messages(1);
    EXPECT_TRUE(readable());
    EXPECT_EQ(zeb_dispatch(APP, INT_MAX), 1);
    EXPECT_FALSE(readable());
}

TEST_F(zeb_app_info_polled, callbacks_run_in_the_thread_that_dispatches_and_in_order)
{
    start();
    peer_online();
    EXPECT_TRUE(readable()) << "the join";
    messages(1);
    EXPECT_EQ(s_events, 0) << "nothing runs by itself";
    std::thread other([] {
        EXPECT_EQ(zeb_dispatch(APP, 1), 1);
        EXPECT_EQ(s_events, 1);
        EXPECT_EQ(s_messages, 0);
        EXPECT_EQ(zeb_dispatch(APP, 9), 1);
        EXPECT_TRUE(pthread_equal(s_thread, pthread_self()));
    });
    other.join();
    EXPECT_EQ(s_messages, 1);
    EXPECT_EQ(s_stopped, -EDEADLK) << "a callback cannot stop the library";
    EXPECT_EQ(zeb_stop(), 0) << "but the thread can, behind it";
}

static void on_done(uint32_t, zeb_reply_msg_t *, void *)
{
    s_thread = pthread_self();
    s_done++;
}

TEST_F(zeb_app_info_polled, the_function_of_a_call_runs_in_the_thread_that_dispatches)
{
    options_.event = nullptr;
    options_.queue_notice = 1;
    options_.queue_passed = [](void *, uint32_t, uint32_t) { s_told++; };
    start();
    peer_online();
    zeb_msg_t *request = zeb_msg_alloc(4, 1, 0);
    for (int i = 0; i < 3; i++) {
        uint32_t number = 0;
        EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, request, 0, 0, on_done, nullptr, &number), 0);
        wire::header_t header = from_peer(wire::REQUEST | wire::ACK);
        header.seq = number;
        receive(wire::message(header, {1}));
        if (i == 2) {
            EXPECT_EQ(zeb_rpc_cancel(APP, number), 0);
        }
    }
    free(request);
    EXPECT_TRUE(readable());
    EXPECT_EQ(s_done, 0) << "nothing runs by itself";
    EXPECT_EQ(s_told, 0) << "only messages and events have the application told";
    std::thread other([] {
        EXPECT_EQ(zeb_dispatch(APP, 1), 1);
        EXPECT_EQ(s_done, 1);
        EXPECT_TRUE(pthread_equal(s_thread, pthread_self()));
    });
    other.join();
    EXPECT_EQ(zeb_dispatch(APP, INT_MAX), 2) << "the cancelled one is an item without a function";
    EXPECT_EQ(s_done, 2);
    EXPECT_FALSE(readable());
}

TEST_F(zeb_app_info_polled, a_quit_that_empties_the_queue_leaves_the_descriptor_as_it_is)
{
    options_.event = nullptr;
    start();
    peer_online();
    receive(wire::message(from_peer(), {1}));
    EXPECT_TRUE(readable());
    peer_withdrawn();
    EXPECT_FALSE(readable()) << "what the peer had sent is dropped";
    EXPECT_EQ(zeb_dispatch(APP, INT_MAX), 0);
}

TEST_F(zeb_app_info_polled, one_thread_dispatches_at_a_time)
{
    start();
    messages(2);
    s_hold = true;
    std::thread other([] { EXPECT_EQ(zeb_dispatch(APP, 1), 1); });
    wait_until([] { return s_messages == 1; });
    EXPECT_EQ(s_nested, -EBUSY) << "not in its own callback either";
    EXPECT_EQ(zeb_dispatch(APP, 1), -EBUSY);
    s_hold = false;
    other.join();
    EXPECT_EQ(zeb_dispatch(APP, 1), 1);
}

TEST_F(zeb_app_info_polled, bad_arguments_are_refused)
{
    EXPECT_EQ(zeb_app_fd(APP), -ENOENT);
    EXPECT_EQ(zeb_dispatch(APP, 1), -ENOENT);
    start();
    ASSERT_EQ(add_app(APP + 1), 0);
    EXPECT_EQ(zeb_app_fd(APP + 1), -EINVAL);
    EXPECT_EQ(zeb_dispatch(APP + 1, 1), -EINVAL);
    EXPECT_EQ(zeb_dispatch(APP, 0), -EINVAL);
    EXPECT_EQ(zeb_dispatch(APP, -1), -EINVAL);
}

TEST_F(zeb_app_info_polled, a_stop_waits_for_the_callback_and_closes_the_descriptor)
{
    start();
    messages(5);
    int fd = zeb_app_fd(APP);
    s_hold = true;
    std::thread loop([] { EXPECT_EQ(zeb_dispatch(APP, INT_MAX), 1) << "no callback begins during the stop"; });
    wait_until([] { return s_messages == 1; });
    std::atomic<bool> done{false};
    std::thread stop([&] {
        EXPECT_EQ(zeb_stop(), 0);
        done = true;
    });
    wait_until([] { return zeb_stopping(); });
    EXPECT_FALSE(done);
    s_hold = false;
    loop.join();
    stop.join();
    struct pollfd closed = {fd, POLLIN, 0};
    EXPECT_EQ(poll(&closed, 1, 0), 1);
    EXPECT_EQ(closed.revents, POLLNVAL);
    EXPECT_EQ(zeb_app_fd(APP), -ENOENT);
}

TEST_F(zeb_app_info_polled, while_it_runs_the_receive_thread_only_queues)
{
    start();
    zeb_run();
    constexpr int num = 1000;
    std::thread sender([this] {
        for (int i = 0; i < num; i++)
            fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1}));
    });
    struct pollfd ready = {zeb_app_fd(APP), POLLIN, 0};
    while (s_messages < num) { // a descriptor that were not readable would hold it until the test's time limit
        ASSERT_EQ(poll(&ready, 1, -1), 1);
        EXPECT_GT(zeb_dispatch(APP, 7), 0);
    }
    sender.join();
    EXPECT_FALSE(readable());
    EXPECT_EQ(zeb_stop(), 0);
}
