// The manager record: application slots, library start, running state, sockets.
// Registration runs on application threads and holds g_lib_mutex for all of it. Slots are claimed in order and never
// freed; the application id is written last, so threads that look a slot up without the lock see it whole.
#include "zeb_mng.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/tipc.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/tipc_name.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_online.h"
#include "zeb_mng_recv.h"

zeb_mutex_t g_lib_mutex = {PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP};
zeb_mng_t g_zeb_mng;
bool g_zeb_in_child;

static bool g_lib_inited ZEB_GUARDED_BY(g_lib_mutex);

// There is nothing to tidy up: the kernel closes everything with the process.
static void zeb_lib_atexit()
{
}

static bool init_running_cond()
{
    return zeb_cond_init(&g_zeb_mng.running_cond, [](zeb_cond_step_t step, int err) {
               if (step == ZEB_COND_STEP_ATTR)
                   ZEB_ERROR("ZEB init running condition attribute failed: %s.\n", strerror(err));
               else if (step == ZEB_COND_STEP_CLOCK)
                   ZEB_ERROR("ZEB set running condition clock attribute failed: %s.\n", strerror(err));
               else
                   ZEB_ERROR("ZEB init running condition failed: %s.\n", strerror(err));
           }) == 0;
}

static void close_subscription_socket()
{
    (void)close(g_zeb_mng.subscr_sd);
    g_zeb_mng.subscr_sd = -1;
}

// The receive thread passes once the start has succeeded. Until then it holds and wants no lock, so that a failed start
// can cancel and join it under g_lib_mutex.
static sem_t s_start_gate;

static void *receive_thread_fun(void *arg)
{
    while (sem_wait(&s_start_gate) != 0)
        continue;
    return zeb_socket_msg_dist_thread_fun(arg);
}

static void enter_child() ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    g_zeb_in_child = g_lib_inited;
}

bool zeb_refuse_child(const char *call)
{
    ZEB_ERROR("ZEB %s called in a child of the process that runs the library.\n", call);
    return true;
}

static int start_receive_thread()
{
    (void)sem_init(&s_start_gate, 0, 0);
    int ret = pthread_create(&g_zeb_mng.lib_tid, nullptr, receive_thread_fun, nullptr);
    if (ret != 0) {
        ZEB_ERROR("ZEB create socket msg distribute thread failed: %s.\n", strerror(ret));
        return -ret;
    }
    if (atexit(zeb_lib_atexit) != 0) {
        ZEB_ERROR("ZEB add exit callback failed.\n");
        (void)pthread_cancel(g_zeb_mng.lib_tid);
        (void)pthread_join(g_zeb_mng.lib_tid, nullptr);
        return -1;
    }
    (void)pthread_detach(g_zeb_mng.lib_tid);
    (void)sem_post(&s_start_gate);
    return 0;
}

static void init_lists() ZEB_REQUIRES(g_lib_mutex)
{
    INIT_LIST_HEAD(&g_zeb_mng.ol_app_list);
    INIT_LIST_HEAD(&g_zeb_mng.inst_id_list);
    INIT_LIST_HEAD(&g_zeb_mng.inst_sync_list);
    INIT_LIST_HEAD(&g_zeb_mng.resume_comm_list);
    INIT_LIST_HEAD(&g_zeb_mng.rejoin_list);
    INIT_LIST_HEAD(&g_zeb_mng.sync_inst_ack_list);
    INIT_LIST_HEAD(&g_zeb_mng.sync_inst_retry_list);
}

// An application may send or list before it registers: it finds empty lists.
__attribute__((constructor)) static void init_lists_at_load() ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    init_lists();
}

static void clear_manager() ZEB_REQUIRES(g_lib_mutex)
{
    memset(&g_zeb_mng, 0, sizeof(g_zeb_mng));
    init_lists();
}

static int init_lib() ZEB_REQUIRES(g_lib_mutex)
{
    if (g_lib_inited)
        return 0;
    ZEB_INFO("ZEB init lib on first app registeration.\n");
    zeb_init_seq();
    clear_manager();
    int err = pthread_atfork(nullptr, nullptr, enter_child);
    if (err != 0) {
        ZEB_ERROR("ZEB add fork callback failed: %s.\n", strerror(err));
        return -1;
    }
    if (!init_running_cond())
        return -1;
    g_zeb_mng.subscr_sd = zeb_create_subscription_socket();
    if (g_zeb_mng.subscr_sd == -1) {
        ZEB_ERROR("ZEB create subscription socket failed.\n");
        zeb_cond_destroy(&g_zeb_mng.running_cond);
        return -1;
    }
    int ret = start_receive_thread();
    if (ret != 0) {
        zeb_cond_destroy(&g_zeb_mng.running_cond);
        close_subscription_socket();
        return ret;
    }
    g_lib_inited = true;
    return 0;
}

// The first free slot; the last one is never handed out.
static zeb_app_mng_t *free_slot()
{
    for (int i = 0; i < ZEB_APP_SLOT_NUM - 1; i++) {
        if (g_zeb_mng.app[i].app_id == 0)
            return &g_zeb_mng.app[i];
    }
    return nullptr;
}

