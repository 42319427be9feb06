#include "zeb_rpc.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_gate.h"
#include "zeb_mng_msg.h"
#include "zeb_msg_guard.h"
#include "zeb_probe.h"

static bool init_waiting(zeb_app_rpc_wait_t *rpc)
{
    uint32_t app = rpc->app_id;
    return zeb_mutex_cond_init(&rpc->mutex, &rpc->wait_cond, [app](zeb_init_step_t step, int err) {
        if (step == ZEB_INIT_STEP_MUTEX)
            ZEB_ERROR_WHY("ZEB init app %d RPC wait mutex failed: %s.\n", app, strerror(err));
        else if (step == ZEB_INIT_STEP_ATTR)
            ZEB_ERROR_WHY("ZEB init app %d RPC wait condition attribute failed: %s.\n", app, strerror(err));
        else if (step == ZEB_INIT_STEP_CLOCK)
            ZEB_ERROR_WHY("ZEB set app %d RPC wait condition clock attribute failed: %s.\n", app, strerror(err));
        else
            ZEB_ERROR_WHY("ZEB init app %d RPC wait condition failed: %s.\n", app, strerror(err));
    });
}

zeb_app_rpc_wait_t *zeb_add_app_rpc_wait(uint32_t app)
{
    ZEB_VERBOSE("ZEB add new app %d RPC wait mgmt.\n", app);
    zeb_app_rpc_wait_t *rpc = (zeb_app_rpc_wait_t *)zeb_malloc(sizeof(zeb_app_rpc_wait_t));
    rpc->app_id = app;
    if (!init_waiting(rpc)) {
        free(rpc);
        return nullptr;
    }
    zeb_scoped_lock lock(&rpc->mutex);
    indexed_list_init(&rpc->wait_list);
    indexed_list_init(&rpc->done_list);
    return rpc;
}

void zeb_del_app_rpc_wait(zeb_app_rpc_wait_t *rpc)
{
    if (rpc == nullptr)
        return;
    ZEB_VERBOSE("ZEB delete app %d RPC wait mgmt.\n", rpc->app_id);
    {
        zeb_scoped_lock lock(&rpc->mutex);
        indexed_list_clear(&rpc->wait_list);
        indexed_list_clear(&rpc->done_list);
    }
    zeb_cond_destroy(&rpc->wait_cond);
    zeb_mutex_destroy(&rpc->mutex);
    free(rpc);
}

static zeb_rpc_wait_t *__find_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq) ZEB_REQUIRES(rpc->mutex)
{
    return indexed_list_find(&rpc->wait_list, seq);
}

zeb_rpc_wait_t *zeb_get_rpc_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq)
{
    if (rpc == nullptr)
        return nullptr;
    zeb_scoped_lock lock(&rpc->mutex);
    return __find_wait(rpc, seq);
}

int zeb_rpc_prepare_wait(uint32_t app, uint32_t seq, zeb_reply_msg_t *reply, uint32_t timeout)
{
    ZEB_VERBOSE("ZEB app %d seq %d RPC prepare wait.\n", app, seq);
    zeb_app_rpc_wait_t *rpc = zeb_get_app_rpc(app);
    if (rpc == nullptr) {
        zeb_note_error("ZEB app %d is not registered in this process.\n", {{app}});
        return -ENOENT;
    }
    zeb_scoped_lock lock(&rpc->mutex);
    if (__find_wait(rpc, seq) != nullptr) {
        zeb_note_error("ZEB app %d seq %d is the number of another RPC call: call again.\n", {{app, seq}});
        return -EEXIST;
    }
    ZEB_VERBOSE("ZEB add new app %d seq %d RPC wait.\n", app, seq);
    zeb_rpc_wait_t *wait = (zeb_rpc_wait_t *)zeb_malloc(sizeof(zeb_rpc_wait_t));
    wait->seq = seq;
    wait->timeout = timeout;
    wait->reply = reply;
#ifdef ZEB_INVARIANTS
    wait->caller = gettid();
#endif
    indexed_list_append(&rpc->wait_list, wait, seq);
    return 0;
}

static zeb_inst_t inst_of(uint32_t code)
{
    return {code >> 16, code & 0xFFFF};
}

