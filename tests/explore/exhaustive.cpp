// Breadth first, so that the first violation has the shortest script. A state is reached again by repeating its
// actions. From each new state the world also calms down, without more faults, and is checked.
#include "exhaustive.h"

#include <unordered_set>

#include "random.h"

constexpr int QUEUED_MAX = 3; // messages in one channel; time does not pass while more wait

typedef struct state_s {
    uint32_t parent;
    action_t action;
    uint8_t depth;
    uint8_t faults;
} state_t;

typedef struct search_s {
    world_t *world;
    const exhaustive_options_t *options;
    config_t config;
    std::vector<action_t> prefix;
    std::vector<state_t> states;
    std::unordered_set<uint64_t> known;
    exhaustive_result_t *result;
} search_t;

static bool is_fault(op_t op)
{
    return op >= OP_START || op == OP_DROP_LAST;
}

static std::vector<action_t> path_to(const search_t *search, uint32_t state)
{
    std::vector<action_t> path;
    for (; state != 0; state = search->states[state].parent)
        path.push_back(search->states[state].action);
    std::vector<action_t> actions = search->prefix;
    actions.insert(actions.end(), path.rbegin(), path.rend());
    return actions;
}

static void run_path(search_t *search, const std::vector<action_t> *actions)
{
    world_init(search->world, &search->config);
    for (action_t action : *actions)
        (void)apply(search->world, action);
}

static void add_if_enabled(const search_t *search, action_t action, std::vector<action_t> *actions)
{
    if (is_fault(action.op) && (search->options->without >> action.op & 1) != 0)
        return;
    if (is_enabled(search->world, action))
        actions->push_back(action);
}

static void add_messages(const search_t *search, std::vector<action_t> *actions)
{
    static const op_t ops[] = {OP_RECV, OP_REROUTE, OP_DROP};
    for (int half = 0; half < CHANNEL_NUM / 64; half++) {
        for (uint64_t mask = search->world->channel_mask[half]; mask != 0; mask &= mask - 1) {
            int i = half * 64 + __builtin_ctzll(mask);
            for (op_t op : ops)
                add_if_enabled(search,
                               {op, (uint8_t)(i / APP_NUM / PROC_NUM), (uint8_t)(i / APP_NUM % PROC_NUM),
                                (uint8_t)(i % APP_NUM), 0},
                               actions);
        }
    }
}

constexpr uint32_t OVERLAP_WAIT_MAX = 30000; // ms in which two processes may have one name: see random.cpp

static bool overlaps(const world_t *world, uint8_t proc)
{
    return world->proc[proc].alive && world->proc[proc ^ 1].alive;
}

static void add_wait(const search_t *search, std::vector<action_t> *actions)
{
    for (const ring<message_t> &queue : search->world->channel) {
        if (queue.num > QUEUED_MAX)
            return;
    }
    uint32_t expiry = next_timer(search->world);
    if (expiry == NEVER)
        return;
    uint32_t ms = expiry - search->world->now;
    if (ms <= OVERLAP_WAIT_MAX || (!overlaps(search->world, 0) && !overlaps(search->world, 2)))
        actions->push_back({OP_WAIT, 0, 0, 0, ms});
}

static void add_faults(const search_t *search, std::vector<action_t> *actions)
{
    static const op_t plain[] = {OP_START, OP_KILL, OP_UNBIND};
    static const op_t counted[] = {OP_FAIL_OPEN, OP_FAIL_TIMER, OP_FAIL_SEND, OP_FAIL_ACK};
    for (uint8_t proc = 0; proc < 4; proc++) {
        for (op_t op : plain)
            add_if_enabled(search, {op, proc, 0, 0, 0}, actions);
        for (uint8_t how = 0; how < 4; how++)
            add_if_enabled(search, {OP_LOSE, proc, how, 0, 0}, actions);
        for (op_t op : counted)
            add_if_enabled(search, {op, proc, 1, 0, 0}, actions);
    }
    for (uint8_t place = 0; place < 2; place++)
        add_if_enabled(search, {OP_PICK, place, 1, 0, 0}, actions);
    add_if_enabled(search, {OP_CUT, 1, 2, 0, 0}, actions);
}

