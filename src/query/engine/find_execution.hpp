// FIND over the cluster: the entries that carry every accepted tag, none of the excluded ones, begin
// with the prefix and are of the type, as the tags' links and the ring's listings tell them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "query/grammar/statements.hpp"
#include "ring/cluster.hpp"
#include "zlk/error.h"

namespace zlk::query
{

// A FIND request after its checks: at most one prefix, and at least one accepted tag or a prefix.
struct find_criteria
{
    std::vector<std::string> tags;
    std::vector<std::string> excluded_tags;
    std::optional<std::string> prefix;
    // The node's type of the entries wanted (kernel::entry_type); any type when absent.
    std::optional<std::uint8_t> kernel_type;
};

// The criteria of a parsed FIND (checked by check_find); empty when two TYPE items differ, since no
// entry has two types.
std::optional<find_criteria> criteria_of(const find_request & request);

// Counts what the request must read first (each tag's links and the prefix's matches): beyond
// max_cardinality it stops with zlk_e_invalid_query and the cardinality message in `message`, having
// read nothing. Then the sets are read and intersected smallest first, the excluded tags' entries
// removed and the type filtered. The aliases come out sorted by their bytes.
zlk_error_t run_find(chord::cluster & c, const find_criteria & criteria, std::uint64_t max_cardinality,
                     std::vector<std::string> & aliases, std::string & message);

} // namespace zlk::query
