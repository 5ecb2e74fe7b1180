// Progress of the long transfers: pages as they reach the flash, EEPROM
// bytes per page, the slot switch as a step without a byte count, and the
// observer installed through the public interface.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctrl_layer_fixture.h"
#include "ksStereoCameraDriver.h"
#include "ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"

using namespace ctrltest;

namespace {

struct Report {
    std::string what;
    uint64_t done, total;
};

void record(const char* what, uint64_t done, uint64_t total, void* user) {
    static_cast<std::vector<Report>*>(user)->push_back({what, done, total});
}

// done values of the reports, which must all name `what` and `total`.
std::vector<uint64_t> steps(const std::vector<Report>& reports, const std::string& what,
                            uint64_t total) {
    std::vector<uint64_t> out;
    for (const Report& r : reports) {
        EXPECT_EQ(what, r.what);
        EXPECT_EQ(total, r.total);
        out.push_back(r.done);
    }
    return out;
}

std::vector<uint64_t> every(uint64_t step, uint64_t total) {
    std::vector<uint64_t> out;
    for (uint64_t done = 0; done <= total; done += step) out.push_back(done);
    return out;
}

class TransferProgress : public OpenCamera {
  protected:
    void SetUp() override {
        OpenCamera::SetUp();
        ksSetProgressCallback(&record, &reports_);
    }
    void TearDown() override {
        ksSetProgressCallback(nullptr, nullptr);
        OpenCamera::TearDown();
    }
    std::string file(const std::string& name, size_t size) {
        ks_test::write_file(dir_ / name, std::string(size, '\x5A'));
        return dir_ / name;
    }
    std::vector<Report> take() { return std::exchange(reports_, {}); }

    std::vector<Report> reports_;
    ks_test::TempDir dir_;
};

}  // namespace

TEST_F(TransferProgress, FlashUploadsReportEveryPageWritten) {
    const std::string epr = file("slot.epr", 5000);
    StdoutCapture out;
    ASSERT_EQ(0, ks_upload_epr_parameter(&ctrl_, epr.c_str(), 5));
    EXPECT_EQ(every(256, 8192), steps(take(), "writing EPR to flash slot 5", 8192));
    // The pages really are on the camera.
    EXPECT_EQ(Bytes(5000, 0x5A), flash((101u + 5) << 12, 5000));

    ASSERT_EQ(0, ks_send_FPGA_bit(&ctrl_, epr.c_str()));
    EXPECT_EQ(every(256, 8192), steps(take(), "writing the FPGA bitstream to flash", 8192));

    // A flash that refuses writes: the transfer stops before its end and says
    // nothing more; a missing file reports nothing at all.
    fault(KSSIM_FAULT_FLASH_WRITE_FAIL);
    EXPECT_NE(0, ks_upload_epr_parameter(&ctrl_, epr.c_str(), 2));
    EXPECT_EQ(std::vector<uint64_t>{0}, steps(take(), "writing EPR to flash slot 2", 8192));
    clear(KSSIM_FAULT_FLASH_WRITE_FAIL);
    testing::internal::CaptureStderr();
    EXPECT_EQ(-3, ks_upload_epr_parameter(&ctrl_, (dir_ / "none").c_str(), 2));
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(take().empty());

    // Turned off: the transfer still works and reports nothing.
    ksSetProgressCallback(nullptr, nullptr);
    ASSERT_EQ(0, ks_upload_epr_parameter(&ctrl_, epr.c_str(), 3));
    EXPECT_TRUE(take().empty());
    // A later transfer of a flash page by other code is not observed either.
    Bytes page(4096, 1);
    ks_send_asic_epr_to_usb_flash(&ctrl_, 4, page.data(), 4096);
    EXPECT_TRUE(take().empty());
}

TEST_F(TransferProgress, EepromTransfersReportPagesAndTheSlotSwitchIsAStep) {
    Bytes image(KSSIM_EPR_SIZE);
    ASSERT_EQ(0, kssim_epr_build(image.data(), 640, 480, 30000.0, 45.0, 7));
    ASSERT_EQ(0, ks_upload_asic_epr_to_eeprom(&ctrl_, 1, image.data(), KSSIM_EPR_SIZE));
    EXPECT_EQ(every(64, KSSIM_EPR_SIZE), steps(take(), "writing EPR to EEPROM slot 1", 3072));
    EXPECT_EQ(image, eeprom(2 * KSSIM_EPR_SIZE, KSSIM_EPR_SIZE));

    // An odd size ends on its last byte.
    ASSERT_EQ(0, ks_upload_asic_epr_to_eeprom(&ctrl_, 2, image.data(), 100));
    EXPECT_EQ((std::vector<uint64_t>{0, 64, 100}),
              steps(take(), "writing EPR to EEPROM slot 2", 100));

    unsigned char* data = nullptr;
    ASSERT_EQ(0, ks_download_effective_epr_data_from_eeprom(&ctrl_, &data));
    release_binary_data(&data);
    EXPECT_EQ(every(64, KSSIM_EPR_SIZE), steps(take(), "reading the effective EPR", 3072));

    // The effective EPR from a file: its padded bytes, then the power cycle.
    ks_test::write_file(dir_ / "effective.epr", std::string(image.begin(), image.end()));
    EXPECT_EQ(0, quietly([&] {
                  return ks_upload_epr_to_effective_eeprom(&ctrl_,
                                                           (dir_ / "effective.epr").c_str());
              }));
    std::vector<Report> effective = take();
    ASSERT_FALSE(effective.empty());
    const Report restart = effective.back();
    effective.pop_back();
    EXPECT_EQ(every(64, 4096), steps(effective, "writing the effective EPR to the EEPROM", 4096));
    EXPECT_EQ("restarting the camera", restart.what);
    EXPECT_EQ(0u, restart.total);

    EXPECT_EQ(0, quietly([&] { return ks_select_asic_epr_from_usb_flash(&ctrl_, 1); }));
    EXPECT_EQ(std::vector<uint64_t>{0}, steps(take(), "switching to flash EPR slot 1", 0));
    EXPECT_EQ(1, state().epr_loaded);
}
