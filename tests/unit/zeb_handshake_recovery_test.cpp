// The handshake of lib/zeb_handshake.cpp where it begins anew: after a lost topology connection, with another process
// under a name, after what could not be sent, and with a peer that synchronised and never came online.
#include "sync_test.h"

class zeb_handshake_recovery : public sync_test
{
};

// The one resume timer that was started since the last look; all zero when there is none.
static started_t resume_timer()
{
    std::vector<started_t> timers = take_timers(wire::RESUME_TIMER);
    EXPECT_LE(timers.size(), 1u);
    return timers.empty() ? started_t{} : timers[0];
}

TEST_F(zeb_handshake_recovery, a_known_instance_reported_by_a_reopened_connection_is_asked_to_begin_anew_once)
{
    peer_online();
    zeb_topology_reopened();
    peer_published();
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::RESUME), 1u) << "the resume mark";

    peer_syncs(PEER_SEQ + 1);
    peer_acks(sync_word(sent[0].bytes, wire::SEQ), PEER_SEQ + 1);
    ASSERT_TRUE(zeb_app_online(PEER, PEER_NODE));
    (void)fake_tipc::take_sent();
    for (const started_t &timer : take_timers())
        timer_expires(timer.type, timer.seq);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "nothing more";
}

TEST_F(zeb_handshake_recovery, an_instance_that_was_not_known_before_is_synchronised_as_a_new_one)
{
    zeb_topology_reopened();
    peer_published();
    EXPECT_EQ(sync_word(fake_tipc::take_sent().at(0).bytes, wire::RESUME), 0u);
}

TEST_F(zeb_handshake_recovery, a_connection_lost_again_before_it_reported_an_instance_does_not_forget_it)
{
    peer_online();
    zeb_topology_reopened();
    zeb_topology_reopened();
    peer_published();
    EXPECT_EQ(sync_word(fake_tipc::take_sent().at(0).bytes, wire::RESUME), 1u);
}

TEST_F(zeb_handshake_recovery, an_instance_that_a_reopened_connection_does_not_report_is_withdrawn)
{
    peer_online();
    peer_online(PEER_NODE + 1);
    (void)take_timers();
    zeb_topology_reopened();
    EXPECT_TRUE(take_timers().empty()) << "no timer is started then";
    peer_published(PEER_NODE + 1);
    (void)take_seen();
    EXPECT_EQ(logged(W, [] { zeb_topology_reported(); }), lines_t({"2 ZEB perceived app 200/9 quit."}));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_QUIT);
    EXPECT_EQ(seen.events[0].event.app.node, PEER_NODE);
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE + 1)) << "the reported one goes on";
    EXPECT_TRUE(logged(W, [] { zeb_topology_reported(); }).empty());
}

TEST_F(zeb_handshake_recovery, an_instance_that_was_being_synchronised_with_is_asked_when_it_is_reported_again)
{
    peer_published();
    (void)fake_tipc::take_sent();
    zeb_topology_reopened();
    peer_published();
    EXPECT_EQ(sync_word(fake_tipc::take_sent().at(0).bytes, wire::RESUME), 1u) << "the resume mark";
}

TEST_F(zeb_handshake_recovery, an_instance_that_was_being_synchronised_with_and_is_not_reported_again_is_withdrawn)
{
    peer_published();
    (void)fake_tipc::take_sent();
    zeb_topology_reopened();
    zeb_topology_reported();
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE)) << "it was withdrawn meanwhile";
}

TEST_F(zeb_handshake_recovery, retrying_goes_on_with_the_next_synchronisation_when_its_timer_was_lost)
{
    peer_published();
    peer_syncs();
    ASSERT_EQ(retries().size(), 1u);
    (void)fake_tipc::take_subscriptions();
    zeb_topology_reopened();
    peer_syncs();
    auto timers = take_timers();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].ms, 2000u);
    EXPECT_EQ(timers[0].type, wire::RETRY_TIMER);
}

// What a peer is asked for, and when.

TEST_F(zeb_handshake_recovery, a_peer_that_takes_our_synchronisation_for_a_repetition_is_asked_to_begin_anew)
{
    peer_online();
    peer_published(); // the name was withdrawn and published; the peer saw nothing of that
    uint32_t my_seq = take_sync_seq();
    peer_acks(my_seq, PEER_SEQ); // it names its last synchronisation, which we have forgotten
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::RESUME), 1u);
    peer_acks(my_seq, PEER_SEQ);
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "once for each of our synchronisations";
    peer_syncs(PEER_SEQ + 1);
    peer_acks(sync_word(sent[0].bytes, wire::SEQ), PEER_SEQ + 1);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake_recovery, a_peer_that_does_not_name_us_is_never_asked_to_begin_anew)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_acks(my_seq, 0);
    for (const started_t &timer : take_timers())
        timer_expires(timer.type, timer.seq);
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_handshake_recovery, a_name_that_nobody_has_is_not_asked_later)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    peer_published();
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    EXPECT_TRUE(take_timers().empty()) << "an event says when somebody has it";
}

