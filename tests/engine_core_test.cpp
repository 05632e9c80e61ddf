// The CPU engine: which engine the factory builds and how creation fails, the base engine's ARGB
// path, the fixed strengths of the engines' blurs and the brightness measure of presentations; end
// to end through the exports with the real model: every effect at many sizes, settings and size
// changes between frames, feedback, statistics; and frame records at the edges of what the process
// export allows (every size from 1 x 1 up within its planes, each plane touching an inaccessible
// page at one end; records that describe no usable frame refused with 2, the output untouched).
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <tuple>

#include "config/vbg_settings.h"
#include "engine/virtual_background_impl_cpu_yuv.h"
#include "engine_test_support.h"
#include "filters/blur_cpu.h"
#include "media/background_image.h"
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
        s.imageOrVideoType = s.imageOrVideoDataSource = 1;
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
    ZynNativeInputFrame i = in.record(), o = out.record();
    return engine.processVideoFrame(&i, &o);
}

// The colour of a flat background picture as the engine blends it at a frame size: what the
// picture source delivers at that size, converted like every picture background.
Yuv Colour(const std::string& name, int width = 640, int height = 360) {
    auto source = std::make_shared<VBG::BackgroundImage>(SettingsFor(0, 2, name));
    Yuv c{};
    libyuv::ARGBToI420(source->lockAndGetCropAndScaledArgbBuffer(width, height), width * 4, &c.y, 1,
                       &c.u, 1, &c.v, 1, 1, 1);
    source->unlockVideoFrame();
    return c;
}
class EnginePipeline : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        WritePicture("green.png", 320, 180, "green");
        WritePicture("red.png", 400, 300, "red");
    }
};

