// Each call that the library makes fails once at each place, in turn: a process starts, joins, exchanges, is listed and
// loses its topology connection, with the k-th call of one name failing. Whatever fails, the process neither crashes
// nor hangs, what could not be done is reported, and the next attempt works. Cuts across the sources.
#include "handshake_core.h"
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_slot.h"

#include <atomic>
#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using wire::operator+;

typedef struct fault_case_s {
    const char *call;
    int err;
} fault_case_t;

static void PrintTo(const fault_case_t &fault_case, std::ostream *out)
{
    *out << fault_case.call << ": " << strerror(fault_case.err);
}

// How a run ended.
enum ending_t : int {
    WELL = 0,
    NOT_REACHED = 40, // there are not so many calls of that name
    LOST_A_MESSAGE = 41,
    NO_SECOND_START = 42,
    NOT_ONLINE = 43,
    NO_TOPOLOGY = 44,
};

class zeb_faults : public lib_test, public testing::WithParamInterface<fault_case_t>
{
  protected:
    // Registers, again when a part failed. What fails at the start shows in the result, and nothing of it is left.
    static bool start_twice()
    {
        static const struct {
            uint32_t app;
            decltype(&zeb_register) call;
        } apps[] = {{APP, zeb_register_without_thread}, {APP + 1, zeb_register}};
        for (const auto &one : apps) {
            int ret = one.call(one.app, "test", ONE_DISPATCHER, see_event);
            if (ret != 0 && one.call(one.app, "test", ONE_DISPATCHER, see_event) != 0)
                return false;
            if (zeb_comm_with(one.app, PEER) != 0)
                return false;
        }
        return true;
    }

    // One message from the daemon, which needs no handshake: true when the thread hands it on.
    bool receives()
    {
        (void)take_seen();
        fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1}));
        fake_tipc::wait_read(sd());
        for (int looks = 0; looks < 100000; looks++) {
            if (!take_seen().headers.empty())
                return true;
            (void)sched_yield();
        }
        return false;
    }

    void exchange()
    {
        zeb_msg_t *msg = zeb_msg_alloc(5, 1, 0);
        (void)zeb_send(APP, PEER, msg, 0);
        (void)zeb_sendto(APP, PEER_NODE, PEER, msg, ZEB_SEND_NOWAIT);
        free(msg);
        wire::header_t request = from_peer(wire::REQUEST | wire::MNG);
        fake_tipc::queue_data(sd(),
                              wire::message(request, wire::tlv(wire::APP_STAT, {}) + wire::tlv(wire::APP_INFO, {})));
        fake_tipc::wait_read(sd());
        wire::bytes_t ours = wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3));
        fake_tipc::queue_item(sd(), returned_item(ours));
        fake_tipc::wait_read(sd());
        zeb_process_monitor_timer_event(1);
    }

    ending_t run();
    int run_with(int place);
};

ending_t zeb_faults::run()
{
    if (!start_twice())
        return NO_SECOND_START;
    zeb_run();
    if (!receives() && !receives()) // one may be lost to a failing read
        return LOST_A_MESSAGE;
    fake_tipc::queue_data(sd(), wire::message(from_peer(wire::SYNC), wire::sync_inst(PEER_SEQ, PEER_PID, 1, 0)));
    fake_tipc::wait_read(sd());
    exchange();
    fake_tipc::lose_topology();
    for (int looks = 0; fake_tipc::topology_sd() == -1 || looks < 10; looks++) {
        if (looks > 100000)
            return NO_TOPOLOGY;
        (void)receives(); // passes of the thread's loop
    }
    return receives() ? WELL : LOST_A_MESSAGE;
}

