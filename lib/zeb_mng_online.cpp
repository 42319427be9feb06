// Which instances of which applications are online: the node sets, the topology events, join and quit.
// Topology events, setters, join and quit run on the receive thread, queries on any; g_lib_mutex guards the records.
// The state table is in the header. Quit events are gathered under the lock and queued once it is released, in order.
//
// Each bit has one setter and one clearer: srv_bmp zeb_set_app_server and take_server; inst_bmp zeb_set_app_inst and
// forget_inst; inst_ack_bmp zeb_set_app_inst_ack and forget_inst_ack; ol_bmp set_online and clear_online.
#include "zeb_mng_online.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

#include "platform/list_algo.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_rejoin.h"
#include "zeb_mng_sync.h"
#include "zeb_mng_timer.h"
#include "zeb_rpc.h"

zeb_ol_app_t *__zeb_get_ol_app(uint32_t app)
{
    return list_index_find<zeb_ol_app_t>(&g_zeb_mng.ol_app_index, app);
}

void zeb_get_app_server(uint32_t app, zeb_app_set_t *ol_srv)
{
    ol_srv->blocks = 0;
    zeb_scoped_lock lock(&g_lib_mutex);
    const zeb_ol_app_t *ol = __zeb_get_ol_app(app);
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

bool zeb_get_app_server_on(uint32_t app, const uint32_t *nodes, int num, zeb_app_set_t *ol_srv)
{
    ol_srv->blocks = 0;
    zeb_scoped_lock lock(&g_lib_mutex);
    const zeb_ol_app_t *ol = __zeb_get_ol_app(app);
    if (ol == nullptr)
        return false;
    for (int i = 0; i < num; i++) {
        if (zeb_app_set_test(&ol->srv_bmp, nodes[i]) && zeb_app_set_test(&ol->ol_bmp, nodes[i]))
            (void)zeb_app_set_add(ol_srv, nodes[i]);
    }
    return ol_srv->blocks != 0 || has_server(ol);
}

bool zeb_has_app_server(const zeb_app_set_t *ol_srv)
{
    return ol_srv->blocks != 0;
}

zeb_inst_state_t zeb_get_inst_state(uint32_t app, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    const zeb_ol_app_t *ol = __zeb_get_ol_app(app);
    if (ol == nullptr)
        return {false, false};
    return {zeb_app_set_test(&ol->inst_bmp, node), zeb_app_set_test(&ol->ol_bmp, node)};
}

bool zeb_app_online(uint32_t app, uint32_t node)
{
    return zeb_get_inst_state(app, node).online;
}

bool zeb_app_instance(uint32_t app, uint32_t node)
{
    return zeb_get_inst_state(app, node).instance;
}

void zeb_set_app_server(uint32_t app, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_ol_app_t *ol = __zeb_get_ol_app(app);
    if (ol == nullptr || !zeb_app_set_add(&ol->srv_bmp, node))
        ZEB_ERROR("ZEB get app %d online status for server setting failed.\n", app);
}

void zeb_set_app_inst(uint32_t app, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_ol_app_t *ol = __zeb_get_ol_app(app);
    if (ol == nullptr || !zeb_app_set_add(&ol->inst_bmp, node))
        ZEB_ERROR("ZEB get app %d online status for inst setting failed.\n", app);
}

void zeb_set_app_inst_ack(uint32_t app, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_ol_app_t *ol = __zeb_get_ol_app(app);
    if (ol == nullptr || !zeb_app_set_add(&ol->inst_ack_bmp, node))
        ZEB_ERROR("ZEB get app %d online status for inst ack setting failed.\n", app);
}

static void forget_inst(zeb_ol_app_t *ol, uint32_t node)
{
    zeb_app_set_del(&ol->inst_bmp, node);
}

static void forget_inst_ack(zeb_ol_app_t *ol, uint32_t node)
{
    zeb_app_set_del(&ol->inst_ack_bmp, node);
}

static void set_online(zeb_ol_app_t *ol, uint32_t node)
{
    ZEB_INFO("ZEB set app %d/%d online.\n", ol->app_id, node);
    (void)zeb_app_set_add(&ol->ol_bmp, node);
}

static void clear_online(zeb_ol_app_t *ol, uint32_t node)
{
    ZEB_INFO("ZEB clear app %d/%d online.\n", ol->app_id, node);
    zeb_app_set_del(&ol->ol_bmp, node);
}

// Clears the server bit; true when it was set. The first subscriber that asks gets the answer.
static bool take_server(zeb_ol_app_t *ol, uint32_t node)
{
    bool server = zeb_app_set_test(&ol->srv_bmp, node);
    zeb_app_set_del(&ol->srv_bmp, node);
    return server;
}

static void queue_event(uint32_t my_app, zeb_msg_t *msg)
{
    if (zeb_enqueue_event_msg(my_app, msg) != 0)
        free(msg);
}

void zeb_try_notify_app_join(uint32_t my_app, uint32_t inst_node, uint32_t inst_app)
{
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        zeb_ol_app_t *ol = __zeb_get_ol_app(inst_app);
        if (ol == nullptr) {
            ZEB_ERROR("ZEB get app %d online status failed.\n", inst_app);
            return;
        }
        if (zeb_app_set_test(&ol->ol_bmp, inst_node) || !zeb_app_set_test(&ol->inst_bmp, inst_node) ||
            !zeb_app_set_test(&ol->inst_ack_bmp, inst_node))
            return;
        if (!__zeb_inst_id_equal(my_app, inst_app, inst_node)) {
            ZEB_WARN("ZEB app %d to %d/%d instance id not equal.\n", my_app, inst_app, inst_node);
            forget_inst(ol, inst_node);
            return;
        }
        set_online(ol, inst_node);
        if (!zeb_app_set_test(&ol->srv_bmp, inst_node))
            return;
    }
    zeb_fc_adjust_statistics(my_app, inst_app, inst_node);
    queue_event(my_app, zeb_new_event_msg(my_app, ZEB_APP_JOIN, inst_node, inst_app));
}

