#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/ks_file_utils.h"
#include "ks_test_helpers.h"

using ks_test::exists;
using ks_test::read_file;
using ks_test::ScopedCwd;
using ks_test::TempDir;
using ks_test::write_file;

namespace {

// Result of a split or join, released with ks_free.
struct Parts {
    char* a = nullptr;
    char* b = nullptr;
    ~Parts() {
        ks_free(a);
        ks_free(b);
    }
};

// "result|first|second" of a split, "null" for an output left unset.
std::string split(int (*fn)(const char*, char**, char**), const char* path) {
    Parts p;
    const int rc = fn(path, &p.a, &p.b);
    return std::to_string(rc) + "|" + (p.a ? p.a : "null") + "|" + (p.b ? p.b : "null");
}

// "result|text" of a cut at '.' into a buffer that held "kept".
std::string cut(const char* src, int n) {
    char dst[KS_LIST_ITEM_SIZE] = "kept";
    const int rc = ks_cut(dst, src, ".", n);
    return std::to_string(rc) + "|" + dst;
}

std::vector<std::string> list_items(const std::string& dir, int type, const char* filter,
                                    int ext_mode) {
    char** list = nullptr;
    unsigned count = 0;
    std::vector<std::string> out;
    if (ks_list_items_by_type_with_filter(dir.c_str(), type, filter, ext_mode, &list, &count) !=
        0) {
        return out;
    }
    qsort_string_list(const_cast<const char**>(list), static_cast<int>(count));
    for (unsigned i = 0; i < count; ++i) out.push_back(list[i]);
    ks_free_list_items(&list, &count);
    return out;
}

}  // namespace

TEST(FileUtils, SplitAndJoinPaths) {
    EXPECT_EQ("0|a/b|", split(ks_split_path, "a/b/"));
    EXPECT_EQ("0|/var/log|sdk.log", split(ks_split_path, "/var/log/sdk.log"));
    EXPECT_EQ("0||x", split(ks_split_path, "/x"));
    EXPECT_EQ("-2|null|null", split(ks_split_path, "plain"));
    EXPECT_EQ("-1|null|null", split(ks_split_path, nullptr));
    EXPECT_EQ("0|dir/f.tar|.gz", split(ks_split_ext, "dir/f.tar.gz"));
    EXPECT_EQ("-1|null|null", split(ks_split_ext, "dir/file"));
    EXPECT_EQ("-1|null|null", split(ks_split_ext, nullptr));

    // Two parts are joined with exactly one slash.
    const char* joins[][3] = {{"a/", "/b", "a/b"}, {"a", "b", "a/b"},  {"", "b", "b"},
                              {"a", "/b", "a/b"},  {"a/", "b", "a/b"}, {"/", "b", "/b"},
                              {"a", "", "a/"}};
    for (const auto& j : joins) {
        Parts p;
        ASSERT_EQ(0, ks_join_two_path(j[0], j[1], &p.a)) << j[0] << " + " << j[1];
        EXPECT_STREQ(j[2], p.a) << j[0] << " + " << j[1];
    }
    Parts bad;
    EXPECT_EQ(-1, ks_join_two_path(nullptr, "b", &bad.a));
    EXPECT_EQ(-1, ks_join_two_path("a", nullptr, &bad.a));
    EXPECT_EQ(nullptr, bad.a);

    Parts many;
    ASSERT_EQ(0, ks_join_path(&many.a, 4, "/data/", "/calib", "left", "/p.txt"));
    EXPECT_STREQ("/data/calib/left/p.txt", many.a);
    EXPECT_EQ(-1, ks_join_path(&many.b, 1, "a"));
    EXPECT_EQ(-1, ks_join_path(&many.b, 3, "a", "b", static_cast<const char*>(nullptr)));
    EXPECT_EQ(nullptr, many.b);
}

