#include "node/command_line.hpp"

#include <fmt/format.h>

#include <charconv>
#include <limits>

#include "node/address.hpp"
#include "node/ring_math.hpp"

namespace zlk::node
{

namespace
{

constexpr std::string_view usage = R"(Usage: zlkd [options]

Runs a Zelkoria development node, or a ring of them in one process, answering the wire protocol.

One node (members in separate processes, each told the others with --peer):
  --listen HOST:PORT        where to listen (default 127.0.0.1:2836); "[::]:PORT" for IPv6 and IPv4,
                            port 0 for any free port
  --advertise HOST:PORT     the endpoint the node gives in arcs (default: the listening one, an
                            unspecified address replaced by the loopback address)
  --node-id ID              the node's 256-bit id in text form, four lower-case hexadecimal words
                            from the most significant, joined by "-" (default: the largest id,
                            ffffffffffffffff-ffffffffffffffff-ffffffffffffffff-ffffffffffffffff)
  --peer ID@HOST:PORT       another member of the ring; repeat for each

Several nodes in this process:
  --cluster N               runs N nodes (1 to 64) with evenly spaced ids: node i (from 0) gets
                            (i + 1) * floor(2^256 / N) - 1, modulo 2^256
  --base-port P             node i listens on port P + i (default 2836)
  --host ADDRESS            the address they listen on (default 127.0.0.1)
  --member I                runs only node I (from 0) of that ring: N processes, each with its own
                            --member, make the same ring as one process with --cluster N

Every node:
  --replication N           replication factor, 1 to 4 (default 1)
  --enable-stop             a node_stop request stops the node (default: refused, operation disabled)
  --disable-purge-all       refuse purge_all with "operation disabled" (default: purge_all empties the node)
  --profile                 tells clients to profile their requests (default off)
  --threads N               I/O threads per node, and as many worker threads (default
                            min(hardware concurrency, 4))
  --max-in-buffer BYTES     the largest frame accepted, at least 1024 (default 268435456)
  --server-sessions N       open connections at most per node (default 512)
  --working-dir DIR         directory whose file system the status record reports (default .)
  --peer-timeout MS         how long a node waits on another, in milliseconds (default 5000)
  --ts-write-queue N        shard writes in progress beyond which an asynchronous one is refused
                            with "try again" (default 64)

Process:
  --log-level LEVEL         detailed, debug, info, warning, error or panic (default info); the log
                            goes to the standard error stream
  --help                    prints this text
  --version                 prints the version

zlkd stops on SIGINT or SIGTERM, or when every node it runs has accepted a node_stop request.
)";

struct parser
{
    std::span<const std::string_view> args;
    std::size_t at = 0;
    std::string error;

    // The flag's value, from "--flag=value" or from the next argument.
    std::optional<std::string_view> value(std::string_view flag, std::optional<std::string_view> inline_value)
    {
        if (inline_value)
        {
            return inline_value;
        }
        if (at + 1 >= args.size())
        {
            error = fmt::format("{} needs a value", flag);
            return std::nullopt;
        }
        return args[++at];
    }
};

template <typename T>
bool read_number(std::string_view text, T min, T max, T & out)
{
    T v{};
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size() || v < min || v > max)
    {
        return false;
    }
    out = v;
    return true;
}

std::optional<log::level> read_level(std::string_view text)
{
    constexpr std::pair<std::string_view, log::level> levels[] = {
        {"detailed", log::level::detailed}, {"debug", log::level::debug}, {"info", log::level::info},
        {"warning", log::level::warning},   {"error", log::level::error}, {"panic", log::level::panic},
    };
    for (const auto & [name, l] : levels)
    {
        if (name == text)
        {
            return l;
        }
    }
    return std::nullopt;
}

bool takes_value(std::string_view flag) noexcept
{
    constexpr std::string_view flags[] = {
        "--listen",       "--advertise",       "--node-id", "--peer",          "--cluster",     "--base-port",
        "--host",         "--replication",     "--threads", "--max-in-buffer", "--working-dir", "--log-level",
        "--peer-timeout", "--server-sessions", "--member", "--ts-write-queue",
    };
    for (std::string_view f : flags)
    {
        if (f == flag)
        {
            return true;
        }
    }
    return false;
}

