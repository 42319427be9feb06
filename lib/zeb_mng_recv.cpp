#include "zeb_mng_recv.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/tipc.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_gate.h"
#include "zeb_handshake_shell.h"
#include "zeb_mng_recv_mng.h"
#include "zeb_mng_topology.h"
#include "zeb_probe.h"
#include "zeb_rpc.h"
#include "zeb_rpc_async.h"
#include "zeb_slot.h"
#include "zeb_tipc.h"

constexpr int COPIED_LEN_MAX = 8192; // bytes; a longer message is passed on in the receive buffer
constexpr int UNSIGNALLED_MAX = 64;  // messages queued before the proxy threads are woken
constexpr int RETDATA_MAX = 1024;    // bytes; the kernel returns at most this much of a message

// The receive buffer. It holds the longest datagram, which is read to the place of the header in a zeb_msg_t. A long
// message is passed on in the buffer itself, and the next read allocates a new one.
static zeb_msg_t *s_recv_buf;

static union {
    struct cmsghdr align;
    uint8_t bytes[ZEB_TIPC_ANC_SPACE];
} s_anc_buf;

typedef struct poll_set_s {
    // The topology connection, the descriptor that wakes the thread for its end, the application sockets in slot order,
    // and what wakes it for calls that no thread waits for.
    struct pollfd fds[ZEB_APP_SLOT_NUM + 3];
    zeb_app_info_t *app[ZEB_APP_SLOT_NUM];
    nfds_t app_num;
    nfds_t fd_num; // without the topology connection
} poll_set_t;

// Where the two threads share a CPU, waking a proxy thread for each message of a stream costs more than the message. So
// the receive thread queues streams without a signal while it has more to read. It signals before it sleeps and before
// anything that may take long.
static struct {
    bool more;       // the receive loop is running and will signal
    int unsignalled; // messages
} s_stream;

bool zeb_verify_recv_msg_hdr(uint32_t, const zeb_msg_t *)
{
    return true;
}

bool zeb_verify_recv_retdata(uint32_t, const zeb_msg_t *)
{
    return true;
}

bool zeb_user_app_msg(const zeb_msg_t *msg)
{
    return (msg->hdr.flag & ZEB_MSG_FLAG_MNG) == 0 && !zeb_is_rpc_reply(msg);
}

int zeb_get_tipc_err_info(uint32_t app, int sd, uint32_t code, uint32_t size)
{
    ZEB_LOG(code >= TIPC_ERR_NO_NAME && code <= TIPC_ERR_NO_NODE ? ZEB_DBG_LEVEL_VERBOSE : ZEB_DBG_LEVEL_ERROR,
            "ZEB app %d recv error info %s, data size %u bytes.\n", app, zeb_tipc_err_string(code), size);
    int type = 0;
    socklen_t len = sizeof(type);
    if (getsockopt(sd, SOL_SOCKET, SO_TYPE, &type, &len) != 0) {
        ZEB_ERROR("ZEB app %d get socket %d option failed: %s.\n", app, sd, strerror(errno));
        return -1;
    }
    if (type != SOCK_SEQPACKET && type != SOCK_STREAM)
        return 0;
    return code == TIPC_CONN_SHUTDOWN ? 0 : -1;
}

// The length is checked: the kernel may return only the head of a message, and a peer may write a wrong length.
static void returned_sync(zeb_msg_t *msg, uint32_t returned_len)
{
    if (msg->hdr.len < ZEB_MSG_HDR_LEN || msg->hdr.len > returned_len) {
        ZEB_ERROR("ZEB app %d recv incomplete reject data.\n", msg->hdr.src_app);
        zeb_fc_update_recv_exception(msg->hdr.src_app);
        return;
    }
    zeb_process_return_sync(msg);
}

// Notifies the area that sent the returned message.
static void notify_returned(uint32_t app, zeb_msg_t *msg, uint32_t returned_len)
{
    zeb_inst_t peer = zeb_msg_receiver(msg);
    if ((msg->hdr.flag & ZEB_MSG_FLAG_SYNC) != 0) {
        returned_sync(msg, returned_len);
        zeb_mng_stat_update_recv_reject(app, peer);
        return;
    }
    if (app == ZEBD_APP_ID)
        (void)zeb_terminate_rpc(app, peer);
    else
        zeb_fc_update_recv_retdata(app, peer);
}

