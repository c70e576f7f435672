#ifndef ZLK_ITERATOR_H
#define ZLK_ITERATOR_H

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

ZLK_END_C

#endif /* ZLK_ITERATOR_H */
