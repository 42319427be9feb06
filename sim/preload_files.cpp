// The interposed calls of the C library that open, make, rename and remove files by their path. They go to the node's
// own copy of a file when it has one (preload_paths.h).
#undef _FORTIFY_SOURCE   // its inline functions have the names of the calls below
#undef _FILE_OFFSET_BITS // and so has this
#include "preload_next.h"
#include "preload_paths.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

// clang-format off
#define CALLS(X) \
    X(open) X(open64) X(openat) X(openat64) X(creat) X(creat64) X(fopen) X(fopen64) \
    X(opendir) X(chdir) X(inotify_add_watch) X(mkostemps) X(mkostemps64) X(mkdir) X(mkdirat) \
    X(rmdir) X(mkfifo) X(mkfifoat) X(mknod) X(mknodat) X(symlink) X(symlinkat) X(unlink) X(unlinkat) X(remove) \
    X(renameat) X(renameat2) X(linkat) X(truncate) X(truncate64)
// clang-format on

CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

static preload_use_e use_of(int flags)
{
    if ((flags & O_TMPFILE) == O_TMPFILE)
        return PRELOAD_FOLDER;
    if ((flags & O_CREAT) == 0)
        return PRELOAD_USE;
    return (flags & O_EXCL) != 0 ? PRELOAD_TEMP : PRELOAD_MAKE;
}

preload_use_e preload_use_of(const char *mode)
{
    if (mode == nullptr || mode[0] == 'r')
        return PRELOAD_USE;
    return strchr(mode, 'x') != nullptr ? PRELOAD_TEMP : PRELOAD_MAKE;
}

static mode_t mode_of(int flags, va_list args)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? (mode_t)va_arg(args, unsigned) : 0;
}

// The fortified and older forms, which no header declares here.
extern "C" {
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
int __openat_2(int dir, const char *path, int flags);
int __openat64_2(int dir, const char *path, int flags);
int __xmknod(int version, const char *path, mode_t mode, dev_t *device);
int __xmknodat(int version, int dir, const char *path, mode_t mode, dev_t *device);
}

extern "C" {
int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_of(flags, args);
    va_end(args);
    preload_own_s own(path, use_of(flags));
    return CALL_NEXT(open)(own.path, flags, mode);
}

int open64(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_of(flags, args);
    va_end(args);
    preload_own_s own(path, use_of(flags));
    return CALL_NEXT(open64)(own.path, flags, mode);
}

int openat(int dir, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_of(flags, args);
    va_end(args);
    preload_own_s own(path, use_of(flags), dir);
    return CALL_NEXT(openat)(dir, own.path, flags, mode);
}

int openat64(int dir, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_of(flags, args);
    va_end(args);
    preload_own_s own(path, use_of(flags), dir);
    return CALL_NEXT(openat64)(dir, own.path, flags, mode);
}

int __open_2(const char *path, int flags)
{
    return open(path, flags);
}

int __open64_2(const char *path, int flags)
{
    return open64(path, flags);
}

int __openat_2(int dir, const char *path, int flags)
{
    return openat(dir, path, flags);
}

int __openat64_2(int dir, const char *path, int flags)
{
    return openat64(dir, path, flags);
}

int creat(const char *path, mode_t mode)
{
    preload_own_s own(path, PRELOAD_MAKE);
    return CALL_NEXT(creat)(own.path, mode);
}

int creat64(const char *path, mode_t mode)
{
    preload_own_s own(path, PRELOAD_MAKE);
    return CALL_NEXT(creat64)(own.path, mode);
}

FILE *fopen(const char *path, const char *mode)
{
    preload_own_s own(path, preload_use_of(mode));
    return CALL_NEXT(fopen)(own.path, mode);
}

FILE *fopen64(const char *path, const char *mode)
{
    preload_own_s own(path, preload_use_of(mode));
    return CALL_NEXT(fopen64)(own.path, mode);
}

DIR *opendir(const char *path)
{
    preload_own_s own(path);
    return CALL_NEXT(opendir)(own.path);
}

int chdir(const char *path)
{
    preload_own_s own(path);
    return CALL_NEXT(chdir)(own.path);
}

int inotify_add_watch(int fd, const char *path, uint32_t mask)
{
    preload_own_s own(path, PRELOAD_FOLDER);
    return CALL_NEXT(inotify_add_watch)(fd, own.path, mask);
}

// Makes the file beside the node's copy, and gives the program the name that it would have in the folder of its own.
static int make_temp(char *name, int suffix, int flags, decltype(&::mkostemps) make)
{
    preload_own_s own(name, PRELOAD_TEMP);
    if (!own.own())
        return make(name, suffix, flags);
    int fd = make(own.text, suffix, flags);
    char *slash = strrchr(name, '/');
    char *last = slash == nullptr ? name : slash + 1;
    if (fd >= 0)
        (void)memcpy(last, strrchr(own.text, '/') + 1, strlen(last));
    return fd;
}

int mkstemp(char *name)
{
    return make_temp(name, 0, 0, CALL_NEXT(mkostemps));
}

int mkostemp(char *name, int flags)
{
    return make_temp(name, 0, flags, CALL_NEXT(mkostemps));
}

