// The recorder's queue, and files of messages: what goes in comes out, and nothing in a file is trusted.
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <linux/tipc.h>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

#include "recorder.h"
#include "shared_memory.h"

namespace
{
class sim_record : public shared_memory
{
  protected:
    sim_record() : shared_memory(11, 12)
    {
    }
    uint32_t send(const sim_socket_t *from, const sim_socket_t *to, const std::string &text, uint32_t kind = SIM_DATA,
                  bool droppable = true)
    {
        sim_record_t head = record(from, to, (uint32_t)text.size());
        head.kind = kind;
        head.droppable = droppable ? 1 : 0;
        struct iovec part = {const_cast<char *>(text.data()), text.size()};
        return sim_deliver(&self_, sim_message(&self_, &head, &part, 1));
    }
    std::vector<packet_t> taken()
    {
        std::vector<packet_t> packets;
        for (packet_t packet; recorder_take(&recorder_, true, &packet);)
            packets.push_back(packet);
        return packets;
    }

    recorder_t recorder_ = {};
};

TEST_F(sim_record, a_message_is_recorded_with_its_first_bytes)
{
    sim_socket_t *from = open_socket();
    sim_socket_t *to = open_socket(SOCK_RDM, 1);
    ASSERT_EQ(recorder_open(&recorder_, &self_, 4), 0);
    ASSERT_EQ(send(from, to, "sunny"), (uint32_t)TIPC_OK);
    std::vector<packet_t> packets = taken();
    ASSERT_EQ(packets.size(), 1U);
    const packet_t &packet = packets[0];
    EXPECT_EQ(packet.from, 11U);
    EXPECT_EQ(packet.from_port, from->port);
    EXPECT_EQ(packet.to, 12U);
    EXPECT_EQ(packet.to_port, to->port);
    EXPECT_EQ(packet.form, (uint32_t)CAPTURE_DIRECT);
    EXPECT_EQ(packet.len, 5U);
    EXPECT_EQ(std::string(packet.data.begin(), packet.data.end()), "sunn");
    EXPECT_EQ(packet.note, "");
    recorder_close(&recorder_);
}

TEST_F(sim_record, nothing_is_copied_without_a_recorder_or_after_it)
{
    sim_socket_t *to = open_socket();
    uint32_t before = blocks_in_use();
    ASSERT_EQ(send(to, to, "1"), (uint32_t)TIPC_OK);
    EXPECT_EQ(blocks_in_use(), before + 1);
    sim_record_t record = {};
    EXPECT_EQ(sim_tap_copy(&self_, &record, nullptr), nullptr);
    ASSERT_EQ(recorder_open(&recorder_, &self_, 10), 0);
    recorder_stop(&recorder_);
    ASSERT_EQ(send(to, to, "2"), (uint32_t)TIPC_OK);
    EXPECT_TRUE(taken().empty());
    recorder_close(&recorder_);
    EXPECT_EQ(blocks_in_use(), before + 2);
}

TEST_F(sim_record, every_block_is_free_when_a_recorder_ends_with_copies_in_its_queue)
{
    sim_socket_t *to = open_socket();
    uint32_t before = blocks_in_use();
    ASSERT_EQ(recorder_open(&recorder_, &self_, SIM_MAX_DATA), 0);
    for (size_t len : {0U, 100U, 1000U, 5000U, SIM_MAX_DATA})
        ASSERT_EQ(send(to, to, std::string(len, 'x')), (uint32_t)TIPC_OK);
    recorder_close(&recorder_);
    EXPECT_EQ(blocks_in_use(), before + 5);
}

TEST_F(sim_record, what_became_of_a_message_is_told)
{
    sim_socket_t *from = open_socket();
    sim_socket_t *to = open_socket(SOCK_RDM, 1);
    sim_socket_t *full = open_socket();
    full->rcvbuf = 1;
    sim_socket_t gone = *to;
    gone.port += SIM_MAX_SOCKETS;
    ASSERT_EQ(recorder_open(&recorder_, &self_, 0), 0);
    ASSERT_EQ(send(from, &gone, "1"), (uint32_t)TIPC_ERR_NO_PORT);
    ASSERT_EQ(send(from, full, "2", SIM_DATA, false), (uint32_t)TIPC_ERR_OVERLOAD);
    sim_break(state()->cut, 0, 1, true, true);
    sim_break(state()->down, 0, 1, true, true);
    ASSERT_EQ(send(from, to, "3"), (uint32_t)TIPC_OK);
    sim_record_t record = {};
    sim_tap_lost(&self_, &record, nullptr, SIM_FATE_LOSS);
    std::vector<packet_t> packets = taken();
    ASSERT_EQ(packets.size(), 4U);
    EXPECT_EQ(packets[0].note, "refused: no port, dropped");
    EXPECT_EQ(packets[1].note, "refused: overload");
    EXPECT_EQ(packets[2].note, "lost: the link is cut");
    EXPECT_EQ(packets[3].note, "lost on the link");
    recorder_close(&recorder_);
}

TEST_F(sim_record, a_connection_is_recorded_step_by_step_and_its_first_data_once)
{
    sim_socket_t *client = open_socket(SOCK_SEQPACKET);
    sim_socket_t *listener = open_socket(SOCK_SEQPACKET, 1);
    listener->conn = sim_conn(SIM_CONN_LISTEN, 0);
    client->conn = sim_conn(SIM_CONN_CONNECTING, client->port);
    ASSERT_EQ(recorder_open(&recorder_, &self_, 100), 0);
    ASSERT_EQ(send(client, listener, "first", SIM_SYN), (uint32_t)TIPC_OK);
    sim_socket_t *accepted = open_socket(SOCK_SEQPACKET, 1);
    ASSERT_TRUE(sim_accept(&self_, listener, accepted));
    ASSERT_EQ(send(client, accepted, "more", SIM_CONN_DATA), (uint32_t)TIPC_OK);
    sim_disconnect(&self_, client, TIPC_CONN_SHUTDOWN);
    std::vector<packet_t> packets = taken();
    ASSERT_EQ(packets.size(), 4U);
    EXPECT_TRUE(packets[0].syn);
    EXPECT_EQ(packets[0].len, 5U);
    EXPECT_EQ(packets[1].note, "connection accepted");
    EXPECT_EQ(packets[1].from, 12U);
    EXPECT_EQ(packets[2].form, (uint32_t)CAPTURE_CONN);
    EXPECT_EQ(packets[2].len, 4U);
    EXPECT_EQ(packets[3].err, (uint32_t)TIPC_CONN_SHUTDOWN);
    recorder_close(&recorder_);
}

TEST_F(sim_record, a_recorder_that_reads_nothing_holds_nobody_up_and_what_it_misses_is_counted)
{
    sim_socket_t *to = open_socket();
    sim_link_t at;
    ASSERT_EQ(recorder_open(&recorder_, &self_, SIM_MAX_DATA), 0);
    std::string text(SIM_MAX_DATA, 'x');
    uint32_t sent = 0;
    g_woken = 0;
    for (; recorder_lost(&recorder_) < 3; sent++) {
        ASSERT_EQ(send(to, to, text), (uint32_t)TIPC_OK);
        sim_block_t *block = sim_queue_first(state(), to, &at);
        ASSERT_TRUE(sim_queue_pop(state(), to, at, block));
        sim_block_release(state(), block);
        to->woken = 0;
    }
    EXPECT_EQ(g_woken, sent) << "for the receiver; the recorder needs none";
    EXPECT_EQ(taken().size(), sent - 3);
    EXPECT_LE((uint64_t)sent * SIM_MAX_DATA, SIM_TAP_LIMIT + 4ULL * SIM_MAX_DATA);
    recorder_close(&recorder_);
}

TEST_F(sim_record, one_records_at_a_time_and_the_place_of_one_that_is_gone_is_free)
{
    sim_socket_t *to = open_socket();
    recorder_t other = {};
    ASSERT_EQ(recorder_open(&recorder_, &self_, 10), 0);
    EXPECT_EQ(recorder_open(&other, &self_, 10), -EBUSY);
    sim_socket_close(&self_, recorder_.socket, true); // as the broker does when the process was killed
    EXPECT_NE(state()->recorder, SIM_NONE);
    ASSERT_EQ(send(to, to, "x"), (uint32_t)TIPC_OK);
    EXPECT_EQ(state()->recorder, SIM_NONE) << "the first sender has noticed";
    EXPECT_EQ(recorder_open(&other, &self_, 10), 0);
    recorder_close(&other);
    (void)close(recorder_.mark);
}

TEST_F(sim_record, messages_come_in_the_order_of_their_times_and_not_before_an_earlier_one_may_come)
{
    sim_socket_t *to = open_socket();
    ASSERT_EQ(recorder_open(&recorder_, &self_, 10), 0);
    sim_record_t record = {};
    record.len = 1;
    record.dst_port = to->port;
    sim_block_t *early = sim_tap_copy(&self_, &record, (const uint8_t *)"1");
    sim_block_t *late = sim_tap_copy(&self_, &record, (const uint8_t *)"2");
    sim_tap_put(&self_, late, SIM_FATE_TAKEN, 0);
    packet_t packet;
    EXPECT_FALSE(recorder_take(&recorder_, false, &packet)) << "it is younger than a sender may be held up";
    sim_tap_put(&self_, early, SIM_FATE_TAKEN, 0);
    ASSERT_TRUE(recorder_take(&recorder_, true, &packet));
    EXPECT_EQ(packet.data[0], '1');
    ASSERT_TRUE(recorder_take(&recorder_, true, &packet));
    EXPECT_EQ(packet.data[0], '2');
    recorder_close(&recorder_);
}

TEST_F(sim_record, what_a_program_sends_to_the_recorder_is_no_copy)
{
    sim_socket_t *from = open_socket();
    ASSERT_EQ(recorder_open(&recorder_, &self_, 10), 0);
    recorder_stop(&recorder_);
    ASSERT_EQ(send(from, recorder_.socket, std::string(sizeof(sim_tap_t), '\0')), (uint32_t)TIPC_OK);
    EXPECT_TRUE(taken().empty());
    recorder_close(&recorder_);
}

packet_t packet_of(uint32_t form, uint32_t err, size_t bytes, const std::string &note)
{
    packet_t packet;
    packet.time = 1795351868616292430U;
    packet.from = 0x01001001;
    packet.from_port = 268517380;
    packet.to = 2;
    packet.to_port = 77;
    packet.form = form;
    packet.importance = TIPC_HIGH_IMPORTANCE;
    packet.syn = form == CAPTURE_NAMED && bytes == 0;
    packet.droppable = bytes != 0;
    packet.err = err;
    if (form == CAPTURE_NAMED || form == CAPTURE_MCAST) {
        packet.type = 30000;
        packet.lower = 5;
        packet.upper = form == CAPTURE_MCAST ? 9 : 5;
    }
    packet.len = (uint32_t)bytes + 300;
    packet.data.assign(bytes, 'x');
    packet.note = note;
    return packet;
}

std::vector<packet_t> some_packets()
{
    return {packet_of(CAPTURE_DIRECT, 0, 3, ""),
            packet_of(CAPTURE_NAMED, 0, 0, "refused: overload"),
            packet_of(CAPTURE_MCAST, 0, 128, "lost on the link"),
            packet_of(CAPTURE_CONN, 0, 1, "connection accepted"),
            packet_of(CAPTURE_CONN, 5, 0, ""),
            packet_of(CAPTURE_NAMED, 2, 7, "")};
}

std::string file_of(const std::vector<packet_t> &packets)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *file = open_memstream(&text, &size);
    EXPECT_TRUE(capture_begin(file, "boards"));
    for (const packet_t &packet : packets)
        EXPECT_TRUE(capture_add(file, packet));
    EXPECT_TRUE(capture_end(file, packets.back().time, packets.size(), 4));
    (void)fclose(file);
    std::string bytes(text, size);
    free(text);
    return bytes;
}

