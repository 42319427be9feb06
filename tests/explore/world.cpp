#include "world.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shell.h"
#include "tipc.h"

void violate(world_t *world, violation_t violation, const char *format, ...)
{
    if (world->violation != VIOLATION_NONE)
        return;
    world->violation = violation;
    va_list args;
    va_start(args, format);
    (void)vsnprintf(world->text, sizeof(world->text), format, args);
    va_end(args);
}

int name_index(const world_t *world, zeb_inst_t inst)
{
    for (int name = 0; name < NAME_NUM; name++) {
        if (zeb_same_inst(name_inst(world, name), inst))
            return name;
    }
    return -1;
}

bool app_names(const world_t *world, int name, uint32_t app)
{
    const app_config_t *mine = name_app(world, name);
    for (uint32_t peer : mine->peer) {
        if (peer == app)
            return true;
    }
    return world->config.self && mine->app == app;
}

uint32_t proc_node(const proc_t *proc)
{
    return proc->world->config.place[proc->index / 2].node;
}

const char *proc_text(int proc)
{
    static const char texts[PROC_NUM][3] = {"A0", "A1", "B0", "B1", "C0", "C1", "D0", "D1"};
    return texts[proc];
}

// Messages.

static bool is_dead_end(const world_t *world, int dst, const message_t *message)
{
    return !world->proc[dst].alive || world->proc[dst].pid != message->dst_pid;
}

// A returned message queues on its sender's socket. The core reads only returned acknowledgements.
static void give_back(world_t *world, int src, int dst, message_t *message)
{
    if (message->kind != KIND_ACK || !world->proc[src].alive || message->src_pid != world->proc[src].pid)
        return;
    uint32_t from_node = world->config.place[dst / 2].node;
    uint32_t to_node = world->config.place[src / 2].node;
    if (world->noticed[from_node][to_node] || world->noticed[to_node][from_node])
        return;
    uint8_t to = message->to;
    message->kind = KIND_RETURNED_ACK;
    message->to = message->from;
    message->from = to;
    message->src_pid = message->dst_pid;
    message->dst_pid = world->proc[src].pid;
    message->doomed = world->cut[from_node][to_node];
    put_message(world, channel_index(dst, src, message->to % APP_NUM), message);
}

static message_t take_message(world_t *world, int channel)
{
    message_t message = *ring_at(&world->channel[channel], 0);
    ring_pop(&world->channel[channel]);
    mark_channel(world, channel);
    return message;
}

static void read_message(world_t *world, action_t action)
{
    message_t message = take_message(world, channel_index(action.a, action.b, action.c));
    if (action.op == OP_DROP)
        return;
    int dst = action.op == OP_REROUTE ? action.b ^ 1 : action.b;
    if (action.op == OP_RECV && is_dead_end(world, dst, &message))
        give_back(world, action.a, dst, &message);
    else
        receive(&world->proc[dst], &message);
}

// Actions.

static bool has_message(const world_t *world, action_t action)
{
    if (action.a >= PROC_NUM || action.b >= PROC_NUM || action.c >= APP_NUM)
        return false;
    return world->channel[channel_index(action.a, action.b, action.c)].num != 0;
}

static const message_t *message_at(const world_t *world, action_t action, bool last)
{
    const ring<message_t> *queue = &world->channel[channel_index(action.a, action.b, action.c)];
    return &queue->item[(queue->first + (last ? queue->num - 1 : 0)) % QUEUE_ROOM];
}

static bool may_read(const world_t *world, action_t action)
{
    if (!has_message(world, action))
        return false;
    const message_t *message = message_at(world, action, false);
    if (message->doomed || (!world->untimed && world->now < message->sent + world->config.delay_min))
        return false;
    if (action.op == OP_RECV)
        return true;
    if (!is_dead_end(world, action.b, message) || message->kind == KIND_RETURNED_ACK)
        return false;
    const proc_t *other = &world->proc[action.b ^ 1];
    return action.op == OP_DROP || (other->alive && other->bound);
}

static bool may_drop_last(const world_t *world, action_t action)
{
    if (!has_message(world, action))
        return false;
    uint32_t src = world->config.place[action.a / 2].node;
    uint32_t dst = world->config.place[action.b / 2].node;
    return world->cut[src][dst] && !message_at(world, action, false)->doomed;
}

// The link keeps what it carries until it is taken for lost: a cut that is healed before that loses nothing.
static void doom_last(ring<message_t> *queue)
{
    uint32_t last = queue->num - 1;
    while (last != 0 && ring_at(queue, last)->doomed)
        last--;
    ring_at(queue, last)->doomed = true;
}

static bool is_link(const world_t *world, action_t action)
{
    return action.a != action.b && action.a < NODE_NUM && action.b < NODE_NUM && is_node(world, action.a) &&
           is_node(world, action.b);
}

