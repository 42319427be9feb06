// A metric is one row of a table: its name, kind and help, and a function that takes the value out of a record, or says
// that the record has none. The labels of a record are written once and used by each of its metrics.
#include "zebd_metrics.h"

#include <cstdio>
#include <iterator>

#ifndef ZEB_TOOLS_VERSION
#define ZEB_TOOLS_VERSION "unknown"
#endif

constexpr size_t LINE_ROOM = 160; // bytes that a sample takes, at a guess

// False: the record has no such value now, and the metric no sample for it.
typedef bool (*inst_value_t)(const zebd_inst_t &inst, double *value);
typedef bool (*pair_value_t)(const zebd_pair_t &pair, double *value);

typedef struct inst_metric_s {
    const char *name;
    const char *kind;
    const char *help;
    inst_value_t value;
} inst_metric_t;

typedef struct pair_metric_s {
    const char *name;
    const char *kind;
    const char *help;
    pair_value_t value;
} pair_metric_t;

static bool is_up(const zebd_inst_t &inst)
{
    return inst.quit == 0 && inst.outcome == OPS_ANSWERED;
}

// Of an instance that quit, or does not answer, old counters would look like new ones.
template <typename Take>
static bool sampled(const zebd_inst_t &inst, double *value, Take take)
{
    if (!is_up(inst) || inst.samples.empty())
        return false;
    *value = (double)take(inst.samples.back());
    return true;
}

template <typename Take>
static bool sampled(const zebd_pair_t &pair, double *value, Take take)
{
    if (pair.samples.empty())
        return false;
    *value = (double)take(pair.samples.back());
    return true;
}

static const inst_metric_t INST_METRICS[] = {
    {"zeb_instance_up", "gauge", "1 when the instance is published and answered the last question.",
     [](const zebd_inst_t &inst, double *value) {
         *value = is_up(inst) ? 1 : 0;
         return true;
     }},
    {"zeb_instance_sockets", "gauge", "Sockets that publish the instance. More than 1: several processes share it.",
     [](const zebd_inst_t &inst, double *value) {
         *value = inst.quit == 0 ? inst.sockets : 0;
         return true;
     }},
    {"zeb_instance_messages_sent_total", "counter", "Messages handed to TIPC. Falls when a peer joins again or quits.",
     [](const zebd_inst_t &inst, double *value) {
         return sampled(inst, value, [](const zebd_sample_t &sample) { return sample.send; });
     }},
    {"zeb_instance_messages_received_total", "counter", "Messages handed to dispatch. Falls when a peer quits.",
     [](const zebd_inst_t &inst, double *value) {
         return sampled(inst, value, [](const zebd_sample_t &sample) { return sample.recv; });
     }},
    {"zeb_instance_sends_rejected_total", "counter", "Sends that were refused before any instance was chosen.",
     [](const zebd_inst_t &inst, double *value) {
         return sampled(inst, value, [](const zebd_sample_t &sample) { return sample.reject; });
     }},
    {"zeb_instance_receive_exceptions_total", "counter",
     "Datagrams of bad length, failed reads and incomplete returned messages.",
     [](const zebd_inst_t &inst, double *value) {
         return sampled(inst, value, [](const zebd_sample_t &sample) { return sample.exception; });
     }},
    {"zeb_instance_queue_messages", "gauge", "Messages and events in the queue of the application.",
     [](const zebd_inst_t &inst, double *value) {
         return sampled(inst, value, [](const zebd_sample_t &sample) { return sample.queue; });
     }},
    {"zeb_instance_sent_unacknowledged_messages", "gauge", "Messages sent and not acknowledged, to all peers.",
     [](const zebd_inst_t &inst, double *value) {
         return sampled(inst, value, [](const zebd_sample_t &sample) { return sample.send_unack; });
     }},
    {"zeb_instance_received_unacknowledged_messages", "gauge", "Messages dispatched and not yet acknowledged.",
     [](const zebd_inst_t &inst, double *value) {
         return sampled(inst, value, [](const zebd_sample_t &sample) { return sample.recv_unack; });
     }},
};

static const pair_metric_t PAIR_METRICS[] = {
    {"zeb_pair_messages_sent_total", "counter",
     "Messages from the instance to the peer. Falls when the peer joins again.",
     [](const zebd_pair_t &pair, double *value) {
         return sampled(pair, value, [](const zebd_pair_sample_t &sample) { return sample.send; });
     }},
    {"zeb_pair_sends_rejected_total", "counter", "Messages to the peer that could not be written.",
     [](const zebd_pair_t &pair, double *value) {
         return sampled(pair, value, [](const zebd_pair_sample_t &sample) { return sample.reject; });
     }},
    {"zeb_pair_unacknowledged_messages", "gauge", "Messages to the peer that it has not acknowledged.",
     [](const zebd_pair_t &pair, double *value) {
         return sampled(pair, value, [](const zebd_pair_sample_t &sample) { return sample.unack; });
     }},
    {"zeb_pair_blocked", "gauge", "1 when the window of 1,024 messages to the peer is full, and sends to it wait.",
     [](const zebd_pair_t &pair, double *value) {
         *value = pair.blocked_since != 0 ? 1 : 0;
         return true;
     }},
    {"zeb_pair_blocked_since_timestamp_seconds", "gauge", "Unix time of the first sample with a full window.",
     [](const zebd_pair_t &pair, double *value) {
         *value = (double)pair.blocked_since / 1000;
         return pair.blocked_since != 0;
     }},
};

