// Tags as the cluster keeps them: a tag is an entry of its own, and each tagged entry has a link entry,
// the reserved mark then "tag.{tag}.{alias}.tag", that names the pair. Attaching and detaching are small
// transactions over the entry, its link and the tag; membership tests read the link; the lists of a
// tag's entries and of an entry's tags are listings of links by prefix and by suffix.
//
// Names are given without their terminating zero. REQUIRES, where a function says "zero-terminated":
// a zero byte follows the name in memory (it goes on the wire with it, uncopied).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "entries/transaction.hpp"
#include "ring/cluster.hpp"
#include "zlk/error.h"

namespace zlk::client
{

// Attaches each tag to the entry in one transaction over the entry's key. zlk_e_tag_already_set when
// every tag was already there; the first other failure ends it (and rolls it back). Names
// zero-terminated.
zlk_error_t attach_tags(chord::cluster & c, std::string_view alias, std::span<const std::string_view> tags);

// Detaches each tag in one transaction. zlk_e_tag_not_set when no tag was set.
zlk_error_t detach_tags(chord::cluster & c, std::string_view alias, std::span<const std::string_view> tags);

// Whether the entry has the tag: a missing link is zlk_e_tag_not_set, unless the tag's name is taken by
// an entry of another type (zlk_e_incompatible_type).
zlk_error_t test_tag(chord::cluster & c, std::string_view alias, std::string_view tag);

// The entries of a tag (with their kernel types when `types` is given) and the tags of an entry, in the
// order the ring's walk gives them. Links that don't parse are logged ("*** cannot parse tag link {}")
// and passed over. Appends.
zlk_error_t tagged_entries(chord::cluster & c, std::string_view tag, std::vector<std::string> & aliases,
                           std::vector<std::uint8_t> * types = nullptr);
zlk_error_t entry_tags(chord::cluster & c, std::string_view alias, std::vector<std::string> & tags);
zlk_error_t tagged_count(chord::cluster & c, std::string_view tag, std::uint64_t & count);

// The removal follow-up of an entry of any kind, inside the removal's transaction: its tag links go
// (listed by the suffix of its alias), a tag's links go with it.
zlk_error_t remove_entry_links(chord::cluster & c, transaction_state & state, std::string_view alias,
                               std::uint64_t kernel_type);

} // namespace zlk::client
