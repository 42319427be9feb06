// Applications made by zeb.hpp: registration, messages, events, threads, exceptions of handlers, groups, peers.
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>

#include "cpp_test.h"

TEST(cpp_app, a_bad_registration_is_refused_and_says_why)
{
    zeb::runtime runtime;
    EXPECT_EQ(runtime.add(zeb::app_options(0, "zero")).error(), zeb::errc::invalid);
    EXPECT_THAT(zeb::last_error(), testing::HasSubstr("invalid ID 0"));
    EXPECT_EQ(runtime.add(zeb::app_options(CLIENT, "x").on_message(0, [](zeb::message) {})).error(),
              zeb::errc::invalid);
    EXPECT_EQ(runtime.add(zeb::app_options(CLIENT, "x").peers({8192})).error(), zeb::errc::invalid);
    zeb::app client = runtime.add(zeb::app_options(CLIENT, "client")).value();
    EXPECT_EQ(client.id(), CLIENT);
    auto twice = runtime.add(zeb::app_options(CLIENT, "again"));
    ASSERT_FALSE(twice);
    EXPECT_EQ(twice.error(), zeb::errc::exists);
    EXPECT_EQ(twice.error().message(), zeb_strerror(-EEXIST));
    EXPECT_EQ(client.comm_with(8192), zeb::errc::invalid);
    EXPECT_FALSE(client.comm_with(PEER));
    runtime.run();
    EXPECT_EQ(runtime.add(zeb::app_options(SERVER, "late")).error(), zeb::errc::failed);
}

TEST(cpp_app, messages_go_there_and_back_and_events_come)
{
    story told;
    peer_process other;
    zeb::runtime runtime;
    zeb::app_options options(CLIENT, "client");
    options.peers({PEER, NOBODY});
    options.on_message(ECHO, [&told](const zeb::message &message) {
        told.tell("echo of " + std::to_string(message.sender().node) + ": " + std::string(message.text()));
    });
    auto tell = [&told](const char *what, zeb::instance who) {
        if (who.app == PEER) // it joins itself too
            told.tell(what + std::to_string(who.node));
    };
    options.on_join([tell](zeb::instance who) { tell("join ", who); });
    options.on_quit([tell](zeb::instance who) { tell("quit ", who); });
    zeb::app client = runtime.add(std::move(options)).value();
    EXPECT_EQ(client.peer_state({PEER, 2})->phase, zeb::phase::unknown);
    EXPECT_FALSE(client.peer_state({PEER, 2})->since);
    EXPECT_EQ(client.wait_online(PEER, 1ms), zeb::errc::timed_out);
    auto before = std::chrono::steady_clock::now();
    runtime.run();
    ASSERT_FALSE(client.wait_online({PEER, 2}, PATIENCE));
    ASSERT_TRUE(told.wait("join 2"));
    EXPECT_EQ(client.online_nodes(PEER).value(), std::vector<zeb::node_id>{2});
    EXPECT_EQ(client.online_nodes(NOBODY).value(), std::vector<zeb::node_id>{});
    auto state = client.peer_state({PEER, 2}).value();
    EXPECT_EQ(state.phase, zeb::phase::online);
    EXPECT_TRUE(state.server);
    EXPECT_GE(*state.since + 1ms, before);
    EXPECT_LE(*state.since, std::chrono::steady_clock::now());
    EXPECT_EQ(zeb::my_node().value(), 1u);
    (void)told.take(1);

    EXPECT_FALSE(client.send(PEER, zeb::message::from_text(ECHO, "to all")));
    EXPECT_EQ(told.take(1), lines_t{"echo of 2: to all"});
    auto again = zeb::message::from_text(ECHO, "");
    EXPECT_FALSE(client.send({PEER, 2}, again));
    EXPECT_FALSE(client.send(zeb::instance{PEER, 2}, again, zeb::nowait)) << "sent again";
    EXPECT_EQ(told.take(2), lines_t(2, "echo of 2: "));

    auto apps = client.make_app_group().value();
    auto nodes = client.make_node_group().value();
    EXPECT_EQ(client.send(apps.id(), again), zeb::errc::not_found) << "no member";
    EXPECT_FALSE(apps.add(PEER));
    EXPECT_FALSE(nodes.add(2));
    EXPECT_EQ(nodes.add(65536), zeb::errc::invalid);
    EXPECT_FALSE(client.send({apps.id(), nodes.id()}, zeb::message::from_text(ECHO, "group")));
    EXPECT_EQ(told.take(1), lines_t{"echo of 2: group"});
    apps.remove(PEER);
    EXPECT_EQ(client.send(apps.id(), again), zeb::errc::not_found);
    auto id = apps.id();
    apps = zeb::app_group();
    EXPECT_EQ(zeb_add_app_mcast(CLIENT, id, PEER), -ENOENT) << "destroyed by its end";

    EXPECT_EQ(client.send(NOBODY, again), zeb::errc::not_found);
    EXPECT_EQ(client.send({PEER, 1}, again), zeb::errc::not_found);
    EXPECT_EQ(client.send({PEER, 65536}, again), zeb::errc::invalid);
    EXPECT_EQ(client.send(PEER, zeb::message()), zeb::errc::invalid);
    other.end();
    EXPECT_EQ(told.take(1), lines_t{"quit 2"});
}

