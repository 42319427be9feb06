// The state machine: datagrams, topology events, timer expiries, sends, calls and failures in any order. The invariants
// are checked after each step. Messages take their sequence numbers and identities from what the library sent, so that
// handshakes and calls complete.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz_peers.h"
#include "platform/list_algo.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_handshake_shell.h"
#include "zeb_rpc_async.h"
#include "zeb_slot.h"

#include <zeb/zeb_ext.h>

using world::bytes_t;
using wire::operator+;

static FuzzedDataProvider *s_input;
static bool s_one_way; // no call was made yet
static int s_depth;    // of calls inside calls

static const uint32_t PEERS[] = {world::PEER, world::PEER2, world::SERVER, world::CLIENT, world::DAEMON};
static const uint32_t LOCALS[] = {world::SERVER, world::CLIENT, world::SERVER, world::DAEMON};
static const uint32_t NODES[] = {9, 10, world::NODE, 65535, 0};

template <typename T, size_t N>
static T pick(const T (&values)[N])
{
    return values[s_input->ConsumeIntegralInRange<size_t>(0, N - 1)];
}

static uint32_t small(uint32_t last)
{
    return s_input->ConsumeIntegralInRange<uint32_t>(0, last);
}

// A pair: an application of ours and its peer.
typedef struct peer_s {
    uint32_t app; // ours
    uint32_t peer;
    uint32_t node;
} peer_t;

static peer_t pick_peer()
{
    uint32_t app = pick(LOCALS);
    uint32_t peer = pick(PEERS);
    return {app, peer, pick(NODES)};
}

static void receive(const peer_t &from, uint8_t flag, const bytes_t &body, uint32_t seq = 0, uint8_t ver = 2)
{
    wire::header_t header;
    header.ver = ver;
    header.flag = flag;
    header.src_app = from.peer;
    header.src_node = from.node;
    header.dst_app = from.app;
    header.dst_node = world::NODE;
    header.app_ver = small(4);
    header.seq = seq;
    if ((flag & wire::ACK) != 0)
        header.stat = small(6);
    bytes_t datagram = wire::message(header, body);
    world::receive(from.app, datagram.data(), datagram.size());
}

static uint32_t pick_identity()
{
    return peers::PID + (small(7) == 0 ? 1 : 0);
}

static void step_synchronise()
{
    peer_t from = pick_peer();
    uint32_t seq = small(3) == 0 ? peers::known_seq(from.app, from.peer, from.node) : small(3) + 1;
    receive(from, wire::SYNC, wire::sync_inst(seq, pick_identity(), small(1), small(7) == 0 ? 1 : 0), 0,
            small(4) == 0 ? 1 : 2);
}

static void step_acknowledge()
{
    peer_t from = pick_peer();
    uint32_t seq = small(7) == 0 ? small(3) : peers::pending_seq(from.app, from.peer, from.node);
    uint32_t known = peers::known_seq(from.app, from.peer, from.node);
    uint32_t pseq = small(3) == 0 ? small(3) : known;
    uint32_t id = pick_identity();
    uint32_t server = small(1);
    receive(from, wire::SYNC, wire::sync_ack(seq, id, server) + wire::sync_seq_ack(seq, id, server, pseq), 0,
            small(4) == 0 ? 1 : 2);
}

// A whole handshake.
static void join(const peer_t &from)
{
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    event.event = TIPC_PUBLISHED;
    event.found_lower = event.found_upper = from.peer << 16 | from.node;
    world::event(event);
    uint32_t seq = peers::pending_seq(from.app, from.peer, from.node);
    receive(from, wire::SYNC, wire::sync_inst(9, peers::PID, 1, 0));
    receive(from, wire::SYNC, wire::sync_seq_ack(seq, peers::PID, 1, 9));
}

static void step_join()
{
    join(pick_peer());
}

static void step_topology_event()
{
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    event.event = small(1) == 0 ? TIPC_PUBLISHED : TIPC_WITHDRAWN;
    event.found_lower = pick(PEERS) << 16 | pick(NODES);
    event.found_upper = event.found_lower + (small(3) == 0 ? small(3) : 0);
    world::event(event);
}

