#include "zeb_mng.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_gate.h"
#include "zeb_handshake_shell.h"
#include "zeb_log_handler.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_recv.h"
#include "zeb_rpc.h"
#include "zeb_rpc_async.h"
#include "zeb_slot.h"
#include "zeb_tipc.h"

static bool g_lib_inited ZEB_GUARDED_BY(g_lib_mutex);

// One stop at a time; the second waits for the first. Outside g_lib_mutex, and no thread of the library takes it.
static zeb_mutex_t s_stop_mutex = {PTHREAD_MUTEX_INITIALIZER};

// Nothing to clean up: the kernel closes everything with the process.
static void zeb_lib_atexit()
{
}

static bool init_running_cond()
{
    return zeb_cond_init(&g_zeb_mng.running_cond, [](zeb_init_step_t step, int err) {
               if (step == ZEB_INIT_STEP_ATTR)
                   ZEB_ERROR_WHY("ZEB init running condition attribute failed: %s.\n", strerror(err));
               else if (step == ZEB_INIT_STEP_CLOCK)
                   ZEB_ERROR_WHY("ZEB set running condition clock attribute failed: %s.\n", strerror(err));
               else
                   ZEB_ERROR_WHY("ZEB init running condition failed: %s.\n", strerror(err));
           }) == 0;
}

// The number is cleared first: a child that is forked now must not close the descriptor again.
static void close_descriptor(int *fd)
{
    int open = *fd;
    *fd = -1;
    if (open != -1)
        (void)close(open);
}

static void close_descriptors()
{
    close_descriptor(&g_zeb_mng.subscr_sd);
    close_descriptor(&g_zeb_mng.wake_fd);
    zeb_rpc_async_close();
}

static bool open_wake_descriptor()
{
    g_zeb_mng.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_zeb_mng.wake_fd == -1)
        ZEB_ERROR_WHY("ZEB create wake descriptor failed: %s.\n", strerror(errno));
    return g_zeb_mng.wake_fd != -1;
}

// The receive thread waits here until the start has succeeded. Until then it holds and takes no lock, so that a failed
// start can cancel and join it under g_lib_mutex.
static sem_t s_start_gate;

static void *receive_thread_fun(void *arg)
{
    while (sem_wait(&s_start_gate) != 0)
        continue;
    return zeb_socket_msg_dist_thread_fun(arg);
}

// A child cannot use the library's sockets. It closes them, since otherwise the bound names would outlive the parent.
static void enter_child() ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    zeb_gate_forget();
    g_zeb_in_child = g_lib_inited;
    zeb_log_handler_enter_child();
    if (!g_lib_inited) { // it may start a library of its own; at a stop another thread may have held these
        s_stop_mutex = {PTHREAD_MUTEX_INITIALIZER};
        g_lib_mutex = {PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP};
        return;
    }
    zeb_each_app_mng([](zeb_app_mng_t *slot) {
        close_descriptor(&slot->sd);
        close_descriptor(&slot->info->ready_fd);
    });
    close_descriptors();
}

// Neither callback can be removed, so they are added last. On failure logs an ERROR line and returns false.
static bool add_process_callbacks()
{
    static bool s_exit_added; // by an earlier start that failed later
    if (!s_exit_added && atexit(zeb_lib_atexit) != 0) {
        ZEB_ERROR_WHY("ZEB add exit callback failed.\n");
        return false;
    }
    s_exit_added = true;
    static bool s_fork_added; // by an earlier start that was stopped
    int err = s_fork_added ? 0 : pthread_atfork(nullptr, nullptr, enter_child);
    if (err != 0)
        ZEB_ERROR_WHY("ZEB add fork callback failed: %s.\n", strerror(err));
    s_fork_added = err == 0;
    return err == 0;
}

static int start_receive_thread()
{
    (void)sem_init(&s_start_gate, 0, 0);
    int ret = pthread_create(&g_zeb_mng.lib_tid, nullptr, receive_thread_fun, nullptr);
    if (ret != 0) {
        ZEB_ERROR_WHY("ZEB create socket msg distribute thread failed: %s.\n", strerror(ret));
        return -ret;
    }
    if (!add_process_callbacks()) {
        (void)pthread_cancel(g_zeb_mng.lib_tid);
        (void)pthread_join(g_zeb_mng.lib_tid, nullptr);
        return -1;
    }
    (void)sem_post(&s_start_gate);
    return 0;
}

static int zeb_init_lib() ZEB_REQUIRES(g_lib_mutex)
{
    if (g_lib_inited)
        return 0;
    zeb_dm_start_again();
    ZEB_INFO("ZEB init lib on first app registeration.\n");
    if (g_zeb_mng.starts == 0) // a library that starts again goes on counting: its peers may remember the last numbers
        zeb_init_seq();
    zeb_clear_mng();
    zeb_handshake_start();
    if (!init_running_cond())
        return -1;
    g_zeb_mng.subscr_sd = zeb_create_subscription_socket();
    if (g_zeb_mng.subscr_sd == -1) {
        ZEB_ERROR("ZEB create subscription socket failed.\n");
        zeb_cond_destroy(&g_zeb_mng.running_cond);
        return -1;
    }
    int ret = open_wake_descriptor() ? start_receive_thread() : -1;
    if (ret != 0) {
        zeb_cond_destroy(&g_zeb_mng.running_cond);
        close_descriptors();
        return ret;
    }
    g_zeb_mng.starts++;
    g_lib_inited = true;
    return 0;
}

