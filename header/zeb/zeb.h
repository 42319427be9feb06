/* ZEB: messages between the application processes of a multi-node device, over Linux TIPC.
 *
 * A process registers its application ids, says whom it talks to, calls zeb_run, and from then on addresses other
 * applications by id and node. Results are 0 (or a count or an id) on success and a negative errno value otherwise:
 *   -EINVAL  a bad argument              -ENOENT  not registered, or no online server
 *   -EAGAIN  would block, or a part of the application could not be created
 *   -EEXIST  already registered          -ENOBUFS a fixed table is full
 *   -1       a socket or system call failed
 *   -EPERM   called in a child process, see below; the same number as -1
 *
 * Threads. Every call may be made from any thread unless it says otherwise, and none may be made from a signal handler.
 *
 * Processes. The library belongs to the process that registered first. In a child that this forks later, every call
 * that needs the library's sockets or locks does nothing and fails with -EPERM: registering, running, sending, calling,
 * answering, groups, listings. Building and freeing messages, elements (zeb_tlv.h) and the configuration queries go on
 * working. Every descriptor of the library is closed by exec, after which the child may start a library of its own, as
 * may a child that was forked before the first registration. Signals do no harm: no call fails or returns early because
 * of one.
 *
 * Callbacks of an application registered with zeb_register run on that application's own thread, one at a time; those
 * of one registered with zeb_register_without_thread run on the library's receive thread and must not block. No
 * callback runs while the library holds a lock. */
#ifndef ZEB_H
#define ZEB_H

#include <zeb/zeb_msg.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Bits of the `flags` argument of the sending calls. */
#define ZEB_SEND_NOWAIT 0x01       /* flow control does not wait (-EAGAIN), and the write does not wait; nothing else */
#define ZEB_SEND_EXCLUDE_SELF 0x04 /* sending to one's own application id: leave this node's instance out */

#define ZEB_APP_NAME_LEN 32  /* a longer name is cut to 31 characters */
#define ZEB_RPC_REPLY_NUM 64 /* instances that one call can reach */

/* Type of an event. */
typedef enum zeb_event_type_e {
    ZEB_APP_JOIN = 0, /* a server instance of a peer application is online */
    ZEB_APP_QUIT = 1, /* it is gone */
    ZEB_EVENT_TYPE_NUM = 2
} zeb_event_type_t;

typedef struct zeb_event_s {
    uint32_t my_app; /* the local application that is told */
    uint32_t type;   /* zeb_event_type_t */
    union {
        struct {
            uint32_t node; /* 0..65535 */
            uint32_t app;  /* application id */
        } app;             /* the peer instance */
    } event;
} zeb_event_t;

/* Event callback. The event is a copy; the result is ignored. */
typedef void *(*zeb_app_event_fun_t)(zeb_event_t event);

/* Message callback. The message belongs to the function, which releases it with free(). The result is ignored. */
typedef void *(*zeb_msg_dispatcher_fun_t)(zeb_msg_t *msg);

/* One row of a dispatcher table. The first row whose `ver` equals the message's app_ver gets it; versions match
 * exactly. A row with `ver` 0 or a null function ends the table. */
typedef struct zeb_msg_dispatcher_s {
    uint32_t ver;
    zeb_msg_dispatcher_fun_t fun;
} zeb_msg_dispatcher_t;

/* Registers application `app` (1..8191 or 16384..20479) in this process and gives it a thread of its own for its
 * callbacks. The first registration loads /etc/zeb.conf and the node id and starts the library.
 *
 * app_name    not null; copied, cut to 31 characters
 * dispatcher  not null; the table is copied. A table with only the end row makes a client: it can send but is never
 *             a destination
 * event       called when a peer server joins or quits; may be null
 *
 * Returns 0; -EINVAL for a bad id or a null name; -EEXIST when `app` is registered in this process already; -ENOBUFS
 * past 31 applications; -EAGAIN when a part of the application could not be created (nothing of it is left); -1 when
 * the node id is not known, the library is running already or could not be started. Blocks only for the library's lock.
 */
int zeb_register(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event);

