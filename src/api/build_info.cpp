// zlk_version and zlk_build. ZLK_VERSION_TEXT and ZLK_COMMIT_TEXT come from the build configuration.
#include "zlk/client.h"

#ifndef ZLK_VERSION_TEXT
#define ZLK_VERSION_TEXT "unknown"
#endif
#ifndef ZLK_COMMIT_TEXT
#define ZLK_COMMIT_TEXT "unknown"
#endif

const char * zlk_version(void) noexcept
{
    return ZLK_VERSION_TEXT;
}

const char * zlk_build(void) noexcept
{
    return ZLK_COMMIT_TEXT " " __DATE__ " " __TIME__;
}
