/* ZEB: messages between the application processes of a multi-node device, over Linux TIPC.
 *
 * A process registers its application ids, declares which applications they talk to, and calls zeb_run. From then on it
 * addresses other applications by id and node. A call returns 0, a count or an id on success and a negative errno value
 * on failure:
 *   -EINVAL  a bad argument              -ENOENT  not registered, or no online server
 *   -EAGAIN  would block, or a part of the application could not be created
 *   -EEXIST  already registered          -ENOBUFS a fixed table is full
 *   -1       a socket or system call failed
 *   -EPERM   called in a child process, see below; the same number as -1
 *
 * Threads. Any thread may make any call unless the call says otherwise. No call may be made from a signal handler.
 *
 * Processes. The library belongs to the process that made the first registration. In a child that this process forks
 * later, every call that needs the library's sockets or locks does nothing and fails with -EPERM: registering, running,
 * sending, RPC calls and replies, groups, listings. The child can still build and free messages and elements
 * (zeb_tlv.h) and query the configuration. exec closes every descriptor of the library, and the child may then start a
 * library of its own. A child that was forked before the first registration may do so at once. Signals do no harm: no
 * call fails or returns early because of a signal.
 *
 * Callbacks. The callbacks of an application registered with zeb_register run on that application's own thread, one at
 * a time. The callbacks of an application registered with zeb_register_without_thread run on the library's receive
 * thread and must not block. The library holds no lock while a callback runs. */
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
#define ZEB_SEND_NOWAIT 0x01       /* do not wait for flow control (-EAGAIN) or in the write; no other effect */
#define ZEB_SEND_EXCLUDE_SELF 0x04 /* for the sender's own application id: skip this node's instance */

#define ZEB_APP_NAME_LEN 32  /* bytes of a name; a longer one is cut to 31 characters */
#define ZEB_RPC_REPLY_NUM 64 /* instances that one call can reach */

/* Type of an event. */
typedef enum zeb_event_type_e {
    ZEB_APP_JOIN = 0, /* a server instance of a peer application is online */
    ZEB_APP_QUIT = 1, /* it is no longer online */
    ZEB_EVENT_TYPE_NUM = 2
} zeb_event_type_t;

