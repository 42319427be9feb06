// A part of <zeb/zeb.hpp>: both ends of a call, and what an application keeps while calls are in progress.
#ifndef ZEB_CPP_CALL_HPP
#define ZEB_CPP_CALL_HPP

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include <zeb/cpp/message.hpp>

#if defined(__cpp_lib_coroutine)
#include <coroutine>
#endif

#pragma GCC visibility push(default)
namespace zeb
{
inline namespace ZEB_HPP_STANDARD
{

// What became of a call at one instance.
enum class outcome : int {
    success = ZEB_SUCCESS,               // the server's reply
    library_mismatch = ZEB_MISMATCH,     // its library speaks another version
    unavailable = ZEB_APP_UNAVAIL,       // it does not know this instance (yet)
    version_mismatch = ZEB_APP_MISMATCH, // it has no handler for the request's version: reply::versions()
    failed = ZEB_SYSTEM_ERR,             // it quit, replied without a message, or the request could not be written
    timed_out = ZEB_TIMEOUT,             // no reply in time
};

// The text of an outcome, as log lines show it. Constant, never null.
inline const char *to_string(outcome what) noexcept
{
    return zeb_reply_status_text(static_cast<int>(what));
}

// The versions for which a server has handlers, from the lowest to the highest.
struct version_range {
    std::uint32_t low;
    std::uint32_t high;
};

// The outcome of a call at one instance, and the message that came with it.
class reply
{
  public:
    reply() noexcept = default;
    explicit reply(zeb_msg_t *block) noexcept : message_(block)
    {
    }
    // True when the server replied.
    bool ok() const noexcept
    {
        return status() == zeb::outcome::success;
    }
    explicit operator bool() const noexcept
    {
        return ok();
    }
    // What became of the call there.
    zeb::outcome status() const noexcept
    {
        const zeb_msg_t *block = message_.get();
        return block != nullptr ? zeb::outcome{block->hdr.rpc_stat} : zeb::outcome::failed;
    }
    // The instance that was asked.
    instance from() const noexcept
    {
        return message_.sender();
    }
    // What the server sent. Without a success its payload is empty, or for the library alone.
    const zeb::message &message() const noexcept
    {
        return message_;
    }
    std::string_view text() const noexcept
    {
        return message_.text();
    }
    // Takes the message out; the reply is then that of nobody.
    zeb::message take() noexcept
    {
        return std::move(message_);
    }
    // With outcome::version_mismatch, from a machine of the same byte order: what the server serves.
    std::optional<version_range> versions() const noexcept
    {
        auto info = message_.as<zeb_mismatch_info_t>();
        if (status() != zeb::outcome::version_mismatch || !info)
            return std::nullopt;
        return version_range{info->low, info->high};
    }

  private:
    zeb::message message_;
};

// The outcomes of a call, one for each instance that was asked, 64 at most: replies in the order of their arrival, then
// time-outs. A range of reply.
class replies
{
  public:
    replies() noexcept
    {
    }
    replies(replies &&other) noexcept
    {
        take(other);
    }
    replies &operator=(replies &&other) noexcept
    {
        if (this == &other)
            return *this;
        clear();
        take(other);
        return *this;
    }
    ~replies()
    {
        clear();
    }

    // Takes the messages out of a buffer of the C interface.
    explicit replies(zeb_reply_msg_t &buffer) noexcept
    {
        for (int i = 0; i < buffer.num; i++)
            new (&items_[size_++]) reply(std::exchange(buffer.msg[i], nullptr));
        buffer.num = 0;
    }

    reply *begin() noexcept
    {
        return items_;
    }
    reply *end() noexcept
    {
        return items_ + size_;
    }
    const reply *begin() const noexcept
    {
        return items_;
    }
    const reply *end() const noexcept
    {
        return items_ + size_;
    }
    std::size_t size() const noexcept
    {
        return size_;
    }
    bool empty() const noexcept
    {
        return size_ == 0;
    }
    reply &operator[](std::size_t at) noexcept
    {
        return items_[at];
    }
    const reply &operator[](std::size_t at) const noexcept
    {
        return items_[at];
    }

  private:
    void take(replies &other) noexcept
    {
        std::uninitialized_move(other.begin(), other.end(), items_);
        size_ = other.size_;
        other.clear();
    }
    void clear() noexcept
    {
        std::destroy(begin(), end());
        size_ = 0;
    }

    union {
        reply items_[ZEB_RPC_REPLY_NUM]; // the first size_ of them exist
    };
    std::size_t size_ = 0;
};

// A request, at the server. It is answered once: by the message that the handler returns, or by reply() or fail(),
// now or later and from any thread. One that is dropped without an answer is answered by fail(), so that no caller
// waits in vain. A request that was answered or moved from is empty.
class request
{
  public:
    request() noexcept = default;
    explicit request(zeb::message received) noexcept : message_(std::move(received))
    {
    }
    request(request &&other) noexcept = default;
    request &operator=(request &&other) noexcept
    {
        if (this == &other)
            return *this;
        (void)fail();
        message_ = std::move(other.message_);
        return *this;
    }
    ~request()
    {
        (void)fail();
    }

    // True while it can be answered.
    explicit operator bool() const noexcept
    {
        return bool(message_);
    }
    // What was received: payload, version, sender.
    const zeb::message &message() const noexcept
    {
        return message_;
    }
    span<const std::uint8_t> data() const noexcept
    {
        return message_.data();
    }
    std::string_view text() const noexcept
    {
        return message_.text();
    }
    std::uint32_t version() const noexcept
    {
        return message_.version();
    }
    instance sender() const noexcept
    {
        return message_.sender();
    }

    // Answers and ends the request, whatever the result. A message without a block is the same as fail(). Waits while
    // TIPC is congested. errc::invalid when the request is empty; errc::failed when the reply could not be written;
    // errc::stopping while the library stops.
    std::error_code reply(message_ref with) noexcept
    {
        zeb::message received = std::move(message_);
        return detail::code(zeb_rpc_reply(received.get(), with.block(), 0));
    }

    // Answers outcome::failed. An empty request is left alone: errc::invalid.
    std::error_code fail() noexcept
    {
        return message_ ? reply(zeb::message()) : make_error_code(errc::invalid);
    }

  private:
    zeb::message message_;
};

namespace detail
{
struct core;

// A call in progress, which stands on the list of its application until its function is called or it is cancelled.
struct call_node : list_head {
    call_node() noexcept : list_head{nullptr, nullptr}
    {
    }
    call_node(const call_node &) = delete;
    call_node &operator=(const call_node &) = delete;
    virtual ~call_node() = default;
    virtual void finish(result<replies> outcomes) = 0; // the node may be gone afterwards
    core *owner = nullptr;
};

// The handlers of one version.
struct version_row {
    std::uint32_t version;
    function<void(message)> on_message;
    function<message(request &)> on_call; // gives a message without a block when the request was answered or kept
};

// What the library is given as the context of an application. It lives until the library has stopped.
struct core {
    app_id app = 0;
    std::vector<version_row> rows;
    function<void(instance)> on_join;
    function<void(instance)> on_quit;
    function<void(std::uint32_t)> on_queue;
    function<void(std::exception_ptr)> on_exception;

    std::mutex mutex; // guards what follows; nothing of the library or of the user runs under it
    std::condition_variable idle;
    list_head calls{&calls, &calls};  // those in progress
    int entered = 0;                  // threads that begin or cancel a call; the end waits for them
    std::atomic<bool> stopped{false}; // written under the mutex

    core() = default;
    core(const core &) = delete;
    core &operator=(const core &) = delete;
    ~core() = default;

    // Runs what may throw. Without on_exception the throw ends the program where it stands.
    template <typename F>
    void guarded(F &&run) noexcept
    {
#if defined(__cpp_exceptions)
        if (on_exception) {
            try {
                run();
            } catch (...) {
                on_exception(std::current_exception());
            }
            return;
        }
#endif
        run();
    }

    version_row *row_of(std::uint32_t version) noexcept
    {
        for (version_row &row : rows) {
            if (row.version == version)
                return &row;
        }
        return nullptr;
    }

    static void take_message(void *context, zeb_msg_t *block) noexcept
    {
        auto *self = static_cast<core *>(context);
        message received(block);
        version_row *row = self->row_of(received.version());
        if (row != nullptr && row->on_message)
            self->guarded([&] { row->on_message(std::move(received)); });
    }

    // A version that has a handler for messages alone refuses calls at once.
    static void take_call(void *context, zeb_msg_t *block) noexcept
    {
        auto *self = static_cast<core *>(context);
        request received{message(block)};
        version_row *row = self->row_of(received.version());
        if (row == nullptr || !row->on_call)
            return;
        self->guarded([&] {
            message answer = row->on_call(received);
            if (answer)
                (void)received.reply(answer);
        });
    }

    static void take_event(void *context, const zeb_event_t *event) noexcept
    {
        auto *self = static_cast<core *>(context);
        auto &handler = event->type == ZEB_APP_JOIN ? self->on_join : self->on_quit;
        instance peer{event->event.app.app, event->event.app.node};
        if (handler)
            self->guarded([&] { handler(peer); });
    }

    // NOLINTNEXTLINE(bugprone-easily-swappable-parameters): zeb_app_queue_notice_t
    static void take_queue(void *context, std::uint32_t, std::uint32_t num) noexcept
    {
        auto *self = static_cast<core *>(context);
        self->guarded([&] { self->on_queue(num); });
    }

    static void call_done(std::uint32_t, zeb_reply_msg_t *buffer, void *context) noexcept
    {
        auto *node = static_cast<call_node *>(context);
        core *self = node->owner;
        self->unlink(node);
        self->guarded([&] { node->finish(replies(*buffer)); });
    }

    void unlink(call_node *node) noexcept
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (node->next != nullptr)
            list_del(node);
    }

    // Counts this thread in; false after the end. `node`, when there is one, goes on the list.
    bool enter(call_node *node) noexcept
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopped)
            return false;
        entered++;
        if (node != nullptr)
            list_add_tail(node, &calls);
        return true;
    }

