// The network settings of one handle, shared by both sides of its broker and read afresh for every new
// client: a changed option applies to the next connection made, never to one in use.
//
// The handle holds this object through a std::shared_ptr and its options write it; the broker holds
// another reference, so the settings outlive whichever of the two goes first.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "network/security_settings.hpp"

namespace zlk::network
{

struct network_settings
{
    static constexpr std::uint64_t default_timeout_ms = 300000;
    static constexpr std::uint64_t default_max_input_size = 0x10000000;

    // Of every request: the socket's send and receive time-out.
    std::atomic<std::uint64_t> timeout_ms{default_timeout_ms};
    // The largest frame a client accepts.
    std::atomic<std::uint64_t> max_input_size{default_max_input_size};

    // REQUIRES: set before the first request and not changed while requests run; null means no
    // credentials, so security is off.
    std::shared_ptr<const security_settings> security;
};

} // namespace zlk::network
