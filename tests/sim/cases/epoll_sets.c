/* TIPC sockets in sets of epoll: level, edge, one-shot, output, ends of connections, and what closes or copies a set.
 */
#include "case.h"
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

static int add(int set, int fd, unsigned events, unsigned long data)
{
    struct epoll_event event = {.events = events, .data.u64 = data};
    return epoll_ctl(set, EPOLL_CTL_ADD, fd, &event);
}

static int modify(int set, int fd, unsigned events, unsigned long data)
{
    struct epoll_event event = {.events = events, .data.u64 = data};
    return epoll_ctl(set, EPOLL_CTL_MOD, fd, &event);
}

/* The events of the only descriptor that is reported, 0 when there is none. */
static unsigned only(int set, unsigned long data, int ms)
{
    struct epoll_event events[4];
    int num = epoll_wait(set, events, 4, ms);
    if (num == 0)
        return 0;
    IS(num, 1);
    IS(events[0].data.u64, data);
    return events[0].events;
}

static void level(void)
{
    int set = epoll_create1(0);
    int fd = server(SOCK_RDM, 1);
    IS(add(set, fd, EPOLLIN, 11), 0);
    FAILS(add(set, fd, EPOLLIN, 11), EEXIST);
    IS(only(set, 0, 0), 0);
    IS(only(set, 0, 5), 0);
    send_to(fd, 1, "a");
    IS(only(set, 11, -1), EPOLLIN);
    IS(only(set, 11, -1), EPOLLIN);
    IS(modify(set, fd, EPOLLIN | EPOLLOUT | EPOLLRDNORM, 12), 0);
    IS(only(set, 12, -1), EPOLLIN | EPOLLOUT | EPOLLRDNORM);
    CHECK(gets(fd, "a"));
    IS(only(set, 12, -1), EPOLLOUT);
    IS(modify(set, fd, EPOLLIN, 13), 0);
    IS(only(set, 0, 0), 0);
    IS(modify(set, fd, 0, 13), 0);
    send_to(fd, 1, "b");
    IS(only(set, 0, 0), 0);
    IS(modify(set, fd, EPOLLIN, 14), 0);
    IS(only(set, 14, -1), EPOLLIN);
    IS(epoll_ctl(set, EPOLL_CTL_DEL, fd, NULL), 0);
    IS(only(set, 0, 0), 0);
    FAILS(epoll_ctl(set, EPOLL_CTL_DEL, fd, NULL), ENOENT);
    FAILS(modify(set, fd, EPOLLIN, 1), ENOENT);
    FAILS(add(fd, fd, EPOLLIN, 1), EINVAL);
    FAILS(add(fd, set, EPOLLIN, 1), EINVAL);
    FAILS(add(-1, fd, EPOLLIN, 1), EBADF);
    FAILS(epoll_ctl(set, EPOLL_CTL_ADD, fd, NULL), EFAULT);
    struct epoll_event event;
    FAILS(epoll_wait(fd, &event, 1, 0), EINVAL);
    FAILS(epoll_wait(set, &event, 0, 0), EINVAL);
    close(fd);
    close(set);
}

static void edge(void)
{
    int set = epoll_create1(0);
    int fd = server(SOCK_RDM, 2);
    IS(add(set, fd, EPOLLIN | EPOLLOUT | EPOLLET, 21), 0);
    IS(only(set, 21, -1), EPOLLOUT);
    IS(only(set, 0, 0), 0);
    send_to(fd, 2, "a");
    IS(only(set, 21, -1), EPOLLIN | EPOLLOUT);
    IS(only(set, 0, 0), 0);
    send_to(fd, 2, "b");
    IS(only(set, 21, -1), EPOLLIN | EPOLLOUT);
    CHECK(gets(fd, "a"));
    IS(only(set, 0, 0), 0);
    CHECK(gets(fd, "b"));
    IS(only(set, 0, 5), 0);
    send_to(fd, 2, "c");
    IS(only(set, 21, -1), EPOLLIN | EPOLLOUT);
    IS(modify(set, fd, EPOLLIN | EPOLLET, 22), 0);
    IS(only(set, 22, -1), EPOLLIN);
    IS(only(set, 0, 0), 0);
    close(fd);
    close(set);
}

