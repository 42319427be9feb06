// A simulated socket. It consists of two files in the cluster's folder. One is mapped by its owner and by every sender,
// and has the receive queue in it. The other is a Unix datagram socket, the wake-up socket, which is the descriptor
// that the application polls. It holds a byte exactly while the queue holds a message. The owner, and children that
// inherited the socket, hold a lock on the first file: whoever can take that lock knows that they are all gone.
//
// The owner, every sender and the broker enter the queue, each through a mapping of its own. A process may be killed at
// any step: `tail` and `head` move last, and the next process that takes the mutex counts the messages again from them.
#ifndef SIM_QUEUE_H
#define SIM_QUEUE_H

#include <sys/uio.h>

#include "sim_cluster.h"

constexpr uint32_t SIM_MAX_BINDINGS = 64; // of one socket
constexpr uint32_t SIM_MAX_DATA = 66000;  // bytes of one message
constexpr uint32_t SIM_MAX_RETURNED = 1024;

typedef struct sim_socket_s { // the head of the file
    uint32_t magic;
    uint32_t port;
    uint32_t node; // index
    int32_t pid;   // of the process that made it; 0 once a process has closed it while another still holds it
    uint32_t importance;
    uint32_t src_droppable;
    uint32_t dest_droppable;
    uint32_t rmem; // bytes

    sim_mutex_t mutex; // guards all below; nothing is taken under it
    uint32_t closed;
    uint32_t notified; // the wake-up socket holds a byte
    uint32_t num;      // messages
    uint32_t head;     // offset of the first message in the room
    uint32_t tail;     // offset behind the last one
    uint64_t charged;  // bytes, as the kernel would count them
    uint64_t backed;   // bytes of the room that are allocated on the disk
    uint32_t name_num;
    sim_name_t names[SIM_MAX_BINDINGS];
} sim_socket_t;

typedef struct sim_record_s { // a message in the queue; its data follows it
    uint32_t size;            // bytes of the record; 0: the next record is at the start of the room
    uint32_t len;             // bytes of data
    uint32_t src_port;
    uint32_t src_node;  // id of the sender's node
    uint32_t src_index; // index of the sender's node
    uint32_t err;       // TIPC error code of a returned message, else 0
    uint32_t named;     // 1 when it was sent by name; then `type` and `instance` are valid
    uint32_t type;
    uint32_t instance;
    uint32_t importance;
    uint32_t droppable; // 1: dropped instead of returned
    uint32_t charge;    // bytes that it adds to `charged`
} sim_record_t;

typedef struct sim_queue_s { // a mapping of such a file
    sim_socket_t *socket;
    uint8_t *room;
    size_t room_size;
    int fd; // of the file, held by the owner; -1 in other processes
    uint32_t port;
    uint32_t refs;
} sim_queue_t;

int sim_queue_create(sim_queue_t *queue, const sim_cluster_t *cluster, uint32_t node); // 0 or a negative errno
int sim_queue_open(sim_queue_t *queue, const char *dir, uint32_t port);
void sim_queue_unmap(sim_queue_t *queue);
void sim_queue_remove(const char *dir, uint32_t port); // removes the socket's two files
bool sim_queue_wakeup_path(const char *dir, uint32_t port, char *path, size_t size);
bool sim_queue_abandoned(const char *dir, uint32_t port); // no process holds the socket any more

// Adds a message and notifies the receiver through `notify_fd`, an unbound Unix datagram socket. 0, or the TIPC error
// code with which the message is refused.
uint32_t sim_queue_put(sim_queue_t *queue, const char *dir, int notify_fd, sim_record_t *record,
                       const struct iovec *data, size_t num);
// Removes the first message, or with `peek` leaves it: returns its record, and as much of its data as fits. -EAGAIN
// when the queue is empty.
int sim_queue_get(sim_queue_t *queue, int wakeup_fd, bool peek, sim_record_t *record, const struct iovec *data,
                  size_t num);
// Closes the queue and passes every unread message to `return_message`.
typedef void (*sim_return_t)(void *arg, const sim_record_t *record, const uint8_t *data);
void sim_queue_close(sim_queue_t *queue, sim_return_t return_message, void *arg);
// Returns a message that was refused or never read to its sender's queue `to`. Does nothing when the message is
// droppable or is itself a returned one.
void sim_queue_return(sim_queue_t *to, const char *dir, int notify_fd, const sim_record_t *record, const uint8_t *data,
                      uint32_t err, uint32_t by_port, uint32_t by_node);

uint32_t sim_queue_charge(uint32_t len); // bytes that the kernel charges a receive queue for a message of `len` bytes

#endif
