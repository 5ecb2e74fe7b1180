// The camera's control channel: the extension unit, the controller
// firmware's framing and commands, the chips behind it (with the sensors'
// exposure and gain as seen in the frames) and the control faults, spoken
// with the tests' own protocol client.
#include <algorithm>
#include <cmath>

#include "frame_decoder.h"
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
        // Every reply at the first read, so that blocks can be followed one by one.
        cam_ = add_camera([](kssim_camera_config& c) { c.late_reply_share = 0; });
        ASSERT_NE(cam_, nullptr);
        ASSERT_TRUE(xu_.open(kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE)));
    }
    int inject(kssim_fault_kind kind, uint32_t count, int32_t value = 0, uint32_t duration_ms = 0) {
        return SimTest::inject(cam_, kind, count, value, duration_ms);
    }
    kssim_device_state state() { return SimTest::state(cam_); }
    uint8_t asic(uint16_t reg) {
        uint8_t v = 0xEE;
        EXPECT_EQ(0, xu_.asic_read(reg, &v)) << reg;
        return v;
    }
    // Stereo constants the ASIC reports: baseline x 128, bxf x 4096.
    std::pair<uint32_t, uint32_t> constants() {
        std::vector<uint8_t> r(8);
        EXPECT_EQ(0, xu_.i2c_read(0xCD, 0x08, 8, &r));
        return {uint32_t{r[0]} << 8 | r[1], xutest::be32(&r[4])};
    }
    // Waits (virtual time) until the ASIC answers after a power-up, then
    // for the 276.48 ms it takes to read its EPR.
    void wait_asic() {
        uint8_t v = 0;
        for (int i = 0; i < 100 && xu_.asic_read(0x1F, &v) != 0; ++i) ks_sys_usleep(100000);
        ASSERT_EQ(0x34, v);
        ks_sys_usleep(280000);
    }
    void power_cycle() {
        ASSERT_EQ(0, xu_.set_asic(0));
        ASSERT_EQ(0, xu_.set_asic(1));
        wait_asic();
    }
    // Mean-luma statistic (S0) of the camera's next frame.
    uint32_t mean_luma() {
        std::vector<uint8_t> f(1280 * 720 * 3);
        EXPECT_GT(kssim_camera_produce_frame(cam_, f.data(), f.size()), 0);
        return frame_test::Frame(f.data(), 1280, 720).ae(0);
    }
    uint32_t resets() {
        uint32_t n = 99;
        EXPECT_EQ(0, xu_.reset_count(&n));
        return n;
    }
    kssim_camera* cam_ = nullptr;
    Client xu_;
};

}  // namespace

TEST_F(SimControl, ExtensionUnitAnswersUnit3Selector1AndRefusesTheRest) {
    uint8_t len[2] = {0, 0};
    ASSERT_EQ(0, xu_.query(UVC_GET_LEN, len, 2));
    EXPECT_EQ(0x40, len[0]);  // 320
    EXPECT_EQ(0x01, len[1]);
    uint8_t info = 0;
    ASSERT_EQ(0, xu_.query(UVC_GET_INFO, &info, 1));
    EXPECT_EQ(0x03, info);
    Block b{};
    EXPECT_EQ(ENOENT, xu_.query(UVC_GET_CUR, b.data(), 320, 2, 1));
    EXPECT_EQ(ENOENT, xu_.query(UVC_GET_CUR, b.data(), 320, 3, 2));
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
    // The metadata node has no extension units and a webcam has no unit 3.
    Client meta, wc;
    ASSERT_TRUE(meta.open(kssim_camera_node_path(cam_, KSSIM_NODE_META)));
    EXPECT_EQ(ENOTTY, meta.query(UVC_GET_LEN, len, 2));
    kssim_camera* web = kssim_world_add_webcam(world_, nullptr);
    ASSERT_TRUE(wc.open(kssim_camera_node_path(web, KSSIM_NODE_CAPTURE)));
    EXPECT_EQ(ENOENT, wc.query(UVC_GET_LEN, len, 2));
    EXPECT_EQ(-1, kssim_camera_eeprom_read(web, 0, len, 1));
}

