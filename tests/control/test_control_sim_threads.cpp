// Control traffic from several threads on two simulated cameras at once: on
// each camera's own record every request is followed by its reply before
// the next request, and only that camera's threads reach it.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "sim_control_fixture.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 120;

int hammer(_struct_ks_ctrl_device* ctrl, unsigned base, std::atomic<int>* ready) {
    ready->fetch_add(1);
    while (ready->load() < kThreads) std::this_thread::yield();
    int bad = 0;
    // The first failure ends the thread's rounds: a broken exchange would
    // otherwise wait out its time-out hundreds of times.
    for (int i = 0; i < kRounds && bad == 0; ++i) {
        const unsigned reg = base + static_cast<unsigned>(i % 8);
        const unsigned value = static_cast<unsigned>((base * 3 + i) & 0xFF);
        bad += ks_iic_write(ctrl, reg, value) != 0;
        uint16_t back = 0;
        bad += ks_iic_read(ctrl, reg, &back) != 0;
        bad += back != value;
        bad += ks_eeprom_write(ctrl, 0x3C00 + reg, value) != 0;  // a write and a read-back
        bad += ks_fpga_read(ctrl, 0x1F, &back) != 0;
        bad += back != 0x56;
    }
    return bad;
}

class ControlSimThreads : public simtest::SimTest {};

}  // namespace

TEST_F(ControlSimThreads, ExchangesOfConcurrentThreadsNeverInterleave) {
    ASSERT_EQ(0, kssim_world_set_warp(world_, 40.0));  // 5 s reply time-out: 125 ms real
    kssim_camera* cams[2] = {add_camera(), add_camera([](kssim_camera_config& c) {
                                 snprintf(c.serial, sizeof c.serial, "KS0000000002");
                             })};
    ASSERT_NE(nullptr, cams[0]);
    ASSERT_NE(nullptr, cams[1]);
    _struct_ks_ctrl_device ctrl[2] = {};
    for (int c = 0; c < 2; ++c) {
        ASSERT_EQ(0,
                  ks_iic_init_dev(&ctrl[c], kssim_camera_node_path(cams[c], KSSIM_NODE_CAPTURE)));
        kssim_camera_traffic_clear(cams[c]);
    }

    // Threads 0, 1 on camera 0 (registers 0x80..0x8F), 2, 3 on camera 1
    // (0xA0..0xAF).
    std::atomic<int> ready{0};
    int bad[kThreads] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            bad[t] = hammer(&ctrl[t / 2], 0x80u + 0x20u * (t / 2) + 8u * (t % 2), &ready);
        });
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) ASSERT_EQ(0, bad[t]) << "thread " << t;

    for (int c = 0; c < 2; ++c) {
        const auto msgs = simctl::traffic_of(cams[c]);
        ASSERT_EQ(2u * kRounds * 5u * 2u, msgs.size()) << "camera " << c;
        for (size_t i = 0; i + 1 < msgs.size(); i += 2) {
            ASSERT_EQ(KSSIM_REQUEST, msgs[i].direction) << "camera " << c << " message " << i;
            ASSERT_EQ(KSSIM_REPLY, msgs[i + 1].direction) << "camera " << c << " message " << i;
            ASSERT_EQ(msgs[i].id, msgs[i + 1].id);
            const uint32_t dev = msgs[i].parameter >> 16;
            const uint32_t reg = msgs[i].parameter & 0xFF;
            if (dev == 0xCC || dev == 0xCD) {
                EXPECT_EQ(0x80u + 0x20u * c, reg & 0xF0u) << "camera " << c;
            }
        }
        uint8_t v = 0;
        for (int t = 0; t < 2; ++t) {
            const unsigned reg = 0x80u + 0x20u * c + 8u * t + 7u;
            ASSERT_EQ(0, kssim_camera_register_read(cams[c], KSSIM_CHIP_ASIC, reg, &v));
            EXPECT_EQ((reg - 7 + (reg - 7) * 2 + kRounds - 1) & 0xFF, v);
        }
        release_iic_ctrl(&ctrl[c]);
    }
    EXPECT_TRUE(simctl::exchange_mutex_free());
    set_cur_uvc_fd(-1);
}
