// Virtual time: condition variables. The C library's own cannot be left when the virtual clock moves, so these replace
// them, on the same memory: a word that every signal changes, and the number of those who wait. The attributes are
// where the C library's pthread_cond_init has put them; its pthread_cond_destroy finds nobody waiting.
//
// A waiter reads the word, unlocks the mutex, and sleeps while the word is unchanged. A signal that comes in between is
// not lost, because it changes the word.
#include "preload_clock.h"

#include <climits>
#include <cstddef>
#include <pthread.h>
#include <threads.h>

// clang-format off
#define CALLS(X) \
    X(pthread_mutex_lock) X(pthread_mutex_unlock) X(mtx_lock) X(mtx_unlock) X(syscall)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

typedef struct condition_s { // how the C library's record looks
    uint32_t word;
    uint32_t waiters;
    uint32_t others[7];
    uint32_t attributes; // 2: the clock is the monotonic one
} condition_t;

static_assert(offsetof(condition_t, attributes) == 36 && sizeof(condition_t) <= sizeof(pthread_cond_t),
              "the C library's record is another one");

typedef struct waiter_s {
    condition_t *condition;
    pthread_mutex_t *mutex;
    int64_t until;
    bool threads; // of <threads.h>: a sanitizer knows a mutex by the calls that made it
    sim_waiting_t waiting;
    int err; // of the last lock
} waiter_t;

static int lock(const waiter_t *waiter)
{
    return waiter->threads ? CALL_NEXT(mtx_lock)((mtx_t *)waiter->mutex) : CALL_NEXT(pthread_mutex_lock)(waiter->mutex);
}

static int unlock(const waiter_t *waiter)
{
    return waiter->threads ? CALL_NEXT(mtx_unlock)((mtx_t *)waiter->mutex)
                           : CALL_NEXT(pthread_mutex_unlock)(waiter->mutex);
}

static void leave(void *context)
{
    waiter_t *waiter = (waiter_t *)context;
    sim_wait_end(&waiter->waiting);
    (void)sim_add(&waiter->condition->waiters, UINT32_MAX);
    waiter->err = lock(waiter);
}

// One sleep. The futex is a shared one: the condition may be. True when it was woken, or the word had changed.
static bool doze(const waiter_t *waiter, uint32_t seen)
{
    int error = errno;
    struct timespec left = sim_span(waiter->until != SIM_NEVER ? clock_left(waiter->until) : 0);
    int before = 0;
    (void)pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &before);
    long ret = CALL_NEXT(syscall)(SYS_futex, &waiter->condition->word, FUTEX_WAIT, seen,
                                  waiter->until != SIM_NEVER ? &left : nullptr, nullptr, 0);
    (void)pthread_setcanceltype(before, nullptr);
    bool woken = ret == 0 || errno == EAGAIN;
    errno = error;
    return woken;
}

static int sleep_on(waiter_t *waiter, uint32_t seen)
{
    for (;;) {
        if (waiter->until != SIM_NEVER && clock_left(waiter->until) == 0)
            return ETIMEDOUT;
        if (doze(waiter, seen) || sim_load(&waiter->condition->word) != seen)
            return 0;
    }
}

static int wait_on(pthread_cond_t *cond, pthread_mutex_t *mutex, int64_t until, bool threads)
{
    waiter_t waiter = {(condition_t *)cond, mutex, until, threads, {}, 0};
    volatile int ret;
    uint32_t seen = sim_load(&waiter.condition->word);
    (void)sim_add(&waiter.condition->waiters, 1U);
    int err = unlock(&waiter);
    if (err != 0) {
        (void)sim_add(&waiter.condition->waiters, UINT32_MAX);
        return err;
    }
    pthread_cleanup_push(leave, &waiter); // the thread can be cancelled in the wait
    sim_wait_begin(&waiter.waiting, until);
    ret = sleep_on(&waiter, seen);
    pthread_cleanup_pop(1);
    return waiter.err != 0 ? waiter.err : ret;
}

static int wake(pthread_cond_t *cond, int num)
{
    condition_t *condition = (condition_t *)cond;
    if (sim_load(&condition->waiters) == 0) // who comes now has read the word before he was counted, under the mutex
        return 0;
    (void)sim_add(&condition->word, 1U);
    (void)sys_call(SYS_futex, &condition->word, FUTEX_WAKE, num, nullptr, nullptr, 0);
    return 0;
}

static clockid_t clock_of(const pthread_cond_t *cond)
{
    return (((const condition_t *)cond)->attributes & 2) != 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

static int wait_until(pthread_cond_t *cond, pthread_mutex_t *mutex, clockid_t clock, const struct timespec *time)
{
    if (time->tv_nsec < 0 || time->tv_nsec >= SIM_SECOND)
        return EINVAL;
    return wait_on(cond, mutex, time->tv_sec < 0 ? 0 : clock_moment(clock, time), false);
}

extern "C" {
int pthread_cond_wait(pthread_cond_t *__restrict cond, pthread_mutex_t *__restrict mutex)
{
    return wait_on(cond, mutex, SIM_NEVER, false);
}

int pthread_cond_timedwait(pthread_cond_t *__restrict cond, pthread_mutex_t *__restrict mutex,
                           const struct timespec *__restrict time)
{
    return wait_until(cond, mutex, clock_of(cond), time);
}

int pthread_cond_clockwait(pthread_cond_t *__restrict cond, pthread_mutex_t *__restrict mutex, clockid_t clock,
                           const struct timespec *__restrict time)
{
    if (clock != CLOCK_MONOTONIC && clock != CLOCK_REALTIME)
        return EINVAL;
    return wait_until(cond, mutex, clock, time);
}

int pthread_cond_signal(pthread_cond_t *cond)
{
    return wake(cond, 1);
}

int pthread_cond_broadcast(pthread_cond_t *cond)
{
    return wake(cond, INT_MAX);
}

static int thread_result(int err)
{
    return err == 0 ? (int)thrd_success : err == ETIMEDOUT ? (int)thrd_timedout : (int)thrd_error;
}

int cnd_wait(cnd_t *cond, mtx_t *mutex)
{
    return thread_result(wait_on((pthread_cond_t *)cond, (pthread_mutex_t *)mutex, SIM_NEVER, true));
}

int cnd_timedwait(cnd_t *__restrict cond, mtx_t *__restrict mutex, const struct timespec *__restrict time)
{
    if (time->tv_nsec < 0 || time->tv_nsec >= SIM_SECOND)
        return thrd_error;
    int64_t until = time->tv_sec < 0 ? 0 : clock_moment(CLOCK_REALTIME, time);
    return thread_result(wait_on((pthread_cond_t *)cond, (pthread_mutex_t *)mutex, until, true));
}

int cnd_signal(cnd_t *cond)
{
    return thread_result(wake((pthread_cond_t *)cond, 1));
}

int cnd_broadcast(cnd_t *cond)
{
    return thread_result(wake((pthread_cond_t *)cond, INT_MAX));
}
}
