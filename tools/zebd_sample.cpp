#include "zebd_sample.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "ops_log.h"
#include "zebd_model.h"

constexpr int64_t ROUND_TIMEOUT = 2000; // ms that an instance has for a reply
constexpr int64_t REOPEN = 500;         // ms until a lost connection is tried again
constexpr int64_t NAME_RETRY = 500;     // ms until application 1 is tried again, and up to as much more
constexpr int64_t NAME_TIME = 1000;     // ms that taking it may last
constexpr int64_t COST = 20;            // a round takes at most this part of the time
constexpr uint64_t IDENTITY_ROUNDS = 6; // an identity is asked for again after so many rounds
constexpr int CHANGES_AT_ONCE = 1024;

static void open_view(zebd_sampler_t *sampler);
static void open_client(zebd_sampler_t *sampler);
static void plan_round(zebd_sampler_t *sampler);

// The view.

static bool is_there(const zebd_model_t *model, uint32_t name)
{
    auto found = model->insts.find(name);
    return found != model->insts.end() && found->second.quit == 0;
}

// What has changed while there was no view. What the first one shows was there before.
static void compare(zebd_sampler_t *sampler)
{
    zebd_model_t *model = sampler->model;
    std::vector<uint32_t> quit;
    for (const auto &[name, inst] : model->insts) {
        if (inst.quit == 0 && sampler->view.insts.count(name) == 0)
            quit.push_back(name);
    }
    for (uint32_t name : quit)
        zebd_model_quit(model, sampler->loop, ops_inst_of(name));
    int64_t since = sampler->was_in_step ? ops_wall() : 0;
    for (const auto &[name, published] : sampler->view.insts) {
        if (!is_there(model, name) && (since == 0 || model->insts.size() < ZEBD_INSTS_MAX))
            zebd_model_join(model, sampler->loop, ops_inst_of(name), published.sockets, since);
    }
    zebd_model_bound_gone(model);
}

static void apply(zebd_sampler_t *sampler, ops_change_t change, ops_inst_t inst)
{
    if (change == OPS_QUIT)
        zebd_model_quit(sampler->model, sampler->loop, inst);
    if (change == OPS_JOINED)
        zebd_model_join(sampler->model, sampler->loop, inst, 1, ops_wall());
}

static void lose_view(zebd_sampler_t *sampler)
{
    zebd_loop_remove(sampler->loop, sampler->view_watch);
    ops_view_close(&sampler->view);
    sampler->in_step = false;
    sampler->view_timer = zebd_loop_at(sampler->loop, REOPEN, [sampler] { open_view(sampler); });
}

static void on_step(zebd_sampler_t *sampler)
{
    sampler->in_step = true;
    compare(sampler);
    if (!sampler->was_in_step)
        open_client(sampler);
    sampler->was_in_step = true;
}

static void read_view(zebd_sampler_t *sampler)
{
    ops_change_t change = OPS_NO_CHANGE;
    ops_inst_t inst = {};
    int ret = 0;
    for (int i = 0; i < CHANGES_AT_ONCE && ret == 0; i++) {
        ret = ops_view_read(&sampler->view, &change, &inst);
        if (ret == 0 && sampler->in_step)
            apply(sampler, change, inst);
        else if (ret == 0 && sampler->view.marks_seen == sampler->view.marks_sent)
            on_step(sampler);
    }
    zebd_model_bound_gone(sampler->model);
    if (ret != -EPIPE)
        return;
    sampler->say(4, "the connection to the topology service is lost; it is opened again");
    lose_view(sampler);
}

static int try_view(zebd_sampler_t *sampler)
{
    int ret = ops_view_open(&sampler->view);
    if (ret == 0)
        ret = ops_view_mark(&sampler->view);
    if (ret != 0) {
        ops_view_close(&sampler->view);
        return ret;
    }
    sampler->view_watch =
        zebd_loop_add(sampler->loop, sampler->view.sd, POLLIN, [sampler](short) { read_view(sampler); });
    return 0;
}

static void open_view(zebd_sampler_t *sampler)
{
    if (try_view(sampler) != 0)
        sampler->view_timer = zebd_loop_at(sampler->loop, REOPEN, [sampler] { open_view(sampler); });
}

// Application 1.

