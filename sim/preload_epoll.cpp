// epoll with TIPC sockets in a set.
//
// The kernel's set holds the socket's descriptor with the caller's data, but only for input: it wakes the waits, and an
// epoll_wait that does not come through here still sees messages. What the caller asked for lies in a table of this
// process. epoll_wait computes the events of the set's TIPC sockets from their records, lets the kernel report the
// others, and replaces what the kernel said about the sockets. It tells the kernel's events apart by their data; where
// another descriptor has the same data, it asks whether the socket's descriptor is readable.
//
// A registration is never changed: EPOLL_CTL_MOD makes a new one. `word` holds its state and counts the uses of the
// entry, so whoever has read the word, then the fields, then the same word again has read one registration. Nothing is
// held from one call to the next, and a child of a fork goes on with its copy.
//
// Sets are numbered, because a duplicate of the set's descriptor is the same set. The number goes with dup and fork.
#include "preload.h"
#include "preload_next.h"

#include <climits>
#include <sys/epoll.h>

// clang-format off
#define CALLS(X) \
    X(epoll_ctl) X(epoll_pwait2) X(epoll_pwait) X(epoll_create) X(epoll_create1) X(epoll_wait)
// clang-format on
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

constexpr uint32_t MAX_WATCHES = 4096;
constexpr uint32_t MAX_SETS = 1024;
constexpr int MAX_DESCRIPTOR = 65536; // a set with a higher number works for input alone
constexpr uint32_t INPUT = EPOLLIN | EPOLLRDNORM;
constexpr uint32_t ALWAYS = EPOLLERR | EPOLLHUP;
constexpr uint32_t OPTIONS = EPOLLET | EPOLLONESHOT | EPOLLWAKEUP | EPOLLEXCLUSIVE;

enum watch_state_e : uint32_t { FREE, TAKEN, LIVE, SPENT }; // lower half of `word`

typedef struct watch_s { // a registration
    uint64_t word;       // the upper half counts the uses of the entry
    uint32_t set;
    int32_t fd; // may be closed while a duplicate of it is open
    uint32_t port;
    uint32_t events; // asked, with the options
    uint64_t data;
    uint64_t last; // edge-triggered: the socket's `change` at the last report; upper half as in `word`
} watch_t;

typedef struct set_s {
    uint32_t descriptors; // that refer to it; 0: free
    uint32_t watches;
    uint32_t turn;     // who comes first when there is no room for all events
    uint32_t sleepers; // threads in the kernel's wait. Too high where one left it by a jump or was cancelled.
} set_t;

static watch_t s_watches[MAX_WATCHES];
static uint32_t s_top; // entries that have ever been in use
static set_t s_sets[MAX_SETS];
static uint16_t s_set_of[MAX_DESCRIPTOR]; // number of the set plus one

static uint32_t state_of(uint64_t word)
{
    return (uint32_t)word;
}

static uint64_t with_state(uint64_t word, uint32_t state)
{
    return (word & ~(uint64_t)UINT32_MAX) | state;
}

static uint32_t generation(uint64_t word)
{
    return (uint32_t)(word >> 32);
}

// The set of a descriptor, MAX_SETS when it has none.
static uint32_t set_at(int fd)
{
    uint16_t number = fd >= 0 && fd < MAX_DESCRIPTOR ? sim_load(&s_set_of[fd]) : 0;
    return number != 0 ? number - 1U : MAX_SETS;
}

static uint32_t set_for(int fd)
{
    if (fd < 0 || fd >= MAX_DESCRIPTOR || set_at(fd) != MAX_SETS)
        return set_at(fd);
    for (uint32_t i = 0; i < MAX_SETS; i++) {
        if (!sim_swap(&s_sets[i].descriptors, 0U, 1U))
            continue;
        sim_store(&s_sets[i].sleepers, 0U);
        if (!sim_swap(&s_set_of[fd], (uint16_t)0, (uint16_t)(i + 1)))
            sim_store(&s_sets[i].descriptors, 0U); // another thread has numbered it
        return set_at(fd);
    }
    return MAX_SETS;
}

