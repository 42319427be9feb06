// Synchronisation messages, in the order in which a handshake travels: SYNC_INST out, in; acknowledgement out, in.
// Everything runs on the receive thread. What is remembered of a pair is zeb_mng_sync's, who is online
// zeb_mng_online's.
#include "zeb_mng_msg.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_mng_online.h"
#include "zeb_mng_sync.h"
#include "zeb_wire.h"

static void put_sync_inst(uint8_t *value, const zeb_msg_sync_inst_t *body)
{
    zeb_wire_put_u32(value, body->seq);
    zeb_wire_put_u32(value + 4, body->id);
    zeb_wire_put_u32(value + 8, body->is_server);
    zeb_wire_put_u32(value + 12, body->resume);
    zeb_wire_put_u32(value + ZEB_SYNC_TTL_OFFSET, body->ttl);
}

static zeb_msg_sync_inst_t get_sync_inst(const uint8_t *value)
{
    zeb_msg_sync_inst_t body;
    body.seq = zeb_wire_get_u32(value);
    body.id = zeb_wire_get_u32(value + 4);
    body.is_server = zeb_wire_get_u32(value + 8);
    body.resume = zeb_wire_get_u32(value + 12);
    body.ttl = zeb_wire_get_u32(value + ZEB_SYNC_TTL_OFFSET);
    return body;
}

static zeb_msg_sync_inst_t my_sync_inst(uint32_t seq, int is_server, int resume)
{
    zeb_msg_sync_inst_t body;
    body.seq = seq;
    body.id = (uint32_t)getpid();
    body.is_server = (uint32_t)is_server;
    body.resume = (uint32_t)resume;
    body.ttl = ZEB_SYNC_TTL;
    return body;
}

int zeb_sync_app_inst(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, int is_server, int resume)
{
    uint32_t seq = zeb_get_seq();
    ZEB_VERBOSE("ZEB app %d sync inst to %d/%d, seq %d.\n", src_app, dst_app, dst_node, seq);

    zeb_msg_sync_inst_t body = my_sync_inst(seq, is_server, resume);
    uint8_t value[ZEB_SYNC_INST_LEN];
    put_sync_inst(value, &body);
    zeb_msg_t *msg = zeb_new_lib_msg(TLV_SPACE(ZEB_SYNC_INST_LEN), ZEB_MSG_FLAG_SYNC, src_app, dst_app, dst_node);
    (void)TLV_SET(msg->data, ZEB_MSG_SYNC_INST, value, sizeof(value));

    int ret = zeb_tipc_sendto(src_app, msg, dst_app, dst_node, 0);
    if (ret != 0) {
        ZEB_WARN("ZEB app %d sync inst to %d/%d, seq %d. SEND FAIL\n", src_app, dst_app, dst_node, seq);
        zeb_mng_stat_update_send_fail(dst_app, dst_node, src_app);
        free(msg);
        return ret;
    }
    zeb_update_inst_send_seq(src_app, dst_app, dst_node, seq);
    zeb_mng_stat_update_sent(src_app, dst_app, dst_node, ZEB_MSG_SYNC_INST);
    zeb_scoped_lock lock(&g_lib_mutex);
    __zeb_add_inst_sync_msg(msg);
    ZEB_INFO("ZEB ADD INST app %d sync inst to %d/%d, seq %d.\n", src_app, dst_app, dst_node, seq);
    return 0;
}

uint32_t zeb_sync_inst_msg_seq(const zeb_msg_t *msg)
{
    return zeb_wire_get_u32((const uint8_t *)TLV_DATA(msg->data));
}

// Copies the value of an element into `value`; a value shorter than its record is refused.
static bool read_record(const zeb_tlv_item_t *item, uint8_t *value, uint16_t len)
{
    if (item->len < len)
        return false;
    memcpy(value, item->value, len);
    return true;
}

