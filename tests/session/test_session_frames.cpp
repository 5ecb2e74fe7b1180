// Images of every video mode cut from the virtual camera's frames and
// compared with its scene, and what the image getters do with frames and
// sessions they cannot use.
#include <cstring>
#include <string>
#include <vector>

#include "common/ks_test_helpers.h"
#include "driver/driver_cpp/source/KSUVCCamera.h"
#include "session_fixture.h"
#include "sim/frame_decoder.h"
#include "stream_checks.h"
#include "v4l2/v4l2_test_util.h"

using sessiontest::SessionTest;
using namespace streamtest;

namespace {

constexpr uint16_t kWidth = 1280;
constexpr uint16_t kHeight = 720;

void room(kssim_camera_config& cfg) {
    cfg.scene.kind = KSSIM_SCENE_ROOM;
    cfg.scene.distance_mm = 3000;
}

// Mean absolute difference between image A at (x, y) and image B at
// (x + sign x disparity, y), over the centre of the image; sign 0 compares
// the images unshifted. A stereo pair matches at one of the two signs.
template <typename A, typename B>
double pair_difference(kssim_camera* camera, A a, B b, int sign) {
    double sum = 0;
    int n = 0;
    for (int y = kHeight / 4; y < kHeight * 3 / 4; y += 4) {
        for (int x = kWidth / 4; x < kWidth * 3 / 4; x += 2) {
            uint16_t d = 0;
            if (kssim_camera_true_disparity(camera, x, y, &d) != 0 || d == 0) continue;
            const int xb = x + sign * static_cast<int>(std::lround(d / 32.0));
            if (xb < 0 || xb >= kWidth) continue;
            sum += std::abs(a(x, y) - b(xb, y));
            ++n;
        }
    }
    return n > 0 ? sum / n : 1e9;
}

template <typename A, typename B>
void expect_stereo_pair(kssim_camera* camera, A a, B b) {
    const double unshifted = pair_difference(camera, a, b, 0);
    const double matched =
        std::min(pair_difference(camera, a, b, 1), pair_difference(camera, a, b, -1));
    EXPECT_LT(matched, unshifted / 2) << "the two images are not one scene seen from two sides";
}

void expect_mode(KSCameraAbstract* handle, _ks_video_mode_e mode) {
    _ks_video_mode_e reported = KS_VIDEO_MODE_RGBD;
    ASSERT_EQ(0, ksSetVideoMode(handle, mode));
    ASSERT_EQ(0, ksGetVideoMode(handle, &reported));
    EXPECT_EQ(mode, reported);
}

// Three frames of the channel through a timestamped getter: ids and
// timestamps grow.
template <typename Get>
void expect_growing_ids_and_timestamps(KSCameraAbstract* handle, int code, Get get) {
    unsigned long last_id = 0, last_ts = 0;
    for (int i = 0; i < 3; ++i) {
        Frame f = frame_of_channel(handle, code, kWidth, kHeight);
        ASSERT_FALSE(f.bytes.empty());
        unsigned char* a = nullptr;
        unsigned char* b = nullptr;
        unsigned long ts = 0;
        ASSERT_EQ(0, get(handle, f.data(), &a, &b, &ts));
        EXPECT_NE(nullptr, a);
        EXPECT_NE(nullptr, b);
        if (i > 0) {
            EXPECT_GT(f.id, last_id);
            EXPECT_GT(ts, last_ts);
        }
        last_id = f.id;
        last_ts = ts;
    }
}

}  // namespace

