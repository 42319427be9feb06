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
 * caller's. An entry that is null is skipped, so a message can be kept by setting its entry to null first. Null is
 * ignored. */
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
 * They return -EINVAL for a bad argument; -ENOENT when `app` is not registered in this process; -EPERM in a child. */

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
 * may be null when `max` is 0. Returns their number, which may be more than `max`. */
int zeb_online_nodes(uint32_t app, uint32_t peer, uint32_t *nodes, int max);

/* Waits until servers of `peer` are online: on `node` (a node id or ZEB_NODE_LOCAL; `count` must be 1), or, with
 * ZEB_NODE_ALL, on `count` nodes (1..65536) at least.
 *
 * milliseconds  how long to wait at most; 0 waits without limit
 *
 * Any number of threads may wait. Nothing is online before zeb_run. A callback of an application with a thread may
 * wait, which delays its next callbacks. Returns 0; -ETIMEDOUT; -EDEADLK, without a wait, on the receive thread, that
 * is in a callback of an application without a thread: nobody can come online while it waits. */
int zeb_wait_online(uint32_t app, uint32_t peer, uint32_t node, uint32_t count, uint32_t milliseconds);

/* Calls without a blocked thread. zeb_rpc_async asks the same instances as zeb_rpc and zeb_rpcto, by the same bytes,
 * and gathers the same outcomes; but it returns when the requests are written, and a function of the caller's is called
 * with the outcomes. Any number of calls may be in progress, as far as memory goes: about 1 KiB each, and the replies.
 */

/* Is given the outcomes of a call: once for each call that zeb_rpc_async took, unless that is cancelled. It runs on the
 * application's own thread in turn with its other callbacks, or on the receive thread when the application has none; it
 * must not block there. No lock of the library is held. The functions of one application run one at a time, in the
 * order in which its calls were completed. It may make calls, this one too, and cancel others. It may run before
 * zeb_rpc_async returns.
 *
 * call     the number that zeb_rpc_async gave
 * replies  one message for each instance, as in the buffer of zeb_rpc: replies in the order of their arrival, then
 *          time-outs in the order of asking. The library owns it and frees it afterwards with the messages that are
 *          still in it. To keep a message, set its entry to null; it is then the function's, and released with free()
 *          or zeb_msg_free()
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
 * - done: not null; see above
 * - context: handed to `done`; the library does not look at it
 * - call: may be null. Gets the number of the call, not 0, before `done` can be called; after an error 0
 *
 * Waits for no credit and no reply; writing a request waits while TIPC is congested. Returns 0, and `done` is called;
 * or an error, and it is not: -EINVAL for a bad argument; -ENOENT when no server is online or `src_app` is not
 * registered; -ENOBUFS past 64 instances; -1 when the process has no descriptor left for the first such call; -EPERM in
 * a child. */
int zeb_rpc_async(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags,
                  uint32_t milliseconds, zeb_call_done_fun_t done, void *context, uint32_t *call);

/* Ends a call of `src_app` without its function. Returns
 *
 * - 0: the function has not been called and will not be; the outcomes are freed
 * - -EALREADY: it has been called and has returned, or there was no such call. If another thread was running it, this
 *   waited for its return: the caller must not hold a lock that the function takes
 * - -EINPROGRESS: it is running and this does not wait, because it is called from that function itself, or on the
 *   receive thread
 * - -EINVAL for a bad id; -ENOENT when `src_app` is not registered; -EPERM in a child
 *
 * After 0 and -EALREADY the context is the caller's again. Requests that were written are not taken back. */
int zeb_rpc_cancel(uint32_t src_app, uint32_t call);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
