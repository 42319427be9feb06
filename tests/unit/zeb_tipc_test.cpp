// Sockets, subscriptions and timers as TIPC is asked for them.
#include <sched.h>

#include "handshake_core.h"
#include "lib_test.h"

#include "zeb_dbg.h"
#include "zeb_slot.h"
#include "zeb_tipc.h"

class zeb_tipc : public lib_test
{
  protected:
    void start()
    {
        start_app();
        (void)fake_tipc::take_subscriptions();
    }
};

TEST_F(zeb_tipc, an_application_socket_returns_what_cannot_be_delivered)
{
    write_conf("[APP_INFO_TBL]\n100 , a , 3 , x\n");
    ASSERT_EQ(add_app(APP), 0);
    auto socket = fake_tipc::sockets()[sd()];
    EXPECT_EQ(socket.type, SOCK_RDM);
    ASSERT_EQ(socket.options.size(), 3u);
    const int names[] = {127, 128, 129};
    const int values[] = {3, 0, 0};
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(socket.options[(size_t)i].level, 271);
        EXPECT_EQ(socket.options[(size_t)i].name, names[i]);
        EXPECT_EQ(socket.options[(size_t)i].value, values[i]);
    }
}

TEST_F(zeb_tipc, a_bind_without_memory_yields_and_is_repeated)
{
    ASSERT_EQ(add_app(APP), 0);
    fault::reset();
    fault::fail_next("bind", ENOMEM, 3);
    int fd = sd();
    lines_t lines = logged(E, [&] { EXPECT_EQ(zeb_bind_app_socket(APP, fd), 0); });
    EXPECT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "3 ZEB app 100 bind socket " + std::to_string(fd) + " failed: Cannot allocate memory.");
    EXPECT_EQ(fault::count("sched_yield"), 3);
    auto bound = fake_tipc::sockets()[fd].bound;
    ASSERT_EQ(bound.size(), 1u);
    EXPECT_EQ(bound[0].addr.name.name.type, wire::NAME_TYPE);
    EXPECT_EQ(bound[0].addr.name.name.instance, APP << 16 | NODE);
    EXPECT_EQ(bound[0].scope, 2);
    fault::fail_next("bind", EADDRINUSE);
    EXPECT_EQ(zeb_bind_app_socket(APP, fd), -1);
}

TEST_F(zeb_tipc, a_subscription_is_repeated_on_passing_errors_and_fails_on_others)
{
    start_app();
    fault::reset();
    fault::fail_next("send", EINTR, 50);
    fault::fail_next("send", ENOMEM, 50);
    fault::fail_next("send", ENOBUFS, 50);
    EXPECT_EQ(zeb_subscr_app_events(1, 2, 3), 0);
    EXPECT_EQ(fault::count("send"), 151);
    fault::fail_next("send", EPIPE, 2);
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_subscr_app_events(1, 2, 3), -1); }),
              lines_t({"3 ZEB send subscription msg failed: Broken pipe.", ","}));
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_unsubscr_app_events(1, 2), -1); }),
              lines_t({"3 ZEB send canceling subscription msg failed: Broken pipe.", ","}));
}

TEST_F(zeb_tipc, a_short_subscription_is_a_failure_or_sent_again_by_its_error_value)
{
    start_app();
    fault::fail_next("send", fault::SHORT);
    errno = EIO;
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_subscr_app_events(1, 2, 3), -1); }),
              lines_t({"3 ZEB send subscription msg failed: Input/output error.", ","}));
}

TEST_F(zeb_tipc, a_timer_is_a_subscription_that_nobody_answers)
{
    start();
    EXPECT_EQ(logged(V,
                     [] {
                         EXPECT_EQ(zeb_subscr_timer_event(60, {ZEB_TIMER_TYPE_RESUME, 77}), 0);
                     }),
              lines_t({"0 ZEB add timer event type 0, seq 77."}));
    EXPECT_EQ(subscription_words(fake_tipc::take_subscriptions().at(0)),
              std::vector<uint32_t>({1, 0, 0, 60000, 2, 0, 77}));
}

TEST_F(zeb_tipc, the_time_out_is_cut_to_32_bits)
{
    start();
    EXPECT_EQ(zeb_subscr_timer_event(4294968, {ZEB_TIMER_TYPE_MONITOR, 1}), 0);
    EXPECT_EQ(take_timers().at(0).ms, 704u);
}

TEST_F(zeb_tipc, a_start_is_repeated_on_passing_errors_and_fails_on_others)
{
    start();
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

TEST_F(zeb_tipc, a_short_start_is_a_failure)
{
    start();
    fault::fail_next("send", fault::SHORT);
    errno = EIO;
    EXPECT_EQ(logged(E,
                     [] {
                         EXPECT_EQ(zeb_subscr_timer_event(1, {ZEB_TIMER_TYPE_INST, 1}), -1);
                     }),
              lines_t({"3 ZEB send timer subscription msg failed: Input/output error.", ","}));
}
