#include "ops_rates.h"

double ops_rate(uint32_t before, uint32_t after, int64_t span)
{
    if (span <= 0)
        return OPS_NO_RATE;
    double rate = (double)(uint32_t)(after - before) * 1000 / (double)span;
    return after < before && rate > OPS_RATE_MAX ? OPS_NO_RATE : rate;
}

// Of pairs that both looks have.
template <typename Flow>
static std::map<uint32_t, double> pair_rates(const std::vector<Flow> &before, const std::vector<Flow> &after,
                                             ops_inst_t Flow::*peer, uint32_t Flow::*counter, int64_t span)
{
    std::map<uint32_t, uint32_t> then;
    std::map<uint32_t, double> rates;
    for (const Flow &flow : before)
        then[ops_name_of(flow.*peer)] = flow.*counter;
    for (const Flow &flow : after) {
        auto found = then.find(ops_name_of(flow.*peer));
        if (found != then.end())
            rates[found->first] = ops_rate(found->second, flow.*counter, span);
    }
    return rates;
}

ops_rates_t ops_rates(const ops_stat_t &before, const ops_stat_t &after, int64_t span)
{
    ops_rates_t rates = {0, OPS_NO_RATE, OPS_NO_RATE, 0, {}, {}};
    if (span <= 0 || (before.parts & after.parts & OPS_STAT_FLOW) == 0)
        return rates;
    rates.span = span;
    rates.send = ops_rate(before.send, after.send, span);
    rates.recv = ops_rate(before.recv, after.recv, span);
    rates.queue = (int64_t)after.queue - before.queue;
    rates.sends = pair_rates(before.sends, after.sends, &ops_flow_send_t::dst, &ops_flow_send_t::send, span);
    rates.recvs = pair_rates(before.recvs, after.recvs, &ops_flow_recv_t::src, &ops_flow_recv_t::recv, span);
    return rates;
}
