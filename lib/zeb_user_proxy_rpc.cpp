// The exported RPC calls. A call records every addressed instance, writes the request to each, and waits for the
// replies. Requests bypass flow control. Several calls of one application may be in progress at once, each with its own
// sequence number.
#include "zeb_user_proxy.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <zeb/zeb_ext.h>

#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_gate.h"
#include "zeb_mng_msg.h"
#include "zeb_probe.h"
#include "zeb_rpc.h"
#include "zeb_rpc_async.h"

// The caller must find no old messages, whatever the result of the call.
static void clear_replies(zeb_reply_msg_t *ret_buf)
{
    if (ret_buf != nullptr)
        memset(ret_buf, 0, sizeof(*ret_buf));
}

static int zeb_check_rpc_arg(uint32_t src_app, const zeb_msg_t *msg, const zeb_reply_msg_t *ret_buf)
{
    if (!zeb_check_src_app(src_app))
        return -EINVAL;
    if (msg == nullptr || ret_buf == nullptr) {
        ZEB_ERROR_WHY("ZEB app %d RPC msg or reply buffer NULL.\n", src_app);
        return -EINVAL;
    }
    return zeb_check_msg_len(src_app, msg) ? 0 : -EINVAL;
}

// Opens an entry for every addressed instance of the member with this index in `apps`. Returns their number, or the
// error of an entry that could not be opened. A call to all nodes addresses the instances under the id that its caller
// gave, even if that is 0 or a group; a call to chosen nodes addresses them under the id of the member.
static int set_member_waits(const zeb_dst_t *dst, int index, uint32_t seq)
{
    uint32_t member = dst->apps.mbr[index];
    uint32_t as_app = dst->all_nodes ? dst->named.app : member;
    zeb_app_set_t servers;
    zeb_member_t found = zeb_get_member_servers(dst, member, &servers);
    if (found == ZEB_MEMBER_NO_SERVER)
        ZEB_VERBOSE("ZEB app %d to %d has no server.\n", dst->src_app, member);
    if (found != ZEB_MEMBER_SERVERS)
        return 0;
    int num = 0;
    zeb_each_instance(dst, &servers, [&](uint32_t node) {
        if (num < 0)
            return;
        int ret = zeb_rpc_set_wait(dst->slot->rpc, seq, {as_app, node});
        num = ret != 0 ? ret : num + 1;
    });
    return num;
}

static int set_waits(const zeb_dst_t *dst, uint32_t seq)
{
    int found = 0;
    for (int i = 0; i < dst->app_num; i++) {
        if (dst->apps.mbr[i] == 0)
            continue;
        int num = set_member_waits(dst, i, seq);
        if (num < 0)
            return num;
        found += num;
    }
    return found == 0 ? -ENOENT : 0;
}

static void log_not_prepared(const zeb_dst_t *dst, int ret)
{
    zeb_inst_t to = dst->named;
    if (dst->all_nodes)
        ZEB_WARN("ZEB app %d to %d prepare RPC wait failed: %s.\n", dst->src_app, to.app, strerror(-ret));
    else
        ZEB_WARN("ZEB app %d to %d/%d prepare RPC wait failed: %s.\n", dst->src_app, to.app, to.node, strerror(-ret));
}

static void log_no_server(const zeb_dst_t *dst)
{
    zeb_inst_t to = dst->named;
    zeb_note_no_server(dst);
    if (dst->all_nodes)
        ZEB_VERBOSE("ZEB app %d rpc %d(0x%x) has no server.\n", dst->src_app, to.app, to.app);
    else
        ZEB_VERBOSE("ZEB app %d rpcto %d/%d(0x%x/0x%x) has no server.\n", dst->src_app, to.app, to.node, to.app,
                    to.node);
}

// Opens the call and records its instances. If the recording fails, closes the call again.
static int zeb_prepare_rpc(zeb_dst_t *dst, uint32_t seq, zeb_reply_msg_t *ret_buf, uint32_t timeout)
{
    int ret = zeb_get_app_mbrs(dst);
    if (ret != 0 && dst->all_nodes)
        return ret;
    if (ret == 0 && !dst->all_nodes)
        ret = zeb_get_node_mbrs(dst);
    if (ret == 0)
        ret = zeb_rpc_prepare_wait(dst->src_app, seq, ret_buf, timeout);
    if (ret != 0) {
        log_not_prepared(dst, ret);
        return ret;
    }
    ZEB_PROBE_CALL_START(dst->src_app, dst->named.app, dst->named.node, seq, timeout);
    ret = set_waits(dst, seq);
    if (ret == -ENOENT)
        log_no_server(dst);
    if (ret != 0) {
        zeb_rpc_del_wait(dst->slot->rpc, seq);
        ZEB_PROBE_CALL_END(dst->src_app, seq, ret);
    }
    return ret;
}

