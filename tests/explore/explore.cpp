// zeb_explore: shows that the handshake's core converges, whatever happens before faults stop.
#include <cinttypes>
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
    bool only; // the faults left out are all but those named
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

static bool parse_option(int option, options_t *options)
{
    uint32_t bit = 0;
    switch (option) {
    case 's':
        options->random.seconds = strtod(optarg, nullptr);
        return true;
    case 'n':
        options->random.steps = strtoull(optarg, nullptr, 10);
        return true;
    case 'S':
        options->random.seed = strtoull(optarg, nullptr, 10);
        return true;
    case 'p':
        options->random.places = (int)strtol(optarg, nullptr, 10);
        return options->random.places >= 2 && options->random.places <= PLACE_NUM;
    case 'a':
        options->random.apps = (int)strtol(optarg, nullptr, 10);
        return options->random.apps >= 1 && options->random.apps <= APP_NUM;
    case 'w':
        bit = fault_bit(optarg);
        options->random.without |= bit;
        return bit != 0;
    case 'O':
        bit = fault_bit(optarg);
        options->random.without = (options->only ? options->random.without : UINT32_MAX) & ~bit;
        options->only = true;
        return bit != 0;
    case 'i':
        bit = fault_bit(optarg);
        options->random.without &= ~bit;
        return bit != 0;
    case 't':
        options->random.together = true;
        return true;
    case 'W':
        options->random.own = true;
        return true;
    case 'c':
        options->random.notconn = true;
        return true;
    case 'V':
        for (int i = 1; i < VIOLATION_NUM; i++) {
            if (strcmp(optarg, violation_text((violation_t)i)) == 0)
                options->random.only = (violation_t)i;
        }
        return options->random.only != VIOLATION_NONE;
    case 'g':
        options->exhaustive.go_on = true;
        return true;
    case 'y':
        options->random.one_way = true;
        return true;
    case 'l':
        options->random.slow = true;
        return true;
    case 'o':
        options->random.old_peers = true;
        return true;
    case 'm':
        options->mode = optarg;
        return options->mode == "random" || options->mode == "exhaustive" || options->mode == "all";
    case 'd':
        options->exhaustive.depth = (int)strtol(optarg, nullptr, 10);
        return options->exhaustive.depth > 0;
    case 'f':
        options->exhaustive.faults = (int)strtol(optarg, nullptr, 10);
        return options->exhaustive.faults >= 0;
    case 'N':
        options->random.finds = (int)strtol(optarg, nullptr, 10);
        return options->random.finds > 0;
    case 'r':
        options->replay = optarg;
        return true;
    case 'v':
        options->verbose = true;
        return true;
    case 'h':
        options->help = true;
        return true;
    default:
        return false;
    }
}

static bool parse_options(int argc, char **argv, options_t *options)
{
    static const struct option known[] = {
        {"seconds", required_argument, nullptr, 's'}, {"steps", required_argument, nullptr, 'n'},
        {"seed", required_argument, nullptr, 'S'},    {"places", required_argument, nullptr, 'p'},
        {"apps", required_argument, nullptr, 'a'},    {"without", required_argument, nullptr, 'w'},
        {"only", required_argument, nullptr, 'O'},    {"with", required_argument, nullptr, 'i'},
        {"help", no_argument, nullptr, 'h'},          {"together", no_argument, nullptr, 't'},
        {"own", no_argument, nullptr, 'W'},           {"one-way", no_argument, nullptr, 'y'},
        {"notconn", no_argument, nullptr, 'c'},       {"violation", required_argument, nullptr, 'V'},
        {"go-on", no_argument, nullptr, 'g'},         {"slow", no_argument, nullptr, 'l'},
        {"old", no_argument, nullptr, 'o'},           {"mode", required_argument, nullptr, 'm'},
        {"depth", required_argument, nullptr, 'd'},   {"faults", required_argument, nullptr, 'f'},
        {"finds", required_argument, nullptr, 'N'},   {"replay", required_argument, nullptr, 'r'},
        {"verbose", no_argument, nullptr, 'v'},       {nullptr, 0, nullptr, 0},
    };
    int option = 0;
    while ((option = getopt_long(argc, argv, "", known, nullptr)) != -1) {
        if (!parse_option(option, options))
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
    // A timer that fails stays marked as pending for the life of its connection: nothing is then sent again on it. And
    // what could not be acknowledged is asked once more only by a peer that retries.
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
