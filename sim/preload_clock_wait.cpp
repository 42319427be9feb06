// Virtual time: waits for descriptors and for signals.
#include "preload_clock.h"

#include <climits>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/select.h>

extern "C" {
int __poll_chk(struct pollfd *fds, nfds_t num, int ms, size_t size);
int __ppoll_chk(struct pollfd *fds, nfds_t num, const struct timespec *limit, const sigset_t *mask, size_t size);
[[noreturn]] void __chk_fail(void);
void tipcsim_clock_slice(int64_t until);
}

// clang-format off
#define CALLS(X) \
    X(poll) X(ppoll) X(select) X(pselect) X(epoll_wait) X(epoll_pwait) X(epoll_pwait2) X(sigtimedwait)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

// libtipcsim.so makes a long wait out of short ones of the kernel. It says before each when the whole one ends: 0 when
// the next one is whole.
static __thread int64_t s_whole __attribute__((tls_model("initial-exec")));

void tipcsim_clock_slice(int64_t until)
{
    s_whole = until;
}

static int64_t whole(int64_t until)
{
    int64_t end = s_whole;
    s_whole = 0;
    return end != 0 ? end : until;
}

// The signal that ends waits must be open.
static const sigset_t *without_ours(const sigset_t *mask, sigset_t *copy)
{
    if (mask == nullptr)
        return nullptr;
    *copy = *mask;
    (void)sigdelset(copy, SIM_CLOCK_SIGNAL);
    return copy;
}

// A wait in the kernel with the signal open. When the virtual time has passed, `look` says what there is by then.
template <typename wait_t, typename look_t>
static int wait_then_look(int64_t until, const sigset_t *mask, wait_t wait, look_t look)
{
    sigset_t open;
    const sigset_t *used = without_ours(mask, &open);
    int before = errno;
    long ret = clock_during(until, [&] { return (long)wait(used); });
    if (ret >= 0 || !clock_ended(until))
        return (int)ret;
    errno = before;
    return look();
}

static int poll_until(struct pollfd *fds, nfds_t num, int64_t ns, const sigset_t *mask)
{
    struct timespec span = sim_span(ns);
    return wait_then_look(
        whole(clock_after(ns)), mask, [&](const sigset_t *open) { return CALL_NEXT(ppoll)(fds, num, &span, open); },
        [&] { return CALL_NEXT(poll)(fds, num, 0); });
}

extern "C" {
int poll(struct pollfd *fds, nfds_t num, int ms)
{
    return ms <= 0 ? CALL_NEXT(poll)(fds, num, ms) : poll_until(fds, num, ms * 1000000LL, nullptr);
}

int ppoll(struct pollfd *fds, nfds_t num, const struct timespec *limit, const sigset_t *mask)
{
    if (limit == nullptr || !clock_valid(limit) || clock_ns_of(limit) == 0)
        return CALL_NEXT(ppoll)(fds, num, limit, mask);
    return poll_until(fds, num, clock_ns_of(limit), mask);
}

int __poll_chk(struct pollfd *fds, nfds_t num, int ms, size_t size)
{
    if (size / sizeof(*fds) < num)
        __chk_fail();
    return poll(fds, num, ms);
}

int __ppoll_chk(struct pollfd *fds, nfds_t num, const struct timespec *limit, const sigset_t *mask, size_t size)
{
    if (size / sizeof(*fds) < num)
        __chk_fail();
    return ppoll(fds, num, limit, mask);
}

static int select_until(int num, fd_set *sets[3], int64_t ns, int64_t until, const sigset_t *mask)
{
    struct timespec span = sim_span(ns);
    struct timespec none = {};
    auto once = [&](const struct timespec *limit, const sigset_t *open) {
        return CALL_NEXT(pselect)(num, sets[0], sets[1], sets[2], limit, open);
    };
    return wait_then_look(
        until, mask, [&](const sigset_t *open) { return once(&span, open); },
        [&] { return once(&none, nullptr); }); // the sets are unchanged after EINTR
}

int select(int num, fd_set *in, fd_set *out, fd_set *except, struct timeval *limit)
{
    bool odd = limit == nullptr || limit->tv_sec < 0 || limit->tv_usec < 0;
    if (odd || (limit->tv_sec == 0 && limit->tv_usec == 0))
        return CALL_NEXT(select)(num, in, out, except, limit);
    fd_set *sets[3] = {in, out, except};
    int64_t ns = clock_ns(limit->tv_sec + limit->tv_usec / 1000000, limit->tv_usec % 1000000 * 1000);
    int64_t until = clock_after(ns);
    int ret = select_until(num, sets, ns, until, nullptr);
    int64_t left = clock_left(until);
    limit->tv_sec = (time_t)(left / SIM_SECOND);
    limit->tv_usec = (suseconds_t)(left % SIM_SECOND / 1000);
    return ret;
}

int pselect(int num, fd_set *in, fd_set *out, fd_set *except, const struct timespec *limit, const sigset_t *mask)
{
    if (limit == nullptr || !clock_valid(limit) || clock_ns_of(limit) == 0)
        return CALL_NEXT(pselect)(num, in, out, except, limit, mask);
    fd_set *sets[3] = {in, out, except};
    return select_until(num, sets, clock_ns_of(limit), whole(clock_after(clock_ns_of(limit))), mask);
}

int epoll_pwait(int epoll, struct epoll_event *events, int max, int ms, const sigset_t *mask)
{
    if (ms <= 0)
        return CALL_NEXT(epoll_pwait)(epoll, events, max, ms, mask);
    return wait_then_look(
        whole(clock_after(ms * 1000000LL)), mask,
        [&](const sigset_t *open) { return CALL_NEXT(epoll_pwait)(epoll, events, max, ms, open); },
        [&] { return CALL_NEXT(epoll_wait)(epoll, events, max, 0); });
}

int epoll_wait(int epoll, struct epoll_event *events, int max, int ms)
{
    return ms <= 0 ? CALL_NEXT(epoll_wait)(epoll, events, max, ms) : epoll_pwait(epoll, events, max, ms, nullptr);
}

int epoll_pwait2(int epoll, struct epoll_event *events, int max, const struct timespec *limit, const sigset_t *mask)
{
    if (limit == nullptr || !clock_valid(limit) || clock_ns_of(limit) == 0)
        return CALL_NEXT(epoll_pwait2)(epoll, events, max, limit, mask);
    return wait_then_look(
        whole(clock_after(clock_ns_of(limit))), mask,
        [&](const sigset_t *open) { return CALL_NEXT(epoll_pwait2)(epoll, events, max, limit, open); },
        [&] { return CALL_NEXT(epoll_wait)(epoll, events, max, 0); });
}

int sigtimedwait(const sigset_t *set, siginfo_t *info, const struct timespec *limit)
{
    if (limit == nullptr || !clock_valid(limit) || clock_ns_of(limit) == 0)
        return CALL_NEXT(sigtimedwait)(set, info, limit);
    sigset_t asked;
    const sigset_t *used = without_ours(set, &asked);
    int64_t until = clock_after(clock_ns_of(limit));
    long ret = clock_during(until, [&] { return CALL_NEXT(sigtimedwait)(used, info, limit); });
    if (ret >= 0 || !clock_ended(until))
        return (int)ret;
    struct timespec none = {};
    return CALL_NEXT(sigtimedwait)(used, info, &none);
}
}
