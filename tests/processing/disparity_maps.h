// Test-built disparity maps for dense_disparity and filter_disparity. Both
// read the sample for output pixel (r, c) from input row r + 3 (after the
// process's first frame) and column c + 22: maps are described in output
// coordinates and placed with that shift.
#ifndef KS_TEST_DISPARITY_MAPS_H
#define KS_TEST_DISPARITY_MAPS_H

#include <algorithm>
#include <cstdint>
#include <vector>

#include "driver/driver_cpp/source/KSCamera.h"

struct DisparityMaps {
    DisparityMaps(uint16_t w, uint16_t h, uint8_t grey_value = 128)
        : width(w), height(h), input(size_t{w} * h, 0), grey(size_t{w} * h, grey_value) {}

    // The camera's operation on the maps, in place.
    int dense(KSCamera& c) { return c.dense_disparity(width, height, input.data(), grey.data()); }
    int filter(KSCamera& c) { return c.filter_disparity(width, height, input.data(), grey.data()); }
    void put(int r, int c, uint16_t v) { input[size_t(r + 3) * width + size_t(c + 22)] = v; }
    void block(int r0, int c0, int rows, int cols, uint16_t v) {
        for (int r = r0; r < r0 + rows; ++r)
            for (int c = c0; c < c0 + cols; ++c) put(r, c, v);
    }
    uint16_t out(int r, int c) const { return input[size_t(r) * width + size_t(c)]; }
    // Whether every output pixel of the block holds v.
    bool all(int r0, int c0, int rows, int cols, uint16_t v) const {
        for (int r = r0; r < r0 + rows; ++r)
            for (int c = c0; c < c0 + cols; ++c)
                if (out(r, c) != v) return false;
        return true;
    }
    size_t count_nonzero() const {
        return input.size() - size_t(std::count(input.begin(), input.end(), 0));
    }
    // Black grey image whose top-left block's first row is white: back-lit.
    void make_back_lit() {
        std::fill(grey.begin(), grey.end(), 0);
        std::fill(grey.begin(), grey.begin() + width / 4, 255);
    }
    // Isolated single-sample regions (a checkerboard of two far-apart values,
    // one per factor x factor block) over output rows r0 .. r0 + rows - 1 and
    // the columns of the inner area.
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
