// Sockets, queues, connections and names in the simulator's shared memory. At any step of an operation another process
// may do a whole operation of its own, to three levels, or the one that is at work is killed and the broker cleans up
// after it. Beside the memory stands what has to come of it: which messages arrive, in which order, and with what in
// them; which come back; which names are found; and that no block is lost.
#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <linux/tipc.h>
#include <vector>

#include "fuzz_sim.h"
#include "sim_deliver.h"

using fuzz_sim::below;
using fuzz_sim::g_cluster;
using fuzz_sim::input_t;
using fuzz_sim::require;

constexpr uint32_t DEPTHS = 3;
constexpr uint32_t SOCKETS = 6; // of each input
constexpr uint32_t MAX_OPERATIONS = 200;
constexpr uint32_t MAX_RESTORES = 2;
constexpr uint32_t TYPE = 1000;
constexpr uint32_t NAMES = 6;
constexpr uint32_t FIRST_SLOTS = 8;
constexpr uint32_t FIRST_BLOCKS = 16;

typedef struct message_s {
    uint32_t to; // port
    uint32_t len;
    uint32_t depth; // of the process that sent it
    bool accepted;  // it has to arrive
    bool received;
    bool returned;
    bool returnable;
} message_t;

typedef struct process_s { // one at each level
    sim_self_t self;
    jmp_buf killed;
    bool more; // something else happens after the next thing
    bool kill;
} process_t;

typedef struct model_s {
    uint32_t ports[SOCKETS]; // SIM_NONE: closed
    uint32_t busy[SOCKETS];  // operations that use the socket as its own
    uint32_t last[SOCKETS][DEPTHS];
    std::vector<message_t> messages; // by id
    std::vector<uint32_t> refused;   // ports of whose connections a message found no room
    uint32_t entries[NAMES];         // of the name table, SIM_NONE: not bound
    uint32_t ids[NAMES];
    uint32_t next_id;
    bool changing_names;
    uint32_t operations;
    uint32_t receives;
    uint32_t kills;
    uint32_t restores; // of names
    bool half_open;    // a process was killed as it ended a connection for others, or sent on one
} model_t;

uint32_t g_fuzz_sim_left; // of the process at s_depth
static process_t s_processes[DEPTHS];
static uint32_t s_depth;
static input_t s_input;
static model_t s_model;
static uint8_t s_data[DEPTHS][SIM_MAX_DATA];

static void operate(uint32_t depth);

static sim_state_t *state()
{
    return g_cluster.state;
}
static const sim_self_t *self()
{
    return &s_processes[s_depth].self;
}

// When the next operation comes between. True when it does so at once.
static bool plan(process_t *process)
{
    if (!process->more)
        return false;
    uint32_t next = below(&s_input, 256);
    process->more = next >= 128;
    g_fuzz_sim_left = next % 128;
    return g_fuzz_sim_left == 0;
}

extern "C" void fuzz_sim_come_between(void)
{
    process_t *process = &s_processes[s_depth];
    if (process->kill)
        longjmp(process->killed, 1); // NOLINT(modernize-avoid-setjmp-longjmp)
    uint32_t depth = s_depth;
    if (depth + 1 == DEPTHS)
        return;
    do {
        operate(depth + 1);
        s_depth = depth;
    } while (plan(process));
}

static void wake(sim_cluster_t * /*cluster*/, sim_socket_t * /*socket*/)
{
}

static sim_socket_t *pick(uint32_t *which)
{
    *which = below(&s_input, SOCKETS);
    return s_model.ports[*which] != SIM_NONE ? sim_socket_of(state(), s_model.ports[*which]) : nullptr;
}

