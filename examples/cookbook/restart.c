/* Each board tells every other its MTU. A board that restarts knows nothing of the past: so it is told again when it
 * joins, and what it said itself is forgotten when it quits. Usage: restart MTU */
#include <stdio.h>
#include <unistd.h>
#include <zeb/zeb.h>

#define APP 100

static uint32_t s_my_mtu;
static uint32_t s_mtu[ZEB_NODE_NUM]; /* by node; 0: not known. Used by the application's thread alone */

static void *on_mtu(zeb_msg_t *msg)
{
    uint32_t mtu;

    if (zeb_msg_data_len(msg) == sizeof(mtu)) {
        memcpy(&mtu, msg->data, sizeof(mtu));
        s_mtu[msg->hdr.src_node] = ntohl(mtu);
        printf("%d: node %u has MTU %u\n", zeb_get_my_node_id(), msg->hdr.src_node, s_mtu[msg->hdr.src_node]);
    }
    free(msg);
    return NULL;
}

static void tell(uint32_t node)
{
    zeb_msg_t *msg = zeb_msg_alloc(sizeof(uint32_t), 1, 0);
    uint32_t mtu = htonl(s_my_mtu);

    memcpy(msg->data, &mtu, sizeof(mtu));
    (void)zeb_sendto(APP, node, APP, msg, 0); /* gone again: it is told when it joins again */
    free(msg);
}

static void *on_event(zeb_event_t event)
{
    uint32_t node = event.event.app.node;

    if ((int)node == zeb_get_my_node_id())
        return NULL;
    if (event.type == ZEB_APP_JOIN) {
        tell(node);
    } else {
        s_mtu[node] = 0;
        printf("%d: node %u is gone\n", zeb_get_my_node_id(), node);
    }
    return NULL;
}

int main(int argc, char **argv)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_mtu}, {0, NULL}};

    s_my_mtu = argc > 1 ? (uint32_t)strtoul(argv[1], NULL, 10) : 1500;
    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    if (zeb_register(APP, "restart", dispatchers, on_event) != 0)
        return 1;
    zeb_run();
    for (;;)
        pause();
}
