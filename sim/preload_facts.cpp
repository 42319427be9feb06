// The interposed calls of the C library that ask for what a path is, or change it: its kind, rights, owner, times and
// extended attributes. They go to the node's own copy of a file when it has one (preload_paths.h).
#undef _FORTIFY_SOURCE   // its inline functions have the names of the calls below
#undef _FILE_OFFSET_BITS // and so has this
#include "preload.h"
#include "preload_next.h"
#include "preload_paths.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>

// clang-format off
#define CALLS(X) \
    X(stat) X(stat64) X(lstat) X(lstat64) X(fstatat) X(fstatat64) X(statx) X(access) X(faccessat) X(euidaccess) \
    X(eaccess) X(readlink) X(readlinkat) X(realpath) X(chmod) X(lchmod) X(fchmodat) X(chown) X(lchown) \
    X(fchownat) X(utime) X(utimes) X(lutimes) X(futimesat) X(utimensat) X(getxattr) X(setxattr) X(listxattr) \
    X(removexattr) X(lgetxattr) X(lsetxattr) X(llistxattr) X(lremovexattr)
// clang-format on

CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

// The fortified and older forms, which no header declares here.
extern "C" {
int __xstat(int version, const char *path, struct stat *status);
int __xstat64(int version, const char *path, struct stat64 *status);
int __lxstat(int version, const char *path, struct stat *status);
int __lxstat64(int version, const char *path, struct stat64 *status);
int __fxstatat(int version, int dir, const char *path, struct stat *status, int flags);
int __fxstatat64(int version, int dir, const char *path, struct stat64 *status, int flags);
ssize_t __readlink_chk(const char *path, char *text, size_t size, size_t whole);
ssize_t __readlinkat_chk(int dir, const char *path, char *text, size_t size, size_t whole);
char *__realpath_chk(const char *path, char *text, size_t whole);
}

extern "C" {
int stat(const char *path, struct stat *status)
{
    preload_own_s own(path);
    return CALL_NEXT(stat)(own.path, status);
}

int stat64(const char *path, struct stat64 *status)
{
    preload_own_s own(path);
    return CALL_NEXT(stat64)(own.path, status);
}

int lstat(const char *path, struct stat *status)
{
    preload_own_s own(path);
    return CALL_NEXT(lstat)(own.path, status);
}

int lstat64(const char *path, struct stat64 *status)
{
    preload_own_s own(path);
    return CALL_NEXT(lstat64)(own.path, status);
}

int fstatat(int dir, const char *path, struct stat *status, int flags)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return preload_describe(CALL_NEXT(fstatat)(dir, own.path, status, flags), dir, path, flags, status);
}

int fstatat64(int dir, const char *path, struct stat64 *status, int flags)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return preload_describe(CALL_NEXT(fstatat64)(dir, own.path, status, flags), dir, path, flags, status);
}

int statx(int dir, const char *path, int flags, unsigned mask, struct statx *status)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return preload_describe(CALL_NEXT(statx)(dir, own.path, flags, mask, status), dir, path, flags, status);
}

int __xstat(int, const char *path, struct stat *status)
{
    return stat(path, status);
}

int __xstat64(int, const char *path, struct stat64 *status)
{
    return stat64(path, status);
}

int __lxstat(int, const char *path, struct stat *status)
{
    return lstat(path, status);
}

int __lxstat64(int, const char *path, struct stat64 *status)
{
    return lstat64(path, status);
}

int __fxstatat(int, int dir, const char *path, struct stat *status, int flags)
{
    return fstatat(dir, path, status, flags);
}

int __fxstatat64(int, int dir, const char *path, struct stat64 *status, int flags)
{
    return fstatat64(dir, path, status, flags);
}

int access(const char *path, int mode)
{
    preload_own_s own(path);
    return CALL_NEXT(access)(own.path, mode);
}

int faccessat(int dir, const char *path, int mode, int flags)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return CALL_NEXT(faccessat)(dir, own.path, mode, flags);
}

int euidaccess(const char *path, int mode)
{
    preload_own_s own(path);
    return CALL_NEXT(euidaccess)(own.path, mode);
}

int eaccess(const char *path, int mode)
{
    preload_own_s own(path);
    return CALL_NEXT(eaccess)(own.path, mode);
}

ssize_t readlink(const char *path, char *text, size_t size)
{
    preload_own_s own(path);
    return CALL_NEXT(readlink)(own.path, text, size);
}

