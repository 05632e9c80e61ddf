// The CPU engine's mask blend against libyuv's I420Blend, and the alpha of the presenter layouts.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstring>
#include <random>
#include <vector>

#include "engine/i420_planes.h"
#include "engine/presenter_compositing.h"
#include "filters/upscale_cpu.h"

using namespace VBG;

namespace {

// An I420 picture in separate planes with padded strides.
struct Picture {
    int w, h, cw, ch, sy, sc;
    std::vector<uint8_t> y, u, v;
    Picture(int width, int height, std::mt19937& rng, int pad = 3)
        : w(width),
          h(height),
          cw((width + 1) / 2),
          ch((height + 1) / 2),
          sy(width + pad),
          sc(cw + pad),
          y(sy * h),
          u(sc * ch),
          v(sc * ch) {
        std::uniform_int_distribution<int> byte(0, 255);
        for (auto* plane : {&y, &u, &v}) {
            for (auto& b : *plane) {
                b = static_cast<uint8_t>(byte(rng));
            }
        }
    }
    I420Planes planes() { return I420Planes{y.data(), sy, u.data(), sc, v.data(), sc}; }
};

std::vector<uint8_t> randomPlane(size_t n, std::mt19937& rng) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<uint8_t> out(n);
    for (auto& b : out) {
        b = static_cast<uint8_t>(byte(rng));
    }
    return out;
}

// The visible bytes of the three planes.
std::vector<uint8_t> visible(const Picture& p) {
    std::vector<uint8_t> out;
    for (int r = 0; r < p.h; ++r) {
        out.insert(out.end(), p.y.begin() + r * p.sy, p.y.begin() + r * p.sy + p.w);
    }
    for (const auto* plane : {&p.u, &p.v}) {
        for (int r = 0; r < p.ch; ++r) {
            out.insert(out.end(), plane->begin() + r * p.sc, plane->begin() + r * p.sc + p.cw);
        }
    }
    return out;
}

}  // namespace

TEST(EngineBlend, MatchesI420BlendByteForByteOnRandomPictures) {
    std::mt19937 rng(7);
    const int sizes[][2] = {{2, 2},  {3, 3},    {16, 8},    {33, 17},   {64, 1},
                            {1, 64}, {255, 31}, {256, 144}, {641, 359}, {640, 360}};
    for (const auto& size : sizes) {
        const int w = size[0], h = size[1];
        SCOPED_TRACE(testing::Message() << w << "x" << h);
        Picture camera(w, h, rng), background(w, h, rng);
        const int alphaStride = w + 5;
        const std::vector<uint8_t> alpha = randomPlane(static_cast<size_t>(alphaStride) * h, rng);
        Picture expected(w, h, rng), actual(w, h, rng);
        ASSERT_EQ(0, libyuv::I420Blend(
                         camera.y.data(), camera.sy, camera.u.data(), camera.sc, camera.v.data(),
                         camera.sc, background.y.data(), background.sy, background.u.data(),
                         background.sc, background.v.data(), background.sc, alpha.data(),
                         alphaStride, expected.y.data(), expected.sy, expected.u.data(),
                         expected.sc, expected.v.data(), expected.sc, w, h));
        std::vector<uint8_t> chroma(static_cast<size_t>((w + 1) / 2) * ((h + 1) / 2));
        BlendI420(camera.planes(), background.planes(), alpha.data(), alphaStride, actual.planes(),
                  chroma.data(), w, h);
        EXPECT_EQ(visible(expected), visible(actual));

        // In place over the camera picture, as the engine blends after touch-up.
        BlendI420(camera.planes(), background.planes(), alpha.data(), alphaStride, camera.planes(),
                  chroma.data(), w, h);
        EXPECT_EQ(visible(expected), visible(camera));
    }
}

// The mask and background enlargement against libyuv's bilinear scaler: the engine's sizes, the
// sizes libyuv sends elsewhere (doubling, reduction, one-pixel sources) and odd strides.
TEST(EngineBlend, UpscalerMatchesLibyuvBilinearByteForByte) {
    std::mt19937 rng(5);
    const int sizes[][4] = {{256, 144, 1280, 720}, {128, 72, 640, 360},  {256, 144, 1920, 1080},
                            {128, 72, 161, 91},    {256, 144, 257, 145}, {5, 3, 333, 77},
                            {256, 144, 512, 288},  {256, 144, 200, 112}, {1, 9, 40, 40}};
    for (const auto& s : sizes) {
        SCOPED_TRACE(testing::Message() << s[0] << "x" << s[1] << " to " << s[2] << "x" << s[3]);
        const std::vector<uint8_t> src = randomPlane(static_cast<size_t>(s[0] + 3) * s[1], rng);
        std::vector<uint8_t> expected(static_cast<size_t>(s[2] + 7) * s[3]), actual(expected);
        libyuv::ScalePlane(src.data(), s[0] + 3, s[0], s[1], expected.data(), s[2] + 7, s[2], s[3],
                           libyuv::kFilterBilinear);
        for (KernelLevel level : {KernelLevel::Avx2, KernelLevel::Portable}) {
            PlaneUpscaler upscaler(level);
            upscaler.scale(src.data(), s[0] + 3, s[0], s[1], actual.data(), s[2] + 7, s[2], s[3]);
            for (int r = 0; r < s[3]; ++r) {
                ASSERT_EQ(0, std::memcmp(&expected[r * (s[2] + 7)], &actual[r * (s[2] + 7)], s[2]))
                    << "row " << r << ", " << KernelLevelName(level);
            }
        }
    }
}

