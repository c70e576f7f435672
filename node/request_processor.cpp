#include "node/request_processor.hpp"

#include "log/logger.hpp"
#include "node/node_state.hpp"
#include "node/status.hpp"
#include "wire/frame.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

using boost::system::error_code;

namespace
{

// required_access bits that widen who may serve a request.
constexpr std::uint16_t access_any_node = 0x01;
constexpr std::uint16_t access_any_replica = 0x02;

} // namespace

void reply_storage::recycle() noexcept
{
    if (auto * batch = std::get_if<chord::chord_carrier_reply_batch>(&reply))
    {
        spare_replies = std::move(*batch);
        reply.emplace<chord::chord_request_ping>();
    }
}

header_verdict request_processor::check_header(std::span<const std::uint8_t> header,
                                               std::uint64_t & body_size) const noexcept
{
    body_size = 0;
    if (header.size() < protocol::frame_header_size)
    {
        return header_verdict::malformed;
    }
    const error_code ec = protocol::check_header(header);
    if (ec == protocol::error::invalid_version)
    {
        return header_verdict::other_version;
    }
    if (ec)
    {
        return header_verdict::malformed;
    }
    const std::uint64_t size = serialization::detail::load_le<std::uint64_t>(header.data() + 4);
    if (size == protocol::empty_frame_size)
    {
        return header_verdict::empty_frame;
    }
    if (size == 0)
    {
        return header_verdict::malformed;
    }
    if (size > _node.settings().max_in_buffer_size)
    {
        return header_verdict::too_large;
    }
    body_size = size;
    return header_verdict::body_follows;
}

error_code request_processor::decode(std::span<const std::uint8_t> frame, protocol::message & request) const
{
    // Tag 17 decodes to nothing and leaves the message as it was: make that a ping rather than the
    // previous request.
    request.emplace<chord::chord_request_ping>();
    return protocol::read_frame(frame, request, protocol::frame_origin{&_node, "node request", ""});
}

bool request_processor::may_wait(const protocol::message & request) const noexcept
{
    const auto waits = [this](const chord::chord_carrier_request & r)
    {
        if (!r.from.is_unset())
        {
            // A replica copy is never forwarded again.
            return false;
        }
        const operation_registry::entry * e = _node.operations().find(r.operation());
        if (e == nullptr)
        {
            return false;
        }
        return e->mode == handler_mode::may_wait ||
               (e->mode == handler_mode::replicates && _node.settings().replication_factor > 1);
    };
    if (const auto * single = std::get_if<chord::chord_carrier_request>(&request))
    {
        return waits(*single);
    }
    if (const auto * group = std::get_if<chord::chord_carrier_request_batch>(&request))
    {
        for (const chord::chord_carrier_request & r : *group)
        {
            if (waits(r))
            {
                return true;
            }
        }
    }
    return false;
}

bool request_processor::serves(const chord::chord_carrier_request & request) const noexcept
{
    if (request.key.is_zero() || (request.required_access & access_any_node) != 0)
    {
        return true;
    }
    const auto ring = _node.ring();
    const chord::node_info & self = _node.self();
    const std::size_t factor = _node.settings().replication_factor;
    // A replica copy comes from the owner; a read for any replica may be served by any holder.
    if (!request.from.is_unset() || (request.required_access & access_any_replica) != 0)
    {
        return ring->holds_replica(request.key, self.id, factor);
    }
    const std::size_t owner = ring->owner_index(request.key);
    return ring->members()[owner].id == self.id;
}

void request_processor::answer_carrier(const chord::chord_carrier_request & request,
                                       chord::chord_carrier_reply & reply,
                                       std::vector<std::uint8_t> & content, const fault_settings & faults)
{
    reply.from = _node.self();
    reply.transaction = request.transaction;
    reply.client_id = request.client_id;
    protocol::result & result = reply.result;
    result = protocol::result{};
    content.clear();

    const std::uint16_t number = request.operation();
    if (!faults.failing_operations.empty() && faults.failing_operations.contains(number))
    {
        result.error = faults.operation_error;
    }
    else if (!serves(request))
    {
        result.error = make_error_code(chord::error::wrong_peer);
    }
    else if (const operation_registry::entry * e = _node.operations().find(number))
    {
        operation_context ctx(_node, request, content);
        try
        {
            e->handler(ctx, result);
        }
        catch (const std::exception & x)
        {
            log::log(log::level::error, "operation {} failed: {}", number, x.what());
            result = protocol::result{};
            content.clear();
            result.error = make_error_code(kernel::error::internal_error);
        }
        if (result.content.empty() && !content.empty())
        {
            result.content.emplace_back(content.data(), content.size());
        }
    }
    else if (protocol::find_operation(number) != nullptr)
    {
        result.error = make_error_code(kernel::error::not_implemented);
    }
    else
    {
        result.error = make_error_code(kernel::error::unknown_message);
    }
    _node.count_reply(!result.error);
}

