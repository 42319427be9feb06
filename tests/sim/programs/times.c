/* What waits do in a cluster with virtual time: times CASE. An hour of the virtual clock passes in each wait; the
 * kernel's clock has nothing to do with it. Prints what is wrong and exits with 1. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <errno.h>
#include <fcntl.h>
#include <linux/tipc.h>
#include <mqueue.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <threads.h>
#include <time.h>
#include <unistd.h>

#define HOUR 3600
#define NS 1000000000LL
#define CHECK(what)                                                                                                    \
    do {                                                                                                               \
        if (!(what)) {                                                                                                 \
            fprintf(stderr, "%s:%d: not so: %s (errno %s)\n", __FILE__, __LINE__, #what, strerror(errno));             \
            exit(1);                                                                                                   \
        }                                                                                                              \
    } while (0)

static int64_t now_of(clockid_t clock)
{
    struct timespec now;
    CHECK(clock_gettime(clock, &now) == 0);
    return now.tv_sec * NS + now.tv_nsec;
}

static int64_t now(void)
{
    return now_of(CLOCK_MONOTONIC);
}

static int64_t kernel_now(void)
{
    struct timespec time;
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &time);
    return time.tv_sec * NS + time.tv_nsec;
}

static int64_t s_early; /* ns: waits of the simulator's own sockets end up to 1 ms early */

/* The virtual clock goes on as the kernel's does while somebody works, hence the upper bound: half an hour of work. */
static int passed(int64_t since, int64_t seconds)
{
    int64_t ns = now() - since;
    if (ns >= seconds * NS - s_early && ns < (seconds + 1800) * NS)
        return 1;
    fprintf(stderr, "%lld ns have passed, not %lld s\n", (long long)ns, (long long)seconds);
    return 0;
}

#define HOUR_OF(call)                                                                                                  \
    do {                                                                                                               \
        int64_t before = now();                                                                                        \
        CHECK(call);                                                                                                   \
        CHECK(passed(before, HOUR));                                                                                   \
    } while (0)

static struct timespec in_an_hour(clockid_t clock)
{
    struct timespec time;
    CHECK(clock_gettime(clock, &time) == 0);
    time.tv_sec += HOUR;
    return time;
}

static const struct timespec SPAN = {HOUR, 0};

static void sleeps(void)
{
    HOUR_OF(sleep(HOUR) == 0);
    HOUR_OF(usleep(HOUR * 1000000U) == 0);
    HOUR_OF(nanosleep(&SPAN, NULL) == 0);
    HOUR_OF(clock_nanosleep(CLOCK_MONOTONIC, 0, &SPAN, NULL) == 0);
    HOUR_OF(clock_nanosleep(CLOCK_REALTIME, 0, &SPAN, NULL) == 0);
    for (clockid_t clock = CLOCK_REALTIME; clock <= CLOCK_MONOTONIC; clock++) {
        struct timespec until = in_an_hour(clock);
        HOUR_OF(clock_nanosleep(clock, TIMER_ABSTIME, &until, NULL) == 0);
        CHECK(clock_nanosleep(clock, TIMER_ABSTIME, &until, NULL) == 0);
    }
    HOUR_OF(thrd_sleep(&SPAN, NULL) == 0);
    struct timespec odd = {0, 1000000000};
    CHECK(nanosleep(&odd, NULL) == -1 && errno == EINVAL);
}

static void clocks(void)
{
    static const clockid_t CLOCKS[] = {CLOCK_REALTIME,        CLOCK_MONOTONIC,        CLOCK_MONOTONIC_RAW,
                                       CLOCK_REALTIME_COARSE, CLOCK_MONOTONIC_COARSE, CLOCK_BOOTTIME};
    int64_t before[6];
    struct timeval day;
    struct timespec got;
    for (int i = 0; i < 6; i++)
        before[i] = now_of(CLOCKS[i]);
    time_t seconds = time(NULL);
    int64_t cpu = now_of(CLOCK_PROCESS_CPUTIME_ID);
    CHECK(gettimeofday(&day, NULL) == 0 && timespec_get(&got, TIME_UTC) == TIME_UTC);
    CHECK(llabs((long long)(day.tv_sec - seconds)) < 1800 && llabs((long long)(got.tv_sec - seconds)) < 1800);
    CHECK(sleep(HOUR) == 0);
    for (int i = 0; i < 6; i++) {
        int64_t ns = now_of(CLOCKS[i]) - before[i];
        CHECK(ns > (HOUR - 1) * NS && ns < (HOUR + 1800) * NS);
    }
    CHECK(time(NULL) - seconds >= HOUR);
    int64_t until = day.tv_sec + HOUR;
    CHECK(gettimeofday(&day, NULL) == 0 && day.tv_sec >= until && timespec_get(&got, TIME_UTC) == TIME_UTC);
    CHECK(got.tv_sec >= until);
    CHECK(now_of(CLOCK_PROCESS_CPUTIME_ID) - cpu < 1800 * NS);
}