TEST(EngineBlend, FullMaskKeepsTheCameraAndEmptyMaskTakesTheBackground) {
    std::mt19937 rng(11);
    const int w = 18, h = 10;
    Picture camera(w, h, rng, 0), background(w, h, rng, 0), out(w, h, rng, 0);
    std::vector<uint8_t> chroma(9 * 5);
    std::vector<uint8_t> alpha(w * h, 255);
    BlendI420(camera.planes(), background.planes(), alpha.data(), w, out.planes(), chroma.data(), w,
              h);
    // (v * 255 + 255) >> 8 == v for every byte value.
    EXPECT_EQ(visible(camera), visible(out));
    std::fill(alpha.begin(), alpha.end(), 0);
    BlendI420(camera.planes(), background.planes(), alpha.data(), w, out.planes(), chroma.data(), w,
              h);
    EXPECT_EQ(visible(background), visible(out));
    // Mid alpha: the exact rounding rule.
    std::fill(alpha.begin(), alpha.end(), 100);
    BlendI420(camera.planes(), background.planes(), alpha.data(), w, out.planes(), chroma.data(), w,
              h);
    for (int i = 0; i < w; ++i) {
        EXPECT_EQ((camera.y[i] * 100 + background.y[i] * 155 + 255) >> 8, out.y[i]) << i;
    }
}

TEST(EngineBlend, ChromaAlphaAveragesEach2x2BlockAndTheOddEdges) {
    const uint8_t alpha[3 * 3] = {0, 10, 20, 30, 41, 50, 60, 70, 81};
    uint8_t half[4] = {};
    HalveAlpha(alpha, 3, half, 3, 3);
    EXPECT_EQ((0 + 10 + 30 + 41 + 2) >> 2, half[0]);
    EXPECT_EQ((20 + 50 + 1) >> 1, half[1]);  // right column: its two values
    EXPECT_EQ((60 + 70 + 1) >> 1, half[2]);  // bottom row: one row, averaged with itself
    EXPECT_EQ(81, half[3]);
}

TEST(PresenterAlpha, OverlayOpacityScalesTheMask) {
    const uint8_t mask[4] = {0, 100, 200, 255};
    uint8_t alpha[4] = {};
    Presenter::ScaleAlpha(mask, alpha, 4, 1.0f);
    EXPECT_EQ(std::vector<uint8_t>(mask, mask + 4), std::vector<uint8_t>(alpha, alpha + 4));
    Presenter::ScaleAlpha(mask, alpha, 4, 0.5f);
    EXPECT_EQ((std::vector<uint8_t>{0, 50, 100, 128}), std::vector<uint8_t>(alpha, alpha + 4));
    Presenter::ScaleAlpha(mask, alpha, 4, 3.0f);  // clamped to opaque
    EXPECT_EQ(255, alpha[3]);
    Presenter::ScaleAlpha(mask, alpha, 4, -1.0f);  // clamped to invisible
    EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0}), std::vector<uint8_t>(alpha, alpha + 4));
}

TEST(PresenterAlpha, KeyedUnderlayShowsThePresenterOnlyThroughThePresentationBackground) {
    // Light presentation (layout 1): white passes, dark text blocks.
    EXPECT_EQ(255, Presenter::SeeThroughWeight(255, 1));
    EXPECT_EQ(255, Presenter::SeeThroughWeight(200, 1));
    EXPECT_EQ(0, Presenter::SeeThroughWeight(160, 1));
    EXPECT_EQ(0, Presenter::SeeThroughWeight(20, 1));
    EXPECT_EQ(127, Presenter::SeeThroughWeight(180, 1));
    // Dark presentation (layout 2): black passes, light text blocks.
    EXPECT_EQ(255, Presenter::SeeThroughWeight(0, 2));
    EXPECT_EQ(255, Presenter::SeeThroughWeight(50, 2));
    EXPECT_EQ(0, Presenter::SeeThroughWeight(90, 2));
    EXPECT_EQ(0, Presenter::SeeThroughWeight(250, 2));
    for (int i = 1; i < 256; ++i) {
        EXPECT_GE(Presenter::SeeThroughWeight(static_cast<uint8_t>(i), 1),
                  Presenter::SeeThroughWeight(static_cast<uint8_t>(i - 1), 1));
        EXPECT_LE(Presenter::SeeThroughWeight(static_cast<uint8_t>(i), 2),
                  Presenter::SeeThroughWeight(static_cast<uint8_t>(i - 1), 2));
    }

    // 2 x 2 presenter, stride 3 for the mask and the presentation, stride 2 for the alpha.
    const uint8_t mask[6] = {255, 255, 9, 0, 255, 9};
    const uint8_t slide[6] = {255, 20, 9, 255, 255, 9};
    uint8_t alpha[4] = {};
    Presenter::UnderlayAlpha(mask, 3, slide, 3, alpha, 2, 2, 2, Presenter::UnderlayKeyed, 1);
    // Presenter through white, hidden behind text, and never where the mask is empty.
    EXPECT_EQ((std::vector<uint8_t>{255, 0, 0, 255}), std::vector<uint8_t>(alpha, alpha + 4));
    Presenter::UnderlayAlpha(mask, 3, slide, 3, alpha, 2, 2, 2, Presenter::UnderlayTranslucent, 1);
    EXPECT_EQ((std::vector<uint8_t>{128, 128, 0, 128}), std::vector<uint8_t>(alpha, alpha + 4));
}