void zeb_process_tipc_retdata(uint32_t app, struct cmsghdr *item)
{
    ZEB_VERBOSE("ZEB app %d recv TIPC reject data.\n", app);
    size_t size = item->cmsg_len - CMSG_LEN(0);
    if (item->cmsg_len < CMSG_LEN(0) || size < ZEB_MSG_HDR_LEN) {
        ZEB_ERROR("ZEB app %d recv incomplete reject data.\n", app);
        zeb_fc_update_recv_exception(app);
        return;
    }
    // Copied, because the bytes of the item need not be aligned for a header, and the next item begins where it ends.
    static union {
        zeb_msg_t msg;
        uint8_t bytes[offsetof(zeb_msg_t, hdr) + RETDATA_MAX];
    } returned;
    size = size > RETDATA_MAX ? RETDATA_MAX : size;
    memset(&returned, 0, sizeof(returned));
    memcpy(&returned.msg.hdr, CMSG_DATA(item), size);
    zeb_convert_to_host(&returned.msg);
    if (!zeb_verify_recv_retdata(app, &returned.msg)) {
        zeb_fc_update_recv_exception(app);
        return;
    }
    notify_returned(app, &returned.msg, (uint32_t)size);
    zeb_dump_msg_hdr_info(&returned.msg);
}

// Handles one ancillary item. Returns -1 when the error info says that the read failed, else 0.
static int process_anc_item(uint32_t app, int sd, struct cmsghdr *item)
{
    uint32_t words[3] = {0, 0, 0};
    size_t size = item->cmsg_len < CMSG_LEN(0) ? 0 : item->cmsg_len - CMSG_LEN(0);
    if (item->cmsg_type == TIPC_RETDATA) {
        zeb_process_tipc_retdata(app, item);
        return 0;
    }
    memcpy(words, CMSG_DATA(item), size < sizeof(words) ? size : sizeof(words));
    if (item->cmsg_type == TIPC_ERRINFO)
        return zeb_get_tipc_err_info(app, sd, words[0], words[1]);
    if (item->cmsg_type == TIPC_DESTNAME)
        ZEB_VERBOSE("ZEB app %d recv dst name = {0x%x, 0x%x, 0x%x}\n", app, words[0], words[1], words[2]);
    else
        ZEB_WARN("ZEB app %d recv unrecognized ancillary data type %u\n", app, (unsigned)item->cmsg_type);
    return 0;
}

// Limits the length that an item claims to the bytes that were read.
static void cut_item(uint32_t app, const struct msghdr *hdr, struct cmsghdr *item)
{
    size_t left = hdr->msg_controllen - (size_t)((uint8_t *)item - (uint8_t *)hdr->msg_control);
    if (item->cmsg_len <= left)
        return;
    ZEB_WARN("ZEB app %d recv ancillary data of %u bytes, %u are there.\n", app, (unsigned)item->cmsg_len,
             (unsigned)left);
    item->cmsg_len = left;
}

int zeb_recvfrom_anc(uint32_t app, int sd, void *buf, size_t len, int flags, struct sockaddr *addr, socklen_t *addr_len)
{
    struct iovec iov = {buf, len};
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &iov;
    hdr.msg_iovlen = 1;
    if (addr != nullptr && addr_len != nullptr) {
        hdr.msg_name = addr;
        hdr.msg_namelen = *addr_len;
    }
    bool peek = (flags & MSG_PEEK) != 0;
    hdr.msg_control = peek ? nullptr : &s_anc_buf;
    hdr.msg_controllen = peek ? 0 : sizeof(s_anc_buf);

    ssize_t ret = recvmsg(sd, &hdr, flags);
    if (ret >= 0 && addr != nullptr && addr_len != nullptr)
        *addr_len = hdr.msg_namelen;
    if (ret != 0 || peek)
        return (int)ret;
    for (struct cmsghdr *item = CMSG_FIRSTHDR(&hdr); item != nullptr; item = CMSG_NXTHDR(&hdr, item)) {
        cut_item(app, &hdr, item);
        if (process_anc_item(app, sd, item) != 0)
            ret = -1;
    }
    return (int)ret;
}

