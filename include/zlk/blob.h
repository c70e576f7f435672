/* Blob entries: an alias, uninterpreted bytes and an optional time of expiry.
 *
 * Content handed out (get, get_and_update, get_and_remove, compare_and_swap) is owned by the handle and
 * given back with zlk_release. Written content may be compressed on the way (zlk_option_set_compression);
 * any reader recognises it. */
#ifndef ZLK_BLOB_H
#define ZLK_BLOB_H

#include <stddef.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* Creates the entry; zlk_e_alias_already_exists if there is one. A null content goes only with length 0. */
ZLK_API zlk_error_t zlk_blob_put(zlk_handle_t handle, const char * alias, const void * content,
                                 size_t content_length, zlk_time_t expiry_time) ZLK_NOEXCEPT;

/* Replaces or creates the entry: zlk_e_ok_created when it was created. */
ZLK_API zlk_error_t zlk_blob_update(zlk_handle_t handle, const char * alias, const void * content,
                                    size_t content_length, zlk_time_t expiry_time) ZLK_NOEXCEPT;

/* The content, released with zlk_release. An empty blob gives a null pointer and length 0. */
ZLK_API zlk_error_t zlk_blob_get(zlk_handle_t handle, const char * alias, const void ** content,
                                 size_t * content_length) ZLK_NOEXCEPT;

/* The content copied into destination, of *destination_length bytes; *destination_length receives the
 * content's size. zlk_e_buffer_too_small, with the size needed, when it doesn't fit. */
ZLK_API zlk_error_t zlk_blob_get_noalloc(zlk_handle_t handle, const char * alias, void * destination,
                                         size_t * destination_length) ZLK_NOEXCEPT;

/* Replaces the content and gives the old one. */
ZLK_API zlk_error_t zlk_blob_get_and_update(zlk_handle_t handle, const char * alias, const void * new_content,
                                            size_t new_content_length, zlk_time_t expiry_time,
                                            const void ** old_content,
                                            size_t * old_content_length) ZLK_NOEXCEPT;

/* Removes the entry and gives its content. */
ZLK_API zlk_error_t zlk_blob_get_and_remove(zlk_handle_t handle, const char * alias, const void ** content,
                                            size_t * content_length) ZLK_NOEXCEPT;

/* Removes the entry if its content is comparand; zlk_e_unmatched_content otherwise. */
ZLK_API zlk_error_t zlk_blob_remove_if(zlk_handle_t handle, const char * alias, const void * comparand,
                                       size_t comparand_length) ZLK_NOEXCEPT;

/* Replaces the content by new_content if it is comparand. Otherwise zlk_e_unmatched_content, and
 * original receives the stored content (released with zlk_release). */
ZLK_API zlk_error_t zlk_blob_compare_and_swap(zlk_handle_t handle, const char * alias,
                                              const void * new_content, size_t new_content_length,
                                              const void * comparand, size_t comparand_length,
                                              zlk_time_t expiry_time, const void ** original_content,
                                              size_t * original_content_length) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_BLOB_H */