int mkstemps(char *name, int suffix)
{
    return make_temp(name, suffix, 0, CALL_NEXT(mkostemps));
}

int mkostemps(char *name, int suffix, int flags)
{
    return make_temp(name, suffix, flags, CALL_NEXT(mkostemps));
}

int mkstemp64(char *name)
{
    return make_temp(name, 0, 0, CALL_NEXT(mkostemps64));
}

int mkostemp64(char *name, int flags)
{
    return make_temp(name, 0, flags, CALL_NEXT(mkostemps64));
}

int mkstemps64(char *name, int suffix)
{
    return make_temp(name, suffix, 0, CALL_NEXT(mkostemps64));
}

int mkostemps64(char *name, int suffix, int flags)
{
    return make_temp(name, suffix, flags, CALL_NEXT(mkostemps64));
}

int mkdir(const char *path, mode_t mode)
{
    preload_own_s own(path, PRELOAD_MAKE);
    return CALL_NEXT(mkdir)(own.path, mode);
}

int mkdirat(int dir, const char *path, mode_t mode)
{
    preload_own_s own(path, PRELOAD_MAKE, dir);
    return CALL_NEXT(mkdirat)(dir, own.path, mode);
}

int rmdir(const char *path)
{
    preload_own_s own(path);
    return CALL_NEXT(rmdir)(own.path);
}

int mkfifo(const char *path, mode_t mode)
{
    preload_own_s own(path, PRELOAD_MAKE);
    return CALL_NEXT(mkfifo)(own.path, mode);
}

int mkfifoat(int dir, const char *path, mode_t mode)
{
    preload_own_s own(path, PRELOAD_MAKE, dir);
    return CALL_NEXT(mkfifoat)(dir, own.path, mode);
}

int mknod(const char *path, mode_t mode, dev_t device)
{
    preload_own_s own(path, PRELOAD_MAKE);
    return CALL_NEXT(mknod)(own.path, mode, device);
}

int mknodat(int dir, const char *path, mode_t mode, dev_t device)
{
    preload_own_s own(path, PRELOAD_MAKE, dir);
    return CALL_NEXT(mknodat)(dir, own.path, mode, device);
}

int __xmknod(int, const char *path, mode_t mode, dev_t *device)
{
    return mknod(path, mode, *device);
}

int __xmknodat(int, int dir, const char *path, mode_t mode, dev_t *device)
{
    return mknodat(dir, path, mode, *device);
}

int symlink(const char *target, const char *path)
{
    preload_own_s own(path, PRELOAD_TEMP);
    return CALL_NEXT(symlink)(target, own.path);
}

int symlinkat(const char *target, int dir, const char *path)
{
    preload_own_s own(path, PRELOAD_TEMP, dir);
    return CALL_NEXT(symlinkat)(target, dir, own.path);
}

int unlink(const char *path)
{
    preload_own_s own(path);
    return CALL_NEXT(unlink)(own.path);
}

int unlinkat(int dir, const char *path, int flags)
{
    preload_own_s own(path, PRELOAD_USE, dir);
    return CALL_NEXT(unlinkat)(dir, own.path, flags);
}

int remove(const char *path)
{
    preload_own_s own(path);
    return CALL_NEXT(remove)(own.path);
}

int truncate(const char *path, off_t size)
{
    preload_own_s own(path);
    return CALL_NEXT(truncate)(own.path, size);
}

int truncate64(const char *path, off64_t size)
{
    preload_own_s own(path);
    return CALL_NEXT(truncate64)(own.path, size);
}

int renameat2(int from_dir, const char *from, int to_dir, const char *to, unsigned flags)
{
    preload_own_s old(from, PRELOAD_USE, from_dir);
    preload_own_s own(to, old.own() ? PRELOAD_INSTEAD : PRELOAD_MAKE, to_dir);
    // renameat does without flags, also on a kernel or a file system that knows none
    int ret = flags == 0 ? CALL_NEXT(renameat)(from_dir, old.path, to_dir, own.path)
                         : CALL_NEXT(renameat2)(from_dir, old.path, to_dir, own.path, flags);
    if (ret == 0 || errno != EXDEV || old.own() == own.own())
        return ret;
    return preload_carry(from_dir, old.path, to_dir, own.path, flags, false);
}

int renameat(int from_dir, const char *from, int to_dir, const char *to)
{
    return renameat2(from_dir, from, to_dir, to, 0);
}

int rename(const char *from, const char *to)
{
    return renameat2(AT_FDCWD, from, AT_FDCWD, to, 0);
}

int linkat(int from_dir, const char *from, int to_dir, const char *to, int flags)
{
    preload_own_s old(from, PRELOAD_USE, from_dir);
    preload_own_s own(to, old.own() ? PRELOAD_TEMP : PRELOAD_MAKE, to_dir);
    int ret = CALL_NEXT(linkat)(from_dir, old.path, to_dir, own.path, flags);
    if (ret == 0 || errno != EXDEV || old.own() == own.own())
        return ret;
    return preload_carry(from_dir, old.path, to_dir, own.path, (unsigned)flags, true);
}

int link(const char *from, const char *to)
{
    return linkat(AT_FDCWD, from, AT_FDCWD, to, 0);
}
}
