// Stream set-up against the virtual camera: the checks and codes of each step.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "ks_v4l2_driver/source/ks_v4l2_driver.h"
#include "tests/sim/sim_fixture.h"
#include "v4l2_test_util.h"

namespace {

class V4l2Setup : public simtest::SimTest {
  protected:
    KsY4L2Cam* open_handle(kssim_camera* camera) {
        return initY4l2DriverHandle(kssim_camera_node_path(camera, KSSIM_NODE_CAPTURE));
    }
    void inject(kssim_camera* camera, kssim_fault_kind kind, int32_t value = 0) {
        kssim_fault fault{kind, 0, 0, value};
        ASSERT_EQ(0, kssim_camera_inject_fault(camera, &fault));
    }
    static void close_handle(KsY4L2Cam* cam) {
        releaseV4l2Stream(cam);
        DestoryY4l2DriverHandle(cam);
    }
};

}  // namespace

TEST_F(V4l2Setup, PathLengthAndNodeChecks) {
    std::string long_path(128, 'a');
    testing::internal::CaptureStdout();
    EXPECT_EQ(nullptr, initY4l2DriverHandle(long_path.c_str()));
    EXPECT_EQ("[ERROR] Init Device Path Length Exceeds Maximum Size\n",
              testing::internal::GetCapturedStdout());

    // 127 characters pass the length check and fail on the missing node.
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, initY4l2DriverHandle(std::string(127, 'a').c_str()));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find(
                                     "Cannot identify '" + std::string(127, 'a') + "': 2, "));

    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, initY4l2DriverHandle("/proc/self/status"));
    EXPECT_EQ("/proc/self/status is no device\n", testing::internal::GetCapturedStderr());
}

TEST_F(V4l2Setup, DefaultsNegotiateBgr24At1280x720WithEightBuffers) {
    KsY4L2Cam* cam = open_handle(add_camera());
    ASSERT_NE(nullptr, cam);
    EXPECT_EQ(KS_STREAM_OPENED, cam->nStatus.load());
    EXPECT_EQ(20.0f, getv4l2StreamFPS(cam));
    EXPECT_EQ(45000, cam->wait_period.load());
    ASSERT_EQ(0, init_device(cam));
    EXPECT_EQ(1280, cam->width);
    EXPECT_EQ(720, cam->height);
    EXPECT_EQ(kKsPixFmtBGR24, cam->pixel_fmt);
    EXPECT_EQ(2764800u, cam->frm_size);
    EXPECT_EQ(1u, cam->buf_type);
    EXPECT_EQ(8u, cam->n_buffers);
    for (unsigned i = 0; i < 8; ++i) EXPECT_GE(cam->buffers[i].length, cam->frm_size);
    EXPECT_EQ(0, uninit_device(cam));
    EXPECT_EQ(0, releaseV4l2Stream(cam));
    EXPECT_EQ(-1, cam->fd.load());
    DestoryY4l2DriverHandle(cam);

    // Multi-planar wins when both buffer types are offered.
    cam = open_handle(add_camera([](kssim_camera_config& c) { c.planes = KSSIM_PLANES_BOTH; }));
    ASSERT_NE(nullptr, cam);
    ASSERT_EQ(0, init_device(cam));
    EXPECT_EQ(9u, cam->buf_type);
    EXPECT_EQ(8u, cam->n_buffers);
    EXPECT_EQ(0, start_capturing(cam));
    EXPECT_EQ(0, stop_capturing(cam));
    uninit_device(cam);
    close_handle(cam);
}

