// A part of <zeb/zeb.hpp>: the message.
#ifndef ZEB_CPP_MESSAGE_HPP
#define ZEB_CPP_MESSAGE_HPP

#include <optional>
#include <string_view>

#include <zeb/cpp/base.hpp>

#pragma GCC visibility push(default)
namespace zeb
{
inline namespace ZEB_HPP_STANDARD
{

// A message and the block that holds it: one pointer wide, moved and not copied (clone() copies). It holds no block
// when it was made so, moved from or released, and when what it was made from was too long; it then has an empty
// payload and zeros for the rest, and sending it gives errc::invalid.
//
// The version tells the receiver which handler the message is for. Numbers in the payload are yours: the library does
// not look at it, and the other end may have another byte order.
class message
{
  public:
    static constexpr std::size_t max_size = ZEB_MSG_MAX_DATA; // payload bytes: 61440

    message() noexcept = default; // holds no block

    // An empty payload, of application version `version` (1 or more).
    explicit message(std::uint32_t version) noexcept : message(with_size(version, 0))
    {
    }

    // Takes over a message of the C interface, which ends with it. Null is allowed.
    explicit message(zeb_msg_t *block) noexcept : block_(block)
    {
    }

    // `size` payload bytes, all 0. Holds no block when `size` is above max_size.
    static message with_size(std::uint32_t version, std::size_t size) noexcept
    {
        return message(size > max_size ? nullptr : zeb_msg_alloc(static_cast<int>(size), version, 0));
    }

    // A copy of `size` bytes at `bytes`, which may be null when there are none.
    static message from_bytes(std::uint32_t version, const void *bytes, std::size_t size) noexcept
    {
        message made = uninitialised(version, size);
        if (made && size != 0)
            std::memcpy(made.block_->data, bytes, size);
        return made;
    }

    // A copy of a container, array or span whose elements are bytes: std::vector<uint8_t>, std::array, std::string ...
    template <typename Bytes>
    static auto from_bytes(std::uint32_t version, const Bytes &bytes) noexcept
        -> std::enable_if_t<sizeof(*std::data(bytes)) == 1, message>
    {
        return from_bytes(version, std::data(bytes), std::size(bytes));
    }

    // A copy of a text, without a NUL at its end.
    static message from_text(std::uint32_t version, std::string_view text) noexcept
    {
        return from_bytes(version, text.data(), text.size());
    }

    // A copy of an object as it lies in memory, in this machine's byte order. as() reads it.
    template <typename T>
    static message from_object(std::uint32_t version, const T &object) noexcept
    {
        static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>,
                      "such an object has a meaning here alone");
        return from_bytes(version, &object, sizeof(object));
    }

    message(message &&other) noexcept : block_(std::exchange(other.block_, nullptr))
    {
    }
    message &operator=(message &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~message()
    {
        std::free(block_);
    }

    // True when it holds a block.
    explicit operator bool() const noexcept
    {
        return block_ != nullptr;
    }

    // Gives the block away: the caller frees it with free() or zeb_msg_free().
    [[nodiscard]] zeb_msg_t *release() noexcept
    {
        return std::exchange(block_, nullptr);
    }

    // Frees the block and takes over `block`, which may be null.
    void reset(zeb_msg_t *block = nullptr) noexcept
    {
        std::free(std::exchange(block_, block));
    }

    // The block, for the C interface. The message keeps it. Null when it holds none.
    zeb_msg_t *get() const noexcept
    {
        return block_;
    }

    // A copy, with its header.
    message clone() const noexcept
    {
        message copy = uninitialised(version(), size());
        if (block_ == nullptr || !copy)
            return message();
        copy.block_->hdr = block_->hdr;
        if (!empty())
            std::memcpy(copy.block_->data, block_->data, size());
        return copy;
    }

    // The payload, valid as long as the block.
    span<std::uint8_t> data() noexcept
    {
        return {bytes(), size()};
    }
    span<const std::uint8_t> data() const noexcept
    {
        return {bytes(), size()};
    }

    // The payload as text, without a NUL at its end. Valid as long as the block.
    std::string_view text() const noexcept
    {
        return {reinterpret_cast<const char *>(bytes()), size()};
    }

    // The payload as an object that from_object() of the same kind of machine has sent; nothing when the size differs.
    template <typename T>
    std::optional<T> as() const noexcept
    {
        static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>,
                      "such an object has a meaning here alone");
        if (block_ == nullptr || size() != sizeof(T))
            return std::nullopt;
        std::remove_const_t<T> object;
        std::memcpy(&object, bytes(), sizeof(object));
        return object;
    }

    // Payload bytes.
    std::size_t size() const noexcept
    {
        return block_ != nullptr ? zeb_msg_data_len(block_) : 0;
    }

    bool empty() const noexcept
    {
        return size() == 0;
    }

    std::uint32_t version() const noexcept
    {
        return block_ != nullptr ? block_->hdr.app_ver : 0;
    }

    // Of a message that was received: the instance that sent it.
    instance sender() const noexcept
    {
        return block_ != nullptr ? instance{block_->hdr.src_app, block_->hdr.src_node} : instance{};
    }

  private:
    // Like zeb_msg_alloc, but the payload is not cleared: all of it is written next.
    static message uninitialised(std::uint32_t version, std::size_t size) noexcept
    {
        if (size > max_size)
            return message();
        std::size_t bytes = offsetof(zeb_msg_t, data) + size;
        bytes = bytes < sizeof(zeb_msg_t) ? sizeof(zeb_msg_t) : bytes; // compilers warn of less than a record
        auto *block = static_cast<zeb_msg_t *>(zeb_malloc_dirty(static_cast<int>(bytes)));
        std::memset(static_cast<void *>(block), 0, offsetof(zeb_msg_t, data));
        block->hdr.zeb_ver = ZEB_MSG_VERSION;
        block->hdr.len = static_cast<std::uint32_t>(size + ZEB_MSG_HDR_LEN);
        block->hdr.app_ver = version;
        return message(block);
    }

    std::uint8_t *bytes() const noexcept
    {
        return block_ != nullptr ? block_->data : nullptr;
    }

    zeb_msg_t *block_ = nullptr;
};

// A message that a call sends, named or temporary. It keeps its block, so it can be sent again; its header is
// overwritten, so two threads must not send one message at once.
class message_ref
{
  public:
    message_ref(message &sent) noexcept : block_(sent.get())
    {
    }
    message_ref(message &&sent) noexcept : block_(sent.get())
    {
    }
    zeb_msg_t *block() const noexcept
    {
        return block_;
    }

  private:
    zeb_msg_t *block_;
};

} // namespace ZEB_HPP_STANDARD
} // namespace zeb
#pragma GCC visibility pop

#endif
