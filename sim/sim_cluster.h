// What the processes of one simulated cluster share: a folder, and in it a file that all of them map. Only the broker
// writes the name table in that file and every sender reads it, so that datagrams are delivered while there is no
// broker. Processes under the preload library, the broker and the launcher enter these functions; they need no C++
// runtime. Mutexes in shared memory are robust: when a process is killed with one held, the next process gets it.
#ifndef SIM_CLUSTER_H
#define SIM_CLUSTER_H

#include <cstddef>
#include <cstdint>
#include <pthread.h>

constexpr uint32_t SIM_MAGIC = 0x54495043;
constexpr uint32_t SIM_VERSION = 1;
constexpr uint32_t SIM_MAX_NODES = 1024;
constexpr uint32_t SIM_MAX_NAMES = 16384;
constexpr uint32_t SIM_MAX_FAULTS = 64;
constexpr uint32_t SIM_MAX_DELAYS = 64;
constexpr uint32_t SIM_DEFAULT_RMEM = 2097152;   // bytes, as in the kernel
constexpr uint32_t SIM_DEFAULT_TOLERANCE = 1500; // ms, as in the kernel
constexpr uint32_t SIM_ANY_NODE = UINT32_MAX;
constexpr size_t SIM_PATH_LEN = 256;
constexpr size_t SIM_DIR_LEN = 80; // short enough that the path of a Unix socket in the folder fits into its address

typedef struct sim_mutex_s { // robust, shared between processes
    pthread_mutex_t mutex;
} sim_mutex_t;

void sim_mutex_init(sim_mutex_t *mutex);
bool sim_mutex_lock(sim_mutex_t *mutex); // true when its last holder died with it held
void sim_mutex_unlock(sim_mutex_t *mutex);
pid_t sim_mutex_holder(const sim_mutex_t *mutex); // the thread that holds it, 0 for none

struct sim_guard_s { // scoped lock
    explicit sim_guard_s(sim_mutex_t *lock) : mutex(lock), orphaned(sim_mutex_lock(lock))
    {
    }
    ~sim_guard_s()
    {
        sim_mutex_unlock(mutex);
    }
    sim_guard_s(const sim_guard_s &) = delete;
    sim_guard_s &operator=(const sim_guard_s &) = delete;
    sim_mutex_t *mutex;
    bool orphaned;
};

typedef struct sim_name_s { // one binding
    uint32_t type;
    uint32_t lower;
    uint32_t upper;
    uint32_t scope;
    uint32_t port; // the socket
    uint32_t node; // index of its node
    uint32_t id;   // from next_id: a later binding has a higher one
} sim_name_t;

enum sim_fault_kind_e : uint32_t { SIM_FAULT_NONE, SIM_FAULT_ERRNO, SIM_FAULT_SHORT, SIM_FAULT_RETURN };

typedef struct sim_fault_s { // a fault for the next sends of one process, or of all processes of a node
    uint32_t kind;
    int32_t pid;   // 0: any process of the node
    uint32_t node; // index
    int32_t left;  // sends that the fault still applies to
    uint32_t value;
} sim_fault_t;

typedef struct sim_delay_s { // of a link, in both directions
    uint32_t a;              // node indices; SIM_ANY_NODE for all
    uint32_t b;
    uint32_t ms;
} sim_delay_t;

typedef uint8_t sim_matrix_t[SIM_MAX_NODES][SIM_MAX_NODES / 8];

typedef struct sim_state_s {
    uint32_t magic;
    uint32_t version;
    uint32_t rmem;      // bytes of a receive queue at importance 0
    uint32_t tolerance; // ms from a cut to the loss of the link
    uint32_t next_id;   // of ports and bindings
    uint32_t held;      // 1: clients do not start the broker

    sim_mutex_t mutex;   // guards all below; nothing is taken under it
    uint32_t generation; // changes with the names and links, and makes cached lookups invalid
    uint32_t name_num;
    uint32_t node_num;
    uint32_t fault_num; // entries in use, including spent faults
    uint32_t delay_num;
    uint32_t nodes[SIM_MAX_NODES]; // index to id
    sim_fault_t faults[SIM_MAX_FAULTS];
    sim_delay_t delays[SIM_MAX_DELAYS];
    sim_matrix_t cut;  // no message passes
    sim_matrix_t down; // the link is lost as well: each side has withdrawn the other side's names
    sim_name_t names[SIM_MAX_NAMES];
} sim_state_t;

typedef struct sim_cluster_s {
    char dir[SIM_DIR_LEN];
    sim_state_t *state;
} sim_cluster_t;

// Opens the cluster in `dir`; with `create` it makes the cluster when there is none. 0 or a negative errno; `why` says
// which step failed.
int sim_cluster_open(sim_cluster_t *cluster, const char *dir, bool create, const char **why);
// As sim_cluster_open with `create`, and returns the cluster's lock, a descriptor, still held. Who joins leaves a file
// that it keeps locked before it releases the lock: the broker may remove the folder in between otherwise.
int sim_cluster_join(sim_cluster_t *cluster, const char *dir, const char **why);
void sim_cluster_close(sim_cluster_t *cluster);
// Takes the lock under which processes join a cluster and the broker removes it. A descriptor, which releases the lock
// when it is closed, or a negative errno.
int sim_cluster_lock(const char *dir);
// "DIR/NAME"; false when it does not fit.
bool sim_cluster_path(const char *dir, const char *name, char *path, size_t size);
// The folder of the cluster `name`, or `name` itself when it has a slash. False when it does not fit.
bool sim_cluster_dir(const char *name, char *dir, size_t size);

// The index of a node, which is added when it is new. SIM_ANY_NODE when there are too many.
uint32_t sim_node_index(sim_state_t *state, uint32_t node);
bool sim_linked(const sim_matrix_t broken, uint32_t a, uint32_t b);      // true when the link is not in the matrix
void sim_break(sim_matrix_t broken, uint32_t a, uint32_t b, bool on);    // `b` may be SIM_ANY_NODE
uint32_t sim_delay_of(const sim_state_t *state, uint32_t a, uint32_t b); // ms

// The node's own copy of a path: DIR/nodes/NODE/PATH.
bool sim_node_path(const char *dir, uint32_t node, const char *path, char *out, size_t size);

#endif
