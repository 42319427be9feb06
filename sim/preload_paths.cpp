// The node's own copy of a path, and what belongs beside it.
//
// In the folder of a node file these are the node's too: a file that a process of the node made there before; a new one
// whose name contains the node file's name; a new one that must not be there yet, as mkstemp makes it, unless all users
// share the folder (/tmp); and a new one in a folder that this user cannot write to. Everything else is the host's.
#include "preload_paths.h"
#include "sim_sys.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/fs.h>
#include <sys/stat.h>

typedef struct node_file_s {
    const char *path;  // normalised
    const char *name;  // its last component
    size_t folder_len; // of the path, without the slash before the name
} node_file_t;

// Written once, before the program's first thread.
static bool s_read;
static char s_list[PRELOAD_LIST_LEN];
static char s_root[PRELOAD_ROOT_LEN]; // CLUSTER/nodes/NODE
static size_t s_root_len;
static size_t s_cluster_len; // of s_root, what is the cluster's folder
static node_file_t s_files[PRELOAD_MAX_FILES];
static size_t s_file_num;

static int sys_look(const char *path, struct stat64 *status, int flags)
{
#ifdef SYS_newfstatat
    return (int)syscall(SYS_newfstatat, AT_FDCWD, path, status, flags);
#else
    return (int)syscall(SYS_fstatat64, AT_FDCWD, path, status, flags);
#endif
}

