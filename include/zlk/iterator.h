/* Entry iterators: a walk over every entry of the cluster, node after node round the ring, in the
 * ring's order of keys. There is no snapshot: an entry written or removed during the walk may be seen
 * or not. zlk_e_iterator_end is not a failure; the iterator stays usable after it. */
#ifndef ZLK_ITERATOR_H
#define ZLK_ITERATOR_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

typedef struct
{
    zlk_handle_t handle;
    /* The walk's state, owned by the library; null once closed. */
    const void * token;
    /* 256-bit ids (32 bytes) of the current node and of the current entry. */
    const void * node;
    const void * ref;
    const char * alias;
    /* The current entry's content, valid until the next move or the close. */
    const void * content;
    size_t content_size;
} zlk_const_iterator_t;

ZLK_API zlk_error_t zlk_iterator_begin(zlk_handle_t handle, zlk_const_iterator_t * iterator) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_iterator_rbegin(zlk_handle_t handle, zlk_const_iterator_t * iterator) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_iterator_next(zlk_const_iterator_t * iterator) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_iterator_previous(zlk_const_iterator_t * iterator) ZLK_NOEXCEPT;
/* A new state at the same place; the copy is closed on its own. */
ZLK_API zlk_error_t zlk_iterator_copy(const zlk_const_iterator_t * original,
                                      zlk_const_iterator_t * copy) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_iterator_close(zlk_const_iterator_t * iterator) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_ITERATOR_H */
