#include "sim/sim_epr.h"

#include <cmath>
#include <cstring>

#include "sim/kssim.h"
#include "sim/sim_bytes.h"
#include "sim/sim_scene.h"

namespace kssim {

namespace {

constexpr uint8_t kMagic[4] = {0x4B, 0x45, 0x50, 0x52};
constexpr size_t kBodyOffset = 20;

void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

bool sizes_ok(uint16_t w, uint16_t h) {
    return w >= 16 && w <= 4096 && h >= 8 && h <= 4096;
}

}  // namespace

uint32_t crc32(const uint8_t* data, size_t size) {
    static const struct Table {
        uint32_t t[256];
        Table() {
            for (uint32_t i = 0; i < 256; ++i) {
                uint32_t c = i;
                for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
                t[i] = c;
            }
        }
    } table;
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) c = table.t[(c ^ data[i]) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

bool epr_encode_constants(double bxf, double baseline, uint32_t* bxf_raw, uint16_t* baseline_raw) {
    if (!(bxf > 0) || !(baseline > 0)) return false;
    const double b = std::round(bxf * 4096.0), l = std::round(baseline * 128.0);
    if (b < 1 || b > 4294967295.0 || l < 1 || l > 65535.0) return false;
    *bxf_raw = static_cast<uint32_t>(b);
    *baseline_raw = static_cast<uint16_t>(l);
    return true;
}

bool epr_build(uint8_t* out, const EprInfo& info) {
    if (out == nullptr || !sizes_ok(info.width, info.height) || info.bxf_raw == 0 ||
        info.baseline_raw == 0)
        return false;
    std::memcpy(out, kMagic, 4);
    put16(out + 4, kEprVersion);
    put16(out + 6, info.width);
    put16(out + 8, info.height);
    put32(out + 10, info.bxf_raw);
    put16(out + 14, info.baseline_raw);
    put32(out + 16, info.seed);
    for (size_t i = kBodyOffset; i < kEprCrcOffset; i += 8) {
        const uint64_t r = mix64((uint64_t{info.seed} << 32) ^ i ^ 0x4B455052ull);
        for (size_t k = 0; k < 8 && i + k < kEprCrcOffset; ++k)
            out[i + k] = static_cast<uint8_t>(r >> (8 * k));
    }
    put32(out + kEprCrcOffset, crc32(out, kEprCrcOffset));
    return true;
}

bool epr_parse(const uint8_t* image, size_t size, EprInfo* info) {
    if (image == nullptr || size < kEprSize) return false;
    if (std::memcmp(image, kMagic, 4) != 0 || get16(image + 4) != kEprVersion) return false;
    if (get32(image + kEprCrcOffset) != crc32(image, kEprCrcOffset)) return false;
    EprInfo e;
    e.width = get16(image + 6);
    e.height = get16(image + 8);
    e.bxf_raw = get32(image + 10);
    e.baseline_raw = get16(image + 14);
    e.seed = get32(image + 16);
    if (!sizes_ok(e.width, e.height) || e.bxf_raw == 0 || e.baseline_raw == 0) return false;
    if (info != nullptr) *info = e;
    return true;
}

}  // namespace kssim

// The C interface (kssim.h). Kept here so that tools can use the image format
// without the rest of the simulator.
extern "C" {

int kssim_epr_build(uint8_t* out, uint16_t width, uint16_t height, double bxf, double baseline,
                    uint32_t seed) {
    kssim::EprInfo e;
    e.width = width;
    e.height = height;
    e.seed = seed;
    if (out == nullptr || !kssim::epr_encode_constants(bxf, baseline, &e.bxf_raw, &e.baseline_raw))
        return -1;
    return kssim::epr_build(out, e) ? 0 : -1;
}

int kssim_epr_check(const uint8_t* image, size_t size, uint16_t* width, uint16_t* height,
                    double* bxf, double* baseline) {
    kssim::EprInfo e;
    if (!kssim::epr_parse(image, size, &e)) return -1;
    if (width != nullptr) *width = e.width;
    if (height != nullptr) *height = e.height;
    if (bxf != nullptr) *bxf = e.bxf();
    if (baseline != nullptr) *baseline = e.baseline();
    return 0;
}

}  // extern "C"
