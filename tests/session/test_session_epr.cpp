// Stream configurations and EPR slots of the virtual camera: uploading,
// listing and selecting them, the slots and files the camera cannot use,
// maintenance of the stored parameters, and the import of a calibration
// folder made by the simulator's tool.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "common/ks_test_helpers.h"
#include "driver/driver_cpp/source/KSUVCCamera.h"
#include "session_fixture.h"
#include "stream_checks.h"
#include "v4l2/v4l2_test_util.h"

using sessiontest::SessionTest;
using namespace streamtest;

namespace {

constexpr uint32_t kEprInfoRecords = 0x3C2C;
constexpr uint32_t kEprInfoBitmap = 0x3C2B;
constexpr uint32_t kCurrentSlot = 0x3C5C;
constexpr uint32_t kRectifyBitmap = 0x3C67;

void write_bytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

_ks_video_param_s param(uint8_t index, uint16_t width, uint16_t height) {
    _ks_video_param_s p = {};
    p.index = index;
    p.width = width;
    p.height = height;
    p.reserved_a = 20;
    p.reserved_b = 25;
    return p;
}

// The listed configuration of a slot, or an all-zero record.
_ks_video_param_s listed(KSCameraAbstract* handle, uint8_t index, uint8_t* count) {
    _ks_video_param_s* list = nullptr;
    *count = 0;
    EXPECT_EQ(0, ksQuerySupportedVideoParam(handle, &list, count));
    for (uint8_t i = 0; i < *count; ++i)
        if (list[i].index == index) return list[i];
    return _ks_video_param_s{};
}

// The camera streams images of width x height whose distances are the
// scene's at that size, with the stereo constants of the slot's image.
void expect_stream(KSCameraAbstract* handle, kssim_camera* camera, uint16_t width, uint16_t height,
                   float bxf) {
    uint16_t w = 0, h = 0;
    ASSERT_EQ(0, ksGetVideoResolution(handle, &w, &h));
    EXPECT_EQ(width, w);
    EXPECT_EQ(height, h);
    float got_bxf = 0, base = 0;
    ASSERT_EQ(0, ksGetBxfAndBase(handle, &got_bxf, &base));
    EXPECT_FLOAT_EQ(bxf, got_bxf);
    Frame f = frame_of_channel(handle, kRgbdCode, width, height);
    ASSERT_FALSE(f.bytes.empty());
    unsigned char* disparity = nullptr;
    unsigned char* image = nullptr;
    ASSERT_EQ(0, ksGetRGBDImage(handle, f.data(), &disparity, &image));
    const auto* d = reinterpret_cast<const uint16_t*>(disparity);
    const DistanceErrors e =
        distance_errors(camera, bxf, width, height, [&](int x, int y) { return d[y * width + x]; });
    EXPECT_GT(e.valid, e.samples * 9 / 10);
    EXPECT_LT(e.worst, 0.01);
}

void stdout_has(const std::string& text, const std::string& needle) {
    EXPECT_NE(std::string::npos, text.find(needle)) << text;
}

}  // namespace

