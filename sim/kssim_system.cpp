// System preload library (kssim-run --system): any dynamically linked
// program sees the world's cameras as /dev/videoN nodes with their /dev/v4l
// links, although it never uses the driver library. It interposes the C
// library's device and file-system calls; the world answers those on its
// own paths and descriptors, everything else goes on to the C library.
//
// A world descriptor is an eventfd whose readability mirrors the node's
// poll state, so poll, select and epoll wait on it in the kernel; the
// wrappers below only translate what an eventfd reports (always writable,
// never in error) into what a capture node reports (never writable, POLLERR
// while not streaming). Program time is not warped: the warp only makes the
// camera deliver its frames (stamped on the camera's clock) sooner.
#ifdef _FORTIFY_SOURCE
#undef _FORTIFY_SOURCE
#endif
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim/kssim_env.h"
#include "sim/sim_world.h"

using kssim::World;

static_assert(sizeof(struct stat) == sizeof(struct stat64), "stat64 is stat here");
static_assert(sizeof(struct dirent) == sizeof(struct dirent64), "dirent64 is dirent here");

namespace {

std::atomic<World*> g_world{nullptr};

// > 0 while this thread runs world code: its own calls go to the C library.
__attribute__((tls_model("initial-exec"))) thread_local int t_inside = 0;

struct Inside {
    Inside() { ++t_inside; }
    ~Inside() { --t_inside; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
};

// The next definition of a C library function (the C library's own).
template <typename F>
F next_fn(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}
#define REAL(name)                                                     \
    static const auto real_##name = next_fn<decltype(&::name)>(#name); \
    if (real_##name == nullptr) {                                      \
        fprintf(stderr, "kssim: the C library has no %s\n", #name);    \
        abort();                                                       \
    }

// ---- which descriptors are the world's --------------------------------------------
// A lock-free bitmap, so that calls on the program's own descriptors (reads,
// writes, closes of ordinary files) never take the world's locks.

constexpr int kTrackedFds = 1 << 16;
std::atomic<uint64_t> g_fd_bits[kTrackedFds / 64];

bool fd_ours(int fd) {
    if (fd < 0 || fd >= kTrackedFds) return false;
    return (g_fd_bits[fd / 64].load(std::memory_order_acquire) >> (fd % 64)) & 1;
}

void mark_fd(int fd, bool ours) {
    if (fd < 0 || fd >= kTrackedFds) return;
    const uint64_t bit = uint64_t{1} << (fd % 64);
    if (ours)
        g_fd_bits[fd / 64].fetch_or(bit, std::memory_order_acq_rel);
    else
        g_fd_bits[fd / 64].fetch_and(~bit, std::memory_order_acq_rel);
}

World* world_for_fd(int fd) {
    if (t_inside > 0 || !fd_ours(fd)) return nullptr;
    return g_world.load(std::memory_order_acquire);
}

// Paths the world may own: /dev and below, and relative paths (resolved
// against the working directory by the world).
World* world_for_path(const char* path) {
    if (t_inside > 0 || path == nullptr) return nullptr;
    if (path[0] == '/' && strncmp(path, "/dev", 4) != 0 && strncmp(path, "/sys/", 5) != 0)
        return nullptr;
    return g_world.load(std::memory_order_acquire);
}

World* world_for_at(int dirfd, const char* path) {
    if (path != nullptr && path[0] != '/' && dirfd != AT_FDCWD) return nullptr;
    return world_for_path(path);
}

// The world's sysfs entries: NotOurs for every other path.
World::SysEntry sys_lookup(const char* path, std::string* text = nullptr) {
    if (t_inside > 0 || path == nullptr || strncmp(path, "/sys/", 5) != 0)
        return World::SysEntry::NotOurs;
    World* w = g_world.load(std::memory_order_acquire);
    if (w == nullptr) return World::SysEntry::NotOurs;
    Inside in;
    return w->sys_entry(path, text);
}

// A read-only descriptor holding an attribute's text, as sysfs gives it.
int sys_open(const std::string& text, int flags) {
    Inside in;
    const int fd = memfd_create("kssim-sysfs", (flags & O_CLOEXEC) ? MFD_CLOEXEC : 0);
    if (fd < 0) return -1;
    if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::lseek(fd, 0, SEEK_SET) != 0) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

// open() of a sysfs entry of the world; -2 when the path is not one.
int sys_open_path(const char* path, int flags) {
    std::string text;
    switch (sys_lookup(path, &text)) {
        case World::SysEntry::NotOurs:
            return -2;
        case World::SysEntry::Missing:
            errno = ENOENT;
            return -1;
        case World::SysEntry::Dir:
            errno = EISDIR;
            return -1;
        case World::SysEntry::File:
            break;
    }
    if ((flags & O_ACCMODE) != O_RDONLY) {
        errno = EACCES;
        return -1;
    }
    return sys_open(text, flags);
}

// stat() of a sysfs entry of the world; -2 when the path is not one.
int sys_stat(const char* path, struct stat* st) {
    const World::SysEntry e = sys_lookup(path);
    if (e == World::SysEntry::NotOurs) return -2;
    if (e == World::SysEntry::Missing) {
        errno = ENOENT;
        return -1;
    }
    memset(st, 0, sizeof(*st));
    st->st_mode = e == World::SysEntry::Dir ? (S_IFDIR | 0755) : (S_IFREG | 0444);
    st->st_nlink = e == World::SysEntry::Dir ? 2 : 1;
    st->st_size = e == World::SysEntry::Dir ? 0 : 4096;
    st->st_blksize = 4096;
    st->st_ino = std::hash<std::string>{}(path)&0xFFFFFF;
    return 0;
}

// ---- buffer mappings of world descriptors ------------------------------------------
// Kept here so that unmapping the program's other memory never reaches the world.

std::mutex g_map_mu;
std::map<uintptr_t, size_t> g_maps;

bool overlaps_world_mapping(void* addr, size_t length) {
    const uintptr_t lo = reinterpret_cast<uintptr_t>(addr);
    std::lock_guard<std::mutex> lk(g_map_mu);
    auto it = g_maps.upper_bound(lo);
    if (it != g_maps.begin()) {
        auto prev = std::prev(it);
        if (prev->first + prev->second > lo) return true;
    }
    return it != g_maps.end() && it->first < lo + length;
}

void forget_mappings(void* addr, size_t length) {
    const uintptr_t lo = reinterpret_cast<uintptr_t>(addr);
    std::lock_guard<std::mutex> lk(g_map_mu);
    for (auto it = g_maps.lower_bound(lo); it != g_maps.end() && it->first < lo + length;)
        it = g_maps.erase(it);
}

// ---- directory streams over the world's listings ------------------------------------
// A world listing is served through a real DIR of "/", so that functions not
// wrapped here (dirfd) still get a valid stream.

struct Listing {
    std::vector<struct dirent*> entries;
    size_t pos = 0;
};
std::mutex g_dir_mu;
std::map<DIR*, Listing> g_dirs;

// ---- epoll registrations of world descriptors ----------------------------------------

struct EpollEntry {
    int fd;
    uint32_t events;  // as the program asked
};
std::mutex g_epoll_mu;
std::map<std::pair<int, uint64_t>, EpollEntry> g_epoll;  // (epfd, data) -> entry

void forget_epoll_fd(int fd) {
    std::lock_guard<std::mutex> lk(g_epoll_mu);
    for (auto it = g_epoll.begin(); it != g_epoll.end();)
        it = it->second.fd == fd ? g_epoll.erase(it) : std::next(it);
}

// ---- readiness ---------------------------------------------------------------------------

int64_t now_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// poll for descriptor sets that hold world descriptors. timeout_ns < 0 waits
// without end. A world descriptor reports POLLERR while its node is in error
// (not streaming, device gone), POLLIN when a buffer is ready, and never
// POLLOUT.
int poll_world(World* w, struct pollfd* fds, nfds_t n, int64_t timeout_ns,
               const sigset_t* sigmask) {
    REAL(ppoll);
    std::vector<struct pollfd> q(fds, fds + n);
    const int64_t deadline = timeout_ns < 0 ? -1 : now_ns() + timeout_ns;
    for (;;) {
        bool ready_now = false;
        for (nfds_t i = 0; i < n; ++i) {
            q[i] = fds[i];
            if (!fd_ours(fds[i].fd)) continue;
            bool readable = false, error = false;
            w->poll_state(fds[i].fd, &readable, &error);
            ready_now = ready_now || error;
            q[i].events = (fds[i].events & (POLLIN | POLLRDNORM)) ? POLLIN : 0;
        }
        struct timespec ts {};
        const struct timespec* to = nullptr;
        if (ready_now) {
            to = &ts;
        } else if (deadline >= 0) {
            const int64_t left = std::max<int64_t>(deadline - now_ns(), 0);
            ts.tv_sec = static_cast<time_t>(left / 1000000000);
            ts.tv_nsec = static_cast<long>(left % 1000000000);
            to = &ts;
        }
        const int r = real_ppoll(q.data(), n, to, sigmask);
        if (r < 0) return r;
        int count = 0;
        for (nfds_t i = 0; i < n; ++i) {
            fds[i].revents = q[i].revents;
            if (fd_ours(fds[i].fd)) {
                bool readable = false, error = false;
                w->poll_state(fds[i].fd, &readable, &error);
                if (error)
                    fds[i].revents = POLLERR;
                else if (readable && (q[i].revents & POLLIN))
                    fds[i].revents = static_cast<short>(fds[i].events & (POLLIN | POLLRDNORM));
                else
                    fds[i].revents = 0;
            }
            count += fds[i].revents != 0;
        }
        // A buffer taken by another thread meanwhile: wait on, as the node would.
        if (count > 0 || r == 0 || (deadline >= 0 && now_ns() >= deadline)) return count;
    }
}

bool any_ours(const struct pollfd* fds, nfds_t n) {
    for (nfds_t i = 0; i < n; ++i)
        if (fd_ours(fds[i].fd)) return true;
    return false;
}

bool sets_hold_ours(int nfds, fd_set* r, fd_set* wr, fd_set* e) {
    for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd) {
        if (!fd_ours(fd)) continue;
        if ((r && FD_ISSET(fd, r)) || (wr && FD_ISSET(fd, wr)) || (e && FD_ISSET(fd, e)))
            return true;
    }
    return false;
}

// select over poll_world, with the kernel's mapping of poll bits to sets.
int select_world(World* w, int nfds, fd_set* r, fd_set* wr, fd_set* e, int64_t timeout_ns,
                 const sigset_t* sigmask) {
    if (nfds < 0 || nfds > FD_SETSIZE) {
        errno = EINVAL;
        return -1;
    }
    std::vector<struct pollfd> fds;
    for (int fd = 0; fd < nfds; ++fd) {
        short ev = 0;
        if (r && FD_ISSET(fd, r)) ev |= POLLIN;
        if (wr && FD_ISSET(fd, wr)) ev |= POLLOUT;
        if (e && FD_ISSET(fd, e)) ev |= POLLPRI;
        if (ev != 0) fds.push_back({fd, ev, 0});
    }
    const int n = poll_world(w, fds.data(), fds.size(), timeout_ns, sigmask);
    if (n < 0) return n;
    if (r) FD_ZERO(r);
    if (wr) FD_ZERO(wr);
    if (e) FD_ZERO(e);
    int count = 0;
    for (const auto& p : fds) {
        if (p.revents & POLLNVAL) {
            errno = EBADF;
            return -1;
        }
        if (r && (p.events & POLLIN) && (p.revents & (POLLIN | POLLRDNORM | POLLHUP | POLLERR))) {
            FD_SET(p.fd, r);
            ++count;
        }
        if (wr && (p.events & POLLOUT) && (p.revents & (POLLOUT | POLLWRNORM | POLLERR))) {
            FD_SET(p.fd, wr);
            ++count;
        }
        if (e && (p.events & POLLPRI) && (p.revents & POLLPRI)) {
            FD_SET(p.fd, e);
            ++count;
        }
    }
    return count;
}

int64_t timeval_ns(const struct timeval* tv) {
    return tv == nullptr ? -1 : (static_cast<int64_t>(tv->tv_sec) * 1000000 + tv->tv_usec) * 1000;
}

// epoll_wait's results with world descriptors translated; the count kept
// (world descriptors that are not ready after all are dropped).
int translate_epoll(World* w, int epfd, struct epoll_event* events, int n) {
    int out = 0;
    for (int i = 0; i < n; ++i) {
        struct epoll_event ev = events[i];
        bool keep = true;
        {
            std::lock_guard<std::mutex> lk(g_epoll_mu);
            const uint64_t key = ev.data.u64;
            auto it = g_epoll.find({epfd, key});
            if (it != g_epoll.end()) {
                bool readable = false, error = false;
                w->poll_state(it->second.fd, &readable, &error);
                if (error)
                    ev.events = EPOLLERR;
                else if (readable)
                    ev.events = it->second.events & (EPOLLIN | EPOLLRDNORM);
                else
                    keep = false;
            }
        }
        if (keep) events[out++] = ev;
    }
    return out;
}

int stat_common(World* w, const char* path, struct stat* st, bool follow) {
    const int sys = sys_stat(path, st);
    if (sys != -2) return sys;
    Inside in;
    return follow ? w->stat(path, st) : w->lstat(path, st);
}

int fstatat_common(int dirfd, const char* path, struct stat* st, int flags,
                   int (*real)(int, const char*, struct stat*, int)) {
    if (path != nullptr && path[0] == '\0' && (flags & AT_EMPTY_PATH)) {
        if (World* w = world_for_fd(dirfd)) {
            Inside in;
            return w->fstat(dirfd, st);
        }
        return real(dirfd, path, st, flags);
    }
    if (World* w = world_for_at(dirfd, path))
        return stat_common(w, path, st, (flags & AT_SYMLINK_NOFOLLOW) == 0);
    return real(dirfd, path, st, flags);
}

void fill_statx(const struct stat& st, struct statx* sx) {
    memset(sx, 0, sizeof(*sx));
    sx->stx_mask = STATX_BASIC_STATS;
    sx->stx_blksize = static_cast<uint32_t>(st.st_blksize);
    sx->stx_nlink = static_cast<uint32_t>(st.st_nlink);
    sx->stx_uid = st.st_uid;
    sx->stx_gid = st.st_gid;
    sx->stx_mode = static_cast<uint16_t>(st.st_mode);
    sx->stx_ino = st.st_ino;
    sx->stx_size = static_cast<uint64_t>(st.st_size);
    sx->stx_blocks = static_cast<uint64_t>(st.st_blocks);
    sx->stx_atime.tv_sec = st.st_atim.tv_sec;
    sx->stx_mtime.tv_sec = st.st_mtim.tv_sec;
    sx->stx_ctime.tv_sec = st.st_ctim.tv_sec;
    sx->stx_rdev_major = major(st.st_rdev);
    sx->stx_rdev_minor = minor(st.st_rdev);
    sx->stx_dev_major = major(st.st_dev);
    sx->stx_dev_minor = minor(st.st_dev);
}

int open_common(const char* path, int flags, mode_t mode) {
    const int sys = sys_open_path(path, flags);
    if (sys != -2) return sys;
    World* w = g_world.load(std::memory_order_acquire);
    int fd;
    {
        Inside in;
        fd = w->open(path, flags, mode);
    }
    if (fd >= 0 && w->owns_fd(fd)) mark_fd(fd, true);
    return fd;
}

mode_t open_mode(int flags, va_list ap) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(ap, mode_t) : 0;
}

__attribute__((constructor)) void kssim_system_init() {
    kssim_world* w = kssim::world_from_env();
    if (w == nullptr) {
        fprintf(stderr, "kssim: the virtual cameras are not installed\n");
        return;
    }
    g_world.store(reinterpret_cast<World*>(w), std::memory_order_release);
}

}  // namespace

