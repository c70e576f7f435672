/* Plain types shared by every family of functions. */
#ifndef ZLK_TYPES_H
#define ZLK_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/export.h"

ZLK_BEGIN_C

/* A view of characters: not zero-terminated by contract. */
typedef struct
{
    const char * data;
    uint64_t length;
} zlk_string_t;

/* Milliseconds since the epoch. 0 never expires; -1 keeps the current expiry. */
typedef int64_t zlk_time_t;

#define zlk_never_expires ((zlk_time_t)0)
#define zlk_preserve_expiration ((zlk_time_t)-1)

typedef struct
{
    int64_t tv_sec;
    int64_t tv_nsec;
} zlk_timespec_t;

/* Begin included, end excluded. */
typedef struct
{
    zlk_timespec_t begin;
    zlk_timespec_t end;
} zlk_ts_range_t;

/* Opaque handle to a client instance. */
typedef struct zlk_session * zlk_handle_t;

/* Transport of a handle; TCP is the only one. */
typedef uint32_t zlk_api_protocol_t;
#define zlk_p_tcp ((zlk_api_protocol_t)0)

/* Compression of written content (a hint for writers: readers recognise compressed content). */
typedef int32_t zlk_compression_t;
#define zlk_comp_none ((zlk_compression_t)0)
#define zlk_comp_fast ((zlk_compression_t)1)
#define zlk_comp_best ((zlk_compression_t)2)

ZLK_END_C

#endif /* ZLK_TYPES_H */
