// Presenter ("weatherman") layouts of the CPU engine through the exported functions, with the
// real model: the composed frame's size, the presenter where the layout puts him, the presentation
// and the room picture around him, and each layout's way of mixing them.
#include <gtest/gtest.h>

#include <fstream>

#include "engine_test_support.h"
#include "support/log_capture.h"

using namespace engine_test;
using zyn_test::LogCapture;

namespace {

constexpr uint32_t kNv12 = ZYN_FORMAT_NV12, kI420 = ZYN_FORMAT_I420;

std::string Layered(const std::string& mode, const std::string& fields,
                    const std::string& size = "0.5", const std::string& offsetX = "0") {
    return PresenterConfig(R"("mode": ")" + mode + R"(", "weathermanSize": ")" + size +
                           R"(", "weathermanOffsetX": ")" + offsetX +
                           R"(", "weathermanOffsetY": "0", )" + fields);
}
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
Frame Presenter(Frame& camera, uint32_t w, uint32_t h, bool half = false, int under = 0) {
    const std::vector<uint8_t> src = camera.packedI420();
    const uint32_t sw = camera.width(), sh = camera.height(), scw = (sw + 1) / 2;
    const uint32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
    std::vector<uint8_t> dst(static_cast<size_t>(w) * h + 2 * cw * ch);
    const uint8_t* su = src.data() + static_cast<size_t>(sw) * sh;
    uint8_t* u = dst.data() + static_cast<size_t>(w) * h;
    libyuv::I420Scale(src.data(), sw, su, scw, su + scw * ((sh + 1) / 2), scw, sw, sh, dst.data(),
                      w, u, cw, u + cw * ch, cw, w, h, libyuv::kFilterBox);
    for (size_t i = 0; half && i < dst.size(); ++i) {
        dst[i] =
            static_cast<uint8_t>((dst[i] + (i < static_cast<size_t>(w) * h ? under : 128)) / 2);
    }
    Frame out(w, h, kI420);
    out.setPackedI420(dst);
    return out;
}

// Mean absolute difference of the composed frame from the presenter inside a box of the
// presenter (in his fractions), placed at (x, y).
double FromPresenter(const Frame& out, const Frame& presenter, const Box& box, uint32_t x,
                     uint32_t y) {
    return MeanOver(presenter, box, [&](uint32_t px, uint32_t py) {
        return std::abs(out.lumaAt(x + px, y + py) - presenter.lumaAt(px, py)) +
               std::abs(out.uAt(x + px, y + py) - presenter.uAt(px, py)) +
               std::abs(out.vAt(x + px, y + py) - presenter.vAt(px, py));
    });
}

// Whether every luma byte outside the rectangle (x, y, w, h), widened by 2, equals the slide's.
bool SlideOutside(const Frame& out, const Frame& slide, uint32_t x, uint32_t y, uint32_t w,
                  uint32_t h) {
    for (uint32_t r = 0; r < out.height(); ++r) {
        for (uint32_t c = 0; c < out.width(); ++c) {
            const bool inside = c + 2 >= x && c < x + w + 2 && r + 2 >= y && r < y + h + 2;
            if (!inside && out.lumaAt(c, r) != slide.lumaAt(c, r)) {
                return false;
            }
        }
    }
    return true;
}

// The camera's face (lower part) and the wall beside him, in the camera frame's fractions.
const Box kFace = FaceBox(640, 360), kWall = LeftWallBox(640, 360);
const Box kLowerFace{kFace.x0, 38.0 / 180, kFace.x1, kFace.y1};

}  // namespace

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
        const Frame presenter = Presenter(*camera, 320, 180, c.half, c.slide);
        EXPECT_LT(FromPresenter(out, presenter, kLowerFace, c.x, 270), c.tolerance);
        const auto placed = [&](const Box& b) {
            return Box{(c.x + b.x0 * 320) / 1280, (270 + b.y0 * 180) / 720,
                       (c.x + b.x1 * 320) / 1280, (270 + b.y1 * 180) / 720};
        };
        const Box bar = placed(Box{kFace.x0, 24.0 / 180, kFace.x1, 38.0 / 180});
        EXPECT_TRUE(!c.bar || MeanDistanceFrom(out, c.bar, 128, 128, bar) < 1.0);
        // The camera's own background is cut away, and nothing changes around him.
        EXPECT_LT(MeanDifference(out, slide, placed(kWall)), 1.0);
        EXPECT_TRUE(SlideOutside(out, slide, c.x, 270, 320, 180));
        // The statistics are the presentation stream's while a presenter mode is on.
        EXPECT_NE(std::string::npos,
                  std::string(ZynNativeVideoProcessingGetFrameProcessingStats(
                                  instance.handle(), nullptr, nullptr, nullptr))
                      .find("\"fullFrameTime\":" +
                            std::to_string(static_cast<int>(instance.lastProcessingTime())) + "}"));
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
        EXPECT_LT(MeanDistanceFrom(out, luma, 128, 128, inside), 0.5);
        EXPECT_LT(FromPresenter(out, Presenter(*camera, v[7], v[8]), kFace, v[5], v[6]), 4.0);
        // The room picture in the top corner away from the presentation.
        const Box corner = v[9] < 100 ? Box{0.97, 0, 1, 0.01} : Box{0, 0, 0.03, 0.01};
        EXPECT_GT(MeanDistanceFrom(out, luma, 128, 128, corner), 40.0);
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
    EXPECT_GT(MeanDistanceFrom(out, 235, 128, 128, middle), 100.0) << "the slide shows";
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
