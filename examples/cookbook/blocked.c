/* Says which peers hold this application's sends up. One peer does: it dispatches nothing. */
#include <errno.h>
#include <stdio.h>
#include <zeb/zeb_ext.h>

#define SENDER 100
#define SLOW 101

static void on_message(void *context, zeb_msg_t *msg)
{
    (void)context;
    free(msg);
}

static void print_blocked(uint32_t app, uint32_t peer)
{
    uint32_t nodes[64];
    int num = zeb_online_nodes(app, peer, nodes, 64);
    int i;

    for (i = 0; i < num && i < 64; i++) {
        zeb_peer_state_t state;
        if (zeb_peer_state(app, peer, nodes[i], &state) == 0 && state.phase == ZEB_PEER_BLOCKED)
            printf("application %u on node %u has more than 1024 messages of ours\n", peer, nodes[i]);
    }
}

static int start_slow(void)
{
    const zeb_app_dispatcher_t dispatchers[] = {{1, on_message, NULL}, {0, NULL, NULL}};
    const zeb_app_options_t options = {
        .size = sizeof(options), .app = SLOW, .mode = ZEB_APP_POLLED, .name = "slow", .dispatchers = dispatchers};

    return zeb_register_app(&options) == 0 ? zeb_comm_with(SLOW, SENDER) : -1;
}

int main(void)
{
    const zeb_msg_dispatcher_t client[] = {{0, NULL}};
    zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
    int sent = 0;

    if (start_slow() != 0 || zeb_register(SENDER, "sender", client, NULL) != 0 || zeb_comm_with(SENDER, SLOW) != 0)
        return 1;
    zeb_run();
    (void)zeb_wait_online(SENDER, SLOW, ZEB_NODE_ALL, 1, 0);
    while (zeb_send(SENDER, SLOW, msg, ZEB_SEND_NOWAIT) != -EAGAIN)
        sent++;
    printf("%d sent\n", sent);
    print_blocked(SENDER, SLOW);
    free(msg);
    return zeb_stop();
}