// The value of a label: what a peer chose as its name may hold anything.
static std::string escaped(const std::string &text)
{
    std::string out;
    for (char c : ops_printable(text)) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

static std::string name_of(const zebd_model_t &model, ops_inst_t inst)
{
    auto it = model.insts.find(ops_name_of(inst));
    return it == model.insts.end() ? "" : escaped(it->second.stat.name);
}

static std::string inst_labels(const zebd_inst_t &inst)
{
    return "{app=\"" + std::to_string(inst.inst.app) + "\",node=\"" + std::to_string(inst.inst.node) + "\",name=\"" +
           escaped(inst.stat.name) + "\"";
}

static std::string pair_labels(const zebd_model_t &model, const zebd_pair_t &pair)
{
    return "{app=\"" + std::to_string(pair.sender.app) + "\",node=\"" + std::to_string(pair.sender.node) +
           "\",name=\"" + name_of(model, pair.sender) + "\",peer_app=\"" + std::to_string(pair.receiver.app) +
           "\",peer_node=\"" + std::to_string(pair.receiver.node) + "\",peer_name=\"" + name_of(model, pair.receiver) +
           "\"";
}

static void put_head(std::string *out, const char *name, const char *kind, const char *help)
{
    *out += "# HELP " + std::string(name) + " " + help + "\n# TYPE " + name + " " + kind + "\n";
}

// `labels` lacks its closing brace, or is empty.
static void put_sample(std::string *out, const char *name, const std::string &labels, double value)
{
    char number[32];
    (void)snprintf(number, sizeof(number), "%s %.15g\n", labels.empty() ? "" : "}", value);
    *out += name;
    *out += labels;
    *out += number;
}

static void put_one(std::string *out, const char *name, const char *kind, const char *help, double value)
{
    put_head(out, name, kind, help);
    put_sample(out, name, "", value);
}

static void put_insts(std::string *out, const zebd_model_t &model)
{
    std::vector<std::pair<const zebd_inst_t *, std::string>> rows;
    for (const auto &[name, inst] : model.insts) {
        if (inst.inst.app != ZEBD_APP_ID) // zebds are not asked
            rows.emplace_back(&inst, inst_labels(inst));
    }
    for (const inst_metric_t &metric : INST_METRICS) {
        double value = 0;
        put_head(out, metric.name, metric.kind, metric.help);
        for (const auto &[inst, labels] : rows) {
            if (metric.value(*inst, &value))
                put_sample(out, metric.name, labels, value);
        }
    }
    put_head(out, "zeb_instance_info", "gauge", "Always 1; the labels say what the instance is.");
    for (const auto &[inst, labels] : rows) {
        if (is_up(*inst))
            put_sample(out, "zeb_instance_info",
                       labels + ",role=\"" + (inst->stat.versions.empty() ? "client" : "server") + "\",pid=\"" +
                           std::to_string(inst->info.pid) + "\",program=\"" + escaped(inst->program) + "\"",
                       1);
    }
}

static void put_pairs(std::string *out, const zebd_model_t &model)
{
    std::vector<std::pair<const zebd_pair_t *, std::string>> rows;
    for (const auto &[names, pair] : model.pairs)
        rows.emplace_back(&pair, pair_labels(model, pair));
    for (const pair_metric_t &metric : PAIR_METRICS) {
        double value = 0;
        put_head(out, metric.name, metric.kind, metric.help);
        for (const auto &[pair, labels] : rows) {
            if (metric.value(*pair, &value))
                put_sample(out, metric.name, labels, value);
        }
    }
}

static void put_zebd(std::string *out, const zebd_model_t &model)
{
    put_head(out, "zeb_zebd_build_info", "gauge", "Always 1; the labels say which zebd this is.");
    put_sample(out, "zeb_zebd_build_info",
               "{version=\"" ZEB_TOOLS_VERSION "\",node=\"" + std::to_string(model.node) + "\"", 1);
    put_one(out, "zeb_zebd_start_time_seconds", "gauge", "Unix time at which this zebd started.",
            (double)model.started / 1000);
    put_one(out, "zeb_zebd_rounds_total", "counter", "Samples of the whole cluster.", (double)model.round);
    put_one(out, "zeb_zebd_requests_total", "counter", "Questions to instances.", (double)model.asked);
    put_one(out, "zeb_zebd_replies_total", "counter", "Questions that were answered.", (double)model.answered);
    put_one(out, "zeb_zebd_stray_datagrams_total", "counter", "Datagrams that were no awaited reply.",
            (double)model.strays);
    put_one(out, "zeb_zebd_events_total", "counter", "Joins, quits, and pairs that began or ended to be blocked.",
            (double)model.event_number);
    put_one(out, "zeb_zebd_instances", "gauge", "Instances that are known, also those that quit within a minute.",
            (double)model.insts.size());
    put_one(out, "zeb_zebd_pairs", "gauge", "Pairs whose counters are kept.", (double)model.pairs.size());
    put_one(out, "zeb_zebd_instances_left_out", "gauge", "Instances above the bound, which are not kept.",
            (double)model.left_out);
    put_one(out, "zeb_zebd_pairs_left_out", "gauge", "Pairs above the bound, which are not kept.",
            (double)model.pairs_left_out);
}

std::string zebd_metrics(const zebd_model_t &model)
{
    std::string out;
    out.reserve(4096 + LINE_ROOM * (model.insts.size() * (std::size(INST_METRICS) + 1) +
                                    model.pairs.size() * std::size(PAIR_METRICS)));
    put_insts(&out, model);
    put_pairs(&out, model);
    put_zebd(&out, model);
    return out;
}
