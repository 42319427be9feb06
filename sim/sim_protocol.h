// The protocol between the broker and its clients, which are the processes and the launcher. It runs over a Unix
// SOCK_SEQPACKET at "broker" in the cluster's folder: one request, one reply. After SIM_TOPOLOGY the connection carries
// the records of the topology service.
#ifndef SIM_PROTOCOL_H
#define SIM_PROTOCOL_H

#include "sim_queue.h"

enum sim_op_e : uint32_t {
    SIM_TOPOLOGY = 1, // node
    SIM_SYNC,         // a: a port whose bindings changed
    SIM_GONE,         // a: a port that was closed
    SIM_DELIVER,      // a: port, b: index of its node; a record and its data follow
    SIM_CUT,          // a, b: node ids, b may be SIM_ANY_NODE; value: 1 when the link is lost at once
    SIM_HEAL,         // a, b: as for SIM_CUT
    SIM_DELAY,        // a, b: node ids; value: ms
    SIM_DROP,         // a: node id or SIM_ANY_NODE; closes topology connections
};

typedef struct sim_request_s {
    uint32_t magic;
    uint32_t op;
    uint32_t node; // id of the client's node
    uint32_t a;
    uint32_t b;
    uint32_t value;
} sim_request_t;

typedef struct sim_reply_s {
    uint32_t magic;
    int32_t result; // 0 or a negative errno
} sim_reply_t;

// Connects to the broker. Starts it with the program `tool` when none runs, unless `held` is set in the cluster's
// state. A descriptor or a negative errno.
int sim_broker_connect(const sim_cluster_t *cluster, const char *tool);
// Sends a request and the `more` parts that follow it, and waits for the reply. The reply's result, or -ENOTCONN when
// the broker is gone.
int sim_broker_ask(int fd, const sim_request_t *request, const struct iovec *more, size_t num);

#endif
