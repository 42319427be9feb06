// The interposed calls that need nothing but a script: files, pauses, the end of the process, the calendar clock.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <dlfcn.h>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "fault.h"

template <typename Fun>
static Fun next(const char *name)
{
    return reinterpret_cast<Fun>(dlsym(RTLD_NEXT, name));
}

static int fail(int err)
{
    errno = err;
    return -1;
}

static std::atomic<time_t> s_held{0};

void fault::hold_time(time_t seconds)
{
    s_held = seconds;
}

static std::atomic<int64_t> s_clock{-1};

void fault::hold_clock(int64_t milliseconds)
{
    s_clock = milliseconds;
}

static std::mutex s_polls_mutex;
static std::atomic<bool> s_watch_polls{false};
static std::vector<int> &s_polls = *new std::vector<int>; // never destroyed: library threads outlive main

void fault::watch_polls()
{
    s_watch_polls = true;
}

std::vector<int> fault::take_polls()
{
    std::lock_guard<std::mutex> lock(s_polls_mutex);
    std::vector<int> polls;
    polls.swap(s_polls);
    return polls;
}

void fault::note_poll(int timeout)
{
    if (!s_watch_polls)
        return;
    std::lock_guard<std::mutex> lock(s_polls_mutex);
    s_polls.push_back(timeout);
}

extern "C" {
int clock_gettime(clockid_t clock, struct timespec *time) noexcept
{
    static const auto real = next<int (*)(clockid_t, struct timespec *)>("clock_gettime");
    int64_t held = clock == CLOCK_MONOTONIC ? s_clock.load() : -1;
    if (held < 0)
        return real(clock, time);
    *time = {held / 1000, held % 1000 * 1000000};
    return 0;
}

int mkdir(const char *path, mode_t mode) noexcept
{
    static const auto real = next<int (*)(const char *, mode_t)>("mkdir");
    int err = fault::take("mkdir");
    return err != 0 ? fail(err) : real(path, mode);
}

int eventfd(unsigned int value, int flags) noexcept
{
    int err = fault::take("eventfd");
    if (err != 0)
        return fail(err);
    return next<int (*)(unsigned int, int)>("eventfd")(value, flags);
}

ssize_t readlink(const char *path, char *buf, size_t len)
{
    int err = fault::take("readlink");
    if (err != 0)
        return fail(err);
    return next<ssize_t (*)(const char *, char *, size_t)>("readlink")(path, buf, len);
}

int fseek(FILE *fp, long offset, int whence)
{
    int err = fault::take("fseek");
    if (err != 0)
        return fail(err);
    return next<int (*)(FILE *, long, int)>("fseek")(fp, offset, whence);
}

int fsync(int fd)
{
    int err = fault::take("fsync");
    if (err != 0)
        return fail(err);
    return next<int (*)(int)>("fsync")(fd);
}

extern void *__dso_handle;
int __register_atfork(void (*prepare)(void), void (*parent)(void), void (*child)(void), void *dso);

// libc's own is in the binary as well, for the sake of this handle.
int pthread_atfork(void (*prepare)(void), void (*parent)(void), void (*child)(void)) noexcept
{
    int err = fault::take("pthread_atfork");
    return err != 0 ? err : __register_atfork(prepare, parent, child, &__dso_handle);
}

// The library registers one callback; the test framework registers none through here that may fail.
int atexit(void (*fun)(void))
{
    int err = fault::take("atexit");
    if (err != 0)
        return -1;
    typedef int (*cxa_t)(void (*)(void *), void *, void *);
    return next<cxa_t>("__cxa_atexit")(reinterpret_cast<void (*)(void *)>(reinterpret_cast<void *>(fun)), nullptr,
                                       nullptr);
}

unsigned sleep(unsigned)
{
    (void)fault::take("sleep"); // a test never waits for a pause of the library
    return 0;
}

int ppoll(struct pollfd *fds, nfds_t num, const struct timespec *limit, const sigset_t *mask)
{
    (void)fault::take("ppoll"); // nor here: it looks, and goes on
    const struct timespec none = {0, 0};
    return next<int (*)(struct pollfd *, nfds_t, const struct timespec *, const sigset_t *)>("ppoll")(
        fds, num, limit == nullptr ? nullptr : &none, mask);
}

int sched_yield(void)
{
    (void)fault::take("sched_yield");
    return next<int (*)(void)>("sched_yield")();
}

time_t time(time_t *out)
{
    time_t now = s_held;
    if (now == 0)
        return next<time_t (*)(time_t *)>("time")(out);
    if (out != nullptr)
        *out = now;
    return now;
}
}
