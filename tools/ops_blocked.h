// Who waits for whom: from the statistics of instances at two times, the senders whose window to a receiver is full,
// the cycles among them, and the receivers at which all waiting ends.
//
// Pure functions: no socket, clock or global. The statistics come from peers and may say anything; what comes of them
// grows with their records, and no function recurses over them.
#ifndef OPS_BLOCKED_H
#define OPS_BLOCKED_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ops_stat.h"

// What an instance said at one time.
typedef struct ops_look_s {
    bool known; // it has answered with its counters
    ops_stat_t stat;
} ops_look_t;

typedef struct ops_looks_s {
    int64_t at;                           // ms
    std::map<uint32_t, ops_look_t> insts; // by ops_name_of: those that are published
} ops_looks_t;

// By ops_name_of of sender and receiver: ms of the same clock since when it is blocked.
typedef std::map<std::pair<uint32_t, uint32_t>, int64_t> ops_blocked_since_t;

// Whether an instance takes messages off its queue.
typedef enum ops_moves_e {
    OPS_MOVES_UNKNOWN = 0, // it did not answer twice
    OPS_STANDS = 1,        // messages wait, and none was taken between the looks
    OPS_MOVES = 2          // some were taken, or none waits
} ops_moves_t;

typedef enum ops_there_e {
    OPS_THERE = 0,        // it answers
    OPS_SAYS_NOTHING = 1, // it is published, and did not answer
    OPS_NOT_THERE = 2     // nobody publishes it
} ops_there_t;

// A receiver, as the later look has it.
typedef struct ops_receiver_s {
    ops_inst_t inst;
    ops_there_t there;
    ops_moves_t moves;
    uint32_t unread; // messages in its queue, when it answered
} ops_receiver_t;

// The window of `sender` to `receiver` is full.
typedef struct ops_edge_s {
    ops_inst_t sender;
    ops_inst_t receiver;
    int32_t unack;
    int64_t blocked_for; // ms at least; 0: it was not blocked at the earlier look
} ops_edge_t;

// Instances that wait for each other, each for the next and the last for the first; one alone waits for itself. Others
// may be tied to the same cycle: `tied` counts all that wait for each other here.
typedef struct ops_cycle_s {
    std::vector<ops_inst_t> insts;
    size_t tied;
    std::vector<ops_inst_t> waiting; // outside, for an instance of it, directly or by others
} ops_cycle_t;

// A receiver that itself waits for nobody: the root of all waiting for it.
typedef struct ops_root_s {
    ops_inst_t inst;
    std::vector<ops_inst_t> waiting; // directly or by others, the nearest first
    std::vector<ops_inst_t> chain;   // from the farthest that waits to the root
} ops_root_t;

typedef struct ops_blocked_s {
    std::vector<ops_edge_t> edges;                // by sender, then by receiver
    std::map<uint32_t, ops_receiver_t> receivers; // of the edges, by ops_name_of
    std::vector<ops_cycle_t> cycles;
    std::vector<ops_root_t> roots;
    std::vector<ops_inst_t> unsure; // did not answer, or in part: whom they wait for is not known
} ops_blocked_t;

ops_moves_t ops_moves(const ops_stat_t &before, const ops_stat_t &after);

ops_blocked_t ops_blocked(const ops_looks_t &before, const ops_looks_t &after, const ops_blocked_since_t &since);

// Whether each receiver of the cycle stands.
bool ops_cycle_stands(const ops_blocked_t &blocked, const ops_cycle_t &cycle);

// A graph for Graphviz.
std::string ops_blocked_dot(const ops_blocked_t &blocked);

#endif