TEST_F(SimControl, RepliesEchoTheRequestAndMalformedOnesAreRefusedWithAStall) {
    Message m;
    ASSERT_EQ(0, xu_.exchange_raw(xutest::request(77, 2, 0x65000, {}), &m));
    EXPECT_EQ(77u, m.id);
    EXPECT_EQ(2u | xutest::kReply, m.command);
    EXPECT_EQ(0x65000u, m.parameter);
    EXPECT_EQ(256u, m.length);
    EXPECT_EQ(m.data_sum(), m.checksum);
    Block b{};
    ASSERT_EQ(0, xu_.receive(b));  // the reply was consumed: the request is seen again
    EXPECT_EQ(2u, Message::parse(b).command);
    // Byte 319 other than 1: no request, nothing happens.
    EXPECT_EQ(0u, xu_.next(xutest::request(78, 11, 0, {}, false)).command & xutest::kReply);
    // Words the command does not use (reserved, a stale parameter) are ignored.
    Block req = xutest::request(79, 11, 0xDEADBEEF, {});
    xutest::put_be32(&req[12], 0x12345678);
    ASSERT_EQ(0, xu_.exchange_raw(req, &m));
    EXPECT_EQ(1u, m.length);
    // The version text fills at most its 32 bytes, without a terminator then.
    kssim_camera* longer = add_camera([](kssim_camera_config& cfg) {
        std::strcpy(cfg.firmware, "0123456789012345678901234567890123456789");
        std::strcpy(cfg.serial, "LONG0001");
    });
    Client l;
    ASSERT_TRUE(l.open(kssim_camera_node_path(longer, KSSIM_NODE_CAPTURE)));
    ASSERT_EQ(0, l.exchange(1, 0, {}, &m, 32));
    EXPECT_EQ(0, std::memcmp(m.data.data(), "01234567890123456789012345678901", 32));
    // A request replaced before its reply was fetched: the newer one answers.
    xu_.send(xutest::request(30, 1, 0, {}));
    ASSERT_EQ(0, xu_.exchange_raw(xutest::request(31, 15, 0, {}), &m));
    EXPECT_EQ(31u, m.id);

    auto refused = [&](const Block& r) {
        const int e = xu_.exchange_raw(r, nullptr);
        Block after{};  // the stall is reported once; then nothing is pending
        EXPECT_EQ(0, xu_.receive(after));
        EXPECT_EQ(0u, Message::parse(after).command & xutest::kReply);
        return e;
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
    const struct {
        uint32_t command, parameter;
        std::vector<uint8_t> data;
    } bad[] = {{1, 0, {1}},                    // version takes no data
               {2, 0x65010, {}},               // page not aligned
               {2, 0x200000, {}},              // beyond the flash
               {4, 0x65100, {}},               // sector not aligned
               {3, 0x65000, {1, 2}},           // a page is 256 bytes
               {6, 0xA10000, {1, 0, 0}},       // a count of three bytes
               {6, 0xA10000, {0, 0, 0, 0}},    // 0 bytes
               {6, 0xA10000, {1, 1, 0, 0}},    // 257 bytes
               {7, 0xA00000, {}},              // nothing to write
               {6, 0x01A10000, {1, 0, 0, 0}},  // device beyond 8 bits
               {10, 0, {0x02, 17}},            // neither set nor get
               {10, 0, {0x00, 32, 1}},         // pin beyond 31
               {10, 0, {0x00, 17, 2}},         // level not 0 or 1
               {10, 0, {0x00, 17}},            // pin without level
               {14, 0, {2}},
               {5, 0, {}}};
    uint32_t id = 10;
    for (const auto& r : bad)
        EXPECT_EQ(EIO, refused(xutest::request(++id, r.command, r.parameter, r.data))) << id;
}

TEST_F(SimControl, FlashProgramsLikeNorFlashWithinItsSize) {
    const uint32_t base = (20 + 101) * 4096;  // EPR slot 20
    std::vector<uint8_t> page;
    std::vector<uint8_t> bytes(8192);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 3);
    ASSERT_EQ(0, kssim_camera_flash_write(cam_, base, bytes.data(), bytes.size()));
    // Programming without erasing only clears bits; an erase clears one sector.
    ASSERT_EQ(0, xu_.flash_write(base, std::vector<uint8_t>(256, 0xF0)));
    ASSERT_EQ(0, xu_.flash_read(base, &page));
    for (int i = 0; i < 256; ++i) ASSERT_EQ(bytes[i] & 0xF0, page[i]);
    ASSERT_EQ(0, xu_.flash_erase(base));
    ASSERT_EQ(0, xu_.flash_read(base + 0xF00, &page));
    EXPECT_EQ(std::vector<uint8_t>(256, 0xFF), page);
    ASSERT_EQ(0, xu_.flash_read(base + 0x1000, &page));
    EXPECT_EQ(bytes[0x1000], page[0]);
    // The last page and the FPGA bitstream area are reachable, nothing beyond.
    EXPECT_EQ(0, xu_.flash_read(KSSIM_FLASH_SIZE - 256, &page));
    EXPECT_EQ(0, xu_.flash_erase(0x3D000));
    EXPECT_EQ(EIO, xu_.flash_read(KSSIM_FLASH_SIZE, &page));
    EXPECT_EQ(-1, kssim_camera_flash_write(cam_, KSSIM_FLASH_SIZE - 1, bytes.data(), 2));
    EXPECT_EQ(-1, kssim_camera_eeprom_read(cam_, 0xFFFFFFFFu, bytes.data(), 2));
}

