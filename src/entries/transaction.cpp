#include "entries/transaction.hpp"

#include <algorithm>

#include "base/make_error.hpp"
#include "base/status_text.hpp"
#include "entries/entry_requests.hpp"
#include "log/logger.hpp"
#include "network/request.hpp"

namespace zlk::client
{

namespace
{

constexpr const char * timestamp_context = "transaction timestamp";

} // namespace

zlk_error_t build_transaction_token(chord::cluster & c, const chord::ring_id & key, bool want_timestamp,
                                    transaction_token & out)
{
    if (c.map().ring_size() == 0)
    {
        const zlk_error_t connected = c.ensure_connected();
        if (ZLK_FAILURE(connected))
        {
            return connected;
        }
        if (c.map().ring_size() == 0)
        {
            return zlk_e_unstable_cluster;
        }
    }
    if (c.map().find_owner(key, 0, false, out.coordinator))
    {
        log::log(log::level::error, "could not find successor for {} while building a transaction token",
                 key);
        return zlk_e_unstable_cluster;
    }
    out.stamp = zlk::uuid{};
    if (!want_timestamp)
    {
        return zlk_e_ok;
    }
    network::client::received_frame reply;
    const protocol::message request{chord::chord_request_timestamp{}};
    const boost::system::error_code ec = network::client::request_sync(
        c.chord().sync_side(), out.coordinator.endpoint, timestamp_context, request, reply);
    zlk_error_t result = zlk_e_ok;
    if (ec)
    {
        c.forget_on_failure(out.coordinator, ec);
        result = make_error_from_code(ec, local_origin);
    }
    else if (const zlk::uuid * stamp = std::get_if<zlk::uuid>(&reply.message);
             stamp != nullptr && (stamp->time.tv_sec != 0 || stamp->time.tv_nsec != 0) &&
             !stamp->id.is_zero())
    {
        out.stamp = *stamp;
    }
    else
    {
        result = zlk_e_invalid_reply;
    }
    if (ZLK_FAILURE(result))
    {
        log::log(log::level::error, "could not generate timestamp with node {}: {}", out.coordinator.endpoint,
                 zlk::status_text(result));
    }
    return result;
}

transaction_state::transaction_state(chord::cluster & c, transaction_token token) noexcept
    : _cluster(c)
    , _token(std::move(token))
{
}

transaction_state::~transaction_state()
{
    if (!_keys.empty() && static_cast<std::uint8_t>(_phase) < 2)
    {
        try
        {
            set_state(transaction_phase::rolled_back);
        }
        catch (...)
        {
            // The nodes drop what was staged when the rollback can't reach them.
        }
    }
}

void transaction_state::touch(const chord::ring_id & key)
{
    if (std::find(_keys.begin(), _keys.end(), key) == _keys.end())
    {
        _keys.push_back(key);
    }
}

zlk_error_t transaction_state::send(const chord::ring_id & key, std::uint16_t required_access,
                                    bool has_content, body_builder build_body, chord::owner_reply & out)
{
    touch(key);
    chord::owner_request request;
    request.key = key;
    request.transaction = _token.stamp;
    request.required_access = required_access;
    request.has_content = has_content;
    return chord::request_owner(_cluster, request, build_body, out);
}

namespace
{

// Reads the replies of state messages: each key's owner either takes the state or says why not.
struct commit_batch_policy
{
    static constexpr bool has_content = false;

    boost::system::error_code on_reply(const request_record &,
                                       const chord::chord_carrier_reply & reply) noexcept
    {
        return reply.result.error;
    }
};

} // namespace

zlk_error_t transaction_state::set_state(transaction_phase wanted)
{
    const protocol::operation_body body = transaction_state_body(static_cast<std::uint8_t>(wanted));
    if (body.error)
    {
        return make_error_from_code(body.error, local_origin);
    }
    // One frame per node, with one state message per key it owns.
    std::vector<node_group> groups;
    for (std::size_t i = 0; i < _keys.size(); ++i)
    {
        chord::node_info owner;
        if (_cluster.map().find_owner(_keys[i], 0, false, owner))
        {
            log::log(log::level::error, "could not find successor for {}", _keys[i]);
            return zlk_e_unstable_cluster;
        }
        auto at = std::find_if(groups.begin(), groups.end(),
                               [&](const node_group & g) { return g.node.id == owner.id; });
        if (at == groups.end())
        {
            groups.push_back(node_group{owner, {}});
            at = groups.end() - 1;
        }
        request_record r;
        r.request = chord::make_carrier(_keys[i], at->records.size(), 0, body, _token.stamp);
        r.slot = i;
        at->records.push_back(std::move(r));
    }
    commit_batch_policy policy;
    zlk_error_t first = zlk_e_ok;
    for (const node_group & g : groups)
    {
        const zlk_error_t r = chord::request_group(_cluster, g, "transaction state", policy);
        if (ZLK_FAILURE(r))
        {
            log::log(log::level::error, "could not set transaction state for node {}: {}", g.node.endpoint,
                     zlk::status_text(r));
            if (ZLK_SUCCESS(first))
            {
                first = r;
            }
        }
    }
    return first;
}

zlk_error_t transaction_state::end(zlk_error_t result)
{
    if (_keys.empty())
    {
        return result;
    }
    const auto phase = static_cast<std::uint8_t>(_phase);
    zlk_error_t precommit_failure = zlk_e_ok;
    if (ZLK_SUCCESS(result))
    {
        if (_keys.size() == 1)
        {
            if (phase > 1)
            {
                return zlk_e_ok;
            }
            const zlk_error_t r = set_state(transaction_phase::committed_single);
            _phase = ZLK_FAILURE(r) ? transaction_phase::failed : transaction_phase::committed_single;
            return r;
        }
        if (phase >= 2)
        {
            return zlk_e_ok;
        }
        precommit_failure = set_state(transaction_phase::precommitted);
        _phase = ZLK_FAILURE(precommit_failure) ? transaction_phase::failed : transaction_phase::precommitted;
        if (ZLK_SUCCESS(precommit_failure))
        {
            const zlk_error_t r = set_state(transaction_phase::committed);
            _phase = ZLK_FAILURE(r) ? transaction_phase::failed : transaction_phase::committed;
            return r;
        }
        log::log(log::level::warning, "transaction could not be precommitted: {:#x}", precommit_failure);
        // A refused precommit still has to release what the other keys staged.
        _phase = transaction_phase::started;
    }
    if (static_cast<std::uint8_t>(_phase) < 2)
    {
        const zlk_error_t r = set_state(transaction_phase::rolled_back);
        _phase = ZLK_FAILURE(r) ? transaction_phase::failed : transaction_phase::rolled_back;
    }
    return ZLK_FAILURE(precommit_failure) ? precommit_failure : result;
}

} // namespace zlk::client
