#include "sim/sim_world.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/sim_device.h"

namespace kssim {

namespace {

constexpr const char* kV4lDir = "/dev/v4l";
constexpr const char* kByPathDir = "/dev/v4l/by-path";
constexpr const char* kByIdDir = "/dev/v4l/by-id";
constexpr unsigned kVideoMajor = 81;

std::atomic<World*> g_installed{nullptr};

// Lexical normalisation of an absolute path: no ".", "..", or repeated '/'.
std::string normalize(const std::string& abs) {
    std::vector<std::string> parts;
    size_t i = 0;
    while (i < abs.size()) {
        size_t j = abs.find('/', i);
        if (j == std::string::npos) j = abs.size();
        const std::string part = abs.substr(i, j - i);
        if (part.empty() || part == ".") {
        } else if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else {
            parts.push_back(part);
        }
        i = j + 1;
    }
    std::string out;
    for (const auto& p : parts) out += "/" + p;
    return out.empty() ? "/" : out;
}

struct dirent* make_dirent(const std::string& name, unsigned char type, long index) {
    auto* d = static_cast<struct dirent*>(std::calloc(1, sizeof(struct dirent)));
    if (d == nullptr) return nullptr;
    d->d_ino = static_cast<ino_t>(1000 + index);
    d->d_off = index + 1;
    d->d_reclen = sizeof(struct dirent);
    d->d_type = type;
    std::memcpy(d->d_name, name.c_str(), std::min(name.size(), sizeof(d->d_name) - 1));
    return d;
}

// ---- the backend: the seam's table, routed to the installed world -----------------

World* world() {
    World* w = g_installed.load(std::memory_order_acquire);
    if (w != nullptr) w->tick();
    return w;
}

int be_open(const char* path, int flags, mode_t mode) {
    World* w = world();
    return w ? w->open(path, flags, mode) : ::open(path, flags, mode);
}
int be_close(int fd) {
    World* w = world();
    return w ? w->close(fd) : ::close(fd);
}
int be_ioctl(int fd, unsigned long request, void* arg) {
    World* w = world();
    return w ? w->ioctl(fd, request, arg) : ::ioctl(fd, request, arg);
}
void* be_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    World* w = world();
    return w ? w->mmap(addr, length, prot, flags, fd, offset)
             : ::mmap(addr, length, prot, flags, fd, offset);
}
int be_munmap(void* addr, size_t length) {
    World* w = world();
    return w ? w->munmap(addr, length) : ::munmap(addr, length);
}
int be_select(int nfds, fd_set* r, fd_set* wr, fd_set* e, struct timeval* timeout) {
    World* w = world();
    return w ? w->select(nfds, r, wr, e, timeout) : ::select(nfds, r, wr, e, timeout);
}
int be_stat(const char* path, struct stat* st) {
    World* w = world();
    return w ? w->stat(path, st) : ::stat(path, st);
}
int be_scandir(const char* dir, struct dirent*** namelist, ks_scandir_filter_fn filter,
               ks_scandir_compar_fn compar) {
    World* w = world();
    return w ? w->scandir(dir, namelist, filter, compar) : ::scandir(dir, namelist, filter, compar);
}
char* be_realpath(const char* path, char* resolved) {
    World* w = world();
    return w ? w->realpath(path, resolved) : ::realpath(path, resolved);
}
int be_usleep(useconds_t usec) {
    World* w = world();
    return w ? w->clock().usleep(usec) : ::usleep(usec);
}
unsigned int be_sleep(unsigned int seconds) {
    World* w = world();
    return w ? w->clock().sleep(seconds) : ::sleep(seconds);
}
int be_flock(int fd, int operation) {
    World* w = world();
    return w ? w->flock(fd, operation) : ::flock(fd, operation);
}
int be_gettimeofday(struct timeval* tv, void*) {
    World* w = world();
    return w ? w->clock().gettimeofday(tv) : ::gettimeofday(tv, nullptr);
}
int be_clock_gettime(clockid_t id, struct timespec* ts) {
    World* w = world();
    return w ? w->clock().clock_gettime(id, ts) : ::clock_gettime(id, ts);
}

int be_futex_wait(const uint32_t* word, uint32_t expected, const struct timespec* timeout) {
    World* w = world();
    return w ? w->clock().futex_wait(word, expected, timeout)
             : host_futex_wait(word, expected, timeout);
}
int be_futex_wake(const uint32_t* word, int count) {
    return host_futex_wake(word, count);
}

const ks_platform_ops kBackend = {
    be_open,          be_close,   be_ioctl,      be_mmap,       be_munmap, be_select,
    be_stat,          be_scandir, be_realpath,   be_usleep,     be_sleep,  be_gettimeofday,
    be_clock_gettime, be_flock,   be_futex_wait, be_futex_wake,
};

}  // namespace

