// Host processing of two cameras on two threads at once: each camera's
// result must equal what it gives alone, whatever the other is doing.
#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "disparity_maps.h"
#include "processing_camera.h"

namespace {

// Blocks of near-constant disparity with speckles and holes, on a grey
// ramp, so that every stage of both operations has work to do.
DisparityMaps random_scene(uint16_t w, uint16_t h, unsigned seed) {
    DisparityMaps m(w, h);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> value(300, 3000);
    for (int b = 0; b < 40; ++b) {
        const int rows = 8 + static_cast<int>(rng() % 60);
        const int cols = 8 + static_cast<int>(rng() % 90);
        const int r0 = static_cast<int>(rng() % static_cast<unsigned>(h - rows - 12));
        const int c0 = static_cast<int>(rng() % static_cast<unsigned>(w - cols - 30));
        const int v = value(rng);
        for (int r = r0; r < r0 + rows; ++r)
            for (int c = c0; c < c0 + cols; ++c)
                if (rng() % 7 != 0)
                    m.put(r, c, static_cast<uint16_t>(v + static_cast<int>(rng() % 9)));
    }
    for (size_t i = 0; i < m.grey.size(); ++i) m.grey[i] = static_cast<uint8_t>((i * 7) >> 4);
    return m;
}

struct Job {
    ProcessingCamera cam;
    DisparityMaps scene;
    std::vector<uint16_t> expected[2];  // dense, filter
    int mismatches = 0;

    Job(uint16_t w, uint16_t h, float bxf, unsigned seed) : scene(random_scene(w, h, seed)) {
        cam.width = w, cam.height = h, cam.bxf = bxf;
    }
    std::vector<uint16_t> process(int op) {
        DisparityMaps m = scene;
        EXPECT_EQ(0, op == 0 ? m.dense(cam) : m.filter(cam));
        return m.input;
    }
    void run(int rounds) {
        for (int i = 0; i < 2 * rounds; ++i) mismatches += process(i % 2) != expected[i % 2];
    }
};

}  // namespace

TEST(ProcessingThreads, TwoCamerasOfDifferentSizesProcessConcurrently) {
    Job wide(1280, 720, 42000.0f, 1);
    Job vga(640, 480, 30000.0f, 2);
    for (Job* job : {&wide, &vga})
        for (int op = 0; op < 2; ++op) {
            job->expected[op] = job->process(op);
            EXPECT_NE(job->expected[op], job->scene.input);  // the operation changed the map
        }

    std::thread a([&] { wide.run(6); });
    std::thread b([&] { vga.run(6); });
    a.join();
    b.join();
    EXPECT_EQ(0, wide.mismatches);
    EXPECT_EQ(0, vga.mismatches);
}