// ---- the interposed C library -----------------------------------------------------------

extern "C" {

int open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = open_mode(flags, ap);
    va_end(ap);
    if (world_for_path(path) != nullptr) return open_common(path, flags, mode);
    REAL(open);
    return real_open(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = open_mode(flags, ap);
    va_end(ap);
    if (world_for_path(path) != nullptr) return open_common(path, flags, mode);
    REAL(open64);
    return real_open64(path, flags, mode);
}

int __open_2(const char* path, int flags) {
    if (world_for_path(path) != nullptr) return open_common(path, flags, 0);
    REAL(open);
    return real_open(path, flags);
}

int __open64_2(const char* path, int flags) {
    if (world_for_path(path) != nullptr) return open_common(path, flags, 0);
    REAL(open64);
    return real_open64(path, flags);
}

int openat(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = open_mode(flags, ap);
    va_end(ap);
    if (world_for_at(dirfd, path) != nullptr) return open_common(path, flags, mode);
    REAL(openat);
    return real_openat(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = open_mode(flags, ap);
    va_end(ap);
    if (world_for_at(dirfd, path) != nullptr) return open_common(path, flags, mode);
    REAL(openat64);
    return real_openat64(dirfd, path, flags, mode);
}

int __openat_2(int dirfd, const char* path, int flags) {
    if (world_for_at(dirfd, path) != nullptr) return open_common(path, flags, 0);
    REAL(openat);
    return real_openat(dirfd, path, flags);
}

int __openat64_2(int dirfd, const char* path, int flags) {
    if (world_for_at(dirfd, path) != nullptr) return open_common(path, flags, 0);
    REAL(openat64);
    return real_openat64(dirfd, path, flags);
}

int close(int fd) {
    if (World* w = world_for_fd(fd)) {
        mark_fd(fd, false);
        forget_epoll_fd(fd);
        Inside in;
        return w->close(fd);
    }
    REAL(close);
    return real_close(fd);
}

int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (World* w = world_for_fd(fd)) {
        Inside in;
        return w->ioctl(fd, request, arg);
    }
    REAL(ioctl);
    return real_ioctl(fd, request, arg);
}

int flock(int fd, int operation) {
    if (World* w = world_for_fd(fd)) {
        Inside in;
        return w->flock(fd, operation);
    }
    REAL(flock);
    return real_flock(fd, operation);
}

// The world's sysfs attributes read through stdio (std::ifstream does).
static FILE* fopen_common(const char* path, const char* mode, bool is64) {
    const bool reading = mode != nullptr && mode[0] == 'r' && strchr(mode, '+') == nullptr;
    const int fd = sys_open_path(path, reading ? (O_RDONLY | O_CLOEXEC) : O_RDWR);
    if (fd == -1) return nullptr;
    if (fd >= 0) {
        FILE* f = fdopen(fd, "r");
        if (f == nullptr) {
            const int err = errno;
            ::close(fd);
            errno = err;
        }
        return f;
    }
    if (is64) {
        REAL(fopen64);
        return real_fopen64(path, mode);
    }
    REAL(fopen);
    return real_fopen(path, mode);
}

FILE* fopen(const char* path, const char* mode) {
    return fopen_common(path, mode, false);
}

FILE* fopen64(const char* path, const char* mode) {
    return fopen_common(path, mode, true);
}

// uvcvideo nodes have neither read() nor write().
ssize_t read(int fd, void* buf, size_t count) {
    if (world_for_fd(fd) != nullptr) {
        errno = EINVAL;
        return -1;
    }
    REAL(read);
    return real_read(fd, buf, count);
}

ssize_t write(int fd, const void* buf, size_t count) {
    if (world_for_fd(fd) != nullptr) {
        errno = EINVAL;
        return -1;
    }
    REAL(write);
    return real_write(fd, buf, count);
}

static int fcntl_common(int fd, int cmd, va_list ap, bool is64) {
    // Every fcntl command takes an int, a pointer or nothing; reading a long
    // covers all three on the ABIs this runs on.
    const long arg = va_arg(ap, long);
    if (World* w = world_for_fd(fd)) {
        if (cmd == F_GETFL) {
            const int nb = w->get_nonblock(fd);
            return nb < 0 ? -1 : (O_RDWR | (nb ? O_NONBLOCK : 0));
        }
        if (cmd == F_SETFL) return w->set_nonblock(fd, (arg & O_NONBLOCK) != 0);
    }
    if (is64) {
        REAL(fcntl64);
        return real_fcntl64(fd, cmd, arg);
    }
    REAL(fcntl);
    return real_fcntl(fd, cmd, arg);
}

int fcntl(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    const int r = fcntl_common(fd, cmd, ap, false);
    va_end(ap);
    return r;
}

int fcntl64(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    const int r = fcntl_common(fd, cmd, ap, true);
    va_end(ap);
    return r;
}

void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    if ((flags & MAP_ANONYMOUS) == 0) {
        if (World* w = world_for_fd(fd)) {
            void* p;
            {
                Inside in;
                p = w->mmap(addr, length, prot, flags, fd, offset);
            }
            if (p != MAP_FAILED) {
                std::lock_guard<std::mutex> lk(g_map_mu);
                g_maps[reinterpret_cast<uintptr_t>(p)] = length;
            }
            return p;
        }
    }
    REAL(mmap);
    return real_mmap(addr, length, prot, flags, fd, offset);
}

