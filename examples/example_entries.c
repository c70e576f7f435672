/* Stores, reads, changes and removes a few entries on the cluster named on the command line: a blob, an
 * integer, a batch of puts and gets, and a transaction over two keys. Prints the status of each step and
 * exits with 0 when all of them worked. Aliases end with the process id, so runs don't collide.
 *
 *     example_entries zlk://127.0.0.1:2836
 */
/* getpid() is POSIX; the build is strict C99. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <unistd.h>

#include "zlk/zlk.h"

#define BATCH_SIZE 4

static int step(const char * what, zlk_error_t result)
{
    printf("%-22s -> %s\n", what, zlk_error(result));
    return ZLK_FAILURE(result) ? 1 : 0;
}

static void make_alias(char * out, size_t size, const char * name, unsigned suffix)
{
    snprintf(out, size, "example.%s.%u", name, suffix);
}

static int blob_steps(zlk_handle_t h, const char * alias)
{
    static const char first[] = "hello, ring";
    static const char second[] = "hello again";
    const void * content = NULL;
    size_t length = 0;

    if (step("zlk_blob_put", zlk_blob_put(h, alias, first, sizeof first - 1, zlk_never_expires)))
    {
        return 1;
    }
    if (step("zlk_blob_get", zlk_blob_get(h, alias, &content, &length)))
    {
        return 1;
    }
    printf("  %s = \"%.*s\"\n", alias, (int)length, (const char *)content);
    zlk_release(h, content);

    if (step("zlk_blob_update",
             zlk_blob_update(h, alias, second, sizeof second - 1, zlk_preserve_expiration)))
    {
        return 1;
    }
    if (step("zlk_blob_get", zlk_blob_get(h, alias, &content, &length)))
    {
        return 1;
    }
    printf("  %s = \"%.*s\"\n", alias, (int)length, (const char *)content);
    zlk_release(h, content);
    return 0;
}

static int integer_steps(zlk_handle_t h, const char * alias)
{
    int64_t value = 0;
    if (step("zlk_int_put", zlk_int_put(h, alias, 40, zlk_never_expires)))
    {
        return 1;
    }
    if (step("zlk_int_add", zlk_int_add(h, alias, 2, &value)))
    {
        return 1;
    }
    printf("  %s = %lld\n", alias, (long long)value);
    return 0;
}

/* Puts BATCH_SIZE blobs in one batch, then reads them back in another. */
static int batch_steps(zlk_handle_t h, char aliases[BATCH_SIZE][64])
{
    static const char content[] = "batched";
    zlk_operation_t ops[BATCH_SIZE];
    size_t i = 0;
    size_t done = 0;
    int failed = 0;

    zlk_init_operations(ops, BATCH_SIZE);
    for (i = 0; i < BATCH_SIZE; ++i)
    {
        ops[i].type = zlk_op_blob_put;
        ops[i].alias = aliases[i];
        ops[i].fields.blob_put.content = content;
        ops[i].fields.blob_put.content_length = sizeof content - 1;
        ops[i].fields.blob_put.expiry_time = zlk_never_expires;
    }
    done = zlk_run_batch(h, ops, BATCH_SIZE);
    printf("%-22s -> %u of %u succeeded\n", "zlk_run_batch (put)", (unsigned)done, (unsigned)BATCH_SIZE);
    if (done != BATCH_SIZE)
    {
        return 1;
    }

    zlk_init_operations(ops, BATCH_SIZE);
    for (i = 0; i < BATCH_SIZE; ++i)
    {
        ops[i].type = zlk_op_blob_get;
        ops[i].alias = aliases[i];
    }
    done = zlk_run_batch(h, ops, BATCH_SIZE);
    printf("%-22s -> %u of %u succeeded\n", "zlk_run_batch (get)", (unsigned)done, (unsigned)BATCH_SIZE);
    for (i = 0; i < BATCH_SIZE; ++i)
    {
        if (ZLK_FAILURE(ops[i].error))
        {
            printf("  %s: %s\n", ops[i].alias, zlk_error(ops[i].error));
            failed = 1;
            continue;
        }
        printf("  %s = \"%.*s\"\n", ops[i].alias, (int)ops[i].fields.blob_get.content_length,
               (const char *)ops[i].fields.blob_get.content);
        zlk_release(h, ops[i].fields.blob_get.content);
    }
    return failed || done != BATCH_SIZE;
}

