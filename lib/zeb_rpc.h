// The RPC wait table: per application, the calls in progress and the instances that still owe an answer; and the
// answers that the library itself originates. Callers wait in their own threads; the receive thread files answers and
// ends waits on quit. Each place goes from its instance's code to 0 exactly once, by whoever settles it, and each
// settlement files exactly one message.
#ifndef ZEB_RPC_H
#define ZEB_RPC_H

#include <cstdint>
#include <sys/types.h>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_inst.h"
#include "zeb_lock.h"
#include "zeb_slot.h"

typedef struct zeb_app_rpc_wait_s {
    uint32_t app_id;
    zeb_cond_t wait_cond; // broadcast on every filing
    // Guards the list, every record on it and the reply buffers they point at. Nothing of ours is taken under it.
    zeb_mutex_t mutex;
    indexed_list<struct zeb_rpc_wait_s> wait_list ZEB_GUARDED_BY(mutex); // by sequence number
} zeb_app_rpc_wait_t;

typedef struct zeb_rpc_wait_s {
    struct list_head list; // in wait_list
    list_index_link_t index_link;
    uint32_t seq;
    uint32_t timeout;                      // seconds, 0: no limit
    pid_t caller;                          // the waiting thread; 0 in builds that check no invariants
    int inst_num;                          // places in use
    uint32_t wait_inst[ZEB_RPC_REPLY_NUM]; // application << 16 | node; 0 once settled
    zeb_reply_msg_t *reply;                // the caller's
} zeb_rpc_wait_t;

zeb_app_rpc_wait_t *zeb_add_app_rpc_wait(uint32_t app); // null on failure
void zeb_del_app_rpc_wait(zeb_app_rpc_wait_t *rpc);     // null is ignored

// The record of a local application; null when it is not registered here.
static inline zeb_app_rpc_wait_t *zeb_get_app_rpc(uint32_t app)
{
    zeb_app_mng_t *slot = zeb_get_app_mng(app);
    return slot == nullptr ? nullptr : slot->rpc;
}

// The caller's side: a call is opened by the application's id (-ENOENT when it is not registered here), and what
// follows takes the application's record.
int zeb_rpc_prepare_wait(uint32_t app, uint32_t seq, zeb_reply_msg_t *reply, uint32_t timeout);
zeb_rpc_wait_t *zeb_get_rpc_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq); // null without the call
int zeb_rpc_set_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq, zeb_inst_t dst);
void zeb_rpc_del_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq);
int zeb_rpc_wait_reply(zeb_app_rpc_wait_t *rpc, uint32_t seq);
int zeb_rpc_add_error_reply(zeb_app_rpc_wait_t *rpc, uint32_t seq, zeb_inst_t src, zeb_reply_stat_t status);
void zeb_rpc_print_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq);

// The code at place `index`: 0 when it is settled already, -ENOENT past the last place or without the call.
int64_t zeb_rpc_wait_inst(zeb_app_rpc_wait_t *rpc, uint32_t seq, int index);

// The receive thread's side.
int zeb_rpc_add_reply(zeb_msg_t *msg); // 0: the message is filed; -ENOENT: it stays the caller's
int zeb_terminate_rpc(uint32_t app, zeb_inst_t src);
void zeb_reply_msg_free(zeb_reply_msg_t *reply);

// What zeb_rpc_reply does, for the library's own threads.
int zeb_rpc_answer(const zeb_msg_t *src_msg, zeb_msg_t *reply_msg, int flags);

// Answers of the library itself. The result of the send primitive.
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
