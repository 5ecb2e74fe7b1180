// Output streams, the host (real cameras or the virtual world), opening a
// camera, the camera list and the names of the interface's values.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstring>

#include "tools/kscam/kscam.h"

namespace kscam {

namespace {

FILE* g_out = stdout;
int g_tool_fd = 1;
int g_library_fd = 1;  // where fd 1 points while the library runs

struct SceneName {
    const char* name;
    kssim_scene_kind kind;
};
constexpr SceneName kScenes[] = {
    {"wall", KSSIM_SCENE_WALL}, {"room", KSSIM_SCENE_ROOM}, {"backlit", KSSIM_SCENE_BACKLIT}};

// Points fd 1 at `fd` for as long as it lives.
class StdoutTo {
  public:
    explicit StdoutTo(int fd) : saved_(dup(1)) {
        fflush(stdout);
        if (fd >= 0) dup2(fd, 1);
    }
    ~StdoutTo() {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, 1);
            close(saved_);
        }
    }
    StdoutTo(const StdoutTo&) = delete;
    StdoutTo& operator=(const StdoutTo&) = delete;

  private:
    int saved_;
};

}  // namespace

// ---- output ----

void separate_library_output() {
    const int fd = dup(1);
    if (fd < 0) return;
    FILE* f = fdopen(fd, "w");
    if (f == nullptr) {
        close(fd);
        return;
    }
    fflush(stdout);
    g_tool_fd = fd;
    g_out = f;
    setvbuf(g_out, nullptr, _IOLBF, 0);
    dup2(2, 1);
    g_library_fd = 2;
}

FILE* out() {
    return g_out;
}

void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(g_out, format, args);
    va_end(args);
}

void note(const char* format, ...) {
    fflush(g_out);
    fputs("kscam: ", stderr);
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
}

bool out_is_terminal() {
    return isatty(fileno(g_out)) != 0;
}

LibraryOutputToTool::LibraryOutputToTool() {
    fflush(g_out);
    fflush(stdout);
    if (g_tool_fd != 1) dup2(g_tool_fd, 1);
}

LibraryOutputToTool::~LibraryOutputToTool() {
    fflush(stdout);
    if (g_library_fd != 1) dup2(g_library_fd, 1);
}

void check(int result, const std::string& what) {
    if (result != 0) throw CameraError(what + " failed (error " + std::to_string(result) + ")");
}

// ---- the camera list ----

std::vector<CameraEntry> query_cameras() {
    std::vector<CameraEntry> cameras;
    _ks_camera_list* list = nullptr;
    int result;
    {
        // "No ksCamera Device found" is the tool's to say, in its own words.
        const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        StdoutTo quiet(null_fd);
        result = ksQueryCameraList(&list);
        if (null_fd >= 0) close(null_fd);
    }
    if (result == 0 && list != nullptr && list->cameras != nullptr) {
        for (uint32_t i = 0; i < list->count && i < 64; ++i) {
            const _ks_camera_info_s& c = list->cameras[i];
            auto text = [](const char* field, size_t size) {
                return std::string(field, strnlen(field, size));
            };
            cameras.push_back({text(c.video_dev, sizeof c.video_dev),
                               text(c.usb_path_name, sizeof c.usb_path_name),
                               text(c.v4l_id_name, sizeof c.v4l_id_name),
                               text(c.camera_sn, sizeof c.camera_sn)});
        }
    }
    ksReleaseCameraList(list);
    return cameras;
}

// ---- the host ----

