/*
 * The virtual camera: a model of the device side of the stereo camera (its
 * V4L2 capture and metadata nodes, the udev links that name them, the source
 * frames it streams) and a platform backend that lets the driver library, or
 * any program built on it, run against simulated cameras.
 *
 * A world owns cameras, a virtual clock and a path namespace (/dev/videoN
 * nodes and the /dev/v4l/by-path and /dev/v4l/by-id link directories). Once a
 * world is installed, the library's platform seam is routed to it: paths the
 * world owns behave like device nodes, every other path falls through to the
 * real system.
 *
 * Frames are rendered from a small 3-D scene with known geometry, so callers
 * can compare distances measured from the disparity with the ground truth.
 *
 * All functions are thread-safe unless said otherwise. Objects returned by
 * the world (cameras, path strings) live as long as the world.
 */
#ifndef KSSIM_H
#define KSSIM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kssim_world kssim_world;
typedef struct kssim_camera kssim_camera;

/* Output channels of the stereo ASIC, as carried in the metadata line. */
enum {
    KSSIM_CHANNEL_ORIGIN_PAIR = 0x23,      /* two 12-bit sensor images */
    KSSIM_CHANNEL_RECTIFIED_PAIR = 0x76,   /* colour image A + 8-bit image B */
    KSSIM_CHANNEL_ORIGIN_DISPARITY = 0x7E, /* colour image + raw disparity */
    KSSIM_CHANNEL_RGBD = 0x7F              /* colour image + processed disparity */
};

/* Sensor models (the codes the camera reports for them). */
typedef enum kssim_sensor_model {
    KSSIM_SENSOR_IMX225 = 1,
    KSSIM_SENSOR_OV9281 = 2,
    KSSIM_SENSOR_AR0144 = 3,
    KSSIM_SENSOR_AR0132 = 4,
    KSSIM_SENSOR_SC132GS = 5
} kssim_sensor_model;

typedef enum kssim_scene_kind {
    KSSIM_SCENE_WALL = 0,   /* one textured wall facing the camera at distance_mm */
    KSSIM_SCENE_ROOM = 1,   /* back wall, floor, side walls, boxes (one without texture) */
    KSSIM_SCENE_BACKLIT = 2 /* dark figure before a wall with a bright window */
} kssim_scene_kind;

typedef struct kssim_scene {
    kssim_scene_kind kind;
    double distance_mm; /* wall distance (WALL) or back-wall distance (ROOM, BACKLIT); 0: default */
    uint32_t seed;      /* texture and disparity-noise seed */
} kssim_scene;

/* How the capture node advertises its buffer type. */
typedef enum kssim_plane_mode {
    KSSIM_PLANES_SINGLE = 0, /* V4L2_CAP_VIDEO_CAPTURE only (what UVC cameras do) */
    KSSIM_PLANES_MULTI = 1,  /* V4L2_CAP_VIDEO_CAPTURE_MPLANE only */
    KSSIM_PLANES_BOTH = 2    /* both bits set */
} kssim_plane_mode;

typedef struct kssim_frame_size {
    uint16_t width;
    uint16_t height;
} kssim_frame_size;

#define KSSIM_MAX_FRAME_SIZES 8

typedef struct kssim_camera_config {
    char serial[32];   /* serial number, also in the by-id link name */
    char card[32];     /* card name reported by VIDIOC_QUERYCAP */
    char firmware[64]; /* controller firmware version text */
    kssim_sensor_model sensor;
    kssim_frame_size sizes[KSSIM_MAX_FRAME_SIZES]; /* discrete frame sizes, in order */
    uint32_t size_count;
    kssim_frame_size initial_size; /* output size at plug-in; must be one of sizes */
    double fps;                    /* frame rate */
    kssim_scene scene;
    double bxf;      /* baseline x focal length (mm x pixels), carried in every frame */
    double baseline; /* baseline in mm */
    int has_imu;
    uint64_t first_frame_id; /* id of the first frame (36 bits; wraps to 0) */
    uint8_t output_channel;  /* channel at plug-in, one of KSSIM_CHANNEL_* */
    uint32_t max_buffers;    /* most buffers VIDIOC_REQBUFS grants */
    kssim_plane_mode planes;
    int streaming_cap; /* advertise V4L2_CAP_STREAMING (default 1) */
    int video_index;   /* N of /dev/videoN for the capture node; -1: next free pair */
} kssim_camera_config;

