// kscam: the command-line tool of the stereo camera, built on the public C
// interface only, with the virtual camera as its embedded default.
#ifndef KSCAM_KSCAM_H
#define KSCAM_KSCAM_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "ksStereoCameraDriver.h"
#include "sim/kssim.h"

namespace kscam {

using Json = nlohmann::ordered_json;

// Exit codes: documented in the README and in --help.
enum ExitCode { kExitOk = 0, kExitCamera = 1, kExitUsage = 2 };

// A camera operation failed or no camera could be opened (exit 1).
struct CameraError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// An argument the tool refuses before it reaches the camera (exit 2).
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- output ----
// The tool writes to its own standard output; the library's messages (which
// it prints on file descriptor 1) are sent to standard error instead, so
// that --json output stays parseable.
void separate_library_output();
FILE* out();
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A note on standard error, prefixed "kscam: ".
void note(const char* format, ...) __attribute__((format(printf, 1, 2)));
// While it lives, the library's messages on standard output go to the
// tool's standard output (for calls whose messages are the wanted output).
class LibraryOutputToTool {
  public:
    LibraryOutputToTool();
    ~LibraryOutputToTool();
    LibraryOutputToTool(const LibraryOutputToTool&) = delete;
    LibraryOutputToTool& operator=(const LibraryOutputToTool&) = delete;
};
bool out_is_terminal();

// ---- options shared by every subcommand ----
struct VirtualOptions {
    bool requested = false;
    std::string scene = "room";
    double distance_mm = 0;  // 0: the scene's default
    int cameras = 1;
    std::vector<std::string> serials;
    double warp = 1.0;
};

struct GlobalOptions {
    std::string camera;  // serial number, path or /dev/videoN number; empty: the first
    VirtualOptions sim;
    int verbosity = 0;  // -v count
    std::string log_level;
};

// ---- the system the tool runs against ----
// Real cameras, or a virtual world the tool installs when none of ours is
// attached (or when asked).
class Host {
  public:
    explicit Host(const GlobalOptions& options, bool json);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    bool is_virtual() const { return world_ != nullptr; }
    kssim_world* world() const { return world_; }
    // The virtual camera behind a node path (capture node), or null.
    kssim_camera* sim_camera(const std::string& node) const;
    // The camera's clock in microseconds: the world's when virtual.
    uint64_t now_us() const;
    // Time warp of the virtual world (1 for real cameras).
    double warp() const;
    // One line saying which cameras these are.
    std::string description() const;
    Json describe_json() const;

  private:
    kssim_world* world_ = nullptr;
    VirtualOptions sim_;
};

// An open camera, closed when it goes.
class Camera {
  public:
    Camera(Host& host, const std::string& selector);
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    KSCameraAbstract* handle() const { return handle_; }
    const std::string& node() const { return node_; }
    Host& host() const { return host_; }
    kssim_camera* sim() const { return host_.sim_camera(node_); }

  private:
    Host& host_;
    KSCameraAbstract* handle_ = nullptr;
    std::string node_;
};

// Throws CameraError "<what> failed (error <r>)" for a non-zero result.
void check(int result, const std::string& what);

// ---- the camera list ----
struct CameraEntry {
    std::string node, by_path, by_id, serial;
};
// The cameras the library finds; the library's own messages are silenced.
std::vector<CameraEntry> query_cameras();

// ---- names of the interface's values ----
const char* video_mode_name(_ks_video_mode_e mode);
bool parse_video_mode(const std::string& name, _ks_video_mode_e* mode);
std::vector<std::string> video_mode_names();
bool parse_scene(const std::string& name);
const char* fill_light_name(_ks_filllight_type_e type);

// ---- settings (cmd_settings.cpp) ----
// Every readable setting as JSON (null where the camera did not answer).
Json read_settings(KSCameraAbstract* h);

// ---- progress (progress.cpp) ----
// Runs a long camera call on a worker thread while the calling thread draws
// a progress bar: from the library's byte counts when it reports them, else
// against expected_seconds of camera time. Returns the call's result.
int run_with_progress(Host& host, const std::string& label, double expected_seconds,
                      const std::function<int()>& call);

}  // namespace kscam

#endif
