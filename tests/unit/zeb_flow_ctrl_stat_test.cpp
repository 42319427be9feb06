// The counters of synchronisation messages, as the listing shows them: in each direction, of each kind, after a
// handshake, a failed send, a returned message and a quit.
#include "lib_test.h"

#include <zeb/zeb_diag.h>

using wire::operator+;

class zeb_flow_ctrl_stat : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    // The listing without its title.
    static std::string listing(uint32_t app = APP)
    {
        zeb_buf_printf_reset();
        zeb_cli_print_mng_stat(app);
        std::string title = "Application " + std::to_string(app) + " mng msg statistics:\n";
        std::string text = buffer_text();
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
        auto sent = fake_tipc::take_sent();
        return sent.empty() ? 0 : sync_word(sent[0].bytes, 0);
    }

    void acknowledge(uint32_t seq, uint8_t ver = 2)
    {
        wire::header_t header = from_peer(wire::SYNC);
        header.ver = ver;
        receive(wire::message(header, wire::sync_ack(seq, PEER_PID, 1) +
                                          wire::sync_seq_ack(seq, PEER_PID, 1, ver == 2 ? PEER_SEQ : 0)));
    }

    // Our own message comes back.
    void returned(const wire::bytes_t &body, uint8_t flag = wire::SYNC, uint32_t peer = PEER)
    {
        wire::header_t header;
        header.flag = flag;
        header.src_app = APP;
        header.src_node = NODE;
        header.dst_app = peer;
        header.dst_node = PEER_NODE;
        fake_tipc::item_t item;
        item.anc.push_back({TIPC_RETDATA, wire::message(header, body)});
        receive_item(item);
    }

    // Runs out the timer that the last returned acknowledgement started.
    static void resend_timer()
    {
        uint32_t words[7] = {};
        for (const wire::bytes_t &bytes : fake_tipc::take_subscriptions())
            memcpy(words, bytes.data(), sizeof(words));
        ASSERT_EQ(words[5], 1u) << "the resend timer";
        timer_expires(1, words[6]);
    }
};

TEST_F(zeb_flow_ctrl_stat, an_application_begins_with_nothing)
{
    EXPECT_EQ(listing(), totals(0, 0));
}

TEST_F(zeb_flow_ctrl_stat, each_message_of_a_handshake_is_counted_once)
{
    uint32_t seq = publish();
    EXPECT_EQ(listing(), totals(1, 0) + to_peer(1, 0, 0, 0));
    peer_syncs();
    EXPECT_EQ(listing(), totals(2, 1) + to_peer(1, 0, 1, 0) + of_peer(1, 0, 0, 0));
    acknowledge(seq);
    EXPECT_EQ(listing(), totals(2, 2) + to_peer(1, 0, 1, 0) + of_peer(1, 0, 1, 0));
    EXPECT_EQ(take_seen().events.size(), 1u);
    peer_syncs();
    EXPECT_EQ(listing(), totals(3, 3) + to_peer(1, 0, 2, 0) + of_peer(2, 0, 1, 0)) << "a repetition";
}

TEST_F(zeb_flow_ctrl_stat, the_acknowledgement_of_the_older_version_has_its_own_count)
{
    uint32_t seq = publish();
    acknowledge(seq, 1);
    EXPECT_EQ(listing(), totals(1, 1) + to_peer(1, 0, 0, 0) + of_peer(0, 1, 0, 0));
}

TEST_F(zeb_flow_ctrl_stat, a_retry_counts_like_the_first_synchronisation)
{
    (void)publish();
    timer_expires(3, 0);
    EXPECT_EQ(listing(), totals(2, 0) + to_peer(2, 0, 0, 0));
    fault::fail_next("sendto", EHOSTUNREACH);
    timer_expires(3, 0);
    EXPECT_EQ(listing(), totals(2, 0) + to_peer(2, 0, 0, 1));
}

