// Control exchanges from several threads at once, on one camera and on two:
// every request is answered before the next one goes out, and each camera
// sees only its own traffic.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
#include "fake_firmware.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

using fakexu::Device;
using fakexu::Firmware;

namespace {

// Writes and verifies a pattern of ASIC registers and EEPROM bytes; returns
// the number of mismatches and failures.
int hammer(_struct_ks_ctrl_device* ctrl, int base, int rounds, std::atomic<int>* ready) {
    // Start together, so that the threads really compete.
    ready->fetch_add(1);
    while (ready->load() < 4) std::this_thread::yield();
    int bad = 0;
    for (int i = 0; i < rounds; ++i) {
        const unsigned reg = static_cast<unsigned>(base + (i % 16));
        const unsigned value = static_cast<unsigned>((base + i) & 0xFF);
        bad += ks_iic_write(ctrl, reg, value) != 0;
        uint16_t back = 0;
        bad += ks_iic_read(ctrl, reg, &back) != 0;
        bad += back != value;
        bad += ks_eeprom_write(ctrl, 0x3C00 + reg, value) != 0;
        bad += ks_eeprom_read(ctrl, 0x3C00 + reg, &back) != 0;
        bad += back != value;
    }
    return bad;
}

}  // namespace

TEST(ControlThreads, ConcurrentExchangesNeverInterleave) {
    Device dev;
    Firmware fw(dev);
    uvc_protocol_master_init();
    const _struct_protocol_functions uvc = {uvc_protocol_master_send_data,
                                            uvc_protocol_master_receive_data,
                                            uvc_protocol_get_current_timestamp};
    protocol_master_init(&uvc);

    // Two cameras, two threads each.
    _struct_ks_ctrl_device a = {}, b = {};
    ASSERT_EQ(0, ks_iic_init_dev(&a, "/dev/fake-xu"));
    ASSERT_EQ(0, ks_iic_init_dev(&b, "/dev/fake-xu2"));
    constexpr int kRounds = 300;
    int bad[4] = {};
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] { bad[0] = hammer(&a, 0x00, kRounds, &ready); });
    threads.emplace_back([&] { bad[1] = hammer(&a, 0x20, kRounds, &ready); });
    threads.emplace_back([&] { bad[2] = hammer(&b, 0x40, kRounds, &ready); });
    threads.emplace_back([&] { bad[3] = hammer(&b, 0x60, kRounds, &ready); });
    for (auto& t : threads) t.join();

    for (int i = 0; i < 4; ++i) EXPECT_EQ(0, bad[i]) << "thread " << i;
    EXPECT_EQ(0, dev.interleaved());
    // No write of one camera's threads reached the other camera.
    for (const auto& entry : fw.memory) {
        const int fd = std::get<0>(entry.first);
        const int reg = std::get<2>(entry.first) & 0xFF;
        if (fd == Device::kFd) {
            EXPECT_LT(reg, 0x40) << "register " << reg << " on camera A";
        } else {
            EXPECT_GE(reg, 0x40) << "register " << reg << " on camera B";
        }
    }
    EXPECT_EQ(4u * kRounds * 5u, dev.requests().size());

    EXPECT_EQ(0, release_iic_ctrl(&a));
    EXPECT_EQ(0, release_iic_ctrl(&b));
    set_cur_uvc_fd(-1);
}
