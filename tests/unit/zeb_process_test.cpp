// Fork, exec and signals. Cuts across the sources.
#include "lib_test.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_flow_ctrl.h"
#include "zeb_rpc.h"
#include "zeb_slot.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <zeb/zeb_diag.h>
#include <zeb/zeb_ext.h>

class zeb_process : public lib_test
{
};

// Exit status of a child that runs `body`; it must not hang on a lock that another thread held.
static int in_child(const std::function<int()> &body)
{
    pid_t pid = fork();
    if (pid == 0) {
        (void)alarm(20);
        _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Every call of a child; 0 when each gives what it should. Allocates nothing: another thread may have been in malloc.
static int every_call()
{
    static zeb_msg_t s_msg;
    static zeb_app_options_t s_options;
    static zeb_reply_msg_t s_reply;
    static zeb_reply_msg_t s_reply_to;
    static zeb_peer_state_t s_state;
    static uint32_t s_call;
    s_reply.num = s_reply_to.num = 1; // left by an earlier call
    s_reply.msg[0] = s_reply_to.msg[0] = &s_msg;
    const int results[] = {
        zeb_register(300, "child", NO_DISPATCHER, nullptr),
        zeb_register_without_thread(300, "child", NO_DISPATCHER, nullptr),
        zeb_unregister(APP),
        zeb_stop(),
        zeb_register_app(&s_options),
        zeb_app_fd(APP),
        zeb_dispatch(APP, 1),
        zeb_app_ready(APP),
        zeb_comm_with(APP, PEER),
        zeb_send(APP, PEER, &s_msg, 0),
        zeb_sendto(APP, PEER_NODE, PEER, &s_msg, 0),
        zeb_rpc(APP, PEER, &s_msg, 0, 1, &s_reply),
        zeb_rpcto(APP, PEER_NODE, PEER, &s_msg, 0, 1, &s_reply_to),
        zeb_rpc_reply(&s_msg, &s_msg, 0),
        zeb_create_app_mcast(APP),
        zeb_add_app_mcast(APP, 12288, PEER),
        zeb_create_node_mcast(APP),
        zeb_add_node_mcast(APP, 0x80000, 1),
        zeb_peer_state(APP, PEER, PEER_NODE, &s_state),
        zeb_online_nodes(APP, PEER, nullptr, 0),
        zeb_wait_online(APP, PEER, PEER_NODE, 1, 0),
        zeb_rpc_async(
            APP, PEER_NODE, PEER, &s_msg, 0, 1, [](uint32_t, zeb_reply_msg_t *, void *) {}, nullptr, &s_call),
        zeb_rpc_cancel(APP, 1),
    };
    if (s_reply.num != 0 || s_reply.msg[0] != nullptr || s_reply_to.num != 0 || s_reply_to.msg[0] != nullptr)
        return 100;
    for (size_t i = 0; i < sizeof(results) / sizeof(results[0]); i++) {
        if (results[i] != -EPERM)
            return (int)i + 1;
    }
    const char why[] = "ZEB zeb_run called in a child of the process that runs the library.";
    zeb_run();
    if (strcmp(zeb_last_error(), why) != 0 || strcmp(zeb_strerror(-EINVAL), "a bad argument") != 0)
        return 100;
    zeb_del_app_mcast(APP, 12288, PEER);
    zeb_destroy_app_mcast(APP, 12288);
    zeb_del_node_mcast(APP, 0x80000, 1);
    zeb_destroy_node_mcast(APP, 0x80000);
    if (zeb_msg_size(&s_msg) != 0 || zeb_msg_data(&s_msg) == nullptr) // messages are a child's own
        return 100;
    zeb_cli_print_lib_info(APP);
    zeb_cli_print_app_info(APP);
    zeb_cli_print_app_comm(APP);
    zeb_cli_print_fc_stat(APP);
    zeb_cli_print_mng_stat(APP);
    zeb_cli_print_rpc_stat(APP);
    return zeb_get_my_node_id() == (int)NODE ? 0 : 100;
}

TEST_F(zeb_process, in_a_child_every_call_is_refused_at_once_even_with_all_locks_held)
{
    start_app();
    std::promise<void> held;
    std::promise<void> done; // waited for without a call that the tests count: the child may not wait for their lock
    std::thread other([&] {
        zeb_app_mng_t *slot = zeb_get_app_mng(APP);
        zeb_scoped_lock all(&g_lib_mutex);
        zeb_scoped_lock queue(&slot->info->mutex);
        zeb_scoped_lock flow(&slot->fc->mutex);
        zeb_scoped_lock calls(&slot->rpc->mutex);
        held.set_value();
        done.get_future().wait();
    });
    held.get_future().wait();
    EXPECT_EQ(in_child(every_call), 0);
    done.set_value();
    other.join();
}

TEST_F(zeb_process, a_refused_call_says_which_it_was)
{
    start_app();
    EXPECT_EQ(logged(E,
                     [] {
                         EXPECT_EQ(in_child([] {
                                       int ret = zeb_comm_with(APP, PEER);
                                       (void)fflush(stdout);
                                       return ret == -EPERM ? 0 : 1;
                                   }),
                                   0);
                     }),
              lines_t({"3 ZEB zeb_comm_with called in a child of the process that runs the library."}));
}

TEST_F(zeb_process, a_child_may_change_the_log_handler_though_it_ran_in_another_thread)
{
    struct state_t {
        std::promise<void> entered;
        std::promise<void> done;
    } state;
    start_app();
    auto handler = [](void *context, int, const char *, int, const struct timespec *, const char *) {
        state_t *running = (state_t *)context;
        running->entered.set_value();
        running->done.get_future().wait();
    };
    ASSERT_EQ(zeb_set_log_handler(handler, &state), 0);
    g_zeb_log_level = E;
    std::thread other([] { ZEB_ERROR("ZEB x\n"); });
    state.entered.get_future().wait();
    g_zeb_log_level = 0;
    EXPECT_EQ(in_child([] { return zeb_set_log_handler(nullptr, nullptr); }), 0);
    state.done.set_value();
    other.join();
    EXPECT_EQ(zeb_set_log_handler(nullptr, nullptr), 0);
}

TEST_F(zeb_process, the_parent_goes_on_after_a_fork)
{
    start_app();
    peer_online();
    EXPECT_EQ(in_child(every_call), 0);
    (void)take_seen();
    receive(wire::message(from_peer(), {1}));
    EXPECT_EQ(take_seen().headers.size(), 1u);
}

TEST_F(zeb_process, a_child_has_the_sockets_closed_and_the_parent_keeps_them)
{
    start_app();
    start_app(APP + 1);
    const int sds[] = {g_zeb_mng.subscr_sd, sd(), sd(APP + 1)};
    auto open_num = [&] {
        int num = 0;
        for (int sd : sds)
            num += fcntl(sd, F_GETFD) != -1 ? 1 : 0;
        return num;
    };
    EXPECT_EQ(open_num(), 3);
    EXPECT_EQ(in_child(open_num), 0);
    EXPECT_EQ(open_num(), 3);
    EXPECT_EQ(g_zeb_mng.subscr_sd, sds[0]);
    EXPECT_EQ(sd(), sds[1]);
}

TEST_F(zeb_process, a_child_from_before_the_first_registration_may_have_a_library_of_its_own)
{
    EXPECT_EQ(in_child([this] {
                  start_app();
                  return HasFailure() ? 1 : 0;
              }),
              0);
    start_app();
}

TEST_F(zeb_process, a_child_after_a_start_that_failed_may_try_itself)
{
    fault::fail_next("socket", EMFILE);
    EXPECT_NE(zeb_register_without_thread(APP, "test", NO_DISPATCHER, nullptr), 0);
    EXPECT_EQ(in_child([] { return zeb_register_without_thread(APP, "test", NO_DISPATCHER, nullptr); }), 0);
}

TEST_F(zeb_process, children_of_a_busy_process_are_refused_and_end)
{
    start_app();
    peer_online();
    std::atomic<bool> done{false};
    std::thread sender([&] {
        zeb_msg_t *msg = zeb_msg_alloc(10, 1, 0);
        while (!done)
            (void)zeb_send(APP, PEER, msg, ZEB_SEND_NOWAIT);
        free(msg);
    });
    for (int i = 0; i < 30; i++)
        EXPECT_EQ(in_child(every_call), 0);
    done = true;
    sender.join();
}

TEST_F(zeb_process, a_program_that_a_child_becomes_inherits_no_descriptor)
{
    write_conf("[MISC_CONF]\nzeb_log_cfg=15\n");
    ASSERT_EQ(setenv("VELK_DIR", dir().c_str(), 1), 0);
    auto open_in_program = [&] {
        std::string text;
        char line[256];
        FILE *list = popen("exec ls -l /proc/self/fd", "r");
        while (fgets(line, sizeof(line), list) != nullptr)
            text += strstr(line, "anon_inode") != nullptr || strstr(line, dir().c_str()) != nullptr ? line : "";
        EXPECT_EQ(pclose(list), 0);
        return text;
    };
    ASSERT_EQ(open_in_program(), "");
    start_app();
    ASSERT_NE(g_zeb_log_fp, nullptr);
    EXPECT_EQ(open_in_program(), "");
    zeb_dm_close_files();
}

// Signals every thread that matters, without pause, while it lives.
struct storm_t {
    std::atomic<bool> done{false};
    std::thread thread;

    explicit storm_t(std::vector<pthread_t> targets)
    {
        struct sigaction action;
        memset(&action, 0, sizeof(action));
        action.sa_handler = [](int) {};
        (void)sigaction(SIGUSR1, &action, nullptr); // without SA_RESTART
        thread = std::thread([this, targets] {
            while (!done) {
                for (pthread_t target : targets)
                    (void)pthread_kill(target, SIGUSR1);
                std::this_thread::yield();
            }
        });
    }
    ~storm_t()
    {
        done = true;
        thread.join();
    }
    storm_t(const storm_t &) = delete;
    storm_t &operator=(const storm_t &) = delete;
};

TEST_F(zeb_process, under_a_storm_of_signals_the_library_starts_and_receives)
{
    storm_t storm({pthread_self()});
    start_app();
    storm_t more({g_zeb_mng.lib_tid});
    zeb_run();
    for (int i = 0; i < 50; i++) {
        fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1}));
        fake_tipc::wait_read(sd());
        wait_until([&] { return !take_seen().headers.empty(); });
    }
}

