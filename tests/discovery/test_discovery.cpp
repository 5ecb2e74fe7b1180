// The camera list, the look-ups by serial number and the open by serial
// number, through the public interface on a virtual world that also holds
// devices discovery must pass over.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/ks_test_helpers.h"
#include "session/session_fixture.h"
#include "sim/frame_decoder.h"
#include "v4l2/v4l2_test_util.h"

using sessiontest::SessionTest;
using sessiontest::virtual_now_us;

namespace {

constexpr const char* kSerialA = "KSA000000001";
constexpr const char* kSerialB = "KSB000000002";
constexpr const char* kSerialUsb2 = "KSUSB2000001";
constexpr int kWidth = 1280, kHeight = 720;
constexpr const char* kEmptyList = "Empty Camera list. Query camera list is required\n";

std::string by_path(kssim_camera* camera) {
    return kssim_camera_by_path_link(camera, KSSIM_NODE_CAPTURE);
}
std::string by_id(kssim_camera* camera) {
    return kssim_camera_by_id_link(camera, KSSIM_NODE_CAPTURE);
}

class Discovery : public SessionTest {
  protected:
    void TearDown() override {
        ksReleaseCameraList(list_);
        SessionTest::TearDown();
    }

    // One of our cameras looking at a wall at distance_mm.
    kssim_camera* ours(const char* serial, double distance_mm) {
        kssim_camera_config cfg;
        kssim_camera_config_init(&cfg);
        snprintf(cfg.serial, sizeof cfg.serial, "%s", serial);
        cfg.scene = {KSSIM_SCENE_WALL, distance_mm, 7};
        return kssim_world_add_camera(world_, &cfg);
    }

    // Queries into list_ (released first); stdout in out_.
    int query() {
        ksReleaseCameraList(list_);
        list_ = nullptr;
        ks_test::FdCapture out(1);
        const int result = ksQueryCameraList(&list_);
        out_ = out.text();
        return result;
    }

    // Descriptors the world's cameras hold open.
    uint32_t open_on_cameras() {
        uint32_t n = 0;
        for (uint32_t i = 0; i < kssim_world_camera_count(world_); ++i) {
            kssim_camera_stats stats{};
            EXPECT_EQ(0, kssim_camera_get_stats(kssim_world_camera(world_, i), &stats));
            n += stats.open_files;
        }
        return n;
    }

    // Median of the non-zero disparities around the centre of the next frame.
    int centre_disparity(KSCameraAbstract* handle) {
        // Generous: a loaded host can make the capture thread reopen the
        // device a few times before the first frame is kept.
        const int64_t deadline = virtual_now_us() + 600000000;
        unsigned long id = 0;
        unsigned char* frame = nullptr;
        while (ksGetCurrentFrame(handle, &id, &frame) != 0 && virtual_now_us() < deadline) {
        }
        if (frame == nullptr) return -1;
        const frame_test::Frame f(frame, kWidth, kHeight);
        EXPECT_TRUE(f.markers_ok());
        std::vector<int> values;
        for (int row = kHeight / 2 - 8; row <= kHeight / 2 + 8; ++row)
            for (int x = kWidth / 2 - 8; x <= kWidth / 2 + 8; ++x)
                if (f.disparity(x, row) != 0) values.push_back(f.disparity(x, row));
        if (values.empty()) return 0;
        std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
        return values[values.size() / 2];
    }

    static int true_centre_disparity(kssim_camera* camera) {
        uint16_t value = 0;
        EXPECT_EQ(0, kssim_camera_true_disparity(camera, kWidth / 2, kHeight / 2, &value));
        return value;
    }

    _ks_camera_list* list_ = nullptr;
    std::string out_;
};

}  // namespace

