// The exported one-way calls. A send resolves its destinations, passes flow control for every member application before
// it writes the first byte, and then writes the one message to each instance in turn.
#include "zeb_user_proxy.h"

#include <cerrno>
#include <cstring>

#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_gate.h"
#include "zeb_mng_msg.h"
#include "zeb_probe.h"

bool zeb_check_src_app(uint32_t src_app)
{
    if (zeb_valid_app_id(src_app))
        return true;
    ZEB_ERROR_WHY("ZEB src app ID %d invalid.\n", src_app);
    return false;
}

static inline int zeb_check_send_arg(uint32_t src_app, const zeb_msg_t *msg)
{
    if (!zeb_check_src_app(src_app))
        return -EINVAL;
    if (msg == nullptr) {
        ZEB_ERROR_WHY("ZEB app %d send msg NULL.\n", src_app);
        return -EINVAL;
    }
    return zeb_check_msg_len(src_app, msg) ? 0 : -EINVAL;
}

void zeb_name_dst(zeb_dst_t *dst, uint32_t src_app, zeb_inst_t named, int flags)
{
    dst->src_app = src_app;
    dst->slot = zeb_get_app_mng(src_app);
    dst->named = named;
    dst->flags = flags;
    dst->all_nodes = named.node == ZEB_NODE_ALL;
    dst->servers_fresh = false;
    dst->servers.blocks = 0;
}

int zeb_get_app_mbrs(zeb_dst_t *dst)
{
    uint32_t app = dst->named.app == 0 ? dst->src_app : dst->named.app;
    if (zeb_valid_app_mc_id(app)) {
        zeb_copy_app_mc(dst->src_app, app, &dst->apps);
        dst->app_num = ZEB_APP_MC_MBR_NUM;
        return 0;
    }
    if (zeb_valid_app_id(app)) {
        dst->apps.mbr[0] = app;
        dst->app_num = 1;
        return 0;
    }
    ZEB_ERROR_WHY("ZEB app %d to dst app ID %d invalid.\n", dst->src_app, dst->named.app);
    return -EINVAL;
}

int zeb_get_node_mbrs(zeb_dst_t *dst)
{
    uint32_t node = dst->named.node == ZEB_NODE_LOCAL ? (uint32_t)zeb_get_my_node_id() : dst->named.node;
    if (zeb_valid_node_mc_id(node)) {
        zeb_copy_node_mc(dst->src_app, node, &dst->nodes);
        dst->node_num = ZEB_NODE_MC_MBR_NUM;
        return 0;
    }
    if (zeb_valid_node_id(node)) {
        dst->nodes.mbr[0] = node;
        dst->node_num = 1;
        return 0;
    }
    ZEB_ERROR_WHY("ZEB app %d to dst node ID %d invalid.\n", dst->src_app, node);
    return -EINVAL;
}

static zeb_member_t member_with(bool has_server)
{
    return has_server ? ZEB_MEMBER_SERVERS : ZEB_MEMBER_NO_SERVER;
}

zeb_member_t zeb_get_member_servers(const zeb_dst_t *dst, uint32_t member, zeb_app_set_t *servers)
{
    bool without_self = member == dst->src_app && (dst->flags & ZEB_SEND_EXCLUDE_SELF) != 0;
    if (!dst->all_nodes && !without_self)
        return member_with(zeb_get_app_server_on(member, dst->nodes.mbr, dst->node_num, servers));
    zeb_get_app_server(member, servers);
    if (!without_self)
        return member_with(zeb_has_app_server(servers));
    int my_node = zeb_get_my_node_id();
    if (my_node < 0)
        return ZEB_MEMBER_SKIPPED;
    zeb_app_set_del(servers, (uint32_t)my_node);
    return member_with(zeb_has_app_server(servers));
}

