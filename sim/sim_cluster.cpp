// The shared folder, state and locks of a cluster.
#include "sim_cluster.h"
#include "sim_sys.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

void sim_mutex_init(sim_mutex_t *mutex)
{
    pthread_mutexattr_t attr;
    (void)pthread_mutexattr_init(&attr);
    (void)pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    (void)pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    (void)pthread_mutex_init(&mutex->mutex, &attr);
    (void)pthread_mutexattr_destroy(&attr);
}

bool sim_mutex_lock(sim_mutex_t *mutex)
{
    bool orphaned = pthread_mutex_lock(&mutex->mutex) == EOWNERDEAD;
    if (orphaned)
        (void)pthread_mutex_consistent(&mutex->mutex);
    return orphaned;
}

void sim_mutex_unlock(sim_mutex_t *mutex)
{
    (void)pthread_mutex_unlock(&mutex->mutex);
}

// Reads the word that the kernel itself reads when a thread dies. A separate field would be wrong for a moment after
// each lock and before each unlock.
pid_t sim_mutex_holder(const sim_mutex_t *mutex)
{
    return (pid_t)((unsigned)__atomic_load_n(&mutex->mutex.__data.__lock, __ATOMIC_RELAXED) & FUTEX_TID_MASK);
}

bool sim_cluster_path(const char *dir, const char *name, char *path, size_t size)
{
    int len = snprintf(path, size, "%s/%s", dir, name);
    return len > 0 && (size_t)len < size;
}

static bool usable(const char *dir)
{
    struct stat status;
    return dir != nullptr && stat(dir, &status) == 0 && S_ISDIR(status.st_mode) && access(dir, W_OK | X_OK) == 0;
}

bool sim_cluster_dir(const char *name, char *dir, size_t size)
{
    int len = 0;
    if (strchr(name, '/') != nullptr) {
        len = snprintf(dir, size, "%s", name);
    } else {
        const char *base = getenv("TIPCSIM_DIR");
        if (base == nullptr)
            base = usable("/dev/shm") ? "/dev/shm" : getenv("TMPDIR");
        len = snprintf(dir, size, "%s/tipcsim-%u-%s", base == nullptr ? "/tmp" : base, (unsigned)getuid(), name);
    }
    return len > 0 && (size_t)len < size;
}

int sim_cluster_lock(const char *dir)
{
    char path[SIM_PATH_LEN];
    if (!sim_cluster_path(dir, "lock", path, sizeof(path)))
        return -ENAMETOOLONG;
    for (;;) {
        int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0)
            return -errno;
        while (flock(fd, LOCK_EX) != 0) {
            if (errno == EINTR)
                continue;
            int err = errno;
            (void)sys_close(fd);
            return -err;
        }
        // The folder may have been removed, and made again, during the wait.
        struct stat mine;
        struct stat there;
        if (fstat(fd, &mine) == 0 && stat(path, &there) == 0 && mine.st_ino == there.st_ino)
            return fd;
        (void)sys_close(fd);
        if (access(dir, F_OK) != 0)
            return -ENOENT;
    }
}

