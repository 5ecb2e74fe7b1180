// kscam: command line, checks of the arguments, and the run of one
// subcommand against real cameras or the virtual camera.
#include <CLI/CLI.hpp>
#include <deque>
#include <iostream>

#include "tools/kscam/commands.h"

using namespace kscam;

namespace {

constexpr const char* kFooter =
    "Exit codes: 0 success, 1 camera error (or a question answered no), 2 usage error.\n"
    "Without a camera of ours attached, or with --virtual, kscam runs on its built-in virtual\n"
    "camera (a room scene, 1280 x 720 at 30 fps) and says so on its first line.";

// One subcommand: checks that need no camera, then the run.
struct Action {
    CLI::App* app = nullptr;
    std::function<void()> validate = [] {};
    std::function<int(Host&)> run;
    bool json = false;
};

std::string usage_of(const CLI::App* app) {
    std::string name;
    for (const CLI::App* a = app; a != nullptr; a = a->get_parent())
        name = a->get_name() + (name.empty() ? "" : " " + name);
    auto formatter = std::dynamic_pointer_cast<CLI::Formatter>(app->get_formatter());
    return formatter ? formatter->make_usage(app, name) : "";
}

// The deepest subcommand the command line reached.
const CLI::App* reached(const CLI::App* app) {
    for (;;) {
        const std::vector<const CLI::App*> subs =
            app->get_subcommands([](const CLI::App* s) { return s->parsed(); });
        if (subs.empty()) return app;
        app = subs.front();
    }
}

int usage_error(const CLI::App* app, const std::string& message) {
    std::fprintf(stderr, "kscam: error: %s\n%sRun with --help for more information.\n",
                 message.c_str(), usage_of(app).c_str());
    return kExitUsage;
}

int log_level_of(const GlobalOptions& g) {
    static const char* const kLevels[] = {"trace", "debug", "info", "warn", "error", "fatal"};
    for (int i = 0; i < 6; ++i)
        if (g.log_level == kLevels[i]) return i;
    if (g.verbosity > 0) return std::max(0, 3 - g.verbosity);  // -v info .. -vvv trace
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"kscam: lists, inspects, streams, captures and maintains stereo depth cameras",
                 "kscam"};
    app.footer(kFooter);
    app.require_subcommand(1);
    GlobalOptions g;
    bool version = false;
    app.add_flag("--version", version, "print the library's version and exit");
    app.add_option("-c,--camera", g.camera,
                   "the camera: serial number, device path (/dev/video2) or video device number "
                   "(2); default: the first one found");
    app.add_flag("-v,--verbose", g.verbosity,
                 "open the library's log on standard error: -v info, -vv debug, -vvv trace");
    app.add_option("--log-level", g.log_level, "open the library's log at this level")
        ->check(CLI::IsMember({"trace", "debug", "info", "warn", "error", "fatal"}));

    const char* sim_group = "Virtual camera (any of these implies --virtual)";
    app.add_flag("--virtual", g.sim.requested, "run on the built-in virtual camera")
        ->group(sim_group);
    CLI::Option* scene = app.add_option("--scene", g.sim.scene, "wall, room (default) or backlit")
                             ->check(CLI::IsMember({"wall", "room", "backlit"}))
                             ->group(sim_group);
    CLI::Option* distance =
        app.add_option("--distance", g.sim.distance_mm,
                       "wall (or back-wall) distance in mm; default 1500 wall, 3000 room")
            ->check(CLI::Range(300.0, 20000.0))
            ->group(sim_group);
    CLI::Option* cameras = app.add_option("--cameras", g.sim.cameras, "number of virtual cameras")
                               ->check(CLI::Range(1, 8))
                               ->group(sim_group);
    CLI::Option* serials =
        app.add_option("--serials", g.sim.serials, "their serial numbers, comma-separated")
            ->delimiter(',')
            ->check([](const std::string& s) {
                return s.empty() || s.size() > 16 ? std::string(
                                                        "a serial number has 1 to 16 "
                                                        "characters")
                                                  : std::string();
            })
            ->group(sim_group);
    CLI::Option* warp =
        app.add_option("--warp", g.sim.warp, "time runs this many times faster (default 1)")
            ->check(CLI::Range(0.01, 1000.0))
            ->group(sim_group);

    std::deque<Action> actions;  // stable addresses for the callbacks
    Action* chosen = nullptr;
    // Registers a subcommand; its callback makes it the chosen one.
    auto command = [&](CLI::App* parent, const char* name, const char* help) {
        actions.emplace_back();
        Action& a = actions.back();
        a.app = parent->add_subcommand(name, help);
        a.app->callback([&chosen, &a] { chosen = &a; });
        return &a;
    };

    // list
    Action* list = command(&app, "list", "list the cameras found (node, by-path, by-id, serial)");
    list->app->add_flag("--json", list->json, "print JSON");
    list->run = [list](Host& host) { return cmd_list(host, list->json); };