// Writes the request to one instance. If the write fails, stores a substitute reply; returns non-zero only when the
// substitute could not be stored.
static int request_instance(const zeb_dst_t *dst, uint32_t seq, zeb_msg_t *msg, zeb_inst_t to)
{
    uint32_t src_app = dst->src_app;
    zeb_encode_msg_hdr(msg, ZEB_MSG_FLAG_REQUEST, src_app, (uint32_t)zeb_get_my_node_id(), to.app, to.node, seq, 0);
    zeb_del_reject_sync_inst_ack(src_app, to);
    if (zeb_tipc_write(dst->slot, msg, to, 0) == 0) {
        zeb_fc_update_sent_ok(dst->slot->fc, to);
        return 0;
    }
    zeb_fc_update_sent_reject(src_app, to);
    return zeb_rpc_add_error_reply(dst->slot->rpc, seq, to, ZEB_SYSTEM_ERR);
}

// Writes the request to every recorded instance. The entry of an instance that quit meanwhile is completed and skipped.
static int zeb_send_rpc(const zeb_dst_t *dst, uint32_t seq, zeb_msg_t *msg, zeb_reply_msg_t *ret_buf)
{
    zeb_app_rpc_wait_t *rpc = dst->slot->rpc;
    zeb_rpc_print_wait(rpc, seq);
    if (zeb_get_rpc_wait(rpc, seq) == nullptr) {
        zeb_note_error("ZEB app %d seq %d RPC wait not exist.\n", {{dst->src_app, seq}});
        return -ENOENT;
    }
    int64_t code = 0;
    for (int i = 0; (code = zeb_rpc_wait_inst(rpc, seq, i)) >= 0; i++) {
        if (code == 0)
            continue;
        int ret = request_instance(dst, seq, msg, {(uint32_t)(code >> 16), (uint32_t)(code & 0xFFFF)});
        if (ret == 0)
            continue;
        zeb_rpc_del_wait(rpc, seq);
        zeb_reply_msg_free(ret_buf);
        return ret;
    }
    return 0;
}

static int call(zeb_dst_t *dst, zeb_msg_t *msg, uint32_t timeout, zeb_reply_msg_t *ret_buf)
{
    uint32_t seq = zeb_get_seq();
    int ret = zeb_prepare_rpc(dst, seq, ret_buf, timeout);
    if (ret != 0) {
        zeb_fc_update_sent_reject(dst->src_app, dst->named);
        return ret;
    }
    ret = zeb_send_rpc(dst, seq, msg, ret_buf);
    ret = ret != 0 ? ret : zeb_rpc_wait_reply(dst->slot->rpc, seq);
    ZEB_PROBE_CALL_END(dst->src_app, seq, ret);
    return ret;
}

int zeb_rpc(uint32_t src_app, uint32_t dst_app, zeb_msg_t *msg, int flags, uint32_t timeout, zeb_reply_msg_t *ret_buf)
{
    clear_replies(ret_buf);
    zeb_call_t entered("zeb_rpc");
    if (entered.refused() != 0)
        return entered.refused();
    ZEB_VERBOSE("ZEB user app %d rpc %d(0x%x), msg %p, flags 0x%x, timeout %u, ret_buf %p.\n", src_app, dst_app,
                dst_app, (void *)msg, flags, timeout, (void *)ret_buf);
    int ret = zeb_check_rpc_arg(src_app, msg, ret_buf);
    if (ret != 0)
        return ret;
    zeb_dst_t dst;
    zeb_name_dst(&dst, src_app, {dst_app, ZEB_NODE_ALL}, flags);
    return call(&dst, msg, timeout, ret_buf);
}

int zeb_rpcto(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags, uint32_t timeout,
              zeb_reply_msg_t *ret_buf)
{
    clear_replies(ret_buf);
    zeb_call_t entered("zeb_rpcto");
    if (entered.refused() != 0)
        return entered.refused();
    ZEB_VERBOSE("ZEB user app %d rpcto %d/%d(0x%x/0x%x), msg %p, flags 0x%x, timeout %u, ret_buf %p.\n", src_app,
                dst_app, dst_node, dst_app, dst_node, (void *)msg, flags, timeout, (void *)ret_buf);
    int ret = zeb_check_rpc_arg(src_app, msg, ret_buf);
    if (ret != 0)
        return ret;
    if (dst_node == ZEB_NODE_ALL)
        return zeb_rpc(src_app, dst_app, msg, flags, timeout, ret_buf);
    zeb_dst_t dst;
    zeb_name_dst(&dst, src_app, {dst_app, dst_node}, flags);
    return call(&dst, msg, timeout, ret_buf);
}

