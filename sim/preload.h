// The inside of the preload library: which descriptors of this process are TIPC sockets, and the functions behind the
// interposed calls. Any thread, signal handler or child of the application may enter any of them at any time: there is
// no lock and no memory that one call keeps for itself. The calls return what the kernel's return, -1 and errno on
// failure; they leave errno alone on success.
#ifndef SIM_PRELOAD_H
#define SIM_PRELOAD_H

#include <linux/tipc.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "sim_deliver.h"
#include "sim_protocol.h"
#include "sim_sys.h"

// The cluster of this process (preload_table.cpp). It is opened with the first TIPC socket, and entered again by a
// child of a fork when it first needs it.
const sim_self_t *preload_self(void); // null when the cluster cannot be opened, for example without the launcher
static inline sim_state_t *preload_state(const sim_self_t *self)
{
    return self->cluster->state;
}
uint32_t preload_node(void); // index of this process's node
const char *preload_tool(void);
int preload_ask_broker(uint32_t op, uint32_t a, const void *data, size_t size); // as sim_ask_broker

// The table of descriptors: the port for each. The entry counts only while the descriptor bears the mark of a socket,
// so a number that was closed by another way and used again is not taken for a socket.
constexpr socklen_t PRELOAD_MAX_ADDRESS = 128; // bytes, sizeof(struct sockaddr_storage)
constexpr size_t PRELOAD_MAX_PARTS = 1024;     // of an iovec, and messages of one call, as in the kernel

bool preload_known(int fd);              // quick and may be wrong: false when it certainly is no socket
sim_socket_t *preload_socket_at(int fd); // null when it is no TIPC socket of this cluster; errno is unchanged
static inline bool preload_is_socket(int fd)
{
    return preload_socket_at(fd) != nullptr;
}
void preload_remember(int fd, uint32_t port);
uint32_t
preload_forget(int fd); // before the descriptor is closed or replaced: its port, SIM_NONE when it was no socket
void preload_released(uint32_t port); // after that: closes the socket unless somebody still has it. SIM_NONE is no port
void preload_adopt(int fd);           // a descriptor that came by exec or from another process, a socket or not
bool preload_shares_memory(void);     // true in the child of a vfork, which must leave the table to its parent

// Says that something is not simulated: one line on standard error; ends the process when TIPCSIM_STRICT is 1.
// -1 and EOPNOTSUPP.
int preload_refuse(const char *what);
void preload_complain(const char *format, ...) __attribute__((format(printf, 1, 2)));
static inline int preload_fail(int err)
{
    errno = err;
    return -1;
}

// Sockets (preload_socket.cpp).
int preload_socket(int type, int protocol);
int preload_socketpair(int type, int protocol, int fds[2]);
int preload_bind(sim_socket_t *socket, const struct sockaddr *addr, socklen_t len);
int preload_listen(sim_socket_t *socket);
int preload_accept(int fd, sim_socket_t *socket, struct sockaddr *addr, socklen_t *len, int flags);
int preload_connect(int fd, sim_socket_t *socket, const struct sockaddr *addr, socklen_t len);
int preload_shutdown(sim_socket_t *socket, int how);
int preload_getsockname(sim_socket_t *socket, struct sockaddr *addr, socklen_t *len);
int preload_getpeername(sim_socket_t *socket, struct sockaddr *addr, socklen_t *len);
// The address of a socket; `node` is the node's.
void preload_socket_address(uint32_t port, uint32_t node, struct sockaddr_tipc *addr);

// Messages (preload_send.cpp, preload_receive.cpp).
ssize_t preload_send(int fd, sim_socket_t *socket, const struct msghdr *msg, int flags);
ssize_t preload_receive(int fd, sim_socket_t *socket, struct msghdr *msg, int flags);

// Options (preload_options.cpp). `passed` is set when the C library has to handle the call.
int preload_setsockopt(sim_socket_t *socket, int level, int name, const void *value, socklen_t len);
int preload_getsockopt(sim_socket_t *socket, int level, int name, void *value, socklen_t *len);
int preload_ioctl(sim_socket_t *socket, unsigned long request, void *arg, bool *passed);

// Waits until socket->change is no longer `seen`, as a blocking call does. `until`: ms of sys_now, INT64_MAX for ever.
// 0 when it has changed, or an errno: EINTR, EAGAIN at the end of the time. Nothing may be held: the thread can be
// cancelled here.
int preload_wait_change(sim_socket_t *socket, uint32_t seen, int64_t until);
bool preload_blocks(int fd, int flags); // neither the descriptor nor the call is non-blocking

// Waiting for several descriptors (preload_wait.cpp). What a wait of this process takes for the time, in us.
int64_t preload_now_us(void);
// The moment at which a wait ends: 0 when it only looks, PRELOAD_EVER when it does not end.
constexpr int64_t PRELOAD_EVER = INT64_MAX;
int64_t preload_end_of_ms(int ms);
int64_t preload_end_of_limit(const struct timespec *limit);
int64_t preload_left_until(int64_t until); // us; PRELOAD_EVER
bool preload_valid_limit(const struct timespec *limit);
struct timespec preload_span(int64_t us);
// The descriptor `fd` is readable, and the socket has nothing to report: makes it unreadable.
void preload_silence(const sim_self_t *self, sim_socket_t *socket, int fd);
constexpr int64_t PRELOAD_SLICE =
    10000;                            // us; how long a wait lasts that another thread's wait may have taken for its own
int64_t preload_look(int64_t ms);     // the time between two looks that nobody's notice makes up for
int64_t preload_slice(int64_t until); // the same, before the first part of a wait that ends then (preload_time.cpp)

// Registrations in sets of epoll (preload_epoll.cpp): a descriptor of such a set is to be closed, or was copied.
bool preload_watching(int fd);
void preload_watch_close(int fd);
void preload_watch_copy(int from, int to);

// After a recvmsg on a descriptor that is no TIPC socket: sockets that came with the message (preload_fds.cpp).
void preload_received(const struct msghdr *msg);

// What a successful stat of the descriptor `fd` says when it is a socket's and `path` is empty, so that it means `fd`
// itself (preload_other.cpp). Returns `ret`.
int preload_describe(int ret, int fd, const char *path, int flags, struct stat *status);
int preload_describe(int ret, int fd, const char *path, int flags, struct stat64 *status);
int preload_describe(int ret, int fd, const char *path, int flags, struct statx *status);

// Whether memory of the application can be read or written. The first and the last byte are tried.
bool preload_readable(const void *data, size_t size);
bool preload_writable(void *data, size_t size);

// Sets *value and counts when the next send of this process has to fail in that way.
bool preload_take_fault(const sim_self_t *self, sim_fault_kind_e kind, uint32_t *value);

#endif
