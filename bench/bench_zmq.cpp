// libzmq over TIPC: PUSH and PULL for one-way messages, REQ and REP for round trips, with libzmq's default high-water
// marks.
#include "bench.h"

#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <unistd.h>
#include <zmq.h>

static bench_conf_t s_conf;
static void *s_ctx;
static void *s_push[BENCH_SERVER_NUM];
static void *s_req[BENCH_SERVER_NUM];

static void *make(int type)
{
    if (s_ctx == nullptr)
        s_ctx = zmq_ctx_new();
    void *sock = zmq_socket(s_ctx, type);
    if (sock == nullptr)
        bench_fail("zmq_socket");
    return sock;
}

// The TIPC address of a server for one purpose: 0 for one-way messages, 1 for round trips.
static const char *name(int server, int purpose, bool to_bind)
{
    static char text[64];
    if (to_bind)
        (void)snprintf(text, sizeof(text), "tipc://{%d,%d,%d}", 25000 + purpose, server, server);
    else
        (void)snprintf(text, sizeof(text), "tipc://{%d,%d}@0.0.0", 25000 + purpose, server);
    return text;
}

static void *bound(int type, int server, int purpose)
{
    void *sock = make(type);
    if (zmq_bind(sock, name(server, purpose, true)) != 0)
        bench_fail("zmq_bind");
    return sock;
}

static void *connected(int type, int server, int purpose)
{
    void *sock = make(type);
    if (zmq_connect(sock, name(server, purpose, false)) != 0)
        bench_fail("zmq_connect");
    return sock;
}

static void *serve_loop(void *)
{
    static char in[BENCH_SIZE_MAX];
    void *pull = bound(ZMQ_PULL, s_conf.index, 0);
    void *rep = bound(ZMQ_REP, s_conf.index, 1);
    zmq_pollitem_t items[] = {{pull, 0, ZMQ_POLLIN, 0}, {rep, 0, ZMQ_POLLIN, 0}};
    bench_count_t answer;
    for (;;) {
        (void)zmq_poll(items, 2, -1);
        // Reads all waiting messages before the next poll, as libzmq's guide shows.
        for (int len = 0; (items[0].revents & ZMQ_POLLIN) != 0 && len >= 0;) {
            len = zmq_recv(pull, in, sizeof(in), ZMQ_DONTWAIT);
            if (len >= 0)
                (void)bench_received(0, in, (size_t)len, &answer);
        }
        int len = (items[1].revents & ZMQ_POLLIN) != 0 ? zmq_recv(rep, in, sizeof(in), ZMQ_DONTWAIT) : -1;
        if (len >= 0 && bench_received(0, in, (size_t)len, &answer))
            (void)zmq_send(rep, &answer, sizeof(answer), 0);
    }
    return nullptr;
}

static void serve(const bench_conf_t *conf)
{
    s_conf = *conf;
    pthread_t tid;
    if (pthread_create(&tid, nullptr, serve_loop, nullptr) != 0)
        bench_fail("thread");
}

static int call(const void *data, size_t len, bench_count_t *answers)
{
    for (int i = 0; i < s_conf.server_num; i++) {
        if (zmq_send(s_req[i], data, len, 0) < 0)
            bench_fail("zmq_send");
    }
    for (int i = 0; i < s_conf.server_num; i++) {
        if (zmq_recv(s_req[i], &answers[i], sizeof(*answers), 0) != sizeof(*answers))
            bench_fail("zmq_recv");
    }
    return s_conf.server_num;
}

static void open(const bench_conf_t *conf)
{
    s_conf = *conf;
    for (int i = 0; i < conf->server_num; i++) {
        s_push[i] = connected(ZMQ_PUSH, i, 0);
        s_req[i] = connected(ZMQ_REQ, i, 1);
    }
    bench_msg_t hello = {BENCH_TRIP, (uint32_t)conf->index, 0};
    bench_count_t answers[BENCH_SERVER_NUM];
    (void)call(&hello, sizeof(hello), answers);
}

static void send(const void *data, size_t len)
{
    for (int i = 0; i < s_conf.server_num; i++) {
        if (zmq_send(s_push[i], data, len, 0) < 0)
            bench_fail("zmq_send");
    }
}

const bench_transport_t g_bench_zmq = {"zmq", serve, open, send, call};
