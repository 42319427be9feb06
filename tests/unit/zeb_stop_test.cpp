// The stop of the library, and what begins anew after it. Cuts across the sources: each frees what it has.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <dirent.h>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <zeb/zeb_ext.h>

#include "by_number.h"
#include "internals.h"
#include "leaks.h"
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_gate.h"
#include "zeb_mng_recv.h"
#include "zeb_rpc_async.h"
#include "zeb_slot.h"
#include "zeb_timer.h"

constexpr int ROUNDS = 1000; // a second, four under ThreadSanitizer

constexpr uint32_t THREADED = 300; // an application with a proxy thread

static int files_in(const char *path)
{
    int num = 0;
    DIR *stream = opendir(path);
    while (const struct dirent *entry = readdir(stream))
        num += entry->d_name[0] != '.' ? 1 : 0;
    (void)closedir(stream);
    return num;
}

// By their names: a sanitizer has threads of its own.
static int library_threads()
{
    int num = 0;
    DIR *stream = opendir("/proc/self/task");
    while (const struct dirent *entry = readdir(stream)) {
        std::string name;
        std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm") >> name;
        num += name.rfind("zeb_lib_", 0) == 0 || name.rfind("zeb_app_", 0) == 0 ? 1 : 0;
    }
    (void)closedir(stream);
    return num;
}

class zeb_stop_test : public lib_test
{
  protected:
    ~zeb_stop_test() override
    {
        free(msg_);
    }

    static void fill_window()
    {
        for (int i = 0; i <= ZEB_FC_SEND_WINDOW; i++)
            zeb_fc_update_sent_ok(APP, {PEER, PEER_NODE});
    }

    // An application with a thread, whose dispatcher is `fun`.
    static void start_threaded(zeb_msg_dispatcher_fun_t fun)
    {
        const zeb_msg_dispatcher_t table[] = {{1, fun}, {0, nullptr}};
        ASSERT_EQ(zeb_register(THREADED, "threaded", table, see_event), 0);
    }

    // A message to the application as the kernel delivers it; its sender is one that needs no handshake.
    static void deliver(uint32_t app)
    {
        fake_tipc::queue_data(zeb_get_app_sd(app), wire::message(from_peer(0, 5, 1, app), {1}));
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 1, 0);
};

// A dispatcher that holds its thread until the test lets it go.
static std::atomic<int> s_entered;
static std::atomic<bool> s_let_go;
static std::atomic<int> s_result;

static void *held(zeb_msg_t *msg)
{
    free(msg);
    s_entered++;
    wait_until([] { return s_let_go.load(); });
    return nullptr;
}

static void *stops(zeb_msg_t *msg)
{
    free(msg);
    s_result = zeb_stop();
    s_entered++;
    return nullptr;
}

static std::atomic<int> s_done; // functions of calls that no thread waits for

static void count_done(uint32_t, zeb_reply_msg_t *, void *)
{
    s_done++;
}

TEST_F(zeb_stop_test, without_a_library_does_nothing)
{
    EXPECT_EQ(logged(V | I | W | E, [] { EXPECT_EQ(zeb_stop(), 0); }), lines_t());
    fault::fail_next("socket", EMFILE);
    EXPECT_NE(add_app(APP), 0);
    EXPECT_EQ(zeb_stop(), 0) << "after a start that failed";
    ASSERT_EQ(add_app(APP), 0);
    EXPECT_EQ(zeb_stop(), 0);
    EXPECT_EQ(zeb_stop(), 0) << "already stopped";
}

