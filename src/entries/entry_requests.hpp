// The requests of single-entry operations: the bodies of blobs, integers and the common operations,
// the expiry form of the wire, content compression on the write paths, and the reading of entry
// information. The exported functions (api/) check arguments, call these and hand results over.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/entry_type.hpp"
#include "base/time_value.hpp"
#include "ring/routing.hpp"
#include "wire/operation_body.hpp"
#include "zlk/types.h"

namespace zlk::client
{

// Access values of the carrier.
inline constexpr std::uint16_t access_put = 0x10;
inline constexpr std::uint16_t access_transaction = 0x20;

// The wire form of a caller's expiry: 0 never, -1 keeps the entry's, otherwise seconds and the
// remainder in nanoseconds (negative for a negative time).
constexpr timespec wire_expiry(zlk_time_t t) noexcept
{
    if (t == zlk_preserve_expiration)
    {
        return timespec{0, -1};
    }
    const std::int64_t seconds = t / 1000;
    return timespec{seconds, (t - seconds * 1000) * 1000000};
}

// An alias as the wire carries it: its characters and the terminating zero.
using alias_bytes = std::span<const std::uint8_t>;
using content_bytes = std::span<const std::uint8_t>;

inline alias_bytes wire_alias(const char * data, std::size_t length_with_zero) noexcept
{
    return {reinterpret_cast<const std::uint8_t *>(data), length_with_zero};
}

// Content on its way out: the caller's bytes, or their compressed form held until the reply is in.
struct outgoing_content
{
    content_bytes bytes;
    std::shared_ptr<std::vector<std::uint8_t>> compressed;
};

outgoing_content prepare_content(const void * data, std::size_t size, bool compress);

// The same with the compressed form written into `scratch`, which the caller keeps until the reply is
// in and may reuse from call to call.
content_bytes prepare_content(const void * data, std::size_t size, bool compress,
                              std::vector<std::uint8_t> & scratch);

// Room for the body of a request answered within the call that builds it (a single-entry operation):
// a body that fits is written here and owns no buffer; a larger one gets its own as usual.
struct body_storage
{
    std::array<std::uint8_t, 1024> bytes;
};

// The bodies, by operation. Each is built anew per attempt; none throws.
protocol::operation_body get_body(std::uint64_t offset, std::uint64_t length,
                                  kernel::entry_type kind) noexcept;
// The same in the caller's storage, which must outlive the request.
protocol::operation_body get_body(std::uint64_t offset, std::uint64_t length, kernel::entry_type kind,
                                  body_storage & storage) noexcept;
// put or update.
protocol::operation_body blob_write_body(protocol::operation op, alias_bytes alias, content_bytes content,
                                         zlk_time_t expiry) noexcept;
protocol::operation_body blob_write_body(protocol::operation op, alias_bytes alias, content_bytes content,
                                         zlk_time_t expiry, body_storage & storage) noexcept;
// int_put or int_update.
protocol::operation_body int_write_body(protocol::operation op, alias_bytes alias, std::int64_t value,
                                        zlk_time_t expiry) noexcept;
protocol::operation_body int_add_body(std::int64_t addend) noexcept;
protocol::operation_body get_and_update_body(content_bytes content, zlk_time_t expiry) noexcept;
protocol::operation_body compare_and_swap_body(content_bytes replacement, content_bytes comparand,
                                               zlk_time_t expiry) noexcept;
protocol::operation_body remove_if_body(content_bytes comparand) noexcept;
// remove or get_and_remove: the type the entry must have (any_entry_type for any).
protocol::operation_body typed_body(protocol::operation op, std::uint8_t expected) noexcept;
protocol::operation_body expires_at_body(zlk_time_t expiry) noexcept;
protocol::operation_body expires_from_now_body(std::int64_t milliseconds) noexcept;
protocol::operation_body entry_info_body() noexcept;
protocol::operation_body transaction_state_body(std::uint8_t state) noexcept;

// What a node tells of an entry (get_entry_info): fixed-width little-endian words, key first.
struct entry_info
{
    chord::ring_id key{};
    std::uint8_t type = 0;
    std::uint64_t size = 0;
    timespec modified;
    timespec expiry;
};

inline constexpr std::size_t entry_info_size = 32 + 1 + 8 + 4 * 8;

// zlk_e_invalid_reply for content of another size.
zlk_error_t decode_entry_info(std::span<const std::uint8_t> content, entry_info & out) noexcept;

// Milliseconds of a time of expiry; 0 for one that never expires.
zlk_time_t expiry_milliseconds(const timespec & t) noexcept;

} // namespace zlk::client
