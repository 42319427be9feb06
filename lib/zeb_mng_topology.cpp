#include "zeb_mng_topology.h"

#include <cstring>
#include <ctime>
#include <sys/socket.h>

#include "zeb_app_info.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_error.h"
#include "zeb_handshake_shell.h"
#include "zeb_slot.h"
#include "zeb_tipc.h"

// Calls visit(instance) for each instance of the range, ascending. The counter has 64 bits, so that a range up to the
// highest number ends too.
template <typename Visit>
static void each_instance(const struct tipc_event *event, Visit visit)
{
    for (uint64_t i = event->found_lower; i <= event->found_upper; i++)
        visit(zeb_inst_t{(uint32_t)(i >> 16), (uint32_t)(i & 0xFFFF)});
}

static void say_shared_name(zeb_inst_t inst, const struct tipc_portid *other, const struct tipc_portid *own)
{
    if (other->node == own->node)
        ZEB_SAY_UNHANDLED("zeb: another process of node %u has registered application %u already: end one of them, or "
                          "give it another id. Type: tipc socket list",
                          inst.node, inst.app);
    else
        ZEB_SAY_UNHANDLED("zeb: two nodes have the node id %u, and application %u runs on both: give each node an id "
                          "of its own in %s",
                          inst.node, inst.app, ZEB_NODE_ADDR_FILE);
}

// The publication of a name of ours names the socket that had it first. When that is not ours, another process has the
// name too: on this node, or on one that has the same node id.
static void look_at_own_name(zeb_inst_t inst, const struct tipc_portid *first)
{
    const zeb_app_mng_t *slot = zeb_get_app_mng(inst.app);
    struct sockaddr_tipc own;
    socklen_t len = sizeof(own);
    if (slot == nullptr || inst.node != (uint32_t)zeb_get_my_node_id() ||
        getsockname(slot->sd, (struct sockaddr *)&own, &len) != 0 ||
        (first->ref == own.addr.id.ref && first->node == own.addr.id.node) || !zeb_take_shared_name(inst))
        return;
    ZEB_ERROR("ZEB app %d/%d is published by another socket, <0x%x:%u>.\n", inst.app, inst.node, first->node,
              first->ref);
    say_shared_name(inst, first, &own.addr.id);
}

static void instances_published(const struct tipc_event *event)
{
    ZEB_VERBOSE("ZEB perceived app [0x%x, 0x%x] join.\n", event->found_lower, event->found_upper);
    each_instance(event, [&](zeb_inst_t inst) {
        ZEB_WARN("ZEB perceived app %d/%d join.\n", inst.app, inst.node);
        look_at_own_name(inst, &event->port);
        zeb_inst_published(inst);
    });
}

static void instances_withdrawn(const struct tipc_event *event)
{
    ZEB_VERBOSE("ZEB perceived app [0x%x, 0x%x] quit.\n", event->found_lower, event->found_upper);
    each_instance(event, [](zeb_inst_t inst) {
        ZEB_WARN("ZEB perceived app %d/%d quit.\n", inst.app, inst.node);
        zeb_inst_withdrawn(inst);
    });
}

// An event carries the whole published range, even where it exceeds the subscribed one. Any process may publish the
// full range, so the loop is limited to the instances of the subscription.
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
        instances_published(&event);
        return;
    case TIPC_WITHDRAWN:
        instances_withdrawn(&event);
        return;
    case TIPC_SUBSCR_TIMEOUT:
        memcpy(&timer, event.s.usr_handle, sizeof(timer));
        zeb_process_tipc_timer_event(timer);
        return;
    default:
        return;
    }
}

void zeb_process_tipc_timer_event(zeb_timer_t timer)
{
    ZEB_VERBOSE("ZEB perceived timer event of type %d seq %d.\n", timer.type, timer.seq);
    if (timer.type == ZEB_TIMER_TYPE_MONITOR)
        zeb_process_monitor_timer_event(timer.seq);
    else
        zeb_process_sync_timer_event(timer);
}

void zeb_process_monitor_timer_event(uint32_t seq)
{
    char text[32] = "";
    time_t now = time(nullptr);
    (void)ctime_r(&now, text);
    ZEB_VERBOSE("ZEB monitor timer: %s", text);

    uint32_t app = g_zeb_mng.app[0].app_id.load(std::memory_order_acquire);
    zeb_buf_printf_reset();
    zeb_cli_print_lib_info(app);
    zeb_buf_printf("\n");
    zeb_cli_print_app_info(app);
    zeb_buf_printf("\n");
    zeb_cli_print_fc_stat(app);
    zeb_buf_printf("\n");
    zeb_cli_print_mng_stat(app);
    zeb_buf_printf("\n");
    zeb_cli_print_rpc_stat(app);
    zeb_buf_printf("\n");

    uint32_t next = 2 * (seq == 0 ? 1 : seq);
    zeb_dm_record_stat();
    (void)zeb_start_timer(next * ZEB_MONITOR_PERIOD, {ZEB_TIMER_TYPE_MONITOR, next});
}
