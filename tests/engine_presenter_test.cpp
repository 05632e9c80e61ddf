// Presenter ("weatherman") layouts of the CPU engine through the exported functions, with the
// real model: the composed frame's size, the presenter where the layout geometry puts him, the
// presentation and the room picture around him, and each layout's way of mixing them.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <fstream>
#include <string>

#include "config/config_parser.h"
#include "engine/presenter_geometry.h"
#include "engine_test_support.h"
#include "support/log_capture.h"

using namespace engine_test;
using zyn_test::LogCapture;

namespace {

constexpr int kSettle = 6;
constexpr uint32_t kCamW = 640, kCamH = 360;

std::string OverlayConfig(const std::string& alpha, const std::string& size,
                          const std::string& offsetX) {
    return R"({"processingMode": 2, "effects": [{"name": "weatherman", "mode": "overlay", )"
           R"("weathermanAlpha": ")" +
           alpha + R"(", "weathermanSize": ")" + size + R"(", "weathermanOffsetX": ")" + offsetX +
           R"(", "weathermanOffsetY": "0"}]})";
}
std::string UnderlayConfig(int variant) {
    return R"({"processingMode": 2, "effects": [{"name": "weatherman", "mode": "underlay", )"
           R"("weathermanSize": "0.5", "weathermanOffsetX": "0", "weathermanOffsetY": "0", )"
           R"("weathermanUnderlayMode": ")" +
           std::to_string(variant) + R"("}]})";
}
std::string NewsroomConfig(const std::string& file, int position) {
    return R"({"processingMode": 2, "effects": [{"name": "weatherman", "mode": "newsroom", )"
           R"("weathermanSize": "0.5", "weathermanPosition": ")" +
           std::to_string(position) + R"(", "presentationSize": "0.5", "backgroundFile": ")" +
           file + R"("}]})";
}
std::string ConferenceroomConfig(const std::string& file) {
    return R"({"processingMode": 2, "effects": [{"name": "weatherman", "mode": )"
           R"("conferenceroom", "weathermanSize": "0.5", "backgroundFile": ")" +
           file + R"("}]})";
}

// A flat slide of luma `background` with a horizontal bar of luma `bar` across rows
// [barTop, barBottom), neutral chroma.
std::unique_ptr<Frame> Slide(uint32_t w, uint32_t h, uint32_t format, uint8_t background,
                             uint8_t bar, uint32_t barTop, uint32_t barBottom) {
    auto frame = std::make_unique<Frame>(w, h, format);
    frame->fill(background, 128, 128);
    std::vector<uint8_t> packed = frame->packedI420();
    for (uint32_t y = barTop; y < barBottom && y < h; ++y) {
        std::fill(packed.begin() + y * w, packed.begin() + (y + 1) * w, bar);
    }
    frame->setPackedI420(packed);
    return frame;
}

// The camera frame scaled to the presenter's size the way the engine scales it.
std::unique_ptr<Frame> ScaledCamera(const Frame& camera, uint32_t w, uint32_t h) {
    const std::vector<uint8_t> src = camera.packedI420();
    const uint32_t cw = (camera.width() + 1) / 2, ch = (camera.height() + 1) / 2;
    const uint32_t dw = (w + 1) / 2, dh = (h + 1) / 2;
    std::vector<uint8_t> dst(static_cast<size_t>(w) * h + 2 * dw * dh);
    const uint8_t* sy = src.data();
    const uint8_t* su = sy + static_cast<size_t>(camera.width()) * camera.height();
    const uint8_t* sv = su + static_cast<size_t>(cw) * ch;
    uint8_t* y = dst.data();
    uint8_t* u = y + static_cast<size_t>(w) * h;
    uint8_t* v = u + static_cast<size_t>(dw) * dh;
    libyuv::I420Scale(sy, camera.width(), su, cw, sv, cw, camera.width(), camera.height(), y, w, u,
                      dw, v, dw, w, h, libyuv::kFilterBox);
    auto out = std::make_unique<Frame>(w, h, ZYN_FORMAT_I420);
    out->setPackedI420(dst);
    return out;
}

// A box given in the presenter's own fractions, moved into the composed frame.
Box InViewport(const Box& b, const VBG::Viewport& vp, uint32_t ow, uint32_t oh) {
    return Box{(vp.x + b.x0 * vp.width) / ow, (vp.y + b.y0 * vp.height) / oh,
               (vp.x + b.x1 * vp.width) / ow, (vp.y + b.y1 * vp.height) / oh};
}