// A consistent copy of a registration. False when the entry holds none.
static bool read_watch(uint32_t index, watch_t *copy)
{
    const watch_t *watch = &s_watches[index];
    copy->word = sim_load(&watch->word);
    if (state_of(copy->word) != LIVE && state_of(copy->word) != SPENT)
        return false;
    copy->set = sim_load(&watch->set);
    copy->fd = sim_load(&watch->fd);
    copy->port = sim_load(&watch->port);
    copy->events = sim_load(&watch->events);
    copy->data = sim_load(&watch->data);
    copy->last = sim_load(&watch->last);
    return sim_load(&watch->word) == copy->word;
}

static void drop_watch(uint32_t index, const watch_t *copy)
{
    if (sim_swap(&s_watches[index].word, copy->word, with_state(copy->word, FREE)))
        (void)sim_add(&s_sets[copy->set].watches, UINT32_MAX);
}

// The entry of a registration, MAX_WATCHES when there is none.
static uint32_t find_watch(uint32_t set, int fd, uint32_t port, watch_t *copy)
{
    uint32_t top = sim_load(&s_top);
    for (uint32_t i = 0; i < top; i++) {
        if (read_watch(i, copy) && copy->set == set && copy->fd == fd && copy->port == port)
            return i;
    }
    return MAX_WATCHES;
}

static void drop_watches_of(uint32_t set)
{
    watch_t copy;
    for (uint32_t i = 0; i < sim_load(&s_top); i++) {
        if (read_watch(i, &copy) && copy.set == set)
            drop_watch(i, &copy);
    }
}

static uint32_t take_watch(void)
{
    for (uint32_t i = 0; i < MAX_WATCHES; i++) {
        uint64_t word = sim_load(&s_watches[i].word);
        uint64_t taken = (uint64_t)(generation(word) + 1) << 32 | TAKEN;
        if (state_of(word) != FREE || !sim_swap(&s_watches[i].word, word, taken))
            continue;
        for (uint32_t top = sim_load(&s_top); top <= i; top = sim_load(&s_top))
            (void)sim_swap(&s_top, top, i + 1);
        return i;
    }
    return MAX_WATCHES;
}

// Sockets that are closed leave their registrations behind until somebody needs the room.
static uint32_t take_watch_or_sweep(sim_state_t *state)
{
    watch_t copy;
    uint32_t index = take_watch();
    if (index != MAX_WATCHES)
        return index;
    for (uint32_t i = 0; i < MAX_WATCHES; i++) {
        if (read_watch(i, &copy) && sim_socket_of(state, copy.port) == nullptr)
            drop_watch(i, &copy);
    }
    return take_watch();
}

static void publish(uint32_t index, uint32_t set, int fd, const sim_socket_t *socket, const struct epoll_event *event)
{
    watch_t *watch = &s_watches[index];
    uint64_t word = sim_load(&watch->word);
    sim_store(&watch->set, set);
    sim_store(&watch->fd, (int32_t)fd);
    sim_store(&watch->port, sim_load(&socket->port));
    sim_store(&watch->events, (uint32_t)event->events);
    sim_store(&watch->data, (uint64_t)event->data.u64);
    sim_store(&watch->last, (uint64_t)generation(word) << 32 | (sim_load(&socket->change) - 1));
    (void)sim_add(&s_sets[set].watches, 1U);
    sim_store(&watch->word, with_state(word, LIVE));
}

// Gives an entry back that this call has taken, whether it was published or not.
static void withdraw(uint32_t index, uint32_t set)
{
    uint64_t word = sim_load(&s_watches[index].word);
    if (sim_swap(&s_watches[index].word, word, with_state(word, FREE)) && state_of(word) != TAKEN)
        (void)sim_add(&s_sets[set].watches, UINT32_MAX);
}

// What the kernel is told. A registration for anything but input is edge-triggered there: input that nobody asked for
// would end every wait.
static struct epoll_event native_event(uint32_t events, uint64_t data)
{
    struct epoll_event event = {};
    event.events = (events & OPTIONS & ~(uint32_t)EPOLLEXCLUSIVE) | EPOLLIN;
    if ((events & INPUT) == 0)
        event.events |= EPOLLET;
    event.data.u64 = data;
    return event;
}

