// What the core of the handshake remembers: pairs, pending synchronisations, retries, resumes, returned
// acknowledgements and the sets of online instances. For the core's own files.
#ifndef ZEB_HANDSHAKE_RECORD_H
#define ZEB_HANDSHAKE_RECORD_H

#include "platform/list_algo.h"
#include "zeb_handshake.h"

#define HS_LOG(hs, level, ...)                                                                                         \
    do {                                                                                                               \
        if ((hs)->effects->log_on((hs)->ctx, level))                                                                   \
            (hs)->effects->log((hs)->ctx, level, __FILE_NAME__, __LINE__, __VA_ARGS__);                                \
    } while (0)

#define HS_VERBOSE(hs, ...) HS_LOG(hs, ZEB_DBG_LEVEL_VERBOSE, __VA_ARGS__)
#define HS_INFO(hs, ...) HS_LOG(hs, ZEB_DBG_LEVEL_INFO, __VA_ARGS__)
#define HS_WARN(hs, ...) HS_LOG(hs, ZEB_DBG_LEVEL_WARN, __VA_ARGS__)
#define HS_ERROR(hs, ...) HS_LOG(hs, ZEB_DBG_LEVEL_ERROR, __VA_ARGS__)

// Pairs. zeb_get_inst_id returns null when there is no record; zeb_get_or_add_inst_id makes one.
zeb_inst_id_t *zeb_get_inst_id(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);
zeb_inst_id_t *zeb_get_or_add_inst_id(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);
bool zeb_inst_id_equal(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);
uint32_t zeb_get_inst_recv_seq(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);
uint32_t zeb_get_pseq_for_inst_ack(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);
void zeb_forget_holder(zeb_handshake_t *hs, zeb_inst_t dst); // of every pair with the instance
void zeb_clear_inst_id(zeb_handshake_t *hs, zeb_inst_t dst); // the first pair alone, of whichever application

// Pending synchronisations.
void zeb_add_inst_sync(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body);
int zeb_del_inst_sync(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, uint32_t seq); // -ENOENT: there is none
void zeb_del_inst_syncs_of(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);
void zeb_clear_sync_inst(zeb_handshake_t *hs, zeb_inst_t dst); // of all applications
bool zeb_has_sync_inst(const zeb_handshake_t *hs, zeb_inst_t dst);
bool zeb_has_sync_inst_seq(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, uint32_t seq);
bool zeb_has_sync_inst_of(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);

// Retries.
zeb_retry_inst_t *zeb_get_sync_inst_retry(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst); // or null
void zeb_add_sync_inst_retry(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);
void zeb_del_sync_inst_retry(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);
void zeb_clear_sync_inst_retry(zeb_handshake_t *hs, zeb_inst_t dst); // the first one alone, of whichever application

// Resumes. zeb_del_resume_comm returns the resume that waited for the timer; all is 0 when it has been dropped.
zeb_resume_comm_t *zeb_add_resume_comm(zeb_handshake_t *hs, uint32_t seq, zeb_inst_t dst);
bool zeb_has_room_for_resume(const zeb_handshake_t *hs, zeb_inst_t dst);
zeb_resume_comm_t *zeb_get_resume_comm(const zeb_handshake_t *hs, zeb_inst_t dst, zeb_resume_kind_t kind); // or null
void zeb_clear_resume_comm(zeb_handshake_t *hs, zeb_inst_t dst,
                           zeb_resume_kind_t last); // of kind `last` and those before it
zeb_resume_comm_t zeb_del_resume_comm(zeb_handshake_t *hs, uint32_t seq);

// Returned acknowledgements. Both functions free the record and its message.
void zeb_drop_returned_ack(zeb_handshake_t *hs, zeb_returned_ack_t *ack);
void zeb_free_returned_ack(zeb_returned_ack_t *ack); // for one that is not on the list

// Who talks to whom. Null when `subscr_app` does not talk to the application.
zeb_subscr_app_t *zeb_find_subscr_app(zeb_ol_app_t *ol, uint32_t subscr_app);

// Who is online.
void zeb_set_app_server(zeb_handshake_t *hs, zeb_inst_t inst);
void zeb_set_app_inst(zeb_handshake_t *hs, zeb_inst_t inst);
void zeb_set_app_inst_ack(zeb_handshake_t *hs, zeb_inst_t inst);
void zeb_try_notify_app_join(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t inst);
void zeb_expect_reports(zeb_handshake_t *hs);                   // of each instance that is known or has a pending SYNC
bool zeb_take_unreported(zeb_handshake_t *hs, zeb_inst_t inst); // true when it was unreported; it is reported now
void zeb_app_inst_quit(zeb_handshake_t *hs, zeb_inst_t inst);   // it was withdrawn
void zeb_app_inst_force_quit(zeb_handshake_t *hs, zeb_inst_t inst); // before we synchronise with it
void zeb_app_inst_try_quit(zeb_handshake_t *hs, zeb_inst_t inst);   // only if it is online

// The steps of the handshake.
int zeb_sync_app_inst(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, uint32_t resume);
void zeb_app_inst_join(zeb_handshake_t *hs, zeb_inst_t inst, uint32_t resume);
void zeb_recv_inst_sync(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, const zeb_msg_sync_inst_t *body);
void zeb_start_retry_inst_timer(zeb_handshake_t *hs, uint8_t peer_version, uint32_t src_app, zeb_inst_t dst);
void zeb_try_resume_comm(zeb_handshake_t *hs, zeb_inst_t dst);
void zeb_ask_later(zeb_handshake_t *hs, zeb_inst_t dst, zeb_resume_kind_t kind, uint32_t unsent_app);
void zeb_process_resume_timer_event(zeb_handshake_t *hs, uint32_t seq);
void zeb_process_resend_inst_timer_event(zeb_handshake_t *hs, uint32_t seq);
void zeb_process_inst_retry_timer_event(zeb_handshake_t *hs, uint32_t seq);

// Calls visit(app) for each local application that talks to `ol`, in order.
template <typename Visit>
static inline void zeb_each_subscr_app(zeb_ol_app_t *ol, Visit visit)
{
    list_each<zeb_subscr_app_t>(&ol->subscr_app_list,
                                [&](const zeb_subscr_app_t *subscr) { visit(subscr->subscr_app); });
}

#endif
