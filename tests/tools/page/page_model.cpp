#include "page_model.h"

#include <algorithm>

static const char *const NAMES[] = {"routed", "alarmd", "linkd", "config", "stats", "clock", "fand", "shell"};

ops_inst_t page_inst(uint32_t node, uint32_t index)
{
    return {100 + index * 10, node + 1};
}

static void add_inst(zebd_model_t *model, ops_inst_t inst)
{
    zebd_inst_t added = {};
    added.inst = inst;
    added.sockets = 1;
    added.outcome = OPS_ANSWERED;
    added.info = {inst.app, (int32_t)(1000 + inst.app + inst.node), 0xc};
    added.program = "board";
    added.stat.parts = OPS_STAT_WHOLE;
    added.stat.app = inst.app;
    added.stat.node = inst.node;
    added.stat.name = NAMES[inst.app / 10 % 8];
    if (inst.app % 30 != 0)
        added.stat.versions = {1, 3};
    model->insts[ops_name_of(inst)] = added;
}

static void add_pair(zebd_model_t *model, ops_inst_t sender, ops_inst_t receiver)
{
    zebd_pair_t pair = {};
    pair.sender = sender;
    pair.receiver = receiver;
    model->pairs[{ops_name_of(sender), ops_name_of(receiver)}] = pair;
}

// Messages of a pair in a step: some pairs are silent, some busy, and they rise and fall.
static uint32_t messages_of(const zebd_pair_t &pair, uint64_t round)
{
    uint32_t kind = (pair.sender.app + 7 * pair.sender.node + 3 * pair.receiver.node) % 11;
    if (kind < 3 || pair.blocked_since != 0)
        return 0;
    return kind * kind * kind + (uint32_t)(round * kind % 40);
}

static void sample_pair(zebd_model_t *model, zebd_pair_t *pair, int64_t at)
{
    zebd_pair_sample_t next = pair->samples.empty() ? zebd_pair_sample_t{} : pair->samples.back();
    next.at = at;
    next.send += messages_of(*pair, model->round);
    next.unack = pair->blocked_since != 0 ? 1025 : (int32_t)(next.send % 512);
    pair->samples.push_back(next);
    if (pair->samples.size() > ZEBD_SAMPLES)
        pair->samples.pop_front();
}

void page_round(zebd_model_t *model, int64_t at)
{
    model->round++;
    std::map<uint32_t, zebd_sample_t> next;
    for (auto &[names, pair] : model->pairs) {
        sample_pair(model, &pair, at);
        const zebd_pair_sample_t &sample = pair.samples.back();
        next[names.first].send += sample.send;
        next[names.first].send_unack += sample.unack;
        next[names.second].recv += sample.send - std::min(sample.send, (uint32_t)sample.unack);
        next[names.second].queue += pair.blocked_since != 0 ? 1024 : 0;
    }
    for (auto &[name, inst] : model->insts) {
        if (inst.quit != 0 || inst.outcome != OPS_ANSWERED)
            continue;
        zebd_sample_t sample = next[name];
        sample.at = at;
        inst.samples.push_back(sample);
        if (inst.samples.size() > ZEBD_SAMPLES)
            inst.samples.pop_front();
        model->asked++;
        model->answered++;
    }
}

zebd_model_t page_model(uint32_t nodes, uint32_t apps, uint32_t peers)
{
    zebd_model_t model = {};
    int64_t now = ops_wall();
    model.node = 1;
    model.started = now - 3600000;
    for (uint32_t node = 0; node < nodes; node++) {
        for (uint32_t index = 0; index < apps; index++)
            add_inst(&model, page_inst(node, index));
    }
    uint32_t count = nodes * apps;
    for (uint32_t i = 0; i < count; i++) {
        for (uint32_t peer = 1; peer <= peers; peer++) {
            uint32_t other = (i + peer * (apps + 1)) % count;
            if (other != i)
                add_pair(&model, page_inst(i / apps, i % apps), page_inst(other / apps, other % apps));
        }
    }
    for (size_t i = 0; i < ZEBD_SAMPLES; i++)
        page_round(&model, now - (int64_t)(ZEBD_SAMPLES - 1 - i) * PAGE_STEP);
    return model;
}

void page_event(zebd_model_t *model, ops_event_kind_t kind, ops_inst_t inst, ops_inst_t peer)
{
    model->events.push_back({ops_wall(), kind, inst, peer, kind == OPS_EVENT_BLOCKED ? 1025 : 0});
    model->event_number++;
    if (model->events.size() > ZEBD_EVENTS_MAX)
        model->events.pop_front();
}

void page_join(zebd_model_t *model, ops_inst_t inst)
{
    add_inst(model, inst);
    model->insts[ops_name_of(inst)].since = ops_wall();
    page_event(model, OPS_EVENT_JOINED, inst, {});
}

void page_quit(zebd_model_t *model, ops_inst_t inst, int64_t ago)
{
    model->insts[ops_name_of(inst)].quit = ops_wall() - ago;
    page_event(model, OPS_EVENT_QUIT, inst, {});
}

void page_block(zebd_model_t *model, ops_inst_t sender, ops_inst_t receiver, bool blocked)
{
    add_pair(model, sender, receiver);
    zebd_pair_t *pair = &model->pairs[{ops_name_of(sender), ops_name_of(receiver)}];
    pair->blocked_since = blocked ? ops_wall() : 0;
    sample_pair(model, pair, ops_wall());
    page_event(model, blocked ? OPS_EVENT_BLOCKED : OPS_EVENT_UNBLOCKED, sender, receiver);
}
