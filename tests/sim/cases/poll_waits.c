/* Waits that somebody else ends: a message, a peer that reads or goes, a signal, the time. */
#include "case.h"
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/select.h>

static volatile int signals;

static void on_signal(int number)
{
    (void)number;
    signals++;
}

/* What happens while the main thread waits. It comes some time later, most of the time within the wait. */
typedef struct later_s {
    enum { SEND, DRAIN, CLOSE, SIGNAL, SHUTDOWN } what;
    int fd;
    pthread_t waiter;
} later_t;

static void *act(void *argument)
{
    const later_t *later = argument;
    pause_ms(20);
    if (later->what == SEND)
        send_to(later->fd, 1, "late");
    else if (later->what == DRAIN)
        drain(later->fd);
    else if (later->what == CLOSE)
        close(later->fd);
    else if (later->what == SHUTDOWN)
        shutdown(later->fd, SHUT_RDWR);
    else
        pthread_kill(later->waiter, SIGUSR1);
    return NULL;
}

static pthread_t soon(later_t *later)
{
    pthread_t thread;
    later->waiter = pthread_self();
    CHECK(pthread_create(&thread, NULL, act, later) == 0);
    return thread;
}

static void messages(void)
{
    int receiver = server(SOCK_RDM, 1);
    int sender = client();
    int pipes[2];
    CHECK(pipe(pipes) == 0);
    later_t later = {SEND, sender, 0};
    for (int turn = 0; turn < 8; turn++) {
        struct pollfd fds[2] = {{pipes[0], POLLIN, 0}, {receiver, POLLIN, 0}};
        fd_set in;
        FD_ZERO(&in);
        FD_SET(receiver, &in);
        pthread_t thread = soon(&later);
        if (turn % 4 == 0)
            IS(poll(fds, 2, -1), 1);
        else if (turn % 4 == 1)
            IS(ppoll(fds, 2, NULL, NULL), 1);
        else if (turn % 4 == 2)
            IS(select(receiver + 1, &in, NULL, NULL, NULL), 1);
        else
            IS(pselect(receiver + 1, &in, NULL, NULL, NULL, NULL), 1);
        pthread_join(thread, NULL);
        CHECK(gets(receiver, "late"));
    }
    close(pipes[0]);
    close(pipes[1]);
    close(receiver);
    close(sender);
}

static void time_passes(void)
{
    int receiver = server(SOCK_RDM, 2);
    struct pollfd one = {receiver, POLLIN, 0};
    struct timespec limit = {0, 30000000};
    long start = ms_now();
    IS(poll(&one, 1, 30), 0);
    CHECK(ms_now() - start >= 29);
    start = ms_now();
    IS(ppoll(&one, 1, &limit, NULL), 0);
    CHECK(ms_now() - start >= 29);
    limit.tv_nsec = 1000000000;
    FAILS(ppoll(&one, 1, &limit, NULL), EINVAL);
    close(receiver);
}

static void interrupted(void)
{
    struct sigaction action = {.sa_handler = on_signal, .sa_flags = SA_RESTART};
    sigaction(SIGUSR1, &action, NULL);
    int receiver = server(SOCK_RDM, 3);
    int ends[2];
    connection(SOCK_SEQPACKET, 4, ends);
    fill(ends[0]);
    later_t later = {SIGNAL, -1, 0};
    struct pollfd in = {receiver, POLLIN, 0};
    struct pollfd out = {ends[0], POLLOUT, 0};
    pthread_t thread = soon(&later);
    FAILS(poll(&in, 1, -1), EINTR);
    pthread_join(thread, NULL);
    thread = soon(&later);
    FAILS(poll(&out, 1, -1), EINTR);
    pthread_join(thread, NULL);
    IS(signals, 2);

    sigset_t blocked, open;
    sigemptyset(&open);
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, NULL);
    raise(SIGUSR1);
    IS(poll(&in, 1, 5), 0);
    IS(signals, 2);
    send_to(receiver, 3, "x");
    IS(ppoll(&in, 1, NULL, &open), 1); /* what is ready comes before the signal */
    IS(signals, 2);
    out.fd = receiver;
    IS(ppoll(&out, 1, NULL, &open), 1);
    IS(signals, 2);
    CHECK(gets(receiver, "x"));
    FAILS(ppoll(&in, 1, NULL, &open), EINTR);
    IS(signals, 3);
    sigprocmask(SIG_UNBLOCK, &blocked, NULL);
    close(receiver);
    close(ends[0]);
    close(ends[1]);
}

