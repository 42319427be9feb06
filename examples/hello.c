/* Registers application 100, waits for other instances of itself, and sends each of them a message. Start it on two
 * boards. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <zeb/zeb.h>

#define HELLO_APP 100

static int s_joined[2]; /* a pipe that passes join events from the library's thread to main */

static void *on_message(zeb_msg_t *msg)
{
    printf("from node %u: %s\n", msg->hdr.src_node, (const char *)msg->data);
    fflush(stdout);
    free(msg); /* a received message belongs to the dispatcher */
    return NULL;
}

static void *on_event(zeb_event_t event)
{
    int node = (int)event.event.app.node;
    if (event.type == ZEB_APP_JOIN && node != zeb_get_my_node_id())
        (void)!write(s_joined[1], &node, sizeof(node));
    return NULL;
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_message}, {0, NULL}};
    const char text[] = "hello, board";
    zeb_msg_t *msg;
    int node;

    if (pipe(s_joined) != 0 || zeb_register(HELLO_APP, "hello", dispatchers, on_event) != 0) {
        fprintf(stderr, "no TIPC, or no node id in /tmp/addr/.zeb_node_addr\n");
        return 1;
    }
    zeb_run(); /* an application communicates with its own id without zeb_comm_with */

    msg = zeb_msg_alloc(sizeof(text), 1, 0);
    memcpy(msg->data, text, sizeof(text));
    while (read(s_joined[0], &node, sizeof(node)) == (ssize_t)sizeof(node)) {
        printf("node %d joined\n", node);
        fflush(stdout);
        if (zeb_sendto(HELLO_APP, (uint32_t)node, HELLO_APP, msg, 0) != 0)
            fprintf(stderr, "node %d is gone again\n", node);
    }
    free(msg); /* a sent message still belongs to the sender */
    return 0;
}
