// The RPC wait table: per application, the calls in progress and the instances that have not replied yet; and the
// replies that the library itself sends. Callers wait in their own threads. The receive thread stores replies and ends
// waits when an instance quits. An entry holds the code of its instance until the reply, a failed write, a quit or a
// time-out completes it, and 0 from then on. It is completed exactly once, and this stores exactly one message. For a
// call that no thread waits for (lib/zeb_rpc_async.h) the record moves to `done_list` with its last entry.
#ifndef ZEB_RPC_H
#define ZEB_RPC_H

#include <cstdint>
#include <pthread.h>
#include <sys/types.h>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_inst.h"
#include "zeb_lock.h"
#include "zeb_slot.h"

typedef struct zeb_app_rpc_wait_s {
    uint32_t app_id;
    // Broadcast when a reply or a substitute for a failed request is stored, and when a server quits, even if no call
    // waits for it.
    zeb_cond_t wait_cond;
    // Guards the list, every record on it and the reply buffers they point to. No other lock of the library is taken
    // under it.
    zeb_mutex_t mutex;
    indexed_list<struct zeb_rpc_wait_s> wait_list ZEB_GUARDED_BY(mutex); // by sequence number
    indexed_list<struct zeb_rpc_wait_s> done_list ZEB_GUARDED_BY(mutex); // calls whose function is not called yet
    uint32_t running_seq ZEB_GUARDED_BY(mutex);                          // the call whose function runs; 0: none
    pthread_t running_thread ZEB_GUARDED_BY(mutex);                      // valid with running_seq
    int cancel_num ZEB_GUARDED_BY(mutex); // threads that wait on wait_cond for the function to return
} zeb_app_rpc_wait_t;

// Called once for each record that has moved to done_list, without a lock but perhaps g_lib_mutex.
typedef void (*zeb_rpc_done_t)(zeb_app_rpc_wait_t *rpc);

typedef struct zeb_rpc_wait_s {
    struct list_head list; // in wait_list
    list_index_link_t index_link;
    uint32_t seq;
    uint32_t timeout;                      // seconds, 0: no limit
    pid_t caller;                          // the waiting thread; 0 in builds without ZEB_INVARIANTS
    int inst_num;                          // entries in use
    uint32_t wait_inst[ZEB_RPC_REPLY_NUM]; // application << 16 | node; 0 when completed
    zeb_reply_msg_t *reply;                // belongs to the caller
    zeb_rpc_done_t done;                   // null when a thread waits for the call
} zeb_rpc_wait_t;

zeb_app_rpc_wait_t *zeb_add_app_rpc_wait(uint32_t app); // null on failure
void zeb_del_app_rpc_wait(zeb_app_rpc_wait_t *rpc);     // null is ignored

// The record of a local application; null when it is not registered here.
static inline zeb_app_rpc_wait_t *zeb_get_app_rpc(uint32_t app)
{
    zeb_app_mng_t *slot = zeb_get_app_mng(app);
    return slot == nullptr ? nullptr : slot->rpc;
}

// For callers. zeb_rpc_prepare_wait opens a call by the id of the application (-ENOENT when it is not registered here);
// the others take the application's record.
int zeb_rpc_prepare_wait(uint32_t app, uint32_t seq, zeb_reply_msg_t *reply, uint32_t timeout);
zeb_rpc_wait_t *zeb_get_rpc_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq); // null when there is no such call
int zeb_rpc_set_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq, zeb_inst_t dst);
void zeb_rpc_del_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq);
int zeb_rpc_wait_reply(zeb_app_rpc_wait_t *rpc, uint32_t seq); // -ESHUTDOWN, without replies, when the library stops
void zeb_rpc_release(zeb_app_rpc_wait_t *rpc);                 // wakes the callers for a stop; the gate is closed
int zeb_rpc_add_error_reply(zeb_app_rpc_wait_t *rpc, uint32_t seq, zeb_inst_t src, zeb_reply_stat_t status);
void zeb_rpc_print_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq);

// From now on nobody waits for the call, and `done` is called when its last entry is completed. Returns `done` when
// that is so already: the caller calls it once it has released the lock. Else null.
zeb_rpc_done_t __zeb_rpc_leave_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq, zeb_rpc_done_t done)
    ZEB_REQUIRES(rpc->mutex);

// The code of entry `index`: 0 when it is completed, -ENOENT past the last entry or when there is no such call.
int64_t zeb_rpc_wait_inst(zeb_app_rpc_wait_t *rpc, uint32_t seq, int index);

// For the receive thread.
int zeb_rpc_add_reply(zeb_msg_t *msg); // 0: takes the message; -ENOENT: the caller keeps it
int zeb_terminate_rpc(uint32_t app, zeb_inst_t src);
void zeb_rpc_time_out(zeb_app_rpc_wait_t *rpc,
                      uint32_t seq); // a call that no thread waits for; ignored when it is done
void zeb_reply_msg_free(zeb_reply_msg_t *reply);

// Does what zeb_rpc_reply does, for the threads of the library.
int zeb_rpc_answer(const zeb_msg_t *src_msg, zeb_msg_t *reply_msg, int flags);

// Replies of the library itself. Return the result of the send primitive.
int zeb_rpc_reply_error(const zeb_msg_t *request, zeb_reply_stat_t status);
int zeb_rpc_reply_app_mismatch(const zeb_msg_t *request, const zeb_mismatch_info_t *info);

static inline bool zeb_is_rpc_request(const zeb_msg_t *msg)
{
    return (msg->hdr.flag & (ZEB_MSG_FLAG_REQUEST | ZEB_MSG_FLAG_ACK)) == ZEB_MSG_FLAG_REQUEST;
}

static inline bool zeb_is_rpc_reply(const zeb_msg_t *msg)
{
    constexpr uint8_t reply = ZEB_MSG_FLAG_REQUEST | ZEB_MSG_FLAG_ACK;
    return (msg->hdr.flag & reply) == reply;
}

#endif
