// What zeb.hpp gives without a library that runs: messages, results, spans, errors, time limits, handles of nothing.
// Compiled by the oldest standard here and by the latest in values_latest_test.cpp.
#include <array>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zeb/zeb.hpp>

#ifndef SUITE
#define SUITE values
#endif

using namespace std::chrono_literals;

TEST(SUITE, a_message_is_made_of_bytes_text_a_size_or_an_object)
{
    auto bytes = zeb::message::from_bytes(7, std::vector<uint8_t>{1, 2, 3});
    ASSERT_TRUE(bytes);
    EXPECT_EQ(bytes.version(), 7u);
    EXPECT_EQ(bytes.size(), 3u);
    EXPECT_EQ(bytes.data()[2], 3);
    EXPECT_EQ(bytes.get()->hdr.zeb_ver, ZEB_MSG_VERSION);
    EXPECT_EQ(bytes.get()->hdr.len, 3u + ZEB_MSG_HDR_LEN);
    EXPECT_EQ(zeb::message::from_bytes(7, "ab", 2).text(), "ab");
    EXPECT_EQ(zeb::message::from_bytes(7, std::array<char, 2>{'x', 'y'}).text(), "xy");
    EXPECT_EQ(zeb::message::from_bytes(7, bytes.data()).size(), 3u) << "from the payload of another";
    EXPECT_EQ(zeb::message::from_text(1, "hello").text(), "hello");
    auto cleared = zeb::message::with_size(1, 5000);
    EXPECT_EQ(std::accumulate(cleared.data().begin(), cleared.data().end(), 0), 0);
    EXPECT_EQ(cleared.size(), 5000u);
    struct point {
        int x, y;
    };
    auto object = zeb::message::from_object(1, point{3, 4});
    EXPECT_EQ(object.as<point>()->y, 4);
    EXPECT_FALSE(object.as<char>()) << "another size";
}

TEST(SUITE, an_empty_message_is_a_message)
{
    for (auto make :
         {+[] { return zeb::message(3); }, +[] { return zeb::message::from_text(3, ""); },
          +[] { return zeb::message::from_bytes(3, nullptr, 0); }, +[] { return zeb::message::with_size(3, 0); }}) {
        zeb::message message = make();
        EXPECT_TRUE(message);
        EXPECT_TRUE(message.empty());
        EXPECT_TRUE(message.data().empty());
        EXPECT_EQ(message.text(), "");
        EXPECT_EQ(message.version(), 3u);
        EXPECT_EQ(message.clone().version(), 3u);
    }
}

TEST(SUITE, a_moved_from_message_holds_nothing)
{
    auto first = zeb::message::from_text(1, "text");
    zeb::message second = std::move(first);
    EXPECT_EQ(second.text(), "text");
    auto nothing = [](const zeb::message &message) {
        EXPECT_FALSE(message);
        EXPECT_EQ(message.size(), 0u);
        EXPECT_TRUE(message.data().empty());
        EXPECT_EQ(message.text(), "");
        EXPECT_EQ(message.version(), 0u);
        EXPECT_EQ(message.sender(), zeb::instance{});
        EXPECT_EQ(message.get(), nullptr);
        EXPECT_FALSE(message.clone());
        EXPECT_FALSE(message.as<int>());
    };
    nothing(first); // NOLINT(bugprone-use-after-move): that is the test
    nothing(zeb::message());
    zeb::message &same = second;
    second = std::move(same);
    EXPECT_EQ(second.text(), "text") << "moved to itself";
    first = std::move(second);
    EXPECT_EQ(first.text(), "text");
    nothing(second); // NOLINT(bugprone-use-after-move): that is the test
}