TEST(cpp_app, each_of_two_that_ask_for_it_gets_the_join_and_the_quit_of_one_peer)
{
    story told;
    peer_process other;
    zeb::runtime runtime;
    for (uint32_t app : {CLIENT, SERVER}) {
        zeb::app_options options(app, "subscriber");
        auto tell = [&told, app](const char *what, zeb::instance who) {
            told.tell(std::to_string(app) + what + std::to_string(who.app));
        };
        options.on_join([tell](zeb::instance who) { tell(" join ", who); });
        options.on_quit([tell](zeb::instance who) { tell(" quit ", who); });
        (void)runtime.add(std::move(options).every_subscriber().peers({PEER})).value();
    }
    runtime.run();
    EXPECT_THAT(told.take(2), testing::UnorderedElementsAre("400 join 402", "401 join 402"));
    other.end();
    EXPECT_THAT(told.take(2), testing::UnorderedElementsAre("400 quit 402", "401 quit 402"));
}

TEST(cpp_app, what_a_handler_throws_goes_to_on_exception_and_the_application_goes_on)
{
    story told;
    zeb::runtime runtime;
    zeb::app_options options(SERVER, "server");
    options.peers({CLIENT});
    options.on_message(1, [](zeb::message) { throw std::runtime_error("message"); });
    options.on_message(2, [&told](zeb::message) { told.tell("goes on"); });
    options.on_call(1, [](const zeb::request &) -> zeb::message { throw std::runtime_error("call"); });
    options.on_call(2, [](zeb::request) { throw 5; });
    options.on_join([](zeb::instance who) {
        if (who.app == CLIENT) // it joins itself too
            throw std::runtime_error("join");
    });
    options.on_exception([&told](std::exception_ptr thrown) {
        try {
            std::rethrow_exception(std::move(thrown));
        } catch (const std::exception &error) {
            told.tell(error.what());
        } catch (int number) {
            told.tell(std::to_string(number));
        }
    });
    zeb::app_options other(CLIENT, "client"); // a server too, so that it joins
    (void)runtime.add(std::move(options)).value();
    zeb::app client = runtime.add(std::move(other).on_message(1, [](zeb::message) {}).peers({SERVER})).value();
    runtime.run();
    ASSERT_TRUE(told.wait("join"));
    ASSERT_FALSE(client.wait_online(SERVER, PATIENCE));
    (void)told.take(1);
    EXPECT_FALSE(client.send(SERVER, zeb::message(1)));
    EXPECT_EQ(told.take(1), lines_t{"message"});
    for (uint32_t version : {1u, 2u}) {
        auto outcomes = client.call(SERVER, zeb::message(version), PATIENCE).value();
        ASSERT_EQ(outcomes.size(), 1u);
        EXPECT_EQ(outcomes[0].status(), zeb::outcome::failed) << "at once";
    }
    EXPECT_EQ(told.take(2), lines_t({"call", "5"}));
    EXPECT_FALSE(client.send(SERVER, zeb::message(2)));
    EXPECT_EQ(told.take(1), lines_t{"goes on"});
}

