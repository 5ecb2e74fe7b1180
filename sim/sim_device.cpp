// The extension unit, the message framing and the controller firmware.
#include "sim/sim_device.h"

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include <algorithm>
#include <cstring>

#include "sim/sim_bytes.h"
#include "sim/sim_world.h"

namespace kssim {

namespace {

constexpr uint8_t kXuUnit = 3;
constexpr uint8_t kXuSelector = 1;
constexpr int64_t kEepromUpdateNs = 300 * 1000000ll;
constexpr int64_t kSlowEepromUpdateMs = 5000;
constexpr size_t kTrafficKept = 16384;
constexpr size_t kVersionSize = 32;
constexpr uint32_t kGpioPins = 32;
constexpr uint32_t kGpioAsicPower = 17;

}  // namespace

// ---- a new camera's memories -----------------------------------------------------------

void factory_memories(const kssim_camera_config& cfg, std::vector<uint8_t>& eeprom,
                      std::vector<uint8_t>& flash) {
    eeprom.assign(kEepromSize, 0xFF);
    flash.assign(kFlashSize, 0xFF);
    EprInfo e;
    const bool constants = epr_encode_constants(cfg.bxf, cfg.baseline, &e.bxf_raw, &e.baseline_raw);
    const uint32_t slots = std::min<uint32_t>(cfg.size_count, 8);
    uint8_t bitmap = 0;
    uint8_t current = 0xFF;
    for (uint32_t n = 0; n < slots && constants; ++n) {
        e.width = cfg.sizes[n].width;
        e.height = cfg.sizes[n].height;
        e.seed = n + 1;
        if (!epr_build(flash.data() + (n + kFlashEprBase) * kFlashSector, e)) continue;
        bitmap = static_cast<uint8_t>(bitmap | (1u << n));
        uint8_t* rec = eeprom.data() + 0x3C2C + 6 * n;
        rec[0] = static_cast<uint8_t>(e.height >> 8);
        rec[1] = static_cast<uint8_t>(e.height);
        rec[2] = static_cast<uint8_t>(e.width >> 8);
        rec[3] = static_cast<uint8_t>(e.width);
        rec[4] = 20;
        rec[5] = 25;
        if (current == 0xFF && e.width == cfg.initial_size.width &&
            e.height == cfg.initial_size.height) {
            current = static_cast<uint8_t>(n);
            epr_build(eeprom.data(), e);
        }
    }
    if (bitmap != 0) {
        eeprom[0x3C2A] = 0xC5;
        eeprom[0x3C2B] = bitmap;
        eeprom[0x3C5C] = current;
    }
    const size_t len = std::min<size_t>(strnlen(cfg.serial, sizeof(cfg.serial)), 16);
    eeprom[0x3C18] = 0xC4;
    eeprom[0x3C19] = static_cast<uint8_t>(len);
    std::memcpy(eeprom.data() + 0x3C1A, cfg.serial, len);
}

// ---- construction and power ---------------------------------------------------------------

Device::Device(World& world, Camera& camera, const kssim_camera_config& cfg)
    : world_(world),
      camera_(camera),
      cfg_(cfg),
      old_firmware_(std::strncmp(cfg.firmware, "1022", 4) == 0),
      base_rate_(cfg.fps),
      base_channel_(cfg.output_channel) {
    factory_memories(cfg_, eeprom_, flash_);
    std::lock_guard<std::mutex> lk(mu_);
    power_on_controller();
}

int64_t Device::now() const {
    return instant_ != 0 ? instant_ : world_.clock().mono_ns();
}

void Device::power_on_controller() {
    pending_ = Pending::None;
    last_ = Header{};
    last_.tag = kMessageTag;
    busy_until_ = 0;
    gpio_ = 1u << kGpioAsicPower;
    reset_count_ = 0;
    for (auto& f : faults_) f = Fault{};
    fpga_.fill(0);
    fpga_[0x00] = static_cast<uint8_t>((cfg_.pcb_revision & 0x0F) << 4 | (cfg_.sensor & 0x0F));
    fpga_[0x01] = 0x01;
    fpga_[0x02] = 0x05;
    fpga_[0x05] = 0x23;
    fpga_[0x06] = 0x11;
    fpga_[0x07] = 0x20;
    fpga_[0x08] = 1;     // RTT shut
    fpga_[0x1F] = 0x56;  // idle
    fpga_[0x20] = 0x10;  // AE running
    const int64_t t = now();
    frames_base_ = 0;
    timeline_ns_ = t;
    timeline_rate_ = 0;
    pushed_running_ = !camera_.pipeline_running();  // force the first push
    pushed_rate_ = 0;
    pushed_brightness_ = 1000;
    pushed_readout_ = Readout{};
    pushed_range_ = 0;
    late_ = false;
    update_ns_ = 0;
    imu_fifo_.clear();
    imu_start_ = t;
    imu_generated_ = 0;
    imu_counter_ = cfg_.imu_first_counter;
    asic_powered_ = true;
    asic_released_ = true;
    asic_power_up();
    asic_boot_until_ = epr_ready_at_ = 0;  // done before the host can enumerate the device
    update_timeline();
    push_brightness();
}

void Device::plugged_in() {
    std::lock_guard<std::mutex> lk(mu_);
    power_on_controller();
}

// ---- faults ---------------------------------------------------------------------------------

bool Device::on(kssim_fault_kind kind) {
    Fault& f = fault(kind);
    if (f.active && f.until_ns != 0 && now() >= f.until_ns) f.active = false;
    return f.active;
}

bool Device::take(kssim_fault_kind kind, int32_t* value) {
    if (!on(kind)) return false;
    Fault& f = fault(kind);
    if (value != nullptr) *value = f.value;
    if (f.by_count && --f.left == 0) f.active = false;
    return true;
}

int Device::inject_fault(const kssim_fault& armed) {
    const int32_t v = armed.value;
    switch (armed.kind) {
        case KSSIM_FAULT_XU_FAIL:
            if (v < 0 || v > 4095) return -1;
            break;
        case KSSIM_FAULT_REPLY_WRONG_LENGTH:
            if (v < 0 || v > static_cast<int32_t>(kMaxMessageData)) return -1;
            break;
        case KSSIM_FAULT_REPLY_LONG_LENGTH:
            if (v != 0 && v <= static_cast<int32_t>(kMaxMessageData)) return -1;
            break;
        case KSSIM_FAULT_REPLY_WRONG_COMMAND:
        case KSSIM_FAULT_REPLY_BAD_CHECKSUM:
        case KSSIM_FAULT_REPLY_NO_FLAG:
        case KSSIM_FAULT_REPLY_BAD_TAG:
        case KSSIM_FAULT_INVALID_EPR:
        case KSSIM_FAULT_NO_IMU:
        case KSSIM_FAULT_FLASH_WRITE_FAIL:
            break;
        case KSSIM_FAULT_I2C_REFUSE_ASIC:
        case KSSIM_FAULT_I2C_REFUSE_EEPROM:
        case KSSIM_FAULT_I2C_REFUSE_FPGA:
            if (v < 0 || v > 2) return -1;
            break;
        case KSSIM_FAULT_EEPROM_NO_STICK:
            if (v < 0 || v > static_cast<int32_t>(kEepromSize)) return -1;
            break;
        case KSSIM_FAULT_SENSOR_COUNTER_FROZEN:
        case KSSIM_FAULT_OUTPUT_INDEX_FROZEN:
            if (v < 0 || v > 3) return -1;
            break;
        case KSSIM_FAULT_CONTROLLER_NOT_READY:
            if (v < 0 || v > 255) return -1;
            break;
        case KSSIM_FAULT_IMU_SKIP:
            if (v < 0 || v > 65535) return -1;
            break;
        case KSSIM_FAULT_SLOW_EEPROM_UPDATE:
            if (v < 0 || v > 3600000) return -1;
            break;
        default:
            return -1;
    }
    std::lock_guard<std::mutex> lk(mu_);
    const int64_t t = now();
    Fault& f = fault(armed.kind);
    f.active = true;
    f.by_count = armed.count > 0;
    f.left = armed.count;
    f.until_ns = armed.duration_ms > 0 ? t + int64_t{armed.duration_ms} * 1000000 : 0;
    f.value = v;
    if (armed.kind == KSSIM_FAULT_OUTPUT_INDEX_FROZEN) {
        for (int s = 0; s < 2; ++s) sensors_[s].frozen_index = output_index(s, false, true);
    }
    if (armed.kind == KSSIM_FAULT_INVALID_EPR && asic_running()) {
        take(KSSIM_FAULT_INVALID_EPR);
        reject_epr();
    }
    return 0;
}

int Device::clear_fault(kssim_fault_kind kind) {
    if (!is_control_fault(kind)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    fault(kind) = Fault{};
    return 0;
}

bool Device::fault_active(kssim_fault_kind kind) {
    if (!is_control_fault(kind)) return false;
    std::lock_guard<std::mutex> lk(mu_);
    return on(kind);
}

// ---- extension unit -------------------------------------------------------------------------

int Device::query(Camera&, struct uvc_xu_control_query& q) {
    // The UVC driver looks the control up first, then checks the request.
    if (q.unit != kXuUnit || q.selector != kXuSelector) return -ENOENT;
    size_t need = kBlockSize;
    switch (q.query) {
        case UVC_SET_CUR:
        case UVC_GET_CUR:
        case UVC_GET_MIN:
        case UVC_GET_MAX:
        case UVC_GET_RES:
        case UVC_GET_DEF:
            break;
        case UVC_GET_LEN:
            need = 2;
            break;
        case UVC_GET_INFO:
            need = 1;
            break;
        default:
            return -EINVAL;
    }
    if (q.size != need) return -EINVAL;
    if (q.data == nullptr) return -EFAULT;
    std::lock_guard<std::mutex> lk(mu_);
    instant_ = world_.clock().mono_ns();  // the firmware handles it at the instant it arrives
    const int r = answer(q);
    instant_ = 0;
    return r;
}

int Device::answer(struct uvc_xu_control_query& q) {
    ++stats_.queries;
    int32_t err = 0;
    if (take(KSSIM_FAULT_XU_FAIL, &err)) {
        ++stats_.failed_queries;
        return -(err > 0 ? err : EPIPE);
    }
    if (update_ns_ > 0 && q.query == UVC_SET_CUR) begin_update();  // the ack was never read
    if (now() < busy_until_) {
        // Copying a flash slot into the EEPROM: the controller answers nothing.
        ++stats_.failed_queries;
        return -EIO;
    }
    switch (q.query) {
        case UVC_SET_CUR:
            return set_cur(q.data);
        case UVC_GET_CUR: {
            const int r = get_cur(q.data);
            if (r != 0) ++stats_.failed_queries;
            return r;
        }
        case UVC_GET_LEN:
            q.data[0] = static_cast<uint8_t>(kBlockSize & 0xFF);
            q.data[1] = static_cast<uint8_t>(kBlockSize >> 8);
            return 0;
        case UVC_GET_INFO:
            q.data[0] = 0x03;  // supports GET and SET
            return 0;
        default:
            std::memset(q.data, 0, kBlockSize);
            return 0;
    }
}

int Device::set_cur(const uint8_t* block) {
    if (block[kBlockSize - 1] != 1) return 0;  // not a new request
    handle_request(block, now());
    return 0;
}

void Device::handle_request(const uint8_t* block, int64_t t) {
    Header h;
    h.tag = get32(block);
    h.id = get32(block + 4);
    h.timestamp = get32(block + 8);
    h.reserved = get32(block + 12);
    h.command = get32(block + 16);
    h.parameter = get32(block + 20);
    h.length = get32(block + 24);
    h.checksum = get32(block + 28);
    const uint8_t* data = block + kHeaderSize;
    ++stats_.requests;
    last_ = h;
    bool ok = false;
    if (hostile_) {
        build_hostile_reply(h);
        ok = true;
    } else if (h.tag == kMessageTag && h.length <= kMaxMessageData &&
               byte_sum(data, h.length) == h.checksum) {
        Answer a = execute(h, data, t);
        if (a.ok) build_reply(h, a.data);
        ok = a.ok;
    }
    pending_ = ok ? Pending::Reply : Pending::Refused;
    if (!ok) ++stats_.refused;
    // Now and then the firmware has the answer ready only at the second read.
    late_ = ok && !hostile_ &&
            unit_random(mix64(uint64_t{cfg_.late_reply_seed} << 32 ^ stats_.requests)) <
                cfg_.late_reply_share;
    record(KSSIM_REQUEST, block, ok ? 0 : EIO);
}

int Device::get_cur(uint8_t* block) {
    if (pending_ == Pending::Refused) {
        pending_ = Pending::None;
        return -EIO;  // the stalled control pipe
    }
    if (pending_ == Pending::None || late_) {
        std::memset(block, 0, kBlockSize);
        put32(block, kMessageTag);
        put32(block + 4, last_.id);
        put32(block + 16, last_.command & ~kReplyFlag);
        ++stats_.empty_reads;
        if (late_) ++stats_.late_replies;
        late_ = false;
        return 0;
    }
    std::memcpy(block, reply_.data(), kBlockSize);
    const uint32_t command = get32(block + 16) & ~kReplyFlag;
    const uint32_t length = get32(block + 24);
    bool keep = false;
    int32_t v = 0;
    if (take(KSSIM_FAULT_REPLY_NO_FLAG)) {
        put32(block + 16, command);
        keep = true;
    } else if (take(KSSIM_FAULT_REPLY_BAD_TAG)) {
        put32(block, 0x04030201);
        keep = true;
    } else if (take(KSSIM_FAULT_REPLY_BAD_CHECKSUM, &v)) {
        put32(block + 28, get32(block + 28) + static_cast<uint32_t>(v != 0 ? v : 1));
    } else if (take(KSSIM_FAULT_REPLY_WRONG_COMMAND, &v)) {
        const uint32_t wrong = v != 0 ? static_cast<uint32_t>(v) : command % 15 + 1;
        put32(block + 16, wrong | kReplyFlag);
    } else if (take(KSSIM_FAULT_REPLY_WRONG_LENGTH, &v)) {
        const uint32_t n = v != 0 ? static_cast<uint32_t>(v) : (length < 256 ? length + 1 : 255);
        if (n > length) std::memset(block + kHeaderSize + length, 0, n - length);
        if (n < length) std::memset(block + kHeaderSize + n, 0, length - n);
        put32(block + 24, n);
        put32(block + 28, byte_sum(block + kHeaderSize, n));
    } else if (take(KSSIM_FAULT_REPLY_LONG_LENGTH, &v)) {
        put32(block + 24, v != 0 ? static_cast<uint32_t>(v) : 257);
    }
    if (!keep) pending_ = Pending::None;
    ++stats_.replies;
    record(KSSIM_REPLY, block, 0);
    if (!keep && update_ns_ > 0) begin_update();  // acknowledged: now the copy
    return 0;
}

void Device::begin_update() {
    busy_until_ = now() + update_ns_;
    update_ns_ = 0;
}

void Device::build_reply(const Header& req, const std::vector<uint8_t>& data) {
    reply_.fill(0);
    uint8_t* b = reply_.data();
    const size_t n = std::min(data.size(), kMaxMessageData);
    put32(b, kMessageTag);
    put32(b + 4, req.id);
    put32(b + 16, req.command | kReplyFlag);
    put32(b + 20, req.parameter);
    put32(b + 24, static_cast<uint32_t>(n));
    if (n > 0) std::memcpy(b + kHeaderSize, data.data(), n);
    put32(b + 28, byte_sum(b + kHeaderSize, n));
}

void Device::build_hostile_reply(const Header& req) {
    auto next = [this] {
        // xorshift64*
        hostile_state_ ^= hostile_state_ >> 12;
        hostile_state_ ^= hostile_state_ << 25;
        hostile_state_ ^= hostile_state_ >> 27;
        return hostile_state_ * 0x2545F4914F6CDD1Dull;
    };
    Header h = req;
    const uint64_t r = next();
    h.command = (r & 1) ? req.command : static_cast<uint32_t>((r >> 8) % 16);
    h.parameter = static_cast<uint32_t>(r >> 32);
    std::vector<uint8_t> data(static_cast<size_t>(next() % (kMaxMessageData + 1)));
    for (auto& d : data) d = static_cast<uint8_t>(next() >> 56);
    build_reply(h, data);
}

void Device::record(kssim_direction dir, const uint8_t* block, int32_t outcome) {
    kssim_message m;
    std::memset(&m, 0, sizeof(m));
    m.direction = dir;
    m.time_us = static_cast<uint64_t>(now() / 1000);
    m.tag = get32(block);
    m.id = get32(block + 4);
    m.timestamp = get32(block + 8);
    m.reserved = get32(block + 12);
    m.command = get32(block + 16);
    m.parameter = get32(block + 20);
    m.length = get32(block + 24);
    m.checksum = get32(block + 28);
    m.data_length = std::min<uint32_t>(m.length, sizeof(m.data));
    std::memcpy(m.data, block + kHeaderSize, m.data_length);
    m.outcome = outcome;
    if (traffic_.size() >= kTrafficKept) traffic_.pop_front();
    traffic_.push_back(m);
}

// ---- firmware commands ----------------------------------------------------------------------

Device::Answer Device::execute(const Header& h, const uint8_t* data, int64_t t) {
    Answer a;
    switch (h.command) {
        case 1: {  // version text
            if (h.length != 0) return a;
            a.data.assign(kVersionSize, 0);
            const size_t n = std::min(strnlen(cfg_.firmware, sizeof(cfg_.firmware)), kVersionSize);
            std::memcpy(a.data.data(), cfg_.firmware, n);
            a.ok = true;
            return a;
        }
        case 2:
            return cmd_flash_read(h);
        case 3:
            return cmd_flash_write(h, data);
        case 4:
            return cmd_flash_erase(h);
        case 5:
            return cmd_eeprom_update(h, data);
        case 6:
            return cmd_i2c_read(h, data);
        case 7:
            return cmd_i2c_write(h, data);
        case 10:
            return cmd_gpio(h, data);
        case 11:  // status
            if (h.length != 0) return a;
            a.data.push_back(static_cast<uint8_t>((asic_running() ? 1 : 0) |
                                                  (epr_loaded_ && epr_read(t) ? 2 : 0)));
            a.ok = true;
            return a;
        case 13:
            if (h.length != 0) return a;
            return cmd_imu(t);
        case 14:
            return cmd_set_asic(h, data);
        case 15:  // reset count
            if (h.length != 0) return a;
            a.data.resize(4);
            put32(a.data.data(), reset_count_);
            a.ok = true;
            return a;
        default:
            return a;  // unknown command
    }
}

Device::Answer Device::cmd_flash_read(const Header& h) {
    Answer a;
    const uint32_t addr = h.parameter;
    if (h.length != 0 || addr % kFlashPage != 0 || addr >= kFlashSize) return a;
    a.data.assign(flash_.begin() + addr, flash_.begin() + addr + kFlashPage);
    a.ok = true;
    return a;
}

Device::Answer Device::cmd_flash_write(const Header& h, const uint8_t* data) {
    Answer a;
    const uint32_t addr = h.parameter;
    if (h.length != kFlashPage || addr % kFlashPage != 0 || addr >= kFlashSize) return a;
    if (take(KSSIM_FAULT_FLASH_WRITE_FAIL)) return a;
    // NOR programming only clears bits.
    for (size_t i = 0; i < kFlashPage; ++i) flash_[addr + i] &= data[i];
    a.ok = true;
    return a;
}

Device::Answer Device::cmd_flash_erase(const Header& h) {
    Answer a;
    const uint32_t addr = h.parameter;
    if (h.length != 0 || addr % kFlashSector != 0 || addr >= kFlashSize) return a;
    if (take(KSSIM_FAULT_FLASH_WRITE_FAIL)) return a;
    std::fill(flash_.begin() + addr, flash_.begin() + addr + kFlashSector, 0xFF);
    a.ok = true;
    return a;
}

Device::Answer Device::cmd_eeprom_update(const Header& h, const uint8_t* data) {
    Answer a;
    if (h.length != 1) return a;
    const size_t src = (size_t{data[0]} + kFlashEprBase) * kFlashSector;
    if (src + kEprSize > kFlashSize) return a;
    std::copy(flash_.begin() + src, flash_.begin() + src + kEprSize, eeprom_.begin());
    // Acknowledged at once; the copy (no answers meanwhile) begins once the
    // acknowledgement has been read.
    int32_t ms = 0;
    update_ns_ = take(KSSIM_FAULT_SLOW_EEPROM_UPDATE, &ms)
                     ? int64_t{ms > 0 ? ms : kSlowEepromUpdateMs} * 1000000
                     : kEepromUpdateNs;
    a.ok = true;
    return a;
}

Device::Answer Device::cmd_i2c_read(const Header& h, const uint8_t* data) {
    Answer a;
    if (h.length != 4 || (h.parameter >> 24) != 0) return a;
    const uint32_t n = uint32_t{data[0]} | (uint32_t{data[1]} << 8) | (uint32_t{data[2]} << 16) |
                       (uint32_t{data[3]} << 24);
    if (n < 1 || n > kMaxMessageData) return a;
    a.data.resize(n);
    const uint8_t dev = static_cast<uint8_t>(h.parameter >> 16);
    const uint16_t reg = static_cast<uint16_t>(h.parameter);
    a.ok = i2c_read(dev, reg, a.data.data(), n);
    return a;
}

Device::Answer Device::cmd_i2c_write(const Header& h, const uint8_t* data) {
    Answer a;
    if (h.length < 1 || h.length > kMaxMessageData || (h.parameter >> 24) != 0) return a;
    const uint8_t dev = static_cast<uint8_t>(h.parameter >> 16);
    const uint16_t reg = static_cast<uint16_t>(h.parameter);
    a.ok = i2c_write(dev, reg, data, h.length);
    return a;
}

Device::Answer Device::cmd_gpio(const Header& h, const uint8_t* data) {
    Answer a;
    if (h.length < 2) return a;
    if (data[0] == 0x00) {  // set: pairs of pin and level
        if (h.length % 2 != 1) return a;
        for (uint32_t i = 1; i < h.length; i += 2)
            if (data[i] >= kGpioPins || data[i + 1] > 1) return a;
        for (uint32_t i = 1; i < h.length; i += 2) {
            const uint32_t bit = 1u << data[i];
            gpio_ = data[i + 1] ? (gpio_ | bit) : (gpio_ & ~bit);
            if (old_firmware_ && data[i] == kGpioAsicPower) set_asic_power(data[i + 1] != 0, true);
        }
        a.ok = true;
        return a;
    }
    if (data[0] == 0x01) {  // get: the pins' levels
        for (uint32_t i = 1; i < h.length; ++i) {
            if (data[i] >= kGpioPins) return Answer{};
            a.data.push_back(static_cast<uint8_t>((gpio_ >> data[i]) & 1));
        }
        a.ok = true;
    }
    return a;
}

Device::Answer Device::cmd_imu(int64_t t) {
    Answer a;
    a.ok = true;
    if (!cfg_.has_imu || take(KSSIM_FAULT_NO_IMU)) return a;
    imu_update(t);
    const size_t n = std::min<size_t>(imu_fifo_.size(), cfg_.imu_records_per_reply);
    for (size_t i = 0; i < n; ++i) {
        a.data.insert(a.data.end(), imu_fifo_.front().begin(), imu_fifo_.front().end());
        imu_fifo_.pop_front();
    }
    return a;
}

Device::Answer Device::cmd_set_asic(const Header& h, const uint8_t* data) {
    Answer a;
    if (old_firmware_ || h.length != 1 || data[0] > 1) return a;
    set_asic_power(asic_powered_, data[0] == 1);
    a.ok = true;
    return a;
}

// ---- direct access ----------------------------------------------------------------------------

static bool range_ok(uint32_t addr, size_t len, size_t size) {
    return addr <= size && len <= size - addr;
}

int Device::eeprom_read(uint32_t addr, uint8_t* buf, size_t len) {
    if ((buf == nullptr && len > 0) || !range_ok(addr, len, kEepromSize)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    std::copy_n(eeprom_.begin() + addr, len, buf);
    return 0;
}

int Device::eeprom_write(uint32_t addr, const uint8_t* buf, size_t len) {
    if ((buf == nullptr && len > 0) || !range_ok(addr, len, kEepromSize)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    std::copy_n(buf, len, eeprom_.begin() + addr);
    return 0;
}

int Device::flash_read(uint32_t addr, uint8_t* buf, size_t len) {
    if ((buf == nullptr && len > 0) || !range_ok(addr, len, kFlashSize)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    std::copy_n(flash_.begin() + addr, len, buf);
    return 0;
}

int Device::flash_write(uint32_t addr, const uint8_t* buf, size_t len) {
    if ((buf == nullptr && len > 0) || !range_ok(addr, len, kFlashSize)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    std::copy_n(buf, len, flash_.begin() + addr);
    return 0;
}

void Device::set_hostile(bool on_, uint32_t seed) {
    std::lock_guard<std::mutex> lk(mu_);
    hostile_ = on_;
    hostile_state_ = mix64(uint64_t{seed} + 0x9E3779B97F4A7C15ull) | 1;
}

size_t Device::traffic_count() {
    std::lock_guard<std::mutex> lk(mu_);
    return traffic_.size();
}

bool Device::traffic_get(size_t index, kssim_message* out) {
    std::lock_guard<std::mutex> lk(mu_);
    if (out == nullptr || index >= traffic_.size()) return false;
    *out = traffic_[index];
    return true;
}

void Device::traffic_clear() {
    std::lock_guard<std::mutex> lk(mu_);
    traffic_.clear();
}

kssim_control_stats Device::control_stats() {
    std::lock_guard<std::mutex> lk(mu_);
    return stats_;
}

}  // namespace kssim
