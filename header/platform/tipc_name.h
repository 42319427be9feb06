/* The address of a TIPC name, for C and C++: one type and instance, looked up or bound within `scope`
 * (TIPC_CLUSTER_SCOPE, TIPC_NODE_SCOPE, or 0 for the topology service). */
#ifndef PLATFORM_TIPC_NAME_H
#define PLATFORM_TIPC_NAME_H

#include <linux/tipc.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): a name is written {type, instance} wherever TIPC is */
static inline struct sockaddr_tipc tipc_name(uint32_t type, uint32_t instance, signed char scope)
{
    struct sockaddr_tipc addr;
    memset(&addr, 0, sizeof(addr));
    addr.family = AF_TIPC;
    addr.addrtype = TIPC_ADDR_NAME;
    addr.scope = scope;
    addr.addr.name.name.type = type;
    addr.addr.name.name.instance = instance;
    return addr;
}

#endif
