// Locks between a thread that reads records and one that changes them. Each pair of calls runs in turn on two threads,
// in both orders: under ThreadSanitizer a lock that one of them does not take is a race, always, since nothing else
// orders the two. Other builds see only that the calls get along. Cuts across the sources.
#include <atomic>
#include <thread>

#include "internals.h"
#include "lib_test.h"
#include "zeb_rpc_async.h"

#include <zeb/zeb_diag.h>
#include <zeb/zeb_ext.h>

typedef std::function<void()> call_t;

// One after the other in time, but with nothing between them that the sanitizer takes for an order.
static void in_turn(const call_t &first, const call_t &second)
{
    std::atomic<bool> done{false};
    std::thread one([&] {
        first();
        done.store(true, std::memory_order_relaxed);
    });
    std::thread other([&] {
        wait_until([&] { return done.load(std::memory_order_relaxed); });
        second();
    });
    one.join();
    other.join();
}

class zeb_locks : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        ASSERT_EQ(zeb_register(QUEUED, "test", ONE_DISPATCHER, see_event),
                  0); // its thread waits for the process to run
        ASSERT_EQ(zeb_comm_with(APP, OFFLINE), 0);
        peer_online();
        fault::arm(false); // the lock of the interposed calls would order the threads
    }

    void TearDown() override
    {
        free(msg_);
        fault::arm(true);
        lib_test::TearDown();
    }

    static constexpr uint32_t QUEUED = APP + 1;   // an application with a thread, which takes nothing up
    static constexpr uint32_t OFFLINE = PEER + 1; // a remote application of which no instance is online

    // Both orders; the calls of one order leave what those of the other need.
    static void in_both_orders(const call_t &read, const call_t &change)
    {
        for (int i = 0; i < 3; i++) {
            in_turn(read, change);
            in_turn(change, read);
        }
    }

    // Listings share the one print buffer, so only one thread may list.
    static call_t list_of(void (*print)(uint32_t), uint32_t app = APP)
    {
        return [print, app] { (void)listing(print, app); };
    }

    uint32_t next()
    {
        return ++last_;
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 1, 0);

  private:
    std::atomic<uint32_t> last_{1000};
};

TEST_F(zeb_locks, the_library_listing_and_instances_that_come_and_go)
{
    in_both_orders(list_of(zeb_cli_print_lib_info), [&] { peer_published(next()); });
    in_both_orders(list_of(zeb_cli_print_lib_info), [&] { peer_syncs(PEER_SEQ, next()); });
    in_both_orders(list_of(zeb_cli_print_lib_info), [&] { peer_withdrawn(); });
}

TEST_F(zeb_locks, the_library_listing_and_new_peer_applications)
{
    in_both_orders(list_of(zeb_cli_print_lib_info), [&] { EXPECT_EQ(zeb_comm_with(APP, next()), 0); });
}

TEST_F(zeb_locks, the_library_listing_and_returned_acknowledgements)
{
    fake_tipc::item_t item = returned_item(wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1)));
    in_both_orders(list_of(zeb_cli_print_lib_info), [&] { receive_item(item); });
    in_both_orders(list_of(zeb_cli_print_lib_info),
                   [&] { EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, ZEB_SEND_NOWAIT), 0); });
}

TEST_F(zeb_locks, the_listing_of_peers_and_new_peer_applications)
{
    in_both_orders(list_of(zeb_cli_print_app_comm), [&] { EXPECT_EQ(zeb_comm_with(APP, next()), 0); });
}

TEST_F(zeb_locks, the_listing_of_an_application_and_its_queue)
{
    in_both_orders(list_of(zeb_cli_print_app_info, QUEUED),
                   [&] { receive(wire::message(from_peer(0, 5, 1, QUEUED), {1}), QUEUED); });
    EXPECT_THAT(listing(zeb_cli_print_app_info, QUEUED), testing::HasSubstr("  Unprocessed message number 6\n"));
}

