// Cameras for the host-processing tests: KSCamera with the transport's
// operations stubbed out, and one whose geometry, resolution and offsets the
// test sets.
#ifndef KS_TEST_PROCESSING_CAMERA_H
#define KS_TEST_PROCESSING_CAMERA_H

#include <cstdint>
#include <vector>

#include "tests/support/stub_camera.h"

// Every getter the processing needs stays at KSCamera's "not supported".
class BaseOnlyCamera : public StubTransportCamera {
  public:
    const float* depth_table() const { return m_depth_table.data(); }
    uint16_t max_limit() const { return m_max_disparity_limit; }
    uint16_t min_limit() const { return m_min_disparity_limit; }
    float small_region_threshold() const { return m_small_region_ratio_threshold; }
    uint8_t dense_valid() const { return m_dense_valid_flag; }
    uint32_t dense_start_offset() const { return m_dense_start_offset; }
    void set_image_size(uint16_t w, uint16_t h) { m_image_width = w, m_image_height = h; }
};

// A non-zero *_result makes that getter or setter fail with it.
class ProcessingCamera : public BaseOnlyCamera {
  public:
    float bxf = 30000.0f, base = 60.0f, line_offset = 0.0f, disp_offset = 0.0f;
    uint16_t width = 640, height = 480;
    int bxf_result = 0, resolution_result = 0, line_get_result = 0, disp_get_result = 0;
    int line_set_result = 0, disp_set_result = 0, bxf_calls = 0, line_get_calls = 0;
    std::vector<float> line_set_calls, disp_set_calls;

    int get_bxf_and_base(float* b, float* bl) override {
        ++bxf_calls;
        if (bxf_result == 0) *b = bxf, *bl = base;
        return bxf_result;
    }
    int get_video_resolution(uint16_t* w, uint16_t* h) override {
        if (resolution_result == 0) *w = width, *h = height;
        return resolution_result;
    }
    int get_line_offset(float* v) override {
        ++line_get_calls;
        return get(line_get_result, line_offset, v);
    }
    int get_disp_offset(float* v) override { return get(disp_get_result, disp_offset, v); }
    int set_line_offset(float v) override {
        return set(line_set_result, line_set_calls, v, &line_offset);
    }
    int set_disp_offset(float v) override {
        return set(disp_set_result, disp_set_calls, v, &disp_offset);
    }

  private:
    static int get(int result, float value, float* out) {
        if (result == 0) *out = value;
        return result;
    }
    static int set(int result, std::vector<float>& calls, float v, float* field) {
        calls.push_back(v);
        if (result == 0) *field = v;
        return result;
    }
};

#endif
