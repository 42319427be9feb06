/* What poll and select report of sockets in each state, alone and beside other descriptors. */
#include "case.h"
#include <sys/select.h>

enum { ALL = POLLIN | POLLOUT | POLLPRI | POLLRDHUP | POLLRDNORM | POLLRDBAND | POLLWRNORM | POLLWRBAND };
enum { INPUT = POLLIN | POLLRDNORM, ENDED = POLLIN | POLLRDNORM | POLLHUP };

static void datagrams(int type)
{
    int receiver = server(type, 1);
    int sender = client();
    IS(polled(receiver, ALL, 0), POLLOUT);
    IS(polled(receiver, POLLIN, 0), 0);
    IS(send_to(sender, 1, "one"), 3);
    IS(polled(receiver, ALL, -1), INPUT | POLLOUT);
    IS(polled(receiver, POLLIN, -1), POLLIN);
    IS(polled(receiver, POLLOUT, -1), POLLOUT);
    IS(polled(receiver, 0, 0), 0);
    IS(send_to(sender, 1, "two"), 3);
    CHECK(gets(receiver, "one"));
    IS(polled(receiver, POLLIN, -1), POLLIN);
    CHECK(gets(receiver, "two"));
    IS(polled(receiver, ALL, 0), POLLOUT);
    IS(send_to(sender, 1, "three"), 5);
    IS(polled(receiver, POLLIN, -1), POLLIN);
    close(receiver);
    close(sender);
}

static void connections(int type)
{
    struct sockaddr_tipc name = name_of(2);
    int fresh = socket(AF_TIPC, type, 0);
    int listener = server(type, 2);
    int caller = socket(AF_TIPC, type | SOCK_NONBLOCK, 0);
    IS(polled(fresh, ALL, 0), POLLOUT);
    IS(polled(listener, ALL, 0), POLLOUT);
    IS(listen(listener, 1), 0);
    IS(polled(listener, ALL, 0), 0);
    FAILS(connect(caller, (struct sockaddr *)&name, sizeof(name)), EINPROGRESS);
    IS(polled(listener, ALL, -1), INPUT);
    IS(polled(caller, ALL, 0), 0);
    int called = accept(listener, NULL, NULL);
    IS(polled(caller, ALL, -1), POLLOUT);
    IS(polled(called, ALL, -1), POLLOUT);
    IS(polled(listener, ALL, 0), 0);
    IS(send(caller, "data", 4, 0), 4);
    IS(polled(called, ALL, -1), INPUT | POLLOUT);
    CHECK(gets(called, "data"));
    IS(polled(called, ALL, 0), POLLOUT);
    fill(caller);
    IS(polled(caller, ALL, 0), 0);
    IS(polled(called, ALL, 0), INPUT | POLLOUT);
    CHECK(drain(called) > 0);
    IS(polled(caller, ALL, -1), POLLOUT);
    close(caller);
    IS(polled(called, ALL, -1), ENDED);
    IS(polled(called, POLLOUT, -1), POLLHUP);
    IS(polled(called, 0, -1), POLLHUP);
    close(called);
    close(listener);
    close(fresh);
}

static void after_shutdown(int type)
{
    int fresh = socket(AF_TIPC, type, 0);
    FAILS(shutdown(fresh, SHUT_RDWR), ENOTCONN);
    IS(polled(fresh, ALL, 0), ENDED | POLLOUT | POLLRDHUP);
    close(fresh);
}