typedef struct zeb_event_s {
    uint32_t my_app; /* the local application that is notified */
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

/* Message callback. The function owns the message and releases it with free(). The result is ignored. */
typedef void *(*zeb_msg_dispatcher_fun_t)(zeb_msg_t *msg);

/* One row of a dispatcher table. A message is dispatched to the first row whose `ver` equals its app_ver; versions
 * match exactly. A row with `ver` 0 or a null function ends the table. */
typedef struct zeb_msg_dispatcher_s {
    uint32_t ver;
    zeb_msg_dispatcher_fun_t fun;
} zeb_msg_dispatcher_t;

/* Registers application `app` (1..8191 or 16384..20479) in this process and creates a thread for its callbacks. The
 * first registration loads /etc/zeb.conf and the node id and starts the library.
 *
 * app_name    not null; copied, cut to 31 characters
 * dispatcher  not null; the table is copied. A table with only the end row makes a client: it can send but is never
 *             a destination
 * event       called when a peer server joins or quits; may be null. Where several applications of a process name one
 *             peer, one of them gets the join, one of them, perhaps another, gets the quit, and of one alone the calls
 * to the peer end with it. The option every_subscriber of zeb_ext.h gives an application all of it
 *
 * Returns 0; -EINVAL for a bad id or a null name or dispatcher; -EEXIST when `app` is already registered in this
 * process; -ENOBUFS past 31 applications; -EAGAIN when a part of the application could not be created (no part of it
 * remains); -1 when the node id is unknown, or the library is already running or could not be started. Waits only for
 * the library's lock. */
int zeb_register(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event);

/* As zeb_register, but the callbacks run on the library's receive thread. They must not block: while one runs, this
 * process receives nothing else. */
int zeb_register_without_thread(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher,
                                zeb_app_event_fun_t event);

/* Does not end the registration: the application stays registered until zeb_stop (zeb_ext.h) or the process's end.
 * Returns 0, or -EINVAL for a bad id. */
int zeb_unregister(uint32_t app);

/* Ends registration and starts reception: about one second later the peers see the applications of this process. It may
 * be called again without effect. */
void zeb_run(void);

/* The same as zeb_run; `app` is ignored. Returns 0. */
int zeb_app_ready(uint32_t app);

/* Declares that the local application `src_app` talks to `dst_app`. Both sides of a pair must declare it before they
 * call zeb_run. An application talks to its own id from its registration on. Returns 0; -EINVAL for a bad id; -ENOENT
 * when `src_app` is not registered in this process. */
int zeb_comm_with(uint32_t src_app, uint32_t dst_app);

/* Allow and forbid an abort of this process at the request of a peer that it has blocked for too long. Call them after
 * the first registration, which forbids it. */
void zeb_enable_blocked_resume(void);
void zeb_disable_blocked_resume(void);

/* True when zeb_enable_blocked_resume is in effect and the configuration file has zeb_blocked_resume_enabled=true. */
bool zeb_blocked_resume_enabled(void);

/* Sends `msg` to every online server instance of `dst_app`, on every node.
 *
 * src_app  a registered application of this process
 * dst_app  an application id or an application-private group; 0 stands for src_app
 * msg      made with zeb_msg_alloc, not null. The caller keeps it whatever the result; its header is overwritten
 * flags    ZEB_SEND_... or 0
 *
 * Waits while an instance of a destination application has more than 1024 messages of `src_app` that it has not
 * acknowledged as processed, and while TIPC is congested. With ZEB_SEND_NOWAIT it does not wait for either, and an
 * instance whose socket is full counts as one that could not be written to. It may still wait briefly for a lock of the
 * library, and for memory.
 *
 * Returns 0 when the message was handed to TIPC for every instance; -EINVAL for a bad argument; -ENOENT when no server
 * is online; -EAGAIN with ZEB_SEND_NOWAIT when flow control would wait (nothing was sent to any instance); -1 when at
 * least one instance could not be written to (the others were). */
int zeb_send(uint32_t src_app, uint32_t dst_app, zeb_msg_t *msg, int flags);

/* As zeb_send, but only to the instances on `dst_node`: a node id 0..65535, ZEB_NODE_LOCAL, ZEB_NODE_ALL or a
 * node-private group. Any other node is -EINVAL. */
int zeb_sendto(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags);

/* The replies to one call. The header of each message gives the instance (src_app, src_node) and the outcome
 * (rpc_stat). */
typedef struct zeb_reply_msg_s {
    int num; /* messages stored, in the order of their arrival */
    zeb_msg_t *msg[ZEB_RPC_REPLY_NUM];
} zeb_reply_msg_t;

/* Sends the request `msg` to every online server instance of `dst_app` and blocks until each has replied, failed, quit
 * or timed out.
 *
 * src_app  a registered application of this process
 * dst_app  an application id. For 0 and groups use zeb_rpcto: here the request would go to that number itself
 * msg      the request, not null. The caller keeps it; its header is overwritten
 * flags    ZEB_SEND_EXCLUDE_SELF or 0
 * timeout  limit in seconds; 0 waits without limit. It restarts whenever a caller of `src_app` is woken: by a reply, a
 *          failed request or a server's quit, also in another call
 * ret_buf  not null; cleared at entry. On return the caller owns its messages and releases each with free()
 *
 * Each outcome is the rpc_stat of one message in `ret_buf`:
 *
 * - ZEB_SUCCESS, with the server's body
 * - ZEB_APP_MISMATCH, no dispatcher for the request's version; body zeb_mismatch_info_t in the server's byte order
 * - ZEB_APP_UNAVAIL, the server does not know this instance (yet)
 * - ZEB_SYSTEM_ERR, the request was not written, the server replied with null, or the instance quit
 * - ZEB_TIMEOUT, no reply in time
 *
 * Requests bypass flow control; writing one waits while TIPC is congested. Several calls may be in progress at once,
 * each with its own message and buffer.
 *
 * Returns 0 when every instance has an outcome in `ret_buf`; -EINVAL for a bad argument; -ENOENT when no server is
 * online; -ENOBUFS past 64 instances; another non-zero value when the call failed, with `ret_buf` empty. A dispatcher
 * may make this call. But a dispatcher of an application without a thread blocks the thread that stores the replies, so
 * only a time-out ends its call. */
int zeb_rpc(uint32_t src_app, uint32_t dst_app, zeb_msg_t *msg, int flags, uint32_t timeout, zeb_reply_msg_t *ret_buf);

/* As zeb_rpc, but only to the instances on `dst_node`: a node id 0..65535, ZEB_NODE_LOCAL or a node-private group.
 * `dst_app` may also be an application-private group, or 0 for src_app. ZEB_NODE_ALL is the same as zeb_rpc. Any other
 * node is -EINVAL. */
int zeb_rpcto(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, zeb_msg_t *msg, int flags, uint32_t timeout,
              zeb_reply_msg_t *ret_buf);

/* Replies with `reply_msg` to the request `src_msg`, as the dispatcher received it; a null `reply_msg` replies
 * ZEB_SYSTEM_ERR. The caller keeps both messages; the header of `reply_msg` is overwritten. The dispatcher may keep the
 * request and reply later, from any thread. `flags` is reserved: pass 0. Waits while TIPC is congested. Returns 0;
 * -EINVAL when `src_msg` is null or not a request; -1 when the reply could not be written. The calling side takes the
 * first reply of an instance and drops later ones. */
int zeb_rpc_reply(const zeb_msg_t *src_msg, zeb_msg_t *reply_msg, int flags);

/* Private groups. An application has up to 128 application-private groups, each a list of up to 16 application ids, and
 * up to 128 node-private groups, each a list of up to 64 node ids. A group belongs to `src_app`, a registered
 * application of this process, and exists until it is destroyed. As a destination of a sending call its id stands for
 * its members. The sending call works on a copy of the group: a change made meanwhile takes effect with the next call.
 * The calls below take the lock of the application's record, for a short time.
 *
 * mc_app, mc_node    a group's id, as the creation returned it
 * new_app, new_node  the member, 1..8191 or 16384..20479, or a node 0..65535. Adding a present member succeeds
 * del_app, del_node  the member; removing an absent member is no error
 *
 * A creation returns the new id, an addition 0. Both return -ENOENT when `src_app` is not registered here, an addition
 * also when it has no such group; -ENOBUFS when there are 128 groups or the group is full; -EINVAL for a member out of
 * range. The others return nothing; for an unknown application or group they only log an ERROR line. */
int zeb_create_app_mcast(uint32_t src_app); /* 12288..16383 */
int zeb_add_app_mcast(uint32_t src_app, uint32_t mc_app, uint32_t new_app);
void zeb_del_app_mcast(uint32_t src_app, uint32_t mc_app, uint32_t del_app);
void zeb_destroy_app_mcast(uint32_t src_app, uint32_t mc_app);
int zeb_create_node_mcast(uint32_t src_app); /* 0x80000..0x8FFFF */
int zeb_add_node_mcast(uint32_t src_app, uint32_t mc_node, uint32_t new_node);
void zeb_del_node_mcast(uint32_t src_app, uint32_t mc_node, uint32_t del_node);
void zeb_destroy_node_mcast(uint32_t src_app, uint32_t mc_node);

/* Each configuration call reads its file when it is called, without a lock. */

/* Loads the configuration: the debug and log masks once per process, the node id as long as it is unknown. zeb_register
 * calls it. Returns 0, or -1 when the node id is unknown. */
int zeb_cfg_init(void);

/* This node's id 0..65535, or -1 until the platform has written a valid one. A known id is not read again. */
int zeb_get_my_node_id(void);

/* The priority (TIPC importance) that the configuration file gives `app` (an application id), or 0. */
int zeb_get_app_priority(uint32_t app);

/* Copies the members of the multicast entry `app_mc` of the configuration file to `mbrs`, all 16 elements, and returns
 * the number in use. Returns 0 and leaves `mbrs` unchanged when there is no such entry. */
int zeb_get_app_mc_members(uint32_t app_mc, uint32_t mbrs[16]);

/* True when the configuration file has zeb_blocked_resume_enabled=true. */
bool zeb_cfg_get_blocked_resume_enabled(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
