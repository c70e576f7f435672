// The few exchanges a client has with nodes about the ring itself rather than about data: ping, find
// successor and the reading of a cluster setting. Each is one synchronous request on a client borrowed
// from the broker's "sync" side, under a fixed context name.
//
// A conversation doesn't touch the ring map itself: it says in its outcome whether the node should be
// forgotten, so that a caller already holding the map's lock (a miss, a walk) can act under it.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <functional>

#include "network/clients_broker.hpp"
#include "network/endpoint.hpp"
#include "ring/ring_map.hpp"
#include "wire/messages.hpp"

namespace zlk::chord
{

inline constexpr const char * ping_context = "chord ping";
inline constexpr const char * find_successor_context = "find successor";
inline constexpr const char * get_config_context = "get replication factor";
inline constexpr const char * client_request_context = "client request";
inline constexpr const char * grouped_requests_context = "grouped requests on ring";

// The items of get_config.
enum class config_item : std::uint8_t
{
    replication_factor = 2,
    input_buffer_factor = 3,
    profiling = 5,
};

// Where the timing record a node attaches to a result goes. Unset: nowhere.
using profile_sink = std::function<void(const protocol::result &)>;

// A transport failure that makes the node's place on the ring suspect: the network and protocol
// categories, and a connection aborted, reset, refused or unreachable.
bool is_chord_visible(const boost::system::error_code & ec) noexcept;

// The reading of a result (tag 16) where a conversation expected its answer: the node's error makes it
// forgotten, and "wrong peer" asks for a retry; no error with content is an invalid reply; no error and
// no content is a success. The profile goes to `profiles` first.
chord_outcome refusal(const protocol::result & r, const network::endpoint & from,
                      const profile_sink & profiles);

// The reading of any other unexpected kind of reply: logged "unexpected answer from {}: {}", the node
// forgotten, chord code 4.
chord_outcome unexpected_answer(const protocol::message & reply, const network::endpoint & from);

class conversations final : public successor_finder
{
public:
    // REQUIRES: the broker side outlives this object.
    explicit conversations(network::clients_broker & sync_side) noexcept
        : _sync(&sync_side)
    {
    }

    // REQUIRES: called before any conversation runs.
    void set_profile_sink(profile_sink sink) { _profiles = std::move(sink); }
    const profile_sink & profiles() const noexcept { return _profiles; }
    network::clients_broker & sync_side() const noexcept { return *_sync; }

    // The arc of the node at that endpoint; anything but an arc is chord code 4.
    chord_outcome ping(const network::endpoint & ep, arc & out);

    // The arc of the position's owner, as the node at that endpoint sees it.
    chord_outcome find_successor(const network::endpoint & ep, const ring_id & position, arc & out) override;

    // One cluster setting, read from that node. The node's failure comes back in the outcome's error
    // with remote set.
    chord_outcome get_config(const node_info & node, config_item item, std::uint64_t & value);

private:
    network::clients_broker * _sync;
    profile_sink _profiles;
};

} // namespace zlk::chord