/* Defaults: serial "KS0000000001", card "KESTRA Stereo Camera", OV9281,
 * sizes 1280x720 and 640x480, 1280x720 at 30 fps, a wall at 1500 mm,
 * bxf 35000, baseline 50, IMU present, first frame id 1, RGBD channel,
 * 8 buffers, single-planar, streaming, automatic node number. */
void kssim_camera_config_init(kssim_camera_config* cfg);

/* ---- world ---------------------------------------------------------------- */

kssim_world* kssim_world_create(void);
/* Uninstalls the world if it is installed, stops every stream and frees it.
 * No thread may be inside a seam call on the world at that moment. */
void kssim_world_destroy(kssim_world* w);

/* Time warp (> 0, default 1): the virtual clock, sleeps, select time-outs and
 * frame rates run this many times faster than real time. */
int kssim_world_set_warp(kssim_world* w, double warp);
double kssim_world_warp(const kssim_world* w);
/* Virtual CLOCK_MONOTONIC in microseconds. */
uint64_t kssim_world_now_us(kssim_world* w);

/* Routes the library's platform seam to this world (one world at a time).
 * Returns 0, -1 when another world is installed. */
int kssim_world_install(kssim_world* w);
/* Restores the C library's table if this world is installed; 0, else -1. */
int kssim_world_uninstall(kssim_world* w);
kssim_world* kssim_installed_world(void);

/* Adds a camera (null: defaults). Null when the configuration is invalid or
 * the node number is taken. */
kssim_camera* kssim_world_add_camera(kssim_world* w, const kssim_camera_config* cfg);
/* Adds a generic webcam (YUYV 640x480 and 1280x720); card null: a card name
 * without any of the product key words. */
kssim_camera* kssim_world_add_webcam(kssim_world* w, const char* card);
/* Adds the camera behind a USB 2.0 link: it offers 640 x 480 only. */
kssim_camera* kssim_world_add_usb2_camera(kssim_world* w, const char* serial);
uint32_t kssim_world_camera_count(kssim_world* w);
kssim_camera* kssim_world_camera(kssim_world* w, uint32_t index);

/* ---- camera --------------------------------------------------------------- */

typedef enum kssim_node { KSSIM_NODE_CAPTURE = 0, KSSIM_NODE_META = 1 } kssim_node;

/* /dev/videoN of a node; its /dev/v4l/by-path and /dev/v4l/by-id links. */
const char* kssim_camera_node_path(kssim_camera* c, kssim_node node);
const char* kssim_camera_by_path_link(kssim_camera* c, kssim_node node);
const char* kssim_camera_by_id_link(kssim_camera* c, kssim_node node);
int kssim_camera_get_config(kssim_camera* c, kssim_camera_config* out);

/* Output channel (one of KSSIM_CHANNEL_*): 0, or -1 for another value. */
int kssim_camera_set_output_channel(kssim_camera* c, uint8_t channel);
uint8_t kssim_camera_output_channel(kssim_camera* c);
/* Frame rate in frames per second of virtual time (0 < fps <= 1000). */
int kssim_camera_set_frame_rate(kssim_camera* c, double fps);
double kssim_camera_frame_rate(kssim_camera* c);
int kssim_camera_set_scene(kssim_camera* c, const kssim_scene* scene);

/* Ground truth: depth in mm along the optical axis of the surface seen by
 * pixel (x, y) of image A at the camera's current output size (0 when no
 * surface is hit). 0, or -1 for a pixel outside the image. */
