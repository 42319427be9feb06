// Interposed calls that a TIPC socket does not take, with the kernel's errors, and those that tell what kind of file a
// descriptor is. On the epoll descriptor that stands for the socket some of them would succeed.
#undef _FORTIFY_SOURCE   // its inline functions have the names of the calls below
#undef _FILE_OFFSET_BITS // and so has this
#include "preload.h"
#include "preload_next.h"
#include "preload_paths.h"

#include <cstring>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>

// clang-format off
#define CALLS(X) \
    X(fstat) X(fstat64) X(lseek) X(lseek64) X(pread) X(pread64) X(pwrite) X(pwrite64) X(preadv) X(preadv64) \
    X(pwritev) X(pwritev64) X(preadv2) X(pwritev2) X(ftruncate) X(ftruncate64) X(mmap) X(mmap64) X(sendfile) \
    X(sendfile64) X(splice) X(tee) X(vmsplice) X(copy_file_range) X(fsync) X(fdatasync)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

static bool is_socket(int fd)
{
    return preload_known(fd) && preload_socket_at(fd) != nullptr;
}

// A descriptor of a socket, as the kernel describes one.
template <typename stat_t>
static int describe(int ret, int fd, stat_t *status)
{
    sim_socket_t *socket = ret == 0 && preload_known(fd) ? preload_socket_at(fd) : nullptr;
    if (socket == nullptr)
        return ret;
    status->st_mode = S_IFSOCK | 0777;
    status->st_ino = socket->port;
    status->st_size = 0;
    return 0;
}

void preload_describe(int fd, struct statx *status)
{
    sim_socket_t *socket = preload_known(fd) ? preload_socket_at(fd) : nullptr;
    if (socket == nullptr)
        return;
    status->stx_mode = S_IFSOCK | 0777;
    status->stx_ino = socket->port;
    status->stx_size = 0;
}

extern "C" {
int __fxstat(int version, int fd, struct stat *status);
int __fxstat64(int version, int fd, struct stat64 *status);
ssize_t __pread_chk(int fd, void *data, size_t size, off_t at, size_t room);
ssize_t __pread64_chk(int fd, void *data, size_t size, off64_t at, size_t room);

int fstat(int fd, struct stat *status)
{
    return describe(CALL_NEXT(fstat)(fd, status), fd, status);
}

int fstat64(int fd, struct stat64 *status)
{
    return describe(CALL_NEXT(fstat64)(fd, status), fd, status);
}

int __fxstat(int /*version*/, int fd, struct stat *status)
{
    return fstat(fd, status);
}

int __fxstat64(int /*version*/, int fd, struct stat64 *status)
{
    return fstat64(fd, status);
}

off_t lseek(int fd, off_t at, int from)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(lseek)(fd, at, from);
}

off64_t lseek64(int fd, off64_t at, int from)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(lseek64)(fd, at, from);
}

ssize_t pread(int fd, void *data, size_t size, off_t at)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(pread)(fd, data, size, at);
}

ssize_t pread64(int fd, void *data, size_t size, off64_t at)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(pread64)(fd, data, size, at);
}

ssize_t pwrite(int fd, const void *data, size_t size, off_t at)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(pwrite)(fd, data, size, at);
}

ssize_t pwrite64(int fd, const void *data, size_t size, off64_t at)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(pwrite64)(fd, data, size, at);
}

ssize_t preadv(int fd, const struct iovec *parts, int num, off_t at)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(preadv)(fd, parts, num, at);
}

ssize_t preadv64(int fd, const struct iovec *parts, int num, off64_t at)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(preadv64)(fd, parts, num, at);
}

ssize_t pwritev(int fd, const struct iovec *parts, int num, off_t at)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(pwritev)(fd, parts, num, at);
}

ssize_t pwritev64(int fd, const struct iovec *parts, int num, off64_t at)
{
    return is_socket(fd) ? preload_fail(ESPIPE) : CALL_NEXT(pwritev64)(fd, parts, num, at);
}

// With the offset -1 these are readv and writev.
ssize_t preadv2(int fd, const struct iovec *parts, int num, off_t at, int flags)
{
    if (!is_socket(fd))
        return CALL_NEXT(preadv2)(fd, parts, num, at, flags);
    if (at != -1)
        return preload_fail(ESPIPE);
    return flags == 0 ? readv(fd, parts, num) : preload_refuse("preadv2 with flags");
}

ssize_t pwritev2(int fd, const struct iovec *parts, int num, off_t at, int flags)
{
    if (!is_socket(fd))
        return CALL_NEXT(pwritev2)(fd, parts, num, at, flags);
    if (at != -1)
        return preload_fail(ESPIPE);
    return flags == 0 ? writev(fd, parts, num) : preload_refuse("pwritev2 with flags");
}

int ftruncate(int fd, off_t size) noexcept
{
    return is_socket(fd) ? preload_fail(EINVAL) : CALL_NEXT(ftruncate)(fd, size);
}

int ftruncate64(int fd, off64_t size) noexcept
{
    return is_socket(fd) ? preload_fail(EINVAL) : CALL_NEXT(ftruncate64)(fd, size);
}

int fsync(int fd)
{
    return is_socket(fd) ? preload_fail(EINVAL) : CALL_NEXT(fsync)(fd);
}

int fdatasync(int fd)
{
    return is_socket(fd) ? preload_fail(EINVAL) : CALL_NEXT(fdatasync)(fd);
}

void *mmap(void *at, size_t size, int rights, int flags, int fd, off_t from) noexcept
{
    if ((flags & MAP_ANONYMOUS) != 0 || !is_socket(fd))
        return CALL_NEXT(mmap)(at, size, rights, flags, fd, from);
    errno = ENODEV;
    return MAP_FAILED;
}

void *mmap64(void *at, size_t size, int rights, int flags, int fd, off64_t from) noexcept
{
    if ((flags & MAP_ANONYMOUS) != 0 || !is_socket(fd))
        return CALL_NEXT(mmap64)(at, size, rights, flags, fd, from);
    errno = ENODEV;
    return MAP_FAILED;
}

ssize_t sendfile(int to, int from, off_t *at, size_t size) noexcept
{
    bool ours = is_socket(to) || is_socket(from);
    return ours ? preload_refuse("sendfile") : CALL_NEXT(sendfile)(to, from, at, size);
}

ssize_t sendfile64(int to, int from, off64_t *at, size_t size) noexcept
{
    bool ours = is_socket(to) || is_socket(from);
    return ours ? preload_refuse("sendfile") : CALL_NEXT(sendfile64)(to, from, at, size);
}

ssize_t splice(int from, off64_t *from_at, int to, off64_t *to_at, size_t size, unsigned flags)
{
    bool ours = is_socket(to) || is_socket(from);
    return ours ? preload_refuse("splice") : CALL_NEXT(splice)(from, from_at, to, to_at, size, flags);
}

ssize_t tee(int from, int to, size_t size, unsigned flags)
{
    bool ours = is_socket(to) || is_socket(from);
    return ours ? preload_fail(EINVAL) : CALL_NEXT(tee)(from, to, size, flags);
}

ssize_t vmsplice(int fd, const struct iovec *parts, size_t num, unsigned flags)
{
    return is_socket(fd) ? preload_fail(EBADF) : CALL_NEXT(vmsplice)(fd, parts, num, flags);
}

ssize_t copy_file_range(int from, off64_t *from_at, int to, off64_t *to_at, size_t size, unsigned flags)
{
    bool ours = is_socket(to) || is_socket(from);
    return ours ? preload_fail(EINVAL) : CALL_NEXT(copy_file_range)(from, from_at, to, to_at, size, flags);
}
}
