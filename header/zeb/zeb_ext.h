/* ZEB: calls beyond those of zeb.h. They follow its rules of results, threads, processes and callbacks: errors and log
 * lines, applications with options, messages, peers, calls without a blocked thread, the end of the library. */
#ifndef ZEB_EXT_H
#define ZEB_EXT_H

#include <stddef.h>
#include <time.h>

#include <zeb/zeb.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Errors and log lines. These calls work before the first registration, after it, and in a forked child.
 *
 * Without any of them, a registration or a start that fails, a name that cannot be taken or that another process has,
 * and a pair that the peer has not named put one line on standard error that says why and what to type, unless there is
 * a log handler; the same line is not repeated.
 * ZEB_DEBUG=error,warn in the environment of the process sets the first debug mask by the names of the levels: error,
 * warn, info, verbose, none. */

/* The text of a result as this library means it: for -2 it speaks of a missing registration or server, not of a
 * file. `result` is any number; an unknown one has a text too. Never null. The text belongs to the library and is valid
 * until this thread's next call of zeb_strerror. Any thread; no lock. */
const char *zeb_strerror(int result);

/* Why this thread's last failed call failed: the text of the log line that says so, without its prefix and line end,
 * whatever the masks are. Failures that a program may meet in a loop have a text of their own, which is no log line:
 * the log of a send or a call that finds no server (-ENOENT) has a VERBOSE line that says less. Look at the text only
 * after a call that failed, before this thread's next call.
 *
 * A failure sets it. Registering, zeb_unregister, zeb_stop, zeb_comm_with, zeb_cfg_init and the group calls empty it
 * first, so after one of these the empty text says that it succeeded, also for the calls that return nothing. A send,
 * an RPC call or a reply that succeeds does not touch it: it costs them nothing. An RPC call that returns 0 may set it,
 * when it could not write to one instance.
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

/* Applications with options: callbacks with a context, and callbacks in a thread of the program. */

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
    zeb_app_msg_fun_t call;    /* requests; it replies with zeb_rpc_reply. Null: `message` gets them too */
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
    /* When a message or an event comes and more items than this wait in the application's queue, the application is
     * told once: by `queue_passed`, or by a WARN line when that is null. It is told again only after the queue was
     * empty meanwhile. Nothing is dropped or held back. 0: never. Without effect with ZEB_APP_NO_THREAD, which has no
     * queue. */
    uint32_t queue_notice;
    /* What happens when several applications of a process name one peer. 0: one of them gets the join, one of them, and
     * perhaps another one, gets the quit, and of one the calls to the peer that quits are ended. 1: this application
     * gets each join and each quit of every peer that it has named, once, in the order of its queue, whatever the
     * others get; and a quit ends its calls. When it names a peer of which servers are online already, it gets their
     * joins then. So its joins and quits of an instance alternate. Other numbers are refused. */
    uint32_t every_subscriber;
    zeb_app_queue_notice_t queue_passed;
} zeb_app_options_t;

/* Registers an application in this process, as zeb_register does, with the options that `options` names. They are
 * copied. Waits only for the library's lock. Without every_subscriber events go to applications as with zeb_register:
 * where several of a process name one peer, one of them is notified.
 *
 * Returns 0; -EINVAL for null, a size that does not reach past `dispatchers` or is above 4096, unknown bytes that
 * are not 0, an unknown mode, an every_subscriber above 1, a bad id, or a null name or table, each with an ERROR line;
 * for the rest what zeb_register returns. */
int zeb_register_app(const zeb_app_options_t *options);

/* Polled applications, for a program with a loop of its own. Nothing runs by itself: what arrives waits in the queue,
 * and the program dispatches it when the descriptor says so. Messages wait for as long as the program does not
 * dispatch: their senders are blocked after 1024 of them. */

/* The descriptor of the polled application `app`: readable exactly while its queue is not empty, so it fits poll,
 * select and epoll, level-triggered. With EPOLLET dispatch until zeb_dispatch gives less than `max`. It belongs to the
 * library: do not read, write or close it. It is the same until zeb_stop closes it; take it out of an epoll set before.
 * Returns the descriptor; -ENOENT when `app` is not registered here; -EINVAL when it is not polled. Takes no lock. */
int zeb_app_fd(uint32_t app);

