// zeb_explore_growth: how the handshake's cost grows with the number of instances that start at once. The cores run in
// one process and in virtual time: instances of one application, each on a node of its own, that bind their names at
// time 0. The program replaces the library's shell: a core reads its topology connection and its socket in turns, each
// in order; the two are not ordered with each other; what an effect may do later is done after the event.
//
// A step is 1 ms, and a message takes at least one step. Within a step the cores do not depend on each other, so each
// does all its work before the next one, and finds its records in the cache. All messages take the same time, and all
// timers of a type, so every queue is ordered by time.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <getopt.h>
#include <sys/resource.h>
#include <vector>

#include <algorithm>

#include "zeb_handshake.h"

constexpr uint32_t APP = 100;
constexpr uint32_t NEVER = UINT32_MAX;
constexpr uint32_t INSTANCE_NUM_MAX = 10000;
constexpr uint32_t TIME_LIMIT = 3600 * 1000; // ms, of virtual time
constexpr uint32_t STEP = 1000;              // µs

typedef struct options_s {
    uint32_t instances;
    uint32_t delay; // of a message, ms
    uint32_t work;  // of what is read, a message or an event, µs
    uint32_t skew;  // most delay of a report, ms
    uint64_t seed;
    bool json;
} options_t;

typedef enum kind_e : uint8_t {
    KIND_SYNC,
    KIND_RESUME, // a SYNC_INST that asks the peer to begin anew
    KIND_ACK,
} kind_t;

typedef struct message_s {
    uint32_t due;
    uint32_t seq;
    uint32_t pseq; // of an acknowledgement
    uint16_t src;
    kind_t kind;
} message_t;

typedef struct later_s {
    message_t message;
    uint32_t dst;
} later_t;

typedef struct report_s {
    uint32_t due;
    uint32_t node;
} report_t;

typedef struct pending_timer_s {
    uint32_t due;
    uint32_t seq;
} pending_timer_t;

struct world_s;

// Node i + 1 and process id i + 1 are those of core i.
typedef struct core_s {
    struct world_s *world;
    zeb_handshake_t hs;
    uint32_t index;
    uint32_t seq;
    uint64_t busy; // the core works until then, µs
    bool socket_next;
    size_t reports_read;
    std::vector<report_t> reports;
    std::deque<message_t> socket;
    std::deque<pending_timer_t> timer[ZEB_TIMER_TYPE_NUM];
} core_t;

typedef struct world_s {
    options_t options;
    uint32_t now;
    std::vector<core_t> core;
    std::vector<later_t> later;   // of the present event
    std::vector<uint32_t> joined; // time of each pair's join; NEVER: it is not online
    uint64_t syncs;               // SYNC_INSTs that were sent for the first time
    uint64_t again;               // and again
    uint64_t acks;
    uint64_t quits;
    uint32_t last_message; // when it was sent
    size_t longest;        // most messages that waited in one socket
} world_t;

// Effects.

static core_t *core_of(void *ctx)
{
    return (core_t *)ctx;
}

static uint32_t *joined_at(const core_t *core, zeb_inst_t peer)
{
    world_t *world = core->world;
    return &world->joined[(size_t)core->index * world->options.instances + peer.node - 1];
}

static uint32_t get_seq(void *ctx)
{
    return ++core_of(ctx)->seq;
}

static uint32_t get_id(void *ctx)
{
    return core_of(ctx)->index + 1;
}

static bool is_server(void *, uint32_t)
{
    return true;
}

static int start_timer(void *ctx, unsigned seconds, zeb_timer_t timer)
{
    core_t *core = core_of(ctx);
    core->timer[timer.type].push_back({core->world->now + seconds * 1000, timer.seq});
    return 0;
}

static void put_message(world_t *world, uint32_t dst, const message_t *message)
{
    core_t *to = &world->core[dst];
    to->socket.push_back(*message);
    world->longest = std::max(world->longest, to->socket.size());
    world->last_message = world->now;
}

static message_t new_message(const core_t *core, kind_t kind, uint32_t seq, uint32_t pseq)
{
    const world_t *world = core->world;
    return {world->now + world->options.delay, seq, pseq, (uint16_t)core->index, kind};
}

