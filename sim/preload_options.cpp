// Socket options and ioctls, with the kernel's errors.
#include "preload.h"

#include <cstdio>
#include <cstring>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/time.h>

constexpr uint32_t MIN_RCVBUF = 2304; // bytes, the kernel's limits
constexpr uint32_t MIN_SNDBUF = 4608;
constexpr uint32_t DEFAULT_SNDBUF = 212992;
constexpr uint32_t MAX_BUF = 212992; // net.core.rmem_max and wmem_max

// Reads the option's number. 0 or an errno.
static int take_number(const void *value, socklen_t len, uint32_t *number)
{
    if (len < sizeof(*number))
        return EINVAL;
    if (!preload_readable(value, sizeof(*number)))
        return EFAULT;
    memcpy(number, value, sizeof(*number));
    return 0;
}

static int set_tipc(sim_socket_t *socket, int name, const void *value, socklen_t len)
{
    uint32_t number = 0;
    if (name == TIPC_MCAST_BROADCAST || name == TIPC_MCAST_REPLICAST) {
        if (value != nullptr || len != 0)
            return preload_fail(EINVAL);
        return 0; // every multicast is sent once to each receiver
    }
    if (name == TIPC_GROUP_JOIN || name == TIPC_GROUP_LEAVE)
        return preload_refuse("group messaging (TIPC_GROUP_JOIN)");
    int err = take_number(value, len, &number);
    if (err != 0)
        return preload_fail(err);
    switch (name) {
    case TIPC_IMPORTANCE:
        if (number > TIPC_CRITICAL_IMPORTANCE)
            return preload_fail(EINVAL);
        socket->importance = number;
        return 0;
    case TIPC_SRC_DROPPABLE:
        if (socket->type == (uint32_t)SOCK_STREAM)
            return preload_fail(ENOPROTOOPT);
        socket->src_droppable = number != 0 ? 1 : 0;
        return 0;
    case TIPC_DEST_DROPPABLE:
        socket->dest_droppable = number != 0 ? 1 : 0;
        return 0;
    case TIPC_CONN_TIMEOUT:
        socket->conn_timeout = number & 0xffff;
        return 0;
    case TIPC_NODELAY:
        socket->nodelay = number != 0 ? 1 : 0;
        return 0;
    default:
        return preload_fail(EINVAL);
    }
}

static int set_time(int64_t *us, const void *value, socklen_t len)
{
    struct timeval time = {};
    if (len < sizeof(time))
        return preload_fail(EINVAL);
    if (!preload_readable(value, sizeof(time)))
        return preload_fail(EFAULT);
    memcpy(&time, value, sizeof(time));
    if (time.tv_usec < 0 || time.tv_usec >= 1000000)
        return preload_fail(EDOM);
    *us = time.tv_sec < 0 ? 1 : (int64_t)time.tv_sec * 1000000 + time.tv_usec;
    return 0;
}

static uint32_t doubled(uint32_t number, uint32_t lowest, bool forced)
{
    uint32_t most = forced ? (uint32_t)INT32_MAX / 2 : MAX_BUF;
    uint32_t twice = (number < most ? number : most) * 2;
    return twice < lowest ? lowest : twice;
}

static void keep_inert(sim_socket_t *socket, int name, bool on)
{
    uint64_t bit = 1ULL << name;
    socket->inert = on ? socket->inert | bit : socket->inert & ~bit;
}

