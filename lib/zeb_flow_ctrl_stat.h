// Statistics of synchronisation messages, per application and peer instance.
// The receive thread counts messages that are sent, fail, are received or are returned; the quit of a peer instance
// clears its counters. Each record has one mutex, under which no other lock of the library is taken.
#ifndef ZEB_FLOW_CTRL_STAT_H
#define ZEB_FLOW_CTRL_STAT_H

#include <cstdint>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_inst.h"
#include "zeb_lock.h"

typedef struct zeb_send_mng_stat_s {
    struct list_head list; // in send_list
    list_index_link_t index_link;
    zeb_inst_t dst;
    uint32_t send_inst;
    uint32_t send_inst_ack;
    uint32_t send_inst_seq_ack;
    uint32_t send_fail;
} zeb_send_mng_stat_t;

typedef struct zeb_recv_mng_stat_s {
    struct list_head list; // in recv_list
    list_index_link_t index_link;
    zeb_inst_t src;
    uint32_t recv_inst;
    uint32_t recv_inst_ack;
    uint32_t recv_inst_seq_ack;
    uint32_t recv_ret_data; // sent to this peer and returned undelivered
} zeb_recv_mng_stat_t;

typedef struct zeb_mng_stat_s {
    uint32_t app_id;
    zeb_mutex_t mutex;
    uint32_t total_send ZEB_GUARDED_BY(mutex);
    uint32_t total_recv ZEB_GUARDED_BY(mutex);
    indexed_list<zeb_send_mng_stat_t> send_list ZEB_GUARDED_BY(mutex); // by destination, in order of first use
    indexed_list<zeb_recv_mng_stat_t> recv_list ZEB_GUARDED_BY(mutex); // by source, in order of first use
} zeb_mng_stat_t;

zeb_mng_stat_t *zeb_add_mng_stat(uint32_t app); // null on failure
void zeb_del_mng_stat(zeb_mng_stat_t *stat);    // null is ignored

// `type` is a zeb_msg_type_t.
void zeb_mng_stat_update_sent(uint32_t my_app, zeb_inst_t dst, int type);
void zeb_mng_stat_update_recv(uint32_t my_app, zeb_inst_t src, int type);
void zeb_mng_stat_update_send_fail(uint32_t my_app, zeb_inst_t dst);
void zeb_mng_stat_update_recv_reject(uint32_t my_app, zeb_inst_t src);
void zeb_clean_mng_msg_stat(uint32_t my_app, zeb_inst_t peer);

#endif
