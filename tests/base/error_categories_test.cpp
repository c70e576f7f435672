#include <gtest/gtest.h>

#include <boost/system/error_code.hpp>

#include <cerrno>
#include <climits>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "base/error_categories.hpp"
#include "base/make_error.hpp"
#include "base/status_text.hpp"
#include "log/logger.hpp"
#include "zlk/error.h"

namespace
{

using category_ref = const boost::system::error_category &;

// Every status of the interface, read from the public header itself so that a status added there
// without a text is caught.
std::map<zlk_error_t, std::string> all_statuses()
{
    std::ifstream in{ZLK_ERROR_HEADER};
    std::stringstream text;
    text << in.rdbuf();
    const std::string header = text.str();

    std::map<zlk_error_t, std::string> statuses;
    const std::regex define{R"(#define\s+(zlk_e_\w+)\s+\(\(zlk_error_t\)(0x[0-9A-Fa-f]+)u\))"};
    for (std::sregex_iterator it{header.begin(), header.end(), define}, end; it != end; ++it)
    {
        statuses.emplace(static_cast<zlk_error_t>(std::stoul((*it)[2].str(), nullptr, 16)), (*it)[1].str());
    }
    return statuses;
}

std::string fallback_of(zlk_error_t value)
{
    switch (value >> 28)
    {
    case 0xA:
        return "An error occurred in the zelkoria protocol.";
    case 0xB:
        return "The database operation failed.";
    case 0xC:
        return "An argument is invalid for this function call.";
    case 0xD:
        return "An error occurred in the network connection.";
    case 0xE:
        return "A system error occurred on local host.";
    case 0xF:
        return "A system error occurred on remote host.";
    default:
        return "An unknown error occurred.";
    }
}

constexpr std::uint32_t origins[] = {zlk::local_origin, zlk::remote_origin};

constexpr zlk_error_t internal_of(std::uint32_t origin)
{
    return origin == zlk::local_origin ? zlk_e_internal_local : zlk_e_internal_remote;
}
constexpr zlk_error_t system_of(std::uint32_t origin)
{
    return origin == zlk::local_origin ? zlk_e_system_local : zlk_e_system_remote;
}
constexpr zlk_error_t memory_of(std::uint32_t origin)
{
    return origin == zlk::local_origin ? zlk_e_no_memory_local : zlk_e_no_memory_remote;
}

// Stands for "the internal status of the origin" in the expected tables.
constexpr zlk_error_t internal = 1;

struct category_case
{
    const char * label;
    category_ref (*category)() noexcept;
    const char * name;
    const char * unknown_text;
    std::vector<zlk_error_t> statuses; // of the values 1, 2, ...
    zlk_error_t beyond;                // of the first value past the table
};

// clang-format off
const std::vector<category_case> & category_cases()
{
    static const std::vector<category_case> cases{
        {"client", client_category, "zlk client", "unknown client error",
         {zlk_e_internal_local, zlk_e_buffer_too_small, zlk_e_internal_local}, internal},
        {"serialization", zlk::serialization::serialization_category, "zlk serialization",
         "unknown serialization error", std::vector<zlk_error_t>(5, zlk_e_invalid_reply), zlk_e_invalid_reply},
        // A duplicate node id (11) is the caller's input, although it concerns the ring.
        {"chord", zlk::chord::chord_category, "zlk chord", "unknown chord error",
         {zlk_e_unstable_cluster, zlk_e_unstable_cluster, zlk_e_unstable_cluster, zlk_e_invalid_reply,
          zlk_e_internal_remote, zlk_e_not_implemented, zlk_e_internal_remote, zlk_e_unstable_cluster,
          zlk_e_internal_remote, zlk_e_internal_remote, zlk_e_invalid_argument, zlk_e_operation_disabled,
          zlk_e_internal_remote}, internal},
        // A delayed reply (6) is never a node's to report: a remote internal error whatever the origin.
        {"network", zlk::network::network_category, "zlk network", "unknown error",
         {zlk_e_timeout, zlk_e_connection_reset, zlk_e_connection_reset, zlk_e_invalid_reply,
          zlk_e_invalid_reply, zlk_e_internal_remote, 0xE2000046u, zlk_e_internal_remote}, 0xD2000047u},
        {"protocol", zlk::protocol::protocol_category, "zlk network", "unknown error",
         {zlk_e_version_mismatch, zlk_e_not_implemented, zlk_e_invalid_protocol, zlk_e_internal_remote}, internal},
        {"persistence", zlk::persistence::persistence_category, "zlk persistence", "unknown persistence error",
         {zlk_e_alias_not_found, zlk_e_internal_remote, zlk_e_not_implemented, zlk_e_invalid_argument,
          zlk_e_system_remote, zlk_e_internal_remote, zlk_e_try_again, zlk_e_timeout, zlk_e_internal_remote,
          zlk_e_internal_remote, zlk_e_quota_exceeded, zlk_e_alias_already_exists, zlk_e_internal_remote,
          zlk_e_entry_too_large, zlk_e_internal_remote}, internal},
        {"query", zlk::query::query_category, "zlk query", "unknown query error",
         {zlk_e_invalid_query, zlk_e_invalid_query, zlk_e_element_not_found, 0xC2000043u, internal}, internal},
        // Value 11, the prefix check, has no status of its own.
        {"kernel", zlk::kernel::kernel_category, "zlk kernel", "unknown kernel error",
         {zlk_e_alias_not_found, zlk_e_alias_already_exists, zlk_e_conflict, zlk_e_not_implemented,
          zlk_e_internal_remote, zlk_e_internal_remote, zlk_e_internal_remote, zlk_e_out_of_bounds,
          zlk_e_entry_locked, zlk_e_unmatched_content, internal, zlk_e_incompatible_type,
          zlk_e_container_empty, zlk_e_container_full, zlk_e_element_not_found, zlk_e_element_already_exists,
          zlk_e_overflow, zlk_e_underflow, zlk_e_tag_already_set, zlk_e_tag_not_set, zlk_e_entry_too_large,
          zlk_e_operation_disabled, zlk_e_invalid_protocol, zlk_e_clock_skew, zlk_e_access_denied,
          zlk_e_login_failed, zlk_e_column_not_found, 0xC2000044u, zlk_e_internal_remote}, internal},
        {"crypto", zlk::crypto::crypto_category, "zlk crypto", "unknown error",
         {zlk_e_invalid_crypto_key, zlk_e_login_failed, zlk_e_login_failed, internal}, internal},
    };
    return cases;
}
// clang-format on

zlk_error_t expected(zlk_error_t status, std::uint32_t origin)
{
    return status == internal ? internal_of(origin) : status;
}

// A category the translation knows nothing of, whose conditions are its own values except where a
// test maps one to a generic condition.
class foreign_category final : public boost::system::error_category
{
public:
    const char * name() const noexcept override { return "foreign"; }
    std::string message(int) const override { return "foreign"; }
    boost::system::error_condition default_error_condition(int value) const noexcept override
    {
        switch (value)
        {
        case 1000:
            return {EAGAIN, boost::system::generic_category()};
        case 1001:
            return {ECONNRESET, boost::system::generic_category()};
        default:
            return {value, *this};
        }
    }
};

const foreign_category foreign;

} // namespace