    // `node`, when there is one, comes off the list: its function has not been called and will not be.
    void leave(call_node *node) noexcept
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (node != nullptr && node->next != nullptr)
            list_del(node);
        if (--entered == 0)
            idle.notify_all();
    }

    // After 0 the node may be gone. After an error it is the caller's.
    int begin_call(call_node *node, address to, zeb_msg_t *asked, send_flags flags, time_limit limit,
                   std::uint32_t *number) noexcept
    {
        node->owner = this;
        if (!enter(node))
            return -ENOENT;
        int ret = zeb_rpc_async(app, to.node, to.app, asked, static_cast<int>(flags), limit.milliseconds(), call_done,
                                node, number);
        leave(ret != 0 ? node : nullptr);
        return ret;
    }

    // After 0 the node is the caller's, and off the list.
    int cancel_call(call_node *node, std::uint32_t number) noexcept
    {
        if (!enter(nullptr))
            return -EALREADY;
        int ret = zeb_rpc_cancel(app, number);
        leave(ret == 0 ? node : nullptr);
        return ret;
    }

    call_node *first_call() noexcept
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (list_empty(&calls))
            return nullptr;
        auto *node = static_cast<call_node *>(calls.next);
        list_del(node);
        return node;
    }

    // The library has stopped: the functions of the calls that were in progress run here, and the handlers are freed.
    void end() noexcept
    {
        {
            std::unique_lock<std::mutex> lock(mutex);
            stopped = true;
            idle.wait(lock, [this] { return entered == 0; });
        }
        while (call_node *node = first_call())
            guarded([&] { node->finish(failure(-ESHUTDOWN)); });
        rows.clear();
        on_join = {};
        on_quit = {};
        on_queue = {};
        on_exception = {};
    }
};

