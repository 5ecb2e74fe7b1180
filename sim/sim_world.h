// A world: cameras, a virtual clock, a path namespace and open descriptors,
// with the platform backend that routes the library's seam to them.
//
// Owned paths: the capture and metadata nodes of its cameras (/dev/videoN)
// and the whole /dev/v4l tree, whose by-path and by-id directories hold
// links to the nodes of plugged cameras (and, as udev does, disappear when
// empty). A node may be given further by-path links, as udev versions that
// keep an older naming scheme beside the current one make. Everything else
// falls through to the real system.
#ifndef KSSIM_SIM_WORLD_H
#define KSSIM_SIM_WORLD_H

#include <dirent.h>
#include <sys/select.h>
#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "common/ks_platform.h"
#include "sim/kssim.h"
#include "sim/sim_camera.h"
#include "sim/sim_clock.h"
#include "sim/sim_frame.h"
#include "sim/sim_scene.h"

namespace kssim {

// Rendered views and encoded frames, shared by every camera of a world.
class FrameCache {
  public:
    std::shared_ptr<const SourceFrame> get(const FrameParams& params);

  private:
    using ViewKey =
        std::tuple<int, double, uint32_t, int, int, double, double, double, double, double, double>;
    using FrameKey = std::tuple<ViewKey, uint8_t, int, int>;
    std::mutex mu_;
    std::map<ViewKey, std::shared_ptr<SceneView>> views_;
    std::map<FrameKey, std::shared_ptr<const SourceFrame>> frames_;
};

class World {
  public:
    World();
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    VirtualClock& clock() { return clock_; }
    FrameCache& frames() { return frames_; }
    void set_warp(double warp);

    Camera* add_camera(Camera::Kind kind, const kssim_camera_config& cfg);
    // A further /dev/v4l/by-path entry for a node of c, present while c is
    // plugged. 0, or -1 for a camera of another world, an empty name, one
    // with '/', "." or "..", one longer than a directory entry holds, or one
    // the directory already has.
    int add_by_path_link(Camera* c, NodeKind node, const std::string& name);
    uint32_t camera_count();
    Camera* camera(uint32_t index);

    // Runs timed events (replug after a timed unplug).
    void tick();

    // ---- the backend's operations (errno set as the C library does)
    int open(const char* path, int flags, mode_t mode);
    int close(int fd);
    int ioctl(int fd, unsigned long request, void* arg);
    void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);
    int munmap(void* addr, size_t length);
    int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
               struct timeval* timeout);
    int stat(const char* path, struct stat* st);
    int scandir(const char* dir, struct dirent*** namelist, ks_scandir_filter_fn filter,
                ks_scandir_compar_fn compar);
    char* realpath(const char* path, char* resolved);
    // flock(2) of a world descriptor: the node's lock, held in a real lock
    // file per node (see set_lock_dir), so it behaves as the kernel's lock on
    // a device node does, across processes and at a process's death.
    int flock(int fd, int operation);

    // Where the node lock files and the stream claims of the capture nodes
    // live: worlds of several processes given one absolute directory share
    // them. Without it, a private directory made at the first lock and
    // removed with the world. 0, or -1 for a path that is not absolute or
    // once a lock has been taken.
    int set_lock_dir(const std::string& dir);

    // ---- the rest of the POSIX surface, for the system preload
    // (sim_world_posix.cpp; errno set as the C library does)
    bool owns_fd(int fd);
    // Whether the path is one of the world's (a node, a link, a directory, or
    // a missing name under /dev/v4l).
    bool owns_path(const char* path);
    // Whether the world answers the listing of this directory: its own, and
    // /dev, which it extends with its nodes.
    bool lists_dir(const char* path);
    int fstat(int fd, struct stat* st);
    int lstat(const char* path, struct stat* st);
    ssize_t readlink(const char* path, char* buf, size_t size);
    int access(const char* path, int mode);
    // The sysfs entries of the world's nodes (/sys/dev/char/81:M and
    // /sys/class/video4linux/videoN with their uevent, dev, name and index
    // attributes); other names below them are missing. A file's text goes
    // to *content.
    enum class SysEntry { NotOurs, Dir, File, Missing };
    SysEntry sys_entry(const char* path, std::string* content);
    // The node's poll state behind a world descriptor; false for other descriptors.
    bool poll_state(int fd, bool* readable, bool* error);
    // O_NONBLOCK of a world descriptor (fcntl F_GETFL / F_SETFL).
    int get_nonblock(int fd);
    int set_nonblock(int fd, bool on);

    // Installs the backend for this world (one world at a time).
    int install();
    int uninstall();
    static World* installed();

    // Host mappings of buffer memory still alive (for tests).
    size_t live_mappings();

  private:
    enum class PathKind { NotOurs, Dir, Node, Missing };
    struct Resolved {
        PathKind kind = PathKind::NotOurs;
        std::string path;  // normalised (links followed)
        Camera* camera = nullptr;
        NodeKind node = NodeKind::Capture;
        bool link = false;  // a by-path or by-id link to the node
    };
    Resolved resolve(const char* path);
    void node_stat(const Resolved& r, struct stat* st);
    std::vector<std::pair<std::string, unsigned char>> dir_entries(const std::string& dir);
    std::shared_ptr<OpenFile> file(int fd);

    struct Mapping {
        size_t length;
        std::shared_ptr<BufferSet> set;
        uint32_t index;
    };

    VirtualClock clock_;
    FrameCache frames_;
    std::mutex mu_;  // cameras_, files_, mappings_
    std::vector<std::unique_ptr<Camera>> cameras_;
    std::unordered_map<int, std::shared_ptr<OpenFile>> files_;
    std::map<uintptr_t, Mapping> mappings_;
    struct ExtraLink {
        std::string path;  // full path of the link
        Camera* camera;
        NodeKind node;
    };
    std::vector<ExtraLink> extra_by_path_;
    std::mutex lock_mu_;    // lock_dir_, private_lock_dir_, every OpenFile's lock_fd
    std::string lock_dir_;  // empty until set or first needed
    bool private_lock_dir_ = false;
    bool lock_taken_ = false;
    int next_port_ = 1;
};

}  // namespace kssim

#endif
