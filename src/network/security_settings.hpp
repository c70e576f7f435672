// What a connection needs to know of the handle's credentials. A connection runs the handshake of the
// secure channel only when the credentials are complete: a user name, the user's secret key and the
// cluster's public key. With any of them missing, security is off and frames go in the clear.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zlk::network
{

struct security_settings
{
    std::string user_name;
    bool has_user_secret_key = false;
    std::vector<std::uint8_t> cluster_public_key;
    // Seal frames once the session is ready.
    bool encryption = false;

    bool needs_handshake() const noexcept
    {
        return !user_name.empty() && has_user_secret_key && !cluster_public_key.empty();
    }
};

} // namespace zlk::network
