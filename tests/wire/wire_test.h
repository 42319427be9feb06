// The library as a black box: it runs its own receive thread, and a test sees only what that writes to TIPC and feeds
// only what TIPC would deliver. Every record is put together from its bytes; no layout comes from the library or the
// kernel's headers.
#ifndef TESTS_WIRE_WIRE_TEST_H
#define TESTS_WIRE_WIRE_TEST_H

#include "lib_test.h"

// Every byte of an id differs from its neighbours, so that a swapped or cut one shows.
constexpr uint32_t MY_NODE = 0x1234;
constexpr uint32_t MY_APP = 0x4321;
constexpr uint32_t OTHER_APP = 0x1ABC;
constexpr uint32_t OTHER_NODE = 0xFEDC;

constexpr uint32_t NO_PORT = 2; // why a message comes back: nobody has the name any more

// A record that stays on the machine: words in its own byte order.
wire::bytes_t native(const std::vector<uint32_t> &words);

// A TIPC name as the system calls take it: 16 bytes.
wire::bytes_t tipc_name(int8_t scope, uint32_t type, uint32_t instance);
wire::bytes_t bytes_of(const struct sockaddr_tipc &addr);

// Whether a subscription is a timer of `type`, and the number of that timer, 4 bytes.
bool is_timer(const wire::bytes_t &subscription, uint32_t type);
wire::bytes_t timer_handle(const wire::bytes_t &subscription);

class wire_test : public lib_test
{
  protected:
    void SetUp() override;

    // Registers MY_APP with the dispatcher `versions`, makes OTHER_APP its peer and lets the library run.
    void run(const std::vector<uint32_t> &versions = {1});

    // Returns once everything that was fed before has been handled.
    void wait_handled();

    void feed(const wire::bytes_t &datagram);
    void feed_returned(uint32_t code, const wire::bytes_t &datagram);
    void publish();
    void withdraw();
    void expire(const wire::bytes_t &subscription);

    // A header from the other instance.
    static wire::header_t from_other(uint8_t flag = wire::SYNC, uint8_t ver = 2);

    // Datagrams and subscriptions since the last look.
    std::vector<wire::bytes_t> take_datagrams();
    std::vector<wire::bytes_t> take_subscriptions();

    // The one subscription among `subscriptions` that is a timer of `type`.
    static wire::bytes_t timer(const std::vector<wire::bytes_t> &subscriptions, uint32_t type);

    std::vector<zeb_event_t> events_; // that MY_APP has been notified of
    std::vector<std::string> bodies_; // delivered to MY_APP so far
    uint32_t pid_ = 0;                // of this process

  private:
    void collect();
    void feed_event(const wire::bytes_t &event);

    int marks_ = 0;
    bool mark_seen_ = false;
};

#endif
