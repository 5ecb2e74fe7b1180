// The control layer end to end against the virtual camera (which refuses
// any malformed request): every command round-trips, flash transfers erase
// and program in order, the verified EEPROM write retries as designed, ASIC
// accesses are paced, the transport and the protocol refuse replies and
// requests of the wrong size, and every kind of misbehaving controller ends
// the exchange cleanly.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/ks_log.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "sim_control_fixture.h"
#include "tests/common/ks_test_helpers.h"

using simctl::ControlSim;
using simctl::Locked;

constexpr unsigned kFail = 0xFFFFFFFFu;

TEST_F(ControlSim, EveryCommandRoundTrips) {
    // Controller version. (IMU records, the ASIC reset state and GPIO 17 are
    // shown by the IMU receiver and the control layer's power cycles.)
    char version[32] = {};
    ASSERT_EQ(0u, ks_get_usb_version(&ctrl_, version));
    EXPECT_STREQ("KS-USB 3.2.1 2023-11-20", version);

    // ASIC, EEPROM and FPGA bytes, checked on the camera itself.
    ASSERT_EQ(0u, ks_write_nuvex_register(&ctrl_, 0x26, 0x5D));
    EXPECT_EQ(0x5D, reg(KSSIM_CHIP_ASIC, 0x26));
    uint16_t v = 0;
    ASSERT_EQ(0u, ks_read_nuvex_register(&ctrl_, 0x1F, &v));
    EXPECT_EQ(0x34, v);
    ASSERT_EQ(0u, ks_write_nuvex_eeprom(&ctrl_, 0x3C09, 0x40));
    EXPECT_EQ(0x40, eeprom(0x3C09));
    ASSERT_EQ(0u, ks_read_nuvex_eeprom(&ctrl_, 0x3C09, &v));
    EXPECT_EQ(0x40, v);
    ASSERT_EQ(0u, ks_fpga_read(&ctrl_, 0x1F, &v));
    EXPECT_EQ(0x56, v);
    ASSERT_EQ(0u, ks_fpga_write(&ctrl_, 0x08, 1));
    EXPECT_EQ(1, reg(KSSIM_CHIP_FPGA, 0x08));

    // The FPGA bitstream area, written and read back (EPR slots: below).
    std::vector<unsigned char> image(4096);
    for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<unsigned char>(i * 13 + 1);
    std::vector<unsigned char> back(4096);
    ASSERT_EQ(0u, ks_kernel_send_fpga_bit(&ctrl_, image.data(), 4096));
    EXPECT_EQ(image, flash(0x3D000, 4096));
    ASSERT_EQ(0u, ks_kernel_receive_fpga_bit(&ctrl_, back.data(), 4096));
    EXPECT_EQ(image, back);

    // GPIO and status.
    {
        Locked lock(ctrl_);
        const unsigned char pins[2] = {4, 5};
        const unsigned char levels[2] = {1, 0};
        ASSERT_EQ(0, protocol_set_gpios(pins, levels, 2));
        ASSERT_EQ(0, protocol_set_gpio(6, 1));
        unsigned char got[3] = {9, 9, 9};
        const unsigned char all[3] = {4, 5, 6};
        ASSERT_EQ(0, protocol_get_gpios(all, got, 3));
        EXPECT_EQ(0, std::memcmp("\x01\x00\x01", got, 3));
        unsigned char level = 0;
        ASSERT_EQ(0, protocol_get_gpio(4, &level));
        EXPECT_EQ(1, level);
        unsigned char status = 0;
        ASSERT_EQ(0, protocol_get_status(&status));
        EXPECT_EQ(0x03, status);  // ASIC running, EPR loaded
    }
}

