// The inside of the library for virtual time, libtipcsim-clock.so. It is preloaded into the processes of a cluster with
// virtual time, behind libtipcsim.so if that is there as well, so that the simulator's own waits pass through it. Any
// thread, signal handler or child of the application may enter any call at any time: there is no lock.
#ifndef SIM_PRELOAD_CLOCK_H
#define SIM_PRELOAD_CLOCK_H

#include <cerrno>
#include <csignal>

#include "preload_next.h"
#include "sim_clock.h"
#include "sim_cluster.h"
#include "sim_sys.h"

constexpr int64_t CLOCK_LONG = 1LL << 61; // ns; no time of an application is later

bool clock_is_virtual(clockid_t clock); // false for CPU clocks
int64_t clock_native(clockid_t clock);  // ns, of the kernel
static inline int64_t clock_now(void)   // ns of the virtual monotonic clock
{
    return clock_native(CLOCK_MONOTONIC) + sys_offset();
}

static inline bool clock_valid(const struct timespec *time)
{
    return time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < SIM_SECOND;
}

static inline int64_t clock_ns(int64_t seconds, int64_t ns)
{
    return seconds > CLOCK_LONG / SIM_SECOND ? CLOCK_LONG : seconds * SIM_SECOND + ns;
}

static inline int64_t clock_ns_of(const struct timespec *time)
{
    return clock_ns(time->tv_sec, time->tv_nsec);
}

// The moment, on the virtual monotonic clock, that is `ns` from now, or that `clock` shows as `time`.
int64_t clock_after(int64_t ns);
int64_t clock_moment(clockid_t clock, const struct timespec *time);
int64_t clock_left(int64_t until); // ns until then, at least 0
// What the kernel's `clock` shows at that moment, unless the virtual one is moved before.
struct timespec clock_native_time(clockid_t clock, int64_t until);

// Makes one call of the kernel that waits until `until` at most. It returns -1 with EINTR when the virtual clock has
// got there first; the caller looks at the clock. The thread can be cancelled in the call.
typedef long (*clock_call_t)(void *context);
long clock_wait(int64_t until, clock_call_t call, void *context);

template <typename call_t>
static inline long clock_during(int64_t until, call_t call)
{
    return clock_wait(
        until, [](void *context) -> long { return (*(call_t *)context)(); }, &call);
}

// After clock_during returned -1: the time has come, and it was not the application's signal.
static inline bool clock_ended(int64_t until)
{
    return errno == EINTR && clock_left(until) == 0;
}

// -1 and EOPNOTSUPP, and a line on standard error; ends the process when TIPCSIM_STRICT is 1.
int clock_refuse(const char *what);

static inline int clock_fail(int err)
{
    errno = err;
    return -1;
}

// Waits in the kernel until then. 0, or EINTR after a signal of the application.
int clock_sleep(int64_t until);

#endif
