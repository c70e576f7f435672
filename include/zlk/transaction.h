/* Transactions: the records of a batch (zlk/batch.h), all taking effect or none. */
#ifndef ZLK_TRANSACTION_H
#define ZLK_TRANSACTION_H

#include <stddef.h>

#include "zlk/batch.h"
#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* 0 when the transaction has committed. *failed_index receives the position of the first record that
 * failed (0 on success); records after it stay at zlk_e_operation_skipped. A conflict with another
 * transaction runs the whole transaction again, with a new stamp, within zlk_option_set_transaction_max_wait.
 */
ZLK_API zlk_error_t zlk_run_transaction(zlk_handle_t handle, zlk_operation_t * operations, size_t count,
                                        size_t * failed_index) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_TRANSACTION_H */