// Handles one element of a synchronisation message. False when its value is shorter than its record.
static bool process_sync_item(const zeb_msg_hdr_t *hdr, const zeb_tlv_item_t *item)
{
    uint32_t my_app = hdr->dst_app;
    uint32_t inst_app = hdr->src_app;
    uint32_t inst_node = hdr->src_node;
    uint8_t value[ZEB_SYNC_INST_ACK_LEN];

    switch (item->type) {
    case ZEB_MSG_SYNC_INST: {
        if (!read_record(item, value, ZEB_SYNC_INST_LEN))
            return false;
        zeb_msg_sync_inst_t body = get_sync_inst(value);
        zeb_start_retry_inst_timer(hdr->zeb_ver, my_app, inst_app, inst_node);
        zeb_mng_stat_update_recv(my_app, inst_app, inst_node, item->type);
        zeb_recv_inst_sync(my_app, inst_node, inst_app, &body);
        return true;
    }
    case ZEB_MSG_SYNC_INST_ACK: {
        if (hdr->zeb_ver != 1)
            return true;
        if (!read_record(item, value, ZEB_SYNC_INST_LEN))
            return false;
        zeb_msg_sync_inst_t body = get_sync_inst(value);
        zeb_mng_stat_update_recv(my_app, inst_app, inst_node, item->type);
        zeb_recv_inst_sync_ack(my_app, inst_node, inst_app, &body);
        return true;
    }
    case ZEB_MSG_SYNC_INST_SEQ_ACK: {
        if (hdr->zeb_ver != 2)
            return true;
        if (!read_record(item, value, ZEB_SYNC_INST_ACK_LEN))
            return false;
        zeb_msg_sync_inst_ack_t body;
        body.sync = get_sync_inst(value);
        body.pseq = zeb_wire_get_u32(value + ZEB_SYNC_INST_LEN);
        zeb_mng_stat_update_recv(my_app, inst_app, inst_node, item->type);
        zeb_recv_inst_sync_ack_include_seq(my_app, inst_node, inst_app, &body);
        return true;
    }
    default:
        ZEB_WARN("ZEB app %d recv unexpected data type %d from %d/%d.\n", my_app, item->type, inst_app, inst_node);
        return true;
    }
}

// A sender or an addressee that cannot exist would leave records behind that nothing ever removes.
static bool is_pair(const zeb_msg_hdr_t *hdr)
{
    return zeb_get_app_info(hdr->dst_app) != nullptr && zeb_valid_app_id(hdr->src_app) &&
           zeb_valid_node_id(hdr->src_node);
}

void zeb_sync_msg_process(zeb_msg_t *msg)
{
    const zeb_msg_hdr_t *hdr = &msg->hdr;
    if (is_pair(hdr) && !zeb_has_room_for_pair(hdr->dst_app, hdr->src_app, hdr->src_node)) {
        ZEB_ERROR("ZEB app %d has no room for %d/%d.\n", hdr->dst_app, hdr->src_app, hdr->src_node);
        free(msg);
        return;
    }
    struct tlv_list_desc cursor = zeb_tlv_body(msg);
    zeb_tlv_item_t item;
    zeb_tlv_step_t step = is_pair(hdr) ? zeb_tlv_next(&cursor, &item) : ZEB_TLV_INVALID;
    for (; step == ZEB_TLV_ITEM; step = zeb_tlv_next(&cursor, &item)) {
        ZEB_VERBOSE("ZEB app %d recv sync msg from %d/%d, data len %d, type %s.\n", hdr->dst_app, hdr->src_app,
                    hdr->src_node, item.len, zeb_msg_type_string(item.type));
        if (!process_sync_item(hdr, &item)) {
            step = ZEB_TLV_INVALID;
            break;
        }
    }
    if (step == ZEB_TLV_INVALID)
        ZEB_ERROR("ZEB recv invalid TLV section for %d from %d/%d .\n", hdr->dst_app, hdr->src_app, hdr->src_node);
    free(msg);
}

