// The video playback thread and its consumer: continuous looping, the frame lock, pausing when
// idle, start and stop, and the consumer going away on the playback thread itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "media/background_image.h"
#include "media/video_file_playback.h"
#include "media_fixtures.h"
#include "support/log_capture.h"
#include "support/test_paths.h"
#include "util/log.h"

namespace {

using namespace std::chrono_literals;
using VBG::BackgroundImage;
using VBG::PlaybackState;
using VBG::VideoFilePlayback;
using zyn_test::ColourAt;
using zyn_test::FileSettings;
using zyn_test::WaitFor;

constexpr uint32_t kMp4 = 4;
using Clock = std::chrono::steady_clock;

uint64_t Fnv1a(const uint8_t* bytes, size_t size) {
    uint64_t hash = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i) {
        hash = (hash ^ bytes[i]) * 1099511628211ull;
    }
    return hash;
}

// Counts the frames a playback hands over, without taking them.
class CountingSink : public VBG::VideoFrameSink {
  public:
    void deliverVideoFrame(std::vector<uint8_t>& frame, int width, int height) override {
        lastBytes = frame.size();
        lastWidth = width;
        lastHeight = height;
        ++frames;
    }
    std::atomic<int> frames{0};
    std::atomic<size_t> lastBytes{0};
    std::atomic<int> lastWidth{0};
    std::atomic<int> lastHeight{0};
};

class VideoPlaybackTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<zyn_test::TempDir>("zyn-playback");
        // Five frames at 10 frames per second: half a second.
        ASSERT_TRUE(zyn_test::RunFfmpeg(
            "-f lavfi -i testsrc2=s=160x120:r=10:d=0.5 -c:v libx264 -pix_fmt yuv420p " +
            Path("short.mp4")));
        // 320x120: a red quarter on the left, a blue quarter on the right, green between.
        ASSERT_TRUE(
            zyn_test::RunFfmpeg("-f lavfi -i color=c=0x00FF00:s=320x120:r=10:d=1 -vf "
                                "\"drawbox=x=0:y=0:w=80:h=120:color=0xFF0000:t=fill,"
                                "drawbox=x=240:y=0:w=80:h=120:color=0x0000FF:t=fill\" "
                                "-c:v libx264 -pix_fmt yuv420p " +
                                Path("bands.mp4")));
        // Red, green, blue: one frame each, four frames per second.
        ASSERT_TRUE(zyn_test::RunFfmpeg(
            "-f lavfi -i color=c=red:s=64x48:r=4:d=0.25 -f lavfi -i color=c=0x00FF00:s=64x48:r=4:"
            "d=0.25 -f lavfi -i color=c=blue:s=64x48:r=4:d=0.25 -filter_complex "
            "\"[0][1][2]concat=n=3:v=1\" -c:v libx264 -pix_fmt yuv420p " +
            Path("colours.mp4")));
        // One frame per second.
        ASSERT_TRUE(zyn_test::RunFfmpeg("-f lavfi -i testsrc2=s=64x48:r=1:d=3 -c:v libx264 " +
                                        Path("slow.mp4")));
        ASSERT_TRUE(zyn_test::RunFfmpeg(
            "-f lavfi -i testsrc2=s=160x120:r=10:d=1 -c:v libx264 -pix_fmt yuv420p "
            "-movflags +faststart " +
            Path("intact.mp4")));
        // The same file with its coded pictures overwritten: it opens, but nothing decodes.
        std::string damaged = zyn_test::ReadFile(Path("intact.mp4"));
        const size_t data = damaged.find("mdat");
        ASSERT_NE(data, std::string::npos);
        std::fill(damaged.begin() + static_cast<std::ptrdiff_t>(data + 68), damaged.end(), 'U');
        zyn_test::WriteFile(Path("damaged.mp4"), damaged);
    }
    static void TearDownTestSuite() { dir_.reset(); }

    static std::string Path(const std::string& name) { return (*dir_ / name).string(); }

    static std::shared_ptr<BackgroundImage> StartedVideo(
        const std::string& name, std::chrono::milliseconds pauseAfter = 11s) {
        auto image = std::make_shared<BackgroundImage>(FileSettings(VBG::BtVideo, kMp4, Path(name)),
                                                       pauseAfter);
        EXPECT_TRUE(image->initVideoFilePlayback(0, 0));
        EXPECT_EQ(image->playbackState(), 0u);
        EXPECT_TRUE(image->startVideoFilePlayback());
        return image;
    }

    // What an engine does with a new frame: fetch it, read it, release it, acknowledge it.
    static uint64_t FetchFrame(BackgroundImage& image, int width, int height) {
        const uint8_t* argb = image.lockAndGetCropAndScaledArgbBuffer(width, height);
        EXPECT_NE(argb, nullptr);
        const uint64_t hash =
            argb != nullptr ? Fnv1a(argb, static_cast<size_t>(width) * height * 4) : 0;
        image.unlockVideoFrame();
        image.videoFrameConsumed();
        return hash;
    }

    static std::unique_ptr<zyn_test::TempDir> dir_;
};

