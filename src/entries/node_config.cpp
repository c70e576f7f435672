#include "entries/node_config.hpp"

#include <fmt/format.h>

namespace zlk::config
{

namespace
{

template <typename T>
void read_key(const json & j, const char * key, T & out)
{
    try
    {
        if (!j.is_object())
        {
            throw config_error(fmt::format("type must be object, but is {}", j.type_name()));
        }
        const auto it = j.find(key);
        if (it == j.end())
        {
            throw config_error("missing key");
        }
        it->get_to(out);
    }
    catch (const json::exception & e)
    {
        // Drop nlohmann's "[json.exception.type_error.302] " prefix: the sentence is what tells.
        std::string_view what = e.what();
        const auto close = what.find("] ");
        if (close != std::string_view::npos)
        {
            what.remove_prefix(close + 2);
        }
        throw config_error(fmt::format("At key '{}': {}", key, what));
    }
    catch (const config_error & e)
    {
        throw config_error(fmt::format("At key '{}': {}", key, e.what()));
    }
}

} // namespace

#define ZLK_CONFIG_WRITE(type, name) j[#name] = v.name;
#define ZLK_CONFIG_READ(type, name) read_key(j, #name, v.name);
#define ZLK_CONFIG_IMPL(class_name, LIST)                                                                    \
    void to_json(json & j, const class_name & v)                                                             \
    {                                                                                                        \
        j = json::object();                                                                                  \
        LIST(ZLK_CONFIG_WRITE)                                                                               \
    }                                                                                                        \
    void from_json(const json & j, class_name & v)                                                           \
    {                                                                                                        \
        LIST(ZLK_CONFIG_READ)                                                                                \
    }

ZLK_CONFIG_IMPL(security, ZLK_CONFIG_SECURITY)
ZLK_CONFIG_IMPL(cluster, ZLK_CONFIG_CLUSTER)
ZLK_CONFIG_IMPL(chord, ZLK_CONFIG_CHORD)
ZLK_CONFIG_IMPL(network, ZLK_CONFIG_NETWORK)
ZLK_CONFIG_IMPL(logger, ZLK_CONFIG_LOGGER)
ZLK_CONFIG_IMPL(limiter, ZLK_CONFIG_LIMITER)
ZLK_CONFIG_IMPL(user, ZLK_CONFIG_USER)
ZLK_CONFIG_IMPL(rocksdb, ZLK_CONFIG_ROCKSDB)
ZLK_CONFIG_IMPL(async_ts, ZLK_CONFIG_ASYNC_TS)
ZLK_CONFIG_IMPL(depot, ZLK_CONFIG_DEPOT)
ZLK_CONFIG_IMPL(global, ZLK_CONFIG_GLOBAL)
ZLK_CONFIG_IMPL(local, ZLK_CONFIG_LOCAL)

void to_json(json & j, const node_configuration & v)
{
    j = json::object();
    j["global"] = v.global;
    j["local"] = v.local;
}

void from_json(const json & j, node_configuration & v)
{
    read_key(j, "global", v.global);
    read_key(j, "local", v.local);
}

node_configuration parse_configuration(std::string_view text)
{
    json j;
    try
    {
        j = json::parse(text);
    }
    catch (const json::parse_error & e)
    {
        // byte counts from 1; a one-line document is what a node sends.
        throw config_error(fmt::format("At line 1, column {}: {}", e.byte, e.what()));
    }
    return j.get<node_configuration>();
}

} // namespace zlk::config
