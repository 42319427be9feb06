// zeb_explore: shows that the handshake's core converges, whatever faults come before the last one.
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <getopt.h>
#include <sstream>

#include "exhaustive.h"
#include "random.h"

typedef struct options_s {
    random_options_t random;
    std::string mode;
    std::string replay;
    exhaustive_options_t exhaustive;
    bool only; // all faults are left out but those that are named
    bool verbose;
    bool help;
} options_t;

static void usage()
{
    printf(
        "zeb_explore: the handshake's core against a model of TIPC\n"
        "  --mode random|exhaustive|all   (all)\n"
        "  --seconds N   random: end after so long (10)\n"
        "  --steps N     random: end after so many steps\n"
        "  --seed S      random: of the first run (1)\n"
        "  --places N    random: at most so many processes at once, 2 to 4 (4)\n"
        "  --apps N      random: at most so many applications of a process, 1 or 2 (2)\n"
        "  --without F   random: without a fault: start, kill, cut, lose, pick (overlap), unbind, fail-timer, ...\n"
        "  --with F      with a fault that is left out otherwise: fail-timer (on an open connection), fail-ack, pick (two\n"
        "                processes under one name at once)\n"
        "  --only F      random: only that fault, or that and others so named\n"
        "  --together    random: overlaps and lost connections, lost names and failed sends in the same runs\n"
        "  --own         random: applications also name themselves, or run on several nodes\n"
        "  --one-way     random: applications also name others that do not name them\n"
        "  --notconn     random: a timer's start on a lost connection says -ENOTCONN, never -1\n"
        "  --slow        random: every message takes 2.6 s\n"
        "  --old         random: some processes are of version 1\n"
        "  --finds N     random: go on until so many violations, and print the shortest script (1)\n"
        "  --violation V random: other violations than this one do not count\n"
        "  --depth D     exhaustive: so many actions in a row (8)\n"
        "  --faults N    exhaustive: at most so many of them faults (1)\n"
        "  --go-on       exhaustive: count all violations, do not end with the first\n"
        "  --replay F    run a script, and compare with what it expects\n"
        "  --verbose     replay: tell all\n"
        "  --help\n");
}

// The fault's bit; 0 for an unknown word.
static uint32_t fault_bit(const std::string &word)
{
    for (int op = 0; op < OP_NUM; op++) {
        std::string text = action_text({(op_t)op, 0, 0, 0, 0});
        if (text.substr(0, text.find(' ')) == word)
            return 1u << op;
    }
    return 0;
}

static int replay(world_t *world, const options_t *options)
{
    std::ifstream file(options->replay);
    std::stringstream text;
    text << file.rdbuf();
    script_t script;
    std::string error;
    if (!file || !script_parse(text.str(), &script, &error)) {
        fprintf(stderr, "zeb_explore: %s: %s\n", options->replay.c_str(), file ? error.c_str() : "cannot be read");
        return 2;
    }
    world->verbose = options->verbose;
    uint32_t took = script_run(world, &script);
    bool same = world->violation == script.expected;
    printf("%s: %s%s%s, expected %s; last message of a core %u ms after the last fault\n", options->replay.c_str(),
           violation_text(world->violation), world->text[0] != '\0' && world->violation != VIOLATION_NONE ? ": " : "",
           world->violation != VIOLATION_NONE ? world->text : "", violation_text(script.expected), took);
    return same ? 0 : 1;
}

static int run_random(world_t *world, const options_t *options)
{
    random_result_t result = random_explore(world, &options->random);
    printf("random: seed %" PRIu64 ", %" PRIu64 " runs, %" PRIu64 " steps, %" PRIu64
           " messages of cores, %.1f s, %.0f steps/s\n",
           options->random.seed, result.runs, result.steps, result.sends, result.seconds,
           (double)result.steps / result.seconds);
    if (result.found == 0) {
        printf("random: no violation; the longest time from the last fault to the last message was %.1f s\n",
               (double)result.longest / 1000);
        return 0;
    }
    printf("random: the first violation after %" PRIu64 " runs, %" PRIu64
           " steps, %.2f s; the shortest of %d, seed %" PRIu64 ": %s: %s\n%s",
           result.first_runs, result.first_steps, result.first_seconds, result.found, result.run_seed,
           violation_text(result.script.expected), result.text.c_str(), script_text(&result.script).c_str());
    return 1;
}

static int run_exhaustive(world_t *world, const options_t *options)
{
    exhaustive_result_t result = exhaustive_explore(world, &options->exhaustive);
    printf("exhaustive: to depth %d with at most %d faults: %" PRIu64 " states, %" PRIu64 " transitions, %.1f s\n",
           result.depth, options->exhaustive.faults, result.states, result.transitions, result.seconds);
    if (!result.failed) {
        printf("exhaustive: no violation; the longest time from a state to the last message was %.1f s\n",
               (double)result.longest / 1000);
        return 0;
    }
    for (int i = 1; i < VIOLATION_NUM; i++) {
        if (result.found[i] != 0)
            printf("exhaustive: %" PRIu64 " states: %s\n", result.found[i], violation_text((violation_t)i));
    }
    printf("exhaustive: %s: %s\n%s", violation_text(result.script.expected), result.text.c_str(),
           script_text(&result.script).c_str());
    return 1;
}

// The setter of an option: false when its argument is not valid.
typedef bool (*set_t)(options_t *options, const char *arg);

typedef struct known_option_s {
    const char *name;
    int has_arg;
    set_t set;
} known_option_t;

