// Every protocol command and every register, EEPROM, flash and controller
// primitive, fed with reply blocks the input makes up: raw blocks, framed
// replies with any length, command, checksum or contents, or a well-behaved
// answer. Nothing may read or write outside its buffers, and every call ends.
#include <cstdint>
#include <cstring>
#include <vector>

#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
#include "fake_camera.h"
#include "fuzz_check.h"
#include "fuzz_input.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

namespace {

constexpr unsigned kSector = PROTOCOL_FLASH_SECTOR_SIZE;

void run_command(uint8_t which, fuzzing::Input& in, _struct_ks_ctrl_device* handle) {
    unsigned char buf[PROTOCOL_FLASH_SECTOR_SIZE] = {};
    unsigned char small[PROTOCOL_MAX_DATA_SIZE] = {};
    uint16_t value = 0;
    uint32_t count = 0;
    char version[32];
    // The protocol's callers select the camera and hold the mutex.
    set_cur_uvc_fd(handle->fd);
    // One command a line.
    // clang-format off
    switch (which % 30) {
        case 0: protocol_get_slaver_version(small); break;
        case 1: protocol_flash_read_page(in.u32(), small); break;
        case 2: protocol_flash_write_page(in.u32(), small); break;
        case 3: protocol_flash_erase_sector(in.u32()); break;
        case 4: protocol_update_eeprom(in.u8()); break;
        case 5: {
            const unsigned len = in.u16() % 300;
            std::vector<unsigned char> out(len + 1);
            protocol_iic_read(in.u8(), in.u16(), out.data(), len);
            break;
        }
        case 6: protocol_iic_write(in.u8(), in.u16(), small, in.u16() % 300); break;
        case 7: protocol_set_gpio(in.u8(), in.u8()); break;
        case 8: protocol_get_gpio(in.u8(), small); break;
        case 9: {
            const unsigned char n = in.u8();
            protocol_set_gpios(small, small + 128, n > 127 ? 127 : n);
            protocol_get_gpios(small, buf, n);
            break;
        }
        case 10: protocol_get_status(small); break;
        case 11: protocol_get_IMU(small); break;
        case 12: protocol_set_asic(in.u8()); break;
        case 13: protocol_get_reset_count(&count); break;
        case 14: protocol_write_flash_data(in.below(4) * kSector, buf, kSector); break;
        case 15: protocol_read_flash_data(in.below(4) * kSector, buf, kSector); break;
        case 16: {
            unsigned char* raw = nullptr;
            send_naked_message(in.u8() & 1, 1 + (in.u8() & 1));
            receive_naked_message(&raw);
            break;
        }
        case 17: ks_iic_write(handle, in.u16(), in.u8()); break;
        case 18: ks_iic_read(handle, in.u16(), &value); break;
        case 19: ks_eeprom_write(handle, in.u16(), in.u8()); break;
        case 20: ks_eeprom_read(handle, in.u16(), &value); break;
        case 21: ks_fpga_write(handle, in.u16(), in.u8()); break;
        case 22: ks_fpga_read(handle, in.u16(), &value); break;
        case 23: ks_send_asic_epr_to_usb_flash(handle, in.u8() % 8, buf, kSector); break;
        case 24: ks_receive_asic_epr(handle, in.u8() % 8, buf, kSector); break;
        case 25: ks_kernel_send_fpga_bit(handle, buf, kSector); break;
        case 26: ks_kernel_receive_fpga_bit(handle, buf, kSector); break;
        case 27:
            if (ks_get_usb_version_kernel(handle, version) == 0)
                FUZZ_CHECK(memchr(version, '\0', sizeof version) != nullptr);
            break;
        case 28:
            ks_kernel_set_asic_gpio(handle, in.u8());
            ks_reset_asic_status(handle, in.u8());
            break;
        default:
            if (in.u8() & 1) {
                ks_select_eeprom_from_usb_flash(handle, in.u8());
            } else {
                ks_get_usb_nuvex_reset_cnt_kernel(handle, &count);
            }
            break;
    }
    // clang-format on
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::Input in(data, size);
    // The first bytes choose the calls; the rest are the device's replies.
    uint8_t calls[4];
    in.bytes(calls, sizeof calls);
    uint8_t args[64];
    in.bytes(args, sizeof args);
    fuzzing::Input arg_in(args, sizeof args);
    fuzzing::FakeCamera camera(&in);
    _struct_ks_ctrl_device handle{};
    if (ks_iic_init_dev(&handle, fuzzing::FakeCamera::kNode) != 0) return 0;
    for (uint8_t which : calls) run_command(which, arg_in, &handle);
    release_iic_ctrl(&handle);
    return 0;
}