TEST_F(SimControl, I2CReachesTheAsicTheEepromAndTheFpga) {
    // Registers hold what is written; the search range reads back at 0x4F;
    // identity and hardware info are read-only.
    uint8_t v = 0;
    std::vector<uint8_t> regs;
    ASSERT_EQ(0, xu_.i2c_write(0xCC, 0x71, {3, 0x80, 1, 0x40}));
    ASSERT_EQ(0, xu_.i2c_read(0xCD, 0x71, 4, &regs));
    EXPECT_EQ((std::vector<uint8_t>{3, 0x80, 1, 0x40}), regs);
    ASSERT_EQ(0, xu_.asic_write(0x42, 0x60));
    EXPECT_EQ(0x60, asic(0x4F));
    ASSERT_EQ(0, xu_.asic_write(0x1F, 0x00));
    EXPECT_EQ(0x34, asic(0x1F));
    ASSERT_EQ(0, xu_.fpga_write(0x00, 0x99));
    ASSERT_EQ(0, xu_.fpga_read(0x00, &v));
    EXPECT_EQ(0x22, v);

    // EEPROM: reads run on and wrap at the end; page writes wrap in their 64 bytes.
    const uint8_t preset[2] = {0x5A, 0xA5};
    ASSERT_EQ(0, kssim_camera_eeprom_write(cam_, 0x3FFF, preset, 1));
    ASSERT_EQ(0, kssim_camera_eeprom_write(cam_, 0x0000, preset + 1, 1));
    ASSERT_EQ(0, xu_.i2c_read(0xA1, 0x3FFF, 2, &regs));
    EXPECT_EQ((std::vector<uint8_t>{0x5A, 0xA5}), regs);
    ASSERT_EQ(0, xu_.i2c_write(0xA0, 0x3C3E, {1, 2, 3, 4}));
    uint8_t page[64];
    ASSERT_EQ(0, kssim_camera_eeprom_read(cam_, 0x3C00, page, 64));
    EXPECT_EQ((std::vector<uint8_t>{3, 4, 1, 2}),
              (std::vector<uint8_t>{page[0], page[1], page[0x3E], page[0x3F]}));

    // Nobody acknowledges an empty address, the wrong direction, or registers
    // beyond the chips' maps; the controller carries on normally afterwards.
    EXPECT_EQ(EIO, xu_.read1(0x51, 0, &v));
    EXPECT_EQ(EIO, xu_.read1(0xCC, 0x1F, &v));
    EXPECT_EQ(EIO, xu_.i2c_write(0xCD, 0x42, {1}));
    EXPECT_EQ(EIO, xu_.i2c_write(0xA1, 0x10, {1}));
    EXPECT_EQ(EIO, xu_.asic_read(0x100, &v));
    EXPECT_EQ(EIO, xu_.i2c_read(0xCD, 0xFF, 2, &regs));
    EXPECT_EQ(EIO, xu_.fpga_write(0x1FF, 1));
    EXPECT_EQ(EIO, xu_.eeprom_read(0x4000, &v));
    EXPECT_EQ(0x60, asic(0x4F));
}

