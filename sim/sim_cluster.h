// What the processes of one simulated cluster share: a folder, and in it one file, `state`, that each of them maps
// once. Sockets, queues, messages and names lie in that file, so that a process needs no other descriptor, path or
// right to send and receive. Nothing in it is guarded by a lock: every change that others can see is one atomic store
// or exchange, so a process that is killed or stopped between any two instructions holds nobody up.
//
// Who writes what: the broker alone writes names and links; a process takes and frees its own entries; a socket's queue
// is written by everyone (sim_socket.h). Counters in the upper half of a sim_link_t tell a word that was changed and
// changed back from one that was not.
#ifndef SIM_CLUSTER_H
#define SIM_CLUSTER_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

constexpr uint32_t SIM_MAGIC = 0x54495043;
constexpr uint32_t SIM_VERSION = 3;
constexpr uint32_t SIM_MAX_NODES = 1024;
constexpr uint32_t SIM_MAX_SOCKETS = 16384;
constexpr uint32_t SIM_MAX_NAMES = 131072;
constexpr uint32_t SIM_MAX_PROCESSES = 8192;
constexpr uint32_t SIM_MAX_FAULTS = 64;
constexpr uint32_t SIM_MAX_IMPAIRED = 64;
constexpr uint32_t SIM_POOLS = 4;
constexpr uint32_t SIM_TURNS = 4096;
constexpr uint32_t SIM_SINGLE_CHAINS = 32768;
constexpr uint32_t SIM_RANGE_CHAINS = 2048;
constexpr uint32_t SIM_DEFAULT_RMEM = 2097152;   // bytes, as in the kernel
constexpr uint32_t SIM_DEFAULT_TOLERANCE = 1500; // ms, as in the kernel
constexpr uint32_t SIM_ANY_NODE = UINT32_MAX;
constexpr uint32_t SIM_NONE = 0; // no block, name or port has this number
constexpr size_t SIM_PATH_LEN = 256;
constexpr size_t SIM_DIR_LEN = 80;    // short enough that the path of a Unix socket in the folder fits into its address
constexpr size_t SIM_SECRET_LEN = 16; // bytes
constexpr size_t SIM_IDENTITY_LEN = 16;

typedef uint64_t sim_link_t; // the number of a block in the lower half, in the upper one a counter of its changes

static inline sim_link_t sim_link(uint32_t count, uint32_t number)
{
    return (uint64_t)count << 32 | number;
}
static inline uint32_t sim_link_number(sim_link_t link)
{
    return (uint32_t)link;
}
static inline uint32_t sim_link_count(sim_link_t link)
{
    return (uint32_t)(link >> 32);
}

