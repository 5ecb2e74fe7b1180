#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/ks_file_utils.h"
#include "common/ks_log.h"
#include "ks_test_helpers.h"

using ks_test::dir_names;
using ks_test::exists;
using ks_test::FdCapture;
using ks_test::file_size;
using ks_test::like;
using ks_test::read_file;
using ks_test::ScopedCwd;
using ks_test::split_lines;
using ks_test::TempDir;
using ks_test::write_file;

namespace {

const char kModule[] = "ks_v4l2_driver/source/ks_v4l2_driver";
const long long kRotateSize = 104857600;
// File writes from one size/retention check to the next.
const int kWritesPerCheck = 8002;

std::vector<int> g_lock_calls;
void record_lock(void* udata, int lock) {
    g_lock_calls.push_back(lock);
    *static_cast<int*>(udata) += 1;
}

// Makes the live file look bigger than the rotation size without writing it.
void inflate(const std::string& path) {
    ASSERT_EQ(0, truncate(path.c_str(), kRotateSize + 4096));
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

void write_lines(int n) {
    for (int i = 0; i < n; ++i) log_log(LOG_ERROR, kModule, i, "line %d", i);
}

// The time stamp of a rotated file name.
const std::string kStamp(14, '#');

std::string rotated_name(int i) {
    return "sdk_202001010000" + std::string(i < 10 ? "0" : "") + std::to_string(i) + ".log";
}

// Every test starts from and returns to the logger's defaults.
class Log : public ::testing::Test {
  protected:
    void TearDown() override {
        ks_destory_log();
        log_set_level(LOG_ERROR);
        log_set_quiet(1);
        log_set_lock(nullptr);
        log_set_udata(nullptr);
        set_list_items_recursive_mode(0);
        g_lock_calls.clear();
    }
    TempDir tmp;
};

}  // namespace

TEST_F(Log, DefaultsSendOnlyErrorsAndOnlyToTheFile) {
    const std::string path = tmp / "sdk.log";
    FdCapture err(2);
    log_log(LOG_FATAL, kModule, 1, "before any file");
    ASSERT_EQ(0, ks_init_log(path.c_str()));
    log_log(LOG_WARN, kModule, 2, "a warning");
    log_log(LOG_ERROR, kModule, 3, "an error %d", 3);
    log_log(LOG_FATAL, kModule, 4, "fatal");
    EXPECT_EQ("", err.text());
    const std::vector<std::string> lines = split_lines(read_file(path));
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("ERROR ks_v4l2_driver:3: an error 3"));
    EXPECT_NE(std::string::npos, lines[1].find("FATAL ks_v4l2_driver:4: fatal"));
}

TEST_F(Log, MessagesBelowTheThresholdHaveNoEffect) {
    const std::string path = tmp / "sdk.log";
    ASSERT_EQ(0, ks_init_log(path.c_str()));
    int calls = 0;
    log_set_udata(&calls);
    log_set_lock(record_lock);
    log_set_level(LOG_WARN);
    log_set_quiet(0);

    FdCapture err(2);
    log_log(LOG_TRACE, kModule, 1, "trace");
    log_log(LOG_DEBUG, kModule, 2, "debug");
    log_logn(LOG_INFO, kModule, 3, "info");
    // Levels without a name are never emitted either.
    log_log(-1, kModule, 4, "negative");
    log_log(6, kModule, 5, "above fatal");
    log_log(1000, kModule, 6, "far above");
    EXPECT_EQ("", err.text());
    EXPECT_EQ("", read_file(path));
    EXPECT_EQ(0, calls);
    EXPECT_TRUE(g_lock_calls.empty());

    FdCapture err2(2);
    log_log(LOG_WARN, kModule, 7, "warn");
    log_logn(LOG_ERROR, kModule, 8, "bare");
    const std::string console = err2.text();
    EXPECT_NE(std::string::npos, console.find("WARN  ks_v4l2_driver:7: warn\n"));
    EXPECT_EQ("bare", console.substr(console.size() - 4));
    EXPECT_EQ(2u, split_lines(read_file(path)).size());
    EXPECT_EQ((std::vector<int>{1, 0, 1, 0}), g_lock_calls);
    EXPECT_EQ(4, calls);
}

