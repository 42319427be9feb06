// The exported calls on who is online.
#include "zeb_user_proxy.h"

#include <cerrno>
#include <cstring>

#include <zeb/zeb_ext.h>

#include "zeb_cfg.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_gate.h"

// The node that the caller means, or ZEB_NODE_ALL when it means none.
static uint32_t node_of(uint32_t node)
{
    uint32_t meant = node == ZEB_NODE_LOCAL ? (uint32_t)zeb_get_my_node_id() : node;
    return zeb_valid_node_id(meant) ? meant : ZEB_NODE_ALL;
}

// Returns -EINVAL and sets the last error.
static int bad_argument(uint32_t app, uint32_t peer)
{
    zeb_note_error("ZEB app %d asks about %d: bad node, number or buffer.\n", {{app, peer}});
    return -EINVAL;
}

// Returns 0 and the slot of `app`, or an error.
static int check(uint32_t app, uint32_t peer, zeb_app_mng_t **slot)
{
    if (!zeb_check_src_app(app))
        return -EINVAL;
    if (!zeb_valid_app_id(peer)) {
        zeb_note_error("ZEB app %d asks about %d: invalid ID.\n", {{app, peer}});
        return -EINVAL;
    }
    *slot = zeb_get_app_mng(app);
    if (*slot != nullptr)
        return 0;
    zeb_note_not_registered(app);
    return -ENOENT;
}

int zeb_peer_state(uint32_t app, uint32_t peer, uint32_t node, zeb_peer_state_t *state)
{
    if (state != nullptr)
        memset(state, 0, sizeof(*state));
    zeb_call_t entered("zeb_peer_state");
    if (entered.refused() != 0)
        return entered.refused();
    zeb_app_mng_t *slot = nullptr;
    zeb_inst_t inst = {peer, node_of(node)};
    bool bad = state == nullptr || inst.node == ZEB_NODE_ALL;
    int ret = bad ? bad_argument(app, peer) : check(app, peer, &slot);
    if (ret != 0)
        return ret;
    zeb_since_t since = zeb_get_inst_since(inst);
    int64_t blocked = since.phase == ZEB_PEER_ONLINE ? zeb_fc_blocked_since(slot->fc, inst) : 0;
    state->phase = blocked != 0 ? ZEB_PEER_BLOCKED : since.phase;
    state->server = since.server ? 1 : 0;
    state->since = (uint64_t)(blocked != 0 ? blocked : since.time) / 1000000;
    return 0;
}

int zeb_online_nodes(uint32_t app, uint32_t peer, uint32_t *nodes, int max)
{
    zeb_call_t entered("zeb_online_nodes");
    if (entered.refused() != 0)
        return entered.refused();
    zeb_app_mng_t *slot = nullptr;
    bool bad = max < 0 || (nodes == nullptr && max > 0);
    int ret = bad ? bad_argument(app, peer) : check(app, peer, &slot);
    if (ret != 0)
        return ret;
    zeb_app_set_t servers;
    zeb_get_app_server(peer, &servers);
    int num = 0;
    zeb_app_set_each(&servers, [&](uint32_t node) {
        if (num < max)
            nodes[num] = node;
        num++;
    });
    return num;
}

static uint32_t server_num(uint32_t peer, uint32_t node)
{
    zeb_app_set_t servers;
    uint32_t num = 0;
    if (node == ZEB_NODE_ALL)
        zeb_get_app_server(peer, &servers);
    else
        (void)zeb_get_app_server_on(peer, &node, 1, &servers);
    zeb_app_set_each(&servers, [&](uint32_t) { num++; });
    return num;
}

static int timed_out(uint32_t peer, uint32_t count)
{
    zeb_note_error("ZEB wait for %d servers of %d timeout.\n", {{count, peer}});
    return -ETIMEDOUT;
}

// A null `end` is no limit.
static int wait_online(zeb_inst_t peer, uint32_t count, const struct timespec *end)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    while (server_num(peer.app, peer.node) < count) {
        if (end != nullptr && zeb_deadline_passed(end))
            return timed_out(peer.app, count);
        if (zeb_stopping())
            return zeb_gate_refuse("zeb_wait_online");
        struct timespec slice = end != nullptr ? *end : zeb_deadline_in(1);
        (void)zeb_cond_wait_until(&g_zeb_mng.running_cond, &g_lib_mutex, &slice);
    }
    return 0;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): exported
int zeb_wait_online(uint32_t app, uint32_t peer, uint32_t node, uint32_t count, uint32_t milliseconds)
{
    zeb_call_t entered("zeb_wait_online");
    if (entered.refused() != 0)
        return entered.refused();
    uint32_t on = node_of(node);
    uint32_t most = node == ZEB_NODE_ALL ? ZEB_NODE_NUM : 1;
    if ((on == ZEB_NODE_ALL && node != ZEB_NODE_ALL) || count < 1 || count > most)
        return bad_argument(app, peer);
    zeb_app_mng_t *slot = nullptr;
    int ret = check(app, peer, &slot);
    if (ret != 0)
        return ret;
    if (zeb_on_receive_thread()) {
        zeb_note_error("ZEB app %d waits for %d on the receive thread.\n", {{app, peer}});
        return -EDEADLK;
    }
    struct timespec end = zeb_deadline_in_ms(milliseconds);
    return wait_online({peer, on}, count, milliseconds != 0 ? &end : nullptr);
}
