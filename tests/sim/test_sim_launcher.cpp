// The launcher runs an unmodified program against simulated cameras.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct Result {
    int status = -1;
    std::vector<std::string> lines;
};

Result run(const std::string& args) {
    Result r;
    const std::string cmd = std::string(KSSIM_RUN) + " " + args + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return r;
    char line[1024];
    while (fgets(line, sizeof(line), p) != nullptr) {
        std::string s(line);
        if (!s.empty() && s.back() == '\n') s.pop_back();
        r.lines.push_back(s);
    }
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

size_t count_with(const Result& r, const std::string& a, const std::string& b = "") {
    size_t n = 0;
    for (const auto& l : r.lines)
        n += l.find(a) != std::string::npos && (b.empty() || l.find(b) != std::string::npos);
    return n;
}

}  // namespace

TEST(SimLauncher, RunsAProgramThatSeesTheSimulatedLinks) {
    const Result r = run("--cameras 2 --serial SIMA01,SIMB02 --warp 4 -- " LIST_LINKS);
    ASSERT_EQ(0, r.status);
    EXPECT_EQ(8u, r.lines.size());
    // Two cameras, two nodes each, under both directories.
    EXPECT_EQ(4u, count_with(r, "/dev/v4l/by-path/pci-"));
    EXPECT_EQ(4u, count_with(r, "/dev/v4l/by-id/usb-"));
    EXPECT_EQ(1u, count_with(r, "/dev/v4l/by-path/", "-video-index0 -> /dev/video0"));
    EXPECT_EQ(1u, count_with(r, "/dev/v4l/by-path/", "-video-index1 -> /dev/video3"));
    EXPECT_EQ(1u, count_with(r, "SIMA01-video-index0 -> /dev/video0"));
    EXPECT_EQ(1u, count_with(r, "SIMB02-video-index1 -> /dev/video3"));

    const Result w = run("--cameras 1 --webcam --usb2 -- " LIST_LINKS);
    ASSERT_EQ(0, w.status);
    EXPECT_EQ(12u, w.lines.size());
    EXPECT_EQ(2u, count_with(w, "WebCam"));
    EXPECT_EQ(2u, count_with(w, "KSUSB2000001"));

    const Result none = run("--cameras 0 -- " LIST_LINKS);
    ASSERT_EQ(0, none.status);
    EXPECT_EQ(1u, count_with(none, "/dev/v4l/by-path: none"));
}

TEST(SimLauncher, RefusesBadOptions) {
    EXPECT_EQ(2, run("--bogus -- " LIST_LINKS).status);
    EXPECT_EQ(2, run("--cameras").status);
    EXPECT_EQ(2, run("").status);
    EXPECT_EQ(1u, count_with(run("--scene nowhere -- " LIST_LINKS), "unknown scene"));
    EXPECT_EQ(1u, count_with(run("--sensor ov7670 -- " LIST_LINKS), "unknown sensor"));
    EXPECT_EQ(1u, count_with(run("--imu-rate fast -- " LIST_LINKS), "invalid KSSIM_IMU_RATE"));
}
