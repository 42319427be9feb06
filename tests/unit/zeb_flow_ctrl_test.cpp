// Flow control: windows, acknowledgements, blocked senders, counters.
#include "flow_test.h"

#include "zeb_flow_ctrl_stat.h"
#include "zeb_rpc.h"

class zeb_flow_ctrl : public flow_test
{
};

TEST_F(zeb_flow_ctrl, the_listing_is_this_text)
{
    sent(3);
    sent(2, 10);
    zeb_fc_update_sent_reject(APP, {PEER, 9});
    zeb_fc_update_rpc_reply_exception(APP, {PEER, 9});
    zeb_fc_update_rpc_reply_exception(APP, {PEER, ZEB_FC_NODE_ANY});
    received(4);
    zeb_fc_update_recv_drop(APP, {PEER, 9}, 5);
    zeb_fc_update_recv_retdata(APP, {PEER, 9});
    zeb_fc_update_recv_exception(APP);
    EXPECT_EQ(text(), "Application 100 overall statistics:\n"
                      "  total send 5, unack 5, mcast reject 0, RPC reply exception 1\n"
                      "  total receive 4, unack 4, exception 1\n"
                      "    Send to application 200/9: send 3, unack 3, reject 1, RPC reply reject 1\n"
                      "    Send to application 200/10: send 2, unack 2, reject 0, RPC reply reject 0\n"
                      "    Receive from application 200/9: receive 4, unack 4, drop 5, return 1\n");
    EXPECT_EQ(listing(zeb_cli_print_fc_stat, 999), "");
}

TEST_F(zeb_flow_ctrl, a_destination_is_blocked_from_the_1025th_unacknowledged_message_on)
{
    sent(1024);
    EXPECT_TRUE(accepts());
    sent(1);
    EXPECT_EQ(zeb_fc_check(APP, PEER, ZEB_SEND_NOWAIT), -EAGAIN);
}

TEST_F(zeb_flow_ctrl, one_congested_node_blocks_the_application_on_every_node)
{
    sent(1, 10);
    sent(1025, 11);
    EXPECT_FALSE(accepts());
    EXPECT_EQ(zeb_fc_check(APP, PEER + 1, ZEB_SEND_NOWAIT), 0) << "another application";
}

TEST_F(zeb_flow_ctrl, the_receiver_acknowledges_512_with_the_513th_message_and_every_further_512)
{
    received(512);
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    received(1);
    auto acks = fake_tipc::take_sent();
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(wire::hex(wire::body_of(acks[0].bytes)), "0008000000000200");
    EXPECT_THAT(text(), testing::HasSubstr("receive 513, unack 1,"));
    received(511);
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    received(1);
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u);
}

TEST_F(zeb_flow_ctrl, a_failed_acknowledgement_is_tried_with_the_next_message)
{
    received(512);
    fault::fail_next("sendto", EHOSTUNREACH);
    received(1);
    EXPECT_THAT(text(), testing::HasSubstr("receive 513, unack 513,"));
    received(1);
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u);
    EXPECT_THAT(text(), testing::HasSubstr("receive 514, unack 2,"));
}

TEST_F(zeb_flow_ctrl, an_acknowledgement_wakes_a_blocked_sender)
{
    sent(1025);
    std::thread sender = blocked_sender();
    zeb_fc_update_sent_ack(APP, {PEER, 9}, 512);
    sender.join();
    EXPECT_THAT(text(), testing::HasSubstr("Send to application 200/9: send 1025, unack 513,"));
    EXPECT_THAT(text(), testing::HasSubstr("total send 1025, unack 513,"));
}

