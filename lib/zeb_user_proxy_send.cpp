// The exported one-way calls. A send resolves its destinations, passes flow control for every member application before
// the first byte is written, and then writes the one message to each instance in turn.
#include "zeb_user_proxy.h"

#include <cerrno>
#include <cstring>

#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_slot.h"
#include "zeb_mng_msg.h"

bool zeb_check_src_app(uint32_t src_app)
{
    if (zeb_valid_app_id(src_app))
        return true;
    ZEB_ERROR("ZEB src app ID %d invalid.\n", src_app);
    return false;
}

static int zeb_check_send_arg(uint32_t src_app, const zeb_msg_t *msg)
{
    if (!zeb_check_src_app(src_app))
        return -EINVAL;
    if (msg == nullptr) {
        ZEB_ERROR("ZEB app %d send msg NULL.\n", src_app);
        return -EINVAL;
    }
    return 0;
}

int zeb_get_app_mbrs(zeb_dst_t *dst, uint32_t dst_app)
{
    uint32_t app = dst_app == 0 ? dst->src_app : dst_app;
    if (zeb_valid_app_mc_id(app)) {
        zeb_get_app_mc_mbr(dst->src_app, app, &dst->apps);
        dst->app_num = ZEB_APP_MC_MBR_NUM;
        return 0;
    }
    if (zeb_valid_app_id(app)) {
        dst->apps.mbr[0] = app;
        dst->app_num = 1;
        return 0;
    }
    ZEB_ERROR("ZEB app %d to dst app ID %d invalid.\n", dst->src_app, dst_app);
    return -EINVAL;
}

