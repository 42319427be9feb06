// The counters of synchronisation messages, as the listing shows them: in each direction, of each kind, after a
// handshake, a failed send, a returned message and a quit.
#include "lib_test.h"

#include "zeb_flow_ctrl_stat.h"

#include <zeb/zeb_diag.h>

static std::string stat_text(uint32_t app = APP)
{
    return listing(zeb_cli_print_mng_stat, app);
}

class zeb_flow_ctrl_stat : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    // The listing without its title.
    static std::string counts(uint32_t app = APP)
    {
        std::string title = "Application " + std::to_string(app) + " mng msg statistics:\n";
        std::string text = stat_text(app);
        EXPECT_EQ(text.substr(0, title.size()), title);
        return text.substr(title.size());
    }

    static std::string totals(int sent, int received)
    {
        return "  total send " + std::to_string(sent) + ", total recv " + std::to_string(received) + "\n";
    }

    static std::string to_peer(int inst, int ack, int seq_ack, int failed, const char *peer = "200/9")
    {
        return std::string("    Send to application ") + peer + ": inst " + std::to_string(inst) + ", inst ack " +
               std::to_string(ack) + ", inst seq ack " + std::to_string(seq_ack) + ", failed " +
               std::to_string(failed) + "\n";
    }

    static std::string of_peer(int inst, int ack, int seq_ack, int rejected, const char *peer = "200/9")
    {
        return std::string("    Receive from application ") + peer + ": inst " + std::to_string(inst) + ", inst ack " +
               std::to_string(ack) + ", inst seq ack " + std::to_string(seq_ack) + ",reject " +
               std::to_string(rejected) + "\n";
    }

    uint32_t publish()
    {
        (void)fake_tipc::take_sent();
        peer_published();
        return take_sync_seq();
    }

    // Our own message comes back.
    void come_back(const wire::bytes_t &body, uint8_t flag = wire::SYNC, uint32_t peer = PEER)
    {
        receive_item(returned_item(wire::message(::to_peer(flag, PEER_NODE, peer), body)));
    }

    // Runs out the timer that the last returned acknowledgement started.
    static void resend_timer()
    {
        std::vector<started_t> timers = take_timers(wire::RESEND_TIMER);
        ASSERT_FALSE(timers.empty());
        timer_expires(wire::RESEND_TIMER, timers.back().seq);
    }
};

TEST_F(zeb_flow_ctrl_stat, an_application_begins_with_nothing)
{
    EXPECT_EQ(counts(), totals(0, 0));
}

TEST_F(zeb_flow_ctrl_stat, each_message_of_a_handshake_is_counted_once)
{
    uint32_t seq = publish();
    EXPECT_EQ(counts(), totals(1, 0) + to_peer(1, 0, 0, 0));
    peer_syncs();
    EXPECT_EQ(counts(), totals(2, 1) + to_peer(1, 0, 1, 0) + of_peer(1, 0, 0, 0));
    peer_acks(seq, PEER_SEQ);
    EXPECT_EQ(counts(), totals(2, 2) + to_peer(1, 0, 1, 0) + of_peer(1, 0, 1, 0));
    EXPECT_EQ(take_seen().events.size(), 1u);
    peer_syncs();
    EXPECT_EQ(counts(), totals(3, 3) + to_peer(1, 0, 2, 0) + of_peer(2, 0, 1, 0)) << "a repetition";
}

TEST_F(zeb_flow_ctrl_stat, the_acknowledgement_of_the_older_version_has_its_own_count)
{
    wire::header_t old = from_peer(wire::SYNC);
    old.ver = 1;
    uint32_t seq = publish();
    receive(wire::message(old, wire::both_acks(seq, PEER_PID, 1, 0))); // of which it knows the first
    EXPECT_EQ(counts(), totals(1, 1) + to_peer(1, 0, 0, 0) + of_peer(0, 1, 0, 0));
}

TEST_F(zeb_flow_ctrl_stat, a_retry_counts_like_the_first_synchronisation)
{
    (void)publish();
    timer_expires(wire::RETRY_TIMER, 0);
    EXPECT_EQ(counts(), totals(2, 0) + to_peer(2, 0, 0, 0));
    fault::fail_next("sendto", EHOSTUNREACH);
    timer_expires(wire::RETRY_TIMER, 0);
    EXPECT_EQ(counts(), totals(2, 0) + to_peer(2, 0, 0, 1));
}

