// Reading and writing of wire bytes: the only code for the byte order and bounds of message bodies.
// Works on the caller's buffer alone; nothing here locks or logs.
#ifndef ZEB_WIRE_H
#define ZEB_WIRE_H

#include <cstdint>
#include <cstring>

#include <zeb/zeb_msg.h>
#include <zeb/zeb_tlv.h>

// Type of a TLV element.
typedef enum zeb_msg_type_e : int {
    ZEB_MSG_PROC_NUM_ACK = 0,
    ZEB_MSG_SYNC_INST = 1,
    ZEB_MSG_SYNC_INST_ACK = 2,
    ZEB_MSG_DBG_CMD = 3,
    ZEB_MSG_APP_INFO = 4,
    ZEB_MSG_APP_STAT = 5,
    ZEB_MSG_PING = 6,
    ZEB_MSG_PING_ECHO = 7,
    ZEB_MSG_RELOAD = 8,
    ZEB_MSG_SYNC_INST_SEQ_ACK = 9,
    ZEB_MSG_TYPE_NUM = 10,
} zeb_msg_type_t;

static inline uint32_t zeb_wire_get_u32(const uint8_t *bytes)
{
    uint32_t value;
    memcpy(&value, bytes, sizeof(value));
    return ntohl(value);
}

static inline void zeb_wire_put_u32(uint8_t *bytes, uint32_t value)
{
    value = htonl(value);
    memcpy(bytes, &value, sizeof(value));
}

// One element of a body.
typedef struct zeb_tlv_item_s {
    uint16_t type;
    uint16_t len;   // bytes of the value
    uint8_t *value; // points into the body
} zeb_tlv_item_t;

typedef enum zeb_tlv_step_e : int {
    ZEB_TLV_END = 0,     // the body has no more elements
    ZEB_TLV_ITEM = 1,    // `item` is the next element
    ZEB_TLV_INVALID = 2, // the rest of the body is not a list of elements
} zeb_tlv_step_t;

// Takes the next element of a body and moves the cursor past it. Beyond what TLV_LIST_OK checks, it refuses an element
// shorter than its own header and an element whose step would be 0, since then the walk would not end.
static inline zeb_tlv_step_t zeb_tlv_next(struct tlv_list_desc *cursor, zeb_tlv_item_t *item)
{
    if (TLV_LIST_EMPTY(cursor))
        return ZEB_TLV_END;
    if (cursor->tlv_space < sizeof(struct tlv_desc) || !TLV_LIST_OK(cursor))
        return ZEB_TLV_INVALID;
    uint16_t tlv_len = ntohs(cursor->tlv_ptr->tlv_len);
    if (tlv_len < sizeof(struct tlv_desc) || (uint16_t)TLV_ALIGN(tlv_len) == 0)
        return ZEB_TLV_INVALID;
    item->type = TLV_LIST_DATA_TYPE(cursor);
    item->len = TLV_LIST_DATA_LENGTH(cursor);
    item->value = (uint8_t *)TLV_LIST_DATA(cursor);
    TLV_LIST_STEP(cursor);
    return ZEB_TLV_ITEM;
}

// A cursor on the body of a message in host order.
static inline struct tlv_list_desc zeb_tlv_body(zeb_msg_t *msg)
{
    struct tlv_list_desc cursor;
    TLV_LIST_INIT(&cursor, msg->data, zeb_msg_data_len(msg));
    return cursor;
}

#endif
