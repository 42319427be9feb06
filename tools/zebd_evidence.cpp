#include "zebd_evidence.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

static const char PREFIX[] = "blocked-";
constexpr int64_t MINUTE = 60000; // ms

ops_json_t zebd_record_of_inst(const zebd_inst_t &inst)
{
    ops_json_t samples = ops_json_t::array();
    for (const zebd_sample_t &sample : inst.samples)
        samples.push_back({sample.at, sample.send, sample.recv, sample.queue, sample.reject, sample.exception,
                           sample.send_unack, sample.recv_unack});
    return {{"columns",
             {"at_ms", "sent", "received", "queue", "rejected", "exceptions", "sent_unacknowledged",
              "received_unacknowledged"}},
            {"samples", samples},
            {"since_ms", inst.since},
            {"quit_ms", inst.quit}};
}

ops_json_t zebd_record_of_pair(const zebd_pair_t &pair)
{
    ops_json_t samples = ops_json_t::array();
    for (const zebd_pair_sample_t &sample : pair.samples)
        samples.push_back({sample.at, sample.send, sample.reject, sample.unack});
    return {{"sender", {{"app", pair.sender.app}, {"node", pair.sender.node}}},
            {"receiver", {{"app", pair.receiver.app}, {"node", pair.receiver.node}}},
            {"blocked_since_ms", pair.blocked_since},
            {"columns", {"at_ms", "sent", "rejected", "unacknowledged"}},
            {"samples", samples}};
}

static bool concerns(const zebd_pair_t &pair, ops_inst_t inst)
{
    uint32_t name = ops_name_of(inst);
    return ops_name_of(pair.sender) == name || ops_name_of(pair.receiver) == name;
}

bool zebd_evidence_is_due(const zebd_model_t &model, ops_inst_t inst)
{
    return std::any_of(model.pairs.begin(), model.pairs.end(), [inst](const auto &entry) {
        return entry.second.blocked_since != 0 && concerns(entry.second, inst);
    });
}

static ops_json_t record_of(const zebd_model_t &model, ops_inst_t inst)
{
    ops_json_t record = {{"type", "zebd.evidence.1"}, {"at_ms", ops_wall()}, {"app", inst.app}, {"node", inst.node}};
    auto found = model.insts.find(ops_name_of(inst));
    if (found != model.insts.end()) {
        record["name"] = ops_record_wide(found->second.stat.name);
        record["pid"] = found->second.info.pid;
        record["program"] = ops_record_wide(found->second.program);
        record["answered"] = found->second.outcome == OPS_ANSWERED;
        record["why"] = ops_record_wide(found->second.why);
        record.update(zebd_record_of_inst(found->second));
    }
    record["pairs"] = ops_json_t::array();
    for (const auto &entry : model.pairs) {
        if (concerns(entry.second, inst))
            record["pairs"].push_back(zebd_record_of_pair(entry.second));
    }
    record["events"] = ops_json_t::array();
    for (const ops_event_t &event : model.events)
        record["events"].push_back(ops_record_of_event(event));
    return record;
}

// Its time comes first in the name, so the names sort by age.
static std::string name_of(ops_inst_t inst)
{
    char stamp[32] = "";
    time_t now = time(nullptr);
    struct tm parts = {};
    if (gmtime_r(&now, &parts) != nullptr)
        (void)strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M%S", &parts);
    return PREFIX + std::string(stamp) + "-" + std::to_string(inst.app) + "@" + std::to_string(inst.node) + ".json";
}

static void remove_oldest(const std::string &dir)
{
    std::vector<std::string> names;
    DIR *handle = opendir(dir.c_str());
    if (handle == nullptr)
        return;
    for (struct dirent *entry = readdir(handle); entry != nullptr; entry = readdir(handle)) {
        std::string name = entry->d_name;
        if (name.compare(0, sizeof(PREFIX) - 1, PREFIX) == 0)
            names.push_back(name);
    }
    (void)closedir(handle);
    std::sort(names.begin(), names.end());
    for (size_t i = 0; i + ZEBD_EVIDENCE_MAX < names.size(); i++)
        (void)unlink((dir + "/" + names[i]).c_str());
}

int zebd_evidence_save(const zebd_model_t &model, ops_inst_t inst, const std::string &dir)
{
    std::string path = dir + "/" + name_of(inst);
    std::string text = ops_record_line(record_of(model, inst));
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0640);
    if (fd == -1)
        return -errno;
    ssize_t len = write(fd, text.data(), text.size());
    int ret = len == (ssize_t)text.size() ? 0 : (len == -1 ? -errno : -ENOSPC);
    (void)close(fd);
    remove_oldest(dir);
    return ret;
}

void zebd_evidence_open(zebd_loop_t *loop, const zebd_model_t *model, const std::string &dir)
{
    loop->own_followers++;
    auto saved = std::make_shared<std::deque<int64_t>>(); // when the last of them were; no more are written in a minute
                                                          // than are kept
    // Told of a quit while its pairs are still as they were.
    (void)zebd_loop_follow(loop, [model, dir, saved](uint64_t, const ops_event_t &event) {
        int64_t now = ops_now();
        if (event.kind != OPS_EVENT_QUIT || !zebd_evidence_is_due(*model, event.inst) ||
            (saved->size() >= ZEBD_EVIDENCE_MAX && now - saved->front() < MINUTE))
            return;
        saved->push_back(now);
        if (saved->size() > ZEBD_EVIDENCE_MAX)
            saved->pop_front();
        (void)zebd_evidence_save(*model, event.inst, dir);
    });
}