// Mean absolute difference between a box of `out` and the same-sized box of `ref` at the
// presenter's origin.
double DifferenceToPresenter(const Frame& out, const Frame& presenter, const Box& inPresenter,
                             const VBG::Viewport& vp) {
    const uint32_t x0 = static_cast<uint32_t>(inPresenter.x0 * presenter.width());
    const uint32_t x1 = static_cast<uint32_t>(inPresenter.x1 * presenter.width());
    const uint32_t y0 = static_cast<uint32_t>(inPresenter.y0 * presenter.height());
    const uint32_t y1 = static_cast<uint32_t>(inPresenter.y1 * presenter.height());
    const uint32_t ox = static_cast<uint32_t>(vp.x) & ~1u;
    const uint32_t oy = static_cast<uint32_t>(vp.y) & ~1u;
    double sum = 0;
    size_t n = 0;
    for (uint32_t y = y0; y < y1; ++y) {
        for (uint32_t x = x0; x < x1; ++x) {
            sum += std::abs(out.lumaAt(ox + x, oy + y) - presenter.lumaAt(x, y)) +
                   std::abs(out.uAt(ox + x, oy + y) - presenter.uAt(x, y)) +
                   std::abs(out.vAt(ox + x, oy + y) - presenter.vAt(x, y));
            ++n;
        }
    }
    return sum / n;
}

// Whether every pixel outside `vp` equals `ref` (luma).
bool LumaEqualOutside(const Frame& out, const Frame& ref, const VBG::Viewport& vp) {
    for (uint32_t y = 0; y < out.height(); ++y) {
        for (uint32_t x = 0; x < out.width(); ++x) {
            const bool inside = x + 2 >= vp.x && x < vp.x + vp.width + 2 && y + 2 >= vp.y &&
                                y < vp.y + vp.height + 2;
            if (!inside && out.lumaAt(x, y) != ref.lumaAt(x, y)) {
                return false;
            }
        }
    }
    return true;
}

// The astronaut's face and the wall beside him, in the camera frame's fractions.
Box CameraFace() {
    return FaceBox(kCamW, kCamH);
}
Box CameraWall() {
    return LeftWallBox(kCamW, kCamH);
}

class PresenterInstance : public Instance {
  public:
    using Instance::Instance;
    uint32_t present(Frame& camera, Frame& presentation, Frame& out) {
        ZynNativeInputFrame frames[2] = {camera.record(), presentation.record()};
        ZynNativeInputFrame o = out.record();
        const uint32_t status =
            ZynNativeVideoProcessingProcessPresentationFrame(handle(), frames, &o);
        lastTime = o.processingTime;
        return status;
    }
    float lastTime = -1.0f;
};

void Present(PresenterInstance& instance, Frame& camera, Frame& presentation, Frame& out,
             int count) {
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(0u, instance.present(camera, presentation, out)) << "frame " << i;
    }
}

ZynNativeWeathermanSettings Settings(int32_t mode) {
    ZynNativeWeathermanSettings s = VBG::DefaultWeathermanSettings();
    s.mode = mode;
    return s;
}

}  // namespace

TEST(EnginePresenter, OverlayDrawsTheSegmentedPresenterAtHisViewport) {
    PresenterInstance instance(OverlayConfig("1.0", "0.5", "0.25"));
    ASSERT_EQ(0u, instance.status());
    uint32_t w = 0, h = 0;
    EXPECT_FALSE(ZynNativeVideoProcessingGetOutputFrameSize(instance.handle(), &w, &h));

    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_NV12);
    auto slide = Slide(1280, 720, ZYN_FORMAT_I420, 235, 235, 0, 0);
    Frame out(1280, 720, ZYN_FORMAT_NV12);
    Present(instance, *camera, *slide, out, kSettle);

    ZynNativeWeathermanSettings s = Settings(VBG::PresenterOverlay);
    s.overlaySize = 0.5f;
    s.overlayOffsetX = 0.25f;
    s.overlayOffsetY = 0.0f;
    VBG::Viewport vp;
    ASSERT_TRUE(VBG::LayeredCameraViewport(s, kCamW, kCamH, 1280, 720, vp));
    ASSERT_FLOAT_EQ(800.0f, vp.x);  // (1280 - 320) / 2 + 320
    ASSERT_FLOAT_EQ(270.0f, vp.y);
    auto presenter = ScaledCamera(*camera, 320, 180);
    EXPECT_LT(DifferenceToPresenter(out, *presenter, CameraFace(), vp), 4.0);
    // The camera's own background is cut away: the slide shows there.
    EXPECT_LT(MeanDistanceFrom(out, 235, 128, 128, InViewport(CameraWall(), vp, 1280, 720)), 1.0);
    EXPECT_TRUE(LumaEqualOutside(out, *slide, vp));

    // The statistics are the presentation stream's while a presenter mode is on.
    const char* stats = ZynNativeVideoProcessingGetFrameProcessingStats(instance.handle(), nullptr,
                                                                        nullptr, nullptr);
    EXPECT_NE(std::string::npos,
              std::string(stats).find(
                  "\"fullFrameTime\":" + std::to_string(static_cast<int>(instance.lastTime)) + "}"))
        << stats;
}

