/* Calls beyond the base calls of zeb.h. A call that fails returns a negative errno value. Each may be made from any
 * thread unless it says otherwise, and none from a signal handler. */
#ifndef ZEB_EXT_H
#define ZEB_EXT_H

#include <stddef.h>

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

/* Message callback of an application that was registered with zeb_register_app. It owns the message and releases it
 * with free(). `context` is that of the application's options. */
typedef void (*zeb_app_msg_fun_t)(void *context, zeb_msg_t *msg);

/* Event callback. The event belongs to the library, and is gone when the callback has returned. */
typedef void (*zeb_app_event_notice_t)(void *context, const zeb_event_t *event);

/* The queue of `app` has `num` items, more than its queue_notice. Runs on the library's receive thread: it must not
 * block, and this process receives nothing while it runs. No lock of the library is held. */
typedef void (*zeb_app_queue_notice_t)(void *context, uint32_t app, uint32_t num);

/* One row of a table of dispatchers. A message is dispatched to the first row whose `ver` equals its app_ver. A row
 * with `ver` 0, or without either function, ends the table. */
typedef struct zeb_app_dispatcher_s {
    uint32_t ver;
    zeb_app_msg_fun_t message; /* one-way messages; null: they are dropped and count as processed */
    zeb_app_msg_fun_t call;    /* requests, to be answered with zeb_rpc_reply; null: `message` gets them too */
} zeb_app_dispatcher_t;

/* Which thread runs an application's callbacks. */
typedef enum zeb_app_mode_e {
    ZEB_APP_THREAD = 0,    /* a thread of its own, as with zeb_register */
    ZEB_APP_NO_THREAD = 1, /* the receive thread, as with zeb_register_without_thread: they must not block */
    ZEB_APP_POLLED = 2     /* a thread of the program, inside zeb_dispatch */
} zeb_app_mode_t;

/* What an application is registered with. Clear the whole record, then set `size` to its size and what you need:
 *
 *   zeb_app_options_t options = {.size = sizeof(options), .app = 100, .name = "ports", .dispatchers = table};
 *
 * A program and a library of different ages understand each other. Members that the program's record does not have yet
 * are taken for 0. Bytes that it has beyond what the library knows must be 0: else the program asks for something that
 * this library cannot do, and the registration fails with -EINVAL. */
typedef struct zeb_app_options_s {
    size_t size;                             /* sizeof(zeb_app_options_t), at most 4096 */
    uint32_t app;                            /* application id: 1..8191 or 16384..20479 */
    uint32_t mode;                           /* zeb_app_mode_t */
    const char *name;                        /* not null; copied, cut to 31 characters */
    const zeb_app_dispatcher_t *dispatchers; /* not null; copied. A table with only the end row makes a client */
    zeb_app_event_notice_t event;            /* a peer server joins or quits; may be null */
    void *context;                           /* handed to every callback; the library does not look at it */
    /* When more items than this, messages and events, wait in the application's queue, the application is told once: by
     * `queue_passed`, or by a WARN line when that is null. It is told again only after the queue was empty meanwhile.
     * Nothing is dropped or held back. 0: never. Without effect with ZEB_APP_NO_THREAD, which has no queue. */
    uint32_t queue_notice;
    uint32_t reserved; /* 0 */
    zeb_app_queue_notice_t queue_passed;
} zeb_app_options_t;

/* Registers an application in this process, as zeb_register does, with the options that `options` names. They are
 * copied. Waits only for the library's lock. Events go to applications as with zeb_register: where several of a process
 * name one peer, one of them is notified.
 *
 * Returns 0; -EINVAL for null, a size that does not reach past `dispatchers` or is above 4096, unknown bytes or a
 * reserved member that are not 0, an unknown mode, a bad id, or a null name or table, each with an ERROR line; for the
 * rest what zeb_register returns. */
int zeb_register_app(const zeb_app_options_t *options);

/* Polled applications, for a program with a loop of its own. Nothing runs by itself: what arrives waits in the queue,
 * and the program dispatches it when the descriptor says so. Messages wait for as long as the program does not
 * dispatch: their senders are blocked after 1024 of them. */

/* The descriptor of the polled application `app`: readable exactly while its queue is not empty, so it fits poll,
 * select and epoll, level-triggered. With EPOLLET dispatch until zeb_dispatch gives less than `max`. It belongs to the
 * library: do not read, write or close it. It is the same until zeb_stop closes it; take it out of an epoll set before.
 * Returns it; -ENOENT when `app` is not registered here; -EINVAL when it is not polled. Takes no lock. */
int zeb_app_fd(uint32_t app);

/* Takes up to `max` items (messages and events, in the order in which they were queued) off the queue of the polled
 * application `app` and runs their callbacks in this thread, one after the other, without a lock of the library.
 * Returns early when the queue is empty or the library stops. It does not wait, but the callbacks may.
 *
 * max  at least 1; INT_MAX until the queue is empty. A small number lets the program's loop turn under load
 *
 * Callbacks of one application run one at a time, so only one thread dispatches at once; which one may change. A
 * callback may make every call but zeb_stop, also zeb_dispatch for another application.
 *
 * Returns the number of items, 0 when there were none; -ENOENT when `app` is not registered here; -EINVAL when it is
 * not polled, or for a bad `max`; -EBUSY when another thread dispatches for it, or one of its own callbacks tries to.
 */
int zeb_dispatch(uint32_t app, int max);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
