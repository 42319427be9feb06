/* Step 5, a card that SIGUSR1 makes raise 3000 alarms as fast as it can, and then ask the manager how many it has. */
#define _POSIX_C_SOURCE 200809L /* sigwait */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <zeb/zeb_ext.h>

#define MANAGER_APP 300
#define CARD_APP 301

enum { ALARM_RAISE = 1, LAMP = 3, STATUS = 4 };

static void *on_lamp(zeb_msg_t *msg)
{
    free(msg);
    return NULL;
}

static void print_blocked(int sent)
{
    zeb_peer_state_t state;
    uint32_t node;

    if (zeb_online_nodes(CARD_APP, MANAGER_APP, &node, 1) == 1 &&
        zeb_peer_state(CARD_APP, MANAGER_APP, node, &state) == 0 && state.phase == ZEB_PEER_BLOCKED)
        printf("%d: %d sent, now manager %u blocks\n", zeb_get_my_node_id(), sent, node);
}

static void storm(void)
{
    zeb_msg_t *alarm = zeb_msg_alloc(13, ALARM_RAISE, 0);
    int flags = ZEB_SEND_NOWAIT;
    int sent = 0;

    memcpy(alarm->data, "fan 1 stopped", 13);
    while (sent < 3000) {
        int ret = zeb_send(CARD_APP, MANAGER_APP, alarm, flags);
        if (ret == 0) {
            sent++;
        } else if (ret == -EAGAIN) {
            print_blocked(sent);
            flags = 0; /* from now on it waits */
        } else {
            break; /* the manager is gone */
        }
    }
    printf("%d: %d sent\n", zeb_get_my_node_id(), sent);
    free(alarm);
}

static void ask_manager(void)
{
    zeb_reply_msg_t replies;
    zeb_msg_t *request = zeb_msg_alloc(0, STATUS, 0);

    if (zeb_rpc(CARD_APP, MANAGER_APP, request, 0, 10, &replies) == 0 && replies.msg[0]->hdr.rpc_stat == ZEB_SUCCESS)
        printf("%d: the manager has %s\n", zeb_get_my_node_id(), (const char *)replies.msg[0]->data);
    zeb_reply_free(&replies);
    free(request);
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{LAMP, on_lamp}, {0, NULL}};
    sigset_t signals;
    int number;

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigprocmask(SIG_BLOCK, &signals, NULL); /* the library's threads inherit it */
    if (zeb_register(CARD_APP, "storm", dispatchers, NULL) != 0 || zeb_comm_with(CARD_APP, MANAGER_APP) != 0)
        return 1;
    zeb_run();
    (void)zeb_wait_online(CARD_APP, MANAGER_APP, ZEB_NODE_ALL, 1, 0);
    printf("%d: a manager is here\n", zeb_get_my_node_id());
    while (sigwait(&signals, &number) == 0) {
        storm();
        ask_manager();
    }
    return 1;
}
