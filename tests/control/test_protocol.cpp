// The message protocol and its extension-unit transport against a scripted
// extension unit: checksum, serialising and parsing crafted blocks, the
// transport's queries and the replies and requests it refuses.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "control_protocol/protocol_checksum.h"
#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
#include "fake_xu_device.h"

using fakexu::Block;
using fakexu::Device;
using fakexu::Reply;

namespace {

uint32_t byte_sum(const unsigned char* p, size_t n) {
    uint32_t s = 0;
    for (size_t i = 0; i < n; ++i) s += p[i];
    return s;
}

void register_transport() {
    uvc_protocol_master_init();
    const _struct_protocol_functions uvc = {uvc_protocol_master_send_data,
                                            uvc_protocol_master_receive_data,
                                            uvc_protocol_get_current_timestamp};
    protocol_master_init(&uvc);
}

class ProtocolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        register_transport();
        set_cur_uvc_fd(Device::kFd);
    }
    void TearDown() override { set_cur_uvc_fd(-1); }

    Device dev_;
};

}  // namespace

// ---- checksum ----------------------------------------------

TEST(ProtocolChecksum, EqualsThePlainByteSumWithWrapAround) {
    const unsigned char ff[2] = {0xFF, 0xFF};
    EXPECT_EQ(0x1FEu, get_data_checksum(ff, 2));
    EXPECT_EQ(0u, get_data_checksum(ff, 0));
    EXPECT_EQ(0u, get_data_checksum(nullptr, 16));

    // Every length up to a few vector widths, at every alignment.
    std::mt19937 rng(7);
    std::vector<unsigned char> buf(600);
    for (auto& b : buf) b = static_cast<unsigned char>(rng());
    for (size_t offset = 0; offset < 16; ++offset)
        for (size_t len = 0; len + offset <= 300; ++len)
            ASSERT_EQ(byte_sum(buf.data() + offset, len),
                      get_data_checksum(buf.data() + offset, static_cast<uint32_t>(len)))
                << "offset " << offset << " length " << len;

#if defined(__x86_64__)
    // Each vector kernel, whichever one this processor dispatches to.
    for (size_t offset = 0; offset < 16; ++offset)
        for (size_t len = 0; len + offset <= 600 - 16; len += 7) {
            const unsigned char* p = buf.data() + offset;
            ASSERT_EQ(byte_sum(p, len), ks_checksum::sum_sse2(p, len)) << len;
            if (ks_checksum::have_avx2()) {
                ASSERT_EQ(byte_sum(p, len), ks_checksum::sum_avx2(p, len)) << len;
            }
        }
#endif

    // 17 MiB of 0xFF: the true sum passes 2^32 and wraps.
    std::vector<unsigned char> big(17u << 20, 0xFF);
    const uint64_t exact = 0xFFull * big.size();
    EXPECT_GT(exact, 0xFFFFFFFFull);
    EXPECT_EQ(static_cast<uint32_t>(exact),
              get_data_checksum(big.data(), static_cast<uint32_t>(big.size())));
}

// ---- serialisation and parsing ---------------------------------------------