TEST(error_text, every_status_of_the_header_has_a_text_of_its_own)
{
    const auto statuses = all_statuses();
    ASSERT_GE(statuses.size(), 61u) << "the header was not read";

    std::set<std::string> seen;
    for (const auto & [value, name] : statuses)
    {
        const std::string text = zlk::status_text(value);
        for (zlk_error_t origin = 0; origin <= 0xF; ++origin)
        {
            EXPECT_NE(text, fallback_of(origin << 28)) << name;
        }
        EXPECT_TRUE(seen.insert(text).second) << name << " shares its text";
    }
    EXPECT_STREQ(zlk::status_text(zlk_e_ok), "The operation completed successfully.");
    EXPECT_STREQ(zlk::status_text(zlk_e_uninitialized), "Uninitialized error variable.");
    EXPECT_STREQ(zlk::status_text(zlk_e_system_remote), "A remote system error occurred");
    EXPECT_STREQ(zlk::status_text(zlk_e_invalid_iterator), "The iterator is invalid");
    EXPECT_STREQ(zlk::status_text(0xD2000047u), "A network error occurred.");
}

TEST(error_text, any_other_word_falls_to_the_text_of_its_origin)
{
    EXPECT_STREQ(zlk::status_text(0x12345678u), "An unknown error occurred.");
    EXPECT_STREQ(zlk::status_text(0x9FFFFFFFu), "An unknown error occurred.");
    EXPECT_STREQ(zlk::status_text(0xB1000000u), "The database operation failed.");
    EXPECT_STREQ(zlk::status_text(0xFFFFFFFFu), "A system error occurred on remote host.");

    // A known number under another origin or severity, with stray middle bits, or unassigned.
    const auto statuses = all_statuses();
    for (std::uint32_t high = 0; high <= 0xFF; ++high)
    {
        for (std::uint32_t number = 0; number <= 0x50; ++number)
        {
            for (std::uint32_t middle : {0x000000u, 0x010000u, 0x800000u})
            {
                const zlk_error_t value = (high << 24) | middle | number;
                if (statuses.count(value) == 0)
                {
                    ASSERT_EQ(zlk::status_text(value), fallback_of(value)) << std::hex << value;
                }
            }
        }
    }
    for (std::uint32_t number : {6u, 7u, 0xCu, 0xDu, 0x10u, 0x13u, 0x14u, 0x15u, 0x20u, 0x3Au, 0x3Fu})
    {
        for (const auto & [value, name] : statuses)
        {
            EXPECT_NE(value & 0xFFFFu, number) << name << " took an unassigned number";
        }
    }
}

