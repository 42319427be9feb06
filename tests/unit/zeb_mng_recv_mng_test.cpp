// Management messages that are received.
#include "by_number.h"
#include "lib_test.h"
#include "platform/gvr.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_rpc.h"

using wire::operator+;

// The self-healing library, seen instead of obeyed.
static std::vector<std::string> s_actions;
static int s_init_result;

extern "C" int gvr_lib_common_init(void)
{
    return s_init_result;
}

extern "C" int protect_selfhealing_do_action(int action, pid_t pid, const char *module, const char *notice)
{
    s_actions.push_back(std::to_string(action) + " " + (pid == getpid() ? "self" : "other") + " " + module + " " +
                        notice);
    return 0;
}

extern "C" void protect_selfhealing_flush_buf_in_emergency(void)
{
    s_actions.emplace_back("flush");
}

class zeb_mng_recv_mng : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        peer_online();
        (void)take_seen();
    }

    lines_t manage(uint32_t mask, const wire::bytes_t &body, uint8_t flag = wire::MNG)
    {
        wire::header_t header = from_peer(flag);
        header.seq = flag == wire::MNG ? 0 : 99;
        return logged(mask, [&] { receive(wire::message(header, body)); });
    }
};

TEST_F(zeb_mng_recv_mng, an_acknowledgement_of_512_lowers_the_count_by_512)
{
    for (int i = 0; i < 600; i++)
        zeb_fc_update_sent_ok(APP, {PEER, 9});
    lines_t lines = manage(V, wire::tlv(wire::NUM_ACK, {0, 0, 2, 0}));
    EXPECT_THAT(lines, testing::IsSupersetOf(
                           {"0 ZEB app 100 recv mgmt msg from 200/9, data len 4, type processed message num ack.",
                            "0 ZEB recv ack num 512 for 100 from 200/9."}));
    EXPECT_THAT(listing(zeb_cli_print_fc_stat), testing::HasSubstr("Send to application 200/9: send 600, unack 88,"));
}

TEST_F(zeb_mng_recv_mng, two_elements_run_both_handlers_in_order)
{
    lines_t lines = manage(V | E, wire::tlv(wire::NUM_ACK, {0, 0, 0, 1}) + wire::tlv(wire::PING, {}));
    auto ack = std::find(lines.begin(), lines.end(), "0 ZEB recv ack num 1 for 100 from 200/9.");
    auto ping = std::find(lines.begin(), lines.end(), "3 ZEB app 100 recv ping request from 200/9.");
    ASSERT_NE(ack, lines.end());
    ASSERT_NE(ping, lines.end());
    EXPECT_LT(ack, ping);
    EXPECT_EQ(wire::hex(wire::body_of(fake_tipc::take_sent().at(0).bytes)), "00040007");
}

TEST_F(zeb_mng_recv_mng, with_errors_neither_printed_nor_recorded_a_ping_does_not_count_the_queue)
{
    zeb_app_info_t *info = zeb_get_app_info(APP);
    zeb_mutex_lock(&info->mutex); // counting would wait for it
    EXPECT_EQ(manage(I | W, wire::tlv(wire::PING, {})), lines_t({}));
    zeb_mutex_unlock(&info->mutex);
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u);
}

TEST_F(zeb_mng_recv_mng, a_malformed_second_element_ends_the_walk_after_the_first)
{
    for (const wire::bytes_t &bad : {wire::bytes_t{0, 3, 0, 6}, wire::bytes_t{0, 9, 0, 6}, wire::bytes_t{0, 4},
                                     wire::tlv(wire::NUM_ACK, {1, 2}), wire::tlv(wire::DEBUG_SWITCH, {1, 2, 3, 4})}) {
        lines_t lines = manage(E, wire::tlv(wire::PING_ECHO, {}) + bad);
        EXPECT_EQ(lines, lines_t({"3 ZEB app 100 recv ping echo from 200/9.",
                                  "3 ZEB recv invalid TLV section for 100 from 200/9 ."}))
            << wire::hex(bad);
    }
}

