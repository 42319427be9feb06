// The topology service: matches the subscriptions of every connection with the name table. A node sees its own names,
// and the names of cluster scope on nodes that it has a link to. The connections are those of an ordinary listening
// socket; each sees the cluster from the node of its client.
#include "broker.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

constexpr size_t MAX_SUBSCRIPTIONS = 65535; // per node, as in the kernel
constexpr size_t MAX_EVENTS = 1U << 20;     // not sent yet, per connection: a client that never reads
constexpr int64_t RETRY_MS = 10;            // after a queue without room: nothing tells when it has some
constexpr uint32_t OWN_SCOPE_ONLY = 0x40;   // filters that the kernel knows without a name in its header
constexpr uint32_t CLUSTER_SCOPE_ONLY = 0x20;
constexpr uint32_t NO_STATUS = 0x80;

typedef struct subscription_s {
    struct tipc_subscr request; // as the client sent it, which may be in the other byte order
    bool swapped;
    struct tipc_subscr asked; // in ours
    int64_t deadline;         // ms of the monotonic clock, INT64_MAX for none
} subscription_t;

typedef struct watcher_s { // a connection
    sim_socket_t *socket;
    uint32_t port;                           // of the socket, the broker's side
    uint32_t node;                           // index
    std::list<subscription_t> subscriptions; // newest first: the order in which the kernel notifies them
    std::deque<struct tipc_event> events;    // not sent yet
    bool ending;                             // closed once the events are sent
    int64_t retry;                           // ms, 0 for none
} watcher_t;

typedef struct change_s { // of what a node sees
    sim_name_t name;
    uint32_t peer; // the node with which it came or went
    bool seen;
} change_t;

static std::list<watcher_t> s_watchers;

static bool visible(const sim_name_t *name, uint32_t node, const sim_matrix_t down)
{
    return name->node == node || (name->scope != TIPC_NODE_SCOPE && sim_linked(down, node, name->node));
}

static bool overlaps(const subscription_t *subscription, const sim_name_t *name)
{
    const struct tipc_service_range *range = &subscription->asked.seq;
    return range->type == name->type && range->lower <= name->upper && range->upper >= name->lower;
}

static uint32_t in_order(const subscription_t *subscription, uint32_t value)
{
    return subscription->swapped ? __builtin_bswap32(value) : value;
}

static void report(watcher_t *watcher, const subscription_t *subscription, uint32_t what, const sim_name_t *name)
{
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    const struct tipc_service_range *raw = &subscription->request.seq; // the kernel turns these once too often
    event.event = in_order(subscription, what);
    event.found_lower = in_order(subscription, name != nullptr ? name->lower : raw->lower);
    event.found_upper = in_order(subscription, name != nullptr ? name->upper : raw->upper);
    event.port.ref = in_order(subscription, name != nullptr ? name->port : 0);
    event.port.node = in_order(subscription, name != nullptr ? sim_node_address(broker_state(), name->node) : 0);
    event.s = subscription->request;
    watcher->events.push_back(event);
}

// `edge`: the first publication or the last withdrawal of a range.
static void report_name(watcher_t *watcher, uint32_t what, const sim_name_t *name, bool edge)
{
    for (const subscription_t &subscription : watcher->subscriptions) {
        uint32_t filter = subscription.asked.filter;
        bool wanted = edge || (filter & TIPC_SUB_PORTS) != 0;
        if ((filter & CLUSTER_SCOPE_ONLY) != 0 && name->scope == TIPC_NODE_SCOPE)
            wanted = false;
        if ((filter & OWN_SCOPE_ONLY) != 0 && name->scope != TIPC_NODE_SCOPE)
            wanted = false;
        if (wanted && overlaps(&subscription, name))
            report(watcher, &subscription, what, name);
    }
}

// The connection ends, as the kernel ends it. What was not read of it goes back to the client.
static void close_watcher(watcher_t *watcher)
{
    sim_disconnect(&g_broker.self, watcher->socket, TIPC_CONN_SHUTDOWN);
    broker_close(watcher->socket);
    watcher->port = SIM_NONE; // removed by sweep()
}