// ---- frame cache ---------------------------------------------------------------------

std::shared_ptr<const SourceFrame> FrameCache::get(const FrameParams& params) {
    const kssim_scene s = Scene::normalized(params.scene);
    const Readout& r = params.readout;
    const ViewKey vk{static_cast<int>(s.kind),
                     s.distance_mm,
                     s.seed,
                     params.width,
                     params.height,
                     params.bxf,
                     params.baseline,
                     r.column[0],
                     r.column[1],
                     r.line[0],
                     r.line[1]};
    const FrameKey fk{vk, params.channel, params.brightness, params.search_range};
    std::lock_guard<std::mutex> lk(mu_);
    auto fit = frames_.find(fk);
    if (fit != frames_.end()) return fit->second;
    std::shared_ptr<SceneView>& view = views_[vk];
    if (view == nullptr)
        view = render_view(Scene(s), params.width, params.height, params.bxf, params.baseline, r);
    std::shared_ptr<const SourceFrame> frame =
        encode_frame(*view, params.channel, params.brightness, params.search_range);
    if (params.brightness != 0 && frames_.size() >= 32) {
        // Exposure sweeps would fill memory: forget the other scaled frames
        // (cameras keep the one they use).
        for (auto it = frames_.begin(); it != frames_.end();)
            it = std::get<2>(it->first) != 0 ? frames_.erase(it) : std::next(it);
    }
    frames_[fk] = frame;
    return frame;
}

// ---- world ------------------------------------------------------------------------------

World::World() = default;

World::~World() {
    uninstall();
    std::vector<std::shared_ptr<OpenFile>> open;
    {
        std::lock_guard<std::mutex> lk(mu_);
        for (auto& kv : files_) open.push_back(kv.second);
        files_.clear();
    }
    for (auto& f : open) {
        f->camera->detach(*f);
        ::close(f->fd);
    }
    std::vector<std::unique_ptr<Camera>> cams;
    {
        std::lock_guard<std::mutex> lk(mu_);
        cams.swap(cameras_);
        mappings_.clear();
    }
    cams.clear();
    if (private_lock_dir_) {
        // Every descriptor is closed: the lock files go with their directory.
        if (DIR* d = ::opendir(lock_dir_.c_str())) {
            while (struct dirent* e = ::readdir(d))
                if (e->d_name[0] != '.') ::unlink((lock_dir_ + "/" + e->d_name).c_str());
            ::closedir(d);
        }
        ::rmdir(lock_dir_.c_str());
    }
}

int World::set_lock_dir(const std::string& dir) {
    if (dir.empty() || dir[0] != '/') return -1;
    std::vector<Camera*> cams;
    {
        std::lock_guard<std::mutex> lk(lock_mu_);
        if (lock_taken_) return -1;
        lock_dir_ = normalize(dir);
        private_lock_dir_ = false;
    }
    std::lock_guard<std::mutex> lk(mu_);
    for (auto& c : cameras_)
        c->set_stream_claim_file(lock_dir_ + "/video" + std::to_string(c->video_index()) +
                                 ".stream");
    return 0;
}

