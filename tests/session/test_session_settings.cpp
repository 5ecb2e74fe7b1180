// Camera settings through the public interface, checked on the virtual
// camera's side: its registers, EEPROM bytes and the frames it delivers.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "common/ks_test_helpers.h"
#include "driver/driver_cpp/source/KSUVCCamera.h"
#include "session_fixture.h"
#include "sim/frame_decoder.h"
#include "v4l2/v4l2_test_util.h"

using sessiontest::SessionTest;
using sessiontest::virtual_now_us;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kDispOffsetArea = 0x3C00, kSearchRangeArea = 0x3C08, kLineOffsetArea = 0x3C10,
                   kSerialArea = 0x3C18, kFpsArea = 0x3C5E, kCustomArea = 0x3C00,
                   kCustomAreaSize = 0xB8;
constexpr uint16_t kWidth = 1280, kHeight = 720;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

uint8_t reg(kssim_camera* c, kssim_chip chip, uint32_t r) {
    uint8_t v = 0;
    EXPECT_EQ(0, kssim_camera_register_read(c, chip, r, &v)) << chip << " " << r;
    return v;
}

Bytes regs(kssim_camera* c, kssim_chip chip, uint32_t first, size_t n) {
    Bytes out;
    for (size_t i = 0; i < n; ++i) out.push_back(reg(c, chip, static_cast<uint32_t>(first + i)));
    return out;
}

// A 16-bit value held in two sensor (or ASIC) registers, high byte first.
uint16_t word(kssim_camera* c, kssim_chip chip, uint32_t high) {
    return static_cast<uint16_t>(reg(c, chip, high) << 8 | reg(c, chip, high + 1));
}

Bytes eeprom(kssim_camera* c, uint32_t addr, size_t n) {
    Bytes out(n);
    EXPECT_EQ(0, kssim_camera_eeprom_read(c, addr, out.data(), n));
    return out;
}

kssim_device_state device(kssim_camera* c) {
    kssim_device_state s{};
    EXPECT_EQ(0, kssim_camera_device_state(c, &s));
    return s;
}

// Where a setting lands: a chip's register or an EEPROM byte.
enum class At { Asic, Fpga, SensorA, SensorB, Eeprom };

struct Landing {
    At at;
    uint32_t address;
    uint8_t value;
};

uint8_t read_at(kssim_camera* c, At at, uint32_t address) {
    switch (at) {
        case At::Asic:
            return reg(c, KSSIM_CHIP_ASIC, address);
        case At::Fpga:
            return reg(c, KSSIM_CHIP_FPGA, address);
        case At::SensorA:
            return reg(c, KSSIM_CHIP_SENSOR_A, address);
        case At::SensorB:
            return reg(c, KSSIM_CHIP_SENSOR_B, address);
        case At::Eeprom:
            return eeprom(c, address, 1)[0];
    }
    return 0;
}

// I2C transfers the camera was asked for since its traffic record was
// cleared (the IMU receiver's requests are not among them); and the writes
// among them: (device, register, value).
constexpr uint32_t kI2cRead = 6, kI2cWrite = 7;

size_t i2c_requests(kssim_camera* c) {
    size_t n = 0;
    for (size_t i = 0; i < kssim_camera_traffic_count(c); ++i) {
        kssim_message m{};
        if (kssim_camera_traffic_get(c, i, &m) == 0 && m.direction == KSSIM_REQUEST &&
            (m.command == kI2cRead || m.command == kI2cWrite))
            ++n;
    }
    return n;
}

std::vector<std::array<uint32_t, 3>> i2c_writes(kssim_camera* c) {
    std::vector<std::array<uint32_t, 3>> writes;
    for (size_t i = 0; i < kssim_camera_traffic_count(c); ++i) {
        kssim_message m{};
        if (kssim_camera_traffic_get(c, i, &m) != 0 || m.direction != KSSIM_REQUEST ||
            m.command != kI2cWrite || m.data_length == 0)
            continue;
        writes.push_back({m.parameter >> 16, m.parameter & 0xFFFF, m.data[0]});
    }
    return writes;
}

// Newest frame that arrived after the call, or null after `virtual_seconds`:
// generous, because a fast clock on a loaded machine stretches the time the
// camera takes to render a changed view.
unsigned char* fresh_frame(KSCameraAbstract* h, double virtual_seconds = 300) {
    const int64_t deadline = virtual_now_us() + static_cast<int64_t>(virtual_seconds * 1e6);
    while (virtual_now_us() < deadline) {
        unsigned long id = 0;
        unsigned char* frame = nullptr;
        if (ksGetCurrentFrame(h, &id, &frame) == 0) return frame;
        ks_sys_usleep(2000);
    }
    return nullptr;
}

// Frames per second of virtual time, from the ids and timestamps successive
// frames carry: the median of `count` periods, so that a pause of the sensors
// (a rate change) does not count. 0 when they do not come in ten minutes.
double delivered_rate(KSCameraAbstract* h, size_t count = 15) {
    std::vector<double> periods;
    uint64_t last_id = 0, last_ts = 0;
    const int64_t deadline = virtual_now_us() + 600000000;
    while (periods.size() < count && virtual_now_us() < deadline) {
        unsigned char* frame = fresh_frame(h);
        if (frame == nullptr) break;
        const frame_test::Frame f(frame, kWidth, kHeight);
        if (last_id != 0 && f.frame_id() > last_id && f.timestamp() > last_ts)
            periods.push_back(static_cast<double>(f.timestamp() - last_ts) /
                              static_cast<double>(f.frame_id() - last_id));
        last_id = f.frame_id();
        last_ts = f.timestamp();
    }
    if (periods.size() < count) return 0;
    std::sort(periods.begin(), periods.end());
    return 1e6 / periods[periods.size() / 2];
}

// Standard output of a call, which keeps its results itself: checks made
// while the output is captured would print nothing.
template <typename Call>
std::string printed_by(Call&& call) {
    ks_test::FdCapture out(1);
    call();
    return out.text();
}

class SettingsTest : public SessionTest {
  protected:
    void open(kssim_camera* camera) {
        int result = -1;
        printed_by([&] { result = ksOpenUVCCameraByPath(node(camera), &handle_); });
        ASSERT_EQ(0, result);
    }
    void reopen(kssim_camera* camera) {
        ASSERT_EQ(0, ksCloseCamera(&handle_));
        open(camera);
    }
    KSUVCCamera* camera_object() { return static_cast<KSUVCCamera*>(handle_); }
    _KestraStereoCamSDK_Impl& session() { return camera_object()->session(); }
    KsY4L2Cam* driver() { return session().driverHandle(); }
};

}  // namespace