// A frame whose planes have no row padding (unless strides are given), each exactly stride x rows
// long, directly after or before an inaccessible page. Never-written pages cost nothing, so a
// plane of gigabytes can be described.
class GuardedFrame {
  public:
    GuardedFrame(uint32_t width, uint32_t height, uint32_t format, bool guardAtEnd,
                 std::vector<uint32_t> strides = {})
        : record_{}, nv12_(format == ZYN_FORMAT_NV12) {
        const uint32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
        rowBytes_ =
            nv12_ ? std::vector<uint32_t>{width, 2 * cw} : std::vector<uint32_t>{width, cw, cw};
        strides_ = strides.empty() ? rowBytes_ : strides;
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        for (size_t p = 0; p < rowBytes_.size(); ++p) {
            rows_.push_back(p == 0 ? height : ch);
            sizes_.push_back(static_cast<size_t>(strides_[p]) * rows_[p]);
            const size_t dataPages = std::max<size_t>(1, (sizes_[p] + page - 1) / page);
            maps_.push_back((dataPages + 2) * page);
            auto* base =
                static_cast<uint8_t*>(mmap(nullptr, maps_[p], PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
            EXPECT_NE(MAP_FAILED, base);
            mprotect(base, page, PROT_NONE);
            mprotect(base + (dataPages + 1) * page, page, PROT_NONE);
            bases_.push_back(base);
            planes_.push_back(guardAtEnd ? base + (dataPages + 1) * page - sizes_[p] : base + page);
        }
        uint8_t* const v = nv12_ ? nullptr : planes_[2];
        const uint32_t vStride = nv12_ ? 0 : strides_[2];
        record_ = {width,      height,      format, planes_[0], strides_[0],
                   planes_[1], strides_[1], v,      vStride,    0.0f};
    }
    ~GuardedFrame() {
        for (size_t p = 0; p < bases_.size(); ++p) {
            munmap(bases_[p], maps_[p]);
        }
    }
    ZynNativeInputFrame& record() { return record_; }

    // Sets every byte of every plane, padding included, to `value`; or tells whether each is.
    bool bytes(uint8_t value, bool set) {
        bool all = true;
        for (size_t p = 0; p < planes_.size(); ++p) {
            std::fill_n(planes_[p], set ? sizes_[p] : 0, value);
            all = all && std::all_of(planes_[p], planes_[p] + sizes_[p],
                                     [value](uint8_t b) { return b == value; });
        }
        return all;
    }
    // A flat picture, padding 0; or, with `check`, the largest distance of a picture byte from it.
    int flat(uint8_t y, uint8_t u, uint8_t v, bool check = false) {
        int worst = 0;
        for (size_t p = 0; p < planes_.size(); ++p) {
            for (uint32_t r = 0; r < rows_[p]; ++r) {
                uint8_t* row = planes_[p] + static_cast<size_t>(r) * strides_[p];
                for (uint32_t c = 0; c < (check ? rowBytes_[p] : strides_[p]); ++c) {
                    const uint8_t want = c >= rowBytes_[p] ? 0
                                         : p == 0          ? y
                                         : p == 2          ? v
                                         : nv12_ && c % 2  ? v
                                                           : u;
                    worst = std::max(worst, std::abs(row[c] - want));
                    row[c] = check ? row[c] : want;
                }
            }
        }
        return worst;
    }

  private:
    ZynNativeInputFrame record_;
    bool nv12_;
    std::vector<uint32_t> rowBytes_, rows_, strides_;
    std::vector<size_t> sizes_, maps_;
    std::vector<uint8_t*> bases_, planes_;
};

constexpr Yuv kGrey{128, 128, 128};
constexpr uint8_t kUntouched = 0x5A;

uint32_t Process(Instance& instance, GuardedFrame& in, GuardedFrame& out) {
    return ZynNativeVideoProcessingProcessFrame(instance.handle(), &in.record(), &out.record());
}

class FrameSizes : public EnginePipeline, public testing::WithParamInterface<uint32_t> {};

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
    // Automatic (9) with no stored selection and no evaluation running: no engine either.
    LogCapture log;
    const VBGSettings automatic = SettingsFor(9, 1);
    EXPECT_EQ(nullptr, ZynNativeInternalCreate(&automatic));
    EXPECT_TRUE(log.has(spdlog::level::err, "createAutoZynNative failed")) << log.dump();
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
        // Refused: an input format, an output format, an output size; then a usable pair again.
        const uint32_t nv12 = ZYN_FORMAT_NV12, i420 = ZYN_FORMAT_I420;
        const std::pair<std::vector<uint32_t>, std::string> cases[] = {
            {{3, i420, 640}, "Unknown input frame format: 3"},
            {{nv12, 5, 640}, "Unknown output frame format requested: 5"},
            {{nv12, i420, 320}, "Unsupported output frame format: 2"}};
        for (const auto& [fields, record] : cases) {
            ZynNativeInputFrame i = in->record(), o = out.record();
            i.format = fields[0];
            o.format = fields[1];
            o.width = fields[2];
            EXPECT_FALSE(engine.processVideoFrame(&i, &o));
            EXPECT_TRUE(log.has(spdlog::level::err, record)) << log.dump();
        }
        EXPECT_TRUE(Process(engine, *in, out));
        EXPECT_FALSE(engine.processVideoFrame(nullptr, nullptr));
        // Updates apply with the next frame: the same settings again, then the blue picture.
        for (const VBGSettings& next : {SettingsFor(0, 1), SettingsFor(0, 2, "core_blue.png")}) {
            ASSERT_TRUE(engine.update(next));
            for (int i = 0; i < kSettle; ++i) {
                ASSERT_TRUE(Process(engine, *in, out));
            }
        }
        EXPECT_LT(MeanDistanceFrom(out, Yuv{41, 240, 110}, wall), 4.0);  // blue, worked out below
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
            EXPECT_LT(MeanDistanceFrom(composed, colour, box), 4.0);
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

TEST_F(EnginePipeline, EachEffectKeepsThePersonAndChangesOnlyWhatItShouldAtEverySize) {
    const uint32_t nv12 = ZYN_FORMAT_NV12, i420 = ZYN_FORMAT_I420;
    const uint32_t sizes[][3] = {{640, 360, nv12},   {640, 360, i420}, {1280, 720, nv12},
                                 {1920, 1080, i420}, {321, 181, nv12}, {481, 271, i420},
                                 {480, 480, nv12}};
    for (const auto& [w, h, format] : sizes) {
        SCOPED_TRACE(testing::Message() << w << "x" << h << ", format " << format);
        auto in = AstronautFrame(w, h, format);
        const Box face = FaceBox(w, h), shuttle = ShuttleBox(w, h), wall = LeftWallBox(w, h);
        const Box suit = PictureBox(w, h, 0.18, 0.64, 0.58, 0.88);
        const Yuv green = Colour("green.png", w, h);
        const bool landscape = w > h + 40;
        for (const std::string& config :
             {BlurConfig(), BackgroundConfig("green.png"), TouchUpConfig("0.1")}) {
            SCOPED_TRACE(config);
            Instance instance(config);
            Frame out(w, h, format);
            ASSERT_EQ(0u, instance.run(*in, out, kSettle));
            EXPECT_TRUE(out.lumaPaddingUntouched());
            if (config == TouchUpConfig("0.1")) {  // skin smoothed, the wall as it was
                EXPECT_GT(MeanDifference(*in, out, face), 0.2);
                EXPECT_LT(Detail(out, face), Detail(*in, face));
                EXPECT_TRUE(!landscape || MeanDifference(*in, out, wall) == 0.0);
                continue;
            }
            EXPECT_LT(MeanDifference(*in, out, face), 4.0);
            EXPECT_LT(MeanDifference(*in, out, suit), 4.0);
            if (config == BlurConfig()) {
                EXPECT_LT(Detail(out, shuttle), 0.5 * Detail(*in, shuttle));
                EXPECT_GT(Detail(out, face), 0.8 * Detail(*in, face));
                continue;
            }
            EXPECT_LT(MeanDistanceFrom(out, green, UpperWallBox(w, h)), 3.0);
            EXPECT_LT(MeanDistanceFrom(out, green, shuttle), 3.0);
            // Far from the person the mask is 0: the picture exactly, (v * 255 + 255) >> 8 == v.
            EXPECT_TRUE(!landscape || MeanDistanceFrom(out, green, wall) == 0.0);
        }
    }
}

TEST_F(EnginePipeline, EveryFormatPairAndProcessingInPlaceGiveTheSamePicture) {
    const uint32_t nv12 = ZYN_FORMAT_NV12, i420 = ZYN_FORMAT_I420;
    // Input and output format, and whether the host hands one frame as both.
    const std::tuple<uint32_t, uint32_t, bool> ways[] = {{nv12, nv12, false}, {i420, i420, false},
                                                         {nv12, i420, false}, {i420, nv12, false},
                                                         {nv12, nv12, true},  {i420, i420, true}};
    for (const std::string& config : {BlurConfig(), BackgroundConfig("green.png"),
                                      BlurAndTouchUpConfig("0.05"), TouchUpConfig("0.1")}) {
        std::vector<uint8_t> first;
        for (const auto& [inFormat, outFormat, inPlace] : ways) {
            SCOPED_TRACE(config + " " + std::to_string(inFormat) + std::to_string(outFormat) +
                         (inPlace ? " in place" : ""));
            Instance instance(config);
            Frame out(640, 360, outFormat);
            for (int i = 0; i < kSettle; ++i) {
                auto in = AstronautFrame(640, 360, inFormat);
                ASSERT_EQ(0u, instance.process(*in, inPlace ? *in : out));
                out = inPlace ? *in : out;
            }
            EXPECT_TRUE(first.empty() || first == out.packedI420());
            first = out.packedI420();
        }
    }
}

TEST_F(EnginePipeline, AnUnreadableBackgroundIsAcceptedAndGivesAnAllZeroBackground) {
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    // A missing picture or an unreadable video, at creation or by an update: one record names it
    // (it is not opened again for every frame), and the background is all zero bytes.
    zyn_test::WriteFile(Library::Get().cache() / "unreadable.mp4", "not a video at all\n");
    for (const std::string file : {"no_such_picture.png", "unreadable.mp4"}) {
        for (const bool byUpdate : {false, true}) {
            SCOPED_TRACE(file + (byUpdate ? " by update" : " at creation"));
            LogCapture log;
            Instance instance(byUpdate ? BlurConfig() : BackgroundConfig(file));
            ASSERT_EQ(0u, instance.run(*in, out, byUpdate ? 1 : 0));
            ASSERT_EQ(0u, byUpdate ? instance.update(BackgroundConfig(file)) : 0u);
            ASSERT_EQ(0u, instance.run(*in, out, kSettle));
            EXPECT_EQ(1u, log.countAt(spdlog::level::err, file)) << log.dump();
            EXPECT_EQ(0.0, MeanDistanceFrom(out, Yuv{}, LeftWallBox(640, 360)));
            EXPECT_LT(MeanDistanceFrom(out, Yuv{}, UpperWallBox(640, 360)), 3.0);
            // Against black the mask's soft spots show more than against a picture.
            EXPECT_LT(MeanDifference(*in, out, FaceBox(640, 360)), 8.0);
        }
    }
}

TEST_F(EnginePipeline, UpdatesRebuildOnlyWhatTheyChangeAndApplyWithTheNextFrame) {
    Instance instance(BlurAndTouchUpConfig("0.03"));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_NV12), composed(640, 360, ZYN_FORMAT_I420);
    ASSERT_EQ(0u, instance.run(*in, out, kSettle));
    const Frame softer = out;
    const Box face = FaceBox(640, 360), wall = LeftWallBox(640, 360),
              shuttle = ShuttleBox(640, 360);
    LogCapture log;
    const auto made = [&](const std::string& what) { return log.countContaining(what); };
    const auto step = [&](const std::string& config, const std::string& record, int frames) {
        log.clear();
        ASSERT_EQ(0u, instance.update(config));
        EXPECT_TRUE(log.contains(record)) << log.dump();
        EXPECT_EQ(0u, made("Constructed"));  // nothing before the next frame
        ASSERT_EQ(0u, instance.run(*in, out, frames));
    };
    // Another sigma: the touch-up filter is made anew, nothing else.
    step(BlurAndTouchUpConfig("0.2"), "Processing change in touchup sigma values", 1);
    EXPECT_EQ(1u, log.count("Constructed TouchUp"));
    EXPECT_EQ(1u, made("Constructed"));
    EXPECT_TRUE(
        log.contains("Frame size changed from 640x360 -> 640x360 vbgUpdateRequested -> true"));
    EXPECT_GT(MeanDifference(softer, out, face), 0.0);
    step(BlurConfig(), "TouchUp is disabled", 1);
    EXPECT_EQ(0u, made("Constructed"));
    // Back to the first sigma: the first picture again, up to the mask's last settling steps.
    step(BlurAndTouchUpConfig("0.03"), "TouchUp is enabled", kSettle);
    EXPECT_EQ(1u, log.count("Constructed TouchUp"));
    EXPECT_LT(MeanDifference(softer, out, face), 0.05);
    // A picture, then another: its source and a new mask blur are made with the next frame.
    step(BackgroundConfig("green.png"), "Update request received", kSettle);
    EXPECT_EQ(0.0, MeanDistanceFrom(out, Colour("green.png"), wall));
    step(BackgroundConfig("red.png"), "Update request received", 1);
    EXPECT_EQ(1u, made("Constructed. HR:0x")) << log.dump();
    EXPECT_EQ(1u, made("CPU Blur:Constructed"));
    EXPECT_EQ(0.0, MeanDistanceFrom(out, Colour("red.png"), wall));
    // Back to blur: the picture source goes away.
    step(BlurConfig(), "Update request received", 1);
    EXPECT_EQ(1u, made("Destroyed. HR:0x"));
    EXPECT_LT(Detail(out, shuttle), 0.5 * Detail(*in, shuttle));
    // Effects together with a presenter layout: only the presenter settings apply.
    step(R"({"effects": [{"name": "background", "backgroundFile": "green.png"},
             {"name": "weatherman", "mode": "overlay", "weathermanAlpha": "1.0",
              "weathermanSize": "0.5", "weathermanOffsetX": "0", "weathermanOffsetY": "0"}]})",
         "Effect set to Weatherman mode: overlay", 0);
    EXPECT_EQ(0u, instance.present(*in, *in, composed));
    ASSERT_EQ(0u, instance.run(*in, out, kSettle));
    EXPECT_GT(MeanDistanceFrom(out, Colour("green.png"), wall), 20.0);
    EXPECT_LT(Detail(out, shuttle), 0.5 * Detail(*in, shuttle));
}

