/* Step 2, a line card: the first SIGUSR1 makes it raise an alarm, the second clear it, and so on. */
#define _POSIX_C_SOURCE 200809L /* sigwait */
#include <signal.h>
#include <stdio.h>
#include <zeb/zeb.h>

#define MANAGER_APP 300
#define CARD_APP 301

enum { ALARM_RAISE = 1, ALARM_CLEAR = 2, LAMP = 3 }; /* message versions; the payload of each is text */

static void *on_lamp(zeb_msg_t *msg)
{
    printf("%d: lamp on, %.*s\n", zeb_get_my_node_id(), (int)zeb_msg_data_len(msg), (const char *)msg->data);
    free(msg);
    return NULL;
}

static void *on_event(zeb_event_t event)
{
    if (event.event.app.app == MANAGER_APP)
        printf("%d: manager %u is %s\n", zeb_get_my_node_id(), event.event.app.node,
               event.type == ZEB_APP_JOIN ? "here" : "gone");
    return NULL;
}

static void send_alarm(uint32_t version)
{
    zeb_msg_t *msg = zeb_msg_alloc(13, version, 0);

    memcpy(msg->data, "fan 1 stopped", 13);
    if (zeb_send(CARD_APP, MANAGER_APP, msg, 0) != 0)
        printf("%d: no manager\n", zeb_get_my_node_id());
    free(msg);
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{LAMP, on_lamp}, {0, NULL}};
    sigset_t signals;
    int number;

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigprocmask(SIG_BLOCK, &signals, NULL); /* the library's threads inherit it */
    if (zeb_register(CARD_APP, "card", dispatchers, on_event) != 0 || zeb_comm_with(CARD_APP, MANAGER_APP) != 0)
        return 1;
    zeb_run();
    for (;;) {
        sigwait(&signals, &number);
        send_alarm(ALARM_RAISE);
        sigwait(&signals, &number);
        send_alarm(ALARM_CLEAR);
    }
}
