// capture: one frame set into a folder, as files other programs read.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "tools/kscam/commands.h"
#include "tools/kscam/frames.h"
#include "tools/kscam/images.h"

namespace kscam {

namespace fs = std::filesystem;

namespace {

// The newest frame after `skip` new ones went by.
unsigned char* settled_frame(Camera& camera, unsigned skip, unsigned long* id) {
    KSCameraAbstract* h = camera.handle();
    Host& host = camera.host();
    const uint64_t deadline = host.now_us() + 30000000;
    unsigned long last = 0;
    unsigned seen = 0;
    while (host.now_us() < deadline) {
        unsigned long frame_id = 0;
        unsigned char* src = nullptr;
        if (ksGetCurrentFrame(h, &frame_id, &src) != 0 || src == nullptr) {
            usleep(1000);
            continue;
        }
        if (seen > 0 && frame_id == last) continue;
        last = frame_id;
        if (seen++ >= skip) {
            *id = frame_id;
            return src;
        }
    }
    throw CameraError("no frame arrived within 30 s");
}

std::string size_text(const fs::path& p) {
    std::error_code ec;
    const auto n = fs::file_size(p, ec);
    if (ec) return "?";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f KiB", n / 1024.0);
    return text;
}

struct Written {
    Json files = Json::array();
    void add(const fs::path& p, const std::string& what) {
        files.push_back({{"file", p.filename().string()}, {"content", what}});
        say("  %-16s %10s  %s\n", p.filename().c_str(), size_text(p).c_str(), what.c_str());
    }
};

// The left and right images of a raw or rectified frame.
void capture_pair(Camera& camera, const std::string& pair, const Geometry& g, const fs::path& dir,
                  Written* written, Json* info) {
    KSCameraAbstract* h = camera.handle();
    _ks_video_mode_e before = KS_VIDEO_MODE_RGBD;
    ksGetVideoMode(h, &before);
    const _ks_video_mode_e mode =
        pair == "raw" ? KS_VIDEO_MODE_STEREO_ORIGIN : KS_VIDEO_MODE_STEREO_RECTIFIED;
    check(ksSetVideoMode(h, mode), "switching to the " + pair + " mode");
    unsigned long id = 0;
    unsigned char* src = wait_for_mode_frame(camera, mode, &id);
    unsigned char* left = nullptr;
    unsigned char* right = nullptr;
    const int r = mode == KS_VIDEO_MODE_STEREO_ORIGIN ? ksGetRawImage(h, src, &left, &right)
                                                      : ksGetRectifiedImage(h, src, &left, &right);
    if (r == 0 && left != nullptr && right != nullptr) {
        if (mode == KS_VIDEO_MODE_STEREO_ORIGIN) {
            // 12-bit samples in the top of 16-bit words.
            write_png16((dir / "left.png").string(), g.width, g.height,
                        reinterpret_cast<const uint16_t*>(left));
            write_png16((dir / "right.png").string(), g.width, g.height,
                        reinterpret_cast<const uint16_t*>(right));
            written->add(dir / "left.png", "left image, raw 12-bit in 16-bit grey");
            written->add(dir / "right.png", "right image, raw 12-bit in 16-bit grey");
        } else {
            write_png8((dir / "left.png").string(), g.width, g.height, 1, left);
            const std::vector<uint8_t> rgb = i420_to_rgb(right, g.width, g.height);
            write_png8((dir / "right.png").string(), g.width, g.height, 3, rgb.data());
            written->add(dir / "left.png", "left image, rectified 8-bit grey");
            written->add(dir / "right.png", "right image, rectified colour");
        }
        (*info)["pair"] = {{"mode", pair}, {"frame_id", id}};
    }
    check(ksSetVideoMode(h, before),
          "switching back to the " + std::string(video_mode_name(before)) + " mode");
    check(r, "reading the " + pair + " images");
}

// Measured distances against the virtual scene's ground truth, on a 3 x 3
// grid of the image.
Json compare_with_ground_truth(kssim_camera* sim, const uint16_t* disparity, const Geometry& g) {
    Json points = Json::array();
    for (unsigned row = 1; row <= 3; ++row) {
        for (unsigned col = 1; col <= 3; ++col) {
            const unsigned x = g.width * col / 4, y = g.height * row / 4;
            const double measured = distance_around_mm(disparity, g, x, y, 4);
            double truth = 0;
            if (kssim_camera_true_distance(sim, x, y + kDisparityLineLead, &truth) != 0) truth = 0;
            points.push_back({{"x", x},
                              {"y", y},
                              {"measured_mm", std::round(measured)},
                              {"true_mm", std::round(truth)}});
        }
    }
    return points;
}

void show_ground_truth(const Json& points) {
    say("Distances against the virtual scene's ground truth:\n");
    say("  %-10s %11s %11s %8s\n", "pixel", "measured", "true", "error");
    double worst = 0;
    for (const Json& p : points) {
        const double measured = p["measured_mm"].get<double>();
        const double truth = p["true_mm"].get<double>();
        char pixel[24];
        std::snprintf(pixel, sizeof pixel, "%u,%u", p["x"].get<unsigned>(), p["y"].get<unsigned>());
        char err[16] = "-";
        if (measured > 0 && truth > 0) {
            const double error = (measured - truth) / truth;
            std::snprintf(err, sizeof err, "%+.1f%%", error * 100);
            worst = std::max(worst, std::fabs(error));
        }
        say("  %-10s %8.0f mm %8.0f mm %8s\n", pixel, measured, truth, err);
    }
    say("  largest error %.1f%%\n", worst * 100);
}

}  // namespace

int cmd_capture(Camera& camera, const CaptureOptions& options) {
    KSCameraAbstract* h = camera.handle();
    const fs::path dir(options.dir);
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (!fs::is_directory(dir)) throw UsageError("cannot make the folder " + options.dir);

    _ks_video_mode_e mode = KS_VIDEO_MODE_RGBD;
    ksGetVideoMode(h, &mode);
    if (mode != KS_VIDEO_MODE_RGBD && mode != KS_VIDEO_MODE_DENSE_DISPARITY &&
        mode != KS_VIDEO_MODE_FILTERED_DISPARITY) {
        check(ksSetVideoMode(h, KS_VIDEO_MODE_RGBD), "switching to the rgbd mode");
        mode = KS_VIDEO_MODE_RGBD;
        unsigned long ignored = 0;
        wait_for_mode_frame(camera, mode, &ignored);
    }
    const Geometry g = read_geometry(h);
    if (g.bxf <= 0) throw CameraError("the camera gives no stereo constants (bxf, baseline)");

    unsigned long id = 0;
    unsigned char* src = settled_frame(camera, options.skip, &id);
    FrameImages images;
    check(read_rgbd(h, src, g, &images), "reading the colour and disparity images");
    const size_t pixels = static_cast<size_t>(g.width) * g.height;
    // The library's buffers are reused by the next call: keep copies.
    const std::vector<uint16_t> disparity(images.disparity, images.disparity + pixels);
    const std::vector<uint8_t> i420(images.image, images.image + pixels * 3 / 2);
    const unsigned long timestamp = images.timestamp;

    say("Capturing frame %lu of %s into %s/\n", id, camera.node().c_str(), options.dir.c_str());
    Written written;
    const std::vector<uint8_t> rgb = i420_to_rgb(i420.data(), g.width, g.height);
    write_png8((dir / "colour.png").string(), g.width, g.height, 3, rgb.data());
    written.add(dir / "colour.png", "colour image");
    const std::vector<uint8_t> coloured = colourise_disparity(disparity.data(), g.width, g.height);
    write_png8((dir / "disparity.png").string(), g.width, g.height, 3, coloured.data());
    written.add(dir / "disparity.png", "disparity through the camera's colour table");
    const std::vector<uint16_t> depth = depth_image_mm(disparity.data(), g.width, g.height, g.bxf);
    write_png16((dir / "depth.png").string(), g.width, g.height, depth.data());
    written.add(dir / "depth.png", "depth in millimetres, 16-bit (0: none)");

    // The point cloud, coloured from the pixel each point was measured on.
    unsigned int count = 0;
    float *x = nullptr, *y = nullptr, *z = nullptr;
    check(ksConvertDisparity2PointCloud(h, disparity.data(), &count, &x, &y, &z),
          "converting the disparity into points");
    std::vector<uint8_t> point_rgb;
    point_rgb.reserve(static_cast<size_t>(count) * 3);
    for (unsigned row = 0; row < g.height && point_rgb.size() < count * 3u; ++row) {
        const unsigned image_row = std::min(row + kDisparityLineLead, g.height - 1);
        for (unsigned col = 0; col < g.width && point_rgb.size() < count * 3u; ++col) {
            if (disparity[static_cast<size_t>(row) * g.width + col] == 0) continue;
            const uint8_t* p = &rgb[(static_cast<size_t>(image_row) * g.width + col) * 3];
            point_rgb.insert(point_rgb.end(), p, p + 3);
        }
    }
    point_rgb.resize(static_cast<size_t>(count) * 3, 0);
    write_ply((dir / "cloud.ply").string(), count, x, y, z, point_rgb.data(),
              "kscam point cloud, millimetres, frame " + std::to_string(id));
    written.add(dir / "cloud.ply", std::to_string(count) + " points with colour, millimetres");

    Json info;
    info["frame_id"] = id;
    info["timestamp"] = timestamp;
    info["camera"] = camera.node();
    info["mode"] = video_mode_name(mode);
    info["width"] = g.width;
    info["height"] = g.height;
    info["bxf"] = g.bxf;
    info["baseline_mm"] = g.baseline;
    float focal = 0, cx = 0, cy = 0;
    if (ksGetRectifyCamParam(h, &focal, &cx, &cy) == 0) {
        info["focal_px"] = focal;
        info["cx"] = cx;
        info["cy"] = cy;
    }
    info["points"] = count;
    info["valid_pixels"] =
        pixels - static_cast<size_t>(std::count(disparity.begin(), disparity.end(), 0));
    info["host"] = camera.host().describe_json();

    if (options.pair != "none") capture_pair(camera, options.pair, g, dir, &written, &info);
    info["settings"] = read_settings(h);
    if (kssim_camera* sim = camera.sim())
        info["ground_truth"] = compare_with_ground_truth(sim, disparity.data(), g);

    const fs::path json_path = dir / "frame.json";
    {
        std::ofstream f(json_path);
        f << info.dump(2) << "\n";
        if (!f) throw std::runtime_error("cannot write " + json_path.string());
    }
    written.add(json_path, "frame id, timestamp, mode, stereo constants, settings");
    if (info.contains("ground_truth")) show_ground_truth(info["ground_truth"]);
    return kExitOk;
}

}  // namespace kscam