// Two of our cameras, a webcam and one of our cameras behind USB 2.0: the
// list holds the two, in reverse order of their by-path names, with node,
// links and serial number; only the USB 2.0 camera is reported.
TEST_F(Discovery, ListsOurUsb3CamerasInReverseByPathOrderWithNodesLinksAndSerials) {
    kssim_camera* a = ours(kSerialA, 1000);
    kssim_camera* b = ours(kSerialB, 3000);
    kssim_camera* webcam = kssim_world_add_webcam(world_, nullptr);
    kssim_camera* usb2 = kssim_world_add_usb2_camera(world_, kSerialUsb2);
    ASSERT_TRUE(a && b && webcam && usb2);
    ASSERT_GT(by_path(b), by_path(a));  // so b is listed first
    v4l2test::LogCapture log(LOG_DEBUG);
    const int descriptors = sessiontest::open_descriptors();
    ASSERT_EQ(0, query());
    ASSERT_NE(nullptr, list_);
    ASSERT_EQ(2u, list_->count);
    kssim_camera* expected[] = {b, a};
    const char* serials[] = {kSerialB, kSerialA};
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        const _ks_camera_info_s& camera = list_->cameras[i];
        EXPECT_STREQ(node(expected[i]), camera.video_dev);
        EXPECT_EQ(by_path(expected[i]), camera.usb_path_name);
        EXPECT_EQ(by_id(expected[i]), camera.v4l_id_name);
        EXPECT_STREQ(serials[i], camera.camera_sn);
    }
    EXPECT_EQ("Device [" + by_path(usb2) + "] is possibly connected to or identified as USB 2.0\n",
              out_);
    for (kssim_camera* skipped : {webcam, usb2})
        EXPECT_EQ(1, log.count("Dev " + by_path(skipped) + " skiped"));
    // Metadata nodes are no capture devices.
    EXPECT_EQ(1, log.count("Dev " + std::string(kssim_camera_by_path_link(a, KSSIM_NODE_META)) +
                           " skiped"));
    // The serial-number sessions are gone again.
    EXPECT_EQ(0u, open_on_cameras());
    EXPECT_EQ(descriptors, sessiontest::open_descriptors());

    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(0, ksPrintCameraList(list_));
        std::string expected_text;
        for (int i = 0; i < 2; ++i)
            expected_text +=
                "Camera " + std::to_string(i) + " info:\n\tVideoDevice name: " + node(expected[i]) +
                "\n\tCameraSN: " + serials[i] + "\n\tUsb Path Name: " + by_path(expected[i]) +
                "\n\tV4l id Name: " + by_id(expected[i]) + "\n";
        EXPECT_EQ(expected_text, out.text());
    }

    // Look-ups by serial number.
    for (kssim_camera* camera : {a, b}) {
        kssim_camera_config cfg;
        ASSERT_EQ(0, kssim_camera_get_config(camera, &cfg));
        const char* dev = ksGetCameraDeviceNameBySn(list_, cfg.serial);
        ASSERT_NE(nullptr, dev);
        EXPECT_STREQ(node(camera), dev);
        const char* link = ksGetCameraUsbPathNameBySn(list_, cfg.serial);
        ASSERT_NE(nullptr, link);
        EXPECT_EQ(by_path(camera), link);
    }
    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(nullptr, ksGetCameraDeviceNameBySn(list_, kSerialUsb2));
        EXPECT_EQ(nullptr, ksGetCameraUsbPathNameBySn(list_, "KSA00000000"));  // a prefix
        EXPECT_EQ(nullptr, ksGetCameraDeviceNameBySn(nullptr, kSerialA));
        EXPECT_EQ(nullptr, ksGetCameraUsbPathNameBySn(nullptr, kSerialA));
        EXPECT_EQ(-1, ksPrintCameraList(nullptr));
        EXPECT_EQ(std::string("Failed to locate camera of ") + kSerialUsb2 +
                      "\nFailed to locate camera of KSA00000000\n" + kEmptyList + kEmptyList +
                      kEmptyList,
                  out.text());
    }
    EXPECT_EQ(0, ksReleaseCameraList(nullptr));

    // The serial numbers come from the cameras' EEPROMs, not from the link names.
    const uint8_t renamed[] = {0xC4, 5, 'K', 'S', 'N', 'E', 'W'};
    ASSERT_EQ(0, kssim_camera_eeprom_write(a, 0x3C18, renamed, sizeof renamed));
    const uint8_t erased[] = {0xFF, 0xFF};
    ASSERT_EQ(0, kssim_camera_eeprom_write(b, 0x3C18, erased, sizeof erased));
    ASSERT_EQ(0, query());
    ASSERT_EQ(2u, list_->count);
    EXPECT_STREQ("", list_->cameras[0].camera_sn);
    EXPECT_STREQ("KSNEW", list_->cameras[1].camera_sn);
    EXPECT_EQ(by_id(a), list_->cameras[1].v4l_id_name);
}

