#include <gtest/gtest.h>

#include "common/ks_log.h"
#include "ks_test_helpers.h"

using namespace ks_test;
using std::filesystem::exists;
using std::filesystem::file_size;
using V = std::vector<std::string>;

namespace {

const char kModule[] = "ks_v4l2_driver/source/ks_v4l2_driver";
const uintmax_t kRotateSize = 104857600;
// File writes from one size/retention check to the next.
const int kWritesPerCheck = 8002;
// The time stamp of a rotated file name.
const std::string kStamp(14, '#');

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Writes ERROR lines until done() holds; returns the number of writes it took,
// or 0 when it did not happen within one check period.
template <typename Pred>
int write_until(Pred done) {
    for (int i = 1; i <= kWritesPerCheck; ++i) {
        log_log(LOG_ERROR, kModule, i, "line %d", i);
        if (done()) return i;
    }
    return 0;
}

std::string rotated_name(int i) {
    return "sdk_202001010000" + std::to_string(10 + i) + ".log";
}

// Every test starts from and returns to the logger's defaults.
class Log : public ::testing::Test {
  protected:
    void TearDown() override {
        ks_destory_log();
        log_set_level(LOG_ERROR);
        log_set_quiet(1);
    }
    TempDir tmp;
};

}  // namespace

TEST_F(Log, LineLayoutsOnConsoleAndInFile) {
    const std::string path = tmp / "sdk.log";
    ASSERT_EQ(0, ks_init_log(path.c_str()));
    log_set_level(LOG_TRACE);
    log_set_quiet(0);

    FdCapture err(2);
    for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
        log_log(level, kModule, 100 + level, "message %d of %s", level, "six");
    }
    // Levels without a name are never emitted.
    for (int level : {-1, 6, 1000}) log_log(level, kModule, 1, "no name");
    log_logn(LOG_INFO, kModule, 200, "[%03d]", 7);
    const int macro_line = __LINE__ + 1;
    KS_LOG_ERROR("ksAsicSdk/source/ksAsicSDK_Impl", "through %s", "the macro");
    log_log(LOG_ERROR, "plain_name", 300, "no folder");
    const std::string console = err.text();
    const std::string file = read_file(path);

    const char* padded[] = {"TRACE", "DEBUG", "INFO ", "WARN ", "ERROR", "FATAL"};
    auto expected = [&](const std::string& time) {
        std::string text;
        for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
            text += time + " " + padded[level] + " ks_v4l2_driver:" + std::to_string(100 + level) +
                    ": message " + std::to_string(level) + " of six\n";
        }
        // The bare text has no prefix and no newline: the next line follows it directly.
        return text + "[007]" + time + " ERROR ksAsicSDK_Impl:" + std::to_string(macro_line) +
               ": through the macro\n" + time + " ERROR plain_name:300: no folder\n";
    };
    EXPECT_TRUE(like(console, expected("##:##:##"))) << console;
    EXPECT_TRUE(like(file, expected("####-##-## ##:##:##"))) << file;

    // After the file is closed, messages still reach the console.
    ks_destory_log();
    FdCapture err2(2);
    log_log(LOG_ERROR, kModule, 1, "console only");
    EXPECT_TRUE(has(err2.text(), "console only"));
    EXPECT_EQ(file, read_file(path));
}

// Ten old files are allowed at start-up; each check, every 8002 writes,
// removes the oldest beyond nine and moves a live file over 100 MiB aside.
TEST_F(Log, RotationAndRetentionRunEvery8002ndWrite) {
    // A longer path first: the shorter one must replace every part of it.
    ASSERT_EQ(0, ks_init_log((tmp / "deeper/directory/much_longer_name.extension").c_str()));
    for (int i = 1; i <= 10; ++i) write_file(tmp / rotated_name(i), "old");
    write_file(tmp / "other.log", "not ours");
    const std::string live = tmp / "sdk.log";
    ASSERT_EQ(0, ks_init_log(live.c_str()));
    EXPECT_EQ(10u, dir_names(tmp.path(), "sdk_").size());

    // Writes of earlier tests may have advanced the count: run to the next
    // check first, after which the count starts from zero. A small live file
    // is not moved aside.
    ASSERT_GT(write_until([&] { return !exists(tmp / rotated_name(1)); }), 0);
    EXPECT_EQ(9u, dir_names(tmp.path(), "sdk_").size());

    // A live file of exactly 100 MiB stays, and nine rotated files are kept.
    for (int i = 0; i < kWritesPerCheck - 1; ++i) log_log(LOG_ERROR, kModule, i, "line %d", i);
    const std::string at_limit = "2000-01-01 00:00:00 ERROR ks_v4l2_driver:1: 100 MiB\n";
    std::filesystem::resize_file(live, kRotateSize - at_limit.size());
    log_log(LOG_ERROR, kModule, 1, "100 MiB");
    EXPECT_EQ(kRotateSize, file_size(live));
    EXPECT_EQ(9u, dir_names(tmp.path(), "sdk_").size());

    write_file(tmp / rotated_name(11), "new");
    write_file(tmp / rotated_name(12), "new");
    std::filesystem::resize_file(live, kRotateSize + 4096);
    for (int i = 0; i < kWritesPerCheck - 1; ++i) {
        log_log(LOG_ERROR, kModule, i, "line %d", i);
        log_log(LOG_DEBUG, kModule, i, "filtered, not counted");
    }
    EXPECT_GT(file_size(live), kRotateSize);
    EXPECT_EQ(11u, dir_names(tmp.path(), "sdk_").size());

    log_log(LOG_ERROR, kModule, 1, "the 8002nd");
    V names = dir_names(tmp.path());
    ASSERT_EQ(14u, names.size());
    const std::string rotated = names.back();
    EXPECT_TRUE(like(rotated, "sdk_" + kStamp + ".log")) << rotated;
    EXPECT_GT(file_size(tmp / rotated), kRotateSize);
    EXPECT_TRUE(has(read_file(tmp / rotated), "the 8002nd"));
    V expected = {"deeper", "other.log", "sdk.log"};
    for (int i = 3; i <= 12; ++i) expected.push_back(rotated_name(i));
    names.pop_back();
    EXPECT_EQ(expected, names);
    EXPECT_EQ("not ours", read_file(tmp / "other.log"));
    EXPECT_EQ(0u, file_size(live));
    log_log(LOG_ERROR, kModule, 2, "into the new file");
    EXPECT_EQ(1u, split_lines(read_file(live)).size());
}

