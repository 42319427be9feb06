// Inside the preload library: the TIPC sockets of this process, behind the interposed calls.
#ifndef SIM_PRELOAD_H
#define SIM_PRELOAD_H

#include <linux/tipc.h>
#include <sys/socket.h>

#include "sim_queue.h"

enum preload_kind_e { PRELOAD_RDM, PRELOAD_TOPOLOGY };

typedef struct preload_socket_s {
    preload_kind_e kind;
    int refs;          // guarded by the table's mutex: one for each descriptor, one for each call under way
    sim_queue_t queue; // PRELOAD_RDM only
    bool connected;    // PRELOAD_TOPOLOGY only, as the next
    bool ended;        // and that was read
} preload_socket_t;

// The table of descriptors.
preload_socket_t *preload_get(int fd); // null: no TIPC socket. Else to be given back with preload_put
void preload_put(preload_socket_t *entry);
bool preload_known(int fd);
bool preload_connected(int fd);
bool preload_hidden(int fd); // one of our own
void preload_forget(int fd); // the descriptor is going
void preload_share(int fd, int copy);

// The calls, with the kernel's results: -1 and errno.
int preload_socket(int type);
int preload_bind(preload_socket_t *entry, const struct sockaddr *addr, socklen_t len);
int preload_connect(int fd, preload_socket_t *entry, const struct sockaddr *addr, socklen_t len);
ssize_t preload_send(int fd, preload_socket_t *entry, const struct msghdr *msg, int flags);
ssize_t preload_receive(int fd, preload_socket_t *entry, struct msghdr *msg, int flags);
int preload_getsockname(preload_socket_t *entry, struct sockaddr *addr, socklen_t *len);
int preload_setsockopt(preload_socket_t *entry, int level, int name, const void *value, socklen_t len, bool *passed);
int preload_getsockopt(preload_socket_t *entry, int level, int name, void *value, socklen_t *len, bool *passed);
int preload_refuse(const char *what); // what is not simulated: says so, -1 and EOPNOTSUPP

// This process in its cluster; opened with the first TIPC socket.
sim_cluster_t *preload_cluster(void); // null: not under the launcher
uint32_t preload_node(void);          // index
void preload_complain(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Senders' side: finding a destination and reaching it (preload_route.cpp).
typedef struct preload_target_s {
    uint32_t port;
    uint32_t node; // index
} preload_target_t;
bool preload_lookup(uint32_t type, uint32_t instance, uint32_t scope_node, preload_target_t *target);
uint32_t preload_deliver(const preload_target_t *target, sim_record_t *record, const struct iovec *data, size_t num);
void preload_return(const sim_record_t *record, const uint8_t *data, uint32_t err, uint32_t by_port, uint32_t by_node);
bool preload_take_fault(sim_fault_kind_e kind, uint32_t *value);
int preload_ask_broker(uint32_t op, uint32_t a, uint32_t b, const struct iovec *more, size_t num);
int preload_hide(int fd); // moves a descriptor of ours out of the application's way

#endif
