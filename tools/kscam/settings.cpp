// Settings by name: get and set, with values checked before they reach the
// camera.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "tools/kscam/commands.h"

namespace kscam {

namespace {

// ---- value parsing: the whole text, nothing else ----

double parse_number(const std::string& name, const std::string& text, double lo, double hi) {
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || end == nullptr || *end != '\0' || errno != 0 || !std::isfinite(v))
        throw UsageError(name + ": \"" + text + "\" is not a number");
    if (v < lo || v > hi)
        throw UsageError(name + ": " + text + " is outside " + Json(lo).dump() + " .. " +
                         Json(hi).dump());
    return v;
}

long parse_integer(const std::string& name, const std::string& text, long lo, long hi) {
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || end == nullptr || *end != '\0' || errno != 0)
        throw UsageError(name + ": \"" + text + "\" is not an integer");
    if (v < lo || v > hi)
        throw UsageError(name + ": " + text + " is outside " + std::to_string(lo) + " .. " +
                         std::to_string(hi));
    return v;
}

// "LEFT,RIGHT"
std::pair<long, long> parse_pair(const std::string& name, const std::string& text, long lo,
                                 long hi) {
    const size_t comma = text.find(',');
    if (comma == std::string::npos) throw UsageError(name + ": \"" + text + "\" is not LEFT,RIGHT");
    return {parse_integer(name, text.substr(0, comma), lo, hi),
            parse_integer(name, text.substr(comma + 1), lo, hi)};
}

// A setter checks and converts the text first, then returns the call that
// applies it, so that every value of one command is checked before any of
// them reaches the camera.
using Apply = std::function<void(KSCameraAbstract*)>;

struct Setting {
    const char* name;
    const char* values;                          // what set accepts (empty: read-only)
    std::function<Json(KSCameraAbstract*)> get;  // null: write-only
    std::function<Apply(const std::string&)> set;
};

Json get_stream_config(KSCameraAbstract* h) {
    unsigned char index = 0;
    check(ksGetVideoParam(h, &index), "reading the stream configuration");
    unsigned short width = 0, height = 0;
    check(ksGetVideoResolution(h, &width, &height), "reading the resolution");
    Json j;
    j["slot"] = index;
    j["width"] = width;
    j["height"] = height;
    return j;
}