TEST_F(ControlSim, EepromUpdateFromFlashWaitsOutTheBusyController) {
    std::vector<unsigned char> epr(4096, 0);
    ASSERT_EQ(0, kssim_epr_build(epr.data(), 640, 480, 30000, 50, 3));
    ASSERT_EQ(0u, ks_send_asic_epr_to_usb_flash(&ctrl_, 9, epr.data(), 4096));
    kssim_camera_traffic_clear(camera_);

    const uint64_t start = kssim_world_now_us(world_);
    EXPECT_EQ(0u, ks_select_eeprom_from_usb_flash(&ctrl_, 9));
    EXPECT_GE(kssim_world_now_us(world_) - start, 300000u);
    EXPECT_EQ(std::vector<unsigned char>(epr.begin(), epr.begin() + 3072), eeprom_bytes(0, 3072));
    EXPECT_EQ(0, state().eeprom_busy);
    // The update, then status requests until one is answered (the busy
    // controller fails the queries, so the ones in between never arrive).
    const auto reqs = requests();
    ASSERT_GE(reqs.size(), 2u);
    EXPECT_EQ(5u, reqs[0].command);
    EXPECT_EQ(9, reqs[0].data[0]);
    EXPECT_EQ(11u, reqs.back().command);
    EXPECT_EQ(0, reqs.back().outcome);

    // A refused update request is waited for and reported as 0 all the same.
    ASSERT_EQ(0, fault(KSSIM_FAULT_REPLY_WRONG_COMMAND, 1));
    kssim_camera_traffic_clear(camera_);
    EXPECT_EQ(0u, ks_select_eeprom_from_usb_flash(&ctrl_, 9));
    EXPECT_EQ(11u, requests().back().command);
}

TEST_F(ControlSim, OpenFailurePrintsAndTheResetCountFollowsTheSelection) {
    _struct_ks_ctrl_device other = {};
    other.fd = 55;
    uint16_t v = 0;
    {
        ks_test::FdCapture out(1);
        EXPECT_EQ(-1, ks_iic_init_dev(&other, "/nonexistent/video9"));
        EXPECT_EQ(-1, ks_write_fpga_register(&ctrl_, 0x08, 1));
        EXPECT_EQ(-1, ks_read_fpga_register(&ctrl_, 0x08, &v));
        EXPECT_EQ(
            "ERROR:IIC dev open failed\nErr No such file or directory\nDev name "
            "/nonexistent/video9\nNone FPGA Module. Write Fpga Reg FailedNone FPGA Module. Read "
            "Fpga Reg Failed",
            out.text());
    }
    EXPECT_EQ(55, other.fd);
    EXPECT_TRUE(requests().empty());

    set_cur_uvc_fd(-1);
    uint32_t count = 7;
    EXPECT_EQ(kFail, ks_get_usb_nuvex_reset_cnt_kernel(&ctrl_, &count));
    EXPECT_EQ(7u, count);
    ASSERT_EQ(0u, ks_open_ctrl_device(&other, kssim_camera_node_path(camera_, KSSIM_NODE_CAPTURE)));
    EXPECT_EQ(other.fd, get_cur_uvc_fd());
    EXPECT_EQ(0u, ks_get_usb_nuvex_reset_cnt_kernel(&ctrl_, &count));
    EXPECT_EQ(0u, ks_release_ctrl_device(&other));
    EXPECT_EQ(-1, other.fd);
    set_cur_uvc_fd(ctrl_.fd);
}