TEST(EnginePresenter, OverlayOpacityMixesPresenterAndPresentation) {
    PresenterInstance instance(OverlayConfig("0.5", "0.5", "0"));
    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_I420);
    auto slide = Slide(1280, 720, ZYN_FORMAT_I420, 16, 16, 0, 0);
    Frame out(1280, 720, ZYN_FORMAT_I420);
    Present(instance, *camera, *slide, out, kSettle);
    ZynNativeWeathermanSettings s = Settings(VBG::PresenterOverlay);
    s.overlaySize = 0.5f;
    s.overlayOffsetX = s.overlayOffsetY = 0.0f;
    VBG::Viewport vp;
    ASSERT_TRUE(VBG::LayeredCameraViewport(s, kCamW, kCamH, 1280, 720, vp));
    // Half of the face over a black slide: half the face's luma above black.
    auto presenter = ScaledCamera(*camera, 320, 180);
    Frame half(320, 180, ZYN_FORMAT_I420);
    std::vector<uint8_t> p = presenter->packedI420();
    for (size_t i = 0; i < 320u * 180u; ++i) {
        p[i] = static_cast<uint8_t>((p[i] + 16) / 2);
    }
    for (size_t i = 320u * 180u; i < p.size(); ++i) {
        p[i] = static_cast<uint8_t>((p[i] + 128) / 2);
    }
    half.setPackedI420(p);
    EXPECT_LT(DifferenceToPresenter(out, half, CameraFace(), vp), 4.0);
    EXPECT_GT(DifferenceToPresenter(out, *presenter, CameraFace(), vp), 20.0);
}

TEST(EnginePresenter, KeyedUnderlayHidesThePresenterBehindTheSlideContent) {
    // A light slide with a black bar across the presenter's face rows.
    PresenterInstance instance(UnderlayConfig(0));
    ASSERT_EQ(0u, instance.status());
    ZynNativeWeathermanSettings s = Settings(VBG::PresenterUnderlay);
    s.underlaySize = 0.5f;
    VBG::Viewport vp;
    ASSERT_TRUE(VBG::LayeredCameraViewport(s, kCamW, kCamH, 1280, 720, vp));
    const Box face = InViewport(CameraFace(), vp, 1280, 720);
    // Even rows, so that no chroma row is shared between bar and slide.
    const uint32_t barTop = static_cast<uint32_t>(face.y0 * 720) & ~1u;
    const uint32_t barBottom = static_cast<uint32_t>((face.y0 + face.y1) / 2 * 720) & ~1u;
    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_NV12);
    auto slide = Slide(1280, 720, ZYN_FORMAT_NV12, 240, 20, barTop, barBottom);
    Frame out(1280, 720, ZYN_FORMAT_I420);
    Present(instance, *camera, *slide, out, kSettle);

    const Box upperFace{face.x0, barTop / 720.0, face.x1, barBottom / 720.0};
    const Box lowerFace{face.x0, static_cast<double>(barBottom) / 720, face.x1, face.y1};
    // The bar stays in front of the face; the face shows through the white.
    EXPECT_LT(MeanDistanceFrom(out, 20, 128, 128, upperFace), 1.0);
    auto presenter = ScaledCamera(*camera, 320, 180);
    const Box lowerInPresenter{CameraFace().x0, (lowerFace.y0 * 720 - vp.y) / vp.height,
                               CameraFace().x1, CameraFace().y1};
    EXPECT_LT(DifferenceToPresenter(out, *presenter, lowerInPresenter, vp), 4.0);
    EXPECT_TRUE(LumaEqualOutside(out, *slide, vp));
}