TEST_F(zeb_flow_ctrl, a_quit_wakes_a_blocked_sender_and_forgets_the_pair)
{
    sent(1025);
    received(3);
    zeb_fc_update_recv_drop(APP, {PEER, 9}, 2);
    std::thread sender = blocked_sender();
    EXPECT_EQ(logged(I,
                     [] {
                         zeb_fc_reset_unack(APP, {PEER, 9});
                     }),
              lines_t({"1 ZEB reset unack stat between app 100 and 200/9."}));
    sender.join();
    EXPECT_EQ(text(), "Application 100 overall statistics:\n"
                      "  total send 0, unack 0, mcast reject 0, RPC reply exception 0\n"
                      "  total receive 0, unack 0, exception 0\n"
                      "    Send to application 200/9: send 0, unack 0, reject 0, RPC reply reject 0\n"
                      "    Receive from application 200/9: receive 0, unack 0, drop 0, return 0\n");
}

TEST_F(zeb_flow_ctrl, a_join_wakes_a_blocked_sender)
{
    sent(1025);
    std::thread sender = blocked_sender();
    zeb_fc_adjust_statistics(APP, {PEER, 9});
    sender.join();
    EXPECT_THAT(text(), testing::HasSubstr("Send to application 200/9: send 0, unack 0, reject 1025,"));
}

// The tail of a line that is about a block of PEER on node 9.
static bool tells_of_block(const std::string &line)
{
    return line.find("blocked for too long") != std::string::npos || line.find("reload") != std::string::npos ||
           line.find(" send to application") != std::string::npos;
}

// What nine periods of a block of 200/9 and 200/11 say: after 1, 2, 4 and 8 of them, and after 3.
static lines_t lines_of_periods()
{
    const lines_t period = {
        "3 ZEB app 100 to 200/9 was blocked for too long.", "3 ZEB app 100 to 200/11 was blocked for too long.",
        "3 ZEB app 100 send to application 200/9: send 1025, unack 1025, reject 0, RPC reply reject 0",
        "3 ZEB app 100 send to application 200/11: send 1026, unack 1026, reject 0, RPC reply reject 0"};
    lines_t expected;
    for (int count : {1, 2, 3, 4, 8}) {
        if (count != 3) {
            expected.insert(expected.end(), period.begin(), period.end());
            continue;
        }
        expected.emplace_back("3 ZEB app 100 try to reload 200/9 to resume communication.");
        expected.emplace_back("3 ZEB app 100 try to reload 200/11 to resume communication.");
    }
    return expected;
}

TEST_F(zeb_flow_ctrl, a_blocked_sender_logs_and_pings_after_1_2_4_and_8_periods_and_asks_for_a_reload_after_3)
{
    sent(1025, 9);
    sent(5, 10);
    sent(1026, 11);
    (void)fake_tipc::take_sent();
    lines_t lines = logged(E, [] {
        fault::end_waits(cond(), ETIMEDOUT, 9);
        int begun = fault::waits(cond());
        std::thread sender([] { EXPECT_EQ(zeb_fc_check(APP, PEER, 0), 0); });
        wait_until([&] { return fault::waits(cond()) >= begun + 10; });
        zeb_fc_update_sent_ack(APP, {PEER, 9}, 512);
        zeb_fc_update_sent_ack(APP, {PEER, 11}, 512);
        sender.join();
    });
    lines.erase(std::remove_if(lines.begin(), lines.end(), [](const std::string &l) { return !tells_of_block(l); }),
                lines.end());
    EXPECT_EQ(lines, lines_of_periods());
    lines_t messages;
    for (const fake_tipc::sent_t &message : fake_tipc::take_sent())
        messages.push_back(std::to_string(wire::header_of(message.bytes).dst_node) + " " +
                           wire::hex(wire::body_of(message.bytes)));
    const std::string ping = "00040006";
    const std::string reload = "00040008";
    EXPECT_EQ(messages, lines_t({"9 " + ping, "11 " + ping, "9 " + ping, "11 " + ping, "9 " + reload, "11 " + reload,
                                 "9 " + ping, "11 " + ping, "9 " + ping, "11 " + ping}));
}