TEST_F(EnginePipeline, FrameSizeChangesMidStreamAndTheStatisticsOfTheLastFrame) {
    Instance instance(BackgroundConfig("green.png"));
    LogCapture log;
    for (const auto& [w, h] : {std::pair{640u, 360u}, {1280u, 720u}, {321u, 181u}, {640u, 360u}}) {
        SCOPED_TRACE(testing::Message() << w << "x" << h);
        auto in = AstronautFrame(w, h, ZYN_FORMAT_NV12);
        Frame out(w, h, ZYN_FORMAT_NV12);
        ASSERT_EQ(0u, instance.run(*in, out, kSettle));
        EXPECT_LT(MeanDifference(*in, out, FaceBox(w, h)), 4.0);
        EXPECT_EQ(0.0, MeanDistanceFrom(out, Colour("green.png", w, h), LeftWallBox(w, h)));
    }
    EXPECT_TRUE(
        log.contains("Frame size changed from 640x360 -> 1280x720 vbgUpdateRequested -> false"));
    EXPECT_TRUE(
        log.contains("Frame size changed from 1280x720 -> 321x181 vbgUpdateRequested -> false"));
    EXPECT_EQ(4u, log.countContaining("Frame size changed from"));
    uint32_t width = 0, height = 0, type = 99;
    const char* text =
        ZynNativeVideoProcessingGetFrameProcessingStats(instance.handle(), &width, &height, &type);
    EXPECT_EQ((std::vector<uint32_t>{640, 360, 0}), (std::vector<uint32_t>{width, height, type}));
    rapidjson::Document doc;
    ASSERT_TRUE(doc.Parse(text).IsObject()) << text;
    const int total = doc["fullFrameTime"].GetInt();
    const int parts = doc["preProcessedTime"].GetInt() + doc["inferenceTime"].GetInt() +
                      doc["postProcessedTime"].GetInt();
    EXPECT_EQ(static_cast<float>(total), instance.lastProcessingTime());
    EXPECT_TRUE(parts <= total && total <= parts + 2) << text;  // three truncations
    EXPECT_STREQ(text, ZynNativeVideoProcessingGetFrameProcessingStats(instance.handle(), nullptr,
                                                                       nullptr, nullptr));
}

