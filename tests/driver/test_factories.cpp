// Factories: registration at load, the generic get/close logic, device
// numbers, and the transports that create nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

#include "driver/driver_cpp/source/KSCamera.h"
#include "driver/driver_cpp/source/KSEthernetCameraFactory.h"
#include "driver/driver_cpp/source/KSMIPICameraFactory.h"
#include "driver/driver_cpp/source/KSUVCCameraFactory.h"
#include "ksStereoCameraDriver.h"
#include "mock_camera.h"
#include "tests/support/stub_camera.h"

using ::testing::NiceMock;
using ::testing::Return;

namespace {

// A UVC factory whose creation hands out a mock camera (or fails) and
// remembers the path it was asked for.
class RecordingUVCFactory : public KSUVCCameraFactory {
  public:
    int create_camera_by_path(const char* path, KSCameraAbstract** out) override {
        last_path = path;
        if (fail_with != 0) return fail_with;
        if (leave_null) return 0;
        auto* camera = new NiceMock<MockCamera>;
        ON_CALL(*camera, get_camera_type()).WillByDefault(Return(0));
        camera->on_destroy = [this] { ++destroyed; };
        *out = camera;
        return 0;
    }
    std::string last_path;
    int fail_with = 0;
    bool leave_null = false;
    int destroyed = 0;
};

// Installs a test factory as the UVC factory for one test, then puts the
// library's own back.
class UVCFactoryOverride {
  public:
    explicit UVCFactoryOverride(KSCameraFactory* f) : saved_(g_pUVCCameraFactory) {
        g_pUVCCameraFactory = f;
    }
    ~UVCFactoryOverride() { g_pUVCCameraFactory = saved_; }

  private:
    KSCameraFactory* saved_;
};

}  // namespace

TEST(Factories, OneFactoryPerTransportIsRegisteredAtLoad) {
    ASSERT_NE(nullptr, g_pUVCCameraFactory);
    ASSERT_NE(nullptr, g_pMIPICameraFactory);
    ASSERT_NE(nullptr, g_pEthernetCameraFactory);
    EXPECT_EQ(typeid(KSUVCCameraFactory), typeid(*g_pUVCCameraFactory));
    EXPECT_EQ(typeid(KSMIPICameraFactory), typeid(*g_pMIPICameraFactory));
    EXPECT_EQ(typeid(KSEthernetCameraFactory), typeid(*g_pEthernetCameraFactory));

    // A factory registers itself for its lifetime and clears the pointer after.
    KSCameraFactory* library_factory = g_pMIPICameraFactory;
    {
        KSMIPICameraFactory another;
        EXPECT_EQ(&another, g_pMIPICameraFactory);
    }
    EXPECT_EQ(nullptr, g_pMIPICameraFactory);
    g_pMIPICameraFactory = library_factory;
}

TEST(Factories, TransportsWithoutCamerasRefuseEveryOpen) {
    KSCameraAbstract* handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenMIPICameraByNumber(2, &handle));
    EXPECT_EQ(nullptr, handle);
    handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenMIPICameraByPath("/dev/video0", &handle));
    EXPECT_EQ(nullptr, handle);
    handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenEthernetCameraByPath("/dev/video0", &handle));
    EXPECT_EQ(nullptr, handle);
    handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenEthernetCameraByIp("192.0.2.7", &handle));
    EXPECT_EQ(nullptr, handle);

    // Argument errors are -1 whichever transport is asked.
    EXPECT_EQ(-1, ksOpenMIPICameraByPath("", &handle));
    EXPECT_EQ(-1, ksOpenEthernetCameraByIp(nullptr, &handle));
    EXPECT_EQ(-1, ksOpenUVCCameraByPath("/dev/video0", nullptr));
    EXPECT_EQ(-1, ksOpenUVCCameraByPath(nullptr, &handle));
}

TEST(Factories, GetByPathReportsEveryCreationFailureAsMinusTwo) {
    RecordingUVCFactory factory;
    KSCameraAbstract* camera = reinterpret_cast<KSCameraAbstract*>(0x1);

    factory.fail_with = 5;
    EXPECT_EQ(-2, factory.get_camera_by_path("/dev/video4", &camera));
    EXPECT_EQ(nullptr, camera);  // cleared before the creation

    factory.fail_with = 0;
    factory.leave_null = true;  // "success" without a camera
    EXPECT_EQ(-2, factory.get_camera_by_path("/dev/video4", &camera));

    factory.leave_null = false;
    ASSERT_EQ(0, factory.get_camera_by_path("/dev/video4", &camera));
    ASSERT_NE(nullptr, camera);
    EXPECT_EQ(0, factory.close_camera(&camera));
    EXPECT_EQ(nullptr, camera);
    EXPECT_EQ(1, factory.destroyed);
    EXPECT_EQ(-1, factory.close_camera(&camera));
    EXPECT_EQ(-1, factory.close_camera(nullptr));
}