TEST_F(zeb_locks, the_listing_of_an_application_and_its_groups)
{
    uint32_t apps = (uint32_t)zeb_create_app_mcast(APP);
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    call_t list = list_of(zeb_cli_print_app_info);
    in_both_orders(list, [&] { EXPECT_EQ(zeb_add_app_mcast(APP, apps, next()), 0); });
    in_both_orders(list, [&] { EXPECT_EQ(zeb_add_node_mcast(APP, nodes, next()), 0); });
    in_both_orders(list, [&] { zeb_del_app_mcast(APP, apps, 1001); });
    in_both_orders(list, [&] { zeb_del_node_mcast(APP, nodes, 1001); });
    in_both_orders(list, [&] { EXPECT_GT(zeb_create_app_mcast(APP), 0); });
    in_both_orders(list, [&] { EXPECT_GT(zeb_create_node_mcast(APP), 0); });
    in_both_orders(list, [&] { zeb_destroy_app_mcast(APP, apps++); });
    in_both_orders(list, [&] { zeb_destroy_node_mcast(APP, nodes++); });
}

TEST_F(zeb_locks, a_send_to_a_group_and_a_change_of_the_group)
{
    uint32_t apps = (uint32_t)zeb_create_app_mcast(APP);
    uint32_t other = (uint32_t)zeb_create_app_mcast(APP);
    call_t send = [&] { EXPECT_EQ(zeb_send(APP, apps, msg_, 0), -ENOENT); };
    in_both_orders(send, [&] { EXPECT_EQ(zeb_add_app_mcast(APP, apps, OFFLINE), 0); });
    in_both_orders(send, [&] { zeb_del_app_mcast(APP, apps, OFFLINE); });
    (void)other;
    // A destroyed group is sent to like an empty one.
    in_turn(send, [&] { zeb_destroy_app_mcast(APP, apps); });
    apps = (uint32_t)zeb_create_app_mcast(APP);
    in_turn([&] { zeb_destroy_app_mcast(APP, apps); }, send);
}

TEST_F(zeb_locks, a_send_to_a_group_of_nodes_and_a_change_of_the_group)
{
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    call_t send = [&] { EXPECT_EQ(zeb_sendto(APP, nodes, OFFLINE, msg_, 0), -ENOENT); };
    in_both_orders(send, [&] { EXPECT_EQ(zeb_add_node_mcast(APP, nodes, 5), 0); });
    in_both_orders(send, [&] { zeb_del_node_mcast(APP, nodes, 5); });
    in_turn(send, [&] { zeb_destroy_node_mcast(APP, nodes); });
    nodes = (uint32_t)zeb_create_node_mcast(APP);
    in_turn([&] { zeb_destroy_node_mcast(APP, nodes); }, send);
}

TEST_F(zeb_locks, a_new_peer_application_and_the_receive_thread)
{
    std::atomic<uint32_t> peer{0};
    call_t add = [&] {
        peer.store(next(), std::memory_order_relaxed);
        EXPECT_EQ(zeb_comm_with(APP, peer.load(std::memory_order_relaxed)), 0);
    };
    for (int i = 0; i < 3; i++) {
        in_turn(add, [&] { peer_published(5, peer.load(std::memory_order_relaxed)); });
        in_turn(add, [&] {
            receive(wire::message(from_peer(0, 5, peer.load(std::memory_order_relaxed)), {1})); // looks the sender up
        });
    }
    // A further local application of a known one.
    in_both_orders([&] { peer_published(next()); }, [&] { EXPECT_EQ(zeb_comm_with(QUEUED, PEER), 0); });
    in_turn([&] { peer_published(next(), OFFLINE); }, [&] { EXPECT_EQ(zeb_comm_with(QUEUED, OFFLINE), 0); });
}

