// The connections one node keeps to the others, for forwarding replica copies. Idle connections are
// kept per endpoint and reused; a connection found dead on reuse is replaced once.
#pragma once

#include <asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "wire/messages.hpp"

namespace zlk::node
{

class sync_client;

struct forward_outcome
{
    // The request didn't get an answer: connection, time limit, undecodable or unexpected reply.
    boost::system::error_code transport;
    // The answer's result.error (a carrier reply's, or a refusal's).
    boost::system::error_code remote;

    bool ok() const noexcept { return !transport && !remote; }
};

class peer_pool
{
public:
    explicit peer_pool(std::chrono::milliseconds timeout);
    ~peer_pool();

    peer_pool(const peer_pool &) = delete;
    peer_pool & operator=(const peer_pool &) = delete;

    // Sends the carrier to the node at `to` and waits for its reply. Thread safe.
    forward_outcome forward(const asio::ip::tcp::endpoint & to, const chord::chord_carrier_request & request);

    // Closes the idle connections.
    void close_all() noexcept;

private:
    std::unique_ptr<sync_client> borrow(const asio::ip::tcp::endpoint & to, bool & reused);
    void give_back(const asio::ip::tcp::endpoint & to, std::unique_ptr<sync_client> client);

    std::chrono::milliseconds _timeout;
    std::mutex _mutex;
    std::map<asio::ip::tcp::endpoint, std::vector<std::unique_ptr<sync_client>>> _idle;
};

} // namespace zlk::node