// A 640 x 480 configuration uploaded into a new slot is listed, selected by
// its index, and the stream follows with images of its size and constants.
TEST_F(SessionTest, SecondStreamConfigurationUploadedListedAndSelected) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    uint8_t count = 0;
    EXPECT_EQ(0, listed(handle_, 2, &count).width);
    EXPECT_EQ(2, count);
    uint8_t index = 0xFF;
    ASSERT_EQ(0, ksGetVideoParam(handle_, &index));
    EXPECT_EQ(0, index);

    ks_test::TempDir dir;
    const std::vector<uint8_t> image = epr_image(640, 480, 42000, 60);
    write_bytes(dir / "vga.epr", image);
    const _ks_video_param_s vga = param(2, 640, 480);
    ASSERT_EQ(0, ksUploadEprFile(handle_, (dir / "vga.epr").c_str(), &vga));
    std::vector<uint8_t> slot = flash(camera, flash_slot(2), 4096);
    EXPECT_EQ(image, std::vector<uint8_t>(slot.begin(), slot.begin() + KSSIM_EPR_SIZE));
    EXPECT_EQ(std::vector<uint8_t>(4096 - KSSIM_EPR_SIZE, 0),
              std::vector<uint8_t>(slot.begin() + KSSIM_EPR_SIZE, slot.end()));
    EXPECT_EQ((std::vector<uint8_t>{0x01, 0xE0, 0x02, 0x80, 20, 25}),
              eeprom(camera, kEprInfoRecords + 6 * 2, 6));
    EXPECT_EQ(std::vector<uint8_t>{0x07}, eeprom(camera, kEprInfoBitmap, 1));
    EXPECT_EQ(std::vector<uint8_t>{2}, eeprom(camera, kCurrentSlot, 1));

    const _ks_video_param_s entry = listed(handle_, 2, &count);
    EXPECT_EQ(3, count);
    EXPECT_EQ(640, entry.width);
    EXPECT_EQ(480, entry.height);
    EXPECT_EQ(20, entry.reserved_a);
    EXPECT_EQ(25, entry.reserved_b);
    kssim_device_state state{};
    ASSERT_EQ(0, kssim_camera_device_state(camera, &state));
    EXPECT_EQ(640, state.epr_width);
    EXPECT_EQ(480, state.epr_height);
    expect_stream(handle_, camera, 640, 480, 42000);

    ASSERT_EQ(0, ksSetVideoParam(handle_, 0));
    ASSERT_EQ(0, ksGetVideoParam(handle_, &index));
    EXPECT_EQ(0, index);
    expect_stream(handle_, camera, 1280, 720, 35000);

    ASSERT_EQ(0, ksSetVideoParam(handle_, 2));
    ASSERT_EQ(0, ksGetVideoParam(handle_, &index));
    EXPECT_EQ(2, index);
    expect_stream(handle_, camera, 640, 480, 42000);
    _ks_video_mode_e mode = KS_VIDEO_MODE_STEREO_ORIGIN;
    ASSERT_EQ(0, ksGetVideoMode(handle_, &mode));
    EXPECT_EQ(KS_VIDEO_MODE_RGBD, mode);
}

// EPR files and slots the camera cannot use: each call fails with its code
// and message and writes nothing it should not.
TEST_F(SessionTest, EprFilesAndSlotsWithoutUsableDescriptors) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ks_test::TempDir dir;
    write_bytes(dir / "hd.epr", epr_image(1280, 720, 33000, 50));

    // Refused before anything is written: missing, too large (a sparse file
    // beyond what a 32-bit length can pad), a slot outside the table, no path.
    {
        const int fd = open((dir / "huge.epr").c_str(), O_CREAT | O_WRONLY, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(0, ftruncate(fd, 0xFFFFF000));
        close(fd);
    }
    kssim_camera_traffic_clear(camera);
    const _ks_video_param_s hd = param(1, 1280, 720);
    const _ks_video_param_s outside = param(9, 1280, 720);
    {
        ks_test::FdCapture err(2);
        ks_test::FdCapture out(1);
        EXPECT_EQ(-2, ksUploadEprFile(handle_, (dir / "missing.epr").c_str(), &hd));
        EXPECT_EQ(-2, ksStoreEprFile(handle_, (dir / "missing.epr").c_str(), 1));
        EXPECT_EQ(-2, ksStoreEprFile(handle_, (dir / "huge.epr").c_str(), 1));
        EXPECT_EQ(-2,
                  ksStoreEprFileWithVideoFrameParam(handle_, (dir / "hd.epr").c_str(), &outside));
        EXPECT_EQ(-1, ksUploadEprFile(handle_, "", &hd));
        EXPECT_EQ(-1, ksStoreEprFile(handle_, nullptr, 1));
        EXPECT_EQ(-1, ksUploadEprFile(handle_, (dir / "hd.epr").c_str(), nullptr));
        const std::string printed = out.text();
        stdout_has(printed, "upload epr file failed");
        stdout_has(printed, "epr info saving failed");
        const std::string errors = err.text();
        stdout_has(errors, "Cannot open '" + (dir / "missing.epr") + "'");
        stdout_has(errors, "Reading error");
    }
    EXPECT_EQ(0u, writes_in_traffic(camera));

    // An image stored without a descriptor: selectable, but the stream has
    // no information and the slot is not listed.
    ASSERT_EQ(0, ksStoreEprFile(handle_, (dir / "hd.epr").c_str(), 3));
    EXPECT_EQ(std::vector<uint8_t>{0x03}, eeprom(camera, kEprInfoBitmap, 1));
    ASSERT_EQ(0, ksSelectEprFile(handle_, 3));
    EXPECT_FALSE(frame_of_channel(handle_, kRgbdCode, 1280, 720).bytes.empty());
    uint8_t index = 0xFF;
    EXPECT_EQ(-2, ksGetVideoParam(handle_, &index));
    EXPECT_EQ(0, index);
    {
        ks_test::FdCapture out(1);
        uint16_t w = 1, h = 1;
        EXPECT_EQ(-2, ksGetVideoResolution(handle_, &w, &h));
        stdout_has(out.text(), "getCurrentStreamInfo fails, return -11\n");
        EXPECT_EQ(0, w);
    }
    uint8_t count = 0;
    EXPECT_EQ(0, listed(handle_, 3, &count).width);
    EXPECT_EQ(-2, ksSetVideoParam(handle_, 3));

    // A descriptor of zero width is listed but never selected.
    const _ks_video_param_s zero = param(6, 0, 720);
    ASSERT_EQ(0, ksAmendVideoFrameParam(handle_, &zero));
    const _ks_video_param_s stored = listed(handle_, 6, &count);
    EXPECT_EQ(6, stored.index);
    EXPECT_EQ(720, stored.height);
    kssim_camera_traffic_clear(camera);
    EXPECT_EQ(-2, ksSetVideoParam(handle_, 6));
    EXPECT_EQ(0u, writes_in_traffic(camera));
}

