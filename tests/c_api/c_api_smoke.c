/* A C99 program that knows nothing but the public header and the shared
 * library: the interface must be usable from plain C. */
#include <stdio.h>
#include <string.h>

#include "ksStereoCameraDriver.h"

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

int main(void) {
    KSCameraHandle camera = NULL;
    unsigned long frame_id = 0;
    unsigned char* frame = NULL;
    _ks_video_mode_e mode = KS_VIDEO_MODE_RGBD;
    _ks_video_param_s param;
    _ks_rect_distance_info_s rect;
    _ks_imu_data_set_s* imu = NULL;

    memset(&param, 0, sizeof param);
    memset(&rect, 0, sizeof rect);

    CHECK(strcmp(ksGetSdkVersion(), "1.4.7.273") == 0);
    CHECK(sizeof(_ks_video_param_s) == 8);
    CHECK(sizeof(_ks_imu_data_set_s) == 72);

    CHECK(ksOpenMIPICameraByNumber(0, &camera) == -2 && camera == NULL);
    CHECK(ksOpenEthernetCameraByIp("192.0.2.1", &camera) == -2 && camera == NULL);
    CHECK(ksCloseCamera(&camera) == -1);
    CHECK(ksGetCurrentFrame(camera, &frame_id, &frame) == -1);
    CHECK(ksSetVideoMode(camera, KS_VIDEO_MODE_FILTERED_DISPARITY) == -1);
    CHECK(ksGetVideoMode(camera, &mode) == -1);
    CHECK(ksUploadEprFile(camera, "x.epr", &param) == -1);
    CHECK(ksCalculateRectDistance(camera, &rect) == -1);
    CHECK(ksGetIMUData(camera, &imu) == -1);
    CHECK(ksSetExposure(camera, 801) == -1);

    ksOpenSDKLog(4);
    ksCloseSDKLog();

    if (failures == 0) printf("C interface: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