int World::flock(int fd, int operation) {
    std::shared_ptr<OpenFile> f = file(fd);
    if (f == nullptr) return ::flock(fd, operation);
    int lock_fd = -1;
    {
        std::lock_guard<std::mutex> lk(lock_mu_);
        lock_taken_ = true;
        if (lock_dir_.empty()) {
            char tmpl[] = "/tmp/kssim-locks-XXXXXX";
            if (::mkdtemp(tmpl) == nullptr) return -1;
            lock_dir_ = tmpl;
            private_lock_dir_ = true;
        }
        if (f->lock_fd < 0) {
            const std::string path = lock_dir_ + "/" +
                                     f->camera->node_path(f->node).substr(std::strlen("/dev/")) +
                                     ".lock";
            f->lock_fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            if (f->lock_fd < 0) return -1;
        }
        lock_fd = f->lock_fd;
    }
    // Waits outside the world's locks; the descriptor stays open while f
    // (held here) lives.
    return ::flock(lock_fd, operation);
}

void World::set_warp(double warp) {
    clock_.set_warp(warp);
    std::lock_guard<std::mutex> lk(mu_);
    for (auto& c : cameras_) c->wake();
}

static std::string link_safe(const char* text) {
    std::string out;
    for (const char* p = text; *p != '\0'; ++p) {
        const char c = *p;
        const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '.' || c == '-';
        out += keep ? c : '_';
    }
    return out;
}

Camera* World::add_camera(Camera::Kind kind, const kssim_camera_config& in) {
    kssim_camera_config cfg = in;
    cfg.serial[sizeof(cfg.serial) - 1] = '\0';
    cfg.card[sizeof(cfg.card) - 1] = '\0';
    cfg.firmware[sizeof(cfg.firmware) - 1] = '\0';
    if (cfg.size_count < 1 || cfg.size_count > KSSIM_MAX_FRAME_SIZES) return nullptr;
    bool initial_found = false;
    for (uint32_t i = 0; i < cfg.size_count; ++i) {
        const kssim_frame_size& s = cfg.sizes[i];
        if (s.width < 2 * kMetaWords || s.width > 4096 || s.width % 2 != 0 || s.height < 8 ||
            s.height > 4096 || s.height % 2 != 0)
            return nullptr;
        initial_found = initial_found ||
                        (s.width == cfg.initial_size.width && s.height == cfg.initial_size.height);
    }
    if (!initial_found) return nullptr;
    if (!(cfg.fps > 0 && cfg.fps <= 1000)) return nullptr;
    if (!(cfg.bxf > 0 && cfg.bxf * 4096.0 < 4294967296.0)) return nullptr;
    if (!(cfg.baseline > 0 && cfg.baseline * 128.0 < 65536.0)) return nullptr;
    if (!is_known_channel(cfg.output_channel)) return nullptr;
    if (cfg.max_buffers < 1 || cfg.max_buffers > 32) return nullptr;
    if (cfg.planes != KSSIM_PLANES_SINGLE && cfg.planes != KSSIM_PLANES_MULTI &&
        cfg.planes != KSSIM_PLANES_BOTH)
        return nullptr;
    if (cfg.scene.kind != KSSIM_SCENE_WALL && cfg.scene.kind != KSSIM_SCENE_ROOM &&
        cfg.scene.kind != KSSIM_SCENE_BACKLIT)
        return nullptr;
    if (!(cfg.scene.distance_mm >= 0 && cfg.scene.distance_mm <= 1e6)) return nullptr;
    // Control side; zeros (a configuration not filled by kssim_camera_config_init) take defaults.
    if (cfg.imu_rate == 0) cfg.imu_rate = 400.0;
    if (cfg.imu_records_per_reply == 0) cfg.imu_records_per_reply = 10;
    if (cfg.pcb_revision > 15) return nullptr;
    if (!(cfg.imu_rate >= 1 && cfg.imu_rate <= 4000)) return nullptr;
    if (cfg.imu_records_per_reply > 16) return nullptr;
    if (!(cfg.late_reply_share >= 0 && cfg.late_reply_share <= 1)) return nullptr;
    cfg.scene = Scene::normalized(cfg.scene);
    cfg.first_frame_id &= kFrameIdMask;

    std::lock_guard<std::mutex> lk(mu_);
    auto taken = [&](int n) {
        for (auto& c : cameras_)
            if (n == c->video_index() || n == c->video_index() + 1) return true;
        return false;
    };
    int index = cfg.video_index;
    if (index < 0) {
        index = 0;
        while (taken(index) || taken(index + 1)) index += 2;
    } else if (index > 254 || taken(index) || taken(index + 1)) {
        return nullptr;
    }
    cfg.video_index = index;
    const std::string id_base = kind == Camera::Kind::Webcam
                                    ? "Generic_" + link_safe(cfg.card) + "_" + link_safe(cfg.serial)
                                    : "KS_" + link_safe(cfg.card) + "_" + link_safe(cfg.serial);
    auto cam = std::make_unique<Camera>(*this, kind, cfg, index, next_port_++, id_base);
    if (kind == Camera::Kind::Stereo)
        cam->set_extension_unit(std::make_unique<Device>(*this, *cam, cfg));
    else
        cam->set_extension_unit(std::make_unique<NoExtensionUnit>());
    {
        std::lock_guard<std::mutex> dir_lk(lock_mu_);
        if (!lock_dir_.empty() && !private_lock_dir_)
            cam->set_stream_claim_file(lock_dir_ + "/video" + std::to_string(index) + ".stream");
    }
    cameras_.push_back(std::move(cam));
    return cameras_.back().get();
}