int zeb_recv_anc(uint32_t app, int sd, void *buf, size_t len, int flags)
{
    int ret = zeb_recvfrom_anc(app, sd, buf, len, flags, nullptr, nullptr);
    if (ret >= ZEB_MSG_HDR_LEN)
        zeb_convert_to_host(list_entry(buf, zeb_msg_t, hdr));
    return ret;
}

void zeb_socket_recv_drop_msg(zeb_msg_t *msg)
{
    ZEB_VERBOSE("ZEB app %d recv msg from %d/%d had already quit.\n", msg->hdr.dst_app, msg->hdr.src_app,
                msg->hdr.src_node);
    if (zeb_user_app_msg(msg))
        zeb_fc_update_recv_drop(msg->hdr.dst_app, zeb_msg_sender(msg), 1);
    if (zeb_is_rpc_request(msg))
        (void)zeb_rpc_reply_error(msg, ZEB_APP_UNAVAIL);
    free(msg);
}

// Such a sender is not an instance, so its records would never be removed.
static void refuse_sender(zeb_msg_t *msg, uint32_t app)
{
    ZEB_ERROR("ZEB app %d recv msg from invalid %d/%d.\n", app, msg->hdr.src_app, msg->hdr.src_node);
    zeb_fc_update_recv_exception(app);
    zeb_dump_msg_hdr_info(msg);
    free(msg);
}

static void signal_queued()
{
    if (s_stream.unsignalled == 0)
        return;
    s_stream.unsignalled = 0;
    zeb_each_app_mng([](zeb_app_mng_t *slot) { zeb_signal_queued(slot->info); });
}

static bool is_streamed(const zeb_app_info_t *app_info, const zeb_msg_t *msg)
{
    return s_stream.more && app_info->with_proxy_thread && zeb_comes_in_streams(msg);
}

static void queue_streamed(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    zeb_queue_msg(msg, app_info);
    if (++s_stream.unsignalled >= UNSIGNALLED_MAX)
        signal_queued();
}

// Routes a message to its area. True when it was queued without waking its proxy thread.
static bool route_msg(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    zeb_inst_t src = zeb_msg_sender(msg);
    bool streamed = is_streamed(app_info, msg);
    if (!streamed)
        signal_queued();
    if ((msg->hdr.flag & ZEB_MSG_FLAG_SYNC) != 0) {
        zeb_sync_msg_process(msg);
        return false;
    }
    if (!zeb_valid_inst(src)) {
        refuse_sender(msg, app_info->app_id);
        return false;
    }
    zeb_inst_state_t sender = zeb_get_sender_state(src);
    if (app_info->app_id != ZEBD_APP_ID && src.app != ZEBD_APP_ID && !sender.instance) {
        zeb_socket_recv_drop_msg(msg);
        return false;
    }
    if (!sender.online) // the application gets the join event before the message
        zeb_notify_app_join(msg->hdr.dst_app, src);
    if ((msg->hdr.flag & ZEB_MSG_FLAG_MNG) != 0) {
        zeb_mng_msg_process(msg);
        return false;
    }
    if (zeb_is_rpc_reply(msg)) {
        if (zeb_rpc_add_reply(msg) != 0)
            free(msg);
        zeb_rpc_async_run_ready();
        return false;
    }
    if (streamed)
        queue_streamed(app_info, msg);
    else
        zeb_enqueue_msg_dist(msg, app_info);
    return streamed;
}

static zeb_msg_t *recv_buf()
{
    if (s_recv_buf == nullptr)
        s_recv_buf = (zeb_msg_t *)zeb_malloc_dirty(ZEB_RECV_BUF_LEN + (int)offsetof(zeb_msg_t, hdr));
    memset(&s_recv_buf->hdr, 0, sizeof(s_recv_buf->hdr));
    return s_recv_buf;
}

