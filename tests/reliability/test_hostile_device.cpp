// A camera whose controller answers every request with random but
// well-framed replies, driven through the public operations: nothing
// crashes, no call waits beyond the reply loop's bound, and the library
// writes into the EEPROM only within its custom area, or where the caller
// asked it to.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "common/ks_test_helpers.h"
#include "session_fixture.h"

using sessiontest::SessionTest;
using sessiontest::virtual_now_us;

namespace {

// Exchanges of the public operations with the hostile camera;
// KS_HOSTILE_EXCHANGES overrides (the soak script runs a million). The
// operations' own pauses (power cycles, polls) pass on the camera's clock,
// which runs fast; ThreadSanitizer's run checks fewer on a slower clock.
#if defined(__SANITIZE_THREAD__)
constexpr uint64_t kExchanges = 2000;
constexpr double kWarp = 8.0;
#else
constexpr uint64_t kExchanges = 10000;
constexpr double kWarp = 50.0;
#endif
constexpr uint32_t kCustomAreaStart = 0x3C00;
constexpr uint32_t kCustomAreaEnd = 0x3CB8;  // one past
constexpr uint32_t kI2cWrite = 7;
constexpr uint32_t kEepromWrite = 0xA0;
constexpr uint32_t kImuFetch = 13;
// The longest a public operation may take on the camera's clock: its
// exchanges end at the first reply, so only the library's own pauses count
// (bring-up and power cycles are some tens of seconds).
constexpr int64_t kOperationBoundUs = 120000000;

uint64_t exchanges_wanted() {
    return sessiontest::count_from_env("KS_HOSTILE_EXCHANGES", kExchanges);
}

class HostileTest : public SessionTest {
  protected:
    double warp() const override { return kWarp; }
};

}  // namespace

