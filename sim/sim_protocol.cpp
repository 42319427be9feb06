// The client's side of the broker's and the keeper's protocol. A connection serves one request, so no state of it can
// be shared by threads, with a signal handler or with a child.
#include "sim_protocol.h"
#include "sim_sys.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/tipc.h>
#include <spawn.h>
#include <sys/un.h>
#include <sys/wait.h>

extern char **environ;

constexpr int FIRST_OWN_FD = 512; // for a descriptor that the library keeps, out of the application's way

void sim_address(const sim_state_t *state, bool keeper, struct sockaddr_un *addr, socklen_t *len)
{
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    char *at = addr->sun_path + 1; // the first byte stays 0: the address is abstract
    int num = snprintf(at, sizeof(addr->sun_path) - 1, "tipcsim-%016llx-%s", (unsigned long long)state->lock_base,
                       keeper ? "keeper" : "broker");
    *len = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + (size_t)num);
}

static int connect_to(const sim_state_t *state, bool keeper)
{
    struct sockaddr_un addr;
    socklen_t len = 0;
    sim_address(state, keeper, &addr, &len);
    int fd = (int)sys_call(SYS_socket, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return fd;
    int ret = 0;
    do
        ret = (int)sys_call(SYS_connect, fd, &addr, len);
    while (ret == -EINTR);
    if (ret == 0)
        return fd;
    (void)sys_close(fd);
    return ret;
}

// The program goes to the background once its broker listens, and ends at once when there is a broker already.
static void start_broker(const char *dir, const char *tool)
{
    char word[] = "broker";
    char if_none[] = "if-none"; // several processes may start it at once: one of them does
    char option[] = "--cluster";
    char *argv[] = {const_cast<char *>(tool), word, if_none, option, const_cast<char *>(dir), nullptr};
    char *plain[128]; // the environment without LD_PRELOAD, which is for the application only
    size_t num = 0;
    for (char **entry = environ; *entry != nullptr && num < 127; entry++) {
        if (strncmp(*entry, "LD_PRELOAD=", 11) != 0)
            plain[num++] = *entry;
    }
    plain[num] = nullptr;
    pid_t pid = 0;
    if (posix_spawn(&pid, tool, nullptr, nullptr, argv, plain) != 0)
        return;
    while (sys_call(SYS_wait4, pid, nullptr, 0, nullptr) == -EINTR)
        continue;
}

static int exchange(int to, const sim_request_t *request, const void *data, size_t size, int fd)
{
    struct iovec parts[2] = {{const_cast<sim_request_t *>(request), sizeof(*request)},
                             {const_cast<void *>(data), size}};
    alignas(struct cmsghdr) uint8_t control[CMSG_SPACE(sizeof(int))] = {};
    struct msghdr msg = {};
    msg.msg_iov = parts;
    msg.msg_iovlen = data != nullptr ? 2 : 1;
    if (fd >= 0) {
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        struct cmsghdr *head = CMSG_FIRSTHDR(&msg);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(head), &fd, sizeof(fd));
    }
    if (sys_sendmsg(to, &msg, MSG_NOSIGNAL) < 0)
        return -ENOTCONN;
    sim_reply_t reply = {};
    struct iovec answer = {&reply, sizeof(reply)};
    struct msghdr in = {};
    in.msg_iov = &answer;
    in.msg_iovlen = 1;
    bool whole = sys_recvmsg(to, &in, 0) == (ssize_t)sizeof(reply) && reply.magic == SIM_MAGIC;
    return whole ? reply.result : -ENOTCONN;
}

static sim_request_t request_of(const sim_state_t *state, uint32_t op, uint32_t a, uint32_t b, uint32_t value)
{
    sim_request_t request = {SIM_MAGIC, op, {}, 0, a, b, value};
    memcpy(request.secret, state->secret, sizeof(request.secret));
    return request;
}

int sim_ask_broker(const sim_cluster_t *cluster, const char *tool, uint32_t op, uint32_t a, uint32_t b, uint32_t value,
                   const void *data, size_t size)
{
    sim_request_t request = request_of(cluster->state, op, a, b, value);
    for (int tries = 0; tries < 3; tries++) {
        int to = connect_to(cluster->state, false);
        if (to == -EMFILE || to == -ENFILE)
            return to;
        if (to >= 0) {
            int ret = exchange(to, &request, data, size, -1);
            (void)sys_close(to);
            if (ret != -ENOTCONN)
                return ret;
        }
        if (tool == nullptr || sim_load(&cluster->state->held) != 0)
            break;
        start_broker(cluster->dir, tool);
    }
    return -ENOTCONN;
}

int sim_ask_keeper(const sim_cluster_t *cluster, uint32_t op, uint32_t a, uint32_t b, int fd)
{
    sim_request_t request = request_of(cluster->state, op, a, b, 0);
    int to = connect_to(cluster->state, true);
    if (to < 0)
        return to;
    int ret = exchange(to, &request, nullptr, 0, fd);
    (void)sys_close(to);
    return ret;
}

int sim_keeper_grow(sim_cluster_t *cluster, uint32_t area, uint32_t seen)
{
    return sim_ask_keeper(cluster, SIM_GROW, area, seen, -1);
}

static int s_keeper = -1; // a pidfd of the keeper

static int keeper_fd(const sim_state_t *state, int stale)
{
    int fd = __atomic_load_n(&s_keeper, __ATOMIC_RELAXED);
    if (fd >= 0 && fd != stale)
        return fd;
    int made = (int)sys_call(SYS_pidfd_open, sim_load(&state->keeper), 0);
    int high = made >= 0 ? sys_fcntl(made, F_DUPFD_CLOEXEC, FIRST_OWN_FD) : -1;
    if (high >= 0)
        (void)sys_close(made);
    else
        high = made;
    // Another thread may have made one at the same time: the loser's is closed.
    if (high >= 0 && !sim_swap(&s_keeper, fd, high)) {
        (void)sys_close(high);
        return __atomic_load_n(&s_keeper, __ATOMIC_RELAXED);
    }
    return high;
}

// Fetches the wake-up descriptor out of the keeper for the length of a write. 0 or a negative errno.
static int wake_once(int keeper, int number)
{
    int fd = (int)sys_call(SYS_pidfd_getfd, keeper, number, 0);
    if (fd < 0)
        return fd;
    // The number may be that of a pidfd of the application: only what bears the mark is written to.
    uint64_t one = 1;
    bool marked = sys_fcntl(fd, F_GETSIG, 0) == SIM_MARK;
    ssize_t ret = marked ? sys_write(fd, &one, sizeof(one)) : -EBADF;
    (void)sys_close(fd);
    return ret < 0 && ret != -EAGAIN ? (int)ret : 0; // -EAGAIN: it was written to 2^64 times
}

void sim_keeper_wake(sim_cluster_t *cluster, sim_socket_t *socket)
{
    int number = sim_load(&socket->wake);
    if (number < 0)
        return;
    int keeper = keeper_fd(cluster->state, -1);
    int ret = wake_once(keeper, number);
    if (ret == -EBADF && keeper >= 0) // the application closed it: the next one gets another number
        ret = wake_once(keeper_fd(cluster->state, keeper), number);
    if (ret != 0)
        (void)sim_ask_keeper(cluster, SIM_WAKE, sim_load(&socket->port), 0, -1);
}
