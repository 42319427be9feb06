#include "ops_doctor.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <platform/tipc_name.h>

#include "ops_conf.h"
#include "ops_stat.h"
#include "ops_text.h"

static const char NODE_FILE[] = "/tmp/addr/.zeb_node_addr";
static const char NODE_ADVICE[] = "mkdir -p /tmp/addr && echo 1 >/tmp/addr/.zeb_node_addr, with this node's number";
static const char RMEM_FILE[] = "/proc/sys/net/tipc/tipc_rmem";

constexpr int64_t VIEW_TIME = 5000;     // ms
constexpr uint64_t IN_FLIGHT = 1100;    // messages of a sender
constexpr uint64_t CHARGE = 960;        // bytes that the kernel counts for a small message
constexpr uint64_t SPACE_MIN = 1 << 20; // bytes of the disk with the log files
constexpr size_t INSTANCES_MAX = 1024;  // that are asked
constexpr int32_t PRIORITY_MAX = 3;

const char *ops_verdict_word(ops_verdict_t verdict)
{
    static const char *const words[] = {"good", "left out", "hint", "doubtful", "wrong"};
    return words[verdict];
}

static void add(ops_diagnoses_t *list, const char *area, ops_verdict_t verdict, const std::string &what,
                const std::string &type = "")
{
    list->push_back({area, verdict, what, type});
}

static bool read_text(const char *path, std::string *text)
{
    char part[4096];
    FILE *fp = fopen(path, "re");
    if (fp == nullptr)
        return false;
    text->assign(part, fread(part, 1, sizeof(part), fp));
    (void)fclose(fp);
    return true;
}

// The library reads one number and looks at nothing behind it.
void ops_doctor_node_id_text(ops_diagnoses_t *list, const std::string &text)
{
    int node = 0;
    int end = 0;
    // NOLINTNEXTLINE(cert-err34-c): as the library reads it
    if (sscanf(text.c_str(), "%d%n", &node, &end) != 1)
        return add(list, "node id", OPS_WRONG, std::string("there is no number in ") + NODE_FILE, NODE_ADVICE);
    if (node < 0 || node >= (int)ZEB_NODE_NUM)
        return add(list, "node id", OPS_WRONG, std::to_string(node) + " is none: 0 to 65535", NODE_ADVICE);
    if (text.find_first_not_of(" \t\r\n", (size_t)end) != std::string::npos)
        return add(list, "node id", OPS_DOUBTFUL,
                   std::to_string(node) + ", and what follows in " + NODE_FILE + " is not read", NODE_ADVICE);
    add(list, "node id", OPS_GOOD, std::to_string(node));
}

void ops_doctor_node_id(ops_diagnoses_t *list)
{
    std::string text;
    if (!read_text(NODE_FILE, &text))
        return add(list, "node id", OPS_WRONG, std::string(NODE_FILE) + ": " + strerror(errno), NODE_ADVICE);
    ops_doctor_node_id_text(list, text);
}

void ops_doctor_conf_text(ops_diagnoses_t *list, const std::string &text)
{
    static const ops_verdict_t verdicts[] = {OPS_HINT, OPS_DOUBTFUL, OPS_WRONG};
    size_t before = list->size();
    for (const ops_finding_t &finding : ops_conf_check(text)) {
        std::string where = finding.line == 0 ? "" : "line " + std::to_string(finding.line) + ": ";
        add(list, "zeb.conf", verdicts[finding.severity], where + finding.what,
            "in " OPS_CONF_FILE ": " + finding.should);
    }
    if (list->size() == before)
        add(list, "zeb.conf", OPS_GOOD, "each line does what it says");
}

void ops_doctor_conf(ops_diagnoses_t *list)
{
    std::string text;
    if (ops_conf_text(&text))
        return ops_doctor_conf_text(list, text);
    add(list, "zeb.conf", errno == ENOENT ? OPS_HINT : OPS_WRONG,
        std::string(OPS_CONF_FILE ": ") + strerror(errno) + ". Defaults hold: priority 0, no log files", "");
}

// The directory of the log files, or the part of its path that there is.
static std::string existing(std::string path)
{
    while (access(path.c_str(), F_OK) != 0 && path.rfind('/') != std::string::npos && path.rfind('/') != 0)
        path.erase(path.rfind('/'));
    return access(path.c_str(), F_OK) == 0 ? path : "/";
}

