// Mutexes and conditions, with the annotations that clang's -Wthread-safety checks.
// A lock operation that fails is a broken invariant and ends the process. A failed initialisation is reported to the
// caller, which unwinds. All conditions use the monotonic clock.
#ifndef ZEB_LOCK_H
#define ZEB_LOCK_H

#include <cerrno>
#include <cstdint>
#include <pthread.h>
#include <time.h>

#undef NDEBUG // assertions stay on in every build: they guard invariants without which the library cannot continue
#include <cassert>

#if defined(__clang__)
#define ZEB_TSA(x) __attribute__((x))
#else
#define ZEB_TSA(x)
#endif
#define ZEB_CAPABILITY ZEB_TSA(capability("mutex"))
#define ZEB_SCOPED_CAPABILITY ZEB_TSA(scoped_lockable)
#define ZEB_GUARDED_BY(m) ZEB_TSA(guarded_by(m))
#define ZEB_REQUIRES(...) ZEB_TSA(requires_capability(__VA_ARGS__))
#define ZEB_ACQUIRE(...) ZEB_TSA(acquire_capability(__VA_ARGS__))
#define ZEB_RELEASE(...) ZEB_TSA(release_capability(__VA_ARGS__))
#define ZEB_NO_THREAD_SAFETY_ANALYSIS ZEB_TSA(no_thread_safety_analysis)

typedef struct ZEB_CAPABILITY zeb_mutex_s {
    pthread_mutex_t impl;
} zeb_mutex_t;

typedef struct zeb_cond_s {
    pthread_cond_t impl;
} zeb_cond_t;

static inline int zeb_mutex_init(zeb_mutex_t *mutex)
{
    return pthread_mutex_init(&mutex->impl, nullptr);
}

static inline void zeb_mutex_destroy(zeb_mutex_t *mutex)
{
    (void)pthread_mutex_destroy(&mutex->impl);
}

static inline void zeb_mutex_lock(zeb_mutex_t *mutex) ZEB_ACQUIRE(mutex) ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    int ret = pthread_mutex_lock(&mutex->impl);
    assert(ret == 0);
}

static inline void zeb_mutex_unlock(zeb_mutex_t *mutex) ZEB_RELEASE(mutex) ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    int ret = pthread_mutex_unlock(&mutex->impl);
    assert(ret == 0);
}

// Holds `mutex` to the end of the scope, or until unlock().
class ZEB_SCOPED_CAPABILITY zeb_scoped_lock
{
  public:
    explicit zeb_scoped_lock(zeb_mutex_t *mutex) ZEB_ACQUIRE(mutex) : mutex_(mutex)
    {
        zeb_mutex_lock(mutex);
    }
    ~zeb_scoped_lock() ZEB_RELEASE() ZEB_NO_THREAD_SAFETY_ANALYSIS
    {
        if (mutex_ != nullptr)
            zeb_mutex_unlock(mutex_);
    }
    void unlock() ZEB_RELEASE() ZEB_NO_THREAD_SAFETY_ANALYSIS
    {
        zeb_mutex_unlock(mutex_);
        mutex_ = nullptr;
    }
    zeb_scoped_lock(const zeb_scoped_lock &) = delete;
    zeb_scoped_lock &operator=(const zeb_scoped_lock &) = delete;

  private:
    zeb_mutex_t *mutex_;
};

// The step at which creating a mutex or a condition failed. Each caller has its own log line for each step.
typedef enum zeb_init_step_e : int {
    ZEB_INIT_STEP_MUTEX = 0,
    ZEB_INIT_STEP_ATTR = 1,
    ZEB_INIT_STEP_CLOCK = 2,
    ZEB_INIT_STEP_COND = 3,
} zeb_init_step_t;

// Creates a condition on the monotonic clock. Returns 0, or the error number after on_fail(step, error); a failed
// attempt leaves nothing behind.
template <typename OnFail>
static inline int zeb_cond_init(zeb_cond_t *cond, OnFail on_fail)
{
    pthread_condattr_t attr;
    int ret = pthread_condattr_init(&attr);
    if (ret != 0) {
        on_fail(ZEB_INIT_STEP_ATTR, ret);
        return ret;
    }
    zeb_init_step_t step = ZEB_INIT_STEP_CLOCK;
    ret = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (ret == 0) {
        step = ZEB_INIT_STEP_COND;
        ret = pthread_cond_init(&cond->impl, &attr);
    }
    if (ret != 0)
        on_fail(step, ret);
    (void)pthread_condattr_destroy(&attr);
    return ret;
}

static inline void zeb_cond_destroy(zeb_cond_t *cond)
{
    (void)pthread_cond_destroy(&cond->impl);
}

// Creates a mutex and the condition that goes with it. False after on_fail(step, error); a failed attempt leaves
// nothing behind.
template <typename OnFail>
static inline bool zeb_mutex_cond_init(zeb_mutex_t *mutex, zeb_cond_t *cond, OnFail on_fail)
{
    int ret = zeb_mutex_init(mutex);
    if (ret != 0) {
        on_fail(ZEB_INIT_STEP_MUTEX, ret);
        return false;
    }
    if (zeb_cond_init(cond, on_fail) == 0)
        return true;
    zeb_mutex_destroy(mutex);
    return false;
}

static inline void zeb_cond_signal(zeb_cond_t *cond)
{
    int ret = pthread_cond_signal(&cond->impl);
    assert(ret == 0);
}

static inline void zeb_cond_broadcast(zeb_cond_t *cond)
{
    int ret = pthread_cond_broadcast(&cond->impl);
    assert(ret == 0);
}

// The monotonic time now plus `seconds`.
static inline struct timespec zeb_deadline_in(unsigned seconds)
{
    struct timespec deadline;
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += (time_t)seconds;
    return deadline;
}

static inline struct timespec zeb_deadline_in_ms(uint32_t milliseconds)
{
    struct timespec deadline = zeb_deadline_in(milliseconds / 1000);
    deadline.tv_nsec += (long)(milliseconds % 1000) * 1000000;
    deadline.tv_sec += deadline.tv_nsec / 1000000000;
    deadline.tv_nsec %= 1000000000;
    return deadline;
}

// The monotonic time now, in nanoseconds.
static inline int64_t zeb_monotonic_ns()
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static inline bool zeb_deadline_passed(const struct timespec *deadline)
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > deadline->tv_sec || (now.tv_sec == deadline->tv_sec && now.tv_nsec >= deadline->tv_nsec);
}

static inline void zeb_cond_wait(zeb_cond_t *cond, zeb_mutex_t *mutex) ZEB_REQUIRES(mutex)
{
    int ret = pthread_cond_wait(&cond->impl, &mutex->impl);
    assert(ret == 0);
}

// Waits until signalled or `deadline`. Returns 0 or ETIMEDOUT; anything else ends the process.
static inline int zeb_cond_wait_until(zeb_cond_t *cond, zeb_mutex_t *mutex, const struct timespec *deadline)
    ZEB_REQUIRES(mutex)
{
    int ret = pthread_cond_timedwait(&cond->impl, &mutex->impl, deadline);
    if (ret != ETIMEDOUT)
        assert(ret == 0);
    return ret;
}

#endif
