// A received frame: header check, size rules, tag and message. A frame that decodes must encode back
// to a frame that decodes to the same message.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "round_trip.hpp"
#include "wire/frame.hpp"

namespace
{

const zlk::protocol::frame_origin origin{nullptr, "fuzz", "fuzz"};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t * data, std::size_t size)
{
    using namespace zlk::protocol;
    const std::span<const std::uint8_t> received(data, size);
    (void)check_header(received);

    message decoded;
    bool empty = false;
    if (read_frame(received, decoded, origin, &empty) || empty)
    {
        return 0;
    }
    zlk::fuzz::as_written(decoded);

    zlk::serialization::small_scatter<16> scatter;
    std::vector<std::uint8_t> scratch;
    encode_frame(decoded, scatter, scratch);
    std::vector<std::uint8_t> again;
    zlk::serialization::flatten_into(scatter, again);

    message redecoded;
    if (read_frame(again, redecoded, origin) || !(redecoded == decoded))
    {
        __builtin_trap();
    }
    return 0;
}