TEST_F(zeb_flow_ctrl, waking_early_counts_as_no_period)
{
    sent(2000);
    EXPECT_EQ(logged(E,
                     [] {
                         std::thread sender = blocked_sender();
                         for (int i = 0; i < 5; i++) {
                             int begun = fault::waits(cond());
                             zeb_fc_update_sent_ack(APP, {PEER, 9}, 1); // not enough
                             wait_until([&] { return fault::waits(cond()) != begun; });
                         }
                         zeb_fc_update_sent_ack(APP, {PEER, 9}, 1000);
                         sender.join();
                     }),
              lines_t({}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_flow_ctrl, a_wait_or_broadcast_that_fails_ends_the_process_except_on_quit)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    sent(1025);
    EXPECT_DEATH(
        {
            fault::end_waits(cond(), EINVAL);
            (void)zeb_fc_check(APP, PEER, 0);
        },
        "ret == 0");
    EXPECT_DEATH(
        {
            fault::fail_broadcast(cond(), EINVAL);
            zeb_fc_update_sent_ack(APP, {PEER, 9}, 1);
        },
        "ret == 0");
    EXPECT_DEATH(
        {
            fault::fail_broadcast(cond(), EINVAL);
            zeb_fc_adjust_statistics(APP, {PEER, 9});
        },
        "ret == 0");
    fault::fail_broadcast(cond(), EINVAL);
    zeb_fc_reset_unack(APP, {PEER, 9});
    EXPECT_TRUE(accepts());
}

TEST_F(zeb_flow_ctrl, the_lines_of_a_sender_are_these)
{
    lines_t lines = logged(15, [] {
        EXPECT_EQ(zeb_fc_check(APP, PEER, 0), 0);
        zeb_fc_update_sent_ok(APP, {PEER, 9});
        zeb_fc_update_sent_ok(APP, {PEER, 9});
        zeb_fc_update_sent_reject(APP, {PEER, 9});
        zeb_fc_update_rpc_reply_exception(APP, {PEER, 9});
        zeb_fc_update_sent_ack(APP, {PEER, 9}, 2);
    });
    EXPECT_EQ(lines,
              lines_t({"0 ZEB app 100 accept new msg to 200.", "0 ZEB app 100 update send OK to 200/9.",
                       "0 ZEB app 100 add new send flow ctrl to 200/9.", "0 ZEB app 100 update send OK to 200/9.",
                       "0 ZEB app 100 update send reject to 200/9.", "0 ZEB app 100 update RPC reply reject to 200/9.",
                       "0 ZEB app 100 update send ack from 200/9, ack num 2.",
                       "0 ZEB notify waiting app 100 to 200/9 continue to send msg."}));
    sent(1025);
    EXPECT_EQ(logged(V, [] { EXPECT_FALSE(accepts()); }), lines_t({"0 ZEB app 100 reject new msg to 200."}));
    zeb_fc_update_recv_retdata(APP, {PEER, 9}); // makes the record
    lines = logged(V, [] {
        std::thread sender = blocked_sender();
        zeb_fc_reset_unack(APP, {PEER, 9});
        sender.join();
    });
    EXPECT_EQ(lines,
              lines_t({"0 ZEB app 100 reject new msg to 200.", "0 ZEB app 100 to 200 wait for sending.",
                       "0 ZEB app 100 reject new msg to 200.", "0 ZEB app 100 to 200 wait for flow ctrl condition.",
                       "0 ZEB app 100 accept new msg to 200.", "0 ZEB app 100 to 200 continue to send."}));
}

TEST_F(zeb_flow_ctrl, the_lines_of_a_receiver_are_these)
{
    lines_t lines = logged(15, [] {
        zeb_fc_update_recv_ok(APP, {PEER, 9});
        zeb_fc_update_recv_drop(APP, {PEER, 9}, 3);
        zeb_fc_update_recv_retdata(APP, {PEER, 9});
        zeb_fc_update_recv_exception(APP);
    });
    EXPECT_EQ(lines,
              lines_t({"0 ZEB app 100 update recv OK from 200/9.", "0 ZEB app 100 add new recv flow ctrl from 200/9.",
                       "0 ZEB app 100 update recv drop num 3 from 200/9.",
                       "0 ZEB app 100 update recv retdata from 200/9.", "3 ZEB app 100 update recv exception msg."}));
    received(511);
    lines = logged(V, [] { received(1); });
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "0 ZEB app 100 update recv OK from 200/9.");
    EXPECT_EQ(lines[1], "0 ZEB app 100 send msg ack num 512 to 200/9.");
    EXPECT_EQ(lines[3], "0 ZEB app 100 sent recv num ack 512 to 200/9 OK.");
}

