// A receiver that does not read. How much its queue holds depends on the kernel, so the tests state relations alone.
#include "conformance.h"

class overload : public tipc
{
  protected:
    static constexpr int PLENTY = 5000; // more small messages than fit at the lowest importances
    void SetUp() override
    {
        tipc::SetUp();
        on(1).open_receiver("r", name(1));
        on(2).ok(await(1));
    }
    // Sends `count` messages from the node, and returns how many were returned. The receiver holds the others.
    long fill(int node, int importance, int len, int count, const std::string &how = "")
    {
        std::string number = std::to_string(count);
        std::string size = std::to_string(len);
        on(node).open_sender("s");
        on(node).ok(std::string("opt s tipc ") + IMPORTANCE + " " + std::to_string(importance));
        EXPECT_EQ(on(node).ask("send s " + name(1) + " 0 " + size + " count=" + number + how), number + " " + size);
        // The last message is returned after all others that are.
        answer got;
        long back = 0;
        do {
            got = on(node).get("recv s wait=10000");
            EXPECT_EQ(got.of["err"], "4") << got.text;
            back++;
        } while (!testing::Test::HasFailure() && got.num("retnum") != count - 1);
        on(node).ok("close s");
        return back;
    }
    long held()
    {
        answer got = on(1).get("drain r");
        return strtol(got.head.c_str(), nullptr, 10);
    }
    long room(int importance, int len, int count)
    {
        long back = fill(1, importance, len, count);
        long kept = held();
        EXPECT_EQ(kept + back, count) << "none is lost";
        return kept;
    }
};

static void expect_double(long twice, long once)
{
    EXPECT_GE(twice, once * 18 / 10);
    EXPECT_LE(twice, once * 22 / 10);
}

TEST_F(overload, what_a_full_receiver_cannot_take_comes_back)
{
    for (int node : {1, 2}) {
        for (const char *how : {"", " dontwait"}) {
            long back = fill(node, 0, 66000, 60, how);
            answer got = on(1).get("drain r");
            EXPECT_GT(back, 0);
            EXPECT_EQ(strtol(got.head.c_str(), nullptr, 10), 60 - back);
            EXPECT_EQ(got.num("first"), 0) << "the first ones are held";
            EXPECT_EQ(got.num("bad"), 0);
        }
    }
}

TEST_F(overload, the_returned_message_says_overload)
{
    (void)fill(1, 0, 64, PLENTY);
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 77 500"), "500");
    answer got = on(1).get("recv s wait=10000");
    EXPECT_EQ(got.head, "0");
    EXPECT_EQ(got.of["err"], "4");
    EXPECT_EQ(got.num("errlen"), 500);
    EXPECT_EQ(got.num("retnum"), 77);
    EXPECT_EQ(got.of["retdata"], "intact");
    EXPECT_EQ(got.of["dest"], type() + ":1:1");
    EXPECT_EQ(got.of["from"], on(1).ask("name r"));
}

TEST_F(overload, droppable_messages_vanish_in_silence)
{
    on(1).ok("open s rdm"); // TIPC_DEST_DROPPABLE is on at first
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 0 66000 count=60"), "60 66000");
    on(1).ok(std::string("opt s tipc ") + DEST_DROPPABLE + " 0");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 60 66000"), "66000");
    answer got = on(1).get("recv s wait=10000");
    EXPECT_EQ(got.num("retnum"), 60) << "the only one that comes back";
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
    EXPECT_LT(held(), 60);
}

TEST_F(overload, importance_raises_the_limit)
{
    long at_0 = room(0, 64, PLENTY);
    long at_1 = room(1, 64, PLENTY);
    EXPECT_GT(at_0, 1000) << "a window of a thousand small messages fits";
    expect_double(at_1, at_0);
}

TEST_F(overload, each_step_of_importance_doubles_the_room_for_large_messages)
{
    long before = room(0, 66000, 200);
    for (int importance = 1; importance <= 3; importance++) {
        long now = room(importance, 66000, 200);
        expect_double(now, before);
        before = now;
    }
}

TEST_F(overload, large_messages_take_far_more_room_than_small_ones)
{
    long small = room(0, 64, PLENTY);
    long middle = room(0, 1024, PLENTY);
    long large = room(0, 66000, 200);
    EXPECT_GT(small, middle);
    EXPECT_GT(middle, 10 * large);
    EXPECT_GT(large, 1);
}

TEST_F(overload, the_room_is_shared_by_all_senders)
{
    (void)fill(1, 0, 64, PLENTY);
    on(2).open_sender("s");
    EXPECT_EQ(on(2).ask("send s " + name(1) + " 1 64"), "64");
    EXPECT_EQ(on(2).get("recv s wait=10000").of["err"], "4");
}

TEST_F(overload, a_more_important_message_finds_room_in_a_full_queue)
{
    (void)fill(1, 0, 64, PLENTY);
    on(1).open_sender("s");
    on(1).ok(std::string("opt s tipc ") + IMPORTANCE + " 1");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 9000 64"), "64");
    on(1).ok(std::string("opt s tipc ") + IMPORTANCE + " 0");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 9001 64"), "64");
    answer got = on(1).get("recv s wait=10000");
    EXPECT_EQ(got.num("retnum"), 9001) << "the other one was taken";
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
}

TEST_F(overload, where_a_large_message_does_not_fit_a_small_one_may)
{
    EXPECT_GT(fill(1, 0, 66000, 60), 0);
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 1 64"), "64");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 2 66000"), "66000");
    EXPECT_EQ(on(1).get("recv s wait=10000").num("retnum"), 2);
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
}

TEST_F(overload, reading_makes_room)
{
    (void)fill(1, 0, 66000, 60);
    EXPECT_GT(held(), 0);
    on(1).open_sender("s");
    EXPECT_EQ(on(1).ask("send s " + name(1) + " 5 66000"), "66000");
    EXPECT_EQ(on(1).get("recv r wait=10000").num("num"), 5);
    EXPECT_EQ(on(1).ask("recv s"), "EAGAIN");
}

TEST_F(overload, an_overloaded_socket_can_still_send)
{
    (void)fill(1, 0, 66000, 60);
    on(1).open_receiver("other", name(2));
    EXPECT_EQ(on(1).ask("send r " + name(2) + " 5 100"), "100");
    EXPECT_EQ(on(1).get("recv other wait=10000").num("num"), 5);
}