// What may happen next. The end of a fault does not count as one: a name is bound again, a link is healed.
static std::vector<action_t> next_actions(const search_t *search, int faults)
{
    std::vector<action_t> actions;
    add_messages(search, &actions);
    for (uint8_t proc = 0; proc < 4; proc++) {
        add_if_enabled(search, {OP_EVENT, proc, 0, 0, 0}, &actions);
        if (is_enabled(search->world, {OP_BIND, proc, 0, 0, 0}))
            actions.push_back({OP_BIND, proc, 0, 0, 0});
        add_if_enabled(search, {OP_SEND, (uint8_t)(proc * APP_NUM), (uint8_t)(proc / 2 == 0 ? APP_NUM : 0), 0, 0},
                       &actions);
    }
    for (uint8_t node = 1; node < 3; node++) {
        add_if_enabled(search, {OP_NAMES, node, (uint8_t)(3 - node), 0, 0}, &actions);
        add_if_enabled(search, {OP_NOTICE, node, (uint8_t)(3 - node), 0, 0}, &actions);
    }
    if (is_enabled(search->world, {OP_HEAL, 1, 2, 0, 0}))
        actions.push_back({OP_HEAL, 1, 2, 0, 0});
    add_wait(search, &actions);
    if (faults < search->options->faults)
        add_faults(search, &actions);
    return actions;
}

// False to end the search.
static bool fail(search_t *search, std::vector<action_t> *actions)
{
    exhaustive_result_t *result = search->result;
    result->found[search->world->violation]++;
    if (search->options->go_on && result->failed) {
        actions->pop_back();
        return true;
    }
    result->failed = true;
    result->script = {search->config, *actions, search->world->violation};
    result->script = script_shrink(search->world, &result->script);
    (void)script_run(search->world, &result->script);
    result->text = search->world->text;
    actions->pop_back();
    return search->options->go_on;
}

// Goes to a new state. False to end the search.
static bool visit(search_t *search, uint32_t from, action_t action, std::vector<action_t> *path)
{
    search->result->transitions++;
    (void)apply(search->world, action);
    path->push_back(action);
    if (search->world->violation != VIOLATION_NONE)
        return fail(search, path);
    bool ends = action.op == OP_BIND || action.op == OP_HEAL;
    int faults = search->states[from].faults + (is_fault(action.op) && !ends ? 1 : 0);
    uint64_t hash = world_hash(search->world) + (uint64_t)faults * 0x51ED27;
    if (!search->known.insert(hash).second) {
        path->pop_back();
        return true;
    }
    search->states.push_back({from, action, (uint8_t)(search->states[from].depth + 1), (uint8_t)faults});
    uint32_t took = calm_down(search->world);
    if (search->world->violation != VIOLATION_NONE)
        return fail(search, path);
    if (took > search->result->longest)
        search->result->longest = took;
    path->pop_back();
    return true;
}

static bool expand(search_t *search, uint32_t state)
{
    std::vector<action_t> path = path_to(search, state);
    run_path(search, &path);
    std::vector<action_t> actions = next_actions(search, search->states[state].faults);
    for (size_t i = 0; i < actions.size(); i++) {
        if (i != 0)
            run_path(search, &path);
        if (!visit(search, state, actions[i], &path))
            return false;
    }
    return true;
}

static void add_place(config_t *config, int place, uint32_t app, uint32_t peer, bool server)
{
    config->place[place].node = (uint32_t)place + 1;
    config->place[place].ver = 2;
    config->place[place].app[0].app = app;
    config->place[place].app[0].server = server;
    config->place[place].app[0].peer[0] = peer;
}

// Lets everything happen in its order, until nothing more can happen.
static void get_online(search_t *search)
{
    run_path(search, &search->prefix);
    for (;;) {
        action_t action;
        uint32_t when = next_by_itself(search->world, ORDER_EARLIEST, &action);
        uint32_t expiry = next_timer(search->world);
        if (when == NEVER && expiry == NEVER)
            return;
        if (when == NEVER)
            action = {OP_WAIT, 0, 0, 0, expiry - search->world->now};
        (void)apply(search->world, action);
        search->prefix.push_back(action);
    }
}

// Begins with two processes that have just started, or that are online. False to end the search.
static bool search_from(search_t *search, bool online)
{
    search->config = {};
    add_place(&search->config, 0, 10, 20, true);
    add_place(&search->config, 1, 20, 10, false);
    search->config.untimed = true;
    search->prefix = {{OP_START, 0, 0, 0, 0}, {OP_START, 2, 0, 0, 0}};
    if (online)
        get_online(search);
    search->states.assign(1, {0, {OP_WAIT, 0, 0, 0, 0}, 0, 0});
    search->known.clear();
    bool good = true;
    for (uint32_t i = 0; i < search->states.size() && good; i++) {
        if (search->states[i].depth < search->options->depth)
            good = expand(search, i);
        search->result->depth = search->states[i].depth;
    }
    search->result->states += search->states.size();
    return good;
}

exhaustive_result_t exhaustive_explore(world_t *world, const exhaustive_options_t *options)
{
    exhaustive_result_t result = {};
    double begin = seconds_now();
    search_t search = {world, options, {}, {}, {}, {}, &result};
    (void)(search_from(&search, false) && search_from(&search, true));
    result.seconds = seconds_now() - begin;
    return result;
}