TEST_F(HostileTest, EveryPublicOperationSurvivesRandomRepliesAndWritesOnlyWhereAsked) {
    kssim_camera* camera = add_camera([](kssim_camera_config& c) {
        c.initial_size = {640, 480};
        c.fps = 10;
    });
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ks_test::TempDir dir;
    {
        std::vector<uint8_t> epr(KSSIM_EPR_SIZE);
        ASSERT_EQ(0, kssim_epr_build(epr.data(), 640, 480, 35000, 50, 3));
        std::ofstream(dir / "vga.epr", std::ios::binary)
            .write(reinterpret_cast<const char*>(epr.data()), epr.size());
        std::ofstream(dir / "disparity.txt") << "1.5\n2.5\n";
    }
    const std::string epr = dir / "vga.epr";
    const std::string backup = dir / "backup.epr";
    const std::string param = dir / "disparity.txt";
    std::vector<uint8_t> eeprom_before(KSSIM_EEPROM_SIZE);
    ASSERT_EQ(0, kssim_camera_eeprom_read(camera, 0, eeprom_before.data(), KSSIM_EEPROM_SIZE));

    std::mt19937 rng(4242);
    KSCameraAbstract* h = handle_;
    // The EEPROM address the current operation asks to write, if any.
    int64_t asked = -1;
    // One operation a line.
    // clang-format off
    const std::vector<std::function<void()>> operations = {
        [&] { unsigned long id; unsigned char* f; ksGetCurrentFrame(h, &id, &f); },
        [&] { _ks_imu_data_set_s* s; ksGetIMUData(h, &s); },
        [&] { float b, l; ksGetBxfAndBase(h, &b, &l); },
        [&] { ksSetVideoMode(h, rng() & 1 ? KS_VIDEO_MODE_RGBD : KS_VIDEO_MODE_STEREO_ORIGIN); },
        [&] { _ks_video_param_s* l = nullptr; unsigned char n = 0; ksQuerySupportedVideoParam(h, &l, &n); },
        [&] { unsigned char i; ksGetVideoParam(h, &i); },
        [&] { ksSetVideoParam(h, static_cast<unsigned char>(rng() % 4)); },
        [&] { unsigned short w, hh; ksGetVideoResolution(h, &w, &hh); },
        [&] { ksSetSearchRange(h, static_cast<unsigned char>(rng() % 8)); },
        [&] { unsigned char r; ksGetSearchRange(h, &r); },
        [&] { ksSetLineOffset(h, static_cast<float>(rng() % 64) / 8.0f); },
        [&] { float o; ksGetLineOffset(h, &o); },
        [&] { ksSetDispOffset(h, static_cast<float>(rng() % 32) - 16.0f); },
        [&] { float o; ksGetDispOffset(h, &o); },
        [&] { ksSetLineTrim(h, rng() % 16, rng() % 16); },
        [&] { unsigned short l, r; ksGetLineTrim(h, &l, &r); },
        [&] { ksSetExposure(h, static_cast<unsigned short>(rng() % 800)); },
        [&] { unsigned short e; ksGetExposure(h, &e); },
        [&] { ksSetCameraGain(h, static_cast<unsigned short>(rng() % 64)); },
        [&] { ksSetCameraFps(h, 5.0f + static_cast<float>(rng() % 25)); },
        [&] { ksRestoreCameraFpsToDefault(h); },
        [&] { ksSetFilllightType(h, static_cast<_ks_filllight_type_e>(rng() % 4)); },
        [&] { _ks_filllight_type_e t; ksGetFilllightType(h, &t); },
        [&] { ksSetFillLightIntensity(h, static_cast<unsigned char>(rng())); },
        [&] { unsigned char i; ksGetFillLightIntensity(h, &i); },
        [&] { unsigned char id; const char* n; ksGetCmosType(h, &id, &n); },
        [&] { unsigned int* v; ksGetLastestAeStatValues(h, &v); },
        [&] { ksSetCameraSN(h, "KS7777777777"); },
        [&] { char sn[64]; ksGetCameraSN(h, sn); },
        [&] { char v[64]; ksGetUsbVersion(h, v); },
        [&] { unsigned char y, m, d; ksGetFpgaReleaseDate(h, &y, &m, &d); },
        [&] { unsigned char a, b; ksGetFpgaVersion(h, &a, &b); },
        [&] { unsigned char p, c; ksGetCameraHardwareInfo(h, &p, &c); },
        [&] { unsigned char m; ksGetCameraCMOSSwapMode(h, &m); },
        [&] { ksStoreEprFile(h, epr.c_str(), static_cast<unsigned char>(rng() % 8)); },
        [&] { ksSelectEprFile(h, static_cast<unsigned char>(rng() % 8)); },
        [&] { _ks_video_param_s p = {static_cast<unsigned char>(rng() % 8), 0, 640, 480, 20, 25}; ksAmendVideoFrameParam(h, &p); },
        [&] { ksShowAllCustomEEPROM(h); },
        [&] { ksBackUpEffectiveEprFile(h, backup.c_str()); },
        [&] { ksCheckNuvexChipStatus(h); },
        [&] { ksCheckCMOSStatus(h); },
        [&] { float x, y; ksGetRectifyOpticalCenter(h, &x, &y); },
        [&] { float f, x, y; ksGetRectifyCamParam(h, &f, &x, &y); },
        [&] { ksWriteNuvexRegisterValue(h, rng() & 0xFF, rng() & 0xFF); },
        [&] { unsigned short v; ksReadNuvexRegisterValue(h, rng() & 0xFF, &v); },
        [&] { ksWriteCmosRegisterValue(h, rng() & 0xFFFF, rng() & 0xFF); },
        [&] { unsigned short v; ksReadCmosRegisterValue(h, rng() & 0xFFFF, &v); },
        [&] {
            asked = 0x3000 + rng() % 0x1000;
            ksWriteEEpromAddressValue(h, static_cast<unsigned short>(asked), rng() & 0xFF);
        },
        [&] { unsigned short v; ksReadEEpromAddressValue(h, rng() & 0x3FFF, &v); },
        [&] { ksSetDisparityParam(h, param.c_str()); },
        [&] { ksSwitchToOriginDisparity(h); },
        [&] { ksSuspendCamera(h); },
        [&] { ksResumeCamera(h); },
    };
    // clang-format on

    const uint64_t wanted = exchanges_wanted();
    ASSERT_EQ(0, kssim_camera_set_hostile(camera, 1, 99));
    ks_test::FdCapture out(1);
    ks_test::FdCapture err(2);
    // Exchanges of the public operations, not counting the IMU thread's.
    uint64_t done = 0, calls = 0;
    std::string stray;
    std::vector<size_t> order(operations.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    while (done < wanted && stray.empty()) {
        // Every operation once per round, in a new order.
        std::shuffle(order.begin(), order.end(), rng);
        for (size_t which : order) {
            asked = -1;
            kssim_camera_traffic_clear(camera);
            const int64_t start = virtual_now_us();
            operations[which]();
            const int64_t took = virtual_now_us() - start;
            ++calls;
            if (took > kOperationBoundUs)
                stray =
                    "operation " + std::to_string(which) + " took " + std::to_string(took) + " us";
            const size_t n = kssim_camera_traffic_count(camera);
            for (size_t i = 0; i < n && stray.empty(); ++i) {
                kssim_message m{};
                if (kssim_camera_traffic_get(camera, i, &m) != 0) break;
                if (m.direction != KSSIM_REQUEST || m.command == kImuFetch) continue;
                ++done;
                if (m.command != kI2cWrite || (m.parameter >> 16) != kEepromWrite) continue;
                const uint32_t reg = m.parameter & 0xFFFF;
                const uint32_t end = reg + m.length;
                const bool custom = reg >= kCustomAreaStart && end <= kCustomAreaEnd;
                const bool as_asked = asked >= 0 && reg == asked && m.length == 1;
                if (!custom && !as_asked)
                    stray = "operation " + std::to_string(which) + " wrote " +
                            std::to_string(m.length) + " bytes at " + std::to_string(reg);
            }
        }
    }
    ASSERT_EQ(0, kssim_camera_set_hostile(camera, 0, 0));
    out.text();
    err.text();
    EXPECT_EQ("", stray);
    EXPECT_GE(done, wanted);
    // The hostile controller carried nothing out: the EEPROM is as it was.
    std::vector<uint8_t> eeprom_after(KSSIM_EEPROM_SIZE);
    ASSERT_EQ(0, kssim_camera_eeprom_read(camera, 0, eeprom_after.data(), KSSIM_EEPROM_SIZE));
    EXPECT_TRUE(eeprom_before == eeprom_after);
    printf("hostile exchanges: %llu in %llu public calls\n", static_cast<unsigned long long>(done),
           static_cast<unsigned long long>(calls));

    // The camera answers properly again and the session still works.
    char sn[64] = {};
    EXPECT_EQ(0, ksGetCameraSN(h, sn));
    EXPECT_EQ(0, ksCloseCamera(&handle_));
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    EXPECT_EQ(2, take_frames(handle_, 2));
}
