// poll and select, on TIPC sockets and other descriptors in one wait.
//
// What a TIPC socket reports is computed from its record. The kernel waits for the others, and for the TIPC sockets'
// descriptors to become readable: they do at every change, also when a connection becomes writable. A readable one
// without a computed event is made unreadable, and the wait goes on with the time that is left.
//
// Two waits for one socket disturb each other when only one of them asks for output: the other one makes the descriptor
// unreadable again before the kernel has looked at it for the first. So a wait for output takes slices of the time. A
// wait for the output of one socket alone waits for the record's `change`, which nobody can take back.
#include "preload.h"
#include "preload_next.h"

#include <climits>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/select.h>

// Forms that programs built with _FORTIFY_SOURCE call, which no header declares here.
extern "C" {
int __poll_chk(struct pollfd *fds, nfds_t num, int ms, size_t size);
int __ppoll_chk(struct pollfd *fds, nfds_t num, const struct timespec *limit, const sigset_t *mask, size_t size);
}

// clang-format off
#define CALLS(X) \
    X(ppoll) X(poll) X(__poll_chk) X(__ppoll_chk) X(pselect) X(select)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

constexpr nfds_t FEW = 64;          // descriptors whose records fit on the stack
constexpr nfds_t MANY = 1U << 20;   // more than a process can have
constexpr int64_t LONG = 1LL << 40; // ms: a time-out that never comes, for a wait that a signal is to interrupt
constexpr short INPUT = POLLIN | POLLRDNORM;
constexpr short OUTPUT = POLLOUT | POLLWRNORM | POLLWRBAND;
constexpr short ALWAYS = POLLERR | POLLHUP;

int64_t preload_now_us(void)
{
    return sys_clock(CLOCK_MONOTONIC) / 1000;
}

void preload_silence(const sim_self_t *self, sim_socket_t *socket, int fd)
{
    sim_store(&socket->woken, 1U); // a write that came late has made it readable behind this word's back
    sim_socket_quiet(self, socket, fd);
}

static short events_of(sim_socket_t *socket)
{
    return sim_socket_events(preload_state(preload_self()), socket);
}

// The moment at which a wait ends. 0: it only looks.
static int64_t end_of(int64_t seconds, int64_t us)
{
    if (seconds == 0 && us == 0)
        return 0;
    return seconds > LONG ? PRELOAD_EVER : preload_now_us() + seconds * 1000000 + us;
}

int64_t preload_left_until(int64_t until)
{
    if (until == 0 || until == PRELOAD_EVER)
        return until;
    int64_t left = until - preload_now_us();
    return left > 0 ? left : 0;
}

struct timespec preload_span(int64_t us)
{
    struct timespec time = {};
    time.tv_sec = (time_t)(us / 1000000);
    time.tv_nsec = (long)(us % 1000000) * 1000;
    return time;
}

typedef struct polled_s { // one call
    struct pollfd *fds;
    nfds_t num;
    struct pollfd *native;  // what the kernel looks at
    sim_socket_t **sockets; // null for a descriptor that is none
    int64_t until;
    const sigset_t *mask;
    bool ready;  // an event is computed
    bool sliced; // the kernel cannot be relied on to end the wait
} polled_t;

// What the kernel has to wait for. Input that nobody asks for keeps a descriptor readable, so that one is left out.
static void prepare(polled_t *p)
{
    p->ready = false;
    p->sliced = false;
    for (nfds_t i = 0; i < p->num; i++) {
        p->native[i] = p->fds[i];
        p->native[i].revents = 0;
        if (p->sockets[i] == nullptr)
            continue;
        short asked = p->fds[i].events;
        short events = events_of(p->sockets[i]);
        bool unasked = (asked & INPUT) == 0 && (events & POLLIN) != 0;
        p->ready |= (events & (asked | ALWAYS)) != 0;
        p->sliced |= unasked || (asked & OUTPUT) != 0;
        p->native[i].events = POLLIN;
        if (unasked)
            p->native[i].fd = -1;
    }
}

static int finish(const polled_t *p)
{
    int count = 0;
    for (nfds_t i = 0; i < p->num; i++) {
        sim_socket_t *socket = p->sockets[i];
        short revents = p->native[i].revents;
        if (socket != nullptr && (revents & POLLNVAL) == 0) {
            short events = events_of(socket);
            if ((revents & POLLIN) != 0 && (events & (POLLIN | POLLHUP)) == 0)
                preload_silence(preload_self(), socket, p->fds[i].fd);
            revents = (short)(events & (p->fds[i].events | ALWAYS));
        }
        p->fds[i].revents = revents;
        count += revents != 0 ? 1 : 0;
    }
    return count;
}