static int set_socket(sim_socket_t *socket, int name, const void *value, socklen_t len)
{
    uint32_t number = 0;
    if (name == SO_RCVTIMEO)
        return set_time(&socket->rcvtimeo, value, len);
    if (name == SO_SNDTIMEO)
        return set_time(&socket->sndtimeo, value, len);
    int err = take_number(value, len, &number);
    if (err != 0)
        return preload_fail(err);
    switch (name) {
    case SO_RCVBUF:
    case SO_RCVBUFFORCE:
        socket->rcvbuf = doubled(number, MIN_RCVBUF, name == SO_RCVBUFFORCE);
        return 0;
    case SO_SNDBUF:
    case SO_SNDBUFFORCE:
        socket->sndbuf = doubled(number, MIN_SNDBUF, name == SO_SNDBUFFORCE);
        return 0;
    case SO_RCVLOWAT:
        socket->lowat = (int32_t)number < 0 ? (uint32_t)INT32_MAX : number == 0 ? 1 : number;
        return 0;
    case SO_REUSEADDR: // without an effect on TIPC sockets
    case SO_REUSEPORT:
    case SO_KEEPALIVE:
    case SO_BROADCAST:
    case SO_LINGER:
    case SO_PRIORITY:
    case SO_DEBUG:
    case SO_DONTROUTE:
    case SO_OOBINLINE:
    case SO_PASSCRED:
        keep_inert(socket, name, number != 0);
        return 0;
    case SO_TYPE:
    case SO_ERROR:
    case SO_DOMAIN:
    case SO_PROTOCOL:
    case SO_ACCEPTCONN:
    case SO_SNDLOWAT:
        return preload_fail(ENOPROTOOPT);
    default:
        return preload_refuse("this option of SOL_SOCKET");
    }
}

int preload_setsockopt(sim_socket_t *socket, int level, int name, const void *value, socklen_t len)
{
    if ((int)len < 0)
        return preload_fail(EINVAL);
    if (level == SOL_TIPC)
        return set_tipc(socket, name, value, len);
    if (level == SOL_SOCKET)
        return set_socket(socket, name, value, len);
    if (level == IPPROTO_TCP && socket->type == (uint32_t)SOCK_STREAM)
        return 0; // ignored, so that programs for TCP run
    return preload_fail(ENOPROTOOPT);
}

static int give(const void *from, size_t size, void *value, socklen_t *len)
{
    size_t part = *len < size ? *len : size;
    if (!preload_writable(value, part))
        return preload_fail(EFAULT);
    memcpy(value, from, part);
    *len = (socklen_t)part;
    return 0;
}

static int get_tipc(sim_socket_t *socket, int name, void *value, socklen_t *len)
{
    uint32_t number = 0;
    uint32_t num = 0;
    uint64_t charged = 0;
    sim_queue_size(preload_state(preload_self()), socket, &num, &charged);
    switch (name) {
    case TIPC_IMPORTANCE:
        number = socket->importance;
        break;
    case TIPC_SRC_DROPPABLE:
        number = socket->src_droppable;
        break;
    case TIPC_DEST_DROPPABLE:
        number = socket->dest_droppable;
        break;
    case TIPC_CONN_TIMEOUT:
        number = socket->conn_timeout;
        break;
    case TIPC_NODE_RECVQ_DEPTH:
    case TIPC_GROUP_JOIN:
        break; // 0 always
    case TIPC_SOCK_RECVQ_DEPTH:
        number = num;
        break;
    case TIPC_SOCK_RECVQ_USED:
        number = (uint32_t)charged;
        break;
    default:
        return preload_fail(EINVAL);
    }
    if (*len < sizeof(number))
        return preload_fail(EINVAL);
    return give(&number, sizeof(number), value, len);
}

static const struct ucred NOBODY = {0, (uid_t)-1, (gid_t)-1}; // TIPC does not tell the peer's process

static int get_time(int64_t us, void *value, socklen_t *len)
{
    struct timeval time = {(time_t)(us / 1000000), (suseconds_t)(us % 1000000)};
    return give(&time, sizeof(time), value, len);
}

