#include "wire/replies.hpp"

#include <string>

#include "log/logger.hpp"

namespace zlk::protocol
{
namespace
{

reply_check invalid_reply() noexcept
{
    return reply_check{make_error_code(chord::error::unexpected_reply), false};
}

// A failed single reply standing for a request that expected something else.
reply_check failed_reply(const boost::system::error_code & error) noexcept
{
    if (!error)
    {
        return invalid_reply();
    }
    return reply_check{error, true};
}

} // namespace

reply_check unexpected_message(const message & reply) noexcept
{
    log::log(log::level::error, "got an unexpected {} message", message_kind_name(reply));
    return invalid_reply();
}

reply_check unexpected_result(const result & r) noexcept
{
    if (log::enabled(log::level::warning))
    {
        try
        {
            log::log(
                log::level::warning,
                "got an unexpected result from a carrier request. Error: {}, Value: {}, Content size: {}",
                r.error.message(), r.value, r.content_size());
        }
        catch (...)
        {
            // The text of the error couldn't be had; the verdict stands without the log line.
        }
    }
    return failed_reply(r.error);
}

reply_check expect_carrier_reply(const message & reply, const chord::chord_carrier_reply *& out) noexcept
{
    out = std::get_if<chord::chord_carrier_reply>(&reply);
    if (out != nullptr)
    {
        return {};
    }
    if (const result * r = std::get_if<result>(&reply))
    {
        return unexpected_result(*r);
    }
    return unexpected_message(reply);
}

reply_check expect_batch_reply(const message & reply, std::size_t expected_count,
                               const chord::chord_carrier_reply_batch *& out) noexcept
{
    out = nullptr;
    const auto * batch = std::get_if<chord::chord_carrier_reply_batch>(&reply);
    if (batch == nullptr)
    {
        log::log(log::level::error, "error did not get a batched carrier reply");
        if (const result * r = std::get_if<result>(&reply))
        {
            return failed_reply(r->error);
        }
        if (const auto * single = std::get_if<chord::chord_carrier_reply>(&reply))
        {
            return failed_reply(single->result.error);
        }
        return invalid_reply();
    }
    if (batch->size() != expected_count)
    {
        log::log(log::level::error, "got a reply count of {} and expected a count of {}", batch->size(),
                 expected_count);
        return invalid_reply();
    }
    out = batch;
    return {};
}

} // namespace zlk::protocol