const std::vector<Setting>& settings() {
    static const std::vector<Setting> table = {
        // The camera cannot report its exposure: write-only.
        {"exposure", "0..800 (0: automatic)", nullptr,
         [](const std::string& text) -> Apply {
             const auto v = static_cast<unsigned short>(parse_integer("exposure", text, 0, 800));
             return
                 [v](KSCameraAbstract* h) { check(ksSetExposure(h, v), "setting the exposure"); };
         }},
        {"gain", "0..255 (sensor gain steps)", nullptr,
         [](const std::string& text) -> Apply {
             const auto v = static_cast<unsigned short>(parse_integer("gain", text, 0, 255));
             return [v](KSCameraAbstract* h) { check(ksSetCameraGain(h, v), "setting the gain"); };
         }},
        {"fps", "1..30, or default (read: the rate measured over the last frames)",
         [](KSCameraAbstract* h) {
             // The library measures the rate once 51 frames went by.
             double fps = 0;
             for (int i = 0; i < 80 && ksGetRealTimeFPS(h, &fps) != 0; ++i) {
                 unsigned long id = 0;
                 unsigned char* frame = nullptr;
                 ksGetCurrentFrame(h, &id, &frame);
             }
             check(ksGetRealTimeFPS(h, &fps), "measuring the frame rate");
             return Json(std::round(fps * 100) / 100);
         },
         [](const std::string& text) -> Apply {
             if (text == "default")
                 return [](KSCameraAbstract* h) {
                     check(ksRestoreCameraFpsToDefault(h), "restoring the default frame rate");
                 };
             const auto fps = static_cast<float>(parse_number("fps", text, 1, 30));
             return [fps](KSCameraAbstract* h) {
                 check(ksSetCameraFps(h, fps), "setting the frame rate");
             };
         }},
        {"video-mode", "rgbd, raw, rectified, dense or filtered",
         [](KSCameraAbstract* h) {
             _ks_video_mode_e mode = KS_VIDEO_MODE_RGBD;
             check(ksGetVideoMode(h, &mode), "reading the video mode");
             return Json(video_mode_name(mode));
         },
         [](const std::string& text) -> Apply {
             _ks_video_mode_e mode;
             if (!parse_video_mode(text, &mode))
                 throw UsageError("video-mode: \"" + text +
                                  "\" is not one of rgbd, raw, rectified, dense, filtered");
             return [mode](KSCameraAbstract* h) {
                 check(ksSetVideoMode(h, mode), "setting the video mode");
             };
         }},
        {"stream-config", "a slot of `kscam slots list`", get_stream_config,
         [](const std::string& text) -> Apply {
             const auto slot =
                 static_cast<unsigned char>(parse_integer("stream-config", text, 0, 7));
             return [slot](KSCameraAbstract* h) {
                 _ks_video_param_s* list = nullptr;
                 unsigned char count = 0;
                 check(ksQuerySupportedVideoParam(h, &list, &count),
                       "listing the stream configurations");
                 check(ksSetVideoParam(h, slot), "selecting the stream configuration");
             };
         }},
        {"disparity-offset", "-1024..1023.96875 pixels (steps of 1/32)",
         [](KSCameraAbstract* h) {
             float v = 0;
             check(ksGetDispOffset(h, &v), "reading the disparity offset");
             return Json(v);
         },
         [](const std::string& text) -> Apply {
             const auto v =
                 static_cast<float>(parse_number("disparity-offset", text, -1024, 1023.96875));
             return [v](KSCameraAbstract* h) {
                 check(ksSetDispOffset(h, v), "setting the disparity offset");
             };
         }},
        {"line-offset", "-254..254 lines",
         [](KSCameraAbstract* h) {
             float v = 0;
             check(ksGetLineOffset(h, &v), "reading the line offset");
             return Json(v);
         },
         [](const std::string& text) -> Apply {
             const auto v = static_cast<float>(parse_number("line-offset", text, -254, 254));
             return [v](KSCameraAbstract* h) {
                 check(ksSetLineOffset(h, v), "setting the line offset");
             };
         }},
        {"search-range", "0..255 (steps of 32 disparity units)",
         [](KSCameraAbstract* h) {
             unsigned char v = 0;
             check(ksGetSearchRange(h, &v), "reading the search range");
             return Json(v);
         },
         [](const std::string& text) -> Apply {
             const auto v = static_cast<unsigned char>(parse_integer("search-range", text, 0, 255));
             return [v](KSCameraAbstract* h) {
                 check(ksSetSearchRange(h, v), "setting the search range");
             };
         }},
        {"trim", "LEFT,RIGHT, each 0..254 and even",
         [](KSCameraAbstract* h) {
             unsigned short left = 0, right = 0;
             check(ksGetLineTrim(h, &left, &right), "reading the trims");
             Json j;
             j["left"] = left;
             j["right"] = right;
             return j;
         },
         [](const std::string& text) -> Apply {
             const auto v = parse_pair("trim", text, 0, 254);
             if (v.first % 2 != 0 || v.second % 2 != 0)
                 throw UsageError("trim: the camera keeps even trims only: \"" + text + "\"");
             return [v](KSCameraAbstract* h) {
                 check(ksSetLineTrim(h, static_cast<unsigned short>(v.first),
                                     static_cast<unsigned short>(v.second)),
                       "setting the trims");
             };
         }},
        {"fill-light", "off, mode1 or mode0",
         [](KSCameraAbstract* h) {
             _ks_filllight_type_e type = KS_FILLLIGHT_TYPE_OFF;
             check(ksGetFilllightType(h, &type), "reading the fill light");
             return Json(fill_light_name(type));
         },
         [](const std::string& text) -> Apply {
             _ks_filllight_type_e type;
             if (text == "off")
                 type = KS_FILLLIGHT_TYPE_OFF;
             else if (text == "mode1")
                 type = KS_FILLLIGHT_TYPE_CTRL_MODE_1;
             else if (text == "mode0")
                 type = KS_FILLLIGHT_TYPE_CTRL_MODE_0;
             else if (text == "alternate")
                 throw UsageError("fill-light: the camera does not support alternate yet");
             else
                 throw UsageError("fill-light: \"" + text + "\" is not one of off, mode1, mode0");
             return [type](KSCameraAbstract* h) {
                 check(ksSetFilllightType(h, type), "setting the fill light");
             };
         }},
        {"fill-light-intensity", "0..255",
         [](KSCameraAbstract* h) {
             unsigned char v = 0;
             check(ksGetFillLightIntensity(h, &v), "reading the fill-light intensity");
             return Json(v);
         },
         [](const std::string& text) -> Apply {
             const auto v =
                 static_cast<unsigned char>(parse_integer("fill-light-intensity", text, 0, 255));
             return [v](KSCameraAbstract* h) {
                 check(ksSetFillLightIntensity(h, v), "setting the fill-light intensity");
             };
         }},
        {"serial", "1..16 printable characters, no spaces",
         [](KSCameraAbstract* h) {
             char sn[32] = {0};
             check(ksGetCameraSN(h, sn), "reading the serial number");
             return Json(std::string(sn, strnlen(sn, 16)));
         },
         [](const std::string& text) -> Apply {
             if (text.empty() || text.size() > 16)
                 throw UsageError("serial: \"" + text + "\" is not 1 to 16 characters");
             for (char c : text)
                 if (c <= ' ' || c > '~')
                     throw UsageError("serial: \"" + text +
                                      "\" holds a character that is not "
                                      "printable or is a space");
             return [text](KSCameraAbstract* h) {
                 check(ksSetCameraSN(h, text.c_str()), "setting the serial number");
             };
         }},
        {"cmos-swap-mode", "",
         [](KSCameraAbstract* h) {
             unsigned char v = 0;
             check(ksGetCameraCMOSSwapMode(h, &v), "reading the sensor swap mode");
             return Json(v);
         },
         nullptr},
    };
    return table;
}

