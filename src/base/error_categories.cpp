#include "base/error_categories.hpp"

#include <array>
#include <cstddef>
#include <string>

namespace zlk::util
{
namespace
{

// The texts of one category: index i holds the message of value i + 1.
template <std::size_t N>
struct message_table
{
    const char * name;
    std::array<const char *, N> messages;
    const char * unknown;

    constexpr const char * operator()(int value) const noexcept
    {
        if (value >= 1 && static_cast<std::size_t>(value) <= N)
        {
            return messages[static_cast<std::size_t>(value) - 1];
        }
        return unknown;
    }
};

template <std::size_t N>
message_table(const char *, std::array<const char *, N>, const char *) -> message_table<N>;

// Every message is a static text, so the buffer overload hands it out without copying: a log line
// or a what() that names the category's text doesn't allocate for it.
template <const auto & Table>
class table_error_category : public identified_error_category
{
public:
    const char * name() const noexcept override { return Table.name; }
    std::string message(int value) const override { return Table(value); }
    const char * message(int value, char *, std::size_t) const noexcept override { return Table(value); }
};

} // namespace
} // namespace zlk::util

namespace
{

constexpr zlk::util::message_table client_messages{
    "zlk client",
    std::array{
        "got a future with unexpected status",
        "unknown client error",
        "unknown client error",
    },
    "unknown client error",
};

constexpr zlk::util::message_table serialization_messages{
    "zlk serialization",
    std::array{
        "unexpected byte during unmarshaling",
        "unexpected end of input stream during unmarshaling",
        "unmarshaling produced an inconsistent result",
        "serialization for this type is unsupported",
        "the data to (de)serialize is too large",
    },
    "unknown serialization error",
};

constexpr zlk::util::message_table chord_messages{
    "zlk chord",
    std::array{
        "ring is unstable - retry later",
        "a request was sent to the wrong peer",
        "the ring topology does not match the client's topology",
        "unexpected reply from the remote node",
        "internal error",
        "the requested chord operation is not implemented",
        "the chord algorithm stopped as it encountered a logic error",
        "the requested node could not be found",
        "the chord operation is already in progress",
        "the chord broadcast requested generated a duplicate",
        "a duplicate node id has been found on the ring",
        "the chord operation cannot be performed because it has been disabled",
        "unknown chord error",
    },
    "unknown chord error",
};

constexpr zlk::util::message_table network_messages{
    "zlk network",
    std::array{
        "session has been forcefully terminated (time out)",
        "session has been forcefully reseted (reconnection)",
        "session gracefully closed by peer",
        "spurious data detected",
        "the network data has been corrupted",
        "the network reply has been deplayed",
        "the network input buffer is too small to complete the operation",
        "unknown error",
    },
    "unknown error",
};

// The protocol shares the network's name: both are the transport as far as a caller is concerned.
constexpr zlk::util::message_table protocol_messages{
    "zlk network",
    std::array{
        "invalid protocol version",
        "the requested operation is not implemented",
        "the packet header is invalid",
        "unknown error",
    },
    "unknown error",
};

constexpr zlk::util::message_table persistence_messages{
    "zlk persistence",
    std::array{
        "the entry was not found on the disk",
        "persisted data is corrupted",
        "the operation is not supported",
        "invalid argument",
        "I/O error",
        "the persisted entry expired",
        "the persistence layer is busy",
        "the persistence layer timed out",
        "the I/O operation has been aborted",
        "incomplete I/O operation",
        "disk quota exceeded",
        "the persisted entry already exists",
        "the volume is too small",
        "the entry to store is too large",
        "unknown persistence error",
    },
    "unknown persistence error",
};

constexpr zlk::util::message_table query_messages{
    "zlk query",
    std::array{
        "the query is malformed",
        "the query expression is invalid",
        "no match found for the provided query",
        "the regular expression is invalid",
        "unknown query error",
    },
    "unknown query error",
};

constexpr zlk::util::message_table kernel_messages{
    "zlk kernel",
    std::array{
        "the entry was not found",
        "the entry already exists",
        "the operation has been aborted because it conflicts with another",
        "the operation is not implemented",
        "the entry is already evicted",
        "unexpected value",
        "internal kernel error",
        "index out of bounds",
        "the kernel is currently write protected",
        "the content does not match",
        "the prefix is too short",
        "the entry type is incompatible with this operation",
        "the container is empty",
        "the container is full",
        "the element was not found",
        "the element already exists",
        "the operation provokes overflow",
        "the operation provokes underflow",
        "the entry is already tagged with the given tag",
        "the entry is not tagged with the given tag",
        "the entry is larger than the allowed limit on this node",
        "the kernel operation cannot be performed because it has been disabled",
        "unknown or invalid message ID",
        "a clock skew is preventing the operation from completing successfully",
        "access to the entry has been denied",
        "login failed for the user",
        "the timeseries does not contain this column",
        "unknown user",
        "unknown kernel error",
    },
    "unknown kernel error",
};

constexpr zlk::util::message_table crypto_messages{
    "zlk crypto",
    std::array{
        "the provided cryptographic key is invalid",
        "authentication failed",
        "a secure channel could not be established because security is disabled",
        "unknown error",
    },
    "unknown error",
};

// The JSON library numbers its parse errors from 101; values 101 to 114 are served here.
constexpr int json_first_value = 101;

constexpr zlk::util::message_table json_messages{
    "json",
    std::array{
        "parse error: unexpected token",
        "parse error: invalid \\u escape or surrogate pair",
        "parse error: code point out of range",
        "JSON patch must be an array of objects",
        "JSON patch operation is invalid or misses a member",
        "array index must not begin with '0'",
        "JSON pointer must be empty or begin with '/'",
        "escape character '~' must be followed with '0' or '1'",
        "array index is not a number",
        "unexpected end of input in binary format",
        "parser function must be called with a valid input",
        "unexpected byte in binary format",
        "invalid string in binary format",
        "unsupported BSON record type",
    },
    "Unknown error code",
};

} // namespace

