// The device model of one USB camera as the host sees it through the UVC
// driver: a capture node and a metadata node, the buffer queue behind the
// capture node, the frame producer, and faults.
//
// Locking: ctl_mu_ serialises requests and settings (like the video device's
// lock in the kernel); mu_ guards the queue, the producer state and the
// faults, and is the only lock the producer thread and a blocking dequeue
// take. Order: ctl_mu_ before mu_. Neither is held while calling the world,
// except for its clock and frame cache, which take only their own locks.
#ifndef KSSIM_SIM_CAMERA_H
#define KSSIM_SIM_CAMERA_H

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/kssim.h"
#include "sim/sim_frame.h"
#include "sim/sim_scene.h"

struct uvc_xu_control_query;

namespace kssim {

class World;
class Camera;

enum class NodeKind { Capture = 0, Meta = 1 };

// One open descriptor of a node. The descriptor itself is an eventfd whose
// readability mirrors the node's poll state.
struct OpenFile {
    int fd = -1;
    Camera* camera = nullptr;
    NodeKind node = NodeKind::Capture;
    uint64_t instance = 0;  // the plug-in instance it was opened on
    // O_NONBLOCK; fcntl may change it while another thread waits in a dequeue
    std::atomic<bool> nonblock{false};
    bool signalled = false;  // eventfd holds a count; guarded by the camera's mu_
    // Access priority (V4L2_PRIORITY_DEFAULT at open); guarded by the camera's mu_
    uint32_t priority = 2;
    // Real descriptor of the node's lock file, opened at the first flock:
    // one open file description per descriptor, as flock wants. Guarded by
    // the world's lock_mu_.
    int lock_fd = -1;
    OpenFile() = default;
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile();
};

// The extension unit behind UVCIOC_CTRL_QUERY (the controller's message
// channel). Without one the request is unknown to the node. The camera calls
// it with its request lock (ctl_mu_) held and never with mu_ held.
class ExtensionUnit {
  public:
    virtual ~ExtensionUnit() = default;
    // 0 or a negative errno.
    virtual int query(Camera& camera, struct uvc_xu_control_query& q) = 0;
    // The camera was plugged in again: power on afresh.
    virtual void plugged_in() {}
    // Faults of the control side (kinds from KSSIM_FAULT_XU_FAIL on).
    virtual int inject_fault(const kssim_fault&) { return -1; }
    virtual int clear_fault(kssim_fault_kind) { return -1; }
    virtual bool fault_active(kssim_fault_kind) { return false; }
};

// Buffer memory: one memfd holding every buffer of a REQBUFS, so that each
// host mapping is a real shared mapping that outlives the queue.
struct BufferSet {
    BufferSet() = default;
    BufferSet(const BufferSet&) = delete;
    BufferSet& operator=(const BufferSet&) = delete;
    ~BufferSet();
    int memfd = -1;
    uint8_t* base = nullptr;  // the device's own mapping of the whole set
    size_t buf_size = 0;      // sizeimage
    size_t stride = 0;        // page-aligned distance between buffers (and offsets)
    uint32_t count = 0;
    std::unique_ptr<std::atomic<uint32_t>[]> mapped;  // host mappings per buffer
};

// Faults of the control side, handled by the extension unit.
inline bool is_control_fault(int kind) {
    return kind >= KSSIM_FAULT_XU_FAIL && kind <= KSSIM_FAULT_SLOW_EEPROM_UPDATE;
}

struct Fault {
    bool active = false;
    bool by_count = false;
    uint32_t left = 0;
    int64_t until_ns = 0;  // virtual monotonic end; 0: none
    int32_t value = 0;
};

class Camera {
  public:
    enum class Kind { Stereo, Webcam };

    Camera(World& world, Kind kind, const kssim_camera_config& cfg, int video_index, int port,
           const std::string& by_id_base);
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // ---- identity and namespace
    Kind kind() const { return kind_; }
    int video_index() const { return video_index_; }
    const std::string& node_path(NodeKind n) const { return node_path_[static_cast<int>(n)]; }
    const std::string& by_path_name(NodeKind n) const { return by_path_[static_cast<int>(n)]; }
    const std::string& by_id_name(NodeKind n) const { return by_id_[static_cast<int>(n)]; }
    const std::string& by_path_link(NodeKind n) const { return by_path_link_[static_cast<int>(n)]; }
    const std::string& by_id_link(NodeKind n) const { return by_id_link_[static_cast<int>(n)]; }
    kssim_camera_config config() const;
    bool plugged() const { return plugged_.load(std::memory_order_acquire); }

