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

/* Output channels of the stereo ASIC, as carried in the metadata line.
 * Image A is the right sensor's, image B the left one's; the disparity is
 * A's: a point at column x of A lies at column x + disparity / 32 of B. The
 * disparity of image pixel (x, y) travels in source line y + 3, column x on
 * the processed channel, and in line y + 6, column x + 22 on the raw one
 * (the host reads it there). Both send it minus 32 x the search range (ASIC
 * register 0x42), and 0 where that is not within 1..4095. */
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
    /* ---- control side (the controller firmware and the chips behind it) */
    uint8_t pcb_revision;           /* high nibble of the FPGA's hardware-info register (0..15) */
    double imu_rate;                /* IMU samples per second of virtual time (1..4000) */
    uint32_t imu_records_per_reply; /* most IMU records in one reply (1..16) */
    uint16_t imu_first_counter;     /* counter of the first IMU sample */
    uint32_t imu_seed;              /* noise seed of the IMU samples */
    double late_reply_share;        /* share of replies ready only at the second read (0..1) */
    uint32_t late_reply_seed;       /* seed of which replies those are */
} kssim_camera_config;

/* Defaults: serial "KS0000000001", card "KESTRA Stereo Camera", firmware
 * "KS-USB 3.2.1 2023-11-20", OV9281, sizes 1280x720 and 640x480, 1280x720
 * at 30 fps, a wall at 1500 mm, bxf 35000, baseline 50, IMU present, first
 * frame id 1, RGBD channel, 8 buffers, single-planar, streaming, automatic
 * node number; PCB revision 2, IMU at 400 Hz with at most 10 records per
 * reply, first counter 0, seed 1; one reply in eight ready only at the
 * second read, seed 1 (0: every reply at the first read).
 *
 * A firmware text beginning with "1022" makes the older controller firmware:
 * it powers the ASIC through GPIO 17 and does not know the ASIC reset-state
 * command (14). Any other text is a current firmware, which holds the ASIC in
 * reset or runs it with command 14 and leaves GPIO 17 alone.
 *
 * The capture node offers one frame size: that of the EPR the ASIC booted
 * with (the initial size until the host changes the effective EPR and power
 * cycles the ASIC); S_FMT adjusts any other size to it, and ENUM_FRAMESIZES
 * and ENUM_FRAMEINTERVALS list it alone.
 *
 * A new camera's EEPROM holds a valid effective EPR for the initial size
 * (and the configured bxf and baseline), the stream descriptors of the EPR
 * slots 0..size_count-1 (slot n: sizes[n], reserved bytes 20 and 25), the
 * current slot (the initial size's), and the serial number (at most 16
 * characters); nothing else of the custom area (0x3C00..0x3CB7) is set. Its
 * flash holds a valid EPR image for each of those sizes in slots
 * 0..size_count-1 at (slot + 101) x 4096; the rest of the flash is erased. */
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

/* Node locks and stream ownership shared between processes. A descriptor of
 * a node takes flock(2) locks as on a real device node: the lock belongs to
 * the node (every link names it) and goes with the last descriptor of its
 * holder, at a process's death too. The locks live in one file per node in a
 * directory; worlds of several processes given the same absolute directory,
 * with cameras on the same node numbers, behave as processes that opened the
 * same nodes: a node one of them locks is locked for the others, and a
 * capture node one of them streams from is busy for the others (S_FMT and
 * REQBUFS fail with EBUSY). Everything behind the nodes (registers, EEPROM,
 * frames) stays each world's own. Without a directory the world makes a
 * private one at its first lock and removes it with the world. Call before
 * the first lock: 0, or -1 for a relative path or a world that has locked. */
int kssim_world_set_lock_dir(kssim_world* w, const char* dir);

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
/* Gives a node of camera c a further link in /dev/v4l/by-path, named name
 * (an entry name, no '/'), resolving to the same node. Some udev versions
 * make two by-path links for one node (an older naming scheme kept beside
 * the current one); this stages that. The link is there while the camera is
 * plugged. 0, or -1 when c is not of this world, the name is empty, ".",
 * "..", holds a '/', is longer than 255 characters or is already taken. */
int kssim_world_add_by_path_link(kssim_world* w, kssim_camera* c, kssim_node node,
                                 const char* name);
int kssim_camera_get_config(kssim_camera* c, kssim_camera_config* out);

/* Output channel (one of KSSIM_CHANNEL_*): 0, or -1 for another value. On
 * one of our cameras it also sets the ASIC's channel register and is the
 * channel the ASIC comes up with after a power-up. */