TEST_F(zeb_flow_ctrl_stat, what_cannot_be_sent_counts_as_failed_and_nothing_else)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    (void)publish();
    EXPECT_EQ(counts(), totals(0, 0) + to_peer(0, 0, 0, 1));
    fault::fail_next("sendto", EHOSTUNREACH);
    peer_syncs();
    EXPECT_EQ(counts(), totals(0, 1) + to_peer(0, 0, 0, 2) + of_peer(1, 0, 0, 0));
}

TEST_F(zeb_flow_ctrl_stat, an_acknowledgement_that_comes_back_counts_as_rejected_and_as_sent_once_more)
{
    peer_syncs();
    (void)fake_tipc::take_subscriptions();
    come_back(wire::both_acks(5, 6, 1, 0));
    EXPECT_EQ(counts(), totals(1, 1) + to_peer(0, 0, 1, 0) + of_peer(1, 0, 0, 1));
    resend_timer();
    EXPECT_EQ(counts(), totals(2, 1) + to_peer(0, 1, 1, 0) + of_peer(1, 0, 0, 1));
    come_back(wire::sync_seq_ack(5, 6, 1, 0));
    resend_timer();
    EXPECT_EQ(counts(), totals(3, 1) + to_peer(0, 1, 2, 0) + of_peer(1, 0, 0, 2));
    come_back(wire::sync_ack(5, 6, 1));
    fault::fail_next("sendto", EHOSTUNREACH);
    resend_timer();
    EXPECT_EQ(counts(), totals(3, 1) + to_peer(0, 1, 2, 1) + of_peer(1, 0, 0, 3));
}

TEST_F(zeb_flow_ctrl_stat, a_synchronisation_that_comes_back_counts_as_rejected)
{
    (void)publish();
    come_back(wire::sync_inst(5, 6, 1, 0));
    EXPECT_EQ(counts(), totals(1, 0) + to_peer(1, 0, 0, 0) + of_peer(0, 0, 0, 1));
}

TEST_F(zeb_flow_ctrl_stat, other_messages_that_come_back_and_those_to_the_daemon_do_not_count)
{
    come_back({1, 2, 3}, 0);
    come_back({1, 2, 3}, wire::MNG);
    come_back(wire::sync_inst(5, 6, 1, 0), wire::SYNC, 1);
    EXPECT_EQ(counts(), totals(0, 0));
}

TEST_F(zeb_flow_ctrl_stat, peers_and_applications_have_counts_of_their_own)
{
    start_app(APP + 1);
    peer_published(3);
    peer_published(4);
    peer_syncs(PEER_SEQ, 4, PEER, APP + 1);
    EXPECT_EQ(counts(), totals(2, 0) + to_peer(1, 0, 0, 0, "200/3") + to_peer(1, 0, 0, 0, "200/4"));
    EXPECT_EQ(counts(APP + 1), totals(3, 1) + to_peer(1, 0, 0, 0, "200/3") + to_peer(1, 0, 1, 0, "200/4") +
                                   of_peer(1, 0, 0, 0, "200/4"));
}

TEST_F(zeb_flow_ctrl_stat, a_quit_clears_the_counts_of_the_instance_and_takes_them_off_the_totals)
{
    uint32_t seq = publish();
    fault::fail_next("sendto", EHOSTUNREACH);
    timer_expires(wire::RETRY_TIMER, 0); // a failed one
    peer_syncs();
    peer_acks(seq, PEER_SEQ);
    peer_acks(seq, 0, older_peer());
    (void)fake_tipc::take_subscriptions();
    come_back(wire::sync_ack(5, 6, 1));
    resend_timer();
    peer_published(4);
    EXPECT_EQ(counts(), totals(4, 3) + to_peer(1, 1, 1, 1) + to_peer(1, 0, 0, 0, "200/4") + of_peer(1, 1, 1, 1));
    peer_withdrawn();
    EXPECT_EQ(counts(), totals(1, 0) + to_peer(0, 0, 0, 0) + to_peer(1, 0, 0, 0, "200/4") + of_peer(0, 0, 0, 0));
}

// The counters by the calls that count.

TEST_F(zeb_flow_ctrl_stat, synchronisation_messages_are_counted_by_type)
{
    for (int type : {1, 1, 1, 2, 9})
        zeb_mng_stat_update_sent(APP, {PEER, 9}, type);
    for (int type : {1, 2, 9, 9})
        zeb_mng_stat_update_recv(APP, {PEER, 9}, type);
    zeb_mng_stat_update_send_fail(APP, {PEER, 9});
    zeb_mng_stat_update_recv_reject(APP, {PEER, 9});
    EXPECT_EQ(stat_text(), "Application 100 mng msg statistics:\n"
                           "  total send 5, total recv 4\n"
                           "    Send to application 200/9: inst 3, inst ack 1, inst seq ack 1, failed 1\n"
                           "    Receive from application 200/9: inst 1, inst ack 1, inst seq ack 2,reject 1\n");
    EXPECT_EQ(logged(I,
                     [] {
                         zeb_clean_mng_msg_stat(APP, {PEER, 9});
                     }),
              lines_t({"1 ZEB clean mng msg stat between app 100 and 200/9."}));
    EXPECT_EQ(stat_text(), "Application 100 mng msg statistics:\n"
                           "  total send 0, total recv 0\n"
                           "    Send to application 200/9: inst 0, inst ack 0, inst seq ack 0, failed 0\n"
                           "    Receive from application 200/9: inst 0, inst ack 0, inst seq ack 0,reject 0\n");
}

