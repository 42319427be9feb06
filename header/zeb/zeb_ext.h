/* Calls beyond the base calls of zeb.h. A call that fails returns a negative errno value. Each may be made from any
 * thread unless it says otherwise, and none from a signal handler. */
#ifndef ZEB_EXT_H
#define ZEB_EXT_H

#include <zeb/zeb.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Applications. */

/* Ends the library in this process: what zeb_register and zeb_run have begun. When it returns 0
 *
 * - no callback runs, and none will; a callback that was in progress has returned
 * - all threads of the library have ended
 * - all its descriptors are closed: peers see their quits, and messages that were not read go back to their senders
 * - all its memory is freed: queued messages, which no dispatcher gets, groups, counters, what was known of peers
 * - the log and statistics files are closed
 *
 * and the process is as it was before its first registration. It may register again, the same applications or others,
 * and run: peers see a new process. The masks of the configuration file and a node id that is known stay; new log files
 * have a number at the end of their names. Before the first registration, and after a stop, it does nothing and returns
 * 0. Of two threads that stop at once one does it, and both return when it is done.
 *
 * Calls of other threads that are in progress end before it returns:
 *
 * - a send that waits for flow control returns -ESHUTDOWN. Nothing of the message was sent
 * - a call that waits for replies returns -ESHUTDOWN, with an empty reply buffer. Servers may have had the request
 * - a write that TIPC holds back because of congestion goes on until TIPC takes or refuses it, and zeb_stop waits
 * - a call that begins meanwhile does nothing: its result is -ESHUTDOWN, or it has none. Once zeb_stop has returned,
 *   calls find no registered application, as before the first registration
 *
 * It waits for callbacks that are in progress. So it must not be called with a lock that a callback takes, and a
 * callback that never returns keeps it waiting. Call it before main returns or exit is called, or in a static
 * destructor or an atexit function that runs before what the callbacks use is destroyed.
 *
 * Returns 0; -EDEADLK in a callback of an application, whatever its thread (it would wait for itself), with an ERROR
 * line; -EPERM in a forked child. A refused stop changes nothing. */
int zeb_stop(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
