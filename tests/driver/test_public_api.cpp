// The exported wrappers against a mock camera: argument checks, clearing of
// outputs, narrowing, result mapping and exception containment.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "driver/driver_cpp/source/KSCameraFactory.h"
#include "ksStereoCameraDriver.h"
#include "mock_camera.h"

using ::testing::_;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgPointee;
using ::testing::StrictMock;
using ::testing::Throw;

namespace {

unsigned char g_byte = 0;
unsigned short g_u16 = 0;
float g_float = 0;
double g_double = 0;
unsigned long g_ulong = 0;
unsigned int g_uint = 0;
unsigned char* g_ptr = nullptr;
unsigned char g_src[64];
char g_text[64];

struct Call {
    const char* name;
    std::function<int(KSCameraAbstract*)> call;
};

// Every per-camera function that returns an int, called with valid arguments.
std::vector<Call> all_camera_calls() {
    static float* pf = nullptr;
    static _ks_imu_data_set_s* imu = nullptr;
    static _ks_video_param_s* params = nullptr;
    static _ks_video_param_s param{};
    static _ks_rect_distance_info_s rect{};
    static unsigned short disparity[4];
    static unsigned int* ae = nullptr;
    static const char* name = nullptr;
    static _ks_video_mode_e mode;
    static _ks_filllight_type_e light;
    static unsigned short* meta = nullptr;
    return {
        {"ksSuspendCamera", [](auto h) { return ksSuspendCamera(h); }},
        {"ksResumeCamera", [](auto h) { return ksResumeCamera(h); }},
        {"ksGetCurrentFrame", [](auto h) { return ksGetCurrentFrame(h, &g_ulong, &g_ptr); }},
        {"ksGetSafeCurrentFrame",
         [](auto h) { return ksGetSafeCurrentFrame(h, &g_ulong, &g_ptr); }},
        {"ksGetRGBDImage", [](auto h) { return ksGetRGBDImage(h, g_src, &g_ptr, &g_ptr); }},
        {"ksGetRGBDDisparityData", [](auto h) { return ksGetRGBDDisparityData(h, g_src, &g_ptr); }},
        {"ksGetRGBDYUVI420Image", [](auto h) { return ksGetRGBDYUVI420Image(h, g_src, &g_ptr); }},
        {"ksGetRawImage", [](auto h) { return ksGetRawImage(h, g_src, &g_ptr, &g_ptr); }},
        {"ksGetRawLeftBayerImage", [](auto h) { return ksGetRawLeftBayerImage(h, g_src, &g_ptr); }},
        {"ksGetRawRightBayerImage",
         [](auto h) { return ksGetRawRightBayerImage(h, g_src, &g_ptr); }},
        {"ksGetRectifiedImage",
         [](auto h) { return ksGetRectifiedImage(h, g_src, &g_ptr, &g_ptr); }},
        {"ksGetRectifiedLeftGrayImage",
         [](auto h) { return ksGetRectifiedLeftGrayImage(h, g_src, &g_ptr); }},
        {"ksGetRectifiedRightYUVI420Image",
         [](auto h) { return ksGetRectifiedRightYUVI420Image(h, g_src, &g_ptr); }},
        {"ksGetRGBDImageWithTimestamp",
         [](auto h) { return ksGetRGBDImageWithTimestamp(h, g_src, &g_ptr, &g_ptr, &g_ulong); }},
        {"ksGetRectifiedImageWithTimestamp",
         [](auto h) {
             return ksGetRectifiedImageWithTimestamp(h, g_src, &g_ptr, &g_ptr, &g_ulong);
         }},
        {"ksGetRawImageWithTimestamp",
         [](auto h) { return ksGetRawImageWithTimestamp(h, g_src, &g_ptr, &g_ptr, &g_ulong); }},
        {"ksGetBxfAndBase", [](auto h) { return ksGetBxfAndBase(h, &g_float, &g_float); }},
        {"ksGetIMUData", [](auto h) { return ksGetIMUData(h, &imu); }},
        {"ksGetImageChannelFromSrcData",
         [](auto h) { return ksGetImageChannelFromSrcData(h, g_src, &g_byte); }},
        {"ksSetVideoMode", [](auto h) { return ksSetVideoMode(h, KS_VIDEO_MODE_RGBD); }},
        {"ksGetVideoMode", [](auto h) { return ksGetVideoMode(h, &mode); }},
        {"ksQuerySupportedVideoParam",
         [](auto h) { return ksQuerySupportedVideoParam(h, &params, &g_byte); }},
        {"ksSetVideoParam", [](auto h) { return ksSetVideoParam(h, 1); }},
        {"ksGetVideoParam", [](auto h) { return ksGetVideoParam(h, &g_byte); }},
        {"ksGetVideoResolution", [](auto h) { return ksGetVideoResolution(h, &g_u16, &g_u16); }},
        {"ksGetRealTimeFPS", [](auto h) { return ksGetRealTimeFPS(h, &g_double); }},
        {"ksSwitchToOriginDisparity", [](auto h) { return ksSwitchToOriginDisparity(h); }},
        {"ksSaveDisparityParam", [](auto h) { return ksSaveDisparityParam(h, "p.txt"); }},
        {"ksSetDisparityParam", [](auto h) { return ksSetDisparityParam(h, "p.txt"); }},
        {"ksAutoOptimizeDisparity", [](auto h) { return ksAutoOptimizeDisparity(h, 1.0f); }},
        {"ksSetDisparityFilterDistanceThreshold",
         [](auto h) { return ksSetDisparityFilterDistanceThreshold(h, 5.0f, 0.2f); }},
        {"ksCalculateRectDistance", [](auto h) { return ksCalculateRectDistance(h, &rect); }},
        {"ksConvertDisparity2PointCloud",
         [](auto h) {
             return ksConvertDisparity2PointCloud(h, disparity, &g_uint, &pf, &pf, &pf);
         }},
        {"ksSetSearchRange", [](auto h) { return ksSetSearchRange(h, 3); }},
        {"ksGetSearchRange", [](auto h) { return ksGetSearchRange(h, &g_byte); }},
        {"ksSetLineOffset", [](auto h) { return ksSetLineOffset(h, 0.5f); }},
        {"ksGetLineOffset", [](auto h) { return ksGetLineOffset(h, &g_float); }},
        {"ksSetDispOffset", [](auto h) { return ksSetDispOffset(h, 0.5f); }},
        {"ksGetDispOffset", [](auto h) { return ksGetDispOffset(h, &g_float); }},
        {"ksSetLineTrim", [](auto h) { return ksSetLineTrim(h, 1, 2); }},
        {"ksGetLineTrim", [](auto h) { return ksGetLineTrim(h, &g_u16, &g_u16); }},
        {"ksSetExposure", [](auto h) { return ksSetExposure(h, 100); }},
        {"ksGetExposure", [](auto h) { return ksGetExposure(h, &g_u16); }},
        {"ksSetCameraGain", [](auto h) { return ksSetCameraGain(h, 2); }},
        {"ksSetCameraFps", [](auto h) { return ksSetCameraFps(h, 30.0f); }},
        {"ksRestoreCameraFpsToDefault", [](auto h) { return ksRestoreCameraFpsToDefault(h); }},
        {"ksSetFilllightType",
         [](auto h) { return ksSetFilllightType(h, KS_FILLLIGHT_TYPE_CTRL_MODE_1); }},
        {"ksGetFilllightType", [](auto h) { return ksGetFilllightType(h, &light); }},
        {"ksSetFillLightIntensity", [](auto h) { return ksSetFillLightIntensity(h, 9); }},
        {"ksGetFillLightIntensity", [](auto h) { return ksGetFillLightIntensity(h, &g_byte); }},
        {"ksGetCmosType", [](auto h) { return ksGetCmosType(h, &g_byte, &name); }},
        {"ksGetLastestAeStatValues", [](auto h) { return ksGetLastestAeStatValues(h, &ae); }},
        {"ksSetCameraSN", [](auto h) { return ksSetCameraSN(h, "SN123"); }},
        {"ksEraseCameraSN", [](auto h) { return ksEraseCameraSN(h); }},
        {"ksGetCameraSN", [](auto h) { return ksGetCameraSN(h, g_text); }},
        {"ksGetUsbVersion", [](auto h) { return ksGetUsbVersion(h, g_text); }},
        {"ksGetFpgaReleaseDate",
         [](auto h) { return ksGetFpgaReleaseDate(h, &g_byte, &g_byte, &g_byte); }},
        {"ksGetFpgaVersion", [](auto h) { return ksGetFpgaVersion(h, &g_byte, &g_byte); }},
        {"ksGetCameraHardwareInfo",
         [](auto h) { return ksGetCameraHardwareInfo(h, &g_byte, &g_byte); }},
        {"ksGetCameraCMOSSwapMode", [](auto h) { return ksGetCameraCMOSSwapMode(h, &g_byte); }},
        {"ksUploadFpgaBitFile", [](auto h) { return ksUploadFpgaBitFile(h, "f.bit"); }},
        {"ksUploadEprFile", [](auto h) { return ksUploadEprFile(h, "a.epr", &param); }},
        {"ksStoreEprFileWithVideoFrameParam",
         [](auto h) { return ksStoreEprFileWithVideoFrameParam(h, "a.epr", &param); }},
        {"ksStoreEprFile", [](auto h) { return ksStoreEprFile(h, "a.epr", 2); }},
        {"ksAmendVideoFrameParam", [](auto h) { return ksAmendVideoFrameParam(h, &param); }},
        {"ksSelectEprFile", [](auto h) { return ksSelectEprFile(h, 2); }},
        {"ksShowAllCustomEEPROM", [](auto h) { return ksShowAllCustomEEPROM(h); }},
        {"ksUploadCameraEprForAutoCalibration",
         [](auto h) { return ksUploadCameraEprForAutoCalibration(h, 1, "dir"); }},
        {"ksBackUpEffectiveEprFile", [](auto h) { return ksBackUpEffectiveEprFile(h, "b.epr"); }},
        {"ksResetCameraToFactoryState", [](auto h) { return ksResetCameraToFactoryState(h); }},
        {"ksCheckNuvexChipStatus", [](auto h) { return ksCheckNuvexChipStatus(h); }},
        {"ksCheckCMOSStatus", [](auto h) { return ksCheckCMOSStatus(h); }},
        {"ksGetRectifyOpticalCenter",
         [](auto h) { return ksGetRectifyOpticalCenter(h, &g_float, &g_float); }},
        {"ksGetRectifyCamParam",
         [](auto h) { return ksGetRectifyCamParam(h, &g_float, &g_float, &g_float); }},
        {"ksWriteNuvexRegisterValue", [](auto h) { return ksWriteNuvexRegisterValue(h, 1, 2); }},
        {"ksReadNuvexRegisterValue", [](auto h) { return ksReadNuvexRegisterValue(h, 1, &g_u16); }},
        {"ksWriteFpgaRegisterValue", [](auto h) { return ksWriteFpgaRegisterValue(h, 1, 2); }},
        {"ksReadFpgaRegisterValue", [](auto h) { return ksReadFpgaRegisterValue(h, 1, &g_u16); }},
        {"ksWriteCmosRegisterValue", [](auto h) { return ksWriteCmosRegisterValue(h, 1, 2); }},
        {"ksReadCmosRegisterValue", [](auto h) { return ksReadCmosRegisterValue(h, 1, &g_u16); }},
        {"ksWriteEEpromAddressValue", [](auto h) { return ksWriteEEpromAddressValue(h, 1, 2); }},
        {"ksReadEEpromAddressValue", [](auto h) { return ksReadEEpromAddressValue(h, 1, &g_u16); }},
        {"ksGetLastestMetaDataPointer",
         [](auto h) { return ksGetLastestMetaDataPointer(h, &meta); }},
    };
}

}  // namespace

