#include "ks_imu_module/uvc-source/ks_uvc_imu_source.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/ks_log.h"
#include "common/ks_platform.h"
#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"

#define KS_IMU_MODULE "ks_imu_module/uvc-source/ks_uvc_imu_source"

namespace {

constexpr int kProbeAttempts = 10;
constexpr useconds_t kProbePauseUs = 5000;
constexpr useconds_t kSettleUs = 60000;
constexpr useconds_t kPollPeriodUs = 4500;
constexpr useconds_t kWaitStepUs = 5000;
constexpr int kMaxWaitSteps = 200;
// A device that never runs dry would keep the receiver draining forever.
constexpr int kMaxDrainFetches = 1000;
constexpr uint64_t kSkipThreshold = 8000;

constexpr double kTemperatureScale = 0.48309178743961356;  // 1 / 2.07 degrees per count
constexpr double kTemperatureOffset = 25.0;
constexpr double kAccelerationScale = 0.0011962890625;       // 9.8 / 8192 m/s^2 per count
constexpr double kAngularRateScale = 0.0010642251536550791;  // (pi / 180) / 16.4 rad/s per count

// Samples drained by every receiver of the process; never reset.
std::atomic<int> dump_cnt{0};

// One IMU fetch under the transport mutex: the number of samples copied
// into buf (room for kKsImuMaxSamplesPerFetch), 0 or -1.
int fetch_samples(int fd, uint8_t* buf) {
    lock_uvc_protocol_mutex();
    set_cur_uvc_fd(fd);
    const bool device_locked = lock_uvc_device(fd) == 0;
    int count = protocol_get_IMU(buf);
    if (device_locked) unlock_uvc_device(fd);
    unlock_uvc_protocol_mutex();
    return count > kKsImuMaxSamplesPerFetch ? kKsImuMaxSamplesPerFetch : count;
}

int16_t le16(const uint8_t* p) {
    return static_cast<int16_t>(p[0] | (p[1] << 8));
}

void reset_indices(KsImuModule* imu) {
    imu->write_index = -1;
    imu->latest = -1;
    imu->last_read = -1;
}

// Looks for samples a few times; starts the receiver when some come.
int probe_and_start(KsImuModule* imu, bool print_results) {
    uint8_t probe[kKsImuMaxSamplesPerFetch * kKsImuRawSampleBytes];
    for (int attempt = 0; attempt < kProbeAttempts; ++attempt) {
        int count = fetch_samples(imu->fd, probe);
        if (print_results) printf("%d\n", count);
        if (count > 0) {
            imu->mode = KS_IMU_STOPPED;
            create_imu_data_receive_thread(imu);
            ks_sys_usleep(kSettleUs);
            return 0;
        }
        ks_sys_usleep(kProbePauseUs);
    }
    imu->mode = KS_IMU_ABSENT;
    KS_LOG_FATAL(KS_IMU_MODULE, "No IMU data rcv. Check firmware version.");
    return -1;
}

void* receiver_thread(void* arg) {
    receiveImuDataLoop(static_cast<KsImuModule*>(arg));
    return nullptr;
}

}  // namespace