// Turns the `len` bytes in the receive buffer into a message of that size. A long message keeps the buffer: copying it
// would cost more than a new buffer. Bytes that are about to be overwritten are not zeroed.
static zeb_msg_t *take_received(int len)
{
    int size = len + (int)offsetof(zeb_msg_t, hdr);
    zeb_msg_t *msg = s_recv_buf;
    if (len > COPIED_LEN_MAX) {
        s_recv_buf = nullptr;
        void *cut = realloc(msg, (size_t)size);
        msg = cut == nullptr ? msg : (zeb_msg_t *)cut;
    } else {
        msg = (zeb_msg_t *)zeb_malloc_dirty(size);
        memcpy(&msg->hdr, &s_recv_buf->hdr, (size_t)len);
    }
    memset(&msg->list, 0, sizeof(msg->list));
    return msg;
}

bool zeb_socket_recv_app_msg(zeb_app_info_t *app_info)
{
    uint32_t app = app_info->app_id;
    ZEB_VERBOSE("ZEB app %d recv new msg.\n", app);
    zeb_msg_t *head = recv_buf();
    // Non-blocking: the kernel discards an empty datagram that woke the poll, and a blocking read would then wait for
    // the next datagram.
    int len = zeb_recv_anc(app, app_info->sd, &head->hdr, ZEB_RECV_BUF_LEN, MSG_DONTWAIT);
    if (len < 0) {
        ZEB_ERROR("ZEB recv app %d msg failed: %s.\n", app, strerror(errno));
        zeb_fc_update_recv_exception(app);
        return false;
    }
    if (len == 0)
        return false; // a returned message; its ancillary data is already handled
    constexpr int len_max = ZEB_MSG_HDR_LEN + ZEB_MSG_MAX_DATA;
    if (len < ZEB_MSG_HDR_LEN || head->hdr.len != (uint32_t)len || len > len_max) {
        ZEB_ERROR("ZEB app %d recv msg len %d, expectedly %d.\n", app, len, head->hdr.len);
        zeb_fc_update_recv_exception(app);
        zeb_dump_msg_raw(&head->hdr, len);
        return false;
    }
    zeb_msg_t *msg = take_received(len);
    if (!zeb_verify_recv_msg_hdr(app, msg)) {
        zeb_fc_update_recv_exception(app);
        zeb_dump_msg_hdr_info(msg);
        free(msg);
        return false;
    }
    ZEB_PROBE_RECEIVE(app, msg->hdr.src_app, msg->hdr.src_node, len, msg->hdr.flag);
    return route_msg(app_info, msg);
}

int zeb_socket_recv_tipc_event()
{
    struct tipc_event event;
    static_assert(sizeof(event) == 48, "a topology event has 48 bytes");
    ssize_t ret = recv(g_zeb_mng.subscr_sd, &event, sizeof(event), 0);
    if (ret != (ssize_t)sizeof(event)) {
        ZEB_ERROR("ZEB recv subscription event failed:ret:%d, %d%s.\n", (int)ret, errno, strerror(errno));
        return -1;
    }
    zeb_process_tipc_subscr_event(event);
    return 0;
}

static void watch(struct pollfd *entry, int fd)
{
    entry->fd = fd;
    entry->events = POLLIN;
    entry->revents = 0;
}

static void build_poll_set(poll_set_t *set)
{
    memset(set, 0, sizeof(*set));
    watch(&set->fds[0], g_zeb_mng.subscr_sd);
    watch(&set->fds[1], g_zeb_mng.wake_fd);
    zeb_each_app_mng([&](zeb_app_mng_t *slot) {
        set->app[set->app_num] = slot->info;
        watch(&set->fds[set->app_num + 2], slot->info->sd);
        set->app_num++;
    });
    set->fd_num = set->app_num + 1;
}

