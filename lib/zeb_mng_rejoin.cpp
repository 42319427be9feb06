// Instances whose report is not enough: every 5 s a synchronisation with the resume mark, until the instance is online
// or withdrawn. Quits and joins in between leave the occasion alone: the
// request itself makes them.
#include "zeb_mng_rejoin.h"

#include <cstdlib>

#include "platform/list_algo.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_online.h"
#include "zeb_mng_sync.h"
#include "zeb_mng_timer.h"

static void remove_rejoin(uint32_t app, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    (void)list_remove_matching<zeb_rejoin_t>(
        &g_zeb_mng.rejoin_list, [&](const zeb_rejoin_t *rejoin) { return rejoin->app == app && rejoin->node == node; });
}

bool zeb_has_rejoin(uint32_t app, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return list_find<zeb_rejoin_t>(&g_zeb_mng.rejoin_list, [&](const zeb_rejoin_t *rejoin) {
               return rejoin->app == app && rejoin->node == node;
           }) != nullptr;
}

void zeb_forget_rejoin(uint32_t app, uint32_t node)
{
    remove_rejoin(app, node);
}

void zeb_rejoin_later(uint32_t app, uint32_t node)
{
    remove_rejoin(app, node);
    uint32_t seq = zeb_get_seq();
    if (zeb_subscr_timer_event(ZEB_REJOIN_TIMEOUT, {ZEB_TIMER_TYPE_RESUME, seq}) != 0)
        return;
    zeb_rejoin_t *rejoin = (zeb_rejoin_t *)zeb_malloc(sizeof(zeb_rejoin_t));
    rejoin->seq = seq;
    rejoin->app = app;
    rejoin->node = node;
    zeb_scoped_lock lock(&g_lib_mutex);
    list_add_tail(&rejoin->list, &g_zeb_mng.rejoin_list);
}

// A peer that was online with us forgets our identity when it begins anew, and then us, with our acknowledgement. A
// further synchronisation makes such a peer begin once more; one that is online takes it for a repetition. And it goes
// to those that the first one did not reach.
static void synchronise_again(uint32_t app, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_ol_app_t *ol = __zeb_get_ol_app(app);
    if (ol == nullptr)
        return;
    list_each<zeb_subscr_app_t>(&ol->subscr_app_list, [&](const zeb_subscr_app_t *subscr) {
        (void)zeb_sync_app_inst(subscr->subscr_app, node, app, zeb_is_app_server(subscr->subscr_app) ? 1 : 0, 0);
    });
}

bool zeb_process_rejoin_timer_event(uint32_t seq)
{
    zeb_rejoin_t *rejoin = nullptr;
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        rejoin = list_take_first<zeb_rejoin_t>(&g_zeb_mng.rejoin_list,
                                               [&](const zeb_rejoin_t *record) { return record->seq == seq; });
    }
    if (rejoin == nullptr)
        return false;
    uint32_t app = rejoin->app;
    uint32_t node = rejoin->node;
    free(rejoin);
    if (zeb_app_online(app, node)) {
        synchronise_again(app, node);
        return true;
    }
    ZEB_WARN("ZEB rejoin app %d/%d.\n", app, node);
    zeb_app_inst_force_quit(app, node);
    zeb_app_inst_join(app, node, 1);
    zeb_rejoin_later(app, node);
    return true;
}
