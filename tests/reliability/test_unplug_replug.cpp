// An application streams images and reads the IMU while its camera is pulled
// out and plugged in again at random moments: during a frame, during a
// control exchange, during an EPR upload, during standby. Every call answers
// one of its codes, nothing hangs, the camera opens again afterwards, and no
// descriptor, mapping or thread is left behind (the heap is checked by the
// leak checker of the sanitizer builds).
#include <dirent.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/ks_test_helpers.h"
#include "session_fixture.h"

using sessiontest::SessionTest;

namespace {

// Each cycle waits for a freshly powered camera to boot, which takes seconds
// of camera time: the clock runs fast, on a small frame at a low rate so that
// frames still arrive within the capture thread's wait. ThreadSanitizer
// copies a frame many times slower: its run takes fewer cycles on a slow
// clock. The other builds run the full hundred.
#if defined(__SANITIZE_THREAD__)
constexpr int kCycles = 6;
constexpr double kWarp = 2.0;
#else
constexpr int kCycles = 100;
constexpr double kWarp = 25.0;
#endif
constexpr int64_t kGenerousUs = 600000000;  // ten minutes of camera time

// KS_UNPLUG_CYCLES overrides the count (the soak script runs more).
int cycles() {
    return static_cast<int>(sessiontest::count_from_env("KS_UNPLUG_CYCLES", kCycles));
}

int count_entries(const char* dir) {
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (struct dirent* e = readdir(d))
            if (e->d_name[0] != '.') ++n;
        closedir(d);
    }
    return n;
}

// Mappings of files (buffers a camera maps are: memory files on the virtual
// camera, the video node on a real one). Anonymous mappings come and go with
// the allocator (the address sanitizer's quarantine keeps freed blocks mapped
// for a while), so they cannot be counted exactly.
int file_mappings() {
    std::ifstream in("/proc/self/maps");
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string field;
        int count = 0;
        while (fields >> field) ++count;
        if (count >= 6) ++n;
    }
    return n;
}

int threads_now() {
    return count_entries("/proc/self/task");
}

uint64_t requests(kssim_camera* camera) {
    kssim_control_stats stats{};
    kssim_camera_control_stats(camera, &stats);
    return stats.requests;
}

// Waits on the camera's clock, ten minutes at most, until done() holds.
template <typename Done>
bool wait_for(Done done) {
    return sessiontest::wait_for(done, kGenerousUs);
}

// The application: one thread takes frames and cuts RGBD images out of them,
// one reads the IMU. Codes outside each call's documented set are kept.
class Application {
  public:
    void start(KSCameraAbstract* handle) {
        stop_ = false;
        video_ = std::thread([this, handle] {
            while (!stop_) {
                unsigned long id = 0;
                unsigned char* frame = nullptr;
                const int r = ksGetCurrentFrame(handle, &id, &frame);
                if (r == 0 && frame != nullptr) {
                    unsigned char* disparity = nullptr;
                    unsigned char* image = nullptr;
                    const int g = ksGetRGBDImage(handle, frame, &disparity, &image);
                    if (g == 0 && (disparity == nullptr || image == nullptr)) odd("image", g);
                    if (g != 0 && g != -2) odd("ksGetRGBDImage", g);
                    ++frames_;
                } else if (r != -2) {
                    odd("ksGetCurrentFrame", r);
                }
                ++video_calls_;
            }
        });
        imu_ = std::thread([this, handle] {
            while (!stop_) {
                _ks_imu_data_set_s* sample = nullptr;
                const int r = ksGetIMUData(handle, &sample);
                if (r == 0 && sample != nullptr)
                    ++samples_;
                else if (r != -2)
                    odd("ksGetIMUData", r);
                ++imu_calls_;
            }
        });
    }
    void halt() {
        stop_ = true;
        if (video_.joinable()) video_.join();
        if (imu_.joinable()) imu_.join();
    }
    long frames() const { return frames_; }
    long samples() const { return samples_; }
    long calls() const { return video_calls_ + imu_calls_; }
    long video_calls() const { return video_calls_; }
    long imu_calls() const { return imu_calls_; }
    std::string odd_codes() {
        std::lock_guard<std::mutex> lk(mu_);
        return odd_;
    }

  private:
    void odd(const char* what, int code) {
        std::lock_guard<std::mutex> lk(mu_);
        odd_ += std::string(what) + " " + std::to_string(code) + "; ";
    }
    std::atomic<bool> stop_{false};
    std::atomic<long> frames_{0}, samples_{0}, video_calls_{0}, imu_calls_{0};
    std::thread video_, imu_;
    std::mutex mu_;
    std::string odd_;
};

class UnplugTest : public SessionTest {
  protected:
    double warp() const override { return kWarp; }
};

enum Moment { kDuringFrame, kDuringExchange, kDuringEprUpload, kDuringStandby, kMoments };
const char* const kMomentNames[] = {"frame", "control exchange", "EPR upload", "standby"};

}  // namespace

