// Compositing of the CPU engine: the mask blend and the upscaler against libyuv, the chroma alpha,
// the presenter layouts' alpha, size, scale, placement and viewports (with their deliberate
// quirks), and the presenter layouts end to end through the exported functions with the real
// model: the composed frame's size, the presenter where the layout puts him, the presentation and
// the room picture around him, and each layout's way of mixing them.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstring>
#include <fstream>
#include <random>
#include <vector>

#include "config/config_parser.h"
#include "engine/i420_planes.h"
#include "engine/presenter_compositing.h"
#include "engine/presenter_geometry.h"
#include "engine_test_support.h"
#include "filters/reduce_cpu.h"
#include "filters/upscale_cpu.h"
#include "support/log_capture.h"

using namespace VBG;
using namespace engine_test;
using zyn_test::LogCapture;

namespace {

// An I420 picture of random bytes with strides padded by 3, and its planes as compositing takes
// them.
Frame Random(int w, int h, std::mt19937& rng) {
    Frame f(w, h, ZYN_FORMAT_I420, 3);
    f.forEachByte([&rng](uint8_t& b) { b = static_cast<uint8_t>(rng()); });
    return f;
}
I420Planes Planes(Frame& f) {
    const ZynNativeInputFrame r = f.record();
    return {r.plane0, int(r.stride0), r.plane1, int(r.stride1), r.plane2, int(r.stride2)};
}

// A viewport as x, y, width, height, and its depth range, which is always 0..1.
std::vector<float> Of(const Viewport& v) {
    EXPECT_EQ(0.0f, v.minDepth);
    EXPECT_EQ(1.0f, v.maxDepth);
    return {v.x, v.y, v.width, v.height};
}

constexpr uint32_t kNv12 = ZYN_FORMAT_NV12, kI420 = ZYN_FORMAT_I420;

std::string Room(const std::string& mode, const std::string& file, const std::string& fields) {
    return PresenterConfig(R"("mode": ")" + mode + R"(", "weathermanSize": "0.5", )" + fields +
                           R"("backgroundFile": ")" + file + "\"");
}

// A slide of luma `luma` with rows [top, bottom) of luma `bar` (none when 0), neutral chroma.
Frame Slide(uint32_t w, uint32_t h, uint32_t format, uint8_t luma, uint8_t bar = 0,
            uint32_t top = 0, uint32_t bottom = 0) {
    Frame slide(w, h, format);
    slide.fill(luma, 128, 128);
    std::vector<uint8_t> packed = slide.packedI420();
    std::fill(packed.begin() + top * w, packed.begin() + (bar ? bottom : top) * w, bar);
    slide.setPackedI420(packed);
    return slide;
}

// The camera frame box-scaled to the presenter's w x h, and mixed half and half with a flat luma
// `under` (neutral chroma) when `half`.
Frame PresenterPicture(uint32_t w, uint32_t h, bool half = false, int under = 0) {
    Frame out(w, h, kI420);
    const auto camera = AstronautFrame(640, 360, kI420);
    const ZynNativeInputFrame c = camera->record(), o = out.record();
    libyuv::I420Scale(c.plane0, c.stride0, c.plane1, c.stride1, c.plane2, c.stride2, 640, 360,
                      o.plane0, o.stride0, o.plane1, o.stride1, o.plane2, o.stride2, w, h,
                      libyuv::kFilterBox);
    size_t i = 0;
    out.forEachByte([&](uint8_t& b) {
        b = half ? static_cast<uint8_t>((b + (i++ < size_t{w} * h ? under : 128)) / 2) : b;
    });
    return out;
}

// Whether every luma byte outside the rectangle (x, y, w, h), widened by 2, equals the slide's.
bool SlideOutside(const Frame& out, const Frame& slide, uint32_t x, uint32_t y, uint32_t w,
                  uint32_t h) {
    return 0.0 == MeanOver(out, Box{0, 0, 1, 1}, [&](uint32_t c, uint32_t r) {
               const bool inside = c + 2 >= x && c < x + w + 2 && r + 2 >= y && r < y + h + 2;
               return !inside && out.lumaAt(c, r) != slide.lumaAt(c, r);
           });
}

