/*
 * File, path and directory helpers used by the logger and by the parameter
 * and calibration file code. Ordinary files only: nothing here goes through
 * the platform seam.
 *
 * Results are 0 for success and negative for failure unless a function says
 * otherwise. Strings and lists handed out are allocated with ks_malloc; the
 * caller releases strings with ks_free and lists with ks_free_list_items.
 */
#ifndef KS_FILE_UTILS_H
#define KS_FILE_UTILS_H

#include <stddef.h>
#include <stdio.h>

#include "common/ks_export.h"

KS_BEGIN_DECLS

/* Size of every string in a directory listing (and of the copy ks_cut
 * tokenises): entries whose full path does not fit are left out. */
#define KS_LIST_ITEM_SIZE 256
/* Subdirectory levels below the listed directory that recursive mode walks. */
#define KS_LIST_MAX_DEPTH 64

/* Entry types of ks_list_items_by_type_with_filter (the dirent d_type values). */
#define KS_ITEM_TYPE_DIR 4
#define KS_ITEM_TYPE_FILE 8

/* 1 if the directory can be opened, else 0. */
KS_API int ks_is_folder_exist(const char* path);
/* 1 if the name exists (any kind of entry), else 0. */
KS_API int ks_is_file_exist(const char* name);

/* Runs cmd through the shell: -1 for a null command or a non-zero status, else 0. */
KS_API int ks_system_exec(const char* cmd);
KS_API int system_exec(const char* cmd);
/* Runs cmd through the shell and returns its exit code (0..255); -1 for null. */
KS_API int system_shell(const char* cmd);

/* Copies src to dst. When dst cannot be opened for writing, falls back to
 * running cp -f and sync (no shell involved): 0 when both succeed, else -1. */
KS_API int ks_file_copy(const char* src, const char* dst);
/* Truncates an existing file to zero length. */
KS_API int ks_file_clear(const char* path);
/* Creates the directory and its missing parents (mode 0775). */
KS_API int ks_mkdir(const char* path);

/* Splits at the last '/': -1 for a null path, -2 when there is no '/'.
 * A trailing '/' gives an empty name ("a/b/" -> "a/b" and ""). */
KS_API int ks_split_path(const char* path, char** dir, char** name);
/* Splits at the last '.'; ext keeps the point. -1 for null or no '.'. */
KS_API int ks_split_ext(const char* path, char** stem, char** ext);

/* Creates an empty file and its parent directories: 0 (also when it exists),
 * -1 null path, -2 parent not creatable, -3 file not creatable. */
KS_API int ks_file_touch(const char* path);

/* Joins two paths with exactly one '/' between them (none after an empty a). */
KS_API int ks_join_two_path(const char* a, const char* b, char** out);
/* Joins count (>= 2) paths given as const char * arguments. */
KS_API int ks_join_path(char** out, int count, ...);

/* Size from stat truncated to 32 bits; -1 if the file does not exist. */
KS_API int ks_get_file_size(const char* path);

/* Flushes, syncs and closes fp, retrying flush and sync up to 6 times 1 ms
 * apart. -1 when a step fails or only succeeds on its last attempt. The
 * stream is closed in every case. */
KS_API int ks_file_sync_close(FILE* fp);

/* 0 if the text after the last '.' of name begins with ext (a leading '.' of
 * ext is ignored), 1 if not; -1 null name, -2 null ext, -3 no '.' in name. */
KS_API int is_ext_match(const char* name, const char* ext);
/* 0 if the base name of name begins with prefix, 1 if not, -1 for null. */
KS_API int is_prefix_match(const char* name, const char* prefix);

/* Lists the entries of dir of the given type (KS_ITEM_TYPE_FILE,
 * KS_ITEM_TYPE_DIR, or another d_type value) whose names pass the filter
 * (none when filter is null; is_ext_match when ext_mode is non-zero, else
 * is_prefix_match), as full paths in readdir order, each in a zeroed
 * KS_LIST_ITEM_SIZE buffer. Symbolic links are never followed. Returns -1 and
 * leaves list and count untouched when dir is null or not a directory. */
KS_API int ks_list_items_by_type_with_filter(const char* dir, int type, const char* filter,
                                             int ext_mode, char*** list, unsigned* count);
/* Process-wide switch (default 0): 1 makes listings descend into subdirectories. */
KS_API void set_list_items_recursive_mode(int on);
KS_API int get_list_items_recursive_mode(void);
/* Frees every string and the array, then zeroes both. */
KS_API int ks_free_list_items(char*** list, unsigned* count);

/* Sorts ascending by strcmp. */
KS_API void qsort_string_list(const char** list, int n);
/* qsort comparator over pointers to C strings. */
KS_API int compare_func_string(const void* a, const void* b);

KS_API int ks_rmfile(const char* path);

/* Copies the n-th token of src split at any of delim into dst (n > 0 counts
 * from the first token, n < 0 from the last). src is tokenised from a
 * KS_LIST_ITEM_SIZE copy, so dst needs at most that many bytes. -1 for null
 * dst, src or delim or n = 0; 1 (dst untouched) when there are too few tokens. */
KS_API int ks_cut(char* dst, const char* src, const char* delim, int n);

/* Free space for unprivileged users in unit B/b, K/k, M/m or G/g;
 * -1.0 when statvfs fails, -2.0 for any other unit. */
KS_API double ksGetAvailableSpaceByByteUnit(const char* path, char unit);
KS_API double ksGetAvailableSpaceSize(const char* path);

KS_API void* ks_malloc(size_t size);
KS_API void ks_free(void* ptr);
KS_API void* ks_memset(void* dst, int value, size_t size);
KS_API void* ks_memcpy(void* dst, const void* src, size_t size);

KS_END_DECLS

#ifdef __cplusplus
#include <string>
#include <vector>

/* Splits text at every delimiter into out (cleared first), as reading pieces
 * with std::getline does: empty pieces between two delimiters count, a
 * trailing delimiter adds none, an empty text gives none. Returns 0.
 * For the library's own C++ code: not exported. */
int split_string(const std::string& text, char delimiter, std::vector<std::string>& out);
#endif

#endif
