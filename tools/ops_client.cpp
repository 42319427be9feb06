#include "ops_client.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <platform/tipc_name.h>
#include <zeb/zeb_diag.h>
#include <zeb/zeb_tlv.h>

// Requests whose replies may be under way at once: what the socket's queue holds at the default of
// net.tipc.tipc_rmem, where a statistics text of 16 KiB takes about 33 KiB. A request that is older than SLOW no longer
// counts, so that silent instances do not keep the others waiting.
constexpr size_t SMALL_AT_ONCE = 256;
constexpr size_t LARGE_AT_ONCE = 32;
constexpr int64_t SLOW = 250;      // ms
constexpr int64_t CONGESTED = 10;  // ms until a write that TIPC refused for congestion is tried again
constexpr int64_t OWN_NAME = 2000; // ms until the own name is seen at the latest
constexpr size_t ANC_SPACE = 2048; // of returned messages, which have 1024 bytes at most
constexpr int READ_AT_ONCE = 1024; // datagrams
constexpr int RECV_LEN = ZEB_MSG_HDR_LEN + ZEB_MSG_MAX_DATA;

ops_request_t ops_request(ops_inst_t inst, ops_ask_t ask)
{
    ops_request_t request = {};
    request.inst = inst;
    request.ask = ask;
    return request;
}

static int create_socket(uint32_t node)
{
    int sd = socket(AF_TIPC, SOCK_RDM | SOCK_CLOEXEC, 0);
    if (sd == -1)
        return -errno;
    // A request that cannot be delivered comes back, and is not dropped.
    int off = 0;
    struct sockaddr_tipc addr = tipc_name(OPS_NAME_TYPE, ops_name_of({ZEBD_APP_ID, node}), TIPC_CLUSTER_SCOPE);
    if (setsockopt(sd, SOL_TIPC, TIPC_SRC_DROPPABLE, &off, sizeof(off)) == 0 &&
        setsockopt(sd, SOL_TIPC, TIPC_DEST_DROPPABLE, &off, sizeof(off)) == 0 &&
        bind(sd, (struct sockaddr *)&addr, sizeof(addr)) == 0)
        return sd;
    int err = errno;
    (void)close(sd);
    return -err;
}

// TIPC lets any number of sockets have one name. Who finds another one there steps back; two that start at the same
// time may both.
static int only_holder(ops_view_t *view, ops_inst_t own, int64_t deadline)
{
    deadline = std::min(deadline, ops_now() + OWN_NAME);
    do {
        int ret = ops_view_sync(view, deadline);
        if (ret != 0)
            return ret;
    } while (ops_view_sockets(view, own) == 0);
    return ops_view_sockets(view, own) == 1 ? 0 : -EADDRINUSE;
}

int ops_client_open(ops_client_t *client, ops_view_t *view, uint32_t node, int64_t deadline)
{
    ops_inst_t own = {ZEBD_APP_ID, node};
    *client = {-1, node, 0, 0, nullptr};
    if (ops_view_sockets(view, own) != 0)
        return -EADDRINUSE;
    int sd = create_socket(node);
    if (sd < 0)
        return sd;
    int ret = only_holder(view, own, deadline);
    if (ret != 0) {
        (void)close(sd);
        return ret;
    }
    client->sd = sd;
    client->recv_buf = zeb_msg_alloc(ZEB_MSG_MAX_DATA, 1, 0);
    // Not from 0: a reply to the process that had the name before must not look like one to us.
    client->seq = (uint32_t)ops_now() * 2654435761U ^ (uint32_t)getpid() << 16;
    return 0;
}

void ops_client_close(ops_client_t *client)
{
    if (client->sd != -1)
        (void)close(client->sd);
    free(client->recv_buf);
    client->sd = -1;
    client->recv_buf = nullptr;
}

static void done(ops_request_t *request, ops_outcome_t outcome, const std::string &why)
{
    request->outcome = outcome;
    request->why = why;
    request->took = request->sent_at == 0 ? 0 : ops_now() - request->sent_at;
}

static uint32_t put_debug(const ops_request_t *request, uint8_t *at)
{
    uint32_t len = 0;
    for (int32_t level = ZEB_DBG_LEVEL_VERBOSE; level <= ZEB_DBG_LEVEL_ERROR; level++) {
        uint32_t bit = 1U << level;
        if (((request->set | request->clear) & bit) == 0)
            continue;
        ops_dbg_cmd_t cmd = {level, (request->set & bit) != 0 ? 1 : 0};
        len += TLV_SET(at + len, OPS_DBG_CMD, &cmd, sizeof(cmd));
    }
    return len;
}