TEST_F(ControlSim, MultiSectorFlashWriteErasesAndProgramsInOrder) {
    // Old contents everywhere: without its erase a sector would read back
    // as old & new.
    const uint32_t base = (3 + 101) << 12;
    ASSERT_EQ(0, kssim_camera_flash_write(camera_, base,
                                          std::vector<uint8_t>(3 * 4096, 0x5A).data(), 3 * 4096));
    std::vector<unsigned char> image(3 * 4096);
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<unsigned char>(i * 7 + i / 4096);
    ASSERT_EQ(0u, ks_send_asic_epr_to_usb_flash(&ctrl_, 3, image.data(), 3 * 4096));

    const auto reqs = requests();
    ASSERT_EQ(3u * 17u, reqs.size());
    for (int s = 0; s < 3; ++s) {
        EXPECT_EQ(4u, reqs[17 * s].command);
        EXPECT_EQ(base + 4096u * s, reqs[17 * s].parameter);
        EXPECT_EQ(0u, reqs[17 * s].length);
        for (int p = 0; p < 16; ++p) {
            const auto& w = reqs[17 * s + 1 + p];
            EXPECT_EQ(3u, w.command);
            EXPECT_EQ(base + 4096u * s + 256u * p, w.parameter);
            ASSERT_EQ(256u, w.length);
            EXPECT_EQ(0, std::memcmp(image.data() + 4096 * s + 256 * p, w.data, 256));
        }
    }
    EXPECT_EQ(image, flash(base, 3 * 4096));
    std::vector<unsigned char> back(3 * 4096);
    ASSERT_EQ(0u, ks_receive_asic_epr(&ctrl_, 3, back.data(), 3 * 4096));
    EXPECT_EQ(image, back);

    // A refused erase ends the transfer at once and changes nothing.
    kssim_camera_traffic_clear(camera_);
    ASSERT_EQ(0, fault(KSSIM_FAULT_FLASH_WRITE_FAIL, 1));
    std::vector<unsigned char> other(2 * 4096, 0x11);
    EXPECT_EQ(kFail, ks_send_asic_epr_to_usb_flash(&ctrl_, 3, other.data(), 2 * 4096));
    EXPECT_EQ(1u, requests().size());
    EXPECT_EQ(image, flash(base, 3 * 4096));

    // A size that is not whole sectors: nothing sent. The last slot's place.
    kssim_camera_traffic_clear(camera_);
    EXPECT_EQ(kFail, ks_send_asic_epr_to_usb_flash(&ctrl_, 0, image.data(), 3072));
    EXPECT_EQ(kFail, ks_receive_asic_epr(&ctrl_, 0, back.data(), 3072));
    EXPECT_TRUE(requests().empty());
    ASSERT_EQ(0u, ks_send_asic_epr_to_usb_flash(&ctrl_, 255, image.data(), 4096));
    EXPECT_EQ(0x164000u, requests()[0].parameter);
}

TEST_F(ControlSim, VerifiedEepromWriteRetriesUntilTheReadBackMatches) {
    // One write and up to ten re-writes, each read back: a byte that never
    // sticks fails, one sticking at the last re-write still succeeds.
    const struct {
        uint32_t no_stick;  // writes that do not stick; 0: none does
        uint16_t addr;
        unsigned result;
        size_t writes;
    } cases[] = {{0, 0x3C20, kFail, 11}, {3, 0x3C21, 0, 4}, {10, 0x3C22, 0, 11}};
    for (const auto& k : cases) {
        kssim_camera_clear_fault(camera_, KSSIM_FAULT_EEPROM_NO_STICK);
        kssim_camera_traffic_clear(camera_);
        ASSERT_EQ(0, fault(KSSIM_FAULT_EEPROM_NO_STICK, k.no_stick));
        const uint8_t old = eeprom(k.addr), value = static_cast<uint8_t>(old ^ 0xFF);
        EXPECT_EQ(k.result, ks_eeprom_write(&ctrl_, k.addr, value)) << k.no_stick;
        EXPECT_EQ(k.result == 0 ? value : old, eeprom(k.addr));
        const auto writes = requests_to(0xA0);
        EXPECT_EQ(k.writes, writes.size()) << k.no_stick;
        EXPECT_EQ(k.writes, requests_to(0xA1).size());
        for (const auto& w : writes) {
            EXPECT_EQ(0x00A00000u | k.addr, w.parameter);
            EXPECT_EQ(1u, w.data_length);
            EXPECT_EQ(value, w.data[0]);
        }
    }

    // Only the read-back counts: a refused write of the byte already there
    // passes, and a read-back that fails confirms nothing.
    kssim_camera_clear_fault(camera_, KSSIM_FAULT_EEPROM_NO_STICK);
    kssim_camera_traffic_clear(camera_);
    ASSERT_EQ(0, fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 1));
    EXPECT_EQ(0u, ks_eeprom_write(&ctrl_, 0x3C21, eeprom(0x3C21)));
    EXPECT_EQ(1u, requests_to(0xA0).size());
    kssim_camera_traffic_clear(camera_);
    ASSERT_EQ(0, fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 0));
    EXPECT_EQ(kFail, ks_eeprom_write(&ctrl_, 0x3C23, 0xFF));
    EXPECT_EQ(11u, requests_to(0xA0).size());
}

