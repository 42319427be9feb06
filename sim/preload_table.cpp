// The cluster of this process, and the table of its descriptors.
#include "preload.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/mman.h>

constexpr int MAX_FDS = 1 << 20;
constexpr int STRICT_STATUS = 69; // EX_UNAVAILABLE

static uint32_t s_ports[MAX_FDS]; // SIM_NONE: no TIPC socket

static sim_cluster_t s_cluster;
static sim_self_t s_self = {&s_cluster, 0, sim_keeper_grow, sim_keeper_wake};
static uint32_t s_node = SIM_ANY_NODE;
static pid_t s_pid;         // the process that owns this memory
static uint32_t *s_entered; // a page that a fork empties: 1 when this process, not its parent, has entered the cluster

void preload_complain(const char *format, ...)
{
    char text[300];
    int before = errno;
    va_list args;
    va_start(args, format);
    int len = snprintf(text, sizeof(text), "tipcsim: ");
    len += vsnprintf(text + len, sizeof(text) - (size_t)len, format, args);
    va_end(args);
    len = len < (int)sizeof(text) - 1 ? len : (int)sizeof(text) - 2;
    text[len] = '\n';
    (void)sys_write(STDERR_FILENO, text, (size_t)len + 1);
    errno = before;
}

int preload_refuse(const char *what)
{
    const char *strict = getenv("TIPCSIM_STRICT");
    preload_complain("%s is not simulated", what);
    if (strict != nullptr && strcmp(strict, "1") == 0)
        (void)sys_call(SYS_exit_group, STRICT_STATUS);
    return preload_fail(EOPNOTSUPP);
}

uint32_t preload_node()
{
    return s_node;
}

const char *preload_tool()
{
    return getenv("TIPCSIM_TOOL");
}

int preload_ask_broker(uint32_t op, uint32_t a, const void *data, size_t size)
{
    return sim_ask_broker(&s_cluster, preload_tool(), op, a, 0, 0, data, size);
}

// Maps a page that the child of a fork finds empty, and the child of a vfork does not. Without it (an old kernel) a
// child keeps its parent's entry.
static uint32_t *fork_page()
{
    size_t size = (size_t)sysconf(_SC_PAGESIZE);
    void *page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return nullptr;
    (void)madvise(page, size, MADV_WIPEONFORK);
    return (uint32_t *)page;
}

static bool enter(sim_state_t *state)
{
    pid_t pid = sys_getpid();
    int entry = sim_process_enter(state, pid, s_node);
    if (entry < 0) {
        preload_complain("a cluster has at most %u processes", SIM_MAX_PROCESSES);
        return false;
    }
    sim_store(&s_self.owner, (uint32_t)entry + 1);
    sim_store(&s_pid, pid);
    if (s_entered != nullptr)
        sim_store(s_entered, 1U);
    (void)sim_ask_broker(&s_cluster, preload_tool(), SIM_HELLO, (uint32_t)pid, 0, 0, nullptr, 0);
    return true;
}

static bool open_state(const char *dir, uint32_t address, sim_cluster_t *cluster)
{
    const char *why = "";
    int ret = sim_cluster_attach(cluster, dir, &why);
    if (ret != 0) {
        preload_complain("cluster %s: %s: %s", dir, why, strerror(-ret));
        return false;
    }
    s_node = sim_node_index(cluster->state, address);
    if (s_node != SIM_ANY_NODE)
        return true;
    preload_complain("a cluster has at most %u nodes", SIM_MAX_NODES);
    sim_cluster_close(cluster);
    return false;
}

// Several threads may open it at once: the first one's mapping is kept.
static bool open_cluster()
{
    const char *dir = getenv("TIPCSIM_CLUSTER");
    const char *node = getenv("TIPCSIM_NODE");
    if (dir == nullptr || node == nullptr) {
        preload_complain("this process is on no node: start it with tipcsim run --node N -- PROGRAM");
        return false;
    }
    sim_cluster_t mine = {};
    if (!open_state(dir, (uint32_t)strtoul(node, nullptr, 10), &mine))
        return false;
    uint32_t *page = fork_page();
    if (!sim_swap(&s_entered, (uint32_t *)nullptr, page) && page != nullptr)
        (void)munmap(page, (size_t)sysconf(_SC_PAGESIZE));
    memcpy(s_cluster.dir, mine.dir, sizeof(mine.dir)); // the same text from every thread
    if (!sim_swap(&s_cluster.state, (sim_state_t *)nullptr, mine.state))
        sim_cluster_close(&mine);
    return true;
}

