// Sockets, their names and connections, as the kernel behaves.
#include "preload.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

constexpr uint32_t FIRST_FREE_TYPE = TIPC_RESERVED_TYPES;

// The program's descriptor: an epoll descriptor around a new eventfd, which goes to the keeper. A negative errno when
// something is missing.
static int make_descriptor(const sim_self_t *self, sim_socket_t *socket, int flags)
{
    int wake = (int)sys_call(SYS_eventfd2, 0, EFD_NONBLOCK | EFD_CLOEXEC);
    int fd = (int)sys_call(SYS_epoll_create1, (flags & SOCK_CLOEXEC) != 0 ? EPOLL_CLOEXEC : 0);
    int ret = wake < 0 ? wake : fd;
    struct epoll_event event = {};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = (uint64_t)SIM_MAGIC << 32 | socket->port;
    if (ret >= 0)
        ret = sys_epoll_ctl(fd, EPOLL_CTL_ADD, wake, &event);
    if (ret >= 0)
        ret = sys_fcntl(wake, F_SETSIG, SIM_MARK);
    if (ret >= 0)
        ret = sim_socket_mark(preload_state(self), fd, socket->port);
    if (ret >= 0 && (flags & SOCK_NONBLOCK) != 0)
        ret = sys_fcntl(fd, F_SETFL, O_NONBLOCK);
    if (ret >= 0)
        ret = sim_ask_keeper(self->cluster, SIM_KEEP, socket->port, 0, wake);
    if (wake >= 0)
        (void)sys_close(wake);
    if (ret >= 0) {
        sim_store(&socket->wake, ret);
        return fd;
    }
    if (fd >= 0)
        (void)sys_close(fd);
    return ret;
}

// The slot of a new socket and its descriptor. Null, and errno, when there is none.
static sim_socket_t *make_socket(const sim_self_t *self, uint32_t type, int flags, int *fd)
{
    sim_socket_t *socket = sim_socket_take(self, type, preload_node(), sys_getpid());
    if (socket == nullptr) {
        preload_complain("no room for another socket in %s", self->cluster->dir);
        errno = ENOBUFS;
        return nullptr;
    }
    *fd = make_descriptor(self, socket, flags);
    if (*fd >= 0)
        return socket;
    if (*fd != -EMFILE && *fd != -ENFILE)
        preload_complain("cannot make a socket in %s: %s", self->cluster->dir, strerror(-*fd));
    errno = -*fd;
    sim_socket_close(self, socket, false);
    return nullptr;
}

// Takes back what make_socket made, before the application has seen it.
static void discard_socket(const sim_self_t *self, sim_socket_t *socket, int fd)
{
    (void)sys_close(fd);
    sim_socket_close(self, socket, false);
}

static int publish_socket(sim_socket_t *socket, int fd)
{
    sim_socket_open(socket);
    preload_remember(fd, socket->port);
    return fd;
}

static int check_type(int type, int protocol)
{
    int kind = type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (kind < 0 || kind > SOCK_PACKET)
        return EINVAL;
    if (protocol != 0)
        return EPROTONOSUPPORT;
    return kind == SOCK_RDM || kind == SOCK_DGRAM || kind == SOCK_STREAM || kind == SOCK_SEQPACKET ? 0 : EPROTOTYPE;
}

static sim_socket_t *new_socket(const sim_self_t *self, int type, int *fd)
{
    int flags = type & (SOCK_NONBLOCK | SOCK_CLOEXEC);
    return make_socket(self, (uint32_t)(type & ~flags), flags, fd);
}

int preload_socket(int type, int protocol)
{
    int fd = -1;
    int err = check_type(type, protocol);
    if (err != 0)
        return preload_fail(err);
    const sim_self_t *self = preload_self();
    if (self == nullptr)
        return preload_fail(EAFNOSUPPORT);
    sim_socket_t *socket = new_socket(self, type, &fd);
    return socket != nullptr ? publish_socket(socket, fd) : -1;
}