TEST_F(EnginePipeline, FeedbackRecordsTheNextFrameAndTheMasksItWasMadeWith) {
    Instance instance(BackgroundConfig("green.png")), plain(BackgroundConfig("green.png"));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_NV12), plainOut(640, 360, ZYN_FORMAT_NV12);
    const fs::path cache = Library::Get().cache();
    const auto both = [&](int count, const std::string& id) {
        ASSERT_EQ(0u,
                  id.empty() ? 0u : instance.update(R"({"feedback": true, "id": ")" + id + "\"}"));
        ASSERT_EQ(0u, instance.run(*in, out, count));
        ASSERT_EQ(0u, plain.run(*in, plainOut, count));
        EXPECT_EQ(plainOut.packedI420(), out.packedI420());  // feedback changes no picture
    };
    const auto argb = [](Frame& f) {
        std::vector<uint8_t> pixels(640 * 360 * 4);
        const ZynNativeInputFrame r = f.record();
        libyuv::NV12ToARGB(r.plane0, r.stride0, r.plane1, r.stride1, pixels.data(), 640 * 4, 640,
                           360);
        return pixels;
    };
    both(kSettle, "");
    both(1, "fbone");
    EXPECT_EQ(argb(*in), ReadBytes(cache / "rawfbone.bin"));
    EXPECT_EQ(argb(out), ReadBytes(cache / "finalfbone.bin"));
    // Masks at the landscape model's 256 x 144. The current one is the mask the frame was blended
    // with: scaled to the frame, it gives every output luma byte from the camera's and green's.
    const auto current = ReadBytes(cache / "currentMaskfbone.bin");
    const auto previous = ReadBytes(cache / "previousMaskfbone.bin");
    ASSERT_EQ(256u * 144u, current.size());
    EXPECT_EQ(256u * 144u, previous.size());
    EXPECT_NE(current, previous);
    std::vector<uint8_t> alpha(640 * 360);
    libyuv::ScalePlane(current.data(), 256, 256, 144, alpha.data(), 640, 640, 360,
                       libyuv::kFilterBilinear);
    const int green = Colour("green.png").y;
    EXPECT_EQ(0.0, MeanOver(out, Box{0, 0, 1, 1},
                            [&](uint32_t x, uint32_t y) {
                                const int a = alpha[y * 640 + x];
                                return out.lumaAt(x, y) !=
                                       ((in->lumaAt(x, y) * a + green * (255 - a) + 255) >> 8);
                            }))
        << "output luma bytes not blended with the recorded mask";
    rapidjson::Document index;
    ASSERT_TRUE(index.Parse(zyn_test::ReadFile(cache / "fbone.json").c_str()).IsObject());
    EXPECT_EQ(256, index["currentMask"]["width"].GetInt());
    EXPECT_EQ(144, index["previousMask"]["height"].GetInt());
    EXPECT_STREQ("finalfbone.bin", index["final"]["filename"].GetString());
    // The previous mask of the next frame is the one this frame used; one request, one frame.
    both(1, "fbtwo");
    EXPECT_EQ(current, ReadBytes(cache / "previousMaskfbtwo.bin"));
    fs::remove(cache / "rawfbtwo.bin");
    both(1, "");
    EXPECT_FALSE(fs::exists(cache / "rawfbtwo.bin"));
    // A request while another one waits is refused, which costs the host the instance.
    ASSERT_EQ(0u, instance.update(R"({"feedback": true, "id": "fbthree"})"));
    LogCapture log;
    EXPECT_EQ(2u, instance.update(R"({"feedback": true, "id": "fbfour"})"));
    EXPECT_TRUE(log.contains("FeedbackWriter in progress with id fbthree"));
    EXPECT_FALSE(instance.valid());
}

