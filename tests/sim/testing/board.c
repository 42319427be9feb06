/* A board for the tests of the helpers. It says which boards are there, and what they say to it. Its orders are lines
 * of standard input: `send BOARD TEXT`, `flood LINES`, and `errors`, for a line on standard error. */
#include <errno.h>
#include <linux/tipc.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define BOARDS 18000

static int s_messages;
static int s_topology;

static uint32_t own_node(void)
{
    struct sockaddr_tipc own;
    socklen_t len = sizeof(own);
    memset(&own, 0, sizeof(own));
    return getsockname(s_messages, (struct sockaddr *)&own, &len) == 0 ? own.addr.id.node : 0;
}

static int open_sockets(void)
{
    struct sockaddr_tipc name;
    struct tipc_subscr all;
    int droppable = 0;
    s_messages = socket(AF_TIPC, SOCK_RDM, 0);
    s_topology = socket(AF_TIPC, SOCK_SEQPACKET, 0);
    (void)setsockopt(s_messages, SOL_TIPC, TIPC_DEST_DROPPABLE, &droppable, sizeof(droppable));
    memset(&name, 0, sizeof(name));
    name.family = AF_TIPC;
    name.addrtype = TIPC_ADDR_NAMESEQ;
    name.scope = TIPC_CLUSTER_SCOPE;
    name.addr.nameseq.type = BOARDS;
    name.addr.nameseq.lower = name.addr.nameseq.upper = own_node();
    if (bind(s_messages, (struct sockaddr *)&name, sizeof(name)) != 0)
        return -errno;
    name.addrtype = TIPC_ADDR_NAME;
    name.addr.name.name.type = TIPC_TOP_SRV;
    name.addr.name.name.instance = TIPC_TOP_SRV;
    name.addr.name.domain = 0;
    if (connect(s_topology, (struct sockaddr *)&name, sizeof(name)) != 0)
        return -errno;
    memset(&all, 0, sizeof(all));
    all.seq.type = BOARDS;
    all.seq.upper = ~0U;
    all.timeout = TIPC_WAIT_FOREVER;
    all.filter = TIPC_SUB_PORTS;
    return send(s_topology, &all, sizeof(all), 0) == sizeof(all) ? 0 : -errno;
}

static void on_topology(void)
{
    struct tipc_event event;
    if (recv(s_topology, &event, sizeof(event), 0) != sizeof(event))
        exit(3);
    printf("board %u is %s\n", event.found_lower, event.event == TIPC_PUBLISHED ? "there" : "gone");
}

static void on_message(void)
{
    struct sockaddr_tipc from;
    socklen_t len = sizeof(from);
    char text[1024];
    ssize_t bytes = recvfrom(s_messages, text, sizeof(text) - 1, 0, (struct sockaddr *)&from, &len);
    text[bytes > 0 ? bytes : 0] = '\0';
    if (bytes > 0)
        printf("board %u says %s\n", from.addr.id.node, text);
    else
        printf("a message came back\n");
}

static void send_text(unsigned board, const char *text)
{
    struct sockaddr_tipc name;
    memset(&name, 0, sizeof(name));
    name.family = AF_TIPC;
    name.addrtype = TIPC_ADDR_NAME;
    name.addr.name.name.type = BOARDS;
    name.addr.name.name.instance = board;
    if (sendto(s_messages, text, strlen(text), MSG_DONTWAIT, (struct sockaddr *)&name, sizeof(name)) < 0)
        printf("not sent: %s\n", strerror(errno));
    else
        printf("sent\n");
}

static void on_order(char *line)
{
    unsigned number = 0;
    int at = 0;
    line[strcspn(line, "\n")] = '\0';
    if (sscanf(line, "send %u %n", &number, &at) == 1 && at > 0)
        send_text(number, line + at);
    else if (sscanf(line, "flood %u", &number) == 1)
        for (unsigned i = 0; i < number; i++)
            printf("line %u of a flood\n", i);
    else if (strcmp(line, "errors") == 0)
        fprintf(stderr, "this is an error\n");
}

int main(int argc, char **argv)
{
    char line[2048];
    int ret = open_sockets();
    struct pollfd waits[] = {{0, POLLIN, 0}, {s_messages, POLLIN, 0}, {s_topology, POLLIN, 0}};
    setvbuf(stdin, NULL, _IONBF, 0);
    setvbuf(stdout, NULL, _IOLBF, 0);
    if (ret != 0) {
        fprintf(stderr, "no TIPC: %s\n", strerror(-ret));
        return 2;
    }
    printf("board %u, %s\n", own_node(), argc > 1 ? argv[1] : "plain");
    for (;;) {
        if (poll(waits, 3, -1) < 0)
            return 4;
        if (waits[1].revents != 0)
            on_message();
        if (waits[2].revents != 0)
            on_topology();
        if (waits[0].revents == 0)
            continue;
        if (fgets(line, sizeof(line), stdin) == NULL)
            break;
        on_order(line);
    }
    printf("end of input\n");
    return 0;
}