static void descriptors(void)
{
    int pipes[2];
    CHECK(pipe(pipes) == 0);
    struct pollfd one = {pipes[0], POLLIN, 0};
    struct timeval left = {HOUR, 5};
    struct epoll_event event = {.events = EPOLLIN};
    sigset_t all;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(pipes[0], &set);
    sigfillset(&all);
    int epoll = epoll_create1(0);
    CHECK(epoll >= 0 && epoll_ctl(epoll, EPOLL_CTL_ADD, pipes[0], &event) == 0);
    HOUR_OF(poll(&one, 1, HOUR * 1000) == 0);
    HOUR_OF(poll(NULL, 0, HOUR * 1000) == 0);
    HOUR_OF(ppoll(&one, 1, &SPAN, &all) == 0);
    HOUR_OF(select(pipes[0] + 1, &set, NULL, NULL, &left) == 0);
    CHECK(left.tv_sec == 0 && left.tv_usec == 0 && !FD_ISSET(pipes[0], &set));
    FD_SET(pipes[0], &set);
    HOUR_OF(pselect(pipes[0] + 1, &set, NULL, NULL, &SPAN, &all) == 0 && !FD_ISSET(pipes[0], &set));
    HOUR_OF(epoll_wait(epoll, &event, 1, HOUR * 1000) == 0);
    HOUR_OF(epoll_pwait(epoll, &event, 1, HOUR * 1000, &all) == 0);
    HOUR_OF(epoll_pwait2(epoll, &event, 1, &SPAN, &all) == 0);
    CHECK(write(pipes[1], "x", 1) == 1);
    int64_t before = now();
    CHECK(poll(&one, 1, HOUR * 1000) == 1 && epoll_wait(epoll, &event, 1, HOUR * 1000) == 1);
    CHECK(passed(before, 0));
}

static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;

static void conditions(void)
{
    static pthread_cond_t first = PTHREAD_COND_INITIALIZER;
    pthread_cond_t second;
    pthread_condattr_t attributes;
    cnd_t third;
    mtx_t mutex;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    CHECK(pthread_cond_init(&second, &attributes) == 0);
    CHECK(mtx_init(&mutex, mtx_plain) == thrd_success && cnd_init(&third) == thrd_success);
    CHECK(pthread_mutex_lock(&s_mutex) == 0 && mtx_lock(&mutex) == thrd_success);
    struct timespec until = in_an_hour(CLOCK_REALTIME);
    HOUR_OF(pthread_cond_timedwait(&first, &s_mutex, &until) == ETIMEDOUT);
    CHECK(pthread_cond_timedwait(&first, &s_mutex, &until) == ETIMEDOUT);
    until = in_an_hour(CLOCK_MONOTONIC);
    HOUR_OF(pthread_cond_timedwait(&second, &s_mutex, &until) == ETIMEDOUT);
    until = in_an_hour(CLOCK_MONOTONIC);
    HOUR_OF(pthread_cond_clockwait(&first, &s_mutex, CLOCK_MONOTONIC, &until) == ETIMEDOUT);
    until = in_an_hour(CLOCK_REALTIME);
    HOUR_OF(cnd_timedwait(&third, &mutex, &until) == thrd_timedout);
    CHECK(pthread_mutex_unlock(&s_mutex) == 0 && mtx_unlock(&mutex) == thrd_success);
    CHECK(pthread_cond_destroy(&first) == 0 && pthread_cond_destroy(&second) == 0);
    cnd_destroy(&third);
}

typedef struct {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    int turn;
    int rounds;
} game_t;

