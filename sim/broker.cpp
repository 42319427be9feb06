// The broker's loop: requests, processes that end, sockets that nobody holds, and the broker's own end after the last
// client.
#include "broker.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ftw.h>
#include <string>
#include <sys/file.h>
#include <sys/un.h>

#include "sim_clock.h"
#include "sim_files.h"
#include "tipcsim_processes.h"

broker_t g_broker;

constexpr int64_t LOOK_MS = 200;          // the interval of checks for what no descriptor reports
constexpr int64_t LOOK_ALL_MS = 1000;     // between looks at all processes of the machine
constexpr uint32_t LOOK_SLOTS = 64;       // sockets per look: each costs a walk through all sockets' locks
constexpr int64_t FIRST_CLIENT_MS = 5000; // ample: the process that starts the broker connects at once
constexpr int LISTEN_TRIES = 1000;        // ms: the descriptors of a broker that was killed are closed one by one
constexpr int EVENTS = 64;

static void watch(int fd)
{
    struct epoll_event wanted = {};
    wanted.events = EPOLLIN;
    wanted.data.fd = fd;
    (void)sys_epoll_ctl(g_broker.epoll, EPOLL_CTL_ADD, fd, &wanted);
}

sim_socket_t *broker_socket(uint32_t type, uint32_t node)
{
    sim_socket_t *socket = sim_socket_take(&g_broker.self, type, node, sys_getpid());
    if (socket == nullptr)
        return nullptr;
    socket->served = 1;
    socket->wake = g_broker.wake_there;
    (void)g_broker.served.insert(socket);
    sim_socket_open(socket);
    return socket;
}

void broker_close(sim_socket_t *socket)
{
    (void)g_broker.served.erase(socket);
    sim_socket_close(&g_broker.self, socket, true);
}

static sim_socket_t *slot_in_use(uint32_t slot) // of a program; null otherwise
{
    sim_socket_t *socket = sim_socket_at(broker_state(), slot);
    return sim_load(&socket->use) == SIM_SLOT_OPEN && socket->served == 0 ? socket : nullptr;
}

static bool held(const sim_socket_t *socket)
{
    return sim_socket_held(broker_state(), g_broker.look_fd, socket->port);
}

static void close_socket(sim_socket_t *socket)
{
    (void)names_unbind(socket->port, nullptr);
    sim_socket_close(&g_broker.self, socket, true);
    g_broker.check_end = true;
}

// The sockets that a process made, and what it began with others.
static void close_sockets_of(int32_t pid, uint32_t owner)
{
    std::vector<sim_socket_t *> found;
    uint32_t num = sim_socket_num(broker_state());
    for (uint32_t slot = 0; slot < num; slot++) {
        sim_socket_t *socket = sim_socket_at(broker_state(), slot);
        if (sim_use_owner(sim_load(&socket->use)) == owner) {
            (void)names_unbind(socket->port, nullptr);
            sim_socket_inherit(&g_broker.self, socket, owner);
        } else if (slot_in_use(slot) != nullptr && socket->pid == pid && !held(socket)) {
            found.push_back(socket);
        }
    }
    std::sort(found.begin(), found.end(), [](auto *a, auto *b) { return a->port < b->port; }); // oldest first
    for (sim_socket_t *socket : found)
        close_socket(socket);
}

// A process that was killed between a change of a socket and the wake-up has left that to us.
static void wake_users()
{
    uint32_t num = sim_socket_num(broker_state());
    for (uint32_t slot = 0; slot < num; slot++) {
        sim_socket_t *socket = slot_in_use(slot);
        if (socket == nullptr)
            continue;
        sim_socket_rouse(socket);
        if ((sim_socket_events(broker_state(), socket) & (POLLIN | POLLHUP)) == 0)
            continue;
        sim_store(&socket->woken, 0U);
        sim_socket_notify(&g_broker.self, socket);
    }
}

static void process_gone(uint32_t entry)
{
    sim_process_t *process = &broker_state()->processes[entry];
    uint32_t owner = entry + 1;
    close_sockets_of(process->pid, owner);
    sim_blocks_reclaim(broker_state(), owner);
    process->start = 0;
    sim_store(&process->pid, 0);
    wake_users();
    g_broker.check_end = true;
}

// `pid`: as this process knows it, which may differ from what the process itself knows.
static bool watch_process(uint32_t entry, int32_t pid)
{
    int fd = (int)sys_call(SYS_pidfd_open, pid, 0);
    if (fd < 0)
        return fd != -ESRCH && fd != -EINVAL;
    g_broker.processes[fd] = entry;
    (void)g_broker.watched.insert(entry);
    watch(fd);
    return true;
}

