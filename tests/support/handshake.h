// What the tables of the handshake share: the peer's messages, and what shows of a handshake outside: bits and lists by
// the library's listing, datagrams, timers, and what the applications see.
#ifndef TESTS_SUPPORT_HANDSHAKE_H
#define TESTS_SUPPORT_HANDSHAKE_H

#include <map>
#include <utility>

#include "lib_test.h"

typedef std::pair<uint32_t, uint32_t> pair_t; // a local application and a remote one on PEER_NODE

typedef struct word_s { // what happened, and to whom
    pair_t pair;
    std::string text;
} word_t;
typedef std::vector<word_t> words_t;

class handshake_test : public lib_test
{
  protected:
    // The peer's messages.
    void sync(pair_t pair, uint32_t seq, uint32_t resume = 0, uint8_t ver = 2);
    void ack(pair_t pair, uint32_t seq, uint32_t pseq, uint32_t id = PEER_PID, uint32_t server = 1);
    void ack_old(pair_t pair);
    void message(pair_t pair);

    static void retry_timer();
    static void resume_timer(); // the first that is pending, or one of which nothing is left

    // The sequence of our last synchronisation, as far as sent() has looked.
    uint32_t my_seq(pair_t pair)
    {
        return my_seq_[pair];
    }

    // What was sent since the last look: "sync", "resume", "ack" with 0 for our sequence, "ack+pseq" with the last.
    words_t sent();

    static words_t seen();       // "join", "quit", "message" since the last look
    static std::string timers(); // started since the last look

    // "IAOS" of an instance: it has synchronised, has acknowledged, is online, is a server.
    static std::string bits(uint32_t peer);

    // Synchronisations that are pending, and instances that are to be resumed, in the order of their lists.
    static std::vector<pair_t> pending();
    static std::string phase(pair_t pair); // by the core's own word
    static int retry_num();
    static int resume_num();

    static std::string join(const lines_t &words);

  private:
    std::map<pair_t, uint32_t> my_seq_;
};

// One cell of a state table.
struct cell_t {
    const char *state;
    const char *event;
    const char *bits;
    const char *lists;  // pending, to be retried, to be resumed
    const char *sent;   // "ack+pseq" carries the sequence of our last synchronisation, "ack" carries 0
    const char *timers; // started
    const char *seen;   // by the applications
};

void PrintTo(const cell_t &cell, std::ostream *out);

// "<state> and <event>" as a name of a test.
std::string cell_name(const testing::TestParamInfo<cell_t> &cell);

#endif
