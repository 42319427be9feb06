// System calls as the simulator's own code makes them: past the interposed functions of the C library, never a point
// of cancellation, and without a change of errno. The result is the call's, or a negative errno.
#ifndef SIM_SYS_H
#define SIM_SYS_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

template <typename... args_t>
static inline long sys_call(long number, args_t... args)
{
    int before = errno;
    long ret = syscall(number, args...);
    if (ret < 0)
        ret = -errno;
    errno = before;
    return ret;
}

static inline int sys_close(int fd)
{
    return (int)sys_call(SYS_close, fd);
}

static inline int sys_fcntl(int fd, int op, long arg)
{
    return (int)sys_call(SYS_fcntl, fd, op, arg);
}

static inline int sys_lock(int fd, int op, struct flock *range)
{
    return (int)sys_call(SYS_fcntl, fd, op, range);
}

static inline pid_t sys_getpid(void)
{
    return (pid_t)sys_call(SYS_getpid);
}

static inline int sys_epoll_ctl(int epoll, int op, int fd, struct epoll_event *event)
{
    return (int)sys_call(SYS_epoll_ctl, epoll, op, fd, event);
}

static inline int sys_epoll_wait(int epoll, struct epoll_event *events, int num, int ms)
{
    return (int)sys_call(SYS_epoll_pwait, epoll, events, num, ms, nullptr, (size_t)8);
}

// 0 when it was woken, -EAGAIN when the word has changed already, -ETIMEDOUT, -EINTR. Without a limit the kernel
// continues the wait after a signal handler that has SA_RESTART, as it does in a socket's receive.
static inline int sys_futex_wait(uint32_t *word, uint32_t seen, const struct timespec *limit)
{
    return (int)sys_call(SYS_futex, word, FUTEX_WAIT, seen, limit, nullptr, 0);
}

static inline void sys_futex_wake(uint32_t *word)
{
    (void)sys_call(SYS_futex, word, FUTEX_WAKE, INT32_MAX, nullptr, nullptr, 0);
}

static inline ssize_t sys_sendmsg(int fd, const struct msghdr *msg, int flags)
{
    ssize_t ret;
    while ((ret = sys_call(SYS_sendmsg, fd, msg, flags)) == -EINTR)
        continue;
    return ret;
}

static inline ssize_t sys_recvmsg(int fd, struct msghdr *msg, int flags)
{
    ssize_t ret;
    while ((ret = sys_call(SYS_recvmsg, fd, msg, flags)) == -EINTR)
        continue;
    return ret;
}

static inline ssize_t sys_write(int fd, const void *data, size_t size)
{
    return sys_call(SYS_write, fd, data, size);
}

// Copies bytes to or from the shared memory. Not memcpy: a sanitizer of the application would take that over, and does
// not know what puts the copies of two threads in order.
static inline void sim_copy(void *to, const void *from, size_t size)
{
    uint8_t *at = (uint8_t *)to;
    const uint8_t *source = (const uint8_t *)from;
#ifdef __x86_64__
    if (size > 256) {
        __asm__ volatile("rep movsb" : "+D"(at), "+S"(source), "+c"(size) : : "memory");
        return;
    }
#endif
    for (; size >= sizeof(uint64_t); size -= sizeof(uint64_t)) {
        uint64_t word;
        __builtin_memcpy(&word, source, sizeof(word)); // a load and a store
        __builtin_memcpy(at, &word, sizeof(word));
        at += sizeof(word);
        source += sizeof(word);
        __asm__ volatile("" : : : "memory"); // so that the loop is not made a call of memcpy
    }
    for (; size != 0; size--) {
        *at++ = *source++;
        __asm__ volatile("" : : : "memory");
    }
}

// ns by which the cluster's clock is ahead of the kernel's: 0 unless the cluster has virtual time (sim_clock.h).
__attribute__((visibility("hidden"))) inline int64_t g_sim_no_offset = 0;
__attribute__((visibility("hidden"))) inline const int64_t *g_sim_offset = &g_sim_no_offset;

static inline int64_t sys_offset(void)
{
    return __atomic_load_n(__atomic_load_n(&g_sim_offset, __ATOMIC_RELAXED), __ATOMIC_SEQ_CST);
}

static inline int64_t sys_native(clockid_t clock) // ns of the kernel's clock
{
    struct timespec now = {};
    (void)sys_call(SYS_clock_gettime, clock, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static inline int64_t sys_clock(clockid_t clock) // ns of the cluster's clock
{
    return sys_native(clock) + sys_offset();
}

static inline int64_t sys_now(void) // ms of the monotonic clock
{
    return sys_clock(CLOCK_MONOTONIC) / 1000000;
}

#endif
