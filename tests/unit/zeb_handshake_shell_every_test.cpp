// Applications that get every join and quit of the peers that they have named: the option every_subscriber.
#include <cerrno>

#include <zeb/zeb_ext.h>

#include "by_number.h"
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_timer.h"

constexpr uint32_t SECOND = 101;
constexpr uint32_t THIRD = 102;
constexpr uint32_t STRANGER = 103; // has the option, and names nobody

static lines_t s_story; // what the applications saw, in order

static void *tell_event(zeb_event_t event)
{
    s_story.push_back(std::to_string(event.my_app) + (event.type == ZEB_APP_JOIN ? " join " : " quit ") +
                      std::to_string(event.event.app.app) + "/" + std::to_string(event.event.app.node));
    return nullptr;
}

static void on_event(void *, const zeb_event_t *event)
{
    (void)tell_event(*event);
}

static void on_message(void *context, zeb_msg_t *msg)
{
    (void)context;
    s_story.push_back(std::to_string(msg->hdr.dst_app) + " message");
    free(msg);
}

static lines_t take_story()
{
    lines_t story;
    story.swap(s_story);
    return story;
}

class zeb_every_subscriber : public lib_test
{
  protected:
    void TearDown() override
    {
        EXPECT_EQ(zeb_stop(), 0); // closes the descriptors of polled applications
        lib_test::TearDown();
    }

    // Without the option.
    static void start_one(uint32_t app)
    {
        ASSERT_EQ(zeb_register_without_thread(app, "one", ONE_DISPATCHER, tell_event), 0);
        ASSERT_EQ(zeb_comm_with(app, PEER), 0);
    }

    static void register_every(uint32_t app, zeb_app_mode_t mode = ZEB_APP_NO_THREAD)
    {
        static const zeb_app_dispatcher_t table[] = {{1, on_message, nullptr}, {0, nullptr, nullptr}};
        zeb_app_options_t options = {};
        options.size = sizeof(options);
        options.app = app;
        options.mode = mode;
        options.name = "every";
        options.dispatchers = table;
        options.event = on_event;
        options.every_subscriber = 1;
        ASSERT_EQ(zeb_register_app(&options), 0);
    }

    static void start_every(uint32_t app, zeb_app_mode_t mode = ZEB_APP_NO_THREAD)
    {
        register_every(app, mode);
        ASSERT_EQ(zeb_comm_with(app, PEER), 0);
    }

    // One call of each application waits for the peer. Returns whose calls its quit ends.
    std::vector<uint32_t> ended_by_quit(const std::vector<uint32_t> &callers)
    {
        std::vector<zeb_reply_msg_t> replies(callers.size());
        for (size_t i = 0; i < callers.size(); i++) {
            EXPECT_EQ(zeb_rpc_prepare_wait(callers[i], 55, &replies[i], 1), 0);
            EXPECT_EQ(zeb_rpc_set_wait(callers[i], 55, {PEER, PEER_NODE}), 0);
        }
        peer_withdrawn();
        std::vector<uint32_t> ended;
        for (size_t i = 0; i < callers.size(); i++) {
            if (replies[i].num == 1 && replies[i].msg[0]->hdr.rpc_stat == ZEB_SYSTEM_ERR)
                ended.push_back(callers[i]);
            zeb_rpc_del_wait(callers[i], 55);
            zeb_reply_free(&replies[i]);
        }
        return ended;
    }
};

TEST_F(zeb_every_subscriber, each_gets_each_join_and_quit_once_besides_the_one_that_is_chosen)
{
    start_one(APP);
    start_every(SECOND);
    start_every(THIRD);
    register_every(STRANGER);
    for (int round = 0; round < 3; round++) {
        peer_online(); // its handshake with APP alone is complete
        EXPECT_EQ(take_story(), lines_t({"100 join 200/9", "101 join 200/9", "102 join 200/9"}));
        peer_syncs(7, PEER_NODE, PEER, SECOND);
        EXPECT_EQ(take_story(), lines_t()) << "that of another pair is no news";
        peer_withdrawn();
        EXPECT_EQ(take_story(), lines_t({"100 quit 200/9", "101 quit 200/9", "102 quit 200/9"}));
        peer_withdrawn();
        EXPECT_EQ(take_story(), lines_t());
    }
}

TEST_F(zeb_every_subscriber, the_one_that_is_chosen_gets_it_once)
{
    start_every(APP);
    start_one(SECOND);
    peer_online();
    EXPECT_EQ(take_story(), lines_t({"100 join 200/9"}));
    peer_withdrawn();
    EXPECT_EQ(take_story(), lines_t({"100 quit 200/9"}));
}

TEST_F(zeb_every_subscriber, begun_anew_it_is_a_quit_and_a_join_for_each)
{
    start_one(APP);
    start_every(SECOND);
    peer_online();
    (void)take_story();
    peer_online(); // published again: another process
    EXPECT_EQ(take_story(), lines_t({"100 quit 200/9", "101 quit 200/9", "100 join 200/9", "101 join 200/9"}));
}

TEST_F(zeb_every_subscriber, a_quit_ends_the_calls_of_each)
{
    start_one(APP);
    start_one(THIRD);
    start_every(SECOND);
    peer_online();
    EXPECT_EQ(ended_by_quit({APP, SECOND, THIRD}), std::vector<uint32_t>({APP, SECOND}))
        << "THIRD has not asked for it: its call has its time-out";
}

