// The client's side of a two-phase commit. A transaction holds a token (the coordinator and the stamp
// it gave), the keys touched so far, and its state; every request of the transaction carries the stamp,
// and the end moves each touched key's owner to the state decided:
//
//   transaction_state t(cluster, token);
//   status = t.send(key, access, has_content, body, reply);   // as often as needed
//   status = t.end(status);                                   // commit or roll back
//
// A state that is destroyed before its end (the body threw) rolls back.
#pragma once

#include <cstdint>
#include <vector>

#include "base/uuid.hpp"
#include "ring/routing.hpp"
#include "zlk/error.h"

namespace zlk::client
{

struct transaction_token
{
    chord::node_info coordinator;
    zlk::uuid stamp;
};

enum class transaction_phase : std::uint8_t
{
    started = 0,
    precommitted = 1,
    committed = 2,
    rolled_back = 3,
    committed_single = 4,
    failed = 5,
};

// The token for a transaction about `key`: its coordinator is the key's successor, and with
// want_timestamp the coordinator gives the stamp.
zlk_error_t build_transaction_token(chord::cluster & c, const chord::ring_id & key, bool want_timestamp,
                                    transaction_token & out);

class transaction_state
{
public:
    transaction_state(chord::cluster & c, transaction_token token) noexcept;
    ~transaction_state();

    transaction_state(const transaction_state &) = delete;
    transaction_state & operator=(const transaction_state &) = delete;

    const transaction_token & token() const noexcept { return _token; }
    transaction_phase phase() const noexcept { return _phase; }
    const std::vector<chord::ring_id> & keys() const noexcept { return _keys; }

    // Sends one request of the transaction to the owner of key, with the stamp.
    zlk_error_t send(const chord::ring_id & key, std::uint16_t required_access, bool has_content,
                     body_builder build_body, chord::owner_reply & out);

    // Notes a key touched by a request sent otherwise (a group).
    void touch(const chord::ring_id & key);

    // The two-phase decision over the keys touched, given the outcome of the requests; returns the
    // transaction's result.
    zlk_error_t end(zlk_error_t result);

private:
    zlk_error_t set_state(transaction_phase wanted);

    chord::cluster & _cluster;
    transaction_token _token;
    std::vector<chord::ring_id> _keys;
    transaction_phase _phase = transaction_phase::started;
};

} // namespace zlk::client
