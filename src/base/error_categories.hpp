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

// Each category's values with their texts, in one list: the enum and the category's table of texts are
// both made from it, so that a value and its text can't drift apart. Values run from 1 without gaps.
// X(value, name, text)
#define ZLK_ERROR_ENUMERATOR(value, name, text) name = value,
#define ZLK_ERROR_TEXT(value, name, text) text,

#define ZLK_CLIENT_ERRORS(X)                                                                                 \
    X(1, unexpected_future_status, "got a future with unexpected status")                                    \
    X(2, buffer_too_small, "unknown client error")                                                           \
    X(3, unknown, "unknown client error")

#define ZLK_SERIALIZATION_ERRORS(X)                                                                          \
    X(1, unexpected_byte, "unexpected byte during unmarshaling")                                             \
    X(2, unexpected_end, "unexpected end of input stream during unmarshaling")                               \
    X(3, inconsistent_result, "unmarshaling produced an inconsistent result")                                \
    X(4, unsupported_type, "serialization for this type is unsupported")                                     \
    X(5, too_large, "the data to (de)serialize is too large")

#define ZLK_CHORD_ERRORS(X)                                                                                  \
    X(1, unstable_ring, "ring is unstable - retry later")                                                    \
    X(2, wrong_peer, "a request was sent to the wrong peer")                                                 \
    X(3, topology_mismatch, "the ring topology does not match the client's topology")                        \
    X(4, unexpected_reply, "unexpected reply from the remote node")                                          \
    X(5, internal_error, "internal error")                                                                   \
    X(6, not_implemented, "the requested chord operation is not implemented")                                \
    X(7, logic_error, "the chord algorithm stopped as it encountered a logic error")                         \
    X(8, node_not_found, "the requested node could not be found")                                            \
    X(9, already_in_progress, "the chord operation is already in progress")                                  \
    X(10, duplicate_broadcast, "the chord broadcast requested generated a duplicate")                        \
    X(11, duplicate_node_id, "a duplicate node id has been found on the ring")                               \
    X(12, disabled, "the chord operation cannot be performed because it has been disabled")                  \
    X(13, unknown, "unknown chord error")

#define ZLK_NETWORK_ERRORS(X)                                                                                \
    X(1, timed_out, "session has been forcefully terminated (time out)")                                     \
    X(2, reset, "session has been forcefully reseted (reconnection)")                                        \
    X(3, closed_by_peer, "session gracefully closed by peer")                                                \
    X(4, spurious_data, "spurious data detected")                                                            \
    X(5, corrupted_data, "the network data has been corrupted")                                              \
    X(6, delayed, "the network reply has been deplayed")                                                     \
    X(7, input_buffer_too_small, "the network input buffer is too small to complete the operation")          \
    X(8, unknown, "unknown error")

#define ZLK_PROTOCOL_ERRORS(X)                                                                               \
    X(1, invalid_version, "invalid protocol version")                                                        \
    X(2, not_implemented, "the requested operation is not implemented")                                      \
    X(3, invalid_header, "the packet header is invalid")                                                     \
    X(4, unknown, "unknown error")

#define ZLK_PERSISTENCE_ERRORS(X)                                                                            \
    X(1, not_found, "the entry was not found on the disk")                                                   \
    X(2, corrupted, "persisted data is corrupted")                                                           \
    X(3, not_supported, "the operation is not supported")                                                    \
    X(4, invalid_argument, "invalid argument")                                                               \
    X(5, io_error, "I/O error")                                                                              \
    X(6, expired, "the persisted entry expired")                                                             \
    X(7, busy, "the persistence layer is busy")                                                              \
    X(8, timed_out, "the persistence layer timed out")                                                       \
    X(9, aborted, "the I/O operation has been aborted")                                                      \
    X(10, incomplete_io, "incomplete I/O operation")                                                         \
    X(11, quota_exceeded, "disk quota exceeded")                                                             \
    X(12, already_exists, "the persisted entry already exists")                                              \
    X(13, volume_too_small, "the volume is too small")                                                       \
    X(14, entry_too_large, "the entry to store is too large")                                                \
    X(15, unknown, "unknown persistence error")

#define ZLK_QUERY_ERRORS(X)                                                                                  \
    X(1, malformed, "the query is malformed")                                                                \
    X(2, invalid_expression, "the query expression is invalid")                                              \
    X(3, no_match, "no match found for the provided query")                                                  \
    X(4, invalid_regex, "the regular expression is invalid")                                                 \
    X(5, unknown, "unknown query error")

