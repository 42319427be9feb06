#include "zeb_handshake_record.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

void zeb_hs_init(zeb_handshake_t *hs, const zeb_hs_effects_t *effects, void *ctx)
{
    hs->effects = effects;
    hs->ctx = ctx;
    hs->timer_inst_retry_open = false;
    hs->ol_app_changes.fetch_add(1, std::memory_order_release);
    indexed_list_init(&hs->ol_app);
    indexed_list_init(&hs->inst_id);
    indexed_list_init(&hs->inst_sync);
    indexed_list_init(&hs->inst_retry);
    INIT_LIST_HEAD(&hs->resume_comm_list);
    INIT_LIST_HEAD(&hs->sync_inst_ack_list);
    hs->sync_inst_ack_num = 0;
}

template <typename T>
static void free_all(struct list_head *head)
{
    (void)list_remove_matching<T>(head, [](const T *) { return true; });
}

void zeb_hs_clear(zeb_handshake_t *hs)
{
    indexed_list_each(&hs->ol_app, [](zeb_ol_app_t *ol) { free_all<zeb_subscr_app_t>(&ol->subscr_app_list); });
    indexed_list_clear(&hs->ol_app);
    indexed_list_clear(&hs->inst_id);
    indexed_list_clear(&hs->inst_sync);
    indexed_list_clear(&hs->inst_retry);
    free_all<zeb_resume_comm_t>(&hs->resume_comm_list);
    list_each<zeb_returned_ack_t>(&hs->sync_inst_ack_list,
                                  [&](zeb_returned_ack_t *ack) { zeb_drop_returned_ack(hs, ack); });
    zeb_hs_init(hs, hs->effects, hs->ctx);
}

// Pairs. All indexes are by remote instance, because a process has few local applications and a quit concerns them all.

zeb_inst_id_t *zeb_get_inst_id(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    return indexed_list_find_if(&hs->inst_id, zeb_inst_key(dst),
                                [&](const zeb_inst_id_t *id) { return id->src_app == src_app; });
}

zeb_inst_id_t *zeb_get_or_add_inst_id(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    zeb_inst_id_t *id = zeb_get_inst_id(hs, src_app, dst);
    if (id != nullptr)
        return id;
    id = (zeb_inst_id_t *)zeb_malloc(sizeof(zeb_inst_id_t));
    id->src_app = src_app;
    id->dst = dst;
    indexed_list_append(&hs->inst_id, id, zeb_inst_key(dst));
    return id;
}

bool zeb_hs_has_room_for_pair(const zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer)
{
    return zeb_get_inst_id(hs, my_app, peer) != nullptr || indexed_list_num(&hs->inst_id) < ZEB_PAIR_NUM_MAX;
}

static bool is_confirmed(const zeb_inst_id_t *id)
{
    return id != nullptr && id->sync_id == id->sync_ack_id;
}

bool zeb_inst_id_equal(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    return is_confirmed(zeb_get_inst_id(hs, src_app, dst));
}

uint32_t zeb_get_inst_recv_seq(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    const zeb_inst_id_t *id = zeb_get_inst_id(hs, src_app, dst);
    return id == nullptr ? 0 : id->recv_seq;
}

uint32_t zeb_get_pseq_for_inst_ack(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    const zeb_inst_id_t *id = zeb_get_inst_id(hs, src_app, dst);
    return is_confirmed(id) ? id->send_seq : 0;
}

void zeb_forget_holder(zeb_handshake_t *hs, zeb_inst_t dst)
{
    (void)indexed_list_find_if(&hs->inst_id, zeb_inst_key(dst), [](zeb_inst_id_t *id) {
        id->holder = 0;
        return false; // go on to the next pair
    });
}

void zeb_clear_inst_id(zeb_handshake_t *hs, zeb_inst_t dst)
{
    zeb_inst_id_t *id = indexed_list_find(&hs->inst_id, zeb_inst_key(dst));
    if (id == nullptr)
        return;
    indexed_list_remove(&hs->inst_id, id);
    free(id);
}

