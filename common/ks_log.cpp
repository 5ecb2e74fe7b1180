#include "common/ks_log.h"

#include <stdarg.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <mutex>

#include "common/ks_file_utils.h"

namespace {

constexpr size_t kPathSize = 256;
constexpr size_t kNameSize = 128;
// File writes after which the size and the rotated files are checked: the
// check runs when the count before the write is above this.
constexpr uint64_t kCheckAfterWrites = 8000;
constexpr off_t kRotateSize = 104857600;  // 100 MiB
constexpr unsigned kKeptRotated = 9;
constexpr unsigned kKeptAtStart = 10;
// Room for "<dir>/<prefix><timestamp>.<ext>" whatever the field contents.
constexpr size_t kRotatedNameSize = kPathSize + 1 + kNameSize + 30 + 1 + kNameSize;

struct LogState {
    std::atomic<void*> udata{nullptr};
    std::atomic<log_LockFn> lock{nullptr};
    // The stream and the names below are guarded by g_write_mutex.
    FILE* fp = nullptr;
    bool fp_opened_here = false;  // opened by the logger, so the logger may close it
    char path[kPathSize] = {};
    char dir[kPathSize] = {};
    char filename[kNameSize] = {};
    char base[kNameSize] = {};
    char ext[kNameSize] = {};
    char prefix[kNameSize] = {};
    std::atomic<int> level{LOG_ERROR};
    std::atomic<int> quiet{1};
};

LogState L;
std::atomic<uint64_t> nLogCount{0};
// Serialises writing, counting and rotation between the capture, IMU and
// application threads, whether or not the application installs a lock.
std::mutex g_write_mutex;

const char* const level_names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

// Copies at most cap - 1 characters of src and always terminates.
void copy_field(char* dst, size_t cap, const char* src, size_t len) {
    if (len > cap - 1) len = cap - 1;
    memcpy(dst, src, len);
    dst[len] = '\0';
}

void set_file_path_locked(const char* path) {
    // Every field is rewritten whole, so a shorter path leaves no old tail.
    L.path[0] = L.dir[0] = L.filename[0] = L.base[0] = L.ext[0] = L.prefix[0] = '\0';
    copy_field(L.path, sizeof(L.path), path, strlen(path));
    const char* slash = strrchr(L.path, '/');
    if (slash != nullptr) {
        copy_field(L.dir, sizeof(L.dir), L.path, static_cast<size_t>(slash - L.path));
        copy_field(L.filename, sizeof(L.filename), slash + 1, strlen(slash + 1));
    } else {
        copy_field(L.dir, sizeof(L.dir), ".", 1);
        copy_field(L.filename, sizeof(L.filename), L.path, strlen(L.path));
    }
    char token[KS_LIST_ITEM_SIZE];
    if (ks_cut(token, L.filename, ".", 1) == 0)
        copy_field(L.base, sizeof(L.base), token, strlen(token));
    const size_t base_len = strlen(L.base);
    copy_field(L.prefix, sizeof(L.prefix), L.base, base_len);
    if (base_len + 1 < sizeof(L.prefix)) {
        L.prefix[base_len] = '_';
        L.prefix[base_len + 1] = '\0';
    }
    if (ks_cut(token, L.filename, ".", 2) == 0)
        copy_field(L.ext, sizeof(L.ext), token, strlen(token));
}

void close_locked() {
    if (L.fp != nullptr) fclose(L.fp);
    L.fp = nullptr;
    L.fp_opened_here = false;
}

// Rotated files of the live log, oldest first (their names carry the time).
void list_rotated_locked(char*** list, unsigned* count) {
    *list = nullptr;
    *count = 0;
    ks_list_items_by_type_with_filter(L.dir, KS_ITEM_TYPE_FILE, L.prefix, 0, list, count);
    qsort_string_list(const_cast<const char**>(*list), static_cast<int>(*count));
}

void rotate_locked() {
    close_locked();
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    char stamp[30];
    stamp[strftime(stamp, sizeof(stamp), "%Y%m%d%H%M%S", &tmv)] = '\0';
    char rotated[kRotatedNameSize];
    snprintf(rotated, sizeof(rotated), "%s/%s%s.%s", L.dir, L.prefix, stamp, L.ext);
    if (rename(L.path, rotated) != 0) fprintf(stderr, "rename file to: %s Failed!\n", rotated);
    L.fp = fopen(L.path, "a+");
    if (L.fp == nullptr) perror("New log file failed!\n");
    L.fp_opened_here = L.fp != nullptr;
}

void retain_locked() {
    char** list;
    unsigned count;
    list_rotated_locked(&list, &count);
    if (count > kKeptRotated && remove(list[0]) != 0) {
        fprintf(stderr, "remove file: %s Failed!\n", list[0]);
    }
    ks_free_list_items(&list, &count);
}

void check_rotation_locked() {
    struct stat st;
    if (ks_is_file_exist(L.path) && stat(L.path, &st) == 0 && st.st_size > kRotateSize) {
        rotate_locked();
    }
    retain_locked();
}

void write_line(FILE* out, const char* time_fmt, size_t time_size, const struct tm& tmv, int level,
                const char* file, int line, const char* fmt, va_list ap) {
    char stamp[32];
    stamp[strftime(stamp, time_size, time_fmt, &tmv)] = '\0';
    fprintf(out, "%s %-5s %s:%d: ", stamp, level_names[level], file, line);
    vfprintf(out, fmt, ap);
    fprintf(out, "\n");
}

void emit(int level, const char* file, int line, bool bare, const char* fmt, va_list ap) {
    // Out-of-range levels have no name to print: they are never emitted.
    if (level < LOG_TRACE || level > LOG_FATAL) return;
    if (level < L.level.load(std::memory_order_relaxed)) return;
    if (fmt == nullptr) fmt = "";
    const log_LockFn lock = L.lock.load(std::memory_order_acquire);
    void* const udata = L.udata.load(std::memory_order_acquire);
    if (lock != nullptr) lock(udata, 1);
    {
        std::lock_guard<std::mutex> guard(g_write_mutex);
        time_t now = time(nullptr);
        struct tm tmv;
        localtime_r(&now, &tmv);
        const char* source = file != nullptr ? log_get_base_filename(const_cast<char*>(file)) : "";

        if (!L.quiet.load(std::memory_order_relaxed)) {
            va_list args;
            va_copy(args, ap);
            if (bare) {
                vfprintf(stderr, fmt, args);
            } else {
                write_line(stderr, "%H:%M:%S", 16, tmv, level, source, line, fmt, args);
            }
            va_end(args);
        }
        if (L.fp != nullptr) {
            va_list args;
            va_copy(args, ap);
            if (bare) {
                vfprintf(L.fp, fmt, args);
            } else {
                write_line(L.fp, "%Y-%m-%d %H:%M:%S", 32, tmv, level, source, line, fmt, args);
            }
            va_end(args);
            fflush(nullptr);
            if (nLogCount.fetch_add(1, std::memory_order_relaxed) > kCheckAfterWrites) {
                check_rotation_locked();
                nLogCount.store(0, std::memory_order_relaxed);
            }
        }
    }
    if (lock != nullptr) lock(udata, 0);
}

}  // namespace

