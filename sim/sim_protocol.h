// The protocol of the broker and of the keeper, each over a Unix SOCK_SEQPACKET: one request and one reply on a
// connection. Both listen at an abstract address, which processes reach after a change of their user or root folder.
// Who sends the cluster's secret belongs to the cluster.
#ifndef SIM_PROTOCOL_H
#define SIM_PROTOCOL_H

#include "sim_names.h"
#include "sim_socket.h"

enum sim_op_e : uint32_t {
    // To the broker.
    SIM_HELLO = 1, // a: process id, which the broker watches from then on
    SIM_OPENED,    // a: port of a new socket
    SIM_BIND,      // a: port; a sim_name_t follows. -ENOSPC when the table is full
    SIM_UNBIND,    // a: port; a sim_name_t follows; type 0 for all names of the socket. -EINVAL when there is none
    SIM_RELEASED,  // a: port that a process closed: when nobody has it any more, the broker withdraws its names and
                   // closes it
    SIM_CUT,       // a, b: node addresses, b may be SIM_ANY_NODE; value: SIM_CUT_AT_ONCE and SIM_CUT_ONE_WAY
    SIM_HEAL,      // a, b: as for SIM_CUT
    SIM_IMPAIR,    // a sim_impaired_t follows, with addresses in place of indices; all 0 ends it
    SIM_DROP,      // a: node address or SIM_ANY_NODE; closes topology connections
    SIM_NODE_DOWN, // a: node address
    // To the keeper.
    SIM_KEEP, // a: port; the wake-up descriptor is passed along. The result is its number in the keeper
    SIM_WAKE, // a: port; writes to its wake-up descriptor. For processes that may not do it themselves
    SIM_GROW, // a: sim_area_e, b: the entries that the client found ready
    SIM_END,  // the keeper ends
};

constexpr uint32_t SIM_CUT_AT_ONCE = 1; // the link is lost at once, not after its tolerance
constexpr uint32_t SIM_CUT_ONE_WAY = 2; // from a to b

typedef struct sim_request_s {
    uint32_t magic;
    uint32_t op;
    uint8_t secret[SIM_SECRET_LEN];
    uint32_t node; // address of the client's node
    uint32_t a;
    uint32_t b;
    uint32_t value;
} sim_request_t;

typedef struct sim_reply_s {
    uint32_t magic;
    int32_t result; // 0 or more, or a negative errno
} sim_reply_t;

// The address of the cluster's broker or keeper; `len` gets its length.
void sim_address(const sim_state_t *state, bool keeper, struct sockaddr_un *addr, socklen_t *len);
// Asks the broker, which is started with the program `tool` when none runs, unless `held` is set in the cluster's
// state. `data` of `size` bytes follows the request. The reply's result, or a negative errno: -ENOTCONN without a
// broker.
int sim_ask_broker(const sim_cluster_t *cluster, const char *tool, uint32_t op, uint32_t a, uint32_t b, uint32_t value,
                   const void *data, size_t size);
// As sim_ask_broker; `fd` is passed along when it is not -1. The keeper is there as long as the cluster.
int sim_ask_keeper(const sim_cluster_t *cluster, uint32_t op, uint32_t a, uint32_t b, int fd);

// What sim_self_t needs, by way of the keeper.
int sim_keeper_grow(sim_cluster_t *cluster, uint32_t area, uint32_t seen);
void sim_keeper_wake(sim_cluster_t *cluster, sim_socket_t *socket);

#endif
