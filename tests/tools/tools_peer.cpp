// What zebctl talks to in its tests: real instances of the library, and sockets that answer as no library does.
// Usage: tools_peer real FIRST COUNT [PEER PEERS]
//                                         COUNT applications from FIRST on, servers of versions 1 and 3, each of which
//                                         communicates with PEERS applications from PEER on
//        tools_peer client APP            an application without a dispatcher
//        tools_peer hold                  a socket that is application 1 of this node
//        tools_peer silent|half|quarter|liar|refuse|flood|cut APP
//                                         a socket that is APP and answers like that
//        tools_peer steady|anew APP       the same with counters that grow by 100 from answer to answer; of one
//        process,
//                                         or of another one each time
//        tools_peer once APP              the same, and ends when it has told its counters once
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include <platform/tipc_name.h>
#include <zeb/zeb.h>
#include <zeb/zeb_tlv.h>

#include "ops_wire.h"

static uint32_t s_node;
static uint32_t s_first;

static void *on_message(zeb_msg_t *msg)
{
    free(msg);
    return nullptr;
}

// The first application greets each instance of its own on other nodes, so that there is something to count.
static void *on_event(zeb_event_t event)
{
    if (event.type != ZEB_APP_JOIN || event.my_app != s_first || event.event.app.node == s_node)
        return nullptr;
    zeb_msg_t *msg = zeb_msg_alloc(8, 1, 0);
    (void)zeb_sendto(s_first, event.event.app.node, s_first, msg, 0);
    free(msg);
    return nullptr;
}

static int run_real(uint32_t count, const zeb_msg_dispatcher_t *dispatchers, uint32_t peer, uint32_t peers)
{
    for (uint32_t app = s_first; app < s_first + count; app++) {
        std::string name = "peer" + std::to_string(app);
        if (zeb_register_without_thread(app, name.c_str(), dispatchers, on_event) != 0)
            return 1;
        for (uint32_t named = peer; named < peer + peers; named++) {
            if (zeb_comm_with(app, named) != 0)
                return 1;
        }
    }
    zeb_run();
    for (;;)
        (void)pause();
}

static int bound_socket(uint32_t app)
{
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    struct sockaddr_tipc addr = tipc_name(OPS_NAME_TYPE, ops_name_of({app, s_node}), TIPC_CLUSTER_SCOPE);
    return bind(sd, (struct sockaddr *)&addr, sizeof(addr)) == 0 ? sd : -1;
}

// The reply to a request, its body of `len` bytes in `body`. False when nobody takes it.
static bool reply(int sd, const zeb_msg_t *request, const void *body, uint32_t len, int32_t status)
{
    zeb_msg_t *msg = zeb_msg_alloc((int)len, 1, 0);
    if (len != 0)
        memcpy(msg->data, body, len);
    zeb_encode_msg_hdr(msg, request->hdr.flag | ZEB_MSG_FLAG_ACK, request->hdr.dst_app, s_node, request->hdr.src_app,
                       request->hdr.src_node, request->hdr.seq, status);
    struct sockaddr_tipc addr =
        tipc_name(OPS_NAME_TYPE, ops_name_of({request->hdr.src_app, request->hdr.src_node}), TIPC_CLUSTER_SCOPE);
    zeb_convert_to_network(msg);
    ssize_t sent = sendto(sd, &msg->hdr, ZEB_MSG_HDR_LEN + len, MSG_NOSIGNAL, (struct sockaddr *)&addr, sizeof(addr));
    free(msg);
    return sent != -1;
}

static void identify(int sd, const zeb_msg_t *request, uint32_t app, int32_t pid)
{
    ops_app_info_t info = {app, pid, 0};
    uint8_t body[sizeof(struct tlv_desc) + sizeof(info)] __attribute__((aligned(4)));
    (void)reply(sd, request, body, TLV_SET(body, OPS_APP_INFO, &info, sizeof(info)), 0);
}

// Statistics with counters, each time with more messages sent.
static std::string growing_text(uint32_t app)
{
    static uint32_t sent;
    char text[300];
    sent += 100;
    (void)snprintf(
        text, sizeof(text),
        "Application %u/%u [grows] information:\n  Proxy thread 0x1, socket 3, priority 0\n"
        "Application %u overall statistics:\n  total send %u, unack 0, mcast reject 0, RPC reply exception 0\n"
        "  total receive 0, unack 0, exception 0\n",
        app, s_node, app, sent);
    return text;
}

static void answer(int sd, const zeb_msg_t *request, const std::string &how)
{
    bool stat = TLV_DATA_TYPE(request->data) == OPS_APP_STAT;
    if (how == "refuse" || (how == "half" && !stat)) {
        (void)reply(sd, request, request->data, how == "half" ? 4 : 0, how == "half" ? 0 : ZEB_APP_UNAVAIL);
        return;
    }
    static int32_t others; // processes that answered before
    if (!stat || how == "liar")
        return identify(sd, request, request->hdr.dst_app + (how == "liar" ? 1 : 0),
                        (int32_t)getpid() + (how == "anew" ? ++others : 0));
    std::string text = how == "cut" ? "*** PRINT BUFFER STRING OVERFLOW ***\n" : "\033[2Jnothing\n";
    text = how == "steady" || how == "anew" || how == "once" ? growing_text(request->hdr.dst_app) : text;
    text += how == "cut" ? std::string("\0ry information:\nApplication 1", 31) : "";
    while (reply(sd, request, text.c_str(), (uint32_t)text.size() + 1, 0) && how == "flood") {
        // until nobody takes it
    }
    if (how == "once")
        _exit(0);
}

static int run_raw(const std::string &how, uint32_t app)
{
    int sd = bound_socket(app);
    if (sd == -1)
        return 1;
    zeb_msg_t *request = zeb_msg_alloc(ZEB_MSG_MAX_DATA, 1, 0);
    for (;;) {
        ssize_t len = recv(sd, &request->hdr, ZEB_MSG_HDR_LEN + ZEB_MSG_MAX_DATA, 0);
        if (len < ZEB_MSG_HDR_LEN + (ssize_t)sizeof(struct tlv_desc) || how == "silent" || how == "hold")
            continue;
        zeb_convert_to_host(request);
        if (request->hdr.flag == OPS_REQUEST_FLAGS)
            answer(sd, request, how);
    }
}

int main(int argc, char **argv)
{
    static const zeb_msg_dispatcher_t server[] = {{1, on_message}, {3, on_message}, {0, nullptr}};
    static const zeb_msg_dispatcher_t client[] = {{0, nullptr}};
    std::string how = argc > 1 ? argv[1] : "";
    s_node = (uint32_t)zeb_get_my_node_id();
    s_first = argc > 2 ? (uint32_t)strtoul(argv[2], nullptr, 10) : ZEBD_APP_ID;
    auto number = [argc, argv](int at) { return argc > at ? (uint32_t)strtoul(argv[at], nullptr, 10) : 0; };
    if (how == "real" && argc > 3)
        return run_real(number(3), server, number(4), number(5));
    return how == "client" ? run_real(1, client, 0, 0) : run_raw(how, s_first);
}
