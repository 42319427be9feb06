// Calls that no thread waits for: outcomes, time-outs, cancelling.
#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "rpc_test.h"

#include "zeb_app_info.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_recv.h"
#include "zeb_rpc_async.h"
#include "zeb_timer.h"

#include <zeb/zeb_ext.h>

// What the functions of the calls were given, in order.
typedef struct finished_s {
    uint32_t call;
    void *context;
    lines_t outcomes;
    pthread_t thread;
} finished_t;

static std::mutex s_mutex;
static std::vector<finished_t> &s_finished = *new std::vector<finished_t>; // never destroyed: threads outlive main

static lines_t outcomes_of(const zeb_reply_msg_t *replies)
{
    lines_t out;
    for (int i = 0; i < replies->num; i++) {
        const zeb_msg_hdr_t &hdr = replies->msg[i]->hdr;
        out.push_back(std::to_string(hdr.src_app) + "/" + std::to_string(hdr.src_node) + " " +
                      std::to_string(hdr.rpc_stat));
    }
    return out;
}

static void finish(uint32_t call, zeb_reply_msg_t *replies, void *context)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    s_finished.push_back({call, context, outcomes_of(replies), pthread_self()});
}

static std::vector<finished_t> take_finished()
{
    std::lock_guard<std::mutex> lock(s_mutex);
    std::vector<finished_t> out;
    out.swap(s_finished);
    return out;
}

class zeb_rpc_async_test : public rpc_test
{
  protected:
    void TearDown() override
    {
        fault::hold_clock(-1);
        rpc_test::TearDown();
    }

    // Begins a call of APP; its number, which is the sequence number of its requests.
    uint32_t call(uint32_t milliseconds = 0, uint32_t node = ZEB_NODE_ALL, zeb_call_done_fun_t done = finish,
                  void *context = nullptr, uint32_t app = APP)
    {
        uint32_t number = 0;
        EXPECT_EQ(zeb_rpc_async(app, node, PEER, msg_, 0, milliseconds, done, context, &number), 0);
        EXPECT_NE(number, 0u);
        return number;
    }

    // What the receive thread does at the end of a turn; how long it may sleep then.
    static int serve()
    {
        zeb_rpc_async_time_out();
        zeb_rpc_async_run_ready();
        return zeb_rpc_async_until_next(ZEB_POLL_TIMEOUT_MS);
    }
};

TEST_F(zeb_rpc_async_test, gathers_one_outcome_of_every_kind_and_calls_the_function_once)
{
    for (uint32_t node : {2u, 3u, 4u, 5u, 6u})
        peer_online(node);
    (void)fake_tipc::take_sent();
    fault::hold_clock(0);
    fault::fail_next("sendto", EHOSTUNREACH, 1, 1); // to node 3
    int context = 0;
    uint32_t number = call(100, ZEB_NODE_ALL, finish, &context);
    EXPECT_EQ(fake_tipc::take_sent().size(), 4u);
    answer(5, number, ZEB_APP_MISMATCH, wire::bytes_t(8, 0));
    answer(2, number);
    answer(2, number); // twice
    peer_withdrawn(4);
    EXPECT_EQ(serve(), 100);
    EXPECT_TRUE(take_finished().empty()) << "node 6 is silent";
    fault::hold_clock(100);
    EXPECT_EQ(serve(), ZEB_POLL_TIMEOUT_MS);
    auto finished = take_finished();
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].call, number);
    EXPECT_EQ(finished[0].context, &context);
    EXPECT_EQ(finished[0].outcomes, lines_t({"200/3 4", "200/5 3", "200/2 0", "200/4 4", "200/6 5"}));
    answer(6, number); // late
    (void)serve();
    EXPECT_TRUE(take_finished().empty());
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n");
}