TEST(ProtocolSerialise, StatusRequestBytesCarryWordsLeftByEarlierMessages) {
    unsigned char data[256] = {};
    _struct_protocol_message m = {0x01020304, 5, 0, 0xAABBCCDD, 11, 0x11223344, 0, 0x77, data};
    unsigned char stream[320];
    std::memset(stream, 0xEE, sizeof stream);
    ASSERT_EQ(32, protocol_deal_message_description(&m, stream));
    const unsigned char expected[32] = {0x01, 0x02, 0x03, 0x04, 0x00, 0x00, 0x00, 0x05,
                                        0x00, 0x00, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD,
                                        0x00, 0x00, 0x00, 0x0B, 0x11, 0x22, 0x33, 0x44,
                                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(0, std::memcmp(expected, stream, 32));
    EXPECT_EQ(0u, m.checksum);
    EXPECT_EQ(0xEE, stream[32]);

    data[0] = 0xFF;
    data[1] = 0xFF;
    data[2] = 0x10;
    m.length = 3;
    ASSERT_EQ(35, protocol_deal_message_description(&m, stream));
    EXPECT_EQ(0x20Eu, m.checksum);
    EXPECT_EQ(0x20Eu, fakexu::get32(stream + 28));
    EXPECT_EQ(0, std::memcmp(data, stream + 32, 3));

    EXPECT_EQ(-1, protocol_deal_message_description(nullptr, stream));
    EXPECT_EQ(-1, protocol_deal_message_description(&m, nullptr));
    m.length = 257;
    EXPECT_EQ(-1, protocol_deal_message_description(&m, stream));
}

TEST(ProtocolParse, CraftedBlocks) {
    unsigned char data[256];
    const _struct_protocol_message before = {1, 2, 3, 4, 5, 6, 7, 8, data};
    _struct_protocol_message m = before;
    auto parse = [&](const Reply& r) {
        std::memset(data, 0x5A, sizeof data);
        m = before;
        const Block b = r.encode();
        return protocol_deal_data_stream(&m, b.data());
    };

    Reply good;
    good.id = 9;
    good.command = 6;
    good.parameter = 0xA10123;
    good.data = {0x12, 0x34};
    EXPECT_EQ(34, parse(good));
    EXPECT_EQ(9u, m.id);
    EXPECT_EQ(0x80000006u, m.command);
    EXPECT_EQ(0xA10123u, m.parameter);
    EXPECT_EQ(2u, m.length);
    EXPECT_EQ(0x46u, m.checksum);
    EXPECT_EQ(0, std::memcmp("\x12\x34\x5A", data, 3));

    // A bad tag changes only the record's tag.
    Reply r = good;
    r.tag = 0x04030201;
    EXPECT_EQ(-1, parse(r));
    EXPECT_EQ(0x04030201u, m.tag);
    EXPECT_EQ(before.command, m.command);
    EXPECT_EQ(0x5A, data[0]);

    // A bad checksum is reported, but the record is updated all the same.
    r = good;
    r.checksum = 0x47;
    EXPECT_EQ(-1, parse(r));
    EXPECT_EQ(0x80000006u, m.command);
    EXPECT_EQ(0x12, data[0]);

    // A length beyond the data buffer: nothing copied, nothing but the tag taken.
    r = good;
    r.data.assign(288, 0xC3);
    for (uint32_t len : {257u, 288u, 0xFFFFFFFFu}) {
        r.length = len;
        EXPECT_EQ(PROTOCOL_PARSE_BAD_LENGTH, parse(r)) << len;
        EXPECT_EQ(before.command, m.command);
        EXPECT_EQ(before.length, m.length);
        EXPECT_EQ(0x5A, data[0]);
        EXPECT_EQ(0x5A, data[255]);
    }
    // Exactly the data buffer's size is fine.
    r.data.assign(256, 0x01);
    r.length = -1;
    EXPECT_EQ(288, parse(r));
    EXPECT_EQ(0x01, data[255]);

    const Block b = r.encode();
    EXPECT_EQ(-1, protocol_deal_data_stream(nullptr, b.data()));
    EXPECT_EQ(-1, protocol_deal_data_stream(&m, nullptr));
}

// ---- transport ---------------------------------------------------------------

TEST_F(ProtocolTest, ExtensionUnitQueries) {
    // Length: little-endian as UVC defines it.
    EXPECT_EQ(320, uvc_get_extension_data_len(Device::kFd));
    uvc_xu_control_query q = dev_.last_query();
    EXPECT_EQ(std::vector<int>({3, 1, 0x85, 2}),
              std::vector<int>({q.unit, q.selector, q.query, q.size}));
    EXPECT_EQ(-1, uvc_get_extension_data_len(-1));

    // A send sets the new-request flag in the last byte and sends 320 bytes.
    unsigned char block[320] = {0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(320, uvc_protocol_master_send_data(block));
    EXPECT_EQ(1, block[319]);
    q = dev_.last_query();
    EXPECT_EQ(0x01, q.query);
    EXPECT_EQ(320, q.size);
    ASSERT_EQ(1u, dev_.requests().size());
    EXPECT_EQ(1, dev_.requests()[0].raw[319]);

    EXPECT_EQ(0, uvc_protocol_master_receive_data(block));
    EXPECT_EQ(0x81, dev_.last_query().query);
    dev_.fail_receives(1);
    EXPECT_EQ(-1, uvc_protocol_master_receive_data(block));
    dev_.fail_sends(1);
    EXPECT_EQ(-1, uvc_protocol_master_send_data(block));

    EXPECT_EQ(320, uvc_set_extension_data(Device::kFd, block, 320));
    EXPECT_EQ(-1, uvc_set_extension_data(Device::kFd, block, 64));  // the control is 320 bytes
    EXPECT_EQ(-1, uvc_get_extension_data(Device::kFd, nullptr, 320));
}

namespace {
int g_custom_sends = 0;
int custom_send(unsigned char*) {
    ++g_custom_sends;
    return 0;
}
int custom_receive(unsigned char*) {
    return -1;
}
}  // namespace

TEST_F(ProtocolTest, TransportInitialisationRegistersOnlyOnce) {
    uvc_protocol_master_init();
    const _struct_protocol_functions custom = {custom_send, custom_receive, nullptr};
    protocol_master_init(&custom);
    EXPECT_EQ(0, uvc_protocol_master_init());  // must not register the transport again
    g_custom_sends = 0;
    unsigned char status = 0;
    EXPECT_EQ(-1, protocol_get_status(&status));
    EXPECT_EQ(1, g_custom_sends);
    EXPECT_TRUE(dev_.requests().empty());

    // Null entries fall back to functions that do nothing: with nothing
    // registered the request is never answered and the exchange gives up.
    protocol_master_init(nullptr);
    EXPECT_EQ(-1, protocol_get_status(&status));
    EXPECT_TRUE(dev_.requests().empty());

    // With no descriptor selected the exchange fails at the first receive.
    register_transport();
    set_cur_uvc_fd(-1);
    EXPECT_EQ(-1, get_cur_uvc_fd());
    EXPECT_EQ(-1, protocol_get_status(&status));
    EXPECT_TRUE(dev_.requests().empty());
}

// Request encodings and round trips are shown against the simulator; here,
// replies of the wrong size and requests refused before anything is sent.
TEST_F(ProtocolTest, RepliesOfTheWrongSizeAndOversizeRequestsAreRefused) {
    unsigned char buf[256] = {};
    unsigned int count = 0;
    const unsigned char pins[3] = {4, 5, 17};
    const struct {
        size_t good, bad;
        std::function<int()> call;
    } cases[] = {
        {32, 31, [&] { return protocol_get_slaver_version(buf); }},
        {256, 255, [&] { return protocol_flash_read_page(0x12345, buf); }},
        {1, 2, [&] { return protocol_get_status(buf); }},
        {1, 2, [&] { return protocol_get_gpio(17, buf); }},
        {4, 2, [&] { return protocol_get_reset_count(&count); }},
        {2, 1, [&] { return protocol_iic_read(0xA1, 0x0123, buf, 2); }},
        {2, 3, [&] { return protocol_iic_read(0xA1, 0x0123, buf, 2); }},
        {3, 2, [&] { return protocol_get_gpios(pins, buf, 3); }},
    };
    for (const auto& c : cases) {
        dev_.answer_with(std::vector<uint8_t>(c.good, 0x21));
        EXPECT_EQ(0, c.call()) << c.good;
        dev_.answer_with(std::vector<uint8_t>(c.bad, 0x21));
        std::memset(buf, 0, sizeof buf);
        EXPECT_EQ(-1, c.call()) << c.bad;
        EXPECT_EQ(0, buf[0]);
    }
    EXPECT_EQ(0x21212121u, count);
    EXPECT_EQ(-1, protocol_iic_read(0xA1, 0x0123, nullptr, 2));

    // At most 256 data bytes, 127 GPIO pairs: refused before anything is sent.
    dev_.clear_requests();
    dev_.answer_with({});
    std::vector<unsigned char> data(257, 0x42);
    EXPECT_EQ(-1, protocol_iic_write(0xCC, 0x10, data.data(), 257));
    EXPECT_EQ(-1, protocol_iic_write(0xCC, 0x10, nullptr, 1));
    EXPECT_EQ(-1, protocol_set_gpios(data.data(), data.data(), 128));
    EXPECT_TRUE(dev_.requests().empty());
    ASSERT_EQ(0, protocol_iic_write(0xCC, 0x10, data.data(), 256));
    EXPECT_EQ(256u, dev_.requests().back().length);  // a 288-byte message
    EXPECT_EQ(0, protocol_set_gpios(data.data(), data.data(), 127));
    EXPECT_EQ(255u, dev_.requests().back().length);
    const unsigned char levels[3] = {1, 0, 1};
    ASSERT_EQ(0, protocol_set_gpios(pins, levels, 3));
    EXPECT_EQ(std::vector<uint8_t>({0x00, 4, 1, 5, 0, 17, 1}), dev_.requests().back().data);

    // The IMU reply holds whole 16-byte records only.
    std::vector<uint8_t> forty(40);
    for (int i = 0; i < 40; ++i) forty[i] = static_cast<uint8_t>(i + 1);
    dev_.answer_with(forty);
    std::memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(2, protocol_get_IMU(buf));
    EXPECT_EQ(0, std::memcmp(forty.data(), buf, 32));
    EXPECT_EQ(0xEE, buf[32]);
    dev_.answer_with(std::vector<uint8_t>(256, 7));
    EXPECT_EQ(16, protocol_get_IMU(buf));
    dev_.answer_with(std::vector<uint8_t>(15, 1));
    EXPECT_EQ(0, protocol_get_IMU(buf));
    dev_.fail_receives(1);
    EXPECT_EQ(-1, protocol_get_IMU(buf));
}

// ---- diagnostic pair -------------------------------------------------------------

TEST_F(ProtocolTest, NakedMessages) {
    EXPECT_EQ(320, send_naked_message(1, 1));
    EXPECT_EQ(320, send_naked_message(0, 1));
    EXPECT_EQ(320, send_naked_message(1, 0));  // the record as it stands
    const auto reqs = dev_.requests();
    ASSERT_EQ(3u, reqs.size());
    EXPECT_EQ(1u, reqs[0].command);
    EXPECT_EQ(32u, reqs[0].length);
    EXPECT_EQ(std::string(17, 'x'), std::string(reqs[0].data.begin(), reqs[0].data.begin() + 17));
    EXPECT_NE('x', reqs[0].data[17]);
    EXPECT_EQ(0u, reqs[1].length);
    EXPECT_EQ(reqs[0].id + 1, reqs[1].id);
    EXPECT_EQ(reqs[1].id, reqs[2].id);

    unsigned char* out = reinterpret_cast<unsigned char*>(1);
    EXPECT_EQ(0, receive_naked_message(&out));
    EXPECT_EQ(nullptr, out);
    dev_.fail_receives(1);
    EXPECT_EQ(-1, receive_naked_message(&out));
    EXPECT_EQ(protocol_stream_buffer(), out);
}