// As some udev versions do: one node, two by-path links. The node is listed
// once per link, and the link goes with the camera.
TEST_F(Discovery, ACameraReachedThroughTwoByPathLinksIsListedTwice) {
    kssim_camera* a = ours(kSerialA, 1000);
    kssim_camera* b = ours(kSerialB, 3000);
    ASSERT_TRUE(a && b);
    const std::string second = "pci-0000:00:14.0-usbv2-0:1:1.0-video-index0";
    ASSERT_EQ(0, kssim_world_add_by_path_link(world_, a, KSSIM_NODE_CAPTURE, second.c_str()));
    for (const char* refused : {second.c_str(), "", ".", "..", "x/y"})
        EXPECT_EQ(-1, kssim_world_add_by_path_link(world_, b, KSSIM_NODE_CAPTURE, refused));
    const std::string taken = by_path(b).substr(by_path(b).rfind('/') + 1);
    EXPECT_EQ(-1, kssim_world_add_by_path_link(world_, a, KSSIM_NODE_CAPTURE, taken.c_str()));

    ASSERT_EQ(0, query());
    ASSERT_EQ(3u, list_->count);
    // "usbv2" sorts after "usb-", so the second link comes first.
    const std::string links[] = {"/dev/v4l/by-path/" + second, by_path(b), by_path(a)};
    kssim_camera* cameras[] = {a, b, a};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(links[i], list_->cameras[i].usb_path_name);
        EXPECT_STREQ(node(cameras[i]), list_->cameras[i].video_dev);
        EXPECT_EQ(by_id(cameras[i]), list_->cameras[i].v4l_id_name);
    }
    EXPECT_STREQ(kSerialA, list_->cameras[0].camera_sn);
    EXPECT_STREQ(kSerialA, list_->cameras[2].camera_sn);
    // The first record of a serial number is the one found.
    EXPECT_EQ(links[0], ksGetCameraUsbPathNameBySn(list_, kSerialA));

    ASSERT_EQ(0, kssim_camera_unplug(a));
    ASSERT_EQ(0, query());
    ASSERT_EQ(1u, list_->count);
    EXPECT_STREQ(kSerialB, list_->cameras[0].camera_sn);
    ASSERT_EQ(0, kssim_camera_replug(a));
    ASSERT_EQ(0, query());
    EXPECT_EQ(3u, list_->count);
}

// The key word may sit anywhere in the card name, in any case, and the first
// format's 1280 x 720 need not be its first size. A device that is not ours
// has no serial number to give.
TEST_F(Discovery, KeyWordsMatchAnywhereInAnyCaseAndAnyListedSizeCounts) {
    kssim_camera* clone = kssim_world_add_webcam(world_, "Depth kEsTrA clone");
    kssim_camera* other = kssim_world_add_webcam(world_, nullptr);
    ASSERT_TRUE(clone && other);
    v4l2test::LogCapture log(LOG_TRACE);
    ASSERT_EQ(0, query());
    ASSERT_EQ(1u, list_->count);
    EXPECT_STREQ(node(clone), list_->cameras[0].video_dev);
    EXPECT_STREQ("", list_->cameras[0].camera_sn);
    EXPECT_EQ(by_id(clone), list_->cameras[0].v4l_id_name);
    // Both nodes of the clone carry the word; its metadata node is no capture device.
    EXPECT_EQ(2, log.count("Found Matched key word KESTRA\n"));
    EXPECT_EQ(1, log.count("line:163 640x480\n"));
    EXPECT_EQ(1, log.count("1280X720 Indentified\n"));
    EXPECT_EQ(1, log.count("Format info[0]: 'YUYV'"));
    EXPECT_EQ(1, log.count("None Video Cap Device\n"));
    EXPECT_EQ(2, log.count("Unmathed key word"));
    EXPECT_EQ(0u, open_on_cameras());
}