TEST_F(zeb_locks, a_sender_that_looks_for_servers_and_instances_that_join)
{
    call_t change = [&] { peer_syncs(PEER_SEQ, next(), OFFLINE); };
    call_t online = [&] {
        uint32_t node = next();
        peer_syncs(PEER_SEQ, node, OFFLINE);
        receive(wire::message(from_peer(0, node, OFFLINE), {1})); // a message says that it is online
    };
    in_turn([&] { EXPECT_EQ(zeb_send(APP, OFFLINE, msg_, 0), -ENOENT); }, change);
    in_turn([&] { EXPECT_EQ(zeb_send(APP, OFFLINE, msg_, 0), -ENOENT); }, online);
    in_turn([&] { EXPECT_EQ(zeb_sendto(APP, 3, OFFLINE, msg_, 0), -ENOENT); }, online);
    in_turn(online, [&] { EXPECT_EQ(zeb_sendto(APP, 3, OFFLINE, msg_, 0), -ENOENT); });
    in_turn(online, [&] { EXPECT_EQ(zeb_send(APP, OFFLINE, msg_, 0), 0); });
}

TEST_F(zeb_locks, the_flow_control_listing_and_traffic)
{
    call_t list = list_of(zeb_cli_print_fc_stat);
    in_both_orders(list, [&] { EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, ZEB_SEND_NOWAIT), 0); });
    in_both_orders(list, [&] { EXPECT_EQ(zeb_sendto(APP, 3, OFFLINE, msg_, ZEB_SEND_NOWAIT), -ENOENT); });
    in_both_orders(list, [&] { receive(wire::message(from_peer(), {1})); });
    in_both_orders(list, [&] { receive(wire::message(from_peer(wire::MNG), wire::tlv(wire::NUM_ACK, {0, 0, 0, 1}))); });
    in_both_orders(list, [&] { receive(wire::message(from_peer(0, 77), {1})); }); // dropped
    in_both_orders(list, [&] { receive({1, 2, 3}); });                            // no message
    in_both_orders(list, [&] { peer_withdrawn(); });
}

TEST_F(zeb_locks, the_listing_of_synchronisation_messages_and_a_handshake)
{
    call_t list = list_of(zeb_cli_print_mng_stat);
    in_both_orders(list, [&] { peer_syncs(); });
    in_both_orders(list, [&] { peer_published(next()); });
    in_both_orders(list, [&] { timer_expires(wire::RETRY_TIMER, 0); });
    in_both_orders(list, [&] { peer_withdrawn(); });
}

TEST_F(zeb_locks, the_listing_of_calls_and_their_answers)
{
    for (uint32_t node : {3u, 4u, 5u, 6u, 7u, 8u})
        peer_online(node);
    fault::arm(true); // counts the waits
    zeb_reply_msg_t reply;
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply), 0); });
    wait_until([&] { return fault::waits(internals::answer_cond(APP)) != 0; });
    fault::arm(false);
    auto sent = fake_tipc::take_sent();
    wire::header_t header = from_peer(wire::REQUEST | wire::ACK);
    header.seq = wire::header_of(sent.at(0).bytes).seq;
    header.src_node = 2;
    in_both_orders(list_of(zeb_cli_print_rpc_stat), [&] {
        header.src_node++;
        receive(wire::message(header, {}));
    });
    header.src_node = PEER_NODE;
    receive(wire::message(header, {}));
    caller.join();
    EXPECT_EQ(reply.num, 7);
    for (zeb_msg_t *msg : reply.msg)
        free(msg);
}

TEST_F(zeb_locks, the_listing_of_calls_and_a_quit)
{
    fault::arm(true);
    zeb_reply_msg_t reply;
    for (bool list_first : {true, false}) {
        peer_online(3);
        std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply), 0); });
        (void)wait_requests(2);
        fault::arm(false);
        call_t list = list_of(zeb_cli_print_rpc_stat);
        call_t quit = [&] { peer_withdrawn(3); };
        in_turn(list_first ? list : quit, list_first ? quit : list);
        peer_withdrawn();
        caller.join();
        EXPECT_EQ(reply.num, 2);
        for (zeb_msg_t *msg : reply.msg)
            free(msg);
        fault::arm(true);
        peer_online();
    }
}