TEST(PublicApi, EveryCameraFunctionRefusesANullHandle) {
    testing::internal::CaptureStdout();
    for (const Call& c : all_camera_calls()) EXPECT_EQ(-1, c.call(nullptr)) << c.name;
    std::string printed = testing::internal::GetCapturedStdout();
    // Only three functions announce the invalid handle.
    EXPECT_EQ("Invalid handle\nInvalid handle\n", printed);

    testing::internal::CaptureStdout();
    EXPECT_STREQ("", ksGetImplLevelVersion(nullptr));
    EXPECT_EQ("Invalid handle\n", testing::internal::GetCapturedStdout());
}

TEST(PublicApi, NoExceptionLeavesAWrapper) {
    // A camera that throws from every operation.
    StrictMock<MockCamera>* camera = new StrictMock<MockCamera>;
    auto boom = Throw(std::runtime_error("device fell over"));
    ON_CALL(*camera, is_suspend()).WillByDefault(Return(true));
    EXPECT_CALL(*camera, is_suspend()).Times(testing::AnyNumber());
    // Every int-returning operation throws; collect all mock methods via AnyNumber.
#define KS_THROWS(method, ...) EXPECT_CALL(*camera, method(__VA_ARGS__)).WillRepeatedly(boom)
    KS_THROWS(suspend_camera);
    KS_THROWS(resume_camera);
    KS_THROWS(get_current_frame, _, _);
    KS_THROWS(get_safe_current_frame, _, _);
    KS_THROWS(get_rgbd_image, _, _, _);
    KS_THROWS(get_rgbd_disparity_data, _, _);
    KS_THROWS(get_rgbd_yuvi420_image, _, _);
    KS_THROWS(get_raw_image, _, _, _);
    KS_THROWS(get_raw_left_bayer_image, _, _);
    KS_THROWS(get_raw_right_bayer_image, _, _);
    KS_THROWS(get_rectified_image, _, _, _);
    KS_THROWS(get_rectified_left_gray_image, _, _);
    KS_THROWS(get_rectified_right_yuvi420_image, _, _);
    KS_THROWS(get_rgbd_image_with_timestamp, _, _, _, _);
    KS_THROWS(get_rectified_image_with_timestamp, _, _, _, _);
    KS_THROWS(get_raw_image_with_timestamp, _, _, _, _);
    KS_THROWS(get_bxf_and_base, _, _);
    KS_THROWS(get_imu_data, _);
    KS_THROWS(get_image_channel_from_src_data, _, _);
    KS_THROWS(set_video_mode, _);
    KS_THROWS(get_video_mode, _);
    KS_THROWS(get_supported_video_param, _, _);
    KS_THROWS(set_video_param, _);
    KS_THROWS(get_video_param, _);
    KS_THROWS(get_video_resolution, _, _);
    KS_THROWS(get_realtime_fps, _);
    KS_THROWS(switch_to_origin_disparity);
    KS_THROWS(save_disparity_param, _);
    KS_THROWS(set_disparity_param, _);
    KS_THROWS(auto_optimize_disparity, _);
    KS_THROWS(set_disparity_filter_max_and_min_distance, _, _);
    KS_THROWS(calculate_rect_distance, _);
    KS_THROWS(convert_disparity_to_point_cloud, _, _, _, _, _);
    KS_THROWS(set_search_range, _);
    KS_THROWS(get_search_range, _);
    KS_THROWS(set_line_offset, _);
    KS_THROWS(get_line_offset, _);
    KS_THROWS(set_disp_offset, _);
    KS_THROWS(get_disp_offset, _);
    KS_THROWS(set_line_trim, _, _);
    KS_THROWS(get_line_trim, _, _);
    KS_THROWS(set_exposure, _);
    KS_THROWS(get_exposure, _);
    KS_THROWS(set_camera_gain, _);
    KS_THROWS(set_camera_fps, _);
    KS_THROWS(restore_camera_fps_to_default);
    KS_THROWS(set_filllight_type, _);
    KS_THROWS(get_filllight_type, _);
    KS_THROWS(set_fill_light_intensity, _);
    KS_THROWS(get_fill_light_intensity, _);
    KS_THROWS(get_cmos_type, _, _);
    KS_THROWS(get_ae_stats_values, _);
    KS_THROWS(set_camera_sn, _);
    KS_THROWS(erase_camera_sn);
    KS_THROWS(get_camera_sn, _);
    KS_THROWS(get_usb_version, _);
    KS_THROWS(get_fpga_release_date, _, _, _);
    KS_THROWS(get_fpga_version, _, _);
    KS_THROWS(get_camera_hardware_info, _, _);
    KS_THROWS(get_camera_cmos_swap_mode, _);
    KS_THROWS(upload_fpga_bit_file, _);
    KS_THROWS(upload_epr_file, _, _);
    KS_THROWS(store_epr_file_with_video_frame_param, _, _);
    KS_THROWS(store_epr_file, _, _);
    KS_THROWS(amend_video_frame_param, _);
    KS_THROWS(select_epr_file, _);
    KS_THROWS(show_all_custom_eeprom);
    KS_THROWS(upload_camera_epr_for_auto_calibration, _, _);
    KS_THROWS(back_up_effective_epr_file, _);
    KS_THROWS(reset_camera_to_factory_state);
    KS_THROWS(check_nuvex_chip_status);
    KS_THROWS(check_cmos_status);
    KS_THROWS(get_rectify_optical_center, _, _);
    KS_THROWS(write_nuvex_register_value, _, _);
    KS_THROWS(read_nuvex_register_value, _, _);
    KS_THROWS(write_fpga_register_value, _, _);
    KS_THROWS(read_fpga_register_value, _, _);
    KS_THROWS(write_cmos_register_value, _, _);
    KS_THROWS(read_cmos_register_value, _, _);
    KS_THROWS(write_eeprom_address_value, _, _);
    KS_THROWS(read_eeprom_address_value, _, _);
    KS_THROWS(get_mata_data_pointer);
    KS_THROWS(get_impl_level_version);
#undef KS_THROWS
    for (const Call& c : all_camera_calls()) EXPECT_EQ(-2, c.call(camera)) << c.name;
    EXPECT_STREQ("", ksGetImplLevelVersion(camera));

    bool destroyed = false;
    camera->on_destroy = [&] { destroyed = true; };
    delete camera;
    EXPECT_TRUE(destroyed);
}

