// Opening, suspending, resuming and closing a virtual camera through the
// public interface, and what each bring-up does with a faulty device.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/ks_test_helpers.h"
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"
#include "session_fixture.h"
#include "v4l2/v4l2_test_util.h"

using sessiontest::SessionTest;
using sessiontest::virtual_now_us;

namespace {

// Requests of one protocol command in the camera's traffic record.
size_t requests_of(kssim_camera* camera, uint32_t command) {
    size_t n = 0;
    for (size_t i = 0; i < kssim_camera_traffic_count(camera); ++i) {
        kssim_message m{};
        if (kssim_camera_traffic_get(camera, i, &m) == 0 && m.direction == KSSIM_REQUEST &&
            m.command == command)
            ++n;
    }
    return n;
}

constexpr uint32_t kImuCommand = 13;

}  // namespace

TEST_F(SessionTest, OpensByPathAndNumberStreamsSuspendsResumesAndCloses) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ASSERT_NE(nullptr, handle_);
    EXPECT_STREQ("1.7.6.303", ksGetImplLevelVersion(handle_));
    EXPECT_EQ(10, take_frames(handle_, 10));

    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(0, ksSuspendCamera(handle_));
        EXPECT_NE(std::string::npos, out.text().find("Set CameraStandby Success."));
    }
    kssim_device_state state{};
    ASSERT_EQ(0, kssim_camera_device_state(camera, &state));
    EXPECT_FALSE(state.sensors_streaming);
    unsigned long id = 0;
    unsigned char* frame = reinterpret_cast<unsigned char*>(&id);
    EXPECT_EQ(-2, ksGetCurrentFrame(handle_, &id, &frame));
    EXPECT_EQ(nullptr, frame);

    EXPECT_EQ(0, ksResumeCamera(handle_));
    EXPECT_EQ(10, take_frames(handle_, 10));
    EXPECT_EQ(0, ksCloseCamera(&handle_));
    EXPECT_EQ(nullptr, handle_);
    EXPECT_EQ(-1, ksCloseCamera(&handle_));

    // The same node by its number.
    const int number = atoi(node(camera) + strlen("/dev/video"));
    ASSERT_EQ(0, ksOpenUVCCameraByNumber(number, &handle_));
    EXPECT_EQ(5, take_frames(handle_, 5));
}

// The control-only open streams nothing but powers the pipeline; the simple
// open streams without a device check and without an IMU receiver.
TEST_F(SessionTest, ControlOnlyAndSimpleOpens) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPathCallInitCamCtrl(node(camera), &handle_));
    kssim_camera_stats stats{};
    ASSERT_EQ(0, kssim_camera_get_stats(camera, &stats));
    EXPECT_EQ(0u, stats.streaming);
    unsigned long id = 0;
    unsigned char* frame = nullptr;
    EXPECT_EQ(-2, ksGetCurrentFrame(handle_, &id, &frame));
    EXPECT_EQ(0, ksCheckNuvexChipStatus(handle_));
    {
        v4l2test::LogCapture log(LOG_DEBUG);
        ks_test::FdCapture out(1);
        EXPECT_EQ(0, ksResumeCamera(handle_));  // a new camera counts as suspended
        EXPECT_NE(std::string::npos, out.text().find("finish bringup"));
        EXPECT_EQ(1, log.count("No Stream Initialized...Skip stream bringup\n"));
    }
    ASSERT_EQ(0, kssim_camera_get_stats(camera, &stats));
    EXPECT_EQ(0u, stats.streaming);
    EXPECT_EQ(0, ksCloseCamera(&handle_));

    // A controller that never becomes ready does not hold up the simple open.
    ASSERT_EQ(0, inject(camera, KSSIM_FAULT_CONTROLLER_NOT_READY, 0));
    kssim_camera_traffic_clear(camera);
    {
        v4l2test::LogCapture log(LOG_ERROR);
        ASSERT_EQ(0, ksOpenUVCCameraByPathCallInitKestCameraSimple(node(camera), &handle_));
        EXPECT_EQ(0, log.count("Device init status failure"));
    }
    EXPECT_EQ(20, take_frames(handle_, 20));
    EXPECT_EQ(0u, requests_of(camera, kImuCommand));
    EXPECT_EQ(0, ksCloseCamera(&handle_));
}

TEST_F(SessionTest, FullOpenWaitsTenSecondsForAControllerThatIsNotReadyAndStillOpens) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, inject(camera, KSSIM_FAULT_CONTROLLER_NOT_READY, 10));
    v4l2test::LogCapture log(LOG_ERROR);
    const int64_t start = virtual_now_us();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    const int64_t waited = virtual_now_us() - start;
    EXPECT_GE(waited, 10000000);
    EXPECT_EQ(1, log.count("Device init status failure -1\n"));
    EXPECT_EQ(5, take_frames(handle_, 5));
    // The IMU receiver runs beside the stream.
    _ks_imu_data_set_s* sample = nullptr;
    EXPECT_EQ(0, ksGetIMUData(handle_, &sample));
    ASSERT_NE(nullptr, sample);
    EXPECT_GT(requests_of(camera, kImuCommand), 0u);
}

