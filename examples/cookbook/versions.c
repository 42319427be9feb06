/* Serves two versions of one message. The payload of version 1 is a text, that of version 2 a severity and a text. */
#include <stdio.h>
#include <unistd.h>
#include <zeb/zeb_ext.h>

#define APP 100

static void alarm_raised(int severity, const uint8_t *text, uint32_t length)
{
    printf("severity %d: %.*s\n", severity, (int)length, (const char *)text);
}

static void *on_alarm_1(zeb_msg_t *msg)
{
    alarm_raised(2, msg->data, zeb_msg_data_len(msg)); /* what old boards mean */
    free(msg);
    return NULL;
}

static void *on_alarm_2(zeb_msg_t *msg)
{
    if (zeb_msg_data_len(msg) >= 1)
        alarm_raised(msg->data[0], msg->data + 1, zeb_msg_data_len(msg) - 1);
    free(msg);
    return NULL;
}

static void send_version(uint32_t version, const void *payload, int size)
{
    zeb_msg_t *msg = zeb_msg_alloc(size, version, 0);

    memcpy(msg->data, payload, (size_t)size);
    (void)zeb_send(APP, APP, msg, 0);
    free(msg);
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_alarm_1}, {2, on_alarm_2}, {0, NULL}};

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    if (zeb_register(APP, "versions", dispatchers, NULL) != 0)
        return 1;
    zeb_run();
    (void)zeb_wait_online(APP, APP, ZEB_NODE_LOCAL, 1, 0);
    send_version(1, "fan 1", 5);
    send_version(2, "\3fan 2", 6);
    for (;;)
        pause();
}
