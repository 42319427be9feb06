// What goes out and what the library itself sends: the sequence number and the one send primitive (zeb_mng_msg.cpp),
// and the management messages (zeb_mng_msg_mng.cpp). The send primitive is entered by any thread and takes no lock;
// receivers run on the receive thread. g_seq_mutex guards the sequence number alone and nothing is taken under it.
#ifndef ZEB_MNG_MSG_H
#define ZEB_MNG_MSG_H

#include <cstdint>

#include <zeb/zeb.h>

#include "zeb_inst.h"

void zeb_init_seq();
uint32_t zeb_get_seq(); // never 0

// Writes `msg` to the instance of `dst_app` on `dst_node` from the socket of `src_app`. Returns 0, -1 for a failed
// write, -EINVAL when `src_app` has no socket here. The message stays the caller's and is in host order again.
int zeb_tipc_sendto(uint32_t src_app, zeb_msg_t *msg, uint32_t dst_app, uint32_t dst_node, int flags);

// A message of the library's own with its header filled and room for `size` body bytes.
zeb_msg_t *zeb_new_lib_msg(uint32_t size, uint8_t flag, uint32_t src_app, zeb_inst_t dst);

// Takes a received message with ZEB_MSG_FLAG_MNG.
void zeb_mng_msg_process(zeb_msg_t *msg);

// Management messages of flow control; node before application. The result of zeb_tipc_sendto.
int zeb_send_fc_ack(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, uint32_t ack_num);
int zeb_send_fc_ping(uint32_t src_app, uint32_t dst_node, uint32_t dst_app);
int zeb_send_fc_ping_echo(uint32_t src_app, uint32_t dst_node, uint32_t dst_app);
int zeb_send_fc_reload(uint32_t src_app, uint32_t dst_node, uint32_t dst_app);

#endif
