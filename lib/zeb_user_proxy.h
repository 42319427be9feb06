// The exported calls: registration and life cycle (zeb_user_proxy.cpp), sending (zeb_user_proxy_send.cpp), RPC
// (zeb_user_proxy_rpc.cpp). Entered by application threads; no lock of its own. Here: how a call's destinations are
// named.
#ifndef ZEB_USER_PROXY_H
#define ZEB_USER_PROXY_H

#include <zeb/zeb.h>

#include "zeb_handshake_shell.h"
#include "zeb_inst.h"
#include "zeb_mc.h"
#include "zeb_slot.h"

// The destinations of one call: as its caller named them, and what that stands for: member applications, nodes, and per
// member the instances that are online servers. The set of the last member that was asked for stays for the writing
// where no time has passed since; otherwise it is taken anew, so that an instance that went away is not written to.
typedef struct zeb_dst_s {
    uint32_t src_app;
    zeb_app_mng_t *slot; // of src_app; null when that is not registered here
    zeb_inst_t named;    // ZEB_NODE_ALL for a call to all nodes
    int flags;
    bool all_nodes;
    int app_num;         // places of `apps` to look at: one, or all of a group
    int node_num;        // likewise of `nodes`
    zeb_app_mc_t apps;   // 0 is an empty place
    zeb_node_mc_t nodes; // unless all_nodes; above 65535 is an empty place
    bool servers_fresh;  // `servers` are those of the one member, and nothing was waited for
    zeb_app_set_t servers;
} zeb_dst_t;

bool zeb_check_src_app(uint32_t src_app);

// The member lists stay unset.
void zeb_name_dst(zeb_dst_t *dst, uint32_t src_app, zeb_inst_t named, int flags);

// Fill the member lists from what the caller named. 0 or -EINVAL.
int zeb_get_app_mbrs(zeb_dst_t *dst);
int zeb_get_node_mbrs(zeb_dst_t *dst);

// What a member has to offer a call.
typedef enum zeb_member_e : int {
    ZEB_MEMBER_SKIPPED,   // the sender wants itself left out, and this node is not known
    ZEB_MEMBER_NO_SERVER, // none online anywhere
    ZEB_MEMBER_SERVERS,   // at least one; of a call to chosen nodes perhaps none there
} zeb_member_t;

// The online servers of a member (of a call to chosen nodes: those there), without this node's instance when the sender
// wants itself left out.
zeb_member_t zeb_get_member_servers(const zeb_dst_t *dst, uint32_t member, zeb_app_set_t *servers);

// Calls visit(node) for each instance of a member that is addressed: ascending, or in the order of the node list.
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