TEST_F(zeb_stop_test, ends_threads_closes_descriptors_and_forgets_the_applications)
{
    int descriptors = files_in("/proc/self/fd");
    start_app();
    start_threaded(see_msg);
    zeb_run();
    wait_until([] { return !fake_tipc::sockets()[zeb_get_app_sd(THREADED)].bound.empty(); });
    wait_until([] { return library_threads() == 2; }); // a thread gives itself its name
    EXPECT_EQ(logged(W | E, [] { EXPECT_EQ(zeb_stop(), 0); }), lines_t());
    wait_until([] { return library_threads() == 0; }); // a joined thread is listed for a moment
    EXPECT_EQ(files_in("/proc/self/fd"), descriptors);
    EXPECT_TRUE(fake_tipc::sockets().empty());
    EXPECT_EQ(zeb_get_app_mng(APP), nullptr);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT);
    EXPECT_EQ(zeb_comm_with(APP, PEER), -ENOENT);
    zeb_run();
}

TEST_F(zeb_stop_test, a_thousand_starts_and_stops_leave_nothing)
{
    int descriptors = files_in("/proc/self/fd");
    for (int i = 0; i < ROUNDS; i++) {
        start_app();
        start_threaded(see_msg);
        if (i % 4 != 0) // else it stops before it runs
            zeb_run();
        if (i % 4 == 2) { // in its poll, which nothing else ends for 2 s
            deliver(THREADED);
            fake_tipc::wait_read(zeb_get_app_sd(THREADED));
        }
        ASSERT_EQ(zeb_stop(), 0);
        ASSERT_TRUE(fake_tipc::sockets().empty());
    }
    EXPECT_EQ(files_in("/proc/self/fd"), descriptors);
}

TEST_F(zeb_stop_test, frees_all_that_it_knew)
{
    expect_nothing_left([this] {
        start_app();
        start_threaded(held);
        peer_online();
        EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), 0);
        int group = zeb_create_node_mcast(APP);
        EXPECT_EQ(zeb_add_node_mcast(APP, (uint32_t)group, 5), 0);
        EXPECT_GT(zeb_create_app_mcast(THREADED), 0);
        receive(wire::message(from_peer(0, 5, 1, THREADED), {1}), THREADED); // stays in its queue
        EXPECT_EQ(zeb_stop(), 0);
    });
}

TEST_F(zeb_stop_test, a_blocked_sender_and_a_waiting_caller_end)
{
    start_app();
    peer_online();
    std::atomic<int> sent{1};
    std::atomic<int> called{1};
    zeb_reply_msg_t replies;
    zeb_msg_t *request = zeb_msg_alloc(4, 1, 0);
    std::thread caller(
        [&] { called = zeb_rpc(APP, PEER, request, 0, 3600, &replies); }); // without a limit it wakes each second
    (void)wait_requests(1);
    wait_until([] { return fault::waits(internals::answer_cond(APP)) != 0; });
    fill_window();
    const pthread_cond_t *credit = &zeb_get_app_fc(APP)->cond.impl;
    std::thread sender([&] { sent = zeb_send(APP, PEER, msg_, 0); });
    wait_until([credit] { return fault::waits(credit) != 0; });
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_stop(), 0); }), lines_t());
    EXPECT_EQ(g_zeb_mng.starts, 1u);
    sender.join();
    caller.join();
    EXPECT_EQ(sent, -ESHUTDOWN);
    EXPECT_EQ(called, -ESHUTDOWN);
    EXPECT_EQ(replies.num, 0);
    EXPECT_EQ(replies.msg[0], nullptr);
    free(request);
}

TEST_F(zeb_stop_test, calls_that_no_thread_waits_for_end_without_their_function)
{
    expect_nothing_left([this] {
        start_app();
        start_threaded(see_msg);
        peer_online();
        EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg_, 0, 3600000, count_done, nullptr, nullptr), 0);
        uint32_t number = 0; // of a call that is done; the thread that would run its function waits for zeb_run
        EXPECT_EQ(zeb_rpc_async(THREADED, ZEB_NODE_ALL, PEER, msg_, 0, 0, count_done, nullptr, &number), 0);
        wire::header_t header = from_peer(wire::REQUEST | wire::ACK, PEER_NODE, PEER, THREADED);
        header.seq = number;
        receive(wire::message(header, {1}), THREADED);
        EXPECT_EQ(zeb_stop(), 0);
        EXPECT_EQ(zeb_rpc_cancel(APP, number), -ENOENT);
    });
    EXPECT_EQ(s_done, 0);
    EXPECT_EQ(zeb_rpc_async_wake_fd(), -1);
}

