/* Many names, a subscription in the other byte order, a message read in parts, and options that programs ask for. */
#include "case.h"
#include <arpa/inet.h>
#include <sys/ioctl.h>

enum { SOCKETS = 300, EACH = 60 };

static void many_names(void)
{
    static int fds[SOCKETS];
    int sender = client();
    for (unsigned i = 0; i < SOCKETS; i++) {
        fds[i] = client();
        for (unsigned k = 0; k < EACH; k++) {
            struct sockaddr_tipc name = name_of(1000 + i * EACH + k);
            if (bind(fds[i], (struct sockaddr *)&name, sizeof(name)) != 0) {
                IS(i * EACH + k, -1);
                return;
            }
        }
    }
    for (unsigned i = 0; i < SOCKETS; i += SOCKETS / 3 - 1)
        IS(send_to(sender, 1000 + i * EACH + EACH - 1, "x"), 1);
    for (unsigned i = 0; i < SOCKETS; i++)
        close(fds[i]);
    FAILS(send_to(sender, 1000, "x"), EHOSTUNREACH);
    close(sender);
}

static void subscription(void)
{
    struct sockaddr_tipc name = name_of(TIPC_TOP_SRV);
    struct tipc_subscr order = {{htonl(TYPE), 0, htonl(100)}, htonl(50), htonl(TIPC_SUB_SERVICE), "handle"};
    struct tipc_event event;
    int fd = socket(AF_TIPC, SOCK_SEQPACKET, 0);
    name.addr.name.name.type = TIPC_TOP_SRV;
    IS(connect(fd, (struct sockaddr *)&name, sizeof(name)), 0);
    IS(send(fd, &order, sizeof(order), 0), (long)sizeof(order));
    IS(polled(fd, POLLIN, 5000), POLLIN);
    IS(recv(fd, &event, sizeof(event), 0), (long)sizeof(event));
    IS(ntohl(event.event), TIPC_SUBSCR_TIMEOUT);
    CHECK(memcmp(&event.s, &order, sizeof(order)) == 0);
    close(fd);
}

static void parts(void)
{
    char data[8] = "";
    int ends[2];
    connection(SOCK_SEQPACKET, 1, ends);
    IS(send(ends[0], "abcdef", 6, 0), 6);
    IS(recv(ends[1], data, 3, MSG_EOR), 3);
    IS(recv(ends[1], data, 8, MSG_EOR | MSG_DONTWAIT), 3);
    CHECK(memcmp(data, "def", 3) == 0);
    IS(polled(ends[1], POLLIN, 0), 0);
    close(ends[0]);
    close(ends[1]);
}

static void options(void)
{
    int fd = server(SOCK_RDM, 2);
    int value = 1;
    socklen_t len = sizeof(value);
    int pair[2];
    struct tipc_sioc_nodeid_req node = {.peer = 0};
    struct tipc_sioc_ln_req link = {.peer = 1};
    struct sockaddr_tipc own;
    socklen_t size = sizeof(own);
    IS(getsockname(fd, (struct sockaddr *)&own, &size), 0);
    node.peer = own.addr.id.node;
    IS(ioctl(fd, SIOCGETNODEID, &node), 0);
    CHECK(node.node_id[0] != '\0');
    FAILS(ioctl(fd, SIOCGETLINKNAME, &link), EADDRNOTAVAIL);
    FAILS(ioctl(fd, FIONREAD, &value), ENOTTY);
    IS(setsockopt(fd, SOL_TIPC, TIPC_CONN_TIMEOUT, &value, sizeof(value)), 0);
    IS(getsockopt(fd, SOL_TIPC, TIPC_SOCK_RECVQ_USED, &value, &len), 0);
    IS(value, 0);
    IS(socketpair(AF_TIPC, SOCK_SEQPACKET, 0, pair), 0);
    IS(send(pair[0], "x", 1, 0), 1);
    CHECK(gets(pair[1], "x"));
    close(pair[0]);
    IS(polled(pair[1], POLLIN, -1), POLLIN | POLLHUP);
    close(pair[1]);
    close(fd);
}

int main(void)
{
    many_names();
    subscription();
    parts();
    options();
    return done();
}
