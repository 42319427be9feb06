// The broker's loop: connections, processes that end, delayed messages, and the broker's own end after the last client.
#include "broker.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ftw.h>
#include <string>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "sim_files.h"

broker_t g_broker;

constexpr int64_t LOOK_MS = 200;          // the interval of checks for what no descriptor reports
constexpr int64_t FIRST_CLIENT_MS = 5000; // ample: the process that starts the broker connects at once
constexpr int EVENTS = 64;

int64_t broker_now()
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static void watch(int fd)
{
    struct epoll_event wanted = {};
    wanted.events = EPOLLIN;
    wanted.data.fd = fd;
    (void)epoll_ctl(g_broker.epoll, EPOLL_CTL_ADD, fd, &wanted);
}

static void watch_owner(int32_t pid)
{
    if (pid <= 0 || g_broker.owners.count(pid) != 0)
        return;
    // Fails when the process has ended; pass_time then checks its sockets.
    int fd = (int)syscall(SYS_pidfd_open, pid, 0);
    g_broker.owners[pid] = fd;
    if (fd >= 0)
        watch(fd);
}

static void drop_names(uint32_t port, member_t *member)
{
    for (auto it = member->ids.rbegin(); it != member->ids.rend(); ++it) // newest first, as the kernel does
        topology_remove(port, *it);
    member->ids.clear();
}

static void return_unread(void *arg, const sim_record_t *record, const uint8_t *data)
{
    const sim_socket_t *socket = (const sim_socket_t *)arg;
    const sim_state_t *state = g_broker.cluster.state;
    sim_queue_t sender;
    if (record->err != TIPC_OK || !sim_linked(state->cut, socket->node, record->src_index))
        return;
    if (sim_queue_open(&sender, g_broker.cluster.dir, record->src_port) != 0)
        return;
    sim_queue_return(&sender, g_broker.cluster.dir, g_broker.notify_fd, record, data, TIPC_ERR_NO_PORT, socket->port,
                     state->nodes[socket->node]);
    sim_queue_unmap(&sender);
}

// Closes a socket whose processes ended without closing it, as the kernel would.
static void close_socket(uint32_t port)
{
    sim_queue_t queue;
    if (sim_queue_open(&queue, g_broker.cluster.dir, port) == 0) {
        sim_queue_close(&queue, return_unread, queue.socket);
        sim_queue_unmap(&queue);
    }
    sim_queue_remove(g_broker.cluster.dir, port);
}

template <typename which_t>
static void close_abandoned(which_t which)
{
    for (auto it = g_broker.members.begin(); it != g_broker.members.end();) {
        uint32_t port = it->first;
        if (!which(it->second) || !sim_queue_abandoned(g_broker.cluster.dir, port)) {
            ++it;
            continue;
        }
        drop_names(port, &it->second);
        close_socket(port);
        it = g_broker.members.erase(it);
    }
}

static void owner_ended(int fd)
{
    auto it =
        std::find_if(g_broker.owners.begin(), g_broker.owners.end(), [fd](const auto &o) { return o.second == fd; });
    if (it == g_broker.owners.end())
        return;
    int32_t pid = it->first;
    (void)close(fd);
    g_broker.owners.erase(it);
    close_abandoned([pid](const member_t &member) { return member.pid == pid; });
}

// Publishes and withdraws names until the name table holds those that the socket's file lists.
static int sync_socket(uint32_t port)
{
    sim_queue_t queue;
    int ret = sim_queue_open(&queue, g_broker.cluster.dir, port);
    if (ret != 0)
        return ret;
    std::vector<sim_name_t> names;
    uint32_t node = queue.socket->node;
    int32_t pid = queue.socket->pid;
    {
        sim_guard_s guard(&queue.socket->mutex);
        names.assign(queue.socket->names, queue.socket->names + std::min(queue.socket->name_num, SIM_MAX_BINDINGS));
    }
    sim_queue_unmap(&queue);
    if (node >= SIM_MAX_NODES)
        return -EINVAL;
    member_t &member = g_broker.members[port];
    member.pid = pid;
    member.node = node;
    watch_owner(pid);
    std::vector<uint32_t> gone;
    for (uint32_t id : member.ids) {
        if (std::none_of(names.begin(), names.end(), [id](const sim_name_t &n) { return n.id == id; }))
            gone.push_back(id);
    }
    for (auto it = gone.rbegin(); it != gone.rend(); ++it) {
        topology_remove(port, *it);
        member.ids.erase(*it);
    }
    for (const sim_name_t &name : names) {
        if (member.ids.insert(name.id).second)
            topology_add(&name);
    }
    return 0;
}

