// Virtual time: semaphores, message queues, and locks with a time limit.
#include "preload_clock.h"

#include <cstdarg>
#include <mqueue.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/sem.h>
#include <threads.h>

// clang-format off
#define CALLS(X) \
    X(sem_timedwait) X(sem_clockwait) X(sem_trywait) X(mq_timedreceive) X(mq_timedsend) X(semtimedop) \
    X(pthread_mutex_timedlock) X(pthread_mutex_clocklock) X(pthread_rwlock_timedrdlock) \
    X(pthread_rwlock_timedwrlock) X(pthread_rwlock_clockrdlock) X(pthread_rwlock_clockwrlock) \
    X(pthread_timedjoin_np) X(pthread_clockjoin_np) X(mtx_timedlock) X(syscall)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

// The C library goes on with these after a signal, so they wait for short times, until the virtual one has passed.
constexpr int64_t SLICE = 5000000; // ns

template <typename lock_t>
static int lock_until(int64_t until, int timed_out, lock_t lock)
{
    for (;;) {
        int64_t left = clock_left(until);
        struct timespec at = sim_span(clock_native(CLOCK_REALTIME) + (left < SLICE ? left : SLICE));
        int ret = (int)clock_during(until, [&] { return (long)lock(&at); });
        if (ret != timed_out || left == 0)
            return ret;
    }
}

static int64_t moment(clockid_t clock, const struct timespec *time)
{
    return time->tv_sec < 0 ? 0 : clock_moment(clock, time);
}

static bool odd(clockid_t clock, const struct timespec *time)
{
    return time->tv_nsec < 0 || time->tv_nsec >= SIM_SECOND || !clock_is_virtual(clock);
}

static int wait_for(sem_t *sem, clockid_t clock, const struct timespec *time)
{
    if (CALL_NEXT(sem_trywait)(sem) == 0)
        return 0;
    if (odd(clock, time))
        return clock_fail(EINVAL);
    int64_t until = moment(clock, time);
    while (clock_left(until) != 0) {
        struct timespec at = clock_native_time(CLOCK_REALTIME, until);
        if (clock_during(until, [&] { return CALL_NEXT(sem_timedwait)(sem, &at); }) == 0)
            return 0;
        if (errno != ETIMEDOUT && clock_left(until) != 0)
            return -1;
    }
    return CALL_NEXT(sem_trywait)(sem) == 0 ? 0 : clock_fail(ETIMEDOUT);
}

typedef struct futex_s { // the arguments of the system call
    void *word;
    int op;
    uint32_t value;
    const struct timespec *time;
    void *other;
    uint32_t mask;
} futex_t;

// A wait with a limit is how libraries build what the C library does not have, as std::future::wait_for.
static bool is_timed(const futex_t *futex)
{
    int op = futex->op & FUTEX_CMD_MASK;
    return (op == FUTEX_WAIT || op == FUTEX_WAIT_BITSET) && futex->time != nullptr && clock_valid(futex->time);
}