TEST_F(EnginePipeline, ProcessingModesChooseTheTypeAndGpuOnesFallBackOrAreRefused) {
    Instance gpu(BlurConfig(9));  // type 8, a GPU-pipeline type
    EXPECT_EQ(5u, gpu.status());
    EXPECT_FALSE(gpu.valid());
    LogCapture log;
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    // Mode 1 (GPU) falls back to type 0, ONNX Runtime; mode 8 is type 2, ONNX Runtime on the CPU.
    for (const auto& [mode, type] : {std::pair{1, 0u}, {8, 2u}}) {
        ZynNativeVideoProcessingShutdownInstance();  // the one backend: start from none
        Instance instance(BackgroundConfig("green.png", mode));
        ASSERT_EQ(0u, instance.run(*in, out, kSettle));
        uint32_t got = 99;
        ZynNativeVideoProcessingGetFrameProcessingStats(instance.handle(), nullptr, nullptr, &got);
        EXPECT_EQ(type, got);
        EXPECT_LT(MeanDifference(*in, out, FaceBox(640, 360)), 4.0);
        EXPECT_EQ(0.0, MeanDistanceFrom(out, Colour("green.png"), LeftWallBox(640, 360)));
    }
    EXPECT_EQ(1u, log.count("GPU not supported, switching to CPU"));
    ZynNativeVideoProcessingShutdownInstance();  // and leave none behind
}