static void open_one(uint32_t which)
{
    static const uint32_t types[] = {SOCK_RDM, SOCK_RDM, SOCK_DGRAM, SOCK_SEQPACKET, SOCK_SEQPACKET, SOCK_STREAM};
    uint32_t type = types[below(&s_input, 6)];
    uint32_t node = below(&s_input, fuzz_sim::NODES);
    if (s_model.ports[which] != SIM_NONE)
        return;
    sim_socket_t *socket = sim_socket_take(self(), type, node, 1);
    require(socket != nullptr);
    if (s_model.ports[which] != SIM_NONE)
        return sim_socket_close(self(), socket, true); // another process was quicker
    socket->rcvbuf = 4096U << below(&s_input, 8);
    s_model.ports[which] = socket->port;
    std::fill_n(s_model.last[which], DEPTHS, 0);
    sim_socket_open(socket);
}

static void close_one(uint32_t which, sim_socket_t *socket)
{
    if (s_model.busy[which] != 0)
        return; // who uses it has it open
    bool all_gone = below(&s_input, 2) == 0;
    s_model.ports[which] = SIM_NONE;
    for (message_t &message : s_model.messages)
        message.accepted = message.accepted && message.to != socket->port;
    sim_socket_close(self(), socket, all_gone);
}

// A new message, filled with what its receiver compares.
static uint32_t new_message(uint32_t to)
{
    static const uint32_t lengths[] = {8, 9, 100, 400, 1100, 1500, 5000, 65990};
    uint32_t len = lengths[below(&s_input, 8)];
    s_model.messages.push_back({to, len, s_depth, false, false, false, false});
    auto id = (uint32_t)s_model.messages.size() - 1;
    memset(s_data[s_depth], (int)id, len);
    memcpy(s_data[s_depth], &id, sizeof(id));
    memcpy(s_data[s_depth] + sizeof(id), &len, sizeof(len));
    return id;
}

static sim_record_t record_of(const sim_socket_t *from, uint32_t port, uint32_t node, uint32_t id)
{
    sim_record_t record = {};
    record.len = s_model.messages[id].len;
    record.src_port = from->port;
    record.src_index = from->node;
    record.src_node = state()->nodes[from->node];
    record.dst_port = port;
    record.dst_index = node;
    record.importance = below(&s_input, 4);
    record.droppable = below(&s_input, 2);
    s_model.messages[id].returnable = record.droppable == 0;
    return record;
}

// What a queue may hold is compared only when nobody came between.
static void check_limit(const sim_socket_t *to, const sim_record_t *record, uint32_t err, uint64_t before)
{
    uint64_t limit = record->kind == SIM_CONN_DATA ? to->rcvbuf : (uint64_t)to->rcvbuf << record->importance;
    bool fits = before + sim_queue_charge(record->len) < limit;
    require(err == TIPC_OK ? fits : err != TIPC_ERR_OVERLOAD || !fits);
}

static uint32_t send_out(sim_socket_t *to, const sim_record_t *record, uint32_t id)
{
    uint32_t operations = s_model.operations;
    uint32_t num = 0;
    uint64_t charged = 0;
    struct iovec part = {s_data[s_depth], record->len};
    sim_block_t *block = sim_message(self(), record, &part, 1);
    require(block != nullptr);
    if (operations == s_model.operations)
        sim_queue_size(state(), to, &num, &charged);
    uint32_t err = sim_deliver(self(), block);
    if (operations == s_model.operations && s_depth == 0)
        check_limit(to, record, err, charged);
    message_t *message = &s_model.messages[id];
    message->accepted = err == TIPC_OK && std::count(s_model.ports, s_model.ports + SOCKETS, message->to) != 0;
    if (err != TIPC_OK)
        sim_return(self(), record, s_data[s_depth], err);
    return err;
}

static void send_one(uint32_t which, sim_socket_t *from)
{
    uint32_t other = 0;
    sim_socket_t *to = pick(&other);
    if (to == nullptr || !sim_connectionless(from) || !sim_connectionless(to))
        return;
    s_model.busy[which]++;
    uint32_t id = new_message(to->port);
    sim_record_t record = record_of(from, to->port, to->node, id);
    (void)send_out(to, &record, id);
    s_model.busy[which]--;
}

