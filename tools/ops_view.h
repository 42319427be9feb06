// The view: which instances the cluster has, from the topology service alone. No instance is sent anything, so looking
// costs no application a handshake or a credit.
//
// One thread uses a view; there is no lock. Memory is bounded: OPS_VIEW_MAX instances are kept, of any more it is only
// known that there are some (`left_out`).
#ifndef OPS_VIEW_H
#define OPS_VIEW_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "ops_wire.h"

constexpr size_t OPS_VIEW_MAX = 65536;

// How often an instance is published. More than once: several processes share it.
typedef struct ops_published_s {
    uint32_t sockets;
} ops_published_t;

typedef struct ops_view_s {
    int sd;                                    // the connection to the topology service; readable when events came
    std::map<uint32_t, ops_published_t> insts; // by ops_name_of: by application, then by node
    uint32_t marks_sent;
    uint32_t marks_seen;
    uint32_t left_out; // publications above OPS_VIEW_MAX
    uint32_t odd;      // publications that are no instance's name: of a range, or of a bad application id
} ops_view_t;

typedef enum ops_change_e {
    OPS_NO_CHANGE = 0,
    OPS_JOINED = 1, // its first socket was published
    OPS_QUIT = 2    // its last socket was withdrawn
} ops_change_t;

// Connects and subscribes. 0 or a negative errno value.
int ops_view_open(ops_view_t *view);
void ops_view_close(ops_view_t *view);

// Applies one event that has come, without waiting. Stores what it changed, and of which instance. 0; -EAGAIN when none
// has come; -EPIPE when the connection is lost.
int ops_view_read(ops_view_t *view, ops_change_t *change, ops_inst_t *inst);

// Asks for a mark: when marks_seen is marks_sent, all that was published before is in the view. 0 or -EPIPE.
int ops_view_mark(ops_view_t *view);

// Waits until all that was published before this call is in the view. 0, -ETIMEDOUT or -EPIPE; in all cases the view
// holds what has come so far.
int ops_view_sync(ops_view_t *view, int64_t deadline);

// The number of sockets that publish the instance.
uint32_t ops_view_sockets(const ops_view_t *view, ops_inst_t inst);

// Milliseconds of CLOCK_MONOTONIC.
int64_t ops_now();

#endif