static void sweep()
{
    s_watchers.remove_if([](const watcher_t &watcher) { return watcher.port == SIM_NONE; });
}

static uint32_t send_event(const watcher_t *watcher, const struct tipc_event *event)
{
    const sim_socket_t *socket = watcher->socket;
    sim_record_t record = {};
    record.len = sizeof(*event);
    record.kind = SIM_CONN_DATA;
    record.src_port = watcher->port;
    record.src_index = socket->node;
    record.src_node = sim_node_address(broker_state(), socket->node);
    record.dst_port = sim_conn_peer(socket);
    record.dst_index = sim_conn_node(socket);
    record.importance = socket->importance;
    struct iovec part = {const_cast<struct tipc_event *>(event), sizeof(*event)};
    sim_block_t *block = sim_message(&g_broker.self, &record, &part, 1);
    return block != nullptr ? sim_deliver(&g_broker.self, block) : (uint32_t)TIPC_ERR_OVERLOAD;
}

// Sends until the window of the connection or the client's queue is full.
static void flush(watcher_t *watcher)
{
    sim_socket_t *socket = watcher->socket;
    watcher->retry = 0;
    while (watcher->port != SIM_NONE && !watcher->events.empty()) {
        if (sim_conn_state(socket) != SIM_CONN_ESTABLISHED)
            return; // topology_read() closes it
        if (sim_flow_full(sim_load(&socket->flow)))
            break;
        sim_count_sent(socket, 1); // an event is one block of flow control
        uint32_t err = send_event(watcher, &watcher->events.front());
        if (err == TIPC_ERR_OVERLOAD)
            watcher->retry = sys_now() + RETRY_MS;
        if (err != TIPC_OK) {
            sim_count_sent(socket, -1);
            break;
        }
        watcher->events.pop_front();
    }
    if (watcher->events.size() > MAX_EVENTS || (watcher->ending && watcher->events.empty()))
        close_watcher(watcher);
}

static void flush_all()
{
    for (watcher_t &watcher : s_watchers)
        flush(&watcher);
    sweep();
}

static const std::vector<uint32_t> *range_entries(const sim_name_t *name)
{
    auto it = g_broker.names.ranges.find({name->type, name->lower, name->upper});
    return it != g_broker.names.ranges.end() ? &it->second : nullptr;
}

static bool others_seen(const sim_name_t *name, uint32_t node)
{
    const std::vector<uint32_t> *entries = range_entries(name);
    return entries != nullptr && std::any_of(entries->begin(), entries->end(), [name, node](uint32_t entry) {
               const sim_name_t *other = sim_name_at(broker_state(), entry);
               return other->id != name->id && visible(other, node, broker_state()->down);
           });
}

static void tell_all(const sim_name_t *name, uint32_t what)
{
    for (watcher_t &watcher : s_watchers) {
        if (!watcher.subscriptions.empty() && visible(name, watcher.node, broker_state()->down))
            report_name(&watcher, what, name, !others_seen(name, watcher.node));
    }
    flush_all();
}

void topology_added(const sim_name_t *name)
{
    tell_all(name, TIPC_PUBLISHED);
}

void topology_removed(const sim_name_t *name)
{
    tell_all(name, TIPC_WITHDRAWN);
}

// What the kernel itself publishes on every node: the node, its topology service, and its links to other nodes.
static sim_name_t own_name(uint32_t type, uint32_t instance, uint32_t node)
{
    sim_name_t name = {};
    name.type = type;
    name.lower = instance;
    name.upper = instance;
    name.scope = type == TIPC_NODE_STATE ? TIPC_CLUSTER_SCOPE : TIPC_NODE_SCOPE;
    name.port = type == TIPC_TOP_SRV ? sim_load(&broker_state()->topology) : 0;
    name.node = node;
    return name;
}

static std::vector<sim_name_t> own_names(uint32_t node)
{
    const sim_state_t *state = broker_state();
    std::vector<sim_name_t> names = {own_name(TIPC_TOP_SRV, TIPC_TOP_SRV, node)};
    for (uint32_t i = 0; i < g_broker.node_num; i++) {
        if (sim_linked(state->down, node, i))
            names.push_back(own_name(TIPC_NODE_STATE, state->nodes[i], i));
        if (i != node && sim_linked(state->down, node, i))
            names.push_back(own_name(TIPC_LINK_STATE, state->nodes[i], node));
    }
    return names;
}

