// The process that the fuzz targets feed: four local applications of the library, and the system calls below it, in
// one thread. It is made once; reset() restores its first state between two inputs.
#ifndef TESTS_FUZZ_WORLD_H
#define TESTS_FUZZ_WORLD_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <linux/tipc.h>

#include <zeb/zeb.h>

namespace world
{
constexpr uint32_t NODE = 7;
constexpr uint32_t SERVER = 100; // without a proxy thread: its callbacks run while a datagram is received
constexpr uint32_t CLIENT = 101; // with a proxy thread, which runs in run_proxy()
constexpr uint32_t DAEMON = 1;   // the management daemon, without a thread
constexpr uint32_t POLLED = 102; // polled, and with every join and quit of the peers that it has named
constexpr uint32_t PEER = 200;
constexpr uint32_t PEER2 = 16384;

typedef std::vector<uint8_t> bytes_t;

struct sent_t { // one datagram that the library sent
    uint32_t app;
    bytes_t bytes;
};

struct timer_t_ { // one that is pending on the topology connection
    uint32_t type;
    uint32_t seq;
};

void start(); // registers the applications and runs; further calls do nothing
void reset();
void stop_and_start(); // the library, between two calls of it

// Stops with a message when an invariant of the library is broken.
void check();

// What the system gives to the library next.
void receive(uint32_t app, const uint8_t *data, size_t size);        // one datagram
void receive_anc(uint32_t app, const uint8_t *control, size_t size); // an empty one with these control bytes
void event(const struct tipc_event &event);                          // a topology event
void run_proxy();                                                    // CLIENT's thread, until its queue is empty
void serve_file(const char *path, const uint8_t *data, size_t size); // null data: no such file
void fail_sends(int num, int err);                                   // the next datagrams

// Runs while the library waits on a condition. False: nothing more will come, and the wait times out.
extern std::function<bool()> g_while_waiting;

std::vector<sent_t> &sent();     // those that the target has not taken
std::vector<timer_t_> &timers(); // in order of their start
void lose_topology();            // the connection and its timers; the library opens another at once
} // namespace world

#endif