// The peer restarts its side: forget the instance and synchronise with it anew.
static void restart_peer(uint32_t inst_app, uint32_t inst_node)
{
    zeb_app_inst_force_quit(inst_app, inst_node);
    zeb_app_inst_join(inst_app, inst_node, 0);
}

// What a SYNC_INST means for what we knew of the peer.
static void settle_peer_state(uint32_t my_app, uint32_t inst_node, uint32_t inst_app, const zeb_msg_sync_inst_t *body)
{
    if (body->resume != 0) {
        restart_peer(inst_app, inst_node);
        return;
    }
    if (zeb_app_instance(inst_app, inst_node))
        return;
    uint32_t recv_seq = 0;
    zeb_get_inst_recv_seq(my_app, inst_app, inst_node, &recv_seq);
    if (recv_seq == 0 || recv_seq == body->seq) {
        ZEB_VERBOSE("ZEB app %d quit comm to %d/%d by request.recv_seq:%d, seq:%d\n", my_app, inst_app, inst_node,
                    recv_seq, body->seq);
        zeb_app_inst_try_quit(inst_app, inst_node);
        return;
    }
    ZEB_VERBOSE("ZEB app %d resume comm to %d/%d by request. recv_seq:%d, seq:%d\n", my_app, inst_app, inst_node,
                recv_seq, body->seq);
    restart_peer(inst_app, inst_node);
}

void zeb_recv_inst_sync(uint32_t my_app, uint32_t inst_node, uint32_t inst_app, const zeb_msg_sync_inst_t *body)
{
    zeb_update_inst_sync_id(my_app, inst_app, inst_node, body->id);
    ZEB_VERBOSE("ZEB app %d recv sync inst from %d/%d resume:%d, seq:%d\n", my_app, inst_app, inst_node, body->resume,
                body->seq);
    settle_peer_state(my_app, inst_node, inst_app, body);
    zeb_set_app_inst(inst_app, inst_node);
    zeb_update_inst_recv_seq(my_app, inst_app, inst_node, body->seq);
    zeb_update_inst_sync_server(my_app, inst_app, inst_node, body->is_server);
    (void)zeb_sync_app_inst_ack_include_seq(my_app, inst_node, inst_app, body->seq, zeb_is_app_server(my_app) ? 1 : 0);
    zeb_try_notify_app_join(my_app, inst_node, inst_app);
    zeb_try_resume_comm(inst_app, inst_node);
}

// Sends an acknowledgement and counts it.
static int send_ack(uint32_t src_app, zeb_msg_t *msg, uint32_t dst_app, uint32_t dst_node, zeb_msg_type_t type)
{
    int ret = zeb_tipc_sendto(src_app, msg, dst_app, dst_node, 0);
    if (ret == 0)
        zeb_mng_stat_update_sent(src_app, dst_app, dst_node, type);
    else
        zeb_mng_stat_update_send_fail(dst_app, dst_node, src_app);
    return ret;
}

int zeb_sync_app_inst_ack_include_seq(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, uint32_t seq,
                                      int is_server)
{
    zeb_msg_sync_inst_t body = my_sync_inst(seq, is_server, 0);
    uint32_t pseq = (uint32_t)zeb_get_pseq_for_inst_ack(src_app, dst_node, dst_app);
    uint8_t value[ZEB_SYNC_INST_ACK_LEN];
    put_sync_inst(value, &body);
    zeb_wire_put_u32(value + ZEB_SYNC_INST_LEN, pseq);

    uint32_t size = TLV_SPACE(ZEB_SYNC_INST_LEN) + TLV_SPACE(ZEB_SYNC_INST_ACK_LEN);
    zeb_msg_t *msg = zeb_new_lib_msg(size, ZEB_MSG_FLAG_SYNC, src_app, dst_app, dst_node);
    uint32_t offset = TLV_SET(msg->data, ZEB_MSG_SYNC_INST_ACK, value, ZEB_SYNC_INST_LEN);
    (void)TLV_SET(msg->data + offset, ZEB_MSG_SYNC_INST_SEQ_ACK, value, ZEB_SYNC_INST_ACK_LEN);

    int ret = send_ack(src_app, msg, dst_app, dst_node, ZEB_MSG_SYNC_INST_SEQ_ACK);
    ZEB_VERBOSE("ZEB app %d sync inst ack_anc to %d/%d, seq %d, pseq %d. ret:%d.\n", src_app, dst_app, dst_node, seq,
                pseq, ret);
    free(msg);
    return ret;
}

