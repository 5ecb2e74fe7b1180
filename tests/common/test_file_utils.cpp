#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cstring>

#include "common/ks_file_utils.h"
#include "ks_test_helpers.h"

using namespace ks_test;
using std::filesystem::exists;
using V = std::vector<std::string>;

namespace {

// "result|text" of a returned string, "null" when none was handed out.
std::string result(int rc, char* text) {
    const std::string out = std::to_string(rc) + "|" + (text ? text : "null");
    ks_free(text);
    return out;
}

// "result|first|second" of a split.
std::string split(int (*fn)(const char*, char**, char**), const char* path) {
    char* a = nullptr;
    char* b = nullptr;
    const int rc = fn(path, &a, &b);
    return result(rc, a) + "|" + result(0, b).substr(2);
}

std::string join(const char* a, const char* b) {
    char* out = nullptr;
    const int rc = ks_join_two_path(a, b, &out);
    return result(rc, out);
}

// "result|text" of a cut at '.' into a buffer that held "kept".
std::string cut(const char* src, int n) {
    char dst[KS_LIST_ITEM_SIZE] = "kept";
    const int rc = ks_cut(dst, src, ".", n);
    return std::to_string(rc) + "|" + dst;
}

// The sorted listing with the listed directory taken off each name, or {"failed"}.
V list_items(std::string dir, int type, const char* filter, int ext_mode) {
    char** list = nullptr;
    unsigned count = 0;
    if (ks_list_items_by_type_with_filter(dir.c_str(), type, filter, ext_mode, &list, &count) != 0)
        return {"failed"};
    qsort_string_list(const_cast<const char**>(list), static_cast<int>(count));
    if (dir.back() != '/') dir += '/';
    V out(list, list + count);
    for (std::string& name : out)
        if (name.compare(0, dir.size(), dir) == 0) name.erase(0, dir.size());
    ks_free_list_items(&list, &count);
    return out;
}

}  // namespace

TEST(FileUtils, SplitJoinAndCutPaths) {
    EXPECT_EQ("0|a/b|", split(ks_split_path, "a/b/"));
    EXPECT_EQ("0|/var/log|sdk.log", split(ks_split_path, "/var/log/sdk.log"));
    EXPECT_EQ("0||x", split(ks_split_path, "/x"));
    EXPECT_EQ("-2|null|null", split(ks_split_path, "plain"));
    EXPECT_EQ("-1|null|null", split(ks_split_path, nullptr));
    EXPECT_EQ("0|dir/f.tar|.gz", split(ks_split_ext, "dir/f.tar.gz"));
    EXPECT_EQ("-1|null|null", split(ks_split_ext, "dir/file"));
    EXPECT_EQ("-1|null|null", split(ks_split_ext, nullptr));

    // Two parts are joined with exactly one slash.
    const char* joins[][3] = {
        {"a/", "/b", "0|a/b"}, {"a", "b", "0|a/b"},       {"", "b", "0|b"},
        {"a", "/b", "0|a/b"},  {"a/", "b", "0|a/b"},      {"/", "b", "0|/b"},
        {"a", "", "0|a/"},     {nullptr, "b", "-1|null"}, {"a", nullptr, "-1|null"}};
    for (const auto& j : joins) EXPECT_EQ(j[2], join(j[0], j[1])) << j[0] << " + " << j[1];
    char* many = nullptr;
    ASSERT_EQ(0, ks_join_path(&many, 4, "/data/", "/calib", "left", "/p.txt"));
    EXPECT_EQ("0|/data/calib/left/p.txt", result(0, many));
    char* none = nullptr;
    EXPECT_EQ(-1, ks_join_path(&none, 1, "a"));
    EXPECT_EQ(-1, ks_join_path(&none, 3, "a", "b", static_cast<const char*>(nullptr)));
    EXPECT_EQ(nullptr, none);

    // Tokens counted from either end; empty tokens do not count; a failed cut
    // leaves the buffer as it was.
    const std::tuple<const char*, int, const char*> cuts[] = {
        {"x.y.z", -1, "0|z"}, {"x.y.z", 1, "0|x"},    {"x.y.z", -3, "0|x"},
        {"..x..y", 2, "0|y"}, {"x.y.z", 4, "1|kept"}, {"x.y.z", -4, "1|kept"},
        {"", 1, "1|kept"},    {"x.y", 0, "-1|kept"},  {nullptr, 1, "-1|kept"}};
    for (const auto& [src, n, expected] : cuts) EXPECT_EQ(expected, cut(src, n)) << src << " " << n;
    EXPECT_EQ(-1, ks_cut(nullptr, "x.y", ".", 1));
    // Longer input is cut to 255 characters: the first token is cut with it
    // and what lies beyond is gone.
    const std::string longer = std::string(400, 'a') + ".tail";
    EXPECT_EQ("0|" + std::string(KS_LIST_ITEM_SIZE - 1, 'a'), cut(longer.c_str(), 1));
    EXPECT_EQ("1|kept", cut(longer.c_str(), 2));
    // Only the token and its terminator are written.
    char small[8] = "#######";
    EXPECT_EQ(0, ks_cut(small, "ab.cd", ".", 2));
    EXPECT_EQ(std::string("cd\0####", 7), std::string(small, 7));
}

