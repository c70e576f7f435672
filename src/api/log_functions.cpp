// zlk_log_*: callbacks on the process-wide logger and the synchronous flag. They take no handle, so
// they run in the frame without the handle test and the last-error record.
#include "api/call_frame.hpp"
#include "log/logger.hpp"
#include "zlk/log.h"

using zlk::api::api_call_no_handle;

zlk_error_t zlk_log_add_callback(zlk_log_callback callback, zlk_log_callback_id * id) noexcept
{
    return api_call_no_handle("zlk_log_add_callback",
                              [&]() -> zlk_error_t
                              {
                                  if (!callback)
                                  {
                                      return zlk_e_invalid_argument;
                                  }
                                  // No logger while no handle is open: nothing is added, and the id says so.
                                  const auto added = zlk::log::add_callback(callback);
                                  if (id)
                                  {
                                      *id = added ? *added : static_cast<zlk_log_callback_id>(-1);
                                  }
                                  return zlk_e_ok;
                              });
}

zlk_error_t zlk_log_remove_callback(zlk_log_callback_id id) noexcept
{
    return api_call_no_handle("zlk_log_remove_callback",
                              [&]() -> zlk_error_t
                              { return zlk::log::remove_callback(id) ? zlk_e_ok : zlk_e_invalid_argument; });
}

void zlk_log_option_set_sync(int sync) noexcept
{
    api_call_no_handle("zlk_log_option_set_sync", [&] { zlk::log::set_sync(sync != 0); });
}

int zlk_log_option_is_sync(void) noexcept
{
    int sync = 0;
    api_call_no_handle("zlk_log_option_is_sync", [&] { sync = zlk::log::is_sync() ? 1 : 0; });
    return sync;
}
