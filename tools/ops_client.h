// The management client: asks instances for their identity and statistics and switches what they print, as
// application 1 of this node.
//
// It uses a TIPC socket of its own and not the library: an application of the library can call only those peers that
// have completed a handshake with it, and an instance completes one only with an application that it has named. Nobody
// names application 1, and every instance answers it without a handshake. The socket has the name of application 1,
// because replies are sent to that name; so a node has one such process at a time.
//
// One thread uses a client; there is no lock. Many instances are asked at once. A reply is taken only when it has the
// number of a request that waits and comes from the instance that was asked; all else is counted and dropped.
#ifndef OPS_CLIENT_H
#define OPS_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "ops_view.h"

typedef struct ops_client_s {
    int sd;
    uint32_t node;       // this node
    uint32_t seq;        // of the last request
    uint32_t strays;     // datagrams that were no awaited reply
    zeb_msg_t *recv_buf; // holds the longest datagram
} ops_client_t;

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

ops_request_t ops_request(ops_inst_t inst, ops_ask_t ask);

// Takes application 1 of `node`. 0; -EADDRINUSE when another process has it, or takes it at the same time; or another
// negative errno value.
int ops_client_open(ops_client_t *client, ops_view_t *view, uint32_t node, int64_t deadline);
void ops_client_close(ops_client_t *client);

// Asks all, and returns when each has an outcome. A request waits `timeout` milliseconds for its reply.
void ops_client_ask(ops_client_t *client, std::vector<ops_request_t> *requests, int64_t timeout);

// Number of requests without an answer.
size_t ops_unanswered(const std::vector<ops_request_t> &requests);

#endif
