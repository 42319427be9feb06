// The interface between the benchmark program (bench.cpp), which is the same for all transports, and a transport. Every
// payload starts with a header, by which the receiver counts messages and finds those that are lost, duplicated or out
// of order.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <cstddef>
#include <cstdint>

constexpr int BENCH_SENDER_NUM = 4;  // clients of one server
constexpr int BENCH_SERVER_NUM = 64; // servers of one client
constexpr int BENCH_PROCESS_NUM = 4; // processes that hold the servers of one client, at most
constexpr int BENCH_CROWD_NUM = 1000;
constexpr size_t BENCH_SIZE_MAX = 61440;
constexpr int BENCH_WINDOW = 1024; // unacknowledged messages towards one server
constexpr int BENCH_ACK_BATCH = 512;

// At the start of every payload.
typedef struct bench_msg_s {
    uint32_t kind; // bench_kind_t
    uint32_t sender;
    uint64_t seq; // one-way: counts this sender's messages from 1. Trip: 0 when no counts are asked for
} bench_msg_t;

typedef enum bench_kind_e : uint32_t {
    BENCH_DATA = 1, // one-way
    BENCH_TRIP = 2, // answered with bench_count_t
    BENCH_ACK = 3,  // acknowledges BENCH_ACK_BATCH messages, in transports without a window of their own
} bench_kind_t;

// A server's answer to a trip: counts of the sender's messages, and the use of resources by the server's process.
typedef struct bench_count_s {
    uint32_t kind;
    uint32_t disordered; // one-way messages whose number was not the next
    uint64_t received;
    uint64_t cpu_us;   // user and system time of the process
    uint64_t switches; // context switches of all its threads
    uint64_t rss_kb;
} bench_count_t;

// The configuration of one process.
typedef struct bench_conf_s {
    int index;      // of the client or of the server process
    int server_num; // in a server process: servers that it holds; in a client: servers that it sends to
    int work;       // passes over the payload for each one-way message
} bench_conf_t;

typedef struct bench_transport_s {
    const char *name;
    void (*serve)(const bench_conf_t *conf);    // starts the servers, which pass messages to bench_received
    void (*open)(const bench_conf_t *conf);     // starts the client; returns once it reaches all servers
    void (*send)(const void *data, size_t len); // sends a one-way message to every server
    // Makes a round trip to every server. `answers` has one for each server, in any order. The number of answers.
    int (*call)(const void *data, size_t len, bench_count_t *answers);
} bench_transport_t;

extern const bench_transport_t g_bench_zeb;
extern const bench_transport_t g_bench_zeb_nothread; // the server's dispatchers run on the receive thread
extern const bench_transport_t g_bench_zeb_crowd;    // both ends know BENCH_CROWD_NUM further peers
extern const bench_transport_t g_bench_raw;
extern const bench_transport_t g_bench_threads; // raw TIPC with threads like the library's
extern const bench_transport_t g_bench_threads_nothread;
extern const bench_transport_t g_bench_zmq;
extern const bench_transport_t g_bench_nng;

// How many of a client's servers share a process.
static inline int bench_servers_per_process(const bench_conf_t *conf)
{
    return conf->server_num > BENCH_PROCESS_NUM ? conf->server_num / BENCH_PROCESS_NUM : 1;
}

// A transport calls it for each payload that a server receives. True for a trip: the transport then sends `answer`.
bool bench_received(int server, const void *data, size_t len, bench_count_t *answer);

[[noreturn]] void bench_fail(const char *what); // prints `what` and the text of errno, and ends the process

#endif
