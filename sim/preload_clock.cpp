// Virtual time: reading the clocks, sleeping, and the signal that ends waits.
#include "preload_clock.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/time.h>
#include <sys/times.h>
#include <threads.h>

// clang-format off
#define CALLS(X) \
    X(nanosleep) X(clock_nanosleep) X(sigaction) X(signal) X(times)
// clang-format on
CALLS(NEXT_POINTER)

constexpr int STRICT_STATUS = 69; // EX_UNAVAILABLE

typedef int (*read_clock_t)(clockid_t, struct timespec *);

static sim_clock_t s_alone; // without a cluster: nobody moves it
static read_clock_t s_read; // the C library's own, which makes no system call

// What was there before an exec: the new program does not wait in them.
static void forget_own(sim_clock_t *clock)
{
    int32_t pid = sys_getpid();
    for (uint32_t i = 0; i < sim_load(&clock->wait_num) && i < SIM_MAX_WAITS; i++) {
        uint32_t use = sim_load(&clock->waits[i].use);
        if (sim_load(&clock->waits[i].pid) == pid && sim_entry_state(use) >= SIM_ENTRY_SET)
            (void)sim_swap(&clock->waits[i].use, use, sim_entry_as(use, SIM_ENTRY_FREE));
    }
    for (uint32_t i = 0; i < sim_load(&clock->timer_num) && i < SIM_MAX_TIMERS; i++) {
        uint32_t use = sim_load(&clock->timers[i].use);
        bool own = sim_load(&clock->timers[i].pid) == pid && clock->timers[i].kind == SIM_TIMER_POSIX;
        if (own && sim_entry_state(use) == SIM_ENTRY_SET)
            (void)sim_swap(&clock->timers[i].use, use, sim_entry_as(use, SIM_ENTRY_FREE));
    }
}

__attribute__((constructor(101))) static void begin()
{
    const char *path = getenv("TIPCSIM_CLOCK");
    CALLS(NEXT_FIND)
    void *libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD); // past a sanitizer's, which may not be ready
    if (libc != nullptr)
        s_read = (read_clock_t)dlsym(libc, "clock_gettime");
    sim_clock_catch();
    if (path == nullptr || sim_clock_open(path, false) != 0)
        sim_clock_use(&s_alone);
    forget_own(g_sim_clock);
}

bool clock_is_virtual(clockid_t clock)
{
    switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_REALTIME_COARSE:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_BOOTTIME:
    case CLOCK_REALTIME_ALARM:
    case CLOCK_BOOTTIME_ALARM:
    case CLOCK_TAI:
        return true;
    default:
        return false;
    }
}

static int read_native(clockid_t clock, struct timespec *now)
{
    read_clock_t read = __atomic_load_n(&s_read, __ATOMIC_RELAXED);
    if (read != nullptr)
        return read(clock, now);
    long ret = sys_call(SYS_clock_gettime, clock, now);
    return ret == 0 ? 0 : clock_fail((int)-ret);
}

int64_t clock_native(clockid_t clock)
{
    struct timespec now = {};
    (void)read_native(clock, &now);
    return clock_ns_of(&now);
}

int64_t clock_after(int64_t ns)
{
    int64_t now = clock_now();
    return ns < CLOCK_LONG ? now + ns : CLOCK_LONG;
}

int64_t clock_moment(clockid_t clock, const struct timespec *time)
{
    int64_t shown = clock_ns_of(time);
    return clock == CLOCK_MONOTONIC ? shown : shown - clock_native(clock) + clock_native(CLOCK_MONOTONIC);
}

int64_t clock_left(int64_t until)
{
    int64_t left = until - clock_now();
    return left > 0 ? left : 0;
}

struct timespec clock_native_time(clockid_t clock, int64_t until)
{
    return sim_span(clock_native(clock) + clock_left(until));
}

static void end_wait(void *waiting)
{
    sim_wait_end((sim_waiting_t *)waiting);
}

long clock_wait(int64_t until, clock_call_t call, void *context)
{
    sim_waiting_t waiting;
    volatile long ret;
    sim_wait_begin(&waiting, until);
    pthread_cleanup_push(end_wait, &waiting);
    ret = call(context);
    pthread_cleanup_pop(1);
    return ret;
}

int clock_refuse(const char *what)
{
    const char *strict = getenv("TIPCSIM_STRICT");
    char text[200];
    int len = snprintf(text, sizeof(text), "tipcsim: %s is not simulated in virtual time\n", what);
    (void)sys_write(STDERR_FILENO, text, (size_t)len);
    if (strict != nullptr && strcmp(strict, "1") == 0)
        (void)sys_call(SYS_exit_group, STRICT_STATUS);
    return clock_fail(EOPNOTSUPP);
}

