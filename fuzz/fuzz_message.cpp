// Each kind's reader alone: the first byte picks the kind, the rest is its body. A body that reads
// must write back to the same value.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "round_trip.hpp"
#include "wire/messages.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t * data, std::size_t size)
{
    using namespace zlk;
    if (size == 0)
    {
        return 0;
    }
    const std::size_t kind = data[0] % protocol::message_kind_count;
    serialization::cursor c(data + 1, size - 1);
    protocol::message decoded;
    if (serialization::unmarshal_kind(c, decoded, kind))
    {
        return 0;
    }
    if (decoded.index() != kind)
    {
        __builtin_trap();
    }
    fuzz::as_written(decoded);

    serialization::small_scatter<16> scatter;
    std::vector<std::uint8_t> scratch(serialization::marshal_bound(decoded));
    serialization::writer w(scatter, scratch);
    serialization::marshal(w, decoded);
    std::vector<std::uint8_t> again;
    serialization::flatten_into(scatter, again);

    serialization::cursor back(again.data(), again.size());
    protocol::message redecoded;
    if (serialization::unmarshal_kind(back, redecoded, kind) || back.remaining != 0 ||
        !(redecoded == decoded))
    {
        __builtin_trap();
    }
    return 0;
}
