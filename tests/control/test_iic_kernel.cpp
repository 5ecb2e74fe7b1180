// Register and memory primitives against a small fake controller: device
// addresses and masking, ASIC pacing outside the exchange mutex, the
// verified EEPROM write, flash areas, the EEPROM update with its polling,
// the wrappers, and the mutex being free again after every call.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/ks_log.h"
#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
#include "fake_firmware.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"
#include "tests/common/ks_test_helpers.h"

using fakexu::Device;
using fakexu::Firmware;
using fakexu::Request;

namespace {

constexpr unsigned kFail = 0xFFFFFFFFu;

class KernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, ks_open_ctrl_device(&ctrl_, "/dev/fake-xu"));
        const _struct_protocol_functions uvc = {uvc_protocol_master_send_data,
                                                uvc_protocol_master_receive_data,
                                                uvc_protocol_get_current_timestamp};
        protocol_master_init(&uvc);
    }
    void TearDown() override {
        // Whatever happened, the exchange mutex is free again.
        EXPECT_EQ(0, trylock_uvc_protocol_mutex());
        unlock_uvc_protocol_mutex();
        ks_release_ctrl_device(&ctrl_);
        set_cur_uvc_fd(-1);
    }

    std::vector<Request> requests_to(int dev) {
        std::vector<Request> out;
        for (const Request& r : dev_.requests())
            if ((r.command == 6 || r.command == 7) && static_cast<int>(r.parameter >> 16) == dev)
                out.push_back(r);
        return out;
    }

    Device dev_;
    Firmware fw_{dev_};
    _struct_ks_ctrl_device ctrl_ = {};
};

}  // namespace

TEST(KernelOpen, OpenFailureIsPrintedAndOpenSelectsTheDevice) {
    Device dev;
    _struct_ks_ctrl_device ctrl = {};
    ctrl.fd = 55;
    ks_test::FdCapture out(1);
    EXPECT_EQ(-1, ks_iic_init_dev(&ctrl, "/nonexistent/video9"));
    EXPECT_EQ(
        "ERROR:IIC dev open failed\nErr No such file or directory\nDev name /nonexistent/video9\n",
        out.text());
    EXPECT_EQ(55, ctrl.fd);

    set_cur_uvc_fd(-1);
    ASSERT_EQ(0u, ks_open_ctrl_device(&ctrl, "/dev/fake-xu2"));
    EXPECT_EQ(Device::kFd2, ctrl.fd);
    EXPECT_EQ(Device::kFd2, get_cur_uvc_fd());
    EXPECT_EQ(0u, ks_release_ctrl_device(&ctrl));
    EXPECT_EQ(-1, ctrl.fd);
    set_cur_uvc_fd(-1);
}

TEST_F(KernelTest, ByteAccessesAddressTheirDevices) {
    ASSERT_EQ(0u, ks_iic_write(&ctrl_, 0x10051, 0x17F));  // masked to 0x0051 and 0x7F
    uint16_t v = 0;
    ASSERT_EQ(0u, ks_iic_read(&ctrl_, 0x51, &v));
    EXPECT_EQ(0x7F, v);
    EXPECT_EQ(0x7F, fw_.at(Device::kFd, 0xCC, 0x51));

    ASSERT_EQ(0u, ks_fpga_write(&ctrl_, 0x08, 1));
    ASSERT_EQ(0u, ks_fpga_read(&ctrl_, 0x08, &v));
    EXPECT_EQ(1, v);
    EXPECT_EQ(1, fw_.at(Device::kFd, 0xC0, 0x08));

    fw_.memory[{Device::kFd, 0xA0, 0x3C00}] = 0xC1;
    ASSERT_EQ(0u, ks_eeprom_read(&ctrl_, 0x3C00, &v));
    EXPECT_EQ(0xC1, v);

    const auto asic_w = requests_to(0xCC);
    ASSERT_EQ(1u, asic_w.size());
    EXPECT_EQ(0x00CC0051u, asic_w[0].parameter);
    EXPECT_EQ(std::vector<uint8_t>({0x7F}), asic_w[0].data);
    const auto asic_r = requests_to(0xCD);
    ASSERT_EQ(1u, asic_r.size());
    EXPECT_EQ(std::vector<uint8_t>({1, 0, 0, 0}), asic_r[0].data);
    EXPECT_EQ(1u, requests_to(0xC0).size());
    EXPECT_EQ(1u, requests_to(0xC1).size());
    EXPECT_EQ(1u, requests_to(0xA1).size());

    // Only the two ASIC accesses pause, 1 ms each, with the mutex free.
    EXPECT_EQ(std::vector<useconds_t>({1000, 1000}), dev_.sleeps());
    EXPECT_EQ(0, dev_.sleeps_under_mutex());

    // The session's application layer reaches the same registers.
    ASSERT_EQ(0u, ks_write_nuvex_register(&ctrl_, 0x42, 0x40));
    ASSERT_EQ(0u, ks_read_nuvex_register(&ctrl_, 0x42, &v));
    EXPECT_EQ(0x40, v);
    ASSERT_EQ(0u, ks_write_nuvex_eeprom(&ctrl_, 0x3C09, 0x40));
    ASSERT_EQ(0u, ks_read_nuvex_eeprom(&ctrl_, 0x3C09, &v));
    EXPECT_EQ(0x40, v);
}