static void step_timer()
{
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    event.event = TIPC_SUBSCR_TIMEOUT;
    std::vector<world::timer_t_> &timers = world::timers();
    if (!timers.empty() && small(7) != 0) {
        size_t at = small((uint32_t)timers.size() - 1);
        memcpy(event.s.usr_handle, &timers[at], sizeof(timers[at]));
        timers.erase(timers.begin() + (long)at);
    } else {
        bytes_t handle = s_input->ConsumeBytes<uint8_t>(sizeof(event.s.usr_handle));
        if (!handle.empty())
            memcpy(event.s.usr_handle, handle.data(), handle.size());
    }
    world::event(event);
}

static void step_message()
{
    peer_t from = pick_peer();
    uint8_t flag = small(2) == 0 ? wire::REQUEST : 0;
    bytes_t body(small(40), 0x55);
    for (uint32_t num = small(31) == 0 ? small(600) : 1; num > 0; num--)
        receive(from, flag, body, small(9));
}

static void step_management()
{
    peer_t from = pick_peer();
    uint16_t type = (uint16_t)small(11);
    bytes_t value = s_input->ConsumeBytes<uint8_t>(small(24));
    uint8_t request = small(1) == 0 ? wire::REQUEST : 0;
    receive(from, (uint8_t)(wire::MNG | request), wire::tlv(type, value), small(9));
}

static void step_acknowledge_messages()
{
    peer_t from = pick_peer();
    uint32_t num = small(3) == 0 ? s_input->ConsumeIntegral<uint32_t>() : 512;
    receive(from, wire::MNG, wire::tlv(0, wire::words({num})));
}

// An answer to a request that the library sent, or to none.
static void step_answer()
{
    peer_t from = pick_peer();
    uint32_t seq = small(9);
    for (const world::sent_t &sent : world::sent()) {
        wire::header_t header = wire::header_of(sent.bytes);
        if (header.flag != wire::REQUEST || small(2) == 0)
            continue;
        from = {header.src_app, header.dst_app, header.dst_node};
        seq = header.seq;
        break;
    }
    receive(from, wire::REQUEST | wire::ACK, bytes_t(small(12), 1), seq);
}

static void step_return()
{
    std::vector<world::sent_t> &sent = world::sent();
    if (sent.empty())
        return;
    size_t at = small((uint32_t)sent.size() - 1);
    bytes_t bytes = sent[at].bytes;
    bytes.resize(bytes.size() > 1024 ? 1024 : bytes.size());
    struct cmsghdr head;
    memset(&head, 0, sizeof(head));
    head.cmsg_level = SOL_TIPC;
    bytes_t control(CMSG_SPACE(8) + CMSG_SPACE(bytes.size()));
    head.cmsg_len = CMSG_LEN(8);
    head.cmsg_type = TIPC_ERRINFO;
    memcpy(control.data(), &head, sizeof(head));
    control[CMSG_LEN(0)] = (uint8_t)(small(4) + 1);
    head.cmsg_len = CMSG_LEN(bytes.size());
    head.cmsg_type = TIPC_RETDATA;
    memcpy(control.data() + CMSG_SPACE(8), &head, sizeof(head));
    memcpy(control.data() + CMSG_SPACE(8) + CMSG_LEN(0), bytes.data(), bytes.size());
    uint32_t app = sent[at].app;
    sent.erase(sent.begin() + (long)at);
    world::receive_anc(app, control.data(), control.size());
}

static uint32_t pick_destination()
{
    return small(5) == 0 ? 12288 + small(3) : pick(PEERS);
}

static uint32_t pick_destination_node()
{
    static const uint32_t special[] = {ZEB_NODE_ALL, 0x80000, 0x80001, 65536, 0xFFFFFFFE};
    return small(1) == 0 ? pick(NODES) : pick(special);
}

// A call that has failed says why.
static void require_reason()
{
    if (zeb_last_error()[0] != '\0')
        return;
    fprintf(stderr, "a failed call does not say why\n");
    abort();
}