TEST_F(zeb_rpc_async_test, writes_the_bytes_of_zeb_rpc_and_zeb_rpcto)
{
    peer_online(3);
    peer_online(4);
    auto sent = [](uint32_t seq) {
        std::vector<wire::bytes_t> out;
        for (fake_tipc::sent_t &message : fake_tipc::take_sent()) {
            EXPECT_EQ(wire::header_of(message.bytes).seq, seq);
            std::fill(message.bytes.begin() + 28, message.bytes.begin() + 32, (uint8_t)0);
            out.push_back(message.bytes);
        }
        return out;
    };
    (void)fake_tipc::take_sent();
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), 0);
    auto by_rpc = sent(reply_.msg[0]->hdr.seq);
    zeb_reply_msg_free(&reply_);
    EXPECT_EQ(by_rpc.size(), 2u);
    EXPECT_EQ(sent(call()), by_rpc);
    EXPECT_EQ(zeb_rpcto(APP, 4, PEER, msg_, 0, 1, &reply_), 0);
    auto by_rpcto = sent(reply_.msg[0]->hdr.seq);
    EXPECT_EQ(by_rpcto.size(), 1u);
    EXPECT_EQ(sent(call(0, 4)), by_rpcto);
}

TEST_F(zeb_rpc_async_test, what_it_refuses_has_no_function_called)
{
    uint32_t number = 7;
    EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg_, 0, 1, finish, nullptr, &number), -ENOENT);
    EXPECT_EQ(number, 0u);
    peer_online(3);
    EXPECT_EQ(zeb_rpc_async(0, ZEB_NODE_ALL, PEER, msg_, 0, 1, finish, nullptr, &number), -EINVAL);
    EXPECT_EQ(zeb_rpc_async(999, ZEB_NODE_ALL, PEER, msg_, 0, 1, finish, nullptr, &number), -ENOENT);
    EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, 8192, msg_, 0, 1, finish, nullptr, &number), -EINVAL);
    EXPECT_EQ(zeb_rpc_async(APP, 65536, PEER, msg_, 0, 1, finish, nullptr, &number), -EINVAL);
    EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, nullptr, 0, 1, finish, nullptr, &number), -EINVAL);
    EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg_, 0, 1, nullptr, nullptr, &number), -EINVAL);
    EXPECT_EQ(zeb_rpc_async(APP, 4, PEER, msg_, 0, 1, finish, nullptr, nullptr), -ENOENT);
    (void)serve();
    EXPECT_TRUE(take_finished().empty());
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n");
    EXPECT_EQ(zeb_rpc_cancel(0, 1), -EINVAL);
    EXPECT_EQ(zeb_rpc_cancel(999, 1), -ENOENT);
    EXPECT_EQ(zeb_rpc_cancel(APP, 1), -EALREADY);
}

TEST_F(zeb_rpc_async_test, without_a_descriptor_the_first_call_is_refused_and_the_next_may_succeed)
{
    peer_online(3);
    fault::fail_next("eventfd", EMFILE);
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpc_async(APP, 3, PEER, msg_, 0, 1, finish, nullptr, nullptr), -1); }),
              lines_t({"3 ZEB create descriptor for calls failed: Too many open files."}));
    uint32_t number = call();
    answer(3, number);
    EXPECT_EQ(take_finished().size(), 1u);
}

TEST_F(zeb_rpc_async_test, sixty_four_instances_are_asked_and_sixty_five_refused)
{
    for (uint32_t node = 0; node < 64; node++)
        peer_online(node);
    (void)fake_tipc::take_sent();
    uint32_t number = call();
    EXPECT_EQ(fake_tipc::take_sent().size(), 64u);
    for (uint32_t node = 0; node < 64; node++)
        answer(node, number);
    auto finished = take_finished();
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].outcomes.size(), 64u);
    peer_online(64);
    (void)fake_tipc::take_sent();
    EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg_, 0, 1, finish, nullptr, nullptr), -ENOBUFS);
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    (void)serve();
    EXPECT_TRUE(take_finished().empty());
}

TEST_F(zeb_rpc_async_test, a_call_whose_requests_all_fail_is_done_at_once)
{
    peer_online(3);
    fault::fail_next("sendto", EHOSTUNREACH);
    uint32_t number = call(1000);
    EXPECT_TRUE(take_finished().empty()) << "not in the caller's thread";
    (void)serve();
    auto finished = take_finished();
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].call, number);
    EXPECT_EQ(finished[0].outcomes, lines_t({"200/3 4"}));
}

