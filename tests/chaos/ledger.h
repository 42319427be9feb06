// What a process of the chaos test has sent and seen, in a file that outlives it. Each row and each word has one
// writer. The driver reads when traffic has stopped, or when the process is dead.
#ifndef TESTS_CHAOS_LEDGER_H
#define TESTS_CHAOS_LEDGER_H

#include <cstdint>

namespace chaos
{
constexpr int NODE_NUM = 4;         // 1 to NODE_NUM
constexpr int APP_NUM = 3;          // on each node
constexpr uint32_t FIRST_APP = 500; // to FIRST_APP + APP_NUM - 1
constexpr int SOURCE_NUM = 512;     // sending processes that an application may receive from
constexpr int INSTANCE_NUM = NODE_NUM * APP_NUM;

static inline int instance_index(uint32_t app, uint32_t node)
{
    return (int)((node - 1) * APP_NUM + (app - FIRST_APP));
}

// What one application received from one application of one process, in the order of arrival.
struct source_t {
    uint32_t process; // the ledger's number, 0: a free row
    uint32_t app;
    uint32_t received;
    uint32_t last;    // highest number
    uint32_t missing; // numbers that were skipped
    uint32_t out_of_order;
    uint32_t damaged;
};

struct app_t {
    uint32_t sent[INSTANCE_NUM];    // unicast, numbered from 1 for each destination
    uint32_t refused[INSTANCE_NUM]; // unicast that could not be sent
    uint32_t fan_out;               // to several at once, numbered from 1
    uint32_t calls;                 // begun
    uint32_t calls_ended;
    uint32_t calls_refused;
    uint32_t outcomes[6];            // by zeb_reply_stat_t
    uint32_t double_outcomes;        // more than one of an instance in one call
    uint32_t other_outcomes;         // of an instance or a status that does not exist
    uint32_t returned[INSTANCE_NUM]; // the library's count when traffic last stopped
    source_t unicast[SOURCE_NUM];
    source_t fan_outs[SOURCE_NUM];
};

struct ledger_t {
    uint32_t process;
    uint32_t node;
    uint32_t joins[INSTANCE_NUM];
    uint32_t quits[INSTANCE_NUM];
    app_t app[APP_NUM]; // those that run here
};

// The head of every payload.
struct stamp_t {
    uint32_t kind; // 1: unicast, 2: fan-out
    uint32_t process;
    uint32_t app;
    uint32_t node;
    uint32_t number;
    uint32_t answer; // how a server answers: 0 at once, 1 with nothing, 2 never, 3 late
};
} // namespace chaos

#endif
