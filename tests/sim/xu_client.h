// A small, independent client of the camera's control channel, written from
// the wire format alone (it shares no code with the simulator or the library):
// 320-byte blocks through UVCIOC_CTRL_QUERY on unit 3 selector 1. A block is
// eight big-endian words (tag 01 02 03 04, id, timestamp, reserved, command,
// parameter, length, byte-sum checksum), the data, and byte 319 = 1 marking a
// new request. The reply carries the command with bit 31 set.
#ifndef KSSIM_TEST_XU_CLIENT_H
#define KSSIM_TEST_XU_CLIENT_H

#include <errno.h>
#include <fcntl.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/ks_platform.h"

namespace xutest {

using Block = std::array<uint8_t, 320>;

constexpr uint32_t kTag = 0x01020304;
constexpr uint32_t kReply = 0x80000000u;
constexpr int kMismatch = 1000;  // a reply arrived but is not the one asked for

inline uint32_t be32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
inline void put_be32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

struct Message {
    uint32_t tag = 0, id = 0, command = 0, parameter = 0, length = 0, checksum = 0;
    std::vector<uint8_t> data;  // as many bytes as the block holds, at most length

    static Message parse(const Block& b) {
        Message m;
        m.tag = be32(&b[0]);
        m.id = be32(&b[4]);
        m.command = be32(&b[16]);
        m.parameter = be32(&b[20]);
        m.length = be32(&b[24]);
        m.checksum = be32(&b[28]);
        m.data.assign(b.begin() + 32, b.begin() + 32 + (m.length < 288 ? m.length : 288));
        return m;
    }
    uint32_t data_sum() const {
        uint32_t s = 0;
        for (uint8_t d : data) s += d;
        return s;
    }
};

// A request block with the byte-sum checksum.
inline Block request(uint32_t id, uint32_t command, uint32_t parameter,
                     const std::vector<uint8_t>& data, bool new_flag = true) {
    Block b{};
    put_be32(&b[0], kTag);
    put_be32(&b[4], id);
    put_be32(&b[16], command);
    put_be32(&b[20], parameter);
    put_be32(&b[24], static_cast<uint32_t>(data.size()));
    uint32_t sum = 0;
    for (size_t i = 0; i < data.size() && i < 287; ++i) sum += b[32 + i] = data[i];
    put_be32(&b[28], sum);
    b[319] = new_flag ? 1 : 0;
    return b;
}

class Client {
  public:
    ~Client() { close(); }
    bool open(const char* node) {
        fd_ = ks_sys_open(node, O_RDWR | O_NONBLOCK, 0);
        return fd_ >= 0;
    }
    void close() {
        if (fd_ >= 0) ks_sys_close(fd_);
        fd_ = -1;
    }

    // One UVCIOC_CTRL_QUERY: 0 or the errno.
    int query(uint8_t code, uint8_t* data, uint16_t size, uint8_t unit = 3, uint8_t selector = 1) {
        uvc_xu_control_query q{};
        q.unit = unit;
        q.selector = selector;
        q.query = code;
        q.size = size;
        q.data = data;
        return ks_sys_ioctl(fd_, UVCIOC_CTRL_QUERY, &q) == 0 ? 0 : errno;
    }
    int send(Block b) { return query(UVC_SET_CUR, b.data(), 320); }
    int receive(Block& b) { return query(UVC_GET_CUR, b.data(), 320); }
    Message next(const Block& req) {  // one request, one block read back
        Block b{};
        send(req);
        receive(b);
        return Message::parse(b);
    }

