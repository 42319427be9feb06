// Virtual time: SO_RCVTIMEO and SO_SNDTIMEO of sockets of the host. Which descriptors have such a limit is known from
// setsockopt; the limit itself is asked of the kernel.
#include "preload_clock.h"

#include <sys/socket.h>
#include <sys/time.h>

// clang-format off
#define CALLS(X) \
    X(setsockopt) X(getsockopt) X(recv) X(recvfrom) X(recvmsg) X(read) X(accept) X(accept4) X(send) X(sendto) \
    X(sendmsg) X(write)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

constexpr int MAX_DESCRIPTOR = 65536;

static uint8_t s_limited[MAX_DESCRIPTOR]; // 1: it had a limit once

static bool is_limited(int fd)
{
    return fd >= 0 && fd < MAX_DESCRIPTOR && __atomic_load_n(&s_limited[fd], __ATOMIC_RELAXED) != 0;
}

// The moment at which a call on the descriptor ends; SIM_NEVER without a limit.
static int64_t end_of(int fd, int option)
{
    struct timeval limit = {};
    socklen_t len = sizeof(limit);
    int before = errno;
    int ret = CALL_NEXT(getsockopt)(fd, SOL_SOCKET, option, &limit, &len);
    errno = before;
    int64_t ns = ret == 0 ? clock_ns(limit.tv_sec, limit.tv_usec * 1000) : 0;
    return ns != 0 ? clock_after(ns) : SIM_NEVER;
}

template <typename call_t>
static long limited(int fd, int option, call_t call)
{
    int64_t until = end_of(fd, option);
    long ret = clock_during(until, call);
    return ret < 0 && until != SIM_NEVER && clock_ended(until) ? clock_fail(EAGAIN) : ret;
}

extern "C" {
int setsockopt(int fd, int level, int name, const void *value, socklen_t len) noexcept
{
    if (level == SOL_SOCKET && (name == SO_RCVTIMEO || name == SO_SNDTIMEO) && fd >= 0 && fd < MAX_DESCRIPTOR)
        __atomic_store_n(&s_limited[fd], (uint8_t)1, __ATOMIC_RELAXED);
    return CALL_NEXT(setsockopt)(fd, level, name, value, len);
}

ssize_t recv(int fd, void *data, size_t size, int flags)
{
    if (!is_limited(fd))
        return CALL_NEXT(recv)(fd, data, size, flags);
    return limited(fd, SO_RCVTIMEO, [=] { return (long)CALL_NEXT(recv)(fd, data, size, flags); });
}

ssize_t recvfrom(int fd, void *__restrict data, size_t size, int flags, struct sockaddr *__restrict addr,
                 socklen_t *__restrict len)
{
    if (!is_limited(fd))
        return CALL_NEXT(recvfrom)(fd, data, size, flags, addr, len);
    return limited(fd, SO_RCVTIMEO, [=] { return (long)CALL_NEXT(recvfrom)(fd, data, size, flags, addr, len); });
}

ssize_t recvmsg(int fd, struct msghdr *msg, int flags)
{
    if (!is_limited(fd))
        return CALL_NEXT(recvmsg)(fd, msg, flags);
    return limited(fd, SO_RCVTIMEO, [=] { return (long)CALL_NEXT(recvmsg)(fd, msg, flags); });
}

ssize_t read(int fd, void *data, size_t size)
{
    if (!is_limited(fd))
        return CALL_NEXT(read)(fd, data, size);
    return limited(fd, SO_RCVTIMEO, [=] { return (long)CALL_NEXT(read)(fd, data, size); });
}

int accept(int fd, struct sockaddr *__restrict addr, socklen_t *__restrict len)
{
    if (!is_limited(fd))
        return CALL_NEXT(accept)(fd, addr, len);
    return (int)limited(fd, SO_RCVTIMEO, [=] { return (long)CALL_NEXT(accept)(fd, addr, len); });
}

int accept4(int fd, struct sockaddr *__restrict addr, socklen_t *__restrict len, int flags)
{
    if (!is_limited(fd))
        return CALL_NEXT(accept4)(fd, addr, len, flags);
    return (int)limited(fd, SO_RCVTIMEO, [=] { return (long)CALL_NEXT(accept4)(fd, addr, len, flags); });
}

ssize_t send(int fd, const void *data, size_t size, int flags)
{
    if (!is_limited(fd))
        return CALL_NEXT(send)(fd, data, size, flags);
    return limited(fd, SO_SNDTIMEO, [=] { return (long)CALL_NEXT(send)(fd, data, size, flags); });
}

ssize_t sendto(int fd, const void *data, size_t size, int flags, const struct sockaddr *addr, socklen_t len)
{
    if (!is_limited(fd))
        return CALL_NEXT(sendto)(fd, data, size, flags, addr, len);
    return limited(fd, SO_SNDTIMEO, [=] { return (long)CALL_NEXT(sendto)(fd, data, size, flags, addr, len); });
}

ssize_t sendmsg(int fd, const struct msghdr *msg, int flags)
{
    if (!is_limited(fd))
        return CALL_NEXT(sendmsg)(fd, msg, flags);
    return limited(fd, SO_SNDTIMEO, [=] { return (long)CALL_NEXT(sendmsg)(fd, msg, flags); });
}

ssize_t write(int fd, const void *data, size_t size)
{
    if (!is_limited(fd))
        return CALL_NEXT(write)(fd, data, size);
    return limited(fd, SO_SNDTIMEO, [=] { return (long)CALL_NEXT(write)(fd, data, size); });
}
}
