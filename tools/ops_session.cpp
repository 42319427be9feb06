#include "ops_session.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>

#include <zeb/zeb.h>

#include "ops_link.h"
#include "ops_log.h"

constexpr int64_t NAME_TIME = 5000; // ms until application 1 is taken
constexpr int64_t LOOK_TIME = 1000; // ms between two looks for a zebd
constexpr int64_t CONNECT_TIME = 2000;

int64_t ops_wall()
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

std::string ops_zebd_path()
{
    const char *path = getenv("ZEBD_SOCKET");
    if (path != nullptr && *path != '\0')
        return path;
    const char *dir = getenv("RUNTIME_DIRECTORY");
    return std::string(dir == nullptr || *dir == '\0' ? "/run/zeb" : dir) + "/zebd.sock";
}

static int fail(ops_session_t *session, int ret, const std::string &why)
{
    session->why = why;
    return ret;
}

static int view_error(ops_session_t *session, int ret)
{
    if (ret == -EAFNOSUPPORT)
        return fail(session, ret, "the kernel has no TIPC. Type: modprobe tipc");
    return fail(session, ret, std::string("the topology service does not answer: ") + strerror(-ret));
}

static void add_event(ops_session_t *session, ops_event_kind_t kind, uint32_t name)
{
    session->events.push_back({ops_wall(), kind, ops_inst_of(name), {}, 0});
}

// What the view has and the session has not reported, and the other way round.
static void compare_view(ops_session_t *session)
{
    const auto &insts = session->view.insts;
    for (auto it = session->known.begin(); it != session->known.end();) {
        if (insts.count(it->first) != 0) {
            ++it;
            continue;
        }
        add_event(session, OPS_EVENT_QUIT, it->first);
        it = session->known.erase(it);
    }
    for (const auto &inst : insts) {
        if (!session->known.emplace(inst.first, ops_wall()).second)
            continue;
        add_event(session, OPS_EVENT_JOINED, inst.first);
    }
}

// Opens the view where there is none, and has all in it that was published before this call.
static int sync_view(ops_session_t *session, int64_t deadline)
{
    int ret = session->view.sd == -1 ? ops_view_open(&session->view) : 0;
    if (ret == 0)
        ret = ops_view_sync(&session->view, deadline);
    if (ret == -EPIPE)
        ops_view_close(&session->view);
    if (session->follows_view)
        compare_view(session);
    return ret == 0 ? 0 : view_error(session, ret);
}

static void release_app1(ops_session_t *session)
{
    if (session->is_app1)
        ops_client_close(&session->client);
    session->is_app1 = false;
}

int ops_session_open(ops_session_t *session, int64_t deadline)
{
    *session = ops_session_t();
    session->sd = session->view.sd = session->client.sd = -1;
    int node = zeb_get_my_node_id();
    if (node < 0)
        return fail(session, -ENOENT, "this node has no node id: /tmp/addr/.zeb_node_addr is missing or wrong");
    session->node = (uint32_t)node;
    int ret = ops_link_open(session, deadline);
    if (ret == 0 || ret == -EACCES)
        return ret;
    session->lost_zebd = ret == -ETIMEDOUT;
    ret = ops_view_open(&session->view);
    return ret == 0 ? 0 : view_error(session, ret);
}

void ops_session_close(ops_session_t *session)
{
    ops_link_close(session);
    release_app1(session);
    ops_view_close(&session->view);
}

// True when a zebd is there to ask. One that has gone is looked for again, but not all the time.
static bool has_zebd(ops_session_t *session)
{
    if (session->by_zebd)
        return true;
    if (session->is_app1 || ops_now() < session->look_at)
        return false;
    session->look_at = ops_now() + LOOK_TIME;
    return ops_link_open(session, ops_now() + CONNECT_TIME) == 0;
}