TEST(FileUtils, ExtensionAndPrefixMatching) {
    // The extension is what follows the last point; it may be named with or
    // without the point, and a leading part of it matches.
    const std::tuple<const char*, const char*, int> ext[] = {
        {"log.txt", ".tx", 0},    {"log.txt", "txt", 0},  {"a.b.log", "log", 0},
        {"a.log.b", "log", 1},    {"log.txt", "txtx", 1}, {nullptr, "txt", -1},
        {"log.txt", nullptr, -2}, {"logtxt", "txt", -3}};
    for (const auto& [name, e, rc] : ext) EXPECT_EQ(rc, is_ext_match(name, e)) << name << " " << e;
    EXPECT_EQ(0, is_prefix_match("/var/log/sdk_2024.log", "sdk_"));
    EXPECT_EQ(1, is_prefix_match("/var/sdk_/x.log", "sdk_"));  // only the base name counts
    EXPECT_EQ(1, is_prefix_match("sdk.log", "sdk_"));
    EXPECT_EQ(-1, is_prefix_match(nullptr, "sdk_"));
    EXPECT_EQ(-1, is_prefix_match("sdk.log", nullptr));
}

TEST(FileUtils, MkdirTouchClearSizeAndRemove) {
    TempDir tmp;
    ScopedCwd cwd(tmp.path());
    EXPECT_EQ(0, ks_mkdir("x/y/"));
    EXPECT_EQ(1, ks_is_folder_exist("x/y"));
    EXPECT_EQ(0, ks_mkdir("x"));  // already there
    write_file("plain", "0123456789");
    EXPECT_EQ(-1, ks_mkdir("plain"));
    EXPECT_EQ(-1, ks_mkdir(nullptr));
    EXPECT_EQ(0, ks_is_folder_exist("plain"));
    EXPECT_EQ(1, ks_is_file_exist("plain"));
    EXPECT_EQ(0, ks_is_file_exist("missing"));

    // Touch makes the parents and leaves an existing file as it is.
    EXPECT_EQ(0, ks_file_touch("here.txt"));
    EXPECT_TRUE(exists("here.txt"));
    EXPECT_EQ(0, ks_file_touch("t/u/v.txt"));
    EXPECT_EQ(0, ks_get_file_size("t/u/v.txt"));
    write_file("t/u/v.txt", "keep");
    EXPECT_EQ(0, ks_file_touch("t/u/v.txt"));
    EXPECT_EQ("keep", read_file("t/u/v.txt"));
    EXPECT_EQ(-1, ks_file_touch(nullptr));
    FdCapture err(2);
    EXPECT_EQ(-2, ks_file_touch("plain/sub/f.txt"));
    EXPECT_EQ("When touch file, can't mkdir parent dir plain/sub\n", err.text());
    FdCapture out(1);
    EXPECT_EQ(-3, ks_file_touch("t/newdir/"));
    EXPECT_EQ(-1, ks_file_clear("x"));  // a directory cannot be opened for writing
    EXPECT_EQ("file touch fail\nfile clear fail\n", out.text());

    EXPECT_EQ(10, ks_get_file_size("plain"));
    EXPECT_EQ(0, ks_file_clear("plain"));
    EXPECT_EQ(0, ks_get_file_size("plain"));
    EXPECT_EQ(-1, ks_file_clear("missing"));
    EXPECT_EQ(-1, ks_file_clear(nullptr));
    EXPECT_EQ(-1, ks_get_file_size("missing"));
    // The size is cut to 32 bits: 4 GiB + 10 reads as 10.
    std::filesystem::resize_file("plain", (1ULL << 32) + 10);
    EXPECT_EQ(10, ks_get_file_size("plain"));

    EXPECT_EQ(0, ks_rmfile("plain"));
    EXPECT_FALSE(exists("plain"));
    EXPECT_NE(0, ks_rmfile("plain"));
    EXPECT_EQ(-1, ks_rmfile(nullptr));
}

