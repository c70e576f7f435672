/* The process-wide logger: callbacks receive every message at or above the minimum level. */
#ifndef ZLK_LOG_H
#define ZLK_LOG_H

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

typedef enum
{
    zlk_log_detailed = 100,
    zlk_log_debug = 200,
    zlk_log_info = 300,
    zlk_log_warning = 400,
    zlk_log_error = 500,
    zlk_log_panic = 600
} zlk_log_level_t;

/* date: year, month, day, hour, minute, second (UTC). The message is not zero-terminated and must
 * not be kept after the callback returns. Callbacks run on the logger's thread, or on the calling
 * thread when logging is synchronous: they must be thread-safe. */
typedef void (*zlk_log_callback)(zlk_log_level_t level,
                                 const uint64_t * date,
                                 uint64_t pid,
                                 uint64_t tid,
                                 const char * message,
                                 size_t message_size);

typedef size_t zlk_log_callback_id;

/* Adds a callback. With no handle open, the id is (zlk_log_callback_id)-1 and nothing is added. */
ZLK_API zlk_error_t zlk_log_add_callback(zlk_log_callback callback, zlk_log_callback_id * id) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_log_remove_callback(zlk_log_callback_id id) ZLK_NOEXCEPT;

/* When set, every exported function flushes the log before it returns. */
ZLK_API void zlk_log_option_set_sync(int sync) ZLK_NOEXCEPT;
ZLK_API int zlk_log_option_is_sync(void) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_LOG_H */
