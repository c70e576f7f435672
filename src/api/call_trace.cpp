#include "api/call_trace.hpp"

namespace zlk::api
{

call_trace & this_thread_trace() noexcept
{
    thread_local call_trace trace;
    return trace;
}

} // namespace zlk::api
