#include "common/ks_file_utils.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

constexpr size_t kCopyCommandSize = 1024;
constexpr int kSyncAttempts = 6;
constexpr useconds_t kSyncPauseUs = 1000;

std::atomic<int> g_recursive_mode{0};

// Hands out a copy of len characters of s as a new string.
char* dup_range(const char* s, size_t len) {
    char* out = static_cast<char*>(ks_malloc(len + 1));
    if (out != nullptr) {
        memcpy(out, s, len);
        out[len] = '\0';
    }
    return out;
}

// Splits s at the last sep: the part before it and the part from `keep_sep ? sep : sep + 1`.
int split_at_last(const char* s, char sep, bool keep_sep, char** first, char** second) {
    const char* at = strrchr(s, sep);
    char* a = dup_range(s, static_cast<size_t>(at - s));
    const char* rest = keep_sep ? at : at + 1;
    char* b = dup_range(rest, strlen(rest));
    if (a == nullptr || b == nullptr) {
        ks_free(a);
        ks_free(b);
        return -1;
    }
    *first = a;
    *second = b;
    return 0;
}

// Runs argv[0] (searched in PATH) with the given arguments, no shell: 0 when it
// exits with status 0, else -1.
int run_program(const char* const argv[]) {
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, const_cast<char* const*>(argv), environ) !=
        0) {
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return (WIFEXITED(status) && WEXITSTATUS(status) == 0) ? 0 : -1;
}

// Retries op up to kSyncAttempts times. Success on the last attempt still
// counts as failure: the counter has run out by then.
template <typename Op>
int retry_step(Op op) {
    int left = kSyncAttempts;
    while (left-- > 0) {
        if (op() == 0) break;
        if (left > 0) usleep(kSyncPauseUs);
    }
    return left > 0 ? 0 : -1;
}

bool passes_filter(const char* name, const char* filter, int ext_mode) {
    if (filter == nullptr) return true;
    return (ext_mode ? is_ext_match(name, filter) : is_prefix_match(name, filter)) == 0;
}

struct ListRequest {
    int type;
    const char* filter;
    int ext_mode;
    bool recursive;
    std::vector<std::string>* found;
};

void walk_dir(const std::string& dir, int depth, const ListRequest& req) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    const bool has_slash = !dir.empty() && dir.back() == '/';
    while (struct dirent* e = readdir(d)) {
        const char* name = e->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        std::string full = dir;
        if (!has_slash) full += '/';
        full += name;
        // A path that does not fit a list buffer is left out, with its subtree.
        if (full.size() >= KS_LIST_ITEM_SIZE) continue;

        int type = e->d_type;
        if (type == DT_UNKNOWN) {
            struct stat st;
            if (lstat(full.c_str(), &st) != 0) continue;
            type = IFTODT(st.st_mode);
        }
        // Links have their own type, so a linked directory is never entered.
        if (type == DT_DIR) {
            if (req.type == DT_DIR && passes_filter(name, req.filter, req.ext_mode)) {
                req.found->push_back(full);
            }
            if (req.recursive && depth < KS_LIST_MAX_DEPTH) walk_dir(full, depth + 1, req);
        } else if (type == req.type && passes_filter(name, req.filter, req.ext_mode)) {
            req.found->push_back(full);
        }
    }
    closedir(d);
}

}  // namespace

