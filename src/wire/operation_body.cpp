#include "wire/operation_body.hpp"

#include <cstring>

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

operation_body out_of_memory_body() noexcept
{
    operation_body body;
    body.error = boost::system::errc::make_error_code(boost::system::errc::not_enough_memory);
    return body;
}

} // namespace zlk::protocol::detail
