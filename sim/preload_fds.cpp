// Descriptors of TIPC sockets come and go: close, dup, fcntl, stdio, and those that come with a message or by exec.
//
// A descriptor leaves the table before it is closed or replaced, because another thread may get its number at once. The
// socket itself is released after that. Between the two the thread cannot be cancelled.
#include "preload.h"
#include "preload_next.h"
#include "preload_paths.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

// clang-format off
#define CALLS(X) \
    X(close) X(close_range) X(closefrom) X(dup) X(dup3) X(dup2) X(fcntl) X(fcntl64) X(fclose) X(freopen) \
    X(freopen64)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

constexpr int MAX_DESCRIPTOR = 1 << 20; // more than a process can have

// Whether the library keeps something for a number. The child of a vfork must not change it.
static bool concerns(int fd)
{
    return fd >= 0 && (preload_known(fd) || preload_watching(fd)) && !preload_shares_memory();
}

// What was kept for a number that is to be replaced, to put it back when it is not.
typedef struct kept_s {
    int fd;
    uint32_t port;
    int cancel; // the thread's state of cancellation
} kept_t;

static kept_t let_go(int fd)
{
    kept_t kept = {fd, SIM_NONE, 0};
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &kept.cancel);
    kept.port = preload_forget(fd);
    return kept;
}

static void let_go_done(const kept_t *kept, bool gone)
{
    if (gone)
        preload_released(kept->port);
    else if (kept->port != SIM_NONE)
        preload_remember(kept->fd, kept->port);
    (void)pthread_setcancelstate(kept->cancel, nullptr);
}

static int close_one(int fd)
{
    pthread_testcancel(); // as in the C library's close
    kept_t kept = let_go(fd);
    preload_watch_close(fd);
    int ret = sys_close(fd);
    let_go_done(&kept, true);
    return ret < 0 ? preload_fail(-ret) : 0;
}

constexpr int INHERITED = 4096; // descriptors that may have been inherited, when nothing lists the open ones

typedef struct entry_s { // of a folder, as the kernel writes it
    uint64_t inode;
    int64_t next;
    uint16_t size;
    uint8_t type;
    char name[1];
} entry_t;

typedef struct range_s { // of descriptors, both ends included
    unsigned first;
    unsigned last;
} range_t;

static bool in_range(const range_t *range, int fd)
{
    return (unsigned)fd >= range->first && (unsigned)fd <= range->last;
}

static void visit_listed(const char *list, long len, const range_t *range, int but, void (*visit)(int fd))
{
    for (long at = 0; at < len;) {
        const entry_t *entry = (const entry_t *)(list + at);
        int fd = entry->name[0] >= '0' && entry->name[0] <= '9' ? atoi(entry->name) : but;
        if (fd != but && in_range(range, fd))
            visit(fd);
        at += entry->size;
    }
}

