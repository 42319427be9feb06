// The keeper of a cluster: a small process that outlives the broker. It holds the wake-up descriptors of all sockets,
// from which everybody fetches them with pidfd_getfd; for those that may not it writes to them. It gives memory to the
// shared state, and ends the connections of a broker that was killed. It has one thread and never waits for anybody.
#include "broker.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/un.h>

constexpr int FOLDER_MS = 1000; // the interval of looks whether the folder is there
constexpr int ALONE_MS = 5000;  // without a broker; then the keeper starts one, which removes what nobody uses any more
constexpr int RESERVE = 64;     // descriptors that are left for connections
constexpr int EVENTS = 64;

enum { KEEPER_LISTENER = 3, KEEPER_STATE, KEEPER_LOCK, KEEPER_FIRST_FREE };

typedef struct keeper_s {
    sim_cluster_t cluster;
    sim_self_t self;
    int epoll;
    int broker_fd;  // a pidfd of the broker, -1 for none
    int32_t broker; // its process id
    int64_t alone;  // ms: since when there is no broker
    int limit;      // descriptors below it may be kept
    int kept[SIM_MAX_SOCKETS];
} keeper_t;

static keeper_t s_keeper;

void process_to_background()
{
    (void)setsid();
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    (void)dup2(null, STDIN_FILENO);
    (void)dup2(null, STDOUT_FILENO);
    if (getenv("TIPCSIM_DEBUG") == nullptr)
        (void)dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO)
        (void)close(null);
    (void)!chdir("/");
    (void)signal(SIGPIPE, SIG_IGN);
}

void process_raise_files()
{
    struct rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) != 0)
        return;
    files.rlim_cur = files.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &files);
}

void keeper_end_served(const sim_self_t *self, int32_t pid, int32_t but)
{
    sim_state_t *state = self->cluster->state;
    uint32_t num = sim_socket_num(state);
    for (uint32_t slot = 0; slot < num; slot++) {
        sim_socket_t *socket = sim_socket_at(state, slot);
        if (sim_load(&socket->use) != SIM_SLOT_OPEN || socket->served == 0 || socket->port == sim_load(&state->wire))
            continue;
        if (pid != 0 ? socket->pid != pid : socket->pid == but)
            continue;
        sim_disconnect(self, socket, TIPC_CONN_SHUTDOWN);
        sim_socket_close(self, socket, true);
    }
}

static void watch(int fd)
{
    struct epoll_event wanted = {};
    wanted.events = EPOLLIN;
    wanted.data.fd = fd;
    (void)sys_epoll_ctl(s_keeper.epoll, EPOLL_CTL_ADD, fd, &wanted);
}

static void broker_gone()
{
    keeper_end_served(&s_keeper.self, s_keeper.broker, 0);
    (void)sim_swap(&s_keeper.cluster.state->broker, s_keeper.broker, 0);
    if (s_keeper.broker_fd >= 0)
        (void)close(s_keeper.broker_fd);
    s_keeper.broker_fd = -1;
    s_keeper.broker = 0;
    s_keeper.alone = sys_now();
}

// A broker that was killed may have been the last that used the cluster.
static void start_broker()
{
    char word[] = "broker";
    char if_none[] = "if-none";
    char option[] = "--cluster";
    char name[] = "tipcsim";
    char *argv[] = {name, word, if_none, option, s_keeper.cluster.dir, nullptr};
    s_keeper.alone = sys_now();
    if (fork() != 0)
        return;
    (void)signal(SIGCHLD, SIG_DFL);
    (void)execv("/proc/self/exe", argv);
    _exit(127);
}

// Watches the broker that there is now. A new one asks for something as it begins, so it is noticed at once.
static void look_for_broker()
{
    int32_t pid = sim_load(&s_keeper.cluster.state->broker);
    if (pid == s_keeper.broker || pid == 0)
        return;
    if (s_keeper.broker != 0)
        broker_gone();
    s_keeper.broker = pid;
    s_keeper.broker_fd = (int)sys_call(SYS_pidfd_open, pid, 0);
    if (s_keeper.broker_fd >= 0)
        watch(s_keeper.broker_fd);
    else
        broker_gone();
}

// The event may be that of a descriptor which was closed this moment and had the same number.
static void look_at_broker()
{
    struct pollfd ended = {s_keeper.broker_fd, POLLIN, 0};
    if (poll(&ended, 1, 0) > 0)
        broker_gone();
}

static int wake(int fd)
{
    uint64_t one = 1;
    ssize_t ret = fd >= 0 ? sys_write(fd, &one, sizeof(one)) : -EINVAL;
    return ret < 0 && ret != -EAGAIN ? (int)ret : 0;
}

