/* A signal handler, a fork and a cancellation while another call on a socket is in progress, and SA_RESTART. */
#include "case.h"
#include <pthread.h>
#include <sys/time.h>

static int handlers_fd;
static volatile int signals;

static void send_in_handler(int number)
{
    int before = errno;
    struct pollfd one = {handlers_fd, POLLIN, 0};
    (void)number;
    send_to(handlers_fd, 1, "s");
    poll(&one, 1, 0);
    close(dup(handlers_fd));
    signals++;
    errno = before;
}

static void do_nothing(int number)
{
    (void)number;
    signals++;
}

static void every_ms(int ms)
{
    struct itimerval timer = {{0, ms * 1000}, {0, ms * 1000}};
    setitimer(ITIMER_REAL, &timer, NULL);
}

static void handler(void)
{
    struct sigaction action = {.sa_handler = send_in_handler, .sa_flags = SA_RESTART};
    int fd = server(SOCK_RDM, 1);
    handlers_fd = client();
    sigaction(SIGALRM, &action, NULL);
    every_ms(1);
    for (long start = ms_now(); ms_now() - start < 5000 && signals < 300;) {
        struct pollfd one = {fd, POLLIN, 0};
        IS(send_to(handlers_fd, 1, "m"), 1);
        CHECK(poll(&one, 1, 100) == 1 || errno == EINTR);
        drain(fd);
    }
    every_ms(0);
    CHECK(signals > 0);
    close(fd);
    close(handlers_fd);
}

static void restarted(void)
{
    struct sigaction action = {.sa_handler = do_nothing, .sa_flags = SA_RESTART};
    struct timeval limit = {100, 0};
    char data[8];
    int fd = server(SOCK_RDM, 2);
    sigaction(SIGALRM, &action, NULL);
    signals = 0;
    pid_t child = fork();
    if (child == 0) {
        pause_ms(200);
        send_to(client(), 2, "late");
        _exit(0);
    }
    every_ms(20);
    IS(recv(fd, data, sizeof(data), 0), 4);
    every_ms(0);
    CHECK(signals > 0);
    CHECK(ended_well(child));
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    every_ms(20);
    FAILS(recv(fd, data, sizeof(data), 0), EINTR);
    every_ms(0);
    close(fd);
}

static void *receive_for_ever(void *argument)
{
    char data[8];
    for (;;)
        recv(*(int *)argument, data, sizeof(data), MSG_DONTWAIT);
    return NULL;
}

static void forks(void)
{
    pthread_t threads[2];
    int fds[2] = {server(SOCK_RDM, 3), client()};
    for (int i = 0; i < 2; i++)
        CHECK(pthread_create(&threads[i], NULL, receive_for_ever, &fds[i]) == 0);
    for (int turn = 0; turn < 40; turn++) {
        pid_t child = fork();
        if (child == 0) {
            alarm(10);
            signal(SIGALRM, SIG_DFL);
            int fd = server(SOCK_RDM, 4);
            IS(send_to(fd, 4, "x"), 1);
            IS(polled(fd, POLLIN, -1), POLLIN);
            close(fds[0]);
            dup2(fd, fds[1]);
            CHECK(gets(fds[1], "x"));
            _exit(done());
        }
        CHECK(ended_well(child));
    }
    for (int i = 0; i < 2; i++) {
        pthread_cancel(threads[i]);
        pthread_join(threads[i], NULL);
        close(fds[i]);
    }
}

static void *open_and_close(void *argument)
{
    (void)argument;
    for (;;)
        close(server(SOCK_RDM, 5));
    return NULL;
}

static void cancelled(void)
{
    for (int turn = 0; turn < 60; turn++) {
        pthread_t thread;
        CHECK(pthread_create(&thread, NULL, open_and_close, NULL) == 0);
        usleep(500 + (useconds_t)turn * 37);
        pthread_cancel(thread);
        pthread_join(thread, NULL);
        close(server(SOCK_RDM, 6));
    }
    FAILS(send_to(client(), 6, "x"), EHOSTUNREACH);
}

int main(void)
{
    handler();
    restarted();
    forks();
    cancelled();
    return done();
}
