// kscamera: the Python binding of the driver library.
//
// Every array handed to Python owns a copy of the library's buffer, because
// the library reuses its buffers at the next call of the same kind. Every
// camera call runs with the GIL released and under the camera's own mutex, so
// that close() never frees a camera another thread is inside of.
#include <pybind11/functional.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "include/ksStereoCameraDriver.h"
#include "sim/kssim.h"

namespace py = pybind11;

namespace {

// ---- errors ----

// A failed library call: its result code and what was being done.
struct CameraError {
    int code;
    std::string message;
};

py::handle camera_error_type;

[[noreturn]] void fail(int code, const std::string& what) {
    throw CameraError{code, what + " failed (library result " + std::to_string(code) + ")"};
}
void check(int code, const std::string& what) {
    if (code != 0) fail(code, what);
}

// ---- the virtual camera ----

struct CameraState;

// One virtual world, installed into the library while it lives. The seam is
// process-wide, so there is at most one.
struct WorldState {
    kssim_world* world = nullptr;
    std::mutex mutex;
    std::vector<std::weak_ptr<CameraState>> cameras;  // opened while installed
    ~WorldState();
    void close();
    bool open() {
        std::lock_guard<std::mutex> lock(mutex);
        return world != nullptr;
    }
};

std::weak_ptr<WorldState> g_world;
std::mutex g_world_mutex;

std::shared_ptr<WorldState> current_world() {
    std::lock_guard<std::mutex> lock(g_world_mutex);
    return g_world.lock();
}

// Camera time: the virtual clock when a world is installed, else the host's.
uint64_t now_us() {
    if (auto w = current_world()) {
        std::lock_guard<std::mutex> lock(w->mutex);
        if (w->world != nullptr) return kssim_world_now_us(w->world);
    }
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

// ---- cameras ----

struct CameraState {
    std::mutex mutex;
    KSCameraAbstract* handle = nullptr;
    std::string name;
    std::shared_ptr<WorldState> world;  // keeps a virtual camera's world alive
    // Set by a mode change: frames of the earlier mode may still come. (The
    // library prints the channel each time it is asked, so it is asked only then.)
    bool check_channel = false;

    void close() {
        std::lock_guard<std::mutex> lock(mutex);
        if (handle != nullptr) ksCloseCamera(&handle);
        handle = nullptr;
        world.reset();
    }
    ~CameraState() { close(); }
};

void WorldState::close() {
    // Cameras first: their threads still call into the world.
    std::vector<std::shared_ptr<CameraState>> open;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& weak : cameras)
            if (auto c = weak.lock()) open.push_back(c);
        cameras.clear();
    }
    for (auto& c : open) {
        std::lock_guard<std::mutex> lock(c->mutex);
        if (c->handle != nullptr) ksCloseCamera(&c->handle);
        c->handle = nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (world != nullptr) kssim_world_destroy(world);
    world = nullptr;
}

WorldState::~WorldState() {
    close();
}

// Runs f(handle) with the GIL released and the camera locked.
template <class F>
auto with_camera(CameraState& cam, F f) {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(cam.mutex);
    if (cam.handle == nullptr) throw CameraError{-1, "the camera is closed"};
    return f(cam.handle);
}

// ---- enumerations ----

enum class VideoMode {
    RGBD = KS_VIDEO_MODE_RGBD,
    RAW = KS_VIDEO_MODE_STEREO_ORIGIN,
    RECTIFIED = KS_VIDEO_MODE_STEREO_RECTIFIED,
    DENSE = KS_VIDEO_MODE_DENSE_DISPARITY,
    FILTERED = KS_VIDEO_MODE_FILTERED_DISPARITY,
};

enum class FillLight {
    OFF = KS_FILLLIGHT_TYPE_OFF,
    MODE_1 = KS_FILLLIGHT_TYPE_CTRL_MODE_1,
    MODE_0 = KS_FILLLIGHT_TYPE_CTRL_MODE_0,
    ALTERNATE = KS_FILLLIGHT_TYPE_ALTERNATE,
};

// The channel code the library reads from a frame of each mode.
int channel_of(VideoMode mode) {
    switch (mode) {
        case VideoMode::RAW:
            return 0;
        case VideoMode::RECTIFIED:
            return 2;
        case VideoMode::RGBD:
            return 5;
        default:
            return 10;
    }
}

// ---- images ----

template <class T>
py::array_t<T> array_copy(const T* data, std::vector<py::ssize_t> shape) {
    py::array_t<T> a(shape);
    std::memcpy(a.mutable_data(), data, static_cast<size_t>(a.size()) * sizeof(T));
    return a;
}

uint8_t clamp_byte(double v) {
    return static_cast<uint8_t>(std::lround(std::min(255.0, std::max(0.0, v))));
}

// I420 (Y plane, then U and V at quarter size) into packed RGB, BT.601 full range.
void i420_to_rgb(const uint8_t* i420, size_t width, size_t height, uint8_t* rgb) {
    const size_t plane = width * height;
    for (size_t y = 0; y < height; ++y)
        for (size_t x = 0; x < width; ++x) {
            const size_t chroma = (y / 2) * (width / 2) + x / 2;
            const double Y = i420[y * width + x];
            const double U = i420[plane + chroma] - 128.0;
            const double V = i420[plane * 5 / 4 + chroma] - 128.0;
            uint8_t* p = rgb + (y * width + x) * 3;
            p[0] = clamp_byte(Y + 1.402 * V);
            p[1] = clamp_byte(Y - 0.344136 * U - 0.714136 * V);
            p[2] = clamp_byte(Y + 1.772 * U);
        }
}

constexpr uint16_t kDisparityMask = 0x1FFF;  // value / 32 pixels; 0 invalid

// Depth along the optical axis in millimetres, 0 where the disparity is
// invalid, capped at 65535.
void depth_mm(const uint16_t* disparity, size_t n, double bxf, uint16_t* out) {
    for (size_t i = 0; i < n; ++i) {
        const uint16_t d = disparity[i] & kDisparityMask;
        out[i] = d == 0 || bxf <= 0
                     ? 0
                     : static_cast<uint16_t>(std::lround(std::min(32.0 * bxf / d, 65535.0)));
    }
}

// One frame, all in copies. The arrays are made while the GIL is held.
struct Frame {
    unsigned long id = 0;
    unsigned long timestamp = 0;
    VideoMode mode = VideoMode::RGBD;
    unsigned width = 0, height = 0;
    float bxf = 0, baseline = 0;
    py::object colour = py::none(), disparity = py::none(), depth = py::none(), left = py::none(),
               right = py::none();