TEST_F(zeb_every_subscriber, the_calls_end_too_when_the_instance_never_came_online)
{
    start_one(APP);
    start_every(SECOND);
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    peer_acks(my_seq, PEER_SEQ, other_process(PEER_PID + 1)); // a server, but its identities differ
    EXPECT_EQ(ended_by_quit({APP, SECOND}), std::vector<uint32_t>({APP, SECOND}));
    EXPECT_EQ(take_story(), lines_t());
}

TEST_F(zeb_every_subscriber, a_late_one_gets_the_joins_of_servers_that_are_online)
{
    start_one(APP);
    register_every(SECOND);
    peer_online(3);
    peer_online(4);
    peer_online(5, false); // a client
    (void)take_story();
    (void)take_timers();
    ASSERT_EQ(zeb_comm_with(SECOND, PEER), 0);
    ASSERT_EQ(zeb_comm_with(SECOND, PEER), 0);
    EXPECT_EQ(take_story(), lines_t()) << "the receive thread brings them";
    EXPECT_EQ(take_timers(ZEB_TIMER_TYPE_WAKE).size(), 1u);
    zeb_fc_update_sent_ok(SECOND, {PEER, 3}); // it may send already
    timer_expires(ZEB_TIMER_TYPE_WAKE, 0);
    EXPECT_EQ(take_story(), lines_t({"101 join 200/3", "101 join 200/4"}));
    EXPECT_THAT(listing(zeb_cli_print_fc_stat, SECOND),
                testing::HasSubstr("Send to application 200/3: send 1, unack 1, reject 0,"));
    timer_expires(ZEB_TIMER_TYPE_WAKE, 0);
    EXPECT_EQ(take_story(), lines_t());
    peer_withdrawn(4);
    EXPECT_EQ(take_story(), lines_t({"100 quit 200/4", "101 quit 200/4"}));
}

TEST_F(zeb_every_subscriber, what_happens_before_the_late_joins_comes_behind_them)
{
    start_one(APP);
    register_every(SECOND);
    peer_online();
    (void)take_story();
    ASSERT_EQ(zeb_comm_with(SECOND, PEER), 0);
    peer_withdrawn();
    EXPECT_EQ(take_story(), lines_t({"101 join 200/9", "100 quit 200/9", "101 quit 200/9"}));
}

TEST_F(zeb_every_subscriber, one_that_is_late_for_nobody_gets_the_next_join_alone)
{
    start_one(APP);
    register_every(SECOND);
    peer_online();
    peer_withdrawn();
    (void)take_story();
    (void)take_timers();
    ASSERT_EQ(zeb_comm_with(SECOND, PEER), 0);
    EXPECT_TRUE(take_timers().empty());
    peer_online();
    EXPECT_EQ(take_story(), lines_t({"100 join 200/9", "101 join 200/9"}));
}

TEST_F(zeb_every_subscriber, the_events_are_in_the_order_of_the_queue)
{
    start_one(APP);
    start_every(SECOND, ZEB_APP_POLLED);
    const wire::bytes_t message = wire::message(from_peer(0, PEER_NODE, PEER, SECOND), {1});
    peer_online();
    receive(message, SECOND);
    EXPECT_EQ(zeb_dispatch(SECOND, 100), 2);
    receive(message, SECOND); // dropped with the quit
    peer_withdrawn();
    peer_online();
    receive(message, SECOND);
    EXPECT_EQ(zeb_dispatch(SECOND, 100), 3);
    EXPECT_EQ(take_story(), lines_t({"100 join 200/9", "101 join 200/9", "101 message", "100 quit 200/9",
                                     "100 join 200/9", "101 quit 200/9", "101 join 200/9", "101 message"}));
}

TEST_F(zeb_every_subscriber, what_was_written_between_quit_and_join_is_rejected_for_each)
{
    start_one(APP);
    start_every(SECOND);
    peer_published();
    uint32_t my_seq = take_sync_seq();
    zeb_fc_update_sent_ok(SECOND, {PEER, PEER_NODE});
    peer_syncs();
    peer_acks(my_seq, PEER_SEQ);
    EXPECT_THAT(listing(zeb_cli_print_fc_stat, SECOND),
                testing::HasSubstr("Send to application 200/9: send 0, unack 0, reject 1,"));
}

TEST_F(zeb_every_subscriber, a_stop_forgets_what_is_queued_and_who_is_late)
{
    start_one(APP);
    start_every(SECOND, ZEB_APP_POLLED);
    register_every(THIRD);
    peer_online();
    ASSERT_EQ(zeb_comm_with(THIRD, PEER), 0);
    (void)take_story();
    EXPECT_EQ(zeb_stop(), 0);
    EXPECT_EQ(take_story(), lines_t());
    start_every(SECOND);
    timer_expires(ZEB_TIMER_TYPE_WAKE, 0);
    EXPECT_EQ(take_story(), lines_t());
    peer_online(PEER_NODE, true, PEER, SECOND);
    EXPECT_EQ(take_story(), lines_t({"101 join 200/9"}));
}

TEST_F(zeb_every_subscriber, it_is_off_unless_it_is_asked_for)
{
    start_one(APP);
    zeb_app_options_t options = {};
    options.size = offsetof(zeb_app_options_t, every_subscriber); // of a program that does not know it
    options.app = SECOND;
    options.mode = ZEB_APP_NO_THREAD;
    options.name = "older";
    static const zeb_app_dispatcher_t none[] = {{0, nullptr, nullptr}};
    options.dispatchers = none;
    options.event = on_event;
    options.every_subscriber = 1;
    ASSERT_EQ(zeb_register_app(&options), 0);
    ASSERT_EQ(zeb_comm_with(SECOND, PEER), 0);
    peer_online();
    peer_withdrawn();
    EXPECT_EQ(take_story(), lines_t({"100 join 200/9", "100 quit 200/9"}));
}
