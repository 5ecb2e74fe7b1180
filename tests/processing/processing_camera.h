// Cameras for the host-processing tests: KSCamera with the operations a
// transport must supply stubbed out, and one whose stereo constants,
// resolution and offsets the test sets.
#ifndef KS_TEST_PROCESSING_CAMERA_H
#define KS_TEST_PROCESSING_CAMERA_H

#include <cstdint>
#include <vector>

#include "tests/support/stub_camera.h"

// Only the operations KSCamera leaves pure: every getter the processing
// needs stays at KSCamera's "not supported" default.
class BaseOnlyCamera : public StubTransportCamera {
  public:
    // The processing state, for the tests to look at.
    float focal_field() const { return m_focal; }
    const float* depth_table() const { return m_depth_table.data(); }
    const float* lateral_table() const { return m_lateral_table.data(); }
    uint16_t max_limit() const { return m_max_disparity_limit; }
    uint16_t min_limit() const { return m_min_disparity_limit; }
    float small_region_threshold() const { return m_small_region_ratio_threshold; }
    uint8_t dense_valid() const { return m_dense_valid_flag; }
    uint32_t dense_start_offset() const { return m_dense_start_offset; }
    void set_image_size(uint16_t w, uint16_t h) {
        m_image_width = w;
        m_image_height = h;
    }
};

// A camera whose geometry, resolution and offsets come from its fields;
// each getter can be made to fail.
class ProcessingCamera : public BaseOnlyCamera {
  public:
    float bxf = 30000.0f;
    float base = 60.0f;
    uint16_t width = 640;
    uint16_t height = 480;
    float line_offset = 0.0f;
    float disp_offset = 0.0f;
    int bxf_result = 0;
    int resolution_result = 0;
    int line_get_result = 0;
    int disp_get_result = 0;
    int line_set_result = 0;
    int disp_set_result = 0;
    int bxf_calls = 0;
    int line_get_calls = 0;
    std::vector<float> line_set_calls;
    std::vector<float> disp_set_calls;

    int get_bxf_and_base(float* b, float* bl) override {
        ++bxf_calls;
        if (bxf_result != 0) return bxf_result;
        *b = bxf;
        *bl = base;
        return 0;
    }
    int get_video_resolution(uint16_t* w, uint16_t* h) override {
        if (resolution_result != 0) return resolution_result;
        *w = width;
        *h = height;
        return 0;
    }
    int get_line_offset(float* v) override {
        ++line_get_calls;
        if (line_get_result != 0) return line_get_result;
        *v = line_offset;
        return 0;
    }
    int get_disp_offset(float* v) override {
        if (disp_get_result != 0) return disp_get_result;
        *v = disp_offset;
        return 0;
    }
    int set_line_offset(float v) override {
        line_set_calls.push_back(v);
        if (line_set_result != 0) return line_set_result;
        line_offset = v;
        return 0;
    }
    int set_disp_offset(float v) override {
        disp_set_calls.push_back(v);
        if (disp_set_result != 0) return disp_set_result;
        disp_offset = v;
        return 0;
    }
};

#endif
