#include "ops_evidence.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "ops_blocked.h"
#include "ops_conf.h"
#include "ops_doctor.h"
#include "ops_evidence_proc.h"
#include "ops_stat.h"
#include "ops_text.h"

constexpr int64_t VIEW_TIME = 5000;    // ms
constexpr int64_t EVENT_TIME = 1000;   // ms for the events that were kept
constexpr int64_t EVENTS_OF = 3600000; // ms of the past
constexpr size_t EVENTS_MAX = 1000;
constexpr size_t PEERS_MAX = 64;
constexpr int64_t LOG_TAIL = 128 << 10;
constexpr int NAMES_MAX = 100;

typedef struct work_s {
    const ops_evidence_t *evidence;
    ops_evidence_result_t *result;
    ops_session_t session;
    ops_seen_t seen;
    int dir;
    ops_request_t identity;
    ops_request_t statistics[2];
    ops_stat_t stats[2];
    ops_process_t process;
    std::vector<ops_request_t> peers; // their statistics
    int32_t pid;                      // 0: not known
} work_t;

static std::string time_text(int64_t ms, const char *form)
{
    time_t seconds = (time_t)(ms / 1000);
    struct tm parts = {};
    char text[64];
    if (gmtime_r(&seconds, &parts) == nullptr || strftime(text, sizeof(text), form, &parts) == 0)
        return "";
    return text;
}

static std::string stamp(int64_t ms)
{
    char rest[16];
    (void)snprintf(rest, sizeof(rest), ".%03dZ", (int)(ms % 1000));
    return time_text(ms, "%Y-%m-%dT%H:%M:%S") + rest;
}

static bool write_all(int dir, const std::string &name, const std::string &text)
{
    int fd = openat(dir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd == -1)
        return false;
    size_t at = 0;
    ssize_t len = 0;
    while (at < text.size() && (len = write(fd, text.data() + at, text.size() - at)) > 0)
        at += (size_t)len;
    int err = errno;
    bool good = close(fd) == 0 && at == text.size();
    errno = err;
    return good;
}

// Saves a part. An empty text has a reason, and no file.
static void save(work_t *work, const std::string &name, std::string text, std::string why)
{
    int64_t now = ops_wall();
    if (text.size() > OPS_EVIDENCE_FILE_MAX) {
        text.resize(OPS_EVIDENCE_FILE_MAX);
        why = "cut to " + std::to_string(OPS_EVIDENCE_FILE_MAX >> 10) + " KiB";
    }
    if (!text.empty() && !write_all(work->dir, name, text))
        why = strerror(errno);
    if (text.empty() && why.empty())
        why = "there is none";
    work->result->parts.push_back({name, now, text.size(), why});
    work->result->missing += why.empty() ? 0 : 1;
}

// The instance itself.

static int open_session(work_t *work)
{
    int ret = ops_session_open(&work->session, ops_now() + VIEW_TIME);
    std::vector<ops_seen_t> seen;
    if (ret == 0)
        ret = ops_session_view(&work->session, &seen, ops_now() + VIEW_TIME);
    if (ret != 0) {
        work->result->why = work->session.why;
        return ret;
    }
    ops_inst_t inst = work->evidence->inst;
    for (const ops_seen_t &one : seen) {
        if (one.inst.app != inst.app || one.inst.node != inst.node)
            continue;
        work->seen = one;
        return 0;
    }
    work->result->why = "there is no instance " + ops_inst_text(inst);
    return -ENOENT;
}

