// nng over ipc, because nng has no TIPC transport: PUSH and PULL for one-way messages, REQ and REP for round trips. It
// measures one server on the client's node only.
#include "bench.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <pthread.h>
#include <unistd.h>

static nng_socket s_push;
static nng_socket s_req;

static const char *endpoint(const char *purpose)
{
    static char text[128];
    const char *dir = getenv("BENCH_DIR");
    (void)snprintf(text, sizeof(text), "ipc://%s/%s", dir != nullptr ? dir : "/tmp", purpose);
    return text;
}

static void check(int ret, const char *what)
{
    if (ret != 0)
        bench_fail(what);
}

static std::mutex s_mutex; // serialises bench_received between the server's two threads

static void *serve_oneway(void *)
{
    nng_socket sock;
    check(nng_pull0_open(&sock), "nng pull");
    check(nng_listen(sock, endpoint("oneway"), nullptr, 0), "nng listen");
    bench_count_t answer;
    for (;;) {
        nng_msg *msg = nullptr;
        check(nng_recvmsg(sock, &msg, 0), "nng recv");
        {
            std::lock_guard<std::mutex> lock(s_mutex);
            (void)bench_received(0, nng_msg_body(msg), nng_msg_len(msg), &answer);
        }
        nng_msg_free(msg);
    }
    return nullptr;
}

static void *serve_trips(void *)
{
    nng_socket sock;
    check(nng_rep0_open(&sock), "nng rep");
    check(nng_listen(sock, endpoint("trip"), nullptr, 0), "nng listen");
    for (;;) {
        static char in[BENCH_SIZE_MAX];
        size_t len = sizeof(in);
        check(nng_recv(sock, in, &len, 0), "nng recv");
        bench_count_t answer;
        {
            std::lock_guard<std::mutex> lock(s_mutex);
            (void)bench_received(0, in, len, &answer);
        }
        check(nng_send(sock, &answer, sizeof(answer), 0), "nng send");
    }
    return nullptr;
}

static void serve(const bench_conf_t *)
{
    pthread_t tid;
    if (pthread_create(&tid, nullptr, serve_trips, nullptr) != 0 ||
        pthread_create(&tid, nullptr, serve_oneway, nullptr) != 0)
        bench_fail("thread");
}

static void dial(nng_socket sock, const char *purpose)
{
    while (nng_dial(sock, endpoint(purpose), nullptr, 0) != 0)
        (void)usleep(10000); // the server does not listen yet
}

static void open(const bench_conf_t *)
{
    check(nng_push0_open(&s_push), "nng push");
    check(nng_req0_open(&s_req), "nng req");
    check(nng_socket_set_int(s_push, NNG_OPT_SENDBUF, BENCH_WINDOW), "nng buffer");
    dial(s_push, "oneway");
    dial(s_req, "trip");
}

static void send(const void *data, size_t len)
{
    check(nng_send(s_push, const_cast<void *>(data), len, 0), "nng send");
}

static int call(const void *data, size_t len, bench_count_t *answers)
{
    check(nng_send(s_req, const_cast<void *>(data), len, 0), "nng send");
    size_t got = sizeof(*answers);
    check(nng_recv(s_req, answers, &got, 0), "nng recv");
    return 1;
}

const bench_transport_t g_bench_nng = {"nng", serve, open, send, call};
