// The CPU engine end to end through the exported functions, with the real segmentation model:
// every background kind on NV12 and I420 frames of several sizes, the person kept and the
// background replaced, settings changes between frames, frame size changes, feedback and the
// statistics text.
#include <gtest/gtest.h>
#include <libyuv.h>
#include <rapidjson/document.h>

#include <chrono>
#include <set>
#include <thread>

#include "config/config_parser.h"
#include "engine_test_support.h"
#include "media/background_image.h"
#include "support/log_capture.h"
#include "util/text.h"

using namespace engine_test;
using zyn_test::LogCapture;

namespace {

// The I420 value of a flat background picture as the engine blends it at a frame size: what the
// background source delivers at that size, converted like every picture background.
Yuv BackgroundYuv(const std::string& name, uint32_t width, uint32_t height) {
    VBGSettings settings{};
    settings.bt = 2;
    settings.imageOrVideoDataSource = 1;
    settings.imageOrVideoType = 1;
    VBG::Text::CopyToField(settings.backgroundImageFile, ZYN_PATH_CHARS,
                           (Library::Get().cache() / name).string(), ZYN_PATH_CHARS - 2);
    auto source = std::make_shared<VBG::BackgroundImage>(settings);
    const uint8_t* argb = source->lockAndGetCropAndScaledArgbBuffer(static_cast<int>(width),
                                                                    static_cast<int>(height));
    if (argb == nullptr) {
        throw std::runtime_error("no picture " + name);
    }
    const Yuv yuv = YuvOf(argb[0], argb[1], argb[2]);
    source->unlockVideoFrame();
    return yuv;
}
Yuv Green(uint32_t width, uint32_t height) {
    return BackgroundYuv("green.png", width, height);
}
Yuv Red(uint32_t width, uint32_t height) {
    return BackgroundYuv("red.png", width, height);
}

// Frames until the model's temporal smoothing has settled (the smoothed mask starts from zero
// and closes 60% of the gap each frame).
constexpr int kSettle = 6;

double DistanceFrom(const Frame& f, const Yuv& c, const Box& box) {
    return MeanDistanceFrom(f, c.y, c.u, c.v, box);
}

// Mean absolute horizontal luma step inside a box: how much detail survives.
double Detail(const Frame& f, const Box& box) {
    const uint32_t x0 = static_cast<uint32_t>(box.x0 * f.width());
    const uint32_t x1 = static_cast<uint32_t>(box.x1 * f.width());
    const uint32_t y0 = static_cast<uint32_t>(box.y0 * f.height());
    const uint32_t y1 = static_cast<uint32_t>(box.y1 * f.height());
    double sum = 0;
    size_t n = 0;
    for (uint32_t y = y0; y < y1; ++y) {
        for (uint32_t x = x0; x + 1 < x1; ++x) {
            sum += std::abs(f.lumaAt(x + 1, y) - f.lumaAt(x, y));
            ++n;
        }
    }
    return n == 0 ? 0.0 : sum / n;
}

// The shuttle model right of the astronaut: detailed background.
Box ShuttleBox(uint32_t w, uint32_t h) {
    return PictureBox(w, h, 0.72, 0.05, 0.90, 0.50);
}

void ProcessFrames(Instance& instance, Frame& in, Frame& out, int count) {
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(0u, instance.process(in, out)) << "frame " << i;
    }
}

// Records of `function` whose message contains `fragment`.
size_t CountFrom(const LogCapture& log, const std::string& function, const std::string& fragment) {
    size_t n = 0;
    for (const auto& r : log.records()) {
        n += (r.function == function && r.message.find(fragment) != std::string::npos) ? 1 : 0;
    }
    return n;
}

class EnginePipeline : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        Library::Get();
        WritePicture("green.png", 320, 180, "green");
        WritePicture("red.png", 400, 300, "red");
    }
};

struct SizeCase {
    uint32_t width, height, format;
};

