// The kernel's behaviour of TIPC sockets, on queues in shared memory.
#include "preload.h"
#include "sim_protocol.h"
#include "sim_sys.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>

constexpr int MAX_FDS = 65536;
constexpr uint32_t FIRST_FREE_TYPE = TIPC_RESERVED_TYPES;

static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER; // guards changes of s_table and the entries' references
static preload_socket_t *s_table[MAX_FDS];

static pthread_mutex_t s_cluster_mutex = PTHREAD_MUTEX_INITIALIZER; // guards the opening of the cluster
static sim_cluster_t s_cluster;
static uint32_t s_node = SIM_ANY_NODE;

static int fail(int err)
{
    errno = err;
    return -1;
}

int preload_refuse(const char *what)
{
    preload_complain("%s is not simulated", what);
    return fail(EOPNOTSUPP);
}

uint32_t preload_node()
{
    return s_node;
}

static bool open_cluster()
{
    const char *dir = getenv("TIPCSIM_CLUSTER");
    const char *node = getenv("TIPCSIM_NODE");
    const char *why = "";
    if (dir == nullptr || node == nullptr) {
        preload_complain("this process is on no node: start it with tipcsim run --node N -- PROGRAM");
        return false;
    }
    int ret = sim_cluster_open(&s_cluster, dir, true, &why);
    if (ret != 0) {
        preload_complain("cluster %s: %s: %s", dir, why, strerror(-ret));
        return false;
    }
    s_node = sim_node_index(s_cluster.state, (uint32_t)strtoul(node, nullptr, 10));
    if (s_node != SIM_ANY_NODE)
        return true;
    preload_complain("a cluster has at most %u nodes", SIM_MAX_NODES);
    sim_cluster_close(&s_cluster);
    return false;
}

sim_cluster_t *preload_cluster()
{
    if (__atomic_load_n(&s_cluster.state, __ATOMIC_ACQUIRE) != nullptr)
        return &s_cluster;
    (void)pthread_mutex_lock(&s_cluster_mutex);
    bool open = s_cluster.state != nullptr || open_cluster();
    (void)pthread_mutex_unlock(&s_cluster_mutex);
    return open ? &s_cluster : nullptr;
}

bool preload_known(int fd)
{
    return fd >= 0 && fd < MAX_FDS && __atomic_load_n(&s_table[fd], __ATOMIC_ACQUIRE) != nullptr;
}

preload_socket_t *preload_get(int fd)
{
    if (!preload_known(fd))
        return nullptr;
    (void)pthread_mutex_lock(&s_mutex);
    preload_socket_t *entry = s_table[fd];
    if (entry != nullptr)
        entry->refs++;
    (void)pthread_mutex_unlock(&s_mutex);
    return entry;
}

static void return_unread(void *arg, const sim_record_t *record, const uint8_t *data)
{
    const sim_socket_t *socket = (const sim_socket_t *)arg;
    preload_return(record, data, TIPC_ERR_NO_PORT, socket->port, s_cluster.state->nodes[socket->node]);
}

bool preload_connected(int fd)
{
    preload_socket_t *entry = preload_get(fd);
    bool connected = entry != nullptr && entry->connected;
    if (entry != nullptr)
        preload_put(entry);
    return connected;
}

// Called when the last reference of this process is gone. A child or the parent may still hold the socket.
static void close_socket(preload_socket_t *entry)
{
    sim_queue_t *queue = &entry->queue;
    if (entry->kind == PRELOAD_TOPOLOGY)
        return;
    (void)sys_close(queue->fd); // releases this process's share of the lock on the file
    queue->fd = -1;
    if (sim_queue_abandoned(s_cluster.dir, queue->port)) {
        sim_queue_close(queue, return_unread, queue->socket);
        sim_queue_remove(s_cluster.dir, queue->port);
        (void)preload_ask_broker(SIM_GONE, queue->port, 0, nullptr, 0);
    } else { // another process still has the socket, so it stays open
        queue->socket->pid = 0;
        (void)preload_ask_broker(SIM_SYNC, queue->port, 0, nullptr, 0);
    }
    sim_queue_unmap(queue);
}

void preload_put(preload_socket_t *entry)
{
    (void)pthread_mutex_lock(&s_mutex);
    bool last = --entry->refs == 0;
    (void)pthread_mutex_unlock(&s_mutex);
    if (!last)
        return;
    int err = errno;
    close_socket(entry);
    free(entry);
    errno = err;
}

