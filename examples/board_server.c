/* A server. It prints which instances join and quit and which messages arrive. It sends each one-way message back to
 * its sender, and answers each request with the node id. With `silent` it answers no request; with `version N` it
 * serves only messages of version N. It ends with its standard input. Usage: board_server [silent | version N] */
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <zeb/zeb.h>

#define SERVER_APP 100
#define CLIENT_APP 200

static int s_silent;

static void echo(zeb_msg_t *msg)
{
    uint32_t app = msg->hdr.src_app;
    uint32_t node = msg->hdr.src_node;

    printf("[server %d] got \"%s\" from %u/%u\n", zeb_get_my_node_id(), (const char *)msg->data, app, node);
    if (zeb_sendto(SERVER_APP, node, app, msg, 0) != 0)
        printf("[server %d] %u/%u is gone\n", zeb_get_my_node_id(), app, node);
}

static void answer(const zeb_msg_t *request)
{
    zeb_msg_t *reply = zeb_msg_alloc(64, request->hdr.app_ver, 0);

    printf("[server %d] asked by %u/%u%s\n", zeb_get_my_node_id(), request->hdr.src_app, request->hdr.src_node,
           s_silent ? ", says nothing" : "");
    (void)snprintf((char *)reply->data, 64, "node %d is well", zeb_get_my_node_id());
    if (!s_silent && zeb_rpc_reply(request, reply, 0) != 0)
        printf("[server %d] the answer could not be sent\n", zeb_get_my_node_id());
    free(reply);
}

static void *on_message(zeb_msg_t *msg)
{
    if ((msg->hdr.flag & ZEB_MSG_FLAG_REQUEST) != 0)
        answer(msg);
    else
        echo(msg);
    fflush(stdout);
    free(msg);
    return NULL;
}

static void *on_event(zeb_event_t event)
{
    printf("[server %d] %u/%u %s\n", zeb_get_my_node_id(), event.event.app.app, event.event.app.node,
           event.type == ZEB_APP_JOIN ? "joined" : "quit");
    fflush(stdout);
    return NULL;
}

int main(int argc, char **argv)
{
    zeb_msg_dispatcher_t dispatchers[] = {{1, on_message}, {0, NULL}};
    char byte;

    s_silent = argc > 1 && strcmp(argv[1], "silent") == 0;
    if (argc > 2 && strcmp(argv[1], "version") == 0)
        dispatchers[0].ver = (uint32_t)strtoul(argv[2], NULL, 10);
    if (zeb_register(SERVER_APP, "board_server", dispatchers, on_event) != 0) {
        fprintf(stderr, "board_server: cannot register\n");
        return 1;
    }
    if (zeb_comm_with(SERVER_APP, CLIENT_APP) != 0)
        return 1;
    zeb_run();
    while (read(0, &byte, 1) > 0)
        continue;
    return 0;
}