static void step(zebd_sampler_t *sampler)
{
    zebd_loop_remove(sampler->loop, sampler->step_timer);
    if (!sampler->is_app1)
        return;
    int64_t wake = ops_client_step(&sampler->client);
    zebd_loop_remove(sampler->loop, sampler->step_timer); // a report may have stepped as well
    if (!sampler->client.batches.empty())
        sampler->step_timer =
            zebd_loop_at(sampler->loop, std::max<int64_t>(0, wake - ops_now()), [sampler] { step(sampler); });
}

static void read_client(zebd_sampler_t *sampler)
{
    ops_client_read(&sampler->client);
    sampler->model->strays = sampler->client.strays;
    step(sampler);
}

static void try_again(zebd_sampler_t *sampler)
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // two that start together do not meet again and again
    sampler->client_timer =
        zebd_loop_at(sampler->loop, NAME_RETRY + now.tv_nsec / 1000 % NAME_RETRY, [sampler] { open_client(sampler); });
}

static void open_client(zebd_sampler_t *sampler)
{
    zebd_model_t *model = sampler->model;
    auto on_message = sampler->client.on_message;
    auto on_returned = sampler->client.on_returned;
    int ret = sampler->in_step ? ops_client_open(&sampler->client, &sampler->view, model->node, ops_now() + NAME_TIME)
                               : -EAGAIN;
    if (sampler->in_step)
        compare(sampler); // it read what came meanwhile
    sampler->client.on_message = on_message;
    sampler->client.on_returned = on_returned;
    if (ret != 0) {
        if (!sampler->said_held && ret != -EAGAIN)
            sampler->say(4, "application 1 of node %u cannot be taken yet: %s", model->node,
                         ret == -EADDRINUSE ? "another process has it" : strerror(-ret));
        sampler->said_held = sampler->said_held || ret != -EAGAIN;
        return try_again(sampler);
    }
    if (sampler->said_held)
        sampler->say(5, "application 1 of node %u is taken now", model->node);
    sampler->said_held = false;
    sampler->is_app1 = true;
    sampler->client_watch =
        zebd_loop_add(sampler->loop, sampler->client.sd, POLLIN, [sampler](short) { read_client(sampler); });
    plan_round(sampler);
}

int zebd_sampler_ask(zebd_sampler_t *sampler, ops_batch_t *batch)
{
    if (!sampler->is_app1)
        return -EADDRINUSE;
    ops_client_begin(&sampler->client, batch);
    zebd_sampler_wake(sampler);
    return 0;
}

void zebd_sampler_cancel(zebd_sampler_t *sampler, ops_batch_t *batch)
{
    if (sampler->is_app1)
        ops_client_cancel(&sampler->client, batch);
}

// Not at once: a report of a step may be what wakes it.
void zebd_sampler_wake(zebd_sampler_t *sampler)
{
    zebd_loop_remove(sampler->loop, sampler->step_timer);
    sampler->step_timer = zebd_loop_at(sampler->loop, 0, [sampler] { step(sampler); });
}

// Rounds.

static zebd_inst_t *inst_of(zebd_model_t *model, ops_inst_t inst)
{
    auto found = model->insts.find(ops_name_of(inst));
    return found == model->insts.end() || found->second.quit != 0 ? nullptr : &found->second;
}

static void take_identity(zebd_sampler_t *sampler, zebd_inst_t *inst, const ops_request_t *request)
{
    bool same = inst->info.pid == request->info.pid;
    inst->info = request->info;
    if (!same && inst->inst.node == sampler->model->node)
        inst->program = ops_process_look(request->info.pid).program;
    else if (!same)
        inst->program.clear();
}

// Only so much is kept parsed, however many instances there are and whatever they answer.
static void bound_stats(zebd_sampler_t *sampler, zebd_inst_t *inst, size_t len)
{
    size_t *kept = &sampler->stat_bytes[ops_name_of(inst->inst)];
    sampler->stats_size -= *kept;
    if (sampler->stats_size + len > ZEBD_STATS_MAX) {
        zebd_model_shorten(&inst->stat);
        len = 0;
    }
    *kept = len;
    sampler->stats_size += len;
}

