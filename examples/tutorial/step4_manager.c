/* Step 4, the manager: SIGUSR1 makes it call all cards for their status. It counts alarms, and is called for their
 * number. */
#define _POSIX_C_SOURCE 200809L /* sigwait */
#include <signal.h>
#include <stdio.h>
#include <zeb/zeb_ext.h>

#define MANAGER_APP 300
#define CARD_APP 301

enum { ALARM_RAISE = 1, STATUS = 4 };

static unsigned s_alarms; /* used by the application's thread alone, as are all callbacks */

static void *on_raise(zeb_msg_t *msg)
{
    s_alarms++;
    free(msg);
    return NULL;
}

static void *on_status(zeb_msg_t *request)
{
    zeb_msg_t *reply = zeb_msg_alloc(32, STATUS, 0);

    (void)snprintf((char *)reply->data, 32, "%u alarms", s_alarms);
    (void)zeb_rpc_reply(request, reply, 0);
    free(reply);
    free(request);
    return NULL;
}

static void *on_event(zeb_event_t event)
{
    if (event.event.app.app == CARD_APP)
        printf("%d: card %u is %s\n", zeb_get_my_node_id(), event.event.app.node,
               event.type == ZEB_APP_JOIN ? "here" : "gone");
    return NULL;
}

static void ask_cards(void)
{
    zeb_reply_msg_t replies;
    zeb_msg_t *request = zeb_msg_alloc(0, STATUS, 0);
    int ret = zeb_rpc(MANAGER_APP, CARD_APP, request, 0, 1, &replies); /* a second */
    int i;

    free(request);
    if (ret != 0)
        printf("%d: no cards: %s\n", zeb_get_my_node_id(), zeb_strerror(ret));
    for (i = 0; i < replies.num; i++) {
        const zeb_msg_t *reply = replies.msg[i];
        if (reply->hdr.rpc_stat == ZEB_SUCCESS)
            printf("%d: card %u has %.*s\n", zeb_get_my_node_id(), reply->hdr.src_node, (int)zeb_msg_data_len(reply),
                   (const char *)reply->data);
        else
            printf("%d: card %u: %s\n", zeb_get_my_node_id(), reply->hdr.src_node,
                   zeb_reply_status_text(reply->hdr.rpc_stat));
    }
    zeb_reply_free(&replies);
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{ALARM_RAISE, on_raise}, {STATUS, on_status}, {0, NULL}};
    sigset_t signals;
    int number;

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigprocmask(SIG_BLOCK, &signals, NULL); /* the library's threads inherit it */
    if (zeb_register(MANAGER_APP, "manager", dispatchers, on_event) != 0 || zeb_comm_with(MANAGER_APP, CARD_APP) != 0)
        return 1;
    zeb_run();
    while (sigwait(&signals, &number) == 0)
        ask_cards();
    return 1;
}
