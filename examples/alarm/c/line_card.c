/* A line card. It reads commands from standard input:
 *   raise ID SEVERITY TEXT   the alarm ID is active from now on; SEVERITY is minor, major or critical
 *   clear ID                 it is not active any more
 * and tells the alarm manager. It raises its active alarms again when a manager joins, so a manager that restarted, or
 * could not be reached, knows them. It answers calls for its status. It ends with its standard input. Usage: line_card
 */
#include "alarm.h"

#include <stdio.h>
#include <string.h>

#define ALARMS_MAX 64

typedef struct card_s {
    int num;
    alarm_t active[ALARMS_MAX];
} card_t;

static alarm_t *find(card_t *card, uint32_t id)
{
    int i;

    for (i = 0; i < card->num; i++) {
        if (card->active[i].id == id)
            return &card->active[i];
    }
    return NULL;
}

static void send_to_managers(zeb_msg_t *msg)
{
    int ret = zeb_send(CARD_APP, MANAGER_APP, msg, 0);

    free(msg);
    if (ret == 0)
        puts("sent");
    else
        printf("not sent: %s\n", zeb_strerror(ret));
}

static void raise_alarm(card_t *card, const alarm_t *alarm)
{
    alarm_t *known = find(card, alarm->id);

    if (known == NULL && card->num == ALARMS_MAX) {
        printf("not sent: %d alarms are active\n", card->num);
        return;
    }
    if (known == NULL)
        known = &card->active[card->num++];
    *known = *alarm;
    send_to_managers(alarm_new_raise(alarm));
}

static void clear_alarm(card_t *card, uint32_t id)
{
    alarm_t *known = find(card, id);

    if (known != NULL)
        *known = card->active[--card->num];
    send_to_managers(alarm_new_clear(id));
}

static void on_line(void *context, char *line)
{
    alarm_t alarm = {.id = 0};
    char word[9];
    int text = 0;

    if (sscanf(line, "raise %u %8s %n", &alarm.id, word, &text) == 2 && (alarm.severity = alarm_severity(word)) != 0) {
        (void)snprintf(alarm.text, sizeof(alarm.text), "%s", line + text);
        raise_alarm(context, &alarm);
    } else if (sscanf(line, "clear %u", &alarm.id) == 1) {
        clear_alarm(context, alarm.id);
    } else {
        fputs("line_card: raise ID minor|major|critical TEXT, or clear ID\n", stderr);
    }
}

static void on_status(void *context, zeb_msg_t *request)
{
    const card_t *card = context;
    char text[64];
    zeb_msg_t *reply;

    (void)snprintf(text, sizeof(text), "ports 48, alarms %d", card->num);
    reply = alarm_new_text(text, CARD_STATUS);
    (void)zeb_rpc_reply(request, reply, 0); /* a console that is gone needs no reply */
    free(reply);
    free(request);
}

static void on_event(void *context, const zeb_event_t *event)
{
    const card_t *card = context;
    int i;

    if (event->event.app.app != MANAGER_APP || event->type != ZEB_APP_JOIN)
        return;
    for (i = 0; i < card->num; i++) {
        zeb_msg_t *msg = alarm_new_raise(&card->active[i]);
        (void)zeb_sendto(CARD_APP, event->event.app.node, MANAGER_APP, msg, 0); /* gone again: it will join again */
        free(msg);
    }
}

int main(void)
{
    static card_t card;
    const zeb_app_dispatcher_t dispatchers[] = {{CARD_STATUS, NULL, on_status}, {0, NULL, NULL}};
    const zeb_app_options_t options = {.size = sizeof(options),
                                       .app = CARD_APP,
                                       .mode = ZEB_APP_POLLED,
                                       .name = "line_card",
                                       .dispatchers = dispatchers,
                                       .event = on_event,
                                       .context = &card};

    if (alarm_start(&options, MANAGER_APP, CONSOLE_APP) != 0)
        return 1;
    alarm_loop(CARD_APP, on_line, &card);
    return zeb_stop() == 0 ? 0 : 1;
}