class EnginePipelineSizes : public EnginePipeline, public testing::WithParamInterface<SizeCase> {};

}  // namespace

TEST_P(EnginePipelineSizes, BlurKeepsThePersonSharpAndBlursTheBackground) {
    const SizeCase c = GetParam();
    Instance instance(BlurConfig());
    ASSERT_EQ(0u, instance.status());
    auto in = AstronautFrame(c.width, c.height, c.format);
    Frame out(c.width, c.height, c.format);
    ProcessFrames(instance, *in, out, kSettle);
    EXPECT_LT(MeanDifference(*in, out, FaceBox(c.width, c.height)), 4.0);
    EXPECT_LT(MeanDifference(*in, out, TorsoBox(c.width, c.height)), 4.0);
    const Box shuttle = ShuttleBox(c.width, c.height);
    EXPECT_LT(Detail(out, shuttle), 0.5 * Detail(*in, shuttle));
    EXPECT_GT(Detail(out, FaceBox(c.width, c.height)),
              0.8 * Detail(*in, FaceBox(c.width, c.height)));
    EXPECT_TRUE(out.lumaPaddingUntouched());
}

TEST_P(EnginePipelineSizes, PictureReplacesTheBackgroundAndKeepsThePerson) {
    const SizeCase c = GetParam();
    Instance instance(BackgroundConfig("green.png"));
    ASSERT_EQ(0u, instance.status());
    auto in = AstronautFrame(c.width, c.height, c.format);
    Frame out(c.width, c.height, c.format);
    ProcessFrames(instance, *in, out, kSettle);
    EXPECT_LT(MeanDifference(*in, out, FaceBox(c.width, c.height)), 4.0);
    EXPECT_LT(MeanDifference(*in, out, TorsoBox(c.width, c.height)), 4.0);
    EXPECT_LT(DistanceFrom(out, Green(c.width, c.height), UpperWallBox(c.width, c.height)), 3.0);
    EXPECT_LT(DistanceFrom(out, Green(c.width, c.height), ShuttleBox(c.width, c.height)), 3.0);
    if (c.width > c.height + 40) {
        // Far from the person the mask is 0: the picture exactly, (v * 255 + 255) >> 8 == v.
        EXPECT_EQ(0.0, DistanceFrom(out, Green(c.width, c.height), LeftWallBox(c.width, c.height)));
    }
    EXPECT_TRUE(out.lumaPaddingUntouched());
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, EnginePipelineSizes,
    testing::Values(SizeCase{640, 360, ZYN_FORMAT_NV12}, SizeCase{640, 360, ZYN_FORMAT_I420},
                    SizeCase{1280, 720, ZYN_FORMAT_NV12}, SizeCase{1920, 1080, ZYN_FORMAT_I420},
                    SizeCase{321, 181, ZYN_FORMAT_NV12}, SizeCase{481, 271, ZYN_FORMAT_I420},
                    SizeCase{480, 480, ZYN_FORMAT_NV12}),
    [](const testing::TestParamInfo<SizeCase>& info) {
        return std::to_string(info.param.width) + "x" + std::to_string(info.param.height) +
               (info.param.format == ZYN_FORMAT_NV12 ? "_NV12" : "_I420");
    });

TEST_F(EnginePipeline, Nv12AndI420GiveTheSamePicture) {
    for (const std::string& config :
         {BlurConfig(), BackgroundConfig("green.png"), BlurAndTouchUpConfig("0.05")}) {
        SCOPED_TRACE(config);
        Instance nv12(config), i420(config);
        auto inNv12 = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
        auto inI420 = AstronautFrame(640, 360, ZYN_FORMAT_I420);
        Frame outNv12(640, 360, ZYN_FORMAT_NV12), outI420(640, 360, ZYN_FORMAT_I420);
        ProcessFrames(nv12, *inNv12, outNv12, 2);
        ProcessFrames(i420, *inI420, outI420, 2);
        EXPECT_EQ(outNv12.packedI420(), outI420.packedI420());
    }
}

