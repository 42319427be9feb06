/* ZEB: calls beyond those of zeb.h. They follow its rules of results, threads, processes and callbacks. */
#ifndef ZEB_EXT_H
#define ZEB_EXT_H

#include <zeb/zeb.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Errors and log lines. These calls work before the first registration, after it, and in a forked child. */

/* The text of a result as this library means it: zeb_strerror(-2) is "not registered, or no online server". `result` is
 * any number; an unknown one has a text too. Never null. The text belongs to the library: do not write to it. It is
 * valid until this thread's next call of zeb_strerror. Any thread; no lock. */
const char *zeb_strerror(int result);

/* Why this thread's last failed call failed: the text of the log line that says so, without its prefix and line end,
 * whatever the masks are. Look at it only after a call that failed, before this thread's next call.
 *
 * A failure sets it. Registering, zeb_unregister, zeb_comm_with, zeb_cfg_init and the group calls empty it first, so
 * after one of these the empty text says that it succeeded, also for the calls that return nothing. A send, an RPC call
 * or a reply that succeeds does not touch it: it costs them nothing. An RPC call that returns 0 may set it, when it
 * could not write to one instance.
 *
 * Never null; empty when no call of this thread has failed. The text belongs to the library and to this thread, and is
 * valid until the thread's next call. No lock. */
const char *zeb_last_error(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