extern "C" {

void log_set_udata(void* udata) {
    L.udata.store(udata, std::memory_order_release);
}

void log_set_lock(log_LockFn fn) {
    L.lock.store(fn, std::memory_order_release);
}

void log_set_fp(FILE* fp) {
    std::lock_guard<std::mutex> guard(g_write_mutex);
    L.fp = fp;
    L.fp_opened_here = false;
}

void log_set_level(int level) {
    L.level.store(level, std::memory_order_relaxed);
}

void log_set_quiet(int enable) {
    L.quiet.store(enable ? 1 : 0, std::memory_order_relaxed);
}

void log_set_file_path(const char* path) {
    if (path == nullptr) return;
    std::lock_guard<std::mutex> guard(g_write_mutex);
    set_file_path_locked(path);
}

char* log_get_base_filename(char* path) {
    if (path == nullptr) return nullptr;
    char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

int ks_init_log(const char* path) {
    if (path == nullptr) {
        std::lock_guard<std::mutex> guard(g_write_mutex);
        if (L.fp_opened_here) close_locked();
        L.fp = nullptr;
        return 0;
    }
    // A path the fields cannot hold whole would make rotation rename some
    // other, truncated name: refuse it instead.
    const char* slash = strrchr(path, '/');
    const char* name = slash != nullptr ? slash + 1 : path;
    if (strlen(path) >= kPathSize || strlen(name) >= kNameSize - 1) return -1;

    if (!ks_is_file_exist(path)) {
        char* dir = nullptr;
        char* file = nullptr;
        if (ks_split_path(path, &dir, &file) != 0) return -1;
        // An empty directory part is the root, which exists.
        int rc = dir[0] != '\0' ? ks_mkdir(dir) : 0;
        ks_free(dir);
        ks_free(file);
        if (rc != 0) return -1;
    }

    std::lock_guard<std::mutex> guard(g_write_mutex);
    // A stream the logger opened itself is closed rather than leaked; one the
    // application handed over with log_set_fp is left alone.
    if (L.fp_opened_here) close_locked();
    L.fp = fopen(path, "a+");  // unchecked: no stream means no file logging
    L.fp_opened_here = L.fp != nullptr;
    set_file_path_locked(path);

    char** list;
    unsigned count;
    list_rotated_locked(&list, &count);
    // Every attempt names the first entry, so only the oldest file goes and
    // the later attempts report that it is already gone.
    for (unsigned i = kKeptAtStart; i < count; ++i) {
        if (ks_rmfile(list[0]) != 0) fprintf(stderr, "remove file: %s Failed!\n", list[0]);
    }
    ks_free_list_items(&list, &count);
    return 0;
}

void ks_destory_log(void) {
    std::lock_guard<std::mutex> guard(g_write_mutex);
    close_locked();
}

void log_log(int level, const char* file, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emit(level, file, line, false, fmt, ap);
    va_end(ap);
}

void log_logn(int level, const char* file, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emit(level, file, line, true, fmt, ap);
    va_end(ap);
}

void process_log_file_by_file_size(void) {
    std::lock_guard<std::mutex> guard(g_write_mutex);
    rotate_locked();
}

void ensure_log_file_to_fixed_num(void) {
    std::lock_guard<std::mutex> guard(g_write_mutex);
    retain_locked();
}

}  // extern "C"