TEST_F(KernelTest, FailedReadsStoreZeroAndReturnTheProtocolError) {
    fw_.memory[{Device::kFd, 0xCC, 0x1F}] = 0x34;
    fw_.refused = {0xCC, 0xA0, 0xC0};
    uint16_t v = 0xBEEF;
    EXPECT_EQ(kFail, ks_iic_read(&ctrl_, 0x1F, &v));
    EXPECT_EQ(0, v);
    v = 0xBEEF;
    EXPECT_EQ(kFail, ks_eeprom_read(&ctrl_, 0x10, &v));
    EXPECT_EQ(0, v);
    v = 0xBEEF;
    EXPECT_EQ(kFail, ks_fpga_read(&ctrl_, 0x10, &v));
    EXPECT_EQ(0, v);
    EXPECT_EQ(kFail, ks_iic_write(&ctrl_, 0x1F, 0));
    EXPECT_EQ(kFail, ks_fpga_write(&ctrl_, 0x1F, 0));
    // A failed ASIC access is paced like a good one.
    EXPECT_EQ(2u, dev_.sleeps().size());

    EXPECT_EQ(kFail, ks_iic_read(nullptr, 0x1F, &v));
    EXPECT_EQ(kFail, ks_iic_read(&ctrl_, 0x1F, nullptr));
}

TEST_F(KernelTest, VerifiedEepromWrite) {
    // Never sticking and sticking after three tries are shown against the
    // simulator; here, the edges of the retry loop.
    // Sticks at the very last re-write.
    fw_.eeprom_writes_dropped = 10;
    EXPECT_EQ(0u, ks_eeprom_write(&ctrl_, 0x3C03, 0x11));
    EXPECT_EQ(11u, requests_to(0xA0).size());

    // The write's own result does not matter, only the read-back.
    dev_.clear_requests();
    fw_.eeprom_write_nak_once = 1;
    EXPECT_EQ(0u, ks_eeprom_write(&ctrl_, 0x3C04, 0x22));
    EXPECT_EQ(1u, requests_to(0xA0).size());

    // A read-back that fails confirms nothing, even for a 0 byte.
    dev_.clear_requests();
    fw_.refused = {0xA0};
    EXPECT_EQ(kFail, ks_eeprom_write(&ctrl_, 0x3C05, 0x00));
    EXPECT_EQ(11u, requests_to(0xA0).size());
    EXPECT_TRUE(dev_.sleeps().empty());  // EEPROM accesses are not paced
}

TEST_F(KernelTest, FlashAreas) {
    std::vector<unsigned char> image(4096, 0x3E);
    ASSERT_EQ(0u, ks_send_asic_epr_to_usb_flash(&ctrl_, 0, image.data(), 4096));
    ASSERT_EQ(0u, ks_send_asic_epr_to_usb_flash(&ctrl_, 255, image.data(), 4096));
    ASSERT_EQ(0u, ks_kernel_send_fpga_bit(&ctrl_, image.data(), 4096));
    std::vector<unsigned char> back(4096, 0);
    ASSERT_EQ(0u, ks_receive_asic_epr(&ctrl_, 1, back.data(), 4096));
    EXPECT_EQ(std::vector<unsigned char>(4096, 0xFF), back);  // slot 1 was never written
    ASSERT_EQ(0u, ks_kernel_receive_fpga_bit(&ctrl_, back.data(), 4096));
    EXPECT_EQ(image, back);
    std::vector<uint32_t> starts;
    for (const Request& r : dev_.requests())
        if (r.command == 4 || (r.command == 2 && r.parameter % 0x1000 == 0))
            starts.push_back(r.parameter);
    EXPECT_EQ(std::vector<uint32_t>({0x65000, 0x164000, 0x3D000, 0x66000, 0x3D000}), starts);

    // Alignment is the protocol's: nothing sent, the error passed through.
    dev_.clear_requests();
    EXPECT_EQ(kFail, ks_send_asic_epr_to_usb_flash(&ctrl_, 0, image.data(), 3072));
    EXPECT_TRUE(dev_.requests().empty());
}