TEST(EnginePresenter, KeyedUnderlayOnADarkSlideLetsThePresenterThroughTheDarkParts) {
    // Mean luma below 131: a dark slide, whose dark background passes and light content blocks.
    PresenterInstance instance(UnderlayConfig(7));  // unknown variants are keyed
    ZynNativeWeathermanSettings s = Settings(VBG::PresenterUnderlay);
    s.underlaySize = 0.5f;
    VBG::Viewport vp;
    ASSERT_TRUE(VBG::LayeredCameraViewport(s, kCamW, kCamH, 1280, 720, vp));
    const Box face = InViewport(CameraFace(), vp, 1280, 720);
    // Even rows, so that no chroma row is shared between bar and slide.
    const uint32_t barTop = static_cast<uint32_t>(face.y0 * 720) & ~1u;
    const uint32_t barBottom = static_cast<uint32_t>((face.y0 + face.y1) / 2 * 720) & ~1u;
    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_NV12);
    auto slide = Slide(1280, 720, ZYN_FORMAT_I420, 20, 235, barTop, barBottom);
    Frame out(1280, 720, ZYN_FORMAT_NV12);
    Present(instance, *camera, *slide, out, kSettle);
    const Box upperFace{face.x0, barTop / 720.0, face.x1, barBottom / 720.0};
    EXPECT_LT(MeanDistanceFrom(out, 235, 128, 128, upperFace), 1.0);
    auto presenter = ScaledCamera(*camera, 320, 180);
    const Box lowerInPresenter{CameraFace().x0, (barBottom - vp.y) / vp.height, CameraFace().x1,
                               CameraFace().y1};
    // Against the dark slide the mask's soft spots show more than against a light one.
    EXPECT_LT(DifferenceToPresenter(out, *presenter, lowerInPresenter, vp), 6.0);
}

TEST(EnginePresenter, TranslucentUnderlayShowsThePresenterAtHalfStrength) {
    PresenterInstance instance(UnderlayConfig(1));
    ZynNativeWeathermanSettings s = Settings(VBG::PresenterUnderlay);
    s.underlaySize = 0.5f;
    VBG::Viewport vp;
    ASSERT_TRUE(VBG::LayeredCameraViewport(s, kCamW, kCamH, 1280, 720, vp));
    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_I420);
    auto slide = Slide(1280, 720, ZYN_FORMAT_I420, 235, 235, 0, 0);
    Frame out(1280, 720, ZYN_FORMAT_I420);
    Present(instance, *camera, *slide, out, kSettle);
    auto presenter = ScaledCamera(*camera, 320, 180);
    std::vector<uint8_t> p = presenter->packedI420();
    for (size_t i = 0; i < 320u * 180u; ++i) {
        p[i] = static_cast<uint8_t>((p[i] + 235) / 2);
    }
    for (size_t i = 320u * 180u; i < p.size(); ++i) {
        p[i] = static_cast<uint8_t>((p[i] + 128) / 2);
    }
    Frame half(320, 180, ZYN_FORMAT_I420);
    half.setPackedI420(p);
    EXPECT_LT(DifferenceToPresenter(out, half, CameraFace(), vp), 4.0);
}

TEST(EnginePresenter, NewsroomComposesRoomPresentationAndPresenterAtThePictureSize) {
    WritePicture("newsroom.png", 1600, 900, "0x203080");
    for (const int position : {0, 1}) {
        SCOPED_TRACE(position);
        PresenterInstance instance(NewsroomConfig("newsroom.png", position));
        ASSERT_EQ(0u, instance.status());
        uint32_t ow = 0, oh = 0;
        ASSERT_TRUE(ZynNativeVideoProcessingGetOutputFrameSize(instance.handle(), &ow, &oh));
        EXPECT_EQ(1600u, ow);
        EXPECT_EQ(900u, oh);

        auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_NV12);
        auto slide = Slide(1280, 720, ZYN_FORMAT_I420, 235, 235, 0, 0);
        Frame out(ow, oh, ZYN_FORMAT_I420);
        Present(instance, *camera, *slide, out, kSettle);

        ZynNativeWeathermanSettings s = Settings(VBG::PresenterNewsroom);
        s.newsroomSize = 0.5f;
        s.newsroomPresentationSize = 0.5f;
        s.newsroomPosition = position;
        VBG::Viewport cam, rect;
        ASSERT_TRUE(VBG::RoomViewports(s, ow, kCamW, kCamH, 1280, 720, ow, oh, cam, rect));
        // The presentation fills its rectangle (inset for the scaler's edges) above the
        // presenter, who stands in front of it.
        ASSERT_LT(rect.y + 4, cam.y);
        const Box inside{(rect.x + 2) / ow, (rect.y + 2) / oh, (rect.x + rect.width - 2) / ow,
                         (cam.y - 2) / oh};
        EXPECT_LT(MeanDistanceFrom(out, 235, 128, 128, inside), 0.5);
        // The presenter stands at the bottom, on the side the position asks for.
        EXPECT_FLOAT_EQ(static_cast<float>(oh), cam.y + cam.height);
        EXPECT_FLOAT_EQ(position == 1 ? static_cast<float>(ow) - cam.width : 0.0f, cam.x);
        auto presenter = ScaledCamera(*camera, static_cast<uint32_t>(cam.width),
                                      static_cast<uint32_t>(cam.height));
        EXPECT_LT(DifferenceToPresenter(out, *presenter, CameraFace(), cam), 4.0);
        // The room picture everywhere else, e.g. the top corner away from the presentation.
        const Box corner = position == 1 ? Box{0.97, 0.0, 1.0, 0.01} : Box{0.0, 0.0, 0.03, 0.01};
        EXPECT_GT(MeanDistanceFrom(out, 235, 128, 128, corner), 100.0);
    }
}

