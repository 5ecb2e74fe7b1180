// Register and memory access primitives on top of the control protocol.
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

#include <errno.h>
#include <fcntl.h>
#include <time.h>

#include <cstdio>
#include <cstring>

#include "common/ks_log.h"
#include "common/ks_platform.h"
#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"

#define KS_KERNEL_MODULE "ks_asic_iic_ctrl/source/ks_iic_kernel"

namespace {

constexpr unsigned int kFailed = 0xFFFFFFFFu;

// Holds the transport mutex for the lifetime of the object and selects the
// camera's descriptor once it is held. The descriptor is process-wide: a
// thread that selected its camera before waiting for the mutex would
// redirect the exchange another thread has under way, so selection happens
// only under the mutex. The node of the selected descriptor is locked for
// the same span, so other processes wait as long as our threads do.
class Exchange {
  public:
    explicit Exchange(const _struct_ks_ctrl_device* handle, bool select = true) {
        locked_ = lock_uvc_protocol_mutex() == 0;
        if (!locked_) return;
        if (select) set_cur_uvc_fd(handle->fd);
        device_fd_ = get_cur_uvc_fd();
        device_locked_ = lock_uvc_device(device_fd_) == 0;
    }
    ~Exchange() {
        if (device_locked_) unlock_uvc_device(device_fd_);
        if (locked_) unlock_uvc_protocol_mutex();
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;
    bool locked() const { return locked_; }

  private:
    bool locked_ = false;
    int device_fd_ = -1;
    bool device_locked_ = false;
};

unsigned int status_of(int protocol_result) {
    return static_cast<unsigned int>(protocol_result);
}

// One byte written or read at device dev, under one hold of the mutex.
int write_byte_locked(unsigned char dev, unsigned int reg, unsigned char value) {
    return protocol_iic_write(dev, static_cast<unsigned short>(reg & 0xFFFF), &value, 1);
}

int read_byte_locked(unsigned char dev, unsigned int reg, unsigned char* value) {
    *value = 0;
    const int ret = protocol_iic_read(dev, static_cast<unsigned short>(reg & 0xFFFF), value, 1);
    if (ret != 0) *value = 0;
    return ret;
}

int write_byte(const _struct_ks_ctrl_device* handle, unsigned char dev, unsigned int reg,
               unsigned char value) {
    Exchange ex(handle);
    if (!ex.locked()) return -1;
    return write_byte_locked(dev, reg, value);
}

int read_byte(const _struct_ks_ctrl_device* handle, unsigned char dev, unsigned int reg,
              unsigned char* value) {
    Exchange ex(handle);
    if (!ex.locked()) {
        *value = 0;
        return -1;
    }
    return read_byte_locked(dev, reg, value);
}

long long now_us() {
    struct timespec ts;
    if (ks_sys_clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return -1;
    return static_cast<long long>(ts.tv_sec) * 1000000LL + ts.tv_nsec / 1000;
}

unsigned int flash_slot_address(uint8_t slot) {
    return (static_cast<unsigned int>(slot) + KS_FLASH_EPR_SLOT_BASE) << 12;
}

}  // namespace

extern "C" {

int ks_iic_init_dev(_struct_ks_ctrl_device* handle, const char* path) {
    if (handle == nullptr || path == nullptr) return -1;
    const int fd = ks_sys_open(path, O_RDWR, 0);
    if (fd < 0) {
        printf("ERROR:IIC dev open failed\nErr %s\nDev name %s\n", strerror(errno), path);
        return fd;
    }
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "fd %d\n", fd);
    handle->fd = fd;
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "handle fd-> %d", handle->fd);
    uvc_protocol_master_init();
    set_cur_uvc_fd(fd);
    return 0;
}

int release_iic_ctrl(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    const int ret = ks_sys_close(handle->fd);
    handle->fd = -1;
    return ret;
}

unsigned int ks_iic_write(_struct_ks_ctrl_device* handle, unsigned int reg, unsigned int value) {
    if (handle == nullptr) return kFailed;
    reg &= 0xFFFF;
    const unsigned char data = static_cast<unsigned char>(value & 0xFF);
    const int ret = write_byte(handle, KS_NUVEX_WRITE_ADDR, reg, data);
    KS_LOG_TRACE(KS_KERNEL_MODULE, "【IIC】 Write:ret %d---devAddr(%x)regAddr(%x)data(%x)", ret,
                 KS_NUVEX_WRITE_ADDR, reg, data);
    ks_sys_usleep(KS_NUVEX_ACCESS_PAUSE_US);
    return status_of(ret);
}

unsigned int ks_iic_read(_struct_ks_ctrl_device* handle, unsigned int reg, uint16_t* value) {
    if (handle == nullptr || value == nullptr) return kFailed;
    reg &= 0xFFFF;
    unsigned char data = 0;
    const int ret = read_byte(handle, KS_NUVEX_READ_ADDR, reg, &data);
    *value = data;
    KS_LOG_TRACE(KS_KERNEL_MODULE, "【IIC】 Read:ret %d---devAddr(%x)regAddr(%x)data(%x)", ret,
                 KS_NUVEX_READ_ADDR, reg, data);
    ks_sys_usleep(KS_NUVEX_ACCESS_PAUSE_US);
    return status_of(ret);
}

unsigned int ks_eeprom_write(_struct_ks_ctrl_device* handle, unsigned int addr,
                             unsigned int value) {
    if (handle == nullptr) return kFailed;
    addr &= 0xFFFF;
    const unsigned char data = static_cast<unsigned char>(value & 0xFF);
    // Write, verification and re-writes form one hold of the mutex.
    Exchange ex(handle);
    if (!ex.locked()) return kFailed;

    int ret = write_byte_locked(KS_EEPROM_WRITE_ADDR, addr, data);
    KS_LOG_TRACE(KS_KERNEL_MODULE, "【EEPROM】Write:ret %d---devAddr(%x)regAddr(%x)data(%x)", ret,
                 KS_EEPROM_WRITE_ADDR, addr, data);
    // Only the read-back decides; a read-back that fails does not confirm
    // anything and counts as a mismatch.
    unsigned char check = 0;
    ret = read_byte_locked(KS_EEPROM_READ_ADDR, addr, &check);
    KS_LOG_TRACE(KS_KERNEL_MODULE, "【EEPROM Check Read】:regAddr(%x)-->(%x)", addr, check);
    if (ret == 0 && check == data) {
        KS_LOG_TRACE(KS_KERNEL_MODULE, "【EEPROM write check success】\n");
        return 0;
    }
    KS_LOG_FATAL(KS_KERNEL_MODULE, "【EEPROM Save Failure Detected!】");
    for (int attempt = 0; attempt < KS_EEPROM_WRITE_RETRIES; ++attempt) {
        write_byte_locked(KS_EEPROM_WRITE_ADDR, addr, data);
        KS_LOG_TRACE(KS_KERNEL_MODULE, "【EEPROM Re-Write %d】:regAddr(%x)data(%x)", attempt, addr,
                     data);
        ret = read_byte_locked(KS_EEPROM_READ_ADDR, addr, &check);
        KS_LOG_TRACE(KS_KERNEL_MODULE, "【EEPROM Check】:regAddr(%x)-->(%x)", addr, check);
        if (ret == 0 && check == data) {
            KS_LOG_INFO(KS_KERNEL_MODULE, "【EEPROM Re-Write Success】");
            return 0;
        }
    }
    return kFailed;
}

unsigned int ks_eeprom_read(_struct_ks_ctrl_device* handle, unsigned int addr, uint16_t* value) {
    if (handle == nullptr || value == nullptr) return kFailed;
    addr &= 0xFFFF;
    unsigned char data = 0;
    const int ret = read_byte(handle, KS_EEPROM_READ_ADDR, addr, &data);
    *value = data;
    KS_LOG_TRACE(KS_KERNEL_MODULE, "【EEPROM】Read:ret %d---devAddr(%x)regAddr(%x)data(%x)", ret,
                 KS_EEPROM_READ_ADDR, addr, data);
    return status_of(ret);
}

unsigned int ks_fpga_write(_struct_ks_ctrl_device* handle, unsigned int reg, unsigned int value) {
    if (handle == nullptr) return kFailed;
    reg &= 0xFFFF;
    const unsigned char data = static_cast<unsigned char>(value & 0xFF);
    const int ret = write_byte(handle, KS_FPGA_WRITE_ADDR, reg, data);
    KS_LOG_TRACE(KS_KERNEL_MODULE, "【FPGA】 Write:ret %d---devAddr(%x)regAddr(%x)data(%x)", ret,
                 KS_FPGA_WRITE_ADDR, reg, data);
    return status_of(ret);
}

unsigned int ks_fpga_read(_struct_ks_ctrl_device* handle, unsigned int reg, uint16_t* value) {
    if (handle == nullptr || value == nullptr) return kFailed;
    reg &= 0xFFFF;
    unsigned char data = 0;
    const int ret = read_byte(handle, KS_FPGA_READ_ADDR, reg, &data);
    *value = data;
    KS_LOG_TRACE(KS_KERNEL_MODULE, "【FPGA】 Read:ret %d---devAddr(%x)regAddr(%x)data(%x)", ret,
                 KS_FPGA_READ_ADDR, reg, data);
    return status_of(ret);
}

unsigned int ks_send_asic_epr_to_usb_flash(_struct_ks_ctrl_device* handle, uint8_t slot,
                                           const unsigned char* buffer, unsigned int size) {
    if (handle == nullptr) return kFailed;
    int ret = -1;
    {
        Exchange ex(handle);
        if (ex.locked()) ret = protocol_write_flash_data(flash_slot_address(slot), buffer, size);
    }
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "【SEND EPR】ret %d --slot %d,size %d", ret, slot,
                 static_cast<int>(size));
    return status_of(ret);
}