template <typename T>
static inline T sim_load(const T *from)
{
    return __atomic_load_n(from, __ATOMIC_SEQ_CST);
}
template <typename T>
static inline void sim_store(T *to, T value)
{
    __atomic_store_n(to, value, __ATOMIC_SEQ_CST);
}
template <typename T>
static inline bool sim_swap(T *at, T expected, T desired) // true when it was `expected` and is now `desired`
{
    return __atomic_compare_exchange_n(at, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
template <typename T>
static inline T sim_add(T *at, T value) // the value before
{
    return __atomic_fetch_add(at, value, __ATOMIC_SEQ_CST);
}

typedef struct sim_process_s { // a process that has used TIPC
    int32_t pid;               // 0: the entry is free
    uint32_t node;             // index
    uint64_t start;            // its start time as in /proc/PID/stat, which tells it from a later one with its number
} sim_process_t;

enum sim_fault_kind_e : uint32_t {
    SIM_FAULT_NONE,
    SIM_FAULT_TAKEN, // being written
    SIM_FAULT_ERRNO,
    SIM_FAULT_SHORT,
    SIM_FAULT_RETURN
};

typedef struct sim_fault_s { // a fault for the next sends of one process, or of all processes of a node
    uint32_t kind;
    int32_t pid;   // 0: any process of the node
    uint32_t node; // index
    int32_t skip;  // sends that pass before the fault begins
    int32_t left;  // sends that the fault still applies to
    uint32_t value;
} sim_fault_t;

typedef struct sim_impaired_s { // a link whose messages pass through the broker; both directions
    uint32_t a;                 // node indices; SIM_ANY_NODE for all
    uint32_t b;
    uint32_t delay;   // ms
    uint32_t jitter;  // ms: up to as much more, at random, so that messages overtake each other
    uint32_t loss;    // of 10,000 messages
    uint32_t congest; // 1: takes no message; senders block
    uint32_t one_way; // 1: from a to b only
} sim_impaired_t;

typedef uint8_t sim_matrix_t[SIM_MAX_NODES][SIM_MAX_NODES / 8];

typedef struct sim_area_s { // an array in the file; what lies behind `ready` has no memory yet
    uint64_t offset;        // in the file
    uint32_t size;          // bytes of an entry
    uint32_t capacity;
    uint32_t step; // entries added at a time
    uint32_t ready;
} sim_area_t;

enum sim_area_e : uint32_t {
    SIM_AREA_SOCKETS,
    SIM_AREA_NAMES,
    SIM_AREA_OWNERS, // of the blocks of each pool
    SIM_AREA_BLOCKS = SIM_AREA_OWNERS + SIM_POOLS,
    SIM_AREAS = SIM_AREA_BLOCKS + SIM_POOLS
};

typedef struct sim_state_s {
    uint32_t magic; // written last
    uint32_t version;
    uint32_t rmem;      // bytes of a receive queue at importance 0
    uint32_t tolerance; // ms from a cut to the loss of the link
    uint32_t next_port;
    uint32_t next_id;  // of names
    uint32_t held;     // 1: clients do not start the broker
    uint32_t wire;     // port of the broker's socket for messages on impaired links, SIM_NONE before the first broker
    uint32_t topology; // port of the broker's socket for connections to the topology service
    int32_t broker;    // process ids, 0 for none
    int32_t keeper;
    uint64_t lock_base;             // first offset of the range of locks that tell which sockets are open
    uint8_t secret[SIM_SECRET_LEN]; // who sends it to the broker or the keeper belongs to the cluster
    sim_area_t areas[SIM_AREAS];
    uint32_t recorder; // port of the socket that gets a copy of every message (sim_tap.h), SIM_NONE when nobody records
    uint32_t recorded; // bytes of each message's data that are copied
    uint32_t unrecorded; // messages since the recorder began for which there was no room

    uint32_t generation; // of names and links: odd while the broker changes them
    uint32_t node_num;
    uint32_t nodes[SIM_MAX_NODES]; // index to address; 0 while it is being written
    uint8_t identities[SIM_MAX_NODES][SIM_IDENTITY_LEN];
    uint32_t fault_num; // entries in use, including spent faults
    sim_fault_t faults[SIM_MAX_FAULTS];
    uint32_t impaired_num;
    sim_impaired_t impaired[SIM_MAX_IMPAIRED];
    sim_matrix_t cut;                    // [from][to]: no message passes
    sim_matrix_t down;                   // the link is lost as well: each side has withdrawn the other side's names
    uint32_t turns[SIM_TURNS];           // sockets that share a name take turns (sim_names.cpp)
    uint32_t name_num;                   // entries of the names' area that have ever been in use, and entry 0
    uint32_t singles[SIM_SINGLE_CHAINS]; // first entries: names of one instance, by type and instance
    uint32_t ranges[SIM_RANGE_CHAINS];   // the others, by type
    uint32_t socket_num;                 // slots that have ever been in use
    sim_process_t processes[SIM_MAX_PROCESSES];
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
// As sim_cluster_open without `create`, and without the cluster's lock: for a process that the launcher started, for
// which the cluster stays there.
int sim_cluster_attach(sim_cluster_t *cluster, const char *dir, const char **why);
void sim_cluster_close(sim_cluster_t *cluster);
// Takes the lock under which processes join a cluster and the broker removes it. A descriptor, which releases the lock
// when it is closed, or a negative errno.
int sim_cluster_lock(const char *dir);
// "DIR/NAME"; false when it does not fit.
bool sim_cluster_path(const char *dir, const char *name, char *path, size_t size);
// The folder of the cluster `name`, or `name` itself when it has a slash. False when it does not fit.
bool sim_cluster_dir(const char *name, char *dir, size_t size);

// The entry of an area, which must be below `ready`.
static inline void *sim_entry(sim_state_t *state, uint32_t area, uint32_t index)
{
    const sim_area_t *a = &state->areas[area];
    return (uint8_t *)state + a->offset + (uint64_t)index * a->size;
}
// What a process that went wild has written into a count or an index must not lead others out of their tables. The
// areas themselves are written once.
static inline uint32_t sim_count(const sim_state_t *state, const uint32_t *num, uint32_t area)
{
    uint32_t ready = sim_load(&state->areas[area].ready);
    uint32_t is = sim_load(num);
    return is < ready ? is : ready;
}
static inline uint32_t sim_socket_num(const sim_state_t *state) // slots that have ever been in use
{
    return sim_count(state, &state->socket_num, SIM_AREA_SOCKETS);
}
static inline uint32_t sim_name_num(const sim_state_t *state)
{
    return sim_count(state, &state->name_num, SIM_AREA_NAMES);
}
static inline uint32_t sim_node_num(const sim_state_t *state)
{
    uint32_t num = sim_load(&state->node_num);
    return num < SIM_MAX_NODES ? num : SIM_MAX_NODES;
}
static inline uint32_t sim_node_address(const sim_state_t *state, uint32_t index) // 0 when there is no such node
{
    return index < SIM_MAX_NODES ? sim_load(&state->nodes[index]) : 0;
}

// Gives memory to more entries of an area, through a descriptor of the file, unless there are others than the `seen`
// ones already: many processes may ask at once. 0 or a negative errno.
int sim_area_grow(sim_state_t *state, int fd, uint32_t area, uint32_t seen);

// The entry of this process, which is made when there is none. Its index, or -1 when there are too many.
int sim_process_enter(sim_state_t *state, pid_t pid, uint32_t node);
uint64_t sim_process_start(pid_t pid); // its start time; 0 when there is no such process

// The index of a node, which is added when it is new. SIM_ANY_NODE when there are too many.
uint32_t sim_node_index(sim_state_t *state, uint32_t node);
uint32_t sim_node_find(const sim_state_t *state, uint32_t node); // SIM_ANY_NODE when it is unknown
// Whether an address lies in a domain: 0, the address itself, or <Z.C.0> or <Z.0.0> of an address <Z.C.N>.
bool sim_in_domain(uint32_t domain, uint32_t address);
bool sim_linked(const sim_matrix_t broken, uint32_t from, uint32_t to); // true when the link is not in the matrix
void sim_break(sim_matrix_t broken, uint32_t a, uint32_t b, bool on, bool both); // `b` may be SIM_ANY_NODE
// Whether a link is impaired, and how.
bool sim_impaired(const sim_state_t *state, uint32_t from, uint32_t to, sim_impaired_t *how);

// The node's own copy of a path: DIR/nodes/NODE/PATH.
bool sim_node_path(const char *dir, uint32_t node, const char *path, char *out, size_t size);

#endif
