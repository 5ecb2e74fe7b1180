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
using ::testing::DefaultValue;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgPointee;
using ::testing::StrictMock;

namespace {

// Outputs and inputs for the wrappers' calls.
unsigned char g_byte = 0, g_src[64], *g_ptr = nullptr;
unsigned short g_u16 = 0, g_disparity[4], *g_meta = nullptr;
float g_float = 0, *g_floats = nullptr;
double g_double = 0;
unsigned long g_ulong = 0;
unsigned int g_uint = 0, *g_ae = nullptr;
char g_text[64];
const char* g_name = nullptr;
_ks_imu_data_set_s* g_imu = nullptr;
_ks_video_param_s g_param{}, *g_params = nullptr;
_ks_rect_distance_info_s g_rect{};
_ks_video_mode_e g_mode;
_ks_filllight_type_e g_light;

struct Call {
    const char* name;
    std::function<int(KSCameraAbstract*)> call;
};

// One table entry: the wrapper's name and its call with the arguments given
// (the handle is h).
#define KS_CALL(fn, args) (Call{#fn, [](KSCameraAbstract* h) { return fn args; }})

// Every per-camera function that returns an int, called with valid arguments.
std::vector<Call> all_camera_calls() {
    return {
        KS_CALL(ksSuspendCamera, (h)),
        KS_CALL(ksResumeCamera, (h)),
        KS_CALL(ksGetCurrentFrame, (h, &g_ulong, &g_ptr)),
        KS_CALL(ksGetSafeCurrentFrame, (h, &g_ulong, &g_ptr)),
        KS_CALL(ksGetRGBDImage, (h, g_src, &g_ptr, &g_ptr)),
        KS_CALL(ksGetRGBDDisparityData, (h, g_src, &g_ptr)),
        KS_CALL(ksGetRGBDYUVI420Image, (h, g_src, &g_ptr)),
        KS_CALL(ksGetRawImage, (h, g_src, &g_ptr, &g_ptr)),
        KS_CALL(ksGetRawLeftBayerImage, (h, g_src, &g_ptr)),
        KS_CALL(ksGetRawRightBayerImage, (h, g_src, &g_ptr)),
        KS_CALL(ksGetRectifiedImage, (h, g_src, &g_ptr, &g_ptr)),
        KS_CALL(ksGetRectifiedLeftGrayImage, (h, g_src, &g_ptr)),
        KS_CALL(ksGetRectifiedRightYUVI420Image, (h, g_src, &g_ptr)),
        KS_CALL(ksGetRGBDImageWithTimestamp, (h, g_src, &g_ptr, &g_ptr, &g_ulong)),
        KS_CALL(ksGetRectifiedImageWithTimestamp, (h, g_src, &g_ptr, &g_ptr, &g_ulong)),
        KS_CALL(ksGetRawImageWithTimestamp, (h, g_src, &g_ptr, &g_ptr, &g_ulong)),
        KS_CALL(ksGetBxfAndBase, (h, &g_float, &g_float)),
        KS_CALL(ksGetIMUData, (h, &g_imu)),
        KS_CALL(ksGetImageChannelFromSrcData, (h, g_src, &g_byte)),
        KS_CALL(ksSetVideoMode, (h, KS_VIDEO_MODE_RGBD)),
        KS_CALL(ksGetVideoMode, (h, &g_mode)),
        KS_CALL(ksQuerySupportedVideoParam, (h, &g_params, &g_byte)),
        KS_CALL(ksSetVideoParam, (h, 1)),
        KS_CALL(ksGetVideoParam, (h, &g_byte)),
        KS_CALL(ksGetVideoResolution, (h, &g_u16, &g_u16)),
        KS_CALL(ksGetRealTimeFPS, (h, &g_double)),
        KS_CALL(ksSwitchToOriginDisparity, (h)),
        KS_CALL(ksSaveDisparityParam, (h, "p.txt")),
        KS_CALL(ksSetDisparityParam, (h, "p.txt")),
        KS_CALL(ksAutoOptimizeDisparity, (h, 1.0f)),
        KS_CALL(ksSetDisparityFilterDistanceThreshold, (h, 5.0f, 0.2f)),
        KS_CALL(ksCalculateRectDistance, (h, &g_rect)),
        KS_CALL(ksConvertDisparity2PointCloud,
                (h, g_disparity, &g_uint, &g_floats, &g_floats, &g_floats)),
        KS_CALL(ksSetSearchRange, (h, 3)),
        KS_CALL(ksGetSearchRange, (h, &g_byte)),
        KS_CALL(ksSetLineOffset, (h, 0.5f)),
        KS_CALL(ksGetLineOffset, (h, &g_float)),
        KS_CALL(ksSetDispOffset, (h, 0.5f)),
        KS_CALL(ksGetDispOffset, (h, &g_float)),
        KS_CALL(ksSetLineTrim, (h, 1, 2)),
        KS_CALL(ksGetLineTrim, (h, &g_u16, &g_u16)),
        KS_CALL(ksSetExposure, (h, 100)),
        KS_CALL(ksGetExposure, (h, &g_u16)),
        KS_CALL(ksSetCameraGain, (h, 2)),
        KS_CALL(ksSetCameraFps, (h, 30.0f)),
        KS_CALL(ksRestoreCameraFpsToDefault, (h)),
        KS_CALL(ksSetFilllightType, (h, KS_FILLLIGHT_TYPE_CTRL_MODE_1)),
        KS_CALL(ksGetFilllightType, (h, &g_light)),
        KS_CALL(ksSetFillLightIntensity, (h, 9)),
        KS_CALL(ksGetFillLightIntensity, (h, &g_byte)),
        KS_CALL(ksGetCmosType, (h, &g_byte, &g_name)),
        KS_CALL(ksGetLastestAeStatValues, (h, &g_ae)),
        KS_CALL(ksSetCameraSN, (h, "SN123")),
        KS_CALL(ksEraseCameraSN, (h)),
        KS_CALL(ksGetCameraSN, (h, g_text)),
        KS_CALL(ksGetUsbVersion, (h, g_text)),
        KS_CALL(ksGetFpgaReleaseDate, (h, &g_byte, &g_byte, &g_byte)),
        KS_CALL(ksGetFpgaVersion, (h, &g_byte, &g_byte)),
        KS_CALL(ksGetCameraHardwareInfo, (h, &g_byte, &g_byte)),
        KS_CALL(ksGetCameraCMOSSwapMode, (h, &g_byte)),
        KS_CALL(ksUploadFpgaBitFile, (h, "f.bit")),
        KS_CALL(ksUploadEprFile, (h, "a.epr", &g_param)),
        KS_CALL(ksStoreEprFileWithVideoFrameParam, (h, "a.epr", &g_param)),
        KS_CALL(ksStoreEprFile, (h, "a.epr", 2)),
        KS_CALL(ksAmendVideoFrameParam, (h, &g_param)),
        KS_CALL(ksSelectEprFile, (h, 2)),
        KS_CALL(ksShowAllCustomEEPROM, (h)),
        KS_CALL(ksUploadCameraEprForAutoCalibration, (h, 1, "dir")),
        KS_CALL(ksBackUpEffectiveEprFile, (h, "b.epr")),
        KS_CALL(ksResetCameraToFactoryState, (h)),
        KS_CALL(ksCheckNuvexChipStatus, (h)),
        KS_CALL(ksCheckCMOSStatus, (h)),
        KS_CALL(ksGetRectifyOpticalCenter, (h, &g_float, &g_float)),
        KS_CALL(ksGetRectifyCamParam, (h, &g_float, &g_float, &g_float)),
        KS_CALL(ksWriteNuvexRegisterValue, (h, 1, 2)),
        KS_CALL(ksReadNuvexRegisterValue, (h, 1, &g_u16)),
        KS_CALL(ksWriteFpgaRegisterValue, (h, 1, 2)),
        KS_CALL(ksReadFpgaRegisterValue, (h, 1, &g_u16)),
        KS_CALL(ksWriteCmosRegisterValue, (h, 1, 2)),
        KS_CALL(ksReadCmosRegisterValue, (h, 1, &g_u16)),
        KS_CALL(ksWriteEEpromAddressValue, (h, 1, 2)),
        KS_CALL(ksReadEEpromAddressValue, (h, 1, &g_u16)),
        KS_CALL(ksGetLastestMetaDataPointer, (h, &g_meta)),
    };
}
#undef KS_CALL

}  // namespace

