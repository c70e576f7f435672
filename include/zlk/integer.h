/* Integer entries: one signed 64-bit number under an alias. */
#ifndef ZLK_INTEGER_H
#define ZLK_INTEGER_H

#include <stdint.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

ZLK_API zlk_error_t zlk_int_get(zlk_handle_t handle, const char * alias, int64_t * value) ZLK_NOEXCEPT;

/* Creates the entry; zlk_e_alias_already_exists if the alias is taken. */
ZLK_API zlk_error_t zlk_int_put(zlk_handle_t handle, const char * alias, int64_t value,
                                zlk_time_t expiry_time) ZLK_NOEXCEPT;

/* Replaces or creates the entry: zlk_e_ok_created when it was created. */
ZLK_API zlk_error_t zlk_int_update(zlk_handle_t handle, const char * alias, int64_t value,
                                   zlk_time_t expiry_time) ZLK_NOEXCEPT;

/* Adds addend atomically, keeping the expiry; the new value goes to *result when result isn't null.
 * zlk_e_overflow and zlk_e_underflow leave the entry as it was. */
ZLK_API zlk_error_t zlk_int_add(zlk_handle_t handle, const char * alias, int64_t addend,
                                int64_t * result) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_INTEGER_H */
