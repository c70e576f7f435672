#ifndef ZLK_LISTING_H
#define ZLK_LISTING_H

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

ZLK_END_C

#endif /* ZLK_LISTING_H */
