// A process whose standard input is closed when it starts, and whose sockets therefore have descriptor 0. Cuts across
// the sources: each that keeps a descriptor must take 0 for one.
#include "lib_test.h"

#include <fcntl.h>
#include <unistd.h>

class zeb_start : public lib_test
{
};

// Closes the process's descriptor 0 for the next socket to take, and gives it back at the end.
class zeb_start_low : public zeb_start
{
  protected:
    void SetUp() override
    {
        zeb_start::SetUp();
        kept_ = fcntl(0, F_DUPFD_CLOEXEC, 100);
        ASSERT_NE(kept_, -1);
    }

    void TearDown() override
    {
        (void)dup2(kept_, 0);
        (void)close(kept_);
        zeb_start::TearDown();
    }

  private:
    int kept_ = -1;
};

TEST_F(zeb_start_low, an_application_socket_on_descriptor_0_sends_and_receives)
{
    ASSERT_EQ(zeb_register_without_thread(APP + 1, "other", ONE_DISPATCHER, see_event), 0);
    (void)close(0);
    start_app();
    ASSERT_EQ(sd(), 0);
    peer_online();
    EXPECT_EQ(take_seen().events.size(), 1u);
    zeb_msg_t *msg = zeb_msg_alloc(1, 1, 0);
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg, 0), 0);
    EXPECT_EQ(zeb_send(APP, PEER, msg, 0), 0);
    free(msg);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].sd, 0);
    receive(wire::message(from_peer(), {1}));
    EXPECT_EQ(take_seen().headers.size(), 1u);
}

TEST_F(zeb_start_low, an_application_socket_on_descriptor_0_is_bound_and_polled)
{
    ASSERT_EQ(zeb_register_without_thread(APP + 1, "other", ONE_DISPATCHER, see_event), 0);
    (void)close(0);
    start_app();
    ASSERT_EQ(sd(), 0);
    zeb_run();
    fake_tipc::queue_data(0, wire::message(from_peer(0, 5, 1), {1}));
    fake_tipc::wait_read(0);
    wait_until([&] { return !take_seen().headers.empty(); });
    EXPECT_EQ(fake_tipc::sockets()[0].bound.size(), 1u);
}

TEST_F(zeb_start_low, a_topology_connection_on_descriptor_0_is_used)
{
    (void)close(0);
    start_app();
    ASSERT_EQ(fake_tipc::topology_sd(), 0);
    zeb_run();
    wait_until([&] { return !fake_tipc::sockets()[sd()].bound.empty(); });
    fake_tipc::queue_event(fake_tipc::range_event(TIPC_PUBLISHED, PEER << 16 | PEER_NODE, PEER << 16 | PEER_NODE));
    fake_tipc::wait_read(0);
    wait_until([&] { return !fake_tipc::take_sent().empty(); });
    EXPECT_FALSE(fake_tipc::take_subscriptions().empty());
}

TEST_F(zeb_start_low, a_descriptor_0_that_cannot_be_used_is_closed)
{
    ASSERT_EQ(zeb_register_without_thread(APP + 1, "other", ONE_DISPATCHER, see_event), 0);
    (void)close(0);
    fault::fail_next("pthread_create", EAGAIN);
    EXPECT_EQ(zeb_register(APP, "test", ONE_DISPATCHER, see_event), -EAGAIN);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
}