int zeb_rpc_set_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq, zeb_inst_t dst)
{
    assert(rpc != NULL);
    zeb_scoped_lock lock(&rpc->mutex);
    zeb_rpc_wait_t *wait = __find_wait(rpc, seq);
    assert(wait != NULL);
    uint32_t dst_node = dst.node;
    assert(zeb_valid_node_id(dst_node));
    if (wait->inst_num == ZEB_RPC_REPLY_NUM) {
        ZEB_ERROR_WHY("ZEB RPC wait reply num exceeds limit %d.\n", ZEB_RPC_REPLY_NUM);
        return -ENOBUFS;
    }
    wait->wait_inst[wait->inst_num++] = zeb_tipc_instance(dst);
    return 0;
}

static void __unlink_wait(zeb_app_rpc_wait_t *rpc, zeb_rpc_wait_t *wait) ZEB_REQUIRES(rpc->mutex)
{
    indexed_list_remove(&rpc->wait_list, wait);
    free(wait);
}

void zeb_rpc_del_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq)
{
    assert(rpc != NULL);
    ZEB_VERBOSE("ZEB delete app %d seq %d RPC wait.\n", rpc->app_id, seq);
    zeb_scoped_lock lock(&rpc->mutex);
    zeb_rpc_wait_t *wait = __find_wait(rpc, seq);
    assert(wait != NULL);
    __unlink_wait(rpc, wait);
}

int64_t zeb_rpc_wait_inst(zeb_app_rpc_wait_t *rpc, uint32_t seq, int index)
{
    if (rpc == nullptr)
        return -ENOENT;
    zeb_scoped_lock lock(&rpc->mutex);
    const zeb_rpc_wait_t *wait = __find_wait(rpc, seq);
    return wait == nullptr || index >= wait->inst_num ? -ENOENT : (int64_t)wait->wait_inst[index];
}

// Completes the first entry that holds the instance. False when there is none.
static bool complete_entry(zeb_rpc_wait_t *wait, zeb_inst_t src)
{
    uint32_t code = zeb_tipc_instance(src);
    for (int i = 0; i < wait->inst_num; i++) {
        if (wait->wait_inst[i] == code) {
            wait->wait_inst[i] = 0;
            return true;
        }
    }
    return false;
}

static bool all_replied(const zeb_rpc_wait_t *wait)
{
    for (int i = 0; i < wait->inst_num; i++) {
        if (wait->wait_inst[i] != 0)
            return false;
    }
    return true;
}

// Never full: the buffer has room for one message per entry, and each entry is completed once.
static void store(zeb_rpc_wait_t *wait, zeb_msg_t *msg)
{
    wait->reply->msg[wait->reply->num++] = msg;
    ZEB_PROBE_CALL_OUTCOME(msg->hdr.dst_app, msg->hdr.seq, msg->hdr.src_app, msg->hdr.src_node, msg->hdr.rpc_stat);
}

// Stores a message without a body in place of the reply of an instance.
static void store_substitute(zeb_rpc_wait_t *wait, uint32_t app, zeb_inst_t src, zeb_reply_stat_t status)
{
    zeb_msg_t *reply_msg = zeb_msg_alloc(0, 1, 0);
    assert(reply_msg != NULL);
    zeb_encode_msg_hdr(reply_msg, 0, src.app, src.node, app, (uint32_t)zeb_get_my_node_id(), wait->seq, status);
    store(wait, reply_msg);
}

static void store_timeouts(zeb_rpc_wait_t *wait, uint32_t app)
{
    ZEB_INFO("ZEB app %d seq %d wait for RPC reply timeout.\n", app, wait->seq);
    for (int i = 0; i < wait->inst_num; i++) {
        uint32_t code = wait->wait_inst[i];
        if (code == 0)
            continue;
        zeb_inst_t inst = inst_of(code);
        ZEB_INFO("ZEB app %d seq %d wait for %d/%d timeout.\n", app, wait->seq, inst.app, inst.node);
        wait->wait_inst[i] = 0;
        store_substitute(wait, app, inst, ZEB_TIMEOUT);
    }
}

// A call that nobody waits for is done with its last entry. Returns who is to be told once the lock is released, or
// null.
static zeb_rpc_done_t __move_done(zeb_app_rpc_wait_t *rpc, zeb_rpc_wait_t *wait) ZEB_REQUIRES(rpc->mutex)
{
    if (wait->done == nullptr || !all_replied(wait))
        return nullptr;
    indexed_list_remove(&rpc->wait_list, wait);
    indexed_list_append(&rpc->done_list, wait, wait->seq);
    return wait->done;
}

