// The library as a transport, in three configurations.
#include "bench.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <zeb/zeb.h>

constexpr uint32_t CROWD_APP = 1000;

static uint32_t s_server = 300; // the first application id of a process's servers
static uint32_t s_client = 200; // the application id of the first client
static bool s_thread = true;
static bench_conf_t s_conf;
static std::atomic<int> s_joined{0};
static int s_crowd; // number of further peers that both ends know
static uint32_t s_dst;
static uint32_t s_dst_nodes = ZEB_NODE_ALL;

static uint32_t client_app()
{
    return s_client + (uint32_t)s_conf.index;
}

static void *on_join(zeb_event_t event)
{
    s_joined += event.type == ZEB_APP_JOIN && event.event.app.app >= s_server ? 1 : 0;
    return nullptr;
}

static void *on_msg(zeb_msg_t *msg)
{
    bench_count_t answer;
    if (bench_received((int)(msg->hdr.dst_app - s_server), msg->data, zeb_msg_data_len(msg), &answer)) {
        zeb_msg_t *reply = zeb_msg_alloc(sizeof(answer), 1, 0);
        memcpy(reply->data, &answer, sizeof(answer));
        if (zeb_rpc_reply(msg, reply, 0) != 0)
            bench_fail("zeb_rpc_reply");
        free(reply);
    }
    free(msg);
    return nullptr;
}

static void add_app(uint32_t app, bool thread)
{
    const zeb_msg_dispatcher_t table[] = {{1, on_msg}, {0, nullptr}};
    int ret =
        thread ? zeb_register(app, "bench", table, on_join) : zeb_register_without_thread(app, "bench", table, on_join);
    if (ret != 0)
        bench_fail("zeb_register");
}

// Called for one application of the process, which then gets the join events of the crowd.
static void know_crowd(uint32_t app)
{
    if (s_crowd > 0)
        (void)zeb_comm_with(app, CROWD_APP);
}

static void wait_joined(int num)
{
    while (s_joined < num)
        (void)usleep(10000);
}

static void serve(const bench_conf_t *conf)
{
    s_conf = *conf;
    for (int i = 0; i < conf->server_num; i++) {
        uint32_t app = s_server + (uint32_t)i;
        add_app(app, s_thread);
        for (uint32_t client = 0; client < BENCH_SENDER_NUM; client++)
            (void)zeb_comm_with(app, s_client + client);
    }
    know_crowd(s_server);
    zeb_run();
    wait_joined(s_crowd);
}

// Other application ids, because all configurations run in one cluster at the same time.
static void without_thread()
{
    s_thread = false;
    s_server += 100;
    s_client += 50;
}

static void with_crowd()
{
    s_crowd = BENCH_CROWD_NUM;
    s_server += 200;
    s_client += 70;
}

static void serve_without_thread(const bench_conf_t *conf)
{
    without_thread();
    serve(conf);
}

// Up to four servers are instances of one application, each on a node of its own. More servers are 16 applications on
// each of four nodes. They are addressed by a group of applications, and in calls also by a group of nodes, because a
// call to a group of applications needs one.
static void open(const bench_conf_t *conf)
{
    s_conf = *conf;
    s_dst = s_server;
    add_app(client_app(), true);
    int apps = bench_servers_per_process(conf);
    if (apps > 1) {
        s_dst = (uint32_t)zeb_create_app_mcast(client_app());
        s_dst_nodes = (uint32_t)zeb_create_node_mcast(client_app());
        for (uint32_t node = 1; node <= 4; node++)
            (void)zeb_add_node_mcast(client_app(), s_dst_nodes, node);
    }
    for (int i = 0; i < apps; i++) {
        (void)zeb_comm_with(client_app(), s_server + (uint32_t)i);
        if (apps > 1)
            (void)zeb_add_app_mcast(client_app(), s_dst, s_server + (uint32_t)i);
    }
    know_crowd(client_app());
    zeb_run();
    wait_joined(conf->server_num + s_crowd);
}

// The same buffer each time: a sent message stays the sender's.
static zeb_msg_t *message(const void *data, size_t len)
{
    static zeb_msg_t *s_msg = zeb_msg_alloc((int)BENCH_SIZE_MAX, 1, 0);
    s_msg->hdr.len = ZEB_MSG_HDR_LEN + (uint32_t)len;
    memcpy(s_msg->data, data, sizeof(bench_msg_t)); // the rest of the payload never changes
    return s_msg;
}

static void serve_with_crowd(const bench_conf_t *conf)
{
    with_crowd();
    serve(conf);
}

static void open_with_crowd(const bench_conf_t *conf)
{
    with_crowd();
    open(conf);
}

static void open_without_thread(const bench_conf_t *conf)
{
    without_thread();
    open(conf);
}

static void send(const void *data, size_t len)
{
    if (zeb_send(client_app(), s_dst, message(data, len), 0) != 0)
        bench_fail("zeb_send");
}

static int call(const void *data, size_t len, bench_count_t *answers)
{
    zeb_reply_msg_t replies;
    if (zeb_rpcto(client_app(), s_dst_nodes, s_dst, message(data, len), 0, 60, &replies) != 0)
        bench_fail("zeb_rpc");
    for (int i = 0; i < replies.num; i++) {
        if (replies.msg[i]->hdr.rpc_stat != ZEB_SUCCESS)
            bench_fail("an answer");
        memcpy(&answers[i], replies.msg[i]->data, sizeof(*answers));
        free(replies.msg[i]);
    }
    return replies.num;
}

const bench_transport_t g_bench_zeb = {"zeb", serve, open, send, call};
const bench_transport_t g_bench_zeb_nothread = {"zeb-nothread", serve_without_thread, open_without_thread, send, call};
const bench_transport_t g_bench_zeb_crowd = {"zeb-crowd", serve_with_crowd, open_with_crowd, send, call};