static int socket_gone(uint32_t port)
{
    auto it = g_broker.members.find(port);
    if (it == g_broker.members.end())
        return 0;
    drop_names(port, &it->second);
    g_broker.members.erase(it);
    return 0;
}

static void put(const delayed_t &message)
{
    sim_state_t *state = g_broker.cluster.state;
    sim_record_t record = message.record;
    struct iovec part = {const_cast<uint8_t *>(message.data.data()), message.data.size()};
    uint32_t err = TIPC_ERR_NO_PORT;
    sim_queue_t queue;
    if (sim_queue_open(&queue, g_broker.cluster.dir, message.port) == 0) {
        err = sim_queue_put(&queue, g_broker.cluster.dir, g_broker.notify_fd, &record, &part, 1);
        sim_queue_unmap(&queue);
    }
    if (err == TIPC_OK || sim_queue_open(&queue, g_broker.cluster.dir, record.src_port) != 0)
        return;
    sim_queue_return(&queue, g_broker.cluster.dir, g_broker.notify_fd, &record, message.data.data(), err, message.port,
                     state->nodes[message.by_node]);
    sim_queue_unmap(&queue);
}

// A cut link keeps its messages until it is lost.
static void deliver(const delayed_t &message)
{
    const sim_state_t *state = g_broker.cluster.state;
    if (sim_linked(state->cut, message.record.src_index, message.by_node))
        put(message);
    else if (sim_linked(state->down, message.record.src_index, message.by_node))
        g_broker.held.push_back(message);
}

// Delivers the messages that are held for links between `a` and `b`, or with `put_them` false drops them.
static void end_hold(uint32_t a, uint32_t b, bool put_them)
{
    std::vector<delayed_t> kept;
    for (delayed_t &message : g_broker.held) {
        uint32_t from = message.record.src_index;
        uint32_t to = message.by_node;
        bool same = (from == a && (b == SIM_ANY_NODE || to == b)) || (to == a && (b == SIM_ANY_NODE || from == b));
        if (!same)
            kept.push_back(std::move(message));
        else if (put_them)
            put(message);
    }
    g_broker.held.swap(kept);
}

static void lose_links(uint32_t a, uint32_t b)
{
    end_hold(a, b, false);
    topology_links(a, b, true);
}

static int take_delayed(const sim_request_t &request, const uint8_t *bytes, size_t len)
{
    delayed_t message;
    if (len < sizeof(message.record) || request.b >= SIM_MAX_NODES)
        return -EINVAL;
    memcpy(&message.record, bytes, sizeof(message.record));
    len -= sizeof(message.record);
    if (message.record.len != len || len > SIM_MAX_DATA || message.record.src_index >= SIM_MAX_NODES)
        return -EINVAL;
    message.port = request.a;
    message.by_node = request.b;
    message.data.assign(bytes + sizeof(message.record), bytes + sizeof(message.record) + len);
    uint32_t ms = sim_delay_of(g_broker.cluster.state, message.record.src_index, message.by_node);
    if (ms == 0)
        deliver(message);
    else
        g_broker.delayed.emplace(broker_now() + ms, std::move(message));
    return 0;
}

static int set_delay(uint32_t a, uint32_t b, uint32_t ms)
{
    sim_state_t *state = g_broker.cluster.state;
    for (auto &entry : g_broker.delayed) // at once: messages sent under the new delay must not overtake them
        deliver(entry.second);
    g_broker.delayed.clear();
    sim_guard_s guard(&state->mutex);
    uint32_t kept = 0;
    for (uint32_t i = 0; i < state->delay_num; i++) {
        if (state->delays[i].a != a || state->delays[i].b != b)
            state->delays[kept++] = state->delays[i];
    }
    if (ms != 0 && kept == SIM_MAX_DELAYS)
        return -ENOSPC;
    if (ms != 0)
        state->delays[kept++] = {a, b, ms};
    __atomic_store_n(&state->delay_num, kept, __ATOMIC_RELAXED);
    return 0;
}

