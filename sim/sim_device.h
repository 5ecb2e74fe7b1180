// The control side of the virtual camera: the UVC extension unit, the USB
// controller's firmware answering the message protocol, and the chips behind
// it (stereo ASIC with its sensor bridge, two image sensors, EEPROM, FPGA,
// flash, IMU). Written from the device's side: it knows the wire formats and
// register maps, never the host library.
//
// Everything is evaluated lazily on the virtual clock (IMU samples, sensor
// frame counts, the EEPROM update's busy period): no thread of its own.
//
// Locking: one mutex (mu_) guards the whole device. It is taken with the
// camera's request lock held (queries) or with no lock held (the C API), and
// the device calls the camera's setters, which take the camera's mu_, while
// holding it. Order: camera ctl_mu_, device mu_, camera mu_.
#ifndef KSSIM_SIM_DEVICE_H
#define KSSIM_SIM_DEVICE_H

#include <errno.h>

#include <array>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "sim/kssim.h"
#include "sim/sim_camera.h"
#include "sim/sim_epr.h"

namespace kssim {

class World;

constexpr size_t kBlockSize = 320;
constexpr size_t kHeaderSize = 32;
constexpr size_t kMaxMessageData = 256;
constexpr uint32_t kMessageTag = 0x01020304;
constexpr uint32_t kReplyFlag = 0x80000000u;
constexpr size_t kEepromSize = KSSIM_EEPROM_SIZE;
constexpr size_t kEepromPage = 64;
constexpr size_t kFlashSize = KSSIM_FLASH_SIZE;
constexpr size_t kFlashPage = 256;
constexpr size_t kFlashSector = 4096;
constexpr uint32_t kFlashEprBase = 101;  // slot n at (n + 101) x 4096
constexpr uint32_t kFlashFpgaBitstream = 0x3D000;
constexpr size_t kCustomArea = 0x3C00;

// I2C device addresses (8-bit form, write address; read = +1).
constexpr uint8_t kDevAsic = 0xCC;
constexpr uint8_t kDevEeprom = 0xA0;
constexpr uint8_t kDevFpga = 0xC0;

// Builds the EEPROM and flash of a new camera.
void factory_memories(const kssim_camera_config& cfg, std::vector<uint8_t>& eeprom,
                      std::vector<uint8_t>& flash);

// Unit 3 of a webcam: there is none.
class NoExtensionUnit : public ExtensionUnit {
  public:
    int query(Camera&, struct uvc_xu_control_query&) override { return -ENOENT; }
};

class Device : public ExtensionUnit {
  public:
    Device(World& world, Camera& camera, const kssim_camera_config& cfg);

    // ---- ExtensionUnit
    int query(Camera& camera, struct uvc_xu_control_query& q) override;
    void plugged_in() override;
    int inject_fault(const kssim_fault& armed) override;
    int clear_fault(kssim_fault_kind kind) override;
    bool fault_active(kssim_fault_kind kind) override;

    // ---- direct access (C API)
    int eeprom_read(uint32_t addr, uint8_t* buf, size_t len);
    int eeprom_write(uint32_t addr, const uint8_t* buf, size_t len);
    int flash_read(uint32_t addr, uint8_t* buf, size_t len);
    int flash_write(uint32_t addr, const uint8_t* buf, size_t len);
    int register_read(int chip, uint32_t reg, uint8_t* value);
    int register_write(int chip, uint32_t reg, uint8_t value);
    kssim_device_state state();
    void imu_set_counter(uint16_t counter);
    void set_hostile(bool on, uint32_t seed);
    size_t traffic_count();
    bool traffic_get(size_t index, kssim_message* out);
    void traffic_clear();
    kssim_control_stats control_stats();
    // The rate and channel the camera is configured with: what the sensors
    // and the ASIC come up with at power-up. Also applied at once.
    int set_configured_rate(double fps);
    int set_configured_channel(uint8_t channel);

  private:
    struct Header {
        uint32_t tag = 0, id = 0, timestamp = 0, reserved = 0, command = 0, parameter = 0,
                 length = 0, checksum = 0;
    };
    enum class Pending { None, Reply, Refused };
    // Outcome of a command: a reply with data, or a refusal (stall).
    struct Answer {
        bool ok = false;
        std::vector<uint8_t> data;
    };

    struct Sensor {
        std::vector<uint8_t> regs = std::vector<uint8_t>(65536, 0);
        uint8_t counter = 0;  // 4 bits
        uint8_t status = 0;   // 4 bits
        bool hold = false;    // SC132GS group hold open
        std::vector<std::pair<uint16_t, uint8_t>> held;
        bool index_frozen = false;
        uint8_t frozen_index = 0;
    };

    // ---- extension unit and framing (sim_device.cpp)
    int answer(struct uvc_xu_control_query& q);  // a checked query, at instant_
    int set_cur(const uint8_t* block);
    int get_cur(uint8_t* block);
    void handle_request(const uint8_t* block, int64_t now);
    Answer execute(const Header& h, const uint8_t* data, int64_t t);
    void build_reply(const Header& req, const std::vector<uint8_t>& data);
    void build_hostile_reply(const Header& req);
    void record(kssim_direction dir, const uint8_t* block, int32_t outcome);
    void begin_update();  // the EEPROM copy starts: the controller falls silent

