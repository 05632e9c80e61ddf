// The CPU engine's compositing arithmetic: the mask blend against libyuv's I420Blend, the chroma
// alpha, and of the presenter layouts the presenter's alpha, size, scale and placement, the camera
// viewport of the layered modes and the viewports of the room modes (with their deliberate quirks).
#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstring>
#include <random>
#include <vector>

#include "config/config_parser.h"
#include "engine/i420_planes.h"
#include "engine/presenter_compositing.h"
#include "engine/presenter_geometry.h"
#include "filters/upscale_cpu.h"

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

// A viewport as x, y, width, height, and its depth range, which is always 0..1.
std::vector<float> Of(const Viewport& v) {
    EXPECT_EQ(0.0f, v.minDepth);
    EXPECT_EQ(1.0f, v.maxDepth);
    return {v.x, v.y, v.width, v.height};
}

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

// The mask and background enlargement against libyuv's bilinear scaler: the engine's sizes, the
// sizes libyuv sends elsewhere (doubling, reduction, one-pixel sources) and odd strides.
TEST(EngineBlend, UpscalerMatchesLibyuvBilinearByteForByte) {
    std::mt19937 rng(5);
    const int sizes[][4] = {{256, 144, 1280, 720}, {128, 72, 640, 360},  {256, 144, 1920, 1080},
                            {128, 72, 161, 91},    {256, 144, 257, 145}, {5, 3, 333, 77},
                            {256, 144, 512, 288},  {256, 144, 200, 112}, {1, 9, 40, 40}};
    for (const auto& s : sizes) {
        SCOPED_TRACE(testing::Message() << s[0] << "x" << s[1] << " to " << s[2] << "x" << s[3]);
        const Picture src(s[0], s[1], rng);  // the Y plane, stride width + 3
        std::vector<uint8_t> expected(static_cast<size_t>(s[2] + 7) * s[3]), actual(expected);
        libyuv::ScalePlane(src.y.data(), s[0] + 3, s[0], s[1], expected.data(), s[2] + 7, s[2],
                           s[3], libyuv::kFilterBilinear);
        for (KernelLevel level : {KernelLevel::Avx2, KernelLevel::Portable}) {
            PlaneUpscaler upscaler(level);
            upscaler.scale(src.y.data(), s[0] + 3, s[0], s[1], actual.data(), s[2] + 7, s[2], s[3]);
            for (int r = 0; r < s[3]; ++r) {
                ASSERT_EQ(0, std::memcmp(&expected[r * (s[2] + 7)], &actual[r * (s[2] + 7)], s[2]))
                    << "row " << r << ", " << KernelLevelName(level);
            }
        }
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

TEST(PresenterGeometry, PresenterSizeRoundsHeightDownToEvenAndWrapsWidthAt28Bits) {
    EXPECT_EQ(320, PresenterWidth(640, 0.5f));
    EXPECT_EQ(213, PresenterWidth(640, 0.3333f));  // truncated
    // 100 x 75 camera at full size: 75 is odd and becomes 74.
    EXPECT_EQ(74, PresenterHeight(PresenterWidth(100, 1.0f), 100, 75));
    EXPECT_EQ(148, PresenterHeight(199, 200, 150));  // 149.25 -> 149 -> 148
    // 2^27 sets the sign bit of the 28-bit field; 2^28 drops out entirely.
    EXPECT_EQ(-(1 << 27), PresenterWidth(1u << 20, 128.0f));
    EXPECT_EQ(0, PresenterWidth(1u << 22, 64.0f));
    EXPECT_EQ(1 << 21, PresenterWidth(1u << 22, 64.5f));
    EXPECT_EQ((1 << 27) - 16, PresenterWidth((1u << 27) - 16, 1.0f));  // largest exact float below
}

TEST(PresenterGeometry, ScaleDependsOnTheModeAndTheRoomPicture) {
    ZynNativeWeathermanSettings s = DefaultWeathermanSettings();
    s.overlaySize = 0.4f;
    s.underlaySize = 0.7f;
    s.newsroomSize = 1.0f;
    s.conferenceroomSize = 0.5f;
    // Room modes: a share of the 1920-pixel picture over the 640-pixel camera, 0.1 * size + 0.3
    // (newsroom) and 0.13 * size + 0.4 (conference room).
    const std::pair<int32_t, float> cases[] = {{PresenterOverlay, 0.4f},
                                               {PresenterUnderlay, 0.7f},
                                               {PresenterNewsroom, 1920.0f * 0.4f / 640.0f},
                                               {PresenterConferenceroom, 1920.0f * 0.465f / 640.0f},
                                               {PresenterNone, 0.0f}};
    for (const auto& [mode, scale] : cases) {
        s.mode = mode;
        EXPECT_FLOAT_EQ(scale, PresenterScale(s, 1920, 640)) << mode;
    }
}

TEST(PresenterGeometry, LayeredModesCentreThePresenterAndShiftItByTheOffsets) {
    ZynNativeWeathermanSettings s = DefaultWeathermanSettings();
    s.mode = PresenterOverlay;
    s.overlaySize = 0.5f;
    s.overlayOffsetX = 0.25f;
    s.overlayOffsetY = -0.25f;
    Viewport camera;
    ASSERT_TRUE(LayeredCameraViewport(s, 640, 360, 1280, 720, camera));
    // w 320, h 180; x = (1280 - 320) / 2 + 320 = 800; y = (720 - 180) / 2 - 180 = 90.
    EXPECT_EQ((std::vector<float>{800, 90, 320, 180}), Of(camera));
    s.mode = PresenterUnderlay;
    s.underlaySize = 1.0f;
    s.underlayOffsetX = s.underlayOffsetY = 0.0f;
    ASSERT_TRUE(LayeredCameraViewport(s, 640, 360, 1280, 720, camera));
    EXPECT_EQ((std::vector<float>{320, 180, 640, 360}), Of(camera));
    EXPECT_FALSE(LayeredCameraViewport(s, 0, 360, 1280, 720, camera));
    s.mode = PresenterNewsroom;
    EXPECT_FALSE(LayeredCameraViewport(s, 640, 360, 1280, 720, camera));
}

TEST(PresenterGeometry, RoomModesPlaceThePresenterAndFitThePresentationInItsRectangle) {
    // 640 x 360 camera on a 1920 x 1080 picture. Conference room, size 0: scale 1920 * 0.4 / 640
    // = 1.2, 768 x 432 at (100, 1080 - 432 - 33); the rectangle is 75%, 1440 x 810, at 10 down and
    // 8 from the right. Newsroom, size 0: scale 0.9, 576 x 324 at the bottom on the chosen side;
    // the rectangle is 0.2 * size + 0.7 (at most 0.9) of the picture, 10 down, 8 from the right
    // or 2 from the left (when the presenter is right).
    const struct {
        int32_t mode, position;
        float presentationSize;
        uint32_t pw, ph;
        std::vector<float> camera, slides;
    } cases[] = {
        // Narrower than 1440 x 810: 1280 * 810 / 1024 = 1012 wide, centred: 480 - 8 + 214.
        {PresenterConferenceroom, 0, 0, 1280, 1024, {100, 615, 768, 432}, {686, 10, 1012, 810}},
        // Wider: 1440 * 600 / 1920 = 450 high, centred: (810 - 450) / 2 + 10.
        {PresenterConferenceroom, 0, 0, 1920, 600, {100, 615, 768, 432}, {472, 190, 1440, 450}},
        // 0.9: 1728 x 972 (16:9 exactly) against the left edge at 2.
        {PresenterNewsroom, 1, 1, 1600, 900, {1344, 756, 576, 324}, {2, 10, 1728, 972}},
        // 0.7: 1344 x 756; too wide for 800 x 900: 800 * 756 / 900 = 672, at 1920 - 672 - 2.
        {PresenterNewsroom, 0, 0, 800, 900, {0, 756, 576, 324}, {1246, 10, 672, 756}},
        // Not narrowed: 1344 * 900 / 1920 = 630 high, the 8-pixel margin kept.
        {PresenterNewsroom, 0, 0, 1920, 900, {0, 756, 576, 324}, {568, 10, 1344, 630}}};
    for (const auto& c : cases) {
        ZynNativeWeathermanSettings s = DefaultWeathermanSettings();
        s.mode = c.mode;
        s.conferenceroomSize = s.newsroomSize = 0.0f;
        s.newsroomPosition = c.position;
        s.newsroomPresentationSize = c.presentationSize;
        Viewport camera, slides;
        ASSERT_TRUE(RoomViewports(s, 1920, 640, 360, c.pw, c.ph, 1920, 1080, camera, slides));
        EXPECT_EQ(c.camera, Of(camera)) << c.pw << "x" << c.ph;
        EXPECT_EQ(c.slides, Of(slides)) << c.pw << "x" << c.ph;
    }
    // Other modes: no rectangle.
    ZynNativeWeathermanSettings s = DefaultWeathermanSettings();
    s.mode = PresenterOverlay;
    Viewport camera, slides{1, 2, 3, 4, 5, 6};
    EXPECT_FALSE(RoomViewports(s, 1920, 640, 360, 1280, 720, 1920, 1080, camera, slides));
    EXPECT_EQ((std::vector<float>{0, 0, 0, 0, 0, 0}),
              (std::vector<float>{slides.x, slides.y, slides.width, slides.height, slides.minDepth,
                                  slides.maxDepth}));
}

TEST(PresenterPlacement, ClipsToTheAreaWithAnEvenOrigin) {
    // A w x h picture at (x, y) in a 640 x 360 area: the visible part as x, y, srcX, srcY,
    // width, height, or nothing.
    const std::pair<std::vector<int64_t>, std::vector<int>> cases[] = {
        {{101, 51, 40, 30}, {100, 50, 0, 0, 40, 30}},
        {{-11, -6, 40, 30}, {0, 0, 12, 6, 28, 24}},  // over the top-left corner
        {{620, 350, 40, 30}, {620, 350, 0, 0, 20, 10}},
        {{640, 0, 40, 30}, {}},
        {{-40, 0, 40, 30}, {}},
        {{0, 0, -(1 << 27), 30}, {}},
        {{0, 0, 0, 30}, {}}};
    for (const auto& [at, expected] : cases) {
        Presenter::Placement p;
        const bool visible = Presenter::ClipPlacement(at[0], at[1], at[2], at[3], 640, 360, p);
        const std::vector<int> got = {p.x, p.y, p.srcX, p.srcY, p.width, p.height};
        EXPECT_EQ(expected, visible ? got : std::vector<int>{}) << at[0] << ", " << at[1];
    }
}
