// The exported calls: registration and start (zeb_user_proxy.cpp), sending (zeb_user_proxy_send.cpp) and RPC
// (zeb_user_proxy_rpc.cpp), and how a call resolves its destinations. Application threads enter here. The area has no
// lock of its own: the handshake copies its server sets under g_lib_mutex.
#ifndef ZEB_USER_PROXY_H
#define ZEB_USER_PROXY_H

#include <zeb/zeb.h>

#include "zeb_handshake_shell.h"
#include "zeb_inst.h"
#include "zeb_mc.h"
#include "zeb_slot.h"

// The destinations of one call: as the caller named them, and what they stand for: member applications, nodes, and per
// member the online server instances. A send gets the servers of a member twice, before flow control and before the
// write, since instances may quit and join while it waits. With one member and no wait the first set is still valid and
// is used again.
typedef struct zeb_dst_s {
    uint32_t src_app;
    zeb_app_mng_t *slot; // of src_app; null when src_app is not registered here
    zeb_inst_t named;    // ZEB_NODE_ALL for a call to all nodes
    int flags;
    bool all_nodes;
    int app_num;         // member slots of `apps` in use: one, or all of a group
    int node_num;        // member slots of `nodes` in use, likewise
    zeb_app_mc_t apps;   // 0 is an empty member slot
    zeb_node_mc_t nodes; // not set for all_nodes; above 65535 is an empty member slot
    bool servers_fresh;  // `servers` is the set of the only member, and flow control did not wait
    zeb_app_set_t servers;
} zeb_dst_t;

bool zeb_check_src_app(uint32_t src_app);

// Stores what the caller named. The member lists remain unset.
void zeb_name_dst(zeb_dst_t *dst, uint32_t src_app, zeb_inst_t named, int flags);

// Set the last error of a call that reaches no instance, and of a caller that is not registered here.
void zeb_note_no_server(const zeb_dst_t *dst);
void zeb_note_not_registered(uint32_t src_app);

// Fill the member lists from what the caller named. Return 0 or -EINVAL.
int zeb_get_app_mbrs(zeb_dst_t *dst);
int zeb_get_node_mbrs(zeb_dst_t *dst);

// Which servers of a member a call can address.
typedef enum zeb_member_e : int {
    ZEB_MEMBER_SKIPPED,   // ZEB_SEND_EXCLUDE_SELF is set, and the id of this node is not known
    ZEB_MEMBER_NO_SERVER, // no server is online on any node
    ZEB_MEMBER_SERVERS,   // a server is online, but not necessarily on a chosen node
} zeb_member_t;

// Copies the online servers of a member to `servers`, without this node's instance when ZEB_SEND_EXCLUDE_SELF excludes
// it. For a call to chosen nodes the set may hold servers on other nodes too: zeb_each_instance skips them.
zeb_member_t zeb_get_member_servers(const zeb_dst_t *dst, uint32_t member, zeb_app_set_t *servers);

// Calls visit(node) for each addressed instance of a member: ascending, or in the order of the node list.
template <typename Visit>
static inline void zeb_each_instance(const zeb_dst_t *dst, const zeb_app_set_t *servers, Visit visit)
{
    if (dst->all_nodes) {
        zeb_app_set_each(servers, visit);
        return;
    }
    for (int i = 0; i < dst->node_num; i++) {
        if (zeb_app_set_test(servers, dst->nodes.mbr[i]))
            visit(dst->nodes.mbr[i]);
    }
}

#endif
