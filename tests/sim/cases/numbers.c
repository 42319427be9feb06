/* A descriptor's number is used again for something else after each way to close a socket: the new one is not taken for
 * the socket, and the socket is closed. */
#include "case.h"
#include <sys/syscall.h>

enum { WAYS = 9 };
static const char *ways[WAYS] = {"close", "close_range", "closefrom", "fclose",      "freopen",
                                 "dup2",  "dup3",        "syscall",   "close_range2"};

/* Closes the socket. The number is free after it, or belongs to /dev/null. */
static void close_by(int way, int fd)
{
    int null = open("/dev/null", O_RDONLY);
    FILE *file = way == 3 || way == 4 ? fdopen(fd, "r") : NULL;
    if (way == 0)
        IS(close(fd), 0);
    else if (way == 1)
        IS(close_range((unsigned)fd, (unsigned)fd, 0), 0);
    else if (way == 2)
        closefrom(fd);
    else if (way == 3)
        IS(fclose(file), 0);
    else if (way == 4)
        CHECK(freopen("/dev/null", "r", file) == file);
    else if (way == 5)
        IS(dup2(null, fd), fd);
    else if (way == 6)
        IS(dup3(null, fd, 0), fd);
    else if (way == 7)
        IS(syscall(SYS_close, fd), 0);
    else
        IS(close_range((unsigned)fd, ~0U, 0), 0);
    close(null);
}

/* The number as that of a pipe's end, which can do nothing that a socket can. */
static void is_a_pipe(int fd)
{
    int pipes[2];
    char text = 0;
    struct sockaddr_tipc name;
    socklen_t len = sizeof(name);
    CHECK(pipe(pipes) == 0);
    if (pipes[0] != fd) {
        IS(dup2(pipes[0], fd), fd);
        close(pipes[0]);
    }
    if (pipes[1] == fd)
        return;
    IS(polled(fd, POLLIN | POLLOUT, 0), 0);
    IS(write(pipes[1], "x", 1), 1);
    IS(polled(fd, POLLIN | POLLOUT, -1), POLLIN);
    IS(read(fd, &text, 1), 1);
    IS(text, 'x');
    FAILS(getsockname(fd, (struct sockaddr *)&name, &len), ENOTSOCK);
    FAILS(recv(fd, &text, 1, MSG_DONTWAIT), ENOTSOCK);
    close(pipes[1]);
    close(fd);
}

int main(void)
{
    for (int way = 0; way < WAYS; way++) {
        int before = failures;
        int sender = client();
        int low = server(SOCK_RDM, (unsigned)way + 20);
        int fd = dup2(low, 100);
        close(low);
        IS(send_to(sender, (unsigned)way + 20, "x"), 1);
        close_by(way, fd);
        FAILS(recv(fd, &low, 1, MSG_DONTWAIT), way >= 4 && way <= 6 ? ENOTSOCK : EBADF);
        is_a_pipe(fd);
        if (way != 7) /* a close past the C library is noticed some time later */
            FAILS(send_to(sender, (unsigned)way + 20, "x"), EHOSTUNREACH);
        CHECK(withdrawn(sender, (unsigned)way + 20));
        if (failures != before)
            printf("after %s\n", ways[way]);
        close(sender);
    }
    return done();
}
