/* Operations on an entry of any type: removal, expiry, location, type and metadata. */
#ifndef ZLK_ENTRY_H
#define ZLK_ENTRY_H

#include <stdint.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* A node of the cluster: its address as zero-terminated text and its port. */
#ifndef ZLK_REMOTE_NODE_T_DEFINED
#define ZLK_REMOTE_NODE_T_DEFINED
typedef struct
{
    const char * address;
    uint16_t port;
} zlk_remote_node_t;
#endif

/* The type of an entry as callers see it. */
typedef int32_t zlk_entry_type_t;
#define zlk_entry_uninitialized ((zlk_entry_type_t)-1)
#define zlk_entry_blob ((zlk_entry_type_t)0)
#define zlk_entry_integer ((zlk_entry_type_t)1)
#define zlk_entry_hset ((zlk_entry_type_t)2)
#define zlk_entry_tag ((zlk_entry_type_t)3)
#define zlk_entry_deque ((zlk_entry_type_t)4)
#define zlk_entry_stream ((zlk_entry_type_t)5)
#define zlk_entry_ts ((zlk_entry_type_t)6)

typedef struct
{
    /* The entry's 256-bit key, as four little-endian 64-bit words, least significant first. */
    uint8_t reference[32];
    zlk_entry_type_t type;
    uint64_t size;
    zlk_timespec_t modification_time;
    /* All zero when the entry never expires. */
    zlk_timespec_t expiry_time;
} zlk_entry_metadata_t;

ZLK_API zlk_error_t zlk_remove(zlk_handle_t handle, const char * alias) ZLK_NOEXCEPT;

/* Sets the absolute time of expiry, in milliseconds since the epoch (0: never). */
ZLK_API zlk_error_t zlk_expires_at(zlk_handle_t handle, const char * alias,
                                   zlk_time_t expiry_time) ZLK_NOEXCEPT;

/* Sets the time of expiry relative to the node's clock. */
ZLK_API zlk_error_t zlk_expires_from_now(zlk_handle_t handle, const char * alias,
                                         int64_t milliseconds) ZLK_NOEXCEPT;

/* The time of expiry in milliseconds since the epoch; 0 when the entry never expires. */
ZLK_API zlk_error_t zlk_get_expiry_time(zlk_handle_t handle, const char * alias,
                                        zlk_time_t * expiry_time) ZLK_NOEXCEPT;

/* The node that owns the alias, from the handle's map of the ring: no node is asked, so success says
 * nothing of the entry's existence. location->address is released with zlk_release. */
ZLK_API zlk_error_t zlk_get_location(zlk_handle_t handle, const char * alias,
                                     zlk_remote_node_t * location) ZLK_NOEXCEPT;

ZLK_API zlk_error_t zlk_get_type(zlk_handle_t handle, const char * alias,
                                 zlk_entry_type_t * entry_type) ZLK_NOEXCEPT;

ZLK_API zlk_error_t zlk_get_metadata(zlk_handle_t handle, const char * alias,
                                     zlk_entry_metadata_t * metadata) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_ENTRY_H */
