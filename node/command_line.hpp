// zlkd's command line, read into the settings of the nodes to run. zlkd --help prints usage_text().
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "log/logger.hpp"
#include "node/node_settings.hpp"

namespace zlk::node
{

struct zlkd_options
{
    // One node, or the nodes of --cluster, in the order of their ids.
    std::vector<node_settings> nodes;
    log::level log_level = log::level::info;
    bool help = false;
    bool version = false;
};

// The first default port: a lone node listens there, a --cluster of N nodes on it and the N - 1 next.
inline constexpr unsigned short default_port = 2836;
inline constexpr std::size_t max_cluster_nodes = 64;

struct command_line_outcome
{
    std::optional<zlkd_options> options;
    // A sentence for the user when options is empty.
    std::string error;
};

// args: the arguments without the program name. Accepts "--flag value" and "--flag=value".
command_line_outcome parse_command_line(std::span<const std::string_view> args);

std::string_view usage_text() noexcept;

} // namespace zlk::node
