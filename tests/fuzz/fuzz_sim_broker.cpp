// The broker and what the keeper does for it, over the shared memory of a cluster without other processes: requests as
// clients send them, sockets of clients and of the topology service, time, processes that end, brokers that follow one
// another, and words of the memory that a process which went wild has written.
#include <algorithm>
#include <random>
#include <sys/socket.h>

#include "fuzz_sim.h"

constexpr uint32_t PROCESSES = 64; // more than there are here; the broker looks through all of them

// The broker's functions, with those that are its own.
// NOLINTBEGIN(bugprone-suspicious-include)
#define SIM_MAX_PROCESSES PROCESSES
#define mt19937 minstd_rand // which takes no time to begin
#include "broker.cpp"
#include "broker_links.cpp"
#include "broker_names.cpp"
#include "broker_topology.cpp"
#undef mt19937
#undef SIM_MAX_PROCESSES
// NOLINTEND(bugprone-suspicious-include)

// Here are no other processes.
uint64_t tree_number(const char * /*dir*/)
{
    return 1;
}
bool tree_any(uint64_t /*number*/)
{
    return false;
}

using fuzz_sim::below;
using fuzz_sim::input_t;
using fuzz_sim::number;
using fuzz_sim::require;

constexpr uint32_t SOCKETS = 8;
constexpr uint32_t MAX_OPERATIONS = 60;
constexpr uint32_t FIRST_SLOTS = 16;
constexpr uint32_t FIRST_BLOCKS = 32;

static input_t s_input;
static uint32_t s_ports[SOCKETS]; // of clients
static uint32_t s_open;           // bits of those that some process has
static bool s_wild;               // something was written that nobody writes
static int s_ends[2] = {-1, -1};  // of a connection to the broker
static sim_self_t s_client;

static bool held_by_some(uint32_t port)
{
    for (uint32_t i = 0; i < SOCKETS; i++) {
        if (s_ports[i] == port)
            return (s_open & 1U << i) != 0;
    }
    return false;
}

static void wake(sim_cluster_t * /*cluster*/, sim_socket_t * /*socket*/)
{
}

// As begin(), with descriptors that all inputs share.
static void begin_broker()
{
    sim_state_t *state = broker_state();
    g_broker.self = {&g_broker.cluster, 0, fuzz_sim::grow, wake};
    g_broker.self.owner = (uint32_t)sim_process_enter(state, sys_getpid(), 0) + 1;
    g_broker.wake_there = 0;
    keeper_end_served(&g_broker.self, 0, 0);
    links_begin();
    names_adopt();
    look_for_processes(true);
    (void)topology_begin();
    finish_last();
    read_served();
}

static void forget_broker()
{
    for (const auto &process : g_broker.processes)
        (void)close(process.first);
    s_links = {};
    s_watchers.clear();
    g_broker.processes.clear();
    g_broker.watched.clear();
    g_broker.missing.clear();
    g_broker.names = {};
    g_broker.node_num = 0;
    g_broker.next_slot = 0;
    g_broker.next_look = 0;
}

static uint32_t some_port() // one of a client, of the broker, or none
{
    uint32_t which = below(&s_input, SOCKETS + 4);
    if (which < SOCKETS)
        return s_ports[which];
    switch (which - SOCKETS) {
    case 0:
        return broker_state()->topology;
    case 1:
        return broker_state()->wire;
    default:
        return number(&s_input, 4);
    }
}

static uint32_t some_word()
{
    static const uint32_t values[] = {0, 1, 2, 3, 4, UINT32_MAX, 0x80000000U, SIM_MAX_NODES, SIM_MAX_SOCKETS, 65536};
    uint32_t which = below(&s_input, 16);
    return which < 10 ? values[which] : which < 12 ? some_port() : number(&s_input, 4);
}

