// The camera's control channel: the extension unit, the controller
// firmware's framing and commands, and the control faults, spoken with the
// tests' own protocol client.
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include "sim_fixture.h"
#include "xu_client.h"

using simtest::SimTest;
using xutest::Block;
using xutest::Client;
using xutest::Message;

namespace {

class SimControl : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_warp(world_, 50.0));
        cam_ = add_camera();
        ASSERT_NE(cam_, nullptr);
        ASSERT_TRUE(xu_.open(kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE)));
    }
    int inject(kssim_fault_kind kind, uint32_t count, int32_t value = 0, uint32_t duration_ms = 0) {
        const kssim_fault armed = {kind, count, duration_ms, value};
        return kssim_camera_inject_fault(cam_, &armed);
    }
    std::vector<kssim_message> traffic() {
        std::vector<kssim_message> out(kssim_camera_traffic_count(cam_));
        for (size_t i = 0; i < out.size(); ++i)
            EXPECT_EQ(0, kssim_camera_traffic_get(cam_, i, &out[i]));
        return out;
    }
    uint8_t peek(kssim_chip chip, uint32_t reg) {
        uint8_t v = 0;
        EXPECT_EQ(0, kssim_camera_register_read(cam_, chip, reg, &v));
        return v;
    }
    kssim_device_state state() {
        kssim_device_state s;
        EXPECT_EQ(0, kssim_camera_device_state(cam_, &s));
        return s;
    }
    // Waits (virtual time) until the ASIC answers after a power-up.
    void wait_asic() {
        uint8_t v = 0;
        for (int i = 0; i < 100 && xu_.asic_read(0x1F, &v) != 0; ++i) ks_sys_usleep(10000);
        ASSERT_EQ(0x34, v);
    }
    kssim_camera* cam_ = nullptr;
    Client xu_;
};

}  // namespace

TEST_F(SimControl, ExtensionUnitAnswersUnit3Selector1AndRefusesTheRest) {
    uint8_t len[2] = {0, 0};
    ASSERT_EQ(0, xu_.query(UVC_GET_LEN, len, 2));
    EXPECT_EQ(0x40, len[0]);
    EXPECT_EQ(0x01, len[1]);
    uint8_t info = 0;
    ASSERT_EQ(0, xu_.query(UVC_GET_INFO, &info, 1));
    EXPECT_EQ(0x03, info);

    Block b{};
    EXPECT_EQ(ENOENT, xu_.query(UVC_GET_CUR, b.data(), 320, 2, 1));
    EXPECT_EQ(ENOENT, xu_.query(UVC_GET_CUR, b.data(), 320, 3, 2));
    EXPECT_EQ(ENOENT, xu_.query(UVC_GET_LEN, len, 2, 4, 1));
    EXPECT_EQ(EINVAL, xu_.query(UVC_SET_CUR, b.data(), 319));
    EXPECT_EQ(EINVAL, xu_.query(UVC_GET_CUR, b.data(), 64));
    EXPECT_EQ(EINVAL, xu_.query(UVC_GET_LEN, b.data(), 4));
    EXPECT_EQ(EINVAL, xu_.query(UVC_GET_INFO, b.data(), 2));
    EXPECT_EQ(EINVAL, xu_.query(0x99, b.data(), 320));
    EXPECT_EQ(EFAULT, xu_.query(UVC_GET_CUR, nullptr, 320));

    // Nothing asked yet: a block without the reply flag.
    b.fill(0xEE);
    ASSERT_EQ(0, xu_.receive(b));
    Message m = Message::parse(b);
    EXPECT_EQ(xutest::kTag, m.tag);
    EXPECT_EQ(0u, m.command & xutest::kReply);
    EXPECT_EQ(0u, m.length);

    // Any open descriptor of the capture node works; the metadata node has no
    // extension units and a webcam has no unit 3.
    Client second;
    ASSERT_TRUE(second.open(kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE)));
    std::string v;
    EXPECT_EQ(0, second.version(&v));
    Client meta;
    ASSERT_TRUE(meta.open(kssim_camera_node_path(cam_, KSSIM_NODE_META)));
    EXPECT_EQ(ENOTTY, meta.query(UVC_GET_LEN, len, 2));
    kssim_camera* web = kssim_world_add_webcam(world_, nullptr);
    ASSERT_NE(web, nullptr);
    Client wc;
    ASSERT_TRUE(wc.open(kssim_camera_node_path(web, KSSIM_NODE_CAPTURE)));
    EXPECT_EQ(ENOENT, wc.query(UVC_GET_LEN, len, 2));
    EXPECT_EQ(-1, kssim_camera_eeprom_read(web, 0, len, 1));
}

