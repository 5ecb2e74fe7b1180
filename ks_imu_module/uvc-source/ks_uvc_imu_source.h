// IMU receiver: a thread that first drains the samples the controller
// buffered before the start, then polls every 4.5 ms, decodes each 16-byte
// raw sample into physical units stamped with the current video frame id,
// and keeps the newest 200 in a ring for the session.
#ifndef KS_UVC_IMU_SOURCE_H
#define KS_UVC_IMU_SOURCE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "common/ks_export.h"
#include "ksStereoCameraDriver.h"

// One decoded sample; the public interface hands out the same record.
typedef _ks_imu_data_set_s _ks_imu_data_s;

// Receiver states of `mode`.
enum {
    KS_IMU_NEW = 0,
    KS_IMU_DRAINING = 50,
    KS_IMU_RUNNING = 100,
    KS_IMU_STOPPED = 200,
    KS_IMU_ABSENT = 1000,
};

constexpr int kKsImuRingSize = 200;
constexpr int kKsImuRawSampleBytes = 16;
// A reply carries at most 256 data bytes: 16 raw samples.
constexpr int kKsImuMaxSamplesPerFetch = 16;

typedef struct _struct_ks_imu_module {
    int32_t fd;
    std::atomic<int32_t> mode;
    uint8_t* rcv_buf;
    _ks_imu_data_s* ring;
    std::atomic<int32_t> write_index;
    std::atomic<int32_t> latest;
    std::atomic<int32_t> last_read;
    // Set while the receiver runs; the value behind it is written by the
    // capture thread, so both are read atomically.
    std::atomic<unsigned long*> sync_id_addr;
    uint64_t prev_counter;
    uint64_t wrap_count;
    pthread_t thread;
    bool has_thread;
    // Bumped by the consumer and read by the receiver before it rewrites a
    // slot, so what the consumer read is ordered before the slot's reuse.
    std::atomic<uint32_t> consumer_calls;
    // The sample last handed to the consumer, copied out of the ring.
    _ks_imu_data_s handed_out;
} KsImuModule;

KS_BEGIN_DECLS

KS_API int init_IMU_module(KsImuModule* imu, const int* ctrl_fd);
KS_API int alloc_imu_data_buff(KsImuModule* imu);
KS_API int release_imu_data_buff(KsImuModule* imu);
KS_API int processRawImuData(const uint8_t* sample, _ks_imu_data_s* out, KsImuModule* imu);
KS_API int receiveImuDataLoop(KsImuModule* imu);
KS_API int create_imu_data_receive_thread(KsImuModule* imu);
KS_API int stop_imu_data_receive_thread(KsImuModule* imu);
KS_API int get_new_imu_data(KsImuModule* imu, _ks_imu_data_s** out);
KS_API int release_imu_module(KsImuModule* imu);
KS_API int pause_Imu_Module(KsImuModule* imu);
KS_API int resume_Imu_Module(KsImuModule* imu);
KS_API int setIMUSyncIdAddress(KsImuModule* imu, unsigned long* addr);

KS_END_DECLS

#endif