TEST_F(zeb_process, under_a_storm_of_signals_a_blocked_sender_waits_and_goes_on)
{
    start_app();
    peer_online();
    zeb_msg_t *msg = zeb_msg_alloc(1, 1, 0);
    for (int i = 0; i <= ZEB_FC_SEND_WINDOW; i++)
        ASSERT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg, ZEB_SEND_NOWAIT), 0);
    std::atomic<int> result{1};
    std::thread blocked([&] { result = zeb_sendto(APP, PEER_NODE, PEER, msg, 0); });
    {
        storm_t storm({blocked.native_handle()});
        for (int i = 0; i < 1000; i++)
            (void)sched_yield();
        EXPECT_EQ(result, 1) << "no signal lets it through";
        zeb_fc_update_sent_ack(APP, {PEER, PEER_NODE}, 1);
        wait_until([&] { return result != 1; });
    }
    blocked.join();
    EXPECT_EQ(result, 0);
    free(msg);
}

TEST_F(zeb_process, under_a_storm_of_signals_a_call_ends_by_its_time_out)
{
    start_app();
    peer_online();
    zeb_msg_t *msg = zeb_msg_alloc(1, 1, 0);
    zeb_reply_msg_t reply;
    {
        storm_t storm({pthread_self()});
        EXPECT_EQ(zeb_rpc(APP, PEER, msg, 0, 1, &reply), 0);
    }
    ASSERT_EQ(reply.num, 1);
    EXPECT_EQ(reply.msg[0]->hdr.rpc_stat, ZEB_TIMEOUT);
    free(reply.msg[0]);
    free(msg);
}

TEST_F(zeb_process, an_interrupted_write_is_repeated)
{
    start_app();
    peer_online();
    zeb_msg_t *msg = zeb_msg_alloc(1, 1, 0);
    fault::fail_next("sendto", EINTR, 1000);
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg, 0), 0);
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u);
    free(msg);
}
