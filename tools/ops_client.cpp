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
constexpr int64_t SLOW = 250;       // ms
constexpr int64_t CONGESTED = 10;   // ms until a write that TIPC refused for congestion is tried again
constexpr int64_t OWN_NAME = 2000;  // ms until the own name is seen at the latest
constexpr int64_t LONGEST = 1000;   // ms between two steps
constexpr size_t ANC_SPACE = 2048;  // of returned messages, which have 1024 bytes at most
constexpr int READ_AT_ONCE = 256;   // datagrams
constexpr int REFUSED_AT_ONCE = 16; // by TIPC, before nothing more is tried for a while
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
    *client = ops_client_t();
    client->sd = -1;
    client->node = node;
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

// 0; -EAGAIN when TIPC is congested or short of memory, and the request waits for its turn; another errno value.
static int send_request(ops_client_t *client, ops_request_t *request)
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
    if (sent == (ssize_t)len)
        return 0;
    if (sent != -1)
        return -EMSGSIZE;
    return err == EINTR || err == ENOMEM || err == ENOBUFS ? -EAGAIN : -err;
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

// Takes a batch out of those that take turns.
static void leave(ops_client_t *client, ops_batch_t *batch)
{
    auto found = std::find(client->batches.begin(), client->batches.end(), batch);
    if (found != client->batches.end())
        client->batches.erase(found);
}

// The outcome is set.
static void report(ops_client_t *client, ops_batch_t *batch, ops_request_t *request)
{
    client->answered += request->outcome == OPS_ANSWERED ? 1 : 0;
    if (--batch->waiting == 0)
        leave(client, batch);
    if (batch->on_done) {
        auto on_done = batch->on_done; // the batch may go while it runs
        on_done(request);
    }
}

static void forget(ops_client_t *client, uint32_t seq)
{
    client->awaited.erase(seq);
    auto young = std::find_if(client->young.begin(), client->young.end(),
                              [seq](const auto &entry) { return entry.second == seq; });
    if (young != client->young.end()) {
        client->young.erase(young);
        client->under_way--;
    }
}

// The request that the instance owes a reply to, no longer awaited. Null when there is none.
static ops_request_t *take_awaited(ops_client_t *client, uint32_t seq, ops_inst_t inst, ops_batch_t **batch)
{
    auto found = client->awaited.find(seq);
    if (found == client->awaited.end())
        return nullptr;
    ops_request_t *request = &(*found->second.batch->requests)[found->second.at];
    if (request->inst.app != inst.app || request->inst.node != inst.node)
        return nullptr;
    *batch = found->second.batch;
    forget(client, seq);
    return request;
}

static bool whole_header(const zeb_msg_hdr_t *hdr, size_t len)
{
    return len >= ZEB_MSG_HDR_LEN && ntohl(hdr->len) == (uint32_t)len;
}

void ops_client_take(ops_client_t *client, size_t len)
{
    zeb_msg_t *msg = client->recv_buf;
    if (!whole_header(&msg->hdr, len)) {
        client->strays++;
        return;
    }
    zeb_convert_to_host(msg);
    ops_batch_t *batch = nullptr;
    ops_request_t *request = nullptr;
    if (msg->hdr.flag == OPS_REPLY_FLAGS && msg->hdr.dst_app == ZEBD_APP_ID)
        request = take_awaited(client, msg->hdr.seq, {msg->hdr.src_app, msg->hdr.src_node}, &batch);
    if (request != nullptr) {
        take_reply(request, msg);
        report(client, batch, request);
    } else if (!client->on_message || !client->on_message(msg)) {
        client->strays++;
    }
}

void ops_client_take_returned(ops_client_t *client, const zeb_msg_hdr_t *hdr, uint32_t code)
{
    ops_batch_t *batch = nullptr;
    ops_request_t *request = nullptr;
    if (hdr->flag == OPS_REQUEST_FLAGS)
        request = take_awaited(client, ntohl(hdr->seq), {ntohl(hdr->dst_app), ntohl(hdr->dst_node)}, &batch);
    if (request != nullptr) {
        done(request, OPS_GONE, std::string("came back: ") + zeb_tipc_err_string((int)code));
        report(client, batch, request);
    } else if (!client->on_returned || !client->on_returned(hdr, code)) {
        client->strays++;
    }
}

static void read_returned(ops_client_t *client, struct msghdr *read)
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
    if (has_hdr)
        ops_client_take_returned(client, &hdr, code);
    else
        client->strays++;
}

void ops_client_read(ops_client_t *client)
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
            read_returned(client, &read);
        else
            ops_client_take(client, (size_t)len);
    }
}

void ops_client_begin(ops_client_t *client, ops_batch_t *batch)
{
    batch->next = 0;
    batch->congested.clear();
    batch->waiting = (size_t)std::count_if(batch->requests->begin(), batch->requests->end(),
                                           [](const auto &request) { return request.outcome == OPS_WAITING; });
    if (batch->waiting != 0)
        client->batches.push_back(batch);
}

void ops_client_cancel(ops_client_t *client, ops_batch_t *batch)
{
    leave(client, batch);
    for (const ops_request_t &request : *batch->requests) {
        auto found = client->awaited.find(request.seq);
        if (found != client->awaited.end() && found->second.batch == batch)
            forget(client, request.seq);
    }
}

