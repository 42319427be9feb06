// The end of the library under a runtime: what is freed, what is told, and what is refused.
#include <sys/wait.h>
#include <unistd.h>

#include <future>

#include "cpp_test.h"

static zeb::app_options server_options()
{
    zeb::app_options options(SERVER, "server");
    options.peers({CLIENT});
    return options;
}

TEST(cpp_stop, handlers_are_freed_when_the_library_has_stopped)
{
    auto token = std::make_shared<int>();
    zeb::app server;
    {
        zeb::runtime runtime;
        zeb::app_options options = server_options();
        server = runtime
                     .add(std::move(options.on_message(1, [token](zeb::message) {})
                                        .on_join([token](zeb::instance) {})
                                        .on_queue(1, [token](uint32_t) {})))
                     .value();
        runtime.run();
        EXPECT_EQ(token.use_count(), 4);
    }
    EXPECT_EQ(token.use_count(), 1) << "although there is a handle";
    EXPECT_EQ(server.send(SERVER, zeb::message(1)), zeb::errc::not_found);
    EXPECT_EQ(server.call_async(SERVER, zeb::message(1), 1s, [](zeb::result<zeb::replies>) {}).error(),
              zeb::errc::not_found);
    EXPECT_EQ(server.make_app_group().error(), zeb::errc::not_found);
}

TEST(cpp_stop, calls_in_flight_end_with_an_error_in_the_thread_that_stops)
{
    story told;
    std::vector<zeb::request> kept;
    zeb::runtime runtime;
    zeb::app_options options = server_options();
    options.on_call(1, [&](zeb::request request) {
        kept.push_back(std::move(request));
        told.tell("kept");
    });
    (void)runtime.add(std::move(options)).value();
    zeb::app client = client_of(runtime, SERVER);
    zeb::app_group group = client.make_app_group().value();
    auto token = std::make_shared<int>();
    zeb::pending_call call;
    int calls = 0;
    for (int i = 0; i < 3; i++) {
        auto done = [&, token, stopper = std::this_thread::get_id()](const zeb::result<zeb::replies> &outcomes) {
            EXPECT_EQ(outcomes.error(), zeb::errc::stopping);
            EXPECT_EQ(std::this_thread::get_id(), stopper);
            EXPECT_EQ(call.cancel(), zeb::errc::already);
            EXPECT_EQ(client.call_async(SERVER, zeb::message(1), 1s, [](zeb::result<zeb::replies>) {}).error(),
                      zeb::errc::not_found);
            calls++;
        };
        call = client.call_async(SERVER, zeb::message(1), zeb::forever, std::move(done)).value();
    }
    (void)told.take(3);
    EXPECT_FALSE(runtime.stop());
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(kept.back().reply(zeb::message(1)), zeb::errc::invalid) << "or another error, and no harm";
    EXPECT_FALSE(runtime.stop()) << "again, without effect";
    EXPECT_EQ(calls, 3);
}

TEST(cpp_stop, a_stop_in_a_handler_is_refused)
{
    story told;
    zeb::runtime runtime;
    zeb::app_options options = server_options();
    options.on_message(1, [&](zeb::message) { told.tell(runtime.stop() == zeb::errc::deadlock ? "refused" : "?"); });
    (void)runtime.add(std::move(options)).value();
    zeb::app client = client_of(runtime, SERVER);
    EXPECT_FALSE(client.send(SERVER, zeb::message(1)));
    EXPECT_EQ(told.take(1), lines_t{"refused"});
    EXPECT_FALSE(client.send(SERVER, zeb::message(1))) << "and the library goes on";
    EXPECT_EQ(told.take(1), lines_t{"refused"});
}

TEST(cpp_stop, calls_of_other_threads_end_while_it_stops)
{
    story told;
    std::promise<void> may_return;
    zeb::runtime runtime;
    zeb::app_options options = server_options();
    options.on_message(1, [&](zeb::message) {
        told.tell("in a handler");
        may_return.get_future().wait();
    });
    (void)runtime.add(std::move(options)).value();
    zeb::app client = client_of(runtime, SERVER);
    EXPECT_FALSE(client.send(SERVER, zeb::message(1)));
    (void)told.take(1);
    std::error_code waited;
    std::thread waiter([&] { waited = client.wait_online(NOBODY, zeb::forever); });
    std::thread stopper([&] { EXPECT_FALSE(runtime.stop()); });
    waiter.join(); // while the handler holds the stop up
    EXPECT_EQ(waited, zeb::errc::stopping);
    EXPECT_EQ(client.send(SERVER, zeb::message(1)), zeb::errc::stopping);
    EXPECT_EQ(client.call_async(SERVER, zeb::message(1), 1s, [](zeb::result<zeb::replies>) {}).error(),
              zeb::errc::stopping);
    may_return.set_value();
    stopper.join();
    EXPECT_EQ(client.send(SERVER, zeb::message(1)), zeb::errc::not_found);
}

TEST(cpp_stop, a_forked_child_is_refused)
{
    auto runtime = std::make_unique<zeb::runtime>();
    zeb::app_options options = server_options();
    options.on_message(1, [](zeb::message) {});
    (void)runtime->add(std::move(options)).value();
    zeb::app client = client_of(*runtime, SERVER);
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        bool refused = client.send(SERVER, zeb::message(1)) == zeb::errc::failed &&
                       runtime->stop() == zeb::errc::failed && client.wait_online(SERVER, 1s) == zeb::errc::failed;
        runtime.reset();
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(client.send(SERVER, zeb::message(1))) << "the parent goes on";
}

TEST(cpp_stop, the_same_runtime_begins_again)
{
    zeb::runtime runtime;
    for (int i = 0; i < 2; i++) {
        zeb::app_options options = server_options();
        options.on_call(1, [i](const zeb::request &) { return zeb::message::from_text(1, std::to_string(i)); });
        (void)runtime.add(std::move(options)).value();
        zeb::app client = client_of(runtime, SERVER);
        EXPECT_EQ((*client.call(SERVER, zeb::message(1), PATIENCE))[0].text(), std::to_string(i));
        EXPECT_FALSE(runtime.stop());
    }
}

TEST(cpp_stop, calls_and_cancels_of_many_threads_end_once_each)
{
    zeb::runtime runtime;
    zeb::app_options options = server_options();
    options.on_call(1, [](zeb::request request) { EXPECT_FALSE(request.fail()); });
    options.on_call(2, [](const zeb::request &) { return zeb::message(2); });
    (void)runtime.add(std::move(options)).value();
    zeb::app client = client_of(runtime, SERVER);
    std::atomic<int> begun{0}, ended{0};
    std::atomic<bool> stopped{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&] {
            while (!stopped) {
                auto call = client.call_async(SERVER, zeb::message(2), zeb::forever,
                                              [&ended](const zeb::result<zeb::replies> &) { ended++; });
                if (!call)
                    continue;
                if (++begun % 2 == 0 && !call->cancel())
                    ended++;
            }
        });
    }
    while (begun < 300)
        std::this_thread::yield();
    EXPECT_FALSE(runtime.stop());
    stopped = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(begun, ended);
}
