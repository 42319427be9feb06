#include "ops_view.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <platform/tipc_name.h>

constexpr uint32_t MARK_NAME_TYPE = 1; // the type of the topology service; nobody publishes its instance 0

int64_t ops_now()
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static int subscribe(const ops_view_t *view, struct tipc_service_range range, uint32_t timeout, uint32_t filter,
                     uint32_t mark)
{
    struct tipc_subscr request;
    memset(&request, 0, sizeof(request));
    request.seq = range;
    request.timeout = timeout;
    request.filter = filter;
    memcpy(request.usr_handle, &mark, sizeof(mark));
    for (;;) {
        if (send(view->sd, &request, sizeof(request), MSG_NOSIGNAL) == (ssize_t)sizeof(request))
            return 0;
        if (errno != EINTR && errno != ENOMEM && errno != ENOBUFS)
            return -errno;
    }
}

int ops_view_open(ops_view_t *view)
{
    view->insts.clear();
    view->marks_sent = view->marks_seen = view->left_out = view->odd = 0;
    view->sd = socket(AF_TIPC, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (view->sd == -1)
        return -errno;
    struct sockaddr_tipc addr = tipc_name(TIPC_TOP_SRV, TIPC_TOP_SRV, 0);
    int ret = connect(view->sd, (struct sockaddr *)&addr, sizeof(addr)) == 0 ? 0 : -errno;
    // Each socket's publication and not each name's: two processes that share an instance are told apart.
    if (ret == 0)
        ret = subscribe(view, {OPS_NAME_TYPE, 0, UINT32_MAX}, (uint32_t)TIPC_WAIT_FOREVER, TIPC_SUB_PORTS, 0);
    if (ret != 0)
        ops_view_close(view);
    return ret;
}

void ops_view_close(ops_view_t *view)
{
    if (view->sd != -1)
        (void)close(view->sd);
    view->sd = -1;
}

static ops_change_t published(ops_view_t *view, uint32_t name)
{
    auto found = view->insts.find(name);
    if (found != view->insts.end()) {
        found->second.sockets++;
        return OPS_NO_CHANGE;
    }
    if (view->insts.size() >= OPS_VIEW_MAX) {
        view->left_out++;
        return OPS_NO_CHANGE;
    }
    view->insts[name] = {1};
    return OPS_JOINED;
}

static ops_change_t withdrawn(ops_view_t *view, uint32_t name)
{
    auto found = view->insts.find(name);
    if (found == view->insts.end() || --found->second.sockets != 0)
        return OPS_NO_CHANGE;
    view->insts.erase(found);
    return OPS_QUIT;
}

static ops_change_t apply(ops_view_t *view, const struct tipc_event *event, ops_inst_t *inst)
{
    uint32_t mark = 0;
    memcpy(&mark, event->s.usr_handle, sizeof(mark));
    if (event->event == TIPC_SUBSCR_TIMEOUT) {
        view->marks_seen = mark;
        return OPS_NO_CHANGE;
    }
    *inst = ops_inst_of(event->found_lower);
    // Any process may publish a range, up to all numbers: it is no instance, and is not walked.
    if (event->found_lower != event->found_upper || !zeb_valid_app_id(inst->app)) {
        view->odd++;
        return OPS_NO_CHANGE;
    }
    if (event->event == TIPC_PUBLISHED)
        return published(view, event->found_lower);
    return event->event == TIPC_WITHDRAWN ? withdrawn(view, event->found_lower) : OPS_NO_CHANGE;
}

int ops_view_read(ops_view_t *view, ops_change_t *change, ops_inst_t *inst)
{
    struct tipc_event event;
    *change = OPS_NO_CHANGE;
    ssize_t len = recv(view->sd, &event, sizeof(event), MSG_DONTWAIT);
    if (len == -1 && (errno == EAGAIN || errno == EINTR))
        return -EAGAIN;
    if (len != (ssize_t)sizeof(event))
        return -EPIPE;
    *change = apply(view, &event, inst);
    return 0;
}

// A topology connection reports in order, and it has no event for "that was all". So a timer is started on it, a
// subscription to a name that is never published: when it expires, all that was there before has been reported.
int ops_view_mark(ops_view_t *view)
{
    view->marks_sent++;
    return subscribe(view, {MARK_NAME_TYPE, 0, 0}, 1, TIPC_SUB_SERVICE, view->marks_sent) == 0 ? 0 : -EPIPE;
}

int ops_view_sync(ops_view_t *view, int64_t deadline)
{
    if (ops_view_mark(view) != 0)
        return -EPIPE;
    uint32_t mark = view->marks_sent;
    while (view->marks_seen != mark) {
        ops_change_t change = OPS_NO_CHANGE;
        ops_inst_t inst = {};
        int ret = ops_view_read(view, &change, &inst);
        if (ret == 0)
            continue;
        int64_t left = deadline - ops_now();
        if (ret != -EAGAIN)
            return ret;
        if (left <= 0)
            return -ETIMEDOUT;
        struct pollfd entry = {view->sd, POLLIN, 0};
        (void)poll(&entry, 1, left > INT_MAX ? INT_MAX : (int)left);
    }
    return 0;
}

uint32_t ops_view_sockets(const ops_view_t *view, ops_inst_t inst)
{
    auto found = view->insts.find(ops_name_of(inst));
    return found == view->insts.end() ? 0 : found->second.sockets;
}
