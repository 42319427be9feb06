// One process of the chaos test: chaos_agent LEDGER NUMBER SEED APP[:nothread]... Each of its applications has a thread
// that sends to all others while traffic is on. It reads commands on standard input, one line each.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <random>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <zeb/zeb_diag.h>

#include "ledger.h"

using namespace chaos;

extern "C" int zeb_check_invariants(char *text, size_t size) __attribute__((weak));

static ledger_t *s_ledger;
static std::atomic<bool> s_on{false};
static std::atomic<int> s_busy{0};
static std::atomic<unsigned> s_pace{2000}; // microseconds between two steps of an application
static std::vector<uint32_t> s_apps;
static std::mutex s_say_mutex;

static void say(const std::string &line)
{
    std::lock_guard<std::mutex> lock(s_say_mutex);
    printf("%s\n", line.c_str());
    fflush(stdout);
}

static app_t *mine(uint32_t app)
{
    return &s_ledger->app[app - FIRST_APP];
}

static source_t *row_of(source_t *rows, const stamp_t &stamp)
{
    for (int i = 0; i < SOURCE_NUM; i++) {
        if (rows[i].process == 0) {
            rows[i].app = stamp.app;
            rows[i].process = stamp.process;
        }
        if (rows[i].process == stamp.process && rows[i].app == stamp.app)
            return &rows[i];
    }
    abort();
}

static bool body_is_whole(const zeb_msg_t *msg, const stamp_t &stamp)
{
    for (uint32_t i = sizeof(stamp); i < zeb_msg_data_len(msg); i++) {
        if (msg->data[i] != (uint8_t)(stamp.number + i))
            return false;
    }
    return true;
}

// One application's messages are entered by its dispatching thread alone.
static void enter(const zeb_msg_t *msg, const stamp_t &stamp)
{
    app_t *app = mine(msg->hdr.dst_app);
    source_t *row = row_of(stamp.kind == 1 ? app->unicast : app->fan_outs, stamp);
    row->received++;
    row->damaged += body_is_whole(msg, stamp) ? 0 : 1;
    if (stamp.number <= row->last) {
        row->out_of_order++;
        return;
    }
    row->missing += stamp.number - row->last - 1;
    row->last = stamp.number;
}

static void answer(const zeb_msg_t *request, const stamp_t &stamp)
{
    if (stamp.answer == 2)
        return;
    if (stamp.answer == 1) {
        (void)zeb_rpc_reply(request, nullptr, 0);
        return;
    }
    if (stamp.answer == 3)
        usleep(20000); // how late an answer is, is what is tested
    zeb_msg_t *reply = zeb_msg_alloc(8, 1, 0);
    (void)zeb_rpc_reply(request, reply, 0);
    free(reply);
}

static void *on_msg(zeb_msg_t *msg)
{
    stamp_t stamp;
    if (zeb_msg_data_len(msg) >= sizeof(stamp)) {
        memcpy(&stamp, msg->data, sizeof(stamp));
        enter(msg, stamp);
        if ((msg->hdr.flag & ZEB_MSG_FLAG_REQUEST) != 0)
            answer(msg, stamp);
    }
    free(msg);
    return nullptr;
}

static void *on_event(zeb_event_t event)
{
    uint32_t app = event.event.app.app;
    uint32_t node = event.event.app.node;
    uint32_t *count = event.type == ZEB_APP_JOIN ? s_ledger->joins : s_ledger->quits;
    __atomic_fetch_add(&count[instance_index(app, node)], 1, __ATOMIC_RELAXED);
    return nullptr;
}

static zeb_msg_t *new_msg(uint32_t kind, uint32_t app, uint32_t number, uint32_t size, uint32_t how)
{
    stamp_t stamp = {kind, s_ledger->process, app, s_ledger->node, number, how};
    zeb_msg_t *msg = zeb_msg_alloc((int)(sizeof(stamp) + size), 1, 0);
    memcpy(msg->data, &stamp, sizeof(stamp));
    for (uint32_t i = sizeof(stamp); i < sizeof(stamp) + size; i++)
        msg->data[i] = (uint8_t)(number + i);
    return msg;
}

typedef std::mt19937 random_t;

static uint32_t draw(random_t *random, uint32_t num)
{
    return (uint32_t)((*random)() % num);
}