TEST_F(zeb_handshake_recovery, a_peer_that_acknowledges_and_is_forgotten_is_asked_after_3_time_outs)
{
    peer_syncs(); // before it is published
    peer_published();
    uint32_t my_seq = take_sync_seq();
    (void)take_timers();
    zeb_topology_reopened(); // no retry timer is pending
    peer_acks(my_seq, PEER_SEQ);
    ASSERT_EQ(retries(), lines_t({"100->200/9"}));
    auto timers = take_timers();
    ASSERT_EQ(timers.size(), 1u);
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(fake_tipc::take_sent().empty());
        timer_expires(timers[0].type, timers[0].seq);
    }
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::RESUME), 1u) << "the resume mark";
}

TEST_F(zeb_handshake_recovery, only_the_application_that_could_not_send_asks_again_after_60_s)
{
    start_app(101);
    fault::fail_next("sendto", EPERM);
    peer_published();
    (void)fake_tipc::take_sent();
    peer_syncs(); // does not drop it
    auto timer = resume_timer();
    ASSERT_EQ(timer.ms, 60000u);
    (void)fake_tipc::take_sent();
    zeb_process_resume_timer_event(timer.seq);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).src_app, APP);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::RESUME), 1u) << "the resume mark";
}

TEST_F(zeb_handshake_recovery, after_a_second_process_the_holder_of_the_name_is_asked_once)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    peer_syncs();
    (void)take_timers();
    peer_syncs(PEER_SEQ + 1, other_process(PEER_PID + 1));
    auto timer = resume_timer();
    ASSERT_EQ(timer.ms, 60000u);
    peer_syncs(); // what the first process has sent again completes the pair with it
    peer_acks(my_seq, PEER_SEQ);
    ASSERT_TRUE(zeb_app_online(PEER, PEER_NODE));
    (void)fake_tipc::take_sent();
    zeb_process_resume_timer_event(timer.seq);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::RESUME), 0u) << "a repetition for the process that is online";
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake_recovery, an_instance_that_nothing_could_be_sent_to_is_resumed_after_60_s)
{
    fault::fail_next("sendto", EPERM);
    peer_published();
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    auto timer = resume_timer();
    ASSERT_EQ(timer.ms, 60000u);
    zeb_process_resume_timer_event(timer.seq);
    EXPECT_NE(take_sync_seq(), 0u);
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    EXPECT_EQ(resume_timer().ms, 0u) << "not for ever";
}

// Resume.

TEST_F(zeb_handshake_recovery, a_peer_that_synchronised_but_never_came_online_is_resumed_after_60_s)
{
    lines_t lines = logged(I, [&] { peer_syncs(); });
    EXPECT_THAT(lines, testing::Contains("1 ZEB try resume comm to 200/9."));
    started_t resume = resume_timer();
    EXPECT_EQ(resume.ms, 60000u);
    (void)fake_tipc::take_sent();
    EXPECT_THAT(logged(E, [&] { timer_expires(wire::RESUME_TIMER, resume.seq); }),
                testing::Contains("3 ZEB resume communication to 200/9."));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::RESUME), 1u) << "the resume mark";
    timer_expires(wire::RESUME_TIMER, resume.seq);
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "once";
}

TEST_F(zeb_handshake_recovery, any_join_or_quit_drops_a_pending_resume)
{
    const std::function<void()> drops[] = {
        [] { zeb_app_inst_join(PEER, PEER_NODE, 0); },
        [] { zeb_app_inst_quit(PEER, PEER_NODE); },
        [] { zeb_app_inst_force_quit(PEER, PEER_NODE); },
        [] { zeb_app_inst_try_quit(PEER, PEER_NODE); },
    };
    for (const auto &drop : drops) {
        zeb_app_inst_force_quit(PEER, PEER_NODE);
        (void)take_timers();
        zeb_try_resume_comm(PEER, PEER_NODE);
        auto timers = take_timers();
        ASSERT_EQ(timers.size(), 1u);
        EXPECT_THAT(logged(V, drop), testing::Contains("0 ZEB clear resume comm to 200/9."));
        (void)fake_tipc::take_sent();
        EXPECT_EQ(logged(E, [&] { zeb_process_resume_timer_event(timers[0].seq); }), lines_t({}));
        EXPECT_TRUE(fake_tipc::take_sent().empty());
    }
}

TEST_F(zeb_handshake_recovery, no_resume_while_ours_is_pending_or_the_pair_is_online_or_the_timer_fails)
{
    peer_published();
    (void)take_timers();
    zeb_try_resume_comm(PEER, PEER_NODE);
    EXPECT_TRUE(take_timers().empty());
    peer_online();
    (void)take_timers();
    zeb_try_resume_comm(PEER, PEER_NODE);
    EXPECT_TRUE(take_timers().empty());
    fault::fail_next("send", EPIPE);
    zeb_try_resume_comm(PEER, PEER_NODE + 1);
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.resume_comm_list));
}

