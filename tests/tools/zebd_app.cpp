// An application for the tests of zebd, the same on each node: it sends to itself on another node, and says when an
// instance quits. Usage: zebd_app APP [TO_NODE [GATE]]; with GATE its dispatcher waits until there is a file of that
// name.
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include <zeb/zeb.h>

static const char *s_gate;

static void *on_message(zeb_msg_t *msg)
{
    while (s_gate != nullptr && access(s_gate, F_OK) != 0)
        (void)usleep(1000); // between two looks
    free(msg);
    return nullptr;
}

static void *on_event(zeb_event_t event)
{
    printf("%s %u@%u\n", event.type == ZEB_APP_JOIN ? "join" : "quit", event.event.app.app, event.event.app.node);
    (void)fflush(stdout);
    return nullptr;
}

int main(int argc, char **argv)
{
    static const zeb_msg_dispatcher_t server[] = {{1, on_message}, {0, nullptr}};
    uint32_t app = argc > 1 ? (uint32_t)strtoul(argv[1], nullptr, 10) : 300;
    uint32_t to = argc > 2 ? (uint32_t)strtoul(argv[2], nullptr, 10) : 0;
    s_gate = argc > 3 ? argv[3] : nullptr;
    if (zeb_register(app, "zebd_app", server, on_event) != 0)
        return 1;
    zeb_run();
    for (;;) {
        zeb_msg_t *msg = zeb_msg_alloc(8, 1, 0);
        if (to != 0)
            (void)zeb_sendto(app, to, app, msg, ZEB_SEND_NOWAIT);
        free(msg);
        (void)usleep(500); // the pace, so that all CPUs are not taken
    }
}
