/* Direct connections: reading what one node itself holds, without routing. Only reads are
 * implemented; the write forms return zlk_e_not_implemented. */
#ifndef ZLK_DIRECT_H
#define ZLK_DIRECT_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

typedef struct zlk_direct_session * zlk_direct_handle_t;

/* A direct handle to the node named by node_uri, "zlk://host:port"; null on failure, the error then
 * being the last error of handle. Close it with zlk_direct_close before the parent handle. */
ZLK_API zlk_direct_handle_t zlk_direct_connect(zlk_handle_t handle, const char * node_uri) ZLK_NOEXCEPT;
ZLK_API void zlk_direct_close(zlk_direct_handle_t direct) ZLK_NOEXCEPT;

/* As zlk_blob_get and zlk_int_get, on this node only; the content is given back with
 * zlk_release(parent handle, *content). */
ZLK_API zlk_error_t zlk_direct_blob_get(zlk_direct_handle_t direct, const char * alias, const void ** content,
                                        size_t * content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_direct_int_get(zlk_direct_handle_t direct, const char * alias,
                                       int64_t * value) ZLK_NOEXCEPT;

/* As zlk_prefix_get, over what this node holds; the list is given back with
 * zlk_release(parent handle, *aliases). */
ZLK_API zlk_error_t zlk_direct_prefix_get(zlk_direct_handle_t direct, const char * prefix, int64_t max_count,
                                          const char *** aliases, size_t * alias_count) ZLK_NOEXCEPT;

/* Not implemented: always zlk_e_not_implemented. */
ZLK_API zlk_error_t zlk_direct_blob_put(zlk_direct_handle_t direct, const char * alias, const void * content,
                                        size_t content_length, zlk_time_t expiry_time) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_direct_blob_update(zlk_direct_handle_t direct, const char * alias,
                                           const void * content, size_t content_length,
                                           zlk_time_t expiry_time) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_direct_remove(zlk_direct_handle_t direct, const char * alias) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_direct_int_put(zlk_direct_handle_t direct, const char * alias, int64_t value,
                                       zlk_time_t expiry_time) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_direct_int_update(zlk_direct_handle_t direct, const char * alias, int64_t value,
                                          zlk_time_t expiry_time) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_direct_int_add(zlk_direct_handle_t direct, const char * alias, int64_t addend,
                                       int64_t * result) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_DIRECT_H */
