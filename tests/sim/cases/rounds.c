/* What comes in between: a fork while other threads are in calls, a signal handler that sends, and a cancellation. Each
 * a great many times ($ROUNDS, 10,000 unless it is set), for what goes wrong only between two certain instructions.
 */
#include "case.h"
#include <pthread.h>
#include <sys/time.h>

static int rounds = 10000;
static int handlers_fd;
static volatile int signals;

static void *receive_for_ever(void *argument)
{
    char data[8];
    for (;;) {
        recv(*(int *)argument, data, sizeof(data), MSG_DONTWAIT);
        send_to(*(int *)argument, 1, "t");
    }
    return NULL;
}

/* A child of each fork closes the socket and sends by another: neither may wait for a thread that it does not have. */
static void forks(void)
{
    pthread_t threads[2];
    int fds[2] = {server(SOCK_RDM, 1), client()};
    for (int i = 0; i < 2; i++)
        CHECK(pthread_create(&threads[i], NULL, receive_for_ever, &fds[i]) == 0);
    for (int round = 0; round < rounds; round++) {
        pid_t child = fork();
        if (child == 0) {
            alarm(20);
            close(fds[0]);
            _exit(send_to(fds[1], 1, "c") == 1 || errno == EHOSTUNREACH ? 0 : 1);
        }
        CHECK(ended_well(child));
    }
    for (int i = 0; i < 2; i++) {
        pthread_cancel(threads[i]);
        pthread_join(threads[i], NULL);
        close(fds[i]);
    }
}

static void send_in_handler(int number)
{
    int before = errno;
    char data[8];
    (void)number;
    send_to(handlers_fd, 2, "s");
    recv(handlers_fd, data, sizeof(data), MSG_DONTWAIT);
    signals++;
    errno = before;
}

static void handlers(void)
{
    struct sigaction action = {.sa_handler = send_in_handler, .sa_flags = SA_RESTART};
    struct itimerval fast = {{0, 150}, {0, 150}};
    struct itimerval none = {{0, 0}, {0, 0}};
    char data[8];
    int fd = server(SOCK_RDM, 2);
    handlers_fd = client();
    sigaction(SIGALRM, &action, NULL);
    setitimer(ITIMER_REAL, &fast, NULL);
    while (signals < rounds) {
        IS(send_to(handlers_fd, 2, "m"), 1);
        while (recv(fd, data, sizeof(data), MSG_DONTWAIT) > 0)
            continue;
    }
    setitimer(ITIMER_REAL, &none, NULL);
    close(fd);
    close(handlers_fd);
}

static void *open_and_close(void *argument)
{
    (void)argument;
    for (;;)
        close(client());
    return NULL;
}

static void *send_and_receive(void *argument)
{
    char data[8];
    for (;;) {
        send_to(*(int *)argument, 3, "x");
        recv(*(int *)argument, data, sizeof(data), 0);
    }
    return NULL;
}

static void cancellations(void)
{
    int fd = server(SOCK_RDM, 3);
    for (int round = 0; round < rounds; round++) {
        pthread_t thread;
        CHECK(pthread_create(&thread, NULL, round % 2 == 0 ? open_and_close : send_and_receive, &fd) == 0);
        usleep((useconds_t)round % 97 * 3); /* another instant in each round */
        pthread_cancel(thread);
        pthread_join(thread, NULL);
    }
    drain(fd);
    IS(send_to(fd, 3, "x"), 1);
    CHECK(gets(fd, "x"));
    close(fd);
}

int main(void)
{
    const char *text = getenv("ROUNDS");
    pid_t children[2];
    if (text != NULL)
        rounds = atoi(text);
    for (int i = 0; i < 2; i++) {
        children[i] = fork();
        if (children[i] != 0)
            continue;
        (i == 0 ? forks : handlers)();
        _exit(done());
    }
    cancellations();
    for (int i = 0; i < 2; i++)
        CHECK(ended_well(children[i]));
    return done();
}
