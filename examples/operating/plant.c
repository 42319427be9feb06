/* For docs/operating.md: a collector that stops at one reading, and sensors that send without end.
 * Usage: plant collector | plant sensor */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <zeb/zeb.h>
#include <zeb/zeb_ext.h>

enum { COLLECTOR = 100, SENSOR = 200, STUCK = 1500 };

static void *on_reading(zeb_msg_t *msg)
{
    uint32_t reading;
    memcpy(&reading, msg->data, sizeof(reading));
    free(msg);
    while (ntohl(reading) == STUCK)
        (void)pause(); /* for a valve that never answers */
    return NULL;
}

static int send_readings(void)
{
    zeb_msg_t *msg = zeb_msg_alloc(sizeof(uint32_t), 1, 0);
    uint32_t reading;
    int ret = zeb_wait_online(SENSOR, COLLECTOR, ZEB_NODE_ALL, 1, 0);
    for (uint32_t i = 1; ret == 0; i++) {
        reading = htonl(i);
        memcpy(msg->data, &reading, sizeof(reading));
        ret = zeb_send(SENSOR, COLLECTOR, msg, 0);
    }
    free(msg);
    return ret;
}

int main(int argc, char **argv)
{
    static const zeb_msg_dispatcher_t collect[] = {{1, on_reading}, {0, NULL}};
    static const zeb_msg_dispatcher_t none[] = {{0, NULL}};
    int collector = argc == 2 && strcmp(argv[1], "collector") == 0;
    uint32_t app = collector ? COLLECTOR : SENSOR;
    if (zeb_register(app, collector ? "collector" : "sensor", collector ? collect : none, NULL) != 0)
        return 1;
    (void)zeb_comm_with(app, collector ? SENSOR : COLLECTOR);
    zeb_run();
    while (collector)
        (void)pause();
    return send_readings() == 0 ? 0 : 1;
}