static long wait_for_futex(const futex_t *futex)
{
    bool absolute = (futex->op & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET;
    clockid_t clock = (futex->op & FUTEX_CLOCK_REALTIME) != 0 ? CLOCK_REALTIME : CLOCK_MONOTONIC;
    int64_t until = absolute ? clock_moment(clock, futex->time) : clock_after(clock_ns_of(futex->time));
    struct timespec time = absolute ? clock_native_time(clock, until) : sim_span(clock_left(until));
    long ret = clock_during(until, [&] {
        return CALL_NEXT(syscall)(SYS_futex, futex->word, futex->op, futex->value, &time, futex->other, futex->mask);
    });
    return ret < 0 && clock_ended(until) ? clock_fail(ETIMEDOUT) : ret;
}

extern "C" {
long syscall(long number, ...) noexcept
{
    long a[6];
    va_list args;
    va_start(args, number);
    for (long &argument : a)
        argument = va_arg(args, long);
    va_end(args);
    futex_t futex = {(void *)a[0], (int)a[1],     (uint32_t)a[2], (const struct timespec *)a[3],
                     (void *)a[4], (uint32_t)a[5]};
    if (number == SYS_futex && is_timed(&futex))
        return wait_for_futex(&futex);
    return CALL_NEXT(syscall)(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

int sem_timedwait(sem_t *__restrict sem, const struct timespec *__restrict time)
{
    return wait_for(sem, CLOCK_REALTIME, time);
}

int sem_clockwait(sem_t *__restrict sem, clockid_t clock, const struct timespec *__restrict time)
{
    if (clock != CLOCK_MONOTONIC && clock != CLOCK_REALTIME)
        return clock_fail(EINVAL);
    return wait_for(sem, clock, time);
}

ssize_t mq_timedreceive(mqd_t queue, char *__restrict data, size_t size, unsigned *__restrict priority,
                        const struct timespec *__restrict time)
{
    if (odd(CLOCK_REALTIME, time))
        return CALL_NEXT(mq_timedreceive)(queue, data, size, priority, time);
    int64_t until = moment(CLOCK_REALTIME, time);
    struct timespec at = clock_native_time(CLOCK_REALTIME, until);
    ssize_t ret = clock_during(until, [&] { return CALL_NEXT(mq_timedreceive)(queue, data, size, priority, &at); });
    if (ret >= 0 || !clock_ended(until))
        return ret;
    at = {};
    return CALL_NEXT(mq_timedreceive)(queue, data, size, priority, &at);
}

int mq_timedsend(mqd_t queue, const char *data, size_t size, unsigned priority, const struct timespec *time)
{
    if (odd(CLOCK_REALTIME, time))
        return CALL_NEXT(mq_timedsend)(queue, data, size, priority, time);
    int64_t until = moment(CLOCK_REALTIME, time);
    struct timespec at = clock_native_time(CLOCK_REALTIME, until);
    long ret = clock_during(until, [&] { return CALL_NEXT(mq_timedsend)(queue, data, size, priority, &at); });
    if (ret >= 0 || !clock_ended(until))
        return (int)ret;
    at = {};
    return CALL_NEXT(mq_timedsend)(queue, data, size, priority, &at);
}

int semtimedop(int set, struct sembuf *ops, size_t num, const struct timespec *limit)
{
    if (limit == nullptr || !clock_valid(limit))
        return CALL_NEXT(semtimedop)(set, ops, num, limit);
    int64_t until = clock_after(clock_ns_of(limit));
    long ret = clock_during(until, [&] { return CALL_NEXT(semtimedop)(set, ops, num, limit); });
    return ret < 0 && clock_ended(until) ? clock_fail(EAGAIN) : (int)ret;
}

int pthread_mutex_timedlock(pthread_mutex_t *__restrict mutex, const struct timespec *__restrict time)
{
    if (odd(CLOCK_REALTIME, time))
        return CALL_NEXT(pthread_mutex_timedlock)(mutex, time);
    return lock_until(moment(CLOCK_REALTIME, time), ETIMEDOUT,
                      [=](const struct timespec *at) { return CALL_NEXT(pthread_mutex_timedlock)(mutex, at); });
}

int pthread_mutex_clocklock(pthread_mutex_t *__restrict mutex, clockid_t clock, const struct timespec *__restrict time)
{
    if (odd(clock, time))
        return CALL_NEXT(pthread_mutex_clocklock)(mutex, clock, time);
    return lock_until(moment(clock, time), ETIMEDOUT,
                      [=](const struct timespec *at) { return CALL_NEXT(pthread_mutex_timedlock)(mutex, at); });
}

int pthread_rwlock_timedrdlock(pthread_rwlock_t *__restrict lock, const struct timespec *__restrict time)
{
    if (odd(CLOCK_REALTIME, time))
        return CALL_NEXT(pthread_rwlock_timedrdlock)(lock, time);
    return lock_until(moment(CLOCK_REALTIME, time), ETIMEDOUT,
                      [=](const struct timespec *at) { return CALL_NEXT(pthread_rwlock_timedrdlock)(lock, at); });
}

int pthread_rwlock_timedwrlock(pthread_rwlock_t *__restrict lock, const struct timespec *__restrict time)
{
    if (odd(CLOCK_REALTIME, time))
        return CALL_NEXT(pthread_rwlock_timedwrlock)(lock, time);
    return lock_until(moment(CLOCK_REALTIME, time), ETIMEDOUT,
                      [=](const struct timespec *at) { return CALL_NEXT(pthread_rwlock_timedwrlock)(lock, at); });
}

int pthread_rwlock_clockrdlock(pthread_rwlock_t *__restrict lock, clockid_t clock,
                               const struct timespec *__restrict time)
{
    if (odd(clock, time))
        return CALL_NEXT(pthread_rwlock_clockrdlock)(lock, clock, time);
    return lock_until(moment(clock, time), ETIMEDOUT,
                      [=](const struct timespec *at) { return CALL_NEXT(pthread_rwlock_timedrdlock)(lock, at); });
}

int pthread_rwlock_clockwrlock(pthread_rwlock_t *__restrict lock, clockid_t clock,
                               const struct timespec *__restrict time)
{
    if (odd(clock, time))
        return CALL_NEXT(pthread_rwlock_clockwrlock)(lock, clock, time);
    return lock_until(moment(clock, time), ETIMEDOUT,
                      [=](const struct timespec *at) { return CALL_NEXT(pthread_rwlock_timedwrlock)(lock, at); });
}

int pthread_timedjoin_np(pthread_t thread, void **result, const struct timespec *time)
{
    if (time == nullptr || odd(CLOCK_REALTIME, time))
        return CALL_NEXT(pthread_timedjoin_np)(thread, result, time);
    return lock_until(moment(CLOCK_REALTIME, time), ETIMEDOUT,
                      [=](const struct timespec *at) { return CALL_NEXT(pthread_timedjoin_np)(thread, result, at); });
}

int pthread_clockjoin_np(pthread_t thread, void **result, clockid_t clock, const struct timespec *time)
{
    if (time == nullptr || odd(clock, time))
        return CALL_NEXT(pthread_clockjoin_np)(thread, result, clock, time);
    return lock_until(moment(clock, time), ETIMEDOUT,
                      [=](const struct timespec *at) { return CALL_NEXT(pthread_timedjoin_np)(thread, result, at); });
}

int mtx_timedlock(mtx_t *__restrict mutex, const struct timespec *__restrict time)
{
    if (odd(CLOCK_REALTIME, time))
        return CALL_NEXT(mtx_timedlock)(mutex, time);
    return lock_until(moment(CLOCK_REALTIME, time), (int)thrd_timedout,
                      [=](const struct timespec *at) { return CALL_NEXT(mtx_timedlock)(mutex, at); });
}
}