// The camera's face (lower part) and the wall beside him, in the camera frame's fractions.
const Box kFace = FaceBox(640, 360), kWall = LeftWallBox(640, 360);
const Box kLowerFace{kFace.x0, 38.0 / 180, kFace.x1, kFace.y1};

}  // namespace

TEST(EngineBlend, MatchesI420BlendByteForByteAlsoInPlace) {
    std::mt19937 rng(7);
    const int sizes[][2] = {{2, 2},  {3, 3},    {16, 8},    {33, 17},   {64, 1},
                            {1, 64}, {255, 31}, {256, 144}, {641, 359}, {640, 360}};
    for (const auto& size : sizes) {
        const int w = size[0], h = size[1];
        SCOPED_TRACE(testing::Message() << w << "x" << h);
        Frame camera = Random(w, h, rng), background = Random(w, h, rng);
        Frame expected = Random(w, h, rng), actual = Random(w, h, rng);
        Frame alpha = Random(w + 5, h, rng);  // its luma plane, stride w + 8
        const ZynNativeInputFrame c = camera.record(), b = background.record(), a = alpha.record(),
                                  e = expected.record();
        ASSERT_EQ(0, libyuv::I420Blend(c.plane0, c.stride0, c.plane1, c.stride1, c.plane2,
                                       c.stride2, b.plane0, b.stride0, b.plane1, b.stride1,
                                       b.plane2, b.stride2, a.plane0, a.stride0, e.plane0,
                                       e.stride0, e.plane1, e.stride1, e.plane2, e.stride2, w, h));
        std::vector<uint8_t> chroma(static_cast<size_t>((w + 1) / 2) * ((h + 1) / 2));
        BlendI420(Planes(camera), Planes(background), a.plane0, a.stride0, Planes(actual),
                  chroma.data(), w, h);
        EXPECT_EQ(expected.packedI420(), actual.packedI420());
        // In place over the camera picture, as the engine blends after touch-up.
        BlendI420(Planes(camera), Planes(background), a.plane0, a.stride0, Planes(camera),
                  chroma.data(), w, h);
        EXPECT_EQ(expected.packedI420(), camera.packedI420());
    }
}