TEST(PublicApi, NullHandlesAreRefusedAndNoExceptionLeavesAWrapper) {
    testing::internal::CaptureStdout();
    for (const Call& c : all_camera_calls()) EXPECT_EQ(-1, c.call(nullptr)) << c.name;
    std::string printed = testing::internal::GetCapturedStdout();
    // Only three functions announce the invalid handle.
    EXPECT_EQ("Invalid handle\nInvalid handle\n", printed);
    testing::internal::CaptureStdout();
    EXPECT_STREQ("", ksGetImplLevelVersion(nullptr));
    EXPECT_EQ("Invalid handle\n", testing::internal::GetCapturedStdout());

    // Every operation of the camera throws (a suspended camera, so that resume
    // reaches the camera too).
    DefaultValue<int>::SetFactory([]() -> int { throw std::runtime_error("fell over"); });
    DefaultValue<const char*>::SetFactory(
        []() -> const char* { throw std::runtime_error("fell over"); });
    DefaultValue<unsigned short*>::SetFactory(
        []() -> unsigned short* { throw std::runtime_error("fell over"); });
    {
        testing::NiceMock<MockCamera> camera;
        ON_CALL(camera, is_suspend()).WillByDefault(Return(true));
        for (const Call& c : all_camera_calls()) EXPECT_EQ(-2, c.call(&camera)) << c.name;
        EXPECT_STREQ("", ksGetImplLevelVersion(&camera));
    }
    DefaultValue<int>::Clear();
    DefaultValue<const char*>::Clear();
    DefaultValue<unsigned short*>::Clear();
}

