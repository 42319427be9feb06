// How many instructions one send costs, for callgrind: `valgrind --tool=callgrind --toggle-collect=zeb_sendto
// send_cost`. TIPC is a socket pair's worth of nothing: sendto is interposed, so only the library's own work is
// counted. Usage: send_cost [PEERS [SENDS]]
#include <cstdio>
#include <cstdlib>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <zeb/zeb.h>

#include "zeb_mng_online.h"
#include "zeb_mng_sync.h"

extern "C" {
int socket(int, int, int)
{
    return eventfd(0, 0);
}
int connect(int, const struct sockaddr *, socklen_t)
{
    return 0;
}
int setsockopt(int, int, int, const void *, socklen_t)
{
    return 0;
}
ssize_t sendto(int, const void *, size_t len, int, const struct sockaddr *, socklen_t)
{
    return (ssize_t)len;
}
int zeb_get_my_node_id(void);
}

constexpr uint32_t APP = 100;
constexpr uint32_t PEER = 200;

static void *drop(zeb_msg_t *msg)
{
    free(msg);
    return nullptr;
}

int main(int argc, char **argv)
{
    uint32_t peers = argc > 1 ? (uint32_t)atoi(argv[1]) : 64;
    int sends = argc > 2 ? atoi(argv[2]) : 1000;
    const zeb_msg_dispatcher_t table[] = {{1, drop}, {0, nullptr}};
    if (zeb_register_without_thread(APP, "bench", table, nullptr) != 0 || zeb_comm_with(APP, PEER) != 0) {
        (void)fprintf(stderr, "needs a node id in /tmp/addr/.zeb_node_addr\n");
        return 1;
    }
    for (uint32_t node = 1; node <= peers; node++) {
        zeb_update_inst_sync_id(APP, PEER, node, node);
        zeb_update_inst_sync_ack_id(APP, PEER, node, node);
        zeb_set_app_inst(PEER, node);
        zeb_set_app_inst_ack(PEER, node);
        zeb_set_app_server(PEER, node);
        zeb_try_notify_app_join(APP, node, PEER);
    }
    zeb_msg_t *msg = zeb_msg_alloc(64, 1, 0);
    int sent = 0;
    for (int i = 0; i < sends; i++)
        sent += zeb_sendto(APP, 1 + (uint32_t)i % peers, PEER, msg, 0) == 0 ? 1 : 0;
    printf("%d of %d sent, %u peers online\n", sent, sends, peers);
    free(msg);
    return 0;
}
