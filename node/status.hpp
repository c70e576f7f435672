// The documents a node gives about itself: the status record (operation node_status), the
// configuration (chord_request_config) and its place on the ring. All are JSON; docs/protocol.md
// tells their keys.
#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <string>

#include "wire/node_info.hpp"

namespace zlk::node
{

class node_state;

// Readings of this machine. A reading that can't be taken is 0 (or empty text).
struct host_readings
{
    // Bytes. Physical memory from MemTotal and MemAvailable; virtual memory adds swap.
    std::uint64_t physmem_total = 0;
    std::uint64_t physmem_used = 0;
    std::uint64_t vm_total = 0;
    std::uint64_t vm_used = 0;
    // Milliseconds of CPU time since boot, all processors together.
    std::uint64_t cpu_idle = 0;
    std::uint64_t cpu_system = 0;
    std::uint64_t cpu_user = 0;
    // Bytes on the file system of the directory: free to an unprivileged user, and in all.
    std::uint64_t disk_free = 0;
    std::uint64_t disk_total = 0;
    // "sysname release machine", from uname.
    std::string operating_system;
    unsigned hardware_concurrency = 0;
};

host_readings read_host(const std::string & directory);

// UTC, ISO 8601 with milliseconds: "2024-05-01T12:00:00.000Z".
std::string format_time(std::chrono::system_clock::time_point t);

nlohmann::ordered_json status_document(const node_state & node);
// {"global": {security, cluster}, "local": {chord, network, logger, limiter, user, depot}}.
nlohmann::ordered_json config_document(const node_state & node);
// {"predecessor", "center", "successor"}, each {"id", "endpoint"}.
nlohmann::ordered_json topology_document(const chord::arc & a);

} // namespace zlk::node