TEST_F(SimControl, RepliesEchoIdAndParameterAndAreFetchedOnce) {
    Message m;
    ASSERT_EQ(0, xu_.exchange_raw(xutest::request(77, 2, 0x65000, {}), &m));
    EXPECT_EQ(xutest::kTag, m.tag);
    EXPECT_EQ(77u, m.id);
    EXPECT_EQ(2u | xutest::kReply, m.command);
    EXPECT_EQ(0x65000u, m.parameter);
    EXPECT_EQ(256u, m.length);
    EXPECT_EQ(m.data_sum(), m.checksum);

    // The reply is consumed: the next read has no reply flag.
    Block b{};
    ASSERT_EQ(0, xu_.receive(b));
    m = Message::parse(b);
    EXPECT_EQ(77u, m.id);
    EXPECT_EQ(2u, m.command);

    // A block whose byte 319 is not 1 is no request: nothing happens.
    ASSERT_EQ(0, xu_.send(xutest::request(78, 11, 0, {}, false)));
    ASSERT_EQ(0, xu_.receive(b));
    EXPECT_EQ(0u, Message::parse(b).command & xutest::kReply);

    // Words the command does not use (reserved, a stale parameter) are ignored.
    Block req = xutest::request(79, 11, 0xDEADBEEF, {});
    xutest::put_be32(&req[12], 0x12345678);
    ASSERT_EQ(0, xu_.exchange_raw(req, &m));
    EXPECT_EQ(11u | xutest::kReply, m.command);
    EXPECT_EQ(1u, m.length);
}

