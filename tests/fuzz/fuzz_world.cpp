#include "by_number.h"
#include "fuzz_world.h"
#include "handshake_core.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

#include <zeb/zeb_ext.h>

#include "platform/list_algo.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_gate.h"
#include "zeb_rpc_async.h"
#include "zeb_slot.h"
#include "zeb_mng_check.h"
#include "zeb_mng_recv.h"

namespace world
{
std::function<bool()> g_while_waiting;

// The applications that SERVER and CLIENT communicate with.
static constexpr uint32_t PARTNERS[] = {SERVER, CLIENT, PEER, PEER2, DAEMON};

static constexpr size_t SENT_MAX = 64; // datagrams that are kept
static constexpr int FIRST_SD = 1000;  // descriptors of ours, above any real one
static int s_next_sd = FIRST_SD;
static std::map<int, uint32_t> s_app_of_sd;
static std::vector<sent_t> s_sent;
static std::vector<timer_t_> s_timers;
static bytes_t s_next_data;
static bytes_t s_next_control;
static bool s_topology_lost;
static pthread_t s_thread; // that of the targets
static int s_fail_num;
static int s_fail_err;
static std::map<std::string, bytes_t> s_files;
static void *(*s_proxy_fun)(void *);
static void *s_proxy_arg;

struct idle_t { // thrown where a thread would wait
};
static bool s_in_proxy;

std::vector<sent_t> &sent()
{
    return s_sent;
}

std::vector<timer_t_> &timers()
{
    return s_timers;
}

static void *take_event(zeb_event_t)
{
    return nullptr;
}

// The instances of which POLLED has been told that they joined.
static std::set<std::pair<uint32_t, uint32_t>> s_joined;

static void fail(const char *what)
{
    fprintf(stderr, "%s\n", what);
    abort();
}

static void take_polled_event(void *, const zeb_event_t *event)
{
    std::pair<uint32_t, uint32_t> inst(event->event.app.app, event->event.app.node);
    if (event->type != ZEB_APP_JOIN)
        s_joined.erase(inst);
    else if (!s_joined.insert(inst).second)
        fail("two joins without a quit between them");
}

// Answers the requests of even sequence numbers.
static void *take_msg(zeb_msg_t *msg)
{
    if ((msg->hdr.flag & ZEB_MSG_FLAG_REQUEST) != 0 && (msg->hdr.seq & 1) == 0) {
        zeb_msg_t *reply = zeb_msg_alloc(4, 1, 0);
        (void)zeb_rpc_reply(msg, reply, 0);
        free(reply);
    }
    free(msg);
    return nullptr;
}

static void take_polled_msg(void *, zeb_msg_t *msg)
{
    (void)take_msg(msg);
}

static void learn_descriptor(uint32_t app)
{
    for (const auto &entry : s_app_of_sd) {
        if (entry.second == 0 && entry.first == zeb_get_app_sd(app))
            s_app_of_sd[entry.first] = app;
    }
}

// It names nobody: a step does.
static void add_polled()
{
    static const zeb_app_dispatcher_t table[] = {{1, take_polled_msg, nullptr}, {0, nullptr, nullptr}};
    zeb_app_options_t options = {};
    options.size = sizeof(options);
    options.app = POLLED;
    options.mode = ZEB_APP_POLLED;
    options.name = "fuzz";
    options.dispatchers = table;
    options.event = take_polled_event;
    options.every_subscriber = 1;
    if (zeb_register_app(&options) != 0)
        fail("a polled application cannot be registered");
    learn_descriptor(POLLED);
}

static void add_app(uint32_t app, bool thread)
{
    static const zeb_msg_dispatcher_t serving[] = {{1, take_msg}, {3, take_msg}, {0, nullptr}};
    static const zeb_msg_dispatcher_t none[] = {{0, nullptr}};
    int ret = thread ? zeb_register(app, "fuzz", none, take_event)
                     : zeb_register_without_thread(app, "fuzz", serving, take_event);
    if (ret != 0)
        fail("an application cannot be registered");
    learn_descriptor(app);
}

static void add_all()
{
    add_app(SERVER, false);
    add_app(CLIENT, true);
    add_app(DAEMON, false);
    add_polled();
    for (uint32_t app : {SERVER, CLIENT}) {
        for (uint32_t peer : PARTNERS)
            (void)zeb_comm_with(app, peer);
    }
    zeb_run();
}

void start()
{
    static bool s_started = false;
    if (s_started)
        return;
    s_started = true;
    s_thread = pthread_self();
    static const char node[] = "7\n";
    serve_file(ZEB_NODE_ADDR_FILE, (const uint8_t *)node, sizeof(node) - 1);
    add_all();
    if (freopen("/dev/null", "w", stdout) == nullptr)
        fail("standard output cannot be thrown away");
}

void stop_and_start()
{
    (void)zeb_set_callbacks(false); // one thread is all of the library's too
    if (zeb_stop() != 0)
        fail("the library does not stop");
    s_app_of_sd.clear();
    s_timers.clear();
    s_joined.clear();
    add_all();
}

template <typename T>
static void free_all(struct list_head *head)
{
    (void)list_remove_matching<T>(head, [](const T *) { return true; });
}

static void reset_app(zeb_app_mng_t *slot)
{
    free_all<zeb_msg_t>(&slot->info->msg_list);
    slot->info->queue_num = 0;
    indexed_list_clear(&slot->mc->app_mc_list);
    indexed_list_clear(&slot->mc->node_mc_list);
    zeb_mc_init(slot->mc);
    zeb_fc_t *fc = slot->fc;
    indexed_list_clear(&fc->send_list);
    indexed_list_clear(&fc->recv_list);
    fc->blocked_num = 0;
    fc->total_send = fc->total_recv = fc->unack_drift = 0;
    fc->total_send_unack = fc->total_recv_unack = 0;
    fc->mcast_send_reject = fc->rpc_reply_exception = 0;
    fc->recv_exception = 0;
    zeb_mng_stat_t *stat = slot->mng_stat;
    indexed_list_clear(&stat->send_list);
    indexed_list_clear(&stat->recv_list);
    stat->total_send = stat->total_recv = 0;
    indexed_list_each(&slot->rpc->wait_list, [](const zeb_rpc_wait_t *wait) {
        if (wait->done == nullptr)
            fail("a call is left without its caller");
    });
    zeb_rpc_async_drop(slot->rpc);
}

// The handshake as start() left it: nothing is known but who communicates with whom, in the same order.
static void reset_handshake()
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_hs_clear(&g_zeb_handshake);
    for (uint32_t app : {SERVER, CLIENT, DAEMON, POLLED})
        zeb_hs_add_comm_app(&g_zeb_handshake, app, app); // as its registration does
    for (uint32_t app : {SERVER, CLIENT}) {
        for (uint32_t peer : PARTNERS)
            zeb_hs_add_comm_app(&g_zeb_handshake, app, peer);
    }
}