TEST(Factories, DeviceNumbersUpTo126AreFormattedAsVideoNodes) {
    RecordingUVCFactory factory;
    KSCameraAbstract* camera = nullptr;
    EXPECT_EQ(-2, factory.get_camera_by_number(127, &camera));  // creation refuses with -1
    EXPECT_EQ(-1, factory.create_camera_by_number(127, &camera));
    EXPECT_TRUE(factory.last_path.empty());

    ASSERT_EQ(0, factory.get_camera_by_number(126, &camera));
    EXPECT_EQ("/dev/video126", factory.last_path);
    EXPECT_EQ(0, factory.close_camera(&camera));

    factory.fail_with = -1;
    EXPECT_EQ(-2, factory.create_camera_by_number(2, &camera));
    EXPECT_EQ("/dev/video2", factory.last_path);
}

TEST(Factories, PublicOpenAndCloseGoThroughTheRegisteredFactory) {
    RecordingUVCFactory factory;
    UVCFactoryOverride use(&factory);

    // The number is narrowed to a byte before the factory sees it.
    KSCameraAbstract* handle = nullptr;
    ASSERT_EQ(0, ksOpenUVCCameraByNumber(256 + 3, &handle));
    EXPECT_EQ("/dev/video3", factory.last_path);
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(0, ksCloseCamera(&handle));
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(1, factory.destroyed);
    EXPECT_EQ(-1, ksCloseCamera(&handle));
    EXPECT_EQ(-1, ksCloseCamera(nullptr));

    factory.fail_with = 3;
    handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenUVCCameraByPath("/dev/video9", &handle));
    EXPECT_EQ(nullptr, handle);
}

TEST(Factories, CloseForgetsTheHandleEvenWhenTheFactoryFails) {
    // A camera of an unknown transport type reaches no factory; one whose
    // factory refuses to release it is still forgotten by the caller.
    auto* stray = new NiceMock<MockCamera>;
    ON_CALL(*stray, get_camera_type()).WillByDefault(Return(7));
    KSCameraAbstract* handle = stray;
    EXPECT_EQ(0, ksCloseCamera(&handle));
    EXPECT_EQ(nullptr, handle);
    delete stray;

    class StubbornFactory : public KSCameraFactory {
      public:
        int release_camera(KSCameraAbstract**) override { return -9; }
    } stubborn;
    auto* camera = new NiceMock<MockCamera>;
    KSCameraAbstract* kept = camera;
    EXPECT_EQ(-2, stubborn.close_camera(&kept));
    EXPECT_EQ(camera, kept);  // untouched when the release fails

    UVCFactoryOverride use(&stubborn);
    ON_CALL(*camera, get_camera_type()).WillByDefault(Return(0));
    handle = camera;
    EXPECT_EQ(0, ksCloseCamera(&handle));
    EXPECT_EQ(nullptr, handle);
    delete camera;
}

TEST(Factories, GetByIpLeavesTheCallersPointerUntilSuccess) {
    class IpFactory : public KSCameraFactory {
      public:
        int create_camera_by_ip(const char*, KSCameraAbstract**) override { return 1; }
    } factory;
    KSCameraAbstract* marker = reinterpret_cast<KSCameraAbstract*>(0x10);
    KSCameraAbstract* out = marker;
    EXPECT_EQ(-2, factory.get_camera_by_ip("10.0.0.1", &out));
    EXPECT_EQ(marker, out);
    EXPECT_EQ(-1, factory.get_camera_by_ip("", &out));
    EXPECT_EQ(-1, factory.get_camera_by_sn("SN", &out));
}

TEST(Factories, UvcOpensFailAsForAnAbsentDeviceUntilASessionExists) {
    KSCameraAbstract* handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenUVCCameraByPath("/dev/video0", &handle));
    EXPECT_EQ(nullptr, handle);
    handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenUVCCameraByNumber(0, &handle));
    EXPECT_EQ(nullptr, handle);
    handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenUVCCameraByPathCallInitCamCtrl("/dev/video0", &handle));
    EXPECT_EQ(nullptr, handle);
    handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-2, ksOpenUVCCameraByPathCallInitKestCameraSimple("/dev/video0", &handle));
    EXPECT_EQ(nullptr, handle);
    handle = reinterpret_cast<KSCameraAbstract*>(0x1);
    EXPECT_EQ(-1, ksOpenUVCCameraBySN(nullptr, "SN", &handle));
    EXPECT_EQ(nullptr, handle);
}

// Whatever the wrappers report below comes from KSCamera's defaults: the
// stubbed transport operations answer 0.
using BareCamera = StubTransportCamera;

TEST(Factories, BaseCameraSupportsNothingButAnswersIsSuspend) {
    BareCamera camera;
    EXPECT_FALSE(camera.is_suspend());
    EXPECT_EQ(-1, camera.get_camera_type());
    EXPECT_EQ(-1, camera.set_video_mode(KS_VIDEO_MODE_RGBD));
    EXPECT_EQ(-1, camera.suspend_camera());
    EXPECT_EQ(-1, camera.get_exposure(nullptr));
    EXPECT_EQ(-1, camera.read_nuvex_register_value(0, nullptr));
    EXPECT_EQ(-1, camera.auto_optimize_disparity(1.0f));

    // Through the wrappers: a running camera resumes as a no-op, everything
    // else is reported as a failed operation.
    EXPECT_EQ(0, ksResumeCamera(&camera));
    EXPECT_EQ(-2, ksSuspendCamera(&camera));
    unsigned short width = 0;
    unsigned short height = 0;
    EXPECT_EQ(-2, ksGetVideoResolution(&camera, &width, &height));
    EXPECT_EQ(-2, ksSetSearchRange(&camera, 3));
}