std::unique_ptr<zyn_test::TempDir> VideoPlaybackTest::dir_;

TEST_F(VideoPlaybackTest, ShortClipLoopsContinuouslyWithoutAGap) {
    auto image = StartedVideo("short.mp4");
    FetchFrame(*image, 160, 120);  // asks for the size; grey until the first frame
    std::set<uint64_t> pictures;
    int frames = 0;
    auto lastFrame = Clock::now();
    const auto start = lastFrame;
    Clock::duration longestGap{};
    Clock::time_point latest{};
    // Three times the clip's length.
    while (Clock::now() - start < 1500ms) {
        if (image->hasNewFrame()) {
            const auto now = Clock::now();
            if (frames > 0) {
                longestGap = std::max(longestGap, now - lastFrame);
            }
            lastFrame = latest = now;
            pictures.insert(FetchFrame(*image, 160, 120));
            ++frames;
        }
        std::this_thread::sleep_for(2ms);
    }
    EXPECT_GE(frames, 10);
    EXPECT_EQ(pictures.size(), 5u);  // the clip's five pictures, over and over
    EXPECT_LT(longestGap, 300ms) << "a frame period is 100 ms";
    EXPECT_GT(latest - start, 1200ms);
    EXPECT_EQ(image->playbackState(), 2u);
    EXPECT_GE(image->playback()->framesConsumed(), static_cast<uint64_t>(frames));
}

TEST_F(VideoPlaybackTest, FirstFrameIsShownAtStartAndAfterEachLoop) {
    auto image = StartedVideo("colours.mp4");
    // The playback decodes its first frame at once; the size is asked for half a period later.
    std::this_thread::sleep_for(125ms);
    image->lockAndGetCropAndScaledArgbBuffer(64, 48);
    image->unlockVideoFrame();
    std::string shown;
    ASSERT_TRUE(WaitFor(
        [&] {
            if (image->hasNewFrame()) {
                shown += ColourAt(image->lockAndGetCropAndScaledArgbBuffer(64, 48), 64 * 4, 32, 24);
                image->unlockVideoFrame();
                image->videoFrameConsumed();
            }
            return shown.find("br") != std::string::npos;
        },
        3000ms))
        << shown;
    EXPECT_EQ(shown.front(), 'r') << shown;
}

