// The interposed socket calls of the C library. A call on a TIPC socket goes to the simulator; any other call goes to
// the next definition, which dlsym finds.
#include "preload.h"
#include "preload_next.h"

#include <cstdarg>
#include <cstring>
#include <sys/ioctl.h>
#include <sys/uio.h>

// clang-format off
#define CALLS(X) \
    X(socket) X(socketpair) X(bind) X(listen) X(accept) X(accept4) X(connect) X(shutdown) X(getsockname) \
    X(getpeername) X(setsockopt) X(getsockopt) X(ioctl) X(sendto) X(send) X(write) X(writev) X(sendmsg) \
    X(sendmmsg) X(recvfrom) X(recv) X(read) X(readv) X(recvmsg) X(recvmmsg)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

namespace
{
struct one_message_s { // the arguments of send, recv and the like, as a msghdr
    one_message_s(const void *data, size_t size, const void *addr, socklen_t len)
        : part{const_cast<void *>(data), size}, msg{}
    {
        msg.msg_iov = &part;
        msg.msg_iovlen = 1;
        msg.msg_name = const_cast<void *>(addr);
        msg.msg_namelen = len;
    }
    struct iovec part;
    struct msghdr msg;
};
} // namespace

// As the kernel, this gives the sender's address out after the message was taken.
static ssize_t receive_one(int fd, sim_socket_t *socket, void *data, size_t size, int flags, struct sockaddr *addr,
                           socklen_t *len)
{
    struct sockaddr_tipc from;
    one_message_s message(data, size, addr != nullptr ? &from : nullptr, sizeof(from));
    ssize_t ret = preload_receive(fd, socket, &message.msg, flags);
    if (ret < 0 || addr == nullptr)
        return ret;
    if (!preload_writable(len, sizeof(*len)))
        return preload_fail(EFAULT);
    if ((int)*len < 0)
        return preload_fail(EINVAL);
    size_t part = *len < sizeof(from) ? *len : sizeof(from);
    if (!preload_writable(addr, part))
        return preload_fail(EFAULT);
    memcpy(addr, &from, part);
    *len = sizeof(from);
    return ret;
}

// The bytes of all parts; -1 when there are too many or they cannot be read.
static ssize_t bytes_of(const struct iovec *parts, int num)
{
    ssize_t bytes = 0;
    if (num < 0 || num > (int)PRELOAD_MAX_PARTS)
        return preload_fail(EINVAL);
    if (!preload_readable(parts, (size_t)num * sizeof(*parts)))
        return preload_fail(EFAULT);
    for (int i = 0; i < num; i++)
        bytes += (ssize_t)parts[i].iov_len;
    return bytes;
}

static ssize_t receive_parts(int fd, sim_socket_t *socket, const struct iovec *parts, int num)
{
    struct msghdr msg = {};
    ssize_t bytes = bytes_of(parts, num);
    if (bytes <= 0)
        return bytes;
    msg.msg_iov = const_cast<struct iovec *>(parts);
    msg.msg_iovlen = (size_t)num;
    return preload_receive(fd, socket, &msg, 0);
}

extern "C" {
int socket(int domain, int type, int protocol)
{
    return domain == AF_TIPC ? preload_socket(type, protocol) : CALL_NEXT(socket)(domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int fds[2])
{
    return domain == AF_TIPC ? preload_socketpair(type, protocol, fds)
                             : CALL_NEXT(socketpair)(domain, type, protocol, fds);
}

int bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_bind(socket, addr, len) : CALL_NEXT(bind)(fd, addr, len);
}

int listen(int fd, int backlog)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_listen(socket) : CALL_NEXT(listen)(fd, backlog);
}

int accept(int fd, struct sockaddr *addr, socklen_t *len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_accept(fd, socket, addr, len, 0) : CALL_NEXT(accept)(fd, addr, len);
}

int accept4(int fd, struct sockaddr *addr, socklen_t *len, int flags)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_accept(fd, socket, addr, len, flags) : CALL_NEXT(accept4)(fd, addr, len, flags);
}

int connect(int fd, const struct sockaddr *addr, socklen_t len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_connect(fd, socket, addr, len) : CALL_NEXT(connect)(fd, addr, len);
}

int shutdown(int fd, int how)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_shutdown(socket, how) : CALL_NEXT(shutdown)(fd, how);
}

int getsockname(int fd, struct sockaddr *addr, socklen_t *len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_getsockname(socket, addr, len) : CALL_NEXT(getsockname)(fd, addr, len);
}

int getpeername(int fd, struct sockaddr *addr, socklen_t *len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_getpeername(socket, addr, len) : CALL_NEXT(getpeername)(fd, addr, len);
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_setsockopt(socket, level, name, value, len)
                             : CALL_NEXT(setsockopt)(fd, level, name, value, len);
}

int getsockopt(int fd, int level, int name, void *value, socklen_t *len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_getsockopt(socket, level, name, value, len)
                             : CALL_NEXT(getsockopt)(fd, level, name, value, len);
}

int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    sim_socket_t *socket = preload_socket_at(fd);
    bool passed = true;
    int ret = socket != nullptr ? preload_ioctl(socket, request, arg, &passed) : 0;
    return passed ? CALL_NEXT(ioctl)(fd, request, arg) : ret;
}

ssize_t sendto(int fd, const void *data, size_t size, int flags, const struct sockaddr *addr, socklen_t len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket == nullptr)
        return CALL_NEXT(sendto)(fd, data, size, flags, addr, len);
    one_message_s message(data, size, addr, len);
    return preload_send(fd, socket, &message.msg, flags);
}

