/* Step 3, the manager: the cards that have an alarm are a group. When it grows, each of them turns its lamp on. */
#include <stdio.h>
#include <unistd.h>
#include <zeb/zeb.h>

#define MANAGER_APP 300
#define CARD_APP 301

enum { ALARM_RAISE = 1, ALARM_CLEAR = 2, LAMP = 3 }; /* message versions; the payload of each is text */

/* Used by the application's thread alone, as are all callbacks. */
static uint32_t s_group; /* of nodes */
static uint8_t s_has_alarm[ZEB_NODE_NUM];
static int s_members;

static void set_alarm(uint32_t node, uint8_t on)
{
    if (s_has_alarm[node] == on)
        return;
    s_has_alarm[node] = on;
    s_members += on ? 1 : -1;
    if (on)
        (void)zeb_add_node_mcast(MANAGER_APP, s_group, node);
    else
        zeb_del_node_mcast(MANAGER_APP, s_group, node);
}

static void *on_raise(zeb_msg_t *msg)
{
    zeb_msg_t *lamp = zeb_msg_alloc(64, LAMP, 0);

    set_alarm(msg->hdr.src_node, 1);
    (void)snprintf((char *)lamp->data, 64, "cards with an alarm: %d", s_members);
    (void)zeb_sendto(MANAGER_APP, s_group, CARD_APP, lamp, 0);
    free(lamp);
    free(msg);
    return NULL;
}

static void *on_clear(zeb_msg_t *msg)
{
    set_alarm(msg->hdr.src_node, 0);
    printf("%d: cards with an alarm: %d\n", zeb_get_my_node_id(), s_members);
    free(msg);
    return NULL;
}

static void *on_event(zeb_event_t event)
{
    uint32_t node = event.event.app.node;

    if (event.event.app.app != CARD_APP)
        return NULL;
    printf("%d: card %u is %s\n", zeb_get_my_node_id(), node, event.type == ZEB_APP_JOIN ? "here" : "gone");
    if (event.type == ZEB_APP_QUIT)
        set_alarm(node, 0);
    return NULL;
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{ALARM_RAISE, on_raise}, {ALARM_CLEAR, on_clear}, {0, NULL}};

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    if (zeb_register(MANAGER_APP, "manager", dispatchers, on_event) != 0 || zeb_comm_with(MANAGER_APP, CARD_APP) != 0)
        return 1;
    s_group = (uint32_t)zeb_create_node_mcast(MANAGER_APP);
    zeb_run();
    for (;;)
        pause();
}
