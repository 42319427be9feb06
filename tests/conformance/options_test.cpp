// Options of a socket.
#include "conformance.h"

class options : public tipc
{
  protected:
    std::string get(const std::string &socket, const std::string &option)
    {
        return on(1).ask("opt " + socket + " tipc " + option);
    }
    std::string set(const std::string &socket, const std::string &option, const std::string &value)
    {
        return on(1).ask("opt " + socket + " tipc " + option + " " + value);
    }
};

static const char SO_TYPE_NUMBER[] = "3";

TEST_F(options, first_values_of_a_reliable_datagram_socket)
{
    on(1).ok("open s rdm");
    EXPECT_EQ(get("s", IMPORTANCE), "0 4");
    EXPECT_EQ(get("s", SRC_DROPPABLE), "0 4");
    EXPECT_EQ(get("s", DEST_DROPPABLE), "1 4");
}

TEST_F(options, first_values_of_a_connection)
{
    on(1).ok("open s seqpacket");
    EXPECT_EQ(get("s", IMPORTANCE), "0 4");
    EXPECT_EQ(get("s", SRC_DROPPABLE), "0 4");
    EXPECT_EQ(get("s", DEST_DROPPABLE), "0 4");
}

TEST_F(options, what_was_set_is_read_back)
{
    on(1).ok("open s rdm");
    for (const char *importance : {"3", "2", "1", "0"}) {
        EXPECT_EQ(set("s", IMPORTANCE, importance), "0");
        EXPECT_EQ(get("s", IMPORTANCE), std::string(importance) + " 4");
    }
    for (const char *option : {SRC_DROPPABLE, DEST_DROPPABLE}) {
        for (const char *value : {"1", "0"}) {
            EXPECT_EQ(set("s", option, value), "0");
            EXPECT_EQ(get("s", option), std::string(value) + " 4");
        }
    }
}

TEST_F(options, the_highest_importance_is_3)
{
    on(1).ok("open s rdm");
    EXPECT_EQ(set("s", IMPORTANCE, "2"), "0");
    EXPECT_EQ(set("s", IMPORTANCE, "4"), "EINVAL");
    EXPECT_EQ(set("s", IMPORTANCE, "256"), "EINVAL");
    EXPECT_EQ(get("s", IMPORTANCE), "2 4") << "a refused value changes nothing";
}

TEST_F(options, what_is_not_zero_is_droppable)
{
    on(1).ok("open s rdm");
    EXPECT_EQ(set("s", DEST_DROPPABLE, "7"), "0");
    EXPECT_EQ(get("s", DEST_DROPPABLE), "1 4");
}

TEST_F(options, a_value_too_short_is_refused)
{
    on(1).ok("open s rdm");
    EXPECT_EQ(set("s", IMPORTANCE, "1 len=2"), "EINVAL");
    EXPECT_EQ(get("s", std::string(IMPORTANCE) + " len=2"), "EINVAL");
}

TEST_F(options, an_unknown_option_is_refused)
{
    on(1).ok("open s rdm");
    EXPECT_EQ(set("s", "999", "1"), "EINVAL");
    EXPECT_EQ(get("s", "999"), "EINVAL");
}

TEST_F(options, a_socket_tells_its_type)
{
    on(1).ok("open r rdm");
    on(1).ok("open s seqpacket");
    EXPECT_EQ(on(1).ask(std::string("opt r socket ") + SO_TYPE_NUMBER), "4 4") << "SOCK_RDM";
    EXPECT_EQ(on(1).ask(std::string("opt s socket ") + SO_TYPE_NUMBER), "5 4") << "SOCK_SEQPACKET";
}
