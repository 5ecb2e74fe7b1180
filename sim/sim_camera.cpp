#include "sim/sim_camera.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include "sim/sim_world.h"

namespace kssim {

namespace {

constexpr uint32_t kMaxBuffers = 32;
constexpr uint32_t kMetaBufferSize = 10240;
constexpr uint32_t kKernelVersion = (6u << 16) | (1u << 8);
constexpr int64_t kCatchUpPeriods = 4;  // later than this, missed periods are skipped

size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

void copy_text(uint8_t* dst, size_t cap, const char* src) {
    std::memset(dst, 0, cap);
    const size_t n = std::min(std::strlen(src), cap - 1);
    std::memcpy(dst, src, n);
}

int64_t period_ns(double fps) {
    return static_cast<int64_t>(std::llround(1e9 / fps));
}

void to_timeval(int64_t ns, struct timeval* tv) {
    tv->tv_sec = static_cast<time_t>(ns / 1000000000);
    tv->tv_usec = static_cast<suseconds_t>((ns % 1000000000) / 1000);
}

}  // namespace

BufferSet::~BufferSet() {
    if (base != nullptr) ::munmap(base, stride * count);
    if (memfd >= 0) ::close(memfd);
}

Camera::Camera(World& world, Kind kind, const kssim_camera_config& cfg, int video_index, int port,
               const std::string& by_id_base)
    : world_(world), kind_(kind), video_index_(video_index), port_(port), cfg_(cfg) {
    for (int n = 0; n < 2; ++n) {
        node_path_[n] = "/dev/video" + std::to_string(video_index + n);
        by_path_[n] = "pci-0000:00:14.0-usb-0:" + std::to_string(port) + ":1.0-video-index" +
                      std::to_string(n);
        by_id_[n] = "usb-" + by_id_base + "-video-index" + std::to_string(n);
        by_path_link_[n] = "/dev/v4l/by-path/" + by_path_[n];
        by_id_link_[n] = "/dev/v4l/by-id/" + by_id_[n];
    }
    std::lock_guard<std::mutex> lk(mu_);
    power_on();
}

Camera::~Camera() {
    std::unique_lock<std::mutex> lk(mu_);
    stop_producer(lk);
    drop_stream_claim();
}

// A freshly powered camera: initial size and channel, first frame id, its
// clock starting at zero.
void Camera::power_on() {
    width_ = cfg_.initial_size.width;
    height_ = cfg_.initial_size.height;
    output_size_ = cfg_.initial_size;
    readout_ = Readout{};
    search_range_ = 0;
    channel_ = cfg_.output_channel;
    frame_id_ = cfg_.first_frame_id & kFrameIdMask;
    plug_ns_ = world_.clock().mono_ns();
    pipeline_running_ = true;
    pipeline_from_ns_ = 0;
    brightness_ = 0;
    frame_.reset();
}

kssim_camera_config Camera::config() const {
    std::lock_guard<std::mutex> lk(mu_);
    return cfg_;
}

// ---- node layer ---------------------------------------------------------------

OpenFile::~OpenFile() {
    if (lock_fd >= 0) ::close(lock_fd);  // drops the lock with the descriptor
}

void Camera::set_stream_claim_file(const std::string& path) {
    std::lock_guard<std::mutex> lk(mu_);
    claim_path_ = path;
}

bool Camera::claim_stream() {
    if (claim_path_.empty() || claim_fd_ >= 0) return true;
    const int fd = ::open(claim_path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return true;  // nothing to share through: this process decides
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;
    }
    claim_fd_ = fd;
    return true;
}

void Camera::drop_stream_claim() {
    if (claim_fd_ >= 0) ::close(claim_fd_);
    claim_fd_ = -1;
}

void Camera::attach(const std::shared_ptr<OpenFile>& f) {
    std::lock_guard<std::mutex> lk(mu_);
    f->instance = instance_;
    files_.push_back(f);
    refresh_ready();
}

void Camera::detach(OpenFile& f) {
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    std::unique_lock<std::mutex> lk(mu_);
    if (owner_ == &f) {
        // Closing the queue's owner stops the stream and frees the buffers
        // (host mappings stay valid until unmapped).
        release_queue(lk);
    }
    files_.erase(std::remove_if(files_.begin(), files_.end(),
                                [&](const std::shared_ptr<OpenFile>& p) { return p.get() == &f; }),
                 files_.end());
    cv_.notify_all();
}

uint64_t Camera::instance_now() const {
    std::lock_guard<std::mutex> lk(mu_);
    return instance_;
}

void Camera::poll_state(const OpenFile& f, bool* readable, bool* error) {
    std::lock_guard<std::mutex> lk(mu_);
    poll_state_locked(f, readable, error);
}

void Camera::poll_state_locked(const OpenFile& f, bool* readable, bool* error) const {
    // Like a V4L2 queue: an error (not streaming, device gone) polls as
    // readable; while streaming only a filled buffer makes it readable.
    const bool gone = f.instance != instance_ || !plugged();
    bool err = gone;
    bool data = false;
    if (!gone) {
        if (f.node == NodeKind::Meta) {
            err = true;
        } else {
            err = !streaming_;
            data = streaming_ && !done_.empty();
        }
    }
    *readable = err || data;
    *error = err;
}

void Camera::refresh_ready() {
    for (const auto& f : files_) {
        bool readable = false, error = false;
        poll_state_locked(*f, &readable, &error);
        if (readable == f->signalled) continue;
        if (readable) {
            eventfd_write(f->fd, 1);
        } else {
            eventfd_t v;
            eventfd_read(f->fd, &v);
        }
        f->signalled = readable;
    }
}

uint32_t Camera::fourcc() const {
    return kind_ == Kind::Webcam ? V4L2_PIX_FMT_YUYV : V4L2_PIX_FMT_BGR24;
}

uint32_t Camera::bytes_per_pixel() const {
    return kind_ == Kind::Webcam ? 2 : 3;
}

size_t Camera::sizeimage() const {
    return static_cast<size_t>(width_) * height_ * bytes_per_pixel();
}

uint32_t Camera::device_caps(NodeKind n) const {
    if (n == NodeKind::Meta)
        return V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    uint32_t caps = V4L2_CAP_EXT_PIX_FORMAT;
    if (cfg_.planes != KSSIM_PLANES_MULTI) caps |= V4L2_CAP_VIDEO_CAPTURE;
    if (cfg_.planes != KSSIM_PLANES_SINGLE) caps |= V4L2_CAP_VIDEO_CAPTURE_MPLANE;
    if (cfg_.streaming_cap) caps |= V4L2_CAP_STREAMING;
    return caps;
}

bool Camera::capture_type_ok(uint32_t type) const {
    if (type == V4L2_BUF_TYPE_VIDEO_CAPTURE) return cfg_.planes != KSSIM_PLANES_MULTI;
    if (type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE) return cfg_.planes != KSSIM_PLANES_SINGLE;
    return false;
}

int Camera::ioctl(OpenFile& f, unsigned long request, void* arg) {
    switch (request) {
        case VIDIOC_QUERYCAP:
        case VIDIOC_ENUM_FMT:
        case VIDIOC_G_FMT:
        case VIDIOC_S_FMT:
        case VIDIOC_TRY_FMT:
        case VIDIOC_REQBUFS:
        case VIDIOC_QUERYBUF:
        case VIDIOC_QBUF:
        case VIDIOC_DQBUF:
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
        case VIDIOC_G_PARM:
        case VIDIOC_S_PARM:
        case VIDIOC_ENUM_FRAMESIZES:
        case VIDIOC_ENUM_FRAMEINTERVALS:
        case UVCIOC_CTRL_QUERY:
            break;
        default:
            return plugged() && f.instance == instance_now() ? -ENOTTY : -ENODEV;
    }
    if (request == VIDIOC_DQBUF) {
        // A blocking dequeue waits without the request lock, so that another
        // thread can stop the stream meanwhile.
        if (arg == nullptr) return -EFAULT;
        if (f.node != NodeKind::Capture) {
            std::lock_guard<std::mutex> lk(mu_);
            return f.instance != instance_ || !plugged() ? -ENODEV : -EINVAL;
        }
        return dqbuf(f, arg);
    }
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (f.instance != instance_ || !plugged()) return -ENODEV;
    }
    if (arg == nullptr) return -EFAULT;
    switch (request) {
        case VIDIOC_QUERYCAP:
            return querycap(f, arg);
        case VIDIOC_ENUM_FMT:
            return enum_fmt(f, arg);
        case VIDIOC_G_FMT:
            return get_fmt(f, arg);
        case VIDIOC_S_FMT:
            return set_fmt(f, arg, false);
        case VIDIOC_TRY_FMT:
            return set_fmt(f, arg, true);
        case VIDIOC_G_PARM:
        case VIDIOC_S_PARM:
            return parm(f, arg);
        case UVCIOC_CTRL_QUERY:
            if (xu_ == nullptr || f.node != NodeKind::Capture) return -ENOTTY;
            return xu_->query(*this, *static_cast<struct uvc_xu_control_query*>(arg));
        default:
            break;
    }
    // The rest belongs to the capture node's buffer queue.
    if (f.node != NodeKind::Capture) {
        if (request == VIDIOC_ENUM_FRAMESIZES || request == VIDIOC_ENUM_FRAMEINTERVALS)
            return -ENOTTY;
        return -EINVAL;  // the metadata queue is not modelled
    }
    switch (request) {
        case VIDIOC_ENUM_FRAMESIZES:
            return enum_framesizes(f, arg);
        case VIDIOC_ENUM_FRAMEINTERVALS:
            return enum_frameintervals(f, arg);
        case VIDIOC_REQBUFS:
            return reqbufs(f, arg);
        case VIDIOC_QUERYBUF:
            return querybuf(f, arg);
        case VIDIOC_QBUF:
            return qbuf(f, arg);
        case VIDIOC_DQBUF:
            return dqbuf(f, arg);
        case VIDIOC_STREAMON:
            return streamon(f, arg);
        case VIDIOC_STREAMOFF:
            return streamoff(f, arg);
        default:
            return -ENOTTY;
    }
}