TEST_P(FrameSizes, EverySizeFromOneByOneUpIsProcessedWithinItsPlanes) {
    const uint32_t format = GetParam();
    // The green a flat grey frame becomes with the picture background at an ordinary size: no
    // person in the frame, so the picture everywhere.
    Instance picture(BackgroundConfig("green.png"));
    Frame grey(640, 360, format), ordinary(640, 360, format);
    grey.fill(kGrey.y, kGrey.u, kGrey.v);
    ASSERT_EQ(0u, picture.run(grey, ordinary, 2));
    const Yuv green{ordinary.lumaAt(320, 180), ordinary.uAt(320, 180), ordinary.vAt(320, 180)};
    ASSERT_LT(green.u, 118) << "the picture did not replace the grey frame";
    ASSERT_LT(green.v, 118);

    Instance blurAndTouchUp(BlurAndTouchUpConfig("0.3"));
    // Odd sides, the smallest frames, sizes below the model's 256 x 144 in either direction, a
    // narrow tall frame, and a large one.
    const uint32_t sizes[][2] = {{1, 1},    {2, 2},     {1, 2},      {2, 1},     {3, 5},
                                 {5, 3},    {17, 9},    {100, 60},   {255, 143}, {143, 255},
                                 {16, 300}, {641, 361}, {4096, 2160}};
    for (const auto& size : sizes) {
        for (const bool guardAtEnd : {true, false}) {
            SCOPED_TRACE(testing::Message() << size[0] << "x" << size[1] << ", guard at the "
                                            << (guardAtEnd ? "end" : "start"));
            GuardedFrame in(size[0], size[1], format, guardAtEnd);
            GuardedFrame out(size[0], size[1], format, guardAtEnd);
            in.flat(kGrey.y, kGrey.u, kGrey.v);
            for (int frame = 0; frame < 2; ++frame) {
                out.bytes(kUntouched, true);
                ASSERT_EQ(0u, Process(picture, in, out));
                EXPECT_LE(out.flat(green.y, green.u, green.v, true), 1);
                out.bytes(kUntouched, true);
                ASSERT_EQ(0u, Process(blurAndTouchUp, in, out));
                // Blurring a flat frame and smoothing skin it does not have changes nothing.
                EXPECT_LE(out.flat(kGrey.y, kGrey.u, kGrey.v, true), 1);
            }
        }
    }
}