TEST_F(SimControl, FirmwareRefusesMalformedRequestsWithAStall) {
    auto refused = [&](const Block& req) {
        Message m;
        const int r = xu_.exchange_raw(req, &m);
        // The stall is reported once; then nothing is pending.
        Block b{};
        EXPECT_EQ(0, xu_.receive(b));
        EXPECT_EQ(0u, Message::parse(b).command & xutest::kReply);
        return r;
    };
    Block bad_tag = xutest::request(1, 1, 0, {});
    bad_tag[0] = 0x04;
    EXPECT_EQ(EIO, refused(bad_tag));
    Block bad_sum = xutest::request(2, 7, 0xA03C00, {0x11});
    xutest::put_be32(&bad_sum[28], 0x12);
    EXPECT_EQ(EIO, refused(bad_sum));
    Block too_long = xutest::request(3, 7, 0xA03C00, std::vector<uint8_t>(256, 1));
    xutest::put_be32(&too_long[24], 257);
    EXPECT_EQ(EIO, refused(too_long));
    for (uint32_t cmd : {0u, 8u, 9u, 12u, 16u, 0x80000001u})
        EXPECT_EQ(EIO, refused(xutest::request(4, cmd, 0, {})));
    EXPECT_EQ(EIO, refused(xutest::request(5, 1, 0, {1})));           // version takes no data
    EXPECT_EQ(EIO, refused(xutest::request(6, 2, 0x65010, {})));      // page not aligned
    EXPECT_EQ(EIO, refused(xutest::request(7, 2, 0x200000, {})));     // beyond the flash
    EXPECT_EQ(EIO, refused(xutest::request(8, 4, 0x65100, {})));      // sector not aligned
    EXPECT_EQ(EIO, refused(xutest::request(9, 3, 0x65000, {1, 2})));  // a page is 256 bytes
    EXPECT_EQ(EIO, refused(xutest::request(10, 6, 0xA10000, {1, 0, 0})));
    EXPECT_EQ(EIO, refused(xutest::request(11, 6, 0xA10000, {0, 0, 0, 0})));  // 0 bytes
    EXPECT_EQ(EIO, refused(xutest::request(12, 6, 0xA10000, {1, 1, 0, 0})));  // 257 bytes
    EXPECT_EQ(EIO, refused(xutest::request(13, 7, 0xA00000, {})));
    EXPECT_EQ(EIO, refused(xutest::request(14, 6, 0x01A10000, {1, 0, 0, 0})));
    EXPECT_EQ(EIO, refused(xutest::request(15, 10, 0, {0x02, 17})));
    EXPECT_EQ(EIO, refused(xutest::request(16, 10, 0, {0x00, 32, 1})));
    EXPECT_EQ(EIO, refused(xutest::request(17, 10, 0, {0x00, 17, 2})));
    EXPECT_EQ(EIO, refused(xutest::request(18, 10, 0, {0x00, 17})));
    EXPECT_EQ(EIO, refused(xutest::request(19, 14, 0, {2})));
    EXPECT_EQ(EIO, refused(xutest::request(20, 5, 0, {})));

    // The traffic record keeps the refused requests with their outcome.
    const std::vector<kssim_message> t = traffic();
    ASSERT_FALSE(t.empty());
    EXPECT_EQ(KSSIM_REQUEST, t.back().direction);
    EXPECT_EQ(20u, t.back().id);
    EXPECT_EQ(EIO, t.back().outcome);
    kssim_control_stats st;
    ASSERT_EQ(0, kssim_camera_control_stats(cam_, &st));
    EXPECT_EQ(st.requests, st.refused);
    EXPECT_GE(st.refused, 25u);

    // A request replaced before its reply was fetched: the newer one answers.
    xu_.send(xutest::request(30, 1, 0, {}));
    Message m;
    ASSERT_EQ(0, xu_.exchange_raw(xutest::request(31, 15, 0, {}), &m));
    EXPECT_EQ(31u, m.id);
    EXPECT_EQ(15u | xutest::kReply, m.command);
}

TEST_F(SimControl, VersionTextIsTheConfiguredOne) {
    std::string v;
    ASSERT_EQ(0, xu_.version(&v));
    EXPECT_EQ("KS-USB 3.2.1 2023-11-20", v);
    kssim_camera* old = add_camera([](kssim_camera_config& c) {
        std::strcpy(c.firmware, "10225 build 7");
        std::strcpy(c.serial, "OLD00001");
    });
    ASSERT_NE(old, nullptr);
    Client c;
    ASSERT_TRUE(c.open(kssim_camera_node_path(old, KSSIM_NODE_CAPTURE)));
    ASSERT_EQ(0, c.version(&v));
    EXPECT_EQ("10225 build 7", v);
    // A text of 32 characters or more fills the 32 bytes without terminator.
    kssim_camera* longer = add_camera([](kssim_camera_config& cfg) {
        std::strcpy(cfg.firmware, "0123456789012345678901234567890123456789");
        std::strcpy(cfg.serial, "LONG0001");
    });
    Client l;
    ASSERT_TRUE(l.open(kssim_camera_node_path(longer, KSSIM_NODE_CAPTURE)));
    Message m;
    ASSERT_EQ(0, l.exchange(1, 0, {}, &m, 32));
    EXPECT_EQ(0, std::memcmp(m.data.data(), "01234567890123456789012345678901", 32));
}