void ops_doctor_log(ops_diagnoses_t *list)
{
    const char *root = getenv("VELK_DIR");
    std::string directory = std::string(root == nullptr ? "/velk" : root) + "/dev/zeb";
    const auto &keys = ops_conf()->keys;
    auto mask = keys.find("zeb_log_cfg");
    if (mask == keys.end() || (strtol(mask->second.c_str(), nullptr, 0) & 15) == 0)
        return add(list, "log files", OPS_HINT, "processes write none: zeb_log_cfg is 0",
                   "in [MISC_CONF] of " OPS_CONF_FILE ": zeb_log_cfg=0xc, for warnings and errors");
    std::string there = existing(directory);
    struct statvfs space = {};
    if (access(there.c_str(), W_OK | X_OK) != 0)
        return add(list, "log files", OPS_WRONG, "this user may not write to " + there + ": " + strerror(errno),
                   "install -d -m 0777 " + directory);
    if (statvfs(there.c_str(), &space) == 0 && (uint64_t)space.f_bavail * space.f_frsize < SPACE_MIN)
        return add(list, "log files", OPS_WRONG, "the disk of " + directory + " is full", "df " + there);
    add(list, "log files", OPS_GOOD, "in " + directory);
}

uint64_t ops_doctor_rmem_needed(const std::vector<int32_t> &senders)
{
    uint64_t needed = 0;
    for (int32_t priority : senders)
        needed += IN_FLIGHT * CHARGE >> std::clamp(priority, 0, PRIORITY_MAX);
    return needed;
}

static std::string mega(uint64_t bytes)
{
    char text[32];
    (void)snprintf(text, sizeof(text), "%.1f MB", (double)bytes / 1e6);
    return text;
}

// What the doctor has seen of the instances.
typedef struct cluster_s {
    ops_session_t session;
    std::vector<ops_seen_t> seen;
    std::vector<ops_request_t> requests; // for their statistics
    int asked;                           // 0, or why not
} cluster_t;

static void look_at_rmem(ops_diagnoses_t *list, const cluster_t &cluster)
{
    if (ops_doctor_simulated())
        return add(list, "tipc_rmem", OPS_LEFT_OUT, "not simulated");
    std::string text;
    unsigned long long middle = 0;
    // NOLINTNEXTLINE(cert-err34-c): 0 when there is no number
    if (!read_text(RMEM_FILE, &text) || sscanf(text.c_str(), "%*u %llu", &middle) != 1)
        return add(list, "tipc_rmem", OPS_LEFT_OUT, std::string(RMEM_FILE) + " cannot be read");
    uint64_t most = 0;
    std::string who;
    for (const ops_request_t &request : cluster.requests) {
        if (request.inst.node != cluster.session.node || request.outcome != OPS_ANSWERED)
            continue;
        ops_stat_t stat = ops_stat_parse(request.text.data(), request.text.size());
        std::vector<int32_t> senders;
        for (const ops_flow_recv_t &flow : stat.recvs) {
            auto found = ops_conf()->apps.find(flow.src.app);
            senders.push_back(found == ops_conf()->apps.end() ? 0 : found->second.priority);
        }
        uint64_t needed = ops_doctor_rmem_needed(senders);
        if (needed <= most)
            continue;
        most = needed;
        who = ops_inst_text(request.inst) + " has " + std::to_string(senders.size()) +
              " senders, whose small messages need " + mega(needed);
    }
    if (most > middle)
        return add(list, "tipc_rmem", OPS_DOUBTFUL, who + "; a queue has " + mega(middle),
                   "sysctl -w net.tipc.tipc_rmem=\"4096 " + std::to_string(most) + " " + std::to_string(2 * most) +
                       "\", then start the processes again");
    add(list, "tipc_rmem", OPS_GOOD, mega(middle) + (who.empty() ? "; no application here has senders" : "; " + who));
}

