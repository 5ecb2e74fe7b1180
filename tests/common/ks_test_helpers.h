// Small helpers shared by the tests of common/: temporary directories, the
// working directory, capture of standard output or error, whole-file reads.
#ifndef KS_TEST_HELPERS_H
#define KS_TEST_HELPERS_H

#include <ctype.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace ks_test {

inline std::string read_file(const std::string& path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

inline long long file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/ks_test_XXXXXX";
        const char* made = mkdtemp(tmpl);
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// The working directory is dir for the lifetime of the object.
class ScopedCwd {
  public:
    explicit ScopedCwd(const std::string& dir) : saved_(std::filesystem::current_path()) {
        std::filesystem::current_path(dir);
    }
    ~ScopedCwd() {
        std::error_code ec;
        std::filesystem::current_path(saved_, ec);
        EXPECT_FALSE(ec) << "cannot restore the working directory";
    }

  private:
    std::filesystem::path saved_;
};

// Captures a standard stream (1 or 2) until text() is called.
class FdCapture {
  public:
    explicit FdCapture(int fd) : fd_(fd) {
        fd == 1 ? testing::internal::CaptureStdout() : testing::internal::CaptureStderr();
    }
    ~FdCapture() { text(); }
    FdCapture(const FdCapture&) = delete;
    FdCapture& operator=(const FdCapture&) = delete;

    // Ends the capture and returns what was written meanwhile.
    std::string text() {
        if (!done_) {
            text_ = fd_ == 1 ? testing::internal::GetCapturedStdout()
                             : testing::internal::GetCapturedStderr();
            done_ = true;
        }
        return text_;
    }

  private:
    int fd_;
    bool done_ = false;
    std::string text_;
};

// Names in a directory that start with prefix, sorted.
inline std::vector<std::string> dir_names(const std::string& dir, const std::string& prefix = "") {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
        std::string n = entry.path().filename();
        if (n.compare(0, prefix.size(), prefix) == 0) names.push_back(n);
    }
    std::sort(names.begin(), names.end());
    return names;
}

inline std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::stringstream ss(text);
    for (std::string line; std::getline(ss, line);) lines.push_back(line);
    return lines;
}

// True when text has the shape of pattern: '#' stands for one digit, every
// other character for itself.
inline bool like(const std::string& text, const std::string& pattern) {
    if (text.size() != pattern.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool ok = pattern[i] == '#' ? isdigit(static_cast<unsigned char>(text[i])) != 0
                                          : text[i] == pattern[i];
        if (!ok) return false;
    }
    return true;
}

}  // namespace ks_test

#endif
