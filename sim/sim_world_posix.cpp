// The rest of the POSIX surface of a world, which programs that never use the
// driver library reach through the system preload: descriptor state (fstat,
// poll readiness, O_NONBLOCK) and the link side of the namespace (lstat,
// readlink, access), as udev and the video driver present them.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "sim/sim_world.h"

namespace kssim {

bool World::owns_fd(int fd) {
    return file(fd) != nullptr;
}

bool World::owns_path(const char* path) {
    return path != nullptr && resolve(path).kind != PathKind::NotOurs;
}

bool World::lists_dir(const char* path) {
    if (path == nullptr) return false;
    const Resolved r = resolve(path);
    return r.kind != PathKind::NotOurs || r.path == "/dev";
}

int World::fstat(int fd, struct stat* st) {
    std::shared_ptr<OpenFile> f = file(fd);
    if (f == nullptr) return ::fstat(fd, st);
    if (st == nullptr) {
        errno = EFAULT;
        return -1;
    }
    // The inode outlives an unplug, as a character device's does.
    Resolved r;
    r.kind = PathKind::Node;
    r.camera = f->camera;
    r.node = f->node;
    r.path = f->camera->node_path(f->node);
    node_stat(r, st);
    return 0;
}

int World::lstat(const char* path, struct stat* st) {
    if (path == nullptr || st == nullptr) {
        errno = EFAULT;
        return -1;
    }
    const Resolved r = resolve(path);
    if (r.kind == PathKind::NotOurs) return ::lstat(path, st);
    if (r.kind == PathKind::Missing) {
        errno = ENOENT;
        return -1;
    }
    node_stat(r, st);
    if (r.link) {
        // udev's links are relative: ../../videoN.
        st->st_mode = S_IFLNK | 0777;
        st->st_rdev = 0;
        st->st_size = static_cast<off_t>(std::strlen("../../") + r.path.size() - 5);
        st->st_ino = std::hash<std::string>{}(path)&0xFFFFFF;
    }
    return 0;
}

ssize_t World::readlink(const char* path, char* buf, size_t size) {
    if (path == nullptr || buf == nullptr) {
        errno = EFAULT;
        return -1;
    }
    const Resolved r = resolve(path);
    if (r.kind == PathKind::NotOurs) return ::readlink(path, buf, size);
    if (r.kind == PathKind::Missing) {
        errno = ENOENT;
        return -1;
    }
    if (!r.link) {
        errno = EINVAL;  // not a link
        return -1;
    }
    const std::string target = "../../" + r.path.substr(5);  // past "/dev/"
    const size_t n = std::min(size, target.size());
    std::memcpy(buf, target.data(), n);  // readlink does not terminate
    return static_cast<ssize_t>(n);
}

int World::access(const char* path, int mode) {
    if (path == nullptr) {
        errno = EFAULT;
        return -1;
    }
    const Resolved r = resolve(path);
    if (r.kind == PathKind::NotOurs) return ::access(path, mode);
    if (r.kind == PathKind::Missing) {
        errno = ENOENT;
        return -1;
    }
    if ((mode & X_OK) && r.kind == PathKind::Node) {
        errno = EACCES;
        return -1;
    }
    return 0;  // nodes are read-write for the user running the program
}

World::SysEntry World::sys_entry(const char* path, std::string* content) {
    if (path == nullptr) return SysEntry::NotOurs;
    static const char* const kDirs[] = {"/sys/dev/char/81:", "/sys/class/video4linux/video"};
    for (const char* dir : kDirs) {
        const size_t n = std::strlen(dir);
        if (std::strncmp(path, dir, n) != 0) continue;
        const char* p = path + n;
        char* end = nullptr;
        if (*p < '0' || *p > '9') return SysEntry::NotOurs;
        const long minor = std::strtol(p, &end, 10);
        std::string attr = end;
        while (!attr.empty() && attr.back() == '/') attr.pop_back();
        std::lock_guard<std::mutex> lk(mu_);
        for (auto& c : cameras_) {
            if (!c->plugged()) continue;
            for (int k = 0; k < 2; ++k) {
                if (minor != c->video_index() + k) continue;
                if (attr.empty()) return SysEntry::Dir;
                std::string text;
                if (attr == "/uevent")
                    text = "MAJOR=81\nMINOR=" + std::to_string(minor) + "\nDEVNAME=video" +
                           std::to_string(minor) + "\n";
                else if (attr == "/dev")
                    text = "81:" + std::to_string(minor) + "\n";
                else if (attr == "/name")
                    text = c->config().card + std::string("\n");
                else if (attr == "/index")
                    text = std::to_string(k) + "\n";
                else
                    return SysEntry::Missing;
                if (content != nullptr) *content = text;
                return SysEntry::File;
            }
        }
        return SysEntry::NotOurs;
    }
    return SysEntry::NotOurs;
}

bool World::poll_state(int fd, bool* readable, bool* error) {
    std::shared_ptr<OpenFile> f = file(fd);
    if (f == nullptr) return false;
    f->camera->poll_state(*f, readable, error);
    return true;
}

int World::get_nonblock(int fd) {
    std::shared_ptr<OpenFile> f = file(fd);
    if (f == nullptr) {
        errno = EBADF;
        return -1;
    }
    return f->nonblock.load() ? 1 : 0;
}

int World::set_nonblock(int fd, bool on) {
    std::shared_ptr<OpenFile> f = file(fd);
    if (f == nullptr) {
        errno = EBADF;
        return -1;
    }
    f->nonblock.store(on);
    return 0;
}

}  // namespace kssim