TEST_F(EnginePipeline, MixedInputAndOutputFormatsGiveTheSamePicture) {
    Instance a(BackgroundConfig("green.png")), b(BackgroundConfig("green.png"));
    auto inNv12 = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    auto inI420 = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame outI420(640, 360, ZYN_FORMAT_I420), outNv12(640, 360, ZYN_FORMAT_NV12);
    ProcessFrames(a, *inNv12, outI420, 2);
    ProcessFrames(b, *inI420, outNv12, 2);
    EXPECT_EQ(outI420.packedI420(), outNv12.packedI420());
}

TEST_F(EnginePipeline, ProcessingInPlaceGivesTheSamePicture) {
    // The host may hand the same buffers as input and output.
    for (const uint32_t format : {ZYN_FORMAT_NV12, ZYN_FORMAT_I420}) {
        for (const std::string& config : {BlurAndTouchUpConfig("0.1"), TouchUpConfig("0.1")}) {
            SCOPED_TRACE(config + (format == ZYN_FORMAT_NV12 ? " NV12" : " I420"));
            Instance separate(config), inPlace(config);
            auto in = AstronautFrame(640, 360, format);
            Frame out(640, 360, format);
            ProcessFrames(separate, *in, out, kSettle);
            for (int i = 0; i < kSettle; ++i) {
                auto frame = AstronautFrame(640, 360, format);
                ASSERT_EQ(0u, inPlace.process(*frame, *frame));
                if (i + 1 == kSettle) {
                    const auto a = out.packedI420(), b = frame->packedI420();
                    size_t first = 0;
                    while (first < a.size() && a[first] == b[first])
                        ++first;
                    EXPECT_EQ(a.size(), first) << "first difference at byte " << first;
                }
            }
        }
    }
}

TEST_F(EnginePipeline, UnknownFrameFormatsFailTheFrame) {
    Instance instance(BlurConfig());
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    LogCapture log;
    ZynNativeInputFrame i = in->record();
    ZynNativeInputFrame o = out.record();
    i.format = 3;
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o));
    EXPECT_TRUE(log.has(spdlog::level::err, "Unknown input frame format: 3")) << log.dump();
    EXPECT_TRUE(log.contains("updateARGBBuffer failed"));

    i.format = ZYN_FORMAT_I420;
    o.format = 7;
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o));
    EXPECT_TRUE(log.has(spdlog::level::err, "Unknown output frame format: 7"));
    // The instance is still usable.
    EXPECT_EQ(0u, instance.process(*in, out));
}

TEST_F(EnginePipeline, FrameRecordsThatDoNotCoverTheirSizeAreRefused) {
    Instance instance(BlurConfig());
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_NV12);
    LogCapture log;
    ZynNativeInputFrame i = in->record();
    ZynNativeInputFrame o = out.record();
    i.stride0 = 320;
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o));
    i = in->record();
    i.plane1 = nullptr;
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o));
    i = in->record();
    i.width = 0;
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o));
    i = in->record();
    o.width = 320;  // an output of another size than the input
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o));
    EXPECT_TRUE(log.contains("Output frame 320x360 does not match the input frame 640x360"));
    EXPECT_GE(log.countContaining("Unusable input frame"), 3u) << log.dump();
}

TEST_F(EnginePipeline, TouchUpAloneSmoothsSkinAndLeavesTheRestAsItWas) {
    for (const uint32_t format : {ZYN_FORMAT_NV12, ZYN_FORMAT_I420}) {
        Instance instance(TouchUpConfig("0.1"));
        ASSERT_EQ(0u, instance.status());
        auto in = AstronautFrame(640, 360, format);
        Frame out(640, 360, format);
        ProcessFrames(instance, *in, out, kSettle);
        const Box wall = LeftWallBox(640, 360);
        EXPECT_EQ(0.0, MeanDifference(*in, out, wall));
        const Box face = FaceBox(640, 360);
        EXPECT_GT(MeanDifference(*in, out, face), 0.2);
        EXPECT_LT(Detail(out, face), Detail(*in, face));
    }
}

