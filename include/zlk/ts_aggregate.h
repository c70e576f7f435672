#ifndef ZLK_TS_AGGREGATE_H
#define ZLK_TS_AGGREGATE_H

#include "zlk/error.h"
#include "zlk/ts_types.h"

ZLK_BEGIN_C

ZLK_END_C

#endif /* ZLK_TS_AGGREGATE_H */
