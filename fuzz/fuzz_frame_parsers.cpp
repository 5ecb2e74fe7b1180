// The three frame parsers on any source frame and any offsets: the fast
// parsers must write exactly what the one-pixel-at-a-time reference writes,
// byte for byte, and nothing outside the caller's buffers.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_check.h"
#include "fuzz_input.h"
#include "ks_v4l2_driver/source/ks_v4l2_driver.h"

namespace {

struct Outputs {
    explicit Outputs(size_t w, size_t h)
        : image(w * h * 3 / 2 + 2),
          plane8(w * h),
          disparity(w * h),
          meta(w),
          a16(w * h),
          b16(w * h) {}
    std::vector<uint8_t> image, plane8;
    std::vector<uint16_t> disparity, meta, a16, b16;
    bool operator==(const Outputs& o) const {
        return image == o.image && plane8 == o.plane8 && disparity == o.disparity &&
               meta == o.meta && a16 == o.a16 && b16 == o.b16;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::Input in(data, size);
    // Small frames keep the runs fast; widths up to 400 reach every vector
    // path and its tail.
    const int w = 1 + in.u16() % 400;
    const int h = 1 + in.u8() % 12;
    const short disp_offset = static_cast<short>(in.u16());
    const unsigned char range = in.u8();

    KsY4L2Cam cam{};
    cam.width = static_cast<int16_t>(w);
    cam.height = static_cast<int16_t>(h);
    cam.pix_size = 3;
    cam.frm_size = static_cast<uint32_t>(w * h * 3);
    ksV4l2SetDisparityOffset(&cam, disp_offset);
    ksV4l2SetSearchRangeOffset(&cam, range);

    std::vector<uint8_t> frame(cam.frm_size);
    in.bytes(frame.data(), frame.size());
    const std::vector<uint8_t> original = frame;

    Outputs ref(w, h), fast(w, h);
    _cam_frame_rgbd_data a{ref.image.data(), ref.disparity.data(), 0, 0.0f, 0.0f};
    _cam_frame_rgbd_data b{fast.image.data(), fast.disparity.data(), 0, 0.0f, 0.0f};
    const int ra = ks_reference::parseRgbDFrame(frame.data(), &cam, &a, ref.meta.data());
    const int rb = parseRgbDFrame(frame.data(), &cam, &b, fast.meta.data());
    FUZZ_CHECK(ra == rb);
    FUZZ_CHECK(std::memcmp(&a.bf, &b.bf, sizeof a.bf) == 0);
    FUZZ_CHECK(std::memcmp(&a.base, &b.base, sizeof a.base) == 0);

    _cam_frame_raw_data rect_a{ref.plane8.data(), ref.image.data()};
    _cam_frame_raw_data rect_b{fast.plane8.data(), fast.image.data()};
    FUZZ_CHECK(ks_reference::parseRectifiedFrame(frame.data(), &cam, &rect_a, ref.meta.data()) ==
               parseRectifiedFrame(frame.data(), &cam, &rect_b, fast.meta.data()));

    _cam_frame_raw_data raw_a{ref.a16.data(), ref.b16.data()};
    _cam_frame_raw_data raw_b{fast.a16.data(), fast.b16.data()};
    FUZZ_CHECK(ks_reference::parseRawFrame(frame.data(), &cam, &raw_a, ref.meta.data()) ==
               parseRawFrame(frame.data(), &cam, &raw_b, fast.meta.data()));

    FUZZ_CHECK(ref == fast);
    FUZZ_CHECK(frame == original);  // the source frame is only read
    // Frame ids come from the same metadata line.
    if (w >= 26) (void)ks_frame_id_of(frame.data());
    return 0;
}
