// A world's hash. Sequence numbers and process ids are numbered in the order in which they occur; times are relative.
#include "exhaustive.h"

typedef struct hash_s {
    uint64_t value;
    int known_num;
    uint32_t known[256];
    const world_t *world;
} hash_t;

static void mix(hash_t *hash, uint64_t value)
{
    hash->value = (hash->value ^ value) * 0x9E3779B97F4A7C15ull;
    hash->value ^= hash->value >> 29;
}

static void mix_number(hash_t *hash, uint32_t number)
{
    if (number == 0) {
        mix(hash, 0);
        return;
    }
    int i = 0;
    while (i < hash->known_num && hash->known[i] != number)
        i++;
    if (i == hash->known_num && i < 256) {
        hash->known[i] = number;
        hash->known_num++;
    }
    mix(hash, (uint64_t)i + 1);
}

static void mix_inst(hash_t *hash, zeb_inst_t inst)
{
    mix(hash, zeb_inst_key(inst));
}

static void mix_body(hash_t *hash, const zeb_msg_sync_inst_ack_t *body)
{
    mix_number(hash, body->sync.seq);
    mix_number(hash, body->sync.id);
    mix(hash, body->sync.resume);
    mix_number(hash, body->pseq);
}

static void mix_pairs(hash_t *hash, const zeb_handshake_t *hs)
{
    indexed_list_each(&hs->inst_id, [&](const zeb_inst_id_t *id) {
        mix(hash, id->src_app);
        mix_inst(hash, id->dst);
        mix_number(hash, id->sync_id);
        mix_number(hash, id->sync_ack_id);
        mix_number(hash, id->send_seq);
        mix_number(hash, id->recv_seq);
        mix_number(hash, id->holder);
        mix(hash, id->sync_server);
    });
    mix(hash, 'p');
    indexed_list_each(&hs->inst_sync, [&](const zeb_pending_sync_t *sync) {
        mix(hash, sync->src_app);
        mix_inst(hash, sync->dst);
        mix_number(hash, sync->body.seq);
        mix(hash, sync->body.resume);
        mix(hash, sync->minutes < ZEB_UNANSWERED_MINUTES ? (uint64_t)sync->minutes : ZEB_UNANSWERED_MINUTES);
    });
    mix(hash, 'r');
    indexed_list_each(&hs->inst_retry, [&](const zeb_retry_inst_t *retry) {
        mix(hash, retry->src_app);
        mix_inst(hash, retry->dst);
        mix(hash, (uint64_t)retry->unknown_rounds);
    });
}

template <typename T, typename Visit>
static void each_of(const struct list_head *head, Visit visit)
{
    for (const struct list_head *link = head->next; link != head; link = link->next)
        visit(list_entry(link, T, list));
}

static void mix_lists(hash_t *hash, const zeb_handshake_t *hs)
{
    mix(hash, 'c');
    each_of<zeb_resume_comm_t>(&hs->resume_comm_list, [&](const zeb_resume_comm_t *resume) {
        mix_number(hash, resume->seq);
        mix_inst(hash, resume->dst);
        mix(hash, (uint64_t)resume->kind << 33 | (uint64_t)resume->again << 32 | resume->unsent_app);
    });
    mix(hash, 'a');
    each_of<zeb_returned_ack_t>(&hs->sync_inst_ack_list, [&](const zeb_returned_ack_t *ack) {
        mix_number(hash, ack->timer_seq);
        mix_inst(hash, ack->dst);
        mix_body(hash, (const zeb_msg_sync_inst_ack_t *)(const void *)ack->msg);
    });
}

static void mix_bits(hash_t *hash, const proc_t *proc)
{
    for (int name = 0; name < NAME_NUM; name++) {
        zeb_inst_t inst = name_inst(hash->world, name);
        const zeb_ol_app_t *ol = inst.app == 0 ? nullptr : zeb_hs_get_ol_app(&proc->hs, inst.app);
        if (ol == nullptr)
            continue;
        mix(hash, (uint64_t)zeb_app_set_test(&ol->unreported_bmp, inst.node) << 6 |
                      (uint64_t)zeb_app_set_test(&ol->srv_bmp, inst.node) << 5 |
                      (uint64_t)zeb_app_set_test(&ol->inst_bmp, inst.node) << 4 |
                      (uint64_t)zeb_app_set_test(&ol->inst_ack_bmp, inst.node) << 3 |
                      (uint64_t)zeb_app_set_test(&ol->ol_bmp, inst.node) << 2 | (uint64_t)proc->joined[name] << 1 |
                      (uint64_t)proc->withdrawn[name]);
    }
}

