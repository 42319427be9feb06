// A simulated socket: a file in the cluster's folder that its owner and every sender map, with the receive queue in it,
// and beside it a Unix datagram socket, the wake-up socket, which is the descriptor that the application polls. A byte
// lies in the wake-up socket exactly while the queue holds a message. The owner, and children that inherited the
// socket, hold a lock on the file: who can take it knows that they are all gone.
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
    int32_t pid;   // who made it; 0 when it has closed it and left it to a child
    uint32_t importance;
    uint32_t src_droppable;
    uint32_t dest_droppable;
    uint32_t rmem; // bytes

    sim_mutex_t mutex; // guards all below; nothing is taken under it
    uint32_t closed;
    uint32_t notified; // the wake-up socket holds a byte
    uint32_t num;      // messages
    uint32_t head;     // offsets into the room
    uint32_t tail;
    uint64_t charged; // bytes, as the kernel would count them
    uint64_t backed;  // bytes of the room that the disk has given
    uint32_t name_num;
    sim_name_t names[SIM_MAX_BINDINGS];
} sim_socket_t;

typedef struct sim_record_s { // a message in the queue, its data behind it
    uint32_t size;            // of the record; 0: the queue goes on at the start of the room
    uint32_t len;             // bytes of data
    uint32_t src_port;
    uint32_t src_node;  // id
    uint32_t src_index; // and index
    uint32_t err;       // why it came back, 0 when it did not
    uint32_t named;     // sent by name:
    uint32_t type;
    uint32_t instance;
    uint32_t importance;
    uint32_t droppable; // not to be returned
    uint32_t charge;
} sim_record_t;

typedef struct sim_queue_s { // a mapping of such a file
    sim_socket_t *socket;
    uint8_t *room;
    size_t room_size;
    int fd; // of the file, at its owner; -1 elsewhere
    uint32_t port;
    uint32_t refs;
} sim_queue_t;

int sim_queue_create(sim_queue_t *queue, const sim_cluster_t *cluster, uint32_t node); // 0 or a negative errno
int sim_queue_open(sim_queue_t *queue, const char *dir, uint32_t port);
void sim_queue_unmap(sim_queue_t *queue);
void sim_queue_remove(const char *dir, uint32_t port); // its two files
bool sim_queue_wakeup_path(const char *dir, uint32_t port, char *path, size_t size);
bool sim_queue_abandoned(const char *dir, uint32_t port); // nobody holds it any more

// Puts a message in. 0, or a TIPC error code why it is refused. `notify_fd`: an unbound Unix datagram socket.
uint32_t sim_queue_put(sim_queue_t *queue, const char *dir, int notify_fd, sim_record_t *record,
                       const struct iovec *data, size_t num);
// Takes the first message out, or looks at it: its head, and its data as far as it fits. -EAGAIN when there is none.
int sim_queue_get(sim_queue_t *queue, int wakeup_fd, bool peek, sim_record_t *record, const struct iovec *data,
                  size_t num);
// Closes it and hands every unread message to `return_message`.
typedef void (*sim_return_t)(void *arg, const sim_record_t *record, const uint8_t *data);
void sim_queue_close(sim_queue_t *queue, sim_return_t return_message, void *arg);
// What a sender gets back of its own message, or of one that was never read. Nothing when it must not be returned.
void sim_queue_return(sim_queue_t *to, const char *dir, int notify_fd, const sim_record_t *record, const uint8_t *data,
                      uint32_t err, uint32_t by_port, uint32_t by_node);

uint32_t sim_queue_charge(uint32_t len); // bytes of queue that a message of `len` bytes takes in the kernel

#endif