// The TIPC nodes on which sockets have the name of an instance. Empty when the topology service does not tell.
static std::set<uint32_t> publishers(ops_inst_t inst)
{
    std::set<uint32_t> nodes;
    int sd = socket(AF_TIPC, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    struct sockaddr_tipc addr = tipc_name(TIPC_TOP_SRV, TIPC_TOP_SRV, 0);
    struct tipc_subscr subscription = {};
    subscription.seq = {OPS_NAME_TYPE, ops_name_of(inst), ops_name_of(inst)};
    subscription.timeout = 1; // after what is published comes its end
    subscription.filter = TIPC_SUB_PORTS;
    bool good = sd != -1 && connect(sd, (struct sockaddr *)&addr, sizeof(addr)) == 0 &&
                send(sd, &subscription, sizeof(subscription), MSG_NOSIGNAL) == (ssize_t)sizeof(subscription);
    struct tipc_event event = {};
    for (int64_t deadline = ops_now() + VIEW_TIME; good && ops_now() < deadline;) {
        struct pollfd entry = {sd, POLLIN, 0};
        if (poll(&entry, 1, 100) <= 0)
            continue;
        good = recv(sd, &event, sizeof(event), MSG_DONTWAIT) == (ssize_t)sizeof(event) &&
               event.event != TIPC_SUBSCR_TIMEOUT;
        if (good && event.event == TIPC_PUBLISHED)
            nodes.insert(event.port.node);
    }
    if (sd != -1)
        (void)close(sd);
    return nodes;
}

static void look_at_duplicates(ops_diagnoses_t *list, const cluster_t &cluster)
{
    size_t before = list->size();
    std::set<uint32_t> same_id;
    for (const ops_seen_t &one : cluster.seen) {
        if (one.sockets < 2)
            continue;
        std::string node = std::to_string(one.inst.node);
        if (publishers(one.inst).size() < 2)
            add(list, "instances", OPS_WRONG,
                std::to_string(one.sockets) + " processes of node " + node + " share " + ops_inst_text(one.inst) +
                    ": messages reach any of them",
                "tipc socket list, on node " + node + "; end all but one");
        else if (same_id.insert(one.inst.node).second)
            add(list, "instances", OPS_WRONG,
                "several nodes have the node id " + node + ": " + ops_inst_text(one.inst) + " is published on each",
                "echo ANOTHER >" + std::string(NODE_FILE) + " on one of them, then start its processes again");
    }
    if (list->size() == before)
        add(list, "instances", OPS_GOOD, std::to_string(cluster.seen.size()) + ", each one process");
}

static void look_at_answers(ops_diagnoses_t *list, const cluster_t &cluster)
{
    if (cluster.asked != 0)
        return add(list, "answers", OPS_LEFT_OUT, cluster.session.why, "zebctl list");
    size_t before = list->size();
    for (const ops_request_t &request : cluster.requests) {
        if (request.outcome != OPS_ANSWERED)
            add(list, "answers", OPS_WRONG, ops_inst_text(request.inst) + ": " + request.why,
                "zebctl evidence " + ops_inst_text(request.inst));
    }
    if (list->size() == before)
        add(list, "answers", OPS_GOOD, "of " + std::to_string(cluster.requests.size()) + " instances");
}

static void look_at_zebd(ops_diagnoses_t *list, const cluster_t &cluster)
{
    if (cluster.session.by_zebd)
        return add(list, "zebd", OPS_GOOD, "serves at " + ops_zebd_path());
    add(list, "zebd", OPS_HINT,
        "none serves at " + ops_zebd_path() + ": there is no history, and nothing of the processes of other nodes",
        "systemctl start zebd");
}

static void ask_all(cluster_t *cluster, int64_t timeout)
{
    for (const ops_seen_t &one : cluster->seen) {
        if (one.inst.app != ZEBD_APP_ID && cluster->requests.size() < INSTANCES_MAX)
            cluster->requests.push_back(ops_request(one.inst, OPS_ASK_STAT));
    }
    cluster->asked = ops_session_ask(&cluster->session, &cluster->requests, timeout);
}

void ops_doctor_cluster(ops_diagnoses_t *list, int64_t timeout)
{
    auto holder = std::make_unique<cluster_t>();
    cluster_t &cluster = *holder;
    int ret = ops_session_open(&cluster.session, ops_now() + VIEW_TIME);
    if (ret == -EACCES)
        return add(list, "zebd", OPS_DOUBTFUL, cluster.session.why);
    if (ret != 0) // TIPC or the node id, which were looked at
        return add(list, "instances", OPS_LEFT_OUT, cluster.session.why);
    look_at_zebd(list, cluster);
    ret = ops_session_view(&cluster.session, &cluster.seen, ops_now() + VIEW_TIME);
    if (ret != 0) {
        add(list, "instances", OPS_WRONG, cluster.session.why);
    } else {
        ask_all(&cluster, timeout);
        look_at_duplicates(list, cluster);
        look_at_answers(list, cluster);
        look_at_rmem(list, cluster);
    }
    ops_session_close(&cluster.session);
}

ops_diagnoses_t ops_doctor(int64_t timeout)
{
    ops_diagnoses_t list;
    ops_doctor_tipc(&list);
    ops_doctor_links(&list);
    ops_doctor_node_id(&list);
    ops_doctor_conf(&list);
    ops_doctor_log(&list);
    ops_doctor_clock(&list);
    ops_doctor_cluster(&list, timeout);
    return list;
}