static void cut(uint32_t a, uint32_t b, bool at_once)
{
    sim_state_t *state = g_broker.cluster.state;
    {
        sim_guard_s guard(&state->mutex);
        sim_break(state->cut, a, b, true);
    }
    if (at_once || state->tolerance == 0)
        lose_links(a, b);
    else
        g_broker.breaking.emplace(broker_now() + state->tolerance, std::make_pair(a, b));
}

static void heal(uint32_t a, uint32_t b)
{
    sim_state_t *state = g_broker.cluster.state;
    for (auto it = g_broker.breaking.begin(); it != g_broker.breaking.end();) {
        auto [from, to] = it->second;
        bool same = (from == a && (b == SIM_ANY_NODE || to == b)) || (to == a && (b == SIM_ANY_NODE || from == b));
        it = same ? g_broker.breaking.erase(it) : std::next(it);
    }
    end_hold(a, b, true); // before the link takes new messages, so that they stay in order
    {
        sim_guard_s guard(&state->mutex);
        sim_break(state->cut, a, b, false);
    }
    topology_links(a, b, false);
}

static uint32_t index_of(uint32_t node)
{
    return node == SIM_ANY_NODE ? SIM_ANY_NODE : sim_node_index(g_broker.cluster.state, node);
}

static void drop_topology(uint32_t node)
{
    for (auto &entry : g_broker.conns) {
        if (entry.second.kind == CONN_TOPOLOGY && (node == SIM_ANY_NODE || entry.second.node == index_of(node)))
            (void)shutdown(entry.first, SHUT_RDWR); // read_conn then closes it as if the client had
    }
}

static int serve(conn_t *conn, const sim_request_t &request, const uint8_t *more, size_t len)
{
    switch (request.op) {
    case SIM_TOPOLOGY:
        conn->node = index_of(request.node);
        return conn->node == SIM_ANY_NODE ? -ENOSPC : 0;
    case SIM_SYNC:
        return sync_socket(request.a);
    case SIM_GONE:
        return socket_gone(request.a);
    case SIM_DELIVER:
        return take_delayed(request, more, len);
    case SIM_DROP:
        drop_topology(request.a);
        return 0;
    case SIM_DELAY:
        return set_delay(index_of(request.a), index_of(request.b), request.value);
    case SIM_CUT:
    case SIM_HEAL:
        if (index_of(request.a) == SIM_ANY_NODE)
            return -EINVAL;
        if (request.op == SIM_CUT)
            cut(index_of(request.a), index_of(request.b), request.value != 0);
        else
            heal(index_of(request.a), index_of(request.b));
        return 0;
    default:
        return -EINVAL;
    }
}

static void close_conn(int fd)
{
    g_broker.conns.erase(fd);
    (void)close(fd);
}

static bool answer_request(conn_t *conn, const uint8_t *bytes, ssize_t len)
{
    sim_request_t request;
    if (len < (ssize_t)sizeof(request))
        return false;
    memcpy(&request, bytes, sizeof(request));
    if (request.magic != SIM_MAGIC)
        return false;
    sim_reply_t reply = {SIM_MAGIC, serve(conn, request, bytes + sizeof(request), (size_t)len - sizeof(request))};
    conn->kind = request.op == SIM_TOPOLOGY && reply.result == 0 ? CONN_TOPOLOGY : CONN_CONTROL;
    return send(conn->fd, &reply, sizeof(reply), MSG_DONTWAIT | MSG_NOSIGNAL) == (ssize_t)sizeof(reply);
}