// The last slot is never used: it ends every scan.
static zeb_app_mng_t *free_slot()
{
    for (int i = 0; i < ZEB_APP_SLOT_NUM - 1; i++) {
        if (g_zeb_mng.app[i].app_id == 0)
            return &g_zeb_mng.app[i];
    }
    return nullptr;
}

int zeb_add_app_mng(const zeb_app_spec_t *spec)
{
    uint32_t app = spec->app;
    zeb_scoped_lock lock(&g_lib_mutex);
    int ret = zeb_init_lib();
    if (ret != 0) {
        ZEB_ERROR("ZEB init lib failed.\n");
        return ret;
    }
    if (g_zeb_mng.running) {
        ZEB_ERROR_WHY("ZEB had already running, and app %d can not be registered.\n", app);
        zeb_advise(" Register it before zeb_run.");
        return -1;
    }
    if (zeb_get_app_mng(app) != nullptr) {
        ZEB_ERROR_WHY("ZEB app %d has already registered.\n", app);
        zeb_advise(" This process registers it twice: give each application an id of its own.");
        return -EEXIST;
    }
    ZEB_INFO("ZEB add new app %d mgmt.\n", app);
    zeb_app_mng_t *slot = free_slot();
    if (slot == nullptr) {
        ZEB_WARN_WHY("ZEB lib's app registeration full.\n");
        return -ENOBUFS;
    }
    slot->fc = zeb_add_app_fc(app);
    slot->rpc = zeb_add_app_rpc_wait(app);
    slot->info = zeb_add_app_info(spec);
    slot->mng_stat = zeb_add_mng_stat(app);
    if (slot->fc != nullptr && slot->rpc != nullptr && slot->info != nullptr && slot->mng_stat != nullptr &&
        __zeb_add_comm_app(app, app) == 0) {
        slot->sd = slot->info->sd;
        slot->info->fc = slot->fc;
        slot->mc = &slot->info->mc;
        slot->app_id.store(app, std::memory_order_release);
        return 0;
    }
    zeb_del_app_fc(slot->fc);
    zeb_del_app_rpc_wait(slot->rpc);
    zeb_del_comm_app(app);
    zeb_app_info_t *info = slot->info;
    zeb_mng_stat_t *mng_stat = slot->mng_stat;
    zeb_clear_slot(slot);
    // The proxy thread waits for the running state under g_lib_mutex, and needs that mutex to be cancelled.
    lock.unlock();
    zeb_del_app_info(info);
    zeb_del_mng_stat(mng_stat);
    return -EAGAIN;
}

// An application stays until the library stops.
void zeb_del_app_mng(uint32_t)
{
}

// Ends every wait inside the library, so that calls and threads come out.
static void release_all()
{
    zeb_scoped_lock lock(&g_lib_mutex); // whoever waits for the running state has tested the gate
    zeb_cond_broadcast(&g_zeb_mng.running_cond);
    zeb_each_app_mng([](zeb_app_mng_t *slot) {
        zeb_fc_release(slot->fc);
        zeb_rpc_release(slot->rpc);
    });
    uint64_t one = 1;
    while (write(g_zeb_mng.wake_fd, &one, sizeof(one)) < 0 && errno == EINTR)
        continue;
}

// Nobody else knows the records any more.
static void free_app(zeb_app_mng_t *slot)
{
    slot->app_id.store(0, std::memory_order_relaxed);
    slot->sd = -1; // closed with the record; a child that is forked now must not close it again
    zeb_del_app_info(slot->info);
    zeb_del_app_fc(slot->fc);
    zeb_rpc_async_drop(slot->rpc);
    zeb_del_app_rpc_wait(slot->rpc);
    zeb_del_mng_stat(slot->mng_stat);
}

static void free_lib() ZEB_REQUIRES(g_lib_mutex)
{
    for (zeb_app_mng_t &slot : g_zeb_mng.app) {
        if (slot.app_id.load(std::memory_order_relaxed) != 0)
            free_app(&slot);
    }
    close_descriptors();
    zeb_handshake_start();
    zeb_cond_destroy(&g_zeb_mng.running_cond);
    g_zeb_mng.running_cond = {PTHREAD_COND_INITIALIZER}; // zeb_run may come before the next registration
    zeb_clear_mng();
    zeb_dm_stop();
    g_lib_inited = false;
}

static bool lib_started()
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return g_lib_inited;
}

int zeb_stop_lib()
{
    zeb_scoped_lock one(&s_stop_mutex);
    if (!lib_started())
        return 0;
    ZEB_INFO("ZEB stop lib.\n");
    zeb_gate_close();
    release_all();
    zeb_gate_wait_empty();
    (void)pthread_join(g_zeb_mng.lib_tid, nullptr);
    zeb_each_app_mng([](zeb_app_mng_t *slot) { zeb_end_proxy_thread(slot->info); });
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        free_lib();
    }
    zeb_gate_open();
    return 0;
}