unsigned int ks_receive_asic_epr(_struct_ks_ctrl_device* handle, uint8_t slot,
                                 unsigned char* buffer, unsigned int size) {
    if (handle == nullptr) return kFailed;
    int ret = -1;
    {
        Exchange ex(handle);
        if (ex.locked()) ret = protocol_read_flash_data(flash_slot_address(slot), buffer, size);
    }
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "【Read EPR】ret %d --slot %d,size %d", ret, slot,
                 static_cast<int>(size));
    return status_of(ret);
}

unsigned int ks_kernel_send_fpga_bit(_struct_ks_ctrl_device* handle, const unsigned char* buffer,
                                     unsigned int size) {
    if (handle == nullptr) return kFailed;
    int ret = -1;
    {
        Exchange ex(handle);
        if (ex.locked()) ret = protocol_write_flash_data(KS_FLASH_FPGA_BIT_ADDR, buffer, size);
    }
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "【Write FPGA Bit】ret %d -- size %d", ret,
                 static_cast<int>(size));
    return status_of(ret);
}

unsigned int ks_kernel_receive_fpga_bit(_struct_ks_ctrl_device* handle, unsigned char* buffer,
                                        unsigned int size) {
    if (handle == nullptr) return kFailed;
    int ret = -1;
    {
        Exchange ex(handle);
        if (ex.locked()) ret = protocol_read_flash_data(KS_FLASH_FPGA_BIT_ADDR, buffer, size);
    }
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "【Read FPGA Bit】ret %d -- size %d", ret,
                 static_cast<int>(size));
    return status_of(ret);
}

