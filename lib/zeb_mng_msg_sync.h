// The bytes of synchronisation messages: the values of SYNC_INST and its acknowledgements in host order, and the only
// code that encodes and decodes them. Works on the caller's data; nothing here locks, sends or logs.
#ifndef ZEB_MNG_MSG_SYNC_H
#define ZEB_MNG_MSG_SYNC_H

#include <cstdint>

#include "zeb_inst.h"
#include "zeb_wire.h"

// The value of SYNC_INST and SYNC_INST_ACK.
typedef struct zeb_msg_sync_inst_s {
    uint32_t seq;       // sequence number of the synchronisation
    uint32_t id;        // the sender's process id
    uint32_t is_server; // 1 when the sending application has dispatchers
    uint32_t resume;    // 1 for a resynchronisation after a resume time-out
    uint32_t ttl;       // how often the acknowledgement may still be sent again after a return
} zeb_msg_sync_inst_t;

// The value of SYNC_INST_SEQ_ACK.
typedef struct zeb_msg_sync_inst_ack_s {
    zeb_msg_sync_inst_t sync;
    uint32_t pseq; // `seq` of the sender's last SYNC_INST to the peer; 0 while the peer is not confirmed
} zeb_msg_sync_inst_ack_t;

constexpr uint32_t ZEB_SYNC_TTL = 600;

// Create messages from the application `src_app` of this node; the caller frees them.
zeb_msg_t *zeb_new_sync_inst_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body);
zeb_msg_t *zeb_new_sync_inst_ack_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body);

// The acknowledgement in the forms of both protocol versions.
zeb_msg_t *zeb_new_sync_inst_seq_ack_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_ack_t *body);

// Decode the value of a received element. False when it is shorter than its record.
bool zeb_get_sync_inst(const zeb_tlv_item_t *item, zeb_msg_sync_inst_t *body);
bool zeb_get_sync_inst_ack(const zeb_tlv_item_t *item, zeb_msg_sync_inst_ack_t *body);

// Decrements the time to live of a returned acknowledgement in place, and gives its type and the `seq` of the
// synchronisation that it acknowledges. False, and nothing is changed, when the first element is not a complete
// acknowledgement or its time to live is 0.
bool zeb_take_ack_ttl(zeb_msg_t *msg, int *type, uint32_t *seq);

#endif
