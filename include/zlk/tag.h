/* Tags: an entry marked with a tag (itself an entry) can be found by the tag, and its tags by the
 * entry. Lists are one block given back with zlk_release(handle, list); an empty list is null and 0. */
#ifndef ZLK_TAG_H
#define ZLK_TAG_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/entry.h"
#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* zlk_e_tag_already_set, not a failure, when the entry had the tag. The tag entry is made when
 * missing; an entry of that name of another type gives zlk_e_incompatible_type. */
ZLK_API zlk_error_t zlk_attach_tag(zlk_handle_t handle, const char * alias, const char * tag) ZLK_NOEXCEPT;
/* All in one transaction; zlk_e_tag_already_set only when the entry had every one of them. */
ZLK_API zlk_error_t zlk_attach_tags(zlk_handle_t handle, const char * alias, const char * const * tags,
                                    size_t tag_count) ZLK_NOEXCEPT;
/* zlk_e_tag_not_set when the entry hasn't the tag. */
ZLK_API zlk_error_t zlk_has_tag(zlk_handle_t handle, const char * alias, const char * tag) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_detach_tag(zlk_handle_t handle, const char * alias, const char * tag) ZLK_NOEXCEPT;
/* All in one transaction; zlk_e_tag_not_set only when the entry had none of them. */
ZLK_API zlk_error_t zlk_detach_tags(zlk_handle_t handle, const char * alias, const char * const * tags,
                                    size_t tag_count) ZLK_NOEXCEPT;

ZLK_API zlk_error_t zlk_get_tagged(zlk_handle_t handle, const char * tag, const char *** aliases,
                                   size_t * alias_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_get_tagged_count(zlk_handle_t handle, const char * tag,
                                         uint64_t * count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_get_tags(zlk_handle_t handle, const char * alias, const char *** tags,
                                 size_t * tag_count) ZLK_NOEXCEPT;

/* A walk over the entries of a tag, forward only. magic is ZLK_TAG_ITERATOR_LIVE while the state
 * lives; at the end alias is null and type -1. */
#define ZLK_TAG_ITERATOR_LIVE 0x5A1E7C0Du
#define ZLK_TAG_ITERATOR_DEAD 0xDEADBEEFu

typedef struct
{
    zlk_handle_t handle;
    const void * token;
    uint32_t magic;
    const char * alias;
    zlk_entry_type_t type;
} zlk_const_tag_iterator_t;

ZLK_API zlk_error_t zlk_tag_iterator_begin(zlk_handle_t handle, const char * tag,
                                           zlk_const_tag_iterator_t * iterator) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_tag_iterator_next(zlk_const_tag_iterator_t * iterator) ZLK_NOEXCEPT;
/* Always zlk_e_not_implemented: tag walks go forward only. */
ZLK_API zlk_error_t zlk_tag_iterator_previous(zlk_const_tag_iterator_t * iterator) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_tag_iterator_close(zlk_const_tag_iterator_t * iterator) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_TAG_H */