// Mode 5 gives the colour image and the camera's disparity, whose distances
// are the scene's; modes 0 and 2 give the two sensors' views of the scene.
TEST_F(SessionTest, ImageAndDisparityAndStereoPairModes) {
    kssim_camera* camera = add_camera(room);
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    float bxf = 0, base = 0;
    ASSERT_EQ(0, ksGetBxfAndBase(handle_, &bxf, &base));
    EXPECT_FLOAT_EQ(35000.0f, bxf);
    EXPECT_FLOAT_EQ(50.0f, base);

    expect_mode(handle_, KS_VIDEO_MODE_RGBD);
    Frame f = frame_of_channel(handle_, kRgbdCode, kWidth, kHeight);
    ASSERT_FALSE(f.bytes.empty());
    unsigned char* disparity = nullptr;
    unsigned char* image = nullptr;
    ASSERT_EQ(0, ksGetRGBDImage(handle_, f.data(), &disparity, &image));
    const auto* d = reinterpret_cast<const uint16_t*>(disparity);
    const DistanceErrors rgbd = distance_errors(camera, bxf, kWidth, kHeight,
                                                [&](int x, int y) { return d[y * kWidth + x]; });
    EXPECT_GT(rgbd.valid, rgbd.samples * 9 / 10);
    EXPECT_LT(rgbd.worst, 0.01);
    // The image is this frame's image A.
    const frame_test::Frame source(f.data(), kWidth, kHeight);
    for (int y = 1; y < kHeight; y += 97)
        for (int x = 0; x < kWidth; x += 131) EXPECT_EQ(source.at(x, y).y, image[y * kWidth + x]);
    unsigned short* meta = nullptr;
    ASSERT_EQ(0, ksGetLastestMetaDataPointer(handle_, &meta));
    ASSERT_NE(nullptr, meta);
    EXPECT_EQ(0xACE, meta[0]);
    EXPECT_EQ(f.id, source.frame_id());
    expect_growing_ids_and_timestamps(handle_, kRgbdCode, ksGetRGBDImageWithTimestamp);

    expect_mode(handle_, KS_VIDEO_MODE_STEREO_ORIGIN);
    f = frame_of_channel(handle_, kOriginCode, kWidth, kHeight);
    ASSERT_FALSE(f.bytes.empty());
    unsigned char* left = nullptr;
    unsigned char* right = nullptr;
    ASSERT_EQ(0, ksGetRawImage(handle_, f.data(), &left, &right));
    const auto* a16 = reinterpret_cast<const uint16_t*>(left);
    const auto* b16 = reinterpret_cast<const uint16_t*>(right);
    expect_stereo_pair(
        camera, [&](int x, int y) { return a16[y * kWidth + x] >> 4; },
        [&](int x, int y) { return b16[y * kWidth + x] >> 4; });
    // A colour-and-disparity getter in a stereo mode hands out nothing.
    EXPECT_EQ(-2, ksGetRGBDImage(handle_, f.data(), &disparity, &image));
    EXPECT_EQ(nullptr, disparity);
    EXPECT_EQ(nullptr, image);
    expect_growing_ids_and_timestamps(handle_, kOriginCode, ksGetRawImageWithTimestamp);

    expect_mode(handle_, KS_VIDEO_MODE_STEREO_RECTIFIED);
    f = frame_of_channel(handle_, kRectifiedCode, kWidth, kHeight);
    ASSERT_FALSE(f.bytes.empty());
    ASSERT_EQ(0, ksGetRectifiedImage(handle_, f.data(), &left, &right));
    expect_stereo_pair(
        camera, [&](int x, int y) { return static_cast<int>(right[y * kWidth + x]); },
        [&](int x, int y) { return static_cast<int>(left[y * kWidth + x]); });
    expect_growing_ids_and_timestamps(handle_, kRectifiedCode, ksGetRectifiedImageWithTimestamp);

    // The measured rate is reported once enough frames have been counted.
    double fps = 0;
    const int64_t deadline = sessiontest::virtual_now_us() + 60000000;
    while (ksGetRealTimeFPS(handle_, &fps) != 0 && sessiontest::virtual_now_us() < deadline)
        take_frames(handle_, 1);
    EXPECT_GT(fps, 0);
}

// Modes 10 and 11 stream the origin disparity and densify or filter it on
// the host: the maps come back registered to the image, at least as close to
// the scene's distances as the camera's raw map.
TEST_F(SessionTest, DenseAndFilteredDisparityModes) {
    kssim_camera* camera = add_camera(room);
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    float bxf = 0, base = 0;
    ASSERT_EQ(0, ksGetBxfAndBase(handle_, &bxf, &base));

    for (_ks_video_mode_e mode :
         {KS_VIDEO_MODE_DENSE_DISPARITY, KS_VIDEO_MODE_FILTERED_DISPARITY}) {
        SCOPED_TRACE(mode);
        expect_mode(handle_, mode);
        Frame f = frame_of_channel(handle_, kOriginDisparityCode, kWidth, kHeight);
        ASSERT_FALSE(f.bytes.empty());
        // The raw map as the camera sends it: the disparity of image pixel
        // (x, y) in source line y + 6, column x + 22.
        const frame_test::Frame source(f.data(), kWidth, kHeight);
        const DistanceErrors raw = distance_errors(camera, bxf, kWidth, kHeight, [&](int x, int y) {
            return x + 22 < kWidth && y + 6 < kHeight ? source.at(x + 22, y + 6).v : uint16_t{0};
        });
        unsigned char* disparity = nullptr;
        unsigned char* image = nullptr;
        ASSERT_EQ(0, ksGetRGBDImage(handle_, f.data(), &disparity, &image));
        ASSERT_NE(nullptr, image);
        const auto* d = reinterpret_cast<const uint16_t*>(disparity);
        const DistanceErrors processed = distance_errors(
            camera, bxf, kWidth, kHeight, [&](int x, int y) { return d[y * kWidth + x]; });
        EXPECT_GT(processed.valid, processed.samples / 4);
        EXPECT_LE(processed.mean(), raw.mean());
        expect_growing_ids_and_timestamps(handle_, kOriginDisparityCode,
                                          ksGetRGBDImageWithTimestamp);
    }

    // The origin-disparity channel under the image-and-disparity mode is
    // neither mode 10 nor 11.
    expect_mode(handle_, KS_VIDEO_MODE_RGBD);
    ASSERT_EQ(0, ksSwitchToOriginDisparity(handle_));
    _ks_video_mode_e reported = KS_VIDEO_MODE_RGBD;
    EXPECT_EQ(-2, ksGetVideoMode(handle_, &reported));
    EXPECT_EQ(KS_VIDEO_MODE_RGBD, reported);
    EXPECT_EQ(-2, ksSetVideoMode(handle_, static_cast<_ks_video_mode_e>(3)));
}

