// Timers over the topology service, and the monitor's dump.
#include "handshake_core.h"
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_slot.h"

class zeb_mng_timer : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        (void)fake_tipc::take_subscriptions();
    }

    static std::vector<uint32_t> words(const wire::bytes_t &bytes)
    {
        std::vector<uint32_t> out(7);
        EXPECT_EQ(bytes.size(), 28u);
        memcpy(out.data(), bytes.data(), 28);
        return out;
    }
};

typedef std::vector<uint32_t> words_t;

TEST_F(zeb_mng_timer, a_timer_is_a_subscription_that_nobody_answers)
{
    EXPECT_EQ(logged(V,
                     [] {
                         EXPECT_EQ(zeb_subscr_timer_event(60, {ZEB_TIMER_TYPE_RESUME, 77}), 0);
                     }),
              lines_t({"0 ZEB add timer event type 0, seq 77."}));
    EXPECT_EQ(words(fake_tipc::take_subscriptions().at(0)), words_t({1, 0, 0, 60000, 2, 0, 77}));
}

TEST_F(zeb_mng_timer, the_time_out_is_cut_to_32_bits)
{
    EXPECT_EQ(zeb_subscr_timer_event(4294968, {ZEB_TIMER_TYPE_MONITOR, 1}), 0);
    EXPECT_EQ(words(fake_tipc::take_subscriptions().at(0))[3], 704u);
}

TEST_F(zeb_mng_timer, starting_a_retry_timer_while_one_is_pending_sends_nothing)
{
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0);
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0);
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 1u);
}

TEST_F(zeb_mng_timer, a_start_is_repeated_on_passing_errors_and_fails_on_others)
{
    fault::reset();
    fault::fail_next("send", EINTR, 20);
    fault::fail_next("send", ENOMEM, 20);
    fault::fail_next("send", ENOBUFS, 20);
    EXPECT_EQ(zeb_subscr_timer_event(1, {ZEB_TIMER_TYPE_INST, 1}), 0);
    EXPECT_EQ(fault::count("send"), 61);
    fault::fail_next("send", EPIPE);
    EXPECT_EQ(logged(E,
                     [] {
                         EXPECT_EQ(zeb_subscr_timer_event(1, {ZEB_TIMER_TYPE_INST, 1}), -1);
                     }),
              lines_t({"3 ZEB send timer subscription msg failed: Broken pipe.", ","}));
}

TEST_F(zeb_mng_timer, an_unknown_timer_is_ignored)
{
    EXPECT_EQ(logged(15,
                     [] {
                         zeb_process_tipc_timer_event({4, 9});
                     }),
              lines_t({"0 ZEB perceived timer event of type 4 seq 9."}));
}

TEST_F(zeb_mng_timer, the_monitor_follows_1800_3600_7200_14400_seconds)
{
    uint32_t seq = 1;
    for (uint32_t seconds : {3600u, 7200u, 14400u}) {
        zeb_process_tipc_subscr_event(fake_tipc::timer_event(ZEB_TIMER_TYPE_MONITOR, seq));
        words_t timer = words(fake_tipc::take_subscriptions().at(0));
        EXPECT_EQ(timer[3], seconds * 1000);
        EXPECT_EQ(timer[5], (uint32_t)ZEB_TIMER_TYPE_MONITOR);
        EXPECT_EQ(timer[6], seq * 2);
        seq = timer[6];
    }
}

TEST_F(zeb_mng_timer, a_monitor_sequence_of_0_counts_as_1)
{
    zeb_process_monitor_timer_event(0);
    EXPECT_EQ(words(fake_tipc::take_subscriptions().at(0))[6], 2u);
    zeb_process_monitor_timer_event(0x80000000);
    EXPECT_EQ(words(fake_tipc::take_subscriptions().at(0))[6], 0u) << "it wraps";
}

