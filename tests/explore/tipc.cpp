// TIPC's part of the world: queues, timers, names, links, and the processes' connections to the topology service.
#include "tipc.h"

#include <cerrno>
#include <cstring>

#include "shell.h"

constexpr uint8_t EVENT_PUBLISHED = 1;
constexpr uint8_t EVENT_WITHDRAWN = 2;
constexpr uint8_t EVENT_TIMED_OUT = 3;

// Queues.

template <typename T>
static uint32_t due_of(world_t *world, const ring<T> *queue, uint32_t delay_min, uint32_t delay_max)
{
    uint32_t due = world->now + delay_min;
    if (world->rng != 0 && delay_max > delay_min)
        due += (uint32_t)(next_random(&world->rng) % (delay_max - delay_min + 1));
    uint32_t last = queue->num == 0 ? 0 : queue->item[(queue->first + queue->num - 1) % QUEUE_ROOM].due;
    return due < last ? last : due;
}

template <typename T>
static bool ring_push(world_t *world, ring<T> *queue, const T *item)
{
    if (queue->num == QUEUE_ROOM) {
        violate(world, VIOLATION_GROWTH, "more than %d messages, names or events wait in one queue", QUEUE_ROOM);
        return false;
    }
    *ring_at(queue, queue->num) = *item;
    queue->num++;
    return true;
}

void mark_channel(world_t *world, int channel)
{
    uint64_t bit = 1ull << (channel % 64);
    if (world->channel[channel].num != 0)
        world->channel_mask[channel / 64] |= bit;
    else
        world->channel_mask[channel / 64] &= ~bit;
}

void put_message(world_t *world, int channel, message_t *message)
{
    uint32_t max = world->config.delay_max;
    message->sent = world->now;
    message->due = due_of(world, &world->channel[channel], world->config.delay_min, max);
    (void)ring_push(world, &world->channel[channel], message);
    mark_channel(world, channel);
}

int send_message(proc_t *proc, int app, zeb_inst_t dst, message_t *message)
{
    world_t *world = proc->world;
    int name = name_index(world, dst);
    uint32_t node = proc_node(proc);
    uint8_t binders = name < 0 ? 0 : world->view[node][name];
    if (binders == 0)
        return -EHOSTUNREACH;
    int place = name / APP_NUM;
    int sub = binders == 3 ? world->pick[place] : binders >> 1;
    int to = 2 * place + sub;
    message->ver = world->config.place[proc->index / 2].ver;
    message->from = (uint8_t)name_of(proc->index / 2, app);
    message->to = (uint8_t)name;
    message->src_pid = proc->pid;
    message->dst_pid = world->proc[to].pid;
    message->doomed = world->cut[node][dst.node];
    put_message(world, channel_index(proc->index, to, name % APP_NUM), message);
    return 0;
}

static void put_event(proc_t *proc, uint8_t kind, uint8_t name, zeb_timer_t timer)
{
    event_t event = {kind, name, proc->world->now, 0, timer};
    event.due = due_of(proc->world, &proc->events, 0, EVENT_DELAY_MAX);
    (void)ring_push(proc->world, &proc->events, &event);
}

// Timers.

static void find_next_timer(proc_t *proc)
{
    proc->timer_next = NEVER;
    for (int i = 0; i < proc->timer_num; i++) {
        if (proc->timer[i].expiry < proc->timer_next)
            proc->timer_next = proc->timer[i].expiry;
    }
}

int add_timer(proc_t *proc, unsigned seconds, zeb_timer_t timer)
{
    world_t *world = proc->world;
    if (proc->connection == CONNECTION_CLOSED)
        return -ENOTCONN;
    if (proc->connection == CONNECTION_DYING)
        return proc->dying_says_notconn ? -ENOTCONN : -1;
    if (proc->fail_timer > 0) {
        proc->fail_timer--;
        return -1;
    }
    if (proc->timer_num == TIMER_ROOM) {
        violate(world, VIOLATION_GROWTH, "%s: more than %d timers", proc_text(proc->index), TIMER_ROOM);
        return -1;
    }
    proc->timer[proc->timer_num] = {world->now + seconds * 1000, timer};
    proc->timer_num++;
    find_next_timer(proc);
    return 0;
}

void expire_next(proc_t *proc)
{
    for (int i = 0; i < proc->timer_num; i++) {
        if (proc->timer[i].expiry != proc->timer_next)
            continue;
        zeb_timer_t timer = proc->timer[i].timer;
        proc->timer_num--;
        memmove(&proc->timer[i], &proc->timer[i + 1], (size_t)(proc->timer_num - i) * sizeof(proc->timer[0]));
        find_next_timer(proc);
        put_event(proc, EVENT_TIMED_OUT, 0, timer);
        return;
    }
}