static bool link_enabled(const world_t *world, action_t action)
{
    if (!is_link(world, action))
        return false;
    bool cut = world->cut[action.a][action.b];
    switch (action.op) {
    case OP_NAMES:
        return world->names[action.a][action.b].num != 0 && !cut &&
               (world->untimed ||
                world->now >= world->names[action.a][action.b].item[world->names[action.a][action.b].first].sent +
                                  world->config.delay_min);
    case OP_NOTICE:
        return cut && !world->noticed[action.a][action.b] &&
               (world->untimed || world->now >= world->cut_at[action.a][action.b] + TOLERANCE);
    case OP_CUT:
        return !cut;
    default:
        return cut;
    }
}

static bool proc_enabled(const world_t *world, action_t action)
{
    if (action.a >= PROC_NUM || world->config.place[action.a / 2].node == 0)
        return false;
    const proc_t *proc = &world->proc[action.a];
    switch (action.op) {
    case OP_START:
        return !proc->alive;
    case OP_EVENT:
        return proc->alive && (proc->connection != CONNECTION_OPEN || proc->events.num != 0 ||
                               (proc->report_at != NEVER && (world->untimed || world->now >= proc->report_at)));
    case OP_UNBIND:
        return proc->alive && proc->bound;
    case OP_BIND:
        return proc->alive && !proc->bound;
    case OP_LOSE:
        return proc->alive && proc->connection == CONNECTION_OPEN;
    default:
        return proc->alive;
    }
}

bool is_enabled(const world_t *world, action_t action)
{
    switch (action.op) {
    case OP_WAIT:
        return true;
    case OP_RECV:
    case OP_REROUTE:
    case OP_DROP:
        return may_read(world, action);
    case OP_DROP_LAST:
        return may_drop_last(world, action);
    case OP_NAMES:
    case OP_NOTICE:
    case OP_CUT:
    case OP_HEAL:
        return link_enabled(world, action);
    case OP_SEND:
        return action.a < NAME_NUM * 2 && action.b < NAME_NUM &&
               may_send_traffic(&world->proc[action.a / APP_NUM], action.a % APP_NUM, action.b);
    case OP_PICK:
        return action.a < PLACE_NUM && action.b < 2 && world->pick[action.a] != action.b;
    default:
        return proc_enabled(world, action);
    }
}

static void wait_for(world_t *world, uint32_t ms);

static void act_on_links(world_t *world, action_t action)
{
    switch (action.op) {
    case OP_NAMES: {
        name_change_t change = *ring_at(&world->names[action.a][action.b], 0);
        ring_pop(&world->names[action.a][action.b]);
        world->names_num--;
        apply_name_change(world, action.b, &change);
        return;
    }
    case OP_NOTICE:
        notice_cut(world, action.a, action.b);
        return;
    case OP_CUT:
        set_cut(world, action.a, action.b, true);
        return;
    default:
        heal(world, action.a, action.b);
        return;
    }
}

static void act_on_proc(proc_t *proc, action_t action)
{
    switch (action.op) {
    case OP_EVENT:
        read_topology(proc);
        return;
    case OP_START:
        start(proc);
        return;
    case OP_KILL:
        kill_proc(proc);
        return;
    case OP_UNBIND:
    case OP_BIND:
        bind_names(proc, action.op == OP_BIND);
        return;
    case OP_LOSE:
        lose_connection(proc, (action.b & LOSE_SAYS_NOTCONN) != 0, (action.b & LOSE_WITH_EVENTS) != 0);
        return;
    case OP_FAIL_OPEN:
        proc->fail_open = action.b;
        return;
    case OP_FAIL_TIMER:
        proc->fail_timer = action.b;
        return;
    case OP_FAIL_SEND:
        proc->fail_send = action.b;
        return;
    default:
        proc->fail_ack = action.b;
        return;
    }
}

static void act(world_t *world, action_t action)
{
    switch (action.op) {
    case OP_WAIT:
        wait_for(world, action.value);
        return;
    case OP_RECV:
    case OP_REROUTE:
    case OP_DROP:
        read_message(world, action);
        return;
    case OP_DROP_LAST:
        doom_last(&world->channel[channel_index(action.a, action.b, action.c)]);
        return;
    case OP_NAMES:
    case OP_NOTICE:
    case OP_CUT:
    case OP_HEAL:
        act_on_links(world, action);
        return;
    case OP_SEND:
        send_traffic(&world->proc[action.a / APP_NUM], action.a % APP_NUM, action.b);
        return;
    case OP_PICK:
        world->pick[action.a] = action.b;
        return;
    default:
        act_on_proc(&world->proc[action.a], action);
        return;
    }
}

constexpr int RECORD_NUM_MAX = 64; // of one kind in a core; the worlds are small