const sim_self_t *preload_self()
{
    sim_state_t *state = sim_load(&s_cluster.state);
    bool entered = state != nullptr && (s_entered == nullptr || sim_load(s_entered) != 0) && s_self.owner != 0;
    if (entered)
        return &s_self;
    int before = errno;
    int cancel = 0;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel);
    bool done = (state != nullptr || open_cluster()) && enter(s_cluster.state);
    (void)pthread_setcancelstate(cancel, nullptr);
    errno = before;
    return done ? &s_self : nullptr;
}

bool preload_shares_memory()
{
    return s_entered != nullptr && sim_load(s_entered) != 0 && sys_getpid() != s_pid;
}

bool preload_known(int fd)
{
    return fd >= 0 && fd < MAX_FDS && __atomic_load_n(&s_ports[fd], __ATOMIC_RELAXED) != SIM_NONE;
}

sim_socket_t *preload_socket_at(int fd)
{
    if (!preload_known(fd))
        return nullptr;
    const sim_self_t *self = preload_self();
    uint32_t port = sim_load(&s_ports[fd]);
    sim_socket_t *socket = self != nullptr && port != SIM_NONE ? sim_socket_of(preload_state(self), port) : nullptr;
    if (socket != nullptr && sim_socket_is(fd))
        return socket;
    if (!preload_shares_memory())
        (void)sim_swap(&s_ports[fd], port, (uint32_t)SIM_NONE); // closed behind our back
    return nullptr;
}

void preload_remember(int fd, uint32_t port)
{
    if (fd >= 0 && fd < MAX_FDS)
        sim_store(&s_ports[fd], port);
}

uint32_t preload_forget(int fd)
{
    if (!preload_known(fd))
        return SIM_NONE;
    uint32_t port = __atomic_exchange_n(&s_ports[fd], SIM_NONE, __ATOMIC_SEQ_CST);
    return port != SIM_NONE && sim_socket_is(fd) ? port : SIM_NONE;
}

void preload_released(uint32_t port)
{
    if (port == SIM_NONE)
        return;
    const sim_self_t *self = preload_self();
    sim_socket_t *socket = self != nullptr ? sim_socket_of(preload_state(self), port) : nullptr;
    if (socket == nullptr)
        return;
    int other = (int)sys_call(SYS_epoll_create1, EPOLL_CLOEXEC);
    bool held = other >= 0 && sim_socket_held(preload_state(self), other, port);
    if (other >= 0)
        (void)sys_close(other);
    if (held)
        return;
    if (sim_load(&socket->published) == 0 || preload_ask_broker(SIM_RELEASED, port, nullptr, 0) != 0)
        sim_socket_close(self, socket, false);
}

// The record of the wake-up descriptor inside an epoll descriptor has the socket's port.
static uint32_t port_inside(int fd)
{
    char path[48];
    char text[512];
    (void)snprintf(path, sizeof(path), "/proc/self/fdinfo/%d", fd);
    int info = (int)sys_call(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC, 0);
    ssize_t len = info >= 0 ? sys_call(SYS_read, info, text, sizeof(text) - 1) : -1;
    if (info >= 0)
        (void)sys_close(info);
    text[len > 0 ? len : 0] = '\0';
    const char *at = strstr(text, "data:");
    uint64_t data = at != nullptr ? strtoull(at + 5, nullptr, 16) : 0;
    return (uint32_t)(data >> 32) == SIM_MAGIC ? (uint32_t)data : SIM_NONE;
}

