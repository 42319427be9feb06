// The exported functions on messages. They use no record of the library, so they take no lock and work in a child.
#include <cstdlib>

#include <zeb/zeb_diag.h>
#include <zeb/zeb_ext.h>

#include "zeb_rpc.h"

void zeb_msg_free(zeb_msg_t *msg)
{
    free(msg);
}

void *zeb_msg_data(zeb_msg_t *msg)
{
    return msg == nullptr ? nullptr : msg->data;
}

uint32_t zeb_msg_size(const zeb_msg_t *msg)
{
    return msg == nullptr || msg->hdr.len < ZEB_MSG_HDR_LEN ? 0 : zeb_msg_data_len(msg);
}

void zeb_reply_free(zeb_reply_msg_t *reply)
{
    if (reply != nullptr)
        zeb_reply_msg_free(reply);
}

const char *zeb_reply_status_text(int status)
{
    return zeb_reply_stat_string(status);
}