static message_t new_sync(const core_t *core, const zeb_msg_sync_inst_t *body)
{
    return new_message(core, body->resume != 0 ? KIND_RESUME : KIND_SYNC, body->seq, 0);
}

static int send_sync(void *ctx, uint32_t, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    core_t *core = core_of(ctx);
    message_t message = new_sync(core, body);
    core->world->syncs++;
    put_message(core->world, dst.node - 1, &message);
    return 0;
}

static void resend_sync(void *ctx, uint32_t, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    core_t *core = core_of(ctx);
    core->world->again++;
    core->world->later.push_back({new_sync(core, body), dst.node - 1});
}

static void send_ack(void *ctx, uint32_t, zeb_inst_t dst, const zeb_msg_sync_inst_ack_t *body)
{
    core_t *core = core_of(ctx);
    core->world->acks++;
    core->world->later.push_back({new_message(core, KIND_ACK, body->sync.seq, body->pseq), dst.node - 1});
}

// All names are bound from the beginning: no message is returned.
static int resend_ack(void *, const zeb_returned_ack_t *)
{
    return -ENOTSUP;
}

static void count(void *, zeb_hs_count_t, uint32_t, zeb_inst_t, int)
{
}

static void forget_peer(void *, uint32_t, zeb_inst_t, bool)
{
}

static void end_calls(void *, uint32_t, zeb_inst_t)
{
}

static void notify_join(void *ctx, uint32_t, zeb_inst_t peer)
{
    *joined_at(core_of(ctx), peer) = core_of(ctx)->world->now;
}

static void notify_quit(void *ctx, uint32_t, zeb_inst_t peer)
{
    *joined_at(core_of(ctx), peer) = NEVER;
    core_of(ctx)->world->quits++;
}

static void unsubscribe(void *, uint32_t)
{
}

static bool log_on(void *, zeb_dbg_level_t)
{
    return false;
}

static void log_line(void *, zeb_dbg_level_t, const char *, int, const char *, ...)
    __attribute__((format(printf, 5, 6)));

static void log_line(void *, zeb_dbg_level_t, const char *, int, const char *, ...)
{
}

static const zeb_hs_effects_t s_effects = {
    get_seq, get_id,      is_server, start_timer, send_sync,   resend_sync, send_ack, resend_ack,
    count,   forget_peer, end_calls, notify_join, notify_quit, unsubscribe, log_on,   log_line,
};

// The start.

static uint64_t next_random(uint64_t *state)
{
    *state ^= *state << 13;
    *state ^= *state >> 7;
    *state ^= *state << 17;
    return *state;
}

// An instance's own name is reported to it too.
static void draw_reports(core_t *core, uint64_t *rng)
{
    const options_t *options = &core->world->options;
    core->reports.reserve(options->instances);
    for (uint32_t node = 1; node <= options->instances; node++)
        core->reports.push_back({(uint32_t)(next_random(rng) % (options->skew + 1)), node});
    std::stable_sort(core->reports.begin(), core->reports.end(),
                     [](const report_t &a, const report_t &b) { return a.due < b.due; });
}

static void world_init(world_t *world, const options_t *options)
{
    uint64_t rng = options->seed * 0x9E3779B97F4A7C15ull;
    size_t num = options->instances;
    world->options = *options;
    world->core = std::vector<core_t>(num);
    world->joined.assign(num * num, NEVER);
    for (uint32_t i = 0; i < num; i++) {
        core_t *core = &world->core[i];
        core->world = world;
        core->index = i;
        core->seq = (uint32_t)(next_random(&rng) % 1000000);
        zeb_hs_init(&core->hs, &s_effects, core);
        zeb_hs_add_comm_app(&core->hs, APP, APP);
        draw_reports(core, &rng);
    }
}

// What a core reads.

// The timer that expires next, or null.
static std::deque<pending_timer_t> *next_timer(core_t *core)
{
    std::deque<pending_timer_t> *first = nullptr;
    for (std::deque<pending_timer_t> &timer : core->timer) {
        if (!timer.empty() && (first == nullptr || timer.front().due < first->front().due))
            first = &timer;
    }
    return first;
}

static uint32_t timer_due(core_t *core)
{
    const std::deque<pending_timer_t> *timer = next_timer(core);
    return timer == nullptr ? NEVER : timer->front().due;
}

