#include "node/peer_pool.hpp"

#include "node/sync_client.hpp"
#include "wire/frame.hpp"

namespace zlk::node
{

using boost::system::error_code;

peer_pool::peer_pool(std::chrono::milliseconds timeout)
    : _timeout(timeout)
{
}

peer_pool::~peer_pool() = default;

std::unique_ptr<sync_client> peer_pool::borrow(const asio::ip::tcp::endpoint & to, bool & reused)
{
    {
        std::lock_guard lock(_mutex);
        auto it = _idle.find(to);
        if (it != _idle.end() && !it->second.empty())
        {
            std::unique_ptr<sync_client> client = std::move(it->second.back());
            it->second.pop_back();
            reused = true;
            return client;
        }
    }
    reused = false;
    return std::make_unique<sync_client>(_timeout);
}

void peer_pool::give_back(const asio::ip::tcp::endpoint & to, std::unique_ptr<sync_client> client)
{
    std::lock_guard lock(_mutex);
    _idle[to].push_back(std::move(client));
}

forward_outcome peer_pool::forward(const asio::ip::tcp::endpoint & to,
                                   const chord::chord_carrier_request & request)
{
    const protocol::message m{request};
    std::vector<std::uint8_t> buffer;
    protocol::message reply;
    forward_outcome last;
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        bool reused = false;
        std::unique_ptr<sync_client> client = borrow(to, reused);
        forward_outcome outcome;
        if (!client->is_open())
        {
            outcome.transport = client->connect(to);
        }
        if (!outcome.transport)
        {
            outcome.transport = client->exchange(m, buffer, reply);
        }
        if (outcome.transport)
        {
            // A pooled connection may have been closed by the peer since its last use: one more try,
            // on a new connection.
            if (reused)
            {
                last = outcome;
                continue;
            }
            return outcome;
        }
        if (const auto * r = std::get_if<chord::chord_carrier_reply>(&reply))
        {
            outcome.remote = r->result.error;
        }
        else if (const auto * refusal = std::get_if<protocol::result>(&reply))
        {
            outcome.remote =
                refusal->error ? refusal->error : make_error_code(chord::error::unexpected_reply);
        }
        else
        {
            outcome.transport = make_error_code(chord::error::unexpected_reply);
            return outcome;
        }
        give_back(to, std::move(client));
        return outcome;
    }
    return last;
}

void peer_pool::close_all() noexcept
{
    std::lock_guard lock(_mutex);
    _idle.clear();
}

} // namespace zlk::node
