// EPR and FPGA image transfer against the virtual camera: files read with
// their padded length, uploads to flash slots and the FPGA area checked on
// the camera's flash, EEPROM slots, the effective EPR with its power cycle
// and status check, and slot selection power-cycling the ASIC into the new
// stereo constants.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "ctrl_layer_fixture.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"
#include "ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"

using ctrltest::Bytes;
using ctrltest::CameraModel;
using ctrltest::CtrlLayer;
using ctrltest::StdoutCapture;

namespace {

constexpr uint32_t kFlashSlot0 = 101u << 12;

// A scratch directory removed with its files at the end of the test.
class TempDir {
  public:
    TempDir() {
        char name[] = "/tmp/ks_ctrl_layer_XXXXXX";
        const char* made = mkdtemp(name);
        if (made != nullptr) path_ = made;
    }
    ~TempDir() {
        for (const std::string& f : files_) std::remove(f.c_str());
        if (!path_.empty()) rmdir(path_.c_str());
    }
    std::string file(const std::string& name, const Bytes& content) {
        const std::string p = name_of(name);
        std::ofstream out(p, std::ios::binary);
        out.write(reinterpret_cast<const char*>(content.data()),
                  static_cast<std::streamsize>(content.size()));
        return p;
    }
    std::string name_of(const std::string& name) {
        const std::string p = path_ + "/" + name;
        files_.push_back(p);
        return p;
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    std::vector<std::string> files_;
};

Bytes pattern(size_t n, unsigned seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((i * 31 + seed * 7 + 1) & 0xFF);
    return b;
}

Bytes epr_image(uint16_t width, uint16_t height, double bxf, double baseline, uint32_t seed) {
    Bytes image(KSSIM_EPR_SIZE);
    EXPECT_EQ(0, kssim_epr_build(image.data(), width, height, bxf, baseline, seed));
    return image;
}

Bytes padded(Bytes b, size_t n) {
    b.resize(n, 0);
    return b;
}

class ImageTransfer : public CtrlLayer {
  protected:
    TempDir dir_;
};

}  // namespace

TEST(BinaryFiles, ReadPadsToTheNextPageAndReportsErrors) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::pair<size_t, uint32_t> sizes[] = {{0, 4096},    {1, 4096},    {3072, 4096},
                                                 {4095, 4096}, {4096, 8192}, {5000, 8192}};
    for (const auto& s : sizes) {
        const Bytes content = pattern(s.first, 3);
        const std::string path = dir.file("f" + std::to_string(s.first), content);
        unsigned char* data = nullptr;
        uint32_t length = 0;
        StdoutCapture out;
        ASSERT_EQ(0, read_binary_file(path.c_str(), &data, &length));
        EXPECT_EQ("file size " + std::to_string(s.first) + ",alloc size " +
                      std::to_string(s.second) + "\n",
                  out.text());
        EXPECT_EQ(s.second, length);
        ASSERT_NE(nullptr, data);
        EXPECT_EQ(padded(content, s.second), Bytes(data, data + length));
        release_binary_data(&data);
    }

    unsigned char* data = reinterpret_cast<unsigned char*>(0x1);
    uint32_t length = 77;
    testing::internal::CaptureStderr();
    EXPECT_EQ(-3, read_binary_file((dir.path() + "/missing").c_str(), &data, &length));
    EXPECT_EQ("Cannot open '" + dir.path() + "/missing': 2, No such file or directory\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(nullptr, data);  // never a stale pointer to release
    EXPECT_EQ(77u, length);
    release_binary_data(&data);

    // A directory opens but does not read.
    {
        StdoutCapture out;
        testing::internal::CaptureStderr();
        EXPECT_EQ(-2, read_binary_file(dir.path().c_str(), &data, &length));
        EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("Reading error"));
        release_binary_data(&data);
    }

    // Written and read back.
    const Bytes content = pattern(1234, 9);
    const std::string out_path = dir.name_of("written.bin");
    ASSERT_EQ(0, write_binary_file(out_path.c_str(), content.data(), 1234));
    StdoutCapture out;
    ASSERT_EQ(0, read_binary_file(out_path.c_str(), &data, &length));
    EXPECT_EQ(padded(content, 4096), Bytes(data, data + length));
    release_binary_data(&data);
    EXPECT_EQ(-1, write_binary_file((dir.path() + "/no/such/dir").c_str(), content.data(), 1));
    EXPECT_EQ("file size 1234,alloc size 4096\nInit File error", out.text());
}