void* mmap64(void* addr, size_t length, int prot, int flags, int fd, off64_t offset) {
    return mmap(addr, length, prot, flags, fd, static_cast<off_t>(offset));
}

int munmap(void* addr, size_t length) {
    World* w = t_inside > 0 ? nullptr : g_world.load(std::memory_order_acquire);
    if (w != nullptr && overlaps_world_mapping(addr, length)) {
        forget_mappings(addr, length);
        Inside in;
        return w->munmap(addr, length);
    }
    REAL(munmap);
    return real_munmap(addr, length);
}

// ---- file system ------------------------------------------------------------------------

int stat(const char* path, struct stat* st) {
    if (World* w = world_for_path(path)) return stat_common(w, path, st, true);
    REAL(stat);
    return real_stat(path, st);
}

int stat64(const char* path, struct stat64* st) {
    return stat(path, reinterpret_cast<struct stat*>(st));
}

int lstat(const char* path, struct stat* st) {
    if (World* w = world_for_path(path)) return stat_common(w, path, st, false);
    REAL(lstat);
    return real_lstat(path, st);
}

int lstat64(const char* path, struct stat64* st) {
    return lstat(path, reinterpret_cast<struct stat*>(st));
}

int fstat(int fd, struct stat* st) {
    if (World* w = world_for_fd(fd)) {
        Inside in;
        return w->fstat(fd, st);
    }
    REAL(fstat);
    return real_fstat(fd, st);
}

