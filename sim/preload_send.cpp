// Sends: where a message goes, what refuses it, and how long a send waits.
#include "preload.h"

#include <cstring>
#include <pthread.h>

constexpr uint32_t SMALL = 1400;       // bytes of a write that asks for an acknowledgement of its own
constexpr int64_t CONGESTED_LOOK = 50; // ms between looks at a congested link

typedef struct outgoing_s {
    const sim_self_t *self;
    sim_socket_t *socket;
    const struct msghdr *msg;
    size_t len;
    int fd;
    int flags;
    int64_t until; // ms
} outgoing_t;

static bool blocks(const outgoing_t *out)
{
    return preload_blocks(out->fd, out->flags);
}

// The address of a message in memory of ours. 0 or an errno; `addr->family` is 0 when there is none.
static int take_destination(const struct msghdr *msg, struct sockaddr_tipc *addr)
{
    memset(addr, 0, sizeof(*addr));
    if (msg->msg_name == nullptr)
        return 0;
    if (msg->msg_namelen > PRELOAD_MAX_ADDRESS)
        return EINVAL;
    if (!preload_readable(msg->msg_name, msg->msg_namelen < sizeof(*addr) ? msg->msg_namelen : sizeof(*addr)))
        return EFAULT;
    if (msg->msg_namelen < sizeof(*addr))
        return EINVAL;
    memcpy(addr, msg->msg_name, sizeof(*addr));
    if (addr->family != AF_TIPC || addr->addrtype < TIPC_SERVICE_RANGE || addr->addrtype > TIPC_SOCKET_ADDR)
        return EINVAL;
    if (addr->addrtype == TIPC_SERVICE_RANGE && addr->addr.nameseq.lower > addr->addr.nameseq.upper)
        return EINVAL;
    return 0;
}

// The length of all parts. 0 or an errno.
static int measure(const struct msghdr *msg, size_t *len)
{
    *len = 0;
    if (msg->msg_iovlen > PRELOAD_MAX_PARTS)
        return EMSGSIZE;
    if (!preload_readable(msg->msg_iov, msg->msg_iovlen * sizeof(*msg->msg_iov)))
        return EFAULT;
    for (size_t i = 0; i < msg->msg_iovlen; i++) {
        *len += msg->msg_iov[i].iov_len;
        if (msg->msg_iov[i].iov_len <= SIM_MAX_DATA &&
            !preload_readable(msg->msg_iov[i].iov_base, msg->msg_iov[i].iov_len))
            return EFAULT;
    }
    return 0;
}

static sim_record_t record_of(const outgoing_t *out, uint32_t kind)
{
    const sim_socket_t *socket = out->socket;
    sim_record_t record = {};
    record.len = (uint32_t)out->len;
    record.kind = kind;
    record.src_port = socket->port;
    record.src_index = socket->node;
    record.src_node = sim_node_address(preload_state(out->self), socket->node);
    record.importance = socket->importance;
    record.droppable = socket->dest_droppable;
    return record;
}

static void name_record(sim_record_t *record, const struct sockaddr_tipc *addr)
{
    record->named = addr->addrtype == TIPC_SOCKET_ADDR ? 0U : (uint32_t)addr->addrtype;
    record->type = addr->addr.nameseq.type;
    record->lower = addr->addr.nameseq.lower;
    record->upper = addr->addrtype == TIPC_SERVICE_RANGE ? addr->addr.nameseq.upper : addr->addr.nameseq.lower;
}

// Returns a message of this call to its sender.
static void refuse(const outgoing_t *out, const sim_record_t *record, uint32_t err)
{
    uint8_t start[SIM_MAX_RETURNED];
    (void)sim_gather(start, sizeof(start), out->msg->msg_iov, out->msg->msg_iovlen, 0);
    sim_return(out->self, record, start, err);
}

// One copy of the message. TIPC_OK, the error with which it was refused, or UINT32_MAX without memory.
static uint32_t deliver(const outgoing_t *out, const sim_record_t *record)
{
    sim_block_t *block = sim_message(out->self, record, out->msg->msg_iov, out->msg->msg_iovlen);
    if (block != nullptr)
        return sim_deliver(out->self, block);
    preload_complain("no memory left for a message in %s", out->self->cluster->dir);
    return UINT32_MAX;
}

// Waits while the link to a node takes no messages. 0 or an errno.
static int wait_for_link(const outgoing_t *out, uint32_t node)
{
    sim_state_t *state = preload_state(out->self);
    sim_impaired_t how;
    while (sim_load(&state->impaired_num) != 0 && sim_impaired(state, out->socket->node, node, &how) &&
           how.congest != 0) {
        if (!blocks(out) || sys_now() >= out->until)
            return EAGAIN;
        int64_t look = sys_now() + preload_look(CONGESTED_LOOK);
        int err =
            preload_wait_change(out->socket, sim_load(&out->socket->change), look < out->until ? look : out->until);
        if (err == EINTR)
            return EINTR;
    }
    return 0;
}

