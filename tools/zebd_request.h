// What comes to zebd from outside, as records: a line of its Unix socket, and the body of a message of another zebd.
// Nothing here has a descriptor, and nothing of a request is trusted.
#ifndef ZEBD_REQUEST_H
#define ZEBD_REQUEST_H

#include <cstdint>
#include <string>
#include <vector>

#include "ops_client.h"

typedef enum zebd_type_e {
    ZEBD_HELLO = 0,
    ZEBD_VIEW = 1,
    ZEBD_ASK = 2,
    ZEBD_EVENTS = 3,
    ZEBD_HISTORY = 4,
    ZEBD_PROCESSES = 5,
    ZEBD_LOG = 6
} zebd_type_t;

typedef struct zebd_request_s {
    zebd_type_t type;
    uint32_t id;
    // of ZEBD_ASK
    ops_ask_t ask;
    uint32_t set;
    uint32_t clear;
    std::vector<ops_inst_t> insts;
    // of ZEBD_ASK, ZEBD_PROCESSES and ZEBD_LOG
    int64_t timeout; // ms
    // of ZEBD_EVENTS
    int64_t since; // ms of CLOCK_REALTIME
    bool follow;
    // of ZEBD_HISTORY
    ops_inst_t inst;
    // of ZEBD_PROCESSES and ZEBD_LOG
    uint32_t node;
    std::vector<int32_t> pids; // of ZEBD_LOG: one
    int64_t offset;
} zebd_request_t;

// The request that a line is. 0, or -EINVAL or -ENOSYS (an unknown type) with a text; its `id` is set where the line
// has one, else 0.
int zebd_request_parse(const std::string &line, zebd_request_t *request, std::string *why);

// The same of the body of a message: ZEBD_PROCESSES or ZEBD_LOG.
bool zebd_request_parse_peer(const void *body, size_t len, zebd_request_t *request);

// The body of such a message.
std::string zebd_request_peer(const zebd_request_t &request);

// Takes the next line out of `in`, without its end. `seen` bytes of `in` are known to hold none. False: there is no
// whole line yet.
bool zebd_line_take(std::string *in, size_t *seen, std::string *line);

#endif
