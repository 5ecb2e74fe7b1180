// A scripted extension unit behind the platform seam for the protocol tests
// the simulator cannot stage: it answers UVCIOC_CTRL_QUERY on one descriptor,
// records every block sent and hands out reply blocks built by the test's own
// encoder. Its clock moves only when queried, so time-outs come fast.
#ifndef KS_TEST_FAKE_XU_DEVICE_H
#define KS_TEST_FAKE_XU_DEVICE_H

#include <errno.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#include "common/ks_platform.h"
#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"

namespace fakexu {

using Block = std::array<uint8_t, 320>;

inline void put32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
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

inline Request decode(const Block& b) {
    Request r;
    r.id = get32(&b[4]);
    r.command = get32(&b[16]);
    r.parameter = get32(&b[20]);
    r.length = get32(&b[24]);
    const uint32_t n = r.length <= 288 ? r.length : 288;
    r.data.assign(b.begin() + 32, b.begin() + 32 + n);
    r.raw = b;
    return r;
}

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
        put32(&b[0], tag);
        put32(&b[4], id);
        put32(&b[16], command | 0x80000000u);
        put32(&b[20], parameter);
        put32(&b[24],
              length < 0 ? static_cast<uint32_t>(data.size()) : static_cast<uint32_t>(length));
        uint32_t sum = 0;
        for (uint8_t v : data) sum += v;
        put32(&b[28], checksum < 0 ? sum : static_cast<uint32_t>(checksum));
        if (!data.empty()) std::memcpy(&b[32], data.data(), data.size() < 288 ? data.size() : 288);
        return b;
    }
};

inline Reply answer(const Request& req, std::vector<uint8_t> data = {}) {
    Reply r;
    r.id = req.id;
    r.command = req.command;
    r.parameter = req.parameter;
    r.data = std::move(data);
    return r;
}

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
        std::lock_guard<std::mutex> g(m_);
        reply_data_ = std::move(data);
        answers_ = true;
    }
    // GET_CUR queries (counted from now) that fail with EIO.
    void fail_receives(int n) { fail_receives_ = n; }
    void fail_sends(int n) { fail_sends_ = n; }

    std::vector<Request> requests() {
        std::lock_guard<std::mutex> g(m_);
        return requests_;
    }
    void clear_requests() {
        std::lock_guard<std::mutex> g(m_);
        requests_.clear();
    }
    uvc_xu_control_query last_query() {
        std::lock_guard<std::mutex> g(m_);
        return last_query_;
    }

  private:
    static Device*& current() {
        static Device* d = nullptr;
        return d;
    }

    // Each reading moves the clock, so a loop that polls only the clock ends.
    static int clock_gettime(clockid_t, struct timespec* ts) {
        const int64_t t = current()->now_us_.fetch_add(1000) + 1000;
        ts->tv_sec = t / 1000000;
        ts->tv_nsec = (t % 1000000) * 1000;
        return 0;
    }
    static int ioctl(int fd, unsigned long request, void* arg) {
        Device* d = current();
        if (request != UVCIOC_CTRL_QUERY) return ks_platform_default_ops()->ioctl(fd, request, arg);
        if (fd != kFd) {
            errno = EBADF;
            return -1;
        }
        auto* q = static_cast<uvc_xu_control_query*>(arg);
        std::lock_guard<std::mutex> g(d->m_);
        d->last_query_ = *q;
        if (q->unit != 3 || q->selector != 1) {
            errno = ENOENT;
            return -1;
        }
        switch (q->query) {
            case UVC_GET_LEN:
                if (q->size != 2) break;
                q->data[0] = 0x40;  // 320, little-endian
                q->data[1] = 0x01;
                return 0;
            case UVC_SET_CUR: {
                if (q->size != 320) break;
                if (d->fail_sends_ > 0) {
                    --d->fail_sends_;
                    errno = EPIPE;
                    return -1;
                }
                Block b;
                std::memcpy(b.data(), q->data, 320);
                Request r = decode(b);
                d->requests_.push_back(r);
                d->pending_.clear();
                if (d->answers_) d->pending_.push_back(answer(r, d->reply_data_).encode());
                return 0;
            }
            case UVC_GET_CUR: {
                if (q->size != 320) break;
                if (d->fail_receives_ > 0) {
                    --d->fail_receives_;
                    errno = EIO;
                    return -1;
                }
                Block b{};
                if (!d->pending_.empty()) {
                    b = d->pending_.front();
                    d->pending_.pop_front();
                }
                // Nothing pending: a block without the reply flag.
                std::memcpy(q->data, b.data(), 320);
                return 0;
            }
            default:
                break;
        }
        errno = EINVAL;
        return -1;
    }

    ks_platform_ops ops_;
    std::mutex m_;
    std::vector<uint8_t> reply_data_;
    bool answers_ = false;
    std::deque<Block> pending_;
    std::vector<Request> requests_;
    std::atomic<int64_t> now_us_{1000000};
    std::atomic<int> fail_receives_{0};
    std::atomic<int> fail_sends_{0};
    uvc_xu_control_query last_query_{};
};

}  // namespace fakexu

#endif
