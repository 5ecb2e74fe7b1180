#include "fake_camera.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/ks_platform.h"
#include "sim/sim_bytes.h"

namespace fuzzing {
namespace {

constexpr uint32_t kTag = 0x01020304u;
constexpr uint32_t kReplyFlag = 0x80000000u;
constexpr size_t kBlock = 320;
constexpr size_t kHeader = 32;
constexpr uint32_t kMaxData = 256;
constexpr int kFirstFd = 100;
// One input never makes more exchanges than this: a library loop that keeps
// asking ends with failed queries instead of running on.
constexpr uint32_t kMaxExchanges = 4000;

FakeCamera* current = nullptr;

using kssim::byte_sum;
using kssim::get32;
using kssim::put32;

int fail(int e) {
    errno = e;
    return -1;
}

// ---- the platform table ----
int t_open(const char* path, int, mode_t) {
    return current->open(path);
}
int t_close(int fd) {
    return current->close(fd);
}
int t_ioctl(int fd, unsigned long request, void* arg) {
    return current->ioctl(fd, request, arg);
}
void* t_mmap(void*, size_t, int, int, int, off_t) {
    errno = ENODEV;
    return MAP_FAILED;
}
int t_munmap(void*, size_t) {
    return 0;
}
int t_select(int, fd_set*, fd_set*, fd_set*, struct timeval* timeout) {
    if (timeout != nullptr)
        current->wait_us(static_cast<uint64_t>(timeout->tv_sec) * 1000000u +
                         static_cast<uint64_t>(timeout->tv_usec));
    return 0;  // nothing ever becomes ready
}
int t_stat(const char* path, struct stat* st) {
    std::memset(st, 0, sizeof *st);
    const int fd = current->open(path);
    if (fd < 0) return -1;
    st->st_mode = S_IFCHR | 0660;
    return 0;
}
int t_scandir(const char* dir, struct dirent*** list, ks_scandir_filter_fn filter,
              ks_scandir_compar_fn compar) {
    const int n = current->scandir(dir, list);
    if (n <= 0) return n;
    int kept = 0;
    for (int i = 0; i < n; ++i) {
        if (filter != nullptr && filter((*list)[i]) == 0) {
            free((*list)[i]);
            continue;
        }
        (*list)[kept++] = (*list)[i];
    }
    if (compar != nullptr)
        std::sort(*list, *list + kept,
                  [compar](const dirent* a, const dirent* b) { return compar(&a, &b) < 0; });
    return kept;
}
char* t_realpath(const char* path, char* resolved) {
    return current->realpath(path, resolved);
}
int t_usleep(useconds_t us) {
    current->wait_us(us);
    return 0;
}
unsigned int t_sleep(unsigned int s) {
    current->wait_us(uint64_t{s} * 1000000u);
    return 0;
}
int t_gettimeofday(struct timeval* tv, void*) {
    current->wait_us(10);
    const uint64_t t = current->now_us();
    tv->tv_sec = static_cast<time_t>(t / 1000000u);
    tv->tv_usec = static_cast<suseconds_t>(t % 1000000u);
    return 0;
}
int t_flock(int fd, int) {
    // The fake serves one process: every lock of an open node is granted.
    return fd >= 0 ? 0 : fail(EBADF);
}
int t_clock_gettime(clockid_t, struct timespec* ts) {
    current->wait_us(10);
    const uint64_t t = current->now_us();
    ts->tv_sec = static_cast<time_t>(t / 1000000u);
    ts->tv_nsec = static_cast<long>(t % 1000000u) * 1000;
    return 0;
}

// Nobody else runs in a harness: a wait that would sleep passes its time
// on the fake clock at once.
int t_futex_wait(const uint32_t* word, uint32_t expected, const struct timespec* timeout) {
    if (__atomic_load_n(word, __ATOMIC_ACQUIRE) != expected) return fail(EAGAIN);
    if (timeout == nullptr) return fail(EINTR);
    current->wait_us(static_cast<uint64_t>(timeout->tv_sec) * 1000000u +
                     static_cast<uint64_t>(timeout->tv_nsec) / 1000u);
    return fail(ETIMEDOUT);
}
int t_futex_wake(const uint32_t*, int) {
    return 0;
}

// The C library's table with every slot the fake knows replaced: a slot
// added to the seam later still has a working default.
ks_platform_ops make_table() {
    ks_platform_ops t = *ks_platform_default_ops();
    t.open = t_open;
    t.close = t_close;
    t.ioctl = t_ioctl;
    t.mmap = t_mmap;
    t.munmap = t_munmap;
    t.select = t_select;
    t.stat = t_stat;
    t.scandir = t_scandir;
    t.realpath = t_realpath;
    t.usleep = t_usleep;
    t.sleep = t_sleep;
    t.gettimeofday = t_gettimeofday;
    t.clock_gettime = t_clock_gettime;
    t.flock = t_flock;
    t.futex_wait = t_futex_wait;
    t.futex_wake = t_futex_wake;
    return t;
}
const ks_platform_ops kTable = make_table();

}  // namespace

FakeCamera::FakeCamera(Input* replies) : replies_(replies) {
    eeprom.fill(0xFF);
    FakeNode node;
    node.path = kNode;
    nodes_.push_back(node);
    current = this;
    ks_platform_install(&kTable);
}

FakeCamera::~FakeCamera() {
    ks_platform_reset();
    current = nullptr;
}

int FakeCamera::open(const char* path) {
    if (path == nullptr) return fail(EFAULT);
    // Later nodes of the same path win, so a harness can replace the default.
    for (size_t i = nodes_.size(); i-- > 0;)
        if (nodes_[i].path == path) return kFirstFd + static_cast<int>(i);
    return fail(ENOENT);
}

int FakeCamera::close(int fd) {
    return node_of(fd) != nullptr ? 0 : fail(EBADF);
}

const FakeNode* FakeCamera::node_of(int fd) const {
    if (fd < kFirstFd || static_cast<size_t>(fd - kFirstFd) >= nodes_.size()) return nullptr;
    return &nodes_[static_cast<size_t>(fd - kFirstFd)];
}

int FakeCamera::ioctl(int fd, unsigned long request, void* arg) {
    const FakeNode* node = node_of(fd);
    if (node == nullptr) return fail(EBADF);
    if (arg == nullptr) return fail(EFAULT);
    switch (request) {
        case VIDIOC_QUERYCAP: {
            if (node->querycap_fails) return fail(EINVAL);
            auto* cap = static_cast<v4l2_capability*>(arg);
            std::memset(cap, 0, sizeof *cap);
            std::memcpy(cap->driver, "uvcvideo", 8);
            std::memcpy(cap->card, node->card, sizeof cap->card);
            cap->capabilities = node->capabilities;
            cap->device_caps = node->device_caps;
            return 0;
        }
        case VIDIOC_ENUM_FMT: {
            auto* f = static_cast<v4l2_fmtdesc*>(arg);
            if (node->enum_fmt_fails || f->index != 0) return fail(EINVAL);
            f->pixelformat = node->pixelformat;
            std::memcpy(f->description, node->description, sizeof f->description);
            return 0;
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            auto* s = static_cast<v4l2_frmsizeenum*>(arg);
            if (node->sizes.empty()) return fail(EINVAL);
            size_t k = s->index;
            if (k >= node->sizes.size()) {
                if (node->sizes_fail) return fail(EINVAL);
                k = node->sizes.size() - 1;
            }
            const FakeNode::Size& size = node->sizes[k];
            s->type = size.type;
            // Stepwise sizes share the union's first words with the discrete one.
            s->discrete.width = size.width;
            s->discrete.height = size.height;
            return 0;
        }
        case UVCIOC_CTRL_QUERY:
            return control(fd, arg);
        default:
            return fail(ENOTTY);
    }
}

int FakeCamera::scandir(const char* dir, struct dirent*** list) {
    auto found = dirs_.find(dir != nullptr ? dir : "");
    if (found == dirs_.end()) return fail(ENOENT);
    const std::vector<std::string>& names = found->second;
    *list = static_cast<dirent**>(calloc(names.size() + 1, sizeof(dirent*)));
    if (*list == nullptr) return fail(ENOMEM);
    for (size_t i = 0; i < names.size(); ++i) {
        auto* e = static_cast<dirent*>(calloc(1, sizeof(dirent)));
        if (e == nullptr) std::abort();
        const size_t n = std::min(names[i].size(), sizeof e->d_name - 1);
        std::memcpy(e->d_name, names[i].data(), n);
        e->d_type = DT_LNK;
        (*list)[i] = e;
    }
    return static_cast<int>(names.size());
}

char* FakeCamera::realpath(const char* path, char* resolved) {
    auto found = links_.find(path != nullptr ? path : "");
    if (found == links_.end()) {
        errno = ENOENT;
        return nullptr;
    }
    if (resolved == nullptr) resolved = static_cast<char*>(malloc(PATH_MAX));
    if (resolved == nullptr) return nullptr;
    const size_t n = std::min(found->second.size(), size_t{PATH_MAX - 1});
    std::memcpy(resolved, found->second.data(), n);
    resolved[n] = '\0';
    return resolved;
}

// ---- the USB controller ----

int FakeCamera::control(int, void* arg) {
    auto* q = static_cast<uvc_xu_control_query*>(arg);
    if (q->unit != 3 || q->selector != 1 || q->data == nullptr) return fail(EINVAL);
    if (++exchanges_ > kMaxExchanges) return fail(EIO);
    switch (q->query) {
        case UVC_GET_LEN:
            if (q->size < 2) return fail(EINVAL);
            q->data[0] = kBlock & 0xFF;
            q->data[1] = kBlock >> 8;
            return 0;
        case UVC_SET_CUR:
            if (q->size < kBlock) return fail(EINVAL);
            take_request(q->data);
            return 0;
        case UVC_GET_CUR:
            break;
        default:
            return fail(EINVAL);
    }
    if (q->size < kBlock) return fail(EINVAL);
    uint8_t* block = q->data;
    if (replies_ == nullptr) {
        if (!have_request_ || pending_.refused) return fail(EIO);
        have_request_ = false;
        frame_reply(block, req_command_ | kReplyFlag, pending_.data.data(),
                    static_cast<uint32_t>(pending_.data.size()),
                    static_cast<uint32_t>(pending_.data.size()));
        return 0;
    }
    // The input decides; once it is used up the device stops answering.
    if (replies_->empty()) return fail(EIO);
    const uint8_t how = replies_->u8();
    switch (how & 3) {
        case 0:  // any block at all
            replies_->bytes(block, kBlock);
            return 0;
        case 1: {  // a framed reply with the input's length, maybe another command
            uint8_t data[kMaxData] = {};
            const uint32_t length = replies_->u16() % 300;
            replies_->bytes(data, std::min(length, kMaxData));
            const uint32_t command =
                (how & 0x80) != 0 ? replies_->u32() : req_command_ | kReplyFlag;
            frame_reply(block, command, data, std::min(length, kMaxData), length);
            if ((how & 0x40) != 0) put32(block + 28, replies_->u32());
            return 0;
        }
        case 2: {  // the answer's shape with the input's bytes
            std::vector<uint8_t> data(pending_.data.size());
            replies_->bytes(data.data(), data.size());
            frame_reply(block, req_command_ | kReplyFlag, data.data(),
                        static_cast<uint32_t>(data.size()), static_cast<uint32_t>(data.size()));
            return 0;
        }
        default:  // what a well-behaved controller answers
            if (pending_.refused) return fail(EIO);
            frame_reply(block, req_command_ | kReplyFlag, pending_.data.data(),
                        static_cast<uint32_t>(pending_.data.size()),
                        static_cast<uint32_t>(pending_.data.size()));
            return 0;
    }
}

void FakeCamera::frame_reply(uint8_t* block, uint32_t command_word, const uint8_t* data,
                             uint32_t length, uint32_t length_word) {
    std::memset(block, 0, kBlock);
    put32(block, kTag);
    put32(block + 4, req_id_);
    put32(block + 16, command_word);
    put32(block + 20, req_parameter_);
    put32(block + 24, length_word);
    const uint32_t n = std::min(length, kMaxData);
    if (n > 0) std::memcpy(block + kHeader, data, n);
    put32(block + 28, byte_sum(block + kHeader, n));
}

void FakeCamera::take_request(const uint8_t* block) {
    req_id_ = get32(block + 4);
    req_command_ = get32(block + 16) & ~kReplyFlag;
    req_parameter_ = get32(block + 20);
    const uint32_t length = get32(block + 24);
    have_request_ = true;
    if (get32(block) != kTag || length > kMaxData ||
        get32(block + 28) != byte_sum(block + kHeader, length)) {
        pending_ = Reply{};
        return;
    }
    pending_ = answer(req_command_, req_parameter_, block + kHeader, length);
}

FakeCamera::Reply FakeCamera::answer(uint32_t command, uint32_t parameter, const uint8_t* data,
                                     uint32_t length) {
    Reply r;
    r.refused = false;
    const uint32_t dev = parameter >> 16;
    const uint32_t reg = parameter & 0xFFFF;
    switch (command) {
        case 1: {  // version text
            static const char kVersion[] = "FUZZ-CTRL 1.0";
            r.data.assign(32, 0);
            std::memcpy(r.data.data(), kVersion, sizeof kVersion);
            return r;
        }
        case 2: {  // flash page
            auto page = flash_.find(parameter & ~0xFFu);
            if (page == flash_.end()) {
                r.data.assign(256, 0xFF);
            } else {
                r.data.assign(page->second.begin(), page->second.end());
            }
            return r;
        }
        case 3:  // write a flash page
            if (length != 256) return Reply{};
            if (flash_.size() < 512)
                std::copy(data, data + 256, flash_[parameter & ~0xFFu].begin());
            return r;
        case 4:  // erase a sector
            for (uint32_t p = 0; p < 16; ++p) flash_.erase((parameter & ~0xFFFu) + p * 256);
            return r;
        case 6: {  // I2C read
            if (length != 4) return Reply{};
            const uint32_t n = uint32_t{data[0]} | (uint32_t{data[1]} << 8) |
                               (uint32_t{data[2]} << 16) | (uint32_t{data[3]} << 24);
            if (n > kMaxData) return Reply{};
            for (uint32_t i = 0; i < n; ++i) {
                if ((dev | 1) == 0xA1) {
                    r.data.push_back(eeprom[(reg + i) % eeprom.size()]);
                } else {
                    auto v = registers.find(((dev | 1) << 16) | ((reg + i) & 0xFFFF));
                    r.data.push_back(v != registers.end() ? v->second : 0);
                }
            }
            return r;
        }
        case 7:  // I2C write
            for (uint32_t i = 0; i < length; ++i) {
                if ((dev | 1) == 0xA1) {
                    eeprom[(reg + i) % eeprom.size()] = data[i];
                } else if (registers.size() < 4096) {
                    registers[((dev | 1) << 16) | ((reg + i) & 0xFFFF)] = data[i];
                }
            }
            return r;
        case 10:  // GPIO: set answers nothing, get one level per pin
            if (length >= 1 && data[0] == 1) r.data.assign(length - 1, 1);
            return r;
        case 11:
            r.data.push_back(status);
            return r;
        case 15:
            r.data.assign(4, 0);
            return r;
        case 5:   // EEPROM from flash
        case 13:  // IMU: nothing buffered
        case 14:  // ASIC run / reset
            return r;
        default:
            return Reply{};
    }
}

}  // namespace fuzzing