int zeb_get_node_mbrs(zeb_dst_t *dst, uint32_t dst_node)
{
    uint32_t node = dst_node == ZEB_NODE_LOCAL ? (uint32_t)zeb_get_my_node_id() : dst_node;
    if (zeb_valid_node_mc_id(node)) {
        zeb_get_node_mc_mbr(dst->src_app, node, &dst->nodes);
        dst->node_num = ZEB_NODE_MC_MBR_NUM;
        return 0;
    }
    if (zeb_valid_node_id(node)) {
        dst->nodes.mbr[0] = node;
        dst->node_num = 1;
        return 0;
    }
    ZEB_ERROR("ZEB app %d to dst node ID %d invalid.\n", dst->src_app, node);
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

static bool zeb_has_app_node_server(const zeb_dst_t *dst, const zeb_app_set_t *servers)
{
    for (int i = 0; i < dst->node_num; i++) {
        if (zeb_app_set_test(servers, dst->nodes.mbr[i]))
            return true;
    }
    return false;
}

// True when the member has an instance that the call addresses.
static bool member_has_server(const zeb_dst_t *dst, uint32_t member)
{
    zeb_app_set_t servers;
    zeb_member_t found = zeb_get_member_servers(dst, member, &servers);
    if (found == ZEB_MEMBER_NO_SERVER)
        ZEB_VERBOSE("ZEB app %d to %d has no server.\n", dst->src_app, member);
    return found == ZEB_MEMBER_SERVERS && (dst->all_nodes || zeb_has_app_node_server(dst, &servers));
}

// Asks flow control for every member that has a server; a refusal for one sends to none. -ENOENT when no member has
// one.
static int check_members(const zeb_dst_t *dst)
{
    int ret = -ENOENT;
    for (int i = 0; i < dst->app_num; i++) {
        uint32_t member = dst->apps.mbr[i];
        if (member == 0 || !member_has_server(dst, member))
            continue;
        ret = zeb_fc_check(dst->src_app, member, dst->flags);
        if (ret == 0)
            continue;
        ZEB_WARN("ZEB app %d to %d check msg flow ctrl failed: %s.\n", dst->src_app, member, strerror(-ret));
        return ret;
    }
    return ret;
}

// Writes the message to one instance and counts how that went.
static int send_instance(const zeb_dst_t *dst, zeb_msg_t *msg, uint32_t dst_app, uint32_t dst_node)
{
    uint32_t src_app = dst->src_app;
    zeb_encode_msg_hdr(msg, 0, src_app, (uint32_t)zeb_get_my_node_id(), dst_app, dst_node, 0, 0);
    zeb_del_reject_sync_inst_ack(src_app, {dst_app, dst_node});
    int ret = zeb_tipc_sendto(src_app, msg, dst_app, dst_node, dst->flags);
    if (ret == 0)
        zeb_fc_update_sent_ok(src_app, dst_app, dst_node);
    else
        zeb_fc_update_sent_reject(src_app, dst_app, dst_node);
    return ret;
}

// Writes the message to every instance. Returns how many were tried; `ret` becomes -1 when one failed.
static int send_all(const zeb_dst_t *dst, zeb_msg_t *msg, int *ret)
{
    int tried = 0;
    for (int i = 0; i < dst->app_num; i++) {
        uint32_t member = dst->apps.mbr[i];
        zeb_app_set_t servers;
        if (member == 0 || zeb_get_member_servers(dst, member, &servers) != ZEB_MEMBER_SERVERS)
            continue;
        zeb_each_instance(dst, &servers, [&](uint32_t node) {
            tried++;
            if (send_instance(dst, msg, member, node) != 0)
                *ret = -1;
        });
    }
    return tried;
}

static int prepare_send(zeb_dst_t *dst, uint32_t dst_app)
{
    int ret = zeb_get_app_mbrs(dst, dst_app);
    if (ret != 0)
        return ret;
    ret = check_members(dst);
    if (ret == -ENOENT)
        ZEB_VERBOSE("ZEB app %d send %d(0x%x) has no server.\n", dst->src_app, dst_app, dst_app);
    return ret;
}

int zeb_send(uint32_t src_app, uint32_t dst_app, zeb_msg_t *msg, int flags)
{
    if (zeb_in_child("zeb_send"))
        return -EPERM;
    ZEB_VERBOSE("ZEB user app %d send %d(0x%x), msg %p, flags 0x%x.\n", src_app, dst_app, dst_app, (void *)msg, flags);
    int ret = zeb_check_send_arg(src_app, msg);
    if (ret != 0)
        return ret;
    zeb_dst_t dst;
    dst.src_app = src_app;
    dst.flags = flags;
    dst.all_nodes = true;
    ret = prepare_send(&dst, dst_app);
    if (ret != 0) {
        zeb_fc_update_sent_reject(src_app, dst_app, ZEB_FC_NODE_ANY);
        return ret;
    }
    if (send_all(&dst, msg, &ret) == 0) {
        ZEB_VERBOSE("ZEB app %d send %d(0x%x) has no server while sending.\n", src_app, dst_app, dst_app);
        zeb_fc_update_sent_reject(src_app, dst_app, ZEB_FC_NODE_ANY);
        return -ENOENT;
    }
    return ret;
}

static int prepare_sendto(zeb_dst_t *dst, uint32_t dst_node, uint32_t dst_app)
{
    int ret = zeb_get_app_mbrs(dst, dst_app);
    if (ret == 0)
        ret = zeb_get_node_mbrs(dst, dst_node);
    if (ret != 0)
        return ret;
    ret = check_members(dst);
    if (ret == -ENOENT)
        ZEB_VERBOSE("ZEB app %d sendto %d/%d(0x%x/0x%x) has no server.\n", dst->src_app, dst_app, dst_node, dst_app,
                    dst_node);
    return ret;
}

int zeb_sendto(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags)
{
    if (zeb_in_child("zeb_sendto"))
        return -EPERM;
    ZEB_VERBOSE("ZEB user app %d sendto %d/%d(0x%x/0x%x), msg %p, flags 0x%x.\n", src_app, dst_app, dst_node, dst_app,
                dst_node, (void *)msg, flags);
    int ret = zeb_check_send_arg(src_app, msg);
    if (ret != 0)
        return ret;
    if (dst_node == ZEB_NODE_ALL)
        return zeb_send(src_app, dst_app, msg, flags);
    zeb_dst_t dst;
    dst.src_app = src_app;
    dst.flags = flags;
    dst.all_nodes = false;
    ret = prepare_sendto(&dst, dst_node, dst_app);
    if (ret != 0) {
        zeb_fc_update_sent_reject(src_app, dst_app, dst_node);
        return ret;
    }
    if (send_all(&dst, msg, &ret) == 0) {
        ZEB_VERBOSE("ZEB app %d sendto %d/%d(0x%x/0x%x) has no server while sending.\n", src_app, dst_app, dst_node,
                    dst_app, dst_node);
        zeb_fc_update_sent_reject(src_app, dst_app, dst_node);
        return -ENOENT;
    }
    return ret;
}
