// Parameter images: the format the virtual ASIC accepts, and the kssim-epr
// tool that writes them and calibration folders.
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <fstream>

#include "sim_fixture.h"
#include "xu_client.h"

using simtest::SimTest;

namespace {

// CRC-32 (IEEE 802.3, reflected), bit by bit: the tests' own.
uint32_t crc32_bitwise(const uint8_t* p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1)));
    }
    return ~c;
}

int run(const std::string& args) {
    const std::string cmd = std::string(KSSIM_EPR) + " " + args + " >/dev/null 2>&1";
    const int st = system(cmd.c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

std::vector<uint8_t> slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

class SimEpr : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        char tmpl[] = "/tmp/kssim-epr-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
    }
    void TearDown() override {
        system(("rm -rf " + dir_).c_str());
        SimTest::TearDown();
    }
    std::string dir_;
};

}  // namespace

TEST_F(SimEpr, ImagesCarryTheDocumentedFields) {
    std::vector<uint8_t> img(KSSIM_EPR_SIZE);
    ASSERT_EQ(0, kssim_epr_build(img.data(), 1280, 720, 35000.5, 50.25, 7));
    EXPECT_EQ(0, std::memcmp(img.data(), "KEPR", 4));
    EXPECT_EQ(1, img[4] << 8 | img[5]);
    EXPECT_EQ(1280, img[6] << 8 | img[7]);
    EXPECT_EQ(720, img[8] << 8 | img[9]);
    EXPECT_EQ(uint32_t(35000.5 * 4096), xutest::be32(&img[10]));
    EXPECT_EQ(50.25 * 128, img[14] << 8 | img[15]);
    EXPECT_EQ(7u, xutest::be32(&img[16]));
    EXPECT_EQ(crc32_bitwise(img.data(), 3068), xutest::be32(&img[3068]));

    double bxf = 0, base = 0;
    ASSERT_EQ(0, kssim_epr_check(img.data(), img.size(), nullptr, nullptr, &bxf, &base));
    EXPECT_EQ(std::make_pair(35000.5, 50.25), std::make_pair(bxf, base));
    // Any flipped bit, a short buffer, an erased image: rejected.
    for (size_t i : {0ul, 5ul, 9ul, 12ul, 100ul, 3067ul, 3071ul}) {
        std::vector<uint8_t> bad = img;
        bad[i] ^= 0x10;
        EXPECT_EQ(-1, kssim_epr_check(bad.data(), bad.size(), nullptr, nullptr, nullptr, nullptr))
            << i;
    }
    EXPECT_EQ(-1, kssim_epr_check(img.data(), 3071, nullptr, nullptr, nullptr, nullptr));
    const std::vector<uint8_t> erased(KSSIM_EPR_SIZE, 0xFF);
    EXPECT_EQ(-1, kssim_epr_check(erased.data(), 3072, nullptr, nullptr, nullptr, nullptr));
    // Fields out of range are not built.
    for (auto [w, h, f, b] : {std::tuple<int, int, double, double>{8, 720, 35000, 50},
                              {1280, 5000, 35000, 50},
                              {1280, 720, 0, 50},
                              {1280, 720, 35000, 600}})
        EXPECT_EQ(-1, kssim_epr_build(img.data(), w, h, f, b, 1))
            << w << "x" << h << " " << f << " " << b;
    EXPECT_EQ(-1, kssim_epr_build(nullptr, 1280, 720, 35000, 50, 1));
}

TEST_F(SimEpr, ToolWritesImagesAndCalibrationFolders) {
    const std::string img = dir_ + "/a.epr";
    ASSERT_EQ(0, run("image " + img + " --width 640 --height 480 --bxf 28000 --baseline 40"));
    std::vector<uint8_t> bytes = slurp(img);
    ASSERT_EQ(KSSIM_EPR_SIZE, bytes.size());
    uint16_t w = 0, h = 0;
    double bxf = 0, base = 0;
    ASSERT_EQ(0, kssim_epr_check(bytes.data(), bytes.size(), &w, &h, &bxf, &base));
    EXPECT_EQ(std::make_tuple(640, 480, 28000.0, 40.0), std::make_tuple(int{w}, int{h}, bxf, base));
    EXPECT_EQ(0, run("check " + img));
    bytes[2000] ^= 1;
    std::ofstream(img, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), 3072);
    EXPECT_EQ(1, run("check " + img));
    ASSERT_EQ(0, run("image " + img + " --width 640 --height 480 --pad"));
    EXPECT_EQ(4096u, slurp(img).size());

    const std::string cal = dir_ + "/cal720";
    ASSERT_EQ(0, run("calib " + cal +
                     " --width 1280 --height 720 --center 640.5,360.25 --roi 12,8 --name station"));
    EXPECT_EQ(0, run("check " + cal + "/station.epr"));
    std::ifstream log(cal + "/station.log");
    std::vector<std::string> lines;
    for (std::string l; std::getline(log, l);) lines.push_back(l);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_LE(lines.size(), 12u);
    EXPECT_EQ("Out_Resolution:1280x720", lines[0]);
    EXPECT_EQ(0u, lines[1].rfind("Fov:", 0));
    EXPECT_EQ("RectOptCenter:640.500000,360.250000", lines[2]);
    EXPECT_EQ("ROI_Start:12,8", lines[3]);
    for (const auto& l : lines) EXPECT_EQ(1, std::count(l.begin(), l.end(), ':')) << l;
    // The default field of view follows f = bxf / baseline = 700 pixels.
    double fh = 0, fv = 0;
    ASSERT_EQ(2, sscanf(lines[1].c_str(), "Fov:%lf,%lf", &fh, &fv));
    EXPECT_NEAR(2 * std::atan(640.0 / 700.0) * 180 / 3.14159265358979323846, fh, 1e-4);
    EXPECT_NEAR(2 * std::atan(360.0 / 700.0) * 180 / 3.14159265358979323846, fv, 1e-4);

    EXPECT_EQ(2, run("image " + img + " --width 0 --height 480"));
    EXPECT_EQ(2, run("image " + img + " --width 640 --height 480 --bxf nan"));
    EXPECT_EQ(2, run("image " + img + " --width 640 --height 480 --fov 1,2"));
    EXPECT_EQ(2, run("calib " + cal + " --width 640 --height 480 --center 1"));
    EXPECT_EQ(2, run("frobnicate " + img));
    EXPECT_EQ(2, run("check " + dir_ + "/missing.epr"));
}
