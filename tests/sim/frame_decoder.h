// A small decoder of the camera's source frames, written for the tests from
// the frame format alone (it shares no code with the simulator).
// Pixel: bytes b0, b1, b2. Y = b2, N = b1 >> 4, V = (b1 & 0x0F) << 8 | b0.
// Line 0: V of pixel k is metadata word Mk.
#ifndef KSSIM_TEST_FRAME_DECODER_H
#define KSSIM_TEST_FRAME_DECODER_H

#include <cstddef>
#include <cstdint>

namespace frame_test {

struct Pixel {
    uint8_t y;
    uint8_t n;
    uint16_t v;
};

class Frame {
  public:
    Frame(const uint8_t* data, int width, int height) : d_(data), w_(width), h_(height) {}

    int width() const { return w_; }
    Pixel at(int x, int line) const {
        const uint8_t* p = d_ + 3 * (static_cast<size_t>(line) * w_ + x);
        return Pixel{p[2], static_cast<uint8_t>(p[1] >> 4),
                     static_cast<uint16_t>(((p[1] & 0x0F) << 8) | p[0])};
    }
    uint16_t word(int k) const { return at(k, 0).v; }
    bool markers_ok() const { return word(0) == 0xACE && word(1) == 0xBED; }
    uint64_t frame_id() const {
        return (uint64_t{word(23)} << 24) | (uint64_t{word(24)} << 12) | word(25);
    }
    uint64_t timestamp() const {
        return ((uint64_t{word(26)} & 0xFFF) << 36) + ((uint64_t{word(27)} & 0xFFF) << 24) +
               ((uint64_t{word(28)} << 12) & 0xFFF000) + (word(29) & 0xFFF);
    }
    double base() const { return (word(16) * 16.0 + ((word(17) >> 8) & 0x0F)) / 128.0; }
    double bf() const {
        const uint32_t v = ((uint32_t{word(18)} & 0x0F) << 28) + (uint32_t{word(19)} << 16) +
                           (uint32_t{word(20)} << 4) + (uint32_t{word(21)} >> 8);
        return v / 4096.0;
    }
    uint8_t channel() const { return static_cast<uint8_t>(word(34) & 0xFF); }
    // Exposure statistics as the host computes them: S0 the mean luma in
    // 1/128, S1 the saturated-pixel count / 8, S4 the peak luma x 256.
    uint32_t ae(int k) const {
        const uint32_t m35 = word(35), m36 = word(36), m37 = word(37);
        if (k == 4) return ((uint32_t{word(40)} << 8) & 0xFF00) + ((word(41) & 0xFF0) >> 4);
        return k == 0 ? ((m35 << 4) + ((m36 & 0xF00) >> 8)) >> 1
                      : (((m36 << 8) & 0xFF00) + ((m37 & 0xFF0) >> 4)) * 2;
    }
    // Chroma sample of pixel pair k on a line (U on even lines, V on odd).
    uint8_t chroma(int k, int line) const {
        return static_cast<uint8_t>((at(2 * k, line).n << 4) | at(2 * k + 1, line).n);
    }
    // Disparity (1/32 pixel) of image pixel (x, row) on the processed
    // channel: it arrives three lines later.
    uint16_t disparity(int x, int row) const { return at(x, row + 3).v; }
    int disparity_rows() const { return h_ - 3; }
    // The same on the raw channel: six lines and 22 columns later (for x
    // below width - 22 and rows below height - 6).
    uint16_t raw_disparity(int x, int row) const { return at(x + 22, row + 6).v; }

  private:
    const uint8_t* d_;
    int w_, h_;
};

}  // namespace frame_test

#endif
