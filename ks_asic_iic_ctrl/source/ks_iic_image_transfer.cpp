// EPR and FPGA image transfer between host files, the controller's flash,
// the EEPROM slots and the effective EPR area.
#include "ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"

#include <errno.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "control_protocol/protocol_master.h"
#include "ks_asic_iic_ctrl/source/ks_iic_app_private.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"

namespace {

// The process-wide observer; a transfer takes a copy when it starts.
std::mutex gProgressMutex;
ks_transfer_progress_fn gProgressFn = nullptr;
void* gProgressUser = nullptr;

// Progress of one transfer, reported to the observer in force at its start.
// EEPROM bytes are reported once per 64-byte page and at the end.
class Progress {
  public:
    Progress(const char* what, uint64_t total) : total_(total) {
        {
            std::lock_guard<std::mutex> lock(gProgressMutex);
            fn_ = gProgressFn;
            user_ = gProgressUser;
        }
        std::snprintf(what_, sizeof what_, "%s", what);
        report(0);
    }
    void report(uint64_t done) {
        if (fn_ != nullptr) fn_(what_, done, total_, user_);
    }
    void byte_done(uint64_t done) {
        if (done % 64 == 0 || done == total_) report(done);
    }
    // Pages written to flash by this thread, until the object goes.
    void watch_flash_pages() {
        protocol_set_flash_progress(&Progress::on_flash_page, this);
        watching_ = true;
    }
    ~Progress() {
        if (watching_) protocol_set_flash_progress(nullptr, nullptr);
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

  private:
    static void on_flash_page(unsigned int written, unsigned int, void* self) {
        static_cast<Progress*>(self)->report(written);
    }
    ks_transfer_progress_fn fn_ = nullptr;
    void* user_ = nullptr;
    uint64_t total_;
    bool watching_ = false;
    char what_[64];
};

// The EEPROM is addressed with 16 bits: an upload to the effective area
// stops at the end of that space instead of wrapping onto its own start.
constexpr uint32_t kEepromAddressSpace = 0x10000;
// Largest file whose padded length still fits the 32-bit length.
constexpr unsigned long kMaxFileSize = 0xFFFFEFFFul;

unsigned int eeprom_slot_address(uint8_t slot) {
    return KS_EEPROM_EPR_SIZE * (static_cast<unsigned int>(slot) + 1);
}

// Reads 3072 EEPROM bytes from addr into a new buffer: 0 or -2.
int download_epr(_struct_ks_ctrl_device* handle, unsigned int addr, unsigned char** buffer,
                 bool index_in_message) {
    if (handle == nullptr || buffer == nullptr) return -1;
    *buffer = nullptr;
    unsigned char* data = static_cast<unsigned char*>(std::calloc(KS_EEPROM_EPR_SIZE, 1));
    if (data == nullptr) return -2;
    Progress progress(addr == 0 ? "reading the effective EPR" : "reading an EEPROM EPR slot",
                      KS_EEPROM_EPR_SIZE);
    for (unsigned int i = 0; i < KS_EEPROM_EPR_SIZE; ++i) {
        uint16_t value = 0;
        if (ks_eeprom_read(handle, addr + i, &value) != 0) {
            if (index_in_message)
                KS_APP_ERROR("Load epr data error. idx[%d]\n", i);
            else
                KS_APP_ERROR("Load epr data error. idx[i]\n");
            std::free(data);
            return -2;
        }
        data[i] = static_cast<unsigned char>(value);
        progress.byte_done(i + 1);
    }
    *buffer = data;
    return 0;
}

}  // namespace

extern "C" {

void ks_set_transfer_progress(ks_transfer_progress_fn fn, void* user) {
    std::lock_guard<std::mutex> lock(gProgressMutex);
    gProgressFn = fn;
    gProgressUser = user;
}

// ---- files ----

int read_binary_file(const char* path, unsigned char** buffer, uint32_t* length) {
    if (buffer != nullptr) *buffer = nullptr;
    if (path == nullptr || buffer == nullptr || length == nullptr) {
        fprintf(stderr, "Cannot open '%s': %d, %s\n", path != nullptr ? path : "(null)", EINVAL,
                strerror(EINVAL));
        return -3;
    }
    FILE* fp = std::fopen(path, "rb");
    if (fp == nullptr) {
        const int err = errno;
        fprintf(stderr, "Cannot open '%s': %d, %s\n", path, err, strerror(err));
        return -3;
    }
    long end = -1;
    if (std::fseek(fp, 0, SEEK_END) == 0) end = std::ftell(fp);
    std::rewind(fp);
    if (end < 0 || static_cast<unsigned long>(end) > kMaxFileSize) {
        fprintf(stderr, "Reading error");
        std::fclose(fp);
        return -2;
    }
    const unsigned long size = static_cast<unsigned long>(end);
    const uint32_t alloc = static_cast<uint32_t>(((size >> 12) + 1) << 12);
    printf("file size %lu,alloc size %d\n", size, static_cast<int>(alloc));
    unsigned char* data = static_cast<unsigned char*>(std::calloc(alloc, 1));
    if (data == nullptr) {
        fprintf(stderr, "Reading error");
        std::fclose(fp);
        return -2;
    }
    *buffer = data;
    if (std::fread(data, 1, size, fp) != size) {
        fprintf(stderr, "Reading error");
        std::fclose(fp);
        return -2;
    }
    *length = alloc;
    std::fclose(fp);
    return 0;
}

int write_binary_file(const char* path, const unsigned char* buffer, uint32_t size) {
    if (path == nullptr || (buffer == nullptr && size > 0)) {
        printf("Init File error");
        return -1;
    }
    FILE* fp = std::fopen(path, "w");
    if (fp == nullptr) {
        printf("Init File error");
        return -1;
    }
    if (size > 0) std::fwrite(buffer, 1, size, fp);
    std::fclose(fp);
    return 0;
}

int release_binary_data(unsigned char** buffer) {
    if (buffer != nullptr && *buffer != nullptr) std::free(*buffer);
    return 0;
}

// ---- flash ----

int ks_upload_epr_parameter(_struct_ks_ctrl_device* handle, const char* path, uint8_t slot) {
    if (handle == nullptr) return -1;
    unsigned char* data = nullptr;
    uint32_t length = 0;
    const int read = read_binary_file(path, &data, &length);
    if (read != 0) {
        release_binary_data(&data);
        return read;
    }
    KS_APP_INFO("Load para: %s\n,data size %d\n", path, static_cast<int>(length));
    char what[64];
    std::snprintf(what, sizeof what, "writing EPR to flash slot %d", slot);
    int ret;
    {
        Progress progress(what, length);
        progress.watch_flash_pages();
        ret = static_cast<int>(ks_send_asic_epr_to_usb_flash(handle, slot, data, length));
    }
    release_binary_data(&data);
    return ret;
}

int ks_send_FPGA_bit(_struct_ks_ctrl_device* handle, const char* path) {
    if (handle == nullptr) return -1;
    unsigned char* data = nullptr;
    uint32_t length = 0;
    const int read = read_binary_file(path, &data, &length);
    if (read != 0) {
        release_binary_data(&data);
        return read;
    }
    KS_APP_DEBUG("Load FPGA bit %s,size %d\n", path, static_cast<int>(length));
    int ret;
    {
        Progress progress("writing the FPGA bitstream to flash", length);
        progress.watch_flash_pages();
        ret = static_cast<int>(ks_kernel_send_fpga_bit(handle, data, length));
    }
    release_binary_data(&data);
    return ret;
}

// ---- EEPROM slots ----

int ks_upload_asic_epr_to_eeprom(_struct_ks_ctrl_device* handle, uint8_t slot,
                                 const unsigned char* data, uint32_t size) {
    if (handle == nullptr) return -1;
    if (size > KS_EEPROM_EPR_SIZE) {
        KS_APP_ERROR("Input Data size %d exceeds predefined epr space [%d] in EEPROM\n",
                     static_cast<int>(size), KS_EEPROM_EPR_SIZE);
        return -1;
    }
    if (size == 0) return 0;
    if (data == nullptr) return -1;
    const unsigned int base = eeprom_slot_address(slot);
    char what[64];
    std::snprintf(what, sizeof what, "writing EPR to EEPROM slot %d", slot);
    Progress progress(what, size);
    for (uint32_t i = 0; i < size; ++i) {
        if (ks_eeprom_write(handle, base + i, data[i]) != 0) {
            KS_APP_ERROR("Write epr file error. idx[i]\n");
            return -2;
        }
        progress.byte_done(i + 1);
    }
    return 0;
}

int ks_download_asic_epr_from_eeprom(_struct_ks_ctrl_device* handle, uint8_t slot,
                                     unsigned char** buffer) {
    return download_epr(handle, eeprom_slot_address(slot), buffer, false);
}

// ---- the effective EPR ----

int ks_download_effective_epr_data_from_eeprom(_struct_ks_ctrl_device* handle,
                                               unsigned char** buffer) {
    return download_epr(handle, 0, buffer, true);
}

int ks_erase_effective_epr_data_in_eeprom(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    for (int i = 0; i < 10; ++i) {
        if (ks_eeprom_write(handle, static_cast<unsigned int>(i), 0xFF) != 0) {
            KS_APP_ERROR("Erase EPR DATA Failed in idx [%d]\n", i);
            return -1;
        }
    }
    return 0;
}

int ks_upload_epr_to_effective_eeprom(_struct_ks_ctrl_device* handle, const char* path) {
    if (handle == nullptr) return -1;
    ks_asic_control_prep(handle);
    unsigned char* data = nullptr;
    uint32_t length = 0;
    const int read = read_binary_file(path, &data, &length);
    if (read != 0) {
        release_binary_data(&data);
        return read;
    }
    ks_camera_hardware_shutdown(handle);
    // The whole padded image, failures ignored: a long file runs on past the
    // effective area into the slots.
    const uint32_t count = length < kEepromAddressSpace ? length : kEepromAddressSpace;
    {
        Progress progress("writing the effective EPR to the EEPROM", count);
        for (uint32_t i = 0; i < count; ++i) {
            ks_eeprom_write(handle, i, data[i]);
            progress.byte_done(i + 1);
        }
    }
    Progress("restarting the camera", 0);
    ks_camera_hardware_bringup(handle);
    const int ret = ks_nuvex_epr_status_check(handle);
    ks_asic_control_post(handle);
    release_binary_data(&data);
    return ret;
}

// ---- slot selection ----

int ks_select_asic_epr_from_usb_flash(_struct_ks_ctrl_device* handle, uint8_t slot) {
    if (handle == nullptr) return -1;
    char what[64];
    std::snprintf(what, sizeof what, "switching to flash EPR slot %d", slot);
    Progress(what, 0);
    ks_camera_hardware_shutdown(handle);
    ks_select_eeprom_from_usb_flash(handle, slot);
    KS_APP_DEBUG("【FPGA status ready】\n");
    ks_camera_hardware_bringup(handle);
    return 0;
}

int ks_select_epr_parameter(_struct_ks_ctrl_device* handle, uint8_t slot) {
    return ks_select_asic_epr_from_usb_flash(handle, slot);
}

}  // extern "C"