static void close_topology_connection()
{
    zeb_scoped_lock lock(&g_lib_mutex); // other threads start timers under it
    int sd = g_zeb_mng.subscr_sd;
    g_zeb_mng.subscr_sd = -1; // cleared first: a child forked now must not close the descriptor again
    (void)shutdown(sd, SHUT_RDWR);
    (void)close(sd);
}

static void set_topology_connection(int sd)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    g_zeb_mng.subscr_sd = sd;
}

// Seconds. A new connection reports every existing instance at once. An instance that it has not reported after this
// time, with nothing left to read, was withdrawn while the connection was down.
constexpr unsigned REPORT_TIME = 2;

static struct timespec s_report_deadline; // 0: no reports are awaited

static void reopen_topology_connection(poll_set_t *set)
{
    set_topology_connection(zeb_create_subscription_socket());
    if (g_zeb_mng.subscr_sd == -1) {
        ZEB_ERROR("ZEB create subscription socket failed(ret:%d, err:%d:%s)\n", g_zeb_mng.subscr_sd, errno,
                  strerror(errno));
        return;
    }
    zeb_topology_reopened();
    zeb_subscr_tipc_events();
    s_report_deadline = zeb_deadline_in(REPORT_TIME);
    watch(&set->fds[0], g_zeb_mng.subscr_sd);
}

static void end_reports(bool event)
{
    if (s_report_deadline.tv_sec == 0 || event || g_zeb_mng.subscr_sd == -1 || !zeb_deadline_passed(&s_report_deadline))
        return;
    s_report_deadline.tv_sec = 0;
    zeb_topology_reported();
}

constexpr unsigned MINUTE = 60;            // seconds
constexpr unsigned LOOK_PERIOD = 5;        // seconds
constexpr unsigned PASSES_OF_CLOCK = 1024; // while messages stream, one pass in so many reads the clock; a power of 2

static struct timespec s_minute_end;
static struct timespec s_look_end;

// What a pass of the loop does besides reading. In a process that makes calls that no thread waits for, from the first
// one on, `look_at` is 0 and so are the passes between two looks: every pass serves these calls. In all others this
// costs nothing.
typedef struct pass_s {
    struct timespec look_at;
    unsigned skipped_passes; // of a stream; one less than a power of 2
    int poll_ms;
} pass_t;

constexpr pass_t PASS_OF_OTHERS = {{0, 0}, PASSES_OF_CLOCK - 1, ZEB_POLL_TIMEOUT_MS};

static pass_t s_pass = PASS_OF_OTHERS;

static bool watches_calls(const poll_set_t *set)
{
    return set->fd_num == set->app_num + 2;
}

// From now on the receive thread is woken for deadlines, and serves them.
static void watch_calls(poll_set_t *set)
{
    int fd = zeb_rpc_async_wake_fd();
    if (fd == -1 || watches_calls(set))
        return;
    set->fd_num++;
    watch(&set->fds[set->fd_num], fd);
    s_pass.look_at = {0, 0};
    s_pass.skipped_passes = 0;
}

static void serve_calls(poll_set_t *set)
{
    watch_calls(set);
    if (!watches_calls(set))
        return;
    zeb_rpc_async_time_out();
    if (zeb_rpc_async_ready()) {
        signal_queued(); // first, because functions may take long
        zeb_rpc_async_run_ready();
    }
    s_pass.poll_ms = zeb_rpc_async_until_next(ZEB_POLL_TIMEOUT_MS);
}

static void set_look_at()
{
    if (s_pass.skipped_passes != 0)
        s_pass.look_at = s_look_end.tv_sec < s_minute_end.tv_sec ? s_look_end : s_minute_end;
}

static void begin_minute()
{
    s_minute_end = zeb_deadline_in(MINUTE);
    set_look_at();
}

static void begin_look()
{
    s_look_end = zeb_deadline_in(LOOK_PERIOD);
    set_look_at();
}

