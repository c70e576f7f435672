// The handle's side of the cluster connection: the checks that need the handle's own fields, the steps
// the retry frame waits for a stable cluster with, and the loop of zlk_wait_for_stabilization.
#pragma once

#include <chrono>

#include "api/handle.hpp"
#include "api/retry_frame.hpp"
#include "wire/messages.hpp"
#include "zlk/error.h"

namespace zlk::api
{

// The credentials must make sense before anything is sent: with a user key, the user name and the
// cluster's public key are both given or both absent; without one, no cluster key either.
// zlk_e_login_failed otherwise. Nothing given at all means a clear connection.
zlk_error_t check_security_coherence(const zlk_session & h) noexcept;

// The credentials check, then the walk of the ring from the stored addresses and the reading of the
// cluster's settings (chord::cluster::connect_to), which the handle mirrors.
zlk_error_t connect_to(zlk_session & h);

// Rounds of connect_to and stabilize until one gives something other than a connection failure,
// which is returned; sleeps k * d between rounds (d drawn as the retry frame draws it), and gives
// zlk_e_timeout once `timeout` has passed. A timeout of 0 allows the first round only.
zlk_error_t wait_for_stabilization(zlk_session & h, std::chrono::milliseconds timeout, retry_clock & clock);

// Files the timing record a node attached to a result, when the handle tracks them.
void file_node_profile(zlk_session & h, const protocol::result & r);

} // namespace zlk::api