TEST_F(VideoPlaybackTest, FramesAreCroppedToTheSizeAskedFor) {
    auto image = StartedVideo("bands.mp4");
    image->lockAndGetCropAndScaledArgbBuffer(160, 120);
    image->unlockVideoFrame();
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
    const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(160, 120);
    ASSERT_NE(argb, nullptr);
    // 4:3 out of 8:3 keeps the middle half: the red and blue bands are cut off.
    EXPECT_EQ(ColourAt(argb, 160 * 4, 0, 60), 'g');
    EXPECT_EQ(ColourAt(argb, 160 * 4, 159, 60), 'g');
    image->unlockVideoFrame();

    // A wider size: grey at first, then frames of the new size with the whole width.
    argb = image->lockAndGetCropAndScaledArgbBuffer(480, 120);
    ASSERT_NE(argb, nullptr);
    EXPECT_TRUE(std::all_of(argb, argb + 480 * 120 * 4,
                            [](uint8_t v) { return v == VBG::kBackgroundGrey; }));
    image->unlockVideoFrame();
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
    argb = image->lockAndGetCropAndScaledArgbBuffer(480, 120);
    ASSERT_NE(argb, nullptr);
    EXPECT_EQ(ColourAt(argb, 480 * 4, 2, 60), 'r');
    EXPECT_EQ(ColourAt(argb, 480 * 4, 240, 60), 'g');
    EXPECT_EQ(ColourAt(argb, 480 * 4, 477, 60), 'b');
    image->unlockVideoFrame();
}

TEST_F(VideoPlaybackTest, HeldFrameIsNotReplacedUntilReleased) {
    auto image = StartedVideo("short.mp4");
    FetchFrame(*image, 160, 120);
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
    const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(160, 120);
    ASSERT_NE(argb, nullptr);
    const uint64_t held = Fnv1a(argb, 160 * 120 * 4);
    std::this_thread::sleep_for(350ms);  // three frames were due meanwhile
    EXPECT_EQ(Fnv1a(argb, 160 * 120 * 4), held);
    EXPECT_FALSE(image->hasNewFrame());
    image->unlockVideoFrame();
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 1000ms));
    EXPECT_NE(FetchFrame(*image, 160, 120), held);
}

TEST_F(VideoPlaybackTest, PausesWhenIdleAndRestartsOnTheNextRequest) {
    zyn_test::LogCapture log;
    auto image = StartedVideo("short.mp4", 300ms);
    const auto playback = image->playback();
    const std::string paused =
        fmt::format("Video Decode Paused! this: 0x{0:X}", VBG::addr(playback.get()));
    const std::string restarted =
        fmt::format("Video Decode Restarted! this: 0x{0:X}", VBG::addr(playback.get()));
    FetchFrame(*image, 160, 120);
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
    FetchFrame(*image, 160, 120);
    const auto lastRequest = Clock::now();

    ASSERT_TRUE(WaitFor([&] { return log.count(paused) == 1; }, 3000ms)) << log.dump();
    EXPECT_TRUE(log.hasFrom("VBG::VideoFilePlayback::RunFilePlayback", paused));
    EXPECT_GE(Clock::now() - lastRequest, 300ms);
    EXPECT_EQ(image->playbackState(), 3u);
    const uint64_t delivered = playback->framesDelivered();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(playback->framesDelivered(), delivered);  // no decoding while paused
    EXPECT_EQ(log.count(restarted), 0u);

    image->hasNewFrame();  // the engine's next look counts as a request
    ASSERT_TRUE(WaitFor([&] { return log.count(restarted) == 1; }, 1000ms)) << log.dump();
    EXPECT_TRUE(log.hasFrom("VBG::VideoFilePlayback::RunFilePlayback", restarted));
    EXPECT_TRUE(WaitFor([&] { return playback->framesDelivered() > delivered; }, 1000ms));
    EXPECT_EQ(image->playbackState(), 2u);
    image->stopVideoFilePlayback();
    EXPECT_EQ(image->playbackState(), 4u);
}

