#include "zeb_mng_msg.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/tipc.h>
#include <sys/socket.h>

#include "platform/tipc_name.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_probe.h"
#include "zeb_tipc.h"

static zeb_mutex_t g_seq_mutex = {PTHREAD_MUTEX_INITIALIZER};
static std::atomic<uint32_t> s_seq;

void zeb_init_seq()
{
    zeb_scoped_lock lock(&g_seq_mutex);
    srand((unsigned)time(nullptr));
    s_seq.store((uint32_t)rand(), std::memory_order_relaxed);
}

uint32_t zeb_get_seq()
{
    {
        zeb_scoped_lock lock(&g_seq_mutex);
        uint32_t seq = s_seq.load(std::memory_order_relaxed) + 1;
        s_seq.store(seq == 0 ? 1 : seq, std::memory_order_relaxed);
    }
    // Read without the lock: two racing callers may get the same number. This is intended.
    return s_seq.load(std::memory_order_relaxed);
}

bool zeb_refuse_msg_len(uint32_t src_app, uint32_t len)
{
    ZEB_ERROR_WHY("ZEB app %d msg len %u invalid, not %d to %d.\n", src_app, len, ZEB_MSG_HDR_LEN, ZEB_MSG_LEN_MAX);
    return false;
}

static bool write_again(int err)
{
    return err == EINTR || err == ENOMEM || err == ENOBUFS;
}

int zeb_tipc_write(const zeb_app_mng_t *slot, zeb_msg_t *msg, zeb_inst_t dst, int flags)
{
    uint32_t src_app = slot->app_id.load(std::memory_order_relaxed);
    struct sockaddr_tipc addr = tipc_name(ZEB_TIPC_NAME_TYPE, zeb_tipc_instance(dst), TIPC_CLUSTER_SCOPE);
    int send_flags = MSG_NOSIGNAL | ((flags & ZEB_SEND_NOWAIT) != 0 ? MSG_DONTWAIT : 0);
    uint32_t len = msg->hdr.len;
    zeb_convert_to_network(msg);
    ZEB_VERBOSE("ZEB app %d sent to %d/%d, msg len %d.\n", src_app, dst.app, dst.node, len);

    ssize_t sent = 0;
    int err = 0;
    do {
        sent = sendto(slot->sd, &msg->hdr, len, send_flags, (struct sockaddr *)&addr, sizeof(addr));
        if (sent == (ssize_t)len) {
            zeb_convert_to_host(msg);
            ZEB_PROBE_SEND(msg->hdr.src_app, msg->hdr.dst_app, msg->hdr.dst_node, len, msg->hdr.flag, 0);
            return 0;
        }
        err = errno;
        ZEB_ERROR("ZEB sendto failed: %s.\n", strerror(err));
    } while (sent < 0 && write_again(err));

    zeb_convert_to_host(msg);
    ZEB_PROBE_SEND(msg->hdr.src_app, msg->hdr.dst_app, msg->hdr.dst_node, len, msg->hdr.flag, sent < 0 ? -err : -EIO);
    ZEB_WARN_WHY("ZEB app %d sent to %d/%d failed: %s, msg len %d, sent %d.\n", src_app, dst.app, dst.node,
                 strerror(err), len, (int)sent);
    return -1;
}

int zeb_tipc_sendto(uint32_t src_app, zeb_msg_t *msg, zeb_inst_t dst, int flags)
{
    const zeb_app_mng_t *slot = zeb_get_app_mng(src_app);
    if (slot != nullptr)
        return zeb_tipc_write(slot, msg, dst, flags);
    ZEB_ERROR_WHY("ZEB app %d socket descriptor invalid.\n", src_app);
    return -EINVAL;
}

zeb_msg_t *zeb_new_lib_msg(uint32_t size, uint8_t flag, uint32_t src_app, zeb_inst_t dst)
{
    zeb_msg_t *msg = zeb_msg_alloc((int)size, 1, 0);
    assert(msg != NULL);
    zeb_encode_msg_hdr(msg, flag, src_app, (uint32_t)zeb_get_my_node_id(), dst.app, dst.node, 0, 0);
    return msg;
}