// The bindings of one range that a new subscription is told of.
static void take_range(const std::vector<uint32_t> *entries, const watcher_t *watcher, uint32_t filter,
                       std::vector<sim_name_t> *found)
{
    for (uint32_t entry : *entries) {
        const sim_name_t *name = sim_name_at(broker_state(), entry);
        if (!visible(name, watcher->node, broker_state()->down))
            continue;
        found->push_back(*name);
        if ((filter & TIPC_SUB_PORTS) == 0)
            return;
    }
}

static void notify_existing(watcher_t *watcher, const subscription_t *subscription)
{
    const struct tipc_service_range *range = &subscription->asked.seq;
    std::vector<sim_name_t> found;
    for (const sim_name_t &name : own_names(watcher->node)) {
        if (overlaps(subscription, &name))
            found.push_back(name);
    }
    auto it = g_broker.names.ranges.lower_bound({range->type, 0, 0});
    for (; it != g_broker.names.ranges.end() && std::get<0>(it->first) == range->type; ++it) {
        if (std::get<1>(it->first) > range->upper)
            break;
        if (std::get<2>(it->first) >= range->lower)
            take_range(&it->second, watcher, subscription->asked.filter, &found);
    }
    uint32_t next = sim_load(&broker_state()->next_id);
    std::stable_sort(found.begin(), found.end(),
                     [next](const sim_name_t &a, const sim_name_t &b) { return a.id - next < b.id - next; });
    for (const sim_name_t &name : found) {
        bool node_only = name.scope == TIPC_NODE_SCOPE;
        bool hidden = (subscription->asked.filter & (node_only ? CLUSTER_SCOPE_ONLY : OWN_SCOPE_ONLY)) != 0;
        if (!hidden)
            report(watcher, subscription, TIPC_PUBLISHED, &name);
    }
}

// A node that came into sight or went out of it, and the link to it, as node `from` is told.
static void add_node_changes(uint32_t from, uint32_t peer, bool seen, std::vector<change_t> *changes)
{
    uint32_t address = broker_state()->nodes[peer];
    change_t node = {own_name(TIPC_NODE_STATE, address, peer), peer, seen};
    change_t link = {own_name(TIPC_LINK_STATE, address, from), peer, seen};
    changes->push_back(seen ? link : node);
    changes->push_back(seen ? node : link);
}

static bool subscribed(const watcher_t *watcher, uint32_t type)
{
    return std::any_of(watcher->subscriptions.begin(), watcher->subscriptions.end(),
                       [type](const subscription_t &s) { return s.asked.seq.type == type; });
}

// The names that the loss or return of links changes for one connection, by node, and in the order of their ids.
static std::vector<change_t> name_changes(const watcher_t *watcher, uint32_t peer, bool seen)
{
    std::vector<change_t> changes;
    add_node_changes(watcher->node, peer, seen, &changes);
    std::vector<change_t> names;
    for (const auto &socket : g_broker.names.sockets) {
        const sim_name_t *first = sim_name_at(broker_state(), socket.second.front());
        for (size_t i = 0; first->node == peer && i < socket.second.size(); i++) {
            const sim_name_t *name = sim_name_at(broker_state(), socket.second[i]);
            if (name->scope != TIPC_NODE_SCOPE && subscribed(watcher, name->type))
                names.push_back({*name, peer, seen});
        }
    }
    uint32_t next = sim_load(&broker_state()->next_id);
    std::sort(names.begin(), names.end(),
              [next](const change_t &a, const change_t &b) { return a.name.id - next < b.name.id - next; });
    changes.insert(seen ? changes.end() : changes.begin() + 1, names.begin(), names.end());
    return changes;
}

// How many bindings of a range a node saw before a change of links.
static uint32_t seen_before(const sim_name_t *name, uint32_t node, const sim_matrix_t before)
{
    const std::vector<uint32_t> *entries = range_entries(name);
    uint32_t num = 0;
    for (size_t i = 0; entries != nullptr && i < entries->size(); i++)
        num += visible(sim_name_at(broker_state(), (*entries)[i]), node, before) ? 1 : 0;
    return num;
}

