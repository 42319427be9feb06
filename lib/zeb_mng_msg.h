// Sending: the sequence number, the one send primitive, and the library's own messages. Any thread may enter.
// g_seq_mutex guards only the writing of the sequence number, and no other lock is taken under it; the send primitive
// takes no lock.
#ifndef ZEB_MNG_MSG_H
#define ZEB_MNG_MSG_H

#include <cstdint>

#include <zeb/zeb.h>

#include "zeb_inst.h"
#include "zeb_slot.h"

void zeb_init_seq();
uint32_t zeb_get_seq(); // never 0

constexpr uint32_t ZEB_MSG_LEN_MAX = ZEB_MSG_HDR_LEN + ZEB_MSG_MAX_DATA; // bytes of header and payload

// Logs an ERROR line and returns false: a header that the application has spoilt would be dropped at the peer.
bool zeb_refuse_msg_len(uint32_t src_app, uint32_t len);

// True when the length in the header of a message of the application is one that a message can have.
static inline bool zeb_check_msg_len(uint32_t src_app, const zeb_msg_t *msg)
{
    uint32_t len = msg->hdr.len;
    return (len >= ZEB_MSG_HDR_LEN && len <= ZEB_MSG_LEN_MAX) || zeb_refuse_msg_len(src_app, len);
}

// Writes `msg` from an application's socket to the instance `dst`. Returns 0, or -1 when the write fails. The caller
// keeps the message, which is in host order again.
int zeb_tipc_write(const zeb_app_mng_t *slot, zeb_msg_t *msg, zeb_inst_t dst, int flags);

// The same, by the id of the application; -EINVAL when it is not registered here.
int zeb_tipc_sendto(uint32_t src_app, zeb_msg_t *msg, zeb_inst_t dst, int flags);

// A new message of the library itself, with its header filled in and `size` zeroed body bytes.
zeb_msg_t *zeb_new_lib_msg(uint32_t size, uint8_t flag, uint32_t src_app, zeb_inst_t dst);

#endif