TEST(FileUtils, CutPicksTokensFromEitherEnd) {
    EXPECT_EQ("0|z", cut("x.y.z", -1));
    EXPECT_EQ("0|x", cut("x.y.z", 1));
    EXPECT_EQ("0|x", cut("x.y.z", -3));
    EXPECT_EQ("0|y", cut("..x..y", 2));  // empty tokens do not count
    EXPECT_EQ("1|kept", cut("x.y.z", 4));
    EXPECT_EQ("1|kept", cut("x.y.z", -4));
    EXPECT_EQ("1|kept", cut("", 1));
    EXPECT_EQ("-1|kept", cut("x.y", 0));
    EXPECT_EQ("-1|kept", cut(nullptr, 1));
    EXPECT_EQ(-1, ks_cut(nullptr, "x.y", ".", 1));

    // Longer input is cut to 255 characters: the first token is cut with it
    // and what lies beyond is gone.
    const std::string longer = std::string(400, 'a') + ".tail";
    EXPECT_EQ("0|" + std::string(KS_LIST_ITEM_SIZE - 1, 'a'), cut(longer.c_str(), 1));
    EXPECT_EQ("1|kept", cut(longer.c_str(), 2));

    // Only the token and its terminator are written.
    char small[8];
    memset(small, '#', sizeof(small));
    EXPECT_EQ(0, ks_cut(small, "ab.cd", ".", 2));
    EXPECT_STREQ("cd", small);
    EXPECT_EQ('#', small[3]);
}

TEST(FileUtils, ExtensionAndPrefixMatching) {
    EXPECT_EQ(0, is_ext_match("log.txt", ".tx"));
    EXPECT_EQ(0, is_ext_match("log.txt", "txt"));
    EXPECT_EQ(0, is_ext_match("a.b.log", "log"));
    EXPECT_EQ(1, is_ext_match("a.log.b", "log"));
    EXPECT_EQ(1, is_ext_match("log.txt", "txtx"));
    EXPECT_EQ(-1, is_ext_match(nullptr, "txt"));
    EXPECT_EQ(-2, is_ext_match("log.txt", nullptr));
    EXPECT_EQ(-3, is_ext_match("logtxt", "txt"));

    EXPECT_EQ(0, is_prefix_match("/var/log/sdk_2024.log", "sdk_"));
    EXPECT_EQ(1, is_prefix_match("/var/sdk_/x.log", "sdk_"));  // only the base name counts
    EXPECT_EQ(1, is_prefix_match("sdk.log", "sdk_"));
    EXPECT_EQ(-1, is_prefix_match(nullptr, "sdk_"));
    EXPECT_EQ(-1, is_prefix_match("sdk.log", nullptr));
}

TEST(FileUtils, MkdirAndTouchCreateMissingParents) {
    TempDir tmp;
    ASSERT_FALSE(tmp.path().empty());
    const std::string nested = tmp / "a/b/c";
    EXPECT_EQ(0, ks_mkdir(nested.c_str()));
    EXPECT_EQ(1, ks_is_folder_exist(nested.c_str()));
    EXPECT_EQ(0, ks_mkdir(nested.c_str()));  // already there

    const std::string trailing = tmp / "x/y/";
    EXPECT_EQ(0, ks_mkdir(trailing.c_str()));
    EXPECT_EQ(1, ks_is_folder_exist((tmp / "x/y").c_str()));

    write_file(tmp / "plain", "data");
    EXPECT_EQ(-1, ks_mkdir((tmp / "plain/sub").c_str()));
    EXPECT_EQ(-1, ks_mkdir((tmp / "plain").c_str()));
    EXPECT_EQ(0, ks_is_folder_exist((tmp / "plain").c_str()));
    EXPECT_EQ(1, ks_is_file_exist((tmp / "plain").c_str()));
    EXPECT_EQ(0, ks_is_file_exist((tmp / "missing").c_str()));
    EXPECT_EQ(-1, ks_mkdir(nullptr));

    {
        ScopedCwd cwd(tmp.path());
        EXPECT_EQ(0, ks_mkdir("single"));
        EXPECT_EQ(1, ks_is_folder_exist("single"));
        EXPECT_EQ(0, ks_file_touch("here.txt"));
        EXPECT_TRUE(exists(tmp / "here.txt"));
    }

    const std::string touched = tmp / "t/u/v.txt";
    EXPECT_EQ(0, ks_file_touch(touched.c_str()));
    EXPECT_EQ(0, ks_get_file_size(touched.c_str()));
    write_file(touched, "keep");
    EXPECT_EQ(0, ks_file_touch(touched.c_str()));
    EXPECT_EQ("keep", read_file(touched));

    ks_test::FdCapture err(2);
    EXPECT_EQ(-2, ks_file_touch((tmp / "plain/sub/f.txt").c_str()));
    const std::string messages = err.text();
    EXPECT_EQ("When touch file, can't mkdir parent dir " + tmp.path() + "/plain/sub\n", messages);

    ks_test::FdCapture out(1);
    EXPECT_EQ(-3, ks_file_touch((tmp / "t/newdir/").c_str()));
    EXPECT_EQ("file touch fail\n", out.text());
    EXPECT_EQ(-1, ks_file_touch(nullptr));
}