/* As zeb_register, but the callbacks run on the library's receive thread: they delay everything else that this process
 * receives, and must not block. */
int zeb_register_without_thread(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher,
                                zeb_app_event_fun_t event);

/* Returns 0, or -EINVAL for a bad id. The application stays registered until the process ends. */
int zeb_unregister(uint32_t app);

/* Ends registration and lets the library receive: about one second later the applications of this process are visible
 * to their peers. May be called again harmlessly. */
void zeb_run(void);

/* The same as zeb_run; `app` is ignored. Returns 0. */
int zeb_app_ready(uint32_t app);

/* Says that the local application `src_app` talks to `dst_app`; both sides of a pair must say so before they call
 * zeb_run. An application talks to its own id from its registration on. Returns 0; -EINVAL for a bad id; -ENOENT when
 * `src_app` is not registered in this process. */
int zeb_comm_with(uint32_t src_app, uint32_t dst_app);

/* Switches on and off whether a peer that this process has kept blocked for too long may ask it to end itself. Call
 * them after the first registration, which resets the switch to off. */
void zeb_enable_blocked_resume(void);
void zeb_disable_blocked_resume(void);

/* True when the switch is on and the configuration file allows it (zeb_blocked_resume_enabled=true). */
bool zeb_blocked_resume_enabled(void);

/* Sends `msg` to every online server instance of `dst_app`, on every node.
 *
 * src_app  a registered application of this process
 * dst_app  an application id or an application-private group; 0 means src_app itself
 * msg      made with zeb_msg_alloc, not null. It stays the caller's whatever the result; its header is overwritten
 * flags    ZEB_SEND_... or 0
 *
 * Blocks while an instance of a destination application has more than 1024 messages of `src_app` that it has not
 * acknowledged as processed, and while TIPC is congested. With ZEB_SEND_NOWAIT these two waits do not happen: a socket
 * that is full is an instance that could not be written to. It may still wait a short time for a lock of the library,
 * and for memory. Returns 0 when it was handed to TIPC for every instance; -EINVAL;
 * -ENOENT when there is no online server; -EAGAIN where it would block, with ZEB_SEND_NOWAIT (nothing was sent to
 * anybody); -1 when at least one instance could not be written to (the others were). */
int zeb_send(uint32_t src_app, uint32_t dst_app, zeb_msg_t *msg, int flags);

/* As zeb_send, to the instances on `dst_node` alone: a node id 0..65535, ZEB_NODE_LOCAL, ZEB_NODE_ALL or a node-private
 * group. Any other node is -EINVAL. */
int zeb_sendto(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags);

/* What a call gathered. Each message's header tells who (src_app, src_node) and how it ended (rpc_stat). */
typedef struct zeb_reply_msg_s {
    int num; /* messages filed, in the order of their arrival */
    zeb_msg_t *msg[ZEB_RPC_REPLY_NUM];
} zeb_reply_msg_t;

/* Sends the request `msg` to every online server instance of `dst_app` and blocks until each has answered, failed, quit
 * or run out of time.
 *
 * src_app  a registered application of this process
 * dst_app  an application id. 0 and groups are for zeb_rpcto: here the request would go to that number itself
 * msg      the request, not null; it stays the caller's and its header is overwritten
 * flags    ZEB_SEND_EXCLUDE_SELF or 0
 * timeout  seconds that may pass without any answer to a call of `src_app`; 0 waits without limit
 * ret_buf  not null; cleared at entry. On return its messages are the caller's, each released with free()
 *
 * Each outcome is the rpc_stat of one message in `ret_buf`:
 *
 * - ZEB_SUCCESS, with the server's body
 * - ZEB_APP_MISMATCH, no dispatcher for the request's version; body zeb_mismatch_info_t in the server's byte order
 * - ZEB_APP_UNAVAIL, the server does not know this instance (yet)
 * - ZEB_SYSTEM_ERR, not written, answered without a body, or quit
 * - ZEB_TIMEOUT, no answer in time
 *
 * Requests pass no flow control; their writes wait while TIPC is congested. Several calls may be in progress at once,
 * each with a message and a buffer of its own.
 *
 * Returns 0 when every instance has an outcome in `ret_buf`; -EINVAL; -ENOENT without an online server; -ENOBUFS past
 * 64 instances; another non-zero value when the call failed, with `ret_buf` empty. A dispatcher may call it, but one of
 * an application without a thread blocks the thread that files the answers: only a time-out ends such a call. */