ssize_t readlinkat(int dir, const char *path, char *text, size_t size)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return CALL_NEXT(readlinkat)(dir, own.path, text, size);
}

ssize_t __readlink_chk(const char *path, char *text, size_t size, size_t whole)
{
    if (size > whole)
        abort();
    return readlink(path, text, size);
}

ssize_t __readlinkat_chk(int dir, const char *path, char *text, size_t size, size_t whole)
{
    if (size > whole)
        abort();
    return readlinkat(dir, path, text, size);
}

// The copy has the path that the program knows, unless a process of the node put a symbolic link in its place.
char *realpath(const char *path, char *text)
{
    preload_own_s own(path);
    struct stat64 status;
    if (!own.own())
        return CALL_NEXT(realpath)(path, text);
    if (CALL_NEXT(lstat64)(own.path, &status) != 0)
        return nullptr;
    if (S_ISLNK(status.st_mode))
        return CALL_NEXT(realpath)(own.path, text);
    return text == nullptr ? strdup(preload_shown(own)) : strcpy(text, preload_shown(own));
}

char *__realpath_chk(const char *path, char *text, size_t whole)
{
    if (whole < PATH_MAX)
        abort();
    return realpath(path, text);
}

char *canonicalize_file_name(const char *path)
{
    return realpath(path, nullptr);
}

int chmod(const char *path, mode_t mode)
{
    preload_own_s own(path);
    return CALL_NEXT(chmod)(own.path, mode);
}

int lchmod(const char *path, mode_t mode)
{
    preload_own_s own(path);
    return CALL_NEXT(lchmod)(own.path, mode);
}

int fchmodat(int dir, const char *path, mode_t mode, int flags)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return CALL_NEXT(fchmodat)(dir, own.path, mode, flags);
}

int chown(const char *path, uid_t owner, gid_t group)
{
    preload_own_s own(path);
    return CALL_NEXT(chown)(own.path, owner, group);
}

int lchown(const char *path, uid_t owner, gid_t group)
{
    preload_own_s own(path);
    return CALL_NEXT(lchown)(own.path, owner, group);
}

int fchownat(int dir, const char *path, uid_t owner, gid_t group, int flags)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return CALL_NEXT(fchownat)(dir, own.path, owner, group, flags);
}

int utime(const char *path, const struct utimbuf *times)
{
    preload_own_s own(path);
    return CALL_NEXT(utime)(own.path, times);
}

int utimes(const char *path, const struct timeval times[2])
{
    preload_own_s own(path);
    return CALL_NEXT(utimes)(own.path, times);
}

int lutimes(const char *path, const struct timeval times[2])
{
    preload_own_s own(path);
    return CALL_NEXT(lutimes)(own.path, times);
}

int futimesat(int dir, const char *path, const struct timeval times[2])
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return CALL_NEXT(futimesat)(dir, own.path, times);
}

int utimensat(int dir, const char *path, const struct timespec times[2], int flags)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return CALL_NEXT(utimensat)(dir, own.path, times, flags);
}

ssize_t getxattr(const char *path, const char *name, void *value, size_t size)
{
    preload_own_s own(path);
    return CALL_NEXT(getxattr)(own.path, name, value, size);
}

int setxattr(const char *path, const char *name, const void *value, size_t size, int flags)
{
    preload_own_s own(path);
    return CALL_NEXT(setxattr)(own.path, name, value, size, flags);
}

ssize_t listxattr(const char *path, char *list, size_t size)
{
    preload_own_s own(path);
    return CALL_NEXT(listxattr)(own.path, list, size);
}

int removexattr(const char *path, const char *name)
{
    preload_own_s own(path);
    return CALL_NEXT(removexattr)(own.path, name);
}

ssize_t lgetxattr(const char *path, const char *name, void *value, size_t size)
{
    preload_own_s own(path);
    return CALL_NEXT(lgetxattr)(own.path, name, value, size);
}

int lsetxattr(const char *path, const char *name, const void *value, size_t size, int flags)
{
    preload_own_s own(path);
    return CALL_NEXT(lsetxattr)(own.path, name, value, size, flags);
}

ssize_t llistxattr(const char *path, char *list, size_t size)
{
    preload_own_s own(path);
    return CALL_NEXT(llistxattr)(own.path, list, size);
}

int lremovexattr(const char *path, const char *name)
{
    preload_own_s own(path);
    return CALL_NEXT(lremovexattr)(own.path, name);
}
}