static bool zeb_has_app_node_server(const zeb_dst_t *dst)
{
    if ((dst->flags & ZEB_SEND_EXCLUDE_SELF) == 0)
        return dst->servers.blocks != 0; // it holds servers on the chosen nodes alone
    for (int i = 0; i < dst->node_num; i++) {
        if (zeb_app_set_test(&dst->servers, dst->nodes.mbr[i]))
            return true;
    }
    return false;
}

// True when the call addresses an instance of the member.
static bool member_has_server(zeb_dst_t *dst, uint32_t member)
{
    zeb_member_t found = zeb_get_member_servers(dst, member, &dst->servers);
    if (found == ZEB_MEMBER_NO_SERVER)
        ZEB_VERBOSE("ZEB app %d to %d has no server.\n", dst->src_app, member);
    return found == ZEB_MEMBER_SERVERS && (dst->all_nodes || zeb_has_app_node_server(dst));
}

void zeb_note_no_server(const zeb_dst_t *dst)
{
    zeb_inst_t to = dst->named;
    if (dst->slot == nullptr) {
        zeb_note_not_registered(dst->src_app);
        return;
    }
    const char *why = dst->all_nodes ? "ZEB app %d to %d(0x%x): no server is online on any node.\n"
                                     : "ZEB app %d to %d(0x%x) on node 0x%x: no server is online there.\n";
    if (zeb_valid_app_mc_id(to.app) || (!dst->all_nodes && zeb_valid_node_mc_id(to.node)))
        why = "ZEB app %d to %d(0x%x) on node 0x%x: a group is unknown or empty, or no server is online.\n";
    zeb_note_error(why, {{dst->src_app, to.app, to.app, to.node}});
}

void zeb_note_not_registered(uint32_t src_app)
{
    zeb_note_error("ZEB app %d is not registered in this process.\n", {{src_app}});
}

// Logs a call that reaches no instance; `when` is the end of the line.
static void log_no_server(const zeb_dst_t *dst, const char *when)
{
    zeb_inst_t to = dst->named;
    zeb_note_no_server(dst);
    if (dst->all_nodes)
        ZEB_VERBOSE("ZEB app %d send %d(0x%x) has no server%s.\n", dst->src_app, to.app, to.app, when);
    else
        ZEB_VERBOSE("ZEB app %d sendto %d/%d(0x%x/0x%x) has no server%s.\n", dst->src_app, to.app, to.node, to.app,
                    to.node, when);
}

// Passes flow control for every member that has a server. If it refuses one member, nothing is sent to any. Returns
// -ENOENT when no member has a server.
static int check_members(zeb_dst_t *dst)
{
    zeb_fc_t *fc = nullptr;
    for (int i = 0; i < dst->app_num; i++) {
        uint32_t member = dst->apps.mbr[i];
        if (member == 0 || !member_has_server(dst, member))
            continue;
        fc = dst->slot != nullptr ? dst->slot->fc : zeb_fc_not_found(dst->src_app);
        int ret = zeb_fc_check(fc, member, dst->flags);
        dst->servers_fresh = ret == 0 && dst->app_num == 1;
        if (ret >= 0)
            continue;
        ZEB_WARN("ZEB app %d to %d check msg flow ctrl failed: %s.\n", dst->src_app, member, strerror(-ret));
        if (fc == nullptr)
            zeb_note_not_registered(dst->src_app);
        else
            zeb_note_error("ZEB app %d to %d: an instance has not acknowledged more than %d messages.\n",
                           {{dst->src_app, member, ZEB_FC_SEND_WINDOW}});
        return ret;
    }
    if (fc != nullptr)
        return 0;
    log_no_server(dst, "");
    return -ENOENT;
}

static int zeb_get_send_apps(zeb_dst_t *dst)
{
    int ret = zeb_get_app_mbrs(dst);
    return ret != 0 ? ret : check_members(dst);
}