// Frames the stream does not deliver, frames handed in without their marker,
// and a session without image buffers: codes and messages, no crash.
TEST_F(SessionTest, FramesWithoutMarkerOrStreamAndSessionsWithoutBuffers) {
    kssim_camera* camera = add_camera(room);
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    Frame good = frame_of_channel(handle_, kRgbdCode, kWidth, kHeight);
    ASSERT_FALSE(good.bytes.empty());
    auto& session = static_cast<KSUVCCamera*>(handle_)->session();

    // A stalled stream delivers nothing; the capture thread drops frames
    // without the marker; a frozen frame id gives no new frame. The session
    // reports a time-out (10) or, once the capture thread reopens the silent
    // device, a reconnection (9); the public call -2.
    for (kssim_fault_kind kind :
         {KSSIM_FAULT_STALL, KSSIM_FAULT_BAD_MARKER, KSSIM_FAULT_FROZEN_FRAME_ID}) {
        SCOPED_TRACE(kind);
        ASSERT_EQ(0, inject(camera, kind, 0));
        unsigned long id = 0, last = good.id;
        unsigned char* frame = nullptr;
        for (int i = 0; i < 10 && ksGetCurrentFrame(handle_, &id, &frame) == 0; ++i) last = id;
        EXPECT_EQ(-2, ksGetCurrentFrame(handle_, &id, &frame));
        EXPECT_EQ(nullptr, frame);
        auto session_id = static_cast<unsigned int>(last);
        unsigned char* image = nullptr;
        unsigned short* disparity = nullptr;
        const int code = session.GetNextFrame(&session_id, &image, &disparity);
        EXPECT_TRUE(code == 9 || code == 10) << code;
        ASSERT_EQ(0, kssim_camera_clear_fault(camera, kind));
        EXPECT_FALSE(frame_of_channel(handle_, kRgbdCode, kWidth, kHeight).bytes.empty());
    }

    // A frame handed in without its marker.
    std::vector<unsigned char> bad = good.bytes;
    bad[0] = bad[1] = bad[2] = 0;
    unsigned char channel = 0xFF;
    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(-1, ksGetImageChannelFromSrcData(handle_, bad.data(), &channel));
        EXPECT_EQ("Failed to find magic code in src data\n", out.text());
    }
    // The marker at the third byte moves the channel byte with it.
    bad[2] = good.bytes[0];
    bad[104] = good.bytes[102];
    EXPECT_EQ(kRgbdCode, ksGetImageChannelFromSrcData(handle_, bad.data(), &channel));
    EXPECT_EQ(0x7F, channel);
    bad[2] = 0;
    {
        v4l2test::LogCapture log(LOG_ERROR);
        unsigned char* disparity = nullptr;
        unsigned char* image = nullptr;
        unsigned long ts = 0;
        EXPECT_EQ(-50, ksGetRGBDImageWithTimestamp(handle_, bad.data(), &disparity, &image, &ts));
        EXPECT_EQ(1, log.count("Invalid Meta Data input"));
    }
    {
        ks_test::FdCapture out(1);
        unsigned char* left = nullptr;
        unsigned char* right = nullptr;
        EXPECT_EQ(0, ksGetRawImage(handle_, bad.data(), &left, &right));
        EXPECT_EQ(0, ksGetRectifiedImage(handle_, bad.data(), &left, &right));
        EXPECT_EQ("Warning: Invalid meta data\nWarning: Invalid meta data\n", out.text());
    }

    // In standby the session has no buffers: every image getter fails.
    ASSERT_EQ(0, ksSuspendCamera(handle_));
    unsigned char* a = reinterpret_cast<unsigned char*>(&channel);
    unsigned char* b = a;
    EXPECT_EQ(-2, ksGetRGBDImage(handle_, good.data(), &a, &b));
    EXPECT_EQ(-2, ksGetRawImage(handle_, good.data(), &a, &b));
    EXPECT_EQ(-2, ksGetRectifiedImage(handle_, good.data(), &a, &b));
    EXPECT_EQ(nullptr, a);
    EXPECT_EQ(nullptr, b);
    unsigned short* meta = reinterpret_cast<unsigned short*>(&channel);
    EXPECT_EQ(0, ksGetLastestMetaDataPointer(handle_, &meta));
    EXPECT_EQ(nullptr, meta);
    EXPECT_EQ(nullptr, session.getColorTable());
    ASSERT_EQ(0, ksResumeCamera(handle_));
    good = frame_of_channel(handle_, kRgbdCode, kWidth, kHeight);
    EXPECT_EQ(0, ksGetRGBDImage(handle_, good.data(), &a, &b));

    // The colour table as tabulated.
    const unsigned char* table = session.getColorTable();
    ASSERT_NE(nullptr, table);
    auto entry = [&](int e) {
        return std::vector<int>{table[3 * e], table[3 * e + 1], table[3 * e + 2]};
    };
    EXPECT_EQ((std::vector<int>{0, 0, 0}), entry(0));
    EXPECT_EQ((std::vector<int>{255, 255, 255}), entry(24));
    EXPECT_EQ((std::vector<int>{135, 135, 135}), entry(39));
    EXPECT_EQ((std::vector<int>{128, 128, 128}), entry(40));
    EXPECT_EQ((std::vector<int>{128, 128, 128}), entry(41));
    EXPECT_EQ((std::vector<int>{249, 7, 249}), entry(64));
    EXPECT_EQ((std::vector<int>{251, 0, 255}), entry(65));
    EXPECT_EQ((std::vector<int>{1, 0, 255}), entry(120));
    EXPECT_EQ((std::vector<int>{0, 254, 255}), entry(176));
    EXPECT_EQ((std::vector<int>{0, 255, 1}), entry(320));
    EXPECT_EQ((std::vector<int>{255, 255, 0}), entry(800));
    EXPECT_EQ((std::vector<int>{255, 0, 0}), entry(2048));
    EXPECT_EQ((std::vector<int>{255, 0, 0}), entry(8191));
}