void preload_socket_address(uint32_t port, uint32_t node, struct sockaddr_tipc *addr)
{
    memset(addr, 0, sizeof(*addr));
    addr->family = AF_TIPC;
    addr->addrtype = TIPC_SOCKET_ADDR;
    addr->addr.id.ref = port;
    addr->addr.id.node = node;
}

static void point_at(sim_socket_t *socket, const sim_state_t *state, const sim_socket_t *peer)
{
    struct sockaddr_tipc addr;
    preload_socket_address(peer->port, sim_node_address(state, peer->node), &addr);
    memcpy(socket->dest, &addr, sizeof(addr));
    socket->paired = 1;
}

static void join(const sim_state_t *state, sim_socket_t *one, sim_socket_t *other)
{
    if (sim_connectionless(one))
        return point_at(one, state, other);
    sim_store(&one->conn, sim_conn(SIM_CONN_ESTABLISHED, other->port, other->node));
}

int preload_socketpair(int type, int protocol, int fds[2])
{
    int pair[2] = {-1, -1};
    int err = check_type(type, protocol);
    if (err == 0 && !preload_writable(fds, sizeof(pair)))
        err = EFAULT;
    if (err != 0)
        return preload_fail(err);
    const sim_self_t *self = preload_self();
    if (self == nullptr)
        return preload_fail(EAFNOSUPPORT);
    sim_socket_t *one = new_socket(self, type, &pair[0]);
    sim_socket_t *other = one != nullptr ? new_socket(self, type, &pair[1]) : nullptr;
    if (other == nullptr) {
        if (one != nullptr)
            discard_socket(self, one, pair[0]);
        return -1;
    }
    join(preload_state(self), one, other);
    join(preload_state(self), other, one);
    fds[0] = publish_socket(one, pair[0]);
    fds[1] = publish_socket(other, pair[1]);
    return 0;
}

// Copies an address of the application. 0 or an errno.
static int take_address(const struct sockaddr *from, socklen_t len, struct sockaddr_tipc *addr)
{
    memset(addr, 0, sizeof(*addr));
    if (len > PRELOAD_MAX_ADDRESS)
        return EINVAL;
    if (!preload_readable(from, len))
        return EFAULT;
    memcpy(addr, from, len < sizeof(*addr) ? len : sizeof(*addr));
    return 0;
}

static int change_names(sim_socket_t *socket, const sim_name_t *name, bool withdraw)
{
    int ret = preload_ask_broker(withdraw ? SIM_UNBIND : SIM_BIND, socket->port, name, sizeof(*name));
    if (ret == -ENOTCONN) {
        preload_complain("no broker: names cannot change until there is one again");
        return preload_fail(ENOBUFS);
    }
    return ret < 0 ? preload_fail(-ret) : 0;
}

int preload_bind(sim_socket_t *socket, const struct sockaddr *generic, socklen_t len)
{
    struct sockaddr_tipc addr;
    sim_name_t name = {};
    if (len == 0)
        return sim_load(&socket->published) == 0 ? 0 : change_names(socket, &name, true);
    int err = take_address(generic, len, &addr);
    if (err != 0)
        return preload_fail(err);
    if (len < sizeof(addr) || addr.family != AF_TIPC)
        return preload_fail(EINVAL);
    if (addr.addrtype == TIPC_SOCKET_ADDR)
        return preload_fail(EAFNOSUPPORT);
    if (addr.addrtype != TIPC_SERVICE_ADDR && addr.addrtype != TIPC_SERVICE_RANGE)
        return preload_fail(EINVAL);
    bool single = addr.addrtype == TIPC_SERVICE_ADDR;
    int scope = addr.scope < 0 ? -addr.scope : addr.scope;
    name.type = addr.addr.nameseq.type;
    name.lower = addr.addr.nameseq.lower;
    name.upper = single ? name.lower : addr.addr.nameseq.upper;
    name.scope = scope == TIPC_NODE_SCOPE ? (uint32_t)TIPC_NODE_SCOPE : (uint32_t)TIPC_CLUSTER_SCOPE;
    name.port = socket->port;
    name.node = socket->node;
    if (name.type < FIRST_FREE_TYPE)
        return preload_fail(EACCES);
    uint32_t conn = sim_conn_state(socket);
    bool connected = conn == SIM_CONN_ESTABLISHED || conn == SIM_CONN_DISCONNECTING;
    if (name.lower > name.upper || (connected && addr.scope >= 0))
        return preload_fail(EINVAL);
    if (addr.scope < 0 && sim_load(&socket->published) == 0)
        return 0; // with no names at all, every withdrawal succeeds
    return change_names(socket, &name, addr.scope < 0);
}