std::vector<packet_t> packets_of(const std::string &bytes, std::string *why)
{
    capture_t capture = {};
    std::vector<packet_t> packets;
    capture.file = fmemopen(const_cast<char *>(bytes.data()), bytes.size(), "r");
    for (packet_t packet; capture.file != nullptr && capture_next(&capture, &packet);)
        packets.push_back(packet);
    if (capture.file != nullptr)
        (void)fclose(capture.file);
    *why = capture.why;
    return packets;
}

TEST(sim_capture, every_kind_of_message_is_read_as_it_was_written)
{
    std::string why;
    std::vector<packet_t> wrote = some_packets();
    std::vector<packet_t> read = packets_of(file_of(wrote), &why);
    EXPECT_EQ(why, "");
    ASSERT_EQ(read.size(), wrote.size());
    for (size_t i = 0; i < read.size(); i++) {
        EXPECT_EQ(capture_line(read[i]), capture_line(wrote[i]));
        EXPECT_EQ(read[i].time, wrote[i].time);
        EXPECT_EQ(read[i].importance, wrote[i].importance);
        EXPECT_EQ(read[i].droppable, wrote[i].droppable);
        EXPECT_EQ(read[i].data, wrote[i].data);
        EXPECT_EQ(read[i].note, wrote[i].note);
    }
}