// A request: mostly with the right secret, and with what has to follow it.
static void ask()
{
    struct {
        sim_request_t request;
        uint8_t more[64];
    } bytes = {};
    uint32_t how = below(&s_input, 256);
    bytes.request = {how < 250 ? SIM_MAGIC : 0, below(&s_input, 16), {}, 1, some_word(), some_word(),
                     below(&s_input, 4)};
    if (how % 8 != 0)
        memcpy(bytes.request.secret, broker_state()->secret, SIM_SECRET_LEN);
    size_t more = 0;
    if (bytes.request.op == SIM_BIND || bytes.request.op == SIM_UNBIND) {
        sim_name_t name = {1000 + below(&s_input, 3), below(&s_input, 8), 0, 1 + below(&s_input, 3), 0, 0, 0, 0};
        name.upper = name.lower + below(&s_input, 4);
        name.id = how < 8 ? some_word() : 0;
        bytes.request.a = some_port();
        memcpy(bytes.more, &name, more = sizeof(name));
    } else if (bytes.request.op == SIM_IMPAIR) {
        sim_impaired_t link = {some_word(),         some_word(),        below(&s_input, 40), below(&s_input, 20),
                               number(&s_input, 2), below(&s_input, 3), below(&s_input, 3)};
        memcpy(bytes.more, &link, more = sizeof(link));
    }
    if (how % 16 == 9)
        more = below(&s_input, sizeof(bytes.more));
    ssize_t len = how == 17 ? (ssize_t)below(&s_input, sizeof(bytes.request)) : (ssize_t)(sizeof(bytes.request) + more);
    sim_reply_t reply = {};
    bool good = answer(s_ends[0], (const uint8_t *)&bytes, len);
    ssize_t got = recv(s_ends[1], &reply, sizeof(reply), MSG_DONTWAIT);
    require(got == (good ? (ssize_t)sizeof(reply) : -1) && (!good || reply.magic == SIM_MAGIC));
    require(!good || (how < 250 && how % 8 != 0));
}

static void open_client()
{
    static const uint32_t types[] = {SOCK_RDM, SOCK_SEQPACKET, SOCK_STREAM, SOCK_SEQPACKET};
    uint32_t which = below(&s_input, SOCKETS);
    uint32_t type = types[below(&s_input, 4)];
    uint32_t node = below(&s_input, fuzz_sim::NODES);
    sim_socket_t *socket = s_ports[which] == SIM_NONE ? sim_socket_take(&s_client, type, node, 10) : nullptr;
    if (socket == nullptr)
        return;
    s_ports[which] = socket->port;
    s_open |= 1U << which;
    sim_socket_open(socket);
}

static void close_client()
{
    uint32_t which = below(&s_input, SOCKETS);
    sim_socket_t *socket = sim_socket_of(broker_state(), s_ports[which]);
    s_open &= ~(1U << which);
    if (socket != nullptr && below(&s_input, 2) == 0)
        sim_socket_close(&s_client, socket, false);
    s_ports[which] = SIM_NONE;
}

static sim_socket_t *client(uint32_t *which)
{
    *which = below(&s_input, SOCKETS);
    return s_ports[*which] != SIM_NONE ? sim_socket_of(broker_state(), s_ports[*which]) : nullptr;
}

static void send_from(const sim_socket_t *from, uint32_t kind, uint32_t port, const void *data, uint32_t len)
{
    const sim_socket_t *to = sim_socket_of(broker_state(), port);
    sim_record_t record = {};
    record.len = len;
    record.kind = kind;
    record.src_port = from->port;
    record.src_index = from->node;
    record.dst_port = port;
    record.dst_index = to != nullptr ? to->node : 0;
    record.droppable = below(&s_input, 2);
    struct iovec part = {const_cast<void *>(data), len};
    sim_block_t *block = sim_message(&s_client, &record, &part, 1);
    uint32_t err = block != nullptr ? sim_deliver(&s_client, block) : (uint32_t)TIPC_ERR_OVERLOAD;
    if (err != TIPC_OK)
        sim_return(&s_client, &record, (const uint8_t *)data, err);
}

