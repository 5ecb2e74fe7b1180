#include "driver/driver_cpp/source/KSDisparityCommon.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "driver/driver_cpp/source/KSCamera.h"

namespace ks_disparity {

std::atomic<uint8_t> line_offset_flag{1};
std::atomic<float> line_offset{0.0f};

Grid grid_for(uint16_t width, uint16_t height) {
    Grid g;
    g.factor = width > 640 ? 2 : 1;
    g.width = static_cast<uint16_t>(width / g.factor);
    g.height = static_cast<uint16_t>(height / g.factor);
    g.pixels = static_cast<uint32_t>(g.width) * g.height;
    return g;
}

Area inner_area(const Grid& g) {
    const int f = g.factor;
    Area a;
    a.r0 = 1 / f + 1;
    a.r1 = g.height - 7 / f - 1;
    a.c0 = 27 / f + 1;
    a.c1 = g.width - 29 / f - 1;
    return a;
}

uint32_t line_offset_rows(float offset) {
    // Only an upward offset shifts, by its magnitude rounded up.
    if (!(offset < 0.0f) || std::fabs(offset) < 0.000001f) return 0;
    const double a = -static_cast<double>(offset);
    const double v = a + (std::ceil(a) - a) * 0.5;
    const double k = std::floor(v + 0.5);
    return k < 65535.0 ? static_cast<uint32_t>(k) : 65535u;  // also for an infinite offset
}

void downsample(const Grid& g, const uint16_t* disparity, uint16_t width, uint16_t height,
                uint32_t start_offset, uint16_t* grid) {
    std::memset(grid, 0, static_cast<size_t>(g.pixels) * sizeof(uint16_t));
    const Area a = inner_area(g);
    if (a.empty()) return;
    const size_t f = g.factor;
    const size_t total = static_cast<size_t>(width) * height;
    const size_t shift = static_cast<size_t>(start_offset) * f + (kShiftColumns / f) * f;
    for (int r = a.r0; r <= a.r1; ++r) {
        uint16_t* out = grid + static_cast<size_t>(r) * g.width;
        const size_t row_base = static_cast<size_t>(r) * f * width + shift;
        // Last sample the row's blocks may read; past the map everything reads 0.
        const size_t row_last = row_base + static_cast<size_t>(a.c1) * f + (f - 1) * (width + 1);
        const bool inside = row_last < total;
        if (f == 1) {
            if (inside) {
                std::memcpy(out + a.c0, disparity + row_base + a.c0,
                            static_cast<size_t>(a.c1 - a.c0 + 1) * sizeof(uint16_t));
            } else {
                for (int c = a.c0; c <= a.c1; ++c) {
                    const size_t i = row_base + static_cast<size_t>(c);
                    out[c] = i < total ? disparity[i] : 0;
                }
            }
            continue;
        }
        for (int c = a.c0; c <= a.c1; ++c) {
            const size_t i = row_base + static_cast<size_t>(c) * 2;
            uint16_t v = 0;
            if (inside) {
                // Left column top to bottom, then the right column: the first
                // non-zero sample wins (selected back to front, without branches).
                const uint16_t* p = disparity + i;
                v = p[width + 1];
                v = p[1] != 0 ? p[1] : v;
                v = p[width] != 0 ? p[width] : v;
                v = p[0] != 0 ? p[0] : v;
            } else {
                const size_t order[4] = {i, i + width, i + 1, i + width + 1};
                for (size_t k = 0; k < 4 && v == 0; ++k)
                    if (order[k] < total) v = disparity[order[k]];
            }
            out[c] = v;
        }
    }
}

void downsample_grey(const Grid& g, const uint8_t* image, uint16_t width, uint8_t* grey) {
    const size_t f = g.factor;
    for (size_t r = 0; r < g.height; ++r) {
        const uint8_t* in = image + r * f * width;
        uint8_t* out = grey + r * g.width;
        if (f == 1) {
            std::memcpy(out, in, g.width);
        } else {
            for (size_t c = 0; c < g.width; ++c) out[c] = in[c * 2];
        }
    }
}

namespace {

inline bool connected(uint16_t a, uint16_t b) {
    return std::abs(static_cast<int>(a & 0x1FFF) - static_cast<int>(b & 0x1FFF)) <=
           kRegionDifference;
}

inline uint32_t find_root(uint32_t* parent, uint32_t x) {
    while (parent[x] != x) {
        parent[x] = parent[parent[x]];
        x = parent[x];
    }
    return x;
}

}  // namespace

uint64_t label_regions(const Grid& g, const Area& a, KSDisparityWork& w) {
    uint16_t* const grid = w.grid.data();
    uint32_t* const label = w.label.data();
    uint32_t* const size = w.region_size.data();
    uint32_t* const parent = w.parent.data();
    parent[0] = 0;
    size[0] = 0;
    if (a.empty()) return 0;

    // Single pass: every root has a smaller label than its members, so the
    // smaller root wins a merge. Sizes are counted per label (in runs, to
    // keep the counter out of the per-sample path) and summed into the roots
    // afterwards.
    const size_t W = g.width;
    const int r0 = a.r0, r1 = a.r1, c0 = a.c0, c1 = a.c1;
    uint32_t next = 1;
    uint32_t run_label = 0;
    uint32_t run = 0;
    for (int r = r0; r <= r1; ++r) {
        const uint16_t* row = grid + static_cast<size_t>(r) * W;
        uint32_t* lab = label + static_cast<size_t>(r) * W;
        // The row above through pointers of its own (only formed below the
        // area's first row): row[c - W] would mix the int column with the
        // unsigned width, wrap, and overflow the pointer.
        const uint16_t* row_up = r > r0 ? row - W : row;
        const uint32_t* lab_up = r > r0 ? lab - W : lab;
        for (int c = c0; c <= c1; ++c) {
            const uint16_t v = row[c];
            if (v == 0) {
                lab[c] = 0;
                continue;
            }
            const bool up = r > r0 && row_up[c] != 0 && connected(row_up[c], v);
            const bool left = c > c0 && row[c - 1] != 0 && connected(row[c - 1], v);
            uint32_t root;
            if (left) {
                // The left neighbour was given a root one step ago.
                root = lab[c - 1];
                if (up && lab_up[c] != root) {
                    const uint32_t other = find_root(parent, lab_up[c]);
                    if (other != root) {
                        const uint32_t keep = std::min(root, other);
                        parent[std::max(root, other)] = keep;
                        root = keep;
                    }
                }
            } else if (up) {
                root = find_root(parent, lab_up[c]);
            } else {
                root = next++;
                parent[root] = root;
                size[root] = 0;
            }
            lab[c] = root;
            if (root != run_label) {
                size[run_label] += run;
                run_label = root;
                run = 0;
            }
            ++run;
        }
    }
    size[run_label] += run;

    // Children carry higher labels than their parents: walking down adds
    // every count to its root before the root itself is looked at.
    uint64_t small = 0;
    for (uint32_t l = next - 1; l >= 1; --l) {
        if (parent[l] != l) {
            size[parent[l]] += size[l];
        } else if (size[l] < kSmallRegionLimit) {
            small += size[l];
        }
    }
    // Every label now points at its root, and carries its region's size.
    size[0] = 0;
    for (uint32_t l = 1; l < next; ++l) {
        parent[l] = parent[parent[l]];
        size[l] = size[parent[l]];
    }
    return small;
}

void clear_small_regions(const Grid& g, const Area& a, KSDisparityWork& w) {
    if (a.empty()) return;
    uint16_t* const grid = w.grid.data();
    const uint32_t* const label = w.label.data();
    const uint32_t* const size = w.region_size.data();
    const size_t W = g.width;
    const int r0 = a.r0, r1 = a.r1, c0 = a.c0, c1 = a.c1;
    for (int r = r0; r <= r1; ++r) {
        uint16_t* row = grid + static_cast<size_t>(r) * W;
        const uint32_t* lab = label + static_cast<size_t>(r) * W;
        for (int c = c0; c <= c1; ++c) {
            // Empty samples carry label 0, whose size is 0: they stay 0.
            const uint16_t keep = size[lab[c]] > kClearedRegionMax ? 0xFFFF : 0;
            row[c] &= keep;
        }
    }
}

void clear_grid(const Grid& g, uint16_t* grid) {
    std::memset(grid, 0, static_cast<size_t>(g.pixels) * sizeof(uint16_t));
}

void keep_unique_matches(const Grid& g, KSDisparityWork& w) {
    uint16_t* grid = w.grid.data();
    uint8_t* claimed = w.claimed.data();
    const uint32_t W = g.width;
    // The clash flag runs on from row to row on purpose.
    bool clash = false;
    for (int r = g.height - 1; r >= 0; --r) {
        std::memset(claimed, 0, W);
        const size_t row = static_cast<size_t>(r) * W;
        for (int c = static_cast<int>(W) - 1; c >= 0; --c) {
            const size_t i = row + static_cast<size_t>(c);
            const uint16_t d = grid[i];
            if (d == 0) continue;
            const uint32_t t = (static_cast<uint32_t>(d) >> 5) + static_cast<uint32_t>(c);
            if (t >= W) {
                grid[i] = 0;
            } else if (claimed[t]) {
                grid[i] = 0;
                clash = true;
            } else if (!clash) {
                claimed[t] = 1;
            } else if (t >= 1 && claimed[t - 1]) {
                grid[i] = 0;
            } else {
                clash = false;
            }
        }
    }
}

void upsample(const Grid& g, const uint16_t* grid, uint16_t min_limit, uint16_t max_limit,
              uint16_t width, uint16_t* disparity) {
    const size_t f = g.factor;
    const size_t W = g.width;
    const size_t H = g.height;
    // min_limit < d < max_limit, as one unsigned comparison: d - min_limit - 1
    // below max_limit - min_limit - 1 (nothing passes when the range is empty).
    const uint32_t span = max_limit > min_limit ? max_limit - min_limit - 1u : 0u;
    const uint32_t low = min_limit + 1u;
    for (size_t r = 0; r < H; ++r) {
        const uint16_t* in = grid + r * W;
        uint16_t* out = disparity + r * f * width;
        if (f == 1) {
            for (size_t c = 0; c < W; ++c) {
                const uint32_t d = in[c];
                out[c] = static_cast<uint16_t>((d - low) < span ? d : 0);
            }
        } else {
            uint16_t* out2 = out + width;
            for (size_t c = 0; c < W; ++c) {
                const uint32_t d = in[c];
                const uint32_t v = (d - low) < span ? d : 0;
                const uint32_t pair = v | (v << 16);  // the block's two columns
                std::memcpy(out + 2 * c, &pair, sizeof pair);
                std::memcpy(out2 + 2 * c, &pair, sizeof pair);
            }
        }
    }
}

}  // namespace ks_disparity

