// The camera's source frame, as the USB controller sends it in "BGR3".
//
// Every pixel is three bytes b0, b1, b2: b2 is the 8-bit luma Y of image A,
// the high nibble of b1 is a chroma nibble N, and the low nibble of b1
// followed by b0 is a 12-bit value V. Pixel pairs (2k, 2k + 1) of a line carry
// one 8-bit chroma sample of image A in their two nibbles (high nibble
// first); even lines carry U, odd lines V (I420 subsampling).
//
// Line 0 is the metadata line: its 12-bit values are words M0, M1, ...
//   M0, M1    markers 0xACE, 0xBED
//   M16, M17  baseline in 1/128 mm: M16 = bits 15..4, top nibble of M17 = bits 3..0
//   M18..M21  bxf in 1/4096: low nibble of M18 = bits 31..28, M19 = 27..16,
//             M20 = 15..4, top nibble of M21 = 3..0
//   M23..M25  36-bit frame id, most significant word first
//   M26..M29  48-bit timestamp in microseconds of the camera clock, MSW first
//   M34       output channel code
//   M35..M41  five 16-bit exposure statistics packed most significant bit first:
//             S0 mean luma x 256; S1 pixels at 250 or brighter / 16;
//             S2 pixels at 16 or darker / 16; S3 mean luma of the centre x 256;
//             S4 peak luma x 256 (saturated at 0xFFFF)
//
// The values V of lines 1.. depend on the output channel:
//   RGBD (0x7F): processed disparity in 1/32 pixel; the disparity of image
//     pixel (x, y) comes in line y + 3, column x (lines 1 and 2 carry none);
//   origin disparity (0x7E): the raw matcher's disparity, which lags further:
//     that of image pixel (x, y) comes in line y + 6, column x + 22 (the host
//     reads it there and registers its own output to the image);
//   both send the disparity minus 32 x the search range (ASIC 0x42), 0 where
//     that leaves 1..4095;
//   rectified pair (0x76): image B, 12 bits;
//   origin pair (0x23): image B, 12 bits; and N carries the low 4 bits of
//     image A's 12-bit value instead of chroma (Y holds its high 8 bits).
#ifndef KSSIM_SIM_FRAME_H
#define KSSIM_SIM_FRAME_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "sim/sim_scene.h"

namespace kssim {

constexpr uint16_t kMarkerM0 = 0xACE;
constexpr uint16_t kMarkerM1 = 0xBED;
// Where the disparity of image pixel (x, y) travels in the frame.
constexpr int kProcessedLagLines = 3;
constexpr int kRawLagLines = 6;
constexpr int kRawLagColumns = 22;
constexpr int kMetaWords = 42;  // words the camera fills in the metadata line
constexpr uint64_t kFrameIdMask = (1ull << 36) - 1;
constexpr uint64_t kTimestampMask = (1ull << 48) - 1;

inline void pack_pixel(uint8_t* p, uint8_t y, uint8_t n, uint16_t v) {
    p[0] = static_cast<uint8_t>(v & 0xFF);
    p[1] = static_cast<uint8_t>(((n & 0x0F) << 4) | ((v >> 8) & 0x0F));
    p[2] = y;
}

// Sets the 12-bit value of pixel k of line 0, keeping its luma and nibble.
inline void put_word(uint8_t* frame, int k, uint16_t v) {
    uint8_t* p = frame + 3 * k;
    p[0] = static_cast<uint8_t>(v & 0xFF);
    p[1] = static_cast<uint8_t>((p[1] & 0xF0) | ((v >> 8) & 0x0F));
}

bool is_known_channel(uint8_t channel);

struct SourceFrame {
    int width = 0, height = 0;
    uint8_t channel = 0;
    std::vector<uint8_t> bytes;  // width x height x 3
    uint16_t ae[5] = {0, 0, 0, 0, 0};
};

// Everything an encoded frame depends on.
struct FrameParams {
    kssim_scene scene{};
    int width = 0, height = 0;
    double bxf = 0, baseline = 0;
    Readout readout;
    uint8_t channel = 0;
    int brightness = 0;
    int search_range = 0;
};
bool operator==(const FrameParams& a, const FrameParams& b);

// Encodes one channel of a rendered view, with the static part of the
// metadata line (markers, stereo constants, channel code, statistics). The
// sensors' luma is scaled by 2^(brightness / 8) (saturating at 12 bits)
// before encoding, so the exposure statistics follow it; disparities are
// sent for the search range given.
std::shared_ptr<SourceFrame> encode_frame(const SceneView& view, uint8_t channel,
                                          int brightness = 0, int search_range = 0);

// Writes the per-frame words: frame id (M23..M25) and timestamp (M26..M29).
void stamp_frame(uint8_t* frame, size_t size, uint64_t frame_id, uint64_t timestamp_us);

// A flat YUYV frame (what the generic webcam sends).
std::shared_ptr<SourceFrame> flat_yuyv_frame(int width, int height);

}  // namespace kssim

#endif