int preload_listen(sim_socket_t *socket)
{
    if (sim_connectionless(socket))
        return preload_fail(EOPNOTSUPP);
    bool done = sim_swap(&socket->conn, sim_conn(SIM_CONN_OPEN, 0), sim_conn(SIM_CONN_LISTEN, 0));
    return done ? 0 : preload_fail(EINVAL);
}

// Gives an address to the application, cut to its room.
static int give_address(const struct sockaddr_tipc *addr, struct sockaddr *out, socklen_t *len)
{
    if (!preload_readable(len, sizeof(*len)))
        return preload_fail(EFAULT);
    if ((int)*len < 0)
        return preload_fail(EINVAL);
    socklen_t part = *len < sizeof(*addr) ? *len : (socklen_t)sizeof(*addr);
    if (!preload_writable(out, part))
        return preload_fail(EFAULT);
    memcpy(out, addr, part);
    *len = sizeof(*addr);
    return 0;
}

int preload_getsockname(sim_socket_t *socket, struct sockaddr *out, socklen_t *len)
{
    struct sockaddr_tipc addr;
    preload_socket_address(socket->port, sim_node_address(preload_state(preload_self()), socket->node), &addr);
    return give_address(&addr, out, len);
}

static void peer_address(const sim_state_t *state, const sim_socket_t *socket, struct sockaddr_tipc *addr)
{
    preload_socket_address(sim_conn_peer(socket), sim_node_address(state, sim_conn_node(socket)), addr);
}

int preload_getpeername(sim_socket_t *socket, struct sockaddr *out, socklen_t *len)
{
    struct sockaddr_tipc addr;
    if (socket->paired != 0) {
        memcpy(&addr, socket->dest, sizeof(addr));
        return give_address(&addr, out, len);
    }
    if (sim_conn_state(socket) != SIM_CONN_ESTABLISHED)
        return preload_fail(ENOTCONN);
    peer_address(preload_state(preload_self()), socket, &addr);
    return give_address(&addr, out, len);
}

// Waits for a SYN in the queue of a listening socket. 0 or an errno.
static int wait_for_syn(int fd, sim_state_t *state, sim_socket_t *socket)
{
    int64_t until = socket->rcvtimeo == 0 ? INT64_MAX : sys_now() + socket->rcvtimeo / 1000;
    bool blocks = preload_blocks(fd, 0);
    for (;;) {
        uint32_t seen = sim_load(&socket->change);
        if (!sim_queue_empty(state, socket))
            return 0;
        if (sim_conn_state(socket) != SIM_CONN_LISTEN)
            return EINVAL;
        int err = blocks ? preload_wait_change(socket, seen, until) : EAGAIN;
        if (err != 0)
            return err;
    }
}

int preload_accept(int fd, sim_socket_t *socket, struct sockaddr *addr, socklen_t *len, int flags)
{
    const sim_self_t *self = preload_self();
    if ((flags & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) != 0)
        return preload_fail(EINVAL);
    if (sim_connectionless(socket))
        return preload_fail(EOPNOTSUPP);
    if (sim_conn_state(socket) != SIM_CONN_LISTEN)
        return preload_fail(EINVAL);
    pthread_testcancel();
    for (;;) {
        int err = wait_for_syn(fd, preload_state(self), socket);
        if (err != 0) {
            sim_socket_quiet(self, socket, fd);
            return preload_fail(err);
        }
        int fresh_fd = -1;
        sim_socket_t *fresh = make_socket(self, socket->type, flags, &fresh_fd);
        if (fresh == nullptr)
            return -1;
        sim_socket_open(fresh);                 // the client's first message may arrive at once
        if (!sim_accept(self, socket, fresh)) { // another thread or process took it
            discard_socket(self, fresh, fresh_fd);
            continue;
        }
        sim_socket_quiet(self, socket, fd);
        struct sockaddr_tipc from;
        peer_address(preload_state(self), fresh, &from);
        if (addr != nullptr && give_address(&from, addr, len) != 0) {
            discard_socket(self, fresh, fresh_fd);
            return -1;
        }
        preload_remember(fresh_fd, fresh->port);
        return fresh_fd;
    }
}

