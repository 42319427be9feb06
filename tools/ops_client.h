// The management client: asks instances for their identity and statistics and switches what they print, as
// application 1 of this node.
//
// It uses a TIPC socket of its own and not the library: an application of the library can call only those peers that
// have completed a handshake with it, and an instance completes one only with an application that it has named. Nobody
// names application 1, and every instance answers it without a handshake. The socket has the name of application 1,
// because replies are sent to that name; so a node has one such process at a time.
//
// One thread uses a client; there is no lock. Many instances are asked at once. A reply is taken only when it has the
// number of a request that waits and comes from the instance that was asked; all else is counted and dropped, or goes
// to a daemon that takes it.
//
// ops_client_ask() waits. A daemon does not: it begins a batch of requests, calls ops_client_step() when that said so,
// and ops_client_read() when the socket is readable; each request is reported as it gets its outcome. Batches take
// turns.
#ifndef OPS_CLIENT_H
#define OPS_CLIENT_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ops_view.h"

typedef enum ops_ask_e {
    OPS_ASK_INFO = 0,
    OPS_ASK_STAT = 1,
    OPS_ASK_DEBUG = 2 // switches levels; the reply has the mask as it is then
} ops_ask_t;

typedef enum ops_outcome_e {
    OPS_WAITING = 0,  // not sent, or no reply yet
    OPS_ANSWERED = 1, // `info` or `text` is set
    OPS_SILENT = 2,   // no reply in time
    OPS_GONE = 3,     // nobody has the name any more
    OPS_BROKEN = 4    // it answered something else than was asked
} ops_outcome_t;

typedef struct ops_request_s {
    ops_inst_t inst;
    ops_ask_t ask;
    uint32_t set;   // levels to switch on, as a mask
    uint32_t clear; // levels to switch off
    ops_outcome_t outcome;
    std::string why;     // unless it is OPS_ANSWERED: a few words for the operator
    ops_app_info_t info; // of OPS_ASK_INFO and OPS_ASK_DEBUG
    std::string text;    // of OPS_ASK_STAT: all bytes of the reply
    uint32_t seq;
    int64_t sent_at;  // 0: not sent
    int64_t tried_at; // when TIPC first refused the request for congestion; 0: never
    int64_t took;     // milliseconds from request to reply
} ops_request_t;

// Requests that are asked together. It and they stay where they are until each has an outcome or the batch is
// cancelled.
typedef struct ops_batch_s {
    std::vector<ops_request_t> *requests;
    int64_t timeout; // ms
    bool paused;     // nothing more of it is sent for now
    // Called with each request that gets its outcome; `waiting` counts it no more. With the last one the batch is the
    // caller's again, and may be gone when this returns.
    std::function<void(ops_request_t *request)> on_done;
    size_t waiting; // requests without an outcome
    size_t next;    // position of the first that was not tried
    std::deque<size_t> congested;
} ops_batch_t;

typedef struct ops_awaited_s {
    ops_batch_t *batch;
    size_t at; // position in its requests
} ops_awaited_t;

typedef struct ops_client_s {
    int sd;
    uint32_t node;       // this node
    uint32_t seq;        // of the last request
    uint32_t strays;     // datagrams that were no awaited reply
    zeb_msg_t *recv_buf; // holds the longest datagram
    uint64_t asked;      // requests that were sent
    uint64_t answered;

    std::vector<ops_batch_t *> batches;                  // with requests that wait
    size_t turn;                                         // position of the batch that sends next
    std::unordered_map<uint32_t, ops_awaited_t> awaited; // by number: requests that were sent and have no outcome
    std::multimap<int64_t, uint32_t> late;               // when they get one at the latest; those that have one as well
    std::deque<std::pair<int64_t, uint32_t>> young;      // when a request stops to count as under way
    size_t under_way;
    int64_t retry; // when what TIPC refused is tried again; 0: nothing was

    // Other messages to application 1, in host order and with their whole length checked, and of our own messages
    // those that came back and are no request of a batch. False: a stray. Null: all are.
    std::function<bool(const zeb_msg_t *msg)> on_message;
    std::function<bool(const zeb_msg_hdr_t *hdr, uint32_t code)> on_returned;
} ops_client_t;

ops_request_t ops_request(ops_inst_t inst, ops_ask_t ask);

// Takes application 1 of `node`. 0; -EADDRINUSE when another process has it, or takes it at the same time; or another
// negative errno value.
int ops_client_open(ops_client_t *client, ops_view_t *view, uint32_t node, int64_t deadline);
void ops_client_close(ops_client_t *client);

// Asks all, and returns when each has an outcome. A request waits `timeout` milliseconds for its reply.
void ops_client_ask(ops_client_t *client, std::vector<ops_request_t> *requests, int64_t timeout);

// Begins a batch of `requests` that wait, with `timeout` and `on_done` set. Nothing is sent before the next step.
void ops_client_begin(ops_client_t *client, ops_batch_t *batch);
void ops_client_cancel(ops_client_t *client, ops_batch_t *batch);

// Sends what may be sent now, and ends what is late. Returns when to call it again at the latest, in milliseconds of
// ops_now(); it is to be called after a batch begins or goes on, and after a read, as well.
int64_t ops_client_step(ops_client_t *client);

// Reads what has come. A peer that sends without end does not keep it here.
void ops_client_read(ops_client_t *client);

// The datagram of `len` bytes that is in recv_buf, and a message of ours that came back, its header as it was sent.
void ops_client_take(ops_client_t *client, size_t len);
void ops_client_take_returned(ops_client_t *client, const zeb_msg_hdr_t *hdr, uint32_t code);

// Number of requests without an answer.
size_t ops_unanswered(const std::vector<ops_request_t> &requests);

#endif
