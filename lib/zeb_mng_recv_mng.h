// Processing of received management messages. It runs on the receive thread, at once: the echo of a ping, and the
// acknowledgement that wakes blocked senders, do not wait for an application's queue.
#ifndef ZEB_MNG_RECV_MNG_H
#define ZEB_MNG_RECV_MNG_H

#include <zeb/zeb_msg.h>

// Processes and frees a received message with ZEB_MSG_FLAG_MNG.
void zeb_mng_msg_process(zeb_msg_t *msg);

void zeb_forget_zebd(); // the records of the applications are about to be freed

#endif