TEST_F(zeb_rpc_async_test, a_quit_while_requests_are_written_ends_its_part)
{
    peer_online(3);
    peer_online(4);
    (void)fake_tipc::take_sent();
    fault::run_next("sendto", [&] { peer_withdrawn(4); });
    uint32_t number = call();
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u) << "node 4 is not written to any more";
    answer(3, number);
    auto finished = take_finished();
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].outcomes, lines_t({"200/4 4", "200/3 0"}));
}

TEST_F(zeb_rpc_async_test, a_call_that_ends_while_its_request_is_written_is_left_alone)
{
    peer_online(3);
    fault::run_next(
        "sendto", [&] { peer_withdrawn(3); }, 0, EHOSTUNREACH);
    (void)call(100);
    (void)serve();
    auto finished = take_finished();
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].outcomes, lines_t({"200/3 4"}));
}

// Each call has a limit of its own, in whichever order they were begun, and the wait ends exactly at the earliest.
TEST_F(zeb_rpc_async_test, a_limit_runs_from_the_calls_beginning_to_the_millisecond)
{
    peer_online(3);
    peer_online(4);
    fault::hold_clock(5000);
    uint32_t late = call(150);
    uint32_t early = call(50);
    uint32_t same = call(50);
    uint32_t never = call(0);
    EXPECT_EQ(serve(), 50);
    fault::hold_clock(5049);
    answer(3, early); // an answer does not prolong it
    EXPECT_EQ(serve(), 1);
    EXPECT_TRUE(take_finished().empty());
    fault::hold_clock(5050);
    EXPECT_EQ(serve(), 100);
    auto finished = take_finished();
    ASSERT_EQ(finished.size(), 2u);
    EXPECT_EQ(finished[0].call, early);
    EXPECT_EQ(finished[0].outcomes, lines_t({"200/3 0", "200/4 5"}));
    EXPECT_EQ(finished[1].call, same);
    EXPECT_EQ(finished[1].outcomes, lines_t({"200/3 5", "200/4 5"}));
    fault::hold_clock(9000000);
    EXPECT_EQ(serve(), ZEB_POLL_TIMEOUT_MS);
    finished = take_finished();
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].call, late);
    EXPECT_EQ(zeb_rpc_cancel(APP, never), 0);
}

TEST_F(zeb_rpc_async_test, ten_thousand_calls_end_in_the_order_of_their_answers_and_the_rest_in_that_of_their_limits)
{
    constexpr size_t NUM = 10000;
    peer_online(3);
    (void)fake_tipc::take_sent();
    fault::hold_clock(0);
    std::vector<uint32_t> numbers;
    for (size_t i = 0; i < NUM; i++)
        numbers.push_back(call(i % 2 == 0 ? 60000 : (uint32_t)(NUM - i)));
    EXPECT_EQ(fake_tipc::take_sent().size(), NUM);
    std::vector<uint32_t> expected;
    for (size_t i = NUM; i >= 2; i -= 2) { // those that have time left, the last one first
        answer(3, numbers[i - 2]);
        expected.push_back(numbers[i - 2]);
    }
    fault::hold_clock(NUM);
    EXPECT_EQ(serve(), ZEB_POLL_TIMEOUT_MS);
    for (size_t i = NUM; i >= 2; i -= 2)
        expected.push_back(numbers[i - 1]);
    auto finished = take_finished();
    ASSERT_EQ(finished.size(), NUM);
    for (size_t i = 0; i < NUM; i++) {
        ASSERT_EQ(finished[i].call, expected[i]) << i;
        ASSERT_EQ(finished[i].outcomes, lines_t({i < NUM / 2 ? "200/3 0" : "200/3 5"})) << i;
    }
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n");
}

TEST_F(zeb_rpc_async_test, a_cancelled_call_has_no_function_and_its_answer_is_refused)
{
    peer_online(3);
    peer_online(4);
    fault::hold_clock(0);
    uint32_t number = call(10);
    answer(3, number);
    EXPECT_EQ(zeb_rpc_cancel(APP, number), 0);
    EXPECT_EQ(zeb_rpc_cancel(APP, number), -EALREADY);
    answer(4, number);
    fault::hold_clock(10);
    EXPECT_EQ(serve(), ZEB_POLL_TIMEOUT_MS) << "its deadline is gone too";
    EXPECT_TRUE(take_finished().empty());
}

