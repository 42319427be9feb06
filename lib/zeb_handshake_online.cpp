// The sets of online instances, and the decisions that change them: the join and the three kinds of quit.
#include <cstdlib>

#include "zeb_handshake_record.h"

zeb_ol_app_t *zeb_hs_get_ol_app(const zeb_handshake_t *hs, uint32_t app)
{
    return indexed_list_find(&hs->ol_app, app);
}

void zeb_hs_get_app_server(const zeb_handshake_t *hs, uint32_t app, zeb_app_set_t *ol_srv)
{
    ol_srv->blocks = 0;
    const zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, app);
    if (ol == nullptr)
        return;
    zeb_each_bit(ol->srv_bmp.blocks & ol->ol_bmp.blocks, 0, [&](uint32_t block) {
        uint64_t used = 0;
        zeb_each_bit(ol->srv_bmp.used[block] & ol->ol_bmp.used[block], block * 64, [&](uint32_t word) {
            ol_srv->bmp[word] = ol->srv_bmp.bmp[word] & ol->ol_bmp.bmp[word];
            used |= (uint64_t)(ol_srv->bmp[word] != 0) << (word % 64);
        });
        ol_srv->used[block] = used;
        ol_srv->blocks |= (uint32_t)(used != 0) << block;
    });
}

static bool has_server(const zeb_ol_app_t *ol)
{
    bool found = false;
    zeb_each_bit(ol->srv_bmp.blocks & ol->ol_bmp.blocks, 0, [&](uint32_t block) {
        uint64_t used = found ? 0 : ol->srv_bmp.used[block] & ol->ol_bmp.used[block];
        for (; used != 0 && !found; used &= used - 1) {
            uint32_t word = block * 64 + (uint32_t)__builtin_ctzll(used);
            found = (ol->srv_bmp.bmp[word] & ol->ol_bmp.bmp[word]) != 0;
        }
    });
    return found;
}

static bool is_server_on(const zeb_ol_app_t *ol, uint32_t node)
{
    return zeb_app_set_test(&ol->srv_bmp, node) && zeb_app_set_test(&ol->ol_bmp, node);
}

bool zeb_hs_get_app_server_on(const zeb_handshake_t *hs, uint32_t app, const uint32_t *nodes, int num,
                              zeb_app_set_t *ol_srv)
{
    ol_srv->blocks = 0;
    const zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, app);
    if (ol == nullptr)
        return false;
    if (num == 1 && is_server_on(ol, nodes[0])) { // the common case
        zeb_app_set_one(ol_srv, nodes[0]);
        return true;
    }
    for (int i = 0; i < num; i++) {
        if (is_server_on(ol, nodes[i]))
            (void)zeb_app_set_add(ol_srv, nodes[i]);
    }
    return ol_srv->blocks != 0 || has_server(ol);
}

zeb_inst_state_t zeb_hs_get_inst_state(const zeb_handshake_t *hs, zeb_inst_t inst)
{
    return zeb_ol_app_inst_state(zeb_hs_get_ol_app(hs, inst.app), inst.node);
}

// Each bit has one setter and one clearer.

void zeb_set_app_server(zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr || !zeb_app_set_add(&ol->srv_bmp, inst.node))
        HS_ERROR(hs, "ZEB get app %d online status for server setting failed.\n", inst.app);
}

void zeb_set_app_inst(zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr || !zeb_app_set_add(&ol->inst_bmp, inst.node))
        HS_ERROR(hs, "ZEB get app %d online status for inst setting failed.\n", inst.app);
}

void zeb_set_app_inst_ack(zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr || !zeb_app_set_add(&ol->inst_ack_bmp, inst.node))
        HS_ERROR(hs, "ZEB get app %d online status for inst ack setting failed.\n", inst.app);
}

static void forget_inst(zeb_ol_app_t *ol, uint32_t node)
{
    zeb_app_set_del(&ol->inst_bmp, node);
}

static void forget_inst_ack(zeb_ol_app_t *ol, uint32_t node)
{
    zeb_app_set_del(&ol->inst_ack_bmp, node);
}

