#include "zeb_flow_ctrl_stat.h"

#include <cstdlib>
#include <cstring>

#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_gate.h"
#include "zeb_slot.h"
#include "zeb_wire.h"

zeb_mng_stat_t *zeb_add_mng_stat(uint32_t app)
{
    ZEB_VERBOSE("ZEB add new mng msg stat for app %d.\n", app);
    zeb_mng_stat_t *stat = (zeb_mng_stat_t *)zeb_malloc(sizeof(zeb_mng_stat_t));
    int ret = zeb_mutex_init(&stat->mutex);
    if (ret != 0) {
        ZEB_ERROR_WHY("ZEB init app %d flow ctrl condition mutex failed: %s.\n", app, strerror(ret));
        free(stat);
        return nullptr;
    }
    stat->app_id = app;
    zeb_scoped_lock lock(&stat->mutex);
    indexed_list_init(&stat->send_list);
    indexed_list_init(&stat->recv_list);
    return stat;
}

void zeb_del_mng_stat(zeb_mng_stat_t *stat)
{
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB delete app %d mng msg stat.\n", stat->app_id);
    {
        zeb_scoped_lock lock(&stat->mutex);
        indexed_list_clear(&stat->send_list);
        indexed_list_clear(&stat->recv_list);
    }
    zeb_mutex_destroy(&stat->mutex);
    free(stat);
}

static zeb_mng_stat_t *get_stat(uint32_t app)
{
    zeb_app_mng_t *slot = zeb_get_app_mng(app);
    if (slot != nullptr)
        return slot->mng_stat;
    ZEB_ERROR("ZEB app %d get mng msg stat failed.\n", app);
    return nullptr;
}

static zeb_send_mng_stat_t *__get_send_stat(zeb_mng_stat_t *stat, zeb_inst_t dst) ZEB_REQUIRES(stat->mutex)
{
    return indexed_list_find_or_create(&stat->send_list, zeb_inst_key(dst), [&] {
        ZEB_VERBOSE("ZEB app %d add new send mng msg stat to %d/%d.\n", stat->app_id, dst.app, dst.node);
        zeb_send_mng_stat_t *record = (zeb_send_mng_stat_t *)zeb_malloc(sizeof(zeb_send_mng_stat_t));
        record->dst = dst;
        return record;
    });
}

static zeb_recv_mng_stat_t *__get_recv_stat(zeb_mng_stat_t *stat, zeb_inst_t src) ZEB_REQUIRES(stat->mutex)
{
    return indexed_list_find_or_create(&stat->recv_list, zeb_inst_key(src), [&] {
        ZEB_VERBOSE("ZEB app %d add new recv mng msg stat from %d/%d.\n", stat->app_id, src.app, src.node);
        zeb_recv_mng_stat_t *record = (zeb_recv_mng_stat_t *)zeb_malloc(sizeof(zeb_recv_mng_stat_t));
        record->src = src;
        return record;
    });
}

void zeb_mng_stat_update_sent(uint32_t my_app, zeb_inst_t dst, int type)
{
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update send mng msg stat to %d/%d, type %d.\n", my_app, dst.app, dst.node, type);
    zeb_scoped_lock lock(&stat->mutex);
    zeb_send_mng_stat_t *record = __get_send_stat(stat, dst);
    switch (type) {
    case ZEB_MSG_SYNC_INST:
        record->send_inst++;
        break;
    case ZEB_MSG_SYNC_INST_ACK:
        record->send_inst_ack++;
        break;
    case ZEB_MSG_SYNC_INST_SEQ_ACK:
        record->send_inst_seq_ack++;
        break;
    default:
        ZEB_WARN("ZEB app %d update send mng msg stat type %d not support.\n", my_app, type);
        return;
    }
    stat->total_send++;
}

void zeb_mng_stat_update_recv(uint32_t my_app, zeb_inst_t src, int type)
{
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update recv mng msg stat to %d/%d, type %d.\n", my_app, src.app, src.node, type);
    zeb_scoped_lock lock(&stat->mutex);
    zeb_recv_mng_stat_t *record = __get_recv_stat(stat, src);
    switch (type) {
    case ZEB_MSG_SYNC_INST:
        record->recv_inst++;
        break;
    case ZEB_MSG_SYNC_INST_ACK:
        record->recv_inst_ack++;
        break;
    case ZEB_MSG_SYNC_INST_SEQ_ACK:
        record->recv_inst_seq_ack++;
        break;
    default:
        ZEB_WARN("ZEB app %d update recv mng msg stat type %d not support.\n", my_app, type);
        return;
    }
    stat->total_recv++;
}

void zeb_mng_stat_update_send_fail(uint32_t my_app, zeb_inst_t dst)
{
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update send fail mng msg to %d/%d.\n", my_app, dst.app, dst.node);
    zeb_scoped_lock lock(&stat->mutex);
    __get_send_stat(stat, dst)->send_fail++;
}

void zeb_mng_stat_update_recv_reject(uint32_t my_app, zeb_inst_t src)
{
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update recv reject mng msg from %d/%d.\n", my_app, src.app, src.node);
    if (src.app == ZEBD_APP_ID)
        return;
    zeb_scoped_lock lock(&stat->mutex);
    __get_recv_stat(stat, src)->recv_ret_data++;
}

void zeb_clean_mng_msg_stat(uint32_t my_app, zeb_inst_t peer)
{
    ZEB_INFO("ZEB clean mng msg stat between app %d and %d/%d.\n", my_app, peer.app, peer.node);
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    zeb_scoped_lock lock(&stat->mutex);
    zeb_recv_mng_stat_t *recv = __get_recv_stat(stat, peer);
    stat->total_recv -= recv->recv_inst + recv->recv_inst_ack + recv->recv_inst_seq_ack;
    recv->recv_inst = 0;
    recv->recv_inst_ack = 0;
    recv->recv_inst_seq_ack = 0;
    recv->recv_ret_data = 0;
    zeb_send_mng_stat_t *send = __get_send_stat(stat, peer);
    stat->total_send -= send->send_inst + send->send_inst_ack + send->send_inst_seq_ack;
    send->send_inst = 0;
    send->send_inst_ack = 0;
    send->send_inst_seq_ack = 0;
    send->send_fail = 0;
}

void zeb_cli_print_mng_stat(uint32_t app)
{
    zeb_call_t entered("zeb_cli_print_mng_stat");
    if (entered.refused() != 0)
        return;
    zeb_app_mng_t *slot = zeb_get_app_mng(app);
    if (slot == nullptr)
        return;
    zeb_mng_stat_t *stat = slot->mng_stat;
    zeb_scoped_lock lock(&stat->mutex);
    zeb_buf_printf("Application %d mng msg statistics:\n", app);
    zeb_buf_printf("  total send %d, total recv %d\n", stat->total_send, stat->total_recv);
    indexed_list_each(&stat->send_list, [](const zeb_send_mng_stat_t *record) {
        zeb_buf_printf("    Send to application %d/%d: inst %d, inst ack %d, inst seq ack %d, failed %d\n",
                       record->dst.app, record->dst.node, record->send_inst, record->send_inst_ack,
                       record->send_inst_seq_ack, record->send_fail);
    });
    indexed_list_each(&stat->recv_list, [](const zeb_recv_mng_stat_t *record) {
        zeb_buf_printf("    Receive from application %d/%d: inst %d, inst ack %d, inst seq ack %d,reject %d\n",
                       record->src.app, record->src.node, record->recv_inst, record->recv_inst_ack,
                       record->recv_inst_seq_ack, record->recv_ret_data);
    });
}
