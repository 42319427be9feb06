// Virtual time: timers. Those that send signals are entries of the clock's file, which the time-keeper fires. A timerfd
// is the kernel's; the time-keeper moves it with the clock.
#include "preload_clock.h"

#include <cstring>
#include <sched.h>
#include <sys/time.h>
#include <sys/timerfd.h>

// clang-format off
#define CALLS(X) \
    X(timerfd_create) X(timerfd_settime) X(setitimer) X(getitimer) X(timer_create) X(timer_settime) \
    X(timer_gettime) X(timer_getoverrun) X(timer_delete)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

constexpr int PATIENCE = 100000;            // yields to who changes an entry
constexpr uintptr_t OURS = 0x7454000000000; // timer_t is this plus the entry's index

static uint64_t s_start; // of this process; 0 before the first timer and in the child of a fork
static pid_t s_pid;

static uint64_t own_start()
{
    pid_t pid = sys_getpid();
    if (sim_load(&s_pid) != pid) {
        sim_store(&s_start, sim_process_start(pid));
        sim_store(&s_pid, pid);
    }
    return sim_load(&s_start);
}

static bool is_own(const sim_timer_t *timer)
{
    return sim_entry_state(sim_load(&timer->use)) != SIM_ENTRY_FREE && sim_load(&timer->pid) == sys_getpid();
}

// Its `use` before; the entry is nobody else's until put().
static uint32_t take(sim_timer_t *timer)
{
    uint32_t use = sim_load(&timer->use);
    for (int tries = 0; tries < PATIENCE; tries++, use = sim_load(&timer->use)) {
        if (sim_entry_state(use) == SIM_ENTRY_SET && sim_swap(&timer->use, use, sim_entry_as(use, SIM_ENTRY_TAKEN)))
            return use;
        (void)sched_yield();
    }
    return sim_entry_as(use, SIM_ENTRY_SET); // who held it was killed
}

static sim_timer_t *make(sim_timer_kind_e kind, int signal)
{
    sim_clock_t *clock = g_sim_clock;
    for (uint32_t i = 0; i < SIM_MAX_TIMERS; i++) {
        sim_timer_t *timer = &clock->timers[i];
        uint32_t use = sim_load(&timer->use);
        uint32_t taken = sim_entry_as(use + SIM_ENTRY_STEP, SIM_ENTRY_TAKEN);
        if (sim_entry_state(use) != SIM_ENTRY_FREE || !sim_swap(&timer->use, use, taken))
            continue;
        timer->kind = kind;
        timer->pid = sys_getpid();
        timer->tid = 0;
        timer->signal = signal;
        timer->id = (int32_t)i;
        timer->value = 0;
        timer->start = own_start();
        timer->until = SIM_NEVER;
        timer->interval = 0;
        timer->overrun = 0;
        sim_store(&timer->use, sim_entry_as(taken, SIM_ENTRY_SET));
        for (uint32_t num = sim_load(&clock->timer_num); num <= i; num = sim_load(&clock->timer_num))
            (void)sim_swap(&clock->timer_num, num, i + 1);
        return timer;
    }
    return nullptr;
}

// The one of alarm and ITIMER_REAL.
static sim_timer_t *alarm_timer(bool needed)
{
    for (uint32_t i = 0; i < sim_load(&g_sim_clock->timer_num); i++) {
        sim_timer_t *timer = &g_sim_clock->timers[i];
        if (is_own(timer) && timer->kind == SIM_TIMER_ALARM && timer->start == own_start())
            return timer;
    }
    return needed ? make(SIM_TIMER_ALARM, SIGALRM) : nullptr;
}

static void read_timer(const sim_timer_t *timer, int64_t *left, int64_t *interval)
{
    int64_t until = sim_load(&timer->until);
    *interval = sim_load(&timer->interval);
    *left = until == SIM_NEVER ? 0 : clock_left(until);
    if (until != SIM_NEVER && *left == 0)
        *left = 1; // it is about to fire
}

static void arm(sim_timer_t *timer, int64_t until, int64_t interval)
{
    uint32_t use = take(timer);
    sim_store(&timer->interval, interval);
    sim_store(&timer->until, until);
    sim_store(&timer->use, use);
}

static int64_t ns_of(const struct timeval &time)
{
    return clock_ns(time.tv_sec, time.tv_usec * 1000);
}

static struct timeval timeval_of(int64_t ns)
{
    struct timeval time = {};
    time.tv_sec = (time_t)(ns / SIM_SECOND);
    time.tv_usec = (suseconds_t)(ns % SIM_SECOND / 1000);
    return time;
}

static bool valid(const struct timeval &time)
{
    return time.tv_sec >= 0 && time.tv_usec >= 0 && time.tv_usec < 1000000;
}

static sim_timer_t *own_timer(timer_t id)
{
    uintptr_t index = (uintptr_t)id - OURS;
    return index < SIM_MAX_TIMERS ? &g_sim_clock->timers[index] : nullptr;
}

