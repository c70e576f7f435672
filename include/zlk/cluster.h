/* Connecting a handle to a cluster, and what the handle knows of the cluster's ring. */
#ifndef ZLK_CLUSTER_H
#define ZLK_CLUSTER_H

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

/* Connects to the cluster named by uri, "zlk://host:port,host:port,...": any one reachable node is
 * enough to find the others. A cluster whose ring hasn't settled yet is no failure: requests wait for
 * it (see zlk_option_set_stabilization_max_wait). */
ZLK_API zlk_error_t zlk_connect(zlk_handle_t handle, const char * uri) ZLK_NOEXCEPT;

/* Blocks until the ring can be read without a connection error, at most timeout_ms milliseconds;
 * zlk_e_timeout after that. With 0, succeeds only if the ring reads at once. */
ZLK_API zlk_error_t zlk_wait_for_stabilization(zlk_handle_t handle, int timeout_ms) ZLK_NOEXCEPT;

/* The nodes of the ring, in ring order: one block given back with zlk_release(handle, *endpoints). */
ZLK_API zlk_error_t zlk_cluster_endpoints(zlk_handle_t handle, zlk_remote_node_t ** endpoints,
                                          size_t * count) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_CLUSTER_H */