static void check_growth(proc_t *proc)
{
    const zeb_handshake_t *hs = &proc->hs;
    if (indexed_list_num(&hs->inst_id) <= NAME_NUM * APP_NUM && indexed_list_num(&hs->inst_sync) <= RECORD_NUM_MAX &&
        indexed_list_num(&hs->inst_retry) <= NAME_NUM * APP_NUM && hs->sync_inst_ack_num <= RECORD_NUM_MAX)
        return;
    violate(proc->world, VIOLATION_GROWTH, "%s: %d pairs, %d pending, %d to retry, %d returned", proc_text(proc->index),
            indexed_list_num(&hs->inst_id), indexed_list_num(&hs->inst_sync), indexed_list_num(&hs->inst_retry),
            hs->sync_inst_ack_num.load());
}

constexpr uint32_t RUN_STEPS_MAX = 50000; // a run has some hundreds

bool apply(world_t *world, action_t action)
{
    if (!is_enabled(world, action))
        return false;
    if (action.op != OP_WAIT) {
        world->steps++;
        if (++world->run_steps > RUN_STEPS_MAX)
            violate(world, VIOLATION_STORM, "more than %u steps, at %u ms", RUN_STEPS_MAX, world->now);
    }
    act(world, action);
    if (action.op == OP_RECV || action.op == OP_REROUTE)
        check_growth(&world->proc[action.op == OP_RECV ? action.b : action.b ^ 1]);
    else if (action.op == OP_EVENT)
        check_growth(&world->proc[action.a]);
    return true;
}

// Time.

typedef struct best_s {
    uint32_t when;
    action_t action;
} best_t;

static void consider(best_t *best, uint32_t when, action_t action)
{
    if (when < best->when)
        *best = {when, action};
}

static uint32_t when_of(order_t order, uint32_t sent, uint32_t due, uint32_t min, uint32_t max)
{
    if (order == ORDER_DUE)
        return due;
    return sent + (order == ORDER_EARLIEST ? min : max);
}

static void next_message(const world_t *world, order_t order, best_t *best)
{
    for (int half = 0; half < CHANNEL_NUM / 64; half++) {
        for (uint64_t mask = world->channel_mask[half]; mask != 0; mask &= mask - 1) {
            int i = half * 64 + __builtin_ctzll(mask);
            const message_t *message = &world->channel[i].item[world->channel[i].first];
            if (message->doomed)
                continue;
            action_t action = {OP_RECV, (uint8_t)(i / APP_NUM / PROC_NUM), (uint8_t)(i / APP_NUM % PROC_NUM),
                               (uint8_t)(i % APP_NUM), 0};
            consider(best,
                     when_of(order, message->sent, message->due, world->config.delay_min, world->config.delay_max),
                     action);
        }
    }
}

static void next_event(const world_t *world, order_t order, best_t *best)
{
    for (const proc_t &proc : world->proc) {
        if (!proc.alive)
            continue;
        action_t action = {OP_EVENT, (uint8_t)proc.index, 0, 0, 0};
        if (proc.connection != CONNECTION_OPEN && proc.events.num == 0)
            consider(best, proc.retry_at + (order == ORDER_LATEST ? EVENT_DELAY_MAX : 0), action);
        else if (proc.events.num != 0)
            consider(best,
                     when_of(order, proc.events.item[proc.events.first].sent, proc.events.item[proc.events.first].due,
                             0, EVENT_DELAY_MAX),
                     action);
        else if (proc.report_at != NEVER)
            consider(best, proc.report_at + (order == ORDER_LATEST ? EVENT_DELAY_MAX : 0), action);
    }
}

static void next_names(const world_t *world, order_t order, best_t *best)
{
    for (uint8_t from = 1; from < NODE_NUM && world->names_num != 0; from++) {
        for (uint8_t to = 1; to < NODE_NUM; to++) {
            const ring<name_change_t> *queue = &world->names[from][to];
            if (queue->num == 0 || world->cut[from][to])
                continue;
            const name_change_t *change = &queue->item[queue->first];
            consider(best, when_of(order, change->sent, change->due, world->config.delay_min, world->config.delay_max),
                     {OP_NAMES, from, to, 0, 0});
        }
    }
}

static void next_notice(const world_t *world, order_t order, best_t *best)
{
    for (uint8_t node = 1; node < NODE_NUM && world->links_cut; node++) {
        for (uint8_t peer = 1; peer < NODE_NUM; peer++) {
            if (!world->cut[node][peer] || world->noticed[node][peer])
                continue;
            uint32_t late = order == ORDER_LATEST ? TOLERANCE_DELAY_MAX : 0;
            consider(best, world->cut_at[node][peer] + TOLERANCE + late, {OP_NOTICE, node, peer, 0, 0});
        }
    }
}

