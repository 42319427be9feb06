// How pairs come back: after a lost topology connection, with another process under a name, after what could not be
// sent; and what begins anew.
#include "sync_test.h"

class zeb_handshake_recovery : public sync_test
{
};

// The time-out of the one resume timer that was started since the last look, in milliseconds, and its sequence.
static std::pair<uint32_t, uint32_t> resume_timer()
{
    std::pair<uint32_t, uint32_t> timer = {0, 0};
    for (const wire::bytes_t &bytes : fake_tipc::take_subscriptions()) {
        uint32_t words[7];
        memcpy(words, bytes.data(), sizeof(words));
        if (words[5] == (uint32_t)ZEB_TIMER_TYPE_RESUME)
            timer = {words[3], words[6]};
    }
    return timer;
}

TEST_F(zeb_handshake_recovery, a_known_instance_reported_by_a_reopened_connection_is_asked_to_begin_anew_once)
{
    peer_online();
    zeb_topology_reopened();
    peer_published();
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, 3), 1u) << "the resume mark";

    peer_syncs(PEER_SEQ + 1);
    ack(sync_word(sent[0].bytes, 0), PEER_SEQ + 1);
    ASSERT_TRUE(zeb_app_online(PEER, PEER_NODE));
    (void)fake_tipc::take_sent();
    for (const started_t &timer : take_timers())
        zeb_process_tipc_subscr_event(fake_tipc::timer_event(timer.type, timer.seq));
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "nothing more";
}

TEST_F(zeb_handshake_recovery, an_instance_that_was_not_known_before_is_synchronised_as_a_new_one)
{
    zeb_topology_reopened();
    peer_published();
    EXPECT_EQ(sync_word(fake_tipc::take_sent().at(0).bytes, 3), 0u);
}

TEST_F(zeb_handshake_recovery, a_connection_lost_again_before_it_reported_an_instance_does_not_forget_it)
{
    peer_online();
    zeb_topology_reopened();
    zeb_topology_reopened();
    peer_published();
    EXPECT_EQ(sync_word(fake_tipc::take_sent().at(0).bytes, 3), 1u);
}

TEST_F(zeb_handshake_recovery, a_peer_that_takes_our_synchronisation_for_a_repetition_is_asked_to_begin_anew)
{
    peer_online();
    peer_published(); // the name was withdrawn and published; the peer saw nothing of that
    uint32_t my_seq = sent_seq();
    ack(my_seq, PEER_SEQ); // it names its last synchronisation, which we have forgotten
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, 3), 1u);
    ack(my_seq, PEER_SEQ);
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "once for each of our synchronisations";
    peer_syncs(PEER_SEQ + 1);
    ack(sync_word(sent[0].bytes, 0), PEER_SEQ + 1);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake_recovery, a_peer_that_does_not_name_us_is_never_asked_to_begin_anew)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    ack(my_seq, 0);
    for (const started_t &timer : take_timers())
        zeb_process_tipc_subscr_event(fake_tipc::timer_event(timer.type, timer.seq));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
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

TEST_F(zeb_handshake_recovery, a_name_that_nobody_has_is_not_asked_later)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    peer_published();
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    EXPECT_TRUE(take_timers().empty()) << "an event tells when somebody has it";
}

TEST_F(zeb_handshake_recovery, an_instance_that_was_being_synchronised_with_is_asked_when_it_is_reported_again)
{
    peer_published();
    (void)fake_tipc::take_sent();
    zeb_topology_reopened();
    peer_published();
    EXPECT_EQ(sync_word(fake_tipc::take_sent().at(0).bytes, 3), 1u) << "the resume mark";
}

TEST_F(zeb_handshake_recovery, an_instance_that_was_being_synchronised_with_and_is_not_reported_again_is_withdrawn)
{
    peer_published();
    (void)fake_tipc::take_sent();
    zeb_topology_reopened();
    zeb_topology_reported();
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE)) << "it was withdrawn meanwhile";
}

TEST_F(zeb_handshake_recovery, a_peer_that_acknowledges_and_is_forgotten_is_asked_after_3_time_outs)
{
    peer_syncs(); // before it is published
    peer_published();
    uint32_t my_seq = sent_seq();
    (void)take_timers();
    zeb_topology_reopened(); // no retry timer is pending
    ack(my_seq, PEER_SEQ);
    ASSERT_EQ(retries(), lines_t({"100->200/9"}));
    auto timers = take_timers();
    ASSERT_EQ(timers.size(), 1u);
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(fake_tipc::take_sent().empty());
        zeb_process_tipc_subscr_event(fake_tipc::timer_event(timers[0].type, timers[0].seq));
    }
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, 3), 1u) << "the resume mark";
}

