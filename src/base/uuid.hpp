// The stamp of a transaction or a request: a time, a 256-bit id and a 32-bit number. All zero means
// "none", which is how every request outside a transaction carries it.
#pragma once

#include <cstdint>

#include "base/ring_id.hpp"
#include "base/time_value.hpp"

namespace zlk
{

struct uuid
{
    timespec time;
    chord::ring_id id{};
    std::uint32_t number = 0;

    bool is_none() const noexcept
    {
        return time.tv_sec == 0 && time.tv_nsec == 0 && number == 0 && id.is_zero();
    }

    friend bool operator==(const uuid &, const uuid &) noexcept = default;
};

} // namespace zlk
