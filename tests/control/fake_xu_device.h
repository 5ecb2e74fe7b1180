// A scripted extension unit behind the platform seam for the protocol tests
// the simulator cannot stage: it answers UVCIOC_CTRL_QUERY on one descriptor,
// records every block sent and hands out reply blocks built by the test's own
// encoder. Its clock moves only when queried, so time-outs come fast.
// Single-threaded: the protocol tests make every call from the test's thread.
#ifndef KS_TEST_FAKE_XU_DEVICE_H
#define KS_TEST_FAKE_XU_DEVICE_H

#include <errno.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <vector>

#include "common/ks_platform.h"
#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"

namespace fakexu {

using Block = std::array<uint8_t, 320>;

inline void put32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}
inline uint32_t get32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// A request as the device decodes it.
struct Request {
    uint32_t id, command, parameter, length;
    std::vector<uint8_t> data;
    Block raw;
};

// A well-formed block: tag, header words, data and its byte sum.
struct Reply {
    uint32_t tag = 0x01020304;
    uint32_t id = 0;
    uint32_t command = 0;  // without the reply flag
    uint32_t parameter = 0;
    std::vector<uint8_t> data;
    int64_t length = -1;    // length word; -1: data.size()
    int64_t checksum = -1;  // -1: the byte sum of data
    Block encode() const {
        Block b{};
        uint32_t sum = 0;
        for (uint8_t v : data) sum += v;
        put32(&b[0], tag);
        put32(&b[4], id);
        put32(&b[16], command | 0x80000000u);
        put32(&b[20], parameter);
        put32(&b[24], static_cast<uint32_t>(length < 0 ? int64_t(data.size()) : length));
        put32(&b[28], checksum < 0 ? sum : static_cast<uint32_t>(checksum));
        if (!data.empty()) std::memcpy(&b[32], data.data(), data.size() < 288 ? data.size() : 288);
        return b;
    }
};

// One instance is installed at a time (the seam table holds plain functions).
class Device {
  public:
    static constexpr int kFd = 917;

    Device() {
        ops_ = *ks_platform_default_ops();
        ops_.ioctl = &Device::ioctl;
        ops_.clock_gettime = &Device::clock_gettime;
        current() = this;
        ks_platform_install(&ops_);
    }
    ~Device() {
        ks_platform_reset();
        current() = nullptr;
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // From now on every request is answered with its own command and data.
    void answer_with(std::vector<uint8_t> data) {
        reply_data_ = std::move(data);
        answers_ = true;
    }
    // SET_CUR (sends) or GET_CUR (receives) queries, counted from now, that fail.
    void fail_receives(int n) { fail_receives_ = n; }
    void fail_sends(int n) { fail_sends_ = n; }
    const std::vector<Request>& requests() const { return requests_; }
    void clear_requests() { requests_.clear(); }
    const uvc_xu_control_query& last_query() const { return last_query_; }

  private:
    static Device*& current() {
        static Device* d = nullptr;
        return d;
    }

    // Each reading moves the clock, so a loop that polls only the clock ends.
    static int clock_gettime(clockid_t, struct timespec* ts) {
        const int64_t t = current()->now_us_ += 1000;
        ts->tv_sec = t / 1000000;
        ts->tv_nsec = (t % 1000000) * 1000;
        return 0;
    }
    static int ioctl(int fd, unsigned long request, void* arg) {
        if (request != UVCIOC_CTRL_QUERY) return ks_platform_default_ops()->ioctl(fd, request, arg);
        if (fd != kFd) {
            errno = EBADF;
            return -1;
        }
        Device* d = current();
        auto* q = static_cast<uvc_xu_control_query*>(arg);
        d->last_query_ = *q;
        if (q->unit != 3 || q->selector != 1) {
            errno = ENOENT;
            return -1;
        }
        if (q->query == UVC_GET_LEN && q->size == 2) {
            q->data[0] = 0x40;  // 320, little-endian
            q->data[1] = 0x01;
            return 0;
        }
        if (q->query == UVC_SET_CUR && q->size == 320) {
            if (d->fail_sends_ > 0 && d->fail_sends_--) {
                errno = EPIPE;
                return -1;
            }
            Request r;
            std::memcpy(r.raw.data(), q->data, 320);
            r.id = get32(&r.raw[4]);
            r.command = get32(&r.raw[16]);
            r.parameter = get32(&r.raw[20]);
            r.length = get32(&r.raw[24]);
            r.data.assign(r.raw.begin() + 32, r.raw.begin() + 32 + (r.length <= 288 ? r.length : 288));
            d->pending_.clear();
            if (d->answers_) {
                Reply a;
                a.id = r.id, a.command = r.command, a.parameter = r.parameter, a.data = d->reply_data_;
                d->pending_.push_back(a.encode());
            }
            d->requests_.push_back(std::move(r));
            return 0;
        }
        if (q->query == UVC_GET_CUR && q->size == 320) {
            if (d->fail_receives_ > 0 && d->fail_receives_--) {
                errno = EIO;
                return -1;
            }
            Block b{};  // nothing pending: a block without the reply flag
            if (!d->pending_.empty()) {
                b = d->pending_.front();
                d->pending_.pop_front();
            }
            std::memcpy(q->data, b.data(), 320);
            return 0;
        }
        errno = EINVAL;
        return -1;
    }

    ks_platform_ops ops_;
    std::vector<uint8_t> reply_data_;
    bool answers_ = false;
    std::deque<Block> pending_;
    std::vector<Request> requests_;
    int64_t now_us_ = 1000000;
    int fail_receives_ = 0;
    int fail_sends_ = 0;
    uvc_xu_control_query last_query_{};
};

}  // namespace fakexu

#endif