static bool every_message_counts(uint32_t events)
{
    return (events & EPOLLET) != 0 || (events & INPUT) == 0;
}

static uint32_t events_of(const sim_self_t *self, sim_socket_t *socket)
{
    return (uint32_t)(unsigned short)sim_socket_events(preload_state(self), socket);
}

// Lets threads that are in the kernel's wait look at a new registration.
static void wake_sleepers(const sim_self_t *self, uint32_t set, sim_socket_t *socket, uint32_t events)
{
    if (sim_load(&s_sets[set].sleepers) == 0 || (events_of(self, socket) & (events | ALWAYS)) == 0)
        return;
    sim_store(&socket->woken, 1U);
    self->wake(self->cluster, socket);
}

// Whether the kernel has refused a registration because the socket's descriptor is itself one of epoll: it may be in
// 500 sets, and these nested less deep than for a socket.
static bool too_many(int epoll, int fd, int err)
{
    return err == ELOOP || (err == EINVAL && sys_epoll_ctl(epoll, EPOLL_CTL_DEL, fd, nullptr) == -ENOENT);
}

static int add_watch(uint32_t set, int epoll, int fd, sim_socket_t *socket, struct epoll_event *event)
{
    const sim_self_t *self = preload_self();
    watch_t old;
    uint32_t before = find_watch(set, fd, sim_load(&socket->port), &old);
    uint32_t index = take_watch_or_sweep(preload_state(self));
    if (index == MAX_WATCHES)
        return preload_refuse("more than 4,096 registrations of TIPC sockets with epoll");
    if (every_message_counts(event->events))
        sim_store(&socket->edge, 1U);
    struct epoll_event native = native_event(event->events, event->data.u64);
    if (before == MAX_WATCHES)
        publish(index, set, fd, socket, event);
    if (CALL_NEXT(epoll_ctl)(epoll, EPOLL_CTL_ADD, fd, &native) != 0) {
        withdraw(index, set);
        return too_many(epoll, fd, errno) ? preload_refuse("a TIPC socket in so many or so deep sets of epoll") : -1;
    }
    if (before != MAX_WATCHES) { // the old one was deleted past this library
        drop_watch(before, &old);
        publish(index, set, fd, socket, event);
    }
    wake_sleepers(self, set, socket, event->events);
    return 0;
}

// The table has the new registration first, so that whoever the kernel wakes from here on finds it.
static int change_watch(uint32_t set, int epoll, int fd, sim_socket_t *socket, struct epoll_event *event)
{
    const sim_self_t *self = preload_self();
    uint32_t port = sim_load(&socket->port);
    watch_t old;
    uint32_t index = take_watch_or_sweep(preload_state(self));
    if (index == MAX_WATCHES)
        return preload_refuse("more than 4,096 registrations of TIPC sockets with epoll");
    if (every_message_counts(event->events))
        sim_store(&socket->edge, 1U);
    for (uint32_t i = find_watch(set, fd, port, &old); i != MAX_WATCHES; i = find_watch(set, fd, port, &old))
        drop_watch(i, &old);
    publish(index, set, fd, socket, event);
    struct epoll_event native = native_event(event->events, event->data.u64);
    if (CALL_NEXT(epoll_ctl)(epoll, EPOLL_CTL_MOD, fd, &native) != 0) {
        withdraw(index, set);
        return -1;
    }
    wake_sleepers(self, set, socket, event->events);
    return 0;
}

static int delete_watch(uint32_t set, int epoll, int fd, const sim_socket_t *socket, struct epoll_event *event)
{
    watch_t old;
    if (CALL_NEXT(epoll_ctl)(epoll, EPOLL_CTL_DEL, fd, event) != 0)
        return -1;
    uint32_t index = find_watch(set, fd, sim_load(&socket->port), &old);
    if (index != MAX_WATCHES)
        drop_watch(index, &old);
    return 0;
}

static bool exclusive_is_wrong(int op, uint32_t events)
{
    constexpr uint32_t with = EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP | EPOLLWAKEUP | EPOLLET | EPOLLEXCLUSIVE;
    return (events & EPOLLEXCLUSIVE) != 0 && (op != EPOLL_CTL_ADD || (events & ~with) != 0);
}

