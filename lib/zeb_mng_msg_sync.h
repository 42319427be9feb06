// The bytes of synchronisation messages: what a SYNC_INST and its acknowledgements say, in host order, and the one
// place that encodes and decodes it. Works on the caller's data; nothing here locks, sends or logs.
#ifndef ZEB_MNG_MSG_SYNC_H
#define ZEB_MNG_MSG_SYNC_H

#include <cstdint>

#include "zeb_inst.h"
#include "zeb_wire.h"

// SYNC_INST and SYNC_INST_ACK.
typedef struct zeb_msg_sync_inst_s {
    uint32_t seq;       // of the synchronisation
    uint32_t id;        // the sender's process id
    uint32_t is_server; // 1 when the sending application has dispatchers
    uint32_t resume;    // 1 for a resynchronisation after a resume time-out
    uint32_t ttl;       // how often a returned acknowledgement may still be sent again
} zeb_msg_sync_inst_t;

// SYNC_INST_SEQ_ACK.
typedef struct zeb_msg_sync_inst_ack_s {
    zeb_msg_sync_inst_t sync;
    uint32_t pseq; // the acknowledger's own last synchronisation towards the peer, 0 while the peer is not confirmed
} zeb_msg_sync_inst_ack_t;

constexpr uint32_t ZEB_SYNC_TTL = 600;

// New messages, from this node's application `src_app`; the caller frees them.
zeb_msg_t *zeb_new_sync_inst_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body);
zeb_msg_t *zeb_new_sync_inst_ack_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body);

// The acknowledgement in both versions' forms.
zeb_msg_t *zeb_new_sync_inst_seq_ack_msg(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_ack_t *body);

// The value of a received element. False when it is shorter than its record.
bool zeb_get_sync_inst(const zeb_tlv_item_t *item, zeb_msg_sync_inst_t *body);
bool zeb_get_sync_inst_ack(const zeb_tlv_item_t *item, zeb_msg_sync_inst_ack_t *body);

// A returned acknowledgement (its first element is one, complete) whose time to live allows it to be sent again: counts
// that down in place, and says of which type it is and which synchronisation it acknowledges.
bool zeb_take_ack_ttl(zeb_msg_t *msg, int *type, uint32_t *seq);

#endif
