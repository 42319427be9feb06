// The way of a message between sockets, and the state of connections.
#include "sim_deliver.h"
#include "sim_sys.h"
#include "sim_tap.h"

#include <cerrno>
#include <cstring>
#include <linux/tipc.h>
#include <sys/socket.h>

constexpr uint32_t ACK_RATE = 4;      // a window is acknowledged in as many parts
constexpr uint32_t RETURN_COST = 128; // bytes charged for a returned message, beside its data

size_t sim_gather(void *to, size_t size, const struct iovec *parts, size_t num, size_t from)
{
    size_t at = 0;
    for (size_t i = 0; i < num && at < size; i++) {
        size_t skip = from < parts[i].iov_len ? from : parts[i].iov_len;
        size_t len = parts[i].iov_len - skip < size - at ? parts[i].iov_len - skip : size - at;
        sim_copy((uint8_t *)to + at, (const uint8_t *)parts[i].iov_base + skip, len);
        from -= skip;
        at += len;
    }
    return at;
}

sim_block_t *sim_message(const sim_self_t *self, const sim_record_t *record, const struct iovec *data, size_t num)
{
    sim_block_t *block = sim_block_take(self, record->len);
    if (block == nullptr)
        return nullptr;
    block->record = *record;
    (void)sim_gather(block->data, record->len, data, num, 0);
    return block;
}

// The other side of a connection has ended it. False when the message is not from the peer.
static bool peer_ended(sim_socket_t *socket, const sim_record_t *record)
{
    uint64_t conn = sim_load(&socket->conn);
    return sim_conn_of(conn) == SIM_CONN_ESTABLISHED && (uint32_t)conn == record->src_port &&
           sim_swap(&socket->conn, conn, sim_conn_ended(conn));
}

// The request for a connection came back.
static bool connect_refused(sim_socket_t *socket, const sim_record_t *record)
{
    uint64_t connecting = sim_conn(SIM_CONN_CONNECTING, record->dst_port);
    if (sim_load(&socket->conn) != connecting)
        return false;
    sim_store(&socket->err, (uint32_t)ECONNREFUSED);
    return sim_swap(&socket->conn, connecting, sim_conn(SIM_CONN_DISCONNECTING, 0));
}

static bool connected(const sim_self_t *self, sim_socket_t *socket, const sim_record_t *record)
{
    uint64_t connecting = sim_conn(SIM_CONN_CONNECTING, record->dst_port);
    uint64_t established = sim_conn(SIM_CONN_ESTABLISHED, record->src_port, record->src_index);
    if (!sim_swap(&socket->conn, connecting, established))
        return false;
    sim_socket_notify(self, socket);
    return true;
}

enum verdict_e { QUEUE, DONE, REFUSE };

// What a socket for connections does with a message.
static verdict_e filter(const sim_self_t *self, sim_socket_t *socket, const sim_record_t *record)
{
    switch (sim_conn_state(socket)) {
    case SIM_CONN_LISTEN:
        return record->kind == SIM_SYN && record->err == TIPC_OK ? QUEUE : REFUSE;
    case SIM_CONN_CONNECTING:
        if (record->kind == SIM_ACK)
            return connected(self, socket, record) ? DONE : REFUSE;
        // The end comes first when the other was killed before it could answer.
        return record->err != TIPC_OK && connect_refused(socket, record) ? QUEUE : REFUSE;
    case SIM_CONN_ESTABLISHED:
        if (record->src_port != sim_conn_peer(socket))
            return REFUSE;
        if (record->err == TIPC_OK)
            return record->kind == SIM_CONN_DATA ? QUEUE : REFUSE;
        return peer_ended(socket, record) ? QUEUE : REFUSE;
    default:
        return REFUSE;
    }
}

static uint64_t limit_of(const sim_socket_t *socket, const sim_record_t *record)
{
    if (record->kind >= SIM_SYN && record->err != TIPC_OK)
        return UINT64_MAX; // the end of a connection is never lost
    if (record->kind == SIM_CONN_DATA)
        return socket->rcvbuf;
    return (uint64_t)socket->rcvbuf << (record->importance & TIPC_CRITICAL_IMPORTANCE);
}

