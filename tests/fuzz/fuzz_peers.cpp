#include "handshake_core.h"
#include "fuzz_peers.h"

#include "platform/list_algo.h"
#include "zeb_slot.h"
#include "zeb_mng_msg.h"

namespace peers
{
static void know(uint32_t node, uint32_t sync_id, uint32_t ack_id)
{
    zeb_inst_id_t *id = pair_of(world::SERVER, world::PEER, node);
    id->sync_id = sync_id;
    id->sync_ack_id = ack_id;
    id->recv_seq = sync_id == 0 ? 0 : SEQ;
    id->send_seq = 70 + node;
}

void set_up()
{
    (void)zeb_sync_app_inst(world::SERVER, world::PEER, WAITING, 0);
    know(HALF, PID, 0);
    zeb_set_app_inst(world::PEER, HALF);
    zeb_try_resume_comm(world::PEER, HALF);
    know(ACKED, 0, PID);
    zeb_set_app_inst_ack(world::PEER, ACKED);
    know(UNEQUAL, PID, PID + 1);
    zeb_set_app_inst_ack(world::PEER, UNEQUAL);
    for (uint32_t node : {ONLINE_SERVER, ONLINE_CLIENT}) {
        know(node, PID, PID);
        zeb_set_app_inst(world::PEER, node);
        zeb_set_app_inst_ack(world::PEER, node);
        if (node == ONLINE_SERVER)
            zeb_set_app_server(world::PEER, node);
        zeb_try_notify_app_join(world::SERVER, world::PEER, node);
    }
    world::sent().clear();
}

uint32_t pending_seq(uint32_t app, uint32_t peer, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    const zeb_pending_sync_t *sync =
        indexed_list_find_if(&g_zeb_handshake.inst_sync, zeb_inst_key({peer, node}),
                             [&](const zeb_pending_sync_t *pending) { return pending->src_app == app; });
    return sync == nullptr ? 0 : sync->body.seq;
}

uint32_t known_seq(uint32_t app, uint32_t peer, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return zeb_get_inst_recv_seq(&g_zeb_handshake, app, {peer, node});
}
} // namespace peers
