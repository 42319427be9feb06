/* Keeps the list of active alarms. It prints which line cards come and go, and which alarms they raise and clear, and
 * answers calls for the list. It ends with its standard input. Usage: alarm_manager */
#include "alarm.h"

#include <stdio.h>
#include <string.h>

#define ALARMS_MAX 256 /* a list of so many is still one message */
#define LINE_MAX_LEN (sizeof("65535/4294967295 critical \n") + ALARM_TEXT_MAX)

typedef struct entry_s {
    uint32_t node;
    alarm_t alarm;
} entry_t;

typedef struct manager_s {
    int num;
    entry_t list[ALARMS_MAX]; /* by node, then by alarm id */
} manager_t;

/* The position of an alarm in the list, or the one at which it would be. */
static int find(const manager_t *manager, uint32_t node, uint32_t id)
{
    const entry_t *entry = manager->list;
    int at = 0;

    for (; at < manager->num; at++, entry++) {
        if (entry->node > node || (entry->node == node && entry->alarm.id >= id))
            break;
    }
    return at;
}

static int is_at(const manager_t *manager, int at, uint32_t node, uint32_t id)
{
    return at < manager->num && manager->list[at].node == node && manager->list[at].alarm.id == id;
}

static void take_out(manager_t *manager, int at, int num)
{
    entry_t *entry = &manager->list[at];

    manager->num -= num;
    memmove(entry, entry + num, (size_t)(manager->num - at) * sizeof(*entry));
}

static void raise_alarm(manager_t *manager, uint32_t node, const alarm_t *alarm)
{
    int at = find(manager, node, alarm->id);
    entry_t *entry = &manager->list[at];

    if (!is_at(manager, at, node, alarm->id)) {
        if (manager->num == ALARMS_MAX) {
            fprintf(stderr, "alarm_manager: the list is full, %u/%u is not in it\n", node, alarm->id);
            return;
        }
        memmove(entry + 1, entry, (size_t)(manager->num - at) * sizeof(*entry));
        manager->num++;
    }
    entry->node = node;
    entry->alarm = *alarm;
    printf("raised %u/%u %s %s\n", node, alarm->id, alarm_severity_word(alarm->severity), alarm->text);
}

static void clear_alarm(manager_t *manager, uint32_t node, uint32_t id)
{
    int at = find(manager, node, id);

    if (!is_at(manager, at, node, id))
        return;
    take_out(manager, at, 1);
    printf("cleared %u/%u\n", node, id);
}

static void on_raise(void *context, zeb_msg_t *msg)
{
    alarm_t alarm;

    if (alarm_read_raise(msg, &alarm) == 0)
        raise_alarm(context, msg->hdr.src_node, &alarm);
    else
        printf("bad message from %u\n", msg->hdr.src_node);
    free(msg);
}

static void on_clear(void *context, zeb_msg_t *msg)
{
    uint32_t id;

    if (alarm_read_clear(msg, &id) == 0)
        clear_alarm(context, msg->hdr.src_node, id);
    else
        printf("bad message from %u\n", msg->hdr.src_node);
    free(msg);
}

static void on_list(void *context, zeb_msg_t *request)
{
    static char text[ALARMS_MAX * LINE_MAX_LEN + 1];
    const manager_t *manager = context;
    size_t used = 0;
    zeb_msg_t *reply;
    int i;

    text[0] = '\0';
    for (i = 0; i < manager->num; i++) {
        const entry_t *entry = &manager->list[i];
        used += (size_t)snprintf(text + used, sizeof(text) - used, "%u/%u %s %s\n", entry->node, entry->alarm.id,
                                 alarm_severity_word(entry->alarm.severity), entry->alarm.text);
    }
    reply = alarm_new_text(text, ALARM_LIST);
    (void)zeb_rpc_reply(request, reply, 0); /* a console that is gone needs no reply */
    free(reply);
    free(request);
}

static void on_event(void *context, const zeb_event_t *event)
{
    uint32_t node = event->event.app.node;
    manager_t *manager = context;
    int first;

    if (event->event.app.app != CARD_APP)
        return;
    printf("card %u is %s\n", node, event->type == ZEB_APP_JOIN ? "here" : "gone");
    if (event->type == ZEB_APP_JOIN)
        return;
    first = find(manager, node, 0);
    take_out(manager, first, find(manager, node + 1, 0) - first);
}

static void on_no_line(void *context, char *line)
{
    (void)context;
    (void)line; /* it has no commands */
}

int main(void)
{
    static manager_t manager;
    const zeb_app_dispatcher_t dispatchers[] = {
        {ALARM_RAISE, on_raise, NULL}, {ALARM_CLEAR, on_clear, NULL}, {ALARM_LIST, NULL, on_list}, {0, NULL, NULL}};
    const zeb_app_options_t options = {.size = sizeof(options),
                                       .app = MANAGER_APP,
                                       .mode = ZEB_APP_POLLED,
                                       .name = "alarm_manager",
                                       .dispatchers = dispatchers,
                                       .event = on_event,
                                       .context = &manager};

    if (alarm_start(&options, CARD_APP, CONSOLE_APP) != 0)
        return 1;
    alarm_loop(MANAGER_APP, on_no_line, NULL);
    return zeb_stop() == 0 ? 0 : 1;
}
