/* A server with a loop of its own: one thread waits in epoll for its standard input and for the library, and runs all
 * callbacks. It sends each one-way message back to its sender, and answers each request with the number of messages so
 * far. At the end of its standard input it stops the library: its peers see the quit while the program goes on.
 * Usage: epoll_server */
#include <stdio.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <zeb/zeb_ext.h>

#define SERVER_APP 100
#define CLIENT_APP 200
#define ITEMS_PER_TURN 16

typedef struct server_s {
    unsigned messages;
} server_t;

static void on_message(void *context, zeb_msg_t *msg)
{
    server_t *server = context;

    server->messages++;
    (void)zeb_sendto(SERVER_APP, msg->hdr.src_node, msg->hdr.src_app, msg, 0);
    free(msg);
}

static void on_call(void *context, zeb_msg_t *request)
{
    const server_t *server = context;
    zeb_msg_t *reply = zeb_msg_alloc(64, request->hdr.app_ver, 0);

    (void)snprintf((char *)reply->data, 64, "%u messages so far", server->messages);
    (void)zeb_rpc_reply(request, reply, 0);
    free(reply);
    free(request);
}

static void on_event(void *context, const zeb_event_t *event)
{
    (void)context;
    printf("[server] %u/%u %s\n", event->event.app.app, event->event.app.node,
           event->type == ZEB_APP_JOIN ? "joined" : "quit");
    fflush(stdout);
}

static int start(server_t *server)
{
    const zeb_app_dispatcher_t dispatchers[] = {{1, on_message, on_call}, {0, NULL, NULL}};
    zeb_app_options_t options = {.size = sizeof(options),
                                 .app = SERVER_APP,
                                 .mode = ZEB_APP_POLLED,
                                 .name = "epoll_server",
                                 .dispatchers = dispatchers,
                                 .event = on_event,
                                 .context = server};
    int ret = zeb_register_app(&options);

    if (ret == 0)
        ret = zeb_comm_with(SERVER_APP, CLIENT_APP);
    if (ret == 0)
        zeb_run();
    return ret;
}

static int watch(int loop, int fd)
{
    struct epoll_event event = {.events = EPOLLIN, .data = {.fd = fd}};

    return epoll_ctl(loop, EPOLL_CTL_ADD, fd, &event);
}

/* Until the end of the standard input. */
static void serve(int loop, int library)
{
    struct epoll_event event;
    char byte;

    for (;;) {
        if (epoll_wait(loop, &event, 1, -1) < 1)
            continue; /* a signal */
        if (event.data.fd == library)
            (void)zeb_dispatch(SERVER_APP, ITEMS_PER_TURN);
        else if (read(0, &byte, 1) < 1)
            return;
    }
}

int main(void)
{
    server_t server = {0};
    int loop = epoll_create1(EPOLL_CLOEXEC);
    int library;

    if (start(&server) != 0) {
        fprintf(stderr, "epoll_server: cannot start\n");
        return 1;
    }
    library = zeb_app_fd(SERVER_APP);
    if (watch(loop, 0) != 0 || watch(loop, library) != 0) {
        perror("epoll_server");
        return 1;
    }
    serve(loop, library);
    close(loop); /* before the library closes the descriptor that is in it */
    (void)zeb_stop();
    printf("[server] stopped after %u messages\n", server.messages);
    return 0;
}