// The camera's reduction to the model and the mask and background enlargement against libyuv's
// box and bilinear scalers: the engine's sizes, the sizes libyuv sends elsewhere (doubling, the
// exact quarter, reductions to half or more, boxes too large, one-pixel sources) and odd strides.
TEST(EngineBlend, ScalersMatchLibyuvByteForByte) {
    std::mt19937 rng(5);
    const int sizes[][4] = {{256, 144, 1280, 720},  {128, 72, 640, 360},  {256, 144, 1920, 1080},
                            {128, 72, 161, 91},     {256, 144, 257, 145}, {5, 3, 333, 77},
                            {256, 144, 512, 288},   {256, 144, 200, 112}, {1, 9, 40, 40},
                            {1280, 720, 256, 144},  {640, 360, 256, 144}, {321, 181, 128, 72},
                            {3840, 2160, 256, 144}, {1000, 333, 77, 41},  {1024, 576, 256, 144},
                            {600, 300, 256, 144},   {4000, 20, 10, 2}};
    for (const auto& s : sizes) {
        SCOPED_TRACE(testing::Message() << s[0] << "x" << s[1] << " to " << s[2] << "x" << s[3]);
        Frame src = Random(s[0], s[1], rng);  // its luma plane, stride width + 3
        const ZynNativeInputFrame r = src.record();
        const bool reduce = s[2] < s[0];
        std::vector<uint8_t> expected(static_cast<size_t>(s[2] + 7) * s[3]), actual(expected);
        libyuv::ScalePlane(r.plane0, r.stride0, s[0], s[1], expected.data(), s[2] + 7, s[2], s[3],
                           reduce ? libyuv::kFilterBox : libyuv::kFilterBilinear);
        for (KernelLevel level : {KernelLevel::Avx2, KernelLevel::Portable}) {
            PlaneUpscaler upscaler(level);
            if (reduce) {
                PlaneReducer(level).scale(r.plane0, r.stride0, s[0], s[1], actual.data(), s[2] + 7,
                                          s[2], s[3]);
            } else {
                upscaler.scale(r.plane0, r.stride0, s[0], s[1], actual.data(), s[2] + 7, s[2],
                               s[3]);
            }
            // Whole, then again in bands of 5 rows where the vector upscaler serves the size pair.
            for (const int band : {0, 5}) {
                for (int row = 0; band != 0 && !reduce && row < s[3]; row += band) {
                    ASSERT_EQ(upscaler.ownRows(s[0], s[1], s[2], s[3]),
                              upscaler.scaleRows(r.plane0, r.stride0, s[0], s[1],
                                                 &actual[row * (s[2] + 7)], s[2] + 7, s[2], s[3],
                                                 row, std::min(band, s[3] - row)));
                }
                for (int row = 0; row < s[3]; ++row) {
                    ASSERT_EQ(0, std::memcmp(&expected[row * (s[2] + 7)], &actual[row * (s[2] + 7)],
                                             s[2]))
                        << "row " << row << ", band " << band << ", " << KernelLevelName(level);
                }
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

TEST(EnginePresenter, LayeredLayoutsDrawThePresenterAtHisViewportMixedAsConfigured) {
    // The presenter is 320 x 180 (size 0.5 of 640 x 360), centred on the 1280 x 720 slide at
    // ((1280 - 320) / 2, (720 - 180) / 2) = (480, 270); offset x 0.25 moves him 320 right. The
    // bars cover presenter rows 24-38 (his upper face, 14% to 21% down), absolute rows 294-308.
    const struct {
        std::string config;
        uint8_t slide, bar;
        bool half;
        uint32_t x;
        double tolerance;
    } cases[] = {
        {Layered("overlay", R"("weathermanAlpha": "1.0")", "0.5", "0.25"), 235, 0, false, 800, 4},
        {Layered("overlay", R"("weathermanAlpha": "0.5")"), 16, 0, true, 480, 4.0},
        // Keyed: a light slide (mean luma 131 or more) lets him through its light parts, a dark
        // one through its dark parts, content blocks; an unknown variant is keyed.
        {Layered("underlay", R"("weathermanUnderlayMode": "0")"), 240, 20, false, 480, 4.0},
        {Layered("underlay", R"("weathermanUnderlayMode": "7")"), 20, 235, false, 480, 6.0},
        // Translucent: the slide at half opacity over him.
        {Layered("underlay", R"("weathermanUnderlayMode": "1")"), 235, 0, true, 480, 4.0}};
    auto camera = AstronautFrame(640, 360, kNv12);
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        Instance instance(c.config);
        ASSERT_EQ(0u, instance.status());
        uint32_t w = 0, h = 0;
        EXPECT_FALSE(ZynNativeVideoProcessingGetOutputFrameSize(instance.handle(), &w, &h));
        // Each format pair of slide and composed frame in turn.
        Frame slide = Slide(1280, 720, n % 2 ? kNv12 : kI420, c.slide, c.bar, 294, 308);
        Frame out(1280, 720, n++ % 4 < 2 ? kNv12 : kI420);
        ASSERT_EQ(0u, instance.present(*camera, slide, out, kSettle));
        const Frame presenter = PresenterPicture(320, 180, c.half, c.slide);
        EXPECT_LT(MeanDifference(out, presenter, kLowerFace, c.x, 270), c.tolerance);
        const auto placed = [&](const Box& b) {
            return Box{(c.x + b.x0 * 320) / 1280, (270 + b.y0 * 180) / 720,
                       (c.x + b.x1 * 320) / 1280, (270 + b.y1 * 180) / 720};
        };
        const Box bar = placed(Box{kFace.x0, 24.0 / 180, kFace.x1, 38.0 / 180});
        EXPECT_TRUE(!c.bar || MeanDistanceFrom(out, Yuv{c.bar, 128, 128}, bar) < 1.0);
        // The camera's own background is cut away, and nothing changes around him.
        EXPECT_LT(MeanDifference(out, slide, placed(kWall)), 1.0);
        EXPECT_TRUE(SlideOutside(out, slide, c.x, 270, 320, 180));
        // The statistics are the presentation stream's while a presenter mode is on.
        const std::string stats = ZynNativeVideoProcessingGetFrameProcessingStats(
            instance.handle(), nullptr, nullptr, nullptr);
        const int total = static_cast<int>(instance.lastProcessingTime());
        EXPECT_NE(stats.npos, stats.find("\"fullFrameTime\":" + std::to_string(total) + "}"));
    }
}

TEST(EnginePresenter, RoomLayoutsComposeRoomPresentationAndPresenterAtThePictureSize) {
    WritePicture("newsroom.png", 1600, 900, "0x203080");
    WritePicture("conference.png", 1920, 1080, "0x806040");
    // Newsroom, size 0.5: scale 1600 * (0.1 * 0.5 + 0.3) / 640 = 0.875, presenter 560 x 314 (315
    // down to even) at the bottom, left or right; presentation 0.2 * 0.5 + 0.7 = 0.8 of the
    // picture, 1280 x 720, 10 down, 8 from the right edge (1600 - 1280 - 8 = 312) or 2 from the
    // left. Conference room: scale 1920 * (0.13 * 0.5 + 0.4) / 640 = 1.395, presenter 892 x 500 at
    // (100, 1080 - 500 - 33), drawn from the even row 546; the 4:3 presentation in 75% (1440 x
    // 810): 1080 x 810, centred, 1920 - 1440 - 8 + 180 = 652.
    const std::string side = R"("presentationSize": "0.5", "weathermanPosition": ")";
    // Output size; presentation size and format; presenter x, y, width, height; presentation x, y,
    // width; the slide's luma.
    const std::pair<std::string, std::vector<uint32_t>> cases[] = {
        {Room("newsroom", "newsroom.png", side + "0\","),
         {1600, 900, 1280, 720, kI420, 0, 586, 560, 314, 312, 10, 1280, 235}},
        {Room("newsroom", "newsroom.png", side + "1\","),
         {1600, 900, 1280, 720, kI420, 1040, 586, 560, 314, 2, 10, 1280, 235}},
        {Room("conferenceroom", "conference.png", ""),
         {1920, 1080, 1024, 768, kNv12, 100, 546, 892, 500, 652, 10, 1080, 16}}};
    auto camera = AstronautFrame(640, 360, kI420);
    for (const auto& [config, v] : cases) {
        SCOPED_TRACE(config);
        Instance instance(config);
        uint32_t ow = 0, oh = 0;
        ASSERT_TRUE(ZynNativeVideoProcessingGetOutputFrameSize(instance.handle(), &ow, &oh));
        EXPECT_EQ((std::vector<uint32_t>{v[0], v[1]}), (std::vector<uint32_t>{ow, oh}));
        const uint8_t luma = static_cast<uint8_t>(v[12]);
        Frame slide = Slide(v[2], v[3], v[4], luma), out(ow, oh, v[4] == kI420 ? kNv12 : kI420);
        ASSERT_EQ(0u, instance.present(*camera, slide, out, kSettle));
        // The presentation fills its rectangle (inset for the scaler's edges) above the
        // presenter, who stands in front of it.
        const Box inside{(v[9] + 2.0) / ow, (v[10] + 2.0) / oh, (v[9] + v[11] - 2.0) / ow,
                         (v[6] - 2.0) / oh};
        EXPECT_LT(MeanDistanceFrom(out, Yuv{luma, 128, 128}, inside), 0.5);
        EXPECT_LT(MeanDifference(out, PresenterPicture(v[7], v[8]), kFace, v[5], v[6]), 4.0);
        // The room picture in the top corner away from the presentation.
        const Box corner = v[9] < 100 ? Box{0.97, 0, 1, 0.01} : Box{0, 0, 0.03, 0.01};
        EXPECT_GT(MeanDistanceFrom(out, Yuv{luma, 128, 128}, corner), 40.0);
    }
}

TEST(EnginePresenter, APresenterFarLargerThanTheOutputIsMadeOnlyWhereItShows) {
    // Size 16: a presenter of 10240 x 5760 centred on a 320 x 180 slide, which shows the middle
    // 20 x 11 pixels of the camera frame, enlarged.
    Instance instance(Layered("overlay", R"("weathermanAlpha": "1.0")", "16"));
    auto camera = AstronautFrame(640, 360, kI420);
    Frame slide = Slide(320, 180, kI420, 235), out(320, 180, kI420);
    const auto residentKiB = [] {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line) && line.rfind("VmRSS:", 0) != 0) {
        }
        return line.empty() ? 0L : std::stol(line.substr(6));
    };
    const long before = residentKiB();
    ASSERT_EQ(0u, instance.present(*camera, slide, out, 2));
    EXPECT_LT(residentKiB() - before, 32 * 1024);  // full-size buffers would take some 200 MiB
    const Box middle{0.25, 0.25, 0.75, 0.75};
    const auto [u, v] = MeanChroma(out, middle);
    const auto [cu, cv] = MeanChroma(*camera, Box{310.0 / 640, 175.0 / 360, 330.0 / 640, 0.5139});
    EXPECT_LT(std::abs(u - cu), 6.0);
    EXPECT_LT(std::abs(v - cv), 6.0);
    EXPECT_GT(MeanDistanceFrom(out, Yuv{235, 128, 128}, middle), 100.0) << "the slide shows";
}