TEST(PublicApi, NullArgumentsAreRefusedBeforeTheCamera) {
    StrictMock<MockCamera> camera;  // any call would fail the test
    EXPECT_EQ(-1, ksGetCurrentFrame(&camera, nullptr, &g_ptr));
    EXPECT_EQ(-1, ksGetCurrentFrame(&camera, &g_ulong, nullptr));
    EXPECT_EQ(-1, ksGetRGBDImage(&camera, nullptr, &g_ptr, &g_ptr));
    EXPECT_EQ(-1, ksGetRGBDImage(&camera, g_src, nullptr, &g_ptr));
    EXPECT_EQ(-1, ksGetRGBDImage(&camera, g_src, &g_ptr, nullptr));
    EXPECT_EQ(-1, ksGetRawImageWithTimestamp(&camera, g_src, &g_ptr, nullptr, &g_ulong));
    EXPECT_EQ(-1, ksGetBxfAndBase(&camera, &g_float, nullptr));
    EXPECT_EQ(-1, ksGetLineTrim(&camera, &g_u16, nullptr));
    EXPECT_EQ(-1, ksGetFpgaReleaseDate(&camera, &g_byte, &g_byte, nullptr));
    EXPECT_EQ(-1, ksReadNuvexRegisterValue(&camera, 1, nullptr));
    EXPECT_EQ(-1, ksUploadFpgaBitFile(&camera, ""));
    EXPECT_EQ(-1, ksUploadFpgaBitFile(&camera, nullptr));
    EXPECT_EQ(-1, ksUploadEprFile(&camera, "a.epr", nullptr));
    EXPECT_EQ(-1, ksUploadEprFile(&camera, "", &g_param));
    EXPECT_EQ(-1, ksStoreEprFileWithVideoFrameParam(&camera, nullptr, &g_param));
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

    EXPECT_CALL(camera, get_impl_level_version()).WillOnce(Return("1.7.6.303"));
    EXPECT_STREQ("1.7.6.303", ksGetImplLevelVersion(&camera));

    // Resume only wakes a suspended camera.
    EXPECT_CALL(camera, is_suspend()).WillOnce(Return(false));
    EXPECT_EQ(0, ksResumeCamera(&camera));  // resume_camera is never called
    EXPECT_CALL(camera, is_suspend()).WillRepeatedly(Return(true));
    EXPECT_CALL(camera, resume_camera()).WillOnce(Return(0)).WillOnce(Return(-1));
    EXPECT_EQ(0, ksResumeCamera(&camera));
    EXPECT_EQ(-2, ksResumeCamera(&camera));

    // The rectified camera's focal length comes from the stereo constants, once
    // the optical centre is known.
    float focal = -1.0f, cx = 0.0f, cy = 0.0f;
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
