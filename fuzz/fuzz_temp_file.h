// A file (or folder) of the process's own under the temporary directory,
// rewritten for every input and removed at exit.
#ifndef KS_FUZZ_TEMP_FILE_H
#define KS_FUZZ_TEMP_FILE_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzzing {

inline std::string temp_path(const char* name) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir != nullptr && dir[0] != '\0' ? dir : "/tmp") + "/ksfuzz-" +
           std::to_string(getpid()) + "-" + name;
}

// Writes size bytes to path; false when the file cannot be written.
inline bool write_file(const std::string& path, const void* data, size_t size) {
    FILE* fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) return false;
    const bool ok = std::fwrite(data, 1, size, fp) == size;
    return std::fclose(fp) == 0 && ok;
}

}  // namespace fuzzing

#endif