// Who waits, or the one that is to be told.
static void tell(zeb_app_rpc_wait_t *rpc, zeb_rpc_done_t done, bool waited_for)
{
    if (waited_for)
        zeb_cond_broadcast(&rpc->wait_cond);
    else if (done != nullptr)
        done(rpc);
}

zeb_rpc_done_t __zeb_rpc_leave_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq, zeb_rpc_done_t done)
{
    zeb_rpc_wait_t *wait = __find_wait(rpc, seq);
    assert(wait != NULL);
    wait->caller = 0;
    wait->done = done;
    return __move_done(rpc, wait);
}

void zeb_rpc_time_out(zeb_app_rpc_wait_t *rpc, uint32_t seq)
{
    zeb_rpc_done_t done = nullptr;
    {
        zeb_scoped_lock lock(&rpc->mutex);
        zeb_rpc_wait_t *wait = __find_wait(rpc, seq);
        if (wait == nullptr || wait->done == nullptr)
            return;
        store_timeouts(wait, rpc->app_id);
        done = __move_done(rpc, wait);
    }
    tell(rpc, done, false);
}

// Waits until every entry is completed, or until `timeout` seconds pass in which no caller of the application is woken.
// Each wake-up wakes them all, and the time starts again. Returns the result of the last wait, or -ESHUTDOWN when the
// library stops.
static int wait_all_replied(zeb_app_rpc_wait_t *rpc, const zeb_rpc_wait_t *wait) ZEB_REQUIRES(rpc->mutex)
{
    int ret = 0;
    while (!all_replied(wait)) {
        if (zeb_stopping())
            return -ESHUTDOWN;
        ZEB_VERBOSE("ZEB app %d seq %d wait for RPC reply in %ds.\n", rpc->app_id, wait->seq, wait->timeout);
        struct timespec deadline = zeb_deadline_in(wait->timeout != 0 ? wait->timeout : 1);
        ret = zeb_cond_wait_until(&rpc->wait_cond, &rpc->mutex, &deadline);
        if (ret == ETIMEDOUT && wait->timeout != 0)
            break;
    }
    return ret;
}

int zeb_rpc_wait_reply(zeb_app_rpc_wait_t *rpc, uint32_t seq)
{
    assert(rpc != NULL);
    uint32_t app = rpc->app_id;
    zeb_scoped_lock lock(&rpc->mutex);
    zeb_rpc_wait_t *wait = __find_wait(rpc, seq);
    assert(wait != NULL);

    int ret = wait_all_replied(rpc, wait);
    if (ret == ETIMEDOUT && wait->timeout != 0) {
        store_timeouts(wait, app);
        ret = 0;
    } else if (ret == -ESHUTDOWN) {
        zeb_note_error("ZEB app %d seq %d wait for RPC reply: the library stops.\n", {{app, seq}});
        zeb_reply_msg_free(wait->reply);
    } else if (ret != 0) {
        // An unlimited wait runs in slices of 1 s. A slice that ends just as the last reply is stored makes the call
        // fail.
        ZEB_ERROR_WHY("ZEB app %d seq %d wait for RPC reply failed: %s.\n", app, seq, strerror(abs(ret)));
        zeb_reply_msg_free(wait->reply);
    } else {
        ZEB_VERBOSE("ZEB app %d seq %d RPC all replied.\n", app, seq);
    }
    __unlink_wait(rpc, wait);
    return ret;
}

void zeb_rpc_release(zeb_app_rpc_wait_t *rpc)
{
    {
        zeb_scoped_lock lock(&rpc->mutex); // whoever has tested the gate is waiting now
    }
    zeb_cond_broadcast(&rpc->wait_cond);
}

static bool complete_or_log(zeb_rpc_wait_t *wait, uint32_t app, zeb_inst_t src)
{
    if (complete_entry(wait, src))
        return true;
    ZEB_ERROR_WHY("ZEB app %d seq %d clear wait for app %d/%d not exist.\n", app, wait->seq, src.app, src.node);
    return false;
}