    // ---- firmware commands (sim_device.cpp)
    Answer cmd_flash_read(const Header& h);
    Answer cmd_flash_write(const Header& h, const uint8_t* data);
    Answer cmd_flash_erase(const Header& h);
    Answer cmd_eeprom_update(const Header& h, const uint8_t* data);
    Answer cmd_i2c_read(const Header& h, const uint8_t* data);
    Answer cmd_i2c_write(const Header& h, const uint8_t* data);
    Answer cmd_gpio(const Header& h, const uint8_t* data);
    Answer cmd_imu(int64_t t);
    Answer cmd_set_asic(const Header& h, const uint8_t* data);

    // ---- chips (sim_chips.cpp)
    bool i2c_read(uint8_t dev, uint16_t reg, uint8_t* out, size_t len);
    bool i2c_write(uint8_t dev, uint16_t reg, const uint8_t* data, size_t len);
    bool refused(kssim_fault_kind kind, bool write);
    uint8_t asic_read(uint8_t reg, bool consume_faults);
    void asic_write(uint8_t reg, uint8_t value);
    uint8_t fpga_read(uint8_t reg, bool consume_faults);
    void fpga_write(uint8_t reg, uint8_t value);
    void eeprom_store(uint16_t addr, uint8_t value);
    void bridge_command();
    void bridge_read();
    void sensor_write(int s, uint16_t reg, uint8_t value);
    void sensor_apply(int s, uint16_t reg, uint8_t value);
    void sensor_reset(int s);
    void write_rate_registers(double fps);
    bool asic_running() const { return asic_powered_ && asic_released_; }
    bool asic_reachable(int64_t now) const { return asic_running() && now >= asic_boot_until_; }
    // The ASIC has read its EPR since the last power-up (valid or not).
    bool epr_read(int64_t now) const { return asic_running() && now >= epr_ready_at_; }
    void push_asic_output();  // trims, line offsets, search range: tell the camera
    void set_asic_power(bool powered, bool released);
    void asic_power_up();
    void asic_power_down();
    void load_epr();
    void reject_epr();
    // The sensor's output index as read (frozen by a fault), or the live one.
    uint8_t output_index(int s, bool consume_faults, bool live = false);
    double register_frame_rate() const;
    double sensor_rate() const;
    bool sensors_streaming() const;
    void update_timeline();  // the sensors' rate or streaming changed: tell the camera
    uint64_t sensor_frames(int64_t now) const;
    void push_brightness();

    // ---- IMU (sim_chips.cpp)
    void imu_update(int64_t now);
    std::array<uint8_t, 16> imu_sample();

    // ---- faults
    bool take(kssim_fault_kind kind, int32_t* value = nullptr);
    bool on(kssim_fault_kind kind);
    Fault& fault(kssim_fault_kind kind) { return faults_[kind - KSSIM_FAULT_XU_FAIL]; }

    void power_on_controller();  // caller holds mu_
    int64_t now() const;

    World& world_;
    Camera& camera_;
    const kssim_camera_config cfg_;
    const bool old_firmware_;  // "1022": GPIO 17 powers the ASIC, no command 14
    double base_rate_;         // the sensors' rate at power-up
    uint8_t base_channel_;     // the ASIC's channel at power-up

    std::mutex mu_;
    int64_t instant_ = 0;  // while a query is handled: its arrival time

    // memories (kept across replugs)
    std::vector<uint8_t> eeprom_;
    std::vector<uint8_t> flash_;

    // controller
    Pending pending_ = Pending::None;
    bool late_ = false;  // the pending reply is withheld from the first read
    std::array<uint8_t, kBlockSize> reply_{};
    Header last_;  // header of the last request
    int64_t busy_until_ = 0;
    int64_t update_ns_ = 0;  // an EEPROM update acknowledged but not yet begun
    uint32_t gpio_ = 0;      // pin levels, bit n = GPIO n
    uint32_t reset_count_ = 0;
    bool hostile_ = false;
    uint64_t hostile_state_ = 0;

    // ASIC
    bool asic_powered_ = true;
    bool asic_released_ = true;
    int64_t asic_boot_until_ = 0;
    int64_t epr_ready_at_ = 0;
    int64_t bridge_busy_until_ = 0;  // the bridge forwards its last command
    std::array<uint8_t, 256> asic_{};
    uint8_t epr_status_ = 0;
    bool epr_loaded_ = false;
    EprInfo epr_;
    bool bridge_open_ = false;
    bool manual_exposure_ = false;     // exposure written since AE stopped
    uint8_t bridge_read_[2] = {0, 0};  // last dual-read values of A and B

    // FPGA
    std::array<uint8_t, 256> fpga_{};

    // sensors and their frame timeline (both run in lock-step)
    Sensor sensors_[2];
    double pushed_rate_ = 0;  // rate given to the capture node
    bool pushed_running_ = false;
    int64_t pushed_ready_at_ = 0;
    int pushed_brightness_ = 0;
    Readout pushed_readout_;
    int pushed_range_ = 0;
    bool rate_from_registers_ = false;
    uint64_t frames_base_ = 0;  // frames before timeline_ns_
    int64_t timeline_ns_ = 0;
    double timeline_rate_ = 0;  // 0: not streaming

    // IMU
    std::deque<std::array<uint8_t, 16>> imu_fifo_;
    int64_t imu_start_ = 0;
    uint64_t imu_generated_ = 0;  // sample periods since imu_start_
    uint16_t imu_counter_ = 0;

    Fault faults_[KSSIM_FAULT_KIND_COUNT - KSSIM_FAULT_XU_FAIL];

    std::deque<kssim_message> traffic_;
    kssim_control_stats stats_{};
};

}  // namespace kssim

#endif