static void one_shot(unsigned flags)
{
    int set = epoll_create1(0);
    int fd = server(SOCK_RDM, 3);
    IS(add(set, fd, EPOLLIN | EPOLLONESHOT | flags, 31), 0);
    send_to(fd, 3, "a");
    IS(only(set, 31, -1), EPOLLIN);
    IS(only(set, 0, 0), 0);
    send_to(fd, 3, "b");
    IS(only(set, 0, 5), 0);
    IS(modify(set, fd, EPOLLIN | EPOLLONESHOT | flags, 32), 0);
    IS(only(set, 32, -1), EPOLLIN);
    IS(only(set, 0, 0), 0);
    CHECK(gets(fd, "a"));
    CHECK(gets(fd, "b"));
    IS(modify(set, fd, EPOLLIN | EPOLLONESHOT | flags, 33), 0);
    IS(only(set, 0, 5), 0);
    send_to(fd, 3, "c");
    IS(only(set, 33, -1), EPOLLIN);
    IS(epoll_ctl(set, EPOLL_CTL_DEL, fd, NULL), 0);
    close(fd);
    close(set);
}

static void connections(unsigned flags)
{
    int set = epoll_create1(0);
    int ends[2];
    connection(SOCK_SEQPACKET, 4, ends);
    IS(add(set, ends[0], EPOLLIN | EPOLLOUT | EPOLLRDHUP | flags, 41), 0);
    IS(only(set, 41, -1), EPOLLOUT);
    fill(ends[0]);
    IS(only(set, 0, 0), 0);
    CHECK(drain(ends[1]) > 0);
    IS(only(set, 41, -1) & EPOLLOUT, EPOLLOUT);
    IS(send(ends[1], "x", 1, 0), 1);
    IS(only(set, 41, -1), EPOLLIN | EPOLLOUT);
    CHECK(gets(ends[0], "x"));
    close(ends[1]);
    IS(only(set, 41, -1), EPOLLIN | EPOLLHUP);
    close(ends[0]);
    IS(only(set, 0, 0), 0);
    close(set);
}

static void connecting(void)
{
    struct sockaddr_tipc name = name_of(5);
    int set = epoll_create1(0);
    int listener = server(SOCK_STREAM, 5);
    int caller = socket(AF_TIPC, SOCK_STREAM | SOCK_NONBLOCK, 0);
    IS(listen(listener, 1), 0);
    IS(add(set, listener, EPOLLIN, 51), 0);
    FAILS(connect(caller, (struct sockaddr *)&name, sizeof(name)), EINPROGRESS);
    IS(only(set, 51, -1), EPOLLIN);
    IS(add(set, caller, EPOLLOUT | EPOLLONESHOT, 52), 0);
    IS(only(set, 51, -1), EPOLLIN);
    int called = accept(listener, NULL, NULL);
    IS(only(set, 52, -1), EPOLLOUT);
    IS(only(set, 0, 0), 0);
    close(called);
    close(caller);
    close(listener);
    close(set);
}

static int bit(const struct epoll_event *events, int num, unsigned long data)
{
    for (int i = 0; i < num; i++) {
        if (events[i].data.u64 == data)
            return (int)events[i].events;
    }
    return 0;
}

static void mixed(void)
{
    int set = epoll_create1(0);
    int one = server(SOCK_RDM, 6);
    int two = server(SOCK_RDM, 7);
    int other = eventfd(0, EFD_NONBLOCK);
    struct epoll_event events[8];
    IS(add(set, one, EPOLLIN, 61), 0);
    IS(add(set, two, EPOLLOUT, 62), 0);
    IS(add(set, other, EPOLLIN, 63), 0);
    IS(only(set, 62, -1), EPOLLOUT);
    send_to(two, 7, "not asked for");
    IS(only(set, 62, -1), EPOLLOUT);
    send_to(one, 6, "x");
    IS(eventfd_write(other, 1), 0);
    int num = epoll_wait(set, events, 8, -1);
    IS(num, 3);
    IS(bit(events, num, 61), EPOLLIN);
    IS(bit(events, num, 62), EPOLLOUT);
    IS(bit(events, num, 63), EPOLLIN);
    unsigned seen = 0; /* with room for one event at a time each comes in turn */
    for (int turn = 0; turn < 20; turn++) {
        IS(epoll_wait(set, events, 1, -1), 1);
        seen |= 1U << (events[0].data.u64 - 61);
    }
    IS(seen, 7);
    IS(modify(set, two, EPOLLIN, 62), 0);
    CHECK(gets(two, "not asked for"));
    CHECK(gets(one, "x"));
    IS(only(set, 63, -1), EPOLLIN);
    close(one);
    close(two);
    close(other);
    close(set);
}