static void set_online(zeb_handshake_t *hs, zeb_ol_app_t *ol, uint32_t node)
{
    HS_INFO(hs, "ZEB set app %d/%d online.\n", ol->app_id, node);
    (void)zeb_app_set_add(&ol->ol_bmp, node);
}

static void clear_online(zeb_handshake_t *hs, zeb_ol_app_t *ol, uint32_t node)
{
    HS_INFO(hs, "ZEB clear app %d/%d online.\n", ol->app_id, node);
    zeb_app_set_del(&ol->ol_bmp, node);
}

// Clears the server bit and returns whether it was set, so only the first subscriber that asks gets true.
static bool take_server(zeb_ol_app_t *ol, uint32_t node)
{
    bool server = zeb_app_set_test(&ol->srv_bmp, node);
    zeb_app_set_del(&ol->srv_bmp, node);
    return server;
}

// What a new topology connection has yet to report.

static void add_nodes(zeb_app_set_t *to, const zeb_app_set_t *from)
{
    zeb_app_set_each(from, [&](uint32_t node) { (void)zeb_app_set_add(to, node); });
}

void zeb_expect_reports(zeb_handshake_t *hs)
{
    indexed_list_each(&hs->ol_app, [](zeb_ol_app_t *ol) {
        add_nodes(&ol->unreported_bmp, &ol->inst_bmp);
        add_nodes(&ol->unreported_bmp, &ol->inst_ack_bmp);
    });
    indexed_list_each(&hs->inst_sync, [&](const zeb_pending_sync_t *pending) {
        zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, pending->dst.app);
        if (ol != nullptr)
            (void)zeb_app_set_add(&ol->unreported_bmp, pending->dst.node);
    });
}

bool zeb_take_unreported(zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr || !zeb_app_set_test(&ol->unreported_bmp, inst.node))
        return false;
    zeb_app_set_del(&ol->unreported_bmp, inst.node);
    return true;
}

// Join.

void zeb_try_notify_app_join(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t inst)
{
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr) {
        HS_ERROR(hs, "ZEB get app %d online status failed.\n", inst.app);
        return;
    }
    if (zeb_app_set_test(&ol->ol_bmp, inst.node) || !zeb_app_set_test(&ol->inst_bmp, inst.node) ||
        !zeb_app_set_test(&ol->inst_ack_bmp, inst.node))
        return;
    if (!zeb_inst_id_equal(hs, my_app, inst)) {
        HS_WARN(hs, "ZEB app %d to %d/%d instance id not equal.\n", my_app, inst.app, inst.node);
        forget_inst(ol, inst.node);
        return;
    }
    set_online(hs, ol, inst.node);
    if (zeb_app_set_test(&ol->srv_bmp, inst.node))
        hs->effects->notify_join(hs->ctx, my_app, inst);
}

// Quit.

// All subscribers share the server bit. Only the first one that finds it set is notified of the quit, just as only the
// one whose handshake completed first was notified of the join.
static void quit_online(zeb_handshake_t *hs, zeb_ol_app_t *ol, zeb_inst_t inst)
{
    zeb_clear_sync_inst_retry(hs, inst);
    zeb_clear_inst_id(hs, inst);
    clear_online(hs, ol, inst.node);
    forget_inst(ol, inst.node);
    forget_inst_ack(ol, inst.node);
    zeb_each_subscr_app(ol, [&](uint32_t subscr) {
        hs->effects->forget_peer(hs->ctx, subscr, inst, true);
        if (!take_server(ol, inst.node))
            return;
        hs->effects->end_calls(hs->ctx, subscr, inst);
        HS_INFO(hs, "ZEB notify app %d of %d/%d quit.\n", subscr, inst.app, inst.node);
        hs->effects->notify_quit(hs->ctx, subscr, inst);
    });
}

typedef enum quit_kind_e : int {
    QUIT_WITHDRAWN, // an instance that is not online keeps its inst bit
    QUIT_FORCED,
} quit_kind_t;

