// Listings over the whole ring, node after node from the ring's first node, each node asked in chunks,
// and one request to one named node. A chunk that fails ends the walk with its error ("could not fetch
// chunk {}: {}"). max_count 0: no limit. Aliases are appended in the order the nodes give them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/function_ref.hpp"
#include "entries/listing_requests.hpp"
#include "ring/cluster.hpp"
#include "ring/routing.hpp"
#include "zlk/error.h"

namespace zlk::client
{

zlk_error_t list_affix(chord::cluster & c, std::string_view affix, affix_kind kind, std::uint64_t max_count,
                       std::vector<std::string> & aliases, std::vector<std::uint8_t> * types = nullptr);
zlk_error_t count_affix(chord::cluster & c, std::string_view affix, affix_kind kind, std::uint64_t & count);
zlk_error_t scan_ring(chord::cluster & c, std::span<const std::uint8_t> pattern, scan_kind kind,
                      std::uint64_t max_count, std::vector<std::string> & aliases);

// One request to one node, named by the caller rather than by routing; `read` takes the carrier reply
// when the node answered without error.
using node_reply_reader = function_ref<zlk_error_t(const chord::chord_carrier_reply &)>;
zlk_error_t request_node(chord::cluster & c, const chord::node_info & node, const chord::ring_id & key,
                         std::uint16_t access, bool has_content, body_builder body, node_reply_reader read);

} // namespace zlk::client