// The calls of zeb_ext.h.

static void drop_msg(void *, zeb_msg_t *msg)
{
    free(msg);
}

static zeb_app_options_t options_of(uint32_t app, zeb_app_mode_t mode)
{
    static const zeb_app_dispatcher_t table[] = {{1, drop_msg, nullptr}, {0, nullptr, nullptr}};
    zeb_app_options_t options = {};
    options.size = sizeof(options);
    options.app = app;
    options.mode = mode;
    options.name = "options";
    options.dispatchers = table;
    options.event = [](void *, const zeb_event_t *) {};
    options.every_subscriber = 1;
    return options;
}

class zeb_locks_ext : public zeb_locks
{
  protected:
    void TearDown() override
    {
        EXPECT_EQ(zeb_stop(), 0);
        zeb_locks::TearDown();
    }

    static constexpr uint32_t POLLED = APP + 2;

    static void register_polled()
    {
        zeb_app_options_t options = options_of(POLLED, ZEB_APP_POLLED);
        ASSERT_EQ(zeb_register_app(&options), 0);
    }

    // Begins a call of APP, which leaves its number for the other thread.
    void begin(uint32_t milliseconds)
    {
        uint32_t number = 0;
        zeb_call_done_fun_t done = [](uint32_t, zeb_reply_msg_t *, void *) {};
        EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg_, 0, milliseconds, done, nullptr, &number), 0);
        call_.store(number, std::memory_order_relaxed);
    }

    void answer()
    {
        wire::header_t header = from_peer(wire::REQUEST | wire::ACK);
        header.seq = call_.load(std::memory_order_relaxed);
        receive(wire::message(header, {}));
    }

    std::atomic<uint32_t> call_{0};
};

TEST_F(zeb_locks_ext, the_state_of_peers_and_instances_that_come_and_go)
{
    call_t ask = [] {
        zeb_peer_state_t state;
        uint32_t nodes[4];
        EXPECT_EQ(zeb_peer_state(APP, PEER, PEER_NODE, &state), 0);
        EXPECT_GE(zeb_online_nodes(APP, PEER, nodes, 4), 0);
    };
    in_both_orders(ask, [&] { peer_syncs(PEER_SEQ, next()); });
    in_both_orders(ask, [&] { peer_published(next()); });
    in_both_orders(ask, [&] { EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, ZEB_SEND_NOWAIT), 0); });
    in_both_orders(ask, [&] { peer_withdrawn(); });
}

TEST_F(zeb_locks_ext, a_wait_for_servers_and_servers_that_join)
{
    call_t join = [&] {
        uint32_t node = next();
        peer_syncs(PEER_SEQ, node, OFFLINE);
        receive(wire::message(from_peer(0, node, OFFLINE), {1})); // a message says that it is online
    };
    in_turn([] { EXPECT_EQ(zeb_wait_online(APP, OFFLINE, ZEB_NODE_ALL, 1, 1), -ETIMEDOUT); }, join);
    in_turn(join, [] { EXPECT_EQ(zeb_wait_online(APP, OFFLINE, ZEB_NODE_ALL, 2, 1), 0); });
}

TEST_F(zeb_locks_ext, calls_that_no_thread_waits_for_and_what_ends_them)
{
    call_t list = list_of(zeb_cli_print_rpc_stat);
    for (uint32_t milliseconds : {0u, 3600000u}) {
        in_both_orders(list, [&] { begin(milliseconds); });
        in_both_orders(list, [&] { answer(); });
        in_turn([&] { begin(milliseconds); }, [&] { answer(); });
        in_turn([&] { begin(milliseconds); }, [&] { EXPECT_EQ(zeb_rpc_cancel(APP, call_), 0); });
        in_turn([&] { begin(milliseconds); }, [] { (void)zeb_rpc_async_until_next(1); });
        in_turn([] { (void)zeb_rpc_async_until_next(1); }, [&] { begin(milliseconds); });
    }
    in_turn([&] { begin(1); }, [] { zeb_rpc_async_time_out(); });
    in_turn([&] { begin(0); }, [&] { peer_withdrawn(); });
}