TEST(EnginePresenter, OutputOfAnotherSizeAnUnsetModeOrAMissingRoomPictureFailsTheFrame) {
    auto camera = AstronautFrame(640, 360, kNv12);
    Frame slide = Slide(1280, 720, kI420, 235), out(1280, 720, kI420), small(640, 360, kI420);
    LogCapture log;
    EXPECT_EQ(
        2u,
        Instance(Layered("overlay", R"("weathermanAlpha": "1")")).present(*camera, slide, small));
    EXPECT_TRUE(log.contains("Output frame 640x360 does not match the presentation frame 1280x720"))
        << log.dump();
    EXPECT_EQ(2u, Instance(BlurConfig()).present(*camera, slide, out));
    EXPECT_TRUE(log.contains("No presenter layout for mode -1"));
    // An instance made for a presenter layout alone has no camera effect to run.
    Frame camOut(640, 360, kNv12);
    EXPECT_EQ(2u,
              Instance(Layered("overlay", R"("weathermanAlpha": "1")")).process(*camera, camOut));
    EXPECT_TRUE(log.contains("Internal processVideoFrame failed: Invalid config"));
    log.clear();
    // A room layout whose picture cannot be read: one record, no output size, frames fail.
    Instance room(Room("conferenceroom", "missing.png", ""));
    uint32_t ow = 0, oh = 0;
    EXPECT_FALSE(ZynNativeVideoProcessingGetOutputFrameSize(room.handle(), &ow, &oh));
    size_t loadFailures = 0;
    for (const auto& r : log.records()) {
        loadFailures += r.level == spdlog::level::err &&
                        r.function == "VBG::VirtualBackgroundImpl::resetWeatherman" &&
                        r.message.rfind("Bitmap load failed with error: ", 0) == 0;
    }
    EXPECT_EQ(1u, loadFailures) << log.dump();
    Frame roomOut(1920, 1080, kI420);
    EXPECT_EQ(2u, room.present(*camera, slide, roomOut));
    EXPECT_TRUE(log.contains("Bitmap object is not present"));
}
