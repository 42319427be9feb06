// TIPC inside the test process: sockets of AF_TIPC are descriptors that a test feeds and looks at. It does only what
// unit tests need; the lab shows what the kernel does. Programs that count instructions use interpose_bare.h instead.
#ifndef TESTS_SUPPORT_FAKE_TIPC_H
#define TESTS_SUPPORT_FAKE_TIPC_H

#include <cstdint>
#include <map>
#include <vector>

#include <linux/tipc.h>

namespace fake_tipc
{
typedef std::vector<uint8_t> bytes_t;

struct sent_t { // one sendto
    int sd;
    struct sockaddr_tipc dst;
    int flags;
    bytes_t bytes;
};

struct anc_t { // one ancillary item
    int type;
    bytes_t bytes;
    size_t len = 0; // 0: the honest one
};

struct item_t { // what one read gives
    bytes_t data;
    std::vector<anc_t> anc;
};

struct option_t {
    int level;
    int name;
    int value;
};

struct socket_t {
    int type;
    bool connected;
    std::vector<option_t> options;
    std::vector<struct sockaddr_tipc> bound;
};

std::vector<sent_t> take_sent();           // in order; forgets them
std::vector<bytes_t> take_subscriptions(); // what was written to topology connections
int topology_sd();                         // the open topology connection, or -1
std::map<int, socket_t> sockets();         // the open ones

void queue_item(int sd, const item_t &item);
void queue_data(int sd, const bytes_t &data);
void queue_event(const struct tipc_event &event);
void lose_topology();   // the next read of the connection gives 0 bytes
void wait_read(int sd); // until everything queued was read

// A timer expiry and a published or withdrawn range as the topology service reports them.
struct tipc_event timer_event(uint32_t type, uint32_t seq);
struct tipc_event range_event(uint32_t event, uint32_t lower, uint32_t upper);
} // namespace fake_tipc

#endif