/* Takes up to `max` items (messages, events and completed calls of zeb_rpc_async, in the order in which they were
 * queued) off the queue of the polled application `app` and runs their callbacks in this thread, one after the other,
 * without a lock of the library. Returns early when the queue is empty or the library stops. It does not wait, but the
 * callbacks may.
 *
 * max  at least 1; INT_MAX until the queue is empty. A small number lets the program's loop turn under load
 *
 * Callbacks of one application run one at a time, so only one thread dispatches at once; which one may change. A
 * callback may make every call but zeb_stop, also zeb_dispatch for another application.
 *
 * Items that run no callback count too: a request of a version without a row, which the library itself answers with
 * ZEB_APP_MISMATCH, a message that no row or no function takes, and a completed call that was cancelled meanwhile. So
 * the result may be more than the number of callbacks that ran.
 *
 * Returns the number of items, 0 when there were none; -ENOENT when `app` is not registered here; -EINVAL when it is
 * not polled, or for a bad `max`; -EBUSY when another thread dispatches for it, or one of its own callbacks tries to.
 */
int zeb_dispatch(uint32_t app, int max);

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
 * caller's. An entry that is null is skipped, so a message can be kept by setting its entry to null first; all entries
 * are looked at, whatever `num` is. Null is ignored. */
void zeb_reply_free(zeb_reply_msg_t *reply);

/* The text of a reply status (zeb_reply_stat_t), as log lines show it, and an empty one for any other number. Constant,
 * never null. */
const char *zeb_reply_status_text(int status);

/* Peers: how far a remote instance is, which servers are online, and waiting until some are. The state is that of the
 * process: whichever of its applications has named the peer application with zeb_comm_with, all of them see the same. A
 * peer that none has named is unknown. These calls take the library's lock for a short time; zeb_peer_state takes that
 * of flow control too.
 *
 * app   a registered application of this process
 * peer  the remote application's id, 1..8191 or 16384..20479
 *
 * They return -EINVAL for a bad argument; -ENOENT when `app` is not registered in this process; -EPERM in a child;
 * -ESHUTDOWN while the library stops. */

/* How far an instance is. */
typedef enum zeb_peer_phase_e {
    ZEB_PEER_UNKNOWN = 0,     /* not seen, or gone */
    ZEB_PEER_HANDSHAKING = 1, /* its name is published, and its handshake is not complete */
    ZEB_PEER_ONLINE = 2,      /* its handshake is complete */
    ZEB_PEER_BLOCKED = 3, /* online, and more than 1024 messages of `app` to it are not acknowledged: sends of `app` to
                             its application wait, on every node */
    ZEB_PEER_PHASE_NUM = 4
} zeb_peer_phase_t;

typedef struct zeb_peer_state_s {
    uint32_t phase;  /* zeb_peer_phase_t */
    uint32_t server; /* 1 when it is online and has dispatchers: sends and calls reach it; else 0 */
    uint64_t since;  /* when the phase began: milliseconds of CLOCK_MONOTONIC. 0: never seen, or not known because the
                        process has seen more than 65536 instances */
} zeb_peer_state_t;

/* Stores how far the instance of `peer` on `node` is: a node id 0..65535, or ZEB_NODE_LOCAL. A moment later it may have
 * changed. Returns 0 and fills `state`, which must not be null; after an error all of it is 0. */
int zeb_peer_state(uint32_t app, uint32_t peer, uint32_t node, zeb_peer_state_t *state);

/* Stores in `nodes` the nodes on which a server of `peer` is online, ascending, `max` (not negative) at most. `nodes`
 * may be null when `max` is 0. Returns the number of these nodes, which may be more than `max`. */
int zeb_online_nodes(uint32_t app, uint32_t peer, uint32_t *nodes, int max);

/* Waits until servers of `peer` are online: on `node` (a node id or ZEB_NODE_LOCAL; `count` must be 1), or, with
 * ZEB_NODE_ALL, on `count` nodes (1..65536) at least.
 *
 * milliseconds  how long to wait at most; 0 waits without limit
 *
 * Any number of threads may wait. Nothing is online before zeb_run. A callback of an application with a thread, or of a
 * polled one, may wait, which delays its next callbacks. Returns 0; -ETIMEDOUT when they did not come online in time;
 * -EDEADLK, without a wait, on the receive thread, that is in a callback of an application without a thread: nobody can
 * come online while it waits. */
int zeb_wait_online(uint32_t app, uint32_t peer, uint32_t node, uint32_t count, uint32_t milliseconds);

/* Calls without a blocked thread. zeb_rpc_async asks the same instances as zeb_rpc and zeb_rpcto, by the same bytes,
 * and gathers the same outcomes; but it returns when the requests are written, and a function of the caller's is called
 * with the outcomes. Any number of calls may be in progress, as far as memory goes: about 1 KiB each, and the replies.
 */