// ---- KSCamera steps shared by dense_disparity and filter_disparity ----

int KSCamera::fetch_geometry() {
    if (m_bxf > 0.0f && m_baseline > 0.0f) return 0;
    float bxf = 0.0f;
    float base = 0.0f;
    if (get_bxf_and_base(&bxf, &base) != 0) return -1;
    m_bxf = bxf;
    m_baseline = base;
    return 0;
}

KSDisparityWork* KSCamera::disparity_work() {
    if (!m_disparity_work) m_disparity_work.reset(new (std::nothrow) KSDisparityWork);
    return m_disparity_work.get();
}

int KSCamera::resolve_start_offset(uint16_t grid_width) {
    uint32_t rows = 0;
    if (ks_disparity::line_offset_flag.exchange(0) != 0) {
        // Only the first call of the process applies the line offset.
        float offset = 0.0f;
        if (get_line_offset(&offset) != 0) return -13;
        ks_disparity::line_offset = offset;
        rows = ks_disparity::line_offset_rows(offset);
    }
    // The first three rows are always skipped.
    m_dense_start_offset = (rows + 3) * static_cast<uint32_t>(grid_width);
    return 0;
}

bool KSCamera::drop_back_lit_frame(uint64_t small_pixels, uint32_t grid_pixels, uint16_t width,
                                   uint16_t height, uint8_t* image) {
    const bool back_lit = KsBackLightingAdjust(width, height, image);
    const float share = grid_pixels == 0
                            ? 0.0f
                            : static_cast<float>(small_pixels) / static_cast<float>(grid_pixels);
    if (share > m_small_region_ratio_threshold && back_lit) {
        if (m_small_region_ratio_threshold == ks_disparity::kBackLightThreshold)
            m_small_region_ratio_threshold = ks_disparity::kBackLightThresholdAfterDrop;
        return true;
    }
    if (m_small_region_ratio_threshold == ks_disparity::kBackLightThresholdAfterDrop)
        m_small_region_ratio_threshold = ks_disparity::kBackLightThreshold;
    return false;
}