    // Reads until a block carries the reply flag: 0, a read's errno, or
    // ETIMEDOUT.
    int exchange_raw(const Block& req, Message* reply) {
        send(req);
        for (int i = 0; i < 8; ++i) {
            Block b{};
            if (int e = receive(b)) return e;
            Message m = Message::parse(b);
            if (m.tag != kTag || (m.command & kReply) == 0) continue;
            if (reply != nullptr) *reply = m;
            return 0;
        }
        return ETIMEDOUT;
    }
    // Exchange that also checks the reply's command (and length when >= 0).
    int exchange(uint32_t command, uint32_t parameter, const std::vector<uint8_t>& data,
                 Message* reply = nullptr, long want_length = -1) {
        Message m;
        if (int e = exchange_raw(request(++id_, command, parameter, data), &m)) return e;
        if (m.command != (command | kReply)) return kMismatch;
        if (want_length >= 0 && m.length != static_cast<uint32_t>(want_length)) return kMismatch;
        if (reply != nullptr) *reply = m;
        return 0;
    }

    int version(std::string* text) {
        Message m;
        if (int e = exchange(1, 0, {}, &m, 32)) return e;
        text->assign(reinterpret_cast<const char*>(m.data.data()),
                     strnlen(reinterpret_cast<const char*>(m.data.data()), 32));
        return 0;
    }
    int flash_read(uint32_t addr, std::vector<uint8_t>* page) {
        Message m;
        if (int e = exchange(2, addr, {}, &m, 256)) return e;
        *page = m.data;
        return 0;
    }
    int flash_write(uint32_t addr, const std::vector<uint8_t>& page) {
        return exchange(3, addr, page);
    }
    int flash_erase(uint32_t addr) { return exchange(4, addr, {}); }
    int i2c_read(uint8_t dev, uint16_t reg, uint32_t n, std::vector<uint8_t>* out) {
        Message m;
        const std::vector<uint8_t> len = {uint8_t(n), uint8_t(n >> 8), uint8_t(n >> 16), 0};
        if (int e = exchange(6, uint32_t{dev} << 16 | reg, len, &m, n)) return e;
        *out = m.data;
        return 0;
    }
    int i2c_write(uint8_t dev, uint16_t reg, const std::vector<uint8_t>& data) {
        return exchange(7, uint32_t{dev} << 16 | reg, data);
    }
    int read1(uint8_t dev, uint16_t reg, uint8_t* v) {
        std::vector<uint8_t> out;
        if (int e = i2c_read(dev, reg, 1, &out)) return e;
        *v = out[0];
        return 0;
    }
    int asic_read(uint16_t reg, uint8_t* v) { return read1(0xCD, reg, v); }
    int asic_write(uint16_t reg, uint8_t v) { return i2c_write(0xCC, reg, {v}); }
    int eeprom_read(uint16_t addr, uint8_t* v) { return read1(0xA1, addr, v); }
    int eeprom_write(uint16_t addr, uint8_t v) { return i2c_write(0xA0, addr, {v}); }
    int fpga_read(uint16_t reg, uint8_t* v) { return read1(0xC1, reg, v); }
    int fpga_write(uint16_t reg, uint8_t v) { return i2c_write(0xC0, reg, {v}); }
    int set_gpio(uint8_t pin, uint8_t value) { return exchange(10, 0, {0x00, pin, value}); }
    int status(uint8_t* s) {
        Message m;
        if (int e = exchange(11, 0, {}, &m, 1)) return e;
        *s = m.data[0];
        return 0;
    }
    int set_asic(uint8_t state) { return exchange(14, 0, {state}); }
    int reset_count(uint32_t* n) {
        Message m;
        if (int e = exchange(15, 0, {}, &m, 4)) return e;
        *n = be32(m.data.data());
        return 0;
    }
    // The ASIC's sensor bridge: one command to both sensors, with the 5 ms
    // (virtual) the bridge needs after each write.
    int sensor_write(uint16_t reg, uint8_t value) {
        for (auto [r, v] : {std::pair<uint16_t, uint8_t>{0xF1, reg >> 8},
                            {0xF2, reg & 0xFF},
                            {0xF3, 0},
                            {0xF4, value}}) {
            if (int e = asic_write(r, v)) return e;
            ks_sys_usleep(5000);
        }
        return 0;
    }

  private:
    int fd_ = -1;
    uint32_t id_ = 0;
};

}  // namespace xutest

#endif