/* Descriptors of both kinds with the same data: the program looks at each. */
static void same_data(void)
{
    int set = epoll_create1(0);
    int one = server(SOCK_RDM, 8);
    int other = eventfd(0, EFD_NONBLOCK);
    struct epoll_event events[8];
    IS(add(set, one, EPOLLIN, 0), 0);
    IS(add(set, other, EPOLLIN | EPOLLET, 0), 0);
    IS(eventfd_write(other, 1), 0);
    IS(epoll_wait(set, events, 8, -1), 1);
    IS(epoll_wait(set, events, 8, 0), 0);
    send_to(one, 8, "x");
    IS(epoll_wait(set, events, 8, -1), 1);
    IS(eventfd_write(other, 1), 0);
    IS(epoll_wait(set, events, 8, -1), 2);
    IS(modify(set, one, EPOLLIN | EPOLLOUT, 0), 0);
    CHECK(gets(one, "x"));
    IS(eventfd_write(other, 1), 0);
    IS(epoll_wait(set, events, 8, -1), 2);
    IS(events[0].events | events[1].events, EPOLLIN | EPOLLOUT);
    close(one);
    close(other);
    close(set);
}

static void copies(void)
{
    int set = epoll_create1(0);
    int fd = server(SOCK_RDM, 9);
    int copy = dup(fd);
    IS(add(set, fd, EPOLLOUT, 91), 0);
    int set_copy = fcntl(set, F_DUPFD_CLOEXEC, 50);
    IS(only(set_copy, 91, -1), EPOLLOUT);
    close(set);
    IS(only(set_copy, 91, -1), EPOLLOUT);
    IS(add(set_copy, copy, EPOLLIN, 92), 0);
    IS(only(set_copy, 91, -1), EPOLLOUT);
    close(fd); /* the registration stays as long as the copy */
    IS(only(set_copy, 91, -1), EPOLLOUT);
    pid_t child = fork();
    if (child == 0) {
        IS(only(set_copy, 91, -1), EPOLLOUT);
        close(set_copy);
        _exit(done());
    }
    CHECK(ended_well(child));
    IS(only(set_copy, 91, -1), EPOLLOUT);
    close(copy);
    IS(only(set_copy, 0, 0), 0);
    fd = server(SOCK_RDM, 9); /* most likely with the same number */
    IS(only(set_copy, 0, 0), 0);
    IS(add(set_copy, fd, EPOLLOUT, 93), 0);
    IS(only(set_copy, 93, -1), EPOLLOUT);
    close(set_copy);
    set = epoll_create1(0);
    IS(dup2(set, set_copy), set_copy);
    IS(only(set_copy, 0, 0), 0);
    close(set);
    close(set_copy);
    close(fd);
}

static void nested(void)
{
    int outer = epoll_create1(0);
    int inner = epoll_create1(0);
    int fd = server(SOCK_RDM, 10);
    IS(add(inner, fd, EPOLLIN, 101), 0);
    IS(add(outer, inner, EPOLLIN, 102), 0);
    IS(only(outer, 0, 0), 0);
    send_to(fd, 10, "x");
    IS(only(outer, 102, -1), EPOLLIN);
    IS(polled(inner, POLLIN, -1), POLLIN);
    IS(only(inner, 101, -1), EPOLLIN);
    CHECK(gets(fd, "x"));
    IS(only(outer, 0, 0), 0);
    close(fd);
    close(inner);
    close(outer);
}

typedef struct later_s {
    int set;
    int fd;
    enum { ADD_IT, MODIFY_IT, SEND_TO_IT, DRAIN_IT } what;
} later_t;