TEST_F(KernelTest, ControllerCommands) {
    std::memcpy(fw_.version, "1022.5 with a text of 32 bytes!!", 32);
    char version[32];
    std::memset(version, 'z', sizeof version);
    ASSERT_EQ(0u, ks_get_usb_version(&ctrl_, version));
    EXPECT_EQ(std::string("1022.5 with a text of 32 bytes!"), version);  // terminated within 32

    ASSERT_EQ(0u, ks_kernel_set_asic_gpio(&ctrl_, 1));
    ASSERT_EQ(0u, ks_reset_asic_status(&ctrl_, 0));
    auto reqs = dev_.requests();
    ASSERT_EQ(3u, reqs.size());
    EXPECT_EQ(10u, reqs[1].command);
    EXPECT_EQ(std::vector<uint8_t>({0x00, 17, 1}), reqs[1].data);
    EXPECT_EQ(14u, reqs[2].command);
    EXPECT_EQ(std::vector<uint8_t>({0}), reqs[2].data);

    // The reset count goes to the descriptor selected last.
    uint32_t count = 0;
    ASSERT_EQ(0u, ks_get_usb_nuvex_reset_cnt(&ctrl_, &count));
    EXPECT_EQ(300u, count);
    set_cur_uvc_fd(-1);
    count = 7;
    EXPECT_EQ(kFail, ks_get_usb_nuvex_reset_cnt_kernel(&ctrl_, &count));
    EXPECT_EQ(7u, count);
}

TEST_F(KernelTest, EepromUpdateFromFlashWaitsForTheController) {
    // The controller is busy for 12 status polls: polled 100 ms apart with
    // the mutex held the whole time.
    fw_.status_failures = 12;
    EXPECT_EQ(0u, ks_select_eeprom_from_usb_flash(&ctrl_, 2));
    auto reqs = dev_.requests();
    ASSERT_EQ(14u, reqs.size());
    EXPECT_EQ(5u, reqs[0].command);
    EXPECT_EQ(std::vector<uint8_t>({2}), reqs[0].data);
    for (size_t i = 1; i < reqs.size(); ++i) EXPECT_EQ(11u, reqs[i].command);
    EXPECT_EQ(std::vector<useconds_t>(12, 100000), dev_.sleeps());
    EXPECT_EQ(12, dev_.sleeps_under_mutex());

    // A failed update request still waits and still reports 0.
    dev_.clear_requests();
    fw_.update_fails = true;
    EXPECT_EQ(0u, ks_select_eeprom_from_usb_flash(&ctrl_, 3));
    EXPECT_EQ(2u, dev_.requests().size());

    // A controller that never comes back is given up on after 60 s, and the
    // log says so.
    ks_test::TempDir dir;
    const std::string log = dir / "ctl.log";
    ASSERT_EQ(0, ks_init_log(log.c_str()));
    fw_.status_failures = 1 << 30;
    const int64_t start = dev_.now_us();
    EXPECT_EQ(0u, ks_select_eeprom_from_usb_flash(&ctrl_, 0));
    const int64_t waited = dev_.now_us() - start;
    ks_destory_log();
    EXPECT_GE(waited, 60000000);
    EXPECT_LT(waited, 60300000);
    EXPECT_NE(std::string::npos, ks_test::read_file(log).find(
                                     "USB controller did not answer a status request "
                                     "within 60 s after the EEPROM update from flash slot 0"));
}

TEST_F(KernelTest, DeadFpgaWrappersPrintAndTouchNothing) {
    ks_test::FdCapture out(1);
    uint16_t v = 0;
    EXPECT_EQ(-1, ks_write_fpga_register(&ctrl_, 0x08, 1));
    EXPECT_EQ(-1, ks_read_fpga_register(&ctrl_, 0x08, &v));
    EXPECT_EQ("None FPGA Module. Write Fpga Reg FailedNone FPGA Module. Read Fpga Reg Failed",
              out.text());
    EXPECT_TRUE(dev_.requests().empty());
}