static zeb_subscr_app_t *find_subscr_app(zeb_ol_app_t *ol, uint32_t subscr_app)
{
    return list_find<zeb_subscr_app_t>(
        &ol->subscr_app_list, [&](const zeb_subscr_app_t *subscr) { return subscr->subscr_app == subscr_app; });
}

zeb_subscr_app_t *__zeb_get_subscr_app(uint32_t subscr_app, uint32_t ntf_app)
{
    zeb_ol_app_t *ol = __zeb_get_ol_app(ntf_app);
    return ol == nullptr ? nullptr : find_subscr_app(ol, subscr_app);
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

int __zeb_add_comm_app(uint32_t src_app, uint32_t dst_app)
{
    ZEB_INFO("ZEB app %d add comm with %d.\n", src_app, dst_app);
    zeb_ol_app_t *ol = list_index_find_or_create<zeb_ol_app_t>(&g_zeb_mng.ol_app_list, &g_zeb_mng.ol_app_index, dst_app,
                                                               [&] { return new_ol_app(dst_app); });
    (void)list_find_or_create<zeb_subscr_app_t>(
        &ol->subscr_app_list, [&](const zeb_subscr_app_t *subscr) { return subscr->subscr_app == src_app; },
        [&] { return new_subscr_app(src_app); });
    ZEB_INFO("ZEB app %d add comm with %d OK.\n", src_app, dst_app);
    return 0;
}

int zeb_add_comm_app(uint32_t src_app, uint32_t dst_app)
{
    if (zeb_get_app_info(src_app) == nullptr) {
        ZEB_ERROR("ZEB app %d does not registered.\n", src_app);
        return -ENOENT;
    }
    zeb_scoped_lock lock(&g_lib_mutex);
    return __zeb_add_comm_app(src_app, dst_app);
}

void zeb_del_comm_app(uint32_t src_app)
{
    list_each<zeb_ol_app_t>(&g_zeb_mng.ol_app_list, [&](zeb_ol_app_t *ol) {
        zeb_subscr_app_t *subscr = find_subscr_app(ol, src_app);
        if (subscr != nullptr) {
            list_del(&subscr->list);
            free(subscr);
        }
        if (!list_empty(&ol->subscr_app_list))
            return;
        (void)zeb_unsubscr_app_events(zeb_tipc_instance(ol->app_id, 0), zeb_tipc_instance(ol->app_id, 0xFFFF));
        list_index_remove(&g_zeb_mng.ol_app_index, ol);
        free(ol);
    });
}

int zeb_send_subscription(const struct tipc_subscr *request)
{
    static_assert(sizeof(*request) == 28, "a topology subscription has 28 bytes");
    ssize_t sent = 0;
    do {
        sent = send(g_zeb_mng.subscr_sd, request, sizeof(*request), MSG_NOSIGNAL);
        if (sent == (ssize_t)sizeof(*request))
            return 0;
    } while (errno == EINTR || errno == ENOMEM || errno == ENOBUFS);
    return -1;
}

static struct tipc_subscr app_subscription(uint32_t lower, uint32_t upper, uint32_t timeout, uint32_t filter)
{
    struct tipc_subscr request;
    memset(&request, 0, sizeof(request));
    request.seq.type = ZEB_TIPC_NAME_TYPE;
    request.seq.lower = lower;
    request.seq.upper = upper;
    request.timeout = timeout;
    request.filter = filter;
    return request;
}

int zeb_subscr_app_events(uint32_t lower, uint32_t upper, uint32_t timeout)
{
    struct tipc_subscr request = app_subscription(lower, upper, timeout, TIPC_SUB_SERVICE);
    ZEB_INFO("ZEB subscribe TIPC instance [0x%x, 0x%x] event.\n", lower, upper);
    if (zeb_send_subscription(&request) == 0)
        return 0;
    ZEB_ERROR("ZEB send subscription msg failed: %s.\n,", strerror(errno));
    return -1;
}

int zeb_unsubscr_app_events(uint32_t lower, uint32_t upper)
{
    struct tipc_subscr request = app_subscription(lower, upper, 0, TIPC_SUB_SERVICE | TIPC_SUB_CANCEL);
    ZEB_INFO("ZEB cancel TIPC subscription instance [0x%x, 0x%x] event.\n", lower, upper);
    if (zeb_send_subscription(&request) == 0)
        return 0;
    ZEB_ERROR("ZEB send canceling subscription msg failed: %s.\n,", strerror(errno));
    return -1;
}

void zeb_subscr_tipc_events()
{
    zeb_scoped_lock lock(&g_lib_mutex);
    list_each<zeb_ol_app_t>(&g_zeb_mng.ol_app_list, [](const zeb_ol_app_t *ol) {
        (void)zeb_subscr_app_events(zeb_tipc_instance(ol->app_id, 0), zeb_tipc_instance(ol->app_id, 0xFFFF),
                                    (uint32_t)TIPC_WAIT_FOREVER);
    });
}

// Calls visit(app, node) for each instance of the range, ascending; a range up to the highest number ends as well.
template <typename Visit>
static void each_instance(uint32_t lower, uint32_t upper, Visit visit)
{
    for (uint64_t i = lower; i <= upper; i++)
        visit((uint32_t)(i >> 16), (uint32_t)(i & 0xFFFF));
}

static void instances_published(uint32_t lower, uint32_t upper)
{
    ZEB_VERBOSE("ZEB perceived app [0x%x, 0x%x] join.\n", lower, upper);
    each_instance(lower, upper, [](uint32_t app, uint32_t node) {
        ZEB_WARN("ZEB perceived app %d/%d join.\n", app, node);
        // A timer of the last report may have been lost with a further connection.
        bool known = zeb_has_rejoin(app, node) || (g_zeb_mng.subscr_reopened && zeb_app_instance(app, node));
        zeb_app_inst_force_quit(app, node);
        bool sent = zeb_synchronise(app, node, 0);
        if (known || !sent)
            zeb_rejoin_later(app, node);
    });
}

static void instances_withdrawn(uint32_t lower, uint32_t upper)
{
    ZEB_VERBOSE("ZEB perceived app [0x%x, 0x%x] quit.\n", lower, upper);
    each_instance(lower, upper, [](uint32_t app, uint32_t node) {
        ZEB_WARN("ZEB perceived app %d/%d quit.\n", app, node);
        zeb_forget_rejoin(app, node);
        zeb_app_inst_quit(app, node);
    });
}

// An event names the whole published range, also where it goes beyond what was subscribed to. Anybody may publish all
// there is: the instances of other applications are passed over, not walked.
static void clip_to_subscription(struct tipc_event *event)
{
    const struct tipc_service_range *asked = &event->s.seq;
    if (asked->type != ZEB_TIPC_NAME_TYPE)
        return;
    if (event->found_lower < asked->lower)
        event->found_lower = asked->lower;
    if (event->found_upper > asked->upper)
        event->found_upper = asked->upper;
}

void zeb_process_tipc_subscr_event(struct tipc_event event)
{
    zeb_timer_t timer;
    clip_to_subscription(&event);
    switch (event.event) {
    case TIPC_PUBLISHED:
        instances_published(event.found_lower, event.found_upper);
        return;
    case TIPC_WITHDRAWN:
        instances_withdrawn(event.found_lower, event.found_upper);
        return;
    case TIPC_SUBSCR_TIMEOUT:
        memcpy(&timer, event.s.usr_handle, sizeof(timer));
        zeb_process_tipc_timer_event(timer);
        return;
    default:
        return;
    }
}

template <typename Visit>
static void each_subscr_app(zeb_ol_app_t *ol, Visit visit)
{
    list_each<zeb_subscr_app_t>(&ol->subscr_app_list,
                                [&](const zeb_subscr_app_t *subscr) { visit(subscr->subscr_app); });
}

// The server bit is shared: only the first subscriber that finds it set has the quit event put on `events`, as only the
// one whose handshake completed first saw the join.
static void __zeb_app_inst_quit(zeb_ol_app_t *ol, uint32_t app, uint32_t node, struct list_head *events)
    ZEB_REQUIRES(g_lib_mutex)
{
    __zeb_clear_sync_inst_retry(app, node);
    __zeb_clear_inst_id(app, node);
    clear_online(ol, node);
    forget_inst(ol, node);
    forget_inst_ack(ol, node);
    each_subscr_app(ol, [&](uint32_t subscr) {
        zeb_fc_reset_unack(subscr, app, node);
        zeb_clean_mng_msg_stat(subscr, app, node);
        zeb_discard_app_msg(subscr, app, node);
        if (!take_server(ol, node))
            return;
        (void)zeb_terminate_rpc(subscr, app, node);
        ZEB_INFO("ZEB notify app %d of %d/%d quit.\n", subscr, app, node);
        zeb_msg_t *msg = zeb_new_event_msg(subscr, ZEB_APP_QUIT, node, app);
        list_add_tail(&msg->list, events);
    });
}

// Queues what was gathered under the lock. To be called without it: an application without a proxy thread has its
// callback run at once.
static void queue_events(struct list_head *events)
{
    list_each<zeb_msg_t>(events, [](zeb_msg_t *msg) {
        list_del(&msg->list);
        zeb_event_t event;
        memcpy(&event, msg->data, sizeof(event));
        queue_event(event.my_app, msg);
    });
}

typedef enum quit_kind_e : int {
    QUIT_WITHDRAWN, // an instance that is not online keeps its inst bit
    QUIT_FORCED,
} quit_kind_t;

static void quit_not_online(zeb_ol_app_t *ol, uint32_t node, quit_kind_t kind)
{
    forget_inst_ack(ol, node);
    if (kind == QUIT_FORCED)
        forget_inst(ol, node);
    each_subscr_app(ol, [&](uint32_t subscr) {
        zeb_fc_reset_unack(subscr, ol->app_id, node);
        if (take_server(ol, node))
            (void)zeb_terminate_rpc(subscr, ol->app_id, node);
    });
}

static void quit_instance(uint32_t app, uint32_t node, quit_kind_t kind)
{
    struct list_head events;
    INIT_LIST_HEAD(&events);
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        __zeb_clear_sync_inst_msg(app, node);
        __zeb_clear_resume_comm(app, node);
        zeb_ol_app_t *ol = __zeb_get_ol_app(app);
        if (ol == nullptr)
            return;
        if (zeb_app_set_test(&ol->ol_bmp, node))
            __zeb_app_inst_quit(ol, app, node, &events);
        else
            quit_not_online(ol, node, kind);
    }
    queue_events(&events);
}

void zeb_app_inst_quit(uint32_t app, uint32_t node)
{
    quit_instance(app, node, QUIT_WITHDRAWN);
}

void zeb_app_inst_force_quit(uint32_t app, uint32_t node)
{
    quit_instance(app, node, QUIT_FORCED);
}

void zeb_app_inst_try_quit(uint32_t app, uint32_t node)
{
    struct list_head events;
    INIT_LIST_HEAD(&events);
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        __zeb_clear_resume_comm(app, node);
        zeb_ol_app_t *ol = __zeb_get_ol_app(app);
        if (ol != nullptr && zeb_app_set_test(&ol->ol_bmp, node))
            __zeb_app_inst_quit(ol, app, node, &events);
    }
    queue_events(&events);
}
