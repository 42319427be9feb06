// What poll reports, and sockets that two processes share.
#include "conformance.h"

class polls : public tipc
{
};

class forks : public tipc
{
};

TEST_F(polls, a_datagram_socket_is_readable_with_a_message_only)
{
    on(1).open_receiver("r", name(1));
    EXPECT_EQ(on(1).ask("poll r in"), "none");
    on(1).open_sender("s");
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(on(1).ask("send s " + name(1) + " 5 10"), "10");
    EXPECT_EQ(on(1).ask("poll r in wait=10000"), "in");
    EXPECT_EQ(on(1).get("recv r wait=10000").head, "10");
    EXPECT_EQ(on(1).ask("poll r in wait=10000"), "in") << "there is another one";
    EXPECT_EQ(on(1).get("recv r").head, "10");
    EXPECT_EQ(on(1).ask("poll r in"), "none");
}

TEST_F(polls, a_datagram_socket_is_always_writable)
{
    on(1).ok("open s rdm");
    EXPECT_EQ(on(1).ask("poll s"), "out");
    on(1).open_receiver("r", name(1));
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 0 66000 count=60"), "60 66000");
    EXPECT_EQ(on(1).ask("poll s"), "out") << "though its receiver is full";
    EXPECT_EQ(on(1).ask("poll r wait=10000"), "in out");
}

TEST_F(polls, a_topology_connection_is_readable_with_an_event_only)
{
    on(1).open_watch("t");
    EXPECT_EQ(on(1).ask("poll t"), "out");
    EXPECT_EQ(on(1).ask(subscribe(1, 1, SERVICE)), "28");
    on(1).open_receiver("r", name(1));
    EXPECT_EQ(on(1).ask("poll t in wait=10000"), "in");
    EXPECT_EQ(on(1).get("event t").head, "published");
    EXPECT_EQ(on(1).ask("poll t"), "out");
}

TEST_F(polls, a_topology_connection_closed_by_the_service_hangs_up)
{
    on(1).open_watch("t");
    EXPECT_EQ(on(1).ask(subscribe(1, 1, SERVICE) + " bytes=20"), "20");
    EXPECT_EQ(on(1).ask("poll t in wait=10000"), "in hup");
    EXPECT_EQ(on(1).ask("event t"), "0") << "the end, reported once";
    EXPECT_EQ(on(1).ask("event t"), "EAGAIN");
    EXPECT_EQ(on(1).ask("poll t"), "in hup");
    EXPECT_EQ(on(1).ask(subscribe(1, 1, SERVICE)), "EPIPE");
}

TEST_F(forks, a_name_stays_until_the_last_copy_is_closed)
{
    on(1).open_receiver("r", name(1));
    std::string id = on(1).ask("name r");
    on(1).ok("fork");
    on(1).ok("close r");
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "10") << "the child has it still";
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
    on(1).ok("endchild");
    answer got = on(1).get("recv s wait=10000");
    EXPECT_EQ(got.of["err"], "2") << "unread when the last copy closed";
    EXPECT_EQ(got.of["from"], id);
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 10"), "EHOSTUNREACH");
}

TEST_F(forks, the_end_of_a_child_takes_nothing_from_its_parent)
{
    on(1).open_receiver("r", name(1));
    on(1).open_watch("t");
    EXPECT_EQ(on(1).ask(subscribe(1, 2, SERVICE)), "28");
    EXPECT_EQ(on(1).get("event t wait=10000").head, "published");
    on(1).ok("fork");
    on(1).ok("endchild");
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 3 10"), "10");
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 3);
    on(1).ok("bind r " + name(2) + " 2");
    EXPECT_EQ(on(1).get("event t wait=10000").of["found"], "2:2");
}