static void send_connected(uint32_t which, sim_socket_t *from)
{
    sim_socket_t *to = sim_socket_of(state(), sim_conn_peer(from));
    if (sim_conn_state(from) != SIM_CONN_ESTABLISHED || to == nullptr || sim_flow_full(sim_load(&from->flow)))
        return;
    s_model.busy[which]++;
    uint32_t id = new_message(to->port);
    sim_record_t record = record_of(from, to->port, sim_conn_node(from), id);
    record.kind = SIM_CONN_DATA;
    record.droppable = 0;
    sim_count_sent(from, (int32_t)sim_flow_blocks(record.len));
    if (send_out(to, &record, id) == TIPC_ERR_OVERLOAD)
        s_model.refused.push_back(from->port);
    s_model.messages[id].accepted = false; // the end of the connection may take it away
    s_model.busy[which]--;
}

static void check_returned(const sim_record_t *record, const uint8_t *data)
{
    uint32_t id = 0;
    if (record->kind >= SIM_SYN || record->len < 8)
        return;
    memcpy(&id, data, sizeof(id));
    require(id < s_model.messages.size());
    message_t *message = &s_model.messages[id];
    require(message->returnable && !message->returned && !message->received);
    require(record->len == std::min(message->len, SIM_MAX_RETURNED) && record->src_port == message->to);
    require(record->len == 8 || data[record->len - 1] == (uint8_t)id);
    message->returned = true;
}

static void check_received(uint32_t which, const sim_record_t *record, const uint8_t *data, bool alone)
{
    uint32_t id = 0;
    uint32_t len = 0;
    if (record->len == 0)
        return;
    require(record->len >= 8);
    memcpy(&id, data, sizeof(id));
    memcpy(&len, data + sizeof(id), sizeof(len));
    require(id < s_model.messages.size() && len == record->len);
    message_t *message = &s_model.messages[id];
    require(message->len == len && !message->received && !message->returned);
    require(len == 8 || (data[len - 1] == (uint8_t)id && data[len / 2 + 4] == (uint8_t)id));
    message->received = true;
    if (!alone)
        return; // another reader may have taken a later one before
    uint32_t *last = &s_model.last[which][message->depth];
    require(*last <= id);
    *last = id + 1;
}

static bool receive_one(uint32_t which, sim_socket_t *socket)
{
    static uint8_t s_read[DEPTHS][SIM_MAX_DATA];
    uint8_t *data = s_read[s_depth];
    sim_link_t at;
    if (sim_conn_state(socket) == SIM_CONN_LISTEN)
        return false;
    s_model.busy[which]++;
    uint32_t receives = ++s_model.receives;
    bool got = false;
    sim_block_t *block = sim_queue_first(state(), socket, &at);
    if (block != nullptr) {
        sim_record_t record = block->record;
        if (record.len <= SIM_MAX_DATA) // else it was taken away this moment
            memcpy(data, block->data, record.len);
        got = sim_queue_pop(state(), socket, at, block);
        if (got) {
            require(record.len <= SIM_MAX_DATA);
            if (record.err != TIPC_OK)
                check_returned(&record, data);
            else
                check_received(which, &record, data, s_depth == 0 && receives == s_model.receives);
            sim_block_release(state(), block);
            if (!sim_connectionless(socket) && record.err == TIPC_OK)
                sim_acknowledge(self(), socket, record.len);
        }
    }
    s_model.busy[which]--;
    return got;
}

static void listen_one(sim_socket_t *socket)
{
    if (!sim_connectionless(socket))
        (void)sim_swap(&socket->conn, sim_conn(SIM_CONN_OPEN, 0), sim_conn(SIM_CONN_LISTEN, 0));
}