TEST_F(Log, LineLayoutsOnConsoleAndInFile) {
    const std::string path = tmp / "sdk.log";
    ASSERT_EQ(0, ks_init_log(path.c_str()));
    log_set_level(LOG_TRACE);
    log_set_quiet(0);

    FdCapture err(2);
    for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
        log_log(level, kModule, 100 + level, "message %d of %s", level, "six");
    }
    log_logn(LOG_INFO, kModule, 200, "[%03d]", 7);
    const int macro_line = __LINE__ + 1;
    KS_LOG_ERROR("ksAsicSdk/source/ksAsicSDK_Impl", "through %s", "the macro");
    log_log(LOG_ERROR, "plain_name", 300, "no folder");
    const std::string console = err.text();
    const std::string file = read_file(path);

    const char* padded[] = {"TRACE", "DEBUG", "INFO ", "WARN ", "ERROR", "FATAL"};
    const std::string console_time = "##:##:##";
    const std::string file_time = "####-##-## " + console_time;
    auto expected = [&](const std::string& time) {
        std::string text;
        for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
            text += time + " " + padded[level] + " ks_v4l2_driver:" + std::to_string(100 + level) +
                    ": message " + std::to_string(level) + " of six\n";
        }
        // The bare text has no prefix and no newline: the next line follows it directly.
        text += "[007]";
        text +=
            time + " ERROR ksAsicSDK_Impl:" + std::to_string(macro_line) + ": through the macro\n";
        text += time + " ERROR plain_name:300: no folder\n";
        return text;
    };
    EXPECT_TRUE(like(console, expected(console_time))) << console;
    EXPECT_TRUE(like(file, expected(file_time))) << file;

    // After the file is closed, messages still reach the console.
    ks_destory_log();
    FdCapture err2(2);
    log_log(LOG_ERROR, kModule, 1, "console only");
    EXPECT_NE(std::string::npos, err2.text().find("console only"));
    EXPECT_EQ(file, read_file(path));

    // A stream handed over by the application receives the file lines.
    log_set_quiet(1);
    FILE* own = tmpfile();
    ASSERT_NE(nullptr, own);
    log_set_fp(own);
    log_log(LOG_ERROR, kModule, 2, "to own stream");
    log_set_fp(nullptr);
    rewind(own);
    char buf[256] = {};
    ASSERT_NE(nullptr, fgets(buf, sizeof(buf), own));
    EXPECT_NE(nullptr, strstr(buf, "ERROR ks_v4l2_driver:2: to own stream\n"));
    fclose(own);
}

TEST_F(Log, RotatesPastOneHundredMebibytesOnThe8002ndWrite) {
    // A longer path first: the shorter one must replace every part of it.
    ASSERT_EQ(0, ks_init_log((tmp / "deeper/directory/much_longer_name.extension").c_str()));
    const std::string live = tmp / "sdk.log";
    ASSERT_EQ(0, ks_init_log(live.c_str()));

    // Writes of earlier tests may have advanced the count: run to the next
    // check first, after which the count starts from zero.
    inflate(live);
    ASSERT_GT(write_until([&] { return file_size(live) < kRotateSize; }), 0);
    for (const std::string& n : dir_names(tmp.path(), "sdk_")) remove((tmp / n).c_str());

    inflate(live);
    for (int i = 0; i < kWritesPerCheck - 1; ++i) {
        log_log(LOG_ERROR, kModule, i, "line %d", i);
        log_log(LOG_DEBUG, kModule, i, "filtered, not counted");
    }
    EXPECT_GT(file_size(live), kRotateSize);
    EXPECT_TRUE(dir_names(tmp.path(), "sdk_").empty());

    log_log(LOG_ERROR, kModule, 1, "the 8002nd");
    const std::vector<std::string> rotated = dir_names(tmp.path(), "sdk_");
    ASSERT_EQ(1u, rotated.size());
    EXPECT_TRUE(like(rotated[0], "sdk_" + kStamp + ".log")) << rotated[0];
    EXPECT_EQ((std::vector<std::string>{"deeper", "sdk.log", rotated[0]}), dir_names(tmp.path()));
    EXPECT_GT(file_size(tmp / rotated[0]), kRotateSize);
    EXPECT_NE(std::string::npos, read_file(tmp / rotated[0]).find("the 8002nd"));
    EXPECT_EQ(0, file_size(live));
    log_log(LOG_ERROR, kModule, 2, "into the new file");
    EXPECT_EQ(1u, split_lines(read_file(live)).size());
}

TEST_F(Log, KeepsAtMostNineRotatedFilesRemovingOnePerCheck) {
    for (int i = 1; i <= 10; ++i) write_file(tmp / rotated_name(i), "old");
    write_file(tmp / "other.log", "not ours");
    const std::string live = tmp / "sdk.log";
    ASSERT_EQ(0, ks_init_log(live.c_str()));
    EXPECT_EQ(10u, dir_names(tmp.path(), "sdk_").size());  // ten are allowed at start-up

    // Run to the next check (the count may have been advanced before): it
    // removes the oldest, and the count starts from zero.
    ASSERT_GT(write_until([&] { return !exists(tmp / rotated_name(1)); }), 0);
    EXPECT_EQ(9u, dir_names(tmp.path(), "sdk_").size());

    write_file(tmp / rotated_name(11), "new");
    write_file(tmp / rotated_name(12), "new");
    write_lines(kWritesPerCheck - 1);
    EXPECT_EQ(11u, dir_names(tmp.path(), "sdk_").size());
    write_lines(1);
    // One per check, the oldest; a small live file is never moved aside.
    std::vector<std::string> expected;
    for (int i = 3; i <= 12; ++i) expected.push_back(rotated_name(i));
    EXPECT_EQ(expected, dir_names(tmp.path(), "sdk_"));
    EXPECT_TRUE(exists(live));
    EXPECT_EQ("not ours", read_file(tmp / "other.log"));
}