TEST_F(EnginePipeline, NoBackgroundWithoutTouchUpFailsEveryFrame) {
    // Only the native configuration record can ask for no effect at all.
    ZynNativeConfig config = VBG::DefaultZynNativeConfig();
    config.processingMode = 2;
    VBG::Text::CopyToField(config.modelFilePath, ZYN_PATH_CHARS,
                           (zyn_test::RealModelsDir() / "model.winml").string(), 1000);
    VBG::Text::CopyToField(config.fileCachePath, ZYN_PATH_CHARS, Library::Get().cache().string(),
                           1000);
    ZynNativeHandle handle = nullptr;
    ASSERT_EQ(0u, ZynNativeVbgCreateInstance(&config, &handle));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_NV12);
    const std::vector<uint8_t> before = out.packedI420();
    LogCapture log;
    for (int i = 0; i < 3; ++i) {
        ZynNativeInputFrame ir = in->record();
        ZynNativeInputFrame orr = out.record();
        EXPECT_EQ(2u, ZynNativeVbgProcessFrame(&handle, &ir, &orr));
    }
    EXPECT_EQ(3u, log.count("Internal processVideoFrame failed: Invalid config")) << log.dump();
    EXPECT_EQ(before, out.packedI420());
    ZynNativeVbgDestroyInstance(&handle);
}

TEST_F(EnginePipeline, AMissingBackgroundPictureGivesAnAllZeroBackground) {
    LogCapture log;
    Instance instance(BackgroundConfig("no_such_picture.png"));
    ASSERT_EQ(0u, instance.status());
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    ProcessFrames(instance, *in, out, kSettle);
    EXPECT_TRUE(log.contains("tempBackgroundArgbBuffer is invalid, some invalid scenario"));
    EXPECT_EQ(0.0, DistanceFrom(out, Yuv{0, 0, 0}, LeftWallBox(640, 360)));
    EXPECT_LT(DistanceFrom(out, Yuv{0, 0, 0}, UpperWallBox(640, 360)), 3.0);
    // Against black the mask's soft spots show more than against a picture.
    EXPECT_LT(MeanDifference(*in, out, FaceBox(640, 360)), 8.0);
}

TEST_F(EnginePipeline, AnUnreadableVideoIsAcceptedAndGivesAnAllZeroBackground) {
    zyn_test::WriteFile(Library::Get().cache() / "unreadable.mp4", "not a video at all\n");
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    for (const bool byUpdate : {false, true}) {
        SCOPED_TRACE(byUpdate ? "update" : "create");
        LogCapture log;
        Instance instance(byUpdate ? BlurConfig() : BackgroundConfig("unreadable.mp4"));
        ASSERT_EQ(0u, instance.status());
        if (byUpdate) {
            ProcessFrames(instance, *in, out, 1);
            ASSERT_EQ(0u, instance.update(BackgroundConfig("unreadable.mp4")));
        }
        ProcessFrames(instance, *in, out, kSettle);
        // One record names the file: it is not opened again, neither for a new frame size nor
        // for every frame.
        EXPECT_EQ(1u, log.countAt(spdlog::level::err, "unreadable.mp4")) << log.dump();
        log.clear();
        ProcessFrames(instance, *in, out, 3);
        EXPECT_EQ(0u, log.countAt(spdlog::level::err)) << log.dump();
        EXPECT_EQ(0.0, DistanceFrom(out, Yuv{0, 0, 0}, LeftWallBox(640, 360)));
    }
}

