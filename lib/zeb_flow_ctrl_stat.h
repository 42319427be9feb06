// Statistics of synchronisation messages, per application and peer instance.
// Counted on the receive thread; one mutex per record, under which nothing of ours is taken.
#ifndef ZEB_FLOW_CTRL_STAT_H
#define ZEB_FLOW_CTRL_STAT_H

#include <cstdint>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_lock.h"

typedef struct zeb_send_mng_stat_s {
    struct list_head list;        // in send_list
    list_index_link_t index_link; // in send_index
    uint32_t dst_app_id;
    uint32_t dst_node_id;
    uint32_t send_inst;
    uint32_t send_inst_ack;
    uint32_t send_inst_seq_ack;
    uint32_t send_fail;
} zeb_send_mng_stat_t;

typedef struct zeb_recv_mng_stat_s {
    struct list_head list;        // in recv_list
    list_index_link_t index_link; // in recv_index
    uint32_t src_app_id;
    uint32_t src_node_id;
    uint32_t recv_inst;
    uint32_t recv_inst_ack;
    uint32_t recv_inst_seq_ack;
    uint32_t recv_ret_data; // sent to this peer and come back undelivered
} zeb_recv_mng_stat_t;

typedef struct zeb_mng_stat_s {
    uint32_t app_id;
    zeb_mutex_t mutex;
    uint32_t total_send ZEB_GUARDED_BY(mutex);
    uint32_t total_recv ZEB_GUARDED_BY(mutex);
    struct list_head send_list ZEB_GUARDED_BY(mutex); // zeb_send_mng_stat_t, in order of first use
    struct list_head recv_list ZEB_GUARDED_BY(mutex); // zeb_recv_mng_stat_t, in order of first use
    list_index_t send_index ZEB_GUARDED_BY(mutex);    // of send_list, by destination instance
    list_index_t recv_index ZEB_GUARDED_BY(mutex);    // of recv_list, by source instance
} zeb_mng_stat_t;

zeb_mng_stat_t *zeb_add_mng_stat(uint32_t app); // null on failure
void zeb_del_mng_stat(zeb_mng_stat_t *stat);    // null is ignored

// `type` is a zeb_msg_type_t.
void zeb_mng_stat_update_sent(uint32_t my_app, uint32_t dst_app, uint32_t dst_node, int type);
void zeb_mng_stat_update_recv(uint32_t my_app, uint32_t src_app, uint32_t src_node, int type);
void zeb_mng_stat_update_send_fail(uint32_t dst_app, uint32_t dst_node, uint32_t my_app); // the peer first
void zeb_mng_stat_update_recv_reject(uint32_t src_app, uint32_t src_node, uint32_t my_app);
void zeb_clean_mng_msg_stat(uint32_t my_app, uint32_t app, uint32_t node);

#endif
