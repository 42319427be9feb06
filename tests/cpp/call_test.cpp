// Calls made by zeb.hpp: outcomes, requests that are answered later, functions, cancelling.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <optional>
#include <stdexcept>

#include "cpp_test.h"

// A client and a server in this process. The server answers ECHO, and keeps requests of SILENT until it ends.
class cpp_call : public testing::Test
{
  protected:
    cpp_call()
    {
        zeb::app_options options(SERVER, "server");
        options.peers({CLIENT});
        options.on_call(ECHO, [](const zeb::request &request) {
            return zeb::message::from_text(ECHO, "re: " + std::string(request.text()));
        });
        options.on_call(SILENT, [this](zeb::request request) {
            std::lock_guard<std::mutex> lock(mutex_);
            kept_.push_back(std::move(request));
            told_.tell("kept");
        });
        (void)runtime_.emplace().add(std::move(options)).value();
        zeb::app_options client(CLIENT, "client");
        client.peers({SERVER}).on_exception([this](std::exception_ptr) { told_.tell("threw"); });
        client_ = runtime_->add(std::move(client)).value();
        runtime_->run();
        EXPECT_FALSE(client_.wait_online(SERVER, PATIENCE));
    }

    zeb::request take_kept()
    {
        EXPECT_EQ(told_.take(1), lines_t{"kept"});
        std::lock_guard<std::mutex> lock(mutex_);
        zeb::request request = std::move(kept_.back());
        kept_.pop_back();
        return request;
    }

    // A function of a call that writes down the outcomes.
    auto tell_outcomes()
    {
        return [this](zeb::result<zeb::replies> outcomes) {
            if (!outcomes)
                told_.tell(outcomes.error().message());
            else
                std::for_each(outcomes->begin(), outcomes->end(), [this](const zeb::reply &reply) {
                    told_.tell(std::string(zeb::to_string(reply.status())) + " " + std::string(reply.text()));
                });
        };
    }

    story told_;
    std::mutex mutex_;
    std::vector<zeb::request> kept_;
    zeb::app client_;
    std::optional<zeb::runtime> runtime_; // ends first
};

TEST_F(cpp_call, gives_a_typed_outcome_for_each_instance)
{
    auto outcomes =
        client_.call({SERVER, zeb::local_node}, zeb::message::from_text(ECHO, "question"), PATIENCE).value();
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_TRUE(outcomes[0]);
    EXPECT_EQ(outcomes[0].text(), "re: question");
    EXPECT_EQ(outcomes[0].from(), (zeb::instance{SERVER, 1}));
    auto empty = zeb::message(ECHO);
    EXPECT_EQ((*client_.call(SERVER, empty, PATIENCE))[0].text(), "re: ");
    EXPECT_EQ((*client_.call(SERVER, empty, zeb::forever))[0].text(), "re: ") << "asked again";
    outcomes = client_.call(SERVER, zeb::message(UNKNOWN), PATIENCE).value();
    EXPECT_EQ(outcomes[0].status(), zeb::outcome::version_mismatch);
    EXPECT_EQ(outcomes[0].versions()->low, ECHO);
    EXPECT_EQ(outcomes[0].versions()->high, SILENT);
    outcomes = client_.call(SERVER, zeb::message(SILENT), 1ms).value(); // a whole second
    EXPECT_EQ(outcomes[0].status(), zeb::outcome::timed_out);
    EXPECT_EQ(client_.call(NOBODY, empty, PATIENCE).error(), zeb::errc::not_found);
    EXPECT_EQ(client_.call(SERVER, zeb::message(), PATIENCE).error(), zeb::errc::invalid);
}

TEST_F(cpp_call, a_request_is_answered_later_once_and_never_forgotten)
{
    ASSERT_TRUE(client_.call_async(SERVER, zeb::message::from_text(SILENT, "first"), zeb::forever, tell_outcomes()));
    zeb::request request = take_kept();
    EXPECT_EQ(request.text(), "first");
    EXPECT_EQ(request.data().size(), 5u);
    EXPECT_EQ(request.version(), SILENT);
    EXPECT_EQ(request.sender(), (zeb::instance{CLIENT, 1}));
    std::thread([moved = std::move(request)]() mutable {
        EXPECT_FALSE(moved.reply(zeb::message::from_text(SILENT, "from a thread")));
        EXPECT_FALSE(moved);
        EXPECT_EQ(moved.reply(zeb::message(SILENT)), zeb::errc::invalid) << "answered once";
    }).join();
    EXPECT_FALSE(request); // NOLINT(bugprone-use-after-move): that is the test
    EXPECT_EQ(told_.take(1), lines_t{"RPC success from a thread"});
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(client_.call_async(SERVER, zeb::message(SILENT), zeb::forever, tell_outcomes()));
        request = take_kept(); // the former one is dropped
        lines_t of_the_former(i > 0 ? 1 : 0, "systerm error ");
        EXPECT_EQ(told_.take(of_the_former.size()), of_the_former);
    }
    EXPECT_FALSE(request.fail());
    EXPECT_EQ(told_.take(1), lines_t{"systerm error "});
    ASSERT_TRUE(client_.call_async(SERVER, zeb::message(SILENT), zeb::forever, tell_outcomes()));
    {
        zeb::request dropped = take_kept();
    }
    EXPECT_EQ(told_.take(1), lines_t{"systerm error "});
}