TEST_F(EnginePipeline, AnimatedPictureShowsItsFramesInTurn) {
    WriteAnimatedGif("flash.gif");
    Instance instance(BackgroundConfig("flash.gif"));
    ASSERT_EQ(0u, instance.status());
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_NV12);
    const Box wall = LeftWallBox(640, 360);
    std::string shown;
    auto last = std::chrono::steady_clock::now();
    auto longestGap = std::chrono::steady_clock::duration::zero();
    for (int i = 0; i < 24; ++i) {
        ASSERT_EQ(0u, instance.process(*in, out));
        shown += DominantColour(out, wall);
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
        const auto now = std::chrono::steady_clock::now();
        longestGap = std::max(longestGap, now - last);
        last = now;
    }
    // 100 ms per picture frame, a camera frame every 25 ms or more: each picture frame stays for
    // a few camera frames, then the other one follows.
    EXPECT_EQ(std::string::npos, shown.find('?')) << shown;
    EXPECT_EQ('r', shown.front()) << shown;
    EXPECT_NE(std::string::npos, shown.find("rb")) << shown;
    EXPECT_NE(std::string::npos, shown.find("br")) << shown;
    // A picture frame outlasts one camera frame, unless a loaded machine spaced the camera frames
    // further apart than a picture frame lasts.
    if (longestGap < std::chrono::milliseconds(90)) {
        EXPECT_EQ(std::string::npos, shown.find("rbr")) << shown;
        EXPECT_EQ(std::string::npos, shown.find("brb")) << shown;
    }
}

TEST_F(EnginePipeline, VideoBackgroundPlaysBehindThePerson) {
    WriteVideo("flash.mp4");
    Instance instance(BackgroundConfig("flash.mp4"));
    ASSERT_EQ(0u, instance.status());
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    const Box wall = LeftWallBox(640, 360);
    std::string shown;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline &&
           (shown.find("rb") == std::string::npos || shown.find("br") == std::string::npos)) {
        ASSERT_EQ(0u, instance.process(*in, out));
        shown += DominantColour(out, wall);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // The video loops: red, blue, red again.
    EXPECT_NE(std::string::npos, shown.find("rb")) << shown;
    EXPECT_NE(std::string::npos, shown.find("br")) << shown;
    EXPECT_LT(MeanDifference(*in, out, FaceBox(640, 360)), 4.0);
}

TEST_F(EnginePipeline, TouchUpOnlyUpdateRebuildsNothingButTheTouchUpFilter) {
    Instance instance(BlurAndTouchUpConfig("0.03"));
    ASSERT_EQ(0u, instance.status());
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_NV12);
    ProcessFrames(instance, *in, out, kSettle);
    const std::vector<uint8_t> softer = out.packedI420();

    LogCapture log;
    ASSERT_EQ(0u, instance.update(BlurAndTouchUpConfig("0.2")));
    EXPECT_TRUE(log.contains("Processing change in touchup sigma values"));
    ProcessFrames(instance, *in, out, 1);
    EXPECT_EQ(1u, log.count("Constructed TouchUp")) << log.dump();
    EXPECT_EQ(0u, log.countContaining("CPU Blur:Constructed"));
    EXPECT_EQ(0u, log.countContaining("Constructed. HR:0x"));
    EXPECT_TRUE(
        log.contains("Frame size changed from 640x360 -> 640x360 vbgUpdateRequested -> true"));
    EXPECT_NE(softer, out.packedI420());

    log.clear();
    ASSERT_EQ(0u, instance.update(BlurConfig()));
    EXPECT_TRUE(log.contains("TouchUp is disabled"));
    ProcessFrames(instance, *in, out, 1);
    EXPECT_EQ(0u, log.count("Constructed TouchUp"));
    EXPECT_EQ(0u, log.countContaining("CPU Blur:Constructed"));

    log.clear();
    ASSERT_EQ(0u, instance.update(BlurAndTouchUpConfig("0.03")));
    EXPECT_TRUE(log.contains("TouchUp is enabled"));
    ProcessFrames(instance, *in, out, kSettle);
    EXPECT_EQ(1u, log.count("Constructed TouchUp"));
    // Back to the first sigma: the first picture again, up to the mask's last settling steps.
    Frame first(640, 360, ZYN_FORMAT_NV12);
    first.setPackedI420(softer);
    EXPECT_LT(MeanDifference(first, out, FaceBox(640, 360)), 0.05);
}