TEST(FileUtils, ClearSizeAndRemove) {
    TempDir tmp;
    const std::string f = tmp / "f.bin";
    write_file(f, "0123456789");
    EXPECT_EQ(10, ks_get_file_size(f.c_str()));
    EXPECT_EQ(0, ks_file_clear(f.c_str()));
    EXPECT_EQ(0, ks_get_file_size(f.c_str()));
    EXPECT_EQ(-1, ks_file_clear((tmp / "missing").c_str()));
    EXPECT_EQ(-1, ks_file_clear(nullptr));
    EXPECT_EQ(-1, ks_get_file_size((tmp / "missing").c_str()));

    ks_test::FdCapture out(1);
    EXPECT_EQ(-1, ks_file_clear(tmp.path().c_str()));  // a directory cannot be opened for writing
    EXPECT_EQ("file clear fail\n", out.text());

    // The size is cut to 32 bits: 4 GiB + 10 reads as 10.
    const std::string big = tmp / "sparse";
    int fd = open(big.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, (1LL << 32) + 10));
    close(fd);
    EXPECT_EQ(10, ks_get_file_size(big.c_str()));

    EXPECT_EQ(0, ks_rmfile(f.c_str()));
    EXPECT_FALSE(exists(f));
    EXPECT_NE(0, ks_rmfile(f.c_str()));
    EXPECT_EQ(-1, ks_rmfile(nullptr));
}

TEST(FileUtils, CopyCopiesEveryByte) {
    TempDir tmp;
    std::string data("head\0\xff\x01 tail\n", 13);
    write_file(tmp / "src.bin", data);
    EXPECT_EQ(0, ks_file_copy((tmp / "src.bin").c_str(), (tmp / "dst.bin").c_str()));
    EXPECT_EQ(data, read_file(tmp / "dst.bin"));

    // An existing destination is replaced, not appended to.
    write_file(tmp / "dst.bin", std::string(100, 'x'));
    EXPECT_EQ(0, ks_file_copy((tmp / "src.bin").c_str(), (tmp / "dst.bin").c_str()));
    EXPECT_EQ(data, read_file(tmp / "dst.bin"));

    ks_test::FdCapture out(1);
    const std::string missing = tmp / "missing";
    EXPECT_EQ(-1, ks_file_copy(missing.c_str(), (tmp / "other").c_str()));
    EXPECT_EQ("'" + missing + "' does not exist!\n", out.text());
    EXPECT_FALSE(exists(tmp / "other"));
}

