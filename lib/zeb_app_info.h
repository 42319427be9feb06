// Application records: socket, queue, proxy thread, dispatch by version.
// The receive thread queues messages and events, and the application's proxy thread takes them off and runs the
// callbacks; a thread of the program does so for a polled application. For an application with neither the receive
// thread dispatches each item at once. A queued item is dispatched exactly once, by the thread that takes it off.
// Nobody takes one off while the library stops.
#ifndef ZEB_APP_INFO_H
#define ZEB_APP_INFO_H

#include <atomic>
#include <pthread.h>

#include <zeb/zeb_ext.h>

#include "zeb_flow_ctrl.h"
#include "zeb_inst.h"
#include "zeb_lock.h"
#include "zeb_mc.h"
#include "zeb_slot.h"

// What an application is registered with.
typedef struct zeb_app_spec_s {
    uint32_t app;
    const char *name;
    zeb_app_mode_t mode;
    int dispatcher_num;
    const zeb_msg_dispatcher_t *dispatcher; // with `options` its functions are for listings alone
    zeb_app_event_fun_t event;              // likewise
    const zeb_app_options_t *options;       // null for an application whose callbacks get no context
} zeb_app_spec_t;

typedef struct zeb_app_info_s {
    uint32_t app_id;
    int sd;       // TIPC socket
    zeb_fc_t *fc; // set at registration
    int priority;
    char name[ZEB_APP_NAME_LEN];
    bool with_proxy_thread;
    pthread_t tid;                 // valid with with_proxy_thread
    zeb_cond_t msg_cond;           // signalled when an item is queued, after the mutex is released
    int ready_fd;                  // of a polled application: an eventfd, readable while items are queued; else -1
    std::atomic<bool> dispatching; // a thread is inside zeb_dispatch
    bool signal_due;               // items are queued without a signal; only the receive thread uses it
    bool shared_name;              // it was told that another process has the name; only the receive thread uses it
    // Guards msg_list and mc. No other lock of the library is taken and no callback runs under it.
    zeb_mutex_t mutex;
    zeb_app_event_fun_t event_fun;                   // may be null
    zeb_msg_dispatcher_t *dispatcher;                // own copy, ended by ver 0
    bool with_context;                               // `options` has the callbacks; the two above are for listings
    zeb_app_options_t options;                       // `dispatchers` is an own copy, row by row that of `dispatcher`
    struct list_head msg_list ZEB_GUARDED_BY(mutex); // zeb_msg_t: messages, event records and tasks
    uint32_t queue_num ZEB_GUARDED_BY(mutex);        // length of msg_list
    bool ready ZEB_GUARDED_BY(mutex);                // ready_fd is readable
    bool queue_told ZEB_GUARDED_BY(mutex);           // the queue has passed options.queue_notice since it was empty
    zeb_mc_t mc;                                     // private groups, guarded by `mutex`
} zeb_app_info_t;

// Creates the record of an application with its socket and, if its mode is that, its proxy thread. Null on failure; no
// part of it remains.
zeb_app_info_t *zeb_add_app_info(const zeb_app_spec_t *spec);

// Undoes zeb_add_app_info, and frees what is queued and the groups; null is ignored.
void zeb_del_app_info(zeb_app_info_t *app_info);

// For a polled application: runs the callbacks of up to `max` queued items in this thread, and returns their number.
int zeb_dispatch_queue(zeb_app_info_t *app_info, int max);

// Waits for the end of the callback in progress and of the thread. The gate is closed.
void zeb_end_proxy_thread(zeb_app_info_t *app_info);

// The record of a local application; null when it is not registered here.
static inline zeb_app_info_t *zeb_get_app_info(uint32_t app)
{
    zeb_app_mng_t *slot = zeb_get_app_mng(app);
    return slot == nullptr ? nullptr : slot->info;
}

// Queues a message, or dispatches it at once for an application without a queue. Takes ownership of the message.
void zeb_enqueue_msg_dist(zeb_msg_t *msg, zeb_app_info_t *app_info);

// Small one-way messages come in streams, so a proxy thread woken once may take many.
constexpr uint32_t ZEB_STREAMED_LEN_MAX = 4096; // larger messages are better dispatched while they are in the cache

static inline bool zeb_comes_in_streams(const zeb_msg_t *msg)
{
    return msg->hdr.flag == 0 && msg->hdr.len <= ZEB_STREAMED_LEN_MAX;
}

// For the receive thread while it may have more to read: the first queues a message without waking the proxy thread,
// the second wakes it. The receive thread must call the second before anything that may take long.
void zeb_queue_msg(zeb_msg_t *msg, zeb_app_info_t *app_info);
void zeb_signal_queued(zeb_app_info_t *app_info);

// Queues an event record, or dispatches it at once for an application without a queue. Returns -1 without a record or
// an event callback; the caller then keeps the message. Must not be called under a lock.
int zeb_enqueue_event_msg(uint32_t app, zeb_msg_t *msg);

// True when a thread other than the receive thread runs the callbacks: the proxy thread, or one of the program.
static inline bool zeb_has_queue(const zeb_app_info_t *app_info)
{
    return app_info->with_proxy_thread || app_info->ready_fd != -1;
}

// Has the thread that dispatches call `fun(app_info)` in its turn. The application must have a queue. Any thread,
// perhaps with g_lib_mutex held: so the application is not told here that the queue is long.
typedef void (*zeb_app_task_t)(zeb_app_info_t *app_info);
void zeb_enqueue_task(zeb_app_info_t *app_info, zeb_app_task_t fun);

// Another process has the name of `inst`. True, the first time, when that is an application of this process.
bool zeb_take_shared_name(zeb_inst_t inst);

void zeb_dispatch_app_msg(zeb_app_info_t *app_info, zeb_msg_t *msg);
bool zeb_run_dispatcher(const zeb_app_info_t *app_info, zeb_msg_t *msg); // false: none for its version; msg is kept
zeb_msg_dispatcher_fun_t zeb_get_dispatch_fun(const zeb_app_info_t *app_info, uint32_t ver);
zeb_mismatch_info_t zeb_get_app_ver_range(const zeb_app_info_t *app_info);
bool zeb_is_app_server(uint32_t app);

// Drop and count the queued items of one peer instance.
void zeb_discard_app_msg(uint32_t recv_app, zeb_inst_t src);
int zeb_unprocess_app_msg_num(uint32_t recv_app, zeb_inst_t src);

// A new event record for `my_app` about an instance.
zeb_msg_t *zeb_new_event_msg(uint32_t my_app, zeb_event_type_t type, zeb_inst_t inst);

#endif
