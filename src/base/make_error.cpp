#include "base/make_error.hpp"

#include <boost/system/error_code.hpp>

#include <array>
#include <cerrno>
#include <cstddef>
#include <span>

#include "base/error_categories.hpp"
#include "log/logger.hpp"

namespace zlk
{
namespace
{

// In a translation table, the slot whose status depends on the origin.
constexpr zlk_error_t internal_slot = 0;

// Index i holds the status of value i + 1.
constexpr std::array<zlk_error_t, 3> client_statuses{
    zlk_e_internal_local,
    zlk_e_buffer_too_small,
    zlk_e_internal_local,
};

constexpr std::array<zlk_error_t, 13> chord_statuses{
    zlk_e_unstable_cluster, zlk_e_unstable_cluster, zlk_e_unstable_cluster, zlk_e_invalid_reply,
    zlk_e_internal_remote,  zlk_e_not_implemented,  zlk_e_internal_remote,  zlk_e_unstable_cluster,
    zlk_e_internal_remote,  zlk_e_internal_remote,  zlk_e_invalid_argument, zlk_e_operation_disabled,
    zlk_e_internal_remote,
};

// Value 6 is answered before the table is read; any value past it is a network error.
constexpr std::array<zlk_error_t, 8> network_statuses{
    zlk_e_timeout,       zlk_e_connection_reset, zlk_e_connection_reset,  zlk_e_invalid_reply,
    zlk_e_invalid_reply, zlk_e_internal_remote,  zlk_e_network_inbuf_too_small, zlk_e_internal_remote,
};

constexpr std::array<zlk_error_t, 4> protocol_statuses{
    zlk_e_version_mismatch,
    zlk_e_not_implemented,
    zlk_e_invalid_protocol,
    zlk_e_internal_remote,
};

constexpr std::array<zlk_error_t, 15> persistence_statuses{
    zlk_e_alias_not_found, zlk_e_internal_remote, zlk_e_not_implemented, zlk_e_invalid_argument,
    zlk_e_system_remote,   zlk_e_internal_remote, zlk_e_try_again,       zlk_e_timeout,
    zlk_e_internal_remote, zlk_e_internal_remote, zlk_e_quota_exceeded,  zlk_e_alias_already_exists,
    zlk_e_internal_remote, zlk_e_entry_too_large, zlk_e_internal_remote,
};

// Value 4 takes the internal status of the origin; values past the table go on by number.
constexpr std::array<zlk_error_t, 4> crypto_statuses{
    zlk_e_invalid_crypto_key,
    zlk_e_login_failed,
    zlk_e_login_failed,
    internal_slot,
};

// Value 11 (prefix too short) has no status of its own.
constexpr std::array<zlk_error_t, 29> kernel_statuses{
    zlk_e_alias_not_found,   zlk_e_alias_already_exists,
    zlk_e_conflict,          zlk_e_not_implemented,
    zlk_e_internal_remote,   zlk_e_internal_remote,
    zlk_e_internal_remote,   zlk_e_out_of_bounds,
    zlk_e_entry_locked,      zlk_e_unmatched_content,
    internal_slot,           zlk_e_incompatible_type,
    zlk_e_container_empty,   zlk_e_container_full,
    zlk_e_element_not_found, zlk_e_element_already_exists,
    zlk_e_overflow,          zlk_e_underflow,
    zlk_e_tag_already_set,   zlk_e_tag_not_set,
    zlk_e_entry_too_large,   zlk_e_operation_disabled,
    zlk_e_invalid_protocol,  zlk_e_clock_skew,
    zlk_e_access_denied,     zlk_e_login_failed,
    zlk_e_column_not_found,  zlk_e_unknown_user,
    zlk_e_internal_remote,
};

constexpr std::array<zlk_error_t, 5> query_statuses{
    zlk_e_invalid_query, zlk_e_invalid_query, zlk_e_element_not_found, zlk_e_invalid_regex, internal_slot,
};

struct origin_statuses
{
    zlk_error_t internal;
    zlk_error_t system;
    zlk_error_t memory;
};

constexpr origin_statuses statuses_of(std::uint32_t origin) noexcept
{
    if (origin == local_origin)
    {
        return {zlk_e_internal_local, zlk_e_system_local, zlk_e_no_memory_local};
    }
    return {zlk_e_internal_remote, zlk_e_system_remote, zlk_e_no_memory_remote};
}

// The slot of a value, read from its low 8 bits; internal_slot when the table has none for it.
constexpr zlk_error_t slot(std::span<const zlk_error_t> table, int value) noexcept
{
    const auto index = static_cast<std::size_t>(static_cast<unsigned>(value) & 0xFFu);
    return index >= 1 && index <= table.size() ? table[index - 1] : internal_slot;
}

constexpr zlk_error_t or_internal(zlk_error_t status, const origin_statuses & o) noexcept
{
    return status == internal_slot ? o.internal : status;
}

bool matches(const boost::system::error_code & ec, int condition) noexcept
{
    return ec == boost::system::error_condition(condition, boost::system::generic_category());
}

// The look-up by plain number covers the errno numbers up to the largest one it names.
static_assert(ECONNREFUSED >= ENETRESET && ECONNREFUSED >= ECONNRESET && ECONNREFUSED >= ENOTCONN &&
              ECONNREFUSED >= ETIMEDOUT && ECONNREFUSED >= 2);

// The connection failures, by number whatever the category: name resolution failures of the
// resolver come as 1 and 2 from categories of their own.
zlk_error_t connection_status(int value) noexcept
{
    if (value < 1 || value > ECONNREFUSED)
    {
        return zlk_e_ok;
    }
    if (value == 1 || value == 2)
    {
        return zlk_e_host_not_found;
    }
    if (value == ENETRESET || value == ECONNRESET)
    {
        return zlk_e_connection_reset;
    }
    if (value == ENOTCONN)
    {
        return zlk_e_not_connected;
    }
    if (value == ETIMEDOUT)
    {
        return zlk_e_timeout;
    }
    if (value == ECONNREFUSED)
    {
        return zlk_e_connection_refused;
    }
    return zlk_e_ok;
}

zlk_error_t condition_status(int condition, const origin_statuses & o) noexcept
{
    if (condition == ENOMEM)
    {
        return o.memory;
    }
    if (condition == EINVAL)
    {
        return zlk_e_invalid_argument;
    }
    if (condition == EDOM)
    {
        return o.internal;
    }
    if (condition == EAGAIN)
    {
        return zlk_e_try_again;
    }
    if (condition == EOPNOTSUPP)
    {
        return zlk_e_not_implemented;
    }
    if (condition == ECONNABORTED)
    {
        return zlk_e_connection_reset;
    }
    return zlk_e_ok;
}

} // namespace

zlk_error_t make_error_from_code(int value, const boost::system::error_category & category,
                                 std::uint32_t origin) noexcept
{
    if (value == 0)
    {
        return zlk_e_ok;
    }

    const origin_statuses o = statuses_of(origin);

    if (category == chord::chord_category())
    {
        return or_internal(slot(chord_statuses, value), o);
    }
    if (category == client_category())
    {
        return or_internal(slot(client_statuses, value), o);
    }
    if (category == serialization::serialization_category())
    {
        return zlk_e_invalid_reply;
    }
    if (category == protocol::protocol_category())
    {
        return or_internal(slot(protocol_statuses, value), o);
    }
    if (category == network::network_category())
    {
        const auto index = static_cast<unsigned>(value) & 0xFFu;
        if (index == static_cast<unsigned>(network::error::delayed))
        {
            // The delay is a local matter of the receive path: a node has no business reporting it.
            log::log(log::level::error,
                     "received a network delayed error from the remote that we should not have");
            return zlk_e_internal_remote;
        }
        const zlk_error_t status = slot(network_statuses, value);
        return status == internal_slot ? zlk_e_network_error : status;
    }
    if (category == persistence::persistence_category())
    {
        const zlk_error_t status = or_internal(slot(persistence_statuses, value), o);
        if ((static_cast<unsigned>(value) & 0xFFu) == static_cast<unsigned>(persistence::error::io_error))
        {
            errno = EIO;
        }
        return status;
    }
    if (category == crypto::crypto_category())
    {
        const auto index = static_cast<std::size_t>(static_cast<unsigned>(value) & 0xFFu);
        if (index >= 1 && index <= crypto_statuses.size())
        {
            return or_internal(crypto_statuses[index - 1], o);
        }
        // Past its own table a crypto value is read as a plain number, as a foreign category's is.
    }
    else if (category == kernel::kernel_category())
    {
        return or_internal(slot(kernel_statuses, value), o);
    }
    else if (category == query::query_category())
    {
        return or_internal(slot(query_statuses, value), o);
    }

    const bool system =
        category == boost::system::system_category() || category == boost::system::generic_category();
    if (system)
    {
        const boost::system::error_code ec{value, category};
        if (matches(ec, ENOSPC))
        {
            return zlk_e_no_space_left;
        }
        if (matches(ec, ETIMEDOUT) || matches(ec, ECANCELED))
        {
            return zlk_e_timeout;
        }
        if (matches(ec, ENOSYS) || matches(ec, EOPNOTSUPP))
        {
            return zlk_e_not_implemented;
        }
        if (matches(ec, EINTR))
        {
            return zlk_e_interrupted;
        }
        // Kept for the text of the last error, which may name the system's reason.
        errno = value;
    }

    if (const zlk_error_t status = connection_status(value); status != zlk_e_ok)
    {
        return status;
    }
    if (const zlk_error_t status = condition_status(category.default_error_condition(value).value(), o);
        status != zlk_e_ok)
    {
        return status;
    }
    return system ? o.system : o.internal;
}

} // namespace zlk
