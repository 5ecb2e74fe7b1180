// KSCamera with the transport stubbed out: the stereo geometry, resolution
// and offsets are whatever the input says.
#ifndef KS_FUZZ_CAMERA_H
#define KS_FUZZ_CAMERA_H

#include <cstdint>

#include "tests/support/stub_camera.h"

class FuzzCamera : public StubTransportCamera {
  public:
    float bxf = 0.0f, base = 0.0f, line_offset = 0.0f, disp_offset = 0.0f;
    uint16_t width = 0, height = 0;

    int get_bxf_and_base(float* b, float* bl) override {
        *b = bxf;
        *bl = base;
        return 0;
    }
    int get_video_resolution(uint16_t* w, uint16_t* h) override {
        *w = width;
        *h = height;
        return 0;
    }
    int get_line_offset(float* v) override {
        *v = line_offset;
        return 0;
    }
    int get_disp_offset(float* v) override {
        *v = disp_offset;
        return 0;
    }
    int set_line_offset(float v) override {
        line_offset = v;
        return 0;
    }
    int set_disp_offset(float v) override {
        disp_offset = v;
        return 0;
    }
};

#endif
