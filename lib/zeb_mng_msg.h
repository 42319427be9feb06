// What every message goes through on its way out: the sequence number and the one send primitive. Entered by any
// thread. g_seq_mutex guards the writing of the sequence number alone and nothing is taken under it; the send primitive
// takes no lock.
#ifndef ZEB_MNG_MSG_H
#define ZEB_MNG_MSG_H

#include <cstdint>

#include <zeb/zeb.h>

#include "zeb_inst.h"
#include "zeb_slot.h"

void zeb_init_seq();
uint32_t zeb_get_seq(); // never 0

// Writes `msg` to the instance `dst` from an application's socket. Returns 0, or -1 for a failed write. The message
// stays the caller's and is in host order again.
int zeb_tipc_write(const zeb_app_mng_t *slot, zeb_msg_t *msg, zeb_inst_t dst, int flags);

// The same by the application's id; -EINVAL when it has no socket here.
int zeb_tipc_sendto(uint32_t src_app, zeb_msg_t *msg, zeb_inst_t dst, int flags);

// A message of the library's own with its header filled and room for `size` body bytes.
zeb_msg_t *zeb_new_lib_msg(uint32_t size, uint8_t flag, uint32_t src_app, zeb_inst_t dst);

#endif
