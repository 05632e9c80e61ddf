// The engine core: which engine the factory builds and how creation fails, the base engine's own
// ARGB path, the life-cycle records, the fixed strengths of the engines' blurs and the brightness
// measure that tells a dark presentation from a light one.
#include <gtest/gtest.h>

#include <cstdio>

#include "config/vbg_settings.h"
#include "engine/virtual_background_impl_cpu_yuv.h"
#include "engine_test_support.h"
#include "filters/blur_cpu.h"
#include "support/log_capture.h"
#include "util/text.h"

using namespace engine_test;
using zyn_test::LogCapture;

namespace {

VBGSettings SettingsFor(uint32_t pt, uint32_t bt, const std::string& picture = "") {
    VBGSettings s = VBG::DefaultVBGSettings();
    s.pt = pt;
    s.bt = bt;
    VBG::Text::CopyToField(s.modelFilePath, ZYN_PATH_CHARS,
                           (zyn_test::RealModelsDir() / "model.winml").string(), 1000);
    VBG::Text::CopyToField(s.fileCachePath, ZYN_PATH_CHARS, Library::Get().cache().string(), 1000);
    if (!picture.empty()) {
        s.imageOrVideoType = 1;
        s.imageOrVideoDataSource = 1;
        VBG::Text::CopyToField(s.backgroundImageFile, ZYN_PATH_CHARS,
                               (Library::Get().cache() / picture).string(), 1000);
    }
    return s;
}

// An engine with its blurs and its presentation measure in reach.
template <typename Engine>
struct Probe : Engine {
    Probe() : Engine(0) {}
    using Engine::frameBlur;
    using Engine::getPresentationData;
    using Engine::maskBlur;
    using Engine::presenterLayout;
};
struct YuvProbe : Probe<VBG::VirtualBackgroundImplYuv> {
    using VirtualBackgroundImplYuv::chromaBlur;
    using VirtualBackgroundImplYuv::lumaBlur;
};

// The three box radii of a blur (none when it was never made).
std::vector<int> Radii(const std::unique_ptr<VBG::Blur>& blur) {
    return blur ? std::vector<int>{blur->radius0, blur->radius1, blur->radius2}
                : std::vector<int>{};
}

bool Process(VBG::VirtualBackground& engine, Frame& in, Frame& out) {
    ZynNativeInputFrame i = in.record();
    ZynNativeInputFrame o = out.record();
    return engine.processVideoFrame(&i, &o);
}

}  // namespace

TEST(EngineFactory, ReservedAndUnknownProcessingTypesAreRefused) {
    for (const uint32_t pt : {7u, 10u, 0xFFFFFFFFu}) {
        LogCapture log;
        const VBGSettings s = SettingsFor(pt, 1);
        EXPECT_EQ(nullptr, ZynNativeInternalCreate(&s)) << pt;
        EXPECT_TRUE(log.has(spdlog::level::err, "Unknown processing type called Unknown"))
            << log.dump();
        EXPECT_TRUE(log.contains("createMLProcessing failed"));
        EXPECT_EQ(1u, log.countContaining("Destroyed. HR:0x"));  // the engine of the attempt
    }
}

TEST(EngineFactory, GpuTypesAreNotSupportedHereAndGpuModeFallsBackToTheCpu) {
    Instance gpu(BlurConfig(9));  // type 8, a GPU-pipeline type
    EXPECT_EQ(5u, gpu.status());
    EXPECT_FALSE(gpu.valid());
    LogCapture log;
    Instance fallback(BlurConfig(1));
    EXPECT_EQ(0u, fallback.status());
    EXPECT_TRUE(log.contains("GPU not supported, switching to CPU"));
    uint32_t type = 99;
    ZynNativeVideoProcessingGetFrameProcessingStats(fallback.handle(), nullptr, nullptr, &type);
    EXPECT_EQ(0u, type);
}