void preload_forget(int fd)
{
    (void)pthread_mutex_lock(&s_mutex);
    preload_socket_t *entry = s_table[fd];
    __atomic_store_n(&s_table[fd], (preload_socket_t *)nullptr, __ATOMIC_RELEASE);
    (void)pthread_mutex_unlock(&s_mutex);
    if (entry != nullptr)
        preload_put(entry);
}

static bool remember(int fd, preload_socket_t *entry)
{
    if (fd >= MAX_FDS)
        return false;
    (void)pthread_mutex_lock(&s_mutex);
    entry->refs++;
    __atomic_store_n(&s_table[fd], entry, __ATOMIC_RELEASE);
    (void)pthread_mutex_unlock(&s_mutex);
    return true;
}

void preload_share(int fd, int copy)
{
    preload_socket_t *entry = preload_get(fd);
    if (entry == nullptr)
        return;
    (void)remember(copy, entry);
    preload_put(entry);
}

static int open_wakeup_socket(const sim_cluster_t *cluster, uint32_t port, int flags)
{
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (!sim_queue_wakeup_path(cluster->dir, port, addr.sun_path, sizeof(addr.sun_path)))
        return -ENAMETOOLONG;
    int fd = (int)syscall(SYS_socket, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | flags, 0);
    if (fd < 0)
        return -errno;
    if (syscall(SYS_bind, fd, &addr, sizeof(addr)) == 0)
        return fd;
    int err = errno;
    (void)sys_close(fd);
    return -err;
}

// Takes the cluster's lock, so that the broker does not find the folder unused and remove it meanwhile.
static int open_rdm(sim_cluster_t *cluster, preload_socket_t *entry, int flags)
{
    int lock = sim_cluster_lock(cluster->dir);
    int ret = lock < 0 ? lock : sim_queue_create(&entry->queue, cluster, s_node);
    if (ret < 0) {
        if (lock >= 0)
            (void)sys_close(lock);
        return ret;
    }
    int fd = open_wakeup_socket(cluster, entry->queue.port, flags);
    if (fd < 0) {
        sim_queue_remove(cluster->dir, entry->queue.port);
        sim_queue_unmap(&entry->queue);
    } else {
        entry->queue.fd = preload_hide(entry->queue.fd);
    }
    (void)sys_close(lock);
    return fd;
}

int preload_socket(int type)
{
    int flags = type & (SOCK_NONBLOCK | SOCK_CLOEXEC);
    int kind = type & ~flags;
    if (kind == SOCK_STREAM || kind == SOCK_DGRAM)
        return preload_refuse(kind == SOCK_STREAM ? "SOCK_STREAM" : "SOCK_DGRAM");
    if (kind != SOCK_RDM && kind != SOCK_SEQPACKET)
        return fail(EPROTOTYPE);
    sim_cluster_t *cluster = preload_cluster();
    if (cluster == nullptr)
        return fail(EAFNOSUPPORT);
    preload_socket_t *entry = (preload_socket_t *)calloc(1, sizeof(*entry));
    if (entry == nullptr)
        return fail(ENOMEM);
    entry->kind = kind == SOCK_RDM ? PRELOAD_RDM : PRELOAD_TOPOLOGY;
    int fd = kind == SOCK_RDM
                 ? open_rdm(cluster, entry, flags & SOCK_NONBLOCK)
                 : (int)syscall(SYS_socket, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | (flags & SOCK_NONBLOCK), 0);
    if (fd < 0) {
        int err = kind == SOCK_RDM ? -fd : errno;
        preload_complain("cannot make a socket in %s: %s", cluster->dir, strerror(err));
        free(entry);
        return fail(err);
    }
    if (kind == SOCK_RDM) { // from here on the broker closes the socket when its processes end
        int ret = preload_ask_broker(SIM_SYNC, entry->queue.port, 0, nullptr, 0);
        if (ret != 0)
            preload_complain("no broker in %s: names will be known when there is one again", cluster->dir);
    }
    if (remember(fd, entry))
        return fd;
    (void)sys_close(fd);
    entry->refs = 1;
    preload_put(entry);
    return fail(EMFILE);
}

static bool same_name(const sim_name_t *a, const sim_name_t *b)
{
    return a->scope == b->scope && a->type == b->type && a->lower == b->lower && a->upper == b->upper;
}

