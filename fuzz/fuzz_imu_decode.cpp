// IMU records as the controller hands them out: replies of any shape to the
// IMU request, each whole 16-byte record decoded in turn. The reply never
// yields more records than fit the 256-byte buffer, and the decoded time
// stamps never run backwards, whatever the counters do.
#include <cstdint>
#include <cstring>

#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
#include "fake_camera.h"
#include "fuzz_check.h"
#include "fuzz_input.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"
#include "ks_imu_module/uvc-source/ks_uvc_imu_source.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::Input in(data, size);
    KsImuModule imu{};
    imu.prev_counter = in.u16();
    imu.wrap_count = in.u8();
    unsigned long frame_id = in.u32();
    imu.sync_id_addr = &frame_id;

    fuzzing::FakeCamera camera(&in);
    _struct_ks_ctrl_device handle{};
    if (ks_iic_init_dev(&handle, fuzzing::FakeCamera::kNode) != 0) return 0;
    uint64_t last = imu.wrap_count * 65535 + imu.prev_counter;
    // Two guard records past the buffer the protocol may fill.
    unsigned char records[PROTOCOL_MAX_DATA_SIZE + 2 * kKsImuRawSampleBytes];
    for (int fetch = 0; fetch < 8 && !in.empty(); ++fetch) {
        std::memset(records, 0xA5, sizeof records);
        lock_uvc_protocol_mutex();
        set_cur_uvc_fd(handle.fd);
        const int n = protocol_get_IMU(records);
        unlock_uvc_protocol_mutex();
        FUZZ_CHECK(n >= -1 && n <= kKsImuMaxSamplesPerFetch);
        for (size_t i = PROTOCOL_MAX_DATA_SIZE; i < sizeof records; ++i)
            FUZZ_CHECK(records[i] == 0xA5);
        for (int i = 0; i < n; ++i) {
            _ks_imu_data_s out;
            FUZZ_CHECK(processRawImuData(records + i * kKsImuRawSampleBytes, &out, &imu) == 0);
            FUZZ_CHECK(out.timestamp >= last);
            FUZZ_CHECK(out.sync_id == frame_id);
            last = out.timestamp;
        }
    }
    release_iic_ctrl(&handle);
    return 0;
}
