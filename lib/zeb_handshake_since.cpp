#include "zeb_handshake_since.h"

#include "platform/list_algo.h"
#include "zeb_handshake_record.h"
#include "zeb_handshake_state.h"
#define ZEB_PROBE_GUARDED
#include "zeb_probe.h"

typedef struct since_record_s {
    struct list_head list;
    list_index_link_t index_link; // by instance
    zeb_inst_t inst;
    zeb_since_t since;
    struct since_record_s *next_touched; // in s_touched
    bool touched;
} since_record_t;

static indexed_list<since_record_t> s_records ZEB_GUARDED_BY(g_lib_mutex);
static since_record_t *s_touched ZEB_GUARDED_BY(g_lib_mutex); // what the running event concerns

void __zeb_since_clear()
{
    static bool s_used ZEB_GUARDED_BY(g_lib_mutex); // the list is whole
    if (s_used)
        indexed_list_clear(&s_records);
    indexed_list_init(&s_records);
    s_touched = nullptr;
    s_used = true;
}

static since_record_t *find_or_create(zeb_inst_t inst) ZEB_REQUIRES(g_lib_mutex)
{
    since_record_t *record = indexed_list_find(&s_records, zeb_inst_key(inst));
    if (record != nullptr || indexed_list_num(&s_records) >= ZEB_SINCE_NUM_MAX)
        return record;
    record = (since_record_t *)zeb_malloc(sizeof(since_record_t));
    record->inst = inst;
    indexed_list_append(&s_records, record, zeb_inst_key(inst));
    return record;
}

void zeb_since_touch(zeb_inst_t inst) ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    since_record_t *record = find_or_create(inst);
    if (record == nullptr || record->touched)
        return;
    record->touched = true;
    record->next_touched = s_touched;
    s_touched = record;
}

static zeb_peer_phase_t phase_of(const zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_inst_phase_t phase = zeb_hs_inst_phase(hs, inst);
    if (phase == ZEB_INST_ONLINE)
        return ZEB_PEER_ONLINE;
    return phase != ZEB_INST_UNKNOWN || zeb_has_sync_inst(hs, inst) ? ZEB_PEER_HANDSHAKING : ZEB_PEER_UNKNOWN;
}

static zeb_since_t look(const zeb_handshake_t *hs, zeb_inst_t inst)
{
    const zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    zeb_since_t found = {phase_of(hs, inst), false, 0};
    found.server = found.phase == ZEB_PEER_ONLINE && zeb_app_set_test(&ol->srv_bmp, inst.node);
    return found;
}

// True when a server has come or gone.
static bool note(const zeb_handshake_t *hs, since_record_t *record, int64_t *now)
{
    zeb_since_t found = look(hs, record->inst);
    bool server_changed = found.server != record->since.server;
    if (found.phase != record->since.phase && *now == 0)
        *now = zeb_monotonic_ns();
    found.time = found.phase != record->since.phase ? *now : record->since.time;
    record->since = found;
    return server_changed;
}

#ifdef ZEB_PROBES
volatile unsigned short zeb_pair_semaphore __attribute__((section(".probes"))); // tracers count themselves here
#endif

static void fire_pairs(const zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr)
        return;
    zeb_each_subscr_app(ol, [&](uint32_t app) {
        int phase = zeb_hs_pair_phase(hs, app, inst);
        ZEB_PROBE_PAIR(app, inst.app, inst.node, phase);
    });
}

void __zeb_since_note(const zeb_handshake_t *hs)
{
    int64_t now = 0;
    bool servers_changed = false;
    for (; s_touched != nullptr; s_touched = s_touched->next_touched) {
        s_touched->touched = false;
        servers_changed = note(hs, s_touched, &now) || servers_changed;
        if (ZEB_PROBE_ON(pair))
            fire_pairs(hs, s_touched->inst);
    }
    if (servers_changed)
        zeb_cond_broadcast(&g_zeb_mng.running_cond);
}

zeb_since_t __zeb_get_since(const zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_since_t found = look(hs, inst);
    const since_record_t *record = indexed_list_find(&s_records, zeb_inst_key(inst));
    found.time = record == nullptr ? 0 : record->since.time;
    return found;
}