static void send_some()
{
    static const uint8_t data[SIM_MAX_DATA] = {};
    static const uint32_t lengths[] = {0, 10, 100, 1000, 5000, 66000};
    uint32_t which = 0;
    const sim_socket_t *from = client(&which);
    if (from != nullptr) {
        uint32_t port = some_port();
        send_from(from, below(&s_input, SIM_CONN_DATA + 1), port, data, lengths[below(&s_input, 64) * 5 / 63]);
    }
}

static void connect_to_service()
{
    uint32_t which = 0;
    sim_socket_t *socket = client(&which);
    if (socket == nullptr || sim_connectionless(socket) ||
        !sim_swap(&socket->conn, sim_conn(SIM_CONN_OPEN, 0), sim_conn(SIM_CONN_CONNECTING, socket->port)))
        return;
    send_from(socket, SIM_SYN, broker_state()->topology, nullptr, 0);
}

static void subscribe()
{
    uint32_t which = 0;
    const sim_socket_t *socket = client(&which);
    struct tipc_subscr wanted = {};
    if (socket == nullptr)
        return;
    uint32_t how = below(&s_input, 64);
    wanted.seq = {how % 4 == 3 ? below(&s_input, 4) : 1000 + how % 4, below(&s_input, 8), 0};
    wanted.seq.upper = wanted.seq.lower + below(&s_input, 8) - (how == 40 ? 4 : 0);
    wanted.timeout = how < 32 ? (uint32_t)TIPC_WAIT_FOREVER : number(&s_input, 2);
    wanted.filter = how == 20 ? number(&s_input, 1) : 1 + below(&s_input, 2);
    if (how == 21)
        wanted.filter = __builtin_bswap32(wanted.filter);
    if (how == 22)
        wanted.filter |= TIPC_SUB_CANCEL;
    uint32_t len = how == 63 ? below(&s_input, 28) : sizeof(wanted);
    send_from(socket, SIM_CONN_DATA, sim_conn_peer(socket), &wanted, len);
}

static void receive_some()
{
    uint32_t which = 0;
    sim_socket_t *socket = client(&which);
    sim_link_t at;
    for (int i = 0; socket != nullptr && i < 20; i++) {
        sim_block_t *block = sim_queue_first(broker_state(), socket, &at);
        if (block == nullptr)
            return;
        uint32_t len = block->record.len;
        require(len <= SIM_MAX_DATA);
        if (sim_queue_pop(broker_state(), socket, at, block)) {
            sim_block_release(broker_state(), block);
            sim_acknowledge(&s_client, socket, len);
        }
    }
}

static void next_broker()
{
    forget_broker();
    begin_broker();
}

// Where a process that went wild writes: into tables, each of which others read.
static void *some_place(size_t *size)
{
    sim_state_t *state = broker_state();
    auto words = [size](void *table, size_t bytes) {
        *size = 4;
        return (void *)((uint8_t *)table + number(&s_input, 2) % (bytes / 4) * 4);
    };
    uint32_t which = below(&s_input, 16);
    uint32_t port = which < 6 ? some_port() : 0;
    switch (which) {
    case 0:
    case 1:
    case 2:
    case 3:
        return words(sim_socket_at(state, sim_socket_slot(port) % 64), sizeof(sim_socket_t));
    case 4:
    case 5: { // the first block of a socket
        uint32_t at = sim_link_number(sim_socket_at(state, sim_socket_slot(port) % 64)->head);
        return words(sim_block_of(state, at != SIM_NONE && at < 1000 ? at : 1), sizeof(sim_block_t));
    }
    case 6:
        return words(sim_block_of(state, 1 + number(&s_input, 1) * SIM_POOLS), sizeof(sim_block_t));
    case 7:
    case 8:
        return words(sim_name_at(state, 0), sizeof(sim_name_t) * 16);
    case 9:
        return words(state->processes, sizeof(sim_process_t) * 8);
    case 10:
        return words(&state->rmem, (size_t)((uint8_t *)&state->lock_base - (uint8_t *)&state->rmem));
    case 11:
        return words(&state->generation, (size_t)((uint8_t *)&state->nodes[4] - (uint8_t *)&state->generation));
    case 12:
        return words(&state->fault_num, (size_t)((uint8_t *)state->cut - (uint8_t *)&state->fault_num));
    case 13:
        return words(&state->name_num, 4);
    case 14:
        return words(&state->socket_num, 4);
    default: {
        const sim_name_t *name = sim_name_at(state, 1 + below(&s_input, 4));
        *size = 4;
        if (name->lower != name->upper) // as sim_names.cpp finds the chain
            return &state->ranges[name->type * 31 * 2654435761U / (UINT32_MAX / SIM_RANGE_CHAINS + 1)];
        return &state->singles[(name->type * 31 + name->lower) * 2654435761U / (UINT32_MAX / SIM_SINGLE_CHAINS + 1)];
    }
    }
}

