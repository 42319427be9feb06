// Links: cuts and their loss, delay, jitter, loss of messages, and congestion. A message whose link is not in order
// comes to the broker through the wire, a socket whose queue outlives the broker. It is copied out of there: a block of
// a queue cannot be put into another one while it is that queue's first.
#include "broker.h"
#include "sim_tap.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

constexpr uint32_t MAX_MS = 3600000;
constexpr uint32_t ALL_LOST = 10000; // of as many messages

typedef struct message_s {
    sim_record_t record;
    std::vector<uint8_t> data;
} message_t;

typedef std::pair<uint32_t, uint32_t> ends_t; // node indices of a link, the lower one first

typedef struct links_s {
    std::multimap<int64_t, message_t> delayed; // by the time, in ms, at which they are due
    std::vector<message_t> held;               // on links that are cut and not lost yet, or congested, in order
    std::map<ends_t, int64_t> breaking;        // when cut links are lost, in ms
    std::mt19937 random;
} links_t;

static links_t s_links;

static ends_t ends_of(uint32_t a, uint32_t b)
{
    return {std::min(a, b), std::max(a, b)};
}

// Whether a link is one of those between `a` and `b`, which may be SIM_ANY_NODE.
static bool between(uint32_t from, uint32_t to, uint32_t a, uint32_t b)
{
    auto is = [](uint32_t node, uint32_t which) { return which == SIM_ANY_NODE || node == which; };
    return (is(from, a) && is(to, b)) || (is(from, b) && is(to, a));
}

static void put(const message_t *message)
{
    struct iovec part = {const_cast<uint8_t *>(message->data.data()), message->data.size()};
    sim_block_t *block = sim_message(&g_broker.self, &message->record, &part, 1);
    if (block == nullptr) {
        fprintf(stderr, "tipcsim: broker: no memory for a message\n");
        return;
    }
    uint32_t err = sim_deliver_now(&g_broker.self, block);
    if (err != TIPC_OK)
        sim_return(&g_broker.self, &message->record, message->data.data(), err);
}

static void record_loss(const message_t &message, sim_fate_e fate)
{
    sim_tap_lost(&g_broker.self, &message.record, message.data.data(), fate);
}

static void deliver(message_t &&message)
{
    const sim_state_t *state = broker_state();
    uint32_t from = message.record.src_index;
    uint32_t to = message.record.dst_index;
    sim_impaired_t how;
    if (!sim_linked(state->down, from, to))
        return record_loss(message, SIM_FATE_CUT);
    if (!sim_linked(state->cut, from, to) || (sim_impaired(state, from, to, &how) && how.congest != 0))
        s_links.held.push_back(std::move(message));
    else
        put(&message);
}

// Delivers messages that are held, for as far as their links take them now.
static void release()
{
    std::vector<message_t> held;
    held.swap(s_links.held);
    for (message_t &message : held)
        deliver(std::move(message));
}

// Messages of a connection are neither lost nor do they overtake each other: TIPC sends them again until they arrive.
static void send_on(message_t &&message)
{
    const sim_record_t &record = message.record;
    sim_impaired_t how;
    if (record.src_index >= SIM_MAX_NODES || record.dst_index >= SIM_MAX_NODES)
        return;
    (void)sim_impaired(broker_state(), record.src_index, record.dst_index, &how);
    bool datagram = record.kind < SIM_SYN;
    if (datagram && how.loss != 0 && s_links.random() % ALL_LOST < how.loss)
        return record_loss(message, SIM_FATE_LOSS);
    uint32_t ms = how.delay + (datagram && how.jitter != 0 ? s_links.random() % (how.jitter + 1) : 0);
    if (ms == 0)
        deliver(std::move(message));
    else
        s_links.delayed.emplace(sys_now() + ms, std::move(message));
}

void links_read()
{
    sim_state_t *state = broker_state();
    sim_socket_t *wire = sim_socket_of(state, sim_load(&state->wire));
    sim_link_t at;
    uint32_t limit = wire != nullptr ? sim_block_num(state) : 0;
    for (sim_block_t *block; limit-- != 0 && (block = sim_queue_first(state, wire, &at)) != nullptr;) {
        const uint8_t *data = block->data;
        message_t message = {block->record, {data, data + block->record.len}};
        if (!sim_queue_pop(state, wire, at, block))
            continue;
        sim_block_release(state, block);
        send_on(std::move(message));
    }
}