#define ZLK_KERNEL_ERRORS(X)                                                                                 \
    X(1, not_found, "the entry was not found")                                                               \
    X(2, already_exists, "the entry already exists")                                                         \
    X(3, conflict, "the operation has been aborted because it conflicts with another")                       \
    X(4, not_implemented, "the operation is not implemented")                                                \
    X(5, already_evicted, "the entry is already evicted")                                                    \
    X(6, unexpected_value, "unexpected value")                                                               \
    X(7, internal_error, "internal kernel error")                                                            \
    X(8, out_of_bounds, "index out of bounds")                                                               \
    X(9, write_protected, "the kernel is currently write protected")                                         \
    X(10, unmatched_content, "the content does not match")                                                   \
    X(11, prefix_too_short, "the prefix is too short")                                                       \
    X(12, incompatible_type, "the entry type is incompatible with this operation")                           \
    X(13, container_empty, "the container is empty")                                                         \
    X(14, container_full, "the container is full")                                                           \
    X(15, element_not_found, "the element was not found")                                                    \
    X(16, element_already_exists, "the element already exists")                                              \
    X(17, overflow, "the operation provokes overflow")                                                       \
    X(18, underflow, "the operation provokes underflow")                                                     \
    X(19, tag_already_set, "the entry is already tagged with the given tag")                                 \
    X(20, tag_not_set, "the entry is not tagged with the given tag")                                         \
    X(21, entry_too_large, "the entry is larger than the allowed limit on this node")                        \
    X(22, operation_disabled, "the kernel operation cannot be performed because it has been disabled")       \
    X(23, unknown_message, "unknown or invalid message ID")                                                  \
    X(24, clock_skew, "a clock skew is preventing the operation from completing successfully")               \
    X(25, access_denied, "access to the entry has been denied")                                              \
    X(26, login_failed, "login failed for the user")                                                         \
    X(27, column_not_found, "the timeseries does not contain this column")                                   \
    X(28, unknown_user, "unknown user")                                                                      \
    X(29, unknown, "unknown kernel error")

#define ZLK_CRYPTO_ERRORS(X)                                                                                 \
    X(1, invalid_key, "the provided cryptographic key is invalid")                                           \
    X(2, authentication_failed, "authentication failed")                                                     \
    X(3, security_disabled, "a secure channel could not be established because security is disabled")        \
    X(4, unknown, "unknown error")

// The client's own failures (outside any namespace, as the other side of the wire names it).
enum class client_error
{
    ZLK_CLIENT_ERRORS(ZLK_ERROR_ENUMERATOR)
};

class client_error_category;
const boost::system::error_category & client_category() noexcept;
boost::system::error_code make_error_code(client_error e) noexcept;

namespace zlk::serialization
{
enum class error
{
    ZLK_SERIALIZATION_ERRORS(ZLK_ERROR_ENUMERATOR)
};
class serialization_error_category;
const boost::system::error_category & serialization_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::serialization

namespace zlk::chord
{
enum class error
{
    ZLK_CHORD_ERRORS(ZLK_ERROR_ENUMERATOR)
};
class chord_error_category;
const boost::system::error_category & chord_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::chord

namespace zlk::network
{
enum class error
{
    ZLK_NETWORK_ERRORS(ZLK_ERROR_ENUMERATOR)
};
class network_error_category;
const boost::system::error_category & network_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::network

namespace zlk::protocol
{
enum class error
{
    ZLK_PROTOCOL_ERRORS(ZLK_ERROR_ENUMERATOR)
};
class protocol_error_category;
const boost::system::error_category & protocol_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::protocol

namespace zlk::persistence
{
enum class error
{
    ZLK_PERSISTENCE_ERRORS(ZLK_ERROR_ENUMERATOR)
};
class persistence_error_category;
const boost::system::error_category & persistence_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::persistence

namespace zlk::query
{
enum class error
{
    ZLK_QUERY_ERRORS(ZLK_ERROR_ENUMERATOR)
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
    ZLK_KERNEL_ERRORS(ZLK_ERROR_ENUMERATOR)
};
class kernel_error_category;
const boost::system::error_category & kernel_category() noexcept;
boost::system::error_code make_error_code(error e) noexcept;
} // namespace zlk::kernel

namespace zlk::crypto
{
enum class error
{
    ZLK_CRYPTO_ERRORS(ZLK_ERROR_ENUMERATOR)
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
