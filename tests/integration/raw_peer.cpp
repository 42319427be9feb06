// A peer without the library: a TIPC socket that commands on standard input drive. It prints what it receives in hex,
// with the milliseconds of the monotonic clock.
//   bind APP NODE      take the name        send APP NODE HEX   send a datagram        unbind   close the socket
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/tipc.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "platform/tipc_name.h"

static long now_ms()
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static struct sockaddr_tipc name_of(unsigned app, unsigned node)
{
    return tipc_name(2303, app << 16 | node, TIPC_CLUSTER_SCOPE);
}

static int new_socket()
{
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    int off = 0;
    (void)setsockopt(sd, SOL_TIPC, TIPC_DEST_DROPPABLE, &off, sizeof(off));
    return sd;
}

static void run_command(const char *line, int *sd)
{
    unsigned app = 0;
    unsigned node = 0;
    int at = 0;
    if (sscanf(line, "bind %u %u", &app, &node) == 2) {
        struct sockaddr_tipc addr = name_of(app, node);
        printf("done bind %d\n", bind(*sd, (struct sockaddr *)&addr, sizeof(addr)));
    } else if (sscanf(line, "send %u %u %n", &app, &node, &at) == 2) {
        std::vector<unsigned char> bytes;
        unsigned byte = 0;
        for (const char *hex = line + at; sscanf(hex, "%2x", &byte) == 1; hex += 2)
            bytes.push_back((unsigned char)byte);
        struct sockaddr_tipc addr = name_of(app, node);
        ssize_t sent = sendto(*sd, bytes.data(), bytes.size(), 0, (struct sockaddr *)&addr, sizeof(addr));
        printf("done send %d\n", sent == (ssize_t)bytes.size() ? 0 : -1);
    } else if (strncmp(line, "unbind", 6) == 0) {
        (void)close(*sd);
        *sd = new_socket();
        printf("done unbind 0\n");
    }
    fflush(stdout);
}

static bool receive(int sd)
{
    static unsigned char bytes[66000];
    ssize_t len = recv(sd, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (len <= 0)
        return false;
    printf("recv %ld ", now_ms());
    for (ssize_t i = 0; i < len; i++)
        printf("%02x", bytes[i]);
    printf("\n");
    fflush(stdout);
    return true;
}

int main()
{
    static char line[140000];
    int sd = new_socket();
    setvbuf(stdin, nullptr, _IONBF, 0);
    for (;;) {
        struct pollfd fds[2] = {{0, POLLIN, 0}, {sd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0)
            return 1;
        if (fds[1].revents != 0)
            (void)receive(sd);
        if (fds[0].revents != 0) {
            if (fgets(line, sizeof(line), stdin) == nullptr)
                return 0;
            run_command(line, &sd);
        }
    }
}
