// What comes to application 1 besides replies: requests of other zebds for what lies on this node, their answers to
// ours, and questions that instances are asked, so that a list of instances shows the daemon as well.
//
// Any process of the cluster can send to application 1, and say that it is anyone. So a request is answered to
// application 1 of its node alone, a node gets only so many answers in a second, and all nodes together; what is above
// that, or is none of these messages, is dropped and counted.
#ifndef ZEBD_PEER_H
#define ZEBD_PEER_H

#include <functional>

#include "ops_record.h"
#include "zebd_request.h"
#include "zebd_sample.h"

constexpr uint32_t ZEBD_PEER_VERSION = 7101; // of the messages between zebds
constexpr size_t ZEBD_PEER_WAITING_MAX = 256;
constexpr int64_t ZEBD_PEER_RATE = 1000;     // answers in a second
constexpr int64_t ZEBD_PEER_NODE_RATE = 100; // to one node

// `answer` is an object when `err` is 0; else `why` says what went wrong.
typedef std::function<void(int err, const std::string &why, const ops_json_t &answer)> zebd_on_answer_t;

typedef struct zebd_waiting_s {
    uint32_t node;
    zebd_entry_t timer;
    zebd_on_answer_t on_answer;
} zebd_waiting_t;

typedef struct zebd_peer_s {
    zebd_loop_t *loop;
    zebd_sampler_t *sampler;
    std::map<uint32_t, zebd_waiting_t> waiting; // by number of the request
    uint64_t dropped;                           // messages
    // Answers of this second.
    int64_t second;
    int64_t given;
    std::map<uint32_t, int64_t> given_to; // by node
} zebd_peer_t;

// Takes the messages of the sampler's client.
void zebd_peer_open(zebd_peer_t *peer);

// What this node tells of its processes and log files.
int zebd_peer_here(const zebd_request_t &request, size_t most, ops_json_t *answer, std::string *why);

// Asks the zebd of request.node. on_answer is called once, and not before this returns. The number of the request.
uint32_t zebd_peer_ask(zebd_peer_t *peer, const zebd_request_t &request, zebd_on_answer_t on_answer);

// Forgets a request: on_answer is not called.
void zebd_peer_cancel(zebd_peer_t *peer, uint32_t number);

#endif
