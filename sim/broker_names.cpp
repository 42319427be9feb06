// The broker's side of the name table: bindings of sockets, in the order in which they were made.
#include "broker.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

constexpr int64_t REST_MS = 1000;        // an entry stays unused that long, for those who still look at it
constexpr uint32_t MAX_PER_NODE = 65535; // as in the kernel

static range_t range_of(const sim_name_t *name)
{
    return {name->type, name->lower, name->upper};
}

static void count(uint32_t port, const std::vector<uint32_t> &entries)
{
    sim_socket_t *socket = sim_socket_of(broker_state(), port);
    if (socket != nullptr)
        sim_store(&socket->published, (uint32_t)entries.size());
}

// Puts an entry into the lists. Newer ones come last.
static void list_entry(uint32_t entry)
{
    const sim_name_t *name = sim_name_at(broker_state(), entry);
    g_broker.names.ranges[range_of(name)].push_back(entry);
    g_broker.names.sockets[name->port].push_back(entry);
    g_broker.names.nodes[name->node]++;
    g_broker.names.own[entry] = *name;
}

static void withdraw(uint32_t entry)
{
    auto own = g_broker.names.own.find(entry);
    const sim_name_t name = own->second;
    g_broker.names.own.erase(own);
    sim_name_t *shown = sim_name_at(broker_state(), entry);
    shown->type = name.type; // should another process have written there
    shown->lower = name.lower;
    shown->upper = name.upper;
    auto range = g_broker.names.ranges.find(range_of(&name));
    range->second.erase(std::find(range->second.begin(), range->second.end(), entry));
    if (range->second.empty())
        g_broker.names.ranges.erase(range);
    auto socket = g_broker.names.sockets.find(name.port);
    socket->second.erase(std::find(socket->second.begin(), socket->second.end(), entry));
    count(name.port, socket->second);
    if (socket->second.empty())
        g_broker.names.sockets.erase(socket);
    g_broker.names.nodes[name.node]--;
    sim_name_remove(broker_state(), entry);
    g_broker.names.unused.emplace_back(sys_now() + REST_MS, entry);
    topology_removed(&name);
}

static uint32_t unused_entry()
{
    std::deque<std::pair<int64_t, uint32_t>> &unused = g_broker.names.unused;
    if (unused.empty() || unused.front().first > sys_now())
        return SIM_NONE;
    uint32_t entry = unused.front().second;
    unused.pop_front();
    return entry;
}

static int insert(const sim_name_t *name, uint32_t *entry)
{
    uint32_t ready = sim_load(&broker_state()->areas[SIM_AREA_NAMES].ready);
    *entry = unused_entry();
    int ret = sim_name_insert(broker_state(), name, entry);
    if (ret != -ENOSPC)
        return ret;
    ret = g_broker.self.grow(&g_broker.cluster, SIM_AREA_NAMES, ready);
    return ret != 0 ? ret : sim_name_insert(broker_state(), name, entry);
}

int names_bind(uint32_t port, const sim_name_t *asked)
{
    const sim_socket_t *socket = sim_socket_of(broker_state(), port);
    if (socket == nullptr || socket->served != 0 || asked->lower > asked->upper)
        return -EINVAL;
    auto old = g_broker.names.sockets.find(port);
    for (size_t i = 0; asked->id != 0 && old != g_broker.names.sockets.end() && i < old->second.size(); i++) {
        if (sim_name_at(broker_state(), old->second[i])->id == asked->id)
            return 0; // a broker that was killed before it could answer has done it
    }
    if (g_broker.names.nodes[socket->node] >= MAX_PER_NODE)
        return -ENOSPC;
    sim_name_t name = *asked;
    name.port = port;
    name.node = socket->node;
    if (name.id == 0)
        name.id = sim_add(&broker_state()->next_id, 1U);
    uint32_t entry = SIM_NONE;
    int ret = insert(&name, &entry);
    if (ret != 0)
        return ret == -ENOSPC ? -ENOSPC : -ENOMEM;
    list_entry(entry);
    count(port, g_broker.names.sockets[port]);
    topology_added(&name);
    return 0;
}

// The newest binding that a request names. Like the kernel it gives up at one with another upper bound.
static uint32_t named(const std::vector<uint32_t> &entries, const sim_name_t *asked)
{
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const sim_name_t *name = sim_name_at(broker_state(), *it);
        if (name->scope != asked->scope || name->type != asked->type || name->lower != asked->lower)
            continue;
        return name->upper == asked->upper ? *it : SIM_NONE;
    }
    return SIM_NONE;
}

int names_unbind(uint32_t port, const sim_name_t *asked)
{
    auto it = g_broker.names.sockets.find(port);
    if (asked != nullptr && asked->type != 0) {
        uint32_t entry = it != g_broker.names.sockets.end() ? named(it->second, asked) : SIM_NONE;
        if (entry == SIM_NONE)
            return -EINVAL;
        withdraw(entry);
        return 0;
    }
    while (it != g_broker.names.sockets.end()) { // newest first, as the kernel does
        withdraw(it->second.back());
        it = g_broker.names.sockets.find(port);
    }
    return 0;
}

void names_check()
{
    std::vector<uint32_t> gone;
    for (const auto &socket : g_broker.names.sockets) {
        if (sim_socket_of(broker_state(), socket.first) == nullptr)
            gone.push_back(socket.first);
    }
    for (uint32_t port : gone)
        (void)names_unbind(port, nullptr);
}

void names_adopt()
{
    sim_state_t *state = broker_state();
    std::vector<uint32_t> entries;
    for (uint32_t entry = 1; entry < sim_name_num(state); entry++) {
        if (sim_name_at(state, entry)->id != 0)
            entries.push_back(entry);
        else
            g_broker.names.unused.emplace_back(sys_now() + REST_MS, entry);
    }
    uint32_t next = sim_load(&state->next_id); // ids may have begun again at 0
    std::sort(entries.begin(), entries.end(), [state, next](uint32_t a, uint32_t b) {
        return sim_name_at(state, a)->id - next < sim_name_at(state, b)->id - next;
    });
    sim_names_restore(state, entries.data(), entries.size());
    for (uint32_t entry : entries) {
        list_entry(entry);
        uint32_t port = g_broker.names.own[entry].port;
        count(port, g_broker.names.sockets[port]);
    }
    names_check();
}
