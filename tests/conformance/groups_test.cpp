// Groups: sockets that know of each other, and send to all, to one, or to those of one instance.
#include "conformance.h"

static const char GROUP_JOIN[] = "135";
static const char NO_FLAGS[] = "0";
static const char LOOPBACK[] = "1";
static const char EVENTS[] = "2";

class groups : public tipc
{
  protected:
    void SetUp() override
    {
        tipc::SetUp();
        on(1).ok("open x rdm");
        ASSERT_EQ(on(1).ask("join x 19997 1 2 0"), "0") << "there are groups";
        on(1).ok("close x");
    }
    std::string join(int node, const std::string &socket, unsigned instance, const std::string &flags,
                     const std::string &scope = "2")
    {
        return on(node).ask("join " + socket + " " + type() + " " + std::to_string(instance) + " " + scope + " " +
                            flags);
    }
    std::string member(unsigned instance)
    {
        return type() + ":" + std::to_string(instance);
    }
    void expect_event(int node, const std::string &socket, const std::string &flags, const std::string &of,
                      unsigned instance)
    {
        answer got = on(node).get("recv " + socket + " member wait=10000");
        EXPECT_EQ(got.head, "0") << got.text;
        EXPECT_EQ(got.of["flag"], flags) << got.text;
        EXPECT_EQ(got.of["from"], of) << got.text;
        EXPECT_EQ(got.of["member"], member(instance)) << got.text;
        EXPECT_EQ(got.of["fromlen"], "32");
        EXPECT_FALSE(got.has("err")) << got.text;
    }
    // "a" on node 1 has instance 1, "b" there 2, "c" on node 2 has 3. All know of all.
    void make_three()
    {
        on(1).ok("open a rdm");
        on(1).ok("open b rdm");
        on(2).ok("open c rdm");
        id_a = on(1).ask("name a");
        id_b = on(1).ask("name b");
        id_c = on(2).ask("name c");
        EXPECT_EQ(join(1, "a", 1, EVENTS), "0");
        EXPECT_EQ(join(1, "b", 2, EVENTS), "0");
        EXPECT_EQ(join(2, "c", 3, EVENTS), "0");
        expect_joined(1, "a", {{id_b, 2}, {id_c, 3}});
        expect_joined(1, "b", {{id_a, 1}, {id_c, 3}});
        expect_joined(2, "c", {{id_a, 1}, {id_b, 2}});
    }
    // The next events say that these have joined, in any order.
    void expect_joined(int node, const std::string &socket, const std::map<std::string, unsigned> &them)
    {
        std::set<std::string> seen, expected;
        for (const auto &one : them) {
            answer got = on(node).get("recv " + socket + " member wait=10000");
            seen.insert(got.head + " " + got.of["flag"] + " " + got.of["from"] + " " + got.of["member"]);
            expected.insert("0 oob " + one.first + " " + member(one.second));
        }
        EXPECT_EQ(seen, expected);
    }
    void expect_message(int node, const std::string &socket, long num)
    {
        answer got = on(node).get("recv " + socket + " member wait=10000");
        EXPECT_EQ(got.head, "10") << got.text;
        EXPECT_EQ(got.num("num"), num) << got.text;
        EXPECT_EQ(got.of["from"], id_a);
        EXPECT_EQ(got.of["member"], member(1)) << "who sent it";
        EXPECT_EQ(got.of["fromlen"], "32");
        EXPECT_FALSE(got.has("dest")) << got.text;
        EXPECT_FALSE(got.has("flag")) << got.text;
    }
    std::string id_a, id_b, id_c;
};

TEST_F(groups, members_are_told_who_joins_and_who_leaves)
{
    make_three();
    EXPECT_EQ(on(2).ask("leave c"), "0");
    for (const char *socket : {"a", "b"})
        expect_event(1, socket, "oob,eor", id_c, 3);
    EXPECT_EQ(on(2).ask("leave c"), "EINVAL");
    EXPECT_EQ(on(2).ask("send c none 1 10"), "EDESTADDRREQ");
    on(1).ok("close b");
    expect_event(1, "a", "oob,eor", id_b, 2);
    EXPECT_EQ(on(1).ask("recv a"), "EAGAIN");
}

TEST_F(groups, a_message_without_an_address_goes_to_all_others)
{
    make_three();
    EXPECT_EQ(on(1).ask("send a none 5 10"), "10");
    expect_message(1, "b", 5);
    expect_message(2, "c", 5);
    EXPECT_EQ(on(1).ask("recv a"), "EAGAIN");
    EXPECT_EQ(on(1).ask("send a none 6 66001"), "EMSGSIZE");
    EXPECT_EQ(on(1).ask("send a none 6 66000"), "66000");
    EXPECT_EQ(on(2).get("recv c wait=10000").head, "66000");
    EXPECT_EQ(on(1).get("recv b wait=10000").head, "66000");
}