after_reply request_processor::answer(const protocol::message & request, reply_storage & out,
                                      const fault_settings & faults)
{
    after_reply after = after_reply::read_next;
    const auto refuse = [&](error_code ec)
    {
        protocol::result & r = out.reply.emplace<protocol::result>();
        r.error = ec;
        _node.count_reply(false);
    };
    if (out.contents.empty())
    {
        out.contents.resize(1);
    }

    switch (request.index())
    {
    case static_cast<std::size_t>(protocol::message_tag::ping):
    {
        const auto ring = _node.ring();
        out.reply.emplace<chord::arc>(ring->arc_at(*ring->index_of(_node.self().id)));
        _node.count_reply(true);
        break;
    }
    case static_cast<std::size_t>(protocol::message_tag::timestamp):
        out.reply.emplace<zlk::uuid>(_node.next_stamp());
        _node.count_reply(true);
        break;
    case static_cast<std::size_t>(protocol::message_tag::config):
    {
        const std::string text = config_document(_node).dump();
        std::vector<std::uint8_t> & content = out.contents.front();
        content.assign(text.begin(), text.end());
        protocol::result & r = out.reply.emplace<protocol::result>();
        r.content.emplace_back(content.data(), content.size());
        _node.count_reply(true);
        break;
    }
    case static_cast<std::size_t>(protocol::message_tag::get_successor_of):
    {
        const auto & position = std::get<chord::chord_request_get_successor_of>(request).position;
        out.reply.emplace<chord::arc>(_node.ring()->arc_owning(position));
        _node.count_reply(true);
        break;
    }
    case static_cast<std::size_t>(protocol::message_tag::closest_preceding_finger):
    {
        const auto & position = std::get<chord::chord_request_closest_preceding_finger>(request).position;
        out.reply.emplace<chord::node_info>(_node.ring()->closest_preceding(position));
        _node.count_reply(true);
        break;
    }
    case static_cast<std::size_t>(protocol::message_tag::node_stop):
    {
        if (!_node.settings().enable_stop)
        {
            refuse(make_error_code(kernel::error::operation_disabled));
            break;
        }
        const auto & reason = std::get<chord::chord_request_node_stop>(request).reason;
        log::log(log::level::info, "node {} asked to stop: {}", _node.self().id, reason);
        out.reply.emplace<protocol::result>();
        _node.count_reply(true);
        after = after_reply::stop_node;
        break;
    }
    case static_cast<std::size_t>(protocol::message_tag::predecessor_changed):
    case static_cast<std::size_t>(protocol::message_tag::new_range):
        refuse(make_error_code(chord::error::not_implemented));
        break;
    case static_cast<std::size_t>(protocol::message_tag::carrier_request):
    {
        const auto & carrier = std::get<chord::chord_carrier_request>(request);
        // A single request for a key that this node doesn't serve is refused as a whole, so that the
        // client asks the ring anew.
        const bool faulted =
            !faults.failing_operations.empty() && faults.failing_operations.contains(carrier.operation());
        if (!faulted && !serves(carrier))
        {
            refuse(make_error_code(chord::error::wrong_peer));
            break;
        }
        auto & reply = out.reply.emplace<chord::chord_carrier_reply>();
        answer_carrier(carrier, reply, out.contents.front(), faults);
        break;
    }
    case static_cast<std::size_t>(protocol::message_tag::carrier_request_batch):
    {
        const auto & group = std::get<chord::chord_carrier_request_batch>(request);
        if (out.contents.size() < group.size())
        {
            out.contents.resize(group.size());
        }
        chord::chord_carrier_reply_batch replies = std::move(out.spare_replies);
        replies.resize(group.size());
        // Within a group each request stands alone: one that this node doesn't serve gets its own
        // carrier reply with chord code 2, the others are answered.
        for (std::size_t i = 0; i < group.size(); ++i)
        {
            answer_carrier(group[i], replies[i], out.contents[i], faults);
        }
        out.reply.emplace<chord::chord_carrier_reply_batch>(std::move(replies));
        break;
    }
    default:
        refuse(make_error_code(protocol::error::not_implemented));
        break;
    }
    encode(out);
    return after;
}

void request_processor::answer_other_version(reply_storage & out)
{
    protocol::result & r = out.reply.emplace<protocol::result>();
    r.error = make_error_code(protocol::error::invalid_version);
    _node.count_reply(false);
    encode(out);
}

void request_processor::encode(reply_storage & out)
{
    out.frame.clear();
    protocol::encode_frame(out.reply, out.frame, out.scratch);
}

after_reply request_processor::handle_frame(std::span<const std::uint8_t> frame, protocol::message & request,
                                            reply_storage & out, const fault_settings & faults)
{
    out.frame.clear();
    std::uint64_t body_size = 0;
    switch (check_header(frame.first(std::min(frame.size(), protocol::frame_header_size)), body_size))
    {
    case header_verdict::body_follows:
        break;
    case header_verdict::empty_frame:
        return after_reply::read_next;
    case header_verdict::other_version:
        answer_other_version(out);
        return after_reply::close;
    case header_verdict::malformed:
    case header_verdict::too_large:
        return after_reply::close;
    }
    if (frame.size() - protocol::frame_header_size < body_size)
    {
        return after_reply::close;
    }
    if (decode(frame.first(protocol::frame_header_size + static_cast<std::size_t>(body_size)), request))
    {
        return after_reply::close;
    }
    return answer(request, out, faults);
}

} // namespace zlk::node