typedef struct waited_s { // one call of epoll_wait
    int epoll;
    uint32_t set;
    struct epoll_event *events;
    int max;
    int64_t until; // us, as of preload_end_of_ms
    const sigset_t *mask;
    bool fine; // epoll_pwait2
} waited_t;

typedef struct found_s { // a registration in the set, and its socket at this moment
    uint32_t index;
    watch_t watch;
    sim_socket_t *socket;
    uint32_t change;
    uint32_t all;    // events
    uint32_t events; // those that were asked for
} found_t;

static bool look_at(const waited_t *w, uint32_t index, found_t *found)
{
    if (!read_watch(index, &found->watch) || found->watch.set != w->set)
        return false;
    const sim_self_t *self = preload_self();
    found->index = index;
    found->socket = sim_socket_of(preload_state(self), found->watch.port);
    if (found->socket == nullptr) {
        drop_watch(index, &found->watch);
        return false;
    }
    found->change = sim_load(&found->socket->change);
    found->all = events_of(self, found->socket);
    found->events = found->all & (found->watch.events | ALWAYS);
    return true;
}

static bool is_new(const found_t *found)
{
    return (found->watch.events & EPOLLET) == 0 || (uint32_t)found->watch.last != found->change;
}

static bool reportable(const found_t *found)
{
    return state_of(found->watch.word) == LIVE && found->events != 0 && is_new(found);
}

static void arm(const waited_t *w, const found_t *found)
{
    struct epoll_event native = native_event(found->watch.events, found->watch.data);
    (void)sys_epoll_ctl(w->epoll, EPOLL_CTL_MOD, found->watch.fd, &native);
}

// Takes the right to report an event. False when another thread has it. The kernel may still report a one-shot
// registration once more, which is dropped.
static bool claim(const found_t *found)
{
    watch_t *watch = &s_watches[found->index];
    uint64_t now = (uint64_t)generation(found->watch.word) << 32 | found->change;
    if ((found->watch.events & EPOLLET) != 0 && !sim_swap(&watch->last, found->watch.last, now))
        return false;
    if ((found->watch.events & EPOLLONESHOT) == 0)
        return true;
    return sim_swap(&watch->word, found->watch.word, with_state(found->watch.word, SPENT));
}

// Counts the sockets that have an event to report. `sliced`: one asks for output and cannot send now.
static int count_ready(const waited_t *w, bool *sliced)
{
    int count = 0;
    found_t found;
    *sliced = false;
    uint32_t top = sim_load(&s_sets[w->set].watches) != 0 ? sim_load(&s_top) : 0;
    for (uint32_t i = 0; i < top; i++) {
        if (!look_at(w, i, &found))
            continue;
        count += reportable(&found) ? 1 : 0;
        *sliced |= (found.watch.events & (EPOLLOUT | EPOLLWRNORM)) != 0 && (found.events & EPOLLOUT) == 0;
    }
    return count;
}

// Adds the sockets' events behind `num` others. What finds no room is reported by a later call, of another thread
// perhaps, which the kernel then has to wake.
static int collect(const waited_t *w, int num, uint32_t turn)
{
    found_t found;
    uint32_t top = sim_load(&s_top);
    bool sleepers = sim_load(&s_sets[w->set].sleepers) != 0;
    for (uint32_t i = 0; i < top; i++) {
        if (!look_at(w, (i + turn) % top, &found) || !reportable(&found))
            continue;
        if (num == w->max) {
            if (sleepers && (found.watch.events & (EPOLLET | EPOLLONESHOT)) != 0)
                arm(w, &found);
            continue;
        }
        if (!claim(&found))
            continue;
        w->events[num].events = found.events;
        w->events[num].data.u64 = found.watch.data;
        num++;
    }
    return num;
}

// A descriptor of the socket that is open. The one that was registered may be closed while its duplicate is not.
static int descriptor_of(const found_t *found)
{
    if (preload_socket_at(found->watch.fd) == found->socket)
        return found->watch.fd;
    for (int fd = 0; fd < MAX_DESCRIPTOR; fd++) {
        if (preload_socket_at(fd) == found->socket)
            return fd;
    }
    return -1;
}

