// The exported calls: registration, life cycle, sending.
// Entered by application threads. No lock of its own: server sets are copied under g_lib_mutex in zeb_mng_online. A
// server set is taken twice per send, so an instance that goes away in between is not written to, and one that comes
// is.
#include "zeb_user_proxy.h"

#include <cerrno>
#include <cstring>

#include "platform/gvr.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_mng.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_sync.h"

// Registration and life cycle.

static int count_dispatchers(const zeb_msg_dispatcher_t *dispatcher)
{
    int num = 0;
    while (dispatcher[num].ver != 0 && dispatcher[num].fun != nullptr)
        num++;
    return num;
}

static int zeb_app_register(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher,
                            zeb_app_event_fun_t event, bool thread)
{
    if (zeb_cfg_init() != 0)
        return -1;
    if (!zeb_valid_app_id(app)) {
        ZEB_ERROR("ZEB app registered with invalid ID %d.\n", app);
        return -EINVAL;
    }
    if (app_name == nullptr) {
        ZEB_ERROR("ZEB app %d registered name NULL.\n", app);
        return -EINVAL;
    }
    if (dispatcher == nullptr) {
        ZEB_ERROR("ZEB app %d registered dispatcher NULL.\n", app);
        return -EINVAL;
    }
    int num = count_dispatchers(dispatcher);
    ZEB_VERBOSE("ZEB app %d [%s] registered: %d dispatcher version, event %p.\n", app, app_name, num, (void *)event);
    int ret = zeb_add_app_mng(app, app_name, thread, num, dispatcher, event);
    if (ret != 0) {
        ZEB_INFO("ZEB registeration for app %d [%s] failed: %s.\n", app, app_name, strerror(-ret));
        return ret;
    }
    ret = gvr_lib_common_init();
    if (ret != 0)
        ZEB_ERROR("gvr_lib init err(ret:%d)!\r\n", ret);
    ZEB_INFO("ZEB registeration for app %d [%s] OK.\n", app, app_name);
    return 0;
}

int zeb_register(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event)
{
    return zeb_app_register(app, app_name, dispatcher, event, true);
}

int zeb_register_without_thread(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher,
                                zeb_app_event_fun_t event)
{
    return zeb_app_register(app, app_name, dispatcher, event, false);
}

int zeb_unregister(uint32_t app)
{
    if (!zeb_valid_app_id(app)) {
        ZEB_ERROR("ZEB app unregistered with invalid ID %d.\n", app);
        return -EINVAL;
    }
    ZEB_INFO("ZEB app %d unregister service.\n", app);
    zeb_del_app_mng(app);
    return 0;
}

void zeb_run(void)
{
    zeb_notify_running();
}

int zeb_app_ready(uint32_t)
{
    zeb_run();
    return 0;
}

int zeb_comm_with(uint32_t src_app, uint32_t dst_app)
{
    if (!zeb_valid_app_id(src_app) || !zeb_valid_app_id(dst_app))
        return -EINVAL;
    return zeb_add_comm_app(src_app, dst_app);
}

void zeb_enable_blocked_resume(void)
{
    zeb_store_relaxed(&g_zeb_mng.blocked_resume, true);
}

void zeb_disable_blocked_resume(void)
{
    zeb_store_relaxed(&g_zeb_mng.blocked_resume, false);
}

bool zeb_blocked_resume_enabled(void)
{
    return zeb_cfg_get_blocked_resume_enabled() && zeb_load_relaxed(&g_zeb_mng.blocked_resume);
}

// Sending. A send names its destinations in three steps: member applications, nodes, and per member the instances that
// are online servers.

typedef struct send_s {
    uint32_t src_app;
    int flags;
    uint32_t member[ZEB_APP_MC_MBR_NUM]; // destination applications, 0 is an empty place
    bool all_nodes;
    uint32_t node[ZEB_NODE_MC_MBR_NUM]; // unless all_nodes: destination nodes, above 65535 is an empty place
} send_t;

static int zeb_check_send_arg(uint32_t src_app, const zeb_msg_t *msg)
{
    if (!zeb_valid_app_id(src_app)) {
        ZEB_ERROR("ZEB src app ID %d invalid.\n", src_app);
        return -EINVAL;
    }
    if (msg == nullptr) {
        ZEB_ERROR("ZEB app %d send msg NULL.\n", src_app);
        return -EINVAL;
    }
    return 0;
}

static int zeb_get_app_mbrs(send_t *send, uint32_t dst_app)
{
    uint32_t app = dst_app == 0 ? send->src_app : dst_app;
    memset(send->member, 0, sizeof(send->member));
    if (zeb_valid_app_id(app)) {
        send->member[0] = app;
        return 0;
    }
    if (zeb_valid_app_mc_id(app))
        return 0;
    ZEB_ERROR("ZEB app %d to dst app ID %d invalid.\n", send->src_app, dst_app);
    return -EINVAL;
}

static int zeb_get_node_mbrs(send_t *send, uint32_t dst_node)
{
    uint32_t node = dst_node == ZEB_NODE_LOCAL ? (uint32_t)zeb_get_my_node_id() : dst_node;
    memset(send->node, 0xFF, sizeof(send->node));
    if (zeb_valid_node_id(node)) {
        send->node[0] = node;
        return 0;
    }
    if (zeb_valid_node_mc_id(node))
        return 0;
    ZEB_ERROR("ZEB app %d to dst node ID %d invalid.\n", send->src_app, node);
    return -EINVAL;
}