// The list of a query opens the camera of a serial number: its frames show
// its own scene.
TEST_F(Discovery, OpensTheCameraOfASerialNumberAndNoOther) {
    kssim_camera* a = ours(kSerialA, 1000);
    kssim_camera* b = ours(kSerialB, 3000);
    ASSERT_TRUE(a && b);
    const int near = true_centre_disparity(a), far = true_centre_disparity(b);
    ASSERT_GT(near, far + 100);
    ASSERT_EQ(0, query());

    struct Case {
        const char* serial;
        kssim_camera* camera;
        kssim_camera* idle;
        int disparity;
    } cases[] = {{kSerialA, a, b, near}, {kSerialB, b, a, far}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.serial);
        ASSERT_EQ(0, ksOpenUVCCameraBySN(list_, c.serial, &handle_));
        ASSERT_NE(nullptr, handle_);
        kssim_camera_stats stats{};
        ASSERT_EQ(0, kssim_camera_get_stats(c.camera, &stats));
        EXPECT_EQ(1u, stats.streaming);
        ASSERT_EQ(0, kssim_camera_get_stats(c.idle, &stats));
        EXPECT_EQ(0u, stats.streaming);
        EXPECT_NEAR(c.disparity, centre_disparity(handle_), 2);
        EXPECT_EQ(0, ksCloseCamera(&handle_));
    }

    ks_test::FdCapture out(1);
    KSCameraAbstract* handle = reinterpret_cast<KSCameraAbstract*>(&out);
    EXPECT_EQ(-1, ksOpenUVCCameraBySN(list_, "KS-UNKNOWN", &handle));
    EXPECT_EQ(nullptr, handle);
    handle = reinterpret_cast<KSCameraAbstract*>(&out);
    EXPECT_EQ(-1, ksOpenUVCCameraBySN(nullptr, kSerialA, &handle));
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(-1, ksOpenUVCCameraBySN(list_, kSerialA, nullptr));
    EXPECT_EQ(std::string("Failed to locate camera of KS-UNKNOWN\n") + kEmptyList, out.text());
    EXPECT_EQ(0u, open_on_cameras());
}

// A camera unplugged after the query fails to open with the session's code
// and holds nothing; back in, the same list opens it.
TEST_F(Discovery, ACameraUnpluggedAfterTheQueryFailsToOpenCleanly) {
    kssim_camera* a = ours(kSerialA, 1000);
    ASSERT_NE(nullptr, a);
    ASSERT_EQ(0, query());
    const int descriptors = sessiontest::open_descriptors();
    ASSERT_EQ(0, kssim_camera_unplug(a));
    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(-1, ksOpenUVCCameraBySN(list_, kSerialA, &handle_));
        EXPECT_NE(std::string::npos, out.text().find("video driver handle init failed\n"));
    }
    EXPECT_EQ(nullptr, handle_);
    EXPECT_EQ(descriptors, sessiontest::open_descriptors());
    ASSERT_EQ(0, kssim_camera_replug(a));
    ASSERT_EQ(0, ksOpenUVCCameraBySN(list_, kSerialA, &handle_));
    EXPECT_EQ(3, take_frames(handle_, 3));
}

// No link directory at all, or links to nothing of ours: the message, -1 and
// a header without records that releases safely.
TEST_F(Discovery, NoCameraGivesTheMessageAndAnEmptyList) {
    auto expect_none = [&] {
        EXPECT_EQ(-1, query());
        EXPECT_EQ("No ksCamera Device found\n", out_);
        ASSERT_NE(nullptr, list_);
        EXPECT_EQ(0u, list_->count);
        EXPECT_EQ(nullptr, list_->cameras);
    };
    {
        SCOPED_TRACE("no /dev/v4l");
        expect_none();
    }
    ASSERT_NE(nullptr, kssim_world_add_webcam(world_, nullptr));
    {
        SCOPED_TRACE("a webcam only");
        expect_none();
    }
    kssim_camera* a = ours(kSerialA, 1000);
    ASSERT_EQ(0, inject(a, KSSIM_FAULT_QUERYCAP_FAIL, 0));
    {
        SCOPED_TRACE("our camera without capabilities");
        v4l2test::LogCapture log(LOG_ERROR);
        expect_none();
        EXPECT_EQ(2, log.count("VIDIOC_QUERYCAP Failed"));  // both nodes
    }
    ASSERT_EQ(0, kssim_camera_unplug(a));
    {
        SCOPED_TRACE("our camera unplugged");
        expect_none();
    }
    ks_test::FdCapture out(1);
    EXPECT_EQ(nullptr, ksGetCameraDeviceNameBySn(list_, kSerialA));
    EXPECT_EQ(0, ksPrintCameraList(list_));
    EXPECT_EQ(std::string("Failed to locate camera of ") + kSerialA + "\n", out.text());
}
