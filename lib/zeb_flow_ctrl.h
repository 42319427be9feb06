// Flow control: how much each pair has sent and not had acknowledged, the counters, the statistics of synchronisation
// messages, and the diagnosis of a peer that blocks its senders.
// Sending threads wait here for credit; the proxy and receive threads give it. Each record has one mutex of its own.
#ifndef ZEB_FLOW_CTRL_H
#define ZEB_FLOW_CTRL_H

#include <cstdint>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_lock.h"

constexpr int32_t ZEB_FC_SEND_WINDOW = 1024;      // a destination is blocked from the 1025th unacknowledged message on
constexpr uint32_t ZEB_FC_ACK_BATCH = 512;        // acknowledged at once when more than this many are due
constexpr unsigned ZEB_FC_WAIT_PERIOD = 300;      // seconds of one timed wait of a blocked sender
constexpr unsigned ZEB_FC_RELOAD_ROUND = 3;       // the time-out at which the blocking peer is asked to abort
constexpr int ZEB_FC_UNKNOWN_NUM_MAX = 65536;     // an application with so many senders counts no unknown ones
constexpr uint32_t ZEB_FC_NODE_ANY = 0xFFFFFFFFu; // no single node was chosen

// What one destination instance was sent.
typedef struct zeb_send_app_fc_s {
    struct list_head list;        // in send_list
    list_index_link_t index_link; // in send_index
    uint32_t dst_app_id;
    uint32_t dst_node_id;
    uint32_t send;             // sent
    int32_t unack;             // sent and not yet acknowledged
    uint32_t reject;           // refused or failed
    uint32_t rpc_reply_reject; // RPC replies that failed
} zeb_send_app_fc_t;

// What came from one source instance.
typedef struct zeb_recv_app_fc_s {
    struct list_head list;        // in recv_list
    list_index_link_t index_link; // in recv_index
    uint32_t src_app_id;
    uint32_t src_node_id;
    uint32_t recv;     // handed to dispatch
    int32_t unack;     // dispatched and not yet acknowledged
    uint32_t drop;     // discarded unprocessed
    uint32_t ret_data; // sent to this peer and come back undelivered
} zeb_recv_app_fc_t;

typedef struct zeb_fc_s {
    uint32_t app_id;
    // Guards everything below but recv_exception. A message may be sent under it; of our locks none is taken.
    zeb_mutex_t mutex;
    zeb_cond_t cond; // blocked senders
    uint32_t total_send ZEB_GUARDED_BY(mutex);
    int32_t total_send_unack ZEB_GUARDED_BY(mutex);
    uint32_t unack_drift ZEB_GUARDED_BY(mutex); // how far joins took total_send_unack below the sum of the records
    uint32_t mcast_send_reject ZEB_GUARDED_BY(mutex);   // failed sends to no single instance
    uint32_t rpc_reply_exception ZEB_GUARDED_BY(mutex); // failed replies to no single instance
    uint32_t total_recv ZEB_GUARDED_BY(mutex);
    int32_t total_recv_unack ZEB_GUARDED_BY(mutex);
    uint32_t recv_exception;                          // relaxed; bad incoming messages
    struct list_head send_list ZEB_GUARDED_BY(mutex); // zeb_send_app_fc_t, in order of first use
    struct list_head recv_list ZEB_GUARDED_BY(mutex); // zeb_recv_app_fc_t, in order of first use
    list_index_t send_index ZEB_GUARDED_BY(mutex);    // of send_list, by destination instance
    list_index_t recv_index ZEB_GUARDED_BY(mutex);    // of recv_list, by source instance
    int blocked_num ZEB_GUARDED_BY(mutex);            // send records past their window
} zeb_fc_t;

zeb_fc_t *zeb_add_app_fc(uint32_t app); // null on failure
void zeb_del_app_fc(zeb_fc_t *fc);      // null is ignored
zeb_fc_t *zeb_get_app_fc(uint32_t app); // null when not registered here

// Asks whether `src_app` may send to `dst_app`; waits until it may. 0; -EAGAIN with ZEB_SEND_NOWAIT; -ENOENT without
// record.
int zeb_fc_check(uint32_t src_app, uint32_t dst_app, int flags);

void zeb_fc_update_sent_ok(uint32_t src_app, uint32_t dst_app, uint32_t dst_node);
void zeb_fc_update_sent_reject(uint32_t src_app, uint32_t dst_app, uint32_t dst_node);
void zeb_fc_update_rpc_reply_exception(uint32_t src_app, uint32_t dst_app, uint32_t dst_node);
void zeb_fc_update_sent_ack(uint32_t my_app, uint32_t dst_app, uint32_t dst_node, uint32_t ack_num);
void zeb_fc_update_recv_ok(uint32_t src_app, uint32_t src_node, uint32_t my_app); // may send an acknowledgement
void zeb_fc_update_recv_drop(uint32_t src_app, uint32_t src_node, uint32_t my_app, int num);
void zeb_fc_update_recv_retdata(uint32_t src_app, uint32_t src_node, uint32_t my_app);
void zeb_fc_update_recv_exception(uint32_t my_app);
void zeb_fc_adjust_statistics(uint32_t src_app, uint32_t dst_app, uint32_t dst_node); // the peer has joined
void zeb_fc_reset_unack(uint32_t my_app, uint32_t dst_app, uint32_t dst_node);        // the peer has quit

zeb_send_app_fc_t *__zeb_get_send_app_fc(zeb_fc_t *fc, uint32_t dst_app, uint32_t dst_node) ZEB_REQUIRES(fc->mutex);
zeb_recv_app_fc_t *__zeb_get_recv_app_fc(zeb_fc_t *fc, uint32_t src_app, uint32_t src_node) ZEB_REQUIRES(fc->mutex);
bool zeb_fc_accept_msg(zeb_fc_t *fc, uint32_t dst_app) ZEB_REQUIRES(fc->mutex);

static inline bool zeb_fc_past_window(int32_t unack)
{
    return unack > ZEB_FC_SEND_WINDOW;
}

// True for a send record of `dst_app` that blocks its senders.
static inline bool zeb_fc_blocks(const zeb_send_app_fc_t *record, uint32_t dst_app)
{
    return record->dst_app_id == dst_app && zeb_fc_past_window(record->unack);
}

// Diagnosis (zeb_flow_ctrl_diag.cpp).
void zeb_fc_diagnose_destination(zeb_fc_t *fc, uint32_t dst_app) ZEB_REQUIRES(fc->mutex);
void zeb_fc_ping_request(uint32_t src_app, uint32_t src_node, uint32_t my_app);
void zeb_fc_ping_echo(uint32_t src_app, uint32_t src_node, uint32_t my_app);

#endif