static uint32_t report_due(const core_t *core)
{
    return core->reports_read == core->reports.size() ? NEVER : core->reports[core->reports_read].due;
}

static uint32_t topology_due(core_t *core)
{
    return std::min(timer_due(core), report_due(core));
}

static uint32_t socket_due(const core_t *core)
{
    return core->socket.empty() ? NEVER : core->socket.front().due;
}

// When a core has something to do next.
static uint32_t core_due(core_t *core)
{
    return std::max(std::min(topology_due(core), socket_due(core)), (uint32_t)(core->busy / STEP));
}

static void read_topology(core_t *core)
{
    if (report_due(core) <= timer_due(core)) {
        uint32_t node = core->reports[core->reports_read++].node;
        zeb_hs_published(&core->hs, {APP, node});
        return;
    }
    std::deque<pending_timer_t> *timers = next_timer(core);
    zeb_timer_t timer = {(uint32_t)(timers - core->timer), timers->front().seq};
    timers->pop_front();
    zeb_hs_timer(&core->hs, timer);
}

static void read_socket(core_t *core)
{
    constexpr uint8_t version = 2;
    message_t message = core->socket.front();
    core->socket.pop_front();
    zeb_inst_t peer = {APP, message.src + 1u};
    zeb_msg_sync_inst_ack_t body;
    body.sync = {message.seq, message.src + 1u, 1, message.kind == KIND_RESUME ? 1u : 0u, ZEB_SYNC_TTL};
    body.pseq = message.pseq;
    if (!zeb_hs_has_room_for_pair(&core->hs, APP, peer))
        return;
    if (message.kind == KIND_ACK)
        zeb_hs_recv_seq_ack(&core->hs, APP, peer, &body);
    else
        zeb_hs_recv_sync(&core->hs, APP, peer, version, &body.sync);
}

static void carry_out_later(world_t *world)
{
    for (const later_t &later : world->later)
        put_message(world, later.dst, &later.message);
    world->later.clear();
}

// Reads one message or event, in turns when both wait. False when neither waits, or no time is left in this step.
static bool read_one(core_t *core)
{
    world_t *world = core->world;
    uint64_t begin = std::max(core->busy, (uint64_t)world->now * STEP);
    bool topology = topology_due(core) <= world->now;
    bool socket = socket_due(core) <= world->now;
    if ((!topology && !socket) || begin >= ((uint64_t)world->now + 1) * STEP)
        return false;
    core->busy = begin + world->options.work;
    bool from_socket = socket && (core->socket_next || !topology);
    core->socket_next = !from_socket;
    if (from_socket)
        read_socket(core);
    else
        read_topology(core);
    carry_out_later(world);
    return true;
}

// Runs until nothing more can happen, so nothing more is sent. False at the limit of time.
static bool run(world_t *world)
{
    uint64_t rng = world->options.seed;
    size_t num = world->core.size();
    while (world->now < TIME_LIMIT) {
        size_t first = next_random(&rng) % num; // no core is always the first
        for (size_t i = 0; i < num; i++) {
            while (read_one(&world->core[(first + i) % num]))
                continue;
        }
        uint32_t next = NEVER;
        for (core_t &core : world->core)
            next = std::min(next, core_due(&core));
        if (next == NEVER)
            return true;
        world->now = next;
    }
    return false;
}

// The result.

// Pairs that are not online with a server, or whose join was not notified.
static uint64_t missing_pairs(const world_t *world)
{
    uint64_t missing = 0;
    for (const core_t &core : world->core) {
        zeb_app_set_t servers;
        zeb_hs_get_app_server(&core.hs, APP, &servers);
        for (uint32_t node = 1; node <= world->options.instances; node++) {
            bool joined = *joined_at(&core, {APP, node}) != NEVER;
            missing += joined && zeb_app_set_test(&servers, node) ? 0 : 1;
        }
    }
    return missing;
}

// Seconds after which so many of a thousand pairs were online. Changes the order of `joined`.
static double joined_after(std::vector<uint32_t> *joined, size_t share)
{
    size_t at = (joined->size() * share + 999) / 1000 - 1;
    std::nth_element(joined->begin(), joined->begin() + (ptrdiff_t)at, joined->end());
    return (double)(*joined)[at] / 1000;
}

