// The world seen through the platform seam: installation, the path
// namespace and its links, node identity, formats, and the virtual clock.
#include <dirent.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <set>
#include <string>

#include "sim_fixture.h"

using simtest::Capture;
using simtest::ioctl_errno;
using simtest::SimTest;

namespace {

std::vector<std::string> list_dir(const char* dir, int* err = nullptr) {
    struct dirent** names = nullptr;
    std::vector<std::string> out;
    const int n = ks_sys_scandir(dir, &names, nullptr, alphasort);
    if (err != nullptr) *err = n < 0 ? errno : 0;
    for (int i = 0; i < n; ++i) {
        out.push_back(names[i]->d_name);
        free(names[i]);
    }
    free(names);
    return out;
}

std::string real_path(const std::string& p) {
    char buf[PATH_MAX] = {0};
    return ks_sys_realpath(p.c_str(), buf) != nullptr ? std::string(buf) : std::string();
}

bool has_key_word(const char* card) {
    return strcasestr(card, "KS") != nullptr || strcasestr(card, "KESTRA") != nullptr;
}

v4l2_capability querycap(const char* path) {
    v4l2_capability cap{};
    Capture c;
    EXPECT_TRUE(c.open(path)) << path;
    EXPECT_EQ(0, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));
    return cap;
}

std::vector<std::pair<uint32_t, uint32_t>> frame_sizes(const char* path, uint32_t fourcc) {
    std::vector<std::pair<uint32_t, uint32_t>> out;
    Capture c;
    EXPECT_TRUE(c.open(path));
    v4l2_frmsizeenum s{};
    for (s.pixel_format = fourcc; ioctl_errno(c.fd(), VIDIOC_ENUM_FRAMESIZES, &s) == 0; ++s.index) {
        EXPECT_EQ(V4L2_FRMSIZE_TYPE_DISCRETE, s.type);
        out.emplace_back(s.discrete.width, s.discrete.height);
    }
    return out;
}

}  // namespace

TEST(SimInstall, OneWorldAtATimeAndUninstallRestoresTheCLibrary) {
    kssim_world* a = kssim_world_create();
    kssim_world* b = kssim_world_create();
    ASSERT_EQ(0, kssim_world_install(a));
    EXPECT_NE(ks_platform_default_ops(), ks_platform_ops_current());
    EXPECT_EQ(a, kssim_installed_world());
    EXPECT_EQ(-1, kssim_world_install(b));
    EXPECT_EQ(-1, kssim_world_uninstall(b));
    EXPECT_EQ(0, kssim_world_uninstall(a));
    EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
    EXPECT_EQ(nullptr, kssim_installed_world());
    // Destroying an installed world uninstalls it.
    ASSERT_EQ(0, kssim_world_install(b));
    kssim_world_destroy(b);
    EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
    kssim_world_destroy(a);
}

TEST(SimInstall, InvalidConfigurationsAreRefused) {
    kssim_world* w = kssim_world_create();
    kssim_camera_config cfg;
    auto added = [&](void (*tweak)(kssim_camera_config&)) {
        kssim_camera_config_init(&cfg);
        tweak(cfg);
        return kssim_world_add_camera(w, &cfg) != nullptr;
    };
    EXPECT_FALSE(added([](kssim_camera_config& c) { c.initial_size = {800, 600}; }));
    EXPECT_FALSE(added([](kssim_camera_config& c) { c.size_count = 0; }));
    EXPECT_FALSE(added([](kssim_camera_config& c) { c.output_channel = 0x11; }));
    EXPECT_FALSE(added([](kssim_camera_config& c) { c.fps = 0; }));
    EXPECT_TRUE(added([](kssim_camera_config& c) { c.video_index = 4; }));
    // /dev/video5 is the metadata node of the camera above.
    EXPECT_FALSE(added([](kssim_camera_config& c) { c.video_index = 5; }));
    EXPECT_EQ(1u, kssim_world_camera_count(w));
    EXPECT_EQ(-1, kssim_world_set_warp(w, 0));
    EXPECT_EQ(-1, kssim_world_set_warp(w, -2));
    kssim_world_destroy(w);
}

