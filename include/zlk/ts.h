#ifndef ZLK_TS_H
#define ZLK_TS_H

#include "zlk/error.h"
#include "zlk/ts_types.h"

ZLK_BEGIN_C

ZLK_END_C

#endif /* ZLK_TS_H */