int zeb_add_app_mng(uint32_t app, const char *app_name, bool thread, int dispatcher_num,
                    const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    int ret = init_lib();
    if (ret != 0) {
        ZEB_ERROR("ZEB init lib failed.\n");
        return ret;
    }
    if (g_zeb_mng.running) {
        ZEB_ERROR("ZEB had already running, and app %d can not be registered.\n", app);
        return -1;
    }
    if (zeb_get_app_mng(app) != nullptr) {
        ZEB_ERROR("ZEB app %d has already registered.\n", app);
        return -EEXIST;
    }
    ZEB_INFO("ZEB add new app %d mgmt.\n", app);
    zeb_app_mng_t *slot = free_slot();
    if (slot == nullptr) {
        ZEB_WARN("ZEB lib's app registeration full.\n");
        return -ENOBUFS;
    }
    slot->fc = zeb_add_app_fc(app);
    slot->rpc = zeb_add_app_rpc_wait(app);
    slot->info = zeb_add_app_info(app, app_name, thread, dispatcher_num, dispatcher, event);
    slot->mng_stat = zeb_add_mng_stat(app);
    if (slot->fc != nullptr && slot->rpc != nullptr && slot->info != nullptr && slot->mng_stat != nullptr &&
        __zeb_add_comm_app(app, app) == 0) {
        zeb_store_release(&slot->app_id, app);
        return 0;
    }
    zeb_del_app_fc(slot->fc);
    zeb_del_app_rpc_wait(slot->rpc);
    zeb_del_comm_app(app);
    zeb_app_mng_t parts = *slot;
    memset(slot, 0, sizeof(*slot));
    // The proxy thread waits for the running state under g_lib_mutex, which it needs to be cancelled.
    lock.unlock();
    zeb_del_app_info(parts.info);
    zeb_del_mng_stat(parts.mng_stat);
    return -EAGAIN;
}

// An application stays until the process ends.
void zeb_del_app_mng(uint32_t)
{
}

zeb_app_mng_t *zeb_get_app_mng(uint32_t app)
{
    uint32_t id = 0;
    for (zeb_app_mng_t *slot = g_zeb_mng.app; (id = zeb_load_acquire(&slot->app_id)) != 0; slot++) {
        if (id == app)
            return slot;
    }
    return nullptr;
}

void zeb_notify_running()
{
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        g_zeb_mng.running = true;
    }
    zeb_cond_broadcast(&g_zeb_mng.running_cond);
}

void zeb_wait_for_running()
{
    zeb_scoped_lock lock(&g_lib_mutex);
    while (!g_zeb_mng.running) {
        struct timespec deadline = zeb_deadline_in(1);
        (void)zeb_cond_wait_until(&g_zeb_mng.running_cond, &g_lib_mutex, &deadline);
    }
}

int zeb_set_fd_close_on_exec(int fd)
{
    int flags = fcntl(fd, F_GETFD);
    if (flags == -1) {
        ZEB_ERROR("ZEB get file %d flags error: %s.\n", fd, strerror(errno));
        return -1;
    }
    if (fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == -1) {
        ZEB_ERROR("ZEB set file %d flags error: %s.\n", fd, strerror(errno));
        return -1;
    }
    return 0;
}

int zeb_create_subscription_socket()
{
    int sd = socket(AF_TIPC, SOCK_SEQPACKET, 0);
    if (sd == -1) {
        ZEB_ERROR("ZEB create subscription socket descriptor failed: %s.\n", strerror(errno));
        return -1;
    }
    if (zeb_set_fd_close_on_exec(sd) != 0) {
        (void)close(sd);
        return -1;
    }
    struct sockaddr_tipc addr = tipc_name(TIPC_TOP_SRV, TIPC_TOP_SRV, 0);
    if (connect(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
        ZEB_ERROR("ZEB connect to TIPC topology server failed: %s.\n", strerror(errno));
        (void)close(sd);
        return -1;
    }
    return sd;
}

// With both droppable options off, a message that cannot be delivered comes back to its sender with its error code and
// data instead of being lost.
static bool set_app_socket_options(uint32_t app, int sd, int priority)
{
    if (setsockopt(sd, SOL_TIPC, TIPC_IMPORTANCE, &priority, sizeof(priority)) != 0) {
        ZEB_ERROR("ZEB set app %d socket priority %d failed: %s.\n", app, priority, strerror(errno));
        return false;
    }
    int off = 0;
    if (setsockopt(sd, SOL_TIPC, TIPC_SRC_DROPPABLE, &off, sizeof(off)) != 0) {
        ZEB_ERROR("ZEB set app %d socket TIPC_SRC_DROPPABLE failed: %s.\n", app, strerror(errno));
        return false;
    }
    if (setsockopt(sd, SOL_TIPC, TIPC_DEST_DROPPABLE, &off, sizeof(off)) != 0) {
        ZEB_ERROR("ZEB set app %d socket TIPC_DEST_DROPPABLE failed: %s.\n", app, strerror(errno));
        return false;
    }
    return true;
}

int zeb_create_app_socket(uint32_t app, int priority)
{
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    if (sd == -1) {
        ZEB_ERROR("ZEB create app %d socket failed: %s.\n", app, strerror(errno));
        return -1;
    }
    if (zeb_set_fd_close_on_exec(sd) != 0 || !set_app_socket_options(app, sd, priority)) {
        (void)close(sd);
        return -1;
    }
    ZEB_VERBOSE("ZEB app %d create socket %d priority %d.\n", app, sd, priority);
    return sd;
}

int zeb_bind_app_socket(uint32_t app, int sd)
{
    uint32_t instance = zeb_tipc_instance(app, (uint32_t)zeb_get_my_node_id());
    struct sockaddr_tipc addr = tipc_name(ZEB_TIPC_NAME_TYPE, instance, TIPC_CLUSTER_SCOPE);
    while (bind(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
        int err = errno;
        ZEB_ERROR("ZEB app %d bind socket %d failed: %s.\n", app, sd, strerror(err));
        if (err != ENOMEM)
            return -1;
        (void)sched_yield();
    }
    return 0;
}
