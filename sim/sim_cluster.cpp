// The shared folder, state and locks of a cluster.
#include "sim_cluster.h"
#include "sim_names.h"
#include "sim_socket.h"
#include "sim_sys.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

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

static const struct {
    uint32_t size, capacity, step;
} POOLS[SIM_POOLS] = {
    {512, 1U << 20, 1024}, {2048, 1U << 18, 128}, {8192, 1U << 16, 32}, {69632, 1U << 14, 8}}; // bytes, blocks, blocks

static uint64_t lay_out(sim_state_t *state)
{
    sim_area_t areas[SIM_AREAS] = {};
    areas[SIM_AREA_SOCKETS] = {0, sizeof(sim_socket_t), SIM_MAX_SOCKETS, 64, 0};
    areas[SIM_AREA_NAMES] = {0, sizeof(sim_name_t), SIM_MAX_NAMES, 512, 0};
    for (uint32_t i = 0; i < SIM_POOLS; i++) {
        areas[SIM_AREA_OWNERS + i] = {0, sizeof(uint32_t), POOLS[i].capacity, POOLS[i].step, 0};
        areas[SIM_AREA_BLOCKS + i] = {0, POOLS[i].size, POOLS[i].capacity, POOLS[i].step, 0};
    }
    uint64_t at = sizeof(sim_state_t);
    for (uint32_t i = 0; i < SIM_AREAS; i++) {
        at = (at + 4095) & ~(uint64_t)4095;
        areas[i].offset = at;
        at += (uint64_t)areas[i].size * areas[i].capacity;
        if (state != nullptr)
            state->areas[i] = areas[i];
    }
    return (at + 4095) & ~(uint64_t)4095;
}

int sim_area_grow(sim_state_t *state, int fd, uint32_t area, uint32_t seen)
{
    if (area >= SIM_AREAS)
        return -EINVAL;
    sim_area_t *a = &state->areas[area];
    uint32_t ready = sim_load(&a->ready);
    if (ready != seen)
        return 0;
    if (ready >= a->capacity)
        return -ENOSPC;
    uint32_t more = a->step + ready / 2; // larger steps for what is used much
    more = more < a->capacity - ready ? more : a->capacity - ready;
    // All of it now: on a full disk a write to the memory would raise SIGBUS.
    int ret = (int)sys_call(SYS_fallocate, fd, 0, (off_t)(a->offset + (uint64_t)ready * a->size),
                            (off_t)((uint64_t)more * a->size));
    if (ret != 0 && ret != -EOPNOTSUPP)
        return ret;
    (void)sim_swap(&a->ready, ready, ready + more);
    return 0;
}

static int create_state(int fd)
{
    uint64_t size = lay_out(nullptr);
    int err = posix_fallocate(fd, 0, sizeof(sim_state_t));
    if (err == 0 && ftruncate(fd, (off_t)size) != 0)
        err = errno;
    if (err != 0)
        return -err;
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, fd, 0);
    if (memory == MAP_FAILED)
        return -errno;
    sim_state_t *state = (sim_state_t *)memory;
    (void)lay_out(state);
    int ret = 0;
    for (uint32_t area = 0; area < SIM_AREAS && ret == 0; area++)
        ret = sim_area_grow(state, fd, area, 0);
    if (ret == 0 && getrandom(state->secret, sizeof(state->secret), 0) != (ssize_t)sizeof(state->secret))
        ret = -EIO;
    uint64_t base = 0;
    memcpy(&base, state->secret, sizeof(base));
    state->lock_base = (base & ((1ULL << 62) - 1)) & ~((1ULL << 32) - 1); // another range than other clusters use
    state->version = SIM_VERSION;
    state->rmem = SIM_DEFAULT_RMEM;
    state->tolerance = SIM_DEFAULT_TOLERANCE;
    state->next_port = SIM_MAX_SOCKETS;
    state->next_id = 1;
    state->name_num = 1;
    state->magic = ret == 0 ? SIM_MAGIC : 0;
    (void)munmap(memory, size);
    return ret;
}

