// The KSSIM_* environment options of the launcher (listed in kssim_env.h).
#include "sim/kssim_env.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

namespace kssim {

namespace {

bool parse_double(const char* text, double* out) {
    char* end = nullptr;
    const double v = strtod(text, &end);
    if (end == text || *end != '\0') return false;
    *out = v;
    return true;
}

std::vector<std::string> split(const char* text) {
    std::vector<std::string> out;
    std::string cur;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == ',') {
            out.push_back(cur);
            cur.clear();
        } else {
            cur += *p;
        }
    }
    out.push_back(cur);
    return out;
}

}  // namespace

kssim_world* world_from_env() {
    const char* v = getenv("KSSIM_CAMERAS");
    long cameras = 1;
    if (v != nullptr) {
        char* end = nullptr;
        cameras = strtol(v, &end, 10);
        if (end == v || *end != '\0' || cameras < 0 || cameras > 16) {
            fprintf(stderr, "kssim: invalid KSSIM_CAMERAS \"%s\"\n", v);
            return nullptr;
        }
    }
    kssim_camera_config cfg;
    kssim_camera_config_init(&cfg);
    if ((v = getenv("KSSIM_SCENE")) != nullptr) {
        if (strcmp(v, "wall") == 0)
            cfg.scene.kind = KSSIM_SCENE_WALL;
        else if (strcmp(v, "room") == 0)
            cfg.scene.kind = KSSIM_SCENE_ROOM;
        else if (strcmp(v, "backlit") == 0)
            cfg.scene.kind = KSSIM_SCENE_BACKLIT;
        else {
            fprintf(stderr, "kssim: unknown scene \"%s\"\n", v);
            return nullptr;
        }
        cfg.scene.distance_mm = 0;
    }
    if ((v = getenv("KSSIM_DISTANCE")) != nullptr && !parse_double(v, &cfg.scene.distance_mm)) {
        fprintf(stderr, "kssim: invalid KSSIM_DISTANCE \"%s\"\n", v);
        return nullptr;
    }
    if ((v = getenv("KSSIM_FPS")) != nullptr && !parse_double(v, &cfg.fps)) {
        fprintf(stderr, "kssim: invalid KSSIM_FPS \"%s\"\n", v);
        return nullptr;
    }
    if ((v = getenv("KSSIM_FIRMWARE")) != nullptr)
        snprintf(cfg.firmware, sizeof(cfg.firmware), "%s", v);
    if ((v = getenv("KSSIM_SENSOR")) != nullptr) {
        static const struct {
            const char* name;
            kssim_sensor_model model;
        } kModels[] = {{"ov9281", KSSIM_SENSOR_OV9281},
                       {"imx225", KSSIM_SENSOR_IMX225},
                       {"sc132gs", KSSIM_SENSOR_SC132GS},
                       {"ar0144", KSSIM_SENSOR_AR0144},
                       {"ar0132", KSSIM_SENSOR_AR0132}};
        bool found = false;
        for (const auto& m : kModels) {
            if (strcmp(v, m.name) == 0) {
                cfg.sensor = m.model;
                found = true;
            }
        }
        if (!found) {
            fprintf(stderr, "kssim: unknown sensor \"%s\"\n", v);
            return nullptr;
        }
    }
    if ((v = getenv("KSSIM_IMU")) != nullptr) {
        if (strcmp(v, "0") != 0 && strcmp(v, "1") != 0) {
            fprintf(stderr, "kssim: invalid KSSIM_IMU \"%s\"\n", v);
            return nullptr;
        }
        cfg.has_imu = strcmp(v, "1") == 0;
    }
    if ((v = getenv("KSSIM_IMU_RATE")) != nullptr && !parse_double(v, &cfg.imu_rate)) {
        fprintf(stderr, "kssim: invalid KSSIM_IMU_RATE \"%s\"\n", v);
        return nullptr;
    }
    double warp = 1.0;
    if ((v = getenv("KSSIM_WARP")) != nullptr && !parse_double(v, &warp)) {
        fprintf(stderr, "kssim: invalid KSSIM_WARP \"%s\"\n", v);
        return nullptr;
    }
    std::vector<std::string> serials;
    if ((v = getenv("KSSIM_SERIALS")) != nullptr && *v != '\0') serials = split(v);

    kssim_world* w = kssim_world_create();
    if (w == nullptr) return nullptr;
    if (kssim_world_set_warp(w, warp) != 0) {
        fprintf(stderr, "kssim: invalid warp %g\n", warp);
        kssim_world_destroy(w);
        return nullptr;
    }
    if ((v = getenv("KSSIM_LOCK_DIR")) != nullptr && *v != '\0' &&
        kssim_world_set_lock_dir(w, v) != 0) {
        fprintf(stderr, "kssim: invalid KSSIM_LOCK_DIR \"%s\"\n", v);
        kssim_world_destroy(w);
        return nullptr;
    }
    for (long i = 0; i < cameras; ++i) {
        kssim_camera_config c = cfg;
        if (static_cast<size_t>(i) < serials.size() && !serials[i].empty())
            snprintf(c.serial, sizeof(c.serial), "%s", serials[i].c_str());
        else
            snprintf(c.serial, sizeof(c.serial), "KS%010ld", i + 1);
        if (kssim_world_add_camera(w, &c) == nullptr) {
            fprintf(stderr, "kssim: invalid camera options\n");
            kssim_world_destroy(w);
            return nullptr;
        }
    }
    if ((v = getenv("KSSIM_WEBCAM")) != nullptr && strcmp(v, "1") == 0)
        kssim_world_add_webcam(w, nullptr);
    if ((v = getenv("KSSIM_USB2")) != nullptr && strcmp(v, "1") == 0)
        kssim_world_add_usb2_camera(w, "KSUSB2000001");
    return w;
}

}  // namespace kssim
