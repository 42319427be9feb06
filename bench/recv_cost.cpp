// The instructions of the receive thread and the proxy thread for one one-way message: callgrind counts two runs of
// different length, and their difference is divided. The calls on TIPC do nothing (interpose_bare.h), so that only the
// library's own work is counted. Usage: recv_cost [MESSAGES [PEERS [APPS]]]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <zeb/zeb.h>

#include "handshake_core.h"
#include "interpose_bare.h"
#include "zeb_cfg.h"

constexpr uint32_t APP = 100;
constexpr uint32_t PEER = 200;

static uint32_t s_peers = 10;
static int s_messages = 1000;
static int s_dispatched;

static void bare::on_sendto(const void *)
{
}

static void *count(zeb_msg_t *msg)
{
    free(msg);
    if (++s_dispatched == s_messages) {
        printf("%d of %d dispatched, %u peers online\n", s_dispatched, s_messages, s_peers);
        fflush(stdout);
        _exit(0);
    }
    return nullptr;
}

// The datagrams of the receive thread: one-way messages of 64 bytes from all peers in turn.
static void feed()
{
    zeb_msg_t *msg = zeb_msg_alloc(64, 1, 0);
    zeb_encode_msg_hdr(msg, 0, PEER, 1, APP, (uint32_t)zeb_get_my_node_id(), 0, 0);
    zeb_convert_to_network(msg);
    memcpy(bare::s_datagram, &msg->hdr, bare::DATAGRAM_LEN);
    free(msg);
    bare::s_nodes = s_peers;
    bare::s_left = s_messages;
}

int main(int argc, char **argv)
{
    s_messages = argc > 1 ? atoi(argv[1]) : s_messages;
    s_peers = argc > 2 ? (uint32_t)atoi(argv[2]) : s_peers;
    uint32_t apps = argc > 3 ? (uint32_t)atoi(argv[3]) : 0;
    const zeb_msg_dispatcher_t table[] = {{1, count}, {0, nullptr}};
    if (zeb_register(APP, "bench", table, nullptr) != 0) {
        (void)fprintf(stderr, "needs a node id in /tmp/addr/.zeb_node_addr\n");
        return 1;
    }
    for (uint32_t i = 0; i < apps; i++)
        (void)zeb_comm_with(APP, 1000 + i);
    (void)zeb_comm_with(APP, PEER);
    for (uint32_t node = 1; node <= s_peers; node++) {
        zeb_inst_id_t *id = pair_of(APP, PEER, node);
        id->sync_id = node;
        id->sync_ack_id = node;
        zeb_set_app_inst(PEER, node);
        zeb_set_app_inst_ack(PEER, node);
        zeb_try_notify_app_join(APP, PEER, node);
    }
    feed();
    zeb_run();
    for (;;)
        (void)pause();
}