void reset()
{
    start();
    zeb_store_relaxed(&g_zeb_dbg_level, 0u);
    (void)zeb_dispatch(POLLED, INT_MAX); // leaves its descriptor unreadable
    reset_handshake();
    s_joined.clear();
    zeb_each_app_mng(reset_app);
    s_sent.clear();
    s_timers.clear();
    s_fail_num = 0;
    s_topology_lost = false;
    g_while_waiting = nullptr;
}

void check()
{
    static char text[65536];
    if (zeb_check_invariants(text, sizeof(text)) != 0)
        fail(text);
}

void receive(uint32_t app, const uint8_t *data, size_t size)
{
    s_next_data.assign(data, data + size);
    s_next_control.clear();
    zeb_socket_recv_app_msg(zeb_get_app_info(app));
}

void receive_anc(uint32_t app, const uint8_t *control, size_t size)
{
    s_next_data.clear();
    s_next_control.assign(control, control + size);
    zeb_socket_recv_app_msg(zeb_get_app_info(app));
}

void event(const struct tipc_event &event)
{
    const uint8_t *bytes = (const uint8_t *)&event;
    s_next_data.assign(bytes, bytes + sizeof(event));
    if (zeb_socket_recv_tipc_event() != 0)
        fail("a whole event is refused");
}

void run_proxy()
{
    s_in_proxy = true;
    try {
        (void)s_proxy_fun(s_proxy_arg);
    } catch (const idle_t &) {
    }
    s_in_proxy = false;
}

void serve_file(const char *path, const uint8_t *data, size_t size)
{
    if (data == nullptr)
        s_files.erase(path);
    else
        s_files[path].assign(data, data + size);
}

void fail_sends(int num, int err)
{
    s_fail_num = num;
    s_fail_err = err;
}

// One pass of the receive thread's loop finds the connection lost, the next one has another.
void lose_topology()
{
    s_timers.clear();
    s_topology_lost = true;
    try {
        (void)zeb_socket_msg_dist_thread_fun(nullptr);
    } catch (const idle_t &) {
    }
    s_topology_lost = false;
}
} // namespace world

using namespace world;

// In place of libc's, for the objects of the library (the linker's --wrap): the fuzzer itself calls libc.
extern "C" {
int __real_close(int fd);
unsigned __real_sleep(unsigned seconds);
ssize_t __real_recv(int sd, void *data, size_t len, int flags);
FILE *__real_fopen(const char *path, const char *mode);
int __real_pthread_join(pthread_t tid, void **result);
int __real_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *deadline);

int __wrap_socket(int, int, int)
{
    s_app_of_sd[s_next_sd] = 0;
    return s_next_sd++;
}

int __wrap_connect(int, const struct sockaddr *, socklen_t)
{
    return 0;
}