// The topology service is the broker's, on every node.
static bool is_topology(const struct sockaddr_tipc *addr)
{
    return addr->addrtype == TIPC_SERVICE_ADDR && addr->addr.name.name.type == TIPC_TOP_SRV &&
           addr->addr.name.name.instance == TIPC_TOP_SRV;
}

// The topology service takes no datagrams. A name that the sender's node does not know fails at once, except when it is
// looked for on another node: that node returns the message.
static ssize_t send_to_nobody(const outgoing_t *out, const struct sockaddr_tipc *addr, sim_record_t *record)
{
    const sim_state_t *state = preload_state(out->self);
    if (is_topology(addr))
        return record->len;
    uint32_t domain = addr->addr.name.domain;
    uint32_t node = domain != 0 ? sim_node_find(state, domain) : SIM_ANY_NODE;
    if (node == SIM_ANY_NODE || node == out->socket->node || !sim_linked(state->down, out->socket->node, node))
        return preload_fail(EHOSTUNREACH);
    record->dst_port = SIM_NONE;
    record->dst_index = node;
    refuse(out, record, TIPC_ERR_NO_NAME);
    return record->len;
}

static ssize_t send_by_name(const outgoing_t *out, const struct sockaddr_tipc *addr, sim_record_t *record)
{
    sim_state_t *state = preload_state(out->self);
    sim_target_t target = {};
    for (int tries = 0;; tries++) {
        if (!sim_name_lookup(state, record->type, record->lower, out->socket->node, addr->addr.name.domain, &target))
            return send_to_nobody(out, addr, record);
        int err = wait_for_link(out, target.node);
        if (err != 0)
            return preload_fail(err);
        record->dst_port = target.port;
        record->dst_index = target.node;
        uint32_t refused = deliver(out, record);
        if (refused == UINT32_MAX)
            return preload_fail(ENOMEM);
        if (refused == TIPC_OK)
            return record->len;
        if (refused == TIPC_ERR_NO_PORT && tries == 0 && sim_socket_of(state, target.port) == nullptr)
            continue; // closed this moment; another socket may have the same name
        refuse(out, record, refused == TIPC_ERR_NO_PORT && tries != 0 ? (uint32_t)TIPC_ERR_NO_NAME : refused);
        return record->len;
    }
}

static ssize_t send_by_port(const outgoing_t *out, const struct sockaddr_tipc *addr, sim_record_t *record)
{
    const sim_state_t *state = preload_state(out->self);
    uint32_t node = addr->addr.id.node == 0 ? out->socket->node : sim_node_find(state, addr->addr.id.node);
    if (node == SIM_ANY_NODE || !sim_linked(state->down, out->socket->node, node))
        return preload_fail(EHOSTUNREACH);
    int err = wait_for_link(out, node);
    if (err != 0)
        return preload_fail(err);
    record->dst_port = addr->addr.id.ref;
    record->dst_index = node;
    uint32_t refused = deliver(out, record);
    if (refused == UINT32_MAX)
        return preload_fail(ENOMEM);
    if (refused != TIPC_OK)
        refuse(out, record, refused);
    return record->len;
}

typedef struct multicast_s {
    const outgoing_t *out;
    sim_record_t *record;
} multicast_t;

static void send_copy(void *arg, const sim_target_t *target)
{
    const multicast_t *multicast = (const multicast_t *)arg;
    multicast->record->dst_port = target->port;
    multicast->record->dst_index = target->node;
    uint32_t refused = deliver(multicast->out, multicast->record);
    if (refused != TIPC_OK && refused != UINT32_MAX)
        refuse(multicast->out, multicast->record, refused);
}

static ssize_t send_to_range(const outgoing_t *out, sim_record_t *record)
{
    multicast_t multicast = {out, record};
    record->kind = SIM_MCAST;
    uint32_t num = sim_name_each(preload_state(out->self), record->type, record->lower, record->upper,
                                 out->socket->node, 0, send_copy, &multicast);
    return num != 0 ? (ssize_t)record->len : preload_fail(EHOSTUNREACH);
}

static ssize_t route(const outgoing_t *out, const struct sockaddr_tipc *addr, sim_record_t *record)
{
    name_record(record, addr);
    if (addr->addrtype == TIPC_SERVICE_RANGE)
        return send_to_range(out, record);
    return addr->addrtype == TIPC_SERVICE_ADDR ? send_by_name(out, addr, record) : send_by_port(out, addr, record);
}