TEST(FileUtils, CopyCopiesEveryByteAndFallsBackToCpWithoutAShell) {
    TempDir tmp;
    ScopedCwd cwd(tmp.path());
    const std::string data("head\0\xff\x01 tail\n", 13);
    write_file("src.bin", data);
    write_file("dst.bin", std::string(100, 'x'));  // replaced, not appended to
    EXPECT_EQ(0, ks_file_copy("src.bin", "dst.bin"));
    EXPECT_EQ(data, read_file("dst.bin"));
    {
        FdCapture out(1);
        EXPECT_EQ(-1, ks_file_copy("missing", "other"));
        EXPECT_EQ("'missing' does not exist!\n", out.text());
        EXPECT_FALSE(exists("other"));
    }

    // A destination that cannot be opened as a file goes to cp. Each name would
    // run a command or change cp's options if a shell or cp read it; copied
    // literally it simply lands in the directory.
    ASSERT_TRUE(std::filesystem::create_directory("out dir"));
    for (const char* name : {"a;touch pwned1", "$(touch pwned2)", "`touch pwned3`",
                             "b && touch pwned4", "q'uote\"s|x>y", "-n"}) {
        write_file(name, std::string("content of ") + name);
        FdCapture out(1);
        EXPECT_EQ(0, ks_file_copy(name, "out dir")) << name;
        EXPECT_EQ("Wrong output file name or Permission denied, try system cp!\n", out.text());
        EXPECT_EQ(std::string("content of ") + name, read_file(std::string("out dir/") + name));
    }
    for (const char* marker : {"pwned1", "pwned2", "pwned3", "pwned4", "y"})
        EXPECT_FALSE(exists(marker)) << marker;

    // cp failing gives -1. The command "cp -f <src> <dst> && sync" must fit
    // 1024 bytes with its terminator: 1023 characters are run, 1024 are
    // refused. Extra slashes after the directory name pad the destination.
    ASSERT_TRUE(std::filesystem::create_directory("fits"));
    ASSERT_TRUE(std::filesystem::create_directory("refused"));
    const size_t fixed = strlen("cp -f ") + 1 + 1 + strlen(" && sync");  // plus "s" and a space
    write_file("s", "s");
    FdCapture out(1);
    FdCapture err(2);
    EXPECT_EQ(-1, ks_file_copy("-n", "no/such/dir/"));
    EXPECT_EQ(0, ks_file_copy("s", ("fits" + std::string(1023 - fixed - 4, '/')).c_str()));
    EXPECT_EQ(-1, ks_file_copy("s", ("refused" + std::string(1024 - fixed - 7, '/')).c_str()));
    EXPECT_TRUE(exists("fits/s"));
    EXPECT_FALSE(exists("refused/s"));
}

TEST(FileUtils, SyncCloseReportsFailuresAndAlwaysCloses) {
    TempDir tmp;
    FILE* fp = fopen((tmp / "synced").c_str(), "w");
    ASSERT_NE(nullptr, fp);
    fputs("payload", fp);
    EXPECT_EQ(0, ks_file_sync_close(fp));
    EXPECT_EQ("payload", read_file(tmp / "synced"));
    EXPECT_EQ(-1, ks_file_sync_close(nullptr));

    // A device that is always full fails every flush; the stream is still
    // released (the leak checker of the sanitizer build would notice).
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(nullptr, full);
    fputs("lost", full);
    EXPECT_EQ(-1, ks_file_sync_close(full));
}

