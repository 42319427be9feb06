// Every order of events and every fault, between two processes, to a depth.
#ifndef EXPLORE_EXHAUSTIVE_H
#define EXPLORE_EXHAUSTIVE_H

#include "script.h"

typedef struct exhaustive_options_s {
    int depth;        // actions in a row
    int faults;       // of them, at most
    uint32_t without; // faults left out: bits of op_t
    bool go_on;       // count violations, do not end with the first
} exhaustive_options_t;

typedef struct exhaustive_result_s {
    uint64_t states; // distinct
    uint64_t transitions;
    int depth; // of the deepest state
    double seconds;
    uint32_t longest;              // ms from a state to a core's last message, without more faults
    uint64_t found[VIOLATION_NUM]; // states with a violation
    bool failed;
    std::string text;
    script_t script;
} exhaustive_result_t;

exhaustive_result_t exhaustive_explore(world_t *world, const exhaustive_options_t *options);

// Equal for worlds that differ only in sequence numbers, process ids and time.
uint64_t world_hash(const world_t *world);

#endif
