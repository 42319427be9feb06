// A scriptable application: it reads commands on standard input and prints what happens, one line each. It includes
// public headers alone, as an application does.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <zeb/zeb_diag.h>
#include <zeb/zeb_ext.h>

typedef struct from_s { // what came from one sender
    uint32_t num;
    uint32_t next; // the expected number
    uint32_t bad;  // out of order, twice or damaged
} from_t;

static std::mutex s_print_mutex; // guards the print buffer, which is one for the process
static std::mutex s_mutex;
static std::map<std::string, from_t> s_from;
static std::string s_answer = "echo";
static std::atomic<bool> s_quiet{false};
static std::atomic<unsigned> s_slow{0}; // microseconds per message
static std::atomic<zeb_msg_t *> s_kept; // a request that is answered late

static void say(const std::string &line)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    printf("%s\n", line.c_str());
    fflush(stdout);
}

static std::string str(long long value)
{
    return std::to_string(value);
}

static void *on_event(zeb_event_t event)
{
    say(std::string(event.type == ZEB_APP_JOIN ? "join " : "quit ") + str(event.my_app) + " " +
        str(event.event.app.app) + "/" + str(event.event.app.node));
    return nullptr;
}

// A payload: its number, then bytes that follow from it.
static void fill(zeb_msg_t *msg, uint32_t number)
{
    uint32_t len = zeb_msg_data_len(msg);
    for (uint32_t i = 4; i < len; i++)
        msg->data[i] = (uint8_t)(number + i);
    if (len >= 4)
        memcpy(msg->data, &number, 4);
}

static bool intact(const zeb_msg_t *msg, uint32_t number)
{
    for (uint32_t i = 4; i < zeb_msg_data_len(msg); i++) {
        if (msg->data[i] != (uint8_t)(number + i))
            return false;
    }
    return true;
}

static std::string answer_of_requests()
{
    std::lock_guard<std::mutex> lock(s_mutex);
    return s_answer;
}

static void answer(const zeb_msg_t *request, const std::string &how)
{
    if (how == "silent")
        return;
    if (how == "null") {
        (void)zeb_rpc_reply(request, nullptr, 0);
        return;
    }
    zeb_msg_t *reply = zeb_msg_alloc(4, request->hdr.app_ver, 0);
    uint32_t node = (uint32_t)zeb_get_my_node_id();
    memcpy(reply->data, &node, sizeof(node));
    for (int i = how == "twice" ? 2 : 1; i > 0; i--)
        (void)zeb_rpc_reply(request, reply, 0);
    free(reply);
}

// The message's number. Adds the message to what came from its sender.
static uint32_t enter(const zeb_msg_t *msg, const std::string &from)
{
    uint32_t number = 0;
    memcpy(&number, msg->data, zeb_msg_data_len(msg) >= 4 ? 4 : 0);
    std::lock_guard<std::mutex> lock(s_mutex);
    from_t &entry = s_from[str(msg->hdr.dst_app) + " " + from];
    bool good = number == entry.next && intact(msg, number);
    entry.bad += good ? 0 : 1;
    entry.next = number + 1;
    entry.num++;
    return number;
}

// A call from inside a dispatcher.
static void call_inside(uint32_t app, uint32_t peer)
{
    zeb_msg_t *request = zeb_msg_alloc(4, 1, 0);
    zeb_reply_msg_t replies;
    int ret = zeb_rpc(app, peer, request, 0, 5, &replies);
    say("inner " + str(ret) + " " + str(replies.num));
    for (int i = 0; i < replies.num; i++)
        free(replies.msg[i]);
    free(request);
}

// False when the request is kept.
static bool serve(zeb_msg_t *request, const std::string &how)
{
    if (how == "keep") {
        s_kept = request;
        return false;
    }
    if (how.rfind("call ", 0) == 0) {
        call_inside(request->hdr.dst_app, (uint32_t)atoi(how.c_str() + 5));
        answer(request, "echo");
    } else {
        answer(request, how);
    }
    return true;
}

static void *on_msg(zeb_msg_t *msg)
{
    if (s_slow != 0)
        (void)usleep(s_slow); // how slow the dispatcher is, is what is tested
    std::string from = str(msg->hdr.src_app) + "/" + str(msg->hdr.src_node);
    uint32_t number = enter(msg, from);
    std::string how = answer_of_requests();
    if (!s_quiet)
        say("msg " + str(msg->hdr.dst_app) + " " + from + " len " + str(zeb_msg_data_len(msg)) + " ver " +
            str(msg->hdr.app_ver) + (intact(msg, number) ? " intact" : " damaged"));
    if ((msg->hdr.flag & ZEB_MSG_FLAG_REQUEST) == 0 || serve(msg, how))
        free(msg);
    return nullptr;
}

