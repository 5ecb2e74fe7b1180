// kscam against its virtual camera, checked from outside: exit codes and
// output of every subcommand, and the files it writes opened by programs
// nobody here wrote (ImageMagick's identify, Python's json module, Open3D).
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/common/ks_test_helpers.h"

namespace {

using Json = nlohmann::json;

struct Result {
    int code = -1;  // exit status; 128 + signal when killed
    std::string out, err;
};

bool have_program(const std::string& name) {
    return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

// The Python the Debian packages install their modules for.
std::string python() {
    return std::filesystem::exists("/usr/bin/python3") ? "/usr/bin/python3" : "python3";
}

bool python_has(const std::string& module) {
    return std::system((python() + " -c 'import " + module + "' >/dev/null 2>&1").c_str()) == 0;
}

int status_code(int status) {
    if (status == -1) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

class Kscam : public ::testing::Test {
  protected:
    // Runs a shell command line in the scratch folder, standard input empty.
    Result shell(const std::string& line) {
        const std::string out = dir_ / "stdout", err = dir_ / "stderr";
        const std::string cmd =
            "cd '" + dir_.path() + "' && " + line + " </dev/null >'" + out + "' 2>'" + err + "'";
        Result r;
        r.code = status_code(std::system(cmd.c_str()));
        r.out = ks_test::read_file(out);
        r.err = ks_test::read_file(err);
        return r;
    }
    Result kscam(const std::string& args) { return shell(std::string(KSCAM) + " " + args); }

    // A usage error: exit 2, one line saying what, then the usage.
    void expect_usage_error(const std::string& args, const std::string& says) {
        SCOPED_TRACE(args);
        const Result r = kscam(args);
        EXPECT_EQ(2, r.code) << r.err;
        EXPECT_EQ(0u, r.err.rfind("kscam: error: ", 0)) << r.err;
        const std::string first = r.err.substr(0, r.err.find('\n'));
        EXPECT_NE(std::string::npos, first.find(says)) << r.err;
        EXPECT_NE(std::string::npos, r.err.find("\nUsage: kscam")) << r.err;
        EXPECT_EQ(std::string::npos, r.out.find("virtual camera")) << "opened a camera: " << r.out;
    }

    static std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> out;
        std::istringstream in(text);
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }

    ks_test::TempDir dir_;
};

}  // namespace

TEST_F(Kscam, HelpExitCodesAndUsageErrors) {
    Result r = kscam("--help");
    EXPECT_EQ(0, r.code);
    EXPECT_NE(std::string::npos, r.out.find("Exit codes: 0 success, 1 camera error"));
    for (const char* sub : {"list", "info", "stream", "capture", "get", "set", "eeprom",
                            "slots list", "slots select", "slots upload", "slots backup",
                            "calibrate import", "fpga upload", "reset-factory", "imu"}) {
        r = kscam(std::string(sub) + " --help");
        EXPECT_EQ(0, r.code) << sub;
        EXPECT_NE(std::string::npos, r.out.find("Usage: ")) << sub << ": " << r.out;
    }
    r = kscam("--version");
    EXPECT_EQ(0, r.code);
    EXPECT_NE(std::string::npos, r.out.find("1.4.7.273"));

    expect_usage_error("", "subcommand is required");
    expect_usage_error("frobnicate", "no subcommand \"frobnicate\"");
    expect_usage_error("slots frobnicate", "no subcommand \"frobnicate\"");
    expect_usage_error("--virtual stream --frames many", "many");
    expect_usage_error("--virtual stream --mode sideways", "sideways");
    expect_usage_error("--warp 0 list", "warp");
    expect_usage_error("--scene garden list", "garden");
    expect_usage_error("--virtual set exposure=801", "outside 0 .. 800");
    expect_usage_error("--virtual set exposure=12abc", "not an integer");
    expect_usage_error("--virtual set fps=31", "outside");
    expect_usage_error("--virtual set fps=nan", "not a number");
    expect_usage_error("--virtual set trim=3,4", "even");
    expect_usage_error("--virtual set serial=ABCDEFGHIJKLMNOPQ", "1 to 16");
    expect_usage_error("--virtual set fill-light=alternate", "does not support");
    expect_usage_error("--virtual set cmos-swap-mode=1", "read only");
    expect_usage_error("--virtual set nonsense", "NAME=VALUE");
    expect_usage_error("--virtual get focus", "no setting \"focus\"");
    expect_usage_error("--virtual get gain", "can be set but not read");
    expect_usage_error("--virtual slots select 8", "outside 0 .. 7");
    expect_usage_error("--virtual slots upload missing.epr 1 --width 640 --height 480",
                       "missing.epr is not a file");
    expect_usage_error("--virtual calibrate import nowhere 1", "nowhere is not a folder");
    expect_usage_error("--virtual fpga upload none.bit", "none.bit is not a file");
    expect_usage_error("--virtual reset-factory", "confirm with --yes");
    ks_test::write_file(dir_ / "big.epr", std::string(4096, 'x'));
    expect_usage_error("--virtual slots upload big.epr 1 --width 640 --height 480",
                       "holds at most 4095");
    ks_test::write_file(dir_ / "small.epr", std::string(3072, 'x'));
    expect_usage_error("--virtual slots upload small.epr 1 --width 8 --height 480",
                       "outside 16 x 8");
}

TEST_F(Kscam, CameraErrorsExitWithOne) {
    // A camera that is not there.
    Result r = kscam("--virtual --camera /dev/video77 info");
    EXPECT_EQ(1, r.code) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.err.find("kscam: error: cannot open the camera /dev/video77"))
        << r.err;
    r = kscam("--virtual --camera NOSUCHSERIAL info");
    EXPECT_EQ(1, r.code) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.err.find("NOSUCHSERIAL")) << r.err;
}