static void write_wildly()
{
    size_t size = 0;
    void *place = some_place(&size);
    uint32_t value = some_word();
    if (place == &broker_state()->node_num && number(&s_input, 2) != 7799)
        value %= 16; // all that there may be take long: they are seldom, and at the end of an input
    else if (place == &broker_state()->node_num)
        s_input.left = std::min<size_t>(s_input.left, 8);
    memcpy(place, &value, size);
    s_wild = true;
}

static void operate()
{
    switch (below(&s_input, 20)) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
        return ask();
    case 5:
    case 6:
        return open_client();
    case 7:
        return close_client();
    case 8:
    case 9:
        return send_some();
    case 10:
        return connect_to_service();
    case 11:
    case 12:
        return subscribe();
    case 13:
        return receive_some();
    case 14:
        return look();
    case 15:
        return next_broker();
    case 16:
        keeper_end_served(&s_client, number(&s_input, 1), 0);
        return;
    case 17:
        if (below(&s_input, 2) == 0)
            (void)sim_node_index(broker_state(), number(&s_input, 1) + 1);
        fuzz_sim::g_calls.now += number(&s_input, 2) % 3000;
        return pass_time(fuzz_sim::g_calls.now);
    case 18:
        fuzz_sim::g_calls.alive = (int32_t)below(&s_input, 3) * 1000;
        return;
    default:
        return write_wildly();
    }
}

static void begin_all(const uint8_t *data, size_t size)
{
    fuzz_sim::reset();
    fuzz_sim::g_calls.held = held_by_some;
    if (s_ends[0] < 0)
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, s_ends) == 0);
    g_broker.cluster = fuzz_sim::g_cluster;
    if (g_broker.epoll == 0) {
        (void)setenv("TIPCSIM_SEED", "1", 1);
        g_broker.epoll = epoll_create1(EPOLL_CLOEXEC);
        g_broker.wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
    std::fill_n(s_ports, SOCKETS, (uint32_t)SIM_NONE);
    s_open = 0;
    s_wild = false;
    s_input = {data, size};
    s_client = {&g_broker.cluster, 0, fuzz_sim::grow, wake};
    int entry = sim_process_enter(fuzz_sim::g_cluster.state, 10, 0);
    require(entry >= 0);
    s_client.owner = (uint32_t)entry + 1;
    fuzz_sim::make_few(&s_client, FIRST_SLOTS, FIRST_BLOCKS);
    begin_broker();
}

// With a memory that nobody spoiled nothing is left when the last client has gone.
static void check_end()
{
    s_open = 0;
    fuzz_sim::g_calls.alive = 0;
    forget_broker();
    begin_broker();
    for (int i = 0; i < 3; i++)
        look();
    topology_drop(SIM_ANY_NODE);
    require(!sockets_open() && g_broker.names.ranges.empty());
    for (uint32_t slot = 0; slot < broker_state()->socket_num; slot++)
        sim_socket_close(&g_broker.self, sim_socket_at(broker_state(), slot), true);
    require(fuzz_sim::blocks_in_use() == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    begin_all(data, size);
    for (uint32_t i = 0; i < MAX_OPERATIONS && s_input.left != 0; i++)
        operate();
    read_served();
    pass_time(fuzz_sim::g_calls.now + 10000);
    if (!s_wild)
        check_end();
    forget_broker();
    return 0;
}