// A switch has no reply of its own, so an identity request follows it in the same message: its reply shows the mask.
static zeb_msg_t *new_message(const ops_client_t *client, const ops_request_t *request)
{
    constexpr int room = 5 * (int)(sizeof(struct tlv_desc) + sizeof(ops_dbg_cmd_t));
    zeb_msg_t *msg = zeb_msg_alloc(room, 1, 0);
    uint32_t len = request->ask == OPS_ASK_DEBUG ? put_debug(request, msg->data) : 0;
    len += TLV_SET(msg->data + len, request->ask == OPS_ASK_STAT ? OPS_APP_STAT : OPS_APP_INFO, nullptr, 0);
    msg->hdr.len = ZEB_MSG_HDR_LEN + len;
    zeb_encode_msg_hdr(msg, OPS_REQUEST_FLAGS, ZEBD_APP_ID, client->node, request->inst.app, request->inst.node,
                       request->seq, 0);
    return msg;
}

// False when TIPC is congested or short of memory: the request waits for its turn.
static bool send_request(ops_client_t *client, ops_request_t *request)
{
    struct sockaddr_tipc addr = tipc_name(OPS_NAME_TYPE, ops_name_of(request->inst), TIPC_CLUSTER_SCOPE);
    request->seq = ++client->seq;
    zeb_msg_t *msg = new_message(client, request);
    uint32_t len = msg->hdr.len;
    zeb_convert_to_network(msg);
    ssize_t sent =
        sendto(client->sd, &msg->hdr, len, MSG_NOSIGNAL | MSG_DONTWAIT, (struct sockaddr *)&addr, sizeof(addr));
    int err = errno;
    free(msg);
    if (sent == (ssize_t)len) {
        request->sent_at = ops_now();
        return true;
    }
    if (sent == -1 && (err == EAGAIN || err == EINTR || err == ENOMEM || err == ENOBUFS))
        return false;
    done(request, OPS_GONE, std::string("not sent: ") + (sent == -1 ? strerror(err) : "cut short"));
    return true;
}

static void take_info(ops_request_t *request, const zeb_msg_t *msg)
{
    uint32_t len = zeb_msg_data_len(msg);
    if (len < sizeof(struct tlv_desc) + sizeof(request->info) || !TLV_OK(msg->data, (uint16_t)len) ||
        TLV_DATA_TYPE(msg->data) != OPS_APP_INFO ||
        ntohs(((const struct tlv_desc *)(const void *)msg->data)->tlv_len) < TLV_LENGTH(sizeof(request->info)))
        return done(request, OPS_BROKEN, "answered half: no identity in " + std::to_string(len) + " bytes");
    memcpy(&request->info, TLV_DATA(msg->data), sizeof(request->info));
    // The body is in the order of its sender, and the application that was asked is in it.
    ops_app_info_t *info = &request->info;
    if (info->app != request->inst.app && __builtin_bswap32(info->app) == request->inst.app) {
        info->app = __builtin_bswap32(info->app);
        info->pid = (int32_t)__builtin_bswap32((uint32_t)info->pid);
        info->dbg_mask = __builtin_bswap32(info->dbg_mask);
    }
    if (info->app != request->inst.app)
        return done(request, OPS_BROKEN, "says that it is application " + std::to_string(info->app));
    if (request->ask == OPS_ASK_DEBUG &&
        ((info->dbg_mask & request->set) != request->set || (info->dbg_mask & request->clear) != 0))
        return done(request, OPS_BROKEN, "did not switch the levels");
    done(request, OPS_ANSWERED, "");
}

static void take_reply(ops_request_t *request, const zeb_msg_t *msg)
{
    if (msg->hdr.rpc_stat != ZEB_SUCCESS) {
        const char *said = zeb_reply_stat_string(msg->hdr.rpc_stat);
        std::string number = std::to_string(msg->hdr.rpc_stat);
        return done(request, OPS_BROKEN, "refused: " + (*said == '\0' ? "status " + number : std::string(said)));
    }
    if (request->ask != OPS_ASK_STAT)
        return take_info(request, msg);
    uint32_t len = zeb_msg_data_len(msg);
    if (len == 0)
        return done(request, OPS_BROKEN, "answered half: an empty text");
    request->text.assign((const char *)msg->data, len);
    done(request, OPS_ANSWERED, "");
}

// The request that the instance owes a reply to; null when there is none.
static ops_request_t *awaited(std::vector<ops_request_t> *requests, uint32_t seq, ops_inst_t inst)
{
    for (ops_request_t &request : *requests) {
        if (request.seq == seq && request.sent_at != 0 && request.outcome == OPS_WAITING &&
            request.inst.app == inst.app && request.inst.node == inst.node)
            return &request;
    }
    return nullptr;
}

static bool whole_header(const zeb_msg_hdr_t *hdr, ssize_t len)
{
    return len >= ZEB_MSG_HDR_LEN && ntohl(hdr->len) == (uint32_t)len;
}

static void read_datagram(ops_client_t *client, std::vector<ops_request_t> *requests, ssize_t len)
{
    zeb_msg_t *msg = client->recv_buf;
    if (!whole_header(&msg->hdr, len)) {
        client->strays++;
        return;
    }
    zeb_convert_to_host(msg);
    ops_request_t *request = nullptr;
    if (msg->hdr.flag == OPS_REPLY_FLAGS && msg->hdr.dst_app == ZEBD_APP_ID)
        request = awaited(requests, msg->hdr.seq, {msg->hdr.src_app, msg->hdr.src_node});
    if (request == nullptr)
        client->strays++;
    else
        take_reply(request, msg);
}

