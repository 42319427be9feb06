#include "zeb_mng_recv_mng.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "platform/gvr.h"
#include "zeb_app_info.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_flow_ctrl.h"
#include "zeb_mng_msg_mng.h"
#include "zeb_msg_guard.h"
#include "zeb_rpc.h"
#include "zeb_wire.h"

constexpr unsigned RELOAD_GRACE = 2; // seconds between the notice and the abort

// Debug switch, in the sender's byte order.
typedef struct zeb_msg_dbg_cmd_s {
    int32_t level;  // zeb_dbg_level_t
    int32_t dbg_on; // non-zero switches the level on
} zeb_msg_dbg_cmd_t;

// Reply to an information request, in the sender's byte order.
typedef struct zeb_msg_app_info_s {
    uint32_t app_id;
    int32_t pid;
    uint32_t dbg_value; // the debug mask
} zeb_msg_app_info_t;

static_assert(sizeof(zeb_msg_dbg_cmd_t) == 8 && sizeof(zeb_msg_app_info_t) == 12, "bodies as they travel");

static void zeb_recv_proc_num_ack(uint32_t my_app, zeb_inst_t src, const uint8_t *value)
{
    uint32_t ack_num = zeb_wire_get_u32(value);
    ZEB_VERBOSE("ZEB recv ack num %d for %d from %d/%d.\n", ack_num, my_app, src.app, src.node);
    zeb_fc_update_sent_ack(my_app, src, ack_num);
}

static void zeb_recv_dbg_cmd(const uint8_t *value)
{
    zeb_msg_dbg_cmd_t cmd;
    memcpy(&cmd, value, sizeof(cmd));
    zeb_dbg_update_level(cmd.dbg_on != 0, cmd.level);
}

static void zeb_recv_get_app_info_request(const zeb_msg_t *msg, uint32_t my_app)
{
    ZEB_VERBOSE("ZEB recv get app %d info request.\n", my_app);
    zeb_msg_app_info_t info = {my_app, (int32_t)getpid(), zeb_load_relaxed(&g_zeb_dbg_level)};
    zeb_msg_guard_t reply_msg(zeb_msg_alloc((int)TLV_SPACE(sizeof(info)), 1, 0));
    assert(reply_msg != NULL);
    (void)TLV_SET(reply_msg->data, ZEB_MSG_APP_INFO, &info, sizeof(info));
    int ret = zeb_rpc_answer(msg, reply_msg.get(), 0);
    if (ret != 0)
        ZEB_ERROR("ZEB app %d reply app info failed: %s.\n", my_app, strerror(-ret));
}

static void zeb_recv_get_app_stat_request(const zeb_msg_t *msg, uint32_t my_app)
{
    ZEB_VERBOSE("ZEB recv get app %d statistics request.\n", my_app);
    zeb_buf_printf_reset();
    zeb_cli_print_lib_info(my_app);
    zeb_cli_print_app_info(my_app);
    zeb_cli_print_fc_stat(my_app);
    zeb_cli_print_mng_stat(my_app);
    zeb_cli_print_rpc_stat(my_app);
    int ret = zeb_buf_printf_reply(msg);
    if (ret != 0)
        ZEB_ERROR("ZEB app %d reply app statistics failed: %s.\n", my_app, strerror(-ret));
}

static void recv_ping(uint32_t my_app, zeb_inst_t src)
{
    // Not counted unless it is logged: counting walks the whole queue.
    int unprocessed = zeb_log_on(ZEB_DBG_LEVEL_ERROR) ? zeb_unprocess_app_msg_num(my_app, src) : 0;
    zeb_fc_ping_request(my_app, src, unprocessed);
}

// A blocked sender asks this process to abort, so that it is restarted.
static void zeb_reload_process(uint32_t my_app, zeb_inst_t src)
{
    if (!zeb_blocked_resume_enabled())
        return;
    ZEB_ERROR("ZEB app %d abort the process requested by %d/%d.\n", my_app, src.app, src.node);
    zeb_dm_close_files();
    char notice[200];
    (void)snprintf(notice, sizeof(notice), "app:%d abort the process requested by %d/%d.\n", (int)my_app, (int)src.app,
                   (int)src.node);
    (void)protect_selfhealing_do_action(GVR_INNER_ACT, getpid(), "ZEB", notice);
    protect_selfhealing_flush_buf_in_emergency();
    (void)sleep(RELOAD_GRACE);
    (void)protect_selfhealing_do_action(GVR_KILL_PROCESS_ACT, getpid(), "ZEB", notice);
}