// The stereo constants come from the ASIC; while it does not answer, from
// the last parsed frame, or else from a frame fetched for them.
TEST_F(SessionTest, StereoConstantsFromTheAsicTheLastFrameOrAFetchedOne) {
    kssim_camera* camera = add_camera(room);
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    auto& session = static_cast<KSUVCCamera*>(handle_)->session();
    ASSERT_EQ(0, inject(camera, KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 2));
    float bxf = 0, base = 0;
    {
        v4l2test::LogCapture log(LOG_WARN);
        ASSERT_EQ(0, ksGetBxfAndBase(handle_, &bxf, &base));
        EXPECT_EQ(1, log.count("No Meta loaded,Retriving Image data"));
    }
    EXPECT_FLOAT_EQ(35000.0f, bxf);
    EXPECT_FLOAT_EQ(50.0f, base);

    // The session's own frame getters on the same frames.
    unsigned int id = 0;
    unsigned char* image = nullptr;
    unsigned short* disparity = nullptr;
    unsigned long ts = 0;
    ASSERT_EQ(0, session.GetNextFrame(&id, &image, &disparity, &ts));
    EXPECT_NE(0u, id);
    EXPECT_NE(0u, ts);
    unsigned char channel = 0;
    {
        v4l2test::LogCapture log(LOG_DEBUG);
        ASSERT_EQ(0, ksGetBxfAndBase(handle_, &bxf, &base));
        EXPECT_EQ(1, log.count("Meta Data Has Been Loaded"));
        EXPECT_EQ(0, log.count("Retriving"));
    }
    EXPECT_FLOAT_EQ(35000.0f, bxf);
    unsigned short* own_meta = nullptr;
    unsigned short* left = nullptr;
    unsigned short* right = nullptr;
    ASSERT_EQ(0, session.GetNextRawFrame(&id, &left, &right));
    ASSERT_EQ(0, session.parseToRgbdImage(session.driverHandle()->safe_frame, &image, &disparity,
                                          &own_meta));
    ASSERT_EQ(0, session.parseImageChannelFromMeta(own_meta, &channel));
    EXPECT_EQ(0x7F, channel);
    {
        ks_test::FdCapture out(1);
        own_meta[0] = 0;
        EXPECT_EQ(-1, session.parseImageChannelFromMeta(own_meta, &channel));
        EXPECT_EQ(-50, session.frameInfoProcess(own_meta, &ts));
        EXPECT_EQ("Invalid metadata input\n", out.text());
    }

    // In standby nothing is left to read them from.
    ASSERT_EQ(0, ksSuspendCamera(handle_));
    bxf = base = 0;
    EXPECT_EQ(-2, ksGetBxfAndBase(handle_, &bxf, &base));
    EXPECT_FLOAT_EQ(-1.0f, bxf);
    EXPECT_FLOAT_EQ(-1.0f, base);
}