// In a process of its own, forked while there is no thread yet.
int zeb_faults::run_with(int place)
{
    pid_t pid = fork();
    if (pid == 0) {
        (void)alarm(30);
        fault::fail_next(GetParam().call, GetParam().err, 1, place);
        ending_t ending = run();
        zeb_dm_close_files();
        (void)fflush(stdout);
        _exit(fault::count(GetParam().call) <= place ? NOT_REACHED : ending);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    if (!WIFEXITED(status)) {
        ADD_FAILURE() << "place " << place << ": " << strsignal(WTERMSIG(status));
        return NO_SECOND_START;
    }
    return WEXITSTATUS(status);
}

TEST_P(zeb_faults, one_failure_at_any_place_is_survived)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not follow the threads of a forked child";
#endif
    write_conf("[MISC_CONF]\nzeb_log_cfg=15\n");
    ASSERT_EQ(setenv("VELK_DIR", dir().c_str(), 1), 0);
    int place = 0;
    for (; place < 100; place++) {
        int ending = run_with(place);
        if (ending == NOT_REACHED)
            break;
        // A name that cannot be taken ends the process, as it must.
        bool ends = strcmp(GetParam().call, "bind") == 0 && GetParam().err != ENOMEM;
        EXPECT_EQ(ending, ends ? 1 : (int)WELL) << "place " << place;
    }
    EXPECT_GT(place, 0) << "the run makes no such call";
}

static const fault_case_t CASES[] = {
    {"socket", EMFILE},
    {"socket", ENOMEM},
    {"connect", ECONNREFUSED},
    {"bind", EADDRINUSE},
    {"bind", ENOMEM},
    {"setsockopt", EINVAL},
    {"send", EINTR},
    {"send", ENOBUFS},
    {"send", EPIPE},
    {"sendto", EINTR},
    {"sendto", ENOMEM},
    {"sendto", EHOSTUNREACH},
    {"sendto", fault::SHORT},
    {"recv", ECONNRESET},
    {"recv", EINTR},
    {"recvmsg", EINTR},
    {"recvmsg", ENOMEM},
    {"poll", EINTR},
    {"poll", ENOMEM},
    {"fcntl(F_GETFD)", EBADF},
    {"fcntl(F_SETFD)", EBADF},
    {"fopen", EMFILE},
    {"fopen", EACCES},
    {"pthread_create", EAGAIN},
    {"atexit", ENOMEM},
    {"pthread_atfork", ENOMEM},
    {"pthread_mutex_init", ENOMEM},
    {"pthread_condattr_init", ENOMEM},
    {"pthread_condattr_setclock", EINVAL},
    {"pthread_cond_init", ENOMEM},
    {"shutdown", ENOTCONN},
    {"close", EIO},
};

INSTANTIATE_TEST_SUITE_P(call, zeb_faults, testing::ValuesIn(CASES), [](const auto &param) {
    std::string name = std::string(param.param.call) + "_" +
                       (param.param.err == fault::SHORT ? "short" : strerrorname_np(param.param.err));
    for (char &letter : name)
        letter = isalnum((unsigned char)letter) != 0 ? letter : '_';
    return name;
});

class zeb_shortage : public lib_test
{
};

TEST_F(zeb_shortage, without_descriptors_a_registration_fails_and_later_succeeds)
{
    struct rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    int next = dup(0); // the lowest that is free
    (void)close(next);
    struct rlimit none = {(rlim_t)next, before.rlim_max};
    ASSERT_EQ(zeb_get_my_node_id(), (int)NODE);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    int ret = zeb_register_without_thread(APP, "test", ONE_DISPATCHER, see_event);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(ret, -1);
    start_app();
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    ret = zeb_register_without_thread(APP + 1, "test", ONE_DISPATCHER, see_event);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(ret, -EAGAIN) << "a part of the application";
    EXPECT_EQ(zeb_register_without_thread(APP + 1, "test", ONE_DISPATCHER, see_event), 0);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take their memory before
TEST_F(zeb_shortage, without_memory_an_allocation_waits_and_goes_on)
{
    fault::arm(false); // what is counted is allocated
    struct rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    std::atomic<bool> short_of{false};
    std::atomic<bool> done{false};
    std::atomic<bool> early{false};
    std::thread relief([&] {
        while (!short_of)
            (void)sched_yield();
        for (int i = 0; i < 2000; i++)
            (void)sched_yield();
        early = done.load();
        (void)setrlimit(RLIMIT_AS, &before);
    });
    struct rlimit none = {1 << 20, before.rlim_max}; // less than there is
    ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
    short_of = true;
    zeb_msg_t *messages[64];
    for (zeb_msg_t *&msg : messages)
        msg = zeb_msg_alloc((int)wire::BODY_MAX, 1, 0);
    done = true;
    relief.join();
    EXPECT_FALSE(early) << "there was memory for all";
    for (zeb_msg_t *msg : messages) {
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->hdr.len, wire::MESSAGE_MAX);
        free(msg);
    }
}
#endif