TEST_F(V4l2Setup, ExactlyEightBuffersAreRequired) {
    kssim_camera* camera = add_camera();
    KsY4L2Cam* cam = open_handle(camera);
    ASSERT_NE(nullptr, cam);
    inject(camera, KSSIM_FAULT_FEWER_BUFFERS, 2);
    testing::internal::CaptureStdout();
    EXPECT_EQ(-3, init_device(cam));
    EXPECT_EQ("REQBUF count unmatch: GetBufCnt 2--->Buffer Expected 8\n",
              testing::internal::GetCapturedStdout());

    // The granted buffers keep the format busy until the node is closed.
    releaseV4l2Stream(cam);
    ASSERT_EQ(0, open_device(cam));
    inject(camera, KSSIM_FAULT_FEWER_BUFFERS, 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(-3, init_device(cam));
    EXPECT_EQ(std::string("Insufficient buffer memory on ") + cam->dev_name + "\n",
              testing::internal::GetCapturedStdout());
    close_handle(cam);
}

TEST_F(V4l2Setup, FormatFailuresReturnTheirCodes) {
    kssim_camera* camera = add_camera();
    KsY4L2Cam* cam = open_handle(camera);
    ASSERT_NE(nullptr, cam);

    inject(camera, KSSIM_FAULT_QUERYCAP_FAIL);
    EXPECT_EQ(-1, init_device(cam));
    kssim_camera_clear_fault(camera, KSSIM_FAULT_QUERYCAP_FAIL);

    inject(camera, KSSIM_FAULT_OTHER_PIXFMT);
    testing::internal::CaptureStdout();
    EXPECT_EQ(-7, init_device(cam));
    EXPECT_EQ("Warning: pixelformat set is not effective\nBefore 33524742\nAfter 56595559\n",
              testing::internal::GetCapturedStdout());
    kssim_camera_clear_fault(camera, KSSIM_FAULT_OTHER_PIXFMT);

    // A read-back failure leaves the node open; a refused format closes it.
    inject(camera, KSSIM_FAULT_G_FMT_FAIL);
    testing::internal::CaptureStderr();
    EXPECT_EQ(-6, init_device(cam));
    EXPECT_EQ("Unable to set format\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(KS_STREAM_OPENED, cam->nStatus.load());
    kssim_camera_clear_fault(camera, KSSIM_FAULT_G_FMT_FAIL);

    inject(camera, KSSIM_FAULT_S_FMT_FAIL);
    testing::internal::CaptureStdout();
    EXPECT_EQ(-5, init_device(cam));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("Input/output error"));
    EXPECT_EQ(KS_STREAM_CLOSED, cam->nStatus.load());
    EXPECT_EQ(-1, cam->fd.load());
    DestoryY4l2DriverHandle(cam);
}

TEST_F(V4l2Setup, ReleaseOfAnOpenedHandleClosesItOnce) {
    KsY4L2Cam* cam = open_handle(add_camera());
    ASSERT_NE(nullptr, cam);
    v4l2test::LogCapture log(LOG_DEBUG);
    EXPECT_EQ(0, releaseV4l2Stream(cam));
    EXPECT_EQ(0, releaseV4l2Stream(cam));
    std::string text = log.text();
    EXPECT_NE(std::string::npos, text.find("Stream already shutdown 100\n"));
    EXPECT_NE(std::string::npos, text.find("Stream already shutdown 0\n"));
    EXPECT_NE(std::string::npos, text.find("Device already closed\n"));
    EXPECT_EQ(0, releaseV4l2Stream(nullptr));
    cam->nStatus = 123;
    EXPECT_EQ(-1, releaseV4l2Stream(cam));
    DestoryY4l2DriverHandle(cam);
}

TEST(V4l2Accessors, TimingFollowsTheFrameRateAndNullHandlesAreHarmless) {
    KsY4L2Cam cam{};
    const int timing[][4] = {{20, 45000, 0, 300000}, {5, 180000, 1, 0}, {0, 1800000, 10, 0}};
    for (const auto& t : timing) {  // fps (0: one half), wait period, select time-out
        ASSERT_EQ(0, setV4l2StreamFPS(&cam, t[0] == 0 ? 0.5f : float(t[0])));
        EXPECT_EQ(t[1], cam.wait_period.load());
        EXPECT_EQ(t[2], cam.timeout_sec.load());
        EXPECT_EQ(t[3], cam.timeout_usec.load());
    }

    // The measured rate is handed out from the 51st frame on.
    double fps = 1.0;
    cam.real_time_fps = 14.5;
    cam.frame_count = 50;
    EXPECT_EQ(-1, ksV4l2GetRealTimeFPS(&cam, &fps));
    EXPECT_EQ(0.0, fps);
    cam.frame_count = 51;
    EXPECT_EQ(0, ksV4l2GetRealTimeFPS(&cam, &fps));
    EXPECT_EQ(14.5, fps);

    v4l2test::LogCapture log(LOG_WARN);
    EXPECT_EQ(-1, setV4l2StreamFPS(nullptr, 20.0f));
    EXPECT_EQ(0.0f, getv4l2StreamFPS(nullptr));
    EXPECT_EQ(-1, setVideoSyncIdAddress(nullptr, nullptr));
    EXPECT_EQ(-1, ksV4l2SetDisparityOffset(nullptr, 1));
    EXPECT_EQ(0, ksV4l2GetDisparityOffset(nullptr));
    EXPECT_EQ(-1, ksV4l2SetSearchRangeOffset(nullptr, 1));
    EXPECT_EQ(0, ksV4l2GetRangeOffset(nullptr));
    EXPECT_EQ(-2, ksV4l2GetRealTimeFPS(nullptr, &fps));
    EXPECT_EQ(8, log.count("Empty stream handle\n"));
}

TEST_F(V4l2Setup, BuffersShorterThanTheFrameAreDroppedNotRead) {
    // The camera adjusts an unsupported size to one it offers, so its buffers
    // are smaller than the frame the handle expects. A gentle warp: under the
    // thread sanitizer frames must still come within the select time-out.
    ASSERT_EQ(0, kssim_world_set_warp(world_, 2.0));
    KsY4L2Cam* cam = open_handle(add_camera());
    ASSERT_NE(nullptr, cam);
    setV4l2StreamResolution(cam, 1920, 1080);
    v4l2test::LogCapture log(LOG_WARN);
    ASSERT_EQ(0, initV4l2Stream(cam));
    EXPECT_EQ(1920u * 1080u * 3u, cam->frm_size);
    for (int i = 0; i < 200 && log.count("Short frame buffer dropped") < 3; ++i)
        ks_sys_usleep(20000);
    EXPECT_GE(log.count("Short frame buffer dropped: 2764800 of 6220800 bytes"), 3);
    EXPECT_EQ(-1, cam->frame_ring->latest.load());  // nothing reached the ring
    close_handle(cam);
}

namespace {

// A device whose dequeue hands back a buffer index that was never mapped.
int bogus_index_ioctl(int fd, unsigned long request, void* arg) {
    if (request == VIDIOC_DQBUF) static_cast<v4l2_buffer*>(arg)->index = 12;
    return 0;
}

}  // namespace

TEST(V4l2ReadFrameDeathTest, AnUnmappedBufferIndexAbortsInEveryBuildType) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            ks_platform_ops ops = *ks_platform_default_ops();
            ops.ioctl = bogus_index_ioctl;
            ks_platform_install(&ops);
            KsY4L2Cam cam{};
            cam.buf_type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            cam.n_buffers = 8;
            read_frame(&cam);
        },
        "Assertion `buf.index < pCam->n_buffers' failed");
}