    // info
    Action* info = command(&app, "info",
                           "versions, hardware, stream configurations, stereo constants and "
                           "settings of a camera");
    info->app->add_flag("--json", info->json, "print JSON");
    info->run = [info, &g](Host& host) {
        Camera camera(host, g.camera);
        return cmd_info(camera, info->json);
    };

    // stream
    StreamOptions stream_options;
    Action* stream =
        command(&app, "stream", "stream with a live status line, then print a summary");
    stream->app->add_option("-n,--frames", stream_options.frames, "stop after this many frames")
        ->check(CLI::Range(1u, 1000000u));
    stream->app
        ->add_option("-t,--duration", stream_options.seconds,
                     "stop after this many seconds (default 5 when no frame count is given)")
        ->check(CLI::Range(0.01, 86400.0));
    stream->app->add_option("--mode", stream_options.mode, "video mode to stream in")
        ->check(CLI::IsMember(video_mode_names()));
    stream->app->add_option("--slot", stream_options.slot, "stream configuration (EPR slot) first")
        ->check(CLI::Range(0, 7));
    stream->app->add_option("--fps", stream_options.fps, "set this frame rate first")
        ->check(CLI::Range(1.0, 30.0));
    stream->app->add_flag("-q,--quiet", stream_options.quiet, "no live line, the summary only");
    stream->run = [&g, &stream_options](Host& host) {
        Camera camera(host, g.camera);
        return cmd_stream(camera, stream_options);
    };

    // capture
    CaptureOptions capture_options;
    Action* capture = command(&app, "capture",
                              "write one frame set into a folder: colour, disparity and depth "
                              "PNG, left and right PNG, point cloud PLY, frame JSON");
    capture->app->add_option("-o,--output", capture_options.dir, "folder (default kscam-capture)");
    capture->app
        ->add_option("--pair", capture_options.pair,
                     "left and right images: rectified (default), raw or none")
        ->check(CLI::IsMember({"rectified", "raw", "none"}));
    capture->app->add_option("--skip", capture_options.skip, "frames to let pass first (default 5)")
        ->check(CLI::Range(0u, 1000u));
    capture->run = [&g, &capture_options](Host& host) {
        Camera camera(host, g.camera);
        return cmd_capture(camera, capture_options);
    };

    // get / set
    std::vector<std::string> get_names;
    Action* get = command(&app, "get", "print settings (all when no name is given)");
    get->app->add_option("names", get_names, "setting names");
    get->app->add_flag("--json", get->json, "print JSON");
    get->app->footer(settings_help());
    get->validate = [&get_names] { validate_get(get_names); };
    get->run = [&g, &get_names, get](Host& host) {
        Camera camera(host, g.camera);
        return cmd_get(camera, get_names, get->json);
    };
    std::vector<std::string> set_args;
    std::vector<SetStep> set_steps;
    Action* set = command(&app, "set", "change settings: NAME=VALUE ... (or NAME VALUE)");
    set->app->add_option("assignments", set_args, "NAME=VALUE pairs")->required();
    set->app->footer(settings_help());
    set->validate = [&] { set_steps = plan_settings(set_args); };
    set->run = [&](Host& host) {
        Camera camera(host, g.camera);
        return cmd_set(camera, set_steps);
    };

    // eeprom
    Action* eeprom = command(&app, "eeprom", "dump the settings kept in the EEPROM's custom area");
    eeprom->run = [&g](Host& host) {
        Camera camera(host, g.camera);
        return cmd_eeprom(camera);
    };

    // slots
    CLI::App* slots = app.add_subcommand("slots", "EPR slots: list, select, upload, backup");
    slots->require_subcommand(1);
    Action* slots_list = command(slots, "list", "list the stream configurations of the slots");
    slots_list->app->add_flag("--json", slots_list->json, "print JSON");
    slots_list->run = [&g, slots_list](Host& host) {
        Camera camera(host, g.camera);
        return cmd_slots_list(camera, slots_list->json);
    };
    int select_slot = 0;
    Action* slots_select =
        command(slots, "select", "make a slot effective (power-cycles the stereo chip)");
    slots_select->app->add_option("slot", select_slot, "slot 0..7")->required();
    slots_select->validate = [&select_slot] { validate_slot(select_slot); };
    slots_select->run = [&g, &select_slot](Host& host) {
        Camera camera(host, g.camera);
        return cmd_slots_select(camera, select_slot);
    };
    UploadOptions upload;
    std::vector<int> attributes;
    Action* slots_upload =
        command(slots, "upload", "write an EPR file into a flash slot with its stream descriptor");
    slots_upload->app->add_option("file", upload.file, "EPR file")->required();
    slots_upload->app->add_option("slot", upload.slot, "slot 0..7")->required();
    slots_upload->app->add_option("--width", upload.width, "stream width")->required();
    slots_upload->app->add_option("--height", upload.height, "stream height")->required();
    slots_upload->app
        ->add_option("--attributes", attributes,
                     "the descriptor's two stream attributes A,B "
                     "(default 20,25)")
        ->delimiter(',')
        ->expected(2);
    slots_upload->app->add_flag("--select", upload.select, "make the slot effective afterwards");
    slots_upload->validate = [&] {
        if (attributes.size() == 2) {
            upload.attr_a = attributes[0];
            upload.attr_b = attributes[1];
        }
        validate_upload(upload);
    };
    slots_upload->run = [&](Host& host) {
        Camera camera(host, g.camera);
        return cmd_slots_upload(camera, upload);
    };
    std::string backup_file;
    Action* slots_backup = command(slots, "backup", "save the effective EPR into a file");
    slots_backup->app->add_option("file", backup_file, "file to write")->required();
    slots_backup->validate = [&backup_file] { validate_backup(backup_file); };
    slots_backup->run = [&](Host& host) {
        Camera camera(host, g.camera);
        return cmd_slots_backup(camera, backup_file);
    };

