// The simulator's shared memory without a broker: queues, blocks and names, also under processes that are killed and
// stopped at any instruction.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <linux/tipc.h>
#include <random>
#include <sched.h>
#include <set>
#include <sys/mman.h>
#include <sys/wait.h>

#include "shared_memory.h"
#include "sim_sys.h"

namespace
{
class sim_memory : public shared_memory
{
  protected:
    uint32_t send(const sim_socket_t *from, const sim_socket_t *to, const std::string &text, bool returnable = false)
    {
        sim_record_t head = record(from, to, (uint32_t)text.size());
        head.droppable = returnable ? 0 : 1;
        struct iovec part = {const_cast<char *>(text.data()), text.size()};
        sim_block_t *block = sim_message(&self_, &head, &part, 1);
        return block != nullptr ? sim_deliver(&self_, block) : UINT32_MAX;
    }
    std::string receive(sim_socket_t *socket) // "-" when there is nothing
    {
        sim_link_t at;
        sim_block_t *block = sim_queue_first(state(), socket, &at);
        if (block == nullptr || !sim_queue_pop(state(), socket, at, block))
            return "-";
        std::string text((const char *)block->data, block->record.len);
        if (block->record.err != 0)
            text = "returned " + std::to_string(block->record.err) + " " + text;
        sim_block_release(state(), block);
        return text;
    }
};

TEST_F(sim_memory, messages_leave_a_queue_in_the_order_in_which_they_came)
{
    sim_socket_t *to = open_socket();
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(send(to, to, std::to_string(i)), (uint32_t)TIPC_OK);
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(receive(to), std::to_string(i));
    EXPECT_EQ(receive(to), "-");
}

TEST_F(sim_memory, every_block_is_free_after_a_socket_was_closed)
{
    uint32_t before = blocks_in_use();
    sim_socket_t *to = open_socket();
    for (size_t len : {0U, 100U, 1000U, 5000U, 66000U})
        ASSERT_EQ(send(to, to, std::string(len, 'x')), (uint32_t)TIPC_OK);
    EXPECT_EQ(blocks_in_use(), before + 6);
    sim_socket_close(&self_, to, true);
    EXPECT_EQ(blocks_in_use(), before);
}

TEST_F(sim_memory, a_queue_refuses_what_exceeds_its_limit_and_takes_more_after_a_read)
{
    sim_socket_t *to = open_socket();
    to->rcvbuf = 10 * sim_queue_charge(1);
    for (int i = 0; i < 9; i++)
        ASSERT_EQ(send(to, to, "x"), (uint32_t)TIPC_OK) << i;
    EXPECT_EQ(send(to, to, "x"), (uint32_t)TIPC_ERR_OVERLOAD);
    EXPECT_EQ(receive(to), "x");
    EXPECT_EQ(send(to, to, "x"), (uint32_t)TIPC_OK);
}

TEST_F(sim_memory, unread_messages_of_a_closed_socket_come_back)
{
    sim_socket_t *from = open_socket();
    sim_socket_t *to = open_socket();
    ASSERT_EQ(send(from, to, "one", true), (uint32_t)TIPC_OK);
    ASSERT_EQ(send(from, to, "two"), (uint32_t)TIPC_OK);
    sim_socket_close(&self_, to, true);
    EXPECT_EQ(receive(from), "returned 2 one");
    EXPECT_EQ(receive(from), "-");
}

TEST_F(sim_memory, a_socket_whose_maker_was_killed_before_it_had_a_port_leaves_no_block)
{
    sim_socket_t *other = open_socket();
    uint32_t before = blocks_in_use();
    sim_socket_t *half = sim_socket_take(&self_, SOCK_RDM, 0, getpid());
    half->port = SIM_NONE; // as in a slot that was never in use: the port is written last
    sim_self_t broker = {&cluster_, 2, self_.grow, self_.wake};
    sim_socket_inherit(&broker, half, self_.owner);
    EXPECT_EQ(half->use, (uint32_t)SIM_SLOT_FREE);
    EXPECT_EQ(blocks_in_use(), before);
    EXPECT_EQ(send(other, other, "x"), (uint32_t)TIPC_OK) << "the other one's blocks are its own";
}

TEST_F(sim_memory, a_block_on_its_way_into_a_queue_is_the_senders_alone_until_it_is_there)
{
    sim_socket_t *to = open_socket();
    uint32_t slot = sim_socket_index(state(), to);
    uint32_t before = blocks_in_use();
    sim_self_t sender = {&cluster_, 2, self_.grow, self_.wake};
    sim_block_t *block = sim_block_take(&sender, 10);
    sim_block_own(state(), block, sim_owner_sending(slot, sender.owner)); // and it is stopped there
    sim_socket_close(&self_, to, true);
    EXPECT_EQ(blocks_in_use(), before) << "one less, and the sender's";
    sim_blocks_reclaim(state(), self_.owner);
    EXPECT_EQ(blocks_in_use(), before);
    sim_blocks_reclaim(state(), sender.owner);
    EXPECT_EQ(blocks_in_use(), before - 1) << "the sender was killed";
}

TEST_F(sim_memory, a_block_whose_sender_was_killed_on_the_way_is_freed_with_the_socket)
{
    sim_socket_t *to = open_socket();
    sim_self_t sender = {&cluster_, 2, self_.grow, self_.wake};
    sim_block_t *block = sim_block_take(&sender, 10);
    uint32_t number = block->number;
    sim_block_own(state(), block, sim_owner_sending(sim_socket_index(state(), to), sender.owner));
    sim_blocks_reclaim(state(), sender.owner);
    EXPECT_EQ(send(to, to, "next"), (uint32_t)TIPC_OK);
    EXPECT_EQ(sim_block_of(state(), number), block);
    EXPECT_EQ(receive(to), "next");
    EXPECT_EQ(blocks_in_use(), 2U) << "the queue's first, and that one, which might have been there";
    sim_socket_close(&self_, to, true);
    EXPECT_EQ(blocks_in_use(), 0U);
}

TEST_F(sim_memory, a_port_is_not_used_again_with_its_slot)
{
    sim_socket_t *from = open_socket();
    sim_socket_t *first = open_socket();
    uint32_t port = first->port;
    sim_socket_close(&self_, first, true);
    std::set<uint32_t> ports;
    for (int i = 0; i < 500; i++) {
        sim_socket_t *next = open_socket();
        ASSERT_NE(next, nullptr);
        EXPECT_TRUE(ports.insert(next->port).second);
        sim_socket_close(&self_, next, true);
    }
    EXPECT_EQ(ports.count(port), 0U);
    EXPECT_EQ(sim_socket_of(state(), port), nullptr);
    (void)from;
}

TEST_F(sim_memory, a_first_message_wakes_and_a_second_one_does_not_unless_it_is_polled_by_edges)
{
    sim_socket_t *to = open_socket();
    g_woken = 0;
    (void)send(to, to, "1");
    (void)send(to, to, "2");
    EXPECT_EQ(g_woken, 1U);
    to->edge = 1;
    (void)send(to, to, "3");
    EXPECT_EQ(g_woken, 2U);
}

TEST_F(sim_memory, more_sockets_and_messages_than_at_first_get_memory)
{
    std::vector<sim_socket_t *> sockets;
    for (int i = 0; i < 3000; i++) {
        sockets.push_back(open_socket());
        ASSERT_NE(sockets.back(), nullptr) << i;
    }
    for (sim_socket_t *socket : sockets)
        ASSERT_EQ(send(socket, socket, std::string(1500, 'x')), (uint32_t)TIPC_OK);
    for (sim_socket_t *socket : sockets)
        ASSERT_EQ(receive(socket).size(), 1500U);
}

TEST_F(sim_memory, memory_is_given_once_when_several_ask_for_it)
{
    uint32_t before = state()->areas[SIM_AREA_BLOCKS].ready;
    ASSERT_EQ(sim_area_grow(state(), g_state_file, SIM_AREA_BLOCKS, before), 0);
    uint32_t after = state()->areas[SIM_AREA_BLOCKS].ready;
    EXPECT_GT(after, before);
    EXPECT_EQ(sim_area_grow(state(), g_state_file, SIM_AREA_BLOCKS, before), 0);
    EXPECT_EQ(state()->areas[SIM_AREA_BLOCKS].ready, after);
}

TEST_F(sim_memory, junk_in_the_tables_leads_nobody_out_of_them)
{
    sim_socket_t *to = open_socket();
    sim_name_t name = {100, 5, 5, TIPC_CLUSTER_SCOPE, to->port, 0, 1, 0};
    uint32_t entry = SIM_NONE;
    ASSERT_EQ(sim_name_insert(state(), &name, &entry), 0);
    sim_name_at(state(), entry)->next = entry; // a chain without an end
    sim_target_t target = {};
    (void)sim_name_lookup(state(), 100, 5, 0, 0, &target);
    sim_name_at(state(), entry)->node = UINT32_MAX;
    EXPECT_FALSE(sim_name_lookup(state(), 100, 5, 0, 0, &target));
    sim_name_remove(state(), entry);
    ASSERT_EQ(send(to, to, "x"), (uint32_t)TIPC_OK);
    sim_block_t *first = sim_block_of(state(), sim_link_number(to->tail));
    first->record.len = UINT32_MAX;
    first->record.dst_index = UINT32_MAX;
    first->record.importance = UINT32_MAX;
    first->next = sim_link(1, first->number); // a queue without an end
    first->holds = UINT32_MAX;
    sim_link_t at;
    EXPECT_EQ(sim_queue_first(state(), to, &at)->record.len, 0U);
    EXPECT_EQ(send(to, to, "y"), (uint32_t)TIPC_ERR_OVERLOAD);
    to->head = sim_link(1, UINT32_MAX); // no such block
    to->tail = sim_link(1, 0x7fffffff);
    (void)sim_queue_first(state(), to, &at);
    state()->socket_num = UINT32_MAX;
    state()->name_num = UINT32_MAX;
    EXPECT_LE(sim_socket_num(state()), SIM_MAX_SOCKETS);
    EXPECT_LE(sim_name_num(state()), SIM_MAX_NAMES);
    sim_socket_close(&self_, to, true);
    EXPECT_EQ(to->use, (uint32_t)SIM_SLOT_FREE);
}

TEST_F(sim_memory, a_message_counts_whose_sender_was_killed_before_it_moved_the_tail)
{
    sim_socket_t *to = open_socket();
    sim_link_t before = to->tail;
    ASSERT_EQ(send(to, to, "x"), (uint32_t)TIPC_OK);
    to->tail = before;
    uint32_t num = 0;
    uint64_t charged = 0;
    sim_queue_size(state(), to, &num, &charged);
    EXPECT_EQ(num, 1U);
    EXPECT_EQ(charged, sim_queue_charge(1));
}

TEST_F(sim_memory, a_connection_begins_carries_data_and_ends)
{
    sim_socket_t *client = open_socket(SOCK_SEQPACKET);
    sim_socket_t *listener = open_socket(SOCK_SEQPACKET, 1);
    listener->conn = sim_conn(SIM_CONN_LISTEN, 0);
    client->conn = sim_conn(SIM_CONN_CONNECTING, client->port);
    sim_record_t syn = record(client, listener, 0);
    syn.kind = SIM_SYN;
    ASSERT_EQ(sim_deliver(&self_, sim_message(&self_, &syn, nullptr, 0)), (uint32_t)TIPC_OK);
    EXPECT_EQ(sim_conn_state(client), (uint32_t)SIM_CONN_CONNECTING);
    sim_socket_t *accepted = open_socket(SOCK_SEQPACKET, 1);
    ASSERT_TRUE(sim_accept(&self_, listener, accepted));
    EXPECT_EQ(client->conn, sim_conn(SIM_CONN_ESTABLISHED, accepted->port, accepted->node));
    EXPECT_EQ(accepted->conn, sim_conn(SIM_CONN_ESTABLISHED, client->port, client->node));
    sim_disconnect(&self_, client, TIPC_CONN_SHUTDOWN);
    EXPECT_EQ(sim_conn_state(accepted), (uint32_t)SIM_CONN_DISCONNECTING);
    EXPECT_EQ(receive(accepted), "returned 5 ");
}

// The broker ends the connection of a process that was killed in accept().
TEST_F(sim_memory, who_is_connecting_learns_that_the_other_side_has_gone)
{
    sim_socket_t *client = open_socket(SOCK_SEQPACKET);
    sim_socket_t *accepted = open_socket(SOCK_SEQPACKET, 1);
    client->conn = sim_conn(SIM_CONN_CONNECTING, client->port);
    accepted->conn = sim_conn(SIM_CONN_ESTABLISHED, client->port, client->node);
    sim_socket_close(&self_, accepted, true);
    EXPECT_EQ(sim_conn_state(client), (uint32_t)SIM_CONN_DISCONNECTING);
    EXPECT_EQ(client->err, (uint32_t)ECONNREFUSED);
}

TEST_F(sim_memory, a_refused_connection_is_told)
{
    sim_socket_t *client = open_socket(SOCK_STREAM);
    sim_socket_t *other = open_socket(SOCK_STREAM);
    client->conn = sim_conn(SIM_CONN_CONNECTING, client->port);
    sim_record_t syn = record(client, other, 0);
    syn.kind = SIM_SYN;
    uint32_t err = sim_deliver(&self_, sim_message(&self_, &syn, nullptr, 0));
    ASSERT_EQ(err, (uint32_t)TIPC_ERR_NO_PORT);
    sim_return(&self_, &syn, nullptr, err);
    EXPECT_EQ(sim_conn_state(client), (uint32_t)SIM_CONN_DISCONNECTING);
    EXPECT_EQ(client->err, (uint32_t)ECONNREFUSED);
}

TEST_F(sim_memory, names_are_found_by_the_lowest_range_and_in_turns)
{
    uint32_t entries[4] = {};
    sim_name_t names[] = {{100, 5, 10, TIPC_CLUSTER_SCOPE, 11, 0, 1, 0},
                          {100, 7, 7, TIPC_CLUSTER_SCOPE, 12, 0, 2, 0},
                          {100, 5, 10, TIPC_CLUSTER_SCOPE, 13, 1, 3, 0},
                          {100, 8, 8, TIPC_NODE_SCOPE, 14, 1, 4, 0}};
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(sim_name_insert(state(), &names[i], &entries[i]), 0);
    std::multiset<uint32_t> found;
    sim_target_t target = {};
    for (int i = 0; i < 20; i++) {
        ASSERT_TRUE(sim_name_lookup(state(), 100, 7, 0, 0, &target));
        found.insert(target.port);
    }
    EXPECT_EQ(found.count(11), 10U);
    EXPECT_EQ(found.count(13), 10U);
    sim_name_remove(state(), entries[0]);
    sim_name_remove(state(), entries[2]);
    EXPECT_TRUE(sim_name_lookup(state(), 100, 7, 0, 0, &target));
    EXPECT_EQ(target.port, 12U);
    EXPECT_FALSE(sim_name_lookup(state(), 100, 8, 0, 0, &target)) << "bound with the scope of another node";
    EXPECT_TRUE(sim_name_lookup(state(), 100, 8, 1, 0, &target));
    EXPECT_FALSE(sim_name_lookup(state(), 100, 7, 0, 2, &target)) << "not on that node";
}

TEST_F(sim_memory, processes_find_their_own_entries_and_a_later_one_of_the_same_number_is_another)
{
    int entry = sim_process_enter(state(), getpid(), 0);
    ASSERT_GE(entry, 0);
    EXPECT_EQ(state()->processes[entry].start, sim_process_start(getpid()));
    EXPECT_NE(sim_process_start(getpid()), sim_process_start(1));
}

struct numbers_s { // shared with the senders
    uint64_t sent[16];
};

[[noreturn]] void send_for_ever(sim_self_t self, sim_socket_t *to, uint32_t number, numbers_s *numbers)
{
    std::minstd_rand random((unsigned)getpid());
    self.owner = number + 2;
    for (uint64_t count = numbers->sent[number] + 1;;) {
        static char s_data[3000];
        uint32_t num = 0;
        uint64_t charged = 0;
        sim_queue_size(self.cluster->state, to, &num, &charged);
        if (num > 1000) {
            (void)sched_yield();
            continue;
        }
        uint64_t head[2] = {number, count};
        struct iovec parts[2] = {{head, sizeof(head)}, {s_data, random() % sizeof(s_data)}};
        sim_record_t record = {};
        record.len = (uint32_t)(sizeof(head) + parts[1].iov_len);
        record.dst_port = to->port;
        record.droppable = 1;
        sim_block_t *block = sim_message(&self, &record, parts, 2);
        if (block == nullptr)
            _exit(1);
        __atomic_store_n(&numbers->sent[number], count++, __ATOMIC_SEQ_CST);
        if (sim_deliver(&self, block) != TIPC_OK)
            _exit(2);
    }
}

// Six senders; each round one is killed, or stopped for a while. No message is lost but the one that a killed sender
// was about to send, none comes twice or out of order, nobody waits for the stopped one, and nothing is left over.
TEST_F(sim_memory, killed_and_stopped_senders_hold_nobody_up_and_leave_nothing)
{
    constexpr uint32_t SENDERS = 6;
    constexpr int ROUNDS = 200;
    sim_socket_t *to = open_socket();
    to->rcvbuf = 1U << 30;
    auto *numbers =
        (numbers_s *)mmap(nullptr, sizeof(numbers_s), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    pid_t pids[SENDERS];
    auto start = [&](uint32_t number) {
        pids[number] = fork();
        if (pids[number] == 0)
            send_for_ever(self_, to, number, numbers);
    };
    for (uint32_t i = 0; i < SENDERS; i++)
        start(i);
    std::minstd_rand random(1);
    uint64_t last[SENDERS] = {};
    uint64_t lost = 0;
    int kills = 0;
    auto read_one = [&] {
        sim_link_t at;
        sim_block_t *block = sim_queue_first(state(), to, &at);
        if (block == nullptr || !sim_queue_pop(state(), to, at, block))
            return false;
        uint64_t head[2];
        memcpy(head, block->data, sizeof(head));
        EXPECT_LT(head[0], SENDERS);
        EXPECT_GT(head[1], last[head[0]]);
        lost += head[1] - last[head[0]] - 1;
        last[head[0]] = head[1];
        sim_block_release(state(), block);
        return true;
    };
    for (int round = 0; round < ROUNDS; round++) {
        uint32_t one = (uint32_t)(random() % SENDERS);
        bool stop = random() % 2 == 0;
        (void)kill(pids[one], stop ? SIGSTOP : SIGKILL);
        if (!stop) {
            ASSERT_EQ(waitpid(pids[one], nullptr, 0), pids[one]);
            sim_blocks_reclaim(state(), one + 2);
            kills++;
        }
        for (int got = 0; got < 3000;) { // from the others, whatever the one was doing
            if (read_one())
                got++;
            else
                (void)sched_yield();
        }
        if (stop)
            (void)kill(pids[one], SIGCONT);
        else
            start(one);
    }
    for (uint32_t i = 0; i < SENDERS; i++) {
        int status = 0;
        (void)kill(pids[i], SIGKILL);
        ASSERT_EQ(waitpid(pids[i], &status, 0), pids[i]);
        EXPECT_TRUE(WIFSIGNALED(status)) << "it ended by itself with " << WEXITSTATUS(status);
        sim_blocks_reclaim(state(), i + 2);
    }
    while (read_one())
        continue;
    EXPECT_LE(lost, (uint64_t)kills);
    uint32_t num = 1;
    uint64_t charged = 1;
    sim_queue_size(state(), to, &num, &charged);
    EXPECT_EQ(num, 0U);
    EXPECT_EQ(charged, 0U);
    sim_socket_close(&self_, to, true);
    EXPECT_EQ(blocks_in_use(), 0U);
    (void)munmap(numbers, sizeof(numbers_s));
}
} // namespace
