/* Step 1: the same program on every board. It prints which boards come and go, and greets each that comes. */
#include <stdio.h>
#include <unistd.h>
#include <zeb/zeb.h>

#define HELLO_APP 300

static void *on_message(zeb_msg_t *msg)
{
    printf("%d: node %u says %.*s\n", zeb_get_my_node_id(), msg->hdr.src_node, (int)zeb_msg_data_len(msg),
           (const char *)msg->data);
    free(msg); /* a received message belongs to the dispatcher */
    return NULL;
}

static void greet(uint32_t node)
{
    zeb_msg_t *msg = zeb_msg_alloc(5, 1, 0);

    memcpy(msg->data, "hello", 5);
    (void)zeb_sendto(HELLO_APP, node, HELLO_APP, msg, 0); /* gone again: then there is nobody to greet */
    free(msg);                                            /* a sent message still belongs to the sender */
}

static void *on_event(zeb_event_t event)
{
    uint32_t node = event.event.app.node;

    if ((int)node == zeb_get_my_node_id())
        return NULL; /* an application joins itself too */
    printf("%d: node %u is %s\n", zeb_get_my_node_id(), node, event.type == ZEB_APP_JOIN ? "here" : "gone");
    if (event.type == ZEB_APP_JOIN)
        greet(node);
    return NULL;
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_message}, {0, NULL}};

    (void)setvbuf(stdout, NULL, _IOLBF, 0); /* each line at once */
    if (zeb_register(HELLO_APP, "hello", dispatchers, on_event) != 0)
        return 1;
    zeb_run();
    for (;;)
        pause();
}
