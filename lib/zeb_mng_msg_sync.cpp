#include "zeb_mng_msg_sync.h"

#include <cstdlib>

#include "zeb_mng_msg.h"

constexpr uint16_t SYNC_INST_LEN = 20;     // bytes of zeb_msg_sync_inst_t on the wire
constexpr uint16_t SYNC_INST_ACK_LEN = 24; // bytes of zeb_msg_sync_inst_ack_t on the wire
constexpr uint32_t TTL_OFFSET = 16;        // offset of `ttl` in the value, the same in all three types

static void put_sync_inst(uint8_t *value, const zeb_msg_sync_inst_t *body)
{
    zeb_wire_put_u32(value, body->seq);
    zeb_wire_put_u32(value + 4, body->id);
    zeb_wire_put_u32(value + 8, body->is_server);
    zeb_wire_put_u32(value + 12, body->resume);
    zeb_wire_put_u32(value + TTL_OFFSET, body->ttl);
}

// A message of one element.
static zeb_msg_t *new_sync_msg(uint32_t src_app, zeb_inst_t dst, zeb_msg_type_t type, const zeb_msg_sync_inst_t *body)
{
    uint8_t value[SYNC_INST_LEN];
    put_sync_inst(value, body);
    zeb_msg_t *msg = zeb_new_lib_msg(TLV_SPACE(SYNC_INST_LEN), ZEB_MSG_FLAG_SYNC, src_app, dst);
    (void)TLV_SET(msg->data, (uint16_t)type, value, sizeof(value));
    return msg;
}

zeb_msg_t *zeb_new_sync_inst_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    return new_sync_msg(src_app, dst, ZEB_MSG_SYNC_INST, body);
}

zeb_msg_t *zeb_new_sync_inst_ack_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    return new_sync_msg(src_app, dst, ZEB_MSG_SYNC_INST_ACK, body);
}

zeb_msg_t *zeb_new_sync_inst_seq_ack_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_ack_t *body)
{
    uint8_t value[SYNC_INST_ACK_LEN];
    put_sync_inst(value, &body->sync);
    zeb_wire_put_u32(value + SYNC_INST_LEN, body->pseq);
    uint32_t size = TLV_SPACE(SYNC_INST_LEN) + TLV_SPACE(SYNC_INST_ACK_LEN);
    zeb_msg_t *msg = zeb_new_lib_msg(size, ZEB_MSG_FLAG_SYNC, src_app, dst);
    uint32_t offset = TLV_SET(msg->data, ZEB_MSG_SYNC_INST_ACK, value, SYNC_INST_LEN);
    (void)TLV_SET(msg->data + offset, ZEB_MSG_SYNC_INST_SEQ_ACK, value, SYNC_INST_ACK_LEN);
    return msg;
}

bool zeb_get_sync_inst(const zeb_tlv_item_t *item, zeb_msg_sync_inst_t *body)
{
    if (item->len < SYNC_INST_LEN)
        return false;
    body->seq = zeb_wire_get_u32(item->value);
    body->id = zeb_wire_get_u32(item->value + 4);
    body->is_server = zeb_wire_get_u32(item->value + 8);
    body->resume = zeb_wire_get_u32(item->value + 12);
    body->ttl = zeb_wire_get_u32(item->value + TTL_OFFSET);
    return true;
}

bool zeb_get_sync_inst_ack(const zeb_tlv_item_t *item, zeb_msg_sync_inst_ack_t *body)
{
    if (item->len < SYNC_INST_ACK_LEN)
        return false;
    (void)zeb_get_sync_inst(item, &body->sync);
    body->pseq = zeb_wire_get_u32(item->value + SYNC_INST_LEN);
    return true;
}

bool zeb_take_ack_ttl(zeb_msg_t *msg, int *type, uint32_t *seq)
{
    struct tlv_list_desc cursor = zeb_tlv_body(msg);
    zeb_tlv_item_t item;
    if (zeb_tlv_next(&cursor, &item) != ZEB_TLV_ITEM)
        return false;
    zeb_msg_sync_inst_t body;
    if ((item.type != ZEB_MSG_SYNC_INST_ACK && item.type != ZEB_MSG_SYNC_INST_SEQ_ACK) ||
        !zeb_get_sync_inst(&item, &body) || body.ttl == 0)
        return false;
    zeb_wire_put_u32(item.value + TTL_OFFSET, body.ttl - 1);
    *type = item.type;
    *seq = body.seq;
    return true;
}
