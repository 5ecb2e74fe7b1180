// The parameter image ("EPR") of the virtual camera's stereo ASIC.
//
// The ASIC boots from a 3072-byte image that it reads at power-up from the
// start of the EEPROM. The virtual ASIC understands one format of its own:
//
//   offset  size  content (multi-byte numbers most significant byte first)
//   0       4     magic "KEPR" (0x4B 0x45 0x50 0x52)
//   4       2     format version, 1
//   6       2     output width in pixels (16 .. 4096)
//   8       2     output height in pixels (8 .. 4096)
//   10      4     bxf x 4096 (as the ASIC's registers 0x0C..0x0F carry it), > 0
//   14      2     baseline x 128 (as registers 0x08..0x09 carry it), > 0
//   16      4     seed of the parameter body
//   20      3048  parameter body: rectification and matching tables, here a
//                 pseudo-random fill derived from the seed (any content is
//                 accepted)
//   3068    4     CRC-32 (IEEE 802.3, reflected, initial and final value
//                 0xFFFFFFFF) of bytes 0 .. 3067
//
// An image is valid when magic, version, sizes, constants and CRC all hold.
// Anything else (an erased EEPROM reading 0xFF, an image of another format,
// one flipped bit) is rejected, and the ASIC then reports a failed load.
// Files may be longer than 3072 bytes (uploads pad to 4096); only the first
// 3072 bytes count.
#ifndef KSSIM_SIM_EPR_H
#define KSSIM_SIM_EPR_H

#include <cstddef>
#include <cstdint>

namespace kssim {

constexpr size_t kEprSize = 3072;
constexpr uint16_t kEprVersion = 1;
constexpr size_t kEprCrcOffset = kEprSize - 4;

struct EprInfo {
    uint16_t width = 0;
    uint16_t height = 0;
    uint32_t bxf_raw = 0;       // bxf x 4096
    uint16_t baseline_raw = 0;  // baseline x 128
    uint32_t seed = 0;
    double bxf() const { return bxf_raw / 4096.0; }
    double baseline() const { return baseline_raw / 128.0; }
};

uint32_t crc32(const uint8_t* data, size_t size);

// Encodes bxf and baseline as the image stores them; false when out of range.
bool epr_encode_constants(double bxf, double baseline, uint32_t* bxf_raw, uint16_t* baseline_raw);

// Writes a valid image of kEprSize bytes; false when a field is out of range.
bool epr_build(uint8_t* out, const EprInfo& info);

// Checks an image of at least kEprSize bytes; fills *info when it is valid.
bool epr_parse(const uint8_t* image, size_t size, EprInfo* info);

}  // namespace kssim

#endif
