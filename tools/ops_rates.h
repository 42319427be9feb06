// Rates of an instance, from its statistics at two times. Pure functions.
#ifndef OPS_RATES_H
#define OPS_RATES_H

#include <cstdint>
#include <map>

#include "ops_stat.h"

constexpr double OPS_NO_RATE = -1;   // not known
constexpr double OPS_RATE_MAX = 1e7; // messages in a second: no instance reaches it

typedef struct ops_rates_s {
    int64_t span; // ms between the looks; 0: there is nothing to compare, and no rate is known
    double send;  // messages in a second
    double recv;
    int64_t queue;                    // messages by which the queue has grown
    std::map<uint32_t, double> sends; // by ops_name_of the peer: messages in a second
    std::map<uint32_t, double> recvs;
} ops_rates_t;

// The rate of a counter of 32 bits. A counter that has become less has passed its end, or has begun again when a peer
// joined or quit; then its rate is not known.
double ops_rate(uint32_t before, uint32_t after, int64_t span);

// `span` is 0 when another process answered the second time: it begins anew.
ops_rates_t ops_rates(const ops_stat_t &before, const ops_stat_t &after, int64_t span);

#endif