void preload_adopt(int fd)
{
    if (fd < 0 || fd >= MAX_FDS || !sim_socket_is(fd))
        return;
    uint32_t port = port_inside(fd);
    const sim_self_t *self = port != SIM_NONE ? preload_self() : nullptr;
    if (self != nullptr && sim_socket_of(preload_state(self), port) != nullptr)
        preload_remember(fd, port);
}

int preload_wait_change(sim_socket_t *socket, uint32_t seen, int64_t until)
{
    struct timespec limit = {};
    if (until != INT64_MAX) {
        int64_t left = until - sys_now();
        if (left <= 0)
            return EAGAIN;
        limit = {(time_t)(left / 1000), (long)(left % 1000) * 1000000};
    }
    int before = 0;
    sim_store(&socket->waiting, 1U); // before the kernel compares the word
    (void)pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &before);
    int ret = sys_futex_wait(&socket->change, seen, until == INT64_MAX ? nullptr : &limit);
    (void)pthread_setcanceltype(before, nullptr);
    if (ret == -ETIMEDOUT)
        return EAGAIN;
    return ret == -EINTR ? EINTR : 0;
}

bool preload_blocks(int fd, int flags)
{
    return (flags & MSG_DONTWAIT) == 0 && (sys_fcntl(fd, F_GETFL, 0) & O_NONBLOCK) == 0;
}

constexpr uintptr_t PAGE = 4096;
constexpr uint32_t PAGES = 256;

// Pages that the kernel could read, or write, when they were last tried: mostly the same few again and again. A page
// that the application has unmapped since then raises SIGSEGV in place of EFAULT.
static uintptr_t s_readable[PAGES];
static uintptr_t s_writable[PAGES];

static bool tried(uintptr_t *pages, uintptr_t at)
{
    return at / PAGE != 0 && __atomic_load_n(&pages[at / PAGE % PAGES], __ATOMIC_RELAXED) == at / PAGE;
}

static bool keep(uintptr_t *pages, uintptr_t at, bool good)
{
    if (good)
        __atomic_store_n(&pages[at / PAGE % PAGES], at / PAGE, __ATOMIC_RELAXED);
    return good;
}

// The kernel reads the mask before it finds the first argument wrong.
static bool readable_at(uintptr_t at)
{
    if (tried(s_readable, at))
        return true;
    if (at / PAGE == 0)
        return false; // no mask at all would be right for that call
    const void *mask = (const void *)(at & ~(uintptr_t)7);
    return keep(s_readable, at, sys_call(SYS_rt_sigprocmask, -1, mask, nullptr, (size_t)8) != -EFAULT);
}

static bool writable_at(uintptr_t at)
{
    if (tried(s_writable, at))
        return true;
    return keep(s_writable, at, sys_call(SYS_getrandom, (void *)at, (size_t)1, 0) != -EFAULT);
}

static bool usable(bool (*usable_at)(uintptr_t), const void *data, size_t size)
{
    uintptr_t first = (uintptr_t)data;
    uintptr_t last = first + size - 1;
    if (size == 0)
        return true;
    return usable_at(first) && (first / PAGE == last / PAGE || usable_at(last));
}

bool preload_readable(const void *data, size_t size)
{
    return usable(readable_at, data, size);
}

bool preload_writable(void *data, size_t size)
{
    return usable(writable_at, data, size);
}

bool preload_take_fault(const sim_self_t *self, sim_fault_kind_e kind, uint32_t *value)
{
    sim_state_t *state = preload_state(self);
    uint32_t num = sim_load(&state->fault_num);
    for (uint32_t i = 0; i < num && i < SIM_MAX_FAULTS; i++) {
        sim_fault_t *fault = &state->faults[i];
        if (sim_load(&fault->kind) != kind || sim_load(&fault->left) <= 0)
            continue;
        if (fault->pid != 0 ? fault->pid != s_pid : fault->node != s_node)
            continue;
        if (sim_load(&fault->skip) > 0 && sim_add(&fault->skip, -1) > 0)
            continue;
        if (sim_add(&fault->left, -1) <= 0)
            continue;
        *value = fault->value;
        return true;
    }
    return false;
}
