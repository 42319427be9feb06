/* What the cases share. Each case is a program that says what it found wrong and exits with 1, or exits with 0. It uses
 * names of the type TYPE on one node, and must pass on a kernel with TIPC. */
#ifndef CASE_H
#define CASE_H

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <errno.h>
#include <fcntl.h>
#include <linux/tipc.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { TYPE = 18888 };

static int failures;

static inline void check(int good, const char *what, const char *file, int line)
{
    if (!good) {
        printf("%s:%d: %s (errno %d)\n", file, line, what, errno);
        fflush(stdout);
        failures++;
    }
}
static inline void check_is(long got, long wanted, const char *what, const char *file, int line)
{
    if (got != wanted) {
        printf("%s:%d: %s is %ld (0x%lx), not %ld (errno %d)\n", file, line, what, got, got, wanted, errno);
        fflush(stdout);
        failures++;
    }
}
#define CHECK(what) check((what), #what, __FILE__, __LINE__)
#define IS(got, wanted) check_is((long)(got), (long)(wanted), #got, __FILE__, __LINE__)
#define FAILS(call, error)                                                                                             \
    do {                                                                                                               \
        errno = 0;                                                                                                     \
        IS(call, -1);                                                                                                  \
        IS(errno, error);                                                                                              \
    } while (0)

static inline struct sockaddr_tipc name_of(unsigned instance)
{
    struct sockaddr_tipc name;
    memset(&name, 0, sizeof(name));
    name.family = AF_TIPC;
    name.addrtype = TIPC_SERVICE_ADDR;
    name.scope = TIPC_CLUSTER_SCOPE;
    name.addr.name.name.type = TYPE;
    name.addr.name.name.instance = instance;
    return name;
}

/* A socket of this type that is bound to the name. */
static inline int server(int type, unsigned instance)
{
    struct sockaddr_tipc name = name_of(instance);
    int fd = socket(AF_TIPC, type, 0);
    if (fd < 0 || bind(fd, (struct sockaddr *)&name, sizeof(name)) != 0) {
        perror("a TIPC socket with a name");
        exit(1);
    }
    return fd;
}

static inline int client(void)
{
    int fd = socket(AF_TIPC, SOCK_RDM, 0);
    if (fd < 0) {
        perror("a TIPC socket");
        exit(1);
    }
    return fd;
}

static inline ssize_t send_to(int fd, unsigned instance, const char *text)
{
    struct sockaddr_tipc name = name_of(instance);
    return sendto(fd, text, strlen(text), 0, (struct sockaddr *)&name, sizeof(name));
}

/* Whether the next message is this text. Does not wait. */
static inline int gets(int fd, const char *text)
{
    char data[64];
    ssize_t len = recv(fd, data, sizeof(data), MSG_DONTWAIT);
    return len == (ssize_t)strlen(text) && memcmp(data, text, (size_t)len) == 0;
}

/* Both ends of a connection. */
static inline void connection(int type, unsigned instance, int ends[2])
{
    struct sockaddr_tipc name = name_of(instance);
    int listener = server(type, instance);
    ends[0] = socket(AF_TIPC, type | SOCK_NONBLOCK, 0);
    CHECK(listen(listener, 1) == 0);
    FAILS(connect(ends[0], (struct sockaddr *)&name, sizeof(name)), EINPROGRESS);
    ends[1] = accept(listener, NULL, NULL);
    CHECK(ends[1] >= 0);
    fcntl(ends[0], F_SETFL, 0);
    close(listener);
}

/* Sends until the connection takes no more. */
static inline void fill(int fd)
{
    static char data[1024];
    while (send(fd, data, sizeof(data), MSG_DONTWAIT) >= 0)
        continue;
    IS(errno, EAGAIN);
}

static inline int drain(int fd)
{
    static char data[66000];
    int num = 0;
    while (recv(fd, data, sizeof(data), MSG_DONTWAIT) >= 0)
        num++;
    return num;
}

static inline short polled(int fd, short events, int ms)
{
    struct pollfd one = {fd, events, 0};
    int num = poll(&one, 1, ms);
    check_is(num, one.revents != 0, "the number that poll returns", __FILE__, __LINE__);
    return one.revents;
}

/* Whether a child of this process ended well. */
static inline int ended_well(pid_t child)
{
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

static inline long ms_now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Time of the processor that this process has used. */
static inline long used_ms(void)
{
    struct timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1000 + used.tv_nsec / 1000000;
}

static inline void pause_ms(int ms)
{
    struct timespec time = {ms / 1000, ms % 1000 * 1000000L};
    while (nanosleep(&time, &time) != 0)
        continue;
}

/* Whether nobody has the name any more. The sockets of a process that has ended may take a moment. */
static inline int withdrawn(int sender, unsigned instance)
{
    for (int look = 0; look < 500 && send_to(sender, instance, "x") >= 0; look++)
        pause_ms(10);
    return send_to(sender, instance, "x") < 0 && errno == EHOSTUNREACH;
}

static inline int done(void)
{
    return failures != 0;
}

#endif