TEST_F(zeb_rpc_async_test, a_call_of_zeb_rpc_is_not_cancelled)
{
    peer_online(3);
    (void)fake_tipc::take_sent();
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
    uint32_t seq = wait_requests(1);
    EXPECT_EQ(zeb_rpc_cancel(APP, seq), -EALREADY);
    answer(3, seq);
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/3 0"}));
}

TEST_F(zeb_rpc_async_test, a_number_that_a_caller_of_zeb_rpc_waits_for_is_not_drawn)
{
    peer_online(3);
    zeb_reply_msg_t other = {};
    uint32_t taken = zeb_get_seq() + 1;
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, taken, &other, 9), 0);
    uint32_t number = call();
    EXPECT_NE(number, taken);
    answer(3, number);
    EXPECT_EQ(take_finished().size(), 1u);
    zeb_rpc_del_wait(zeb_get_app_rpc(APP), taken);
}

// Runs `fun(number of the thread)` on several threads at once.
static void on_threads(const std::function<void(size_t)> &fun)
{
    std::vector<std::thread> threads;
    for (size_t i = 0; i < 4; i++)
        threads.emplace_back(fun, i);
    for (std::thread &thread : threads)
        thread.join();
}

TEST_F(zeb_rpc_async_test, threads_that_draw_at_once_draw_different_numbers)
{
    std::vector<uint32_t> drawn[4];
    std::atomic<bool> end{false};
    std::thread sender([&] {
        while (!end)
            (void)zeb_get_seq(); // as every send does
    });
    on_threads([&](size_t i) {
        for (int n = 0; n < 100000; n++)
            drawn[i].push_back(zeb_rpc_async_number());
    });
    end = true;
    sender.join();
    std::set<uint32_t> all;
    for (const std::vector<uint32_t> &numbers : drawn)
        all.insert(numbers.begin(), numbers.end());
    EXPECT_EQ(all.size(), 400000u);
}

TEST_F(zeb_rpc_async_test, calls_that_begin_at_once_are_cancelled_each_by_its_number)
{
    peer_online(3);
    on_threads([](size_t) {
        zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
        for (int n = 0; n < 300; n++) {
            uint32_t number = 0;
            EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg, 0, 0, finish, nullptr, &number), 0);
            EXPECT_EQ(zeb_rpc_cancel(APP, number), 0);
        }
        free(msg);
    });
    EXPECT_TRUE(take_finished().empty());
}

// Answers to other calls neither wake the callers of zeb_rpc nor prolong their limits.
TEST_F(zeb_rpc_async_test, callers_that_wait_are_not_woken)
{
    peer_online(3);
    int before = fault::broadcasts(cond());
    answer(3, call());
    EXPECT_EQ(take_finished().size(), 1u);
    EXPECT_EQ(fault::broadcasts(cond()), before);
}

static zeb_msg_t *s_kept;
static void keep_first(uint32_t, zeb_reply_msg_t *replies, void *)
{
    s_kept = replies->msg[0];
    replies->msg[0] = nullptr;
}

TEST_F(zeb_rpc_async_test, the_function_may_keep_a_message)
{
    peer_online(3);
    peer_online(4);
    uint32_t number = call(0, ZEB_NODE_ALL, keep_first);
    answer(4, number, 0, {'f', 'o', 'u', 'r'});
    answer(3, number, 0, {'x'});
    ASSERT_NE(s_kept, nullptr);
    EXPECT_EQ(memcmp(zeb_msg_data(s_kept), "four", zeb_msg_size(s_kept)), 0);
    zeb_msg_free(s_kept);
}

static std::vector<int> s_results;
static void cancel_oneself_and_call_again(uint32_t number, zeb_reply_msg_t *, void *context)
{
    s_results.push_back(zeb_rpc_cancel(APP, number));
    s_results.push_back(
        zeb_rpc_async(APP, 3, PEER, (zeb_msg_t *)context, 0, 0, finish, nullptr, nullptr)); // a call in a function
}

