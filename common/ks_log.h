/*
 * Process-wide logger: six levels, an optional lock callback, lines on
 * standard error and in one log file. Once the live file passes 100 MiB it is
 * moved aside as <dir>/<base>_YYYYmmddHHMMSS.<ext> and a new one is started;
 * at most 9 of those rotated files are kept. The size and the number of
 * rotated files are checked every 8002 file writes.
 *
 * Defaults: threshold LOG_ERROR, quiet (nothing on standard error), no file.
 * Safe to call from several threads at once.
 */
#ifndef KS_LOG_H
#define KS_LOG_H

#include <stdio.h>

#include "common/ks_export.h"

KS_BEGIN_DECLS

enum {
    LOG_TRACE = 0,
    LOG_DEBUG = 1,
    LOG_INFO = 2,
    LOG_WARN = 3,
    LOG_ERROR = 4,
    LOG_FATAL = 5,
};

/* Called with lock = 1 before and lock = 0 after each emitted message. */
typedef void (*log_LockFn)(void* udata, int lock);

KS_API void log_set_udata(void* udata);
KS_API void log_set_lock(log_LockFn fn);
/* Replaces the log file stream; the previous one is not closed. */
KS_API void log_set_fp(FILE* fp);
/* Lowest level emitted. */
KS_API void log_set_level(int level);
/* Non-zero: nothing goes to standard error. */
KS_API void log_set_quiet(int enable);
/* Derives the file, directory and rotated-name parts from path (cut to the
 * sizes the logger keeps). */
KS_API void log_set_file_path(const char* path);
/* Pointer into path just after its last '/', or path itself. */
KS_API char* log_get_base_filename(char* path);

/* Opens (appends to) the log file, creating its directory, and removes the
 * oldest rotated file when more than 10 are present. A null path turns file
 * logging off. Returns 0, or -1 when the directory cannot be created or the
 * path is longer than the logger can keep (255 characters, 126 for the name). */
KS_API int ks_init_log(const char* path);
/* Closes the log file; later messages go to standard error only. */
KS_API void ks_destory_log(void);

/* Emits "<time> <LEVEL> <file base name>:<line>: <message>" plus a newline.
 * Levels outside LOG_TRACE..LOG_FATAL are not emitted. */
KS_API void log_log(int level, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
/* Emits the formatted text alone: no time, level, source or newline. */
KS_API void log_logn(int level, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

/* Moves the live file aside under a time-stamped name and starts a new one. */
KS_API void process_log_file_by_file_size(void);
/* Removes the oldest rotated file when more than 9 are present. */
KS_API void ensure_log_file_to_fixed_num(void);

KS_END_DECLS

/* Logging from the library's modules: module is the module path, for example
 * "ks_v4l2_driver/source/ks_v4l2_driver"; the line is the caller's. */
#define KS_LOG(level, module, ...) log_log((level), (module), __LINE__, __VA_ARGS__)
#define KS_LOGN(level, module, ...) log_logn((level), (module), __LINE__, __VA_ARGS__)
#define KS_LOG_TRACE(module, ...) KS_LOG(LOG_TRACE, (module), __VA_ARGS__)
#define KS_LOG_DEBUG(module, ...) KS_LOG(LOG_DEBUG, (module), __VA_ARGS__)
#define KS_LOG_INFO(module, ...) KS_LOG(LOG_INFO, (module), __VA_ARGS__)
#define KS_LOG_WARN(module, ...) KS_LOG(LOG_WARN, (module), __VA_ARGS__)
#define KS_LOG_ERROR(module, ...) KS_LOG(LOG_ERROR, (module), __VA_ARGS__)
#define KS_LOG_FATAL(module, ...) KS_LOG(LOG_FATAL, (module), __VA_ARGS__)

#endif
