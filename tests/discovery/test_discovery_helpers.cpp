// The helpers beneath discovery, and discovery on a host whose devices
// answer in ways the virtual camera does not stage: a node name too long for
// the camera record, a frame-size list without end, text fields without a
// terminator.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/videodev2.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "common/ks_file_utils.h"
#include "common/ks_platform.h"
#include "common/ks_test_helpers.h"
#include "ksAsicSdk/source/deviceDetectHelper.h"

namespace {

using Strings = std::vector<std::string>;

TEST(DiscoveryHelpers, FourccTextAndSplitting) {
    EXPECT_EQ("YUYV", fcc2s(v4l2_fourcc('Y', 'U', 'Y', 'V')));
    EXPECT_EQ("BGR3-BE", fcc2s(v4l2_fourcc_be('B', 'G', 'R', '3')));
    EXPECT_EQ("ABCD", fcc2s(v4l2_fourcc('A' | 0x80, 'B' | 0x80, 'C' | 0x80, 'D')));
    EXPECT_EQ(std::string("M\0\0J", 4), fcc2s(v4l2_fourcc('M', 0, 0, 'J')));

    Strings out = {"stale"};
    EXPECT_EQ(0, split_string("KS&KESTRA", '&', out));
    EXPECT_EQ((Strings{"KS", "KESTRA"}), out);
    split_string("a::b:", ':', out);
    EXPECT_EQ((Strings{"a", "", "b"}), out);
    split_string(":x", ':', out);
    EXPECT_EQ((Strings{"", "x"}), out);
    split_string("1280x720", 'x', out);
    EXPECT_EQ((Strings{"1280", "720"}), out);
    split_string("", ':', out);
    EXPECT_TRUE(out.empty());
}

TEST(DiscoveryHelpers, ListingRunsInReverseOrderAndLinksResolveOnlyIntoTheBuffer) {
    ks_test::TempDir dir;
    for (const char* name : {"b", "a", "c", "ab"}) ks_test::write_file(dir / name, "");
    std::filesystem::create_directory(dir / "d");
    Strings out = {"stale"};
    ASSERT_EQ(0, getFileNameList(dir.path(), out, ""));
    EXPECT_EQ((Strings{dir / "d", dir / "c", dir / "b", dir / "ab", dir / "a"}), out);
    ASSERT_EQ(0, getFileNameList(dir.path(), out, "a"));
    EXPECT_EQ((Strings{dir / "ab", dir / "a"}), out);
    ASSERT_EQ(0, getFileNameList(dir.path(), out, nullptr));
    EXPECT_EQ(5u, out.size());
    EXPECT_EQ(-1, getFileNameList(dir / "missing", out, ""));
    EXPECT_TRUE(out.empty());

    std::filesystem::create_symlink(dir / "c", dir / "good");
    std::filesystem::create_symlink(dir / "missing/x", dir / "dangling");
    char resolved[PATH_MAX] = {};
    EXPECT_EQ(0, getTrueLink((dir / "good").c_str(), resolved));
    EXPECT_EQ(std::filesystem::canonical(dir / "c").string(), resolved);
    // A link that does not resolve leaves the caller's buffer and still succeeds.
    strcpy(resolved, "kept");
    EXPECT_EQ(0, getTrueLink((dir / "dangling").c_str(), resolved));
    EXPECT_STREQ("kept", resolved);
    ks_test::FdCapture out_text(1);
    EXPECT_EQ(-1, getTrueLink((dir / "good").c_str(), nullptr));
    EXPECT_EQ(0u, out_text.text().rfind("Get True Link Error ", 0));
}

// ---- a host of made-up devices, behind the platform seam ----

struct FakeDevice {
    std::string name;  // entry in /dev/v4l/by-path
    std::string real;  // what the link resolves to
    bool endless;      // enumerates 640 x 480 for every index
    bool gone;         // its node no longer opens (unplugged after it was checked)
};

std::vector<FakeDevice> g_devices;
// /dev/v4l/by-id entries: name and what it resolves to.
std::vector<std::pair<std::string, std::string>> g_ids;
std::map<int, const FakeDevice*> g_open;
int g_size_queries = 0;
int g_sleeps = 0;
bool g_closed_zero = false;

const std::string* id_target(const char* path) {
    for (const auto& id : g_ids)
        if ("/dev/v4l/by-id/" + id.first == path) return &id.second;
    return nullptr;
}

const FakeDevice* device_at(const char* path) {
    for (const FakeDevice& d : g_devices)
        if ("/dev/v4l/by-path/" + d.name == path || d.real == path) return &d;
    return nullptr;
}

int fake_open(const char* path, int, mode_t) {
    const FakeDevice* d = device_at(path);
    if (d == nullptr || (d->gone && d->real == path)) {
        errno = ENOENT;
        return -1;
    }
    const int fd = ::open("/dev/null", O_RDWR);
    g_open[fd] = d;
    return fd;
}

int fake_close(int fd) {
    g_closed_zero = g_closed_zero || fd == 0;
    g_open.erase(fd);
    return ::close(fd);
}

// Text fields are filled to the last byte, without a terminator.
int fake_ioctl(int fd, unsigned long request, void* arg) {
    auto it = g_open.find(fd);
    if (it == g_open.end()) {
        errno = EBADF;
        return -1;
    }
    switch (request) {
        case VIDIOC_QUERYCAP: {
            auto* caps = static_cast<v4l2_capability*>(arg);
            memcpy(caps->card, "Kestra compatible depth camera!!", sizeof caps->card);
            caps->device_caps = V4L2_CAP_VIDEO_CAPTURE;
            return 0;
        }
        case VIDIOC_ENUM_FMT: {
            auto* format = static_cast<v4l2_fmtdesc*>(arg);
            format->pixelformat = v4l2_fourcc('Y', 'U', 'Y', 'V');
            memset(format->description, 'd', sizeof format->description);
            return 0;
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            ++g_size_queries;
            auto* size = static_cast<v4l2_frmsizeenum*>(arg);
            if (!it->second->endless && size->index > 0) {
                errno = EINVAL;
                return -1;
            }
            size->type = V4L2_FRMSIZE_TYPE_DISCRETE;
            size->discrete.width = it->second->endless ? 640 : 1280;
            size->discrete.height = it->second->endless ? 480 : 720;
            return 0;
        }
        default:
            errno = ENOTTY;  // no extension unit: no serial number
            return -1;
    }
}

int fake_scandir(const char* dir, struct dirent*** list, ks_scandir_filter_fn,
                 ks_scandir_compar_fn compar) {
    Strings names;
    if (strcmp(dir, "/dev/v4l/by-path") == 0) {
        for (const FakeDevice& d : g_devices) names.push_back(d.name);
    } else if (strcmp(dir, "/dev/v4l/by-id") == 0 && !g_ids.empty()) {
        for (const auto& id : g_ids) names.push_back(id.first);
    } else {
        errno = ENOENT;
        return -1;
    }
    auto** entries = static_cast<struct dirent**>(calloc(names.size() + 1, sizeof(void*)));
    int n = 0;
    for (const std::string& name : names) {
        auto* e = static_cast<struct dirent*>(calloc(1, sizeof(struct dirent)));
        snprintf(e->d_name, sizeof e->d_name, "%s", name.c_str());
        e->d_type = DT_LNK;
        entries[n++] = e;
    }
    std::sort(entries, entries + n,
              [&](const struct dirent* a, const struct dirent* b) { return compar(&a, &b) < 0; });
    *list = entries;
    return n;
}

char* fake_realpath(const char* path, char* resolved) {
    const FakeDevice* d = device_at(path);
    const std::string* id = id_target(path);
    if (d == nullptr && id == nullptr) {
        errno = ENOENT;
        return nullptr;
    }
    snprintf(resolved, PATH_MAX, "%s", d != nullptr ? d->real.c_str() : id->c_str());
    return resolved;
}

int fake_usleep(useconds_t) {
    return 0;
}
unsigned int fake_sleep(unsigned int) {
    ++g_sleeps;
    return 0;
}

class FakeHost : public ::testing::Test {
  protected:
    void SetUp() override {
        ops_ = *ks_platform_default_ops();
        ops_.open = fake_open;
        ops_.close = fake_close;
        ops_.ioctl = fake_ioctl;
        ops_.scandir = fake_scandir;
        ops_.realpath = fake_realpath;
        ops_.usleep = fake_usleep;
        ops_.sleep = fake_sleep;
        ASSERT_EQ(0, ks_platform_install(&ops_));
    }
    void TearDown() override {
        ks_platform_reset();
        g_devices.clear();
        g_ids.clear();
        EXPECT_TRUE(g_open.empty());
    }
    ks_platform_ops ops_;
};

// A node name longer than the record's field is left out with a warning,
// not cut and not fatal; a frame-size list without end is not followed for
// ever; neither keeps a good device from being listed. A device without a
// serial number is waited for as long as the readiness check allows; one
// gone before its serial number is read is not, and its failed control
// channel closes nothing of the process. Of two by-id links to one node, the
// one listed later names it.
TEST_F(FakeHost, OverlongNodeNamesEndlessSizeListsAndVanishedNodes) {
    const std::string long_name = "/dev/video-of-a-much-longer-name";
    g_devices = {{"a-long", long_name, false, false},
                 {"b-endless", "/dev/video3", true, false},
                 {"c-good", "/dev/video5", false, false},
                 {"d-gone", "/dev/video7", false, true}};
    g_ids = {{"id-a", "/dev/video5"}, {"id-b", "/dev/video5"}, {"id-other", "/dev/video9"}};
    g_size_queries = 0;
    g_sleeps = 0;
    _ks_camera_list* list = nullptr;
    ks_test::FdCapture out(1);
    ASSERT_EQ(0, ksQueryCameraList_impl(&list));
    const std::string text = out.text();
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(2u, list->count);
    EXPECT_STREQ("/dev/video7", list->cameras[0].video_dev);
    EXPECT_STREQ("/dev/video5", list->cameras[1].video_dev);
    EXPECT_STREQ("/dev/v4l/by-path/c-good", list->cameras[1].usb_path_name);
    EXPECT_STREQ("", list->cameras[0].v4l_id_name);
    EXPECT_STREQ("/dev/v4l/by-id/id-a", list->cameras[1].v4l_id_name);
    for (uint32_t i = 0; i < 2; ++i) EXPECT_STREQ("", list->cameras[i].camera_sn);
    EXPECT_EQ(10, g_sleeps);  // ten readiness checks of c-good, none of d-gone
    EXPECT_FALSE(g_closed_zero);
    EXPECT_NE(std::string::npos,
              text.find("Device [/dev/v4l/by-path/b-endless] is possibly connected to or "
                        "identified as USB 2.0\n"));
    EXPECT_NE(std::string::npos, text.find("Device [/dev/v4l/by-path/a-long] is " + long_name +
                                           ", longer than a camera record holds: skipped\n"));
    // One size for each good device, the rest for the endless one.
    EXPECT_EQ(3 + 1024, g_size_queries);
    EXPECT_EQ(0, ksReleaseCameraList_impl(&list));
    EXPECT_EQ(nullptr, list);

    // Nothing left once the long name is the only candidate.
    g_devices.resize(1);
    g_closed_zero = false;
    ks_test::FdCapture none(1);
    EXPECT_EQ(-1, ksQueryCameraList_impl(&list));
    EXPECT_NE(std::string::npos, none.text().find("No ksCamera Device found\n"));
    ASSERT_NE(nullptr, list);
    EXPECT_EQ(0u, list->count);
    EXPECT_EQ(nullptr, list->cameras);
    EXPECT_EQ(0, ksReleaseCameraList_impl(&list));
}

}  // namespace
