// eeprom, slots, calibrate, fpga, reset-factory: the camera's stored
// parameters.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <iostream>

#include "tools/kscam/commands.h"

namespace kscam {

namespace fs = std::filesystem;

namespace {

// A flash EPR slot holds 4096 bytes and the library pads a file to the next
// multiple of 4096 above its size, so a file must stay below 4096 bytes not
// to run into the next slot.
constexpr uintmax_t kMaxEprFile = 4095;
// The FPGA bitstream area ends where the first EPR slot begins
// (0x3D000 .. 0x65000), padding included.
constexpr uintmax_t kMaxBitstream = 0x65000 - 0x3D000 - 4096;
constexpr int kMaxSlot = 7;
// A slot switch: stream stop, EEPROM update, an 11-second power cycle of the
// stereo chip and the checks and stream start after it.
constexpr double kPowerCycleSeconds = 20;

void checked_file(const std::string& path, uintmax_t max, const char* what) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) throw UsageError(path + " is not a file");
    const uintmax_t size = fs::file_size(path, ec);
    if (ec || size == 0) throw UsageError(path + " is empty");
    if (size > max)
        throw UsageError(path + " has " + std::to_string(size) + " bytes; " + what +
                         " holds at most " + std::to_string(max));
}

}  // namespace

void validate_slot(int slot) {
    if (slot < 0 || slot > kMaxSlot)
        throw UsageError("slot " + std::to_string(slot) + " is outside 0 .. " +
                         std::to_string(kMaxSlot));
}

void validate_upload(const UploadOptions& o) {
    validate_slot(o.slot);
    checked_file(o.file, kMaxEprFile, "an EPR slot");
    if (o.width < 16 || o.width > 4096 || o.height < 8 || o.height > 4096)
        throw UsageError("the stream size " + std::to_string(o.width) + " x " +
                         std::to_string(o.height) + " is outside 16 x 8 .. 4096 x 4096");
    if (o.attr_a < 0 || o.attr_a > 255 || o.attr_b < 0 || o.attr_b > 255)
        throw UsageError("stream attributes are bytes (0 .. 255)");
}

void validate_backup(const std::string& file) {
    const fs::path parent = fs::path(file).parent_path();
    if (!parent.empty() && !fs::is_directory(parent))
        throw UsageError("no folder " + parent.string() + " to write " + file + " into");
    if (fs::is_directory(file)) throw UsageError(file + " is a folder");
}

void validate_calibration_dir(const std::string& dir) {
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) throw UsageError(dir + " is not a folder");
    int eprs = 0, logs = 0;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        if (!entry.is_regular_file()) continue;
        const std::string ext = entry.path().extension().string();
        if (ext == ".epr") ++eprs;
        if (ext == ".log") ++logs;
    }
    if (eprs != 1 || logs != 1)
        throw UsageError(dir + " must hold exactly one .epr and one .log file (it holds " +
                         std::to_string(eprs) + " and " + std::to_string(logs) + ")");
}

void validate_bitstream(const std::string& file) {
    checked_file(file, kMaxBitstream, "the FPGA bitstream area");
}

void validate_confirmation(bool yes) {
    if (!yes && isatty(0) == 0)
        throw UsageError(
            "reset-factory erases the camera's settings and effective EPR: "
            "confirm with --yes");
}

int cmd_eeprom(Camera& camera) {
    LibraryOutputToTool library_output;
    check(ksShowAllCustomEEPROM(camera.handle()), "reading the EEPROM's custom area");
    return kExitOk;
}