TEST_F(zeb_rpc_async_test, a_function_may_call_and_cancel)
{
    peer_online(3);
    (void)fake_tipc::take_sent();
    uint32_t number = call(0, 3, cancel_oneself_and_call_again, msg_);
    (void)wait_requests(1);
    answer(3, number);
    EXPECT_EQ(s_results, std::vector<int>({-EINPROGRESS, 0}));
    answer(3, wait_requests(1));
    EXPECT_EQ(take_finished().size(), 1u);
}

static std::atomic<int> s_free_locks{0};
static void try_locks(uint32_t, zeb_reply_msg_t *, void *)
{
    std::thread other([] { // one's own lock of the recursive mutex would not show
        zeb_app_mng_t *slot = zeb_get_app_mng(APP);
        struct timespec deadline; // the library's own threads may hold one for a moment
        (void)clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 5;
        for (zeb_mutex_t *mutex : {&g_lib_mutex, &slot->info->mutex, &slot->rpc->mutex, &slot->fc->mutex}) {
            if (pthread_mutex_timedlock(&mutex->impl, &deadline) == 0) {
                s_free_locks++;
                (void)pthread_mutex_unlock(&mutex->impl);
            }
        }
    });
    other.join();
}

TEST_F(zeb_rpc_async_test, the_function_runs_under_no_lock_whatever_ends_the_call)
{
    peer_online(3);
    answer(3, call(0, 3, try_locks));
    EXPECT_EQ(s_free_locks, 4) << "an answer";
    fault::hold_clock(0);
    (void)call(1, 3, try_locks);
    fault::hold_clock(1);
    (void)serve();
    EXPECT_EQ(s_free_locks, 8) << "a time-out";
    (void)call(0, 3, try_locks);
    peer_withdrawn(3);
    (void)serve();
    EXPECT_EQ(s_free_locks, 12) << "a quit";
}

// With threads: an application with one of its own, and one whose functions the receive thread runs.
class zeb_rpc_async_threads : public zeb_rpc_async_test
{
  protected:
    static constexpr uint32_t THREADED = APP + 1;

    void SetUp() override
    {
        rpc_test::SetUp();
        ASSERT_EQ(zeb_register(THREADED, "threaded", ONE_DISPATCHER, nullptr), 0);
        ASSERT_EQ(zeb_comm_with(THREADED, PEER), 0);
        peer_online(3, true, PEER, APP);
        (void)fake_tipc::take_sent();
        (void)fake_tipc::take_subscriptions();
    }

    // An answer that the receive thread reads.
    void arrives(uint32_t seq, uint32_t app)
    {
        wire::header_t header = from_peer(wire::REQUEST | wire::ACK, 3, PEER, app);
        header.seq = seq;
        fake_tipc::queue_data(sd(app), wire::message(header, {}));
    }

    static finished_t wait_finished()
    {
        std::vector<finished_t> finished;
        wait_until([&] {
            finished = take_finished();
            return !finished.empty();
        });
        EXPECT_EQ(finished.size(), 1u);
        return finished[0];
    }

    // Until the receive thread polls with that time-out.
    static void wait_poll(int timeout)
    {
        wait_until([=] {
            std::vector<int> polls = fault::take_polls();
            return std::find(polls.begin(), polls.end(), timeout) != polls.end();
        });
    }
};

TEST_F(zeb_rpc_async_threads, the_function_runs_on_the_applications_thread_or_on_the_receive_thread)
{
    zeb_run();
    arrives(call(0, 3, finish, nullptr, THREADED), THREADED);
    EXPECT_NE(pthread_equal(wait_finished().thread, zeb_get_app_info(THREADED)->tid), 0);
    arrives(call(), APP);
    EXPECT_NE(pthread_equal(wait_finished().thread, g_zeb_mng.lib_tid), 0);
}

