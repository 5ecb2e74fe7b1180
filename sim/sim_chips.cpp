// The chips behind the controller: I2C routing, the stereo ASIC with its
// sensor bridge, the two image sensors, the EEPROM, the FPGA and the IMU.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "sim/sim_device.h"
#include "sim/sim_frame.h"
#include "sim/sim_world.h"

namespace kssim {

namespace {

// After its release from reset the ASIC boots (no I2C acknowledge), then
// reads its 3072-byte EPR from the EEPROM over a 100 kHz bus (9 bit times a
// byte); its status and stereo constants read 0 and no frame comes until then.
constexpr int64_t kAsicBootNs = 2000 * 1000000ll;
constexpr int64_t kEprLoadNs = 3072ll * 9 * 10000;
// The sensor bridge forwards a command to the sensors in this time; one that
// arrives meanwhile is lost.
constexpr int64_t kBridgeCommandNs = 5 * 1000000ll;
constexpr size_t kImuFifo = 1024;
constexpr size_t kHeldWrites = 256;  // group-hold buffer of the SC132GS
constexpr double kNominalExposureLines = 500.0;

// Frame-rate formulas: rate = constant / register value.
constexpr double kOv9281Lines = 28110.0;    // OV9281: frame length in lines (0x380E-0x380F)
constexpr double kSc132Lines = 38400.0;     // SC132GS: frame length (0x320E-0x320F)
constexpr double kImx225Divisor = 33000.0;  // IMX225: ASIC trigger divisor (0x63-0x64)

uint16_t encode_divisor(double constant, double fps, uint16_t lo) {
    const double v = std::round(constant / fps);
    return static_cast<uint16_t>(std::clamp(v, static_cast<double>(lo), 65535.0));
}

}  // namespace

// ---- I2C --------------------------------------------------------------------------------------

bool Device::refused(kssim_fault_kind kind, bool write) {
    if (!on(kind)) return false;
    const int32_t v = fault(kind).value;
    if ((v == 1 && !write) || (v == 2 && write)) return false;
    take(kind);
    return true;
}

bool Device::i2c_read(uint8_t dev, uint16_t reg, uint8_t* out, size_t len) {
    switch (dev) {
        case kDevAsic | 1:
            if (!asic_reachable(now()) || refused(KSSIM_FAULT_I2C_REFUSE_ASIC, false)) return false;
            if (size_t{reg} + len > asic_.size()) return false;
            for (size_t i = 0; i < len; ++i)
                out[i] = asic_read(static_cast<uint8_t>(reg + i), true);
            return true;
        case kDevEeprom | 1:
            if (refused(KSSIM_FAULT_I2C_REFUSE_EEPROM, false) || reg >= kEepromSize) return false;
            for (size_t i = 0; i < len; ++i) out[i] = eeprom_[(reg + i) % kEepromSize];
            return true;
        case kDevFpga | 1:
            if (refused(KSSIM_FAULT_I2C_REFUSE_FPGA, false)) return false;
            if (size_t{reg} + len > fpga_.size()) return false;
            for (size_t i = 0; i < len; ++i)
                out[i] = fpga_read(static_cast<uint8_t>(reg + i), true);
            return true;
        default:
            return false;  // no device acknowledges
    }
}

bool Device::i2c_write(uint8_t dev, uint16_t reg, const uint8_t* data, size_t len) {
    switch (dev) {
        case kDevAsic:
            if (!asic_reachable(now()) || refused(KSSIM_FAULT_I2C_REFUSE_ASIC, true)) return false;
            if (size_t{reg} + len > asic_.size()) return false;
            for (size_t i = 0; i < len; ++i) asic_write(static_cast<uint8_t>(reg + i), data[i]);
            return true;
        case kDevEeprom:
            if (refused(KSSIM_FAULT_I2C_REFUSE_EEPROM, true) || reg >= kEepromSize) return false;
            for (size_t i = 0; i < len; ++i) {
                // A page write wraps around within its page.
                const size_t page = reg & ~(kEepromPage - 1);
                eeprom_store(static_cast<uint16_t>(page + (reg + i) % kEepromPage), data[i]);
            }
            return true;
        case kDevFpga:
            if (refused(KSSIM_FAULT_I2C_REFUSE_FPGA, true)) return false;
            if (size_t{reg} + len > fpga_.size()) return false;
            for (size_t i = 0; i < len; ++i) fpga_write(static_cast<uint8_t>(reg + i), data[i]);
            return true;
        default:
            return false;
    }
}

void Device::eeprom_store(uint16_t addr, uint8_t value) {
    if (on(KSSIM_FAULT_EEPROM_NO_STICK)) {
        const int32_t v = fault(KSSIM_FAULT_EEPROM_NO_STICK).value;
        if (v == 0 || v - 1 == addr) {
            take(KSSIM_FAULT_EEPROM_NO_STICK);
            return;  // acknowledged, not stored
        }
    }
    eeprom_[addr] = value;
}

// ---- ASIC -------------------------------------------------------------------------------------

uint8_t Device::asic_read(uint8_t reg, bool consume_faults) {
    const bool constant = reg == 0x08 || reg == 0x09 || (reg >= 0x0C && reg <= 0x0F);
    if ((reg == 0xF0 || constant) && !epr_read(now())) return 0;  // still loading
    switch (reg) {
        case 0x4F:
            return asic_[0x42];  // search range read-back
        case 0xE2:
            return output_index(0, consume_faults);
        case 0xE3:
            return output_index(1, consume_faults);
        case 0xF0:
            return epr_status_;
        case 0xF1:
            return static_cast<uint8_t>(sensors_[0].counter << 4 | sensors_[0].status);
        case 0xF4:
        case 0xF9:
            return 0;  // high bytes of the values read: the sensors' registers are 8 bits wide
        case 0xF5:
            return bridge_read_[0];
        case 0xF6:
            return static_cast<uint8_t>(sensors_[1].counter << 4 | sensors_[1].status);
        case 0xFA:
            return bridge_read_[1];
        default:
            return asic_[reg];
    }
}

void Device::asic_write(uint8_t reg, uint8_t value) {
    switch (reg) {
        case 0x1F:
        case 0x4F:
        case 0xE2:
        case 0xE3:
        case 0xF9:
        case 0xFA:
            return;  // read-only
        case 0xF0:
            asic_[reg] = value;
            bridge_open_ = value == 3;
            return;
        case 0xF4:
        case 0xF6: {
            asic_[reg] = value;
            if (!bridge_open_) return;
            const int64_t t = now();
            if (t < bridge_busy_until_) return;  // still forwarding the last one: lost
            bridge_busy_until_ = t + kBridgeCommandNs;
            if (reg == 0xF4)
                bridge_command();
            else
                bridge_read();
            return;
        }
        case 0x26:
        case 0x28:
        case 0x42:
        case 0x71:
        case 0x72:
        case 0x73:
        case 0x74:
            asic_[reg] = value;
            push_asic_output();
            return;
        case 0x51:
            asic_[reg] = value;
            if (is_known_channel(value)) camera_.set_output_channel(value);
            return;
        case 0x63:
        case 0x64:
            asic_[reg] = value;
            if (cfg_.sensor == KSSIM_SENSOR_IMX225) {
                rate_from_registers_ = true;
                update_timeline();
                push_brightness();
            }
            return;
        case 0x33:
        case 0x35:
            asic_[reg] = value;
            if ((fpga_[0x20] & 0x10) == 0) manual_exposure_ = true;
            push_brightness();
            return;
        default:
            asic_[reg] = value;
            return;
    }
}

void Device::bridge_command() {
    const uint16_t reg = static_cast<uint16_t>(asic_[0xF1] << 8 | asic_[0xF2]);
    const uint8_t value = asic_[0xF4];  // the sensors' registers take one byte
    int frozen = 0;
    if (on(KSSIM_FAULT_SENSOR_COUNTER_FROZEN)) {
        const int32_t v = fault(KSSIM_FAULT_SENSOR_COUNTER_FROZEN).value;
        frozen = v != 0 ? v : 3;
        take(KSSIM_FAULT_SENSOR_COUNTER_FROZEN);
    }
    for (int s = 0; s < 2; ++s) {
        if (frozen & (1 << s)) continue;
        sensors_[s].counter = static_cast<uint8_t>((sensors_[s].counter + 1) & 0x0F);
        sensors_[s].status = 0;
        sensor_write(s, reg, value);
    }
}

void Device::bridge_read() {
    const uint16_t reg = static_cast<uint16_t>(asic_[0xF5] << 8 | asic_[0xF6]);
    for (int s = 0; s < 2; ++s) bridge_read_[s] = sensors_[s].regs[reg];
}

void Device::set_asic_power(bool powered, bool released) {
    const bool was = asic_running();
    asic_powered_ = powered;
    asic_released_ = released;
    if (!was && asic_running()) {
        ++reset_count_;
        asic_power_up();
    } else if (was && !asic_running()) {
        asic_power_down();
    }
    update_timeline();
    push_brightness();
}

void Device::asic_power_up() {
    const int64_t t = now();
    asic_.fill(0);
    asic_[0x1F] = 0x34;
    for (uint8_t r = 0x21; r <= 0x24; ++r) asic_[r] = 0x80;
    bridge_open_ = false;
    bridge_busy_until_ = 0;
    bridge_read_[0] = bridge_read_[1] = 0;
    manual_exposure_ = false;
    asic_boot_until_ = t + kAsicBootNs;
    epr_ready_at_ = asic_boot_until_ + kEprLoadNs;
    asic_[0x51] = base_channel_;
    camera_.set_output_channel(base_channel_);
    asic_[0x61] = 2424 >> 8;
    asic_[0x62] = 2424 & 0xFF;
    sensor_reset(0);
    sensor_reset(1);
    write_rate_registers(base_rate_);
    rate_from_registers_ = false;
    frames_base_ = 0;
    timeline_ns_ = t;
    timeline_rate_ = 0;
    push_asic_output();
    load_epr();
}

// Sensor A is the right one (right trim 0x28, right line offset 0x73-0x74),
// B the left one; line offsets count 1/256 line in their second register.
void Device::push_asic_output() {
    Readout r;
    r.column[0] = asic_[0x28];
    r.column[1] = asic_[0x26];
    r.line[0] = asic_[0x73] + asic_[0x74] / 256.0;
    r.line[1] = asic_[0x71] + asic_[0x72] / 256.0;
    const int range = asic_[0x42];
    if (r == pushed_readout_ && range == pushed_range_) return;
    camera_.set_asic_output(r, range);
    pushed_readout_ = r;
    pushed_range_ = range;
}

void Device::asic_power_down() {
    asic_.fill(0);
    bridge_open_ = false;
}

void Device::load_epr() {
    EprInfo e;
    bool ok = epr_parse(eeprom_.data(), kEprSize, &e);
    if (take(KSSIM_FAULT_INVALID_EPR)) ok = false;
    if (!ok) {
        reject_epr();
        return;
    }
    epr_loaded_ = true;
    epr_status_ = 0xEA;
    epr_ = e;
    asic_[0x08] = static_cast<uint8_t>(e.baseline_raw >> 8);
    asic_[0x09] = static_cast<uint8_t>(e.baseline_raw);
    for (int i = 0; i < 4; ++i) asic_[0x0C + i] = static_cast<uint8_t>(e.bxf_raw >> (24 - 8 * i));
    camera_.set_stereo_constants(e.bxf(), e.baseline());
    camera_.set_output_size(e.width, e.height);
}

void Device::reject_epr() {
    epr_loaded_ = false;
    epr_status_ = 0x00;
    epr_ = EprInfo{};
    for (uint8_t r : {0x08, 0x09, 0x0C, 0x0D, 0x0E, 0x0F}) asic_[r] = 0;
}

// ---- sensors ----------------------------------------------------------------------------------

void Device::write_rate_registers(double fps) {
    switch (cfg_.sensor) {
        case KSSIM_SENSOR_OV9281: {
            const uint16_t lines = encode_divisor(kOv9281Lines, fps, 1);
            for (auto& s : sensors_) {
                s.regs[0x380E] = static_cast<uint8_t>(lines >> 8);
                s.regs[0x380F] = static_cast<uint8_t>(lines);
            }
            break;
        }
        case KSSIM_SENSOR_SC132GS: {
            const uint16_t lines = encode_divisor(kSc132Lines, fps, 7);
            for (auto& s : sensors_) {
                s.regs[0x320E] = static_cast<uint8_t>(lines >> 8);
                s.regs[0x320F] = static_cast<uint8_t>(lines);
                s.regs[0x3228] = static_cast<uint8_t>((lines - 6) >> 8);
                s.regs[0x3229] = static_cast<uint8_t>(lines - 6);
            }
            asic_[0x63] = static_cast<uint8_t>(lines >> 8);
            asic_[0x64] = static_cast<uint8_t>(lines);
            break;
        }
        case KSSIM_SENSOR_IMX225: {
            const uint16_t div = encode_divisor(kImx225Divisor, fps, 1);
            asic_[0x63] = static_cast<uint8_t>(div >> 8);
            asic_[0x64] = static_cast<uint8_t>(div);
            fpga_[0x27] = static_cast<uint8_t>(div >> 8);
            fpga_[0x28] = static_cast<uint8_t>(div);
            break;
        }
        default:
            break;
    }
}

void Device::sensor_reset(int s) {
    Sensor& x = sensors_[s];
    std::fill(x.regs.begin(), x.regs.end(), 0);
    x.counter = 0;
    x.status = 0;
    x.hold = false;
    x.held.clear();
    switch (cfg_.sensor) {
        case KSSIM_SENSOR_OV9281:
            x.regs[0x0100] = 1;
            x.regs[0x3509] = 0x10;
            break;
        case KSSIM_SENSOR_SC132GS:
            x.regs[0x0100] = 1;
            break;
        default:
            break;
    }
}

void Device::sensor_write(int s, uint16_t reg, uint8_t value) {
    Sensor& x = sensors_[s];
    if (cfg_.sensor == KSSIM_SENSOR_SC132GS && reg == 0x3800) {
        x.regs[reg] = value;
        if (value == 0x00) {
            x.hold = true;
            x.held.clear();
        } else if (value == 0x60 && x.hold) {
            x.hold = false;
            std::vector<std::pair<uint16_t, uint8_t>> held;
            held.swap(x.held);
            for (const auto& w : held) sensor_apply(s, w.first, w.second);
        }
        return;
    }
    if (x.hold && x.held.size() < kHeldWrites) {
        x.held.emplace_back(reg, value);
        return;
    }
    sensor_apply(s, reg, value);
}

void Device::sensor_apply(int s, uint16_t reg, uint8_t value) {
    sensors_[s].regs[reg] = value;
    const bool rate_reg =
        (cfg_.sensor == KSSIM_SENSOR_OV9281 && (reg == 0x380E || reg == 0x380F)) ||
        (cfg_.sensor == KSSIM_SENSOR_SC132GS && (reg == 0x320E || reg == 0x320F));
    if (rate_reg) rate_from_registers_ = true;
    update_timeline();
    push_brightness();
}

double Device::register_frame_rate() const {
    const auto& a = sensors_[0].regs;
    double constant = 0;
    uint32_t div = 0;
    switch (cfg_.sensor) {
        case KSSIM_SENSOR_OV9281:
            constant = kOv9281Lines;
            div = uint32_t{a[0x380E]} << 8 | a[0x380F];
            break;
        case KSSIM_SENSOR_SC132GS:
            constant = kSc132Lines;
            div = uint32_t{a[0x320E]} << 8 | a[0x320F];
            break;
        case KSSIM_SENSOR_IMX225:
            constant = kImx225Divisor;
            div = uint32_t{asic_[0x63]} << 8 | asic_[0x64];
            break;
        default:
            return base_rate_;
    }
    return std::clamp(constant / std::max<uint32_t>(div, 1), 0.1, 1000.0);
}

double Device::sensor_rate() const {
    return rate_from_registers_ ? register_frame_rate() : base_rate_;
}

bool Device::sensors_streaming() const {
    if (cfg_.sensor == KSSIM_SENSOR_OV9281 || cfg_.sensor == KSSIM_SENSOR_SC132GS)
        return (sensors_[0].regs[0x0100] & 1) && (sensors_[1].regs[0x0100] & 1);
    return true;
}

uint64_t Device::sensor_frames(int64_t t) const {
    if (timeline_rate_ <= 0 || t <= timeline_ns_) return frames_base_;
    return frames_base_ +
           static_cast<uint64_t>(static_cast<double>(t - timeline_ns_) * 1e-9 * timeline_rate_);
}

void Device::update_timeline() {
    const int64_t t = now();
    const bool running = asic_running() && sensors_streaming();
    const double rate = running ? sensor_rate() : 0.0;
    if (rate != timeline_rate_) {
        frames_base_ = sensor_frames(t);
        timeline_ns_ = t;
        timeline_rate_ = rate;
    }
    if (running && rate != pushed_rate_) {
        camera_.set_frame_rate(rate);
        pushed_rate_ = rate;
    }
    if (running != pushed_running_ || epr_ready_at_ != pushed_ready_at_) {
        camera_.set_pipeline_running(running, epr_ready_at_);
        pushed_running_ = running;
        pushed_ready_at_ = epr_ready_at_;
    }
}

uint8_t Device::output_index(int s, bool consume_faults, bool live) {
    const uint8_t cur = static_cast<uint8_t>(sensor_frames(now()) & 0xFF);
    if (live || !on(KSSIM_FAULT_OUTPUT_INDEX_FROZEN)) return cur;
    const int32_t v = fault(KSSIM_FAULT_OUTPUT_INDEX_FROZEN).value;
    if (((v != 0 ? v : 3) & (1 << s)) == 0) return cur;
    if (consume_faults) take(KSSIM_FAULT_OUTPUT_INDEX_FROZEN);
    return sensors_[s].frozen_index;
}

// Image brightness: with AE running the scene sits at its automatic level;
// without, the manual exposure (once written) and the sensor gain scale it.
void Device::push_brightness() {
    double b = 1.0;
    if ((fpga_[0x20] & 0x10) == 0) {
        if (manual_exposure_) {
            const double m = asic_[0x33] << 8 | asic_[0x35];
            double lines = m / 16.0;
            if (cfg_.sensor == KSSIM_SENSOR_IMX225)
                lines = std::max(0.0, (asic_[0x63] << 8 | asic_[0x64]) - m);
            b = lines / kNominalExposureLines;
        }
        if (cfg_.sensor == KSSIM_SENSOR_OV9281) b *= sensors_[0].regs[0x3509] / 16.0;
        if (cfg_.sensor == KSSIM_SENSOR_IMX225)
            b *= std::pow(10.0, sensors_[0].regs[0x3014] * 0.3 / 20.0);
    }
    const int e =
        b > 0 ? static_cast<int>(std::clamp(std::lround(std::log2(b) * 8.0), -64l, 64l)) : -64;
    if (e != pushed_brightness_) {
        camera_.set_brightness(e);
        pushed_brightness_ = e;
    }
}

// ---- FPGA -------------------------------------------------------------------------------------

uint8_t Device::fpga_read(uint8_t reg, bool consume_faults) {
    if (reg == 0x1F && on(KSSIM_FAULT_CONTROLLER_NOT_READY)) {
        const int32_t v = fault(KSSIM_FAULT_CONTROLLER_NOT_READY).value;
        if (consume_faults) take(KSSIM_FAULT_CONTROLLER_NOT_READY);
        return static_cast<uint8_t>(v);
    }
    return fpga_[reg];
}

void Device::fpga_write(uint8_t reg, uint8_t value) {
    switch (reg) {
        case 0x00:
        case 0x01:
        case 0x02:
        case 0x05:
        case 0x06:
        case 0x07:
        case 0x1F:
            return;  // hardware info, version, date, idle: read-only
        case 0x20:
            fpga_[reg] = value;
            if (value & 0x10) manual_exposure_ = false;  // AE takes over
            push_brightness();
            return;
        default:
            fpga_[reg] = value;
            return;
    }
}

// ---- IMU --------------------------------------------------------------------------------------

void Device::imu_update(int64_t t) {
    if (!cfg_.has_imu || t <= imu_start_) return;
    const uint64_t due =
        static_cast<uint64_t>(static_cast<double>(t - imu_start_) * 1e-9 * cfg_.imu_rate);
    if (due <= imu_generated_) return;
    uint64_t n = due - imu_generated_;
    if (n > kImuFifo) {
        // The FIFO overflowed long ago: only the newest samples remain.
        const uint64_t lost = n - kImuFifo;
        imu_counter_ = static_cast<uint16_t>(imu_counter_ + lost);
        imu_generated_ += lost;
        imu_fifo_.clear();
        n = kImuFifo;
    }
    for (uint64_t i = 0; i < n; ++i) {
        imu_fifo_.push_back(imu_sample());
        if (imu_fifo_.size() > kImuFifo) imu_fifo_.pop_front();
    }
}

std::array<uint8_t, 16> Device::imu_sample() {
    int32_t skip = 0;
    if (take(KSSIM_FAULT_IMU_SKIP, &skip))
        imu_counter_ = static_cast<uint16_t>(imu_counter_ + (skip != 0 ? skip : 9000));
    const uint64_t k = imu_generated_;
    const double t = static_cast<double>(k) / cfg_.imu_rate;
    auto noise = [&](int channel, int amplitude) {
        const uint64_t r = mix64((uint64_t{cfg_.imu_seed} << 40) ^ (k * 8 + channel));
        return static_cast<int>(r % static_cast<uint64_t>(2 * amplitude + 1)) - amplitude;
    };
    constexpr double kPi = 3.14159265358979323846;
    // Gravity along +y (image rows point down), a slow sway about the
    // vertical axis (2 degrees/s peak, 20 s period), about 35 degrees.
    const int acc[3] = {noise(0, 6), 8192 + noise(1, 6), noise(2, 6)};
    const int gyro[3] = {
        noise(3, 2),
        static_cast<int>(std::lround(32.8 * std::sin(2 * kPi * t / 20.0))) + noise(4, 2),
        noise(5, 2)};
    const int temp = 21 + static_cast<int>(std::lround(std::sin(2 * kPi * t / 600.0)));
    std::array<uint8_t, 16> s{};
    s[0] = 0x03;  // accelerometer and gyroscope valid
    for (int i = 0; i < 3; ++i) {
        const uint16_t a = static_cast<uint16_t>(static_cast<int16_t>(acc[i]));
        const uint16_t g = static_cast<uint16_t>(static_cast<int16_t>(gyro[i]));
        s[1 + 2 * i] = static_cast<uint8_t>(a);
        s[2 + 2 * i] = static_cast<uint8_t>(a >> 8);
        s[7 + 2 * i] = static_cast<uint8_t>(g);
        s[8 + 2 * i] = static_cast<uint8_t>(g >> 8);
    }
    s[13] = static_cast<uint8_t>(static_cast<int8_t>(temp));
    s[14] = static_cast<uint8_t>(imu_counter_);
    s[15] = static_cast<uint8_t>(imu_counter_ >> 8);
    ++imu_generated_;
    imu_counter_ = static_cast<uint16_t>(imu_counter_ + 1);  // wraps like the device's
    return s;
}

// ---- direct access ------------------------------------------------------------------------------

int Device::register_read(int chip, uint32_t reg, uint8_t* value) {
    if (value == nullptr) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    switch (chip) {
        case KSSIM_CHIP_ASIC:
            if (reg > 0xFF) return -1;
            *value = asic_read(static_cast<uint8_t>(reg), false);
            return 0;
        case KSSIM_CHIP_FPGA:
            if (reg > 0xFF) return -1;
            *value = fpga_read(static_cast<uint8_t>(reg), false);
            return 0;
        case KSSIM_CHIP_SENSOR_A:
        case KSSIM_CHIP_SENSOR_B:
            if (reg > 0xFFFF) return -1;
            *value = sensors_[chip - KSSIM_CHIP_SENSOR_A].regs[reg];
            return 0;
        default:
            return -1;
    }
}

int Device::register_write(int chip, uint32_t reg, uint8_t value) {
    std::lock_guard<std::mutex> lk(mu_);
    switch (chip) {
        case KSSIM_CHIP_ASIC:
            if (reg > 0xFF) return -1;
            if (reg == 0x1F || reg == 0xF4 || reg == 0xF6) {
                asic_[reg] = value;  // no bridge command
            } else if (reg == 0xF0) {
                epr_status_ = value;
            } else {
                asic_write(static_cast<uint8_t>(reg), value);
            }
            return 0;
        case KSSIM_CHIP_FPGA:
            if (reg > 0xFF) return -1;
            fpga_[reg] = value;
            if (reg == 0x20) fpga_write(0x20, value);
            return 0;
        case KSSIM_CHIP_SENSOR_A:
        case KSSIM_CHIP_SENSOR_B:
            if (reg > 0xFFFF) return -1;
            sensor_apply(chip - KSSIM_CHIP_SENSOR_A, static_cast<uint16_t>(reg), value);
            return 0;
        default:
            return -1;
    }
}

kssim_device_state Device::state() {
    std::lock_guard<std::mutex> lk(mu_);
    const int64_t t = now();
    imu_update(t);
    kssim_device_state s;
    std::memset(&s, 0, sizeof(s));
    s.asic_powered = asic_powered_ ? 1 : 0;
    s.asic_running = asic_running() ? 1 : 0;
    s.epr_loaded = epr_loaded_ && epr_read(t) ? 1 : 0;
    s.epr_width = epr_.width;
    s.epr_height = epr_.height;
    s.bxf = epr_.bxf();
    s.baseline = epr_.baseline();
    s.reset_count = reset_count_;
    s.eeprom_busy = update_ns_ > 0 || t < busy_until_ ? 1 : 0;
    s.sensors_streaming = asic_running() && sensors_streaming() ? 1 : 0;
    s.sensor_frame_rate = sensor_rate();
    s.imu_fifo_level = static_cast<uint32_t>(imu_fifo_.size());
    s.gpio17 = static_cast<uint8_t>((gpio_ >> 17) & 1);
    s.sensor_counter[0] = sensors_[0].counter;
    s.sensor_counter[1] = sensors_[1].counter;
    return s;
}

void Device::imu_set_counter(uint16_t counter) {
    std::lock_guard<std::mutex> lk(mu_);
    imu_update(now());
    imu_counter_ = counter;
}

int Device::set_configured_rate(double fps) {
    if (!(fps > 0 && fps <= 1000)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    base_rate_ = fps;
    write_rate_registers(fps);
    rate_from_registers_ = false;
    camera_.set_frame_rate(fps);
    pushed_rate_ = fps;
    update_timeline();
    return 0;
}

int Device::set_configured_channel(uint8_t channel) {
    if (!is_known_channel(channel)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    base_channel_ = channel;
    if (asic_running()) asic_[0x51] = channel;
    return camera_.set_output_channel(channel);
}

}  // namespace kssim
