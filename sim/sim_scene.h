// Scenes with known geometry and their rendering for the two sensors.
//
// Coordinates: millimetres, sensor A (the right one: its image is the colour
// image and the reference of the disparity) at the origin looking along +z,
// x to the right, y downwards (like image rows); sensor B, the left one, sits
// at (-baseline, 0, 0) with the same orientation (an ideally rectified pair),
// so a point that A sees at column u, B sees at column u + bxf / z. Pixel
// (u, v) sees along ((u - cx) / f, (v - cy) / f, 1) with f = bxf / baseline
// and the principal point (cx, cy) at (width / 2, height / 2) in whole pixels,
// so the parameter of a hit along that ray is its depth z.
#ifndef KSSIM_SIM_SCENE_H
#define KSSIM_SIM_SCENE_H

#include <cstdint>
#include <memory>
#include <vector>

#include "sim/kssim.h"

namespace kssim {

struct Material {
    double luma;      // mean luma, 0..255
    double texture;   // luma amplitude of the texture (0: flat surface)
    double scale_mm;  // size of the finest texture feature
    uint8_t u, v;     // chroma
    bool window;      // a bright opening: saturated, no texture
};

struct Hit {
    double z = 0;  // depth along the optical axis (0: nothing hit)
    double luma = 0;
    uint8_t u = 128, v = 128;
    bool textured = false;
    bool window = false;
};

class Scene {
  public:
    explicit Scene(const kssim_scene& desc);

    // Casts the ray of direction (dx, dy, 1) from (ox, 0, 0).
    Hit cast(double ox, double dx, double dy) const;
    const kssim_scene& desc() const { return desc_; }

    // Scene defaults filled in (distance 0 -> the preset's distance).
    static kssim_scene normalized(const kssim_scene& desc);

  private:
    enum class Kind { PlaneX, PlaneY, PlaneZ, Box };
    struct Prim {
        Kind kind;
        double at;            // plane coordinate
        double lo[3], hi[3];  // bounds (planes: the extent; box: its corners)
        int material;
        bool has_window;
        double win_lo[2], win_hi[2];  // window on a z plane: x and y ranges
    };
    void add_plane(Kind kind, double at, const double lo[3], const double hi[3], int material);
    void add_box(const double lo[3], const double hi[3], int material);
    int add_material(const Material& m);
    double texture(const Material& m, double s, double t) const;

    kssim_scene desc_;
    std::vector<Prim> prims_;
    std::vector<Material> materials_;
};

// Where each sensor's readout window starts, as the ASIC's trims (columns)
// and line offsets (lines) set it: output pixel (u, v) of a sensor shows what
// its camera pixel (u + column, v + line) sees. Index 0: sensor A, 1: sensor B.
struct Readout {
    double column[2] = {0, 0};
    double line[2] = {0, 0};
    bool operator==(const Readout& o) const {
        return column[0] == o.column[0] && column[1] == o.column[1] && line[0] == o.line[0] &&
               line[1] == o.line[1];
    }
    bool operator!=(const Readout& o) const { return !(*this == o); }
};

// Per-pixel flags of a rendered view (sensor A).
enum : uint8_t {
    kPixelTextureless = 1,
    kPixelWindow = 2,
};

// One rendering of a scene for both sensors at one output size.
struct SceneView {
    int width = 0, height = 0;
    double bxf = 0, baseline = 0;
    Readout readout;
    std::vector<uint16_t> luma_a;   // 12-bit luma of sensor A
    std::vector<uint16_t> luma_b;   // 12-bit luma of sensor B
    std::vector<uint8_t> u_a, v_a;  // I420 chroma of sensor A, (width/2) x (height/2)
    std::vector<float> depth_a;     // depth per output pixel of sensor A (0: none)
    std::vector<float> depth_b;     // depth per output pixel of sensor B
    std::vector<uint8_t> flags_a;
    uint32_t seed = 0;
};

// Renders both sensors (a channel switch then only encodes again).
std::shared_ptr<SceneView> render_view(const Scene& scene, int width, int height, double bxf,
                                       double baseline, const Readout& readout = Readout{});

// Depth of output pixel (x, y) of sensor A, by casting its ray (no rendering).
double true_depth(const Scene& scene, int width, int height, double bxf, double baseline,
                  const Readout& readout, double x, double y);

// round(32 x bxf / z) (1/32 pixel); 0 when nothing is hit or it needs more
// than the 13 bits of a disparity sample.
uint16_t disparity_units(double bxf, double z);

// What the matcher sends for a disparity of `units` when its window of 4095
// units starts at 32 x range: units - 32 x range within 1..4095, else 0.
uint16_t wire_disparity(int units, int range);

// Disparity planes of the two disparity channels as sent (search range
// applied), image rows, width x height. The raw matcher searches B's row to
// the right of each pixel: occluded pixels get the false match the search
// finds, pixels without texture and matches off B's image none.
void processed_disparity(const SceneView& view, int range, std::vector<uint16_t>& out);
void raw_disparity(const SceneView& view, int range, std::vector<uint16_t>& out);

// Deterministic hash-based random numbers.
uint64_t mix64(uint64_t x);
inline double unit_random(uint64_t key) {
    return static_cast<double>(mix64(key) >> 11) * (1.0 / 9007199254740992.0);
}

}  // namespace kssim

#endif
