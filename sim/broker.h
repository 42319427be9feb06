// The broker of a cluster. It keeps the name table, provides the topology service, closes the sockets of processes that
// ended, and delivers messages over slow and cut links. It has one thread and no locks of its own; it takes those of
// the shared state and queues.
#ifndef SIM_BROKER_H
#define SIM_BROKER_H

#include <deque>
#include <linux/tipc.h>
#include <list>
#include <map>
#include <set>
#include <vector>

#include "sim_protocol.h"

typedef struct subscription_s {
    struct tipc_subscr request;
    int64_t deadline; // ms of the monotonic clock, INT64_MAX for none
} subscription_t;

enum conn_kind_e { CONN_NEW, CONN_CONTROL, CONN_TOPOLOGY };

typedef struct conn_s {
    int fd;
    conn_kind_e kind;
    uint32_t node; // index
    std::list<subscription_t> subscriptions;
    std::deque<struct tipc_event> events; // not sent yet
    bool ending;                          // closed once the events are sent
} conn_t;

typedef struct member_s { // a socket
    int32_t pid;
    uint32_t node;
    std::set<uint32_t> ids; // the ids of its bindings in the name table
} member_t;

typedef struct delayed_s { // a message that the broker delivers later
    uint32_t port;         // the receiver's
    uint32_t by_node;      // index of the receiver's node
    sim_record_t record;
    std::vector<uint8_t> data;
} delayed_t;

typedef struct broker_s {
    sim_cluster_t cluster;
    int epoll;
    int listener;
    int notify_fd;
    std::map<int, conn_t> conns;               // by descriptor
    std::map<uint32_t, member_t> members;      // by port
    std::map<int32_t, int> owners;             // process id to pidfd
    std::multimap<int64_t, delayed_t> delayed; // by the time, in ms, at which they are due
    std::vector<delayed_t> held;               // messages on links that are cut and not lost yet, in order
    std::multimap<int64_t, std::pair<uint32_t, uint32_t>> breaking; // cut links, by the time, in ms, when they are lost
    int64_t awaited;   // ms: the broker waits for its first client until then
    int64_t next_look; // ms: when it next looks for sockets that nobody holds any more
} broker_t;

extern broker_t g_broker;

int64_t broker_now(void); // ms

// Names and subscriptions (broker_topology.cpp).
void topology_add(const sim_name_t *name);
void topology_remove(uint32_t port, uint32_t id);
void topology_links(uint32_t a, uint32_t b, bool down); // node indices; `b` may be SIM_ANY_NODE
void topology_request(conn_t *conn, const void *bytes, ssize_t len);
void topology_flush(conn_t *conn);
void topology_time(int64_t now);
int64_t topology_deadline(void);

int broker_main(const char *dir, bool if_none); // exit status. With `if_none` another broker is no error

#endif