TEST(cpp_app, without_on_exception_a_throw_ends_the_program)
{
    peer_process other;
    zeb::runtime runtime;
    zeb::app client = client_of(runtime, PEER);
    EXPECT_FALSE(client.send(PEER, zeb::message(THROW)));
    EXPECT_EQ(other.wait_death(), SIGABRT);
}

TEST(cpp_app, a_polled_application_runs_where_the_program_dispatches)
{
    lines_t lines; // no lock: one thread
    zeb::app server;
    zeb::runtime runtime;
    zeb::app_options options(SERVER, "server");
    options.run_in(zeb::mode::polled).peers({CLIENT});
    options.on_message(1, [&](zeb::message message) {
        lines.push_back(std::string(message.text()) + " " + server.dispatch().error().message());
    });
    server = runtime.add(std::move(options)).value();
    zeb::app client = client_of(runtime, SERVER);
    EXPECT_EQ(client.fd().error(), zeb::errc::invalid) << "not polled";
    EXPECT_EQ(server.dispatch(0).error(), zeb::errc::invalid);
    EXPECT_FALSE(client.send(SERVER, zeb::message::from_text(1, "one")));
    while (lines.empty()) {
        pollfd ready = {server.fd().value(), POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, 60000), 1);
        (void)server.dispatch().value();
    }
    EXPECT_EQ(lines, lines_t{std::string("one ") + zeb_strerror(-EBUSY)});
    EXPECT_EQ(server.dispatch().value(), 0);
}

TEST(cpp_app, without_a_thread_a_handler_must_not_wait)
{
    story told;
    zeb::app server;
    zeb::runtime runtime;
    zeb::app_options options(SERVER, "server");
    options.run_in(zeb::mode::no_thread).peers({CLIENT});
    options.on_message(1, [&](zeb::message) {
        told.tell(server.wait_online(NOBODY, PATIENCE) == zeb::errc::deadlock ? "refused" : "?");
    });
    server = runtime.add(std::move(options)).value();
    zeb::app client = client_of(runtime, SERVER);
    EXPECT_FALSE(client.send(SERVER, zeb::message(1)));
    EXPECT_EQ(told.take(1), lines_t{"refused"});
}

TEST(cpp_app, a_long_queue_is_told)
{
    story told;
    std::mutex held;
    zeb::runtime runtime;
    zeb::app_options options(SERVER, "server");
    options.peers({CLIENT});
    options.on_message(1, [&held](zeb::message) { std::lock_guard<std::mutex> lock(held); });
    options.on_queue(3, [&told](uint32_t num) { told.tell("queue " + std::to_string(num)); });
    (void)runtime.add(std::move(options)).value();
    zeb::app client = client_of(runtime, SERVER);
    std::unique_lock<std::mutex> lock(held);
    for (int i = 0; i < 10; i++)
        EXPECT_FALSE(client.send(SERVER, zeb::message(1)));
    EXPECT_EQ(told.take(1), lines_t{"queue 4"});
}

TEST(cpp_app, a_version_without_one_handler_refuses_or_drops_what_it_cannot_serve)
{
    story told;
    zeb::runtime runtime;
    zeb::app_options options(SERVER, "server");
    options.peers({CLIENT});
    options.on_message(1, [&told](zeb::message) { told.tell("former"); });
    options.on_message(1, [&told](zeb::message message) { told.tell("message " + std::string(message.text())); });
    options.on_call(2, [&told](const zeb::request &) {
        told.tell("call");
        return zeb::message();
    });
    (void)runtime.add(std::move(options)).value();
    zeb::app client = client_of(runtime, SERVER);
    EXPECT_EQ((*client.call(SERVER, zeb::message(1), PATIENCE))[0].status(), zeb::outcome::failed) << "and at once";
    EXPECT_FALSE(client.send(SERVER, zeb::message(2))) << "dropped";
    EXPECT_EQ((*client.call(SERVER, zeb::message(2), PATIENCE))[0].status(), zeb::outcome::failed)
        << "no message given back";
    EXPECT_FALSE(client.send(SERVER, zeb::message::from_text(1, "last")));
    ASSERT_TRUE(told.wait("message last"));
    EXPECT_EQ(told.take(2), lines_t({"call", "message last"})) << "the later handler of version 1";
}