int kssim_camera_set_output_channel(kssim_camera* c, uint8_t channel);
uint8_t kssim_camera_output_channel(kssim_camera* c);
/* Frame rate in frames per second of virtual time (0 < fps <= 1000). On one
 * of our cameras it also rewrites the sensors' frame-length registers (as
 * near as they encode it) and is the rate they come up with after a
 * power-up; the delivered rate is exactly fps until the host writes those
 * registers. kssim_camera_frame_rate reports the rate in force. */
int kssim_camera_set_frame_rate(kssim_camera* c, double fps);
double kssim_camera_frame_rate(kssim_camera* c);
int kssim_camera_set_scene(kssim_camera* c, const kssim_scene* scene);

/* Ground truth: depth in mm along the optical axis of the surface seen by
 * pixel (x, y) of image A at the ASIC's output size, with its trim and line
 * offset (0 when no surface is hit). The principal point lies at (width / 2,
 * height / 2) in whole pixels. 0, or -1 for a pixel outside the image. */
int kssim_camera_true_distance(kssim_camera* c, uint32_t x, uint32_t y, double* mm);
/* The disparity of that pixel (1/32 pixel units): round(32 x bxf /
 * distance), 0 when nothing is hit or it needs more than 13 bits. The
 * processed channel sends it minus 32 x the search range (while the trims are
 * equal). */
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

    /* Control path. "count" counts the events named in each line; a fault
     * with count and duration 0 lasts until cleared. A replug clears every
     * fault.
     *
     * XU_FAIL: every UVCIOC_CTRL_QUERY on unit 3 selector 1 fails with errno
     *   value (default EPIPE; EIO and any other errno up to 4095 allowed);
     *   count: queries. The firmware sees nothing of a failed SET_CUR.
     * Reply faults (count: GET_CURs that carry a reply):
     *   REPLY_NO_FLAG: the block comes without the reply flag (bit 31 of the
     *     command word clear); the reply stays pending, so the host's next
     *     GET_CUR gets it (unless the fault still lasts).
     *   REPLY_BAD_TAG: the block's tag reads 04 03 02 01; the reply stays
     *     pending as above.
     *   REPLY_BAD_CHECKSUM: the checksum word is off by value (default 1);
     *     the reply is consumed.
     *   REPLY_WRONG_COMMAND: the command word carries command value (default:
     *     the request's command mod 15 + 1) with the reply flag; consumed.
     *   REPLY_WRONG_LENGTH: the length word is value (1..256; 0: the true
     *     length + 1, or 255 for a 256-byte reply), the data padded with zeros
     *     or cut, the checksum matching what is carried; consumed.
     *   REPLY_LONG_LENGTH: the length word is value (default 257; must be
     *     above 256) while the block carries the true data; consumed.
     * I2C_REFUSE_ASIC, I2C_REFUSE_EEPROM, I2C_REFUSE_FPGA: the device does not
     *   acknowledge: value 0 reads and writes, 1 writes only, 2 reads only;
     *   count: refused transfers. As for any transfer that is not
     *   acknowledged, the controller stalls: the GET_CUR that would carry the
     *   reply fails with EIO.
     * EEPROM_NO_STICK: byte writes into the EEPROM are acknowledged but the
     *   bytes keep their old value; value 0 every address, or
     *   KSSIM_EEPROM_ADDRESS(a) only address a; count: lost bytes.
     * SENSOR_COUNTER_FROZEN: the sensors of value (bit 0 sensor A, bit 1
     *   sensor B; 0 both) ignore bridge commands: their command counters stay
     *   and their registers keep their values; count: commands ignored.
     * OUTPUT_INDEX_FROZEN: the output index (ASIC 0xE2 for A, 0xE3 for B) of
     *   the sensors of value (as above) stops where it is; count: reads of a
     *   frozen index.
     * CONTROLLER_NOT_READY: the FPGA's idle register (0x1F) reads value
     *   (default 0x00) instead of 0x56; count: reads of that register.
     * INVALID_EPR: the ASIC rejects the effective EPR: at once (0xF0 stops
     *   reading 0xEA, the stereo constants read 0) and at each power-up while
     *   the fault lasts; count: power-ups including the one at arming. The
     *   EEPROM is not changed.
     * NO_IMU: the IMU command is answered with no records; count: requests.
     * IMU_SKIP: the IMU counter jumps by value samples (default 9000) before
     *   a sample; count: jumps.
     * FLASH_WRITE_FAIL: flash page writes and sector erases are refused (the
     *   reply's GET_CUR fails with EIO) and change nothing; count: refusals.
     * SLOW_EEPROM_UPDATE: the EEPROM update from a flash slot keeps the
     *   controller busy for value milliseconds (default 5000) instead of 300;
     *   count: updates. */
    KSSIM_FAULT_XU_FAIL = 9,
    KSSIM_FAULT_REPLY_NO_FLAG = 10,
    KSSIM_FAULT_REPLY_BAD_TAG = 11,
    KSSIM_FAULT_REPLY_BAD_CHECKSUM = 12,
    KSSIM_FAULT_REPLY_WRONG_COMMAND = 13,
    KSSIM_FAULT_REPLY_WRONG_LENGTH = 14,
    KSSIM_FAULT_REPLY_LONG_LENGTH = 15,
    KSSIM_FAULT_I2C_REFUSE_ASIC = 16,
    KSSIM_FAULT_I2C_REFUSE_EEPROM = 17,
    KSSIM_FAULT_I2C_REFUSE_FPGA = 18,
    KSSIM_FAULT_EEPROM_NO_STICK = 19,
    KSSIM_FAULT_SENSOR_COUNTER_FROZEN = 20,
    KSSIM_FAULT_OUTPUT_INDEX_FROZEN = 21,
    KSSIM_FAULT_CONTROLLER_NOT_READY = 22,
    KSSIM_FAULT_INVALID_EPR = 23,
    KSSIM_FAULT_NO_IMU = 24,
    KSSIM_FAULT_IMU_SKIP = 25,
    KSSIM_FAULT_FLASH_WRITE_FAIL = 26,
    KSSIM_FAULT_SLOW_EEPROM_UPDATE = 27,
    /* Frames arrive value bytes late (1 or 2, default 1): value zero bytes,
     * then the frame (its marker at byte value), its last value bytes cut;
     * count: frames. */
    KSSIM_FAULT_LATE_FRAME = 28,
    KSSIM_FAULT_KIND_COUNT = 29
} kssim_fault_kind;