static int get_socket(sim_socket_t *socket, int name, void *value, socklen_t *len)
{
    uint32_t number = 0;
    switch (name) {
    case SO_RCVTIMEO:
        return get_time(socket->rcvtimeo, value, len);
    case SO_SNDTIMEO:
        return get_time(socket->sndtimeo, value, len);
    case SO_TYPE:
        number = socket->type;
        break;
    case SO_DOMAIN:
        number = AF_TIPC;
        break;
    case SO_ERROR:
        number = __atomic_exchange_n(&socket->err, 0U, __ATOMIC_SEQ_CST);
        break;
    case SO_ACCEPTCONN:
        number = sim_conn_state(socket) == SIM_CONN_LISTEN ? 1 : 0;
        break;
    case SO_RCVBUF:
        number = socket->rcvbuf;
        break;
    case SO_SNDBUF:
        number = socket->sndbuf != 0 ? socket->sndbuf : DEFAULT_SNDBUF;
        break;
    case SO_RCVLOWAT:
        number = socket->lowat;
        break;
    case SO_SNDLOWAT:
        number = 1;
        break;
    case SO_PROTOCOL:
        break;
    case SO_PEERCRED:
        return give(&NOBODY, sizeof(NOBODY), value, len);
    case SO_REUSEADDR:
    case SO_REUSEPORT:
    case SO_KEEPALIVE:
    case SO_BROADCAST:
    case SO_PRIORITY:
    case SO_DEBUG:
    case SO_DONTROUTE:
    case SO_OOBINLINE:
    case SO_PASSCRED:
        number = (socket->inert >> name & 1) != 0 ? 1 : 0;
        break;
    default:
        return preload_refuse("this option of SOL_SOCKET");
    }
    return give(&number, sizeof(number), value, len);
}

int preload_getsockopt(sim_socket_t *socket, int level, int name, void *value, socklen_t *len)
{
    if (!preload_readable(len, sizeof(*len)))
        return preload_fail(EFAULT);
    if (level == SOL_TIPC)
        return get_tipc(socket, name, value, len);
    if (level == SOL_SOCKET)
        return (int)*len < 0 ? preload_fail(EINVAL) : get_socket(socket, name, value, len);
    if (level == IPPROTO_TCP && socket->type == (uint32_t)SOCK_STREAM) {
        uint32_t none = 0;
        return give(&none, sizeof(none), value, len);
    }
    return preload_fail(ENOPROTOOPT);
}

// The node of an address, when it is the own one or there is a link to it.
static uint32_t reachable(const sim_state_t *state, uint32_t node, uint32_t address)
{
    uint32_t index = address != 0 ? sim_node_find(state, address) : SIM_ANY_NODE;
    return index != SIM_ANY_NODE && sim_linked(state->down, node, index) ? index : SIM_ANY_NODE;
}

static int node_identity(const sim_state_t *state, const sim_socket_t *socket, void *arg)
{
    struct tipc_sioc_nodeid_req request;
    if (!preload_readable(arg, sizeof(request)) || !preload_writable(arg, 1))
        return preload_fail(EFAULT);
    memcpy(&request, arg, sizeof(request));
    uint32_t index = reachable(state, socket->node, request.peer);
    if (index == SIM_ANY_NODE)
        return preload_fail(EADDRNOTAVAIL);
    memcpy(request.node_id, state->identities[index], sizeof(request.node_id));
    memcpy(arg, &request, sizeof(request));
    return 0;
}

static int link_name(const sim_state_t *state, const sim_socket_t *socket, void *arg)
{
    struct tipc_sioc_ln_req request;
    if (!preload_readable(arg, sizeof(request)) || !preload_writable(arg, 1))
        return preload_fail(EFAULT);
    memcpy(&request, arg, sizeof(request));
    uint32_t index = reachable(state, socket->node, request.peer);
    if (index == SIM_ANY_NODE || index == socket->node || request.bearer_id != 0)
        return preload_fail(EADDRNOTAVAIL);
    (void)snprintf(request.linkname, sizeof(request.linkname), "%.16s:sim-%.16s:sim",
                   (const char *)state->identities[socket->node], (const char *)state->identities[index]);
    memcpy(arg, &request, sizeof(request));
    return 0;
}

int preload_ioctl(sim_socket_t *socket, unsigned long request, void *arg, bool *passed)
{
    const sim_state_t *state = preload_state(preload_self());
    *passed = false;
    switch (request) {
    case SIOCGETNODEID:
        return node_identity(state, socket, arg);
    case SIOCGETLINKNAME:
        return link_name(state, socket, arg);
    case SIOCGPGRP: {
        int none = 0;
        if (!preload_writable(arg, sizeof(none)))
            return preload_fail(EFAULT);
        memcpy(arg, &none, sizeof(none));
        return 0;
    }
    case FIONBIO:
    case FIOCLEX:
    case FIONCLEX:
        *passed = true; // of the descriptor
        return 0;
    default:
        return preload_fail(ENOTTY);
    }
}