TEST_F(zeb_mng_recv_mng, synchronisation_and_unknown_elements_are_only_warned_about)
{
    for (uint16_t type : {(int)wire::SYNC_INST, (int)wire::SYNC_ACK, (int)wire::SYNC_SEQ_ACK, 10, 65535})
        EXPECT_EQ(manage(W | E, wire::tlv(type, wire::bytes_t(24, 0))),
                  lines_t({"2 ZEB app 100 recv unexpected data type " + std::to_string(type) + " from 200/9."}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_mng_recv_mng, the_debug_switch_is_in_the_senders_byte_order)
{
    int32_t cmd[2] = {3, 1};
    const uint8_t *bytes = (const uint8_t *)cmd;
    receive(wire::message(from_peer(wire::MNG), wire::tlv(wire::DEBUG_SWITCH, wire::bytes_t(bytes, bytes + 8))));
    EXPECT_EQ(g_zeb_dbg_level, 8u);
    cmd[1] = 0;
    receive(wire::message(from_peer(wire::MNG), wire::tlv(wire::DEBUG_SWITCH, wire::bytes_t(bytes, bytes + 8))));
    EXPECT_EQ(g_zeb_dbg_level, 0u);
}

TEST_F(zeb_mng_recv_mng, the_debug_switch_reaches_every_level)
{
    testing::internal::CaptureStdout();
    for (int32_t level : {0, 1, 2, 3}) {
        for (int32_t on : {1, 0}) {
            int32_t cmd[2] = {level, on};
            const uint8_t *bytes = (const uint8_t *)cmd;
            receive(
                wire::message(from_peer(wire::MNG), wire::tlv(wire::DEBUG_SWITCH, wire::bytes_t(bytes, bytes + 8))));
            EXPECT_EQ(g_zeb_dbg_level, on != 0 ? 1u << level : 0u) << level;
        }
    }
    (void)testing::internal::GetCapturedStdout();
}

TEST_F(zeb_mng_recv_mng, an_answered_request_says_nothing)
{
    for (uint16_t type : {wire::APP_INFO, wire::APP_STAT})
        EXPECT_EQ(manage(W | E, wire::tlv(type, {}), wire::MNG | wire::REQUEST), lines_t({})) << type;
    EXPECT_EQ(fake_tipc::take_sent().size(), 2u);
}

TEST_F(zeb_mng_recv_mng, an_information_request_is_answered)
{
    EXPECT_THAT(manage(V, wire::tlv(wire::APP_INFO, {}), wire::MNG | wire::REQUEST),
                testing::Contains("0 ZEB recv get app 100 info request."));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    wire::header_t header = wire::header_of(sent[0].bytes);
    EXPECT_EQ(header.flag, wire::MNG | wire::REQUEST | wire::ACK);
    EXPECT_EQ(header.seq, 99u);
    wire::bytes_t body = wire::body_of(sent[0].bytes);
    ASSERT_EQ(body.size(), 16u);
    EXPECT_EQ(wire::get16(body, 0), 16);
    EXPECT_EQ(wire::get16(body, 2), 4);
    uint32_t words[3];
    memcpy(words, body.data() + wire::ELEMENT_LEN, sizeof(words));
    EXPECT_THAT(words, testing::ElementsAre(APP, (uint32_t)getpid(), 1u));
}

TEST_F(zeb_mng_recv_mng, an_information_message_that_is_no_request_is_an_error)
{
    EXPECT_THAT(manage(E, wire::tlv(wire::APP_INFO, {})),
                testing::Contains("3 ZEB app 100 reply app info failed: Invalid argument."));
    EXPECT_THAT(manage(E, wire::tlv(wire::APP_STAT, {})),
                testing::Contains("3 ZEB app 100 reply app statistics failed: Invalid argument."));
}

TEST_F(zeb_mng_recv_mng, a_statistics_request_is_answered_with_all_listings)
{
    EXPECT_THAT(manage(V, wire::tlv(wire::APP_STAT, {}), wire::MNG | wire::REQUEST),
                testing::Contains("0 ZEB recv get app 100 statistics request."));
    wire::bytes_t body = wire::body_of(fake_tipc::take_sent().at(0).bytes);
    EXPECT_EQ(body.back(), 0) << "the text with its NUL";
    std::string text((const char *)body.data());
    EXPECT_EQ(text.size() + 1, body.size());
    size_t at = 0;
    for (const char *part : {"Application 100/7 process's ZEB library information:\n",
                             "Application 100/7 [test] information:\n", "Application 100 overall statistics:\n",
                             "Application 100 mng msg statistics:\n", "Application 100 RPC waits:\n"}) {
        size_t found = text.find(part, at);
        EXPECT_NE(found, std::string::npos) << part;
        at = found;
    }
}

TEST_F(zeb_mng_recv_mng, a_reload_is_ignored_unless_both_switches_are_on)
{
    EXPECT_EQ(manage(15 & ~V, wire::tlv(wire::RELOAD, {})).size(), 2u)
        << "only the two lines about the missing configuration file";
    write_conf("[MISC_CONF]\nzeb_blocked_resume_enabled=true\n");
    EXPECT_EQ(manage(15 & ~V, wire::tlv(wire::RELOAD, {})), lines_t({}));
    write_conf("[MISC_CONF]\nzeb_blocked_resume_enabled=false\n");
    zeb_enable_blocked_resume();
    EXPECT_EQ(manage(15 & ~V, wire::tlv(wire::RELOAD, {})), lines_t({}));
    EXPECT_TRUE(s_actions.empty());
}

TEST_F(zeb_mng_recv_mng, a_reload_with_both_switches_on_aborts_through_the_self_healing_library)
{
    write_conf("[MISC_CONF]\nzeb_blocked_resume_enabled=true\n");
    zeb_enable_blocked_resume();
    EXPECT_EQ(manage(E, wire::tlv(wire::RELOAD, {})), lines_t({"3 ZEB app 100 abort the process requested by 200/9."}));
    const std::string notice = "self ZEB app:100 abort the process requested by 200/9.\n";
    EXPECT_EQ(s_actions, lines_t({"1 " + notice, "flush", "2 " + notice}));
    EXPECT_EQ(fault::count("sleep"), 1);
}

TEST_F(zeb_mng_recv_mng, a_failing_self_healing_library_does_not_fail_the_registration)
{
    s_init_result = 5;
    lines_t lines = logged(E, [&] { start_app(300); });
    EXPECT_THAT(lines, testing::Contains("3 gvr_lib init err(ret:5)!\r"));
}

// The management daemon in its own process.

TEST_F(zeb_mng_recv_mng, the_daemon_sees_whole_messages_in_its_dispatcher)
{
    start_app(1, {4, 6});
    wire::header_t header = from_peer(wire::MNG, 9, PEER, 1);
    header.app_ver = 6;
    receive(wire::message(header, wire::tlv(wire::APP_STAT, {1, 2})), 1);
    seen_t seen = take_seen();
    ASSERT_EQ(seen.bodies.size(), 1u);
    EXPECT_EQ(seen.bodies[0].size(), 8u);
    header.app_ver = 5;
    header.flag = wire::MNG | wire::REQUEST;
    EXPECT_EQ(logged(E, [&] { receive(wire::message(header, {}), 1); }),
              lines_t({"3 ZEB get ZEBD version 5 dispatcher failed."}));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).stat, 3u);
    zeb_mismatch_info_t range;
    ASSERT_EQ(wire::body_of(sent[0].bytes).size(), sizeof(range));
    memcpy(&range, wire::body_of(sent[0].bytes).data(), sizeof(range));
    EXPECT_EQ(range.low, 4u);
    EXPECT_EQ(range.high, 6u);
    header.flag = wire::MNG;
    (void)logged(E, [&] { receive(wire::message(header, {}), 1); });
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "only requests are answered";
    header.flag = wire::MNG | wire::REQUEST | wire::ACK;
    EXPECT_THAT(logged(V, [&] { receive(wire::message(header, {}), 1); }),
                testing::Contains("0 ZEB app 1 seq 0 to 200/9 RPC wait not exist."));
}

