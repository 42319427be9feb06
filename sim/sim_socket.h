// Simulated sockets and their receive queues, in the cluster's shared memory.
//
// What a program holds is an epoll descriptor with one eventfd in it, the socket's wake-up descriptor, edge-triggered.
// The keeper holds the eventfd, nobody reads it; a write to it makes the epoll descriptor readable, and a look into the
// epoll descriptor (epoll_wait without a time) makes it unreadable again. So it polls like the socket, and a read or
// write that is not interposed fails with EINVAL or ENOTSOCK.
//
// A lock on one byte of a fixed range, taken through the program's descriptor, lasts as long as any process has a
// duplicate of that descriptor: that is how the broker knows that a socket is open (sim_socket_held).
//
// The queue is the one of Michael and Scott: a singly linked list of blocks, whose first block is empty or already
// read. Senders link at `tail`, readers move `head`. `tail` may lag by one block; whoever sees that moves it. To close
// the queue the last block gets the link SIM_CLOSED, so that no message can be added behind those that are given back.
#ifndef SIM_SOCKET_H
#define SIM_SOCKET_H

#include <sys/socket.h>
#include <sys/uio.h>

#include "sim_cluster.h"

constexpr uint32_t SIM_MAX_DATA = 66000; // bytes of one message
constexpr uint32_t SIM_MAX_RETURNED = 1024;
constexpr uint32_t SIM_CLOSED = UINT32_MAX; // in `next`: the queue ends here for good
constexpr int SIM_MARK = 61;                // F_GETSIG of every descriptor of a socket

// SIM_SLOT_TAKEN and SIM_SLOT_CLOSING have the owner that takes or closes it in their upper bits (sim_use), so that the
// broker finishes what that process began when it is killed.
enum sim_use_e : uint32_t { SIM_SLOT_FREE, SIM_SLOT_TAKEN, SIM_SLOT_OPEN, SIM_SLOT_CLOSING };

enum sim_conn_e : uint32_t {
    SIM_CONN_OPEN,
    SIM_CONN_LISTEN,
    SIM_CONN_CONNECTING,
    SIM_CONN_ESTABLISHED,
    SIM_CONN_DISCONNECTING
};

enum sim_kind_e : uint32_t { SIM_DATA, SIM_MCAST, SIM_SYN, SIM_ACK, SIM_CONN_DATA }; // from SIM_SYN on: of connections

typedef struct sim_record_s { // the head of a message
    uint32_t len;             // bytes of data
    uint32_t kind;            // sim_kind_e
    uint32_t src_port;
    uint32_t src_node;  // address
    uint32_t src_index; // of the sender's node
    uint32_t dst_port;
    uint32_t dst_index;
    uint32_t err;   // TIPC error code of a returned message, else 0
    uint32_t named; // TIPC_SERVICE_ADDR or TIPC_SERVICE_RANGE when it was sent by name, else 0
    uint32_t type;  // of the name
    uint32_t lower;
    uint32_t upper;
    uint32_t importance;
    uint32_t droppable; // 1: dropped instead of returned
    uint32_t charge;    // bytes that the receiver's queue counts for it
} sim_record_t;

typedef struct sim_block_s { // a message in memory
    sim_link_t next;
    uint32_t number;  // its own; never changes
    uint32_t holds;   // 2: not read and not replaced as the queue's first block; freed at 0
    uint64_t charged; // by this and all messages before it in the queue, since the socket was made
    uint32_t counted; // likewise, messages
    sim_record_t record;
    uint8_t data[8]; // the first of `record.len` bytes
} sim_block_t;

