// The TIPC address of a name, for programs that have sockets of their own.
#ifndef TESTS_SUPPORT_TIPC_NAME_H
#define TESTS_SUPPORT_TIPC_NAME_H

#include <cstdint>
#include <cstring>
#include <linux/tipc.h>
#include <sys/socket.h>

static inline struct sockaddr_tipc tipc_name(uint32_t type, uint32_t instance)
{
    struct sockaddr_tipc addr;
    memset(&addr, 0, sizeof(addr));
    addr.family = AF_TIPC;
    addr.addrtype = TIPC_ADDR_NAME;
    addr.scope = TIPC_CLUSTER_SCOPE;
    addr.addr.name.name.type = type;
    addr.addr.name.name.instance = instance;
    return addr;
}

#endif
