// What the library does with the management messages that it receives. On the receive thread, at once: a ping is
// answered and an acknowledgement wakes blocked senders without waiting for an application's queue.
#ifndef ZEB_MNG_RECV_MNG_H
#define ZEB_MNG_RECV_MNG_H

#include <zeb/zeb_msg.h>

// Takes a received message with ZEB_MSG_FLAG_MNG; frees it.
void zeb_mng_msg_process(zeb_msg_t *msg);

#endif
