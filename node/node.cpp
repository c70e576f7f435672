#include "node/node.hpp"

#include "node/server.hpp"

namespace zlk::node
{

node::node(node_settings settings, std::shared_ptr<const operation_registry> operations)
    : _state(std::move(settings), std::move(operations))
    , _server(std::make_unique<server>(_state))
{
}

node::~node()
{
    stop();
}

boost::system::error_code node::start()
{
    return _server->start();
}

void node::stop()
{
    _server->stop();
}

void node::request_stop()
{
    _server->request_stop();
}

void node::on_stop(std::function<void()> handler)
{
    _server->on_stop(std::move(handler));
}

bool node::stopping() const noexcept
{
    return _server->stopping();
}

asio::ip::tcp::endpoint node::endpoint() const
{
    return _state.self().endpoint;
}

boost::system::error_code node::set_members(std::vector<chord::node_info> members)
{
    return _state.set_members(std::move(members));
}

void node::set_faults(fault_settings faults)
{
    _state.set_faults(std::move(faults));
    _server->apply_faults();
}

void node::release_held_replies()
{
    _server->release_held();
}

bool node::wait_for_held_replies(std::size_t count, std::chrono::milliseconds timeout)
{
    return _server->wait_for_held(count, timeout);
}

std::size_t node::open_connections() const
{
    return _server->connection_count();
}

} // namespace zlk::node