TEST_F(Log, StartUpRemovesOnlyTheOldestOfTooManyRotatedFiles) {
    for (int i = 1; i <= 12; ++i) write_file(tmp / rotated_name(i), "old");
    FdCapture err(2);
    ASSERT_EQ(0, ks_init_log((tmp / "sdk.log").c_str()));
    // Two attempts on the same first name: the second finds it gone.
    EXPECT_EQ("remove file: " + (tmp / rotated_name(1)) + " Failed!\n", err.text());
    EXPECT_FALSE(exists(tmp / rotated_name(1)));
    EXPECT_EQ(11u, dir_names(tmp.path(), "sdk_").size());
}

TEST_F(Log, NameWithoutExtensionRotatesToNameEndingInPoint) {
    const std::string live = tmp / "sdklog";
    ASSERT_EQ(0, ks_init_log(live.c_str()));
    log_log(LOG_ERROR, kModule, 1, "before");
    process_log_file_by_file_size();
    const std::vector<std::string> rotated = dir_names(tmp.path(), "sdklog_");
    ASSERT_EQ(1u, rotated.size());
    EXPECT_TRUE(like(rotated[0], "sdklog_" + kStamp + ".")) << rotated[0];
    EXPECT_NE(std::string::npos, read_file(tmp / rotated[0]).find("before"));
    log_log(LOG_ERROR, kModule, 2, "after");
    EXPECT_NE(std::string::npos, read_file(live).find("after"));
}

TEST_F(Log, PathWithoutSlashWorksInTheCurrentDirectory) {
    ScopedCwd cwd(tmp.path());

    // A missing file named without a folder cannot be split: refused.
    EXPECT_EQ(-1, ks_init_log("x.log"));
    EXPECT_FALSE(exists("x.log"));

    write_file("x.log", "");
    for (int i = 1; i <= 11; ++i)
        write_file("x_202001010000" + std::to_string(10 + i) + ".log", "");
    ASSERT_EQ(0, ks_init_log("x.log"));
    EXPECT_FALSE(exists("x_20200101000011.log"));  // listed in "."
    process_log_file_by_file_size();
    EXPECT_EQ(11u, dir_names(".", "x_").size());
    ensure_log_file_to_fixed_num();
    EXPECT_FALSE(exists("x_20200101000012.log"));
    EXPECT_EQ(10u, dir_names(".", "x_").size());
    log_log(LOG_ERROR, kModule, 1, "here");
    EXPECT_NE(std::string::npos, read_file("x.log").find("here"));

    ks_destory_log();
}

TEST_F(Log, InitCreatesTheDirectoryOrFails) {
    const std::string deep = tmp / "a/b/c/sdk.log";
    ASSERT_EQ(0, ks_init_log(deep.c_str()));
    EXPECT_TRUE(exists(deep));
    log_log(LOG_ERROR, kModule, 1, "first");

    // A directory that cannot be made: -1, and the open file stays in use.
    write_file(tmp / "plain", "");
    EXPECT_EQ(-1, ks_init_log((tmp / "plain/sub/sdk.log").c_str()));
    EXPECT_EQ(-1, ks_init_log((tmp / std::string(300, 'p') + "/sdk.log").c_str()));
    EXPECT_EQ(-1, ks_init_log((tmp / std::string(127, 'n')).c_str()));
    log_log(LOG_ERROR, kModule, 2, "second");
    EXPECT_EQ(2u, split_lines(read_file(deep)).size());

    // No path: file logging off.
    EXPECT_EQ(0, ks_init_log(nullptr));
    log_log(LOG_ERROR, kModule, 3, "nowhere");
    EXPECT_EQ(2u, split_lines(read_file(deep)).size());
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
    EXPECT_NE(std::string::npos, read_file(live).find("recreated"));

    // The folder itself is gone: no new file can be opened.
    const std::string gone = tmp / "gone/sdk.log";
    ASSERT_EQ(0, ks_init_log(gone.c_str()));
    ASSERT_EQ(0, remove(gone.c_str()));
    ASSERT_EQ(0, rmdir((tmp / "gone").c_str()));
    FdCapture err2(2);
    process_log_file_by_file_size();
    log_log(LOG_ERROR, kModule, 2, "lost");
    const std::string text = err2.text();
    EXPECT_NE(std::string::npos, text.find("New log file failed!\n: "));
    EXPECT_FALSE(exists(gone));
}
