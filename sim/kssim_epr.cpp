// kssim-epr: parameter images ("EPR") that the virtual camera's ASIC
// accepts, and calibration folders built around them.
//
//   kssim-epr image FILE --width W --height H [--bxf X] [--baseline B] [--seed S] [--pad]
//       writes a 3072-byte image (--pad: padded with zeros to 4096 bytes)
//   kssim-epr calib DIR --width W --height H [--bxf X] [--baseline B] [--seed S]
//                 [--fov H,V] [--center X,Y] [--roi X,Y] [--name NAME]
//       creates DIR if needed and writes DIR/NAME.epr and DIR/NAME.log (NAME
//       "calib" by default); the log is the calibration station's text:
//         Out_Resolution:WxH
//         Fov:H,V            (degrees; default from f = bxf / baseline)
//         RectOptCenter:X,Y  (default the image centre)
//         ROI_Start:X,Y      (default 0,0)
//         Bxf:X
//         Baseline:B
//   kssim-epr check FILE
//       prints the image's fields; exit status 0 when the ASIC accepts it,
//       1 when it does not
//
// bxf defaults to 35000, baseline to 50 (the virtual camera's defaults). The
// image format is described in sim/sim_epr.h.
#include <errno.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/kssim.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

void usage(FILE* out) {
    fprintf(out,
            "usage: kssim-epr image FILE --width W --height H [--bxf X] [--baseline B]\n"
            "                 [--seed S] [--pad]\n"
            "       kssim-epr calib DIR --width W --height H [--bxf X] [--baseline B] [--seed S]\n"
            "                 [--fov H,V] [--center X,Y] [--roi X,Y] [--name NAME]\n"
            "       kssim-epr check FILE\n");
}

bool parse_double(const char* text, double* out) {
    char* end = nullptr;
    errno = 0;
    const double v = strtod(text, &end);
    if (end == text || *end != '\0' || errno != 0 || !std::isfinite(v)) return false;
    *out = v;
    return true;
}

bool parse_uint(const char* text, unsigned long max, unsigned long* out) {
    char* end = nullptr;
    errno = 0;
    const unsigned long v = strtoul(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || v > max || text[0] == '-') return false;
    *out = v;
    return true;
}

bool parse_pair(const char* text, double* a, double* b) {
    const char* comma = strchr(text, ',');
    if (comma == nullptr) return false;
    const std::string first(text, comma);
    return parse_double(first.c_str(), a) && parse_double(comma + 1, b);
}

