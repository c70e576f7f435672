// A node's configuration as the library shows it: one class per section, each writing its keys in a
// fixed order, read from and written to JSON. Reading refuses a value of the wrong kind and names the
// key it failed at ("At key 'cluster': At key 'replication_factor': ...").
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace zlk::config
{

using json = nlohmann::ordered_json;

// A document that doesn't have the configuration's form.
class config_error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

#define ZLK_CONFIG_SECURITY(X)                                                                               \
    X(bool, enable_stop)                                                                                     \
    X(bool, enable_purge_all)                                                                                \
    X(bool, enabled)                                                                                         \
    X(bool, encrypt_traffic)                                                                                 \
    X(std::string, cluster_private_file)                                                                     \
    X(std::string, user_list)

#define ZLK_CONFIG_CLUSTER(X)                                                                                \
    X(std::string, storage_engine)                                                                           \
    X(bool, enable_statistics)                                                                               \
    X(std::uint64_t, statistics_refresh_interval)                                                            \
    X(std::uint64_t, replication_factor)                                                                     \
    X(std::uint64_t, max_versions)                                                                           \
    X(std::uint64_t, max_transaction_duration)                                                               \
    X(std::uint64_t, acl_cache_duration)                                                                     \
    X(std::uint64_t, acl_cache_size)                                                                         \
    X(std::string, persisted_firehose)                                                                       \
    X(bool, enable_replication)

#define ZLK_CONFIG_CHORD(X)                                                                                  \
    X(std::string, node_id)                                                                                  \
    X(bool, no_stabilization)                                                                                \
    X(std::vector<std::string>, bootstrapping_peers)                                                         \
    X(std::uint64_t, min_stabilization_interval)                                                             \
    X(std::uint64_t, max_stabilization_interval)                                                             \
    X(bool, sync_before_join)

#define ZLK_CONFIG_NETWORK(X)                                                                                \
    X(std::uint64_t, server_sessions)                                                                        \
    X(std::uint64_t, partitions_count)                                                                       \
    X(std::uint64_t, hi_partitions_count)                                                                    \
    X(std::uint64_t, idle_timeout)                                                                           \
    X(std::uint64_t, client_timeout)                                                                         \
    X(std::uint64_t, max_in_buffer_size)                                                                     \
    X(std::uint64_t, max_out_buffer_size)                                                                    \
    X(std::string, listen_on)                                                                                \
    X(std::string, advertise_as)                                                                             \
    X(bool, profile_performance)

#define ZLK_CONFIG_LOGGER(X)                                                                                 \
    X(std::uint64_t, log_level)                                                                              \
    X(std::uint64_t, flush_interval)                                                                         \
    X(std::string, log_directory)                                                                            \
    X(bool, log_to_console)                                                                                  \
    X(bool, log_to_syslog)

#define ZLK_CONFIG_LIMITER(X)                                                                                \
    X(std::uint64_t, max_bytes_soft)                                                                         \
    X(std::uint64_t, max_bytes_hard)                                                                         \
    X(std::uint64_t, max_trim_queue_length)

#define ZLK_CONFIG_USER(X) X(bool, daemon)

#define ZLK_CONFIG_ROCKSDB(X)                                                                                \
    X(bool, sync_every_write)                                                                                \
    X(std::string, root)                                                                                     \
    X(std::uint64_t, max_bytes)                                                                              \
    X(std::uint64_t, storage_warning_level)                                                                  \
    X(std::uint64_t, storage_warning_interval)                                                               \
    X(bool, disable_wal)                                                                                     \
    X(bool, direct_read)                                                                                     \
    X(bool, direct_write)                                                                                    \
    X(std::uint64_t, max_total_wal_size)                                                                     \
    X(std::uint64_t, data_cache)                                                                             \
    X(std::uint64_t, threads)                                                                                \
    X(std::uint64_t, hi_threads)                                                                             \
    X(std::uint64_t, max_open_files)                                                                         \
    X(std::string, persistent_cache_path)                                                                    \
    X(std::uint64_t, persistent_cache_size)                                                                  \
    X(bool, persistent_cache_nvme_optimization)                                                              \
    X(bool, paranoid_file_checks)

#define ZLK_CONFIG_ASYNC_TS(X)                                                                               \
    X(std::uint64_t, pipelines)                                                                              \
    X(std::uint64_t, pipeline_buffer_size)                                                                   \
    X(std::uint64_t, pipeline_queue_length)                                                                  \
    X(std::uint64_t, flush_deadline)

#define ZLK_CONFIG_DEPOT(X)                                                                                  \
    X(::zlk::config::rocksdb, rocksdb)                                                                       \
    X(::zlk::config::async_ts, async_ts)

#define ZLK_CONFIG_GLOBAL(X)                                                                                 \
    X(::zlk::config::security, security)                                                                     \
    X(::zlk::config::cluster, cluster)

#define ZLK_CONFIG_LOCAL(X)                                                                                  \
    X(::zlk::config::chord, chord)                                                                           \
    X(::zlk::config::network, network)                                                                       \
    X(::zlk::config::logger, logger)                                                                         \
    X(::zlk::config::limiter, limiter)                                                                       \
    X(::zlk::config::user, user)                                                                             \
    X(::zlk::config::depot, depot)

#define ZLK_CONFIG_FIELD(type, name) type name{};
#define ZLK_CONFIG_CLASS(class_name, LIST)                                                                   \
    struct class_name                                                                                        \
    {                                                                                                        \
        LIST(ZLK_CONFIG_FIELD)                                                                               \
    };                                                                                                       \
    void to_json(json & j, const class_name & v);                                                            \
    void from_json(const json & j, class_name & v);

ZLK_CONFIG_CLASS(security, ZLK_CONFIG_SECURITY)
ZLK_CONFIG_CLASS(cluster, ZLK_CONFIG_CLUSTER)
ZLK_CONFIG_CLASS(chord, ZLK_CONFIG_CHORD)
ZLK_CONFIG_CLASS(network, ZLK_CONFIG_NETWORK)
ZLK_CONFIG_CLASS(logger, ZLK_CONFIG_LOGGER)
ZLK_CONFIG_CLASS(limiter, ZLK_CONFIG_LIMITER)
ZLK_CONFIG_CLASS(user, ZLK_CONFIG_USER)
ZLK_CONFIG_CLASS(rocksdb, ZLK_CONFIG_ROCKSDB)
ZLK_CONFIG_CLASS(async_ts, ZLK_CONFIG_ASYNC_TS)
ZLK_CONFIG_CLASS(depot, ZLK_CONFIG_DEPOT)
ZLK_CONFIG_CLASS(global, ZLK_CONFIG_GLOBAL)
ZLK_CONFIG_CLASS(local, ZLK_CONFIG_LOCAL)

#undef ZLK_CONFIG_CLASS
#undef ZLK_CONFIG_FIELD

// The whole document: {"global": ..., "local": ...}.
struct node_configuration
{
    ::zlk::config::global global;
    ::zlk::config::local local;
};

void to_json(json & j, const node_configuration & v);
void from_json(const json & j, node_configuration & v);

// Parses and reads a document; a text that isn't JSON fails with "At line {}, column {}: ...", a value
// of the wrong kind or a missing key with "At key '...': ...". Throws config_error.
node_configuration parse_configuration(std::string_view text);

} // namespace zlk::config