static void on_msg_with_context(void *, zeb_msg_t *msg)
{
    (void)on_msg(msg);
}

// With a thread, and each join and quit of its peers.
static int register_every(uint32_t app, const std::vector<zeb_msg_dispatcher_t> &table)
{
    std::vector<zeb_app_dispatcher_t> rows;
    for (const zeb_msg_dispatcher_t &row : table)
        rows.push_back({row.ver, row.ver == 0 ? nullptr : on_msg_with_context, nullptr});
    zeb_app_options_t options = {};
    options.size = sizeof(options);
    options.app = app;
    options.name = "agent";
    options.dispatchers = rows.data();
    options.event = [](void *, const zeb_event_t *event) { (void)on_event(*event); };
    options.every_subscriber = 1;
    return zeb_register_app(&options);
}

// register APP thread|nothread|every [VERSION...]
static std::string do_register(std::istringstream &in)
{
    uint32_t app = 0;
    std::string thread;
    in >> app >> thread;
    std::vector<zeb_msg_dispatcher_t> table;
    for (uint32_t version; in >> version;)
        table.push_back({version, on_msg});
    table.push_back({0, nullptr});
    if (thread == "every")
        return str(register_every(app, table));
    return str(thread == "thread" ? zeb_register(app, "agent", table.data(), on_event)
                                  : zeb_register_without_thread(app, "agent", table.data(), on_event));
}

// The highest unacknowledged count that the flow control listing shows of an application's pairs.
static int unacknowledged(uint32_t app)
{
    std::lock_guard<std::mutex> lock(s_print_mutex);
    zeb_buf_printf_reset();
    zeb_cli_print_fc_stat(app);
    int highest = 0;
    const char *line = strstr((const char *)g_print_msg->data, "    Send to application");
    for (; line != nullptr; line = strstr(line + 1, "    Send to application")) {
        const char *count = strstr(line, "unack ");
        highest = std::max(highest, count == nullptr ? 0 : atoi(count + 6));
    }
    return highest;
}

// flood SRC DST THREADS COUNT: each thread sends COUNT messages and looks at the unacknowledged count. The result is
// how many sends failed, and the highest count seen.
static std::string do_flood(std::istringstream &in)
{
    uint32_t src = 0;
    uint32_t dst = 0;
    int threads = 0;
    uint32_t count = 0;
    in >> src >> dst >> threads >> count;
    std::atomic<uint32_t> failed{0};
    std::vector<int> peaks((size_t)threads);
    std::vector<std::thread> senders;
    for (int &peak : peaks) {
        senders.emplace_back([&, peak = &peak] {
            zeb_msg_t *msg = zeb_msg_alloc(64, 1, 0);
            for (uint32_t i = 0; i < count; i++) {
                fill(msg, i);
                failed += zeb_send(src, dst, msg, 0) != 0 ? 1 : 0;
                if (i % 32 == 0)
                    *peak = std::max(*peak, unacknowledged(src));
            }
            free(msg);
        });
    }
    for (std::thread &sender : senders)
        sender.join();
    return str(failed) + " failed, peak " + str(*std::max_element(peaks.begin(), peaks.end()));
}

// send SRC DST NODE|all|local LEN COUNT FLAGS [FIRST]
static std::string do_send(std::istringstream &in)
{
    uint32_t src = 0;
    uint32_t dst = 0;
    std::string node;
    int len = 0;
    uint32_t count = 0;
    int flags = 0;
    uint32_t first = 0;
    in >> src >> dst >> node >> len >> count >> flags >> first;
    zeb_msg_t *msg = zeb_msg_alloc(len, 1, 0);
    if (msg == nullptr)
        return "-1000";
    int failed = 0;
    int ret = 0;
    for (uint32_t i = 0; i < count; i++) {
        fill(msg, first + i);
        if (node == "all")
            ret = zeb_send(src, dst, msg, flags);
        else
            ret = zeb_sendto(src, node == "local" ? ZEB_NODE_LOCAL : (uint32_t)strtoul(node.c_str(), nullptr, 0), dst,
                             msg, flags);
        failed += ret != 0 ? 1 : 0;
    }
    free(msg);
    return str(failed > 1 ? -2000 - failed : ret);
}

static std::string outcome(const zeb_msg_t *reply)
{
    std::string out = str(reply->hdr.src_node) + ":" + str(reply->hdr.rpc_stat);
    if (reply->hdr.rpc_stat != ZEB_APP_MISMATCH)
        return out;
    zeb_mismatch_info_t range;
    memcpy(&range, reply->data, sizeof(range));
    return out + "[" + str(range.low) + "-" + str(range.high) + "]";
}