static void connect_one(uint32_t which, sim_socket_t *socket)
{
    uint32_t other = 0;
    const sim_socket_t *to = pick(&other);
    if (to == nullptr || to == socket || sim_connectionless(socket) || sim_connectionless(to) ||
        !sim_swap(&socket->conn, sim_conn(SIM_CONN_OPEN, 0), sim_conn(SIM_CONN_CONNECTING, socket->port)))
        return;
    s_model.busy[which]++;
    sim_record_t syn = {};
    syn.kind = SIM_SYN;
    syn.src_port = socket->port;
    syn.src_index = socket->node;
    syn.src_node = state()->nodes[socket->node];
    syn.dst_port = to->port;
    syn.dst_index = to->node;
    sim_block_t *block = sim_message(self(), &syn, nullptr, 0);
    require(block != nullptr);
    uint32_t err = sim_deliver(self(), block);
    if (err != TIPC_OK)
        sim_return(self(), &syn, nullptr, err);
    s_model.busy[which]--;
}

static void accept_one(uint32_t which, sim_socket_t *listener)
{
    uint32_t fresh_at = below(&s_input, SOCKETS);
    if (sim_conn_state(listener) != SIM_CONN_LISTEN || s_model.ports[fresh_at] != SIM_NONE)
        return;
    s_model.busy[which]++;
    sim_socket_t *fresh = sim_socket_take(self(), listener->type, listener->node, 1);
    require(fresh != nullptr);
    sim_socket_open(fresh);
    if (s_model.ports[fresh_at] != SIM_NONE || !sim_accept(self(), listener, fresh)) {
        sim_socket_close(self(), fresh, true);
    } else if (s_model.ports[fresh_at] != SIM_NONE) {
        sim_socket_close(self(), fresh, true);
    } else {
        s_model.ports[fresh_at] = fresh->port;
        std::fill_n(s_model.last[fresh_at], DEPTHS, 0);
    }
    s_model.busy[which]--;
}

static void disconnect_one(uint32_t which, sim_socket_t *socket)
{
    if (sim_connectionless(socket) || sim_conn_state(socket) == SIM_CONN_LISTEN)
        return;
    s_model.busy[which]++;
    sim_disconnect(self(), socket, TIPC_CONN_SHUTDOWN);
    s_model.busy[which]--;
}

// Names: an instance for each entry, some of them ranges.
static sim_name_t name_of(uint32_t which)
{
    sim_name_t name = {
        TYPE, which / 2, which / 2 + (which & 1), TIPC_CLUSTER_SCOPE, 100 + which, which % fuzz_sim::NODES, 0, 0};
    name.scope = which == 5 ? (uint32_t)TIPC_NODE_SCOPE : (uint32_t)TIPC_CLUSTER_SCOPE;
    return name;
}

static void change_name(uint32_t which)
{
    if (s_model.changing_names)
        return; // the broker alone does that
    s_model.changing_names = true;
    if (s_model.entries[which] != SIM_NONE) {
        sim_name_remove(state(), s_model.entries[which]);
        s_model.entries[which] = SIM_NONE;
    } else {
        sim_name_t name = name_of(which);
        name.id = s_model.next_id++;
        uint32_t entry = SIM_NONE;
        require(sim_name_insert(state(), &name, &entry) == 0);
        s_model.entries[which] = entry;
        s_model.ids[which] = name.id;
    }
    s_model.changing_names = false;
}

static void look_name_up(uint32_t instance, uint32_t from)
{
    uint32_t operations = s_model.operations;
    bool changing = s_model.changing_names;
    sim_target_t target = {};
    bool found = sim_name_lookup(state(), TYPE, instance, from, 0, &target);
    if (found)
        require(target.port >= 100 && target.port < 100 + NAMES);
    if (changing || operations != s_model.operations)
        return;
    uint32_t lowest = UINT32_MAX;
    for (uint32_t i = 0; i < NAMES; i++) {
        sim_name_t name = name_of(i);
        bool seen = name.node == from || name.scope != (uint32_t)TIPC_NODE_SCOPE;
        if (s_model.entries[i] != SIM_NONE && seen && name.lower <= instance && instance <= name.upper)
            lowest = std::min(lowest, name.lower);
    }
    require(found == (lowest != UINT32_MAX));
    if (!found)
        return;
    sim_name_t name = name_of(target.port - 100);
    require(s_model.entries[target.port - 100] != SIM_NONE && name.node == target.node && name.lower == lowest);
}