template <typename F>
struct function_call final : call_node {
    explicit function_call(F object) : run(std::move(object))
    {
    }
    void finish(result<replies> outcomes) override
    {
        std::unique_ptr<function_call> self(this);
        (void)run(std::move(outcomes));
    }
    F run;
};
} // namespace detail

// A call that app::call_async has begun. A handle: copy it, or drop it, and the call goes on.
class pending_call
{
  public:
    pending_call() noexcept = default;
    pending_call(std::shared_ptr<detail::core> core, detail::call_node *node, std::uint32_t number) noexcept
        : core_(std::move(core)), node_(node), number_(number)
    {
    }

    // Ends the call without its function, which is destroyed. No error: it has not been called and will not be.
    // errc::already: it was called and has returned, or the library has stopped; when another thread was running it,
    // this waited for its return, so hold no lock that it takes. errc::running: this is called from that function
    // itself, or on the receive thread while it runs. errc::stopping: the library stops, and the function will be
    // called with that error.
    std::error_code cancel() const
    {
        if (core_ == nullptr)
            return make_error_code(errc::already);
        int ret = core_->cancel_call(node_, number_);
        if (ret == 0)
            delete node_;
        return detail::code(ret);
    }

    // The number of the call, as log lines and listings show it; 0 for a handle of no call.
    std::uint32_t number() const noexcept
    {
        return number_;
    }