int World::add_by_path_link(Camera* c, NodeKind node, const std::string& name) {
    if (c == nullptr || name.empty() || name == "." || name == ".." ||
        name.find('/') != std::string::npos || name.size() >= sizeof(dirent::d_name))
        return -1;
    const std::string path = std::string(kByPathDir) + "/" + name;
    std::lock_guard<std::mutex> lk(mu_);
    bool ours = false;
    for (auto& cam : cameras_) {
        ours = ours || cam.get() == c;
        for (int n = 0; n < 2; ++n)
            if (cam->by_path_link(static_cast<NodeKind>(n)) == path) return -1;
    }
    if (!ours) return -1;
    for (const ExtraLink& l : extra_by_path_)
        if (l.path == path) return -1;
    extra_by_path_.push_back({path, c, node});
    return 0;
}

uint32_t World::camera_count() {
    std::lock_guard<std::mutex> lk(mu_);
    return static_cast<uint32_t>(cameras_.size());
}

Camera* World::camera(uint32_t index) {
    std::lock_guard<std::mutex> lk(mu_);
    return index < cameras_.size() ? cameras_[index].get() : nullptr;
}

void World::tick() {
    std::vector<Camera*> cams;
    {
        std::lock_guard<std::mutex> lk(mu_);
        for (auto& c : cameras_) cams.push_back(c.get());
    }
    const int64_t now = clock_.mono_ns();
    for (Camera* c : cams) c->tick(now);
}

int World::install() {
    World* expected = nullptr;
    if (!g_installed.compare_exchange_strong(expected, this, std::memory_order_acq_rel))
        return expected == this ? 0 : -1;
    if (ks_platform_install(&kBackend) != 0) {
        g_installed.store(nullptr, std::memory_order_release);
        return -1;
    }
    return 0;
}

int World::uninstall() {
    if (g_installed.load(std::memory_order_acquire) != this) return -1;
    ks_platform_reset();
    g_installed.store(nullptr, std::memory_order_release);
    return 0;
}

World* World::installed() {
    return g_installed.load(std::memory_order_acquire);
}

size_t World::live_mappings() {
    std::lock_guard<std::mutex> lk(mu_);
    return mappings_.size();
}

std::shared_ptr<OpenFile> World::file(int fd) {
    std::lock_guard<std::mutex> lk(mu_);
    auto it = files_.find(fd);
    return it == files_.end() ? nullptr : it->second;
}

// ---- path namespace ---------------------------------------------------------------------