// One wait: 0, or the errno of poll.
static int wait_once(const polled_t *p, int64_t left, uint32_t seen)
{
    if (!p->ready && p->sliced && p->num == 1 && p->mask == nullptr && left != 0 && (p->fds[0].events & INPUT) == 0) {
        int64_t until = left == PRELOAD_EVER ? sys_now() + LONG : p->until / 1000 + 1;
        p->native[0].revents = 0;
        return preload_wait_change(p->sockets[0], seen, until) == EINTR ? EINTR : 0;
    }
    if (p->ready)
        left = 0;
    else if (p->sliced && left > PRELOAD_SLICE)
        left = preload_slice(p->until);
    struct timespec limit = left != PRELOAD_EVER ? preload_span(left) : timespec{};
    int before = errno;
    int ret =
        CALL_NEXT(ppoll)(p->native, p->num, left != PRELOAD_EVER ? &limit : nullptr, p->ready ? nullptr : p->mask);
    int err = ret < 0 ? errno : 0;
    errno = before;
    return err;
}

static int wait_on(polled_t *p)
{
    for (nfds_t i = 0; i < p->num; i++)
        p->sockets[i] = preload_socket_at(p->fds[i].fd);
    for (;;) {
        uint32_t seen = p->sockets[0] != nullptr ? sim_load(&p->sockets[0]->change) : 0;
        int64_t left = preload_left_until(p->until);
        prepare(p);
        int err = wait_once(p, left, seen);
        if (err != 0 && !(err == EINTR && p->ready))
            return preload_fail(err);
        int count = finish(p);
        if (count != 0 || (left == 0 && err == 0))
            return count;
        if (err != 0)
            return preload_fail(err);
    }
}

static size_t bytes_for(nfds_t num)
{
    return num * (sizeof(struct pollfd) + sizeof(sim_socket_t *));
}

typedef struct memory_s {
    void *at;
    size_t size;
} memory_t;

static void give_back(void *memory)
{
    const memory_t *m = (const memory_t *)memory;
    (void)sys_call(SYS_munmap, m->at, m->size);
}

static bool take(memory_t *memory, size_t size)
{
    long ret = sys_call(SYS_mmap, nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0L);
    memory->at = (void *)ret;
    memory->size = size;
    return ret > 0 || ret < -4095;
}

static int wait_on_many(polled_t *p)
{
    memory_t memory;
    int ret;
    if (!take(&memory, bytes_for(p->num)))
        return preload_fail(ENOMEM);
    p->sockets = (sim_socket_t **)memory.at;
    p->native = (struct pollfd *)(p->sockets + p->num);
    pthread_cleanup_push(give_back, &memory); // the thread can be cancelled in the wait
    ret = wait_on(p);
    pthread_cleanup_pop(1);
    return ret;
}

static int poll_until(struct pollfd *fds, nfds_t num, int64_t until, const sigset_t *mask)
{
    polled_t p = {fds, num, nullptr, nullptr, until, mask, false, false};
    if (num > FEW)
        return wait_on_many(&p);
    struct pollfd native[FEW];
    sim_socket_t *sockets[FEW];
    p.native = native;
    p.sockets = sockets;
    return wait_on(&p);
}

// Quick: each descriptor is asked when the wait begins.
static bool any_socket(struct pollfd *fds, nfds_t num)
{
    if (num == 0 || num > MANY || !preload_readable(fds, num * sizeof(*fds)))
        return false;
    for (nfds_t i = 0; i < num; i++) {
        if (preload_known(fds[i].fd))
            return true;
    }
    return false;
}

bool preload_valid_limit(const struct timespec *limit)
{
    return limit == nullptr || (limit->tv_sec >= 0 && limit->tv_nsec >= 0 && limit->tv_nsec < 1000000000);
}

int64_t preload_end_of_limit(const struct timespec *limit)
{
    return limit != nullptr ? end_of(limit->tv_sec, (limit->tv_nsec + 999) / 1000) : PRELOAD_EVER;
}

int64_t preload_end_of_ms(int ms)
{
    return ms < 0 ? PRELOAD_EVER : end_of(0, (int64_t)ms * 1000);
}

