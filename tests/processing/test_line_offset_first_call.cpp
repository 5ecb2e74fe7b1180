// The camera's line offset shifts the disparity rows of the first processed
// frame of the process only. This program holds nothing else, so its first
// dense or filter call is the process's first.
#include <gtest/gtest.h>

#include <cstdlib>

#include "disparity_maps.h"
#include "processing_camera.h"

TEST(LineOffset, OnlyTheFirstCallOfTheProcessReadsAndAppliesIt) {
    // In child processes (copies of this one, before any call): an unreadable
    // line offset fails the first call; one beyond any image moves every row
    // out of the map, nothing is read past it and the frame comes back empty.
    EXPECT_EXIT(
        {
            ProcessingCamera cam;
            cam.line_get_result = -2;
            DisparityMaps m(640, 480);
            const int first = m.filter(cam);
            const int second = m.filter(cam);
            std::exit(first == -13 && second == 0 && cam.line_get_calls == 1 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            ProcessingCamera cam;
            cam.line_offset = -1e30f;
            DisparityMaps m(640, 480);
            m.block(40, 100, 10, 10, 1000);
            const int rc = m.dense(cam);
            std::exit(rc == 0 && m.count_nonzero() == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");

    // Line offset -2.3: the first frame reads 3 + ceil(2.3) = 6 rows further
    // down; every later frame of either operation, and of another camera
    // with another offset, reads 3 rows down.
    ProcessingCamera cam, other;
    cam.line_offset = -2.3f;
    other.line_offset = -7.0f;
    DisparityMaps first(640, 480), second(640, 480), third(640, 480);
    for (DisparityMaps* m : {&first, &second, &third}) m->block(40, 100, 10, 10, 1000);
    ASSERT_EQ(0, first.dense(cam));
    EXPECT_EQ(6u * 640u, cam.dense_start_offset());
    EXPECT_TRUE(first.all(37, 105, 10, 1, 1000));  // 3 rows higher than placed
    EXPECT_EQ(0, first.out(47, 105));

    ASSERT_EQ(0, second.filter(cam));
    EXPECT_EQ(3u * 640u, cam.dense_start_offset());
    EXPECT_EQ(0, second.out(39, 105));
    EXPECT_TRUE(second.all(40, 105, 10, 1, 1000));
    ASSERT_EQ(0, third.dense(other));
    EXPECT_EQ(1000, third.out(40, 105));
    EXPECT_EQ(1, cam.line_get_calls);
    EXPECT_EQ(0, other.line_get_calls);
}
