// The engine core: which engine the factory builds for each processing type and how creation
// fails, the base engine's own ARGB path, and the life-cycle records.
#include <gtest/gtest.h>

#include "config/config_parser.h"
#include "config/vbg_settings.h"
#include "engine/virtual_background_impl.h"
#include "engine_test_support.h"

#include <array>
#include <cstdio>
#include "support/log_capture.h"
#include "util/text.h"

using namespace engine_test;
using zyn_test::LogCapture;

namespace {

VBGSettings SettingsFor(uint32_t pt, uint32_t bt, const std::string& picture = "") {
    Library::Get();
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

double Detail(const Frame& f, const Box& box) {
    double sum = 0;
    size_t n = 0;
    for (uint32_t y = static_cast<uint32_t>(box.y0 * f.height());
         y < static_cast<uint32_t>(box.y1 * f.height()); ++y) {
        for (uint32_t x = static_cast<uint32_t>(box.x0 * f.width());
             x + 1 < static_cast<uint32_t>(box.x1 * f.width()); ++x) {
            sum += std::abs(f.lumaAt(x + 1, y) - f.lumaAt(x, y));
            ++n;
        }
    }
    return sum / n;
}

bool Process(VBG::VirtualBackground& engine, Frame& in, Frame& out) {
    ZynNativeInputFrame i = in.record();
    ZynNativeInputFrame o = out.record();
    return engine.processVideoFrame(&i, &o);
}

}  // namespace

TEST(EngineFactory, ReservedAndUnknownProcessingTypesAreRefused) {
    Library::Get();  // before any capture: initialisation installs the library's own logger
    for (const uint32_t pt : {7u, 10u, 0xFFFFFFFFu}) {
        LogCapture log;
        const VBGSettings s = SettingsFor(pt, 1);
        EXPECT_EQ(nullptr, ZynNativeInternalCreate(&s)) << pt;
        EXPECT_TRUE(log.has(spdlog::level::err, "Unknown processing type called Unknown"))
            << log.dump();
        EXPECT_TRUE(log.contains("createMLProcessing failed"));
        // The engine made for the attempt is gone again.
        EXPECT_EQ(1u, log.countContaining("Destroyed. HR:0x"));
    }
}

TEST(EngineFactory, GpuTypesAreNotSupportedHereAndGpuModeFallsBackToTheCpu) {
    Library::Get();
    {
        // Processing mode 9 is type 8, a GPU-pipeline type: not supported on this hardware.
        Instance gpu(BlurConfig(9));
        EXPECT_EQ(5u, gpu.status());
        EXPECT_FALSE(gpu.valid());
    }
    {
        LogCapture log;
        Instance fallback(BlurConfig(1));
        EXPECT_EQ(0u, fallback.status());
        ASSERT_TRUE(fallback.valid());
        EXPECT_TRUE(log.contains("GPU not supported, switching to CPU"));
        uint32_t type = 99;
        ZynNativeVideoProcessingGetFrameProcessingStats(fallback.handle(), nullptr, nullptr, &type);
        EXPECT_EQ(0u, type);
    }
}

TEST(EngineFactory, AModelThatCannotBeLoadedFailsTheCreation) {
    Library::Get();  // before any capture: initialisation installs the library's own logger
    ZynNativeVideoProcessingShutdownInstance();  // no backend yet: the next one is loaded anew
    LogCapture log;
    VBGSettings s = SettingsFor(0, 1);
    VBG::Text::CopyToField(s.modelFilePath, ZYN_PATH_CHARS, std::string("/nonexistent/model.winml"),
                           1000);
    uint32_t error = 0;
    EXPECT_EQ(nullptr, VBG::VirtualBackground::createZynNative(s, error, 640, 360));
    EXPECT_EQ(3u, error);
    EXPECT_TRUE(log.contains("loadBindModel failed"));
    EXPECT_TRUE(log.contains("createMLProcessing failed"));
    // Nothing of the failed attempt stays behind: a good model loads on the next creation.
    const VBGSettings good = SettingsFor(0, 1);
    void* engine = ZynNativeInternalCreate(&good);
    EXPECT_NE(nullptr, engine);
    ZynNativeInternalDestroy(engine);
}

TEST(EngineCore, EachEngineLogsItsConstructionAndDestructionOnce) {
    Library::Get();
    LogCapture log;
    const VBGSettings s = SettingsFor(0, 1);
    void* engine = ZynNativeInternalCreate(&s);
    ASSERT_NE(nullptr, engine);
    ZynNativeInternalDestroy(engine);
    char address[32];
    std::snprintf(address, sizeof address, "%llX",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(engine)));
    EXPECT_EQ(1u, log.count(std::string("Constructed. HR:0x") + address)) << log.dump();
    EXPECT_EQ(1u, log.count(std::string("Destroyed. HR:0x") + address));
    EXPECT_TRUE(log.contains("VirtualBackgroundImpl::init performed"));
}