TEST_F(SimControl, FlashEraseWriteReadRoundTripLikeNorFlash) {
    const uint32_t base = (20 + 101) * 4096;  // EPR slot 20
    std::vector<uint8_t> page;
    ASSERT_EQ(0, xu_.flash_read(base, &page));
    EXPECT_EQ(std::vector<uint8_t>(256, 0xFF), page);  // never written: erased

    std::vector<uint8_t> bytes(8192);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 3);
    ASSERT_EQ(0, xu_.flash_store(base, bytes));
    for (uint32_t p = 0; p < 8192; p += 256) {
        ASSERT_EQ(0, xu_.flash_read(base + p, &page));
        EXPECT_TRUE(std::equal(page.begin(), page.end(), bytes.begin() + p)) << p;
    }
    std::vector<uint8_t> direct(8192);
    ASSERT_EQ(0, kssim_camera_flash_read(cam_, base, direct.data(), direct.size()));
    EXPECT_EQ(bytes, direct);

    // Programming without erasing only clears bits.
    ASSERT_EQ(0, xu_.flash_write(base, std::vector<uint8_t>(256, 0xF0)));
    ASSERT_EQ(0, xu_.flash_read(base, &page));
    for (int i = 0; i < 256; ++i) ASSERT_EQ(bytes[i] & 0xF0, page[i]);
    ASSERT_EQ(0, xu_.flash_erase(base));
    ASSERT_EQ(0, xu_.flash_read(base + 0xF00, &page));
    EXPECT_EQ(std::vector<uint8_t>(256, 0xFF), page);
    ASSERT_EQ(0, xu_.flash_read(base + 0x1000, &page));  // the next sector stays
    EXPECT_EQ(bytes[0x1000], page[0]);

    // The last page of the flash and the FPGA bitstream area are reachable.
    EXPECT_EQ(0, xu_.flash_read(KSSIM_FLASH_SIZE - 256, &page));
    EXPECT_EQ(0, xu_.flash_erase(0x3D000));
    EXPECT_EQ(EIO, xu_.flash_read(KSSIM_FLASH_SIZE, &page));

    // Direct access checks its ranges.
    uint8_t one = 0;
    EXPECT_EQ(-1, kssim_camera_flash_read(cam_, KSSIM_FLASH_SIZE, &one, 1));
    EXPECT_EQ(-1, kssim_camera_flash_write(cam_, KSSIM_FLASH_SIZE - 1, direct.data(), 2));
    EXPECT_EQ(0, kssim_camera_flash_write(cam_, KSSIM_FLASH_SIZE - 1, &one, 1));
    EXPECT_EQ(-1, kssim_camera_eeprom_read(cam_, 0xFFFFFFFFu, &one, 2));
    EXPECT_EQ(-1, kssim_camera_eeprom_read(cam_, 0, nullptr, 1));
}

