#include "random.h"

#include <cstring>
#include <ctime>

double seconds_now()
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static uint32_t below(uint64_t *rng, uint32_t limit)
{
    return (uint32_t)((next_random(rng) >> 11) % limit);
}

static bool chance(uint64_t *rng, uint32_t percent)
{
    return below(rng, 100) < percent;
}

// Configurations.

static void random_place(uint64_t *rng, const random_options_t *options, int i, place_config_t *place)
{
    place->node = (uint32_t)i + 1;
    place->ver = options->old_peers && chance(rng, 30) ? 1 : 2;
    int apps = options->apps == 2 && chance(rng, 30) ? 2 : 1;
    for (int app = 0; app < apps; app++) {
        // Some applications run on several nodes.
        place->app[app].app = options->own && app == 0 && chance(rng, 20) ? 10 : 10 * (uint32_t)(name_of(i, app) + 2);
        place->app[app].server = chance(rng, 60);
    }
}

static void add_peer(app_config_t *app, uint32_t peer)
{
    for (uint32_t &slot : app->peer) {
        if (slot == peer)
            return;
        if (slot == 0) {
            slot = peer;
            return;
        }
    }
}

static void random_peers(uint64_t *rng, const random_options_t *options, config_t *config)
{
    for (int a = 0; a < NAME_NUM; a++) {
        app_config_t *first = &config->place[a / APP_NUM].app[a % APP_NUM];
        for (int b = a + 1; b < NAME_NUM && first->app != 0; b++) {
            app_config_t *second = &config->place[b / APP_NUM].app[b % APP_NUM];
            if (second->app == 0 || a / APP_NUM == b / APP_NUM || chance(rng, 15))
                continue;
            uint32_t way = options->one_way ? below(rng, 10) : 2;
            if (way != 0)
                add_peer(first, second->app);
            if (way != 1)
                add_peer(second, first->app);
        }
    }
}

static void random_config(uint64_t *rng, const random_options_t *options, config_t *config)
{
    static const uint32_t delays[] = {0, 10, 500, 3000, 6000};
    *config = {};
    int places = 2 + (int)below(rng, (uint32_t)options->places - 1);
    for (int i = 0; i < places; i++)
        random_place(rng, options, i, &config->place[i]);
    // Two processes of one node.
    if (chance(rng, 15) && config->place[0].app[0].app != config->place[1].app[0].app)
        config->place[1].node = 1;
    for (const place_config_t &place : config->place)
        config->early = config->early || place.app[1].app != 0;
    random_peers(rng, options, config);
    config->self = options->own && chance(rng, 25);
    config->delay_max = delays[below(rng, 5)];
    if (options->slow) {
        config->delay_min = 2600;
        config->delay_max = 2600;
    }
}

// A run. It records every action, as a script.

typedef struct run_s {
    world_t *world;
    const random_options_t *options;
    uint64_t rng;
    int places;
    uint32_t overlap_at; // last seen; 0: none yet
    uint32_t overlap_from;
    uint32_t without; // faults: bits of op_t
    std::vector<action_t> *actions;
} run_t;

static bool overlaps(const world_t *world)
{
    for (int proc = 0; proc < PROC_NUM; proc += 2) {
        if (world->proc[proc].alive && world->proc[proc + 1].alive)
            return true;
    }
    return false;
}

// How long a restarted process and the old one run at once, in ms. No event says which of the two has gone,
// and the peers ask only once more, after the resume time-out.
constexpr uint32_t OVERLAP_MAX = 50000;

static void end_overlap(run_t *run)
{
    for (int proc = 0; proc < PROC_NUM; proc += 2) {
        if (!run->world->proc[proc].alive || !run->world->proc[proc + 1].alive)
            continue;
        action_t action = {OP_KILL, (uint8_t)(proc + (chance(&run->rng, 50) ? 1 : 0)), 0, 0, 0};
        if (apply(run->world, action))
            run->actions->push_back(action);
    }
}

static void watch_overlap(run_t *run, action_t next)
{
    if (!overlaps(run->world)) {
        run->overlap_from = NEVER;
        return;
    }
    if (run->overlap_from == NEVER)
        run->overlap_from = run->world->now;
    run->overlap_at = run->world->now;
    if (next.op == OP_WAIT && run->world->now + next.value > run->overlap_from + OVERLAP_MAX)
        end_overlap(run);
}

static bool act(run_t *run, action_t action)
{
    watch_overlap(run, action);
    if (!apply(run->world, action))
        return false;
    run->actions->push_back(action);
    return true;
}

static void let_time_pass(run_t *run, uint32_t ms)
{
    if (ms != 0)
        (void)act(run, {OP_WAIT, 0, 0, 0, ms});
}