// Disparity offset, search range and line offset are kept in the EEPROM,
// mirrored into the driver that cuts the disparity, and loaded into the ASIC
// and the driver again when the camera is next brought up.
TEST_F(SettingsTest, StereoSettingsPersistAndComeBackAtBringUp) {
    kssim_camera* camera = add_camera();
    open(camera);
    float pixels = -1;
    uint8_t range = 0xFF;
    EXPECT_EQ(0, ksGetDispOffset(handle_, &pixels));  // nothing stored yet
    EXPECT_EQ(0.0f, pixels);

    ASSERT_EQ(0, ksSetDispOffset(handle_, -0.5f));
    EXPECT_EQ((Bytes{0xC1, 1, 0x00, 16}), eeprom(camera, kDispOffsetArea, 4));
    EXPECT_EQ(-16, ksV4l2GetDisparityOffset(driver()));
    ASSERT_EQ(0, ksSetDispOffset(handle_, 1.99f));  // truncated to 63/32
    EXPECT_EQ((Bytes{0xC1, 0, 0x00, 63}), eeprom(camera, kDispOffsetArea, 4));
    EXPECT_EQ(63, ksV4l2GetDisparityOffset(driver()));
    EXPECT_EQ(0, ksGetDispOffset(handle_, &pixels));
    EXPECT_EQ(1.96875f, pixels);

    ASSERT_EQ(0, ksSetSearchRange(handle_, 3));
    EXPECT_EQ(3, reg(camera, KSSIM_CHIP_ASIC, 0x42));
    EXPECT_EQ((Bytes{0xC2, 3}), eeprom(camera, kSearchRangeArea, 2));
    EXPECT_EQ(3, ksV4l2GetRangeOffset(driver()));

    // -0.5 lines: left 0.25, right 0.75 (in 1/256); 2.3: left 2.65, right 0.35.
    ASSERT_EQ(0, ksSetLineOffset(handle_, -0.5f));
    EXPECT_EQ((Bytes{0, 64, 0, 192}), regs(camera, KSSIM_CHIP_ASIC, 0x71, 4));
    EXPECT_EQ((Bytes{0xC3, 0x00, 0x80, 1}), eeprom(camera, kLineOffsetArea, 4));
    ASSERT_EQ(0, ksSetLineOffset(handle_, 2.3f));
    EXPECT_EQ((Bytes{2, 166, 0, 89}), regs(camera, KSSIM_CHIP_ASIC, 0x71, 4));
    EXPECT_EQ((Bytes{0xC3, 0x02, 0x4C, 0}), eeprom(camera, kLineOffsetArea, 4));

    // The disparity cut from a frame moves by 3 search-range steps of 32 plus 63.
    unsigned char* frame = fresh_frame(handle_);
    ASSERT_NE(nullptr, frame);
    std::vector<uint8_t> image(kWidth * kHeight * 3 / 2);
    std::vector<uint16_t> disparity(kWidth * kHeight);
    _cam_frame_rgbd_data rgbd{image.data(), disparity.data(), 0, 0, 0};
    ASSERT_EQ(0, parseRgbDFrame(frame, driver(), &rgbd, session().metadataLine()));
    const frame_test::Frame source(frame, kWidth, kHeight);
    int compared = 0;
    for (int x = 0; x < kWidth; x += 7) {
        const uint16_t raw = source.disparity(x, kHeight / 2);
        if (raw == 0) continue;
        ++compared;
        EXPECT_EQ(raw + 3 * 32 + 63, disparity[(kHeight / 2) * kWidth + x]) << x;
    }
    EXPECT_GT(compared, 100);

    // Power-cycled registers come back from the EEPROM at the next bring-up.
    ASSERT_EQ(0, ksCloseCamera(&handle_));
    for (uint32_t r : {0x42, 0x71, 0x72, 0x73, 0x74})
        ASSERT_EQ(0, kssim_camera_register_write(camera, KSSIM_CHIP_ASIC, r, 0));
    open(camera);
    EXPECT_EQ(3, reg(camera, KSSIM_CHIP_ASIC, 0x42));
    // 2.3 was stored as 588/256 = 2.296875: left 2.6484375, right 0.3515625.
    EXPECT_EQ((Bytes{2, 166, 0, 90}), regs(camera, KSSIM_CHIP_ASIC, 0x71, 4));
    EXPECT_EQ(63, ksV4l2GetDisparityOffset(driver()));
    EXPECT_EQ(3, ksV4l2GetRangeOffset(driver()));
    EXPECT_EQ(0, ksGetDispOffset(handle_, &pixels));
    EXPECT_EQ(1.96875f, pixels);
    EXPECT_EQ(0, ksGetSearchRange(handle_, &range));
    EXPECT_EQ(3, range);
    EXPECT_EQ(0, ksGetLineOffset(handle_, &pixels));
    EXPECT_EQ(2.296875f, pixels);
}