static void mix_connection(hash_t *hash, const proc_t *proc)
{
    mix(hash, (uint64_t)proc->connection << 1 | (uint64_t)proc->dying_says_notconn);
    mix(hash, proc->report_at == NEVER ? NEVER : proc->report_at - hash->world->now);
    mix(hash, (uint64_t)proc->fail_ack << 24 | (uint64_t)proc->fail_open << 16 | (uint64_t)proc->fail_timer << 8 |
                  (uint64_t)proc->fail_send);
    for (uint32_t i = 0; i < proc->events.num; i++) {
        const event_t *event = &proc->events.item[(proc->events.first + i) % QUEUE_ROOM];
        mix(hash, (uint64_t)event->kind << 16 | (uint64_t)event->name << 8 | event->timer.type);
        mix_number(hash, event->timer.seq);
    }
    mix(hash, has_unanswered(proc) ? (hash->world->now - proc->started) % MINUTE : NEVER);
    mix(hash, 't');
    for (int i = 0; i < proc->timer_num; i++) {
        mix(hash, proc->timer[i].expiry - hash->world->now);
        mix(hash, proc->timer[i].timer.type);
        mix_number(hash, proc->timer[i].timer.seq);
    }
}

static void mix_proc(hash_t *hash, const proc_t *proc)
{
    mix(hash, (uint64_t)proc->alive << 1 | (uint64_t)proc->bound);
    if (!proc->alive)
        return;
    const zeb_handshake_t *hs = &proc->hs;
    mix_number(hash, proc->pid);
    mix(hash, (uint64_t)hs->timer_inst_retry_open);
    mix_bits(hash, proc);
    mix_pairs(hash, hs);
    mix_lists(hash, hs);
    mix_connection(hash, proc);
}

static void mix_channels(hash_t *hash)
{
    for (int half = 0; half < CHANNEL_NUM / 64; half++) {
        for (uint64_t mask = hash->world->channel_mask[half]; mask != 0; mask &= mask - 1) {
            const ring<message_t> *queue = &hash->world->channel[half * 64 + __builtin_ctzll(mask)];
            mix(hash, (uint64_t)(half * 64 + __builtin_ctzll(mask)));
            for (uint32_t i = 0; i < queue->num; i++) {
                const message_t *message = &queue->item[(queue->first + i) % QUEUE_ROOM];
                mix(hash, (uint64_t)message->kind << 24 | (uint64_t)message->from << 16 | (uint64_t)message->to << 8 |
                              (uint64_t)message->doomed);
                mix_number(hash, message->dst_pid);
                mix_number(hash, message->src_pid);
                mix_body(hash, &message->body);
            }
        }
    }
}

static void mix_nodes(hash_t *hash)
{
    const world_t *world = hash->world;
    for (uint32_t a = 1; a < NODE_NUM; a++) {
        for (uint32_t b = 1; b < NODE_NUM; b++) {
            mix(hash, (uint64_t)world->cut[a][b] << 1 | (uint64_t)world->noticed[a][b]);
            const ring<name_change_t> *queue = &world->names[a][b];
            for (uint32_t i = 0; i < queue->num; i++) {
                const name_change_t *change = &queue->item[(queue->first + i) % QUEUE_ROOM];
                mix(hash, (uint64_t)change->name << 8 | (uint64_t)change->sub << 4 | (uint64_t)change->bound);
            }
        }
        for (uint8_t binders : world->view[a])
            mix(hash, binders);
    }
    for (uint8_t pick : world->pick)
        mix(hash, pick);
}

uint64_t world_hash(const world_t *world)
{
    hash_t hash = {1, 0, {0}, world};
    for (const proc_t &proc : world->proc)
        mix_proc(&hash, &proc);
    mix_channels(&hash);
    mix_nodes(&hash);
    return hash.value;
}
