#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/ks_log.h"
#include "ks_test_helpers.h"

namespace {

struct LockRecord {
    std::mutex mutex;
    std::atomic<int> depth{0};
    std::atomic<int> locks{0};
    std::atomic<int> unlocks{0};
    std::atomic<bool> nested{false};
};

void lock_callback(void* udata, int lock) {
    LockRecord* r = static_cast<LockRecord*>(udata);
    if (lock) {
        r->mutex.lock();
        if (r->depth.fetch_add(1) != 0) r->nested = true;
        r->locks.fetch_add(1);
    } else {
        r->depth.fetch_sub(1);
        r->unlocks.fetch_add(1);
        r->mutex.unlock();
    }
}

}  // namespace

// The capture thread, the IMU thread and the application log at once while
// the console is switched on and off.
TEST(LogThreads, ConcurrentMessagesStayWholeLines) {
    ks_test::TempDir tmp;
    const std::string path = tmp / "threads.log";
    ASSERT_EQ(0, ks_init_log(path.c_str()));
    LockRecord record;
    log_set_udata(&record);
    log_set_lock(lock_callback);
    log_set_level(LOG_DEBUG);

    ks_test::FdCapture err(2);
    constexpr int kThreads = 4;
    constexpr int kPerThread = 3000;
    std::atomic<bool> done{false};
    std::thread toggler([&] {
        for (int i = 0; !done.load(); ++i) log_set_quiet(i & 1);
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                log_log(i % 2 ? LOG_ERROR : LOG_DEBUG, "ks_imu_module/uvc-source/ks_uvc_imu_source",
                        t, "thread %d message %d", t, i);
                log_log(LOG_TRACE, "ks_imu_module/uvc-source/ks_uvc_imu_source", t, "filtered");
            }
        });
    }
    for (std::thread& w : writers) w.join();
    done = true;
    toggler.join();
    err.text();

    log_set_lock(nullptr);
    log_set_udata(nullptr);
    ks_destory_log();
    log_set_level(LOG_ERROR);
    log_set_quiet(1);

    EXPECT_EQ(kThreads * kPerThread, record.locks.load());
    EXPECT_EQ(kThreads * kPerThread, record.unlocks.load());
    EXPECT_FALSE(record.nested.load());

    // Every line whole and every message present once.
    std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kPerThread, 0));
    const std::vector<std::string> lines = ks_test::split_lines(ks_test::read_file(path));
    ASSERT_EQ(static_cast<size_t>(kThreads * kPerThread), lines.size());
    for (const std::string& line : lines) {
        char level[8] = {};
        int source_line = -1;
        int t = -1;
        int i = -1;
        int end = 0;
        const int fields =
            sscanf(line.c_str() + 20, "%5s ks_uvc_imu_source:%d: thread %d message %d%n", level,
                   &source_line, &t, &i, &end);
        ASSERT_TRUE(line.size() > 20 && ks_test::like(line.substr(0, 20), "####-##-## ##:##:## "))
            << line;
        ASSERT_EQ(4, fields) << line;
        ASSERT_EQ(line.size() - 20, static_cast<size_t>(end)) << line;
        ASSERT_TRUE(strcmp(level, "DEBUG") == 0 || strcmp(level, "ERROR") == 0) << line;
        ASSERT_EQ(t, source_line);
        ASSERT_TRUE(t >= 0 && t < kThreads && i >= 0 && i < kPerThread) << line;
        ++seen[t][i];
    }
    for (const std::vector<int>& per_thread : seen) {
        for (int count : per_thread) EXPECT_EQ(1, count);
    }
}
