// The instructions of the receive thread and the proxy thread for one one-way message: callgrind counts two runs of
// different length, and their difference is divided. The calls on TIPC are interposed, so that only the library's own
// work is counted. Usage: recv_cost [MESSAGES [PEERS [APPS]]]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <arpa/inet.h>

#include <zeb/zeb.h>

#include "handshake_core.h"
#include "zeb_cfg.h"

constexpr uint32_t APP = 100;
constexpr uint32_t PEER = 200;

static uint32_t s_peers = 10;
static int s_messages = 1000;
static int s_left;
static int s_dispatched;

static union {
    zeb_msg_t msg;
    char bytes[offsetof(zeb_msg_t, data) + 64];
} s_wire; // in network byte order

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
ssize_t sendto(int, const void *, size_t len, int, const struct sockaddr *, socklen_t)
{
    return (ssize_t)len;
}
int poll(struct pollfd *fds, nfds_t num, int)
{
    while (s_left == 0)
        (void)pause();
    fds[0].revents = 0;
    fds[num - 1].revents = POLLIN;
    return 1;
}
ssize_t recvmsg(int, struct msghdr *hdr, int)
{
    constexpr size_t len = ZEB_MSG_HDR_LEN + 64;
    s_wire.msg.hdr.src_node = htonl(1 + (uint32_t)s_left % s_peers);
    memcpy(hdr->msg_iov[0].iov_base, &s_wire.msg.hdr, len);
    hdr->msg_controllen = 0;
    s_left--;
    return (ssize_t)len;
}
}

static void *count(zeb_msg_t *msg)
{
    free(msg);
    if (++s_dispatched == s_messages) {
        printf("%d of %d dispatched, %u peers online\n", s_dispatched, s_messages, s_peers);
        fflush(stdout);
        _exit(0);
    }
    return nullptr;
}

int main(int argc, char **argv)
{
    s_messages = argc > 1 ? atoi(argv[1]) : s_messages;
    s_peers = argc > 2 ? (uint32_t)atoi(argv[2]) : s_peers;
    uint32_t apps = argc > 3 ? (uint32_t)atoi(argv[3]) : 0;
    const zeb_msg_dispatcher_t table[] = {{1, count}, {0, nullptr}};
    if (zeb_register(APP, "bench", table, nullptr) != 0) {
        (void)fprintf(stderr, "needs a node id in /tmp/addr/.zeb_node_addr\n");
        return 1;
    }
    for (uint32_t i = 0; i < apps; i++)
        (void)zeb_comm_with(APP, 1000 + i);
    (void)zeb_comm_with(APP, PEER);
    for (uint32_t node = 1; node <= s_peers; node++) {
        zeb_inst_id_t *id = pair_of(APP, PEER, node);
        id->sync_id = node;
        id->sync_ack_id = node;
        zeb_set_app_inst(PEER, node);
        zeb_set_app_inst_ack(PEER, node);
        zeb_try_notify_app_join(APP, PEER, node);
    }
    zeb_msg_t *msg = &s_wire.msg;
    msg->hdr.len = ZEB_MSG_HDR_LEN + 64;
    msg->hdr.app_ver = 1;
    zeb_encode_msg_hdr(msg, 0, PEER, 1, APP, (uint32_t)zeb_get_my_node_id(), 0, 0);
    zeb_convert_to_network(msg);
    s_left = s_messages;
    zeb_run();
    for (;;)
        (void)pause();
}