// Counts time for the handshake in the loop that runs anyway, so no timer is needed. While messages stream, a
// wake-up is due: the passes of the loop follow one another without waiting, and only one in PASSES_OF_CLOCK reads the
// clock.
static void look_at_clock(poll_set_t *set, bool wakeup_due)
{
    static unsigned s_passes;
    if (wakeup_due && (++s_passes & s_pass.skipped_passes) != 0)
        return;
    if (!zeb_deadline_passed(&s_pass.look_at))
        return;
    serve_calls(set);
    if (zeb_deadline_passed(&s_look_end)) {
        begin_look();
        zeb_handshake_look();
    }
    if (!zeb_deadline_passed(&s_minute_end))
        return;
    begin_minute();
    zeb_handshake_minute();
}

static void handle_event(poll_set_t *set)
{
    if (zeb_socket_recv_tipc_event() != 0)
        close_topology_connection();
    watch_calls(set);
    zeb_rpc_async_run_ready();
}

// One pass of the loop. It reads one datagram from every readable socket, so that a busy socket does not starve the
// others.
static void poll_once(poll_set_t *set)
{
    bool topology = g_zeb_mng.subscr_sd != -1;
    struct pollfd *fds = topology ? set->fds : set->fds + 1;
    bool wakeup_due = s_stream.unsignalled > 0;
    int ready = poll(fds, set->fd_num + (topology ? 1 : 0), wakeup_due ? 0 : s_pass.poll_ms);
    if (ready < 0)
        ZEB_WARN("ZEB polling error: %d:%s.\n", errno, strerror(errno));
    bool event = ready > 0 && topology && set->fds[0].revents != 0;
    if (ready <= 0 || event)
        signal_queued();
    if (ready < 0) {
        look_at_clock(set, false); // signals without end must not hold up deadlines
        return;
    }
    if (event)
        handle_event(set);
    bool only_streams = true;
    for (nfds_t i = 0; ready > 0 && i < set->app_num; i++) {
        if (set->fds[i + 2].revents != 0 && !zeb_socket_recv_app_msg(set->app[i]))
            only_streams = false;
    }
    if (!only_streams) // a socket kept readable by other messages must not delay the queued streams
        signal_queued();
    end_reports(event);
    look_at_clock(set, wakeup_due);
    if (g_zeb_mng.subscr_sd == -1)
        reopen_topology_connection(set);
}

static void bind_app_sockets()
{
    zeb_each_app_mng([](zeb_app_mng_t *slot) {
        // An application that cannot bind its name must not run.
        if (zeb_bind_app_socket(slot->info->app_id, slot->info->sd) == 0)
            return;
        ZEB_SAY_UNHANDLED(
            "zeb: application %u cannot take its name, and the process ends: %s Type: dmesg | grep -i tipc",
            slot->info->app_id, zeb_last_error());
        exit(1);
    });
}

// Peers see the applications a moment after the start, and not at all when the library stops meanwhile.
static void pause_before_binding()
{
    struct pollfd wake;
    watch(&wake, g_zeb_mng.wake_fd);
    const struct timespec second = {1, 0};
    (void)ppoll(&wake, 1, &second, nullptr);
}

// What the thread keeps from one datagram to the next.
static void forget_all()
{
    free(s_recv_buf);
    s_recv_buf = nullptr;
    s_stream = {};
    s_report_deadline = {};
    s_pass = PASS_OF_OTHERS;
    zeb_forget_zebd();
}

static void receive()
{
    zeb_wait_for_running();
    pause_before_binding();
    if (zeb_stopping())
        return;
    zeb_subscr_tipc_events();
    bind_app_sockets();
    ZEB_INFO("ZEB socket msg distribute thread start.\n");
    (void)zeb_start_timer(ZEB_MONITOR_PERIOD, {ZEB_TIMER_TYPE_MONITOR, 1});

    poll_set_t set;
    build_poll_set(&set);
    begin_look();
    begin_minute();
    s_stream.more = true;
    while (!zeb_stopping())
        poll_once(&set);
}

void *zeb_socket_msg_dist_thread_fun(void *)
{
    char name[16];
    (void)snprintf(name, sizeof(name), "zeb_lib_%d", (int)getpid());
    (void)prctl(PR_SET_NAME, name);
    (void)zeb_set_callbacks(true);
    receive();
    forget_all();
    return nullptr;
}
