// The handshake with a scripted peer that shares no code with the library, in the older and in this version.
#include "wire_test.h"

using wire::operator+;
using wire::bytes_t;

constexpr uint32_t PEER_ID = 0x0BADCAFE;

namespace
{
// One instance's side of the handshake, as its own process would hold it. Version 1 knows the first acknowledgement
// alone and stops at what it does not know; version 2 completes by the second.
struct raw_peer {
    uint8_t ver = 2;
    bool server = true;
    uint32_t seq = 0x01020304; // of its own synchronisation
    uint32_t recv_seq = 0;     // of the library's
    uint32_t sync_id = 0;      // who synchronised with it
    uint32_t ack_id = 0;       // who acknowledged it
    bool inst = false;
    bool acked = false;

    bool online() const
    {
        return inst && acked && sync_id == ack_id;
    }

    bytes_t datagram(const bytes_t &body) const
    {
        wire::header_t header;
        header.ver = ver;
        header.flag = wire::SYNC;
        header.src_app = OTHER_APP;
        header.src_node = OTHER_NODE;
        header.dst_app = MY_APP;
        header.dst_node = MY_NODE;
        return wire::message(header, body);
    }

    bytes_t sync() const
    {
        return datagram(wire::sync_inst(seq, PEER_ID, server ? 1 : 0, 0));
    }

    bytes_t answer() const
    {
        bytes_t old_form = wire::sync_ack(recv_seq, PEER_ID, server ? 1 : 0);
        if (ver == 1)
            return datagram(old_form);
        uint32_t pseq = sync_id == ack_id ? seq : 0;
        return datagram(old_form + wire::sync_seq_ack(recv_seq, PEER_ID, server ? 1 : 0, pseq));
    }

    // One element: its words. Returns what the peer answers, or nothing.
    bytes_t element(uint16_t type, const std::vector<uint32_t> &words)
    {
        if (type == wire::SYNC_INST) {
            inst = true;
            recv_seq = words.at(0);
            sync_id = words.at(1);
            return answer();
        }
        if (type == wire::SYNC_ACK && ver == 1 && words.at(0) == seq) {
            ack_id = words.at(1);
            acked = true;
        }
        if (type == wire::SYNC_SEQ_ACK && ver == 2) {
            uint32_t pseq = words.at(5);
            if (pseq == 0 || pseq == recv_seq)
                ack_id = words.at(1);
            if (pseq != 0 && pseq == recv_seq && words.at(0) == seq)
                acked = true;
        }
        return {};
    }

    // One datagram of the library; its answers are appended to `out`.
    void take(const bytes_t &in, std::vector<bytes_t> *out)
    {
        wire::header_t header = wire::header_of(in);
        ASSERT_EQ(header.flag, wire::SYNC);
        ASSERT_EQ(header.len, in.size());
        size_t at = wire::HEADER_LEN;
        while (at < in.size()) {
            uint16_t len = wire::get16(in, at);
            uint16_t type = wire::get16(in, at + 2);
            ASSERT_GE(len, wire::ELEMENT_LEN);
            ASSERT_LE(at + len, in.size());
            std::vector<uint32_t> words;
            for (size_t i = at + wire::ELEMENT_LEN; i + 4 <= at + len; i += 4)
                words.push_back(wire::get32(in, i));
            bytes_t reply = element(type, words);
            if (!reply.empty())
                out->push_back(reply);
            at += (size_t)(len + 3) / 4 * 4;
        }
    }
};
} // namespace

class zeb_wire_peer : public wire_test
{
  protected:
    // What the library has sent reaches the peer, and the peer's answers the library, until both are silent.
    void exchange(raw_peer *peer)
    {
        for (;;) {
            std::vector<bytes_t> answers;
            auto datagrams = take_datagrams();
            for (const bytes_t &datagram : datagrams)
                peer->take(datagram, &answers);
            for (const bytes_t &answer : answers)
                feed(answer);
            if (datagrams.empty())
                return;
        }
    }

    // 2 s pass: both sides send again what is pending. The older version has no such timer.
    void retry(raw_peer *peer)
    {
        auto started = take_subscriptions();
        for (const bytes_t &subscription : started) {
            if (subscription == native({1, 0, 0, 2000, 2, wire::RETRY_TIMER}) + timer_handle(subscription))
                expire(subscription);
        }
        if (peer->ver == 2 && !peer->acked)
            feed(peer->sync());
        exchange(peer);
    }

