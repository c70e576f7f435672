#include "network/framing.hpp"

#include <span>

#include "base/error_categories.hpp"
#include "log/logger.hpp"
#include "network/binary_size.hpp"
#include "wire/frame.hpp"

namespace zlk::network
{

namespace
{

std::uint64_t read_u64(const std::uint8_t * p) noexcept
{
    std::uint64_t v = 0;
    for (int i = 7; i >= 0; --i)
    {
        v = (v << 8) | p[i];
    }
    return v;
}

} // namespace

boost::system::error_code framing_step(const std::uint8_t * data, std::size_t arrived,
                                       frame_progress & progress, std::uint64_t max_input_size) noexcept
{
    progress.received += arrived;
    if (progress.expected != 0)
    {
        return {};
    }
    const boost::system::error_code head =
        protocol::check_header(std::span<const std::uint8_t>(data, progress.received));
    if (head)
    {
        return head;
    }
    if (progress.received < frame_head_size)
    {
        return protocol::error::invalid_header;
    }
    const std::uint64_t body_size = read_u64(data + 4);
    if (body_size == protocol::empty_frame_size)
    {
        return protocol::error::invalid_header;
    }
    // A body size near 2^64 would wrap the total: anything that large is beyond any maximum anyway.
    const std::uint64_t total =
        body_size > UINT64_MAX - frame_head_size ? UINT64_MAX : body_size + frame_head_size;
    if (total > max_input_size)
    {
        log::log(log::level::error, "received a {} request - the configured maximum is {}",
                 binary_size{total}, binary_size{max_input_size});
        return network::error::input_buffer_too_small;
    }
    progress.expected = static_cast<std::size_t>(total);
    return {};
}

} // namespace zlk::network