TEST_F(zeb_stop_test, after_a_second_start_calls_that_no_thread_waits_for_have_their_limits)
{
    for (int i = 1; i <= 2; i++) {
        start_app();
        peer_online();
        EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg_, 0, 1, count_done, nullptr, nullptr), 0);
        fake_tipc::queue_event(fake_tipc::timer_event(ZEB_TIMER_TYPE_WAKE, 0));
        zeb_run();
        wait_until([i] { return s_done == i; });
        EXPECT_EQ(zeb_stop(), 0);
    }
}

TEST_F(zeb_stop_test, after_a_second_start_without_such_calls_the_receive_thread_sleeps_as_long_as_ever)
{
    fault::hold_clock(1000);
    fault::watch_polls();
    auto polls_with = [](int timeout) {
        std::vector<int> polls = fault::take_polls();
        return std::count(polls.begin(), polls.end(), timeout) != 0;
    };
    start_app();
    peer_online();
    EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg_, 0, 40, count_done, nullptr, nullptr), 0);
    fake_tipc::queue_event(fake_tipc::timer_event(ZEB_TIMER_TYPE_WAKE, 0));
    zeb_run();
    wait_until([&] { return polls_with(40); });
    EXPECT_EQ(zeb_stop(), 0);
    (void)fault::take_polls();
    start_app();
    zeb_run();
    wait_until([&] { return polls_with(ZEB_POLL_TIMEOUT_MS); });
    EXPECT_EQ(zeb_stop(), 0);
    fault::hold_clock(-1);
}

TEST_F(zeb_stop_test, a_wait_for_servers_ends)
{
    start_app();
    zeb_run();
    wait_until([] { return !fake_tipc::sockets()[zeb_get_app_sd(APP)].bound.empty(); });
    int before = fault::waits(internals::running_cond());
    std::atomic<int> result{1};
    std::thread waiting([&] { result = zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 1, 0); });
    wait_until([before] { return fault::waits(internals::running_cond()) > before; });
    EXPECT_EQ(zeb_stop(), 0);
    waiting.join();
    EXPECT_EQ(result, -ESHUTDOWN);
}

TEST_F(zeb_stop_test, waits_for_the_callback_in_progress_and_drops_what_is_queued)
{
    start_threaded(held);
    start_app();
    zeb_run();
    deliver(THREADED);
    deliver(THREADED);
    wait_until([] { return s_entered == 1; });
    std::atomic<bool> stopped{false};
    std::thread stop([&] {
        EXPECT_EQ(zeb_stop(), 0);
        stopped = true;
    });
    wait_until([] { return zeb_stopping(); });
    zeb_reply_msg_t replies;
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ESHUTDOWN);
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, 0), -ESHUTDOWN);
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &replies), -ESHUTDOWN);
    EXPECT_EQ(zeb_rpcto(APP, PEER_NODE, PEER, msg_, 0, 1, &replies), -ESHUTDOWN);
    EXPECT_EQ(add_app(APP + 1), -ESHUTDOWN);
    EXPECT_EQ(zeb_comm_with(APP, PEER), -ESHUTDOWN);
    EXPECT_EQ(zeb_create_node_mcast(APP), -ESHUTDOWN);
    EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg_, 0, 0, count_done, nullptr, nullptr), -ESHUTDOWN);
    EXPECT_EQ(zeb_rpc_cancel(APP, 1), -ESHUTDOWN);
    EXPECT_EQ(zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 1, 1), -ESHUTDOWN);
    EXPECT_EQ(zeb_online_nodes(APP, PEER, nullptr, 0), -ESHUTDOWN);
    zeb_peer_state_t state;
    EXPECT_EQ(zeb_peer_state(APP, PEER, PEER_NODE, &state), -ESHUTDOWN);
    EXPECT_STREQ(zeb_last_error(), "ZEB zeb_peer_state called while the library stops.");
    EXPECT_FALSE(stopped);
    s_let_go = true;
    stop.join();
    EXPECT_EQ(s_entered, 1) << "the second message is dropped";
}

