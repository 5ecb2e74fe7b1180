// Factories: registration at load, the generic get/close logic, device
// numbers, and the transports that create nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "driver/driver_cpp/source/KSEthernetCameraFactory.h"
#include "driver/driver_cpp/source/KSMIPICameraFactory.h"
#include "driver/driver_cpp/source/KSUVCCameraFactory.h"
#include "ksStereoCameraDriver.h"
#include "mock_camera.h"

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

// Tests may install a factory of their own as the UVC factory: the library's
// own is put back after.
class Factories : public ::testing::Test {
  protected:
    void TearDown() override { g_pUVCCameraFactory = library_factory_; }
    KSCameraFactory* const library_factory_ = g_pUVCCameraFactory;
};

}  // namespace

TEST_F(Factories, OneFactoryPerTransportIsRegisteredAtLoad) {
    ASSERT_NE(nullptr, g_pUVCCameraFactory);
    ASSERT_NE(nullptr, g_pMIPICameraFactory);
    ASSERT_NE(nullptr, g_pEthernetCameraFactory);
    EXPECT_EQ(typeid(KSUVCCameraFactory), typeid(*g_pUVCCameraFactory));
    EXPECT_EQ(typeid(KSMIPICameraFactory), typeid(*g_pMIPICameraFactory));
    EXPECT_EQ(typeid(KSEthernetCameraFactory), typeid(*g_pEthernetCameraFactory));
}

// Without a device session every open fails as for an absent camera, and the
// caller's handle is cleared.
TEST_F(Factories, OpensWithoutADeviceFailAndClearTheHandle) {
    const std::vector<std::pair<int, std::function<int(KSCameraAbstract**)>>> opens = {
        {-2, [](auto h) { return ksOpenMIPICameraByNumber(2, h); }},
        {-2, [](auto h) { return ksOpenMIPICameraByPath("/dev/video0", h); }},
        {-2, [](auto h) { return ksOpenEthernetCameraByPath("/dev/video0", h); }},
        {-2, [](auto h) { return ksOpenEthernetCameraByIp("192.0.2.7", h); }},
        {-2, [](auto h) { return ksOpenUVCCameraByPath("/dev/video0", h); }},
        {-2, [](auto h) { return ksOpenUVCCameraByNumber(0, h); }},
        {-2, [](auto h) { return ksOpenUVCCameraByPathCallInitCamCtrl("/dev/video0", h); }},
        {-2,
         [](auto h) { return ksOpenUVCCameraByPathCallInitKestCameraSimple("/dev/video0", h); }},
        {-1, [](auto h) { return ksOpenUVCCameraBySN(nullptr, "SN", h); }},
    };
    for (size_t i = 0; i < opens.size(); ++i) {
        KSCameraAbstract* handle = reinterpret_cast<KSCameraAbstract*>(0x1);
        EXPECT_EQ(opens[i].first, opens[i].second(&handle)) << "open #" << i;
        EXPECT_EQ(nullptr, handle) << "open #" << i;
    }

    // Argument errors are -1 whichever transport is asked.
    KSCameraAbstract* handle = nullptr;
    EXPECT_EQ(-1, ksOpenMIPICameraByPath("", &handle));
    EXPECT_EQ(-1, ksOpenEthernetCameraByIp(nullptr, &handle));
    EXPECT_EQ(-1, ksOpenUVCCameraByPath("/dev/video0", nullptr));
    EXPECT_EQ(-1, ksOpenUVCCameraByPath(nullptr, &handle));
}

TEST_F(Factories, OpenAndCloseGoThroughTheRegisteredFactory) {
    RecordingUVCFactory factory;
    g_pUVCCameraFactory = &factory;
    KSCameraAbstract* handle = reinterpret_cast<KSCameraAbstract*>(0x1);

    // Every creation failure, a "success" without a camera included, is -2;
    // the handle is cleared before the creation.
    factory.fail_with = 5;
    EXPECT_EQ(-2, ksOpenUVCCameraByPath("/dev/video9", &handle));
    EXPECT_EQ(nullptr, handle);
    factory.fail_with = 0;
    factory.leave_null = true;
    EXPECT_EQ(-2, ksOpenUVCCameraByPath("/dev/video9", &handle));
    factory.leave_null = false;

    // Device numbers up to 126 are formatted as video nodes; the public open
    // narrows the number to a byte first.
    factory.last_path.clear();
    EXPECT_EQ(-2, ksOpenUVCCameraByNumber(127, &handle));  // creation refuses with -1
    EXPECT_EQ(-1, factory.create_camera_by_number(127, &handle));
    EXPECT_TRUE(factory.last_path.empty());
    factory.fail_with = -1;
    EXPECT_EQ(-2, factory.create_camera_by_number(2, &handle));
    EXPECT_EQ("/dev/video2", factory.last_path);
    factory.fail_with = 0;
    ASSERT_EQ(0, ksOpenUVCCameraByNumber(256 + 126, &handle));
    EXPECT_EQ("/dev/video126", factory.last_path);
    ASSERT_NE(nullptr, handle);

    EXPECT_EQ(0, ksCloseCamera(&handle));
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(1, factory.destroyed);
    EXPECT_EQ(-1, ksCloseCamera(&handle));
    EXPECT_EQ(-1, ksCloseCamera(nullptr));
}

TEST_F(Factories, HandlesAfterAFailedReleaseOrCreation) {
    // A camera of an unknown transport type reaches no factory.
    NiceMock<MockCamera> stray;
    ON_CALL(stray, get_camera_type()).WillByDefault(Return(7));
    KSCameraAbstract* handle = &stray;
    EXPECT_EQ(0, ksCloseCamera(&handle));
    EXPECT_EQ(nullptr, handle);

    // One whose factory refuses to release it is left to the factory's
    // caller, but the public close forgets it.
    class StubbornFactory : public KSCameraFactory {
      public:
        int release_camera(KSCameraAbstract**) override { return -9; }
    } stubborn;
    NiceMock<MockCamera> camera;
    KSCameraAbstract* kept = &camera;
    EXPECT_EQ(-2, stubborn.close_camera(&kept));
    EXPECT_EQ(&camera, kept);
    g_pUVCCameraFactory = &stubborn;
    ON_CALL(camera, get_camera_type()).WillByDefault(Return(0));
    handle = &camera;
    EXPECT_EQ(0, ksCloseCamera(&handle));
    EXPECT_EQ(nullptr, handle);

    // Creation by address leaves the caller's pointer alone until it succeeds.
    class IpFactory : public KSCameraFactory {
      public:
        int create_camera_by_ip(const char*, KSCameraAbstract**) override { return 1; }
    } by_ip;
    EXPECT_EQ(-2, by_ip.get_camera_by_ip("10.0.0.1", &kept));
    EXPECT_EQ(&camera, kept);
    EXPECT_EQ(-1, by_ip.get_camera_by_ip("", &kept));
    EXPECT_EQ(-1, by_ip.get_camera_by_sn("SN", &kept));
}