int Camera::querycap(OpenFile& f, void* arg) {
    std::lock_guard<std::mutex> lk(mu_);
    int32_t err = 0;
    if (take_fault(KSSIM_FAULT_QUERYCAP_FAIL, &err)) return -(err > 0 ? err : EIO);
    auto* cap = static_cast<struct v4l2_capability*>(arg);
    std::memset(cap, 0, sizeof(*cap));
    copy_text(cap->driver, sizeof(cap->driver), "uvcvideo");
    copy_text(cap->card, sizeof(cap->card), cfg_.card);
    const std::string bus = "usb-0000:00:14.0-" + std::to_string(port_);
    copy_text(cap->bus_info, sizeof(cap->bus_info), bus.c_str());
    cap->version = kKernelVersion;
    cap->device_caps = device_caps(f.node);
    cap->capabilities =
        device_caps(NodeKind::Capture) | device_caps(NodeKind::Meta) | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int Camera::enum_fmt(OpenFile& f, void* arg) {
    auto* d = static_cast<struct v4l2_fmtdesc*>(arg);
    const uint32_t index = d->index, type = d->type;
    if (index != 0) return -EINVAL;
    std::lock_guard<std::mutex> lk(mu_);
    std::memset(d, 0, sizeof(*d));
    d->index = index;
    d->type = type;
    if (f.node == NodeKind::Meta) {
        if (type != V4L2_BUF_TYPE_META_CAPTURE) return -EINVAL;
        d->pixelformat = V4L2_META_FMT_UVC;
        copy_text(d->description, sizeof(d->description), "UVC Payload Header Metadata");
        return 0;
    }
    if (!capture_type_ok(type)) return -EINVAL;
    d->pixelformat = fourcc();
    copy_text(d->description, sizeof(d->description),
              kind_ == Kind::Webcam ? "YUYV 4:2:2" : "24-bit BGR 8-8-8");
    return 0;
}

std::vector<kssim_frame_size> Camera::offered_sizes() const {
    if (kind_ == Kind::Stereo) return {output_size_};
    return std::vector<kssim_frame_size>(cfg_.sizes, cfg_.sizes + cfg_.size_count);
}

int Camera::enum_framesizes(OpenFile&, void* arg) {
    auto* s = static_cast<struct v4l2_frmsizeenum*>(arg);
    std::lock_guard<std::mutex> lk(mu_);
    const std::vector<kssim_frame_size> sizes = offered_sizes();
    if (s->pixel_format != fourcc() || s->index >= sizes.size()) return -EINVAL;
    const uint32_t index = s->index, pf = s->pixel_format;
    std::memset(s, 0, sizeof(*s));
    s->index = index;
    s->pixel_format = pf;
    s->type = V4L2_FRMSIZE_TYPE_DISCRETE;
    s->discrete.width = sizes[index].width;
    s->discrete.height = sizes[index].height;
    return 0;
}

int Camera::enum_frameintervals(OpenFile&, void* arg) {
    auto* iv = static_cast<struct v4l2_frmivalenum*>(arg);
    std::lock_guard<std::mutex> lk(mu_);
    if (iv->pixel_format != fourcc() || iv->index != 0) return -EINVAL;
    bool found = false;
    for (const kssim_frame_size& s : offered_sizes())
        found = found || (s.width == iv->width && s.height == iv->height);
    if (!found) return -EINVAL;
    iv->type = V4L2_FRMIVAL_TYPE_DISCRETE;
    // UVC frame intervals are in units of 100 ns.
    iv->discrete.numerator = static_cast<uint32_t>(std::llround(1e7 / cfg_.fps));
    iv->discrete.denominator = 10000000;
    return 0;
}

// Fills the reply of G_FMT/S_FMT/TRY_FMT for a capture type.
static void fill_pix_format(struct v4l2_format* fmt, uint32_t width, uint32_t height,
                            uint32_t pixelformat, uint32_t bytes_per_pixel) {
    const uint32_t type = fmt->type;
    const uint32_t bpl = width * bytes_per_pixel;
    std::memset(&fmt->fmt, 0, sizeof(fmt->fmt));
    fmt->type = type;
    if (type == V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        fmt->fmt.pix.width = width;
        fmt->fmt.pix.height = height;
        fmt->fmt.pix.pixelformat = pixelformat;
        fmt->fmt.pix.field = V4L2_FIELD_NONE;
        fmt->fmt.pix.bytesperline = bpl;
        fmt->fmt.pix.sizeimage = bpl * height;
        fmt->fmt.pix.colorspace = V4L2_COLORSPACE_SRGB;
    } else {
        fmt->fmt.pix_mp.width = width;
        fmt->fmt.pix_mp.height = height;
        fmt->fmt.pix_mp.pixelformat = pixelformat;
        fmt->fmt.pix_mp.field = V4L2_FIELD_NONE;
        fmt->fmt.pix_mp.colorspace = V4L2_COLORSPACE_SRGB;
        fmt->fmt.pix_mp.num_planes = 1;
        fmt->fmt.pix_mp.plane_fmt[0].bytesperline = bpl;
        fmt->fmt.pix_mp.plane_fmt[0].sizeimage = bpl * height;
    }
}

int Camera::get_fmt(OpenFile& f, void* arg) {
    auto* fmt = static_cast<struct v4l2_format*>(arg);
    std::lock_guard<std::mutex> lk(mu_);
    if (f.node == NodeKind::Meta) {
        if (fmt->type != V4L2_BUF_TYPE_META_CAPTURE) return -EINVAL;
        std::memset(&fmt->fmt, 0, sizeof(fmt->fmt));
        fmt->fmt.meta.dataformat = V4L2_META_FMT_UVC;
        fmt->fmt.meta.buffersize = kMetaBufferSize;
        return 0;
    }
    if (!capture_type_ok(fmt->type)) return -EINVAL;
    int32_t value = 0;
    if (take_fault(KSSIM_FAULT_G_FMT_FAIL, &value)) return -(value > 0 ? value : EIO);
    uint32_t pf = fourcc();
    if (take_fault(KSSIM_FAULT_OTHER_PIXFMT, &value))
        pf = value != 0 ? static_cast<uint32_t>(value) : V4L2_PIX_FMT_YUYV;
    fill_pix_format(fmt, width_, height_, pf, bytes_per_pixel());
    return 0;
}

int Camera::set_fmt(OpenFile& f, void* arg, bool try_only) {
    auto* fmt = static_cast<struct v4l2_format*>(arg);
    if (f.node == NodeKind::Meta) {
        if (fmt->type != V4L2_BUF_TYPE_META_CAPTURE) return -EINVAL;
        return get_fmt(f, arg);  // one fixed format
    }
    std::lock_guard<std::mutex> lk(mu_);
    if (!capture_type_ok(fmt->type)) return -EINVAL;
    const bool single = fmt->type == V4L2_BUF_TYPE_VIDEO_CAPTURE;
    const uint64_t req_w =
        std::min<uint64_t>(single ? fmt->fmt.pix.width : fmt->fmt.pix_mp.width, 65535);
    const uint64_t req_h =
        std::min<uint64_t>(single ? fmt->fmt.pix.height : fmt->fmt.pix_mp.height, 65535);
    int32_t value = 0;
    if (!try_only) {
        if ((owner_ != nullptr && owner_ != &f) || bufs_ != nullptr || streaming_) return -EBUSY;
        // Another process streams from the node.
        if (owner_ == nullptr) {
            if (!claim_stream()) return -EBUSY;
            drop_stream_claim();
        }
        if (take_fault(KSSIM_FAULT_S_FMT_FAIL, &value)) return -(value > 0 ? value : EIO);
    }
    // The driver's adjustment: its one pixel format whatever was asked for,
    // and the frame size that differs least in area from the request.
    uint64_t best = UINT64_MAX;
    uint16_t w = 0, h = 0;
    for (const kssim_frame_size& s : offered_sizes()) {
        const uint64_t sw = s.width, sh = s.height;
        const uint64_t overlap = std::min(req_w, sw) * std::min(req_h, sh);
        const uint64_t d = req_w * req_h + sw * sh - 2 * overlap;
        if (d < best) {
            best = d;
            w = s.width;
            h = s.height;
        }
    }
    uint32_t pf = fourcc();
    if (!try_only) {
        if (w != width_ || h != height_) frame_.reset();
        width_ = w;
        height_ = h;
        if (take_fault(KSSIM_FAULT_OTHER_PIXFMT, &value))
            pf = value != 0 ? static_cast<uint32_t>(value) : V4L2_PIX_FMT_YUYV;
    }
    fill_pix_format(fmt, w, h, pf, bytes_per_pixel());
    return 0;
}

int Camera::parm(OpenFile& f, void* arg) {
    auto* p = static_cast<struct v4l2_streamparm*>(arg);
    std::lock_guard<std::mutex> lk(mu_);
    if (f.node != NodeKind::Capture || !capture_type_ok(p->type)) return -EINVAL;
    // The frame rate is the sensors' (set through the control channel); a
    // request to change it is answered with the rate in force.
    const uint32_t type = p->type;
    std::memset(p, 0, sizeof(*p));
    p->type = type;
    p->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    p->parm.capture.timeperframe.numerator = static_cast<uint32_t>(std::llround(1e7 / cfg_.fps));
    p->parm.capture.timeperframe.denominator = 10000000;
    p->parm.capture.readbuffers = 0;
    return 0;
}

// ---- buffer queue ---------------------------------------------------------------

void Camera::stop_producer(std::unique_lock<std::mutex>& lk) {
    stop_ = true;
    cv_.notify_all();
    std::thread t = std::move(producer_);
    lk.unlock();
    if (t.joinable()) t.join();
    lk.lock();
    stop_ = false;
}

void Camera::stream_off(std::unique_lock<std::mutex>& lk) {
    if (streaming_) {
        streaming_ = false;
        stop_producer(lk);
    }
    for (auto& b : bstate_) b = BufState{};
    queued_.clear();
    done_.clear();
    refresh_ready();
    cv_.notify_all();
}

void Camera::release_queue(std::unique_lock<std::mutex>& lk) {
    stream_off(lk);
    bufs_.reset();
    bstate_.clear();
    owner_ = nullptr;
    drop_stream_claim();
    buf_type_ = 0;
}

int Camera::reqbufs(OpenFile& f, void* arg) {
    auto* r = static_cast<struct v4l2_requestbuffers*>(arg);
    std::unique_lock<std::mutex> lk(mu_);
    if (!capture_type_ok(r->type) || r->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    if (owner_ != nullptr && owner_ != &f) return -EBUSY;
    if (streaming_) return -EBUSY;
    release_queue(lk);
    r->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
    if (r->count == 0) return 0;
    if (!claim_stream()) return -EBUSY;  // another process streams from the node
    uint32_t grant = std::min({r->count, cfg_.max_buffers, kMaxBuffers});
    int32_t fewer = 0;
    if (take_fault(KSSIM_FAULT_FEWER_BUFFERS, &fewer))
        grant = std::min(grant, static_cast<uint32_t>(fewer > 0 ? fewer : 4));
    auto set = std::make_shared<BufferSet>();
    set->buf_size = sizeimage();
    const size_t page = page_size();
    set->stride = (set->buf_size + page - 1) / page * page;
    set->count = grant;
    set->memfd = memfd_create("kssim-buffers", MFD_CLOEXEC);
    if (set->memfd < 0 || ftruncate(set->memfd, static_cast<off_t>(set->stride * grant)) != 0)
        return -ENOMEM;
    void* base =
        ::mmap(nullptr, set->stride * grant, PROT_READ | PROT_WRITE, MAP_SHARED, set->memfd, 0);
    if (base == MAP_FAILED) return -ENOMEM;
    set->base = static_cast<uint8_t*>(base);
    set->mapped.reset(new std::atomic<uint32_t>[grant]);
    for (uint32_t i = 0; i < grant; ++i) set->mapped[i].store(0);
    bufs_ = set;
    bstate_.assign(grant, BufState{});
    owner_ = &f;
    buf_type_ = r->type;
    r->count = grant;
    return 0;
}

// Validates the buffer argument of QUERYBUF/QBUF/DQBUF (caller holds mu_).
static int check_buffer_arg(const struct v4l2_buffer* b, uint32_t queue_type, bool need_index,
                            uint32_t count) {
    if (b->type != queue_type) return -EINVAL;
    if (b->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    if (need_index && b->index >= count) return -EINVAL;
    if (queue_type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE) {
        if (b->m.planes == nullptr) return -EFAULT;
        if (b->length < 1 || b->length > VIDEO_MAX_PLANES) return -EINVAL;
    }
    return 0;
}

void Camera::fill_buffer(void* arg, uint32_t index) {
    auto* b = static_cast<struct v4l2_buffer*>(arg);
    const BufState& s = bstate_[index];
    struct v4l2_plane* planes =
        b->type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE ? b->m.planes : nullptr;
    const uint32_t type = b->type;
    std::memset(b, 0, sizeof(*b));
    b->index = index;
    b->type = type;
    b->memory = V4L2_MEMORY_MMAP;
    b->field = V4L2_FIELD_NONE;
    b->flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_SOE;
    if (bufs_->mapped[index].load() > 0) b->flags |= V4L2_BUF_FLAG_MAPPED;
    if (s.state == BufState::Queued || s.state == BufState::Filling)
        b->flags |= V4L2_BUF_FLAG_QUEUED;
    if (s.state == BufState::Done) b->flags |= V4L2_BUF_FLAG_DONE;
    b->sequence = s.sequence;
    to_timeval(s.timestamp_ns, &b->timestamp);
    const uint32_t offset = static_cast<uint32_t>(index * bufs_->stride);
    const uint32_t length = static_cast<uint32_t>(bufs_->buf_size);
    if (planes != nullptr) {
        b->m.planes = planes;
        b->length = 1;
        std::memset(&planes[0], 0, sizeof(planes[0]));
        planes[0].bytesused = s.bytesused;
        planes[0].length = length;
        planes[0].m.mem_offset = offset;
    } else {
        b->bytesused = s.bytesused;
        b->m.offset = offset;
        b->length = length;
    }
}

int Camera::querybuf(OpenFile&, void* arg) {
    auto* b = static_cast<struct v4l2_buffer*>(arg);
    std::lock_guard<std::mutex> lk(mu_);
    if (bufs_ == nullptr) return -EINVAL;
    if (int e = check_buffer_arg(b, buf_type_, true, bufs_->count)) return e;
    fill_buffer(arg, b->index);
    return 0;
}

int Camera::qbuf(OpenFile& f, void* arg) {
    auto* b = static_cast<struct v4l2_buffer*>(arg);
    std::lock_guard<std::mutex> lk(mu_);
    if (owner_ != nullptr && owner_ != &f) return -EBUSY;
    if (bufs_ == nullptr) return -EINVAL;
    if (int e = check_buffer_arg(b, buf_type_, true, bufs_->count)) return e;
    const uint32_t index = b->index;
    if (bstate_[index].state != BufState::Dequeued) return -EINVAL;
    bstate_[index] = BufState{};
    bstate_[index].state = BufState::Queued;
    queued_.push_back(index);
    fill_buffer(arg, index);
    return 0;
}

int Camera::dqbuf(OpenFile& f, void* arg) {
    auto* b = static_cast<struct v4l2_buffer*>(arg);
    std::unique_lock<std::mutex> lk(mu_);
    if (f.instance != instance_ || !plugged()) return -ENODEV;
    if (owner_ != nullptr && owner_ != &f) return -EBUSY;
    if (bufs_ == nullptr) return -EINVAL;
    if (int e = check_buffer_arg(b, buf_type_, false, bufs_->count)) return e;
    for (;;) {
        if (f.instance != instance_ || !plugged()) return -ENODEV;
        if (!streaming_) return -EINVAL;
        if (!done_.empty()) break;
        if (f.nonblock) return -EAGAIN;
        cv_.wait(lk);
    }
    const uint32_t index = done_.front();
    done_.pop_front();
    bstate_[index].state = BufState::Dequeued;  // reported as the application's again
    fill_buffer(arg, index);
    refresh_ready();
    return 0;
}

int Camera::streamon(OpenFile& f, void* arg) {
    const uint32_t type = *static_cast<const uint32_t*>(arg);
    std::unique_lock<std::mutex> lk(mu_);
    if (!capture_type_ok(type)) return -EINVAL;
    if (owner_ != nullptr && owner_ != &f) return -EBUSY;
    if (bufs_ == nullptr || type != buf_type_) return -EINVAL;
    if (streaming_) return 0;
    frame_source(lk);  // render before the camera's clock starts counting frames
    streaming_ = true;
    sequence_ = 0;
    next_due_ns_ = world_.clock().mono_ns() + period_ns(cfg_.fps);
    stop_ = false;
    producer_ = std::thread(&Camera::producer_main, this);
    refresh_ready();
    return 0;
}

int Camera::streamoff(OpenFile& f, void* arg) {
    const uint32_t type = *static_cast<const uint32_t*>(arg);
    std::unique_lock<std::mutex> lk(mu_);
    if (!capture_type_ok(type)) return -EINVAL;
    if (owner_ != nullptr && owner_ != &f) return -EBUSY;
    if (bufs_ != nullptr && type != buf_type_) return -EINVAL;
    stream_off(lk);
    return 0;
}

void* Camera::map(OpenFile& f, void* addr, size_t length, int prot, int flags, off_t offset,
                  std::shared_ptr<BufferSet>* set, uint32_t* index, int* err) {
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    std::lock_guard<std::mutex> lk(mu_);
    if (f.instance != instance_ || !plugged()) {
        *err = ENODEV;
        return MAP_FAILED;
    }
    if (f.node != NodeKind::Capture || bufs_ == nullptr || length == 0 ||
        (flags & MAP_SHARED) == 0 || (prot & PROT_READ) == 0 || offset < 0) {
        *err = EINVAL;
        return MAP_FAILED;
    }
    const size_t off = static_cast<size_t>(offset);
    if (off % bufs_->stride != 0 || off / bufs_->stride >= bufs_->count || length > bufs_->stride) {
        *err = EINVAL;
        return MAP_FAILED;
    }
    void* p = ::mmap(addr, length, prot, flags, bufs_->memfd, offset);
    if (p == MAP_FAILED) {
        *err = errno;
        return MAP_FAILED;
    }
    *index = static_cast<uint32_t>(off / bufs_->stride);
    bufs_->mapped[*index].fetch_add(1);
    *set = bufs_;
    return p;
}

// ---- producer ---------------------------------------------------------------------

// Our cameras send what the ASIC outputs, whatever the node's format (a
// frame that does not fit the buffers arrives cut or short); a webcam sends
// the format set.
FrameParams Camera::frame_params() const {
    FrameParams f;
    f.scene = cfg_.scene;
    f.width = kind_ == Kind::Stereo ? output_size_.width : width_;
    f.height = kind_ == Kind::Stereo ? output_size_.height : height_;
    f.bxf = cfg_.bxf;
    f.baseline = cfg_.baseline;
    f.readout = readout_;
    f.channel = channel_;
    f.brightness = brightness_;
    f.search_range = search_range_;
    return f;
}

std::shared_ptr<const SourceFrame> Camera::frame_source(std::unique_lock<std::mutex>& lk) {
    if (frame_ != nullptr) return frame_;
    const FrameParams params = frame_params();
    const Kind kind = kind_;
    lk.unlock();  // rendering can take a while; it is cached by the world
    std::shared_ptr<const SourceFrame> fr = kind == Kind::Webcam
                                                ? flat_yuyv_frame(params.width, params.height)
                                                : world_.frames().get(params);
    lk.lock();
    if (params == frame_params()) frame_ = fr;  // keep it only if nothing changed meanwhile
    return fr;
}

namespace {

int64_t host_clock_ns(clockid_t id) {
    struct timespec ts;
    ::clock_gettime(id, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

void Camera::producer_main() {
    std::unique_lock<std::mutex> lk(mu_);
    producer_cpu_now_ns_.store(0, std::memory_order_relaxed);
    while (!stop_) {
        producer_cpu_now_ns_.store(static_cast<uint64_t>(host_clock_ns(CLOCK_THREAD_CPUTIME_ID)),
                                   std::memory_order_relaxed);
        const int64_t now = world_.clock().mono_ns();
        if (now < next_due_ns_) {
            const int64_t wait =
                std::max<int64_t>(world_.clock().to_real_ns(next_due_ns_ - now), 1000);
            cv_.wait_for(lk, std::chrono::nanoseconds(std::min<int64_t>(wait, 200000000)));
            continue;
        }
        const int64_t period = period_ns(cfg_.fps);
        int64_t due = next_due_ns_;
        if (!pipeline_running_ || due < pipeline_from_ns_) {
            // The ASIC or the sensors are off: the periods pass without frames.
            next_due_ns_ = std::max(due, now - period) + period;
            continue;
        }
        if (now - due > kCatchUpPeriods * period) {
            // Far behind (a suspended process, a warp beyond what the host
            // can copy): the camera went on sending; those frames were lost.
            const int64_t missed = (now - due) / period;
            due += missed * period;
            stats_.frames_produced += static_cast<uint64_t>(missed);
            stats_.frames_dropped += static_cast<uint64_t>(missed);
            sequence_ += static_cast<uint32_t>(missed);
            if (!fault_on(KSSIM_FAULT_FROZEN_FRAME_ID))
                frame_id_ = (frame_id_ + static_cast<uint64_t>(missed)) & kFrameIdMask;
        }
        next_due_ns_ = due + period;
        emit_frame(lk, due);
    }
    producer_cpu_done_ns_.fetch_add(static_cast<uint64_t>(host_clock_ns(CLOCK_THREAD_CPUTIME_ID)),
                                    std::memory_order_relaxed);
    producer_cpu_now_ns_.store(0, std::memory_order_relaxed);
}

// The id of the next frame and the per-frame faults (caller holds mu_).
Camera::FrameStamp Camera::next_stamp() {
    FrameStamp st;
    st.id = frame_id_;
    if (!take_fault(KSSIM_FAULT_FROZEN_FRAME_ID, nullptr))
        frame_id_ = (frame_id_ + 1) & kFrameIdMask;
    int32_t marker = 0;
    st.bad_marker = take_fault(KSSIM_FAULT_BAD_MARKER, &marker);
    st.marker = static_cast<uint8_t>(marker);
    int32_t late = 0;
    if (take_fault(KSSIM_FAULT_LATE_FRAME, &late)) st.late = late > 0 ? uint32_t(late) : 1;
    return st;
}

size_t Camera::write_frame(uint8_t* dst, size_t size, const SourceFrame& src, const FrameStamp& st,
                           uint64_t ts_us) const {
    const size_t n = std::min(size, src.bytes.size());
    // A late frame: zeros first, its own bytes after them, its tail cut.
    const size_t late = std::min<size_t>(st.late, n);
    std::memset(dst, 0, late);
    uint8_t* frame = dst + late;
    std::memcpy(frame, src.bytes.data(), n - late);
    if (kind_ == Kind::Stereo) {
        stamp_frame(frame, n - late, st.id, ts_us);
        if (st.bad_marker && n > late) frame[0] = st.marker;
    }
    return n;
}

void Camera::emit_frame(std::unique_lock<std::mutex>& lk, int64_t due_ns) {
    if (take_fault(KSSIM_FAULT_STALL, nullptr)) return;
    if (!pipeline_running_ || due_ns < pipeline_from_ns_) return;
    std::shared_ptr<const SourceFrame> src = frame_source(lk);
    if (stop_) return;
    const uint32_t seq = sequence_++;
    const FrameStamp st = next_stamp();
    if (queued_.empty()) {
        ++stats_.frames_produced;
        ++stats_.frames_dropped;
        return;
    }
    const uint32_t index = queued_.front();
    queued_.pop_front();
    bstate_[index].state = BufState::Filling;
    std::shared_ptr<BufferSet> set = bufs_;
    const uint64_t ts_us = static_cast<uint64_t>(std::max<int64_t>(due_ns - plug_ns_, 0)) / 1000;
    lk.unlock();
    const size_t n = write_frame(set->base + index * set->stride, set->buf_size, *src, st, ts_us);
    lk.lock();
    ++stats_.frames_produced;
    if (set != bufs_ || bstate_[index].state != BufState::Filling) {
        ++stats_.frames_dropped;  // the queue went away meanwhile
        return;
    }
    BufState& b = bstate_[index];
    b.state = BufState::Done;
    b.bytesused = static_cast<uint32_t>(n);
    b.sequence = seq;
    b.timestamp_ns = due_ns;
    done_.push_back(index);
    ready_times_[ready_next_] =
        ReadyTime{static_cast<uint32_t>(st.id), host_clock_ns(CLOCK_MONOTONIC)};
    ready_next_ = (ready_next_ + 1) % kReadyTimes;
    ++stats_.frames_delivered;
    refresh_ready();
    cv_.notify_all();
}

long Camera::produce_frame(uint8_t* dst, size_t size) {
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    std::unique_lock<std::mutex> lk(mu_);
    const FrameParams params = frame_params();
    const size_t need =
        static_cast<size_t>(params.width) * static_cast<size_t>(params.height) * bytes_per_pixel();
    if (dst == nullptr || size < need) return -1;
    std::shared_ptr<const SourceFrame> src = frame_source(lk);
    const FrameStamp st = next_stamp();
    const uint64_t ts_us =
        static_cast<uint64_t>(std::max<int64_t>(world_.clock().mono_ns() - plug_ns_, 0)) / 1000;
    lk.unlock();
    return static_cast<long>(write_frame(dst, need, *src, st, ts_us));
}

bool Camera::frame_ready_ns(uint32_t frame_id, int64_t* host_ns) const {
    std::lock_guard<std::mutex> lk(mu_);
    for (const ReadyTime& r : ready_times_) {
        if (r.host_ns >= 0 && r.id == frame_id) {
            *host_ns = r.host_ns;
            return true;
        }
    }
    return false;
}

uint64_t Camera::producer_cpu_ns() const {
    return producer_cpu_done_ns_.load(std::memory_order_relaxed) +
           producer_cpu_now_ns_.load(std::memory_order_relaxed);
}

void Camera::wake() {
    std::lock_guard<std::mutex> lk(mu_);
    cv_.notify_all();
}

// ---- settings ---------------------------------------------------------------------

int Camera::set_output_channel(uint8_t channel) {
    if (!is_known_channel(channel)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    if (channel != channel_) frame_.reset();
    channel_ = channel;
    return 0;
}

uint8_t Camera::output_channel() const {
    std::lock_guard<std::mutex> lk(mu_);
    return channel_;
}

int Camera::set_frame_rate(double fps) {
    if (!(fps > 0 && fps <= 1000)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    cfg_.fps = fps;
    cv_.notify_all();
    return 0;
}

double Camera::frame_rate() const {
    std::lock_guard<std::mutex> lk(mu_);
    return cfg_.fps;
}

int Camera::set_scene(const kssim_scene& scene) {
    if (scene.kind != KSSIM_SCENE_WALL && scene.kind != KSSIM_SCENE_ROOM &&
        scene.kind != KSSIM_SCENE_BACKLIT)
        return -1;
    if (!(scene.distance_mm >= 0) || scene.distance_mm > 1e6) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    cfg_.scene = Scene::normalized(scene);
    frame_.reset();
    scene_.reset();
    return 0;
}

void Camera::set_extension_unit(std::unique_ptr<ExtensionUnit> unit) {
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    xu_ = std::move(unit);
}

int Camera::set_stereo_constants(double bxf, double baseline) {
    if (!(bxf > 0 && bxf * 4096.0 < 4294967296.0)) return -1;
    if (!(baseline > 0 && baseline * 128.0 < 65536.0)) return -1;
    std::lock_guard<std::mutex> lk(mu_);
    if (bxf != cfg_.bxf || baseline != cfg_.baseline) {
        frame_.reset();
        scene_.reset();
    }
    cfg_.bxf = bxf;
    cfg_.baseline = baseline;
    return 0;
}

void Camera::set_output_size(uint16_t width, uint16_t height) {
    std::lock_guard<std::mutex> lk(mu_);
    if (width == output_size_.width && height == output_size_.height) return;
    output_size_ = {width, height};
    frame_.reset();
    if (bufs_ == nullptr) {
        width_ = width;
        height_ = height;
    }
}

void Camera::set_asic_output(const Readout& readout, int search_range) {
    std::lock_guard<std::mutex> lk(mu_);
    if (readout == readout_ && search_range == search_range_) return;
    readout_ = readout;
    search_range_ = search_range;
    frame_.reset();
}

void Camera::set_pipeline_running(bool running, int64_t from_ns) {
    std::lock_guard<std::mutex> lk(mu_);
    pipeline_running_ = running;
    pipeline_from_ns_ = from_ns;
    cv_.notify_all();
}

bool Camera::pipeline_running() const {
    std::lock_guard<std::mutex> lk(mu_);
    return pipeline_running_;
}

void Camera::set_brightness(int eighths) {
    eighths = std::clamp(eighths, -64, 64);
    std::lock_guard<std::mutex> lk(mu_);
    if (eighths != brightness_) frame_.reset();
    brightness_ = eighths;
}

int Camera::true_distance(uint32_t x, uint32_t y, double* mm) {
    std::shared_ptr<const Scene> scene;
    FrameParams f;
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (scene_ == nullptr) scene_ = std::make_shared<const Scene>(cfg_.scene);
        scene = scene_;
        f = frame_params();
    }
    if (mm == nullptr || x >= static_cast<uint32_t>(f.width) ||
        y >= static_cast<uint32_t>(f.height))
        return -1;
    *mm = true_depth(*scene, f.width, f.height, f.bxf, f.baseline, f.readout, x, y);
    return 0;
}

// ---- faults and plugging ------------------------------------------------------------

bool Camera::fault_on(kssim_fault_kind kind) {
    Fault& f = faults_[kind];
    if (f.active && f.until_ns != 0 && world_.clock().mono_ns() >= f.until_ns) f.active = false;
    return f.active;
}

bool Camera::take_fault(kssim_fault_kind kind, int32_t* value) {
    if (!fault_on(kind)) return false;
    Fault& f = faults_[kind];
    if (value != nullptr) *value = f.value;
    if (f.by_count && --f.left == 0) f.active = false;
    return true;
}

int Camera::inject_fault(const kssim_fault& in) {
    // The kind comes from a C caller: read it as a number before trusting it.
    int kind = 0;
    static_assert(sizeof(kind) == sizeof(in.kind), "enum size");
    std::memcpy(&kind, &in.kind, sizeof(kind));
    if (kind < 0 || kind >= KSSIM_FAULT_KIND_COUNT) return -1;
    const kssim_fault& armed = in;
    if (is_control_fault(kind)) {
        std::lock_guard<std::mutex> ctl(ctl_mu_);
        return xu_ != nullptr ? xu_->inject_fault(armed) : -1;
    }
    if (armed.kind == KSSIM_FAULT_FEWER_BUFFERS && (armed.value < 0 || armed.value > 32)) return -1;
    if (armed.kind == KSSIM_FAULT_BAD_MARKER && (armed.value < 0 || armed.value > 255)) return -1;
    if (armed.kind == KSSIM_FAULT_LATE_FRAME && (armed.value < 0 || armed.value > 2)) return -1;
    if ((armed.kind == KSSIM_FAULT_S_FMT_FAIL || armed.kind == KSSIM_FAULT_G_FMT_FAIL ||
         armed.kind == KSSIM_FAULT_QUERYCAP_FAIL) &&
        (armed.value < 0 || armed.value > 4095))
        return -1;
    if (armed.kind == KSSIM_FAULT_UNPLUG) {
        const int r = unplug();
        if (r != 0) return r;
        if (armed.duration_ms > 0)
            replug_at_ns_.store(world_.clock().mono_ns() + int64_t{armed.duration_ms} * 1000000,
                                std::memory_order_release);
        return 0;
    }
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    std::lock_guard<std::mutex> lk(mu_);
    Fault& f = faults_[armed.kind];
    f.active = true;
    f.by_count = armed.count > 0;
    f.left = armed.count;
    f.until_ns =
        armed.duration_ms > 0 ? world_.clock().mono_ns() + int64_t{armed.duration_ms} * 1000000 : 0;
    f.value = armed.value;
    return 0;
}

int Camera::clear_fault(kssim_fault_kind kind) {
    if (static_cast<int>(kind) < 0 || static_cast<int>(kind) >= KSSIM_FAULT_KIND_COUNT) return -1;
    if (kind == KSSIM_FAULT_UNPLUG) return plugged() ? 0 : replug();
    if (is_control_fault(kind)) {
        std::lock_guard<std::mutex> ctl(ctl_mu_);
        return xu_ != nullptr ? xu_->clear_fault(kind) : -1;
    }
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    std::lock_guard<std::mutex> lk(mu_);
    faults_[kind] = Fault{};
    return 0;
}

bool Camera::fault_active(kssim_fault_kind kind) {
    if (static_cast<int>(kind) < 0 || static_cast<int>(kind) >= KSSIM_FAULT_KIND_COUNT)
        return false;
    if (kind == KSSIM_FAULT_UNPLUG) return !plugged();
    if (is_control_fault(kind)) {
        std::lock_guard<std::mutex> ctl(ctl_mu_);
        return xu_ != nullptr && xu_->fault_active(kind);
    }
    std::lock_guard<std::mutex> lk(mu_);
    return fault_on(kind);
}

void Camera::unplug_locked(std::unique_lock<std::mutex>& lk) {
    plugged_.store(false, std::memory_order_release);
    // The queue dies with the device; descriptors stay open but dead.
    streaming_ = false;
    stop_producer(lk);
    for (auto& b : bstate_) b = BufState{};
    queued_.clear();
    done_.clear();
    bufs_.reset();
    bstate_.clear();
    owner_ = nullptr;
    drop_stream_claim();
    buf_type_ = 0;
    refresh_ready();  // every descriptor becomes readable
    ++instance_;
    cv_.notify_all();
}

int Camera::unplug() {
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    std::unique_lock<std::mutex> lk(mu_);
    if (!plugged()) return 0;
    unplug_locked(lk);
    return 0;
}

int Camera::replug() {
    std::lock_guard<std::mutex> ctl(ctl_mu_);
    {
        std::lock_guard<std::mutex> lk(mu_);
        replug_at_ns_.store(0, std::memory_order_release);
        if (plugged()) return 0;
        power_on();
        for (auto& f : faults_) f = Fault{};
    }
    // The controller and its chips power on before the host can see the
    // device again.
    if (xu_ != nullptr) xu_->plugged_in();
    plugged_.store(true, std::memory_order_release);
    return 0;
}

void Camera::tick(int64_t now_ns) {
    const int64_t at = replug_at_ns_.load(std::memory_order_acquire);
    if (at != 0 && now_ns >= at) replug();
}

kssim_camera_stats Camera::stats() {
    std::lock_guard<std::mutex> lk(mu_);
    kssim_camera_stats s = stats_;
    s.next_frame_id = frame_id_;
    s.open_files = static_cast<uint32_t>(files_.size());
    s.streaming = streaming_ ? 1 : 0;
    return s;
}

}  // namespace kssim
