// Back-light detection: is most of the frame's light in a few places?
#include <cstddef>
#include <cstdint>

#include "driver/driver_cpp/source/KSCamera.h"

namespace {

constexpr int kBlocks = 16;
// A frame is back-lit when this many blocks or fewer carry more than half of
// the brightness.
constexpr int kBackLitBlocks = 6;

struct Block {
    uint16_t x = 0;
    uint16_t y = 0;
    uint64_t sum = 0;
};

bool back_lit(uint16_t width, uint16_t height, const uint8_t* image) {
    const uint32_t bw = width / 4;
    const uint32_t bh = height / 4;
    const size_t total_pixels = static_cast<size_t>(width) * height;

    // Blocks run along a block row while their origin stays inside the
    // width, so a width that is not a multiple of 4 gives five blocks a row.
    Block blocks[kBlocks];
    uint32_t x = 0;
    uint32_t y = 0;
    for (Block& b : blocks) {
        b.x = static_cast<uint16_t>(x);
        b.y = static_cast<uint16_t>(y);
        if (x + bw < width) {
            x += bw;
        } else {
            x = 0;
            y += bh;
        }
    }

    // Only the first row of a block is read, weighted by the block height.
    uint64_t total = 0;
    for (Block& b : blocks) {
        const size_t start = static_cast<size_t>(b.y) * width + b.x;
        uint64_t row_sum = 0;
        for (uint32_t i = 0; i < bw && start + i < total_pixels; ++i) row_sum += image[start + i];
        b.sum = row_sum * bh;
        total += b.sum;
    }

    // Descending order; equal sums keep their layout order, and a block that
    // beats no entry is left out.
    Block sorted[kBlocks];
    for (const Block& b : blocks) {
        for (int j = 0; j < kBlocks; ++j) {
            if (b.sum > sorted[j].sum) {
                for (int k = kBlocks - 1; k > j; --k) sorted[k] = sorted[k - 1];
                sorted[j] = b;
                break;
            }
        }
    }

    const uint64_t half = total >> 1;
    uint64_t sum = 0;
    for (int k = 1; k <= kBlocks; ++k) {
        sum += sorted[k - 1].sum;
        if (sum > half) return k <= kBackLitBlocks;
    }
    return false;
}

}  // namespace

bool KSCamera::KsBackLightingAdjust(uint16_t width, uint16_t height, uint8_t* image) {
    if (width <= 39 || height <= 39 || image == nullptr) return false;
    return back_lit(width, height, image);
}