static void play(game_t *game, int me)
{
    CHECK(pthread_mutex_lock(&game->mutex) == 0);
    while (game->rounds < 2000) {
        if (game->turn != me) {
            struct timespec until = in_an_hour(CLOCK_REALTIME);
            until.tv_sec += 100 * HOUR;
            int ret = game->rounds % 2 ? pthread_cond_wait(&game->cond, &game->mutex)
                                       : pthread_cond_timedwait(&game->cond, &game->mutex, &until);
            CHECK(ret == 0);
            continue;
        }
        game->turn = !me;
        game->rounds++;
        CHECK((game->rounds % 3 ? pthread_cond_signal : pthread_cond_broadcast)(&game->cond) == 0);
    }
    CHECK(pthread_mutex_unlock(&game->mutex) == 0);
}

static void *play_other(void *game)
{
    play(game, 1);
    return NULL;
}

static void begin_game(game_t *game, int shared)
{
    pthread_mutexattr_t mutex;
    pthread_condattr_t cond;
    pthread_mutexattr_init(&mutex);
    pthread_condattr_init(&cond);
    pthread_mutexattr_setpshared(&mutex, shared);
    pthread_condattr_setpshared(&cond, shared);
    CHECK(pthread_mutex_init(&game->mutex, &mutex) == 0 && pthread_cond_init(&game->cond, &cond) == 0);
}

