#include "zebd_peer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <platform/tipc_name.h>
#include <zeb/zeb_tlv.h>

#include "ops_log.h"

constexpr size_t BODY_MAX = ZEB_MSG_MAX_DATA;
constexpr size_t LOG_MAX = 32 << 10;  // bytes of a log file at once
constexpr size_t LOG_LEAST = 4 << 10; // that fit as JSON whatever they are
constexpr uint8_t REQUEST = ZEB_MSG_FLAG_REQUEST;
constexpr uint8_t REPLY = ZEB_MSG_FLAG_REQUEST | ZEB_MSG_FLAG_ACK;

// What this node tells.

static void look(const zebd_request_t &request, size_t most, ops_json_t *answer)
{
    ops_json_t list = ops_json_t::array();
    size_t size = 64; // what is around the list
    for (int32_t pid : request.pids) {
        ops_json_t record = ops_record_of_process(ops_process_look(pid));
        size += ops_record_line(record).size() + 1;
        if (size > most)
            break;
        list.push_back(record);
    }
    *answer = {{"processes", list}};
}

static int read_log(const zebd_request_t &request, size_t most, ops_json_t *answer, std::string *why)
{
    ops_process_t process = ops_process_look(request.pids[0]);
    for (size_t len = LOG_MAX; len >= LOG_LEAST; len /= 2) {
        std::string text;
        int64_t next = 0;
        int ret = ops_log_read_some(process, request.offset, (int64_t)len, &text, &next);
        if (ret != 0) {
            *why = process.log.empty() ? "process " + std::to_string(process.pid) + " has no log file"
                                       : "log file " + process.log + ": " + strerror(-ret);
            return ret;
        }
        *answer = {{"text", ops_record_wide(text)}, {"next", next}};
        if (ops_record_line(*answer).size() <= most)
            return 0;
    }
    *why = "the log file is no text";
    return -EMSGSIZE;
}

int zebd_peer_here(const zebd_request_t &request, size_t most, ops_json_t *answer, std::string *why)
{
    if (request.type == ZEBD_LOG)
        return read_log(request, most, answer, why);
    look(request, most, answer);
    return 0;
}

// Messages.

static int send_message(zebd_peer_t *peer, uint8_t flag, ops_inst_t to, uint32_t version, uint32_t seq, int32_t stat,
                        const void *body, size_t len)
{
    const ops_client_t *client = &peer->sampler->client;
    if (len > BODY_MAX)
        return -EMSGSIZE;
    struct sockaddr_tipc addr = tipc_name(OPS_NAME_TYPE, ops_name_of(to), TIPC_CLUSTER_SCOPE);
    zeb_msg_t *msg = zeb_msg_alloc((int)len, version, 0);
    if (len != 0)
        memcpy(msg->data, body, len);
    zeb_encode_msg_hdr(msg, flag, ZEBD_APP_ID, client->node, to.app, to.node, seq, stat);
    zeb_convert_to_network(msg);
    ssize_t sent = sendto(client->sd, &msg->hdr, ZEB_MSG_HDR_LEN + len, MSG_NOSIGNAL | MSG_DONTWAIT,
                          (struct sockaddr *)&addr, sizeof(addr));
    int err = errno;
    free(msg);
    return sent == -1 ? -err : 0;
}

static void reply(zebd_peer_t *peer, const zeb_msg_t *msg, int32_t stat, const void *body, size_t len)
{
    (void)send_message(peer, msg->hdr.flag | ZEB_MSG_FLAG_ACK, {msg->hdr.src_app, msg->hdr.src_node}, msg->hdr.app_ver,
                       msg->hdr.seq, stat, body, len);
}

// As an application answers a version for which it has no dispatcher, in its own byte order.
static void reply_mismatch(zebd_peer_t *peer, const zeb_msg_t *msg)
{
    zeb_mismatch_info_t info = {ZEBD_PEER_VERSION, ZEBD_PEER_VERSION};
    reply(peer, msg, ZEB_APP_MISMATCH, &info, sizeof(info));
}

