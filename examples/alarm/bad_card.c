/* A line card that sends what no line card sends, for the test of the alarm application. Each line of standard input is
 * a message: its version, and its payload in hexadecimal. Usage: bad_card */
#include <stdio.h>
#include <string.h>
#include <zeb/zeb_ext.h>

#define MANAGER_APP 300
#define CARD_APP 301

static void *on_message(zeb_msg_t *msg)
{
    free(msg);
    return NULL;
}

static void send_line(const char *line)
{
    char version[9] = "";
    char hex[2 * 256 + 1] = "";
    zeb_msg_t *msg;
    unsigned byte;
    int i, ret;

    (void)sscanf(line, "%8s %512s", version, hex);
    msg = zeb_msg_alloc((int)strlen(hex) / 2, (uint32_t)strtoul(version, NULL, 10), 0);
    for (i = 0; sscanf(hex + 2 * i, "%2x", &byte) == 1; i++)
        msg->data[i] = (uint8_t)byte;
    ret = zeb_send(CARD_APP, MANAGER_APP, msg, 0);
    puts(ret == 0 ? "sent" : "not sent");
    fflush(stdout);
    free(msg);
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{4, on_message}, {0, NULL}};
    char line[600];

    if (zeb_register(CARD_APP, "bad_card", dispatchers, NULL) != 0 || zeb_comm_with(CARD_APP, MANAGER_APP) != 0)
        return 1;
    zeb_run();
    puts("ready");
    fflush(stdout);
    while (fgets(line, sizeof(line), stdin) != NULL)
        send_line(line);
    return zeb_stop() == 0 ? 0 : 1;
}
