// The handshake of lib/zeb_handshake.cpp where its acknowledgements come back: what is sent again, how often, and what
// makes that needless.
#include "sync_test.h"

#include "zeb_mng_recv.h"
#include "zeb_slot.h"

class zeb_handshake_returned : public sync_test
{
};

TEST_F(zeb_handshake_returned, a_returned_acknowledgement_is_sent_again_after_a_second_with_its_ttl_one_lower)
{
    wire::bytes_t body = wire::both_acks(5, 6, 1, 0, 3);
    (void)fake_tipc::take_subscriptions();
    lines_t lines = returned(V, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), body));
    EXPECT_THAT(lines, testing::Contains("0 ZEB add sync inst ack resend to 200/9, seq 5."));
    auto timers = take_timers();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].type, wire::RESEND_TIMER);
    EXPECT_EQ(timers[0].ms, 1000u);
    EXPECT_TRUE(fake_tipc::take_sent().empty());

    timer_expires(wire::RESEND_TIMER, timers[0].seq + 1);
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "another timer's";
    timer_expires(wire::RESEND_TIMER, timers[0].seq);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::TTL), 2u);
    EXPECT_EQ(sync_word(sent[0].bytes, wire::SEQ), 5u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).seq, timers[0].seq);
    timer_expires(wire::RESEND_TIMER, timers[0].seq);
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "sent once";
}

TEST_F(zeb_handshake_returned, an_acknowledgement_is_returned_and_sent_again_at_most_600_times)
{
    wire::bytes_t message = wire::message(to_peer(wire::SYNC), wire::sync_seq_ack(5, 6, 1, 0));
    int resent = 0;
    for (;;) {
        (void)fake_tipc::take_subscriptions();
        (void)returned(0, TIPC_ERR_NO_PORT, message);
        auto timers = take_timers();
        if (timers.empty())
            break;
        timer_expires(wire::RESEND_TIMER, timers[0].seq);
        message = fake_tipc::take_sent().at(0).bytes;
        resent++;
    }
    EXPECT_EQ(resent, 600);
}

TEST_F(zeb_handshake_returned, a_resend_timer_that_does_not_start_drops_the_copy)
{
    fault::fail_next("send", EPIPE);
    (void)returned(V, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3)));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
}

TEST_F(zeb_handshake_returned, an_acknowledgement_that_fails_to_be_sent_again_stays_until_traffic_makes_it_needless)
{
    (void)fake_tipc::take_subscriptions();
    (void)returned(0, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3)));
    uint32_t seq = take_timers().at(0).seq;
    fault::fail_next("sendto", EHOSTUNREACH);
    timer_expires(wire::RESEND_TIMER, seq);
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        EXPECT_FALSE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
    }
    zeb_del_reject_sync_inst_ack(APP, {PEER, PEER_NODE + 1});
    zeb_del_reject_sync_inst_ack(APP, {PEER, PEER_NODE});
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
}

TEST_F(zeb_handshake_returned, a_returned_acknowledgement_of_the_older_version_is_not_made_needless_by_traffic)
{
    wire::header_t header = to_peer(wire::SYNC);
    header.ver = 1;
    (void)returned(0, TIPC_ERR_NO_PORT, wire::message(header, wire::sync_ack(5, 6, 1, 3)));
    (void)returned(0, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3)));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_EQ(list_length(&g_zeb_handshake.sync_inst_ack_list), 2);
    zeb_del_reject_sync_inst_ack(APP, {PEER, PEER_NODE});
    EXPECT_EQ(list_length(&g_zeb_handshake.sync_inst_ack_list), 1);
    EXPECT_EQ(list_record<zeb_returned_ack_t>(g_zeb_handshake.sync_inst_ack_list.next)->ver, 1);
}

TEST_F(zeb_handshake_returned, traffic_of_an_instance_not_yet_online_drops_the_returned_acknowledgement)
{
    peer_syncs();
    (void)returned(0, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3)));
    receive(wire::message(from_peer(), {1}));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
}
