// The time-keeper, and what else the launcher's program does in virtual time.
#include "tipcsim_clock.h"
#include "tipcsim.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "sim_sys.h"

constexpr int64_t SHORTEST = 20000;    // ns between two looks
constexpr int64_t LONGEST = 1000000;   // while somebody works
constexpr int64_t IDLE = 10000000;     // while nobody waits for a time
constexpr uint32_t MAX_SIGNALS = 2000; // to one wait: the thread has left it by a jump

typedef struct waiting_s { // a copy of an entry
    uint32_t index;
    sim_wait_t entry;
} waiting_t;

typedef struct keeper_s {
    pthread_t thread;
    bool begun;
    std::atomic<bool> end;
    std::vector<waiting_t> waits; // at the moment at which all slept
    int64_t first_timer;
    std::map<uint32_t, std::pair<uint32_t, uint32_t>> signals; // by entry: `use`, and how many were sent
} keeper_t;

static keeper_t s_keeper;

static void at_the_moment()
{
    s_keeper.waits.clear();
    uint32_t num = sim_load(&g_sim_clock->wait_num);
    for (uint32_t i = 0; i < num && i < SIM_MAX_WAITS; i++) {
        uint32_t use = sim_load(&g_sim_clock->waits[i].use);
        if (sim_entry_state(use) < SIM_ENTRY_SET)
            continue;
        waiting_t one = {i, g_sim_clock->waits[i]};
        if (sim_load(&g_sim_clock->waits[i].use) == use)
            s_keeper.waits.push_back(one);
    }
    s_keeper.first_timer = std::min(timers_first(), timerfds_first());
}

static void give_up(const waiting_t &wait)
{
    uint32_t use = wait.entry.use;
    (void)s_keeper.signals.erase(wait.index);
    if (sim_swap(&g_sim_clock->waits[wait.index].use, use, sim_entry_as(use, SIM_ENTRY_FREE)))
        return;
    use = sim_entry_as(use, SIM_ENTRY_SENT);
    (void)sim_swap(&g_sim_clock->waits[wait.index].use, use, sim_entry_as(use, SIM_ENTRY_FREE));
}

// A program without the library, which an exec may have put in place, would end by the signal.
static bool catches(pid_t pid)
{
    char text[4096];
    FILE *file = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "re");
    size_t len = file != nullptr ? fread(text, 1, sizeof(text) - 1, file) : 0;
    if (file != nullptr)
        (void)fclose(file);
    text[len] = '\0';
    const char *at = strstr(text, "\nSigCgt:");
    return at != nullptr && (strtoull(at + 8, nullptr, 16) >> (SIM_CLOCK_SIGNAL - 1) & 1) != 0;
}

// Interrupts a wait whose time has come, again if it was before: the signal may have come before the wait in the
// kernel.
static void interrupt(const waiting_t &wait)
{
    sim_wait_t *entry = &g_sim_clock->waits[wait.index];
    uint32_t use = sim_load(&entry->use);
    auto &sent = s_keeper.signals[wait.index];
    if (sent.first != sim_entry_as(use, SIM_ENTRY_SET))
        sent = {sim_entry_as(use, SIM_ENTRY_SET), 0};
    if (sent.first != sim_entry_as(wait.entry.use, SIM_ENTRY_SET) || sim_entry_state(use) < SIM_ENTRY_SET)
        return;
    if (sent.second++ > MAX_SIGNALS || !catches(wait.entry.pid)) {
        give_up(wait);
        return;
    }
    if (!sim_swap(&entry->use, use, sim_entry_as(use, SIM_ENTRY_SENDING)))
        return;
    (void)sys_call(SYS_tgkill, wait.entry.pid, wait.entry.tid, SIM_CLOCK_SIGNAL);
    sim_store(&entry->use, sim_entry_as(use, SIM_ENTRY_SENT));
}

// Whether the thread that took the entry is there. A process that joined the cluster unseen is one of it from now on.
static bool is_there(const waiting_t &wait, bool *adopted)
{
    auto thread = look_threads().find(wait.entry.tid);
    if (thread == look_threads().end() || thread->second.pid != wait.entry.pid) {
        *adopted = look_adopt(wait.entry.pid) || *adopted;
        return look_threads().count(wait.entry.tid) != 0;
    }
    return thread->second.started <= wait.entry.since;
}