// A message to a process that has gone is read by another one, is lost, or is returned.
static action_t random_end(run_t *run, action_t action)
{
    action_t other = action;
    other.op = chance(&run->rng, 50) ? OP_REROUTE : OP_DROP;
    return chance(&run->rng, 60) && is_enabled(run->world, other) ? other : action;
}

static void step(run_t *run)
{
    action_t action;
    uint32_t when = next_by_itself(run->world, ORDER_DUE, &action);
    uint32_t expiry = next_timer(run->world);
    uint32_t now = run->world->now;
    if (when == NEVER && expiry == NEVER) {
        let_time_pass(run, 1 + below(&run->rng, 5000));
        return;
    }
    if (expiry < when) {
        let_time_pass(run, expiry > now ? expiry - now : 1);
        return;
    }
    let_time_pass(run, when > now ? when - now : 0);
    if (action.op == OP_RECV)
        action = random_end(run, action);
    (void)act(run, action);
}

static bool left_out(const run_t *run, op_t op)
{
    return (run->without >> op & 1) != 0;
}

static uint8_t random_proc(run_t *run)
{
    return (uint8_t)below(&run->rng, 2 * (uint32_t)run->places);
}

constexpr uint32_t OVERLAP_PERIOD = 20000; // ms from the end of an overlap to the next one

// One overlap at a time. With two, the second process of each place may know only the first of the other one, and no
// event says when both of these go.
static bool may_overlap(const run_t *run)
{
    return !left_out(run, OP_PICK) && !overlaps(run->world) &&
           (run->overlap_at == 0 || run->world->now - run->overlap_at >= OVERLAP_PERIOD);
}

// A process of a place starts, dies, or starts beside the other one.
static void start_or_kill(run_t *run)
{
    uint8_t index = random_proc(run);
    bool other_lives = run->world->proc[index ^ 1].alive;
    if (run->world->proc[index].alive) {
        if (!left_out(run, OP_KILL))
            (void)act(run, {OP_KILL, index, 0, 0, 0});
    } else if (!left_out(run, OP_START) && (!other_lives || may_overlap(run))) {
        (void)act(run, {OP_START, index, 0, 0, 0});
    }
    // In many restarts the successor starts in the same moment.
    if (other_lives || !run->world->proc[index].alive || !chance(&run->rng, 50))
        return;
    if (may_overlap(run))
        (void)act(run, {OP_START, (uint8_t)(index ^ 1), 0, 0, 0});
}

static void cut_or_heal(run_t *run, op_t op)
{
    if (left_out(run, OP_CUT))
        return;
    uint8_t a = (uint8_t)(1 + below(&run->rng, (uint32_t)run->places));
    uint8_t b = (uint8_t)(1 + below(&run->rng, (uint32_t)run->places));
    if (!act(run, {op, a, b, 0, 0}) || op != OP_CUT)
        return;
    // Some of what was still on the wire is lost with the link.
    for (int tries = (int)below(&run->rng, 8); tries > 0; tries--) {
        action_t lost = {OP_DROP_LAST, random_proc(run), random_proc(run), (uint8_t)below(&run->rng, APP_NUM), 0};
        (void)act(run, lost);
    }
}

static void send_some(run_t *run)
{
    // With two applications a message may bring a server online before it is known as a server. No join is notified
    // then.
    if (run->world->config.early)
        return;
    uint8_t from = (uint8_t)(random_proc(run) * APP_NUM + below(&run->rng, APP_NUM));
    (void)act(run, {OP_SEND, from, (uint8_t)below(&run->rng, NAME_NUM), 0, 0});
}

static void fault(run_t *run)
{
    static const op_t ops[] = {OP_START,    OP_START, OP_START, OP_KILL, OP_UNBIND,    OP_BIND,       OP_CUT,
                               OP_HEAL,     OP_LOSE,  OP_LOSE,  OP_LOSE, OP_FAIL_OPEN, OP_FAIL_TIMER, OP_FAIL_SEND,
                               OP_FAIL_ACK, OP_PICK,  OP_SEND,  OP_SEND, OP_SEND};
    op_t op = ops[below(&run->rng, sizeof(ops) / sizeof(ops[0]))];
    if (op == OP_START || op == OP_KILL) {
        start_or_kill(run);
        return;
    }
    if (op == OP_CUT || op == OP_HEAL) {
        cut_or_heal(run, op);
        return;
    }
    if (left_out(run, op))
        return;
    if (op == OP_SEND) {
        send_some(run);
        return;
    }
    uint8_t index = op == OP_PICK ? (uint8_t)below(&run->rng, (uint32_t)run->places) : random_proc(run);
    uint8_t value = (uint8_t)below(&run->rng, op == OP_LOSE ? 4 : 2);
    if (op == OP_LOSE && run->options->notconn)
        value |= LOSE_SAYS_NOTCONN;
    if (op == OP_FAIL_OPEN || op == OP_FAIL_TIMER || op == OP_FAIL_SEND || op == OP_FAIL_ACK)
        value = (uint8_t)(1 + below(&run->rng, 3));
    (void)act(run, {op, index, value, 0, 0});
}

