/* Settings of a handle. Numeric options may change while the handle is in use. */
#ifndef ZLK_OPTIONS_H
#define ZLK_OPTIONS_H

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* Request timeout in milliseconds, at least 1000, rounded down to whole seconds. */
ZLK_API zlk_error_t zlk_option_set_timeout(zlk_handle_t handle, int timeout_ms) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_option_get_timeout(zlk_handle_t handle, int * timeout_ms) ZLK_NOEXCEPT;

/* Largest reply the client accepts, at least 1024 bytes. */
ZLK_API zlk_error_t zlk_option_set_client_max_in_buf_size(zlk_handle_t handle, size_t max_size) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_option_get_client_max_in_buf_size(zlk_handle_t handle, size_t * max_size) ZLK_NOEXCEPT;
/* Read only: the limit the cluster reports. */
ZLK_API zlk_error_t zlk_option_get_cluster_max_in_buf_size(zlk_handle_t handle, size_t * max_size) ZLK_NOEXCEPT;

/* 0 turns the reconnect-and-retry of connection failures off; otherwise at least 1000 and the timeout. */
ZLK_API zlk_error_t zlk_option_set_stabilization_max_wait(zlk_handle_t handle, int max_wait_ms) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_option_get_stabilization_max_wait(zlk_handle_t handle, int * max_wait_ms) ZLK_NOEXCEPT;

/* 0 turns the retry of conflicts off; otherwise at least 1000 and the timeout. */
ZLK_API zlk_error_t zlk_option_set_transaction_max_wait(zlk_handle_t handle, int max_wait_ms) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_option_get_transaction_max_wait(zlk_handle_t handle, int * max_wait_ms) ZLK_NOEXCEPT;

/* Time an asynchronous batch push may take, not negative. */
ZLK_API zlk_error_t zlk_option_set_ts_batch_push_async_timeout(zlk_handle_t handle, int timeout_ms) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_option_get_ts_batch_push_async_timeout(zlk_handle_t handle, int * timeout_ms) ZLK_NOEXCEPT;

/* Largest number of entries a FIND may return, at least 100. */
ZLK_API zlk_error_t zlk_option_set_max_cardinality(zlk_handle_t handle, uint64_t max_cardinality) ZLK_NOEXCEPT;

/* zlk_comp_best is not available; values above it are invalid. */
ZLK_API zlk_error_t zlk_option_set_compression(zlk_handle_t handle, zlk_compression_t level) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_OPTIONS_H */