static int change_names(sim_socket_t *socket, const sim_name_t *name, bool withdraw)
{
    sim_guard_s guard(&socket->mutex);
    if (!withdraw) {
        if (socket->name_num == SIM_MAX_BINDINGS)
            return ENOBUFS;
        socket->names[socket->name_num++] = *name;
        return 0;
    }
    if (socket->name_num == 0)
        return 0; // with no names at all, every withdrawal succeeds
    uint32_t kept = 0;
    uint32_t removed = 0;
    for (uint32_t i = 0; i < socket->name_num; i++) {
        if (name != nullptr && (removed != 0 || !same_name(&socket->names[i], name)))
            socket->names[kept++] = socket->names[i];
        else
            removed++;
    }
    socket->name_num = kept;
    return removed != 0 || name == nullptr ? 0 : EINVAL;
}

static int synchronise_names(preload_socket_t *entry)
{
    (void)preload_ask_broker(SIM_SYNC, entry->queue.port, 0, nullptr, 0);
    return 0; // when there is no broker, the next one reads the names from the socket
}

int preload_bind(preload_socket_t *entry, const struct sockaddr *generic, socklen_t len)
{
    const struct sockaddr_tipc *addr = (const struct sockaddr_tipc *)generic;
    if (entry->kind != PRELOAD_RDM)
        return preload_refuse("bind on SOCK_SEQPACKET");
    if (len == 0)
        return change_names(entry->queue.socket, nullptr, true) == 0 ? synchronise_names(entry) : -1;
    if (len < sizeof(*addr) || addr->family != AF_TIPC)
        return fail(EINVAL);
    if (addr->addrtype == TIPC_SOCKET_ADDR)
        return fail(EAFNOSUPPORT);
    if (addr->addrtype != TIPC_SERVICE_ADDR && addr->addrtype != TIPC_SERVICE_RANGE)
        return fail(EINVAL);
    bool single = addr->addrtype == TIPC_SERVICE_ADDR;
    int scope = addr->scope < 0 ? -addr->scope : addr->scope;
    sim_name_t name = {addr->addr.nameseq.type,
                       addr->addr.nameseq.lower,
                       single ? addr->addr.nameseq.lower : addr->addr.nameseq.upper,
                       scope == TIPC_NODE_SCOPE ? (uint32_t)TIPC_NODE_SCOPE : (uint32_t)TIPC_CLUSTER_SCOPE,
                       entry->queue.port,
                       s_node,
                       __atomic_fetch_add(&s_cluster.state->next_id, 1, __ATOMIC_RELAXED)};
    if (name.type < FIRST_FREE_TYPE)
        return fail(EACCES);
    if (name.lower > name.upper)
        return fail(EINVAL);
    int err = change_names(entry->queue.socket, &name, addr->scope < 0);
    return err == 0 ? synchronise_names(entry) : fail(err);
}