TEST_F(UnplugTest, HundredUnplugsAtRandomMomentsLeaveTheApplicationAliveAndNothingBehind) {
    kssim_camera* camera = add_camera([](kssim_camera_config& c) {
        c.initial_size = {640, 480};
        c.fps = 15;
    });
    ks_test::TempDir dir;
    {
        std::vector<uint8_t> epr(KSSIM_EPR_SIZE);
        ASSERT_EQ(0, kssim_epr_build(epr.data(), 1280, 720, 35000, 50, 7));
        std::ofstream(dir / "hd.epr", std::ios::binary)
            .write(reinterpret_cast<const char*>(epr.data()), epr.size());
    }
    const std::string epr_path = dir / "hd.epr";
    std::mt19937 rng(20240611);
    int descriptors = -1, threads = -1, mappings = -1;
    int survived = 0;

    const int total = cycles();
    for (int cycle = 0; cycle <= total; ++cycle) {
        SCOPED_TRACE(cycle);
        ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
        Application app;
        app.start(handle_);
        ASSERT_TRUE(wait_for([&] { return app.frames() >= 2 && app.samples() >= 1; }));
        if (cycle == 0) {
            // The first cycle sets up what the process keeps (the logger, the
            // world's frame cache); it is the reference of the others.
            app.halt();
            ASSERT_EQ(0, ksCloseCamera(&handle_));
            ASSERT_TRUE(wait_for([&] { return sessiontest::open_descriptors() > 0; }));
            descriptors = sessiontest::open_descriptors();
            threads = threads_now();
            mappings = file_mappings();
            continue;
        }

        const Moment moment = static_cast<Moment>(rng() % kMoments);
        SCOPED_TRACE(kMomentNames[moment]);
        std::atomic<bool> worker_stop{false};
        std::atomic<int> worker_odd{0};
        std::thread worker;
        switch (moment) {
            case kDuringFrame: {
                const long before = app.frames();
                ASSERT_TRUE(wait_for([&] { return app.frames() > before; }));
                break;
            }
            case kDuringExchange:
            case kDuringEprUpload: {
                worker = std::thread([&, moment] {
                    if (moment == kDuringEprUpload) {
                        const int r = ksStoreEprFile(handle_, epr_path.c_str(), 3);
                        if (r != 0 && r != -2) worker_odd = r;
                        return;
                    }
                    while (!worker_stop) {
                        unsigned short value = 0;
                        char sn[32] = {};
                        const int r = ksReadNuvexRegisterValue(handle_, 0x1F, &value);
                        const int s = ksGetCameraSN(handle_, sn);
                        if (r != 0 && r != -2) worker_odd = r;
                        if (s != 0 && s != -2) worker_odd = s;
                    }
                });
                // An EPR upload is some fifty exchanges; a register read one.
                const uint64_t after = requests(camera) + 1 + rng() % 40;
                ASSERT_TRUE(wait_for([&] { return requests(camera) >= after; }));
                break;
            }
            case kDuringStandby: {
                const int r = ksSuspendCamera(handle_);
                EXPECT_EQ(0, r);
                break;
            }
            default:
                break;
        }
        ASSERT_EQ(0, kssim_camera_unplug(camera));
        // The application keeps calling into the gone camera.
        const long video = app.video_calls(), imu = app.imu_calls();
        ASSERT_TRUE(
            wait_for([&] { return app.video_calls() >= video + 2 && app.imu_calls() >= imu + 2; }));
        {
            char sn[32] = {};
            EXPECT_EQ(-2, ksGetCameraSN(handle_, sn));
        }
        worker_stop = true;
        if (worker.joinable()) worker.join();
        EXPECT_EQ(0, worker_odd.load());
        // Half of the cycles close the camera while it is away, half after
        // it came back (and try to wake it from standby first).
        const bool close_first = (rng() & 1) != 0;
        if (close_first) {
            app.halt();
            ASSERT_EQ(0, ksCloseCamera(&handle_));
        }
        ASSERT_EQ(0, kssim_camera_replug(camera));
        if (!close_first) {
            if (moment == kDuringStandby) {
                const int r = ksResumeCamera(handle_);
                EXPECT_TRUE(r == 0 || r == -2) << r;
            }
            app.halt();
            ASSERT_EQ(0, ksCloseCamera(&handle_));
        }
        EXPECT_EQ("", app.odd_codes());
        // Threads of the closed camera may still be on their way out.
        EXPECT_TRUE(wait_for([&] { return threads_now() <= threads; })) << threads_now();
        ASSERT_EQ(descriptors, sessiontest::open_descriptors());
        ASSERT_EQ(mappings, file_mappings());
        ++survived;
    }
    EXPECT_EQ(total, survived);

    // The camera opens and streams as on the first day.
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    EXPECT_EQ(5, take_frames(handle_, 5));
    _ks_imu_data_set_s* sample = nullptr;
    EXPECT_TRUE(wait_for([&] { return ksGetIMUData(handle_, &sample) == 0; }));
    ASSERT_EQ(0, ksCloseCamera(&handle_));
    EXPECT_TRUE(wait_for([&] { return threads_now() <= threads; }));
    EXPECT_EQ(descriptors, sessiontest::open_descriptors());
    EXPECT_EQ(mappings, file_mappings());
    printf("unplug cycles survived: %d\n", survived);
}
