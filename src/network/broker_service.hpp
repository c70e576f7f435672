// A handle's network service, "clients broker": the multiplexer and the two sides of the broker,
// "sync" and "async". The sides share the multiplexer and the settings and nothing else: a client
// borrowed for a synchronous request never goes to the asynchronous pool, nor the other way round.
//
// Stopping stops the multiplexer first, so that every asynchronous request has had its completion, and
// then drops the pools, which closes every idle client.
#pragma once

#include <memory>

#include "log/background_service.hpp"
#include "network/clients_broker.hpp"
#include "network/multiplexer.hpp"
#include "network/network_settings.hpp"

namespace zlk::network
{

class broker_service final : public log::background_service
{
public:
    explicit broker_service(std::shared_ptr<network_settings> settings);
    ~broker_service() override;

    clients_broker & sync_side() noexcept { return sync_; }
    clients_broker & async_side() noexcept { return async_; }
    network::multiplexer & mux() noexcept { return multiplexer_; }
    network_settings & settings() noexcept { return *settings_; }

private:
    boost::system::error_code do_start() override;
    void do_stop() override;

    std::shared_ptr<network_settings> settings_;
    // Declared before the sides: their clients' sockets belong to its event loop.
    network::multiplexer multiplexer_;
    clients_broker sync_;
    clients_broker async_;
};

} // namespace zlk::network