// Takes a fault ordered with `tipcsim fail`, if there is one for this process: the send fails with an errno, reports
// fewer bytes, or its message is returned at once.
static bool faulted(const outgoing_t *out, const struct sockaddr_tipc *addr, ssize_t *result)
{
    uint32_t value = 0;
    if (sim_load(&preload_state(out->self)->fault_num) == 0)
        return false;
    if (preload_take_fault(out->self, SIM_FAULT_ERRNO, &value)) {
        *result = preload_fail((int)value);
        return true;
    }
    if (preload_take_fault(out->self, SIM_FAULT_SHORT, &value)) {
        *result = value < out->len ? (ssize_t)value : (ssize_t)out->len;
        return true;
    }
    if (!preload_take_fault(out->self, SIM_FAULT_RETURN, &value))
        return false;
    sim_record_t record = record_of(out, SIM_DATA);
    name_record(&record, addr);
    record.dst_port = out->socket->port;
    record.dst_index = out->socket->node;
    refuse(out, &record, value);
    *result = (ssize_t)out->len;
    return true;
}

static ssize_t send_datagram(const outgoing_t *out, struct sockaddr_tipc *addr)
{
    ssize_t result = 0;
    if (out->len > SIM_MAX_DATA)
        return preload_fail(EMSGSIZE);
    if (addr->family == 0)
        memcpy(addr, out->socket->dest, sizeof(*addr));
    if (addr->family == 0)
        return preload_fail(EDESTADDRREQ);
    if (faulted(out, addr, &result))
        return result;
    sim_record_t record = record_of(out, SIM_DATA);
    return route(out, addr, &record);
}

static ssize_t send_to_topology(const outgoing_t *out, sim_record_t *record, const struct sockaddr_tipc *addr)
{
    name_record(record, addr);
    record->upper = addr->addr.name.domain; // another node's service may be asked
    record->dst_index = out->socket->node;
    for (int tries = 0; tries < 2; tries++) {
        record->dst_port = sim_load(&preload_state(out->self)->topology);
        sim_socket_t *service = sim_socket_of(preload_state(out->self), record->dst_port);
        if (service != nullptr) {
            record->dst_index = service->node;
            if (deliver(out, record) == TIPC_OK)
                return record->len;
        }
        if (preload_ask_broker(SIM_HELLO, (uint32_t)sys_getpid(), nullptr, 0) < 0) // starts one
            break;
    }
    return preload_fail(ECONNREFUSED);
}

// A send that begins a connection waits for the answer, and succeeds whatever that is.
static void wait_for_answer(const outgoing_t *out)
{
    sim_socket_t *socket = out->socket;
    int err = 0;
    while (err == 0) {
        uint32_t seen = sim_load(&socket->change);
        if (sim_conn_state(socket) != SIM_CONN_CONNECTING) {
            sim_store(&socket->err, 0U);
            return;
        }
        err = preload_wait_change(socket, seen, out->until);
    }
}

// The first message of a connection, from connect() or from a send with an address.
static ssize_t send_syn(const outgoing_t *out, const struct sockaddr_tipc *addr)
{
    sim_socket_t *socket = out->socket;
    uint64_t open = sim_conn(SIM_CONN_OPEN, 0);
    uint64_t connecting = sim_conn(SIM_CONN_CONNECTING, socket->port);
    if (out->len > SIM_MAX_DATA)
        return preload_fail(EMSGSIZE);
    if (sim_load(&socket->published) != 0)
        return preload_fail(EOPNOTSUPP);
    if (addr->addrtype == TIPC_SERVICE_RANGE) { // a multicast, which connects nobody
        sim_record_t copies = record_of(out, SIM_MCAST);
        return route(out, addr, &copies);
    }
    socket->conn_named = addr->addrtype == TIPC_SERVICE_ADDR ? 1 : 0;
    socket->conn_type = addr->addr.name.name.type;
    socket->conn_lower = addr->addr.name.name.instance;
    if (!sim_swap(&socket->conn, open, connecting)) // before the answer can come
        return preload_fail(EISCONN);
    auto counted = (int32_t)(out->len != 0 ? sim_flow_blocks((uint32_t)out->len) : 0); // the other acknowledges it
    sim_count_sent(socket, counted);
    sim_record_t record = record_of(out, SIM_SYN);
    ssize_t ret = is_topology(addr) ? send_to_topology(out, &record, addr) : route(out, addr, &record);
    if (ret < 0) {
        sim_count_sent(socket, -counted);
        (void)sim_swap(&socket->conn, connecting, open);
    } else if (out->len != 0 && blocks(out)) {
        wait_for_answer(out);
    }
    return ret;
}

