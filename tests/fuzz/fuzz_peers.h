// Peers of the world in every state of the handshake, and the numbers that their messages need.
#ifndef TESTS_FUZZ_PEERS_H
#define TESTS_FUZZ_PEERS_H

#include "fuzz_world.h"
#include "wire.h"

namespace peers
{
// The state of PEER on each node, as the handshake's table names them.
enum state_t : uint32_t {
    IDLE = 9,
    WAITING = 10,
    HALF = 11,
    ACKED = 12,
    UNEQUAL = 13,
    ONLINE_SERVER = 14,
    ONLINE_CLIENT = 15,
    LAST = 15,
};
constexpr uint32_t PID = 0xABCD;
constexpr uint32_t SEQ = 5000; // of each peer's last synchronisation

void set_up(); // brings each node's PEER into its state, with SERVER

uint32_t pending_seq(uint32_t app, uint32_t peer, uint32_t node); // of our pending synchronisation; 0: there is none
uint32_t known_seq(uint32_t app, uint32_t peer, uint32_t node);   // of the peer's last synchronisation
} // namespace peers

#endif
