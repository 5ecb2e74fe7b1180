// Small helpers shared by the tests of common/: temporary directories,
// capture of standard output or error, whole-file reads.
#ifndef KS_TEST_HELPERS_H
#define KS_TEST_HELPERS_H

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace ks_test {

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/ks_test_XXXXXX";
        const char* made = mkdtemp(tmpl);
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        if (!path_.empty()) {
            nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    static int remove_entry(const char* p, const struct stat*, int, struct FTW*) {
        remove(p);
        return 0;
    }
    std::string path_;
};

// Sends a standard stream's descriptor (1 or 2) to a file until text() is called.
class FdCapture {
  public:
    explicit FdCapture(int fd) : fd_(fd) {
        fflush(fd == 1 ? stdout : stderr);
        char tmpl[] = "/tmp/ks_capture_XXXXXX";
        file_fd_ = mkstemp(tmpl);
        file_ = tmpl;
        saved_ = dup(fd_);
        dup2(file_fd_, fd_);
    }
    ~FdCapture() {
        restore();
        close(file_fd_);
        unlink(file_.c_str());
    }
    FdCapture(const FdCapture&) = delete;
    FdCapture& operator=(const FdCapture&) = delete;

    // Restores the stream and returns what was written meanwhile.
    std::string text() {
        restore();
        std::ifstream in(file_);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

  private:
    void restore() {
        if (saved_ < 0) return;
        fflush(fd_ == 1 ? stdout : stderr);
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
    }
    int fd_;
    int file_fd_ = -1;
    int saved_ = -1;
    std::string file_;
};

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
}

inline bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

inline long long file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// Names in a directory, sorted, without "." and "..".
inline std::vector<std::string> dir_names(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

inline std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::stringstream ss(text);
    std::string line;
    while (std::getline(ss, line)) lines.push_back(line);
    return lines;
}

// True when text has the shape of pattern: '#' stands for one digit, every
// other character for itself.
inline bool like(const std::string& text, const std::string& pattern) {
    if (text.size() != pattern.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool ok =
            pattern[i] == '#' ? (text[i] >= '0' && text[i] <= '9') : text[i] == pattern[i];
        if (!ok) return false;
    }
    return true;
}

}  // namespace ks_test

#endif