static void send_one(uint32_t app, random_t *random)
{
    uint32_t peer = FIRST_APP + draw(random, APP_NUM);
    uint32_t node = 1 + draw(random, NODE_NUM);
    int index = instance_index(peer, node);
    app_t *own = mine(app);
    zeb_msg_t *msg = new_msg(1, app, own->sent[index] + 1, draw(random, 8) == 0 ? 5000 : draw(random, 200), 0);
    // Counted before it is sent: a process that is killed in between has counted one more than it sent, never one less.
    own->sent[index]++;
    if (zeb_sendto(app, node, peer, msg, ZEB_SEND_NOWAIT) != 0) {
        own->sent[index]--;
        own->refused[index]++;
    }
    free(msg);
}

// To all nodes, to a group of applications or to a group of nodes.
static void send_many(uint32_t app, uint32_t apps, uint32_t nodes, random_t *random)
{
    app_t *own = mine(app);
    zeb_msg_t *msg = new_msg(2, app, ++own->fan_out, draw(random, 100), 0);
    uint32_t peer = FIRST_APP + draw(random, APP_NUM);
    switch (draw(random, 3)) {
    case 0:
        (void)zeb_send(app, peer, msg, ZEB_SEND_NOWAIT);
        break;
    case 1:
        (void)zeb_send(app, apps, msg, ZEB_SEND_NOWAIT);
        break;
    default:
        (void)zeb_sendto(app, nodes, peer, msg, ZEB_SEND_NOWAIT);
    }
    free(msg);
}

static void judge_outcomes(app_t *own, uint32_t peer, zeb_reply_msg_t *reply)
{
    bool seen[NODE_NUM + 1] = {};
    for (int i = 0; i < reply->num; i++) {
        const zeb_msg_hdr_t *hdr = &reply->msg[i]->hdr;
        bool possible = hdr->src_app == peer && hdr->src_node >= 1 && hdr->src_node <= NODE_NUM && hdr->rpc_stat >= 0 &&
                        hdr->rpc_stat < 6;
        if (!possible) {
            own->other_outcomes++;
        } else {
            own->double_outcomes += seen[hdr->src_node] ? 1 : 0;
            seen[hdr->src_node] = true;
            own->outcomes[hdr->rpc_stat]++;
        }
        free(reply->msg[i]);
    }
}

static void call(uint32_t app, random_t *random)
{
    app_t *own = mine(app);
    uint32_t peer = FIRST_APP + draw(random, APP_NUM);
    uint32_t how = draw(random, 40) == 0 ? 2 : draw(random, 2) == 0 ? 0 : draw(random, 4);
    how = how == 2 && draw(random, 8) != 0 ? 0 : how;
    zeb_msg_t *msg = new_msg(2, app, ++own->fan_out, draw(random, 100), how);
    zeb_reply_msg_t reply;
    own->calls++;
    int ret = draw(random, 2) == 0 ? zeb_rpc(app, peer, msg, 0, 1, &reply)
                                   : zeb_rpcto(app, 1 + draw(random, NODE_NUM), peer, msg, 0, 1, &reply);
    own->calls_ended++;
    if (ret != 0)
        own->calls_refused++;
    else
        judge_outcomes(own, peer, &reply);
    free(msg);
}

static void make_groups(uint32_t app, uint32_t *apps, uint32_t *nodes)
{
    *apps = (uint32_t)zeb_create_app_mcast(app);
    *nodes = (uint32_t)zeb_create_node_mcast(app);
    for (uint32_t peer : {FIRST_APP, FIRST_APP + 1})
        (void)zeb_add_app_mcast(app, *apps, peer);
    for (uint32_t node : {1u, 3u, 4u})
        (void)zeb_add_node_mcast(app, *nodes, node);
}

static void traffic(uint32_t app, uint32_t seed)
{
    random_t random(seed);
    uint32_t apps = 0;
    uint32_t nodes = 0;
    make_groups(app, &apps, &nodes);
    for (;;) {
        s_busy++;
        if (s_on) {
            switch (draw(&random, 8)) {
            case 0:
                call(app, &random);
                break;
            case 1:
            case 2:
                send_many(app, apps, nodes, &random);
                break;
            default:
                send_one(app, &random);
            }
        }
        s_busy--;
        usleep(s_pace); // the pace is what is tested; an idle application also looks this often for "on"
    }
}

