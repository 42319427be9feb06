// Socket options of simulated TIPC sockets. Options of the descriptor itself, such as time-outs, are passed on to the C
// library.
#include "preload.h"

#include <cerrno>
#include <cstring>

static int fail(int err)
{
    errno = err;
    return -1;
}

static int set_tipc(preload_socket_t *entry, int name, const void *value, socklen_t len)
{
    uint32_t number = 0;
    if (len < sizeof(number))
        return fail(EINVAL);
    memcpy(&number, value, sizeof(number));
    sim_socket_t *socket = entry->queue.socket;
    sim_socket_t none = {};
    if (socket == nullptr)
        socket = &none; // a topology connection has no queue: the option is accepted and has no effect
    switch (name) {
    case TIPC_IMPORTANCE:
        if ((int32_t)number > TIPC_CRITICAL_IMPORTANCE)
            return fail(EINVAL);
        if ((int32_t)number >= 0) // a negative value is accepted and changes nothing
            socket->importance = number;
        return 0;
    case TIPC_SRC_DROPPABLE:
        socket->src_droppable = number != 0 ? 1 : 0;
        return 0;
    case TIPC_DEST_DROPPABLE:
        socket->dest_droppable = number != 0 ? 1 : 0;
        return 0;
    default:
        return fail(EINVAL);
    }
}

int preload_setsockopt(preload_socket_t *entry, int level, int name, const void *value, socklen_t len, bool *passed)
{
    *passed = false;
    if (level == SOL_TIPC)
        return set_tipc(entry, name, value, len);
    if (level == SOL_SOCKET && (name == SO_RCVBUF || name == SO_RCVBUFFORCE) && entry->kind == PRELOAD_RDM)
        return preload_refuse("the size of one socket's queue (tipcsim cluster --rmem sets that of all)");
    *passed = true;
    return 0;
}

int preload_getsockopt(preload_socket_t *entry, int level, int name, void *value, socklen_t *len, bool *passed)
{
    *passed = false;
    const sim_socket_t *socket = entry->queue.socket;
    uint32_t number = 0;
    if (level == SOL_SOCKET && name == SO_TYPE) {
        number = entry->kind == PRELOAD_RDM ? (uint32_t)SOCK_RDM : (uint32_t)SOCK_SEQPACKET;
    } else if (level == SOL_SOCKET && name == SO_DOMAIN) {
        number = AF_TIPC;
    } else if (level == SOL_SOCKET && name == SO_RCVBUF && socket != nullptr) {
        number = socket->rmem;
    } else if (level != SOL_TIPC) {
        *passed = true;
        return 0;
    } else if (name == TIPC_IMPORTANCE) {
        number = socket != nullptr ? socket->importance : 0;
    } else if (name == TIPC_SRC_DROPPABLE) {
        number = socket != nullptr ? socket->src_droppable : 0;
    } else if (name == TIPC_DEST_DROPPABLE) {
        number = socket != nullptr ? socket->dest_droppable : 0;
    } else if (name == TIPC_SOCK_RECVQ_DEPTH && socket != nullptr) {
        number = socket->num;
    } else {
        return fail(EINVAL);
    }
    if (*len < sizeof(number))
        return fail(EINVAL);
    memcpy(value, &number, sizeof(number));
    *len = sizeof(number);
    return 0;
}