TEST_P(FrameSizes, RecordsThatDoNotDescribeAUsableFrameAreRefusedAndNameTheSize) {
    const uint32_t format = GetParam();
    const bool nv12 = format == ZYN_FORMAT_NV12;
    const auto strides = [nv12](uint32_t y, uint32_t u, uint32_t v) {
        return nv12 ? std::vector<uint32_t>{y, u} : std::vector<uint32_t>{y, u, v};
    };
    const std::string otherSize = "Output frame 32x36 does not match the input frame 64x36";
    const std::string unknownOut = "Unknown output frame format: 7";
    const std::string unknownIn = "Unknown input frame format: 9";
    const struct {
        std::string what;
        uint32_t width, height;
        std::vector<uint32_t> strides;  // empty: exact strides
        int missingPlane;               // -1: none
        bool inOutput;
        std::string record;  // the error record; empty: "Unusable <input|output> frame: WxH ..."
        uint32_t outputFormat = 0;  // 0: as the input
    } cases[] = {
        {"zero width", 0, 36, {}, -1, false, ""},
        {"zero height", 64, 0, {}, -1, false, ""},
        {"zero width of the output", 0, 36, {}, -1, true, ""},
        {"a side above 16384", 16385, 2, {}, -1, false, ""},
        {"no luma plane", 64, 36, {}, 0, false, ""},
        {"no chroma plane", 64, 36, {}, 1, false, ""},
        {"no chroma plane in the output", 64, 36, {}, 1, true, ""},
        // One byte short of the row; for NV12 at an odd width the chroma row is width + 1 bytes.
        {"short luma stride", 63, 35, strides(62, 64, 32), -1, false, ""},
        {"short chroma stride", 63, 35, strides(63, 63, 31), -1, false, ""},
        {"short output luma stride", 64, 36, strides(63, 64, 32), -1, true, ""},
        // A stride that is negative as an int, and a plane of more than 2^31 - 1 bytes.
        {"luma stride of 2^31", 64, 1, strides(0x80000000u, 64, 32), -1, false, ""},
        {"luma plane of 2^31 bytes", 64, 2, strides(0x40000000u, 64, 32), -1, false, ""},
        {"an output of another size", 32, 36, {}, -1, true, otherSize},
        // Refused before anything is written: a luma row at the width would reach the guard.
        {"an output of an unknown format", 64, 36, {63, 32, 32}, -1, true, unknownOut, 7},
        {"an input of an unknown format", 64, 36, {10, 10, 10}, 0, false, unknownIn, 9}};
    const fs::path cache = Library::Get().cache();
    int n = 0;
    for (const std::string& config : {BlurConfig(), TouchUpConfig("0.3")}) {
        Instance instance(config);
        GuardedFrame goodIn(64, 36, format, true);
        goodIn.flat(kGrey.y, kGrey.u, kGrey.v);
        for (const auto& c : cases) {
            SCOPED_TRACE(config + ": " + c.what);
            LogCapture log;
            const uint32_t badFormat = c.outputFormat != 0 ? uint32_t{ZYN_FORMAT_I420} : format;
            GuardedFrame bad(c.width, c.height, badFormat, true, c.strides);
            GuardedFrame partner(64, 36, format, true);
            // The other record of the pair is usable: a grey input, or an output whose bytes
            // must stay as they are.
            (c.inOutput ? bad : partner).bytes(kUntouched, true);
            if (c.inOutput) {
                partner.flat(kGrey.y, kGrey.u, kGrey.v);
            } else if (c.strides.empty() || c.strides[0] < 0x40000000u) {
                bad.bytes(kGrey.y, true);  // its strides may be short; huge planes stay unwritten
            }
            ZynNativeInputFrame& b = bad.record();
            b.plane0 = c.missingPlane == 0 ? nullptr : b.plane0;
            b.plane1 = c.missingPlane == 1 ? nullptr : b.plane1;
            b.format = c.outputFormat != 0 ? c.outputFormat : b.format;
            // A feedback request waiting for a frame reads nothing of a refused one.
            const std::string id = "refused" + std::to_string(format) + "-" + std::to_string(n++);
            ASSERT_EQ(0u, instance.update(R"({"feedback": true, "id": ")" + id + "\"}"));
            EXPECT_EQ(
                2u, c.inOutput ? Process(instance, partner, bad) : Process(instance, bad, partner));
            EXPECT_FALSE(fs::exists(cache / ("raw" + id + ".bin")));
            const std::string record =
                !c.record.empty()
                    ? c.record
                    : "Unusable " + std::string(c.inOutput ? "output" : "input") +
                          " frame: " + std::to_string(c.width) + "x" + std::to_string(c.height) +
                          " format=" + std::to_string(format);
            EXPECT_EQ(1u, log.countContaining(record)) << log.dump();
            EXPECT_TRUE((c.inOutput ? bad : partner).bytes(kUntouched, false)) << "output written";
            // The instance goes on with the next usable frame, which the request records when
            // the refused record was unusable (a refused format or size ends the request).
            GuardedFrame goodOut(64, 36, format, true);
            EXPECT_EQ(0u, Process(instance, goodIn, goodOut));
            EXPECT_EQ(c.record.empty(), fs::exists(cache / ("final" + id + ".bin")));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, FrameSizes, testing::Values(ZYN_FORMAT_NV12, ZYN_FORMAT_I420),
                         [](const testing::TestParamInfo<uint32_t>& info) {
                             return std::string(info.param == ZYN_FORMAT_NV12 ? "NV12" : "I420");
                         });
