// What is around the handshake's core: subscriptions, the elements of a synchronisation and their senders, and what is
// sent.
#include "sync_test.h"

#include "zeb_slot.h"

using wire::operator+;

class zeb_handshake_shell : public sync_test
{
};

TEST_F(zeb_handshake_shell, an_unregistered_application_adds_nothing)
{
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_add_comm_app(999, 300), -ENOENT); }),
              lines_t({"3 ZEB app 999 does not registered."}));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_EQ(__zeb_get_ol_app(300), nullptr);
}

TEST_F(zeb_handshake_shell, every_application_is_subscribed_to_in_order)
{
    EXPECT_EQ(logged(I, [] { zeb_subscr_tipc_events(); }),
              lines_t({"1 ZEB subscribe TIPC instance [0x640000, 0x64ffff] event.",
                       "1 ZEB subscribe TIPC instance [0xc80000, 0xc8ffff] event."}));
    auto subscriptions = fake_tipc::take_subscriptions();
    ASSERT_EQ(subscriptions.size(), 2u);
    EXPECT_THAT(subscription_words(subscriptions[1]),
                testing::ElementsAre(wire::NAME_TYPE, 200u << 16, 200u << 16 | 0xFFFF, 0xFFFFFFFFu, 2u, 0u, 0u));
}

TEST_F(zeb_handshake_shell, a_subscription_that_fails_does_not_keep_the_next_from_being_sent)
{
    fault::fail_next("send", EPIPE);
    EXPECT_EQ(logged(E, [] { zeb_subscr_tipc_events(); }),
              lines_t({"3 ZEB send subscription msg failed: Broken pipe.", ","}));
    EXPECT_EQ(fake_tipc::take_subscriptions().size(), 1u);
}

TEST_F(zeb_handshake_shell, an_acknowledgement_that_cannot_be_sent_is_only_counted)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_THAT(logged(V, [&] { peer_syncs(); }),
                testing::Contains("0 ZEB app 100 sync inst ack_anc to 200/9, seq 5000, pseq 0. ret:-1."));
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
    EXPECT_TRUE(list_empty(&g_zeb_handshake.inst_sync.list));
}

TEST_F(zeb_handshake_shell, the_older_acknowledgement_can_be_sent_alone)
{
    EXPECT_THAT(logged(V,
                       [] {
                           EXPECT_EQ(zeb_sync_app_inst_ack(APP, {PEER, PEER_NODE}, 77, true), 0);
                       }),
                testing::Contains("0 ZEB app 100 sync inst ack to 200/9, seq 77."));
    EXPECT_EQ(fake_tipc::take_sent().at(0).bytes.size(), wire::SYNC_LEN);
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_EQ(zeb_sync_app_inst_ack(APP, {PEER, PEER_NODE}, 77, true), -1);
}

// Elements.

TEST_F(zeb_handshake_shell, an_unexpected_element_warns_and_the_walk_goes_on)
{
    EXPECT_EQ(logged(W,
                     [&] {
                         receive(wire::message(from_peer(wire::SYNC),
                                               wire::tlv(wire::PING, {}) + wire::sync_inst(PEER_SEQ, PEER_PID, 1, 0)));
                     }),
              lines_t({"2 ZEB app 100 recv unexpected data type 6 from 200/9."}));
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE));
}

TEST_F(zeb_handshake_shell, an_empty_list_of_elements_is_no_error)
{
    EXPECT_EQ(logged(E | W, [&] { receive(wire::message(from_peer(wire::SYNC), {})); }), lines_t({}));
}

TEST_F(zeb_handshake_shell, a_last_element_without_its_padding_is_whole)
{
    wire::bytes_t body = wire::tlv(wire::SYNC_INST, wire::words({PEER_SEQ, PEER_PID, 1, 0, 600}) + wire::bytes_t{7});
    ASSERT_EQ(body.size(), wire::ELEMENT_LEN + wire::SYNC_VALUE_LEN + 4);
    body.resize(wire::ELEMENT_LEN + wire::SYNC_VALUE_LEN + 1);
    EXPECT_EQ(logged(E | W, [&] { receive(wire::message(from_peer(wire::SYNC), body)); }), lines_t({}));
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE));
}

TEST_F(zeb_handshake_shell, as_many_elements_as_fit_are_walked_to_the_end)
{
    wire::bytes_t body;
    for (int i = 0; i < (int)(wire::BODY_MAX / wire::ELEMENT_LEN); i++)
        body = std::move(body) + wire::tlv(0x0606, {});
    lines_t lines = logged(W | E, [&] { receive(wire::message(from_peer(wire::SYNC), body)); });
    EXPECT_EQ(lines,
              lines_t(wire::BODY_MAX / wire::ELEMENT_LEN, "2 ZEB app 100 recv unexpected data type 1542 from 200/9."));
}