static void notify_link_change(watcher_t *watcher, const sim_matrix_t before)
{
    const sim_state_t *state = broker_state();
    std::map<range_t, uint32_t> seen; // bindings of a range that the node sees at this step
    for (uint32_t peer = 0; peer < g_broker.node_num; peer++) {
        bool is = sim_linked(state->down, watcher->node, peer);
        if (is == sim_linked(before, watcher->node, peer))
            continue;
        for (const change_t &change : name_changes(watcher, peer, is)) {
            const sim_name_t *name = &change.name;
            auto at = seen.emplace(range_t{name->type, name->lower, name->upper}, 0);
            if (at.second)
                at.first->second = name->id != 0 ? seen_before(name, watcher->node, before) : is ? 0 : 1;
            uint32_t *num = &at.first->second;
            bool edge = change.seen ? (*num)++ == 0 : --*num == 0;
            report_name(watcher, change.seen ? TIPC_PUBLISHED : TIPC_WITHDRAWN, name, edge);
        }
    }
}

void topology_links(const sim_matrix_t before)
{
    for (watcher_t &watcher : s_watchers) {
        if (!watcher.subscriptions.empty())
            notify_link_change(&watcher, before);
    }
    flush_all();
}

void topology_node(uint32_t index)
{
    for (watcher_t &watcher : s_watchers) {
        std::vector<change_t> changes;
        if (watcher.node != index && sim_linked(broker_state()->down, watcher.node, index))
            add_node_changes(watcher.node, index, true, &changes);
        for (const change_t &change : changes)
            report_name(&watcher, TIPC_PUBLISHED, &change.name, true);
    }
    flush_all();
}

static void refuse(watcher_t *watcher, const char *why)
{
    fprintf(stderr, "tipcsim: topology service: connection closed: %s\n", why);
    watcher->subscriptions.clear();
    watcher->ending = true;
}

static void cancel(watcher_t *watcher, const struct tipc_subscr *request)
{
    for (auto it = watcher->subscriptions.begin(); it != watcher->subscriptions.end(); ++it) {
        if (memcmp(&it->request, request, sizeof(*request)) != 0)
            continue;
        watcher->subscriptions.erase(it);
        return;
    }
}

// A request of which no known filter is set is one in the other byte order.
static subscription_t subscription_of(const struct tipc_subscr *request)
{
    constexpr uint32_t known = TIPC_SUB_PORTS | TIPC_SUB_SERVICE | TIPC_SUB_CANCEL;
    subscription_t made = {*request, (request->filter & known) == 0, *request, INT64_MAX};
    made.asked.seq.type = in_order(&made, request->seq.type);
    made.asked.seq.lower = in_order(&made, request->seq.lower);
    made.asked.seq.upper = in_order(&made, request->seq.upper);
    made.asked.timeout = in_order(&made, request->timeout);
    made.asked.filter = in_order(&made, request->filter);
    return made;
}

static size_t subscriptions_of(uint32_t node)
{
    size_t num = 0;
    for (const watcher_t &watcher : s_watchers)
        num += watcher.node == node ? watcher.subscriptions.size() : 0;
    return num;
}

static void take_request(watcher_t *watcher, const uint8_t *bytes, size_t len)
{
    struct tipc_subscr request;
    if (watcher->ending || len == 0)
        return;
    if (len < sizeof(request))
        return refuse(watcher, "a request is shorter than 28 bytes");
    memcpy(&request, bytes, sizeof(request)); // what follows in the same message is lost
    subscription_t made = subscription_of(&request);
    if ((made.asked.filter & TIPC_SUB_CANCEL) != 0) {
        request.filter &= ~in_order(&made, TIPC_SUB_CANCEL);
        return cancel(watcher, &request);
    }
    if (made.asked.seq.lower > made.asked.seq.upper)
        return refuse(watcher, "lower bound above upper bound");
    constexpr uint32_t kinds = TIPC_SUB_PORTS | TIPC_SUB_SERVICE;
    if ((made.asked.filter & kinds) == kinds)
        return refuse(watcher, "both kinds of events asked for");
    if (subscriptions_of(watcher->node) >= MAX_SUBSCRIPTIONS)
        return refuse(watcher, "too many subscriptions");
    if (made.asked.timeout != (uint32_t)TIPC_WAIT_FOREVER)
        made.deadline = sys_now() + made.asked.timeout;
    watcher->subscriptions.push_front(made);
    if ((made.asked.filter & NO_STATUS) == 0)
        notify_existing(watcher, &watcher->subscriptions.front());
}