TEST(SUITE, the_largest_message_and_one_byte_more)
{
    std::string largest(zeb::message::max_size, 'x');
    EXPECT_EQ(zeb::message::from_text(1, largest).text(), largest);
    EXPECT_TRUE(zeb::message::with_size(1, zeb::message::max_size));
    EXPECT_FALSE(zeb::message::from_text(1, largest + "x"));
    EXPECT_FALSE(zeb::message::with_size(1, zeb::message::max_size + 1));
    EXPECT_FALSE(zeb::message::with_size(1, SIZE_MAX));
    EXPECT_FALSE(zeb::message::from_bytes(1, largest.data(), SIZE_MAX));
}

TEST(SUITE, a_block_is_taken_over_and_given_away)
{
    zeb_msg_t *block = zeb_msg_alloc(2, 9, 0);
    zeb::message message(block);
    EXPECT_EQ(message.version(), 9u);
    EXPECT_EQ(message.get(), block);
    EXPECT_EQ(message.release(), block);
    EXPECT_FALSE(message);
    message.reset(block);
    EXPECT_EQ(message.size(), 2u);
    message.reset();
    EXPECT_FALSE(message);
}

TEST(SUITE, a_clone_is_a_message_of_its_own)
{
    auto first = zeb::message::from_text(4, "abc");
    first.get()->hdr.src_app = 100;
    first.get()->hdr.src_node = 7;
    zeb::message copy = first.clone();
    first.data()[0] = 'X';
    EXPECT_EQ(copy.text(), "abc");
    EXPECT_EQ(copy.version(), 4u);
    EXPECT_EQ(copy.sender(), (zeb::instance{100, 7}));
}

static zeb::result<std::string> say(bool well)
{
    if (!well)
        return zeb::unexpected(zeb::make_error_code(zeb::errc::not_found));
    return std::string("well");
}

TEST(SUITE, a_result_is_a_value_or_an_error)
{
    auto well = say(true);
    ASSERT_TRUE(well);
    EXPECT_TRUE(well.has_value());
    EXPECT_EQ(*well, "well");
    EXPECT_EQ(well->size(), 4u);
    EXPECT_EQ(well.value(), "well");
    EXPECT_EQ(say(true).value_or("other"), "well");
    EXPECT_EQ(say(true).value(), "well");
    const auto ill = say(false);
    EXPECT_FALSE(ill);
    EXPECT_EQ(ill.error(), zeb::errc::not_found);
    EXPECT_EQ(ill.value_or("other"), "other");
    try {
        (void)ill.value();
        FAIL() << "value() must throw";
    } catch (const zeb::bad_expected_access<std::error_code> &thrown) {
        EXPECT_EQ(thrown.error(), zeb::errc::not_found);
        EXPECT_NE(thrown.what(), std::string());
    }
    zeb::result<std::unique_ptr<int>> movable = std::make_unique<int>(5);
    std::unique_ptr<int> taken = *std::move(movable);
    EXPECT_EQ(*taken, 5);
    zeb::result<zeb::message> message = zeb::message::from_text(1, "in a result");
    zeb::result<zeb::message> moved = std::move(message);
    EXPECT_EQ(moved->text(), "in a result");
    moved = say(false).has_value() ? zeb::result<zeb::message>(zeb::message())
                                   : zeb::unexpected(zeb::make_error_code(zeb::errc::full));
    EXPECT_EQ(moved.error(), zeb::errc::full);
}

TEST(SUITE, a_span_is_a_view)
{
    std::vector<int> numbers{1, 2, 3, 4};
    zeb::span<int> all(numbers);
    EXPECT_EQ(all.size(), 4u);
    EXPECT_EQ(all.size_bytes(), 16u);
    EXPECT_EQ(all.front() + all.back(), 5);
    zeb::span<const int> fixed = all;
    EXPECT_EQ(fixed.data(), numbers.data());
    EXPECT_EQ(fixed.subspan(1).size(), 3u);
    EXPECT_EQ(fixed.subspan(1, 2)[1], 3);
    EXPECT_EQ(fixed.first(2).back(), 2);
    EXPECT_EQ(fixed.last(1)[0], 4);
    int plain[] = {5, 6};
    EXPECT_EQ(zeb::span<int>(plain).end() - zeb::span<int>(plain).begin(), 2);
    EXPECT_TRUE(zeb::span<int>().empty());
    EXPECT_FALSE((std::is_constructible_v<zeb::span<int>, const std::vector<int> &>)) << "not around const";
}

