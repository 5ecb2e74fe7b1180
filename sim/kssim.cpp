// The C interface of the virtual camera.
#include "sim/kssim.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "sim/sim_device.h"
#include "sim/sim_world.h"

using kssim::Camera;
using kssim::Device;
using kssim::NodeKind;
using kssim::World;

namespace {

World* W(kssim_world* w) {
    return reinterpret_cast<World*>(w);
}
Camera* C(kssim_camera* c) {
    return reinterpret_cast<Camera*>(c);
}
kssim_camera* handle(Camera* c) {
    return reinterpret_cast<kssim_camera*>(c);
}

void set_text(char* dst, size_t cap, const char* src) {
    std::memset(dst, 0, cap);
    const size_t n = std::min(std::strlen(src), cap - 1);
    std::memcpy(dst, src, n);
}

bool valid_node(kssim_node n) {
    return n == KSSIM_NODE_CAPTURE || n == KSSIM_NODE_META;
}

// The control side of one of our cameras (null for a webcam).
Device* dev(kssim_camera* c) {
    return c == nullptr ? nullptr : dynamic_cast<Device*>(C(c)->extension_unit());
}

// Runs timed events of the camera's world before answering.
Camera* live(kssim_camera* c) {
    if (c == nullptr) return nullptr;
    World* w = World::installed();
    if (w != nullptr) w->tick();
    return C(c);
}

}  // namespace