bool write_file(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        fprintf(stderr, "kssim-epr: cannot write %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    const bool ok = fwrite(data, 1, size, f) == size;
    if (fclose(f) != 0 || !ok) {
        fprintf(stderr, "kssim-epr: cannot write %s\n", path.c_str());
        return false;
    }
    return true;
}

int check(const char* path) {
    FILE* f = fopen(path, "rb");
    if (f == nullptr) {
        fprintf(stderr, "kssim-epr: cannot read %s: %s\n", path, strerror(errno));
        return 2;
    }
    std::vector<uint8_t> data(KSSIM_EPR_SIZE);
    const size_t n = fread(data.data(), 1, data.size(), f);
    fclose(f);
    uint16_t w = 0, h = 0;
    double bxf = 0, base = 0;
    if (kssim_epr_check(data.data(), n, &w, &h, &bxf, &base) != 0) {
        printf("%s: not an image the ASIC accepts\n", path);
        return 1;
    }
    printf("%s: %ux%u bxf %.6f baseline %.6f\n", path, w, h, bxf, base);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        usage(stdout);
        return 0;
    }
    if (argc < 3) {
        usage(stderr);
        return 2;
    }
    const std::string mode = argv[1];
    const std::string target = argv[2];
    if (mode == "check") return argc == 3 ? check(argv[2]) : (usage(stderr), 2);
    if (mode != "image" && mode != "calib") {
        usage(stderr);
        return 2;
    }
    unsigned long width = 0, height = 0, seed = 1;
    double bxf = 35000.0, baseline = 50.0;
    double fov[2] = {-1, -1}, center[2] = {-1, -1}, roi[2] = {0, 0};
    bool pad = false;
    std::string name = "calib";
    for (int i = 3; i < argc; ++i) {
        const std::string opt = argv[i];
        if (opt == "--pad") {
            pad = true;
            continue;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "kssim-epr: %s needs a value\n", opt.c_str());
            return 2;
        }
        const char* v = argv[++i];
        bool ok = true;
        if (opt == "--width")
            ok = parse_uint(v, 65535, &width);
        else if (opt == "--height")
            ok = parse_uint(v, 65535, &height);
        else if (opt == "--bxf")
            ok = parse_double(v, &bxf);
        else if (opt == "--baseline")
            ok = parse_double(v, &baseline);
        else if (opt == "--seed")
            ok = parse_uint(v, 0xFFFFFFFFul, &seed);
        else if (opt == "--fov" && mode == "calib")
            ok = parse_pair(v, &fov[0], &fov[1]);
        else if (opt == "--center" && mode == "calib")
            ok = parse_pair(v, &center[0], &center[1]);
        else if (opt == "--roi" && mode == "calib")
            ok = parse_pair(v, &roi[0], &roi[1]) && roi[0] >= 0 && roi[1] >= 0 && roi[0] <= 65535 &&
                 roi[1] <= 65535;
        else if (opt == "--name" && mode == "calib")
            ok = *v != '\0' && strchr(v, '/') == nullptr;
        else {
            fprintf(stderr, "kssim-epr: unknown option %s\n", opt.c_str());
            usage(stderr);
            return 2;
        }
        if (!ok) {
            fprintf(stderr, "kssim-epr: invalid value for %s: %s\n", opt.c_str(), v);
            return 2;
        }
        if (opt == "--name") name = v;
    }
    std::vector<uint8_t> img(pad ? 4096 : KSSIM_EPR_SIZE, 0);
    if (kssim_epr_build(img.data(), static_cast<uint16_t>(width), static_cast<uint16_t>(height),
                        bxf, baseline, static_cast<uint32_t>(seed)) != 0) {
        fprintf(stderr,
                "kssim-epr: invalid image fields (width 16..4096, height 8..4096, bxf and "
                "baseline above 0 and within range)\n");
        return 2;
    }
    if (mode == "image") return write_file(target, img.data(), img.size()) ? 0 : 1;

    if (mkdir(target.c_str(), 0755) != 0 && errno != EEXIST) {
        fprintf(stderr, "kssim-epr: cannot create %s: %s\n", target.c_str(), strerror(errno));
        return 1;
    }
    const double f = bxf / baseline;  // focal length in pixels
    if (fov[0] < 0) {
        fov[0] = 2.0 * std::atan(width / (2.0 * f)) * 180.0 / kPi;
        fov[1] = 2.0 * std::atan(height / (2.0 * f)) * 180.0 / kPi;
    }
    if (center[0] < 0) {
        center[0] = width / 2.0;
        center[1] = height / 2.0;
    }
    char log[512];
    snprintf(log, sizeof(log),
             "Out_Resolution:%lux%lu\nFov:%.6f,%.6f\nRectOptCenter:%.6f,%.6f\nROI_Start:%d,%d\n"
             "Bxf:%.6f\nBaseline:%.6f\n",
             width, height, fov[0], fov[1], center[0], center[1], static_cast<int>(roi[0]),
             static_cast<int>(roi[1]), bxf, baseline);
    const std::string base = target + "/" + name;
    if (!write_file(base + ".epr", img.data(), img.size())) return 1;
    if (!write_file(base + ".log", reinterpret_cast<const uint8_t*>(log), strlen(log))) return 1;
    return 0;
}