TEST_F(zeb_flow_ctrl, a_join_turns_what_was_sent_into_rejects)
{
    sent(10);
    zeb_fc_update_sent_ack(APP, {PEER, 9}, 4);
    zeb_fc_update_recv_drop(APP, {PEER, 9}, 2);
    EXPECT_EQ(logged(W,
                     [] {
                         zeb_fc_adjust_statistics(APP, {PEER, 9});
                     }),
              lines_t({"2 ZEB app 100 adjust sent reject num 10 to 200/9."}));
    EXPECT_EQ(text(), "Application 100 overall statistics:\n"
                      "  total send 0, unack -4, mcast reject 0, RPC reply exception 0\n"
                      "  total receive 0, unack 0, exception 0\n"
                      "    Send to application 200/9: send 0, unack 0, reject 10, RPC reply reject 0\n"
                      "    Receive from application 200/9: receive 0, unack 0, drop 0, return 0\n")
        << "the total drops by what was sent";
}

TEST_F(zeb_flow_ctrl, a_join_after_nothing_was_sent_changes_nothing_on_the_send_side)
{
    zeb_fc_update_sent_reject(APP, {PEER, 9});
    EXPECT_EQ(logged(W, [] { zeb_fc_adjust_statistics(APP, {PEER, 9}); }), lines_t({}));
    EXPECT_THAT(text(),
                testing::HasSubstr("Send to application 200/9: send 0, unack 0, reject 1, RPC reply reject 0\n"));
    EXPECT_EQ(fault::broadcasts(cond()), 0) << "and wakes nobody";
    sent(1);
    zeb_fc_adjust_statistics(APP, {PEER, 9});
    EXPECT_EQ(fault::broadcasts(cond()), 1);
}

TEST_F(zeb_flow_ctrl, a_refusal_to_no_single_instance_is_never_in_a_record)
{
    zeb_fc_update_sent_reject(APP, {PEER, ZEB_FC_NODE_ANY});
    zeb_fc_update_sent_reject(APP, {12288, 3});
    EXPECT_EQ(text(), "Application 100 overall statistics:\n"
                      "  total send 0, unack 0, mcast reject 2, RPC reply exception 0\n"
                      "  total receive 0, unack 0, exception 0\n");
}

TEST_F(zeb_flow_ctrl, a_message_returned_by_application_1_changes_no_counter)
{
    zeb_fc_update_recv_retdata(APP, {1, 9});
    EXPECT_THAT(text(), testing::Not(testing::HasSubstr("Receive from")));
}

TEST_F(zeb_flow_ctrl, an_acknowledgement_of_an_absurd_count_neither_blocks_nor_overflows)
{
    sent(5);
    for (uint32_t num : {0x7FFFFFFFu, 0x80000001u, 0xFFFFFFFFu, 0xFFFFFFFFu})
        zeb_fc_update_sent_ack(APP, {PEER, 9}, num);
    EXPECT_TRUE(accepts());
    EXPECT_THAT(text(), testing::HasSubstr("unack -2147483648,"));
}