TEST_F(EnginePipeline, BackgroundChangeRebuildsTheBackgroundAndTheBuffers) {
    Instance instance(BackgroundConfig("green.png"));
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    ProcessFrames(instance, *in, out, kSettle);
    EXPECT_EQ(0.0, DistanceFrom(out, Green(640, 360), LeftWallBox(640, 360)));

    LogCapture log;
    ASSERT_EQ(0u, instance.update(BackgroundConfig("red.png")));
    // Nothing changes before the next frame.
    EXPECT_EQ(0u, CountFrom(log, "VBG::BackgroundImage::BackgroundImage", "Constructed. HR:0x"));
    ProcessFrames(instance, *in, out, 1);
    EXPECT_EQ(1u, CountFrom(log, "VBG::BackgroundImage::BackgroundImage", "Constructed. HR:0x"))
        << log.dump();
    EXPECT_EQ(1u, log.countContaining("CPU Blur:Constructed"));  // the mask blur, made anew
    EXPECT_EQ(0.0, DistanceFrom(out, Red(640, 360), LeftWallBox(640, 360)));

    // From a picture to blur: the picture source goes away.
    log.clear();
    ASSERT_EQ(0u, instance.update(BlurConfig()));
    ProcessFrames(instance, *in, out, 1);
    EXPECT_EQ(1u, CountFrom(log, "VBG::BackgroundImage::~BackgroundImage", "Destroyed. HR:0x"));
    EXPECT_LT(Detail(out, ShuttleBox(640, 360)), 0.5 * Detail(*in, ShuttleBox(640, 360)));
}

TEST_F(EnginePipeline, AnUpdateWithPresenterAndEffectsAppliesOnlyThePresenterSettings) {
    Instance instance(BlurConfig());
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
    Frame out(640, 360, ZYN_FORMAT_I420);
    Frame composed(640, 360, ZYN_FORMAT_I420);
    ZynNativeInputFrame frames[2] = {in->record(), in->record()};
    ZynNativeInputFrame composedRecord = composed.record();
    // No presenter mode yet: presentation frames are refused.
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessPresentationFrame(instance.handle(), frames,
                                                                   &composedRecord));

    // A picture background and an overlay presenter in one text: only the presenter applies.
    ASSERT_EQ(0u, instance.update(
                      R"({"effects": [{"name": "background", "backgroundFile": "green.png"},
                          {"name": "weatherman", "mode": "overlay", "weathermanAlpha": "1.0",
                           "weathermanSize": "0.5", "weathermanOffsetX": "0",
                           "weathermanOffsetY": "0"}]})"));
    ASSERT_NE(nullptr, *instance.handle());
    composedRecord = composed.record();
    EXPECT_EQ(0u, ZynNativeVideoProcessingProcessPresentationFrame(instance.handle(), frames,
                                                                   &composedRecord));
    ProcessFrames(instance, *in, out, kSettle);
    // Still blurred, never green.
    EXPECT_GT(DistanceFrom(out, Green(640, 360), LeftWallBox(640, 360)), 20.0);
    EXPECT_LT(Detail(out, ShuttleBox(640, 360)), 0.5 * Detail(*in, ShuttleBox(640, 360)));
}

