// The diagnosis of a block: pings, their echoes, and the lines of both sides.
#include "flow_test.h"

#include "zeb_app_info.h"

class zeb_flow_ctrl_diag : public flow_test
{
};

TEST_F(zeb_flow_ctrl_diag, a_diagnosis_pings_only_the_node_that_blocks)
{
    sent(5, 8);
    sent(1025, 9);
    received(2, 9);
    lines_t lines = logged(E, []() ZEB_NO_THREAD_SAFETY_ANALYSIS {
        zeb_fc_t *fc = zeb_get_app_fc(APP);
        zeb_scoped_lock lock(&fc->mutex);
        zeb_fc_diagnose_destination(fc, PEER);
    });
    EXPECT_EQ(lines,
              lines_t({"3 ZEB app 100 total send 1030, unack 1030, mcast reject 0, RPC reply exception 0",
                       "3 ZEB app 100 total receive 2, unack 2, exception 0",
                       "3 ZEB app 100 send to application 200/9: send 1025, unack 1025, reject 0, RPC reply reject 0",
                       "3 ZEB app 100 receive from application 200/9: receive 2, unack 2, drop 0, return 0"}));
    auto pings = fake_tipc::take_sent();
    ASSERT_EQ(pings.size(), 1u);
    EXPECT_EQ(wire::header_of(pings[0].bytes).dst_node, 9u);
    EXPECT_EQ(wire::hex(wire::body_of(pings[0].bytes)), "00040006");
}

TEST_F(zeb_flow_ctrl_diag, a_ping_is_answered_with_the_own_view_and_an_echo)
{
    sent(2, 9);
    received(3, 9);
    EXPECT_EQ(logged(E,
                     [] {
                         zeb_fc_ping_request(APP, {PEER, 9});
                     }),
              lines_t({"3 ZEB app 100 recv ping request from 200/9.", "3 ZEB app 100 from 200/9 unprocess num: 0.",
                       "3 ZEB app 100 total send 2, unack 2, mcast reject 0, RPC reply exception 0",
                       "3 ZEB app 100 total receive 3, unack 3, exception 0",
                       "3 ZEB app 100 send to application 200/9: send 2, unack 2, reject 0, RPC reply reject 0",
                       "3 ZEB app 100 receive from application 200/9: receive 3, unack 3, drop 0, return 0"}));
    auto echo = fake_tipc::take_sent();
    ASSERT_EQ(echo.size(), 1u);
    EXPECT_EQ(wire::hex(wire::body_of(echo[0].bytes)), "00040007");
    EXPECT_EQ(logged(0, [] { zeb_fc_ping_request(APP, {PEER, 9}); }), lines_t({}));
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u) << "the echo goes out all the same";
    EXPECT_EQ(logged(E,
                     [] {
                         zeb_fc_ping_echo(APP, {PEER, 9});
                     }),
              lines_t({"3 ZEB app 100 recv ping echo from 200/9."}));
}

TEST_F(zeb_flow_ctrl_diag, a_ping_tells_how_many_messages_of_the_sender_are_still_queued)
{
    ASSERT_EQ(zeb_register(300, "queued", ONE_DISPATCHER, see_event), 0); // its thread waits for the library to run
    ASSERT_EQ(zeb_comm_with(300, PEER), 0);
    peer_online(9, true, PEER, 300);
    peer_online(10, true, PEER, 300);
    for (uint32_t node : {9u, 10u, 9u})
        receive(wire::message(from_peer(0, node, PEER, 300), {1}), 300);
    lines_t lines = logged(E, [] { zeb_fc_ping_request(300, {PEER, 9}); });
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "3 ZEB app 300 from 200/9 unprocess num: 2.");
}
