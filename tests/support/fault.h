// Libc calls interposed in the test binary: each passes through unless a test has scripted it to fail. Counters and an
// ordered log of the calls let a test show what was called and undone in which order.
#ifndef TESTS_SUPPORT_FAULT_H
#define TESTS_SUPPORT_FAULT_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <pthread.h>
#include <string>
#include <vector>

namespace fault
{
// The next `times` calls of `call`, after `skip` that pass, fail with `err`: calls of pthread_* return it, fopen gives
// null, the others -1 with errno. A short write is -2.
void fail_next(const std::string &call, int err, int times = 1, int skip = 0);

constexpr int SHORT = -2;

// Runs `fun` inside the call of `call` that comes after `skip` others, before it takes effect or fails with `err`.
void run_next(const std::string &call, const std::function<void()> &fun, int skip = 0, int err = 0);

// Timed waits that began on a condition, each with its mutex held, its signals and its broadcasts.
int waits(const pthread_cond_t *cond);
int signals(const pthread_cond_t *cond);
int broadcasts(const pthread_cond_t *cond);

// The next `times` timed waits on a condition return `result`: at once without waiting, or, when `late`, after each has
// ended by itself.
void end_waits(const pthread_cond_t *cond, int result, int times = 1, bool late = false);

// The next broadcast of a condition fails.
void fail_broadcast(const pthread_cond_t *cond, int err);

// Calls since the last reset, failed ones included.
int count(const std::string &call);
int failed(const std::string &call); // of those, the ones that a test had fail

// Names of the recorded calls in order, "close(sd)" and the like without arguments.
std::vector<std::string> log();

// Forgets scripts, counters and the log.
void reset();

// Whether calls are counted and scripted at all: only while a test runs. Sanitizers call libc at the process's end,
// where nothing may be allocated any more.
void arm(bool on);

// Opening `path` opens `instead`; an empty `instead` gives ENOENT.
void redirect_file(const std::string &path, const std::string &instead);

// The calendar clock stands still at `seconds`; 0 lets it run.
void hold_time(time_t seconds);

// The monotonic clock stands still at `milliseconds`; a negative number lets it run.
void hold_clock(int64_t milliseconds);

// The time-outs of all calls of poll from now on, in order; take_polls forgets them.
void watch_polls();
std::vector<int> take_polls();
void note_poll(int timeout);

// Used by the interposed calls: counts `call` and returns the error it is to fail with, or 0.
int take(const char *call);
const char *redirected(const char *path, bool *missing);
} // namespace fault

#endif
