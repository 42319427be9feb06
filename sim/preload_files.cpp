// The interposed calls of the C library that take a path. They open the node's own copy of a file when it has one.
#include "preload_next.h"
#include "sim_cluster.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Returns the path of the node's own copy when TIPCSIM_FILES lists the file, else `path` itself.
static const char *node_path(const char *path, char *own)
{
    const char *list = getenv("TIPCSIM_FILES");
    const char *dir = getenv("TIPCSIM_CLUSTER");
    const char *node = getenv("TIPCSIM_NODE");
    if (path == nullptr || path[0] != '/' || list == nullptr || dir == nullptr || node == nullptr)
        return path;
    size_t len = strlen(path);
    for (const char *at = list; (at = strstr(at, path)) != nullptr; at += len) {
        bool starts = at == list || at[-1] == ':';
        bool ends = at[len] == '\0' || at[len] == ':';
        if (starts && ends && sim_node_path(dir, (uint32_t)strtoul(node, nullptr, 10), path, own, SIM_PATH_LEN))
            return own;
    }
    return path;
}

extern "C" {
FILE *fopen(const char *path, const char *mode)
{
    NEXT(fopen);
    char own[SIM_PATH_LEN];
    return CALL(fopen)(node_path(path, own), mode);
}

FILE *fopen64(const char *path, const char *mode)
{
    NEXT(fopen64);
    char own[SIM_PATH_LEN];
    return CALL(fopen64)(node_path(path, own), mode);
}

static mode_t mode_of(int flags, va_list args)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? (mode_t)va_arg(args, unsigned) : 0;
}

int open(const char *path, int flags, ...)
{
    NEXT(open);
    char own[SIM_PATH_LEN];
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_of(flags, args);
    va_end(args);
    return CALL(open)(node_path(path, own), flags, mode);
}

int open64(const char *path, int flags, ...)
{
    NEXT(open64);
    char own[SIM_PATH_LEN];
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_of(flags, args);
    va_end(args);
    return CALL(open64)(node_path(path, own), flags, mode);
}

int openat(int dir, const char *path, int flags, ...)
{
    NEXT(openat);
    char own[SIM_PATH_LEN];
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_of(flags, args);
    va_end(args);
    return CALL(openat)(dir, node_path(path, own), flags, mode);
}

int access(const char *path, int mode)
{
    NEXT(access);
    char own[SIM_PATH_LEN];
    return CALL(access)(node_path(path, own), mode);
}

int stat(const char *path, struct stat *status)
{
    NEXT(stat);
    char own[SIM_PATH_LEN];
    return CALL(stat)(node_path(path, own), status);
}

int unlink(const char *path)
{
    NEXT(unlink);
    char own[SIM_PATH_LEN];
    return CALL(unlink)(node_path(path, own));
}
}
