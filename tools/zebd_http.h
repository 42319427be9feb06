// The live page and the metrics of zebd over HTTP, for browsers and Prometheus on this machine. Off unless `--http` is
// given; docs/live-page.md says what is served.
//
// One thread, that of zebd's loop: the library that speaks HTTP is one descriptor of the loop and a deadline. Whoever
// connects is not trusted. Connections, the bytes of a request, the bytes of answers that are not read yet, and the
// time that a connection may stand still have bounds.
#ifndef ZEBD_HTTP_H
#define ZEBD_HTTP_H

#include <cstdint>
#include <list>
#include <string>

#include "zebd.h"

constexpr unsigned ZEBD_HTTP_CONNECTIONS = 32;
constexpr unsigned ZEBD_HTTP_STREAMS = 16; // of server-sent events
constexpr unsigned ZEBD_HTTP_TIME = 30;    // s that a connection may stand still
constexpr int64_t ZEBD_HTTP_BEAT = 15000;  // ms after which a stream gets a comment, so that one that ended is noticed
constexpr size_t ZEBD_HTTP_OUTPUT_MAX = 32 << 20; // bytes of all answers that are not read yet

struct MHD_Daemon;
struct MHD_Connection;
typedef struct zebd_stream_s zebd_stream_t;

// Who asks for the tail of the log file of an instance: the answer is given by zebd_http_log_done with this number,
// from within the call or later. A node answers for its own processes alone, so it may have to come from another one.
typedef void (*zebd_http_ask_log_t)(void *arg, uint64_t number, ops_inst_t inst, int32_t pid);

// A request for a log that waits.
typedef struct zebd_http_log_s {
    struct MHD_Connection *connection;
    uint64_t number;
    bool done;
    bool suspended;
    int error; // 0, or a negative errno value
    std::string text;
} zebd_http_log_t;

typedef struct zebd_http_s {
    const zebd_model_t *model;
    struct MHD_Daemon *daemon;
    uint16_t port;
    bool any; // serves an address that is not of the loopback device
    bool stopping;
    std::list<zebd_stream_t *> streams;
    std::list<zebd_http_log_t *> logs;
    uint64_t log_number; // of the newest
    zebd_http_ask_log_t ask_log;
    void *ask_log_arg;
    size_t output; // bytes of answers that are not read yet
} zebd_http_t;

// The record is zero but for `model`, `ask_log` and `ask_log_arg`. Listens on `addr`, "ADDR:PORT" or "[ADDR]:PORT";
// port 0 is any. Only addresses of the loopback device, unless `any`. 0, or a negative errno value and `why` says what
// was wrong.
int zebd_http_start(zebd_http_t *http, const char *addr, bool any, std::string *why);
void zebd_http_stop(zebd_http_t *http);

// The descriptor, readable when there is something to do; milliseconds until zebd_http_turn is due without that, -1:
// never; and what is to be done then, or after the model has changed.
int zebd_http_fd(const zebd_http_t *http);
int64_t zebd_http_due(const zebd_http_t *http);
void zebd_http_turn(zebd_http_t *http);

// `error` is 0 and `text` the tail; or -ENOENT when there is no log file, or another negative errno value, and `text`
// says why.
void zebd_http_log_done(zebd_http_t *http, uint64_t number, int error, const std::string &text);

#endif
