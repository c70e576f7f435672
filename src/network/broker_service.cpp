#include "network/broker_service.hpp"

namespace zlk::network
{

broker_service::broker_service(std::shared_ptr<network_settings> settings)
    : log::background_service("clients broker")
    , settings_(std::move(settings))
    , multiplexer_("client broker")
    , sync_("sync", clients_broker::kind::blocking, multiplexer_, settings_)
    , async_("async", clients_broker::kind::asynchronous, multiplexer_, settings_)
{
}

broker_service::~broker_service()
{
    stop();
}

boost::system::error_code broker_service::do_start()
{
    multiplexer_.start();
    return {};
}

void broker_service::do_stop()
{
    multiplexer_.stop();
    sync_.clear();
    async_.clear();
}

} // namespace zlk::network
