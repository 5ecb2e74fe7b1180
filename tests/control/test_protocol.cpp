// The message protocol on its own: the checksum, serialising requests and
// parsing crafted reply blocks, the malformed ones included. (The transport
// and the exchanges are shown against the simulator.)
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "control_protocol/protocol_checksum.h"
#include "control_protocol/protocol_master.h"

namespace {

// A reply block as the controller sends it: tag, header words, data and its
// byte sum; the length and checksum words can be forced.
struct Reply {
    uint32_t tag = 0x01020304, id = 0, command = 0, parameter = 0;  // command without the flag
    std::vector<uint8_t> data;
    int64_t length = -1, checksum = -1;  // -1: data.size(), the byte sum of data
    std::array<uint8_t, 320> encode() const {
        const uint32_t len = static_cast<uint32_t>(length < 0 ? int64_t(data.size()) : length);
        const uint32_t sum = checksum < 0 ? std::accumulate(data.begin(), data.end(), 0u)
                                          : static_cast<uint32_t>(checksum);
        const uint32_t words[8] = {tag, id, 0, 0, command | 0x80000000u, parameter, len, sum};
        std::array<uint8_t, 320> b{};
        for (int i = 0; i < 32; ++i)
            b[i] = static_cast<uint8_t>(words[i / 4] >> (24 - 8 * (i % 4)));
        std::copy_n(data.begin(), std::min<size_t>(data.size(), 288), b.begin() + 32);
        return b;
    }
};

}  // namespace

// ---- checksum ----------------------------------------------

TEST(ProtocolChecksum, EqualsThePlainByteSumWithWrapAround) {
    const unsigned char ff[2] = {0xFF, 0xFF};
    EXPECT_EQ(0x1FEu, get_data_checksum(ff, 2));
    EXPECT_EQ(0u, get_data_checksum(ff, 0));
    EXPECT_EQ(0u, get_data_checksum(nullptr, 16));

    // Every length up to a few vector widths at every alignment, through the
    // dispatcher and through each vector kernel this processor has.
    std::mt19937 rng(7);
    std::vector<unsigned char> buf(600);
    for (auto& b : buf) b = static_cast<unsigned char>(rng());
    for (size_t offset = 0; offset < 16; ++offset)
        for (size_t len = 0; len + offset <= 584; len += len < 300 ? 1 : 7) {
            const unsigned char* p = buf.data() + offset;
            const uint32_t sum = std::accumulate(p, p + len, 0u);
            ASSERT_EQ(sum, get_data_checksum(p, static_cast<uint32_t>(len)))
                << "offset " << offset << " length " << len;
#if defined(__x86_64__)
            ASSERT_EQ(sum, ks_checksum::sum_sse2(p, len)) << len;
            if (ks_checksum::have_avx2()) {
                ASSERT_EQ(sum, ks_checksum::sum_avx2(p, len)) << len;
            }
#endif
        }

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
    EXPECT_EQ(0, std::memcmp("\x00\x00\x02\x0E", stream + 28, 4));
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
        return protocol_deal_data_stream(&m, r.encode().data());
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

    EXPECT_EQ(-1, protocol_deal_data_stream(nullptr, r.encode().data()));
    EXPECT_EQ(-1, protocol_deal_data_stream(&m, nullptr));
}