TEST_F(ControlSim, AsicAccessesAreMaskedAndPacedOneMillisecondApart) {
    ASSERT_EQ(0u, ks_iic_write(&ctrl_, 0x10051, 0x17F));  // masked to 0x0051 and 0x7F
    EXPECT_EQ(0x7F, reg(KSSIM_CHIP_ASIC, 0x51));
    EXPECT_EQ(0x00CC0051u, requests_to(0xCC).at(0).parameter);
    kssim_camera_traffic_clear(camera_);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(0u, ks_iic_write(&ctrl_, 0x40 + i, i));
        uint16_t v = 0;
        ASSERT_EQ(0u, ks_iic_read(&ctrl_, 0x40 + i, &v));
        EXPECT_EQ(i, v);
    }
    const auto reqs = requests();
    ASSERT_EQ(10u, reqs.size());
    for (size_t i = 1; i < reqs.size(); ++i)
        EXPECT_GE(reqs[i].time_us - reqs[i - 1].time_us, 1000u) << "request " << i;
}

// ---- the transport and the protocol's own checks ---------------------------------

TEST_F(ControlSim, ExtensionUnitTransport) {
    Locked lock(ctrl_);
    EXPECT_EQ(320, uvc_get_extension_data_len(ctrl_.fd));  // little-endian, as UVC has it
    EXPECT_EQ(-1, uvc_get_extension_data_len(-1));
    // A send sets the new-request flag in the last byte: only then does the
    // controller take the block as a request.
    unsigned char data[1] = {}, block[320] = {};
    _struct_protocol_message m = {0x01020304, 5, 0, 0, 11, 0, 0, 0, data};
    ASSERT_EQ(32, protocol_deal_message_description(&m, block));
    EXPECT_EQ(320, uvc_protocol_master_send_data(block));
    EXPECT_EQ(1, block[319]);
    ASSERT_EQ(1u, requests().size());
    ASSERT_EQ(0, uvc_protocol_master_receive_data(block));
    EXPECT_EQ(33, protocol_deal_data_stream(&m, block));
    EXPECT_EQ(0x8000000Bu, m.command);

    ASSERT_EQ(0, fault(KSSIM_FAULT_XU_FAIL, 2));
    EXPECT_EQ(-1, uvc_protocol_master_send_data(block));
    EXPECT_EQ(-1, uvc_protocol_master_receive_data(block));
    EXPECT_EQ(320, uvc_set_extension_data(ctrl_.fd, block, 320));
    EXPECT_EQ(-1, uvc_set_extension_data(ctrl_.fd, block, 64));  // the control is 320 bytes
    EXPECT_EQ(-1, uvc_get_extension_data(ctrl_.fd, nullptr, 320));
}

TEST_F(ControlSim, TheTransportIsRegisteredOnceAndCanBeReplaced) {
    static const _struct_protocol_functions uvc = {uvc_protocol_master_send_data,
                                                   uvc_protocol_master_receive_data,
                                                   uvc_protocol_get_current_timestamp};
    struct Restore {
        ~Restore() { protocol_master_init(&uvc); }
    } restore;
    Locked lock(ctrl_);
    static int sends = 0;
    sends = 0;
    const _struct_protocol_functions custom = {[](unsigned char*) { return ++sends, 0; },
                                               [](unsigned char*) { return -1; }, nullptr};
    protocol_master_init(&custom);
    EXPECT_EQ(0, uvc_protocol_master_init());  // must not register the transport again
    unsigned char status = 0;
    EXPECT_EQ(-1, protocol_get_status(&status));
    EXPECT_EQ(1, sends);

    // Null entries fall back to functions that do nothing: with nothing
    // registered the request is never answered and the exchange gives up.
    protocol_master_init(nullptr);
    EXPECT_EQ(-1, protocol_get_status(&status));
    // With no descriptor selected the exchange fails at the first receive.
    protocol_master_init(&uvc);
    set_cur_uvc_fd(-1);
    EXPECT_EQ(-1, get_cur_uvc_fd());
    EXPECT_EQ(-1, protocol_get_status(&status));
    EXPECT_TRUE(requests().empty());
    set_cur_uvc_fd(ctrl_.fd);
    EXPECT_EQ(0, protocol_get_status(&status));
}

