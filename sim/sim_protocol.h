// What processes, the launcher and the broker say to each other, over Unix SOCK_SEQPACKET at "broker" in the cluster's
// folder: one request, one reply. After SIM_TOPOLOGY the connection is one to the topology service and carries its
// records.
#ifndef SIM_PROTOCOL_H
#define SIM_PROTOCOL_H

#include "sim_queue.h"

enum sim_op_e : uint32_t {
    SIM_TOPOLOGY = 1, // node
    SIM_SYNC,         // a: a port whose bindings changed
    SIM_GONE,         // a: a port that was closed
    SIM_DELIVER,      // a: port, b: index of its node; a record and its data follow
    SIM_KEEP,         // the broker stays while this connection does
    SIM_CUT,          // a, b: node ids, b may be SIM_ANY_NODE; value: 1 when it is noticed at once
    SIM_HEAL,
    SIM_DELAY, // a, b, value: ms
    SIM_DROP,  // a: node id or SIM_ANY_NODE; closes topology connections
};

typedef struct sim_request_s {
    uint32_t magic;
    uint32_t op;
    uint32_t node; // id of the asking process's node
    uint32_t a;
    uint32_t b;
    uint32_t value;
} sim_request_t;

typedef struct sim_reply_s {
    uint32_t magic;
    int32_t result; // 0 or a negative errno
} sim_reply_t;

// Connects, starting the broker if none runs and it is not held. A descriptor or a negative errno.
int sim_broker_connect(const sim_cluster_t *cluster, const char *tool);
// Sends a request, with what follows it, and waits for the reply. Its result, or -ENOTCONN when the broker has gone.
int sim_broker_ask(int fd, const sim_request_t *request, const struct iovec *more, size_t num);

#endif
