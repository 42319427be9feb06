// What every unit test runs on: a process with a node id, a configuration file and the in-process TIPC, a time limit,
// and a check that no descriptor leaks. The library starts once per process, so ctest runs each test in
// a process of its own.
#ifndef TESTS_SUPPORT_LIB_TEST_H
#define TESTS_SUPPORT_LIB_TEST_H

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zeb/zeb.h>

#include "fake_tipc.h"
#include "fault.h"
#include "wire.h"

constexpr uint32_t NODE = 7;          // this node
constexpr uint32_t APP = 100;         // the application under test
constexpr uint32_t PEER = 200;        // the one it talks to
constexpr uint32_t PEER_NODE = 9;     // where that runs
constexpr uint32_t PEER_PID = 0xABCD; // identity of the peer's process
constexpr uint32_t PEER_SEQ = 5000;   // sequence of the peer's synchronisation

typedef std::vector<std::string> lines_t;

// What a peer says of itself in the messages of its handshake; by default what peer_online() takes it for.
typedef struct peer_s {
    uint32_t node = PEER_NODE;
    uint32_t app = PEER;
    uint32_t my_app = APP; // whom it talks to
    uint8_t ver = 2;
    uint32_t id = PEER_PID;
    bool server = true;
} peer_t;

peer_t other_process(uint32_t id); // the same peer, as another process
peer_t older_peer();               // the same peer, of the older version

class lib_test : public ::testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    void write_conf(const std::string &text); // /etc/zeb.conf as the library sees it
    void no_conf();
    void write_node(const std::string &text); // the node-address file
    void no_node();

    // Registers `app` without a thread and as the peer of PEER; its dispatchers are `versions`.
    void start_app(uint32_t app = APP, const std::vector<uint32_t> &versions = {1});

    int sd(uint32_t app = APP); // its socket

    // Hands `app` one datagram as the receive thread would.
    void receive(const wire::bytes_t &datagram, uint32_t app = APP);
    void receive_item(const fake_tipc::item_t &item, uint32_t app = APP);
    static void read_once(uint32_t app = APP); // what is queued for it

    // One of our messages comes back to `app` with the kernel's `code`; what is logged of it at the levels of `mask`.
    lines_t returned(uint32_t mask, uint32_t code, const wire::bytes_t &message, uint32_t app = APP);

    // A timer of that type expires, as the topology service reports it.
    static void timer_expires(uint32_t type, uint32_t seq);

    // The peer's side of the handshake, from its publication to online.
    void peer_published(uint32_t node = PEER_NODE, uint32_t peer = PEER);
    static void peer_published_everywhere(uint32_t peer = PEER); // on all nodes in one range
    void peer_withdrawn(uint32_t node = PEER_NODE, uint32_t peer = PEER);
    void peer_syncs(uint32_t seq = PEER_SEQ, uint32_t node = PEER_NODE, uint32_t peer = PEER, uint32_t app = APP);
    void peer_syncs(uint32_t seq, const peer_t &peer, uint32_t resume = 0);
    void peer_acks(uint32_t seq, uint32_t pseq,
                   const peer_t &peer = {}); // ours of `seq`; the older version by one form
    void peer_online(uint32_t node = PEER_NODE, bool server = true, uint32_t peer = PEER, uint32_t app = APP);

    std::string dir() const
    {
        return dir_;
    }

  private:
    std::string dir_;
    std::vector<std::string> fds_;
};

// What `run` logs at the levels of `mask`, without the prefix but for the level: "3 ZEB …".
lines_t logged(uint32_t mask, const std::function<void()> &run);

constexpr uint32_t V = 1; // masks of the levels
constexpr uint32_t I = 2;
constexpr uint32_t W = 4;
constexpr uint32_t E = 8;

// What the application's callbacks saw.
struct seen_t {
    std::vector<zeb_event_t> events;
    std::vector<zeb_msg_hdr_t> headers;
    std::vector<std::string> bodies;
};
seen_t take_seen();
void *see_event(zeb_event_t event);
void *see_msg(zeb_msg_t *msg);

// A table of one dispatcher, of version 1, and one of none.
extern const zeb_msg_dispatcher_t ONE_DISPATCHER[2];
extern const zeb_msg_dispatcher_t NO_DISPATCHER[1];

// Registers `app` with a dispatcher and without a thread, and no peer.
int add_app(uint32_t app);

// Returns when `done` gives true; the test's time limit ends it otherwise.
void wait_until(const std::function<bool()> &done);

// Waits until `num` requests were written since the last look; the sequence number of the last.
uint32_t wait_requests(size_t num);

// A header from the peer to APP, and one of ours to the peer.
wire::header_t from_peer(uint8_t flag = 0, uint32_t node = PEER_NODE, uint32_t peer = PEER, uint32_t app = APP);
wire::header_t to_peer(uint8_t flag = 0, uint32_t node = PEER_NODE, uint32_t peer = PEER, uint32_t app = APP);

// A message of ours as the kernel gives it back.
fake_tipc::item_t returned_item(const wire::bytes_t &message, uint32_t code = TIPC_ERR_NO_PORT);

// The value at place `index` of the first element of a sent handshake body.
uint32_t sync_word(const wire::bytes_t &message, size_t index);

// The sequence of the first synchronisation that `app` has sent since the last look, 0 when there is none.
uint32_t take_sync_seq(uint32_t app = APP);

// The seven words of what was written to the topology connection.
std::vector<uint32_t> subscription_words(const wire::bytes_t &subscription);

// What was started there since the last look, each with its kind of timer, its number and its time in milliseconds.
typedef struct started_s {
    uint32_t type;
    uint32_t seq;
    uint32_t ms;
} started_t;
std::vector<started_t> take_timers();
std::vector<started_t> take_timers(uint32_t type); // of that kind alone

std::string buffer_text();                                            // the print buffer
std::string listing(void (*print)(uint32_t app), uint32_t app = APP); // what `print` puts there

// The lines among `lines` that begin with one of `starts`, in order, each cut to that.
lines_t pick(const lines_t &lines, const lines_t &starts);

#endif