int preload_connect(int fd, preload_socket_t *entry, const struct sockaddr *generic, socklen_t len)
{
    const struct sockaddr_tipc *addr = (const struct sockaddr_tipc *)generic;
    if (len < sizeof(*addr))
        return fail(EINVAL);
    if (addr->family != AF_TIPC)
        return fail(EAFNOSUPPORT);
    preload_target_t found;
    if (entry->kind == PRELOAD_TOPOLOGY && addr->addrtype == TIPC_SERVICE_ADDR &&
        addr->addr.name.name.type != TIPC_TOP_SRV &&
        !preload_lookup(addr->addr.name.name.type, addr->addr.name.name.instance, SIM_ANY_NODE, &found))
        return fail(EHOSTUNREACH);
    if (entry->kind != PRELOAD_TOPOLOGY || addr->addrtype != TIPC_SERVICE_ADDR ||
        addr->addr.name.name.type != TIPC_TOP_SRV)
        return preload_refuse("connect to anything but the topology service");
    if (entry->connected)
        return fail(EISCONN);
    int own = sim_broker_connect(&s_cluster, getenv("TIPCSIM_TOOL"));
    if (own < 0)
        return fail(ECONNREFUSED);
    sim_request_t request = {SIM_MAGIC, SIM_TOPOLOGY, s_cluster.state->nodes[s_node], 0, 0, 0};
    int ret = sim_broker_ask(own, &request, nullptr, 0);
    int flags = fcntl(fd, F_GETFL);
    int fd_flags = fcntl(fd, F_GETFD);
    if (ret != 0 || syscall(SYS_dup3, own, fd, (fd_flags & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0) < 0) {
        (void)sys_close(own);
        return fail(ECONNREFUSED);
    }
    (void)fcntl(fd, F_SETFL, flags);
    (void)sys_close(own);
    entry->connected = true;
    return 0;
}

static bool whole(const struct msghdr *msg, size_t *len)
{
    *len = 0;
    for (size_t i = 0; i < msg->msg_iovlen; i++)
        *len += msg->msg_iov[i].iov_len;
    return *len <= SIM_MAX_DATA;
}

static void refuse_message(const sim_record_t *record, const struct msghdr *msg, uint32_t err,
                           const preload_target_t *by)
{
    uint8_t start[SIM_MAX_RETURNED];
    size_t at = 0;
    for (size_t i = 0; i < msg->msg_iovlen && at < sizeof(start); i++) {
        size_t part = msg->msg_iov[i].iov_len < sizeof(start) - at ? msg->msg_iov[i].iov_len : sizeof(start) - at;
        memcpy(start + at, msg->msg_iov[i].iov_base, part);
        at += part;
    }
    preload_return(record, start, err, by->port, s_cluster.state->nodes[by->node]);
}

static uint32_t known_node(uint32_t id)
{
    sim_state_t *state = s_cluster.state;
    sim_guard_s guard(&state->mutex);
    for (uint32_t i = 0; i < state->node_num; i++) {
        if (state->nodes[i] == id)
            return i;
    }
    return SIM_ANY_NODE;
}

static ssize_t send_by_name(const struct sockaddr_tipc *addr, sim_record_t *record, const struct msghdr *msg)
{
    preload_target_t target = {};
    record->named = 1;
    record->type = addr->addr.name.name.type;
    record->instance = addr->addr.name.name.instance;
    uint32_t node = SIM_ANY_NODE;
    if (addr->addr.name.domain != 0) {
        node = known_node(addr->addr.name.domain);
        if (node == SIM_ANY_NODE)
            return fail(EHOSTUNREACH);
    }
    for (int tries = 0;; tries++) {
        if (!preload_lookup(record->type, record->instance, node, &target))
            return fail(EHOSTUNREACH);
        uint32_t err = preload_deliver(&target, record, msg->msg_iov, msg->msg_iovlen);
        if (err == TIPC_OK)
            return record->len;
        if (err == TIPC_ERR_NO_PORT && tries == 0)
            continue; // another socket may have the same name
        refuse_message(record, msg, err == TIPC_ERR_NO_PORT ? (uint32_t)TIPC_ERR_NO_NAME : err, &target);
        return record->len;
    }
}

static ssize_t send_by_port(const struct sockaddr_tipc *addr, sim_record_t *record, const struct msghdr *msg)
{
    preload_target_t target = {addr->addr.id.ref, known_node(addr->addr.id.node)};
    if (target.node == SIM_ANY_NODE || !sim_linked(s_cluster.state->down, s_node, target.node)) {
        return fail(EHOSTUNREACH);
    }
    uint32_t err = preload_deliver(&target, record, msg->msg_iov, msg->msg_iovlen);
    if (err != TIPC_OK)
        refuse_message(record, msg, err, &target);
    return record->len;
}

// Takes a fault ordered with `tipcsim fail`, if there is one for this process: the send fails with an errno, reports
// fewer bytes, or its message is returned at once.
static bool faulted(sim_record_t *record, const struct msghdr *msg, ssize_t *result)
{
    uint32_t value = 0;
    if (preload_take_fault(SIM_FAULT_ERRNO, &value)) {
        *result = fail((int)value);
        return true;
    }
    if (preload_take_fault(SIM_FAULT_SHORT, &value)) {
        *result = value < record->len ? (ssize_t)value : (ssize_t)record->len;
        return true;
    }
    if (!preload_take_fault(SIM_FAULT_RETURN, &value))
        return false;
    preload_target_t by = {record->src_port, s_node};
    const struct sockaddr_tipc *addr = (const struct sockaddr_tipc *)msg->msg_name;
    record->named = addr->addrtype == TIPC_SERVICE_ADDR ? 1 : 0;
    record->type = addr->addr.name.name.type;
    record->instance = addr->addr.name.name.instance;
    refuse_message(record, msg, value, &by);
    *result = record->len;
    return true;
}

ssize_t preload_send(int fd, preload_socket_t *entry, const struct msghdr *msg, int flags)
{
    if (entry->kind == PRELOAD_TOPOLOGY && !entry->connected)
        return fail(ENOTCONN);
    if (entry->kind == PRELOAD_TOPOLOGY)
        return syscall(SYS_sendmsg, fd, msg, flags);
    const struct sockaddr_tipc *addr = (const struct sockaddr_tipc *)msg->msg_name;
    size_t len = 0;
    if (!whole(msg, &len))
        return fail(EMSGSIZE);
    if (addr == nullptr || msg->msg_namelen == 0)
        return fail(EDESTADDRREQ);
    if (msg->msg_namelen < sizeof(*addr) || addr->family != AF_TIPC)
        return fail(EINVAL);
    if (addr->addrtype == TIPC_SERVICE_RANGE)
        return preload_refuse("a send to a range of names");
    if (addr->addrtype != TIPC_SERVICE_ADDR && addr->addrtype != TIPC_SOCKET_ADDR)
        return fail(EINVAL);
    const sim_socket_t *socket = entry->queue.socket;
    sim_record_t record = {};
    record.len = (uint32_t)len;
    record.src_port = entry->queue.port;
    record.src_node = s_cluster.state->nodes[s_node];
    record.src_index = s_node;
    record.importance = socket->importance;
    record.droppable = socket->dest_droppable;
    ssize_t result = 0;
    if (faulted(&record, msg, &result))
        return result;
    return addr->addrtype == TIPC_SERVICE_ADDR ? send_by_name(addr, &record, msg) : send_by_port(addr, &record, msg);
}

static void put_control(struct msghdr *msg, size_t *used, int type, const void *data, size_t len)
{
    size_t room = msg->msg_controllen - *used;
    struct cmsghdr head = {CMSG_LEN(len), SOL_TIPC, type};
    if (msg->msg_control == nullptr || msg->msg_controllen == 0)
        return;
    if (room < sizeof(head)) {
        msg->msg_flags |= MSG_CTRUNC;
        return;
    }
    if (room < head.cmsg_len) {
        msg->msg_flags |= MSG_CTRUNC;
        head.cmsg_len = room;
    }
    uint8_t *to = (uint8_t *)msg->msg_control + *used;
    memcpy(to, &head, sizeof(head));
    memcpy(to + sizeof(head), data, head.cmsg_len - sizeof(head));
    *used += CMSG_SPACE(len) < room ? CMSG_SPACE(len) : room;
}

static void describe(const sim_record_t *record, const uint8_t *data, struct msghdr *msg)
{
    size_t used = 0;
    if (record->err != TIPC_OK) {
        uint32_t info[2] = {record->err, record->len};
        put_control(msg, &used, TIPC_ERRINFO, info, sizeof(info));
        if (record->len != 0)
            put_control(msg, &used, TIPC_RETDATA, data, record->len);
    }
    if (record->named != 0 && (record->err == TIPC_OK || record->len != 0)) {
        uint32_t name[3] = {record->type, record->instance, record->instance};
        put_control(msg, &used, TIPC_DESTNAME, name, sizeof(name));
    }
    msg->msg_controllen = used;
}

static void name_sender(const sim_record_t *record, struct msghdr *msg)
{
    struct sockaddr_tipc addr;
    memset(&addr, 0, sizeof(addr));
    addr.family = AF_TIPC;
    addr.addrtype = TIPC_SOCKET_ADDR;
    addr.addr.id.ref = record->src_port;
    addr.addr.id.node = record->src_node;
    if (msg->msg_name != nullptr)
        memcpy(msg->msg_name, &addr, msg->msg_namelen < sizeof(addr) ? msg->msg_namelen : sizeof(addr));
    msg->msg_namelen = sizeof(addr);
}

// Waits until the wake-up socket holds a byte, as a blocking read would: not at all when the descriptor or the call is
// non-blocking, else for SO_RCVTIMEO. 0 or an errno.
static int wait_readable(int fd, int flags)
{
    if ((flags & MSG_DONTWAIT) != 0 || (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0)
        return EAGAIN;
    struct timeval limit = {};
    socklen_t len = sizeof(limit);
    (void)syscall(SYS_getsockopt, fd, SOL_SOCKET, SO_RCVTIMEO, &limit, &len);
    struct timespec wait = {limit.tv_sec, limit.tv_usec * 1000};
    bool endless = limit.tv_sec == 0 && limit.tv_usec == 0;
    struct pollfd poll_fd = {fd, POLLIN, 0};
    int ret = ppoll(&poll_fd, 1, endless ? nullptr : &wait, nullptr);
    if (ret == 0)
        return EAGAIN;
    return ret < 0 ? errno : 0;
}

// Receives one message. The data of a returned message goes into the control buffer, so it is first read into a buffer
// of this function.
static ssize_t hand_over(preload_socket_t *entry, int fd, struct msghdr *msg, int flags, bool *again)
{
    uint8_t returned[SIM_MAX_RETURNED];
    sim_record_t record;
    bool peek = (flags & MSG_PEEK) != 0;
    *again = false;
    struct iovec own = {returned, sizeof(returned)};
    int ret = sim_queue_get(&entry->queue, fd, true, &record, &own, 1);
    if (ret != 0)
        return ret;
    bool came_back = record.err != TIPC_OK;
    sim_record_t taken;
    ret = sim_queue_get(&entry->queue, fd, peek, &taken, msg->msg_iov, came_back ? 0 : msg->msg_iovlen);
    if (ret != 0)
        return ret;
    if (!came_back && record.len == 0) {
        *again = true; // the kernel wakes the receiver for an empty datagram, too, and then skips it
        if (peek)
            (void)sim_queue_get(&entry->queue, fd, false, &taken, nullptr, 0);
        return 0;
    }
    size_t room = 0;
    for (size_t i = 0; i < msg->msg_iovlen; i++)
        room += msg->msg_iov[i].iov_len;
    msg->msg_flags = 0;
    name_sender(&record, msg);
    describe(&record, returned, msg);
    if (came_back)
        return 0;
    if (record.len > room)
        msg->msg_flags |= MSG_TRUNC;
    return (ssize_t)(record.len < room ? record.len : room);
}

static ssize_t receive_event(int fd, preload_socket_t *entry, struct msghdr *msg, int flags)
{
    struct msghdr plain = *msg;
    plain.msg_name = nullptr;
    plain.msg_namelen = 0;
    plain.msg_control = nullptr;
    plain.msg_controllen = 0;
    if (entry->ended)
        return fail(EAGAIN);
    ssize_t len = syscall(SYS_recvmsg, fd, &plain, flags);
    if (len < 0 && errno == ECONNRESET) // the broker was killed
        len = 0;
    if (len == 0)
        entry->ended = true;
    if (len <= 0)
        return len;
    sim_record_t service = {};
    service.named = 1;
    service.type = service.instance = TIPC_TOP_SRV;
    service.src_node = s_cluster.state->nodes[s_node];
    msg->msg_flags = plain.msg_flags;
    name_sender(&service, msg);
    describe(&service, nullptr, msg);
    return len;
}

ssize_t preload_receive(int fd, preload_socket_t *entry, struct msghdr *msg, int flags)
{
    if (entry->kind == PRELOAD_TOPOLOGY)
        return receive_event(fd, entry, msg, flags);
    size_t room = 0;
    for (size_t i = 0; i < msg->msg_iovlen; i++)
        room += msg->msg_iov[i].iov_len;
    if (room == 0)
        return fail(EINVAL);
    for (;;) {
        bool again = false;
        ssize_t ret = hand_over(entry, fd, msg, flags, &again);
        if (again)
            continue;
        if (ret != -EAGAIN)
            return ret;
        int err = wait_readable(fd, flags);
        if (err != 0)
            return fail(err);
    }
}

int preload_getsockname(preload_socket_t *entry, struct sockaddr *out, socklen_t *len)
{
    struct sockaddr_tipc addr;
    memset(&addr, 0, sizeof(addr));
    addr.family = AF_TIPC;
    addr.addrtype = TIPC_SOCKET_ADDR;
    addr.addr.id.ref = entry->queue.port;
    addr.addr.id.node = s_cluster.state->nodes[s_node];
    memcpy(out, &addr, *len < sizeof(addr) ? *len : sizeof(addr));
    *len = sizeof(addr);
    return 0;
}