static void wake_socket(sim_cluster_t * /*cluster*/, sim_socket_t *socket)
{
    (void)wake(s_keeper.kept[sim_socket_slot(sim_load(&socket->port))]);
}

static int grow(sim_cluster_t *cluster, uint32_t area, uint32_t seen)
{
    return sim_area_grow(cluster->state, KEEPER_STATE, area, seen);
}

static void forget(uint32_t slot)
{
    if (s_keeper.kept[slot] >= 0)
        (void)close(s_keeper.kept[slot]);
    s_keeper.kept[slot] = -1;
}

// Those of sockets that were closed stay until their slot is used again, or others need their numbers.
static void forget_closed()
{
    sim_state_t *state = s_keeper.cluster.state;
    uint32_t num = sim_load(&state->socket_num);
    for (uint32_t slot = 0; slot < num; slot++) {
        if (sim_load(&sim_socket_at(state, slot)->use) == SIM_SLOT_FREE)
            forget(slot);
    }
}

static int keep(uint32_t port, int fd)
{
    if (fd < 0 || !sim_socket_is(fd))
        return -EINVAL;
    uint32_t slot = sim_socket_slot(port);
    forget(slot);
    if (fd < s_keeper.limit)
        return s_keeper.kept[slot] = fd;
    forget_closed();
    int lower = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (lower < 0 || lower >= s_keeper.limit) {
        if (lower >= 0)
            (void)close(lower);
        return -ENFILE;
    }
    (void)close(fd);
    return s_keeper.kept[slot] = lower;
}

// What a client sent: its request, and a descriptor or -1. False when it is none of this cluster's.
static bool take_request(int from, sim_request_t *request, int *passed, bool *lost, bool *none)
{
    uint8_t bytes[sizeof(*request) + 1]; // one more, so that a longer one is noticed
    alignas(struct cmsghdr) uint8_t control[CMSG_SPACE(sizeof(int))];
    struct iovec part = {bytes, sizeof(bytes)};
    struct msghdr msg = {};
    msg.msg_iov = &part;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t len = sys_recvmsg(from, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    *none = len == -EAGAIN;
    int fds[2] = {-1, -1};
    size_t num = 0;
    for (struct cmsghdr *head = len >= 0 ? CMSG_FIRSTHDR(&msg) : nullptr; head != nullptr;
         head = CMSG_NXTHDR(&msg, head)) {
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS)
            continue;
        for (size_t at = 0; CMSG_LEN(at + sizeof(int)) <= head->cmsg_len && num < 2; at += sizeof(int))
            memcpy(&fds[num++], CMSG_DATA(head) + at, sizeof(int));
    }
    *lost = (msg.msg_flags & MSG_CTRUNC) != 0;
    memcpy(request, bytes, sizeof(*request));
    bool valid = len == (ssize_t)sizeof(*request) && request->magic == SIM_MAGIC && num <= 1 &&
                 memcmp(request->secret, s_keeper.cluster.state->secret, sizeof(request->secret)) == 0;
    for (size_t i = 0; i < num && (!valid || request->op != SIM_KEEP); i++) {
        (void)close(fds[i]);
        fds[i] = -1;
    }
    *passed = fds[0];
    return valid;
}

static int serve(const sim_request_t *request, int passed, bool lost)
{
    switch (request->op) {
    case SIM_KEEP: {
        int ret = passed < 0 && lost ? -ENFILE : keep(request->a, passed);
        if (ret < 0 && passed >= 0)
            (void)close(passed);
        return ret;
    }
    case SIM_WAKE:
        return wake(s_keeper.kept[sim_socket_slot(request->a)]);
    case SIM_GROW:
        return sim_area_grow(s_keeper.cluster.state, KEEPER_STATE, request->a, request->b);
    case SIM_END:
        return 0;
    default:
        return -EINVAL;
    }
}