    // Median distance of the valid depth pixels within `radius` of (x, y); None if none.
    std::optional<double> distance_at(unsigned x, unsigned y, unsigned radius) const {
        if (depth.is_none()) throw py::value_error("this frame carries no depth");
        if (x >= width || y >= height) throw py::index_error("pixel outside the image");
        auto d = depth.cast<py::array_t<uint16_t>>().unchecked<2>();
        std::vector<uint16_t> valid;
        const unsigned x0 = x > radius ? x - radius : 0, y0 = y > radius ? y - radius : 0;
        const unsigned x1 = std::min(width - 1, x + radius), y1 = std::min(height - 1, y + radius);
        for (unsigned yy = y0; yy <= y1; ++yy)
            for (unsigned xx = x0; xx <= x1; ++xx)
                if (d(yy, xx) != 0) valid.push_back(d(yy, xx));
        if (valid.empty()) return std::nullopt;
        std::nth_element(valid.begin(), valid.begin() + valid.size() / 2, valid.end());
        return valid[valid.size() / 2];
    }
};

// What a frame holds, gathered without the GIL.
struct FrameData {
    unsigned long id = 0, timestamp = 0;
    VideoMode mode = VideoMode::RGBD;
    unsigned width = 0, height = 0;
    float bxf = 0, baseline = 0;
    std::vector<uint8_t> colour, grey;
    std::vector<uint16_t> disparity, depth, raw_left, raw_right;
    std::vector<uint8_t> rect_left, rect_right;
};

FrameData read_frame(KSCameraAbstract* h, bool* check_channel, double timeout_s) {
    FrameData f;
    _ks_video_mode_e mode = KS_VIDEO_MODE_RGBD;
    check(ksGetVideoMode(h, &mode), "reading the video mode");
    f.mode = static_cast<VideoMode>(mode);
    unsigned short w = 0, hgt = 0;
    check(ksGetVideoResolution(h, &w, &hgt), "reading the resolution");
    if (w == 0 || hgt == 0) fail(-2, "reading the resolution");
    f.width = w;
    f.height = hgt;
    const size_t n = static_cast<size_t>(w) * hgt;

    // A frame of the mode's channel: frames of an earlier mode may still come.
    const uint64_t deadline = now_us() + static_cast<uint64_t>(timeout_s * 1e6);
    unsigned char* src = nullptr;
    int last = 0;
    for (;;) {
        unsigned long id = 0;
        src = nullptr;
        last = ksGetSafeCurrentFrame(h, &id, &src);
        if (last == 0 && src != nullptr) {
            unsigned char code = 0xFF;
            if (!*check_channel ||
                ksGetImageChannelFromSrcData(h, src, &code) == channel_of(f.mode)) {
                *check_channel = false;
                f.id = id;
                break;
            }
        }
        if (now_us() >= deadline)
            throw CameraError{
                last != 0 ? last : 10,
                "no frame of the current video mode within " + std::to_string(timeout_s) +
                    " s of camera time" +
                    (last != 0 ? " (last library result " + std::to_string(last) + ")" : "")};
    }
    float bxf = 0, base = 0;
    if (ksGetBxfAndBase(h, &bxf, &base) == 0) {
        f.bxf = bxf;
        f.baseline = base;
    }
    unsigned char *a = nullptr, *b = nullptr;
    switch (f.mode) {
        case VideoMode::RAW:
            check(ksGetRawImageWithTimestamp(h, src, &a, &b, &f.timestamp), "reading the raw pair");
            if (a == nullptr || b == nullptr) fail(-2, "reading the raw pair");
            f.raw_left.assign(reinterpret_cast<uint16_t*>(a), reinterpret_cast<uint16_t*>(a) + n);
            f.raw_right.assign(reinterpret_cast<uint16_t*>(b), reinterpret_cast<uint16_t*>(b) + n);
            break;
        case VideoMode::RECTIFIED:
            check(ksGetRectifiedImageWithTimestamp(h, src, &a, &b, &f.timestamp),
                  "reading the rectified pair");
            if (a == nullptr || b == nullptr) fail(-2, "reading the rectified pair");
            f.rect_left.assign(a, a + n);
            f.rect_right.resize(n * 3);
            i420_to_rgb(b, w, hgt, f.rect_right.data());
            break;
        default:
            check(ksGetRGBDImageWithTimestamp(h, src, &a, &b, &f.timestamp),
                  "reading the colour and disparity images");
            if (a == nullptr || b == nullptr) fail(-2, "reading the colour and disparity images");
            f.disparity.assign(reinterpret_cast<uint16_t*>(a), reinterpret_cast<uint16_t*>(a) + n);
            f.colour.resize(n * 3);
            i420_to_rgb(b, w, hgt, f.colour.data());
            f.depth.resize(n);
            depth_mm(f.disparity.data(), n, f.bxf, f.depth.data());
            break;
    }
    return f;
}

Frame to_python(FrameData&& d) {
    Frame f;
    f.id = d.id;
    f.timestamp = d.timestamp;
    f.mode = d.mode;
    f.width = d.width;
    f.height = d.height;
    f.bxf = d.bxf;
    f.baseline = d.baseline;
    const py::ssize_t h = d.height, w = d.width;
    if (!d.colour.empty()) f.colour = array_copy(d.colour.data(), {h, w, 3});
    if (!d.disparity.empty()) f.disparity = array_copy(d.disparity.data(), {h, w});
    if (!d.depth.empty()) f.depth = array_copy(d.depth.data(), {h, w});
    if (!d.raw_left.empty()) {
        f.left = array_copy(d.raw_left.data(), {h, w});
        f.right = array_copy(d.raw_right.data(), {h, w});
    }
    if (!d.rect_left.empty()) {
        f.left = array_copy(d.rect_left.data(), {h, w});
        f.right = array_copy(d.rect_right.data(), {h, w, 3});
    }
    return f;
}

// The disparity of a frame (or a bare array) as the camera's current image size.
py::array_t<uint16_t, py::array::c_style> disparity_of(const py::object& source,
                                                       unsigned short width,
                                                       unsigned short height) {
    py::object arr = py::isinstance<Frame>(source) ? source.cast<const Frame&>().disparity : source;
    if (arr.is_none()) throw py::value_error("this frame carries no disparity");
    auto a = py::array_t<uint16_t, py::array::c_style | py::array::forcecast>::ensure(arr);
    if (!a || a.ndim() != 2 || a.shape(0) != height || a.shape(1) != width)
        throw py::value_error("the disparity must be a " + std::to_string(height) + " x " +
                              std::to_string(width) +
                              " array of uint16 (the camera's current image size)");
    return a;
}

// ---- progress of long operations ----

std::mutex g_progress_mutex;  // the library's callback is process-wide

struct ProgressScope {
    std::function<void(std::string, uint64_t, uint64_t)>* fn;
    explicit ProgressScope(std::function<void(std::string, uint64_t, uint64_t)>* f) : fn(f) {
        if (fn != nullptr && *fn) ksSetProgressCallback(&ProgressScope::call, fn);
    }
    ~ProgressScope() { ksSetProgressCallback(nullptr, nullptr); }
    static void call(const char* what, uint64_t done, uint64_t total, void* user) {
        py::gil_scoped_acquire gil;
        try {
            (*static_cast<std::function<void(std::string, uint64_t, uint64_t)>*>(user))(
                what != nullptr ? what : "", done, total);
        } catch (py::error_already_set& e) {
            e.discard_as_unraisable("kscamera progress callback");
        }
    }
};

using Progress = std::optional<std::function<void(std::string, uint64_t, uint64_t)>>;

template <class F>
void long_operation(CameraState& cam, Progress progress, const std::string& what, F f) {
    std::function<void(std::string, uint64_t, uint64_t)> fn;
    if (progress) fn = *progress;
    with_camera(cam, [&](KSCameraAbstract* h) {
        std::lock_guard<std::mutex> lock(g_progress_mutex);
        ProgressScope scope(fn ? &fn : nullptr);
        check(f(h), what);
        return 0;
    });
}

// ---- the Python classes ----

struct CameraInfo {
    std::string node, by_path, by_id, serial;
};

std::vector<CameraInfo> list_cameras() {
    std::vector<CameraInfo> out;
    py::gil_scoped_release release;
    _ks_camera_list* list = nullptr;
    const int r = ksQueryCameraList(&list);
    if (r != 0 || list == nullptr) return out;  // no camera found
    for (uint32_t i = 0; i < list->count && list->cameras != nullptr; ++i) {
        const _ks_camera_info_s& c = list->cameras[i];
        out.push_back(
            {std::string(c.video_dev, strnlen(c.video_dev, sizeof c.video_dev)),
             std::string(c.usb_path_name, strnlen(c.usb_path_name, sizeof c.usb_path_name)),
             std::string(c.v4l_id_name, strnlen(c.v4l_id_name, sizeof c.v4l_id_name)),
             std::string(c.camera_sn, strnlen(c.camera_sn, sizeof c.camera_sn))});
    }
    ksReleaseCameraList(list);
    return out;
}

class Camera {
  public:
    explicit Camera(std::shared_ptr<CameraState> s) : s_(std::move(s)) {}
    CameraState& state() const { return *s_; }
    void close() {
        py::gil_scoped_release release;
        s_->close();
    }
    bool closed() const {
        std::lock_guard<std::mutex> lock(s_->mutex);
        return s_->handle == nullptr;
    }
    template <class F>
    auto call(F f) const {
        return with_camera(*s_, f);
    }

