// Sending the management messages of flow control. Any thread may enter; no lock is taken.
#ifndef ZEB_MNG_MSG_MNG_H
#define ZEB_MNG_MSG_MNG_H

#include <cstdint>

#include "zeb_inst.h"

constexpr uint16_t ZEB_PROC_NUM_ACK_LEN = 4; // bytes of an acknowledgement's value, the number

// Return the result of zeb_tipc_sendto.
int zeb_send_fc_ack(uint32_t src_app, zeb_inst_t dst, uint32_t ack_num);
int zeb_send_fc_ping(uint32_t src_app, zeb_inst_t dst);
int zeb_send_fc_ping_echo(uint32_t src_app, zeb_inst_t dst);
int zeb_send_fc_reload(uint32_t src_app, zeb_inst_t dst);

#endif