int __wrap_bind(int, const struct sockaddr *, socklen_t)
{
    return 0;
}

int __wrap_setsockopt(int, int, int, const void *, socklen_t)
{
    return 0;
}

int __wrap_getsockopt(int, int, int, void *value, socklen_t *)
{
    *(int *)value = SOCK_RDM;
    return 0;
}

int __wrap_shutdown(int, int)
{
    return 0;
}

int __wrap_close(int fd)
{
    return fd >= FIRST_SD ? 0 : __real_close(fd);
}

int __wrap_fcntl(int, int, ...)
{
    return 0;
}

// Remembers timers. Nothing needs the subscriptions to applications.
ssize_t __wrap_send(int, const void *data, size_t len, int)
{
    struct tipc_subscr request;
    if (len != sizeof(request))
        fail("a subscription of another size");
    memcpy(&request, data, sizeof(request));
    timer_t_ timer;
    memcpy(&timer, request.usr_handle, sizeof(timer));
    if (request.seq.type == 1)
        s_timers.push_back(timer);
    return (ssize_t)len;
}

ssize_t __wrap_sendto(int sd, const void *data, size_t len, int, const struct sockaddr *, socklen_t)
{
    if (s_fail_num > 0) {
        s_fail_num--;
        errno = s_fail_err;
        return -1;
    }
    if (s_sent.size() >= SENT_MAX)
        return (ssize_t)len;
    const uint8_t *bytes = (const uint8_t *)data;
    s_sent.push_back({s_app_of_sd[sd], bytes_t(bytes, bytes + len)});
    return (ssize_t)len;
}

ssize_t __wrap_recv(int, void *data, size_t len, int)
{
    if (s_topology_lost)
        return 0;
    size_t num = s_next_data.size() < len ? s_next_data.size() : len;
    memcpy(data, s_next_data.data(), num);
    return (ssize_t)num;
}

ssize_t __wrap_recvmsg(int, struct msghdr *msg, int)
{
    size_t num = s_next_data.size() < msg->msg_iov[0].iov_len ? s_next_data.size() : msg->msg_iov[0].iov_len;
    if (num != 0)
        memcpy(msg->msg_iov[0].iov_base, s_next_data.data(), num);
    size_t control = s_next_control.size() < msg->msg_controllen ? s_next_control.size() : msg->msg_controllen;
    if (control != 0)
        memcpy(msg->msg_control, s_next_control.data(), control);
    msg->msg_controllen = control;
    return (ssize_t)num;
}

int __wrap_poll(struct pollfd *fds, nfds_t num, int)
{
    for (nfds_t i = 0; i < num; i++)
        fds[i].revents = 0;
    if (!s_topology_lost || s_app_of_sd.count(fds[0].fd) == 0)
        throw idle_t();
    static bool s_told = false;
    s_told = !s_told;
    if (!s_told)
        throw idle_t();
    fds[0].revents = POLLIN;
    return 1;
}

int __wrap_ppoll(struct pollfd *, nfds_t, const struct timespec *, const sigset_t *)
{
    return 0; // the pause at the start
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (strcmp(path, ZEB_CFG_FILE) != 0 && strcmp(path, ZEB_NODE_ADDR_FILE) != 0)
        return __real_fopen(path, mode); // the fuzzer's own
    auto found = s_files.find(path);
    if (found == s_files.end()) {
        errno = ENOENT;
        return nullptr;
    }
    // fmemopen makes no empty file.
    return found->second.empty() ? __real_fopen("/dev/null", "r")
                                 : fmemopen(found->second.data(), found->second.size(), "r");
}

int __wrap_pthread_create(pthread_t *tid, const pthread_attr_t *, void *(*fun)(void *), void *arg)
{
    *tid = pthread_self();
    s_proxy_fun = fun; // the last one is CLIENT's: the library starts its own thread before
    s_proxy_arg = arg;
    return 0;
}

// At a stop: what the receive thread does at its end.
int __wrap_pthread_join(pthread_t tid, void **result)
{
    if (pthread_equal(tid, s_thread) == 0)
        return __real_pthread_join(tid, result); // one of the fuzzer's own
    (void)zeb_socket_msg_dist_thread_fun(nullptr);
    return 0;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *, pthread_mutex_t *mutex, const struct timespec *)
{
    if (s_in_proxy)
        throw idle_t();
    if (!g_while_waiting)
        return ETIMEDOUT;
    (void)pthread_mutex_unlock(mutex);
    bool more = g_while_waiting();
    (void)pthread_mutex_lock(mutex);
    return more ? 0 : ETIMEDOUT;
}

unsigned __wrap_sleep(unsigned seconds)
{
    return pthread_equal(pthread_self(), s_thread) != 0 ? 0 : __real_sleep(seconds); // the fuzzer's own threads sleep
}
}
