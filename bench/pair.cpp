// Two processes on two nodes that do the same work over the library and over raw TIPC sockets: one-way messages with a
// window of 1,024 and acknowledgements of 512, and round trips. Usage: pair serve raw|zeb|zeb-nothread      answers
// until it is killed
//        pair oneway raw|zeb SIZE COUNT       prints messages per second
//        pair trip raw|zeb COUNT              prints the median and the 99th percentile of a round trip, microseconds
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/tipc.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <zeb/zeb.h>

constexpr uint32_t SERVER = 100;
constexpr uint32_t CLIENT = 200;
constexpr uint32_t RAW_TYPE = 24000;
constexpr int WINDOW = 1024;
constexpr int BATCH = 512;

static double now_us()
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

static void print_rate(int count, double microseconds)
{
    printf("%.0f\n", count / microseconds * 1e6);
}

static void print_trips(std::vector<double> trips)
{
    std::sort(trips.begin(), trips.end());
    printf("%.1f %.1f\n", trips[trips.size() / 2], trips[trips.size() * 99 / 100]);
}

// Raw: the first byte says what a message is.
enum raw_kind_t : char { RAW_DATA = 'd', RAW_TRIP = 't', RAW_ACK = 'a' };

static struct sockaddr_tipc raw_name(uint32_t instance)
{
    struct sockaddr_tipc addr;
    memset(&addr, 0, sizeof(addr));
    addr.family = AF_TIPC;
    addr.addrtype = TIPC_ADDR_NAME;
    addr.scope = TIPC_CLUSTER_SCOPE;
    addr.addr.name.name.type = RAW_TYPE;
    addr.addr.name.name.instance = instance;
    return addr;
}

static int raw_socket(uint32_t instance)
{
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    struct sockaddr_tipc addr = raw_name(instance);
    if (sd < 0 || bind(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
        perror("raw socket");
        exit(1);
    }
    return sd;
}

static void raw_send(int sd, uint32_t instance, const char *data, size_t len)
{
    struct sockaddr_tipc addr = raw_name(instance);
    while (sendto(sd, data, len, MSG_NOSIGNAL, (struct sockaddr *)&addr, sizeof(addr)) < 0)
        (void)usleep(1000); // the name may not be known here yet
}

static ssize_t raw_recv(int sd, char *data, size_t len)
{
    struct pollfd fd = {sd, POLLIN, 0};
    (void)poll(&fd, 1, -1);
    return recv(sd, data, len, 0);
}

static void raw_serve()
{
    static char data[66000];
    int sd = raw_socket(SERVER);
    int due = 0;
    for (;;) {
        ssize_t len = raw_recv(sd, data, sizeof(data));
        if (len > 0 && data[0] == RAW_TRIP)
            raw_send(sd, CLIENT, data, (size_t)len);
        if (len > 0 && data[0] == RAW_DATA && ++due > BATCH) {
            char ack[44] = {RAW_ACK};
            raw_send(sd, CLIENT, ack, sizeof(ack));
            due -= BATCH;
        }
    }
}

static void raw_oneway(size_t size, int count)
{
    std::vector<char> data(size + 36, RAW_DATA);
    static char answer[66000];
    int sd = raw_socket(CLIENT);
    std::vector<char> trip(100, RAW_TRIP);
    raw_send(sd, SERVER, trip.data(), trip.size());
    (void)raw_recv(sd, answer, sizeof(answer));
    int unacked = 0;
    double begin = now_us();
    for (int i = 0; i < count; i++) {
        while (unacked > WINDOW) {
            if (raw_recv(sd, answer, sizeof(answer)) > 0 && answer[0] == RAW_ACK)
                unacked -= BATCH;
        }
        raw_send(sd, SERVER, data.data(), data.size());
        unacked++;
    }
    raw_send(sd, SERVER, trip.data(), trip.size());
    while (raw_recv(sd, answer, sizeof(answer)) <= 0 || answer[0] != RAW_TRIP)
        continue;
    print_rate(count, now_us() - begin);
}

static void raw_trip(int count)
{
    std::vector<char> trip(100, RAW_TRIP);
    static char answer[66000];
    int sd = raw_socket(CLIENT);
    std::vector<double> trips;
    for (int i = 0; i < count; i++) {
        double begin = now_us();
        raw_send(sd, SERVER, trip.data(), trip.size());
        (void)raw_recv(sd, answer, sizeof(answer));
        trips.push_back(now_us() - begin);
    }
    print_trips(trips);
}

// The library.
static std::atomic<bool> s_joined{false};

static void *on_event(zeb_event_t event)
{
    if (event.type == ZEB_APP_JOIN && event.event.app.app == SERVER)
        s_joined = true;
    return nullptr;
}

static void *on_msg(zeb_msg_t *msg)
{
    if ((msg->hdr.flag & ZEB_MSG_FLAG_REQUEST) != 0) {
        zeb_msg_t *reply = zeb_msg_alloc(64, 1, 0);
        (void)zeb_rpc_reply(msg, reply, 0);
        free(reply);
    }
    free(msg);
    return nullptr;
}

static void zeb_start(uint32_t app, uint32_t peer, bool thread)
{
    const zeb_msg_dispatcher_t table[] = {{1, on_msg}, {0, nullptr}};
    int ret =
        thread ? zeb_register(app, "pair", table, on_event) : zeb_register_without_thread(app, "pair", table, on_event);
    if (ret != 0 || zeb_comm_with(app, peer) != 0)
        exit(1);
    zeb_run();
}

static uint32_t zeb_join()
{
    zeb_start(CLIENT, SERVER, true);
    while (!s_joined)
        (void)usleep(10000);
    return SERVER;
}

static void zeb_call()
{
    static zeb_msg_t *msg = zeb_msg_alloc(64, 1, 0);
    zeb_reply_msg_t replies;
    if (zeb_rpc(CLIENT, SERVER, msg, 0, 60, &replies) != 0 || replies.num != 1 || replies.msg[0]->hdr.rpc_stat != 0)
        exit(1);
    free(replies.msg[0]);
}

static void zeb_oneway(int size, int count)
{
    (void)zeb_join();
    zeb_msg_t *msg = zeb_msg_alloc(size, 1, 0);
    zeb_call();
    double begin = now_us();
    for (int i = 0; i < count; i++) {
        if (zeb_send(CLIENT, SERVER, msg, 0) != 0)
            exit(1);
    }
    zeb_call();
    print_rate(count, now_us() - begin);
}

static void zeb_trip(int count)
{
    (void)zeb_join();
    std::vector<double> trips;
    for (int i = 0; i < count; i++) {
        double begin = now_us();
        zeb_call();
        trips.push_back(now_us() - begin);
    }
    print_trips(trips);
}

int main(int argc, char **argv)
{
    std::string verb = argc > 1 ? argv[1] : "";
    std::string what = argc > 2 ? argv[2] : "";
    if (verb == "serve" && what == "raw")
        raw_serve();
    if (verb == "serve") {
        zeb_start(SERVER, CLIENT, what == "zeb");
        for (;;)
            (void)pause();
    }
    if (verb == "oneway" && argc == 5)
        what == "raw" ? raw_oneway((size_t)atoi(argv[3]), atoi(argv[4])) : zeb_oneway(atoi(argv[3]), atoi(argv[4]));
    else if (verb == "trip" && argc == 4)
        what == "raw" ? raw_trip(atoi(argv[3])) : zeb_trip(atoi(argv[3]));
    else
        return 2;
    fflush(stdout);
    _exit(0);
}