int fstat64(int fd, struct stat64* st) {
    return fstat(fd, reinterpret_cast<struct stat*>(st));
}

int fstatat(int dirfd, const char* path, struct stat* st, int flags) {
    REAL(fstatat);
    return fstatat_common(dirfd, path, st, flags, real_fstatat);
}

int fstatat64(int dirfd, const char* path, struct stat64* st, int flags) {
    return fstatat(dirfd, path, reinterpret_cast<struct stat*>(st), flags);
}

// The stat entry points of programs built against a C library before 2.33.
int __xstat(int, const char* path, struct stat* st) {
    return stat(path, st);
}
int __xstat64(int, const char* path, struct stat64* st) {
    return stat64(path, st);
}
int __lxstat(int, const char* path, struct stat* st) {
    return lstat(path, st);
}
int __lxstat64(int, const char* path, struct stat64* st) {
    return lstat64(path, st);
}
int __fxstat(int, int fd, struct stat* st) {
    return fstat(fd, st);
}
int __fxstat64(int, int fd, struct stat64* st) {
    return fstat64(fd, st);
}
int __fxstatat(int, int dirfd, const char* path, struct stat* st, int flags) {
    return fstatat(dirfd, path, st, flags);
}
int __fxstatat64(int, int dirfd, const char* path, struct stat64* st, int flags) {
    return fstatat64(dirfd, path, st, flags);
}

