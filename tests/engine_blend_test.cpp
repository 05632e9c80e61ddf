// The CPU engine's alpha arithmetic: the mask blend against libyuv's I420Blend, the chroma alpha,
// and the presenter's alpha in each layout.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <random>
#include <vector>

#include "engine/i420_planes.h"
#include "engine/presenter_compositing.h"

using namespace VBG;

namespace {

// An I420 picture of random bytes in separate planes with padded strides.
struct Picture {
    int w, h, cw, ch, sy, sc;
    std::vector<uint8_t> y, u, v;
    Picture(int width, int height, std::mt19937& rng)
        : w(width), h(height), cw((w + 1) / 2), ch((h + 1) / 2), sy(w + 3), sc(cw + 3) {
        for (auto* plane : {&y, &u, &v}) {
            plane->resize(plane == &y ? sy * h : sc * ch);
            for (auto& b : *plane) {
                b = static_cast<uint8_t>(rng());
            }
        }
    }
    I420Planes planes() { return I420Planes{y.data(), sy, u.data(), sc, v.data(), sc}; }
    // The visible bytes of the three planes.
    std::vector<uint8_t> visible() const {
        std::vector<uint8_t> out;
        for (const auto* plane : {&y, &u, &v}) {
            const int stride = plane == &y ? sy : sc, width = plane == &y ? w : cw;
            for (int r = 0; r < (plane == &y ? h : ch); ++r) {
                out.insert(out.end(), plane->begin() + r * stride,
                           plane->begin() + r * stride + width);
            }
        }
        return out;
    }
};

}  // namespace

TEST(EngineBlend, MatchesI420BlendByteForByteAlsoInPlace) {
    std::mt19937 rng(7);
    const int sizes[][2] = {{2, 2},  {3, 3},    {16, 8},    {33, 17},   {64, 1},
                            {1, 64}, {255, 31}, {256, 144}, {641, 359}, {640, 360}};
    for (const auto& size : sizes) {
        const int w = size[0], h = size[1];
        SCOPED_TRACE(testing::Message() << w << "x" << h);
        Picture camera(w, h, rng), background(w, h, rng), expected(w, h, rng), actual(w, h, rng);
        Picture alpha(w + 5, h, rng);  // its luma plane, stride w + 8
        ASSERT_EQ(0, libyuv::I420Blend(camera.y.data(), camera.sy, camera.u.data(), camera.sc,
                                       camera.v.data(), camera.sc, background.y.data(),
                                       background.sy, background.u.data(), background.sc,
                                       background.v.data(), background.sc, alpha.y.data(), alpha.sy,
                                       expected.y.data(), expected.sy, expected.u.data(),
                                       expected.sc, expected.v.data(), expected.sc, w, h));
        std::vector<uint8_t> chroma(static_cast<size_t>(camera.cw) * camera.ch);
        BlendI420(camera.planes(), background.planes(), alpha.y.data(), alpha.sy, actual.planes(),
                  chroma.data(), w, h);
        EXPECT_EQ(expected.visible(), actual.visible());
        // In place over the camera picture, as the engine blends after touch-up.
        BlendI420(camera.planes(), background.planes(), alpha.y.data(), alpha.sy, camera.planes(),
                  chroma.data(), w, h);
        EXPECT_EQ(expected.visible(), camera.visible());
    }
}

TEST(EngineBlend, ChromaAlphaAveragesEach2x2BlockAndTheOddEdges) {
    const uint8_t alpha[3 * 3] = {0, 10, 20, 30, 41, 50, 60, 70, 81};
    uint8_t half[4] = {};
    HalveAlpha(alpha, 3, half, 3, 3);
    // (0 + 10 + 30 + 41 + 2) >> 2; the right column and the bottom row average their two values.
    EXPECT_EQ((std::vector<uint8_t>{20, 35, 65, 81}), std::vector<uint8_t>(half, half + 4));
}

TEST(PresenterAlpha, OverlayOpacityScalesTheMask) {
    const uint8_t mask[4] = {0, 100, 200, 255};
    // Weight round(0.5 * 255) = 128: (100 * 128 + 127) / 255 = 50, (255 * 128 + 127) / 255 = 128.
    const std::pair<float, std::vector<uint8_t>> cases[] = {{1.0f, {0, 100, 200, 255}},
                                                            {0.5f, {0, 50, 100, 128}},
                                                            {3.0f, {0, 100, 200, 255}},
                                                            {-1.0f, {0, 0, 0, 0}}};
    for (const auto& [opacity, expected] : cases) {
        uint8_t alpha[4] = {};
        Presenter::ScaleAlpha(mask, alpha, 4, opacity);
        EXPECT_EQ(expected, std::vector<uint8_t>(alpha, alpha + 4)) << opacity;
    }
}

TEST(PresenterAlpha, UnderlayShowsThePresenterThroughThePresentationBackgroundOrAtHalfStrength) {
    // Light presentation (layout 1): blocked up to 160, passed from 200; dark one (layout 2):
    // passed up to 50, blocked from 90; linear between, e.g. (180 - 160) * 255 / 40 = 127.
    const int cases[][3] = {{255, 1, 255}, {200, 1, 255}, {199, 1, 248}, {180, 1, 127},
                            {161, 1, 6},   {160, 1, 0},   {20, 1, 0},    {0, 2, 255},
                            {50, 2, 255},  {51, 2, 248},  {70, 2, 127},  {89, 2, 6},
                            {90, 2, 0},    {250, 2, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(c[2], Presenter::SeeThroughWeight(static_cast<uint8_t>(c[0]), c[1]))
            << "luma " << c[0] << ", layout " << c[1];
    }
    // 2 x 2 presenter, stride 3 for the mask and the presentation, stride 2 for the alpha.
    const uint8_t mask[6] = {255, 255, 9, 0, 255, 9};
    const uint8_t slide[6] = {255, 20, 9, 255, 255, 9};
    uint8_t alpha[4] = {};
    Presenter::UnderlayAlpha(mask, 3, slide, 3, alpha, 2, 2, 2, Presenter::UnderlayKeyed, 1);
    // Through white, hidden behind text, and never where the mask is empty.
    EXPECT_EQ((std::vector<uint8_t>{255, 0, 0, 255}), std::vector<uint8_t>(alpha, alpha + 4));
    // Translucent: (255 * 128 + 127) / 255 = 128 wherever the mask is full.
    Presenter::UnderlayAlpha(mask, 3, slide, 3, alpha, 2, 2, 2, Presenter::UnderlayTranslucent, 1);
    EXPECT_EQ((std::vector<uint8_t>{128, 128, 0, 128}), std::vector<uint8_t>(alpha, alpha + 4));
}
