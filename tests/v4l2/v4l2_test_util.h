// Helpers shared by the stream driver tests.
#ifndef KS_TEST_V4L2_UTIL_H
#define KS_TEST_V4L2_UTIL_H

#include <unistd.h>

#include <cstdio>
#include <string>

#include "common/ks_log.h"

namespace v4l2test {

// Collects what the logger writes while alive: level threshold `level`,
// console quiet, file output into a temporary stream.
class LogCapture {
  public:
    explicit LogCapture(int level) : file_(tmpfile()) {
        log_set_fp(file_);
        log_set_level(level);
    }
    ~LogCapture() {
        log_set_fp(nullptr);
        log_set_level(LOG_ERROR);
        if (file_) fclose(file_);
    }
    // Everything logged so far, each line without its date and time.
    std::string text() {
        std::string all;
        fflush(file_);
        rewind(file_);
        char line[1024];
        while (fgets(line, sizeof line, file_) != nullptr) {
            std::string s(line);
            // "YYYY-mm-dd HH:MM:SS " is 20 characters.
            all += s.size() > 20 && s[4] == '-' ? s.substr(20) : s;
        }
        fseek(file_, 0, SEEK_END);
        return all;
    }
    int count(const std::string& needle) {
        std::string all = text();
        int n = 0;
        for (size_t at = all.find(needle); at != std::string::npos; at = all.find(needle, at + 1))
            ++n;
        return n;
    }

  private:
    FILE* file_;
};

}  // namespace v4l2test

#endif
