// zebd: the management daemon of a node. What its areas share: the model of the cluster, and the loop.
//
// One thread and one loop. Nothing in it waits: the view, the asking of instances, the connections and the page are
// descriptors of the loop, and a deadline of each. So there is no lock. What a cluster, a peer or a user can make grow
// has a bound, named here.
#ifndef ZEBD_H
#define ZEBD_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "ops_client.h"
#include "ops_session.h"
#include "ops_stat.h"
#include "ops_view.h"
#include "zebd_loop.h"

constexpr size_t ZEBD_SAMPLES = 60;      // of each counter: 10 minutes, one each 10 s
constexpr size_t ZEBD_PAIRS_MAX = 16384; // whose counters are kept
constexpr size_t ZEBD_EVENTS_MAX = 1000;
constexpr size_t ZEBD_EVIDENCE_MAX = 20;
constexpr size_t ZEBD_CONNECTIONS_MAX = 64;
constexpr size_t ZEBD_LINE_MAX = 1 << 20;   // bytes of a request
constexpr size_t ZEBD_OUTPUT_MAX = 8 << 20; // bytes that a connection has not read yet
constexpr size_t ZEBD_INSTS_MAX = 8192;     // in the model
constexpr size_t ZEBD_STATS_MAX = 32 << 20; // bytes of statistics texts that are kept parsed
constexpr size_t ZEBD_GONE_MAX = 256;       // instances that quit and are still known, for ZEBD_GONE_TIME
constexpr int64_t ZEBD_GONE_TIME = 60000;   // ms

// Counters of an instance at one time.
typedef struct zebd_sample_s {
    int64_t at; // ms of CLOCK_REALTIME
    uint32_t send, recv, queue, reject, exception;
    int32_t send_unack, recv_unack;
} zebd_sample_t;

// Counters of a pair, as its sender has them.
typedef struct zebd_pair_sample_s {
    int64_t at;
    uint32_t send, reject;
    int32_t unack;
} zebd_pair_sample_t;

typedef struct zebd_inst_s {
    ops_inst_t inst;
    uint32_t sockets;
    int64_t since;         // ms of CLOCK_REALTIME when it was seen to join; 0: it was there before
    int64_t quit;          // ms of CLOCK_REALTIME when it was seen to quit; 0: it is there
    ops_outcome_t outcome; // of the last question
    std::string why;       // unless that was answered
    ops_app_info_t info;
    std::string program;
    ops_stat_t stat;                   // the last that was answered
    std::deque<zebd_sample_t> samples; // the oldest first, ZEBD_SAMPLES at most
} zebd_inst_t;

typedef struct zebd_pair_s {
    ops_inst_t sender;
    ops_inst_t receiver;
    int64_t blocked_since; // ms of CLOCK_REALTIME of the first sample with a full window; 0: it has room
    std::deque<zebd_pair_sample_t> samples;
} zebd_pair_t;

// The model: what the daemon knows of the cluster. The loop's areas read it; the sampler alone changes it.
typedef struct zebd_model_s {
    uint32_t node;                                              // this node
    int64_t started;                                            // ms of CLOCK_REALTIME
    std::map<uint32_t, zebd_inst_t> insts;                      // by ops_name_of; also those that quit lately
    std::map<std::pair<uint32_t, uint32_t>, zebd_pair_t> pairs; // by ops_name_of of sender and receiver
    std::deque<ops_event_t> events;                             // the oldest first, ZEBD_EVENTS_MAX at most
    uint64_t event_number;                                      // of the newest event, counted from 1
    uint64_t round;                                             // of the newest sample of all, counted from 1
    uint64_t asked, answered, strays;
    uint32_t left_out;       // instances above the bound
    uint32_t pairs_left_out; // pairs above the bound, of the last round
} zebd_model_t;

// The page and the metrics, at "ADDRESS:PORT". 0 or a negative errno value. Defined only where the page is built.
int zebd_http_open(zebd_loop_t *loop, const zebd_model_t *model, const char *addr);

#endif