static int create_state(int fd)
{
    int err = posix_fallocate(fd, 0, sizeof(sim_state_t)); // all of it now: a full disk would raise SIGBUS later
    if (err != 0)
        return -err;
    void *memory = mmap(nullptr, sizeof(sim_state_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        return -errno;
    sim_state_t *state = (sim_state_t *)memory;
    sim_mutex_init(&state->mutex);
    state->version = SIM_VERSION;
    state->rmem = SIM_DEFAULT_RMEM;
    state->tolerance = SIM_DEFAULT_TOLERANCE;
    state->next_id = 1000;
    state->magic = SIM_MAGIC;
    (void)munmap(memory, sizeof(sim_state_t));
    return 0;
}

// Called with the cluster's lock held.
static int map_state(sim_cluster_t *cluster, bool create, const char **why)
{
    char path[SIM_PATH_LEN];
    (void)sim_cluster_path(cluster->dir, "state", path, sizeof(path));
    *why = "cannot open its state";
    int fd = open(path, O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0600);
    if (fd < 0)
        return -errno;
    struct stat status;
    int ret = fstat(fd, &status) == 0 ? 0 : -errno;
    if (ret == 0 && status.st_size == 0 && create) {
        *why = "cannot make its state";
        ret = create_state(fd);
        if (ret != 0)
            (void)unlink(path);
    } else if (ret == 0 && status.st_size != (off_t)sizeof(sim_state_t)) {
        *why = "its state is not one of this version";
        ret = -EINVAL;
    }
    void *memory = MAP_FAILED;
    if (ret == 0) {
        memory = mmap(nullptr, sizeof(sim_state_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ret = memory == MAP_FAILED ? -errno : 0;
    }
    (void)sys_close(fd);
    if (ret != 0)
        return ret;
    cluster->state = (sim_state_t *)memory;
    if (cluster->state->magic == SIM_MAGIC && cluster->state->version == SIM_VERSION)
        return 0;
    *why = "its state is not one of this version";
    sim_cluster_close(cluster);
    return -EINVAL;
}

// What lies in the folder is trusted, so nobody else may have made it or may get into it.
static int check_folder(const char *dir, const char **why)
{
    struct stat status;
    if (lstat(dir, &status) != 0)
        return -errno;
    *why = S_ISLNK(status.st_mode) ? "it is a symbolic link" : "it is no folder";
    if (!S_ISDIR(status.st_mode))
        return -ENOTDIR;
    *why = "the folder is another user's";
    if (status.st_uid != geteuid())
        return -EPERM;
    *why = "others may use the folder; its mode has to be 0700";
    return (status.st_mode & 0777) == 0700 ? 0 : -EPERM;
}

static int open_locked(sim_cluster_t *cluster, const char *dir, bool create, const char **why)
{
    cluster->state = nullptr;
    *why = "the path is too long";
    if (strlen(dir) >= sizeof(cluster->dir))
        return -ENAMETOOLONG;
    (void)strcpy(cluster->dir, dir);
    for (;;) {
        *why = "cannot make the folder";
        if (create && mkdir(dir, 0700) != 0 && errno != EEXIST)
            return -errno;
        *why = "cannot look at the folder";
        int ret = check_folder(dir, why);
        if (ret == -ENOENT && create)
            continue; // the broker removed it
        if (ret != 0)
            return ret;
        *why = "cannot lock it";
        int lock = sim_cluster_lock(dir);
        if (lock == -ENOENT && create)
            continue; // the broker removed the folder between mkdir and the lock
        if (lock < 0)
            return lock;
        ret = map_state(cluster, create, why);
        if (ret == 0)
            return lock;
        (void)sys_close(lock);
        return ret;
    }
}

int sim_cluster_open(sim_cluster_t *cluster, const char *dir, bool create, const char **why)
{
    int lock = open_locked(cluster, dir, create, why);
    if (lock < 0)
        return lock;
    (void)sys_close(lock);
    return 0;
}

int sim_cluster_join(sim_cluster_t *cluster, const char *dir, const char **why)
{
    return open_locked(cluster, dir, true, why);
}

void sim_cluster_close(sim_cluster_t *cluster)
{
    if (cluster->state != nullptr)
        (void)munmap(cluster->state, sizeof(sim_state_t));
    cluster->state = nullptr;
}

uint32_t sim_node_index(sim_state_t *state, uint32_t node)
{
    sim_guard_s guard(&state->mutex);
    for (uint32_t i = 0; i < state->node_num; i++) {
        if (state->nodes[i] == node)
            return i;
    }
    if (state->node_num == SIM_MAX_NODES)
        return SIM_ANY_NODE;
    state->nodes[state->node_num] = node;
    return state->node_num++;
}

bool sim_linked(const sim_matrix_t broken, uint32_t a, uint32_t b)
{
    return a == b || (broken[a][b / 8] & 1U << b % 8) == 0;
}

static void set_bit(sim_matrix_t broken, uint32_t a, uint32_t b, bool on)
{
    if (on && a != b)
        broken[a][b / 8] |= (uint8_t)(1U << b % 8);
    else
        broken[a][b / 8] &= (uint8_t) ~(1U << b % 8);
}

void sim_break(sim_matrix_t broken, uint32_t a, uint32_t b, bool on)
{
    uint32_t first = b == SIM_ANY_NODE ? 0 : b;
    uint32_t last = b == SIM_ANY_NODE ? SIM_MAX_NODES - 1 : b;
    for (uint32_t i = first; i <= last; i++) {
        set_bit(broken, a, i, on);
        set_bit(broken, i, a, on);
    }
}

static bool covers(const sim_delay_t *delay, uint32_t a, uint32_t b)
{
    return (delay->a == SIM_ANY_NODE || delay->a == a) && (delay->b == SIM_ANY_NODE || delay->b == b);
}

uint32_t sim_delay_of(const sim_state_t *state, uint32_t a, uint32_t b)
{
    uint32_t ms = 0;
    for (uint32_t i = 0; i < state->delay_num; i++) {
        const sim_delay_t *delay = &state->delays[i];
        if (a != b && (covers(delay, a, b) || covers(delay, b, a)))
            ms = delay->ms > ms ? delay->ms : ms;
    }
    return ms;
}

bool sim_node_path(const char *dir, uint32_t node, const char *path, char *out, size_t size)
{
    int len = snprintf(out, size, "%s/nodes/%u%s", dir, node, path);
    return len > 0 && (size_t)len < size;
}
