// How much of a disparity map is valid and how far its distances are from
// a scene's ground truth.
#ifndef KS_TEST_SCENE_METRICS_H
#define KS_TEST_SCENE_METRICS_H

#include <cmath>
#include <cstdint>
#include <vector>

struct MapQuality {
    double valid_share = 0.0;       // non-zero pixels / all pixels
    double mean_error_mm = 0.0;     // mean |32 x bxf / d - truth| over valid pixels with truth
    double mean_error_share = 0.0;  // the same relative to the truth
    double outlier_share = 0.0;     // valid pixels more than 10 % off the truth
};

// Over the pixels at least margin away from every image edge; the truth of
// pixel (r, c) is looked up at (r + truth_rows, c + truth_cols).
inline MapQuality map_quality(const std::vector<uint16_t>& disparity,
                              const std::vector<double>& truth_mm, float bxf, int width, int height,
                              int margin = 0, int truth_rows = 0, int truth_cols = 0) {
    MapQuality q;
    size_t pixels = 0;
    size_t valid = 0;
    size_t compared = 0;
    double error = 0.0;
    double relative = 0.0;
    size_t outliers = 0;
    for (int r = margin; r < height - margin; ++r) {
        for (int c = margin; c < width - margin; ++c) {
            ++pixels;
            const uint16_t v = disparity[static_cast<size_t>(r) * width + c];
            if (v == 0) continue;
            ++valid;
            const int tr = r + truth_rows;
            const int tc = c + truth_cols;
            if (tr < 0 || tr >= height || tc < 0 || tc >= width) continue;
            const double t = truth_mm[static_cast<size_t>(tr) * width + tc];
            if (!(t > 0.0)) continue;
            const double d = 32.0 * bxf / v;
            error += std::fabs(d - t);
            relative += std::fabs(d - t) / t;
            outliers += std::fabs(d - t) > 0.1 * t;
            ++compared;
        }
    }
    q.valid_share = pixels == 0 ? 0.0 : static_cast<double>(valid) / pixels;
    if (compared != 0) {
        q.mean_error_mm = error / compared;
        q.mean_error_share = relative / compared;
        q.outlier_share = static_cast<double>(outliers) / compared;
    }
    return q;
}

#endif
