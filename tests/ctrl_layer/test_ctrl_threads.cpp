// Two cameras driven from two threads: every guarded operation and sensor
// write goes through, and the process-wide AE flag is shared without a data
// race (the two guards may still restore each other's AE state: one flag
// serves the whole process by design).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ctrl_layer_fixture.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"

using ctrltest::CtrlLayer;

TEST_F(CtrlLayer, TwoCamerasGuardedFromTwoThreads) {
    open_camera();
    kssim_camera* first = camera_;
    _struct_ks_ctrl_device first_ctrl = ctrl_;
    open_camera();
    ASSERT_EQ(0, ks_AE_open_up(&first_ctrl));
    ASSERT_EQ(0, ks_AE_shut_down(&ctrl_));

    std::atomic<int> failures{0};
    auto worker = [&failures](_struct_ks_ctrl_device* h, uint16_t gain) {
        for (int i = 0; i < 20; ++i) {
            if (ks_asic_control_prep(h) != 0) ++failures;
            uint16_t left = 10, right = 14;
            if (ks_set_camera_trim(h, &left, &right) != 0) ++failures;
            if (ks_asic_control_post(h) != 0) ++failures;
            if (ks_set_gain_sony_imx225(h, gain) != 0) ++failures;
        }
    };
    std::thread a(worker, &first_ctrl, 20);
    std::thread b(worker, &ctrl_, 30);
    a.join();
    b.join();
    EXPECT_EQ(0, failures.load());
    uint8_t v = 0;
    ASSERT_EQ(0, kssim_camera_register_read(first, KSSIM_CHIP_SENSOR_B, 0x3014, &v));
    EXPECT_EQ(20, v);
    EXPECT_EQ(30, reg(KSSIM_CHIP_SENSOR_B, 0x3014));
    EXPECT_EQ(14, reg(KSSIM_CHIP_ASIC, 0x28));
    release_iic_ctrl(&first_ctrl);
}
