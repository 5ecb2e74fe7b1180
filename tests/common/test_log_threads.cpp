#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <regex>
#include <thread>

#include "common/ks_log.h"
#include "ks_test_helpers.h"

namespace {

// Counts the logger's lock and unlock calls; both counts change only while
// the mutex is held.
struct LockRecord {
    std::mutex mutex;
    int locks = 0;
    int unlocks = 0;
};

void lock_callback(void* udata, int lock) {
    LockRecord* r = static_cast<LockRecord*>(udata);
    if (lock) r->mutex.lock();
    ++(lock ? r->locks : r->unlocks);
    if (!lock) r->mutex.unlock();
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
    EXPECT_EQ(kThreads * kPerThread, record.locks);
    EXPECT_EQ(kThreads * kPerThread, record.unlocks);

    // Every line whole and every message present once, at the level it was sent with.
    const std::regex whole(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (DEBUG|ERROR) )"
                           R"(ks_uvc_imu_source:(\d+): thread (\d+) message (\d+))");
    std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kPerThread, 0));
    const std::vector<std::string> lines = ks_test::split_lines(ks_test::read_file(path));
    ASSERT_EQ(static_cast<size_t>(kThreads * kPerThread), lines.size());
    for (const std::string& line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, whole)) << line;
        const int t = std::stoi(m[3]);
        const int i = std::stoi(m[4]);
        ASSERT_TRUE(t < kThreads && i < kPerThread && m[2] == m[3]) << line;
        ASSERT_EQ(i % 2 ? "ERROR" : "DEBUG", m[1].str()) << line;
        ++seen[t][i];
    }
    EXPECT_EQ(std::vector<std::vector<int>>(kThreads, std::vector<int>(kPerThread, 1)), seen);
}