static void *act(void *argument)
{
    const later_t *later = argument;
    pause_ms(20);
    if (later->what == ADD_IT)
        IS(add(later->set, later->fd, EPOLLOUT, 111), 0);
    else if (later->what == MODIFY_IT)
        IS(modify(later->set, later->fd, EPOLLOUT, 111), 0);
    else if (later->what == SEND_TO_IT)
        send_to(later->fd, 11, "x");
    else
        drain(later->fd);
    return NULL;
}

static void woken_by(int what, int set, int fd, unsigned events)
{
    later_t later = {set, fd, what};
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, act, &later) == 0);
    IS(only(set, 111, -1), events);
    pthread_join(thread, NULL);
}

/* What another thread does while this one is in epoll_wait. */
static void waits(void)
{
    int set = epoll_create1(0);
    int fd = server(SOCK_RDM, 11);
    int ends[2];
    woken_by(ADD_IT, set, fd, EPOLLOUT);
    IS(modify(set, fd, EPOLLIN, 111), 0);
    woken_by(MODIFY_IT, set, fd, EPOLLOUT);
    IS(modify(set, fd, EPOLLIN, 111), 0);
    woken_by(SEND_TO_IT, set, fd, EPOLLIN);
    IS(modify(set, fd, EPOLLIN | EPOLLET, 111), 0);
    IS(only(set, 111, -1), EPOLLIN);
    woken_by(SEND_TO_IT, set, fd, EPOLLIN); /* while the first is unread */
    CHECK(gets(fd, "x"));
    CHECK(gets(fd, "x"));
    IS(modify(set, fd, EPOLLIN | EPOLLET | EPOLLONESHOT, 111), 0);
    woken_by(SEND_TO_IT, set, fd, EPOLLIN);
    close(fd);
    connection(SOCK_SEQPACKET, 12, ends);
    fill(ends[0]);
    IS(send(ends[1], "x", 1, 0), 1);
    IS(add(set, ends[0], EPOLLOUT, 111), 0);
    woken_by(DRAIN_IT, set, ends[1], EPOLLOUT);
    close(ends[0]);
    close(ends[1]);
    close(set);
}

/* Messages, each reported to one of several threads that wait in one set. */
enum { MESSAGES = 400, THREADS = 3 };
static int counted;

static void *serve(void *argument)
{
    const int *fds = argument;
    while (__atomic_load_n(&counted, __ATOMIC_SEQ_CST) < MESSAGES) {
        struct epoll_event event;
        if (epoll_wait(fds[0], &event, 1, 5000) != 1 || event.data.u64 == 2)
            return NULL;
        while (gets(fds[1], "m"))
            __atomic_add_fetch(&counted, 1, __ATOMIC_SEQ_CST);
        if (fds[3])
            modify(fds[0], fds[1], EPOLLIN | EPOLLET | EPOLLONESHOT, 1);
    }
    eventfd_write(fds[2], 1);
    return NULL;
}

static void threads(int one_shot_too)
{
    pthread_t threads[THREADS];
    int fds[4] = {epoll_create1(0), server(SOCK_RDM, 13), eventfd(0, 0), one_shot_too};
    int sender = client();
    __atomic_store_n(&counted, 0, __ATOMIC_SEQ_CST);
    IS(add(fds[0], fds[1], EPOLLIN | EPOLLET | (one_shot_too ? EPOLLONESHOT : 0), 1), 0);
    IS(add(fds[0], fds[2], EPOLLIN, 2), 0);
    for (int i = 0; i < THREADS; i++)
        CHECK(pthread_create(&threads[i], NULL, serve, fds) == 0);
    for (int i = 0; i < MESSAGES; i++)
        IS(send_to(sender, 13, "m"), 1);
    for (int i = 0; i < THREADS; i++)
        pthread_join(threads[i], NULL);
    IS(counted, MESSAGES);
    close(sender);
    for (int i = 0; i < 3; i++)
        close(fds[i]);
}

int main(void)
{
    level();
    edge();
    one_shot(0);
    one_shot(EPOLLET);
    connections(0);
    connections(EPOLLET);
    connecting();
    mixed();
    same_data();
    copies();
    nested();
    waits();
    threads(0);
    threads(1);
    return done();
}