int zeb_sync_app_inst_ack(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, uint32_t seq, int is_server)
{
    ZEB_VERBOSE("ZEB app %d sync inst ack to %d/%d, seq %d.\n", src_app, dst_app, dst_node, seq);
    zeb_msg_sync_inst_t body = my_sync_inst(seq, is_server, 0);
    uint8_t value[ZEB_SYNC_INST_LEN];
    put_sync_inst(value, &body);
    zeb_msg_t *msg = zeb_new_lib_msg(TLV_SPACE(ZEB_SYNC_INST_LEN), ZEB_MSG_FLAG_SYNC, src_app, dst_app, dst_node);
    (void)TLV_SET(msg->data, ZEB_MSG_SYNC_INST_ACK, value, sizeof(value));
    int ret = send_ack(src_app, msg, dst_app, dst_node, ZEB_MSG_SYNC_INST_ACK);
    free(msg);
    return ret;
}

void zeb_recv_inst_sync_ack(uint32_t my_app, uint32_t inst_node, uint32_t inst_app, const zeb_msg_sync_inst_t *body)
{
    zeb_update_inst_sync_ack_id(my_app, inst_app, inst_node, body->id);
    if (zeb_del_inst_sync_msg(my_app, inst_app, inst_node, body->seq) != 0) {
        ZEB_WARN("ZEB app %d del inst sync to %d/%d seq %d failed.\n", my_app, inst_app, inst_node, body->seq);
        return;
    }
    zeb_set_app_inst_ack(inst_app, inst_node);
    if (body->is_server != 0)
        zeb_set_app_server(inst_app, inst_node);
    zeb_try_notify_app_join(my_app, inst_node, inst_app);
}

void zeb_recv_inst_sync_ack_include_seq(uint32_t my_app, uint32_t inst_node, uint32_t inst_app,
                                        const zeb_msg_sync_inst_ack_t *body)
{
    uint32_t recv_seq = 0;
    zeb_get_inst_recv_seq(my_app, inst_app, inst_node, &recv_seq);
    uint32_t pseq = body->pseq;
    uint32_t seq = body->sync.seq;
    ZEB_VERBOSE("ZEB app %u recv from %u/%u ack pseq %u seq %u, recv_seq %u, is_server %u.\n", my_app, inst_app,
                inst_node, pseq, seq, recv_seq, body->sync.is_server);

    if (pseq == 0 || pseq == recv_seq) {
        zeb_update_inst_sync_ack_id(my_app, inst_app, inst_node, body->sync.id);
        if (body->sync.is_server != 0)
            zeb_set_app_server(inst_app, inst_node);
    }
    if (pseq == 0 || pseq != recv_seq) {
        ZEB_VERBOSE("ZEB app %d recv from %d/%d ack pseq %d invalid, need seq %d.\n", my_app, inst_app, inst_node, pseq,
                    recv_seq);
        return;
    }
    if (zeb_del_inst_sync_msg(my_app, inst_app, inst_node, seq) != 0) {
        ZEB_VERBOSE("ZEB app %d del inst sync to %d/%d failed. ack seq %d pseq %d \n", my_app, inst_app, inst_node, seq,
                    pseq);
        return;
    }
    (void)zeb_del_sync_inst_retry(my_app, inst_app, inst_node);
    zeb_set_app_inst_ack(inst_app, inst_node);
    zeb_try_notify_app_join(my_app, inst_node, inst_app);
}
