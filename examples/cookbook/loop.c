/* One thread waits for the library and for SIGTERM, and stops the library before the program ends. */
#define _POSIX_C_SOURCE 200809L /* sigprocmask */
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/signalfd.h>
#include <zeb/zeb_ext.h>

#define APP 100
#define ITEMS_PER_TURN 64

static void on_message(void *context, zeb_msg_t *msg)
{
    (void)context;
    free(msg);
}

static void on_event(void *context, const zeb_event_t *event)
{
    (void)context;
    printf("node %u is %s\n", event->event.app.node, event->type == ZEB_APP_JOIN ? "here" : "gone");
}

int main(void)
{
    const zeb_app_dispatcher_t dispatchers[] = {{1, on_message, NULL}, {0, NULL, NULL}};
    const zeb_app_options_t options = {.size = sizeof(options),
                                       .app = APP,
                                       .mode = ZEB_APP_POLLED,
                                       .name = "loop",
                                       .dispatchers = dispatchers,
                                       .event = on_event};
    struct pollfd ready[2] = {{.events = POLLIN}, {.events = POLLIN}};
    sigset_t signals;

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, NULL); /* before the library starts its thread, which inherits it */
    if (zeb_register_app(&options) != 0)
        return 1;
    zeb_run();
    ready[0].fd = zeb_app_fd(APP);
    ready[1].fd = signalfd(-1, &signals, SFD_CLOEXEC);
    while (ready[1].revents == 0) {
        if (poll(ready, 2, -1) > 0 && ready[0].revents != 0)
            (void)zeb_dispatch(APP, ITEMS_PER_TURN);
    }
    if (zeb_stop() == 0)
        puts("stopped");
    return 0;
}
