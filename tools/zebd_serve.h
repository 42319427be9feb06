// The Unix socket of zebd: who may use it, the connections, and the requests on them.
//
// Root, the user of the daemon and the group zeb may ask. A line that is no request ends its connection. One connection
// gets one request handled in a round of the loop, so that none keeps the others waiting. What a connection does not
// read is bounded: an asking one is sent nothing further to ask, a following one gets a word that events are missing,
// and any other is closed.
#ifndef ZEBD_SERVE_H
#define ZEBD_SERVE_H

#include <memory>
#include <set>

#include <sys/types.h>

#include "zebd_peer.h"

constexpr size_t ZEBD_REQUESTS_MAX = 131072; // to instances that wait, of all connections
constexpr size_t ZEBD_USER_MAX = 24;         // connections of one user who is not root
constexpr size_t ZEBD_JOBS_MAX = 64;         // questions of one connection that wait
constexpr size_t ZEBD_SLOW = 256 << 10;      // bytes not read: nothing more is asked for it, and no event written
constexpr size_t ZEBD_TOTAL_MAX = 64 << 20;  // bytes not read by all of them

struct zebd_connection_s;

// A question of a connection to instances.
typedef struct zebd_job_s {
    struct zebd_connection_s *connection;
    uint32_t id;
    std::vector<ops_request_t> requests;
    ops_batch_t batch;
} zebd_job_t;

typedef struct zebd_connection_s {
    uint64_t number;
    int sd;
    uid_t user;
    zebd_entry_t watch, turn, end;
    std::string in;
    size_t in_seen;
    std::string out;
    size_t out_sent;
    bool ends;                                            // when its output is written
    std::map<uint32_t, std::unique_ptr<zebd_job_t>> jobs; // by id
    std::set<uint32_t> asked_peers;                       // numbers of requests to other zebds
    zebd_entry_t follower;
    uint32_t follow_id;
    bool lost; // events were not written
} zebd_connection_t;

typedef struct zebd_server_s {
    zebd_loop_t *loop;
    zebd_model_t *model;
    zebd_sampler_t *sampler;
    zebd_peer_t *peer;
    std::string version;
    std::string path;
    int lock; // a file beside the socket that a running zebd holds
    int sd;
    zebd_entry_t watch;
    uint64_t last;
    std::map<uint64_t, std::unique_ptr<zebd_connection_t>> connections; // by number
    size_t waiting;                                                     // requests to instances, of all connections
} zebd_server_t;

// Listens at `path`. 0; -EADDRINUSE when another zebd does; another negative errno value.
int zebd_server_open(zebd_server_t *server);

// Takes connections from now on; those that came before waited.
void zebd_server_begin(zebd_server_t *server);
void zebd_server_close(zebd_server_t *server);

#endif