/* The value of KSSIM_FAULT_EEPROM_NO_STICK that limits it to one address. */
#define KSSIM_EEPROM_ADDRESS(a) ((int32_t)(a) + 1)

typedef struct kssim_fault {
    kssim_fault_kind kind;
    uint32_t count;       /* frames or requests it lasts; 0: not limited by count */
    uint32_t duration_ms; /* virtual milliseconds it lasts; 0: not limited by time */
    int32_t value;        /* kind-specific value; 0: the kind's default */
} kssim_fault;

/* Arms a fault (replacing one of the same kind). With count and duration both
 * 0 it lasts until cleared. 0, or -1 for an invalid fault. */
int kssim_camera_inject_fault(kssim_camera* c, const kssim_fault* fault);
int kssim_camera_clear_fault(kssim_camera* c, kssim_fault_kind kind);
/* 1 while the fault is armed, else 0. */
int kssim_camera_fault_active(kssim_camera* c, kssim_fault_kind kind);

/* ---- frames without streaming ---------------------------------------------- */

/* Writes the camera's next source frame (the ASIC's output size and channel)
 * into dst, as the producer would, advancing the frame id; the bad-marker,
 * late-frame and frozen-id faults apply (a stall does not, nor does the
 * ASIC's state). Returns the frame size in bytes, or -1 when dst is null or
 * smaller. Meant for tests and benchmarks. */
long kssim_camera_produce_frame(kssim_camera* c, uint8_t* dst, size_t size);

/* The host's own CLOCK_MONOTONIC (not the virtual clock), in nanoseconds,
 * at which the frame whose id has these low 32 bits was complete in a buffer
 * and the capture node readable; known for the last 64 frames delivered.
 * 0, or -1 when the frame is not among them. Meant for latency benchmarks. */
int kssim_camera_frame_ready_ns(kssim_camera* c, uint32_t frame_id, int64_t* host_ns);

/* CPU time (nanoseconds) the camera's frame producer has used so far, so
 * that a benchmark can tell the camera's own cost from the host's. */
uint64_t kssim_camera_producer_cpu_ns(kssim_camera* c);