static uint32_t pass(const sim_self_t *self, sim_block_t *block)
{
    sim_state_t *state = self->cluster->state;
    sim_record_t *record = &block->record;
    sim_socket_t *socket = sim_socket_of(state, record->dst_port);
    uint32_t err = TIPC_ERR_NO_PORT;
    record->charge = record->err != TIPC_OK ? record->len + RETURN_COST : sim_queue_charge(record->len);
    verdict_e verdict = REFUSE;
    // A socket of the broker is on every node.
    if (socket != nullptr && (socket->node == record->dst_index || socket->served != 0)) {
        if (!sim_connectionless(socket))
            verdict = filter(self, socket, record);
        else
            verdict = record->kind <= SIM_SYN ? QUEUE : DONE; // a request for a connection is a message like others
    }
    if (verdict == QUEUE)
        err = sim_queue_put(self, socket, block, limit_of(socket, record));
    if (verdict == DONE || err != TIPC_OK || verdict == REFUSE)
        sim_block_free(state, block);
    return verdict == DONE ? (uint32_t)TIPC_OK : err;
}

uint32_t sim_deliver_now(const sim_self_t *self, sim_block_t *block)
{
    sim_block_t *copy = sim_tap_copy(self, &block->record, block->data);
    uint32_t err = pass(self, block);
    sim_tap_put(self, copy, err == TIPC_OK ? SIM_FATE_TAKEN : SIM_FATE_REFUSED, err);
    return err;
}

uint32_t sim_deliver(const sim_self_t *self, sim_block_t *block)
{
    sim_state_t *state = self->cluster->state;
    uint32_t from = block->record.src_index;
    uint32_t to = block->record.dst_index;
    sim_impaired_t how;
    if (block->record.dst_port == sim_load(&state->topology))
        return sim_deliver_now(self, block);
    bool cut = !sim_linked(state->cut, from, to);
    if (!sim_linked(state->down, from, to)) { // in both directions, also when only one of them is cut
        sim_tap_lost(self, &block->record, block->data, SIM_FATE_CUT);
        sim_block_free(state, block);
        return TIPC_OK; // on the wire, and lost with the link
    }
    if (!cut && (sim_load(&state->impaired_num) == 0 || !sim_impaired(state, from, to, &how)))
        return sim_deliver_now(self, block);
    sim_socket_t *wire = sim_socket_of(state, sim_load(&state->wire));
    block->record.charge = 0;
    uint32_t err = wire == nullptr ? (uint32_t)TIPC_ERR_NO_PORT : sim_queue_put(self, wire, block, UINT64_MAX);
    return err == TIPC_OK ? (uint32_t)TIPC_OK : sim_deliver_now(self, block);
}

void sim_return(const sim_self_t *self, const sim_record_t *record, const uint8_t *data, uint32_t err)
{
    if (record->err != TIPC_OK || record->droppable != 0)
        return;
    sim_record_t answer = *record;
    answer.len = data == nullptr ? 0 : record->len < SIM_MAX_RETURNED ? record->len : SIM_MAX_RETURNED;
    answer.err = err;
    answer.src_port = record->dst_port;
    answer.src_index = record->dst_index;
    answer.src_node = sim_node_address(self->cluster->state, record->dst_index);
    answer.dst_port = record->src_port;
    answer.dst_index = record->src_index;
    answer.droppable = 1;
    answer.importance = TIPC_CRITICAL_IMPORTANCE; // the limit up to which the kernel admits returned messages
    struct iovec part = {const_cast<uint8_t *>(data), answer.len};
    sim_block_t *block = sim_message(self, &answer, &part, 1);
    if (block != nullptr)
        (void)sim_deliver(self, block);
}

// A message of a connection, without data: from the socket to its peer, or the other way.
static sim_record_t between(const sim_state_t *state, const sim_socket_t *socket, bool to_peer, uint32_t kind,
                            uint32_t err)
{
    sim_record_t record = {};
    record.kind = kind;
    record.src_port = to_peer ? socket->port : sim_conn_peer(socket);
    record.src_index = to_peer ? socket->node : sim_conn_node(socket);
    record.src_node = sim_node_address(state, record.src_index);
    record.dst_port = to_peer ? sim_conn_peer(socket) : socket->port;
    record.dst_index = to_peer ? sim_conn_node(socket) : socket->node;
    record.err = err;
    record.importance = TIPC_CRITICAL_IMPORTANCE;
    return record;
}