/* Moves 10 from one integer to the other: both changes or neither. */
static int transaction_steps(zlk_handle_t h, const char * from, const char * to)
{
    zlk_operation_t ops[2];
    size_t failed_index = 0;
    zlk_error_t result = zlk_e_ok;

    if (step("zlk_int_put", zlk_int_put(h, from, 100, zlk_never_expires)) ||
        step("zlk_int_put", zlk_int_put(h, to, 0, zlk_never_expires)))
    {
        return 1;
    }
    zlk_init_operations(ops, 2);
    ops[0].type = zlk_op_int_add;
    ops[0].alias = from;
    ops[0].fields.int_add.addend = -10;
    ops[1].type = zlk_op_int_add;
    ops[1].alias = to;
    ops[1].fields.int_add.addend = 10;
    result = zlk_run_transaction(h, ops, 2, &failed_index);
    if (step("zlk_run_transaction", result))
    {
        printf("  record %u failed: %s\n", (unsigned)failed_index, zlk_error(ops[failed_index].error));
        return 1;
    }
    printf("  %s = %lld, %s = %lld\n", from, (long long)ops[0].fields.int_add.result, to,
           (long long)ops[1].fields.int_add.result);
    return 0;
}

int main(int argc, char ** argv)
{
    zlk_handle_t h = NULL;
    const unsigned suffix = (unsigned)getpid();
    char blob[64];
    char integer[64];
    char from[64];
    char to[64];
    char batched[BATCH_SIZE][64];
    size_t i = 0;
    int failed = 0;

    if (argc != 2)
    {
        fprintf(stderr, "usage: %s zlk://host:port[,host:port...]\n", argv[0]);
        return 2;
    }
    make_alias(blob, sizeof blob, "blob", suffix);
    make_alias(integer, sizeof integer, "counter", suffix);
    make_alias(from, sizeof from, "from", suffix);
    make_alias(to, sizeof to, "to", suffix);
    for (i = 0; i < BATCH_SIZE; ++i)
    {
        char name[16];
        snprintf(name, sizeof name, "batch%u", (unsigned)i);
        make_alias(batched[i], sizeof batched[i], name, suffix);
    }

    if (zlk_open(&h, zlk_p_tcp) != zlk_e_ok)
    {
        fprintf(stderr, "could not open a handle\n");
        return 1;
    }
    failed = step("zlk_connect", zlk_connect(h, argv[1]));
    if (!failed)
    {
        failed = blob_steps(h, blob);
    }
    if (!failed)
    {
        failed = integer_steps(h, integer);
    }
    if (!failed)
    {
        failed = batch_steps(h, batched);
    }
    if (!failed)
    {
        failed = transaction_steps(h, from, to);
    }

    /* Clean up whatever exists, even after a failure; a missing entry is not an error here. */
    if (!failed)
    {
        failed |= step("zlk_remove", zlk_remove(h, blob));
        failed |= step("zlk_remove", zlk_remove(h, integer));
        failed |= step("zlk_remove", zlk_remove(h, from));
        failed |= step("zlk_remove", zlk_remove(h, to));
        for (i = 0; i < BATCH_SIZE; ++i)
        {
            failed |= step("zlk_remove", zlk_remove(h, batched[i]));
        }
    }
    else
    {
        zlk_remove(h, blob);
        zlk_remove(h, integer);
        zlk_remove(h, from);
        zlk_remove(h, to);
        for (i = 0; i < BATCH_SIZE; ++i)
        {
            zlk_remove(h, batched[i]);
        }
    }

    zlk_close(h);
    printf("%s\n", failed ? "failed" : "done");
    return failed;
}