TEST_F(zeb_flow_ctrl_stat, cleaning_lowers_the_total_by_what_was_counted)
{
    for (int type : {1, 1, 1, 2})
        zeb_mng_stat_update_sent(APP, {PEER, 9}, type);
    zeb_mng_stat_update_sent(APP, {PEER, 10}, 1);
    zeb_clean_mng_msg_stat(APP, {PEER, 9});
    EXPECT_THAT(stat_text(), testing::HasSubstr("total send 1, total recv 0\n"));
}

TEST_F(zeb_flow_ctrl_stat, another_type_is_warned_about_but_makes_the_record)
{
    EXPECT_EQ(logged(W,
                     [] {
                         zeb_mng_stat_update_sent(APP, {PEER, 9}, 0);
                     }),
              lines_t({"2 ZEB app 100 update send mng msg stat type 0 not support."}));
    EXPECT_EQ(logged(W,
                     [] {
                         zeb_mng_stat_update_recv(APP, {PEER, 9}, 3);
                     }),
              lines_t({"2 ZEB app 100 update recv mng msg stat type 3 not support."}));
    EXPECT_EQ(stat_text(), "Application 100 mng msg statistics:\n"
                           "  total send 0, total recv 0\n"
                           "    Send to application 200/9: inst 0, inst ack 0, inst seq ack 0, failed 0\n"
                           "    Receive from application 200/9: inst 0, inst ack 0, inst seq ack 0,reject 0\n");
}

TEST_F(zeb_flow_ctrl_stat, a_synchronisation_returned_by_application_1_changes_no_counter)
{
    zeb_mng_stat_update_recv_reject(APP, {1, 9});
    EXPECT_EQ(stat_text(), "Application 100 mng msg statistics:\n  total send 0, total recv 0\n");
}

TEST_F(zeb_flow_ctrl_stat, statistics_of_an_unknown_application_are_one_error)
{
    const std::function<void()> calls[] = {
        [] { zeb_mng_stat_update_sent(999, {PEER, 9}, 1); },   [] { zeb_mng_stat_update_recv(999, {PEER, 9}, 1); },
        [] { zeb_mng_stat_update_send_fail(999, {PEER, 9}); }, [] { zeb_mng_stat_update_recv_reject(999, {PEER, 9}); },
        [] { zeb_clean_mng_msg_stat(999, {PEER, 9}); },
    };
    for (const auto &call : calls)
        EXPECT_EQ(logged(E, call), lines_t({"3 ZEB app 999 get mng msg stat failed."}));
    EXPECT_EQ(listing(zeb_cli_print_mng_stat, 999), "");
}

TEST_F(zeb_flow_ctrl_stat, the_lines_of_the_statistics_are_these)
{
    EXPECT_EQ(logged(15,
                     [] {
                         zeb_mng_stat_update_sent(APP, {PEER, 9}, 2);
                         zeb_mng_stat_update_recv(APP, {PEER, 9}, 9);
                         zeb_mng_stat_update_send_fail(APP, {PEER, 9});
                         zeb_mng_stat_update_recv_reject(APP, {PEER, 9});
                         zeb_clean_mng_msg_stat(APP, {PEER, 10});
                     }),
              lines_t({"0 ZEB app 100 update send mng msg stat to 200/9, type 2.",
                       "0 ZEB app 100 add new send mng msg stat to 200/9.",
                       "0 ZEB app 100 update recv mng msg stat to 200/9, type 9.",
                       "0 ZEB app 100 add new recv mng msg stat from 200/9.",
                       "0 ZEB app 100 update send fail mng msg to 200/9.",
                       "0 ZEB app 100 update recv reject mng msg from 200/9.",
                       "1 ZEB clean mng msg stat between app 100 and 200/10.",
                       "0 ZEB app 100 add new recv mng msg stat from 200/10.",
                       "0 ZEB app 100 add new send mng msg stat to 200/10."}));
}
