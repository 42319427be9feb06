// What a process does once: its threads wake when it runs, its sockets may have any descriptor, its numbers begin
// somewhere else than those of the run before.
#include "internals.h"
#include "lib_test.h"

#include <fcntl.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

static const zeb_msg_dispatcher_t s_table[] = {{1, see_msg}, {0, nullptr}};

class zeb_start : public lib_test
{
};

TEST_F(zeb_start, running_wakes_every_thread_that_waits_for_it)
{
    ASSERT_EQ(zeb_register(APP, "test", s_table, see_event), 0);
    const pthread_cond_t *cond = internals::running_cond();
    while (fault::waits(cond) < 2) // the receive thread and the application's
        (void)sched_yield();
    EXPECT_EQ(fault::broadcasts(cond), 0);
    zeb_run();
    EXPECT_EQ(fault::broadcasts(cond), 1);
    EXPECT_EQ(fault::signals(cond), 0) << "a signal wakes one of them";
    while (fake_tipc::sockets()[sd()].bound.empty())
        (void)sched_yield();
}

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
    ASSERT_EQ(zeb_register_without_thread(APP + 1, "other", s_table, see_event), 0);
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
    ASSERT_EQ(zeb_register_without_thread(APP + 1, "other", s_table, see_event), 0);
    (void)close(0);
    start_app();
    ASSERT_EQ(sd(), 0);
    zeb_run();
    fake_tipc::queue_data(0, wire::message(from_peer(0, 5, 1), {1}));
    fake_tipc::wait_read(0);
    while (take_seen().headers.empty())
        (void)sched_yield();
    EXPECT_EQ(fake_tipc::sockets()[0].bound.size(), 1u);
}

TEST_F(zeb_start_low, a_topology_connection_on_descriptor_0_is_used)
{
    (void)close(0);
    start_app();
    ASSERT_EQ(fake_tipc::topology_sd(), 0);
    zeb_run();
    while (fake_tipc::sockets()[sd()].bound.empty())
        (void)sched_yield();
    fake_tipc::queue_event(fake_tipc::range_event(TIPC_PUBLISHED, PEER << 16 | PEER_NODE, PEER << 16 | PEER_NODE));
    fake_tipc::wait_read(0);
    while (fake_tipc::take_sent().empty())
        (void)sched_yield();
    EXPECT_FALSE(fake_tipc::take_subscriptions().empty());
}

TEST_F(zeb_start_low, a_descriptor_0_that_cannot_be_used_is_closed)
{
    ASSERT_EQ(zeb_register_without_thread(APP + 1, "other", s_table, see_event), 0);
    (void)close(0);
    fault::fail_next("pthread_create", EAGAIN);
    EXPECT_EQ(zeb_register(APP, "test", s_table, see_event), -EAGAIN);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
}

// The number of the first synchronisation of a process that starts at `now`.
static uint32_t first_number(time_t now, const std::function<uint32_t()> &run)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t pid = fork();
    if (pid == 0) {
        (void)alarm(30);
        fault::hold_time(now);
        uint32_t number = run();
        _exit(write(ends[1], &number, sizeof(number)) == sizeof(number) ? 0 : 1);
    }
    uint32_t number = 0;
    (void)close(ends[1]);
    EXPECT_EQ(read(ends[0], &number, sizeof(number)), (ssize_t)sizeof(number));
    (void)close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    return number;
}

TEST_F(zeb_start, processes_that_start_at_different_times_begin_with_different_numbers)
{
    std::set<uint32_t> numbers;
    for (time_t now : {1700000000, 1700000001, 1700003600, 1800000000}) {
        numbers.insert(first_number(now, [&] {
            start_app();
            peer_published();
            return sync_word(fake_tipc::take_sent().at(0).bytes, 0);
        }));
    }
    EXPECT_EQ(numbers.size(), 4u);
}