static void run_faults(run_t *run)
{
    for (int place = 0; place < run->places; place++) {
        (void)act(run, {OP_START, (uint8_t)(2 * place), 0, 0, 0});
        let_time_pass(run, chance(&run->rng, 50) ? below(&run->rng, 3000) : 0);
    }
    // In half of the runs all pairs are online before the first fault.
    int steps = chance(&run->rng, 50) ? 60 : 0;
    for (; steps > 0 && run->world->violation == VIOLATION_NONE; steps--)
        step(run);
    uint32_t every = 2 + below(&run->rng, 20);
    for (steps = 10 + (int)below(&run->rng, 150); steps > 0 && run->world->violation == VIOLATION_NONE; steps--) {
        if (below(&run->rng, every) == 0)
            fault(run);
        step(run);
    }
}

static int place_num(const config_t *config)
{
    int num = 0;
    for (const place_config_t &place : config->place)
        num += place.node != 0 ? 1 : 0;
    return num;
}

// A run has either two processes at one name, or lost connections, withdrawn names and sends that fail. A peer that
// forgets a pair forgets which process had the name, and some orders of both leave it with a process that has gone.
static uint32_t without_in(uint64_t *rng, const random_options_t *options)
{
    constexpr uint32_t BESIDE_NO_OVERLAP = 1u << OP_LOSE | 1u << OP_FAIL_OPEN | 1u << OP_UNBIND | 1u << OP_FAIL_SEND;
    if (options->together)
        return options->without;
    return options->without | (chance(rng, 50) ? BESIDE_NO_OVERLAP : 1u << OP_PICK);
}

static uint32_t random_run(world_t *world, const random_options_t *options, uint64_t seed, script_t *script)
{
    uint64_t rng = seed * 0x9E3779B97F4A7C15ull + 1;
    for (int i = 0; i < 4; i++)
        (void)next_random(&rng);
    random_config(&rng, options, &script->config);
    script->actions.clear();
    world_init(world, &script->config);
    world->rng = next_random(&rng) | 1;
    run_t run = {world,           options, rng, place_num(&script->config), 0, NEVER, without_in(&rng, options),
                 &script->actions};
    run_faults(&run);
    world->rng = 0;
    return world->violation == VIOLATION_NONE ? calm_down(world) : 0;
}

static script_t shrink(world_t *world, const script_t *script, std::string *text)
{
    script_t shortest = *script;
    shortest.expected = world->violation;
    *text = world->text;
    (void)script_run(world, &shortest);
    if (world->violation != shortest.expected) {
        *text += " (and the script does not replay it)";
        return shortest;
    }
    shortest = script_shrink(world, &shortest);
    (void)script_run(world, &shortest);
    *text = world->text;
    return shortest;
}

static void count(const world_t *world, double begin, random_result_t *result)
{
    result->steps = world->steps;
    result->sends = world->core_sends;
    result->seconds = seconds_now() - begin;
}

static void note_find(world_t *world, uint64_t seed, const script_t *script, random_result_t *result)
{
    result->found++;
    if (result->found == 1) {
        result->first_runs = result->runs;
        result->first_steps = result->steps;
        result->first_seconds = result->seconds;
    }
    std::string text;
    script_t shortest = shrink(world, script, &text);
    if (result->found > 1 && shortest.actions.size() >= result->script.actions.size())
        return;
    result->run_seed = seed;
    result->text = text;
    result->script = shortest;
}

static bool is_over(const random_options_t *options, const random_result_t *result)
{
    return result->found >= options->finds || (options->steps != 0 && result->steps >= options->steps) ||
           (options->seconds > 0 && result->seconds >= options->seconds);
}

random_result_t random_explore(world_t *world, const random_options_t *options)
{
    random_result_t result = {};
    script_t script = {};
    double begin = seconds_now();
    world->steps = 0;
    world->core_sends = 0;
    do {
        uint64_t seed = options->seed + result.runs;
        uint32_t took = random_run(world, options, seed, &script);
        result.runs++;
        count(world, begin, &result);
        if (world->violation != VIOLATION_NONE && options->only != VIOLATION_NONE && world->violation != options->only)
            continue;
        if (world->violation != VIOLATION_NONE)
            note_find(world, seed, &script, &result);
        else if (took > result.longest)
            result.longest = took;
    } while (!is_over(options, &result));
    return result;
}
