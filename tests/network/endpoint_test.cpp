#include <gtest/gtest.h>

#include <cerrno>

#include "network/binary_size.hpp"
#include "network/endpoint.hpp"
#include "network_test_support.hpp"

namespace zlk::network
{
namespace
{

using testing::contains_line;
using testing::log_lines;

const ::testing::Environment * const logging =
    ::testing::AddGlobalTestEnvironment(new testing::logging_environment);

endpoint ep(const char * address, std::uint16_t port)
{
    return endpoint(asio::ip::make_address(address), port);
}

bool is_einval(const boost::system::error_code & ec)
{
    return ec == boost::system::errc::invalid_argument;
}

TEST(parse_uri, refuses_text_that_is_not_a_list_of_addresses_and_logs_it)
{
    const char * const refused[] = {
        "",
        "ZLK://127.0.0.1:7000", // the scheme is case-sensitive
        "http://127.0.0.1:7000",
        "zlk://",                // nothing behind the scheme
        "zlk://127.0.0.1",       // missing port
        "zlk://127.0.0.1:",      // empty port
        "zlk://127.0.0.1:70a0",  // non-numeric port
        "zlk://127.0.0.1:65536", // above 16 bits
        "zlk://127.0.0.1:-1",
        "zlk://127.0.0.1:7000,", // trailing comma
        "zlk://127.0.0.1:7000,,127.0.0.1:7001",
        "zlk://:7000",     // empty host
        "zlk://::1:7000",  // a v6 address needs its brackets
        "zlk://[::1]7000", // ']' must be followed by ':'
        "zlk://[::1:7000", // unclosed bracket
    };
    for (const char * text : refused)
    {
        log_lines::take();
        const auto [ec, endpoints] = parse_uri(text);
        EXPECT_TRUE(is_einval(ec)) << text;
        EXPECT_TRUE(endpoints.empty()) << text;
        EXPECT_TRUE(contains_line(log_lines::take(), std::string("could not parse uri string ") + text))
            << text;
    }

    const auto [ec, endpoints] = parse_uri(nullptr);
    EXPECT_TRUE(is_einval(ec));
    EXPECT_TRUE(endpoints.empty());
}

TEST(parse_uri, reads_each_address_into_an_ordered_set_without_duplicates)
{
    {
        const auto [ec, endpoints] = parse_uri("zlk://127.0.0.1:7000");
        ASSERT_FALSE(ec);
        EXPECT_EQ(endpoints, endpoint_set{ep("127.0.0.1", 7000)});
    }
    {
        const auto [ec, endpoints] = parse_uri("zlk://127.0.0.1:7000,127.0.0.1:7000");
        ASSERT_FALSE(ec);
        EXPECT_EQ(endpoints.size(), 1u);
    }
    {
        const auto [ec, endpoints] = parse_uri("zlk://[::1]:7000,10.0.0.1:7000");
        ASSERT_FALSE(ec);
        EXPECT_EQ(endpoints, (endpoint_set{ep("::1", 7000), ep("10.0.0.1", 7000)}));
    }
    {
        // Port boundaries, leading zeros, and a name resolved from the hosts file.
        const auto [ec, endpoints] = parse_uri("zlk://127.0.0.1:0,127.0.0.2:65535,127.0.0.3:007,localhost:9");
        ASSERT_FALSE(ec);
        EXPECT_TRUE(endpoints.contains(ep("127.0.0.1", 0)));
        EXPECT_TRUE(endpoints.contains(ep("127.0.0.2", 65535)));
        EXPECT_TRUE(endpoints.contains(ep("127.0.0.3", 7)));
        EXPECT_EQ(endpoints.size(), 4u);
    }
}

TEST(parse_uri, skips_and_logs_an_address_that_does_not_resolve)
{
    log_lines::take();
    // Not a valid host name: the resolver refuses it without asking any server.
    const auto [ec, endpoints] = parse_uri("zlk://bad!host:7000,127.0.0.1:7001");
    ASSERT_FALSE(ec);
    EXPECT_EQ(endpoints, endpoint_set{ep("127.0.0.1", 7001)});
    EXPECT_TRUE(contains_line(log_lines::take(), "could not resolve bad!host:7000: "));

    // Nothing resolved is still a parsed list: what an empty set means is the caller's decision.
    const auto [ec2, none] = parse_uri("zlk://bad!host:7000");
    EXPECT_FALSE(ec2);
    EXPECT_TRUE(none.empty());
}

TEST(resolve_endpoint, uses_literal_addresses_as_they_are_and_refuses_an_empty_host)
{
    endpoint out;
    ASSERT_FALSE(resolve_endpoint("::ffff:1.2.3.4", 80, out));
    EXPECT_TRUE(out.address().is_v6());
    EXPECT_EQ(out.port(), 80);

    EXPECT_TRUE(is_einval(resolve_endpoint("", 80, out)));
    EXPECT_TRUE(resolve_endpoint("bad!host", 80, out));
}

TEST(resolve_uri, takes_exactly_one_address_and_logs_failures)
{
    endpoint out;
    ASSERT_FALSE(resolve_uri("zlk://[::1]:2836", out));
    EXPECT_EQ(out, ep("::1", 2836));

    log_lines::take();
    EXPECT_TRUE(is_einval(resolve_uri("zlk://127.0.0.1:1,127.0.0.1:2", out)));
    EXPECT_TRUE(contains_line(log_lines::take(), "could not resolve uri zlk://127.0.0.1:1,127.0.0.1:2: "));
    EXPECT_TRUE(resolve_uri("zlk://bad!host:1", out));
    EXPECT_TRUE(contains_line(log_lines::take(), "could not resolve uri zlk://bad!host:1: "));
    EXPECT_TRUE(is_einval(resolve_uri(nullptr, out)));
}

TEST(format_endpoint, brackets_v6_addresses_only)
{
    EXPECT_EQ(format_endpoint(ep("127.0.0.1", 7000)), "127.0.0.1:7000");
    EXPECT_EQ(format_endpoint(ep("::1", 7000)), "[::1]:7000");
    EXPECT_EQ(format_endpoint(ep("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 65535)),
              "[ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff]:65535");
    EXPECT_EQ(fmt::format("{}", ep("10.0.0.1", 1)), "10.0.0.1:1");
}

TEST(binary_size, prints_whole_units_plainly_and_others_with_one_decimal)
{
    EXPECT_EQ(fmt::format("{}", binary_size{0}), "0 B");
    EXPECT_EQ(fmt::format("{}", binary_size{1023}), "1023 B");
    EXPECT_EQ(fmt::format("{}", binary_size{1024}), "1 KiB");
    EXPECT_EQ(fmt::format("{}", binary_size{1536}), "1.5 KiB");
    EXPECT_EQ(fmt::format("{}", binary_size{1025}), "1.0 KiB");
    EXPECT_EQ(fmt::format("{}", binary_size{2047}), "2.0 KiB");
    EXPECT_EQ(fmt::format("{}", binary_size{0x10000000}), "256 MiB");
    EXPECT_EQ(fmt::format("{}", binary_size{UINT64_MAX}), "16.0 EiB");
}

} // namespace
} // namespace zlk::network