/* ---- the control side ------------------------------------------------------
 *
 * Extension unit. UVCIOC_CTRL_QUERY on any open descriptor of a camera's
 * capture node reaches unit 3, selector 1: UVC_SET_CUR and UVC_GET_CUR of
 * exactly 320 bytes, UVC_GET_LEN of 2 bytes (answer 320, little-endian),
 * UVC_GET_INFO of 1 byte (0x03: get and set), UVC_GET_MIN/MAX/RES/DEF of 320
 * bytes (zeros). Another unit or selector fails with ENOENT, another query
 * code or a wrong size with EINVAL, a null buffer with EFAULT; a webcam has
 * no unit 3 (ENOENT), the metadata node no extension units (ENOTTY).
 *
 * Message channel. A SET_CUR block whose byte 319 is 1 is a new request and
 * is handled at once; one whose byte 319 is not 1 is ignored. A request is a
 * 32-byte header of eight big-endian words (tag 0x01020304, id, timestamp,
 * reserved, command, parameter, length, checksum = sum of the data bytes
 * modulo 2^32) and length data bytes. The next GET_CUR returns the reply:
 * the same header layout with the request's id, timestamp 0, reserved 0,
 * command | 0x80000000, the request's parameter, the reply data and its
 * checksum. A GET_CUR with no reply pending (none asked, or already fetched)
 * returns a block with the tag, the last id and command without the reply
 * flag, and length 0. Now and then (late_reply_share of the requests, chosen
 * by late_reply_seed) the firmware is not done at the first GET_CUR: it
 * returns that block and the reply comes with the next one.
 *
 * The firmware refuses a request (the GET_CUR that would carry its reply
 * fails with EIO, the control pipe stalled, and the request is done with) when
 * its tag is wrong, its length is above 256, its checksum does not match, its
 * command is unknown, its data or parameter do not fit the command, or an
 * I2C transfer is not acknowledged. Commands (parameter p, data d):
 *   1  version: no data; reply the 32-byte version text, zero padded.
 *   2  flash read page: p page address (low 8 bits 0); reply 256 bytes.
 *   3  flash write page: p as above, d the 256 bytes; NOR programming: each
 *      byte becomes old & new.
 *   4  flash erase sector: p sector address (low 12 bits 0): 4096 x 0xFF.
 *   5  EEPROM update: d one byte, the slot n: acknowledged at once; once
 *      the acknowledgement has been read (or the next request arrives) the
 *      controller copies flash bytes (n + 101) x 4096 .. + 3071 into EEPROM
 *      0..3071 and for 300 ms of virtual time every extension-unit query
 *      fails with EIO.
 *   6  I2C read: p device << 16 | register, d the byte count (1..256) as a
 *      little-endian 32-bit word; reply the bytes.
 *   7  I2C write: p as above, d the bytes (1..256).
 *      Devices (8-bit addresses, write even, read odd): ASIC 0xCC/0xCD
 *      (registers 0x00..0xFF; no acknowledge while held in reset, powered
 *      down or booting: the first 2 s after its power-up), EEPROM
 *      0xA0/0xA1 (16 KiB, 64-byte pages: a write wraps within its page, a
 *      read wraps at the end), FPGA 0xC0/0xC1 (registers 0x00..0xFF).
 *      Anything else is not acknowledged.
 *   10 GPIO: d 00 then (pin, value) pairs sets; d 01 then pins gets (reply
 *      one byte per pin). Pins 0..31. On the "1022" firmware GPIO 17 powers
 *      the ASIC (1 on, 0 off).
 *   11 status: reply one byte: bit 0 the ASIC runs, bit 1 its EPR loaded.
 *   13 IMU: reply up to imu_records_per_reply records of 16 bytes, oldest
 *      first: byte 0 0x03, accelerometer x, y, z, gyroscope x, y, z (int16
 *      little-endian; 8192 per g, 16.4 per degree/s), temperature (int8,
 *      2.07 per degree above 25), counter (uint16 little-endian, +1 per
 *      sample, wrapping). The FIFO holds 1024 samples; older ones are lost
 *      (the counter shows the gap). No records without an IMU.
 *   14 ASIC reset state (current firmware only): d one byte, 1 runs, 0 holds
 *      in reset.
 *   15 reset count: reply 4 bytes, big-endian: ASIC power-ups since plug-in.
 * An ASIC power-up (release from reset, GPIO 17 going high on "1022") resets
 * its registers and the sensors and counts one reset. The ASIC boots for 2 s
 * (no acknowledge), then reads the effective EPR from EEPROM bytes 0..3071
 * (see sim/sim_epr.h for its format) in 276.48 ms (3072 bytes of 9 bit times
 * at 100 kHz): until then 0xF0 and the stereo constants read 0, the status
 * shows no EPR and no frame comes. The EPR's frame size becomes the capture
 * node's. (A camera that is plugged in has done all this already.)
 *
 * ASIC registers: 0x08-0x09 baseline x 128 and 0x0C-0x0F bxf x 4096 from the
 * loaded EPR (0 when it failed); 0x1F reads 0x34; 0x51 output channel (a
 * known channel value switches the capture node); 0x42 search range r, read
 * back at 0x4F: the matcher searches disparities 32 r + 1 .. 32 r + 4095 and
 * sends them minus 32 r; trims 0x26 (left, image B) and 0x28 (right, image
 * A) and line offsets 0x71-0x72 (left) and 0x73-0x74 (right; integer, then
 * 1/256): output pixel (u, v) of a sensor shows what its pixel (u + trim,
 * v + line offset) sees, so a trim difference adds to the disparity (A's
 * trim minus B's); 0x63-0x64 the IMX225 frame-rate divisor (fps = 33000 / value);
 * 0xE2/0xE3 output index of sensor A/B (frame count mod 256); 0xF0 reads 0xEA
 * when the EPR loaded, else 0x00, and opens the sensor bridge when written 3;
 * bridge: with access open, a write of 0xF4 sends register (0xF1, 0xF2) :=
 * low data byte (0xF4) to both sensors, whose command counters (high nibble
 * of reads of 0xF1 and 0xF6) advance and whose status nibbles read 0; a write
 * of 0xF6 reads register (0xF5, 0xF6) of both sensors into 0xF5 (A) and 0xFA
 * (B). Forwarding a command takes the bridge 5 ms: a command (0xF4 or 0xF6
 * written) that comes sooner after the last one taken is lost. Every other
 * register holds what is written.
 * FPGA registers: 0x00 PCB revision << 4 | sensor model code, 0x01-0x02
 * version 1.5, 0x05-0x07 release date 0x23 0x11 0x20, 0x1F reads 0x56, 0x20 AE
 * (0x10 runs: the image is exposed automatically), 0x27-0x28 trigger rate
 * copy, others hold what is written.
 * Sensors: OV9281 frame length 0x380E-0x380F (fps = 28110 / lines), stream
 * 0x0100 (bit 0), gain 0x3509 (16 = x1); SC132GS frame length 0x320E-0x320F
 * (fps = 38400 / lines) with group hold 0x3800 (0x00 opens, 0x60 applies the
 * held writes), stream 0x0100; IMX225 gain 0x3014 (0.3 dB steps), frame rate
 * from ASIC 0x63-0x64; AR0144/AR0132 keep the configured rate. The capture
 * node delivers frames only while the ASIC runs and the sensors stream, at
 * the rate these registers give. With AE off, the ASIC's manual exposure
 * (0x33 high, 0x35 low: lines x 16; on the IMX225 the lines before the end of
 * the frame) and the gain scale the image brightness (500 lines at gain x1 is
 * the automatic level), which shows in the exposure statistics. */