extern "C" {
int poll(struct pollfd *fds, nfds_t num, int ms)
{
    if (!any_socket(fds, num))
        return CALL_NEXT(poll)(fds, num, ms);
    return poll_until(fds, num, preload_end_of_ms(ms), nullptr);
}

int ppoll(struct pollfd *fds, nfds_t num, const struct timespec *limit, const sigset_t *mask)
{
    if (!preload_valid_limit(limit) || !any_socket(fds, num))
        return CALL_NEXT(ppoll)(fds, num, limit, mask);
    return poll_until(fds, num, preload_end_of_limit(limit), mask);
}

int __poll_chk(struct pollfd *fds, nfds_t num, int ms, size_t size)
{
    if (size / sizeof(*fds) < num || !any_socket(fds, num))
        return CALL_NEXT(__poll_chk)(fds, num, ms, size);
    return poll_until(fds, num, preload_end_of_ms(ms), nullptr);
}

int __ppoll_chk(struct pollfd *fds, nfds_t num, const struct timespec *limit, const sigset_t *mask, size_t size)
{
    if (size / sizeof(*fds) < num || !preload_valid_limit(limit) || !any_socket(fds, num))
        return CALL_NEXT(__ppoll_chk)(fds, num, limit, mask, size);
    return poll_until(fds, num, preload_end_of_limit(limit), mask);
}
}

// The three sets of a select, as arrays of words. A set that is null stays null.
enum set_e { READ_SET, WRITE_SET, EXCEPT_SET, SETS };
constexpr int WORD = 8 * (int)sizeof(unsigned long); // bits
typedef struct sets_s {
    unsigned long *in[SETS];
} sets_t;

typedef struct selected_s { // one call
    int num;
    sets_t asked;
    sets_t native; // for the kernel; always three
    int64_t until;
    const sigset_t *mask;
    bool ready;
    bool sliced;
} selected_t;

static bool is_in(const unsigned long *set, int fd)
{
    return set != nullptr && (set[fd / WORD] >> (fd % WORD) & 1) != 0;
}

static void put(unsigned long *set, int fd, bool on)
{
    unsigned long bit = 1UL << (fd % WORD);
    set[fd / WORD] = on ? set[fd / WORD] | bit : set[fd / WORD] & ~bit;
}

static int words_of(int num)
{
    return (num + WORD - 1) / WORD;
}

// The next descriptor from `fd` on that is in one of the sets, or `num`.
static int next_asked(const sets_t *sets, int fd, int num)
{
    for (; fd < num; fd++) {
        unsigned long word = 0;
        for (const unsigned long *set : sets->in)
            word |= set != nullptr ? set[fd / WORD] : 0;
        if (word >> (fd % WORD) == 0)
            fd = (fd / WORD + 1) * WORD - 1;
        else if ((word >> (fd % WORD) & 1) != 0)
            return fd;
    }
    return num;
}

// What of `events` a select reports for a descriptor: a bit for each set. Nothing is urgent in TIPC.
static unsigned chosen(const sets_t *asked, int fd, short events)
{
    bool reads = is_in(asked->in[READ_SET], fd) && (events & (INPUT | ALWAYS)) != 0;
    bool writes = is_in(asked->in[WRITE_SET], fd) && (events & (OUTPUT | POLLERR)) != 0;
    return (reads ? 1U << READ_SET : 0) | (writes ? 1U << WRITE_SET : 0);
}

static void prepare_sets(selected_t *s)
{
    s->ready = false;
    s->sliced = false;
    for (int k = 0; k < SETS; k++) {
        for (int i = 0; i < words_of(s->num); i++)
            s->native.in[k][i] = s->asked.in[k] != nullptr ? s->asked.in[k][i] : 0;
    }
    for (int fd = next_asked(&s->asked, 0, s->num); fd < s->num; fd = next_asked(&s->asked, fd + 1, s->num)) {
        sim_socket_t *socket = preload_socket_at(fd);
        if (socket == nullptr)
            continue;
        short events = events_of(socket);
        bool unasked = !is_in(s->asked.in[READ_SET], fd) && (events & (POLLIN | POLLHUP)) != 0;
        s->ready |= chosen(&s->asked, fd, events) != 0;
        s->sliced |= unasked || is_in(s->asked.in[WRITE_SET], fd);
        put(s->native.in[READ_SET], fd, !unasked);
        put(s->native.in[WRITE_SET], fd, false);
        put(s->native.in[EXCEPT_SET], fd, false);
    }
}

// Puts the result into the kernel's sets, and counts it.
static int finish_sets(const selected_t *s)
{
    int count = 0;
    for (int fd = next_asked(&s->asked, 0, s->num); fd < s->num; fd = next_asked(&s->asked, fd + 1, s->num)) {
        sim_socket_t *socket = preload_socket_at(fd);
        if (socket != nullptr) {
            short events = events_of(socket);
            unsigned found = chosen(&s->asked, fd, events);
            if (is_in(s->native.in[READ_SET], fd) && (events & (POLLIN | POLLHUP)) == 0)
                preload_silence(preload_self(), socket, fd);
            put(s->native.in[READ_SET], fd, (found & 1U << READ_SET) != 0);
            put(s->native.in[WRITE_SET], fd, (found & 1U << WRITE_SET) != 0);
        }
        for (const unsigned long *set : s->native.in)
            count += is_in(set, fd) ? 1 : 0;
    }
    return count;
}