extern "C" {

int init_IMU_module(KsImuModule* imu, const int* ctrl_fd) {
    imu->sync_id_addr = nullptr;
    imu->prev_counter = 0;
    imu->wrap_count = 0;
    imu->has_thread = false;
    imu->fd = *ctrl_fd;
    alloc_imu_data_buff(imu);
    return probe_and_start(imu, false);
}

int alloc_imu_data_buff(KsImuModule* imu) {
    imu->rcv_buf = static_cast<uint8_t*>(calloc(kKsImuMaxSamplesPerFetch, kKsImuRawSampleBytes));
    imu->ring = static_cast<_ks_imu_data_s*>(calloc(kKsImuRingSize, sizeof(_ks_imu_data_s)));
    return 0;
}

int release_imu_data_buff(KsImuModule* imu) {
    free(imu->rcv_buf);
    free(imu->ring);
    imu->rcv_buf = nullptr;
    imu->ring = nullptr;
    return 0;
}

int processRawImuData(const uint8_t* sample, _ks_imu_data_s* out, KsImuModule* imu) {
    uint64_t counter = static_cast<uint16_t>(sample[14] | (sample[15] << 8));
    if (counter >= imu->prev_counter) {
        uint64_t diff = counter - imu->prev_counter;
        if (diff > kSkipThreshold) {
            KS_LOG_WARN(KS_IMU_MODULE, "\tWARNING : IMU SKIP DETECTED\n");
            KS_LOG_WARN(KS_IMU_MODULE, "\tPre %lu,Current %lu. DIFF %lu\n",
                        static_cast<unsigned long>(imu->prev_counter),
                        static_cast<unsigned long>(counter), static_cast<unsigned long>(diff));
        }
    } else {
        ++imu->wrap_count;
    }
    unsigned long* sync_id = imu->sync_id_addr.load(std::memory_order_acquire);
    out->sync_id = sync_id != nullptr ? __atomic_load_n(sync_id, __ATOMIC_ACQUIRE) : 0;
    out->timestamp = imu->wrap_count * 65535 + counter;
    out->temperature = static_cast<int8_t>(sample[13]) * kTemperatureScale + kTemperatureOffset;
    out->acc_x = le16(sample + 1) * kAccelerationScale;
    out->acc_y = le16(sample + 3) * kAccelerationScale;
    out->acc_z = le16(sample + 5) * kAccelerationScale;
    out->gyro_x = le16(sample + 7) * kAngularRateScale;
    out->gyro_y = le16(sample + 9) * kAngularRateScale;
    out->gyro_z = le16(sample + 11) * kAngularRateScale;
    imu->prev_counter = counter;
    return 0;
}

int receiveImuDataLoop(KsImuModule* imu) {
    for (int fetches = 0; imu->mode.load() == KS_IMU_DRAINING; ++fetches) {
        int count = fetch_samples(imu->fd, imu->rcv_buf);
        if ((count < 2 && dump_cnt.load() != 0) || fetches >= kMaxDrainFetches) {
            int draining = KS_IMU_DRAINING;
            imu->mode.compare_exchange_strong(draining, KS_IMU_RUNNING);
        }
        KS_LOG_DEBUG(KS_IMU_MODULE, "DUMPING cnt %d\n", count);
        dump_cnt += count;
    }
    KS_LOG_DEBUG(KS_IMU_MODULE, "Total DumpCnt %d\n", dump_cnt.load());
    while (imu->mode.load() == KS_IMU_RUNNING) {
        int count = fetch_samples(imu->fd, imu->rcv_buf);
        for (int i = 0; i < count; ++i) {
            int32_t slot = (imu->write_index.load(std::memory_order_relaxed) + 1) % kKsImuRingSize;
            imu->write_index.store(slot, std::memory_order_relaxed);
            (void)imu->consumer_calls.load(std::memory_order_acquire);
            processRawImuData(imu->rcv_buf + i * kKsImuRawSampleBytes, &imu->ring[slot], imu);
            imu->latest.store(slot, std::memory_order_release);
        }
        ks_sys_usleep(kPollPeriodUs);
    }
    KS_LOG_DEBUG(KS_IMU_MODULE, "Leaving Rcv IMU data loop\n");
    return 0;
}

int create_imu_data_receive_thread(KsImuModule* imu) {
    int mode = imu->mode;
    if (mode == KS_IMU_DRAINING || mode == KS_IMU_RUNNING) {
        KS_LOG_DEBUG(KS_IMU_MODULE, "IMU Rcv-Thread Already Created\n");
        return 0;
    }
    imu->mode = KS_IMU_DRAINING;
    reset_indices(imu);
    imu->has_thread = pthread_create(&imu->thread, nullptr, receiver_thread, imu) == 0;
    return 0;
}

int stop_imu_data_receive_thread(KsImuModule* imu) {
    imu->mode = KS_IMU_STOPPED;
    if (imu->has_thread) {
        pthread_join(imu->thread, nullptr);
        imu->has_thread = false;
    }
    reset_indices(imu);
    return 0;
}

int get_new_imu_data(KsImuModule* imu, _ks_imu_data_s** out) {
    int mode = imu->mode;
    if (mode == KS_IMU_DRAINING) {
        printf("IMU data preparing...\n");
        return -3;
    }
    if (mode != KS_IMU_RUNNING) {
        KS_LOG_ERROR(KS_IMU_MODULE, "IMU mode err %d\n", mode);
        return -1;
    }
    imu->consumer_calls.fetch_add(1, std::memory_order_release);
    // Both waits give up after about one second without a new sample.
    int steps = 0;
    while (imu->latest.load(std::memory_order_acquire) < 0) {
        KS_LOG_TRACE(KS_IMU_MODULE, "No IMU Data Loaded %d\n", imu->latest.load());
        ks_sys_usleep(kWaitStepUs);
        if (++steps > kMaxWaitSteps) return -2;
    }
    steps = 0;
    while (imu->latest.load(std::memory_order_acquire) == imu->last_read.load()) {
        ks_sys_usleep(kWaitStepUs);
        if (++steps > kMaxWaitSteps) return -2;
    }
    int32_t latest = imu->latest.load(std::memory_order_acquire);
    imu->last_read = latest;
    // The caller gets a copy: the ring slot is rewritten once the receiver
    // laps it, however long the caller keeps the sample. The bump after the
    // copy orders it before any later rewrite of the slot.
    imu->handed_out = imu->ring[latest];
    imu->consumer_calls.fetch_add(1, std::memory_order_release);
    *out = &imu->handed_out;
    return 0;
}

int release_imu_module(KsImuModule* imu) {
    // Whatever its state, the receiver stops before its buffers go.
    if (imu->has_thread) stop_imu_data_receive_thread(imu);
    release_imu_data_buff(imu);
    imu->fd = -1;
    return 0;
}

int pause_Imu_Module(KsImuModule* imu) {
    if (imu->mode == KS_IMU_RUNNING) stop_imu_data_receive_thread(imu);
    return 0;
}

int resume_Imu_Module(KsImuModule* imu) {
    return probe_and_start(imu, true);
}

int setIMUSyncIdAddress(KsImuModule* imu, unsigned long* addr) {
    imu->sync_id_addr.store(addr, std::memory_order_release);
    return 0;
}

}  // extern "C"
