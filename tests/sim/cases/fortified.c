/* The calls as a program makes them that was compiled with -D_FORTIFY_SOURCE: sizes that the compiler does not know. */
#include "case.h"
#include <sys/select.h>

int main(int argc, char **argv)
{
    char data[64];
    size_t size = (size_t)argc * 32;
    nfds_t num = (nfds_t)argc;
    struct sockaddr_tipc from;
    socklen_t len = sizeof(from);
    int fd = server(SOCK_RDM, 1);
    int sender = client();
    struct pollfd fds[4] = {{fd, POLLIN, 0}};
    struct timespec none = {0, 0};
    fd_set in;
    (void)argv;
    send_to(sender, 1, "recv");
    IS(recv(fd, data, size, MSG_DONTWAIT), 4);
    CHECK(memcmp(data, "recv", 4) == 0);
    send_to(sender, 1, "read");
    IS(poll(fds, num, -1), 1);
    IS(ppoll(fds, num, &none, NULL), 1);
    IS(read(fd, data, size), 4);
    CHECK(memcmp(data, "read", 4) == 0);
    send_to(sender, 1, "from");
    IS(recvfrom(fd, data, size, MSG_DONTWAIT, (struct sockaddr *)&from, &len), 4);
    CHECK(memcmp(data, "from", 4) == 0);
    IS(from.family, AF_TIPC);
    IS(poll(fds, num, 0), 0);
    IS(ppoll(fds, num, &none, NULL), 0);
    FD_ZERO(&in);
    FD_SET(fd, &in);
    IS(pselect(fd + argc, &in, NULL, NULL, &none, NULL), 0);
    FAILS(pread(fd, data, size, 0), ESPIPE);
    return done();
}