TEST_F(SimControl, PowerCyclesReloadTheEprItsConstantsAndTheChannel) {
    // Another image in the effective area counts from the next power-up.
    std::vector<uint8_t> img(KSSIM_EPR_SIZE);
    ASSERT_EQ(0, kssim_epr_build(img.data(), 640, 480, 28000.0, 40.0, 9));
    for (size_t i = 0; i < img.size(); ++i)
        ASSERT_EQ(0, xu_.eeprom_write(static_cast<uint16_t>(i), img[i]));
    EXPECT_EQ(1280, state().epr_width);
    EXPECT_EQ(0u, resets());
    uint8_t status = 0, v = 0;
    ASSERT_EQ(0, xu_.status(&status));
    EXPECT_EQ(0x03, status);  // ASIC running, EPR loaded

    // Held in reset: the ASIC is silent, the EEPROM and FPGA answer.
    ASSERT_EQ(0, xu_.set_asic(0));
    EXPECT_EQ(0, state().asic_running);
    EXPECT_EQ(EIO, xu_.asic_read(0x1F, &v));
    EXPECT_EQ(0, xu_.eeprom_read(0x0000, &v));
    EXPECT_EQ(0, xu_.fpga_read(0x1F, &v));
    ASSERT_EQ(0, xu_.status(&status));
    EXPECT_EQ(0x00, status & 1);
    ASSERT_EQ(0, xu_.set_gpio(17, 0));  // GPIO 17 does not touch the ASIC here
    ASSERT_EQ(0, xu_.set_asic(1));
    wait_asic();
    kssim_device_state s = state();
    EXPECT_EQ(1, s.epr_loaded);
    EXPECT_EQ(640, s.epr_width);
    EXPECT_EQ(480, s.epr_height);
    EXPECT_EQ(std::make_pair(40u * 128, 28000u * 4096), constants());
    EXPECT_EQ(0xEA, asic(0xF0));
    EXPECT_EQ(1u, resets());

    // Setting the state it already has is no reset; a power-up resets registers.
    ASSERT_EQ(0, xu_.asic_write(0x42, 0x20));
    ASSERT_EQ(0, xu_.set_asic(1));
    EXPECT_EQ(1u, resets());
    // The simulator's channel setter reaches the register; another value
    // written there is kept by the register while the node keeps its channel.
    ASSERT_EQ(0, kssim_camera_set_output_channel(cam_, KSSIM_CHANNEL_ORIGIN_PAIR));
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_PAIR, asic(0x51));
    ASSERT_EQ(0, xu_.asic_write(0x51, 0x10));
    EXPECT_EQ(0x10, asic(0x51));
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_PAIR, kssim_camera_output_channel(cam_));
    power_cycle();
    EXPECT_EQ(2u, resets());
    EXPECT_EQ(0, asic(0x4F));
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_PAIR, asic(0x51));  // the setter's channel comes up again

    // A damaged effective image: the ASIC runs but reports a failed load.
    ASSERT_EQ(0, xu_.eeprom_write(100, img[100] ^ 0x01));
    power_cycle();
    EXPECT_EQ(0x00, asic(0xF0));
    EXPECT_EQ(std::make_pair(0u, 0u), constants());
    ASSERT_EQ(0, xu_.status(&status));
    EXPECT_EQ(0x01, status);
}

