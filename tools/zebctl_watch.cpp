// zebctl watch: who joins, quits, is blocked and goes on, as it happens.
//
// The zebd of this node tells all of it. Without one the topology service tells joins and quits, and the instances are
// asked in an interval whom they wait for; each time in a session of its own, so that application 1 is free meanwhile.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "zebctl_look.h"
#include "zebctl_text.h"

constexpr int64_t BEGIN_TIME = 300; // ms that the service has at once to say what is there; it is tried again
constexpr int64_t TURN = 100;       // ms after which a signal is noticed at the latest, unless instances are asked

typedef struct watch_options_s {
    zebctl_target_t target;
    uint64_t count = 0;  // events; 0: without end
    double time = 0;     // seconds; 0: without end
    double interval = 5; // seconds between two questions to instances
    double past = 0;     // seconds
} watch_options_t;

typedef std::map<std::pair<uint32_t, uint32_t>, int32_t> blocked_t; // by sender and receiver: unacknowledged

typedef struct watch_s {
    const zebctl_t *zebctl;
    const watch_options_t *options;
    ops_session_t session; // that follows
    blocked_t blocked;     // that were reported, and not since that they go on
    uint64_t events;       // shown
    int64_t next_look;     // ms of CLOCK_MONOTONIC
    int64_t end;
    int64_t since;
    bool said;       // by what it follows
    bool by_zebd;    // as was said last
    std::string why; // the instances could not be asked, as was said last
} watch_t;

static const char *kind_text(ops_event_kind_t kind)
{
    static const char *const texts[] = {"", "joined", "quit", "blocked", "unblocked", "lost"};
    return texts[kind];
}

static bool is_pair(const ops_event_t &event)
{
    return event.kind == OPS_EVENT_BLOCKED || event.kind == OPS_EVENT_UNBLOCKED;
}

static void print_json(const ops_event_t &event)
{
    json_t record = {{"type", "zeb.event.1"}, {"at_ms", event.at}, {"event", kind_text(event.kind)}};
    if (event.kind != OPS_EVENT_LOST) {
        record["app"] = event.inst.app;
        record["node"] = event.inst.node;
    }
    if (is_pair(event)) {
        record["peer_app"] = event.peer.app;
        record["peer_node"] = event.peer.node;
        record["unacknowledged_messages"] = event.unack;
    }
    zebctl_print_line(record);
}

static void print_text(const ops_event_t &event)
{
    std::string line = zebctl_moment_text(event.at) + "  " + kind_text(event.kind);
    if (event.kind == OPS_EVENT_LOST)
        line += "  the zebd went away or was slow: events may be missing here";
    else
        line += "  " + ops_inst_text(event.inst);
    if (is_pair(event))
        line += " -> " + ops_inst_text(event.peer) + "  unacknowledged " + std::to_string(event.unack);
    printf("%s\n", line.c_str());
    (void)fflush(stdout); // a reader waits for it
}

static bool wanted(const watch_t *watch, const ops_event_t &event)
{
    const zebctl_target_t &target = watch->options->target;
    auto matches = [&](ops_inst_t inst) {
        return (!target.app || *target.app == inst.app) && (!target.node || *target.node == inst.node);
    };
    // Who asks is application 1, each time that it asks.
    if (event.kind != OPS_EVENT_LOST && event.inst.app == ZEBD_APP_ID && !target.app)
        return false;
    return event.kind == OPS_EVENT_LOST || matches(event.inst) || (is_pair(event) && matches(event.peer));
}

static void show(watch_t *watch, const ops_event_t &event)
{
    if (!wanted(watch, event))
        return;
    watch->events++;
    if (watch->zebctl->json)
        print_json(event);
    else
        print_text(event);
}

// Keeps who is blocked: after the zebd has gone away, the instances tell the rest.
static void take(watch_t *watch, const ops_event_t &event)
{
    std::pair<uint32_t, uint32_t> pair = {ops_name_of(event.inst), ops_name_of(event.peer)};
    if (event.kind == OPS_EVENT_BLOCKED)
        watch->blocked[pair] = event.unack;
    else if (event.kind == OPS_EVENT_UNBLOCKED)
        watch->blocked.erase(pair);
    show(watch, event);
}

static bool full(const watch_t *watch)
{
    return watch->options->count != 0 && watch->events >= watch->options->count;
}

static void change(watch_t *watch, ops_event_kind_t kind, std::pair<uint32_t, uint32_t> pair, int32_t unack)
{
    if (!full(watch))
        take(watch, {ops_wall(), kind, ops_inst_of(pair.first), ops_inst_of(pair.second), unack});
}

