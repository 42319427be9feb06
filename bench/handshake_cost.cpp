// The instructions of one handshake while PEERS peers are known, to be counted by callgrind. Every peer is published,
// synchronises and acknowledges. After PEERS handshakes each further one is of a peer that was withdrawn and is
// published again. The calls on TIPC do nothing (interpose_bare.h). Usage: handshake_cost PEERS HANDSHAKES
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/tipc.h>

#include <zeb/zeb.h>

#include "handshake_core.h"
#include "interpose_bare.h"
#include "zeb_mng_msg.h"

constexpr uint32_t APP = 100;
constexpr uint32_t PEER = 200;

static void bare::on_sendto(const void *)
{
}

static void topology(uint32_t node, uint32_t what)
{
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    event.event = what;
    event.found_lower = event.found_upper = zeb_tipc_instance({PEER, node});
    event.s.seq.type = ZEB_TIPC_NAME_TYPE;
    event.s.seq.lower = zeb_tipc_instance({PEER, 0});
    event.s.seq.upper = zeb_tipc_instance({PEER, 0xFFFF});
    zeb_process_tipc_subscr_event(event);
}

// True when the peer is online afterwards.
static bool handshake(uint32_t node)
{
    topology(node, TIPC_PUBLISHED);
    zeb_msg_sync_inst_t sync = {1000 + node, node, 1, 0, ZEB_SYNC_TTL};
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_recv_inst_sync(hs, APP, {PEER, node}, &sync); });
    zeb_msg_sync_inst_ack_t ack;
    memset(&ack, 0, sizeof(ack));
    ack.sync = sync;
    ack.pseq = 1000 + node;
    ack.sync.seq = pair_of(APP, PEER, node)->send_seq;
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_hs_recv_seq_ack(hs, APP, {PEER, node}, &ack); });
    return zeb_app_online(PEER, node);
}

int main(int argc, char **argv)
{
    uint32_t peers = argc > 1 ? (uint32_t)atoi(argv[1]) : 10;
    uint32_t handshakes = argc > 2 ? (uint32_t)atoi(argv[2]) : peers;
    const zeb_msg_dispatcher_t table[] = {{1, nullptr}, {0, nullptr}};
    if (zeb_register_without_thread(APP, "bench", table, nullptr) != 0 || zeb_comm_with(APP, PEER) != 0) {
        (void)fprintf(stderr, "needs a node id in /tmp/addr/.zeb_node_addr\n");
        return 1;
    }
    uint32_t online = 0;
    for (uint32_t i = 0; i < handshakes; i++) {
        uint32_t node = 1 + i % peers;
        if (i >= peers)
            topology(node, TIPC_WITHDRAWN);
        online += handshake(node) ? 1 : 0;
    }
    printf("%u of %u online\n", online, handshakes);
    return online == handshakes ? 0 : 1;
}