World::Resolved World::resolve(const char* path) {
    Resolved r;
    std::string abs = path;
    if (abs.empty() || abs[0] != '/') {
        char cwd[PATH_MAX];
        if (::getcwd(cwd, sizeof(cwd)) == nullptr) return r;
        abs = std::string(cwd) + "/" + abs;
    }
    const std::string p = normalize(abs);
    r.path = p;
    std::lock_guard<std::mutex> lk(mu_);
    bool any_plugged = false;
    for (auto& c : cameras_) {
        any_plugged = any_plugged || c->plugged();
        for (int n = 0; n < 2; ++n) {
            const NodeKind node = static_cast<NodeKind>(n);
            if (p == c->node_path(node)) {
                r.kind = c->plugged() ? PathKind::Node : PathKind::Missing;
                r.path = p;
                r.camera = c.get();
                r.node = node;
                return r;
            }
        }
    }
    const std::string v4l = kV4lDir;
    if (p != v4l && p.compare(0, v4l.size() + 1, v4l + "/") != 0) return r;  // not ours
    r.path = p;
    r.kind = PathKind::Missing;
    if (!any_plugged) return r;  // the link directories vanish with the last camera
    if (p == v4l || p == kByPathDir || p == kByIdDir) {
        r.kind = PathKind::Dir;
        return r;
    }
    for (auto& c : cameras_) {
        if (!c->plugged()) continue;
        for (int n = 0; n < 2; ++n) {
            const NodeKind node = static_cast<NodeKind>(n);
            if (p == c->by_path_link(node) || p == c->by_id_link(node)) {
                r.kind = PathKind::Node;
                r.path = c->node_path(node);
                r.camera = c.get();
                r.node = node;
                r.link = true;
                return r;
            }
        }
    }
    for (const ExtraLink& l : extra_by_path_) {
        if (p == l.path && l.camera->plugged()) {
            r.kind = PathKind::Node;
            r.path = l.camera->node_path(l.node);
            r.camera = l.camera;
            r.node = l.node;
            r.link = true;
            return r;
        }
    }
    return r;
}

std::vector<std::pair<std::string, unsigned char>> World::dir_entries(const std::string& dir) {
    std::vector<std::pair<std::string, unsigned char>> out;
    out.emplace_back(".", DT_DIR);
    out.emplace_back("..", DT_DIR);
    if (dir == kV4lDir) {
        out.emplace_back("by-id", DT_DIR);
        out.emplace_back("by-path", DT_DIR);
        return out;
    }
    const bool by_path = dir == kByPathDir;
    std::lock_guard<std::mutex> lk(mu_);
    for (auto& c : cameras_) {
        if (!c->plugged()) continue;
        for (int n = 0; n < 2; ++n) {
            const NodeKind node = static_cast<NodeKind>(n);
            out.emplace_back(by_path ? c->by_path_name(node) : c->by_id_name(node), DT_LNK);
        }
    }
    if (by_path) {
        for (const ExtraLink& l : extra_by_path_)
            if (l.camera->plugged()) out.emplace_back(l.path.substr(l.path.rfind('/') + 1), DT_LNK);
    }
    return out;
}

int World::open(const char* path, int flags, mode_t mode) {
    if (path == nullptr) {
        errno = EFAULT;
        return -1;
    }
    const Resolved r = resolve(path);
    switch (r.kind) {
        case PathKind::NotOurs:
            return ::open(path, flags, mode);
        case PathKind::Missing:
            errno = ENOENT;
            return -1;
        case PathKind::Dir:
            errno = EACCES;
            return -1;  // listed through scandir only
        case PathKind::Node:
            break;
    }
    if ((flags & O_CREAT) && (flags & O_EXCL)) {
        errno = EEXIST;
        return -1;
    }
    if (flags & O_DIRECTORY) {
        errno = ENOTDIR;
        return -1;
    }
    const int fd = eventfd(0, EFD_NONBLOCK | ((flags & O_CLOEXEC) ? EFD_CLOEXEC : 0));
    if (fd < 0) return -1;
    auto f = std::make_shared<OpenFile>();
    f->fd = fd;
    f->camera = r.camera;
    f->node = r.node;
    f->nonblock.store((flags & O_NONBLOCK) != 0);
    r.camera->attach(f);
    std::lock_guard<std::mutex> lk(mu_);
    files_[fd] = f;
    return fd;
}

int World::close(int fd) {
    std::shared_ptr<OpenFile> f;
    {
        std::lock_guard<std::mutex> lk(mu_);
        auto it = files_.find(fd);
        if (it == files_.end()) return ::close(fd);
        f = it->second;
        files_.erase(it);
    }
    f->camera->detach(*f);
    return ::close(fd);
}

