// The error categories of the system. Lower layers report failures as boost::system::error_code values
// in these categories; make_error_from_code (make_error.hpp) is the one translation into zlk_error_t.
//
// Every category is a process-wide singleton. Its value 0 is success; its own values start at 1.
#pragma once

#include <boost/system/error_code.hpp>

namespace zlk::util
{

// Base of every category of the system: the wire carries a category as an index into category_table
// (wire/category_table.hpp), and the index is the category's identity.
class identified_error_category : public boost::system::error_category
{
public:
    using boost::system::error_category::error_category;
};

} // namespace zlk::util

// The client's own failures (outside any namespace, as the other side of the wire names it).
enum class client_error
{
    unexpected_future_status = 1,
    buffer_too_small = 2,
    unknown = 3,
};

class client_error_category;
const boost::system::error_category & client_category() noexcept;
boost::system::error_code make_error_code(client_error e) noexcept;

namespace zlk::serialization
{
enum class error
{
    unexpected_byte = 1,
    unexpected_end = 2,
    inconsistent_result = 3,
    unsupported_type = 4,
    too_large = 5,
};
class serialization_error_category;
const boost::system::error_category & serialization_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::serialization

namespace zlk::chord
{
enum class error
{
    unstable_ring = 1,
    wrong_peer = 2,
    topology_mismatch = 3,
    unexpected_reply = 4,
    internal_error = 5,
    not_implemented = 6,
    logic_error = 7,
    node_not_found = 8,
    already_in_progress = 9,
    duplicate_broadcast = 10,
    duplicate_node_id = 11,
    disabled = 12,
    unknown = 13,
};
class chord_error_category;
const boost::system::error_category & chord_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::chord

namespace zlk::network
{
enum class error
{
    timed_out = 1,
    reset = 2,
    closed_by_peer = 3,
    spurious_data = 4,
    corrupted_data = 5,
    delayed = 6,
    input_buffer_too_small = 7,
    unknown = 8,
};
class network_error_category;
const boost::system::error_category & network_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::network

namespace zlk::protocol
{
enum class error
{
    invalid_version = 1,
    not_implemented = 2,
    invalid_header = 3,
    unknown = 4,
};
class protocol_error_category;
const boost::system::error_category & protocol_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::protocol

namespace zlk::persistence
{
enum class error
{
    not_found = 1,
    corrupted = 2,
    not_supported = 3,
    invalid_argument = 4,
    io_error = 5,
    expired = 6,
    busy = 7,
    timed_out = 8,
    aborted = 9,
    incomplete_io = 10,
    quota_exceeded = 11,
    already_exists = 12,
    volume_too_small = 13,
    entry_too_large = 14,
    unknown = 15,
};
class persistence_error_category;
const boost::system::error_category & persistence_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::persistence

namespace zlk::query
{
enum class error
{
    malformed = 1,
    invalid_expression = 2,
    no_match = 3,
    invalid_regex = 4,
    unknown = 5,
};
// A partial aggregation state that doesn't match its function. Deliberately outside the table: it reads
// as "unknown query error" and translates as an internal error, since only a bug produces it.
inline constexpr int mismatched_state = 45;

class query_error_category;
const boost::system::error_category & query_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::query

namespace zlk::kernel
{
// The status a node reports in a reply.
enum class error
{
    not_found = 1,
    already_exists = 2,
    conflict = 3,
    not_implemented = 4,
    already_evicted = 5,
    unexpected_value = 6,
    internal_error = 7,
    out_of_bounds = 8,
    write_protected = 9,
    unmatched_content = 10,
    prefix_too_short = 11,
    incompatible_type = 12,
    container_empty = 13,
    container_full = 14,
    element_not_found = 15,
    element_already_exists = 16,
    overflow = 17,
    underflow = 18,
    tag_already_set = 19,
    tag_not_set = 20,
    entry_too_large = 21,
    operation_disabled = 22,
    unknown_message = 23,
    clock_skew = 24,
    access_denied = 25,
    login_failed = 26,
    column_not_found = 27,
    unknown_user = 28,
    unknown = 29,
};
class kernel_error_category;
const boost::system::error_category & kernel_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::kernel

namespace zlk::crypto
{
enum class error
{
    invalid_key = 1,
    authentication_failed = 2,
    security_disabled = 3,
    unknown = 4,
};
class crypto_error_category;
const boost::system::error_category & crypto_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::crypto

namespace zlk::json
{
// The JSON library's exception identifiers (101 to 114) with their usual texts; 0 is "No error".
// A failure is reported as error_code{exception.id, json_category()}. It has no table of statuses of
// its own: make_error_from_code reads its values as plain numbers.
class json_error_category;
const boost::system::error_category & json_category() noexcept;
} // namespace zlk::json

namespace boost::system
{
template <>
struct is_error_code_enum<::client_error> : std::true_type
{
};
template <>
struct is_error_code_enum<zlk::serialization::error> : std::true_type
{
};
template <>
struct is_error_code_enum<zlk::chord::error> : std::true_type
{
};
template <>
struct is_error_code_enum<zlk::network::error> : std::true_type
{
};
template <>
struct is_error_code_enum<zlk::protocol::error> : std::true_type
{
};
template <>
struct is_error_code_enum<zlk::persistence::error> : std::true_type
{
};
template <>
struct is_error_code_enum<zlk::query::error> : std::true_type
{
};
template <>
struct is_error_code_enum<zlk::kernel::error> : std::true_type
{
};
template <>
struct is_error_code_enum<zlk::crypto::error> : std::true_type
{
};
} // namespace boost::system
