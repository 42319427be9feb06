// The tap of a recorder (recorder.h): a copy of every message, or of its beginning, goes to a queue of the recorder
// with what became of the message. Without a recorder it costs one load. Nobody waits for a recorder: what its queue
// does not take is counted.
#ifndef SIM_TAP_H
#define SIM_TAP_H

#include "sim_socket.h"

constexpr uint32_t SIM_TAPPED = 100;            // `kind` of the blocks in a recorder's queue, which no message has
constexpr uint64_t SIM_TAP_LIMIT = 64ULL << 20; // bytes in a recorder's queue

enum sim_fate_e : uint32_t {
    SIM_FATE_TAKEN,   // in the receiver's queue, or the receiver's state has changed
    SIM_FATE_REFUSED, // `code` says why
    SIM_FATE_CUT,     // lost with its link
    SIM_FATE_LOSS     // lost on an impaired link
};

typedef struct sim_tap_s { // the data of such a block
    uint64_t time;         // ns since 1970, before the message was passed on
    uint32_t fate;         // sim_fate_e
    uint32_t code;         // TIPC error code
    uint32_t size;         // bytes of the message's data that follow
    sim_record_t record;   // of the message
} sim_tap_t;

// A copy to hand over when it is known what becomes of the message. Null when nobody records, or when there is no
// memory, which is counted.
sim_block_t *sim_tap_copy(const sim_self_t *self, const sim_record_t *record, const uint8_t *data);
// Hands a copy over; null does nothing. A recorder that is gone is forgotten.
void sim_tap_put(const sim_self_t *self, sim_block_t *copy, sim_fate_e fate, uint32_t code);
// A message gets lost on a link.
void sim_tap_lost(const sim_self_t *self, const sim_record_t *record, const uint8_t *data, sim_fate_e fate);

#endif