TEST_F(zeb_locks_ext, a_polled_application_and_what_comes_for_it)
{
    register_polled();
    call_t dispatch = [] {
        EXPECT_GE(zeb_dispatch(POLLED, 100), 0);
        EXPECT_GE(zeb_app_fd(POLLED), 0);
    };
    call_t message = [&] { receive(wire::message(from_peer(0, 5, 1, POLLED), {1}), POLLED); };
    in_both_orders(dispatch, message);
    in_both_orders(list_of(zeb_cli_print_app_info, POLLED), message);
    in_both_orders(list_of(zeb_cli_print_app_info, POLLED), dispatch);
    in_both_orders(dispatch, dispatch); // which thread dispatches may change
    in_both_orders(dispatch, [] { EXPECT_EQ(zeb_comm_with(POLLED, PEER), 0); });
    in_both_orders(dispatch, [&] {
        peer_withdrawn();
        peer_online();
    });
}

TEST_F(zeb_locks_ext, a_late_subscriber_and_servers_that_come_and_go)
{
    register_polled();
    in_turn([] { EXPECT_EQ(zeb_comm_with(POLLED, PEER), 0); }, [&] { peer_withdrawn(); });
    EXPECT_EQ(zeb_dispatch(POLLED, 100), 2) << "a join and a quit";
    peer_syncs(PEER_SEQ, 5, OFFLINE);
    in_turn([&] { receive(wire::message(from_peer(0, 5, OFFLINE), {1})); },
            [] { EXPECT_EQ(zeb_comm_with(POLLED, OFFLINE), 0); });
}

TEST_F(zeb_locks_ext, a_registration_and_who_looks_for_the_application)
{
    in_turn([] { EXPECT_EQ(zeb_app_fd(POLLED), -ENOENT); }, [] { register_polled(); });
    in_turn(
        [] {
            zeb_app_options_t options = options_of(POLLED + 1, ZEB_APP_NO_THREAD);
            EXPECT_EQ(zeb_register_app(&options), 0);
        },
        list_of(zeb_cli_print_lib_info));
    in_turn(list_of(zeb_cli_print_lib_info), [] {
        zeb_app_options_t options = options_of(POLLED + 2, ZEB_APP_NO_THREAD);
        EXPECT_EQ(zeb_register_app(&options), 0);
    });
}

// What a call has read and written must be visible to the stop that frees it, and the other way round.
TEST_F(zeb_locks_ext, a_stop_and_the_calls_before_and_after_it)
{
    const call_t calls[] = {
        [&] { (void)zeb_sendto(APP, PEER_NODE, PEER, msg_, ZEB_SEND_NOWAIT); },
        [&] {
            (void)zeb_rpc_async(
                APP, ZEB_NODE_ALL, PEER, msg_, 0, 0, [](uint32_t, zeb_reply_msg_t *, void *) {}, nullptr, nullptr);
        },
        [] { (void)zeb_rpc_cancel(APP, 1); },
        [] { (void)zeb_online_nodes(APP, PEER, nullptr, 0); },
        [] { (void)zeb_wait_online(APP, OFFLINE, ZEB_NODE_ALL, 1, 1); },
        [] { (void)zeb_comm_with(APP, PEER); },
        [] { (void)zeb_dispatch(POLLED, 1); },
        [] { (void)zeb_create_app_mcast(APP); },
    };
    for (const call_t &call : calls) {
        in_turn(call, [] { EXPECT_EQ(zeb_stop(), 0); });
        in_turn([this] { start_app(); }, call);
        register_polled();
        peer_online();
    }
    in_turn([] { EXPECT_EQ(zeb_stop(), 0); }, [] { EXPECT_EQ(zeb_online_nodes(APP, PEER, nullptr, 0), -ENOENT); });
}