    // calibrate import
    CLI::App* calibrate = app.add_subcommand("calibrate", "calibration data");
    calibrate->require_subcommand(1);
    std::string calibration_dir;
    int calibration_slot = 0;
    Action* calibration =
        command(calibrate, "import",
                "import a calibration station's folder (one .epr, one .log) into a "
                "slot");
    calibration->app->add_option("dir", calibration_dir, "calibration folder")->required();
    calibration->app->add_option("slot", calibration_slot, "slot 0..7")->required();
    calibration->validate = [&] {
        validate_slot(calibration_slot);
        validate_calibration_dir(calibration_dir);
    };
    calibration->run = [&](Host& host) {
        Camera camera(host, g.camera);
        return cmd_calibrate_import(camera, calibration_dir, calibration_slot);
    };

    // fpga upload
    CLI::App* fpga = app.add_subcommand("fpga", "the FPGA's bitstream");
    fpga->require_subcommand(1);
    std::string bitstream;
    Action* fpga_upload = command(fpga, "upload", "write a bitstream file into the camera's flash");
    fpga_upload->app->add_option("file", bitstream, "bitstream file")->required();
    fpga_upload->validate = [&bitstream] { validate_bitstream(bitstream); };
    fpga_upload->run = [&](Host& host) {
        Camera camera(host, g.camera);
        return cmd_fpga_upload(camera, bitstream);
    };

    // reset-factory
    bool yes = false;
    Action* reset =
        command(&app, "reset-factory", "erase the camera's stored settings and effective EPR");
    reset->app->add_flag("-y,--yes", yes, "do not ask for confirmation");
    reset->validate = [&yes] { validate_confirmation(yes); };
    reset->run = [&](Host& host) {
        Camera camera(host, g.camera);
        return cmd_reset_factory(camera, yes);
    };

    // imu
    double imu_seconds = 2;
    unsigned imu_count = 0;
    Action* imu = command(&app, "imu", "print IMU samples with the id of their video frame");
    imu->app->add_option("-t,--duration", imu_seconds, "seconds from the first sample (default 2)")
        ->check(CLI::Range(0.01, 86400.0));
    imu->app->add_option("-n,--count", imu_count, "stop after this many samples")
        ->check(CLI::Range(1u, 10000000u));
    imu->run = [&](Host& host) {
        Camera camera(host, g.camera);
        return cmd_imu(camera, imu_seconds, imu_count);
    };

    // --version answers without a subcommand.
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--version") {
            std::printf("kscam, libksStereoCameraDriver %s\n", ksGetSdkVersion());
            return kExitOk;
        }
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        // A word that is no subcommand shows up as a missing one: name it.
        const CLI::App* where = reached(&app);
        const std::vector<std::string> left = where->remaining();
        if (!left.empty() && !where->get_subcommands({}).empty())
            return usage_error(where, "no subcommand \"" + left.front() + "\"");
        return usage_error(where, e.what());
    }
    if (chosen == nullptr) return usage_error(reached(&app), "a subcommand is required");
    for (CLI::Option* o : {scene, distance, cameras, serials, warp})
        if (o->count() > 0) g.sim.requested = true;

    try {
        chosen->validate();
    } catch (const UsageError& e) {
        return usage_error(chosen->app, e.what());
    }

    const int level = log_level_of(g);
    if (level >= 0) ksOpenSDKLog(level);
    separate_library_output();
    try {
        Host host(g, chosen->json);
        return chosen->run(host);
    } catch (const UsageError& e) {
        return usage_error(chosen->app, e.what());
    } catch (const std::exception& e) {
        note("error: %s", e.what());
        return kExitCamera;
    }
}
