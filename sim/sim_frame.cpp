#include "sim/sim_frame.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kssim {

namespace {

void write_stereo_constants(uint8_t* frame, double bxf, double baseline) {
    const uint32_t base =
        static_cast<uint32_t>(std::clamp(std::llround(baseline * 128.0), 0ll, 0xFFFFll));
    put_word(frame, 16, static_cast<uint16_t>(base >> 4));
    put_word(frame, 17, static_cast<uint16_t>((base & 0x0F) << 8));
    const uint32_t bf =
        static_cast<uint32_t>(std::clamp(std::llround(bxf * 4096.0), 0ll, 0xFFFFFFFFll));
    put_word(frame, 18, static_cast<uint16_t>((bf >> 28) & 0x0F));
    put_word(frame, 19, static_cast<uint16_t>((bf >> 16) & 0xFFF));
    put_word(frame, 20, static_cast<uint16_t>((bf >> 4) & 0xFFF));
    put_word(frame, 21, static_cast<uint16_t>((bf & 0x0F) << 8));
}

void compute_statistics(const std::vector<uint16_t>& luma12, int w, int h, uint16_t out[5]) {
    uint64_t sum = 0, centre_sum = 0, centre_n = 0;
    uint32_t bright = 0, dark = 0, peak = 0;
    for (int y = 0; y < h; ++y) {
        const bool centre_row = y >= h / 4 && y < h - h / 4;
        for (int x = 0; x < w; ++x) {
            const uint32_t l =
                luma12[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)] >>
                4;
            sum += l;
            if (l >= 250) ++bright;
            if (l <= 16) ++dark;
            peak = std::max(peak, l);
            if (centre_row && x >= w / 4 && x < w - w / 4) {
                centre_sum += l;
                ++centre_n;
            }
        }
    }
    const uint64_t n = static_cast<uint64_t>(w) * static_cast<uint64_t>(h);
    auto sat = [](uint64_t v) { return static_cast<uint16_t>(std::min<uint64_t>(v, 0xFFFF)); };
    out[0] = sat(n ? sum * 256 / n : 0);
    out[1] = sat(bright / 16);
    out[2] = sat(dark / 16);
    out[3] = sat(centre_n ? centre_sum * 256 / centre_n : 0);
    out[4] = sat(static_cast<uint64_t>(peak) * 256);
}

// Five 16-bit values, 80 bits, into the 12-bit words M35..M41 (the low
// nibble of M41 stays 0).
void write_statistics(uint8_t* frame, const uint16_t s[5]) {
    uint16_t words[7] = {0, 0, 0, 0, 0, 0, 0};
    int bit = 0;  // bits written so far, counted from the top of M35
    for (int i = 0; i < 5; ++i) {
        for (int b = 15; b >= 0; --b, ++bit) {
            if ((s[i] >> b) & 1) words[bit / 12] |= static_cast<uint16_t>(1u << (11 - bit % 12));
        }
    }
    for (int k = 0; k < 7; ++k) put_word(frame, 35 + k, words[k]);
}

}  // namespace

bool operator==(const FrameParams& a, const FrameParams& b) {
    return std::memcmp(&a.scene, &b.scene, sizeof(a.scene)) == 0 && a.width == b.width &&
           a.height == b.height && a.bxf == b.bxf && a.baseline == b.baseline &&
           a.readout == b.readout && a.channel == b.channel && a.brightness == b.brightness &&
           a.search_range == b.search_range;
}

bool is_known_channel(uint8_t channel) {
    return channel == KSSIM_CHANNEL_ORIGIN_PAIR || channel == KSSIM_CHANNEL_RECTIFIED_PAIR ||
           channel == KSSIM_CHANNEL_ORIGIN_DISPARITY || channel == KSSIM_CHANNEL_RGBD;
}

namespace {

// The view's 12-bit luma of one sensor, scaled by 2^(eighths / 8).
const std::vector<uint16_t>& scaled_luma(const std::vector<uint16_t>& luma, int eighths,
                                         std::vector<uint16_t>& storage) {
    if (eighths == 0) return luma;
    const double f = std::exp2(eighths / 8.0);
    storage.resize(luma.size());
    for (size_t i = 0; i < luma.size(); ++i)
        storage[i] = static_cast<uint16_t>(std::min(4095.0, std::round(luma[i] * f)));
    return storage;
}

}  // namespace