TEST_F(ImageTransfer, EprUploadToAFlashSlotThenSelectionPowerCyclesIntoTheNewConstants) {
    open_camera();
    const Bytes image = epr_image(640, 480, 28000.0, 60.0, 11);
    const std::string path = dir_.file("new.epr", image);
    {
        StdoutCapture out;
        ASSERT_EQ(0, ks_upload_epr_parameter(&ctrl_, path.c_str(), 5));
    }
    EXPECT_EQ(padded(image, 4096), flash(kFlashSlot0 + 5 * 4096, 4096));
    // Nothing takes effect before a power cycle.
    EXPECT_EQ(35000.0, state().bxf);

    const uint32_t resets = state().reset_count;
    const uint64_t start = kssim_world_now_us(world_);
    {
        StdoutCapture out;
        EXPECT_EQ(0, ks_select_asic_epr_from_usb_flash(&ctrl_, 5));
    }
    EXPECT_GE(kssim_world_now_us(world_) - start, 11000000u);
    const kssim_device_state s = state();
    EXPECT_EQ(1, s.asic_running);
    EXPECT_EQ(1, s.epr_loaded);
    EXPECT_EQ(640, s.epr_width);
    EXPECT_EQ(480, s.epr_height);
    EXPECT_EQ(28000.0, s.bxf);
    EXPECT_EQ(60.0, s.baseline);
    EXPECT_EQ(resets + 2, s.reset_count);
    EXPECT_EQ(image, eeprom(0, KSSIM_EPR_SIZE));
    float bxf = 0, base = 0;
    ASSERT_EQ(0, ks_get_bxf_from_nuvex(&ctrl_, &bxf, &base));
    EXPECT_FLOAT_EQ(28000.0f, bxf);
    EXPECT_FLOAT_EQ(60.0f, base);
    EXPECT_EQ(0, ks_device_init_status_check(&ctrl_));

    // The other name, back to the camera's own slot 0 (1280 x 720), with a
    // controller that stays busy for seconds after the copy.
    fault(KSSIM_FAULT_SLOW_EEPROM_UPDATE, 1, 5000);
    {
        StdoutCapture out;
        EXPECT_EQ(0, ks_select_epr_parameter(&ctrl_, 0));
    }
    EXPECT_EQ(1280, state().epr_width);
    EXPECT_EQ(35000.0, state().bxf);
    EXPECT_EQ(0, ks_nuvex_epr_status_check(&ctrl_));

    // A slot that holds no valid image: the result is still 0, the health
    // check tells.
    {
        StdoutCapture out;
        EXPECT_EQ(0, ks_select_asic_epr_from_usb_flash(&ctrl_, 9));
    }
    EXPECT_EQ(0, state().epr_loaded);
    EXPECT_EQ(-3, ks_device_init_status_check(&ctrl_));
}

TEST_F(ImageTransfer, SelectionOnThe1022FirmwarePowersThroughGpio17) {
    CameraModel camera_model;
    camera_model.firmware = "1022-2019";
    open_camera(camera_model);
    const Bytes image = epr_image(320, 240, 20000.0, 40.0, 5);
    const std::string path = dir_.file("old.epr", image);
    {
        StdoutCapture out;
        ASSERT_EQ(0, ks_upload_epr_parameter(&ctrl_, path.c_str(), 3));
        const uint32_t resets = state().reset_count;
        EXPECT_EQ(0, ks_select_asic_epr_from_usb_flash(&ctrl_, 3));
        EXPECT_EQ(resets + 2, state().reset_count);
    }
    EXPECT_EQ(1, state().gpio17);
    EXPECT_EQ(320, state().epr_width);
    EXPECT_EQ(20000.0, state().bxf);
}

TEST_F(ImageTransfer, FlashUploadsCarryThePaddedLength) {
    open_camera();
    StdoutCapture out;
    // An empty file is one page of zeros.
    const std::string empty = dir_.file("empty.epr", {});
    ASSERT_EQ(0, kssim_camera_flash_write(camera_, kFlashSlot0 + 7 * 4096, pattern(4096, 1).data(),
                                          4096));
    ASSERT_EQ(0, ks_upload_epr_parameter(&ctrl_, empty.c_str(), 7));
    EXPECT_EQ(Bytes(4096, 0), flash(kFlashSlot0 + 7 * 4096, 4096));

    // The FPGA bitstream: 5000 bytes go out as 8192.
    const Bytes bit = pattern(5000, 4);
    const std::string bit_path = dir_.file("fpga.bit", bit);
    ASSERT_EQ(0, ks_send_FPGA_bit(&ctrl_, bit_path.c_str()));
    EXPECT_EQ(padded(bit, 8192), flash(0x3D000, 8192));

    // A missing file: -3 without any camera traffic.
    clear_traffic();
    EXPECT_EQ(-3, ks_upload_epr_parameter(&ctrl_, (dir_.path() + "/none.epr").c_str(), 1));
    EXPECT_EQ(-3, ks_send_FPGA_bit(&ctrl_, (dir_.path() + "/none.bit").c_str()));
    EXPECT_TRUE(requests().empty());

    // A flash that refuses writes: the transfer's error.
    fault(KSSIM_FAULT_FLASH_WRITE_FAIL);
    EXPECT_NE(0, ks_upload_epr_parameter(&ctrl_, bit_path.c_str(), 1));
    EXPECT_NE(0, ks_send_FPGA_bit(&ctrl_, bit_path.c_str()));
}