TEST(sim_capture, a_line_has_the_ends_the_name_the_length_and_what_became_of_it)
{
    EXPECT_NE(capture_line(packet_of(CAPTURE_NAMED, 2, 7, "")).find(" 30000:5 307 bytes data, returned: no port"),
              std::string::npos);
    EXPECT_NE(
        capture_line(packet_of(CAPTURE_MCAST, 0, 1, "lost\x1b on")).find("30000:5-9 301 bytes multicast, lost? on"),
        std::string::npos);
    EXPECT_NE(capture_line(packet_of(CAPTURE_CONN, 0, 1, "")).find("16781313:268517380 > 2:77 - 301 bytes connection"),
              std::string::npos);
}

TEST(sim_capture, a_file_that_ends_early_gives_what_it_has)
{
    std::string whole = file_of(some_packets());
    std::string why;
    for (size_t size = 1; size < whole.size(); size++) {
        std::vector<packet_t> read = packets_of(whole.substr(0, size), &why);
        EXPECT_LE(read.size(), some_packets().size());
        EXPECT_TRUE(!why.empty() || size % 4 == 0) << "it ends between two blocks";
    }
}

TEST(sim_capture, no_change_of_a_file_is_harmful)
{
    const std::string whole = file_of(some_packets());
    std::minstd_rand random(1);
    std::string why;
    size_t read = 0;
    for (int round = 0; round < 20000; round++) {
        std::string file = whole;
        for (int i = 0; i < 3; i++)
            file[random() % file.size()] = (char)random();
        read += packets_of(file, &why).size();
    }
    EXPECT_GT(read, 0U);
}

TEST(sim_capture, another_file_is_refused)
{
    std::string why;
    EXPECT_TRUE(packets_of("#!/bin/sh\nexit 0\n", &why).empty());
    EXPECT_EQ(why, "it is no pcapng file");
}
} // namespace