TEST_F(Kscam, ListNamesEveryVirtualCamera) {
    Result r = kscam("--cameras 2 --serials KSA01,KSB02 list");
    ASSERT_EQ(0, r.code) << r.err;
    const std::vector<std::string> out = lines(r.out);
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(0u, out[0].find("kscam: running on the virtual cameras (2)")) << out[0];
    EXPECT_NE(std::string::npos, r.out.find("serial KSA01")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("serial KSB02")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("by-path: /dev/v4l/by-path/")) << r.out;

    r = kscam("--cameras 2 --serials KSA01,KSB02 list --json");
    ASSERT_EQ(0, r.code) << r.err;
    // JSON only on standard output; the note goes to standard error.
    const Json j = Json::parse(r.out);
    EXPECT_TRUE(j["virtual"].get<bool>());
    ASSERT_EQ(2u, j["cameras"].size());
    std::vector<std::string> serials;
    for (const Json& c : j["cameras"]) {
        serials.push_back(c["serial"]);
        EXPECT_EQ(0u, c["node"].get<std::string>().rfind("/dev/video", 0));
        EXPECT_EQ(0u, c["by_id"].get<std::string>().rfind("/dev/v4l/by-id/", 0));
    }
    std::sort(serials.begin(), serials.end());
    EXPECT_EQ((std::vector<std::string>{"KSA01", "KSB02"}), serials);
    EXPECT_NE(std::string::npos, r.err.find("running on the virtual cameras (2)"));

    // The camera chosen by serial number is the one with that serial.
    r = kscam("--cameras 2 --serials KSA01,KSB02 --camera KSB02 get serial");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("serial: KSB02")) << r.out;
}

