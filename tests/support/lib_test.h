// What every unit test stands on: a process with a node id, a configuration file and the in-process TIPC, a time limit,
// and a check that no descriptor leaks. The library starts once per process and never stops, so ctest runs each test in
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

    // A timer of that type expires, as the topology service reports it.
    static void timer_expires(uint32_t type, uint32_t seq);

    // The peer's side of the handshake, from its publication to online.
    void peer_published(uint32_t node = PEER_NODE, uint32_t peer = PEER);
    static void peer_published_everywhere(uint32_t peer = PEER); // on all nodes in one range
    void peer_withdrawn(uint32_t node = PEER_NODE, uint32_t peer = PEER);
    void peer_syncs(uint32_t seq = PEER_SEQ, uint32_t node = PEER_NODE, uint32_t peer = PEER, uint32_t app = APP);
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

// A header from the peer to APP.
wire::header_t from_peer(uint8_t flag = 0, uint32_t node = PEER_NODE, uint32_t peer = PEER, uint32_t app = APP);

// The value at place `index` of the first element of a sent handshake body.
uint32_t sync_word(const wire::bytes_t &message, size_t index);

std::string buffer_text(); // the print buffer

#endif