// Names.

static void tell_node(world_t *world, uint32_t node, uint8_t name, uint8_t kind)
{
    for (proc_t &proc : world->proc) {
        if (proc.alive && proc.connection == CONNECTION_OPEN && proc_node(&proc) == node &&
            world->subscribed[proc.index / 2][name])
            put_event(&proc, kind, name, {0, 0});
    }
}

static void change_view(world_t *world, uint32_t node, uint8_t name, uint8_t binders)
{
    uint8_t before = world->view[node][name];
    world->view[node][name] = binders;
    if (before == 0 && binders != 0)
        tell_node(world, node, name, EVENT_PUBLISHED);
    if (before != 0 && binders == 0)
        tell_node(world, node, name, EVENT_WITHDRAWN);
}

static void put_name_change(world_t *world, uint32_t from, uint32_t to, uint8_t name, uint8_t sub, bool bound)
{
    name_change_t change = {name, sub, bound, world->now, 0};
    ring<name_change_t> *queue = &world->names[from][to];
    change.due = due_of(world, queue, world->config.delay_min, world->config.delay_max);
    if (ring_push(world, queue, &change))
        world->names_num++;
}

bool is_node(const world_t *world, uint32_t node)
{
    for (const place_config_t &place : world->config.place) {
        if (node != 0 && place.node == node)
            return true;
    }
    return false;
}

void apply_name_change(world_t *world, uint32_t node, const name_change_t *change)
{
    uint8_t bit = (uint8_t)(1 << change->sub);
    uint8_t binders = world->view[node][change->name];
    change_view(world, node, change->name, change->bound ? binders | bit : binders & (uint8_t)~bit);
}

static void bind_name(proc_t *proc, int app, bool bound)
{
    world_t *world = proc->world;
    uint32_t own = proc_node(proc);
    name_change_t change = {(uint8_t)name_of(proc->index / 2, app), (uint8_t)(proc->index % 2), bound, 0, 0};
    apply_name_change(world, own, &change);
    for (uint32_t node = 1; node < NODE_NUM; node++) {
        if (node != own && is_node(world, node) && !world->noticed[own][node])
            put_name_change(world, own, node, change.name, change.sub, bound);
    }
}

void bind_names(proc_t *proc, bool bound)
{
    proc->bound = bound;
    for (int app = 0; app < APP_NUM; app++) {
        if (proc->world->config.place[proc->index / 2].app[app].app != 0)
            bind_name(proc, app, bound);
    }
}

// Links.

static void lose_doomed(world_t *world, uint32_t from, uint32_t to)
{
    for (int channel = 0; channel < CHANNEL_NUM; channel++) {
        ring<message_t> *queue = &world->channel[channel];
        int src = channel / APP_NUM / PROC_NUM;
        int dst = channel / APP_NUM % PROC_NUM;
        if (world->config.place[src / 2].node != from || world->config.place[dst / 2].node != to)
            continue;
        while (queue->num != 0 && ring_at(queue, queue->num - 1)->doomed)
            queue->num--;
        mark_channel(world, channel);
    }
}

static void save_doomed(world_t *world)
{
    for (ring<message_t> &queue : world->channel) {
        for (uint32_t i = 0; i < queue.num; i++)
            ring_at(&queue, i)->doomed = false;
    }
}

static void lose_name_changes(world_t *world, uint32_t from, uint32_t to)
{
    world->names_num -= world->names[from][to].num;
    world->names[from][to].num = 0;
}

void notice_cut(world_t *world, uint32_t node, uint32_t peer)
{
    world->noticed[node][peer] = true;
    lose_doomed(world, node, peer);
    lose_doomed(world, peer, node);
    lose_name_changes(world, peer, node);
    for (uint8_t name = 0; name < NAME_NUM; name++) {
        if (world->config.place[name / APP_NUM].node == peer)
            change_view(world, node, name, 0);
    }
}

void set_cut(world_t *world, uint32_t a, uint32_t b, bool cut)
{
    world->cut[a][b] = cut;
    world->cut[b][a] = cut;
    world->cut_at[a][b] = world->now;
    world->cut_at[b][a] = world->now;
    world->links_cut = false;
    for (const auto &row : world->cut) {
        for (bool one : row)
            world->links_cut = world->links_cut || one;
    }
}