int zeb_rpc_add_reply(zeb_msg_t *msg)
{
    zeb_inst_t src = zeb_msg_sender(msg);
    uint32_t app = msg->hdr.dst_app;
    uint32_t seq = msg->hdr.seq;
    ZEB_VERBOSE("ZEB add RPC reply for app %d seq %d from %d/%d status %s.\n", app, seq, src.app, src.node,
                zeb_reply_stat_string(msg->hdr.rpc_stat));
    zeb_app_rpc_wait_t *rpc = zeb_get_app_rpc(app);
    if (rpc == nullptr) {
        ZEB_ERROR("ZEB get app %d RPC wait not exist.\n", app);
        return -ENOENT;
    }
    zeb_rpc_done_t done = nullptr;
    bool waited_for = false;
    {
        zeb_scoped_lock lock(&rpc->mutex);
        zeb_rpc_wait_t *wait = __find_wait(rpc, seq);
        if (wait == nullptr) {
            ZEB_VERBOSE("ZEB app %d seq %d to %d/%d RPC wait not exist.\n", app, seq, src.app, src.node);
            return -ENOENT;
        }
        if (!complete_or_log(wait, app, src))
            return -ENOENT;
        store(wait, msg);
        waited_for = wait->done == nullptr;
        done = __move_done(rpc, wait);
    }
    ZEB_VERBOSE("ZEB app %d seq %d to %d/%d RPC replied.\n", app, seq, src.app, src.node);
    tell(rpc, done, waited_for);
    return 0;
}

int zeb_rpc_add_error_reply(zeb_app_rpc_wait_t *rpc, uint32_t seq, zeb_inst_t src, zeb_reply_stat_t status)
{
    assert(rpc != NULL);
    uint32_t app = rpc->app_id;
    ZEB_WARN("ZEB add error reply for app %d seq %d from %d/%d status %s.\n", app, seq, src.app, src.node,
             zeb_reply_stat_string(status));
    zeb_rpc_done_t done = nullptr;
    bool waited_for = false;
    {
        zeb_scoped_lock lock(&rpc->mutex);
        zeb_rpc_wait_t *wait = __find_wait(rpc, seq);
        if (wait == nullptr) {
            zeb_note_error("ZEB app %d seq %d RPC wait not exist.\n", {{app, seq}});
            ZEB_VERBOSE("ZEB app %d seq %d RPC wait not exist.\n", app, seq);
            return -ENOENT;
        }
        if (!complete_or_log(wait, app, src))
            return -ENOENT;
        store_substitute(wait, app, src, status);
        waited_for = wait->done == nullptr;
        done = __move_done(rpc, wait);
    }
    tell(rpc, done, waited_for);
    return 0;
}

int zeb_terminate_rpc(uint32_t app, zeb_inst_t src)
{
    ZEB_VERBOSE("ZEB try to terminate app %d RPC to %d/%d.\n", app, src.app, src.node);
    zeb_app_rpc_wait_t *rpc = zeb_get_app_rpc(app);
    assert(rpc != NULL);
    zeb_rpc_done_t done = nullptr; // the same for every call
    int done_num = 0;
    {
        zeb_scoped_lock lock(&rpc->mutex);
        indexed_list_each(&rpc->wait_list, [&](zeb_rpc_wait_t *wait) ZEB_NO_THREAD_SAFETY_ANALYSIS {
            if (!complete_entry(wait, src))
                return;
            ZEB_WARN("ZEB terminate app %d seq %d RPC to %d/%d.\n", app, wait->seq, src.app, src.node);
            store_substitute(wait, app, src, ZEB_SYSTEM_ERR);
            zeb_rpc_done_t to_tell = __move_done(rpc, wait);
            done = to_tell != nullptr ? to_tell : done;
            done_num += to_tell != nullptr ? 1 : 0;
        });
    }
    zeb_cond_broadcast(&rpc->wait_cond);
    for (int i = 0; i < done_num; i++)
        tell(rpc, done, false);
    return 0;
}

void zeb_reply_msg_free(zeb_reply_msg_t *reply)
{
    for (zeb_msg_t *&msg : reply->msg) {
        free(msg);
        msg = nullptr;
    }
    reply->num = 0;
}

static int send_answer(const zeb_msg_t *request, zeb_msg_t *reply_msg, zeb_reply_stat_t status)
{
    const zeb_msg_hdr_t *hdr = &request->hdr;
    zeb_encode_msg_hdr(reply_msg, hdr->flag | ZEB_MSG_FLAG_ACK, hdr->dst_app, (uint32_t)zeb_get_my_node_id(),
                       hdr->src_app, hdr->src_node, hdr->seq, status);
    return zeb_tipc_sendto(hdr->dst_app, reply_msg, zeb_msg_sender(request), 0);
}

