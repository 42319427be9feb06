/* Plain TIPC by name. `tipc_name receive INSTANCE` waits for one datagram, `tipc_name send INSTANCE` retries a datagram
 * until the name is published, and `tipc_name timeout SECONDS` waits for the time-out of a topology subscription and
 * prints how long that took. */
#include <linux/tipc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "platform/tipc_name.h"

static int wait_timeout(unsigned seconds)
{
    struct sockaddr_tipc addr = tipc_name(TIPC_TOP_SRV, TIPC_TOP_SRV, TIPC_CLUSTER_SCOPE);
    struct tipc_subscr request;
    struct tipc_event event;
    struct timespec begin, end;
    int sd = socket(AF_TIPC, SOCK_SEQPACKET, 0);
    memset(&request, 0, sizeof(request));
    request.seq.type = 4711;
    request.timeout = seconds * 1000;
    request.filter = TIPC_SUB_SERVICE;
    clock_gettime(CLOCK_MONOTONIC, &begin);
    if (connect(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0 || send(sd, &request, sizeof(request), 0) < 0 ||
        recv(sd, &event, sizeof(event), 0) != (ssize_t)sizeof(event) || event.event != TIPC_SUBSCR_TIMEOUT)
        return 1;
    clock_gettime(CLOCK_MONOTONIC, &end);
    printf("timed out after %ld s\n", (long)(end.tv_sec - begin.tv_sec));
    return 0;
}

int main(int argc, char **argv)
{
    unsigned number = argc > 2 ? (unsigned)strtoul(argv[2], NULL, 10) : 0;
    struct sockaddr_tipc addr = tipc_name(4711, number, TIPC_CLUSTER_SCOPE);
    char text[32] = "hello";
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    if (argc < 3 || sd < 0)
        return 2;
    if (strcmp(argv[1], "timeout") == 0)
        return wait_timeout(number);
    if (strcmp(argv[1], "receive") == 0) {
        if (bind(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0 || recv(sd, text, sizeof(text), 0) <= 0)
            return 1;
        printf("received %s\n", text);
        return 0;
    }
    while (sendto(sd, text, sizeof(text), 0, (struct sockaddr *)&addr, sizeof(addr)) < 0)
        usleep(10000); /* the name is not published on this node yet */
    return 0;
}