// Processes that have not told of themselves: a broker before may have been told. A process tells a moment after it has
// entered; what is missing at two looks is gone.
static void look_for_processes(bool at_once)
{
    for (uint32_t entry = 0; entry < SIM_MAX_PROCESSES; entry++) {
        sim_process_t *process = &broker_state()->processes[entry];
        int32_t pid = sim_load(&process->pid);
        if (pid == 0 || entry + 1 == g_broker.self.owner || g_broker.watched.count(entry) != 0)
            continue;
        uint64_t start = sim_load(&process->start);
        bool same = start == 0 || start == sim_process_start(pid);
        if (same && watch_process(entry, pid))
            (void)g_broker.missing.erase(entry);
        else if (at_once || !g_broker.missing.insert(entry).second)
            process_gone(entry);
    }
}

static void process_ended(int fd)
{
    auto it = g_broker.processes.find(fd);
    struct pollfd ended = {fd, POLLIN, 0};
    if (it == g_broker.processes.end() || poll(&ended, 1, 0) <= 0)
        return;
    uint32_t entry = it->second;
    (void)close(fd);
    g_broker.processes.erase(it);
    (void)g_broker.watched.erase(entry);
    (void)g_broker.missing.erase(entry);
    process_gone(entry);
}

static int hello(int from, int32_t pid)
{
    struct ucred peer = {};
    socklen_t len = sizeof(peer);
    if (getsockopt(from, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0)
        return 0;
    for (uint32_t entry = 0; pid != 0 && entry < SIM_MAX_PROCESSES; entry++) {
        if (sim_load(&broker_state()->processes[entry].pid) == pid && g_broker.watched.count(entry) == 0)
            (void)watch_process(entry, peer.pid);
    }
    return 0;
}

static int released(uint32_t port)
{
    sim_socket_t *socket = sim_socket_of(broker_state(), port);
    if (socket != nullptr && socket->served == 0 && !held(socket))
        close_socket(socket);
    return 0;
}

static uint32_t index_of(uint32_t node)
{
    return node == SIM_ANY_NODE ? SIM_ANY_NODE : sim_node_index(broker_state(), node);
}

static int serve_names(const sim_request_t *request, const uint8_t *more, size_t len)
{
    sim_name_t name;
    if (len != sizeof(name))
        return -EINVAL;
    memcpy(&name, more, sizeof(name));
    return request->op == SIM_BIND ? names_bind(request->a, &name) : names_unbind(request->a, &name);
}

static int impair(const uint8_t *more, size_t len)
{
    sim_impaired_t how;
    if (len != sizeof(how))
        return -EINVAL;
    memcpy(&how, more, sizeof(how));
    how.a = index_of(how.a);
    how.b = index_of(how.b);
    return links_impair(&how);
}

static int serve(int from, const sim_request_t *request, const uint8_t *more, size_t len)
{
    switch (request->op) {
    case SIM_HELLO:
        return hello(from, (int32_t)request->a);
    case SIM_OPENED:
        return sim_socket_of(broker_state(), request->a) != nullptr ? 0 : -EINVAL;
    case SIM_BIND:
    case SIM_UNBIND:
        return serve_names(request, more, len);
    case SIM_RELEASED:
        return released(request->a);
    case SIM_IMPAIR:
        return impair(more, len);
    case SIM_CUT:
        return links_cut(index_of(request->a), index_of(request->b), request->value);
    case SIM_HEAL:
        return links_heal(index_of(request->a), index_of(request->b));
    case SIM_NODE_DOWN:
        return links_cut(index_of(request->a), SIM_ANY_NODE, SIM_CUT_AT_ONCE);
    case SIM_DROP:
        topology_drop(index_of(request->a));
        return 0;
    default:
        return -EINVAL;
    }
}

// False when it is no request of this cluster.
static bool answer(int fd, const uint8_t *bytes, ssize_t len)
{
    sim_request_t request;
    if (len < (ssize_t)sizeof(request))
        return false;
    memcpy(&request, bytes, sizeof(request));
    if (request.magic != SIM_MAGIC || memcmp(request.secret, broker_state()->secret, sizeof(request.secret)) != 0)
        return false;
    sim_reply_t reply = {SIM_MAGIC, serve(fd, &request, bytes + sizeof(request), (size_t)len - sizeof(request))};
    (void)send(fd, &reply, sizeof(reply), MSG_DONTWAIT | MSG_NOSIGNAL);
    return true;
}

static void read_conn(int fd)
{
    uint8_t bytes[512];
    ssize_t len = sys_call(SYS_recvfrom, fd, bytes, sizeof(bytes), MSG_DONTWAIT | MSG_TRUNC, nullptr, nullptr);
    if (len == -EAGAIN || len == -EINTR)
        return;
    if (len > (ssize_t)sizeof(bytes) || !answer(fd, bytes, len))
        fprintf(stderr, "tipcsim: broker: %zd bytes that are no request: connection closed\n", len);
    g_broker.conns.erase(fd);
    (void)close(fd);
    g_broker.check_end = true;
}

static void accept_conn()
{
    int fd = accept4(g_broker.listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE)
            (void)usleep(1000); // until one of the connections has been served
        return;
    }
    g_broker.awaited = 0;
    g_broker.conns.insert(fd);
    watch(fd);
}