  private:
    std::shared_ptr<detail::core> core_;
    detail::call_node *node_ = nullptr; // not looked at unless the cancelling succeeds
    std::uint32_t number_ = 0;
};

#if defined(__cpp_lib_coroutine)
// What app::co_call gives: await it once, at once. See there.
class [[nodiscard]] call_awaitable final : detail::call_node
{
  public:
    call_awaitable(std::shared_ptr<detail::core> core, address to, message asked, send_flags flags,
                   time_limit limit) noexcept
        : core_(std::move(core)), asked_(std::move(asked)), to_(to), flags_(flags), limit_(limit)
    {
    }
    call_awaitable(const call_awaitable &) = delete;
    call_awaitable &operator=(const call_awaitable &) = delete;

    // The coroutine was destroyed while it waited: the call is cancelled.
    ~call_awaitable() override
    {
        if (next != nullptr && core_->cancel_call(this, number_) != 0)
            core_->unlink(this);
    }

    bool await_ready() const noexcept
    {
        return false;
    }
    // Once the call has begun, the coroutine may go on in another thread and end: nothing of it is used any more.
    bool await_suspend(std::coroutine_handle<> waiting) noexcept
    {
        waiting_ = waiting;
        message asked = std::move(asked_);
        std::shared_ptr<detail::core> core = core_;
        int ret = core != nullptr ? core->begin_call(this, to_, asked.get(), flags_, limit_, &number_) : -EINVAL;
        if (ret == 0)
            return true;
        outcomes_ = detail::failure(ret);
        return false;
    }

    result<replies> await_resume() noexcept
    {
        return std::move(outcomes_);
    }

  private:
    void finish(result<replies> outcomes) override
    {
        outcomes_ = std::move(outcomes);
        waiting_.resume();
    }

    std::shared_ptr<detail::core> core_;
    message asked_;
    address to_;
    send_flags flags_;
    time_limit limit_;
    std::uint32_t number_ = 0;
    std::coroutine_handle<> waiting_;
    result<replies> outcomes_ = detail::failure(-EINVAL);
};

// The result of a coroutine that nobody waits for: it runs until its first co_await at once, and frees itself at its
// end. A handler may be one. An exception that leaves the body ends the program: catch it inside.
struct detached {
    struct promise_type {
        detached get_return_object() const noexcept
        {
            return {};
        }
        std::suspend_never initial_suspend() const noexcept
        {
            return {};
        }
        std::suspend_never final_suspend() const noexcept
        {
            return {};
        }
        void return_void() const noexcept
        {
        }
        [[noreturn]] void unhandled_exception() const noexcept
        {
            std::terminate();
        }
    };
};
#endif

} // namespace ZEB_HPP_STANDARD
} // namespace zeb
#pragma GCC visibility pop

#endif
