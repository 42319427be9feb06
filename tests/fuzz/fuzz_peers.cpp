#include "fuzz_peers.h"

#include "platform/list_algo.h"
#include "zeb_mng.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_online.h"
#include "zeb_mng_sync.h"

namespace peers
{
static void know(uint32_t node, uint32_t sync_id, uint32_t ack_id)
{
    zeb_update_inst_sync_id(world::SERVER, world::PEER, node, sync_id);
    zeb_update_inst_sync_ack_id(world::SERVER, world::PEER, node, ack_id);
    zeb_update_inst_recv_seq(world::SERVER, world::PEER, node, sync_id == 0 ? 0 : SEQ);
    zeb_update_inst_send_seq(world::SERVER, world::PEER, node, 70 + node);
}

void set_up()
{
    (void)zeb_sync_app_inst(world::SERVER, WAITING, world::PEER, 1, 0);
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
        zeb_try_notify_app_join(world::SERVER, node, world::PEER);
    }
    world::sent().clear();
}

uint32_t pending_seq(uint32_t app, uint32_t peer, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    const zeb_msg_t *msg = list_find<zeb_msg_t>(&g_zeb_mng.inst_sync_list, [&](const zeb_msg_t *pending) {
        return pending->hdr.src_app == app && pending->hdr.dst_app == peer && pending->hdr.dst_node == node;
    });
    return msg == nullptr ? 0 : zeb_sync_inst_msg_seq(msg);
}

uint32_t known_seq(uint32_t app, uint32_t peer, uint32_t node)
{
    uint32_t seq = 0;
    zeb_get_inst_recv_seq(app, peer, node, &seq);
    return seq;
}
} // namespace peers
