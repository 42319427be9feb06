#include "zeb_mng_check.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/list_algo.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_handshake_shell.h"
#include "zeb_rpc.h"
#include "zeb_slot.h"

typedef struct report_s {
    char *text;
    size_t size;
    size_t used;
    int broken;
} report_t;

static void expect(report_t *report, bool holds, const char *format, ...) __attribute__((format(printf, 3, 4)));

static void expect(report_t *report, bool holds, const char *format, ...)
{
    if (holds)
        return;
    report->broken++;
    va_list args;
    va_start(args, format);
    int len = vsnprintf(report->text + report->used, report->size - report->used, format, args);
    va_end(args);
    if (len > 0)
        report->used += (size_t)len < report->size - report->used ? (size_t)len : report->size - report->used - 1;
}

// Checks the links in both directions. Only a list that is whole may be walked by the other checks.
static bool list_is_whole(report_t *report, const struct list_head *head, const char *name, uint32_t app)
{
    for (const struct list_head *link = head; link->next != head; link = link->next) {
        bool whole = link->next != nullptr && link->next->prev == link;
        expect(report, whole, "list %s of %u is torn\n", name, app);
        if (!whole)
            return false;
    }
    return true;
}

static void check_count(report_t *report, const struct list_head *head, int num, const char *name, uint32_t app)
{
    expect(report, list_length(head) == num, "%s of %u has %d records and counts %d\n", name, app, list_length(head),
           num);
}

static void check_set(report_t *report, const zeb_app_set_t *set, const char *name, uint32_t app)
{
    zeb_each_bit(set->blocks, 0, [&](uint32_t block) {
        expect(report, set->used[block] != 0, "%s of %u: block %u counts as used and is empty\n", name, app, block);
        zeb_each_bit(set->used[block], block * 64, [&](uint32_t word) {
            expect(report, set->bmp[word] != 0, "%s of %u: word %u counts as used and is empty\n", name, app, word);
        });
    });
}

static void check_online_app(report_t *report, zeb_ol_app_t *ol) ZEB_REQUIRES(g_lib_mutex)
{
    uint32_t app = ol->app_id;
    check_set(report, &ol->srv_bmp, "srv_bmp", app);
    check_set(report, &ol->inst_bmp, "inst_bmp", app);
    check_set(report, &ol->inst_ack_bmp, "inst_ack_bmp", app);
    check_set(report, &ol->ol_bmp, "ol_bmp", app);
    check_set(report, &ol->unreported_bmp, "unreported_bmp", app);
    zeb_app_set_each(&ol->ol_bmp, [&](uint32_t node) {
        expect(report, zeb_app_set_test(&ol->inst_bmp, node), "%u/%u is online and not known\n", app, node);
        expect(report, zeb_app_set_test(&ol->inst_ack_bmp, node), "%u/%u is online and has not acknowledged\n", app,
               node);
    });
    if (!list_is_whole(report, &ol->subscr_app_list, "subscr_app_list", app))
        return;
    expect(report, !list_empty(&ol->subscr_app_list), "%u has no subscriber\n", app);
    list_each<zeb_subscr_app_t>(&ol->subscr_app_list, [&](const zeb_subscr_app_t *subscr) {
        expect(report, zeb_get_app_mng(subscr->subscr_app) != nullptr, "%u has the unregistered subscriber %u\n", app,
               subscr->subscr_app);
    });
}

template <typename T>
static bool indexed_list_is_whole(report_t *report, const indexed_list<T> *records, const char *name, uint32_t app = 0)
{
    bool whole = list_is_whole(report, &records->list, name, app);
    if (whole)
        check_count(report, &records->list, indexed_list_num(records), name, app);
    return whole;
}