// False at the end.
static bool read_conn(int fd)
{
    sim_request_t request = {};
    int passed = -1;
    bool lost = false;
    bool none = false;
    bool valid = take_request(fd, &request, &passed, &lost, &none);
    if (none)
        return true;
    if (valid) {
        look_for_broker();
        sim_reply_t reply = {SIM_MAGIC, serve(&request, passed, lost)};
        (void)send(fd, &reply, sizeof(reply), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    (void)close(fd);
    return !valid || request.op != SIM_END;
}

static void accept_conn()
{
    int fd = accept4(KEEPER_LISTENER, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0)
        watch(fd);
    else if (errno == EMFILE || errno == ENFILE)
        (void)usleep(1000); // until one of the connections has been served
}

static void loop()
{
    for (;;) {
        struct epoll_event ready[EVENTS];
        int num = sys_epoll_wait(s_keeper.epoll, ready, EVENTS, FOLDER_MS);
        for (int i = 0; i < num; i++) {
            int fd = ready[i].data.fd;
            if (fd == KEEPER_LISTENER)
                accept_conn();
            else if (fd == s_keeper.broker_fd)
                look_at_broker();
            else if (!read_conn(fd))
                return;
        }
        if (num <= 0 && access(s_keeper.cluster.dir, F_OK) != 0)
            return;
        bool alone = s_keeper.broker == 0 && sim_load(&s_keeper.cluster.state->held) == 0;
        if (alone && sys_now() - s_keeper.alone > ALONE_MS)
            start_broker();
    }
}

[[noreturn]] static void keeper_main(const sim_cluster_t *cluster)
{
    process_to_background();
    process_raise_files();
    (void)prctl(PR_SET_NAME, "tipcsim-keeper");
    (void)prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY); // else descriptors can be fetched by its children alone
    s_keeper.cluster = *cluster;
    for (int &kept : s_keeper.kept)
        kept = -1;
    struct rlimit files = {};
    (void)getrlimit(RLIMIT_NOFILE, &files);
    s_keeper.limit = files.rlim_cur > INT_MAX ? INT_MAX : (int)files.rlim_cur - RESERVE;
    s_keeper.broker_fd = -1;
    s_keeper.alone = sys_now();
    (void)signal(SIGCHLD, SIG_IGN); // nobody waits for what starts a broker
    s_keeper.self = {&s_keeper.cluster, 0, grow, wake_socket};
    s_keeper.self.owner = (uint32_t)sim_process_enter(s_keeper.cluster.state, sys_getpid(), 0) + 1;
    s_keeper.epoll = epoll_create1(EPOLL_CLOEXEC);
    watch(KEEPER_LISTENER);
    look_for_broker();
    loop();
    _exit(0);
}

static int listen_at(const sim_state_t *state)
{
    struct sockaddr_un addr;
    socklen_t len = 0;
    sim_address(state, true, &addr, &len);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || bind(fd, (const struct sockaddr *)&addr, len) != 0 || listen(fd, 4096) != 0) {
        int err = errno;
        if (fd >= 0)
            (void)close(fd);
        return -err;
    }
    return fd;
}

// Everything but the three descriptors is closed, among it what shows others that a broker lives.
static void leave_starter(int listener, int state, int lock)
{
    int above = fcntl(listener, F_DUPFD_CLOEXEC, KEEPER_FIRST_FREE);
    int state_above = fcntl(state, F_DUPFD_CLOEXEC, KEEPER_FIRST_FREE);
    int lock_above = fcntl(lock, F_DUPFD_CLOEXEC, KEEPER_FIRST_FREE);
    (void)dup2(above, KEEPER_LISTENER);
    (void)dup2(state_above, KEEPER_STATE);
    (void)dup2(lock_above, KEEPER_LOCK);
    (void)syscall(SYS_close_range, KEEPER_FIRST_FREE, UINT_MAX, 0);
}

static int open_in(const char *dir, const char *name, int flags)
{
    char path[SIM_PATH_LEN];
    (void)sim_cluster_path(dir, name, path, sizeof(path));
    int fd = open(path, O_RDWR | O_CLOEXEC | flags, 0600);
    return fd >= 0 ? fd : -errno;
}

// Called with the cluster's lock held. The lock on keeper.pid lasts as long as the keeper lives.
int keeper_start(sim_cluster_t *cluster)
{
    int lock = open_in(cluster->dir, "keeper.pid", O_CREAT);
    if (lock < 0)
        return lock;
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
        (void)close(lock);
        return 0;
    }
    int state = open_in(cluster->dir, "state", 0);
    int listener = listen_at(cluster->state);
    pid_t pid = state >= 0 && listener >= 0 ? fork() : -1;
    if (pid == 0) {
        leave_starter(listener, state, lock);
        keeper_main(cluster);
    }
    int ret = state < 0 ? state : listener < 0 ? listener : pid < 0 ? -EAGAIN : 0;
    if (ret == 0) {
        sim_store(&cluster->state->keeper, (int32_t)pid);
        (void)ftruncate(lock, 0);
        (void)dprintf(lock, "%d\n", (int)pid);
    }
    for (int fd : {lock, state, listener}) {
        if (fd >= 0)
            (void)close(fd);
    }
    return ret;
}

void keeper_end(const sim_cluster_t *cluster)
{
    int fd = (int)sys_call(SYS_pidfd_open, sim_load(&cluster->state->keeper), 0);
    struct pollfd ended = {fd, POLLIN, 0};
    if (sim_ask_keeper(cluster, SIM_END, 0, 0, -1) == 0 && fd >= 0)
        (void)poll(&ended, 1, FOLDER_MS);
    if (fd >= 0)
        (void)close(fd);
}
