// A part of <zeb/zeb.hpp>: ids, time limits, errors, and what older standards lack (span, expected).
#ifndef ZEB_CPP_BASE_HPP
#define ZEB_CPP_BASE_HPP

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <variant>
#if __has_include(<version>)
#include <version>
#endif

#include <zeb/zeb.h>
#include <zeb/zeb_ext.h>
#include <zeb/zeb_msg.h>

#if defined(__cpp_lib_span)
#include <span>
#endif
#if defined(__cpp_lib_expected)
#include <expected>
#endif

// What differs by standard, and by whether there are exceptions, has names of its own for the linker.
#if defined(__cpp_lib_expected)
#define ZEB_HPP_STANDARD_ cpp23
#elif defined(__cpp_lib_span)
#define ZEB_HPP_STANDARD_ cpp20
#else
#define ZEB_HPP_STANDARD_ cpp17
#endif
#if defined(__cpp_exceptions)
#define ZEB_HPP_STANDARD ZEB_HPP_STANDARD_
#else
#define ZEB_HPP_JOIN_(a, b) a##b
#define ZEB_HPP_JOIN(a, b) ZEB_HPP_JOIN_(a, b)
#define ZEB_HPP_STANDARD ZEB_HPP_JOIN(ZEB_HPP_STANDARD_, _bare)
#endif