static void check_returned_acks(report_t *report) ZEB_REQUIRES(g_lib_mutex)
{
    struct list_head *head = &g_zeb_handshake.sync_inst_ack_list;
    if (!list_is_whole(report, head, "sync_inst_ack_list", 0))
        return;
    list_each<zeb_returned_ack_t>(head, [&](const zeb_returned_ack_t *ack) {
        const zeb_msg_hdr_t *hdr = &ack->msg->hdr;
        expect(report, hdr->len >= ZEB_MSG_HDR_LEN, "sync_inst_ack_list holds a message of %u bytes\n", hdr->len);
        expect(report, (hdr->flag & ZEB_MSG_FLAG_SYNC) != 0, "sync_inst_ack_list holds a message with flags 0x%x\n",
               hdr->flag);
    });
    check_count(report, head, g_zeb_handshake.sync_inst_ack_num, "sync_inst_ack_list", 0);
}

static void check_pairs(report_t *report) ZEB_REQUIRES(g_lib_mutex)
{
    if (indexed_list_is_whole(report, &g_zeb_handshake.inst_id, "inst_id_list")) {
        indexed_list_each(&g_zeb_handshake.inst_id, [&](const zeb_inst_id_t *id) {
            expect(report, zeb_get_app_mng(id->src_app) != nullptr, "a pair of the unregistered %u\n", id->src_app);
            expect(report, zeb_valid_node_id(id->dst.node), "a pair with node %u\n", id->dst.node);
        });
    }
    (void)indexed_list_is_whole(report, &g_zeb_handshake.inst_sync, "inst_sync_list");
    (void)indexed_list_is_whole(report, &g_zeb_handshake.inst_retry, "sync_inst_retry_list");
    (void)list_is_whole(report, &g_zeb_handshake.resume_comm_list, "resume_comm_list", 0);
    check_returned_acks(report);
}

static void check_flow_ctrl(report_t *report, zeb_fc_t *fc)
{
    zeb_scoped_lock lock(&fc->mutex);
    uint32_t app = fc->app_id;
    if (!indexed_list_is_whole(report, &fc->send_list, "send_list", app) ||
        !indexed_list_is_whole(report, &fc->recv_list, "recv_list", app))
        return;
    uint32_t sent = 0;
    uint32_t sent_unack = 0;
    int blocked = 0;
    indexed_list_each(&fc->send_list, [&](const zeb_send_app_fc_t *record) {
        sent += record->send;
        sent_unack += (uint32_t)record->unack;
        blocked += zeb_fc_past_window(record->unack) ? 1 : 0;
    });
    uint32_t received = 0;
    uint32_t received_unack = 0;
    indexed_list_each(&fc->recv_list, [&](const zeb_recv_app_fc_t *record) {
        received += record->recv;
        received_unack += (uint32_t)record->unack;
    });
    expect(report, fc->total_send == sent, "%u: sent %u in total, %u by peer\n", app, fc->total_send, sent);
    expect(report, (uint32_t)fc->total_send_unack + fc->unack_drift == sent_unack,
           "%u: unacknowledged %d in total with a drift of %u, %u by peer\n", app, fc->total_send_unack,
           fc->unack_drift, sent_unack);
    expect(report, fc->blocked_num.load() == blocked, "%u: counts %d blocked destinations, %d are\n", app,
           fc->blocked_num.load(), blocked);
    expect(report, fc->total_recv == received, "%u: received %u in total, %u by peer\n", app, fc->total_recv, received);
    expect(report, (uint32_t)fc->total_recv_unack == received_unack,
           "%u: received and unacknowledged %d in total, %u by peer\n", app, fc->total_recv_unack, received_unack);
}

static void check_mng_stat(report_t *report, zeb_mng_stat_t *stat)
{
    zeb_scoped_lock lock(&stat->mutex);
    uint32_t app = stat->app_id;
    if (!indexed_list_is_whole(report, &stat->send_list, "mng send_list", app) ||
        !indexed_list_is_whole(report, &stat->recv_list, "mng recv_list", app))
        return;
    uint32_t sent = 0;
    indexed_list_each(&stat->send_list, [&](const zeb_send_mng_stat_t *record) {
        sent += record->send_inst + record->send_inst_ack + record->send_inst_seq_ack;
    });
    uint32_t received = 0;
    indexed_list_each(&stat->recv_list, [&](const zeb_recv_mng_stat_t *record) {
        received += record->recv_inst + record->recv_inst_ack + record->recv_inst_seq_ack;
    });
    expect(report, stat->total_send == sent, "%u: %u synchronisations sent in total, %u by peer\n", app,
           stat->total_send, sent);
    expect(report, stat->total_recv == received, "%u: %u synchronisations received in total, %u by peer\n", app,
           stat->total_recv, received);
}

