// Application records: socket, queue, proxy thread, dispatch by version.
// The receive thread queues; the proxy thread of each application takes off and runs the callbacks, or the receive
// thread itself for an application without one. A queued item is delivered exactly once, by whoever takes it off.
#ifndef ZEB_APP_INFO_H
#define ZEB_APP_INFO_H

#include <pthread.h>

#include <zeb/zeb.h>

#include "zeb_flow_ctrl.h"
#include "zeb_inst.h"
#include "zeb_lock.h"
#include "zeb_mc.h"
#include "zeb_slot.h"

typedef struct zeb_app_info_s {
    uint32_t app_id;
    int sd;       // TIPC socket
    zeb_fc_t *fc; // set at registration
    int priority;
    char name[ZEB_APP_NAME_LEN];
    bool with_proxy_thread;
    pthread_t tid;       // valid with with_proxy_thread
    zeb_cond_t msg_cond; // signalled for queued items, after the mutex is released
    bool signal_due;     // items were queued without a signal; of the receive thread alone
    // Guards msg_list and mc. Nothing of ours is taken under it, and no callback runs under it.
    zeb_mutex_t mutex;
    zeb_app_event_fun_t event_fun;                   // may be null
    zeb_msg_dispatcher_t *dispatcher;                // own copy, ended by ver 0
    struct list_head msg_list ZEB_GUARDED_BY(mutex); // zeb_msg_t: messages and event records
    zeb_mc_t mc;                                     // private multicast groups, guarded by the same
} zeb_app_info_t;

// Makes the record of `app` with its socket and, with `thread`, its proxy thread. Null on failure, with nothing left.
zeb_app_info_t *zeb_add_app_info(uint32_t app, const char *app_name, bool thread, int dispatcher_num,
                                 const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event);

// Undoes zeb_add_app_info; null is ignored. Only for a record that the receive thread has not queued anything for.
void zeb_del_app_info(zeb_app_info_t *app_info);

// The record of a local application; null when it is not registered here.
static inline zeb_app_info_t *zeb_get_app_info(uint32_t app)
{
    zeb_app_mng_t *slot = zeb_get_app_mng(app);
    return slot == nullptr ? nullptr : slot->info;
}

// Queues a message, or delivers it at once without a proxy thread. Takes the message.
void zeb_enqueue_msg_dist(zeb_msg_t *msg, zeb_app_info_t *app_info);

// One-way messages that are not large come in streams: one woken thread may take many.
constexpr uint32_t ZEB_STREAMED_LEN_MAX = 4096; // larger ones are better taken up while they are in the cache

static inline bool zeb_comes_in_streams(const zeb_msg_t *msg)
{
    return msg->hdr.flag == 0 && msg->hdr.len <= ZEB_STREAMED_LEN_MAX;
}

// For the receive thread, while it may have more to read: queues a message for the proxy thread without waking it, and
// wakes it. Before anything that may take its time the second must follow the first.
void zeb_queue_msg(zeb_msg_t *msg, zeb_app_info_t *app_info);
void zeb_signal_queued(zeb_app_info_t *app_info);

// Queues an event record as zeb_enqueue_msg_dist does a message. -1 without record or callback: the caller keeps it.
// Not to be called under a lock.
int zeb_enqueue_event_msg(uint32_t app, zeb_msg_t *msg);

void zeb_dispatch_app_msg(zeb_app_info_t *app_info, zeb_msg_t *msg);
zeb_msg_dispatcher_fun_t zeb_get_dispatch_fun(const zeb_app_info_t *app_info, uint32_t ver);
zeb_mismatch_info_t zeb_get_app_ver_range(const zeb_app_info_t *app_info);
bool zeb_is_app_server(uint32_t app);

// Drops the queued items that came from one instance; counts them.
void zeb_discard_app_msg(uint32_t recv_app, zeb_inst_t src);
int zeb_unprocess_app_msg_num(uint32_t recv_app, zeb_inst_t src);

// A new event record for `my_app` about an instance.
zeb_msg_t *zeb_new_event_msg(uint32_t my_app, zeb_event_type_t type, zeb_inst_t inst);

#endif
