// The public headers seen from C++: the same declarations, and every function noexcept.
#include "zlk/client.h"
#include "zlk/error.h"
#include "zlk/export.h"
#include "zlk/log.h"
#include "zlk/options.h"
#include "zlk/perf.h"
#include "zlk/types.h"
#include "zlk/zlk.h"

#include <type_traits>

static_assert(sizeof(zlk_error_t) == 4);
static_assert(sizeof(zlk_string_t) == 16);
static_assert(sizeof(zlk_timespec_t) == 16);
static_assert(std::is_signed_v<zlk_compression_t> && sizeof(zlk_compression_t) == 4);
static_assert(noexcept(zlk_open(nullptr, zlk_p_tcp)));
static_assert(noexcept(zlk_release(nullptr, nullptr)));
static_assert(noexcept(zlk_log_option_is_sync()));
static_assert(noexcept(zlk_perf_get_profiles(nullptr, nullptr, nullptr)));

int main()
{
    zlk_handle_t h = zlk_open_tcp();
    const bool ok = h != nullptr && zlk_option_set_compression(h, zlk_comp_best) == zlk_e_not_implemented &&
                    zlk_close(h) == zlk_e_ok;
    return ok ? 0 : 1;
}