// With `create` called with the cluster's lock held.
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
    } else if (ret == 0 && status.st_size != (off_t)lay_out(nullptr)) {
        *why = "its state is not one of this version";
        ret = -EINVAL;
    }
    void *memory = MAP_FAILED;
    if (ret == 0) {
        memory = mmap(nullptr, lay_out(nullptr), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, fd, 0);
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

int sim_cluster_attach(sim_cluster_t *cluster, const char *dir, const char **why)
{
    cluster->state = nullptr;
    *why = "the path is too long";
    if (strlen(dir) >= sizeof(cluster->dir))
        return -ENAMETOOLONG;
    (void)strcpy(cluster->dir, dir);
    return map_state(cluster, false, why);
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
        (void)munmap(cluster->state, lay_out(nullptr));
    cluster->state = nullptr;
}

uint64_t sim_process_start(pid_t pid)
{
    char path[32];
    char text[1024];
    (void)snprintf(path, sizeof(path), "/proc/%d/stat", (int)pid);
    int fd = (int)sys_call(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    ssize_t len = sys_call(SYS_read, fd, text, sizeof(text) - 1);
    (void)sys_close(fd);
    text[len > 0 ? len : 0] = '\0';
    const char *at = strrchr(text, ')'); // the command's name may have spaces
    for (int field = 2; at != nullptr && field < 22; field++)
        at = strchr(at + 1, ' ');
    return at == nullptr ? 0 : strtoull(at + 1, nullptr, 10);
}

int sim_process_enter(sim_state_t *state, pid_t pid, uint32_t node)
{
    for (uint32_t i = 0; i < SIM_MAX_PROCESSES; i++) {
        sim_process_t *process = &state->processes[i];
        if (sim_load(&process->pid) != 0 || !sim_swap(&process->pid, 0, pid))
            continue;
        process->node = node;
        sim_store(&process->start, sim_process_start(pid));
        return (int)i;
    }
    return -1;
}

uint32_t sim_node_find(const sim_state_t *state, uint32_t node)
{
    uint32_t num = sim_node_num(state);
    for (uint32_t i = 0; i < num; i++) {
        if (sim_load(&state->nodes[i]) == node)
            return i;
    }
    return SIM_ANY_NODE;
}

uint32_t sim_node_index(sim_state_t *state, uint32_t node)
{
    for (uint32_t i = 0; i < SIM_MAX_NODES; i++) {
        if (sim_swap(&state->nodes[i], 0U, node))
            (void)snprintf((char *)state->identities[i], SIM_IDENTITY_LEN, "node%u", node);
        else if (sim_load(&state->nodes[i]) != node)
            continue;
        for (uint32_t num = sim_load(&state->node_num); num <= i; num = sim_load(&state->node_num))
            (void)sim_swap(&state->node_num, num, i + 1);
        return i;
    }
    return SIM_ANY_NODE;
}

bool sim_in_domain(uint32_t domain, uint32_t address)
{
    if (domain == 0 || domain == address)
        return true;
    return address >= 1U << 24 && (domain == (address & 0xfffff000U) || domain == (address & 0xff000000U));
}

bool sim_linked(const sim_matrix_t broken, uint32_t from, uint32_t to)
{
    if (from >= SIM_MAX_NODES || to >= SIM_MAX_NODES)
        return false;
    return from == to || (__atomic_load_n(&broken[from][to / 8], __ATOMIC_RELAXED) & 1U << to % 8) == 0;
}

static void set_bit(sim_matrix_t broken, uint32_t from, uint32_t to, bool on)
{
    uint8_t bit = (uint8_t)(1U << to % 8);
    if (on && from != to)
        (void)__atomic_fetch_or(&broken[from][to / 8], bit, __ATOMIC_SEQ_CST);
    else
        (void)__atomic_fetch_and(&broken[from][to / 8], (uint8_t)~bit, __ATOMIC_SEQ_CST);
}

void sim_break(sim_matrix_t broken, uint32_t a, uint32_t b, bool on, bool both)
{
    uint32_t first = b == SIM_ANY_NODE ? 0 : b;
    uint32_t last = b == SIM_ANY_NODE ? SIM_MAX_NODES - 1 : b;
    for (uint32_t i = first; i <= last; i++) {
        set_bit(broken, a, i, on);
        if (both)
            set_bit(broken, i, a, on);
    }
}

static bool covers(const sim_impaired_t *link, uint32_t a, uint32_t b)
{
    return (link->a == SIM_ANY_NODE || link->a == a) && (link->b == SIM_ANY_NODE || link->b == b);
}

bool sim_impaired(const sim_state_t *state, uint32_t from, uint32_t to, sim_impaired_t *how)
{
    *how = {};
    uint32_t num = sim_load(&state->impaired_num);
    for (uint32_t i = 0; i < num && i < SIM_MAX_IMPAIRED && from != to; i++) {
        const sim_impaired_t *link = &state->impaired[i];
        if (!covers(link, from, to) && (link->one_way != 0 || !covers(link, to, from)))
            continue;
        how->delay = how->delay > link->delay ? how->delay : link->delay;
        how->jitter = how->jitter > link->jitter ? how->jitter : link->jitter;
        how->loss = how->loss > link->loss ? how->loss : link->loss;
        how->congest |= link->congest;
    }
    return (how->delay | how->jitter | how->loss | how->congest) != 0;
}

bool sim_node_path(const char *dir, uint32_t node, const char *path, char *out, size_t size)
{
    int len = snprintf(out, size, "%s/nodes/%u%s", dir, node, path);
    return len > 0 && (size_t)len < size;
}
