// What bind takes and refuses, beyond names_test.cpp, and the address of a socket.
#include "conformance.h"

class binds : public tipc
{
  protected:
    void SetUp() override
    {
        tipc::SetUp();
        on(1).ok("open r rdm");
        on(1).ok("open s rdm");
    }
    std::string bind(const std::string &rest)
    {
        return on(1).ask("bind r " + rest);
    }
    void expect_known(unsigned instance)
    {
        EXPECT_EQ(on(1).ask("send s " + name(instance) + " 1 10"), "10") << instance;
    }
    void expect_unknown(unsigned instance)
    {
        EXPECT_EQ(on(1).ask("send s " + name(instance) + " 1 10"), "EHOSTUNREACH") << instance;
    }
};

TEST_F(binds, an_address_may_be_longer_but_not_shorter)
{
    for (const char *len : {"2", "8", "15", "129"})
        EXPECT_EQ(bind(name(1) + " 2 len=" + len), "EINVAL") << len;
    expect_unknown(1);
    EXPECT_EQ(bind(name(1) + " 2 len=17"), "0");
    EXPECT_EQ(bind(name(2) + " 2 len=128"), "0");
    expect_known(1);
    expect_known(2);
    EXPECT_EQ(bind(name(3) + " 2 len=0"), "0") << "without a length it unbinds all";
    expect_unknown(1);
    expect_unknown(2);
    EXPECT_EQ(bind("none 2"), "0") << "there is nothing left to unbind";
    EXPECT_EQ(on(1).ask("fault r bind none"), "EFAULT");
    EXPECT_EQ(on(1).ask("fault r bind_null none"), "EFAULT");
}

TEST_F(binds, the_first_64_types_are_reserved)
{
    for (unsigned t = 0; t < 64; t++)
        EXPECT_EQ(bind("name:" + std::to_string(t) + ":3 2"), "EACCES") << t;
    EXPECT_EQ(bind("name:64:3 2"), "0");
    EXPECT_EQ(bind("name:4294967295:4294967295 2"), "0");
}

TEST_F(binds, any_scope_that_is_not_negative_binds)
{
    for (unsigned scope = 0; scope <= 5; scope++) {
        EXPECT_EQ(bind(name(scope) + " " + std::to_string(scope)), "0");
        expect_known(scope);
    }
    for (const char *scope : {"-1", "-2", "-3", "-4"})
        EXPECT_EQ(bind(name(77) + " " + scope), "EINVAL") << "there is nothing to unbind";
}

TEST_F(binds, a_name_bound_twice_is_unbound_twice)
{
    EXPECT_EQ(bind(name(1) + " 2"), "0");
    EXPECT_EQ(bind(name(1) + " 2"), "0");
    EXPECT_EQ(bind(name(1) + " -2"), "0");
    expect_known(1);
    EXPECT_EQ(bind(name(1) + " -2"), "0");
    expect_unknown(1);
    EXPECT_EQ(bind(name(1) + " -2"), "0") << "a socket without names has none too many";
    EXPECT_EQ(bind(name(2) + " 2"), "0");
    EXPECT_EQ(bind(name(1) + " -2"), "EINVAL") << "one with others says that this is not bound";
}

TEST_F(binds, a_range_is_unbound_as_it_was_bound)
{
    EXPECT_EQ(bind(range(10, 20) + " 2"), "0");
    EXPECT_EQ(bind(range(10, 15) + " -2"), "EINVAL") << "a part of it";
    EXPECT_EQ(bind(name(10) + " -2"), "EINVAL");
    EXPECT_EQ(bind(range(10, 21) + " -2"), "EINVAL");
    EXPECT_EQ(bind(range(10, 20) + " -3"), "EINVAL") << "another scope";
    expect_known(10);
    expect_known(20);
    EXPECT_EQ(bind(range(10, 20) + " -2"), "0");
    expect_unknown(10);
}