/* Direct access for tests: no faults, no traffic, no timing. Addresses and
 * lengths are checked: 0, or -1 when a range does not fit. */
#define KSSIM_EEPROM_SIZE 16384u
#define KSSIM_FLASH_SIZE 0x200000u
int kssim_camera_eeprom_read(kssim_camera* c, uint32_t addr, uint8_t* buf, size_t len);
int kssim_camera_eeprom_write(kssim_camera* c, uint32_t addr, const uint8_t* buf, size_t len);
int kssim_camera_flash_read(kssim_camera* c, uint32_t addr, uint8_t* buf, size_t len);
/* Stores the bytes as they are (no NOR programming rule). */
int kssim_camera_flash_write(kssim_camera* c, uint32_t addr, const uint8_t* buf, size_t len);

typedef enum kssim_chip {
    KSSIM_CHIP_ASIC = 0,
    KSSIM_CHIP_FPGA = 1,
    KSSIM_CHIP_SENSOR_A = 2,
    KSSIM_CHIP_SENSOR_B = 3
} kssim_chip;
/* Reads what the host would read (0xE2/0xE3, 0x1F, 0xF0 and the bridge
 * included) without consuming faults. ASIC and FPGA registers 0..0xFF,
 * sensor registers 0..0xFFFF. */
int kssim_camera_register_read(kssim_camera* c, kssim_chip chip, uint32_t reg, uint8_t* value);
/* Sets a register with its effect on the camera (channel, frame rate,
 * brightness), as if written over the chip's own bus: no bridge command is
 * sent and no sensor counter moves. Setting ASIC 0x1F or 0xF0 sets the value
 * they read until the next power-up. */
