// The broker of a cluster. It keeps the name table, provides the topology service, closes the sockets of processes that
// ended, and delivers messages over links that are impaired or cut. It has one thread. What it shares with other
// processes it changes as sim_cluster.h says; all else is its own, and rebuilt by the next broker.
#ifndef SIM_BROKER_H
#define SIM_BROKER_H

#include <cstdint>
#include <deque>
#include <linux/tipc.h>
#include <list>
#include <map>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "sim_deliver.h"
#include "sim_protocol.h"
#include "sim_sys.h"

typedef std::tuple<uint32_t, uint32_t, uint32_t> range_t; // type, lower and upper bound

typedef struct names_s {
    std::map<range_t, std::vector<uint32_t>> ranges;   // entries of the name table, in the order of their ids
    std::map<uint32_t, std::vector<uint32_t>> sockets; // the same, by port
    std::map<uint32_t, sim_name_t> own;                // what the entries say
    std::map<uint32_t, uint32_t> nodes;                // number of bindings, by node index
    std::deque<std::pair<int64_t, uint32_t>> unused;   // entries, and from when on, in ms, they may be used again
} names_t;

typedef struct broker_s {
    sim_cluster_t cluster;
    sim_self_t self;
    int epoll;
    int listener;
    int wake;       // the wake-up descriptor of all sockets of the broker
    int wake_there; // its number in the keeper
    std::set<sim_socket_t *> served;
    int look_fd;                       // an epoll descriptor that holds no lock, to look at those of others
    std::set<int> conns;               // clients whose request has not come yet
    std::map<int, uint32_t> processes; // pidfd to entry
    std::set<uint32_t> watched;        // entries
    std::set<uint32_t> missing;        // entries whose process was not there at the last look
    names_t names;
    uint32_t node_num;  // nodes that the topology service knows of
    uint32_t next_slot; // where the next look for sockets that nobody holds begins
    bool check_end;     // something happened after which nothing may use the cluster any more
    int64_t awaited;    // ms: a client may still come, so the broker does not end before
    int64_t next_look;  // ms: when it next looks for what no descriptor reports
} broker_t;

extern broker_t g_broker;

static inline sim_state_t *broker_state(void)
{
    return g_broker.cluster.state;
}
static inline int32_t broker_pid(void)
{
    return sim_load(&broker_state()->broker);
}

// A socket of the broker. Null without memory.
sim_socket_t *broker_socket(uint32_t type, uint32_t node);
void broker_close(sim_socket_t *socket); // one of these

// Names (broker_names.cpp).
void names_adopt(void); // those that a broker before left
int names_bind(uint32_t port, const sim_name_t *asked);
int names_unbind(uint32_t port, const sim_name_t *asked); // null for all
void names_check(void);                                   // withdraws those of sockets that were closed without us

// Links, and the messages on them (broker_links.cpp).
void links_begin(void);
void links_read(void); // takes what programs gave to the broker to deliver
void links_time(int64_t now);
int64_t links_deadline(void);
int links_cut(uint32_t a, uint32_t b, uint32_t flags); // node indices; `b` may be SIM_ANY_NODE
int links_heal(uint32_t a, uint32_t b);
int links_impair(const sim_impaired_t *how);
void links_node(uint32_t index); // a new node

// The topology service (broker_topology.cpp).
bool topology_begin(void);
void topology_read(void);
void topology_added(const sim_name_t *name);
void topology_removed(const sim_name_t *name);
void topology_links(const sim_matrix_t before); // the lost links before a change of them
void topology_node(uint32_t index);             // a new node
void topology_drop(uint32_t node);
void topology_time(int64_t now);
int64_t topology_deadline(void);

// The keeper (keeper.cpp). keeper_start makes one unless it lives; keeper_end returns when it has ended.
int keeper_start(sim_cluster_t *cluster);
void keeper_end(const sim_cluster_t *cluster);
// Ends the connections of the broker `pid`, which is gone; 0 for those of any but `but`. The wire's socket stays.
void keeper_end_served(const sim_self_t *self, int32_t pid, int32_t but);
void process_to_background(void); // a session of its own, without the starter's descriptors and folder
void process_raise_files(void);

int broker_main(const char *dir, bool if_none); // exit status. With `if_none` another broker is no error

#endif
