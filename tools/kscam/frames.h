// Frames and their images, shared by stream and capture.
#ifndef KSCAM_FRAMES_H
#define KSCAM_FRAMES_H

#include <cstdint>
#include <string>

#include "tools/kscam/kscam.h"

namespace kscam {

struct Geometry {
    unsigned width = 1280, height = 720;
    double bxf = 0, baseline = 0;  // 0: unknown
};
Geometry read_geometry(KSCameraAbstract* h);

// Image A (I420) and the disparity of one RGBD frame, in the library's
// buffers, and the frame's camera timestamp (0 when not given).
struct FrameImages {
    const uint16_t* disparity = nullptr;
    const uint8_t* image = nullptr;
    unsigned long timestamp = 0;
};
// 0, or the library's result.
int read_rgbd(KSCameraAbstract* h, unsigned char* src, const Geometry& g, FrameImages* out);

// Distance at the image centre: the median valid disparity of the 9 x 9
// pixels there; 0 when none is valid or the constants are unknown.
double centre_distance_mm(const uint16_t* disparity, const Geometry& g);
// The same around any pixel of the disparity image.
double distance_around_mm(const uint16_t* disparity, const Geometry& g, unsigned x, unsigned y,
                          unsigned radius);

// The disparity image runs this many lines ahead of image A: its line y was
// measured on line y + 3 of the image.
constexpr unsigned kDisparityLineLead = 3;

// Sets frame rate, stream configuration and video mode as asked (empty,
// -1, 0: left as they are) and waits until frames of that mode arrive.
void prepare_stream(Camera& camera, const std::string& mode, int slot, double fps);

// The channel the library reads from a frame for a video mode.
int channel_of_mode(_ks_video_mode_e mode);
// Waits for a new frame of the mode's channel (bounded); its source data.
unsigned char* wait_for_mode_frame(Camera& camera, _ks_video_mode_e mode, unsigned long* id);

}  // namespace kscam

#endif
