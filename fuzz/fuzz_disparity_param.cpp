// The disparity parameter file ("%f\n%f\n": line offset, disparity offset)
// with any content: a file that is accepted sets finite offsets, and what
// the camera saves is accepted again.
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "fuzz_camera.h"
#include "fuzz_check.h"
#include "fuzz_temp_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = fuzzing::temp_path("disparity.param");
    if (!fuzzing::write_file(path, data, size)) return 0;
    FuzzCamera camera;
    const int r = camera.set_disparity_param(path.c_str());
    FUZZ_CHECK(r == 0 || (r <= -3 && r >= -4));
    if (r == 0) {
        FUZZ_CHECK(std::isfinite(camera.line_offset));
        FUZZ_CHECK(std::isfinite(camera.disp_offset));
        FUZZ_CHECK(camera.save_disparity_param(path.c_str()) == 0);
        const float line = camera.line_offset, disp = camera.disp_offset;
        FUZZ_CHECK(camera.set_disparity_param(path.c_str()) == 0);
        // Saved with six decimals: read back within half a unit of the last.
        FUZZ_CHECK(std::fabs(camera.line_offset - line) <= 1e-6f * (1.0f + std::fabs(line)));
        FUZZ_CHECK(std::fabs(camera.disp_offset - disp) <= 1e-6f * (1.0f + std::fabs(disp)));
    }
    std::remove(path.c_str());
    return 0;
}