TEST_F(VideoPlaybackTest, StartTwiceKeepsOneThreadAndCleanupJoinsIt) {
    zyn_test::LogCapture log;
    auto sink = std::make_shared<CountingSink>();
    auto playback =
        VideoFilePlayback::Create(VBG::Media::MediaSource::File(Path("short.mp4")), 0, sink);
    ASSERT_NE(playback, nullptr);
    EXPECT_EQ(log.count(fmt::format("File Path: {0}, this: 0x{1:X}", Path("short.mp4"),
                                    VBG::addr(playback.get()))),
              1u);
    const size_t before = zyn_test::ThreadCount();
    ASSERT_TRUE(playback->Start());
    EXPECT_EQ(zyn_test::ThreadCount(), before + 1);
    EXPECT_TRUE(playback->Start());
    EXPECT_EQ(log.count("Already Playback Running"), 1u);
    EXPECT_EQ(zyn_test::ThreadCount(), before + 1);

    playback->RequestFrame(80, 60);
    ASSERT_TRUE(WaitFor([&] { return sink->frames >= 2; }, 2000ms));
    EXPECT_EQ(sink->lastWidth, 80);
    EXPECT_EQ(sink->lastHeight, 60);
    EXPECT_EQ(sink->lastBytes, 80u * 60 * 4);

    playback->Cleanup();
    EXPECT_EQ(playback->State(), PlaybackState::Stopped);
    EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 1000ms));
    const int frames = sink->frames;
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(sink->frames, frames);
    EXPECT_FALSE(playback->Start());  // a stopped playback stays stopped
    EXPECT_EQ(zyn_test::ThreadCount(), before);
    const std::string self = fmt::format("0x{0:X}", VBG::addr(playback.get()));
    EXPECT_EQ(log.count("Video Playback Started! this: " + self), 1u);
    EXPECT_EQ(log.count("Video Playback Stopped! this: " + self), 1u);
}

TEST_F(VideoPlaybackTest, CleanupWakesAWaitingThreadAtOnce) {
    auto sink = std::make_shared<CountingSink>();
    {
        // Between two frames a second apart.
        auto playback =
            VideoFilePlayback::Create(VBG::Media::MediaSource::File(Path("slow.mp4")), 0, sink);
        ASSERT_NE(playback, nullptr);
        EXPECT_DOUBLE_EQ(playback->frameRate(), 1.0);
        playback->RequestFrame(64, 48);
        ASSERT_TRUE(playback->Start());
        ASSERT_TRUE(WaitFor([&] { return sink->frames >= 1; }, 2000ms));
        const auto start = Clock::now();
        playback->Cleanup();
        EXPECT_LT(Clock::now() - start, 300ms);
    }
    {
        // Paused.
        auto playback = VideoFilePlayback::Create(VBG::Media::MediaSource::File(Path("short.mp4")),
                                                  0, sink, 50ms);
        ASSERT_NE(playback, nullptr);
        ASSERT_TRUE(playback->Start());
        ASSERT_TRUE(WaitFor([&] { return playback->State() == PlaybackState::Paused; }, 2000ms));
        const auto start = Clock::now();
        playback->Cleanup();
        EXPECT_LT(Clock::now() - start, 300ms);
        EXPECT_EQ(playback->State(), PlaybackState::Stopped);
    }
}

// A consumer that owns its playback, like BackgroundImage, and stops it when it goes away. The
// first frame it gets is held until the test has dropped its own reference, so the playback
// thread ends up holding the last one.
class LastOwnerSink : public VBG::VideoFrameSink {
  public:
    struct Trace {
        std::promise<void> entered;
        std::promise<void> release;
        std::atomic<bool> destroyedOnPlaybackThread{false};
        std::thread::id testThread = std::this_thread::get_id();
    };
    explicit LastOwnerSink(std::shared_ptr<Trace> trace) : trace_(std::move(trace)) {}
    ~LastOwnerSink() override {
        trace_->destroyedOnPlaybackThread = std::this_thread::get_id() != trace_->testThread;
        playback->Cleanup();
    }
    void deliverVideoFrame(std::vector<uint8_t>&, int, int) override {
        if (!held_.exchange(true)) {
            trace_->entered.set_value();
            trace_->release.get_future().wait();
        }
    }
    std::shared_ptr<VideoFilePlayback> playback;

  private:
    std::shared_ptr<Trace> trace_;
    std::atomic<bool> held_{false};
};

