// What the network tests share: frames for the scripted peer, and the log lines, captured through a
// log callback.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "log/logger.hpp"
#include "scripted_peer.hpp"
#include "wire/frame.hpp"
#include "wire/scatter.hpp"

namespace zlk::network::testing
{

inline bytes encode(const protocol::message & m)
{
    serialization::small_scatter<8> scatter;
    std::vector<std::uint8_t> scratch;
    protocol::encode_frame(m, scatter, scratch);
    bytes out;
    serialization::flatten_into(scatter, out);
    return out;
}

// A reply that ends an exchange: a result carrying value (and content, viewed, not owned).
inline bytes result_frame(std::uint64_t value, std::span<const std::uint8_t> content = {})
{
    protocol::result r;
    r.value = value;
    if (!content.empty())
    {
        r.content.push_back(content);
    }
    return encode(protocol::message{std::move(r)});
}

inline bytes ping_frame()
{
    return encode(protocol::message{chord::chord_request_ping{}});
}

// The 12-byte head of a frame: magic, version, body size.
inline bytes frame_head(std::uint16_t version, std::uint64_t body_size)
{
    bytes head(12);
    head[0] = 0x51;
    head[1] = 0x7E;
    head[2] = static_cast<std::uint8_t>(version);
    head[3] = static_cast<std::uint8_t>(version >> 8);
    std::memcpy(head.data() + 4, &body_size, sizeof body_size);
    return head;
}

// Log lines, kept from the moment of the last take().
class log_lines
{
public:
    static void callback(zlk_log_level_t, const std::uint64_t *, std::uint64_t, std::uint64_t,
                         const char * text, std::size_t size)
    {
        std::lock_guard lock(mutex());
        lines().emplace_back(text, size);
    }

    // Everything logged until now; the capture starts afresh.
    static std::vector<std::string> take()
    {
        log::flush();
        std::lock_guard lock(mutex());
        return std::exchange(lines(), {});
    }

private:
    static std::mutex & mutex()
    {
        static std::mutex m;
        return m;
    }
    static std::vector<std::string> & lines()
    {
        static std::vector<std::string> l;
        return l;
    }
};

inline bool contains_line(const std::vector<std::string> & lines, std::string_view part)
{
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string & l) { return l.find(part) != std::string::npos; });
}

// Starts the logger at its lowest level, with the capture as a sink, for the whole test program.
class logging_environment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        log::start_logger(log::level::detailed, std::chrono::hours(1));
        log::add_callback(&log_lines::callback);
    }
    void TearDown() override { log::stop_logger(); }
};

} // namespace zlk::network::testing