TEST(PublicApi, NullArgumentsAreRefusedBeforeTheCamera) {
    StrictMock<MockCamera> camera;  // any call would fail the test
    unsigned long id;
    unsigned char* out;
    float f;
    unsigned short u16;
    unsigned char byte;
    _ks_video_param_s param{};
    EXPECT_EQ(-1, ksGetCurrentFrame(&camera, nullptr, &out));
    EXPECT_EQ(-1, ksGetCurrentFrame(&camera, &id, nullptr));
    EXPECT_EQ(-1, ksGetRGBDImage(&camera, nullptr, &out, &out));
    EXPECT_EQ(-1, ksGetRGBDImage(&camera, g_src, nullptr, &out));
    EXPECT_EQ(-1, ksGetRGBDImage(&camera, g_src, &out, nullptr));
    EXPECT_EQ(-1, ksGetRawImageWithTimestamp(&camera, g_src, &out, nullptr, &id));
    EXPECT_EQ(-1, ksGetBxfAndBase(&camera, &f, nullptr));
    EXPECT_EQ(-1, ksGetLineTrim(&camera, &u16, nullptr));
    EXPECT_EQ(-1, ksGetFpgaReleaseDate(&camera, &byte, &byte, nullptr));
    EXPECT_EQ(-1, ksReadNuvexRegisterValue(&camera, 1, nullptr));
    EXPECT_EQ(-1, ksUploadFpgaBitFile(&camera, ""));
    EXPECT_EQ(-1, ksUploadFpgaBitFile(&camera, nullptr));
    EXPECT_EQ(-1, ksUploadEprFile(&camera, "a.epr", nullptr));
    EXPECT_EQ(-1, ksUploadEprFile(&camera, "", &param));
    EXPECT_EQ(-1, ksStoreEprFileWithVideoFrameParam(&camera, nullptr, &param));
    EXPECT_EQ(-1, ksStoreEprFile(&camera, "", 1));
    EXPECT_EQ(-1, ksAmendVideoFrameParam(&camera, nullptr));
    EXPECT_EQ(-1,
              ksConvertDisparity2PointCloud(&camera, nullptr, nullptr, nullptr, nullptr, nullptr));

    // Exposure above 800 is refused even before the handle is looked at.
    EXPECT_EQ(-1, ksSetExposure(&camera, 801));
    EXPECT_EQ(-1, ksSetExposure(nullptr, 801));

    // Serial numbers: 1 to 16 characters.
    EXPECT_EQ(-1, ksSetCameraSN(&camera, nullptr));
    EXPECT_EQ(-1, ksSetCameraSN(&camera, ""));
    EXPECT_EQ(-1, ksSetCameraSN(&camera, "12345678901234567"));
}