int clock_sleep(int64_t until)
{
    for (int64_t left = clock_left(until); left != 0; left = clock_left(until)) {
        struct timespec span = sim_span(left);
        int before = errno;
        long ret = clock_during(until, [&] { return CALL_NEXT(nanosleep)(&span, nullptr); });
        int err = ret != 0 ? errno : 0;
        errno = before;
        if (err != 0 && clock_left(until) != 0)
            return err;
    }
    return 0;
}

static int shift(int ret, clockid_t clock, struct timespec *time)
{
    int64_t offset = sys_offset();
    if (ret == 0 && offset != 0 && clock_is_virtual(clock))
        *time = sim_span(clock_ns_of(time) + offset);
    return ret;
}

extern "C" {
int clock_gettime(clockid_t clock, struct timespec *time)
{
    return shift(read_native(clock, time), clock, time);
}

int gettimeofday(struct timeval *__restrict time, void *__restrict zone)
{
    if (zone != nullptr)
        memset(zone, 0, sizeof(struct timezone));
    struct timespec now = sim_span(clock_native(CLOCK_REALTIME) + sys_offset());
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / 1000;
    return 0;
}

time_t time(time_t *out)
{
    time_t now = (time_t)((clock_native(CLOCK_REALTIME) + sys_offset()) / SIM_SECOND);
    if (out != nullptr)
        *out = now;
    return now;
}

int timespec_get(struct timespec *out, int base)
{
    if (base != TIME_UTC)
        return 0;
    *out = sim_span(clock_native(CLOCK_REALTIME) + sys_offset());
    return base;
}

clock_t times(struct tms *out)
{
    clock_t ticks = CALL_NEXT(times)(out);
    return ticks + (clock_t)(sys_offset() / (SIM_SECOND / sysconf(_SC_CLK_TCK)));
}

static void put_rest(int64_t until, struct timespec *rest)
{
    if (rest != nullptr)
        *rest = sim_span(clock_left(until));
}

int nanosleep(const struct timespec *span, struct timespec *rest)
{
    if (!clock_valid(span))
        return CALL_NEXT(nanosleep)(span, rest);
    int64_t until = clock_after(clock_ns_of(span));
    pthread_testcancel();
    int err = clock_sleep(until);
    if (err == 0)
        return 0;
    put_rest(until, rest);
    return clock_fail(err);
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec *time, struct timespec *rest)
{
    if (!clock_valid(time) || !clock_is_virtual(clock))
        return CALL_NEXT(clock_nanosleep)(clock, flags, time, rest);
    bool absolute = (flags & TIMER_ABSTIME) != 0;
    int64_t until = absolute ? clock_moment(clock, time) : clock_after(clock_ns_of(time));
    pthread_testcancel();
    int err = clock_sleep(until);
    if (err != 0 && !absolute)
        put_rest(until, rest);
    return err;
}

unsigned sleep(unsigned seconds)
{
    int64_t until = clock_after(seconds * SIM_SECOND);
    pthread_testcancel();
    return clock_sleep(until) == 0 ? 0 : (unsigned)((clock_left(until) + SIM_SECOND / 2) / SIM_SECOND);
}

int usleep(useconds_t us)
{
    pthread_testcancel();
    int err = clock_sleep(clock_after(us * 1000LL));
    return err == 0 ? 0 : clock_fail(err);
}

int thrd_sleep(const struct timespec *span, struct timespec *rest)
{
    if (!clock_valid(span))
        return -2;
    return nanosleep(span, rest) == 0 ? 0 : -1;
}

// The signal that ends waits keeps its handler. A program that resets all signals is not disturbed.
int sigaction(int number, const struct sigaction *action, struct sigaction *old)
{
    if (number != SIM_CLOCK_SIGNAL)
        return CALL_NEXT(sigaction)(number, action, old);
    bool wanted = action != nullptr && action->sa_handler != SIG_DFL && action->sa_handler != SIG_IGN;
    if (wanted)
        return clock_refuse("signal 62");
    if (old != nullptr)
        *old = {};
    return 0;
}

sighandler_t signal(int number, sighandler_t handler)
{
    if (number != SIM_CLOCK_SIGNAL)
        return CALL_NEXT(signal)(number, handler);
    if (handler != SIG_DFL && handler != SIG_IGN)
        return clock_refuse("signal 62"), SIG_ERR;
    return SIG_DFL;
}
}