static void check_call(report_t *report, uint32_t app, const zeb_rpc_wait_t *wait)
{
    expect(report, wait->inst_num >= 0 && wait->inst_num <= ZEB_RPC_REPLY_NUM, "%u: a call of %d entries\n", app,
           wait->inst_num);
    int completed = 0;
    for (int i = 0; i < wait->inst_num && i < ZEB_RPC_REPLY_NUM; i++)
        completed += wait->wait_inst[i] == 0 ? 1 : 0;
    expect(report, wait->reply->num == completed, "%u: a call with %d entries completed and %d replies\n", app,
           completed, wait->reply->num);
    expect(report, wait->caller == 0 || syscall(SYS_tgkill, getpid(), wait->caller, 0) == 0,
           "%u: the caller of call %u is gone\n", app, wait->seq);
}

static void check_calls(report_t *report, zeb_app_rpc_wait_t *rpc)
{
    zeb_scoped_lock lock(&rpc->mutex);
    if (!indexed_list_is_whole(report, &rpc->wait_list, "wait_list", rpc->app_id))
        return;
    indexed_list_each(&rpc->wait_list, [&](const zeb_rpc_wait_t *wait) { check_call(report, rpc->app_id, wait); });
    if (!indexed_list_is_whole(report, &rpc->done_list, "done_list", rpc->app_id))
        return;
    indexed_list_each(&rpc->done_list, [&](const zeb_rpc_wait_t *wait) {
        check_call(report, rpc->app_id, wait);
        expect(report, wait->reply->num == wait->inst_num, "%u: call %u is done with %d of %d replies\n", rpc->app_id,
               wait->seq, wait->reply->num, wait->inst_num);
    });
}

static void check_groups(report_t *report, zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
{
    if (indexed_list_is_whole(report, &mc->app_mc_list, "app_mc_list", mc->app_id))
        expect(report, mc->app_mc_num == list_length(&mc->app_mc_list.list), "%u: counts %d application groups\n",
               mc->app_id, mc->app_mc_num);
    if (indexed_list_is_whole(report, &mc->node_mc_list, "node_mc_list", mc->app_id))
        expect(report, mc->node_mc_num == list_length(&mc->node_mc_list.list), "%u: counts %d node groups\n",
               mc->app_id, mc->node_mc_num);
}

static void check_app(report_t *report, zeb_app_info_t *info)
{
    {
        zeb_scoped_lock lock(&info->mutex);
        if (list_is_whole(report, &info->msg_list, "msg_list", info->app_id))
            check_count(report, &info->msg_list, (int)info->queue_num, "msg_list", info->app_id);
        expect(report, info->ready_fd == -1 || info->ready == (info->queue_num != 0),
               "%u: a polled queue of %u is %sreadable\n", info->app_id, info->queue_num, info->ready ? "" : "not ");
    }
    zeb_scoped_lock lock(info->mc.mutex);
    check_groups(report, &info->mc);
}

static void check_handshake(report_t *report)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    if (indexed_list_is_whole(report, &g_zeb_handshake.ol_app, "ol_app_list"))
        indexed_list_each(&g_zeb_handshake.ol_app,
                          [&](zeb_ol_app_t *ol) ZEB_NO_THREAD_SAFETY_ANALYSIS { check_online_app(report, ol); });
    check_pairs(report);
}

int zeb_check_invariants(char *text, size_t size)
{
    report_t report = {text, size, 0, 0};
    text[0] = '\0';
    check_handshake(&report);
    zeb_each_app_mng([&](const zeb_app_mng_t *slot) {
        check_app(&report, slot->info);
        check_flow_ctrl(&report, slot->fc);
        check_mng_stat(&report, slot->mng_stat);
        check_calls(&report, slot->rpc);
    });
    return report.broken;
}