int World::ioctl(int fd, unsigned long request, void* arg) {
    std::shared_ptr<OpenFile> f = file(fd);
    if (f == nullptr) return ::ioctl(fd, request, arg);
    const int r = f->camera->node_ioctl(*f, request, arg);
    if (r < 0) {
        errno = -r;
        return -1;
    }
    return r;
}

void* World::mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    std::shared_ptr<OpenFile> f = (flags & MAP_ANONYMOUS) ? nullptr : file(fd);
    if (f == nullptr) return ::mmap(addr, length, prot, flags, fd, offset);
    std::shared_ptr<BufferSet> set;
    uint32_t index = 0;
    int err = 0;
    void* p = f->camera->map(*f, addr, length, prot, flags, offset, &set, &index, &err);
    if (p == MAP_FAILED) {
        errno = err;
        return MAP_FAILED;
    }
    std::lock_guard<std::mutex> lk(mu_);
    mappings_[reinterpret_cast<uintptr_t>(p)] = Mapping{length, set, index};
    return p;
}

int World::munmap(void* addr, size_t length) {
    {
        std::lock_guard<std::mutex> lk(mu_);
        const uintptr_t lo = reinterpret_cast<uintptr_t>(addr);
        const uintptr_t hi = lo + length;
        for (auto it = mappings_.lower_bound(lo); it != mappings_.end() && it->first < hi;) {
            it->second.set->mapped[it->second.index].fetch_sub(1);
            it = mappings_.erase(it);
        }
    }
    return ::munmap(addr, length);
}

int World::select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                  struct timeval* timeout) {
    if (nfds < 0 || nfds > FD_SETSIZE) {
        errno = EINVAL;
        return -1;
    }
    // World descriptors are eventfds, readable exactly when the node polls
    // readable. They are never writable, except in the error state, where a
    // V4L2 node polls as both.
    std::vector<int> writable;
    if (writefds != nullptr) {
        for (int fd = 0; fd < nfds; ++fd) {
            if (!FD_ISSET(fd, writefds)) continue;
            std::shared_ptr<OpenFile> f = file(fd);
            if (f == nullptr) continue;
            FD_CLR(fd, writefds);
            bool readable = false, error = false;
            f->camera->poll_state(*f, &readable, &error);
            if (error) writable.push_back(fd);
        }
    }
    struct timeval real_to {};
    struct timeval* to = nullptr;
    if (!writable.empty()) {
        to = &real_to;  // already ready: just collect the others
    } else if (timeout != nullptr) {
        if (timeout->tv_sec < 0 || timeout->tv_usec < 0 || timeout->tv_usec >= 1000000) {
            errno = EINVAL;
            return -1;
        }
        const int64_t ns =
            (static_cast<int64_t>(timeout->tv_sec) * 1000000 + timeout->tv_usec) * 1000;
        const int64_t real = clock_.to_real_ns(ns);
        real_to.tv_sec = static_cast<time_t>(real / 1000000000);
        real_to.tv_usec = static_cast<suseconds_t>((real % 1000000000) / 1000);
        to = &real_to;
    }
    int n = ::select(nfds, readfds, writefds, exceptfds, to);
    if (n < 0) return n;
    for (int fd : writable) {
        FD_SET(fd, writefds);
        ++n;
    }
    if (timeout != nullptr && writable.empty()) {
        const int64_t left = clock_.to_virtual_ns(
            (static_cast<int64_t>(real_to.tv_sec) * 1000000 + real_to.tv_usec) * 1000);
        timeout->tv_sec = static_cast<time_t>(left / 1000000000);
        timeout->tv_usec = static_cast<suseconds_t>((left % 1000000000) / 1000);
    }
    return n;
}

int World::stat(const char* path, struct stat* st) {
    if (path == nullptr || st == nullptr) {
        errno = EFAULT;
        return -1;
    }
    const Resolved r = resolve(path);
    if (r.kind == PathKind::NotOurs) return ::stat(path, st);
    if (r.kind == PathKind::Missing) {
        errno = ENOENT;
        return -1;
    }
    node_stat(r, st);
    return 0;
}

