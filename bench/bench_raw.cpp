// The limits that the library is compared with. "raw" uses plain TIPC sockets with the same window and
// acknowledgements, and one thread at each end. "threads" adds only the library's threads and system calls: a receive
// thread polls before it reads each datagram, copies it, and puts it on a queue for the dispatching thread. It wakes
// that thread once for one-way messages that arrive together.
#include "bench.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <linux/tipc.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/tipc_name.h"

constexpr uint32_t NAME_TYPE = 24000;
constexpr uint32_t CLIENT_INSTANCE = 100000;
constexpr int UNSIGNALLED_MAX = 64; // as in the library
constexpr size_t STREAMED_LEN_MAX = 4096;
constexpr size_t HEADER_LEN = 36; // bytes, the same as the library's header

static bench_conf_t s_conf;
static uint32_t s_first; // TIPC instance of the first server; different for each transport of this file
static int s_sd[BENCH_SERVER_NUM];
static int s_unacked[BENCH_SERVER_NUM];
static char s_out[HEADER_LEN + BENCH_SIZE_MAX];

static int named_socket(uint32_t instance)
{
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    struct sockaddr_tipc addr = tipc_name(NAME_TYPE, instance, TIPC_CLUSTER_SCOPE);
    if (sd < 0 || bind(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0)
        bench_fail("raw socket");
    return sd;
}

static uint32_t client_instance(int index)
{
    return CLIENT_INSTANCE + s_first + (uint32_t)index;
}

// The first words of each message. An answer or an acknowledgement is sent to `from` and repeats both.
typedef struct raw_hdr_s {
    uint32_t from; // instance
    uint32_t server;
} raw_hdr_t;

static bool try_send(int sd, uint32_t to, raw_hdr_t hdr, const void *data, size_t head, size_t len)
{
    struct sockaddr_tipc addr = tipc_name(NAME_TYPE, to, TIPC_CLUSTER_SCOPE);
    memcpy(s_out, &hdr, sizeof(hdr));
    memcpy(s_out + HEADER_LEN, data, head);
    return sendto(sd, s_out, HEADER_LEN + len, MSG_NOSIGNAL, (struct sockaddr *)&addr, sizeof(addr)) >= 0;
}

static void answer_to(int sd, const raw_hdr_t *hdr, const void *data, size_t len)
{
    if (!try_send(sd, hdr->from, *hdr, data, len, len))
        bench_fail("raw answer");
}

static void take(int server, int sd, const char *in, size_t len)
{
    static uint32_t s_due[BENCH_SERVER_NUM][BENCH_SENDER_NUM];
    raw_hdr_t hdr;
    memcpy(&hdr, in, sizeof(hdr));
    bench_count_t answer;
    if (bench_received(server, in + HEADER_LEN, len - HEADER_LEN, &answer)) {
        answer_to(sd, &hdr, &answer, sizeof(answer));
        return;
    }
    uint32_t *due = &s_due[server][hdr.from - client_instance(0)];
    if (++*due <= BENCH_ACK_BATCH)
        return;
    *due -= BENCH_ACK_BATCH;
    uint32_t ack = BENCH_ACK;
    answer_to(sd, &hdr, &ack, sizeof(ack));
}

static void *serve_loop(void *)
{
    static char in[66000];
    struct pollfd fds[BENCH_SERVER_NUM];
    for (int i = 0; i < s_conf.server_num; i++)
        fds[i] = {s_sd[i], POLLIN, 0};
    for (;;) {
        if (s_conf.server_num > 1)
            (void)poll(fds, (nfds_t)s_conf.server_num, -1);
        for (int i = 0; i < s_conf.server_num; i++) {
            if (s_conf.server_num > 1 && fds[i].revents == 0)
                continue;
            ssize_t len = recv(s_sd[i], in, sizeof(in), 0);
            if (len >= (ssize_t)(HEADER_LEN + sizeof(bench_msg_t)))
                take(i, s_sd[i], in, (size_t)len);
        }
    }
    return nullptr;
}

// The instances of a process start 16 after those of the process before it, so that 64 servers in four processes have
// consecutive instances.
static uint32_t server_instance(int process, int i)
{
    return s_first + (uint32_t)(process * 16 + i);
}

static void serve(const bench_conf_t *conf)
{
    s_conf = *conf;
    for (int i = 0; i < conf->server_num; i++)
        s_sd[i] = named_socket(server_instance(conf->index, i));
    pthread_t tid;
    if (pthread_create(&tid, nullptr, serve_loop, nullptr) != 0)
        bench_fail("thread");
}

// The servers are numbered in the library's order: one of each process in turn.
static uint32_t instance_of(int server)
{
    int processes = s_conf.server_num / bench_servers_per_process(&s_conf);
    return server_instance(server % processes, server / processes);
}

// Reads one answer or acknowledgement. True for an answer.
static bool read_back(bench_count_t *answer)
{
    char in[HEADER_LEN + sizeof(*answer)];
    ssize_t len = recv(s_sd[0], in, sizeof(in), 0);
    if (len < (ssize_t)(HEADER_LEN + sizeof(uint32_t)))
        bench_fail("raw message came back");
    raw_hdr_t hdr;
    memcpy(&hdr, in, sizeof(hdr));
    uint32_t kind = 0;
    memcpy(&kind, in + HEADER_LEN, sizeof(kind));
    if (kind == BENCH_ACK) {
        s_unacked[hdr.server] -= BENCH_ACK_BATCH;
        return false;
    }
    memcpy(answer, in + HEADER_LEN, sizeof(*answer));
    return true;
}

static void send_one(int server, const void *data, size_t len)
{
    raw_hdr_t hdr = {client_instance(s_conf.index), (uint32_t)server};
    while (!try_send(s_sd[0], instance_of(server), hdr, data, sizeof(bench_msg_t), len))
        bench_fail("raw send");
}

static void open(const bench_conf_t *conf)
{
    s_conf = *conf;
    s_sd[0] = named_socket(client_instance(conf->index));
    bench_msg_t hello = {BENCH_TRIP, (uint32_t)conf->index, 0};
    for (int i = 0; i < conf->server_num; i++) {
        raw_hdr_t hdr = {client_instance(conf->index), (uint32_t)i};
        while (!try_send(s_sd[0], instance_of(i), hdr, &hello, sizeof(hello), sizeof(hello)))
            (void)usleep(10000); // the name is not published on this node yet
        bench_count_t answer;
        (void)read_back(&answer);
    }
}

static void send(const void *data, size_t len)
{
    bench_count_t answer;
    for (int i = 0; i < s_conf.server_num; i++) {
        while (s_unacked[i] > BENCH_WINDOW)
            (void)read_back(&answer);
        send_one(i, data, len);
        s_unacked[i]++;
    }
}

static int call(const void *data, size_t len, bench_count_t *answers)
{
    for (int i = 0; i < s_conf.server_num; i++)
        send_one(i, data, len);
    for (int got = 0; got < s_conf.server_num;)
        got += read_back(&answers[got]) ? 1 : 0;
    return s_conf.server_num;
}

const bench_transport_t g_bench_raw = {"raw", serve, open, send, call};

// The transports with a receive thread.

typedef struct item_s {
    int server;
    size_t len;
    char data[1]; // len bytes
} item_t;

static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t s_cond = PTHREAD_COND_INITIALIZER;
static std::deque<item_t *> s_queue; // of a server; a client processes answers and acknowledgements at once
static bench_count_t *s_answers;
static int s_answered;
static int s_socket_num;  // sockets that the receive thread reads
static int s_unsignalled; // messages queued since the last wake-up; used by the receive thread only

static item_t *read_item(int server)
{
    static char in[66000];
    static char control[1096];
    struct iovec iov = {in, sizeof(in)};
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &iov;
    hdr.msg_iovlen = 1;
    hdr.msg_control = control;
    hdr.msg_controllen = sizeof(control);
    ssize_t len = recvmsg(s_sd[server], &hdr, MSG_DONTWAIT);
    if (len < (ssize_t)(HEADER_LEN + sizeof(uint32_t)))
        return nullptr;
    item_t *item = (item_t *)malloc(sizeof(item_t) + (size_t)len);
    item->server = server;
    item->len = (size_t)len;
    memcpy(item->data, in, (size_t)len);
    return item;
}

static void signal_queued()
{
    s_unsignalled = 0;
    (void)pthread_cond_signal(&s_cond);
}

static bool is_oneway(const item_t *item)
{
    uint32_t kind = 0;
    memcpy(&kind, item->data + HEADER_LEN, sizeof(kind));
    return kind == BENCH_DATA;
}

static void enqueue(item_t *item)
{
    bool streamed = item->len <= STREAMED_LEN_MAX && is_oneway(item);
    (void)pthread_mutex_lock(&s_mutex);
    s_queue.push_back(item);
    (void)pthread_mutex_unlock(&s_mutex);
    s_unsignalled++;
    if (!streamed || s_unsignalled >= UNSIGNALLED_MAX)
        signal_queued();
}

static void file(item_t *item)
{
    raw_hdr_t hdr;
    memcpy(&hdr, item->data, sizeof(hdr));
    uint32_t kind = 0;
    memcpy(&kind, item->data + HEADER_LEN, sizeof(kind));
    (void)pthread_mutex_lock(&s_mutex);
    if (kind == BENCH_ACK)
        s_unacked[hdr.server] -= BENCH_ACK_BATCH;
    else
        memcpy(&s_answers[s_answered++], item->data + HEADER_LEN, sizeof(*s_answers));
    (void)pthread_mutex_unlock(&s_mutex);
    (void)pthread_cond_broadcast(&s_cond);
    free(item);
}

static void *receive_loop(void *arg)
{
    auto *take_item = (void (*)(item_t *))arg;
    struct pollfd fds[BENCH_SERVER_NUM + 1];
    int num = s_socket_num;
    fds[num] = {eventfd(0, 0), POLLIN, 0}; // in place of the library's topology connection
    for (int i = 0; i < num; i++)
        fds[i] = {s_sd[i], POLLIN, 0};
    for (;;) {
        int ready = poll(fds, (nfds_t)num + 1, s_unsignalled > 0 ? 0 : 2000);
        if (ready == 0 && s_unsignalled > 0)
            signal_queued();
        for (int i = 0; i < num; i++) {
            item_t *item = fds[i].revents != 0 ? read_item(i) : nullptr;
            if (item != nullptr)
                take_item(item);
        }
    }
    return nullptr;
}

// Called with s_mutex held.
static void wait_a_second()
{
    struct timespec deadline;
    (void)clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec++;
    (void)pthread_cond_timedwait(&s_cond, &s_mutex, &deadline);
}

static void *dispatch_loop(void *)
{
    for (;;) {
        (void)pthread_mutex_lock(&s_mutex);
        while (s_queue.empty())
            wait_a_second();
        item_t *item = s_queue.front();
        s_queue.pop_front();
        (void)pthread_mutex_unlock(&s_mutex);
        take(item->server, s_sd[item->server], item->data, item->len);
        free(item);
    }
    return nullptr;
}

static void dispatch_at_once(item_t *item)
{
    take(item->server, s_sd[item->server], item->data, item->len);
    free(item);
}

static void start_thread(void *(*fun)(void *), void (*take_item)(item_t *))
{
    pthread_t tid;
    if (pthread_create(&tid, nullptr, fun, (void *)take_item) != 0)
        bench_fail("thread");
}

static void bind_servers(const bench_conf_t *conf, int first)
{
    s_conf = *conf;
    s_first = (uint32_t)first;
    s_socket_num = conf->server_num;
    for (int i = 0; i < conf->server_num; i++)
        s_sd[i] = named_socket(server_instance(conf->index, i));
}

static void serve_threads(const bench_conf_t *conf)
{
    bind_servers(conf, 1000);
    start_thread(dispatch_loop, nullptr);
    start_thread(receive_loop, enqueue);
}

static void serve_nothread(const bench_conf_t *conf)
{
    bind_servers(conf, 2000);
    start_thread(receive_loop, dispatch_at_once);
}

static void open_at(const bench_conf_t *conf, int first)
{
    s_first = (uint32_t)first;
    open(conf);
    s_socket_num = 1;
    start_thread(receive_loop, file);
}

static void open_threads(const bench_conf_t *conf)
{
    open_at(conf, 1000);
}

static void open_nothread(const bench_conf_t *conf)
{
    open_at(conf, 2000);
}

static void send_threads(const void *data, size_t len)
{
    for (int i = 0; i < s_conf.server_num; i++) {
        (void)pthread_mutex_lock(&s_mutex);
        while (s_unacked[i] > BENCH_WINDOW)
            wait_a_second();
        s_unacked[i]++;
        (void)pthread_mutex_unlock(&s_mutex);
        send_one(i, data, len);
    }
}

static int call_threads(const void *data, size_t len, bench_count_t *answers)
{
    (void)pthread_mutex_lock(&s_mutex);
    s_answers = answers;
    s_answered = 0;
    (void)pthread_mutex_unlock(&s_mutex);
    for (int i = 0; i < s_conf.server_num; i++)
        send_one(i, data, len);
    (void)pthread_mutex_lock(&s_mutex);
    while (s_answered < s_conf.server_num)
        wait_a_second();
    (void)pthread_mutex_unlock(&s_mutex);
    return s_conf.server_num;
}

const bench_transport_t g_bench_threads = {"threads", serve_threads, open_threads, send_threads, call_threads};
const bench_transport_t g_bench_threads_nothread = {"threads-nothread", serve_nothread, open_nothread, send_threads,
                                                    call_threads};