static bool at_end(int fd)
{
    char byte;
    return recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

static void read_conn(int fd)
{
    static uint8_t s_bytes[SIM_MAX_DATA + 4096];
    auto it = g_broker.conns.find(fd);
    if (it == g_broker.conns.end())
        return;
    conn_t *conn = &it->second;
    struct iovec part = {s_bytes, sizeof(s_bytes)};
    struct msghdr msg = {};
    msg.msg_iov = &part;
    msg.msg_iovlen = 1;
    ssize_t len = recvmsg(fd, &msg, MSG_DONTWAIT);
    if (len < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (len == 0 && conn->kind == CONN_TOPOLOGY && !at_end(fd))
        return; // an empty message is not the end of the connection, and no request
    if (len <= 0)
        return close_conn(fd);
    if (conn->kind == CONN_TOPOLOGY)
        return topology_request(conn, s_bytes, len);
    if (answer_request(conn, s_bytes, len))
        return;
    fprintf(stderr, "tipcsim: broker: %zd bytes that are no request: connection closed\n", len);
    close_conn(fd);
}

static void accept_conn()
{
    int fd = accept4(g_broker.listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0)
        return;
    g_broker.awaited = 0;
    conn_t conn = {};
    conn.fd = fd;
    conn.kind = CONN_NEW;
    g_broker.conns.emplace(fd, std::move(conn));
    watch(fd);
}

static void adopt(const std::string &name)
{
    uint32_t port = (uint32_t)strtoul(name.c_str() + 2, nullptr, 10);
    if (sim_queue_abandoned(g_broker.cluster.dir, port))
        close_socket(port);
    else
        (void)sync_socket(port);
}

// Whether any file whose name begins with `prefix` is locked. The others are removed.
static bool locked(const char *prefix)
{
    bool any = false;
    sim_each_file(g_broker.cluster.dir, prefix, [&any](const std::string &name) {
        std::string path = std::string(g_broker.cluster.dir) + "/" + name;
        int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0)
            (void)unlink(path.c_str());
        else
            any = any || fd >= 0;
        if (fd >= 0)
            (void)close(fd);
    });
    return any;
}

static int remove_entry(const char *path, const struct stat * /*status*/, int /*type*/, struct FTW *at)
{
    bool last = at->level == 0 || (at->level == 1 && strcmp(path + at->base, "lock") == 0);
    return last ? 0 : remove(path);
}

// The lock goes last: who opens it before then waits for it, and who makes a new one after then keeps the folder.
static void remove_cluster(const char *dir)
{
    char lock[SIM_PATH_LEN];
    (void)nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    (void)sim_cluster_path(dir, "lock", lock, sizeof(lock));
    (void)unlink(lock);
    (void)rmdir(dir);
}

// Removes the folder when nothing uses it. A process that was started in the cluster holds a lock on its "p." file as
// long as it, or a child of it, lives, and a launcher that made the cluster one on "keep". The cluster's lock keeps
// processes from joining between the check and the removal.
static bool ended()
{
    if (!g_broker.conns.empty() || !g_broker.members.empty() || broker_now() < g_broker.awaited)
        return false;
    int lock = sim_cluster_lock(g_broker.cluster.dir);
    if (lock < 0)
        return lock == -ENOENT;
    bool used = locked("p.") || locked("keep");
    sim_each_file(g_broker.cluster.dir, "s.", [&used](const std::string &name) {
        adopt(name);
        used = used || !g_broker.members.empty();
    });
    struct epoll_event ready;
    used = used || epoll_wait(g_broker.epoll, &ready, 1, 0) > 0; // a client is connecting
    if (!used)
        remove_cluster(g_broker.cluster.dir);
    (void)close(lock);
    return !used;
}

static void pass_time(int64_t now)
{
    while (!g_broker.delayed.empty() && g_broker.delayed.begin()->first <= now) {
        delayed_t message = std::move(g_broker.delayed.begin()->second);
        g_broker.delayed.erase(g_broker.delayed.begin());
        deliver(message);
    }
    while (!g_broker.breaking.empty() && g_broker.breaking.begin()->first <= now) {
        auto [a, b] = g_broker.breaking.begin()->second;
        g_broker.breaking.erase(g_broker.breaking.begin());
        lose_links(a, b);
    }
    topology_time(now);
    if (now >= g_broker.next_look) {
        g_broker.next_look = now + LOOK_MS;
        // Those whose maker ended before it could be watched, or closed the socket while another process holds it.
        close_abandoned([](const member_t &member) {
            auto owner = g_broker.owners.find(member.pid);
            return owner == g_broker.owners.end() || owner->second < 0;
        });
    }
}

static int wait_ms(int64_t now)
{
    int64_t until = std::min(topology_deadline(), g_broker.next_look);
    if (!g_broker.delayed.empty())
        until = std::min(until, g_broker.delayed.begin()->first);
    if (!g_broker.breaking.empty())
        until = std::min(until, g_broker.breaking.begin()->first);
    return until <= now ? 0 : (int)std::min<int64_t>(until - now, LOOK_MS);
}

static void loop()
{
    while (!ended()) {
        struct epoll_event ready[EVENTS];
        int num = epoll_wait(g_broker.epoll, ready, EVENTS, wait_ms(broker_now()));
        for (int i = 0; i < num; i++) {
            int fd = ready[i].data.fd;
            auto conn = g_broker.conns.find(fd);
            if (fd == g_broker.listener)
                accept_conn();
            else if (conn == g_broker.conns.end())
                owner_ended(fd);
            else if ((ready[i].events & EPOLLOUT) != 0)
                topology_flush(&conn->second);
            if ((ready[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0)
                read_conn(fd);
        }
        pass_time(broker_now());
    }
}

static int listen_at(const char *dir)
{
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (!sim_cluster_path(dir, "broker", addr.sun_path, sizeof(addr.sun_path)))
        return -ENAMETOOLONG;
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    (void)unlink(addr.sun_path); // left by a broker that was killed
    if (fd < 0 || bind(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0 || listen(fd, 1024) != 0)
        return -errno;
    return fd;
}

// Locks broker.pid; the lock is held as long as the broker runs. False when another broker holds it.
static bool only_one(const char *dir)
{
    char path[SIM_PATH_LEN];
    (void)sim_cluster_path(dir, "broker.pid", path, sizeof(path));
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    return fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
}

static void write_pid(const char *dir, pid_t pid)
{
    char path[SIM_PATH_LEN];
    (void)sim_cluster_path(dir, "broker.pid", path, sizeof(path));
    FILE *fp = fopen(path, "we");
    if (fp == nullptr)
        return;
    (void)fprintf(fp, "%d\n", (int)pid);
    (void)fclose(fp);
}

// Detaches from the starter. Standard error is kept with TIPCSIM_DEBUG only.
static void go_to_background(const char *dir)
{
    pid_t pid = fork();
    if (pid != 0) {
        write_pid(dir, pid);
        _exit(pid < 0 ? 1 : 0);
    }
    (void)setsid();
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    (void)dup2(null, STDIN_FILENO);
    (void)dup2(null, STDOUT_FILENO);
    if (getenv("TIPCSIM_DEBUG") == nullptr)
        (void)dup2(null, STDERR_FILENO);
    (void)!chdir("/");
}

// Makes this process the broker of the cluster, in the background. It listens, and its pid is written, before the
// cluster's lock is released: whoever finds that there is a broker can connect to it and stop it. 0, or 1 after an
// error; -1 when there is one already.
static int take_cluster(const char *dir)
{
    const char *why = "";
    int lock = sim_cluster_join(&g_broker.cluster, dir, &why);
    if (lock < 0) {
        fprintf(stderr, "tipcsim: cluster %s: %s: %s\n", dir, why, strerror(-lock));
        return 1;
    }
    if (!only_one(dir)) {
        (void)close(lock);
        return -1;
    }
    g_broker.listener = listen_at(dir);
    if (g_broker.listener < 0) {
        fprintf(stderr, "tipcsim: cluster %s: cannot listen: %s\n", dir, strerror(-g_broker.listener));
        return 1;
    }
    go_to_background(dir);
    (void)close(lock); // the starter's copy is closed when it ends
    return 0;
}

int broker_main(const char *dir, bool if_none)
{
    (void)syscall(SYS_close_range, 3, UINT_MAX, 0); // inherited ones, among them the lock on the starter's "p." file
    int ret = take_cluster(dir);
    if (ret < 0 && !if_none)
        fprintf(stderr, "tipcsim: cluster %s has a broker already\n", dir);
    if (ret != 0)
        return ret < 0 && if_none ? 0 : 1;
    struct rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &files);
    }
    (void)signal(SIGPIPE, SIG_IGN);
    g_broker.epoll = epoll_create1(EPOLL_CLOEXEC);
    g_broker.notify_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    watch(g_broker.listener);
    {
        sim_guard_s guard(&g_broker.cluster.state->mutex);
        g_broker.cluster.state->name_num = 0; // rebuilt below from the sockets that exist
        g_broker.cluster.state->generation++;
    }
    sim_each_file(g_broker.cluster.dir, "s.", adopt);
    g_broker.awaited = broker_now() + FIRST_CLIENT_MS;
    loop();
    return 0;
}