// Pending synchronisations.

void zeb_add_inst_sync(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    zeb_pending_sync_t *pending = (zeb_pending_sync_t *)zeb_malloc(sizeof(zeb_pending_sync_t));
    pending->src_app = src_app;
    pending->dst = dst;
    pending->body = *body;
    indexed_list_append(&hs->inst_sync, pending, zeb_inst_key(dst));
}

// The first pending synchronisation with the instance for which match(pending) is true, or null.
template <typename Match>
static zeb_pending_sync_t *find_pending(const zeb_handshake_t *hs, zeb_inst_t dst, Match match)
{
    return indexed_list_find_if(&hs->inst_sync, zeb_inst_key(dst), match);
}

static void drop_pending(zeb_handshake_t *hs, zeb_pending_sync_t *pending)
{
    HS_INFO(hs, "ZEB DEL INST app %d sync inst to %d/%d, seq %d.\n", pending->src_app, pending->dst.app,
            pending->dst.node, pending->body.seq);
    indexed_list_remove(&hs->inst_sync, pending);
    free(pending);
}

template <typename Match>
static void drop_all_pending(zeb_handshake_t *hs, zeb_inst_t dst, Match match)
{
    zeb_pending_sync_t *pending = nullptr;
    while ((pending = find_pending(hs, dst, match)) != nullptr)
        drop_pending(hs, pending);
}

static bool any_pending(const zeb_pending_sync_t *)
{
    return true;
}

static zeb_pending_sync_t *find_pending_seq(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, uint32_t seq)
{
    return find_pending(hs, dst, [&](const zeb_pending_sync_t *pending) {
        return pending->src_app == src_app && pending->body.seq == seq;
    });
}

bool zeb_has_sync_inst_seq(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, uint32_t seq)
{
    return find_pending_seq(hs, src_app, dst, seq) != nullptr;
}

int zeb_del_inst_sync(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, uint32_t seq)
{
    zeb_pending_sync_t *pending = find_pending_seq(hs, src_app, dst, seq);
    if (pending == nullptr)
        return -ENOENT;
    drop_pending(hs, pending);
    return 0;
}

void zeb_del_inst_syncs_of(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    drop_all_pending(hs, dst, [&](const zeb_pending_sync_t *pending) { return pending->src_app == src_app; });
}

void zeb_clear_sync_inst(zeb_handshake_t *hs, zeb_inst_t dst)
{
    drop_all_pending(hs, dst, any_pending);
}

bool zeb_has_sync_inst(const zeb_handshake_t *hs, zeb_inst_t dst)
{
    return find_pending(hs, dst, any_pending) != nullptr;
}

bool zeb_has_sync_inst_of(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    return find_pending(hs, dst, [&](const zeb_pending_sync_t *pending) { return pending->src_app == src_app; }) !=
           nullptr;
}

// Retries.

zeb_retry_inst_t *zeb_get_sync_inst_retry(const zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    return indexed_list_find_if(&hs->inst_retry, zeb_inst_key(dst),
                                [&](const zeb_retry_inst_t *retry) { return retry->src_app == src_app; });
}

static void drop_retry(zeb_handshake_t *hs, zeb_retry_inst_t *retry)
{
    indexed_list_remove(&hs->inst_retry, retry);
    free(retry);
}

void zeb_add_sync_inst_retry(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    if (zeb_get_sync_inst_retry(hs, src_app, dst) != nullptr)
        return;
    zeb_retry_inst_t *retry = (zeb_retry_inst_t *)zeb_malloc(sizeof(zeb_retry_inst_t));
    retry->src_app = src_app;
    retry->dst = dst;
    indexed_list_append(&hs->inst_retry, retry, zeb_inst_key(dst));
    HS_INFO(hs, "ZEB retry sync inst to %d/%d.\n", dst.app, dst.node);
}