    // ---- node layer (called by the world's backend)
    void attach(const std::shared_ptr<OpenFile>& f);
    void detach(OpenFile& f);
    int ioctl(OpenFile& f, unsigned long request, void* arg);  // 0 or -errno
    // The node as a program sees it: the driver's requests above, with what
    // the kernel's V4L2 core and the UVC driver add around them (sim_node.cpp).
    int node_ioctl(OpenFile& f, unsigned long request, void* arg);  // 0 or -errno
    // Maps buffer memory for a host mmap; on failure MAP_FAILED and *err.
    void* map(OpenFile& f, void* addr, size_t length, int prot, int flags, off_t offset,
              std::shared_ptr<BufferSet>* set, uint32_t* index, int* err);
    // The node's poll state: readable (data or error) and error (not streaming, gone).
    void poll_state(const OpenFile& f, bool* readable, bool* error);
    uint64_t instance_now() const;

    // ---- settings
    int set_output_channel(uint8_t channel);
    uint8_t output_channel() const;
    int set_frame_rate(double fps);
    double frame_rate() const;
    int set_scene(const kssim_scene& scene);
    void set_extension_unit(std::unique_ptr<ExtensionUnit> unit);
    ExtensionUnit* extension_unit() const { return xu_.get(); }
    // Set by the chips behind the extension unit.
    int set_stereo_constants(double bxf, double baseline);
    // The frame size of the EPR the ASIC booted with: the only size the
    // capture node offers. The format follows at once unless buffers exist.
    void set_output_size(uint16_t width, uint16_t height);
    // What the ASIC's registers do to the images: readout windows (trims,
    // line offsets) and the disparity search range.
    void set_asic_output(const Readout& readout, int search_range);
    // Frames come only while the pipeline (ASIC and sensors) runs, from the
    // virtual time from_ns on (the ASIC's EPR loaded).
    void set_pipeline_running(bool running, int64_t from_ns = 0);
    bool pipeline_running() const;
    // Image brightness as a power of two in eighths (0: as rendered).
    void set_brightness(int eighths);
    // Ground truth at the current output size.
    int true_distance(uint32_t x, uint32_t y, double* mm);

    // ---- faults, plugging, statistics
    int inject_fault(const kssim_fault& armed);
    int clear_fault(kssim_fault_kind kind);
    bool fault_active(kssim_fault_kind kind);
    int unplug();
    int replug();
    // Replugs when a timed unplug has run out.
    void tick(int64_t now_ns);
    kssim_camera_stats stats();
    long produce_frame(uint8_t* dst, size_t size);
    // A file whose exclusive flock stands for owning the capture node's
    // stream across processes (empty: this process alone decides).
    void set_stream_claim_file(const std::string& path);
    // Host monotonic time at which the frame with this id (low 32 bits) was
    // complete in a buffer, for the last kReadyTimes frames delivered.
    bool frame_ready_ns(uint32_t frame_id, int64_t* host_ns) const;
    // CPU time of the producer threads so far.
    uint64_t producer_cpu_ns() const;
    // Wakes the producer to re-plan its wait (warp changed).
    void wake();

  private:
    struct BufState {
        enum State { Dequeued, Queued, Filling, Done } state = Dequeued;
        uint32_t bytesused = 0;
        uint32_t sequence = 0;
        int64_t timestamp_ns = 0;
    };

    // requests
    int querycap(OpenFile& f, void* arg);
    int enum_fmt(OpenFile& f, void* arg);
    int enum_framesizes(OpenFile& f, void* arg);
    int enum_frameintervals(OpenFile& f, void* arg);
    int get_fmt(OpenFile& f, void* arg);
    int set_fmt(OpenFile& f, void* arg, bool try_only);
    int reqbufs(OpenFile& f, void* arg);
    int querybuf(OpenFile& f, void* arg);
    int qbuf(OpenFile& f, void* arg);
    int dqbuf(OpenFile& f, void* arg);
    int streamon(OpenFile& f, void* arg);
    int streamoff(OpenFile& f, void* arg);
    int parm(OpenFile& f, void* arg);

    // the node layer (sim_node.cpp)
    int priority_request(OpenFile& f, unsigned long request, void* arg);
    int input_request(OpenFile& f, unsigned long request, void* arg);
    int control_request(OpenFile& f, unsigned long request, void* arg);
    int event_request(OpenFile& f, unsigned long request, void* arg);
    uint32_t max_priority() const;  // caller holds mu_