static void step_send()
{
    zeb_msg_t *msg = zeb_msg_alloc((int)small(64), 1, 0);
    uint32_t app = pick(LOCALS);
    int flags = (int)small(3) | ZEB_SEND_NOWAIT; // a blocked sender would wait for ever
    uint32_t num = small(15) == 0 ? small(1200) : 1;
    uint32_t destination = pick_destination();
    uint32_t node = pick_destination_node();
    bool all = small(1) == 0;
    for (; num > 0; num--) {
        int ret = all ? zeb_send(app, destination, msg, flags) : zeb_sendto(app, node, destination, msg, flags);
        if (ret >= 0)
            continue;
        require_reason();
        break;
    }
    free(msg);
}

static bool step();

static void step_call()
{
    if (s_depth > 1)
        return;
    s_depth++;
    s_one_way = false;
    zeb_msg_t *msg = zeb_msg_alloc((int)small(16), 1, 0);
    zeb_reply_msg_t reply;
    int left = (int)small(6);
    auto before = world::g_while_waiting;
    world::g_while_waiting = [&] { return left-- > 0 && step(); };
    uint32_t app = pick(LOCALS);
    int ret = small(1) == 0
                  ? zeb_rpc(app, pick_destination(), msg, (int)small(3), 1, &reply)
                  : zeb_rpcto(app, pick_destination_node(), pick_destination(), msg, (int)small(3), 1, &reply);
    world::g_while_waiting = before;
    if (ret != 0)
        require_reason();
    if (ret != 0 && reply.num != 0) {
        fprintf(stderr, "a failed call leaves answers\n");
        abort();
    }
    for (int i = 0; i < reply.num; i++)
        free(reply.msg[i]);
    free(msg);
    s_depth--;
}

static void step_group()
{
    uint32_t app = pick(LOCALS);
    uint32_t apps = 12288 + small(3);
    uint32_t nodes = 0x80000 + small(3);
    switch (small(7)) {
    case 0:
        (void)zeb_create_app_mcast(app);
        break;
    case 1:
        (void)zeb_create_node_mcast(app);
        break;
    case 2:
        (void)zeb_add_app_mcast(app, apps, pick(PEERS));
        break;
    case 3:
        (void)zeb_add_node_mcast(app, nodes, pick(NODES));
        break;
    case 4:
        zeb_del_app_mcast(app, apps, pick(PEERS));
        break;
    case 5:
        zeb_del_node_mcast(app, nodes, pick(NODES));
        break;
    case 6:
        zeb_destroy_app_mcast(app, apps);
        break;
    default:
        zeb_destroy_node_mcast(app, nodes);
    }
}

static void step_fault()
{
    static const int errors[] = {EINTR, ENOBUFS, ENOMEM, EHOSTUNREACH, EPIPE, EAGAIN};
    world::fail_sends((int)small(4), pick(errors));
}

static void step_topology_loss()
{
    world::lose_topology();
}

static void step_raw()
{
    bytes_t bytes = s_input->ConsumeBytes<uint8_t>(small(90));
    world::receive(pick(LOCALS), bytes.data(), bytes.size());
}

// The calls of zeb_ext.h.

static std::vector<uint32_t> s_calls; // numbers of calls that zeb_rpc_async took

static uint32_t pick_caller()
{
    static const uint32_t callers[] = {world::SERVER, world::CLIENT, world::POLLED};
    return pick(callers);
}

static uint32_t pick_call()
{
    return s_calls.empty() || small(7) == 0 ? small(9) : s_calls[small((uint32_t)s_calls.size() - 1)];
}

static void take_outcomes(uint32_t, zeb_reply_msg_t *replies, void *)
{
    for (int i = 0; i < replies->num; i++) {
        if (replies->msg[i] == nullptr)
            abort();
    }
}

static void step_call_async()
{
    zeb_msg_t *msg = zeb_msg_alloc((int)small(16), 1, 0);
    uint32_t app = pick_caller();
    uint32_t node = pick_destination_node();
    uint32_t destination = pick_destination();
    int flags = (int)small(3);
    uint32_t number = 0;
    s_one_way = false;
    int ret = zeb_rpc_async(app, node, destination, msg, flags, small(1) * 3600000, take_outcomes, nullptr, &number);
    zeb_msg_free(msg);
    if (ret == 0)
        s_calls.push_back(number);
    else
        require_reason();
}

