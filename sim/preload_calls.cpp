// The interposed calls of the C library. A call on a TIPC socket goes to the simulator; any other call goes to the next
// definition, which dlsym finds.
#include "preload.h"
#include "preload_next.h"
#include "sim_sys.h"

#include <cerrno>
#include <poll.h>
#include <sys/uio.h>

namespace
{
struct held_s { // a reference to a descriptor's entry, held for one call
    explicit held_s(int fd) : entry(preload_get(fd))
    {
    }
    ~held_s()
    {
        if (entry != nullptr)
            preload_put(entry);
    }
    held_s(const held_s &) = delete;
    held_s &operator=(const held_s &) = delete;
    preload_socket_t *entry;
};

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

extern "C" {
int socket(int domain, int type, int protocol)
{
    NEXT(socket);
    return domain == AF_TIPC ? preload_socket(type) : CALL(socket)(domain, type, protocol);
}

int bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    NEXT(bind);
    held_s held(fd);
    return held.entry != nullptr ? preload_bind(held.entry, addr, len) : CALL(bind)(fd, addr, len);
}

int connect(int fd, const struct sockaddr *addr, socklen_t len)
{
    NEXT(connect);
    held_s held(fd);
    return held.entry != nullptr ? preload_connect(fd, held.entry, addr, len) : CALL(connect)(fd, addr, len);
}

ssize_t sendto(int fd, const void *data, size_t size, int flags, const struct sockaddr *addr, socklen_t len)
{
    NEXT(sendto);
    held_s held(fd);
    if (held.entry == nullptr)
        return CALL(sendto)(fd, data, size, flags, addr, len);
    one_message_s message(data, size, addr, len);
    return preload_send(fd, held.entry, &message.msg, flags);
}

ssize_t send(int fd, const void *data, size_t size, int flags)
{
    NEXT(send);
    held_s held(fd);
    if (held.entry == nullptr)
        return CALL(send)(fd, data, size, flags);
    one_message_s message(data, size, nullptr, 0);
    return preload_send(fd, held.entry, &message.msg, flags);
}

ssize_t write(int fd, const void *data, size_t size)
{
    NEXT(write);
    held_s held(fd);
    if (held.entry == nullptr)
        return CALL(write)(fd, data, size);
    one_message_s message(data, size, nullptr, 0);
    return preload_send(fd, held.entry, &message.msg, 0);
}

ssize_t sendmsg(int fd, const struct msghdr *msg, int flags)
{
    NEXT(sendmsg);
    held_s held(fd);
    return held.entry != nullptr ? preload_send(fd, held.entry, msg, flags) : CALL(sendmsg)(fd, msg, flags);
}

ssize_t recvfrom(int fd, void *data, size_t size, int flags, struct sockaddr *addr, socklen_t *len)
{
    NEXT(recvfrom);
    held_s held(fd);
    if (held.entry == nullptr)
        return CALL(recvfrom)(fd, data, size, flags, addr, len);
    one_message_s message(data, size, addr, len != nullptr ? *len : 0);
    ssize_t ret = preload_receive(fd, held.entry, &message.msg, flags);
    if (ret >= 0 && len != nullptr)
        *len = message.msg.msg_namelen;
    return ret;
}

ssize_t recv(int fd, void *data, size_t size, int flags)
{
    NEXT(recv);
    held_s held(fd);
    if (held.entry == nullptr)
        return CALL(recv)(fd, data, size, flags);
    one_message_s message(data, size, nullptr, 0);
    return preload_receive(fd, held.entry, &message.msg, flags);
}

ssize_t read(int fd, void *data, size_t size)
{
    NEXT(read);
    held_s held(fd);
    if (held.entry == nullptr)
        return CALL(read)(fd, data, size);
    one_message_s message(data, size, nullptr, 0);
    return preload_receive(fd, held.entry, &message.msg, 0);
}

ssize_t recvmsg(int fd, struct msghdr *msg, int flags)
{
    NEXT(recvmsg);
    held_s held(fd);
    return held.entry != nullptr ? preload_receive(fd, held.entry, msg, flags) : CALL(recvmsg)(fd, msg, flags);
}

// Removes events that the Unix socket reports and the kernel's TIPC does not: POLLOUT and POLLRDHUP on a closed
// topology connection, POLLHUP on a socket that was never connected.
static void correct(struct pollfd *fds, nfds_t num)
{
    for (nfds_t i = 0; i < num; i++) {
        if ((fds[i].revents & POLLHUP) != 0 && preload_known(fds[i].fd))
            fds[i].revents &= (short)~(preload_connected(fds[i].fd) ? POLLOUT | POLLRDHUP : POLLHUP);
    }
}

int poll(struct pollfd *fds, nfds_t num, int ms)
{
    NEXT(poll);
    int ret = CALL(poll)(fds, num, ms);
    if (ret > 0)
        correct(fds, num);
    return ret;
}

int ppoll(struct pollfd *fds, nfds_t num, const struct timespec *limit, const sigset_t *mask)
{
    NEXT(ppoll);
    int ret = CALL(ppoll)(fds, num, limit, mask);
    if (ret > 0)
        correct(fds, num);
    return ret;
}

int getsockname(int fd, struct sockaddr *addr, socklen_t *len)
{
    NEXT(getsockname);
    held_s held(fd);
    return held.entry != nullptr ? preload_getsockname(held.entry, addr, len) : CALL(getsockname)(fd, addr, len);
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t len)
{
    NEXT(setsockopt);
    bool passed = true;
    held_s held(fd);
    int ret = held.entry != nullptr ? preload_setsockopt(held.entry, level, name, value, len, &passed) : 0;
    return passed ? CALL(setsockopt)(fd, level, name, value, len) : ret;
}

int getsockopt(int fd, int level, int name, void *value, socklen_t *len)
{
    NEXT(getsockopt);
    bool passed = true;
    held_s held(fd);
    int ret = held.entry != nullptr ? preload_getsockopt(held.entry, level, name, value, len, &passed) : 0;
    return passed ? CALL(getsockopt)(fd, level, name, value, len) : ret;
}

int close(int fd)
{
    NEXT(close);
    if (preload_hidden(fd)) {
        errno = EBADF;
        return -1;
    }
    if (!preload_known(fd))
        return CALL(close)(fd);
    // The entry leaves the table first: another thread may get the same number as soon as the descriptor is closed.
    // `held` keeps the socket itself until after that.
    held_s held(fd);
    preload_forget(fd);
    return CALL(close)(fd);
}

int dup(int fd)
{
    NEXT(dup);
    int copy = CALL(dup)(fd);
    if (copy >= 0)
        preload_share(fd, copy);
    return copy;
}

int dup3(int fd, int copy, int flags)
{
    NEXT(dup3);
    int ret = CALL(dup3)(fd, copy, flags);
    if (ret >= 0 && preload_known(copy))
        preload_forget(copy);
    if (ret >= 0)
        preload_share(fd, copy);
    return ret;
}

int dup2(int fd, int copy)
{
    NEXT(dup2);
    int ret = CALL(dup2)(fd, copy);
    if (ret >= 0 && fd != copy && preload_known(copy))
        preload_forget(copy);
    if (ret >= 0 && fd != copy)
        preload_share(fd, copy);
    return ret;
}

// These calls are refused: on the Unix socket that stands for the TIPC socket they would do something else.
int listen(int fd, int backlog)
{
    NEXT(listen);
    return preload_known(fd) ? preload_refuse("listen") : CALL(listen)(fd, backlog);
}

int shutdown(int fd, int how)
{
    NEXT(shutdown);
    if (preload_known(fd) && !preload_connected(fd))
        return preload_refuse("shutdown of a socket that is not connected");
    return CALL(shutdown)(fd, how);
}

int getpeername(int fd, struct sockaddr *addr, socklen_t *len)
{
    NEXT(getpeername);
    return preload_known(fd) ? preload_refuse("getpeername") : CALL(getpeername)(fd, addr, len);
}

ssize_t readv(int fd, const struct iovec *parts, int num)
{
    NEXT(readv);
    return preload_known(fd) ? preload_refuse("readv") : CALL(readv)(fd, parts, num);
}

ssize_t writev(int fd, const struct iovec *parts, int num)
{
    NEXT(writev);
    return preload_known(fd) ? preload_refuse("writev") : CALL(writev)(fd, parts, num);
}

int sendmmsg(int fd, struct mmsghdr *msgs, unsigned num, int flags)
{
    NEXT(sendmmsg);
    return preload_known(fd) ? preload_refuse("sendmmsg") : CALL(sendmmsg)(fd, msgs, num, flags);
}

int recvmmsg(int fd, struct mmsghdr *msgs, unsigned num, int flags, struct timespec *limit)
{
    NEXT(recvmmsg);
    return preload_known(fd) ? preload_refuse("recvmmsg") : CALL(recvmmsg)(fd, msgs, num, flags, limit);
}
}