// Where a call by the zebd ended: a session goes on without one from the next call on.
static int ended(ops_session_t *session, int ret)
{
    session->lost_zebd = session->lost_zebd || ret == -EPIPE;
    return ret;
}

int ops_session_view(ops_session_t *session, std::vector<ops_seen_t> *seen, int64_t deadline)
{
    seen->clear();
    if (has_zebd(session))
        return ended(session, ops_link_view(session, seen, deadline));
    int ret = sync_view(session, deadline);
    for (const auto &[name, published] : session->view.insts) {
        uint32_t sockets = published.sockets;
        if (session->is_app1 && name == ops_name_of({ZEBD_APP_ID, session->node}))
            sockets--; // ours
        auto since = session->known.find(name);
        if (sockets != 0)
            seen->push_back({ops_inst_of(name), sockets, since == session->known.end() ? 0 : since->second});
    }
    return ret;
}

static int take_app1(ops_session_t *session)
{
    if (session->is_app1)
        return 0;
    int64_t deadline = ops_now() + NAME_TIME;
    int ret = sync_view(session, deadline);
    if (ret != 0)
        return ret;
    ret = ops_client_open(&session->client, &session->view, session->node, deadline);
    if (session->follows_view)
        compare_view(session); // it read what came meanwhile
    session->held = ret == -EADDRINUSE;
    session->is_app1 = ret == 0;
    if (session->held)
        return fail(session, ret,
                    "another process of node " + std::to_string(session->node) +
                        " is application 1 (a zebctl, or a daemon), so no instance was asked. Type: tipc socket list");
    return ret == 0 ? 0 : fail(session, ret, std::string("application 1 cannot be taken: ") + strerror(-ret));
}

int ops_session_ask(ops_session_t *session, std::vector<ops_request_t> *requests, int64_t timeout)
{
    if (has_zebd(session)) {
        session->held = false;
        return ended(session, ops_link_ask(session, requests, timeout));
    }
    int ret = take_app1(session);
    if (ret != 0)
        return ret;
    ops_client_ask(&session->client, requests, timeout);
    if (session->lost_zebd)
        release_app1(session);
    return 0;
}

int ops_session_processes(ops_session_t *session, uint32_t node, const std::vector<int32_t> &pids,
                          std::vector<ops_process_t> *processes, int64_t timeout)
{
    processes->clear();
    if (node != session->node && has_zebd(session))
        return ended(session, ops_link_processes(session, node, pids, processes, timeout));
    if (node != session->node)
        return fail(session, -EHOSTUNREACH,
                    "no zebd runs on this node to ask node " + std::to_string(node) + ". Type: systemctl start zebd");
    for (int32_t pid : pids)
        processes->push_back(ops_process_look(pid));
    return 0;
}

int ops_session_log(ops_session_t *session, uint32_t node, int32_t pid, int64_t offset, std::string *text,
                    int64_t *next, int64_t timeout)
{
    if (node != session->node && has_zebd(session))
        return ended(session, ops_link_log(session, node, pid, offset, text, next, timeout));
    if (node != session->node)
        return fail(session, -EHOSTUNREACH,
                    "no zebd runs on this node to ask node " + std::to_string(node) + ". Type: systemctl start zebd");
    ops_process_t process = ops_process_look(pid);
    int ret = ops_log_read(process, offset, text, next);
    if (ret == 0)
        return 0;
    if (ret == -ENOENT)
        return fail(session, ret, "process " + std::to_string(pid) + " has no log file");
    return fail(session, ret, "log file " + process.log + ": " + strerror(-ret));
}

// Following.

static void apply_change(ops_session_t *session, ops_change_t change, ops_inst_t inst)
{
    uint32_t name = ops_name_of(inst);
    if (change == OPS_JOINED && session->known.emplace(name, ops_wall()).second)
        add_event(session, OPS_EVENT_JOINED, name);
    if (change == OPS_QUIT && session->known.erase(name) != 0)
        add_event(session, OPS_EVENT_QUIT, name);
}