extern "C" {

int ks_is_folder_exist(const char* path) {
    if (path == nullptr) return 0;
    DIR* d = opendir(path);
    if (d == nullptr) return 0;
    closedir(d);
    return 1;
}

int ks_is_file_exist(const char* name) {
    return (name != nullptr && access(name, F_OK) == 0) ? 1 : 0;
}

int ks_system_exec(const char* cmd) {
    if (cmd == nullptr) return -1;
    return system(cmd) != 0 ? -1 : 0;
}

int system_exec(const char* cmd) {
    return ks_system_exec(cmd);
}

int system_shell(const char* cmd) {
    if (cmd == nullptr) return -1;
    return (system(cmd) >> 8) & 0xff;
}

int ks_file_copy(const char* src, const char* dst) {
    if (src == nullptr || dst == nullptr) return -1;
    FILE* in = fopen(src, "r");
    if (in == nullptr) {
        printf("'%s' does not exist!\n", src);
        return -1;
    }
    FILE* out = fopen(dst, "w");
    if (out == nullptr) {
        fclose(in);
        puts("Wrong output file name or Permission denied, try system cp!");
        fflush(stdout);
        // The command must fit the buffer it has always been formatted into;
        // a longer pair is refused rather than cut.
        int need = snprintf(nullptr, 0, "cp -f %s %s && sync", src, dst);
        if (need < 0 || static_cast<size_t>(need) >= kCopyCommandSize) return -1;
        // Argument vectors instead of a shell: no character of a path is
        // interpreted, and "--" keeps a leading '-' from reading as an option.
        const char* const cp_argv[] = {"cp", "-f", "--", src, dst, nullptr};
        const char* const sync_argv[] = {"sync", nullptr};
        if (run_program(cp_argv) != 0) return -1;
        return run_program(sync_argv);
    }
    int c;
    while ((c = fgetc(in)) != EOF) fputc(c, out);
    fflush(out);
    fclose(in);
    fclose(out);
    return 0;
}

int ks_file_clear(const char* path) {
    if (path == nullptr || !ks_is_file_exist(path)) return -1;
    FILE* fp = fopen(path, "w");
    if (fp == nullptr) {
        puts("file clear fail");
        return -1;
    }
    fclose(fp);
    return 0;
}

int ks_mkdir(const char* path) {
    // The length bound also bounds the recursion below.
    if (path == nullptr || path[0] == '\0' || strnlen(path, PATH_MAX) >= PATH_MAX) return -1;
    if (ks_is_folder_exist(path)) return 0;
    const char* slash = strrchr(path, '/');
    if (slash != nullptr) {
        // Create the parent first; an empty parent is the root, which exists.
        char* parent = dup_range(path, static_cast<size_t>(slash - path));
        if (parent == nullptr) return -1;
        int rc = parent[0] != '\0' ? ks_mkdir(parent) : 0;
        ks_free(parent);
        if (rc != 0) return -1;
        // "a/b/": the parent just made is the directory itself.
        if (slash[1] == '\0') return 0;
    }
    // Without '/', the parent is the working directory.
    return mkdir(path, 0775);
}

int ks_split_path(const char* path, char** dir, char** name) {
    if (path == nullptr) {
        perror("path is empty!");
        return -1;
    }
    if (dir == nullptr || name == nullptr) return -1;
    if (strchr(path, '/') == nullptr) return -2;
    // A trailing '/' is kept as the split point: "a/b/" gives "a/b" and "".
    return split_at_last(path, '/', false, dir, name);
}

int ks_split_ext(const char* path, char** stem, char** ext) {
    if (path == nullptr) {
        perror("path is empty!");
        return -1;
    }
    if (stem == nullptr || ext == nullptr) return -1;
    if (strchr(path, '.') == nullptr) return -1;
    return split_at_last(path, '.', true, stem, ext);
}

int ks_file_touch(const char* path) {
    if (path == nullptr) return -1;
    if (ks_is_file_exist(path)) return 0;
    char* dir = nullptr;
    char* name = nullptr;
    int rc = ks_split_path(path, &dir, &name);
    if (rc == -1) return -1;
    if (rc == 0 && dir[0] != '\0' && ks_mkdir(dir) != 0) {
        fprintf(stderr, "When touch file, can't mkdir parent dir %s\n", dir);
        ks_free(dir);
        ks_free(name);
        return -2;
    }
    ks_free(dir);
    ks_free(name);
    FILE* fp = fopen(path, "w+");
    if (fp == nullptr) {
        puts("file touch fail");
        return -3;
    }
    fclose(fp);
    return 0;
}

int ks_join_two_path(const char* a, const char* b, char** out) {
    if (a == nullptr) {
        perror("path1 is empty!");
        return -1;
    }
    if (b == nullptr) {
        perror("path2 is empty!");
        return -1;
    }
    if (out == nullptr) return -1;
    const size_t la = strlen(a);
    const char* sep = "";
    if (la > 0 && a[la - 1] == '/') {
        if (b[0] == '/') ++b;
    } else if (b[0] != '/' && la > 0) {
        sep = "/";
    }
    const size_t lb = strlen(b);
    const size_t ls = strlen(sep);
    char* joined = static_cast<char*>(ks_malloc(la + ls + lb + 1));
    if (joined == nullptr) {
        perror("ks_malloc joined_path failed\n");
        return -1;
    }
    memcpy(joined, a, la);
    memcpy(joined + la, sep, ls);
    memcpy(joined + la + ls, b, lb + 1);
    *out = joined;
    return 0;
}

int ks_join_path(char** out, int count, ...) {
    if (count < 2) {
        perror("joined path number should larger than two");
        return -1;
    }
    if (out == nullptr) return -1;
    va_list ap;
    va_start(ap, count);
    const char* first = va_arg(ap, const char*);
    const char* second = va_arg(ap, const char*);
    char* joined = nullptr;
    int rc = ks_join_two_path(first, second, &joined);
    for (int i = 2; i < count && rc == 0; ++i) {
        char* next = nullptr;
        rc = ks_join_two_path(joined, va_arg(ap, const char*), &next);
        ks_free(joined);
        joined = next;
    }
    va_end(ap);
    if (rc != 0) {
        ks_free(joined);
        return -1;
    }
    *out = joined;
    return 0;
}

int ks_get_file_size(const char* path) {
    if (!ks_is_file_exist(path)) return -1;
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    return static_cast<int>(static_cast<uint32_t>(st.st_size));
}

int ks_file_sync_close(FILE* fp) {
    if (fp == nullptr) return -1;
    int rc = retry_step([fp] { return fflush(fp); });
    if (retry_step([fp] { return fsync(fileno(fp)); }) != 0) rc = -1;
    // fclose releases the stream even when it fails, so it is never retried.
    if (fclose(fp) != 0) rc = -1;
    return rc;
}

int is_ext_match(const char* name, const char* ext) {
    if (name == nullptr) return -1;
    if (ext == nullptr) return -2;
    const char* dot = strrchr(name, '.');
    if (dot == nullptr) return -3;
    if (ext[0] == '.') ++ext;
    return strncmp(dot + 1, ext, strlen(ext)) == 0 ? 0 : 1;
}

int is_prefix_match(const char* name, const char* prefix) {
    if (name == nullptr || prefix == nullptr) return -1;
    const char* slash = strrchr(name, '/');
    const char* base = slash != nullptr ? slash + 1 : name;
    return strncmp(base, prefix, strlen(prefix)) == 0 ? 0 : 1;
}

int ks_list_items_by_type_with_filter(const char* dir, int type, const char* filter, int ext_mode,
                                      char*** list, unsigned* count) {
    if (dir == nullptr || list == nullptr || count == nullptr || !ks_is_folder_exist(dir)) {
        return -1;
    }
    std::vector<std::string> found;
    try {
        ListRequest req{type, filter, ext_mode, get_list_items_recursive_mode() != 0, &found};
        walk_dir(dir, 0, req);
    } catch (...) {
        return -1;
    }
    if (found.empty()) {
        *list = nullptr;
        *count = 0;
        return 0;
    }
    char** items = static_cast<char**>(ks_malloc(found.size() * sizeof(char*)));
    if (items == nullptr) return -1;
    for (size_t i = 0; i < found.size(); ++i) {
        items[i] = static_cast<char*>(ks_malloc(KS_LIST_ITEM_SIZE));
        if (items[i] == nullptr) {
            unsigned made = static_cast<unsigned>(i);
            ks_free_list_items(&items, &made);
            return -1;
        }
        memset(items[i], 0, KS_LIST_ITEM_SIZE);
        memcpy(items[i], found[i].c_str(), found[i].size());
    }
    *list = items;
    *count = static_cast<unsigned>(found.size());
    return 0;
}

void set_list_items_recursive_mode(int on) {
    g_recursive_mode.store(on ? 1 : 0, std::memory_order_relaxed);
}

int get_list_items_recursive_mode(void) {
    return g_recursive_mode.load(std::memory_order_relaxed);
}

int ks_free_list_items(char*** list, unsigned* count) {
    if (list == nullptr || count == nullptr) return -1;
    if (*list != nullptr) {
        for (unsigned i = 0; i < *count; ++i) ks_free((*list)[i]);
        ks_free(*list);
    }
    *list = nullptr;
    *count = 0;
    return 0;
}

int compare_func_string(const void* a, const void* b) {
    return strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b));
}

