// TIPC for the programs of bench/ that count instructions: every call on a socket succeeds and does nothing.
//
// interpose.cpp, the TIPC of the tests, would be counted along with the library: it locks, looks the socket up, and
// keeps a copy of each datagram, so that a send of 869 instructions counts 1,366. These definitions are in a header for
// the same reason: a program's only source includes them, and the compiler inlines the hook. All differences between
// the libc of the tests and that of the benchmarks are in this file.
#ifndef TESTS_SUPPORT_INTERPOSE_BARE_H
#define TESTS_SUPPORT_INTERPOSE_BARE_H

#include <arpa/inet.h>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <zeb/zeb_msg.h>

namespace bare
{
// Runs inside each sendto. The program defines it.
static void on_sendto(const void *bytes);

// What the receive thread reads: `left` times the same datagram, from nodes 1 to `nodes` in turn. After the last one
// poll never returns.
constexpr size_t DATAGRAM_LEN = ZEB_MSG_HDR_LEN + 64;
static uint8_t s_datagram[DATAGRAM_LEN]; // in network order
static uint32_t s_nodes = 1;
static int s_left;
} // namespace bare

extern "C" {
int socket(int, int, int)
{
    return eventfd(0, 0);
}

int connect(int, const struct sockaddr *, socklen_t)
{
    return 0;
}

int bind(int, const struct sockaddr *, socklen_t)
{
    return 0;
}

int setsockopt(int, int, int, const void *, socklen_t)
{
    return 0;
}

ssize_t send(int, const void *, size_t len, int)
{
    return (ssize_t)len;
}

ssize_t sendto(int, const void *bytes, size_t len, int, const struct sockaddr *, socklen_t)
{
    bare::on_sendto(bytes);
    return (ssize_t)len;
}

int poll(struct pollfd *fds, nfds_t num, int)
{
    while (bare::s_left == 0)
        (void)pause();
    fds[0].revents = 0;
    fds[num - 1].revents = POLLIN;
    return 1;
}

ssize_t recvmsg(int, struct msghdr *msg, int)
{
    uint32_t node = htonl(1 + (uint32_t)bare::s_left % bare::s_nodes);
    memcpy(bare::s_datagram + offsetof(zeb_msg_hdr_t, src_node), &node, sizeof(node));
    memcpy(msg->msg_iov[0].iov_base, bare::s_datagram, bare::DATAGRAM_LEN);
    msg->msg_controllen = 0;
    bare::s_left--;
    return (ssize_t)bare::DATAGRAM_LEN;
}
}

#endif