TEST_F(SimControl, ControlFaultsHaveTheirDocumentedEffects) {
    std::string v;
    // Failing queries: by count (the request's SET_CUR fails, nothing answers),
    // by virtual duration with a chosen errno, until cleared.
    ASSERT_EQ(0, inject(KSSIM_FAULT_XU_FAIL, 2));
    uint8_t len[2];
    EXPECT_EQ(EPIPE, xu_.query(UVC_GET_LEN, len, 2));
    EXPECT_EQ(ETIMEDOUT, xu_.version(&v));
    EXPECT_EQ(0, xu_.version(&v));
    ASSERT_EQ(0, inject(KSSIM_FAULT_XU_FAIL, 0, EIO, 20000));
    EXPECT_EQ(EIO, xu_.version(&v));
    ks_sys_usleep(20000000);
    EXPECT_EQ(0, xu_.version(&v));
    EXPECT_EQ(-1, inject(KSSIM_FAULT_XU_FAIL, 1, 5000));

    // Replies without the flag (twice: the reply comes third), with a wrong
    // tag (then the right one), a wrong checksum, command or length.
    Block b{};
    ASSERT_EQ(0, inject(KSSIM_FAULT_REPLY_NO_FLAG, 2));
    EXPECT_EQ(11u, xu_.next(xutest::request(1, 11, 0, {})).command);
    ASSERT_EQ(0, xu_.receive(b));
    EXPECT_EQ(11u, Message::parse(b).command);
    ASSERT_EQ(0, xu_.receive(b));
    EXPECT_EQ(11u | xutest::kReply, Message::parse(b).command);
    ASSERT_EQ(0, inject(KSSIM_FAULT_REPLY_BAD_TAG, 1));
    EXPECT_EQ(0x04030201u, xu_.next(xutest::request(2, 11, 0, {})).tag);
    ASSERT_EQ(0, xu_.receive(b));
    EXPECT_EQ(xutest::kTag, Message::parse(b).tag);
    ASSERT_EQ(0, inject(KSSIM_FAULT_REPLY_BAD_CHECKSUM, 1));
    Message m = xu_.next(xutest::request(3, 1, 0, {}));
    EXPECT_EQ(m.data_sum() + 1, m.checksum);
    ASSERT_EQ(0, inject(KSSIM_FAULT_REPLY_WRONG_COMMAND, 1));
    EXPECT_EQ(1u | xutest::kReply, xu_.next(xutest::request(4, 15, 0, {})).command);
    ASSERT_EQ(0, inject(KSSIM_FAULT_REPLY_WRONG_LENGTH, 1));
    m = xu_.next(xutest::request(6, 6, 0xA13C18, {1, 0, 0, 0}));
    EXPECT_EQ(2u, m.length);
    EXPECT_EQ(m.data_sum(), m.checksum);
    ASSERT_EQ(0, inject(KSSIM_FAULT_REPLY_WRONG_LENGTH, 1, 3));
    EXPECT_EQ(3u, xu_.next(xutest::request(8, 15, 0, {})).length);
    EXPECT_EQ(-1, inject(KSSIM_FAULT_REPLY_WRONG_LENGTH, 1, 257));
    ASSERT_EQ(0, inject(KSSIM_FAULT_REPLY_LONG_LENGTH, 1));
    m = xu_.next(xutest::request(9, 1, 0, {}));
    EXPECT_EQ(257u, m.length);
    EXPECT_EQ(0, std::memcmp(m.data.data(), "KS-USB", 6));
    EXPECT_EQ(-1, inject(KSSIM_FAULT_REPLY_LONG_LENGTH, 1, 256));
    EXPECT_EQ(0, xu_.version(&v));

    // An EEPROM byte that does not stick: acknowledged, the old value stays.
    uint8_t r = 0;
    ASSERT_EQ(0, inject(KSSIM_FAULT_EEPROM_NO_STICK, 0, KSSIM_EEPROM_ADDRESS(0x3C09)));
    ASSERT_EQ(0, xu_.i2c_write(0xA0, 0x3C08, {0x11, 0x22, 0x33}));
    std::vector<uint8_t> bytes;
    ASSERT_EQ(0, xu_.i2c_read(0xA1, 0x3C08, 3, &bytes));
    EXPECT_EQ((std::vector<uint8_t>{0x11, 0xFF, 0x33}), bytes);
    ASSERT_EQ(0, kssim_camera_clear_fault(cam_, KSSIM_FAULT_EEPROM_NO_STICK));
    EXPECT_EQ(-1, inject(KSSIM_FAULT_EEPROM_NO_STICK, 1, KSSIM_EEPROM_ADDRESS(0x4000)));

    // A controller not ready answers zeros (or the value given) to the first reads.
    ASSERT_EQ(0, inject(KSSIM_FAULT_CONTROLLER_NOT_READY, 1, 0x12));
    ASSERT_EQ(0, kssim_camera_register_read(cam_, KSSIM_CHIP_FPGA, 0x1F, &r));
    EXPECT_EQ(0x12, r);  // peeking consumes nothing
    ASSERT_EQ(0, xu_.fpga_read(0x1F, &r));
    EXPECT_EQ(0x12, r);
    ASSERT_EQ(0, xu_.fpga_read(0x1F, &r));
    EXPECT_EQ(0x56, r);

    // An invalid EPR fails the load at once and at each power-up of the
    // count, without touching the EEPROM.
    ASSERT_EQ(0, inject(KSSIM_FAULT_INVALID_EPR, 2));
    EXPECT_EQ(0x00, asic(0xF0));
    EXPECT_EQ(0, asic(0x0C));
    power_cycle();
    EXPECT_EQ(0x00, asic(0xF0));
    power_cycle();
    EXPECT_EQ(0xEA, asic(0xF0));
}

