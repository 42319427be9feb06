/* The operator's console. It reads commands from standard input, and runs one after the other:
 *   list     prints the active alarms of the manager, and how many there are
 *   status   asks all line cards, and prints the outcome of each, by node
 * It ends with its standard input. Usage: alarm_console */
#include "alarm.h"

#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>

#define LIMIT_MS 1500 /* of a call */

/* A call: what it got, and whether it is done. */
typedef struct outcome_s {
    int done;
    zeb_reply_msg_t replies;
} outcome_t;

static void on_done(uint32_t call, zeb_reply_msg_t *replies, void *context)
{
    outcome_t *outcome = context;

    (void)call;
    outcome->done = 1;
    outcome->replies = *replies;
    memset(replies->msg, 0, sizeof(replies->msg)); /* the messages are kept */
}

/* Calls every instance of `app` and dispatches until all have an outcome. Returns 0, or why nobody could be asked. */
static int ask(uint32_t app, uint32_t version, outcome_t *outcome)
{
    struct pollfd ready = {.fd = zeb_app_fd(CONSOLE_APP), .events = POLLIN};
    zeb_msg_t *request = zeb_msg_alloc(0, version, 0);
    int ret;

    outcome->done = 0;
    ret = zeb_rpc_async(CONSOLE_APP, ZEB_NODE_ALL, app, request, 0, LIMIT_MS, on_done, outcome, NULL);
    free(request);
    while (ret == 0 && !outcome->done) {
        (void)poll(&ready, 1, -1);
        (void)zeb_dispatch(CONSOLE_APP, INT_MAX);
    }
    return ret;
}

/* Prints a text that a peer has sent, and returns its number of lines. */
static int print_text(const zeb_msg_t *reply)
{
    uint32_t size = zeb_msg_data_len(reply);
    uint32_t i;
    int lines = 0;

    for (i = 0; i < size; i++) {
        putchar(reply->data[i]);
        lines += reply->data[i] == '\n';
    }
    return lines;
}

static void list(void)
{
    outcome_t outcome;
    const zeb_msg_t *reply;
    int ret = ask(MANAGER_APP, ALARM_LIST, &outcome);

    if (ret != 0) {
        printf("no manager: %s\n", zeb_strerror(ret));
        return;
    }
    reply = outcome.replies.msg[0];
    if (reply->hdr.rpc_stat == ZEB_SUCCESS)
        printf("%d alarms\n", print_text(reply));
    else
        printf("no manager: %s\n", zeb_reply_status_text(reply->hdr.rpc_stat));
    zeb_reply_free(&outcome.replies);
}

static int by_node(const void *left, const void *right)
{
    uint32_t a = (*(zeb_msg_t *const *)left)->hdr.src_node;
    uint32_t b = (*(zeb_msg_t *const *)right)->hdr.src_node;

    return a < b ? -1 : a > b;
}

static void status(void)
{
    outcome_t outcome;
    int ret = ask(CARD_APP, CARD_STATUS, &outcome);
    int i;

    if (ret != 0) {
        printf("no cards: %s\n", zeb_strerror(ret));
        return;
    }
    qsort(outcome.replies.msg, (size_t)outcome.replies.num, sizeof(outcome.replies.msg[0]), by_node);
    for (i = 0; i < outcome.replies.num; i++) {
        const zeb_msg_t *reply = outcome.replies.msg[i];
        printf("card %u: ", reply->hdr.src_node);
        if (reply->hdr.rpc_stat == ZEB_SUCCESS)
            (void)print_text(reply);
        else
            fputs(zeb_reply_status_text(reply->hdr.rpc_stat), stdout);
        putchar('\n');
    }
    zeb_reply_free(&outcome.replies);
}

static void on_line(void *context, char *line)
{
    (void)context;
    if (strcmp(line, "list") == 0)
        list();
    else if (strcmp(line, "status") == 0)
        status();
    else
        fputs("alarm_console: list, or status\n", stderr);
}

int main(void)
{
    const zeb_app_dispatcher_t client[] = {{0, NULL, NULL}};
    const zeb_app_options_t options = {.size = sizeof(options),
                                       .app = CONSOLE_APP,
                                       .mode = ZEB_APP_POLLED,
                                       .name = "alarm_console",
                                       .dispatchers = client};

    if (alarm_start(&options, MANAGER_APP, CARD_APP) != 0)
        return 1;
    alarm_loop(CONSOLE_APP, on_line, NULL);
    return zeb_stop() == 0 ? 0 : 1;
}
