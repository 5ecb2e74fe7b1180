// Back-light detection on grey images.
#include <gtest/gtest.h>

#include <vector>

#include "processing_camera.h"

TEST(BackLight, SmallOrMissingImagesAreNeverBackLit) {
    BaseOnlyCamera cam;
    std::vector<uint8_t> img(40 * 40, 0);
    for (int x = 0; x < 10; ++x) img[x] = 255;  // back-lit once examined
    EXPECT_TRUE(cam.KsBackLightingAdjust(40, 40, img.data()));
    EXPECT_FALSE(cam.KsBackLightingAdjust(39, 40, img.data()));
    EXPECT_FALSE(cam.KsBackLightingAdjust(40, 39, img.data()));
    EXPECT_FALSE(cam.KsBackLightingAdjust(640, 480, nullptr));
}

TEST(BackLight, BlackAndUniformImagesAreNotBackLit) {
    BaseOnlyCamera cam;
    std::vector<uint8_t> black(640 * 480, 0);
    EXPECT_FALSE(cam.KsBackLightingAdjust(640, 480, black.data()));
    std::vector<uint8_t> grey(640 * 480, 128);  // half passed at the ninth block
    EXPECT_FALSE(cam.KsBackLightingAdjust(640, 480, grey.data()));
}

TEST(BackLight, OneBrightBlockRowIsBackLit) {
    BaseOnlyCamera cam;
    const int w = 640, h = 480;  // blocks of 160 x 120
    std::vector<uint8_t> img(w * h, 0);
    for (int x = 0; x < 160; ++x) img[x] = 255;
    EXPECT_TRUE(cam.KsBackLightingAdjust(w, h, img.data()));

    // Only each block's first row is sampled: a bright area below it is not seen.
    std::vector<uint8_t> below(w * h, 0);
    for (int y = 1; y < 120; ++y)
        for (int x = 0; x < w; ++x) below[y * w + x] = 255;
    EXPECT_FALSE(cam.KsBackLightingAdjust(w, h, below.data()));

    // Six blocks that carry more than half are back-lit; seven are not.
    // Blocks in layout order: four to a block row, 120 rows apart.
    auto image_with = [&](int bright_blocks, uint8_t rest) {
        std::vector<uint8_t> v(w * h, rest);
        for (int b = 0; b < bright_blocks; ++b)
            for (int x = 0; x < 160; ++x) v[(b / 4) * 120 * w + (b % 4) * 160 + x] = 255;
        return v;
    };
    // 6 x 255 against 10 x 120: the fifth block is short of half, the sixth passes it.
    std::vector<uint8_t> six = image_with(6, 120);
    EXPECT_TRUE(cam.KsBackLightingAdjust(w, h, six.data()));
    // 7 x 255 against 9 x 150: half is passed at the seventh block.
    std::vector<uint8_t> seven = image_with(7, 150);
    EXPECT_FALSE(cam.KsBackLightingAdjust(w, h, seven.data()));
}

TEST(BackLight, OddWidthsReadOnlyTheImage) {
    // 41 columns: five blocks to a block row, the fifth running on into the
    // next image row; nothing is read past the image (checked under ASan).
    BaseOnlyCamera cam;
    for (int w : {41, 43, 57, 641}) {
        for (int h : {40, 43, 481}) {
            std::vector<uint8_t> img(static_cast<size_t>(w) * h, 200);
            EXPECT_FALSE(cam.KsBackLightingAdjust(static_cast<uint16_t>(w),
                                                  static_cast<uint16_t>(h), img.data()))
                << w << " x " << h;
        }
    }
}
