// The instance handshake's memory: pair records, pending synchronisations, resume, retry and returned acknowledgements.
// Everything runs on the receive thread, but for zeb_del_reject_sync_inst_ack, which senders call; g_lib_mutex guards
// the lists. The messages themselves are built and read in zeb_mng_msg.
#ifndef ZEB_MNG_SYNC_H
#define ZEB_MNG_SYNC_H

#include <cstdint>

#include "platform/list_index.h"
#include "zeb_lock.h"
#include "zeb_mng.h"

// What is known of one pair (local application, remote instance).
typedef struct zeb_inst_id_s {
    struct list_head list;        // in g_zeb_mng.inst_id_list
    list_index_link_t index_link; // in g_zeb_mng.inst_id_index
    uint32_t src_app;
    uint32_t dst_app;
    uint32_t dst_node;
    uint32_t sync_id;     // process id in the peer's last SYNC_INST
    uint32_t sync_ack_id; // process id in the peer's last accepted acknowledgement
    uint32_t send_seq;    // of our last SYNC_INST that was sent
    uint32_t recv_seq;    // of the peer's last SYNC_INST
    uint32_t sync_server; // 1 when the peer called itself a server there
} zeb_inst_id_t;

// A pending synchronisation in g_zeb_mng.inst_sync_index; the message has no room for a link of its own.
typedef struct zeb_pending_sync_s {
    list_index_link_t index_link;
    zeb_msg_t *msg; // in g_zeb_mng.inst_sync_list
} zeb_pending_sync_t;

typedef struct zeb_resume_comm_s {
    struct list_head list; // in g_zeb_mng.resume_comm_list
    uint32_t seq;          // of the resume timer
    uint32_t src_app;      // always 0
    uint32_t dst_app;
    uint32_t dst_node;
} zeb_resume_comm_t;

typedef struct zeb_retry_inst_s {
    struct list_head list;        // in g_zeb_mng.sync_inst_retry_list
    list_index_link_t index_link; // in g_zeb_mng.sync_inst_retry_index
    uint32_t src_app;
    uint32_t dst_app;
    uint32_t dst_node;
} zeb_retry_inst_t;

constexpr unsigned ZEB_RESUME_TIMEOUT = 60;    // seconds
constexpr unsigned ZEB_RESEND_ACK_TIMEOUT = 1; // seconds
constexpr unsigned ZEB_INST_RETRY_TIMEOUT = 2; // seconds

constexpr int ZEB_PAIR_NUM_MAX = 65536;   // pair records of a process
constexpr int ZEB_RESUME_NUM_MAX = 16384; // pending resumes
constexpr int ZEB_RESUME_PER_INSTANCE_MAX = 16;
constexpr int ZEB_ACK_RESEND_NUM_MAX = 16384; // returned acknowledgements to be sent again

// False when the pair is not known and no more can be.
bool zeb_has_room_for_pair(uint32_t src_app, uint32_t dst_app, uint32_t dst_node);

// Pair records. A setter creates the record; a getter gives 0 without one.
void zeb_update_inst_sync_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value);
void zeb_update_inst_sync_ack_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value);
void zeb_update_inst_send_seq(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value);
void zeb_update_inst_recv_seq(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value);
void zeb_update_inst_sync_server(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value);
void zeb_get_inst_send_seq(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t *seq);
void zeb_get_inst_recv_seq(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t *seq);
int zeb_get_pseq_for_inst_ack(uint32_t src_app, uint32_t dst_node, uint32_t dst_app); // node before application
zeb_inst_id_t *__zeb_get_inst_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) ZEB_REQUIRES(g_lib_mutex);
bool __zeb_inst_id_equal(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) ZEB_REQUIRES(g_lib_mutex);
void __zeb_clear_inst_id(uint32_t dst_app, uint32_t dst_node) ZEB_REQUIRES(g_lib_mutex);

// Pending synchronisations.
void __zeb_add_inst_sync_msg(zeb_msg_t *msg) ZEB_REQUIRES(g_lib_mutex);
int zeb_del_inst_sync_msg(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t seq);
void __zeb_clear_sync_inst_msg(uint32_t dst_app, uint32_t dst_node) ZEB_REQUIRES(g_lib_mutex);
bool zeb_has_sync_inst_msg(uint32_t dst_app, uint32_t dst_node);

// Resume, retry, returned acknowledgements.
void __zeb_clear_resume_comm(uint32_t dst_app, uint32_t dst_node) ZEB_REQUIRES(g_lib_mutex);
zeb_resume_comm_t zeb_del_resume_comm(uint32_t seq);
void zeb_try_resume_comm(uint32_t dst_app, uint32_t dst_node);
void zeb_start_retry_inst_timer(uint8_t peer_version, uint32_t src_app, uint32_t dst_app, uint32_t dst_node);
int zeb_del_sync_inst_retry(uint32_t src_app, uint32_t dst_app, uint32_t dst_node);
void __zeb_clear_sync_inst_retry(uint32_t dst_app, uint32_t dst_node) ZEB_REQUIRES(g_lib_mutex);
void zeb_resend_sync_inst_ack_later(zeb_msg_t *msg); // takes a copy of a returned acknowledgement
void zeb_del_reject_sync_inst_ack(uint32_t src_app, uint32_t dst_app, uint32_t dst_node);

// Synchronises every local subscriber of `app` with its instance on `node`.
void zeb_app_inst_join(uint32_t app, uint32_t node, int resume);

// The same; false when one of them could not be sent.
bool zeb_synchronise(uint32_t app, uint32_t node, int resume);

// Ordinary traffic of a synchronised instance taken as its acknowledgement.
void zeb_notify_app_join(uint32_t my_app, uint32_t inst_node, uint32_t inst_app);

// Timer expiries.
void zeb_process_resume_timer_event(uint32_t seq);
void zeb_process_resend_inst_timer_event(uint32_t seq);
void zeb_process_inst_retry_timer_event(uint32_t seq);

#endif
