// The body of a data operation, as a carrier holds it: u16 operation number, then the operation's
// fields. The body outlives its builder (it is sent, maybe replayed, while the request lives), so it
// ends as one contiguous buffer of exactly its size under a shared owner: the fields are written to a
// scratch area sized by the operation's bound (on the stack when it is small), bulk data is
// referenced, and the pieces are then copied in order into that one buffer. The scatter technique
// saves copies again at the envelope, around the body. A bulk body (a time-series shard write) is the
// exception: its pieces stay where they are and the sender keeps the bulk alive until the reply.
#pragma once

#include <boost/system/error_code.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "base/uuid.hpp"
#include "wire/marshal.hpp"
#include "wire/messages.hpp"
#include "wire/operations.hpp"
#include "wire/scatter.hpp"

namespace zlk::protocol
{

struct operation_body
{
    // Set only when memory ran out; then class is 0 and data/size are null.
    boost::system::error_code error;
    std::uint64_t operation_class = 0;
    const std::uint8_t * data = nullptr;
    std::size_t size = 0;
    std::shared_ptr<const void> owner;
    // A body too large to copy: its pieces in order, pointing into the owner's scratch and into the
    // caller's bulk buffers, which must outlive the request. Then data is null and size the total.
    std::span<const serialization::scatter_entry> pieces;

    std::span<const std::uint8_t> bytes() const noexcept { return {data, size}; }
    bool scattered() const noexcept { return !pieces.empty(); }
};

// The body's bytes in one buffer, scattered or not: a copy, for tools and checks, not for sending.
std::vector<std::uint8_t> flat_bytes(const operation_body & body);

namespace detail
{

// Scratch bounds up to this size stay on the builder's stack.
inline constexpr std::size_t stack_body_scratch = 256;

// Copies the pieces into one shared buffer of their exact total size.
operation_body finish_operation_body(const serialization::scatter_list & scatter, operation op);
operation_body out_of_memory_body() noexcept;

// Keeps the pieces as they are: the body owns the scratch area and the list, not the bulk bytes.
operation_body finish_scattered_body(const serialization::scatter_list & scatter,
                                     std::unique_ptr<std::uint8_t[]> scratch, operation op);

} // namespace detail

// write_fields(serialization::writer &) writes the operation's fields; fields_bound is their scratch
// bound (without the operation number). One allocation for the body, plus one for a scratch area
// beyond stack_body_scratch. Never throws.
template <typename WriteFields>
operation_body build_operation_body(operation op, std::size_t fields_bound,
                                    WriteFields && write_fields) noexcept
{
    try
    {
        const std::size_t bound = sizeof(std::uint16_t) + fields_bound;
        std::array<std::uint8_t, detail::stack_body_scratch> local;
        std::vector<std::uint8_t> heap;
        std::span<std::uint8_t> scratch(local);
        if (bound > local.size())
        {
            heap.resize(bound);
            scratch = heap;
        }
        serialization::small_scatter<8> scatter;
        // Exactly the bound: a builder that writes more than it promised fails here too.
        serialization::writer w(scatter, scratch.first(bound));
        w.put_u16(static_cast<std::uint16_t>(op));
        write_fields(w);
        return detail::finish_operation_body(scatter, op);
    }
    catch (const std::bad_alloc &)
    {
        return detail::out_of_memory_body();
    }
}

} // namespace zlk::protocol

namespace zlk::chord
{

// A carrier as a client sends it: `from` unset, valid 1, the body's class and bytes (kept alive by the
// carrier).
chord_carrier_request make_carrier(const ring_id & key, std::uint64_t client_id,
                                   std::uint16_t required_access, const protocol::operation_body & body,
                                   const zlk::uuid & transaction = {});

} // namespace zlk::chord