TEST_F(zeb_mng_recv_mng, an_answer_to_the_daemon_is_filed_in_its_call)
{
    start_app(1, {4});
    zeb_reply_msg_t reply = {};
    ASSERT_EQ(zeb_rpc_prepare_wait(1, 77, &reply, 1), 0);
    ASSERT_EQ(zeb_rpc_set_wait(1, 77, {PEER, 9}), 0);
    wire::header_t header = from_peer(wire::MNG | wire::REQUEST | wire::ACK, 9, PEER, 1);
    header.seq = 77;
    receive(wire::message(header, {1, 2, 3}), 1);
    EXPECT_EQ(zeb_rpc_wait_reply(1, 77), 0);
    ASSERT_EQ(reply.num, 1);
    EXPECT_EQ(zeb_msg_data_len(reply.msg[0]), 3u);
    EXPECT_TRUE(take_seen().bodies.empty()) << "not dispatched";
    zeb_reply_msg_free(&reply);
}

TEST_F(zeb_mng_recv_mng, the_handlers_lines_are_these)
{
    EXPECT_EQ(manage(15, wire::tlv(wire::PING_ECHO, {}) + wire::tlv(wire::SYNC_SEQ_ACK, {1, 2})),
              lines_t({"0 ZEB app 100 recv new msg.",
                       "0 ZEB app 100 recv mgmt msg from 200/9, data len 0, type application ping echo.",
                       "3 ZEB app 100 recv ping echo from 200/9.",
                       "0 ZEB app 100 recv mgmt msg from 200/9, data len 2, type sync instance seq ack.",
                       "2 ZEB app 100 recv unexpected data type 9 from 200/9."}));
}

TEST_F(zeb_mng_recv_mng, an_answer_that_cannot_be_written_is_one_error)
{
    for (uint16_t type : {wire::APP_INFO, wire::APP_STAT}) {
        fault::fail_next("sendto", EHOSTUNREACH);
        lines_t lines = manage(E, wire::tlv(type, {}), wire::MNG | wire::REQUEST);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0], "3 ZEB sendto failed: No route to host.");
        EXPECT_EQ(lines[1], std::string("3 ZEB app 100 reply app ") + (type == wire::APP_INFO ? "info" : "statistics") +
                                " failed: Operation not permitted.");
    }
}

TEST_F(zeb_mng_recv_mng, a_message_to_the_daemon_in_a_process_that_is_none_is_refused)
{
    wire::header_t header = from_peer(wire::MNG, 9, PEER, 1);
    EXPECT_EQ(logged(E, [&] { receive(wire::message(header, wire::tlv(wire::APP_STAT, {}))); }),
              lines_t({"3 ZEB app 1 does not registered."}));
}
