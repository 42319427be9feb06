// Timers in virtual time. Those that send a signal are entries of the clock's file, and the time-keeper sends it. A
// timerfd is the kernel's own, armed for the time that is left: the time-keeper fetches each one from its process, and
// arms it anew when it moves the clock.
#include "tipcsim_clock.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/kcmp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "sim_cluster.h"
#include "sim_files.h"
#include "sim_sys.h"

typedef struct timerfd_s {
    int fd; // of the same open file as the process's
    pid_t pid;
    int there;     // the process's descriptor
    int64_t until; // of the virtual monotonic clock, 0 when it is not armed
    int64_t interval;
    bool ready; // nobody has read the last ticks yet
} timerfd_t;

static std::vector<timerfd_t> s_timerfds;

// Changes of an entry by its process and by us exclude each other.
static bool take(sim_timer_t *timer, uint32_t use)
{
    return sim_entry_state(use) == SIM_ENTRY_SET && sim_swap(&timer->use, use, sim_entry_as(use, SIM_ENTRY_SENDING));
}

static void send(const sim_timer_t *timer)
{
    siginfo_t info = {};
    info.si_signo = timer->signal;
    info.si_code = SI_TIMER;
    info.si_timerid = timer->id;
    info.si_overrun = (int)timer->overrun;
    info.si_value.sival_ptr = (void *)timer->value;
    if (timer->kind == SIM_TIMER_ALARM)
        (void)sys_call(SYS_kill, timer->pid, timer->signal);
    else if (timer->tid != 0)
        (void)sys_call(SYS_rt_tgsigqueueinfo, timer->pid, timer->tid, timer->signal, &info);
    else
        (void)sys_call(SYS_rt_sigqueueinfo, timer->pid, timer->signal, &info);
}

static void fire(sim_timer_t *timer, int64_t now)
{
    int64_t times = timer->interval > 0 ? (now - timer->until) / timer->interval + 1 : 1;
    timer->overrun = (uint32_t)(times - 1);
    timer->until = timer->interval > 0 ? timer->until + times * timer->interval : SIM_NEVER;
    if (timer->signal != 0)
        send(timer);
}

static sim_timer_t *timer_at(uint32_t index)
{
    return index < sim_load(&g_sim_clock->timer_num) && index < SIM_MAX_TIMERS ? &g_sim_clock->timers[index] : nullptr;
}

void timers_fire()
{
    int64_t now = sim_clock_now();
    for (uint32_t i = 0; timer_at(i) != nullptr; i++) {
        sim_timer_t *timer = timer_at(i);
        uint32_t use = sim_load(&timer->use);
        if (sim_load(&timer->until) > now || !take(timer, use))
            continue;
        bool there = sim_process_start(timer->pid) == timer->start;
        if (there && timer->until <= now)
            fire(timer, now);
        sim_store(&timer->use, there ? use : sim_entry_as(use, SIM_ENTRY_FREE));
    }
}

int64_t timers_first()
{
    int64_t first = SIM_NEVER;
    for (uint32_t i = 0; timer_at(i) != nullptr; i++) {
        const sim_timer_t *timer = timer_at(i);
        int64_t until = sim_load(&timer->until);
        if (sim_entry_state(sim_load(&timer->use)) == SIM_ENTRY_SET && until < first && !look_stopped(timer->pid))
            first = until;
    }
    return first;
}

static int64_t ns_of(const struct timespec &time)
{
    return (int64_t)time.tv_sec * SIM_SECOND + time.tv_nsec;
}

static bool same_file(const timerfd_t &a, pid_t pid, int fd)
{
    return sys_call(SYS_kcmp, a.pid, pid, KCMP_FILE, (unsigned long)a.there, (unsigned long)fd) == 0;
}

static void fetch(int process, pid_t pid, int there)
{
    for (const timerfd_t &known : s_timerfds) {
        if (same_file(known, pid, there))
            return;
    }
    struct itimerspec time;
    int fd = (int)sys_call(SYS_pidfd_getfd, process, there, 0);
    struct pollfd look = {fd, POLLIN, 0};
    int64_t now = sim_clock_now();
    if (fd < 0 || timerfd_gettime(fd, &time) != 0) {
        if (fd >= 0)
            (void)close(fd);
        return;
    }
    int64_t left = ns_of(time.it_value);
    bool ready = poll(&look, 1, 0) > 0;
    s_timerfds.push_back({fd, pid, there, left != 0 ? now + left : 0, ns_of(time.it_interval), ready});
}

static void fetch_all(pid_t pid)
{
    std::string dir = "/proc/" + std::to_string(pid) + "/fd/";
    int process = -1;
    sim_each_file(dir.c_str(), "", [&](const std::string &name) {
        char text[64];
        ssize_t len = name[0] != '.' ? readlink((dir + name).c_str(), text, sizeof(text) - 1) : -1;
        text[len > 0 ? len : 0] = '\0';
        if (strcmp(text, "anon_inode:[timerfd]") != 0)
            return;
        if (process < 0)
            process = (int)sys_call(SYS_pidfd_open, pid, 0);
        if (process >= 0)
            fetch(process, pid, atoi(name.c_str()));
    });
    if (process >= 0)
        (void)close(process);
}

int64_t timerfds_first()
{
    int64_t first = SIM_NEVER;
    timerfds_forget();
    if (sim_load(&g_sim_clock->descriptors) == 0)
        return SIM_NEVER;
    for (const auto &process : look_processes())
        fetch_all(process.first);
    for (const timerfd_t &timer : s_timerfds) {
        if (timer.until != 0 && !timer.ready && !look_stopped(timer.pid)) // a ready one wakes nobody by more ticks
            first = std::min(first, timer.until);
    }
    return first;
}

static uint64_t ticks_of(int fd)
{
    char text[512];
    char path[40];
    (void)snprintf(path, sizeof(path), "/proc/self/fdinfo/%d", fd);
    FILE *file = fopen(path, "re");
    size_t len = file != nullptr ? fread(text, 1, sizeof(text) - 1, file) : 0;
    if (file != nullptr)
        (void)fclose(file);
    text[len] = '\0';
    const char *at = strstr(text, "ticks:");
    return at != nullptr ? strtoull(at + 6, nullptr, 10) : 0;
}

// Arming a timer takes its ticks away, so those that were not read are put back.
static void move(const timerfd_t &timer)
{
    uint64_t ticks = timer.ready ? ticks_of(timer.fd) : 0;
    int64_t left = timer.until - sim_clock_now();
    if (left <= 0 && timer.interval != 0 && timer.ready) {
        int64_t more = -left / timer.interval + 1;
        ticks += (uint64_t)more;
        left += more * timer.interval;
    }
    struct itimerspec time = {sim_span(timer.interval), sim_span(std::max<int64_t>(left, 1))};
    (void)timerfd_settime(timer.fd, 0, &time, nullptr);
    if (ticks != 0)
        (void)ioctl(timer.fd, _IOW('T', 0, uint64_t), &ticks); // TFD_IOC_SET_TICKS
}

void timerfds_move()
{
    for (const timerfd_t &timer : s_timerfds) {
        if (timer.until != 0)
            move(timer);
    }
}

void timerfds_forget()
{
    for (const timerfd_t &timer : s_timerfds)
        (void)close(timer.fd);
    s_timerfds.clear();
}