TEST_F(ImageTransfer, EepromSlots) {
    open_camera();
    const Bytes image = epr_image(640, 480, 30000.0, 50.0, 2);
    ASSERT_EQ(0, ks_upload_asic_epr_to_eeprom(&ctrl_, 2, image.data(), KSSIM_EPR_SIZE));
    EXPECT_EQ(image, eeprom(3 * 3072, 3072));
    const Bytes partial = pattern(100, 8);
    ASSERT_EQ(0, ks_upload_asic_epr_to_eeprom(&ctrl_, 3, partial.data(), 100));
    EXPECT_EQ(partial, eeprom(0x3000, 100));
    EXPECT_EQ(0xC4, eeprom_byte(0x3C18));  // the settings area is untouched

    clear_traffic();
    EXPECT_EQ(-1, ks_upload_asic_epr_to_eeprom(&ctrl_, 0, image.data(), 3073));
    EXPECT_EQ(0, ks_upload_asic_epr_to_eeprom(&ctrl_, 0, image.data(), 0));
    EXPECT_TRUE(requests().empty());

    unsigned char* data = nullptr;
    ASSERT_EQ(0, ks_download_asic_epr_from_eeprom(&ctrl_, 2, &data));
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(image, Bytes(data, data + 3072));
    release_binary_data(&data);

    // The effective image: the camera's own, valid one.
    ASSERT_EQ(0, ks_download_effective_epr_data_from_eeprom(&ctrl_, &data));
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(eeprom(0, 3072), Bytes(data, data + 3072));
    uint16_t w = 0, h = 0;
    EXPECT_EQ(0, kssim_epr_check(data, 3072, &w, &h, nullptr, nullptr));
    EXPECT_EQ(1280, w);
    release_binary_data(&data);

    fault(KSSIM_FAULT_EEPROM_NO_STICK, 0, KSSIM_EEPROM_ADDRESS(3 * 3072 + 10));
    EXPECT_EQ(-2, ks_upload_asic_epr_to_eeprom(&ctrl_, 2, partial.data(), 100));
    EXPECT_EQ(partial[9], eeprom_byte(3 * 3072 + 9));  // written up to the failing byte
    EXPECT_EQ(image[11], eeprom_byte(3 * 3072 + 11));  // and not beyond
    clear(KSSIM_FAULT_EEPROM_NO_STICK);

    fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 0, 2);
    data = reinterpret_cast<unsigned char*>(0x1);
    EXPECT_EQ(-2, ks_download_asic_epr_from_eeprom(&ctrl_, 2, &data));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(-2, ks_download_effective_epr_data_from_eeprom(&ctrl_, &data));
    EXPECT_EQ(nullptr, data);
}

TEST_F(ImageTransfer, EffectiveEprEraseAndUploadWithPowerCycleAndStatusCheck) {
    open_camera();
    const Bytes original = eeprom(0, 3072);
    const Bytes slot0 = eeprom(3072, 1024);
    ASSERT_EQ(0, ks_erase_effective_epr_data_in_eeprom(&ctrl_));
    EXPECT_EQ(Bytes(10, 0xFF), eeprom(0, 10));
    EXPECT_EQ(original[10], eeprom_byte(10));
    EXPECT_EQ(0, ks_nuvex_epr_status_check(&ctrl_));  // no power cycle yet

    ASSERT_EQ(0, ks_AE_open_up(&ctrl_));
    const Bytes image = epr_image(640, 480, 31000.0, 55.0, 21);
    const std::string path = dir_.file("effective.epr", image);
    const uint32_t resets = state().reset_count;
    {
        StdoutCapture out;
        EXPECT_EQ(0, ks_upload_epr_to_effective_eeprom(&ctrl_, path.c_str()));
    }
    EXPECT_EQ(image, eeprom(0, 3072));
    // The padded page runs on into the first EEPROM slot.
    EXPECT_EQ(Bytes(1024, 0), eeprom(3072, 1024));
    EXPECT_NE(slot0, eeprom(3072, 1024));
    const kssim_device_state s = state();
    EXPECT_EQ(resets + 2, s.reset_count);
    EXPECT_EQ(1, s.epr_loaded);
    EXPECT_EQ(31000.0, s.bxf);
    EXPECT_EQ(55.0, s.baseline);
    EXPECT_EQ(0x10, reg(KSSIM_CHIP_FPGA, 0x20));  // the guard restored AE
    EXPECT_EQ(1, reg(KSSIM_CHIP_FPGA, 0x08));

    // An image the ASIC rejects: the status check's -2.
    Bytes broken = image;
    broken[100] ^= 0x01;
    const std::string broken_path = dir_.file("broken.epr", broken);
    {
        StdoutCapture out;
        EXPECT_EQ(-2, ks_upload_epr_to_effective_eeprom(&ctrl_, broken_path.c_str()));
    }
    EXPECT_EQ(0, state().epr_loaded);
    EXPECT_EQ(broken, eeprom(0, 3072));

    // A missing file: its -3, nothing written, no power cycle.
    clear_traffic();
    const uint32_t before = state().reset_count;
    EXPECT_EQ(-3, ks_upload_epr_to_effective_eeprom(&ctrl_, (dir_.path() + "/none").c_str()));
    EXPECT_TRUE(writes_to(0xA0).empty());
    EXPECT_EQ(before, state().reset_count);
}