TEST(PublicApi, ResultsAreMappedOrPassedThrough) {
    StrictMock<MockCamera> camera;

    // Standard shape: any non-zero inner result, positive included, becomes -2.
    EXPECT_CALL(camera, set_search_range(7)).WillOnce(Return(0)).WillOnce(Return(5));
    EXPECT_EQ(0, ksSetSearchRange(&camera, 7));
    EXPECT_EQ(-2, ksSetSearchRange(&camera, 7));

    EXPECT_CALL(camera, set_exposure(800)).WillOnce(Return(0));
    EXPECT_EQ(0, ksSetExposure(&camera, 800));

    EXPECT_CALL(camera, set_camera_sn(testing::StrEq("ABCDEFGHIJKLMNOP"))).WillOnce(Return(-7));
    EXPECT_EQ(-2, ksSetCameraSN(&camera, "ABCDEFGHIJKLMNOP"));

    // Pass-through functions hand back the camera layer's own codes.
    EXPECT_CALL(camera, set_camera_fps(15.0f)).WillOnce(Return(-98));
    EXPECT_EQ(-98, ksSetCameraFps(&camera, 15.0f));
    EXPECT_CALL(camera, check_nuvex_chip_status()).WillOnce(Return(3));
    EXPECT_EQ(3, ksCheckNuvexChipStatus(&camera));
    EXPECT_CALL(camera, set_disparity_filter_max_and_min_distance(5.0f, 0.25f))
        .WillOnce(Return(-4));
    EXPECT_EQ(-4, ksSetDisparityFilterDistanceThreshold(&camera, 5.0f, 0.25f));
    EXPECT_CALL(camera, get_rgbd_image_with_timestamp(g_src, _, _, nullptr)).WillOnce(Return(9));
    unsigned char* a = nullptr;
    unsigned char* b = nullptr;
    EXPECT_EQ(9, ksGetRGBDImageWithTimestamp(&camera, g_src, &a, &b, nullptr));
    EXPECT_CALL(camera, read_eeprom_address_value(0x1234, nullptr)).WillOnce(Return(-3));
    EXPECT_EQ(-3, ksReadEEpromAddressValue(&camera, 0x1234, nullptr));

    // Register values and slots pass through at full width.
    EXPECT_CALL(camera, write_nuvex_register_value(0xF0A5, 0xBEEF)).WillOnce(Return(0));
    EXPECT_EQ(0, ksWriteNuvexRegisterValue(&camera, 0xF0A5, 0xBEEF));
    EXPECT_CALL(camera, set_line_trim(1000, 65535)).WillOnce(Return(0));
    EXPECT_EQ(0, ksSetLineTrim(&camera, 1000, 65535));
}

