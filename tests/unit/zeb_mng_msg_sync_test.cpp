// The elements of a synchronisation as they are read: too short for their record, and the time to live of an
// acknowledgement that comes back.
#include "sync_test.h"

class zeb_mng_msg_sync : public sync_test
{
};

TEST_F(zeb_mng_msg_sync, an_element_shorter_than_its_record_is_refused_only_where_it_would_be_read)
{
    wire::header_t old = from_peer(wire::SYNC);
    old.ver = 1;
    const lines_t refused = {"3 ZEB recv invalid TLV section for 100 from 200/9 ."};
    wire::bytes_t body = wire::tlv(wire::SYNC_ACK, wire::bytes_t(wire::SYNC_VALUE_LEN - 4, 0));
    EXPECT_EQ(logged(E, [&] { receive(wire::message(old, body)); }), refused);
    EXPECT_EQ(logged(E, [&] { receive(wire::message(from_peer(wire::SYNC), body)); }), lines_t({})) << "skipped";
    body = wire::tlv(wire::SYNC_SEQ_ACK, wire::bytes_t(wire::SEQ_ACK_VALUE_LEN - 4, 0));
    EXPECT_EQ(logged(E, [&] { receive(wire::message(from_peer(wire::SYNC), body)); }), refused);
    EXPECT_EQ(logged(E, [&] { receive(wire::message(old, body)); }), lines_t({})) << "skipped";
}

TEST_F(zeb_mng_msg_sync, a_returned_acknowledgement_with_ttl_0_is_not_sent_again)
{
    (void)fake_tipc::take_subscriptions();
    (void)returned(V, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 0)));
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}

TEST_F(zeb_mng_msg_sync, a_returned_synchronisation_with_a_bad_element_is_left_alone)
{
    (void)fake_tipc::take_subscriptions();
    for (int len : {0, 3, 4, 23, 25, 65532, 65533, 65535}) {
        (void)returned(
            V, TIPC_ERR_NO_PORT,
            wire::message(to_peer(wire::SYNC), wire::tlv(wire::SYNC_ACK, wire::bytes_t(wire::SYNC_VALUE_LEN, 1), len)));
        EXPECT_TRUE(fake_tipc::take_subscriptions().empty()) << len;
    }
}

TEST_F(zeb_mng_msg_sync, other_returned_synchronisations_are_left_alone)
{
    (void)fake_tipc::take_subscriptions();
    (void)returned(V, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), wire::sync_inst(5, 6, 1, 0)));
    (void)returned(V, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), {}));
    (void)returned(V, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), wire::tlv(wire::SYNC_ACK, {1, 2, 3, 4})));
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}