// Slots whose image the ASIC refuses leave the camera without a stream until
// the next good selection or a resume.
TEST_F(SessionTest, RefusedSlotsLeaveTheCameraWithoutAStream) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ks_test::TempDir dir;
    write_bytes(dir / "empty.epr", {});

    // An empty file is stored as a zero-filled image, which the ASIC refuses.
    Frame kept = frame_of_channel(handle_, kRgbdCode, 1280, 720);
    ASSERT_FALSE(kept.bytes.empty());
    const _ks_video_param_s empty_slot = param(4, 1280, 720);
    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(-2, ksUploadEprFile(handle_, (dir / "empty.epr").c_str(), &empty_slot));
        stdout_has(out.text(), "Warning: nuvex sensor init device check error!");
    }
    EXPECT_EQ(std::vector<uint8_t>(4096, 0), flash(camera, flash_slot(4), 4096));
    auto expect_no_stream = [&] {
        unsigned long id = 0;
        unsigned char* frame = nullptr;
        unsigned char* a = nullptr;
        unsigned char* b = nullptr;
        EXPECT_EQ(-2, ksGetCurrentFrame(handle_, &id, &frame));
        EXPECT_EQ(-2, ksGetRGBDImage(handle_, kept.data(), &a, &b));
        EXPECT_EQ(-2, ksGetRawImage(handle_, kept.data(), &a, &b));
        EXPECT_EQ(-2, ksGetRectifiedImage(handle_, kept.data(), &a, &b));
        kssim_camera_stats stats{};
        ASSERT_EQ(0, kssim_camera_get_stats(camera, &stats));
        EXPECT_EQ(0u, stats.streaming);
    };
    expect_no_stream();
    ASSERT_EQ(0, ksSelectEprFile(handle_, 0));
    expect_stream(handle_, camera, 1280, 720, 35000);

    // An ASIC that refuses the slot's image at the selection's power-up and
    // accepts it again at the resume's.
    ASSERT_EQ(0, inject(camera, KSSIM_FAULT_INVALID_EPR, 0));
    EXPECT_EQ(-2, ksSelectEprFile(handle_, 0));
    expect_no_stream();
    ASSERT_EQ(0, kssim_camera_clear_fault(camera, KSSIM_FAULT_INVALID_EPR));
    ASSERT_EQ(0, ksSuspendCamera(handle_));
    ASSERT_EQ(0, ksResumeCamera(handle_));
    expect_stream(handle_, camera, 1280, 720, 35000);
}

