// EPR images and FPGA bitstreams read from disk: any file comes back whole
// in a zero-padded buffer of the documented length, and goes to the
// controller's flash in whole sectors.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fake_camera.h"
#include "fuzz_check.h"
#include "fuzz_input.h"
#include "fuzz_temp_file.h"
#include "ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    static const std::string path = fuzzing::temp_path("image.bin");
    const uint8_t what = data[0];
    if (!fuzzing::write_file(path, data + 1, size - 1)) return 0;
    const size_t file_size = size - 1;

    unsigned char* buffer = nullptr;
    uint32_t length = 0;
    if (read_binary_file(path.c_str(), &buffer, &length) == 0) {
        FUZZ_CHECK(length == ((file_size >> 12) + 1) << 12);
        FUZZ_CHECK(file_size == 0 || std::memcmp(buffer, data + 1, file_size) == 0);
        for (size_t i = file_size; i < length; ++i) FUZZ_CHECK(buffer[i] == 0);
    }
    release_binary_data(&buffer);

    fuzzing::FakeCamera camera;
    _struct_ks_ctrl_device handle{};
    if (ks_iic_init_dev(&handle, fuzzing::FakeCamera::kNode) != 0) return 0;
    if (what & 1) {
        ks_send_FPGA_bit(&handle, path.c_str());
    } else {
        ks_upload_epr_parameter(&handle, path.c_str(), static_cast<uint8_t>(what >> 1));
    }
    release_iic_ctrl(&handle);
    std::remove(path.c_str());
    return 0;
}