// Each setting of an OV9281 camera, in order, and the registers it lands in.
TEST_F(SettingsTest, SettingsLandInTheirRegisters) {
    kssim_camera* camera = add_camera();
    open(camera);
    struct Row {
        const char* what;
        std::function<int()> set;
        std::vector<Landing> lands;
    };
    // clang-format off
    const std::vector<Row> rows = {
        {"trim 7, 3 made even",
         [&] { return ksSetLineTrim(handle_, 7, 3); },
         {{At::Asic, 0x26, 6},
          {At::Asic, 0x28, 2},
          {At::Asic, 0x65, 0},
          {At::Asic, 0x66, 0xFC},
          {At::Asic, 0x67, 0},
          {At::Asic, 0x68, 4}}},
        {"light mode 1 at the default brightness",
         [&] { return ksSetFilllightType(handle_, KS_FILLLIGHT_TYPE_CTRL_MODE_1); },
         {{At::Fpga, 0x31, 48}, {At::Fpga, 0x30, 1}}},
        {"light intensity",
         [&] { return ksSetFillLightIntensity(handle_, 100); },
         {{At::Fpga, 0x31, 100}}},
        {"light mode 0 keeps the intensity",
         [&] { return ksSetFilllightType(handle_, KS_FILLLIGHT_TYPE_CTRL_MODE_0); },
         {{At::Fpga, 0x31, 100}, {At::Fpga, 0x30, 0}}},
        {"light off",
         [&] { return ksSetFilllightType(handle_, KS_FILLLIGHT_TYPE_OFF); },
         {{At::Fpga, 0x31, 0}}},
        {"gain",
         [&] { return ksSetCameraGain(handle_, 20); },
         {{At::SensorA, 0x3509, 20}, {At::SensorB, 0x3509, 20}}},
        {"manual exposure 800 (x16) stops AE",
         [&] { return ksSetExposure(handle_, 800); },
         {{At::Asic, 0x33, 0x32}, {At::Asic, 0x35, 0x00}, {At::Fpga, 0x20, 0}}},
        {"manual exposure stays manual across a bracketed setting",
         [&] { return ksSetSearchRange(handle_, 2); },
         {{At::Fpga, 0x20, 0}, {At::Asic, 0x42, 2}}},
        {"exposure 0 restarts AE",
         [&] { return ksSetExposure(handle_, 0); },
         {{At::Fpga, 0x20, 0x10}}},
        {"trigger master",
         [&] { return session().setCamTriggerMaster(); },
         {{At::Fpga, 0x10, 16}}},
        {"trigger slave", [&] { return session().setCamTriggerSlave(); }, {{At::Fpga, 0x10, 1}}},
        {"trigger default",
         [&] { return session().setCamTriggerDefault(); },
         {{At::Fpga, 0x10, 0}}},
        {"white balance, middle gain on both green sites",
         [&] { return session().setWhiteBalanceParam(0x40, 0x50, 0x160); },
         {{At::Asic, 0x21, 0x40},
          {At::Asic, 0x22, 0x50},
          {At::Asic, 0x23, 0x50},
          {At::Asic, 0x24, 0x60}}},
        {"ASIC register",
         [&] { return ksWriteNuvexRegisterValue(handle_, 0x90, 0x5A); },
         {{At::Asic, 0x90, 0x5A}}},
        {"sensor register through the bridge",
         [&] { return ksWriteCmosRegisterValue(handle_, 0x3509, 0x30); },
         {{At::SensorA, 0x3509, 0x30}, {At::SensorB, 0x3509, 0x30}}},
        {"EEPROM byte",
         [&] { return ksWriteEEpromAddressValue(handle_, 0x3D00, 0x77); },
         {{At::Eeprom, 0x3D00, 0x77}}},
    };
    // clang-format on
    for (const Row& row : rows) {
        int result = -1;
        printed_by([&] { result = row.set(); });
        EXPECT_EQ(0, result) << row.what;
        for (const Landing& l : row.lands)
            EXPECT_EQ(l.value, read_at(camera, l.at, l.address)) << row.what << " " << l.address;
    }

    // What reads back.
    uint16_t left = 0, right = 0, value = 0;
    EXPECT_EQ(0, ksGetLineTrim(handle_, &left, &right));
    EXPECT_EQ(6, left);
    EXPECT_EQ(2, right);
    _ks_filllight_type_e type = KS_FILLLIGHT_TYPE_ALTERNATE;
    EXPECT_EQ(0, ksGetFilllightType(handle_, &type));
    EXPECT_EQ(KS_FILLLIGHT_TYPE_OFF, type);
    ASSERT_EQ(0, ksSetFillLightIntensity(handle_, 9));
    EXPECT_EQ(0, ksGetFilllightType(handle_, &type));
    EXPECT_EQ(KS_FILLLIGHT_TYPE_CTRL_MODE_0, type);
    unsigned char intensity = 0;
    EXPECT_EQ(0, ksGetFillLightIntensity(handle_, &intensity));
    EXPECT_EQ(9, intensity);
    unsigned short first = 0, middle = 0, last = 0, gain_a = 0, gain_b = 0;
    EXPECT_EQ(0, session().getWhiteBalanceParam(&first, &middle, &last));
    EXPECT_EQ((std::vector<int>{0x40, 0x50, 0x60}), (std::vector<int>{first, middle, last}));
    EXPECT_EQ(0, session().getCameraGain(&gain_a, &gain_b));
    EXPECT_EQ(0x30, gain_a);
    EXPECT_EQ(0x30, gain_b);
    EXPECT_EQ(0, ksReadNuvexRegisterValue(handle_, 0x90, &value));
    EXPECT_EQ(0x5A, value);
    EXPECT_EQ(0, ksReadEEpromAddressValue(handle_, 0x3D00, &value));
    EXPECT_EQ(0x77, value);
}

