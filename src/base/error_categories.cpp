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

// The tables index texts by value - 1: each list must run 1, 2, 3, ... in order.
#define ZLK_ERROR_VALUE(value, name, text) value,
template <std::size_t N>
constexpr bool consecutive_from_one(const std::array<int, N> & values)
{
    for (std::size_t i = 0; i < N; ++i)
    {
        if (values[i] != static_cast<int>(i) + 1)
        {
            return false;
        }
    }
    return true;
}
static_assert(consecutive_from_one(std::array{ZLK_CLIENT_ERRORS(ZLK_ERROR_VALUE)}));
static_assert(consecutive_from_one(std::array{ZLK_SERIALIZATION_ERRORS(ZLK_ERROR_VALUE)}));
static_assert(consecutive_from_one(std::array{ZLK_CHORD_ERRORS(ZLK_ERROR_VALUE)}));
static_assert(consecutive_from_one(std::array{ZLK_NETWORK_ERRORS(ZLK_ERROR_VALUE)}));
static_assert(consecutive_from_one(std::array{ZLK_PROTOCOL_ERRORS(ZLK_ERROR_VALUE)}));
static_assert(consecutive_from_one(std::array{ZLK_PERSISTENCE_ERRORS(ZLK_ERROR_VALUE)}));
static_assert(consecutive_from_one(std::array{ZLK_QUERY_ERRORS(ZLK_ERROR_VALUE)}));
static_assert(consecutive_from_one(std::array{ZLK_KERNEL_ERRORS(ZLK_ERROR_VALUE)}));
static_assert(consecutive_from_one(std::array{ZLK_CRYPTO_ERRORS(ZLK_ERROR_VALUE)}));
#undef ZLK_ERROR_VALUE

constexpr zlk::util::message_table client_messages{
    "zlk client",
    std::array{ZLK_CLIENT_ERRORS(ZLK_ERROR_TEXT)},
    "unknown client error",
};

constexpr zlk::util::message_table serialization_messages{
    "zlk serialization",
    std::array{ZLK_SERIALIZATION_ERRORS(ZLK_ERROR_TEXT)},
    "unknown serialization error",
};

constexpr zlk::util::message_table chord_messages{
    "zlk chord",
    std::array{ZLK_CHORD_ERRORS(ZLK_ERROR_TEXT)},
    "unknown chord error",
};

constexpr zlk::util::message_table network_messages{
    "zlk network",
    std::array{ZLK_NETWORK_ERRORS(ZLK_ERROR_TEXT)},
    "unknown error",
};

// The protocol shares the network's name: both are the transport as far as a caller is concerned.
constexpr zlk::util::message_table protocol_messages{
    "zlk network",
    std::array{ZLK_PROTOCOL_ERRORS(ZLK_ERROR_TEXT)},
    "unknown error",
};

constexpr zlk::util::message_table persistence_messages{
    "zlk persistence",
    std::array{ZLK_PERSISTENCE_ERRORS(ZLK_ERROR_TEXT)},
    "unknown persistence error",
};

constexpr zlk::util::message_table query_messages{
    "zlk query",
    std::array{ZLK_QUERY_ERRORS(ZLK_ERROR_TEXT)},
    "unknown query error",
};

constexpr zlk::util::message_table kernel_messages{
    "zlk kernel",
    std::array{ZLK_KERNEL_ERRORS(ZLK_ERROR_TEXT)},
    "unknown kernel error",
};

constexpr zlk::util::message_table crypto_messages{
    "zlk crypto",
    std::array{ZLK_CRYPTO_ERRORS(ZLK_ERROR_TEXT)},
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
