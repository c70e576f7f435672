/* The query language: FIND over entries, and the record a query hands back.
 *
 * A query result is one block owned by the library: release it with zlk_release(handle, result). Its
 * cells point into that block, blob and string cells included. */
#ifndef ZLK_QUERY_H
#define ZLK_QUERY_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* The type of a cell. */
typedef int32_t zlk_query_result_value_type_t;
#define zlk_query_result_none ((zlk_query_result_value_type_t)-1)
#define zlk_query_result_double ((zlk_query_result_value_type_t)0)
#define zlk_query_result_blob ((zlk_query_result_value_type_t)1)
#define zlk_query_result_int64 ((zlk_query_result_value_type_t)2)
#define zlk_query_result_timestamp ((zlk_query_result_value_type_t)3)
#define zlk_query_result_count_and_sum ((zlk_query_result_value_type_t)4)
#define zlk_query_result_string ((zlk_query_result_value_type_t)5)

/* One cell, 24 bytes: the type, then a 16-byte payload at the next 8-byte boundary. A none cell has a
 * zero payload. The numeric pair (type 4) is the sum of an int64 column in two words: the exact integer
 * part, then the bits of a double holding what overflowed it. */
typedef struct
{
    zlk_query_result_value_type_t type;
    union
    {
        struct
        {
            double value;
            int64_t unused;
        } double_;
        struct
        {
            const void * content;
            size_t content_length;
        } blob;
        struct
        {
            int64_t value;
            int64_t unused;
        } int64_;
        zlk_timespec_t timestamp;
        struct
        {
            int64_t first;
            int64_t second;
        } pair;
        struct
        {
            const char * content;
            size_t content_length;
        } string;
    } payload;
} zlk_point_result;

typedef struct
{
    zlk_string_t * column_names;
    uint64_t column_count;
    /* row_count rows of column_count cells each. */
    zlk_point_result ** rows;
    uint64_t row_count;
    uint64_t scanned_point_count;
    /* What the statement had to say, possibly empty. */
    zlk_string_t error_message;
} zlk_query_result;

/* Runs one statement of the query language. On success *result holds the column names and rows; a
 * statement that failed with messages also gives a result, holding only them in error_message. Release
 * a result with zlk_release(handle, result). Parse errors fail with zlk_e_invalid_query and say where
 * in the last error. */
ZLK_API zlk_error_t zlk_query(zlk_handle_t handle, const char * query,
                              zlk_query_result ** result) ZLK_NOEXCEPT;

/* Entries by tags, a prefix and a type, for instance
 *     FIND(TAG='sensors' AND NOT TAG='retired' AND PREFIX='eu.' AND TYPE=TS)
 * TYPE is one of BLOB, INTEGER, HSET, TAG, STREAM, DEQUE or TS. The request needs an accepted tag or a
 * prefix, and at most one prefix. The aliases come back sorted by their bytes, as one list owned by the
 * library: release it with zlk_release(handle, aliases). A request that would read more aliases than the
 * handle's maximum cardinality fails with zlk_e_invalid_query before it reads them; every refused text
 * fails with zlk_e_invalid_query and says why in the last error. */
ZLK_API zlk_error_t zlk_query_find(zlk_handle_t handle, const char * query, const char *** aliases,
                                   size_t * alias_count) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_QUERY_H */
