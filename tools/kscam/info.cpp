// list and info.
#include <cmath>
#include <cstring>

#include "tools/kscam/commands.h"

namespace kscam {

namespace {

// A value read from the camera, or null with the reason kept for the text.
struct Field {
    std::string label;
    Json value;
    std::string text;  // how it is shown; empty: from value
};

std::string bcd(unsigned char v) {
    char text[8];
    std::snprintf(text, sizeof text, "%02x", v);
    return text;
}

double rounded(double v, int digits) {
    const double scale = std::pow(10.0, digits);
    return std::round(v * scale) / scale;
}

}  // namespace

int cmd_list(Host& host, bool json) {
    const std::vector<CameraEntry> cameras = query_cameras();
    if (json) {
        Json j;
        j["virtual"] = host.is_virtual();
        j["cameras"] = Json::array();
        for (const CameraEntry& c : cameras)
            j["cameras"].push_back({{"node", c.node},
                                    {"by_path", c.by_path},
                                    {"by_id", c.by_id},
                                    {"serial", c.serial}});
        say("%s\n", j.dump(2).c_str());
        return kExitOk;
    }
    if (cameras.empty()) {
        say("No camera found.\n");
        return kExitOk;
    }
    for (size_t i = 0; i < cameras.size(); ++i) {
        const CameraEntry& c = cameras[i];
        say("%zu: %s  serial %s\n", i, c.node.c_str(),
            c.serial.empty() ? "(unread)" : c.serial.c_str());
        say("   by-path: %s\n", c.by_path.c_str());
        say("   by-id:   %s\n", c.by_id.empty() ? "-" : c.by_id.c_str());
    }
    return kExitOk;
}

int cmd_info(Camera& camera, bool json) {
    KSCameraAbstract* h = camera.handle();
    Json j;
    j["node"] = camera.node();
    j["host"] = camera.host().describe_json();

    // Versions.
    Json versions;
    versions["library"] = ksGetSdkVersion();
    versions["session"] = ksGetImplLevelVersion(h);
    char usb[64] = {0};
    versions["usb_controller"] =
        ksGetUsbVersion(h, usb) == 0 ? Json(std::string(usb, strnlen(usb, 32))) : Json();
    unsigned char major = 0, minor = 0;
    versions["fpga"] = ksGetFpgaVersion(h, &major, &minor) == 0
                           ? Json(std::to_string(major) + "." + std::to_string(minor))
                           : Json();
    unsigned char year = 0, month = 0, day = 0;
    versions["fpga_date"] = ksGetFpgaReleaseDate(h, &year, &month, &day) == 0
                                ? Json("20" + bcd(year) + "-" + bcd(month) + "-" + bcd(day))
                                : Json();
    j["versions"] = versions;

    // Hardware.
    Json hardware;
    unsigned char pcb = 0, sensor = 0;
    if (ksGetCameraHardwareInfo(h, &pcb, &sensor) == 0) {
        hardware["pcb_revision"] = pcb;
        hardware["sensor_code"] = sensor;
    } else {
        hardware["pcb_revision"] = nullptr;
        hardware["sensor_code"] = nullptr;
    }
    unsigned char cmos = 0;
    const char* cmos_name = nullptr;
    hardware["sensor"] =
        ksGetCmosType(h, &cmos, &cmos_name) == 0 && cmos_name != nullptr ? Json(cmos_name) : Json();
    char sn[32] = {0};
    hardware["serial"] =
        ksGetCameraSN(h, sn) == 0 ? Json(std::string(sn, strnlen(sn, 16))) : Json();
    j["hardware"] = hardware;

    // Stream.
    Json stream;
    _ks_video_mode_e mode = KS_VIDEO_MODE_RGBD;
    stream["video_mode"] = ksGetVideoMode(h, &mode) == 0 ? Json(video_mode_name(mode)) : Json();
    unsigned short width = 0, height = 0;
    if (ksGetVideoResolution(h, &width, &height) == 0) {
        stream["width"] = width;
        stream["height"] = height;
    }
    unsigned char slot = 0;
    stream["slot"] = ksGetVideoParam(h, &slot) == 0 ? Json(slot) : Json();
    double fps = 0;
    stream["fps"] = ksGetRealTimeFPS(h, &fps) == 0 ? Json(rounded(fps, 2)) : Json();
    _ks_video_param_s* list = nullptr;
    unsigned char count = 0;
    Json supported = Json::array();
    if (ksQuerySupportedVideoParam(h, &list, &count) == 0 && list != nullptr) {
        for (unsigned i = 0; i < count; ++i)
            supported.push_back({{"slot", list[i].index},
                                 {"width", list[i].width},
                                 {"height", list[i].height},
                                 {"attributes", {list[i].reserved_a, list[i].reserved_b}}});
    }
    stream["supported"] = supported;
    j["stream"] = stream;

    // Stereo geometry.
    Json stereo;
    float bxf = 0, base = 0;
    if (ksGetBxfAndBase(h, &bxf, &base) == 0) {
        stereo["bxf"] = rounded(bxf, 3);
        stereo["baseline_mm"] = rounded(base, 4);
    } else {
        stereo["bxf"] = nullptr;
        stereo["baseline_mm"] = nullptr;
    }
    // The optical centre is stored with a calibration import; the focal
    // length follows from the stereo constants either way.
    float focal = 0, cx = 0, cy = 0;
    if (ksGetRectifyCamParam(h, &focal, &cx, &cy) == 0) {
        stereo["focal_px"] = rounded(focal, 3);
        stereo["cx"] = rounded(cx, 3);
        stereo["cy"] = rounded(cy, 3);
    } else {
        stereo["focal_px"] = base > 0 ? Json(rounded(bxf / base, 3)) : Json();
        stereo["cx"] = nullptr;
        stereo["cy"] = nullptr;
    }
    j["stereo"] = stereo;
    j["settings"] = read_settings(h);

    if (json) {
        say("%s\n", j.dump(2).c_str());
        return kExitOk;
    }
    auto show = [](const Json& v) -> std::string {
        if (v.is_null()) return "unavailable";
        if (v.is_string()) return v.get<std::string>();
        if (v.is_object() && v.contains("left")) return v["left"].dump() + "," + v["right"].dump();
        if (v.is_object() && v.contains("slot"))
            return "slot " + v["slot"].dump() + " (" + v["width"].dump() + " x " +
                   v["height"].dump() + ")";
        return v.dump();
    };
    say("Camera %s\n", camera.node().c_str());
    say("Versions\n");
    say("  library                %s\n", show(versions["library"]).c_str());
    say("  session layer          %s\n", show(versions["session"]).c_str());
    say("  USB controller         %s\n", show(versions["usb_controller"]).c_str());
    say("  FPGA                   %s (%s)\n", show(versions["fpga"]).c_str(),
        show(versions["fpga_date"]).c_str());
    say("Hardware\n");
    say("  serial number          %s\n", show(hardware["serial"]).c_str());
    say("  sensor                 %s (code %s)\n", show(hardware["sensor"]).c_str(),
        show(hardware["sensor_code"]).c_str());
    say("  PCB revision           %s\n", show(hardware["pcb_revision"]).c_str());
    say("Stream\n");
    say("  video mode             %s\n", show(stream["video_mode"]).c_str());
    if (stream.contains("width"))
        say("  resolution             %s x %s (slot %s)\n", show(stream["width"]).c_str(),
            show(stream["height"]).c_str(), show(stream["slot"]).c_str());
    else
        say("  resolution             unavailable\n");
    say("  frame rate             %s fps\n", show(stream["fps"]).c_str());
    if (supported.empty()) {
        say("  configurations         unavailable\n");
    } else {
        for (size_t i = 0; i < supported.size(); ++i)
            say("  %s slot %s: %s x %s\n",
                i == 0 ? "configurations        " : "                      ",
                show(supported[i]["slot"]).c_str(), show(supported[i]["width"]).c_str(),
                show(supported[i]["height"]).c_str());
    }
    say("Stereo\n");
    say("  bxf                    %s (baseline x focal length, mm x px)\n",
        show(stereo["bxf"]).c_str());
    say("  baseline               %s mm\n", show(stereo["baseline_mm"]).c_str());
    say("  focal length           %s px (rectified)\n", show(stereo["focal_px"]).c_str());
    if (stereo["cx"].is_null())
        say("  optical centre         not stored in the camera (see calibrate import)\n");
    else
        say("  optical centre         %s, %s px (rectified)\n", show(stereo["cx"]).c_str(),
            show(stereo["cy"]).c_str());
    say("Settings\n");
    for (const auto& item : j["settings"].items())
        say("  %-22s %s\n", item.key().c_str(), show(item.value()).c_str());
    return kExitOk;
}

}  // namespace kscam