TEST_F(EnginePipeline, FrameSizeChangesMidStream) {
    Instance instance(BackgroundConfig("green.png"));
    LogCapture log;
    for (const auto& size :
         {std::pair<uint32_t, uint32_t>{640, 360}, {1280, 720}, {321, 181}, {640, 360}}) {
        SCOPED_TRACE(testing::Message() << size.first << "x" << size.second);
        auto in = AstronautFrame(size.first, size.second, ZYN_FORMAT_NV12);
        Frame out(size.first, size.second, ZYN_FORMAT_NV12);
        ProcessFrames(instance, *in, out, kSettle);
        EXPECT_LT(MeanDifference(*in, out, FaceBox(size.first, size.second)), 4.0);
        EXPECT_EQ(0.0, DistanceFrom(out, Green(size.first, size.second),
                                    LeftWallBox(size.first, size.second)));
    }
    EXPECT_TRUE(
        log.contains("Frame size changed from 640x360 -> 1280x720 vbgUpdateRequested -> false"));
    EXPECT_TRUE(
        log.contains("Frame size changed from 1280x720 -> 321x181 vbgUpdateRequested -> false"));
    EXPECT_EQ(4u, log.countContaining("Frame size changed from"));
}

TEST_F(EnginePipeline, ProcessingTimeAndStatisticsDescribeTheLastFrame) {
    Instance instance(BlurConfig());
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_NV12);
    ProcessFrames(instance, *in, out, kSettle);
    uint32_t width = 0, height = 0, type = 99;
    const char* text =
        ZynNativeVideoProcessingGetFrameProcessingStats(instance.handle(), &width, &height, &type);
    EXPECT_EQ(640u, width);
    EXPECT_EQ(360u, height);
    EXPECT_EQ(0u, type);
    rapidjson::Document doc;
    doc.Parse(text);
    ASSERT_TRUE(doc.IsObject()) << text;
    const int pre = doc["preProcessedTime"].GetInt();
    const int inf = doc["inferenceTime"].GetInt();
    const int post = doc["postProcessedTime"].GetInt();
    const int total = doc["fullFrameTime"].GetInt();
    EXPECT_EQ(static_cast<float>(total), instance.lastProcessingTime());
    EXPECT_GE(total, pre + inf + post);
    EXPECT_LE(total, pre + inf + post + 2);  // three truncations
    // Null outputs are allowed.
    EXPECT_STREQ(text, ZynNativeVideoProcessingGetFrameProcessingStats(instance.handle(), nullptr,
                                                                       nullptr, nullptr));
}