static void step_cancel()
{
    uint32_t app = pick_caller();
    (void)zeb_rpc_cancel(app, pick_call());
}

// The limit of a call is over, if it has one.
static void step_time_out()
{
    zeb_app_mng_t *slot = zeb_get_app_mng(pick_caller());
    zeb_rpc_time_out(slot->rpc, pick_call());
}

static void step_serve_calls()
{
    zeb_rpc_async_run_ready();
}

static void step_dispatch()
{
    (void)zeb_dispatch(world::POLLED, (int)small(3));
    if (zeb_app_fd(world::POLLED) < 0)
        abort();
}

static void step_ask()
{
    zeb_peer_state_t state;
    uint32_t nodes[3];
    uint32_t peer = pick(PEERS);
    uint32_t node = pick(NODES);
    if (zeb_peer_state(world::POLLED, peer, node, &state) != 0 || state.phase >= ZEB_PEER_PHASE_NUM)
        abort();
    int num = zeb_online_nodes(world::POLLED, peer, nodes, 3);
    if (num < 0 || (state.server != 0 && num == 0))
        abort();
    if (zeb_wait_online(world::POLLED, peer, node, 1, 1) != -EDEADLK) // this is the receive thread too
        abort();
}

static void step_name()
{
    (void)zeb_comm_with(world::POLLED, pick(PEERS));
}

static void step_join_polled()
{
    uint32_t peer = pick(PEERS);
    (void)zeb_comm_with(world::POLLED, peer);
    join({world::POLLED, peer, pick(NODES)});
}

static void step_look()
{
    zeb_handshake_look();
    zeb_handshake_minute();
}

static void step_stop()
{
    if (s_depth != 0 || small(7) != 0) // not inside a call: it would be waited for
        return;
    world::stop_and_start();
    s_calls.clear();
}

static void (*const s_ext_steps[])() = {
    step_call_async, step_call_async, step_cancel, step_time_out,    step_serve_calls, step_dispatch,
    step_dispatch,   step_ask,        step_name,   step_join_polled, step_look,        step_stop,
};

// The steps above hang on a rare one, so that the inputs that are kept mean what they meant.
static void step_proxy_or_ext()
{
    world::run_proxy();
    if (small(1) == 0)
        pick(s_ext_steps)();
}

static void (*const s_steps[])() = {
    step_synchronise,
    step_acknowledge,
    step_topology_event,
    step_timer,
    step_message,
    step_management,
    step_acknowledge_messages,
    step_answer,
    step_return,
    step_send,
    step_call,
    step_group,
    step_fault,
    step_topology_loss,
    step_raw,
    step_join,
    step_join,
    step_proxy_or_ext,
};

// With one-way traffic alone no pair passes its window.
static void check_windows()
{
    zeb_each_app_mng([](const zeb_app_mng_t *slot) {
        indexed_list_each(&slot->fc->send_list, [](const zeb_send_app_fc_t *record) {
            if (record->unack <= ZEB_FC_SEND_WINDOW + 1)
                return;
            fprintf(stderr, "%d messages unacknowledged\n", record->unack);
            abort();
        });
    });
}

// False when the input is used up.
static bool step()
{
    if (s_input->remaining_bytes() == 0)
        return false;
    pick(s_steps)();
    world::check();
    if (s_one_way)
        check_windows();
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    s_input = &input;
    s_one_way = true;
    s_depth = 0;
    s_calls.clear();
    world::reset();
    zeb_store_relaxed(&g_zeb_dbg_level, small(31) == 0 ? 15u : 0u);
    for (int steps = 0; steps < 32 && step(); steps++) {
        if (steps == 4)
            zeb_store_relaxed(&g_zeb_dbg_level, 0u); // log lines cost more than the steps
    }
    world::run_proxy();
    world::check();
    return 0;
}