int statx(int dirfd, const char* path, int flags, unsigned int mask, struct statx* sx) {
    const bool by_fd = path[0] == '\0' && (flags & AT_EMPTY_PATH);
    World* w = by_fd ? world_for_fd(dirfd) : world_for_at(dirfd, path);
    if (w != nullptr && !by_fd) {
        Inside in;
        if (!w->owns_path(path)) w = nullptr;
    }
    if (w != nullptr) {
        struct stat st;
        Inside in;
        const int r =
            by_fd ? w->fstat(dirfd, &st)
                  : ((flags & AT_SYMLINK_NOFOLLOW) ? w->lstat(path, &st) : w->stat(path, &st));
        if (r == 0) fill_statx(st, sx);
        return r;
    }
    REAL(statx);
    return real_statx(dirfd, path, flags, mask, sx);
}

char* realpath(const char* path, char* resolved) {
    struct stat st;
    const int sys = sys_stat(path, &st);
    if (sys == -1) return nullptr;
    if (sys == 0) {
        if (strlen(path) >= PATH_MAX) {
            errno = ENAMETOOLONG;
            return nullptr;
        }
        return resolved != nullptr ? strcpy(resolved, path) : strdup(path);
    }
    if (World* w = world_for_path(path)) {
        Inside in;
        return w->realpath(path, resolved);
    }
    REAL(realpath);
    return real_realpath(path, resolved);
}