TEST(FileUtils, ListItemsByTypeWithFilter) {
    TempDir tmp;
    const std::string root = tmp / "list";
    const std::string r = root + "/";
    ASSERT_EQ(0, ks_mkdir((r + "sub/deep").c_str()));
    ASSERT_EQ(0, ks_mkdir((r + "sub.log").c_str()));
    for (const char* f :
         {"a.log", "b.txt", "sdk_2.log", "sdk_1.txt", "noext", "sub/c.log", "sub/deep/d.log"}) {
        write_file(r + f, "x");
    }
    std::filesystem::create_directory_symlink(r, r + "loop");  // a directory loop
    std::filesystem::create_symlink("a.log", r + "link.log");  // a link is not a file
    const int F = KS_ITEM_TYPE_FILE;
    const int D = KS_ITEM_TYPE_DIR;

    ASSERT_EQ(0, get_list_items_recursive_mode());
    EXPECT_EQ((V{"a.log", "b.txt", "noext", "sdk_1.txt", "sdk_2.log"}),
              list_items(root, F, nullptr, 0));
    EXPECT_EQ((V{"a.log", "sdk_2.log"}), list_items(root, F, "log", 1));
    EXPECT_EQ((V{"a.log", "sdk_2.log"}), list_items(root, F, ".log", 1));
    EXPECT_EQ((V{"sdk_1.txt", "sdk_2.log"}), list_items(root, F, "sdk_", 0));
    EXPECT_EQ((V{"sub", "sub.log"}), list_items(root, D, nullptr, 0));
    EXPECT_EQ((V{"sub.log"}), list_items(root, D, "log", 1));
    EXPECT_EQ((V{"a.log"}), list_items(r, F, "a", 0));  // no doubled '/'
    EXPECT_EQ(V{}, list_items(root, F, "zzz", 0));

    set_list_items_recursive_mode(7);
    EXPECT_EQ(1, get_list_items_recursive_mode());
    EXPECT_EQ((V{"a.log", "sdk_2.log", "sub/c.log", "sub/deep/d.log"}),
              list_items(root, F, "log", 1));
    EXPECT_EQ((V{"sub", "sub.log", "sub/deep"}), list_items(root, D, nullptr, 0));
    // Recursion stops KS_LIST_MAX_DEPTH levels below the listed directory.
    std::string dir = tmp / "r";
    for (int level = 0; level <= KS_LIST_MAX_DEPTH + 5; ++level, dir += "/d") {
        ASSERT_TRUE(std::filesystem::create_directories(dir + "/d"));
        write_file(dir + "/f", "x");
    }
    EXPECT_EQ(static_cast<size_t>(KS_LIST_MAX_DEPTH + 1), list_items(tmp / "r", F, "f", 0).size());
    set_list_items_recursive_mode(0);

    // A path of 255 characters fits a list entry with its terminator; one of
    // 256 is left out.
    const std::string lng = tmp / "long/";
    ASSERT_EQ(0, ks_mkdir(lng.c_str()));
    write_file(lng + std::string(255 - lng.size(), 'a'), "x");
    write_file(lng + std::string(256 - lng.size(), 'b'), "x");
    EXPECT_EQ(V{std::string(255 - lng.size(), 'a')}, list_items(lng, F, nullptr, 0));

    // Every entry lives in a zeroed buffer of the list size.
    char** list = nullptr;
    unsigned count = 0;
    ASSERT_EQ(0, ks_list_items_by_type_with_filter(root.c_str(), F, "a.", 0, &list, &count));
    ASSERT_EQ(1u, count);
    EXPECT_EQ(r + "a.log" + std::string(KS_LIST_ITEM_SIZE - r.size() - 5, '\0'),
              std::string(list[0], KS_LIST_ITEM_SIZE));
    EXPECT_EQ(0, ks_free_list_items(&list, &count));
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(0u, count);

    // No directory: nothing touched.
    char* sentinel[1] = {nullptr};
    char** untouched = sentinel;
    unsigned n = 99;
    EXPECT_EQ(-1, ks_list_items_by_type_with_filter(nullptr, F, nullptr, 0, &untouched, &n));
    EXPECT_EQ(-1, ks_list_items_by_type_with_filter((r + "a.log").c_str(), F, nullptr, 0,
                                                    &untouched, &n));
    EXPECT_EQ(sentinel, untouched);
    EXPECT_EQ(99u, n);
}

TEST(FileUtils, ShellCommands) {
    EXPECT_EQ(0, ks_system_exec("true"));
    EXPECT_EQ(-1, ks_system_exec("false"));
    EXPECT_EQ(-1, ks_system_exec(nullptr));
    EXPECT_EQ(0, system_exec("exit 0"));
    EXPECT_EQ(-1, system_exec("exit 2"));
    EXPECT_EQ(3, system_shell("exit 3"));
    EXPECT_EQ(0, system_shell("true"));
}

TEST(FileUtils, AvailableSpaceUnits) {
    // /dev holds device nodes only: its free space does not move meanwhile.
    struct statvfs vfs;
    ASSERT_EQ(0, statvfs("/dev", &vfs));
    const double bytes = static_cast<double>(vfs.f_bsize) * static_cast<double>(vfs.f_bavail);
    const std::pair<char, double> units[] = {
        {'b', 1.0},       {'B', 1.0},       {'k', 1024.0},       {'K', 1024.0},
        {'M', 1048576.0}, {'m', 1048576.0}, {'g', 1073741824.0}, {'G', 1073741824.0}};
    for (const auto& [unit, size] : units)
        EXPECT_EQ(bytes / size, ksGetAvailableSpaceByByteUnit("/dev", unit)) << unit;
    EXPECT_EQ(bytes, ksGetAvailableSpaceSize("/dev"));
    EXPECT_EQ(-2.0, ksGetAvailableSpaceByByteUnit("/dev", 'T'));
    EXPECT_EQ(-1.0, ksGetAvailableSpaceByByteUnit("/nonexistent/dir", 'b'));
    EXPECT_EQ(-1.0, ksGetAvailableSpaceSize(nullptr));
}