// All sockets of the broker share the descriptor. It is emptied first, then each socket asks for a new wake-up, then
// they are read: what comes meanwhile is read now or wakes the broker again.
static void read_served()
{
    uint64_t times = 0;
    (void)sys_call(SYS_read, g_broker.wake, &times, sizeof(times));
    for (sim_socket_t *socket : g_broker.served)
        sim_store(&socket->woken, 0U);
    links_read();
    topology_read();
}

// Whether any file whose name begins with `prefix`, or is `prefix`, is locked. The others are removed.
static bool locked(const char *prefix, bool whole)
{
    bool any = false;
    sim_each_file(g_broker.cluster.dir, prefix, [&any, prefix, whole](const std::string &name) {
        if (whole && name != prefix)
            return;
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

static bool sockets_open()
{
    uint32_t num = sim_socket_num(broker_state());
    for (uint32_t slot = 0; slot < num; slot++) {
        const sim_socket_t *socket = sim_socket_at(broker_state(), slot);
        if (sim_load(&socket->use) != SIM_SLOT_FREE && socket->served == 0)
            return true;
    }
    return false;
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
// long as it, or a child of it, lives, and a launcher that made the cluster one on "keep". A process that closed all
// descriptors, and may yet make a socket, is known by its mark. The cluster's lock keeps processes from joining between
// the check and the removal.
static bool ended()
{
    if (!g_broker.check_end || !g_broker.conns.empty() || sys_now() < g_broker.awaited || sockets_open())
        return false;
    g_broker.check_end = false;
    int lock = sim_cluster_lock(g_broker.cluster.dir);
    if (lock < 0)
        return lock == -ENOENT;
    bool used = locked("p.", false);
    used = locked("keep", true) || used || sockets_open();
    struct epoll_event ready;
    used = used || sys_epoll_wait(g_broker.epoll, &ready, 1, 0) > 0; // a client is connecting
    if (!used && tree_any(tree_number(g_broker.cluster.dir))) {
        used = true;
        g_broker.awaited = sys_now() + LOOK_ALL_MS;
    }
    if (!used) {
        keeper_end(&g_broker.cluster);
        remove_cluster(g_broker.cluster.dir);
    }
    (void)close(lock);
    return !used;
}

static void look()
{
    look_for_processes(false);
    names_check();
    uint32_t num = sim_socket_num(broker_state());
    for (uint32_t i = 0; i < LOOK_SLOTS && i < num; i++) {
        uint32_t slot = (g_broker.next_slot + i) % num;
        sim_socket_t *socket = slot_in_use(slot);
        if (socket != nullptr && !held(socket))
            close_socket(socket);
    }
    g_broker.next_slot = num != 0 ? (g_broker.next_slot + LOOK_SLOTS) % num : 0;
    g_broker.check_end = true;
}

static void look_for_nodes()
{
    uint32_t num = sim_node_num(broker_state());
    for (; g_broker.node_num < num; g_broker.node_num++) {
        links_node(g_broker.node_num);
        topology_node(g_broker.node_num);
    }
}

static void pass_time(int64_t now)
{
    links_time(now);
    topology_time(now);
    look_for_nodes();
    if (now < g_broker.next_look)
        return;
    g_broker.next_look = now + LOOK_MS;
    look();
}

static int wait_ms(int64_t now)
{
    int64_t until = std::min({topology_deadline(), links_deadline(), g_broker.next_look});
    return until <= now ? 0 : (int)std::min<int64_t>(until - now, LOOK_MS);
}

static void loop()
{
    while (!ended()) {
        struct epoll_event ready[EVENTS];
        int64_t until = std::min(topology_deadline(), links_deadline());
        sim_waiting_t waiting;
        sim_wait_begin(&waiting, until != INT64_MAX ? until * 1000000 : SIM_NEVER);
        int num = sys_epoll_wait(g_broker.epoll, ready, EVENTS, wait_ms(sys_now()));
        sim_wait_end(&waiting);
        for (int i = 0; i < num; i++) {
            int fd = ready[i].data.fd;
            if (fd == g_broker.listener)
                accept_conn();
            else if (fd == g_broker.wake)
                read_served();
            else if (g_broker.conns.count(fd) != 0)
                read_conn(fd);
            else
                process_ended(fd);
        }
        pass_time(sys_now());
    }
}

static int listen_at(const sim_state_t *state)
{
    struct sockaddr_un addr;
    socklen_t len = 0;
    sim_address(state, false, &addr, &len);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    for (int tries = 0; fd >= 0; tries++) {
        if (bind(fd, (const struct sockaddr *)&addr, len) == 0)
            return listen(fd, 4096) == 0 ? fd : -errno;
        if (errno != EADDRINUSE || tries == LISTEN_TRIES)
            break;
        (void)usleep(1000);
    }
    return -errno;
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
    process_to_background();
}

static int fail(const char *dir, const char *what, int ret)
{
    fprintf(stderr, "tipcsim: cluster %s: %s: %s\n", dir, what, strerror(-ret));
    return 1;
}

// Makes this process the broker of the cluster, in the background. It listens, its pid is written, and there is a
// keeper, before the cluster's lock is released: whoever finds that there is a broker can connect to it and stop it. 0,
// or 1 after an error; -1 when there is one already.
static int take_cluster(const char *dir)
{
    const char *why = "";
    int lock = sim_cluster_join(&g_broker.cluster, dir, &why);
    if (lock < 0)
        return fail(dir, why, lock);
    if (!only_one(dir)) {
        (void)close(lock);
        return -1;
    }
    int ret = keeper_start(&g_broker.cluster);
    if (ret != 0)
        return fail(dir, "cannot start its keeper", ret);
    g_broker.listener = listen_at(g_broker.cluster.state);
    if (g_broker.listener < 0)
        return fail(dir, "cannot listen", g_broker.listener);
    go_to_background(dir);
    (void)close(lock); // the starter's copy is closed when it ends
    return 0;
}

// The broker's sockets wake it by a descriptor in the keeper, as all others do.
static bool begin()
{
    sim_state_t *state = broker_state();
    g_broker.self = {&g_broker.cluster, 0, sim_keeper_grow, sim_keeper_wake};
    g_broker.self.owner = (uint32_t)sim_process_enter(state, sys_getpid(), 0) + 1;
    sim_store(&state->broker, (int32_t)sys_getpid());
    g_broker.wake_there = -1;
    g_broker.epoll = epoll_create1(EPOLL_CLOEXEC);
    g_broker.look_fd = epoll_create1(EPOLL_CLOEXEC);
    g_broker.wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    (void)sys_fcntl(g_broker.wake, F_SETSIG, SIM_MARK);
    keeper_end_served(&g_broker.self, 0, sys_getpid());
    links_begin();
    sim_socket_t *wire = sim_socket_of(state, sim_load(&state->wire));
    g_broker.wake_there =
        wire != nullptr ? sim_ask_keeper(&g_broker.cluster, SIM_KEEP, wire->port, 0, g_broker.wake) : -1;
    if (g_broker.wake_there < 0)
        return false;
    sim_store(&wire->wake, g_broker.wake_there);
    names_adopt();
    look_for_processes(true);
    return topology_begin();
}

// Makes what a broker before left consistent: it may have been killed at any place.
static void finish_last()
{
    uint32_t num = sim_socket_num(broker_state());
    for (uint32_t slot = 0; slot < num; slot++) {
        sim_socket_t *socket = sim_socket_at(broker_state(), slot);
        uint32_t owner = sim_use_owner(sim_load(&socket->use));
        if (owner != 0 && owner <= SIM_MAX_PROCESSES && sim_load(&broker_state()->processes[owner - 1].pid) == 0)
            sim_socket_inherit(&g_broker.self, socket, owner);
        else if (slot_in_use(slot) != nullptr && !held(socket))
            close_socket(socket);
    }
    wake_users();
}

int broker_main(const char *dir, bool if_none)
{
    (void)syscall(SYS_close_range, 3, UINT_MAX, 0); // inherited ones, among them the lock on the starter's "p." file
    int ret = take_cluster(dir);
    if (ret < 0 && !if_none)
        fprintf(stderr, "tipcsim: cluster %s has a broker already\n", dir);
    if (ret != 0)
        return ret < 0 && if_none ? 0 : 1;
    process_raise_files();
    sim_clock_join(dir);
    if (!begin())
        return 1;
    finish_last();
    watch(g_broker.listener);
    watch(g_broker.wake);
    g_broker.awaited = sys_now() + FIRST_CLIENT_MS;
    read_served();
    loop();
    return 0;
}