  private:
    std::shared_ptr<CameraState> s_;
};

Camera open_camera(std::optional<std::string> serial, std::optional<std::string> path,
                   std::optional<int> number) {
    const int given = (serial ? 1 : 0) + (path ? 1 : 0) + (number ? 1 : 0);
    if (given > 1) throw py::value_error("give at most one of serial, path and number");
    if (number && (*number < 0 || *number > 255))
        throw py::value_error("number must be 0 .. 255 (/dev/videoN)");
    auto state = std::make_shared<CameraState>();
    {
        py::gil_scoped_release release;
        KSCameraAbstract* h = nullptr;
        if (number) {
            check(ksOpenUVCCameraByNumber(*number, &h),
                  "opening /dev/video" + std::to_string(*number));
            state->name = "/dev/video" + std::to_string(*number);
        } else if (path) {
            check(ksOpenUVCCameraByPath(path->c_str(), &h), "opening " + *path);
            state->name = *path;
        } else {
            _ks_camera_list* list = nullptr;
            if (ksQueryCameraList(&list) != 0 || list == nullptr || list->count == 0 ||
                list->cameras == nullptr) {
                if (list != nullptr) ksReleaseCameraList(list);
                throw CameraError{-2, "no camera found"};
            }
            int r = 0;
            if (serial) {
                r = ksOpenUVCCameraBySN(list, serial->c_str(), &h);
                state->name = "serial " + *serial;
            } else {
                const _ks_camera_info_s& c = list->cameras[0];
                state->name = std::string(c.video_dev, strnlen(c.video_dev, sizeof c.video_dev));
                r = ksOpenUVCCameraByPath(state->name.c_str(), &h);
            }
            ksReleaseCameraList(list);
            check(r, "opening " + state->name);
        }
        if (h == nullptr) fail(-2, "opening " + state->name);
        state->handle = h;
    }
    if (auto w = current_world()) {
        std::lock_guard<std::mutex> lock(w->mutex);
        w->cameras.push_back(state);
        state->world = w;
    }
    return Camera(state);
}

class World {
  public:
    World(unsigned cameras, const std::vector<std::string>& serials, const std::string& scene,
          double distance_mm, double warp, double fps, bool imu) {
        if (cameras < 1 || cameras > 16) throw py::value_error("cameras must be 1 .. 16");
        if (serials.size() > cameras) throw py::value_error("more serials than cameras");
        if (!(warp > 0)) throw py::value_error("warp must be greater than 0");
        if (fps < 0 || fps > 120) throw py::value_error("fps must be 0 (default) .. 120");
        kssim_scene_kind kind;
        if (scene == "wall")
            kind = KSSIM_SCENE_WALL;
        else if (scene == "room")
            kind = KSSIM_SCENE_ROOM;
        else if (scene == "backlit")
            kind = KSSIM_SCENE_BACKLIT;
        else
            throw py::value_error("scene must be \"wall\", \"room\" or \"backlit\"");
        std::lock_guard<std::mutex> lock(g_world_mutex);
        if (auto running = g_world.lock(); running && running->open())
            throw py::value_error("a virtual camera world is already running in this process");
        auto state = std::make_shared<WorldState>();
        state->world = kssim_world_create();
        if (state->world == nullptr) throw CameraError{-2, "creating the virtual camera failed"};
        for (unsigned i = 0; i < cameras; ++i) {
            kssim_camera_config cfg;
            kssim_camera_config_init(&cfg);
            cfg.scene.kind = kind;
            cfg.scene.distance_mm = distance_mm;
            if (fps > 0) cfg.fps = fps;
            cfg.has_imu = imu ? 1 : 0;
            const std::string sn = i < serials.size() ? serials[i] : [&] {
                char text[32];
                std::snprintf(text, sizeof text, "KS%010u", i + 1);
                return std::string(text);
            }();
            if (sn.empty() || sn.size() > 16)
                throw py::value_error("serials are 1 .. 16 characters");
            std::snprintf(cfg.serial, sizeof cfg.serial, "%s", sn.c_str());
            if (kssim_world_add_camera(state->world, &cfg) == nullptr)
                throw CameraError{-2, "adding the virtual camera " + sn + " failed"};
        }
        if (kssim_world_set_warp(state->world, warp) != 0 || kssim_world_install(state->world) != 0)
            throw CameraError{-2, "installing the virtual camera failed"};
        g_world = state;
        s_ = state;
    }
    void close() {
        py::gil_scoped_release release;
        if (s_) s_->close();
    }
    WorldState& state() const {
        if (!s_ || s_->world == nullptr) throw py::value_error("the virtual world is closed");
        return *s_;
    }
    kssim_camera* camera(unsigned index) const {
        WorldState& w = state();
        if (index >= kssim_world_camera_count(w.world)) throw py::index_error("no such camera");
        return kssim_world_camera(w.world, index);
    }

