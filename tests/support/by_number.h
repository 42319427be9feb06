// Steps of the library as tests call them: by the application's id where the library hands the record on.
#ifndef TESTS_SUPPORT_BY_NUMBER_H
#define TESTS_SUPPORT_BY_NUMBER_H

#include "zeb_app_info.h"
#include "zeb_flow_ctrl.h"
#include "zeb_rpc.h"

static inline int zeb_fc_check(uint32_t src_app, uint32_t dst_app, int flags)
{
    zeb_fc_t *fc = zeb_get_app_fc(src_app);
    int ret = zeb_fc_check(fc != nullptr ? fc : zeb_fc_not_found(src_app), dst_app, flags);
    return ret == ZEB_FC_WAITED ? 0 : ret;
}

static inline void zeb_fc_update_sent_ok(uint32_t src_app, zeb_inst_t dst)
{
    zeb_fc_update_sent_ok(zeb_get_app_fc(src_app), dst);
}

static inline void zeb_fc_update_recv_ok(uint32_t my_app, zeb_inst_t src)
{
    zeb_fc_update_recv_ok(zeb_get_app_fc(my_app), src);
}

// As the management receiver hands a ping on.
static inline void zeb_fc_ping_request(uint32_t my_app, zeb_inst_t src)
{
    zeb_fc_ping_request(my_app, src, zeb_unprocess_app_msg_num(my_app, src));
}

static inline zeb_rpc_wait_t *zeb_get_rpc_wait(uint32_t app, uint32_t seq)
{
    return zeb_get_rpc_wait(zeb_get_app_rpc(app), seq);
}

static inline int zeb_rpc_set_wait(uint32_t app, uint32_t seq, zeb_inst_t dst)
{
    return zeb_rpc_set_wait(zeb_get_app_rpc(app), seq, dst);
}

static inline void zeb_rpc_del_wait(uint32_t app, uint32_t seq)
{
    zeb_rpc_del_wait(zeb_get_app_rpc(app), seq);
}

static inline int zeb_rpc_wait_reply(uint32_t app, uint32_t seq)
{
    return zeb_rpc_wait_reply(zeb_get_app_rpc(app), seq);
}

static inline int zeb_rpc_add_error_reply(uint32_t app, uint32_t seq, zeb_inst_t src, zeb_reply_stat_t status)
{
    return zeb_rpc_add_error_reply(zeb_get_app_rpc(app), seq, src, status);
}

static inline void zeb_rpc_print_wait(uint32_t app, uint32_t seq)
{
    zeb_rpc_print_wait(zeb_get_app_rpc(app), seq);
}

static inline int zeb_get_app_sd(uint32_t app)
{
    const zeb_app_info_t *app_info = zeb_get_app_info(app);
    return app_info == nullptr ? -1 : app_info->sd;
}

#endif