const Setting& find_setting(const std::string& name) {
    for (const Setting& s : settings())
        if (name == s.name) return s;
    std::string names;
    for (const Setting& s : settings()) names += std::string(names.empty() ? "" : ", ") + s.name;
    throw UsageError("no setting \"" + name + "\" (settings: " + names + ")");
}

std::string plain(const Json& value) {
    if (value.is_null()) return "unavailable";
    if (value.is_string()) return value.get<std::string>();
    if (value.is_object() && value.contains("left"))
        return value["left"].dump() + "," + value["right"].dump();
    if (value.is_object() && value.contains("slot"))
        return value["slot"].dump() + " (" + value["width"].dump() + " x " +
               value["height"].dump() + ")";
    return value.dump();
}

}  // namespace

Json read_settings(KSCameraAbstract* h) {
    Json all = Json::object();
    for (const Setting& s : settings()) {
        if (!s.get) continue;
        try {
            all[s.name] = s.get(h);
        } catch (const CameraError&) {
            all[s.name] = nullptr;
        }
    }
    return all;
}

std::string settings_help() {
    std::string text = "Settings:\n";
    for (const Setting& s : settings()) {
        char line[160];
        std::snprintf(line, sizeof line, "  %-22s %s%s\n", s.name, s.set ? s.values : "read only",
                      s.get ? "" : " (write only)");
        text += line;
    }
    return text;
}

void validate_get(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        const Setting& s = find_setting(name);
        if (!s.get) throw UsageError(name + " can be set but not read");
    }
}

int cmd_get(Camera& camera, const std::vector<std::string>& names, bool json) {
    Json values = Json::object();
    if (names.empty()) {
        values = read_settings(camera.handle());
    } else {
        for (const std::string& name : names)
            values[name] = find_setting(name).get(camera.handle());
    }
    if (json) {
        say("%s\n", values.dump(2).c_str());
    } else {
        for (const auto& item : values.items())
            say("%s: %s\n", item.key().c_str(), plain(item.value()).c_str());
    }
    return kExitOk;
}

std::vector<SetStep> plan_settings(const std::vector<std::string>& args) {
    std::vector<std::pair<std::string, std::string>> assignments;
    if (args.size() == 2 && args[0].find('=') == std::string::npos) {
        assignments.emplace_back(args[0], args[1]);
    } else {
        for (const std::string& a : args) {
            const size_t eq = a.find('=');
            if (eq == std::string::npos || eq == 0)
                throw UsageError("\"" + a + "\" is not NAME=VALUE");
            assignments.emplace_back(a.substr(0, eq), a.substr(eq + 1));
        }
    }
    if (assignments.empty()) throw UsageError("nothing to set");
    std::vector<SetStep> steps;
    for (const auto& a : assignments) {
        const Setting& s = find_setting(a.first);
        if (!s.set) throw UsageError(a.first + " is read only");
        // A rate measured right after a change would still be the old one.
        const bool read_back = s.get && std::string(s.name) != "fps";
        steps.push_back({s.name, a.second, s.set(a.second), read_back ? s.get : nullptr});
    }
    return steps;
}

int cmd_set(Camera& camera, const std::vector<SetStep>& steps) {
    for (const SetStep& step : steps) {
        step.apply(camera.handle());
        // What the camera reports afterwards, else the value given.
        std::string shown = step.value;
        if (step.read_back) {
            try {
                shown = plain(step.read_back(camera.handle()));
            } catch (const CameraError&) {
                shown += " (not read back)";
            }
        }
        say("%s: %s\n", step.name.c_str(), shown.c_str());
    }
    return kExitOk;
}

}  // namespace kscam