TEST(SUITE, an_error_has_the_number_and_the_text_of_the_library)
{
    std::error_code error = zeb::errc::not_found;
    EXPECT_EQ(error.value(), -ENOENT);
    EXPECT_EQ(error.message(), zeb_strerror(-ENOENT));
    EXPECT_STREQ(error.category().name(), "zeb");
    EXPECT_EQ(&error.category(), &zeb::error_category());
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_EQ(std::error_code(zeb::errc::timed_out), std::errc::timed_out);
    EXPECT_NE(std::error_code(zeb::errc::failed), std::errc::operation_not_permitted) << "the same number alone";
    EXPECT_FALSE(std::error_code(0, zeb::error_category()));
}

TEST(SUITE, a_time_limit_is_rounded_up)
{
    auto ms = [](auto limit) { return zeb::time_limit(limit).milliseconds(); };
    EXPECT_EQ(ms(1500ms), 1500u);
    EXPECT_EQ(ms(2s), 2000u);
    EXPECT_EQ(ms(1ns), 1u);
    EXPECT_EQ(ms(1001us), 2u);
    EXPECT_EQ(ms(1000us), 1u);
    EXPECT_EQ(ms(0s), 1u) << "0 would be without limit";
    EXPECT_EQ(ms(-5s), 1u);
    EXPECT_EQ(ms(0.0015s), 2u);
    EXPECT_EQ(ms(std::chrono::milliseconds(4294967294)), 4294967294u);
    EXPECT_EQ(ms(std::chrono::milliseconds(4294967295)), 0u) << "without limit";
    EXPECT_EQ(ms(std::chrono::hours::max()), 0u);
    EXPECT_EQ(ms(std::chrono::hours::min()), 1u);
    EXPECT_EQ(zeb::forever.milliseconds(), 0u);
    EXPECT_EQ(zeb::forever.seconds(), 0u);
    EXPECT_EQ(zeb::time_limit(1s).seconds(), 1u);
    EXPECT_EQ(zeb::time_limit(1001ms).seconds(), 2u);
    EXPECT_EQ(zeb::time_limit(1ms).seconds(), 1u);
    static_assert(zeb::time_limit(90s).seconds() == 90, "usable where it is compiled");
}

TEST(SUITE, addresses_and_instances)
{
    zeb::address all = 200;
    EXPECT_EQ(all.node, zeb::all_nodes);
    zeb::address one = {200, 3};
    EXPECT_EQ(one.node, 3u);
    zeb::address to = zeb::instance{200, 4};
    EXPECT_EQ(to.node, 4u);
    EXPECT_LT((zeb::instance{1, 9}), (zeb::instance{2, 1}));
    EXPECT_LT((zeb::instance{1, 1}), (zeb::instance{1, 2}));
    EXPECT_NE((zeb::instance{1, 1}), (zeb::instance{1, 2}));
    EXPECT_EQ(static_cast<int>(zeb::nowait | zeb::exclude_self), ZEB_SEND_NOWAIT | ZEB_SEND_EXCLUDE_SELF);
}