// Waits until the connection takes a message. 0 or an errno.
static int wait_for_window(const outgoing_t *out)
{
    sim_socket_t *socket = out->socket;
    for (;;) {
        uint32_t seen = sim_load(&socket->change);
        uint32_t conn = sim_conn_state(socket);
        if (conn == SIM_CONN_DISCONNECTING)
            return EPIPE;
        if (conn != SIM_CONN_ESTABLISHED)
            return ENOTCONN;
        int err = wait_for_link(out, sim_conn_node(socket));
        if (err != 0)
            return err;
        if (!sim_flow_full(sim_load(&socket->flow)))
            return 0;
        err = blocks(out) ? preload_wait_change(socket, seen, out->until) : EAGAIN;
        if (err != 0)
            return err;
    }
}

// Part of the message, from its byte `from` on.
static sim_block_t *part_of(const outgoing_t *out, const sim_record_t *record, size_t from)
{
    sim_block_t *block = sim_block_take(out->self, record->len);
    if (block == nullptr)
        return nullptr;
    block->record = *record;
    (void)sim_gather(block->data, record->len, out->msg->msg_iov, out->msg->msg_iovlen, from);
    return block;
}

// Returns a part of the message that nobody took.
static void give_back(const outgoing_t *out, sim_record_t *record, size_t from, uint32_t err)
{
    record->len = record->len < SIM_MAX_RETURNED ? record->len : SIM_MAX_RETURNED;
    sim_block_t *block = part_of(out, record, from);
    if (block == nullptr)
        return;
    sim_return(out->self, record, block->data, err);
    sim_block_free(preload_state(out->self), block);
}

// A small write to a stream makes the receiver acknowledge, and with that tell its whole window.
static void ask_for_window(sim_state_t *state, sim_socket_t *socket)
{
    sim_socket_t *peer = sim_socket_of(state, sim_conn_peer(socket));
    if (peer == nullptr || socket->nodelay != 0)
        return;
    sim_set_window(socket, peer->rcvbuf / SIM_WINDOW_UNIT);
    sim_store(&peer->rcv_window, peer->rcvbuf / SIM_WINDOW_UNIT);
}

static int send_part(const outgoing_t *out, size_t from, size_t len)
{
    sim_socket_t *socket = out->socket;
    int err = wait_for_window(out);
    if (err != 0)
        return err;
    sim_record_t record = record_of(out, SIM_CONN_DATA);
    record.len = (uint32_t)len;
    record.dst_port = sim_conn_peer(socket);
    record.dst_index = sim_conn_node(socket);
    sim_block_t *block = part_of(out, &record, from);
    if (block == nullptr)
        return ENOMEM;
    if (socket->type == (uint32_t)SOCK_STREAM && len < SMALL)
        ask_for_window(preload_state(out->self), socket);
    sim_count_sent(socket, (int32_t)sim_flow_blocks(record.len));
    uint32_t refused = sim_deliver(out->self, block);
    if (refused != TIPC_OK)
        give_back(out, &record, from, refused); // which ends the connection
    return 0;
}

static ssize_t send_connected(const outgoing_t *out)
{
    bool stream = out->socket->type == (uint32_t)SOCK_STREAM;
    size_t sent = 0;
    if (!stream && out->len > SIM_MAX_DATA)
        return preload_fail(EMSGSIZE);
    do {
        size_t part = out->len - sent < SIM_MAX_DATA ? out->len - sent : SIM_MAX_DATA;
        int err = send_part(out, sent, part);
        if (err != 0)
            return sent != 0 ? (ssize_t)sent : preload_fail(err);
        sent += part;
    } while (sent < out->len);
    return (ssize_t)sent;
}

ssize_t preload_send(int fd, sim_socket_t *socket, const struct msghdr *msg, int flags)
{
    outgoing_t out = {preload_self(), socket, msg, 0, fd, flags, INT64_MAX};
    struct sockaddr_tipc addr;
    pthread_testcancel();
    int err = preload_readable(msg, sizeof(*msg)) ? measure(msg, &out.len) : EFAULT;
    if (err != 0)
        return preload_fail(err);
    if (socket->sndtimeo != 0)
        out.until = sys_now() + socket->sndtimeo / 1000;
    if (sim_connectionless(socket)) {
        err = take_destination(msg, &addr);
        return err != 0 ? preload_fail(err) : send_datagram(&out, &addr);
    }
    if (sim_conn_state(socket) != SIM_CONN_OPEN || msg->msg_name == nullptr)
        return send_connected(&out); // the address, if there is one, is not looked at
    err = take_destination(msg, &addr);
    return err != 0 ? preload_fail(err) : send_syn(&out, &addr);
}