TEST_F(SimControl, OutputIndicesCountFramesAndCanFreeze) {
    // 30 frames a second of virtual time, bracketed by the clock around the reads.
    const int64_t b0 = simtest::virtual_now_us();
    const uint8_t a0 = asic(0xE2);
    const int64_t e0 = simtest::virtual_now_us();
    ks_sys_usleep(1000000);
    const int64_t b1 = simtest::virtual_now_us();
    const uint8_t a1 = asic(0xE2);
    const int64_t e1 = simtest::virtual_now_us();
    EXPECT_GE(static_cast<uint8_t>(a1 - a0), std::floor((b1 - e0) * 30e-6) - 1);
    EXPECT_LE(static_cast<uint8_t>(a1 - a0), std::ceil((e1 - b0) * 30e-6) + 1);
    std::vector<uint8_t> both;  // one transfer: both indices at the same instant
    ASSERT_EQ(0, xu_.i2c_read(0xCD, 0xE2, 2, &both));
    EXPECT_EQ(both[0], both[1]);

    ASSERT_EQ(0, inject(KSSIM_FAULT_OUTPUT_INDEX_FROZEN, 3, 2));  // sensor B, three reads
    const uint8_t frozen = asic(0xE3);
    ks_sys_usleep(200000);
    EXPECT_EQ(frozen, asic(0xE3));
    EXPECT_NE(frozen, asic(0xE2));  // A goes on
    EXPECT_EQ(frozen, asic(0xE3));
    ks_sys_usleep(200000);
    EXPECT_NE(frozen, asic(0xE3));  // the count ran out

    // The indices stop while the sensors are in standby.
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 0));
    EXPECT_EQ(0, state().sensors_streaming);
    const uint8_t idle = asic(0xE2);
    ks_sys_usleep(300000);
    EXPECT_EQ(idle, asic(0xE2));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 1));
    ks_sys_usleep(300000);
    EXPECT_NE(idle, asic(0xE2));
}

TEST_F(SimControl, ExposureAndGainChangeTheBrightnessAndItsStatistics) {
    const uint32_t automatic = mean_luma();
    ASSERT_GT(automatic, 1000u);
    // Stopping AE keeps the exposure it had.
    ASSERT_EQ(0, xu_.fpga_write(0x20, 0));
    EXPECT_EQ(automatic, mean_luma());
    // Manual exposure 250 lines (x16 = 0x0FA0): half the automatic level.
    ASSERT_EQ(0, xu_.asic_write(0x33, 0x0F));
    ASSERT_EQ(0, xu_.asic_write(0x35, 0xA0));
    const uint32_t half = mean_luma();
    EXPECT_NEAR(automatic / 2.0, half, automatic * 0.05);
    // Twice the gain brings it back, once the bridge is opened for sensor
    // commands (reads of its register stay the EPR status).
    ASSERT_EQ(0, xu_.sensor_write(0x3509, 0x20));
    EXPECT_EQ(half, mean_luma());
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    EXPECT_EQ(0xEA, asic(0xF0));
    ASSERT_EQ(0, xu_.sensor_write(0x3509, 0x20));
    EXPECT_NEAR(automatic, mean_luma(), automatic * 0.05);
    // AE on again: the automatic level whatever the settings.
    ASSERT_EQ(0, xu_.fpga_write(0x20, 0x10));
    EXPECT_EQ(automatic, mean_luma());
}

