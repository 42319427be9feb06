// Statistics of synchronisation messages, per application and peer instance. Counted on the receive thread as messages
// are sent, received, fail and come back; cleared when the peer instance quits.
#include "zeb_flow_ctrl_stat.h"

#include <cstdlib>
#include <cstring>

#include "platform/list_algo.h"
#include "zeb_dbg.h"
#include "zeb_slot.h"
#include "zeb_wire.h"

zeb_mng_stat_t *zeb_add_mng_stat(uint32_t app)
{
    ZEB_VERBOSE("ZEB add new mng msg stat for app %d.\n", app);
    zeb_mng_stat_t *stat = (zeb_mng_stat_t *)zeb_malloc(sizeof(zeb_mng_stat_t));
    int ret = zeb_mutex_init(&stat->mutex);
    if (ret != 0) {
        ZEB_ERROR("ZEB init app %d flow ctrl condition mutex failed: %s.\n", app, strerror(ret));
        free(stat);
        return nullptr;
    }
    stat->app_id = app;
    zeb_scoped_lock lock(&stat->mutex);
    INIT_LIST_HEAD(&stat->send_list);
    INIT_LIST_HEAD(&stat->recv_list);
    return stat;
}

void zeb_del_mng_stat(zeb_mng_stat_t *stat)
{
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB delete app %d mng msg stat.\n", stat->app_id);
    {
        zeb_scoped_lock lock(&stat->mutex);
        (void)list_remove_matching<zeb_send_mng_stat_t>(&stat->send_list,
                                                        [](const zeb_send_mng_stat_t *) { return true; });
        (void)list_remove_matching<zeb_recv_mng_stat_t>(&stat->recv_list,
                                                        [](const zeb_recv_mng_stat_t *) { return true; });
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

static zeb_send_mng_stat_t *__get_send_stat(zeb_mng_stat_t *stat, uint32_t app, uint32_t node) ZEB_REQUIRES(stat->mutex)
{
    return list_index_find_or_create<zeb_send_mng_stat_t>(
        &stat->send_list, &stat->send_index, list_index_key(app, node), [&] {
            ZEB_VERBOSE("ZEB app %d add new send mng msg stat to %d/%d.\n", stat->app_id, app, node);
            zeb_send_mng_stat_t *record = (zeb_send_mng_stat_t *)zeb_malloc(sizeof(zeb_send_mng_stat_t));
            record->dst_app_id = app;
            record->dst_node_id = node;
            return record;
        });
}

static zeb_recv_mng_stat_t *__get_recv_stat(zeb_mng_stat_t *stat, uint32_t app, uint32_t node) ZEB_REQUIRES(stat->mutex)
{
    return list_index_find_or_create<zeb_recv_mng_stat_t>(
        &stat->recv_list, &stat->recv_index, list_index_key(app, node), [&] {
            ZEB_VERBOSE("ZEB app %d add new recv mng msg stat from %d/%d.\n", stat->app_id, app, node);
            zeb_recv_mng_stat_t *record = (zeb_recv_mng_stat_t *)zeb_malloc(sizeof(zeb_recv_mng_stat_t));
            record->src_app_id = app;
            record->src_node_id = node;
            return record;
        });
}

void zeb_mng_stat_update_sent(uint32_t my_app, uint32_t dst_app, uint32_t dst_node, int type)
{
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update send mng msg stat to %d/%d, type %d.\n", my_app, dst_app, dst_node, type);
    zeb_scoped_lock lock(&stat->mutex);
    zeb_send_mng_stat_t *record = __get_send_stat(stat, dst_app, dst_node);
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

void zeb_mng_stat_update_recv(uint32_t my_app, uint32_t src_app, uint32_t src_node, int type)
{
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update recv mng msg stat to %d/%d, type %d.\n", my_app, src_app, src_node, type);
    zeb_scoped_lock lock(&stat->mutex);
    zeb_recv_mng_stat_t *record = __get_recv_stat(stat, src_app, src_node);
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

void zeb_mng_stat_update_send_fail(uint32_t dst_app, uint32_t dst_node, uint32_t my_app)
{
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update send fail mng msg to %d/%d.\n", my_app, dst_app, dst_node);
    zeb_scoped_lock lock(&stat->mutex);
    __get_send_stat(stat, dst_app, dst_node)->send_fail++;
}

void zeb_mng_stat_update_recv_reject(uint32_t src_app, uint32_t src_node, uint32_t my_app)
{
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update recv reject mng msg from %d/%d.\n", my_app, src_app, src_node);
    if (src_app == ZEBD_APP_ID)
        return;
    zeb_scoped_lock lock(&stat->mutex);
    __get_recv_stat(stat, src_app, src_node)->recv_ret_data++;
}

void zeb_clean_mng_msg_stat(uint32_t my_app, uint32_t app, uint32_t node)
{
    ZEB_INFO("ZEB clean mng msg stat between app %d and %d/%d.\n", my_app, app, node);
    zeb_mng_stat_t *stat = get_stat(my_app);
    if (stat == nullptr)
        return;
    zeb_scoped_lock lock(&stat->mutex);
    zeb_recv_mng_stat_t *recv = __get_recv_stat(stat, app, node);
    stat->total_recv -= recv->recv_inst + recv->recv_inst_ack + recv->recv_inst_seq_ack;
    recv->recv_inst = 0;
    recv->recv_inst_ack = 0;
    recv->recv_inst_seq_ack = 0;
    recv->recv_ret_data = 0;
    zeb_send_mng_stat_t *send = __get_send_stat(stat, app, node);
    stat->total_send -= send->send_inst + send->send_inst_ack + send->send_inst_seq_ack;
    send->send_inst = 0;
    send->send_inst_ack = 0;
    send->send_inst_seq_ack = 0;
    send->send_fail = 0;
}

void zeb_cli_print_mng_stat(uint32_t app)
{
    if (zeb_in_child("zeb_cli_print_mng_stat"))
        return;
    zeb_app_mng_t *slot = zeb_get_app_mng(app);
    if (slot == nullptr)
        return;
    zeb_mng_stat_t *stat = slot->mng_stat;
    zeb_scoped_lock lock(&stat->mutex);
    zeb_buf_printf("Application %d mng msg statistics:\n", app);
    zeb_buf_printf("  total send %d, total recv %d\n", stat->total_send, stat->total_recv);
    list_each<zeb_send_mng_stat_t>(&stat->send_list, [](const zeb_send_mng_stat_t *record) {
        zeb_buf_printf("    Send to application %d/%d: inst %d, inst ack %d, inst seq ack %d, failed %d\n",
                       record->dst_app_id, record->dst_node_id, record->send_inst, record->send_inst_ack,
                       record->send_inst_seq_ack, record->send_fail);
    });
    list_each<zeb_recv_mng_stat_t>(&stat->recv_list, [](const zeb_recv_mng_stat_t *record) {
        zeb_buf_printf("    Receive from application %d/%d: inst %d, inst ack %d, inst seq ack %d,reject %d\n",
                       record->src_app_id, record->src_node_id, record->recv_inst, record->recv_inst_ack,
                       record->recv_inst_seq_ack, record->recv_ret_data);
    });
}