// The view is opened again when its connection was lost.
static int read_change(ops_session_t *session, int64_t deadline)
{
    ops_change_t change = OPS_NO_CHANGE;
    ops_inst_t inst = {};
    if (session->view.sd == -1)
        return sync_view(session, deadline);
    int ret = ops_view_read(&session->view, &change, &inst);
    apply_change(session, change, inst);
    if (ret != -EPIPE)
        return ret;
    ops_view_close(&session->view);
    return 0;
}

static int wait_change(ops_session_t *session, int64_t deadline)
{
    while (session->events.empty()) {
        int ret = read_change(session, deadline);
        int64_t left = std::min<int64_t>(deadline - ops_now(), INT_MAX);
        if (ret != 0 && ret != -EAGAIN)
            return ret;
        if (ret == 0)
            continue;
        if (left <= 0)
            return -ETIMEDOUT;
        struct pollfd entry = {session->view.sd, POLLIN, 0};
        (void)poll(&entry, 1, (int)left);
    }
    return 0;
}

// Begins with what is there, which is no event.
static int follow_view(ops_session_t *session, int64_t deadline)
{
    session->follows_view = false;
    session->known.clear();
    int ret = sync_view(session, deadline);
    for (const auto &inst : session->view.insts)
        session->known.emplace(inst.first, 0);
    session->follows_view = ret == 0;
    return ret;
}

static int follow_zebd(ops_session_t *session, int64_t since, int64_t deadline)
{
    int ret = ops_link_follow(session, since, deadline);
    session->follows_zebd = true; // and when it has gone meanwhile, that is found when an event is read
    session->follows_view = false;
    ops_view_close(&session->view);
    return ret == -EPIPE ? 0 : ret;
}

// Goes on without a zebd, until there is the next one. What happened meanwhile may be missing.
static int lose_zebd(ops_session_t *session, int64_t deadline)
{
    session->lost_zebd = true;
    session->follows_zebd = false;
    session->look_at = ops_now() + LOOK_TIME;
    session->events.push_back({ops_wall(), OPS_EVENT_LOST, {}, {}, 0});
    return follow_view(session, deadline);
}

static int wait_by_view(ops_session_t *session, int64_t deadline)
{
    if (!session->follows_view)
        return follow_view(session, deadline);
    int64_t until = session->lost_zebd ? std::min(deadline, std::max(session->look_at, ops_now() + 1)) : deadline;
    int ret = wait_change(session, until);
    if (ret != -ETIMEDOUT || !session->lost_zebd || !has_zebd(session))
        return ret;
    // What the view has not shown yet comes before what the zebd sends.
    (void)sync_view(session, deadline);
    return follow_zebd(session, ops_wall() + 1, deadline);
}

static int wait_by_zebd(ops_session_t *session, int64_t deadline)
{
    int ret = session->follow_id == 0 ? -EPIPE : ops_link_wait_event(session, deadline);
    return ret == -EPIPE ? lose_zebd(session, deadline) : ret;
}

static int begin_following(ops_session_t *session, int64_t since, int64_t deadline)
{
    if (!has_zebd(session))
        return follow_view(session, deadline);
    return follow_zebd(session, since == 0 ? ops_wall() : since, deadline);
}

int ops_session_event(ops_session_t *session, int64_t since, ops_event_t *event, int64_t deadline)
{
    int ret = session->follows_view || session->follows_zebd || session->lost_zebd
                  ? 0
                  : begin_following(session, since, deadline);
    while (ret == 0 && session->events.empty()) {
        ret = session->follows_zebd ? wait_by_zebd(session, deadline) : wait_by_view(session, deadline);
        if (ret == -ETIMEDOUT && ops_now() < deadline)
            ret = 0;
    }
    if (ret != 0)
        return ret;
    *event = session->events.front();
    session->events.pop_front();
    return 0;
}