static void quit_not_online(zeb_handshake_t *hs, zeb_ol_app_t *ol, zeb_inst_t inst, quit_kind_t kind)
{
    forget_inst_ack(ol, inst.node);
    if (kind == QUIT_FORCED)
        forget_inst(ol, inst.node);
    zeb_each_subscr_app(ol, [&](uint32_t subscr) {
        hs->effects->forget_peer(hs->ctx, subscr, inst, false);
        if (take_server(ol, inst.node))
            hs->effects->end_calls(hs->ctx, subscr, inst);
    });
}

static void quit_instance(zeb_handshake_t *hs, zeb_inst_t inst, quit_kind_t kind)
{
    zeb_clear_sync_inst(hs, inst);
    zeb_clear_resume_comm(hs, inst, ZEB_RESUME_UNSENT);
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr)
        return;
    if (zeb_app_set_test(&ol->ol_bmp, inst.node))
        quit_online(hs, ol, inst);
    else
        quit_not_online(hs, ol, inst, kind);
}

void zeb_app_inst_quit(zeb_handshake_t *hs, zeb_inst_t inst)
{
    quit_instance(hs, inst, QUIT_WITHDRAWN);
}

void zeb_app_inst_force_quit(zeb_handshake_t *hs, zeb_inst_t inst)
{
    quit_instance(hs, inst, QUIT_FORCED);
}

void zeb_app_inst_try_quit(zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_clear_resume_comm(hs, inst, ZEB_RESUME_PEER);
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol != nullptr && zeb_app_set_test(&ol->ol_bmp, inst.node))
        quit_online(hs, ol, inst);
}

// Who talks to whom.

zeb_subscr_app_t *zeb_find_subscr_app(zeb_ol_app_t *ol, uint32_t subscr_app)
{
    return list_find<zeb_subscr_app_t>(
        &ol->subscr_app_list, [&](const zeb_subscr_app_t *subscr) { return subscr->subscr_app == subscr_app; });
}

static zeb_ol_app_t *new_ol_app(uint32_t app)
{
    zeb_ol_app_t *ol = (zeb_ol_app_t *)zeb_malloc(sizeof(zeb_ol_app_t));
    ol->app_id = app;
    INIT_LIST_HEAD(&ol->subscr_app_list);
    return ol;
}

static zeb_subscr_app_t *new_subscr_app(uint32_t app)
{
    zeb_subscr_app_t *subscr = (zeb_subscr_app_t *)zeb_malloc(sizeof(zeb_subscr_app_t));
    subscr->subscr_app = app;
    return subscr;
}

void zeb_hs_add_comm_app(zeb_handshake_t *hs, uint32_t src_app, uint32_t dst_app)
{
    HS_INFO(hs, "ZEB app %d add comm with %d.\n", src_app, dst_app);
    zeb_ol_app_t *ol = indexed_list_find_or_create(&hs->ol_app, dst_app, [&] {
        hs->ol_app_changes.fetch_add(1, std::memory_order_release);
        return new_ol_app(dst_app);
    });
    (void)list_find_or_create<zeb_subscr_app_t>(
        &ol->subscr_app_list, [&](const zeb_subscr_app_t *subscr) { return subscr->subscr_app == src_app; },
        [&] { return new_subscr_app(src_app); });
    HS_INFO(hs, "ZEB app %d add comm with %d OK.\n", src_app, dst_app);
}

void zeb_hs_del_comm_app(zeb_handshake_t *hs, uint32_t src_app)
{
    indexed_list_each(&hs->ol_app, [&](zeb_ol_app_t *ol) {
        zeb_subscr_app_t *subscr = zeb_find_subscr_app(ol, src_app);
        if (subscr != nullptr) {
            list_del(&subscr->list);
            free(subscr);
        }
        if (!list_empty(&ol->subscr_app_list))
            return;
        hs->effects->unsubscribe(hs->ctx, ol->app_id);
        hs->ol_app_changes.fetch_add(1, std::memory_order_release);
        indexed_list_remove(&hs->ol_app, ol);
        free(ol);
    });
}