static void do_one(uint32_t what)
{
    uint32_t which = 0;
    if (what == 0)
        return open_one(below(&s_input, SOCKETS));
    if (what == 1)
        return change_name(below(&s_input, NAMES));
    if (what == 2) {
        uint32_t instance = below(&s_input, 4);
        return look_name_up(instance, below(&s_input, fuzz_sim::NODES));
    }
    sim_socket_t *socket = pick(&which);
    if (socket == nullptr)
        return;
    switch (what) {
    case 3:
        return close_one(which, socket);
    case 4:
        return listen_one(socket);
    case 5:
        return connect_one(which, socket);
    case 6:
        return accept_one(which, socket);
    case 7:
        return disconnect_one(which, socket);
    case 8:
    case 9:
        return sim_connectionless(socket) ? send_one(which, socket) : send_connected(which, socket);
    default:
        (void)receive_one(which, socket);
        return;
    }
}

// What the broker does when a process is gone, and the next broker when it was the broker.
static void clean_up(uint32_t depth)
{
    uint32_t owner = s_processes[depth].self.owner;
    sim_self_t broker = s_processes[0].self;
    broker.owner = DEPTHS + 1;
    for (uint32_t slot = 0; slot < sim_load(&state()->socket_num); slot++) {
        sim_socket_t *socket = sim_socket_at(state(), slot);
        if (sim_use_owner(sim_load(&socket->use)) == owner)
            sim_socket_inherit(&broker, socket, owner);
    }
    sim_blocks_reclaim(state(), owner);
}

static void restore_names()
{
    std::vector<uint32_t> entries;
    for (uint32_t entry = 1; entry < state()->name_num; entry++) {
        if (sim_name_at(state(), entry)->id != 0)
            entries.push_back(entry);
    }
    std::sort(entries.begin(), entries.end(),
              [](uint32_t a, uint32_t b) { return sim_name_at(state(), a)->id < sim_name_at(state(), b)->id; });
    sim_names_restore(state(), entries.data(), entries.size());
    std::fill_n(s_model.entries, NAMES, SIM_NONE);
    for (uint32_t entry : entries)
        s_model.entries[sim_name_at(state(), entry)->port - 100] = entry;
}

// After a kill the model knows of the sockets that are still there.
static void count_again()
{
    for (uint32_t &port : s_model.ports) {
        if (port != SIM_NONE && sim_socket_of(state(), port) == nullptr)
            port = SIM_NONE;
    }
    for (uint32_t slot = 0; slot < sim_load(&state()->socket_num); slot++) {
        sim_socket_t *socket = sim_socket_at(state(), slot);
        uint32_t *end = s_model.ports + SOCKETS;
        if (sim_load(&socket->use) == SIM_SLOT_OPEN && std::find(s_model.ports, end, socket->port) == end &&
            s_depth == 0)
            sim_socket_close(&s_processes[0].self, socket, true); // a process had opened it and was killed
    }
}

static void operate(uint32_t depth)
{
    if (s_input.left < 3 || s_model.operations >= MAX_OPERATIONS)
        return;
    s_model.operations++;
    s_depth = depth;
    process_t *process = &s_processes[depth];
    uint32_t how = below(&s_input, 256);
    uint32_t steps = (how & 0x10) != 0 ? 1 + below(&s_input, 256) : 0;
    uint32_t busy[SOCKETS];
    bool changing = s_model.changing_names;
    memcpy(busy, s_model.busy, sizeof(busy));
    // What the next broker does after a change of names takes long.
    process->kill = how >= (how % 16 != 1 ? 0xc0U : s_model.restores < MAX_RESTORES ? 0xf0U : UINT32_MAX);
    process->more = steps > 128;
    g_fuzz_sim_left = process->more ? steps - 128 : steps;
    if (setjmp(process->killed) == 0) { // NOLINT(modernize-avoid-setjmp-longjmp)
        do_one(how % 16);
        g_fuzz_sim_left = 0;
        return;
    }
    s_depth = depth;
    s_model.kills++;
    s_model.half_open = s_model.half_open || (how % 16 >= 7 && how % 16 <= 9);
    memcpy(s_model.busy, busy, sizeof(busy));
    clean_up(depth);
    if (s_model.changing_names && !changing) {
        s_model.changing_names = false;
        s_model.restores++;
        restore_names();
    }
    count_again();
}