static void read_watcher(watcher_t *watcher)
{
    sim_state_t *state = broker_state();
    sim_socket_t *socket = watcher->socket;
    sim_link_t at;
    uint32_t limit = sim_block_num(state);
    for (sim_block_t *block; limit-- != 0 && (block = sim_queue_first(state, socket, &at)) != nullptr;) {
        uint32_t len = block->record.len;
        if (block->record.err == TIPC_OK)
            take_request(watcher, block->data, len);
        if (!sim_queue_pop(state, socket, at, block))
            continue;
        sim_block_release(state, block);
        sim_acknowledge(&g_broker.self, socket, len);
    }
    if (sim_conn_state(socket) != SIM_CONN_ESTABLISHED)
        return close_watcher(watcher);
    flush(watcher);
}

// A SYN tells of whose node the connection is, so the socket is made for it before it is accepted. False when there is
// none, or no memory.
static bool accept_watcher(sim_socket_t *listener)
{
    sim_state_t *state = broker_state();
    sim_link_t at;
    const sim_block_t *syn = sim_queue_first(state, listener, &at);
    if (syn == nullptr)
        return false;
    uint32_t asked = syn->record.upper != 0 ? sim_node_find(state, syn->record.upper) : SIM_ANY_NODE;
    uint32_t node = asked != SIM_ANY_NODE ? asked : syn->record.src_index;
    sim_socket_t *fresh = broker_socket(SOCK_SEQPACKET, node < SIM_MAX_NODES ? node : 0);
    if (fresh == nullptr)
        return false;
    if (!sim_accept(&g_broker.self, listener, fresh)) {
        broker_close(fresh);
        return true;
    }
    fresh->importance = TIPC_CRITICAL_IMPORTANCE;
    s_watchers.push_back({fresh, fresh->port, fresh->node, {}, {}, false, 0});
    return true;
}

void topology_read()
{
    sim_socket_t *listener = sim_socket_of(broker_state(), sim_load(&broker_state()->topology));
    while (listener != nullptr && accept_watcher(listener))
        continue;
    for (watcher_t &watcher : s_watchers)
        read_watcher(&watcher);
    sweep();
}

void topology_drop(uint32_t node)
{
    for (watcher_t &watcher : s_watchers) {
        if (node == SIM_ANY_NODE || watcher.node == node)
            close_watcher(&watcher);
    }
    sweep();
}

void topology_time(int64_t now)
{
    for (watcher_t &watcher : s_watchers) {
        bool any = watcher.retry != 0 && watcher.retry <= now;
        for (auto it = watcher.subscriptions.begin(); it != watcher.subscriptions.end();) {
            if (it->deadline > now) {
                ++it;
                continue;
            }
            report(&watcher, &*it, TIPC_SUBSCR_TIMEOUT, nullptr);
            it = watcher.subscriptions.erase(it);
            any = true;
        }
        if (any)
            flush(&watcher);
    }
    sweep();
}

int64_t topology_deadline()
{
    int64_t first = INT64_MAX;
    for (const watcher_t &watcher : s_watchers) {
        if (watcher.retry != 0)
            first = std::min(first, watcher.retry);
        for (const subscription_t &subscription : watcher.subscriptions)
            first = std::min(first, subscription.deadline);
    }
    return first;
}

bool topology_begin()
{
    sim_socket_t *listener = broker_socket(SOCK_SEQPACKET, 0);
    if (listener == nullptr)
        return false;
    sim_store(&listener->conn, sim_conn(SIM_CONN_LISTEN, 0));
    sim_store(&broker_state()->topology, listener->port);
    return true;
}