unsigned int ks_get_usb_version_kernel(_struct_ks_ctrl_device* handle, char* version) {
    if (handle == nullptr || version == nullptr) return kFailed;
    unsigned char text[PROTOCOL_VERSION_SIZE] = {0};
    int ret = -1;
    {
        Exchange ex(handle);
        if (ex.locked()) ret = protocol_get_slaver_version(text);
    }
    if (ret == 0) {
        // The device's 32 bytes are text; the caller's 32-byte buffer stays a
        // terminated string whatever they hold.
        std::memcpy(version, text, PROTOCOL_VERSION_SIZE);
        version[PROTOCOL_VERSION_SIZE - 1] = '\0';
    }
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "【Get usb version】ret %d", ret);
    return status_of(ret);
}

unsigned int ks_kernel_set_asic_gpio(_struct_ks_ctrl_device* handle, uint8_t level) {
    if (handle == nullptr) return kFailed;
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "kernel set gpio %d\n", level);
    int ret = -1;
    {
        Exchange ex(handle);
        if (ex.locked()) ret = protocol_set_gpio(KS_ASIC_POWER_GPIO, level);
    }
    return status_of(ret);
}

unsigned int ks_reset_asic_status(_struct_ks_ctrl_device* handle, uint8_t state) {
    if (handle == nullptr) return kFailed;
    int ret = -1;
    {
        Exchange ex(handle);
        if (ex.locked()) ret = protocol_set_asic(state);
    }
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "Reset Asic Stat %d--%d", state, ret);
    return status_of(ret);
}

unsigned int ks_select_eeprom_from_usb_flash(_struct_ks_ctrl_device* handle, uint8_t slot) {
    if (handle == nullptr) return 0;
    // The update and the polling that waits for it form one hold of the
    // mutex: no other control traffic reaches the busy controller.
    Exchange ex(handle);
    if (!ex.locked()) return 0;
    const int ret = protocol_update_eeprom(slot);
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "【Upgrade EPR】ret %d  slot %d\n", ret, slot);
    const long long start = now_us();
    for (;;) {
        unsigned char status = 0;
        if (protocol_get_status(&status) == 0) break;
        const long long now = now_us();
        if (start < 0 || now < 0 || now - start >= KS_EEPROM_UPDATE_GIVE_UP_US) {
            KS_LOG_ERROR(KS_KERNEL_MODULE,
                         "USB controller did not answer a status request within %d s after the "
                         "EEPROM update from flash slot %d\n",
                         static_cast<int>(KS_EEPROM_UPDATE_GIVE_UP_US / 1000000), slot);
            break;
        }
        ks_sys_usleep(KS_EEPROM_UPDATE_POLL_US);
    }
    return 0;
}

unsigned int ks_get_usb_nuvex_reset_cnt_kernel(_struct_ks_ctrl_device* handle, uint32_t* count) {
    if (count == nullptr) return kFailed;
    unsigned int value = 0;
    int ret = -1;
    {
        Exchange ex(handle, false);
        if (ex.locked()) ret = protocol_get_reset_count(&value);
    }
    if (ret == 0) *count = value;
    KS_LOG_DEBUG(KS_KERNEL_MODULE, "【Get usb nuvex reset cnt】ret %d  count: %d\n", ret,
                 static_cast<int>(value));
    return status_of(ret);
}

}  // extern "C"