// A new directory, "zeb-APP-NODE-TIME", for its owner alone.
static int make_directory(work_t *work)
{
    const ops_evidence_t &evidence = *work->evidence;
    std::string name = evidence.dir + "/zeb-" + std::to_string(evidence.inst.app) + "-" +
                       std::to_string(evidence.inst.node) + "-" + time_text(ops_wall(), "%Y%m%d-%H%M%S");
    (void)mkdir(evidence.dir.c_str(), 0755);
    for (int i = 1; i <= NAMES_MAX; i++) {
        work->result->path = name + (i == 1 ? "" : "-" + std::to_string(i));
        if (mkdir(work->result->path.c_str(), 0700) == 0)
            break;
        if (errno != EEXIST || i == NAMES_MAX) {
            work->result->why = "the directory " + work->result->path + " cannot be made: " + strerror(errno);
            return -errno;
        }
    }
    work->dir = open(work->result->path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return work->dir == -1 ? -errno : 0;
}

static void ask(work_t *work, ops_request_t *request, ops_ask_t what)
{
    std::vector<ops_request_t> requests = {ops_request(work->evidence->inst, what)};
    int ret = ops_session_ask(&work->session, &requests, work->evidence->timeout);
    *request = requests.front();
    if (ret != 0 && request->outcome != OPS_ANSWERED)
        request->why = work->session.why;
}

static void ask_statistics(work_t *work, int which)
{
    ops_request_t *request = &work->statistics[which];
    ask(work, request, OPS_ASK_STAT);
    work->stats[which] = ops_stat_parse(request->text.data(), request->text.size());
    std::string text = request->text;
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    if (request->outcome == OPS_ANSWERED)
        text = "at " + stamp(ops_wall()) + ", after " + std::to_string(request->took) + " ms\n" + text;
    save(work, "statistics-" + std::to_string(which + 1) + ".txt", text,
         request->outcome == OPS_ANSWERED ? ops_stat_missing(work->stats[which]) : request->why);
}

static void find_process(work_t *work)
{
    ask(work, &work->identity, OPS_ASK_INFO);
    work->pid = work->evidence->pid;
    if (work->pid == 0 && work->identity.outcome == OPS_ANSWERED)
        work->pid = work->identity.info.pid;
    std::vector<ops_process_t> processes;
    if (work->pid != 0 &&
        ops_session_processes(&work->session, work->evidence->inst.node, {work->pid}, &processes,
                              work->evidence->timeout) == 0 &&
        !processes.empty())
        work->process = processes.front();
}

static void save_instance(work_t *work)
{
    const ops_seen_t &seen = work->seen;
    std::string text = "instance " + ops_inst_text(seen.inst) +
                       "\nname in zeb.conf here: " + ops_conf_name(seen.inst.app) + "\nseen from node " +
                       std::to_string(work->session.node) + (work->session.by_zebd ? ", by its zebd" : "") +
                       "\nsockets with its name: " + std::to_string(seen.sockets) + "\n";
    if (seen.since != 0)
        text += "joined " + stamp(seen.since) + "\n";
    if (work->identity.outcome == OPS_ANSWERED)
        text += "process " + std::to_string(work->identity.info.pid) +
                "\nlevels that it prints, as a mask: " + std::to_string(work->identity.info.dbg_mask) +
                "\nits receive thread answered in " + std::to_string(work->identity.took) + " ms\n";
    else
        text += "its receive thread: " + work->identity.why + "\n";
    if (!work->process.program.empty())
        text += "program " + work->process.program + "\n";
    if (work->process.started != 0)
        text += "process began " + stamp(work->process.started) + "\n";
    if (!work->process.log.empty())
        text += "log file " + work->process.log + ", " + std::to_string(work->process.log_bytes) + " bytes\n";
    save(work, "instance.txt", ops_printable(text), work->identity.outcome == OPS_ANSWERED ? "" : work->identity.why);
}

// What moved between the two statistics.
static void save_changes(work_t *work)
{
    const ops_stat_t &one = work->stats[0];
    const ops_stat_t &two = work->stats[1];
    if (work->statistics[0].outcome != OPS_ANSWERED || work->statistics[1].outcome != OPS_ANSWERED)
        return save(work, "changes.txt", "", "the statistics could not be read twice");
    auto line = [](const char *what, int64_t before, int64_t after) {
        return std::string(what) + " " + std::to_string(before) + " -> " + std::to_string(after) + " (" +
               (after >= before ? "+" : "") + std::to_string(after - before) + ")\n";
    };
    std::string text = "in " + std::to_string(work->evidence->interval) + " ms and what the answers took\n";
    text += line("messages in its queue", one.queue, two.queue);
    text += line("messages sent", one.send, two.send);
    text += line("messages received", one.recv, two.recv);
    text += line("calls in progress", (int64_t)one.calls.size(), (int64_t)two.calls.size());
    if (one.queue != 0 && one.recv == two.recv)
        text += "Messages wait, and none was dispatched: a dispatcher does not return.\n";
    save(work, "changes.txt", text, "");
}

// Its peers.

static void ask_peers(work_t *work)
{
    std::set<uint32_t> names;
    for (const ops_flow_send_t &flow : work->stats[0].sends)
        names.insert(ops_name_of(flow.dst));
    for (const ops_flow_recv_t &flow : work->stats[0].recvs)
        names.insert(ops_name_of(flow.src));
    for (uint32_t name : names) {
        if (work->peers.size() < PEERS_MAX)
            work->peers.push_back(ops_request(ops_inst_of(name), OPS_ASK_STAT));
    }
    (void)ops_session_ask(&work->session, &work->peers, work->evidence->timeout);
}

static std::string pair_line(ops_inst_t from, ops_inst_t to, uint32_t sent, int32_t unack)
{
    return ops_inst_text(from) + " to " + ops_inst_text(to) + ": sent " + std::to_string(sent) + ", unacknowledged " +
           std::to_string(unack) + (unack > OPS_WINDOW ? ", BLOCKED" : "") + "\n";
}

static std::string peer_text(const work_t *work, const ops_request_t &peer, std::string *blocked)
{
    ops_inst_t inst = work->evidence->inst;
    if (peer.outcome != OPS_ANSWERED)
        return ops_inst_text(peer.inst) + ": " + (peer.why.empty() ? "not asked" : peer.why) + "\n";
    ops_stat_t stat = ops_stat_parse(peer.text.data(), peer.text.size());
    std::string text =
        ops_inst_text(peer.inst) + " [" + stat.name + "], " + std::to_string(stat.queue) + " in its queue\n";
    for (const ops_flow_send_t &flow : stat.sends) {
        if (ops_name_of(flow.dst) != ops_name_of(inst))
            continue;
        text += "  " + pair_line(peer.inst, inst, flow.send, flow.unack);
        if (flow.unack > OPS_WINDOW)
            *blocked += pair_line(peer.inst, inst, flow.send, flow.unack);
    }
    for (const ops_flow_recv_t &flow : stat.recvs) {
        if (ops_name_of(flow.src) == ops_name_of(inst))
            text += "  received from it " + std::to_string(flow.recv) + ", dropped " + std::to_string(flow.drop) +
                    ", returned " + std::to_string(flow.returned) + "\n";
    }
    return text;
}

static void save_peers(work_t *work)
{
    bool told = work->statistics[0].outcome == OPS_ANSWERED;
    std::string blocked;
    std::string text;
    for (const ops_request_t &peer : work->peers)
        text += peer_text(work, peer, &blocked);
    for (const ops_flow_send_t &flow : work->stats[0].sends) {
        if (flow.unack > OPS_WINDOW)
            blocked += pair_line(work->evidence->inst, flow.dst, flow.send, flow.unack);
    }
    std::string unknown = told ? "" : "who its peers are is not known: it does not answer";
    if (told && text.empty())
        text = "it has no peers\n";
    if (told && blocked.empty())
        blocked = "no pair of it is blocked\n";
    save(work, "peers.txt", ops_printable(text), unknown);
    save(work, "blocked.txt", blocked, unknown);
}

// What was kept, and what lies on its node.

static const char *event_word(ops_event_kind_t kind)
{
    static const char *const words[] = {"", "joined", "quit", "blocked by", "no longer blocked by", "events were lost"};
    return words[kind];
}

static void save_events(work_t *work)
{
    if (!work->session.by_zebd)
        return save(work, "events.txt", "", "no zebd on this node has kept any");
    auto session = std::make_unique<ops_session_t>();
    int64_t deadline = ops_now() + EVENT_TIME;
    std::string text;
    ops_event_t event = {};
    int ret = ops_session_open(session.get(), deadline);
    for (size_t i = 0; ret == 0 && i < EVENTS_MAX; i++) {
        ret = ops_session_event(session.get(), ops_wall() - EVENTS_OF, &event, deadline);
        if (ret != 0)
            break;
        text += stamp(event.at) + " " + ops_inst_text(event.inst) + " " + event_word(event.kind);
        if (event.kind == OPS_EVENT_BLOCKED || event.kind == OPS_EVENT_UNBLOCKED)
            text += " " + ops_inst_text(event.peer) + ", unacknowledged " + std::to_string(event.unack);
        text += "\n";
    }
    std::string why = ret == 0 || ret == -ETIMEDOUT ? "" : session->why;
    ops_session_close(session.get());
    if (text.empty() && why.empty())
        text = "none in the last hour\n";
    save(work, "events.txt", text, why);
}

static void save_process(work_t *work)
{
    std::string why;
    if (work->pid == 0)
        why = "it is not known which process it is";
    else if (work->evidence->inst.node != work->session.node)
        why = "can be read on its own node alone: zebctl evidence there";
    bool readable = why.empty();
    std::string text = readable ? ops_evidence_process(work->pid, &why) : "";
    save(work, "process.txt", text, why);
    text = readable ? ops_evidence_threads(work->pid, &why) : "";
    save(work, "threads.txt", text, why);
    text = readable ? ops_evidence_descriptors(work->pid, &why) : "";
    save(work, "descriptors.txt", text, why);
}

static void save_log(work_t *work)
{
    if (work->pid == 0)
        return save(work, "log.txt", "", "it is not known which process it is");
    std::string text;
    std::string part;
    int64_t offset = -LOG_TAIL;
    int ret = 0;
    while ((int64_t)text.size() <= LOG_TAIL) {
        ret = ops_session_log(&work->session, work->evidence->inst.node, work->pid, offset, &part, &offset,
                              work->evidence->timeout);
        if (ret != 0 || part.empty())
            break;
        text += part;
    }
    save(work, "log.txt", text, ret == 0 ? "" : work->session.why);
}

static void save_doctor(work_t *work)
{
    std::string text;
    for (const ops_diagnosis_t &one : ops_doctor(work->evidence->timeout))
        text += std::string(ops_verdict_word(one.verdict)) + ": " + one.area + ": " + ops_printable(one.what) +
                (one.type.empty() ? "" : " > " + one.type) + "\n";
    save(work, "doctor.txt", text, "");
}

static void save_summary(work_t *work, int64_t begun)
{
    std::string text = "evidence of " + ops_inst_text(work->evidence->inst) + "\nbegun " + stamp(begun) + ", ended " +
                       stamp(ops_wall()) + ", on node " + std::to_string(work->session.node) + "\n\n";
    for (const ops_evidence_part_t &part : work->result->parts)
        text += stamp(part.at) + "  " + part.file + "  " +
                (part.why.empty() ? std::to_string(part.bytes) + " bytes"
                                  : (part.bytes == 0 ? "MISSING: " : "NOT WHOLE: ") + ops_printable(part.why)) +
                "\n";
    text += "\n" + std::to_string(work->result->parts.size()) + " parts, of which " +
            std::to_string(work->result->missing) + " are missing or not whole\n";
    if (!write_all(work->dir, "SUMMARY.txt", text))
        work->result->missing++;
}

static void gather(work_t *work)
{
    int64_t begun = ops_wall();
    ask_statistics(work, 0);
    int64_t second = ops_now() + work->evidence->interval;
    find_process(work);
    save_instance(work);
    save_process(work);
    save_log(work);
    ask_peers(work);
    save_peers(work);
    (void)poll(nullptr, 0, (int)std::clamp<int64_t>(second - ops_now(), 0, 60000));
    ask_statistics(work, 1);
    save_changes(work);
    save_events(work);
    ops_session_close(&work->session); // the doctor may have to be application 1
    save_doctor(work);
    save_summary(work, begun);
}

int ops_evidence(const ops_evidence_t &evidence, ops_evidence_result_t *result)
{
    auto work = std::make_unique<work_t>();
    *result = ops_evidence_result_t();
    work->evidence = &evidence;
    work->result = result;
    int ret = open_session(work.get());
    if (ret == 0)
        ret = make_directory(work.get());
    if (ret == 0) {
        gather(work.get());
        (void)close(work->dir);
    } else {
        ops_session_close(&work->session);
    }
    return ret;
}