TEST_F(SimControl, I2CReachesTheAsicTheEepromAndTheFpga) {
    uint8_t v = 0;
    ASSERT_EQ(0, xu_.asic_read(0x1F, &v));
    EXPECT_EQ(0x34, v);
    ASSERT_EQ(0, xu_.asic_read(0xF0, &v));
    EXPECT_EQ(0xEA, v);
    ASSERT_EQ(0, xu_.fpga_read(0x1F, &v));
    EXPECT_EQ(0x56, v);
    ASSERT_EQ(0, xu_.fpga_read(0x00, &v));
    EXPECT_EQ(0x22, v);  // PCB revision 2, OV9281

    // Stereo constants from the loaded EPR: baseline 50 x 128, bxf 35000 x 4096.
    std::vector<uint8_t> regs;
    ASSERT_EQ(0, xu_.i2c_read(0xCD, 0x08, 8, &regs));
    EXPECT_EQ(50u * 128, uint32_t{regs[0]} << 8 | regs[1]);
    EXPECT_EQ(35000u * 4096, xutest::be32(&regs[4]));

    // Registers that hold what is written; the search range reads back at 0x4F.
    ASSERT_EQ(0, xu_.i2c_write(0xCC, 0x71, {3, 0x80, 1, 0x40}));
    ASSERT_EQ(0, xu_.asic_write(0x42, 0x60));
    ASSERT_EQ(0, xu_.asic_read(0x4F, &v));
    EXPECT_EQ(0x60, v);
    ASSERT_EQ(0, xu_.i2c_read(0xCD, 0x71, 4, &regs));
    EXPECT_EQ((std::vector<uint8_t>{3, 0x80, 1, 0x40}), regs);
    EXPECT_EQ(0x80, peek(KSSIM_CHIP_ASIC, 0x72));
    ASSERT_EQ(0, xu_.asic_write(0x1F, 0x00));  // read-only
    EXPECT_EQ(0x34, peek(KSSIM_CHIP_ASIC, 0x1F));
    ASSERT_EQ(0, xu_.fpga_write(0x30, 1));
    ASSERT_EQ(0, xu_.fpga_write(0x31, 0x7F));
    ASSERT_EQ(0, xu_.fpga_write(0x00, 0x99));  // hardware info is read-only
    EXPECT_EQ(1, peek(KSSIM_CHIP_FPGA, 0x30));
    EXPECT_EQ(0x7F, peek(KSSIM_CHIP_FPGA, 0x31));
    EXPECT_EQ(0x22, peek(KSSIM_CHIP_FPGA, 0x00));

    // EEPROM: byte writes, reads that run on (and wrap at the end), page writes
    // that wrap within their 64-byte page.
    ASSERT_EQ(0, xu_.eeprom_write(0x3C08, 0xC2));
    ASSERT_EQ(0, xu_.eeprom_read(0x3C08, &v));
    EXPECT_EQ(0xC2, v);
    uint8_t direct = 0;
    ASSERT_EQ(0, kssim_camera_eeprom_read(cam_, 0x3C08, &direct, 1));
    EXPECT_EQ(0xC2, direct);
    const uint8_t preset[2] = {0x5A, 0xA5};
    ASSERT_EQ(0, kssim_camera_eeprom_write(cam_, 0x3FFF, preset, 1));
    ASSERT_EQ(0, kssim_camera_eeprom_write(cam_, 0x0000, preset + 1, 1));
    ASSERT_EQ(0, xu_.i2c_read(0xA1, 0x3FFF, 2, &regs));
    EXPECT_EQ((std::vector<uint8_t>{0x5A, 0xA5}), regs);
    ASSERT_EQ(0, xu_.i2c_write(0xA0, 0x3C3E, {1, 2, 3, 4}));
    uint8_t page[64];
    ASSERT_EQ(0, kssim_camera_eeprom_read(cam_, 0x3C00, page, 64));
    EXPECT_EQ(1, page[0x3E]);
    EXPECT_EQ(2, page[0x3F]);
    EXPECT_EQ(3, page[0x00]);  // wrapped to the start of the page
    EXPECT_EQ(4, page[0x01]);
    const std::vector<uint8_t> big(256, 0x33);
    ASSERT_EQ(0, xu_.i2c_read(0xA1, 0x0000, 256, &regs));
    EXPECT_EQ(256u, regs.size());
    EXPECT_EQ(0, xu_.i2c_write(0xA0, 0x3000, big));

    // Nobody acknowledges: an empty address, the wrong direction, registers
    // beyond the chips' maps.
    EXPECT_EQ(EIO, xu_.read1(0x51, 0, &v));
    EXPECT_EQ(EIO, xu_.read1(0xCC, 0x1F, &v));
    EXPECT_EQ(EIO, xu_.i2c_write(0xCD, 0x42, {1}));
    EXPECT_EQ(EIO, xu_.i2c_write(0xA1, 0x10, {1}));
    EXPECT_EQ(EIO, xu_.asic_read(0x100, &v));
    EXPECT_EQ(EIO, xu_.i2c_read(0xCD, 0xFF, 2, &regs));
    EXPECT_EQ(EIO, xu_.fpga_write(0x1FF, 1));
    EXPECT_EQ(EIO, xu_.eeprom_read(0x4000, &v));
    // The controller carries on normally afterwards.
    EXPECT_EQ(0, xu_.asic_read(0x4F, &v));
}