static bool natively_readable(int fd)
{
    struct pollfd one = {fd, POLLIN, 0};
    struct timespec none = {};
    return fd >= 0 && sys_call(SYS_ppoll, &one, 1, &none, nullptr, (size_t)8) == 1;
}

// How many of the kernel's events with this data are those of TIPC sockets, which collect() reports in its own way. The
// first socket without anything to report is made unreadable.
static int sockets_with(const waited_t *w, uint64_t data)
{
    found_t found;
    int num = 0;
    for (uint32_t i = 0; i < sim_load(&s_top); i++) {
        if (!look_at(w, i, &found) || found.watch.data != data)
            continue;
        if ((found.all & (EPOLLIN | EPOLLHUP)) != 0) {
            num++;
            continue;
        }
        int fd = descriptor_of(&found);
        if (!natively_readable(fd))
            continue;
        preload_silence(preload_self(), found.socket, fd);
        if ((found.watch.events & EPOLLONESHOT) != 0 && state_of(found.watch.word) == LIVE)
            arm(w, &found);
        return INT_MAX;
    }
    return num;
}

// Leaves the kernel's events of other descriptors at the front: their number.
static int drop_sockets(const waited_t *w, int num)
{
    int kept = 0;
    for (int i = 0; i < num; i++) {
        struct epoll_event event = w->events[i];
        int dropped = 0;
        for (int k = kept; k < i; k++)
            dropped += w->events[k].data.u64 == event.data.u64 ? 1 : 0;
        if ((event.events & ~INPUT) == 0 && dropped < sockets_with(w, event.data.u64))
            continue;
        w->events[i] = w->events[kept];
        w->events[kept++] = event;
    }
    return kept;
}

static int wait_natively(const waited_t *w, int max, int64_t left, const sigset_t *mask)
{
    if (w->fine) {
        struct timespec limit = preload_span(left);
        return CALL_NEXT(epoll_pwait2)(w->epoll, w->events, max, left != PRELOAD_EVER ? &limit : nullptr, mask);
    }
    int64_t ms = left / 1000 + (left % 1000 != 0 ? 1 : 0);
    return CALL_NEXT(epoll_pwait)(w->epoll, w->events, max,
                                  left == PRELOAD_EVER ? -1
                                  : ms < INT_MAX       ? (int)ms
                                                       : INT_MAX,
                                  mask);
}

// The events of the kernel without those of sockets, or -1.
static int others(const waited_t *w, int max, int64_t left, const sigset_t *mask)
{
    int num = max > 0 ? wait_natively(w, max, left, mask) : 0;
    return num > 0 && sim_load(&s_sets[w->set].watches) != 0 ? drop_sockets(w, num) : num;
}

// Each side gets half of the room, and the sockets get what the others leave.
static int look(const waited_t *w, int ready, uint32_t turn)
{
    int before = errno;
    int most = ready < w->max ? ready : w->max;
    int half = w->max / 2 + (w->max % 2 != 0 && turn % 2 != 0 ? 1 : 0);
    if (ready != 0 && !preload_writable(w->events, (size_t)most * sizeof(*w->events)))
        return preload_fail(EFAULT);
    int num = others(w, w->max - (ready < half ? ready : half), 0, nullptr);
    if (num < 0 && errno != EINTR)
        return -1;
    errno = before;
    return ready != 0 ? collect(w, num > 0 ? num : 0, turn) : num;
}

static int wait_on(const waited_t *w)
{
    for (;;) {
        bool sliced;
        int64_t left = preload_left_until(w->until);
        (void)sim_add(&s_sets[w->set].sleepers, 1U); // before the look, so that no new registration is missed
        int ready = count_ready(w, &sliced);
        uint32_t turn = sim_add(&s_sets[w->set].turn, 1U);
        int num;
        if (ready != 0 || left == 0)
            num = look(w, ready, turn);
        else
            num = others(w, w->max, sliced && left > PRELOAD_SLICE ? preload_slice(w->until) : left, w->mask);
        (void)sim_add(&s_sets[w->set].sleepers, UINT32_MAX);
        if (num != 0 || left == 0)
            return num;
    }
}

