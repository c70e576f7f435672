/* Handles, the last-error record, and the buffers the library hands to the caller. */
#ifndef ZLK_CLIENT_H
#define ZLK_CLIENT_H

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* Version of the library and a description of the build (commit, date and time). */
ZLK_API const char * zlk_version(void) ZLK_NOEXCEPT;
ZLK_API const char * zlk_build(void) ZLK_NOEXCEPT;

/* Creates a handle. Only zlk_p_tcp exists. On failure *handle is null. */
ZLK_API zlk_error_t zlk_open(zlk_handle_t * handle, zlk_api_protocol_t protocol) ZLK_NOEXCEPT;
/* zlk_open with TCP; a null handle on failure. */
ZLK_API zlk_handle_t zlk_open_tcp(void) ZLK_NOEXCEPT;
/* Ends a handle and frees everything it still tracks. */
ZLK_API zlk_error_t zlk_close(zlk_handle_t handle) ZLK_NOEXCEPT;

/* The result of the last call on this handle and its text. The text is the handle's own: it lives
 * until the next call on this handle and must not be freed. */
ZLK_API zlk_error_t zlk_get_last_error(zlk_handle_t handle, zlk_error_t * error, zlk_string_t * message) ZLK_NOEXCEPT;

/* Gives back anything the library handed out on this handle. Null pointers and unknown buffers are ignored. */
ZLK_API void zlk_release(zlk_handle_t handle, const void * buffer) ZLK_NOEXCEPT;

/* Copies size bytes into memory owned by the handle, to be given back by zlk_release. */
ZLK_API zlk_error_t zlk_copy_alloc_buffer(zlk_handle_t handle,
                                          const void * source,
                                          size_t size,
                                          const void ** destination) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_CLIENT_H */
