#include "zeb_handshake_state.h"

#include "zeb_handshake_record.h"

zeb_inst_phase_t zeb_hs_inst_phase(const zeb_handshake_t *hs, zeb_inst_t inst)
{
    const zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr)
        return ZEB_INST_UNKNOWN;
    if (zeb_app_set_test(&ol->ol_bmp, inst.node))
        return ZEB_INST_ONLINE;
    bool synced = zeb_app_set_test(&ol->inst_bmp, inst.node);
    if (zeb_app_set_test(&ol->inst_ack_bmp, inst.node))
        return synced ? ZEB_INST_BOTH : ZEB_INST_ACKED;
    return synced ? ZEB_INST_SYNCED : ZEB_INST_UNKNOWN;
}

zeb_pair_phase_t zeb_hs_pair_phase(const zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer)
{
    bool pending = zeb_has_sync_inst_of(hs, my_app, peer);
    switch (zeb_hs_inst_phase(hs, peer)) {
    case ZEB_INST_ONLINE:
        return ZEB_PAIR_ONLINE;
    case ZEB_INST_ACKED:
    case ZEB_INST_BOTH:
        return ZEB_PAIR_ACKED;
    case ZEB_INST_SYNCED:
        return pending ? ZEB_PAIR_CROSSED : ZEB_PAIR_HALF;
    default:
        return pending ? ZEB_PAIR_WAITING : ZEB_PAIR_IDLE;
    }
}

const char *zeb_inst_phase_text(zeb_inst_phase_t phase)
{
    static const char *const texts[] = {"unknown", "synchronised", "acked", "both", "online"};
    static_assert(sizeof(texts) / sizeof(texts[0]) == ZEB_INST_PHASE_NUM, "a text for each phase");
    return texts[phase];
}

const char *zeb_pair_phase_text(zeb_pair_phase_t phase)
{
    static const char *const texts[] = {"idle", "waiting", "half", "crossed", "acked", "online"};
    static_assert(sizeof(texts) / sizeof(texts[0]) == ZEB_PAIR_PHASE_NUM, "a text for each phase");
    return texts[phase];
}
