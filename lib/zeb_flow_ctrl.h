// Flow control per pair: the sender's window, the receiver's acknowledgements, the counters, and the diagnosis of a
// peer that blocks its senders. Sending threads enter zeb_fc_check and may wait there for credit. Dispatching threads
// count what they process and acknowledge it in batches. The receive thread applies acknowledgements, joins and quits,
// and wakes the waiting senders. Each application's record has one mutex. Peer records are created at first use and
// live as long as that record.
#ifndef ZEB_FLOW_CTRL_H
#define ZEB_FLOW_CTRL_H

#include <atomic>
#include <cstdint>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_inst.h"
#include "zeb_lock.h"
#include "zeb_slot.h"

constexpr int32_t ZEB_FC_SEND_WINDOW = 1024;      // messages; the 1025th unacknowledged message blocks the destination
constexpr uint32_t ZEB_FC_ACK_BATCH = 512;        // messages per acknowledgement, sent when more are due
constexpr unsigned ZEB_FC_WAIT_PERIOD = 300;      // seconds that a blocked sender waits per round
constexpr unsigned ZEB_FC_RELOAD_ROUND = 3;       // rounds after which the blocking peer is asked to abort
constexpr int ZEB_FC_UNKNOWN_NUM_MAX = 65536;     // receive records; past it, drops from new senders are not counted
constexpr uint32_t ZEB_FC_NODE_ANY = 0xFFFFFFFFu; // no single node is addressed

// What the application sent to one destination instance.
typedef struct zeb_send_app_fc_s {
    struct list_head list; // in send_list
    list_index_link_t index_link;
    zeb_inst_t dst;
    uint32_t send;             // messages sent
    int32_t unack;             // sent, not yet acknowledged
    uint32_t reject;           // sends refused or failed
    uint32_t rpc_reply_reject; // RPC replies that failed
    int64_t blocked_since;     // monotonic, nanoseconds; when it last went past its window
} zeb_send_app_fc_t;

// What the application received from one source instance.
typedef struct zeb_recv_app_fc_s {
    struct list_head list; // in recv_list
    list_index_link_t index_link;
    zeb_inst_t src;
    uint32_t recv;     // dispatched
    int32_t unack;     // dispatched, not yet acknowledged
    uint32_t drop;     // dropped before dispatch
    uint32_t ret_data; // sent to this peer and returned undelivered
} zeb_recv_app_fc_t;

typedef struct zeb_fc_s {
    uint32_t app_id;
    // Guards everything below but the atomic fields. A message may be sent under it; no other lock of the library is
    // taken under it.
    zeb_mutex_t mutex;
    zeb_cond_t cond; // blocked senders wait here
    uint32_t total_send ZEB_GUARDED_BY(mutex);
    int32_t total_send_unack ZEB_GUARDED_BY(mutex);
    uint32_t unack_drift ZEB_GUARDED_BY(mutex);       // how far joins put total_send_unack below the sum of the records
    uint32_t mcast_send_reject ZEB_GUARDED_BY(mutex); // failed sends whose destination is not one instance
    uint32_t rpc_reply_exception ZEB_GUARDED_BY(mutex); // failed replies whose destination is not one instance
    uint32_t total_recv ZEB_GUARDED_BY(mutex);
    int32_t total_recv_unack ZEB_GUARDED_BY(mutex);
    std::atomic<uint32_t> recv_exception;                            // relaxed; invalid messages received
    indexed_list<zeb_send_app_fc_t> send_list ZEB_GUARDED_BY(mutex); // by destination, in order of first use
    indexed_list<zeb_recv_app_fc_t> recv_list ZEB_GUARDED_BY(mutex); // by source, in order of first use
    std::atomic<int> blocked_num; // send records past their window; written under the mutex, read without
} zeb_fc_t;

zeb_fc_t *zeb_add_app_fc(uint32_t app); // null on failure
void zeb_del_app_fc(zeb_fc_t *fc);      // null is ignored
// The record of a local application; null when it is not registered here.
static inline zeb_fc_t *zeb_get_app_fc(uint32_t app)
{
    zeb_app_mng_t *slot = zeb_get_app_mng(app);
    return slot == nullptr ? nullptr : slot->fc;
}

// Called for every message, with the record that the caller has looked up.
//
// Waits until the application may send to `dst_app`. Returns 0; ZEB_FC_WAITED after a wait; with ZEB_SEND_NOWAIT
// -EAGAIN instead of a wait; -ESHUTDOWN when the library stops meanwhile; -ENOENT when `fc` is null.
constexpr int ZEB_FC_WAITED = 1;
int zeb_fc_check(zeb_fc_t *fc, uint32_t dst_app, int flags);
int64_t zeb_fc_blocked_since(zeb_fc_t *fc, zeb_inst_t dst); // monotonic, nanoseconds; 0: it is not past its window
void zeb_fc_release(zeb_fc_t *fc);                          // wakes the blocked senders for a stop; the gate is closed
void zeb_fc_update_sent_ok(zeb_fc_t *fc, zeb_inst_t dst);
void zeb_fc_update_recv_ok(zeb_fc_t *fc, zeb_inst_t src); // may send an acknowledgement

// Rare events. They look the record up by the id of the local application; if it is not registered, they only log the
// line of zeb_fc_not_found.
void zeb_fc_update_sent_reject(uint32_t src_app, zeb_inst_t dst);
void zeb_fc_update_rpc_reply_exception(uint32_t src_app, zeb_inst_t dst);
void zeb_fc_update_sent_ack(uint32_t my_app, zeb_inst_t dst, uint32_t ack_num);
void zeb_fc_update_recv_drop(uint32_t my_app, zeb_inst_t src, int num);
void zeb_fc_update_recv_retdata(uint32_t my_app, zeb_inst_t src);
void zeb_fc_update_recv_exception(uint32_t my_app);
void zeb_fc_adjust_statistics(uint32_t src_app, zeb_inst_t dst); // the peer has joined
void zeb_fc_reset_unack(uint32_t my_app, zeb_inst_t peer);       // the peer has quit

zeb_fc_t *zeb_fc_not_found(uint32_t app); // logs that `app` has no record; returns null

zeb_send_app_fc_t *__zeb_get_send_app_fc(zeb_fc_t *fc, zeb_inst_t dst) ZEB_REQUIRES(fc->mutex);
zeb_recv_app_fc_t *__zeb_get_recv_app_fc(zeb_fc_t *fc, zeb_inst_t src) ZEB_REQUIRES(fc->mutex);
bool zeb_fc_accept_msg(zeb_fc_t *fc, uint32_t dst_app) ZEB_REQUIRES(fc->mutex);

static inline bool zeb_fc_past_window(int32_t unack)
{
    return unack > ZEB_FC_SEND_WINDOW;
}

// True when a send record of `dst_app` blocks its senders.
static inline bool zeb_fc_blocks(const zeb_send_app_fc_t *record, uint32_t dst_app)
{
    return record->dst.app == dst_app && zeb_fc_past_window(record->unack);
}

// Diagnosis (zeb_flow_ctrl_diag.cpp). `unprocessed` is the number of messages of the pinging instance in the
// application's queue.
void zeb_fc_diagnose_destination(zeb_fc_t *fc, uint32_t dst_app) ZEB_REQUIRES(fc->mutex);
void zeb_fc_ping_request(uint32_t my_app, zeb_inst_t src, int unprocessed);
void zeb_fc_ping_echo(uint32_t my_app, zeb_inst_t src);

#endif