static const zeb_app_info_t *s_zebd; // looked up once
static zeb_mismatch_info_t s_zebd_range;

void zeb_forget_zebd()
{
    s_zebd = nullptr;
}

// Dispatches a message to the management daemon in the daemon's own process. Requests reach the daemon's dispatcher as
// they are.
static void zeb_mng_dispatch_zebd_msg(zeb_msg_t *msg)
{
    if (zeb_is_rpc_reply(msg)) {
        if (zeb_rpc_add_reply(msg) != 0)
            free(msg);
        return;
    }
    if (s_zebd == nullptr) {
        const zeb_app_info_t *app_info = zeb_get_app_info(ZEBD_APP_ID);
        if (app_info == nullptr) { // a peer may address the daemon in the wrong process
            ZEB_ERROR("ZEB app %d does not registered.\n", ZEBD_APP_ID);
            free(msg);
            return;
        }
        s_zebd_range = zeb_get_app_ver_range(app_info);
        s_zebd = app_info;
    }
    if (zeb_run_dispatcher(s_zebd, msg))
        return;
    ZEB_ERROR("ZEB get ZEBD version %d dispatcher failed.\n", msg->hdr.app_ver);
    if (zeb_is_rpc_request(msg))
        (void)zeb_rpc_reply_app_mismatch(msg, &s_zebd_range);
    free(msg);
}

// Handles one element. False when its value is shorter than its record.
static bool process_mng_item(const zeb_msg_t *msg, const zeb_tlv_item_t *item)
{
    uint32_t my_app = msg->hdr.dst_app;
    zeb_inst_t src = zeb_msg_sender(msg);
    switch (item->type) {
    case ZEB_MSG_PROC_NUM_ACK:
        if (item->len < ZEB_PROC_NUM_ACK_LEN)
            return false;
        zeb_recv_proc_num_ack(my_app, src, item->value);
        return true;
    case ZEB_MSG_DBG_CMD:
        if (item->len < sizeof(zeb_msg_dbg_cmd_t))
            return false;
        zeb_recv_dbg_cmd(item->value);
        return true;
    case ZEB_MSG_APP_INFO:
        zeb_recv_get_app_info_request(msg, my_app);
        return true;
    case ZEB_MSG_APP_STAT:
        zeb_recv_get_app_stat_request(msg, my_app);
        return true;
    case ZEB_MSG_PING:
        recv_ping(my_app, src);
        return true;
    case ZEB_MSG_PING_ECHO:
        zeb_fc_ping_echo(my_app, src);
        return true;
    case ZEB_MSG_RELOAD:
        zeb_reload_process(my_app, src);
        return true;
    default:
        ZEB_WARN("ZEB app %d recv unexpected data type %d from %d/%d.\n", my_app, item->type, src.app, src.node);
        return true;
    }
}

void zeb_mng_msg_process(zeb_msg_t *msg)
{
    const zeb_msg_hdr_t *hdr = &msg->hdr;
    if (hdr->dst_app == ZEBD_APP_ID) {
        zeb_mng_dispatch_zebd_msg(msg);
        return;
    }
    struct tlv_list_desc cursor = zeb_tlv_body(msg);
    zeb_tlv_item_t item;
    zeb_tlv_step_t step = zeb_tlv_next(&cursor, &item);
    for (; step == ZEB_TLV_ITEM; step = zeb_tlv_next(&cursor, &item)) {
        ZEB_VERBOSE("ZEB app %d recv mgmt msg from %d/%d, data len %d, type %s.\n", hdr->dst_app, hdr->src_app,
                    hdr->src_node, item.len, zeb_msg_type_string(item.type));
        if (!process_mng_item(msg, &item)) {
            step = ZEB_TLV_INVALID;
            break;
        }
    }
    if (step == ZEB_TLV_INVALID)
        ZEB_ERROR("ZEB recv invalid TLV section for %d from %d/%d .\n", hdr->dst_app, hdr->src_app, hdr->src_node);
    free(msg);
}