/* Is given the outcomes of a call: once for each call that zeb_rpc_async took, unless that is cancelled or the library
 * stops. It runs on the application's own thread in turn with its other callbacks; inside zeb_dispatch when the
 * application is polled; or on the receive thread when the application has neither, where it must not block. No lock of
 * the library is held. The functions of one application run one at a time, in the order in which its calls were
 * completed. It may make calls, this one too, and cancel others. It may run before zeb_rpc_async returns.
 *
 * call     the number that zeb_rpc_async gave
 * replies  one message for each instance, as in the buffer of zeb_rpc: replies in the order of their arrival, then
 *          time-outs in the order of asking. The library owns it and frees it afterwards with the messages that are
 *          still in it. To keep a message, set its own entry to null; it is then the function's, and released with
 *          free() or zeb_msg_free(). Setting `num` to 0 keeps nothing: the library looks at every entry, whatever
 *          `num` says, and frees what is not null
 * context  as it was given */
typedef void (*zeb_call_done_fun_t)(uint32_t call, zeb_reply_msg_t *replies, void *context);

/* Begins a call.
 *
 * - src_app: a registered application of this process
 * - dst_node: ZEB_NODE_ALL: the instances that zeb_rpc would ask. A node id 0..65535, ZEB_NODE_LOCAL or a node-private
 *   group: those that zeb_rpcto would ask
 * - dst_app: as for zeb_rpc and zeb_rpcto
 * - msg: the request, not null. The caller keeps it and may free it when this returns; its header is overwritten
 * - flags: ZEB_SEND_EXCLUDE_SELF or 0
 * - milliseconds: how long the call may last from now on. Unlike that of zeb_rpc, this limit does not start again with
 *   a reply. 0: no limit
 * - done: the function that is called with the outcomes, not null
 * - context: handed to `done`; the library does not look at it
 * - call: may be null. Gets the number of the call, not 0, before `done` can be called; after an error 0
 *
 * Waits for no credit and no reply; writing a request waits while TIPC is congested. Returns 0, and `done` is called;
 * or an error, and it is not: -EINVAL for a bad argument; -ENOENT when no server is online or `src_app` is not
 * registered; -ENOBUFS past 64 instances; -1 when the process has no descriptor left for the first such call; -EPERM in
 * a child; -ESHUTDOWN while the library stops. */
int zeb_rpc_async(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags,
                  uint32_t milliseconds, zeb_call_done_fun_t done, void *context, uint32_t *call);

/* Ends a call of `src_app` without its function. Returns
 *
 * - 0: the function has not been called and will not be; the outcomes are freed
 * - -EALREADY: it has been called and has returned, or there was no such call. If another thread was running it, this
 *   waited for its return: the caller must not hold a lock that the function takes
 * - -EINPROGRESS: it is running and this does not wait, because it is called from that function itself, or on the
 *   receive thread
 * - -EINVAL for a bad id; -ENOENT when `src_app` is not registered; -EPERM in a child; -ESHUTDOWN while the library
 *   stops
 *
 * After 0 and -EALREADY the context is the caller's again. Requests that were written are not taken back. */
int zeb_rpc_cancel(uint32_t src_app, uint32_t call);

/* The end of the library. */

/* Ends the library in this process: what zeb_register and zeb_run have begun. When it returns 0
 *
 * - no callback runs, and none will; a callback that was in progress has returned
 * - all threads of the library have ended
 * - all its descriptors are closed: peers see their quits, and messages that were not read go back to their senders
 * - all its memory is freed: queued messages, which no dispatcher gets, groups, counters, what was known of peers
 * - the log and statistics files are closed
 *
 * and the process is as it was before its first registration. It may register again, the same applications or others,
 * and run: peers see a new process. The masks of the configuration file, a node id that is known and the log handler
 * stay; new log files have a number at the end of their names. Before the first registration, and after a stop, it does
 * nothing and returns 0. Of two threads that stop at once one does it, and both return when it is done.
 *
 * Calls of other threads that are in progress end before it returns:
 *
 * - a send that waits for flow control returns -ESHUTDOWN. Nothing of the message was sent
 * - a call that waits for replies returns -ESHUTDOWN, with an empty reply buffer. Servers may have had the request
 * - a wait for servers (zeb_wait_online) returns -ESHUTDOWN
 * - a call without a blocked thread (zeb_rpc_async) ends without its function, and its replies are freed. When zeb_stop
 *   has returned, the context is the caller's again
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