Host::Host(const GlobalOptions& options, bool json) : sim_(options.sim) {
    std::string why;
    if (!sim_.requested) {
        if (!query_cameras().empty()) return;
        why = "no camera attached: ";
    }
    kssim_scene_kind kind = KSSIM_SCENE_ROOM;
    for (const SceneName& s : kScenes)
        if (sim_.scene == s.name) kind = s.kind;
    world_ = kssim_world_create();
    if (world_ == nullptr) throw CameraError("the virtual camera could not be created");
    for (int i = 0; i < sim_.cameras; ++i) {
        kssim_camera_config cfg;
        kssim_camera_config_init(&cfg);
        cfg.scene.kind = kind;
        cfg.scene.distance_mm = sim_.distance_mm;
        // Serials given, else the default one and its successors.
        char serial[32];
        if (static_cast<size_t>(i) < sim_.serials.size())
            std::snprintf(serial, sizeof serial, "%s", sim_.serials[i].c_str());
        else
            std::snprintf(serial, sizeof serial, "KS%010d", i + 1);
        std::snprintf(cfg.serial, sizeof cfg.serial, "%s", serial);
        if (kssim_world_add_camera(world_, &cfg) == nullptr)
            throw CameraError(std::string("the virtual camera ") + serial + " could not be added");
    }
    if (kssim_world_set_warp(world_, sim_.warp) != 0 || kssim_world_install(world_) != 0) {
        kssim_world_destroy(world_);
        world_ = nullptr;
        throw CameraError("the virtual camera could not be installed");
    }
    const std::string line = "kscam: " + why + "running on the " + description();
    if (json)
        std::fprintf(stderr, "%s\n", line.c_str());
    else
        say("%s\n", line.c_str());
}

Host::~Host() {
    if (world_ != nullptr) kssim_world_destroy(world_);
}

kssim_camera* Host::sim_camera(const std::string& node) const {
    if (world_ == nullptr) return nullptr;
    for (uint32_t i = 0; i < kssim_world_camera_count(world_); ++i) {
        kssim_camera* c = kssim_world_camera(world_, i);
        for (const char* name : {kssim_camera_node_path(c, KSSIM_NODE_CAPTURE),
                                 kssim_camera_by_path_link(c, KSSIM_NODE_CAPTURE),
                                 kssim_camera_by_id_link(c, KSSIM_NODE_CAPTURE)})
            if (name != nullptr && node == name) return c;
    }
    return nullptr;
}