static void report(world_t *world)
{
    const options_t *options = &world->options;
    double pairs = (double)options->instances * options->instances;
    uint64_t messages = world->syncs + world->again + world->acks;
    struct rusage usage;
    (void)getrusage(RUSAGE_SELF, &usage);
    double half = joined_after(&world->joined, 500);
    double most = joined_after(&world->joined, 990);
    double last = joined_after(&world->joined, 1000);
    const char *format =
        options->json
            ? "{\"instances\": %u, \"delay\": %u, \"work\": %u, \"skew\": %u, \"seed\": %" PRIu64
              ", \"messages\": %" PRIu64 ", \"sync\": %.3f, \"again\": %.3f, \"ack\": %.3f, \"quits\": %" PRIu64
              ", \"half\": %.3f, \"most\": %.3f, \"last\": %.3f, \"quiet\": %.3f, \"longest\": %zu, "
              "\"end\": %.3f, \"cpu\": %.2f, \"rss_mb\": %.0f}\n"
            : "%u instances, a message takes %u ms, reading it %u us, a report up to %u ms, seed %" PRIu64
              ": all online\n"
              "%" PRIu64 " messages; for each pair %.3f SYNC_INST, %.3f sent again, %.3f acknowledgements; %" PRIu64
              " quits\n"
              "online: half after %.3f s, 99 %% after %.3f s, all after %.3f s; the last message was sent at %.3f s\n"
              "at most %zu messages in a socket; %.3f s of virtual time, %.2f s of CPU time, %.0f MB\n";
    double cpu = (double)clock() / CLOCKS_PER_SEC;
    printf(format, options->instances, options->delay, options->work, options->skew, options->seed, messages,
           (double)world->syncs / pairs, (double)world->again / pairs, (double)world->acks / pairs, world->quits, half,
           most, last, (double)world->last_message / 1000, world->longest, (double)world->now / 1000, cpu,
           (double)usage.ru_maxrss / 1024);
}

static void usage()
{
    printf("zeb_explore_growth: instances of one application that start at once, the handshake's core alone\n"
           "  --instances N  (30)\n"
           "  --delay MS     of a message (1)\n"
           "  --work US      of an instance for each message and event that it reads (0)\n"
           "  --skew MS      a name is reported so late at most (200)\n"
           "  --seed S       of the reports' times (1)\n"
           "  --json         say it in one line of JSON\n");
}

static bool parse(int argc, char **argv, options_t *options)
{
    static const struct option words[] = {
        {"instances", required_argument, nullptr, 'n'},
        {"delay", required_argument, nullptr, 'd'},
        {"work", required_argument, nullptr, 'w'},
        {"skew", required_argument, nullptr, 's'},
        {"seed", required_argument, nullptr, 'r'},
        {"json", no_argument, nullptr, 'j'},
        {nullptr, 0, nullptr, 0},
    };
    int word = 0;
    while ((word = getopt_long(argc, argv, "", words, nullptr)) != -1) {
        if (word == '?')
            return false;
        uint32_t value = optarg == nullptr ? 0 : (uint32_t)strtoul(optarg, nullptr, 10);
        switch (word) {
        case 'n':
            options->instances = value;
            break;
        case 'd':
            options->delay = value;
            break;
        case 'w':
            options->work = value;
            break;
        case 's':
            options->skew = value;
            break;
        case 'r':
            options->seed = value;
            break;
        default:
            options->json = true;
        }
    }
    return optind == argc && options->instances > 0 && options->instances <= INSTANCE_NUM_MAX && options->delay > 0 &&
           options->seed > 0;
}

int main(int argc, char **argv)
{
    static world_t world;
    options_t options = {30, 1, 0, 200, 1, false};
    if (!parse(argc, argv, &options)) {
        usage();
        return 2;
    }
    world_init(&world, &options);
    bool quiet = run(&world);
    uint64_t missing = missing_pairs(&world);
    if (!quiet || missing != 0) {
        fprintf(stderr, "zeb_explore_growth: %s after %.1f s, %" PRIu64 " pairs of %u instances are not online\n",
                quiet ? "quiet" : "still busy", (double)world.now / 1000, missing, options.instances);
        return 1;
    }
    report(&world);
    for (core_t &core : world.core)
        zeb_hs_clear(&core.hs);
    return 0;
}