TEST_F(zeb_mng_timer, the_monitor_prints_the_time_and_dumps_the_first_application)
{
    lines_t lines = logged(V, [] { zeb_process_monitor_timer_event(1); });
    EXPECT_THAT(lines[0], testing::StartsWith("0 ZEB monitor timer: "));
    std::string text = buffer_text();
    size_t at = 0;
    for (const char *part : {"Application 100/7 process's ZEB library information:\n",
                             "\n\nApplication 100/7 [test] information:\n", "\n\nApplication 100 overall statistics:\n",
                             "\n\nApplication 100 mng msg statistics:\n", "\n\nApplication 100 RPC waits:\n"}) {
        size_t found = text.find(part, at);
        EXPECT_NE(found, std::string::npos) << part << text;
        at = found;
    }
}

TEST_F(zeb_mng_timer, a_short_start_is_a_failure)
{
    fault::fail_next("send", fault::SHORT);
    errno = EIO;
    EXPECT_EQ(logged(E,
                     [] {
                         EXPECT_EQ(zeb_subscr_timer_event(1, {ZEB_TIMER_TYPE_INST, 1}), -1);
                     }),
              lines_t({"3 ZEB send timer subscription msg failed: Input/output error.", ","}));
}

TEST_F(zeb_mng_timer, a_retry_timer_whose_start_failed_is_not_started_again_on_the_same_connection)
{
    fault::fail_next("send", EPIPE);
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), -1);
    EXPECT_TRUE(g_zeb_handshake.timer_inst_retry_open);
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0) << "taken for pending";
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}

// Whether a retry timer can be started on the connection that follows.
static void expect_start_on_a_new_connection()
{
    zeb_topology_reopened();
    (void)fake_tipc::take_subscriptions();
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0);
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 1u);
}

TEST_F(zeb_mng_timer, a_retry_timer_whose_start_failed_is_started_on_a_new_connection)
{
    fault::fail_next("send", EPIPE);
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), -1);
    expect_start_on_a_new_connection();
}

TEST_F(zeb_mng_timer, a_retry_timer_lost_with_its_connection_can_be_started_again)
{
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), 0);
    expect_start_on_a_new_connection();
}

TEST_F(zeb_mng_timer, a_retry_timer_that_found_no_connection_can_be_started_on_the_next_one)
{
    int sd = g_zeb_mng.subscr_sd;
    g_zeb_mng.subscr_sd = -1;
    EXPECT_EQ(zeb_subscr_timer_event(2, {ZEB_TIMER_TYPE_INST_RETRY, 0}), -1);
    g_zeb_mng.subscr_sd = sd;
    expect_start_on_a_new_connection();
}

TEST_F(zeb_mng_timer, timers_of_the_other_types_are_started_side_by_side)
{
    for (uint32_t seq : {1u, 2u}) {
        EXPECT_EQ(zeb_subscr_timer_event(60, {ZEB_TIMER_TYPE_RESUME, seq}), 0);
        EXPECT_EQ(zeb_subscr_timer_event(1, {ZEB_TIMER_TYPE_INST, seq}), 0);
    }
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 4u);
}

TEST_F(zeb_mng_timer, a_resume_time_out_after_the_join_does_nothing)
{
    peer_syncs(); // arms the resume
    words_t resume;
    for (const wire::bytes_t &bytes : fake_tipc::take_subscriptions()) {
        if (words(bytes)[5] == (uint32_t)ZEB_TIMER_TYPE_RESUME)
            resume = words(bytes);
    }
    ASSERT_EQ(resume.size(), 7u);
    peer_online();
    (void)take_seen();
    EXPECT_EQ(logged(15, [&] { zeb_process_tipc_subscr_event(fake_tipc::timer_event(0, resume[6])); }),
              lines_t({"0 ZEB perceived timer event of type 0 seq " + std::to_string((int)resume[6]) + "."}));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_TRUE(take_seen().events.empty());
}

TEST_F(zeb_mng_timer, a_monitor_that_cannot_be_started_again_ends)
{
    fault::fail_next("send", EPIPE);
    EXPECT_THAT(logged(E, [] { zeb_process_monitor_timer_event(1); }),
                testing::Contains("3 ZEB send timer subscription msg failed: Broken pipe."));
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}
