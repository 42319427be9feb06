/* Sends one message to several applications by a group of them. */
#include <stdio.h>
#include <unistd.h>
#include <zeb/zeb_ext.h>

#define SENDER 100
#define ALARM_LOG 101
#define LAMPS 102

static void *on_alarm(zeb_msg_t *msg)
{
    printf("application %u: %s\n", msg->hdr.dst_app, (const char *)msg->data);
    free(msg);
    return NULL;
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_alarm}, {0, NULL}};
    const zeb_msg_dispatcher_t client[] = {{0, NULL}};
    zeb_msg_t *msg = zeb_msg_alloc(6, 1, 0);
    int group;

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    if (zeb_register(SENDER, "sender", client, NULL) != 0 ||
        zeb_register(ALARM_LOG, "alarm_log", dispatchers, NULL) != 0 ||
        zeb_register(LAMPS, "lamps", dispatchers, NULL) != 0)
        return 1;
    (void)zeb_comm_with(SENDER, ALARM_LOG);
    (void)zeb_comm_with(SENDER, LAMPS);
    (void)zeb_comm_with(ALARM_LOG, SENDER);
    (void)zeb_comm_with(LAMPS, SENDER);
    zeb_run();
    (void)zeb_wait_online(SENDER, ALARM_LOG, ZEB_NODE_ALL, 1, 0);
    (void)zeb_wait_online(SENDER, LAMPS, ZEB_NODE_ALL, 1, 0);

    group = zeb_create_app_mcast(SENDER);
    if (group < 0 || zeb_add_app_mcast(SENDER, (uint32_t)group, ALARM_LOG) != 0 ||
        zeb_add_app_mcast(SENDER, (uint32_t)group, LAMPS) != 0)
        return 1;
    memcpy(msg->data, "fan 1", 6);
    (void)zeb_send(SENDER, (uint32_t)group, msg, 0);
    zeb_destroy_app_mcast(SENDER, (uint32_t)group);
    free(msg);
    for (;;)
        pause();
}
