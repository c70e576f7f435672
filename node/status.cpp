#include "node/status.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <thread>

#include "node/address.hpp"
#include "node/node_state.hpp"

#ifndef ZLK_NODE_VERSION
#define ZLK_NODE_VERSION "0.0.0"
#endif
#ifndef ZLK_NODE_BUILD_DATE
#define ZLK_NODE_BUILD_DATE "1970-01-01T00:00:00Z"
#endif

namespace zlk::node
{

using json = nlohmann::ordered_json;

namespace
{

void read_meminfo(host_readings & h)
{
    std::ifstream in("/proc/meminfo");
    std::uint64_t total = 0, available = 0, swap_total = 0, swap_free = 0;
    std::string key;
    std::uint64_t kib = 0;
    std::string unit;
    while (in >> key >> kib)
    {
        std::getline(in, unit);
        if (key == "MemTotal:")
        {
            total = kib;
        }
        else if (key == "MemAvailable:")
        {
            available = kib;
        }
        else if (key == "SwapTotal:")
        {
            swap_total = kib;
        }
        else if (key == "SwapFree:")
        {
            swap_free = kib;
        }
    }
    const std::uint64_t used = total >= available ? total - available : 0;
    const std::uint64_t swap_used = swap_total >= swap_free ? swap_total - swap_free : 0;
    h.physmem_total = total * 1024;
    h.physmem_used = used * 1024;
    h.vm_total = (total + swap_total) * 1024;
    h.vm_used = (used + swap_used) * 1024;
}

void read_cpu_times(host_readings & h)
{
    std::ifstream in("/proc/stat");
    std::string label;
    std::uint64_t user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0;
    if (!(in >> label >> user >> nice >> system >> idle >> iowait >> irq >> softirq) || label != "cpu")
    {
        return;
    }
    const long ticks = ::sysconf(_SC_CLK_TCK);
    if (ticks <= 0)
    {
        return;
    }
    const auto ms = [ticks](std::uint64_t t) { return t * 1000 / static_cast<std::uint64_t>(ticks); };
    h.cpu_user = ms(user + nice);
    h.cpu_system = ms(system + irq + softirq);
    h.cpu_idle = ms(idle + iowait);
}

void read_disk(host_readings & h, const std::string & directory)
{
    struct statvfs fs = {};
    if (::statvfs(directory.c_str(), &fs) != 0)
    {
        return;
    }
    h.disk_free = static_cast<std::uint64_t>(fs.f_bavail) * fs.f_frsize;
    h.disk_total = static_cast<std::uint64_t>(fs.f_blocks) * fs.f_frsize;
}

json used_total(std::uint64_t used, std::uint64_t total)
{
    json j;
    j["used"] = used;
    j["total"] = total;
    return j;
}

json count_size(std::uint64_t count, std::uint64_t size)
{
    json j;
    j["count"] = count;
    j["size"] = size;
    return j;
}

json node_text(const chord::node_info & n)
{
    json j;
    j["id"] = chord::to_string(n.id);
    j["endpoint"] = endpoint_text(n.endpoint);
    return j;
}

} // namespace

host_readings read_host(const std::string & directory)
{
    host_readings h;
    read_meminfo(h);
    read_cpu_times(h);
    read_disk(h, directory);
    struct utsname name = {};
    if (::uname(&name) == 0)
    {
        h.operating_system = fmt::format("{} {} {}", name.sysname, name.release, name.machine);
    }
    h.hardware_concurrency = std::thread::hardware_concurrency();
    return h;
}

std::string format_time(std::chrono::system_clock::time_point t)
{
    const auto since_epoch = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since_epoch);
    const std::tm utc = fmt::gmtime(static_cast<std::time_t>(seconds.count()));
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", utc, (since_epoch - seconds).count());
}

json status_document(const node_state & node)
{
    const node_settings & s = node.settings();
    const host_readings h = read_host(s.working_directory);
    const node_counters c = node.counters();
    const std::uint32_t open = node.open_connections.load(std::memory_order_relaxed);

    json doc;
    doc["memory"]["vm"] = used_total(h.vm_used, h.vm_total);
    doc["memory"]["physmem"] = used_total(h.physmem_used, h.physmem_total);
    doc["cpu_times"]["idle"] = h.cpu_idle;
    doc["cpu_times"]["system"] = h.cpu_system;
    doc["cpu_times"]["user"] = h.cpu_user;
    doc["disk_usage"]["free"] = h.disk_free;
    doc["disk_usage"]["total"] = h.disk_total;
    json & network = doc["network"];
    network["listening_endpoint"] = endpoint_text(node.self().endpoint);
    network["logged_users"] = json::array();
    network["partitions"]["count"] = s.threads;
    network["partitions"]["max_sessions"] = s.server_sessions;
    network["partitions"]["available_sessions"] = open < s.server_sessions ? s.server_sessions - open : 0;
    doc["node_id"] = chord::to_string(node.self().id);
    doc["operating_system"] = h.operating_system;
    doc["hardware_concurrency"] = h.hardware_concurrency;
    doc["timestamp"] = format_time(std::chrono::system_clock::now());
    doc["startup"] = format_time(node.startup());
    doc["engine_version"] = ZLK_NODE_VERSION;
    doc["engine_build_date"] = ZLK_NODE_BUILD_DATE;
    // No store yet: the node keeps no entries.
    doc["entries"]["resident"] = count_size(0, 0);
    doc["entries"]["persisted"] = count_size(0, 0);
    json & overall = doc["overall"];
    overall["count"] = c.count;
    overall["successes"] = c.successes;
    overall["failures"] = c.failures;
    overall["pageins"] = 0;
    overall["evictions"] = 0;
    overall["in_bytes"] = c.in_bytes;
    overall["out_bytes"] = c.out_bytes;
    doc["users"] = json::array();
    return doc;
}