int kssim_camera_true_distance(kssim_camera* c, uint32_t x, uint32_t y, double* mm);
/* The disparity the processed channel carries for that pixel (1/32 pixel
 * units, 0 for none): round(32 x bxf / distance) when within 1..4095. */
int kssim_camera_true_disparity(kssim_camera* c, uint32_t x, uint32_t y, uint16_t* value);

typedef struct kssim_camera_stats {
    uint64_t frames_produced;  /* frame periods in which the camera sent a frame */
    uint64_t frames_delivered; /* of these, frames written into a queued buffer */
    uint64_t frames_dropped;   /* of these, frames lost because no buffer was queued */
    uint64_t next_frame_id;    /* id the next frame will carry */
    uint32_t open_files;       /* descriptors open on the camera's nodes */
    uint32_t streaming;
} kssim_camera_stats;
int kssim_camera_get_stats(kssim_camera* c, kssim_camera_stats* out);

/* Unplug: every request on the camera's descriptors fails with ENODEV, a
 * blocked select or dequeue wakes, nodes and links disappear. Replug brings
 * a freshly powered camera back under the same names. */
int kssim_camera_unplug(kssim_camera* c);
int kssim_camera_replug(kssim_camera* c);
int kssim_camera_plugged(kssim_camera* c);

/* ---- faults --------------------------------------------------------------- */

typedef enum kssim_fault_kind {
    KSSIM_FAULT_UNPLUG = 0,          /* unplugged; replugged after duration_ms (0: never) */
    KSSIM_FAULT_STALL = 1,           /* no frames for count frame periods / duration */
    KSSIM_FAULT_BAD_MARKER = 2,      /* first byte of each frame is value (default 0) */
    KSSIM_FAULT_FROZEN_FRAME_ID = 3, /* the frame id stops counting */
    KSSIM_FAULT_FEWER_BUFFERS = 4,   /* VIDIOC_REQBUFS grants at most value buffers */
    KSSIM_FAULT_S_FMT_FAIL = 5,      /* VIDIOC_S_FMT fails with errno value (default EIO) */
    KSSIM_FAULT_G_FMT_FAIL = 6,      /* VIDIOC_G_FMT fails with errno value (default EIO) */
    KSSIM_FAULT_OTHER_PIXFMT = 7,    /* S_FMT/G_FMT report fourcc value (default YUYV) */
    KSSIM_FAULT_QUERYCAP_FAIL = 8,   /* VIDIOC_QUERYCAP fails with errno value (default EIO) */
    KSSIM_FAULT_KIND_COUNT = 9
} kssim_fault_kind;

typedef struct kssim_fault_spec {
    kssim_fault_kind kind;
    uint32_t count;       /* frames or requests it lasts; 0: not limited by count */
    uint32_t duration_ms; /* virtual milliseconds it lasts; 0: not limited by time */
    int32_t value;        /* kind-specific value; 0: the kind's default */
} kssim_fault_spec;

/* Arms a fault (replacing one of the same kind). With count and duration both
 * 0 it lasts until cleared. 0, or -1 for an invalid spec. */
int kssim_camera_inject_fault(kssim_camera* c, const kssim_fault_spec* fault);
int kssim_camera_clear_fault(kssim_camera* c, kssim_fault_kind kind);
/* 1 while the fault is armed, else 0. */
int kssim_camera_fault_active(kssim_camera* c, kssim_fault_kind kind);

/* ---- frames without streaming ---------------------------------------------- */

/* Writes the camera's next source frame (current size and channel) into dst,
 * as the producer would, advancing the frame id; the bad-marker and
 * frozen-id faults apply (a stall does not). Returns the frame size in
 * bytes, or -1 when dst is null or smaller. Meant for tests and benchmarks. */
long kssim_camera_produce_frame(kssim_camera* c, uint8_t* dst, size_t size);

#ifdef __cplusplus
}
#endif

#endif