char* canonicalize_file_name(const char* path) {
    return realpath(path, nullptr);
}

ssize_t readlink(const char* path, char* buf, size_t size) {
    if (World* w = world_for_path(path)) {
        Inside in;
        return w->readlink(path, buf, size);
    }
    REAL(readlink);
    return real_readlink(path, buf, size);
}

ssize_t readlinkat(int dirfd, const char* path, char* buf, size_t size) {
    if (World* w = world_for_at(dirfd, path)) {
        Inside in;
        return w->readlink(path, buf, size);
    }
    REAL(readlinkat);
    return real_readlinkat(dirfd, path, buf, size);
}

int access(const char* path, int mode) {
    struct stat st;
    const int sys = sys_stat(path, &st);
    if (sys != -2) {
        if (sys == 0 && (mode & (W_OK | X_OK)) && S_ISREG(st.st_mode)) {
            errno = EACCES;
            return -1;
        }
        return sys;
    }
    if (World* w = world_for_path(path)) {
        Inside in;
        return w->access(path, mode);
    }
    REAL(access);
    return real_access(path, mode);
}

int faccessat(int dirfd, const char* path, int mode, int flags) {
    if (World* w = world_for_at(dirfd, path)) {
        Inside in;
        return w->access(path, mode);
    }
    REAL(faccessat);
    return real_faccessat(dirfd, path, mode, flags);
}