static bool was_refused(uint32_t port)
{
    return std::find(s_model.refused.begin(), s_model.refused.end(), port) != s_model.refused.end();
}

// Between operations each connection is one of two sides. A message for which there is no room ends its sender's side
// alone, as in the kernel; the receiver finds that out when it sends.
static void check_connections()
{
    for (uint32_t port : s_model.ports) {
        const sim_socket_t *socket = port != SIM_NONE ? sim_socket_of(state(), port) : nullptr;
        if (socket == nullptr || sim_connectionless(socket))
            continue;
        require(sim_flow_unacked(socket->flow) < 1000);
        if (sim_conn_state(socket) != SIM_CONN_ESTABLISHED || was_refused(sim_conn_peer(socket)))
            continue;
        const sim_socket_t *peer = sim_socket_of(state(), sim_conn_peer(socket));
        require(peer != nullptr && peer->conn == sim_conn(SIM_CONN_ESTABLISHED, port, socket->node));
    }
}

static void check_all_arrived()
{
    uint32_t lost = 0;
    for (uint32_t i = 0; i < SOCKETS; i++) {
        sim_socket_t *socket = s_model.ports[i] != SIM_NONE ? sim_socket_of(state(), s_model.ports[i]) : nullptr;
        while (socket != nullptr && receive_one(i, socket))
            continue;
        uint32_t num = 0;
        uint64_t charged = 0;
        if (socket != nullptr && sim_conn_state(socket) != SIM_CONN_LISTEN) {
            sim_queue_size(state(), socket, &num, &charged);
            require(num == 0 && charged == 0);
        }
    }
    for (const message_t &message : s_model.messages)
        lost += message.accepted && !message.received ? 1 : 0;
    require(lost <= s_model.kills);
}

static void begin_memory()
{
    if (g_cluster.state == nullptr)
        fuzz_sim::reset(); // after that each input leaves the memory as it found it
    memset(state()->turns, 0, sizeof(state()->turns));
    fuzz_sim::make_few(self(), FIRST_SLOTS, FIRST_BLOCKS);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    for (uint32_t i = 0; i < DEPTHS; i++)
        s_processes[i].self = {&g_cluster, i + 1, fuzz_sim::grow, wake};
    begin_memory();
    s_model = {};
    s_model.next_id = 1;
    s_input = {data, size};
    while (s_input.left >= 3 && s_model.operations < MAX_OPERATIONS) {
        operate(0);
        if (!s_model.half_open)
            check_connections();
    }
    s_depth = 0;
    check_all_arrived();
    for (uint32_t slot = 0; slot < state()->socket_num; slot++)
        sim_socket_close(&s_processes[0].self, sim_socket_at(state(), slot), true);
    // A killed sender's block may lie in a slot that a program has closed, until the broker closes one there; so may
    // the two of which a killed reader had the holds.
    require(fuzz_sim::blocks_in_use() <= 2 * s_model.kills);
    for (uint32_t slot = 0; slot < state()->socket_num; slot++)
        sim_blocks_reclaim(state(), sim_owner_queue(slot));
    require(fuzz_sim::blocks_in_use() == 0);
    for (uint32_t entry : s_model.entries) {
        if (entry != SIM_NONE)
            sim_name_remove(state(), entry);
    }
    state()->name_num = 1;
    state()->socket_num = 0;
    state()->next_port = SIM_MAX_SOCKETS;
    return 0;
}
