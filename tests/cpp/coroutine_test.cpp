// Coroutines that await calls. Compiled as C++20, with its own span.
#include <coroutine>
#include <stdexcept>

#include "cpp_test.h"

// A coroutine whose owner may destroy it, and whose exceptions leave it.
struct owned {
    struct promise_type {
        owned get_return_object()
        {
            return {std::coroutine_handle<promise_type>::from_promise(*this)};
        }
        std::suspend_never initial_suspend()
        {
            return {};
        }
        std::suspend_always final_suspend() noexcept
        {
            return {};
        }
        void return_void()
        {
        }
        void unhandled_exception()
        {
            throw;
        }
    };
    std::coroutine_handle<promise_type> handle;
};

class cpp_coroutine : public testing::Test
{
  protected:
    cpp_coroutine()
    {
        zeb::app_options options(SERVER, "server");
        options.peers({CLIENT});
        options.on_call(ECHO, [](const zeb::request &request) { return request.message().clone(); });
        options.on_call(SILENT, [this](zeb::request request) {
            kept_.push_back(std::move(request)); // by the handler's thread, read after the stop alone
            told_.tell("kept");
        });
        // asks itself again before it answers
        options.on_call(5, [this](zeb::request request) -> zeb::detached {
            auto outcomes = co_await server_.co_call(SERVER, zeb::message::from_text(ECHO, "inner"), PATIENCE);
            (void)request.reply((*outcomes)[0].take());
        });
        server_ = runtime_.add(std::move(options)).value();
        zeb::app_options client(CLIENT, "client");
        client.peers({SERVER}).on_exception([this](std::exception_ptr) { told_.tell("threw"); });
        client_ = runtime_.add(std::move(client)).value();
        runtime_.run();
        EXPECT_FALSE(client_.wait_online(SERVER, PATIENCE));
        EXPECT_FALSE(server_.wait_online(SERVER, PATIENCE));
    }

    zeb::detached ask(uint32_t version, zeb::time_limit limit, uint32_t whom = SERVER)
    {
        auto token = std::make_shared<int>();
        token_ = token;
        auto outcomes = co_await client_.co_call(whom, zeb::message::from_text(version, "question"), limit);
        resumed_in_ = std::this_thread::get_id();
        if (!outcomes)
            told_.tell(outcomes.error().message());
        else
            told_.tell(std::string(zeb::to_string((*outcomes)[0].status())) + " " + std::string((*outcomes)[0].text()));
    }

    owned ask_silent_and_throw(uint32_t version)
    {
        auto token = std::make_shared<int>();
        token_ = token;
        (void)co_await client_.co_call(SERVER, zeb::message(version), zeb::forever);
        throw std::runtime_error("after the call");
    }

    story told_;
    std::vector<zeb::request> kept_;
    std::weak_ptr<int> token_; // of the frame
    std::thread::id resumed_in_;
    zeb::app server_;
    zeb::app client_;
    zeb::runtime runtime_; // ends first
};

TEST_F(cpp_coroutine, awaits_the_outcomes)
{
    ask(ECHO, PATIENCE);
    EXPECT_EQ(told_.take(1), lines_t{"RPC success question"});
    EXPECT_NE(resumed_in_, std::this_thread::get_id());
    ask(SILENT, 20ms);
    EXPECT_THAT(told_.take(2), testing::UnorderedElementsAre("kept", "RPC timeout "));
    ask(5, PATIENCE);
    EXPECT_EQ(told_.take(1), lines_t{"RPC success inner"}) << "the handler is a coroutine too";
}

TEST_F(cpp_coroutine, goes_on_at_once_when_the_call_cannot_begin)
{
    ask(ECHO, PATIENCE, NOBODY);
    EXPECT_EQ(told_.take(1), lines_t{zeb_strerror(-ENOENT)});
    EXPECT_EQ(resumed_in_, std::this_thread::get_id());
    EXPECT_TRUE(token_.expired());
}

TEST_F(cpp_coroutine, a_stop_resumes_it_with_an_error)
{
    ask(SILENT, zeb::forever);
    EXPECT_EQ(told_.take(1), lines_t{"kept"});
    EXPECT_FALSE(token_.expired());
    EXPECT_FALSE(runtime_.stop());
    EXPECT_EQ(told_.take(1), lines_t{zeb_strerror(-ESHUTDOWN)});
    EXPECT_EQ(resumed_in_, std::this_thread::get_id());
    EXPECT_TRUE(token_.expired()) << "the frame is freed";
    ask(ECHO, PATIENCE);
    EXPECT_EQ(told_.take(1), lines_t{zeb_strerror(-ENOENT)});
}

TEST_F(cpp_coroutine, destroyed_while_it_waits_it_cancels_the_call)
{
    owned waiting = ask_silent_and_throw(SILENT);
    EXPECT_EQ(told_.take(1), lines_t{"kept"});
    EXPECT_FALSE(token_.expired());
    waiting.handle.destroy();
    EXPECT_TRUE(token_.expired());
    ask(ECHO, PATIENCE);
    EXPECT_EQ(told_.take(1), lines_t{"RPC success question"});
    EXPECT_FALSE(runtime_.stop());
    EXPECT_EQ(told_.size(), 0u) << "nothing was thrown, nothing resumed";
}

TEST_F(cpp_coroutine, what_it_throws_goes_to_on_exception)
{
    owned thrower = ask_silent_and_throw(ECHO);
    EXPECT_EQ(told_.take(1), lines_t{"threw"});
    EXPECT_FALSE(runtime_.stop()); // its thread is done with the frame
    thrower.handle.destroy();
}

TEST_F(cpp_coroutine, an_awaitable_that_nobody_awaits_does_nothing)
{
    {
        auto unused = client_.co_call(SERVER, zeb::message(SILENT), PATIENCE);
    }
    ask(ECHO, PATIENCE);
    EXPECT_EQ(told_.take(1), lines_t{"RPC success question"});
}