void qsort_string_list(const char** list, int n) {
    if (list == nullptr || n < 2) return;
    qsort(list, static_cast<size_t>(n), sizeof(*list), compare_func_string);
}

int ks_rmfile(const char* path) {
    if (path == nullptr) return -1;
    return remove(path);
}

int ks_cut(char* dst, const char* src, const char* delim, int n) {
    if (dst == nullptr || src == nullptr || delim == nullptr || n == 0) return -1;
    // Longer input is cut to the size of the working copy.
    char copy[KS_LIST_ITEM_SIZE];
    const size_t len = strnlen(src, sizeof(copy) - 1);
    memcpy(copy, src, len);
    copy[len] = '\0';

    int want = n;
    if (n < 0) {
        char scratch[KS_LIST_ITEM_SIZE];
        memcpy(scratch, copy, len + 1);
        int tokens = 0;
        char* save = nullptr;
        for (char* t = strtok_r(scratch, delim, &save); t != nullptr;
             t = strtok_r(nullptr, delim, &save)) {
            ++tokens;
        }
        want = tokens + n + 1;
        if (want < 1) return 1;
    }
    char* save = nullptr;
    char* tok = strtok_r(copy, delim, &save);
    for (int i = 1; tok != nullptr && i < want; ++i) tok = strtok_r(nullptr, delim, &save);
    if (tok == nullptr) return 1;
    memcpy(dst, tok, strlen(tok) + 1);
    return 0;
}