static std::string one_call(uint32_t src, uint32_t dst, const std::string &node, uint32_t timeout, uint32_t version)
{
    zeb_msg_t *msg = zeb_msg_alloc(4, version, 0);
    zeb_reply_msg_t replies;
    int ret = node == "all" ? zeb_rpc(src, dst, msg, 0, timeout, &replies)
                            : zeb_rpcto(src, (uint32_t)atoi(node.c_str()), dst, msg, 0, timeout, &replies);
    std::string out = str(ret);
    for (int i = 0; i < replies.num; i++) {
        out += " " + outcome(replies.msg[i]);
        free(replies.msg[i]);
    }
    free(msg);
    return out;
}

// rpc SRC DST NODE|all TIMEOUT VERSION [THREADS]
static std::string do_rpc(std::istringstream &in)
{
    uint32_t src = 0;
    uint32_t dst = 0;
    std::string node;
    uint32_t timeout = 0;
    uint32_t version = 1;
    int threads = 1;
    in >> src >> dst >> node >> timeout >> version;
    if (!(in >> threads))
        threads = 1;
    std::vector<std::thread> callers;
    std::vector<std::string> results((size_t)threads);
    for (std::string &result : results)
        callers.emplace_back([&, out = &result] { *out = one_call(src, dst, node, timeout, version); });
    for (std::thread &caller : callers)
        caller.join();
    std::string out;
    for (const std::string &result : results)
        out += (out.empty() ? "" : " | ") + result;
    return out;
}

// The outcomes of a call that no thread waits for: "outcomes TAG NODE:STATUS …".
static void say_outcomes(uint32_t, zeb_reply_msg_t *replies, void *context)
{
    std::string *tag = (std::string *)context;
    std::string line = "outcomes " + *tag;
    for (int i = 0; i < replies->num; i++)
        line += " " + outcome(replies->msg[i]);
    delete tag;
    say(line);
}

static uint32_t node_of(const std::string &node)
{
    return node == "all" ? ZEB_NODE_ALL : (uint32_t)atoi(node.c_str());
}

// async TAG SRC DST NODE|all MILLISECONDS VERSION
static std::string do_async(std::istringstream &in)
{
    std::string tag;
    std::string node;
    uint32_t src = 0;
    uint32_t dst = 0;
    uint32_t milliseconds = 0;
    uint32_t version = 1;
    in >> tag >> src >> dst >> node >> milliseconds >> version;
    std::string *context = new std::string(tag);
    zeb_msg_t *msg = zeb_msg_alloc(4, version, 0);
    int ret = zeb_rpc_async(src, node_of(node), dst, msg, 0, milliseconds, say_outcomes, context, nullptr);
    zeb_msg_free(msg);
    if (ret != 0)
        delete context;
    return str(ret);
}

// storm SRC DST NUMBER: that many calls in flight at once; how many of them were answered.
static std::atomic<int> s_answered;
static std::string do_storm(std::istringstream &in)
{
    uint32_t src = 0;
    uint32_t dst = 0;
    int num = 0;
    in >> src >> dst >> num;
    std::atomic<int> done{0};
    s_answered = 0;
    zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
    for (int i = 0; i < num; i++) {
        auto count = [](uint32_t, zeb_reply_msg_t *replies, void *context) {
            s_answered += replies->num == 1 && replies->msg[0]->hdr.rpc_stat == ZEB_SUCCESS ? 1 : 0;
            (*(std::atomic<int> *)context)++;
        };
        if (zeb_rpc_async(src, ZEB_NODE_ALL, dst, msg, 0, 0, count, &done, nullptr) != 0)
            done++;
    }
    zeb_msg_free(msg);
    while (done != num)
        (void)sched_yield();
    return str(s_answered);
}

// online SRC DST NODE|all COUNT MILLISECONDS: waits for servers; the result, their number and the first ones' phases.
static std::string do_online(std::istringstream &in)
{
    uint32_t src = 0;
    uint32_t dst = 0;
    std::string node;
    uint32_t count = 0;
    uint32_t milliseconds = 0;
    in >> src >> dst >> node >> count >> milliseconds;
    std::string out = str(zeb_wait_online(src, dst, node_of(node), count, milliseconds));
    uint32_t nodes[8];
    int num = zeb_online_nodes(src, dst, nodes, 8);
    for (int i = 0; i < num && i < 8; i++) {
        zeb_peer_state_t state;
        if (zeb_peer_state(src, dst, nodes[i], &state) == 0)
            out += " " + str(nodes[i]) + ":" + str(state.phase) + (state.since != 0 ? "" : "?");
    }
    return out;
}