static bool exists(const char *path)
{
    struct stat64 status;
    return sys_look(path[0] == '\0' ? "/" : path, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

static void add_file(char *path)
{
    const char *slash = strrchr(path, '/');
    if (path[0] != '/' || s_file_num == PRELOAD_MAX_FILES)
        return;
    s_files[s_file_num++] = {path, slash + 1, (size_t)(slash - path)};
}

__attribute__((constructor)) static void read_environment()
{
    const char *list = getenv("TIPCSIM_FILES");
    const char *cluster = getenv("TIPCSIM_CLUSTER");
    const char *node = getenv("TIPCSIM_NODE");
    if (s_read)
        return;
    s_read = true;
    if (list == nullptr || cluster == nullptr || node == nullptr || strlen(list) >= sizeof(s_list))
        return;
    int len = snprintf(s_root, sizeof(s_root), "%s/nodes/%s", cluster, node);
    if (len <= 0 || (size_t)len >= sizeof(s_root))
        return;
    s_root_len = (size_t)len;
    s_cluster_len = strlen(cluster);
    (void)strcpy(s_list, list);
    for (char *at = s_list; *at != '\0';) {
        char *end = strchrnul(at, ':');
        bool last = *end == '\0';
        *end = '\0';
        add_file(at);
        at = last ? end : end + 1;
    }
}

// Appends the components of `path` to the `len` bytes in `out`. The root is the empty string. ".." is taken by the
// text, so a path that leaves a folder through a symbolic link is not recognised.
static bool append(char *out, size_t len, const char *path)
{
    while (*path != '\0') {
        size_t size = strcspn(path, "/");
        if (size == 2 && path[0] == '.' && path[1] == '.') {
            while (len > 0 && out[--len] != '/')
                continue;
        } else if (size > 1 || (size == 1 && path[0] != '.')) {
            if (len + size + 3 > PRELOAD_PATH_LEN) // a slash before it, perhaps one at the end, and the zero
                return false;
            out[len++] = '/';
            (void)memcpy(out + len, path, size);
            len += size;
        }
        path += size;
        path += *path == '/' ? 1 : 0;
    }
    out[len] = '\0';
    return true;
}

static bool whole_path(int dir, const char *path, char *out)
{
    size_t len = 0;
    if (path[0] != '/') {
        char link[32];
        long got = 0;
        if (dir == AT_FDCWD) {
            got = syscall(SYS_getcwd, out, PRELOAD_PATH_LEN) - 1; // it counts the zero
        } else {
            (void)snprintf(link, sizeof(link), "/proc/self/fd/%d", dir);
            got = syscall(SYS_readlinkat, AT_FDCWD, link, out, PRELOAD_PATH_LEN - 1);
        }
        if (got <= 0 || out[0] != '/') // a folder that was removed, or not one of this name space
            return false;
        len = got == 1 ? 0 : (size_t)got;
    }
    return append(out, len, path);
}

static bool is_above(const char *path, const char *file)
{
    size_t len = strlen(path);
    return strncmp(file, path, len) == 0 && file[len] == '/';
}

static bool is_shared(const char *folder)
{
    struct stat64 status;
    return sys_look(folder, &status, 0) == 0 && (status.st_mode & S_ISVTX) != 0 && (status.st_mode & S_IWOTH) != 0;
}

// Whether a new file in the folder of a node file is the node's. `path` ends behind the folder while this looks.
static bool goes_to_node(char *path, const node_file_t *file, preload_use_e use)
{
    const char *name = path + file->folder_len + 1;
    if (strstr(name, file->name) != nullptr)
        return true;
    path[file->folder_len] = '\0';
    const char *folder = path[0] == '\0' ? "/" : path;
    bool node = use == PRELOAD_TEMP && !is_shared(folder);
    node = node || syscall(SYS_faccessat, AT_FDCWD, folder, W_OK | X_OK) != 0;
    path[file->folder_len] = '/';
    return node;
}

// Whether a path below the folder of a node file, but of another name, is the node's.
static bool belongs(char *own, const node_file_t *file, preload_use_e use)
{
    char *path = own + s_root_len;
    char *end = strchr(path + file->folder_len + 1, '/');
    if (end != nullptr) { // in a folder that a process of the node made
        *end = '\0';
        bool node = exists(own) && !exists(path);
        *end = '/';
        return node;
    }
    if (exists(own))
        return true;
    if (use == PRELOAD_INSTEAD && strstr(path + file->folder_len + 1, file->name) != nullptr)
        return true;
    return use != PRELOAD_USE && use != PRELOAD_FOLDER && !exists(path) && goes_to_node(path, file, use);
}

static bool is_node_folder(const char *path)
{
    for (size_t i = 0; i < s_file_num; i++) {
        if (strlen(path) == s_files[i].folder_len && strncmp(path, s_files[i].path, s_files[i].folder_len) == 0)
            return true;
    }
    return false;
}

static bool is_own(char *own, preload_use_e use)
{
    const char *path = own + s_root_len;
    bool above = false;
    for (size_t i = 0; i < s_file_num; i++) {
        if (strcmp(s_files[i].path, path) == 0)
            return true;
        above = above || is_above(path, s_files[i].path);
    }
    if (above)
        return (use == PRELOAD_FOLDER && is_node_folder(path) && !is_shared(path[0] == '\0' ? "/" : path)) ||
               !exists(path);
    for (size_t i = 0; i < s_file_num; i++) {
        const node_file_t *file = &s_files[i];
        if (strncmp(path, file->path, file->folder_len + 1) == 0 && belongs(own, file, use))
            return true;
    }
    return false;
}

static bool find(int dir, const char *path, preload_use_e use, char *own)
{
    char *normal = own + s_root_len;
    (void)memcpy(own, s_root, s_root_len);
    if (!whole_path(dir, path, normal))
        return false;
    if (strncmp(normal, s_root, s_cluster_len) == 0 && (normal[s_cluster_len] == '/' || normal[s_cluster_len] == '\0'))
        return false; // in the cluster's folder: this library's own, or by a path that began in the node's
    if (!is_own(own, use))
        return false;
    if (path[strlen(path) - 1] == '/')
        (void)strcat(normal, "/");
    return true;
}

preload_own_s::preload_own_s(const char *name, preload_use_e use, int dir) : path(name)
{
    if (!s_read)
        read_environment(); // the constructor of another library calls
    if (s_file_num == 0 || name == nullptr || name[0] == '\0')
        return;
    int err = errno;
    if (find(dir, name, use, text))
        path = text;
    errno = err;
}

const char *preload_shown(const preload_own_s &own)
{
    return own.text + s_root_len;
}

static int copy_bytes(int from, int to)
{
    char bytes[4096];
    ssize_t got = 0;
    while ((got = syscall(SYS_read, from, bytes, sizeof(bytes))) > 0) {
        for (ssize_t at = 0; at < got;) {
            ssize_t put = syscall(SYS_write, to, bytes + at, (size_t)(got - at));
            if (put < 0)
                return -1;
            at += put;
        }
    }
    return (int)got;
}

// What is lost of the owner when this user may not set it is lost with `mv` too.
static int copy_file(int from, int to)
{
    struct stat64 status;
    if (fstat64(from, &status) != 0 || !S_ISREG(status.st_mode)) {
        errno = EXDEV;
        return -1;
    }
    struct timespec times[2] = {status.st_atim, status.st_mtim};
    if (copy_bytes(from, to) != 0)
        return -1;
    (void)!fchown(to, status.st_uid, status.st_gid);
    return fchmod(to, status.st_mode & 07777) != 0 || futimens(to, times) != 0 ? -1 : 0;
}

static int copy_link(int from_dir, const char *from, int to_dir, const char *to)
{
    char target[PRELOAD_PATH_LEN];
    ssize_t len = syscall(SYS_readlinkat, from_dir, from, target, sizeof(target) - 1);
    if (len < 0)
        return -1;
    target[len] = '\0';
    return (int)syscall(SYS_symlinkat, target, to_dir, to);
}

static int copy_to(int from_dir, const char *from, int to_dir, const char *to, bool follow)
{
    int source = (int)syscall(SYS_openat, from_dir, from, O_RDONLY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW), 0);
    if (source < 0)
        return errno == ELOOP && !follow ? copy_link(from_dir, from, to_dir, to) : -1;
    int target = (int)syscall(SYS_openat, to_dir, to, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    int ret = target < 0 ? -1 : copy_file(source, target);
    int err = errno;
    (void)sys_close(source);
    if (target >= 0)
        (void)sys_close(target);
    errno = err;
    return ret;
}

int preload_carry(int from_dir, const char *from, int to_dir, const char *to, unsigned flags, bool keep)
{
    char temp[PRELOAD_ROOT_LEN + PRELOAD_PATH_LEN + 32];
    int len = snprintf(temp, sizeof(temp), "%s.tipcsim-%ld", to, (long)syscall(SYS_gettid));
    if (len <= 0 || (size_t)len >= sizeof(temp) || (!keep && (flags & (RENAME_EXCHANGE | RENAME_WHITEOUT)) != 0)) {
        errno = EXDEV;
        return -1;
    }
    bool follow = keep && (flags & AT_SYMLINK_FOLLOW) != 0;
    int ret = copy_to(from_dir, from, to_dir, temp, follow);
    if (ret == 0 && keep)
        ret = (int)syscall(SYS_linkat, to_dir, temp, to_dir, to, 0);
    else if (ret == 0)
        ret = (int)syscall(SYS_renameat2, to_dir, temp, to_dir, to, flags);
    int err = errno;
    if (ret != 0 || keep)
        (void)syscall(SYS_unlinkat, to_dir, temp, 0);
    if (ret == 0 && !keep)
        ret = (int)syscall(SYS_unlinkat, from_dir, from, 0);
    else
        errno = err;
    return ret;
}