std::string id_error(std::string_view text, const chord::id_parse_result & r)
{
    return fmt::format("invalid node id \"{}\": {} (at character {})", text, chord::describe(r.error),
                       r.position);
}

} // namespace

std::string_view usage_text() noexcept
{
    return usage;
}

command_line_outcome parse_command_line(std::span<const std::string_view> args)
{
    zlkd_options options;
    node_settings base;
    std::optional<asio::ip::tcp::endpoint> listen;
    std::optional<asio::ip::tcp::endpoint> advertise;
    std::optional<chord::ring_id> node_id;
    std::vector<chord::node_info> peers;
    std::size_t cluster = 0;
    std::optional<std::size_t> member;
    unsigned base_port = default_port;
    asio::ip::address host = asio::ip::address_v4::loopback();

    parser p{args, 0, {}};
    const auto fail = [&](std::string message) {
        return command_line_outcome{std::nullopt, std::move(message)};
    };

    for (; p.at < args.size(); ++p.at)
    {
        std::string_view flag = args[p.at];
        std::optional<std::string_view> inline_value;
        if (const std::size_t eq = flag.find('='); flag.starts_with("--") && eq != std::string_view::npos)
        {
            inline_value = flag.substr(eq + 1);
            flag = flag.substr(0, eq);
        }
        const auto take = [&]() { return p.value(flag, inline_value); };
        const auto no_value = [&]()
        {
            if (inline_value)
            {
                p.error = fmt::format("{} takes no value", flag);
                return false;
            }
            return true;
        };

        if (flag == "--help")
        {
            options.help = true;
        }
        else if (flag == "--version")
        {
            options.version = true;
        }
        else if (flag == "--enable-stop")
        {
            if (!no_value())
            {
                return fail(p.error);
            }
            base.enable_stop = true;
        }
        else if (flag == "--disable-purge-all")
        {
            if (!no_value())
            {
                return fail(p.error);
            }
            base.enable_purge_all = false;
        }
        else if (flag == "--profile")
        {
            if (!no_value())
            {
                return fail(p.error);
            }
            base.profile_performance = true;
        }
        else if (!takes_value(flag))
        {
            return fail(fmt::format("unknown option \"{}\"", args[p.at]));
        }
        else
        {
            const auto v = take();
            if (!v)
            {
                return fail(p.error);
            }
            const std::string_view text = *v;
            if (flag == "--listen" || flag == "--advertise")
            {
                const auto ep = parse_endpoint(text);
                if (!ep)
                {
                    return fail(fmt::format("{}: \"{}\" is not HOST:PORT", flag, text));
                }
                (flag == "--listen" ? listen : advertise) = *ep;
            }
            else if (flag == "--node-id")
            {
                const auto r = chord::parse_ring_id(text);
                if (!r.ok())
                {
                    return fail(id_error(text, r));
                }
                node_id = r.id;
            }
            else if (flag == "--peer")
            {
                const std::size_t at = text.find('@');
                if (at == std::string_view::npos)
                {
                    return fail(fmt::format("--peer: \"{}\" is not ID@HOST:PORT", text));
                }
                const auto r = chord::parse_ring_id(text.substr(0, at));
                if (!r.ok())
                {
                    return fail(id_error(text.substr(0, at), r));
                }
                const auto ep = parse_endpoint(text.substr(at + 1));
                if (!ep || ep->port() == 0)
                {
                    return fail(fmt::format("--peer: \"{}\" is not HOST:PORT", text.substr(at + 1)));
                }
                peers.push_back(chord::node_info{r.id, *ep});
            }
            else if (flag == "--cluster")
            {
                if (!read_number<std::size_t>(text, 1, max_cluster_nodes, cluster))
                {
                    return fail(fmt::format("--cluster: \"{}\" is not a node count from 1 to {}", text,
                                            max_cluster_nodes));
                }
            }
            else if (flag == "--member")
            {
                std::size_t m = 0;
                if (!read_number<std::size_t>(text, 0, max_cluster_nodes - 1, m))
                {
                    return fail(fmt::format("--member: \"{}\" is not a node index", text));
                }
                member = m;
            }
            else if (flag == "--base-port")
            {
                if (!read_number<unsigned>(text, 1, 65535, base_port))
                {
                    return fail(fmt::format("--base-port: \"{}\" is not a port from 1 to 65535", text));
                }
            }
            else if (flag == "--host")
            {
                std::error_code ec;
                host = asio::ip::make_address(std::string(text), ec);
                if (ec)
                {
                    return fail(fmt::format("--host: \"{}\" is not an IP address", text));
                }
            }
            else if (flag == "--replication")
            {
                if (!read_number<unsigned>(text, 1, 4, base.replication_factor))
                {
                    return fail(fmt::format("--replication: \"{}\" is not a factor from 1 to 4", text));
                }
            }
            else if (flag == "--threads")
            {
                if (!read_number<unsigned>(text, 1, 256, base.threads))
                {
                    return fail(fmt::format("--threads: \"{}\" is not a thread count from 1 to 256", text));
                }
            }
            else if (flag == "--max-in-buffer")
            {
                if (!read_number<std::uint64_t>(text, 1024, std::numeric_limits<std::int64_t>::max(),
                                                base.max_in_buffer_size))
                {
                    return fail(
                        fmt::format("--max-in-buffer: \"{}\" is not a size of at least 1024 bytes", text));
                }
            }
            else if (flag == "--ts-write-queue")
            {
                if (!read_number<unsigned>(text, 1, 1000000, base.ts_write_queue))
                {
                    return fail(
                        fmt::format("--ts-write-queue: \"{}\" is not a count from 1 to 1000000", text));
                }
            }
            else if (flag == "--server-sessions")
            {
                if (!read_number<unsigned>(text, 1, 1000000, base.server_sessions))
                {
                    return fail(
                        fmt::format("--server-sessions: \"{}\" is not a count from 1 to 1000000", text));
                }
            }
            else if (flag == "--working-dir")
            {
                if (text.empty())
                {
                    return fail("--working-dir needs a directory");
                }
                base.working_directory = std::string(text);
            }
            else if (flag == "--peer-timeout")
            {
                long long ms = 0;
                if (!read_number<long long>(text, 1, 3600000, ms))
                {
                    return fail(
                        fmt::format("--peer-timeout: \"{}\" is not a time from 1 to 3600000 ms", text));
                }
                base.peer_timeout = std::chrono::milliseconds(ms);
            }
            else if (flag == "--log-level")
            {
                const auto l = read_level(text);
                if (!l)
                {
                    return fail(
                        fmt::format("--log-level: \"{}\" is not one of detailed, debug, info, warning, "
                                    "error, panic",
                                    text));
                }
                options.log_level = *l;
            }
        }
    }
    base.log_level = options.log_level;
    if (options.help || options.version)
    {
        return command_line_outcome{std::move(options), {}};
    }

    if (cluster > 0)
    {
        if (listen || advertise || node_id || !peers.empty())
        {
            return fail(
                "--cluster runs its own ring: it doesn't go with --listen, --advertise, --node-id or --peer");
        }
        if (base_port + cluster - 1 > 65535)
        {
            return fail(fmt::format("--base-port {} leaves no room for {} nodes", base_port, cluster));
        }
        if (member && *member >= cluster)
        {
            return fail(fmt::format("--member {} is not a node of a cluster of {}", *member, cluster));
        }
        std::vector<chord::node_info> members;
        for (std::size_t i = 0; i < cluster; ++i)
        {
            members.push_back(chord::node_info{evenly_spaced_id(i, cluster),
                                               {host, static_cast<unsigned short>(base_port + i)}});
        }
        for (std::size_t i = 0; i < cluster; ++i)
        {
            if (member && i != *member)
            {
                continue;
            }
            node_settings s = base;
            s.id = members[i].id;
            s.listen = members[i].endpoint;
            s.peers = members;
            options.nodes.push_back(std::move(s));
        }
        return command_line_outcome{std::move(options), {}};
    }

    if (member)
    {
        return fail("--member names a node of --cluster");
    }
    node_settings s = base;
    s.listen = listen.value_or(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), default_port));
    s.advertise = advertise;
    if (node_id)
    {
        s.id = *node_id;
    }
    for (const chord::node_info & peer : peers)
    {
        if (peer.id == s.id)
        {
            return fail(fmt::format("--peer {} has the node's own id", chord::to_string(peer.id)));
        }
    }
    s.peers = std::move(peers);
    options.nodes.push_back(std::move(s));
    return command_line_outcome{std::move(options), {}};
}

} // namespace zlk::node