TEST_F(cpp_call, a_function_gets_the_outcomes_in_the_thread_of_the_handlers)
{
    auto word = std::make_unique<std::string>("moved in");
    std::atomic<std::thread::id> ran_in{std::thread::id()};
    auto call = client_.call_async(SERVER, zeb::message::from_text(ECHO, "x"), PATIENCE,
                                   [&, word = std::move(word)](zeb::result<zeb::replies> outcomes) {
                                       ran_in = std::this_thread::get_id();
                                       told_.tell(*word + " " + std::string((*outcomes)[0].text()));
                                   });
    ASSERT_TRUE(call);
    EXPECT_NE(call->number(), 0u);
    EXPECT_EQ(told_.take(1), lines_t{"moved in re: x"});
    EXPECT_NE(ran_in.load(), std::this_thread::get_id());
    EXPECT_EQ(call->cancel(), zeb::errc::already);
    ASSERT_TRUE(client_.call_async(SERVER, zeb::message(SILENT), 20ms, tell_outcomes()));
    EXPECT_THAT(told_.take(2), testing::UnorderedElementsAre("kept", "RPC timeout "));
    bool called = false;
    auto never = [&called](const zeb::result<zeb::replies> &) { called = true; };
    EXPECT_EQ(client_.call_async(NOBODY, zeb::message(1), PATIENCE, never).error(), zeb::errc::not_found);
    EXPECT_EQ(client_.call_async(SERVER, zeb::message(), PATIENCE, never).error(), zeb::errc::invalid);
    EXPECT_FALSE(called);
}

TEST_F(cpp_call, a_cancelled_call_frees_its_function_without_a_call)
{
    auto token = std::make_shared<int>();
    auto call = client_.call_async(SERVER, zeb::message(SILENT), zeb::forever,
                                   [token, this](const zeb::result<zeb::replies> &) { told_.tell("called"); });
    ASSERT_TRUE(call);
    EXPECT_EQ(token.use_count(), 2);
    zeb::pending_call copy = *call;
    EXPECT_FALSE(call->cancel());
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(copy.cancel(), zeb::errc::already) << "twice";
    EXPECT_FALSE(take_kept().reply(zeb::message(SILENT))) << "too late";
    EXPECT_EQ((*client_.call(SERVER, zeb::message(ECHO), PATIENCE))[0].status(), zeb::outcome::success);
    EXPECT_EQ(told_.size(), 0u);
}

TEST_F(cpp_call, a_function_cannot_cancel_its_own_call)
{
    std::mutex mutex;
    zeb::pending_call call;
    std::unique_lock<std::mutex> lock(mutex);
    call = client_
               .call_async(SERVER, zeb::message(ECHO), PATIENCE,
                           [&](const zeb::result<zeb::replies> &) {
                               std::lock_guard<std::mutex> until_known(mutex);
                               told_.tell(call.cancel() == zeb::errc::running ? "running" : "?");
                           })
               .value();
    lock.unlock();
    EXPECT_EQ(told_.take(1), lines_t{"running"});
}

TEST_F(cpp_call, what_a_function_throws_goes_to_on_exception)
{
    auto token = std::make_shared<int>();
    ASSERT_TRUE(client_.call_async(SERVER, zeb::message(ECHO), PATIENCE, [token](const zeb::result<zeb::replies> &) {
        throw std::runtime_error("in a function");
    }));
    EXPECT_EQ(told_.take(1), lines_t{"threw"});
    ASSERT_TRUE(client_.call_async(SERVER, zeb::message(ECHO), PATIENCE, tell_outcomes()));
    EXPECT_EQ(told_.take(1), lines_t{"RPC success re: "}) << "goes on";
    EXPECT_EQ(token.use_count(), 1);
}

TEST(cpp_peer_call, an_instance_that_quits_is_an_outcome)
{
    story told;
    peer_process other;
    zeb::runtime runtime;
    zeb::app client = client_of(runtime, PEER);
    EXPECT_EQ((*client.call({PEER, 2}, zeb::message::from_text(ECHO, "far"), PATIENCE))[0].text(), "far");
    ASSERT_TRUE(
        client.call_async(PEER, zeb::message(SILENT), zeb::forever, [&told](zeb::result<zeb::replies> outcomes) {
            told.tell(zeb::to_string((*outcomes)[0].status()));
        }));
    EXPECT_FALSE(client.send(PEER, zeb::message(THROW))); // handled after the call
    EXPECT_EQ(told.take(1), lines_t{"systerm error"});
    EXPECT_EQ(other.wait_death(), SIGABRT);
}