int zeb_rpc_answer(const zeb_msg_t *src_msg, zeb_msg_t *reply_msg, int flags)
{
    ZEB_VERBOSE("ZEB user rpc reply, src_msg %p, reply_msg %p, flags 0x%x.\n", (const void *)src_msg, (void *)reply_msg,
                flags);
    if (src_msg == nullptr) {
        ZEB_ERROR_WHY("ZEB RPC reply invalid argument.\n");
        return -EINVAL;
    }
    if (!zeb_is_rpc_request(src_msg)) {
        ZEB_WARN_WHY("ZEB reply msg src is not RPC.\n");
        return -EINVAL;
    }
    if (reply_msg != nullptr && !zeb_check_msg_len(src_msg->hdr.dst_app, reply_msg))
        return -EINVAL;
    int ret = reply_msg != nullptr ? send_answer(src_msg, reply_msg, ZEB_SUCCESS)
                                   : zeb_rpc_reply_error(src_msg, ZEB_SYSTEM_ERR);
    if (ret != 0)
        zeb_fc_update_rpc_reply_exception(src_msg->hdr.dst_app, zeb_msg_sender(src_msg));
    return ret;
}

int zeb_rpc_reply_error(const zeb_msg_t *request, zeb_reply_stat_t status)
{
    ZEB_VERBOSE("ZEB app %d reply to %d/%d seq %d status: %s.\n", request->hdr.dst_app, request->hdr.src_app,
                request->hdr.src_node, request->hdr.seq, zeb_reply_stat_string(status));
    zeb_msg_guard_t reply_msg(zeb_msg_alloc(0, 1, 0));
    assert(reply_msg != NULL);
    return send_answer(request, reply_msg.get(), status);
}

// The body is sent in this host's byte order: only a ZEB_MISMATCH body is converted, and peers do not convert this one
// either.
int zeb_rpc_reply_app_mismatch(const zeb_msg_t *request, const zeb_mismatch_info_t *info)
{
    ZEB_VERBOSE("ZEB app %d reply to %d/%d seq %d app ver range [%d, %d].\n", request->hdr.dst_app,
                request->hdr.src_app, request->hdr.src_node, request->hdr.seq, info->low, info->high);
    zeb_msg_guard_t reply_msg(zeb_msg_alloc(sizeof(*info), 1, 0));
    assert(reply_msg != NULL);
    memcpy(reply_msg->data, info, sizeof(*info));
    return send_answer(request, reply_msg.get(), ZEB_APP_MISMATCH);
}

void zeb_rpc_print_wait(zeb_app_rpc_wait_t *rpc, uint32_t seq)
{
    if (!zeb_dbg_verbose_on())
        return;
    printf("ZEB app %d seq %d wait for:", (int)rpc->app_id, (int)seq);
    int64_t code = 0;
    for (int i = 0; (code = zeb_rpc_wait_inst(rpc, seq, i)) >= 0; i++) {
        if (code != 0)
            printf(" %d/%d", (int)inst_of((uint32_t)code).app, (int)inst_of((uint32_t)code).node);
    }
    printf(".\n");
}

static void print_wait(const zeb_rpc_wait_t *wait)
{
    zeb_buf_printf("  sequence %d, timeout %ds\n", wait->seq, wait->timeout);
    zeb_buf_printf("    waiting for");
    for (int i = 0; i < wait->inst_num; i++) {
        if (wait->wait_inst[i] != 0)
            zeb_buf_printf(" %d/%d", inst_of(wait->wait_inst[i]).app, inst_of(wait->wait_inst[i]).node);
    }
    zeb_buf_printf("\n");
    zeb_buf_printf("    RPC already replies:\n");
    for (int i = 0; i < wait->reply->num; i++) {
        const zeb_msg_hdr_t *hdr = &wait->reply->msg[i]->hdr;
        zeb_buf_printf("      %d/%d, %s\n", hdr->src_app, hdr->src_node, zeb_reply_stat_string(hdr->rpc_stat));
    }
    zeb_buf_printf("\n");
}

void zeb_cli_print_rpc_stat(uint32_t app)
{
    zeb_call_t entered("zeb_cli_print_rpc_stat");
    if (entered.refused() != 0)
        return;
    zeb_app_rpc_wait_t *rpc = zeb_get_app_rpc(app);
    if (rpc == nullptr)
        return;
    zeb_scoped_lock lock(&rpc->mutex);
    zeb_buf_printf("Application %d RPC waits:\n", app);
    indexed_list_each(&rpc->wait_list, print_wait);
}