/* Two threads, then two processes, wake each other: no signal is lost, so the clock stays. */
static void signals_of_conditions(void)
{
    game_t *game = mmap(NULL, sizeof(*game), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    pthread_t thread;
    int status;
    int64_t before = now();
    begin_game(game, PTHREAD_PROCESS_PRIVATE);
    CHECK(pthread_create(&thread, NULL, play_other, game) == 0);
    play(game, 0);
    CHECK(pthread_join(thread, NULL) == 0);
    memset(game, 0, sizeof(*game));
    begin_game(game, PTHREAD_PROCESS_SHARED);
    pid_t child = fork();
    play(game, child == 0);
    if (child == 0)
        _exit(0);
    CHECK(waitpid(child, &status, 0) == child && status == 0);
    CHECK(passed(before, 0));
}

static int s_cleaned;

static void clean(void *unused)
{
    (void)unused;
    s_cleaned = pthread_mutex_unlock(&s_mutex) == 0; /* the mutex is ours again */
}

static void *wait_to_be_cancelled(void *cond)
{
    struct timespec until = in_an_hour(CLOCK_REALTIME);
    until.tv_sec += 100 * HOUR;
    CHECK(pthread_mutex_lock(&s_mutex) == 0);
    pthread_cleanup_push(clean, NULL);
    while (pthread_cond_timedwait(cond, &s_mutex, &until) == 0)
        continue;
    pthread_cleanup_pop(0);
    return NULL;
}

static void cancelled(void)
{
    static pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    static pthread_mutexattr_t checked;
    pthread_t thread;
    void *result;
    pthread_mutexattr_init(&checked);
    pthread_mutexattr_settype(&checked, PTHREAD_MUTEX_ERRORCHECK);
    CHECK(pthread_mutex_init(&s_mutex, &checked) == 0);
    CHECK(pthread_create(&thread, NULL, wait_to_be_cancelled, &cond) == 0);
    HOUR_OF(sleep(HOUR) == 0);
    CHECK(pthread_cancel(thread) == 0 && pthread_join(thread, &result) == 0 && result == PTHREAD_CANCELED);
    CHECK(s_cleaned && pthread_mutex_trylock(&s_mutex) == 0 && pthread_mutex_unlock(&s_mutex) == 0);
    HOUR_OF(sleep(HOUR) == 0); /* what the thread has left does not hold the clock up */
}

static void *sleep_long(void *unused)
{
    sleep(10 * HOUR);
    return unused;
}

static void *hold_locks(void *lock)
{
    CHECK(pthread_mutex_lock(&s_mutex) == 0 && pthread_rwlock_wrlock(lock) == 0);
    sleep(10 * HOUR);
    CHECK(pthread_mutex_unlock(&s_mutex) == 0 && pthread_rwlock_unlock(lock) == 0);
    return NULL;
}

static void semaphores(void)
{
    sem_t sem;
    CHECK(sem_init(&sem, 0, 0) == 0);
    struct timespec until = in_an_hour(CLOCK_REALTIME);
    HOUR_OF(sem_timedwait(&sem, &until) == -1 && errno == ETIMEDOUT);
    until = in_an_hour(CLOCK_MONOTONIC);
    HOUR_OF(sem_clockwait(&sem, CLOCK_MONOTONIC, &until) == -1 && errno == ETIMEDOUT);
    CHECK(sem_post(&sem) == 0 && sem_timedwait(&sem, &until) == 0);

    sigset_t set;
    siginfo_t info;
    sigfillset(&set);
    HOUR_OF(sigtimedwait(&set, &info, &SPAN) == -1 && errno == EAGAIN);

    int private = semget(IPC_PRIVATE, 1, 0600);
    struct sembuf take = {0, -1, 0};
    CHECK(private >= 0);
    HOUR_OF(semtimedop(private, &take, 1, &SPAN) == -1 && errno == EAGAIN);
    semctl(private, 0, IPC_RMID);

    char name[40];
    char data[8];
    struct mq_attr attributes = {.mq_maxmsg = 1, .mq_msgsize = 8};
    snprintf(name, sizeof(name), "/tipcsim-times-%d", getpid());
    mqd_t queue = mq_open(name, O_RDWR | O_CREAT | O_EXCL, 0600, &attributes);
    if (queue == (mqd_t)-1) /* a kernel without them */
        return;
    mq_unlink(name);
    until = in_an_hour(CLOCK_REALTIME);
    HOUR_OF(mq_timedreceive(queue, data, 8, NULL, &until) == -1 && errno == ETIMEDOUT);
    until = in_an_hour(CLOCK_REALTIME);
    CHECK(mq_timedsend(queue, "one", 3, 0, &until) == 0);
    HOUR_OF(mq_timedsend(queue, "two", 3, 0, &until) == -1 && errno == ETIMEDOUT);
}

static void locks(void)
{
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    pthread_t holder;
    pthread_t sleeper;
    CHECK(pthread_create(&holder, NULL, hold_locks, &lock) == 0);
    CHECK(pthread_create(&sleeper, NULL, sleep_long, NULL) == 0);
    CHECK(sleep(1) == 0); /* the holder has both */
    struct timespec until = in_an_hour(CLOCK_REALTIME);
    HOUR_OF(pthread_mutex_timedlock(&s_mutex, &until) == ETIMEDOUT);
    until = in_an_hour(CLOCK_MONOTONIC);
    HOUR_OF(pthread_mutex_clocklock(&s_mutex, CLOCK_MONOTONIC, &until) == ETIMEDOUT);
    until = in_an_hour(CLOCK_REALTIME);
    HOUR_OF(pthread_rwlock_timedrdlock(&lock, &until) == ETIMEDOUT);
    until = in_an_hour(CLOCK_REALTIME);
    HOUR_OF(pthread_rwlock_timedwrlock(&lock, &until) == ETIMEDOUT);
    until = in_an_hour(CLOCK_REALTIME);
    HOUR_OF(pthread_timedjoin_np(sleeper, NULL, &until) == ETIMEDOUT);
    CHECK(pthread_join(holder, NULL) == 0 && pthread_join(sleeper, NULL) == 0);
}

static volatile sig_atomic_t s_signals;
static pthread_t s_main;

static void count(int signal)
{
    (void)signal;
    s_signals++;
}

static void *interrupt(void *times)
{
    for (intptr_t i = 0; i < (intptr_t)times; i++) {
        sleep(60);
        CHECK(pthread_kill(s_main, SIGUSR1) == 0);
    }
    return NULL;
}

static void interruptions(void)
{
    struct sigaction action = {.sa_handler = count};
    struct timespec rest;
    struct timespec until = in_an_hour(CLOCK_REALTIME);
    sem_t sem;
    pthread_t thread;
    int epoll = epoll_create1(0);
    struct epoll_event event;
    until.tv_sec += 10 * HOUR;
    s_main = pthread_self();
    CHECK(sigaction(SIGUSR1, &action, NULL) == 0 && sem_init(&sem, 0, 0) == 0);
    int64_t before = now();
    CHECK(pthread_create(&thread, NULL, interrupt, (void *)5) == 0);
    CHECK(poll(NULL, 0, HOUR * 1000) == -1 && errno == EINTR && s_signals == 1);
    CHECK(nanosleep(&SPAN, &rest) == -1 && errno == EINTR && s_signals == 2);
    CHECK(rest.tv_sec > 1700 && rest.tv_sec <= HOUR - 60);
    CHECK(epoll_wait(epoll, &event, 1, HOUR * 1000) == -1 && errno == EINTR && s_signals == 3);
    CHECK(sem_timedwait(&sem, &until) == -1 && errno == EINTR && s_signals == 4);
    CHECK(sleep(HOUR) > 1700 && s_signals == 5);
    CHECK(passed(before, 300));
    CHECK(pthread_join(thread, NULL) == 0);
    /* A program that blocks all signals, and sets all of them to their defaults, still wakes up. */
    sigset_t all;
    sigset_t old;
    for (int number = 1; number < NSIG; number++)
        signal(number, SIG_DFL);
    sigfillset(&all);
    CHECK(pthread_sigmask(SIG_SETMASK, &all, NULL) == 0);
    HOUR_OF(sleep(HOUR) == 0);
    CHECK(pthread_sigmask(SIG_SETMASK, NULL, &old) == 0);
    CHECK(sigpending(&all) == 0 && sigisemptyset(&all) && sigismember(&old, 62) == 1);
}

typedef struct {
    int num;
    int64_t times[256];
    int who[256];
} order_t;

static void take_turns(order_t *order, int me)
{
    struct timespec until = {order->times[255] / NS + 1000 + me, 0};
    for (int i = 0; i < 50; i++, until.tv_sec += 2) {
        CHECK(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, NULL) == 0);
        int at = __atomic_fetch_add(&order->num, 1, __ATOMIC_SEQ_CST);
        order->who[at] = me;
        order->times[at] = now();
    }
}