  private:
    std::shared_ptr<WorldState> s_;
};

struct RectDistance {
    unsigned min_disparity, max_disparity, mean_disparity, median_disparity;
    float valid_ratio, min_distance, max_distance, mean_distance, median_distance,
        mean_point_distance, median_point_distance;
};

struct ImuSample {
    uint64_t sync_id, timestamp;
    double temperature;
    std::tuple<double, double, double> acc, gyro;
};

struct StreamConfig {
    unsigned slot, width, height;
};

// Setting accessors: getter and setter of one value through the library.
template <class T>
T get_value(const Camera& c, int (*fn)(KSCameraAbstract*, T*), const char* what) {
    return c.call([&](KSCameraAbstract* h) {
        T v{};
        check(fn(h, &v), std::string("reading the ") + what);
        return v;
    });
}
template <class T, class A>
void set_value(const Camera& c, int (*fn)(KSCameraAbstract*, A), T v, const char* what) {
    c.call([&](KSCameraAbstract* h) {
        check(fn(h, static_cast<A>(v)), std::string("setting the ") + what);
        return 0;
    });
}

std::pair<unsigned short, unsigned short> resolution(const Camera& c) {
    return c.call([](KSCameraAbstract* h) {
        unsigned short width = 0, height = 0;
        check(ksGetVideoResolution(h, &width, &height), "reading the resolution");
        return std::pair{width, height};
    });
}

template <class T>
T ranged(long long v, long long lo, long long hi, const char* what) {
    if (v < lo || v > hi)
        throw py::value_error(std::string(what) + " must be " + std::to_string(lo) + " .. " +
                              std::to_string(hi) + ", not " + std::to_string(v));
    return static_cast<T>(v);
}

VideoMode mode_from(const py::object& o) {
    if (py::isinstance<py::str>(o)) {
        const std::string s = o.cast<std::string>();
        for (auto [name, m] : {std::pair{"rgbd", VideoMode::RGBD},
                               {"raw", VideoMode::RAW},
                               {"rectified", VideoMode::RECTIFIED},
                               {"dense", VideoMode::DENSE},
                               {"filtered", VideoMode::FILTERED}})
            if (s == name) return m;
        throw py::value_error("video mode \"" + s +
                              "\" is not one of rgbd, raw, rectified, dense, filtered");
    }
    return o.cast<VideoMode>();
}

}  // namespace