int cmd_slots_list(Camera& camera, bool json) {
    KSCameraAbstract* h = camera.handle();
    _ks_video_param_s* list = nullptr;
    unsigned char count = 0;
    check(ksQuerySupportedVideoParam(h, &list, &count), "listing the EPR slots");
    unsigned char current = 0;
    const bool have_current = ksGetVideoParam(h, &current) == 0;
    Json j = Json::array();
    for (unsigned i = 0; i < count && list != nullptr; ++i)
        j.push_back({{"slot", list[i].index},
                     {"width", list[i].width},
                     {"height", list[i].height},
                     {"attributes", {list[i].reserved_a, list[i].reserved_b}},
                     {"current", have_current && list[i].index == current}});
    if (json) {
        say("%s\n", j.dump(2).c_str());
        return kExitOk;
    }
    say("%-6s %-12s %-11s %s\n", "slot", "resolution", "attributes", "");
    for (const Json& e : j) {
        char res[24];
        std::snprintf(res, sizeof res, "%u x %u", e["width"].get<unsigned>(),
                      e["height"].get<unsigned>());
        char attrs[16];
        std::snprintf(attrs, sizeof attrs, "%u,%u", e["attributes"][0].get<unsigned>(),
                      e["attributes"][1].get<unsigned>());
        say("%-6u %-12s %-11s %s\n", e["slot"].get<unsigned>(), res, attrs,
            e["current"].get<bool>() ? "current" : "");
    }
    return kExitOk;
}

int cmd_slots_select(Camera& camera, int slot) {
    const int r = run_with_progress(
        camera.host(), "Selecting EPR slot " + std::to_string(slot), kPowerCycleSeconds,
        [&] { return ksSelectEprFile(camera.handle(), static_cast<unsigned char>(slot)); });
    check(r, "selecting EPR slot " + std::to_string(slot));
    return kExitOk;
}

int cmd_slots_upload(Camera& camera, const UploadOptions& o) {
    _ks_video_param_s param = {};
    param.index = static_cast<uint8_t>(o.slot);
    param.width = static_cast<uint16_t>(o.width);
    param.height = static_cast<uint16_t>(o.height);
    param.reserved_a = static_cast<uint8_t>(o.attr_a);
    param.reserved_b = static_cast<uint8_t>(o.attr_b);
    KSCameraAbstract* h = camera.handle();
    const std::string label =
        "Uploading " + fs::path(o.file).filename().string() + " to slot " + std::to_string(o.slot);
    const int r = run_with_progress(camera.host(), label, o.select ? kPowerCycleSeconds : 0, [&] {
        return o.select ? ksUploadEprFile(h, o.file.c_str(), &param)
                        : ksStoreEprFileWithVideoFrameParam(h, o.file.c_str(), &param);
    });
    check(r, "uploading " + o.file + " to slot " + std::to_string(o.slot));
    return kExitOk;
}

int cmd_slots_backup(Camera& camera, const std::string& file) {
    const int r = run_with_progress(camera.host(), "Backing up the effective EPR", 0, [&] {
        return ksBackUpEffectiveEprFile(camera.handle(), file.c_str());
    });
    check(r, "backing up the effective EPR into " + file);
    say("%s: %ju bytes\n", file.c_str(), static_cast<uintmax_t>(fs::file_size(file)));
    return kExitOk;
}

int cmd_calibrate_import(Camera& camera, const std::string& dir, int slot) {
    const int r = run_with_progress(
        camera.host(), "Importing calibration into slot " + std::to_string(slot), 0, [&] {
            return ksUploadCameraEprForAutoCalibration(
                camera.handle(), static_cast<unsigned char>(slot), dir.c_str());
        });
    check(r, "importing the calibration folder " + dir);
    return kExitOk;
}

int cmd_fpga_upload(Camera& camera, const std::string& file) {
    const int r = run_with_progress(camera.host(), "Uploading the FPGA bitstream", 0, [&] {
        return ksUploadFpgaBitFile(camera.handle(), file.c_str());
    });
    check(r, "uploading the FPGA bitstream " + file);
    return kExitOk;
}

int cmd_reset_factory(Camera& camera, bool yes) {
    if (!yes) {
        char sn[32] = {0};
        ksGetCameraSN(camera.handle(), sn);
        std::fprintf(stderr,
                     "Reset camera %s (%s) to its factory state? This erases its stored settings "
                     "and effective EPR. [y/N] ",
                     camera.node().c_str(), sn);
        std::string answer;
        std::getline(std::cin, answer);
        if (answer != "y" && answer != "Y" && answer != "yes") {
            say("Not reset.\n");
            return kExitCamera;
        }
    }
    const int r =
        run_with_progress(camera.host(), "Resetting to the factory state", kPowerCycleSeconds,
                          [&] { return ksResetCameraToFactoryState(camera.handle()); });
    check(r, "resetting the camera to its factory state");
    return kExitOk;
}

}  // namespace kscam