static bool answer_peer(zebd_peer_t *peer, const zeb_msg_t *msg)
{
    zebd_request_t request;
    if (msg->hdr.src_app != ZEBD_APP_ID || !zebd_request_parse_peer(msg->data, zeb_msg_data_len(msg), &request))
        return false;
    ops_json_t answer;
    std::string why;
    int ret = zebd_peer_here(request, BODY_MAX, &answer, &why);
    if (ret != 0)
        answer = {{"errno", ret == -ENOENT ? "ENOENT" : "EINVAL"}, {"text", ops_record_wide(why)}};
    std::string body = ops_record_line(answer);
    reply(peer, msg, ZEB_SUCCESS, body.data(), body.size());
    return true;
}

// What an instance answers to a question for its statistics.
static std::string own_listing(uint32_t node)
{
    std::string app = "Application 1";
    std::string inst = app + "/" + std::to_string(node);
    return inst + " process's ZEB library information:\n  Applications in this process: 1\n" + inst +
           " [zebd] information:\n  Callback functions: event (nil), message dispatchers:\n      version " +
           std::to_string(ZEBD_PEER_VERSION) + " (nil)\n  Unprocessed message number 0\n" + app +
           " overall statistics:\n" + app + " mng msg statistics:\n" + app + " RPC waits:\n";
}

static bool answer_question(zebd_peer_t *peer, const zeb_msg_t *msg)
{
    uint32_t len = zeb_msg_data_len(msg);
    if (len < sizeof(struct tlv_desc) || !TLV_OK(msg->data, (uint16_t)len))
        return false;
    uint32_t node = peer->sampler->client.node;
    if (TLV_DATA_TYPE(msg->data) == OPS_APP_INFO) {
        ops_app_info_t info = {ZEBD_APP_ID, (int32_t)getpid(), 0};
        uint8_t body[sizeof(struct tlv_desc) + sizeof(info)] __attribute__((aligned(4)));
        reply(peer, msg, ZEB_SUCCESS, body, TLV_SET(body, OPS_APP_INFO, &info, sizeof(info)));
        return true;
    }
    if (TLV_DATA_TYPE(msg->data) != OPS_APP_STAT)
        return false;
    std::string text = own_listing(node);
    reply(peer, msg, ZEB_SUCCESS, text.c_str(), text.size() + 1);
    return true;
}

// True when the node may have an answer now.
static bool within_rate(zebd_peer_t *peer, uint32_t node)
{
    int64_t second = ops_now() / 1000;
    if (second != peer->second) {
        peer->second = second;
        peer->given = 0;
        peer->given_to.clear();
    }
    if (peer->given >= ZEBD_PEER_RATE || peer->given_to[node] >= ZEBD_PEER_NODE_RATE)
        return false;
    peer->given++;
    peer->given_to[node]++;
    return true;
}

static void finish(zebd_peer_t *peer, std::map<uint32_t, zebd_waiting_t>::iterator it, int err, const std::string &why,
                   const ops_json_t &answer)
{
    zebd_on_answer_t on_answer = std::move(it->second.on_answer);
    zebd_loop_remove(peer->loop, it->second.timer);
    peer->waiting.erase(it);
    on_answer(err, why, answer);
}

static bool take_answer(zebd_peer_t *peer, const zeb_msg_t *msg)
{
    auto found = peer->waiting.find(msg->hdr.seq);
    if (found == peer->waiting.end() || msg->hdr.src_app != ZEBD_APP_ID || msg->hdr.src_node != found->second.node)
        return false;
    std::string node = std::to_string(msg->hdr.src_node);
    if (msg->hdr.rpc_stat != ZEB_SUCCESS) {
        finish(peer, found, EHOSTUNREACH, "the zebd of node " + node + " is of another version", nullptr);
        return true;
    }
    ops_json_t answer = ops_record_parse(std::string((const char *)msg->data, zeb_msg_data_len(msg)));
    std::string name;
    std::string text;
    if (!answer.is_object()) {
        finish(peer, found, EHOSTUNREACH, "the zebd of node " + node + " answered something else", nullptr);
    } else if (ops_record_text(answer, "errno", &name)) {
        (void)ops_record_text(answer, "text", &text);
        finish(peer, found, name == "ENOENT" ? ENOENT : EINVAL, "node " + node + ": " + ops_record_narrow(text),
               nullptr);
    } else {
        finish(peer, found, 0, "", answer);
    }
    return true;
}

static bool is_for_us(const zebd_peer_t *peer, const zeb_msg_hdr_t *hdr)
{
    return hdr->zeb_ver == ZEB_MSG_VERSION && hdr->dst_app == ZEBD_APP_ID &&
           hdr->dst_node == peer->sampler->client.node && zeb_valid_app_id(hdr->src_app) != 0 &&
           zeb_valid_node_id(hdr->src_node) != 0;
}