TEST(FileUtils, CopyFallbackRunsCpWithoutAShell) {
    TempDir tmp;
    ScopedCwd cwd(tmp.path());
    ASSERT_EQ(0, mkdir("out dir", 0775));

    // Each name would run a command or change cp's options if a shell or cp
    // read it; copied literally it simply lands in the directory.
    const char* names[] = {"a;touch pwned1",    "$(touch pwned2)", "`touch pwned3`",
                           "b && touch pwned4", "q'uote\"s|x>y",   "-n"};
    for (const char* name : names) {
        write_file(name, std::string("content of ") + name);
        ks_test::FdCapture out(1);
        EXPECT_EQ(0, ks_file_copy(name, "out dir")) << name;
        EXPECT_EQ("Wrong output file name or Permission denied, try system cp!\n", out.text());
        EXPECT_EQ(std::string("content of ") + name, read_file(std::string("out dir/") + name))
            << name;
    }
    for (const char* marker : {"pwned1", "pwned2", "pwned3", "pwned4", "y"}) {
        EXPECT_FALSE(exists(marker)) << marker;
    }

    // cp failing (no such directory) gives -1.
    {
        ks_test::FdCapture out(1);
        ks_test::FdCapture err(2);
        EXPECT_EQ(-1, ks_file_copy("-n", "no/such/dir/"));
    }

    // The command "cp -f <src> <dst> && sync" must fit 1024 bytes with its
    // terminator: 1023 characters are run, 1024 are refused. Extra slashes
    // after the directory name pad the destination to the wanted length.
    ASSERT_EQ(0, mkdir("fits", 0775));
    ASSERT_EQ(0, mkdir("refused", 0775));
    write_file("s", "s");
    const size_t fixed = strlen("cp -f ") + 1 + 1 + strlen(" && sync");  // plus "s" and a space
    std::string fits = "fits" + std::string(1023 - fixed - 4, '/');
    std::string refused = "refused" + std::string(1024 - fixed - 7, '/');
    ks_test::FdCapture out(1);
    EXPECT_EQ(0, ks_file_copy("s", fits.c_str()));
    EXPECT_EQ(-1, ks_file_copy("s", refused.c_str()));
    out.text();
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
    if (full != nullptr) {
        fputs("lost", full);
        EXPECT_EQ(-1, ks_file_sync_close(full));
    }
}