TEST_F(zeb_flow_ctrl_stat, what_cannot_be_sent_counts_as_failed_and_nothing_else)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    (void)publish();
    EXPECT_EQ(listing(), totals(0, 0) + to_peer(0, 0, 0, 1));
    fault::fail_next("sendto", EHOSTUNREACH);
    peer_syncs();
    EXPECT_EQ(listing(), totals(0, 1) + to_peer(0, 0, 0, 2) + of_peer(1, 0, 0, 0));
}

TEST_F(zeb_flow_ctrl_stat, an_acknowledgement_that_comes_back_counts_as_rejected_and_as_sent_once_more)
{
    peer_syncs();
    (void)fake_tipc::take_subscriptions();
    returned(wire::sync_ack(5, 6, 1) + wire::sync_seq_ack(5, 6, 1, 0));
    EXPECT_EQ(listing(), totals(1, 1) + to_peer(0, 0, 1, 0) + of_peer(1, 0, 0, 1));
    resend_timer();
    EXPECT_EQ(listing(), totals(2, 1) + to_peer(0, 1, 1, 0) + of_peer(1, 0, 0, 1));
    returned(wire::sync_seq_ack(5, 6, 1, 0));
    resend_timer();
    EXPECT_EQ(listing(), totals(3, 1) + to_peer(0, 1, 2, 0) + of_peer(1, 0, 0, 2));
    returned(wire::sync_ack(5, 6, 1));
    fault::fail_next("sendto", EHOSTUNREACH);
    resend_timer();
    EXPECT_EQ(listing(), totals(3, 1) + to_peer(0, 1, 2, 1) + of_peer(1, 0, 0, 3));
}

TEST_F(zeb_flow_ctrl_stat, a_synchronisation_that_comes_back_counts_as_rejected)
{
    (void)publish();
    returned(wire::sync_inst(5, 6, 1, 0));
    EXPECT_EQ(listing(), totals(1, 0) + to_peer(1, 0, 0, 0) + of_peer(0, 0, 0, 1));
}

TEST_F(zeb_flow_ctrl_stat, other_messages_that_come_back_and_those_to_the_daemon_do_not_count)
{
    returned({1, 2, 3}, 0);
    returned({1, 2, 3}, wire::MNG);
    returned(wire::sync_inst(5, 6, 1, 0), wire::SYNC, 1);
    EXPECT_EQ(listing(), totals(0, 0));
}

TEST_F(zeb_flow_ctrl_stat, peers_and_applications_have_counts_of_their_own)
{
    start_app(APP + 1);
    peer_published(3);
    peer_published(4);
    peer_syncs(PEER_SEQ, 4, PEER, APP + 1);
    EXPECT_EQ(listing(), totals(2, 0) + to_peer(1, 0, 0, 0, "200/3") + to_peer(1, 0, 0, 0, "200/4"));
    EXPECT_EQ(listing(APP + 1), totals(3, 1) + to_peer(1, 0, 0, 0, "200/3") + to_peer(1, 0, 1, 0, "200/4") +
                                    of_peer(1, 0, 0, 0, "200/4"));
}

TEST_F(zeb_flow_ctrl_stat, a_quit_clears_the_counts_of_the_instance_and_takes_them_off_the_totals)
{
    uint32_t seq = publish();
    fault::fail_next("sendto", EHOSTUNREACH);
    timer_expires(3, 0); // a failed one
    peer_syncs();
    acknowledge(seq);
    acknowledge(seq, 1);
    (void)fake_tipc::take_subscriptions();
    returned(wire::sync_ack(5, 6, 1));
    resend_timer();
    peer_published(4);
    EXPECT_EQ(listing(), totals(4, 3) + to_peer(1, 1, 1, 1) + to_peer(1, 0, 0, 0, "200/4") + of_peer(1, 1, 1, 1));
    peer_withdrawn();
    EXPECT_EQ(listing(), totals(1, 0) + to_peer(0, 0, 0, 0) + to_peer(1, 0, 0, 0, "200/4") + of_peer(0, 0, 0, 0));
}
