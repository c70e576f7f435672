/* Connects to the cluster named on the command line, waits for its ring to settle, and prints the nodes
 * it found in ring order. Exits with 0 when all of that worked.
 *
 *     example_cluster zlk://127.0.0.1:2836
 */
#include <stdio.h>

#include "zlk/zlk.h"

static int report(zlk_handle_t h, const char * what, zlk_error_t result)
{
    zlk_error_t error = result;
    zlk_string_t text = {NULL, 0};
    zlk_get_last_error(h, &error, &text);
    printf("%s -> 0x%08X (%.*s)\n", what, (unsigned)result, (int)text.length, text.data ? text.data : "");
    return ZLK_FAILURE(result) ? 1 : 0;
}

int main(int argc, char ** argv)
{
    zlk_handle_t h = NULL;
    zlk_remote_node_t * nodes = NULL;
    size_t count = 0;
    size_t i = 0;
    int failed = 0;

    if (argc != 2)
    {
        fprintf(stderr, "usage: %s zlk://host:port[,host:port...]\n", argv[0]);
        return 2;
    }
    if (zlk_open(&h, zlk_p_tcp) != zlk_e_ok)
    {
        fprintf(stderr, "could not open a handle\n");
        return 1;
    }

    failed = report(h, "zlk_connect", zlk_connect(h, argv[1]));
    if (!failed)
    {
        failed = report(h, "zlk_wait_for_stabilization", zlk_wait_for_stabilization(h, 10000));
    }
    if (!failed)
    {
        failed = report(h, "zlk_cluster_endpoints", zlk_cluster_endpoints(h, &nodes, &count));
    }
    if (!failed)
    {
        printf("%u node(s) on the ring:\n", (unsigned)count);
        for (i = 0; i < count; ++i)
        {
            printf("  %s:%u\n", nodes[i].address, (unsigned)nodes[i].port);
        }
        zlk_release(h, nodes);
    }

    zlk_close(h);
    return failed;
}