// One wait: 0, or the errno of select.
static int select_once(const selected_t *s, int64_t left)
{
    if (s->ready)
        left = 0;
    else if (s->sliced && left > PRELOAD_SLICE)
        left = preload_slice(s->until);
    struct timespec limit = left != PRELOAD_EVER ? preload_span(left) : timespec{};
    int before = errno;
    int ret = CALL_NEXT(pselect)(s->num, (fd_set *)s->native.in[READ_SET], (fd_set *)s->native.in[WRITE_SET],
                                 (fd_set *)s->native.in[EXCEPT_SET], left != PRELOAD_EVER ? &limit : nullptr,
                                 s->ready ? nullptr : s->mask);
    int err = ret < 0 ? errno : 0;
    errno = before;
    for (int k = 0; err != 0 && k < SETS; k++)
        memset(s->native.in[k], 0, (size_t)words_of(s->num) * sizeof(unsigned long));
    return err;
}

static int select_on(selected_t *s)
{
    for (;;) {
        int64_t left = preload_left_until(s->until);
        prepare_sets(s);
        int err = select_once(s, left);
        if (err != 0 && !(err == EINTR && s->ready))
            return preload_fail(err);
        int count = finish_sets(s);
        if (count == 0 && err != 0)
            return preload_fail(err);
        if (count == 0 && left != 0)
            continue;
        for (int k = 0; k < SETS; k++) {
            if (s->asked.in[k] != nullptr)
                memcpy(s->asked.in[k], s->native.in[k], (size_t)words_of(s->num) * sizeof(unsigned long));
        }
        return count;
    }
}

static void lay_out(selected_t *s, void *memory)
{
    for (int k = 0; k < SETS; k++)
        s->native.in[k] = (unsigned long *)memory + (size_t)k * (size_t)words_of(s->num);
}

static int select_on_many(selected_t *s)
{
    memory_t memory;
    int ret;
    if (!take(&memory, SETS * (size_t)words_of(s->num) * sizeof(unsigned long)))
        return preload_fail(ENOMEM);
    lay_out(s, memory.at);
    pthread_cleanup_push(give_back, &memory);
    ret = select_on(s);
    pthread_cleanup_pop(1);
    return ret;
}

static int select_until(int num, const sets_t *sets, int64_t until, const sigset_t *mask)
{
    selected_t s = {num, *sets, {}, until, mask, false, false};
    if (num > FD_SETSIZE)
        return select_on_many(&s);
    unsigned long few[SETS * FD_SETSIZE / WORD];
    lay_out(&s, few);
    return select_on(&s);
}

static bool any_selected(int num, const sets_t *sets)
{
    if (num <= 0 || num > (int)MANY)
        return false;
    for (const unsigned long *set : sets->in) {
        if (set != nullptr && !preload_readable(set, (size_t)words_of(num) * sizeof(*set)))
            return false;
    }
    for (int fd = next_asked(sets, 0, num); fd < num; fd = next_asked(sets, fd + 1, num)) {
        if (preload_known(fd))
            return true;
    }
    return false;
}

extern "C" {
int select(int num, fd_set *in, fd_set *out, fd_set *except, struct timeval *limit)
{
    sets_t sets = {{(unsigned long *)in, (unsigned long *)out, (unsigned long *)except}};
    bool odd = limit != nullptr && (limit->tv_sec < 0 || limit->tv_usec < 0);
    if (odd || !any_selected(num, &sets))
        return CALL_NEXT(select)(num, in, out, except, limit);
    int64_t until = limit != nullptr ? end_of(limit->tv_sec, limit->tv_usec) : PRELOAD_EVER;
    int ret = select_until(num, &sets, until, nullptr);
    if (limit != nullptr && until != PRELOAD_EVER) { // as the kernel, also after a failure
        int64_t left = preload_left_until(until);
        limit->tv_sec = (time_t)(left / 1000000);
        limit->tv_usec = (suseconds_t)(left % 1000000);
    }
    return ret;
}

int pselect(int num, fd_set *in, fd_set *out, fd_set *except, const struct timespec *limit, const sigset_t *mask)
{
    sets_t sets = {{(unsigned long *)in, (unsigned long *)out, (unsigned long *)except}};
    if (!preload_valid_limit(limit) || !any_selected(num, &sets))
        return CALL_NEXT(pselect)(num, in, out, except, limit, mask);
    return select_until(num, &sets, preload_end_of_limit(limit), mask);
}
}