std::shared_ptr<SourceFrame> encode_frame(const SceneView& view, uint8_t channel, int brightness,
                                          int search_range) {
    auto out = std::make_shared<SourceFrame>();
    const int w = view.width, h = view.height;
    std::vector<uint16_t> scaled_a, scaled_b;
    const std::vector<uint16_t>& luma_a = scaled_luma(view.luma_a, brightness, scaled_a);
    const std::vector<uint16_t>& luma_b = scaled_luma(view.luma_b, brightness, scaled_b);
    out->width = w;
    out->height = h;
    out->channel = channel;
    out->bytes.assign(static_cast<size_t>(w) * static_cast<size_t>(h) * 3, 0);
    std::vector<uint16_t> disparity;
    const bool with_disparity =
        channel == KSSIM_CHANNEL_RGBD || channel == KSSIM_CHANNEL_ORIGIN_DISPARITY;
    int lag_lines = kProcessedLagLines, lag_columns = 0;
    if (channel == KSSIM_CHANNEL_RGBD) processed_disparity(view, search_range, disparity);
    if (channel == KSSIM_CHANNEL_ORIGIN_DISPARITY) {
        raw_disparity(view, search_range, disparity);
        lag_lines = kRawLagLines;
        lag_columns = kRawLagColumns;
    }
    const size_t cw = static_cast<size_t>(w / 2);
    for (int y = 0; y < h; ++y) {
        uint8_t* line = out->bytes.data() + static_cast<size_t>(y) * static_cast<size_t>(w) * 3;
        const std::vector<uint8_t>& chroma = (y % 2 == 0) ? view.u_a : view.v_a;
        const size_t crow = static_cast<size_t>(y / 2) * cw;
        for (int x = 0; x < w; ++x) {
            const size_t i =
                static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x);
            const uint16_t a12 = luma_a[i];
            uint8_t n = 0;
            if (channel == KSSIM_CHANNEL_ORIGIN_PAIR) {
                n = static_cast<uint8_t>(a12 & 0x0F);
            } else if (static_cast<size_t>(x / 2) < cw) {
                const uint8_t c = chroma[crow + static_cast<size_t>(x / 2)];
                n = (x % 2 == 0) ? static_cast<uint8_t>(c >> 4) : static_cast<uint8_t>(c & 0x0F);
            }
            uint16_t v = 0;
            if (y > 0) {
                if (with_disparity) {
                    if (y >= lag_lines && x >= lag_columns)
                        v = disparity[static_cast<size_t>(y - lag_lines) * static_cast<size_t>(w) +
                                      static_cast<size_t>(x - lag_columns)];
                } else {
                    v = luma_b[i];
                }
            }
            pack_pixel(line + 3 * x, static_cast<uint8_t>(a12 >> 4), n, v);
        }
    }
    uint8_t* meta = out->bytes.data();
    put_word(meta, 0, kMarkerM0);
    put_word(meta, 1, kMarkerM1);
    write_stereo_constants(meta, view.bxf, view.baseline);
    put_word(meta, 34, channel);
    compute_statistics(luma_a, w, h, out->ae);
    write_statistics(meta, out->ae);
    return out;
}

void stamp_frame(uint8_t* frame, size_t size, uint64_t frame_id, uint64_t timestamp_us) {
    if (size < static_cast<size_t>(kMetaWords) * 3) return;
    frame_id &= kFrameIdMask;
    timestamp_us &= kTimestampMask;
    put_word(frame, 23, static_cast<uint16_t>((frame_id >> 24) & 0xFFF));
    put_word(frame, 24, static_cast<uint16_t>((frame_id >> 12) & 0xFFF));
    put_word(frame, 25, static_cast<uint16_t>(frame_id & 0xFFF));
    put_word(frame, 26, static_cast<uint16_t>((timestamp_us >> 36) & 0xFFF));
    put_word(frame, 27, static_cast<uint16_t>((timestamp_us >> 24) & 0xFFF));
    put_word(frame, 28, static_cast<uint16_t>((timestamp_us >> 12) & 0xFFF));
    put_word(frame, 29, static_cast<uint16_t>(timestamp_us & 0xFFF));
}

std::shared_ptr<SourceFrame> flat_yuyv_frame(int width, int height) {
    auto out = std::make_shared<SourceFrame>();
    out->width = width;
    out->height = height;
    out->bytes.assign(static_cast<size_t>(width) * static_cast<size_t>(height) * 2, 0x80);
    return out;
}

}  // namespace kssim