TEST_F(zeb_rpc_async_threads, the_receive_thread_sleeps_until_the_earliest_deadline_and_is_woken_for_an_earlier_one)
{
    fault::hold_clock(1000);
    fault::watch_polls();
    zeb_run();
    wait_poll(ZEB_POLL_TIMEOUT_MS);
    uint32_t first = call(1500);
    auto timers = take_timers(ZEB_TIMER_TYPE_WAKE);
    ASSERT_EQ(timers.size(), 1u) << "once in a process";
    EXPECT_EQ(timers[0].ms, 0u);
    fake_tipc::queue_event(fake_tipc::timer_event(ZEB_TIMER_TYPE_WAKE, 0));
    wait_poll(1500);
    uint32_t second = call(40, 3, finish, nullptr, THREADED);
    wait_poll(40);
    EXPECT_TRUE(take_timers(ZEB_TIMER_TYPE_WAKE).empty());
    fault::hold_clock(1040);
    finished_t finished = wait_finished();
    EXPECT_EQ(finished.call, second);
    EXPECT_EQ(finished.outcomes, lines_t({"200/3 5"}));
    wait_poll(1460);
    fault::hold_clock(2500);
    finished = wait_finished();
    EXPECT_EQ(finished.call, first);
    wait_poll(ZEB_POLL_TIMEOUT_MS);
}

TEST_F(zeb_rpc_async_threads, a_call_that_is_done_and_whose_function_was_not_called_is_cancelled)
{
    uint32_t number = call(0, 3, finish, nullptr, THREADED); // its thread waits for the process to run
    wire::header_t header = from_peer(wire::REQUEST | wire::ACK, 3, PEER, THREADED);
    header.seq = number;
    receive(wire::message(header, {}), THREADED);
    EXPECT_EQ(zeb_rpc_cancel(THREADED, number), 0);
    uint32_t next = call(0, 3, finish, nullptr, THREADED);
    header.seq = next;
    receive(wire::message(header, {}), THREADED);
    zeb_run();
    EXPECT_EQ(wait_finished().call, next);
}

static std::atomic<int> s_stage{0};
static void run_until_told(uint32_t, zeb_reply_msg_t *, void *)
{
    s_stage = 1;
    wait_until([] { return s_stage == 2; });
    s_stage = 3;
}

TEST_F(zeb_rpc_async_threads, cancelling_a_call_whose_function_runs_waits_for_its_return)
{
    zeb_run();
    uint32_t number = call(0, 3, run_until_told, nullptr, THREADED);
    arrives(number, THREADED);
    wait_until([] { return s_stage == 1; });
    const pthread_cond_t *waited = internals::answer_cond(THREADED);
    int before = fault::waits(waited);
    std::thread canceller([&] {
        EXPECT_EQ(zeb_rpc_cancel(THREADED, number), -EALREADY);
        EXPECT_EQ(s_stage, 3);
    });
    wait_until([&] { return fault::waits(waited) > before; });
    s_stage = 2;
    canceller.join();
}

// Every call ends in one of two ways, and after a cancel its context is the caller's: a sanitizer sees a function that
// still uses it.
typedef struct raced_s {
    std::atomic<int> *called;
    int uses;
} raced_t;

static void use_context(uint32_t, zeb_reply_msg_t *, void *context)
{
    raced_t *raced = (raced_t *)context;
    raced->uses++;
    raced->called->fetch_add(1);
}

TEST_F(zeb_rpc_async_threads, a_cancel_that_races_with_the_answer_leaves_the_context_to_one_side)
{
    constexpr int ROUNDS = 300;
    zeb_run();
    for (uint32_t app : {THREADED, APP}) {
        std::atomic<int> called{0};
        std::atomic<int> cancelled{0};
        std::vector<std::thread> callers;
        for (int thread = 0; thread < 3; thread++) {
            callers.emplace_back([&, app] {
                zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0);
                for (int i = 0; i < ROUNDS; i++) {
                    raced_t *raced = new raced_t{&called, 0};
                    uint32_t number = 0;
                    EXPECT_EQ(zeb_rpc_async(app, 3, PEER, msg, 0, 5, use_context, raced, &number), 0);
                    arrives(number, app);
                    for (int wait = i % 7; wait > 0; wait--)
                        (void)sched_yield();
                    int ret = zeb_rpc_cancel(app, number);
                    EXPECT_TRUE(ret == 0 || ret == -EALREADY) << ret;
                    EXPECT_EQ(raced->uses, ret == 0 ? 0 : 1);
                    cancelled += ret == 0 ? 1 : 0;
                    delete raced;
                }
                free(msg);
            });
        }
        for (std::thread &caller : callers)
            caller.join();
        EXPECT_EQ(called + cancelled, 3 * ROUNDS);
        (void)fake_tipc::take_sent();
    }
}