// Ends what is late.
static void expire(ops_client_t *client, int64_t now)
{
    while (!client->young.empty() && client->young.front().first <= now) {
        client->young.pop_front();
        client->under_way--;
    }
    while (!client->late.empty()) {
        auto first = client->late.begin();
        uint32_t seq = first->second;
        auto found = client->awaited.find(seq);
        bool waits = found != client->awaited.end();
        if (waits && first->first > now)
            return;
        client->late.erase(first);
        if (!waits)
            continue;
        ops_batch_t *batch = found->second.batch;
        ops_request_t *request = &(*batch->requests)[found->second.at];
        forget(client, seq);
        done(request, OPS_SILENT, "no answer in " + std::to_string(batch->timeout) + " ms");
        report(client, batch, request);
    }
}

// The position of the request that a batch sends next; the end of the requests when there is none.
static size_t next_of(ops_batch_t *batch, bool retry)
{
    if (retry && !batch->congested.empty())
        return batch->congested.front();
    while (batch->next < batch->requests->size() && (*batch->requests)[batch->next].outcome != OPS_WAITING)
        batch->next++;
    return batch->next;
}

static void was_sent(ops_client_t *client, ops_batch_t *batch, size_t at)
{
    ops_request_t *request = &(*batch->requests)[at];
    request->sent_at = ops_now();
    client->asked++;
    client->under_way++;
    client->awaited[request->seq] = {batch, at};
    client->young.emplace_back(request->sent_at + SLOW, request->seq);
    client->late.emplace(request->sent_at + batch->timeout, request->seq);
}

static void was_refused(ops_client_t *client, ops_batch_t *batch, size_t at)
{
    ops_request_t *request = &(*batch->requests)[at];
    int64_t now = ops_now();
    request->tried_at = request->tried_at == 0 ? now : request->tried_at;
    if (now - request->tried_at < batch->timeout) {
        batch->congested.push_back(at);
        return;
    }
    done(request, OPS_SILENT, "congested, not sent in " + std::to_string(batch->timeout) + " ms");
    report(client, batch, request);
}

// Sends one request of a batch. 0; -EAGAIN when it was refused; -ENOENT when there is none to be sent.
static int send_of(ops_client_t *client, ops_batch_t *batch, bool retry)
{
    size_t at = batch->paused ? batch->requests->size() : next_of(batch, retry);
    if (at == batch->requests->size())
        return -ENOENT;
    ops_request_t *request = &(*batch->requests)[at];
    if (client->under_way >= (request->ask == OPS_ASK_STAT ? LARGE_AT_ONCE : SMALL_AT_ONCE))
        return -ENOENT;
    if (retry && !batch->congested.empty())
        batch->congested.pop_front();
    else
        batch->next++;
    int ret = send_request(client, request);
    if (ret == 0) {
        was_sent(client, batch, at);
    } else if (ret == -EAGAIN) {
        was_refused(client, batch, at);
    } else {
        done(request, OPS_GONE, std::string("not sent: ") + strerror(-ret));
        report(client, batch, request);
    }
    return ret == -EAGAIN ? ret : 0;
}

// Batches take turns, one request each, until none has one that may be sent. A report may end any batch, so nothing of
// the list is kept from one turn to the next.
static void send_in_turns(ops_client_t *client, int64_t now)
{
    if (client->retry > now)
        return;
    int refused = 0;
    for (size_t idle = 0; idle < client->batches.size() && refused < REFUSED_AT_ONCE;) {
        client->turn = (client->turn + 1) % client->batches.size();
        int ret = send_of(client, client->batches[client->turn], refused == 0);
        idle = ret == -ENOENT ? idle + 1 : 0;
        refused += ret == -EAGAIN ? 1 : 0;
    }
    bool any = std::any_of(client->batches.begin(), client->batches.end(),
                           [](const ops_batch_t *batch) { return !batch->paused && !batch->congested.empty(); });
    client->retry = any ? now + CONGESTED : 0;
}

int64_t ops_client_step(ops_client_t *client)
{
    int64_t now = ops_now();
    expire(client, now);
    send_in_turns(client, now);
    int64_t wake = now + LONGEST;
    if (!client->late.empty())
        wake = std::min(wake, client->late.begin()->first);
    if (!client->young.empty())
        wake = std::min(wake, client->young.front().first);
    return client->retry == 0 ? wake : std::min(wake, client->retry);
}

void ops_client_ask(ops_client_t *client, std::vector<ops_request_t> *requests, int64_t timeout)
{
    ops_batch_t batch = {requests, timeout, false, nullptr, 0, 0, {}};
    ops_client_begin(client, &batch);
    while (batch.waiting != 0) {
        int64_t wake = ops_client_step(client);
        if (batch.waiting == 0)
            return;
        int64_t left = std::max<int64_t>(0, wake - ops_now());
        struct pollfd entry = {client->sd, POLLIN, 0};
        (void)poll(&entry, 1, (int)left);
        ops_client_read(client);
    }
}

size_t ops_unanswered(const std::vector<ops_request_t> &requests)
{
    return (size_t)std::count_if(requests.begin(), requests.end(),
                                 [](const ops_request_t &request) { return request.outcome != OPS_ANSWERED; });
}
