// A look into the cluster: by the zebd of this node, or, where none runs, as application 1 ourselves. The commands of
// zebctl see no difference, except in what only a daemon can know: what has been, and what lies on other nodes.
//
// One thread uses a session; there is no lock. Every call that waits has a deadline.
#ifndef OPS_SESSION_H
#define OPS_SESSION_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "ops_client.h"
#include "ops_view.h"

// An instance that the topology service has published.
typedef struct ops_seen_s {
    ops_inst_t inst;
    uint32_t sockets; // that publish it; more than one: several processes share it
    int64_t since;    // ms of CLOCK_REALTIME when it was seen to join; 0: it was there before anyone looked
} ops_seen_t;

// A process of a node, as its node can tell.
typedef struct ops_process_s {
    int32_t pid;
    std::string program; // empty: not known
    int64_t started;     // ms of CLOCK_REALTIME; 0: not known
    std::string log;     // path of its log file on its node; empty: none
    int64_t log_bytes;
} ops_process_t;

typedef enum ops_event_kind_e {
    OPS_EVENT_JOINED = 1,
    OPS_EVENT_QUIT = 2,
    OPS_EVENT_BLOCKED = 3,   // the window of `inst` to `peer` is full
    OPS_EVENT_UNBLOCKED = 4, // it no longer is
    OPS_EVENT_LOST = 5       // events between this and the one before may be missing: the zebd went away, or was slow
} ops_event_kind_t;

typedef struct ops_event_s {
    int64_t at; // ms of CLOCK_REALTIME
    ops_event_kind_t kind;
    ops_inst_t inst;
    ops_inst_t peer; // of BLOCKED and UNBLOCKED: the receiver
    int32_t unack;   // of BLOCKED and UNBLOCKED
} ops_event_t;

typedef struct ops_session_s {
    uint32_t node;   // this node
    bool by_zebd;    // else as application 1, taken at the first question
    bool held;       // another process is application 1, and it is no zebd that answers: nobody can be asked
    std::string why; // of the last call that failed: what was tried, what came, what to do
    // of a session by a zebd
    int sd;
    uint32_t next_id;
    std::string in;     // bytes that came and are no whole line yet
    size_t in_seen;     // bytes of it that are known to hold no end of a line
    bool waits_event;   // an event is what is waited for
    uint32_t follow_id; // of the request for events; 0: none was sent
    bool lost_zebd;     // there was one: application 1 is taken for each question alone, so that the next can have it
    // of a session of its own
    ops_view_t view;
    ops_client_t client;
    bool is_app1;
    // of following
    bool follows_view;                 // its changes are reported
    bool follows_zebd;                 // the zebd sends them, or did until it went away
    std::map<uint32_t, int64_t> known; // by ops_name_of: the instances that were reported, and since when
    std::deque<ops_event_t> events;    // to be reported
    int64_t look_at;                   // ms of CLOCK_MONOTONIC: when to look for a zebd again
} ops_session_t;

// Where the zebd of this node serves: $ZEBD_SOCKET, $RUNTIME_DIRECTORY/zebd.sock or /run/zeb/zebd.sock.
std::string ops_zebd_path();

// Begins a session. 0, or a negative errno value with `why` set: -EACCES when a zebd runs and refuses this user,
// -EAFNOSUPPORT without TIPC, -ENOENT without a node id.
int ops_session_open(ops_session_t *session, int64_t deadline);
void ops_session_close(ops_session_t *session);

// All instances of the cluster, by application, then by node. 0, -ETIMEDOUT or -EPIPE.
int ops_session_view(ops_session_t *session, std::vector<ops_seen_t> *seen, int64_t deadline);

// Asks all, and returns when each has an outcome. A request waits `timeout` milliseconds for its reply. 0;
// -EADDRINUSE when application 1 is held (`held` is set); -EPIPE when the zebd went away, and the requests that were
// not answered by then say so.
int ops_session_ask(ops_session_t *session, std::vector<ops_request_t> *requests, int64_t timeout);

// What `node` tells of its processes `pids`: this node itself, another node by its zebd. 0; -EHOSTUNREACH when no
// zebd of that node answers, or this node has none to ask it.
int ops_session_processes(ops_session_t *session, uint32_t node, const std::vector<int32_t> &pids,
                          std::vector<ops_process_t> *processes, int64_t timeout);

// Reads at most 32 KiB of the log file of process `pid` of `node` from byte `offset` on; a negative offset counts from
// the end of what was written last. Stores the offset that follows. 0; -ENOENT when it has no log file;
// -EHOSTUNREACH as above.
int ops_session_log(ops_session_t *session, uint32_t node, int32_t pid, int64_t offset, std::string *text,
                    int64_t *next, int64_t timeout);

// The next event. The first call begins to follow; with `since` the events that the zebd has kept from that time
// (ms of CLOCK_REALTIME) on come first. Without a zebd nothing is kept, and joins and quits alone are reported. When
// the zebd goes away the session waits for the next one, or for none, and goes on, after an OPS_EVENT_LOST. 0;
// -ETIMEDOUT at the deadline; another negative errno value.
int ops_session_event(ops_session_t *session, int64_t since, ops_event_t *event, int64_t deadline);

// Milliseconds of CLOCK_REALTIME.
int64_t ops_wall();

// The answers of this node itself, which a zebd gives to others as well.
ops_process_t ops_process_look(int32_t pid);
int ops_log_read(const ops_process_t &process, int64_t offset, std::string *text, int64_t *next);

#endif