TEST_F(SimControl, ImuFifoHoldsAtMost1024SamplesAndRepliesCarryTenRecords) {
    ks_sys_usleep(3000000);  // 1200 samples at 400 Hz, none read
    EXPECT_EQ(1024u, state().imu_fifo_level);
    // Records of 16 bytes, oldest first: type 3, 1 g on y, consecutive counters.
    Message m;
    ASSERT_EQ(0, xu_.exchange(13, 0, {}, &m));
    ASSERT_EQ(160u, m.length);
    for (size_t i = 0; i < 160; i += 16) {
        EXPECT_EQ(0x03, m.data[i]);
        EXPECT_NEAR(8192, static_cast<int16_t>(m.data[i + 3] | m.data[i + 4] << 8), 6);
        if (i > 0) {
            EXPECT_EQ(static_cast<uint16_t>((m.data[i - 2] | m.data[i - 1] << 8) + 1),
                      m.data[i + 14] | m.data[i + 15] << 8);
        }
    }
}

TEST_F(SimControl, DeviceTimesBootBridgeEepromUpdateAndLateReplies) {
    // Released from reset, the ASIC boots for 2 s (no acknowledge), then
    // reads its EPR for 276.48 ms (0xF0 reads 0): so the requests' times in
    // the record show. (A slower clock, to see the phases.)
    ASSERT_EQ(0, kssim_world_set_warp(world_, 5.0));
    ASSERT_EQ(0, xu_.set_asic(0));
    kssim_camera_traffic_clear(cam_);
    ASSERT_EQ(0, xu_.set_asic(1));
    uint8_t v = 0;
    int e = EIO;
    for (int i = 0; i < 400 && (e != 0 || v != 0xEA); ++i) {
        ks_sys_usleep(10000);
        e = xu_.asic_read(0xF0, &v);
    }
    ASSERT_EQ(0, e);
    ASSERT_EQ(0xEA, v);
    std::vector<kssim_message> record(kssim_camera_traffic_count(cam_));
    for (size_t i = 0; i < record.size(); ++i)
        ASSERT_EQ(0, kssim_camera_traffic_get(cam_, i, &record[i]));
    ASSERT_EQ(14u, record.at(0).command);
    const uint64_t release = record[0].time_us;
    int refused = 0;
    for (size_t i = 2; i < record.size(); ++i) {
        if (record[i].direction != KSSIM_REQUEST) continue;
        const uint64_t t = record[i].time_us - release;
        if (record[i].outcome == EIO) {
            ++refused;
            EXPECT_LT(t, 2000000u);
            continue;
        }
        EXPECT_GE(t, 2000000u);
        ASSERT_LT(i + 1, record.size());
        EXPECT_EQ(t < 2276480 ? 0x00 : 0xEA, record[i + 1].data[0]) << t;
    }
    EXPECT_GT(refused, 0);

    // The bridge takes a command every 5 ms; one that comes sooner is lost.
    // (While the clock crawls, the two writes are microseconds apart.)
    ASSERT_EQ(0, kssim_world_set_warp(world_, 50.0));
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    const uint8_t count = state().sensor_counter[0];
    kssim_camera_traffic_clear(cam_);
    ASSERT_EQ(0, kssim_world_set_warp(world_, 0.001));
    ASSERT_EQ(0, xu_.i2c_write(0xCC, 0xF1, {0x35, 0x09, 0x00, 0x20}));  // gain := 0x20
    ASSERT_EQ(0, xu_.asic_write(0xF4, 0x30));                           // lost
    ASSERT_EQ(0, kssim_world_set_warp(world_, 50.0));
    uint8_t gain = 0;
    ASSERT_EQ(0, kssim_camera_register_read(cam_, KSSIM_CHIP_SENSOR_B, 0x3509, &gain));
    EXPECT_EQ(0x20, gain);
    EXPECT_EQ((count + 1) & 0x0F, state().sensor_counter[0]);
    ks_sys_usleep(5000);
    ASSERT_EQ(0, xu_.asic_write(0xF4, 0x30));  // taken
    ASSERT_EQ(0, kssim_camera_register_read(cam_, KSSIM_CHIP_SENSOR_A, 0x3509, &gain));
    EXPECT_EQ(0x30, gain);
    EXPECT_EQ((count + 2) & 0x0F, state().sensor_counter[1]);
    kssim_message first, lost, taken;
    ASSERT_EQ(0, kssim_camera_traffic_get(cam_, 0, &first));
    ASSERT_EQ(0, kssim_camera_traffic_get(cam_, 2, &lost));
    ASSERT_EQ(0, kssim_camera_traffic_get(cam_, 4, &taken));
    EXPECT_LT(lost.time_us - first.time_us, 5000u);
    EXPECT_GE(taken.time_us - first.time_us, 5000u);

    // The EEPROM update is acknowledged at once; then the controller answers
    // nothing until its copy (here made 20 s long) is done.
    ASSERT_EQ(0, inject(KSSIM_FAULT_SLOW_EEPROM_UPDATE, 1, 20000));
    kssim_camera_traffic_clear(cam_);
    Message ack;
    ASSERT_EQ(0, xu_.exchange(5, 0, {1}, &ack));
    EXPECT_EQ(5u | xutest::kReply, ack.command);
    EXPECT_EQ(1, state().eeprom_busy);
    std::string text;
    for (int i = 0; i < 100 && (e = xu_.version(&text)) == EIO; ++i) ks_sys_usleep(1000000);
    ASSERT_EQ(0, e);
    record.assign(kssim_camera_traffic_count(cam_), kssim_message{});
    for (size_t i = 0; i < record.size(); ++i)
        ASSERT_EQ(0, kssim_camera_traffic_get(cam_, i, &record[i]));
    ASSERT_EQ(4u, record.size());  // the refused queries never reached the firmware
    EXPECT_EQ(5u | xutest::kReply, record[1].command);
    EXPECT_GE(record[2].time_us - record[1].time_us, 20000000u);
    std::vector<uint8_t> slot(KSSIM_EPR_SIZE), effective(KSSIM_EPR_SIZE);
    ASSERT_EQ(0, kssim_camera_flash_read(cam_, 102 * 4096, slot.data(), slot.size()));
    ASSERT_EQ(0, kssim_camera_eeprom_read(cam_, 0, effective.data(), effective.size()));
    EXPECT_EQ(slot, effective);

    // Now and then a reply is ready only at the second read: the first gets
    // the block without the reply flag. Which ones, the seed decides.
    auto schedule = [&] {
        kssim_camera* cam = add_camera([](kssim_camera_config& c) {
            c.late_reply_share = 0.5;
            c.late_reply_seed = 9;
        });
        EXPECT_NE(nullptr, cam);
        Client client;
        EXPECT_TRUE(client.open(kssim_camera_node_path(cam, KSSIM_NODE_CAPTURE)));
        std::vector<int> reads;
        for (uint32_t id = 1; id <= 40; ++id) {
            Block b{};
            client.send(xutest::request(id, 15, 0, {}));
            int n = 0;
            for (Message m; n < 3 && (m.command & xutest::kReply) == 0; ++n) {
                EXPECT_EQ(0, client.receive(b));
                m = Message::parse(b);
                if ((m.command & xutest::kReply) == 0) {
                    EXPECT_EQ(id, m.id);
                    EXPECT_EQ(15u, m.command);
                    EXPECT_EQ(0u, m.length);
                }
            }
            reads.push_back(n);
        }
        kssim_control_stats st;
        EXPECT_EQ(0, kssim_camera_control_stats(cam, &st));
        EXPECT_EQ(static_cast<uint64_t>(std::count(reads.begin(), reads.end(), 2)),
                  st.late_replies);
        EXPECT_EQ(80u, kssim_camera_traffic_count(cam));  // requests and replies only
        return reads;
    };
    const std::vector<int> reads = schedule();
    EXPECT_EQ(reads, schedule());
    const long late = std::count(reads.begin(), reads.end(), 2);
    EXPECT_GT(late, 8);
    EXPECT_LT(late, 32);
    EXPECT_EQ(40 - late, std::count(reads.begin(), reads.end(), 1));
}