TEST_F(binds, a_scope_is_unbound_as_it_was_bound)
{
    EXPECT_EQ(bind(name(1) + " 3"), "0");
    EXPECT_EQ(bind(name(1) + " -2"), "EINVAL");
    expect_known(1);
    EXPECT_EQ(bind(name(1) + " -3"), "0");
    expect_unknown(1);
    EXPECT_EQ(bind(name(2) + " 1"), "0");
    EXPECT_EQ(bind(name(2) + " -2"), "0") << "zone and cluster are one";
    expect_unknown(2);
}

TEST_F(binds, ranges_may_overlap)
{
    on(1).ok("open other rdm");
    EXPECT_EQ(bind(range(10, 20) + " 2"), "0");
    EXPECT_EQ(bind(range(15, 25) + " 2"), "0") << "in one socket";
    EXPECT_EQ(on(1).ask("bind other " + range(18, 30) + " 2"), "0");
    EXPECT_EQ(on(1).ask("bind other " + range(10, 20) + " 2"), "0") << "the very same";
    for (unsigned instance : {10U, 17U, 25U, 30U})
        expect_known(instance);
    EXPECT_EQ(bind("none 2"), "0");
    expect_known(10);
    on(1).ok("close other");
    expect_unknown(10);
    EXPECT_EQ(bind(range(0, 4294967295U) + " 2"), "0") << "all there are";
    expect_known(4000000000U);
}

TEST_F(binds, refuses_what_is_not_a_name)
{
    EXPECT_EQ(bind("raw:0:2:" + type() + ":1 2"), "EINVAL") << "no family";
    EXPECT_EQ(bind("raw:30:0:" + type() + ":1 2"), "EINVAL") << "no type of address";
    EXPECT_EQ(bind("raw:30:4:" + type() + ":1 2"), "EINVAL");
    EXPECT_EQ(bind(name(5) + ":16781313 2"), "0") << "a domain is not looked at";
    expect_known(5);
}

TEST_F(binds, the_address_of_a_socket_is_copied_as_far_as_there_is_room)
{
    for (const char *kind : {"rdm", "dgram", "stream", "seqpacket"}) {
        on(1).ok(std::string("open x ") + kind);
        EXPECT_NE(on(1).ask("name x"), "odd");
        EXPECT_EQ(on(1).ask("name x len=4"), "0 len=16");
        EXPECT_EQ(on(1).ask("name x len=0"), "0 len=16");
        EXPECT_EQ(on(1).ask("name x len=-1"), "EINVAL");
        EXPECT_EQ(on(1).ask("fault x name none"), "EFAULT");
        EXPECT_EQ(on(1).ask("fault x name_len none"), "EFAULT");
        on(1).ok("close x");
    }
}

TEST_F(binds, more_than_16384_names)
{
    EXPECT_EQ(on(1).ask("bindmany r " + type() + " 18000"), "18000 0");
    on(2).ok(await(17999));
    on(2).open_sender("s");
    for (unsigned instance : {0U, 9000U, 17999U}) {
        EXPECT_EQ(on(2).ask("send s " + name(instance) + " 5 10"), "10");
        EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 5);
    }
    on(1).ok("close r");
    on(2).ok(await(0, "gone"));
    on(2).ok(await(17999, "gone"));
}

TEST_F(binds, a_name_does_not_change_what_poll_says)
{
    for (const char *kind : {"rdm", "dgram", "stream", "seqpacket"}) {
        on(1).ok(std::string("open x ") + kind);
        EXPECT_EQ(on(1).ask("poll x all"), "out") << kind;
        on(1).ok("bind x " + name(50) + " 2");
        EXPECT_EQ(on(1).ask("poll x all"), "out") << kind;
        on(1).ok("close x");
    }
}

TEST_F(binds, socket_takes_four_types_and_one_protocol)
{
    for (const char *type : {"1", "2", "4", "5"}) {
        EXPECT_EQ(on(1).ask(std::string("socket ") + type + " 0"), "0");
        EXPECT_EQ(on(1).ask(std::string("socket ") + type + " 1"), "EPROTONOSUPPORT");
    }
    for (const char *type : {"0", "3", "6", "10"})
        EXPECT_EQ(on(1).ask(std::string("socket ") + type + " 0"), "EPROTOTYPE") << type;
    EXPECT_EQ(on(1).ask("socket 99 0"), "EINVAL");
}