// What stat reports for one of the world's directories or nodes.
void World::node_stat(const Resolved& r, struct stat* st) {
    std::memset(st, 0, sizeof(*st));
    const int64_t now = clock_.real_ns();
    st->st_atim.tv_sec = st->st_mtim.tv_sec = st->st_ctim.tv_sec =
        static_cast<time_t>(now / 1000000000);
    st->st_blksize = 4096;
    st->st_dev = makedev(0, 5);
    if (r.kind == PathKind::Dir) {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        st->st_ino = std::hash<std::string>{}(r.path) & 0xFFFFFF;
        st->st_size = 60;
        return;
    }
    const int minor = r.camera->video_index() + static_cast<int>(r.node);
    st->st_mode = S_IFCHR | 0660;
    st->st_nlink = 1;
    st->st_gid = 44;  // video
    st->st_rdev = makedev(kVideoMajor, static_cast<unsigned>(minor));
    st->st_ino = static_cast<ino_t>(500 + minor);
}

int World::scandir(const char* dir, struct dirent*** namelist, ks_scandir_filter_fn filter,
                   ks_scandir_compar_fn compar) {
    if (dir == nullptr || namelist == nullptr) {
        errno = EFAULT;
        return -1;
    }
    const Resolved r = resolve(dir);
    std::vector<std::pair<std::string, unsigned char>> names;
    if (r.kind == PathKind::NotOurs) {
        if (r.path != "/dev") return ::scandir(dir, namelist, filter, compar);
        // /dev: the real listing plus the world's nodes.
        struct dirent** real = nullptr;
        const int n = ::scandir(dir, &real, nullptr, nullptr);
        if (n < 0) return n;
        for (int i = 0; i < n; ++i) {
            names.emplace_back(real[i]->d_name, real[i]->d_type);
            std::free(real[i]);
        }
        std::free(real);
        std::lock_guard<std::mutex> lk(mu_);
        bool any = false;
        for (auto& c : cameras_) {
            if (!c->plugged()) continue;
            any = true;
            for (int k = 0; k < 2; ++k)
                names.emplace_back(c->node_path(static_cast<NodeKind>(k)).substr(5), DT_CHR);
        }
        if (any) names.emplace_back("v4l", DT_DIR);
        std::sort(names.begin(), names.end());
        names.erase(std::unique(names.begin(), names.end(),
                                [](const auto& a, const auto& b) { return a.first == b.first; }),
                    names.end());
    } else if (r.kind == PathKind::Missing) {
        errno = ENOENT;
        return -1;
    } else if (r.kind == PathKind::Node) {
        errno = ENOTDIR;
        return -1;
    } else {
        names = dir_entries(r.path);
    }
    std::vector<struct dirent*> list;
    long index = 0;
    for (const auto& nm : names) {
        struct dirent* d = make_dirent(nm.first, nm.second, index++);
        if (d == nullptr) {
            for (auto* p : list) std::free(p);
            errno = ENOMEM;
            return -1;
        }
        if (filter != nullptr && filter(d) == 0) {
            std::free(d);
            continue;
        }
        list.push_back(d);
    }
    if (compar != nullptr) {
        std::sort(list.begin(), list.end(), [&](const struct dirent* a, const struct dirent* b) {
            return compar(&a, &b) < 0;
        });
    }
    auto** out =
        static_cast<struct dirent**>(std::malloc(sizeof(struct dirent*) * (list.size() + 1)));
    if (out == nullptr) {
        for (auto* p : list) std::free(p);
        errno = ENOMEM;
        return -1;
    }
    std::copy(list.begin(), list.end(), out);
    *namelist = out;
    return static_cast<int>(list.size());
}

char* World::realpath(const char* path, char* resolved) {
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const Resolved r = resolve(path);
    if (r.kind == PathKind::NotOurs) return ::realpath(path, resolved);
    if (r.kind == PathKind::Missing) {
        errno = ENOENT;
        return nullptr;
    }
    if (r.path.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    if (resolved == nullptr) return ::strdup(r.path.c_str());
    std::memcpy(resolved, r.path.c_str(), r.path.size() + 1);
    return resolved;
}

}  // namespace kssim
