#ifndef ZLK_TAG_H
#define ZLK_TAG_H

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

ZLK_END_C

#endif /* ZLK_TAG_H */