// Messages on links between `a` and `b` that are due later are delivered now, or dropped.
static void end_delay(uint32_t a, uint32_t b, bool drop)
{
    for (auto it = s_links.delayed.begin(); it != s_links.delayed.end();) {
        if (!between(it->second.record.src_index, it->second.record.dst_index, a, b)) {
            ++it;
            continue;
        }
        if (drop)
            record_loss(it->second, SIM_FATE_CUT);
        else
            deliver(std::move(it->second));
        it = s_links.delayed.erase(it);
    }
}

static bool lost(const sim_socket_t *socket)
{
    return !sim_connectionless(socket) && sim_conn_state(socket) == SIM_CONN_ESTABLISHED &&
           sim_conn_node(socket) < SIM_MAX_NODES &&
           !sim_linked(broker_state()->down, socket->node, sim_conn_node(socket));
}

static void abort_connections()
{
    sim_state_t *state = broker_state();
    uint32_t num = sim_socket_num(state);
    for (uint32_t slot = 0; slot < num; slot++) {
        sim_socket_t *socket = sim_socket_at(state, slot);
        if (sim_load(&socket->use) == SIM_SLOT_OPEN && lost(socket))
            sim_abort(&g_broker.self, socket, TIPC_ERR_NO_NODE);
    }
}

static void set_down(uint32_t a, uint32_t b, bool down)
{
    sim_state_t *state = broker_state();
    static sim_matrix_t before;
    memcpy(before, state->down, sizeof(before));
    (void)sim_add(&state->generation, 1U);
    sim_break(state->down, a, b, down, true);
    (void)sim_add(&state->generation, 1U);
    topology_links(before);
}

static void stop_breaking(uint32_t a, uint32_t b)
{
    for (auto it = s_links.breaking.begin(); it != s_links.breaking.end();)
        it = between(it->first.first, it->first.second, a, b) ? s_links.breaking.erase(it) : std::next(it);
}

static void drop_held(uint32_t a, uint32_t b)
{
    auto &held = s_links.held;
    auto first = std::stable_partition(held.begin(), held.end(), [a, b](const message_t &message) {
        return !between(message.record.src_index, message.record.dst_index, a, b);
    });
    std::for_each(first, held.end(), [](const message_t &message) { record_loss(message, SIM_FATE_CUT); });
    held.erase(first, held.end());
}

static void lose_links(uint32_t a, uint32_t b)
{
    stop_breaking(a, b);
    end_delay(a, b, true);
    drop_held(a, b);
    set_down(a, b, true);
    abort_connections();
}

static void begin_breaking(uint32_t a, uint32_t b)
{
    if (a != b && sim_linked(broker_state()->down, a, b))
        (void)s_links.breaking.emplace(ends_of(a, b), sys_now() + broker_state()->tolerance);
}

int links_cut(uint32_t a, uint32_t b, uint32_t flags)
{
    sim_state_t *state = broker_state();
    if (a >= SIM_MAX_NODES || a == b)
        return -EINVAL;
    links_read(); // what was sent before the cut has passed
    sim_break(state->cut, a, b, true, (flags & SIM_CUT_ONE_WAY) == 0);
    if ((flags & SIM_CUT_AT_ONCE) != 0 || state->tolerance == 0) {
        lose_links(a, b);
        return 0;
    }
    uint32_t num = sim_node_num(state);
    for (uint32_t i = 0; i < num; i++) {
        if (b == SIM_ANY_NODE || i == b)
            begin_breaking(a, i);
    }
    return 0;
}

int links_heal(uint32_t a, uint32_t b)
{
    sim_state_t *state = broker_state();
    if (a >= SIM_MAX_NODES || a == b)
        return -EINVAL;
    stop_breaking(a, b);
    links_read();
    sim_break(state->cut, a, b, false, true);
    release();
    links_read(); // what was sent in between
    set_down(a, b, false);
    return 0;
}