static bool is_stopped(const waiting_t &wait)
{
    auto thread = look_threads().find(wait.entry.tid);
    return thread != look_threads().end() && strchr("TtZXx", thread->second.state) != nullptr;
}

static bool adopt_joined()
{
    bool any = false;
    for (const sim_process_t &process : g_cluster.state->processes) {
        pid_t pid = sim_load(&process.pid);
        if (pid > 0 && look_processes().count(pid) == 0)
            any = look_adopt(pid) || any;
    }
    return any;
}

static void interrupt_due()
{
    int64_t now = sim_clock_now();
    for (const waiting_t &wait : s_keeper.waits) {
        if (wait.entry.until <= now && !is_stopped(wait))
            interrupt(wait);
    }
}

enum step_e { MOVED, AGAIN, NOTHING };

// All slept. Who waits for a time that has passed already wakes up first.
static step_e step()
{
    bool adopted = adopt_joined();
    int64_t first = s_keeper.first_timer;
    for (const waiting_t &wait : s_keeper.waits) {
        if (!is_there(wait, &adopted))
            give_up(wait);
        else if (!is_stopped(wait))
            first = std::min(first, wait.entry.until);
    }
    int64_t ahead = adopted || first == SIM_NEVER ? 0 : first - sim_clock_now();
    if (ahead > 0) {
        (void)sim_add(&g_sim_clock->offset, ahead); // before anybody wakes up
        timerfds_move();
        timers_fire();
    }
    interrupt_due();
    return adopted ? AGAIN : first == SIM_NEVER ? NOTHING : MOVED;
}

static int64_t next_pause(int64_t pause, bool asleep, step_e done)
{
    if (!asleep)
        return std::min(pause * 3 / 2, LONGEST);
    return done == NOTHING ? std::min(pause * 2, IDLE) : SHORTEST;
}

static void *keep_time(void * /*unused*/)
{
    int64_t pause = SHORTEST;
    (void)prctl(PR_SET_TIMERSLACK, 1);
    while (!s_keeper.end) {
        timers_fire();
        bool asleep = look_all_asleep(at_the_moment);
        step_e done = asleep ? step() : NOTHING;
        timerfds_forget();
        pause = next_pause(pause, asleep, done);
        int64_t timer = timers_first() - sim_clock_now();
        struct timespec span = sim_span(std::max<int64_t>(std::min(pause, timer), 0));
        (void)sys_call(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &span, nullptr);
    }
    return nullptr;
}

void clock_prepare()
{
    int ret = sim_clock_open(in_cluster("clock").c_str(), true);
    if (ret != 0)
        die("cannot make the clock of " + std::string(g_cluster.dir) + ": " + strerror(-ret));
    sim_clock_catch();
    look_prepare();
    clock_environment();
}

void clock_begin(pid_t command)
{
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    look_begin(command);
    s_keeper.begun = pthread_create(&s_keeper.thread, nullptr, keep_time, nullptr) == 0;
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (!s_keeper.begun)
        die("cannot start the time-keeper");
}

void clock_end()
{
    if (!s_keeper.begun)
        return;
    s_keeper.end = true;
    (void)pthread_join(s_keeper.thread, nullptr);
    s_keeper.begun = false;
}

void clock_sleep_until(int64_t ms)
{
    for (int64_t left = ms - sys_now(); left > 0; left = ms - sys_now()) {
        sim_waiting_t waiting;
        struct timespec span = sim_span(left * 1000000);
        sim_wait_begin(&waiting, g_sim_clock != nullptr ? ms * 1000000 : SIM_NEVER);
        (void)sys_call(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &span, nullptr);
        sim_wait_end(&waiting);
    }
}

void clock_environment()
{
    if (g_sim_clock == nullptr)
        return;
    std::string path = in_cluster("clock");
    const char *now = getenv("TIPCSIM_CLOCK");
    if (now != nullptr && path == now)
        return; // the caller has it already
    (void)setenv("TIPCSIM_CLOCK", path.c_str(), 1);
    std::string library = preload_library();
    library.insert(library.rfind(".so"), "-clock");
    const char *old = getenv("LD_PRELOAD");
    bool there = old != nullptr && strstr(old, library.c_str()) != nullptr;
    std::string all = old == nullptr || *old == '\0' ? library : there ? old : library + ":" + old;
    (void)setenv("LD_PRELOAD", all.c_str(), 1);
}
