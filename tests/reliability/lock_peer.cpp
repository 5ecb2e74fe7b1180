// The other process of the shared-camera tests: its own virtual world whose
// node locks and stream ownership live in the directory it is given, with
// two cameras on the same nodes as the test's (/dev/video0 and /dev/video2).
//
//   ks_lock_peer DIR hold    updates the EEPROM of the first camera from a
//                            flash slot; the controller stays busy for ten
//                            minutes, so the update holds the node until the
//                            process is killed
//   ks_lock_peer DIR stream  streams from the first camera until standard
//                            input ends, then closes it
// Prints "holding" or "streaming" once under way.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "ksStereoCameraDriver.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"
#include "sim/kssim.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: ks_lock_peer DIR hold|stream\n");
        return 2;
    }
    const bool hold = strcmp(argv[2], "hold") == 0;
    kssim_world* world = kssim_world_create();
    kssim_camera_config cfg;
    kssim_camera_config_init(&cfg);
    cfg.initial_size = {640, 480};
    cfg.fps = 15;
    if (world == nullptr || kssim_world_set_lock_dir(world, argv[1]) != 0 ||
        kssim_world_set_warp(world, hold ? 1.0 : 4.0) != 0)
        return 2;
    kssim_camera* first = kssim_world_add_camera(world, &cfg);
    if (first == nullptr || kssim_world_add_camera(world, &cfg) == nullptr ||
        kssim_world_install(world) != 0)
        return 2;
    const char* node = kssim_camera_node_path(first, KSSIM_NODE_CAPTURE);
    if (hold) {
        _struct_ks_ctrl_device ctrl = {};
        ctrl.fd = -1;
        if (ks_open_ctrl_device(&ctrl, node) != 0) return 3;
        const kssim_fault slow = {KSSIM_FAULT_SLOW_EEPROM_UPDATE, 1, 0, 600000};
        if (kssim_camera_inject_fault(first, &slow) != 0) return 2;
        printf("holding\n");
        fflush(stdout);
        ks_select_eeprom_from_usb_flash(&ctrl, 0);
        ks_release_ctrl_device(&ctrl);
    } else {
        KSCameraAbstract* camera = nullptr;
        if (ksOpenUVCCameraByPath(node, &camera) != 0) return 3;
        printf("streaming\n");
        fflush(stdout);
        char buf[64];
        while (read(0, buf, sizeof(buf)) > 0) {
        }
        if (ksCloseCamera(&camera) != 0) return 4;
    }
    kssim_world_destroy(world);
    return 0;
}
