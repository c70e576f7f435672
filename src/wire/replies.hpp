// The checks a sender makes on a reply before reading it: the expected kind, the refusal that a
// result in place of a carrier reply means, and the shape of a batched reply.
//
// Each returns the error the request ends with. `remote` tells that it is the node's own status (to
// be translated with the remote origin); otherwise it is a local verdict on the reply, chord code 4,
// which surfaces as an invalid reply.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>

#include "wire/messages.hpp"

namespace zlk::protocol
{

struct reply_check
{
    boost::system::error_code error;
    bool remote = false;
};

// Logs "got an unexpected {} message" naming the kind; chord code 4.
reply_check unexpected_message(const message & reply) noexcept;

// A result where a carrier reply was due is a refusal: logs it and returns its error, or chord code 4
// when that error is zero.
reply_check unexpected_result(const result & r) noexcept;

// For a single request: the carrier reply, or why there is none (out is then null).
reply_check expect_carrier_reply(const message & reply, const chord::chord_carrier_reply *& out) noexcept;

// For a batch of expected_count requests: the replies, in order, or why they can't be used (out is then
// null). A single carrier reply or a result in place of the batch is the failure of the whole group.
reply_check expect_batch_reply(const message & reply, std::size_t expected_count,
                               const chord::chord_carrier_reply_batch *& out) noexcept;

} // namespace zlk::protocol