static int save_destination(sim_socket_t *socket, const struct sockaddr_tipc *addr)
{
    if (addr->family == AF_UNSPEC)
        memset(socket->dest, 0, sizeof(socket->dest));
    else
        memcpy(socket->dest, addr, sizeof(*addr));
    return 0;
}

static int wait_for_connect(sim_socket_t *socket)
{
    int64_t until = sys_now() + socket->conn_timeout;
    for (;;) {
        uint32_t seen = sim_load(&socket->change);
        uint32_t err = __atomic_exchange_n(&socket->err, 0U, __ATOMIC_SEQ_CST);
        if (err != 0)
            return preload_fail((int)err);
        if (sim_conn_state(socket) != SIM_CONN_CONNECTING)
            return 0;
        int waited = preload_wait_change(socket, seen, until);
        if (waited != 0 && sim_load(&socket->change) == seen)
            return preload_fail(waited == EAGAIN ? ETIMEDOUT : waited);
    }
}

static int start_connect(int fd, sim_socket_t *socket, const struct sockaddr_tipc *addr, socklen_t len)
{
    struct msghdr syn = {};
    syn.msg_name = const_cast<struct sockaddr_tipc *>(addr);
    syn.msg_namelen = len;
    return (int)preload_send(fd, socket, &syn, MSG_DONTWAIT);
}

int preload_connect(int fd, sim_socket_t *socket, const struct sockaddr *generic, socklen_t len)
{
    struct sockaddr_tipc addr;
    int err = take_address(generic, len, &addr);
    if (err != 0 || len != sizeof(addr))
        return preload_fail(err != 0 ? err : EINVAL);
    pthread_testcancel();
    bool connectionless = sim_connectionless(socket);
    if (addr.family == AF_UNSPEC)
        return connectionless ? save_destination(socket, &addr) : preload_fail(EINVAL);
    bool sane = addr.family == AF_TIPC && addr.addrtype >= TIPC_SERVICE_RANGE && addr.addrtype <= TIPC_SOCKET_ADDR;
    if (!sane ||
        (addr.addrtype == TIPC_SERVICE_RANGE && (!connectionless || addr.addr.nameseq.lower > addr.addr.nameseq.upper)))
        return preload_fail(EINVAL);
    if (connectionless)
        return save_destination(socket, &addr);
    bool blocks = preload_blocks(fd, 0) && socket->conn_timeout != 0;
    uint32_t conn = sim_conn_state(socket);
    if (conn == SIM_CONN_ESTABLISHED)
        return preload_fail(EISCONN);
    if (conn != SIM_CONN_OPEN && conn != SIM_CONN_CONNECTING)
        return preload_fail(EINVAL);
    if (conn == SIM_CONN_OPEN && start_connect(fd, socket, &addr, len) < 0)
        return -1;
    if (!blocks)
        return preload_fail(conn == SIM_CONN_OPEN ? EINPROGRESS : EALREADY);
    return wait_for_connect(socket);
}

int preload_shutdown(sim_socket_t *socket, int how)
{
    const sim_self_t *self = preload_self();
    if (how != SHUT_RDWR)
        return preload_fail(EINVAL);
    bool was = sim_conn_state(socket) == SIM_CONN_ESTABLISHED || sim_conn_state(socket) == SIM_CONN_CONNECTING ||
               sim_conn_state(socket) == SIM_CONN_DISCONNECTING;
    sim_disconnect(self, socket, TIPC_CONN_SHUTDOWN);
    sim_store(&socket->shut, 1U);
    sim_socket_notify(self, socket);
    return was ? 0 : preload_fail(ENOTCONN);
}