static void tell_peer(const sim_self_t *self, const sim_socket_t *socket, uint32_t kind, uint32_t err)
{
    sim_record_t record = between(self->cluster->state, socket, true, kind, err);
    sim_block_t *block = sim_message(self, &record, nullptr, 0);
    uint32_t refused = block != nullptr ? sim_deliver(self, block) : (uint32_t)TIPC_OK;
    if (refused != TIPC_OK && err == TIPC_OK)
        sim_return(self, &record, nullptr, refused);
}

static void take_over(const sim_self_t *self, sim_socket_t *fresh, const sim_block_t *syn)
{
    sim_record_t record = syn->record;
    struct iovec part = {const_cast<uint8_t *>(syn->data), record.len};
    record.kind = SIM_CONN_DATA;
    record.dst_port = fresh->port;
    sim_block_t *block = sim_message(self, &record, &part, 1);
    if (block != nullptr)
        (void)pass(self, block); // the recorder has had it with the SYN
}

bool sim_accept(const sim_self_t *self, sim_socket_t *listener, sim_socket_t *fresh)
{
    sim_state_t *state = self->cluster->state;
    for (;;) {
        sim_link_t at;
        sim_block_t *syn = sim_queue_first(state, listener, &at);
        if (syn == nullptr)
            return false;
        if (!sim_queue_pop(state, listener, at, syn))
            continue;
        const sim_record_t *record = &syn->record;
        fresh->importance = record->importance;
        fresh->conn_named = record->named;
        fresh->conn_type = record->type;
        fresh->conn_lower = record->lower;
        sim_store(&fresh->conn, sim_conn(SIM_CONN_ESTABLISHED, record->src_port, record->src_index));
        if (record->len != 0)
            take_over(self, fresh, syn);
        sim_block_release(state, syn);
        tell_peer(self, fresh, SIM_ACK, TIPC_OK);
        return true;
    }
}

void sim_count_sent(sim_socket_t *socket, int32_t blocks)
{
    uint64_t flow = sim_load(&socket->flow);
    while (!sim_swap(&socket->flow, flow,
                     sim_flow(socket->port, sim_flow_window(flow), sim_flow_unacked(flow) + (uint32_t)blocks)))
        flow = sim_load(&socket->flow);
}

void sim_set_window(sim_socket_t *socket, uint32_t window)
{
    uint64_t flow = sim_load(&socket->flow);
    while (!sim_swap(&socket->flow, flow, sim_flow(socket->port, window, sim_flow_unacked(flow))))
        flow = sim_load(&socket->flow);
}

void sim_acknowledge(const sim_self_t *self, sim_socket_t *socket, uint32_t bytes)
{
    uint32_t unacked = sim_add(&socket->rcv_unacked, sim_flow_blocks(bytes)) + sim_flow_blocks(bytes);
    if (unacked < socket->rcv_window / ACK_RATE || !sim_swap(&socket->rcv_unacked, unacked, 0U))
        return;
    uint32_t port = sim_conn_peer(socket);
    sim_socket_t *peer = sim_socket_of(self->cluster->state, port);
    if (peer == nullptr || sim_conn_peer(peer) != socket->port)
        return;
    uint32_t window = socket->rcvbuf / SIM_WINDOW_UNIT;
    sim_store(&socket->rcv_window, window); // every acknowledgement tells the whole window
    uint64_t flow = 0;
    uint64_t less = 0;
    do {
        flow = sim_load(&peer->flow);
        less = sim_flow(port, window, sim_flow_unacked(flow) - unacked);
        if (!sim_flow_same(flow, less))
            return; // of the next socket in the slot
    } while (!sim_swap(&peer->flow, flow, less));
    if (sim_flow_full(flow))
        sim_socket_notify(self, peer);
}

static bool read_in_part(const sim_socket_t *socket, sim_link_t at)
{
    uint64_t read = sim_load(&socket->read_at);
    return (uint32_t)read != 0 && (uint32_t)(read >> 32) == sim_link_count(at);
}