TEST_F(zeb_handshake_recovery, only_the_application_that_could_not_send_asks_again_after_60_s)
{
    start_app(101);
    fault::fail_next("sendto", EPERM);
    peer_published();
    (void)fake_tipc::take_sent();
    peer_syncs(); // does not drop it
    auto timer = resume_timer();
    ASSERT_EQ(timer.first, 60000u);
    (void)fake_tipc::take_sent();
    zeb_process_resume_timer_event(timer.second);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).src_app, APP);
    EXPECT_EQ(sync_word(sent[0].bytes, 3), 1u) << "the resume mark";
}

TEST_F(zeb_handshake_recovery, after_a_second_process_the_holder_of_the_name_is_asked_once)
{
    peer_published();
    uint32_t my_seq = sent_seq();
    peer_syncs();
    (void)take_timers();
    receive(wire::message(from_peer(wire::SYNC), wire::sync_inst(PEER_SEQ + 1, PEER_PID + 1, 1, 0)));
    auto timer = resume_timer();
    ASSERT_EQ(timer.first, 60000u);
    peer_syncs(); // what the first process has sent again completes the pair with it
    ack(my_seq, PEER_SEQ);
    ASSERT_TRUE(zeb_app_online(PEER, PEER_NODE));
    (void)fake_tipc::take_sent();
    zeb_process_resume_timer_event(timer.second);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, 3), 0u) << "a repetition for the process that is online";
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake_recovery, an_instance_that_nothing_could_be_sent_to_is_resumed_after_60_s)
{
    fault::fail_next("sendto", EPERM);
    peer_published();
    EXPECT_FALSE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    auto timer = resume_timer();
    ASSERT_EQ(timer.first, 60000u);
    zeb_process_resume_timer_event(timer.second);
    EXPECT_NE(sent_seq(), 0u);
    EXPECT_TRUE(zeb_has_sync_inst_msg(PEER, PEER_NODE));
    EXPECT_EQ(resume_timer().first, 0u) << "not for ever";
}

// Beginning anew.

TEST_F(zeb_handshake_recovery, another_process_under_the_name_of_an_online_instance_begins_the_pair_anew)
{
    peer_online();
    (void)take_seen();
    (void)fake_tipc::take_sent();
    receive(wire::message(from_peer(wire::SYNC), wire::sync_inst(PEER_SEQ + 1, PEER_PID + 1, 1, 0)));
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_QUIT);
    uint32_t my_seq = sent_seq();
    ASSERT_NE(my_seq, 0u);
    EXPECT_EQ(retries(), lines_t({"100->200/9"})) << "until the old process has gone, it may get what is sent";
    ack(my_seq, PEER_SEQ, PEER_PID); // the old process: another synchronisation is its last
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    ack(my_seq, PEER_SEQ + 1, PEER_PID + 1);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_handshake_recovery, the_same_process_or_none_stays_a_repetition)
{
    peer_online();
    (void)take_seen();
    (void)fake_tipc::take_sent();
    for (uint32_t id : {PEER_PID, 0u}) {
        receive(wire::message(from_peer(wire::SYNC), wire::sync_inst(PEER_SEQ + 1, id, 1, 0)));
        EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
        EXPECT_EQ(fake_tipc::take_sent().size(), 1u) << "the acknowledgement";
    }
    EXPECT_TRUE(take_seen().events.empty());
}

TEST_F(zeb_handshake_recovery, a_peer_that_begins_anew_is_known_by_its_identity_when_it_acknowledges)
{
    peer_online();
    receive(wire::message(from_peer(wire::SYNC), wire::sync_inst(PEER_SEQ + 1, PEER_PID, 1, 1)));
    uint32_t my_seq = sent_seq();
    EXPECT_EQ(retries(), lines_t({"100->200/9"}));
    ack(my_seq, PEER_SEQ + 1);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
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
    EXPECT_EQ(timers[0].type, (uint32_t)ZEB_TIMER_TYPE_INST_RETRY);
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

TEST_F(zeb_handshake_recovery, a_minute_passes_an_instance_that_is_online_or_not_known_by)
{
    peer_online();
    for (int minute = 0; minute < 5; minute++)
        zeb_handshake_minute();
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}
