// The processing state of a camera: stereo geometry, reciprocal tables,
// and the disparity parameter file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "processing_camera.h"

namespace {

std::string temp_path(const char* name) {
    return ::testing::TempDir() + "ks_processing_" + std::to_string(getpid()) + "_" + name;
}

std::string read_text(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_text(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    out << text;
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

}  // namespace

TEST(RuntimeEnvironment, TablesAndFocalComeFromTheStereoConstants) {
    ProcessingCamera camera;
    camera.bxf = 30000.0f;
    camera.base = 60.0f;
    ASSERT_EQ(0, camera.initialize_runtime_environment());
    EXPECT_FLOAT_EQ(500.0f, camera.focal_field());
    const float* depth = camera.depth_table();
    const float* lateral = camera.lateral_table();
    ASSERT_NE(nullptr, depth);
    ASSERT_NE(nullptr, lateral);
    EXPECT_FLOAT_EQ(30000.0f, depth[32]);  // one pixel of disparity
    EXPECT_FLOAT_EQ(60.0f, lateral[32]);
    EXPECT_FLOAT_EQ(4294967296.0f, depth[0]);  // no disparity: infinitely far
    EXPECT_FLOAT_EQ(4294967296.0f, lateral[0]);
    EXPECT_FLOAT_EQ(30000.0f * 32.0f / 4095.0f, depth[4095]);
    EXPECT_FLOAT_EQ(60.0f * 32.0f / 7.0f, lateral[7]);

    // Known geometry is not fetched again; the tables are rebuilt from it.
    const int calls = camera.bxf_calls;
    camera.bxf = 1.0f;
    ASSERT_EQ(0, camera.initialize_runtime_environment());
    EXPECT_EQ(calls, camera.bxf_calls);
    EXPECT_FLOAT_EQ(30000.0f, camera.depth_table()[32]);
}

TEST(RuntimeEnvironment, MissingGeometryOrResolutionIsReported) {
    BaseOnlyCamera bare;  // getters left at the base's "not supported"
    EXPECT_EQ(-1, bare.initialize_runtime_environment());
    EXPECT_EQ(nullptr, bare.depth_table());

    ProcessingCamera failing;
    failing.bxf_result = -2;
    EXPECT_EQ(-1, failing.initialize_runtime_environment());

    // A camera that has not seen a frame yet reports zero constants.
    ProcessingCamera unknown;
    unknown.bxf = 0.0f;
    EXPECT_EQ(-1, unknown.initialize_runtime_environment());
    unknown.bxf = 30000.0f;
    unknown.base = 0.0f;
    EXPECT_EQ(-1, unknown.initialize_runtime_environment());

    ProcessingCamera no_resolution;
    no_resolution.resolution_result = -2;
    EXPECT_EQ(-2, no_resolution.initialize_runtime_environment());
    no_resolution.resolution_result = 0;
    no_resolution.width = 0;
    EXPECT_EQ(-2, no_resolution.initialize_runtime_environment());
    no_resolution.width = 640;
    EXPECT_EQ(0, no_resolution.initialize_runtime_environment());
}

TEST(DisparityParamFile, RoundTripThroughTheTextFormat) {
    const std::string path = temp_path("roundtrip.txt");
    ProcessingCamera source;
    source.line_offset = -1.5f;
    source.disp_offset = 12.25f;
    ASSERT_EQ(0, source.save_disparity_param(path.c_str()));
    EXPECT_EQ("-1.500000\n12.250000\n", read_text(path));

    ProcessingCamera target;
    ASSERT_EQ(0, target.set_disparity_param(path.c_str()));
    ASSERT_EQ(1u, target.line_set_calls.size());
    ASSERT_EQ(1u, target.disp_set_calls.size());
    EXPECT_FLOAT_EQ(-1.5f, target.line_set_calls[0]);
    EXPECT_FLOAT_EQ(12.25f, target.disp_set_calls[0]);

    // Text after a number is ignored; a line that is not a number reads as 0.
    write_text(path, "3.5 px\nabc\n");
    ASSERT_EQ(0, target.set_disparity_param(path.c_str()));
    EXPECT_FLOAT_EQ(3.5f, target.line_offset);
    EXPECT_FLOAT_EQ(0.0f, target.disp_offset);
    std::remove(path.c_str());
}

TEST(DisparityParamFile, SaveReportsEachFailureAndWritesNothing) {
    ProcessingCamera camera;
    EXPECT_EQ(-1, camera.save_disparity_param(nullptr));
    EXPECT_EQ(-1, camera.save_disparity_param(""));

    const std::string path = temp_path("save_fail.txt");
    BaseOnlyCamera bare;  // no line offset to save
    EXPECT_EQ(-2, bare.save_disparity_param(path.c_str()));
    EXPECT_FALSE(exists(path));

    camera.line_get_result = -2;
    EXPECT_EQ(-2, camera.save_disparity_param(path.c_str()));
    camera.line_get_result = 0;
    camera.disp_get_result = -2;
    EXPECT_EQ(-3, camera.save_disparity_param(path.c_str()));
    EXPECT_FALSE(exists(path));

    camera.disp_get_result = 0;
    const std::string no_dir = ::testing::TempDir() + "ks_no_such_dir/offsets.txt";
    EXPECT_EQ(-4, camera.save_disparity_param(no_dir.c_str()));
}

TEST(DisparityParamFile, LoadReportsEachFailureAndAppliesNothingBeforeIt) {
    ProcessingCamera camera;
    EXPECT_EQ(-1, camera.set_disparity_param(nullptr));
    EXPECT_EQ(-1, camera.set_disparity_param(""));
    const std::string path = temp_path("load.txt");
    std::remove(path.c_str());
    EXPECT_EQ(-2, camera.set_disparity_param(path.c_str()));

    write_text(path, "");
    EXPECT_EQ(-3, camera.set_disparity_param(path.c_str()));
    write_text(path, "2.000000\n");  // one line only: nothing changes
    EXPECT_EQ(-4, camera.set_disparity_param(path.c_str()));
    EXPECT_TRUE(camera.line_set_calls.empty());
    EXPECT_TRUE(camera.disp_set_calls.empty());
    write_text(path, "nan\n1.0\n");  // no usable number
    EXPECT_EQ(-3, camera.set_disparity_param(path.c_str()));
    write_text(path, "1.0\ninf\n");
    EXPECT_EQ(-4, camera.set_disparity_param(path.c_str()));
    EXPECT_TRUE(camera.line_set_calls.empty());

    // A refused line offset leaves the disparity offset alone ...
    write_text(path, "2.000000\n7.000000\n");
    camera.line_set_result = -1;
    EXPECT_EQ(-5, camera.set_disparity_param(path.c_str()));
    EXPECT_TRUE(camera.disp_set_calls.empty());
    // ... a refused disparity offset keeps the new line offset.
    camera.line_set_result = 0;
    camera.disp_set_result = -1;
    EXPECT_EQ(-6, camera.set_disparity_param(path.c_str()));
    EXPECT_FLOAT_EQ(2.0f, camera.line_offset);
    EXPECT_FLOAT_EQ(0.0f, camera.disp_offset);

    // Without setters on the camera the first one fails.
    BaseOnlyCamera bare;
    EXPECT_EQ(-5, bare.set_disparity_param(path.c_str()));

    // Numbers a float cannot hold are not usable either, however long the
    // line (the reader takes at most 49 characters at a time).
    write_text(path, std::string(200, '9') + "\n1.0\n");
    EXPECT_EQ(-3, camera.set_disparity_param(path.c_str()));
    write_text(path, "1.0\n-1e39\n");
    EXPECT_EQ(-4, camera.set_disparity_param(path.c_str()));
    std::remove(path.c_str());
}