// Takes all messages out of a socket's queue, of which one that was read in part is lost. The first, or with `all` each
// of them, goes back with `err`. True when there was one.
static bool give_back(const sim_self_t *self, sim_socket_t *socket, uint32_t err, bool first, bool all)
{
    sim_state_t *state = self->cluster->state;
    bool any = false;
    for (uint32_t limit = sim_block_num(state);; limit--) {
        sim_link_t at;
        sim_block_t *block = limit != 0 ? sim_queue_first(state, socket, &at) : nullptr;
        if (block == nullptr)
            return any;
        if (!sim_queue_pop(state, socket, at, block))
            continue;
        if (read_in_part(socket, at)) {
            sim_block_release(state, block);
            continue;
        }
        if (all || (first && !any))
            sim_return(self, &block->record, block->data, err);
        any = true;
        sim_block_release(state, block);
    }
}

void sim_disconnect(const sim_self_t *self, sim_socket_t *socket, uint32_t err)
{
    if (sim_connectionless(socket)) {
        (void)give_back(self, socket, err, true, true);
        return;
    }
    uint64_t conn = sim_load(&socket->conn);
    uint32_t state = sim_conn_of(conn);
    if (state == SIM_CONN_LISTEN) {
        (void)give_back(self, socket, err, true, true);
        return;
    }
    if (state == SIM_CONN_CONNECTING && !sim_swap(&socket->conn, conn, sim_conn_ended(conn)))
        return sim_disconnect(self, socket, err); // it has changed this moment
    bool told = give_back(self, socket, err, state == SIM_CONN_ESTABLISHED, false);
    if (state == SIM_CONN_ESTABLISHED && !told)
        tell_peer(self, socket, SIM_CONN_DATA, err);
    // After the peer knows: when we are killed before that, the broker tells it.
    if (state == SIM_CONN_ESTABLISHED && !sim_swap(&socket->conn, conn, sim_conn_ended(conn)))
        return sim_disconnect(self, socket, err);
    sim_socket_notify(self, socket);
}

void sim_abort(const sim_self_t *self, sim_socket_t *socket, uint32_t err)
{
    if (sim_conn_state(socket) != SIM_CONN_ESTABLISHED || sim_conn_node(socket) >= SIM_MAX_NODES)
        return; // who waits for an answer goes on waiting
    sim_record_t record = between(self->cluster->state, socket, false, SIM_CONN_DATA, err);
    sim_block_t *block = sim_message(self, &record, nullptr, 0);
    if (block != nullptr)
        (void)sim_deliver_now(self, block);
}

// The slot is ours to close. Every step may have been done already, by a process that was killed after it.
static void close_slot(const sim_self_t *self, sim_socket_t *socket, bool all_gone)
{
    sim_state_t *state = self->cluster->state;
    sim_queue_close(state, socket);
    (void)give_back(self, socket, TIPC_ERR_NO_PORT, true, true);
    sim_link_t head = sim_load(&socket->head);
    sim_link_t tail = sim_load(&socket->tail);
    sim_store(&socket->tail, sim_link(sim_link_count(tail) + 1, SIM_NONE));
    sim_store(&socket->head, sim_link(sim_link_count(head) + 1, SIM_NONE));
    // Also before the others are reclaimed: its sender may not have given it to the queue yet.
    if (sim_link_number(head) != SIM_NONE)
        sim_block_release(state, sim_block_of(state, sim_link_number(head)));
    if (all_gone)
        sim_blocks_reclaim(state, sim_owner_queue(sim_socket_index(state, socket)));
    sim_store(&socket->use, (uint32_t)SIM_SLOT_FREE);
}

void sim_socket_close(const sim_self_t *self, sim_socket_t *socket, bool all_gone)
{
    uint32_t before = sim_load(&socket->use);
    if (before != SIM_SLOT_OPEN && before != sim_use(SIM_SLOT_TAKEN, self->owner))
        return; // another process closes it
    if (!sim_swap(&socket->use, before, sim_use(SIM_SLOT_CLOSING, self->owner)))
        return;
    if (before == SIM_SLOT_OPEN)
        sim_disconnect(self, socket, TIPC_ERR_NO_PORT);
    close_slot(self, socket, all_gone);
}

void sim_socket_inherit(const sim_self_t *self, sim_socket_t *socket, uint32_t owner)
{
    uint32_t before = sim_load(&socket->use);
    if (sim_use_owner(before) != owner || !sim_swap(&socket->use, before, sim_use(SIM_SLOT_CLOSING, self->owner)))
        return;
    if (before == sim_use(SIM_SLOT_CLOSING, owner))
        sim_disconnect(self, socket, TIPC_ERR_NO_PORT);
    close_slot(self, socket, true);
}