TEST(FileUtils, ListItemsByTypeWithFilter) {
    TempDir tmp;
    const std::string root = tmp / "list";
    ASSERT_EQ(0, ks_mkdir((root + "/sub/deep").c_str()));
    ASSERT_EQ(0, ks_mkdir((root + "/sub.log").c_str()));
    for (const char* f :
         {"a.log", "b.txt", "sdk_2.log", "sdk_1.txt", "noext", "sub/c.log", "sub/deep/d.log"}) {
        write_file(root + "/" + f, "x");
    }
    ASSERT_EQ(0, symlink(root.c_str(), (root + "/loop").c_str()));        // a directory loop
    ASSERT_EQ(0, symlink("a.log", (root + "/link.log").c_str()));         // a link is not a file
    write_file(root + "/" + std::string(240, 'L') + ".log", "too long");  // path > 255
    const int F = KS_ITEM_TYPE_FILE;
    const int D = KS_ITEM_TYPE_DIR;
    using V = std::vector<std::string>;
    const std::string r = root + "/";

    ASSERT_EQ(0, get_list_items_recursive_mode());
    EXPECT_EQ((V{r + "a.log", r + "b.txt", r + "noext", r + "sdk_1.txt", r + "sdk_2.log"}),
              list_items(root, F, nullptr, 0));
    EXPECT_EQ((V{r + "a.log", r + "sdk_2.log"}), list_items(root, F, "log", 1));
    EXPECT_EQ((V{r + "a.log", r + "sdk_2.log"}), list_items(root, F, ".log", 1));
    EXPECT_EQ((V{r + "sdk_1.txt", r + "sdk_2.log"}), list_items(root, F, "sdk_", 0));
    EXPECT_EQ((V{r + "sub", r + "sub.log"}), list_items(root, D, nullptr, 0));
    EXPECT_EQ((V{r + "sub.log"}), list_items(root, D, "log", 1));
    EXPECT_EQ((V{r + "a.log"}), list_items(r, F, "a", 0));  // no doubled '/'

    set_list_items_recursive_mode(7);
    EXPECT_EQ(1, get_list_items_recursive_mode());
    EXPECT_EQ((V{r + "a.log", r + "sdk_2.log", r + "sub/c.log", r + "sub/deep/d.log"}),
              list_items(root, F, "log", 1));
    EXPECT_EQ((V{r + "sub", r + "sub.log", r + "sub/deep"}), list_items(root, D, nullptr, 0));
    set_list_items_recursive_mode(0);

    // Every entry lives in a zeroed buffer of the list size.
    char** list = nullptr;
    unsigned count = 0;
    ASSERT_EQ(0, ks_list_items_by_type_with_filter(root.c_str(), F, "a.", 0, &list, &count));
    ASSERT_EQ(1u, count);
    for (size_t i = strlen(list[0]); i < KS_LIST_ITEM_SIZE; ++i) ASSERT_EQ('\0', list[0][i]);
    EXPECT_EQ(0, ks_free_list_items(&list, &count));
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(0u, count);

    // Nothing to list: an empty list; no directory: nothing touched.
    ASSERT_EQ(0, ks_list_items_by_type_with_filter(root.c_str(), F, "zzz", 0, &list, &count));
    EXPECT_EQ(0u, count);
    ks_free_list_items(&list, &count);
    char* sentinel[1] = {nullptr};
    char** untouched = sentinel;
    unsigned n = 99;
    EXPECT_EQ(-1, ks_list_items_by_type_with_filter(nullptr, F, nullptr, 0, &untouched, &n));
    EXPECT_EQ(-1, ks_list_items_by_type_with_filter((r + "a.log").c_str(), F, nullptr, 0,
                                                    &untouched, &n));
    EXPECT_EQ(sentinel, untouched);
    EXPECT_EQ(99u, n);

    const char* words[] = {"sdk_20240102", "b", "sdk_20231231", "a"};
    qsort_string_list(words, 4);
    EXPECT_EQ((V{"a", "b", "sdk_20231231", "sdk_20240102"}), V(words, words + 4));

    // Recursion stops KS_LIST_MAX_DEPTH levels below the listed directory.
    std::string dir = tmp / "r";
    ASSERT_EQ(0, ks_mkdir(dir.c_str()));
    for (int level = 0; level <= KS_LIST_MAX_DEPTH + 5; ++level, dir += "/d") {
        write_file(dir + "/f", "x");
        ASSERT_EQ(0, mkdir((dir + "/d").c_str(), 0775));
    }
    set_list_items_recursive_mode(1);
    EXPECT_EQ(static_cast<size_t>(KS_LIST_MAX_DEPTH + 1), list_items(tmp / "r", F, "f", 0).size());
    set_list_items_recursive_mode(0);
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
    TempDir tmp;
    const char* p = tmp.path().c_str();
    const double bytes = ksGetAvailableSpaceByByteUnit(p, 'b');
    ASSERT_GE(bytes, 0.0);
    // Free space moves while other work runs; the units must still agree.
    const double slack = 1024.0 * 1024.0 * 1024.0;
    EXPECT_NEAR(bytes, ksGetAvailableSpaceByByteUnit(p, 'B'), slack);
    EXPECT_NEAR(bytes, ksGetAvailableSpaceSize(p), slack);
    EXPECT_NEAR(bytes / 1024.0, ksGetAvailableSpaceByByteUnit(p, 'k'), slack / 1024.0);
    EXPECT_NEAR(bytes / 1048576.0, ksGetAvailableSpaceByByteUnit(p, 'M'), 1024.0);
    EXPECT_NEAR(bytes / 1073741824.0, ksGetAvailableSpaceByByteUnit(p, 'g'), 1.0);
    EXPECT_EQ(-2.0, ksGetAvailableSpaceByByteUnit(p, 'T'));
    EXPECT_EQ(-1.0, ksGetAvailableSpaceByByteUnit((tmp / "missing").c_str(), 'b'));
    EXPECT_EQ(-1.0, ksGetAvailableSpaceSize(nullptr));
}