// A node that comes while its links are cut never has them.
void links_node(uint32_t index)
{
    const sim_state_t *state = broker_state();
    for (uint32_t i = 0; i < SIM_MAX_NODES; i++) {
        bool cut = !sim_linked(state->cut, index, i) || !sim_linked(state->cut, i, index);
        if (cut && sim_linked(state->down, index, i))
            sim_break(broker_state()->down, index, i, true, true);
    }
}

static bool same_link(const sim_impaired_t *a, const sim_impaired_t *b)
{
    if (a->one_way != b->one_way)
        return false;
    return (a->a == b->a && a->b == b->b) || (a->one_way == 0 && a->a == b->b && a->b == b->a);
}

// Senders that wait for a congested link look again.
static void wake_senders()
{
    sim_state_t *state = broker_state();
    uint32_t num = sim_socket_num(state);
    for (uint32_t slot = 0; slot < num; slot++) {
        sim_socket_t *socket = sim_socket_at(state, slot);
        if (sim_load(&socket->use) == SIM_SLOT_OPEN && socket->served == 0)
            sim_socket_notify(&g_broker.self, socket);
    }
}

static int set_impaired(const sim_impaired_t *how, bool on)
{
    sim_state_t *state = broker_state();
    uint32_t num = std::min(sim_load(&state->impaired_num), SIM_MAX_IMPAIRED);
    uint32_t at = 0;
    while (at < num && !same_link(&state->impaired[at], how))
        at++;
    if (on && at == SIM_MAX_IMPAIRED)
        return -ENOSPC;
    if (on) {
        state->impaired[at] = *how;
        sim_store(&state->impaired_num, std::max(num, at + 1));
    } else if (at < num) {
        state->impaired[at] = state->impaired[num - 1];
        sim_store(&state->impaired_num, num - 1);
    }
    return 0;
}

int links_impair(const sim_impaired_t *how)
{
    bool on = (how->delay | how->jitter | how->loss | how->congest) != 0;
    if (how->delay > MAX_MS || how->jitter > MAX_MS || how->loss > ALL_LOST || how->congest > 1 || how->one_way > 1)
        return -EINVAL;
    links_read();
    end_delay(how->a, how->b, false); // at once: messages sent from now on must not overtake them
    int ret = set_impaired(how, on);
    release();
    links_read();
    if (ret == 0 && how->congest == 0)
        wake_senders();
    return ret;
}

void links_time(int64_t now)
{
    while (!s_links.delayed.empty() && s_links.delayed.begin()->first <= now) {
        message_t message = std::move(s_links.delayed.begin()->second);
        s_links.delayed.erase(s_links.delayed.begin());
        deliver(std::move(message));
    }
    std::vector<ends_t> due;
    for (const auto &entry : s_links.breaking) {
        if (entry.second <= now)
            due.push_back(entry.first);
    }
    for (const ends_t &link : due)
        lose_links(link.first, link.second);
}

int64_t links_deadline()
{
    int64_t first = s_links.delayed.empty() ? INT64_MAX : s_links.delayed.begin()->first;
    for (const auto &entry : s_links.breaking)
        first = std::min(first, entry.second);
    return first;
}

// Takes over the wire of the broker before, with what it had not read, and its cuts.
void links_begin()
{
    sim_state_t *state = broker_state();
    const char *seed = getenv("TIPCSIM_SEED");
    s_links.random.seed(seed != nullptr ? (uint32_t)strtoul(seed, nullptr, 0) : std::random_device()());
    sim_socket_t *wire = sim_socket_of(state, sim_load(&state->wire));
    if (wire == nullptr && (wire = broker_socket(SOCK_RDM, 0)) != nullptr)
        sim_store(&state->wire, wire->port);
    if (wire != nullptr) {
        wire->pid = sys_getpid();
        (void)g_broker.served.insert(wire);
    }
    uint32_t num = sim_node_num(state);
    for (uint32_t a = 0; a < num; a++) {
        for (uint32_t b = 0; b < num; b++) {
            if (!sim_linked(state->cut, a, b))
                begin_breaking(a, b);
        }
    }
    g_broker.node_num = num;
    abort_connections();
}