void zeb_del_sync_inst_retry(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    zeb_retry_inst_t *retry = zeb_get_sync_inst_retry(hs, src_app, dst);
    if (retry == nullptr)
        return;
    HS_INFO(hs, "ZEB clear inst retry from %d to %d/%d.\n", src_app, dst.app, dst.node);
    drop_retry(hs, retry);
}

void zeb_clear_sync_inst_retry(zeb_handshake_t *hs, zeb_inst_t dst)
{
    zeb_retry_inst_t *retry = indexed_list_find(&hs->inst_retry, zeb_inst_key(dst));
    if (retry != nullptr)
        drop_retry(hs, retry);
}

// Resumes.

zeb_resume_comm_t *zeb_add_resume_comm(zeb_handshake_t *hs, uint32_t seq, zeb_inst_t dst)
{
    zeb_resume_comm_t *resume = (zeb_resume_comm_t *)zeb_malloc(sizeof(zeb_resume_comm_t));
    resume->seq = seq;
    resume->dst = dst;
    HS_INFO(hs, "ZEB try resume comm to %d/%d.\n", dst.app, dst.node);
    list_add_tail(&resume->list, &hs->resume_comm_list);
    return resume;
}

zeb_resume_comm_t *zeb_get_resume_comm(const zeb_handshake_t *hs, zeb_inst_t dst, zeb_resume_kind_t kind)
{
    for (const struct list_head *link = hs->resume_comm_list.next; link != &hs->resume_comm_list; link = link->next) {
        zeb_resume_comm_t *resume = list_entry(link, zeb_resume_comm_t, list);
        if (resume->kind == kind && zeb_same_inst(resume->dst, dst))
            return resume;
    }
    return nullptr;
}

// The first entry of an instance to expire ends the others. A peer that repeats itself gains nothing from more entries,
// and each one is a subscription in the kernel.
bool zeb_has_room_for_resume(const zeb_handshake_t *hs, zeb_inst_t dst)
{
    int all = 0;
    int same = 0;
    for (const struct list_head *link = hs->resume_comm_list.next; link != &hs->resume_comm_list; link = link->next) {
        all++;
        same += zeb_same_inst(list_entry(link, zeb_resume_comm_t, list)->dst, dst) ? 1 : 0;
    }
    return same < ZEB_RESUME_PER_INSTANCE_MAX && all < ZEB_RESUME_NUM_MAX;
}

void zeb_clear_resume_comm(zeb_handshake_t *hs, zeb_inst_t dst, zeb_resume_kind_t last)
{
    (void)list_remove_matching<zeb_resume_comm_t>(
        &hs->resume_comm_list,
        [&](const zeb_resume_comm_t *resume) { return resume->kind <= last && zeb_same_inst(resume->dst, dst); },
        [&](const zeb_resume_comm_t *resume) {
            HS_VERBOSE(hs, "ZEB clear resume comm to %d/%d.\n", resume->dst.app, resume->dst.node);
        });
}

zeb_resume_comm_t zeb_del_resume_comm(zeb_handshake_t *hs, uint32_t seq)
{
    zeb_resume_comm_t last;
    memset(&last, 0, sizeof(last));
    (void)list_remove_matching<zeb_resume_comm_t>(
        &hs->resume_comm_list, [&](const zeb_resume_comm_t *resume) { return resume->seq == seq; },
        [&](const zeb_resume_comm_t *resume) { last = *resume; });
    return last;
}

// Returned acknowledgements.

void zeb_free_returned_ack(zeb_returned_ack_t *ack)
{
    free(ack->msg);
    free(ack);
}

void zeb_drop_returned_ack(zeb_handshake_t *hs, zeb_returned_ack_t *ack)
{
    list_del(&ack->list);
    hs->sync_inst_ack_num.fetch_sub(1, std::memory_order_relaxed);
    zeb_free_returned_ack(ack);
}
