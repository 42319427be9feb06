// The processes' side of virtual time.
#include "sim_clock.h"
#include "sim_cluster.h"
#include "sim_sys.h"

#include <csignal>
#include <sched.h>
#include <sys/mman.h>

// The name past the library for virtual time, which may be loaded into this program, and past sanitizers.
extern "C" int __sigaction(int number, const struct sigaction *action, struct sigaction *old);

constexpr int PATIENCE = 100000; // yields to a time-keeper between two steps; more, and it was killed there
constexpr uint64_t THE_SIGNAL = 1ULL << (SIM_CLOCK_SIGNAL - 1);

sim_clock_t *g_sim_clock;

void sim_clock_use(sim_clock_t *clock)
{
    g_sim_clock = clock;
    g_sim_offset = &clock->offset;
}

int sim_clock_open(const char *path, bool create)
{
    int fd = (int)sys_call(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC | (create ? O_CREAT | O_EXCL : 0), 0600);
    if (fd < 0)
        return fd;
    int ret = create ? (int)sys_call(SYS_fallocate, fd, 0, (off_t)0, (off_t)sizeof(sim_clock_t)) : 0;
    if (ret == -EOPNOTSUPP)
        ret = (int)sys_call(SYS_ftruncate, fd, (off_t)sizeof(sim_clock_t));
    long at =
        ret != 0 ? ret : sys_call(SYS_mmap, nullptr, sizeof(sim_clock_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0L);
    (void)sys_close(fd);
    if (at < 0 && at > -4096)
        return (int)at;
    sim_clock_t *clock = (sim_clock_t *)at;
    if (create)
        sim_store(&clock->magic, SIM_CLOCK_MAGIC);
    if (sim_load(&clock->magic) != SIM_CLOCK_MAGIC)
        return -EINVAL;
    sim_clock_use(clock);
    return 0;
}

static void no_effect(int /*signal*/)
{
}

void sim_clock_catch()
{
    struct sigaction action = {};
    action.sa_handler = no_effect;
    (void)__sigaction(SIM_CLOCK_SIGNAL, &action, nullptr);
}

void sim_clock_join(const char *dir)
{
    char path[SIM_PATH_LEN];
    if (sim_cluster_path(dir, "clock", path, sizeof(path)) && sim_clock_open(path, false) == 0)
        sim_clock_catch();
}

int64_t sim_clock_now()
{
    return sys_clock(CLOCK_MONOTONIC);
}

static sim_wait_t *take_entry(uint32_t *use)
{
    sim_clock_t *clock = g_sim_clock;
    for (uint32_t i = 0; i < SIM_MAX_WAITS; i++) {
        sim_wait_t *entry = &clock->waits[i];
        uint32_t before = sim_load(&entry->use);
        *use = sim_entry_as(before + SIM_ENTRY_STEP, SIM_ENTRY_TAKEN);
        if (sim_entry_state(before) != SIM_ENTRY_FREE || !sim_swap(&entry->use, before, *use))
            continue;
        for (uint32_t num = sim_load(&clock->wait_num); num <= i; num = sim_load(&clock->wait_num))
            (void)sim_swap(&clock->wait_num, num, i + 1);
        return entry;
    }
    return nullptr; // the wait ends by the kernel's clock alone
}

void sim_wait_begin(sim_waiting_t *waiting, int64_t until)
{
    *waiting = {};
    if (g_sim_clock == nullptr || until == SIM_NEVER)
        return;
    uint64_t before = 0;
    (void)sys_call(SYS_rt_sigprocmask, SIG_UNBLOCK, &THE_SIGNAL, &before, sizeof(before));
    waiting->blocked = (before & THE_SIGNAL) != 0;
    sim_wait_t *entry = take_entry(&waiting->use);
    if (entry == nullptr)
        return;
    entry->pid = sys_getpid();
    entry->tid = (int32_t)sys_call(SYS_gettid);
    entry->until = until;
    entry->since = sys_native(CLOCK_BOOTTIME);
    waiting->use = sim_entry_as(waiting->use, SIM_ENTRY_SET);
    sim_store(&entry->use, waiting->use);
    waiting->entry = entry;
}

// The time-keeper changes SET to SENDING, sends, and changes that to SENT.
static void give_back(const sim_waiting_t *waiting)
{
    sim_wait_t *entry = waiting->entry;
    uint32_t is_free = sim_entry_as(waiting->use, SIM_ENTRY_FREE);
    for (int tries = 0; tries < PATIENCE; tries++) {
        uint32_t use = sim_load(&entry->use);
        if (sim_entry_as(use, SIM_ENTRY_SET) != waiting->use || sim_entry_state(use) == SIM_ENTRY_FREE)
            return; // the time-keeper has given it up
        if (sim_entry_state(use) == SIM_ENTRY_SENDING)
            (void)sched_yield();
        else if (sim_swap(&entry->use, use, is_free)) {
            if (sim_entry_state(use) == SIM_ENTRY_SENT)
                (void)sys_call(SYS_gettid); // the signal is delivered at the end of any system call
            return;
        }
    }
    (void)sim_swap(&entry->use, sim_entry_as(waiting->use, SIM_ENTRY_SENDING), is_free);
}

void sim_wait_end(sim_waiting_t *waiting)
{
    if (waiting->entry != nullptr)
        give_back(waiting);
    if (waiting->blocked)
        (void)sys_call(SYS_rt_sigprocmask, SIG_BLOCK, &THE_SIGNAL, nullptr, sizeof(THE_SIGNAL));
    *waiting = {};
}