static bool set_int(const char *arg, int min, int max, int *value)
{
    *value = (int)strtol(arg, nullptr, 10);
    return *value >= min && *value <= max;
}

static bool set_mode(options_t *options, const char *arg)
{
    options->mode = arg;
    return options->mode == "random" || options->mode == "exhaustive" || options->mode == "all";
}

static bool set_violation(options_t *options, const char *arg)
{
    for (int i = 1; i < VIOLATION_NUM; i++) {
        if (strcmp(arg, violation_text((violation_t)i)) == 0)
            options->random.only = (violation_t)i;
    }
    return options->random.only != VIOLATION_NONE;
}

static bool set_without(options_t *options, const char *arg)
{
    options->random.without |= fault_bit(arg);
    return fault_bit(arg) != 0;
}

static bool set_with(options_t *options, const char *arg)
{
    options->random.without &= ~fault_bit(arg);
    return fault_bit(arg) != 0;
}

static bool set_only(options_t *options, const char *arg)
{
    if (!options->only)
        options->random.without = UINT32_MAX;
    options->only = true;
    return set_with(options, arg);
}

template <bool random_options_t::*FLAG>
static bool set_random_flag(options_t *options, const char *)
{
    options->random.*FLAG = true;
    return true;
}

static const known_option_t s_known[] = {
    {"seconds", required_argument,
     [](options_t *options, const char *arg) {
         options->random.seconds = strtod(arg, nullptr);
         return true;
     }},
    {"steps", required_argument,
     [](options_t *options, const char *arg) {
         options->random.steps = strtoull(arg, nullptr, 10);
         return true;
     }},
    {"seed", required_argument,
     [](options_t *options, const char *arg) {
         options->random.seed = strtoull(arg, nullptr, 10);
         return true;
     }},
    {"places", required_argument,
     [](options_t *options, const char *arg) { return set_int(arg, 2, PLACE_NUM, &options->random.places); }},
    {"apps", required_argument,
     [](options_t *options, const char *arg) { return set_int(arg, 1, APP_NUM, &options->random.apps); }},
    {"finds", required_argument,
     [](options_t *options, const char *arg) { return set_int(arg, 1, INT_MAX, &options->random.finds); }},
    {"depth", required_argument,
     [](options_t *options, const char *arg) { return set_int(arg, 1, INT_MAX, &options->exhaustive.depth); }},
    {"faults", required_argument,
     [](options_t *options, const char *arg) { return set_int(arg, 0, INT_MAX, &options->exhaustive.faults); }},
    {"mode", required_argument, set_mode},
    {"violation", required_argument, set_violation},
    {"without", required_argument, set_without},
    {"with", required_argument, set_with},
    {"only", required_argument, set_only},
    {"together", no_argument, set_random_flag<&random_options_t::together>},
    {"own", no_argument, set_random_flag<&random_options_t::own>},
    {"one-way", no_argument, set_random_flag<&random_options_t::one_way>},
    {"notconn", no_argument, set_random_flag<&random_options_t::notconn>},
    {"slow", no_argument, set_random_flag<&random_options_t::slow>},
    {"old", no_argument, set_random_flag<&random_options_t::old_peers>},
    {"go-on", no_argument, [](options_t *options, const char *) { return options->exhaustive.go_on = true; }},
    {"replay", required_argument,
     [](options_t *options, const char *arg) {
         options->replay = arg;
         return true;
     }},
    {"verbose", no_argument, [](options_t *options, const char *) { return options->verbose = true; }},
    {"help", no_argument, [](options_t *options, const char *) { return options->help = true; }},
};

static bool parse_options(int argc, char **argv, options_t *options)
{
    std::vector<struct option> known;
    for (const known_option_t &option : s_known)
        known.push_back({option.name, option.has_arg, nullptr, 0});
    known.push_back({nullptr, 0, nullptr, 0});
    int option = 0;
    int found = 0;
    while ((found = getopt_long(argc, argv, "", known.data(), &option)) != -1) {
        if (found != 0 || !s_known[option].set(options, optarg))
            return false;
    }
    return optind == argc;
}

int main(int argc, char **argv)
{
    options_t options = {};
    options.random.seed = 1;
    options.random.places = PLACE_NUM;
    options.random.apps = APP_NUM;
    options.mode = "all";
    options.random.finds = 1;
    // After two of these faults a pair may stay offline, by design: a timer that fails stays marked as pending for the
    // life of its connection, so nothing is sent again; and only a peer that retries repeats a synchronisation whose
    // acknowledgement could not be sent. OP_PICK needs two processes under one name.
    options.random.without = 1u << OP_FAIL_TIMER | 1u << OP_FAIL_ACK | 1u << OP_PICK;
    options.exhaustive.depth = 8;
    options.exhaustive.faults = 1;
    if (!parse_options(argc, argv, &options)) {
        usage();
        return 2;
    }
    if (options.help) {
        usage();
        return 0;
    }
    if (options.random.seconds <= 0 && options.random.steps == 0)
        options.random.seconds = 10;
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    world_t *world = world_new();
    int status = 0;
    options.exhaustive.without = options.random.without;
    if (!options.replay.empty())
        status = replay(world, &options);
    if (options.replay.empty() && options.mode != "random")
        status |= run_exhaustive(world, &options);
    if (options.replay.empty() && options.mode != "exhaustive")
        status |= run_random(world, &options);
    world_free(world);
    return status;
}
