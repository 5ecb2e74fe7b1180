// A simulated camera (of a chosen sensor model and controller firmware)
// with its control device open, plus readers of what the camera itself
// holds and was sent, for the tests of the EEPROM store, ASIC and sensor
// control and the image transfers.
#ifndef KS_TEST_CTRL_LAYER_FIXTURE_H
#define KS_TEST_CTRL_LAYER_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "control_protocol/uvc_protocol_master.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"
#include "sim/kssim.h"
#include "tests/common/ks_test_helpers.h"
#include "tests/sim/sim_fixture.h"

namespace ctrltest {

using Bytes = std::vector<uint8_t>;
using Writes = std::vector<std::pair<uint32_t, uint8_t>>;

// I2C device addresses: the ASIC (written, read) and the FPGA.
constexpr uint32_t kAsic = 0xCC, kAsicRead = 0xCD, kFpga = 0xC0;

// Standard output captured until text() is called.
struct StdoutCapture : ks_test::FdCapture {
    StdoutCapture() : FdCapture(1) {}
};

// The result of a call whose standard output is of no interest.
template <typename Call>
auto quietly(Call call) {
    StdoutCapture out;
    return call();
}

class CtrlLayer : public simtest::SimTest {
  protected:
    void SetUp() override {
        simtest::SimTest::SetUp();
        // Replies now and then come at the second read, and the protocol gives
        // up on a reply after 5 s: 125 ms of real time at this warp, which a
        // loaded machine does not take between two reads.
        ASSERT_EQ(0, kssim_world_set_warp(world_, 40.0));
    }
    void TearDown() override {
        if (ctrl_.fd >= 0 && camera_ != nullptr) release_iic_ctrl(&ctrl_);
        set_cur_uvc_fd(-1);
        simtest::SimTest::TearDown();
    }

    // Adds the camera (firmware null: the current one) and opens its control
    // device; traffic recorded so far is dropped.
    void open_camera(kssim_sensor_model sensor = KSSIM_SENSOR_OV9281,
                     const char* firmware = nullptr) {
        kssim_camera_config cfg;
        kssim_camera_config_init(&cfg);
        cfg.sensor = sensor;
        if (firmware != nullptr) std::snprintf(cfg.firmware, sizeof(cfg.firmware), "%s", firmware);
        camera_ = kssim_world_add_camera(world_, &cfg);
        ASSERT_NE(nullptr, camera_);
        ctrl_.fd = -1;
        ASSERT_EQ(0, ks_iic_init_dev(&ctrl_, kssim_camera_node_path(camera_, KSSIM_NODE_CAPTURE)));
        kssim_camera_traffic_clear(camera_);
    }

    // ---- what the camera holds ----
    Bytes eeprom(uint32_t addr, size_t n) {
        Bytes out(n);
        EXPECT_EQ(0, kssim_camera_eeprom_read(camera_, addr, out.data(), n));
        return out;
    }
    uint8_t eeprom_byte(uint32_t addr) { return eeprom(addr, 1)[0]; }
    void poke_eeprom(uint32_t addr, const Bytes& bytes) {
        ASSERT_EQ(0, kssim_camera_eeprom_write(camera_, addr, bytes.data(), bytes.size()));
    }
    Bytes flash(uint32_t addr, size_t n) {
        Bytes out(n);
        EXPECT_EQ(0, kssim_camera_flash_read(camera_, addr, out.data(), n));
        return out;
    }
    uint8_t reg(kssim_chip chip, uint32_t r) {
        uint8_t v = 0;
        EXPECT_EQ(0, kssim_camera_register_read(camera_, chip, r, &v));
        return v;
    }
    Bytes regs(kssim_chip chip, std::initializer_list<uint32_t> rs) {
        Bytes out;
        for (uint32_t r : rs) out.push_back(reg(chip, r));
        return out;
    }
    void poke(kssim_chip chip, uint32_t r, uint8_t v) {
        ASSERT_EQ(0, kssim_camera_register_write(camera_, chip, r, v));
    }
    kssim_device_state state() { return SimTest::state(camera_); }
    void fault(kssim_fault_kind kind, uint32_t count = 0, int32_t value = 0) {
        ASSERT_EQ(0, inject(camera_, kind, count, value));
    }
    void clear(kssim_fault_kind kind) { kssim_camera_clear_fault(camera_, kind); }

    // ---- traffic ----
    std::vector<kssim_message> requests() {
        std::vector<kssim_message> out;
        kssim_message m;
        for (size_t i = 0; i < kssim_camera_traffic_count(camera_); ++i)
            if (kssim_camera_traffic_get(camera_, i, &m) == 0 && m.direction == KSSIM_REQUEST)
                out.push_back(m);
        return out;
    }
    // I2C writes to one device address: (register, byte) in order.
    Writes writes_to(uint32_t dev) {
        Writes out;
        for (const kssim_message& m : requests())
            if (m.command == 7 && (m.parameter >> 16) == dev && m.data_length >= 1)
                out.emplace_back(m.parameter & 0xFFFF, m.data[0]);
        return out;
    }
    // Registers read from one device address, in order.
    std::vector<uint32_t> reads_of(uint32_t dev) {
        std::vector<uint32_t> out;
        for (const kssim_message& m : requests())
            if (m.command == 6 && (m.parameter >> 16) == dev) out.push_back(m.parameter & 0xFFFF);
        return out;
    }
    void clear_traffic() { kssim_camera_traffic_clear(camera_); }

    kssim_camera* camera_ = nullptr;
    _struct_ks_ctrl_device ctrl_ = {-1, 0, 0, 0.0f, 0.0f, 0};
};

// The same with the default camera opened.
class OpenCamera : public CtrlLayer {
  protected:
    void SetUp() override {
        CtrlLayer::SetUp();
        open_camera();
    }
};

}  // namespace ctrltest

#endif