// fork: a child that lives until the agent's standard input is closed, whether the agent lives or not.
static std::string do_fork(std::istringstream &)
{
    pid_t pid = fork();
    if (pid != 0)
        return str(pid > 0 ? 0 : -1);
    struct pollfd commands = {0, 0, 0}; // it reads none: they are the parent's
    while ((commands.revents & POLLHUP) == 0)
        (void)poll(&commands, 1, -1);
    _exit(0);
}

static void print_text()
{
    std::istringstream text((const char *)g_print_msg->data);
    for (std::string line; std::getline(text, line);)
        say("text " + line);
}

// comm APP PEER
static std::string do_comm(std::istringstream &in)
{
    uint32_t app = 0;
    uint32_t peer = 0;
    in >> app >> peer;
    return str(zeb_comm_with(app, peer));
}

static std::string do_run(std::istringstream &)
{
    zeb_run();
    return "0";
}

// stop: the end of the library, not of the agent
static std::string do_stop(std::istringstream &)
{
    return str(zeb_stop());
}

// unack APP
static std::string do_unack(std::istringstream &in)
{
    uint32_t app = 0;
    in >> app;
    return str(unacknowledged(app));
}

// answer echo|silent|null|twice|keep|call PEER: how requests are answered from now on
static std::string do_answer(std::istringstream &in)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    std::getline(in >> std::ws, s_answer);
    return "0";
}

// late: answers the kept request
static std::string do_late(std::istringstream &)
{
    answer(s_kept, "echo");
    return "0";
}

// quiet: received messages are counted, not printed
static std::string do_quiet(std::istringstream &)
{
    s_quiet = true;
    return "0";
}

// slow MICROSECONDS
static std::string do_slow(std::istringstream &in)
{
    unsigned slow = 0;
    in >> slow;
    s_slow = slow;
    return "0";
}

// counts: what came from each sender
static std::string do_counts(std::istringstream &)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    std::string out;
    for (const auto &entry : s_from)
        out += (out.empty() ? "" : ", ") + entry.first + " " + str(entry.second.num) + " bad " + str(entry.second.bad);
    return out;
}

// blocked on|off
static std::string do_blocked(std::istringstream &in)
{
    std::string on;
    in >> on;
    if (on == "on")
        zeb_enable_blocked_resume();
    else
        zeb_disable_blocked_resume();
    return "0";
}

// fc APP: the flow control listing, in lines that begin with "text"
static std::string do_fc(std::istringstream &in)
{
    uint32_t app = 0;
    in >> app;
    std::lock_guard<std::mutex> lock(s_print_mutex);
    zeb_buf_printf_reset();
    zeb_cli_print_fc_stat(app);
    print_text();
    return "0";
}

// memory: the resident set
static std::string do_memory(std::istringstream &)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            return line.substr(6);
    }
    return "";
}

static std::string run_command(const std::string &line)
{
    static const std::map<std::string, std::string (*)(std::istringstream &)> verbs = {
        {"register", do_register}, {"comm", do_comm},     {"run", do_run},         {"fork", do_fork},
        {"stop", do_stop},         {"send", do_send},     {"flood", do_flood},     {"unack", do_unack},
        {"rpc", do_rpc},           {"answer", do_answer}, {"late", do_late},       {"quiet", do_quiet},
        {"slow", do_slow},         {"counts", do_counts}, {"blocked", do_blocked}, {"fc", do_fc},
        {"memory", do_memory},     {"async", do_async},   {"storm", do_storm},     {"online", do_online},
    };
    std::istringstream in(line);
    std::string verb;
    in >> verb;
    auto found = verbs.find(verb);
    return found == verbs.end() ? "unknown" : found->second(in);
}

int main()
{
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // the library's lines come out as they are written
    std::string line;
    for (char text[512]; fgets(text, sizeof(text), stdin) != nullptr;) {
        line.assign(text, strlen(text) - 1);
        std::string verb = line.substr(0, line.find(' '));
        if (verb == "behind") // behind COMMAND: in the background, and so is a flood: the commands go on
            std::thread([line] {
                std::string command = line.substr(sizeof("behind"));
                say("done behind " + command.substr(0, command.find(' ')) + " " + run_command(command));
            }).detach();
        else if (verb == "flood")
            std::thread([line] { say("done flood " + run_command(line)); }).detach();
        else
            say("done " + verb + " " + run_command(line));
    }
    _exit(0); // at once, whatever the library's threads do
}