/* A sender waits until its peer has read, also with input of its own that it does not ask for. */
static void output(int with_input)
{
    int ends[2];
    int pipes[2];
    CHECK(pipe(pipes) == 0);
    for (int turn = 0; turn < 4; turn++) {
        connection(SOCK_SEQPACKET, 5, ends);
        if (with_input)
            IS(send(ends[1], "x", 1, 0), 1);
        fill(ends[0]);
        later_t later = {turn == 3 ? CLOSE : DRAIN, ends[1], 0};
        struct pollfd fds[2] = {{ends[0], POLLOUT, 0}, {pipes[0], POLLIN, 0}};
        fd_set out;
        FD_ZERO(&out);
        FD_SET(ends[0], &out);
        IS(poll(fds, 2, 0), 0);
        pthread_t thread = soon(&later);
        if (turn == 2)
            IS(select(ends[0] + 1, NULL, &out, NULL, NULL), 1);
        else
            IS(poll(fds, turn == 0 ? 1 : 2, -1), 1);
        if (turn != 2)
            IS(fds[0].revents, turn == 3 ? POLLHUP : POLLOUT);
        pthread_join(thread, NULL);
        close(ends[0]);
        if (turn != 3)
            close(ends[1]);
    }
    close(pipes[0]);
    close(pipes[1]);
}

/* A wait that has nothing to report sleeps, whatever happens to the socket that it did not ask for. */
static void sleeps(void)
{
    int ends[2];
    int pipes[2];
    CHECK(pipe(pipes) == 0);
    connection(SOCK_SEQPACKET, 6, ends);
    struct pollfd fds[2] = {{ends[0], POLLIN, 0}, {pipes[0], POLLIN, 0}};
    int set = epoll_create1(0);
    struct epoll_event event = {.events = EPOLLIN};
    IS(epoll_ctl(set, EPOLL_CTL_ADD, ends[0], &event), 0);
    fill(ends[0]);
    long before = used_ms();
    drain(ends[1]); /* it may send now */
    IS(poll(fds, 2, 300), 0);
    fill(ends[0]);
    drain(ends[1]);
    IS(epoll_wait(set, &event, 1, 300), 0);
    IS(send(ends[1], "x", 1, 0), 1); /* input */
    fill(ends[0]);
    fds[0].events = POLLOUT;
    IS(poll(fds, 2, 300), 0);
    event.events = EPOLLOUT;
    IS(epoll_ctl(set, EPOLL_CTL_MOD, ends[0], &event), 0);
    IS(epoll_wait(set, &event, 1, 300), 0);
    CHECK(used_ms() - before < 150);
    close(set);
    close(ends[0]);
    close(ends[1]);
    close(pipes[0]);
    close(pipes[1]);
}

/* One thread waits for input while the other waits for output, on one socket. Neither takes the other's wake-up. */
static void *read_all(void *argument)
{
    int fd = *(int *)argument;
    struct pollfd one = {fd, POLLIN, 0};
    while (poll(&one, 1, -1) == 1 && (one.revents & POLLHUP) == 0)
        drain(fd);
    return NULL;
}

static void both_ways(void)
{
    int ends[2];
    int pipes[2];
    pthread_t readers[2];
    CHECK(pipe(pipes) == 0);
    connection(SOCK_SEQPACKET, 6, ends);
    int set = epoll_create1(0);
    struct epoll_event event = {.events = EPOLLOUT};
    IS(epoll_ctl(set, EPOLL_CTL_ADD, ends[0], &event), 0);
    for (int i = 0; i < 2; i++)
        CHECK(pthread_create(&readers[i], NULL, read_all, &ends[i]) == 0);
    for (int turn = 0; turn < 600; turn++) {
        struct pollfd fds[2] = {{ends[0], POLLOUT, 0}, {pipes[0], POLLIN, 0}};
        fill(ends[0]);
        if (turn % 3 == 2)
            IS(epoll_wait(set, &event, 1, 5000), 1);
        else
            IS(poll(fds, 1 + (unsigned)turn % 3, 5000), 1);
    }
    shutdown(ends[0], SHUT_RDWR);
    for (int i = 0; i < 2; i++) {
        pthread_join(readers[i], NULL);
        close(ends[i]);
        close(pipes[i]);
    }
    close(set);
}

static void *wait_for_ever(void *argument)
{
    struct pollfd one = {*(int *)argument, POLLIN, 0};
    for (;;)
        poll(&one, 1, -1);
    return NULL;
}

static void cancelled(void)
{
    int receiver = server(SOCK_RDM, 7);
    pthread_t thread;
    void *result = NULL;
    CHECK(pthread_create(&thread, NULL, wait_for_ever, &receiver) == 0);
    pause_ms(5);
    pthread_cancel(thread);
    pthread_join(thread, &result);
    CHECK(result == PTHREAD_CANCELED);
    close(receiver);
}

/* A successful call leaves errno alone. */
static void errno_stays(void)
{
    int receiver = server(SOCK_RDM, 8);
    struct pollfd one = {receiver, POLLIN, 0};
    fd_set in;
    FD_ZERO(&in);
    FD_SET(receiver, &in);
    errno = 77;
    poll(&one, 1, 2);
    IS(errno, 77);
    send_to(receiver, 8, "x");
    poll(&one, 1, -1);
    select(receiver + 1, &in, NULL, NULL, NULL);
    gets(receiver, "x");
    poll(&one, 1, 2);
    close(dup(receiver));
    close(receiver);
    IS(errno, 77);
}

int main(void)
{
    messages();
    time_passes();
    interrupted();
    output(0);
    output(1);
    sleeps();
    both_ways();
    cancelled();
    errno_stays();
    return done();
}