// Back-up of the effective image, the dump of the custom area, the FPGA
// bitstream, and the reset to the factory state.
TEST_F(SessionTest, MaintenanceOfTheStoredParameters) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ks_test::TempDir dir;
    ASSERT_EQ(0, ksBackUpEffectiveEprFile(handle_, (dir / "backup.epr").c_str()));
    const std::string backup = ks_test::read_file(dir / "backup.epr");
    ASSERT_EQ(KSSIM_EPR_SIZE, backup.size());
    EXPECT_EQ(eeprom(camera, 0, KSSIM_EPR_SIZE),
              std::vector<uint8_t>(backup.begin(), backup.end()));
    EXPECT_NE(0, ksBackUpEffectiveEprFile(handle_, (dir / "no/such/dir/backup.epr").c_str()));

    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(0, ksShowAllCustomEEPROM(handle_));
        const std::string text = out.text();
        stdout_has(text, "DISP OFFSET AREA: Start Add 15360. Offset 0\n");
        stdout_has(text, "SN AREA: Start Add 15384. Offset 24\n");
        stdout_has(text, "SN val KS0000000001\n");
        stdout_has(text, "Current Slot 0 [00]\n");
        stdout_has(text, "EPR Para SAVING Area: Start Add 15462. Offset 102\n");
    }

    std::vector<uint8_t> bitstream(5000);
    for (size_t i = 0; i < bitstream.size(); ++i) bitstream[i] = static_cast<uint8_t>(i * 7);
    write_bytes(dir / "fpga.bit", bitstream);
    ASSERT_EQ(0, ksUploadFpgaBitFile(handle_, (dir / "fpga.bit").c_str()));
    EXPECT_EQ(bitstream, flash(camera, 0x3D000, bitstream.size()));
    EXPECT_EQ(-2, ksUploadFpgaBitFile(handle_, (dir / "missing.bit").c_str()));

    EXPECT_EQ(0, ksResetCameraToFactoryState(handle_));
    EXPECT_EQ(std::vector<uint8_t>(10, 0xFF), eeprom(camera, 0, 10));
    EXPECT_EQ(std::vector<uint8_t>(0xB8, 0xFF), eeprom(camera, 0x3C00, 0xB8));
    uint16_t w = 0, h = 0;
    ASSERT_EQ(0, ksGetVideoResolution(handle_, &w, &h));  // no descriptor: the default size
    EXPECT_EQ(1280, w);
    EXPECT_EQ(720, h);
}

// A folder made by the calibration tool imports: the camera then gives back
// its optical centre, field of view and stereo constants.
TEST_F(SessionTest, CalibrationFolderImports) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ks_test::TempDir dir;
    const std::string folder = dir / "station";
    const std::string command = std::string(KSSIM_EPR_TOOL) + " calib " + folder +
                                " --width 1280 --height 720 --bxf 36000 --baseline 48"
                                " --fov 80.5,50.25 --center 641.5,359.25 --roi 12,8 > /dev/null";
    ASSERT_EQ(0, std::system(command.c_str()));

    ASSERT_EQ(0, ksUploadCameraEprForAutoCalibration(handle_, 0, folder.c_str()));
    const std::string epr = ks_test::read_file(folder + "/calib.epr");
    const std::vector<uint8_t> slot = flash(camera, flash_slot(0), KSSIM_EPR_SIZE);
    EXPECT_EQ(std::vector<uint8_t>(epr.begin(), epr.end()), slot);
    EXPECT_EQ(KSSIM_EPR_SIZE, epr.size());
    EXPECT_EQ((std::vector<uint8_t>{0x02, 0xD0, 0x05, 0x00, 20, 25}),
              eeprom(camera, kEprInfoRecords, 6));
    EXPECT_EQ(std::vector<uint8_t>{0x01}, eeprom(camera, kRectifyBitmap, 1));
    float cx = 0, cy = 0;
    ASSERT_EQ(0, ksGetRectifyOpticalCenter(handle_, &cx, &cy));
    EXPECT_FLOAT_EQ(641.5f, cx);
    EXPECT_FLOAT_EQ(359.25f, cy);
    float fov_h = 0, fov_v = 0;
    ASSERT_EQ(
        0, static_cast<KSUVCCamera*>(handle_)->session().getCurrentRectifyCamFov(&fov_h, &fov_v));
    EXPECT_FLOAT_EQ(80.5f, fov_h);
    EXPECT_FLOAT_EQ(50.25f, fov_v);

    // The imported image takes effect with the slot's next selection.
    ASSERT_EQ(0, ksSelectEprFile(handle_, 0));
    float focal = 0;
    ASSERT_EQ(0, ksGetRectifyCamParam(handle_, &focal, &cx, &cy));
    EXPECT_FLOAT_EQ(750.0f, focal);
    EXPECT_FLOAT_EQ(641.5f, cx);
    expect_stream(handle_, camera, 1280, 720, 36000);
}

