/* Timing records of client-side steps, off by default. */
#ifndef ZLK_PERF_H
#define ZLK_PERF_H

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

typedef struct
{
    zlk_string_t label;
    /* Nanoseconds since the profile began. */
    int64_t elapsed;
} zlk_perf_measurement_t;

typedef struct
{
    zlk_string_t name;
    const zlk_perf_measurement_t * measurements;
    size_t count;
} zlk_perf_profile_t;

ZLK_API zlk_error_t zlk_perf_enable_client_tracking(zlk_handle_t handle) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_perf_disable_client_tracking(zlk_handle_t handle) ZLK_NOEXCEPT;
/* One block, given back by zlk_release; null and 0 when there is no profile. */
ZLK_API zlk_error_t zlk_perf_get_profiles(zlk_handle_t handle, zlk_perf_profile_t ** profiles, size_t * count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_perf_clear_all_profiles(zlk_handle_t handle) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_PERF_H */
