// JSON of the live page, and the page itself, which the assembler takes in as it is.
#include "zebd_page.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "ops_text.h"

typedef nlohmann::ordered_json json_t;

// The page is looked for in the folder that the build names (-I).
__asm__(".pushsection .rodata\n"
        ".global zebd_page_begin\n"
        "zebd_page_begin:\n"
        ".incbin \"zebd_page.html\"\n"
        ".global zebd_page_end\n"
        "zebd_page_end:\n"
        ".byte 0\n"
        ".popsection\n");
extern "C" const char zebd_page_begin[];
extern "C" const char zebd_page_end[];

std::string_view zebd_page()
{
    return {zebd_page_begin, (size_t)(zebd_page_end - zebd_page_begin)};
}

static std::string text_of(const json_t &json)
{
    return json.dump(-1, ' ', false, json_t::error_handler_t::replace);
}

static json_t inst_json(ops_inst_t inst)
{
    return {{"app", inst.app}, {"node", inst.node}};
}

// Messages per second between the two newest samples. A counter that fell began anew: there is no rate then.
template <typename Samples, typename Take>
static json_t rate_of(const Samples &samples, Take take)
{
    if (samples.size() < 2)
        return nullptr;
    const auto &last = samples[samples.size() - 1];
    const auto &before = samples[samples.size() - 2];
    if (take(last) < take(before) || last.at <= before.at)
        return nullptr;
    double rate = (take(last) - take(before)) * 1000.0 / (double)(last.at - before.at);
    return (double)(int64_t)(rate * 100 + 0.5) / 100;
}

static json_t brief_json(const zebd_inst_t &inst)
{
    json_t out = inst_json(inst.inst);
    out["up"] = inst.quit == 0;
    if (inst.since != 0)
        out["since"] = inst.since;
    if (inst.quit != 0)
        out["quit"] = inst.quit;
    if (inst.inst.app == ZEBD_APP_ID)
        out["name"] = "zebd";
    else if (!inst.stat.name.empty())
        out["name"] = ops_printable(inst.stat.name);
    if (!inst.why.empty())
        out["missing"] = ops_printable(inst.why);
    if (!inst.samples.empty()) {
        out["server"] = !inst.stat.versions.empty();
        out["queue_messages"] = inst.samples.back().queue;
        out["sent_rate"] = rate_of(inst.samples, [](const zebd_sample_t &sample) { return sample.send; });
        out["received_rate"] = rate_of(inst.samples, [](const zebd_sample_t &sample) { return sample.recv; });
    }
    return out;
}

static json_t pair_json(const zebd_pair_t &pair)
{
    json_t out = {{"from", inst_json(pair.sender)}, {"to", inst_json(pair.receiver)}};
    if (!pair.samples.empty()) {
        out["rate"] = rate_of(pair.samples, [](const zebd_pair_sample_t &sample) { return sample.send; });
        out["sent_messages"] = pair.samples.back().send;
        out["rejected"] = pair.samples.back().reject;
        out["unacknowledged"] = pair.samples.back().unack;
    }
    if (pair.blocked_since != 0)
        out["blocked_since"] = pair.blocked_since;
    return out;
}

const char *zebd_page_event_name(ops_event_kind_t kind)
{
    switch (kind) {
    case OPS_EVENT_JOINED:
        return "joined";
    case OPS_EVENT_QUIT:
        return "quit";
    case OPS_EVENT_BLOCKED:
        return "blocked";
    case OPS_EVENT_UNBLOCKED:
        return "unblocked";
    default:
        return "lost";
    }
}

static json_t event_json(const ops_event_t &event)
{
    json_t out = {{"at", event.at}, {"event", zebd_page_event_name(event.kind)}};
    if (event.kind != OPS_EVENT_LOST)
        out["inst"] = inst_json(event.inst);
    if (event.kind == OPS_EVENT_BLOCKED || event.kind == OPS_EVENT_UNBLOCKED) {
        out["peer"] = inst_json(event.peer);
        out["unacknowledged"] = event.unack;
    }
    return out;
}

std::string zebd_page_event(const ops_event_t &event)
{
    return text_of(event_json(event));
}

std::string zebd_page_model(const zebd_model_t &model, int64_t now)
{
    json_t insts = json_t::array();
    json_t pairs = json_t::array();
    json_t events = json_t::array();
    for (const auto &[name, inst] : model.insts)
        insts.push_back(brief_json(inst));
    for (const auto &[names, pair] : model.pairs)
        pairs.push_back(pair_json(pair));
    constexpr size_t SHOWN = 50;
    size_t first = model.events.size() - std::min(SHOWN, model.events.size());
    for (size_t i = first; i < model.events.size(); i++)
        events.push_back(event_json(model.events[i]));
    return text_of({{"type", "zeb.model.1"},
                    {"node", model.node},
                    {"now", now},
                    {"started", model.started},
                    {"round", model.round},
                    {"event", model.event_number},
                    {"window", OPS_WINDOW},
                    {"left_out", model.left_out},
                    {"pairs_left_out", model.pairs_left_out},
                    {"instances", std::move(insts)},
                    {"pairs", std::move(pairs)},
                    {"events", std::move(events)}});
}

// A row for each sample; "columns" names what stands in it.
static json_t samples_json(const zebd_inst_t &inst)
{
    json_t rows = json_t::array();
    for (const zebd_sample_t &sample : inst.samples)
        rows.push_back({sample.at, sample.send, sample.recv, sample.queue, sample.reject, sample.exception,
                        sample.send_unack, sample.recv_unack});
    return {{"columns",
             {"at", "sent", "received", "queue", "rejected", "exceptions", "sent_unacknowledged",
              "received_unacknowledged"}},
            {"rows", std::move(rows)}};
}

bool zebd_page_instance(const zebd_model_t &model, ops_inst_t inst, int64_t now, std::string *text)
{
    auto it = model.insts.find(ops_name_of(inst));
    if (it == model.insts.end())
        return false;
    const zebd_inst_t &found = it->second;
    json_t out = {{"type", "zeb.instance.1"}, {"now", now}, {"window", OPS_WINDOW}};
    out.update(brief_json(found));
    out["sockets"] = found.sockets;
    out["calls"] = found.stat.calls.size();
    out["versions"] = found.stat.versions;
    if (found.info.app == inst.app) { // it has said who it is
        out["pid"] = found.info.pid;
        out["levels"] = ops_level_names(found.info.dbg_mask);
    }
    if (!found.program.empty())
        out["program"] = ops_printable(found.program);
    out["samples"] = samples_json(found);
    json_t pairs = json_t::array();
    for (const auto &[names, pair] : model.pairs) {
        if (names.first == it->first || names.second == it->first)
            pairs.push_back(pair_json(pair));
    }
    out["pairs"] = std::move(pairs);
    *text = text_of(out);
    return true;
}