// Replies of another length leave the caller's buffer alone; requests that
// do not fit a block are refused before anything is sent.
TEST_F(ControlSim, RepliesOfTheWrongSizeAndOversizeRequestsAreRefused) {
    Locked lock(ctrl_);
    ASSERT_EQ(0, protocol_set_asic(0));
    ASSERT_EQ(0, protocol_set_asic(1));  // the one reset, counted in a big-endian word
    unsigned char buf[256] = {};
    unsigned int count = 0;
    const unsigned char pins[3] = {17, 4, 5};
    const struct {
        int32_t bad;  // the reply's length
        std::function<int()> call;
    } cases[] = {
        {31, [&] { return protocol_get_slaver_version(buf); }},
        {255, [&] { return protocol_flash_read_page(0x65000, buf); }},
        {2, [&] { return protocol_get_status(buf); }},
        {2, [&] { return protocol_get_gpio(17, buf); }},
        {2, [&] { return protocol_get_reset_count(&count); }},
        {1, [&] { return protocol_iic_read(0xA1, 0x3C00, buf, 2); }},
        {3, [&] { return protocol_iic_read(0xA1, 0x3C00, buf, 2); }},
        {2, [&] { return protocol_get_gpios(pins, buf, 3); }},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(0, c.call()) << c.bad;
        ASSERT_EQ(0, fault(KSSIM_FAULT_REPLY_WRONG_LENGTH, 1, 0, c.bad));
        std::memset(buf, 0, sizeof buf);
        EXPECT_EQ(-1, c.call()) << c.bad;
        EXPECT_EQ(0, buf[0]);
    }
    EXPECT_EQ(1u, count);
    EXPECT_EQ(-1, protocol_iic_read(0xA1, 0x3C00, nullptr, 2));

    // At most 256 data bytes, 127 GPIO pairs.
    kssim_camera_traffic_clear(camera_);
    const std::vector<unsigned char> ones(257, 1), fours(128, 4);
    EXPECT_EQ(-1, protocol_iic_write(0xA0, 0x3000, ones.data(), 257));
    EXPECT_EQ(-1, protocol_iic_write(0xA0, 0x3000, nullptr, 1));
    EXPECT_EQ(-1, protocol_set_gpios(fours.data(), ones.data(), 128));
    EXPECT_TRUE(requests().empty());
    ASSERT_EQ(0, protocol_iic_write(0xA0, 0x3000, ones.data(), 256));
    EXPECT_EQ(256u, requests().back().length);  // a 288-byte message
    EXPECT_EQ(0, protocol_set_gpios(fours.data(), ones.data(), 127));
    EXPECT_EQ(255u, requests().back().length);

    // The IMU reply holds whole 16-byte records only.
    const std::pair<int32_t, int> imu[] = {{40, 2}, {256, 16}, {15, 0}};
    for (const auto& k : imu) {
        ASSERT_EQ(0, fault(KSSIM_FAULT_REPLY_WRONG_LENGTH, 1, 0, k.first));
        std::memset(buf, 0xEE, sizeof buf);
        EXPECT_EQ(k.second, protocol_get_IMU(buf)) << k.first;
        if (k.second < 16) {
            EXPECT_EQ(0xEE, buf[16 * k.second]) << k.first;
        }
    }
    ASSERT_EQ(0, fault(KSSIM_FAULT_XU_FAIL, 2));
    EXPECT_EQ(-1, protocol_get_IMU(buf));
}

// The encodings at values the library itself never passes: unaligned flash
// addresses, the top of the register space, a read length in all four
// little-endian bytes, a single GPIO pin.
TEST_F(ControlSim, AddressAndLengthEncodingsAtUnalignedAndExtremeValues) {
    Locked lock(ctrl_);
    unsigned char page[256] = {};
    protocol_flash_read_page(0x65ABC, page);
    protocol_flash_write_page(0x66FFF, page);
    protocol_flash_erase_sector(0x67FFF);
    protocol_iic_read(0xA1, 0xFFFF, page, 0x04030201);  // refused: longer than a reply
    protocol_iic_write(0xFE, 0xFEDC, page, 1);
    const unsigned char pin[1] = {31};
    ASSERT_EQ(0, protocol_set_gpio(31, 1));
    unsigned char level = 7;
    ASSERT_EQ(0, protocol_get_gpios(pin, &level, 1));
    EXPECT_EQ(1, level);

    const auto reqs = requests();
    ASSERT_EQ(7u, reqs.size());
    const uint32_t parameters[] = {0x65A00, 0x66F00, 0x67000, 0xA1FFFF, 0xFEFEDC};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(parameters[i], reqs[i].parameter) << i;
    ASSERT_EQ(4u, reqs[3].length);
    EXPECT_EQ(0, std::memcmp("\x01\x02\x03\x04", reqs[3].data, 4));
    ASSERT_EQ(2u, reqs[6].length);
    EXPECT_EQ(0, std::memcmp("\x01\x1F", reqs[6].data, 2));
}