TEST_F(SimTest, NodesAreCharacterDevicesAndOtherPathsFallThrough) {
    kssim_camera* cam = add_camera();
    ASSERT_NE(cam, nullptr);
    EXPECT_STREQ("/dev/video0", kssim_camera_node_path(cam, KSSIM_NODE_CAPTURE));
    EXPECT_STREQ("/dev/video1", kssim_camera_node_path(cam, KSSIM_NODE_META));

    struct stat st;
    ASSERT_EQ(0, ks_sys_stat("/dev/video0", &st));
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(81u, major(st.st_rdev));
    EXPECT_EQ(0u, minor(st.st_rdev));
    ASSERT_EQ(0, ks_sys_stat("/dev/video1", &st));
    EXPECT_EQ(1u, minor(st.st_rdev));
    ASSERT_EQ(0, ks_sys_stat(kssim_camera_by_path_link(cam, KSSIM_NODE_CAPTURE), &st));
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    ASSERT_EQ(0, ks_sys_stat("/dev/v4l/by-id", &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(-1, ks_sys_stat("/dev/v4l/by-id/usb-nothing-video-index0", &st));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, ks_sys_open("/dev/v4l/by-path/nothing", O_RDWR, 0));
    EXPECT_EQ(ENOENT, errno);

    // A path the world does not own is the real one.
    char tmpl[] = "/tmp/kssim-test-XXXXXX";
    ::close(mkstemp(tmpl));
    const int fd = ks_sys_open(tmpl, O_WRONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(5, write(fd, "hello", 5));
    EXPECT_EQ(0, ks_sys_close(fd));
    ASSERT_EQ(0, ks_sys_stat(tmpl, &st));
    EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_size == 5);
    EXPECT_EQ(std::string(tmpl), real_path(tmpl));
    unlink(tmpl);
    // A descriptor the world did not hand out is closed by the system.
    EXPECT_EQ(-1, ks_sys_close(987654));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(SimTest, LinkDirectoriesNameBothNodesOfEveryPluggedCamera) {
    kssim_camera* a = add_camera([](kssim_camera_config& c) { strcpy(c.serial, "SNA0001"); });
    kssim_camera* b = add_camera([](kssim_camera_config& c) { strcpy(c.serial, "SNB0002"); });
    ASSERT_TRUE(a && b);
    EXPECT_STREQ("/dev/video2", kssim_camera_node_path(b, KSSIM_NODE_CAPTURE));

    EXPECT_EQ((std::vector<std::string>{".", "..", "by-id", "by-path"}), list_dir("/dev/v4l"));
    const auto by_path = list_dir("/dev/v4l/by-path");
    ASSERT_EQ(6u, by_path.size());  // . .. and two nodes per camera
    std::set<std::string> targets;
    for (size_t i = 2; i < by_path.size(); ++i) {
        EXPECT_NE(std::string::npos, by_path[i].find("-video-index")) << by_path[i];
        targets.insert(real_path("/dev/v4l/by-path/" + by_path[i]));
    }
    EXPECT_EQ((std::set<std::string>{"/dev/video0", "/dev/video1", "/dev/video2", "/dev/video3"}),
              targets);
    const auto by_id = list_dir("/dev/v4l/by-id");
    ASSERT_EQ(6u, by_id.size());
    for (size_t i = 2; i < by_id.size(); ++i) {
        const std::string target = real_path("/dev/v4l/by-id/" + by_id[i]);
        const bool first = target == "/dev/video0" || target == "/dev/video1";
        EXPECT_NE(std::string::npos, by_id[i].find(first ? "SNA0001" : "SNB0002")) << by_id[i];
        EXPECT_EQ(target == "/dev/video0" || target == "/dev/video2",
                  by_id[i].find("video-index0") != std::string::npos);
    }
    EXPECT_EQ("/dev/video3", real_path(kssim_camera_by_id_link(b, KSSIM_NODE_META)));
    // realpath allocates when given no buffer; dotted forms resolve too.
    char* p = ks_sys_realpath(kssim_camera_by_id_link(a, KSSIM_NODE_CAPTURE), nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ("/dev/video0", p);
    free(p);
    const std::string id_link = kssim_camera_by_id_link(a, KSSIM_NODE_CAPTURE);
    EXPECT_EQ("/dev/video0", real_path("/dev/v4l/by-path/../by-id/./" +
                                       id_link.substr(strlen("/dev/v4l/by-id/"))));
    EXPECT_EQ("/dev/v4l/by-id", real_path("/dev/v4l/by-path/../by-id/."));

    // The filter sees every entry; /dev lists the nodes and the link tree.
    struct dirent** names = nullptr;
    const int n = ks_sys_scandir(
        "/dev/v4l/by-id", &names, [](const dirent* d) { return d->d_type == DT_LNK ? 1 : 0; },
        alphasort);
    ASSERT_EQ(4, n);
    for (int i = 0; i < n; ++i) free(names[i]);
    free(names);
    const auto dev = list_dir("/dev");
    for (const char* name : {"video0", "video1", "video2", "video3", "v4l"})
        EXPECT_NE(dev.end(), std::find(dev.begin(), dev.end(), name)) << name;
    int err = 0;
    list_dir("/dev/video0", &err);
    EXPECT_EQ(ENOTDIR, err);

    // Unplugged cameras leave the namespace; empty directories vanish.
    ASSERT_EQ(0, kssim_camera_unplug(a));
    EXPECT_EQ(0, kssim_camera_plugged(a));
    struct stat st;
    EXPECT_EQ(-1, ks_sys_stat("/dev/video0", &st));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, ks_sys_open("/dev/video0", O_RDWR, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(4u, list_dir("/dev/v4l/by-path").size());
    EXPECT_EQ(nullptr, ks_sys_realpath(kssim_camera_by_id_link(a, KSSIM_NODE_CAPTURE), nullptr));
    ASSERT_EQ(0, kssim_camera_unplug(b));
    EXPECT_TRUE(list_dir("/dev/v4l/by-path", &err).empty());
    EXPECT_EQ(ENOENT, err);
    EXPECT_EQ(-1, ks_sys_stat("/dev/v4l", &st));
    ASSERT_EQ(0, kssim_camera_replug(a));
    EXPECT_EQ(4u, list_dir("/dev/v4l/by-id").size());
    EXPECT_EQ("/dev/video0", real_path(kssim_camera_by_path_link(a, KSSIM_NODE_CAPTURE)));
}

TEST_F(SimTest, CapabilitiesFormatsAndFrameSizesOfEachKindOfCamera) {
    kssim_camera* cam = add_camera([](kssim_camera_config& c) { strcpy(c.card, "KESTRA Depth"); });
    kssim_camera* mp = add_camera([](kssim_camera_config& c) { c.planes = KSSIM_PLANES_BOTH; });
    kssim_camera* ns = add_camera([](kssim_camera_config& c) {
        c.planes = KSSIM_PLANES_MULTI;
        c.streaming_cap = 0;
    });
    kssim_camera* usb2 = kssim_world_add_usb2_camera(world_, "SNUSB2");
    kssim_camera* web = kssim_world_add_webcam(world_, nullptr);
    ASSERT_TRUE(cam && mp && ns && usb2 && web);
    auto node = [](kssim_camera* c) { return kssim_camera_node_path(c, KSSIM_NODE_CAPTURE); };
    const uint32_t kCap = V4L2_CAP_VIDEO_CAPTURE, kMp = V4L2_CAP_VIDEO_CAPTURE_MPLANE,
                   kMeta = V4L2_CAP_META_CAPTURE, kStream = V4L2_CAP_STREAMING;
    const v4l2_capability cap = querycap(node(cam));
    EXPECT_STREQ("uvcvideo", reinterpret_cast<const char*>(cap.driver));
    EXPECT_STREQ("KESTRA Depth", reinterpret_cast<const char*>(cap.card));
    EXPECT_EQ(kCap | kStream, cap.device_caps & (kCap | kMp | kStream | kMeta));
    EXPECT_TRUE(cap.capabilities & V4L2_CAP_DEVICE_CAPS);
    EXPECT_TRUE(cap.capabilities & kMeta);
    const v4l2_capability meta = querycap(kssim_camera_node_path(cam, KSSIM_NODE_META));
    EXPECT_STREQ("KESTRA Depth", reinterpret_cast<const char*>(meta.card));
    EXPECT_EQ(kMeta, meta.device_caps & (kCap | kMeta));
    EXPECT_EQ(cap.capabilities, meta.capabilities);
    EXPECT_EQ(kCap | kMp, querycap(node(mp)).device_caps & (kCap | kMp));
    EXPECT_EQ(kMp, querycap(node(ns)).device_caps & (kCap | kMp | kStream));
    EXPECT_TRUE(has_key_word(reinterpret_cast<const char*>(querycap(node(usb2)).card)));
    const v4l2_capability wc = querycap(node(web));
    EXPECT_FALSE(has_key_word(reinterpret_cast<const char*>(wc.card)));
    EXPECT_TRUE(wc.device_caps & kCap);

    // Our cameras offer the size of the EPR their ASIC booted with, alone.
    using Sizes = std::vector<std::pair<uint32_t, uint32_t>>;
    EXPECT_EQ((Sizes{{1280, 720}}), frame_sizes(node(cam), V4L2_PIX_FMT_BGR24));
    EXPECT_EQ((Sizes{{640, 480}}), frame_sizes(node(usb2), V4L2_PIX_FMT_BGR24));
    EXPECT_EQ((Sizes{{640, 480}, {1280, 720}}), frame_sizes(node(web), V4L2_PIX_FMT_YUYV));
    EXPECT_TRUE(frame_sizes(node(cam), V4L2_PIX_FMT_YUYV).empty());

    Capture c, m;
    ASSERT_TRUE(c.open(node(cam)));
    ASSERT_TRUE(m.open(kssim_camera_node_path(cam, KSSIM_NODE_META)));
    v4l2_fmtdesc d{};
    for (auto [fd, type, index, want] :
         {std::tuple<int, uint32_t, uint32_t, uint32_t>{c.fd(), V4L2_BUF_TYPE_VIDEO_CAPTURE, 0,
                                                        v4l2_fourcc('B', 'G', 'R', '3')},
          {c.fd(), V4L2_BUF_TYPE_VIDEO_CAPTURE, 1, 0},
          {c.fd(), V4L2_BUF_TYPE_VIDEO_OUTPUT, 0, 0},
          {m.fd(), V4L2_BUF_TYPE_VIDEO_CAPTURE, 0, 0},
          {m.fd(), V4L2_BUF_TYPE_META_CAPTURE, 0, V4L2_META_FMT_UVC}}) {
        d.type = type;
        d.index = index;
        EXPECT_EQ(want != 0 ? 0 : EINVAL, ioctl_errno(fd, VIDIOC_ENUM_FMT, &d)) << index;
        if (want != 0) {
            EXPECT_EQ(want, d.pixelformat);
        }
    }
    v4l2_frmsizeenum s{};  // the metadata node has no frame sizes
    s.pixel_format = V4L2_PIX_FMT_BGR24;
    EXPECT_EQ(ENOTTY, ioctl_errno(m.fd(), VIDIOC_ENUM_FRAMESIZES, &s));
    v4l2_frmivalenum iv{};
    iv.pixel_format = V4L2_PIX_FMT_BGR24;
    iv.width = 1280;
    iv.height = 720;
    ASSERT_EQ(0, ioctl_errno(c.fd(), VIDIOC_ENUM_FRAMEINTERVALS, &iv));
    EXPECT_NEAR(30.0, static_cast<double>(iv.discrete.denominator) / iv.discrete.numerator, 0.01);
    iv.width = 640;
    iv.height = 480;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_ENUM_FRAMEINTERVALS, &iv));
}

TEST_F(SimTest, NodesOpenManyTimesAndRefuseUnknownOrMalformedRequests) {
    kssim_camera* cam = add_camera();
    const char* path = kssim_camera_node_path(cam, KSSIM_NODE_CAPTURE);
    const int fds[3] = {ks_sys_open(path, O_RDWR | O_NONBLOCK, 0),
                        ks_sys_open(kssim_camera_by_path_link(cam, KSSIM_NODE_CAPTURE), O_RDWR, 0),
                        ks_sys_open(path, O_RDWR | O_NONBLOCK, 0)};
    EXPECT_EQ(3u, stats(cam).open_files);
    v4l2_capability cap;
    for (int fd : fds) EXPECT_EQ(0, ioctl_errno(fd, VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(3u, std::set<int>(fds, fds + 3).size());
    const int a = fds[0];
    EXPECT_EQ(ENOTTY, ioctl_errno(a, VIDIOC_G_STD, &cap));  // a camera has no TV standards
    EXPECT_EQ(ENOTTY, ioctl_errno(a, 0xDEADBEEF, &cap));
    EXPECT_EQ(EFAULT, ioctl_errno(a, VIDIOC_QUERYCAP, nullptr));
    EXPECT_EQ(EFAULT, ioctl_errno(a, VIDIOC_DQBUF, nullptr));
    EXPECT_EQ(-1, ks_sys_open(path, O_RDWR | O_CREAT | O_EXCL, 0600));
    EXPECT_EQ(EEXIST, errno);
    for (int fd : fds) EXPECT_EQ(0, ks_sys_close(fd));
    EXPECT_EQ(0u, stats(cam).open_files);
    EXPECT_EQ(-1, ks_sys_ioctl(a, VIDIOC_QUERYCAP, &cap));  // closed: not ours any more
    EXPECT_EQ(EBADF, errno);
}

TEST(SimClock, WarpScalesSleepsSelectTimeoutsAndTheClock) {
    kssim_world* w = kssim_world_create();
    ASSERT_EQ(0, kssim_world_install(w));
    // At warp 1 the clock is the real one.
    struct timeval sim_tv, real_tv;
    ks_sys_gettimeofday(&sim_tv);
    gettimeofday(&real_tv, nullptr);
    EXPECT_LE(
        std::abs((real_tv.tv_sec - sim_tv.tv_sec) * 1000000 + (real_tv.tv_usec - sim_tv.tv_usec)),
        1000000);

    ASSERT_EQ(0, kssim_world_set_warp(w, 100.0));
    EXPECT_DOUBLE_EQ(100.0, kssim_world_warp(w));
    struct timespec r0, r1;
    clock_gettime(CLOCK_MONOTONIC, &r0);
    const int64_t v0 = simtest::virtual_now_us();
    struct timeval t0;
    ks_sys_gettimeofday(&t0);
    ks_sys_usleep(2000000);  // 2 s of virtual time
    EXPECT_EQ(0u, ks_sys_sleep(3));
    struct timeval tv = {5, 0};
    EXPECT_EQ(0, ks_sys_select(0, nullptr, nullptr, nullptr, &tv));
    const int64_t v1 = simtest::virtual_now_us();
    struct timeval t1;
    ks_sys_gettimeofday(&t1);
    clock_gettime(CLOCK_MONOTONIC, &r1);
    EXPECT_GE(v1 - v0, 10000000);
    EXPECT_GE((t1.tv_sec - t0.tv_sec) * 1000000 + (t1.tv_usec - t0.tv_usec), 10000000);
    // Ten seconds of virtual waiting took far less than ten real seconds.
    EXPECT_LT((r1.tv_sec - r0.tv_sec) * 1000000 + (r1.tv_nsec - r0.tv_nsec) / 1000, 10000000);
    EXPECT_GE(kssim_world_now_us(w), static_cast<uint64_t>(v1));

    // Changing the warp does not make the clock jump back.
    ASSERT_EQ(0, kssim_world_set_warp(w, 1.0));
    EXPECT_GE(simtest::virtual_now_us(), v1);
    kssim_world_destroy(w);
}