class client_error_category final : public zlk::util::table_error_category<client_messages>
{
};

const boost::system::error_category & client_category() noexcept
{
    static const client_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(client_error e) noexcept
{
    return {static_cast<int>(e), client_category()};
}

namespace zlk::serialization
{
class serialization_error_category final : public util::table_error_category<serialization_messages>
{
};

const boost::system::error_category & serialization_category() noexcept
{
    static const serialization_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(error e) noexcept
{
    return {static_cast<int>(e), serialization_category()};
}
} // namespace zlk::serialization

namespace zlk::chord
{
class chord_error_category final : public util::table_error_category<chord_messages>
{
};

const boost::system::error_category & chord_category() noexcept
{
    static const chord_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(error e) noexcept
{
    return {static_cast<int>(e), chord_category()};
}
} // namespace zlk::chord

namespace zlk::network
{
class network_error_category final : public util::table_error_category<network_messages>
{
};

const boost::system::error_category & network_category() noexcept
{
    static const network_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(error e) noexcept
{
    return {static_cast<int>(e), network_category()};
}
} // namespace zlk::network

namespace zlk::protocol
{
class protocol_error_category final : public util::table_error_category<protocol_messages>
{
};

const boost::system::error_category & protocol_category() noexcept
{
    static const protocol_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(error e) noexcept
{
    return {static_cast<int>(e), protocol_category()};
}
} // namespace zlk::protocol

namespace zlk::persistence
{
class persistence_error_category final : public util::table_error_category<persistence_messages>
{
};

const boost::system::error_category & persistence_category() noexcept
{
    static const persistence_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(error e) noexcept
{
    return {static_cast<int>(e), persistence_category()};
}
} // namespace zlk::persistence

namespace zlk::query
{
class query_error_category final : public util::table_error_category<query_messages>
{
};

const boost::system::error_category & query_category() noexcept
{
    static const query_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(error e) noexcept
{
    return {static_cast<int>(e), query_category()};
}
} // namespace zlk::query

namespace zlk::kernel
{
class kernel_error_category final : public util::table_error_category<kernel_messages>
{
};

const boost::system::error_category & kernel_category() noexcept
{
    static const kernel_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(error e) noexcept
{
    return {static_cast<int>(e), kernel_category()};
}
} // namespace zlk::kernel

namespace zlk::crypto
{
class crypto_error_category final : public util::table_error_category<crypto_messages>
{
};

const boost::system::error_category & crypto_category() noexcept
{
    static const crypto_error_category instance;
    return instance;
}

boost::system::error_code make_error_code(error e) noexcept
{
    return {static_cast<int>(e), crypto_category()};
}
} // namespace zlk::crypto

namespace zlk::json
{
// Its values are the library's own identifiers, so the table is shifted, and 0 has a text of its own.
class json_error_category final : public util::identified_error_category
{
public:
    const char * name() const noexcept override { return json_messages.name; }
    std::string message(int value) const override { return text(value); }
    const char * message(int value, char *, std::size_t) const noexcept override { return text(value); }

private:
    static const char * text(int value) noexcept
    {
        if (value == 0)
        {
            return "No error";
        }
        // Anything below the first identifier lands on the table's unknown text (index 0).
        return json_messages(value >= json_first_value ? value - (json_first_value - 1) : 0);
    }
};

const boost::system::error_category & json_category() noexcept
{
    static const json_error_category instance;
    return instance;
}
} // namespace zlk::json
