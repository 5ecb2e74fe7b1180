// Programs nobody here wrote check the simulated video node from outside,
// through the system preload (kssim-run --system): v4l2-compliance and
// v4l2-ctl of v4l-utils, and ffmpeg. A tool that is not installed skips its
// test with the package to install.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "sim/frame_decoder.h"

namespace {

struct Output {
    int status = -1;
    std::string out;
};

// Runs a tool under the launcher, standard error folded into the output.
Output run(const std::string& launcher_args, const std::string& tool_args) {
    Output r;
    std::string cmd = std::string(KSSIM_RUN) + " --system " + launcher_args + " -- " + tool_args;
#ifdef CLIENTS_SANITIZED
    // The sanitizer runtime comes in with the preload; leaks of the tools are not ours.
    cmd = "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0 " + cmd;
#endif
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

bool installed(const char* tool) {
    return std::system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) == 0;
}

#define REQUIRE_TOOL(tool, package)                              \
    if (!installed(tool))                                        \
    GTEST_SKIP() << tool                                         \
                 << " is not installed (Debian package " package \
                    "; scripts/setup.sh installs it when run as root)"

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

std::string temp_path(const char* name) {
    return ::testing::TempDir() + "kssim_clients_" + name;
}

}  // namespace

TEST(Clients, NodeProbeSeesADeviceNodeThroughTheCLibrary) {
    const Output r = run("--warp 4", NODE_PROBE);
    EXPECT_EQ(0, r.status) << r.out;
    EXPECT_EQ(0u, count(r.out, "FAIL")) << r.out;
    for (const char* name : {"dev-listing", "readlink", "lstat-link", "stat-node", "fstat", "read",
                             "poll-idle", "epoll-idle", "poll-frame", "ppoll-frame", "select-frame",
                             "pselect-frame", "epoll-frame", "select-stopped", "epoll-stopped"})
        EXPECT_EQ(1u, count(r.out, std::string("ok ") + name + "\n")) << name << "\n" << r.out;
}

TEST(Clients, V4l2ComplianceStreamingPasses) {
    REQUIRE_TOOL("v4l2-compliance", "v4l-utils");
    const Output r = run("--warp 2", "v4l2-compliance -d /dev/video0 -s");
    EXPECT_EQ(0, r.status) << r.out;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(
        r.out, m,
        std::regex("Total for uvcvideo device /dev/video0: (\\d+), Succeeded: (\\d+), "
                   "Failed: (\\d+)")))
        << r.out;
    EXPECT_EQ(m[1], m[2]) << r.out;
    EXPECT_EQ("0", m[3].str()) << r.out;
    for (const char* line :
         {"test VIDIOC_G/S_PRIORITY: OK", "test VIDIOC_G/S/ENUMINPUT: OK",
          "test VIDIOC_ENUM_FMT/FRAMESIZES/FRAMEINTERVALS: OK", "test VIDIOC_G/S_PARM: OK",
          "test VIDIOC_S_FMT: OK", "test VIDIOC_REQBUFS/CREATE_BUFS/QUERYBUF: OK",
          "test blocking wait: OK", "test MMAP (no poll): OK", "test MMAP (select): OK",
          "test MMAP (epoll): OK"})
        EXPECT_EQ(1u, count(r.out, line)) << line << "\n" << r.out;
}

TEST(Clients, V4l2CtlReportsTheSizesRatesAndSettings) {
    REQUIRE_TOOL("v4l2-ctl", "v4l-utils");
    const Output f = run("", "v4l2-ctl --list-formats-ext -d /dev/video0");
    EXPECT_EQ(0, f.status) << f.out;
    // One size: that of the EPR the camera's ASIC booted with.
    EXPECT_EQ(1u, count(f.out, "'BGR3' (24-bit BGR 8-8-8)")) << f.out;
    EXPECT_EQ(1u, count(f.out, "Size: Discrete 1280x720")) << f.out;
    EXPECT_EQ(0u, count(f.out, "Size: Discrete 640x480")) << f.out;
    EXPECT_EQ(1u, count(f.out, "Interval: Discrete 0.033s (30.000 fps)")) << f.out;

    // The rate is the camera's: configured slower, it is reported slower.
    const Output slow = run("--fps 15", "v4l2-ctl --list-formats-ext -d /dev/video0");
    EXPECT_EQ(1u, count(slow.out, "Interval: Discrete 0.067s (15.000 fps)")) << slow.out;

    const Output a = run("", "v4l2-ctl --all -d /dev/video0");
    EXPECT_EQ(0, a.status) << a.out;
    for (const char* line :
         {"Driver name      : uvcvideo", "Card type        : KESTRA Stereo Camera",
          "Device Caps      : 0x04200001", "Video input : 0 (Camera 1: ok)",
          "Width/Height      : 1280/720", "Pixel Format      : 'BGR3'",
          "Size Image        : 2764800", "Frames per second: 30.000"})
        EXPECT_EQ(1u, count(a.out, line)) << line << "\n" << a.out;

    // Through the by-id link; a smaller size asked for is adjusted to the
    // one offered.
    const Output s =
        run("--serial KSCLIENT01",
            "v4l2-ctl -d /dev/v4l/by-id/usb-KS_KESTRA_Stereo_Camera_KSCLIENT01-video-index0"
            " --set-fmt-video=width=640,height=480 --get-fmt-video");
    EXPECT_EQ(0, s.status) << s.out;
    EXPECT_EQ(1u, count(s.out, "Width/Height      : 1280/720")) << s.out;
}

TEST(Clients, V4l2CtlStreamsAHundredMappedBuffers) {
    REQUIRE_TOOL("v4l2-ctl", "v4l-utils");
    const Output r = run("--warp 2", "v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=100");
    EXPECT_EQ(0, r.status) << r.out;
    EXPECT_EQ(100u, count(r.out, "<")) << r.out;        // one mark per dequeued buffer
    EXPECT_GE(count(r.out, "30.00 fps"), 1u) << r.out;  // measured on the buffers' timestamps
}

TEST(Clients, FfmpegGrabsThirtyFramesOfTheCamera) {
    REQUIRE_TOOL("ffmpeg", "ffmpeg");
    const std::string out = temp_path("ffmpeg.bgr");
    std::remove(out.c_str());
    const Output r = run("--warp 2",
                         "ffmpeg -hide_banner -nostdin -loglevel error -y -f v4l2 -i "
                         "/dev/video0 -frames:v 30 -fps_mode passthrough -pix_fmt bgr24 "
                         "-f rawvideo " +
                             out);
    EXPECT_EQ(0, r.status) << r.out;
    std::ifstream in(out, std::ios::binary | std::ios::ate);
    std::vector<uint8_t> bytes(in ? static_cast<size_t>(in.tellg()) : 0);
    in.seekg(0);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    constexpr size_t kFrame = 1280 * 720 * 3;
    ASSERT_EQ(30 * kFrame, bytes.size());
    // Every frame arrived whole: its metadata line, in order.
    uint64_t last_id = 0;
    for (size_t i = 0; i < 30; ++i) {
        const frame_test::Frame f(bytes.data() + i * kFrame, 1280, 720);
        ASSERT_TRUE(f.markers_ok()) << "frame " << i;
        EXPECT_NEAR(35000.0, f.bf(), 0.01) << "frame " << i;
        EXPECT_NEAR(50.0, f.base(), 0.01) << "frame " << i;
        if (i > 0) {
            EXPECT_GT(f.frame_id(), last_id) << "frame " << i;
        }
        last_id = f.frame_id();
    }
    std::remove(out.c_str());
}
