// Calls for files, on the descriptor of a TIPC socket: those that a socket answers are answered as the kernel does, and
// those that would do something else on what stands for the socket are refused.
#include "preload.h"
#include "preload_next.h"

#include <aio.h>
#include <cstring>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>

extern "C" {
// What fstat was before version 2.33 of the C library.
int __fxstat(int version, int fd, struct stat *status);
int __fxstat64(int version, int fd, struct stat64 *status);
}

// clang-format off
#define CALLS(X) \
    X(fstat) X(fstat64) X(__fxstat) X(__fxstat64) X(lseek) X(lseek64) X(preadv2) X(preadv64v2) X(pwritev2) \
    X(pwritev64v2) X(sendfile) X(sendfile64) X(splice) X(aio_read) X(aio_read64) X(aio_write) X(aio_write64) \
    X(lio_listio) X(lio_listio64)
// clang-format on

CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

constexpr unsigned SOCKET_MODE = S_IFSOCK | 0777;

template <typename stat_t>
static int describe(int ret, int fd, stat_t *status)
{
    const sim_socket_t *socket = ret == 0 ? preload_socket_at(fd) : nullptr;
    if (socket == nullptr)
        return ret;
    status->st_mode = SOCKET_MODE;
    status->st_ino = sim_load(&socket->port);
    status->st_uid = geteuid();
    status->st_gid = getegid();
    return ret;
}

static bool names_itself(const char *path, int flags)
{
    return (flags & AT_EMPTY_PATH) != 0 && (path == nullptr || path[0] == '\0');
}

int preload_describe(int ret, int fd, const char *path, int flags, struct stat *status)
{
    return ret == 0 && names_itself(path, flags) ? describe(ret, fd, status) : ret;
}

int preload_describe(int ret, int fd, const char *path, int flags, struct stat64 *status)
{
    return ret == 0 && names_itself(path, flags) ? describe(ret, fd, status) : ret;
}

int preload_describe(int ret, int fd, const char *path, int flags, struct statx *status)
{
    const sim_socket_t *socket = ret == 0 && names_itself(path, flags) ? preload_socket_at(fd) : nullptr;
    if (socket == nullptr)
        return ret;
    status->stx_mode = (uint16_t)SOCKET_MODE;
    status->stx_ino = sim_load(&socket->port);
    status->stx_uid = geteuid();
    status->stx_gid = getegid();
    return ret;
}

extern "C" {
int fstat(int fd, struct stat *status)
{
    return describe(CALL_NEXT(fstat)(fd, status), fd, status);
}

int fstat64(int fd, struct stat64 *status)
{
    return describe(CALL_NEXT(fstat64)(fd, status), fd, status);
}

int __fxstat(int version, int fd, struct stat *status)
{
    return describe(CALL_NEXT(__fxstat)(version, fd, status), fd, status);
}

int __fxstat64(int version, int fd, struct stat64 *status)
{
    return describe(CALL_NEXT(__fxstat64)(version, fd, status), fd, status);
}

// A socket has no position. (The kernel itself refuses pread and the like, as on a socket.)
off_t lseek(int fd, off_t offset, int whence)
{
    return preload_is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(lseek)(fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence)
{
    return preload_is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(lseek64)(fd, offset, whence);
}

// With the offset -1 these read and write as readv and writev do, but with flags of their own.
static int positioned(off64_t offset, const char *what)
{
    return offset == -1 ? preload_refuse(what) : preload_fail(ESPIPE);
}

ssize_t preadv2(int fd, const struct iovec *parts, int num, off_t offset, int flags)
{
    return preload_is_socket(fd) ? positioned(offset, "preadv2") : CALL_NEXT(preadv2)(fd, parts, num, offset, flags);
}

ssize_t preadv64v2(int fd, const struct iovec *parts, int num, off64_t offset, int flags)
{
    return preload_is_socket(fd) ? positioned(offset, "preadv2") : CALL_NEXT(preadv64v2)(fd, parts, num, offset, flags);
}

ssize_t pwritev2(int fd, const struct iovec *parts, int num, off_t offset, int flags)
{
    return preload_is_socket(fd) ? positioned(offset, "pwritev2") : CALL_NEXT(pwritev2)(fd, parts, num, offset, flags);
}

ssize_t pwritev64v2(int fd, const struct iovec *parts, int num, off64_t offset, int flags)
{
    return preload_is_socket(fd) ? positioned(offset, "pwritev2")
                                 : CALL_NEXT(pwritev64v2)(fd, parts, num, offset, flags);
}

ssize_t sendfile(int out, int in, off_t *offset, size_t count)
{
    return preload_is_socket(out) || preload_is_socket(in) ? preload_refuse("sendfile")
                                                           : CALL_NEXT(sendfile)(out, in, offset, count);
}

ssize_t sendfile64(int out, int in, off64_t *offset, size_t count)
{
    return preload_is_socket(out) || preload_is_socket(in) ? preload_refuse("sendfile")
                                                           : CALL_NEXT(sendfile64)(out, in, offset, count);
}

ssize_t splice(int in, off64_t *in_offset, int out, off64_t *out_offset, size_t count, unsigned flags)
{
    if (preload_is_socket(in) || preload_is_socket(out))
        return preload_refuse("splice");
    return CALL_NEXT(splice)(in, in_offset, out, out_offset, count, flags);
}

int aio_read(struct aiocb *order)
{
    return preload_is_socket(order->aio_fildes) ? preload_refuse("aio_read") : CALL_NEXT(aio_read)(order);
}

int aio_read64(struct aiocb64 *order)
{
    return preload_is_socket(order->aio_fildes) ? preload_refuse("aio_read") : CALL_NEXT(aio_read64)(order);
}

int aio_write(struct aiocb *order)
{
    return preload_is_socket(order->aio_fildes) ? preload_refuse("aio_write") : CALL_NEXT(aio_write)(order);
}

int aio_write64(struct aiocb64 *order)
{
    return preload_is_socket(order->aio_fildes) ? preload_refuse("aio_write") : CALL_NEXT(aio_write64)(order);
}

int lio_listio(int mode, struct aiocb *const list[], int num, struct sigevent *event)
{
    for (int i = 0; i < num; i++) {
        if (list[i] != nullptr && preload_is_socket(list[i]->aio_fildes))
            return preload_refuse("lio_listio");
    }
    return CALL_NEXT(lio_listio)(mode, list, num, event);
}

int lio_listio64(int mode, struct aiocb64 *const list[], int num, struct sigevent *event)
{
    for (int i = 0; i < num; i++) {
        if (list[i] != nullptr && preload_is_socket(list[i]->aio_fildes))
            return preload_refuse("lio_listio");
    }
    return CALL_NEXT(lio_listio64)(mode, list, num, event);
}
}