// The OV9281's rate is its frame length (28110 / fps lines): the camera then
// delivers that rate, keeps it in the EEPROM and comes back with it; a restore
// erases it and power-cycles the camera to its own rate.
TEST_F(SettingsTest, FrameRateIsDeliveredKeptAndRestored) {
    kssim_camera* camera = add_camera();
    open(camera);
    ASSERT_EQ(0, ksSetCameraFps(handle_, 15.0f));
    EXPECT_EQ(1874, word(camera, KSSIM_CHIP_SENSOR_A, 0x380E));
    EXPECT_EQ(1874, word(camera, KSSIM_CHIP_SENSOR_B, 0x380E));
    EXPECT_EQ((Bytes{0xC6, 0, 15, 0, 0}), eeprom(camera, kFpsArea, 5));
    EXPECT_EQ(15.0f, getv4l2StreamFPS(driver()));
    EXPECT_EQ(60000, driver()->wait_period.load());  // 0.9 of a frame period, in us
    EXPECT_NEAR(15.0, delivered_rate(handle_), 0.5);
    // The library's own measure sees one window at the new rate. It times
    // frames as they are dequeued: a slow clock keeps a loaded host's delays
    // small against a window's 1.6 s.
    set_warp(2);
    bool measured = false;
    for (int64_t end = virtual_now_us() + 60000000; !measured && virtual_now_us() < end;) {
        double fps = 0;
        measured = ksV4l2GetRealTimeFPS(driver(), &fps) == 0 && std::fabs(fps - 15.0) < 1.5;
        ks_sys_usleep(100000);
    }
    EXPECT_TRUE(measured);
    set_warp(warp());

    // Reopened after the sensors went back to 30 fps: 15 again.
    ASSERT_EQ(0, ksCloseCamera(&handle_));
    ASSERT_EQ(0, kssim_camera_set_frame_rate(camera, 30.0));
    open(camera);
    EXPECT_EQ(1874, word(camera, KSSIM_CHIP_SENSOR_A, 0x380E));
    EXPECT_NEAR(15.0, device(camera).sensor_frame_rate, 0.01);
    EXPECT_EQ(15.0f, getv4l2StreamFPS(driver()));

    // Refused rates leave the sensors, the EEPROM and the driver alone.
    struct Refusal {
        float fps;
        const char* printed;
    };
    for (const Refusal& r : {Refusal{31.0f, "Set fps operation failed -98\n"},
                             Refusal{6.8f, "Set fps operation failed -99\n"},
                             Refusal{0.5f, "Set fps operation failed -97\n"},
                             Refusal{kNaN, "Set fps operation failed -2\n"},
                             Refusal{kInf, "Set fps operation failed -2\n"}}) {
        int result = 0;
        const std::string printed = printed_by([&] { result = ksSetCameraFps(handle_, r.fps); });
        EXPECT_EQ(-2, result) << r.fps;
        EXPECT_NE(std::string::npos, printed.find(r.printed)) << r.fps;
        EXPECT_EQ(1874, word(camera, KSSIM_CHIP_SENSOR_A, 0x380E)) << r.fps;
        EXPECT_EQ((Bytes{0xC6, 0, 15, 0, 0}), eeprom(camera, kFpsArea, 5)) << r.fps;
        EXPECT_EQ(15.0f, getv4l2StreamFPS(driver())) << r.fps;
    }

    // Restore: the stored rate is erased and the camera power-cycled; it comes
    // back at its own 30 fps and streams on.
    const uint32_t resets = device(camera).reset_count;
    int result = -1;
    std::string printed = printed_by([&] { result = ksRestoreCameraFpsToDefault(handle_); });
    EXPECT_EQ(0, result);
    EXPECT_NE(std::string::npos, printed.find("Finish bring up."));
    EXPECT_EQ(Bytes(8, 0xFF), eeprom(camera, kFpsArea, 8));
    EXPECT_EQ(resets + 1, device(camera).reset_count);
    EXPECT_NEAR(30.0, delivered_rate(handle_), 1.0);

    // A rate the EEPROM does not take: the sensors run it (they go first), the
    // driver keeps the rate it had.
    ASSERT_EQ(0, inject(camera, KSSIM_FAULT_EEPROM_NO_STICK, 0, KSSIM_EEPROM_ADDRESS(kFpsArea)));
    printed = printed_by([&] { result = ksSetCameraFps(handle_, 20.0f); });
    EXPECT_EQ(-3, result);
    EXPECT_NE(std::string::npos, printed.find("Save FPS to info failed\n"));
    EXPECT_EQ(1405, word(camera, KSSIM_CHIP_SENSOR_A, 0x380E));
    EXPECT_EQ(Bytes(8, 0xFF), eeprom(camera, kFpsArea, 8));
    EXPECT_EQ(15.0f, getv4l2StreamFPS(driver()));
}

// Frame rate, gain, exposure and the model name by sensor model; a model
// without a setter is refused with its code.
TEST_F(SettingsTest, EachSensorModelGetsItsOwnSetters) {
    struct Model {
        kssim_sensor_model model;
        const char* name;
        float fps;
        int fps_result;
        std::vector<Landing> fps_lands;
        int gain_result;
        std::vector<Landing> gain_lands;
        int exposure_result;  // exposure 200
        std::vector<Landing> exposure_lands;
        const char* printed;
    };
    // clang-format off
    const std::vector<Model> models = {
        // IMX225: 33000 / 25 = 1320 lines; gain capped at 255; exposure
        // counted from the end of the frame: 1320 - 200 = 1120.
        {KSSIM_SENSOR_IMX225,
         "SONY_IMX225",
         25.0f,
         0,
         {{At::Asic, 0x63, 0x05}, {At::Asic, 0x64, 0x28}, {At::Fpga, 0x27, 0x05},
          {At::Fpga, 0x28, 0x28}},
         0,
         {{At::SensorA, 0x3014, 255}, {At::SensorB, 0x3014, 255}},
         0,
         {{At::Asic, 0x33, 0x04}, {At::Asic, 0x35, 0x60}},
         ""},
        // SC132GS: 38400 / 20 = 1920 lines (1914 = lines - 6 at 0x3228); its
        // exposure is the OV9281's (x16); no gain setter.
        {KSSIM_SENSOR_SC132GS,
         "SC132GS",
         20.0f,
         0,
         {{At::SensorA, 0x320E, 0x07}, {At::SensorA, 0x320F, 0x80}, {At::SensorB, 0x3228, 0x07},
          {At::SensorB, 0x3229, 0x7A}, {At::Asic, 0x63, 0x07}, {At::Asic, 0x64, 0x80}},
         -1,
         {},
         0,
         {{At::Asic, 0x33, 0x0C}, {At::Asic, 0x35, 0x80}},
         "Unsupport Cmos Model 05\n"},
        {KSSIM_SENSOR_AR0144,
         "AR0144",
         20.0f,
         -2,
         {},
         -1,
         {},
         -2,
         {},
         "Unsupport Cmos Model 03\n"},
    };
    // clang-format on
    for (const Model& m : models) {
        SCOPED_TRACE(m.name);
        kssim_camera_config cfg;
        kssim_camera_config_init(&cfg);
        cfg.sensor = m.model;
        kssim_camera* camera = kssim_world_add_camera(world_, &cfg);
        ASSERT_NE(nullptr, camera);
        open(camera);
        unsigned char code = 0;
        const char* name = nullptr;
        EXPECT_EQ(0, ksGetCmosType(handle_, &code, &name));
        EXPECT_EQ(m.model, code);
        EXPECT_STREQ(m.name, name);

        // The camera object reports a refused setter as -1, the exposure as -2.
        int fps = 0, gain = 0, exposure = 0;
        const std::string printed = printed_by([&] {
            fps = ksSetCameraFps(handle_, m.fps);
            gain = camera_object()->set_camera_gain(300);
            exposure = camera_object()->set_exposure(200);
        });
        EXPECT_EQ(m.fps_result, fps);
        EXPECT_EQ(m.gain_result, gain);
        EXPECT_EQ(m.exposure_result, exposure);
        if (m.fps_result == 0) {
            EXPECT_NEAR(m.fps, device(camera).sensor_frame_rate, 0.05);
            EXPECT_NEAR(m.fps, delivered_rate(handle_), 0.5);
        }
        for (const auto& lands : {m.fps_lands, m.gain_lands, m.exposure_lands})
            for (const Landing& l : lands) EXPECT_EQ(l.value, read_at(camera, l.at, l.address));
        EXPECT_NE(std::string::npos, printed.find(m.printed)) << printed;
        if (m.fps_result != 0) {
            EXPECT_NE(std::string::npos, printed.find("Error: Unsupport Model 3\n"));
            EXPECT_EQ(Bytes(5, 0xFF), eeprom(camera, kFpsArea, 5));
        }
        ASSERT_EQ(0, ksCloseCamera(&handle_));
    }
}