    int send_result()
    {
        zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0);
        int ret = zeb_send(MY_APP, OTHER_APP, msg, 0);
        free(msg);
        (void)take_datagrams();
        return ret;
    }

    void expect_online(const raw_peer &peer)
    {
        EXPECT_TRUE(peer.online());
        EXPECT_EQ(peer.sync_id, pid_);
        ASSERT_EQ(events_.size(), 1u);
        EXPECT_EQ(events_[0].type, (uint32_t)ZEB_APP_JOIN);
        EXPECT_EQ(events_[0].event.app.app, OTHER_APP);
        EXPECT_EQ(events_[0].event.app.node, OTHER_NODE);
        EXPECT_EQ(send_result(), 0);
    }
};

TEST_F(zeb_wire_peer, an_old_peer_that_is_seen_first_completes)
{
    run();
    raw_peer peer;
    peer.ver = 1;
    publish();
    exchange(&peer);
    EXPECT_EQ(send_result(), -ENOENT) << "it has acknowledged, but not synchronised";
    feed(peer.sync());
    exchange(&peer);
    expect_online(peer);
}

TEST_F(zeb_wire_peer, an_old_peer_whose_synchronisation_crosses_ours_completes)
{
    run();
    raw_peer peer;
    peer.ver = 1;
    publish();
    feed(peer.sync());
    exchange(&peer);
    expect_online(peer);
    for (const bytes_t &subscription : take_subscriptions())
        EXPECT_FALSE(is_timer(subscription, wire::RETRY_TIMER));
}

TEST_F(zeb_wire_peer, a_new_peer_that_is_seen_first_completes)
{
    run();
    raw_peer peer;
    publish();
    exchange(&peer);
    EXPECT_EQ(send_result(), -ENOENT);
    feed(peer.sync());
    exchange(&peer);
    for (int i = 0; i < 3 && !peer.online(); i++)
        retry(&peer);
    retry(&peer);
    expect_online(peer);
}

TEST_F(zeb_wire_peer, a_new_peer_whose_synchronisation_crosses_ours_completes_by_the_retry)
{
    run();
    raw_peer peer;
    publish();
    feed(peer.sync());
    exchange(&peer);
    EXPECT_FALSE(peer.acked) << "both acknowledgements said pseq 0";
    EXPECT_EQ(send_result(), -ENOENT);
    retry(&peer);
    retry(&peer);
    expect_online(peer);
    retry(&peer);
    EXPECT_TRUE(take_datagrams().empty()) << "nothing is sent again any more";
}

TEST_F(zeb_wire_peer, a_new_peer_that_synchronises_before_it_is_seen_completes)
{
    run();
    raw_peer peer;
    feed(peer.sync());
    exchange(&peer);
    publish();
    exchange(&peer);
    for (int i = 0; i < 4; i++)
        retry(&peer);
    expect_online(peer);
}

TEST_F(zeb_wire_peer, a_client_completes_without_becoming_a_destination)
{
    run();
    for (uint8_t ver : {(uint8_t)1, (uint8_t)2}) {
        raw_peer peer;
        peer.ver = ver;
        peer.server = false;
        withdraw();
        publish();
        feed(peer.sync());
        exchange(&peer);
        retry(&peer);
        retry(&peer);
        EXPECT_TRUE(peer.online()) << (int)ver;
        EXPECT_TRUE(events_.empty());
        EXPECT_EQ(send_result(), -ENOENT);
        // Its messages are taken.
        wire::header_t header = from_other(0, ver);
        bodies_.clear();
        feed(wire::message(header, {'h', 'i'}));
        EXPECT_EQ(bodies_, std::vector<std::string>({"hi"}));
    }
}

TEST_F(zeb_wire_peer, a_peer_that_dies_and_comes_back_as_another_process_completes_again)
{
    run();
    for (uint8_t ver : {(uint8_t)2, (uint8_t)1, (uint8_t)2}) {
        events_.clear();
        raw_peer peer;
        peer.ver = ver;
        peer.seq += (uint32_t)ver * 1000;
        publish();
        feed(peer.sync());
        exchange(&peer);
        retry(&peer);
        retry(&peer);
        expect_online(peer);
        events_.clear();
        withdraw();
        ASSERT_EQ(events_.size(), 1u);
        EXPECT_EQ(events_[0].type, (uint32_t)ZEB_APP_QUIT);
        EXPECT_EQ(send_result(), -ENOENT);
    }
}