static void take_stat(zebd_sampler_t *sampler, zebd_inst_t *inst, const ops_request_t *request)
{
    inst->stat = ops_stat_parse(request->text.data(), request->text.size());
    zebd_model_stat(sampler->model, sampler->loop, inst, ops_wall());
    bound_stats(sampler, inst, request->text.size());
}

static void end_round(zebd_sampler_t *sampler)
{
    zebd_model_t *model = sampler->model;
    zebd_model_clean(model, ops_wall());
    for (auto it = sampler->stat_bytes.begin(); it != sampler->stat_bytes.end();) {
        bool gone = model->insts.count(it->first) == 0;
        sampler->stats_size -= gone ? it->second : 0;
        it = gone ? sampler->stat_bytes.erase(it) : std::next(it);
    }
    model->asked = sampler->client.asked;
    model->answered = sampler->client.answered;
    model->strays = sampler->client.strays;
    model->round++;
    sampler->in_round = false;
    plan_round(sampler);
}

static void on_done(zebd_sampler_t *sampler, ops_request_t *request)
{
    zebd_inst_t *inst = inst_of(sampler->model, request->inst);
    if (inst != nullptr) {
        inst->outcome = request->outcome;
        inst->why = request->why;
        if (request->outcome == OPS_ANSWERED && request->ask == OPS_ASK_STAT)
            take_stat(sampler, inst, request);
        else if (request->outcome == OPS_ANSWERED)
            take_identity(sampler, inst, request);
    }
    if (request->outcome == OPS_ANSWERED)
        sampler->took = ops_now() - sampler->began;
    std::string().swap(request->text);
    if (sampler->batch.waiting == 0)
        end_round(sampler);
}

static void begin_round(zebd_sampler_t *sampler)
{
    sampler->requests.clear();
    for (auto &entry : sampler->model->insts) {
        zebd_inst_t &inst = entry.second;
        inst.sockets = ops_view_sockets(&sampler->view, inst.inst);
        if (inst.quit != 0 || inst.inst.app == ZEBD_APP_ID)
            continue;
        if (inst.info.pid == 0 || sampler->model->round % IDENTITY_ROUNDS == 0)
            sampler->requests.push_back(ops_request(inst.inst, OPS_ASK_INFO));
        sampler->requests.push_back(ops_request(inst.inst, OPS_ASK_STAT));
    }
    sampler->in_round = true;
    sampler->began = ops_now();
    sampler->took = 0;
    sampler->model->pairs_left_out = 0;
    sampler->batch = ops_batch_t();
    sampler->batch.requests = &sampler->requests;
    sampler->batch.timeout = ROUND_TIMEOUT;
    sampler->batch.on_done = [sampler](ops_request_t *request) { on_done(sampler, request); };
    (void)zebd_sampler_ask(sampler, &sampler->batch);
    if (sampler->batch.waiting == 0)
        end_round(sampler);
}

static int64_t pause_of(const zebd_sampler_t *sampler)
{
    if (sampler->loop->followers.size() <= sampler->loop->own_followers)
        return sampler->interval;
    return std::min(sampler->interval, std::max(ZEBD_FAST, COST * sampler->took));
}

static void plan_round(zebd_sampler_t *sampler)
{
    zebd_loop_remove(sampler->loop, sampler->round_timer);
    int64_t due = sampler->model->round == 0 ? 0 : sampler->began + pause_of(sampler) - ops_now();
    sampler->round_timer = zebd_loop_at(sampler->loop, std::max<int64_t>(0, due), [sampler] { begin_round(sampler); });
}

void zebd_sampler_hasten(zebd_sampler_t *sampler)
{
    if (sampler->is_app1 && !sampler->in_round)
        plan_round(sampler);
}

int zebd_sampler_open(zebd_sampler_t *sampler)
{
    sampler->view.sd = sampler->client.sd = -1;
    return try_view(sampler);
}

void zebd_sampler_close(zebd_sampler_t *sampler)
{
    for (zebd_entry_t entry : {sampler->view_watch, sampler->view_timer, sampler->client_watch, sampler->client_timer,
                               sampler->step_timer, sampler->round_timer})
        zebd_loop_remove(sampler->loop, entry);
    if (sampler->is_app1)
        ops_client_close(&sampler->client);
    sampler->is_app1 = false;
    ops_view_close(&sampler->view);
}