// The serial number written is the one the camera reports after a reopen;
// erasing leaves it empty; what the EEPROM refuses is reported.
TEST_F(SettingsTest, SerialNumberWrittenReopenedAndErased) {
    kssim_camera* camera = add_camera();
    open(camera);
    const std::string serial = "KSTEST0123456789";  // 16 characters, the most
    const Bytes stored = eeprom(camera, kSerialArea, 18);
    for (const char* bad : {"KSTEST01234567890", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(-1, ksSetCameraSN(handle_, bad));
    EXPECT_EQ(stored, eeprom(camera, kSerialArea, 18));

    ASSERT_EQ(0, ksSetCameraSN(handle_, serial.c_str()));
    Bytes expected = {0xC4, 16};
    for (char ch : serial) expected.push_back(static_cast<uint8_t>(ch));
    EXPECT_EQ(expected, eeprom(camera, kSerialArea, 18));
    reopen(camera);
    char sn[17] = "x";
    EXPECT_EQ(0, ksGetCameraSN(handle_, sn));
    EXPECT_EQ(serial, sn);

    EXPECT_EQ(0, ksEraseCameraSN(handle_));
    EXPECT_EQ(Bytes(18, 0xFF), eeprom(camera, kSerialArea, 18));
    EXPECT_EQ(0, ksGetCameraSN(handle_, sn));
    EXPECT_STREQ("", sn);

    // An EEPROM that answers nothing: both directions fail with their texts.
    ASSERT_EQ(0, inject(camera, KSSIM_FAULT_I2C_REFUSE_EEPROM, 0));
    int set = 0, get = 0;
    const std::string printed = printed_by([&] {
        set = ksSetCameraSN(handle_, "NEW");
        get = ksGetCameraSN(handle_, sn);
    });
    EXPECT_EQ(-2, set);
    EXPECT_EQ(-2, get);
    EXPECT_NE(std::string::npos, printed.find("Erase SN error\n"));
    EXPECT_NE(std::string::npos,
              printed.find("\nFile: driver/driver_cpp/source/KSUVCCamera : Line: "));
    EXPECT_NE(std::string::npos,
              printed.find("->Function: set_camera_sn\nsetCameraSN(NEW) return -1"));
    EXPECT_NE(std::string::npos,
              printed.find("->Function: get_camera_sn\ngetCameraSN() return -1"));
    EXPECT_EQ(-2, ksEraseCameraSN(handle_));
}

// Bad values and device faults: each is refused with its code and message,
// and leaves what it must not touch as it was. Persisting settings save to
// the EEPROM before the driver sees them, so a failed save never reaches the
// driver; the search range and line offset go to the ASIC before the save.
TEST_F(SettingsTest, BadValuesAndFaultsAreRefusedCleanly) {
    kssim_camera* camera = add_camera();
    open(camera);
    ASSERT_EQ(0, ksSetDispOffset(handle_, 1.0f));
    ASSERT_EQ(0, ksSetSearchRange(handle_, 2));
    ASSERT_EQ(0, ksSetLineOffset(handle_, 1.0f));

    std::vector<std::pair<At, uint32_t>> watched = {
        {At::Asic, 0x26}, {At::Asic, 0x28}, {At::Asic, 0x33}, {At::Asic, 0x35},
        {At::Fpga, 0x10}, {At::Fpga, 0x30}, {At::Fpga, 0x31}, {At::SensorA, 0x3509}};
    watched.push_back({At::Asic, 0x42});
    for (uint32_t r = 0x71; r <= 0x74; ++r) watched.push_back({At::Asic, r});
    for (uint32_t a = kCustomArea; a < kCustomArea + kCustomAreaSize; ++a)
        watched.push_back({At::Eeprom, a});
    auto snapshot = [&] {
        std::vector<uint8_t> values;
        for (const auto& w : watched) values.push_back(read_at(camera, w.first, w.second));
        return values;
    };

    struct Fault {
        kssim_fault_kind kind;
        int32_t value;
    };
    struct Row {
        const char* what;
        std::vector<Fault> faults;
        std::function<int()> call;
        int result;
        const char* printed;  // on standard output
        const char* logged;   // through the logger
        std::vector<Landing> lands;
        bool quiet_device;  // refused before any control traffic
    };
    const _ks_filllight_type_e alternate = KS_FILLLIGHT_TYPE_ALTERNATE;
    // clang-format off
    const std::vector<Row> rows = {
        {"exposure above 800", {}, [&] { return ksSetExposure(handle_, 801); }, -1, "", "", {},
         true},
        {"disparity offset NaN", {}, [&] { return ksSetDispOffset(handle_, kNaN); }, -2, "",
         "Invalid disparity offset nan\n", {}, true},
        {"disparity offset infinite", {}, [&] { return ksSetDispOffset(handle_, -kInf); }, -2, "",
         "Invalid disparity offset -inf\n", {}, true},
        {"disparity offset the EEPROM does not keep",
         {{KSSIM_FAULT_EEPROM_NO_STICK, 0}},
         [&] { return ksSetDispOffset(handle_, 2.0f); },
         -2, "", "Save disp l failed\n", {}, false},
        {"search range the EEPROM does not keep",
         {{KSSIM_FAULT_EEPROM_NO_STICK, 0}},
         [&] { return ksSetSearchRange(handle_, 5); },
         -2, "", "save search range failed\n", {{At::Asic, 0x42, 5}}, false},
        {"search range the ASIC does not take",
         {{KSSIM_FAULT_I2C_REFUSE_ASIC, 1}},
         [&] { return ksSetSearchRange(handle_, 6); },
         -2, "", "set search range failed\n", {}, false},
        {"line offset the EEPROM does not keep",
         {{KSSIM_FAULT_EEPROM_NO_STICK, 0}},
         [&] { return ksSetLineOffset(handle_, 1.5f); },
         -2, "->Function: set_line_offset\nSetLineOffset fails, return -1\n\n",
         "Save line offset L error\n", {{At::Asic, 0x71, 1}, {At::Asic, 0x72, 192},
          {At::Asic, 0x73, 0}, {At::Asic, 0x74, 64}}, false},
        {"line offset beyond five lines", {}, [&] { return ksSetLineOffset(handle_, 6.0f); }, -2,
         "SetLineOffset fails, return -1\n", "invalid offset val", {}, false},
        {"line offset NaN zeroes the ASIC's pair and saves nothing", {},
         [&] { return ksSetLineOffset(handle_, kNaN); }, -2, "SetLineOffset fails, return -1\n",
         "Line offset overflow nan\n",
         {{At::Asic, 0x71, 0}, {At::Asic, 0x72, 0}, {At::Asic, 0x73, 0}, {At::Asic, 0x74, 0}},
         false},
        {"line offset infinite", {}, [&] { return ksSetLineOffset(handle_, kInf); }, -2,
         "SetLineOffset fails, return -1\n", "invalid offset val", {}, false},
        {"gain without the sensor model",
         {{KSSIM_FAULT_I2C_REFUSE_FPGA, 2}},
         [&] { return ksSetCameraGain(handle_, 40); },
         -2, "", "Failed to get cmos model\n", {}, false},
        {"frame rate without the sensor model",
         {{KSSIM_FAULT_I2C_REFUSE_FPGA, 2}},
         [&] { return ksSetCameraFps(handle_, 20.0f); },
         -1, "Error: Failed to query CMOS model.Unable to set FPS\n", "", {}, false},
        {"trim the ASIC does not take",
         {{KSSIM_FAULT_I2C_REFUSE_ASIC, 1}},
         [&] { return ksSetLineTrim(handle_, 10, 20); },
         -2, "", "set right failed\n", {}, false},
        {"fill light alternating", {}, [&] { return ksSetFilllightType(handle_, alternate); }, -2,
         "Fill light alternate on/off mode not support yet!\n", "", {}, false},
        {"fill light mode outside the enum", {},
         [&] { return ksSetFilllightType(handle_, static_cast<_ks_filllight_type_e>(7)); }, -2,
         "Invalid mode: [7]\n", "", {}, false},
        {"fill light negative mode", {},
         [&] { return ksSetFilllightType(handle_, static_cast<_ks_filllight_type_e>(-1)); }, -2,
         "Invalid mode: [-1]\n", "", {}, false},
        {"fill light with the FPGA silent",
         {{KSSIM_FAULT_I2C_REFUSE_FPGA, 0}},
         [&] { return ksSetFilllightType(handle_, KS_FILLLIGHT_TYPE_CTRL_MODE_1); },
         -2, "Get current fill intensity failed\nFPGA Status err\n", "", {}, false},
        {"sensor register the sensors never acknowledge",
         {{KSSIM_FAULT_SENSOR_COUNTER_FROZEN, 0}},
         [&] { return ksWriteCmosRegisterValue(handle_, 0x3509, 0x44); },
         -1, "", "CMOS SET ERROR DETECTED", {}, false},
    };
    // clang-format on
    const short disp = ksV4l2GetDisparityOffset(driver());
    const unsigned char range = ksV4l2GetRangeOffset(driver());
    ASSERT_EQ(32, disp);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        for (const Fault& f : row.faults) ASSERT_EQ(0, inject(camera, f.kind, 0, f.value));
        const std::vector<uint8_t> before = snapshot();
        kssim_camera_traffic_clear(camera);
        std::string printed, logged;
        int result;
        {
            v4l2test::LogCapture log(LOG_TRACE);
            ks_test::FdCapture out(1);
            result = row.call();
            printed = out.text();
            logged = log.text();
        }
        for (const Fault& f : row.faults) ASSERT_EQ(0, kssim_camera_clear_fault(camera, f.kind));
        EXPECT_EQ(row.result, result);
        EXPECT_NE(std::string::npos, printed.find(row.printed)) << printed;
        EXPECT_NE(std::string::npos, logged.find(row.logged)) << logged;
        if (row.quiet_device) {
            EXPECT_EQ(0u, i2c_requests(camera));
        }
        const std::vector<uint8_t> after = snapshot();
        for (size_t i = 0; i < watched.size(); ++i) {
            const Landing* landed = nullptr;
            for (const Landing& l : row.lands)
                if (l.at == watched[i].first && l.address == watched[i].second) landed = &l;
            EXPECT_EQ(landed != nullptr ? landed->value : before[i], after[i])
                << static_cast<int>(watched[i].first) << " " << std::hex << watched[i].second;
        }
        EXPECT_EQ(disp, ksV4l2GetDisparityOffset(driver()));
        EXPECT_EQ(range, ksV4l2GetRangeOffset(driver()));
    }

    // Getters with nothing to give, and the exposure the sensors cannot report.
    unsigned short exposure = 0;
    EXPECT_EQ(-2, ksGetExposure(handle_, &exposure));
    EXPECT_EQ(-1, camera_object()->get_exposure(nullptr));
    ASSERT_EQ(0, inject(camera, KSSIM_FAULT_I2C_REFUSE_FPGA, 0));
    _ks_filllight_type_e type = KS_FILLLIGHT_TYPE_OFF;
    int result = 0;
    const std::string printed = printed_by([&] { result = ksGetFilllightType(handle_, &type); });
    EXPECT_EQ(-2, result);
    EXPECT_NE(std::string::npos, printed.find("Get fill light brightness failed\n"));
    unsigned char code = 0x0F;
    const char* name = nullptr;
    EXPECT_NE(0, ksGetCmosType(handle_, &code, &name));
    EXPECT_STREQ("None", name);  // named after whatever the code holds
}

// The sensor check samples both output indices: one that stops is a stalled
// sensor; a session whose reads fail counts nothing as stalled.
TEST_F(SettingsTest, SensorCheckFindsStalledSensors) {
    kssim_camera* camera = add_camera();
    open(camera);
    EXPECT_EQ(0, ksCheckCMOSStatus(handle_));
    for (auto [frozen, result] : {std::pair{1, -1}, std::pair{2, -2}, std::pair{3, -3}}) {
        ASSERT_EQ(0, inject(camera, KSSIM_FAULT_OUTPUT_INDEX_FROZEN, 0, frozen));
        EXPECT_EQ(result, ksCheckCMOSStatus(handle_)) << frozen;
        ASSERT_EQ(0, kssim_camera_clear_fault(camera, KSSIM_FAULT_OUTPUT_INDEX_FROZEN));
    }
    unsigned short a = 0, b = 0;
    EXPECT_EQ(0, session().checkNuvexCmosIDX(&a, &b));
    EXPECT_EQ(0, ksCheckNuvexChipStatus(handle_));

    _KestraStereoCamSDK_Impl unopened;
    v4l2test::LogCapture log(LOG_DEBUG);
    EXPECT_EQ(0, unopened.checkCmosStatus());
    EXPECT_EQ(1, log.count("Load Cmos IDX ERROR -1"));
    EXPECT_EQ(0, log.count("CMOS IDX ["));
}

// Exposure statistics come from the metadata line of the last frame cut; a
// darker manual exposure shows in them. Without a metadata line the call
// fails and hands nothing out.
TEST_F(SettingsTest, ExposureStatisticsFollowTheLastParsedFrame) {
    kssim_camera* camera = add_camera();
    open(camera);
    std::vector<uint8_t> image(kWidth * kHeight * 3 / 2);
    std::vector<uint16_t> disparity(kWidth * kHeight);
    _cam_frame_rgbd_data rgbd{image.data(), disparity.data(), 0, 0, 0};
    auto statistics_of_next_frame = [&](uint16_t exposure) {
        EXPECT_EQ(0, ksSetExposure(handle_, exposure));
        // The frame being made at the change may carry the old exposure.
        kssim_camera_stats made{};
        EXPECT_EQ(0, kssim_camera_get_stats(camera, &made));
        unsigned char* frame = nullptr;
        for (int64_t end = virtual_now_us() + 600000000; virtual_now_us() < end;) {
            frame = fresh_frame(handle_);
            if (frame == nullptr ||
                frame_test::Frame(frame, kWidth, kHeight).frame_id() > made.next_frame_id)
                break;
        }
        EXPECT_NE(nullptr, frame);
        if (frame == nullptr) return std::vector<unsigned>{};
        EXPECT_EQ(0, parseRgbDFrame(frame, driver(), &rgbd, session().metadataLine()));
        unsigned int* stats = nullptr;
        EXPECT_EQ(0, ksGetLastestAeStatValues(handle_, &stats));
        EXPECT_NE(nullptr, stats);
        if (stats == nullptr) return std::vector<unsigned>{};
        const frame_test::Frame source(frame, kWidth, kHeight);
        EXPECT_EQ(source.ae(0), stats[0]);
        EXPECT_EQ(source.ae(1), stats[1]);
        EXPECT_EQ(source.ae(4), stats[4]);
        return std::vector<unsigned>(stats, stats + 5);
    };
    const std::vector<unsigned> dark = statistics_of_next_frame(100);
    const std::vector<unsigned> bright = statistics_of_next_frame(800);
    ASSERT_EQ(5u, dark.size());
    ASSERT_EQ(5u, bright.size());
    EXPECT_LT(dark[0], bright[0]);  // mean luma
    EXPECT_LE(dark[4], bright[4]);  // peak luma
    ASSERT_EQ(0, ksCloseCamera(&handle_));

    int opened = -1;
    printed_by([&] { opened = ksOpenUVCCameraByPathCallInitCamCtrl(node(camera), &handle_); });
    ASSERT_EQ(0, opened);
    unsigned int* stats = reinterpret_cast<unsigned int*>(&rgbd);
    EXPECT_EQ(-1, ksGetLastestAeStatValues(handle_, &stats));
    EXPECT_EQ(reinterpret_cast<unsigned int*>(&rgbd), stats);
}

// IMU samples carry the id of the video frame current when they were read; a
// camera without an IMU, or opened for control only, reports why it has none.
TEST_F(SettingsTest, ImuSamplesCarryTheCurrentFrameId) {
    kssim_camera* camera = add_camera();
    open(camera);
    unsigned char* frame = fresh_frame(handle_);
    ASSERT_NE(nullptr, frame);
    const uint64_t id = frame_test::Frame(frame, kWidth, kHeight).frame_id();
    _ks_imu_data_set_s* sample = nullptr;
    uint64_t sync = 0;
    for (int64_t end = virtual_now_us() + 300000000; sync < id && virtual_now_us() < end;)
        if (ksGetIMUData(handle_, &sample) == 0 && sample != nullptr) sync = sample->sync_id;
    EXPECT_GE(sync, id);
    kssim_camera_stats stats{};
    ASSERT_EQ(0, kssim_camera_get_stats(camera, &stats));
    EXPECT_LT(sync, stats.next_frame_id);
    ASSERT_EQ(0, ksCloseCamera(&handle_));

    kssim_camera* without = add_camera([](kssim_camera_config& c) {
        c.has_imu = 0;
        std::snprintf(c.serial, sizeof(c.serial), "KS0000000002");
    });
    ASSERT_NE(nullptr, without);
    int result = -1;
    std::string printed =
        printed_by([&] { result = ksOpenUVCCameraByPath(node(without), &handle_); });
    ASSERT_EQ(0, result);
    EXPECT_NE(std::string::npos, printed.find("Warning: init imu module failed\n"));
    printed = printed_by([&] { result = ksGetIMUData(handle_, &sample); });
    EXPECT_EQ(-2, result);
    EXPECT_NE(std::string::npos,
              printed.find("->Function: get_imu_data\ngetLatestImuData fails, return -1\n"));
    ASSERT_EQ(0, ksCloseCamera(&handle_));

    printed_by([&] { result = ksOpenUVCCameraByPathCallInitCamCtrl(node(camera), &handle_); });
    ASSERT_EQ(0, result);
    int pause = 0, resume = 0;
    printed = printed_by([&] {
        result = ksGetIMUData(handle_, &sample);
        pause = session().pauseImuModule();
        resume = session().resumeImuModule();
    });
    EXPECT_EQ(-2, result);
    EXPECT_EQ(-1, pause);
    EXPECT_EQ(-1, resume);
    EXPECT_NE(std::string::npos, printed.find("Imu module not initialized\n"));
    EXPECT_NE(std::string::npos, printed.find("getLatestImuData fails, return -100\n"));
    EXPECT_NE(std::string::npos, printed.find("IMU module not initialized\n"));
}

// Versions and hardware information, and which operations run inside the
// guard pair: its first write opens the FPGA's RTT switch (0x08 := 0), its
// last shuts it (0x08 := 1).
TEST_F(SettingsTest, VersionsHardwareAndTheGuardPair) {
    kssim_camera* camera = add_camera([](kssim_camera_config& c) { c.pcb_revision = 3; });
    open(camera);
    char version[32] = {};
    EXPECT_EQ(0, ksGetUsbVersion(handle_, version));
    EXPECT_STREQ("KS-USB 3.2.1 2023-11-20", version);
    unsigned char a = 0, b = 0, c = 0;
    EXPECT_EQ(0, ksGetFpgaVersion(handle_, &a, &b));
    EXPECT_EQ((std::vector<int>{1, 5}), (std::vector<int>{a, b}));
    EXPECT_EQ(0, ksGetFpgaReleaseDate(handle_, &a, &b, &c));
    EXPECT_EQ((std::vector<int>{0x23, 0x11, 0x20}), (std::vector<int>{a, b, c}));
    EXPECT_EQ(0, ksGetCameraHardwareInfo(handle_, &a, &b));
    EXPECT_EQ((std::vector<int>{3, KSSIM_SENSOR_OV9281}), (std::vector<int>{a, b}));
    EXPECT_EQ(0, ksGetCameraCMOSSwapMode(handle_, &a));
    EXPECT_EQ(0, a);
    ASSERT_EQ(0, kssim_camera_register_write(camera, KSSIM_CHIP_ASIC, 0x20, 0x10));
    EXPECT_EQ(0, ksGetCameraCMOSSwapMode(handle_, &a));
    EXPECT_EQ(1, a);
    unsigned int resets = 0;
    EXPECT_EQ(0, session().getUsbResetNuvexCnt(&resets));
    EXPECT_EQ(device(camera).reset_count, resets);

    struct Op {
        const char* what;
        std::function<int()> call;
        int result;
        bool bracketed;
    };
    unsigned short value = 0;
    unsigned char byte = 0;
    // clang-format off
    const std::vector<Op> ops = {
        {"ASIC register write", [&] { return ksWriteNuvexRegisterValue(handle_, 0x90, 1); }, 0,
         true},
        {"ASIC register read", [&] { return ksReadNuvexRegisterValue(handle_, 0x90, &value); }, 0,
         true},
        {"EEPROM byte write", [&] { return ksWriteEEpromAddressValue(handle_, 0x3D01, 2); }, 0,
         true},
        {"EEPROM byte read", [&] { return ksReadEEpromAddressValue(handle_, 0x3D01, &value); },
         0, true},
        {"sensor register write", [&] { return ksWriteCmosRegisterValue(handle_, 0x3509, 3); },
         0, true},
        {"swap mode", [&] { return ksGetCameraCMOSSwapMode(handle_, &byte); }, 0, true},
        {"line trim", [&] { return ksSetLineTrim(handle_, 4, 4); }, 0, true},
        {"search range", [&] { return ksSetSearchRange(handle_, 1); }, 0, true},
        {"line offset", [&] { return ksSetLineOffset(handle_, 0.5f); }, 0, true},
        {"gain", [&] { return ksSetCameraGain(handle_, 16); }, 0, true},
        {"disparity offset", [&] { return ksSetDispOffset(handle_, 0.5f); }, 0, false},
        {"hardware info", [&] { return ksGetCameraHardwareInfo(handle_, &byte, &byte); }, 0,
         false},
        {"fill light intensity", [&] { return ksSetFillLightIntensity(handle_, 5); }, 0, false},
        {"fill light mode", [&] { return ksSetFilllightType(handle_, KS_FILLLIGHT_TYPE_CTRL_MODE_1); },
         0, false},
        {"trigger role", [&] { return session().setCamTriggerSlave(); }, 0, false},
        {"FPGA register write", [&] { return ksWriteFpgaRegisterValue(handle_, 0x40, 1); }, -1,
         false},
        {"FPGA register read", [&] { return ksReadFpgaRegisterValue(handle_, 0x40, &value); }, -1,
         false},
        {"sensor register read", [&] { return ksReadCmosRegisterValue(handle_, 0x3509, &value); },
         -1, false},
    };
    // clang-format on
    constexpr uint32_t kFpga = 0xC0, kRtt = 0x08;
    for (const Op& op : ops) {
        kssim_camera_traffic_clear(camera);
        int result = -1;
        printed_by([&] { result = op.call(); });
        EXPECT_EQ(op.result, result) << op.what;
        // Bracketed: RTT opened before and shut after every other device's writes.
        const auto writes = i2c_writes(camera);
        size_t opened = writes.size(), shut = writes.size(), first_other = writes.size(),
               last_other = 0;
        for (size_t i = 0; i < writes.size(); ++i) {
            const bool rtt = writes[i][0] == kFpga && writes[i][1] == kRtt;
            if (rtt && writes[i][2] == 0 && opened == writes.size()) opened = i;
            if (rtt && writes[i][2] == 1) shut = i;
            if (writes[i][0] != kFpga) {
                first_other = std::min(first_other, i);
                last_other = i;
            }
        }
        const bool both = opened < writes.size() && shut < writes.size();
        EXPECT_EQ(op.bracketed, both && opened < first_other &&
                                    (first_other == writes.size() || last_other < shut))
            << op.what;
        if (!op.bracketed) {
            EXPECT_EQ(writes.size(), opened) << op.what;
        }
    }
    EXPECT_EQ(2, value & 0xFF);  // the EEPROM byte written above

    // The unsupported accesses say so.
    int write = 0, read = 0;
    const std::string printed = printed_by([&] {
        write = ksWriteFpgaRegisterValue(handle_, 0x40, 1);
        read = ksReadCmosRegisterValue(handle_, 0x3509, &value);
    });
    EXPECT_EQ(-1, write);
    EXPECT_EQ(-1, read);
    EXPECT_NE(std::string::npos, printed.find("None FPGA Module. Write Fpga Reg Failed"));
    EXPECT_NE(std::string::npos, printed.find("Unsupport\n"));
}

// How a line offset is split between the two sensors: both parts are
// non-negative, their difference is the offset and their sum a whole number
// of lines; what is not a number gives none.
TEST(LineOffsetSplit, BothPartsNonNegativeWithAWholeSum) {
    struct Split {
        float offset, left, right;
    };
    _KestraStereoCamSDK_Impl session;
    for (const Split& s :
         {Split{3.0f, 3.0f, 0.0f}, Split{5e-7f, 0.0f, 0.0f}, Split{-2.0f, 0.0f, 2.0f},
          Split{2.3f, 2.65f, 0.35f}, Split{-0.5f, 0.25f, 0.75f}, Split{kNaN, 0.0f, 0.0f},
          Split{kInf, kInf, 0.0f}, Split{-3e9f, 0.0f, 3e9f}}) {
        float left = -1, right = -1;
        session.autoAssignLineOffsetLR(s.offset, &left, &right);
        EXPECT_FLOAT_EQ(s.left, left) << s.offset;
        EXPECT_FLOAT_EQ(s.right, right) << s.offset;
    }
    v4l2test::LogCapture log(LOG_TRACE);
    float left = 0, right = 0;
    session.autoAssignLineOffsetLR(2.3f, &left, &right);
    EXPECT_EQ(1, log.count("autoAssignLR: [2.300000]->[2.300000 0.000000 0.350000]->"
                           "[2.650000 0.350000]->[2.300000]\n"));
}