TEST(EngineFactory, AModelThatCannotBeLoadedFailsTheCreation) {
    ZynNativeVideoProcessingShutdownInstance();  // no backend yet: the next one is loaded anew
    LogCapture log;
    VBGSettings s = SettingsFor(0, 1);
    VBG::Text::CopyToField(s.modelFilePath, ZYN_PATH_CHARS, std::string("/nonexistent/x.winml"),
                           1000);
    uint32_t error = 0;
    EXPECT_EQ(nullptr, VBG::VirtualBackground::createZynNative(s, error, 640, 360));
    EXPECT_EQ(3u, error);
    EXPECT_TRUE(log.contains("loadBindModel failed"));
    EXPECT_TRUE(log.contains("createMLProcessing failed"));
    // Nothing of the failed attempt stays behind: a good model loads on the next creation.
    log.clear();
    const VBGSettings good = SettingsFor(0, 1);
    void* engine = ZynNativeInternalCreate(&good);
    EXPECT_NE(nullptr, engine);
    ZynNativeInternalDestroy(engine);
    char address[32];
    std::snprintf(address, sizeof address, "%llX",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(engine)));
    EXPECT_EQ(1u, log.count(std::string("Constructed. HR:0x") + address)) << log.dump();
    EXPECT_EQ(1u, log.count(std::string("Destroyed. HR:0x") + address));
    EXPECT_TRUE(log.contains("VirtualBackgroundImpl::init performed"));
}

TEST(EngineCore, ArgbPathBlursOrCutsThePersonOutOverThePicture) {
    WritePicture("core_blue.png", 64, 36, "blue");
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_I420);
    const Box face = FaceBox(640, 360), wall = LeftWallBox(640, 360);
    {
        Probe<VBG::VirtualBackgroundImpl> engine;
        ASSERT_EQ(0, engine.init(SettingsFor(0, 1), 640, 360));
        LogCapture log;
        ASSERT_TRUE(Process(engine, *in, out));
        EXPECT_TRUE(log.contains("Frame: Res=640x360 format=1"));
        // The blurred frame is its own background: the person is blurred as well.
        EXPECT_LT(Detail(out, face), 0.6 * Detail(*in, face));
        EXPECT_LT(MeanDifference(*in, out, wall), 3.0);
        // Strength 3 (mask): sqrt(12 * 9 / 3 + 1) = 6.1, box 5; m = (108 - 75 - 60 - 9) / -24 =
        // 1.5 -> 2 boxes of 5, one of 7. Strength 5 (frame): sqrt(101) = 10.05, box 9; m =
        // (300 - 243 - 108 - 9) / -40 = 1.5 -> 2 boxes of 9, one of 11.
        EXPECT_EQ((std::vector<int>{2, 2, 3}), Radii(engine.maskBlur));
        EXPECT_EQ((std::vector<int>{4, 4, 5}), Radii(engine.frameBlur));
    }
    // Over a picture, and over grey (208, 208, 208) when the picture is missing; camera pixels
    // come back through ARGB within conversion rounding.
    auto camera = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame composed(640, 360, ZYN_FORMAT_NV12);
    // Blue: Y = (25 * 255 + 4224) >> 8 = 41, U = (112 * 255 + 32896) >> 8 = 240, V = (-18 * 255 +
    // 32896) >> 8 = 110; grey 208: Y = (220 * 208 + 4224) >> 8 = 195, U = V = 128.
    for (const auto& [file, colour] : {std::pair{"core_blue.png", Yuv{41, 240, 110}},
                                       {"core_missing.png", Yuv{195, 128, 128}}}) {
        SCOPED_TRACE(file);
        VBG::VirtualBackgroundImpl engine(0);
        ASSERT_EQ(0, engine.init(SettingsFor(0, 2, file), 640, 360));
        LogCapture log;
        for (int i = 0; i < kSettle; ++i) {
            ASSERT_TRUE(Process(engine, *camera, composed));
        }
        EXPECT_EQ(std::string(file) == "core_missing.png" ? 1u : 0u,
                  log.count("tempBackgroundArgbBuffer is invalid, some invalid scenario"));
        EXPECT_LT(MeanDifference(*camera, composed, face), 3.0);
        for (const Box& box : {wall, UpperWallBox(640, 360)}) {
            EXPECT_LT(MeanDistanceFrom(composed, colour.y, colour.u, colour.v, box), 4.0);
        }
    }
}

