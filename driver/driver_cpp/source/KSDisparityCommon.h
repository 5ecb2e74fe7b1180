// Steps shared by dense_disparity and filter_disparity: the down-sampled
// grid with its border, speckle regions by union-find, the one-match-per-
// column pass and the up-sampling with the disparity limits.
//
// All planes are down-sampled grids of grid.width x grid.height samples,
// row-major. Nothing here allocates; KSDisparityWork holds the arrays.
#ifndef KS_DISPARITY_COMMON_H
#define KS_DISPARITY_COMMON_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "driver/driver_cpp/source/KSWorkBuffer.h"

// The reusable work planes of one camera.
struct KSDisparityWork {
    KSWorkBuffer<uint16_t> grid;         // down-sampled disparity
    KSWorkBuffer<uint8_t> grey;          // down-sampled grey image (dense only)
    KSWorkBuffer<uint32_t> label;        // region label per sample
    KSWorkBuffer<uint32_t> region_size;  // per label; after resolving, per root
    KSWorkBuffer<uint32_t> parent;       // union-find parent; after resolving, the root
    KSWorkBuffer<uint8_t> claimed;       // one row of target-column claims
    // Nearest non-zero value and its distance in steps, per direction (dense).
    KSWorkBuffer<uint16_t> up_value, up_steps, left_value, left_steps;
    KSWorkBuffer<uint16_t> down_value, down_steps, right_value, right_steps;
    // Guided averaging (dense): the map as interpolation left it, and per
    // sample the count and sum of non-zero disparities along its horizontal
    // arms and the arms' total length.
    KSWorkBuffer<uint16_t> snapshot;
    KSWorkBuffer<uint16_t> row_count, row_support;
    KSWorkBuffer<uint32_t> row_sum;
};

namespace ks_disparity {

// Samples whose 13-bit values differ by at most this much are one region.
constexpr int kRegionDifference = 19;
// Regions below this size count towards the back-light ratio ...
constexpr uint32_t kSmallRegionLimit = 101;
// ... and regions of at most this size are cleared: a region of exactly 100
// samples counts as small but is kept.
constexpr uint32_t kClearedRegionMax = 99;
// Column shift of the disparity plane against the grey image.
constexpr int kShiftColumns = 22;
// Back-light thresholds of the small-region share.
constexpr float kBackLightThreshold = 0.4f;
constexpr float kBackLightThresholdAfterDrop = 0.38f;

struct Grid {
    uint8_t factor = 1;   // 2 when the width is above 640, else 1
    uint16_t width = 0;   // full width / factor
    uint16_t height = 0;  // full height / factor
    uint32_t pixels = 0;  // width x height
};

// Inclusive bounds of the samples inside the border; empty when r0 > r1 or
// c0 > c1.
struct Area {
    int r0 = 0, r1 = -1, c0 = 0, c1 = -1;
    bool empty() const { return r0 > r1 || c0 > c1; }
};
Area inner_area(const Grid& g);

// Row shift k of the first processed frame, from the camera's line offset.
uint32_t line_offset_rows(float line_offset);

// Process-wide: 1 until the first dense/filter call of the process has read
// the camera's line offset; that call clears it and applies the shift once.
// Atomic because cameras may process on threads of their own.
extern std::atomic<uint8_t> line_offset_flag;
extern std::atomic<float> line_offset;

// The down-sampling geometry of a width x height map: factor 2 above 640
// columns, else 1.
Grid grid_for(uint16_t width, uint16_t height);

// Fills the grid from the full-resolution map: border samples are 0; inner
// sample (r, c) takes the first non-zero sample of the f x f block at row
// r x f, column c x f + 22, moved on by start_offset x f samples (columns
// left to right, rows top to bottom). Samples beyond the map read as 0.
void downsample(const Grid& g, const uint16_t* disparity, uint16_t width, uint16_t height,
                uint32_t start_offset, uint16_t* grid);
// Grey sample (r, c) = image at row r x f, column c x f (not shifted).
void downsample_grey(const Grid& g, const uint8_t* image, uint16_t width, uint8_t* grey);

// Labels the regions of the grid within area (neighbours to the left and
// above are one region when both are non-zero and their 13-bit values differ
// by at most 19), then resolves them: afterwards parent[label] is the root and
// region_size[label] the size of the label's region. Returns the number of
// samples in regions smaller than kSmallRegionLimit.
uint64_t label_regions(const Grid& g, const Area& area, KSDisparityWork& w);

// After label_regions: clears every sample of a region of at most 99 samples.
void clear_small_regions(const Grid& g, const Area& area, KSDisparityWork& w);
void clear_grid(const Grid& g, uint16_t* grid);

// One match per target column (d >> 5) + c, rows bottom up, columns right to
// left: the right-hand sample of two that map onto one column is kept, and a
// clash flag carried from row to row decides the sample after a clash. Runs
// after clear_small_regions, so every remaining sample's region is large
// enough to be kept.
void keep_unique_matches(const Grid& g, KSDisparityWork& w);

// Writes every f x f block of the full-resolution map from its grid sample
// when min_limit < d < max_limit, else 0.
void upsample(const Grid& g, const uint16_t* grid, uint16_t min_limit, uint16_t max_limit,
              uint16_t width, uint16_t* disparity);

}  // namespace ks_disparity

#endif
