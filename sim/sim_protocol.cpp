// The client's side of the broker's protocol.
#include "sim_protocol.h"
#include "sim_sys.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

static int connect_once(const char *dir)
{
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (!sim_cluster_path(dir, "broker", addr.sun_path, sizeof(addr.sun_path)))
        return -ENAMETOOLONG;
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    while (connect(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
        if (errno == EINTR)
            continue;
        int err = errno;
        (void)sys_close(fd);
        return -err;
    }
    return fd;
}

// The program goes to the background once its broker listens, and ends at once when there is a broker already.
static void start_broker(const char *dir, const char *tool)
{
    char word[] = "broker";
    char option[] = "--cluster";
    char *argv[] = {const_cast<char *>(tool), word, option, const_cast<char *>(dir), nullptr};
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
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR)
        continue;
}

// Takes the lock under which a broker is started: of processes that find none at the same time one starts it, and the
// others go on when it listens. A descriptor, which releases the lock when it is closed, or -1.
static int lock_start(const char *dir)
{
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    while (fd >= 0 && flock(fd, LOCK_EX) != 0 && errno == EINTR)
        continue;
    return fd;
}

int sim_broker_connect(const sim_cluster_t *cluster, const char *tool)
{
    int fd = connect_once(cluster->dir);
    if (fd >= 0 || tool == nullptr || __atomic_load_n(&cluster->state->held, __ATOMIC_RELAXED) != 0)
        return fd;
    int lock = lock_start(cluster->dir);
    fd = connect_once(cluster->dir);
    if (fd < 0) {
        start_broker(cluster->dir, tool);
        fd = connect_once(cluster->dir);
    }
    if (lock >= 0)
        (void)sys_close(lock);
    return fd;
}

int sim_broker_ask(int fd, const sim_request_t *request, const struct iovec *more, size_t num)
{
    struct iovec parts[4] = {{const_cast<sim_request_t *>(request), sizeof(*request)}, {}, {}, {}};
    for (size_t i = 0; i < num && i < 3; i++)
        parts[1 + i] = more[i];
    struct msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = parts;
    msg.msg_iovlen = 1 + num;
    while (sendmsg(fd, &msg, MSG_NOSIGNAL) < 0) {
        if (errno != EINTR)
            return -ENOTCONN;
    }
    sim_reply_t reply;
    ssize_t got;
    while ((got = sys_recv(fd, &reply, sizeof(reply), 0)) < 0 && errno == EINTR)
        continue;
    return got == (ssize_t)sizeof(reply) && reply.magic == SIM_MAGIC ? reply.result : -ENOTCONN;
}