static bool on_message(zebd_peer_t *peer, const zeb_msg_t *msg)
{
    const zeb_msg_hdr_t *hdr = &msg->hdr;
    bool taken = false;
    if (!is_for_us(peer, hdr))
        taken = false;
    else if (hdr->flag == REPLY)
        taken = take_answer(peer, msg);
    else if (!within_rate(peer, hdr->src_node))
        taken = false;
    else if (hdr->flag == OPS_REQUEST_FLAGS)
        taken = answer_question(peer, msg);
    else if (hdr->flag == REQUEST && hdr->app_ver == ZEBD_PEER_VERSION)
        taken = answer_peer(peer, msg);
    else if (hdr->flag == REQUEST && hdr->app_ver != 0) {
        reply_mismatch(peer, msg);
        taken = true;
    }
    peer->dropped += taken ? 0 : 1;
    return taken;
}

// The request that nobody took.
static bool on_returned(zebd_peer_t *peer, const zeb_msg_hdr_t *hdr)
{
    auto found = hdr->flag == REQUEST ? peer->waiting.find(ntohl(hdr->seq)) : peer->waiting.end();
    if (found == peer->waiting.end() || ntohl(hdr->dst_node) != found->second.node)
        return hdr->flag == REPLY || hdr->flag == OPS_REPLY_FLAGS; // of one that has gone meanwhile
    finish(peer, found, EHOSTUNREACH, "no zebd runs on node " + std::to_string(found->second.node), nullptr);
    return true;
}

void zebd_peer_open(zebd_peer_t *peer)
{
    peer->sampler->client.on_message = [peer](const zeb_msg_t *msg) { return on_message(peer, msg); };
    peer->sampler->client.on_returned = [peer](const zeb_msg_hdr_t *hdr, uint32_t) { return on_returned(peer, hdr); };
}

// An answer that is known at once comes from the loop as any other.
static void fail_soon(zebd_peer_t *peer, uint32_t number, int err, const std::string &why)
{
    zebd_waiting_t *waiting = &peer->waiting[number];
    zebd_loop_remove(peer->loop, waiting->timer);
    waiting->timer = zebd_loop_at(peer->loop, 0, [peer, number, err, why] {
        auto found = peer->waiting.find(number);
        if (found != peer->waiting.end())
            finish(peer, found, err, why, nullptr);
    });
}

static void on_late(zebd_peer_t *peer, uint32_t number, int64_t timeout)
{
    auto found = peer->waiting.find(number);
    if (found == peer->waiting.end())
        return;
    finish(peer, found, EHOSTUNREACH,
           "the zebd of node " + std::to_string(found->second.node) + " did not answer in " + std::to_string(timeout) +
               " ms",
           nullptr);
}

uint32_t zebd_peer_ask(zebd_peer_t *peer, const zebd_request_t &request, zebd_on_answer_t on_answer)
{
    uint32_t number = ++peer->sampler->client.seq;
    zebd_waiting_t *waiting = &peer->waiting[number];
    *waiting = {request.node, 0, std::move(on_answer)};
    int64_t timeout = request.timeout;
    waiting->timer = zebd_loop_at(peer->loop, timeout, [peer, number, timeout] { on_late(peer, number, timeout); });
    if (!peer->sampler->is_app1) {
        fail_soon(peer, number, EADDRINUSE, "another process of this node is application 1");
    } else if (peer->waiting.size() > ZEBD_PEER_WAITING_MAX) {
        fail_soon(peer, number, EUSERS, "too many requests to other nodes wait");
    } else {
        std::string body = zebd_request_peer(request);
        int ret = send_message(peer, REQUEST, {ZEBD_APP_ID, request.node}, ZEBD_PEER_VERSION, number, 0, body.data(),
                               body.size());
        if (ret != 0)
            fail_soon(peer, number, EHOSTUNREACH,
                      "nothing can be sent to node " + std::to_string(request.node) + ": " + strerror(-ret));
    }
    return number;
}

void zebd_peer_cancel(zebd_peer_t *peer, uint32_t number)
{
    auto found = peer->waiting.find(number);
    if (found == peer->waiting.end())
        return;
    zebd_loop_remove(peer->loop, found->second.timer);
    peer->waiting.erase(found);
}
