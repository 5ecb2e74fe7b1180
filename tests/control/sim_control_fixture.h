// A simulated camera with its control device open, and readers of what the
// camera itself holds and recorded, for the control layer's end-to-end tests.
#ifndef KS_TEST_SIM_CONTROL_FIXTURE_H
#define KS_TEST_SIM_CONTROL_FIXTURE_H

#include <gtest/gtest.h>

#include <vector>

#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"
#include "sim/kssim.h"
#include "tests/sim/sim_fixture.h"

namespace simctl {

inline bool exchange_mutex_free() {
    if (trylock_uvc_protocol_mutex() != 0) return false;
    unlock_uvc_protocol_mutex();
    return true;
}

// One exchange's frame for direct protocol calls: the mutex held, the
// camera selected.
class Locked {
  public:
    explicit Locked(const _struct_ks_ctrl_device& ctrl) {
        lock_uvc_protocol_mutex();
        set_cur_uvc_fd(ctrl.fd);
    }
    ~Locked() { unlock_uvc_protocol_mutex(); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
};

inline std::vector<kssim_message> traffic_of(kssim_camera* camera) {
    std::vector<kssim_message> out(kssim_camera_traffic_count(camera));
    for (size_t i = 0; i < out.size(); ++i) kssim_camera_traffic_get(camera, i, &out[i]);
    return out;
}

class ControlSim : public simtest::SimTest {
  protected:
    void SetUp() override {
        simtest::SimTest::SetUp();
        // The protocol's 5 s reply time-out (a reply may come at the second
        // read) is 125 ms of real time at this warp.
        ASSERT_EQ(0, kssim_world_set_warp(world_, 40.0));
        camera_ = add_camera();
        ASSERT_NE(nullptr, camera_);
        ASSERT_EQ(0, ks_iic_init_dev(&ctrl_, kssim_camera_node_path(camera_, KSSIM_NODE_CAPTURE)));
        kssim_camera_traffic_clear(camera_);
    }
    void TearDown() override {
        EXPECT_TRUE(exchange_mutex_free());
        release_iic_ctrl(&ctrl_);
        set_cur_uvc_fd(-1);
        simtest::SimTest::TearDown();
    }

    int fault(kssim_fault_kind kind, uint32_t count, uint32_t duration_ms = 0, int32_t value = 0) {
        const kssim_fault f = {kind, count, duration_ms, value};
        return kssim_camera_inject_fault(camera_, &f);
    }
    uint8_t reg(kssim_chip chip, uint32_t r) {
        uint8_t v = 0;
        EXPECT_EQ(0, kssim_camera_register_read(camera_, chip, r, &v));
        return v;
    }
    std::vector<unsigned char> eeprom_bytes(uint32_t addr, size_t n) {
        std::vector<unsigned char> out(n);
        EXPECT_EQ(0, kssim_camera_eeprom_read(camera_, addr, out.data(), n));
        return out;
    }
    uint8_t eeprom(uint32_t addr) { return eeprom_bytes(addr, 1)[0]; }
    std::vector<unsigned char> flash(uint32_t addr, size_t n) {
        std::vector<unsigned char> out(n);
        EXPECT_EQ(0, kssim_camera_flash_read(camera_, addr, out.data(), n));
        return out;
    }
    kssim_device_state state() {
        kssim_device_state s{};
        EXPECT_EQ(0, kssim_camera_device_state(camera_, &s));
        return s;
    }
    std::vector<kssim_message> requests() {
        std::vector<kssim_message> out;
        for (const kssim_message& m : traffic_of(camera_))
            if (m.direction == KSSIM_REQUEST) out.push_back(m);
        return out;
    }
    // I2C requests addressed to one device address.
    std::vector<kssim_message> requests_to(uint32_t dev) {
        std::vector<kssim_message> out;
        for (const kssim_message& m : requests())
            if ((m.command == 6 || m.command == 7) && (m.parameter >> 16) == dev) out.push_back(m);
        return out;
    }

    kssim_camera* camera_ = nullptr;
    _struct_ks_ctrl_device ctrl_ = {};
};

}  // namespace simctl

#endif
