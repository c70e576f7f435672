#include "base/status_text.hpp"

ZLK_API const char * zlk_error(zlk_error_t error) noexcept
{
    return zlk::status_text(error);
}
