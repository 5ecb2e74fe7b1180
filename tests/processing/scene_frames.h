// Frames of the virtual camera's scenes as the library's RGBD parser hands
// them to the processing: the grey (luma) plane and the disparity plane
// (output row 0 empty, row y from source line y + 3, the last three rows
// not written), with the scene's ground truth per pixel.
#ifndef KS_TEST_SCENE_FRAMES_H
#define KS_TEST_SCENE_FRAMES_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "sim/kssim.h"

struct SceneFrame {
    uint16_t width = 0;
    uint16_t height = 0;
    float bxf = 0.0f;
    float baseline = 0.0f;
    std::vector<uint8_t> grey;
    std::vector<uint16_t> disparity;
    std::vector<double> truth_mm;  // depth along the optical axis, 0: nothing
};

// channel: KSSIM_CHANNEL_ORIGIN_DISPARITY (raw, with holes and speckles) or
// KSSIM_CHANNEL_RGBD (processed). Returns false when the camera cannot be
// made.
inline bool render_scene_frame(kssim_scene_kind kind, double distance_mm, uint16_t width,
                               uint16_t height, uint8_t channel, bool with_truth, SceneFrame* out) {
    kssim_world* world = kssim_world_create();
    if (world == nullptr) return false;
    kssim_camera_config cfg;
    kssim_camera_config_init(&cfg);
    cfg.scene.kind = kind;
    cfg.scene.distance_mm = distance_mm;
    cfg.scene.seed = 7;
    cfg.initial_size.width = width;
    cfg.initial_size.height = height;
    cfg.output_channel = channel;
    cfg.has_imu = 0;
    kssim_camera* cam = kssim_world_add_camera(world, &cfg);
    if (cam == nullptr) {
        kssim_world_destroy(world);
        return false;
    }
    const size_t pixels = static_cast<size_t>(width) * height;
    std::vector<uint8_t> src(pixels * 3);
    if (kssim_camera_produce_frame(cam, src.data(), src.size()) != static_cast<long>(src.size())) {
        kssim_world_destroy(world);
        return false;
    }
    out->width = width;
    out->height = height;
    out->bxf = static_cast<float>(cfg.bxf);
    out->baseline = static_cast<float>(cfg.baseline);
    out->grey.assign(pixels, 0);
    out->disparity.assign(pixels, 0);
    for (size_t i = 0; i < pixels; ++i) out->grey[i] = src[3 * i + 2];
    for (size_t line = 4; line < height; ++line) {
        for (size_t x = 0; x < width; ++x) {
            const uint8_t* p = &src[3 * (line * width + x)];
            out->disparity[(line - 3) * width + x] =
                static_cast<uint16_t>(((p[1] & 0x0F) << 8) | p[0]);
        }
    }
    out->truth_mm.assign(with_truth ? pixels : 0, 0.0);
    if (with_truth) {
        for (uint32_t y = 0; y < height; ++y)
            for (uint32_t x = 0; x < width; ++x)
                kssim_camera_true_distance(cam, x, y, &out->truth_mm[y * width + x]);
    }
    kssim_world_destroy(world);
    return true;
}

#endif