TEST_F(Kscam, InfoReportsVersionsGeometryAndSettings) {
    const Result r = kscam("--virtual --warp 4 --scene wall info --json");
    ASSERT_EQ(0, r.code) << r.err;
    const Json j = Json::parse(r.out);
    EXPECT_EQ("1.4.7.273", j["versions"]["library"]);
    EXPECT_EQ("1.7.6.303", j["versions"]["session"]);
    EXPECT_EQ("KS-USB 3.2.1 2023-11-20", j["versions"]["usb_controller"]);
    EXPECT_EQ("1.5", j["versions"]["fpga"]);
    EXPECT_EQ("2023-11-20", j["versions"]["fpga_date"]);
    EXPECT_EQ("KS0000000001", j["hardware"]["serial"]);
    EXPECT_EQ("OV9281", j["hardware"]["sensor"]);
    EXPECT_EQ(2, j["hardware"]["pcb_revision"]);
    EXPECT_EQ(1280, j["stream"]["width"]);
    EXPECT_EQ(720, j["stream"]["height"]);
    EXPECT_EQ("rgbd", j["stream"]["video_mode"]);
    ASSERT_EQ(2u, j["stream"]["supported"].size());
    EXPECT_EQ(640, j["stream"]["supported"][1]["width"]);
    EXPECT_NEAR(35000.0, j["stereo"]["bxf"].get<double>(), 1.0);
    EXPECT_NEAR(50.0, j["stereo"]["baseline_mm"].get<double>(), 0.01);
    EXPECT_NEAR(700.0, j["stereo"]["focal_px"].get<double>(), 0.1);
    EXPECT_EQ(0, j["settings"]["search-range"]);
    EXPECT_TRUE(j["stereo"]["cx"].is_null()) << "no calibration was imported";

    const Result text = kscam("--virtual info");
    ASSERT_EQ(0, text.code);
    EXPECT_EQ(0u, text.out.find("kscam: running on the virtual camera: room scene"));
    EXPECT_NE(std::string::npos, text.out.find("USB controller         KS-USB 3.2.1"));
}

TEST_F(Kscam, StreamShowsStatusAndSummary) {
    const Result r = kscam("--virtual --warp 4 stream --frames 12");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Streaming /dev/video")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Summary: 12 frames in ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Centre distance: median ")) << r.out;

    // A timed stream prints its status line once a camera second.
    const Result timed = kscam("--virtual --scene wall --warp 4 stream --duration 2.5");
    ASSERT_EQ(0, timed.code) << timed.err;
    int status_lines = 0;
    for (const std::string& l : lines(timed.out))
        if (l.rfind("frame ", 0) == 0) {
            ++status_lines;
            EXPECT_NE(std::string::npos, l.find(" fps (camera ")) << l;
            EXPECT_NE(std::string::npos, l.find("centre 1")) << l;  // the wall at 1.5 m
        }
    EXPECT_EQ(2, status_lines) << timed.out;
}

