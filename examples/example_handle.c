/* A tour of a handle: open it, change and read options, read the last error, copy and release a
 * buffer, log through a callback, close it. Exits with 0 when every step did what it should. */
#include <stdio.h>
#include <string.h>

#include "zlk/zlk.h"

static int messages = 0;

static void on_log(zlk_log_level_t level, const uint64_t * date, uint64_t pid, uint64_t tid,
                   const char * message, size_t message_size)
{
    (void)pid;
    (void)tid;
    ++messages;
    printf("  log %d %04u-%02u-%02u %02u:%02u:%02u %.*s\n", (int)level, (unsigned)date[0], (unsigned)date[1],
           (unsigned)date[2], (unsigned)date[3], (unsigned)date[4], (unsigned)date[5], (int)message_size,
           message);
}

static void print_last_error(zlk_handle_t h)
{
    zlk_error_t error = zlk_e_uninitialized;
    zlk_string_t text = {NULL, 0};
    zlk_get_last_error(h, &error, &text);
    printf("  last error 0x%08X: %.*s\n", (unsigned)error, (int)text.length, text.data ? text.data : "");
}

static int step(const char * what, zlk_error_t result, zlk_error_t expected)
{
    printf("%s -> 0x%08X (%s)\n", what, (unsigned)result, zlk_error(result));
    if (result != expected)
    {
        printf("  expected 0x%08X\n", (unsigned)expected);
        return 1;
    }
    return 0;
}

int main(void)
{
    int failed = 0;
    zlk_handle_t h = NULL;
    zlk_log_callback_id callback = 0;
    int timeout = 0;
    const char greeting[] = "hello, zelkoria";
    const void * copy = NULL;

    printf("zlk %s, build %s\n", zlk_version(), zlk_build());

    failed |= step("open a TCP handle", zlk_open(&h, zlk_p_tcp), zlk_e_ok);
    if (!h)
    {
        return 1;
    }

    /* The logger runs while a handle is open; synchronous logging delivers each call's lines before
     * it returns. */
    zlk_log_option_set_sync(1);
    failed |= step("add a log callback", zlk_log_add_callback(on_log, &callback), zlk_e_ok);

    failed |= step("set the timeout to 2500 ms", zlk_option_set_timeout(h, 2500), zlk_e_ok);
    failed |= step("read the timeout", zlk_option_get_timeout(h, &timeout), zlk_e_ok);
    printf("  timeout is %d ms (whole seconds)\n", timeout);
    failed |= timeout != 2000;
    print_last_error(h);

    failed |= step("set the timeout to 10 ms", zlk_option_set_timeout(h, 10), zlk_e_invalid_argument);
    print_last_error(h);
    failed |= step("ask for the best compression", zlk_option_set_compression(h, zlk_comp_best),
                   zlk_e_not_implemented);

    failed |= step("copy a buffer", zlk_copy_alloc_buffer(h, greeting, sizeof(greeting), &copy), zlk_e_ok);
    printf("  the copy says \"%s\"\n", copy ? (const char *)copy : "");
    failed |= copy == NULL || memcmp(copy, greeting, sizeof(greeting)) != 0;
    zlk_release(h, copy);
    printf("released the copy\n");

    failed |= step("remove the log callback", zlk_log_remove_callback(callback), zlk_e_ok);
    zlk_log_option_set_sync(0);
    failed |= messages == 0;
    failed |= step("close the handle", zlk_close(h), zlk_e_ok);

    printf("%s\n", failed ? "FAILED" : "all steps succeeded");
    return failed ? 1 : 0;
}