TEST_F(SimControl, GpioStatusAndResetCount) {
    uint8_t v = 0xEE;
    ASSERT_EQ(0, xu_.get_gpio(17, &v));
    EXPECT_EQ(1, v);
    ASSERT_EQ(0, xu_.set_gpio(5, 1));
    Message m;
    ASSERT_EQ(0, xu_.exchange(10, 0, {0x01, 5, 17, 6}, &m, 3));
    EXPECT_EQ((std::vector<uint8_t>{1, 1, 0}), m.data);
    ASSERT_EQ(0, xu_.exchange(10, 0, {0x00, 5, 0, 6, 1}));
    ASSERT_EQ(0, xu_.exchange(10, 0, {0x01, 5, 6}, &m, 2));
    EXPECT_EQ((std::vector<uint8_t>{0, 1}), m.data);
    // On the current firmware GPIO 17 does not touch the ASIC.
    ASSERT_EQ(0, xu_.set_gpio(17, 0));
    EXPECT_EQ(1, state().asic_running);
    ASSERT_EQ(0, xu_.asic_read(0x1F, &v));

    uint8_t status = 0;
    ASSERT_EQ(0, xu_.status(&status));
    EXPECT_EQ(0x03, status);  // ASIC running, EPR loaded
    uint32_t resets = 99;
    ASSERT_EQ(0, xu_.reset_count(&resets));
    EXPECT_EQ(0u, resets);
    Block b{};
    ASSERT_EQ(0, xu_.send(xutest::request(5, 15, 0, {})));
    ASSERT_EQ(0, xu_.receive(b));
    EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0}), Message::parse(b).data);
}