json config_document(const node_state & node)
{
    const node_settings & s = node.settings();
    const auto ring = node.ring();

    json security;
    security["enable_stop"] = s.enable_stop;
    security["enable_purge_all"] = s.enable_purge_all;
    security["enabled"] = false;
    security["encrypt_traffic"] = false;
    security["cluster_private_file"] = "";
    security["user_list"] = "";

    json cluster;
    cluster["storage_engine"] = "transient";
    cluster["enable_statistics"] = false;
    cluster["statistics_refresh_interval"] = 60000;
    cluster["replication_factor"] = s.replication_factor;
    cluster["max_versions"] = 3;
    cluster["max_transaction_duration"] = 15000;
    cluster["acl_cache_duration"] = 30000;
    cluster["acl_cache_size"] = 100000;
    cluster["persisted_firehose"] = "";
    cluster["enable_replication"] = s.replication_factor > 1;

    json chord_section;
    chord_section["node_id"] = chord::to_string(node.self().id);
    chord_section["no_stabilization"] = true;
    json peers = json::array();
    for (const chord::node_info & member : ring->members())
    {
        if (member.id != node.self().id)
        {
            peers.push_back(
                fmt::format("{}@{}", chord::to_string(member.id), endpoint_text(member.endpoint)));
        }
    }
    chord_section["bootstrapping_peers"] = std::move(peers);
    chord_section["min_stabilization_interval"] = 100;
    chord_section["max_stabilization_interval"] = 60000;
    chord_section["sync_before_join"] = false;

    json network;
    network["server_sessions"] = s.server_sessions;
    network["partitions_count"] = s.threads;
    network["hi_partitions_count"] = 0;
    network["idle_timeout"] = 600000;
    network["client_timeout"] = 60000;
    network["max_in_buffer_size"] = s.max_in_buffer_size;
    network["max_out_buffer_size"] = s.max_in_buffer_size;
    network["listen_on"] = endpoint_text(s.listen);
    network["advertise_as"] = endpoint_text(node.self().endpoint);
    network["profile_performance"] = s.profile_performance;

    json logger;
    logger["log_level"] = static_cast<int>(s.log_level);
    logger["flush_interval"] = 3000;
    logger["log_directory"] = "";
    logger["log_to_console"] = true;
    logger["log_to_syslog"] = false;

    json limiter;
    limiter["max_bytes_soft"] = 0;
    limiter["max_bytes_hard"] = 0;
    limiter["max_trim_queue_length"] = 10000000;

    json user;
    user["daemon"] = false;

    json rocksdb;
    rocksdb["sync_every_write"] = false;
    rocksdb["root"] = s.working_directory;
    rocksdb["max_bytes"] = 0;
    rocksdb["storage_warning_level"] = 90;
    rocksdb["storage_warning_interval"] = 3600000;
    rocksdb["disable_wal"] = false;
    rocksdb["direct_read"] = false;
    rocksdb["direct_write"] = false;
    rocksdb["max_total_wal_size"] = 1073741824;
    rocksdb["data_cache"] = 134217728;
    rocksdb["threads"] = s.threads;
    rocksdb["hi_threads"] = s.threads;
    rocksdb["max_open_files"] = 60000;
    rocksdb["persistent_cache_path"] = "";
    rocksdb["persistent_cache_size"] = 0;
    rocksdb["persistent_cache_nvme_optimization"] = false;
    rocksdb["paranoid_file_checks"] = false;
    json async_ts;
    async_ts["pipelines"] = 1;
    async_ts["pipeline_buffer_size"] = 67108864;
    async_ts["pipeline_queue_length"] = 1000000;
    async_ts["flush_deadline"] = 4000;
    json depot;
    depot["rocksdb"] = std::move(rocksdb);
    depot["async_ts"] = std::move(async_ts);

    json doc;
    doc["global"]["security"] = std::move(security);
    doc["global"]["cluster"] = std::move(cluster);
    doc["local"]["chord"] = std::move(chord_section);
    doc["local"]["network"] = std::move(network);
    doc["local"]["logger"] = std::move(logger);
    doc["local"]["limiter"] = std::move(limiter);
    doc["local"]["user"] = std::move(user);
    doc["local"]["depot"] = std::move(depot);
    return doc;
}

json topology_document(const chord::arc & a)
{
    json doc;
    doc["predecessor"] = node_text(a.predecessor);
    doc["center"] = node_text(a.node);
    doc["successor"] = node_text(a.successor);
    return doc;
}

} // namespace zlk::node
