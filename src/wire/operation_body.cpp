#include "wire/operation_body.hpp"

#include <cstring>
#include <vector>

namespace zlk::protocol
{

std::vector<std::uint8_t> flat_bytes(const operation_body & body)
{
    std::vector<std::uint8_t> out;
    if (!body.scattered())
    {
        out.assign(body.data, body.data + body.size);
        return out;
    }
    out.reserve(body.size);
    for (const serialization::scatter_entry & e : body.pieces)
    {
        out.insert(out.end(), e.data, e.data + e.size);
    }
    return out;
}

} // namespace zlk::protocol

namespace zlk::protocol::detail
{

operation_body finish_operation_body(const serialization::scatter_list & scatter, operation op)
{
    const std::size_t size = scatter.total_size();
    std::shared_ptr<std::uint8_t[]> buffer = std::make_shared_for_overwrite<std::uint8_t[]>(size);
    std::uint8_t * at = buffer.get();
    for (const serialization::scatter_entry & e : scatter)
    {
        std::memcpy(at, e.data, e.size);
        at += e.size;
    }
    operation_body body;
    body.operation_class = static_cast<std::uint64_t>(class_of(op));
    body.data = buffer.get();
    body.size = size;
    body.owner = std::move(buffer);
    return body;
}

namespace
{

struct scattered_storage
{
    std::unique_ptr<std::uint8_t[]> scratch;
    std::vector<serialization::scatter_entry> pieces;
};

} // namespace

operation_body finish_scattered_body(const serialization::scatter_list & scatter,
                                     std::unique_ptr<std::uint8_t[]> scratch, operation op)
{
    auto storage = std::make_shared<scattered_storage>();
    storage->scratch = std::move(scratch);
    storage->pieces.assign(scatter.begin(), scatter.end());
    operation_body body;
    body.operation_class = static_cast<std::uint64_t>(class_of(op));
    body.size = scatter.total_size();
    body.pieces = storage->pieces;
    body.owner = std::move(storage);
    return body;
}

operation_body out_of_memory_body() noexcept
{
    operation_body body;
    body.error = boost::system::errc::make_error_code(boost::system::errc::not_enough_memory);
    return body;
}

} // namespace zlk::protocol::detail

namespace zlk::chord
{

chord_carrier_request make_carrier(const ring_id & key, std::uint64_t client_id,
                                   std::uint16_t required_access, const protocol::operation_body & body,
                                   const zlk::uuid & transaction)
{
    chord_carrier_request carrier;
    carrier.key = key;
    carrier.client_id = client_id;
    carrier.transaction = transaction;
    carrier.required_access = required_access;
    carrier.valid = 1;
    carrier.operation_class = body.operation_class;
    carrier.body = body.bytes();
    carrier.body_pieces = body.pieces;
    carrier.body_owner = body.owner;
    return carrier;
}

} // namespace zlk::chord
