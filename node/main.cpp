// zlkd: runs one development node, or a ring of them, until a signal or node_stop requests.
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>
#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string_view>
#include <vector>

#include "log/logger.hpp"
#include "node/command_line.hpp"
#include "node/node.hpp"

#ifndef ZLK_NODE_VERSION
#define ZLK_NODE_VERSION "0.0.0"
#endif

namespace
{

int run(const zlk::node::zlkd_options & options)
{
    using namespace zlk;

    asio::io_context control;
    asio::signal_set signals(control, SIGINT, SIGTERM);
    signals.async_wait(
        [&](const std::error_code & ec, int signal)
        {
            if (!ec)
            {
                log::log(log::level::info, "received signal {}, stopping", signal);
                control.stop();
            }
        });

    std::vector<std::unique_ptr<node::node>> nodes;
    std::size_t stopped = 0;
    for (const node::node_settings & s : options.nodes)
    {
        nodes.push_back(std::make_unique<node::node>(s));
    }
    for (std::size_t i = 0; i < nodes.size(); ++i)
    {
        if (boost::system::error_code ec = nodes[i]->start())
        {
            log::log(log::level::panic, "cannot start node {} on {}: {}", options.nodes[i].id,
                     fmt::format("{}:{}", options.nodes[i].listen.address().to_string(),
                                 options.nodes[i].listen.port()),
                     ec.message());
            return 1;
        }
        // A node that accepted node_stop is stopped from here; the process ends with its last node.
        nodes[i]->on_stop(
            [&control, &nodes, &stopped, i]
            {
                asio::post(control,
                           [&control, &nodes, &stopped, i]
                           {
                               nodes[i]->stop();
                               if (++stopped == nodes.size())
                               {
                                   control.stop();
                               }
                           });
            });
    }
    control.run();
    for (auto & n : nodes)
    {
        n->stop();
    }
    log::log(log::level::info, "zlkd stopped");
    return 0;
}

} // namespace

int main(int argc, char ** argv)
{
    std::vector<std::string_view> args(argv + 1, argv + argc);
    const zlk::node::command_line_outcome parsed = zlk::node::parse_command_line(args);
    if (!parsed.options)
    {
        std::fprintf(stderr, "zlkd: %s\nzlkd --help tells the options.\n", parsed.error.c_str());
        return 2;
    }
    const zlk::node::zlkd_options & options = *parsed.options;
    if (options.help)
    {
        const std::string_view text = zlk::node::usage_text();
        std::fwrite(text.data(), 1, text.size(), stdout);
        return 0;
    }
    if (options.version)
    {
        std::printf("zlkd %s\n", ZLK_NODE_VERSION);
        return 0;
    }

    int status = 1;
    try
    {
        zlk::log::start_logger(options.log_level, std::chrono::milliseconds(100));
        zlk::log::log_to_console();
        status = run(options);
    }
    catch (const std::exception & x)
    {
        std::fprintf(stderr, "zlkd: %s\n", x.what());
    }
    zlk::log::stop_logger();
    return status;
}