TEST(error_text, only_success_and_informational_operation_results_pass_as_non_failures)
{
    std::set<zlk_error_t> passing;
    for (const auto & [value, name] : all_statuses())
    {
        if (ZLK_SUCCESS(value))
        {
            passing.insert(value);
        }
    }
    EXPECT_EQ(passing, (std::set<zlk_error_t>{zlk_e_ok, zlk_e_unmatched_content, zlk_e_element_not_found,
                                              zlk_e_element_already_exists, zlk_e_tag_already_set,
                                              zlk_e_tag_not_set, zlk_e_iterator_end, zlk_e_ok_created}));
    EXPECT_TRUE(ZLK_FAILURE(zlk_e_alias_not_found));
}

TEST(error_categories, each_is_one_identified_object_with_its_name_and_texts)
{
    std::set<const boost::system::error_category *> objects;
    for (const auto & c : category_cases())
    {
        SCOPED_TRACE(c.label);
        category_ref category = c.category();
        EXPECT_EQ(&category, &c.category());
        EXPECT_TRUE(objects.insert(&category).second);
        EXPECT_NE(dynamic_cast<const zlk::util::identified_error_category *>(&category), nullptr);
        EXPECT_STREQ(category.name(), c.name);

        char buffer[8];
        for (int value = 1; value <= static_cast<int>(c.statuses.size()); ++value)
        {
            const std::string text = category.message(value);
            EXPECT_FALSE(text.empty());
            EXPECT_STREQ(category.message(value, buffer, sizeof buffer), text.c_str());
        }
        const int past = static_cast<int>(c.statuses.size()) + 1;
        for (int value : {0, -1, past, 256 + 1, INT_MIN, INT_MAX})
        {
            EXPECT_EQ(category.message(value), c.unknown_text) << value;
            EXPECT_STREQ(category.message(value, buffer, sizeof buffer), c.unknown_text) << value;
        }
    }
    EXPECT_EQ(zlk::chord::chord_category().message(11), "a duplicate node id has been found on the ring");
    EXPECT_EQ(zlk::network::network_category().message(6), "the network reply has been deplayed");
}

TEST(error_categories, enums_make_codes_in_their_own_category)
{
    const boost::system::error_code kernel = zlk::kernel::error::clock_skew;
    EXPECT_EQ(kernel.category(), zlk::kernel::kernel_category());
    EXPECT_EQ(kernel.value(), 24);
    EXPECT_EQ(boost::system::error_code{client_error::buffer_too_small}.category(), client_category());
    EXPECT_EQ(boost::system::error_code{zlk::crypto::error::unknown}.value(), 4);
    EXPECT_EQ(boost::system::error_code{zlk::persistence::error::unknown}.value(), 15);
    EXPECT_TRUE(boost::system::error_code{zlk::query::error::malformed});
}

TEST(error_categories, json_serves_the_library_identifiers_101_to_114)
{
    category_ref json = zlk::json::json_category();
    EXPECT_STREQ(json.name(), "json");
    EXPECT_EQ(json.message(0), "No error");
    std::set<std::string> texts;
    for (int id = 101; id <= 114; ++id)
    {
        EXPECT_NE(json.message(id), "Unknown error code") << id;
        texts.insert(json.message(id));
    }
    EXPECT_EQ(texts.size(), 14u);
    for (int id : {1, 100, 115, 201, -101, INT_MIN, INT_MAX})
    {
        EXPECT_EQ(json.message(id), "Unknown error code") << id;
    }
}

