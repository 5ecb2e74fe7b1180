/* Symbol visibility of the library's exported functions. */
#ifndef KS_EXPORT_H
#define KS_EXPORT_H

#ifndef KS_API
#if defined(__GNUC__)
#define KS_API __attribute__((visibility("default")))
#else
#define KS_API
#endif
#endif

#ifdef __cplusplus
#define KS_EXTERN_C extern "C"
#define KS_BEGIN_DECLS extern "C" {
#define KS_END_DECLS }
#else
#define KS_EXTERN_C
#define KS_BEGIN_DECLS
#define KS_END_DECLS
#endif

#endif