uint32_t next_by_itself(world_t *world, order_t order, action_t *action)
{
    best_t best = {NEVER, {OP_WAIT, 0, 0, 0, 0}};
    next_message(world, order, &best);
    next_event(world, order, &best);
    next_names(world, order, &best);
    next_notice(world, order, &best);
    *action = best.action;
    return best.when;
}

bool has_unanswered(const proc_t *proc)
{
    bool found = false;
    if (!proc->alive)
        return false;
    indexed_list_each(&proc->hs.inst_sync,
                      [&](const zeb_pending_sync_t *pending) { found |= pending->minutes < ZEB_UNANSWERED_MINUTES; });
    return found;
}

// Only when it may change anything.
static uint32_t next_minute(const proc_t *proc)
{
    if (!has_unanswered(proc))
        return NEVER;
    uint32_t age = proc->world->now - proc->started;
    return proc->started + (age / MINUTE + 1) * MINUTE;
}

uint32_t next_timer(const world_t *world)
{
    uint32_t next = NEVER;
    for (const proc_t &proc : world->proc) {
        if (proc.timer_next < next)
            next = proc.timer_next;
        uint32_t minute = next_minute(&proc);
        if (minute < next)
            next = minute;
    }
    return next;
}

static void minute_passes(proc_t *proc, uint32_t when)
{
    if (!proc->alive || proc->minute_at == when || (when - proc->started) % MINUTE != 0)
        return;
    proc->minute_at = when;
    zeb_hs_minute(&proc->hs);
}

static void expire_at(world_t *world, uint32_t when)
{
    for (proc_t &proc : world->proc)
        minute_passes(&proc, when);
    for (proc_t &proc : world->proc) {
        if (proc.timer_next == when) {
            expire_next(&proc);
            return;
        }
    }
}

// On the way timers expire, and what is overdue happens.
static void wait_for(world_t *world, uint32_t ms)
{
    uint32_t to = world->now + ms;
    while (world->violation == VIOLATION_NONE) {
        action_t action;
        uint32_t overdue = world->untimed ? NEVER : next_by_itself(world, ORDER_LATEST, &action);
        uint32_t expiry = next_timer(world);
        uint32_t when = expiry < overdue ? expiry : overdue;
        if (when > to)
            break;
        if (when > world->now)
            world->now = when;
        if (expiry <= overdue)
            expire_at(world, expiry);
        else
            (void)apply(world, action);
    }
    world->now = to;
}

// The world.

world_t *world_new()
{
    world_t *world = (world_t *)zeb_malloc(sizeof(world_t));
    for (int i = 0; i < PROC_NUM; i++) {
        world->proc[i].world = world;
        world->proc[i].index = i;
        zeb_hs_init(&world->proc[i].hs, &g_effects, &world->proc[i]);
    }
    return world;
}

void world_free(world_t *world)
{
    for (proc_t &proc : world->proc)
        zeb_hs_clear(&proc.hs);
    free(world);
}

static void find_subscriptions(world_t *world)
{
    for (int place = 0; place < PLACE_NUM; place++) {
        for (int name = 0; name < NAME_NUM; name++) {
            world->subscribed[place][name] = false;
            uint32_t app = name_app(world, name)->app;
            for (int mine = 0; mine < APP_NUM && app != 0; mine++) {
                if (world->config.place[place].app[mine].app != 0)
                    world->subscribed[place][name] |= app_names(world, name_of(place, mine), app);
            }
        }
    }
}

static void reset_queues(world_t *world)
{
    for (ring<message_t> &queue : world->channel)
        queue.num = 0;
    for (auto &row : world->names) {
        for (ring<name_change_t> &queue : row)
            queue.num = 0;
    }
    memset(world->channel_mask, 0, sizeof(world->channel_mask));
    world->names_num = 0;
}

void world_init(world_t *world, const config_t *config)
{
    world->config = *config;
    world->rng = 0;
    world->now = 0;
    world->pid = 0;
    world->untimed = config->untimed;
    reset_queues(world);
    memset(world->view, 0, sizeof(world->view));
    memset(world->cut, 0, sizeof(world->cut));
    memset(world->noticed, 0, sizeof(world->noticed));
    memset(world->pick, 0, sizeof(world->pick));
    world->links_cut = false;
    world->run_steps = 0;
    world->last_send = 0;
    world->violation = VIOLATION_NONE;
    for (proc_t &proc : world->proc) {
        if (!proc.alive)
            continue;
        zeb_hs_clear(&proc.hs);
        proc.alive = false;
        proc.timer_num = 0;
    }
    for (proc_t &proc : world->proc) {
        proc.bound = false;
        proc.pid = 0;
        proc.timer_next = NEVER;
        proc.events.num = 0;
        proc.events.first = 0;
    }
    find_subscriptions(world);
}
