// stream and imu.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <deque>
#include <thread>

#include "tools/kscam/commands.h"
#include "tools/kscam/frames.h"
#include "tools/kscam/images.h"

namespace kscam {

namespace {

constexpr uint64_t kFrameIdMask = (uint64_t{1} << 36) - 1;

std::string distance_text(double mm) {
    if (!(mm > 0)) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.0f mm", mm);
    return text;
}

}  // namespace

int cmd_stream(Camera& camera, const StreamOptions& options) {
    KSCameraAbstract* h = camera.handle();
    Host& host = camera.host();
    prepare_stream(camera, options.mode, options.slot, options.fps);

    const Geometry geometry = read_geometry(h);
    _ks_video_mode_e mode = KS_VIDEO_MODE_RGBD;
    ksGetVideoMode(h, &mode);
    const bool has_disparity = mode == KS_VIDEO_MODE_RGBD ||
                               mode == KS_VIDEO_MODE_DENSE_DISPARITY ||
                               mode == KS_VIDEO_MODE_FILTERED_DISPARITY;
    const double seconds = options.seconds > 0 ? options.seconds : (options.frames > 0 ? 0 : 5.0);
    say("Streaming %s: %u x %u, %s mode, %s\n", camera.node().c_str(), geometry.width,
        geometry.height, video_mode_name(mode),
        options.frames > 0 ? (std::to_string(options.frames) + " frames").c_str()
                           : (Json(seconds).dump() + " s").c_str());

    const bool terminal = out_is_terminal();
    const uint64_t start = host.now_us();
    uint64_t last_status = start;
    uint64_t last_real_redraw = 0;
    unsigned frames = 0;
    uint64_t dropped = 0;
    uint64_t last_id = 0;
    bool have_last = false;
    uint64_t last_frame_at = start;
    std::deque<uint64_t> arrivals;  // camera times of the frames of the last second
    int64_t clock_offset = INT64_MAX;
    double age_ms = -1;
    std::vector<double> distances;
    double distance = 0;
    bool images_failed = false;

    while (true) {
        const uint64_t now = host.now_us();
        if (options.frames > 0 && frames >= options.frames) break;
        if (seconds > 0 && now - start >= static_cast<uint64_t>(seconds * 1e6)) break;
        if (now - last_frame_at > 5000000)
            throw CameraError("no frame for 5 s (" + std::to_string(frames) + " received)");

        unsigned long id = 0;
        unsigned char* src = nullptr;
        if (ksGetCurrentFrame(h, &id, &src) != 0 || src == nullptr) continue;
        if (have_last && id == last_id) continue;
        const uint64_t at = host.now_us();
        if (have_last) dropped += ((id - last_id) & kFrameIdMask) - 1;
        have_last = true;
        last_id = id;
        last_frame_at = at;
        ++frames;
        arrivals.push_back(at);
        while (!arrivals.empty() && at - arrivals.front() > 1000000) arrivals.pop_front();

        // The status line: redrawn on a terminal, once a second otherwise.
        // Images are cut only for it, so that the loop keeps up with the
        // camera.
        const bool due_terminal = terminal && (at - last_real_redraw >= 100000 * host.warp());
        const bool due_log = !terminal && at - last_status >= 1000000;
        const bool due = (due_terminal || due_log) && !options.quiet;
        const bool sample = due || frames == 1 || (options.quiet && at - last_status >= 250000);
        if (!sample) continue;
        last_real_redraw = at;
        last_status = at;
        if (has_disparity && !images_failed) {
            FrameImages images;
            if (read_rgbd(h, src, geometry, &images) == 0) {
                distance = centre_distance_mm(images.disparity, geometry);
                if (distance > 0) distances.push_back(distance);
                if (images.timestamp != 0) {
                    // The camera's clock and ours have different origins: the
                    // quickest frame seen sets their offset.
                    const int64_t offset =
                        static_cast<int64_t>(at) - static_cast<int64_t>(images.timestamp);
                    clock_offset = std::min(clock_offset, offset);
                    age_ms = (offset - clock_offset) / 1000.0;
                }
            } else {
                images_failed = true;  // the camera gives no images: frames only
            }
        }

        if (!due) continue;
        double realtime = 0;
        ksGetRealTimeFPS(h, &realtime);
        char age[32] = "-";
        if (age_ms >= 0) std::snprintf(age, sizeof age, "%.1f ms", age_ms);
        char line[256];
        std::snprintf(line, sizeof line,
                      "frame %lu  %5.1f fps (camera %5.1f)  dropped %llu  age %s  centre %s", id,
                      static_cast<double>(arrivals.size()), realtime,
                      static_cast<unsigned long long>(dropped), age,
                      distance_text(distance).c_str());
        if (terminal)
            say("\r\033[K%s", line);
        else
            say("%s\n", line);
    }
    if (terminal && !options.quiet) say("\r\033[K");

    const double elapsed = (host.now_us() - start) / 1e6;
    double realtime = 0;
    ksGetRealTimeFPS(h, &realtime);
    say("Summary: %u frames in %.2f s: %.1f fps measured, %.1f fps reported by the camera, "
        "%llu dropped\n",
        frames, elapsed, elapsed > 0 ? frames / elapsed : 0.0, realtime,
        static_cast<unsigned long long>(dropped));
    if (!distances.empty()) {
        std::sort(distances.begin(), distances.end());
        say("Centre distance: median %.0f mm (%.0f .. %.0f mm over %zu frames)\n",
            distances[distances.size() / 2], distances.front(), distances.back(), distances.size());
    } else if (has_disparity) {
        say("Centre distance: unavailable (%s)\n",
            images_failed ? "the camera gave no disparity image" : "no valid disparity");
    }
    if (frames == 0) throw CameraError("no frame received");
    return kExitOk;
}

// An IMU that gives no sample for this long (camera time) is reported.
constexpr uint64_t kImuSilenceUs = 5000000;
constexpr double kImuRetryUs = 10000;

int cmd_imu(Camera& camera, double seconds, unsigned count) {
    KSCameraAbstract* h = camera.handle();
    Host& host = camera.host();
    // The duration counts from the first sample: the receiver answers
    // "preparing" for a moment after the camera opens.
    uint64_t start = host.now_us();
    uint64_t last_sample = start;
    unsigned samples = 0;
    uint64_t first_ts = 0, last_ts = 0;
    double acc_sum = 0;
    say("%-10s %-10s %7s %9s %9s %9s %9s %9s %9s\n", "frame-id", "timestamp", "temp C", "acc x",
        "acc y", "acc z", "gyro x", "gyro y", "gyro z");
    while ((count == 0 || samples < count) &&
           (seconds <= 0 || samples == 0 ||
            host.now_us() - start < static_cast<uint64_t>(seconds * 1e6))) {
        _ks_imu_data_set_s* s = nullptr;
        const int r = ksGetIMUData(h, &s);
        if (r != 0 || s == nullptr) {
            if (host.now_us() - last_sample > kImuSilenceUs)
                check(r != 0 ? r : -2, "reading the IMU");
            // A pause on the camera's clock before asking again.
            std::this_thread::sleep_for(std::chrono::microseconds(
                static_cast<int64_t>(kImuRetryUs / std::max(host.warp(), 1e-3))));
            continue;
        }
        last_sample = host.now_us();
        if (samples == 0) start = last_sample;
        const _ks_imu_data_set_s sample = *s;  // the ring slot is reused
        if (samples == 0) first_ts = sample.timestamp;
        last_ts = sample.timestamp;
        ++samples;
        acc_sum += std::sqrt(sample.acc_x * sample.acc_x + sample.acc_y * sample.acc_y +
                             sample.acc_z * sample.acc_z);
        say("%-10llu %-10llu %7.2f %9.4f %9.4f %9.4f %9.5f %9.5f %9.5f\n",
            static_cast<unsigned long long>(sample.sync_id),
            static_cast<unsigned long long>(sample.timestamp), sample.temperature, sample.acc_x,
            sample.acc_y, sample.acc_z, sample.gyro_x, sample.gyro_y, sample.gyro_z);
    }
    const double elapsed = (host.now_us() - start) / 1e6;
    say("Summary: %u samples in %.2f s (sample counter advanced by %llu), mean |acc| %.3f m/s^2\n",
        samples, elapsed, static_cast<unsigned long long>(last_ts - first_ts),
        samples > 0 ? acc_sum / samples : 0.0);
    if (samples == 0) throw CameraError("no IMU sample received");
    return kExitOk;
}

}  // namespace kscam