TEST_F(groups, a_name_means_one_member_of_the_instance)
{
    make_three();
    EXPECT_EQ(on(1).ask("send a " + name(3) + " 5 10"), "10");
    expect_message(2, "c", 5);
    EXPECT_EQ(on(1).ask("send a name:19999:2 6 10"), "10") << "the type is not looked at";
    expect_message(1, "b", 6);
    EXPECT_EQ(on(1).ask("send a " + name(99) + " 7 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(2).ask("recv c"), "EAGAIN");
}

TEST_F(groups, a_range_means_all_members_of_its_first_instance)
{
    make_three();
    on(2).ok("open d rdm");
    std::string id_d = on(2).ask("name d");
    EXPECT_EQ(join(2, "d", 3, EVENTS), "0");
    expect_event(1, "a", "oob", id_d, 3);
    expect_event(1, "b", "oob", id_d, 3);
    EXPECT_EQ(on(2).get("recv c member wait=10000").of["from"], id_d);
    expect_joined(2, "d", {{id_a, 1}, {id_b, 2}, {id_c, 3}});
    EXPECT_EQ(on(1).ask("send a " + range(3, 9) + " 5 10"), "10");
    expect_message(2, "c", 5);
    expect_message(2, "d", 5);
    EXPECT_EQ(on(1).ask("send a " + range(2, 3) + " 6 10"), "10");
    expect_message(1, "b", 6);
    EXPECT_EQ(on(1).ask("send a " + range(50, 60) + " 7 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("send a " + range(2, 2) + " 8 10"), "10");
    expect_message(1, "b", 8);
    EXPECT_EQ(on(2).ask("recv c"), "EAGAIN");
}

TEST_F(groups, an_address_means_that_member)
{
    make_three();
    on(2).ok("open stranger rdm");
    EXPECT_EQ(on(1).ask("send a " + id_c + " 5 10"), "10");
    expect_message(2, "c", 5);
    EXPECT_EQ(on(1).ask("send a " + on(2).ask("name stranger") + " 5 10"), "EHOSTUNREACH");
    EXPECT_EQ(on(1).ask("recv b"), "EAGAIN");
}

TEST_F(groups, nobody_else_reaches_a_member)
{
    make_three();
    on(1).open_sender("s");
    for (const std::string &to : {name(2), id_b}) {
        EXPECT_EQ(on(1).ask("send s " + to + " 5 10"), "10");
        EXPECT_EQ(on(1).ask("recv b"), "EAGAIN");
        EXPECT_EQ(on(1).ask("recv s"), "EAGAIN") << "it is not returned";
    }
}

TEST_F(groups, loopback_gives_the_own_messages_and_events)
{
    on(1).ok("open a rdm");
    id_a = on(1).ask("name a");
    EXPECT_EQ(join(1, "a", 1, "3"), "0");
    expect_event(1, "a", "oob", id_a, 1);
    EXPECT_EQ(on(1).ask("send a none 5 10"), "10");
    expect_message(1, "a", 5);
}

TEST_F(groups, without_the_flag_there_are_no_events)
{
    on(1).ok("open a rdm");
    on(1).ok("open b rdm");
    id_a = on(1).ask("name a");
    EXPECT_EQ(join(1, "b", 2, NO_FLAGS), "0");
    EXPECT_EQ(join(1, "a", 1, EVENTS), "0");
    EXPECT_EQ(on(1).get("recv a member wait=10000").of["member"], member(2));
    EXPECT_EQ(on(1).ask("send a none 5 10"), "10");
    expect_message(1, "b", 5); // the first that it reads
}

TEST_F(groups, a_socket_is_in_one_group_and_has_no_other_name)
{
    on(1).ok("open a rdm");
    EXPECT_EQ(on(1).ask("join a 5 1 2 0"), "EACCES") << "a reserved type";
    EXPECT_EQ(join(1, "a", 1, NO_FLAGS, "5"), "EINVAL") << "no such scope";
    EXPECT_EQ(on(1).ask("join a " + type() + " 1 2 0 len=12"), "EINVAL");
    EXPECT_EQ(join(1, "a", 1, LOOPBACK), "0");
    EXPECT_EQ(join(1, "a", 1, LOOPBACK), "EACCES");
    EXPECT_EQ(on(1).ask("join a 19998 1 2 0"), "EACCES");
    EXPECT_EQ(on(1).ask("bind a " + name(5) + " 2"), "EACCES");
    EXPECT_EQ(on(1).ask("connect a " + name(5)), "EINVAL");
    EXPECT_EQ(on(1).ask(std::string("opt a tipc ") + GROUP_JOIN), type() + " 4");
    EXPECT_EQ(on(1).ask("poll a out wait=10000"), "out") << "when it knows of itself";
}

TEST_F(groups, a_killed_member_leaves)
{
    on(1).ok("open a rdm");
    EXPECT_EQ(join(1, "a", 1, EVENTS), "0");
    probe victim(2);
    victim.ok("open b rdm");
    std::string id = victim.ask("name b");
    EXPECT_EQ(victim.ask("join b " + type() + " 2 2 0"), "0");
    expect_event(1, "a", "oob", id, 2);
    victim.kill();
    expect_event(1, "a", "oob,eor", id, 2);
}

TEST_F(groups, a_member_that_does_not_read_stops_the_senders)
{
    make_three();
    answer got = on(1).get("send a none 0 1000 count=20000 dontwait");
    EXPECT_TRUE(got.has("EAGAIN")) << got.text;
    long sent = strtol(got.head.c_str(), nullptr, 10);
    EXPECT_GT(sent, 10);
    EXPECT_EQ(on(1).ask("poll a all"), "none");
    EXPECT_EQ(on(1).get("drain b until=" + got.head).head, got.head);
    EXPECT_EQ(on(2).get("drain c until=" + got.head).head, got.head);
    EXPECT_EQ(on(1).ask("poll a out wait=10000"), "out");
}
