/* ZEB: calls beyond those of zeb.h. They follow its rules of results, threads, processes and callbacks. */
#ifndef ZEB_EXT_H
#define ZEB_EXT_H

#include <time.h>

#include <zeb/zeb.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Errors and log lines. These calls work before the first registration, after it, and in a forked child.
 *
 * Without any of them, a registration or a start that fails and a name that cannot be taken put one line on standard
 * error that says why and what to type, unless there is a log handler; the same line is not repeated.
 * ZEB_DEBUG=error,warn in the environment of the process sets the first debug mask by the names of the levels: error,
 * warn, info, verbose, none. */

/* The text of a result as this library means it: for -2 it speaks of a missing registration or server, not of a
 * file. `result` is any number; an unknown one has a text too. Never null. The text belongs to the library and is valid
 * until this thread's next call of zeb_strerror. Any thread; no lock. */
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

/* Takes one log line. `level` is 0 VERBOSE, 1 INFO, 2 WARN or 3 ERROR; `file` and `line` say where in the library it
 * was written; `time` is CLOCK_REALTIME; `text` is cut to 255 characters with its prefix, which it comes without, like
 * its line end. What the pointers name is valid during the call alone.
 *
 * The handler is called from whatever thread the line comes from, from several at once, and often with locks of the
 * library held: it must make no call of this library, and must not wait for a thread that does. A line that is logged
 * in the handler's own thread while it runs is not handed to it. It must not leave by a jump, an exception or the end
 * of its thread. */
struct timespec;
typedef void (*zeb_log_handler_t)(void *context, int level, const char *file, int line, const struct timespec *time,
                                  const char *text);

/* From now on every log line whose level is in the debug mask or in the log mask is also handed to `handler`, with
 * `context` as it stands here; the line goes to standard output and to the log file as before. A null handler takes the
 * former one away. May be called before the first registration and at any time, from any thread, also while lines are
 * logged: each line goes to the former handler or to the new one. When it returns, the former handler runs in no thread
 * and will not be called again, so that its context may be freed. For that it waits while the handler runs; do not call
 * it with a lock held that the handler takes. A forked child keeps the handler.
 *
 * Returns 0; -EDEADLK when the handler itself calls it, which changes nothing. */
int zeb_set_log_handler(zeb_log_handler_t handler, void *context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