static void tell_all_names(world_t *world, uint32_t from, uint32_t to)
{
    for (const proc_t &proc : world->proc) {
        if (!proc.alive || !proc.bound || proc_node(&proc) != from)
            continue;
        for (int app = 0; app < APP_NUM; app++) {
            if (world->config.place[proc.index / 2].app[app].app != 0)
                put_name_change(world, from, to, (uint8_t)name_of(proc.index / 2, app), (uint8_t)(proc.index % 2),
                                true);
        }
    }
}

// A link that neither side takes for lost continues where it was.
void heal(world_t *world, uint32_t a, uint32_t b)
{
    bool lost = world->noticed[a][b] || world->noticed[b][a];
    if (lost && !world->noticed[a][b])
        notice_cut(world, a, b);
    if (lost && !world->noticed[b][a])
        notice_cut(world, b, a);
    set_cut(world, a, b, false);
    world->noticed[a][b] = false;
    world->noticed[b][a] = false;
    if (!lost) {
        save_doomed(world);
        return;
    }
    lose_doomed(world, a, b);
    lose_doomed(world, b, a);
    lose_name_changes(world, a, b);
    lose_name_changes(world, b, a);
    tell_all_names(world, a, b);
    tell_all_names(world, b, a);
}

// Processes.

static void subscribe(proc_t *proc)
{
    const world_t *world = proc->world;
    proc->connection = CONNECTION_OPEN;
    proc->events.num = 0;
    indexed_list_each(&proc->hs.ol_app, [&](const zeb_ol_app_t *ol) {
        for (uint32_t node = 1; node < NODE_NUM; node++) {
            int name = name_index(world, {ol->app_id, node});
            if (name >= 0 && world->view[proc_node(proc)][name] != 0)
                put_event(proc, EVENT_PUBLISHED, (uint8_t)name, {0, 0});
        }
    });
}

static void add_comm_apps(proc_t *proc)
{
    const place_config_t *place = &proc->world->config.place[proc->index / 2];
    for (const app_config_t &app : place->app) {
        if (app.app != 0 && proc->world->config.self)
            zeb_hs_add_comm_app(&proc->hs, app.app, app.app);
    }
    for (const app_config_t &app : place->app) {
        for (uint32_t peer : app.peer) {
            if (app.app != 0 && peer != 0)
                zeb_hs_add_comm_app(&proc->hs, app.app, peer);
        }
    }
}

void start(proc_t *proc)
{
    world_t *world = proc->world;
    proc->pid = ++world->pid;
    proc->seq = proc->pid * 100000;
    proc->alive = true;
    proc->started = world->now;
    proc->minute_at = world->now;
    proc->dying_says_notconn = false;
    proc->report_at = NEVER;
    proc->timer_num = 0;
    proc->timer_next = NEVER;
    proc->fail_open = 0;
    proc->fail_timer = 0;
    proc->fail_send = 0;
    proc->fail_ack = 0;
    memset(proc->joined, 0, sizeof(proc->joined));
    memset(proc->withdrawn, 0, sizeof(proc->withdrawn));
    add_comm_apps(proc);
    subscribe(proc);
    bind_names(proc, true);
}

void kill_proc(proc_t *proc)
{
    if (proc->bound)
        bind_names(proc, false);
    proc->alive = false;
    proc->timer_num = 0;
    proc->timer_next = NEVER;
    proc->events.num = 0;
    zeb_hs_clear(&proc->hs);
}

// Earlier events may still be read.
void lose_connection(proc_t *proc, bool says_notconn, bool with_events)
{
    proc->connection = CONNECTION_DYING;
    proc->dying_says_notconn = says_notconn;
    proc->retry_at = proc->world->now;
    proc->report_at = NEVER;
    if (with_events)
        proc->events.num = 0;
    proc->timer_num = 0;
    proc->timer_next = NEVER;
}

static void reopen(proc_t *proc)
{
    proc->connection = CONNECTION_CLOSED;
    proc->retry_at = proc->world->now + REOPEN_PERIOD;
    if (proc->fail_open > 0) {
        proc->fail_open--;
        return;
    }
    proc->connection = CONNECTION_OPEN;
    zeb_hs_topology_reopened(&proc->hs);
    subscribe(proc);
    proc->report_at = proc->world->now + REPORT_TIME;
}

void read_topology(proc_t *proc)
{
    if (proc->connection != CONNECTION_OPEN && proc->events.num == 0) {
        reopen(proc);
        return;
    }
    if (proc->events.num == 0) {
        proc->report_at = NEVER;
        zeb_hs_topology_reported(&proc->hs);
        return;
    }
    event_t event = *ring_at(&proc->events, 0);
    ring_pop(&proc->events);
    read_event(proc, &event);
}
