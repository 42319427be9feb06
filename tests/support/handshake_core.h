// The library's handshake as tests reach it: its record, and its steps by bare numbers, each under the lock and with
// its effects carried out.
#ifndef TESTS_SUPPORT_HANDSHAKE_CORE_H
#define TESTS_SUPPORT_HANDSHAKE_CORE_H

#include "platform/list_algo.h"
#include "zeb_handshake_record.h"
#include "zeb_handshake_shell.h"
#include "zeb_mng_topology.h"
#include "zeb_tipc.h"

template <typename Step>
static inline auto with_handshake(Step step)
{
    decltype(step(&g_zeb_handshake)) result{};
    zeb_handshake_event([&](zeb_handshake_t *hs) { result = step(hs); });
    return result;
}

static inline bool zeb_app_online(uint32_t app, uint32_t node)
{
    return zeb_app_online({app, node});
}

static inline bool zeb_app_instance(uint32_t app, uint32_t node)
{
    return zeb_app_instance({app, node});
}

static inline zeb_ol_app_t *__zeb_get_ol_app(uint32_t app)
{
    return zeb_hs_get_ol_app(&g_zeb_handshake, app);
}

static inline zeb_subscr_app_t *__zeb_get_subscr_app(uint32_t subscr_app, uint32_t ntf_app)
{
    zeb_ol_app_t *ol = __zeb_get_ol_app(ntf_app);
    return ol == nullptr ? nullptr : zeb_find_subscr_app(ol, subscr_app);
}

static inline void zeb_set_app_server(uint32_t app, uint32_t node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_set_app_server(hs, {app, node}); });
}

static inline void zeb_set_app_inst(uint32_t app, uint32_t node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_set_app_inst(hs, {app, node}); });
}

static inline void zeb_set_app_inst_ack(uint32_t app, uint32_t node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_set_app_inst_ack(hs, {app, node}); });
}

static inline void zeb_try_notify_app_join(uint32_t my_app, uint32_t inst_app, uint32_t inst_node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_try_notify_app_join(hs, my_app, {inst_app, inst_node}); });
}

static inline void zeb_app_inst_join(uint32_t app, uint32_t node, uint32_t resume)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { (void)zeb_app_inst_join(hs, {app, node}, resume); });
}

static inline void zeb_app_inst_quit(uint32_t app, uint32_t node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_app_inst_quit(hs, {app, node}); });
}

static inline void zeb_app_inst_force_quit(uint32_t app, uint32_t node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_app_inst_force_quit(hs, {app, node}); });
}

static inline void zeb_app_inst_try_quit(uint32_t app, uint32_t node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_app_inst_try_quit(hs, {app, node}); });
}

static inline bool zeb_has_sync_inst_msg(uint32_t app, uint32_t node)
{
    return with_handshake([&](zeb_handshake_t *hs) { return zeb_has_sync_inst(hs, {app, node}); });
}

static inline int zeb_del_inst_sync_msg(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t seq)
{
    return with_handshake([&](zeb_handshake_t *hs) {
        return zeb_del_inst_sync(hs, src_app, {dst_app, dst_node}, seq);
    });
}

static inline int zeb_sync_app_inst(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t resume)
{
    return with_handshake([&](zeb_handshake_t *hs) {
        return zeb_sync_app_inst(hs, src_app, {dst_app, dst_node}, resume);
    });
}

static inline void zeb_start_retry_inst_timer(uint8_t version, uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) {
        zeb_start_retry_inst_timer(hs, version, src_app, {dst_app, dst_node});
    });
}

static inline void zeb_try_resume_comm(uint32_t app, uint32_t node)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_try_resume_comm(hs, {app, node}); });
}

static inline zeb_resume_comm_t zeb_del_resume_comm(uint32_t seq)
{
    return with_handshake([&](zeb_handshake_t *hs) { return zeb_del_resume_comm(hs, seq); });
}

static inline void zeb_process_resume_timer_event(uint32_t seq)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_process_resume_timer_event(hs, seq); });
}

static inline void zeb_process_inst_retry_timer_event(uint32_t seq)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_process_inst_retry_timer_event(hs, seq); });
}

// The record of a pair; made when there is none.
static inline zeb_inst_id_t *pair_of(uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    return with_handshake([&](zeb_handshake_t *hs) {
        return zeb_get_or_add_inst_id(hs, src_app, {dst_app, dst_node});
    });
}

static inline zeb_inst_id_t *__zeb_get_inst_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    return zeb_get_inst_id(&g_zeb_handshake, src_app, {dst_app, dst_node});
}

#endif