bool preload_watching(int fd)
{
    return set_at(fd) != MAX_SETS;
}

void preload_watch_close(int fd)
{
    uint32_t set = set_at(fd);
    if (set == MAX_SETS || !sim_swap(&s_set_of[fd], (uint16_t)(set + 1), (uint16_t)0))
        return;
    if (sim_load(&s_sets[set].descriptors) == 1)
        drop_watches_of(set);
    (void)sim_add(&s_sets[set].descriptors, UINT32_MAX);
}

void preload_watch_copy(int from, int to)
{
    uint32_t set = set_at(from);
    if (to < 0 || to >= MAX_DESCRIPTOR)
        return;
    preload_watch_close(to);
    if (set == MAX_SETS)
        return;
    (void)sim_add(&s_sets[set].descriptors, 1U);
    sim_store(&s_set_of[to], (uint16_t)(set + 1));
}

static int number(int fd)
{
    if (fd < 0 || preload_shares_memory())
        return fd;
    preload_watch_close(fd); // a set that was closed past this library
    (void)set_for(fd);
    return fd;
}

extern "C" {
int epoll_create(int size)
{
    return number(CALL_NEXT(epoll_create)(size));
}

int epoll_create1(int flags)
{
    return number(CALL_NEXT(epoll_create1)(flags));
}

int epoll_ctl(int epoll, int op, int fd, struct epoll_event *event)
{
    if (preload_is_socket(epoll))
        return preload_fail(EINVAL);
    sim_socket_t *socket = preload_socket_at(fd);
    if (socket == nullptr || preload_shares_memory())
        return CALL_NEXT(epoll_ctl)(epoll, op, fd, event);
    bool known_op = op == EPOLL_CTL_ADD || op == EPOLL_CTL_MOD || op == EPOLL_CTL_DEL;
    if (!known_op || (op != EPOLL_CTL_DEL && (event == nullptr || !preload_readable(event, sizeof(*event)))))
        return CALL_NEXT(epoll_ctl)(epoll, op, fd, event);
    if (op != EPOLL_CTL_DEL && exclusive_is_wrong(op, event->events))
        return preload_fail(EINVAL);
    uint32_t set = set_for(epoll);
    if (set == MAX_SETS)
        return epoll < 0 ? preload_fail(EBADF) : preload_refuse("so many sets of epoll with TIPC sockets");
    if (op == EPOLL_CTL_DEL)
        return delete_watch(set, epoll, fd, socket, event);
    return op == EPOLL_CTL_ADD ? add_watch(set, epoll, fd, socket, event) : change_watch(set, epoll, fd, socket, event);
}

int epoll_wait(int epoll, struct epoll_event *events, int max, int ms)
{
    if (preload_is_socket(epoll))
        return preload_fail(EINVAL);
    if (set_at(epoll) == MAX_SETS || max <= 0)
        return CALL_NEXT(epoll_wait)(epoll, events, max, ms);
    waited_t w = {epoll, set_at(epoll), events, max, preload_end_of_ms(ms), nullptr, false};
    return wait_on(&w);
}

int epoll_pwait(int epoll, struct epoll_event *events, int max, int ms, const sigset_t *mask)
{
    if (preload_is_socket(epoll))
        return preload_fail(EINVAL);
    if (set_at(epoll) == MAX_SETS || max <= 0)
        return CALL_NEXT(epoll_pwait)(epoll, events, max, ms, mask);
    waited_t w = {epoll, set_at(epoll), events, max, preload_end_of_ms(ms), mask, false};
    return wait_on(&w);
}

int epoll_pwait2(int epoll, struct epoll_event *events, int max, const struct timespec *limit, const sigset_t *mask)
{
    if (preload_is_socket(epoll))
        return preload_fail(EINVAL);
    if (!preload_valid_limit(limit) || set_at(epoll) == MAX_SETS || max <= 0)
        return CALL_NEXT(epoll_pwait2)(epoll, events, max, limit, mask);
    waited_t w = {epoll, set_at(epoll), events, max, preload_end_of_limit(limit), mask, true};
    return wait_on(&w);
}
}