TEST(EngineCore, CpuEngineBlursMaskAndBackgroundWithFixedStrengths) {
    YuvProbe engine;
    ASSERT_EQ(0, engine.init(SettingsFor(0, 1), 640, 360));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    ASSERT_TRUE(Process(engine, *in, out));
    // Mask, strength 0.7: sqrt(12 * 0.49 / 3 + 1) = 1.72, box 1; m = (5.88 - 3 - 12 - 9) / -8 =
    // 2.27 -> 2 boxes of 1, one of 3.
    EXPECT_EQ((std::vector<int>{0, 0, 1}), Radii(engine.maskBlur));
    // Background at the 256 x 144 model: luma 144 / 36 = 4: sqrt(65) = 8.06, box 7; m = (192 -
    // 147 - 84 - 9) / -32 = 1.5 -> 7, 7, 9. Chroma 72 / 36 = 2: sqrt(17) = 4.1, box 3; m = (48 -
    // 27 - 36 - 9) / -16 = 1.5 -> 3, 3, 5.
    EXPECT_EQ((std::vector<int>{3, 3, 4}), Radii(engine.lumaBlur));
    EXPECT_EQ((std::vector<int>{1, 1, 2}), Radii(engine.chromaBlur));
}

TEST(EngineCore, PresentationBrightnessSamplesEveryFourthPixelOfEveryFourthRow) {
    // 16 x 16: the 4 x 4 sample grid alternates 100 and `high`, every other pixel is 255. The
    // samples' mean is (100 + high) / 2: 130 is dark (layout 2), 131 light (layout 1).
    const auto picture = [](int high) {
        std::vector<uint8_t> luma(16 * 16, 255);
        for (int y = 0; y < 16; y += 4) {
            for (int x = 0; x < 16; x += 4) {
                luma[y * 16 + x] = static_cast<uint8_t>((x / 4 + y / 4) % 2 ? high : 100);
            }
        }
        return luma;
    };
    Probe<VBG::VirtualBackgroundImpl> engine;
    const std::vector<uint8_t> dark = picture(160), light = picture(162);
    EXPECT_EQ(130u, engine.getPresentationData(dark.data(), 16, 16, 16));
    EXPECT_EQ(2u, engine.presenterLayout);
    // Measured again only every 16th frame.
    for (int frame = 1; frame < 16; ++frame) {
        EXPECT_EQ(130u, engine.getPresentationData(light.data(), 16, 16, 16)) << frame;
    }
    EXPECT_EQ(131u, engine.getPresentationData(light.data(), 16, 16, 16));
    EXPECT_EQ(1u, engine.presenterLayout);
}

TEST(EngineCore, ArgbPathRefusesFramesItCannotConvert) {
    VBG::VirtualBackgroundImpl engine(0);
    ASSERT_EQ(0, engine.init(SettingsFor(0, 1), 640, 360));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    // An input format, an output format, an output size; then a usable pair.
    const std::pair<std::vector<uint32_t>, std::string> cases[] = {
        {{3, ZYN_FORMAT_I420, 640}, "Unknown input frame format: 3"},
        {{ZYN_FORMAT_I420, 5, 640}, "Unknown output frame format requested: 5"},
        {{ZYN_FORMAT_I420, ZYN_FORMAT_I420, 320}, "Unsupported output frame format: 2"}};
    for (const auto& [fields, record] : cases) {
        LogCapture log;
        ZynNativeInputFrame i = in->record(), o = out.record();
        i.format = fields[0];
        o.format = fields[1];
        o.width = fields[2];
        EXPECT_FALSE(engine.processVideoFrame(&i, &o));
        EXPECT_TRUE(log.has(spdlog::level::err, record)) << log.dump();
    }
    EXPECT_TRUE(Process(engine, *in, out));
}
