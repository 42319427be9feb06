/* Step 2, the manager: it prints which cards come and go, and what they raise and clear. */
#include <stdio.h>
#include <unistd.h>
#include <zeb/zeb.h>

#define MANAGER_APP 300
#define CARD_APP 301

enum { ALARM_RAISE = 1, ALARM_CLEAR = 2 }; /* message versions; the payload of both is text */

static void print_alarm(zeb_msg_t *msg, const char *what)
{
    printf("%d: card %u %s: %.*s\n", zeb_get_my_node_id(), msg->hdr.src_node, what, (int)zeb_msg_data_len(msg),
           (const char *)msg->data);
    free(msg);
}

static void *on_raise(zeb_msg_t *msg)
{
    print_alarm(msg, "raises");
    return NULL;
}

static void *on_clear(zeb_msg_t *msg)
{
    print_alarm(msg, "clears");
    return NULL;
}

static void *on_event(zeb_event_t event)
{
    if (event.event.app.app == CARD_APP)
        printf("%d: card %u is %s\n", zeb_get_my_node_id(), event.event.app.node,
               event.type == ZEB_APP_JOIN ? "here" : "gone");
    return NULL;
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{ALARM_RAISE, on_raise}, {ALARM_CLEAR, on_clear}, {0, NULL}};

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    if (zeb_register(MANAGER_APP, "manager", dispatchers, on_event) != 0 || zeb_comm_with(MANAGER_APP, CARD_APP) != 0)
        return 1;
    zeb_run();
    for (;;)
        pause();
}
