/* Batches: an array of operation records run in one call. Each record gets its own status in `error`;
 * a batch is not atomic (see zlk_run_transaction for the atomic form of the same records). */
#ifndef ZLK_BATCH_H
#define ZLK_BATCH_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

typedef int32_t zlk_operation_type_t;
#define zlk_op_uninitialized ((zlk_operation_type_t)-1)
#define zlk_op_blob_get ((zlk_operation_type_t)0)
#define zlk_op_blob_put ((zlk_operation_type_t)1)
#define zlk_op_blob_update ((zlk_operation_type_t)2)
#define zlk_op_blob_cas ((zlk_operation_type_t)4)
#define zlk_op_blob_get_and_update ((zlk_operation_type_t)5)
#define zlk_op_entry_info_of ((zlk_operation_type_t)8)
#define zlk_op_int_put ((zlk_operation_type_t)9)
#define zlk_op_int_update ((zlk_operation_type_t)10)
#define zlk_op_int_get ((zlk_operation_type_t)11)
#define zlk_op_int_add ((zlk_operation_type_t)12)
#define zlk_op_entry_info ((zlk_operation_type_t)13)

/* Results that point to content are released with zlk_release. */
typedef struct
{
    const void * content;
    size_t content_length;
} zlk_blob_get_op_t;

typedef struct
{
    const void * content;
    size_t content_length;
    zlk_time_t expiry_time;
} zlk_blob_put_op_t;

typedef struct
{
    const void * comparand;
    size_t comparand_length;
    const void * new_content;
    size_t new_content_length;
    zlk_time_t expiry_time;
    const void * original_content;
    size_t original_content_length;
} zlk_blob_cas_op_t;

typedef struct
{
    const void * new_content;
    size_t new_content_length;
    zlk_time_t expiry_time;
    const void * original_content;
    size_t original_content_length;
} zlk_blob_get_and_update_op_t;

typedef struct
{
    const char * alias;
} zlk_entry_info_of_op_t;

typedef struct
{
    int64_t value;
    zlk_time_t expiry_time;
} zlk_int_put_op_t;

typedef struct
{
    int64_t result;
} zlk_int_get_op_t;

typedef struct
{
    int64_t addend;
    int64_t result;
} zlk_int_add_op_t;

typedef struct
{
    zlk_operation_type_t type;
    const char * alias;
    zlk_error_t error;
    /* The member named by type. */
    union
    {
        zlk_blob_get_op_t blob_get;
        zlk_blob_put_op_t blob_put;
        zlk_blob_put_op_t blob_update;
        zlk_blob_cas_op_t blob_cas;
        zlk_blob_get_and_update_op_t blob_get_and_update;
        zlk_entry_info_of_op_t entry_info_of;
        zlk_int_put_op_t int_put;
        zlk_int_put_op_t int_update;
        zlk_int_get_op_t int_get;
        zlk_int_add_op_t int_add;
        uint8_t reserved[64];
    } fields;
} zlk_operation_t;

/* Zeroes each record, with type zlk_op_uninitialized and error zlk_e_uninitialized. */
ZLK_API zlk_error_t zlk_init_operations(zlk_operation_t * operations, size_t count) ZLK_NOEXCEPT;

/* Runs the records, grouped by the node that owns them. Returns how many ended with zlk_e_ok or
 * zlk_e_ok_created; the overall outcome is the handle's last error. */
ZLK_API size_t zlk_run_batch(zlk_handle_t handle, zlk_operation_t * operations, size_t count) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_BATCH_H */
