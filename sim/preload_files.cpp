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

constexpr unsigned SOCKET_MODE = S_IFSOCK | 0777;

static sim_socket_t *socket_at(int fd)
{
    return fd >= 0 && preload_known(fd) ? preload_socket_at(fd) : nullptr;
}

static bool is_socket(int fd)
{
    return socket_at(fd) != nullptr;
}

template <typename stat_t>
static int describe(int ret, int fd, stat_t *status)
{
    const sim_socket_t *socket = ret == 0 ? socket_at(fd) : nullptr;
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

extern "C" {
int fstat(int fd, struct stat *status)
{
    NEXT(fstat);
    return describe(CALL(fstat)(fd, status), fd, status);
}

int fstat64(int fd, struct stat64 *status)
{
    NEXT(fstat64);
    return describe(CALL(fstat64)(fd, status), fd, status);
}

// What fstat was before version 2.33 of the C library.
int __fxstat(int version, int fd, struct stat *status);
int __fxstat64(int version, int fd, struct stat64 *status);

int __fxstat(int version, int fd, struct stat *status)
{
    NEXT(__fxstat);
    return describe(CALL(__fxstat)(version, fd, status), fd, status);
}

int __fxstat64(int version, int fd, struct stat64 *status)
{
    NEXT(__fxstat64);
    return describe(CALL(__fxstat64)(version, fd, status), fd, status);
}

int fstatat(int fd, const char *path, struct stat *status, int flags)
{
    NEXT(fstatat);
    int ret = CALL(fstatat)(fd, path, status, flags);
    return ret == 0 && names_itself(path, flags) ? describe(ret, fd, status) : ret;
}

int fstatat64(int fd, const char *path, struct stat64 *status, int flags)
{
    NEXT(fstatat64);
    int ret = CALL(fstatat64)(fd, path, status, flags);
    return ret == 0 && names_itself(path, flags) ? describe(ret, fd, status) : ret;
}

int statx(int fd, const char *path, int flags, unsigned mask, struct statx *status)
{
    NEXT(statx);
    int ret = CALL(statx)(fd, path, flags, mask, status);
    const sim_socket_t *socket = ret == 0 && names_itself(path, flags) ? socket_at(fd) : nullptr;
    if (socket == nullptr)
        return ret;
    status->stx_mode = (uint16_t)SOCKET_MODE;
    status->stx_ino = sim_load(&socket->port);
    status->stx_uid = geteuid();
    status->stx_gid = getegid();
    return ret;
}

// A socket has no position.
off_t lseek(int fd, off_t offset, int whence)
{
    NEXT(lseek);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(lseek)(fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence)
{
    NEXT(lseek64);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(lseek64)(fd, offset, whence);
}

ssize_t pread(int fd, void *data, size_t size, off_t offset)
{
    NEXT(pread);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(pread)(fd, data, size, offset);
}

ssize_t pread64(int fd, void *data, size_t size, off64_t offset)
{
    NEXT(pread64);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(pread64)(fd, data, size, offset);
}

ssize_t __pread_chk(int fd, void *data, size_t size, off_t offset, size_t room);
ssize_t __pread64_chk(int fd, void *data, size_t size, off64_t offset, size_t room);

ssize_t __pread_chk(int fd, void *data, size_t size, off_t offset, size_t room)
{
    NEXT(__pread_chk);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(__pread_chk)(fd, data, size, offset, room);
}

ssize_t __pread64_chk(int fd, void *data, size_t size, off64_t offset, size_t room)
{
    NEXT(__pread64_chk);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(__pread64_chk)(fd, data, size, offset, room);
}

ssize_t pwrite(int fd, const void *data, size_t size, off_t offset)
{
    NEXT(pwrite);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(pwrite)(fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void *data, size_t size, off64_t offset)
{
    NEXT(pwrite64);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(pwrite64)(fd, data, size, offset);
}

ssize_t preadv(int fd, const struct iovec *parts, int num, off_t offset)
{
    NEXT(preadv);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(preadv)(fd, parts, num, offset);
}

ssize_t preadv64(int fd, const struct iovec *parts, int num, off64_t offset)
{
    NEXT(preadv64);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(preadv64)(fd, parts, num, offset);
}

ssize_t pwritev(int fd, const struct iovec *parts, int num, off_t offset)
{
    NEXT(pwritev);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(pwritev)(fd, parts, num, offset);
}

ssize_t pwritev64(int fd, const struct iovec *parts, int num, off64_t offset)
{
    NEXT(pwritev64);
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL(pwritev64)(fd, parts, num, offset);
}

// With the offset -1 these read and write as readv and writev do, but with flags of their own.
static int positioned(off64_t offset, const char *what)
{
    return offset == -1 ? preload_refuse(what) : preload_fail(ESPIPE);
}

ssize_t preadv2(int fd, const struct iovec *parts, int num, off_t offset, int flags)
{
    NEXT(preadv2);
    return is_socket(fd) ? positioned(offset, "preadv2") : CALL(preadv2)(fd, parts, num, offset, flags);
}

ssize_t preadv64v2(int fd, const struct iovec *parts, int num, off64_t offset, int flags)
{
    NEXT(preadv64v2);
    return is_socket(fd) ? positioned(offset, "preadv2") : CALL(preadv64v2)(fd, parts, num, offset, flags);
}

ssize_t pwritev2(int fd, const struct iovec *parts, int num, off_t offset, int flags)
{
    NEXT(pwritev2);
    return is_socket(fd) ? positioned(offset, "pwritev2") : CALL(pwritev2)(fd, parts, num, offset, flags);
}

ssize_t pwritev64v2(int fd, const struct iovec *parts, int num, off64_t offset, int flags)
{
    NEXT(pwritev64v2);
    return is_socket(fd) ? positioned(offset, "pwritev2") : CALL(pwritev64v2)(fd, parts, num, offset, flags);
}

ssize_t sendfile(int out, int in, off_t *offset, size_t count)
{
    NEXT(sendfile);
    return is_socket(out) || is_socket(in) ? preload_refuse("sendfile") : CALL(sendfile)(out, in, offset, count);
}

ssize_t sendfile64(int out, int in, off64_t *offset, size_t count)
{
    NEXT(sendfile64);
    return is_socket(out) || is_socket(in) ? preload_refuse("sendfile") : CALL(sendfile64)(out, in, offset, count);
}

ssize_t splice(int in, off64_t *in_offset, int out, off64_t *out_offset, size_t count, unsigned flags)
{
    NEXT(splice);
    if (is_socket(in) || is_socket(out))
        return preload_refuse("splice");
    return CALL(splice)(in, in_offset, out, out_offset, count, flags);
}

int aio_read(struct aiocb *order)
{
    NEXT(aio_read);
    return is_socket(order->aio_fildes) ? preload_refuse("aio_read") : CALL(aio_read)(order);
}

int aio_read64(struct aiocb64 *order)
{
    NEXT(aio_read64);
    return is_socket(order->aio_fildes) ? preload_refuse("aio_read") : CALL(aio_read64)(order);
}

int aio_write(struct aiocb *order)
{
    NEXT(aio_write);
    return is_socket(order->aio_fildes) ? preload_refuse("aio_write") : CALL(aio_write)(order);
}

int aio_write64(struct aiocb64 *order)
{
    NEXT(aio_write64);
    return is_socket(order->aio_fildes) ? preload_refuse("aio_write") : CALL(aio_write64)(order);
}

int lio_listio(int mode, struct aiocb *const list[], int num, struct sigevent *event)
{
    NEXT(lio_listio);
    for (int i = 0; i < num; i++) {
        if (list[i] != nullptr && is_socket(list[i]->aio_fildes))
            return preload_refuse("lio_listio");
    }
    return CALL(lio_listio)(mode, list, num, event);
}

int lio_listio64(int mode, struct aiocb64 *const list[], int num, struct sigevent *event)
{
    NEXT(lio_listio64);
    for (int i = 0; i < num; i++) {
        if (list[i] != nullptr && is_socket(list[i]->aio_fildes))
            return preload_refuse("lio_listio");
    }
    return CALL(lio_listio64)(mode, list, num, event);
}
}