TEST_F(ControlSim, NakedMessages) {
    Locked lock(ctrl_);
    EXPECT_EQ(320, send_naked_message(1, 1));
    EXPECT_EQ(320, send_naked_message(0, 1));
    EXPECT_EQ(320, send_naked_message(1, 0));  // the record as it stands
    const auto reqs = requests();
    ASSERT_EQ(3u, reqs.size());
    EXPECT_EQ(1u, reqs[0].command);
    EXPECT_EQ(32u, reqs[0].length);
    EXPECT_EQ(std::string(17, 'x'), std::string(reqs[0].data, reqs[0].data + 17));
    EXPECT_NE('x', reqs[0].data[17]);
    EXPECT_EQ(0u, reqs[1].length);
    EXPECT_EQ(reqs[0].id + 1, reqs[1].id);
    EXPECT_EQ(reqs[1].id, reqs[2].id);

    unsigned char* out = reinterpret_cast<unsigned char*>(1);
    EXPECT_EQ(0, receive_naked_message(&out));
    EXPECT_EQ(nullptr, out);
    ASSERT_EQ(0, fault(KSSIM_FAULT_XU_FAIL, 1));
    EXPECT_EQ(-1, receive_naked_message(&out));
    EXPECT_EQ(protocol_stream_buffer(), out);
}

// ---- a misbehaving controller --------------------------------------------------

TEST_F(ControlSim, RepliesThatAreNotTheAnswerAreSkippedOrRefused) {
    uint16_t v = 0;
    // Blocks without the reply flag or with a bad tag are skipped.
    for (kssim_fault_kind kind : {KSSIM_FAULT_REPLY_NO_FLAG, KSSIM_FAULT_REPLY_BAD_TAG}) {
        ASSERT_EQ(0, fault(kind, 3));
        EXPECT_EQ(0u, ks_fpga_read(&ctrl_, 0x1F, &v)) << kind;
        EXPECT_EQ(0x56, v);
    }
    // A bad checksum is not looked at.
    ASSERT_EQ(0, fault(KSSIM_FAULT_REPLY_BAD_CHECKSUM, 1));
    EXPECT_EQ(0u, ks_fpga_read(&ctrl_, 0x1F, &v));
    EXPECT_EQ(0x56, v);
    // A reply to another command, of another length or longer than the data
    // buffer is refused (the last before anything is copied).
    for (kssim_fault_kind kind : {KSSIM_FAULT_REPLY_WRONG_COMMAND, KSSIM_FAULT_REPLY_WRONG_LENGTH,
                                  KSSIM_FAULT_REPLY_LONG_LENGTH}) {
        ASSERT_EQ(0, fault(kind, 1));
        v = 0xBEEF;
        EXPECT_EQ(kFail, ks_iic_read(&ctrl_, 0x1F, &v)) << kind;
        EXPECT_EQ(0, v);
        EXPECT_TRUE(simctl::exchange_mutex_free());
    }
    // Failing queries and devices that do not acknowledge.
    ASSERT_EQ(0, fault(KSSIM_FAULT_XU_FAIL, 1));
    EXPECT_EQ(kFail, ks_iic_write(&ctrl_, 0x26, 1));
    // A refused read stores 0 and returns the protocol's error.
    using Read = unsigned (*)(_struct_ks_ctrl_device*, unsigned, uint16_t*);
    const std::pair<kssim_fault_kind, Read> refusals[] = {
        {KSSIM_FAULT_I2C_REFUSE_ASIC, ks_iic_read},
        {KSSIM_FAULT_I2C_REFUSE_EEPROM, ks_eeprom_read},
        {KSSIM_FAULT_I2C_REFUSE_FPGA, ks_fpga_read}};
    for (const auto& r : refusals) {
        ASSERT_EQ(0, fault(r.first, 1));
        v = 0xBEEF;
        EXPECT_EQ(kFail, r.second(&ctrl_, 0x1F, &v)) << r.first;
        EXPECT_EQ(0, v);
    }
    EXPECT_TRUE(simctl::exchange_mutex_free());
    EXPECT_EQ(0u, ks_iic_read(&ctrl_, 0x1F, &v));
    EXPECT_EQ(0x34, v);
}

