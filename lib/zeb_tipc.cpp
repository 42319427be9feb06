#include "zeb_tipc.h"

#include <cerrno>
#include <cstring>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/tipc_name.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_fd.h"
#include "zeb_inst.h"
#include "zeb_slot.h"

constexpr uint32_t TIMER_NAME_TYPE = 1; // the type of the topology service; nobody publishes its instance 0

// What to do about a socket that cannot be made.
static void advise(int err)
{
    if (err == EAFNOSUPPORT)
        zeb_advise(" The kernel has no TIPC. Type: modprobe tipc");
    else if (err == EMFILE)
        zeb_advise(" The process has too many files open. Type before you start it: ulimit -n 4096");
}

int zeb_create_subscription_socket()
{
    int sd = socket(AF_TIPC, SOCK_SEQPACKET, 0);
    if (sd == -1) {
        int err = errno;
        ZEB_ERROR_WHY("ZEB create subscription socket descriptor failed: %s.\n", strerror(err));
        advise(err);
        return -1;
    }
    if (zeb_set_fd_close_on_exec(sd) != 0) {
        (void)close(sd);
        return -1;
    }
    struct sockaddr_tipc addr = tipc_name(TIPC_TOP_SRV, TIPC_TOP_SRV, 0);
    if (connect(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
        ZEB_ERROR_WHY("ZEB connect to TIPC topology server failed: %s.\n", strerror(errno));
        (void)close(sd);
        return -1;
    }
    return sd;
}

// With both droppable options off, TIPC returns an undeliverable message to its sender, with the error code and the
// data, and does not drop it.
static bool set_app_socket_options(uint32_t app, int sd, int priority)
{
    if (setsockopt(sd, SOL_TIPC, TIPC_IMPORTANCE, &priority, sizeof(priority)) != 0) {
        ZEB_ERROR_WHY("ZEB set app %d socket priority %d failed: %s.\n", app, priority, strerror(errno));
        return false;
    }
    int off = 0;
    if (setsockopt(sd, SOL_TIPC, TIPC_SRC_DROPPABLE, &off, sizeof(off)) != 0) {
        ZEB_ERROR_WHY("ZEB set app %d socket TIPC_SRC_DROPPABLE failed: %s.\n", app, strerror(errno));
        return false;
    }
    if (setsockopt(sd, SOL_TIPC, TIPC_DEST_DROPPABLE, &off, sizeof(off)) != 0) {
        ZEB_ERROR_WHY("ZEB set app %d socket TIPC_DEST_DROPPABLE failed: %s.\n", app, strerror(errno));
        return false;
    }
    return true;
}

int zeb_create_app_socket(uint32_t app, int priority)
{
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    if (sd == -1) {
        int err = errno;
        ZEB_ERROR_WHY("ZEB create app %d socket failed: %s.\n", app, strerror(err));
        advise(err);
        return -1;
    }
    if (zeb_set_fd_close_on_exec(sd) != 0 || !set_app_socket_options(app, sd, priority)) {
        (void)close(sd);
        return -1;
    }
    ZEB_VERBOSE("ZEB app %d create socket %d priority %d.\n", app, sd, priority);
    return sd;
}

int zeb_bind_app_socket(uint32_t app, int sd)
{
    uint32_t instance = zeb_tipc_instance({app, (uint32_t)zeb_get_my_node_id()});
    struct sockaddr_tipc addr = tipc_name(ZEB_TIPC_NAME_TYPE, instance, TIPC_CLUSTER_SCOPE);
    while (bind(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
        int err = errno;
        ZEB_ERROR_WHY("ZEB app %d bind socket %d failed: %s.\n", app, sd, strerror(err));
        if (err != ENOMEM)
            return -1;
        (void)sched_yield();
    }
    return 0;
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

static struct tipc_subscr app_subscription(struct tipc_service_range range, uint32_t filter)
{
    struct tipc_subscr request;
    memset(&request, 0, sizeof(request));
    request.seq = range;
    request.filter = filter;
    return request;
}

int zeb_subscr_app_events(uint32_t lower, uint32_t upper, int timeout)
{
    struct tipc_subscr request = app_subscription({ZEB_TIPC_NAME_TYPE, lower, upper}, TIPC_SUB_SERVICE);
    request.timeout = (uint32_t)timeout;
    ZEB_INFO("ZEB subscribe TIPC instance [0x%x, 0x%x] event.\n", lower, upper);
    if (zeb_send_subscription(&request) == 0)
        return 0;
    ZEB_ERROR("ZEB send subscription msg failed: %s.\n,", strerror(errno));
    return -1;
}

int zeb_unsubscr_app_events(uint32_t lower, uint32_t upper)
{
    struct tipc_subscr request =
        app_subscription({ZEB_TIPC_NAME_TYPE, lower, upper}, TIPC_SUB_SERVICE | TIPC_SUB_CANCEL);
    ZEB_INFO("ZEB cancel TIPC subscription instance [0x%x, 0x%x] event.\n", lower, upper);
    if (zeb_send_subscription(&request) == 0)
        return 0;
    ZEB_ERROR("ZEB send canceling subscription msg failed: %s.\n,", strerror(errno));
    return -1;
}

int zeb_start_timer(uint64_t timeout, zeb_timer_t timer)
{
    struct tipc_subscr request;
    memset(&request, 0, sizeof(request));
    request.seq.type = TIMER_NAME_TYPE;
    request.timeout = (uint32_t)(timeout * 1000);
    request.filter = TIPC_SUB_SERVICE;
    memcpy(request.usr_handle, &timer, sizeof(timer));
    ZEB_VERBOSE("ZEB add timer event type %d, seq %d.\n", timer.type, timer.seq);
    if (zeb_send_subscription(&request) == 0)
        return 0;
    ZEB_ERROR("ZEB send timer subscription msg failed: %s.\n,", strerror(errno));
    return -1;
}