uint64_t Host::now_us() const {
    if (world_ != nullptr) return kssim_world_now_us(world_);
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

double Host::warp() const {
    return world_ != nullptr ? kssim_world_warp(world_) : 1.0;
}

std::string Host::description() const {
    if (world_ == nullptr) return "attached cameras";
    kssim_camera_config cfg;
    kssim_camera* first = kssim_world_camera(world_, 0);
    if (first == nullptr || kssim_camera_get_config(first, &cfg) != 0) return "virtual camera";
    const unsigned n = kssim_world_camera_count(world_);
    char text[256];
    int len = std::snprintf(text, sizeof text, "virtual camera");
    if (n > 1) len += std::snprintf(text + len, sizeof text - len, "s (%u)", n);
    len += std::snprintf(text + len, sizeof text - len, ": %s scene", sim_.scene.c_str());
    if (cfg.scene.distance_mm > 0)
        len += std::snprintf(text + len, sizeof text - len, " (%s at %.0f mm)",
                             sim_.scene == "wall" ? "wall" : "back wall", cfg.scene.distance_mm);
    len += std::snprintf(text + len, sizeof text - len, ", %u x %u at %.0f fps",
                         cfg.initial_size.width, cfg.initial_size.height, cfg.fps);
    if (warp() != 1.0) std::snprintf(text + len, sizeof text - len, ", time x%g", warp());
    return text;
}

Json Host::describe_json() const {
    Json j;
    j["virtual"] = world_ != nullptr;
    if (world_ != nullptr) {
        j["scene"] = sim_.scene;
        j["warp"] = warp();
    }
    return j;
}

// ---- opening a camera ----

namespace {

bool all_digits(const std::string& s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

}  // namespace

Camera::Camera(Host& host, const std::string& selector) : host_(host) {
    int result = -1;
    if (!selector.empty() && selector[0] == '/') {
        node_ = selector;
        result = ksOpenUVCCameraByPath(selector.c_str(), &handle_);
    } else if (all_digits(selector)) {
        if (selector.size() > 3) throw UsageError("no video device number " + selector);
        node_ = "/dev/video" + selector;
        result = ksOpenUVCCameraByNumber(std::stoi(selector), &handle_);
    } else {
        _ks_camera_list* list = nullptr;
        {
            const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
            StdoutTo quiet(null_fd);
            ksQueryCameraList(&list);
            if (null_fd >= 0) close(null_fd);
        }
        const bool listed = list != nullptr && list->count > 0 && list->cameras != nullptr;
        if (!selector.empty()) {
            if (selector.size() > 16)
                throw UsageError("no camera has the serial number " + selector);
            if (listed) {
                if (const char* dev = ksGetCameraDeviceNameBySn(list, selector.c_str()))
                    node_ = std::string(dev, strnlen(dev, 16));
                result = ksOpenUVCCameraBySN(list, selector.c_str(), &handle_);
            }
            ksReleaseCameraList(list);
            if (node_.empty()) throw CameraError("no camera with serial number " + selector);
        } else if (listed) {
            // The first camera of the list.
            const _ks_camera_info_s& first = list->cameras[0];
            node_ = std::string(first.video_dev, strnlen(first.video_dev, sizeof first.video_dev));
            result = ksOpenUVCCameraByPath(node_.c_str(), &handle_);
            ksReleaseCameraList(list);
        } else {
            ksReleaseCameraList(list);
            // A library that lists no camera of a virtual world still opens
            // the world's first camera by its node.
            if (host.world() == nullptr || kssim_world_camera_count(host.world()) == 0)
                throw CameraError("no camera found");
            node_ = kssim_camera_node_path(kssim_world_camera(host.world(), 0), KSSIM_NODE_CAPTURE);
            result = ksOpenUVCCameraByPath(node_.c_str(), &handle_);
        }
    }
    if (result != 0 || handle_ == nullptr) {
        handle_ = nullptr;
        throw CameraError("cannot open the camera " + node_ + " (error " + std::to_string(result) +
                          ")");
    }
}

Camera::~Camera() {
    if (handle_ != nullptr) ksCloseCamera(&handle_);
}

// ---- names ----

namespace {

struct ModeName {
    const char* name;
    _ks_video_mode_e mode;
};
constexpr ModeName kModes[] = {{"rgbd", KS_VIDEO_MODE_RGBD},
                               {"raw", KS_VIDEO_MODE_STEREO_ORIGIN},
                               {"rectified", KS_VIDEO_MODE_STEREO_RECTIFIED},
                               {"dense", KS_VIDEO_MODE_DENSE_DISPARITY},
                               {"filtered", KS_VIDEO_MODE_FILTERED_DISPARITY}};

}  // namespace

const char* video_mode_name(_ks_video_mode_e mode) {
    for (const ModeName& m : kModes)
        if (m.mode == mode) return m.name;
    return "unknown";
}

bool parse_video_mode(const std::string& name, _ks_video_mode_e* mode) {
    for (const ModeName& m : kModes) {
        if (name == m.name) {
            *mode = m.mode;
            return true;
        }
    }
    return false;
}

std::vector<std::string> video_mode_names() {
    std::vector<std::string> names;
    for (const ModeName& m : kModes) names.push_back(m.name);
    return names;
}

const char* fill_light_name(_ks_filllight_type_e type) {
    switch (type) {
        case KS_FILLLIGHT_TYPE_OFF:
            return "off";
        case KS_FILLLIGHT_TYPE_CTRL_MODE_1:
            return "mode1";
        case KS_FILLLIGHT_TYPE_CTRL_MODE_0:
            return "mode0";
        case KS_FILLLIGHT_TYPE_ALTERNATE:
            return "alternate";
    }
    return "unknown";
}

bool parse_scene(const std::string& name) {
    for (const SceneName& s : kScenes)
        if (name == s.name) return true;
    return false;
}

}  // namespace kscam