static int zeb_get_sendto_apps(zeb_dst_t *dst)
{
    int ret = zeb_get_app_mbrs(dst);
    if (ret == 0)
        ret = zeb_get_node_mbrs(dst);
    return ret != 0 ? ret : check_members(dst);
}

// Writes the message to one instance and counts the result.
static int send_instance(const zeb_dst_t *dst, zeb_msg_t *msg, zeb_inst_t to)
{
    uint32_t src_app = dst->src_app;
    zeb_encode_msg_hdr(msg, 0, src_app, (uint32_t)zeb_get_my_node_id(), to.app, to.node, 0, 0);
    zeb_del_reject_sync_inst_ack(src_app, to);
    int ret = zeb_tipc_write(dst->slot, msg, to, dst->flags);
    if (ret == 0)
        zeb_fc_update_sent_ok(dst->slot->fc, to);
    else
        zeb_fc_update_sent_reject(src_app, to);
    return ret;
}

// Writes the message to every instance. Returns the number of attempts; `ret` becomes -1 when one fails.
static int send_all(zeb_dst_t *dst, zeb_msg_t *msg, int *ret)
{
    if (dst->servers_fresh && !dst->all_nodes && dst->node_num == 1) { // the common case: flow control has found it
        if (send_instance(dst, msg, {dst->apps.mbr[0], dst->nodes.mbr[0]}) != 0)
            *ret = -1;
        return 1;
    }
    int tried = 0;
    for (int i = 0; i < dst->app_num; i++) {
        uint32_t member = dst->apps.mbr[i];
        if (member == 0)
            continue;
        if (!dst->servers_fresh && zeb_get_member_servers(dst, member, &dst->servers) != ZEB_MEMBER_SERVERS)
            continue;
        zeb_each_instance(dst, &dst->servers, [&](uint32_t node) {
            tried++;
            if (send_instance(dst, msg, {member, node}) != 0)
                *ret = -1;
        });
    }
    return tried;
}

// A failure before the first write is counted for the destination that the caller named.
static int send_msg(uint32_t src_app, zeb_inst_t named, zeb_msg_t *msg, int flags)
{
    zeb_dst_t dst;
    zeb_name_dst(&dst, src_app, named, flags);
    int ret = dst.all_nodes ? zeb_get_send_apps(&dst) : zeb_get_sendto_apps(&dst);
    if (ret == 0) {
        if (send_all(&dst, msg, &ret) != 0)
            return ret;
        log_no_server(&dst, " while sending");
        ret = -ENOENT;
    }
    zeb_fc_update_sent_reject(src_app, named);
    ZEB_PROBE_SEND(src_app, named.app, named.node, msg->hdr.len, 0, ret);
    return ret;
}

int zeb_send(uint32_t src_app, uint32_t dst_app, zeb_msg_t *msg, int flags)
{
    zeb_call_t entered("zeb_send");
    if (entered.refused() != 0)
        return entered.refused();
    ZEB_VERBOSE("ZEB user app %d send %d(0x%x), msg %p, flags 0x%x.\n", src_app, dst_app, dst_app, (void *)msg, flags);
    int ret = zeb_check_send_arg(src_app, msg);
    return ret != 0 ? ret : send_msg(src_app, {dst_app, ZEB_NODE_ALL}, msg, flags);
}

int zeb_sendto(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags)
{
    zeb_call_t entered("zeb_sendto");
    if (entered.refused() != 0)
        return entered.refused();
    ZEB_VERBOSE("ZEB user app %d sendto %d/%d(0x%x/0x%x), msg %p, flags 0x%x.\n", src_app, dst_app, dst_node, dst_app,
                dst_node, (void *)msg, flags);
    int ret = zeb_check_send_arg(src_app, msg);
    if (ret != 0)
        return ret;
    if (dst_node == ZEB_NODE_ALL)
        return zeb_send(src_app, dst_app, msg, flags);
    return send_msg(src_app, {dst_app, dst_node}, msg, flags);
}
