// EPR and FPGA image transfer against the virtual camera: files read with
// their padded length, uploads to flash slots and the FPGA area checked on
// the camera's flash, EEPROM slots, the effective EPR with its power cycle
// and status check, and slot selection power-cycling the ASIC into the new
// stereo constants.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctrl_layer_fixture.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"
#include "ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"

using namespace ctrltest;

namespace {

constexpr uint32_t kFlashSlot0 = 101u << 12;

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

class ImageTransfer : public OpenCamera {
  protected:
    // A file of the scratch directory with the given content; its path.
    std::string file(const std::string& name, const Bytes& content) {
        ks_test::write_file(dir_ / name, std::string(content.begin(), content.end()));
        return dir_ / name;
    }
    ks_test::TempDir dir_;
};

}  // namespace

TEST_F(ImageTransfer, BinaryFilesArePaddedToTheNextPageAndErrorsReported) {
    ASSERT_FALSE(dir_.path().empty());
    const std::pair<size_t, uint32_t> sizes[] = {{0, 4096},    {1, 4096},    {3072, 4096},
                                                 {4095, 4096}, {4096, 8192}, {5000, 8192}};
    for (const auto& s : sizes) {
        const Bytes content = pattern(s.first, 3);
        const std::string path = file("f" + std::to_string(s.first), content);
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
    EXPECT_EQ(-3, read_binary_file((dir_ / "missing").c_str(), &data, &length));
    EXPECT_EQ("Cannot open '" + (dir_ / "missing") + "': 2, No such file or directory\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(nullptr, data);  // never a stale pointer to release
    EXPECT_EQ(77u, length);
    release_binary_data(&data);

    // A directory opens but does not read.
    {
        StdoutCapture out;
        testing::internal::CaptureStderr();
        EXPECT_EQ(-2, read_binary_file(dir_.path().c_str(), &data, &length));
        EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("Reading error"));
        release_binary_data(&data);
    }

    // Written and read back.
    const Bytes content = pattern(1234, 9);
    const std::string out_path = dir_ / "written.bin";
    ASSERT_EQ(0, write_binary_file(out_path.c_str(), content.data(), 1234));
    StdoutCapture out;
    ASSERT_EQ(0, read_binary_file(out_path.c_str(), &data, &length));
    EXPECT_EQ(padded(content, 4096), Bytes(data, data + length));
    release_binary_data(&data);
    EXPECT_EQ(-1, write_binary_file((dir_ / "no/such/dir").c_str(), content.data(), 1));
    EXPECT_EQ("file size 1234,alloc size 4096\nInit File error", out.text());
}

TEST_F(ImageTransfer, FlashUploadsThenSelectionPowerCyclesIntoTheNewConstants) {
    const Bytes image = epr_image(640, 480, 28000.0, 60.0, 11);
    const std::string path = file("new.epr", image);
    const Bytes bit = pattern(5000, 4);
    const std::string bit_path = file("fpga.bit", bit);
    {
        StdoutCapture out;
        ASSERT_EQ(0, ks_upload_epr_parameter(&ctrl_, path.c_str(), 5));
        ASSERT_EQ(0, ks_send_FPGA_bit(&ctrl_, bit_path.c_str()));
    }
    EXPECT_EQ(padded(image, 4096), flash(kFlashSlot0 + 5 * 4096, 4096));
    EXPECT_EQ(padded(bit, 8192), flash(0x3D000, 8192));
    // Nothing takes effect before a power cycle.
    EXPECT_EQ(35000.0, state().bxf);

    const uint32_t resets = state().reset_count;
    EXPECT_EQ(0, quietly([&] { return ks_select_asic_epr_from_usb_flash(&ctrl_, 5); }));
    const kssim_device_state s = state();
    EXPECT_EQ(1, s.asic_running);
    EXPECT_EQ(1, s.epr_loaded);
    EXPECT_EQ(640, s.epr_width);
    EXPECT_EQ(480, s.epr_height);
    EXPECT_EQ(28000.0, s.bxf);
    EXPECT_EQ(60.0, s.baseline);
    EXPECT_EQ(resets + 2, s.reset_count);
    EXPECT_EQ(image, eeprom(0, KSSIM_EPR_SIZE));
    EXPECT_EQ(0, ks_device_init_status_check(&ctrl_));

    // A slot that holds no valid image: the result is still 0, the health
    // check tells.
    EXPECT_EQ(0, quietly([&] { return ks_select_asic_epr_from_usb_flash(&ctrl_, 9); }));
    EXPECT_EQ(0, state().epr_loaded);
    EXPECT_EQ(-3, ks_device_init_status_check(&ctrl_));

    // A missing file: -3 without any camera traffic. A flash that refuses
    // writes: the transfer's error.
    clear_traffic();
    EXPECT_EQ(-3, ks_upload_epr_parameter(&ctrl_, (dir_ / "none.epr").c_str(), 1));
    EXPECT_EQ(-3, ks_send_FPGA_bit(&ctrl_, (dir_ / "none.bit").c_str()));
    EXPECT_TRUE(requests().empty());
    fault(KSSIM_FAULT_FLASH_WRITE_FAIL);
    StdoutCapture out;
    EXPECT_NE(0, ks_upload_epr_parameter(&ctrl_, bit_path.c_str(), 1));
    EXPECT_NE(0, ks_send_FPGA_bit(&ctrl_, bit_path.c_str()));
}
TEST_F(ImageTransfer, EepromSlots) {
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
    poke_eeprom(0, Bytes(10, 0x5A));  // every byte the erase owns holds something
    const Bytes original = eeprom(0, 3072);
    const Bytes slot0 = eeprom(3072, 1024);
    ASSERT_EQ(0, ks_erase_effective_epr_data_in_eeprom(&ctrl_));
    EXPECT_EQ(Bytes(10, 0xFF), eeprom(0, 10));
    EXPECT_EQ(original[10], eeprom_byte(10));
    EXPECT_EQ(0, ks_nuvex_epr_status_check(&ctrl_));  // no power cycle yet

    ASSERT_EQ(0, ks_AE_open_up(&ctrl_));
    const Bytes image = epr_image(640, 480, 31000.0, 55.0, 21);
    const std::string path = file("effective.epr", image);
    const uint32_t resets = state().reset_count;
    EXPECT_EQ(0, quietly([&] { return ks_upload_epr_to_effective_eeprom(&ctrl_, path.c_str()); }));
    EXPECT_EQ(image, eeprom(0, 3072));
    // The padded page runs on into the first EEPROM slot.
    EXPECT_EQ(Bytes(1024, 0), eeprom(3072, 1024));
    EXPECT_NE(slot0, eeprom(3072, 1024));
    const kssim_device_state s = state();
    EXPECT_EQ(resets + 2, s.reset_count);
    EXPECT_EQ(1, s.epr_loaded);
    EXPECT_EQ(31000.0, s.bxf);
    EXPECT_EQ(55.0, s.baseline);
    // The guard restored AE and shut RTT.
    EXPECT_EQ((Bytes{0x10, 1}), regs(KSSIM_CHIP_FPGA, {0x20, 0x08}));

    // An image the ASIC rejects: the status check's -2.
    Bytes broken = image;
    broken[100] ^= 0x01;
    const std::string broken_path = file("broken.epr", broken);
    EXPECT_EQ(-2, quietly([&] {
        return ks_upload_epr_to_effective_eeprom(&ctrl_, broken_path.c_str());
    }));
    EXPECT_EQ(0, state().epr_loaded);
    EXPECT_EQ(broken, eeprom(0, 3072));

    // A missing file: its -3, nothing written, no power cycle.
    clear_traffic();
    const uint32_t before = state().reset_count;
    EXPECT_EQ(-3, ks_upload_epr_to_effective_eeprom(&ctrl_, (dir_ / "none").c_str()));
    EXPECT_TRUE(writes_to(0xA0).empty());
    EXPECT_EQ(before, state().reset_count);
}