static std::string statistics(uint32_t app)
{
    zeb_buf_printf_reset();
    zeb_cli_print_fc_stat(app);
    return std::string((const char *)g_print_msg->data);
}

// Reads the library's counts of returned messages.
static void read_returned()
{
    for (uint32_t app : s_apps) {
        std::string text = statistics(app);
        size_t at = 0;
        while ((at = text.find("Receive from application ", at)) != std::string::npos) {
            unsigned peer = 0;
            unsigned node = 0;
            unsigned returned = 0;
            if (sscanf(text.c_str() + at, "Receive from application %u/%u: receive %*d, unack %*d, drop %*d, return %u",
                       &peer, &node, &returned) == 3 &&
                peer >= FIRST_APP && peer < FIRST_APP + APP_NUM && node >= 1 && node <= NODE_NUM)
                mine(app)->returned[instance_index(peer, node)] = returned;
            at++;
        }
    }
}

static void print_state()
{
    zeb_buf_printf_reset();
    zeb_cli_print_lib_info(s_apps[0]);
    for (uint32_t app : s_apps) {
        zeb_cli_print_fc_stat(app);
        zeb_cli_print_mng_stat(app);
    }
    say((const char *)g_print_msg->data);
}

// The instances that cannot be written to, as "app>peer/node app>peer/node".
static std::string unreachable()
{
    std::string missing;
    for (uint32_t app : s_apps) {
        for (uint32_t node = 1; node <= NODE_NUM; node++) {
            for (uint32_t peer = FIRST_APP; peer < FIRST_APP + APP_NUM; peer++) {
                zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0);
                if (zeb_sendto(app, node, peer, msg, ZEB_SEND_NOWAIT) != 0)
                    missing += (missing.empty() ? "" : " ") + std::to_string(app) + ">" + std::to_string(peer) + "/" +
                               std::to_string(node);
                free(msg);
            }
        }
    }
    return missing;
}

static std::string obey(const std::string &command)
{
    if (command.rfind("pace ", 0) == 0) {
        s_pace = (unsigned)atoi(command.c_str() + 5);
        return "";
    }
    if (command == "on")
        s_on = true;
    else if (command == "off")
        s_on = false;
    else if (command == "idle") {
        return s_busy == 0 ? "yes" : "no"; // after "off": who becomes busy from now on finds traffic off
    } else if (command == "probe")
        return unreachable();
    else if (command == "count")
        read_returned();
    else if (command == "check") {
        static char text[65536] = "";
        if (zeb_check_invariants != nullptr && zeb_check_invariants(text, sizeof(text)) != 0)
            return text;
    } else if (command == "state") {
        print_state();
    }
    return "";
}

int main(int argc, char **argv)
{
    if (argc < 5)
        return 2;
    int fd = open(argv[1], O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(ledger_t)) != 0)
        return 2;
    s_ledger = (ledger_t *)mmap(nullptr, sizeof(ledger_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (s_ledger == MAP_FAILED)
        return 2;
    static const zeb_msg_dispatcher_t dispatcher[] = {{1, on_msg}, {0, nullptr}};
    for (int i = 4; i < argc; i++) {
        uint32_t app = (uint32_t)atoi(argv[i]);
        bool thread = strstr(argv[i], ":nothread") == nullptr;
        int ret = thread ? zeb_register(app, "chaos", dispatcher, on_event)
                         : zeb_register_without_thread(app, "chaos", dispatcher, on_event);
        if (ret != 0) {
            say("register " + std::to_string(ret));
            return 1;
        }
        s_apps.push_back(app);
    }
    s_ledger->node = (uint32_t)zeb_get_my_node_id();
    s_ledger->process = (uint32_t)atoi(argv[2]);
    for (uint32_t app : s_apps) {
        for (uint32_t peer = FIRST_APP; peer < FIRST_APP + APP_NUM; peer++)
            (void)zeb_comm_with(app, peer);
    }
    zeb_run();
    for (uint32_t app : s_apps)
        std::thread(traffic, app, (uint32_t)atoi(argv[3]) + app).detach();
    say("ready");
    char line[256];
    while (fgets(line, sizeof(line), stdin) != nullptr) {
        std::string command(line, strcspn(line, "\n"));
        std::string said = obey(command);
        say("done " + command.substr(0, command.find(' ')) + " " + said);
    }
    _exit(0);
}