TEST_F(EnginePipeline, FeedbackRecordsTheNextFrameAndTheMasksItWasMadeWith) {
    Instance instance(BackgroundConfig("green.png"));
    Instance plain(BackgroundConfig("green.png"));  // the same frames, without feedback
    auto in = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame out(640, 360, ZYN_FORMAT_NV12);
    Frame plainOut(640, 360, ZYN_FORMAT_NV12);
    auto processBoth = [&](int count) {
        ProcessFrames(instance, *in, out, count);
        ProcessFrames(plain, *in, plainOut, count);
    };
    processBoth(kSettle);
    const fs::path cache = Library::Get().cache();
    ASSERT_EQ(0u, instance.update(R"({"feedback": true, "id": "fbone"})"));
    processBoth(1);
    EXPECT_EQ(plainOut.packedI420(), out.packedI420());

    const auto raw = ReadBytes(cache / "rawfbone.bin");
    std::vector<uint8_t> expectedRaw(640 * 360 * 4);
    ZynNativeInputFrame r = in->record();
    libyuv::NV12ToARGB(r.plane0, r.stride0, r.plane1, r.stride1, expectedRaw.data(), 640 * 4, 640,
                       360);
    EXPECT_EQ(expectedRaw, raw);
    std::vector<uint8_t> expectedFinal(640 * 360 * 4);
    ZynNativeInputFrame f = out.record();
    libyuv::NV12ToARGB(f.plane0, f.stride0, f.plane1, f.stride1, expectedFinal.data(), 640 * 4, 640,
                       360);
    EXPECT_EQ(expectedFinal, ReadBytes(cache / "finalfbone.bin"));
    // Masks at model resolution (the landscape model: 256 x 144). The current one is the mask
    // the frame was blended with: scaled to the frame, it gives every output luma byte from the
    // camera's and the green picture's.
    const auto current = ReadBytes(cache / "currentMaskfbone.bin");
    const auto previous = ReadBytes(cache / "previousMaskfbone.bin");
    ASSERT_EQ(256u * 144u, current.size());
    EXPECT_EQ(256u * 144u, previous.size());
    EXPECT_NE(current, previous);
    std::vector<uint8_t> alpha(640 * 360);
    libyuv::ScalePlane(current.data(), 256, 256, 144, alpha.data(), 640, 640, 360,
                       libyuv::kFilterBilinear);
    const int green = Green(640, 360).y;
    size_t mismatches = 0;
    for (uint32_t y = 0; y < 360; ++y) {
        for (uint32_t x = 0; x < 640; ++x) {
            const int a = alpha[y * 640 + x];
            mismatches +=
                out.lumaAt(x, y) != ((in->lumaAt(x, y) * a + green * (255 - a) + 255) >> 8);
        }
    }
    EXPECT_EQ(0u, mismatches);
    rapidjson::Document index;
    index.Parse(zyn_test::ReadFile(cache / "fbone.json").c_str());
    ASSERT_TRUE(index.IsObject());
    EXPECT_EQ(256, index["currentMask"]["width"].GetInt());
    EXPECT_EQ(144, index["previousMask"]["height"].GetInt());
    EXPECT_STREQ("finalfbone.bin", index["final"]["filename"].GetString());

    // The previous mask of the next frame is the one this frame used.
    ASSERT_EQ(0u, instance.update(R"({"feedback": true, "id": "fbtwo"})"));
    processBoth(1);
    EXPECT_EQ(current, ReadBytes(cache / "previousMaskfbtwo.bin"));
    EXPECT_EQ(plainOut.packedI420(), out.packedI420());

    // One request records one frame: the next frame writes nothing.
    fs::remove(cache / "rawfbtwo.bin");
    ProcessFrames(instance, *in, out, 1);
    EXPECT_FALSE(fs::exists(cache / "rawfbtwo.bin"));

    // A request while another one waits is refused, which costs the host the instance.
    ASSERT_EQ(0u, instance.update(R"({"feedback": true, "id": "fbthree"})"));
    LogCapture log;
    EXPECT_EQ(2u, instance.update(R"({"feedback": true, "id": "fbfour"})"));
    EXPECT_TRUE(log.contains("FeedbackWriter in progress with id fbthree"));
    EXPECT_FALSE(instance.valid());
}

TEST_F(EnginePipeline, OnnxRuntimeCpuTypeThroughProcessingMode8) {
    // The backend is one per process: start from none, and leave none behind.
    ZynNativeVideoProcessingShutdownInstance();
    {
        Instance instance(BackgroundConfig("green.png", 8));
        ASSERT_EQ(0u, instance.status());
        auto in = AstronautFrame(640, 360, ZYN_FORMAT_I420);
        Frame out(640, 360, ZYN_FORMAT_I420);
        ProcessFrames(instance, *in, out, kSettle);
        uint32_t type = 0;
        ZynNativeVideoProcessingGetFrameProcessingStats(instance.handle(), nullptr, nullptr, &type);
        EXPECT_EQ(2u, type);
        EXPECT_LT(MeanDifference(*in, out, FaceBox(640, 360)), 4.0);
        EXPECT_EQ(0.0, DistanceFrom(out, Green(640, 360), LeftWallBox(640, 360)));

        // While that backend lives, the CPU type is refused.
        LogCapture log;
        Instance other(BlurConfig(2));
        EXPECT_EQ(3u, other.status());
        EXPECT_TRUE(log.contains("Processing Type mismatch and hence returning false to fallback"));
    }
    ZynNativeVideoProcessingShutdownInstance();
}
