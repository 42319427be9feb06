/* ZEB: calls that go beyond the base calls of <zeb/zeb.h>. What stands there on results, threads, children and
 * callbacks holds here too. */
#ifndef ZEB_EXT_H
#define ZEB_EXT_H

#include <zeb/zeb.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Messages. Functions in place of the inline ones of <zeb/zeb_msg.h>, for languages that cannot include it, and for
 * programs whose free() is not that of the library. They take no lock, and a child may call them. */

/* Releases a message. Null is ignored. */
void zeb_msg_free(zeb_msg_t *msg);

/* The payload of a message, valid as long as the message. Null for null. */
void *zeb_msg_data(zeb_msg_t *msg);

/* The number of payload bytes of a message in host byte order, 0..ZEB_MSG_MAX_DATA. 0 for null, and for a message whose
 * length is less than that of its header. */
uint32_t zeb_msg_size(const zeb_msg_t *msg);

/* Releases the messages that a call has left in its reply buffer, and empties the buffer. The buffer itself stays the
 * caller's. A place that is null is skipped, so a message can be kept by setting its place to null first. Null is
 * ignored. */
void zeb_reply_free(zeb_reply_msg_t *reply);

/* The text of a reply status (zeb_reply_stat_t), as log lines show it, and an empty one for any other number. Constant,
 * never null. */
const char *zeb_reply_status_text(int status);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