TEST(EnginePresenter, ConferenceroomPutsThePresenterAt100And33AboveTheBottom) {
    WritePicture("conference.png", 1920, 1080, "0x806040");
    PresenterInstance instance(ConferenceroomConfig("conference.png"));
    uint32_t ow = 0, oh = 0;
    ASSERT_TRUE(ZynNativeVideoProcessingGetOutputFrameSize(instance.handle(), &ow, &oh));
    ASSERT_EQ(1920u, ow);
    ASSERT_EQ(1080u, oh);
    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_I420);
    auto slide = Slide(1024, 768, ZYN_FORMAT_NV12, 16, 16, 0, 0);  // 4:3, narrower than 16:9
    Frame out(ow, oh, ZYN_FORMAT_NV12);
    Present(instance, *camera, *slide, out, kSettle);

    ZynNativeWeathermanSettings s = Settings(VBG::PresenterConferenceroom);
    s.conferenceroomSize = 0.5f;
    VBG::Viewport cam, rect;
    ASSERT_TRUE(VBG::RoomViewports(s, ow, kCamW, kCamH, 1024, 768, ow, oh, cam, rect));
    EXPECT_FLOAT_EQ(100.0f, cam.x);
    EXPECT_FLOAT_EQ(1080.0f - cam.height - 33.0f, cam.y);
    // 75% of the picture's height, narrowed to 4:3 and centred in the 75% rectangle.
    EXPECT_FLOAT_EQ(810.0f, rect.height);
    EXPECT_FLOAT_EQ(1080.0f, rect.width);
    EXPECT_FLOAT_EQ(1920.0f - 1440.0f - 8.0f + 180.0f, rect.x);
    ASSERT_LT(rect.y + 4, cam.y);
    const Box inside{(rect.x + 2) / ow, (rect.y + 2) / oh, (rect.x + rect.width - 2) / ow,
                     (cam.y - 2) / oh};
    EXPECT_LT(MeanDistanceFrom(out, 16, 128, 128, inside), 0.5);
    auto presenter =
        ScaledCamera(*camera, static_cast<uint32_t>(cam.width), static_cast<uint32_t>(cam.height));
    EXPECT_LT(DifferenceToPresenter(out, *presenter, CameraFace(), cam), 4.0);
    // Left of the presenter: the room, not the presentation.
    EXPECT_GT(MeanDistanceFrom(out, 16, 128, 128, Box{0.0, 0.9, 0.04, 1.0}), 40.0);
}

TEST(EnginePresenter, APresenterFarLargerThanTheOutputIsMadeOnlyWhereItShows) {
    // Size 16: a presenter of 10240 x 5760 centred on a 320 x 180 slide, which shows the middle
    // 20 x 11 pixels of the camera frame, enlarged.
    PresenterInstance instance(OverlayConfig("1.0", "16", "0"));
    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_I420);
    auto slide = Slide(320, 180, ZYN_FORMAT_I420, 235, 235, 0, 0);
    Frame out(320, 180, ZYN_FORMAT_I420);
    const auto residentKiB = [] {
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("VmRSS:", 0) == 0) {
                return std::stol(line.substr(6));
            }
        }
        return 0L;
    };
    const long before = residentKiB();
    Present(instance, *camera, *slide, out, 2);
    // Full-size work buffers of such a presenter would take some 200 MiB.
    EXPECT_LT(residentKiB() - before, 32 * 1024);
    const Box middle{0.25, 0.25, 0.75, 0.75};
    const Box cameraMiddle{310.0 / kCamW, 175.0 / kCamH, 330.0 / kCamW, 185.0 / kCamH};
    EXPECT_LT(std::abs(MeanChroma(out, middle).first - MeanChroma(*camera, cameraMiddle).first),
              6.0);
    EXPECT_LT(std::abs(MeanChroma(out, middle).second - MeanChroma(*camera, cameraMiddle).second),
              6.0);
    EXPECT_GT(MeanDistanceFrom(out, 235, 128, 128, middle), 100.0) << "the slide shows";
}