TEST_F(Kscam, CaptureWritesFilesOtherProgramsRead) {
    const Result r = kscam("--virtual --scene wall --distance 1500 --warp 4 capture -o shot");
    ASSERT_EQ(0, r.code) << r.out << r.err;
    const std::string shot = dir_ / "shot";
    EXPECT_NE(std::string::npos, r.out.find("Distances against the virtual scene's ground truth"));

    // ImageMagick: every PNG with its size and sample depth.
    std::string missing;  // programs not installed: their checks are skipped
    if (!have_program("identify")) {
        missing += " ImageMagick's identify (Debian package imagemagick);";
    } else {
        const std::pair<const char*, const char*> expected[] = {
            {"colour.png", "1280 720 8 srgb"},
            {"disparity.png", "1280 720 8 srgb"},
            {"depth.png", "1280 720 16 gray"},
            {"left.png", "1280 720 8 gray"},
            {"right.png", "1280 720 8 srgb"}};
        for (const auto& e : expected) {
            const Result id =
                shell("identify -format '%w %h %z %[channels]' '" + shot + "/" + e.first + "'");
            EXPECT_EQ(0, id.code) << e.first << ": " << id.err;
            EXPECT_EQ(e.second, id.out) << e.first;
        }
    }

    // Python's json module reads the frame's description.
    const Result js = shell(python() +
                            " -c 'import json,sys; d=json.load(open(sys.argv[1])); "
                            "print(d[\"frame_id\"], d[\"width\"], d[\"height\"], d[\"mode\"], "
                            "round(d[\"bxf\"]), d[\"points\"] == d[\"valid_pixels\"], "
                            "type(d[\"settings\"]).__name__)' '" +
                            shot + "/frame.json'");
    ASSERT_EQ(0, js.code) << js.err;
    std::istringstream fields(js.out);
    unsigned long frame_id = 0;
    std::string width, height, mode, bxf, same, settings;
    fields >> frame_id >> width >> height >> mode >> bxf >> same >> settings;
    EXPECT_GT(frame_id, 0u);
    EXPECT_EQ("1280", width);
    EXPECT_EQ("720", height);
    EXPECT_EQ("rgbd", mode);
    EXPECT_EQ("35000", bxf);
    EXPECT_EQ("True", same);
    EXPECT_EQ("dict", settings);

    // Open3D: the cloud has a point per valid depth pixel and the wall as its
    // dominant plane at 1.5 m.
    if (!python_has("open3d")) {
        missing += " Python's open3d (Debian package python3-open3d);";
        GTEST_SKIP() << "not installed, their checks skipped:" << missing
                     << " bash scripts/setup.sh installs them as root";
    }
    ks_test::write_file(dir_ / "cloud_check.py", R"(import json, sys
import numpy as np
import open3d as o3d
folder = sys.argv[1]
cloud = o3d.io.read_point_cloud(folder + "/cloud.ply")
depth = np.asarray(o3d.io.read_image(folder + "/depth.png"))
plane, inliers = cloud.segment_plane(distance_threshold=20.0, ransac_n=3, num_iterations=300)
a, b, c, d = plane
print(json.dumps({"points": len(cloud.points), "colours": cloud.has_colors(),
                  "valid_depth": int((depth > 0).sum()), "depth_bits": depth.dtype.itemsize * 8,
                  "plane_mm": abs(d / c) if c else 0.0, "normal_z": abs(c),
                  "inliers": len(inliers) / max(len(cloud.points), 1)}))
)");
    const Result o3d = shell(python() + " cloud_check.py shot");
    ASSERT_EQ(0, o3d.code) << o3d.err;
    const Json c = Json::parse(o3d.out.substr(o3d.out.find('{')));
    EXPECT_GT(c["points"].get<int>(), 1280 * 720 / 2);
    EXPECT_EQ(c["valid_depth"], c["points"]);
    EXPECT_TRUE(c["colours"].get<bool>());
    EXPECT_EQ(16, c["depth_bits"]);
    EXPECT_NEAR(1500.0, c["plane_mm"].get<double>(), 1500.0 * 0.03);
    EXPECT_GT(c["normal_z"].get<double>(), 0.99);
    EXPECT_GT(c["inliers"].get<double>(), 0.9);
    if (!missing.empty())
        GTEST_SKIP() << "not installed, their checks skipped:" << missing
                     << " bash scripts/setup.sh installs them as root";
}

TEST_F(Kscam, CaptureOfARawPairWritesSixteenBitImages) {
    const Result r = kscam("--virtual --warp 4 capture -o raw --pair raw");
    ASSERT_EQ(0, r.code) << r.out << r.err;
    if (!have_program("identify"))
        GTEST_SKIP() << "ImageMagick's identify (Debian package imagemagick) is not installed";
    for (const char* name : {"left.png", "right.png"}) {
        const Result id = shell("identify -format '%w %h %z %[channels]' raw/" + std::string(name));
        EXPECT_EQ("1280 720 16 gray", id.out) << name << id.err;
    }
}

TEST_F(Kscam, GetAndSetReadBackFromTheCamera) {
    // The rate is measured over 24 frame periods as the host dequeues them:
    // at half speed those are 1.6 s of real time, long against the delays of
    // a loaded host.
    Result r = kscam("--virtual --warp 0.5 get --json fps search-range serial");
    ASSERT_EQ(0, r.code) << r.err;
    const Json j = Json::parse(r.out);
    EXPECT_EQ("KS0000000001", j["serial"]);
    EXPECT_EQ(0, j["search-range"]);
    EXPECT_NEAR(30.0, j["fps"].get<double>(), 3.0) << "the measured rate";
    EXPECT_EQ(3u, j.size());

    r = kscam("--virtual get");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("\nvideo-mode: rgbd\n")) << r.out;

    // Every value is read back from the camera after it was set.
    r = kscam(
        "--virtual set search-range=3 disparity-offset=1.5 line-offset=-0.5 trim=4,2 "
        "serial=KSNEW42 fill-light-intensity=60");
    ASSERT_EQ(0, r.code) << r.err;
    for (const char* line : {"search-range: 3\n", "disparity-offset: 1.5\n", "line-offset: -0.5\n",
                             "trim: 4,2\n", "serial: KSNEW42\n", "fill-light-intensity: 60\n"})
        EXPECT_NE(std::string::npos, r.out.find(line)) << line << r.out;
    r = kscam("--virtual set exposure 400");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("exposure: 400\n")) << r.out;
}