// Device faults at bring-up: the open fails only without a device or when
// the stream cannot start, and never leaves a descriptor behind.
TEST_F(SessionTest, BringUpFaults) {
    kssim_camera* camera = add_camera();
    const int descriptors = sessiontest::open_descriptors();

    EXPECT_EQ(-2, ksOpenUVCCameraByPath("/dev/video99", &handle_));
    EXPECT_EQ(nullptr, handle_);
    EXPECT_EQ(-1, ksOpenUVCCameraByPath("", &handle_));
    EXPECT_EQ(-2, ksOpenUVCCameraByNumber(127, &handle_));  // the factory refuses 127

    struct StreamFault {
        kssim_fault_kind kind;
        int32_t value;
    };
    for (StreamFault fault :
         {StreamFault{KSSIM_FAULT_S_FMT_FAIL, 0}, StreamFault{KSSIM_FAULT_FEWER_BUFFERS, 1},
          StreamFault{KSSIM_FAULT_QUERYCAP_FAIL, 0}}) {
        ASSERT_EQ(0, inject(camera, fault.kind, 0, fault.value));
        ks_test::FdCapture out(1);
        handle_ = reinterpret_cast<KSCameraAbstract*>(&fault);
        EXPECT_EQ(-2, ksOpenUVCCameraByPath(node(camera), &handle_)) << fault.kind;
        EXPECT_EQ(nullptr, handle_);
        EXPECT_NE(std::string::npos, out.text().find("Start camera stream failed")) << fault.kind;
        EXPECT_EQ(0, kssim_camera_clear_fault(camera, fault.kind));
        EXPECT_EQ(descriptors, sessiontest::open_descriptors()) << fault.kind;
    }

    // Controller faults are warnings: the camera opens and streams.
    for (kssim_fault_kind kind : {KSSIM_FAULT_INVALID_EPR, KSSIM_FAULT_I2C_REFUSE_ASIC}) {
        ASSERT_EQ(0, inject(camera, kind, kind == KSSIM_FAULT_INVALID_EPR ? 0 : 3));
        ks_test::FdCapture out(1);
        ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_)) << kind;
        EXPECT_EQ(3, take_frames(handle_, 3)) << kind;
        EXPECT_EQ(0, ksCloseCamera(&handle_));
        const std::string printed = out.text();
        EXPECT_NE(std::string::npos, printed.find("Warning: ")) << kind << printed;
        EXPECT_EQ(0, kssim_camera_clear_fault(camera, kind));
    }
    EXPECT_EQ(descriptors, sessiontest::open_descriptors());
}

TEST_F(SessionTest, UnpluggedWhileOpenThenClosed) {
    kssim_camera* camera = add_camera();
    const int descriptors = sessiontest::open_descriptors();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    EXPECT_EQ(3, take_frames(handle_, 3));
    ASSERT_EQ(0, kssim_camera_unplug(camera));
    unsigned long id = 0;
    unsigned char* frame = nullptr;
    // The capture thread notices the loss; the consumer then gets -2 at once.
    const int64_t deadline = virtual_now_us() + 60000000;
    int result = 0;
    while (result == 0 && virtual_now_us() < deadline)
        result = ksGetCurrentFrame(handle_, &id, &frame);
    EXPECT_EQ(-2, result);
    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(0, ksCloseCamera(&handle_));
    }
    EXPECT_EQ(descriptors, sessiontest::open_descriptors());
}

TEST_F(SessionTest, SessionOwnsItsControlHandleOnceAndANeverOpenedSessionIsSilent) {
    kssim_camera* camera = add_camera();
    {
        _KestraStereoCamSDK_Impl session;
        ASSERT_EQ(0, session.initCamCtrl(node(camera)));
        _struct_ks_ctrl_device* first = session.ctrlHandle();
        ks_test::FdCapture out(1);
        EXPECT_EQ(0, session.initCamCtrl(node(camera)));
        EXPECT_EQ("ctrl module handle is not null\n", out.text());
        EXPECT_EQ(first, session.ctrlHandle());
        EXPECT_EQ(-1, session.getVideoDevicefd());
        EXPECT_FALSE(session.isReady());
    }
    v4l2test::LogCapture log(LOG_TRACE);
    ks_test::FdCapture out(1);
    { _KestraStereoCamSDK_Impl never_opened; }
    EXPECT_EQ("", out.text());
    EXPECT_EQ("", log.text());
}
