#include "api/call_frame.hpp"

#include <boost/system/system_error.hpp>

#include <new>

#include "base/api_exception.hpp"
#include "base/make_error.hpp"

namespace zlk::api::detail
{

namespace
{

zlk_error_t record(zlk_session * h, zlk_error_t code, std::string_view text) noexcept
{
    if (h)
    {
        write_last_error(*h, code, text);
    }
    return code;
}

} // namespace

zlk_error_t handle_current_exception(zlk_session * h) noexcept
{
    // The order matters: api_exception and system_error are std::exceptions too.
    try
    {
        throw;
    }
    catch (zlk_error_t code)
    {
        return record(h, code, zlk_error(code));
    }
    catch (const api_exception & e)
    {
        return record(h, e.code(), e.what());
    }
    catch (const std::bad_alloc &)
    {
        return record(h, zlk_e_no_memory_local, zlk_error(zlk_e_no_memory_local));
    }
    catch (const boost::system::system_error & e)
    {
        return record(h, make_error_from_code(e.code(), local_origin), e.what());
    }
    catch (const std::exception & e)
    {
        return record(h, zlk_e_internal_local, e.what());
    }
    catch (...)
    {
        return record(h, zlk_e_internal_local, "got unknown exception");
    }
}

} // namespace zlk::api::detail
