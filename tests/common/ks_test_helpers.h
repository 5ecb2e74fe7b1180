// Small helpers shared by the tests: temporary directories, the working
// directory, capture of standard output or error, whole-file reads.
#ifndef KS_TEST_HELPERS_H
#define KS_TEST_HELPERS_H

#include <gtest/gtest.h>
#include <stdlib.h>

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
    ~ScopedCwd() { std::filesystem::current_path(saved_); }

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

    // Ends the capture and returns what was written meanwhile.
    std::string text() {
        if (fd_ != 0)
            text_ = fd_ == 1 ? testing::internal::GetCapturedStdout()
                             : testing::internal::GetCapturedStderr();
        fd_ = 0;
        return text_;
    }

  private:
    int fd_;  // 0 once the capture has ended
    std::string text_;
};

// Names in a directory that start with prefix, sorted.
inline std::vector<std::string> dir_names(const std::string& dir, const std::string& prefix = "") {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
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
    return text.size() == pattern.size() &&
           std::equal(text.begin(), text.end(), pattern.begin(),
                      [](char t, char p) { return p == '#' ? t >= '0' && t <= '9' : t == p; });
}

}  // namespace ks_test

#endif
