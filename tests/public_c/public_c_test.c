/* Every public header, one after the other and together, from a strict C99 program. */
#include "zlk/batch.h"
#include "zlk/blob.h"
#include "zlk/client.h"
#include "zlk/cluster.h"
#include "zlk/direct.h"
#include "zlk/entry.h"
#include "zlk/error.h"
#include "zlk/export.h"
#include "zlk/integer.h"
#include "zlk/iterator.h"
#include "zlk/listing.h"
#include "zlk/log.h"
#include "zlk/node_admin.h"
#include "zlk/options.h"
#include "zlk/perf.h"
#include "zlk/tag.h"
#include "zlk/transaction.h"
#include "zlk/ts.h"
#include "zlk/ts_aggregate.h"
#include "zlk/ts_batch.h"
#include "zlk/ts_local_table.h"
#include "zlk/ts_types.h"
#include "zlk/types.h"
#include "zlk/zlk.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;

static void check(int condition, const char * what)
{
    if (!condition)
    {
        fprintf(stderr, "failed: %s\n", what);
        ++failures;
    }
}

int main(void)
{
    zlk_handle_t h = NULL;
    zlk_error_t last = zlk_e_uninitialized;
    zlk_string_t text = {NULL, 0};
    const void * copy = NULL;
    int timeout = 0;
    const char payload[] = "c99";

    check(zlk_version() != NULL && zlk_build() != NULL, "version and build texts");
    check(ZLK_SUCCESS(zlk_e_iterator_end) && ZLK_FAILURE(zlk_e_alias_not_found), "severity test");
    check(ZLK_ERROR_ORIGIN(zlk_e_timeout) == zlk_eo_connection, "connection origin");

    check(zlk_open(&h, zlk_p_tcp) == zlk_e_ok && h != NULL, "zlk_open");
    check(zlk_option_set_timeout(h, 2500) == zlk_e_ok, "set timeout");
    check(zlk_option_get_timeout(h, &timeout) == zlk_e_ok && timeout == 2000, "timeout rounded to seconds");
    check(zlk_get_last_error(h, &last, &text) == zlk_e_ok && last == zlk_e_ok, "last error after success");
    check(text.length > 0 && strncmp(text.data, "at zlk_option_get_timeout: ", 27) == 0, "last error text");

    check(zlk_copy_alloc_buffer(h, payload, sizeof(payload), &copy) == zlk_e_ok && copy != NULL, "copy");
    check(copy != NULL && memcmp(copy, payload, sizeof(payload)) == 0, "copied bytes");
    zlk_release(h, copy);

    check(zlk_close(h) == zlk_e_ok, "zlk_close");
    check(zlk_close(NULL) == zlk_e_invalid_handle, "close of a null handle");

    printf("%d passed, %d failed\n", failures == 0 ? 1 : 0, failures == 0 ? 0 : 1);
    return failures == 0 ? 0 : 1;
}