DIR* opendir(const char* path) {
    REAL(opendir);
    switch (sys_lookup(path)) {
        case World::SysEntry::NotOurs:
            break;
        case World::SysEntry::Missing:
            errno = ENOENT;
            return nullptr;
        case World::SysEntry::File:
            errno = ENOTDIR;
            return nullptr;
        case World::SysEntry::Dir: {
            DIR* d = real_opendir("/");
            if (d == nullptr) return nullptr;
            Listing l;
            long index = 0;
            for (const char* name : {".", "..", "dev", "index", "name", "uevent"}) {
                auto* e = static_cast<struct dirent*>(calloc(1, sizeof(struct dirent)));
                if (e == nullptr) break;
                e->d_ino = static_cast<ino_t>(2000 + index);
                e->d_off = ++index;
                e->d_reclen = sizeof(struct dirent);
                e->d_type = name[0] == '.' ? DT_DIR : DT_REG;
                strncpy(e->d_name, name, sizeof(e->d_name) - 1);
                l.entries.push_back(e);
            }
            std::lock_guard<std::mutex> lk(g_dir_mu);
            g_dirs[d] = std::move(l);
            return d;
        }
    }
    World* w = world_for_path(path);
    bool listed = false;
    if (w != nullptr) {
        Inside in;
        listed = w->lists_dir(path);
    }
    if (!listed) return real_opendir(path);
    struct dirent** list = nullptr;
    int n;
    {
        Inside in;
        n = w->scandir(path, &list, nullptr, nullptr);
    }
    if (n < 0) return nullptr;
    Listing l;
    l.entries.assign(list, list + n);
    free(list);
    DIR* d = real_opendir("/");
    if (d == nullptr) {
        for (auto* e : l.entries) free(e);
        return nullptr;
    }
    std::lock_guard<std::mutex> lk(g_dir_mu);
    g_dirs[d] = std::move(l);
    return d;
}

struct dirent* readdir(DIR* d) {
    {
        std::lock_guard<std::mutex> lk(g_dir_mu);
        auto it = g_dirs.find(d);
        if (it != g_dirs.end()) {
            Listing& l = it->second;
            return l.pos < l.entries.size() ? l.entries[l.pos++] : nullptr;
        }
    }
    REAL(readdir);
    return real_readdir(d);
}

struct dirent64* readdir64(DIR* d) {
    return reinterpret_cast<struct dirent64*>(readdir(d));
}

void rewinddir(DIR* d) {
    {
        std::lock_guard<std::mutex> lk(g_dir_mu);
        auto it = g_dirs.find(d);
        if (it != g_dirs.end()) it->second.pos = 0;
    }
    REAL(rewinddir);
    real_rewinddir(d);
}

int closedir(DIR* d) {
    {
        std::lock_guard<std::mutex> lk(g_dir_mu);
        auto it = g_dirs.find(d);
        if (it != g_dirs.end()) {
            for (auto* e : it->second.entries) free(e);
            g_dirs.erase(it);
        }
    }
    REAL(closedir);
    return real_closedir(d);
}

int scandir(const char* path, struct dirent*** list, int (*filter)(const struct dirent*),
            int (*compar)(const struct dirent**, const struct dirent**)) {
    if (World* w = world_for_path(path)) {
        Inside in;
        if (w->lists_dir(path)) return w->scandir(path, list, filter, compar);
    }
    REAL(scandir);
    return real_scandir(path, list, filter, compar);
}

int scandir64(const char* path, struct dirent64*** list, int (*filter)(const struct dirent64*),
              int (*compar)(const struct dirent64**, const struct dirent64**)) {
    return scandir(path, reinterpret_cast<struct dirent***>(list),
                   reinterpret_cast<int (*)(const struct dirent*)>(filter),
                   reinterpret_cast<int (*)(const struct dirent**, const struct dirent**)>(compar));
}

// ---- waiting ------------------------------------------------------------------------------

int poll(struct pollfd* fds, nfds_t n, int timeout_ms) {
    World* w = t_inside > 0 ? nullptr : g_world.load(std::memory_order_acquire);
    if (w != nullptr && any_ours(fds, n))
        return poll_world(w, fds, n, timeout_ms < 0 ? -1 : int64_t{timeout_ms} * 1000000, nullptr);
    REAL(poll);
    return real_poll(fds, n, timeout_ms);
}

int ppoll(struct pollfd* fds, nfds_t n, const struct timespec* ts, const sigset_t* mask) {
    World* w = t_inside > 0 ? nullptr : g_world.load(std::memory_order_acquire);
    if (w != nullptr && any_ours(fds, n)) {
        const int64_t ns =
            ts == nullptr ? -1 : static_cast<int64_t>(ts->tv_sec) * 1000000000 + ts->tv_nsec;
        return poll_world(w, fds, n, ns, mask);
    }
    REAL(ppoll);
    return real_ppoll(fds, n, ts, mask);
}

