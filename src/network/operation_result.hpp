// What a reply handler of the asynchronous path receives: the outcome of one exchange and the bytes of
// the reply. The buffer owns every view into the reply; a handler that keeps a view keeps the buffer.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <memory>

#include "network/inplace_function.hpp"
#include "network/received_buffer.hpp"
#include "wire/messages.hpp"

namespace zlk
{

struct operation_result
{
    boost::system::error_code error;
    // The decoded reply; its views point into buffer.
    protocol::message message;
    // The whole frame, head included, is the first frame_size bytes of buffer (the buffer may be larger:
    // a small reply is read into a buffer of the first read's size).
    std::shared_ptr<received_buffer> buffer;
    std::size_t frame_size = 0;
};

// Runs on the event-loop thread. An error it returns means the reply couldn't be used: the connection
// is then dropped rather than pooled.
using reply_handler = inplace_function<boost::system::error_code(operation_result), 392, 16>;

} // namespace zlk
