// How far an instance and a pair are in the handshake. A phase is derived from the core's records; nothing is stored.
// This serves tests, listings and readers of the core. It is part of the core, so its caller's lock is held.
// zeb_handshake_table.h says how a pair gets from one phase to the next.
#ifndef ZEB_HANDSHAKE_STATE_H
#define ZEB_HANDSHAKE_STATE_H

#include "zeb_handshake.h"

// The phase of an instance: its bits, which all local applications share.
typedef enum zeb_inst_phase_e : int {
    ZEB_INST_UNKNOWN,
    ZEB_INST_SYNCED, // has synchronised with us
    ZEB_INST_ACKED,  // has acknowledged our synchronisation
    ZEB_INST_BOTH,   // has done both and is not online; only during an event
    ZEB_INST_ONLINE, // has done both, and its process ids agree
    ZEB_INST_PHASE_NUM,
} zeb_inst_phase_t;

// The phase of a pair: the instance's bits, and whether a synchronisation of ours is pending.
typedef enum zeb_pair_phase_e : int {
    ZEB_PAIR_IDLE,
    ZEB_PAIR_WAITING, // ours is pending
    ZEB_PAIR_HALF,    // the peer has synchronised, ours is not pending
    ZEB_PAIR_CROSSED, // the peer has synchronised, ours is pending
    ZEB_PAIR_ACKED,   // the peer has acknowledged ours; its own is missing, or its process ids differ
    ZEB_PAIR_ONLINE,
    ZEB_PAIR_PHASE_NUM,
} zeb_pair_phase_t;

zeb_inst_phase_t zeb_hs_inst_phase(const zeb_handshake_t *hs, zeb_inst_t inst);
zeb_pair_phase_t zeb_hs_pair_phase(const zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer);

const char *zeb_inst_phase_text(zeb_inst_phase_t phase);
const char *zeb_pair_phase_text(zeb_pair_phase_t phase);

#endif