TEST_F(Kscam, EepromDumpShowsTheStoredSerial) {
    const Result r = kscam("--virtual --serials KSDUMP7 eeprom");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("KSDUMP7")) << r.out;
}

TEST_F(Kscam, SlotsListSelectUploadAndBackup) {
    Result r = kscam("--virtual slots list --json");
    ASSERT_EQ(0, r.code) << r.err;
    const Json slots = Json::parse(r.out);
    ASSERT_EQ(2u, slots.size());
    EXPECT_EQ(1280, slots[0]["width"]);
    EXPECT_TRUE(slots[0]["current"].get<bool>());
    EXPECT_EQ(480, slots[1]["height"]);

    // A power cycle shows a time-based bar and ends done.
    r = kscam("--virtual --warp 40 slots select 1");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Selecting EPR slot 1: done in ")) << r.out;

    ASSERT_EQ(0, shell(std::string(KSSIM_EPR) + " image new.epr --width 640 --height 480").code);
    r = kscam("--virtual --warp 40 slots upload new.epr 3 --width 640 --height 480");
    ASSERT_EQ(0, r.code) << r.err;
    // Real progress from the library: the pages written to flash.
    EXPECT_NE(std::string::npos, r.out.find("writing EPR to flash slot 3")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find(": done in ")) << r.out;

    r = kscam("--virtual --warp 40 slots backup effective.epr");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("effective.epr: 3072 bytes")) << r.out;
    EXPECT_EQ(0, shell(std::string(KSSIM_EPR) + " check effective.epr").code)
        << "the backup is not an image the camera accepts";
}

TEST_F(Kscam, CalibrationImportFpgaUploadAndFactoryReset) {
    ASSERT_EQ(0, shell(std::string(KSSIM_EPR) + " calib cal720 --width 1280 --height 720").code);
    Result r = kscam("--virtual --warp 40 calibrate import cal720 2");
    ASSERT_EQ(0, r.code) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("writing EPR to flash slot 2")) << r.out;
    r = kscam("--virtual --warp 40 calibrate import . 2");
    EXPECT_EQ(2, r.code) << "a folder without exactly one .epr and one .log";

    ks_test::write_file(dir_ / "fpga.bit", std::string(10000, '\x33'));
    r = kscam("--virtual --warp 40 fpga upload fpga.bit");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("writing the FPGA bitstream to flash")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Uploading the FPGA bitstream: done in ")) << r.out;

    r = kscam("--virtual --warp 40 reset-factory --yes");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Resetting to the factory state: done in ")) << r.out;
}

TEST_F(Kscam, ImuPrintsSamplesWithTheirFrameIds) {
    const Result r = kscam("--virtual --warp 4 imu --duration 1");
    ASSERT_EQ(0, r.code) << r.err;
    int samples = 0;
    unsigned long long last_sync = 0;
    for (const std::string& l : lines(r.out)) {
        unsigned long long sync = 0, ts = 0;
        double temp = 0, ax = 0, ay = 0, az = 0;
        if (std::sscanf(l.c_str(), "%llu %llu %lf %lf %lf %lf", &sync, &ts, &temp, &ax, &ay, &az) !=
            6)
            continue;
        ++samples;
        EXPECT_GE(sync, last_sync) << "frame ids go back: " << l;
        last_sync = sync;
        EXPECT_NEAR(9.8, std::sqrt(ax * ax + ay * ay + az * az), 0.5) << l;
    }
    EXPECT_GT(samples, 10) << r.out;
    EXPECT_GT(last_sync, 0u) << "no sample carries a video frame id";
    EXPECT_NE(std::string::npos, r.out.find("Summary: ")) << r.out;
}
