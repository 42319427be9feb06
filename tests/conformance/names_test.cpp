// Binding names, and which socket receives what is sent to them.
#include "conformance.h"

class names : public tipc
{
};

TEST_F(names, what_is_sent_to_a_name_arrives_at_the_socket_that_bound_it)
{
    on(1).open_receiver("r", name(1));
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 5 10"), "10");
    answer got = on(1).get("recv r wait=10000");
    EXPECT_EQ(got.head, "10");
    EXPECT_EQ(got.num("num"), 5);
}

TEST_F(names, a_name_is_known_on_every_node)
{
    on(1).open_receiver("r", name(1));
    for (int node : {2, 3}) {
        on(node).ok(await(1));
        on(node).open_sender("s");
        EXPECT_EQ(on(node).ask("send s " + name(1) + " " + std::to_string(node) + " 10"), "10");
        EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), node);
    }
}

TEST_F(names, a_range_takes_every_name_in_it_and_no_other)
{
    on(1).open_receiver("r", range(10, 20));
    on(2).ok(await(10));
    for (int node : {1, 2}) {
        on(node).open_sender("s");
        for (unsigned instance : {10U, 15U, 20U}) {
            EXPECT_EQ(on(node).ask("send s " + name(instance) + " 1 10"), "10");
            answer got = on(1).get("recv r wait=10000");
            EXPECT_EQ(got.of["dest"], type() + ":" + std::to_string(instance) + ":" + std::to_string(instance));
        }
        for (unsigned instance : {0U, 9U, 21U})
            EXPECT_EQ(on(node).ask("send s " + name(instance) + " 1 10"), "EHOSTUNREACH") << instance;
    }
}

TEST_F(names, a_socket_may_have_several_names)
{
    on(1).open_receiver("r", name(1));
    on(1).ok("bind r " + name(7) + " 2");
    on(1).ok("bind r " + range(20, 29) + " 2");
    on(1).open_sender("s");
    for (unsigned instance : {1U, 7U, 25U}) {
        EXPECT_EQ(on(1).ask("send s " + name(instance) + " " + std::to_string(instance) + " 10"), "10");
        EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), instance);
    }
}

TEST_F(names, a_node_scope_name_is_known_on_its_own_node_only)
{
    on(1).open_receiver("r", name(1), "3");
    on(1).ok("bind r " + name(2) + " 2");
    on(2).ok(await(2)); // it was bound later, so the first one would be known too
    on(2).open_sender("s");
    EXPECT_EQ(on(2).ask("send s " + name(1) + " 1 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(2).ask("send s " + name(2) + " 2 10"), "10");
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 2);

    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 3 10"), "10");
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 3);
}

TEST_F(names, scopes_zero_and_zone_mean_the_cluster)
{
    on(1).open_receiver("r", name(1), "0");
    on(1).ok("bind r " + name(2) + " 1");
    on(2).ok(await(1));
    on(2).ok(await(2));
}

// Sends 60 messages from node 3 to a name that `receivers` sockets have, and counts what each of them received.
static void expect_shared(probe &from, const std::string &to, const std::vector<std::pair<probe *, std::string>> &them)
{
    from.open_sender("s");
    EXPECT_EQ(from.ask("send s " + to + " 0 10 count=60"), "60 10");
    // A last message to each shows that all before it have arrived.
    long total = 0;
    for (auto &one : them) {
        EXPECT_EQ(from.ask("send s " + one.first->ask("name " + one.second) + " 0 10"), "10");
    }
    for (auto &one : them) {
        long some = 0;
        for (bool last = false; !last;) {
            answer got = one.first->get("recv " + one.second + " wait=10000");
            ASSERT_EQ(got.head, "10");
            last = !got.has("dest");
            some += last ? 0 : 1;
        }
        EXPECT_GT(some, 0) << "a socket that got nothing";
        total += some;
    }
    EXPECT_EQ(total, 60);
}

TEST_F(names, sockets_of_one_process_share_a_name)
{
    on(1).open_receiver("r1", name(1));
    on(1).open_receiver("r2", name(1));
    expect_shared(on(1), name(1), {{&on(1), "r1"}, {&on(1), "r2"}});
}

TEST_F(names, processes_of_one_node_share_a_name)
{
    probe second(1);
    on(1).open_receiver("r", name(1));
    second.open_receiver("r", name(1));
    expect_shared(on(1), name(1), {{&on(1), "r"}, {&second, "r"}});
}