    bool capture_type_ok(uint32_t type) const;
    uint32_t device_caps(NodeKind n) const;
    uint32_t fourcc() const;
    uint32_t bytes_per_pixel() const;
    size_t sizeimage() const;
    void fill_buffer(void* arg, uint32_t index);  // caller holds mu_

    // queue and producer (caller holds mu_ through lk)
    void stop_producer(std::unique_lock<std::mutex>& lk);
    void stream_off(std::unique_lock<std::mutex>& lk);
    void release_queue(std::unique_lock<std::mutex>& lk);
    // The stream claim of another process: false when one holds it.
    bool claim_stream();       // caller holds mu_
    void drop_stream_claim();  // caller holds mu_
    void refresh_ready();      // caller holds mu_
    void poll_state_locked(const OpenFile& f, bool* readable, bool* error) const;
    void producer_main();
    struct FrameStamp {
        uint64_t id = 0;
        bool bad_marker = false;
        uint8_t marker = 0;
        uint32_t late = 0;  // bytes the frame arrives late
    };
    // Frame sizes the capture node offers.
    std::vector<kssim_frame_size> offered_sizes() const;  // caller holds mu_
    FrameParams frame_params() const;                     // caller holds mu_
    FrameStamp next_stamp();
    size_t write_frame(uint8_t* dst, size_t size, const SourceFrame& src, const FrameStamp& st,
                       uint64_t ts_us) const;
    void emit_frame(std::unique_lock<std::mutex>& lk, int64_t due_ns);
    std::shared_ptr<const SourceFrame> frame_source(std::unique_lock<std::mutex>& lk);
    bool take_fault(kssim_fault_kind kind, int32_t* value);  // caller holds mu_
    bool fault_on(kssim_fault_kind kind);                    // caller holds mu_
    void unplug_locked(std::unique_lock<std::mutex>& lk);
    void power_on();  // caller holds mu_

    World& world_;
    const Kind kind_;
    const int video_index_;
    const int port_;
    std::string node_path_[2], by_path_[2], by_id_[2], by_path_link_[2], by_id_link_[2];

    std::mutex ctl_mu_;
    mutable std::mutex mu_;
    std::condition_variable cv_;

    kssim_camera_config cfg_;  // guarded by mu_ (scene, fps may change)
    std::atomic<bool> plugged_{true};
    uint64_t instance_ = 1;
    std::atomic<int64_t> replug_at_ns_{0};
    std::unique_ptr<ExtensionUnit> xu_;

    // format and channel
    uint16_t width_ = 0, height_ = 0;  // the format set on the node
    kssim_frame_size output_size_{};   // what the ASIC sends (our cameras)
    Readout readout_;
    int search_range_ = 0;
    uint8_t channel_ = KSSIM_CHANNEL_RGBD;
    bool pipeline_running_ = true;
    int64_t pipeline_from_ns_ = 0;
    int brightness_ = 0;                        // eighths of a stop
    std::shared_ptr<const SourceFrame> frame_;  // cached source for size/channel/scene
    std::shared_ptr<const Scene> scene_;        // geometry for the ground truth
    int64_t plug_ns_ = 0;                       // camera clock origin
    uint64_t frame_id_ = 0;

    // queue
    std::vector<std::shared_ptr<OpenFile>> files_;
    OpenFile* owner_ = nullptr;
    std::string claim_path_;  // see set_stream_claim_file; guarded by mu_
    int claim_fd_ = -1;       // held while owner_ is set and claim_path_ is not empty
    uint32_t buf_type_ = 0;
    std::shared_ptr<BufferSet> bufs_;
    std::vector<BufState> bstate_;
    std::deque<uint32_t> queued_, done_;
    bool streaming_ = false;
    uint32_t sequence_ = 0;

    // producer
    static constexpr size_t kReadyTimes = 64;
    struct ReadyTime {
        uint32_t id = 0;
        int64_t host_ns = -1;
    };
    ReadyTime ready_times_[kReadyTimes];             // guarded by mu_
    size_t ready_next_ = 0;                          // guarded by mu_
    std::atomic<uint64_t> producer_cpu_done_ns_{0};  // of producers that ended
    std::atomic<uint64_t> producer_cpu_now_ns_{0};   // of the running one
    std::thread producer_;
    bool stop_ = false;
    int64_t next_due_ns_ = 0;

    Fault faults_[KSSIM_FAULT_KIND_COUNT];
    kssim_camera_stats stats_{};
};

}  // namespace kssim

#endif