// One of our requests has come back.
static void read_returned(ops_client_t *client, std::vector<ops_request_t> *requests, struct msghdr *read)
{
    uint32_t code = 0;
    zeb_msg_hdr_t hdr = {};
    bool has_hdr = false;
    for (struct cmsghdr *item = CMSG_FIRSTHDR(read); item != nullptr; item = CMSG_NXTHDR(read, item)) {
        size_t size = item->cmsg_len < CMSG_LEN(0) ? 0 : item->cmsg_len - CMSG_LEN(0);
        if (item->cmsg_level != SOL_TIPC)
            continue;
        if (item->cmsg_type == TIPC_ERRINFO && size >= sizeof(code))
            memcpy(&code, CMSG_DATA(item), sizeof(code));
        if (item->cmsg_type == TIPC_RETDATA && size >= sizeof(hdr)) {
            memcpy(&hdr, CMSG_DATA(item), sizeof(hdr));
            has_hdr = true;
        }
    }
    ops_request_t *request = nullptr;
    if (has_hdr)
        request = awaited(requests, ntohl(hdr.seq), {ntohl(hdr.dst_app), ntohl(hdr.dst_node)});
    if (request == nullptr)
        client->strays++;
    else
        done(request, OPS_GONE, std::string("came back: ") + zeb_tipc_err_string(code));
}

// Reads what has come. A peer that sends without end does not keep it here.
static void read_replies(ops_client_t *client, std::vector<ops_request_t> *requests)
{
    alignas(struct cmsghdr) uint8_t anc[ANC_SPACE];
    for (int i = 0; i < READ_AT_ONCE; i++) {
        struct iovec iov = {&client->recv_buf->hdr, (size_t)RECV_LEN};
        struct msghdr read = {};
        read.msg_iov = &iov;
        read.msg_iovlen = 1;
        read.msg_control = anc;
        read.msg_controllen = sizeof(anc);
        ssize_t len = recvmsg(client->sd, &read, MSG_DONTWAIT);
        if (len < 0)
            return;
        if ((read.msg_flags & MSG_TRUNC) != 0)
            client->strays++;
        else if (len == 0)
            read_returned(client, requests, &read);
        else
            read_datagram(client, requests, len);
    }
}

// What is to be done next: how many requests are under way, and when the next of them is late.
typedef struct progress_s {
    size_t waiting;   // without an outcome
    size_t under_way; // sent no longer ago than SLOW
    int64_t wake;     // at the latest
} progress_t;

static progress_t look(std::vector<ops_request_t> *requests, int64_t timeout)
{
    int64_t now = ops_now();
    progress_t progress = {0, 0, now + timeout};
    for (ops_request_t &request : *requests) {
        if (request.outcome != OPS_WAITING)
            continue;
        int64_t begun = request.sent_at != 0 ? request.sent_at : request.tried_at;
        if (begun != 0 && now - begun >= timeout) {
            done(&request, OPS_SILENT,
                 (request.sent_at != 0 ? "no answer in " : "congested, not sent in ") + std::to_string(timeout) +
                     " ms");
            continue;
        }
        progress.waiting++;
        if (request.sent_at == 0)
            continue;
        bool young = now - request.sent_at < SLOW;
        progress.under_way += young ? 1 : 0;
        progress.wake = std::min(progress.wake, request.sent_at + (young ? std::min(SLOW, timeout) : timeout));
    }
    return progress;
}

static void send_next(ops_client_t *client, std::vector<ops_request_t> *requests, progress_t *progress)
{
    for (ops_request_t &request : *requests) {
        if (request.outcome != OPS_WAITING || request.sent_at != 0)
            continue;
        if (progress->under_way >= (request.ask == OPS_ASK_STAT ? LARGE_AT_ONCE : SMALL_AT_ONCE))
            return;
        if (send_request(client, &request)) {
            progress->under_way++;
            continue;
        }
        request.tried_at = request.tried_at == 0 ? ops_now() : request.tried_at;
        progress->wake = std::min(progress->wake, ops_now() + CONGESTED);
    }
}

void ops_client_ask(ops_client_t *client, std::vector<ops_request_t> *requests, int64_t timeout)
{
    for (;;) {
        progress_t progress = look(requests, timeout);
        if (progress.waiting == 0)
            return;
        send_next(client, requests, &progress);
        int64_t left = std::max<int64_t>(0, progress.wake - ops_now());
        struct pollfd entry = {client->sd, POLLIN, 0};
        (void)poll(&entry, 1, (int)std::min<int64_t>(left + 1, 1000));
        read_replies(client, requests);
    }
}

size_t ops_unanswered(const std::vector<ops_request_t> &requests)
{
    return (size_t)std::count_if(requests.begin(), requests.end(),
                                 [](const ops_request_t &request) { return request.outcome != OPS_ANSWERED; });
}
