// Frames of a streaming virtual camera and what the tests compare them with:
// waits on the virtual clock, copies of whole frames, distances against the
// scene's ground truth, and the writes the camera received.
#ifndef KS_TEST_STREAM_CHECKS_H
#define KS_TEST_STREAM_CHECKS_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "ksStereoCameraDriver.h"
#include "session_fixture.h"
#include "sim/kssim.h"

namespace streamtest {

// Channel codes that ksGetImageChannelFromSrcData returns.
constexpr int kOriginCode = 0;
constexpr int kRectifiedCode = 2;
constexpr int kRgbdCode = 5;
constexpr int kOriginDisparityCode = 10;

struct Frame {
    unsigned long id = 0;
    std::vector<unsigned char> bytes;  // a copy of the whole source frame
    unsigned char* data() { return bytes.data(); }
};

// The next frame whose channel is `code`, copied (the ring slot is reused
// after eight frames); an empty copy when none came within the bound.
inline Frame frame_of_channel(KSCameraAbstract* handle, int code, uint16_t width, uint16_t height,
                              double virtual_seconds = 60) {
    const int64_t deadline =
        sessiontest::virtual_now_us() + static_cast<int64_t>(virtual_seconds * 1e6);
    Frame out;
    while (sessiontest::virtual_now_us() < deadline) {
        unsigned char* frame = nullptr;
        if (ksGetCurrentFrame(handle, &out.id, &frame) != 0) continue;
        unsigned char channel = 0;
        if (ksGetImageChannelFromSrcData(handle, frame, &channel) != code) continue;
        out.bytes.assign(frame, frame + static_cast<size_t>(width) * height * 3);
        return out;
    }
    ADD_FAILURE() << "no frame of channel " << code << " arrived";
    return out;
}

// Distance in mm of a disparity sample (1/32 pixel).
inline double distance_of(uint16_t disparity, float bxf) {
    return 32.0 * static_cast<double>(bxf) / disparity;
}

// Relative distance errors against the ground truth over a grid of the
// image, for the samples that `disparity_at` gives (0 = none).
struct DistanceErrors {
    int samples = 0;
    int valid = 0;
    double sum = 0;
    double worst = 0;
    double mean() const { return valid > 0 ? sum / valid : 1e9; }
};

template <typename At>
DistanceErrors distance_errors(kssim_camera* camera, float bxf, uint16_t width, uint16_t height,
                               At disparity_at, int step = 8) {
    DistanceErrors e;
    for (int y = 16; y < height - 16; y += step) {
        for (int x = 32; x < width - 32; x += step) {
            double truth = 0;
            if (kssim_camera_true_distance(camera, x, y, &truth) != 0 || truth <= 0) continue;
            ++e.samples;
            const uint16_t d = disparity_at(x, y);
            if (d == 0) continue;
            const double err = std::fabs(distance_of(d, bxf) - truth) / truth;
            ++e.valid;
            e.sum += err;
            if (err > e.worst) e.worst = err;
        }
    }
    return e;
}

// Requests that write to the camera's flash or EEPROM: flash page writes,
// sector erases, EEPROM updates from flash, and I2C writes to the EEPROM.
inline size_t writes_in_traffic(kssim_camera* camera) {
    constexpr uint32_t kFlashWrite = 3, kFlashErase = 4, kEepromUpdate = 5, kI2cWrite = 7;
    constexpr uint32_t kEepromDevice = 0xA0;
    size_t n = 0;
    for (size_t i = 0; i < kssim_camera_traffic_count(camera); ++i) {
        kssim_message m{};
        if (kssim_camera_traffic_get(camera, i, &m) != 0 || m.direction != KSSIM_REQUEST) continue;
        if (m.command == kFlashWrite || m.command == kFlashErase || m.command == kEepromUpdate ||
            (m.command == kI2cWrite && (m.parameter >> 16) == kEepromDevice))
            ++n;
    }
    return n;
}

inline std::vector<uint8_t> eeprom(kssim_camera* camera, uint32_t addr, size_t len) {
    std::vector<uint8_t> bytes(len);
    EXPECT_EQ(0, kssim_camera_eeprom_read(camera, addr, bytes.data(), len));
    return bytes;
}

inline std::vector<uint8_t> flash(kssim_camera* camera, uint32_t addr, size_t len) {
    std::vector<uint8_t> bytes(len);
    EXPECT_EQ(0, kssim_camera_flash_read(camera, addr, bytes.data(), len));
    return bytes;
}

// Flash address of EPR slot n.
inline uint32_t flash_slot(uint32_t n) {
    return (n + 101) << 12;
}

// An EPR image the virtual ASIC accepts.
inline std::vector<uint8_t> epr_image(uint16_t width, uint16_t height, double bxf,
                                      double baseline) {
    std::vector<uint8_t> image(KSSIM_EPR_SIZE);
    EXPECT_EQ(0, kssim_epr_build(image.data(), width, height, bxf, baseline, 7));
    return image;
}

}  // namespace streamtest

#endif
