// The topology service: matches the subscriptions of every connection with the name table. A node sees its own names,
// and the names of cluster scope on nodes that it has a link to.
#include "broker.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

static bool visible(const sim_name_t &name, uint32_t node, const sim_matrix_t down)
{
    return name.node == node || (name.scope != TIPC_NODE_SCOPE && sim_linked(down, node, name.node));
}

static bool overlaps(const struct tipc_subscr &request, const sim_name_t &name)
{
    return request.seq.type == name.type && request.seq.lower <= name.upper && request.seq.upper >= name.lower;
}

static bool same_range(const sim_name_t &a, const sim_name_t &b)
{
    return a.type == b.type && a.lower == b.lower && a.upper == b.upper;
}

static void report(conn_t *conn, const subscription_t &subscription, uint32_t what, const sim_name_t *name)
{
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    event.event = what;
    event.found_lower = name != nullptr ? name->lower : subscription.request.seq.lower;
    event.found_upper = name != nullptr ? name->upper : subscription.request.seq.upper;
    event.port.ref = name != nullptr ? name->port : 0;
    event.port.node = name != nullptr ? g_broker.cluster.state->nodes[name->node] : 0;
    event.s = subscription.request;
    conn->events.push_back(event);
}

void topology_flush(conn_t *conn)
{
    while (!conn->events.empty()) {
        const struct tipc_event &event = conn->events.front();
        if (send(conn->fd, &event, sizeof(event), MSG_DONTWAIT | MSG_NOSIGNAL) != (ssize_t)sizeof(event))
            break;
        conn->events.pop_front();
    }
    struct epoll_event wanted = {};
    wanted.events = EPOLLIN | (conn->events.empty() ? 0U : (uint32_t)EPOLLOUT);
    wanted.data.fd = conn->fd;
    (void)epoll_ctl(g_broker.epoll, EPOLL_CTL_MOD, conn->fd, &wanted);
    if (conn->ending && conn->events.empty())
        (void)shutdown(conn->fd, SHUT_RDWR);
}

// Whether a subscription is notified of a name. `others`: its node sees further names of the same range, so that the
// event is not the first publication or the last withdrawal of the range.
static bool concerns(const subscription_t &subscription, const sim_name_t &name, bool others)
{
    if (!overlaps(subscription.request, name))
        return false;
    if ((subscription.request.filter & TIPC_SUB_PORTS) != 0)
        return true;
    return (subscription.request.filter & TIPC_SUB_SERVICE) != 0 && !others;
}

static bool others_seen(const sim_name_t &name, uint32_t node)
{
    const sim_state_t *state = g_broker.cluster.state;
    for (uint32_t i = 0; i < state->name_num; i++) {
        const sim_name_t &other = state->names[i];
        if (other.id != name.id && same_range(other, name) && visible(other, node, state->down))
            return true;
    }
    return false;
}

static void notify_subscribers(const sim_name_t &name, uint32_t what)
{
    for (auto &entry : g_broker.conns) {
        conn_t &conn = entry.second;
        if (conn.subscriptions.empty() || !visible(name, conn.node, g_broker.cluster.state->down))
            continue;
        bool others = others_seen(name, conn.node);
        for (const subscription_t &subscription : conn.subscriptions) {
            if (concerns(subscription, name, others))
                report(&conn, subscription, what, &name);
        }
        topology_flush(&conn);
    }
}

void topology_add(const sim_name_t *name)
{
    sim_state_t *state = g_broker.cluster.state;
    {
        sim_guard_s guard(&state->mutex);
        if (state->name_num == SIM_MAX_NAMES) {
            fprintf(stderr, "tipcsim: broker: no room for more than %u names\n", SIM_MAX_NAMES);
            return;
        }
        state->names[state->name_num++] = *name;
        __atomic_store_n(&state->generation, state->generation + 1, __ATOMIC_RELEASE);
    }
    notify_subscribers(*name, TIPC_PUBLISHED);
}

void topology_remove(uint32_t port, uint32_t id)
{
    sim_state_t *state = g_broker.cluster.state;
    sim_name_t name = {};
    {
        sim_guard_s guard(&state->mutex);
        sim_name_t *end = state->names + state->name_num;
        sim_name_t *at =
            std::find_if(state->names, end, [&](const sim_name_t &n) { return n.port == port && n.id == id; });
        if (at == end)
            return;
        name = *at;
        std::move(at + 1, end, at);
        state->name_num--;
        __atomic_store_n(&state->generation, state->generation + 1, __ATOMIC_RELEASE);
    }
    notify_subscribers(name, TIPC_WITHDRAWN);
}