TEST_F(zeb_handshake_shell, a_bad_element_list_is_one_error_and_the_thread_serves_on)
{
    const std::string error = "3 ZEB recv invalid TLV section for 100 from 200/9 .";
    const wire::bytes_t value(wire::SYNC_VALUE_LEN, 0);
    const wire::bytes_t bodies[] = {
        {0, 4},                                                                 // no room for a header
        wire::tlv(wire::SYNC_INST, value, 0),                                   // would never end
        wire::tlv(wire::SYNC_INST, value, 3),                                   // shorter than its header
        wire::tlv(wire::SYNC_INST, value, 25),                                  // longer than the body
        wire::tlv(wire::SYNC_INST, wire::bytes_t(wire::SYNC_VALUE_LEN - 4, 0)), // shorter than its record
        wire::tlv(wire::SYNC_SEQ_ACK, value),                                   // the same
        wire::sync_inst(1, 2, 1, 0) + wire::bytes_t{0, 0, 0, 1},
        wire::sync_inst(1, 2, 1, 0) + wire::bytes_t{0}, // less than a header is left
        wire::sync_inst(1, 2, 1, 0) + wire::bytes_t{0, 4, 0},
        wire::tlv(wire::SYNC_INST, value, 65532), // the step would be 0 from 65533 on
        wire::tlv(wire::SYNC_INST, value, 65533),
        wire::tlv(wire::SYNC_INST, value, 65534),
        wire::tlv(wire::SYNC_INST, value, 65535),
        wire::tlv(wire::PING, wire::bytes_t(wire::BODY_MAX - wire::ELEMENT_LEN, 0), 65535), // in the largest body
        wire::tlv(wire::SYNC_SEQ_ACK, wire::bytes_t(wire::SEQ_ACK_VALUE_LEN - 1, 0)), // one byte short of its record
    };
    for (const wire::bytes_t &body : bodies) {
        lines_t lines = logged(E, [&] { receive(wire::message(from_peer(wire::SYNC), body)); });
        EXPECT_EQ(std::count(lines.begin(), lines.end(), error), 1) << wire::hex(body);
    }
    peer_online(PEER_NODE + 1);
}

// Senders.

TEST_F(zeb_handshake_shell, acknowledgements_of_an_impossible_sender_are_refused)
{
    peer_published();
    (void)fake_tipc::take_sent();
    for (uint32_t node : {PEER_NODE + 0x10000, 0x80009u, ZEB_NODE_LOCAL, ZEB_NODE_ALL}) {
        wire::header_t header = from_peer(wire::SYNC, node);
        EXPECT_EQ(logged(E, [&] { receive(wire::message(header, wire::sync_seq_ack(1, PEER_PID, 1, 0))); }),
                  lines_t({"3 ZEB recv invalid TLV section for 100 from 200/" + std::to_string((int)node) + " ."}));
    }
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_FALSE(zeb_app_set_test(&__zeb_get_ol_app(PEER)->srv_bmp, PEER_NODE)) << "its low 16 bits are no node";
}

TEST_F(zeb_handshake_shell, a_synchronisation_of_an_impossible_sender_leaves_nothing_behind)
{
    struct {
        uint32_t app;
        uint32_t node;
        uint32_t my_app;
    } rows[] = {{PEER, 65536, APP}, {PEER, 0xFFFFFFFF, APP}, {0, 9, APP},    {8192, 9, APP}, {12288, 9, APP},
                {16383, 9, APP},    {20480, 9, APP},         {PEER, 9, 555}, {PEER, 9, 0},   {0xFFFFFFFF, 9, APP}};
    for (const auto &row : rows) {
        wire::header_t header = from_peer(wire::SYNC, row.node, row.app, row.my_app);
        lines_t lines = logged(E, [&] { receive(wire::message(header, wire::sync_inst(1, 2, 1, 1))); });
        EXPECT_EQ(lines, lines_t({"3 ZEB recv invalid TLV section for " + std::to_string(row.my_app) + " from " +
                                  std::to_string((int)row.app) + "/" + std::to_string((int)row.node) + " ."}));
    }
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.inst_id.list));
    EXPECT_TRUE(list_empty(&g_zeb_handshake.resume_comm_list));
}
