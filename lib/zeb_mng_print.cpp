// Listings of the library's state and of the applications' records in the print buffer, for the monitor timer and
// management requests, and the reply to these requests. They run on the receive thread; each takes the lock of what it
// lists.
#include <cerrno>

#include <zeb/zeb_diag.h>

#include "platform/list_algo.h"
#include "zeb_app_info.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_gate.h"
#include "zeb_handshake_shell.h"
#include "zeb_rpc.h"
#include "zeb_slot.h"

// Prints, for each application, the nodes of one of its sets.
static void print_sets(const char *what, zeb_app_set_t zeb_ol_app_t::*set) ZEB_REQUIRES(g_lib_mutex)
{
    indexed_list_each(&g_zeb_handshake.ol_app, [&](zeb_ol_app_t *ol) {
        zeb_buf_printf("    Application %d %s on nodes:", ol->app_id, what);
        zeb_app_set_each(&(ol->*set), [](uint32_t node) { zeb_buf_printf(" %d", node); });
        zeb_buf_printf("\n");
    });
}

static void print_subscribers() ZEB_REQUIRES(g_lib_mutex)
{
    zeb_buf_printf("  Online application subscribers:\n");
    indexed_list_each(&g_zeb_handshake.ol_app, [](zeb_ol_app_t *ol) {
        zeb_buf_printf("    Application %d subscribed by applications:", ol->app_id);
        list_each<zeb_subscr_app_t>(&ol->subscr_app_list,
                                    [](const zeb_subscr_app_t *subscr) { zeb_buf_printf(" %d", subscr->subscr_app); });
        zeb_buf_printf("\n");
    });
}

// Prints the title and the entries of a list, or nothing for an empty list.
template <typename T, typename PrintEntry>
static void print_pending(const char *title, struct list_head *head, PrintEntry print_entry)
{
    if (list_empty(head))
        return;
    zeb_buf_printf("%s", title);
    list_each<T>(head, print_entry);
    zeb_buf_printf("\n");
}

void zeb_cli_print_lib_info(uint32_t app)
{
    zeb_call_t entered("zeb_cli_print_lib_info");
    if (entered.refused() != 0)
        return;
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_buf_printf("Application %d/%d process's ZEB library information:\n", app, zeb_get_my_node_id());
    zeb_buf_printf("  ZEB library thread 0x%x, subscription socket %d\n", (unsigned)g_zeb_mng.lib_tid,
                   g_zeb_mng.subscr_sd);
    zeb_buf_printf("  Applications in this process:");
    zeb_each_app_mng([](const zeb_app_mng_t *slot) { zeb_buf_printf(" %d", slot->app_id.load()); });
    zeb_buf_printf("\n");

    zeb_buf_printf("  Online application servers:\n");
    print_sets("server", &zeb_ol_app_t::srv_bmp);
    print_subscribers();
    zeb_buf_printf("  Online application instances:\n");
    print_sets("instance", &zeb_ol_app_t::inst_bmp);
    zeb_buf_printf("  Online application instances acked:\n");
    print_sets("instance acked", &zeb_ol_app_t::inst_ack_bmp);
    zeb_buf_printf("  Online application instances online:\n");
    print_sets("instance online", &zeb_ol_app_t::ol_bmp);

    print_pending<zeb_pending_sync_t>("  Unack instance sync(src_app/seq->dst_app/dst_node):\n   ",
                                      &g_zeb_handshake.inst_sync.list, [](const zeb_pending_sync_t *pending) {
                                          zeb_buf_printf(" %d/%d->%d/%d", pending->src_app, pending->body.seq,
                                                         pending->dst.app, pending->dst.node);
                                      });
    print_pending<zeb_resume_comm_t>("  Communication resume info(src_app/seq->dst_app/dst_node):\n   ",
                                     &g_zeb_handshake.resume_comm_list, [](const zeb_resume_comm_t *resume) {
                                         zeb_buf_printf(" %d/%d->%d/%d", resume->src_app, resume->seq, resume->dst.app,
                                                        resume->dst.node);
                                     });
    print_pending<zeb_returned_ack_t>("  Resend instance sync ack(src_app->dst_app/dst_node/seq):\n   ",
                                      &g_zeb_handshake.sync_inst_ack_list, [](const zeb_returned_ack_t *ack) {
                                          zeb_buf_printf(" %d->%d/%d/%d", ack->src_app, ack->dst.app, ack->dst.node,
                                                         ack->sync_seq);
                                      });
}

void zeb_cli_print_app_comm(uint32_t src_app)
{
    zeb_call_t entered("zeb_cli_print_app_comm");
    if (entered.refused() != 0)
        return;
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_buf_printf("  Communication peer applications:");
    indexed_list_each(&g_zeb_handshake.ol_app, [&](zeb_ol_app_t *ol) {
        list_each<zeb_subscr_app_t>(&ol->subscr_app_list, [&](const zeb_subscr_app_t *subscr) {
            if (subscr->subscr_app == src_app)
                zeb_buf_printf(" %d", ol->app_id);
        });
    });
    zeb_buf_printf("\n");
}

void zeb_cli_print_app_info(uint32_t app)
{
    zeb_call_t entered("zeb_cli_print_app_info");
    if (entered.refused() != 0)
        return;
    zeb_app_info_t *app_info = zeb_get_app_info(app);
    if (app_info == nullptr)
        return;
    {
        zeb_scoped_lock lock(&app_info->mutex);
        zeb_buf_printf("Application %d/%d [%s] information:\n", app, zeb_get_my_node_id(), app_info->name);
        zeb_buf_printf("  Proxy thread 0x%x, socket %d, priority %d\n", (unsigned)app_info->tid, app_info->sd,
                       app_info->priority);
        zeb_buf_printf("  Callback functions: event %p, message dispatchers:\n  ", (void *)app_info->event_fun);
        for (const zeb_msg_dispatcher_t *row = app_info->dispatcher; row->ver != 0; row++)
            zeb_buf_printf("  version %d %p", row->ver, (void *)row->fun);
        zeb_buf_printf("\n");
    }
    zeb_cli_print_app_comm(app);
    {
        zeb_scoped_lock lock(&app_info->mutex);
        zeb_buf_printf("  Unprocessed message number %d\n\n", list_length(&app_info->msg_list));
    }
    zeb_scoped_lock lock(app_info->mc.mutex);
    zeb_cli_print_mc_info(&app_info->mc);
}

int zeb_buf_printf_reply(const zeb_msg_t *request)
{
    zeb_call_t entered("zeb_rpc_reply");
    if (entered.refused() != 0)
        return entered.refused();
    return zeb_rpc_answer(request, g_print_msg, 0);
}