TEST(EngineCore, ArgbPathBlursTheWholeFrameInBlurMode) {
    VBG::VirtualBackgroundImpl engine(0);
    ASSERT_EQ(0, engine.init(SettingsFor(0, 1), 640, 360));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_I420);
    LogCapture log;
    ASSERT_TRUE(Process(engine, *in, out));
    EXPECT_TRUE(log.contains("Frame: Res=640x360 format=1"));
    // The blurred frame is its own background: the person is blurred as well.
    EXPECT_LT(Detail(out, FaceBox(640, 360)), 0.6 * Detail(*in, FaceBox(640, 360)));
    EXPECT_LT(MeanDifference(*in, out, LeftWallBox(640, 360)), 3.0);
}

TEST(EngineCore, ArgbPathCutsThePersonOutHardOverThePicture) {
    WritePicture("core_blue.png", 64, 36, "blue");
    VBG::VirtualBackgroundImpl engine(0);
    ASSERT_EQ(0, engine.init(SettingsFor(0, 2, "core_blue.png"), 640, 360));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_NV12);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(Process(engine, *in, out));
    }
    // Through ARGB and back: camera pixels come out within conversion rounding.
    EXPECT_LT(MeanDifference(*in, out, FaceBox(640, 360)), 3.0);
    const Yuv blue = YuvOf(255, 0, 0);
    EXPECT_LT(MeanDistanceFrom(out, blue.y, blue.u, blue.v, LeftWallBox(640, 360)), 4.0);
    EXPECT_LT(MeanDistanceFrom(out, blue.y, blue.u, blue.v, UpperWallBox(640, 360)), 4.0);
}

TEST(EngineCore, ArgbPathShowsGreyWithoutAPicture) {
    VBG::VirtualBackgroundImpl engine(0);
    ASSERT_EQ(0, engine.init(SettingsFor(0, 2, "core_missing.png"), 640, 360));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    LogCapture log;
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(Process(engine, *in, out));
    }
    EXPECT_EQ(1u, log.count("tempBackgroundArgbBuffer is invalid, some invalid scenario"));
    const Yuv grey = YuvOf(208, 208, 208);
    EXPECT_LT(MeanDistanceFrom(out, grey.y, grey.u, grey.v, LeftWallBox(640, 360)), 2.0);
}

TEST(EngineCore, ArgbPathRefusesFramesItCannotConvert) {
    VBG::VirtualBackgroundImpl engine(0);
    ASSERT_EQ(0, engine.init(SettingsFor(0, 1), 640, 360));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    LogCapture log;
    ZynNativeInputFrame i = in->record();
    ZynNativeInputFrame o = out.record();
    i.format = 3;
    EXPECT_FALSE(engine.processVideoFrame(&i, &o));
    EXPECT_TRUE(log.has(spdlog::level::err, "Unknown input frame format: 3"));
    EXPECT_TRUE(log.contains("ConvertZynNativeInputFrameToARGB failed"));
    i.format = ZYN_FORMAT_I420;
    o.format = 5;
    EXPECT_FALSE(engine.processVideoFrame(&i, &o));
    EXPECT_TRUE(log.contains("Unknown output frame format requested: 5"));
    o = out.record();
    o.width = 320;
    EXPECT_FALSE(engine.processVideoFrame(&i, &o));
    EXPECT_TRUE(log.contains("Unsupported output frame format: 2"));
    o = out.record();
    EXPECT_TRUE(engine.processVideoFrame(&i, &o));
}

TEST(EngineCore, UpdateKeepsTheProcessingTypeAndLogsTheTouchUpChange) {
    VBG::VirtualBackgroundImpl engine(0);
    VBGSettings s = SettingsFor(0, 1);
    ASSERT_EQ(0, engine.init(s, 640, 360));
    LogCapture log;
    VBGSettings next = s;
    next.pt = 9;
    next.effects |= ZYN_EFFECT_TOUCHUP;
    next.touchUpSigma = 0.1f;
    EXPECT_TRUE(engine.update(next));
    EXPECT_TRUE(log.contains("Update request received"));
    EXPECT_TRUE(log.contains("TouchUp is enabled"));
    // The settings record is printed with the type that was asked for.
    EXPECT_EQ(1u, log.countContaining("pt: Auto"));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    EXPECT_TRUE(Process(engine, *in, out));
    // Applied with the frame; "automatic" leaves the engine's own type in place.
    EXPECT_EQ(0u, engine.currentSettings().pt);
    EXPECT_NE(0u, engine.currentSettings().effects & ZYN_EFFECT_TOUCHUP);
    EXPECT_FLOAT_EQ(0.1f, engine.currentSettings().touchUpSigma);
}