TEST_F(SimControl, ResetStateHoldsTheAsicAndAPowerUpReloadsTheEpr) {
    // Put another image into the effective area, as the host does.
    std::vector<uint8_t> img(KSSIM_EPR_SIZE);
    ASSERT_EQ(0, kssim_epr_build(img.data(), 640, 480, 28000.0, 40.0, 9));
    for (size_t i = 0; i < img.size(); ++i)
        ASSERT_EQ(0, xu_.eeprom_write(static_cast<uint16_t>(i), img[i]));
    EXPECT_EQ(1280, state().epr_width);  // not before a power cycle

    ASSERT_EQ(0, xu_.set_asic(0));
    kssim_device_state s = state();
    EXPECT_EQ(0, s.asic_running);
    uint8_t v = 0;
    EXPECT_EQ(EIO, xu_.asic_read(0x1F, &v));
    EXPECT_EQ(0, xu_.eeprom_read(0x0000, &v));  // the EEPROM stays reachable
    EXPECT_EQ(0, xu_.fpga_read(0x1F, &v));
    uint8_t status = 0;
    ASSERT_EQ(0, xu_.status(&status));
    EXPECT_EQ(0, status & 1);

    ASSERT_EQ(0, xu_.set_asic(1));
    wait_asic();
    s = state();
    EXPECT_EQ(1, s.asic_running);
    EXPECT_EQ(1, s.epr_loaded);
    EXPECT_EQ(640, s.epr_width);
    EXPECT_EQ(480, s.epr_height);
    std::vector<uint8_t> regs;
    ASSERT_EQ(0, xu_.i2c_read(0xCD, 0x08, 8, &regs));
    EXPECT_EQ(40u * 128, uint32_t{regs[0]} << 8 | regs[1]);
    EXPECT_EQ(28000u * 4096, xutest::be32(&regs[4]));
    ASSERT_EQ(0, xu_.asic_read(0xF0, &v));
    EXPECT_EQ(0xEA, v);
    kssim_camera_config cfg;
    ASSERT_EQ(0, kssim_camera_get_config(cam_, &cfg));
    EXPECT_DOUBLE_EQ(28000.0, cfg.bxf);  // the frames carry the new constants
    EXPECT_DOUBLE_EQ(40.0, cfg.baseline);
    uint32_t resets = 0;
    ASSERT_EQ(0, xu_.reset_count(&resets));
    EXPECT_EQ(1u, resets);

    // Setting the state it already has is no reset; a power-up resets registers.
    ASSERT_EQ(0, xu_.asic_write(0x42, 0x20));
    ASSERT_EQ(0, xu_.set_asic(1));
    ASSERT_EQ(0, xu_.reset_count(&resets));
    EXPECT_EQ(1u, resets);

    // The host's bring-up: run, 4 s, reset, 1 s, run, 6 s (virtual).
    const int64_t t0 = simtest::virtual_now_us();
    ASSERT_EQ(0, xu_.set_asic(1));
    ks_sys_sleep(4);
    ASSERT_EQ(0, xu_.set_asic(0));
    ks_sys_sleep(1);
    ASSERT_EQ(0, xu_.set_asic(1));
    ks_sys_sleep(6);
    EXPECT_GE(simtest::virtual_now_us() - t0, 11000000);
    ASSERT_EQ(0, xu_.reset_count(&resets));
    EXPECT_EQ(2u, resets);
    ASSERT_EQ(0, xu_.asic_read(0x4F, &v));
    EXPECT_EQ(0, v);

    // A damaged effective image: the ASIC runs but reports a failed load.
    ASSERT_EQ(0, xu_.eeprom_write(100, img[100] ^ 0x01));
    ASSERT_EQ(0, xu_.set_asic(0));
    ASSERT_EQ(0, xu_.set_asic(1));
    wait_asic();
    ASSERT_EQ(0, xu_.asic_read(0xF0, &v));
    EXPECT_EQ(0x00, v);
    ASSERT_EQ(0, xu_.i2c_read(0xCD, 0x08, 8, &regs));
    EXPECT_EQ(std::vector<uint8_t>(8, 0), regs);
    ASSERT_EQ(0, xu_.status(&status));
    EXPECT_EQ(0x01, status);
    EXPECT_EQ(0, state().epr_loaded);
}

TEST_F(SimControl, TrafficRecordsRequestsAndRepliesAsOnTheWire) {
    kssim_camera_traffic_clear(cam_);
    EXPECT_EQ(0u, kssim_camera_traffic_count(cam_));
    ASSERT_EQ(0, xu_.i2c_write(0xA0, 0x3C09, {0x42, 0x43}));
    uint8_t v = 0;
    ASSERT_EQ(0, xu_.eeprom_read(0x3C09, &v));
    Block b{};
    xu_.receive(b);  // an empty read is not recorded
    const std::vector<kssim_message> t = traffic();
    ASSERT_EQ(4u, t.size());
    EXPECT_EQ(KSSIM_REQUEST, t[0].direction);
    EXPECT_EQ(7u, t[0].command);
    EXPECT_EQ(0xA03C09u, t[0].parameter);
    EXPECT_EQ(2u, t[0].length);
    EXPECT_EQ(2u, t[0].data_length);
    EXPECT_EQ(0x42, t[0].data[0]);
    EXPECT_EQ(0x43, t[0].data[1]);
    EXPECT_EQ(0x85u, t[0].checksum);
    EXPECT_EQ(0, t[0].outcome);
    EXPECT_EQ(KSSIM_REPLY, t[1].direction);
    EXPECT_EQ(7u | xutest::kReply, t[1].command);
    EXPECT_EQ(t[0].id, t[1].id);
    EXPECT_EQ(6u, t[2].command);
    EXPECT_EQ(0xA13C09u, t[2].parameter);
    EXPECT_EQ(4u, t[2].length);
    EXPECT_EQ(1, t[2].data[0]);  // the byte count, least significant byte first
    EXPECT_EQ(0, t[2].data[1]);
    EXPECT_EQ(1u, t[3].length);
    EXPECT_EQ(0x42, t[3].data[0]);
    EXPECT_LE(t[0].time_us, t[3].time_us);
    kssim_message m;
    EXPECT_EQ(-1, kssim_camera_traffic_get(cam_, 4, &m));
    EXPECT_EQ(-1, kssim_camera_traffic_get(cam_, 0, nullptr));
    kssim_control_stats st;
    ASSERT_EQ(0, kssim_camera_control_stats(cam_, &st));
    EXPECT_GE(st.empty_reads, 1u);
}