// Notifies one connection of the names that a change of links made visible or invisible. `before`: the lost links
// before the change.
static void notify_link_change(conn_t *conn, const sim_matrix_t before)
{
    const sim_state_t *state = g_broker.cluster.state;
    for (const subscription_t &subscription : conn->subscriptions) {
        std::vector<const sim_name_t *> notified;
        for (uint32_t i = 0; i < state->name_num; i++) {
            const sim_name_t &name = state->names[i];
            bool was = visible(name, conn->node, before);
            bool is = visible(name, conn->node, state->down);
            if (was == is || !overlaps(subscription.request, name))
                continue;
            bool others = std::any_of(notified.begin(), notified.end(),
                                      [&](const sim_name_t *t) { return same_range(*t, name); });
            for (uint32_t j = 0; j < state->name_num && !others; j++)
                others = same_range(state->names[j], name) && visible(state->names[j], conn->node, before) &&
                         visible(state->names[j], conn->node, state->down);
            if (!concerns(subscription, name, others))
                continue;
            report(conn, subscription, is ? TIPC_PUBLISHED : TIPC_WITHDRAWN, &name);
            notified.push_back(&name);
        }
    }
    topology_flush(conn);
}

void topology_links(uint32_t a, uint32_t b, bool down)
{
    sim_state_t *state = g_broker.cluster.state;
    static sim_matrix_t before;
    memcpy(before, state->down, sizeof(before));
    {
        sim_guard_s guard(&state->mutex);
        sim_break(state->down, a, b, down);
        __atomic_store_n(&state->generation, state->generation + 1, __ATOMIC_RELEASE);
    }
    for (auto &entry : g_broker.conns) {
        if (!entry.second.subscriptions.empty())
            notify_link_change(&entry.second, before);
    }
}

static void refuse(conn_t *conn, const char *why)
{
    fprintf(stderr, "tipcsim: topology service: connection closed: %s\n", why);
    conn->subscriptions.clear();
    conn->ending = true;
    topology_flush(conn);
}

static void cancel(conn_t *conn, struct tipc_subscr request)
{
    request.filter &= ~(uint32_t)TIPC_SUB_CANCEL;
    for (auto it = conn->subscriptions.begin(); it != conn->subscriptions.end(); ++it) {
        if (memcmp(&it->request, &request, sizeof(request)) != 0)
            continue;
        conn->subscriptions.erase(it);
        return;
    }
}

static void notify_existing(conn_t *conn, const subscription_t &subscription)
{
    const sim_state_t *state = g_broker.cluster.state;
    std::vector<const sim_name_t *> notified;
    for (uint32_t i = 0; i < state->name_num; i++) {
        const sim_name_t &name = state->names[i];
        bool others =
            std::any_of(notified.begin(), notified.end(), [&](const sim_name_t *t) { return same_range(*t, name); });
        if (!visible(name, conn->node, state->down) || !concerns(subscription, name, others))
            continue;
        report(conn, subscription, TIPC_PUBLISHED, &name);
        notified.push_back(&name);
    }
}

void topology_request(conn_t *conn, const void *bytes, ssize_t len)
{
    struct tipc_subscr request;
    if (conn->ending)
        return;
    if (len < (ssize_t)sizeof(request))
        return refuse(conn, "a request is shorter than 28 bytes");
    memcpy(&request, bytes, sizeof(request));
    constexpr uint32_t kinds = TIPC_SUB_PORTS | TIPC_SUB_SERVICE;
    if ((request.filter & ~(kinds | TIPC_SUB_CANCEL)) != 0)
        return refuse(conn, "a filter that is not simulated (or the other byte order)");
    if ((request.filter & TIPC_SUB_CANCEL) != 0)
        return cancel(conn, request);
    if (request.seq.lower > request.seq.upper)
        return refuse(conn, "lower bound above upper bound");
    if ((request.filter & kinds) == kinds)
        return refuse(conn, "both kinds of events asked for");
    if (request.seq.type <= (uint32_t)TIPC_LINK_STATE && request.seq.upper != 0) // no node and no link has instance 0
        return refuse(conn, "node and link states are not simulated");
    subscription_t subscription = {request, INT64_MAX};
    if (request.timeout != (uint32_t)TIPC_WAIT_FOREVER)
        subscription.deadline = broker_now() + request.timeout;
    conn->subscriptions.push_back(subscription);
    notify_existing(conn, subscription);
    topology_flush(conn);
}

void topology_time(int64_t now)
{
    for (auto &entry : g_broker.conns) {
        conn_t &conn = entry.second;
        for (auto it = conn.subscriptions.begin(); it != conn.subscriptions.end();) {
            if (it->deadline > now) {
                ++it;
                continue;
            }
            report(&conn, *it, TIPC_SUBSCR_TIMEOUT, nullptr);
            it = conn.subscriptions.erase(it);
        }
        if (conn.kind == CONN_TOPOLOGY && !conn.events.empty())
            topology_flush(&conn);
    }
}

int64_t topology_deadline()
{
    int64_t first = INT64_MAX;
    for (const auto &entry : g_broker.conns) {
        for (const subscription_t &subscription : entry.second.subscriptions)
            first = std::min(first, subscription.deadline);
    }
    return first;
}