TEST(make_error_from_code, each_category_table_translates_with_both_origins)
{
    for (const auto & c : category_cases())
    {
        for (std::uint32_t origin : origins)
        {
            SCOPED_TRACE(std::string{c.label} + (origin == zlk::local_origin ? " local" : " remote"));
            category_ref category = c.category();
            EXPECT_EQ(zlk::make_error_from_code(0, category, origin), zlk_e_ok);
            for (std::size_t i = 0; i < c.statuses.size(); ++i)
            {
                const int value = static_cast<int>(i) + 1;
                const zlk_error_t status = expected(c.statuses[i], origin);
                EXPECT_EQ(zlk::make_error_from_code(value, category, origin), status) << value;
                // Only the low 8 bits index the table.
                EXPECT_EQ(zlk::make_error_from_code(value + 0x300, category, origin), status) << value;
            }
            const int past = static_cast<int>(c.statuses.size()) + 1;
            if (c.category != zlk::crypto::crypto_category)
            {
                EXPECT_EQ(zlk::make_error_from_code(past, category, origin), expected(c.beyond, origin));
                EXPECT_EQ(zlk::make_error_from_code(256, category, origin), expected(c.beyond, origin));
                EXPECT_EQ(zlk::make_error_from_code(-1, category, origin), expected(c.beyond, origin));
            }
        }
    }
}

TEST(make_error_from_code, crypto_values_past_its_table_are_read_by_number)
{
    category_ref crypto = zlk::crypto::crypto_category();
    for (std::uint32_t origin : origins)
    {
        EXPECT_EQ(zlk::make_error_from_code(ECONNREFUSED, crypto, origin), zlk_e_connection_refused);
        EXPECT_EQ(zlk::make_error_from_code(ENOMEM, crypto, origin), memory_of(origin));
        EXPECT_EQ(zlk::make_error_from_code(EIO, crypto, origin), internal_of(origin));
        EXPECT_EQ(zlk::make_error_from_code(256 + 2, crypto, origin), zlk_e_login_failed);
    }
}

TEST(make_error_from_code, system_and_generic_codes_map_through_conditions_then_numbers)
{
    for (const auto * system : {&boost::system::system_category(), &boost::system::generic_category()})
    {
        category_ref category = *system;
        for (std::uint32_t origin : origins)
        {
            SCOPED_TRACE(category.name());
            const auto translate = [&](int value)
            { return zlk::make_error_from_code(value, category, origin); };
            EXPECT_EQ(translate(0), zlk_e_ok);
            EXPECT_EQ(translate(EPERM), zlk_e_host_not_found);
            EXPECT_EQ(translate(ENOENT), zlk_e_host_not_found);
            EXPECT_EQ(translate(ENOSPC), zlk_e_no_space_left);
            EXPECT_EQ(translate(ETIMEDOUT), zlk_e_timeout);
            EXPECT_EQ(translate(ECANCELED), zlk_e_timeout);
            EXPECT_EQ(translate(ENOSYS), zlk_e_not_implemented);
            EXPECT_EQ(translate(EOPNOTSUPP), zlk_e_not_implemented);
            EXPECT_EQ(translate(EINTR), 0xF2000045u);
            EXPECT_EQ(translate(ECONNRESET), zlk_e_connection_reset);
            EXPECT_EQ(translate(ENETRESET), zlk_e_connection_reset);
            EXPECT_EQ(translate(ENOTCONN), zlk_e_not_connected);
            EXPECT_EQ(translate(ECONNREFUSED), zlk_e_connection_refused);
            EXPECT_EQ(translate(ENOMEM), memory_of(origin));
            EXPECT_EQ(translate(EINVAL), zlk_e_invalid_argument);
            EXPECT_EQ(translate(EDOM), internal_of(origin));
            EXPECT_EQ(translate(EAGAIN), zlk_e_try_again);
            EXPECT_EQ(translate(ECONNABORTED), zlk_e_connection_reset);
            EXPECT_EQ(translate(EIO), system_of(origin));
            EXPECT_EQ(translate(100000), system_of(origin));
            EXPECT_EQ(translate(-1), system_of(origin));
            EXPECT_EQ(translate(INT_MIN), system_of(origin));
        }
    }
}

