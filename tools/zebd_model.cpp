#include "zebd_model.h"

#include <algorithm>
#include <iterator>

typedef std::pair<uint32_t, uint32_t> pair_name_t;

void zebd_model_event(zebd_model_t *model, zebd_loop_t *loop, const ops_event_t &event)
{
    model->events.push_back(event);
    if (model->events.size() > ZEBD_EVENTS_MAX)
        model->events.pop_front();
    zebd_loop_tell(loop, ++model->event_number, event);
}

void zebd_model_join(zebd_model_t *model, zebd_loop_t *loop, ops_inst_t inst, uint32_t sockets, int64_t since)
{
    uint32_t name = ops_name_of(inst);
    auto found = model->insts.find(name);
    if (found == model->insts.end() && model->insts.size() >= ZEBD_INSTS_MAX) {
        model->left_out++;
    } else {
        zebd_inst_t *known = &model->insts[name];
        known->inst = inst;
        known->sockets = sockets;
        known->since = since;
        known->quit = 0;
        known->outcome = OPS_WAITING;
        known->info = {};
        known->program.clear();
        known->stat = ops_stat_t();
    }
    if (since != 0)
        zebd_model_event(model, loop, {since, OPS_EVENT_JOINED, inst, {}, 0});
}

static void set_blocked(zebd_model_t *model, zebd_loop_t *loop, zebd_pair_t *pair, int32_t unack, int64_t at)
{
    bool blocked = unack > OPS_WINDOW;
    if (blocked == (pair->blocked_since != 0))
        return;
    pair->blocked_since = blocked ? at : 0;
    zebd_model_event(model, loop,
                     {at, blocked ? OPS_EVENT_BLOCKED : OPS_EVENT_UNBLOCKED, pair->sender, pair->receiver, unack});
}

void zebd_model_quit(zebd_model_t *model, zebd_loop_t *loop, ops_inst_t inst)
{
    uint32_t name = ops_name_of(inst);
    int64_t now = ops_wall();
    auto found = model->insts.find(name);
    if (found != model->insts.end()) {
        found->second.quit = now;
        found->second.sockets = 0;
    } else if (model->left_out != 0) {
        model->left_out--;
    }
    zebd_model_event(model, loop, {now, OPS_EVENT_QUIT, inst, {}, 0});
    for (auto it = model->pairs.lower_bound({name, 0}); it != model->pairs.end() && it->first.first == name; ++it)
        set_blocked(model, loop, &it->second, 0, now);
}

void zebd_model_bound_gone(zebd_model_t *model)
{
    std::vector<std::pair<int64_t, uint32_t>> gone;
    for (const auto &[name, inst] : model->insts) {
        if (inst.quit != 0)
            gone.emplace_back(inst.quit, name);
    }
    if (gone.size() <= ZEBD_GONE_MAX)
        return;
    std::sort(gone.begin(), gone.end());
    for (size_t i = 0; i < gone.size() - ZEBD_GONE_MAX; i++)
        model->insts.erase(gone[i].second);
}

// While somebody follows, samples come more often than they are kept for: then the newest takes the place of the one
// before, unless that is a whole step away from its own.
template <typename T>
static void push(const zebd_model_t *model, std::deque<T> *samples, const T &sample)
{
    if (samples->size() > 1 && sample.at - (*samples)[samples->size() - 2].at < model->sample_step)
        samples->pop_back();
    samples->push_back(sample);
    if (samples->size() > ZEBD_SAMPLES)
        samples->pop_front();
}

static zebd_pair_t *pair_of(zebd_model_t *model, const pair_name_t &name)
{
    auto found = model->pairs.find(name);
    if (found != model->pairs.end())
        return &found->second;
    if (model->pairs.size() >= ZEBD_PAIRS_MAX) {
        model->pairs_left_out++;
        return nullptr;
    }
    zebd_pair_t *pair = &model->pairs[name];
    pair->sender = ops_inst_of(name.first);
    pair->receiver = ops_inst_of(name.second);
    return pair;
}

// Pairs of a sender that its listing no longer has.
static void clear_unlisted(zebd_model_t *model, zebd_loop_t *loop, ops_inst_t sender, int64_t at)
{
    uint32_t name = ops_name_of(sender);
    for (auto it = model->pairs.lower_bound({name, 0}); it != model->pairs.end() && it->first.first == name; ++it) {
        if (it->second.samples.empty() || it->second.samples.back().at != at)
            set_blocked(model, loop, &it->second, 0, at);
    }
}

void zebd_model_stat(zebd_model_t *model, zebd_loop_t *loop, zebd_inst_t *inst, int64_t at)
{
    const ops_stat_t &stat = inst->stat;
    if ((stat.parts & OPS_STAT_FLOW) == 0)
        return;
    push(model, &inst->samples,
         {at, stat.send, stat.recv, stat.queue, stat.mcast_reject, stat.exception, stat.send_unack, stat.recv_unack});
    for (const ops_flow_send_t &flow : stat.sends) {
        if (flow.send == 0 && flow.unack <= 0) // nothing was ever sent
            continue;
        zebd_pair_t *pair = pair_of(model, {ops_name_of(inst->inst), ops_name_of(flow.dst)});
        if (pair == nullptr)
            continue;
        push(model, &pair->samples, {at, flow.send, flow.reject, flow.unack});
        set_blocked(model, loop, pair, flow.unack, at);
    }
    if (!stat.cut)
        clear_unlisted(model, loop, inst->inst, at);
}

static bool is_idle(const zebd_pair_t &pair)
{
    return pair.blocked_since == 0 && !pair.samples.empty() && pair.samples.front().send == pair.samples.back().send &&
           pair.samples.size() > 1;
}

void zebd_model_clean(zebd_model_t *model, int64_t now)
{
    for (auto it = model->insts.begin(); it != model->insts.end();) {
        bool old = it->second.quit != 0 && now - it->second.quit > ZEBD_GONE_TIME;
        it = old ? model->insts.erase(it) : std::next(it);
    }
    for (auto it = model->pairs.begin(); it != model->pairs.end();) {
        bool gone = model->insts.count(it->first.first) == 0;
        bool idle = model->pairs_left_out != 0 && is_idle(it->second);
        it = gone || idle ? model->pairs.erase(it) : std::next(it);
    }
}

void zebd_model_shorten(ops_stat_t *stat)
{
    ops_stat_t totals = ops_stat_t();
    totals.parts = stat->parts;
    totals.cut = true;
    totals.odd = stat->odd;
    totals.app = stat->app;
    totals.node = stat->node;
    totals.name = stat->name.substr(0, 64);
    totals.priority = stat->priority;
    totals.queue = stat->queue;
    totals.send = stat->send;
    totals.mcast_reject = stat->mcast_reject;
    totals.reply_exception = stat->reply_exception;
    totals.recv = stat->recv;
    totals.exception = stat->exception;
    totals.send_unack = stat->send_unack;
    totals.recv_unack = stat->recv_unack;
    totals.sync_send = stat->sync_send;
    totals.sync_recv = stat->sync_recv;
    *stat = totals;
}
