// Helpers shared by the stream driver tests.
#ifndef KS_TEST_V4L2_UTIL_H
#define KS_TEST_V4L2_UTIL_H

#include <cstdio>
#include <string>

#include "common/ks_log.h"

namespace v4l2test {

// Collects what the logger writes while alive (threshold `level`) into a
// temporary file.
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
    // Everything logged so far, each line without its "YYYY-mm-dd HH:MM:SS ".
    std::string text() {
        std::string all;
        char line[1024];
        fflush(file_);
        rewind(file_);
        while (fgets(line, sizeof line, file_) != nullptr)
            all += std::string(line).size() > 20 && line[4] == '-' ? line + 20 : line;
        fseek(file_, 0, SEEK_END);
        return all;
    }
    int count(const std::string& needle) {
        const std::string all = text();
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