int select(int nfds, fd_set* r, fd_set* wr, fd_set* e, struct timeval* tv) {
    World* w = t_inside > 0 ? nullptr : g_world.load(std::memory_order_acquire);
    if (w != nullptr && sets_hold_ours(nfds, r, wr, e)) {
        const int64_t start = now_ns();
        const int n = select_world(w, nfds, r, wr, e, timeval_ns(tv), nullptr);
        if (tv != nullptr) {  // Linux leaves the time not slept
            const int64_t left = std::max<int64_t>(timeval_ns(tv) - (now_ns() - start), 0);
            tv->tv_sec = static_cast<time_t>(left / 1000000000);
            tv->tv_usec = static_cast<suseconds_t>(left % 1000000000 / 1000);
        }
        return n;
    }
    REAL(select);
    return real_select(nfds, r, wr, e, tv);
}

int pselect(int nfds, fd_set* r, fd_set* wr, fd_set* e, const struct timespec* ts,
            const sigset_t* mask) {
    World* w = t_inside > 0 ? nullptr : g_world.load(std::memory_order_acquire);
    if (w != nullptr && sets_hold_ours(nfds, r, wr, e)) {
        const int64_t ns =
            ts == nullptr ? -1 : static_cast<int64_t>(ts->tv_sec) * 1000000000 + ts->tv_nsec;
        return select_world(w, nfds, r, wr, e, ns, mask);
    }
    REAL(pselect);
    return real_pselect(nfds, r, wr, e, ts, mask);
}

int epoll_ctl(int epfd, int op, int fd, struct epoll_event* ev) {
    REAL(epoll_ctl);
    if (world_for_fd(fd) == nullptr) return real_epoll_ctl(epfd, op, fd, ev);
    if (op == EPOLL_CTL_DEL) {
        std::lock_guard<std::mutex> lk(g_epoll_mu);
        for (auto it = g_epoll.begin(); it != g_epoll.end();)
            it = it->first.first == epfd && it->second.fd == fd ? g_epoll.erase(it) : std::next(it);
        return real_epoll_ctl(epfd, op, fd, ev);
    }
    if (ev == nullptr) return real_epoll_ctl(epfd, op, fd, ev);
    // The eventfd is always writable: wait for readability only.
    struct epoll_event e = *ev;
    const uint32_t flags = EPOLLET | EPOLLONESHOT | EPOLLWAKEUP | EPOLLEXCLUSIVE;
    e.events =
        (ev->events & flags) | ((ev->events & (EPOLLIN | EPOLLRDNORM)) ? uint32_t{EPOLLIN} : 0u);
    const int r = real_epoll_ctl(epfd, op, fd, &e);
    if (r == 0) {
        std::lock_guard<std::mutex> lk(g_epoll_mu);
        for (auto it = g_epoll.begin(); it != g_epoll.end();)
            it = it->first.first == epfd && it->second.fd == fd ? g_epoll.erase(it) : std::next(it);
        const uint64_t key = ev->data.u64;
        g_epoll[{epfd, key}] = EpollEntry{fd, ev->events};
    }
    return r;
}

int epoll_pwait(int epfd, struct epoll_event* events, int max, int timeout_ms,
                const sigset_t* mask) {
    REAL(epoll_pwait);
    World* w = t_inside > 0 ? nullptr : g_world.load(std::memory_order_acquire);
    bool watched = false;
    if (w != nullptr) {
        std::lock_guard<std::mutex> lk(g_epoll_mu);
        auto it = g_epoll.lower_bound({epfd, 0});
        watched = it != g_epoll.end() && it->first.first == epfd;
    }
    if (!watched) return real_epoll_pwait(epfd, events, max, timeout_ms, mask);
    const int64_t deadline = timeout_ms < 0 ? -1 : now_ns() + int64_t{timeout_ms} * 1000000;
    for (;;) {
        int wait_ms = -1;
        if (deadline >= 0)
            wait_ms =
                static_cast<int>((std::max<int64_t>(deadline - now_ns(), 0) + 999999) / 1000000);
        const int n = real_epoll_pwait(epfd, events, max, wait_ms, mask);
        if (n <= 0) return n;
        const int kept = translate_epoll(w, epfd, events, n);
        if (kept > 0 || (deadline >= 0 && now_ns() >= deadline)) return kept;
    }
}

int epoll_wait(int epfd, struct epoll_event* events, int max, int timeout_ms) {
    return epoll_pwait(epfd, events, max, timeout_ms, nullptr);
}

}  // extern "C"