TEST(PublicApi, OutputsAreClearedBeforeTheCameraIsAsked) {
    StrictMock<MockCamera> camera;
    unsigned char stale = 0;
    unsigned char* disparity = &stale;
    unsigned char* image = &stale;

    // On failure the caller is left with null outputs.
    EXPECT_CALL(camera, get_rgbd_image(g_src, &disparity, &image))
        .WillOnce([&](unsigned char*, unsigned char** d, unsigned char** i) {
            EXPECT_EQ(nullptr, *d);
            EXPECT_EQ(nullptr, *i);
            return -1;
        });
    EXPECT_EQ(-2, ksGetRGBDImage(&camera, g_src, &disparity, &image));
    EXPECT_EQ(nullptr, disparity);
    EXPECT_EQ(nullptr, image);

    unsigned char* left = &stale;
    unsigned char* right = &stale;
    EXPECT_CALL(camera, get_raw_image_with_timestamp(g_src, &left, &right, _)).WillOnce(Return(0));
    EXPECT_EQ(0, ksGetRawImageWithTimestamp(&camera, g_src, &left, &right, nullptr));
    EXPECT_EQ(nullptr, left);
    EXPECT_EQ(nullptr, right);

    // The rectified variant with timestamp leaves the caller's pointers alone.
    left = right = &stale;
    EXPECT_CALL(camera, get_rectified_image_with_timestamp(g_src, &left, &right, _))
        .WillOnce(Return(0));
    EXPECT_EQ(0, ksGetRectifiedImageWithTimestamp(&camera, g_src, &left, &right, nullptr));
    EXPECT_EQ(&stale, left);

    unsigned short* meta = nullptr;
    unsigned short line[4];
    EXPECT_CALL(camera, get_mata_data_pointer()).WillOnce(Return(line));
    EXPECT_EQ(0, ksGetLastestMetaDataPointer(&camera, &meta));
    EXPECT_EQ(line, meta);
}