static void mixed_poll(void)
{
    int receiver = server(SOCK_RDM, 3);
    int sender = client();
    int pipes[2];
    CHECK(pipe(pipes) == 0);
    struct pollfd fds[6] = {{receiver, POLLIN, 99},  {pipes[0], POLLIN, 99}, {-1, POLLIN, 99},
                            {pipes[1], POLLOUT, 99}, {sender, POLLOUT, 99},  {receiver, POLLIN | POLLOUT, 99}};
    IS(poll(fds, 2, 0), 0);
    IS(fds[0].revents | fds[1].revents, 0);
    IS(poll(fds, 6, -1), 3);
    IS(fds[0].revents | fds[1].revents | fds[2].revents, 0);
    IS(fds[3].revents, POLLOUT);
    IS(fds[4].revents, POLLOUT);
    IS(fds[5].revents, POLLOUT);
    CHECK(write(pipes[1], "x", 1) == 1);
    send_to(sender, 3, "x");
    IS(poll(fds, 6, -1), 5);
    IS(fds[0].revents, POLLIN);
    IS(fds[1].revents, POLLIN);
    IS(fds[5].revents, POLLIN | POLLOUT);
    CHECK(gets(receiver, "x"));
    IS(poll(fds, 3, -1), 1);
    IS(fds[0].revents, 0);
    IS(fds[1].revents, POLLIN);
    close(pipes[0]);
    fds[1].fd = pipes[0];
    fds[0].events = POLLOUT;
    IS(poll(fds, 3, -1), 2);
    IS(fds[0].revents, POLLOUT);
    IS(fds[1].revents, POLLNVAL);
    IS(fds[0].events, POLLOUT);
    struct pollfd *volatile bad = (struct pollfd *)8;
    FAILS(poll(bad, 2, 0), EFAULT);
    close(pipes[1]);
    close(receiver);
    close(sender);
}

/* More descriptors than a small wait has. */
static void many(void)
{
    enum { NUM = 200 };
    struct pollfd fds[NUM];
    int pipes[2];
    CHECK(pipe(pipes) == 0);
    int receiver = server(SOCK_RDM, 4);
    for (int i = 0; i < NUM; i++)
        fds[i] = (struct pollfd){i % 2 == 0 ? pipes[0] : receiver, POLLIN, 0};
    IS(poll(fds, NUM, 0), 0);
    send_to(receiver, 4, "x");
    IS(poll(fds, NUM, -1), NUM / 2);
    IS(fds[NUM - 1].revents, POLLIN);
    IS(fds[NUM - 2].revents, 0);
    close(receiver);
    close(pipes[0]);
    close(pipes[1]);
}

static void selects(void)
{
    int receiver = server(SOCK_RDM, 5);
    int sender = client();
    int pipes[2];
    fd_set in, out, except;
    struct timeval none = {0, 0};
    CHECK(pipe(pipes) == 0);
    FD_ZERO(&in);
    FD_ZERO(&out);
    FD_ZERO(&except);
    FD_SET(receiver, &in);
    FD_SET(receiver, &except);
    FD_SET(pipes[0], &in);
    IS(select(FD_SETSIZE, &in, NULL, &except, &none), 0);
    CHECK(!FD_ISSET(receiver, &in) && !FD_ISSET(pipes[0], &in) && !FD_ISSET(receiver, &except));
    send_to(sender, 5, "x");
    FD_SET(receiver, &in);
    FD_SET(pipes[0], &in);
    FD_SET(pipes[1], &out);
    FD_SET(receiver, &out);
    struct timeval long_time = {100, 0};
    IS(select(FD_SETSIZE, &in, &out, NULL, &long_time), 3);
    CHECK(FD_ISSET(receiver, &in) && !FD_ISSET(pipes[0], &in));
    CHECK(FD_ISSET(receiver, &out) && FD_ISSET(pipes[1], &out));
    CHECK(long_time.tv_sec >= 90 && long_time.tv_sec <= 100);
    struct timespec limit = {100, 0};
    IS(pselect(FD_SETSIZE, &in, NULL, NULL, &limit, NULL), 1);
    CHECK(FD_ISSET(receiver, &in));
    CHECK(gets(receiver, "x"));
    struct timeval brief = {0, 20000};
    IS(select(receiver + 1, &in, NULL, NULL, &brief), 0);
    CHECK(!FD_ISSET(receiver, &in));
    IS(brief.tv_sec * 1000000 + brief.tv_usec, 0);
    close(pipes[0]);
    FD_SET(receiver, &in);
    FD_SET(pipes[0], &in);
    FAILS(select(FD_SETSIZE, &in, NULL, NULL, &none), EBADF);
    close(pipes[1]);
    close(receiver);
    close(sender);
}

int main(void)
{
    datagrams(SOCK_RDM);
    datagrams(SOCK_DGRAM);
    connections(SOCK_SEQPACKET);
    connections(SOCK_STREAM);
    after_shutdown(SOCK_SEQPACKET);
    mixed_poll();
    many();
    selects();
    return done();
}