TEST_F(Log, BareNameWorksInTheCurrentDirectory) {
    ScopedCwd cwd(tmp.path());
    // A missing file named without a folder cannot be split: refused.
    EXPECT_EQ(-1, ks_init_log("xlog"));
    EXPECT_FALSE(exists("xlog"));

    write_file("xlog", "");
    for (int i = 11; i <= 22; ++i) write_file("xlog_202001010000" + std::to_string(i) + ".", "");
    FdCapture err(2);
    ASSERT_EQ(0, ks_init_log("xlog"));
    // Too many at start-up: every attempt names the oldest, so the second
    // finds it gone.
    EXPECT_EQ("remove file: ./xlog_20200101000011. Failed!\n", err.text());
    EXPECT_EQ(11u, dir_names(".", "xlog_").size());

    // Without an extension the rotated name ends in a point.
    log_log(LOG_ERROR, kModule, 1, "before");
    process_log_file_by_file_size();
    const V rotated = dir_names(".", "xlog_");
    ASSERT_EQ(12u, rotated.size());
    EXPECT_TRUE(like(rotated.back(), "xlog_" + kStamp + ".")) << rotated.back();
    EXPECT_TRUE(has(read_file(rotated.back()), "before"));
    ensure_log_file_to_fixed_num();
    EXPECT_FALSE(exists("xlog_20200101000012."));
    EXPECT_EQ(11u, dir_names(".", "xlog_").size());
    log_log(LOG_ERROR, kModule, 2, "after");
    EXPECT_EQ(1u, split_lines(read_file("xlog")).size());
}

// By default only errors reach the file and nothing the console.
TEST_F(Log, DefaultsAndInitCreatingTheDirectoryOrFailing) {
    FdCapture err(2);
    log_log(LOG_FATAL, kModule, 1, "before any file");
    const std::string deep = tmp / "a/b/c/sdk.log";
    ASSERT_EQ(0, ks_init_log(deep.c_str()));
    EXPECT_TRUE(exists(deep));
    log_log(LOG_WARN, kModule, 2, "a warning");
    log_log(LOG_ERROR, kModule, 3, "an error %d", 3);

    // A directory that cannot be made or a path too long: -1, and the open
    // file stays in use.
    write_file(tmp / "plain", "");
    EXPECT_EQ(-1, ks_init_log((tmp / "plain/sub/sdk.log").c_str()));
    EXPECT_EQ(-1, ks_init_log((tmp / std::string(300, 'p') + "/sdk.log").c_str()));
    EXPECT_EQ(-1, ks_init_log((tmp / std::string(127, 'n')).c_str()));
    log_log(LOG_FATAL, kModule, 4, "fatal");

    // No path: file logging off.
    EXPECT_EQ(0, ks_init_log(nullptr));
    log_log(LOG_ERROR, kModule, 5, "nowhere");
    EXPECT_EQ("", err.text());
    const V lines = split_lines(read_file(deep));
    ASSERT_EQ(2u, lines.size());
    EXPECT_TRUE(has(lines[0], "ERROR ks_v4l2_driver:3: an error 3"));
    EXPECT_TRUE(has(lines[1], "FATAL ks_v4l2_driver:4: fatal"));
}

TEST_F(Log, RotationFailuresAreReportedAndLoggingGoesOn) {
    const std::string live = tmp / "sdk.log";
    ASSERT_EQ(0, ks_init_log(live.c_str()));
    ASSERT_EQ(0, remove(live.c_str()));
    FdCapture err(2);
    process_log_file_by_file_size();
    const std::string message = err.text();
    EXPECT_TRUE(
        like(message, "rename file to: " + tmp.path() + "/sdk_" + kStamp + ".log Failed!\n"))
        << message;
    log_log(LOG_ERROR, kModule, 1, "recreated");
    EXPECT_TRUE(has(read_file(live), "recreated"));

    // The folder itself is gone: no new file can be opened.
    const std::string gone = tmp / "gone/sdk.log";
    ASSERT_EQ(0, ks_init_log(gone.c_str()));
    std::filesystem::remove_all(tmp / "gone");
    FdCapture err2(2);
    process_log_file_by_file_size();
    log_log(LOG_ERROR, kModule, 2, "lost");
    EXPECT_TRUE(has(err2.text(), "New log file failed!\n: "));
    EXPECT_FALSE(exists(gone));
}