// ---- hostile answers and replugging ------------------------------------------------------

TEST_F(SimControl, HostileModeAnswersWithRandomWellFramedBlocksAndDoesNothing) {
    ASSERT_EQ(0, kssim_camera_set_hostile(cam_, 1, 1234));
    std::vector<uint32_t> commands;
    for (uint32_t id = 1; id <= 200; ++id) {
        Block b{};
        ASSERT_EQ(0, xu_.send(xutest::request(id, 7, 0xA03C00, {0x55})));
        ASSERT_EQ(0, xu_.receive(b));
        const Message m = Message::parse(b);
        EXPECT_EQ(xutest::kTag, m.tag);
        EXPECT_EQ(id, m.id);
        EXPECT_NE(0u, m.command & xutest::kReply);
        EXPECT_LE(m.length, 256u);
        EXPECT_EQ(m.data_sum(), m.checksum);
        commands.push_back(m.command & ~xutest::kReply);
    }
    EXPECT_GT(std::count(commands.begin(), commands.end(), 7u), 50);
    EXPECT_LT(std::count(commands.begin(), commands.end(), 7u), 150);
    uint8_t v = 0;
    ASSERT_EQ(0, kssim_camera_eeprom_read(cam_, 0x3C00, &v, 1));
    EXPECT_EQ(0xFF, v);  // nothing was carried out

    // The same seed gives the same answers.
    auto first_answers = [&](uint32_t seed) {
        EXPECT_EQ(0, kssim_camera_set_hostile(cam_, 1, seed));
        std::vector<uint32_t> out;
        for (int i = 0; i < 5; ++i) {
            Block b{};
            xu_.send(xutest::request(1, 11, 0, {}));
            xu_.receive(b);
            out.push_back(Message::parse(b).checksum);
        }
        return out;
    };
    EXPECT_EQ(first_answers(99), first_answers(99));
    ASSERT_EQ(0, kssim_camera_set_hostile(cam_, 0, 0));
    std::string text;
    EXPECT_EQ(0, xu_.version(&text));
}

TEST_F(SimControl, ReplugPowersAFreshControllerAndKeepsTheMemories) {
    ASSERT_EQ(0, xu_.eeprom_write(0x3C08, 0xC2));
    ASSERT_EQ(0, xu_.set_asic(0));
    ASSERT_EQ(0, xu_.set_asic(1));
    ASSERT_EQ(0, inject(KSSIM_FAULT_XU_FAIL, 0));
    ASSERT_EQ(0, kssim_camera_unplug(cam_));
    std::string v;
    EXPECT_EQ(ENODEV, xu_.version(&v));
    ASSERT_EQ(0, kssim_camera_replug(cam_));
    xu_.close();
    ASSERT_TRUE(xu_.open(kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE)));
    EXPECT_EQ(0, xu_.version(&v));  // faults cleared
    uint32_t resets = 9;
    ASSERT_EQ(0, xu_.reset_count(&resets));
    EXPECT_EQ(0u, resets);
    uint8_t b = 0;
    ASSERT_EQ(0, xu_.eeprom_read(0x3C08, &b));
    EXPECT_EQ(0xC2, b);
}
