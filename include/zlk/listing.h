/* Listings over the whole ring: aliases by prefix or suffix, blobs whose content holds a pattern, and
 * counts. Each walks the ring node after node; max_count bounds the list (0 or less: an empty list).
 * A list is one block given back with zlk_release(handle, aliases); an empty list is null and 0. */
#ifndef ZLK_LISTING_H
#define ZLK_LISTING_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

ZLK_API zlk_error_t zlk_prefix_get(zlk_handle_t handle, const char * prefix, int64_t max_count,
                                   const char *** aliases, size_t * alias_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_prefix_count(zlk_handle_t handle, const char * prefix, uint64_t * count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_suffix_get(zlk_handle_t handle, const char * suffix, int64_t max_count,
                                   const char *** aliases, size_t * alias_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_suffix_count(zlk_handle_t handle, const char * suffix, uint64_t * count) ZLK_NOEXCEPT;

/* Blobs whose content contains the bytes of pattern, or matches the regular expression (ECMAScript
 * syntax without back-references, at most 1024 bytes; zlk_e_invalid_regex for one that doesn't
 * compile), searched in their uncompressed form. */
ZLK_API zlk_error_t zlk_blob_scan(zlk_handle_t handle, const void * pattern, size_t pattern_length,
                                  int64_t max_count, const char *** aliases,
                                  size_t * alias_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_blob_scan_regex(zlk_handle_t handle, const char * pattern, int64_t max_count,
                                        const char *** aliases, size_t * alias_count) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_LISTING_H */
