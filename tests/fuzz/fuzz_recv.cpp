// One datagram through the whole receive path, with peers in every state of the handshake and a call in progress.
//
// The first byte says which application receives, and what is corrected in the datagram so that it passes the first
// checks. The rest is the datagram.
#include <cstring>

#include "by_number.h"
#include "fuzz_peers.h"
#include "zeb_dbg.h"
#include "zeb_rpc.h"

static constexpr uint32_t CALL = 77; // its sequence number
static constexpr size_t HEADER = 36;

static void put(uint8_t *at, uint32_t value)
{
    value = htonl(value);
    memcpy(at, &value, sizeof(value));
}

// Offsets in the header.
static constexpr size_t LEN = 4;
static constexpr size_t SRC_NODE = 8;
static constexpr size_t DST_NODE = 12;
static constexpr size_t SRC_APP = 16;
static constexpr size_t DST_APP = 20;
static constexpr size_t MSG_SEQ = 28;

static void correct(uint8_t mode, uint32_t app, world::bytes_t *datagram)
{
    if (datagram->size() < HEADER)
        return;
    uint8_t *bytes = datagram->data();
    if ((mode & 4) != 0)
        put(bytes + LEN, (uint32_t)datagram->size());
    if ((mode & 8) != 0) {
        uint32_t node = peers::IDLE + bytes[SRC_NODE + 3] % (peers::LAST - peers::IDLE + 1);
        put(bytes + SRC_NODE, node);
        put(bytes + SRC_APP, bytes[SRC_APP] % 4 == 0 ? world::DAEMON : world::PEER);
        put(bytes + DST_NODE, world::NODE);
        put(bytes + DST_APP, app);
    }
    if ((mode & 16) != 0)
        put(bytes + MSG_SEQ, CALL);
    if ((mode & 32) != 0 && datagram->size() >= HEADER + 28) {
        // The first element answers our pending synchronisation, or repeats the peer's last.
        put(bytes + HEADER + 4,
            bytes[HEADER + 4] % 2 == 0 ? peers::pending_seq(app, world::PEER, peers::WAITING) : peers::SEQ);
    }
}

static void receive(uint8_t mode, uint32_t app, const world::bytes_t &datagram)
{
    zeb_reply_msg_t reply;
    memset(&reply, 0, sizeof(reply));
    (void)zeb_rpc_prepare_wait(app, CALL, &reply, 1);
    (void)zeb_rpc_set_wait(app, CALL, {world::PEER, peers::ONLINE_SERVER});
    (void)zeb_rpc_set_wait(app, CALL, {world::PEER, peers::ONLINE_CLIENT});
    zeb_store_relaxed(&g_zeb_dbg_level, (mode & 192) == 192 ? 15u : 0u);
    world::receive(app, datagram.data(), datagram.size());
    world::check();
    world::run_proxy();
    zeb_rpc_del_wait(app, CALL);
    zeb_reply_msg_free(&reply);
    world::check();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    world::reset();
    peers::set_up();
    static const uint32_t apps[] = {world::SERVER, world::SERVER, world::CLIENT, world::DAEMON};
    uint32_t app = apps[data[0] & 3];
    world::bytes_t datagram(data + 1, data + size);
    correct(data[0], app, &datagram);
    receive(data[0], app, datagram);
    return 0;
}