#pragma GCC visibility push(default)
namespace zeb
{
inline namespace ZEB_HPP_STANDARD
{

using app_id = std::uint32_t;  // 1..8191 or 16384..20479; as a destination also a group's id
using node_id = std::uint32_t; // 0..65535; as a destination also one of the two below, or a group's id

inline constexpr node_id local_node = ZEB_NODE_LOCAL; // this node
inline constexpr node_id all_nodes = ZEB_NODE_ALL;    // every node

// An application on a node.
struct instance {
    app_id app = 0;
    node_id node = 0;

    friend constexpr bool operator==(const instance &a, const instance &b) noexcept
    {
        return a.app == b.app && a.node == b.node;
    }
    friend constexpr bool operator!=(const instance &a, const instance &b) noexcept
    {
        return !(a == b);
    }
    friend constexpr bool operator<(const instance &a, const instance &b) noexcept
    {
        return a.app != b.app ? a.app < b.app : a.node < b.node;
    }
};

// Where a message or a call goes: `200` is application 200 on all nodes, `{200, 3}` that on node 3. Each number may be
// a group's (app_group, node_group); application 0 is the sender's own.
struct address {
    app_id app;
    node_id node;

    constexpr address(app_id on_all_nodes) noexcept : app(on_all_nodes), node(all_nodes)
    {
    }
    // NOLINTNEXTLINE(bugprone-easily-swappable-parameters): in the order of an instance
    constexpr address(app_id to_app, node_id on_node) noexcept : app(to_app), node(on_node)
    {
    }
    constexpr address(instance to) noexcept : app(to.app), node(to.node)
    {
    }
};

// How long a call may take: any std::chrono duration, rounded up to whole milliseconds (a blocking call: to whole
// seconds). What is not above 0 is one unit, since the C interface's 0 means something else; 2^32 - 1 milliseconds and
// more are without limit.
class time_limit
{
  public:
    constexpr time_limit() noexcept = default; // without limit
    template <typename Rep, typename Period>
    constexpr time_limit(std::chrono::duration<Rep, Period> limit) noexcept
        : milliseconds_(round_up(std::chrono::duration<double, std::milli>(limit).count()))
    {
    }
    // As the C interface takes them: 0 is without limit.
    constexpr std::uint32_t milliseconds() const noexcept
    {
        return milliseconds_;
    }
    constexpr std::uint32_t seconds() const noexcept
    {
        return milliseconds_ / 1000 + (milliseconds_ % 1000 != 0 ? 1 : 0);
    }

  private:
    static constexpr std::uint32_t round_up(double limit) noexcept
    {
        if (limit >= 4294967295.0)
            return 0;
        if (!(limit > 1.0))
            return 1;
        auto whole = static_cast<std::uint32_t>(limit);
        return static_cast<double>(whole) < limit ? whole + 1 : whole;
    }

    std::uint32_t milliseconds_ = 0;
};

inline constexpr time_limit forever{}; // without limit

// How to send, in any combination: `zeb::nowait | zeb::exclude_self`.
enum class send_flags : int {};
inline constexpr send_flags no_flags{0};
inline constexpr send_flags nowait{ZEB_SEND_NOWAIT};             // errc::would_block instead of a wait for flow control
inline constexpr send_flags exclude_self{ZEB_SEND_EXCLUDE_SELF}; // to the own application: skip this node's instance
constexpr send_flags operator|(send_flags a, send_flags b) noexcept
{
    return send_flags(static_cast<int>(a) | static_cast<int>(b));
}

// The results of the C interface, by name. `error == zeb::errc::not_found` compares; so does std::errc where it has the
// errno: `error == std::errc::timed_out`.
enum class errc : int {
    failed = -1,            // a socket or system call failed, a forked child called, it is too late to register
    not_found = -ENOENT,    // not registered, no such group, or no server online
    would_block = -EAGAIN,  // with nowait; or a part of the application could not be created
    exists = -EEXIST,       // already registered
    invalid = -EINVAL,      // a bad argument, a message without a block, a handle without an application
    full = -ENOBUFS,        // a fixed table is full
    deadlock = -EDEADLK,    // would wait for itself
    timed_out = -ETIMEDOUT, // not enough servers came online
    already = -EALREADY,    // the function of the call has been called, or there is no such call
    running = -EINPROGRESS, // the function of the call is running
    busy = -EBUSY,          // another thread dispatches
    stopping = -ESHUTDOWN,  // the library stops, or has stopped before the call was done
};

namespace detail
{
class category_t final : public std::error_category
{
  public:
    constexpr category_t() noexcept = default;
    const char *name() const noexcept override
    {
        return "zeb";
    }
    std::string message(int result) const override
    {
        return zeb_strerror(result);
    }
    // -1 is EPERM by number alone.
    std::error_condition default_error_condition(int result) const noexcept override
    {
        if (result == -1)
            return {result, *this};
        return {result < 0 ? -result : result, std::generic_category()};
    }
};

// Outlives every static object.
union category_holder {
    constexpr category_holder() noexcept : category()
    {
    }
    ~category_holder() // NOLINT(modernize-use-equals-default): that one would be deleted
    {
    }
    category_t category;
};
inline category_holder the_category;

// Category and all for success too: the default one is a call of the C++ library's.
inline std::error_code code(int result) noexcept
{
    return {result, the_category.category};
}
} // namespace detail

// The category of every error here: the value is the result of the C call, the message zeb_strerror's.
inline const std::error_category &error_category() noexcept
{
    return detail::the_category.category;
}

// An error as a std::error_code of this category, as comparisons make it.
inline std::error_code make_error_code(errc error) noexcept
{
    return detail::code(static_cast<int>(error));
}

// Why this thread's last failed call failed, in words with its numbers; ask after a failure alone (zeb_last_error).
inline std::string last_error()
{
    return zeb_last_error();
}

#if defined(__cpp_lib_span)
template <typename T>
using span = std::span<T>;
#else
// The shape of std::span, for C++17: a view of `size` elements that something else owns.
template <typename T>
class span
{
  public:
    using element_type = T;
    using value_type = std::remove_cv_t<T>;
    using iterator = T *;

    constexpr span() noexcept = default;
    constexpr span(T *data, std::size_t size) noexcept : data_(data), size_(size)
    {
    }
    template <std::size_t N>
    constexpr span(T (&array)[N]) noexcept : data_(array), size_(N)
    {
    }
    template <typename Range, typename = std::enable_if_t<std::is_convertible_v<
                                  std::remove_pointer_t<decltype(std::data(std::declval<Range &>()))> (*)[], T (*)[]>>>
    constexpr span(Range &&range) noexcept : data_(std::data(range)), size_(std::size(range))
    {
    }
    constexpr T *data() const noexcept
    {
        return data_;
    }
    constexpr std::size_t size() const noexcept
    {
        return size_;
    }
    constexpr std::size_t size_bytes() const noexcept
    {
        return size_ * sizeof(T);
    }
    constexpr bool empty() const noexcept
    {
        return size_ == 0;
    }
    constexpr T *begin() const noexcept
    {
        return data_;
    }
    constexpr T *end() const noexcept
    {
        return data_ + size_;
    }
    constexpr T &operator[](std::size_t at) const noexcept
    {
        return data_[at];
    }
    constexpr T &front() const noexcept
    {
        return data_[0];
    }
    constexpr T &back() const noexcept
    {
        return data_[size_ - 1];
    }
    constexpr span first(std::size_t count) const noexcept
    {
        return {data_, count};
    }
    constexpr span last(std::size_t count) const noexcept
    {
        return {data_ + (size_ - count), count};
    }
    constexpr span subspan(std::size_t offset) const noexcept
    {
        return {data_ + offset, size_ - offset};
    }
    constexpr span subspan(std::size_t offset, std::size_t count) const noexcept
    {
        return {data_ + offset, count};
    }

  private:
    T *data_ = nullptr;
    std::size_t size_ = 0;
};
#endif

#if defined(__cpp_lib_expected)
using std::bad_expected_access;
using std::expected;
using std::unexpected;
#else
// The shape of std::expected, for C++17 and C++20: a value, or an error that says why there is none.
template <typename E>
class unexpected
{
  public:
    explicit constexpr unexpected(E error) : error_(std::move(error))
    {
    }
    constexpr const E &error() const noexcept
    {
        return error_;
    }

  private:
    E error_;
};

// Thrown by value() of an expected that has none.
template <typename E>
class bad_expected_access : public std::exception
{
  public:
    explicit bad_expected_access(E error) : error_(std::move(error))
    {
    }
    const E &error() const noexcept
    {
        return error_;
    }
    const char *what() const noexcept override
    {
        return "bad access to zeb::expected without a value";
    }

  private:
    E error_;
};

// As with std::expected: * and -> need a value, error() needs that there is none, value() throws without one (without
// exceptions it aborts).
template <typename T, typename E>
class [[nodiscard]] expected
{
  public:
    using value_type = T;
    using error_type = E;

    expected(T value) : held_(std::in_place_index<0>, std::move(value))
    {
    }
    expected(unexpected<E> error) : held_(std::in_place_index<1>, error.error())
    {
    }
    bool has_value() const noexcept
    {
        return held_.index() == 0;
    }
    explicit operator bool() const noexcept
    {
        return has_value();
    }
    T &operator*() &noexcept
    {
        return *std::get_if<0>(&held_);
    }
    const T &operator*() const &noexcept
    {
        return *std::get_if<0>(&held_);
    }
    T &&operator*() &&noexcept
    {
        return std::move(*std::get_if<0>(&held_));
    }
    T *operator->() noexcept
    {
        return std::get_if<0>(&held_);
    }
    const T *operator->() const noexcept
    {
        return std::get_if<0>(&held_);
    }
    T &value() &
    {
        check();
        return **this;
    }
    const T &value() const &
    {
        check();
        return **this;
    }
    T &&value() &&
    {
        check();
        return *std::move(*this);
    }
    template <typename U>
    T value_or(U &&other) const &
    {
        return has_value() ? **this : static_cast<T>(std::forward<U>(other));
    }
    template <typename U>
    T value_or(U &&other) &&
    {
        return has_value() ? *std::move(*this) : static_cast<T>(std::forward<U>(other));
    }
    const E &error() const noexcept
    {
        return *std::get_if<1>(&held_);
    }

  private:
    void check() const
    {
        if (has_value())
            return;
#if defined(__cpp_exceptions)
        throw bad_expected_access<E>(error());
#else
        std::abort();
#endif
    }

    std::variant<T, E> held_;
};
#endif

// A value, or the std::error_code that says why there is none.
template <typename T>
using result = expected<T, std::error_code>;

namespace detail
{
inline unexpected<std::error_code> failure(int result) noexcept
{
    return unexpected<std::error_code>(code(result));
}

// A function object that need not be copyable. Empty until it is given one.
template <typename Signature>
class function;
template <typename R, typename... Args>
class function<R(Args...)>
{
  public:
    function() noexcept = default;
    template <typename F, typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, function>>>
    function(F &&object) : held_(std::make_unique<holder<std::decay_t<F>>>(std::forward<F>(object)))
    {
    }
    explicit operator bool() const noexcept
    {
        return held_ != nullptr;
    }
    R operator()(Args... args) const
    {
        return held_->call(std::forward<Args>(args)...);
    }

  private:
    struct base {
        virtual ~base() = default;
        virtual R call(Args... args) = 0;
    };
    template <typename F>
    struct holder final : base {
        explicit holder(F object) : object_(std::move(object))
        {
        }
        R call(Args... args) override
        {
            if constexpr (std::is_void_v<R>)
                (void)object_(std::forward<Args>(args)...);
            else
                return object_(std::forward<Args>(args)...);
        }
        F object_;
    };

    std::unique_ptr<base> held_;
};
} // namespace detail

} // namespace ZEB_HPP_STANDARD
} // namespace zeb
#pragma GCC visibility pop

template <>
struct std::is_error_code_enum<zeb::errc> : std::true_type {
};

#endif
