/* Symbol export and C linkage for the public headers. */
#ifndef ZLK_EXPORT_H
#define ZLK_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define ZLK_API __attribute__((visibility("default")))
#else
#define ZLK_API
#endif

#ifdef __cplusplus
#define ZLK_BEGIN_C extern "C" {
#define ZLK_END_C }
#define ZLK_NOEXCEPT noexcept
#else
#define ZLK_BEGIN_C
#define ZLK_END_C
#define ZLK_NOEXCEPT
#endif

#endif /* ZLK_EXPORT_H */
