/* Tags a few entries on the cluster named on the command line, lists the entries of a tag and the
 * entries under a prefix, then removes what it made. Prints each step and exits with 0 when all of them
 * worked. Aliases end with the process id, so runs don't collide.
 *
 *     example_tags zlk://127.0.0.1:2836
 */
/* getpid() is POSIX; the build is strict C99. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <unistd.h>

#include "zlk/zlk.h"

#define ENTRY_COUNT 3

static int step(const char * what, zlk_error_t result)
{
    printf("%-22s -> %s\n", what, zlk_error(result));
    return ZLK_FAILURE(result) ? 1 : 0;
}

static void print_list(const char * title, const char ** list, size_t count)
{
    size_t i = 0;
    printf("%s (%u):\n", title, (unsigned)count);
    for (i = 0; i < count; ++i)
    {
        printf("    %s\n", list[i]);
    }
}

int main(int argc, char ** argv)
{
    zlk_handle_t h = NULL;
    const unsigned suffix = (unsigned)getpid();
    char prefix[64];
    char tag[64];
    char aliases[ENTRY_COUNT][96];
    const char ** list = NULL;
    size_t count = 0;
    uint64_t tagged = 0;
    size_t i = 0;
    int failed = 0;

    if (argc != 2)
    {
        fprintf(stderr, "usage: %s zlk://host:port[,host:port...]\n", argv[0]);
        return 2;
    }
    snprintf(prefix, sizeof prefix, "example.tags.%u.", suffix);
    snprintf(tag, sizeof tag, "example.colour.%u", suffix);
    for (i = 0; i < ENTRY_COUNT; ++i)
    {
        snprintf(aliases[i], sizeof aliases[i], "%sdoc%u", prefix, (unsigned)i);
    }

    if (zlk_open(&h, zlk_p_tcp) != zlk_e_ok)
    {
        fprintf(stderr, "could not open a handle\n");
        return 1;
    }
    failed = step("zlk_connect", zlk_connect(h, argv[1]));
    for (i = 0; !failed && i < ENTRY_COUNT; ++i)
    {
        failed = step("zlk_blob_put", zlk_blob_put(h, aliases[i], "doc", 3, zlk_never_expires));
    }
    /* The first two get the tag, the last one doesn't. */
    for (i = 0; !failed && i + 1 < ENTRY_COUNT; ++i)
    {
        failed = step("zlk_attach_tag", zlk_attach_tag(h, aliases[i], tag));
    }
    if (!failed && !(failed = step("zlk_get_tagged", zlk_get_tagged(h, tag, &list, &count))))
    {
        print_list(tag, list, count);
        zlk_release(h, list);
    }
    if (!failed && !(failed = step("zlk_get_tagged_count", zlk_get_tagged_count(h, tag, &tagged))))
    {
        printf("%s has %u entries\n", tag, (unsigned)tagged);
    }
    if (!failed && !(failed = step("zlk_prefix_get", zlk_prefix_get(h, prefix, 100, &list, &count))))
    {
        print_list(prefix, list, count);
        zlk_release(h, list);
    }
    /* Removing the tag takes its links along; removing the entries leaves nothing behind. */
    if (!failed)
    {
        failed = step("zlk_remove (tag)", zlk_remove(h, tag));
    }
    for (i = 0; !failed && i < ENTRY_COUNT; ++i)
    {
        failed = step("zlk_remove", zlk_remove(h, aliases[i]));
    }
    zlk_close(h);
    return failed;
}