TEST(PublicApi, ResumeOnlyWakesASuspendedCamera) {
    StrictMock<MockCamera> camera;
    EXPECT_CALL(camera, is_suspend()).WillOnce(Return(false));
    EXPECT_EQ(0, ksResumeCamera(&camera));  // resume_camera is never called

    EXPECT_CALL(camera, is_suspend()).WillRepeatedly(Return(true));
    EXPECT_CALL(camera, resume_camera()).WillOnce(Return(0)).WillOnce(Return(-1));
    EXPECT_EQ(0, ksResumeCamera(&camera));
    EXPECT_EQ(-2, ksResumeCamera(&camera));

    EXPECT_CALL(camera, suspend_camera()).WillOnce(Return(4));
    EXPECT_EQ(-2, ksSuspendCamera(&camera));
}

TEST(PublicApi, RectifyCameraParametersComeFromTheCentreAndTheStereoConstants) {
    StrictMock<MockCamera> camera;
    float focal = -1.0f;
    float cx = 0.0f;
    float cy = 0.0f;

    EXPECT_CALL(camera, get_rectify_optical_center(&cx, &cy)).WillOnce(Return(1));
    EXPECT_EQ(-2, ksGetRectifyCamParam(&camera, &focal, &cx, &cy));

    EXPECT_CALL(camera, get_rectify_optical_center(&cx, &cy)).WillRepeatedly(Return(0));
    EXPECT_CALL(camera, get_bxf_and_base(_, _)).WillOnce(Return(-1));
    EXPECT_EQ(-3, ksGetRectifyCamParam(&camera, &focal, &cx, &cy));
    EXPECT_EQ(-1.0f, focal);

    EXPECT_CALL(camera, get_bxf_and_base(_, _))
        .WillOnce(DoAll(SetArgPointee<0>(50000.0f), SetArgPointee<1>(60.0f), Return(0)));
    EXPECT_EQ(0, ksGetRectifyCamParam(&camera, &focal, &cx, &cy));
    EXPECT_FLOAT_EQ(50000.0f / 60.0f, focal);
}

TEST(PublicApi, VersionsAndLogSwitches) {
    EXPECT_STREQ("1.4.7.273", ksGetSdkVersion());

    StrictMock<MockCamera> camera;
    EXPECT_CALL(camera, get_impl_level_version()).WillOnce(Return("1.7.6.303"));
    EXPECT_STREQ("1.7.6.303", ksGetImplLevelVersion(&camera));
}