int kssim_camera_register_write(kssim_camera* c, kssim_chip chip, uint32_t reg, uint8_t value);

typedef struct kssim_device_state {
    int asic_powered;               /* supply on (GPIO 17 on the "1022" firmware, else always) */
    int asic_running;               /* powered and released from reset */
    int epr_loaded;                 /* the ASIC has loaded a valid effective EPR */
    uint16_t epr_width, epr_height; /* output size of the loaded EPR */
    double bxf, baseline;           /* stereo constants of the loaded EPR */
    uint32_t reset_count;
    int eeprom_busy;          /* an EEPROM update is running */
    int sensors_streaming;    /* both sensors stream */
    double sensor_frame_rate; /* rate the sensor registers give */
    uint32_t imu_fifo_level;
    uint8_t gpio17;
    uint8_t sensor_counter[2]; /* command counters of sensors A and B (0..15) */
} kssim_device_state;
int kssim_camera_device_state(kssim_camera* c, kssim_device_state* out);

/* Sets the counter of the next IMU sample (to test its wrap quickly). */
int kssim_camera_imu_set_counter(kssim_camera* c, uint16_t counter);

/* Hostile mode: every request is answered, without being carried out, with
 * a random but well-framed block: good tag, the request's id, the reply flag,
 * a command that is the request's half of the time and random (0..15)
 * otherwise, random parameter, length 0..256 with random data and a matching
 * checksum. Seeded, so a run can be repeated. 0, or -1. */
int kssim_camera_set_hostile(kssim_camera* c, int on, uint32_t seed);

/* ---- protocol traffic ------------------------------------------------------
 * Every new request (SET_CUR with byte 319 = 1) and every reply block handed
 * to the host (GET_CUR carrying a reply, as sent, faults included) is
 * recorded, the most recent 16384 kept. */
typedef enum kssim_direction { KSSIM_REQUEST = 0, KSSIM_REPLY = 1 } kssim_direction;

typedef struct kssim_message {
    kssim_direction direction;
    uint64_t time_us; /* virtual CLOCK_MONOTONIC when it arrived or was read */
    /* header words as on the wire (command with the reply flag as sent) */
    uint32_t tag, id, timestamp, reserved, command, parameter, length, checksum;
    uint32_t data_length; /* bytes in data: length, at most 288 (what a block holds) */
    uint8_t data[288];
    /* requests: 0 carried out, EIO refused by the firmware (tag, length,
     * checksum, command, arguments, I2C acknowledge); replies: 0 */
    int32_t outcome;
} kssim_message;

size_t kssim_camera_traffic_count(kssim_camera* c);
/* 0, or -1 when index >= count. Index 0 is the oldest kept. */
int kssim_camera_traffic_get(kssim_camera* c, size_t index, kssim_message* out);
void kssim_camera_traffic_clear(kssim_camera* c);

typedef struct kssim_control_stats {
    uint64_t queries;        /* UVCIOC_CTRL_QUERY calls that reached unit 3 selector 1 */
    uint64_t failed_queries; /* of these, failed (faults, busy, stalls) */
    uint64_t requests;       /* new requests received */
    uint64_t refused;        /* requests refused by the firmware */
    uint64_t replies;        /* reply blocks handed out */
    uint64_t empty_reads;    /* GET_CURs with no reply pending (or not ready yet) */
    uint64_t late_replies;   /* of these, first reads of a reply not ready yet */
} kssim_control_stats;
int kssim_camera_control_stats(kssim_camera* c, kssim_control_stats* out);

/* ---- EPR images (the ASIC's parameter image; format in sim/sim_epr.h) ----- */

#define KSSIM_EPR_SIZE 3072u
/* Writes a valid image of KSSIM_EPR_SIZE bytes: width 16..4096, height
 * 8..4096, bxf and baseline > 0 within the registers' range; seed fills the
 * parameter body. 0, or -1 for an invalid argument. */
int kssim_epr_build(uint8_t* out, uint16_t width, uint16_t height, double bxf, double baseline,
                    uint32_t seed);
/* 0 when the first KSSIM_EPR_SIZE bytes of image (size bytes) are an image
 * the ASIC accepts (fills the outputs that are not null), else -1. */
int kssim_epr_check(const uint8_t* image, size_t size, uint16_t* width, uint16_t* height,
                    double* bxf, double* baseline);

#ifdef __cplusplus
}
#endif

#endif
