#include "sim/sim_scene.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace kssim {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kWallDistance = 1500.0;
constexpr double kRoomDistance = 3000.0;
constexpr double kBacklitDistance = 4000.0;
constexpr double kMaxDisparityUnits = 8191;  // 13 bits
constexpr int kWireMax = 4095;               // the matcher's window, in 1/32 pixel

double smooth(double t) {
    return t * t * (3.0 - 2.0 * t);
}

}  // namespace

uint64_t mix64(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

kssim_scene Scene::normalized(const kssim_scene& desc) {
    kssim_scene s = desc;
    if (!(s.distance_mm > 0)) {
        switch (s.kind) {
            case KSSIM_SCENE_ROOM:
                s.distance_mm = kRoomDistance;
                break;
            case KSSIM_SCENE_BACKLIT:
                s.distance_mm = kBacklitDistance;
                break;
            default:
                s.distance_mm = kWallDistance;
                break;
        }
    }
    return s;
}

int Scene::add_material(const Material& m) {
    materials_.push_back(m);
    return static_cast<int>(materials_.size()) - 1;
}

void Scene::add_plane(Kind kind, double at, const double lo[3], const double hi[3], int material) {
    Prim p{};
    p.kind = kind;
    p.at = at;
    for (int i = 0; i < 3; ++i) {
        p.lo[i] = lo[i];
        p.hi[i] = hi[i];
    }
    p.material = material;
    prims_.push_back(p);
}

void Scene::add_box(const double lo[3], const double hi[3], int material) {
    Prim p{};
    p.kind = Kind::Box;
    for (int i = 0; i < 3; ++i) {
        p.lo[i] = lo[i];
        p.hi[i] = hi[i];
    }
    p.material = material;
    prims_.push_back(p);
}

Scene::Scene(const kssim_scene& desc) : desc_(normalized(desc)) {
    const double d = desc_.distance_mm;
    const double all_lo[3] = {-kInf, -kInf, -kInf};
    const double all_hi[3] = {kInf, kInf, kInf};
    switch (desc_.kind) {
        case KSSIM_SCENE_ROOM: {
            const int back = add_material({150, 70, 9, 118, 140, false});
            const int floor = add_material({105, 60, 7, 135, 120, false});
            const int side = add_material({135, 65, 8, 128, 128, false});
            const int ceiling = add_material({175, 45, 10, 128, 132, false});
            const int box_a = add_material({120, 90, 6, 90, 170, false});
            const int box_b = add_material({95, 85, 7, 170, 100, false});
            const int plain = add_material({205, 0, 1, 128, 128, false});
            add_plane(Kind::PlaneZ, d, all_lo, all_hi, back);
            const double in_lo[3] = {-1500, -1200, 0};
            const double in_hi[3] = {1500, 700, d};
            add_plane(Kind::PlaneY, 700, in_lo, in_hi, floor);
            add_plane(Kind::PlaneY, -1200, in_lo, in_hi, ceiling);
            add_plane(Kind::PlaneX, -1500, in_lo, in_hi, side);
            add_plane(Kind::PlaneX, 1500, in_lo, in_hi, side);
            const double a_lo[3] = {-750, 200, 0.40 * d};
            const double a_hi[3] = {-250, 700, 0.40 * d + 300};
            add_box(a_lo, a_hi, box_a);
            const double b_lo[3] = {300, -50, 0.68 * d};
            const double b_hi[3] = {900, 700, 0.68 * d + 400};
            add_box(b_lo, b_hi, box_b);
            const double c_lo[3] = {-150, 400, 0.55 * d};
            const double c_hi[3] = {250, 700, 0.55 * d + 200};
            add_box(c_lo, c_hi, plain);
            break;
        }
        case KSSIM_SCENE_BACKLIT: {
            const int wall = add_material({55, 40, 9, 128, 134, false});
            const int floor = add_material({45, 35, 7, 132, 124, false});
            const int figure = add_material({38, 30, 6, 120, 140, false});
            add_plane(Kind::PlaneZ, d, all_lo, all_hi, wall);
            Prim& w = prims_.back();
            w.has_window = true;
            w.win_lo[0] = -0.30 * d;
            w.win_hi[0] = 0.30 * d;
            w.win_lo[1] = -0.25 * d;
            w.win_hi[1] = 0.05 * d;
            const double f_lo[3] = {-kInf, -kInf, 0};
            const double f_hi[3] = {kInf, kInf, d};
            add_plane(Kind::PlaneY, 900, f_lo, f_hi, floor);
            const double p_lo[3] = {-250, -450, 0.4 * d};
            const double p_hi[3] = {250, 900, 0.4 * d + 300};
            add_box(p_lo, p_hi, figure);
            break;
        }
        default: {
            desc_.kind = KSSIM_SCENE_WALL;
            const int wall = add_material({140, 80, 8, 120, 138, false});
            add_plane(Kind::PlaneZ, d, all_lo, all_hi, wall);
            break;
        }
    }
}

double Scene::texture(const Material& m, double s, double t) const {
    auto noise = [&](double x, double y, uint64_t octave) {
        const double fx = std::floor(x), fy = std::floor(y);
        const int64_t ix = static_cast<int64_t>(fx), iy = static_cast<int64_t>(fy);
        const double tx = smooth(x - fx), ty = smooth(y - fy);
        auto corner = [&](int64_t cx, int64_t cy) {
            const uint64_t key = (static_cast<uint64_t>(desc_.seed) << 40) ^ (octave << 60) ^
                                 (static_cast<uint64_t>(cx) * 0x9E3779B1ull) ^
                                 (static_cast<uint64_t>(cy) * 0x85EBCA77C2B2AE63ull);
            return unit_random(key);
        };
        const double a = corner(ix, iy), b = corner(ix + 1, iy);
        const double c = corner(ix, iy + 1), e = corner(ix + 1, iy + 1);
        return (a + (b - a) * tx) * (1 - ty) + (c + (e - c) * tx) * ty;
    };
    const double fine = noise(s / m.scale_mm, t / m.scale_mm, 1);
    const double coarse = noise(s / (m.scale_mm * 5), t / (m.scale_mm * 5), 2);
    return m.texture * ((fine - 0.5) * 1.5 + (coarse - 0.5) * 0.7);
}

Hit Scene::cast(double ox, double dx, double dy) const {
    double best = kInf;
    const Prim* hit_prim = nullptr;
    double hs = 0, ht = 0;  // surface coordinates of the best hit
    double hx = 0, hy = 0;
    for (const Prim& p : prims_) {
        double t = kInf, s = 0, u = 0;
        switch (p.kind) {
            case Kind::PlaneZ: {
                t = p.at;
                const double x = ox + dx * t, y = dy * t;
                if (!(t > 0) || x < p.lo[0] || x > p.hi[0] || y < p.lo[1] || y > p.hi[1]) t = kInf;
                s = x;
                u = y;
                break;
            }
            case Kind::PlaneY: {
                if (dy == 0) break;
                t = p.at / dy;
                const double x = ox + dx * t;
                if (!(t > 0) || x < p.lo[0] || x > p.hi[0] || t < p.lo[2] || t > p.hi[2]) t = kInf;
                s = x;
                u = t;
                break;
            }
            case Kind::PlaneX: {
                if (dx == 0) break;
                t = (p.at - ox) / dx;
                const double y = dy * t;
                if (!(t > 0) || y < p.lo[1] || y > p.hi[1] || t < p.lo[2] || t > p.hi[2]) t = kInf;
                s = t;
                u = y;
                break;
            }
            case Kind::Box: {
                const double o[3] = {ox, 0, 0};
                const double dir[3] = {dx, dy, 1};
                double tmin = 0, tmax = kInf;
                int axis = -1;
                for (int i = 0; i < 3; ++i) {
                    if (dir[i] == 0) {
                        if (o[i] < p.lo[i] || o[i] > p.hi[i]) tmin = kInf;
                        continue;
                    }
                    double t0 = (p.lo[i] - o[i]) / dir[i], t1 = (p.hi[i] - o[i]) / dir[i];
                    if (t0 > t1) std::swap(t0, t1);
                    if (t0 > tmin) {
                        tmin = t0;
                        axis = i;
                    }
                    tmax = std::min(tmax, t1);
                }
                if (axis < 0 || tmin > tmax || !(tmin > 0)) break;
                t = tmin;
                const double x = ox + dx * t, y = dy * t;
                if (axis == 2) {
                    s = x;
                    u = y;
                } else if (axis == 1) {
                    s = x;
                    u = t;
                } else {
                    s = t;
                    u = y;
                }
                break;
            }
        }
        if (t < best) {
            best = t;
            hit_prim = &p;
            hs = s;
            ht = u;
            hx = ox + dx * t;
            hy = dy * t;
        }
    }
    Hit h;
    if (hit_prim == nullptr) return h;
    h.z = best;
    const Material& m = materials_[static_cast<size_t>(hit_prim->material)];
    if (hit_prim->has_window && hx >= hit_prim->win_lo[0] && hx <= hit_prim->win_hi[0] &&
        hy >= hit_prim->win_lo[1] && hy <= hit_prim->win_hi[1]) {
        h.luma = 255;
        h.window = true;
        h.textured = false;
        return h;
    }
    h.u = m.u;
    h.v = m.v;
    h.textured = m.texture > 0;
    double luma = m.luma;
    if (h.textured) luma += texture(m, hs, ht);
    h.luma = std::clamp(luma, 2.0, 250.0);
    return h;
}

uint16_t disparity_units(double bxf, double z) {
    if (!(z > 0)) return 0;
    const double v = std::round(32.0 * bxf / z);
    if (v < 1 || v > kMaxDisparityUnits) return 0;
    return static_cast<uint16_t>(v);
}

uint16_t wire_disparity(int units, int range) {
    const int v = units - 32 * range;
    return v >= 1 && v <= kWireMax ? static_cast<uint16_t>(v) : 0;
}

namespace {

// The principal point in whole pixels, as the host's point cloud takes it.
double centre(int size) {
    return static_cast<double>(size / 2);
}

}  // namespace

double true_depth(const Scene& scene, int width, int height, double bxf, double baseline,
                  const Readout& r, double x, double y) {
    const double f = bxf / baseline;
    return scene
        .cast(0, (x + r.column[0] - centre(width)) / f, (y + r.line[0] - centre(height)) / f)
        .z;
}

namespace {

// Sensor B, one baseline to the left, through its own readout window.
void render_sensor_b(const Scene& scene, SceneView& view) {
    const int width = view.width, height = view.height;
    const size_t n = static_cast<size_t>(width) * static_cast<size_t>(height);
    view.luma_b.resize(n);
    view.depth_b.resize(n);
    const double f = view.bxf / view.baseline;
    const double cx = centre(width), cy = centre(height);
    for (int y = 0; y < height; ++y) {
        const double dy = (y + view.readout.line[1] - cy) / f;
        for (int x = 0; x < width; ++x) {
            const size_t i =
                static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
            const Hit b = scene.cast(-view.baseline, (x + view.readout.column[1] - cx) / f, dy);
            view.luma_b[i] = static_cast<uint16_t>(std::min(4095.0, std::round(b.luma * 16)));
            view.depth_b[i] = static_cast<float>(b.z);
        }
    }
}

}  // namespace

std::shared_ptr<SceneView> render_view(const Scene& scene, int width, int height, double bxf,
                                       double baseline, const Readout& readout) {
    auto view = std::make_shared<SceneView>();
    view->width = width;
    view->height = height;
    view->bxf = bxf;
    view->baseline = baseline;
    view->readout = readout;
    view->seed = scene.desc().seed;
    const size_t n = static_cast<size_t>(width) * static_cast<size_t>(height);
    const size_t cw = static_cast<size_t>(width / 2), ch = static_cast<size_t>(height / 2);
    view->luma_a.resize(n);
    view->depth_a.resize(n);
    view->flags_a.resize(n);
    std::vector<uint32_t> usum(cw * ch, 0), vsum(cw * ch, 0);
    const double f = bxf / baseline;
    const double cx = centre(width), cy = centre(height);
    const Readout& r = readout;
    for (int y = 0; y < height; ++y) {
        const double dy = (y + r.line[0] - cy) / f;
        for (int x = 0; x < width; ++x) {
            const size_t i =
                static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
            const Hit a = scene.cast(0, (x + r.column[0] - cx) / f, dy);
            view->luma_a[i] = static_cast<uint16_t>(std::min(4095.0, std::round(a.luma * 16)));
            view->depth_a[i] = static_cast<float>(a.z);
            view->flags_a[i] = static_cast<uint8_t>((a.textured ? 0 : kPixelTextureless) |
                                                    (a.window ? kPixelWindow : 0));
            if (static_cast<size_t>(x / 2) < cw && static_cast<size_t>(y / 2) < ch) {
                const size_t c = static_cast<size_t>(y / 2) * cw + static_cast<size_t>(x / 2);
                usum[c] += a.u;
                vsum[c] += a.v;
            }
        }
    }
    view->u_a.resize(cw * ch);
    view->v_a.resize(cw * ch);
    for (size_t c = 0; c < cw * ch; ++c) {
        view->u_a[c] = static_cast<uint8_t>((usum[c] + 2) / 4);
        view->v_a[c] = static_cast<uint8_t>((vsum[c] + 2) / 4);
    }
    render_sensor_b(scene, *view);
    return view;
}

namespace {

// The disparity between the two output images of a surface at depth z, in
// 1/32 pixel: the geometric one plus what the trims add (A's window further
// right moves B's match right).
double image_disparity(const SceneView& view, double z) {
    return 32.0 * (view.bxf / z + view.readout.column[0] - view.readout.column[1]);
}

// The matcher's search in an occluded pixel: the true match is hidden, so
// the best of the window's candidates (sum of absolute differences over a
// row segment) is a false one. 1/32 pixel, unbounded; -1 when the window
// leaves B's image.
int false_match(const SceneView& view, int x, int y, int range) {
    constexpr int kHalf = 4;  // a 9-pixel row segment
    const int w = view.width;
    const size_t row = static_cast<size_t>(y) * static_cast<size_t>(w);
    auto a = [&](int u) {
        return int{view.luma_a[row + static_cast<size_t>(std::clamp(u, 0, w - 1))]};
    };
    auto cost = [&](int k) {
        int sum = 0;
        for (int i = -kHalf; i <= kHalf; ++i) {
            const int ub = std::clamp(x + k + i, 0, w - 1);
            sum += std::abs(a(x + i) - int{view.luma_b[row + static_cast<size_t>(ub)]});
        }
        return sum;
    };
    const int first = range, last = std::min(range + kWireMax / 32, w - 1 - x);
    if (last < first) return -1;
    int best = first, best_cost = cost(first);
    for (int k = first + 1; k <= last; ++k) {
        const int c = cost(k);
        if (c < best_cost) {
            best = k;
            best_cost = c;
        }
    }
    double sub = 0;  // parabola through the neighbouring costs
    if (best > first && best < last) {
        const double l = cost(best - 1), r = cost(best + 1), den = l - 2.0 * best_cost + r;
        if (den > 0) sub = 0.5 * (l - r) / den;
    }
    return static_cast<int>(std::lround(32.0 * (best + sub)));
}

}  // namespace

void processed_disparity(const SceneView& view, int range, std::vector<uint16_t>& out) {
    const size_t n = view.depth_a.size();
    out.assign(n, 0);
    for (size_t i = 0; i < n; ++i) {
        if (view.flags_a[i] & kPixelWindow) continue;  // saturated: nothing to match
        if (disparity_units(view.bxf, view.depth_a[i]) == 0) continue;
        out[i] = wire_disparity(
            static_cast<int>(std::lround(image_disparity(view, view.depth_a[i]))), range);
    }
}

void raw_disparity(const SceneView& view, int range, std::vector<uint16_t>& out) {
    const int w = view.width, h = view.height;
    out.assign(view.depth_a.size(), 0);
    const uint64_t seed = static_cast<uint64_t>(view.seed) << 32;
    const int line_shift =
        static_cast<int>(std::lround(view.readout.line[0] - view.readout.line[1]));
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const size_t i =
                static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x);
            if (view.flags_a[i] & (kPixelWindow | kPixelTextureless)) continue;
            const float z = view.depth_a[i];
            if (disparity_units(view.bxf, z) == 0) continue;
            const double d = image_disparity(view, z);
            // Where B shows this point; off its image nothing matches, and if
            // B sees something nearer there the point is occluded.
            const int xb = x + static_cast<int>(std::lround(d / 32.0)), yb = y + line_shift;
            if (xb < 0 || xb >= w || yb < 0 || yb >= h) continue;
            const float zb = view.depth_b[static_cast<size_t>(yb) * static_cast<size_t>(w) +
                                          static_cast<size_t>(xb)];
            if (zb > 0 && zb < z * 0.97f) {
                const int m = false_match(view, x, y, range);
                if (m >= 0) out[i] = wire_disparity(m, range);
                continue;
            }
            const double r = unit_random(seed ^ (i * 0x2545F4914F6CDD1Dull) ^ 0x5EED);
            int noise = 0;
            if (r < 0.05)
                noise = -2;
            else if (r < 0.25)
                noise = -1;
            else if (r < 0.75)
                noise = 0;
            else if (r < 0.95)
                noise = 1;
            else
                noise = 2;
            out[i] = wire_disparity(static_cast<int>(std::lround(d)) + noise, range);
        }
    }
    // Speckles: small patches of wrong matches, about one per 48 x 48 cell.
    constexpr int kCell = 48;
    for (int cy = 0; cy < h / kCell; ++cy) {
        for (int cx = 0; cx < w / kCell; ++cx) {
            const uint64_t key = seed ^ (static_cast<uint64_t>(cy) << 20) ^
                                 static_cast<uint64_t>(cx) ^ 0xABCD000000000000ull;
            if (unit_random(key) > 0.6) continue;
            const int size = 2 + static_cast<int>(mix64(key + 1) % 4);
            const int x0 = cx * kCell + static_cast<int>(mix64(key + 2) % (kCell - size));
            const int y0 = cy * kCell + static_cast<int>(mix64(key + 3) % (kCell - size));
            const uint16_t value = static_cast<uint16_t>(64 + mix64(key + 4) % 3900);
            for (int y = y0; y < y0 + size; ++y)
                for (int x = x0; x < x0 + size; ++x)
                    out[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)] =
                        value;
        }
    }
}

}  // namespace kssim