ssize_t send(int fd, const void *data, size_t size, int flags)
{
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket == nullptr)
        return CALL_NEXT(send)(fd, data, size, flags);
    one_message_s message(data, size, nullptr, 0);
    return preload_send(fd, socket, &message.msg, flags);
}

ssize_t write(int fd, const void *data, size_t size)
{
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket == nullptr)
        return CALL_NEXT(write)(fd, data, size);
    one_message_s message(data, size, nullptr, 0);
    return preload_send(fd, socket, &message.msg, 0);
}

ssize_t writev(int fd, const struct iovec *parts, int num)
{
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket == nullptr)
        return CALL_NEXT(writev)(fd, parts, num);
    struct msghdr msg = {};
    ssize_t bytes = bytes_of(parts, num);
    if (bytes <= 0)
        return bytes;
    msg.msg_iov = const_cast<struct iovec *>(parts);
    msg.msg_iovlen = (size_t)num;
    return preload_send(fd, socket, &msg, 0);
}

ssize_t sendmsg(int fd, const struct msghdr *msg, int flags)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? preload_send(fd, socket, msg, flags) : CALL_NEXT(sendmsg)(fd, msg, flags);
}

int sendmmsg(int fd, struct mmsghdr *msgs, unsigned num, int flags)
{
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket == nullptr)
        return CALL_NEXT(sendmmsg)(fd, msgs, num, flags);
    unsigned done = 0;
    for (; done < num && done < PRELOAD_MAX_PARTS; done++) {
        if (!preload_writable(&msgs[done].msg_len, sizeof(msgs[done].msg_len)))
            return done != 0 ? (int)done : preload_fail(EFAULT);
        ssize_t ret = preload_send(fd, socket, &msgs[done].msg_hdr, flags);
        if (ret < 0)
            return done != 0 ? (int)done : -1;
        msgs[done].msg_len = (unsigned)ret;
    }
    return (int)done;
}

ssize_t recvfrom(int fd, void *data, size_t size, int flags, struct sockaddr *addr, socklen_t *len)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? receive_one(fd, socket, data, size, flags, addr, len)
                             : CALL_NEXT(recvfrom)(fd, data, size, flags, addr, len);
}

ssize_t recv(int fd, void *data, size_t size, int flags)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? receive_one(fd, socket, data, size, flags, nullptr, nullptr)
                             : CALL_NEXT(recv)(fd, data, size, flags);
}

ssize_t read(int fd, void *data, size_t size)
{
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket == nullptr)
        return CALL_NEXT(read)(fd, data, size);
    return size == 0 ? 0 : receive_one(fd, socket, data, size, 0, nullptr, nullptr);
}

ssize_t readv(int fd, const struct iovec *parts, int num)
{
    sim_socket_t *socket = preload_socket_at(fd);
    return socket != nullptr ? receive_parts(fd, socket, parts, num) : CALL_NEXT(readv)(fd, parts, num);
}

ssize_t recvmsg(int fd, struct msghdr *msg, int flags)
{
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket != nullptr)
        return preload_receive(fd, socket, msg, flags);
    ssize_t ret = CALL_NEXT(recvmsg)(fd, msg, flags);
    if (ret >= 0)
        preload_received(msg);
    return ret;
}

static int receive_many(int fd, sim_socket_t *socket, struct mmsghdr *msgs, unsigned num, int flags,
                        const struct timespec *limit)
{
    int64_t until = limit != nullptr ? sys_now() + limit->tv_sec * 1000 + limit->tv_nsec / 1000000 : INT64_MAX;
    unsigned done = 0;
    for (; done < num && done < PRELOAD_MAX_PARTS; done++) {
        int each = done != 0 && (flags & MSG_WAITFORONE) != 0 ? flags | MSG_DONTWAIT : flags;
        if (!preload_writable(&msgs[done].msg_len, sizeof(msgs[done].msg_len)))
            return done != 0 ? (int)done : preload_fail(EFAULT);
        ssize_t ret = preload_receive(fd, socket, &msgs[done].msg_hdr, each & ~MSG_WAITFORONE);
        if (ret < 0)
            return done != 0 ? (int)done : -1;
        msgs[done].msg_len = (unsigned)ret;
        if (sys_now() >= until)
            return (int)done + 1;
    }
    return (int)done;
}

int recvmmsg(int fd, struct mmsghdr *msgs, unsigned num, int flags, struct timespec *limit)
{
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket != nullptr)
        return receive_many(fd, socket, msgs, num, flags, limit);
    int ret = CALL_NEXT(recvmmsg)(fd, msgs, num, flags, limit);
    for (int i = 0; i < ret; i++)
        preload_received(&msgs[i].msg_hdr);
    return ret;
}

// The forms that a program built with _FORTIFY_SOURCE calls. `room` is the size of the buffer as the compiler knew it.
[[noreturn]] void __chk_fail(void);

static void check(size_t size, size_t room)
{
    if (size > room)
        __chk_fail();
}

ssize_t __read_chk(int fd, void *data, size_t size, size_t room)
{
    check(size, room);
    return read(fd, data, size);
}

ssize_t __recv_chk(int fd, void *data, size_t size, size_t room, int flags)
{
    check(size, room);
    return recv(fd, data, size, flags);
}

ssize_t __recvfrom_chk(int fd, void *data, size_t size, size_t room, int flags, struct sockaddr *addr, socklen_t *len)
{
    check(size, room);
    return recvfrom(fd, data, size, flags, addr, len);
}
}
