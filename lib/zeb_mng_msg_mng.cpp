#include "zeb_mng_msg_mng.h"

#include "zeb_dbg.h"
#include "zeb_mng_msg.h"
#include "zeb_msg_guard.h"
#include "zeb_wire.h"

static int send_element(uint32_t src_app, zeb_inst_t dst, zeb_msg_type_t type, const void *value, uint16_t len)
{
    zeb_msg_guard_t msg(zeb_new_lib_msg(TLV_SPACE(len), ZEB_MSG_FLAG_MNG, src_app, dst));
    (void)TLV_SET(msg->data, (uint16_t)type, value, len);
    return zeb_tipc_sendto(src_app, msg.get(), dst, 0);
}

int zeb_send_fc_ack(uint32_t src_app, zeb_inst_t dst, uint32_t ack_num)
{
    ZEB_VERBOSE("ZEB app %d send msg ack num %d to %d/%d.\n", src_app, ack_num, dst.app, dst.node);
    uint8_t value[ZEB_PROC_NUM_ACK_LEN];
    zeb_wire_put_u32(value, ack_num);
    return send_element(src_app, dst, ZEB_MSG_PROC_NUM_ACK, value, sizeof(value));
}

int zeb_send_fc_ping(uint32_t src_app, zeb_inst_t dst)
{
    ZEB_VERBOSE("ZEB app %d ping to %d/%d.\n", src_app, dst.app, dst.node);
    return send_element(src_app, dst, ZEB_MSG_PING, nullptr, 0);
}

int zeb_send_fc_ping_echo(uint32_t src_app, zeb_inst_t dst)
{
    ZEB_VERBOSE("ZEB app %d ping echo to %d/%d.\n", src_app, dst.app, dst.node);
    return send_element(src_app, dst, ZEB_MSG_PING_ECHO, nullptr, 0);
}

int zeb_send_fc_reload(uint32_t src_app, zeb_inst_t dst)
{
    ZEB_VERBOSE("ZEB app %d try to reload %d/%d.\n", src_app, dst.app, dst.node);
    return send_element(src_app, dst, ZEB_MSG_RELOAD, nullptr, 0);
}
