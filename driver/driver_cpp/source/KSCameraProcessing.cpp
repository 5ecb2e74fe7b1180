// Host-side disparity processing of KSCamera. Until the processing pipeline
// lands, each operation checks its arguments and reports that it could not
// run, so callers see a clean failure instead of a crash.
#include "driver/driver_cpp/source/KSCamera.h"

int KSCamera::calculate_rect_distance(_ks_rect_distance_info_s* info) {
    if (info == nullptr || info->disparity == nullptr || info->width == 0 || info->height == 0)
        return -1;
    return -2;
}

int KSCamera::convert_disparity_to_point_cloud(const uint16_t* disparity, uint32_t* count,
                                               float** x, float** y, float** z) {
    if (disparity == nullptr || count == nullptr || x == nullptr || y == nullptr || z == nullptr)
        return -1;
    *count = 0;
    *x = *y = *z = nullptr;
    return -2;
}

int KSCamera::save_disparity_param(const char* file) {
    return -1;
}
int KSCamera::set_disparity_param(const char* file) {
    return -1;
}
int KSCamera::set_disparity_filter_max_and_min_distance(float max_distance, float min_distance) {
    return -1;
}
