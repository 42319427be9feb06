// The sequence number and the send primitive.
#include "lib_test.h"

#include "zeb_mng_msg.h"

#include <set>
#include <sys/wait.h>
#include <unistd.h>

class zeb_mng_msg : public lib_test
{
  protected:
    zeb_msg_t *msg_ = zeb_msg_alloc(4, 1, 0);
    ~zeb_mng_msg() override
    {
        free(msg_);
    }
};

TEST_F(zeb_mng_msg, the_sequence_number_skips_0)
{
    EXPECT_EQ(zeb_get_seq(), 1u) << "before the library starts it counts from 0";
    uint32_t seq = 1;
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(zeb_get_seq(), ++seq);
}

TEST_F(zeb_mng_msg, the_sequence_number_is_seeded_and_goes_on_from_there)
{
    zeb_init_seq();
    uint32_t first = zeb_get_seq();
    EXPECT_EQ(zeb_get_seq(), first + 1);
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

TEST_F(zeb_mng_msg, processes_that_start_at_different_times_begin_with_different_numbers)
{
    std::set<uint32_t> numbers;
    for (time_t now : {1700000000, 1700000001, 1700003600, 1800000000}) {
        numbers.insert(first_number(now, [&] {
            start_app();
            peer_published();
            return take_sync_seq();
        }));
    }
    EXPECT_EQ(numbers.size(), 4u);
}

TEST_F(zeb_mng_msg, a_send_from_an_application_without_socket_is_refused_untouched)
{
    zeb_msg_hdr_t before = msg_->hdr;
    EXPECT_EQ(logged(15,
                     [&] {
                         EXPECT_EQ(zeb_tipc_sendto(APP, msg_, {PEER, PEER_NODE}, 0), -EINVAL);
                     }),
              lines_t({"3 ZEB app 100 socket descriptor invalid."}));
    EXPECT_EQ(memcmp(&before, &msg_->hdr, sizeof(before)), 0);
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_mng_msg, a_message_goes_to_the_name_of_its_instance)
{
    start_app();
    zeb_encode_msg_hdr(msg_, 0, APP, NODE, PEER, 65535, 0, 0);
    EXPECT_EQ(logged(V,
                     [&] {
                         EXPECT_EQ(zeb_tipc_sendto(APP, msg_, {PEER, 65535}, 0), 0);
                     }),
              lines_t({"0 ZEB app 100 sent to 200/65535, msg len 40."}));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].sd, sd());
    EXPECT_EQ(sent[0].flags, MSG_NOSIGNAL);
    EXPECT_EQ(sent[0].dst.family, AF_TIPC);
    EXPECT_EQ(sent[0].dst.addrtype, 2);
    EXPECT_EQ(sent[0].dst.scope, 2);
    EXPECT_EQ(sent[0].dst.addr.name.name.type, wire::NAME_TYPE);
    EXPECT_EQ(sent[0].dst.addr.name.name.instance, 200u << 16 | 0xFFFF);
    EXPECT_EQ(sent[0].dst.addr.name.domain, 0u);
    EXPECT_EQ(sent[0].bytes.size(), wire::HEADER_LEN + 4);
    EXPECT_EQ(wire::header_of(sent[0].bytes).src_app, APP);
    EXPECT_EQ(msg_->hdr.len, wire::HEADER_LEN + 4) << "host order again";
}

TEST_F(zeb_mng_msg, only_the_nowait_flag_makes_the_write_non_blocking)
{
    start_app();
    EXPECT_EQ(zeb_tipc_sendto(APP, msg_, {PEER, 1}, ZEB_SEND_NOWAIT), 0);
    EXPECT_EQ(zeb_tipc_sendto(APP, msg_, {PEER, 1}, ~ZEB_SEND_NOWAIT), 0);
    auto sent = fake_tipc::take_sent();
    EXPECT_EQ(sent[0].flags, MSG_NOSIGNAL | MSG_DONTWAIT);
    EXPECT_EQ(sent[1].flags, MSG_NOSIGNAL);
}

TEST_F(zeb_mng_msg, interrupted_and_memoryless_writes_are_repeated_without_limit)
{
    start_app();
    fault::reset();
    fault::fail_next("sendto", ENOBUFS, 500);
    fault::fail_next("sendto", ENOMEM, 500);
    fault::fail_next("sendto", EINTR, 500);
    lines_t lines = logged(W | E, [&] { EXPECT_EQ(zeb_tipc_sendto(APP, msg_, {PEER, 1}, 0), 0); });
    EXPECT_EQ(fault::count("sendto"), 1501);
    ASSERT_EQ(lines.size(), 1500u);
    EXPECT_EQ(lines[0], "3 ZEB sendto failed: No buffer space available.");
    EXPECT_EQ(lines[500], "3 ZEB sendto failed: Cannot allocate memory.");
    EXPECT_EQ(lines[1000], "3 ZEB sendto failed: Interrupted system call.");
}

TEST_F(zeb_mng_msg, a_full_socket_fails_after_one_attempt)
{
    start_app();
    fault::reset();
    fault::fail_next("sendto", EAGAIN);
    EXPECT_EQ(logged(W | E,
                     [&] {
                         EXPECT_EQ(zeb_tipc_sendto(APP, msg_, {PEER, 3}, ZEB_SEND_NOWAIT), -1);
                     }),
              lines_t({"3 ZEB sendto failed: Resource temporarily unavailable.",
                       "2 ZEB app 100 sent to 200/3 failed: Resource temporarily unavailable, msg len 40, sent -1."}));
    EXPECT_EQ(fault::count("sendto"), 1);
    EXPECT_EQ(msg_->hdr.len, wire::HEADER_LEN + 4);
}

TEST_F(zeb_mng_msg, a_short_write_fails_after_one_attempt)
{
    start_app();
    fault::reset();
    fault::fail_next("sendto", fault::SHORT);
    lines_t lines = logged(W | E, [&] { EXPECT_EQ(zeb_tipc_sendto(APP, msg_, {PEER, 3}, 0), -1); });
    EXPECT_EQ(fault::count("sendto"), 1);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "2 ZEB app 100 sent to 200/3 failed: Input/output error, msg len 40, sent 39.");
    EXPECT_EQ(msg_->hdr.len, wire::HEADER_LEN + 4);
}