TEST(make_error_from_code, foreign_categories_are_read_by_number_then_by_condition)
{
    category_ref json = zlk::json::json_category();
    for (std::uint32_t origin : origins)
    {
        EXPECT_EQ(zlk::make_error_from_code(0, foreign, origin), zlk_e_ok);
        EXPECT_EQ(zlk::make_error_from_code(1, foreign, origin), zlk_e_host_not_found);
        EXPECT_EQ(zlk::make_error_from_code(2, json, origin), zlk_e_host_not_found);
        EXPECT_EQ(zlk::make_error_from_code(ENOTCONN, foreign, origin), zlk_e_not_connected);
        EXPECT_EQ(zlk::make_error_from_code(ETIMEDOUT, json, origin), zlk_e_timeout);
        EXPECT_EQ(zlk::make_error_from_code(EINVAL, foreign, origin), zlk_e_invalid_argument);
        EXPECT_EQ(zlk::make_error_from_code(1000, foreign, origin), zlk_e_try_again);
        // A connection condition only counts as a plain number, not as a mapped condition.
        EXPECT_EQ(zlk::make_error_from_code(1001, foreign, origin), internal_of(origin));
        // Unlike the system's, a foreign failure without a match is internal.
        EXPECT_EQ(zlk::make_error_from_code(EIO, foreign, origin), internal_of(origin));
        EXPECT_EQ(zlk::make_error_from_code(ENOSPC, json, origin), internal_of(origin));
        EXPECT_EQ(zlk::make_error_from_code(INT_MIN, foreign, origin), internal_of(origin));
    }
}

TEST(make_error_from_code, errno_is_set_only_by_unmatched_system_codes_and_persistence_io_errors)
{
    const auto errno_after = [](int value, category_ref category)
    {
        errno = 0;
        zlk::make_error_from_code(value, category, zlk::remote_origin);
        return errno;
    };
    EXPECT_EQ(errno_after(EIO, boost::system::system_category()), EIO);
    EXPECT_EQ(errno_after(EPERM, boost::system::generic_category()), EPERM);
    EXPECT_EQ(errno_after(ENOMEM, boost::system::system_category()), ENOMEM);
    EXPECT_EQ(errno_after(ENOSPC, boost::system::system_category()), 0);
    EXPECT_EQ(errno_after(EINTR, boost::system::generic_category()), 0);
    EXPECT_EQ(errno_after(0, boost::system::system_category()), 0);

    EXPECT_EQ(errno_after(static_cast<int>(zlk::persistence::error::io_error),
                          zlk::persistence::persistence_category()),
              EIO);
    EXPECT_EQ(errno_after(static_cast<int>(zlk::persistence::error::busy),
                          zlk::persistence::persistence_category()),
              0);
    EXPECT_EQ(errno_after(EIO, foreign), 0);
    EXPECT_EQ(errno_after(EIO, zlk::kernel::kernel_category()), 0);
}

namespace
{

std::mutex logged_mutex;
std::vector<std::pair<zlk_log_level_t, std::string>> logged;

void capture(zlk_log_level_t level, const uint64_t *, uint64_t, uint64_t, const char * message, size_t size)
{
    const std::lock_guard lock{logged_mutex};
    logged.emplace_back(level, std::string{message, size});
}

} // namespace

TEST(make_error_from_code, a_delayed_network_error_from_a_node_is_logged_as_an_error)
{
    zlk::log::start_logger(zlk::log::level::detailed, std::chrono::hours{1});
    const auto sink = zlk::log::add_callback(capture);
    ASSERT_TRUE(sink.has_value());

    EXPECT_EQ(zlk::make_error_from_code(zlk::network::error::delayed, zlk::remote_origin),
              zlk_e_internal_remote);
    EXPECT_EQ(zlk::make_error_from_code(zlk::network::error::reset, zlk::remote_origin),
              zlk_e_connection_reset);
    zlk::log::flush();
    zlk::log::remove_callback(*sink);
    zlk::log::stop_logger();

    // The logger has lines of its own; the translation adds exactly one.
    const std::string delayed = "received a network delayed error from the remote that we should not have";
    const std::lock_guard lock{logged_mutex};
    std::vector<zlk_log_level_t> levels;
    for (const auto & [level, message] : logged)
    {
        if (message.find(delayed) != std::string::npos)
        {
            levels.push_back(level);
        }
    }
    EXPECT_EQ(levels, std::vector<zlk_log_level_t>{zlk_log_error});
}