TEST_F(zeb_stop_test, is_refused_in_a_callback_with_and_without_a_thread)
{
    start_threaded(stops);
    const zeb_msg_dispatcher_t table[] = {{1, stops}, {0, nullptr}};
    ASSERT_EQ(zeb_register_without_thread(APP, "test", table, nullptr), 0);
    zeb_run();
    for (uint32_t app : {THREADED, APP}) {
        s_entered = 0;
        s_result = 0;
        lines_t lines = logged(E, [app] {
            deliver(app);
            wait_until([] { return s_entered == 1; });
        });
        EXPECT_THAT(lines, testing::Contains("3 ZEB zeb_stop called in a callback."));
        EXPECT_EQ(s_result, -EDEADLK);
    }
    EXPECT_EQ(zeb_stop(), 0);
}

TEST_F(zeb_stop_test, two_threads_may_stop_at_once)
{
    for (int i = 0; i < ROUNDS / 10; i++) {
        start_threaded(see_msg);
        zeb_run();
        std::thread other([] {
            EXPECT_EQ(zeb_stop(), 0);
            EXPECT_TRUE(fake_tipc::sockets().empty());
        });
        EXPECT_EQ(zeb_stop(), 0);
        EXPECT_TRUE(fake_tipc::sockets().empty());
        other.join();
    }
}

TEST_F(zeb_stop_test, threads_that_send_all_the_while_do_no_harm)
{
    std::atomic<bool> done{false};
    auto send = [&] {
        zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
        while (!done) {
            int ret = zeb_send(APP, PEER, msg, ZEB_SEND_NOWAIT);
            EXPECT_TRUE(ret == 0 || ret == -ENOENT || ret == -ESHUTDOWN || ret == -EAGAIN) << ret;
            (void)zeb_comm_with(APP, PEER);
            (void)zeb_create_app_mcast(APP);
            (void)fake_tipc::take_sent();
        }
        free(msg);
    };
    std::thread senders[] = {std::thread(send), std::thread(send)};
    for (int i = 0; i < ROUNDS / 10; i++) {
        start_app();
        if (i % 2 == 0)
            zeb_run();
        EXPECT_EQ(zeb_stop(), 0);
    }
    done = true;
    for (std::thread &sender : senders)
        sender.join();
}

TEST_F(zeb_stop_test, a_second_start_joins_as_another_process_and_goes_on_counting)
{
    uint32_t ids[2];
    uint32_t seqs[2];
    for (int i = 0; i < 2; i++) {
        start_app();
        (void)fake_tipc::take_sent();
        peer_published();
        for (const fake_tipc::sent_t &sent : fake_tipc::take_sent()) {
            if (wire::header_of(sent.bytes).dst_app != PEER)
                continue;
            ids[i] = sync_word(sent.bytes, 1);
            seqs[i] = sync_word(sent.bytes, wire::SEQ);
        }
        peer_syncs(PEER_SEQ);
        peer_acks(seqs[i], PEER_SEQ);
        EXPECT_EQ(take_seen().events.size(), 1u) << "the join";
        EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), 0);
        EXPECT_EQ(zeb_stop(), 0);
    }
    EXPECT_EQ(ids[0], (uint32_t)getpid());
    EXPECT_NE(ids[0], ids[1]);
    EXPECT_GT(seqs[1], seqs[0]);
}

TEST_F(zeb_stop_test, the_management_daemon_is_looked_up_anew)
{
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(add_app(ZEBD_APP_ID), 0);
        receive(wire::message(from_peer(ZEB_MSG_FLAG_MNG, 5, 700, ZEBD_APP_ID), {1}), ZEBD_APP_ID);
        EXPECT_EQ(take_seen().headers.size(), 1u);
        EXPECT_EQ(zeb_stop(), 0);
    }
}

