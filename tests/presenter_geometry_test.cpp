// Presenter layouts: the presenter's scale and size, the camera viewport of the layered modes, the
// camera and presentation viewports of the room modes (with their deliberate quirks) and the
// presenter's placement in the composed frame.
#include <gtest/gtest.h>

#include "config/config_parser.h"
#include "engine/presenter_compositing.h"
#include "engine/presenter_geometry.h"

using namespace VBG;

namespace {

ZynNativeWeathermanSettings presenter(int32_t mode) {
    ZynNativeWeathermanSettings s = DefaultWeathermanSettings();
    s.mode = mode;
    return s;
}

void expectViewport(const Viewport& v, float x, float y, float w, float h) {
    EXPECT_FLOAT_EQ(x, v.x);
    EXPECT_FLOAT_EQ(y, v.y);
    EXPECT_FLOAT_EQ(w, v.width);
    EXPECT_FLOAT_EQ(h, v.height);
    EXPECT_FLOAT_EQ(0.0f, v.minDepth);
    EXPECT_FLOAT_EQ(1.0f, v.maxDepth);
}

}  // namespace

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
    ZynNativeWeathermanSettings s = presenter(PresenterOverlay);
    s.overlaySize = 0.4f;
    s.underlaySize = 0.7f;
    EXPECT_FLOAT_EQ(0.4f, PresenterScale(s, 1920, 640));
    s.mode = PresenterUnderlay;
    EXPECT_FLOAT_EQ(0.7f, PresenterScale(s, 1920, 640));
    s.mode = PresenterNewsroom;
    s.newsroomSize = 1.0f;
    EXPECT_FLOAT_EQ(1920.0f * 0.4f / 640.0f, PresenterScale(s, 1920, 640));
    s.mode = PresenterConferenceroom;
    s.conferenceroomSize = 0.5f;
    EXPECT_FLOAT_EQ(1920.0f * (0.13f * 0.5f + 0.4f) / 640.0f, PresenterScale(s, 1920, 640));
    s.mode = PresenterNone;
    EXPECT_FLOAT_EQ(0.0f, PresenterScale(s, 1920, 640));
}

TEST(PresenterGeometry, LayeredModesCentreThePresenterAndShiftItByTheOffsets) {
    ZynNativeWeathermanSettings s = presenter(PresenterOverlay);
    s.overlaySize = 0.5f;
    s.overlayOffsetX = 0.25f;
    s.overlayOffsetY = -0.25f;
    Viewport camera;
    ASSERT_TRUE(LayeredCameraViewport(s, 640, 360, 1280, 720, camera));
    // w 320, h 180; x = (1280 - 320) / 2 + 320 = 800; y = (720 - 180) / 2 - 180 = 90.
    expectViewport(camera, 800.0f, 90.0f, 320.0f, 180.0f);

    s.mode = PresenterUnderlay;
    s.underlaySize = 1.0f;
    s.underlayOffsetX = 0.0f;
    s.underlayOffsetY = 0.0f;
    ASSERT_TRUE(LayeredCameraViewport(s, 640, 360, 1280, 720, camera));
    expectViewport(camera, 320.0f, 180.0f, 640.0f, 360.0f);

    s.mode = PresenterNewsroom;
    EXPECT_FALSE(LayeredCameraViewport(s, 640, 360, 1280, 720, camera));
    s.mode = PresenterOverlay;
    EXPECT_FALSE(LayeredCameraViewport(s, 0, 360, 1280, 720, camera));
}

TEST(PresenterGeometry, ConferenceroomPutsThePresenterAt100AndFitsThePresentationIn75Percent) {
    ZynNativeWeathermanSettings s = presenter(PresenterConferenceroom);
    s.conferenceroomSize = 0.0f;  // scale = 1920 * 0.4 / 640 = 1.2
    Viewport camera, slides;
    // A presentation narrower than the 1440 x 810 rectangle: narrowed and centred horizontally.
    ASSERT_TRUE(RoomViewports(s, 1920, 640, 360, 1280, 1024, 1920, 1080, camera, slides));
    // w = 768, h = 432; y = 1080 - 432 - 33.
    expectViewport(camera, 100.0f, 615.0f, 768.0f, 432.0f);
    // rw' = 1280 * 810 / 1024 = 1012; x = 1920 - 1440 - 8 + (1440 - 1012) / 2.
    expectViewport(slides, 686.0f, 10.0f, 1012.0f, 810.0f);

    // A wider presentation: lowered and centred vertically in the rectangle.
    ASSERT_TRUE(RoomViewports(s, 1920, 640, 360, 1920, 600, 1920, 1080, camera, slides));
    // rh' = 1440 * 600 / 1920 = 450; y = (810 - 450) / 2 + 10.
    expectViewport(slides, 472.0f, 190.0f, 1440.0f, 450.0f);
}

TEST(PresenterGeometry, NewsroomSideDecidesPresenterEdgeAndThePresentationMargin) {
    ZynNativeWeathermanSettings s = presenter(PresenterNewsroom);
    s.newsroomSize = 0.0f;              // scale = 1920 * 0.3 / 640 = 0.9
    s.newsroomPresentationSize = 1.0f;  // f = min(0.9, 0.9)
    s.newsroomPosition = 1;             // presenter on the right
    Viewport camera, slides;
    ASSERT_TRUE(RoomViewports(s, 1920, 640, 360, 1600, 900, 1920, 1080, camera, slides));
    // w = 576, h = 324: right edge, bottom edge.
    expectViewport(camera, 1920.0f - 576.0f, 1080.0f - 324.0f, 576.0f, 324.0f);
    // rw 1728, rh 972 (16:9 exactly): presentation against the left edge at x = 2.
    expectViewport(slides, 2.0f, 10.0f, 1728.0f, 972.0f);

    s.newsroomPosition = 0;
    s.newsroomPresentationSize = 0.0f;  // f = 0.7: 1344 x 756
    ASSERT_TRUE(RoomViewports(s, 1920, 640, 360, 800, 900, 1920, 1080, camera, slides));
    expectViewport(camera, 0.0f, 1080.0f - 324.0f, 576.0f, 324.0f);
    // Too wide for 800 x 900: rw' = 800 * 756 / 900 = 672, moved to x = 1920 - 672 - 2.
    expectViewport(slides, 1246.0f, 10.0f, 672.0f, 756.0f);
    // Not narrowed: the presentation keeps the 8-pixel margin.
    ASSERT_TRUE(RoomViewports(s, 1920, 640, 360, 1920, 900, 1920, 1080, camera, slides));
    expectViewport(slides, 1920.0f - 1344.0f - 8.0f, 10.0f, 1344.0f, 630.0f);
}

TEST(PresenterGeometry, OtherModesYieldAnEmptyPresentationRectangle) {
    ZynNativeWeathermanSettings s = presenter(PresenterOverlay);
    Viewport camera, slides{1, 2, 3, 4, 5, 6};
    EXPECT_FALSE(RoomViewports(s, 1920, 640, 360, 1280, 720, 1920, 1080, camera, slides));
    EXPECT_FLOAT_EQ(0.0f, slides.x);
    EXPECT_FLOAT_EQ(0.0f, slides.width);
    EXPECT_FLOAT_EQ(0.0f, slides.height);
    EXPECT_FLOAT_EQ(0.0f, slides.maxDepth);
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
        EXPECT_EQ(expected, visible ? got : std::vector<int>{})
            << at[0] << ", " << at[1];
    }
}