TEST_F(zeb_flow_ctrl, without_a_record_there_is_one_error)
{
    static constexpr zeb_inst_t peer = {PEER, PEER_NODE};
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_fc_check(999, PEER, 0), -ENOENT); }),
              lines_t({"3 ZEB app 999 get flow control failed."}));
    EXPECT_EQ(logged(E, [] { zeb_fc_update_recv_drop(999, peer, 1); }),
              lines_t({"3 ZEB app 200 get flow control failed."}));
    EXPECT_EQ(logged(E, [] { zeb_fc_update_recv_drop(999, peer, 0); }), lines_t({}));
    EXPECT_EQ(logged(E, [] { zeb_fc_update_recv_retdata(999, peer); }),
              lines_t({"3 ZEB app 200 get flow control failed."}));
    const std::function<void()> others[] = {
        [] { zeb_fc_update_sent_reject(999, peer); },
        [] { zeb_fc_update_rpc_reply_exception(999, peer); },
        [] { zeb_fc_adjust_statistics(999, peer); },
        [] { zeb_fc_update_recv_exception(999); },
    };
    for (const auto &call : others)
        EXPECT_EQ(logged(15, call), lines_t({"3 ZEB app 999 get flow control failed."}));
    EXPECT_EQ(logged(E, [] { zeb_fc_reset_unack(999, peer); }), lines_t({"3 ZEB get app 999 flow ctrl info failed."}));
    EXPECT_EQ(logged(E, [] { zeb_fc_update_sent_ack(999, peer, 1); }),
              lines_t({"3 ZEB app 999 get flow control failed."}));
}

TEST_F(zeb_flow_ctrl, unknown_senders_are_counted_up_to_a_limit)
{
    list_index_t *index = &zeb_get_app_fc(APP)->recv_list.index;
    zeb_fc_update_recv_drop(APP, {PEER, 1}, 1);
    int num = index->num;
    index->num = ZEB_FC_UNKNOWN_NUM_MAX;
    EXPECT_EQ(logged(E,
                     [] {
                         zeb_fc_update_recv_drop(APP, {PEER, 2}, 1);
                     }),
              lines_t({"3 ZEB app 100 has no room for 200/2."}));
    EXPECT_TRUE(logged(E, [] { zeb_fc_update_recv_drop(APP, {PEER, 1}, 1); }).empty());
    index->num = num;
}

TEST_F(zeb_flow_ctrl, absurd_acknowledgements_of_several_peers_wrap_the_total)
{
    for (uint32_t node : {1u, 2u}) // each takes its own record to the lowest number
        zeb_fc_update_sent_ack(APP, {PEER, node}, 0xFFFFFFFF);
    zeb_fc_update_sent_ack(APP, {PEER, 3}, 1);
    int32_t total = zeb_get_app_fc(APP)->total_send_unack;
    EXPECT_EQ(total, -1);
    zeb_get_app_fc(APP)->total_send_unack = INT32_MAX;
    zeb_fc_update_sent_ok(APP, {PEER, 4});
    EXPECT_EQ(zeb_get_app_fc(APP)->total_send_unack, INT32_MIN);
    zeb_get_app_fc(APP)->total_send_unack = total + 1;
}

TEST_F(zeb_flow_ctrl, a_record_with_peers_is_removed_whole)
{
    zeb_fc_t *fc = zeb_add_app_fc(300);
    zeb_mng_stat_t *stat = zeb_add_mng_stat(300);
    zeb_app_rpc_wait_t *rpc = zeb_add_app_rpc_wait(300);
    {
        zeb_scoped_lock lock(&fc->mutex);
        (void)__zeb_get_send_app_fc(fc, {PEER, 1});
        (void)__zeb_get_recv_app_fc(fc, {PEER, 1});
    }
    auto *send = (zeb_send_mng_stat_t *)zeb_malloc(sizeof(zeb_send_mng_stat_t));
    auto *recv = (zeb_recv_mng_stat_t *)zeb_malloc(sizeof(zeb_recv_mng_stat_t));
    auto *wait = (zeb_rpc_wait_t *)zeb_malloc(sizeof(zeb_rpc_wait_t));
    list_add_tail(&send->list, &stat->send_list.list);
    list_add_tail(&recv->list, &stat->recv_list.list);
    list_add_tail(&wait->list, &rpc->wait_list.list);
    zeb_del_app_fc(fc); // a leak would be found under AddressSanitizer
    zeb_del_mng_stat(stat);
    zeb_del_app_rpc_wait(rpc);
}