TEST_F(names, nodes_share_a_name)
{
    on(3).open_watch("t");
    EXPECT_EQ(on(3).ask(subscribe(1, 1, PORTS)), "28");
    for (int node : {1, 2}) {
        on(node).open_receiver("r", name(1));
        EXPECT_EQ(on(3).get("event t wait=10000").head, "published");
    }
    expect_shared(on(3), name(1), {{&on(1), "r"}, {&on(2), "r"}});
}

TEST_F(names, a_negative_scope_unbinds_that_name_alone)
{
    on(1).open_receiver("r", name(1));
    on(1).ok("bind r " + name(2) + " 2");
    on(1).ok("bind r " + name(1) + " -2");
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("send s " + name(2) + " 1 10"), "10");
    on(2).ok(await(2));
    on(2).ok(await(1, "gone"));
}

TEST_F(names, unbinding_what_is_not_bound_is_refused)
{
    on(1).open_receiver("r", range(1, 10));
    EXPECT_EQ(on(1).ask("bind r " + name(99) + " -2"), "EINVAL");
    EXPECT_EQ(on(1).ask("bind r " + range(1, 5) + " -2"), "EINVAL") << "part of a range";
    EXPECT_EQ(on(1).ask("bind r " + range(1, 10) + " -3"), "EINVAL") << "another scope";
    on(1).ok("bind r " + name(50) + " 2");
    on(1).ok("bind r " + range(1, 10) + " -2");
    EXPECT_EQ(on(1).ask("bind r " + range(1, 10) + " -2"), "EINVAL") << "for the second time";
}

TEST_F(names, a_socket_without_names_may_unbind_anything)
{
    on(1).ok("open r rdm");
    on(1).ok("bind r " + name(1) + " -2");
    on(1).open_receiver("other", name(1));
    on(1).ok("bind r " + name(1) + " -2");
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "10") << "another socket's name is not touched";
}

TEST_F(names, a_name_bound_twice_on_one_socket_must_be_unbound_twice)
{
    on(1).open_receiver("r", name(1));
    on(1).ok("bind r " + name(1) + " 2");
    on(1).open_sender("s");
    on(1).ok("bind r " + name(1) + " -2");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "10");
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 1);
    on(1).ok("bind r " + name(1) + " -2");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "EHOSTUNREACH");
}

TEST_F(names, binding_no_address_unbinds_every_name)
{
    on(1).open_receiver("r", name(1));
    on(1).ok("bind r " + range(5, 9) + " 3");
    on(1).ok("bind r none 2");
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("send s " + name(6) + " 1 10"), "EHOSTUNREACH");
    on(1).ok("bind r none 2");
}

TEST_F(names, bind_refuses_what_is_not_a_name)
{
    on(1).ok("open r rdm");
    EXPECT_EQ(on(1).ask("bind r name:1:1 2"), "EACCES") << "the topology service's own";
    EXPECT_EQ(on(1).ask("bind r name:63:1 2"), "EACCES") << "the last reserved type";
    EXPECT_EQ(on(1).ask("bind r name:64:1 2"), "0") << "the first type for everyone";
    EXPECT_EQ(on(1).ask("bind r " + range(9, 5) + " 2"), "EINVAL") << "lower above upper";
    EXPECT_EQ(on(1).ask("bind r raw:2:2:" + type() + ":1 2"), "EINVAL") << "another family";
    EXPECT_EQ(on(1).ask("bind r raw:30:9:" + type() + ":1 2"), "EINVAL") << "no such type of address";
    EXPECT_EQ(on(1).ask("bind r id:1:0 2"), "EAFNOSUPPORT") << "a socket's address";
    EXPECT_EQ(on(1).ask("bind r " + name(1) + " 2 len=8"), "EINVAL") << "half an address";
    EXPECT_EQ(on(1).ask("bind r " + name(1) + " 2 len=15"), "EINVAL") << "nearly an address";
}

TEST_F(names, a_closed_socket_loses_its_names)
{
    on(1).open_receiver("r", name(1));
    on(2).ok(await(1));
    on(1).ok("close r");
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "EHOSTUNREACH") << "at once on its own node";
    on(2).ok(await(1, "gone"));
    on(2).open_sender("s");
    EXPECT_EQ(on(2).ask("send s " + name(1) + " 1 10"), "EHOSTUNREACH");
}

TEST_F(names, a_killed_process_loses_its_names)
{
    probe victim(1);
    victim.open_receiver("r", name(1));
    victim.open_receiver("q", range(5, 9), "3");
    on(2).ok(await(1));
    victim.kill();
    on(2).ok(await(1, "gone"));
    on(1).ok(await(1, "gone"));
    on(1).ok(await(7, "gone"));
}