typedef struct sim_socket_s {
    uint32_t use;    // sim_use_e and an owner
    uint32_t port;   // its index plus a multiple of SIM_MAX_SOCKETS; changes with each use of the slot
    uint32_t type;   // SOCK_RDM and so on
    uint32_t node;   // index
    int32_t pid;     // of the process that made it
    int32_t wake;    // the wake-up descriptor's number in the keeper
    uint32_t served; // 1: a socket of the broker

    // Options.
    uint32_t importance;
    uint32_t src_droppable;
    uint32_t dest_droppable;
    uint32_t rcvbuf; // bytes
    uint32_t sndbuf;
    uint32_t conn_timeout; // ms
    uint32_t nodelay;
    uint32_t lowat;
    uint64_t inert;   // options of SOL_SOCKET that were set and have no effect, a bit each
    uint32_t paired;  // 1: made by socketpair, without a connection
    int64_t rcvtimeo; // us, 0: none
    int64_t sndtimeo;

    // The queue. Nothing of it is reset when the slot is used again, except by sim_socket_take.
    sim_link_t head;
    sim_link_t tail;
    uint64_t read_at; // bytes of the first message that were read (lower half), and its link count (upper half)
    uint32_t change;  // counted up with every message and every change of state; waiters wait for it
    uint32_t waiting; // 1: a call waits for a change
    uint32_t woken;   // 1: the program's descriptor is readable
    uint32_t edge;    // 1: somebody polls it edge-triggered, so every message is written to the wake-up descriptor

    // The connection.
    uint64_t conn;       // sim_conn_e, the index of the peer's node, and the peer's port (sim_conn)
    uint32_t err;        // pending, as SO_ERROR
    uint32_t shut;       // 1: shutdown() was called, or the peer ended the connection of a SOCK_STREAM
    uint32_t published;  // names that are bound to it
    uint32_t conn_named; // 1: connected by name; then
    uint32_t conn_type;
    uint32_t conn_lower;
    uint64_t flow;        // of what it sends (sim_flow)
    uint32_t rcv_unacked; // blocks of flow control
    uint32_t rcv_window;
    uint8_t dest[16]; // the destination that connect() saved, a struct sockaddr_tipc without its family; all 0: none
} sim_socket_t;

// What others change of a connection is a word that tells the socket from the next one of its slot: they may be stopped
// before the change for as long as they like. A socket that is connecting has its own port in place of the peer's.
static inline uint64_t sim_conn(uint32_t conn, uint32_t port, uint32_t node = 0)
{
    return (uint64_t)(node << 8 | conn) << 32 | port;
}
static inline uint32_t sim_conn_of(uint64_t conn) // sim_conn_e
{
    return (uint32_t)(conn >> 32) & 0xff;
}
static inline uint64_t sim_conn_ended(uint64_t conn) // the same, disconnecting
{
    return (conn & ~(0xffULL << 32)) | (uint64_t)SIM_CONN_DISCONNECTING << 32;
}
static inline uint32_t sim_conn_state(const sim_socket_t *socket)
{
    return sim_conn_of(sim_load(&socket->conn));
}
static inline uint32_t sim_conn_node(const sim_socket_t *socket) // index of the peer's node
{
    return (uint32_t)(sim_load(&socket->conn) >> 40);
}
static inline uint32_t sim_conn_peer(const sim_socket_t *socket)
{
    return (uint32_t)sim_load(&socket->conn);
}

// Flow control: what tells the socket from others of its slot, the window, and what was sent and not acknowledged, both
// in blocks.
constexpr uint32_t SIM_MAX_BLOCKS = (1U << 25) - 1;
constexpr uint32_t SIM_MAX_WINDOW = (1U << 21) - 1; // more than a receive buffer of 32 bits gives
static inline uint64_t sim_flow(uint32_t port, uint32_t window, uint32_t unacked)
{
    return (uint64_t)(port / SIM_MAX_SOCKETS) << 46 | (uint64_t)window << 25 | (unacked & SIM_MAX_BLOCKS);
}
static inline uint32_t sim_flow_window(uint64_t flow)
{
    return (uint32_t)(flow >> 25) & SIM_MAX_WINDOW;
}
static inline uint32_t sim_flow_unacked(uint64_t flow)
{
    return (uint32_t)flow & SIM_MAX_BLOCKS;
}
static inline bool sim_flow_same(uint64_t one, uint64_t other) // both are of the same socket
{
    return one >> 46 == other >> 46;
}
static inline bool sim_flow_full(uint64_t flow) // the socket may not send
{
    return sim_flow_unacked(flow) > sim_flow_window(flow);
}
static inline bool sim_connectionless(const sim_socket_t *socket)
{
    return socket->type == (uint32_t)SOCK_RDM || socket->type == (uint32_t)SOCK_DGRAM;
}

// What differs between a program and the broker, both of which send, receive and close.
typedef struct sim_self_s {
    sim_cluster_t *cluster;
    uint32_t owner; // of blocks: index of the process's entry plus one
    // Gives memory to more entries than the `seen` ones; 0 or a negative errno.
    int (*grow)(sim_cluster_t *cluster, uint32_t area, uint32_t seen);
    void (*wake)(sim_cluster_t *cluster, sim_socket_t *socket); // writes to a socket's wake-up descriptor
} sim_self_t;