TEST_F(zeb_stop_test, a_child_is_refused_and_one_of_a_stopped_process_has_a_library_of_its_own)
{
    auto in_child = [](int (*body)()) {
        pid_t pid = fork();
        if (pid == 0) {
            (void)alarm(20);
            _exit(body());
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
    };
    start_app();
    EXPECT_EQ(in_child([] { return zeb_stop() == -EPERM ? 0 : 1; }), 0);
    EXPECT_EQ(zeb_stop(), 0);
    EXPECT_EQ(in_child([] { return add_app(APP) == 0 && zeb_stop() == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(fault::count("pthread_atfork"), 1);
    start_app();
    EXPECT_EQ(in_child([] { return zeb_stop() == -EPERM ? 0 : 1; }), 0) << "started again";
    EXPECT_EQ(fault::count("pthread_atfork"), 1);
}

TEST_F(zeb_stop_test, the_files_are_closed_and_a_new_start_has_new_ones)
{
    write_conf("[MISC_CONF]\nzeb_log_cfg=15\n");
    ASSERT_EQ(setenv("VELK_DIR", dir().c_str(), 1), 0);
    std::string folder = dir() + "/dev/zeb";
    int descriptors = files_in("/proc/self/fd");
    start_app();
    ASSERT_NE(g_zeb_log_fp, nullptr);
    EXPECT_EQ(zeb_stop(), 0);
    EXPECT_EQ(g_zeb_log_fp, nullptr);
    EXPECT_EQ(files_in("/proc/self/fd"), descriptors);
    EXPECT_EQ(files_in(folder.c_str()), 2);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT) << "logged to no file";
    start_app();
    EXPECT_NE(g_zeb_log_fp, nullptr);
    EXPECT_EQ(files_in(folder.c_str()), 4);
    EXPECT_EQ(zeb_stop(), 0);
}

TEST_F(zeb_stop_test, a_stream_that_a_tool_has_opened_stays_open)
{
    FILE *own = tmpfile();
    write_conf("[MISC_CONF]\nzeb_log_cfg=15\n");
    ASSERT_EQ(setenv("VELK_DIR", dir().c_str(), 1), 0);
    start_app();
    FILE *opened = g_zeb_log_fp;
    g_zeb_log_fp = own;
    EXPECT_EQ(zeb_stop(), 0);
    EXPECT_EQ(g_zeb_log_fp, own);
    EXPECT_NE(own, opened);
    long before = ftell(own);
    EXPECT_EQ(zeb_comm_with(APP, PEER), -ENOENT);
    EXPECT_GT(ftell(own), before) << "lines go on to it";
    g_zeb_log_fp = nullptr;
    (void)fclose(own);
}

// What an application destroys at its end; its callbacks use it.
struct of_the_application_t {
    ~of_the_application_t()
    {
        if (zeb_stop() != 0)
            _exit(3);
        alive = false;
    }
    std::atomic<bool> alive{true};
};

static void *uses(zeb_msg_t *msg);

static of_the_application_t &of_the_application()
{
    static of_the_application_t s;
    return s;
}

static void *uses(zeb_msg_t *msg)
{
    if (!of_the_application().alive)
        _exit(4);
    free(msg);
    s_entered++;
    return nullptr;
}

TEST_F(zeb_stop_test, in_a_static_destructor_no_callback_runs_into_what_is_destroyed)
{
    pid_t pid = fork();
    if (pid == 0) {
        (void)alarm(20);
        (void)of_the_application();
        start_threaded(uses);
        zeb_run();
        std::thread feeder([] {
            int sd = zeb_get_app_sd(THREADED);
            for (int i = 0; i < 10000; i++)
                fake_tipc::queue_data(sd, wire::message(from_peer(0, 5, 1, THREADED), {1}));
        });
        feeder.detach();
        wait_until([] { return s_entered > 10; });
        exit(0); // runs the destructors, with the queue full
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
