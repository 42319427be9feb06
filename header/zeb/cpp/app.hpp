// A part of <zeb/zeb.hpp>: applications, and the library as a whole.
#ifndef ZEB_CPP_APP_HPP
#define ZEB_CPP_APP_HPP

#include <climits>
#include <initializer_list>

#include <zeb/cpp/call.hpp>

#pragma GCC visibility push(default)
namespace zeb
{
inline namespace ZEB_HPP_STANDARD
{

// Which thread runs an application's handlers.
enum class mode : std::uint32_t {
    thread = ZEB_APP_THREAD,       // one of its own: handlers may block
    no_thread = ZEB_APP_NO_THREAD, // the library's receive thread: they must not block
    polled = ZEB_APP_POLLED,       // a thread of the program, inside app::dispatch()
};

// What an application is registered with: runtime::add takes it over. Each setter replaces what was set before, and
// gives the record back, so that calls can be chained and the whole be handed to add. Handlers are kept until the
// library has stopped, and run one at a time; they need not be copyable, and what they give back is ignored where
// nothing else is said. A handler may be a coroutine that gives back zeb::detached: its captures live as long as it
// does.
class app_options
{
  public:
    // app   1..8191 or 16384..20479
    // name  for logs and listings; cut to 31 characters
    app_options(app_id app, std::string name) : core_(std::make_shared<detail::core>()), name_(std::move(name))
    {
        core_->app = app;
    }
    app_options(app_options &&) noexcept = default;
    app_options &operator=(app_options &&) noexcept = default;

    // Which thread runs the handlers; an own one when this is not called.
    app_options &&run_in(zeb::mode mode) noexcept
    {
        mode_ = mode;
        return std::move(*this);
    }

    // One-way messages of version `version` (1 or more) go to `handler`, which is called with a zeb::message and may
    // keep it. A version that has no on_call handler refuses calls: the caller gets outcome::failed at once.
    template <typename F>
    app_options &&on_message(std::uint32_t version, F &&handler)
    {
        static_assert(std::is_invocable_v<std::decay_t<F> &, message>, "the handler is called with a zeb::message");
        row(version).on_message = std::forward<F>(handler);
        return std::move(*this);
    }

    // Calls of version `version` (1 or more) go to `handler`. One that gives back a message is called with a
    // `const zeb::request &`, and the message is the reply; without a block it is outcome::failed. Another is called
    // with a zeb::request, owns it and answers when it can. A version that has no on_message handler drops messages.
    // Callers that use a version without any handler get outcome::version_mismatch.
    template <typename F>
    app_options &&on_call(std::uint32_t version, F &&handler)
    {
        using handler_t = std::decay_t<F>;
        if constexpr (std::is_invocable_r_v<message, handler_t &, const request &>) {
            row(version).on_call = [run = handler_t(std::forward<F>(handler))](request &received) mutable -> message {
                return run(static_cast<const request &>(received));
            };
        } else {
            static_assert(
                std::is_invocable_v<handler_t &, request>,
                "the handler takes const zeb::request & and gives back a zeb::message, or takes zeb::request");
            row(version).on_call = [run = handler_t(std::forward<F>(handler))](request &received) mutable -> message {
                (void)run(std::move(received));
                return message();
            };
        }
        return std::move(*this);
    }

    // A server instance of a peer application is online. The handler is called with a zeb::instance. Where several
    // applications of the process name one peer, see every_subscriber.
    template <typename F>
    app_options &&on_join(F &&handler)
    {
        core_->on_join = std::forward<F>(handler);
        return std::move(*this);
    }

    // It is no longer online.
    template <typename F>
    app_options &&on_quit(F &&handler)
    {
        core_->on_quit = std::forward<F>(handler);
        return std::move(*this);
    }

    // More than `above` items (1 or more) wait in the application's queue: the handler is called with their number, on
    // the library's receive thread, where it must not block. It is called again only after the queue was empty. Without
    // effect with mode::no_thread, which has no queue.
    template <typename F>
    app_options &&on_queue(std::uint32_t above, F &&handler)
    {
        queue_notice_ = above;
        core_->on_queue = std::forward<F>(handler);
        return std::move(*this);
    }

    // The same, but a WARN line of the log is all that happens.
    app_options &&warn_of_queue(std::uint32_t above)
    {
        queue_notice_ = above;
        core_->on_queue = {};
        return std::move(*this);
    }

    // Of several applications of a process that name one peer, only one is told of its joins and quits, and a quit ends
    // the calls of one. With this, the application gets each join and each quit of every peer that it has named, and a
    // quit ends its calls, whatever the others get.
    app_options &&every_subscriber(bool on = true) noexcept
    {
        every_subscriber_ = on;
        return std::move(*this);
    }

    // What a handler threw goes to this one as a std::exception_ptr, in the thread that ran the handler. Exceptions of
    // its own end the program. Without effect in a program without exceptions.
    template <typename F>
    app_options &&on_exception(F &&handler)
    {
        core_->on_exception = std::forward<F>(handler);
        return std::move(*this);
    }

    // The applications that this one talks to; both sides must name each other before runtime::run. See app::comm_with.
    app_options &&peers(std::initializer_list<app_id> apps)
    {
        peers_ = apps;
        return std::move(*this);
    }

  private:
    friend class runtime;

    detail::version_row &row(std::uint32_t version)
    {
        detail::version_row *known = core_->row_of(version);
        if (known != nullptr)
            return *known;
        core_->rows.push_back({version, {}, {}});
        return core_->rows.back();
    }

    std::shared_ptr<detail::core> core_;
    std::string name_;
    std::vector<app_id> peers_;
    zeb::mode mode_ = mode::thread;
    std::uint32_t queue_notice_ = 0;
    bool every_subscriber_ = false;
};

// A private group of applications or of nodes: a list that a send can name in place of one of them. It belongs to its
// application and is destroyed with this object; after the library has stopped, its calls fail. Made by
// app::make_app_group and app::make_node_group.
template <int (*Add)(std::uint32_t, std::uint32_t, std::uint32_t),
          void (*Remove)(std::uint32_t, std::uint32_t, std::uint32_t), void (*Destroy)(std::uint32_t, std::uint32_t)>
class group
{
  public:
    group() noexcept = default; // no group
    group(std::shared_ptr<detail::core> core, std::uint32_t id) noexcept : core_(std::move(core)), id_(id)
    {
    }
    group(group &&) noexcept = default;
    group &operator=(group &&other) noexcept
    {
        std::swap(core_, other.core_);
        std::swap(id_, other.id_);
        return *this;
    }
    ~group()
    {
        if (alive())
            Destroy(core_->app, id_);
    }

    // The number that stands for the members in an address.
    std::uint32_t id() const noexcept
    {
        return id_;
    }
    // Adds an application id or a node 0..65535; no error when it is a member. 16 applications, 64 nodes at most.
    [[nodiscard]] std::error_code add(std::uint32_t member) noexcept
    {
        return detail::code(alive() ? Add(core_->app, id_, member) : -ENOENT);
    }
    // Removes a member, if it is one.
    void remove(std::uint32_t member) noexcept
    {
        if (alive())
            Remove(core_->app, id_, member);
    }

  private:
    bool alive() const noexcept
    {
        return core_ != nullptr && !core_->stopped;
    }

    std::shared_ptr<detail::core> core_;
    std::uint32_t id_ = 0;
};
// A group of applications, and one of nodes.
using app_group = group<zeb_add_app_mcast, zeb_del_app_mcast, zeb_destroy_app_mcast>;
using node_group = group<zeb_add_node_mcast, zeb_del_node_mcast, zeb_destroy_node_mcast>;

// How far a remote instance is.
enum class phase : std::uint32_t {
    unknown = ZEB_PEER_UNKNOWN,         // not seen, or gone
    handshaking = ZEB_PEER_HANDSHAKING, // its name is published, and its handshake is not complete
    online = ZEB_PEER_ONLINE,           // its handshake is complete
    blocked = ZEB_PEER_BLOCKED,         // online, and sends to its application wait for its acknowledgements
};

// How far an instance is, and since when.
struct peer_state {
    zeb::phase phase;
    bool server;                                                // online with handlers: sends and calls reach it
    std::optional<std::chrono::steady_clock::time_point> since; // when the phase began, if that is known
};

// An application of this process: a handle that runtime::add gives. It is copied freely, and does not keep the
// application alive: that lasts until the library stops. Calls of a handle without an application give errc::invalid,
// those after the end errc::not_found. Any thread may call, unless a call says otherwise; errc::stopping is given while
// the library stops, and errc::failed in a forked child.
class app
{
  public:
    app() noexcept = default; // no application

    app_id id() const noexcept
    {
        return id_;
    }

    // Declares that this application talks to `peer`: both sides must, before runtime::run. It talks to its own id
    // anyway. errc::invalid for a bad id.
    [[nodiscard]] std::error_code comm_with(app_id peer) const noexcept
    {
        return detail::code(zeb_comm_with(id_, peer));
    }

    // Sends to every online server that `to` names. Waits while one of them has more than 1024 messages that it has not
    // processed, and while TIPC is congested; not with nowait. The message can be sent again.
    //
    // errc::invalid for a bad address or a message without a block; errc::not_found when no server is online;
    // errc::would_block with nowait, and nothing was sent; errc::failed when at least one instance could not be written
    // to, and the others were.
    [[nodiscard]] std::error_code send(address to, message_ref sent, send_flags flags = no_flags) const noexcept
    {
        int how = static_cast<int>(flags);
        return detail::code(to.node == all_nodes ? zeb_send(id_, to.app, sent.block(), how)
                                                 : zeb_sendto(id_, to.node, to.app, sent.block(), how));
    }

    // Asks every online server that `to` names and blocks until each has replied, failed, quit or timed out.
    //
    // limit  rounded up to whole seconds; it begins again with every reply
    // flags  no_flags or exclude_self
    //
    // A group of applications is asked on named nodes alone. A handler may call, but not one with mode::no_thread,
    // since it blocks the thread that brings the replies: use call_async there. errc::invalid for a bad argument;
    // errc::not_found when no server is online; errc::full for more than 64 instances.
    result<replies> call(address to, message_ref asked, time_limit limit, send_flags flags = no_flags) const noexcept
    {
        zeb_reply_msg_t buffer;
        int ret = zeb_rpcto(id_, to.node, to.app, asked.block(), static_cast<int>(flags), limit.seconds(), &buffer);
        replies outcomes(buffer);
        if (ret != 0)
            return detail::failure(ret);
        return outcomes;
    }

    // Asks as call() does and returns when the requests are written. `done` is called with a result<replies>, once,
    // unless this fails or the call is cancelled: on the application's own thread, inside dispatch() when it is polled,
    // or on the receive thread with mode::no_thread, in turn with its handlers. It may run before this returns. When
    // the library stops first, it is called with errc::stopping by the thread that stops, when nothing else runs.
    //
    // done   need not be copyable; destroyed when it has been called, or by cancel()
    // limit  in whole milliseconds, from now on; it does not begin again with a reply
    //
    // errc::failed also when the process has no descriptor left; otherwise as call().
    template <typename F>
    result<pending_call> call_async(address to, message_ref asked, time_limit limit, F &&done,
                                    send_flags flags = no_flags) const
    {
        static_assert(std::is_invocable_v<std::decay_t<F> &, result<replies>>, "it is called with a result<replies>");
        if (core_ == nullptr)
            return detail::failure(-EINVAL);
        auto node = std::make_unique<detail::function_call<std::decay_t<F>>>(std::forward<F>(done));
        std::uint32_t number = 0;
        int ret = core_->begin_call(node.get(), to, asked.block(), flags, limit, &number);
        if (ret != 0)
            return detail::failure(ret);
        return pending_call(core_, node.release(), number);
    }

#if defined(__cpp_lib_coroutine)
    // The same for a coroutine: `result<replies> outcomes = co_await app.co_call(200, std::move(request), 2s);`. The
    // coroutine goes on where `done` of call_async would run, so it must keep to what that thread allows, and with
    // errc::stopping in the thread that stops. When the call could not begin, it goes on at once. What it throws is
    // handled as what a handler throws, if its promise lets it out. A coroutine that is destroyed while it waits
    // cancels its call; do that in the thread of the completions, or before they can come.
    call_awaitable co_call(address to, message asked, time_limit limit, send_flags flags = no_flags) const noexcept
    {
        return {core_, to, std::move(asked), flags, limit};
    }
#endif

    // Waits until a server of `peer.app` is online on `peer.node`; with all nodes, until `count` of them are. A handler
    // may wait, but not one with mode::no_thread: errc::deadlock. Nothing is online before runtime::run.
    // errc::timed_out when it took longer than `limit`, in whole milliseconds.
    [[nodiscard]] std::error_code wait_online(address peer, time_limit limit, std::uint32_t count = 1) const noexcept
    {
        return detail::code(zeb_wait_online(id_, peer.app, peer.node, count, limit.milliseconds()));
    }

    // The nodes on which a server of `peer` is online, ascending.
    result<std::vector<node_id>> online_nodes(app_id peer) const
    {
        std::vector<node_id> nodes;
        int num = zeb_online_nodes(id_, peer, nullptr, 0);
        while (num > static_cast<int>(nodes.size())) {
            nodes.resize(static_cast<std::size_t>(num));
            num = zeb_online_nodes(id_, peer, nodes.data(), num);
        }
        if (num < 0)
            return detail::failure(num);
        nodes.resize(static_cast<std::size_t>(num));
        return nodes;
    }

    // How far an instance is. A moment later it may have changed.
    result<zeb::peer_state> peer_state(instance peer) const noexcept
    {
        zeb_peer_state_t state;
        int ret = zeb_peer_state(id_, peer.app, peer.node, &state);
        if (ret != 0)
            return detail::failure(ret);
        zeb::peer_state found{zeb::phase{state.phase}, state.server != 0, std::nullopt};
        if (state.since != 0)
            found.since.emplace(std::chrono::milliseconds(state.since));
        return found;
    }

    // A new group without members. errc::full when there are 128.
    result<app_group> make_app_group() const noexcept
    {
        return make<app_group>(zeb_create_app_mcast);
    }
    result<node_group> make_node_group() const noexcept
    {
        return make<node_group>(zeb_create_node_mcast);
    }

    // With mode::polled: the descriptor that is readable while something is queued, for poll, select or epoll. It is
    // the library's; take it out of an epoll set before the library stops. errc::invalid when it is not polled.
    result<int> fd() const noexcept
    {
        return number_or_error(zeb_app_fd(id_));
    }

    // With mode::polled: runs the handlers of up to `max` queued items (1 or more) in this thread, without waiting, and
    // gives their number. errc::busy when another thread does, or one of its own handlers tries to.
    result<int> dispatch(int max = INT_MAX) const noexcept
    {
        return number_or_error(zeb_dispatch(id_, max));
    }

  private:
    friend class runtime;
    explicit app(std::shared_ptr<detail::core> core) noexcept : id_(core->app), core_(std::move(core))
    {
    }

    static result<int> number_or_error(int ret) noexcept
    {
        if (ret < 0)
            return detail::failure(ret);
        return ret;
    }

    template <typename Group>
    result<Group> make(int (*create)(std::uint32_t)) const noexcept
    {
        int ret = core_ != nullptr ? create(id_) : -EINVAL;
        if (ret < 0)
            return detail::failure(ret);
        return Group(core_, static_cast<std::uint32_t>(ret));
    }

    app_id id_ = 0;
    std::shared_ptr<detail::core> core_;
};

// The library in this process, and what belongs to its applications: handlers and calls in progress. A process has one
// runtime at a time: the end of one ends the library for all. Declare it after everything that handlers use.
class runtime
{
  public:
    runtime() noexcept = default;
    runtime(const runtime &) = delete;
    runtime &operator=(const runtime &) = delete;

    // Stops the library; see stop(). Inside a handler that is refused, and then the program ends by std::terminate. In
    // a forked child nothing happens, and what the handlers own is not freed.
    ~runtime()
    {
        std::error_code error = stop();
        if (error == errc::deadlock)
            std::terminate();
        if (error)
            (void)new std::vector<std::shared_ptr<detail::core>>(std::move(apps_));
    }

    // Registers an application, and its peers by comm_with. Its handlers do not run before run().
    //
    // errc::invalid for a bad id of an application or peer, or a version 0; errc::exists when it is registered in this
    // process; errc::full past 31 applications; errc::would_block when a part of it could not be created; errc::failed
    // when the node id is unknown, when the library already runs or could not be started. last_error() says more.
    result<app> add(app_options options)
    {
        std::shared_ptr<detail::core> core = std::move(options.core_);
        if (core == nullptr || !valid(*core, options.peers_))
            return detail::failure(-EINVAL);
        std::vector<zeb_app_dispatcher_t> table = table_of(*core);
        std::lock_guard<std::mutex> lock(mutex_);
        apps_.reserve(apps_.size() + 1);
        zeb_app_options_t record = record_of(*core, options);
        record.dispatchers = table.data();
        int ret = zeb_register_app(&record);
        if (ret != 0)
            return detail::failure(ret);
        apps_.push_back(core);
        for (app_id peer : options.peers_) {
            ret = zeb_comm_with(core->app, peer);
            if (ret != 0)
                return detail::failure(ret);
        }
        return app(std::move(core));
    }

    // Ends registration and begins reception: about a second later the peers see the applications of this process.
    void run() noexcept
    {
        zeb_run();
    }

    // Ends the library: peers see the quits, waiting sends and calls end with errc::stopping, and when this returns no
    // handler runs and none will. Then the functions and coroutines of calls in progress run with errc::stopping, and
    // the handlers are destroyed, in this thread. Applications may be added again afterwards. Hold no lock that a
    // handler takes. Again it does nothing. errc::deadlock, without effect, inside a handler; errc::failed in a child.
    std::error_code stop() noexcept
    {
        int ret = zeb_stop();
        if (ret != 0)
            return detail::code(ret);
        std::vector<std::shared_ptr<detail::core>> ended;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ended.swap(apps_);
        }
        for (const std::shared_ptr<detail::core> &core : ended)
            core->end();
        return detail::code(0);
    }

  private:
    static bool valid(const detail::core &core, const std::vector<app_id> &peers) noexcept
    {
        for (const detail::version_row &row : core.rows) {
            if (row.version == 0)
                return false;
        }
        for (app_id peer : peers) {
            if (!zeb_valid_app_id(peer))
                return false;
        }
        return true;
    }

    static std::vector<zeb_app_dispatcher_t> table_of(const detail::core &core)
    {
        std::vector<zeb_app_dispatcher_t> table;
        for (const detail::version_row &row : core.rows)
            table.push_back({row.version, detail::core::take_message, detail::core::take_call});
        table.push_back({0, nullptr, nullptr});
        return table;
    }

    static zeb_app_options_t record_of(detail::core &core, const app_options &options) noexcept
    {
        zeb_app_options_t record = {};
        record.size = sizeof(record);
        record.app = core.app;
        record.mode = static_cast<std::uint32_t>(options.mode_);
        record.name = options.name_.c_str();
        record.event = core.on_join || core.on_quit ? detail::core::take_event : nullptr;
        record.context = &core;
        record.queue_notice = options.queue_notice_;
        record.every_subscriber = options.every_subscriber_ ? 1 : 0;
        record.queue_passed = core.on_queue ? detail::core::take_queue : nullptr;
        return record;
    }

    std::mutex mutex_;
    std::vector<std::shared_ptr<detail::core>> apps_;
};

// This node's id; errc::failed until the platform has written a valid one.
inline result<node_id> my_node() noexcept
{
    int node = zeb_get_my_node_id();
    if (node < 0)
        return detail::failure(node);
    return static_cast<node_id>(node);
}

} // namespace ZEB_HPP_STANDARD
} // namespace zeb
#pragma GCC visibility pop

#endif
