// The same work over several transports: what a transport offers to the benchmark program (bench.cpp), which is the
// same for all. Messages carry a header by which the receiver counts them and finds what is missing, doubled or out of
// order.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <cstddef>
#include <cstdint>

constexpr int BENCH_SENDER_NUM = 4;  // clients of one server
constexpr int BENCH_SERVER_NUM = 64; // servers of one client
constexpr int BENCH_PROCESS_NUM = 4; // of the servers of one client, at most
constexpr int BENCH_CROWD_NUM = 1000;
constexpr size_t BENCH_SIZE_MAX = 61440;
constexpr int BENCH_WINDOW = 1024; // unacknowledged messages towards one server
constexpr int BENCH_ACK_BATCH = 512;

// At the start of every payload.
typedef struct bench_msg_s {
    uint32_t kind; // bench_kind_t
    uint32_t sender;
    uint64_t seq; // of a one-way message of this sender, from 1
} bench_msg_t;

typedef enum bench_kind_e : uint32_t {
    BENCH_DATA = 1, // one-way
    BENCH_TRIP = 2, // answered with bench_count_t
    BENCH_ACK = 3,  // transports without a window of their own
} bench_kind_t;

// What a server knows of the sender that asks, and of itself.
typedef struct bench_count_s {
    uint32_t kind;
    uint32_t disordered; // one-way messages whose number was not the next
    uint64_t received;
    uint64_t cpu_us;   // of the server's process, both modes
    uint64_t switches; // context switches of all its threads
    uint64_t rss_kb;
} bench_count_t;

// One process's part. `index` is the client's or the first server's; a server process may hold several.
typedef struct bench_conf_s {
    int index;
    int server_num; // servers: of this process; clients: to talk to
    int work;       // rounds over the payload for each one-way message
} bench_conf_t;

typedef struct bench_transport_s {
    const char *name;
    void (*serve)(const bench_conf_t *conf);    // starts; messages go to bench_received
    void (*open)(const bench_conf_t *conf);     // returns once all servers are there
    void (*send)(const void *data, size_t len); // one-way, to every server
    // A trip to every server; the answers by server, in any order. Returns how many came.
    int (*call)(const void *data, size_t len, bench_count_t *answers);
} bench_transport_t;

extern const bench_transport_t g_bench_zeb;
extern const bench_transport_t g_bench_zeb_nothread; // the server's dispatchers run on the receive thread
extern const bench_transport_t g_bench_zeb_crowd;    // both ends know BENCH_CROWD_NUM further peers
extern const bench_transport_t g_bench_raw;
extern const bench_transport_t g_bench_threads; // raw over threads like the library's
extern const bench_transport_t g_bench_threads_nothread;
extern const bench_transport_t g_bench_zmq;
extern const bench_transport_t g_bench_nng;

// How many of a client's servers share a process.
static inline int bench_servers_per_process(const bench_conf_t *conf)
{
    return conf->server_num > BENCH_PROCESS_NUM ? conf->server_num / BENCH_PROCESS_NUM : 1;
}

// A server got a payload. True when it is a trip: `answer` is then filled.
bool bench_received(int server, const void *data, size_t len, bench_count_t *answer);

[[noreturn]] void bench_fail(const char *what); // with the reason of errno

#endif