extern "C" {

void kssim_camera_config_init(kssim_camera_config* cfg) {
    if (cfg == nullptr) return;
    std::memset(cfg, 0, sizeof(*cfg));
    set_text(cfg->serial, sizeof(cfg->serial), "KS0000000001");
    set_text(cfg->card, sizeof(cfg->card), "KESTRA Stereo Camera");
    set_text(cfg->firmware, sizeof(cfg->firmware), "KS-USB 3.2.1 2023-11-20");
    cfg->sensor = KSSIM_SENSOR_OV9281;
    cfg->sizes[0] = {1280, 720};
    cfg->sizes[1] = {640, 480};
    cfg->size_count = 2;
    cfg->initial_size = {1280, 720};
    cfg->fps = 30.0;
    cfg->scene.kind = KSSIM_SCENE_WALL;
    cfg->scene.distance_mm = 1500.0;
    cfg->scene.seed = 1;
    cfg->bxf = 35000.0;
    cfg->baseline = 50.0;
    cfg->has_imu = 1;
    cfg->first_frame_id = 1;
    cfg->output_channel = KSSIM_CHANNEL_RGBD;
    cfg->max_buffers = 8;
    cfg->planes = KSSIM_PLANES_SINGLE;
    cfg->streaming_cap = 1;
    cfg->video_index = -1;
    cfg->pcb_revision = 2;
    cfg->imu_rate = 400.0;
    cfg->imu_records_per_reply = 10;
    cfg->imu_first_counter = 0;
    cfg->imu_seed = 1;
    cfg->late_reply_share = 0.125;
    cfg->late_reply_seed = 1;
}

kssim_world* kssim_world_create(void) {
    World* w = new (std::nothrow) World();
    return reinterpret_cast<kssim_world*>(w);
}

void kssim_world_destroy(kssim_world* w) {
    delete W(w);
}

int kssim_world_set_warp(kssim_world* w, double warp) {
    if (w == nullptr || !(warp > 0) || warp > 1e6) return -1;
    W(w)->set_warp(warp);
    return 0;
}

int kssim_world_set_lock_dir(kssim_world* w, const char* dir) {
    if (w == nullptr || dir == nullptr) return -1;
    return W(w)->set_lock_dir(dir);
}

double kssim_world_warp(const kssim_world* w) {
    return w == nullptr ? 0.0
                        : const_cast<World*>(reinterpret_cast<const World*>(w))->clock().warp();
}

uint64_t kssim_world_now_us(kssim_world* w) {
    return w == nullptr ? 0 : static_cast<uint64_t>(W(w)->clock().mono_us());
}

int kssim_world_install(kssim_world* w) {
    return w == nullptr ? -1 : W(w)->install();
}

int kssim_world_uninstall(kssim_world* w) {
    return w == nullptr ? -1 : W(w)->uninstall();
}

kssim_world* kssim_installed_world(void) {
    return reinterpret_cast<kssim_world*>(World::installed());
}

kssim_camera* kssim_world_add_camera(kssim_world* w, const kssim_camera_config* cfg) {
    if (w == nullptr) return nullptr;
    kssim_camera_config defaults;
    if (cfg == nullptr) {
        kssim_camera_config_init(&defaults);
        cfg = &defaults;
    }
    return handle(W(w)->add_camera(Camera::Kind::Stereo, *cfg));
}

kssim_camera* kssim_world_add_webcam(kssim_world* w, const char* card) {
    if (w == nullptr) return nullptr;
    kssim_camera_config cfg;
    kssim_camera_config_init(&cfg);
    set_text(cfg.serial, sizeof(cfg.serial), "200901010001");
    set_text(cfg.card, sizeof(cfg.card), card != nullptr ? card : "USB2.0 HD UVC WebCam");
    set_text(cfg.firmware, sizeof(cfg.firmware), "");
    cfg.sizes[0] = {640, 480};
    cfg.sizes[1] = {1280, 720};
    cfg.size_count = 2;
    cfg.initial_size = {640, 480};
    cfg.has_imu = 0;
    return handle(W(w)->add_camera(Camera::Kind::Webcam, cfg));
}

kssim_camera* kssim_world_add_usb2_camera(kssim_world* w, const char* serial) {
    if (w == nullptr) return nullptr;
    kssim_camera_config cfg;
    kssim_camera_config_init(&cfg);
    if (serial != nullptr) set_text(cfg.serial, sizeof(cfg.serial), serial);
    cfg.sizes[0] = {640, 480};
    cfg.size_count = 1;
    cfg.initial_size = {640, 480};
    return handle(W(w)->add_camera(Camera::Kind::Stereo, cfg));
}

int kssim_world_add_by_path_link(kssim_world* w, kssim_camera* c, kssim_node node,
                                 const char* name) {
    if (w == nullptr || c == nullptr || !valid_node(node) || name == nullptr) return -1;
    return W(w)->add_by_path_link(C(c), static_cast<NodeKind>(node), name);
}

uint32_t kssim_world_camera_count(kssim_world* w) {
    return w == nullptr ? 0 : W(w)->camera_count();
}

kssim_camera* kssim_world_camera(kssim_world* w, uint32_t index) {
    return w == nullptr ? nullptr : handle(W(w)->camera(index));
}

const char* kssim_camera_node_path(kssim_camera* c, kssim_node node) {
    if (c == nullptr || !valid_node(node)) return nullptr;
    return C(c)->node_path(static_cast<NodeKind>(node)).c_str();
}

const char* kssim_camera_by_path_link(kssim_camera* c, kssim_node node) {
    if (c == nullptr || !valid_node(node)) return nullptr;
    return C(c)->by_path_link(static_cast<NodeKind>(node)).c_str();
}

const char* kssim_camera_by_id_link(kssim_camera* c, kssim_node node) {
    if (c == nullptr || !valid_node(node)) return nullptr;
    return C(c)->by_id_link(static_cast<NodeKind>(node)).c_str();
}

int kssim_camera_get_config(kssim_camera* c, kssim_camera_config* out) {
    if (c == nullptr || out == nullptr) return -1;
    *out = C(c)->config();
    return 0;
}

int kssim_camera_set_output_channel(kssim_camera* c, uint8_t channel) {
    if (c == nullptr) return -1;
    if (Device* d = dev(c)) return d->set_configured_channel(channel);
    return C(c)->set_output_channel(channel);
}

uint8_t kssim_camera_output_channel(kssim_camera* c) {
    return c == nullptr ? 0 : C(c)->output_channel();
}

int kssim_camera_set_frame_rate(kssim_camera* c, double fps) {
    if (c == nullptr) return -1;
    if (Device* d = dev(c)) return d->set_configured_rate(fps);
    return C(c)->set_frame_rate(fps);
}

double kssim_camera_frame_rate(kssim_camera* c) {
    return c == nullptr ? 0.0 : C(c)->frame_rate();
}

int kssim_camera_set_scene(kssim_camera* c, const kssim_scene* scene) {
    return c == nullptr || scene == nullptr ? -1 : C(c)->set_scene(*scene);
}

int kssim_camera_true_distance(kssim_camera* c, uint32_t x, uint32_t y, double* mm) {
    return c == nullptr ? -1 : C(c)->true_distance(x, y, mm);
}

int kssim_camera_true_disparity(kssim_camera* c, uint32_t x, uint32_t y, uint16_t* value) {
    if (c == nullptr || value == nullptr) return -1;
    double mm = 0;
    if (C(c)->true_distance(x, y, &mm) != 0) return -1;
    *value = kssim::disparity_units(C(c)->config().bxf, mm);
    return 0;
}

int kssim_camera_get_stats(kssim_camera* c, kssim_camera_stats* out) {
    if (c == nullptr || out == nullptr) return -1;
    *out = live(c)->stats();
    return 0;
}

int kssim_camera_unplug(kssim_camera* c) {
    return c == nullptr ? -1 : C(c)->unplug();
}

int kssim_camera_replug(kssim_camera* c) {
    return c == nullptr ? -1 : C(c)->replug();
}

int kssim_camera_plugged(kssim_camera* c) {
    return c != nullptr && live(c)->plugged() ? 1 : 0;
}

int kssim_camera_inject_fault(kssim_camera* c, const kssim_fault* fault) {
    return c == nullptr || fault == nullptr ? -1 : C(c)->inject_fault(*fault);
}

int kssim_camera_clear_fault(kssim_camera* c, kssim_fault_kind kind) {
    return c == nullptr ? -1 : C(c)->clear_fault(kind);
}

int kssim_camera_fault_active(kssim_camera* c, kssim_fault_kind kind) {
    return c != nullptr && live(c)->fault_active(kind) ? 1 : 0;
}

long kssim_camera_produce_frame(kssim_camera* c, uint8_t* dst, size_t size) {
    return c == nullptr ? -1 : C(c)->produce_frame(dst, size);
}

int kssim_camera_frame_ready_ns(kssim_camera* c, uint32_t frame_id, int64_t* host_ns) {
    if (c == nullptr || host_ns == nullptr) return -1;
    return C(c)->frame_ready_ns(frame_id, host_ns) ? 0 : -1;
}

uint64_t kssim_camera_producer_cpu_ns(kssim_camera* c) {
    return c == nullptr ? 0 : C(c)->producer_cpu_ns();
}

// ---- control side ------------------------------------------------------------------------

int kssim_camera_eeprom_read(kssim_camera* c, uint32_t addr, uint8_t* buf, size_t len) {
    Device* d = dev(c);
    return d == nullptr ? -1 : d->eeprom_read(addr, buf, len);
}

int kssim_camera_eeprom_write(kssim_camera* c, uint32_t addr, const uint8_t* buf, size_t len) {
    Device* d = dev(c);
    return d == nullptr ? -1 : d->eeprom_write(addr, buf, len);
}

int kssim_camera_flash_read(kssim_camera* c, uint32_t addr, uint8_t* buf, size_t len) {
    Device* d = dev(c);
    return d == nullptr ? -1 : d->flash_read(addr, buf, len);
}

int kssim_camera_flash_write(kssim_camera* c, uint32_t addr, const uint8_t* buf, size_t len) {
    Device* d = dev(c);
    return d == nullptr ? -1 : d->flash_write(addr, buf, len);
}

int kssim_camera_register_read(kssim_camera* c, kssim_chip chip, uint32_t reg, uint8_t* value) {
    Device* d = dev(c);
    return d == nullptr ? -1 : d->register_read(static_cast<int>(chip), reg, value);
}

int kssim_camera_register_write(kssim_camera* c, kssim_chip chip, uint32_t reg, uint8_t value) {
    Device* d = dev(c);
    return d == nullptr ? -1 : d->register_write(static_cast<int>(chip), reg, value);
}

int kssim_camera_device_state(kssim_camera* c, kssim_device_state* out) {
    Device* d = dev(c);
    if (d == nullptr || out == nullptr) return -1;
    *out = d->state();
    return 0;
}

int kssim_camera_imu_set_counter(kssim_camera* c, uint16_t counter) {
    Device* d = dev(c);
    if (d == nullptr) return -1;
    d->imu_set_counter(counter);
    return 0;
}

int kssim_camera_set_hostile(kssim_camera* c, int on, uint32_t seed) {
    Device* d = dev(c);
    if (d == nullptr) return -1;
    d->set_hostile(on != 0, seed);
    return 0;
}

size_t kssim_camera_traffic_count(kssim_camera* c) {
    Device* d = dev(c);
    return d == nullptr ? 0 : d->traffic_count();
}

int kssim_camera_traffic_get(kssim_camera* c, size_t index, kssim_message* out) {
    Device* d = dev(c);
    return d != nullptr && d->traffic_get(index, out) ? 0 : -1;
}

void kssim_camera_traffic_clear(kssim_camera* c) {
    if (Device* d = dev(c)) d->traffic_clear();
}

int kssim_camera_control_stats(kssim_camera* c, kssim_control_stats* out) {
    Device* d = dev(c);
    if (d == nullptr || out == nullptr) return -1;
    *out = d->control_stats();
    return 0;
}

}  // extern "C"