TEST(SUITE, replies_take_the_messages_of_a_buffer)
{
    zeb_reply_msg_t buffer = {};
    auto add = [&buffer](int status, const char *text) {
        zeb_msg_t *block = zeb::message::from_text(1, text).release();
        block->hdr.rpc_stat = status;
        block->hdr.src_node = static_cast<uint32_t>(buffer.num);
        buffer.msg[buffer.num++] = block;
    };
    add(ZEB_SUCCESS, "of eight");
    add(ZEB_TIMEOUT, "");
    add(ZEB_APP_MISMATCH, "12345678");
    add(ZEB_APP_MISMATCH, "short");
    zeb::replies outcomes(buffer);
    EXPECT_EQ(buffer.num, 0);
    EXPECT_EQ(buffer.msg[0], nullptr);
    ASSERT_EQ(outcomes.size(), 4u);
    EXPECT_TRUE(outcomes[0]);
    EXPECT_EQ(outcomes[0].text(), "of eight");
    EXPECT_FALSE(outcomes[0].versions());
    EXPECT_EQ(outcomes[1].status(), zeb::outcome::timed_out);
    EXPECT_STREQ(zeb::to_string(outcomes[1].status()), zeb_reply_status_text(ZEB_TIMEOUT));
    EXPECT_EQ(outcomes[1].from().node, 1u);
    EXPECT_FALSE(outcomes[1].ok());
    EXPECT_TRUE(outcomes[2].versions());
    EXPECT_FALSE(outcomes[3].versions()) << "too short";
    zeb::replies moved = std::move(outcomes);
    EXPECT_TRUE(outcomes.empty()); // NOLINT(bugprone-use-after-move): that is the test
    EXPECT_EQ(moved.end() - moved.begin(), 4);
    zeb::message taken = moved[0].take();
    EXPECT_EQ(taken.text(), "of eight");
    EXPECT_FALSE(moved[0]) << "of nobody now";
    moved = zeb::replies();
    EXPECT_TRUE(moved.empty());
}

TEST(SUITE, handles_of_nothing_fail)
{
    zeb::app none;
    EXPECT_EQ(none.id(), 0u);
    EXPECT_EQ(none.send(200, zeb::message(1)), zeb::errc::invalid);
    EXPECT_EQ(none.comm_with(200), zeb::errc::invalid);
    EXPECT_EQ(none.call(200, zeb::message(1), 1s).error(), zeb::errc::invalid);
    EXPECT_EQ(none.call_async(200, zeb::message(1), 1s, [](zeb::result<zeb::replies>) {}).error(), zeb::errc::invalid);
    EXPECT_EQ(none.wait_online(200, 1s), zeb::errc::invalid);
    EXPECT_EQ(none.online_nodes(200).error(), zeb::errc::invalid);
    EXPECT_EQ(none.peer_state({200, 1}).error(), zeb::errc::invalid);
    EXPECT_EQ(none.make_app_group().error(), zeb::errc::invalid);
    EXPECT_EQ(none.fd().error(), zeb::errc::not_found);
    EXPECT_EQ(none.dispatch().error(), zeb::errc::not_found);
    EXPECT_EQ(zeb::pending_call().cancel(), zeb::errc::already);
    zeb::request empty;
    EXPECT_FALSE(empty);
    EXPECT_EQ(empty.fail(), zeb::errc::invalid);
    EXPECT_EQ(empty.reply(zeb::message(1)), zeb::errc::invalid);
    zeb::app_group group;
    EXPECT_EQ(group.add(200), zeb::errc::not_found);
    group.remove(200);
    zeb::request plain(zeb::message::from_text(1, "no request"));
    EXPECT_EQ(plain.reply(zeb::message(1)), zeb::errc::invalid);
    EXPECT_FALSE(plain) << "ended all the same";
    EXPECT_NE(zeb::last_error(), "");
}

TEST(SUITE, a_function_need_not_be_copyable)
{
    zeb::detail::function<int(std::unique_ptr<int>)> add;
    EXPECT_FALSE(add);
    auto base = std::make_unique<int>(40);
    add = [base = std::move(base)](std::unique_ptr<int> more) { return *base + *more; };
    EXPECT_EQ(add(std::make_unique<int>(2)), 42);
    auto moved = std::move(add);
    EXPECT_EQ(moved(std::make_unique<int>(3)), 43);
}