TEST_F(VideoPlaybackTest, ConsumerReleasedOnThePlaybackThreadEndsItWithoutAJoin) {
    zyn_test::LogCapture log;
    auto trace = std::make_shared<LastOwnerSink::Trace>();
    const size_t before = zyn_test::ThreadCount();
    std::weak_ptr<VideoFilePlayback> weakPlayback;
    {
        auto sink = std::make_shared<LastOwnerSink>(trace);
        sink->playback =
            VideoFilePlayback::Create(VBG::Media::MediaSource::File(Path("short.mp4")), 0, sink);
        ASSERT_NE(sink->playback, nullptr);
        weakPlayback = sink->playback;
        sink->playback->RequestFrame(32, 24);
        ASSERT_TRUE(sink->playback->Start());
        trace->entered.get_future().wait();
    }
    trace->release.set_value();
    EXPECT_TRUE(WaitFor([&] { return weakPlayback.expired(); }, 2000ms));
    EXPECT_TRUE(trace->destroyedOnPlaybackThread);
    EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 2000ms));
    EXPECT_EQ(log.countContaining("Video Playback Stopped! this: 0x"), 1u);
}

TEST_F(VideoPlaybackTest, DecodingFailureEndsTheThreadWithARecord) {
    zyn_test::LogCapture log;
    const size_t before = zyn_test::ThreadCount();
    auto image = StartedVideo("damaged.mp4");
    ASSERT_TRUE(WaitFor([&] { return image->playbackState() == 1u; }, 3000ms)) << log.dump();
    EXPECT_EQ(log.countContaining("No video frame could be decoded from file"), 1u);
    EXPECT_EQ(log.countContaining("Video Playback Stopped! this: 0x"), 1u);
    EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 1000ms));
    // No frame will come: no buffer, no lock held.
    EXPECT_EQ(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
    EXPECT_TRUE(log.has(spdlog::level::err, "Bitmap from imagefile empty, invalid scenario"));
    EXPECT_FALSE(image->hasNewFrame());
    EXPECT_FALSE(image->startVideoFilePlayback());
}

TEST_F(VideoPlaybackTest, AuxiliaryOutputGetsEveryFrameOnlyWhenItsOptionIsSet) {
    for (uint8_t options : {uint8_t{0}, uint8_t{VBG::kPlaybackAuxiliaryOutput}}) {
        SCOPED_TRACE(int(options));
        auto sink = std::make_shared<CountingSink>();
        auto playback = VideoFilePlayback::Create(VBG::Media::MediaSource::File(Path("short.mp4")),
                                                  options, sink);
        ASSERT_NE(playback, nullptr);
        EXPECT_EQ(playback->playbackOptions(), options);
        std::atomic<int> auxiliaryFrames{0};
        std::atomic<bool> nativeSize{true};
        playback->SetAuxiliaryConsumer([&](const uint8_t* argb, int width, int height) {
            nativeSize = nativeSize && argb != nullptr && width == 160 && height == 120;
            ++auxiliaryFrames;
        });
        playback->RequestFrame(40, 30);
        ASSERT_TRUE(playback->Start());
        ASSERT_TRUE(WaitFor([&] { return sink->frames >= 4; }, 2000ms));
        playback->Cleanup();
        if (options & VBG::kPlaybackAuxiliaryOutput) {
            EXPECT_EQ(auxiliaryFrames, sink->frames);
            EXPECT_TRUE(nativeSize);
        } else {
            EXPECT_EQ(auxiliaryFrames, 0);
        }
    }
}

TEST_F(VideoPlaybackTest, VideoFromMemoryPlays) {
    const std::string bytes = zyn_test::ReadFile(Path("short.mp4"));
    auto image =
        std::make_shared<BackgroundImage>(zyn_test::MemorySettings(VBG::BtVideo, kMp4, bytes));
    ASSERT_TRUE(image->initVideoFilePlayback(160, 120));
    ASSERT_TRUE(image->startVideoFilePlayback());
    FetchFrame(*image, 160, 120);
    std::set<uint64_t> pictures;
    ASSERT_TRUE(WaitFor(
        [&] {
            if (image->hasNewFrame()) {
                pictures.insert(FetchFrame(*image, 160, 120));
            }
            return pictures.size() >= 3;
        },
        3000ms));
    image.reset();  // stops and joins the playback
}

}  // namespace