// What has changed since the last look. Of a sender that did not answer in full nothing is known.
static void compare(watch_t *watch, const zebctl_look_t &look)
{
    ops_looks_t looks = zebctl_looks_of(look);
    ops_blocked_t now = ops_blocked(looks, looks, {});
    blocked_t full_now;
    std::map<uint32_t, bool> unsure;
    for (const ops_edge_t &edge : now.edges)
        full_now[{ops_name_of(edge.sender), ops_name_of(edge.receiver)}] = edge.unack;
    for (ops_inst_t inst : now.unsure)
        unsure[ops_name_of(inst)] = true;
    blocked_t before = watch->blocked;
    for (const auto &[pair, unack] : before) {
        if (full_now.count(pair) == 0 && unsure.count(pair.first) == 0)
            change(watch, OPS_EVENT_UNBLOCKED, pair, 0);
    }
    for (const auto &[pair, unack] : full_now) {
        if (before.count(pair) == 0)
            change(watch, OPS_EVENT_BLOCKED, pair, unack);
    }
}

static void say_why(watch_t *watch, const std::string &why)
{
    if (why != watch->why)
        fprintf(stderr, "zebctl: who is blocked is not known: %s\n", why.c_str());
    watch->why = why;
}

static void ask_instances(watch_t *watch)
{
    watch->next_look = ops_now() + (int64_t)(watch->options->interval * 1000);
    zebctl_look_t look = zebctl_look(watch->zebctl, {});
    if (look.code != ZEBCTL_OK && look.code != ZEBCTL_NOBODY)
        return say_why(watch, look.why);
    if (!watch->why.empty())
        fprintf(stderr, "zebctl: who is blocked is asked again\n");
    watch->why.clear();
    compare(watch, look);
}

static void say_source(watch_t *watch)
{
    watch->by_zebd = watch->session.by_zebd;
    watch->said = true;
    if (watch->by_zebd)
        fprintf(stderr, "zebctl: follows the zebd of node %u\n", watch->session.node);
    else
        fprintf(stderr,
                "zebctl: no zebd answers on node %u: joins and quits are from the topology service, and instances are "
                "asked each %g s who is blocked\n",
                watch->session.node, watch->options->interval);
}

static bool follows(const watch_t *watch)
{
    return watch->session.follows_view || watch->session.follows_zebd;
}

// What has an end: the wait for an event, or, before it follows, for the service to say what is there.
static int64_t turn_end(const watch_t *watch)
{
    if (!follows(watch))
        return ops_now() + BEGIN_TIME;
    return std::min({ops_now() + TURN, watch->end, watch->session.by_zebd ? watch->end : watch->next_look});
}

// The next event, or the next question to the instances. 0 or a negative errno value.
static int turn(watch_t *watch)
{
    ops_event_t event = {};
    int ret = ops_session_event(&watch->session, watch->since, &event, turn_end(watch));
    if (ret == 0)
        take(watch, event);
    if (ret != 0 && ret != -ETIMEDOUT)
        return ret;
    if (!follows(watch))
        return 0;
    if (!watch->said || watch->by_zebd != watch->session.by_zebd)
        say_source(watch);
    if (ret != 0 && !watch->session.by_zebd && ops_now() >= watch->next_look)
        ask_instances(watch);
    return 0;
}

static int follow(watch_t *watch)
{
    while (!full(watch) && ops_now() < watch->end && !zebctl_stopped()) {
        int ret = turn(watch);
        if (ret == 0)
            continue;
        fprintf(stderr, "zebctl: %s\n", watch->session.why.empty() ? strerror(-ret) : watch->session.why.c_str());
        return ZEBCTL_ERROR;
    }
    bool missed = watch->options->count != 0 && !full(watch) && !zebctl_stopped();
    return missed ? ZEBCTL_TIMED_OUT : ZEBCTL_OK;
}

static int run(const zebctl_t *zebctl, const watch_options_t &options)
{
    auto watch = watch_t();
    watch.zebctl = zebctl;
    watch.options = &options;
    watch.next_look = ops_now();
    watch.end = INT64_MAX;
    if (options.time != 0)
        watch.end = ops_now() + (int64_t)(options.time * 1000);
    if (options.past != 0)
        watch.since = ops_wall() - (int64_t)(options.past * 1000);
    zebctl_catch_signals();
    int ret = ops_session_open(&watch.session, ops_now() + ZEBCTL_VIEW_TIME);
    if (ret != 0) {
        fprintf(stderr, "zebctl: %s\n", watch.session.why.c_str());
        return ZEBCTL_ERROR;
    }
    int code = follow(&watch);
    ops_session_close(&watch.session);
    return code;
}

void zebctl_add_watch(CLI::App *app, zebctl_t *zebctl)
{
    static watch_options_t options;
    CLI::App *command = app->add_subcommand("watch", "joins, quits and blocked senders, as they happen");
    zebctl_add_filters(command, &options.target);
    command->add_option("--count", options.count, "end after this many events")->type_name("N");
    command->add_option("--for", options.time, "end after this many seconds")
        ->check(CLI::Range(0.001, 1e9))
        ->type_name("S");
    command->add_option("--interval", options.interval, "without a zebd: seconds between two questions (5)")
        ->check(CLI::Range(0.001, 3600.0))
        ->type_name("S");
    command->add_option("--past", options.past, "with a zebd: the events of the last seconds first")
        ->check(CLI::Range(0.001, 1e9))
        ->type_name("S");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