TEST(EnginePresenter, OutputOfAnotherSizeOrAnUnsetModeFailsTheFrame) {
    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_NV12);
    auto slide = Slide(1280, 720, ZYN_FORMAT_I420, 235, 235, 0, 0);
    {
        PresenterInstance instance(OverlayConfig("1", "0.5", "0"));
        Frame wrong(640, 360, ZYN_FORMAT_I420);
        LogCapture log;
        EXPECT_EQ(2u, instance.present(*camera, *slide, wrong));
        EXPECT_TRUE(
            log.contains("Output frame 640x360 does not match the presentation frame 1280x720"))
            << log.dump();
    }
    {
        PresenterInstance instance(BlurConfig());
        Frame out(1280, 720, ZYN_FORMAT_I420);
        LogCapture log;
        EXPECT_EQ(2u, instance.present(*camera, *slide, out));
        EXPECT_TRUE(log.contains("No presenter layout for mode -1"));
    }
    {
        // A room layout whose picture cannot be read: no output size, and frames fail.
        LogCapture log;
        PresenterInstance instance(ConferenceroomConfig("missing.png"));
        uint32_t ow = 0, oh = 0;
        EXPECT_FALSE(ZynNativeVideoProcessingGetOutputFrameSize(instance.handle(), &ow, &oh));
        size_t loadFailures = 0;
        for (const auto& r : log.records()) {
            loadFailures += r.level == spdlog::level::err &&
                            r.function == "VBG::VirtualBackgroundImpl::resetWeatherman" &&
                            r.message.rfind("Bitmap load failed with error: ", 0) == 0;
        }
        EXPECT_EQ(loadFailures, 1u) << log.dump();
        Frame out(1920, 1080, ZYN_FORMAT_I420);
        EXPECT_EQ(2u, instance.present(*camera, *slide, out));
        EXPECT_TRUE(log.contains("Bitmap object is not present"));
    }
}

TEST(EnginePresenter, PresentationSizeChangesAndLayoutUpdatesApplyBetweenFrames) {
    PresenterInstance instance(OverlayConfig("1", "0.5", "0"));
    auto camera = AstronautFrame(kCamW, kCamH, ZYN_FORMAT_NV12);
    auto big = Slide(1280, 720, ZYN_FORMAT_I420, 235, 235, 0, 0);
    auto small = Slide(960, 540, ZYN_FORMAT_NV12, 235, 235, 0, 0);
    Frame outBig(1280, 720, ZYN_FORMAT_I420), outSmall(960, 540, ZYN_FORMAT_NV12);
    LogCapture log;
    Present(instance, *camera, *big, outBig, 2);
    Present(instance, *camera, *small, outSmall, 1);
    EXPECT_TRUE(log.contains("Presentation Frame size changed from 1280x720 -> 960x540"))
        << log.dump();

    // A switch to a room layout: its picture decides the output size at once.
    WritePicture("room2.png", 800, 600, "0x404040");
    ASSERT_EQ(0u, instance.update(ConferenceroomConfig("room2.png")));
    uint32_t ow = 0, oh = 0;
    ASSERT_TRUE(ZynNativeVideoProcessingGetOutputFrameSize(instance.handle(), &ow, &oh));
    EXPECT_EQ(800u, ow);
    EXPECT_EQ(600u, oh);
    Frame room(800, 600, ZYN_FORMAT_I420);
    Present(instance, *camera, *small, room, 1);
    EXPECT_LT(MeanDistanceFrom(room, 235, 128, 128, Box{0.5, 0.15, 0.95, 0.5}), 0.5);

    // An instance made for a presenter layout alone has no camera effect to run.
    Frame camOut(kCamW, kCamH, ZYN_FORMAT_NV12);
    EXPECT_EQ(2u, instance.process(*camera, camOut));
    EXPECT_TRUE(log.contains("Internal processVideoFrame failed: Invalid config"));
}
