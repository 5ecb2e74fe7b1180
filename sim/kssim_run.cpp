// kssim-run [options] -- program [args...]
//
// Runs an unmodified program against simulated cameras: the options become
// KSSIM_* environment variables, the preload library is put in front of
// LD_PRELOAD, and the program replaces this process. By default the world is
// installed into the program's copy of the driver library; with --system the
// C library's device calls are interposed instead, so that any program (a
// V4L2 tool, a media player) sees the simulated /dev/videoN nodes.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

void usage(FILE* out) {
    fprintf(out,
            "usage: kssim-run [options] -- program [args...]\n"
            "  --cameras N        number of simulated cameras (default 1)\n"
            "  --serial S[,S...]  serial numbers, one per camera\n"
            "  --scene NAME       wall, room or backlit\n"
            "  --distance MM      wall (or back-wall) distance in millimetres\n"
            "  --warp X           time warp factor (default 1)\n"
            "  --fps F            frame rate of every camera\n"
            "  --webcam           also attach a webcam that is not ours\n"
            "  --usb2             also attach one of our cameras behind a USB 2.0 link\n"
            "  --firmware TEXT    controller firmware version (\"1022...\": the older firmware)\n"
            "  --sensor NAME      ov9281, imx225, sc132gs, ar0144 or ar0132\n"
            "  --no-imu           cameras without IMU\n"
            "  --imu-rate HZ      IMU samples per second (default 400)\n"
            "  --lock-dir DIR     share node locks and streams with programs given the same DIR\n"
            "  --system           interpose the C library: any program sees the video nodes\n"
            "  --preload PATH     the preload library to use\n");
}

bool exists(const std::string& path) {
    return access(path.c_str(), R_OK) == 0;
}

// The preload library: beside this program, in ../lib, or where it was built.
std::string find_preload(const std::string& name, const std::string& build_path) {
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n > 0) {
        self[n] = '\0';
        std::string dir(self);
        dir = dir.substr(0, dir.rfind('/'));
        for (const std::string& cand :
             {dir + "/" + name, dir + "/../lib/" + name, dir + "/../lib64/" + name}) {
            if (exists(cand)) return cand;
        }
    }
    return build_path;
}

}  // namespace

int main(int argc, char** argv) {
    std::string preload;
    bool system = false;
    int i = 1;
    auto value = [&](const char* opt) -> const char* {
        if (i + 1 >= argc) {
            fprintf(stderr, "kssim-run: %s needs a value\n", opt);
            exit(2);
        }
        return argv[++i];
    };
    for (; i < argc; ++i) {
        const char* a = argv[i];
        if (strcmp(a, "--") == 0) {
            ++i;
            break;
        }
        if (strcmp(a, "--cameras") == 0)
            setenv("KSSIM_CAMERAS", value(a), 1);
        else if (strcmp(a, "--serial") == 0)
            setenv("KSSIM_SERIALS", value(a), 1);
        else if (strcmp(a, "--scene") == 0)
            setenv("KSSIM_SCENE", value(a), 1);
        else if (strcmp(a, "--distance") == 0)
            setenv("KSSIM_DISTANCE", value(a), 1);
        else if (strcmp(a, "--warp") == 0)
            setenv("KSSIM_WARP", value(a), 1);
        else if (strcmp(a, "--fps") == 0)
            setenv("KSSIM_FPS", value(a), 1);
        else if (strcmp(a, "--webcam") == 0)
            setenv("KSSIM_WEBCAM", "1", 1);
        else if (strcmp(a, "--usb2") == 0)
            setenv("KSSIM_USB2", "1", 1);
        else if (strcmp(a, "--firmware") == 0)
            setenv("KSSIM_FIRMWARE", value(a), 1);
        else if (strcmp(a, "--sensor") == 0)
            setenv("KSSIM_SENSOR", value(a), 1);
        else if (strcmp(a, "--no-imu") == 0)
            setenv("KSSIM_IMU", "0", 1);
        else if (strcmp(a, "--imu-rate") == 0)
            setenv("KSSIM_IMU_RATE", value(a), 1);
        else if (strcmp(a, "--lock-dir") == 0)
            setenv("KSSIM_LOCK_DIR", value(a), 1);
        else if (strcmp(a, "--system") == 0)
            system = true;
        else if (strcmp(a, "--preload") == 0)
            preload = value(a);
        else if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
            usage(stdout);
            return 0;
        } else {
            fprintf(stderr, "kssim-run: unknown option %s\n", a);
            usage(stderr);
            return 2;
        }
    }
    if (i >= argc) {
        usage(stderr);
        return 2;
    }
    if (preload.empty())
        preload = system ? find_preload(KSSIM_SYSTEM_NAME, KSSIM_SYSTEM_BUILD_PATH)
                         : find_preload(KSSIM_PRELOAD_NAME, KSSIM_PRELOAD_BUILD_PATH);
    if (!exists(preload)) {
        fprintf(stderr, "kssim-run: preload library %s not found\n", preload.c_str());
        return 2;
    }
    const char* old = getenv("LD_PRELOAD");
    std::string lp = preload;
    if (old != nullptr && *old != '\0') lp += std::string(":") + old;
    setenv("LD_PRELOAD", lp.c_str(), 1);
#ifdef KSSIM_ASAN_BUILD
    // The sanitizer runtime comes in through the preload library, not first.
    const char* asan = getenv("ASAN_OPTIONS");
    std::string opts = asan != nullptr && *asan != '\0' ? std::string(asan) + ":" : "";
    setenv("ASAN_OPTIONS", (opts + "verify_asan_link_order=0").c_str(), 1);
#endif
    execvp(argv[i], argv + i);
    fprintf(stderr, "kssim-run: cannot run %s: %s\n", argv[i], strerror(errno));
    return 127;
}