// Calls `visit` for every open descriptor of a range. `most`: the numbers to try without a list of them.
static void each_open(const range_t *range, int most, void (*visit)(int fd))
{
    alignas(entry_t) char list[2048];
    long len;
    int folder = (int)sys_call(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    for (int fd = 0; folder < 0 && fd < most; fd++) {
        if (in_range(range, fd))
            visit(fd);
    }
    while (folder >= 0 && (len = sys_call(SYS_getdents64, folder, list, sizeof(list))) > 0)
        visit_listed(list, len, range, folder, visit);
    if (folder >= 0)
        (void)sys_close(folder);
}

static void close_ours(int fd)
{
    int before = errno;
    if (preload_known(fd) || preload_watching(fd))
        (void)close_one(fd);
    errno = before;
}

// Closes the descriptors of a range for which something is kept; the caller closes the others.
static void close_range_of_ours(unsigned first, unsigned last)
{
    range_t range = {first, last};
    each_open(&range, MAX_DESCRIPTOR, close_ours);
}

// `to` is now a duplicate of `from`.
static void copied(int from, int to)
{
    sim_socket_t *socket = preload_socket_at(from);
    if (socket != nullptr)
        preload_remember(to, sim_load(&socket->port));
    if (preload_watching(from) || preload_watching(to))
        preload_watch_copy(from, to);
}

static bool concerns_copy(int from, int to)
{
    return concerns(from) || concerns(to);
}

extern "C" {
int close(int fd)
{
    return concerns(fd) ? close_one(fd) : CALL_NEXT(close)(fd);
}

int close_range(unsigned first, unsigned last, int flags)
{
    if (first <= last && (flags & ~(int)CLOSE_RANGE_UNSHARE) == 0 && !preload_shares_memory())
        close_range_of_ours(first, last);
    return CALL_NEXT(close_range)(first, last, flags);
}

void closefrom(int first)
{
    if (!preload_shares_memory())
        close_range_of_ours(first > 0 ? (unsigned)first : 0, ~0U);
    CALL_NEXT(closefrom)(first);
}

int dup(int fd)
{
    int copy = CALL_NEXT(dup)(fd);
    if (copy >= 0 && concerns_copy(fd, copy))
        copied(fd, copy);
    return copy;
}

int dup3(int fd, int copy, int flags)
{
    if (fd == copy || !concerns_copy(fd, copy))
        return CALL_NEXT(dup3)(fd, copy, flags);
    kept_t kept = let_go(copy);
    int ret = CALL_NEXT(dup3)(fd, copy, flags);
    if (ret >= 0)
        copied(fd, copy);
    let_go_done(&kept, ret >= 0);
    return ret;
}

int dup2(int fd, int copy)
{
    return fd == copy || !concerns_copy(fd, copy) ? CALL_NEXT(dup2)(fd, copy) : dup3(fd, copy, 0);
}

int pidfd_getfd(int process, int fd, unsigned flags) noexcept
{
    int ret = (int)sys_call(SYS_pidfd_getfd, process, fd, flags);
    if (ret < 0)
        return preload_fail(-ret);
    preload_adopt(ret);
    return ret;
}
}

enum verdict_e { PASS, REFUSED };

// Orders whose effect on the socket's descriptor would not be that on a socket. Its F_SETSIG and its locks are taken:
// they mark it.
static verdict_e refused(int op, long arg, int *ret)
{
    switch (op) {
    case F_GETSIG:
        *ret = 0;
        return REFUSED;
    case F_SETSIG:
    case F_SETOWN:
    case F_SETOWN_EX:
        *ret = preload_refuse("fcntl: signals of a TIPC socket");
        return REFUSED;
    case F_GETLK:
    case F_SETLK:
    case F_SETLKW:
    case F_OFD_GETLK:
    case F_OFD_SETLK:
    case F_OFD_SETLKW:
        *ret = preload_refuse("fcntl: locks on a TIPC socket");
        return REFUSED;
    case F_SETFL:
        if ((arg & O_ASYNC) == 0)
            return PASS;
        *ret = preload_refuse("fcntl: O_ASYNC on a TIPC socket");
        return REFUSED;
    default:
        return PASS;
    }
}

typedef int (*fcntl_t)(int fd, int op, ...);

static int any_fcntl(fcntl_t next, int fd, int op, void *arg)
{
    int ret = 0;
    if (op == F_DUPFD || op == F_DUPFD_CLOEXEC) {
        ret = next(fd, op, arg);
        if (ret >= 0 && concerns_copy(fd, ret))
            copied(fd, ret);
        return ret;
    }
    if (preload_is_socket(fd) && refused(op, (long)arg, &ret) == REFUSED)
        return ret;
    return next(fd, op, arg);
}

extern "C" {
int fcntl(int fd, int op, ...)
{
    va_list args;
    va_start(args, op);
    void *arg = va_arg(args, void *);
    va_end(args);
    return any_fcntl(CALL_NEXT(fcntl), fd, op, arg);
}

int fcntl64(int fd, int op, ...)
{
    va_list args;
    va_start(args, op);
    void *arg = va_arg(args, void *);
    va_end(args);
    return any_fcntl(CALL_NEXT(fcntl64), fd, op, arg);
}
}

// The descriptor of a stream, -1 when it has none.
static int descriptor_of(FILE *file)
{
    int before = errno;
    int fd = file != nullptr ? fileno(file) : -1;
    errno = before;
    return fd;
}

static FILE *reopen(decltype(&::freopen) next, const char *path, const char *mode, FILE *file)
{
    preload_own_s own(path, preload_use_of(mode));
    int fd = descriptor_of(file);
    if (!concerns(fd))
        return next(own.path, mode, file);
    kept_t kept = let_go(fd);
    preload_watch_close(fd);
    FILE *ret = next(own.path, mode, file);
    let_go_done(&kept, !sim_socket_is(fd));
    return ret;
}

extern "C" {
int fclose(FILE *file)
{
    int fd = descriptor_of(file);
    if (!concerns(fd))
        return CALL_NEXT(fclose)(file);
    kept_t kept = let_go(fd);
    preload_watch_close(fd);
    int ret = CALL_NEXT(fclose)(file);
    let_go_done(&kept, true);
    return ret;
}

FILE *freopen(const char *path, const char *mode, FILE *file)
{
    return reopen(CALL_NEXT(freopen), path, mode, file);
}

FILE *freopen64(const char *path, const char *mode, FILE *file)
{
    return reopen(CALL_NEXT(freopen64), path, mode, file);
}
}

void preload_received(const struct msghdr *msg)
{
    struct msghdr *list = const_cast<struct msghdr *>(msg);
    for (struct cmsghdr *part = CMSG_FIRSTHDR(list); part != nullptr; part = CMSG_NXTHDR(list, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS || part->cmsg_len < CMSG_LEN(0))
            continue;
        size_t num = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < num; i++) {
            int fd;
            memcpy(&fd, CMSG_DATA(part) + i * sizeof(fd), sizeof(fd));
            preload_adopt(fd);
        }
    }
}

// Sockets that the process got from its parent by exec.
__attribute__((constructor)) static void adopt_inherited()
{
    range_t all = {0, ~0U};
    if (getenv("TIPCSIM_CLUSTER") != nullptr)
        each_open(&all, INHERITED, preload_adopt);
}