// Folders and logs the import refuses, each before anything reaches the
// camera, and the log forms it accepts.
TEST_F(SessionTest, CalibrationFoldersAndLogsTheImportRefuses) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ks_test::TempDir dir;
    const std::vector<uint8_t> image = epr_image(640, 480, 35000, 50);
    const std::string good_log =
        "Out_Resolution:640x480\nFov:80,50\nRectOptCenter:320.5,240.25\nROI_Start:4,2\n";
    auto folder = [&](const std::string& name, const std::string& log) {
        const std::string path = dir / name;
        std::filesystem::create_directory(path);
        write_bytes(path + "/a.epr", image);
        ks_test::write_file(path + "/a.log", log);
        return path;
    };
    struct Case {
        std::string name;
        std::string folder;
        int result;
        std::string message;  // on standard output, or in the log
    };
    std::string notes;  // lines 4 to 12
    for (int i = 4; i <= 12; ++i) notes += "Note" + std::to_string(i) + ":x\n";
    const std::string two_logs = folder("two_logs", good_log);
    ks_test::write_file(two_logs + "/b.log", good_log);
    std::filesystem::create_directory(dir / "empty");
    const Case refused[] = {
        {"missing folder", dir / "missing", -1, "Dir " + (dir / "missing") + " Not Exists"},
        {"empty folder", dir / "empty", -2, "Unexpected Folder Content"},
        {"two logs", two_logs, -2, "Unexpected Folder Content"},
        {"truncated log", folder("truncated", "Out_Resolution:640x480\nFov:80,50\nRectOpt"), -3,
         "Failed to locate key: RectOptCenter"},
        {"blank line and blank before the colon",
         folder("blank", "Out_Resolution:640x480\n\nFov :80,50\n"), -3,
         "Failed to locate key: Fov"},
        {"key on line 13",
         folder("line13", "Out_Resolution:640x480\nFov:80,50\nRectOptCenter:1,2\n" + notes +
                              "ROI_Start:4,2\n"),
         -3, "Failed to locate key: ROI_Start"},
        {"bad resolution", folder("res", "Out_Resolution:640*480\n"), -3,
         "Parse Resolution Failed"},
        {"not a number", folder("nan", "Out_Resolution:640x480\nFov:wide,50\n"), -2,
         "res 640 x 480"},
    };
    for (const Case& c : refused) {
        SCOPED_TRACE(c.name);
        kssim_camera_traffic_clear(camera);
        const std::vector<uint8_t> custom_before = eeprom(camera, 0x3C00, 0xB8);
        v4l2test::LogCapture log(LOG_ERROR);
        ks_test::FdCapture out(1);
        EXPECT_EQ(c.result, ksUploadCameraEprForAutoCalibration(handle_, 2, c.folder.c_str()));
        const std::string all = out.text() + log.text();
        stdout_has(all, c.message);
        EXPECT_EQ(0u, writes_in_traffic(camera));
        EXPECT_EQ(custom_before, eeprom(camera, 0x3C00, 0xB8));
    }

    // Accepted: carriage returns before the line feeds, a blank after the
    // colon, a line of three pieces beside the keys.
    std::string crlf;
    for (char ch : std::string("Out_Resolution:640x480\nFov: 81,51\nRectOptCenter:320.5,240.25\n"
                               "ROI_Start:4,2\n")) {
        if (ch == '\n') crlf += '\r';
        crlf += ch;
    }
    const std::string accepted[] = {folder("crlf", crlf),
                                    folder("time", "Date:12:30\n" + good_log)};
    for (const std::string& path : accepted) {
        SCOPED_TRACE(path);
        ks_test::FdCapture out(1);
        EXPECT_EQ(0, ksUploadCameraEprForAutoCalibration(handle_, 2, path.c_str()));
        const std::string printed = out.text();
        stdout_has(printed, "res 640 x 480\n");
        stdout_has(printed, "ROI_Start 4 - 2\n");
    }
    EXPECT_EQ(image, flash(camera, flash_slot(2), KSSIM_EPR_SIZE));
    EXPECT_EQ((std::vector<uint8_t>{0x01, 0xE0, 0x02, 0x80, 20, 25}),
              eeprom(camera, kEprInfoRecords + 6 * 2, 6));
    std::vector<_struct_rectify_cam_para_info> params;
    ASSERT_EQ(0, static_cast<KSUVCCamera*>(handle_)->session().queryAllSavedRectifyCamPara(params));
    ASSERT_EQ(1u, params.size());
    EXPECT_EQ(2, params[0].index);
    EXPECT_EQ(4, params[0].roi_start_x);
    EXPECT_EQ(2, params[0].roi_start_y);
    EXPECT_FLOAT_EQ(80.0f, params[0].fov_x);
    EXPECT_FLOAT_EQ(240.25f, params[0].opt_center_y);
}