TEST_F(zeb_handshake_recovery, a_resume_time_out_after_the_join_does_nothing)
{
    peer_syncs(); // arms the resume
    started_t resume = resume_timer();
    ASSERT_NE(resume.seq, 0u);
    peer_online();
    (void)take_seen();
    EXPECT_EQ(logged(15, [&] { timer_expires(wire::RESUME_TIMER, resume.seq); }),
              lines_t({"0 ZEB perceived timer event of type 0 seq " + std::to_string((int)resume.seq) + "."}));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_TRUE(take_seen().events.empty());
}

// Beginning anew.

TEST_F(zeb_handshake_recovery, another_process_under_the_name_of_an_online_instance_begins_the_pair_anew)
{
    peer_online();
    (void)take_seen();
    (void)fake_tipc::take_sent();
    peer_syncs(PEER_SEQ + 1, other_process(PEER_PID + 1));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_QUIT);
    uint32_t my_seq = take_sync_seq();
    ASSERT_NE(my_seq, 0u);
    EXPECT_EQ(retries(), lines_t({"100->200/9"})) << "until the old process has gone, it may get what is sent";
    peer_acks(my_seq, PEER_SEQ); // the old process: another synchronisation is its last
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    peer_acks(my_seq, PEER_SEQ + 1, other_process(PEER_PID + 1));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake_recovery, the_same_process_or_none_stays_a_repetition)
{
    peer_online();
    (void)take_seen();
    (void)fake_tipc::take_sent();
    for (uint32_t id : {PEER_PID, 0u}) {
        peer_syncs(PEER_SEQ + 1, other_process(id));
        EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
        EXPECT_EQ(fake_tipc::take_sent().size(), 1u) << "the acknowledgement";
    }
    EXPECT_TRUE(take_seen().events.empty());
}

TEST_F(zeb_handshake_recovery, a_peer_that_begins_anew_is_known_by_its_identity_when_it_acknowledges)
{
    peer_online();
    peer_syncs(PEER_SEQ + 1, peer_t(), 1);
    uint32_t my_seq = take_sync_seq();
    EXPECT_EQ(retries(), lines_t({"100->200/9"}));
    peer_acks(my_seq, PEER_SEQ + 1);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

// An event of its own: no timer is started for it.
TEST_F(zeb_handshake_recovery, what_is_pending_for_a_whole_minute_is_sent_again_once)
{
    peer_published();
    auto first = fake_tipc::take_sent();
    ASSERT_EQ(first.size(), 1u);
    zeb_handshake_minute();
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "it may have been sent a moment ago";
    zeb_handshake_minute();
    auto again = fake_tipc::take_sent();
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].bytes, first[0].bytes);
    zeb_handshake_minute();
    zeb_handshake_minute();
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_TRUE(take_timers().empty());
}

// A pair of which the peer has not named its side.

static const lines_t ONE_SIDED = {
    "2 ZEB app 100 waits for 200/9, which has not named it: name it with zeb_comm_with there."};

static lines_t told_after(int looks)
{
    return logged(W, [looks] {
        for (int i = 0; i < looks; i++)
            zeb_handshake_look();
    });
}

TEST_F(zeb_handshake_recovery, a_peer_that_answers_and_has_not_named_us_is_told_of_once)
{
    peer_published();
    peer_acks(take_sync_seq(), 0);
    EXPECT_EQ(told_after(1), lines_t()) << "it may have been sent a moment ago";
    EXPECT_EQ(told_after(1), ONE_SIDED);
    EXPECT_EQ(told_after(5), lines_t());
    EXPECT_TRUE(take_timers().empty());
    peer_published(); // again
    peer_acks(take_sync_seq(), 0);
    EXPECT_EQ(told_after(5), lines_t()) << "once for the pair";
    start_app(101); // another pair
    peer_published();
    peer_t peer;
    peer.my_app = 101;
    peer_acks(take_sync_seq(101), 0, peer);
    lines_t other = {"2 ZEB app 101 waits for 200/9, which has not named it: name it with zeb_comm_with there."};
    EXPECT_EQ(told_after(5), other);
}

TEST_F(zeb_handshake_recovery, a_peer_that_is_late_or_has_named_us_is_not_told_of)
{
    peer_published();
    uint32_t my_seq = take_sync_seq();
    EXPECT_EQ(told_after(5), lines_t()) << "it has not answered";
    peer_syncs();
    peer_acks(my_seq, 0);
    EXPECT_EQ(told_after(5), lines_t()) << "it has named us, and ours is pending";
    peer_withdrawn();
    peer_online();
    EXPECT_EQ(told_after(5), lines_t());
}

TEST_F(zeb_handshake_recovery, a_minute_passes_an_instance_that_is_online_or_not_known_by)
{
    peer_online();
    for (int minute = 0; minute < 5; minute++)
        zeb_handshake_minute();
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}