// Blocks (sim_pool.cpp).
sim_block_t *sim_block_take(const sim_self_t *self, uint32_t len); // for `len` bytes of data; null without memory
sim_block_t *sim_block_of(sim_state_t *state, uint32_t number);
uint32_t sim_block_room(const sim_state_t *state, uint32_t number); // bytes of data
uint32_t sim_block_num(const sim_state_t *state);                   // no queue has more
void sim_block_own(sim_state_t *state, sim_block_t *block, uint32_t owner);
// A block is in the queue of a slot, unless a reader has freed it already.
void sim_block_sent(sim_state_t *state, uint32_t number, uint32_t slot, uint32_t owner);
void sim_block_free(sim_state_t *state, sim_block_t *block);
void sim_block_release(sim_state_t *state, sim_block_t *block); // takes one hold away
void sim_blocks_reclaim(sim_state_t *state, uint32_t owner);    // frees all blocks of an owner that is gone
static inline uint32_t sim_owner_queue(uint32_t slot)           // the owner of blocks in the queue of that slot
{
    return 0x80000000U | slot;
}
static inline uint32_t sim_owner_sending(uint32_t slot, uint32_t owner) // the same while a process puts it there
{
    return 0x80000000U | owner << 14 | slot;
}
static_assert(SIM_MAX_SOCKETS == 1U << 14 && SIM_MAX_PROCESSES < 1U << 16, "what an owner's word has room for");

// Slots.
sim_socket_t *sim_socket_take(const sim_self_t *self, uint32_t type, uint32_t node, pid_t pid); // null: none left
void sim_socket_open(sim_socket_t *socket);                     // after which others can see it
sim_socket_t *sim_socket_of(sim_state_t *state, uint32_t port); // null when there is no such open socket
static inline sim_socket_t *sim_socket_at(sim_state_t *state, uint32_t slot)
{
    return (sim_socket_t *)sim_entry(state, SIM_AREA_SOCKETS, slot);
}
// The slot of a socket, also of one that has no port yet.
static inline uint32_t sim_socket_index(sim_state_t *state, const sim_socket_t *socket)
{
    return (uint32_t)(socket - sim_socket_at(state, 0));
}
static inline uint32_t sim_use(sim_use_e use, uint32_t owner)
{
    return (uint32_t)use | owner << 8;
}
static inline uint32_t sim_use_owner(uint32_t use)
{
    return use >> 8;
}
static inline uint32_t sim_socket_slot(uint32_t port)
{
    return port % SIM_MAX_SOCKETS;
}
// Marks a program's descriptor as that of a socket, and looks at such marks.
int sim_socket_mark(const sim_state_t *state, int fd, uint32_t port);     // 0 or a negative errno
bool sim_socket_held(const sim_state_t *state, int other, uint32_t port); // through another epoll descriptor
bool sim_socket_is(int fd);                                               // `fd` is the descriptor of some socket

// The queue. sim_queue_put takes the block over unless it returns an error of TIPC.
uint32_t sim_queue_charge(uint32_t len); // bytes that the kernel charges a receive queue for a message of `len` bytes
uint32_t sim_queue_put(const sim_self_t *self, sim_socket_t *socket, sim_block_t *block, uint64_t limit);
// The first message, null when there is none; `at` is for the two calls below.
sim_block_t *sim_queue_first(sim_state_t *state, sim_socket_t *socket, sim_link_t *at);
bool sim_queue_same(const sim_socket_t *socket, sim_link_t at); // the first message is still the same
// Takes the first message out of the queue. The caller releases it. False when another reader has taken it.
bool sim_queue_pop(sim_state_t *state, sim_socket_t *socket, sim_link_t at, sim_block_t *first);
void sim_queue_size(sim_state_t *state, sim_socket_t *socket, uint32_t *num, uint64_t *charged);
bool sim_queue_empty(sim_state_t *state, sim_socket_t *socket);
void sim_queue_close(sim_state_t *state, sim_socket_t *socket); // nothing can be put from here on

// Tells the socket's users that something changed: waiters in calls, and who polls the descriptor.
void sim_socket_notify(const sim_self_t *self, sim_socket_t *socket);
void sim_socket_rouse(sim_socket_t *socket); // waiters in calls alone
// Makes the program's descriptor unreadable, unless there is something to report.
void sim_socket_quiet(const sim_self_t *self, sim_socket_t *socket, int fd);
// What poll() reports of it, POLLIN and so on.
short sim_socket_events(sim_state_t *state, sim_socket_t *socket);

#endif
