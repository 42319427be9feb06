// The instructions of one send, one send to a group, or one call: callgrind counts two runs of different length, and
// their difference is divided. The calls on TIPC do nothing (interpose_bare.h), so that only the library's own work is
// counted. A call is answered within its sendto, so it never waits. Usage: send_cost [VERB [NUMBER [PEERS [APPS [GROUPS
// [CALLS]]]]]] with VERB send, group, call or all (one send to all instances), or send-cpp, call-cpp or all-cpp (the
// same through zeb.hpp), PEERS instances online, APPS further applications, GROUPS groups, and CALLS calls in progress.
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <zeb/zeb.hpp>

#include "handshake_core.h"
#include "interpose_bare.h"
#include "zeb_flow_ctrl.h"
#include "zeb_rpc.h"

constexpr uint32_t APP = 100;
constexpr uint32_t PEER = 200;

static void *drop(zeb_msg_t *msg)
{
    free(msg);
    return nullptr;
}

// Gives the library the answer that a server would have sent.
static void answer(const zeb_msg_hdr_t *request)
{
    zeb_msg_t *reply = zeb_msg_alloc(0, 1, 0);
    zeb_encode_msg_hdr(reply, request->flag | ZEB_MSG_FLAG_ACK, ntohl(request->dst_app), ntohl(request->dst_node),
                       ntohl(request->src_app), ntohl(request->src_node), ntohl(request->seq), 0);
    (void)zeb_rpc_add_reply(reply);
}

static void bare::on_sendto(const void *bytes)
{
    zeb_msg_hdr_t hdr;
    memcpy(&hdr, bytes, sizeof(hdr));
    if ((hdr.flag & ZEB_MSG_FLAG_REQUEST) != 0)
        answer(&hdr);
}

static void add_peer(uint32_t node)
{
    zeb_inst_id_t *id = pair_of(APP, PEER, node);
    id->sync_id = node;
    id->sync_ack_id = node;
    zeb_set_app_inst(PEER, node);
    zeb_set_app_inst_ack(PEER, node);
    zeb_set_app_server(PEER, node);
    zeb_try_notify_app_join(APP, PEER, node);
}

static uint32_t add_groups(uint32_t num)
{
    uint32_t group = 0;
    for (uint32_t i = 0; i < num; i++)
        group = (uint32_t)zeb_create_app_mcast(APP);
    (void)zeb_add_app_mcast(APP, group, PEER);
    return group;
}

static bool call(uint32_t node, zeb_msg_t *msg)
{
    zeb_reply_msg_t replies;
    if (zeb_rpcto(APP, node, PEER, msg, 0, 60, &replies) != 0 || replies.num != 1)
        return false;
    free(replies.msg[0]);
    return true;
}

static bool call(const zeb::app &app, uint32_t node, zeb::message &message)
{
    auto outcomes = app.call({PEER, node}, message, std::chrono::seconds(60));
    return outcomes && outcomes->size() == 1;
}

// Through zeb.hpp or not, by a client that calls the same functions for the rest.
static zeb::app register_app(zeb::runtime *runtime, bool through_cpp)
{
    if (through_cpp) {
        zeb::app_options options(APP, "bench");
        options.run_in(zeb::mode::no_thread).on_message(1, [](const zeb::message &) {});
        return runtime->add(std::move(options)).value_or(zeb::app());
    }
    const zeb_msg_dispatcher_t table[] = {{1, drop}, {0, nullptr}};
    (void)zeb_register_without_thread(APP, "bench", table, nullptr);
    return {};
}

static void acknowledge(uint32_t first, uint32_t last)
{
    for (uint32_t node = first; node <= last; node++)
        zeb_fc_update_sent_ack(APP, {PEER, node}, 512);
}

int main(int argc, char **argv)
{
    std::string verb = argc > 1 ? argv[1] : "send";
    auto number = [&](int at, uint32_t usual) { return argc > at ? (uint32_t)atoi(argv[at]) : usual; };
    uint32_t sends = number(2, 1000);
    uint32_t peers = number(3, 64);
    uint32_t apps = number(4, 0);
    bool through_cpp = verb.size() > 4 && verb.substr(verb.size() - 4) == "-cpp";
    if (through_cpp)
        verb.resize(verb.size() - 4);
    static zeb::runtime &s_runtime = *new zeb::runtime; // never stopped: nothing runs
    zeb::app app = register_app(&s_runtime, through_cpp);
    if (zeb_get_app_mng(APP) == nullptr) {
        (void)fprintf(stderr, "needs a node id in /tmp/addr/.zeb_node_addr\n");
        return 1;
    }
    for (uint32_t i = 0; i < apps; i++)
        (void)zeb_comm_with(APP, 1000 + i);
    (void)zeb_comm_with(APP, PEER);
    for (uint32_t node = 1; node <= peers; node++)
        add_peer(node);
    uint32_t group = add_groups(number(5, 1));
    static zeb_reply_msg_t s_open;
    for (uint32_t i = 0; i < number(6, 0); i++)
        (void)zeb_rpc_prepare_wait(APP, 0x80000000u + i, &s_open, 60);
    zeb::message message = zeb::message::with_size(1, 64);
    zeb_msg_t *msg = message.get();
    bool calls = verb == "call";
    bool to_all = verb == "all";
    uint32_t dst = verb == "group" ? group : PEER;
    uint32_t done = 0;
    for (uint32_t i = 0; i < sends; i++) {
        uint32_t node = 1 + i % peers;
        if (calls)
            done += (through_cpp ? call(app, node, message) : call(node, msg)) ? 1 : 0;
        else if (through_cpp && to_all)
            done += app.send(dst, message) ? 0 : 1;
        else if (through_cpp)
            done += app.send({dst, node}, message) ? 0 : 1;
        else if (to_all)
            done += zeb_send(APP, dst, msg, 0) == 0 ? 1 : 0;
        else
            done += zeb_sendto(APP, node, dst, msg, 0) == 0 ? 1 : 0;
        if (i % 512 == 511)
            acknowledge(to_all ? 1 : node, to_all ? peers : node);
    }
    printf("%u of %u done, %u peers online\n", done, sends, peers);
    return done == sends ? 0 : 1;
}