// Writes the requests of a call that no thread waits for. It may be done, and even freed, at any time.
static void request_all(const zeb_dst_t *dst, uint32_t seq, zeb_msg_t *msg)
{
    int64_t code = 0;
    for (int i = 0; (code = zeb_rpc_wait_inst(dst->slot->rpc, seq, i)) >= 0; i++) {
        if (code != 0)
            (void)request_instance(dst, seq, msg, {(uint32_t)(code >> 16), (uint32_t)(code & 0xFFFF)});
    }
}

// Opens the call under a new number. A caller of zeb_rpc may have drawn the same one; then this one draws again.
static int prepare_async(zeb_dst_t *dst, zeb_rpc_async_t *async, uint32_t milliseconds)
{
    int ret = dst->slot == nullptr ? 0 : zeb_rpc_async_prepare();
    if (ret != 0)
        return ret;
    do {
        async->seq = zeb_rpc_async_number();
        ret =
            zeb_prepare_rpc(dst, async->seq, &async->replies, milliseconds / 1000 + (milliseconds % 1000 != 0 ? 1 : 0));
    } while (ret == -EEXIST);
    if (ret != 0)
        zeb_fc_update_sent_reject(dst->src_app, dst->named);
    return ret;
}

static bool check_async_arg(uint32_t src_app, const zeb_msg_t *msg, zeb_call_done_fun_t done)
{
    if (!zeb_check_src_app(src_app))
        return false;
    if (msg != nullptr && done != nullptr)
        return zeb_check_msg_len(src_app, msg);
    zeb_note_error("ZEB app %d RPC msg or function NULL.\n", {{src_app}});
    return false;
}

int zeb_rpc_async(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags,
                  uint32_t milliseconds, zeb_call_done_fun_t done, void *context, uint32_t *call)
{
    if (call != nullptr)
        *call = 0;
    zeb_call_t entered("zeb_rpc_async");
    if (entered.refused() != 0)
        return entered.refused();
    ZEB_VERBOSE("ZEB user app %d rpc async %d/%d(0x%x/0x%x), msg %p, flags 0x%x, timeout %ums.\n", src_app, dst_app,
                dst_node, dst_app, dst_node, (void *)msg, flags, milliseconds);
    if (!check_async_arg(src_app, msg, done))
        return -EINVAL;
    zeb_dst_t dst;
    zeb_name_dst(&dst, src_app, {dst_app, dst_node}, flags);
    zeb_rpc_async_t *async = zeb_rpc_async_new(done, context);
    int ret = prepare_async(&dst, async, milliseconds);
    if (ret != 0) {
        free(async);
        return ret;
    }
    uint32_t seq = async->seq;
    if (call != nullptr)
        *call = seq;
    zeb_rpc_async_start(dst.slot->rpc, async, milliseconds);
    request_all(&dst, seq, msg);
    return 0;
}

int zeb_rpc_cancel(uint32_t src_app, uint32_t call)
{
    zeb_call_t entered("zeb_rpc_cancel");
    if (entered.refused() != 0)
        return entered.refused();
    if (!zeb_check_src_app(src_app))
        return -EINVAL;
    zeb_app_rpc_wait_t *rpc = zeb_get_app_rpc(src_app);
    if (rpc == nullptr) {
        zeb_note_not_registered(src_app);
        return -ENOENT;
    }
    int ret = zeb_rpc_async_cancel(rpc, call);
    if (ret == -EALREADY)
        zeb_note_error("ZEB app %d seq %d: no such RPC call is in progress.\n", {{src_app, call}});
    else if (ret != 0)
        zeb_note_error("ZEB app %d seq %d: the function of the RPC call is running.\n", {{src_app, call}});
    return ret;
}

int zeb_rpc_reply(const zeb_msg_t *src_msg, zeb_msg_t *reply_msg, int flags)
{
    zeb_call_t entered("zeb_rpc_reply");
    if (entered.refused() != 0)
        return entered.refused();
    return zeb_rpc_answer(src_msg, reply_msg, flags);
}
