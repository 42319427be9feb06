// Seeded random worlds with random faults.
#ifndef EXPLORE_RANDOM_H
#define EXPLORE_RANDOM_H

#include "script.h"

typedef struct random_options_s {
    uint64_t seed;
    uint64_t steps;   // end after so many; 0: no limit
    double seconds;   // likewise
    int finds;        // end after so many violations; the shortest script is kept
    violation_t only; // other violations do not count; VIOLATION_NONE: all do
    uint32_t without; // faults left out: bits of op_t
    bool old_peers;   // some processes are of version 1
    bool own;         // applications that name themselves, or run on several nodes
    bool one_way;     // applications that name others which do not name them
    bool notconn;     // a timer's start on a lost connection says -ENOTCONN, never -1
    bool slow;        // every message takes at least 2.6 s
    bool together;    // overlaps and other faults in the same runs
    int places;       // at most
    int apps;         // of a place, at most
} random_options_t;

typedef struct random_result_s {
    uint64_t runs;
    uint64_t steps;
    uint64_t sends; // of cores
    double seconds;
    uint32_t longest;    // ms from the end of faults to a core's last message
    int found;           // violations
    uint64_t first_runs; // until the first one
    uint64_t first_steps;
    double first_seconds;
    uint64_t run_seed; // of the run with the violation
    std::string text;
    script_t script; // shrunk
} random_result_t;

random_result_t random_explore(world_t *world, const random_options_t *options);

double seconds_now();

#endif