int zeb_rpc(uint32_t src_app, uint32_t dst_app, zeb_msg_t *msg, int flags, uint32_t timeout, zeb_reply_msg_t *ret_buf);

/* As zeb_rpc, to the instances on `dst_node` alone: a node id 0..65535, ZEB_NODE_LOCAL or a node-private group, and
 * `dst_app` may also be an application-private group or 0 for src_app itself. ZEB_NODE_ALL is zeb_rpc. Any other node
 * is -EINVAL. */
int zeb_rpcto(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags, uint32_t timeout,
              zeb_reply_msg_t *ret_buf);

/* Answers the request `src_msg`, as the dispatcher received it, with `reply_msg`; null answers ZEB_SYSTEM_ERR. Both
 * messages stay the caller's; the header of `reply_msg` is overwritten. The dispatcher may keep the request and answer
 * later, from any thread. `flags` is reserved: pass 0. Waits while TIPC is congested. Returns 0; -EINVAL when `src_msg`
 * is null or no request; -1 when the answer could not be written. The caller takes the first answer of an instance;
 * later ones are dropped there.
 */
int zeb_rpc_reply(const zeb_msg_t *src_msg, zeb_msg_t *reply_msg, int flags);

/* Application-private groups: up to 128 lists of up to 16 application ids, and node-private groups: as many of up to 64
 * node ids. They belong to `src_app`, a registered application of this process, and last until they are destroyed. A
 * group id stands for its members in the destination of the sending calls, each of which works on a copy: a change
 * while it runs is seen by the next. The calls take the lock of the application's record, for a short time.
 *
 * mc_app, mc_node    a group's id, as the creation returned it
 * new_app, new_node  the member, 1..8191 or 16384..20479, or a node 0..65535. Adding one that is there already succeeds
 * del_app, del_node  the member; one that is not there is no error
 *
 * Creations return the new id, additions 0, or -ENOENT when `src_app` is not registered here or has no such group,
 * -ENOBUFS when there are 128 groups or no free place, -EINVAL for a member out of range. The others return nothing:
 * an unknown application or group is an ERROR line alone. */
int zeb_create_app_mcast(uint32_t src_app); /* 12288..16383 */
int zeb_add_app_mcast(uint32_t src_app, uint32_t mc_app, uint32_t new_app);
void zeb_del_app_mcast(uint32_t src_app, uint32_t mc_app, uint32_t del_app);
void zeb_destroy_app_mcast(uint32_t src_app, uint32_t mc_app);
int zeb_create_node_mcast(uint32_t src_app); /* 0x80000..0x8FFFF */
int zeb_add_node_mcast(uint32_t src_app, uint32_t mc_node, uint32_t new_node);
void zeb_del_node_mcast(uint32_t src_app, uint32_t mc_node, uint32_t del_node);
void zeb_destroy_node_mcast(uint32_t src_app, uint32_t mc_node);

/* The configuration calls read their file when they are called, without a lock. */

/* Loads the configuration: the debug and log masks once per process, the node id until it is known. zeb_register calls
 * it. Returns 0, or -1 when the node id cannot be had. */
int zeb_cfg_init(void);

/* This node's id 0..65535, or -1 while the platform has not written a valid one. Once known it is not read again. */
int zeb_get_my_node_id(void);

/* The priority (TIPC importance) that the configuration file gives `app` (an application id), or 0. */
int zeb_get_app_priority(uint32_t app);

/* The members of the multicast entry `app_mc` of the configuration file: all 16 places are copied into `mbrs`, the
 * caller's, and the number in use is returned. 0, with `mbrs` untouched, when there is no such entry. */
int zeb_get_app_mc_members(uint32_t app_mc, uint32_t mbrs[16]);

/* True when the configuration file has zeb_blocked_resume_enabled=true. */
bool zeb_cfg_get_blocked_resume_enabled(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