/* Two processes sleep until odd and even seconds: the clock stops at each. */
static void in_order(void)
{
    order_t *order = mmap(NULL, sizeof(*order), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int status;
    order->times[255] = now();
    pid_t child = fork();
    take_turns(order, child == 0);
    if (child == 0)
        _exit(0);
    CHECK(waitpid(child, &status, 0) == child && status == 0 && order->num == 100);
    for (int i = 0; i < 100; i++) {
        int64_t late = order->times[i] - (order->times[255] / NS + 1000 + i) * NS;
        CHECK(order->who[i] == i % 2 && late >= 0 && late < NS);
    }
}

static void *compute(void *jumped)
{
    int64_t ahead = now() - kernel_now();
    volatile unsigned sum = 0;
    for (unsigned i = 0; i < 200000000; i++)
        sum = sum + i;
    __atomic_store_n((int *)jumped, now() - kernel_now() - ahead > NS / 10, __ATOMIC_SEQ_CST);
    return NULL;
}

/* The clock stays while a thread computes, though all others wait. */
static void computing(void)
{
    pthread_t thread;
    int jumped = -1;
    CHECK(sleep(HOUR) == 0 && pthread_create(&thread, NULL, compute, &jumped) == 0);
    while (__atomic_load_n(&jumped, __ATOMIC_SEQ_CST) == -1)
        CHECK(sleep(HOUR) == 0);
    CHECK(jumped == 0 && pthread_join(thread, NULL) == 0);
}

static uint64_t ticks_of(int fd)
{
    uint64_t ticks = 0;
    ssize_t len = read(fd, &ticks, sizeof(ticks));
    CHECK(len == sizeof(ticks) || errno == EAGAIN);
    return ticks;
}

static void descriptor_timers(void)
{
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
    int wall = timerfd_create(CLOCK_REALTIME, 0);
    struct itimerspec minute = {{60, 0}, {60, 0}};
    struct pollfd one = {fd, POLLIN, 0};
    uint64_t ticks = 0;
    CHECK(fd >= 0 && wall >= 0 && timerfd_settime(fd, 0, &minute, NULL) == 0);
    struct itimerspec once = {{0, 0}, in_an_hour(CLOCK_REALTIME)};
    HOUR_OF(timerfd_settime(wall, TFD_TIMER_ABSTIME, &once, NULL) == 0 && ticks_of(wall) == 1);
    CHECK(ticks_of(fd) == 60); /* that nobody has read meanwhile */
    int64_t before = now();
    for (ticks = 0; ticks < 60;) {
        CHECK(poll(&one, 1, -1) == 1);
        ticks += ticks_of(fd);
    }
    CHECK(passed(before, HOUR - 61));
    before = now();
    int copy = dup(fd);
    pid_t child = fork(); /* has all of them, too */
    if (child == 0) {
        sleep(10 * HOUR);
        _exit(0);
    }
    close(fd);
    one.fd = copy;
    for (ticks = 0; ticks < 60;) {
        CHECK(poll(&one, 1, -1) == 1);
        ticks += ticks_of(copy);
    }
    CHECK(passed(before, HOUR - 61) && now() - before < (HOUR + 120) * NS);
    CHECK(timerfd_gettime(copy, &once) == 0 && once.it_value.tv_sec < 60 && once.it_interval.tv_sec == 60);
    kill(child, SIGKILL);
    CHECK(waitpid(child, NULL, 0) == child);
}

static void alarms(void)
{
    struct sigaction action = {.sa_handler = count};
    struct itimerval minute = {{60, 0}, {60, 0}};
    struct itimerval none = {{0, 0}, {0, 0}};
    struct itimerval left;
    CHECK(sigaction(SIGALRM, &action, NULL) == 0);
    CHECK(alarm(HOUR) == 0);
    HOUR_OF(pause() == -1 && errno == EINTR && s_signals == 1);
    CHECK(alarm(100) == 0 && alarm(0) == 100);
    CHECK(sleep(200) == 0 && s_signals == 1);
    s_signals = 0;
    int64_t before = now();
    CHECK(setitimer(ITIMER_REAL, &minute, NULL) == 0);
    while (now() - before < (HOUR + 30) * NS)
        (void)pause();
    CHECK(s_signals == 61 && passed(before, HOUR + 30));
    CHECK(getitimer(ITIMER_REAL, &left) == 0 && left.it_interval.tv_sec == 60 && left.it_value.tv_sec < 60);
    CHECK(setitimer(ITIMER_REAL, &none, NULL) == 0 && sleep(HOUR) == 0 && s_signals == 61);
}

static void posix_timers(void)
{
    struct sigevent event = {.sigev_notify = SIGEV_SIGNAL, .sigev_signo = SIGRTMIN + 3, .sigev_value.sival_int = 77};
    struct itimerspec minute = {{60, 0}, {60, 0}};
    struct itimerspec at = {{0, 0}, in_an_hour(CLOCK_REALTIME)};
    siginfo_t info;
    sigset_t set;
    timer_t timer;
    sigemptyset(&set);
    sigaddset(&set, SIGRTMIN + 3);
    CHECK(sigprocmask(SIG_BLOCK, &set, NULL) == 0);
    CHECK(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0 && timer_settime(timer, 0, &minute, NULL) == 0);
    int64_t before = now();
    for (int i = 0; i < 60; i++) {
        CHECK(sigwaitinfo(&set, &info) == SIGRTMIN + 3 && info.si_code == SI_TIMER && info.si_value.sival_int == 77);
        CHECK(info.si_overrun == 0 && timer_getoverrun(timer) == 0);
    }
    CHECK(passed(before, HOUR) && timer_gettime(timer, &at) == 0 && at.it_value.tv_sec < 60);
    CHECK(timer_delete(timer) == 0 && timer_settime(timer, 0, &minute, NULL) == -1 && errno == EINVAL);
    event.sigev_notify = SIGEV_THREAD_ID;
    event._sigev_un._tid = (pid_t)syscall(SYS_gettid);
    at = (struct itimerspec){{0, 0}, in_an_hour(CLOCK_REALTIME)};
    CHECK(timer_create(CLOCK_REALTIME, &event, &timer) == 0);
    CHECK(timer_settime(timer, TIMER_ABSTIME, &at, NULL) == 0);
    HOUR_OF(sigwaitinfo(&set, &info) == SIGRTMIN + 3);
    CHECK(timer_delete(timer) == 0);
    event.sigev_notify = SIGEV_THREAD;
    CHECK(timer_create(CLOCK_MONOTONIC, &event, &timer) == -1 && errno == EOPNOTSUPP);
}

static void host_sockets(void)
{
    struct timeval limit = {HOUR, 0};
    int ends[2];
    char data[4096] = {0};
    CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    CHECK(setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0);
    CHECK(setsockopt(ends[0], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) == 0);
    HOUR_OF(recv(ends[0], data, sizeof(data), 0) == -1 && errno == EAGAIN);
    HOUR_OF(read(ends[0], data, sizeof(data)) == -1 && errno == EAGAIN);
    while (send(ends[0], data, sizeof(data), MSG_DONTWAIT) > 0)
        continue;
    HOUR_OF(send(ends[0], data, sizeof(data), 0) == -1 && errno == EAGAIN);
    HOUR_OF(write(ends[0], data, sizeof(data)) == -1 && errno == EAGAIN);
    CHECK(send(ends[1], "x", 1, 0) == 1 && recv(ends[0], data, sizeof(data), 0) == 1);
}

/* On a node: sockets of the simulator, with and without other descriptors. */
static void sockets(void)
{
    int fd = socket(AF_TIPC, SOCK_RDM, 0);
    int listener = socket(AF_TIPC, SOCK_STREAM, 0);
    struct timeval limit = {HOUR, 0};
    struct sockaddr_tipc name = {.family = AF_TIPC, .addrtype = TIPC_ADDR_NAME, .scope = TIPC_CLUSTER_SCOPE};
    struct epoll_event event = {.events = EPOLLIN};
    char data[10];
    fd_set set;
    s_early = 1000000;
    CHECK(fd >= 0 && listener >= 0);
    CHECK(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0);
    HOUR_OF(recv(fd, data, sizeof(data), 0) == -1 && errno == EAGAIN);
    name.addr.name.name.type = 40000;
    CHECK(bind(listener, (struct sockaddr *)&name, sizeof(name)) == 0 && listen(listener, 5) == 0);
    CHECK(setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0);
    HOUR_OF(accept(listener, NULL, NULL) == -1 && errno == EAGAIN);
    struct pollfd both[2] = {{fd, POLLIN, 0}, {listener, POLLIN, 0}};
    HOUR_OF(poll(both, 2, HOUR * 1000) == 0);
    FD_ZERO(&set);
    FD_SET(fd, &set);
    HOUR_OF(select(fd + 1, &set, NULL, NULL, &limit) == 0);
    int epoll = epoll_create1(0);
    CHECK(epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0);
    HOUR_OF(epoll_wait(epoll, &event, 1, HOUR * 1000) == 0);

    /* A connection that takes no more: these waits look again and again. */
    int from = socket(AF_TIPC, SOCK_STREAM | SOCK_NONBLOCK, 0);
    CHECK(connect(from, (struct sockaddr *)&name, sizeof(name)) == -1 && errno == EINPROGRESS);
    CHECK(accept(listener, NULL, NULL) >= 0 && fcntl(from, F_SETFL, 0) == 0);
    limit.tv_sec = HOUR;
    CHECK(setsockopt(from, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) == 0);
    static char block[60000];
    while (send(from, block, sizeof(block), MSG_DONTWAIT) > 0)
        continue;
    CHECK(errno == EAGAIN);
    HOUR_OF(send(from, block, sizeof(block), 0) == -1 && errno == EAGAIN);
    struct pollfd out[2] = {{from, POLLOUT, 0}, {fd, POLLIN, 0}};
    HOUR_OF(poll(out, 1, HOUR * 1000) == 0);
    HOUR_OF(poll(out, 2, HOUR * 1000) == 0);
    event.events = EPOLLOUT;
    CHECK(epoll_ctl(epoll, EPOLL_CTL_ADD, from, &event) == 0);
    HOUR_OF(epoll_wait(epoll, &event, 1, HOUR * 1000) == 0);
}

/* What runs without virtual time sees the kernel's clock and its own condition variables. */
static void plain(void)
{
    int64_t before = kernel_now();
    int64_t seen = now();
    CHECK(seen >= before && seen <= kernel_now());
    CHECK(getenv("TIPCSIM_CLOCK") == NULL);
    CHECK(getenv("LD_PRELOAD") == NULL || strstr(getenv("LD_PRELOAD"), "clock") == NULL);
}

int main(int argc, char **argv)
{
    static const struct {
        const char *name;
        void (*run)(void);
    } CASES[] = {{"sleeps", sleeps},
                 {"clocks", clocks},
                 {"descriptors", descriptors},
                 {"conditions", conditions},
                 {"signals_of_conditions", signals_of_conditions},
                 {"cancelled", cancelled},
                 {"semaphores", semaphores},
                 {"locks", locks},
                 {"interruptions", interruptions},
                 {"in_order", in_order},
                 {"computing", computing},
                 {"descriptor_timers", descriptor_timers},
                 {"alarms", alarms},
                 {"posix_timers", posix_timers},
                 {"host_sockets", host_sockets},
                 {"sockets", sockets},
                 {"plain", plain}};
    for (size_t i = 0; argc == 2 && i < sizeof(CASES) / sizeof(*CASES); i++) {
        if (strcmp(argv[1], CASES[i].name) != 0)
            continue;
        CASES[i].run();
        return 0;
    }
    fprintf(stderr, "times CASE\n");
    return 2;
}
