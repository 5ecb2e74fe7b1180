// The subcommands of kscam and their options.
#ifndef KSCAM_COMMANDS_H
#define KSCAM_COMMANDS_H

#include <string>
#include <utility>
#include <vector>

#include "tools/kscam/kscam.h"

namespace kscam {

int cmd_list(Host& host, bool json);
int cmd_info(Camera& camera, bool json);

// get / set: names and values are checked before the camera is opened.
void validate_get(const std::vector<std::string>& names);
int cmd_get(Camera& camera, const std::vector<std::string>& names, bool json);
struct SetStep {
    std::string name;
    std::string value;  // as given
    std::function<void(KSCameraAbstract*)> apply;
    std::function<Json(KSCameraAbstract*)> read_back;  // null: write-only
};
// From NAME=VALUE arguments (or one NAME VALUE pair).
std::vector<SetStep> plan_settings(const std::vector<std::string>& args);
int cmd_set(Camera& camera, const std::vector<SetStep>& steps);
std::string settings_help();

// stream
struct StreamOptions {
    unsigned frames = 0;  // 0: until the duration is over
    double seconds = 0;   // 0: until the frames arrived (5 s when neither is given)
    std::string mode;     // video mode to stream in; empty: as it is
    int slot = -1;        // stream configuration; -1: as it is
    double fps = 0;       // frame rate to set first; 0: as it is
    bool quiet = false;   // summary only
};
int cmd_stream(Camera& camera, const StreamOptions& options);

// imu
int cmd_imu(Camera& camera, double seconds, unsigned count);

// capture
struct CaptureOptions {
    std::string dir = "kscam-capture";
    std::string pair = "rectified";  // left/right images: rectified, raw or none
    unsigned skip = 5;               // frames to let pass before the one kept
};
int cmd_capture(Camera& camera, const CaptureOptions& options);

struct UploadOptions {
    std::string file;
    int slot = 0;
    int width = 0, height = 0;
    int attr_a = 20, attr_b = 25;  // the stream attributes new descriptors carry
    bool select = false;
};
// maintenance; the validate_ functions check arguments before the camera is
// opened, the commands take them as checked.
void validate_slot(int slot);
void validate_upload(const UploadOptions& options);
void validate_backup(const std::string& file);
void validate_calibration_dir(const std::string& dir);
void validate_bitstream(const std::string& file);
// Without --yes a terminal must be there to ask.
void validate_confirmation(bool yes);
int cmd_eeprom(Camera& camera);
int cmd_slots_list(Camera& camera, bool json);
int cmd_slots_select(Camera& camera, int slot);
int cmd_slots_upload(Camera& camera, const UploadOptions& options);
int cmd_slots_backup(Camera& camera, const std::string& file);
int cmd_calibrate_import(Camera& camera, const std::string& dir, int slot);
int cmd_fpga_upload(Camera& camera, const std::string& file);
int cmd_reset_factory(Camera& camera, bool yes);

}  // namespace kscam

#endif