PYBIND11_MODULE(kscamera, m) {
    m.doc() = "Driver for the KS USB stereo depth camera, with a built-in virtual camera";

    camera_error_type = py::handle(PyErr_NewExceptionWithDoc(
        "kscamera.CameraError", "A camera operation failed. `code` is the library's result code.",
        PyExc_RuntimeError, nullptr));
    m.attr("CameraError") = camera_error_type;
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const CameraError& e) {
            py::object err = camera_error_type(e.message);
            err.attr("code") = e.code;
            PyErr_SetObject(camera_error_type.ptr(), err.ptr());
        }
    });

    py::enum_<VideoMode>(m, "VideoMode", "Output mode of the camera")
        .value("RGBD", VideoMode::RGBD, "colour image and the camera's disparity (default)")
        .value("RAW", VideoMode::RAW, "unrectified left and right images, 12 bits in 16")
        .value("RECTIFIED", VideoMode::RECTIFIED, "rectified grey left and colour right image")
        .value("DENSE", VideoMode::DENSE, "origin disparity densified on the host")
        .value("FILTERED", VideoMode::FILTERED, "origin disparity filtered on the host");
    py::enum_<FillLight>(m, "FillLight", "Fill-light behaviour")
        .value("OFF", FillLight::OFF)
        .value("MODE_1", FillLight::MODE_1)
        .value("MODE_0", FillLight::MODE_0)
        .value("ALTERNATE", FillLight::ALTERNATE);

    m.def(
        "sdk_version", [] { return std::string(ksGetSdkVersion()); },
        "Version of the driver library");
    m.def(
        "open_log", [](int level) { ksOpenSDKLog(level); }, py::arg("level") = 3,
        "Prints the library's log from `level` up (0 trace .. 5 fatal)");
    m.def("close_log", [] { ksCloseSDKLog(); });

    py::class_<CameraInfo>(m, "CameraInfo", "One camera found on the host")
        .def_readonly("node", &CameraInfo::node)
        .def_readonly("by_path", &CameraInfo::by_path)
        .def_readonly("by_id", &CameraInfo::by_id)
        .def_readonly("serial", &CameraInfo::serial)
        .def("__repr__", [](const CameraInfo& c) {
            return "CameraInfo(node='" + c.node + "', serial='" + c.serial + "')";
        });
    m.def("list_cameras", &list_cameras, "The cameras found on the host");

    py::class_<StreamConfig>(m, "StreamConfig", "A stream configuration stored in an EPR slot")
        .def_readonly("slot", &StreamConfig::slot)
        .def_readonly("width", &StreamConfig::width)
        .def_readonly("height", &StreamConfig::height)
        .def("__repr__", [](const StreamConfig& s) {
            return "StreamConfig(slot=" + std::to_string(s.slot) + ", " + std::to_string(s.width) +
                   "x" + std::to_string(s.height) + ")";
        });

    py::class_<ImuSample>(m, "ImuSample", "One IMU sample")
        .def_readonly("sync_id", &ImuSample::sync_id, "id of the video frame it came with")
        .def_readonly("timestamp", &ImuSample::timestamp, "sample counter, wraps counted")
        .def_readonly("temperature", &ImuSample::temperature, "degrees Celsius")
        .def_readonly("acc", &ImuSample::acc, "acceleration x, y, z in m/s^2")
        .def_readonly("gyro", &ImuSample::gyro, "angular rate x, y, z in rad/s");

    py::class_<RectDistance>(m, "RectDistance", "Disparity and distance over a rectangle")
        .def_readonly("min_disparity", &RectDistance::min_disparity)
        .def_readonly("max_disparity", &RectDistance::max_disparity)
        .def_readonly("mean_disparity", &RectDistance::mean_disparity)
        .def_readonly("median_disparity", &RectDistance::median_disparity)
        .def_readonly("valid_ratio", &RectDistance::valid_ratio)
        .def_readonly("min_distance", &RectDistance::min_distance)
        .def_readonly("max_distance", &RectDistance::max_distance)
        .def_readonly("mean_distance", &RectDistance::mean_distance)
        .def_readonly("median_distance", &RectDistance::median_distance)
        .def_readonly("mean_point_distance", &RectDistance::mean_point_distance)
        .def_readonly("median_point_distance", &RectDistance::median_point_distance);

    py::class_<Frame>(m, "Frame",
                      "One frame. Every array is the frame's own copy; arrays a mode does not "
                      "carry are None.")
        .def_readonly("id", &Frame::id)
        .def_readonly("timestamp", &Frame::timestamp, "camera timestamp (0 if not given)")
        .def_readonly("mode", &Frame::mode)
        .def_readonly("width", &Frame::width)
        .def_readonly("height", &Frame::height)
        .def_readonly("bxf", &Frame::bxf, "baseline x focal length (mm x pixels)")
        .def_readonly("baseline", &Frame::baseline, "baseline in mm")
        .def_readonly("colour", &Frame::colour, "(height, width, 3) uint8 RGB")
        .def_readonly("disparity", &Frame::disparity,
                      "(height, width) uint16: value / 32 pixels in the low 13 bits, 0 invalid")
        .def_readonly("depth", &Frame::depth, "(height, width) uint16 millimetres, 0 invalid")
        .def_readonly("left", &Frame::left,
                      "left image: raw (height, width) uint16, rectified uint8 grey")
        .def_readonly("right", &Frame::right,
                      "right image: raw (height, width) uint16, rectified (height, width, 3) RGB")
        .def("distance_at", &Frame::distance_at, py::arg("x"), py::arg("y"), py::arg("radius") = 4,
             "Median distance in mm of the valid pixels around (x, y), None if none")
        .def("__repr__", [](const Frame& f) {
            return "Frame(id=" + std::to_string(f.id) + ", " + std::to_string(f.width) + "x" +
                   std::to_string(f.height) + ")";
        });

    py::class_<Camera>(m, "Camera", "An open camera; a context manager that closes it")
        .def("__enter__", [](Camera& c) -> Camera& { return c; })
        .def("__exit__", [](Camera& c, py::args) { c.close(); })
        .def("close", &Camera::close)
        .def_property_readonly("closed", &Camera::closed)
        .def_property_readonly("name", [](const Camera& c) { return c.state().name; })
        .def(
            "wait_for_frame",
            [](const Camera& c, double timeout) {
                if (!(timeout > 0)) throw py::value_error("timeout must be greater than 0");
                FrameData d = c.call([&](KSCameraAbstract* h) {
                    return read_frame(h, &c.state().check_channel, timeout);
                });
                return to_python(std::move(d));
            },
            py::arg("timeout") = 10.0,
            "The next frame of the current video mode (timeout in seconds of camera time)")
        .def(
            "point_cloud",
            [](const Camera& c, const py::object& source) {
                const auto [w, h] = resolution(c);
                auto disparity = disparity_of(source, w, h);
                std::vector<float> xyz;
                c.call([&](KSCameraAbstract* hd) {
                    unsigned int count = 0;
                    float *x = nullptr, *y = nullptr, *z = nullptr;
                    check(ksConvertDisparity2PointCloud(hd, disparity.data(), &count, &x, &y, &z),
                          "converting the disparity into points");
                    if (count > static_cast<size_t>(w) * h) fail(-2, "converting the disparity");
                    if (count > 0 && (x == nullptr || y == nullptr || z == nullptr))
                        fail(-2, "converting the disparity into points");
                    xyz.resize(static_cast<size_t>(count) * 3);
                    for (size_t i = 0; i < count; ++i) {
                        xyz[i * 3] = x[i];
                        xyz[i * 3 + 1] = y[i];
                        xyz[i * 3 + 2] = z[i];
                    }
                    return 0;
                });
                return array_copy(xyz.data(), {static_cast<py::ssize_t>(xyz.size() / 3), 3});
            },
            py::arg("frame"),
            "The valid pixels of a frame's disparity as an (N, 3) float32 array of x, y, z in mm")
        .def(
            "rect_distance",
            [](const Camera& c, const py::object& source, unsigned x, unsigned y, unsigned width,
               unsigned height) {
                const auto [w, h] = resolution(c);
                auto disparity = disparity_of(source, w, h);
                if (width == 0 || height == 0 || x >= w || y >= h || width > w - x ||
                    height > h - y)
                    throw py::value_error("the rectangle must lie within the " + std::to_string(w) +
                                          " x " + std::to_string(h) + " image");
                _ks_rect_distance_info_s info{};
                info.x = static_cast<uint16_t>(x);
                info.y = static_cast<uint16_t>(y);
                info.width = static_cast<uint16_t>(width);
                info.height = static_cast<uint16_t>(height);
                info.disparity = const_cast<uint16_t*>(disparity.data());  // only read
                c.call([&](KSCameraAbstract* hd) {
                    check(ksCalculateRectDistance(hd, &info), "measuring the rectangle");
                    return 0;
                });
                return RectDistance{
                    info.min_disparity,       info.max_disparity,        info.mean_disparity,
                    info.median_disparity,    info.valid_ratio,          info.min_distance,
                    info.max_distance,        info.mean_distance,        info.median_distance,
                    info.mean_point_distance, info.median_point_distance};
            },
            py::arg("frame"), py::arg("x"), py::arg("y"), py::arg("width"), py::arg("height"),
            "Disparity and distance statistics over a rectangle of a frame")
        .def(
            "read_imu",
            [](const Camera& c, double timeout) {
                if (!(timeout > 0)) throw py::value_error("timeout must be greater than 0");
                return c.call([&](KSCameraAbstract* h) {
                    // Right after the camera opens, the receiver drains the
                    // IMU's queue and answers "not yet" at once.
                    const uint64_t deadline = now_us() + static_cast<uint64_t>(timeout * 1e6);
                    _ks_imu_data_set_s* s = nullptr;
                    int r = ksGetIMUData(h, &s);
                    while ((r != 0 || s == nullptr) && now_us() < deadline) {
                        const timespec pause{0, 1000000};
                        nanosleep(&pause, nullptr);
                        r = ksGetIMUData(h, &s);
                    }
                    check(r, "reading the IMU");
                    if (s == nullptr) fail(-2, "reading the IMU");
                    const _ks_imu_data_set_s v = *s;  // the ring slot is reused
                    return ImuSample{v.sync_id,
                                     v.timestamp,
                                     v.temperature,
                                     {v.acc_x, v.acc_y, v.acc_z},
                                     {v.gyro_x, v.gyro_y, v.gyro_z}};
                });
            },
            py::arg("timeout") = 5.0, "The next IMU sample (timeout in seconds of camera time)")
        // ---- video mode and stream configuration
        .def_property(
            "video_mode",
            [](const Camera& c) {
                return static_cast<VideoMode>(
                    get_value<_ks_video_mode_e>(c, ksGetVideoMode, "video mode"));
            },
            [](const Camera& c, const py::object& o) {
                const VideoMode mode = mode_from(o);
                c.call([&](KSCameraAbstract* h) {
                    check(ksSetVideoMode(h, static_cast<_ks_video_mode_e>(mode)),
                          "setting the video mode");
                    c.state().check_channel = true;
                    return 0;
                });
            },
            "VideoMode, or its name: rgbd, raw, rectified, dense, filtered")
        .def_property_readonly("resolution", &resolution, "(width, height)")
        .def_property_readonly(
            "stream_configs",
            [](const Camera& c) {
                return c.call([](KSCameraAbstract* h) {
                    _ks_video_param_s* list = nullptr;
                    unsigned char count = 0;
                    check(ksQuerySupportedVideoParam(h, &list, &count),
                          "listing the stream configurations");
                    std::vector<StreamConfig> out;
                    for (unsigned i = 0; i < count && list != nullptr; ++i)
                        out.push_back({list[i].index, list[i].width, list[i].height});
                    return out;
                });
            },
            "The stream configurations stored in the camera")
        .def_property(
            "stream_config",
            [](const Camera& c) {
                return get_value<unsigned char>(c, ksGetVideoParam, "stream configuration");
            },
            [](const Camera& c, long long slot) {
                const auto s = ranged<unsigned char>(slot, 0, 7, "stream_config");
                c.call([&](KSCameraAbstract* h) {
                    _ks_video_param_s* list = nullptr;
                    unsigned char count = 0;
                    check(ksQuerySupportedVideoParam(h, &list, &count),
                          "listing the stream configurations");
                    check(ksSetVideoParam(h, s),
                          "selecting stream configuration " + std::to_string(s));
                    return 0;
                });
            },
            "EPR slot of the stream configuration in use (setting it power-cycles the camera)")
        .def_property_readonly(
            "fps",
            [](const Camera& c) -> std::optional<double> {
                return c.call([](KSCameraAbstract* h) -> std::optional<double> {
                    double fps = 0;
                    if (ksGetRealTimeFPS(h, &fps) != 0) return std::nullopt;
                    return fps;
                });
            },
            "Frame rate measured by the library, None until enough frames went by")
        .def(
            "set_fps",
            [](const Camera& c, std::optional<double> fps) {
                if (fps && !(*fps >= 1 && *fps <= 30)) throw py::value_error("fps must be 1 .. 30");
                c.call([&](KSCameraAbstract* h) {
                    if (fps)
                        check(ksSetCameraFps(h, static_cast<float>(*fps)),
                              "setting the frame rate");
                    else
                        check(ksRestoreCameraFpsToDefault(h), "restoring the default frame rate");
                    return 0;
                });
            },
            py::arg("fps"), "Sets the frame rate (1 .. 30), or the default with None")
        // ---- sensor settings
        .def_property(
            "exposure",
            [](const Camera&) -> py::object {
                throw py::attribute_error(
                    "the camera cannot report its exposure: it can be set only");
            },
            [](const Camera& c, long long v) {
                set_value(c, ksSetExposure, ranged<unsigned short>(v, 0, 800, "exposure"),
                          "exposure");
            },
            "Exposure 0 .. 800 (0: automatic); write-only")
        .def_property(
            "gain",
            [](const Camera&) -> py::object {
                throw py::attribute_error("the camera cannot report its gain: it can be set only");
            },
            [](const Camera& c, long long v) {
                set_value(c, ksSetCameraGain, ranged<unsigned short>(v, 0, 255, "gain"), "gain");
            },
            "Sensor gain 0 .. 255; write-only")
        .def_property(
            "fill_light",
            [](const Camera& c) {
                return static_cast<FillLight>(
                    get_value<_ks_filllight_type_e>(c, ksGetFilllightType, "fill light"));
            },
            [](const Camera& c, FillLight v) {
                set_value(c, ksSetFilllightType, static_cast<_ks_filllight_type_e>(v),
                          "fill light");
            })
        .def_property(
            "fill_light_intensity",
            [](const Camera& c) {
                return get_value<unsigned char>(c, ksGetFillLightIntensity, "fill-light intensity");
            },
            [](const Camera& c, long long v) {
                set_value(c, ksSetFillLightIntensity,
                          ranged<unsigned char>(v, 0, 255, "fill_light_intensity"),
                          "fill-light intensity");
            })
        // ---- stereo-matching settings
        .def_property(
            "disparity_offset",
            [](const Camera& c) {
                return get_value<float>(c, ksGetDispOffset, "disparity offset");
            },
            [](const Camera& c, double v) {
                if (!(v >= -1024 && v <= 1023.96875))
                    throw py::value_error("disparity_offset must be -1024 .. 1023.96875");
                set_value(c, ksSetDispOffset, static_cast<float>(v), "disparity offset");
            },
            "Disparity offset in pixels (steps of 1/32)")
        .def_property(
            "line_offset",
            [](const Camera& c) { return get_value<float>(c, ksGetLineOffset, "line offset"); },
            [](const Camera& c, double v) {
                if (!(v >= -254 && v <= 254))
                    throw py::value_error("line_offset must be -254 .. 254");
                set_value(c, ksSetLineOffset, static_cast<float>(v), "line offset");
            },
            "Line offset between the sensors, in lines")
        .def_property(
            "search_range",
            [](const Camera& c) {
                return get_value<unsigned char>(c, ksGetSearchRange, "search range");
            },
            [](const Camera& c, long long v) {
                set_value(c, ksSetSearchRange, ranged<unsigned char>(v, 0, 255, "search_range"),
                          "search range");
            },
            "Start of the disparity search, in steps of 32 disparity units")
        .def_property(
            "line_trim",
            [](const Camera& c) {
                return c.call([](KSCameraAbstract* h) {
                    unsigned short l = 0, r = 0;
                    check(ksGetLineTrim(h, &l, &r), "reading the trims");
                    return std::pair<unsigned, unsigned>{l, r};
                });
            },
            [](const Camera& c, std::pair<long long, long long> v) {
                const auto l = ranged<unsigned short>(v.first, 0, 254, "left trim");
                const auto r = ranged<unsigned short>(v.second, 0, 254, "right trim");
                if (l % 2 != 0 || r % 2 != 0) throw py::value_error("the trims must be even");
                c.call([&](KSCameraAbstract* h) {
                    check(ksSetLineTrim(h, l, r), "setting the trims");
                    return 0;
                });
            },
            "(left, right) trims, each 0 .. 254 and even")
        // ---- identity
        .def_property(
            "serial",
            [](const Camera& c) {
                return c.call([](KSCameraAbstract* h) {
                    char sn[32] = {0};
                    check(ksGetCameraSN(h, sn), "reading the serial number");
                    return std::string(sn, strnlen(sn, 16));
                });
            },
            [](const Camera& c, const std::string& sn) {
                if (sn.empty() || sn.size() > 16)
                    throw py::value_error("a serial number has 1 .. 16 characters");
                c.call([&](KSCameraAbstract* h) {
                    check(ksSetCameraSN(h, sn.c_str()), "setting the serial number");
                    return 0;
                });
            })
        .def_property_readonly("cmos_swap_mode",
                               [](const Camera& c) {
                                   return get_value<unsigned char>(c, ksGetCameraCMOSSwapMode,
                                                                   "sensor swap mode");
                               })
        .def_property_readonly("sensor",
                               [](const Camera& c) {
                                   return c.call([](KSCameraAbstract* h) {
                                       unsigned char id = 0;
                                       const char* name = nullptr;
                                       check(ksGetCmosType(h, &id, &name), "reading the sensor");
                                       return std::string(name != nullptr ? name : "");
                                   });
                               })
        .def_property_readonly("usb_version",
                               [](const Camera& c) {
                                   return c.call([](KSCameraAbstract* h) {
                                       char v[256] = {0};
                                       check(ksGetUsbVersion(h, v), "reading the USB version");
                                       return std::string(v, strnlen(v, sizeof v));
                                   });
                               })
        .def_property_readonly("fpga_version",
                               [](const Camera& c) {
                                   return c.call([](KSCameraAbstract* h) {
                                       unsigned char a = 0, b = 0;
                                       check(ksGetFpgaVersion(h, &a, &b),
                                             "reading the FPGA version");
                                       return std::pair<unsigned, unsigned>{a, b};
                                   });
                               })
        .def_property_readonly(
            "stereo_constants",
            [](const Camera& c) {
                return c.call([](KSCameraAbstract* h) {
                    float bxf = 0, base = 0;
                    check(ksGetBxfAndBase(h, &bxf, &base), "reading the stereo constants");
                    return std::pair<float, float>{bxf, base};
                });
            },
            "(bxf, baseline in mm)")
        .def_property_readonly(
            "rectified_camera",
            [](const Camera& c) {
                return c.call([](KSCameraAbstract* h) {
                    float f = 0, cx = 0, cy = 0;
                    check(ksGetRectifyCamParam(h, &f, &cx, &cy), "reading the rectified camera");
                    return std::tuple<float, float, float>{f, cx, cy};
                });
            },
            "(focal length in pixels, cx, cy) of the rectified images")
        // ---- EPR slots, calibration, maintenance
        .def(
            "upload_epr",
            [](const Camera& c, const std::string& path, long long slot, long long width,
               long long height, bool select, Progress progress) {
                _ks_video_param_s p{};
                p.index = ranged<uint8_t>(slot, 0, 7, "slot");
                p.width = ranged<uint16_t>(width, 1, 65535, "width");
                p.height = ranged<uint16_t>(height, 1, 65535, "height");
                long_operation(c.state(), progress, "uploading " + path, [&](KSCameraAbstract* h) {
                    return select ? ksUploadEprFile(h, path.c_str(), &p)
                                  : ksStoreEprFileWithVideoFrameParam(h, path.c_str(), &p);
                });
            },
            py::arg("path"), py::arg("slot"), py::arg("width"), py::arg("height"),
            py::arg("select") = false, py::arg("progress") = py::none(),
            "Writes an EPR image into a slot with its stream size (select: and uses it)")
        .def(
            "select_epr",
            [](const Camera& c, long long slot, Progress progress) {
                const auto s = ranged<uint8_t>(slot, 0, 7, "slot");
                long_operation(c.state(), progress, "selecting EPR slot " + std::to_string(s),
                               [&](KSCameraAbstract* h) { return ksSelectEprFile(h, s); });
            },
            py::arg("slot"), py::arg("progress") = py::none(),
            "Makes a slot's EPR the effective one (power-cycles the camera)")
        .def(
            "backup_epr",
            [](const Camera& c, const std::string& path, Progress progress) {
                long_operation(
                    c.state(), progress, "backing up the effective EPR",
                    [&](KSCameraAbstract* h) { return ksBackUpEffectiveEprFile(h, path.c_str()); });
            },
            py::arg("path"), py::arg("progress") = py::none(),
            "Reads the effective EPR image into a file")
        .def(
            "import_calibration",
            [](const Camera& c, const std::string& folder, long long slot, Progress progress) {
                const auto s = ranged<uint8_t>(slot, 0, 7, "slot");
                long_operation(c.state(), progress, "importing the calibration folder " + folder,
                               [&](KSCameraAbstract* h) {
                                   return ksUploadCameraEprForAutoCalibration(h, s, folder.c_str());
                               });
            },
            py::arg("folder"), py::arg("slot"), py::arg("progress") = py::none(),
            "Imports a calibration station's folder (one .epr, one .log) into a slot")
        .def(
            "upload_fpga",
            [](const Camera& c, const std::string& path, Progress progress) {
                long_operation(
                    c.state(), progress, "uploading the FPGA bitstream " + path,
                    [&](KSCameraAbstract* h) { return ksUploadFpgaBitFile(h, path.c_str()); });
            },
            py::arg("path"), py::arg("progress") = py::none())
        .def(
            "reset_to_factory",
            [](const Camera& c, Progress progress) {
                long_operation(c.state(), progress, "resetting to the factory state",
                               [](KSCameraAbstract* h) { return ksResetCameraToFactoryState(h); });
            },
            py::arg("progress") = py::none(), "Erases the stored settings and the effective EPR")
        .def("suspend",
             [](const Camera& c) {
                 c.call([](KSCameraAbstract* h) {
                     check(ksSuspendCamera(h), "suspending the camera");
                     return 0;
                 });
             })
        .def("resume", [](const Camera& c) {
            c.call([](KSCameraAbstract* h) {
                check(ksResumeCamera(h), "resuming the camera");
                return 0;
            });
        });

    m.def("open", &open_camera, py::kw_only(), py::arg("serial") = py::none(),
          py::arg("path") = py::none(), py::arg("number") = py::none(),
          "Opens a camera by serial number, device path or /dev/videoN number (default: the "
          "first camera found); the camera streams when this returns");

    py::class_<World>(m, "VirtualWorld",
                      "Virtual cameras installed into the library; a context manager")
        .def("__enter__", [](World& w) -> World& { return w; })
        .def("__exit__", [](World& w, py::args) { w.close(); })
        .def("close", &World::close, "Closes the cameras opened on it and removes it")
        .def_property_readonly("warp",
                               [](const World& w) { return kssim_world_warp(w.state().world); })
        .def_property_readonly(
            "now_us", [](const World& w) { return kssim_world_now_us(w.state().world); },
            "The virtual clock in microseconds")
        .def_property_readonly(
            "nodes",
            [](const World& w) {
                std::vector<std::string> out;
                for (uint32_t i = 0; i < kssim_world_camera_count(w.state().world); ++i)
                    out.push_back(kssim_camera_node_path(w.camera(i), KSSIM_NODE_CAPTURE));
                return out;
            })
        .def(
            "true_distance",
            [](const World& w, unsigned x, unsigned y, unsigned camera) -> std::optional<double> {
                double mm = 0;
                if (kssim_camera_true_distance(w.camera(camera), x, y, &mm) != 0)
                    return std::nullopt;
                return mm;
            },
            py::arg("x"), py::arg("y"), py::arg("camera") = 0,
            "Ground truth: the scene's distance in mm seen at pixel (x, y) of the colour image");

    m.def(
        "virtual",
        [](unsigned cameras, std::vector<std::string> serials, const std::string& scene,
           double distance_mm, double warp, double fps,
           bool imu) { return World(cameras, serials, scene, distance_mm, warp, fps, imu); },
        py::kw_only(), py::arg("cameras") = 1, py::arg("serials") = std::vector<std::string>{},
        py::arg("scene") = "room", py::arg("distance") = 0.0, py::arg("warp") = 1.0,
        py::arg("fps") = 0.0, py::arg("imu") = true,
        "Virtual cameras for this process: scene wall, room or backlit; distance in mm (0: "
        "the scene's default); warp makes time run faster; fps 0 keeps the default");
}