// The online servers of a member, without this node's instance when the sender wants itself left out. False when the
// member is to be skipped because this node is not known.
static bool get_member_servers(const send_t *send, uint32_t member, zeb_app_set_t *servers)
{
    zeb_get_app_server(member, servers);
    if (member != send->src_app || (send->flags & ZEB_SEND_EXCLUDE_SELF) == 0)
        return true;
    int my_node = zeb_get_my_node_id();
    if (my_node < 0)
        return false;
    zeb_app_set_del(servers, (uint32_t)my_node);
    return true;
}

static bool zeb_has_app_node_server(const send_t *send, const zeb_app_set_t *servers)
{
    for (uint32_t node : send->node) {
        if (zeb_app_set_test(servers, node))
            return true;
    }
    return false;
}

// Finds out whether there is anybody to send to, before the first byte is written.
static bool check_servers(const send_t *send)
{
    bool found = false;
    for (uint32_t member : send->member) {
        zeb_app_set_t servers;
        if (member == 0 || !get_member_servers(send, member, &servers))
            continue;
        if (!zeb_has_app_server(&servers)) {
            ZEB_VERBOSE("ZEB app %d to %d has no server.\n", send->src_app, member);
            continue;
        }
        if (send->all_nodes || zeb_has_app_node_server(send, &servers))
            found = true;
    }
    return found;
}

// Calls visit(node) for each instance of a member that is to be sent to: ascending, or in the order of the node list.
template <typename Visit>
static void each_instance(const send_t *send, const zeb_app_set_t *servers, Visit visit)
{
    if (send->all_nodes) {
        zeb_app_set_each(servers, visit);
        return;
    }
    for (uint32_t node : send->node) {
        if (zeb_app_set_test(servers, node))
            visit(node);
    }
}

// Writes the message to one instance.
static int send_instance(uint32_t src_app, zeb_msg_t *msg, uint32_t dst_app, uint32_t dst_node, int flags)
{
    zeb_encode_msg_hdr(msg, 0, src_app, (uint32_t)zeb_get_my_node_id(), dst_app, dst_node, 0, 0);
    zeb_del_reject_sync_inst_ack(src_app, dst_app, dst_node);
    return zeb_tipc_sendto(src_app, msg, dst_app, dst_node, flags);
}

// Writes the message to every instance. Returns how many were tried; `ret` becomes -1 when one failed.
static int send_all(const send_t *send, zeb_msg_t *msg, int *ret)
{
    int tried = 0;
    for (uint32_t member : send->member) {
        zeb_app_set_t servers;
        if (member == 0 || !get_member_servers(send, member, &servers))
            continue;
        each_instance(send, &servers, [&](uint32_t node) {
            tried++;
            if (send_instance(send->src_app, msg, member, node, send->flags) != 0)
                *ret = -1;
        });
    }
    return tried;
}

int zeb_send(uint32_t src_app, uint32_t dst_app, zeb_msg_t *msg, int flags)
{
    ZEB_VERBOSE("ZEB user app %d send %d(0x%x), msg %p, flags 0x%x.\n", src_app, dst_app, dst_app, (void *)msg, flags);
    int ret = zeb_check_send_arg(src_app, msg);
    if (ret != 0)
        return ret;
    send_t send;
    send.src_app = src_app;
    send.flags = flags;
    send.all_nodes = true;
    ret = zeb_get_app_mbrs(&send, dst_app);
    if (ret != 0)
        return ret;
    if (!check_servers(&send)) {
        ZEB_VERBOSE("ZEB app %d send %d(0x%x) has no server.\n", src_app, dst_app, dst_app);
        return -ENOENT;
    }
    if (send_all(&send, msg, &ret) == 0) {
        ZEB_VERBOSE("ZEB app %d send %d(0x%x) has no server while sending.\n", src_app, dst_app, dst_app);
        return -ENOENT;
    }
    return ret;
}

int zeb_sendto(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags)
{
    ZEB_VERBOSE("ZEB user app %d sendto %d/%d(0x%x/0x%x), msg %p, flags 0x%x.\n", src_app, dst_app, dst_node, dst_app,
                dst_node, (void *)msg, flags);
    int ret = zeb_check_send_arg(src_app, msg);
    if (ret != 0)
        return ret;
    if (dst_node == ZEB_NODE_ALL)
        return zeb_send(src_app, dst_app, msg, flags);
    send_t send;
    send.src_app = src_app;
    send.flags = flags;
    send.all_nodes = false;
    ret = zeb_get_app_mbrs(&send, dst_app);
    if (ret == 0)
        ret = zeb_get_node_mbrs(&send, dst_node);
    if (ret != 0)
        return ret;
    if (!check_servers(&send)) {
        ZEB_VERBOSE("ZEB app %d sendto %d/%d(0x%x/0x%x) has no server.\n", src_app, dst_app, dst_node, dst_app,
                    dst_node);
        return -ENOENT;
    }
    if (send_all(&send, msg, &ret) == 0) {
        ZEB_VERBOSE("ZEB app %d sendto %d/%d(0x%x/0x%x) has no server while sending.\n", src_app, dst_app, dst_node,
                    dst_app, dst_node);
        return -ENOENT;
    }
    return ret;
}