double ksGetAvailableSpaceByByteUnit(const char* path, char unit) {
    struct statvfs vfs;
    if (path == nullptr || statvfs(path, &vfs) != 0) return -1.0;
    const double bytes = static_cast<double>(vfs.f_bsize) * static_cast<double>(vfs.f_bavail);
    switch (unit) {
        case 'B':
        case 'b':
            return bytes;
        case 'K':
        case 'k':
            return bytes / 1024.0;
        case 'M':
        case 'm':
            return bytes / (1024.0 * 1024.0);
        case 'G':
        case 'g':
            return bytes / (1024.0 * 1024.0 * 1024.0);
        default:
            return -2.0;
    }
}

double ksGetAvailableSpaceSize(const char* path) {
    return ksGetAvailableSpaceByByteUnit(path, 'b');
}

void* ks_malloc(size_t size) {
    return malloc(size);
}

void ks_free(void* ptr) {
    free(ptr);
}

void* ks_memset(void* dst, int value, size_t size) {
    return (dst != nullptr && size > 0) ? memset(dst, value, size) : dst;
}

void* ks_memcpy(void* dst, const void* src, size_t size) {
    return (dst != nullptr && src != nullptr && size > 0) ? memcpy(dst, src, size) : dst;
}

}  // extern "C"

int split_string(const std::string& text, char delimiter, std::vector<std::string>& out) {
    out.clear();
    std::istringstream in(text);
    std::string piece;
    while (std::getline(in, piece, delimiter)) out.push_back(piece);
    return 0;
}
