#include "tools/kscam/frames.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

#include "tools/kscam/images.h"

namespace kscam {

Geometry read_geometry(KSCameraAbstract* h) {
    Geometry g;
    unsigned short width = 0, height = 0;
    if (ksGetVideoResolution(h, &width, &height) == 0 && width > 0 && height > 0) {
        g.width = width;
        g.height = height;
    }
    float bxf = 0, base = 0;
    if (ksGetBxfAndBase(h, &bxf, &base) == 0 && bxf > 0 && base > 0) {
        g.bxf = bxf;
        g.baseline = base;
    }
    return g;
}

int read_rgbd(KSCameraAbstract* h, unsigned char* src, const Geometry& g, FrameImages* out) {
    unsigned char* disparity = nullptr;
    unsigned char* image = nullptr;
    unsigned long timestamp = 0;
    int r = ksGetRGBDImageWithTimestamp(h, src, &disparity, &image, &timestamp);
    if (r != 0) {
        timestamp = 0;
        r = ksGetRGBDImage(h, src, &disparity, &image);
    }
    if (r != 0 || disparity == nullptr || image == nullptr) return r != 0 ? r : -2;
    out->disparity = reinterpret_cast<const uint16_t*>(disparity);
    out->image = image;
    out->timestamp = timestamp;
    return 0;
}

double distance_around_mm(const uint16_t* disparity, const Geometry& g, unsigned x, unsigned y,
                          unsigned radius) {
    if (disparity == nullptr || g.bxf <= 0) return 0;
    std::vector<uint16_t> valid;
    const unsigned x0 = x > radius ? x - radius : 0, y0 = y > radius ? y - radius : 0;
    const unsigned x1 = std::min(g.width - 1, x + radius), y1 = std::min(g.height - 1, y + radius);
    for (unsigned yy = y0; yy <= y1; ++yy)
        for (unsigned xx = x0; xx <= x1; ++xx) {
            const uint16_t d = disparity[static_cast<size_t>(yy) * g.width + xx] & kDisparityMask;
            if (d != 0) valid.push_back(d);
        }
    if (valid.empty()) return 0;
    std::nth_element(valid.begin(), valid.begin() + valid.size() / 2, valid.end());
    return disparity_distance_mm(valid[valid.size() / 2], g.bxf);
}

double centre_distance_mm(const uint16_t* disparity, const Geometry& g) {
    return distance_around_mm(disparity, g, g.width / 2, g.height / 2, 4);
}

int channel_of_mode(_ks_video_mode_e mode) {
    switch (mode) {
        case KS_VIDEO_MODE_STEREO_ORIGIN:
            return 0;
        case KS_VIDEO_MODE_STEREO_RECTIFIED:
            return 2;
        case KS_VIDEO_MODE_RGBD:
            return 5;
        default:
            return 10;
    }
}

unsigned char* wait_for_mode_frame(Camera& camera, _ks_video_mode_e mode, unsigned long* id) {
    KSCameraAbstract* h = camera.handle();
    Host& host = camera.host();
    // A new channel may need the camera to restart its pipeline: the bound is
    // for a camera that stopped, not a slow one.
    const uint64_t deadline = host.now_us() + 30000000;
    unsigned long last = 0;
    bool first = true;
    while (host.now_us() < deadline) {
        unsigned long frame_id = 0;
        unsigned char* src = nullptr;
        if (ksGetCurrentFrame(h, &frame_id, &src) != 0 || src == nullptr) {
            usleep(1000);
            continue;
        }
        if (!first && frame_id == last) continue;
        first = false;
        last = frame_id;
        unsigned char code = 0;
        if (ksGetImageChannelFromSrcData(h, src, &code) == channel_of_mode(mode)) {
            *id = frame_id;
            return src;
        }
    }
    throw CameraError(std::string("no frame of the ") + video_mode_name(mode) +
                      " mode arrived within 30 s");
}

void prepare_stream(Camera& camera, const std::string& mode_name, int slot, double fps) {
    KSCameraAbstract* h = camera.handle();
    if (slot >= 0) {
        _ks_video_param_s* list = nullptr;
        unsigned char count = 0;
        check(ksQuerySupportedVideoParam(h, &list, &count), "listing the stream configurations");
        // Selecting a slot power-cycles the camera's stereo chip.
        const int r =
            run_with_progress(camera.host(), "Selecting slot " + std::to_string(slot), 20,
                              [&] { return ksSetVideoParam(h, static_cast<unsigned char>(slot)); });
        check(r, "selecting stream configuration " + std::to_string(slot));
    }
    if (fps > 0) check(ksSetCameraFps(h, static_cast<float>(fps)), "setting the frame rate");
    if (!mode_name.empty()) {
        _ks_video_mode_e mode;
        if (!parse_video_mode(mode_name, &mode))
            throw UsageError("no video mode \"" + mode_name + "\"");
        check(ksSetVideoMode(h, mode), std::string("switching to the ") + mode_name + " mode");
        unsigned long id = 0;
        wait_for_mode_frame(camera, mode, &id);
    }
}

}  // namespace kscam