extern "C" {
int getitimer(__itimer_which_t which, struct itimerval *out) noexcept
{
    if (which != ITIMER_REAL)
        return CALL_NEXT(getitimer)(which, out);
    int64_t left = 0;
    int64_t interval = 0;
    const sim_timer_t *timer = alarm_timer(false);
    if (timer != nullptr)
        read_timer(timer, &left, &interval);
    *out = {timeval_of(interval), timeval_of(left)};
    if (left != 0 && left < 1000)
        out->it_value.tv_usec = 1;
    return 0;
}

int setitimer(__itimer_which_t which, const struct itimerval *__restrict time,
              struct itimerval *__restrict old) noexcept
{
    if (which != ITIMER_REAL)
        return CALL_NEXT(setitimer)(which, time, old);
    if (time != nullptr && (!valid(time->it_value) || !valid(time->it_interval)))
        return clock_fail(EINVAL);
    int64_t ns = time != nullptr ? ns_of(time->it_value) : 0;
    int64_t interval = time != nullptr ? ns_of(time->it_interval) : 0;
    if (old != nullptr)
        (void)getitimer(ITIMER_REAL, old);
    sim_timer_t *timer = alarm_timer(ns != 0);
    if (timer == nullptr)
        return ns != 0 ? clock_refuse("so many timers") : 0;
    arm(timer, ns != 0 ? clock_after(ns) : SIM_NEVER, interval);
    return 0;
}

unsigned alarm(unsigned seconds) noexcept
{
    struct itimerval old = {};
    struct itimerval time = {};
    time.it_value.tv_sec = seconds;
    (void)setitimer(ITIMER_REAL, &time, &old);
    unsigned left = (unsigned)old.it_value.tv_sec + (old.it_value.tv_usec >= 500000 ? 1U : 0U);
    return left == 0 && old.it_value.tv_usec != 0 ? 1 : left;
}

useconds_t ualarm(useconds_t us, useconds_t interval) noexcept
{
    struct itimerval old = {};
    struct itimerval time = {timeval_of(interval * 1000LL), timeval_of(us * 1000LL)};
    (void)setitimer(ITIMER_REAL, &time, &old);
    return (useconds_t)(old.it_value.tv_sec * 1000000 + old.it_value.tv_usec);
}

int timer_create(clockid_t clock, struct sigevent *__restrict event, timer_t *__restrict out) noexcept
{
    if (!clock_is_virtual(clock))
        return CALL_NEXT(timer_create)(clock, event, out);
    int how = event != nullptr ? event->sigev_notify : SIGEV_SIGNAL;
    if (how == SIGEV_THREAD)
        return clock_refuse("timer_create with SIGEV_THREAD");
    int signal = event == nullptr ? SIGALRM : how == SIGEV_NONE ? 0 : event->sigev_signo;
    if (signal < 0 || signal > SIGRTMAX || (how != SIGEV_NONE && signal == 0))
        return clock_fail(EINVAL);
    sim_timer_t *timer = make(SIM_TIMER_POSIX, signal);
    if (timer == nullptr)
        return clock_fail(EAGAIN);
    timer->value = event != nullptr ? (uint64_t)event->sigev_value.sival_ptr : (uint64_t)timer->id;
    timer->tid = how == SIGEV_THREAD_ID ? event->_sigev_un._tid : 0;
    timer->clock = clock;
    *out = (timer_t)(OURS + (uintptr_t)timer->id);
    return 0;
}

int timer_gettime(timer_t id, struct itimerspec *out) noexcept
{
    const sim_timer_t *timer = own_timer(id);
    if (timer == nullptr)
        return CALL_NEXT(timer_gettime)(id, out);
    int64_t left = 0;
    int64_t interval = 0;
    if (!is_own(timer))
        return clock_fail(EINVAL);
    read_timer(timer, &left, &interval);
    *out = {sim_span(interval), sim_span(left)};
    return 0;
}

int timer_settime(timer_t id, int flags, const struct itimerspec *__restrict time,
                  struct itimerspec *__restrict old) noexcept
{
    sim_timer_t *timer = own_timer(id);
    if (timer == nullptr)
        return CALL_NEXT(timer_settime)(id, flags, time, old);
    if (!is_own(timer) || !clock_valid(&time->it_value) || !clock_valid(&time->it_interval))
        return clock_fail(EINVAL);
    if (old != nullptr)
        (void)timer_gettime(id, old);
    bool absolute = (flags & TIMER_ABSTIME) != 0;
    int64_t until = SIM_NEVER;
    if (clock_ns_of(&time->it_value) != 0)
        until = absolute ? clock_moment(timer->clock, &time->it_value) : clock_after(clock_ns_of(&time->it_value));
    arm(timer, until, clock_ns_of(&time->it_interval));
    return 0;
}

int timer_getoverrun(timer_t id) noexcept
{
    const sim_timer_t *timer = own_timer(id);
    return timer != nullptr ? (int)sim_load(&timer->overrun) : CALL_NEXT(timer_getoverrun)(id);
}

int timer_delete(timer_t id) noexcept
{
    sim_timer_t *timer = own_timer(id);
    if (timer == nullptr)
        return CALL_NEXT(timer_delete)(id);
    if (!is_own(timer))
        return clock_fail(EINVAL);
    uint32_t use = take(timer);
    sim_store(&timer->until, SIM_NEVER);
    sim_store(&timer->use, sim_entry_as(use, SIM_ENTRY_FREE));
    return 0;
}

int timerfd_create(clockid_t clock, int flags) noexcept
{
    sim_store(&g_sim_clock->descriptors, 1U);
    return CALL_NEXT(timerfd_create)(clock, flags);
}

int timerfd_settime(int fd, int flags, const struct itimerspec *time, struct itimerspec *old) noexcept
{
    if (time == nullptr || (flags & TFD_TIMER_ABSTIME) == 0 || !clock_valid(&time->it_value))
        return CALL_NEXT(timerfd_settime)(fd, flags, time, old);
    int64_t at = clock_ns_of(&time->it_value);
    struct itimerspec native = *time;
    if (at != 0)
        native.it_value = sim_span(at > sys_offset() ? at - sys_offset() : 1);
    return CALL_NEXT(timerfd_settime)(fd, flags, &native, old);
}
}
