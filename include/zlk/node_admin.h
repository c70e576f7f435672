/* Speaking to one node by its URI, or to every node of the ring at once: status and configuration
 * documents, stopping a node, and the purges. */
#ifndef ZLK_NODE_ADMIN_H
#define ZLK_NODE_ADMIN_H

#include <stddef.h>

#include "zlk/error.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* The node's status as JSON text (not zero-terminated): give it back with zlk_release(handle,
 * *content). uri names one node, "zlk://host:port", at most 1000 characters. */
ZLK_API zlk_error_t zlk_node_status(zlk_handle_t handle, const char * uri, const char ** content,
                                    size_t * length) ZLK_NOEXCEPT;

/* The node's configuration as JSON text, {"global": {...}, "local": {...}}. */
ZLK_API zlk_error_t zlk_node_config(zlk_handle_t handle, const char * uri, const char ** content,
                                    size_t * length) ZLK_NOEXCEPT;

/* The node's place on the ring as JSON text: "predecessor", "center", "successor", each with "id" and
 * "endpoint". */
ZLK_API zlk_error_t zlk_node_topology(zlk_handle_t handle, const char * uri, const char ** content,
                                      size_t * length) ZLK_NOEXCEPT;

/* Asks the node to stop; the reason goes to its log. A node that doesn't allow it refuses. */
ZLK_API zlk_error_t zlk_node_stop(zlk_handle_t handle, const char * uri, const char * reason) ZLK_NOEXCEPT;

/* Asks the node to interrupt the work of its partitions. */
ZLK_API zlk_error_t zlk_node_interrupt_partition(zlk_handle_t handle, const char * uri) ZLK_NOEXCEPT;

/* Removes every entry on every node. All nodes have to be reached; migration and replication are
 * stopped for the time of the purge. */
ZLK_API zlk_error_t zlk_purge_all(zlk_handle_t handle, int timeout_ms) ZLK_NOEXCEPT;

/* Asks every node to trim what it holds (expired entries, old versions). */
ZLK_API zlk_error_t zlk_trim_all(zlk_handle_t handle, int timeout_ms) ZLK_NOEXCEPT;

/* Asks every node to drop its cache. */
ZLK_API zlk_error_t zlk_purge_cache(zlk_handle_t handle, int timeout_ms) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_NODE_ADMIN_H */
