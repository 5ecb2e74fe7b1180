// Test-built disparity maps for dense_disparity and filter_disparity.
//
// Both operations read the sample that lands at output pixel (r, c) from
// row r + 3 and column c + 22 of their input (after the first frame of the
// process, whose row shift also follows the camera's line offset). Maps
// here are described in output coordinates and placed with that shift.
#ifndef KS_TEST_DISPARITY_MAPS_H
#define KS_TEST_DISPARITY_MAPS_H

#include <algorithm>
#include <cstdint>
#include <vector>

struct DisparityMaps {
    DisparityMaps(uint16_t w, uint16_t h, uint8_t grey_value = 128)
        : width(w),
          height(h),
          input(static_cast<size_t>(w) * h, 0),
          grey(static_cast<size_t>(w) * h, grey_value) {}

    // The input sample that lands at output pixel (r, c) at full resolution.
    void put(int r, int c, uint16_t v, int shift_rows = 3) {
        input[static_cast<size_t>(r + shift_rows) * width + static_cast<size_t>(c + 22)] = v;
    }
    void block(int r0, int c0, int rows, int cols, uint16_t v) {
        for (int r = r0; r < r0 + rows; ++r)
            for (int c = c0; c < c0 + cols; ++c) put(r, c, v);
    }
    uint16_t out(int r, int c) const {
        return input[static_cast<size_t>(r) * width + static_cast<size_t>(c)];
    }
    size_t count_nonzero() const {
        size_t n = 0;
        for (uint16_t v : input) n += v != 0;
        return n;
    }
    // Grey image whose top-left block's first row is white: back-lit.
    void make_back_lit() {
        std::fill(grey.begin(), grey.end(), 0);
        for (int x = 0; x < width / 4; ++x) grey[static_cast<size_t>(x)] = 255;
    }
    // Isolated single-sample regions of the grid (a checkerboard of two
    // far-apart values, one value per factor x factor block) over output
    // rows r0 .. r0 + rows - 1 and the columns of the inner area.
    void speckle_rows(int r0, int rows, int factor = 1) {
        const int c0 = (27 / factor + 1) * factor;
        const int c1 = (width / factor - 29 / factor - 1) * factor + factor - 1;
        for (int r = r0; r < r0 + rows; ++r)
            for (int c = c0; c <= c1; ++c) put(r, c, ((r / factor + c / factor) & 1) ? 500 : 1000);
    }

    uint16_t width;
    uint16_t height;
    std::vector<uint16_t> input;  // becomes the output in place
    std::vector<uint8_t> grey;
};

#endif
