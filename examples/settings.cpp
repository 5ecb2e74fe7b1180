// Reads the first camera's settings, changes a few and reads them back.
#include <ksStereoCameraDriver.h>

#include <cstdio>

namespace {

void show(KSCameraAbstract* camera) {
    unsigned char range = 0, intensity = 0;
    float disparity_offset = 0, line_offset = 0;
    unsigned short left = 0, right = 0;
    _ks_video_mode_e mode = KS_VIDEO_MODE_RGBD;
    ksGetVideoMode(camera, &mode);
    ksGetSearchRange(camera, &range);
    ksGetDispOffset(camera, &disparity_offset);
    ksGetLineOffset(camera, &line_offset);
    ksGetLineTrim(camera, &left, &right);
    ksGetFillLightIntensity(camera, &intensity);
    std::printf(
        "video mode %d, search range %u, disparity offset %.3f, line offset %.1f, "
        "trims %u/%u, fill light %u\n",
        static_cast<int>(mode), range, disparity_offset, line_offset, left, right, intensity);
}

// Every function returns 0 on success, -1 for a bad argument, -2 when the
// camera refused.
bool ok(int result, const char* what) {
    if (result != 0) std::printf("%s failed (%d)\n", what, result);
    return result == 0;
}

}  // namespace

int main() {
    _ks_camera_list* list = nullptr;
    if (ksQueryCameraList(&list) != 0 || list == nullptr || list->count == 0) {
        std::printf("no camera found\n");
        return 1;
    }
    KSCameraAbstract* camera = nullptr;
    const int r = ksOpenUVCCameraByPath(list->cameras[0].video_dev, &camera);
    ksReleaseCameraList(list);
    if (r != 0) return 1;

    std::printf("before: ");
    show(camera);
    const bool all = ok(ksSetExposure(camera, 400), "exposure") &&
                     ok(ksSetCameraGain(camera, 16), "gain") &&
                     ok(ksSetSearchRange(camera, 2), "search range") &&
                     ok(ksSetDispOffset(camera, 1.5f), "disparity offset") &&
                     ok(ksSetLineTrim(camera, 4, 8), "trims") &&
                     ok(ksSetFillLightIntensity(camera, 60), "fill-light intensity") &&
                     ok(ksSetFilllightType(camera, KS_FILLLIGHT_TYPE_CTRL_MODE_1), "fill light");
    std::printf("after:  ");
    show(camera);
    // Values out of range are refused before they reach the camera.
    std::printf("exposure 900: %d\n", ksSetExposure(camera, 900));
    ksCloseCamera(&camera);
    return all ? 0 : 1;
}
