// The inside of the preload library: the TIPC sockets of this process and the functions behind the interposed calls.
// Any thread of the application may enter any of them.
#ifndef SIM_PRELOAD_H
#define SIM_PRELOAD_H

#include <linux/tipc.h>
#include <sys/socket.h>

#include "sim_queue.h"

enum preload_kind_e { PRELOAD_RDM, PRELOAD_TOPOLOGY };

typedef struct preload_socket_s {
    preload_kind_e kind;
    int refs;          // one for each descriptor and for each call in progress; guarded by the table's mutex
    sim_queue_t queue; // PRELOAD_RDM only
    bool connected;    // PRELOAD_TOPOLOGY only
    bool ended;        // PRELOAD_TOPOLOGY only: the application has read the end of the connection
} preload_socket_t;

// The table of descriptors.
preload_socket_t *preload_get(int fd); // null when it is no TIPC socket; release it with preload_put
void preload_put(preload_socket_t *entry);
bool preload_known(int fd);
bool preload_connected(int fd);
bool preload_hidden(int fd); // the library's own descriptor, which the application must not close
void preload_forget(int fd); // removes the entry; the descriptor is about to be closed or replaced
void preload_share(int fd, int copy);

// The calls return what the kernel's return: -1 and errno on failure. `passed` is set when the option belongs to the
// descriptor and the C library has to handle it.
int preload_socket(int type);
int preload_bind(preload_socket_t *entry, const struct sockaddr *addr, socklen_t len);
int preload_connect(int fd, preload_socket_t *entry, const struct sockaddr *addr, socklen_t len);
ssize_t preload_send(int fd, preload_socket_t *entry, const struct msghdr *msg, int flags);
ssize_t preload_receive(int fd, preload_socket_t *entry, struct msghdr *msg, int flags);
int preload_getsockname(preload_socket_t *entry, struct sockaddr *addr, socklen_t *len);
int preload_setsockopt(preload_socket_t *entry, int level, int name, const void *value, socklen_t len, bool *passed);
int preload_getsockopt(preload_socket_t *entry, int level, int name, void *value, socklen_t *len, bool *passed);
int preload_refuse(const char *what); // prints that `what` is not simulated; -1 and EOPNOTSUPP

// The cluster of this process. It is opened with the first TIPC socket.
sim_cluster_t *preload_cluster(void); // null when it cannot be opened, for example without the launcher
uint32_t preload_node(void);          // index
void preload_complain(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The sender's side: finds a destination and delivers to it (preload_route.cpp).
typedef struct preload_target_s {
    uint32_t port;
    uint32_t node; // index
} preload_target_t;
bool preload_lookup(uint32_t type, uint32_t instance, uint32_t scope_node, preload_target_t *target);
uint32_t preload_deliver(const preload_target_t *target, sim_record_t *record, const struct iovec *data, size_t num);
void preload_return(const sim_record_t *record, const uint8_t *data, uint32_t err, uint32_t by_port, uint32_t by_node);
bool preload_take_fault(sim_fault_kind_e kind, uint32_t *value);
int preload_ask_broker(uint32_t op, uint32_t a, uint32_t b, const struct iovec *more, size_t num);
int preload_hide(int fd); // moves a descriptor of the library to a high number, where the application does not meet it

#endif