TEST_F(ControlSim, AControllerThatNeverRepliesIsGivenUpOnAfterFiveSeconds) {
    ASSERT_EQ(0, fault(KSSIM_FAULT_REPLY_NO_FLAG, 0));
    uint16_t v = 0;
    const uint64_t start = kssim_world_now_us(world_);
    EXPECT_EQ(kFail, ks_fpga_read(&ctrl_, 0x1F, &v));
    EXPECT_GE(kssim_world_now_us(world_) - start, 5000000u);
    EXPECT_TRUE(simctl::exchange_mutex_free());
    // One that answers after 2 s is waited for (a slow clock: the 3 s margin
    // is 600 ms of real time, more than a loaded machine holds a thread up).
    ASSERT_EQ(0, kssim_world_set_warp(world_, 5.0));
    ASSERT_EQ(0, fault(KSSIM_FAULT_REPLY_NO_FLAG, 0, 2000));
    v = 0;
    EXPECT_EQ(0u, ks_fpga_read(&ctrl_, 0x1F, &v));
    EXPECT_EQ(0x56, v);
}

TEST_F(ControlSim, StatusPollingGivesUpAfterSixtySecondsAndLogsIt) {
    ks_test::TempDir dir;
    const std::string log = dir / "ctl.log";
    ASSERT_EQ(0, ks_init_log(log.c_str()));
    ASSERT_EQ(0, fault(KSSIM_FAULT_SLOW_EEPROM_UPDATE, 1, 0, 90000));
    const uint64_t start = kssim_world_now_us(world_);
    EXPECT_EQ(0u, ks_select_eeprom_from_usb_flash(&ctrl_, 0));
    const uint64_t waited = kssim_world_now_us(world_) - start;
    EXPECT_GE(waited, 60000000u);
    EXPECT_LT(waited, 90000000u);  // still busy when it gave up
    ks_destory_log();
    EXPECT_EQ(1, state().eeprom_busy);
    EXPECT_NE(std::string::npos, ks_test::read_file(log).find(
                                     "USB controller did not answer a status request "
                                     "within 60 s after the EEPROM update from flash slot 0"));
}

TEST_F(ControlSim, HostileControllerNeverBreaksTheHost) {
    // An exchange that does not work at all would make every round wait out
    // its time-out: stop at once instead.
    uint16_t fpga = 0;
    ASSERT_EQ(0u, ks_fpga_read(&ctrl_, 0x1F, &fpga));
    ASSERT_EQ(0x56, fpga);
    ASSERT_EQ(0, kssim_camera_set_hostile(camera_, 1, 1234));
    std::vector<unsigned char> page(4096, 0x42);
    for (int round = 0; round < 150; ++round) {
        uint16_t v = 0;
        char version[32] = {};  // left as it is by a refused reply
        uint32_t count = 0;
        const unsigned r1 = ks_iic_read(&ctrl_, round & 0xFF, &v);
        EXPECT_TRUE(r1 == 0 || r1 == kFail);
        EXPECT_LE(v, 0xFF);
        ks_eeprom_write(&ctrl_, 0x3C30, round);
        ks_fpga_read(&ctrl_, 0x00, &v);
        ks_get_usb_version(&ctrl_, version);
        EXPECT_LT(std::strlen(version), 32u);
        ks_get_usb_nuvex_reset_cnt(&ctrl_, &count);
        ks_receive_asic_epr(&ctrl_, 1, page.data(), 4096);
        Locked lock(ctrl_);
        unsigned char records[256], got[4], status;
        const int n = protocol_get_IMU(records);
        EXPECT_TRUE(n >= -1 && n <= 16) << n;
        const unsigned char pins[4] = {1, 2, 3, 4};
        protocol_get_gpios(pins, got, 4);
        protocol_get_status(&status);
    }
    EXPECT_EQ(0, kssim_camera_set_hostile(camera_, 0, 0));
    uint16_t v = 0;
    EXPECT_EQ(0u, ks_fpga_read(&ctrl_, 0x1F, &v));
    EXPECT_EQ(0x56, v);
}
