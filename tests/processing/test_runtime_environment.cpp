// The processing state of a camera: stereo geometry and resolution, what
// every operation reports without them, and the disparity parameter file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "disparity_maps.h"
#include "processing_camera.h"

namespace {

class DisparityParamFile : public ::testing::Test {
  protected:
    void TearDown() override { std::remove(path); }
    int load(KSCamera& cam, const std::string& text) {
        std::ofstream(path) << text;
        return cam.set_disparity_param(path);
    }

    const std::string file_ =
        ::testing::TempDir() + "ks_processing_" + std::to_string(getpid()) + "_offsets.txt";
    const char* path = file_.c_str();
};

}  // namespace

TEST(RuntimeEnvironment, MissingGeometryOrResolutionIsReported) {
    // Getters left at the base's "not supported": every operation fails.
    BaseOnlyCamera bare;
    EXPECT_EQ(-1, bare.initialize_runtime_environment());
    EXPECT_EQ(nullptr, bare.depth_table());
    DisparityMaps m(640, 480);
    EXPECT_EQ(-1, m.filter(bare));
    EXPECT_EQ(-1, m.dense(bare));
    uint32_t count = 5;
    float *x = reinterpret_cast<float*>(&count), *y = nullptr, *z = nullptr;
    EXPECT_EQ(-2, bare.convert_disparity_to_point_cloud(m.input.data(), &count, &x, &y, &z));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(nullptr, x);
    _ks_rect_distance_info_s info{};
    info.width = info.height = 2, info.disparity = m.input.data();
    EXPECT_EQ(-2, bare.calculate_rect_distance(&info));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(-1, bare.set_disparity_filter_max_and_min_distance(3000.0f, 1000.0f));
    EXPECT_EQ("Get bxf and baseline failed\n", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(16383, bare.max_limit());

    // A failing getter, or the zero constants of a camera without a frame yet.
    ProcessingCamera failing, no_bxf, no_base;
    failing.bxf_result = -2, no_bxf.bxf = 0.0f, no_base.base = 0.0f;
    for (ProcessingCamera* cam : {&failing, &no_bxf, &no_base})
        EXPECT_EQ(-1, cam->initialize_runtime_environment());

    ProcessingCamera no_size;
    no_size.resolution_result = -2;
    EXPECT_EQ(-2, no_size.initialize_runtime_environment());
    no_size.resolution_result = 0, no_size.width = 0;
    EXPECT_EQ(-2, no_size.initialize_runtime_environment());
    no_size.width = 640;
    EXPECT_EQ(0, no_size.initialize_runtime_environment());
    // The geometry was fetched once, by the first call, and is not asked for again.
    no_size.bxf_result = -2;
    EXPECT_EQ(0, no_size.initialize_runtime_environment());
    EXPECT_EQ(1, no_size.bxf_calls);
}

TEST_F(DisparityParamFile, RoundTripThroughTheTextFormat) {
    ProcessingCamera source, target;
    source.line_offset = -1.5f, source.disp_offset = 12.25f;
    ASSERT_EQ(0, source.save_disparity_param(path));
    std::stringstream saved;
    saved << std::ifstream(path).rdbuf();
    EXPECT_EQ("-1.500000\n12.250000\n", saved.str());
    ASSERT_EQ(0, target.set_disparity_param(path));
    EXPECT_EQ(std::vector<float>{-1.5f}, target.line_set_calls);
    EXPECT_EQ(std::vector<float>{12.25f}, target.disp_set_calls);

    // Text after a number is ignored; a line that is not a number reads as 0.
    ASSERT_EQ(0, load(target, "3.5 px\nabc\n"));
    EXPECT_FLOAT_EQ(3.5f, target.line_offset);
    EXPECT_FLOAT_EQ(0.0f, target.disp_offset);
}
TEST_F(DisparityParamFile, SaveAndLoadReportEachFailure) {
    ProcessingCamera camera;
    BaseOnlyCamera bare;  // no line offset to save
    EXPECT_EQ(-1, camera.save_disparity_param(nullptr));
    EXPECT_EQ(-1, camera.save_disparity_param(""));
    EXPECT_EQ(-2, bare.save_disparity_param(path));
    camera.line_get_result = -2;
    EXPECT_EQ(-2, camera.save_disparity_param(path));
    camera.line_get_result = 0, camera.disp_get_result = -2;
    EXPECT_EQ(-3, camera.save_disparity_param(path));
    EXPECT_NE(0, access(path, F_OK));

    camera.disp_get_result = 0;
    const std::string no_dir = ::testing::TempDir() + "ks_no_such_dir/offsets.txt";
    EXPECT_EQ(-4, camera.save_disparity_param(no_dir.c_str()));

    // Loading applies nothing before the first failure.
    EXPECT_EQ(-1, camera.set_disparity_param(nullptr));
    EXPECT_EQ(-1, camera.set_disparity_param(""));
    EXPECT_EQ(-2, camera.set_disparity_param(path));  // no such file
    // -3: no usable line offset, -4: no usable disparity offset. Numbers a
    // float cannot hold are not usable either, however long the line (the
    // reader takes at most 49 characters at a time).
    const std::pair<const char*, int> bad[] = {
        {"", -3}, {"2.000000\n", -4}, {"nan\n1.0\n", -3}, {"1.0\ninf\n", -4}, {"1.0\n-1e39\n", -4}};
    for (const auto& k : bad) EXPECT_EQ(k.second, load(camera, k.first)) << k.first;
    EXPECT_EQ(-3, load(camera, std::string(200, '9') + "\n1.0\n"));
    EXPECT_TRUE(camera.line_set_calls.empty());
    EXPECT_TRUE(camera.disp_set_calls.empty());

    // A refused line offset leaves the disparity offset alone ...
    camera.line_set_result = -1;
    EXPECT_EQ(-5, load(camera, "2.000000\n7.000000\n"));
    EXPECT_TRUE(camera.disp_set_calls.empty());
    // ... a refused disparity offset keeps the new line offset.
    camera.line_set_result = 0, camera.disp_set_result = -1;
    EXPECT_EQ(-6, camera.set_disparity_param(path));
    EXPECT_FLOAT_EQ(2.0f, camera.line_offset);
    EXPECT_FLOAT_EQ(0.0f, camera.disp_offset);
    // Without setters on the camera the first one fails.
    EXPECT_EQ(-5, bare.set_disparity_param(path));
}
